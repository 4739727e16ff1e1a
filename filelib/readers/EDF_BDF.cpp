#include "filelib/readers/EDF_BDF.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kFixedBytes = 256;
constexpr double kAnnotationOnlyRate = 1000.0;

// Volts per physical unit when the dimension is a voltage, else 0.
double VoltsPerUnit(const std::string& unit)
{
    if (unit == "V")
        return 1.0;
    if (unit == "mV")
        return 1e-3;
    if (unit == "uV" || unit == "UV" || unit == "\xC2\xB5V" || unit == "\xB5V")
        return 1e-6;
    if (unit == "nV")
        return 1e-9;
    return 0.0;
}

std::vector<std::string> Words(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

// An EDF+ subfield: "X" is unknown, '_' stands for a blank.
std::string Subfield(const std::vector<std::string>& words, size_t i)
{
    std::string s = i < words.size() && words[i] != "X" ? words[i] : "";
    std::replace(s.begin(), s.end(), '_', ' ');
    return s;
}

// "02-MAR-2002" as "2002-03-02"; empty when it is no such date.
std::string IsoDate(const std::string& edfDate)
{
    static const char kMonths[] = "JANFEBMARAPRMAYJUNJULAUGSEPOCTNOVDEC";
    std::string month = edfDate.size() == 11 ? edfDate.substr(3, 3) : "";
    ToUpper(month);
    const char* at = month.size() == 3 ? std::strstr(kMonths, month.c_str()) : nullptr;
    if (!at || (at - kMonths) % 3 != 0 || edfDate[2] != '-' || edfDate[6] != '-')
        return "";
    char text[16];
    std::snprintf(text, sizeof text, "%s-%02d-%s", edfDate.substr(7, 4).c_str(), static_cast<int>(at - kMonths) / 3 + 1,
                  edfDate.substr(0, 2).c_str());
    return text;
}

// Tesla per physical unit when the dimension is a magnetic field (fT ... T), else 0.
double TeslaPerUnit(const std::string& unit)
{
    static const std::pair<const char*, double> kUnits[] = {{"fT", 1e-15}, {"pT", 1e-12}, {"nT", 1e-9},
                                                            {"uT", 1e-6},  {"mT", 1e-3},  {"T", 1}};
    for (const auto& [name, tesla] : kUnits)
        if (unit == name)
            return tesla;
    return 0.0;
}

bool IsAnnotationLabel(const std::string& label) { return label == "EDF Annotations" || label == "BDF Annotations"; }

bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// Trigger channels by name (Status, Trigger, STI 014, DIG DTRIG, ...) or by transducer type
// ("Triggers and Status", "stimulus"), in any letter case.
bool IsTrigger(std::string label, std::string transducer)
{
    ToUpper(label);
    ToUpper(transducer);
    return Contains(label, "TRIG") || Contains(label, "STATUS") || label.compare(0, 3, "STI") == 0 ||
           Contains(transducer, "TRIG") || Contains(transducer, "STIM") || Contains(transducer, "STATUS");
}

// An onset ("+12.5", "-0.3") or a duration ("0.25"): sign (onsets only), digits, optional fraction.
bool ParseSeconds(const std::string& text, bool isOnset, double& out)
{
    if (isOnset && (text.empty() || (text[0] != '+' && text[0] != '-')))
        return false;
    size_t pos = isOnset ? 1 : 0;
    size_t digits = 0;
    bool point = false;
    for (; pos < text.size(); ++pos) {
        if (text[pos] == '.' && !point)
            point = true;
        else if (text[pos] >= '0' && text[pos] <= '9')
            ++digits;
        else
            return false;
    }
    out = std::strtod(text.c_str(), nullptr);
    return digits > 0 && std::isfinite(out);
}

// One time-stamped annotation list of EDF+: "+onset[\x15duration]\x14text\x14...\x14".
struct Tal {
    double onset = 0;
    double duration = 0;
    std::vector<std::string> texts;
};

bool ParseTalHeader(const std::string& header, Tal& out)
{
    const size_t split = header.find('\x15');
    out.duration = 0;
    return ParseSeconds(header.substr(0, split), true, out.onset) &&
           (split == std::string::npos || ParseSeconds(header.substr(split + 1), false, out.duration));
}

// The TALs of one annotation signal's bytes in one record. TALs end with a NUL byte, but some
// exporters leave it out between entries; a field that reads as an onset therefore always
// starts a new TAL. Fields ahead of any onset belong to no TAL and are dropped.
std::vector<Tal> ParseTals(const std::vector<uint8_t>& bytes)
{
    std::vector<Tal> tals;
    bool open = false;
    for (size_t pos = 0; pos < bytes.size();) {
        size_t end = pos;
        while (end < bytes.size() && bytes[end] != 0x14 && bytes[end] != 0)
            ++end;
        const std::string field(reinterpret_cast<const char*>(bytes.data()) + pos, end - pos);
        const bool terminated = end < bytes.size() && bytes[end] == 0x14;
        Tal tal;
        if (terminated && ParseTalHeader(field, tal)) {
            tals.push_back(tal);
            open = true;
        } else if (open && !field.empty()) {
            tals.back().texts.push_back(field);
        }
        open = open && terminated;
        pos = end + 1;
    }
    return tals;
}

}  // namespace

CEDF_BDF::CEDF_BDF(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void CEDF_BDF::Fail(const std::string& text)
{
    CloseInputFile();
    throw ecError(("[CEDF_BDF::Initialize] " + text).c_str(), 1, 0, -1, -1);
}

void CEDF_BDF::Initialize(int bytesPerSample)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Cannot open file: " + name);
    m_fileSize = FileLength(fp);
    std::vector<uint8_t> fixed(kFixedBytes);
    if (m_fileSize < static_cast<long long>(kFixedBytes) || ReadAt(fp, 0, fixed.data(), kFixedBytes) != kFixedBytes)
        Fail("Not an EDF or BDF file: " + name);
    const bool biosemi = fixed[0] == 0xFF && std::memcmp(&fixed[1], "BIOSEMI", 7) == 0;
    const bool edf = std::memcmp(fixed.data(), "0       ", 8) == 0;
    if (!biosemi && !edf)
        Fail("Not an EDF or BDF file: " + name);
    m_bytes = bytesPerSample == 2 || bytesPerSample == 3 ? bytesPerSample : (biosemi ? 3 : 2);
    SetFileMFR(m_bytes == 3 ? kMfrBDF : kMfrEDF);  // the file is ours from here on: later failures mean damage

    long long headerBytes = 0, records = 0;
    double duration = 0;
    long signals = 0;
    ParseFixedHeader(fixed, headerBytes, records, duration, signals);
    std::vector<uint8_t> header(static_cast<size_t>(headerBytes));
    if (ReadAt(fp, 0, header.data(), header.size()) != header.size())
        Fail("The header of " + name + " is cut short.");
    ParseSignals(header, signals);

    m_headerBytes = headerBytes;
    m_duration = duration;
    // Only complete records are data: a file cut short (or still being written, -1) holds
    // fewer than its header may promise.
    const long long complete = (m_fileSize - headerBytes) / m_recordBytes;
    m_records = records == -1 ? complete : std::min(records, complete);
    const std::string reserved = ByteCursor(fixed.data(), fixed.size()).str(192, 44);
    m_discontinuous = reserved.compare(0, 5, "EDF+D") == 0 || reserved.compare(0, 5, "BDF+D") == 0;
    SetChannels();
    DescribeRecording(fixed);
}

void CEDF_BDF::ParseFixedHeader(const std::vector<uint8_t>& fixed, long long& headerBytes, long long& records,
                                double& duration, long& signals)
{
    const ByteCursor h(fixed.data(), fixed.size());
    long long ns = 0;
    if (!ParseInteger(h.str(184, 8), headerBytes))
        Fail("Invalid number of bytes in header record: '" + h.str(184, 8) + "'");
    if (!ParseInteger(h.str(236, 8), records) || records < -1)
        Fail("Invalid number of data records: '" + h.str(236, 8) + "'");
    if (!ParseReal(h.str(244, 8), duration) || duration < 0)
        Fail("Invalid duration of a data record: '" + h.str(244, 8) + "'");
    if (!ParseInteger(h.str(252, 4), ns) || ns < 1)
        Fail("Invalid number of signals: '" + h.str(252, 4) + "'");
    if (256 * (ns + 1) > m_fileSize)
        Fail("The header declares " + std::to_string(ns) + " signals but the file holds only " +
             std::to_string(m_fileSize) + " bytes.");
    if (headerBytes != 256 * (ns + 1))
        Fail("The header declares " + std::to_string(headerBytes) + " header bytes; " + std::to_string(ns) +
             " signals need " + std::to_string(256 * (ns + 1)) + ".");
    signals = static_cast<long>(ns);
}

void CEDF_BDF::ParseSignals(const std::vector<uint8_t>& header, long signals)
{
    const ByteCursor h(header.data(), header.size());
    const size_t ns = static_cast<size_t>(signals);
    auto field = [&](size_t offsetOfBlock, size_t width, size_t i) {
        return h.str(kFixedBytes + offsetOfBlock * ns + width * i, width);
    };
    m_signals.assign(ns, Signal());
    m_recordBytes = 0;
    for (size_t i = 0; i < ns; ++i) {
        Signal& s = m_signals[i];
        s.label = TrimBlanks(field(0, 16, i));
        s.transducer = TrimBlanks(field(16, 80, i));
        s.prefilter = TrimBlanks(field(136, 80, i));
        s.unit = TrimBlanks(field(16 + 80, 8, i));
        const std::string which = " of signal " + std::to_string(i + 1) + " ('" + s.label + "')";
        double pmin = 0, pmax = 0;
        long long dmin = 0, dmax = 0, samples = 0;
        if (!ParseReal(field(104, 8, i), pmin))
            Fail("Invalid physical minimum" + which + ": '" + field(104, 8, i) + "'");
        if (!ParseReal(field(112, 8, i), pmax))
            Fail("Invalid physical maximum" + which + ": '" + field(112, 8, i) + "'");
        if (!ParseInteger(field(120, 8, i), dmin))
            Fail("Invalid digital minimum" + which + ": '" + field(120, 8, i) + "'");
        if (!ParseInteger(field(128, 8, i), dmax))
            Fail("Invalid digital maximum" + which + ": '" + field(128, 8, i) + "'");
        if (!ParseInteger(field(216, 8, i), samples) || samples < 1 || samples > INT_MAX / 4)
            Fail("Invalid number of samples in each data record" + which + ": '" + field(216, 8, i) + "'");
        if (dmin == dmax)
            Fail("Digital minimum equals digital maximum" + which + ".");
        s.annotation = IsAnnotationLabel(s.label);
        if (!s.annotation && pmin == pmax)
            Fail("Physical minimum equals physical maximum" + which + ".");
        s.trigger = !s.annotation && IsTrigger(s.label, field(16, 80, i));
        SetScaling(s, pmin, pmax, dmin, dmax);
        s.samples = static_cast<long>(samples);
        s.byteOffset = m_recordBytes;
        m_recordBytes += samples * m_bytes;
    }
}

// physical = (digital - dmin) x (pmax - pmin) / (dmax - dmin) + pmin, written as
// (digital + shift) x gain with both factors in double: the sum is exact whenever the shift is a
// whole number, as it is for the usual headers, so each sample is rounded to float only once.
// Voltages are delivered in volts. A trigger channel keeps its codes: BioSemi's Status as the
// 16-bit trigger word of its stored value, any other in its own physical unit.
void CEDF_BDF::SetScaling(Signal& s, double pmin, double pmax, long long dmin, long long dmax) const
{
    const double perDigital = (pmax - pmin) / static_cast<double>(dmax - dmin);
    const double volts = s.trigger ? 0.0 : VoltsPerUnit(s.unit), tesla = s.trigger ? 0.0 : TeslaPerUnit(s.unit);
    s.gain = perDigital * (volts > 0 ? volts : tesla > 0 ? tesla : 1.0);
    s.shift = pmin * static_cast<double>(dmax - dmin) / (pmax - pmin) - static_cast<double>(dmin);
    s.triggerWord = s.trigger && m_bytes == 3 && IsEqual(s.label, "Status", false);
    if (s.triggerWord) {
        s.gain = 1;
        s.shift = 0;
    }
    if (s.trigger || s.annotation)
        s.unit.clear();
    else if (volts > 0 || tesla > 0)
        s.unit = volts > 0 ? "V" : "T";
}

void CEDF_BDF::SetChannels()
{
    m_channelSignal.clear();
    int annotationSignal = -1;
    m_fastest = 0;
    for (size_t i = 0; i < m_signals.size(); ++i) {
        if (!m_signals[i].annotation) {
            m_channelSignal.push_back(static_cast<int>(i));
            m_fastest = std::max(m_fastest, m_signals[i].samples);
        } else if (annotationSignal < 0) {
            annotationSignal = static_cast<int>(i);
        }
    }
    const bool hasData = !m_channelSignal.empty();
    if (hasData && !(m_duration > 0))
        Fail("A record duration of 0 leaves the data signals without a sample rate.");
    m_rate = hasData ? m_fastest / m_duration : kAnnotationOnlyRate;
    // The data may begin a fraction of a second after the header's start time; record 0's
    // time-keeping annotation says how much, and every onset is counted from the data.
    m_timekeeping = annotationSignal;
    const double offset = annotationSignal >= 0 && m_records > 0 ? TimekeepingOnset(0) : 0.0;
    m_startOffset = std::isnan(offset) ? 0.0 : offset;
    // EDF lists its annotation signal as the last channel (switched off); BDF does not list it.
    if (annotationSignal >= 0 && m_bytes == 2)
        m_channelSignal.push_back(annotationSignal);
    m_annotationChannel = annotationSignal >= 0 && m_bytes == 2 ? static_cast<int>(m_channelSignal.size()) - 1 : -1;
    if (m_discontinuous && hasData && annotationSignal >= 0)
        PlaceRecords();
    const long long slices = !hasData ? 0 : m_discontinuous && !m_recordStart.empty() ? m_recordStart.back() + m_fastest
                                                                                        : m_records * m_fastest;
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");
    ListChannels();
    SetContinuousTimeBase(m_rate, slices);
    DescribeLayout(slices);
}

void CEDF_BDF::DescribeRecording(const std::vector<uint8_t>& fixed)
{
    const ByteCursor h(fixed.data(), fixed.size());
    const std::string patient = TrimBlanks(h.str(8, 80)), recording = TrimBlanks(h.str(88, 80));
    const std::vector<std::string> p = Words(patient), r = Words(recording);
    ecRecordingInfo& info = m_recordingInfo = ecRecordingInfo();
    const bool plus = r.size() >= 2 && r[0] == "Startdate";
    info.date = plus ? IsoDate(r[1]) : "";
    if (plus) {
        info.subjectId = Subfield(p, 0);
        info.subjectSex = Subfield(p, 1) == "M" || Subfield(p, 1) == "F" ? Subfield(p, 1) : "";
        info.subjectBirthDate = IsoDate(Subfield(p, 2));
        info.subjectName = Subfield(p, 3);
        for (size_t i = 5; i < r.size(); ++i)
            info.description += (i > 5 ? " " : "") + r[i];
    } else {
        info.subjectId = patient;
        info.description = recording;
    }
    const std::string date = h.str(168, 8), time = h.str(176, 8);
    long long dd = 0, mm = 0, yy = 0;
    if (info.date.empty() && date.size() == 8 && ParseInteger(date.substr(0, 2), dd) &&
        ParseInteger(date.substr(3, 2), mm) && ParseInteger(date.substr(6, 2), yy) && mm >= 1 && mm <= 12) {
        char text[64];
        std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld", yy >= 85 ? 1900 + yy : 2000 + yy, mm, dd);
        info.date = text;
    }
    if (time.size() == 8 && time[2] == '.' && time[5] == '.')
        info.time = time.substr(0, 2) + ":" + time.substr(3, 2) + ":" + time.substr(6, 2);
    bool mixed = false;
    for (int signal : m_channelSignal) {
        const Signal& s = m_signals[static_cast<size_t>(signal)];
        info.channelTransducers.push_back(s.transducer);
        info.channelFilters.push_back(s.prefilter);
        info.channelRates.push_back(s.annotation ? m_rate : s.samples / m_duration);
        mixed = mixed || (!s.annotation && s.samples != m_fastest);
    }
    if (!mixed)
        info.channelRates.clear();
}

// Records are segments of m_fastest slices, each signal stored as one run inside them; a
// discontinuous file places every record at its own start, with gaps between.
void CEDF_BDF::DescribeLayout(long long slices)
{
    ecDataLayout layout;
    layout.type = m_bytes == 2 ? ecSampleType::Int16 : ecSampleType::Int24;
    layout.slices = slices;
    layout.segmentSlices = std::max(1L, m_fastest);
    layout.firstSegment = m_headerBytes;
    layout.segmentStride = m_recordBytes;
    if (m_discontinuous && !m_recordStart.empty()) {
        for (long long r = 0; r < static_cast<long long>(m_recordStart.size()); ++r)
            layout.segmentTable.push_back(m_headerBytes + r * m_recordBytes);
        layout.segmentFirstSlices = m_recordStart;
    }
    for (int signal : m_channelSignal) {
        const Signal& s = m_signals[static_cast<size_t>(signal)];
        if (s.annotation)
            break;  // listed last, delivered as zeros by ReadData
        ecChannelLayout c;
        c.offset = s.byteOffset;
        c.stride = m_bytes;
        c.samples = s.samples == m_fastest ? 0 : s.samples;
        c.gain = s.gain;
        c.shift = s.shift;
        c.mask = s.triggerWord ? 0xFFFF : 0;
        layout.channels.push_back(c);
    }
    Engine().SetLayout(std::move(layout));
}

void CEDF_BDF::ListChannels()
{
    SetNumChans(static_cast<int>(m_channelSignal.size()));
    for (size_t c = 0; c < m_channelSignal.size(); ++c) {
        const Signal& s = m_signals[static_cast<size_t>(m_channelSignal[c])];
        const int chan = static_cast<int>(c);
        std::string label = s.label, unit = s.unit;
        SetChanName(chan, label);
        SetChanUnit(chan, unit);
        SetChanScale(chan, static_cast<float>(s.gain));
        SetChanOffset(chan, static_cast<float>(s.shift * s.gain));
        SetChanType(chan, s.annotation ? kChanOff : s.trigger ? kChanTrigger : kChanEEG);
    }
}

std::vector<uint8_t> CEDF_BDF::SignalBytes(long long record, const Signal& s)
{
    const long long at = m_headerBytes + record * m_recordBytes + s.byteOffset;
    std::vector<uint8_t> bytes(static_cast<size_t>(s.samples * m_bytes));
    bytes.resize(ReadAt(GetInputFilePointer(), at, bytes.data(), bytes.size()));
    return bytes;
}

// The onset of a record's time-keeping annotation (its first TAL) in seconds since the header's
// start time, NaN when it has none.
double CEDF_BDF::TimekeepingOnset(long long record)
{
    const std::vector<Tal> tals = ParseTals(SignalBytes(record, m_signals[static_cast<size_t>(m_timekeeping)]));
    return tals.empty() ? std::nan("") : tals.front().onset;
}

// Discontinuous files: every record starts at the onset of its time-keeping annotation.
void CEDF_BDF::PlaceRecords()
{
    m_recordStart.clear();
    for (long long r = 0; r < m_records; ++r) {
        const double onset = TimekeepingOnset(r) - m_startOffset;
        if (std::isnan(onset))
            Fail("Record " + std::to_string(r + 1) + " of the discontinuous file has no time-keeping annotation.");
        const double start = std::round(onset * m_rate);
        if (!m_recordStart.empty() && start < static_cast<double>(m_recordStart.back() + m_fastest))
            Fail("Record " + std::to_string(r + 1) + " of the discontinuous file starts before the previous one ends.");
        if (!(start >= 0 && start <= INT_MAX))
            Fail("Record " + std::to_string(r + 1) + " of the discontinuous file starts outside the time base.");
        m_recordStart.push_back(static_cast<long long>(start));
    }
}

int CEDF_BDF::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "CEDF_BDF");
    if (m_annotationChannel >= 0)
        std::fill(data[m_annotationChannel], data[m_annotationChannel] + n, 0.0f);
    // A file that shrank since it was opened: what is left is not data.
    return static_cast<int>(ReadRows(data, first, n));
}

// Seconds from the start of the data to the nearest slice, kept within a range where later
// arithmetic cannot overflow (onsets in a file can be anything).
long CEDF_BDF::SliceOf(double seconds) const
{
    constexpr double kLimit = 9.0e15;
    const double slice = std::round((seconds - m_startOffset) * m_rate);
    return static_cast<long>(std::isfinite(slice) ? std::clamp(slice, -kLimit, kLimit) : 0.0);
}

void CEDF_BDF::AnnotationEvents(ecEventList& events, int& appended)
{
    std::vector<ecEvent> found;
    std::map<std::string, int> rank;
    for (const Signal& s : m_signals) {
        if (!s.annotation)
            continue;
        for (long long r = 0; r < m_records; ++r) {
            for (const Tal& tal : ParseTals(SignalBytes(r, s))) {
                for (const std::string& text : tal.texts) {
                    const int code = rank.emplace(text, static_cast<int>(rank.size()) + 1).first->second;
                    ecEvent e;
                    e.SetEventName(text);
                    e.SetEventCode(code);
                    e.SetKind(2);
                    e.SetBegin(SliceOf(tal.onset));
                    e.SetEnd(SliceOf(tal.onset + tal.duration));
                    found.push_back(e);
                }
            }
        }
    }
    for (size_t r = 1; r < m_recordStart.size(); ++r) {
        if (m_recordStart[r] > m_recordStart[r - 1] + m_fastest) {
            ecEvent boundary;
            boundary.SetBegin(static_cast<long>(m_recordStart[r]));
            boundary.SetSegmentBoundaryDefaults();
            found.push_back(boundary);
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const ecEvent& a, const ecEvent& b) { return a.GetBegin() < b.GetBegin(); });
    for (const ecEvent& e : found)
        events.AppendOneEvent(e);
    appended += static_cast<int>(found.size());
}

// The trigger channels' events are exactly what the trigger search finds in the delivered
// codes: one event per change to a non-zero code.
int CEDF_BDF::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    int appended = 0;
    AnnotationEvents(*events, appended);
    return appended + FindAllTriggersDig(events, 2, 0.5f, 0, false, m_bytes == 3 ? 0xFFFF : -1, nullptr);
}
