#include "filelib/readers/BrainVision.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "companion/ByteCursor.h"
#include "companion/Deinterleave.h"
#include "companion/Utility.h"

namespace {

enum Format { kInt16, kUInt16, kInt32, kFloat32 };
constexpr size_t kMaxHeaderBytes = 16u << 20;
constexpr size_t kRawBlockBytes = 1u << 20;

bool ValidUtf8(const std::string& s)
{
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (len == 0 || i + len > s.size())
            return false;
        for (size_t k = 1; k < len; ++k)
            if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2)
                return false;
        i += len;
    }
    return true;
}

std::string Latin1ToUtf8(const std::string& s)
{
    std::string out;
    for (unsigned char c : s) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// At most `limit` bytes of a text file (false when the file is larger or unreadable).
bool ReadText(const std::string& path, std::string& text, size_t limit = kMaxHeaderBytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size < 0 || static_cast<unsigned long long>(size) > limit)
        return false;
    in.seekg(0);
    text.assign(static_cast<size_t>(size), '\0');
    if (size > 0 && !in.read(&text[0], size))
        return false;
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        text.erase(0, 3);
    // Text is UTF-8 when it says so or when it decodes as such; otherwise Latin-1 (ANSI).
    if (text.find("Codepage=UTF-8") == std::string::npos && !ValidUtf8(text))
        text = Latin1ToUtf8(text);
    return true;
}

std::map<std::string, std::map<std::string, std::string>> ParseIni(const std::string& text)
{
    std::map<std::string, std::map<std::string, std::string>> sections;
    std::string section;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        line = TrimBlanks(line);
        if (line.empty() || line[0] == ';')
            continue;
        if (line[0] == '[') {
            section = line.substr(1, line.find(']') - 1);
            if (section == "Comment")
                break;  // free text follows
            continue;
        }
        const size_t eq = line.find('=');
        if (eq != std::string::npos && !section.empty())
            sections[section][TrimBlanks(line.substr(0, eq))] = TrimBlanks(line.substr(eq + 1));
    }
    return sections;
}

std::string Get(const std::map<std::string, std::map<std::string, std::string>>& ini, const char* section,
                const char* key)
{
    const auto s = ini.find(section);
    if (s == ini.end())
        return std::string();
    const auto k = s->second.find(key);
    return k == s->second.end() ? std::string() : k->second;
}

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

double VoltsPerUnit(const std::string& unit)
{
    if (unit.empty() || unit == "\xC2\xB5V" || unit == "uV")
        return 1e-6;
    if (unit == "nV")
        return 1e-9;
    if (unit == "mV")
        return 1e-3;
    if (unit == "V")
        return 1.0;
    return 0.0;
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
    const std::string wrapped = "/" + name + "/";
    if (absolute || wrapped.find("/../") != std::string::npos || wrapped.find("\\..\\") != std::string::npos ||
        wrapped.find("/..\\") != std::string::npos || wrapped.find("\\../") != std::string::npos)
        Fail(std::string("The ") + what + " '" + name + "' lies outside the header's folder.");
    return GetFileNameDirectory(GetInputFileName()) + name;
}

namespace {
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
}  // namespace

void BrainVision::Initialize(int)
{
    // The signature is in the first line; only a header is read whole.
    if (!IsBrainVisionHeader(GetInputFileName()))
        Fail("Not a BrainVision header: " + GetInputFileName());
    SetFileMFR(29);
    std::string text;
    if (!ReadText(GetInputFileName(), text))
        Fail("Cannot read the header file " + GetInputFileName());

    const Sections ini = ParseIni(text);
    const std::string dataFormat = Get(ini, "Common Infos", "DataFormat");
    if (!dataFormat.empty() && dataFormat != "BINARY")
        Fail("Unsupported DataFormat '" + dataFormat + "' (only BINARY data can be read).");
    const std::string dataName = Get(ini, "Common Infos", "DataFile");
    if (dataName.empty())
        Fail("The header names no DataFile.");
    m_dataFile = Beside(dataName, "data file");
    const std::string markerName = Get(ini, "Common Infos", "MarkerFile");
    m_markerFile = markerName.empty() ? std::string() : Beside(markerName, "marker file");

    const std::string orientation = Get(ini, "Common Infos", "DataOrientation");
    if (orientation != "MULTIPLEXED" && orientation != "VECTORIZED" && !orientation.empty())
        Fail("Unknown DataOrientation '" + orientation + "'.");
    m_vectorized = orientation == "VECTORIZED";
    const std::string format = Get(ini, "Binary Infos", "BinaryFormat");
    if (format == "INT_16" || format.empty())
        m_format = kInt16, m_bytes = 2;
    else if (format == "UINT_16")
        m_format = kUInt16, m_bytes = 2;
    else if (format == "INT_32")
        m_format = kInt32, m_bytes = 4;
    else if (format == "IEEE_FLOAT_32")
        m_format = kFloat32, m_bytes = 4;
    else
        Fail("Unknown BinaryFormat '" + format + "'.");
    m_bigEndian = Get(ini, "Binary Infos", "UseBigEndianOrder") == "YES";

    double channels = 0;
    if (!ParseReal(Get(ini, "Common Infos", "NumberOfChannels"), channels) || channels < 1 || channels > 65536 ||
        channels != std::floor(channels))
        Fail("Invalid NumberOfChannels '" + Get(ini, "Common Infos", "NumberOfChannels") + "'.");
    SetNumChans(static_cast<int>(channels));
    const auto channelInfos = ini.find("Channel Infos");
    ReadChannels(channelInfos == ini.end() ? std::map<std::string, std::string>() : channelInfos->second);

    FILE* fp = OpenInputFile(m_dataFile);
    if (!fp)
        Fail("Cannot open the data file " + m_dataFile);
    SetTimeBase(ini, FileLength(fp));
}

void BrainVision::ReadChannels(const std::map<std::string, std::string>& channels)
{
    m_factors.assign(static_cast<size_t>(GetNumChans()), 1e-6f);
    for (int c = 0; c < GetNumChans(); ++c) {
        const auto entry = channels.find("Ch" + std::to_string(c + 1));
        if (entry == channels.end())
            continue;
        const std::vector<std::string> f = Fields(entry->second);
        std::string name = f.empty() ? std::string() : f[0];
        if (!name.empty())
            SetChanName(c, name);
        double resolution = 1;
        if (f.size() > 2 && !TrimBlanks(f[2]).empty() && !ParseReal(f[2], resolution))
            Fail("Invalid resolution '" + f[2] + "' of channel " + std::to_string(c + 1) + ".");
        std::string unit = f.size() > 3 ? TrimBlanks(f[3]) : std::string();
        const double volts = VoltsPerUnit(unit);
        m_factors[static_cast<size_t>(c)] = static_cast<float>(resolution * (volts > 0 ? volts : 1.0));
        if (volts > 0)
            unit = "V";
        SetChanUnit(c, unit);
        SetChanType(c, volts > 0 ? kChanEEG : 0);
        SetChanScale(c, m_factors[static_cast<size_t>(c)]);
    }
}

void BrainVision::SetTimeBase(const Sections& ini, long long dataBytes)
{
    double interval = 0;
    if (!ParseReal(Get(ini, "Common Infos", "SamplingInterval"), interval) || !(interval > 0) ||
        !(static_cast<float>(interval * 1e-6) > 0) || !std::isfinite(static_cast<float>(interval * 1e-6)))
        Fail("Invalid SamplingInterval '" + Get(ini, "Common Infos", "SamplingInterval") + "'.");
    const long long sliceBytes = static_cast<long long>(GetNumChans()) * m_bytes;
    const long long held = dataBytes / sliceBytes;
    double declared = -1;
    const std::string points = Get(ini, "Common Infos", "DataPoints");
    if (!points.empty() && (!ParseReal(points, declared) || declared < 0))
        Fail("Invalid DataPoints '" + points + "'.");
    if (declared > static_cast<double>(held))
        Fail("The data file " + m_dataFile + " holds " + std::to_string(dataBytes) + " bytes, fewer than DataPoints=" +
             points + " needs.");
    m_points = declared >= 0 ? static_cast<long long>(declared) : held;
    if (m_points > 0x7FFFFFFF)
        Fail("The recording holds more than 2147483647 slices.");
    SetSampleRate(static_cast<float>(interval * 1e-6), 1);
    SetNumSlices(static_cast<int>(m_points));
    double segment = 0;
    const bool segmented = Get(ini, "Common Infos", "SegmentationType") == "MARKERBASED" &&
                           ParseReal(Get(ini, "Common Infos", "SegmentDataPoints"), segment) && segment >= 1 &&
                           segment <= static_cast<double>(std::max(1LL, m_points));
    SetRunType(segmented ? kRunMultiEpoch : kRunContinuous);
    SetEpochSlices(segmented ? static_cast<int>(segment) : static_cast<int>(m_points));
    SetNumEpochs(segmented ? static_cast<int>(m_points / static_cast<long long>(segment)) : 1);
    SetValidEpochCnt(GetNumEpochs());
}

int BrainVision::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "BrainVision");
    const long channels = GetNumChans();
    FILE* fp = GetInputFilePointer();
    // Every sample format and byte order through one tiled conversion.
    auto convert = [&](const uint8_t* src, size_t stride, long long samples, size_t rowCount, float* const* rows,
                       const float* factors) {
        const std::vector<float> none(rowCount, 0.0f);
        auto run = [&](auto decode) {
            Deinterleave(src, static_cast<size_t>(samples), rowCount, static_cast<size_t>(m_bytes), stride, rows,
                         none.data(), factors, decode);
        };
        const bool be = m_bigEndian;
        switch (m_format) {
        case kInt16: return run([be](const uint8_t* p) { return static_cast<float>(static_cast<int16_t>(be ? LoadU16BE(p) : LoadU16LE(p))); });
        case kUInt16: return run([be](const uint8_t* p) { return static_cast<float>(be ? LoadU16BE(p) : LoadU16LE(p)); });
        case kInt32: return run([be](const uint8_t* p) { return static_cast<float>(static_cast<int32_t>(be ? LoadU32BE(p) : LoadU32LE(p))); });
        default: return run([be](const uint8_t* p) { return BitsToFloat(be ? LoadU32BE(p) : LoadU32LE(p)); });
        }
    };
    auto readAt = [&](long long offset, size_t bytes) {
        m_raw.resize(bytes);
        if (ReadAt(fp, offset, m_raw.data(), bytes) != bytes)
            throw ecError("[BrainVision::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    };
    const long long sliceBytes = static_cast<long long>(channels) * m_bytes;
    const long long perBlock = std::max<long long>(1, static_cast<long long>(kRawBlockBytes) / sliceBytes);
    for (long long done = 0; done < n;) {
        const long long take = std::min(perBlock, n - done);
        if (!m_vectorized) {
            readAt((first + done) * sliceBytes, static_cast<size_t>(take * sliceBytes));
            std::vector<float*> rows(static_cast<size_t>(channels));
            for (long c = 0; c < channels; ++c)
                rows[static_cast<size_t>(c)] = data[c] + done;
            convert(m_raw.data(), static_cast<size_t>(sliceBytes), take, static_cast<size_t>(channels), rows.data(),
                    m_factors.data());
        } else {
            for (long c = 0; c < channels; ++c) {
                readAt((c * m_points + first + done) * m_bytes, static_cast<size_t>(take * m_bytes));
                float* row = data[c] + done;
                convert(m_raw.data(), static_cast<size_t>(m_bytes), take, 1, &row, &m_factors[static_cast<size_t>(c)]);
            }
        }
        done += take;
    }
    return static_cast<int>(n);
}

int BrainVision::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    std::string text;
    if (!events || m_markerFile.empty() || !ReadText(m_markerFile, text))
        return 0;  // a recording without its marker file simply has no markers
    const Sections ini = ParseIni(text);
    const auto markers = ini.find("Marker Infos");
    if (markers == ini.end())
        return 0;
    std::vector<std::pair<long, ecEvent>> numbered;
    for (const auto& [key, value] : markers->second) {
        if (key.compare(0, 2, "Mk") != 0)
            continue;
        const std::vector<std::string> f = Fields(value);
        double position = 0, size = 0;
        const bool positionOk = f.size() >= 3 && ParseReal(f[2], position) && position >= 1 && position <= 2147483647.0;
        const bool sizeOk = f.size() <= 3 || TrimBlanks(f[3]).empty() || (ParseReal(f[3], size) && size >= 0 && size <= 2147483647.0);
        if (!positionOk || !sizeOk)
            throw ecError("[BrainVision::InitialEventList] Invalid marker " + key + "=" + value);
        ecEvent e;
        e.SetBegin(static_cast<long>(position) - 1);
        if (f[0] == "New Segment") {
            e.SetSegmentBoundaryDefaults();
        } else {
            e.SetEventName(f[1].empty() ? f[0] : f[0] + "/" + f[1]);
            e.SetEventCode(TrailingNumber(f[1]));
            e.SetKind(f[0] == "Response" ? 3 : 2);
            e.SetEnd(e.GetBegin() + static_cast<long>(size));
        }
        numbered.emplace_back(std::atol(key.c_str() + 2), e);
    }
    // Markers in their numbered order (the map sorts "Mk10" before "Mk2").
    std::stable_sort(numbered.begin(), numbered.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : numbered)
        events->AppendOneEvent(entry.second);
    return static_cast<int>(numbered.size());
}
