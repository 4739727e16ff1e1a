#include "filelib/readers/NihonKohden.h"

#include <algorithm>
#include <climits>
#include <map>

#include "companion/ByteCursor.h"
#include "companion/IniText.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kDeviceBytes = 16;
constexpr long long kControlTable = 0x92;   // after the block count at 0x91
constexpr long long kTableEntry = 20;       // bytes per control/data/log block address entry
constexpr long long kDataBlockHead = 0x27;  // a data block's fixed part, before its channel list
constexpr long long kChannelEntry = 10;
constexpr long long kLogEntry = 45;

const char* const kDevices[] = {"EEG-1100A V01.00", "EEG-1100B V01.00", "EEG-1100C V01.00", "QI-403A   V01.00",
                                "QI-403A   V02.00", "EEG-2100  V01.00", "EEG-2100  V02.00", "DAE-2100D V01.30",
                                "DAE-2100D V02.00"};

bool KnownDevice(const uint8_t* text)
{
    return std::any_of(std::begin(kDevices), std::end(kDevices),
                       [&](const char* d) { return std::equal(text, text + kDeviceBytes, d); });
}

// The range an input spans, by its electrode code: DC inputs and marks in mV, the rest in µV.
struct InputRange {
    double low, high, voltsPerUnit;
};
InputRange RangeOf(int code)
{
    const bool dc = (code >= 42 && code <= 73) || code == 76 || code == 77;
    return dc ? InputRange{-12002.9, 12002.56, 1e-3} : InputRange{-3200, 3199.902, 1e-6};
}

bool FileExists(const std::string& path)
{
    FILE* fp = std::fopen(path.c_str(), "rb");
    if (fp)
        std::fclose(fp);
    return fp != nullptr;
}

}  // namespace

NihonKoden::NihonKoden(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void NihonKoden::Fail(const std::string& text) { FailClosing("NihonKoden::Initialize", text); }

std::string NihonKoden::Companion(const char* upperExtension)
{
    const std::string name = GetInputFileName();
    const std::string stem = GetFileNameNoExtension(name) + ".";
    const std::string opened = GetFileNameExtension(name);
    const std::string upper = upperExtension, lower = LowerAscii(upperExtension);
    const bool lowerFirst = !opened.empty() && opened == LowerAscii(opened);
    const std::string first = stem + (lowerFirst ? lower : upper), second = stem + (lowerFirst ? upper : lower);
    return FileExists(first) || !FileExists(second) ? first : second;
}

std::vector<uint8_t> NihonKoden::Chunk(FILE* fp, long long at, size_t bytes, long long fileSize)
{
    std::vector<uint8_t> out(bytes);
    if (at < 0 || at > fileSize - static_cast<long long>(bytes) || ReadAt(fp, at, out.data(), bytes) != bytes)
        Fail("The file is cut short: " + std::to_string(bytes) + " header bytes at offset " + std::to_string(at) +
             " lie beyond its " + std::to_string(fileSize) + " bytes.");
    return out;
}

void NihonKoden::Initialize(int)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Cannot open file: " + name);
    const long long fileSize = FileLength(fp);
    uint8_t device[kDeviceBytes];
    if (ReadAt(fp, 0, device, kDeviceBytes) != kDeviceBytes || !KnownDevice(device))
        Fail("Not a Nihon Kohden EEG file: " + name);
    SetFileMFR(kMfrNihonKohden);

    const std::vector<uint8_t> head = Chunk(fp, 0, kControlTable, fileSize);
    if (!KnownDevice(head.data() + 0x81))
        Fail("The control block's device string is not one of a Nihon Kohden EEG file.");
    const int controlBlocks = head[0x91];
    const std::vector<uint8_t> table = Chunk(fp, kControlTable, static_cast<size_t>(controlBlocks * kTableEntry), fileSize);
    m_blocks.clear();
    m_codes.clear();
    for (int k = 0; k < controlBlocks; ++k) {
        const long long control = ByteCursor(table.data(), table.size()).u32le(static_cast<size_t>(k * kTableEntry));
        const int dataBlocks = Chunk(fp, control + 17, 1, fileSize)[0];
        const std::vector<uint8_t> list = Chunk(fp, control + 18, static_cast<size_t>(dataBlocks * kTableEntry), fileSize);
        for (int d = 0; d < dataBlocks; ++d)
            ReadDataBlock(fp, ByteCursor(list.data(), list.size()).u32le(static_cast<size_t>(d * kTableEntry)), fileSize);
    }
    if (m_blocks.empty())
        Fail("The file lists no data blocks.");
    const long long slices = m_blocks.back().firstSlice + m_blocks.back().slices;
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");

    SetNumChans(static_cast<int>(m_codes.size()));
    NameChannels();
    ReadStartTime();
    SetContinuousTimeBase(m_rate, slices);
    DescribeLayout();
}

void NihonKoden::ReadDataBlock(FILE* fp, long long at, long long fileSize)
{
    const std::vector<uint8_t> fixed = Chunk(fp, at, kDataBlockHead, fileSize);
    const ByteCursor h(fixed.data(), fixed.size());
    if (h.u8(0) != 1)
        Fail("The data block at offset " + std::to_string(at) + " does not start with a data block mark.");
    const int rate = h.u16le(0x1a) & 0x3FFF;
    const long long tenths = h.u32le(0x1c);
    const int channels = h.u8(0x26);
    const std::vector<uint8_t> entries = Chunk(fp, at + kDataBlockHead, static_cast<size_t>(channels * kChannelEntry), fileSize);
    std::vector<int> codes;
    for (int c = 0; c < channels; ++c)
        codes.push_back(entries[static_cast<size_t>(c * kChannelEntry)]);
    if (rate == 0 || channels == 0)
        Fail("The data block at offset " + std::to_string(at) + " declares " + std::to_string(channels) +
             " channels at " + std::to_string(rate) + " Hz.");
    if (!m_blocks.empty() && (codes != m_codes || rate != m_rate))
        Fail("The data block at offset " + std::to_string(at) + " has other channels or another rate than the first.");
    m_codes = codes;
    m_rate = rate;
    const long long dataStart = at + kDataBlockHead + channels * kChannelEntry;
    const long long slices = tenths * rate / 10;
    const long long needed = dataStart + slices * (channels + 1) * 2;
    if (needed > fileSize)
        Fail("The file holds " + std::to_string(fileSize) + " bytes; its data block at offset " + std::to_string(at) +
             " needs " + std::to_string(needed) + ".");
    const long long firstSlice = m_blocks.empty() ? 0 : m_blocks.back().firstSlice + m_blocks.back().slices;
    m_blocks.push_back({dataStart, firstSlice, slices});
}

void NihonKoden::NameChannels()
{
    const std::string path = Companion("21E");
    ecIniText ini;
    if (!ini.ReadFile(path, 1 << 20))
        Fail("Cannot read the electrode name table " + path + ".");
    std::map<long long, std::string> names;
    for (const char* section : {"ELECTRODE", "REFERENCE"})
        if (const ecIniText::Section* entries = ini.Find(section))
            for (const auto& [key, value] : *entries)
                if (long long code = 0; ParseInteger(key, code))
                    names[code] = value;
    for (int c = 0; c < GetNumChans(); ++c) {
        const int code = m_codes[static_cast<size_t>(c)];
        const auto found = names.find(code);
        if (found == names.end())
            Fail("Electrode code " + std::to_string(code) + " is not in " + path + ".");
        const std::string& label = found->second;
        const bool eeg = code <= 25 && label.rfind('$', 0) != 0;
        const InputRange r = RangeOf(code);
        DescribeChannel(c, label, eeg ? kChanEEG : 0, "V", static_cast<float>((r.high - r.low) / 65535 * r.voltsPerUnit),
                        static_cast<float>(r.low * r.voltsPerUnit));
    }
}

void NihonKoden::ReadStartTime()
{
    m_startTime.clear();
    FILE* fp = std::fopen(Companion("PNT").c_str(), "rb");
    if (!fp)
        return;
    char text[14];
    const bool read = ReadAt(fp, 0x40, text, sizeof text) == sizeof text;
    std::fclose(fp);
    if (!read || !std::all_of(text, text + sizeof text, [](char ch) { return ch >= '0' && ch <= '9'; }))
        Fail("The recording date in " + Companion("PNT") + " is not a date.");
    const std::string t(text, sizeof text);
    m_startTime = t.substr(0, 4) + "-" + t.substr(4, 2) + "-" + t.substr(6, 2) + " " + t.substr(8, 2) + ":" +
                  t.substr(10, 2) + ":" + t.substr(12, 2);
}

void NihonKoden::DescribeLayout()
{
    const int channels = GetNumChans();
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::UInt16, false, channels + 1, channels,
                                                    m_blocks.front().dataStart, GetNumSlices());
    for (const DataBlock& b : m_blocks) {
        layout.segmentTable.push_back(b.dataStart);
        layout.segmentFirstSlices.push_back(b.firstSlice);
    }
    for (int c = 0; c < channels; ++c) {
        // value = low + count x (high - low) / 65535, in the input's unit
        const InputRange r = RangeOf(m_codes[static_cast<size_t>(c)]);
        const double perCount = (r.high - r.low) / 65535;
        layout.SetConversion(c, perCount * r.voltsPerUnit, r.low / perCount);
    }
    Engine().SetLayout(std::move(layout));
}

int NihonKoden::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "NihonKoden");
    if (ReadRows(data, first, n) != n)
        throw ecError("[NihonKoden::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int NihonKoden::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    int appended = 0;
    for (size_t b = 1; b < m_blocks.size(); ++b, ++appended)
        events->AppendOneEvent(SegmentBoundaryEvent(static_cast<long>(m_blocks[b].firstSlice)));
    const std::string path = Companion("LOG");
    FILE* fp = std::fopen(path.c_str(), "rb");
    if (!fp)
        return appended;  // a recording without its log has no logged events
    const long long size = FileLength(fp);
    std::vector<uint8_t> log(static_cast<size_t>(std::clamp<long long>(size, 0, 1 << 24)));
    const bool read = ReadAt(fp, 0, log.data(), log.size()) == log.size();
    std::fclose(fp);
    const ByteCursor c(log.data(), log.size());
    try {
        if (!read || log.size() < kDeviceBytes || !KnownDevice(log.data()))
            throw ecError("", 1, 0, -1, -1);
        for (int k = 0, blocks = c.u8(0x91); k < blocks; ++k) {
            const size_t at = c.u32le(static_cast<size_t>(kControlTable + k * kTableEntry));
            for (int e = 0, entries = c.u8(at + 0x12); e < entries; ++e) {
                const size_t entry = at + 0x14 + static_cast<size_t>(e * kLogEntry);
                const std::string text = TrimBlanks(c.str(entry, 20));
                const std::string clock = c.str(entry + 20, 6);
                long long hms = 0;
                if (clock.size() != 6 || !ParseInteger(clock, hms) || hms < 0)
                    throw ecError("", 1, 0, -1, -1);
                const long long seconds = hms / 10000 * 3600 + hms / 100 % 100 * 60 + hms % 100;
                events->AppendOneEvent(MarkerEvent(static_cast<long>(std::min<long long>(seconds * m_rate, LONG_MAX)), text, 0));
                ++appended;
            }
        }
    } catch (const ecError&) {
        throw ecError("[NihonKoden::InitialEventList] The event log " + path + " is damaged.", 1, 0, -1, -1);
    }
    return appended;
}
