#include "filelib/readers/Plexon.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr char kMagic[] = "PLEX";  // the little-endian word 0x58454c50
constexpr size_t kFileHeaderBytes = 7504;
constexpr long long kDspHeaderBytes = 1020, kEventHeaderBytes = 296, kSlowHeaderBytes = 296;
constexpr long long kBlockHeaderBytes = 16;
constexpr size_t kScanBytes = 1 << 20;
enum { kSpike = 1, kEvent = 4, kContinuous = 5 };
constexpr int kStrobed = 257;

// The header's gain per count (millivolts by the vendor's convention); 0 when the header gives none.
double SlowGain(int version, const ByteCursor& file, const ByteCursor& slow)
{
    const double gain = slow.i32le(40), preamp = slow.i32le(48);
    double g = 0;
    if (version <= 101)
        g = 5000.0 / (2048.0 * gain * 1000.0);
    else if (version == 102)
        g = 5000.0 / (2048.0 * gain * preamp);
    else if (const int bits = file.u8(203); bits >= 1 && bits <= 32)
        g = file.u16le(206) / (std::ldexp(1.0, bits - 1) * gain * preamp);
    return std::isfinite(g) && g > 0 ? g : 0;
}

std::string EventName(const std::map<int, std::string>& names, int channel)
{
    const auto it = names.find(channel);
    return it != names.end() && !it->second.empty() ? it->second : "Event " + std::to_string(channel);
}

}  // namespace

ecPlexon::ecPlexon(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ecPlexon::Fail(const std::string& text) { FailClosing("ecPlexon::Initialize", text); }

void ecPlexon::Initialize(int)
{
    const std::string name = GetInputFileName();
    long long fileSize = 0;
    FILE* fp = OpenForReading("ecPlexon::Initialize", fileSize, kMagic, "Plexon");
    SetFileMFR(kMfrPlexon);
    uint8_t head[kFileHeaderBytes];
    if (fileSize < static_cast<long long>(kFileHeaderBytes) || ReadAt(fp, 0, head, kFileHeaderBytes) != kFileHeaderBytes)
        Fail("The file header of " + name + " is cut short.");
    const ByteCursor h(head, kFileHeaderBytes);
    m_version = h.i32le(4);
    if (m_version < 100 || m_version > 107)
        Fail("Unknown .plx version " + std::to_string(m_version) + " (100 to 107 are read).");
    m_tickRate = h.i32le(136);
    // The comment (128 bytes at 8) and the date as six int32 from byte 160: year, month, day,
    // hour, minute, second.
    m_recordingInfo.description = TrimBlanks(h.str(8, 128));
    m_recordingInfo.date = IsoDate(h.i32le(160), std::to_string(h.i32le(164)), h.i32le(168));
    if (!m_recordingInfo.date.empty())
        m_recordingInfo.time = ClockTime(h.i32le(172), h.i32le(176), h.i32le(180));
    if (m_tickRate <= 0)
        Fail("The timestamp frequency is " + std::to_string(m_tickRate) + " Hz.");
    const long long dataStart = ReadChannelHeaders(fp, h.i32le(140), h.i32le(144), h.i32le(148), fileSize, head);
    ScanBlocks(fp, dataStart, fileSize);
    BuildChannels();
}

long long ecPlexon::ReadChannelHeaders(FILE* fp, int dsp, int events, int slow, long long fileSize,
                                       const uint8_t* fileHeader)
{
    if (dsp < 0 || events < 0 || slow < 0)
        Fail("The header declares " + std::to_string(dsp) + " spike, " + std::to_string(events) + " event and " +
             std::to_string(slow) + " slow channels.");
    const long long bytes = dsp * kDspHeaderBytes + events * kEventHeaderBytes + slow * kSlowHeaderBytes;
    if (static_cast<long long>(kFileHeaderBytes) + bytes > fileSize)
        Fail("The channel headers need " + std::to_string(bytes) + " bytes; the file holds " + std::to_string(fileSize) + ".");
    std::vector<uint8_t> all(static_cast<size_t>(bytes));
    if (ReadAt(fp, kFileHeaderBytes, all.data(), all.size()) != all.size())
        Fail("The channel headers cannot be read.");
    const ByteCursor file(fileHeader, kFileHeaderBytes);
    const uint8_t* at = all.data();
    for (int k = 0; k < dsp; ++k, at += kDspHeaderBytes) {
        const ByteCursor c(at, kDspHeaderBytes);
        m_dspNames[c.i32le(64)] = TrimBlanks(c.str(0, 32));
    }
    for (int k = 0; k < events; ++k, at += kEventHeaderBytes) {
        const ByteCursor c(at, kEventHeaderBytes);
        m_eventNames[c.i32le(32)] = TrimBlanks(c.str(0, 32));
    }
    for (int k = 0; k < slow; ++k, at += kSlowHeaderBytes) {
        const ByteCursor c(at, kSlowHeaderBytes);
        Slow& s = m_slow[c.i32le(32)];
        s.name = TrimBlanks(c.str(0, 32));
        s.rate = c.i32le(36);
        s.gain = SlowGain(m_version, file, c);
    }
    return static_cast<long long>(kFileHeaderBytes) + bytes;
}

// Walks the data blocks, reading the file in large spans: spike and event blocks become stamps,
// continuous blocks the block tables of their channels.
void ecPlexon::ScanBlocks(FILE* fp, long long from, long long fileSize)
{
    std::vector<uint8_t> buffer(kScanBytes);
    long long spanAt = from, spanBytes = 0;
    for (long long pos = from; pos < fileSize;) {
        if (pos + kBlockHeaderBytes > spanAt + spanBytes) {
            spanAt = pos;
            spanBytes = static_cast<long long>(ReadAt(fp, pos, buffer.data(), buffer.size()));
            if (spanBytes < kBlockHeaderBytes)
                Fail("The data block at byte " + std::to_string(pos) + " is cut short.");
        }
        const ByteCursor b(buffer.data() + (pos - spanAt), kBlockHeaderBytes);
        const int type = b.u16le(0), upper = b.u16le(2), channel = b.u16le(8), unit = b.u16le(10);
        const long long words = static_cast<long long>(b.u16le(12)) * b.u16le(14);
        const long long tick = static_cast<long long>(upper) << 32 | b.u32le(4);
        const long long next = pos + kBlockHeaderBytes + 2 * words;
        if (upper > 0xFF || next > fileSize || (type != kSpike && type != kEvent && type != kContinuous))
            Fail("The data block at byte " + std::to_string(pos) + " (type " + std::to_string(type) +
                 ") is not a valid block of this file.");
        if (type != kContinuous) {
            m_stamps.push_back({tick, type, channel, unit});
        } else if (words > 0) {
            const auto it = m_slow.find(channel);
            if (it == m_slow.end())
                Fail("Continuous data of channel " + std::to_string(channel) + ", which has no header.");
            it->second.offsets.push_back(pos + kBlockHeaderBytes);
            it->second.ticks.push_back(tick);
            it->second.lengths.push_back(words);
        }
        pos = next;
    }
}

long long ecPlexon::SliceOf(long long tick) const
{
    const long long rate = static_cast<long long>(m_rate);
    return tick / m_tickRate * rate + ((tick % m_tickRate) * rate + m_tickRate / 2) / m_tickRate;
}

// One engine layout per delivered channel: its blocks as segments at the slices their
// timestamps give, so a stretch without blocks reads as zeros.
void ecPlexon::BuildChannels()
{
    const auto firstWithData = std::find_if(m_slow.begin(), m_slow.end(), [](const auto& s) { return !s.second.offsets.empty(); });
    m_rate = firstWithData == m_slow.end() ? static_cast<double>(m_tickRate) : firstWithData->second.rate;
    if (!(m_rate > 0))
        Fail("Slow channel " + firstWithData->second.name + " has a rate of " + std::to_string(firstWithData->second.rate) + " Hz.");
    std::vector<const Slow*> delivered;
    std::vector<ecDataLayout> layouts;
    long long slices = 0;
    for (const auto& [number, s] : m_slow) {
        if (s.offsets.empty() || s.rate != m_rate)
            continue;
        if (s.rate > m_tickRate)
            Fail("Slow channel " + s.name + " runs at " + std::to_string(s.rate) + " Hz, faster than the timestamp clock.");
        ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Int16, false, 1, 1, 0, 0);
        layout.segmentTable = s.offsets;
        layout.segmentLengths = s.lengths;
        long long end = 0;
        for (size_t k = 0; k < s.ticks.size(); ++k) {
            long long first = SliceOf(s.ticks[k]);
            if (first == end - 1)
                first = end;  // a timestamp rounded one slice early
            if (first < end)
                Fail("The continuous blocks of " + s.name + " overlap at tick " + std::to_string(s.ticks[k]) + ".");
            layout.segmentFirstSlices.push_back(first);
            end = first + s.lengths[k];
        }
        layout.slices = end;
        slices = std::max(slices, end);
        delivered.push_back(&s);
        layouts.push_back(std::move(layout));
    }
    if (slices > INT32_MAX)
        Fail("The recording holds " + std::to_string(slices) + " slices, more than can be addressed.");
    if (delivered.empty())
        for (const Stamp& st : m_stamps)
            slices = std::max(slices, st.tick + 1);
    SetNumChans(static_cast<int>(delivered.size()));
    m_engines.resize(delivered.size());
    for (size_t c = 0; c < delivered.size(); ++c) {
        layouts[c].slices = slices;
        m_engines[c].SetLayout(std::move(layouts[c]));
        DescribeChannel(static_cast<int>(c), delivered[c]->name, 0, "", static_cast<float>(delivered[c]->gain));
    }
    SetContinuousTimeBase(m_rate, std::min<long long>(slices, INT32_MAX));
}

int ecPlexon::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecPlexon");
    for (size_t c = 0; c < m_engines.size(); ++c) {
        float* row = data[static_cast<long>(c)];
        if (ReadChannelRow(m_engines[c], static_cast<int>(c), row, first, n) != n)
            throw ecError("[ecPlexon::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    }
    return static_cast<int>(n);
}

int ecPlexon::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    for (const Stamp& s : m_stamps) {
        const long slice = static_cast<long>(SliceOf(s.tick));
        if (s.type == kSpike) {
            const auto it = m_dspNames.find(s.channel);
            const std::string channel = it != m_dspNames.end() ? it->second : "Channel " + std::to_string(s.channel);
            events->AppendOneEvent(MarkerEvent(slice, channel + " unit " + std::to_string(s.unit), s.channel));
        } else {
            events->AppendOneEvent(MarkerEvent(slice, EventName(m_eventNames, s.channel),
                                               s.channel == kStrobed ? s.unit : s.channel));
        }
    }
    return static_cast<int>(m_stamps.size());
}
