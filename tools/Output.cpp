#include "Output.h"

#include <cmath>
#include <cstdlib>
#include <unistd.h>

namespace {
volatile std::sig_atomic_t g_interrupted = 0;
extern "C" void OnInterrupt(int) { g_interrupted = 1; }
}  // namespace

std::string JsonString(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

std::string JsonNumber(double v)
{
    if (!std::isfinite(v))
        return "null";
    char buf[40];
    for (int precision = 6; precision <= 17; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, v);
        if (std::strtod(buf, nullptr) == v)
            break;
    }
    return buf;
}

std::string JsonFloat(float v)
{
    if (!std::isfinite(v))
        return "null";
    char buf[40];
    for (int precision = 6; precision <= 9; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, static_cast<double>(v));
        if (std::strtof(buf, nullptr) == v)
            break;
    }
    return buf;
}

TerminalProgress::TerminalProgress(const char* caption)
    : m_caption(caption), m_tty(isatty(STDERR_FILENO) != 0)
{
    g_interrupted = 0;
    m_previousHandler = std::signal(SIGINT, OnInterrupt);
}

TerminalProgress::~TerminalProgress()
{
    std::signal(SIGINT, m_previousHandler == SIG_ERR ? SIG_DFL : m_previousHandler);
    if (m_tty && m_lastDrawn >= 0)
        std::fputs("\n", stderr);
}

int TerminalProgress::StepIt()
{
    const int previous = ecProgressDlg::StepIt();
    Draw();
    return previous;
}

bool TerminalProgress::CheckCancelButton() { return g_interrupted != 0; }

void TerminalProgress::Draw()
{
    if (!m_tty)
        return;
    const int span = GetHigh() - GetLow();
    const int percent = span > 0 ? 100 * (GetPos() - GetLow()) / span : 100;
    if (percent == m_lastDrawn)
        return;
    m_lastDrawn = percent;
    const int width = 40, filled = width * percent / 100;
    std::fprintf(stderr, "\r%s [%s%s] %3d%%", m_caption.c_str(), std::string(static_cast<size_t>(filled), '#').c_str(),
                 std::string(static_cast<size_t>(width - filled), '.').c_str(), percent);
    std::fflush(stderr);
}
