#include "filelib/readers/CFWB.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include "companion/ByteCursor.h"
#include "companion/Units.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kFileHeaderBytes = 68;
constexpr size_t kChannelHeaderBytes = 96;

enum { kDouble = 1, kFloat = 2, kInt16 = 3 };

ecSampleType TypeOf(int format)
{
    return format == kDouble ? ecSampleType::Float64 : format == kFloat ? ecSampleType::Float32 : ecSampleType::Int16;
}

}  // namespace

ecADInst_CFWB::ecADInst_CFWB(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ecADInst_CFWB::Fail(const std::string& text) { FailClosing("ecADInst_CFWB::Initialize", text); }

void ecADInst_CFWB::Initialize(int)
{
    const std::string name = GetInputFileName();
    long long fileSize = 0;
    FILE* fp = OpenForReading("ecADInst_CFWB::Initialize", fileSize, "CFWB", "CFWB");
    SetFileMFR(kMfrCFWB);
    uint8_t head[kFileHeaderBytes];
    if (ReadAt(fp, 0, head, kFileHeaderBytes) != kFileHeaderBytes)
        Fail("The file header of " + name + " is cut short.");
    const ByteCursor h(head, kFileHeaderBytes);
    const double interval = h.f64le(8);
    // The start: year, month, day, hour, minute as int32 from byte 16, then the second (double).
    m_recordingInfo.date = IsoDate(h.i32le(16), std::to_string(h.i32le(20)), h.i32le(24));
    if (!m_recordingInfo.date.empty())
        m_recordingInfo.time = ClockTime(h.i32le(28), h.i32le(32), h.f64le(36));
    const int channels = h.i32le(52), samples = h.i32le(56), timeColumn = h.i32le(60), format = h.i32le(64);
    if (!(interval > 0) || !std::isfinite(interval) || !(1 / interval > 0) || !std::isfinite(static_cast<float>(1 / interval)))
        Fail("The sample interval is " + std::to_string(interval) + " s.");
    if (format < kDouble || format > kInt16)
        Fail("Unknown data format " + std::to_string(format) + " (1 double, 2 float, 3 int16).");
    if (timeColumn != 0 && timeColumn != 1)
        Fail("The time-column flag is " + std::to_string(timeColumn) + ".");
    if (channels < 1 || samples < 0)
        Fail("The header declares " + std::to_string(channels) + " channels of " + std::to_string(samples) + " samples.");
    const long long dataStart = static_cast<long long>(kFileHeaderBytes) + static_cast<long long>(channels) * kChannelHeaderBytes;
    const int width = SampleWidth(TypeOf(format));
    const long long stored = static_cast<long long>(channels) + timeColumn;
    if (samples > 0 && stored * width > (LLONG_MAX - dataStart) / samples)
        Fail("The header declares more data than any file can hold.");
    const long long needed = dataStart + stored * width * samples;
    if (needed > fileSize)
        Fail("The file holds " + std::to_string(fileSize) + " bytes; the header implies " + std::to_string(needed) + ".");

    std::vector<uint8_t> headers(static_cast<size_t>(dataStart) - kFileHeaderBytes);
    if (ReadAt(fp, kFileHeaderBytes, headers.data(), headers.size()) != headers.size())
        Fail("The channel headers of " + name + " cannot be read.");
    ecDataLayout layout = ecDataLayout::Multiplexed(TypeOf(format), false, static_cast<int>(stored), channels,
                                                    dataStart + timeColumn * width, samples);
    SetNumChans(channels);
    for (int c = 0; c < channels; ++c) {
        const ByteCursor ch(headers.data() + static_cast<size_t>(c) * kChannelHeaderBytes, kChannelHeaderBytes);
        const std::string unit = TrimBlanks(ch.str(32, 32));
        const double scale = format == kInt16 ? ch.f64le(64) : 1, offset = format == kInt16 ? ch.f64le(72) : 0;
        if (!std::isfinite(scale) || !std::isfinite(offset))
            Fail("Channel " + std::to_string(c + 1) + " has a scale of " + std::to_string(scale) + " and an offset of " +
                 std::to_string(offset) + ".");
        const double volts = VoltsPerUnit(unit);
        const double gain = scale * (volts > 0 ? volts : 1.0);
        layout.SetConversion(c, gain, offset);
        DescribeChannel(c, TrimBlanks(ch.str(0, 32)), volts > 0 ? kChanEEG : 0, volts > 0 ? "V" : unit,
                        static_cast<float>(gain), static_cast<float>(offset * gain));
    }
    SetContinuousTimeBase(1 / interval, samples);
    Engine().SetLayout(std::move(layout));
}

int ecADInst_CFWB::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecADInst_CFWB");
    if (ReadRows(data, first, n) != n)
        throw ecError("[ecADInst_CFWB::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}
