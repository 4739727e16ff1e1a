// Progress and cancel, polled synchronously by long operations: StepIt, then CheckCancelButton.
// Every operation has a harmless default so callers override only what they show.
#pragma once

#include "companion/Export.h"

class FILELIB_API ecProgressDlg {
public:
    virtual ~ecProgressDlg() = default;
    virtual void SetRange(int low, int high);
    // Returns the previous step.
    virtual int SetStep(int step);
    // Advances one step; returns the previous position.
    virtual int StepIt();
    virtual bool CheckCancelButton() { return false; }
    virtual void SetStatus(const char*) {}
    virtual void SetCaption(const char*) {}

    int GetLow() const { return m_low; }
    int GetHigh() const { return m_high; }
    int GetPos() const { return m_pos; }

private:
    int m_low = 0;
    int m_high = 100;
    int m_step = 10;
    int m_pos = 0;
};
