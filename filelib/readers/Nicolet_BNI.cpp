#include "filelib/readers/Nicolet_BNI.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "companion/IniText.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kMaxHeaderBytes = 4u << 20;
const char kHeader[] = "header";  // the section the header's loose "key = value" lines are read into

bool HasUpper(const std::string& s) { return std::any_of(s.begin(), s.end(), [](char c) { return c >= 'A' && c <= 'Z'; }); }

// The companion with extension `to` (written in the letter case of `like`).
std::string Companion(const std::string& path, std::string to, const std::string& like)
{
    if (HasUpper(like))
        ToUpper(to);
    return GetFileNameNoExtension(path) + "." + to;
}

std::string BaseName(const std::string& path)
{
    const size_t slash = path.find_last_of("/\\:");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> CommaList(std::string text)
{
    text = TrimBlanks(text);
    if (text.size() >= 2 && text.front() == '[' && text.back() == ']')
        text = text.substr(1, text.size() - 2);
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');)
        out.push_back(TrimBlanks(item));
    if (!out.empty() && out.back().empty())
        out.pop_back();  // a list written with a trailing comma
    return out;
}

// A cheap look at the first bytes before a whole header is read: text with a "key=value" line.
bool StartsAsKeyValueText(const std::string& path)
{
    char head[256];
    FILE* fp = std::fopen(path.c_str(), "rb");
    const size_t n = fp ? std::fread(head, 1, sizeof head, fp) : 0;
    if (fp)
        std::fclose(fp);
    const std::string start(head, n);
    return start.find('=') != std::string::npos &&
           std::none_of(start.begin(), start.end(), [](char c) { return c >= 0 && c < ' ' && c != '\t' && c != '\r' && c != '\n'; });
}

bool NotEeg(std::string name)
{
    ToUpper(name);
    for (const char* prefix : {"EOG", "EMG", "ECG", "EKG", "PHO"})
        if (name.compare(0, std::char_traits<char>::length(prefix), prefix) == 0)
            return true;
    return false;
}

// "seconds<TAB>code<TAB>channel<TAB>text"; false when the line is not an event.
bool EventLine(const std::string& line, double rate, ecEvent& e)
{
    std::vector<std::string> f;
    size_t from = 0;
    for (int k = 0; k < 3; ++k) {
        const size_t tab = line.find('\t', from);
        if (tab == std::string::npos)
            return false;
        f.push_back(line.substr(from, tab - from));
        from = tab + 1;
    }
    const std::string text = TrimBlanks(line.substr(from));
    double seconds = 0;
    long long code = 0;
    if (!ParseReal(f[0], seconds) || seconds < 0 || std::round(seconds * rate) > INT_MAX ||
        text.compare(0, 8, "Montage:") == 0)
        return false;
    const int number = ParseInteger(f[1], code) && code >= INT_MIN && code <= INT_MAX ? static_cast<int>(code) : 0;
    e = MarkerEvent(static_cast<long>(std::round(seconds * rate)), text, number);
    return true;
}

}  // namespace

ecNicolet_BNI::ecNicolet_BNI(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ecNicolet_BNI::Fail(const std::string& text) { FailClosing("ecNicolet_BNI::Initialize", text); }

double ecNicolet_BNI::Number(const ecIniText& ini, const char* key, double low, double high)
{
    const std::string text = ini.Get(kHeader, key);
    std::string number = LowerAscii(text);
    if (number.size() > 2 && number.compare(number.size() - 2, 2, "hz") == 0)
        number.erase(number.size() - 2);  // BNI rates read "256 Hz"
    double value = 0;
    if (!ParseReal(number, value) || value < low || value > high)
        Fail(std::string("Invalid ") + key + " '" + text + "' in " + m_headerFile);
    return value;
}

void ecNicolet_BNI::Initialize(int)
{
    const std::string name = GetInputFileName();
    const std::string extension = LowerAscii(GetFileNameExtension(name));
    const bool namedData = extension == "eeg" || extension == "data";
    m_headerFile = !namedData ? name : Companion(name, extension == "eeg" ? "bni" : "head", GetFileNameExtension(name));
    std::string text;
    if (!StartsAsKeyValueText(m_headerFile) || !ReadLimitedFile(m_headerFile, kMaxHeaderBytes, text))
        Fail("Not a Nicolet recording (no readable header " + m_headerFile + ").");
    const ecIniText ini("[" + std::string(kHeader) + "]\n" + text, "Events");
    m_bni = LowerAscii(ini.Get(kHeader, "FileFormat")).compare(0, 5, "bni-1") == 0;
    const bool export_ = !ini.Get(kHeader, "sample_freq").empty() && !ini.Get(kHeader, "num_channels").empty() &&
                         !ini.Get(kHeader, "conversion_factor").empty() && !ini.Get(kHeader, "elec_names").empty();
    if (!m_bni && !export_)
        Fail("Not a Nicolet header: " + m_headerFile);
    SetFileMFR(kMfrNicoletBNI);

    if (m_bni)
        ReadBni(ini);
    else
        ReadExport(ini);
    if (namedData)
        m_dataFile = name;
    const double rate = Number(ini, m_bni ? "Rate" : "sample_freq", 1e-6, 1e9);
    FILE* fp = OpenInputFile(m_dataFile);
    if (!fp)
        Fail("Cannot open the data file " + m_dataFile);
    const long long sliceBytes = 2LL * static_cast<long long>(m_names.size());
    const long long held = std::max(0LL, FileLength(fp) - m_dataStart) / sliceBytes;
    if (m_declared > held)
        Fail("The header declares " + std::to_string(m_declared) + " slices; " + m_dataFile + " holds " +
             std::to_string(held) + ".");
    Describe(m_declared >= 0 ? m_declared : held, rate);
    m_events.clear();
    if (m_bni)
        ReadEvents(TextAsUtf8(text), rate);
}

void ecNicolet_BNI::ReadBni(const ecIniText& ini)
{
    const int channels = static_cast<int>(Number(ini, "NchanFile", 1, 65536));
    m_names = CommaList(ini.Get(kHeader, "MontageRaw"));
    if (m_names.size() != static_cast<size_t>(channels))
        Fail("MontageRaw names " + std::to_string(m_names.size()) + " channels; NchanFile is " +
             std::to_string(channels) + ".");
    m_microvolts.clear();
    for (const std::string& value : CommaList(ini.Get(kHeader, "UvPerBit"))) {
        double uv = 0;
        if (!ParseReal(value, uv))
            Fail("Invalid UvPerBit '" + ini.Get(kHeader, "UvPerBit") + "'.");
        m_microvolts.push_back(uv);
    }
    if (m_microvolts.size() == 1)
        m_microvolts.assign(m_names.size(), m_microvolts[0]);
    if (m_microvolts.size() != m_names.size())
        Fail("UvPerBit gives " + std::to_string(m_microvolts.size()) + " values for " + std::to_string(channels) +
             " channels.");
    m_dataStart = ini.Get(kHeader, "DataOffset").empty() ? 0 : static_cast<long long>(Number(ini, "DataOffset", 0, 1e18));
    const std::string data = BaseName(ini.Get(kHeader, "Filename"));
    m_dataFile = data.empty() ? Companion(m_headerFile, "eeg", GetFileNameExtension(m_headerFile))
                              : GetFileNameDirectory(m_headerFile) + data;
    m_declared = -1;
}

void ecNicolet_BNI::ReadExport(const ecIniText& ini)
{
    // start_ts=2015-01-01 12:00:00.000
    const std::string start = ini.Get(kHeader, "start_ts");
    int year = 0, month = 0, day = 0, used = 0;
    if (std::sscanf(start.c_str(), "%4d-%2d-%2d %n", &year, &month, &day, &used) == 3 && used == 11) {
        m_recordingInfo.date = IsoDate(year, std::to_string(month), day);
        m_recordingInfo.time = TrimBlanks(start.substr(11));
    }
    m_recordingInfo.subjectId = ini.Get(kHeader, "pat_id");
    const int channels = static_cast<int>(Number(ini, "num_channels", 1, 65536));
    m_names = CommaList(ini.Get(kHeader, "elec_names"));
    if (m_names.size() != static_cast<size_t>(channels))
        Fail("elec_names names " + std::to_string(m_names.size()) + " channels; num_channels is " +
             std::to_string(channels) + ".");
    const std::string bytes = ini.Get(kHeader, "sample_bytes");
    if (!bytes.empty() && bytes != "2")
        Fail("sample_bytes is '" + bytes + "': only 2-byte samples can be read.");
    m_microvolts.assign(m_names.size(), Number(ini, "conversion_factor", -1e30, 1e30));
    m_declared = ini.Get(kHeader, "num_samples").empty() ? -1 : static_cast<long long>(Number(ini, "num_samples", 0, 1e18));
    m_dataStart = 0;
    m_dataFile = Companion(m_headerFile, "data", GetFileNameExtension(m_headerFile));
}

void ecNicolet_BNI::Describe(long long slices, double rate)
{
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");
    const int channels = static_cast<int>(m_names.size());
    SetNumChans(channels);
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Int16, false, channels, channels, m_dataStart, slices);
    for (int c = 0; c < channels; ++c) {
        const double volts = m_microvolts[static_cast<size_t>(c)] * 1e-6;
        const std::string& label = m_names[static_cast<size_t>(c)];
        DescribeChannel(c, label, NotEeg(label) ? 0 : kChanEEG, "V", static_cast<float>(volts));
        layout.SetConversion(c, volts, 0);
    }
    SetContinuousTimeBase(rate, slices);
    Engine().SetLayout(std::move(layout));
}

void ecNicolet_BNI::ReadEvents(const std::string& text, double rate)
{
    std::istringstream in(text);
    bool inEvents = false;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (TrimBlanks(line) == "[Events]")
            inEvents = true;
        else if (ecEvent e; inEvents && EventLine(line, rate, e))
            m_events.push_back(e);
    }
}

int ecNicolet_BNI::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecNicolet_BNI");
    if (ReadRows(data, first, n) != n)
        throw ecError("[ecNicolet_BNI::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int ecNicolet_BNI::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    for (const ecEvent& e : m_events)
        events->AppendOneEvent(e);
    return static_cast<int>(m_events.size());
}
