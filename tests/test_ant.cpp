// The ANT .cnt reader: every compression method in both container widths, read whole and from
// the middle; refusals of damaged trees; the real recordings against the vendor's export.
#include <gtest/gtest.h>

#include <cmath>

#include "filelib/filelib.h"
#include "fixtures/AntFiles.h"
#include "fixtures/SharedData.h"

namespace {
// Channel c at slice t as delivered, from slice `first`.
ecLabeledMatrix<float> Read(CFilelib& f, const std::string& path, int first, int count)
{
    std::string name = path;
    EXPECT_EQ(f.GuessFileMFR(name), kMfrANT);
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
                std::string unit;
                f.GetChanUnit(2, unit);
                EXPECT_EQ(unit, "bar");
                ecEventList events;
                ASSERT_EQ(f.InitialEventList(&events, nullptr), 2);
                EXPECT_EQ(events.GetEvent(0).GetEventName(), "Start 2024-09-06 12:00:00.250");
                EXPECT_EQ(events.GetEvent(1).GetEventCode(), 17);
                EXPECT_EQ(events.GetEvent(1).GetBegin(), 3);
            }
}

TEST(ANT, DamagedTreesAreRefusedWithTheirReason)
{
    TempDir dir;
    struct Case { AntSpec spec; const char* says; };
    AntSpec wide, table, offset;
    wide.method = 9, wide.bits = 33, wide.exceptionBits = 40;
    table.epochEntries = 1;
    offset.firstOffset = 1 << 20;
    const Case cases[] = {{wide, "beyond 1..32"}, {table, "lists 1 blocks; the data need 2"}, {offset, "outside the data chunk"}};
    for (const Case& c : cases) {
        AntFile(c.spec).write(dir.path("d.cnt"));
        CFilelib f;
        try {
            Read(f, dir.path("d.cnt"), 0, 10);
            ADD_FAILURE() << c.says;
        } catch (const ecError& e) {
            EXPECT_NE(std::string(e.what()).find(c.says), std::string::npos) << e.what();
            EXPECT_EQ(std::string(e.what()).rfind("[ANT::", 0), 0u) << e.what();
        }
    }
    Bytes().raw("RIFF").u32le(4).raw("WAVE").write(dir.path("w.cnt"));
    CFilelib f;
    std::string wave = dir.path("w.cnt");
    EXPECT_EQ(f.GuessFileMFR(wave), 0);
}

TEST(ANT, BothContainersEqualTheVendorExportEverywhere)
{
    SHARED_DATA_OR_SKIP(data, "ant");
    CFilelib rf64, riff, bv;
    const ecLabeledMatrix<float> a = Read(rf64, data + "test-na-271.cnt", 0, 2295);
    const ecLabeledMatrix<float> b = Read(riff, data + "test-na-271-legacy.cnt", 0, 2295);
    std::string vhdr = data + "test-na-271.vhdr";
    ASSERT_NE(bv.GuessFileMFR(vhdr), 0);
    bv.Initialize(0);
    ecLabeledMatrix<float> e;
    ASSERT_EQ(bv.ReadData(e, 0, 2295), 2295);
    for (int c = 0; c < 128; ++c)
        for (int t = 0; t < 2295; ++t) {
            ASSERT_EQ(a[c][t], b[c][t]) << c << "," << t;
            ASSERT_NEAR(a[c][t], e[c][t], 1e-8) << c << "," << t;
        }
}
