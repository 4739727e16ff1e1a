// An SVG page of stacked traces. Channels of one type share one scale, shown by one scale bar,
// so amplitudes compare across lanes; each trace is drawn about its mean over the page, so DC
// offsets do not push it out of its lane. The page is read block by block into a min/max
// envelope per pixel column: spikes stay visible, and neither memory nor the file grows with
// the number of slices. Trigger channels are drawn as steps labelled with their codes; event
// labels are staggered over a few rows and thinned where they would still overlap.
#include "Plot.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "companion/Xml.h"
#include "filelib/ecFilebase.h"
#include "filelib/filelib.h"

namespace {

constexpr int kWidth = 1200;
constexpr int kLeft = 120;
constexpr int kRight = 110;  // room for the scale bars
constexpr int kPlotWidth = kWidth - kLeft - kRight;
constexpr int kLabelRows = 3;
constexpr int kRowHeight = 12;
constexpr int kTop = 30 + kLabelRows * kRowHeight;
constexpr int kLane = 60;
constexpr int kBottom = 70;
constexpr int kBlock = 5000;
constexpr double kCharWidth = 6;  // labels are stretched to this width per character (textLength)
constexpr double kLabelGap = 4;

std::string Text(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

// "20 µV", "500 fT": a value with the SI prefix that keeps its number between 1 and 1000.
std::string SiText(double v, const std::string& unit)
{
    if (unit.empty() || v == 0)
        return Text(v) + (unit.empty() ? "" : " " + unit);
    static const char* const prefixes[] = {"f", "p", "n", "\u00b5", "m", "", "k", "M"};
    const int group = std::clamp(static_cast<int>(std::floor(std::log10(std::fabs(v)) / 3)), -5, 2);
    return Text(v / std::pow(1000.0, group)) + " " + prefixes[group + 5] + unit;
}

// The largest 1, 2 or 5 times a power of ten not above x (x > 0).
double NiceBelow(double x)
{
    const double power = std::pow(10.0, std::floor(std::log10(x)));
    for (double m : {5.0, 2.0})
        if (m * power <= x)
            return m * power;
    return power;
}

// Where a page lies in the recording and how its slices map to pixel columns.
struct Frame {
    long first = 0;       // the page's first slice
    long slices = 0;      // slices the page holds (the last page may hold fewer than it spans)
    long span = 1;        // slices a full page spans
    int columns = 1;
    double rate = 1;

    size_t Column(long offset) const { return static_cast<size_t>(static_cast<long long>(offset) * columns / span); }
    double ColumnX(double c) const { return kLeft + c * kPlotWidth / columns; }
    double SliceX(long s) const { return kLeft + static_cast<double>(s - first) / span * kPlotWidth; }
};

// One channel's envelope and moments over the page. Moments are taken about the first sample,
// so that a large offset does not swamp a small signal.
struct Lane {
    std::vector<float> lo, hi;
    double shift = NAN;
    double sum = 0, sumSq = 0;
    long n = 0;

    void Add(size_t col, float v)
    {
        if (!std::isfinite(v))
            return;
        if (n == 0)
            shift = v;
        const double d = v - shift;
        sum += d;
        sumSq += d * d;
        ++n;
        lo[col] = std::min(lo[col], v);
        hi[col] = std::max(hi[col], v);
    }
    bool Has(size_t c) const { return lo[c] <= hi[c]; }
    double Mean() const { return n ? shift + sum / n : 0; }
    double Deviation() const { return n ? std::sqrt(std::max(0.0, sumSq / n - (sum / n) * (sum / n))) : 0; }
    // The sample of largest magnitude in column c: what a step drawing of a trigger shows.
    float Peak(size_t c) const { return std::fabs(hi[c]) >= std::fabs(lo[c]) ? hi[c] : lo[c]; }
};

std::vector<Lane> ReadLanes(CFilelib& f, const Frame& frame, const std::vector<int>& channels)
{
    std::vector<Lane> lanes(channels.size());
    for (Lane& lane : lanes) {
        lane.lo.assign(static_cast<size_t>(frame.columns), INFINITY);
        lane.hi.assign(static_cast<size_t>(frame.columns), -INFINITY);
    }
    ecLabeledMatrix<float> m;
    for (long done = 0; done < frame.slices;) {
        const long want = std::min<long>(kBlock, frame.slices - done);
        const int n = f.ReadData(m, static_cast<int>(frame.first + done), static_cast<int>(want));
        if (n < 1)
            break;
        for (size_t i = 0; i < channels.size(); ++i) {
            const float* row = m[channels[i]];
            for (int s = 0; s < n; ++s)
                lanes[i].Add(frame.Column(done + s), row[s]);
        }
        done += n;
    }
    return lanes;
}

// The channels drawn to one scale: one type in one unit.
struct Scale {
    std::string type, unit;
    bool trigger = false;
    double pixelsPerUnit = 0;  // 0: nothing but flat traces
    size_t firstLane = 0;
};

std::string TypeWord(int type)
{
    if (type & kChanTrigger)
        return "trigger";
    if (type & kChanMEG)
        return "MEG";
    if (type & kChanEEG)
        return "EEG";
    return "other";
}

// Analog types: about six standard deviations of the median channel per lane, so a typical
// trace fills its lane and one noisy channel does not flatten the others. Triggers: the largest
// code reaches most of a lane.
double PixelsPerUnit(const Scale& scale, const std::vector<Lane>& lanes, const std::vector<size_t>& members)
{
    std::vector<double> sizes;
    for (size_t i : members) {
        double size = scale.trigger ? 0 : lanes[i].Deviation();
        if (scale.trigger)
            for (size_t c = 0; c < lanes[i].lo.size(); ++c)
                size = lanes[i].Has(c) ? std::max<double>(size, std::fabs(lanes[i].Peak(c))) : size;
        if (size > 0)
            sizes.push_back(size);
    }
    if (sizes.empty())
        return 0;
    if (scale.trigger)
        return 0.8 * kLane / *std::max_element(sizes.begin(), sizes.end());
    std::nth_element(sizes.begin(), sizes.begin() + sizes.size() / 2, sizes.end());
    return kLane / (6 * sizes[sizes.size() / 2]);
}

// The scale of every lane, one per type and unit.
std::vector<Scale> Scales(CFilelib& f, const std::vector<int>& channels, const std::vector<Lane>& lanes,
                          std::vector<size_t>& scaleOfLane)
{
    std::vector<Scale> scales;
    std::map<std::string, size_t> byKey;
    std::vector<std::vector<size_t>> members;
    for (size_t i = 0; i < channels.size(); ++i) {
        std::string unit;
        f.GetChanUnit(channels[i], unit);
        const std::string type = TypeWord(f.GetChanType(channels[i]));
        const auto [at, added] = byKey.emplace(type + '\n' + unit, scales.size());
        if (added) {
            scales.push_back({type, unit, type == "trigger", 0, i});
            members.emplace_back();
        }
        members[at->second].push_back(i);
        scaleOfLane.push_back(at->second);
    }
    for (size_t k = 0; k < scales.size(); ++k)
        scales[k].pixelsPerUnit = PixelsPerUnit(scales[k], lanes, members[k]);
    return scales;
}

double LaneCenter(size_t lane)
{
    return kTop + kLane * (lane + 0.5);
}

// Row of each label, in x order (-1: left out): the first of `rows` rows where it clears the
// label before it by a gap.
std::vector<int> PlaceLabels(const std::vector<std::pair<double, double>>& spans, int rows)
{
    std::vector<double> rowEnd(static_cast<size_t>(rows), -INFINITY);
    std::vector<int> placed;
    for (const auto& [x, width] : spans) {
        int r = 0;
        while (r < rows && rowEnd[static_cast<size_t>(r)] + kLabelGap > x)
            ++r;
        if (r < rows)
            rowEnd[static_cast<size_t>(r)] = x + width;
        placed.push_back(r < rows ? r : -1);
    }
    return placed;
}

void Label(std::ostringstream& svg, double x, double y, const std::string& text, const char* cls)
{
    svg << "<text class=\"" << cls << "\" x=\"" << x << "\" y=\"" << y << "\" font-size=\"10\" textLength=\""
        << kCharWidth * static_cast<double>(text.size()) << "\" lengthAdjust=\"spacingAndGlyphs\">"
        << XmlEscaped(text) << "</text>\n";
}

void Envelope(std::ostringstream& svg, const Lane& lane, const Frame& frame, double center, double mean, double ppu)
{
    svg << "<polyline fill=\"none\" stroke=\"#1f4e9c\" stroke-width=\"0.8\" clip-path=\"url(#lanes)\" points=\"";
    for (size_t c = 0; c < lane.lo.size(); ++c) {
        if (!lane.Has(c))
            continue;
        const double x = frame.ColumnX(c + 0.5);
        svg << x << ',' << center - (lane.lo[c] - mean) * ppu << ' ';
        if (lane.hi[c] != lane.lo[c])
            svg << x << ',' << center - (lane.hi[c] - mean) * ppu << ' ';
    }
    svg << "\"/>\n";
}

// Steps from a zero line near the lane's foot, with the code written where each one begins.
void Steps(std::ostringstream& svg, const Lane& lane, const Frame& frame, double center, double ppu)
{
    const double base = center + 0.4 * kLane;
    std::vector<std::pair<double, double>> spans;
    std::vector<std::string> codes;
    std::vector<double> heights;
    svg << "<path class=\"steps\" fill=\"none\" stroke=\"#2a7a2a\" clip-path=\"url(#lanes)\" d=\"";
    float last = NAN;
    size_t end = 0;
    for (size_t c = 0; c < lane.lo.size(); ++c) {
        if (!lane.Has(c))
            continue;
        const float v = lane.Peak(c);
        const double x = frame.ColumnX(static_cast<double>(c)), y = base - v * ppu;
        if (std::isnan(last))
            svg << 'M' << x << ',' << y;
        else if (v != last)
            svg << 'H' << x << 'V' << y;
        if (v != last && v != 0) {
            codes.push_back(Text(v));
            spans.emplace_back(x + 1, kCharWidth * static_cast<double>(codes.back().size()));
            heights.push_back(y - 2);
        }
        last = v;
        end = c + 1;
    }
    if (end)
        svg << 'H' << frame.ColumnX(static_cast<double>(end));
    svg << "\"/>\n";
    const std::vector<int> rows = PlaceLabels(spans, 1);
    for (size_t k = 0; k < rows.size(); ++k)
        if (rows[k] == 0)
            Label(svg, spans[k].first, std::max(heights[k], center - 0.45 * kLane), codes[k], "code");
}

void Traces(std::ostringstream& svg, CFilelib& f, const std::vector<int>& channels, const std::vector<Lane>& lanes,
            const Frame& frame, const std::vector<Scale>& scales, const std::vector<size_t>& scaleOfLane)
{
    for (size_t i = 0; i < channels.size(); ++i) {
        const Scale& scale = scales[scaleOfLane[i]];
        const double center = LaneCenter(i);
        std::string name;
        f.GetChanName(channels[i], name);
        svg << "<g class=\"trace\" data-type=\"" << XmlEscaped(scale.type) << "\"><text x=\"" << kLeft - 8 << "\" y=\""
            << center + 4 << "\" text-anchor=\"end\">" << XmlEscaped(name) << "</text>\n<line x1=\"" << kLeft
            << "\" x2=\"" << kLeft + kPlotWidth << "\" y1=\"" << center << "\" y2=\"" << center
            << "\" stroke=\"#e6e6e6\"/>\n";
        if (lanes[i].n && scale.trigger)
            Steps(svg, lanes[i], frame, center, scale.pixelsPerUnit);
        else if (lanes[i].n)
            Envelope(svg, lanes[i], frame, center, lanes[i].Mean(), scale.pixelsPerUnit);
        svg << "</g>\n";
    }
}

// One bar per analog scale, beside the first lane of its type; triggers carry their codes instead.
void ScaleBars(std::ostringstream& svg, const std::vector<Scale>& scales)
{
    const double x = kLeft + kPlotWidth + 12;
    for (const Scale& scale : scales) {
        if (scale.trigger || scale.pixelsPerUnit <= 0)
            continue;
        const double value = NiceBelow(0.8 * kLane / scale.pixelsPerUnit), length = value * scale.pixelsPerUnit;
        const double center = LaneCenter(scale.firstLane);
        svg << "<g class=\"scale\" data-type=\"" << XmlEscaped(scale.type) << "\"><line x1=\"" << x << "\" x2=\"" << x
            << "\" y1=\"" << center - length / 2 << "\" y2=\"" << center + length / 2
            << "\" stroke=\"black\" stroke-width=\"2\"/><text x=\"" << x + 6 << "\" y=\"" << center + 4
            << "\" font-size=\"10\">" << XmlEscaped(scale.type + " " + SiText(value, scale.unit)) << "</text></g>\n";
    }
}

// Ticks of 1, 2 or 5 times a power of ten seconds, four to ten to a page.
void TimeAxis(std::ostringstream& svg, const Frame& frame, double axisY)
{
    const double t0 = frame.first / frame.rate, span = frame.span / frame.rate;
    const double step = NiceBelow(span / 4);
    svg << "<g class=\"axis\"><line x1=\"" << kLeft << "\" x2=\"" << kLeft + kPlotWidth << "\" y1=\"" << axisY
        << "\" y2=\"" << axisY << "\" stroke=\"black\"/>\n";
    for (double k = std::ceil(t0 / step - 1e-9); k * step <= t0 + span * (1 + 1e-9); ++k) {
        const double x = kLeft + (k * step - t0) / span * kPlotWidth;
        svg << "<line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << axisY << "\" y2=\"" << axisY + 5
            << "\" stroke=\"black\"/><text x=\"" << x << "\" y=\"" << axisY + 18 << "\" text-anchor=\"middle\">"
            << Text(k * step + 0.0) << "</text>\n";
    }
    svg << "<text x=\"" << kLeft + kPlotWidth / 2 << "\" y=\"" << axisY + 36
        << "\" text-anchor=\"middle\">time (s)</text></g>\n";
}

// A dashed marker per event of the page, named by its title; labels in rows above the lanes.
void Events(std::ostringstream& svg, CFilelib& f, const Frame& frame, double axisY)
{
    ecEventList list;
    f.InitialEventList(&list, nullptr);
    std::vector<std::pair<long, std::string>> events;
    for (int i = 0; i < list.GetEventCnt(true); ++i) {
        const ecEvent& e = list.GetEvent(i);
        if (e.GetBegin() >= frame.first && e.GetBegin() < frame.first + frame.slices)
            events.emplace_back(e.GetBegin(), e.GetEventName());
    }
    std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::pair<double, double>> spans;
    for (const auto& [begin, name] : events)
        spans.emplace_back(frame.SliceX(begin) + 2, kCharWidth * static_cast<double>(name.size()));
    const std::vector<int> rows = PlaceLabels(spans, kLabelRows);
    for (size_t k = 0; k < events.size(); ++k) {
        const double x = spans[k].first - 2;
        svg << "<g class=\"event\"><title>" << XmlEscaped(events[k].second) << "</title><line x1=\"" << x << "\" x2=\""
            << x << "\" y1=\"" << kTop << "\" y2=\"" << axisY << "\" stroke=\"#d0342c\" stroke-dasharray=\"4,3\"/>\n";
        if (rows[k] >= 0)
            Label(svg, spans[k].first, kTop - 4 - kRowHeight * rows[k], events[k].second, "label");
        svg << "</g>\n";
    }
    const long left = std::count(rows.begin(), rows.end(), -1);
    if (left)
        svg << "<text x=\"" << kLeft << "\" y=\"" << axisY + 56 << "\" font-size=\"10\" fill=\"#777\">" << left
            << " event labels left out where they would overlap; each marker's title names its event</text>\n";
}

std::string RenderPage(CFilelib& f, const Frame& frame, const std::vector<int>& channels, const std::string& title)
{
    const std::vector<Lane> lanes = ReadLanes(f, frame, channels);
    std::vector<size_t> scaleOfLane;
    const std::vector<Scale> scales = Scales(f, channels, lanes, scaleOfLane);
    const double lanesHeight = kLane * static_cast<double>(channels.size());
    const double axisY = kTop + lanesHeight + 10;
    const int height = kTop + static_cast<int>(lanesHeight) + kBottom;
    std::ostringstream svg;
    svg.setf(std::ios::fixed);
    svg.precision(1);
    svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << height
        << "\" viewBox=\"0 0 " << kWidth << ' ' << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<defs><clipPath id=\"lanes\"><rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\"" << kPlotWidth
        << "\" height=\"" << lanesHeight << "\"/></clipPath></defs>\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        << "<text class=\"title\" x=\"" << kLeft << "\" y=\"18\" font-size=\"14\">" << XmlEscaped(title) << "</text>\n";
    Traces(svg, f, channels, lanes, frame, scales, scaleOfLane);
    ScaleBars(svg, scales);
    TimeAxis(svg, frame, axisY);
    Events(svg, f, frame, axisY);
    svg << "</svg>\n";
    return svg.str();
}

// Written under a temporary name claimed exclusively, then renamed over the target.
void WriteStaged(const std::string& out, const std::string& text)
{
    const std::string part = out + ".part";
    FILE* fp = std::fopen(part.c_str(), "wbx");
    if (!fp)
        throw std::runtime_error("cannot create " + part + (errno == EEXIST ? ": it exists" : ""));
    const bool written = std::fwrite(text.data(), 1, text.size(), fp) == text.size();
    if (std::fclose(fp) != 0 || !written || std::rename(part.c_str(), out.c_str()) != 0) {
        std::remove(part.c_str());
        throw std::runtime_error("cannot write " + out);
    }
}

}  // namespace

void RequireSvgName(const std::string& out)
{
    std::string tail = out.size() >= 4 ? out.substr(out.size() - 4) : "";
    std::transform(tail.begin(), tail.end(), tail.begin(), [](unsigned char c) { return std::tolower(c); });
    if (tail != ".svg")
        throw std::runtime_error("plot writes SVG only: the output name must end in .svg, not \"" + out + "\"");
}

PlotPage WritePlot(CFilelib& f, const ecSelection& window, const PlotRequest& request)
{
    const double rate = f.GetSampleRate();
    if (!(rate > 0))
        throw std::runtime_error("the recording states no sampling rate; nothing to plot");
    if (!(request.duration > 0) || request.duration * rate > 0x7FFFFFFF)
        throw std::runtime_error("--duration must be a positive number of seconds of at most 2147483647 slices");
    if (window.first < 0 || window.first > f.GetNumSlices())
        throw std::runtime_error("--first must lie between 0 and the recording's " +
                                 std::to_string(f.GetNumSlices()) + " slices");
    const long span = std::max(1L, std::lround(request.duration * rate));
    const long held = f.GetNumSlices() - window.first;
    const long slices = window.count < 0 ? held : std::min(held, window.count);
    const long pages = std::max(1L, (slices + span - 1) / span);
    if (request.page < 1 || request.page > pages)
        throw std::runtime_error("--page " + std::to_string(request.page) + " is not among the " +
                                 std::to_string(pages) + " pages of " + Text(request.duration) + " s");
    Frame frame;
    frame.first = window.first + (request.page - 1) * span;
    frame.slices = std::min(span, slices - (request.page - 1) * span);
    frame.span = span;
    frame.columns = static_cast<int>(std::min<long>(span, kPlotWidth));
    frame.rate = rate;
    std::vector<int> channels = window.channels;
    for (int c = 0; window.channels.empty() && c < f.GetNumChans(); ++c)
        channels.push_back(c);
    for (int c : channels)
        if (c < 0 || c >= f.GetNumChans())
            throw std::runtime_error("the recording has no channel " + std::to_string(c));
    const double start = frame.first / rate;
    const std::string title = request.title + ": page " + std::to_string(request.page) + " of " +
                              std::to_string(pages) + ", " + Text(start) + " to " + Text(start + span / rate) + " s";
    WriteStaged(request.out, RenderPage(f, frame, channels, title));
    return {request.page, pages, start, frame.slices};
}
