#include "filelib/readers/BrainVision.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "companion/ByteCursor.h"
#include "companion/IniText.h"
#include "companion/Units.h"
#include "companion/Utility.h"

namespace {

enum Format { kInt16, kUInt16, kInt32, kFloat32 };
constexpr size_t kMaxHeaderBytes = 16u << 20;
constexpr double kMaxSlice = 2147483647.0;
const char kCommon[] = "Common Infos";

bool Is(const std::string& value, const char* word) { return IsEqual(value, word, false); }

std::vector<std::string> Fields(const std::string& value)
{
    std::vector<std::string> out;
    std::string field;
    std::istringstream in(value);
    while (std::getline(in, field, ',')) {
        for (size_t at; (at = field.find("\\1")) != std::string::npos;)
            field.replace(at, 2, ",");  // commas inside names are written \1
        out.push_back(field);
    }
    if (!value.empty() && value.back() == ',')
        out.push_back(std::string());
    return out;
}

int TrailingNumber(const std::string& s)
{
    size_t end = s.size();
    while (end > 0 && s[end - 1] == ' ')
        --end;
    size_t start = end;
    while (start > 0 && std::isdigit(static_cast<unsigned char>(s[start - 1])))
        --start;
    return start < end && end - start < 10 ? std::atoi(s.substr(start, end - start).c_str()) : 0;
}

bool IsBrainVisionHeader(const std::string& path)
{
    char head[64] = {};
    std::ifstream in(path, std::ios::binary);
    in.read(head, sizeof head - 1);
    std::string first(head, static_cast<size_t>(in.gcount()));
    if (first.compare(0, 3, "\xEF\xBB\xBF") == 0)
        first.erase(0, 3);
    first = first.substr(0, first.find('\n'));
    return (first.compare(0, 12, "Brain Vision") == 0 || first.compare(0, 11, "BrainVision") == 0) &&
           first.find("Header File") != std::string::npos;
}

// A count field, whole slices; `count` is -1 when the field is absent. False when the field
// holds anything but a non-negative number.
bool ParseCount(const std::string& text, double& count)
{
    count = -1;
    if (text.empty())
        return true;
    if (!ParseReal(text, count) || count < 0)
        return false;
    count = std::floor(count);
    return true;
}

// Values per slice in the data file. V-Amp's .ahdr data carry one value more than the header
// lists channels; DataPoints, when it fits either layout, or else the length, tells which.
int StoredValues(bool ahdr, int channels, int bytes, long long dataBytes, double declared)
{
    if (!ahdr)
        return channels;
    const long long plain = static_cast<long long>(channels) * bytes, extra = plain + bytes;
    const bool fitsExtra = declared >= 0 && static_cast<double>(dataBytes / extra) == declared;
    const bool fitsPlain = declared >= 0 && static_cast<double>(dataBytes / plain) == declared;
    return fitsExtra || (!fitsPlain && dataBytes % extra == 0) ? channels + 1 : channels;
}

// One marker line "Type,Description,Position,Size,Channel[,Date]"; false when it cannot be read.
bool MarkerEvent(const std::string& value, ecEvent& e)
{
    const std::vector<std::string> f = Fields(value);
    double position = 0, size = 0;
    if (f.size() < 3 || !ParseReal(f[2], position) || position < 0 || position > kMaxSlice)
        return false;
    if (f.size() > 3 && !TrimBlanks(f[3]).empty() && !(ParseReal(f[3], size) && size >= 0 && size <= kMaxSlice))
        return false;
    e.SetBegin(std::max(0L, static_cast<long>(position) - 1));
    if (Is(f[0], "New Segment")) {
        e.SetSegmentBoundaryDefaults();
        return true;
    }
    e.SetEventName(f[1].empty() ? f[0] : f[0] + "/" + f[1]);
    e.SetEventCode(TrailingNumber(f[1]));
    e.SetKind(Is(f[0], "Response") ? 3 : 2);
    e.SetEnd(e.GetBegin() + static_cast<long>(size));
    return true;
}

// The recording's start from a "New Segment" marker's date field "yyyymmddhhmmssuuuuuu"
// (all zeros: not stated).
bool SegmentDate(const std::string& value, ecRecordingInfo& info)
{
    const std::vector<std::string> f = Fields(value);
    if (f.size() < 6 || !Is(f[0], "New Segment"))
        return false;
    const std::string d = TrimBlanks(f[5]);
    if (d.size() < 14 || d.find_first_not_of("0123456789") != std::string::npos ||
        d.find_first_not_of('0') == std::string::npos)
        return false;
    info.date = d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2);
    info.time = d.substr(8, 2) + ":" + d.substr(10, 2) + ":" + d.substr(12, 2) + (d.size() > 14 ? "." + d.substr(14) : "");
    return true;
}

// "HP:0.159Hz LP:250Hz N:50Hz" from a channel row's cut-offs: a low cut-off is a time constant
// in seconds (high-pass at 1 / (2 pi tau) Hz), "DC" and "Off" state no filter.
std::string FilterText(const std::string& low, const std::string& high, const std::string& notch)
{
    std::string text;
    double value = 0;
    char part[48];
    if (ParseReal(low, value) && value > 0) {
        std::snprintf(part, sizeof part, "HP:%.4gHz", 1 / (2 * M_PI * value));
        text = part;
    }
    for (const auto& [prefix, field] : {std::make_pair(" LP:", high), std::make_pair(" N:", notch)})
        if (ParseReal(field, value) && value > 0)
            text += prefix + field + "Hz";
    return TrimBlanks(text);
}

// The amplifier's cut-offs from the comment's channel table ("# Name Phys. Chn. Resolution /
// Unit Low Cutoff [s] High Cutoff [Hz] Notch [Hz] ..."), rows "n name chn resolution [unit]
// low high notch", up to the first blank line; empty when there is no such table.
std::vector<std::string> ChannelFilters(std::istream& in, int channels)
{
    std::vector<std::string> filters;
    bool withUnit = false;
    for (std::string line; std::getline(in, line);) {
        line = TrimBlanks(line);
        if (line.compare(0, 1, "#") == 0 && line.find("Low Cutoff") != std::string::npos) {
            withUnit = line.find("Unit") != std::string::npos;
            filters.assign(static_cast<size_t>(channels), std::string());
            continue;
        }
        if (filters.empty())
            continue;
        if (line.empty())
            break;
        std::istringstream row(line);
        std::vector<std::string> f;
        for (std::string word; row >> word;)
            f.push_back(word);
        double n = 0;
        const size_t low = withUnit ? 5 : 4;
        if (f.size() > low + 2 && ParseReal(f[0], n) && n >= 1 && n <= channels)
            filters[static_cast<size_t>(n) - 1] = FilterText(f[low], f[low + 1], f[low + 2]);
    }
    return filters;
}

}  // namespace

BrainVision::BrainVision(const char* headerFile) { SetInputFileName(headerFile ? headerFile : ""); }

void BrainVision::Fail(const std::string& text)
{
    CloseInputFile();
    throw ecError(("[BrainVision::Initialize] " + text).c_str(), 1, 0, -1, -1);
}

std::string BrainVision::Beside(const std::string& name, const char* what)
{
    const bool absolute = !name.empty() && (name[0] == '/' || name[0] == '\\' || (name.size() > 1 && name[1] == ':'));
    std::string wrapped = "/" + name + "/";
    std::replace(wrapped.begin(), wrapped.end(), '\\', '/');
    if (absolute || wrapped.find("/../") != std::string::npos)
        Fail(std::string("The ") + what + " '" + name + "' lies outside the header's folder.");
    return GetFileNameDirectory(GetInputFileName()) + name;
}

void BrainVision::Initialize(int)
{
    // The signature is in the first line; only a header is read whole.
    if (!IsBrainVisionHeader(GetInputFileName()))
        Fail("Not a BrainVision header: " + GetInputFileName());
    SetFileMFR(kMfrBrainVision);
    ecIniText ini;
    if (!ini.ReadFile(GetInputFileName(), kMaxHeaderBytes, "Comment"))
        Fail("Cannot read the header file " + GetInputFileName());
    ReadLayout(ini);
    const std::string channels = ini.Get(kCommon, "NumberOfChannels");
    double count = 0;
    if (!ParseReal(channels, count) || count < 1 || count > 65536 || count != std::floor(count))
        Fail("Invalid NumberOfChannels '" + channels + "'.");
    SetNumChans(static_cast<int>(count));
    ReadChannels(ini);
    FILE* fp = OpenInputFile(m_dataFile);
    if (!fp)
        Fail("Cannot open the data file " + m_dataFile);
    SetTimeBase(ini, FileLength(fp));
    DescribeLayout();
    ReadStartDate();
    std::ifstream header(GetInputFileName(), std::ios::binary);
    m_recordingInfo.channelFilters = ChannelFilters(header, GetNumChans());
}

void BrainVision::ReadStartDate()
{
    ecIniText markers;
    if (m_markerFile.empty() || !markers.ReadFile(m_markerFile, kMaxHeaderBytes))
        return;
    if (const ecIniText::Section* list = markers.Find("Marker Infos"))
        for (const auto& entry : *list)
            if (SegmentDate(entry.second, m_recordingInfo))
                return;
}

void BrainVision::ReadLayout(const ecIniText& ini)
{
    const std::string dataFormat = ini.Get(kCommon, "DataFormat");
    if (!dataFormat.empty() && !Is(dataFormat, "BINARY"))
        Fail("Unsupported DataFormat '" + dataFormat + "' (only BINARY data can be read).");
    const std::string dataName = ini.Get(kCommon, "DataFile");
    if (dataName.empty())
        Fail("The header names no DataFile.");
    m_dataFile = Beside(dataName, "data file");
    const std::string markerName = ini.Get(kCommon, "MarkerFile");
    m_markerFile = markerName.empty() ? std::string() : Beside(markerName, "marker file");

    const std::string orientation = ini.Get(kCommon, "DataOrientation");
    if (!orientation.empty() && !Is(orientation, "MULTIPLEXED") && !Is(orientation, "VECTORIZED"))
        Fail("Unknown DataOrientation '" + orientation + "'.");
    m_vectorized = Is(orientation, "VECTORIZED");
    static const struct {
        const char* name;
        Format format;
        int bytes;
    } kFormats[] = {{"", kInt16, 2}, {"INT_16", kInt16, 2}, {"UINT_16", kUInt16, 2}, {"INT_32", kInt32, 4},
                    {"IEEE_FLOAT_32", kFloat32, 4}};
    const std::string format = ini.Get("Binary Infos", "BinaryFormat");
    const auto known = std::find_if(std::begin(kFormats), std::end(kFormats),
                                    [&](const auto& f) { return Is(format, f.name); });
    if (known == std::end(kFormats))
        Fail("Unknown BinaryFormat '" + format + "'.");
    m_format = known->format;
    m_bytes = known->bytes;
    m_bigEndian = Is(ini.Get("Binary Infos", "UseBigEndianOrder"), "YES");
}

void BrainVision::ReadChannels(const ecIniText& ini)
{
    m_factors.assign(static_cast<size_t>(GetNumChans()), 1e-6f);
    const ecIniText::Section* channels = ini.Find("Channel Infos");
    for (int c = 0; channels && c < GetNumChans(); ++c) {
        const auto entry = channels->find("ch" + std::to_string(c + 1));
        if (entry == channels->end())
            continue;
        std::vector<std::string> f = Fields(entry->second);
        if (!f.empty() && !f[0].empty())
            SetChanName(c, f[0]);
        double resolution = 1;
        if (f.size() > 2 && !TrimBlanks(f[2]).empty() && !ParseReal(f[2], resolution))
            Fail("Invalid resolution '" + f[2] + "' of channel " + std::to_string(c + 1) + ".");
        std::string unit = f.size() > 3 ? TrimBlanks(f[3]) : std::string();
        const double volts = unit.empty() ? 1e-6 : VoltsPerUnit(unit);
        m_factors[static_cast<size_t>(c)] = static_cast<float>(resolution * (volts > 0 ? volts : 1.0));
        if (volts > 0)
            unit = "V";
        SetChanUnit(c, unit);
        SetChanType(c, volts > 0 ? kChanEEG : 0);
        SetChanScale(c, m_factors[static_cast<size_t>(c)]);
    }
}

void BrainVision::SetTimeBase(const ecIniText& ini, long long dataBytes)
{
    double interval = 0;
    const std::string intervalText = ini.Get(kCommon, "SamplingInterval");
    if (!ParseReal(intervalText, interval) || !(interval > 0) || !(static_cast<float>(interval * 1e-6) > 0) ||
        !std::isfinite(static_cast<float>(interval * 1e-6)))
        Fail("Invalid SamplingInterval '" + intervalText + "'.");
    SetSampleRate(static_cast<float>(interval * 1e-6), 1);
    CountSlices(ini, dataBytes);
    double segment = -1;
    const bool segmented = Is(ini.Get(kCommon, "SegmentationType"), "MARKERBASED") &&
                           ParseCount(ini.Get(kCommon, "SegmentDataPoints"), segment) && segment >= 1 &&
                           segment <= static_cast<double>(std::max(1LL, m_points));
    SetRunType(segmented ? kRunMultiEpoch : kRunContinuous);
    SetEpochSlices(segmented ? static_cast<int>(segment) : static_cast<int>(m_points));
    SetNumEpochs(segmented ? static_cast<int>(m_points / static_cast<long long>(segment)) : 1);
    SetValidEpochCnt(GetNumEpochs());
}

void BrainVision::CountSlices(const ecIniText& ini, long long dataBytes)
{
    const std::string points = ini.Get(kCommon, "DataPoints");
    double declared = -1;
    if (!ParseCount(points, declared))
        Fail("Invalid DataPoints '" + points + "'.");
    const bool ahdr = Is(GetFileNameExtension(GetInputFileName()), "ahdr");
    m_stored = StoredValues(ahdr, GetNumChans(), m_bytes, dataBytes, declared);
    // An export cut short promises more than it holds: the whole slices that are there are read.
    const long long held = dataBytes / (static_cast<long long>(m_stored) * m_bytes);
    m_points = declared >= 0 && declared < static_cast<double>(held) ? static_cast<long long>(declared) : held;
    if (m_points > 0x7FFFFFFF)
        Fail("The recording holds more than 2147483647 slices.");
    SetNumSlices(static_cast<int>(m_points));
}

// The data file holds m_stored values per slice (one more than the channels in V-Amp files):
// slice after slice, or each channel's m_points samples after the other's.
void BrainVision::DescribeLayout()
{
    const ecSampleType types[] = {ecSampleType::Int16, ecSampleType::UInt16, ecSampleType::Int32, ecSampleType::Float32};
    const int channels = GetNumChans();
    ecDataLayout layout = ecDataLayout::Multiplexed(types[m_format], m_bigEndian, m_stored, channels, 0, m_points);
    layout.exact = false;
    for (int c = 0; c < channels; ++c) {
        if (m_vectorized) {
            layout.channels[static_cast<size_t>(c)].offset = c * m_points * m_bytes;
            layout.channels[static_cast<size_t>(c)].stride = m_bytes;
        }
        layout.SetConversion(c, m_factors[static_cast<size_t>(c)], 0);
    }
    Engine().SetLayout(std::move(layout));
}

int BrainVision::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "BrainVision");
    if (ReadRows(data, first, n) != n)
        throw ecError("[BrainVision::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int BrainVision::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    ecIniText ini;
    if (!events || m_markerFile.empty() || !ini.ReadFile(m_markerFile, kMaxHeaderBytes))
        return 0;  // a recording without its marker file simply has no markers
    const ecIniText::Section* markers = ini.Find("Marker Infos");
    if (!markers)
        return 0;
    std::vector<std::pair<long, ecEvent>> numbered;
    for (const auto& [key, value] : *markers) {
        ecEvent e;
        if (key.compare(0, 2, "mk") == 0 && MarkerEvent(value, e))
            numbered.emplace_back(std::atol(key.c_str() + 2), e);
    }
    // Markers in their numbered order (the map sorts "Mk10" before "Mk2").
    std::stable_sort(numbered.begin(), numbered.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : numbered)
        events->AppendOneEvent(entry.second);
    return static_cast<int>(numbered.size());
}
