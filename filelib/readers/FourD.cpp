#include "filelib/readers/FourD.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>
#include <tuple>
#include <sys/stat.h>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

// Record sizes; every record starts on an 8-byte boundary.
constexpr long long kHeaderBytes = 96;
constexpr long long kEpochBytes = 56;
constexpr long long kVarEventBytes = 72;
constexpr long long kPdfChannelBytes = 104;
constexpr long long kProcessBytes = 360;
constexpr long long kStepBytes = 36;  // a step's type and its first two values
constexpr long long kConfigHeaderBytes = 112;
constexpr long long kTransformBytes = 128;
constexpr long long kUserBlockHeaderBytes = 100;
constexpr long long kConfigChannelBytes = 96;
constexpr long long kLoopBytes = 104;
// Writers on 32-bit systems left garbage above bit 30 of the header position: the low 31 bits
// count when they point into the file's last 2 GiB.
constexpr long long kPositionMask = 0x7FFFFFFF;
// No header or configuration comes near this; a larger one is damage, not a reason to allocate.
constexpr long long kMaxHeaderBytes = 64LL << 20;

long long Align8(long long x) { return (x + 7) / 8 * 8; }

int WidthOf(int format) { return format == 1 ? 2 : format == 4 ? 8 : 4; }

ecSampleType TypeOf(int format)
{
    return format == 1 ? ecSampleType::Int16
           : format == 2 ? ecSampleType::Int32
           : format == 3 ? ecSampleType::Float32
                         : ecSampleType::Float64;
}

// The device record after a configuration channel record, by channel type; -1 for unknown types.
long long DeviceBytes(int type, int loops)
{
    switch (type) {
    case 1: case 3: return 216 + static_cast<long long>(loops) * kLoopBytes;  // MEG, reference: coil loops follow
    case 2: return 208;                                                        // EEG
    case 4: case 6: case 7: return 76;                                         // external, utility, derived
    case 5: return 78;                                                         // trigger
    case 8: return 72;                                                         // shorted
    default: return -1;
    }
}

// A processing step's bytes by its type: defaults, single cut-off filters and band filters have
// fixed records; any other step says how many bytes of its own follow.
long long StepBytes(const std::string& type, int32_t ownBytes)
{
    if (type == "BTi_defaults")
        return 84;
    if (type == "b_filt_hp" || type == "b_filt_lp" || type == "b_filt_notch")
        return 64;
    if (type == "b_filt_b_pass" || type == "b_filt_b_reject")
        return 36;
    return 64 + std::max(0, ownBytes);
}

bool IsFile(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// "A" followed by digits only: the sensor's number, else -1.
long SensorNumber(const std::string& name)
{
    long long n = -1;
    if (name.size() < 2 || name[0] != 'A' || name.find_first_not_of("0123456789", 1) != std::string::npos ||
        !ParseInteger(name.substr(1), n))
        return -1;
    return static_cast<long>(std::min<long long>(n, LONG_MAX));
}

std::vector<uint8_t> ReadBlock(FILE* fp, long long at, long long bytes)
{
    std::vector<uint8_t> block(static_cast<size_t>(std::max(0LL, bytes)));
    block.resize(ReadAt(fp, at, block.data(), block.size()));
    return block;
}

}  // namespace

FourD::FourD(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void FourD::Fail(const std::string& text) { FailClosing("FourD::Initialize", text); }

void FourD::Require(size_t have, long long end, const std::string& file)
{
    if (end > static_cast<long long>(have))
        Fail("The header of " + file + " is cut short: its records need " + std::to_string(end) + " bytes, " +
             std::to_string(have) + " are there.");
}

void FourD::Initialize(int)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Cannot open file: " + name);
    const long long fileSize = FileLength(fp);
    const long long header = Claim(fp, fileSize);
    SetFileMFR(kMfr4D);
    ReadPdfHeader(fp, header, fileSize);
    m_configName = FindConfig();
    if (m_configName.empty())
        Fail("No configuration file beside " + name + " (config, or its name with \"config\" for \"pdf\").");
    DescribeChannels(ReadConfig());

    const bool epochs = m_epochLengths.size() > 1 &&
                        std::all_of(m_epochLengths.begin(), m_epochLengths.end(),
                                    [&](long long n) { return n == m_epochLengths[0]; });
    const double rate = 1.0 / static_cast<double>(GetSamplePeriod());
    if (epochs)
        SetEpochTimeBase(rate, m_epochLengths[0], static_cast<long long>(m_epochLengths.size()), 0, false);
    else
        SetContinuousTimeBase(rate, m_totalSlices);
}

// The header position, when the file's tail and header look like a pdf's; -1 otherwise.
long long FourD::Claim(FILE* fp, long long fileSize)
{
    const std::string notOurs = "Not a 4D processed-data file: " + GetInputFileName();
    uint8_t tail[8];
    if (fileSize < 8 + kHeaderBytes + kEpochBytes || ReadAt(fp, fileSize - 8, tail, 8) != 8)
        Fail(notOurs);
    const uint64_t stored = LoadU64BE(tail);
    const long long masked = static_cast<long long>(stored & kPositionMask);
    long long header = fileSize - masked <= kPositionMask || stored > static_cast<uint64_t>(LLONG_MAX)
                           ? masked
                           : static_cast<long long>(stored);
    header = Align8(header);
    if (header > fileSize - 8 - kHeaderBytes - kEpochBytes)
        Fail(notOurs);
    uint8_t head[kHeaderBytes + kEpochBytes];
    if (ReadAt(fp, header, head, sizeof head) != sizeof head)
        Fail(notOurs);
    const ByteCursor h(head, sizeof head);
    const int format = h.i16be(8), channels = h.i16be(52);
    const int epochs = h.i32be(12), firstEpoch = h.i32be(kHeaderBytes);
    const float period = h.f32be(28);
    const bool plausible = format >= 1 && format <= 4 && epochs >= 1 && channels >= 1 && std::isfinite(period) &&
                           period > 0 && firstEpoch >= 1 &&
                           static_cast<long long>(firstEpoch) * channels * WidthOf(format) <= header;
    if (!plausible)
        Fail(notOurs);
    m_format = format;
    SetSampleRate(period, 1);
    return header;
}

void FourD::ReadPdfHeader(FILE* fp, long long header, long long fileSize)
{
    const std::string name = GetInputFileName();
    const std::vector<uint8_t> block = ReadBlock(fp, header, std::min(fileSize - 8 - header, kMaxHeaderBytes));
    Require(block.size(), kHeaderBytes, name);
    const ByteCursor h(block.data(), block.size());
    const long long epochs = h.i32be(12), channels = h.i16be(52);
    long long at = kHeaderBytes;
    m_epochLengths.clear();
    m_totalSlices = 0;
    for (long long e = 0; e < epochs; ++e) {
        Require(block.size(), at + kEpochBytes, name);
        const long long slices = h.i32be(static_cast<size_t>(at)), events = h.i32be(static_cast<size_t>(at) + 16);
        if (slices < 1 || events < 0)
            Fail("Epoch " + std::to_string(e + 1) + " declares " + std::to_string(slices) + " slices and " +
                 std::to_string(events) + " events.");
        m_epochLengths.push_back(slices);
        m_totalSlices += slices;
        if (m_totalSlices > INT_MAX)
            Fail("The recording holds more than 2147483647 slices.");
        at += kEpochBytes + events * kVarEventBytes;
    }
    const long long dataBytes = m_totalSlices * channels * WidthOf(m_format);
    if (dataBytes > header)
        Fail("The header declares " + std::to_string(dataBytes) + " bytes of samples; " + std::to_string(header) +
             " lie before the header.");
    Require(block.size(), at + channels * kPdfChannelBytes, name);
    m_channels.clear();
    std::vector<bool> taken(static_cast<size_t>(channels), false);
    for (long long c = 0; c < channels; ++c, at += kPdfChannelBytes) {
        const size_t r = static_cast<size_t>(at);
        const PdfChannel ch{h.str(r, 16), h.i16be(r + 16), h.i32be(r + 64), h.f32be(r + 20)};
        if (ch.column < 0 || ch.column >= channels || taken[static_cast<size_t>(ch.column)] || !std::isfinite(ch.scale))
            Fail("Channel " + ch.label + " has data column " + std::to_string(ch.column) + " and scale " +
                 std::to_string(ch.scale) + " (" + std::to_string(channels) + " columns).");
        taken[static_cast<size_t>(ch.column)] = true;
        m_channels.push_back(ch);
    }
    at += std::max(0, h.i32be(20)) * kVarEventBytes;  // the event records
    ReadProcesses(h, at, h.i32be(48));
}

// The processing history after the channel and event records. Its first entry is the file's
// creation, stamped in seconds since 1970 (UTC): the recording's start. Hardware-filter steps give
// the cut-offs every channel was recorded with. No sample depends on the history, so one that runs
// past the header does not refuse the recording: it states no filter (a later step may be lost).
void FourD::ReadProcesses(const ByteCursor& h, long long at, long long processes)
{
    m_recordingInfo = {};
    const auto fits = [&](long long bytes) { return at + bytes <= static_cast<long long>(h.size()); };
    double cutOff[3] = {};  // high pass, low pass, notch
    bool whole = true;
    for (long long p = 0; p < processes && (whole = fits(kProcessBytes)); ++p) {
        const int32_t stamp = h.i32be(static_cast<size_t>(at) + 60);
        if (p == 0 && stamp > 0)
            std::tie(m_recordingInfo.date, m_recordingInfo.time) = UtcDateAndTime(stamp);
        const long long steps = h.i32be(static_cast<size_t>(at) + 320);
        at += kProcessBytes;
        for (long long s = 0; s < steps && (whole = fits(kStepBytes)); ++s) {
            const size_t r = static_cast<size_t>(at);
            const std::string type = h.str(r + 4, 20);
            const float first = h.f32be(r + 28);
            if (type == "b_filt_hp" || type == "b_filt_lp" || type == "b_filt_notch")
                cutOff[type == "b_filt_hp" ? 0 : type == "b_filt_lp" ? 1 : 2] = first;
            if (type == "b_filt_b_pass")
                std::tie(cutOff[0], cutOff[1]) = std::make_pair(first, h.f32be(r + 32));
            at = Align8(at + StepBytes(type, h.i32be(r + 28)));
        }
    }
    const std::string filter = FilterText(cutOff[0], cutOff[1], cutOff[2]);
    if (whole && !filter.empty())
        m_recordingInfo.channelFilters.assign(m_channels.size(), filter);
}

std::string FourD::FindConfig()
{
    const std::string path = GetInputFileName();
    const size_t slash = path.find_last_of("/\\");
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string own = path.substr(folder.size());
    const size_t pdf = own.rfind("pdf");
    if (pdf != std::string::npos && IsFile(folder + own.replace(pdf, 3, "config")))
        return folder + own;
    return IsFile(folder + "config") ? folder + "config" : "";
}

std::vector<FourD::ConfigChannel> FourD::ReadConfig()
{
    std::vector<uint8_t> block;
    if (FILE* fp = fopen(m_configName.c_str(), "rb")) {
        const long long size = FileLength(fp);
        if (size <= kMaxHeaderBytes)
            block = ReadBlock(fp, 0, size);
        fclose(fp);
        if (size > kMaxHeaderBytes)
            Fail("The configuration file " + m_configName + " holds " + std::to_string(size) +
                 " bytes, more than any 4D configuration.");
    } else {
        Fail("Cannot open the configuration file " + m_configName + ".");
    }
    const ByteCursor h(block.data(), block.size());
    Require(block.size(), kConfigHeaderBytes, m_configName);
    const int channels = h.i16be(58), sensors = h.i16be(68), userBlocks = h.i16be(70);
    if (channels < 0 || sensors < 0 || userBlocks < 0)
        Fail("The configuration declares " + std::to_string(channels) + " channels, " + std::to_string(sensors) +
             " sensors and " + std::to_string(userBlocks) + " user blocks.");
    long long at = kConfigHeaderBytes + sensors * kTransformBytes;
    for (int b = 0; b < userBlocks; ++b) {
        Require(block.size(), at + kUserBlockHeaderBytes, m_configName);
        at = Align8(Align8(at + kUserBlockHeaderBytes) + h.u32be(static_cast<size_t>(at) + 64));
    }
    std::vector<ConfigChannel> out;
    for (int c = 0; c < channels; ++c) {
        Require(block.size(), at + kConfigChannelBytes, m_configName);
        const size_t r = static_cast<size_t>(at);
        ConfigChannel ch{h.str(r, 16), h.i16be(r + 16), h.u16be(r + 18), h.f32be(r + 24), h.f32be(r + 28),
                         h.str(r + 32, 16)};
        const bool coils = ch.type == 1 || ch.type == 3;
        if (coils)
            Require(block.size(), at + kConfigChannelBytes + 180, m_configName);
        const long long device = DeviceBytes(ch.type, coils ? h.i16be(r + kConfigChannelBytes + 178) : 0);
        if (device < 0)
            Fail("Configuration channel " + ch.name + " has the unknown type " + std::to_string(ch.type) +
                 " or a negative number of coil loops.");
        Require(block.size(), at + kConfigChannelBytes + device, m_configName);
        at = Align8(at + kConfigChannelBytes + device);
        out.push_back(ch);
    }
    return out;
}

void FourD::DescribeChannels(const std::vector<ConfigChannel>& config)
{
    std::map<int, const ConfigChannel*> byNumber;
    for (const ConfigChannel& ch : config)
        byNumber.emplace(ch.number, &ch);
    std::vector<std::pair<const PdfChannel*, const ConfigChannel*>> channels;
    for (const PdfChannel& ch : m_channels) {
        const auto found = byNumber.find(ch.number);
        if (found == byNumber.end())
            Fail("Channel " + ch.label + " (number " + std::to_string(ch.number) + ") is not in the configuration " +
                 m_configName + ".");
        channels.emplace_back(&ch, found->second);
    }
    // MEG sensors A<n> by n, then the rest in storage order.
    const auto key = [](const std::pair<const PdfChannel*, const ConfigChannel*>& c) {
        const long n = c.second->type == 1 ? SensorNumber(c.second->name) : -1;
        return n >= 0 ? std::make_pair(0L, n) : std::make_pair(1L, static_cast<long>(c.first->column));
    };
    std::stable_sort(channels.begin(), channels.end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });

    const int width = WidthOf(m_format);
    const int stored = static_cast<int>(m_channels.size());
    ecDataLayout layout = ecDataLayout::Multiplexed(TypeOf(m_format), true, stored, stored, 0, m_totalSlices);
    SetNumChans(stored);
    for (int c = 0; c < stored; ++c) {
        const PdfChannel& pdf = *channels[static_cast<size_t>(c)].first;
        const ConfigChannel& cfg = *channels[static_cast<size_t>(c)].second;
        const double gain = m_format <= 2 ? pdf.scale * cfg.unitsPerBit / cfg.gain : pdf.scale * cfg.gain;
        if (!std::isfinite(gain))
            Fail("Channel " + cfg.name + " has gain " + std::to_string(cfg.gain) + " and " +
                 std::to_string(cfg.unitsPerBit) + " units per bit in the configuration.");
        const int type = cfg.type == 1 ? kChanMEG : cfg.type == 3 ? kChanReference : cfg.type == 2 ? kChanEEG
                         : cfg.type == 5 ? kChanTrigger : 0;
        const std::string unit = type == kChanMEG || type == kChanReference ? "T" : type == kChanEEG ? "V"
                                 : type == kChanTrigger ? "" : cfg.unit;
        ecChannelLayout& ch = layout.channels[static_cast<size_t>(c)];
        ch.offset = static_cast<long long>(pdf.column) * width;
        if (type == kChanTrigger && m_format <= 2)
            ch.mask = m_format == 1 ? 0xFFFFu : 0xFFFFFFFFu;  // the word's bits, whatever its sign
        else
            layout.SetConversion(c, gain, 0);
        DescribeChannel(c, cfg.name, type, unit, type == kChanTrigger ? 1.0f : static_cast<float>(gain));
    }
    Engine().SetLayout(std::move(layout));
}

int FourD::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "FourD");
    if (ReadRows(data, first, n) != n)
        throw ecError("[FourD::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int FourD::InitialEventList(ecEventList* events, ecProgressDlg* progress)
{
    if (!events)
        return 0;
    int appended = 0;
    if (GetRunType() == kRunContinuous) {
        long long start = 0;
        for (size_t e = 0; e + 1 < m_epochLengths.size(); ++e, ++appended) {
            start += m_epochLengths[e];
            events->AppendOneEvent(SegmentBoundaryEvent(static_cast<long>(start)));
        }
    }
    return appended + FindAllTriggersDig(events, 2, 1, 0, false, -1, progress);
}
