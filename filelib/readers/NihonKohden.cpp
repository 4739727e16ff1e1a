#include "filelib/readers/NihonKohden.h"

#include <algorithm>
#include <cctype>
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
constexpr long long kExtendedPointer = 0x3EE;  // where the extended systems keep their own block table
constexpr long long kExtendedHead = 72;        // an extended data block's fixed part, before its channel list
constexpr long long kDateText = 0x40;          // "YYYYMMDDhhmmss" in the .EEG and the .PNT

const char* const kDevices[] = {"EEG-1100A V01.00", "EEG-1100B V01.00", "EEG-1100C V01.00", "QI-403A   V01.00",
                                "QI-403A   V02.00", "EEG-2100  V01.00", "EEG-2100  V02.00", "DAE-2100D V01.30",
                                "DAE-2100D V02.00", "EEG-1100A V02.00", "EEG-1100B V02.00", "EEG-1100C V02.00",
                                "EEG-1200A V01.00"};
const char* const kExtendedDevice = "EEG-1200A V01.00";

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

// "YYYY-MM-DD" and "hh:mm:ss" of 14 digits; false when they are not digits.
bool SplitDateTime(const std::string& t, std::string& date, std::string& time)
{
    if (t.size() != 14 || !std::all_of(t.begin(), t.end(), [](char ch) { return ch >= '0' && ch <= '9'; }))
        return false;
    date = t.substr(0, 4) + "-" + t.substr(4, 2) + "-" + t.substr(6, 2);
    time = t.substr(8, 2) + ":" + t.substr(10, 2) + ":" + t.substr(12, 2);
    return true;
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
    m_blocks.clear();
    m_codes.clear();
    const std::vector<long long> blocks = DataBlockAddresses(fp, 0x80, kOldTables, fileSize);
    if (std::equal(device, device + kDeviceBytes, kExtendedDevice))
        ReadExtendedBlocks(fp, blocks, fileSize);
    else
        for (long long at : blocks)
            ReadDataBlock(fp, at, fileSize);
    if (m_blocks.empty())
        Fail("The file lists no data blocks.");
    const long long slices = m_blocks.back().firstSlice + m_blocks.back().slices;
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");

    SetNumChans(static_cast<int>(m_codes.size()));
    NameChannels();
    ReadRecordingInfo(head);
    SetContinuousTimeBase(m_rate, slices);
    DescribeLayout();
}

std::vector<long long> NihonKoden::Addresses(FILE* fp, long long countAt, long long first, const TableLayout& l,
                                             long long fileSize)
{
    const int count = Chunk(fp, countAt, 1, fileSize)[0];
    const std::vector<uint8_t> table = Chunk(fp, first, static_cast<size_t>(count * l.stride), fileSize);
    const ByteCursor c(table.data(), table.size());
    std::vector<long long> out;
    for (size_t at = 0; at < table.size(); at += static_cast<size_t>(l.stride)) {
        const uint64_t address = l.width == 4 ? c.u32le(at) : c.u64le(at);
        if (address > static_cast<uint64_t>(fileSize))
            Fail("A block address (" + std::to_string(address) + ") lies beyond the file's " + std::to_string(fileSize) +
                 " bytes.");
        out.push_back(static_cast<long long>(address));
    }
    return out;
}

std::vector<long long> NihonKoden::DataBlockAddresses(FILE* fp, long long table, const TableLayout& l, long long fileSize)
{
    std::vector<long long> blocks;
    for (long long control : Addresses(fp, table + 17, table + 18, l, fileSize))
        for (long long block : Addresses(fp, control + 17, control + l.controlEntries, l, fileSize))
            blocks.push_back(block);
    return blocks;
}

// The extended systems leave the old data blocks' channel lists and durations meaningless and
// keep only their rates there; the channels (16-bit electrode codes) and the samples follow the
// extended data blocks, paired with the old ones in order. Their length is not stated reliably, so
// a block's samples run to the next extended block or the end of the file (whole slices).
void NihonKoden::ReadExtendedBlocks(FILE* fp, const std::vector<long long>& oldBlocks, long long fileSize)
{
    const long long table = ByteCursor(Chunk(fp, kExtendedPointer, 4, fileSize).data(), 4).u32le(0);
    const std::vector<long long> blocks = DataBlockAddresses(fp, table, kExtendedTables, fileSize);
    if (blocks.size() != oldBlocks.size())
        Fail("The extended block table lists " + std::to_string(blocks.size()) + " data blocks for the " +
             std::to_string(oldBlocks.size()) + " of the control blocks.");
    std::vector<long long> starts = blocks;
    std::sort(starts.begin(), starts.end());
    for (size_t k = 0; k < blocks.size(); ++k) {
        const std::vector<uint8_t> rateField = Chunk(fp, oldBlocks[k] + 0x1a, 2, fileSize);
        const std::vector<uint8_t> fixed = Chunk(fp, blocks[k], kExtendedHead, fileSize);
        const int channels = ByteCursor(fixed.data(), fixed.size()).u16le(68);
        const std::vector<uint8_t> entries = Chunk(fp, blocks[k] + kExtendedHead, static_cast<size_t>(channels * kChannelEntry), fileSize);
        const ByteCursor e(entries.data(), entries.size());
        std::vector<int> codes;
        for (size_t at = 0; at < entries.size(); at += kChannelEntry)
            codes.push_back(e.u16le(at));
        const long long dataStart = blocks[k] + kExtendedHead + channels * kChannelEntry;
        const auto next = std::upper_bound(starts.begin(), starts.end(), blocks[k]);
        const long long end = next == starts.end() ? fileSize : *next;
        const long long slices = end < dataStart ? -1 : (end - dataStart) / ((channels + 1) * 2LL);
        AddBlock(blocks[k], codes, ByteCursor(rateField.data(), 2).u16le(0) & 0x3FFF, dataStart, slices, fileSize);
    }
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
    AddBlock(at, codes, rate, at + kDataBlockHead + channels * kChannelEntry, tenths * rate / 10, fileSize);
}

void NihonKoden::AddBlock(long long at, const std::vector<int>& codes, int rate, long long dataStart, long long slices,
                          long long fileSize)
{
    const std::string where = "data block at offset " + std::to_string(at);
    if (rate == 0 || codes.empty() || slices < 0)
        Fail("The " + where + " declares " + std::to_string(codes.size()) + " channels at " + std::to_string(rate) + " Hz.");
    if (!m_blocks.empty() && (codes != m_codes || rate != m_rate))
        Fail("The " + where + " has other channels or another rate than the first.");
    m_codes = codes;
    m_rate = rate;
    const long long needed = dataStart + slices * static_cast<long long>(codes.size() + 1) * 2;
    if (needed > fileSize)
        Fail("The file holds " + std::to_string(fileSize) + " bytes; its " + where + " needs " +
             std::to_string(needed) + ".");
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

// The start from the .EEG's own header (the .PNT's when the .EEG holds none), the patient from
// the .PNT (code, name, sex as its first letter: M, or F/W, birth date "YYYY/MM/DD").
void NihonKoden::ReadRecordingInfo(const std::vector<uint8_t>& head)
{
    m_recordingInfo = {};
    ecRecordingInfo& info = m_recordingInfo;
    SplitDateTime(ByteCursor(head.data(), head.size()).str(kDateText, 14), info.date, info.time);
    FILE* fp = std::fopen(Companion("PNT").c_str(), "rb");
    if (!fp)
        return;
    std::vector<uint8_t> pnt(1642);
    pnt.resize(ReadAt(fp, 0, pnt.data(), pnt.size()));
    std::fclose(fp);
    const ByteCursor c(pnt.data(), pnt.size());
    const auto text = [&](size_t at, size_t len) { return at + len <= pnt.size() ? TrimBlanks(c.str(at, len)) : ""; };
    if (info.date.empty())
        SplitDateTime(text(kDateText, 14), info.date, info.time);
    info.subjectId = text(1540, 10);
    info.subjectName = text(1582, 20);
    const char sex = static_cast<char>(std::toupper(static_cast<unsigned char>(text(1610, 6).c_str()[0])));
    info.subjectSex = sex == 'M' ? "M" : sex == 'F' || sex == 'W' ? "F" : "";
    const std::string birth = text(1632, 10);
    std::string date, midnight;
    if (birth.size() == 10 && birth[4] == '/' && birth[7] == '/' &&
        SplitDateTime(birth.substr(0, 4) + birth.substr(5, 2) + birth.substr(8, 2) + "000000", date, midnight))
        info.subjectBirthDate = date;
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
