#include "filelib/readers/EGI_Simple.h"

#include <algorithm>
#include <climits>
#include <cstdio>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kFixedBytes = 30;
constexpr long long kSegmentHeaderBytes = 6;  // category (int16), time stamp (int32)

bool Segmented(int version) { return version == 3 || version == 5 || version == 7; }

int BytesOf(int version) { return version <= 3 ? 2 : version <= 5 ? 4 : 8; }

}  // namespace

EGI_Simple::EGI_Simple(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void EGI_Simple::Fail(const std::string& text) { FailClosing("EGI_Simple::Initialize", text); }

void EGI_Simple::Initialize(int)
{
    const std::string name = GetInputFileName();
    long long fileSize = 0;
    FILE* fp = OpenForReading("EGI_Simple::Initialize", fileSize);
    // The header may be long (categories, event codes), but never beyond 64 KiB of fields.
    std::vector<uint8_t> head(static_cast<size_t>(std::clamp<long long>(fileSize, 0, 1 << 16)));
    if (head.size() < kFixedBytes || ReadAt(fp, 0, head.data(), head.size()) != head.size())
        Fail("Not an EGI simple binary file: " + name);
    ByteCursor h(head.data(), head.size());
    m_version = h.i32be(0);
    const int month = h.i16be(6), day = h.i16be(8), hour = h.i16be(10), minute = h.i16be(12), second = h.i16be(14);
    const bool signature = m_version >= 2 && m_version <= 7 && month >= 1 && month <= 12 && day >= 1 && day <= 31 &&
                           hour >= 0 && hour < 24 && minute >= 0 && minute < 60 && second >= 0 && second < 61;
    if (!signature)
        Fail("Not an EGI simple binary file: " + name);
    SetFileMFR(kMfrEGISimple);
    char start[40];
    std::snprintf(start, sizeof start, "%02d:%02d:%02d.%03d", hour, minute, second, h.i32be(16) % 1000);
    m_recordingInfo.date = IsoDate(h.i16be(4), std::to_string(month), day);
    m_recordingInfo.time = start;

    const int rate = h.i16be(20);
    m_eegChannels = h.i16be(22);
    const int bits = h.i16be(26), range = h.i16be(28);
    if (rate <= 0)
        Fail("The sampling rate is " + std::to_string(rate) + ".");
    if (m_eegChannels <= 0)
        Fail("The header declares " + std::to_string(m_eegChannels) + " channels.");
    m_bytes = BytesOf(m_version);
    m_microvoltsPerUnit = m_bytes == 2 && bits > 0 && bits < 31 && range > 0 ? range / static_cast<double>(1LL << bits) : 1.0;

    h.seek(kFixedBytes);
    m_categories.clear();
    std::vector<std::string> codes;
    try {
        if (Segmented(m_version)) {
            const int categories = h.next_i16be();
            for (int k = 0; k < categories; ++k)
                m_categories.push_back(h.next_str(h.next_u8()));
            m_segments = h.next_i16be();
        }
        m_segmentSamples = h.next_i32be();
        m_eventChannels = h.next_i16be();
        for (int e = 0; e < m_eventChannels; ++e) {
            std::string code = h.next_str(4);
            codes.push_back(code.erase(code.find_last_not_of(' ') + 1));
        }
    } catch (const ecError&) {
        Fail("The header of " + name + " is cut short.");
    }
    if (m_segments < 0 || m_segmentSamples < 0 || m_eventChannels < 0)
        Fail("The header declares a negative number of segments, samples or events.");
    if (Segmented(m_version) && m_segmentSamples == 0 && m_segments > 0)
        Fail("The header declares segments of 0 samples.");
    SetNumChans(m_eegChannels + m_eventChannels);
    for (int e = 0; e < m_eventChannels; ++e) {
        SetChanName(m_eegChannels + e, codes[static_cast<size_t>(e)]);
        SetChanType(m_eegChannels + e, kChanTrigger);
    }
    m_dataStart = static_cast<long long>(h.tell());
    const long long sliceBytes = static_cast<long long>(m_eegChannels + m_eventChannels) * m_bytes;
    const long long segmentBytes =
        (Segmented(m_version) ? kSegmentHeaderBytes : 0) + m_segmentSamples * sliceBytes;
    if (m_segments > 0 && segmentBytes > (LLONG_MAX - m_dataStart) / m_segments)
        Fail("The header declares more data than any file can hold.");
    const long long needed = m_dataStart + m_segments * segmentBytes;
    if (needed > fileSize)
        Fail("The file holds " + std::to_string(fileSize) + " bytes; the header implies " + std::to_string(needed) + ".");
    const long long slices = m_segments * m_segmentSamples;
    if (slices > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");

    for (int c = 0; c < m_eegChannels; ++c)
        DescribeChannel(c, "E" + std::to_string(c + 1), kChanEEG, "V", static_cast<float>(m_microvoltsPerUnit * 1e-6));
    if (Segmented(m_version))
        SetEpochTimeBase(rate, m_segmentSamples, m_segments, 0, false);
    else
        SetContinuousTimeBase(rate, slices);
    DescribeLayout(slices);
}

long long EGI_Simple::SliceOffset(long long slice) const
{
    const long long sliceBytes = static_cast<long long>(m_eegChannels + m_eventChannels) * m_bytes;
    if (!Segmented(m_version))
        return m_dataStart + slice * sliceBytes;
    const long long segment = slice / m_segmentSamples, within = slice % m_segmentSamples;
    return m_dataStart + segment * (kSegmentHeaderBytes + m_segmentSamples * sliceBytes) + kSegmentHeaderBytes +
           within * sliceBytes;
}

void EGI_Simple::DescribeLayout(long long slices)
{
    const int channels = m_eegChannels + m_eventChannels;
    const ecSampleType type = m_bytes == 2 ? ecSampleType::Int16 : m_bytes == 4 ? ecSampleType::Float32 : ecSampleType::Float64;
    ecDataLayout layout = ecDataLayout::Multiplexed(type, true, channels, channels, m_dataStart, slices);
    layout.exact = false;
    if (Segmented(m_version)) {
        layout.segmentSlices = m_segmentSamples;
        layout.segmentHeader = kSegmentHeaderBytes;
        layout.segmentStride = kSegmentHeaderBytes + m_segmentSamples * channels * m_bytes;
    }
    for (int c = 0; c < m_eegChannels; ++c)
        layout.SetConversion(c, m_microvoltsPerUnit * 1e-6, 0);
    Engine().SetLayout(std::move(layout));
}

int EGI_Simple::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "EGI_Simple");
    if (ReadRows(data, first, n) != n)
        throw ecError("[EGI_Simple::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int EGI_Simple::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    int appended = 0;
    if (Segmented(m_version)) {
        for (long long s = 0; s < m_segments; ++s) {
            uint8_t header[2];
            const long long at = SliceOffset(s * m_segmentSamples) - kSegmentHeaderBytes;
            const int category = ReadAt(GetInputFilePointer(), at, header, 2) == 2 ? static_cast<int16_t>(LoadU16BE(header)) : -1;
            const bool named = category >= 1 && static_cast<size_t>(category) <= m_categories.size();
            events->AppendOneEvent(SegmentBoundaryEvent(static_cast<long>(s * m_segmentSamples),
                                                        named ? m_categories[static_cast<size_t>(category) - 1] : ""));
            ++appended;
        }
    }
    if (m_eventChannels == 0)
        return appended;
    ecLabeledMatrix<float> block;
    for (int first = 0; first < GetNumSlices(); first += 5000) {
        const int n = ReadData(block, first, 5000);
        for (int t = 0; t < n; ++t) {
            for (int e = 0; e < m_eventChannels; ++e) {
                if (block[m_eegChannels + e][t] == 0.0f)
                    continue;
                std::string code;
                GetChanName(m_eegChannels + e, code);
                events->AppendOneEvent(MarkerEvent(first + t, code, e + 1));
                ++appended;
            }
        }
    }
    return appended;
}
