// An SVG of stacked traces: one lane per channel with its name, a time axis in seconds and the
// events of the range as labelled markers. Long ranges are drawn as a min/max envelope per
// pixel column, so the file stays small whatever the number of slices.
#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "companion/Xml.h"
#include "filelib/filelib.h"

namespace {

constexpr int kWidth = 1200;
constexpr int kLeft = 120;
constexpr int kRight = 20;
constexpr int kTop = 40;
constexpr int kLane = 60;
constexpr int kBottom = 50;
constexpr int kBlock = 5000;

// Min and max of each pixel column, read block by block.
struct Envelope {
    std::vector<float> lo, hi;
};

std::vector<Envelope> Envelopes(CFilelib& f, long first, long count, const std::vector<int>& channels, int columns)
{
    std::vector<Envelope> env(channels.size());
    for (Envelope& e : env) {
        e.lo.assign(static_cast<size_t>(columns), INFINITY);
        e.hi.assign(static_cast<size_t>(columns), -INFINITY);
    }
    ecLabeledMatrix<float> m;
    for (long done = 0; done < count;) {
        const int n = f.ReadData(m, static_cast<int>(first + done), static_cast<int>(std::min<long>(kBlock, count - done)));
        if (n < 1)
            break;
        for (size_t i = 0; i < channels.size(); ++i) {
            const float* row = m[channels[i]];
            for (int s = 0; s < n; ++s) {
                const size_t col = static_cast<size_t>((done + s) * columns / count);
                if (!std::isfinite(row[s]))
                    continue;
                env[i].lo[col] = std::min(env[i].lo[col], row[s]);
                env[i].hi[col] = std::max(env[i].hi[col], row[s]);
            }
        }
        done += n;
    }
    return env;
}

double NiceStep(double span)
{
    const double raw = span / 8;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * power >= raw)
            return m * power;
    return 10 * power;
}

// "109 µV": a peak-to-peak range with an SI prefix, so that lanes scaled apart stay comparable.
std::string RangeText(double range, const std::string& unit)
{
    static const char* const prefixes[] = {"p", "n", "\u00b5", "m", ""};
    double value = range * 1e12;
    int p = 0;
    while (p < 4 && std::fabs(value) >= 1000) {
        value /= 1000;
        ++p;
    }
    std::ostringstream out;
    out.precision(3);
    out << value << ' ' << (unit.empty() ? std::string() : prefixes[p] + unit);
    return out.str();
}

void Trace(std::ostringstream& svg, const Envelope& e, double laneCenter, double pixelsPerColumn,
           const std::string& unit)
{
    float lo = INFINITY, hi = -INFINITY;
    for (size_t c = 0; c < e.lo.size(); ++c)
        if (std::isfinite(e.lo[c])) {
            lo = std::min(lo, e.lo[c]);
            hi = std::max(hi, e.hi[c]);
        }
    if (!std::isfinite(lo))
        return;
    svg << "<text x=\"" << kLeft - 8 << "\" y=\"" << laneCenter + 18 << "\" text-anchor=\"end\" font-size=\"9\" "
        << "fill=\"#777\">" << XmlEscaped(RangeText(static_cast<double>(hi) - lo, unit)) << "</text>\n";
    const double mid = (static_cast<double>(lo) + hi) / 2;
    const double scale = hi > lo ? 0.9 * kLane / (static_cast<double>(hi) - lo) : 0.0;
    svg << "<polyline fill=\"none\" stroke=\"#1f4e9c\" stroke-width=\"0.8\" points=\"";
    for (size_t c = 0; c < e.lo.size(); ++c) {
        if (!std::isfinite(e.lo[c]))
            continue;
        const double x = kLeft + (c + 0.5) * pixelsPerColumn;
        svg << x << ',' << laneCenter - (e.lo[c] - mid) * scale << ' ';
        if (e.hi[c] != e.lo[c])
            svg << x << ',' << laneCenter - (e.hi[c] - mid) * scale << ' ';
    }
    svg << "\"/>\n";
}

}  // namespace

std::string RenderSvg(CFilelib& f, const std::string& title, long first, long count, const std::vector<int>& channels)
{
    const int plotWidth = kWidth - kLeft - kRight;
    const int height = kTop + kLane * static_cast<int>(channels.size()) + kBottom;
    const double rate = f.GetSampleRate();
    const int columns = static_cast<int>(std::max(1L, std::min<long>(count, plotWidth)));
    const double pixelsPerColumn = static_cast<double>(plotWidth) / columns;
    std::ostringstream svg;
    svg.precision(6);
    svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << height
        << "\" viewBox=\"0 0 " << kWidth << ' ' << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        << "<text x=\"" << kLeft << "\" y=\"22\" font-size=\"14\">" << XmlEscaped(title) << "</text>\n";

    const std::vector<Envelope> env = count > 0 ? Envelopes(f, first, count, channels, columns) : std::vector<Envelope>();
    for (size_t i = 0; i < channels.size(); ++i) {
        const double center = kTop + kLane * (i + 0.5);
        std::string name, unit;
        f.GetChanName(channels[i], name);
        f.GetChanUnit(channels[i], unit);
        svg << "<g class=\"trace\"><text x=\"" << kLeft - 8 << "\" y=\"" << center + 4 << "\" text-anchor=\"end\">"
            << XmlEscaped(name) << "</text>\n";
        svg << "<line x1=\"" << kLeft << "\" x2=\"" << kWidth - kRight << "\" y1=\"" << center << "\" y2=\"" << center
            << "\" stroke=\"#e6e6e6\"/>\n";
        if (i < env.size())
            Trace(svg, env[i], center, pixelsPerColumn, unit);
        svg << "</g>\n";
    }

    // Time axis in seconds.
    const double axisY = kTop + kLane * static_cast<double>(channels.size()) + 10;
    const double t0 = first / rate, span = std::max(count, 1L) / rate;
    svg << "<line x1=\"" << kLeft << "\" x2=\"" << kWidth - kRight << "\" y1=\"" << axisY << "\" y2=\"" << axisY
        << "\" stroke=\"black\"/>\n";
    const double step = NiceStep(span);
    for (double t = std::ceil(t0 / step) * step; t <= t0 + span + 1e-9; t += step) {
        const double x = kLeft + (t - t0) / span * plotWidth;
        svg << "<line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << axisY << "\" y2=\"" << axisY + 5
            << "\" stroke=\"black\"/><text x=\"" << x << "\" y=\"" << axisY + 18 << "\" text-anchor=\"middle\">" << t
            << "</text>\n";
    }
    svg << "<text x=\"" << kLeft + plotWidth / 2 << "\" y=\"" << axisY + 36 << "\" text-anchor=\"middle\">time (s)</text>\n";

    ecEventList events;
    f.InitialEventList(&events, nullptr);
    for (int i = 0; i < events.GetEventCnt(true); ++i) {
        const ecEvent& e = events.GetEvent(i);
        if (e.GetBegin() < first || e.GetBegin() >= first + count)
            continue;
        const double x = kLeft + static_cast<double>(e.GetBegin() - first) / std::max(count, 1L) * plotWidth;
        svg << "<g class=\"event\"><line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << kTop << "\" y2=\"" << axisY
            << "\" stroke=\"#d0342c\" stroke-dasharray=\"4,3\"/><text x=\"" << x + 2 << "\" y=\"" << kTop - 4
            << "\" fill=\"#d0342c\" font-size=\"10\">" << XmlEscaped(e.GetEventName()) << "</text></g>\n";
    }
    svg << "</svg>\n";
    return svg.str();
}
