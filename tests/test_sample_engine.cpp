// The reading engine once for every sample type, byte order and arrangement: the readers on top of
// it test only what their format adds.
#include <gtest/gtest.h>

#include <cmath>

#include "filelib/SampleEngine.h"
#include "fixtures/Bytes.h"

namespace {

// Appends `value` as a sample of `type`, in the given byte order.
void Put(Bytes& b, ecSampleType type, bool bigEndian, double value)
{
    const int width = SampleWidth(type);
    uint64_t bits = 0;
    if (type == ecSampleType::Float32) {
        const float f = static_cast<float>(value);
        uint32_t u;
        std::memcpy(&u, &f, 4);
        bits = u;
    } else if (type == ecSampleType::Float64) {
        std::memcpy(&bits, &value, 8);
    } else {
        bits = static_cast<uint64_t>(static_cast<int64_t>(value));
    }
    for (int k = 0; k < width; ++k)
        b.u8(static_cast<uint8_t>(bits >> (8 * (bigEndian ? width - 1 - k : k))));
}

// Stored value of channel c at slice t: negative only where the type is signed, extreme
// values of the type at slice 1.
double Stored(ecSampleType type, int c, long long t)
{
    const bool unsignedType = type == ecSampleType::UInt8 || type == ecSampleType::UInt16;
    const double extreme[] = {-128, 255, -32768, 65535, -8388608, -2147483648.0, -3.25e30, -1.5e10};
    if (t == 1 && c == 0)
        return extreme[static_cast<int>(type)];
    return (unsignedType ? 100 : -50) + 7 * c + 3 * static_cast<double>(t);
}

struct File {
    TempDir dir;
    FILE* fp = nullptr;
    explicit File(const Bytes& b)
    {
        b.write(dir.path("data"));
        fp = std::fopen(dir.path("data").c_str(), "rb");
    }
    ~File() { std::fclose(fp); }
};

std::vector<std::vector<float>> ReadAll(ecSampleEngine& engine, FILE* fp, long long first, long long count,
                                        const float* factors = nullptr, const float* offsets = nullptr)
{
    std::vector<std::vector<float>> rows(engine.Layout().channels.size(), std::vector<float>(static_cast<size_t>(count)));
    std::vector<float*> out;
    for (auto& r : rows)
        out.push_back(r.data());
    ecReadOptions options;
    options.calFactors = factors;
    options.calOffsets = offsets;
    EXPECT_EQ(engine.Read(fp, out.data(), first, count, options), count);
    return rows;
}

const ecSampleType kTypes[] = {ecSampleType::Int8,  ecSampleType::UInt8, ecSampleType::Int16,   ecSampleType::UInt16,
                               ecSampleType::Int24, ecSampleType::Int32, ecSampleType::Float32, ecSampleType::Float64};
}  // namespace

// What the engine must deliver for a stored value: exact arithmetic in double rounded once, the
// other in float, then the calibration in float.
float Expected(double raw, bool exact, double gain, double shift, const float* factor, const float* offset)
{
    const float v = exact ? static_cast<float>((raw + shift) * gain)
                          : (static_cast<float>(raw) - static_cast<float>(shift)) * static_cast<float>(gain);
    return factor ? v * *factor + *offset : v;
}

TEST(SampleEngine, EveryTypeByteOrderArrangementAndArithmetic)
{
    // Eleven channels of 19 slices, read from slice 1: multiplexed reads move blocks of 8 x 8
    // (16-bit) or 4 x 4 samples, then the channels and slices beyond whole blocks one by one.
    // A twelfth stored channel is not delivered.
    const int channels = 11;
    const long long slices = 19, count = 17;
    const float factor = 0.25f, offset = -3.0f;
    for (ecSampleType type : kTypes)
        for (bool big : {false, true})
            for (bool multiplexed : {true, false})
                for (bool exact : {true, false})
                    for (bool calibrated : {false, true}) {
                        SCOPED_TRACE(std::to_string(static_cast<int>(type)) + (big ? " BE" : " LE") +
                                     (multiplexed ? " mux" : " vec") + (exact ? " exact" : " single") +
                                     (calibrated ? " calibrated" : ""));
                        const int stored = multiplexed ? channels + 1 : channels;
                        Bytes b;
                        b.text("head", 4);
                        for (long long i = 0; i < stored * slices; ++i) {
                            const int c = static_cast<int>(multiplexed ? i % stored : i / slices);
                            const long long t = multiplexed ? i / stored : i % slices;
                            Put(b, type, big, Stored(type, c, t));
                        }
                        File f(b);
                        ecDataLayout layout = multiplexed ? ecDataLayout::Multiplexed(type, big, stored, channels, 4, slices)
                                                          : ecDataLayout::Vectorized(type, big, channels, 4, slices);
                        layout.exact = exact;
                        // Without calibration, no shift: the blocks then leave the shift out.
                        const auto shift = [calibrated](int c) { return calibrated ? c - 3.5 : 0.0; };
                        for (int c = 0; c < channels; ++c)
                            layout.SetConversion(c, 0.1 * (c + 1), shift(c));
                        ecSampleEngine engine;
                        engine.SetLayout(layout);
                        std::vector<float> factors(channels, factor), offsets(channels, offset);
                        const auto rows = ReadAll(engine, f.fp, 1, count, calibrated ? factors.data() : nullptr,
                                                  calibrated ? offsets.data() : nullptr);
                        for (int c = 0; c < channels; ++c)
                            for (long long t = 0; t < count; ++t)
                                EXPECT_EQ(rows[c][t], Expected(Stored(type, c, t + 1), exact, 0.1 * (c + 1), shift(c),
                                                               calibrated ? &factor : nullptr, &offset))
                                    << c << "," << t;
                    }
}

// Rounding once in double keeps values that single-precision gain and offset lose: a digital
// value of -32768 with the offset of a -3.2768..3.2767 mV range is exactly 0.
TEST(SampleEngine, ExactArithmeticKeepsAZeroThatSinglePrecisionLoses)
{
    Bytes b;
    for (int v : {-32768, -32767, 12345})
        Put(b, ecSampleType::Int16, false, v);
    File f(b);
    ecSampleEngine engine;
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Int16, false, 1, 1, 0, 3);
    const double gain = 0.1e-6, shift = 32768;
    layout.SetConversion(0, gain, shift);
    engine.SetLayout(layout);
    EXPECT_EQ(ReadAll(engine, f.fp, 0, 3)[0], (std::vector<float>{0.0f, static_cast<float>(1 * gain), static_cast<float>((12345 + shift) * gain)}));
}

// Records with headers, a slower channel held at the record's rate, a segment table, spans
// larger than one block, and a file that ends early.
TEST(SampleEngine, SegmentsHeldChannelsLargeSpansAndShortFiles)
{
    // Two records of 4 slices behind an 8-byte file header; each record: 2 header bytes, channel 0
    // with 4 samples, channel 1 with 2 (held), int16 little-endian, channel by channel.
    Bytes b;
    b.zeros(8);
    for (int r = 0; r < 2; ++r) {
        b.zeros(2);
        for (int k = 0; k < 4; ++k)
            b.i16le(static_cast<int16_t>(10 * r + k));
        b.i16le(static_cast<int16_t>(-100 - r)).i16le(static_cast<int16_t>(-200 - r));
    }
    File f(b);
    ecDataLayout layout;
    layout.slices = 8;
    layout.segmentSlices = 4;
    layout.firstSegment = 8;
    layout.segmentStride = 14;
    layout.segmentHeader = 2;
    layout.channels = {{0, 2, 0, 1, 0}, {8, 2, 2, 1, 0}};
    ecSampleEngine engine;
    engine.SetLayout(layout);
    auto rows = ReadAll(engine, f.fp, 1, 6);
    EXPECT_EQ(rows[0], (std::vector<float>{1, 2, 3, 10, 11, 12}));
    EXPECT_EQ(rows[1], (std::vector<float>{-100, -200, -200, -101, -101, -201}));

    layout.segmentTable = {22, 8};  // the same records, listed in the other order
    layout.firstSegment = 0;
    engine.SetLayout(layout);
    EXPECT_EQ(ReadAll(engine, f.fp, 3, 2)[0], (std::vector<float>{13, 0}));
    layout.segmentTable = {8, 22};  // segments of unequal length: 3 slices, then 4
    layout.segmentFirstSlices = {0, 3};
    layout.slices = 7;
    engine.SetLayout(layout);
    EXPECT_EQ(ReadAll(engine, f.fp, 0, 7)[0], (std::vector<float>{0, 1, 2, 10, 11, 12, 13}));
    // Records of 4 slices placed at slices 1 and 7: the slices before and between them are gaps.
    // Channel 1 as a trigger word: its low 8 bits.
    layout.segmentSlices = 4;
    layout.segmentFirstSlices = {1, 7};
    layout.slices = 11;
    layout.channels[1].mask = 0xFF;
    engine.SetLayout(layout);
    rows = ReadAll(engine, f.fp, 0, 11);
    EXPECT_EQ(rows[0], (std::vector<float>{0, 0, 1, 2, 3, 0, 0, 10, 11, 12, 13}));
    EXPECT_EQ(rows[1], (std::vector<float>{0, 156, 156, 56, 56, 0, 0, 155, 155, 55, 55}));

    // 300,000 slices of 4 int16 channels, vectorized: no span of all channels fits a block.
    const long long many = 300000;
    Bytes big;
    for (int c = 0; c < 4; ++c)
        for (long long t = 0; t < many; ++t)
            big.i16le(static_cast<int16_t>((t * (c + 1)) % 30000));
    File g(big);
    engine.SetLayout(ecDataLayout::Vectorized(ecSampleType::Int16, false, 4, 0, many));
    rows = ReadAll(engine, g.fp, many - 200000, 200000);
    for (int c = 0; c < 4; ++c)
        EXPECT_EQ(rows[c][199999], static_cast<float>(((many - 1) * (c + 1)) % 30000)) << c;
    engine.SetLayout(ecDataLayout::Multiplexed(ecSampleType::Int16, false, 4, 4, 0, many));
    rows = ReadAll(engine, g.fp, 0, many);
    const long long last = 4 * many - 1;  // the file's last value, channel 3 of the last slice
    EXPECT_EQ(rows[3][many - 1], static_cast<float>((last % many) * (last / many + 1) % 30000));

    // The header promises more than the file holds.
    engine.SetLayout(ecDataLayout::Multiplexed(ecSampleType::Int16, false, 1, 1, 0, 100));
    std::vector<float> row(100);
    float* out = row.data();
    EXPECT_EQ(engine.Read(f.fp, &out, 0, 100), 0);
}
