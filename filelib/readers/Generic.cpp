#include "filelib/readers/Generic.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"
#include "companion/Xml.h"

namespace {

constexpr int kMaxChannels = 65536;
const char* const kHeaderSuffix = ".orva_hdr";

const char* const kFormatWords[] = {"ASCII",      "Byte",      "Short",      "Long",      "Float",      "Double",
                                    "Complex",    "Swab_Short", "Swab_Long", "Swab_Float", "Swab_Double"};
const char* const kDataTypeWords[] = {"EvokedPotential", "FourierTransform", "PowerSpectrum", "Coherence"};
const char* const kPValueWords[] = {"NA", "P", "-LogP", "LogQ", "LogQ-LogP"};

template <size_t N>
int WordIndex(const char* const (&words)[N], const std::string& word)
{
    for (size_t i = 0; i < N; ++i)
        if (word == words[i])
            return static_cast<int>(i);
    return -1;
}

template <size_t N>
const char* WordOf(const char* const (&words)[N], int index)
{
    return index >= 0 && static_cast<size_t>(index) < N ? words[index] : nullptr;
}

// Shortest text that reads back as the same float.
std::string FloatText(float v)
{
    std::ostringstream out;
    for (int precision = 6; precision <= 9; ++precision) {
        out.str("");
        out.precision(precision);
        out << v;
        if (std::strtof(out.str().c_str(), nullptr) == v)
            break;
    }
    return out.str();
}

// Shortest rate text that gives back the same stored period when read as a rate.
std::string RateText(float period)
{
    std::ostringstream out;
    for (int precision = 6; precision <= 10; ++precision) {
        out.str("");
        out.precision(precision);
        out << 1.0 / period;
        if (static_cast<float>(1.0 / std::strtof(out.str().c_str(), nullptr)) == period)
            break;
    }
    return out.str();
}

bool ParseFloat(const std::string& text, float& out)
{
    double v = 0;
    if (!ParseReal(text, v) || !std::isfinite(static_cast<float>(v)))
        return false;
    out = static_cast<float>(v);
    return true;
}

// An optional integer tag: absent keeps `value`; present but unreadable fails.
bool OptionalInt(const ecXml& xml, const char* tag, long long& value)
{
    return !xml.TagExists(tag) || ParseInteger(xml.GetString(tag), value);
}

}  // namespace

CGeneric::CGeneric(const char* fileName)
{
    std::string name = fileName ? fileName : "";
    const size_t suffix = std::char_traits<char>::length(kHeaderSuffix);
    if (name.size() > suffix && name.compare(name.size() - suffix, suffix, kHeaderSuffix) == 0)
        name.erase(name.size() - suffix);
    m_sInputDataFile = name;
    SetInputFileName(name);
}

int CGeneric::BytesPerSample(int format)
{
    switch (format) {
    case kFmtByte: return 1;
    case kFmtShort: case kFmtSwabShort: return 2;
    case kFmtLong: case kFmtFloat: case kFmtSwabLong: case kFmtSwabFloat: return 4;
    case kFmtDouble: case kFmtSwabDouble: return 8;
    default: return 0;
    }
}

bool CGeneric::ReadHeader()
{
    if (m_sInputDataFile.empty())
        return false;
    ecXml xml;
    if (!xml.Read(GetHeaderFileName()) || xml.GetName() != "ORVA_Header")
        return false;

    const int format = WordIndex(kFormatWords, TrimBlanks(xml.GetString("DataFormat")));
    long long chans = 0, slices = 0, epochs = 1, epochSlices = 0, offset = 0, trials = -1, runType = 0;
    float rate = 0;
    if (format < 0 || !ParseInteger(xml.GetString("NumChans"), chans) || chans < 1 || chans > kMaxChannels ||
        !ParseInteger(xml.GetString("NumSlices"), slices) || slices < 0 || slices > 0x7FFFFFFF ||
        !ParseFloat(xml.GetString("SampleRate"), rate) || !(rate > 0) || !OptionalInt(xml, "NumEpochs", epochs) ||
        epochs < 0 || epochs > std::max(1LL, slices) || !OptionalInt(xml, "EpochSlices", epochSlices) ||
        !OptionalInt(xml, "OffsetToData", offset) || offset < 0 || offset > 0xFFFFFFFFLL ||
        !OptionalInt(xml, "NumTrials", trials))
        return false;
    const std::vector<ecXml> channels = xml.Sub("ChannelList").Children("Channel");
    if (channels.size() > static_cast<size_t>(chans))
        return false;

    const std::string run = TrimBlanks(xml.GetString("RunType"));
    runType = run == "SingleEpoch" ? kRunSingleEpoch : run == "MultiEpoch" ? kRunMultiEpoch
              : run == "Continuous" ? kRunContinuous : 0u;
    if (runType != 0)
        SetRunType(static_cast<unsigned>(runType));
    SetSID(xml.GetString("SID"));
    SetCID(xml.GetString("CID"));
    if (xml.TagExists("CntFileName"))
        m_sCntFileName = xml.GetString("CntFileName");
    m_iDataFormat = format;
    m_bMatrixOrientation = TrimBlanks(xml.GetString("MatrixOrientation")) != "Trace_Mode";
    SetOffsetToData(static_cast<unsigned>(offset));
    const std::string domain = TrimBlanks(xml.GetString("DataDomain"));
    if (domain == "FrequencyDomain")
        SetDomain(4);
    else if (domain == "TimeDomain")
        SetDomain(1);
    m_iDataType = std::max(0, WordIndex(kDataTypeWords, TrimBlanks(xml.GetString("DataType"))));
    m_iProbabilityType = std::max(0, WordIndex(kPValueWords, TrimBlanks(xml.GetString("PValues"))));
    SetNumSlices(static_cast<int>(slices));
    SetNumEpochs(static_cast<int>(epochs));
    SetEpochSlices(epochSlices > 0 ? static_cast<int>(epochSlices) : static_cast<int>(slices / std::max(1LL, epochs)));
    SetValidEpochCnt(trials >= 0 ? static_cast<int>(trials) : GetNumEpochs());
    if (xml.TagExists("bEpochReviewMode"))
        SetEpochReviewMode(xml.GetBool("bEpochReviewMode"));
    // The frequency domain stores the inverse of the rate (see WriteHeaderText).
    SetSampleRate(rate, GetDomain() == 4 ? 1 : 0);
    SetNumChans(static_cast<int>(chans));
    float preStim = 0;
    if (ParseFloat(xml.GetString("PreStim"), preStim))
        SetPreStim(preStim);
    for (size_t i = 0; i < channels.size(); ++i) {
        const ecXml& ch = channels[i];
        const int c = static_cast<int>(i);
        std::string name = ch.GetString("Name"), unit = ch.GetString("Unit");
        if (ch.TagExists("Name"))
            SetChanName(c, name);
        if (ch.TagExists("Type"))
            SetChanType(c, ch.GetInt("Type"));
        float scale = 1;
        if (ParseFloat(ch.GetString("Scale"), scale))
            SetChanScale(c, scale);
        SetChanUnit(c, unit);
        SetUseChanUnit(c, ch.GetBool("UseUnit"));
        SetUseChanUnitPrefix(c, ch.GetBool("UsePrefix"));
    }
    if (xml.TagExists("ORVA_Calibration"))
        GetCalibration().ReadXml(xml);
    float outputScale = 1;
    m_fOutputScale = ParseFloat(xml.GetString("fOutputScale"), outputScale) ? outputScale : 1.0f;
    m_bHeaderRead = true;
    return true;
}

void CGeneric::WriteHeaderText(std::ostream& out, bool withEpochs)
{
    const unsigned runType = GetRunType();
    out << "<ORVA_Header>\n";
    out << "<DataFileName>" << XmlEscaped(m_sInputDataFile) << "</DataFileName>\n";
    out << "<SID>" << XmlEscaped(GetSID()) << "</SID>\n";
    out << "<CID>" << XmlEscaped(GetCID()) << "</CID>\n";
    const char* runWord = runType == kRunSingleEpoch ? "SingleEpoch"
                          : runType == kRunMultiEpoch ? "MultiEpoch"
                          : runType == kRunContinuous ? "Continuous" : nullptr;
    if (runWord)
        out << "<RunType>" << runWord << "</RunType>\n";
    if (runType == kRunSingleEpoch && !m_sCntFileName.empty())
        out << "<CntFileName>" << XmlEscaped(m_sCntFileName) << "</CntFileName>\n";
    if (m_iDataFormat != kFmtComplex && WordOf(kFormatWords, m_iDataFormat))
        out << "<DataFormat>" << WordOf(kFormatWords, m_iDataFormat) << "</DataFormat>\n";
    out << "<MatrixOrientation>" << (m_bMatrixOrientation ? "Slice_Mode" : "Trace_Mode") << "</MatrixOrientation>\n";
    out << "<OffsetToData>" << GetOffsetToData() << "</OffsetToData>\n";
    if (runType == kRunSingleEpoch)
        out << "<NumTrials>" << GetValidEpochCnt() << "</NumTrials>\n";
    if (GetDomain() == 1)
        out << "<DataDomain>TimeDomain</DataDomain>\n";
    else if (GetDomain() == 4)
        out << "<DataDomain>FrequencyDomain</DataDomain>\n";
    if (const char* word = WordOf(kDataTypeWords, m_iDataType))
        out << "<DataType>" << word << "</DataType>\n";
    if (const char* word = WordOf(kPValueWords, m_iProbabilityType))
        out << "<PValues>" << word << "</PValues>\n";
    out << "<NumSlices>" << GetNumSlices() << "</NumSlices>\n";
    GetSampleRate();  // raises when the rate is not set
    const float period = GetSamplePeriod();
    // The frequency domain writes the inverse of the rate, i.e. the stored period itself.
    out << "<SampleRate>" << (GetDomain() == 4 ? FloatText(period) : RateText(period)) << "</SampleRate>\n";
    out << "<NumChans>" << GetNumChans() << "</NumChans>\n";
    out << "<PreStim>" << FloatText(GetPreStim()) << "</PreStim>\n";
    out << "<ChannelList>\n";
    for (int c = 0; c < GetNumChans(); ++c) {
        std::string name, unit;
        GetChanName(c, name);
        GetChanUnit(c, unit);
        out << "<Channel>\n"
            << "<Name>" << XmlEscaped(name) << "</Name>\n"
            << "<Type>" << GetChanType(c) << "</Type>\n"
            << "<Scale>" << FloatText(GetChanScale(c)) << "</Scale>\n"
            << "<Unit>" << XmlEscaped(unit) << "</Unit>\n"
            << "<UseUnit>" << (UseChanUnit(c) ? 1 : 0) << "</UseUnit>\n"
            << "<UsePrefix>" << (UseChanUnitPrefix(c) ? 1 : 0) << "</UsePrefix>\n"
            << "</Channel>\n";
    }
    out << "</ChannelList>\n";
    out << "<fOutputScale>" << FloatText(m_fOutputScale) << "</fOutputScale>\n";
    if (withEpochs)
        out << "<NumEpochs>" << GetNumEpochs() << "</NumEpochs>\n<EpochSlices>" << GetEpochSlices()
            << "</EpochSlices>\n";
    out << "</ORVA_Header>\n";
}

bool CGeneric::WriteHeader()
{
    if (m_sInputDataFile.empty())
        return false;
    std::ostringstream text;
    try {
        WriteHeaderText(text, false);
    } catch (const ecError&) {
        return false;  // metadata not complete (no sample rate): nothing is written
    }
    std::ofstream out(GetHeaderFileName(), std::ios::binary | std::ios::trunc);
    out << text.str();
    return static_cast<bool>(out);
}

void CGeneric::Initialize(int)
{
    if (!m_bHeaderRead && !ReadHeader())
        throw ecError("[CGeneric::Initialize] Unable to read header file: " + GetHeaderFileName());
    SetFileMFR(kMfrGeneric);
    if (GetRunType() == 0)
        SetRunType(GetNumEpochs() > 1 ? kRunMultiEpoch : kRunContinuous);
    if (m_iDataFormat != kFmtASCII && BytesPerSample(m_iDataFormat) == 0)
        throw ecError(std::string("[CGeneric::Initialize] Unsupported data format: ") + kFormatWords[m_iDataFormat]);
    OpenDataFile();
}

void CGeneric::OpenDataFile()
{
    FILE* fp = OpenInputFile(m_sInputDataFile);
    if (!fp)
        throw ecError("[CGeneric::Initialize] Unable to open file:" + m_sInputDataFile);
    const int64_t size = FileLength(fp);
    if (m_iDataFormat == kFmtASCII)
        LoadAsciiValues(fp);
    else
        CheckDataSize(size);
}

void CGeneric::CheckDataSize(int64_t fileBytes)
{
    const int64_t needed = static_cast<int64_t>(GetOffsetToData()) +
                           static_cast<int64_t>(GetNumChans()) * GetNumSlices() * BytesPerSample(m_iDataFormat);
    if (fileBytes < needed) {
        CloseInputFile();
        throw ecError("[CGeneric::Initialize] The data file " + m_sInputDataFile + " holds " +
                      std::to_string(fileBytes) + " bytes; the header declares " + std::to_string(needed) + ".");
    }
}

void CGeneric::LoadAsciiValues(FILE* fp)
{
    const size_t wanted = static_cast<size_t>(GetNumChans()) * static_cast<size_t>(GetNumSlices());
    m_asciiValues.clear();
    if (fseeko(fp, static_cast<off_t>(GetOffsetToData()), SEEK_SET) != 0)
        throw ecError("[CGeneric::Initialize] Unable to open file:" + m_sInputDataFile);
    std::string token;
    for (int c = std::fgetc(fp);; c = std::fgetc(fp)) {
        const bool separator = c == EOF || std::isspace(c) || c == ',' || c == ';';
        if (!separator) {
            if (token.size() > 64)
                break;  // not a number; reported below
            token += static_cast<char>(c);
            continue;
        }
        if (!token.empty()) {
            float v = 0;
            if (!ParseFloat(token, v))
                break;
            m_asciiValues.push_back(v);
            token.clear();
            if (m_asciiValues.size() == wanted)
                break;
        }
        if (c == EOF)
            break;
    }
    if (m_asciiValues.size() < wanted) {
        CloseInputFile();
        throw ecError("[CGeneric::Initialize] The ASCII data file " + m_sInputDataFile + " holds " +
                      std::to_string(m_asciiValues.size()) + " numbers before its first unreadable entry; the header declares " +
                      std::to_string(wanted) + ".");
    }
}

int CGeneric::SlicesPerEpoch()
{
    return GetNumSlices() / std::max(1, GetNumEpochs());
}

std::vector<float> CGeneric::ChannelFactors()
{
    const float global = m_fOutputScale > 0 ? m_fOutputScale : 1.0f;
    std::vector<float> factors(static_cast<size_t>(GetNumChans()));
    for (int c = 0; c < GetNumChans(); ++c)
        factors[static_cast<size_t>(c)] = GetChanScale(c) * global;
    return factors;
}

void CGeneric::ReadAsciiSpan(ecLabeledMatrix<float>& data, long col, long epoch, long t0, long n, const char* failure)
{
    const long channels = GetNumChans();
    const long epochSlices = SlicesPerEpoch();
    const std::vector<float> factors = ChannelFactors();
    if (m_asciiValues.empty() && channels > 0)
        throw ecError(failure, 1, 0, -1, -1);
    const float* epochBase = m_asciiValues.data() + static_cast<size_t>(epoch) * channels * epochSlices;
    for (long c = 0; c < channels; ++c) {
        float* dst = data[c] + col;
        for (long t = 0; t < n; ++t) {
            const long index = m_bMatrixOrientation ? (t0 + t) * channels + c : c * epochSlices + t0 + t;
            dst[t] = epochBase[index] * factors[static_cast<size_t>(c)];
        }
    }
}

void CGeneric::DescribeLayout()
{
    const ecSampleType types[] = {ecSampleType::UInt8, ecSampleType::Int16, ecSampleType::Int32, ecSampleType::Float32,
                                  ecSampleType::Float64};
    const int format = m_iDataFormat;
    const bool swapped = format >= kFmtSwabShort && format <= kFmtSwabDouble;
    const ecSampleType type = types[swapped ? format - kFmtSwabShort + 1 : format - kFmtByte];
    const int channels = GetNumChans();
    const long long epochSlices = SlicesPerEpoch();
    const long long epochs = std::max(1, GetNumEpochs());
    // Every epoch is one segment; inside it the samples run slice after slice or channel after channel.
    ecDataLayout layout = m_bMatrixOrientation
                              ? ecDataLayout::Multiplexed(type, swapped, channels, channels, GetOffsetToData(), epochSlices)
                              : ecDataLayout::Vectorized(type, swapped, channels, GetOffsetToData(), epochSlices);
    layout.exact = false;
    layout.slices = epochSlices * epochs;
    layout.segmentSlices = epochSlices;
    layout.segmentStride = epochSlices * channels * SampleWidth(type);
    const std::vector<float> factors = ChannelFactors();
    for (int c = 0; c < channels; ++c)
        layout.SetConversion(c, factors[static_cast<size_t>(c)], 0);
    Engine().SetLayout(std::move(layout));
}

void CGeneric::ReadSpan(ecLabeledMatrix<float>& data, long long first, long long n, bool epochRead)
{
    const char* failure = epochRead ? "[CGeneric::ReadEEGData]: Error in reading EEG data file."
                                    : "[CGeneric::ReadCNTData]: Error in reading data file.";
    if (m_iDataFormat == kFmtASCII) {
        const long epochSlices = SlicesPerEpoch();
        for (long long done = 0; done < n;) {
            const long long slice = first + done;
            const long long take = std::min<long long>(n - done, epochSlices - slice % epochSlices);
            ReadAsciiSpan(data, static_cast<long>(done), static_cast<long>(slice / epochSlices),
                          static_cast<long>(slice % epochSlices), static_cast<long>(take), failure);
            done += take;
        }
        return;
    }
    if (BytesPerSample(m_iDataFormat) == 0)
        throw ecError("[CGeneric::ReadEEGData]: Unrecognized data format.", 1, 0, -1, -1);
    DescribeLayout();
    if (!GetInputFilePointer() || ReadRows(data, first, n) != n)
        throw ecError(failure, 1, 0, -1, -1);
}

void CGeneric::ReadEEGData(ecLabeledMatrix<float>& data, int epoch)
{
    if (epoch < 0 || epoch >= GetNumEpochs())
        throw ecError("[CGeneric::ReadEEGData]: Out of range error.", 1, 0, -1, -1);
    if (m_iDataFormat != kFmtASCII && BytesPerSample(m_iDataFormat) == 0)
        throw ecError("[CGeneric::ReadEEGData]: Unrecognized data format.", 1, 0, -1, -1);
    const int slices = SlicesPerEpoch();
    data.resize(GetNumChans(), slices, 0, 0);
    ReadSpan(data, static_cast<long long>(epoch) * slices, slices, true);
    LabelRows(data);
}

int CGeneric::ReadCNTData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long epochSlices = SlicesPerEpoch();
    const long available = epochSlices * std::max(1, GetNumEpochs());
    if (first < 0 || count <= 0 || first >= available || epochSlices <= 0)
        return 0;
    const long n = std::min<long>(count, available - first);
    data.resize(GetNumChans(), n, 0, 0);
    ReadSpan(data, first, n, false);
    LabelRows(data);
    return static_cast<int>(n);
}

int CGeneric::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    if (first < 0 || count < 0)
        throw ecError("[CGeneric::ReadData]: Dimension specified does not agree with the data.", 1, 0, -1, -1);
    return ReadCNTData(data, first, count);
}

void CGeneric::ReadOneSlice(ecVector<float>& values, int slice)
{
    if (values.dim() != GetNumChans())
        throw ecError("[CGeneric::ReadOneSlice]: Dimension mismatch error.", 1, 0, -1, -1);
    ecLabeledMatrix<float> one;
    int got = 0;
    try {
        got = slice < 0 ? 0 : ReadCNTData(one, slice, 1);
    } catch (const ecError&) {
        got = 0;
    }
    if (got != 1)
        throw ecError("[CGeneric::ReadOneSlice]: Error in reading one slice.", 1, 0, -1, -1);
    for (long c = 0; c < one.nrow(); ++c)
        values[c] = one[c][0];
}

int CGeneric::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    const int before = events->GetEventCnt(true);
    if (GetRunType() == kRunMultiEpoch) {
        for (int e = 0; e < GetNumEpochs(); ++e) {
            ecEvent boundary;
            boundary.SetBegin(static_cast<long>(e) * SlicesPerEpoch());
            boundary.SetSegmentBoundaryDefaults();
            events->AppendOneEvent(boundary);
        }
    }
    const std::string eventFile = m_sInputDataFile + ".evt";
    if (std::ifstream(eventFile).good() && !events->ReadEventFile(eventFile.c_str(), true))
        throw ecError("[CGeneric::InitialEventList] Unreadable event file: " + eventFile);
    return events->GetEventCnt(true) - before;
}
