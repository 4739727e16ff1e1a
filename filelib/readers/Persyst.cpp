#include "filelib/readers/Persyst.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "companion/IniText.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kMaxLayoutBytes = 16u << 20;
const char kInfo[] = "FileInfo";

// The file name without its folder, whichever separator the writing system used.
std::string BaseName(const std::string& path)
{
    const size_t slash = path.find_last_of("/\\:");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ChannelName(std::string label)
{
    ToUpper(label);
    const std::string suffix = "-REF";
    if (label.size() > suffix.size() && label.compare(label.size() - suffix.size(), suffix.size(), suffix) == 0)
        label.erase(label.size() - suffix.size());
    return label;
}

// "onset,duration,state,type,text"; false when the line is not one.
bool CommentEvent(const std::string& line, double rate, ecEvent& e)
{
    std::vector<std::string> f;
    size_t from = 0;
    for (int k = 0; k < 4; ++k) {
        const size_t comma = line.find(',', from);
        if (comma == std::string::npos)
            return false;
        f.push_back(line.substr(from, comma - from));
        from = comma + 1;
    }
    double onset = 0, duration = 0;
    long long type = 0;
    if (!ParseReal(f[0], onset) || !ParseReal(f[1], duration) || onset < 0 || duration < 0)
        return false;
    const double begin = std::round(onset * rate), length = std::round(duration * rate);
    if (begin > INT_MAX || length > INT_MAX)
        return false;
    const int code = ParseInteger(f[3], type) && type >= INT_MIN && type <= INT_MAX ? static_cast<int>(type) : 0;
    e = MarkerEvent(static_cast<long>(begin), TrimBlanks(line.substr(from)), code, static_cast<long>(length));
    return true;
}

}  // namespace

PerSyst::PerSyst(const char* layoutFile) { SetInputFileName(layoutFile ? layoutFile : ""); }

void PerSyst::Fail(const std::string& text) { FailClosing("PerSyst::Initialize", text); }

// [Patient] TestDate=2014.12.19, TestTime=02:37:48, BirthDate=19-NOV-1997, FullName, ID.
void PerSyst::ReadPatient(const ecIniText& ini)
{
    ecRecordingInfo& r = m_recordingInfo;
    const auto date = [&](const char* key, const char* layout, bool yearFirst) {
        int a = 0, c = 0;
        char month[16] = "";
        if (std::sscanf(ini.Get("Patient", key).c_str(), layout, &a, month, &c) != 3)
            return std::string();
        return yearFirst ? IsoDate(a, month, c) : IsoDate(c, month, a);
    };
    r.date = date("TestDate", "%d.%15[^.].%d", true);
    r.time = r.date.empty() ? "" : ini.Get("Patient", "TestTime");
    r.subjectBirthDate = date("BirthDate", "%d-%15[^-]-%d", false);
    r.subjectName = ini.Get("Patient", "FullName");
    r.subjectId = ini.Get("Patient", "ID");
}

double PerSyst::Number(const ecIniText& ini, const char* key, double low, double high, bool whole)
{
    const std::string text = ini.Get(kInfo, key);
    double value = 0;
    if (!ParseReal(text, value) || value < low || value > high || (whole && value != std::floor(value)))
        Fail(std::string("Invalid ") + key + " '" + text + "' in [FileInfo].");
    return value;
}

void PerSyst::Initialize(int)
{
    const std::string name = GetInputFileName();
    if (name.empty())
        Fail("No layout file (.lay) is named.");
    std::string text;
    if (!ReadLimitedFile(name, kMaxLayoutBytes, text))
        Fail("Cannot read the layout file " + name);
    const ecIniText ini(text);
    if (!ini.Find(kInfo))
        Fail("Not a Persyst layout file (no [FileInfo] section): " + name);
    SetFileMFR(kMfrPersyst);

    if (!IsEqual(ini.Get(kInfo, "FileType"), "Interleaved", false))
        Fail("Unsupported FileType '" + ini.Get(kInfo, "FileType") + "' (only Interleaved data can be read).");
    const double rate = Number(ini, "SamplingRate", 1e-6, 1e9);
    const double header = ini.Get(kInfo, "HeaderLength").empty() ? 0 : Number(ini, "HeaderLength", 0, 1e18, true);
    const double calibration = Number(ini, "Calibration", 1e-30, 1e30);
    const int channels = static_cast<int>(Number(ini, "WaveformCount", 1, 65536, true));
    const double type = Number(ini, "DataType", 0, 7, true);
    if (type != 0 && type != 7)
        Fail("Unsupported DataType " + ini.Get(kInfo, "DataType") + " (0: 16-bit, 7: 32-bit integers).");
    const int width = type == 7 ? 4 : 2;
    const std::string dataName = BaseName(ini.Get(kInfo, "File"));
    m_dataFile = GetFileNameDirectory(name) + (dataName.empty() ? BaseName(GetFileNameNoExtension(name)) + ".dat" : dataName);

    SetNumChans(channels);
    ReadChannelMap(ini, channels);
    FILE* fp = OpenInputFile(m_dataFile);
    if (!fp)
        Fail("Cannot open the data file " + m_dataFile);
    const long long dataStart = static_cast<long long>(header);
    const long long slices = std::max(0LL, FileLength(fp) - dataStart) / (static_cast<long long>(channels) * width);
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");
    const double volts = calibration * 1e-6;
    for (int c = 0; c < channels; ++c)
        DescribeChannel(c, m_vsChanNames[static_cast<size_t>(c)], kChanEEG, "V", static_cast<float>(volts));
    SetContinuousTimeBase(rate, slices);
    ReadPatient(ini);
    ecDataLayout layout = ecDataLayout::Multiplexed(width == 4 ? ecSampleType::Int32 : ecSampleType::Int16, false,
                                                    channels, channels, dataStart, slices);
    for (int c = 0; c < channels; ++c)
        layout.SetConversion(c, volts, 0);
    Engine().SetLayout(std::move(layout));
    ReadComments(text, rate);
}

void PerSyst::ReadChannelMap(const ecIniText& ini, int channels)
{
    const ecIniText::Section* map = ini.Find("ChannelMap");
    if (!map || map->size() != static_cast<size_t>(channels))
        Fail("[ChannelMap] names " + std::to_string(map ? map->size() : 0) + " channels; WaveformCount is " +
             std::to_string(channels) + ".");
    std::vector<bool> named(static_cast<size_t>(channels), false);
    for (const auto& [label, value] : *map) {
        long long column = 0;
        if (!ParseInteger(value, column) || column < 1 || column > channels || named[static_cast<size_t>(column - 1)])
            Fail("[ChannelMap] gives '" + label + "' the column '" + value + "' (columns 1.." +
                 std::to_string(channels) + ", each once).");
        named[static_cast<size_t>(column - 1)] = true;
        m_vsChanNames[static_cast<size_t>(column - 1)] = ChannelName(label);
    }
}

void PerSyst::ReadComments(const std::string& text, double rate)
{
    m_comments.clear();
    std::istringstream in(TextAsUtf8(text));
    bool inComments = false;
    for (std::string line; std::getline(in, line);) {
        line = TrimBlanks(line);
        if (!line.empty() && line[0] == '[')
            inComments = IsEqual(TrimBlanks(line.substr(1, line.find(']') - 1)), "Comments", false);
        else if (ecEvent e; inComments && CommentEvent(line, rate, e))
            m_comments.push_back(e);
    }
}

int PerSyst::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "PerSyst");
    if (ReadRows(data, first, n) != n)
        throw ecError("[PerSyst::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int PerSyst::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    for (const ecEvent& e : m_comments)
        events->AppendOneEvent(e);
    return static_cast<int>(m_comments.size());
}
