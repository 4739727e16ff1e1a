#include "filelib/readers/WinDaq.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <tuple>

#include "companion/ByteCursor.h"
#include "companion/Units.h"
#include "companion/Utility.h"

namespace {

constexpr int kFixedHeaderBytes = 112;  // the 33 leading elements and element 35 (8001H)
constexpr int kInfoBytes = 36;
constexpr long long kSegmentBytes = 1 << 20;  // normal files are decoded in runs of about this size

// WinDaq spells volts as a tag ("VOLT", "Volt"); the other voltage spellings as usual.
double VoltsOf(const std::string& tag)
{
    if (const double volts = VoltsPerUnit(tag); volts > 0)
        return volts;
    std::string unit = tag;
    ToUpper(unit);
    return unit == "VOLT" || unit == "VOLTS" ? 1.0 : 0.0;
}

}  // namespace

ecDataq::ecDataq(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ecDataq::Fail(const std::string& text) { FailClosing("ecDataq::Initialize", text); }

void ecDataq::Initialize(int)
{
    const std::string name = GetInputFileName();
    long long fileSize = 0;
    FILE* fp = OpenForReading("ecDataq::Initialize", fileSize);
    // No signature: the caller chose this format, so the file is claimed at once.
    SetFileMFR(kMfrDataq);
    uint8_t fixed[kFixedHeaderBytes];
    if (ReadAt(fp, 0, fixed, sizeof fixed) != sizeof fixed)
        Fail("The header of " + name + " is cut short.");
    const ByteCursor f(fixed, sizeof fixed);
    m_channels = f.u8(1) ? f.u8(0) : f.u8(0) & 0x1F;
    const int infoAt = f.u8(4), infoBytes = f.u8(5), headBytes = f.u16le(6);
    const long long dataBytes = f.u32le(8), trailerBytes = f.u32le(12), annotationBytes = f.u16le(16);
    const double interval = f.f64le(28);
    const int flags = f.u16le(100);
    // Element 13: when acquisition opened the file, in seconds since 1970 (UTC).
    m_recordingInfo = {};
    if (const uint32_t opened = f.u32le(36); opened > 0)
        std::tie(m_recordingInfo.date, m_recordingInfo.time) = UtcDateAndTime(opened);
    if (m_channels < 1)
        Fail("The header declares no channel.");
    if (infoBytes < kInfoBytes || infoAt < 110 || infoAt + static_cast<long long>(m_channels) * infoBytes > headBytes - 2)
        Fail("The channel table (" + std::to_string(m_channels) + " entries of " + std::to_string(infoBytes) +
             " bytes at " + std::to_string(infoAt) + ") does not fit a header of " + std::to_string(headBytes) + " bytes.");
    if (!(interval > 0) || !std::isfinite(static_cast<float>(1 / interval)) || !(static_cast<float>(1 / interval) > 0))
        Fail("The sample interval is " + std::to_string(interval) + " s.");
    const long long sliceBytes = 2LL * m_channels;
    m_dataStart = headBytes;
    m_slices = dataBytes / sliceBytes;
    if (m_dataStart + dataBytes + trailerBytes + annotationBytes > fileSize)
        Fail("The file holds " + std::to_string(fileSize) + " bytes; the header implies " +
             std::to_string(m_dataStart + dataBytes + trailerBytes + annotationBytes) + ".");
    if (m_slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");
    std::vector<uint8_t> head(static_cast<size_t>(headBytes));
    if (ReadAt(fp, 0, head.data(), head.size()) != head.size())
        Fail("The header of " + name + " cannot be read.");
    std::vector<std::string> names;
    ReadTrailer(m_dataStart + dataBytes, trailerBytes, annotationBytes, names);
    // Normal files go through DecodeSegment, which drops the flag bits of runs of slices laid
    // out as in the file; HiRes samples are read as they are.
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Int16, false, m_channels, m_channels, m_dataStart, m_slices);
    if (!(flags & 0x2)) {
        layout.decodedSegments = true;
        layout.segmentSlices = std::max(1LL, kSegmentBytes / sliceBytes);
        layout.segmentStride = layout.segmentSlices * sliceBytes;
    }
    ReadChannels(head, infoAt, infoBytes, (flags & 0x4000) != 0, names, layout);
    SetContinuousTimeBase(1 / interval, m_slices);
    Engine().SetLayout(std::move(layout));
}

// Each channel: calibration slope at +8 and intercept at +16 (doubles), the unit tag at +24,
// the sample-rate divisor of packed files at +31.
void ecDataq::ReadChannels(const std::vector<uint8_t>& head, int infoAt, int infoBytes, bool packed,
                           const std::vector<std::string>& names, ecDataLayout& layout)
{
    SetNumChans(m_channels);
    for (int c = 0; c < m_channels; ++c) {
        const ByteCursor info(head.data() + infoAt + static_cast<size_t>(c) * infoBytes, kInfoBytes);
        const double slope = info.f64le(8), intercept = info.f64le(16);
        const std::string which = " of channel " + std::to_string(c + 1);
        if (packed && info.u8(31) > 1)
            Fail("Packed files with channels at different rates are not supported (divisor " +
                 std::to_string(info.u8(31)) + which + ").");
        if (!std::isfinite(slope) || slope == 0 || !std::isfinite(intercept))
            Fail("Invalid calibration" + which + ": slope " + std::to_string(slope) + ", intercept " +
                 std::to_string(intercept) + ".");
        const std::string unit = TrimBlanks(info.str(24, 4));
        const double volts = VoltsOf(unit);
        // slope x (sample / 4) + intercept, as (sample + shift) x gain
        const double gain = slope / 4 * (volts > 0 ? volts : 1.0);
        layout.SetConversion(c, gain, 4 * intercept / slope);
        const std::string label = static_cast<size_t>(c) < names.size() && !names[static_cast<size_t>(c)].empty()
                                      ? names[static_cast<size_t>(c)]
                                      : "CH" + std::to_string(c + 1);
        DescribeChannel(c, label, volts > 0 ? kChanEEG : 0, volts > 0 ? "V" : unit, static_cast<float>(gain),
                        static_cast<float>(intercept * (volts > 0 ? volts : 1.0)));
    }
}

// The trailer's 32-bit words: a marker's slice (negative: no time stamp follows; otherwise its
// time stamp comes next), then, when the next word is a comment pointer (bit 31 set and beyond
// any marker), the comment's offset from the annotations' start. An entry of slice 0 with a
// zero time stamp and no comment (what HiRes files hold when nothing was marked) is no marker. Channel names open the
// annotations; the comments follow them up to the end of the file.
void ecDataq::ReadTrailer(long long at, long long trailerBytes, long long annotationBytes, std::vector<std::string>& names)
{
    FILE* fp = GetInputFilePointer();
    const long long textBytes = std::max(annotationBytes, FileLength(fp) - at - trailerBytes);
    std::vector<uint8_t> trailer(static_cast<size_t>(trailerBytes)), text(static_cast<size_t>(textBytes));
    if (ReadAt(fp, at, trailer.data(), trailer.size()) != trailer.size() ||
        ReadAt(fp, at + trailerBytes, text.data(), text.size()) != text.size())
        Fail("The trailer cannot be read.");
    const auto textAt = [&](size_t offset) {
        if (offset >= text.size())
            Fail("An event-marker comment lies beyond the end of the file.");
        const auto end = std::find(text.begin() + static_cast<long>(offset), text.end(), 0);
        return std::string(text.begin() + static_cast<long>(offset), end);
    };
    for (size_t offset = 0; offset < static_cast<size_t>(annotationBytes) && names.size() < static_cast<size_t>(m_channels);) {
        names.push_back(textAt(offset));
        offset += names.back().size() + 1;
    }
    m_markers.clear();
    const ByteCursor words(trailer.data(), trailer.size());
    const size_t n = trailer.size() / 4;
    for (size_t i = 0; i < n;) {
        const long long pointer = words.i32le(4 * i++);
        const bool stamped = pointer >= 0 && i < n;
        const bool empty = stamped && pointer == 0 && words.i32le(4 * i) == 0;  // no position, no time: no marker
        i += stamped ? 1 : 0;
        Marker m{std::llabs(pointer), ""};
        if (i < n && words.i32le(4 * i) <= -std::max(1LL, m_slices))
            m.comment = textAt(words.u32le(4 * i++) & 0x7FFFFFFF);
        if (m.slice >= m_slices)
            Fail("Event marker " + std::to_string(m_markers.size() + 1) + " at slice " + std::to_string(m.slice) +
                 " lies beyond the " + std::to_string(m_slices) + " slices.");
        if (!empty || !m.comment.empty())
            m_markers.push_back(m);
    }
}

const uint8_t* ecDataq::DecodeSegment(long long segment)
{
    const ecDataLayout& layout = Engine().Layout();
    const long long first = segment * layout.segmentSlices;
    const long long bytes = std::min(layout.segmentSlices, m_slices - first) * 2 * m_channels;
    m_segment.resize(static_cast<size_t>(bytes));
    if (bytes <= 0 || ReadAt(GetInputFilePointer(), m_dataStart + first * 2 * m_channels, m_segment.data(), m_segment.size()) !=
                          m_segment.size())
        return nullptr;
    for (size_t i = 0; i < m_segment.size(); i += 2)
        m_segment[i] &= 0xFC;  // the flag bits of the little-endian word
    return m_segment.data();
}

int ecDataq::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecDataq");
    if (ReadRows(data, first, n) != n)
        throw ecError("[ecDataq::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int ecDataq::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    for (size_t k = 0; k < m_markers.size(); ++k)
        events->AppendOneEvent(MarkerEvent(static_cast<long>(m_markers[k].slice),
                                           m_markers[k].comment.empty() ? "Marker" : m_markers[k].comment,
                                           static_cast<int>(k + 1)));
    return static_cast<int>(m_markers.size());
}
