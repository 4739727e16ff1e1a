#include "filelib/EdfExport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>

#include "filelib/ExportKit.h"

namespace {

constexpr const char* kWriter = "WriteEdfCopy";
constexpr long kSearch = 4096;      // digital values tried for an end that prints exactly
constexpr double kExact = 1e-6;     // a printed end within this many steps of its value is exact

struct Width {
    int bytes;
    long lo, hi;
};

// The digital and physical ranges of a signal, as printed in its header fields.
struct Range {
    double toUnit = 1;  // delivered value x toUnit = value in the written unit
    std::string unit, pminText, pmaxText;
    long dmin = 0, dmax = 0;
    double error = 0;  // of the printed ends, in steps
};

// One data signal of the output, and what the first pass learnt about its samples.
struct Signal {
    int chan = 0;
    double rate = 0;
    long perRecord = 0;
    exportkit::GridSurvey survey;
    std::string label, transducer, filter;
    Range range;
    double pmin = 0, step = 1;  // parsed back from the printed range
    long long written = 0;      // samples handed over so far
    std::vector<int32_t> pending;  // digital samples not yet in a record
};

// x in at most 8 characters, as precisely as they allow (no exponent).
std::string Field8(double x)
{
    char text[64];
    for (int precision = 8; precision > 0; --precision) {
        std::snprintf(text, sizeof text, "%.*g", precision, x);
        if (std::string(text).find('e') == std::string::npos && std::string(text).size() <= 8)
            return text;
    }
    std::snprintf(text, sizeof text, "%.0f", std::clamp(x, -9999999.0, 99999999.0));
    return text;
}

// x in at most 8 characters, rounded down (or up) to the last digit they hold.
std::string Field8Outward(double x, bool down)
{
    std::string text = Field8(x);
    for (int i = 0; i < 3; ++i) {
        const double printed = std::strtod(text.c_str(), nullptr);
        if (down ? printed <= x : printed >= x)
            break;
        const size_t point = text.find('.');
        const double digit = std::pow(10.0, point == std::string::npos ? 0.0 : -double(text.size() - point - 1));
        text = Field8(printed + (down ? -digit : digit));
    }
    return text;
}

// Of the digital values from `from` towards `to` (at most kSearch of them), the one whose physical
// value (d + shift) x step + base 8 characters print closest, and that error in steps; an exact
// one ends the search.
double ClosestEnd(long from, long to, long shift, double step, double base, long& d, std::string& text)
{
    const long direction = to >= from ? 1 : -1;
    double best = std::numeric_limits<double>::infinity();
    for (long n = 0, x = from; n < kSearch && best > kExact; ++n, x += direction) {
        const double exact = static_cast<double>(x + shift) * step + base;
        const std::string printed = Field8(exact);
        const double error = std::fabs(std::strtod(printed.c_str(), nullptr) - exact) / step;
        if (error < best) {
            best = error;
            d = x;
            text = printed;
        }
        if (x == to)
            break;
    }
    return best;
}

// Printable ASCII within `width` characters; anything changed is reported.
std::string Fit(const std::string& text, size_t width, const std::string& what, std::vector<std::string>& warnings)
{
    std::string fitted = text;
    for (char& ch : fitted)
        if (static_cast<unsigned char>(ch) < 32 || static_cast<unsigned char>(ch) > 126)
            ch = '_';
    fitted = fitted.substr(0, width);
    if (fitted != text)
        warnings.push_back(what + " \"" + text + "\" written as \"" + fitted + "\"");
    return fitted;
}

// The ranges in the units a channel may be written in, smallest prefix first: voltages (delivered
// in volts) in uV, mV or V, magnetic fields (in tesla) in fT, pT, nT, uT, mT or T, any other unit
// as it is.
std::vector<Range> UnitChoices(const std::string& unit)
{
    static const std::pair<double, const char*> kPrefixes[] = {{1e15, "f"}, {1e12, "p"}, {1e9, "n"},
                                                               {1e6, "u"},  {1e3, "m"},  {1, ""}};
    std::vector<Range> choices;
    for (const auto& [toUnit, prefix] : kPrefixes) {
        if ((unit == "V" && toUnit <= 1e6) || unit == "T" || toUnit == 1) {
            choices.emplace_back();
            choices.back().toUnit = toUnit;
            choices.back().unit = (unit == "V" || unit == "T" ? prefix : "") + unit;
        }
    }
    return choices;
}

// The reader's own step, when the window's grid values fit the width; false otherwise.
bool IntegerRange(const exportkit::GridSurvey& g, const Width& w, Range& r)
{
    if (!g.Fits(g.nlo, g.nlo + static_cast<double>(w.hi - w.lo)))
        return false;
    const double step = g.Step(r.toUnit), base = g.Base(r.toUnit);
    const long qlo = static_cast<long>(g.nlo), qhi = static_cast<long>(g.nhi);
    const long shift = qlo >= w.lo && qhi <= w.hi ? 0 : qlo - w.lo;
    // The width's ends where they print exactly, else the ends nearest the width's or the
    // window's that print closest.
    r.error = std::max(ClosestEnd(w.lo, qlo - shift, shift, step, base, r.dmin, r.pminText),
                       ClosestEnd(w.hi, qhi - shift, shift, step, base, r.dmax, r.pmaxText));
    if (r.error <= kExact)
        return true;
    long d = 0;
    std::string text;
    const double lowError = ClosestEnd(qlo - shift, w.lo, shift, step, base, d, text);
    if (lowError < r.error) {
        r.dmin = d;
        r.pminText = text;
    }
    const double highError = ClosestEnd(qhi - shift, w.hi, shift, step, base, d, text);
    if (highError < r.error) {
        r.dmax = d;
        r.pmaxText = text;
    }
    if (r.dmin == r.dmax)
        r.dmax < w.hi ? ++r.dmax : --r.dmin;
    r.error = std::max(std::min(lowError, r.error), std::min(highError, r.error));
    return true;
}

// The finest step that covers the window's range (its ends printed outwards, so no sample is
// clamped), in the unit that keeps its largest value below 1e5.
Range CoveringRange(const exportkit::GridSurvey& g, const Width& w, const std::string& unit)
{
    const double largest = g.Empty() ? 0 : std::max(std::fabs(g.lo), std::fabs(g.hi));
    const std::vector<Range> choices = UnitChoices(unit);
    Range r = choices.back();
    for (const Range& choice : choices)
        if (largest * choice.toUnit < 1e5) {
            r = choice;
            break;
        }
    r.dmin = w.lo;
    r.dmax = w.hi;
    r.pminText = Field8Outward(g.Empty() ? 0 : g.lo * r.toUnit, true);
    r.pmaxText = Field8Outward(g.Empty() ? 0 : g.hi * r.toUnit, false);
    if (std::strtod(r.pmaxText.c_str(), nullptr) <= std::strtod(r.pminText.c_str(), nullptr))
        r.pmaxText = Field8(std::strtod(r.pminText.c_str(), nullptr) + 1);
    return r;
}

void ChooseRange(Signal& s, const std::string& unit, const Width& w, std::vector<std::string>& warnings)
{
    bool integer = false;
    // The first unit whose ends print exactly, else the one that prints them closest, where that
    // is within a hundredth of a step.
    for (Range candidate : UnitChoices(unit)) {
        if (IntegerRange(s.survey, w, candidate) && candidate.error <= 0.01 && (!integer || candidate.error < s.range.error)) {
            s.range = candidate;
            integer = true;
        }
        if (integer && s.range.error <= kExact)
            break;
    }
    if (!integer) {
        if (s.survey.Fits(s.survey.nlo, s.survey.nhi))
            warnings.push_back("channel " + s.label + ": its values at the source's step do not fit " +
                               std::to_string(8 * w.bytes) + " bits and 8-character ranges; written at a coarser step");
        s.range = CoveringRange(s.survey, w, unit);
        const double top = std::strtod(s.range.pmaxText.c_str(), nullptr);
        if (!s.survey.Empty() && std::fabs(top - s.survey.hi * s.range.toUnit) > 0.5 * std::fabs(top))
            warnings.push_back("channel " + s.label + ": its values are too small for 8 characters of " +
                               s.range.unit + "; they are not kept");
    }
    s.pmin = std::strtod(s.range.pminText.c_str(), nullptr);
    s.step = (std::strtod(s.range.pmaxText.c_str(), nullptr) - s.pmin) / static_cast<double>(s.range.dmax - s.range.dmin);
}

int32_t Digital(const Signal& s, double v)
{
    if (!std::isfinite(v))
        return static_cast<int32_t>(s.range.dmin);
    const double d = std::round((v * s.range.toUnit - s.pmin) / s.step) + static_cast<double>(s.range.dmin);
    return static_cast<int32_t>(std::clamp(d, static_cast<double>(s.range.dmin), static_cast<double>(s.range.dmax)));
}

// Seconds as EDF+ writes them: plain decimals, no trailing zeros.
std::string Seconds(double seconds)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.9f", seconds);
    std::string s = text;
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.')
        s.pop_back();
    return s == "-0" ? "0" : s;
}

bool DurationPrints(long slices, double rate, std::string& text)
{
    text = Field8(static_cast<double>(slices) / rate);
    return std::fabs(std::strtod(text.c_str(), nullptr) * rate - static_cast<double>(slices)) <=
           1e-9 * static_cast<double>(slices);
}

// Slices per record (see EdfExport.h): every channel of `rates` (its rate / the recording's)
// gets whole samples in a record; 0 when no record up to a minute gives them.
long RecordSlices(const std::vector<double>& rates, double rate, long count, std::string& durationText)
{
    const long most = std::max(1L, static_cast<long>(std::min(60 * rate, 1e7)));
    long best = 0;
    double bestScore = std::numeric_limits<double>::infinity();
    std::string text;
    for (long s = 1; s <= most; ++s) {
        const bool whole = std::all_of(rates.begin(), rates.end(), [&](double r) {
            return std::fabs(s * r - std::round(s * r)) < 1e-6 * s;
        });
        if (!whole || !DurationPrints(s, rate, text))
            continue;
        const bool divides = count > 0 && count % s == 0 && (s >= 0.1 * rate || s == count);
        const double score = std::fabs(static_cast<double>(s) / rate - 1) + (divides ? 0 : 1e6);
        if (score < bestScore) {
            bestScore = score;
            best = s;
            durationText = text;
        }
    }
    return best;
}

std::string DateField(const std::string& isoDate)
{
    static const char* kMonths[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN", "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};
    const int month = isoDate.size() == 10 ? std::atoi(isoDate.substr(5, 2).c_str()) : 0;
    if (month < 1 || month > 12)
        return "X";
    return isoDate.substr(8, 2) + "-" + kMonths[month - 1] + "-" + isoDate.substr(0, 4);
}

std::string Subfield(const std::string& text)
{
    std::string s = text.empty() ? "X" : text;
    std::replace(s.begin(), s.end(), ' ', '_');
    return s;
}

class EdfWriter {
public:
    EdfWriter(CFilelib& source, const exportkit::Window& window, int bytes, std::vector<std::string>& warnings)
        : m_source(source), m_window(window), m_width{bytes, bytes == 3 ? -8388608L : -32768L,
                                                       bytes == 3 ? 8388607L : 32767L},
          m_warnings(warnings)
    {
    }
    int Write(const std::string& target, ecProgressDlg* progress);

private:
    void DescribeSignals();
    void PlanRecords();
    void PlanAnnotations();
    std::string Header() const;
    std::string PatientField() const;
    std::string RecordingField() const;
    void Put(std::string& header, const std::string& text, size_t width, size_t& at) const;
    bool WriteData(FILE* out, ecProgressDlg* progress);
    void Sample(Signal& s, const float* row, long offset, int slices) const;
    bool RecordReady() const;
    void FlushRecord(FILE* out);

    CFilelib& m_source;
    const exportkit::Window& m_window;
    Width m_width;
    std::vector<std::string>& m_warnings;
    std::vector<Signal> m_signals;
    double m_rate = 0;
    long m_recordSlices = 1;
    long m_records = 0;
    std::string m_duration;
    std::vector<std::string> m_annotations;  // per record
    long m_annotationSamples = 0;
    long m_flushed = 0;
};

void EdfWriter::DescribeSignals()
{
    const ecRecordingInfo& info = m_source.GetRecordingInfo();
    auto entry = [](const auto& table, int c) { return static_cast<size_t>(c) < table.size() ? table[c] : ""; };
    for (int c : m_window.channels) {
        Signal s;
        s.chan = c;
        s.label = Fit(ChannelName(m_source, c), 16, "label", m_warnings);
        s.transducer = Fit(entry(info.channelTransducers, c), 80, "transducer of " + s.label, m_warnings);
        s.filter = Fit(entry(info.channelFilters, c), 80, "prefiltering of " + s.label, m_warnings);
        s.survey = exportkit::GridSurvey(m_source, c);
        const bool ownRate = static_cast<size_t>(c) < info.channelRates.size() && info.channelRates[c] > 0 &&
                             info.channelRates[c] <= m_rate;
        s.rate = ownRate ? info.channelRates[c] : m_rate;
        m_signals.push_back(s);
    }
}

void EdfWriter::PlanRecords()
{
    std::vector<double> ratios;
    for (const Signal& s : m_signals)
        ratios.push_back(s.rate / m_rate);
    std::sort(ratios.begin(), ratios.end());
    ratios.erase(std::unique(ratios.begin(), ratios.end()), ratios.end());
    m_recordSlices = RecordSlices(ratios, m_rate, m_window.count, m_duration);
    if (m_recordSlices == 0) {
        m_warnings.push_back("no record duration gives every channel whole samples: all are written at " +
                             Seconds(m_rate) + " Hz");
        for (Signal& s : m_signals)
            s.rate = m_rate;
        m_recordSlices = RecordSlices({1.0}, m_rate, m_window.count, m_duration);
    }
    if (m_recordSlices == 0)
        exportkit::Fail(kWriter, "No record duration of 8 characters fits the rate " + Seconds(m_rate) + " Hz.");
    m_records = (m_window.count + m_recordSlices - 1) / m_recordSlices;
    const long padded = m_records * m_recordSlices - m_window.count;
    if (padded > 0)
        m_warnings.push_back("the last record is completed with zeros: " + std::to_string(padded) +
                             " slices past the window's end");
    for (Signal& s : m_signals)
        s.perRecord = std::lround(m_recordSlices * s.rate / m_rate);
}

// One time-keeping TAL per record, then the events with their onset in it; the signal is sized
// for the densest record.
void EdfWriter::PlanAnnotations()
{
    m_annotations.assign(static_cast<size_t>(std::max(1L, m_records)), std::string());
    for (size_t r = 0; r < m_annotations.size(); ++r)
        m_annotations[r] = "+" + Seconds(static_cast<double>(r) * m_recordSlices / m_rate) + "\x14\x14" + '\0';
    auto add = [&](long begin, long length, std::string text) {
        for (char& ch : text)
            if (ch == '\x14' || ch == '\x15' || ch == '\0')
                ch = ' ';
        std::string tal = "+" + Seconds(begin / m_rate);
        if (length > 0)
            tal += "\x15" + Seconds(length / m_rate);
        m_annotations[static_cast<size_t>(std::min(begin / m_recordSlices, m_records - 1))] +=
            tal + "\x14" + text + "\x14" + '\0';
    };
    for (long start : exportkit::EpochStarts(m_source, m_window))
        add(start, 0, "Epoch start");
    for (const ecEvent& e : exportkit::WindowEvents(m_source, m_window))
        add(e.GetBegin(), e.GetEnd() - e.GetBegin(), e.GetEventName());
    size_t densest = 0;
    for (const std::string& a : m_annotations)
        densest = std::max(densest, a.size());
    m_annotationSamples = static_cast<long>((densest + m_width.bytes - 1) / m_width.bytes);
}

void EdfWriter::Put(std::string& header, const std::string& text, size_t width, size_t& at) const
{
    header.replace(at, std::min(width, text.size()), text, 0, width);
    at += width;
}

std::string EdfWriter::PatientField() const
{
    const ecRecordingInfo& info = m_source.GetRecordingInfo();
    const std::string sex = info.subjectSex == "M" || info.subjectSex == "F" ? info.subjectSex : "X";
    return Subfield(info.subjectId) + " " + sex + " " + DateField(info.subjectBirthDate) + " " +
           Subfield(info.subjectName);
}

std::string EdfWriter::RecordingField() const
{
    const std::string& description = m_source.GetRecordingInfo().description;
    std::string date, time;
    exportkit::WindowStart(m_source, m_window, date, time);
    return "Startdate " + DateField(date) + " X X X" +
           (description.empty() ? "" : " " + description);
}

std::string EdfWriter::Header() const
{
    const size_t ns = m_signals.size() + 1;
    std::string h(256 * (ns + 1), ' ');
    std::string date, time;
    const bool dated = exportkit::WindowStart(m_source, m_window, date, time);
    size_t at = 0;
    Put(h, m_width.bytes == 3 ? std::string("\xFF" "BIOSEMI") : "0", 8, at);
    Put(h, Fit(PatientField(), 80, "patient field", m_warnings), 80, at);
    Put(h, Fit(RecordingField(), 80, "recording field", m_warnings), 80, at);
    Put(h, dated ? date.substr(8, 2) + "." + date.substr(5, 2) + "." + date.substr(2, 2) : "01.01.85", 8, at);
    Put(h, dated ? time.substr(0, 2) + "." + time.substr(3, 2) + "." + time.substr(6, 2) : "00.00.00", 8, at);
    Put(h, std::to_string(h.size()), 8, at);
    Put(h, m_width.bytes == 3 ? "BDF+C" : "EDF+C", 44, at);
    Put(h, std::to_string(m_records), 8, at);
    Put(h, m_duration, 8, at);
    Put(h, std::to_string(ns), 4, at);
    const std::string annotationLabel = m_width.bytes == 3 ? "BDF Annotations" : "EDF Annotations";
    auto column = [&](size_t width, auto text) {
        for (const Signal& s : m_signals)
            Put(h, text(s), width, at);
        Put(h, text(Signal()), width, at);  // the annotation signal, last
    };
    column(16, [&](const Signal& s) { return s.perRecord ? s.label : annotationLabel; });
    column(80, [](const Signal& s) { return s.transducer; });
    column(8, [](const Signal& s) { return s.range.unit; });
    column(8, [](const Signal& s) { return s.perRecord ? s.range.pminText : std::string("-1"); });
    column(8, [](const Signal& s) { return s.perRecord ? s.range.pmaxText : std::string("1"); });
    column(8, [&](const Signal& s) { return std::to_string(s.perRecord ? s.range.dmin : m_width.lo); });
    column(8, [&](const Signal& s) { return std::to_string(s.perRecord ? s.range.dmax : m_width.hi); });
    column(80, [](const Signal& s) { return s.filter; });
    column(8, [&](const Signal& s) { return std::to_string(s.perRecord ? s.perRecord : m_annotationSamples); });
    column(32, [](const Signal&) { return std::string(); });
    return h;
}

// A signal of n samples per record of S slices takes its j-th sample of a record from the
// record's slice ceil(j x S / n): the first slice a reader holding it at the recording's rate
// shows it on.
void EdfWriter::Sample(Signal& s, const float* row, long offset, int slices) const
{
    for (;;) {
        const long long record = s.written / s.perRecord, j = s.written % s.perRecord;
        const long long slice = record * m_recordSlices + (j * m_recordSlices + s.perRecord - 1) / s.perRecord;
        if (slice >= offset + slices)
            return;
        s.pending.push_back(Digital(s, row[slice - offset]));
        ++s.written;
    }
}

bool EdfWriter::RecordReady() const
{
    return std::all_of(m_signals.begin(), m_signals.end(),
                       [](const Signal& s) { return static_cast<long>(s.pending.size()) >= s.perRecord; });
}

// Writes the next record from the signals' pending samples (completed with zeros at the end).
void EdfWriter::FlushRecord(FILE* out)
{
    std::vector<uint8_t> bytes;
    auto put = [&](int32_t value) {
        for (int b = 0; b < m_width.bytes; ++b)
            bytes.push_back(static_cast<uint8_t>((static_cast<uint32_t>(value) >> (8 * b)) & 0xFF));
    };
    for (Signal& s : m_signals) {
        const size_t n = static_cast<size_t>(s.perRecord);
        s.pending.resize(std::max(n, s.pending.size()), Digital(s, 0.0));
        std::for_each(s.pending.begin(), s.pending.begin() + static_cast<long>(n), put);
        s.pending.erase(s.pending.begin(), s.pending.begin() + static_cast<long>(n));
    }
    std::string annotation = m_annotations[static_cast<size_t>(m_flushed)];
    annotation.resize(static_cast<size_t>(m_annotationSamples * m_width.bytes), '\0');
    bytes.insert(bytes.end(), annotation.begin(), annotation.end());
    if (std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size())
        exportkit::Fail(kWriter, "Cannot write the data records.");
    ++m_flushed;
}

bool EdfWriter::WriteData(FILE* out, ecProgressDlg* progress)
{
    exportkit::WindowReader reader(m_source, m_window, kWriter, progress, 2);
    while (reader.Next())
        for (size_t i = 0; i < m_signals.size(); ++i)
            m_signals[i].survey.Add(reader.Row(i), reader.Slices());
    if (reader.Cancelled())
        return false;
    for (Signal& s : m_signals) {
        ChooseRange(s, ChannelUnit(m_source, s.chan), m_width, m_warnings);
        s.range.unit = Fit(s.range.unit, 8, "unit of " + s.label, m_warnings);
    }
    const std::string header = Header();
    if (std::fwrite(header.data(), 1, header.size(), out) != header.size())
        exportkit::Fail(kWriter, "Cannot write the header.");
    reader.Rewind();
    while (reader.Next()) {
        for (size_t i = 0; i < m_signals.size(); ++i)
            Sample(m_signals[i], reader.Row(i), reader.Offset(), reader.Slices());
        while (m_flushed < m_records && RecordReady())
            FlushRecord(out);
    }
    if (reader.Cancelled())
        return false;
    while (m_flushed < m_records)
        FlushRecord(out);
    return true;
}

int EdfWriter::Write(const std::string& target, ecProgressDlg* progress)
{
    if (m_window.channels.empty())
        exportkit::Fail(kWriter, "The recording has no channel to write.");
    m_rate = exportkit::RecordingRate(m_source);
    if (!(m_rate > 0))
        exportkit::Fail(kWriter, "The recording states no sample rate.");
    DescribeSignals();
    PlanRecords();
    PlanAnnotations();
    exportkit::StagedFiles staged(kWriter, {target});
    if (!staged.WriteBinary(0, [&](FILE* out) { return WriteData(out, progress); }))
        return -1;
    staged.Commit();
    return static_cast<int>(m_window.count);
}

}  // namespace

int WriteEdfCopy(CFilelib& source, const std::string& target, int bytesPerSample, const ecSelection& selection,
                 ecProgressDlg* progress, std::vector<std::string>& warnings)
{
    const exportkit::Window window = exportkit::Resolve(source, selection, kWriter);
    return EdfWriter(source, window, bytesPerSample == 3 ? 3 : 2, warnings).Write(target, progress);
}
