// Recordings beyond 4 GiB (2 GiB for Neuroscan, whose event-table pointer is a signed 32-bit
// offset), as sparse files: a header, a hole, and known samples at the very end.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>

#include "filelib/filelib.h"
#include "fixtures/EdfFiles.h"
#include "fixtures/GenericFiles.h"
#include "fixtures/NeuroscanFiles.h"
#include "fixtures/VendorFiles.h"

namespace {

constexpr long long kBeyond4GiB = (4LL << 30) + (64LL << 20);

// Writes `head`, then `tail` so that it ends at `total` bytes; false when the file system
// cannot hold such a file.
bool SparseFile(const std::string& path, const Bytes& head, const Bytes& tail, long long total)
{
    FILE* out = std::fopen(path.c_str(), "wb");
    if (!out)
        return false;
    bool ok = (head.size() == 0 || std::fwrite(head.data().data(), 1, head.size(), out) == head.size()) &&
              fseeko(out, total - static_cast<long long>(tail.size()), SEEK_SET) == 0 &&
              std::fwrite(tail.data().data(), 1, tail.size(), out) == tail.size();
    ok = std::fclose(out) == 0 && ok;
    struct stat st {};
    return ok && stat(path.c_str(), &st) == 0 && st.st_size == total;
}

void ExpectLastSlices(const std::string& path, int code, const std::vector<std::vector<float>>& expected)
{
    CFilelib f;
    std::string name = path;
    ASSERT_EQ(f.GuessFileMFR(name), code);
    f.Initialize(0);
    const int n = static_cast<int>(expected[0].size());
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, f.GetNumSlices() - n, n), n);
    for (size_t c = 0; c < expected.size(); ++c)
        for (int t = 0; t < n; ++t)
            EXPECT_FLOAT_EQ(m[static_cast<long>(c)][t], expected[c][static_cast<size_t>(t)]) << c << "," << t;
}

#define SPARSE_OR_SKIP(call) \
    if (!(call))             \
    GTEST_SKIP() << "the file system here cannot make a sparse file of more than 4 GiB"
}  // namespace

TEST(LargeFiles, GenericBeyond4GiB)
{
    TempDir dir;
    GenericSpec spec;
    spec.slices = static_cast<int>(kBeyond4GiB / 4);  // 2 channels x 2 bytes per slice
    const std::string path = dir.path("big.dat");
    WriteTextFile(path + ".orva_hdr", GenericHeader(spec));
    SPARSE_OR_SKIP(SparseFile(path, Bytes(), Bytes().i16le(11).i16le(-12).i16le(13).i16le(-14), kBeyond4GiB));
    ExpectLastSlices(path, 2, {{11, 13}, {-12, -14}});
}

TEST(LargeFiles, EdfAndBdfBeyond4GiB)
{
    TempDir dir;
    for (bool bdf : {false, true}) {
        SCOPED_TRACE(bdf ? "BDF" : "EDF");
        const int bytes = bdf ? 3 : 2;
        EdfSpec spec;
        spec.bdf = bdf;
        EdfSignal s;
        s.label = "Fz";
        s.unit = "V";
        s.physMin = "-32768";
        s.physMax = "32767";
        s.samples = 1000;
        spec.signals = {s, s};
        const long long recordBytes = 2LL * 1000 * bytes;
        const long long records = kBeyond4GiB / recordBytes + 1;
        spec.records = std::to_string(records);
        const Bytes head = EdfHeader(spec);
        // The last record: signal 1 ends with 5, 6; signal 2 ends with -7, -8.
        Bytes tail;
        for (int sig = 0; sig < 2; ++sig)
            for (int i = 0; i < 1000; ++i) {
                const int v = i < 998 ? 0 : (sig == 0 ? 5 + (i - 998) : -7 - (i - 998));
                tail.u8(v & 0xFF).u8((v >> 8) & 0xFF);
                if (bdf)
                    tail.u8((v >> 16) & 0xFF);
            }
        const std::string path = dir.path(bdf ? "big.bdf" : "big.edf");
        SPARSE_OR_SKIP(SparseFile(path, head, tail, 768 + records * recordBytes));
        // Physical and digital ranges are equal: the delivered values are the stored ones.
        ExpectLastSlices(path, bdf ? 22 : 21, {{5, 6}, {-7, -8}});
        std::remove(path.c_str());
    }
}

TEST(LargeFiles, NeuroscanUpToItsSigned32BitLimit)
{
    TempDir dir;
    NeuroscanSpec spec;
    const long long hs = static_cast<long long>(NeuroscanHeaderSize(2));
    const long long slices = (0x7FFFFFFFLL - hs - 9) / 4;
    spec.eventTablePos = static_cast<int32_t>(hs + slices * 4);
    spec.numSamples = static_cast<uint32_t>(slices);
    Bytes tail = Bytes().i16le(100).i16le(-100).i16le(200).i16le(-200);
    tail.u8(0).i32le(0).i32le(0);  // an empty event table
    const std::string path = dir.path("big.cnt");
    SPARSE_OR_SKIP(SparseFile(path, NeuroscanHeader(spec), tail, spec.eventTablePos + 9LL));
    const float unit = 4.8828124e-09f;
    ExpectLastSlices(path, 4, {{100 * unit, 200 * unit}, {-100 * unit, -200 * unit}});
}

TEST(LargeFiles, FiffDataBufferBeyond4GiB)
{
    TempDir dir;
    auto tag = [](Bytes& b, uint32_t kind, uint32_t type, uint32_t size, uint32_t next) {
        b.u32be(kind).u32be(type).u32be(size).u32be(next);
    };
    Bytes head;
    tag(head, 100, 31, 4, 0);
    head.zeros(4);
    tag(head, 204, 3, 4, 0);
    head.u32be(0);
    tag(head, 200, 3, 4, 0);
    head.u32be(2);
    tag(head, 201, 4, 4, 0);
    head.f32be(1000.0f);
    for (const char* name : {"MEG0111", "MEG0112"}) {
        tag(head, 203, 30, 96, 0);
        head.u32be(1).u32be(1).u32be(1).f32be(1.0f).f32be(2.0f).zeros(52).u32be(112).u32be(0).text(name, 16, '\0');
    }
    const uint32_t firstBuffer = 4294967280u;  // 536,870,910 slices of 2 floats, all in the hole
    tag(head, 300, 4, firstBuffer, 0);
    Bytes tail;
    tag(tail, 300, 4, 16, 0);
    tail.f32be(1.5f).f32be(-2.5f).f32be(3.5f).f32be(-4.5f);
    tag(tail, 108, 0, 0, 0xFFFFFFFF);
    const long long total = static_cast<long long>(head.size()) + firstBuffer + static_cast<long long>(tail.size());
    const std::string path = dir.path("big.fif");
    SPARSE_OR_SKIP(SparseFile(path, head, tail, total));
    ExpectLastSlices(path, 20, {{3.0f, 7.0f}, {-5.0f, -9.0f}});
}

TEST(LargeFiles, BrainVisionVectorizedBeyond4GiB)
{
    TempDir dir;
    // Vectorized: channel 1's samples end in the middle of the file, channel 2's at its end.
    const long long slices = kBeyond4GiB / 8;
    WriteTextFile(dir.path("big.vhdr"),
                  "Brain Vision Data Exchange Header File Version 2.0\n[Common Infos]\nDataFile=big.eeg\n"
                  "DataFormat=BINARY\nDataOrientation=VECTORIZED\nNumberOfChannels=2\nSamplingInterval=1000\n"
                  "[Binary Infos]\nBinaryFormat=IEEE_FLOAT_32\n[Channel Infos]\nCh1=A,,1,V\nCh2=B,,1,V\n");
    const std::string data = dir.path("big.eeg");
    Bytes head;  // channel 1 ends half-way, past 2 GiB
    SPARSE_OR_SKIP(SparseFile(data, head, Bytes().f32le(0.25f).f32le(-0.5f), slices * 4));
    FILE* out = std::fopen(data.c_str(), "r+b");
    ASSERT_NE(out, nullptr);
    const Bytes last = Bytes().f32le(7.5f).f32le(-8.5f);
    ASSERT_EQ(fseeko(out, slices * 8 - 8, SEEK_SET), 0);
    ASSERT_EQ(std::fwrite(last.data().data(), 1, 8, out), 8u);
    ASSERT_EQ(std::fclose(out), 0);
    ExpectLastSlices(dir.path("big.vhdr"), 29, {{0.25f, -0.5f}, {7.5f, -8.5f}});
}

TEST(LargeFiles, EgiFloatBeyond4GiB)
{
    TempDir dir;
    const long long slices = kBeyond4GiB / 8;  // 2 channels of 32-bit floats
    const Bytes head = EgiHeader(4, 2, static_cast<int>(slices), {});
    const std::string path = dir.path("big.raw");
    SPARSE_OR_SKIP(SparseFile(path, head, Bytes().f32be(1.5f).f32be(-2.5f).f32be(3.5f).f32be(-4.5f),
                              static_cast<long long>(head.size()) + slices * 8));
    ExpectLastSlices(path, 44, {{1.5e-6f, 3.5e-6f}, {-2.5e-6f, -4.5e-6f}});
}

TEST(LargeFiles, ErpssPlainRecordsBeyond4GiB)
{
    TempDir dir;
    // Records of 64 channels x 32768 points (4 MiB): 1040 of them pass 4 GiB. Only the headers
    // and the last two slices are written; the samples between are holes (zeros).
    const int channels = 64, points = 32768;
    ErpssRecord full;
    full.slices.assign(points, std::vector<int>(channels, 0));
    const Bytes one = ErpssFile(false, channels, points, {full});
    const Bytes rawHeader = Bytes().raw(std::string(one.data().begin(), one.data().begin() + 512));
    const Bytes recordHeader = Bytes().raw(std::string(one.data().begin() + 512, one.data().begin() + 1024));
    const long long recordBytes = 512 + 2LL * channels * points;
    const long long records = kBeyond4GiB / recordBytes + 1;
    Bytes tail;
    for (int slice = 0; slice < 2; ++slice)
        for (int c = 0; c < channels; ++c)
            tail.i16le(static_cast<int16_t>(c > 1 ? 0 : slice == 0 ? (c ? -8 : 7) : (c ? -321 : 123)));
    const std::string path = dir.path("big.raw");
    SPARSE_OR_SKIP(SparseFile(path, rawHeader, tail, 512 + records * recordBytes));
    FILE* out = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(out, nullptr);
    for (long long r = 0; r < records; ++r) {
        ASSERT_EQ(fseeko(out, 512 + r * recordBytes, SEEK_SET), 0);
        ASSERT_EQ(std::fwrite(recordHeader.data().data(), 1, 512, out), 512u);
    }
    ASSERT_EQ(std::fclose(out), 0);
    ExpectLastSlices(path, 28, {{7, 123}, {-8, -321}});
}
