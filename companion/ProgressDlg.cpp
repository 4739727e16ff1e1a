#include "companion/ProgressDlg.h"

void ecProgressDlg::SetRange(int low, int high)
{
    m_low = low;
    m_high = high;
    m_pos = low;
}

int ecProgressDlg::SetStep(int step)
{
    int previous = m_step;
    m_step = step;
    return previous;
}

int ecProgressDlg::StepIt()
{
    int previous = m_pos;
    m_pos += m_step;
    if (m_pos > m_high)
        m_pos = m_high;
    return previous;
}
