// Output helpers of the command-line program: JSON text, numbers, the terminal progress bar.
#pragma once

#include <csignal>
#include <cstdio>
#include <string>

#include "companion/ProgressDlg.h"

std::string JsonString(const std::string& s);
// Shortest text that reads back as the same float; "null" for NaN and infinities.
std::string JsonNumber(double v);
// Shortest text that reads back as the same single-precision value.
std::string JsonFloat(float v);

// A progress bar on standard error, drawn only when standard error is a terminal. Ctrl-C
// (SIGINT) is caught while the bar exists and reported through CheckCancelButton.
class TerminalProgress : public ecProgressDlg {
public:
    explicit TerminalProgress(const char* caption);
    ~TerminalProgress() override;
    int StepIt() override;
    bool CheckCancelButton() override;

private:
    void Draw();
    std::string m_caption;
    bool m_tty;
    int m_lastDrawn = -1;
    void (*m_previousHandler)(int);
};
