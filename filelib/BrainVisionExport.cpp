#include "filelib/BrainVisionExport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"
#include "filelib/ExportKit.h"

namespace {

constexpr const char* kWriter = "WriteBrainVisionCopy";

struct Channel {
    int chan = 0;
    std::string name, unit;
    double toUnit = 1;      // delivered value x toUnit = value in the written unit
    double resolution = 1;  // INT_16: written unit per count
    std::string resolutionText = "1";
    exportkit::GridSurvey survey;
};

std::string Escaped(std::string text)
{
    for (size_t at; (at = text.find(',')) != std::string::npos;)
        text.replace(at, 1, "\\1");
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::replace(text.begin(), text.end(), '\r', ' ');
    return text;
}

std::string BaseName(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void ChooseResolution(Channel& c, std::vector<std::string>& warnings)
{
    const exportkit::GridSurvey& g = c.survey;
    if (g.Fits(-32768, 32767) && std::fabs(g.offset) <= 1e-3 * g.scale) {
        c.resolution = g.Step(c.toUnit);
    } else {
        const double largest = g.Empty() ? 0 : std::max(std::fabs(g.lo), std::fabs(g.hi)) * c.toUnit;
        c.resolution = largest > 0 ? largest / 32767 : 1;
        warnings.push_back("channel " + c.name + ": no 16-bit count holds its samples at the source's step; "
                           "written at a resolution of " + std::to_string(c.resolution) + " " + c.unit);
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", c.resolution);
    c.resolutionText = text;
    c.resolution = std::strtod(text, nullptr);
}

class BrainVisionWriter {
public:
    BrainVisionWriter(CFilelib& source, const exportkit::Window& window, bool int16,
                      std::vector<std::string>& warnings)
        : m_source(source), m_window(window), m_int16(int16), m_warnings(warnings)
    {
    }
    int Write(const std::string& header, ecProgressDlg* progress);

private:
    void DescribeChannels();
    bool WriteSamples(FILE* out, ecProgressDlg* progress);
    void Encode(const exportkit::WindowReader& reader, std::vector<uint8_t>& bytes) const;
    std::string HeaderText(const std::string& dataName, const std::string& markerName) const;
    std::string MarkerText(const std::string& dataName) const;

    CFilelib& m_source;
    const exportkit::Window& m_window;
    bool m_int16;
    std::vector<std::string>& m_warnings;
    std::vector<Channel> m_channels;
};

void BrainVisionWriter::DescribeChannels()
{
    for (int c : m_window.channels) {
        Channel ch;
        ch.chan = c;
        ch.name = ChannelName(m_source, c);
        ch.unit = ChannelUnit(m_source, c);
        ch.survey = exportkit::GridSurvey(m_source, c);
        if (ch.unit == "V" && m_int16) {
            ch.unit = "\xC2\xB5V";
            ch.toUnit = 1e6;
        }
        if (ch.unit.empty())
            ch.unit = "n/a";
        m_channels.push_back(ch);
    }
}

void BrainVisionWriter::Encode(const exportkit::WindowReader& reader, std::vector<uint8_t>& bytes) const
{
    const size_t n = static_cast<size_t>(reader.Slices()), channels = m_channels.size(), width = m_int16 ? 2 : 4;
    bytes.assign(n * channels * width, 0);
    for (size_t c = 0; c < channels; ++c) {
        const Channel& ch = m_channels[c];
        const float* row = reader.Row(c);
        for (size_t s = 0; s < n; ++s) {
            uint8_t* p = &bytes[(s * channels + c) * width];
            uint32_t bits = FloatToBits(row[s]);
            if (m_int16) {
                const double count = std::round(row[s] * ch.toUnit / ch.resolution);
                bits = static_cast<uint32_t>(static_cast<int32_t>(std::isfinite(count) ? std::clamp(count, -32768.0, 32767.0) : 0));
            }
            for (size_t b = 0; b < width; ++b)
                p[b] = static_cast<uint8_t>((bits >> (8 * b)) & 0xFF);
        }
    }
}

bool BrainVisionWriter::WriteSamples(FILE* out, ecProgressDlg* progress)
{
    exportkit::WindowReader reader(m_source, m_window, kWriter, progress, m_int16 ? 2 : 1);
    if (m_int16) {
        while (reader.Next())
            for (size_t c = 0; c < m_channels.size(); ++c)
                m_channels[c].survey.Add(reader.Row(c), reader.Slices());
        for (Channel& ch : m_channels)
            ChooseResolution(ch, m_warnings);
        reader.Rewind();
    }
    std::vector<uint8_t> bytes;
    while (reader.Next()) {
        Encode(reader, bytes);
        if (std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size())
            exportkit::Fail(kWriter, "Cannot write the samples.");
    }
    return !reader.Cancelled();
}

std::string BrainVisionWriter::HeaderText(const std::string& dataName, const std::string& markerName) const
{
    std::ostringstream h;
    char interval[32];
    std::snprintf(interval, sizeof interval, "%.10g", 1e6 / exportkit::RecordingRate(m_source));
    h << "Brain Vision Data Exchange Header File Version 1.0\r\n; Written by filelib\r\n\r\n[Common Infos]\r\n"
      << "Codepage=UTF-8\r\nDataFile=" << dataName << "\r\nMarkerFile=" << markerName << "\r\n"
      << "DataFormat=BINARY\r\nDataOrientation=MULTIPLEXED\r\nNumberOfChannels=" << m_channels.size() << "\r\n"
      << "DataPoints=" << m_window.count << "\r\nSamplingInterval=" << interval << "\r\n\r\n[Binary Infos]\r\n"
      << "BinaryFormat=" << (m_int16 ? "INT_16" : "IEEE_FLOAT_32") << "\r\n\r\n[Channel Infos]\r\n";
    for (size_t c = 0; c < m_channels.size(); ++c)
        h << "Ch" << c + 1 << "=" << Escaped(m_channels[c].name) << ",," << m_channels[c].resolutionText << ","
          << m_channels[c].unit << "\r\n";
    return h.str();
}

std::string BrainVisionWriter::MarkerText(const std::string& dataName) const
{
    std::ostringstream m;
    m << "Brain Vision Data Exchange Marker File, Version 1.0\r\n\r\n[Common Infos]\r\nCodepage=UTF-8\r\nDataFile="
      << dataName << "\r\n\r\n[Marker Infos]\r\n";
    int number = 0;
    auto marker = [&](const std::string& type, const std::string& description, long begin, long size) {
        m << "Mk" << ++number << "=" << Escaped(type) << "," << Escaped(description) << "," << begin + 1 << ","
          << size << ",0";
    };
    const std::string& stated = m_source.GetRecordingInfo().time;
    std::string date, time;
    if (exportkit::WindowStart(m_source, m_window, date, time)) {
        const std::string fraction = m_window.first == 0 && stated.size() > 9 ? stated.substr(9, 6) : "";
        marker("New Segment", "", 0, 1);
        m << "," << date.substr(0, 4) << date.substr(5, 2) << date.substr(8, 2) << time.substr(0, 2)
          << time.substr(3, 2) << time.substr(6, 2) << fraction << std::string(6 - fraction.size(), '0') << "\r\n";
    }
    for (long start : exportkit::EpochStarts(m_source, m_window)) {
        if (start > 0 || number == 0) {
            marker("New Segment", "", start, 1);
            m << "\r\n";
        }
    }
    for (const ecEvent& e : exportkit::WindowEvents(m_source, m_window)) {
        const std::string name = e.GetEventName();
        const size_t slash = e.IsSegmentBoundary() ? std::string::npos : name.find('/');
        marker(e.IsSegmentBoundary() ? "New Segment" : name.substr(0, slash),
               slash == std::string::npos ? "" : name.substr(slash + 1), e.GetBegin(),
               std::max(1L, e.GetEnd() - e.GetBegin()));
        m << "\r\n";
    }
    return m.str();
}

int BrainVisionWriter::Write(const std::string& header, ecProgressDlg* progress)
{
    if (!(exportkit::RecordingRate(m_source) > 0))
        exportkit::Fail(kWriter, "The recording states no sample rate.");
    if (m_window.channels.empty())
        exportkit::Fail(kWriter, "The recording has no channel to write.");
    DescribeChannels();
    const std::vector<std::string> files = BrainVisionFilesOf(header);
    // The header is renamed into place last: the files are a recording only once it exists.
    exportkit::StagedFiles staged(kWriter, {files[2], files[1], files[0]});
    if (!staged.WriteBinary(0, [&](FILE* out) { return WriteSamples(out, progress); }))
        return -1;
    const std::string dataName = BaseName(files[2]), markerName = BaseName(files[1]);
    staged.WriteText(1, MarkerText(dataName));
    staged.WriteText(2, HeaderText(dataName, markerName));
    staged.Commit();
    return static_cast<int>(m_window.count);
}

}  // namespace

std::vector<std::string> BrainVisionFilesOf(const std::string& header)
{
    const std::string extension = GetFileNameExtension(header);
    const std::string base = extension.empty() ? header : header.substr(0, header.size() - extension.size() - 1);
    return {header, base + ".vmrk", base + ".eeg"};
}

int WriteBrainVisionCopy(CFilelib& source, const std::string& header, bool int16, const ecSelection& selection,
                         ecProgressDlg* progress, std::vector<std::string>& warnings)
{
    const exportkit::Window window = exportkit::Resolve(source, selection, kWriter);
    return BrainVisionWriter(source, window, int16, warnings).Write(header, progress);
}
