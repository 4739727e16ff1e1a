#include "filelib/readers/neuroscn.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <new>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"
#include "companion/Xml.h"

namespace {

constexpr int kSetupBytes = 900;
constexpr int kElectrodeBytes = 75;
constexpr int kSweepHeaderBytes = 13;
constexpr int kAvgPrefixBytes = 5;
constexpr int kEventRecordBytes = 19;
constexpr int kMaxEvents = 30000;
constexpr float kContinuousVoltsPerCount = 4.8828124e-09f;
constexpr double kEpochVoltsPerCount = 4.8828125e-09;

[[noreturn]] void Fail(const std::string& text) { throw ecError(text.c_str(), 1, 0, -1, -1); }

int RunTypeOfExtension(const std::string& ext)
{
    if (ext == "eeg" || ext == "Eeg" || ext == "EEG")
        return kRunMultiEpoch;
    if (ext == "cnt" || ext == "Cnt" || ext == "CNT")
        return kRunContinuous;
    return kRunSingleEpoch;
}


}  // namespace

CNeuroscan::CNeuroscan(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void CNeuroscan::HeaderError(const std::string& text)
{
    m_header.clear();
    m_header.shrink_to_fit();
    CloseInputFile();
    Fail(text);
}

void CNeuroscan::Initialize(int)
{
    const std::string name = GetInputFileName();
    if (name.empty())
        Fail("[CNeuroscan::Initialize] The time series name is not set.");
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("[CNeuroscan::Initialize] Fail to open time series file.");
    m_fileSize = FileLength(fp);
    if (m_fileSize < kSetupBytes)
        HeaderError("[CNeuroscan::Initialize] Not a NeuroScan file.");
    std::vector<uint8_t> setup(kSetupBytes);
    if (ReadAt(fp, 0, setup.data(), setup.size()) != setup.size())
        HeaderError("[CNeuroscan::Initialize] Fail to read NeuroScan header.");
    CheckHeader(setup);

    // The header size is 16-bit in the format: large channel counts wrap, and such a header
    // cannot hold its electrode blocks.
    m_iHeaderSize = static_cast<int16_t>((3 * m_iChannels + 36) * 25);
    const std::string wholeHeaderError = "[CNeuroscan::Initialize] Fail to read the whole header: " + name;
    if (m_iHeaderSize < kSetupBytes + kElectrodeBytes * m_iChannels)
        HeaderError(wholeHeaderError);
    m_header.assign(static_cast<size_t>(m_iHeaderSize), 0);
    if (ReadAt(fp, 0, m_header.data(), m_header.size()) != m_header.size())
        HeaderError(wholeHeaderError);
    ReadElectrodes();

    const int runType = RunTypeOfExtension(GetFileNameExtension(name));
    SetRunType(static_cast<unsigned>(runType));
    const char* noSlices = "[CNeuroscan::Initialize] Number of slices in the time series file is 0.";
    if (runType == kRunSingleEpoch) {
        if (m_iPoints == 0)
            Fail(noSlices);
        SetNumSlices(m_iPoints);
        SetNumEpochs(m_iSweeps);
    } else if (runType == kRunMultiEpoch) {
        Set_nBytes_MultiEpoch();
        const long long slices = static_cast<long long>(m_iPoints) * m_iSweeps;
        if (slices == 0)
            Fail(noSlices);
        if (slices > INT_MAX)
            HeaderError("[CNeuroscan::Initialize] Invalid header data: " + name);
        SetNumSlices(static_cast<int>(slices));
        SetNumEpochs(m_iSweeps);
    } else {
        Set_nBytes_Continuous();
        SetNumEpochs(1);
    }
    ByteCursor h(m_header.data(), m_header.size());
    SetEpochSlices(m_iPoints);
    SetPreStim(h.f32le(505));
    SetSampleRate(static_cast<float>(h.u16le(376)), 0);
    SetValidEpochCnt(m_iSweeps);
    SetFileMFR(kMfrNeuroscan);
    ReadRecordingInfo(h);
}

// Patient fields, and the session's date ("mm/dd/yy") and time ("hh:mm:ss") when they are
// written that way.
void CNeuroscan::ReadRecordingInfo(const ByteCursor& h)
{
    ecRecordingInfo& r = m_recordingInfo;
    r.subjectId = TrimBlanks(h.str(21, 20));
    r.subjectName = TrimBlanks(h.str(121, 20));
    const char sex = static_cast<char>(h.u8(143));
    r.subjectSex = sex == 'M' || sex == 'F' ? std::string(1, sex) : "";
    int month = 0, day = 0, year = 0, hour = 0, minute = 0, second = 0, used = 0;
    const std::string date = h.str(225, 10), time = h.str(235, 12);
    if (std::sscanf(date.c_str(), "%2d/%2d/%2d%n", &month, &day, &year, &used) == 3 && used == 8 && date.size() == 8)
        r.date = IsoDate(year, std::to_string(month), day);
    if (std::sscanf(time.c_str(), "%2d:%2d:%2d%n", &hour, &minute, &second, &used) == 3 && used == 8 && hour >= 0 && hour < 24 &&
        minute >= 0 && minute < 60 && second >= 0 && second < 61 && !r.date.empty())
        r.time = time.substr(0, 8);
}

void CNeuroscan::CheckHeader(std::vector<uint8_t>& setup)
{
    const std::string invalid = "[CNeuroscan::Initialize] Invalid header data: " + GetInputFileName();
    if (std::memcmp(setup.data(), "Version ", 8) != 0)
        HeaderError(invalid);
    ByteCursor h(setup.data(), setup.size());
    m_iChannels = h.u16le(370);
    const uint8_t domain = h.u8(374);
    if (m_iChannels < 1 || m_iChannels > 1024 || (domain != 0 && domain != 1 && domain != '0' && domain != '1') ||
        h.i8(20) < 0 || h.i8(538) < 0 || h.u16le(376) == 0 || h.i8(804) > 20)
        HeaderError(invalid);
    m_iSweeps = h.u16le(362);
    m_iPoints = h.u16le(368);
    m_bVariance = h.u8(375) != 0;
    m_dScale = h.f64le(378);
    m_iContinuousType = h.u8(885);
    m_eventTablePos = h.i32le(886);
    m_iChannelOffset = h.i32le(894);
}

void CNeuroscan::ReadElectrodes()
{
    ByteCursor h(m_header.data(), m_header.size());
    SetNumChans(m_iChannels);
    m_electrodes.assign(static_cast<size_t>(m_iChannels), Electrode());
    for (int i = 0; i < m_iChannels; ++i) {
        const size_t base = kSetupBytes + static_cast<size_t>(kElectrodeBytes) * i;
        // The label field is 10 bytes; a label without NUL runs into the next byte.
        std::string label = h.str(base, 11);
        Electrode& e = m_electrodes[static_cast<size_t>(i)];
        e.n = h.u16le(base + 15);
        e.baseline = h.i16le(base + 47);
        e.sensitivity = h.f32le(base + 59);
        e.calibration = h.f32le(base + 71);
        SetChanName(i, label);
        int type = kChanEEG;
        if (IsEqual(label, "REF", false)) {
            type |= kChanReference;
            SetReferenceType(2);
            SetReferenceChannel(i);
        } else if (IsEqual(label, "AVG", false)) {
            type |= kChanReference;
            SetReferenceType(8);
            SetReferenceChannel(i);
        } else if (IsEqual(label, "GFP", false)) {
            type |= kChanOff;
        }
        SetChanType(i, type);
        std::string volts = "V";
        SetChanUnit(i, volts);
    }
    SetContinuousFactors();
}

void CNeuroscan::Set_nBytes_MultiEpoch()
{
    m_nBytes = 2;
    const long long sweepData = static_cast<long long>(m_iChannels) * m_iPoints * m_nBytes;
    // Room for one sweep more than the header claims: kept as the format's readers always did.
    if (m_fileSize >= m_iHeaderSize + kSweepHeaderBytes + sweepData + m_iSweeps * (sweepData + kSweepHeaderBytes))
        m_nBytes = 4;
}

void CNeuroscan::Set_nBytes_Continuous()
{
    if (m_iContinuousType != 1 && m_iContinuousType != 3)
        Fail("[CNeuroscan::Set_nBytes_Continuous] Unsupported type of continuous data");
    if (m_iChannels == 0)
        Fail("[CNeuroscan::Set_nBytes_Continuous] No channels detected in data.");
    const long long bytesPerChannel = (m_eventTablePos - m_iHeaderSize) / m_iChannels;
    const int s16 = static_cast<int>(std::clamp<long long>(bytesPerChannel / 2, 0, INT_MAX));
    const int s32 = static_cast<int>(std::clamp<long long>(bytesPerChannel / 4, 0, INT_MAX));
    auto choose = [&](int width) {
        m_nBytes = static_cast<int16_t>(width);
        SetNumSlices(width == 2 ? s16 : s32);
    };
    if (bytesPerChannel % 4 != 0 || m_iContinuousType == 3)
        return choose(2);
    if (ReadAuxiliaryInformation())
        return choose(m_nBytes);
    const long long headerSamples = ByteCursor(m_header.data(), m_header.size()).u32le(864);
    if (headerSamples == s16)
        return choose(2);
    if (headerSamples == s32)
        return choose(4);

    ReadEventTable();
    for (int i = 0; i < m_iEventCount; ++i) {
        const long long position = static_cast<int32_t>(LoadU32LE(&m_eventTable[i * kEventRecordBytes + 4]));
        if (((position - m_iHeaderSize) / m_iChannels) % 4 != 0)
            return choose(2);
    }
    const int provisional = m_iEventCount == 0 ? 2 : 4;
    choose(provisional);
    WriteAuxiliaryInformation();
    if (m_iEventCount > 4 || s32 < 50)
        return;
    choose(RoughnessChoice(provisional, s16, s32));
    WriteAuxiliaryInformation();
}

// Reads the first slices as 16-bit and as 32-bit data; the smoother reading wins.
int CNeuroscan::RoughnessChoice(int provisional, int s16, int s32)
{
    const int n = std::min(s32, 5000);
    m_nBytes = 2;
    SetNumSlices(s16);
    const double r16 = Roughness(n, 2);
    m_nBytes = 4;
    SetNumSlices(s32);
    const double r32 = Roughness(n, 4);
    if (r16 < 0 || r32 < 0 || r16 == r32)
        return provisional;
    return r16 < r32 ? 2 : 4;
}

double CNeuroscan::Roughness(int slices, int width)
{
    ecLabeledMatrix<float> data;
    const int read = width == 2 ? ReadCNTData(data, 0, slices) : ReadCNTData2(data, 0, slices);
    if (read < slices)
        return -1;
    float sum = 0;
    for (int c = 0; c < m_iChannels; ++c) {
        const float* row = data[c];
        for (int t = 1; t < slices; ++t)
            sum += (row[t] - row[t - 1]) * (row[t] - row[t - 1]);
    }
    return std::sqrt(sum / (static_cast<double>(m_iChannels) * (slices - 1)));
}

bool CNeuroscan::ReadAuxiliaryInformation()
{
    ecXml xml;
    if (!xml.Read(GetInputFileName() + ".aux"))
        return false;
    const int bits = xml.Sub("ORVA_Auxiliary_Information").GetInt("AcqBits");
    if (bits != 16 && bits != 32)
        return false;
    m_nBytes = bits == 16 ? 2 : 4;
    return true;
}

void CNeuroscan::WriteAuxiliaryInformation()
{
    // A data folder the user cannot write to simply keeps no record of the decision.
    std::ofstream out(GetInputFileName() + ".aux", std::ios::trunc);
    out << "<ORVA_Auxiliary_Information>\n"
        << (m_nBytes == 4 ? "<AcqBits>32</AcqBits>\n" : "<AcqBits>16</AcqBits>\n")
        << "<Comment>Set AcqBits to 16 or 32 to resolve data file ambiguity</Comment>\n"
        << "</ORVA_Auxiliary_Information>\n";
}

void CNeuroscan::ReadEventTable()
{
    if (m_bEventTableLoaded || GetRunType() != kRunContinuous || (m_iContinuousType != 1 && m_iContinuousType != 3))
        return;
    m_iEventCount = 0;
    m_eventTable.clear();
    FILE* fp = GetInputFilePointer();
    if (!SeekTo(fp, m_eventTablePos))
        Fail("[CNeuroscan::ReadEventTable]: Damaged event table.");
    uint8_t teeg[9];
    if (std::fread(teeg, 1, sizeof teeg, fp) != sizeof teeg)
        Fail("[CNeuroscan::ReadEventTable]: Unable to read TEEG structure.");
    const uint8_t type = teeg[0];
    const int32_t size = static_cast<int32_t>(LoadU32LE(teeg + 1));
    if (type == 0) {
        m_bEventTableLoaded = true;
        return;
    }
    if (type > 3)
        Fail("[CNeuroscan::ReadEventTable]: Unrecognized type of event table.");
    const int recordBytes = type == 1 ? 8 : kEventRecordBytes;
    const int count = std::min(size / recordBytes, kMaxEvents);
    m_eventTableType = type;
    m_bEventTableLoaded = true;
    if (count < 1)
        return;
    try {
        m_eventTable.assign(static_cast<size_t>(count) * kEventRecordBytes, 0);
    } catch (const std::bad_alloc&) {
        Fail("[CNeuroscan::ReadEventTable]: Allocation of event table failed");
    }
    if (type == 1) {
        for (int i = 0; i < count; ++i)
            if (std::fread(&m_eventTable[static_cast<size_t>(i) * kEventRecordBytes], 1, 8, fp) != 8)
                Fail("[CNeuroscan::ReadEventTable]: Unable to read event type 1 table");
    } else if (std::fread(m_eventTable.data(), 1, m_eventTable.size(), fp) != m_eventTable.size()) {
        Fail("[CNeuroscan::ReadEventTable]: Unable to read event type 2 table.");
    }
    m_iEventCount = count;
}

int CNeuroscan::SliceOfEvent(const uint8_t* record) const
{
    const long long position = static_cast<int32_t>(LoadU32LE(record + 4));
    if (m_eventTableType == 3)
        return static_cast<int>(position);
    return static_cast<int>((position - m_iHeaderSize) / (static_cast<long long>(m_iChannels) * m_nBytes));
}

int CNeuroscan::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    int appended = 0;
    if (GetRunType() == kRunMultiEpoch) {
        const long long sweepBytes = kSweepHeaderBytes + static_cast<long long>(m_iChannels) * m_iPoints * m_nBytes;
        for (int sweep = 0; sweep < m_iSweeps; ++sweep) {
            uint8_t header[kSweepHeaderBytes];
            // A truncated file ends the list at its last complete sweep header.
            if (ReadAt(GetInputFilePointer(), m_iHeaderSize + sweep * sweepBytes, header, sizeof header) != sizeof header)
                break;
            // Fields in order: accept (1), type (2), correct (2), response time (4), response (2), reserved (2).
            const uint16_t type = LoadU16LE(header + 1);
            ecEvent e;
            e.SetBegin(static_cast<long>(sweep) * m_iPoints);
            e.SetSegmentBoundaryDefaults();
            e.SetEventName(std::to_string(type));
            e.SetEventCode(type);
            events->AppendOneEvent(e);
            ++appended;
        }
        return appended;
    }
    if (GetRunType() != kRunContinuous)
        return 0;
    if (m_iContinuousType != 1 && m_iContinuousType != 3)
        Fail("[CNeuroscan::InitialEventList]: Unsupported Neuroscan continuous file.");
    if (m_nBytes == 0)
        Fail("[CNeuroscan::InitialEventList] Number of data bytes has not been set");
    ReadEventTable();
    for (int i = 0; i < m_iEventCount; ++i) {
        const uint8_t* record = &m_eventTable[static_cast<size_t>(i) * kEventRecordBytes];
        const uint16_t stimulus = LoadU16LE(record);
        const int accept = record[3] >> 4;
        const int key = record[3] & 0x0F;
        const long slice = SliceOfEvent(record);
        ecEvent e;
        e.SetBegin(slice);
        e.SetEnd(slice);
        if (accept == 0 && stimulus != 0) {
            e.SetEventName(std::to_string(stimulus));
            e.SetEventCode(stimulus);
            e.SetKind(2);
            e.SetCodeMask(65535);
        } else if (accept == 0 && key != 0) {
            e.SetEventName("R" + std::to_string(key));
            e.SetEventCode(key);
            e.SetKind(3);
            e.SetCodeMask(255);
        } else if (accept == 0xC) {
            // An exclusion starts here. Its end record (0xD) is looked up, but the end is taken
            // from the starting record again, so the exclusion is always of zero length.
            e.SetEventName("Exclude");
            e.SetKind((e.GetKind() & ~2) | 1);
            e.SetCodeMask(255);
            for (int j = i + 1; j < m_iEventCount; ++j) {
                if ((m_eventTable[static_cast<size_t>(j) * kEventRecordBytes + 3] >> 4) == 0xD) {
                    e.SetEnd(SliceOfEvent(record));
                    break;
                }
            }
        } else {
            continue;
        }
        events->AppendOneEvent(e);
        ++appended;
    }
    m_eventTable.clear();
    m_iEventCount = 0;
    m_bEventTableLoaded = false;
    return appended;
}

int CNeuroscan::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    int read = 0;
    if (GetRunType() == kRunSingleEpoch)
        read = ReadAVGData(data, first, count);
    else if (GetRunType() == kRunContinuous && m_nBytes == 4)
        read = ReadCNTData2(data, first, count);
    else
        read = ReadCNTData(data, first, count);
    LabelRows(data);
    return read;
}

int CNeuroscan::SizeBlock(ecLabeledMatrix<float>& data, int first, int count, const std::string& who)
{
    if (first < 0 || count < 0)
        Fail(who + "Slices out of range error.");
    try {
        data.resize(m_iChannels, count, 0, 0);
    } catch (const std::bad_alloc&) {
        Fail(who + "Out of memory.");
    }
    return static_cast<int>(std::clamp<long long>(static_cast<long long>(GetNumSlices()) - first, 0, count));
}

void CNeuroscan::SetContinuousFactors()
{
    m_factors.resize(m_electrodes.size());
    m_baselines.resize(m_electrodes.size());
    for (size_t c = 0; c < m_electrodes.size(); ++c) {
        const Electrode& e = m_electrodes[c];
        m_factors[c] = e.sensitivity * e.calibration * kContinuousVoltsPerCount;
        // The baseline is scaled by 1e-6 before it is subtracted: it almost vanishes, as it
        // always has in this format's readers.
        m_baselines[c] = static_cast<float>(e.baseline) * 0.000001f;
    }
}

int CNeuroscan::ReadCNTData(ecLabeledMatrix<float>& data, int first, int count)
{
    const char* who = "[CNeuroscan::ReadCNTData]: ";
    const int inside = SizeBlock(data, first, count, who);
    if (GetRunType() == kRunMultiEpoch)
        return ReadEpochRange(data, first, count);
    if (m_iContinuousType == 3)
        return ReadBlocked(data, first, inside);
    return ReadMultiplexed(data, first, inside, 2, who);
}

int CNeuroscan::ReadCNTData2(ecLabeledMatrix<float>& data, int first, int count)
{
    const char* who = "[CNeuroscan::ReadCNTData2]: ";
    return ReadMultiplexed(data, first, SizeBlock(data, first, count, who), 4, who);
}

// Continuous data through the engine: slice after slice, or (blocked files) in blocks of
// m_iChannelOffset / 2 slices holding each channel's run after the other's.
void CNeuroscan::DescribeContinuous(int width)
{
    ecDataLayout layout = ecDataLayout::Multiplexed(width == 2 ? ecSampleType::Int16 : ecSampleType::Int32, false,
                                                    m_iChannels, m_iChannels, m_iHeaderSize, GetNumSlices());
    layout.exact = false;
    if (m_iContinuousType == 3) {
        const long long blockSlices = m_iChannelOffset / 2;
        layout.segmentSlices = blockSlices;
        layout.segmentStride = blockSlices * m_iChannels * 2;
        for (int c = 0; c < m_iChannels; ++c) {
            layout.channels[static_cast<size_t>(c)].offset = c * blockSlices * 2;
            layout.channels[static_cast<size_t>(c)].stride = 2;
        }
    }
    for (int c = 0; c < m_iChannels; ++c)
        layout.SetConversion(c, m_factors[static_cast<size_t>(c)], m_baselines[static_cast<size_t>(c)]);
    Engine().SetLayout(std::move(layout));
}

// The slices a truncated file still holds whole (in a block, those whose last channel's
// sample is there, as that channel's run comes last).
long long CNeuroscan::HeldSlices(int width) const
{
    const long long bytes = std::max(0LL, m_fileSize - m_iHeaderSize);
    if (m_iContinuousType != 3)
        return bytes / std::max(1LL, static_cast<long long>(m_iChannels) * width);
    const long long blockSlices = m_iChannelOffset / 2, blockBytes = blockSlices * m_iChannels * 2;
    const long long lastRunStart = static_cast<long long>(m_iChannels - 1) * blockSlices * 2;
    return bytes / blockBytes * blockSlices + std::clamp((bytes % blockBytes - lastRunStart) / 2, 0LL, blockSlices);
}

int CNeuroscan::ReadMultiplexed(ecLabeledMatrix<float>& data, int first, int count, int width, const char* who)
{
    const long long held = std::clamp<long long>(HeldSlices(width) - first, 0, count);
    DescribeContinuous(width);
    const long long slices = ReadRows(data, first, held);
    if (slices < held)
        Fail(std::string(who) + "Error in reading CNT data.");
    for (int c = 0; c < m_iChannels; ++c)
        std::fill(data[c] + slices, data[c] + data.ncol(), 0.0f);  // what the file or the recording does not hold
    return static_cast<int>(slices);
}

int CNeuroscan::ReadBlocked(ecLabeledMatrix<float>& data, int first, int count)
{
    if (count <= 0) {
        data.zero();
        return 0;
    }
    const long long blockSlices = m_iChannelOffset / 2;
    if (blockSlices <= 0 || m_iChannels <= 0 || blockSlices * m_iChannels * 2 > m_fileSize)
        Fail("[CNeuroscan::ReadCNTData]: Offset out of range error.");
    return ReadMultiplexed(data, first, count, 2, "[CNeuroscan::ReadCNTData]: ");
}

// Epochs through the engine: sweeps of m_iPoints slices, each behind its 13-byte header.
// Epoched data use neither the baseline nor the sensitivity.
void CNeuroscan::DescribeEpochs()
{
    const long long sweepData = static_cast<long long>(m_iChannels) * m_iPoints * m_nBytes;
    ecDataLayout layout = ecDataLayout::Multiplexed(m_nBytes == 2 ? ecSampleType::Int16 : ecSampleType::Int32, false,
                                                    m_iChannels, m_iChannels, m_iHeaderSize,
                                                    static_cast<long long>(m_iSweeps) * m_iPoints);
    layout.exact = false;
    layout.segmentSlices = m_iPoints;
    layout.segmentHeader = kSweepHeaderBytes;
    layout.segmentStride = kSweepHeaderBytes + sweepData;
    for (int c = 0; c < m_iChannels; ++c)
        layout.SetConversion(
            c, static_cast<float>(m_dScale * m_electrodes[static_cast<size_t>(c)].calibration * kEpochVoltsPerCount), 0);
    Engine().SetLayout(std::move(layout));
}

// The checks of reading one epoch, in their order.
void CNeuroscan::CheckEpoch(int epoch)
{
    if (GetRunType() != kRunMultiEpoch)
        Fail("[CNeuroscan::ReadEEGData]: Wrong file type.");
    if (epoch < 0 || epoch >= m_iSweeps)
        Fail("[CNeuroscan::ReadEEGData]: Epoch number is out of range.");
    const long long sweepData = static_cast<long long>(m_iChannels) * m_iPoints * m_nBytes;
    if (m_iHeaderSize + (epoch + 1LL) * (kSweepHeaderBytes + sweepData) > m_fileSize)
        Fail("[CNeuroscan::ReadEEGData]: Error in reading epoch data.");
}

int CNeuroscan::ReadEpochRange(ecLabeledMatrix<float>& data, int first, int count)
{
    // Every epoch the range touches must be there: a range past the last epoch is refused, not padded.
    if (m_iPoints <= 0) {  // a header that failed its checks holds no epoch
        data.zero();
        return 0;
    }
    for (long long slice = first; slice < static_cast<long long>(first) + count; slice += m_iPoints - slice % m_iPoints)
        CheckEpoch(static_cast<int>(std::min<long long>(slice / m_iPoints, INT_MAX)));
    DescribeEpochs();
    if (ReadRows(data, first, count) != count)
        Fail("[CNeuroscan::ReadEEGData]: Error in reading epoch data.");
    return count;
}

void CNeuroscan::ReadEEGData(ecLabeledMatrix<float>& data, int epoch)
{
    CheckEpoch(epoch);
    data.resize(m_iChannels, m_iPoints, 0, 0);
    DescribeEpochs();
    if (ReadRows(data, static_cast<long long>(epoch) * m_iPoints, m_iPoints) != m_iPoints)
        Fail("[CNeuroscan::ReadEEGData]: Error in reading epoch data.");
    LabelRows(data);
}

// Averages store one record per channel (a 5-byte prefix, then the points as float32 microvolts
// summed over n sweeps): every channel its own run, divided by its n.
void CNeuroscan::ReadAvgRecords(ecLabeledMatrix<float>& data, long long firstRecord, int first, int count,
                                const char* failure)
{
    const long long recordBytes = kAvgPrefixBytes + 4LL * m_iPoints;
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Float32, false, 1, m_iChannels, m_iHeaderSize, m_iPoints);
    layout.exact = false;
    for (int c = 0; c < m_iChannels; ++c) {
        ecChannelLayout& ch = layout.channels[static_cast<size_t>(c)];
        ch.offset = (firstRecord + c) * recordBytes + kAvgPrefixBytes;
        ch.stride = 4;
        ch.gain = 0.000001f;
        ch.divisor = m_electrodes[static_cast<size_t>(c)].n;
    }
    Engine().SetLayout(std::move(layout));
    if (ReadRows(data, first, count) != count)
        Fail(failure);
}

int CNeuroscan::ReadAVGData(ecLabeledMatrix<float>& data, int first, int count)
{
    if (first < 0 || count < 0 || static_cast<long long>(first) + count > m_iPoints)
        Fail("[CNeuroscan::ReadAVGData]: Slices out of range error.");
    data.resize(m_iChannels, count, 0, 0);
    ReadAvgRecords(data, 0, first, count, "[CNeuroscan::ReadAVGData]: Error in reading avg data.");
    return count;
}

void CNeuroscan::ReadAVGData(ecLabeledMatrix<float>& average, ecLabeledMatrix<float>& variance)
{
    if (GetRunType() != kRunSingleEpoch || m_iPoints <= 0)
        Fail("ORVA Error: Wrong AVG file.");
    const long long recordBytes = kAvgPrefixBytes + 4LL * m_iPoints;
    const long long records = static_cast<long long>(m_iChannels) * (m_bVariance ? 2 : 1);
    if (m_iHeaderSize + records * recordBytes > m_fileSize)
        Fail(" ORVA Error: Out of range error.");
    average.resize(m_iChannels, m_iPoints, 0, 0);
    ReadAvgRecords(average, 0, 0, m_iPoints, "ORVA Error: Error in reading avg data.");
    LabelRows(average);
    variance.resize(m_bVariance ? m_iChannels : 0, m_bVariance ? m_iPoints : 0, 0, 0);
    if (!m_bVariance)
        return;
    ReadAvgRecords(variance, m_iChannels, 0, m_iPoints, "ORVA Error: Error in reading variance data.");
    LabelRows(variance);
}
