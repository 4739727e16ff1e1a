// The ANT .cnt reader: every compression method in both container widths, read from the middle;
// a RIFF that is no .cnt; both real containers against the vendor's export, whole.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/AntFiles.h"
#include "fixtures/Describe.h"
#include "fixtures/SharedData.h"

namespace {
ecLabeledMatrix<float> Read(CFilelib& f, std::string name, int first, int count)
{
    EXPECT_NE(f.GuessFileMFR(name), 0);
    f.Initialize(0);
    ecLabeledMatrix<float> m;
    EXPECT_EQ(f.ReadData(m, first, count), count);
    return m;
}
}  // namespace

TEST(ANT, EveryMethodAndWidthDecodesTheSameSamples)
{
    TempDir dir;
    const double gains[] = {0.5e-6, 0.5e-6, 1};
    for (int method : {0, 1, 2, 3, 8, 9, 10, 11})
        for (bool rf64 : {false, true})
            for (int bits : {3, 16}) {
                SCOPED_TRACE("method " + std::to_string(method) + (rf64 ? " RF64" : " RIFF") + " bits " + std::to_string(bits));
                AntSpec s;
                s.method = method, s.rf64 = rf64, s.bits = bits, s.exceptionBits = method & 8 ? 32 : 16;
                AntFile(s).write(dir.path("a.cnt"));
                CFilelib f;
                const ecLabeledMatrix<float> m = Read(f, dir.path("a.cnt"), 5, 5);  // across the block boundary at 6
                for (int c = 0; c < 3; ++c)
                    for (int t = 0; t < 5; ++t)
                        ASSERT_FLOAT_EQ(m[c][t], static_cast<float>(s.values[c][5 + t] * gains[c])) << c << "," << t;
                EXPECT_EQ(ChannelsOf(f), "A/V/1024 B/V/1024 C/bar/0");
                EXPECT_EQ(EventsOf(f), "Start 2024-09-06 12:00:00.250@0 17@3#17/2");
            }
}

// A RIFF that is no .cnt is left to other readers (damaged trees are the malformed-input sweep's).
TEST(ANT, WaveIsNoCnt)
{
    TempDir dir;
    Bytes().raw("RIFF").u32le(4).raw("WAVE").write(dir.path("w.cnt"));
    std::string wave = dir.path("w.cnt");
    EXPECT_EQ(CFilelib().GuessFileMFR(wave), 0);
}

// The shared test compares the first samples only; a fault in a later block shows here.
TEST(ANT, BothContainersEqualTheVendorExportEverywhere)
{
    SHARED_DATA_OR_SKIP(data, "ant");
    CFilelib bv;
    const ecLabeledMatrix<float> e = Read(bv, data + "test-na-271.vhdr", 0, 2295);
    for (const char* file : {"test-na-271.cnt", "test-na-271-legacy.cnt"}) {
        CFilelib f;
        const ecLabeledMatrix<float> a = Read(f, data + file, 0, 2295);
        for (int c = 0; c < 128; ++c)
            for (int t = 0; t < 2295; ++t)
                ASSERT_NEAR(a[c][t], e[c][t], 1e-8) << file << " " << c << "," << t;
    }
}
