#include "filelib/readers/Micromed.h"

#include <algorithm>
#include <climits>
#include <cstdio>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kHeadBytes = 640;  // title, recording fields and the descriptor table
constexpr size_t kDescriptors = 176;
constexpr size_t kDescriptor = 16;
constexpr long long kElectrode = 128;
constexpr long long kTriggerEntry = 6;
constexpr long long kNoteEntry = 44;
const std::string kTitle = "* MICROMED";
// Descriptor positions, the same in header types 2 to 4; only type 4 has the trigger area.
constexpr size_t kOrderArea = 0, kElectrodeArea = 1, kNoteArea = 2, kTriggerArea = 14;

struct Unit {
    int code;
    const char* text;
    double volts;  // 0: not a voltage, numbers kept
};
const Unit kUnits[] = {{-1, "V", 1e-9}, {0, "V", 1e-6}, {1, "V", 1e-3}, {2, "V", 1}, {100, "%", 0}, {101, "bpm", 0}, {102, "", 0}};

std::string TwoDigits(int v) { return (v < 10 ? "0" : "") + std::to_string(v); }

std::string Date(int year, int month, int day)
{
    return std::to_string(year) + "-" + TwoDigits(month) + "-" + TwoDigits(day);
}

}  // namespace

MicroMed::MicroMed(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void MicroMed::Fail(const std::string& text) { FailClosing("MicroMed::Initialize", text); }

MicroMed::Area MicroMed::AreaAt(const std::vector<uint8_t>& head, size_t index, long long fileSize)
{
    const ByteCursor h(head.data(), head.size());
    const size_t at = kDescriptors + index * kDescriptor;
    const Area area{h.u32le(at + 8), h.u32le(at + 12)};
    if (area.offset + area.length > fileSize)
        Fail("The " + TrimBlanks(h.str(at, 8)) + " area (" + std::to_string(area.length) + " bytes at offset " +
             std::to_string(area.offset) + ") lies beyond the file's " + std::to_string(fileSize) + " bytes.");
    return area;
}

std::vector<uint8_t> MicroMed::ReadArea(const Area& area)
{
    std::vector<uint8_t> bytes(static_cast<size_t>(area.length));
    if (ReadAt(GetInputFilePointer(), area.offset, bytes.data(), bytes.size()) != bytes.size())
        bytes.clear();
    return bytes;
}

void MicroMed::Initialize(int)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Cannot open file: " + name);
    const long long fileSize = FileLength(fp);
    std::vector<uint8_t> head(kHeadBytes);
    const size_t got = ReadAt(fp, 0, head.data(), head.size());
    if (got < kTitle.size() || !std::equal(kTitle.begin(), kTitle.end(), head.begin()))
        Fail("Not a Micromed TRC file: " + name);
    SetFileMFR(kMfrMicromed);
    if (got < head.size())
        Fail("The header is cut short: the file holds " + std::to_string(got) + " of its " + std::to_string(kHeadBytes) + " bytes.");
    const ByteCursor h(head.data(), head.size());
    m_headerType = h.u8(175);
    if (m_headerType < 2 || m_headerType > 4)
        Fail("Header type " + std::to_string(m_headerType) + " is not one of System 98 (2 to 4).");
    const ElectrodeLayout& layout = m_headerType == 4 ? kType4Electrodes : kCompactElectrodes;
    ReadRecordingInfo(h);
    m_dataStart = h.u32le(138);
    const int channels = h.u16le(142), rateMin = h.u16le(146);
    m_bytes = h.u16le(148);
    if (channels == 0 || (m_bytes != 1 && m_bytes != 2 && m_bytes != 4))
        Fail("The header declares " + std::to_string(channels) + " channels of " + std::to_string(m_bytes) + " bytes.");
    if (m_dataStart < static_cast<long long>(kHeadBytes) || m_dataStart > fileSize)
        Fail("The data offset " + std::to_string(m_dataStart) + " lies outside the file's " + std::to_string(fileSize) + " bytes.");
    const Area order = AreaAt(head, kOrderArea, fileSize), labcod = AreaAt(head, kElectrodeArea, fileSize);
    if (order.length < static_cast<long long>(layout.codeBytes) * channels || labcod.length == 0)
        Fail("The header's ORDER and LABCOD areas do not describe " + std::to_string(channels) + " channels.");
    m_notes = AreaAt(head, kNoteArea, fileSize);
    m_triggers = m_headerType == 4 ? AreaAt(head, kTriggerArea, fileSize) : Area{};

    const std::vector<uint8_t> orderBytes = ReadArea(order), labcodBytes = ReadArea(labcod);
    if (orderBytes.empty() || labcodBytes.empty())
        Fail("Cannot read the ORDER and LABCOD areas.");
    SetNumChans(channels);
    const double rate = DescribeElectrodes(orderBytes, labcodBytes, rateMin, layout);
    const long long slices = (fileSize - m_dataStart) / (static_cast<long long>(channels) * m_bytes);
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");
    SetContinuousTimeBase(rate, slices);
    DescribeLayout(slices);
}

void MicroMed::ReadRecordingInfo(const ByteCursor& h)
{
    m_recordingInfo = {};
    ecRecordingInfo& info = m_recordingInfo;
    info.date = Date(1900 + h.u8(130), h.u8(129), h.u8(128));
    info.time = TwoDigits(h.u8(131)) + ":" + TwoDigits(h.u8(132)) + ":" + TwoDigits(h.u8(133));
    const std::string surname = TrimBlanks(h.str(64, 22)), name = TrimBlanks(h.str(86, 20));
    info.subjectName = name + (name.empty() || surname.empty() ? "" : " ") + surname;
    const int month = h.u8(106), day = h.u8(107);
    if (month >= 1 && month <= 12 && day >= 1 && day <= 31)
        info.subjectBirthDate = Date(1900 + h.u8(108), month, day);
}

double MicroMed::DescribeElectrodes(const std::vector<uint8_t>& order, const std::vector<uint8_t>& labcod, int rateMin,
                                    const ElectrodeLayout& l)
{
    const ByteCursor codes(order.data(), order.size()), table(labcod.data(), labcod.size());
    const auto logical = [&](size_t at) -> long long { return l.logicalBytes == 2 ? table.u16le(at) : table.i32le(at); };
    m_gains.clear();
    m_shifts.clear();
    double rate = 0;
    for (int c = 0; c < GetNumChans(); ++c) {
        const size_t code = static_cast<size_t>(c * l.codeBytes);
        const long long at = (l.codeBytes == 1 ? codes.u8(code) : codes.u16le(code)) * kElectrode;
        if (at + kElectrode > static_cast<long long>(labcod.size()))
            Fail("Channel " + std::to_string(c + 1) + "'s electrode lies beyond the LABCOD area.");
        const size_t e = static_cast<size_t>(at);
        const std::string label = TrimBlanks(table.str(e + 2, 6));
        const long long lmin = logical(e + l.lmin), lmax = logical(e + l.lmax), ground = logical(e + l.ground);
        const double span = static_cast<double>(table.i32le(e + l.pmax)) - table.i32le(e + l.pmin);
        const int unitCode = table.i16le(e + l.unit);
        const double electrodeRate = static_cast<double>(rateMin) * table.u16le(e + l.coefficient);
        const Unit* unit = std::find_if(std::begin(kUnits), std::end(kUnits), [&](const Unit& u) { return u.code == unitCode; });
        if (unit == std::end(kUnits))
            Fail("Electrode " + label + " has the unknown unit code " + std::to_string(unitCode) + ".");
        if (lmax - lmin + 1 <= 0)
            Fail("Electrode " + label + " has the logical range " + std::to_string(lmin) + " .. " + std::to_string(lmax) + ".");
        if (electrodeRate <= 0 || (rate > 0 && electrodeRate != rate))
            Fail("Electrode " + label + " is sampled at " + std::to_string(electrodeRate) + " Hz; the recording needs one rate for all.");
        rate = electrodeRate;
        const double gain = span / static_cast<double>(lmax - lmin + 1) * (unit->volts > 0 ? unit->volts : 1);
        m_gains.push_back(gain);
        m_shifts.push_back(-static_cast<double>(ground));
        // The high pass is stored in mHz, the low pass in Hz; 0 is none.
        m_recordingInfo.channelFilters.push_back(FilterText(table.u16le(e + l.highPass) / 1000.0, table.u16le(e + l.lowPass)));
        DescribeChannel(c, label, unit->volts > 0 ? kChanEEG : 0, unit->text, static_cast<float>(gain),
                        static_cast<float>(-ground * gain));
    }
    return rate;
}

void MicroMed::DescribeLayout(long long slices)
{
    const int channels = GetNumChans();
    const ecSampleType type = m_bytes == 1 ? ecSampleType::UInt8 : m_bytes == 2 ? ecSampleType::UInt16 : ecSampleType::Int32;
    ecDataLayout layout = ecDataLayout::Multiplexed(type, false, channels, channels, m_dataStart, slices);
    for (int c = 0; c < channels; ++c)
        layout.SetConversion(c, m_gains[static_cast<size_t>(c)], m_shifts[static_cast<size_t>(c)]);
    Engine().SetLayout(std::move(layout));
}

int MicroMed::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "MicroMed");
    if (ReadRows(data, first, n) != n)
        throw ecError("[MicroMed::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int MicroMed::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    const std::vector<uint8_t> triggers = ReadArea(m_triggers), notes = ReadArea(m_notes);
    if (triggers.size() != static_cast<size_t>(m_triggers.length) || notes.size() != static_cast<size_t>(m_notes.length))
        throw ecError("[MicroMed::InitialEventList] Cannot read the trigger and note areas.", 1, 0, -1, -1);
    int appended = 0;
    const ByteCursor t(triggers.data(), triggers.size()), n(notes.data(), notes.size());
    for (size_t at = 0; at + kTriggerEntry <= triggers.size(); at += kTriggerEntry) {
        const uint32_t slice = t.u32le(at);
        const int value = t.u16le(at + 4);
        if (slice < static_cast<uint32_t>(GetNumSlices()) && (slice != 0 || value != 0)) {
            events->AppendOneEvent(MarkerEvent(static_cast<long>(slice), std::to_string(value), value));
            ++appended;
        }
    }
    for (size_t at = 0; at + kNoteEntry <= notes.size(); at += kNoteEntry) {
        const uint32_t slice = n.u32le(at);
        const std::string text = TrimBlanks(n.str(at + 4, 40));
        if (slice < static_cast<uint32_t>(GetNumSlices()) && !text.empty()) {
            events->AppendOneEvent(MarkerEvent(static_cast<long>(slice), text, 0));
            ++appended;
        }
    }
    return appended;
}
