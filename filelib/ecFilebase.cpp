#include "filelib/ecFilebase.h"

#include <algorithm>
#include <climits>
#include <sstream>

#include "companion/Utility.h"

ecSharedFile::ecSharedFile(const ecSharedFile& other) : m_block(other.m_block)
{
    if (m_block)
        ++m_block->refs;
}

ecSharedFile& ecSharedFile::operator=(const ecSharedFile& other)
{
    if (m_block != other.m_block) {
        Release(true);
        m_block = other.m_block;
        if (m_block)
            ++m_block->refs;
    }
    return *this;
}

void ecSharedFile::Adopt(FILE* fp)
{
    if (fp == get())
        return;
    Release(false);
    if (fp)
        m_block = new Block{fp, 1};
}

void ecSharedFile::Release(bool closeIfLast)
{
    if (!m_block)
        return;
    if (--m_block->refs == 0) {
        if (closeIfLast && m_block->fp)
            std::fclose(m_block->fp);
        delete m_block;
    }
    m_block = nullptr;
}

ecFilebase::ecFilebase(const ecFilebase& other) : ecBase(other) { CopyFields(other); }

ecFilebase& ecFilebase::operator=(const ecFilebase& other)
{
    if (this != &other) {
        ecBase::operator=(other);
        CopyFields(other);
    }
    return *this;
}

ecFilebase::~ecFilebase()
{
    m_inputFile.Close();
    m_outputFile.Close();
}

void ecFilebase::CopyFields(const ecFilebase& o)
{
    m_iFileMFR0 = o.m_iFileMFR0;
    m_inputFile = o.m_inputFile;
    m_outputFile = o.m_outputFile;
    m_sInputFileName = o.m_sInputFileName;
    m_sOutputFileName = o.m_sOutputFileName;
    m_sSID = o.m_sSID;
    m_sCID = o.m_sCID;
    m_iNumChans = o.m_iNumChans;
    m_vsChanNames = o.m_vsChanNames;
    m_viChanTypes = o.m_viChanTypes;
    m_vfChanScales = o.m_vfChanScales;
    m_vfChanOffsets = o.m_vfChanOffsets;
    m_vsChanUnits = o.m_vsChanUnits;
    m_vbUseChanUnit = o.m_vbUseChanUnit;
    m_vbUseChanUnitPrefix = o.m_vbUseChanUnitPrefix;
    m_iNumSlices = o.m_iNumSlices;
    m_fSamplePeriod = o.m_fSamplePeriod;
    m_fPreStim = o.m_fPreStim;
    m_iEpochSlices = o.m_iEpochSlices;
    m_iNumEpochs = o.m_iNumEpochs;
    m_iValidEpochCnt = o.m_iValidEpochCnt;
    m_uiRunType = o.m_uiRunType;
    m_uiFileMFR = o.m_uiFileMFR;
    m_uiReferenceType = o.m_uiReferenceType;
    m_iReferenceChannel = o.m_iReferenceChannel;
    m_iDomain = o.m_iDomain;
    m_engine = o.m_engine;
    m_calFactors = o.m_calFactors;
    m_calOffsets = o.m_calOffsets;
    m_uiOffsetToData = o.m_uiOffsetToData;
    m_bEpochReviewMode = o.m_bEpochReviewMode;
    m_calibration = o.m_calibration;
    m_recordingInfo = o.m_recordingInfo;
}

ecFilebase* ecFilebase::GetpNewFilebase(const char*)
{
    throw ecError("[ecFilebase::GetpNewFilebase] (must be implemented in the derived class) Contact KVI", 2, 0, -1,
                  -1);
}

bool ecFilebase::ChannelIndexValid(int chan, size_t tableSize) const
{
    return chan >= 0 && chan < m_iNumChans && tableSize > 0 && static_cast<size_t>(chan) < tableSize;
}

template <typename T>
const T& ecFilebase::CheckedEntry(const std::vector<T>& table, int chan, const char* prefix,
                                  const char* missingTail) const
{
    if (ChannelIndexValid(chan, table.size()))
        return table[static_cast<size_t>(chan)];
    std::ostringstream msg;
    msg << prefix << chan;
    if (chan >= 0 && chan < m_iNumChans)
        msg << missingTail;
    else
        msg << ") out of range (" << m_iNumChans << ")";
    throw ecError(msg.str().c_str(), 1, 0, -1, -1);
}

namespace {
[[noreturn]] void InvalidArguments(const char* method)
{
    throw ecError((std::string("[ecFilebase::") + method + "]: Invalid arguments.").c_str(), 1, 0, -1, -1);
}
}  // namespace

void ecFilebase::GetChanName(int chan, std::string& out)
{
    out = CheckedEntry(m_vsChanNames, chan, "[ecFilebase::GetChanName] Channel index (", ") misssing name");
}

int ecFilebase::GetChanType(int chan)
{
    return CheckedEntry(m_viChanTypes, chan, "[ecFilebase::GetChanType] Channel index (", ") misssing type");
}

void ecFilebase::GetChanUnit(int chan, std::string& out)
{
    out = CheckedEntry(m_vsChanUnits, chan, "[ecFilebase::GetChanUnit] Channel index (", ") misssing unit");
}

bool ecFilebase::UseChanUnit(int chan)
{
    return CheckedEntry(m_vbUseChanUnit, chan, "[ecFilebase::UseChanUnit] Channel index (", ") misssing unit") != 0;
}

bool ecFilebase::UseChanUnitPrefix(int chan)
{
    return CheckedEntry(m_vbUseChanUnitPrefix, chan, "[ecFilebase::UseChanUnitPrefix] Channel index (",
                        ") misssing unit") != 0;
}

bool ecFilebase::GetChanGrid(int chan, double& gain, double& offset) const
{
    const ecDataLayout& layout = m_engine.Layout();
    if (!layout.exact || chan < 0 || static_cast<size_t>(chan) >= layout.channels.size() ||
        layout.type == ecSampleType::Float32 || layout.type == ecSampleType::Float64)
        return false;
    const ecChannelLayout& c = layout.channels[static_cast<size_t>(chan)];
    if (c.divisor != 0)
        return false;
    gain = c.gain;
    offset = c.shift * c.gain;  // exact channels deliver (raw + shift) x gain
    return true;
}

float ecFilebase::GetChanScale(int chan)
{
    if (!ChannelIndexValid(chan, m_vfChanScales.size()))
        InvalidArguments("GetChanScale");
    return m_vfChanScales[static_cast<size_t>(chan)];
}

float ecFilebase::GetChanOffset(int chan)
{
    if (!ChannelIndexValid(chan, m_vfChanOffsets.size()))
        InvalidArguments("GetChanOffset");
    return m_vfChanOffsets[static_cast<size_t>(chan)];
}

namespace {
template <typename T, typename V>
void CheckedStore(std::vector<T>& table, bool valid, int chan, V value, const char* method)
{
    if (!valid)
        InvalidArguments(method);
    table[static_cast<size_t>(chan)] = value;
}
}  // namespace

void ecFilebase::SetChanName(int chan, std::string& name)
{
    CheckedStore(m_vsChanNames, ChannelIndexValid(chan, m_vsChanNames.size()), chan, name, "SetChanName");
}

void ecFilebase::SetChanType(int chan, int type)
{
    // The type setter reports with the name setter's text.
    CheckedStore(m_viChanTypes, ChannelIndexValid(chan, m_viChanTypes.size()), chan, type, "SetChanName");
}

void ecFilebase::SetChanScale(int chan, float scale)
{
    CheckedStore(m_vfChanScales, ChannelIndexValid(chan, m_vfChanScales.size()), chan, scale, "SetChanScale");
}

void ecFilebase::SetChanOffset(int chan, float offset)
{
    CheckedStore(m_vfChanOffsets, ChannelIndexValid(chan, m_vfChanOffsets.size()), chan, offset, "SetChanOffset");
}

void ecFilebase::SetChanUnit(int chan, std::string& unit)
{
    CheckedStore(m_vsChanUnits, ChannelIndexValid(chan, m_vsChanUnits.size()), chan, unit, "SetChanUnit");
}

void ecFilebase::SetUseChanUnit(int chan, bool use)
{
    CheckedStore(m_vbUseChanUnit, ChannelIndexValid(chan, m_vbUseChanUnit.size()), chan,
                 static_cast<unsigned char>(use), "SetUseChanUnit");
}

void ecFilebase::SetUseChanUnitPrefix(int chan, bool use)
{
    CheckedStore(m_vbUseChanUnitPrefix, ChannelIndexValid(chan, m_vbUseChanUnitPrefix.size()), chan,
                 static_cast<unsigned char>(use), "SetUseChanUnitPrefix");
}

float ecFilebase::GetSampleRate()
{
    if (m_fSamplePeriod > 0)
        return static_cast<float>(1.0 / m_fSamplePeriod);
    throw ecError("[ecFilebase::GetSampleRate]: Sampling rate was not set.", 1, 0, -1, -1);
}

void ecFilebase::SetSampleRate(float value, unsigned int isPeriod)
{
    if (!(value > 0))
        InvalidArguments("SetSampleRate");
    m_fSamplePeriod = isPeriod == 0 ? static_cast<float>(1.0 / value) : value;
}

void ecFilebase::SetNumChans(int n)
{
    if (n <= 0)
        return;
    m_iNumChans = n;
    const size_t count = static_cast<size_t>(n);
    m_vsChanNames.resize(count);
    for (size_t i = 0; i < count; ++i)
        m_vsChanNames[i] = std::to_string(i + 1);
    m_viChanTypes.assign(count, kChanEEG);
    m_vfChanScales.assign(count, 1.0f);
    m_vfChanOffsets.assign(count, 0.0f);
    m_vsChanUnits.assign(count, std::string());
    m_vbUseChanUnit.assign(count, 0);
    m_vbUseChanUnitPrefix.assign(count, 0);
}

FILE* ecFilebase::OpenInputFile(const std::string& path)
{
    FILE* fp = std::fopen(path.c_str(), "rb");
    if (fp) {
        CloseInputFile();
        SetInputFilePointer(fp);
    }
    return fp;
}

long long ecFilebase::PrepareBlock(ecLabeledMatrix<float>& data, int first, int count, const char* reader)
{
    if (first < 0 || count < 0)
        throw ecError("[" + std::string(reader) + "::ReadData] Slices out of range.", 1, 0, -1, -1);
    const long long n = std::clamp<long long>(static_cast<long long>(GetNumSlices()) - first, 0, count);
    data.resize(GetNumChans(), static_cast<long>(n), 0, 0);
    LabelRows(data);
    return n;
}

void ecFilebase::FailClosing(const std::string& where, const std::string& text)
{
    CloseInputFile();
    throw ecError("[" + where + "] " + text, 1, 0, -1, -1);
}

FILE* ecFilebase::OpenForReading(const std::string& where, long long& length, const std::string& signature,
                                 const std::string& format)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        FailClosing(where, "Cannot open file: " + name);
    length = FileLength(fp);
    std::string head(signature.size(), '\0');
    if (length < static_cast<long long>(head.size()) || ReadAt(fp, 0, head.data(), head.size()) != head.size() ||
        head != signature)
        FailClosing(where, "Not a " + format + " file: " + name);
    return fp;
}

void ecFilebase::SetContinuousTimeBase(double rate, long long slices)
{
    SetSampleRate(static_cast<float>(rate), 0);
    SetNumSlices(static_cast<int>(std::min<long long>(slices, INT_MAX)));
    SetRunType(kRunContinuous);
    SetNumEpochs(1);
    SetEpochSlices(GetNumSlices());
    SetValidEpochCnt(1);
}

void ecFilebase::SetEpochTimeBase(double rate, long long epochSlices, long long epochs, double preStim, bool averaged)
{
    SetSampleRate(static_cast<float>(rate), 0);
    SetNumSlices(static_cast<int>(std::min<long long>(epochSlices * epochs, INT_MAX)));
    SetRunType(averaged && epochs == 1 ? kRunSingleEpoch : kRunMultiEpoch);
    SetNumEpochs(static_cast<int>(epochs));
    SetEpochSlices(static_cast<int>(epochSlices));
    SetValidEpochCnt(static_cast<int>(epochs));
    SetPreStim(static_cast<float>(preStim));
}

void ecFilebase::DescribeChannel(int chan, const std::string& name, int type, const std::string& unit, float scale,
                                 float offset)
{
    std::string n = name, u = unit;
    SetChanName(chan, n);
    SetChanType(chan, type);
    SetChanUnit(chan, u);
    SetChanScale(chan, scale);
    SetChanOffset(chan, offset);
}

long long ecFilebase::ReadRows(ecLabeledMatrix<float>& data, long long first, long long n, long column)
{
    if (n <= 0)
        return 0;
    const size_t channels = m_engine.Layout().channels.size();
    std::vector<float*> rows(channels, nullptr);
    for (size_t r = 0; r < channels && r < static_cast<size_t>(data.nrow()); ++r)
        rows[r] = data[static_cast<long>(r)] + column;
    ecReadOptions options = CalibrationOptions(0, channels);
    if (m_engine.Layout().decodedSegments)
        options.decodeSegment = [this](long long segment) { return DecodeSegment(segment); };
    return m_engine.Read(GetInputFilePointer(), rows.data(), first, n, options);
}

long long ecFilebase::ReadChannelRow(ecSampleEngine& engine, int chan, float* row, long long first, long long n)
{
    return engine.Read(GetInputFilePointer(), &row, first, n, CalibrationOptions(static_cast<size_t>(chan), 1));
}

ecReadOptions ecFilebase::CalibrationOptions(size_t firstChannel, size_t channels)
{
    ecReadOptions options;
    if (!m_calibrating || m_calFactors.size() < firstChannel + channels)
        return options;
    m_calibrated = true;
    options.calFactors = m_calFactors.data() + firstChannel;
    options.calOffsets = m_calOffsets.data() + firstChannel;
    return options;
}

void ecFilebase::ResolveCalibration()
{
    std::vector<std::string> labels(static_cast<size_t>(GetNumChans()));
    for (size_t c = 0; c < labels.size(); ++c)
        GetChanName(static_cast<int>(c), labels[c]);
    if (m_calibration.Transfer(labels, m_calFactors, m_calOffsets) == 0) {
        m_calFactors.clear();
        m_calOffsets.clear();
    }
}

int ecFilebase::ReadCalibrated(ecLabeledMatrix<float>& data, int first, int count)
{
    m_calibrating = !m_calFactors.empty();
    m_calibrated = false;
    int read = 0;
    try {
        read = ReadData(data, first, count);
    } catch (...) {
        m_calibrating = false;
        throw;
    }
    m_calibrating = false;
    if (read <= 0 || m_calFactors.empty() || m_calibrated)
        return read;
    const long rows = std::min<long>(data.nrow(), static_cast<long>(m_calFactors.size()));
    for (long r = 0; r < rows; ++r) {
        float* row = data[r];
        const float f = m_calFactors[static_cast<size_t>(r)], o = m_calOffsets[static_cast<size_t>(r)];
        for (long s = 0; s < data.ncol(); ++s)
            row[s] = row[s] * f + o;
    }
    return read;
}

void ecFilebase::LabelRows(ecLabeledMatrix<float>& data)
{
    const long rows = std::min<long>(data.nrow(), m_iNumChans);
    for (long r = 0; r < rows; ++r) {
        const size_t i = static_cast<size_t>(r);
        ecLabeledState state(i < m_vsChanNames.size() ? m_vsChanNames[i] : std::to_string(r + 1),
                             i < m_vsChanUnits.size() ? m_vsChanUnits[i] : std::string());
        state.SetUseDataUnit(i < m_vbUseChanUnit.size() && m_vbUseChanUnit[i]);
        state.SetUseSIPrefix(i < m_vbUseChanUnitPrefix.size() && m_vbUseChanUnitPrefix[i]);
        data.SetRowLabeledState(static_cast<int>(r), state);
    }
}
