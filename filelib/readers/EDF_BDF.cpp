#include "filelib/readers/EDF_BDF.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kFixedBytes = 256;
constexpr size_t kRawBlockBytes = 1u << 20;
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

bool IsAnnotationLabel(const std::string& label) { return label == "EDF Annotations" || label == "BDF Annotations"; }

bool IsTriggerLabel(std::string label)
{
    ToUpper(label);
    return label == "STATUS" || label.find("TRIG") != std::string::npos || label.compare(0, 3, "STI") == 0;
}

inline int32_t Digital(const uint8_t* p, int bytes)
{
    if (bytes == 2)
        return static_cast<int16_t>(LoadU16LE(p));
    const int32_t v = p[0] | (p[1] << 8) | (p[2] << 16);
    return (v & 0x800000) ? v - 0x1000000 : v;
}

// One time-stamped annotation list of EDF+: "+onset[\x15duration]\x14text\x14...\x14".
struct Tal {
    double onset = 0;
    double duration = 0;
    std::vector<std::string> texts;
};

bool ParseTal(const std::string& tal, Tal& out)
{
    const size_t headerEnd = tal.find('\x14');
    if (headerEnd == std::string::npos || tal.empty() || (tal[0] != '+' && tal[0] != '-'))
        return false;
    const std::string header = tal.substr(0, headerEnd);
    const size_t split = header.find('\x15');
    char* stop = nullptr;
    const std::string onset = header.substr(0, split);
    out.onset = std::strtod(onset.c_str(), &stop);
    if (*stop != '\0' || !std::isfinite(out.onset))
        return false;
    out.duration = 0;
    if (split != std::string::npos) {
        const std::string duration = header.substr(split + 1);
        out.duration = std::strtod(duration.c_str(), &stop);
        if (*stop != '\0' || !std::isfinite(out.duration))
            return false;
    }
    out.texts.clear();
    size_t pos = headerEnd + 1;
    while (pos < tal.size()) {
        size_t end = tal.find('\x14', pos);
        if (end == std::string::npos)
            end = tal.size();
        if (end > pos)
            out.texts.push_back(tal.substr(pos, end - pos));
        pos = end + 1;
    }
    return true;
}

// The TALs of one annotation signal's bytes in one record.
std::vector<Tal> ParseTals(const std::vector<uint8_t>& bytes)
{
    std::vector<Tal> tals;
    size_t pos = 0;
    while (pos < bytes.size()) {
        const uint8_t* start = bytes.data() + pos;
        const void* nul = std::memchr(start, 0, bytes.size() - pos);
        const size_t len = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - start) : bytes.size() - pos;
        Tal tal;
        if (len > 0 && ParseTal(std::string(reinterpret_cast<const char*>(start), len), tal))
            tals.push_back(tal);
        pos += len + 1;
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
    SetFileMFR(m_bytes == 3 ? 22 : 21);  // the file is ours from here on: later failures mean damage

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
    const long long available = m_fileSize - headerBytes;
    if (records == -1)
        records = available / m_recordBytes;  // still recording: what the file holds
    else if (records > available / m_recordBytes)
        records = (available + m_recordBytes - 1) / m_recordBytes;  // a partial last record is read as far as it goes
    m_records = records;
    const std::string reserved = ByteCursor(fixed.data(), fixed.size()).str(192, 44);
    m_discontinuous = reserved.compare(0, 5, "EDF+D") == 0 || reserved.compare(0, 5, "BDF+D") == 0;
    SetChannels();
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
        const double volts = VoltsPerUnit(s.unit);
        const double toUnit = volts > 0 ? volts : 1.0;
        s.gain = (pmax - pmin) / static_cast<double>(dmax - dmin) * toUnit;
        s.offset = (pmin - static_cast<double>(dmin) * (pmax - pmin) / static_cast<double>(dmax - dmin)) * toUnit;
        if (volts > 0)
            s.unit = "V";
        s.gainF = static_cast<float>(s.gain);
        s.offsetF = static_cast<float>(s.offset);
        s.samples = static_cast<long>(samples);
        s.byteOffset = m_recordBytes;
        m_recordBytes += samples * m_bytes;
    }
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
    if (annotationSignal >= 0)
        m_channelSignal.push_back(annotationSignal);
    m_annotationChannel = annotationSignal >= 0 ? static_cast<int>(m_channelSignal.size()) - 1 : -1;
    if (m_discontinuous && hasData && annotationSignal >= 0)
        PlaceRecords();
    const long long slices = !hasData ? 0 : m_discontinuous && !m_recordStart.empty() ? m_recordStart.back() + m_fastest
                                                                                        : m_records * m_fastest;
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");

    SetNumChans(static_cast<int>(m_channelSignal.size()));
    for (size_t c = 0; c < m_channelSignal.size(); ++c) {
        const Signal& s = m_signals[static_cast<size_t>(m_channelSignal[c])];
        const int chan = static_cast<int>(c);
        std::string label = s.label, unit = s.annotation ? std::string() : s.unit;
        SetChanName(chan, label);
        SetChanUnit(chan, unit);
        SetChanScale(chan, static_cast<float>(s.gain));
        SetChanOffset(chan, static_cast<float>(s.offset));
        SetChanType(chan, s.annotation ? kChanOff : IsTriggerLabel(s.label) ? kChanTrigger : kChanEEG);
    }
    SetSampleRate(static_cast<float>(m_rate), 0);
    SetNumSlices(static_cast<int>(slices));
    SetRunType(kRunContinuous);
    SetNumEpochs(1);
    SetEpochSlices(static_cast<int>(slices));
    SetValidEpochCnt(1);
}

std::vector<uint8_t> CEDF_BDF::SignalBytes(long long record, const Signal& s)
{
    // As far as the file goes: a header may promise more samples than the file holds.
    const long long at = m_headerBytes + record * m_recordBytes + s.byteOffset;
    const long long wanted = std::min<long long>(static_cast<long long>(s.samples) * m_bytes, std::max(0LL, m_fileSize - at));
    std::vector<uint8_t> bytes(static_cast<size_t>(wanted));
    bytes.resize(wanted > 0 ? ReadAt(GetInputFilePointer(), at, bytes.data(), bytes.size()) : 0);
    return bytes;
}

// Discontinuous files: every record starts at the onset of its time-keeping annotation.
void CEDF_BDF::PlaceRecords()
{
    const Signal& annotations = m_signals[static_cast<size_t>(m_channelSignal.back())];
    m_recordStart.clear();
    for (long long r = 0; r < m_records; ++r) {
        const std::vector<Tal> tals = ParseTals(SignalBytes(r, annotations));
        if (tals.empty())
            Fail("Record " + std::to_string(r + 1) + " of the discontinuous file has no time-keeping annotation.");
        const long long start = std::llround(tals.front().onset * m_rate);
        if (!m_recordStart.empty() && start < m_recordStart.back() + m_fastest)
            Fail("Record " + std::to_string(r + 1) + " of the discontinuous file starts before the previous one ends.");
        if (start < 0 || start > INT_MAX)
            Fail("Record " + std::to_string(r + 1) + " of the discontinuous file starts outside the time base.");
        m_recordStart.push_back(start);
    }
}

long long CEDF_BDF::RecordStart(long long record) const
{
    return m_discontinuous && !m_recordStart.empty() ? m_recordStart[static_cast<size_t>(record)] : record * m_fastest;
}

// The record holding the slice, or the last record that starts before it (a gap).
long long CEDF_BDF::RecordAt(long long slice) const
{
    if (!m_discontinuous || m_recordStart.empty())
        return slice / std::max(1L, m_fastest);
    const auto after = std::upper_bound(m_recordStart.begin(), m_recordStart.end(), slice);
    return std::max<long long>(0, (after - m_recordStart.begin()) - 1);
}

int CEDF_BDF::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "CEDF_BDF");
    // Every slice is written below unless the range meets a gap or the file's cut end; the
    // annotation row always reads as zeros.
    const long long lastRecord = RecordAt(std::max<long long>(first + n - 1, 0));
    if (m_discontinuous || m_headerBytes + (lastRecord + 1) * m_recordBytes > m_fileSize)
        data.zero();
    else if (m_annotationChannel >= 0)
        std::fill(data[m_annotationChannel], data[m_annotationChannel] + n, 0.0f);
    if (n == 0)
        return 0;
    const long long end = first + n;
    const long long recordsPerRead = std::max<long long>(1, static_cast<long long>(kRawBlockBytes) / m_recordBytes);
    FILE* fp = GetInputFilePointer();
    long long missing = 0;
    for (long long r = RecordAt(first); r < m_records && RecordStart(r) < end;) {
        const long long group = std::min(recordsPerRead, m_records - r);
        const long long offset = m_headerBytes + r * m_recordBytes;
        const size_t want = static_cast<size_t>(std::min(group * m_recordBytes, std::max(0LL, m_fileSize - offset)));
        m_raw.resize(want);
        const size_t got = want ? ReadAt(fp, offset, m_raw.data(), want) : 0;
        for (long long k = 0; k < group && RecordStart(r + k) < end; ++k) {
            const long long start = RecordStart(r + k);
            const long long from = std::max<long long>(first, start), to = std::min(end, start + m_fastest);
            if (from >= to)
                continue;
            const long long base = k * m_recordBytes;
            const long long avail = std::clamp<long long>(static_cast<long long>(got) - base, 0, m_recordBytes);
            if (avail == 0) {
                missing += to - from;
                continue;
            }
            const uint8_t* record = m_raw.data() + base;
            for (size_t c = 0; c < m_channelSignal.size(); ++c) {
                const Signal& s = m_signals[static_cast<size_t>(m_channelSignal[c])];
                if (s.annotation)
                    continue;
                float* out = data[static_cast<long>(c)] + (from - first);
                const long present = static_cast<long>(std::clamp<long long>((avail - s.byteOffset) / m_bytes, 0, s.samples));
                const uint8_t* samples = record + s.byteOffset;
                if (s.samples == m_fastest) {
                    const long i0 = static_cast<long>(from - start), i1 = std::min<long>(static_cast<long>(to - start), present);
                    DecodeRun(samples, i0, i1, s.gainF, s.offsetF, out);
                    continue;
                }
                // A slower signal: the stored samples this slice range shows, decoded once, then held.
                const long i0 = static_cast<long>((from - start) * s.samples / m_fastest);
                const long i1 = static_cast<long>((to - 1 - start) * s.samples / m_fastest) + 1;
                m_samples.assign(static_cast<size_t>(i1 - i0), 0.0f);
                DecodeRun(samples, i0, std::min(i1, present), s.gainF, s.offsetF, m_samples.data());
                for (long long t = from; t < to; ++t)
                    out[t - from] = m_samples[static_cast<size_t>((t - start) * s.samples / m_fastest - i0)];
            }
        }
        r += group;
    }
    return static_cast<int>(n - missing);
}

// Samples [i0, i1) of one signal in one record into out[0 .. i1 - i0).
void CEDF_BDF::DecodeRun(const uint8_t* samples, long i0, long i1, float gain, float offset, float* out) const
{
    if (m_bytes == 2) {
        for (long i = i0; i < i1; ++i)
            out[i - i0] = static_cast<float>(static_cast<int16_t>(LoadU16LE(samples + 2 * i))) * gain + offset;
        return;
    }
    for (long i = i0; i < i1; ++i) {
        const uint8_t* p = samples + 3 * i;
        const int32_t v = static_cast<int32_t>(static_cast<uint32_t>(p[0] << 8 | p[1] << 16 | p[2] << 24)) >> 8;
        out[i - i0] = static_cast<float>(v) * gain + offset;
    }
}

// Seconds from the start of the recording to the nearest slice, kept within a range where
// later arithmetic cannot overflow (onsets in a file can be anything).
long CEDF_BDF::SliceOf(double seconds) const
{
    constexpr double kLimit = 9.0e15;
    const double slice = std::round(seconds * m_rate);
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

void CEDF_BDF::StatusEvents(ecEventList& events, int& appended)
{
    const auto status = std::find_if(m_signals.begin(), m_signals.end(),
                                     [](const Signal& s) { return IsEqual(s.label, "Status", false); });
    if (m_bytes != 3 || status == m_signals.end())
        return;
    long previous = -1;
    for (long long r = 0; r < m_records; ++r) {
        const std::vector<uint8_t> bytes = SignalBytes(r, *status);
        const long present = static_cast<long>(bytes.size()) / m_bytes;
        for (long i = 0; i < present; ++i) {
            const long word = Digital(&bytes[static_cast<size_t>(i) * m_bytes], m_bytes) & 0xFFFF;
            if (previous >= 0 && word != 0 && word != previous) {
                ecEvent e;
                e.SetEventName(std::to_string(word));
                e.SetEventCode(static_cast<int>(word));
                e.SetKind(2);
                e.SetCodeMask(0xFFFF);
                const long slice = static_cast<long>(RecordStart(r) + i * m_fastest / status->samples);
                e.SetBegin(slice);
                e.SetEnd(slice);
                events.AppendOneEvent(e);
                ++appended;
            }
            previous = word;
        }
    }
}

int CEDF_BDF::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    int appended = 0;
    AnnotationEvents(*events, appended);
    StatusEvents(*events, appended);
    return appended;
}
