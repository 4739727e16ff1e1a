#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <array>

#include "filelib/filelib.h"
#include "filelib/readers/ERPSS.h"
#include "fixtures/Bytes.h"
#include "fixtures/Describe.h"
#include "fixtures/VendorFiles.h"

namespace {
// A probe reader that decodes a hand-made nibble stream through the protected decoder.
class Decoder : public ecERPSS {
public:
    Decoder(const std::string& path) : ecERPSS(path.c_str()) { Initialize(0); }
    std::vector<int16_t> Decode(const std::vector<int>& nibbles)
    {
        const std::vector<uint16_t> words = Pack(nibbles);
        std::copy(words.begin(), words.end(), m_psBuffComp.begin());
        Uncompress(static_cast<int>(words.size()));
        return m_psBuff;
    }
};

const std::vector<std::vector<int>> kSlices = {
    {100, -2048, 2047}, {83, -2045, 2047}, {80, -1790, 1791}, {95, -2000, 2040}, {-300, 0, 2047}};
}  // namespace

TEST(ERPSS, NibbleClassesDecodeExactly)
{
    TempDir dir;
    ErpssFile(true, 1, 2, {{{{0}, {0}}, {}, {}}}).write(dir.path("one.raw"));
    Decoder d(dir.path("one.raw"));
    EXPECT_EQ(d.Decode({14, 8, 0, 0, 14, 7, 15, 15}), (std::vector<int16_t>{-2048, 2047}));
    EXPECT_EQ(d.Decode({14, 0, 6, 4, 10, 15}), (std::vector<int16_t>{100, 83}));  // delta -17
    EXPECT_EQ(d.Decode({14, 0, 6, 4, 5}), (std::vector<int16_t>{100, 97}));      // delta -3
    EXPECT_EQ(d.Decode({14, 0, 6, 4, 13, 0, 0}), (std::vector<int16_t>{100, -156}));  // 9-bit -256
    EXPECT_EQ(d.Decode({14, 0, 6, 4, 12, 15, 15}), (std::vector<int16_t>{100, 355}));  // 9-bit +255
    EXPECT_EQ(d.Decode({14, 0, 6, 4, 9, 15}), (std::vector<int16_t>{100, 131}));      // 6-bit +31
    EXPECT_EQ(Message([&] { d.Decode({5, 0}); }), "[ecERPSS::Uncompress] Out of bounds error (1)");
    EXPECT_EQ(Message([&] { d.Decode({14, 0, 0, 0, 15}); }), "[ecERPSS::Uncompress] Compressed data corrupt? (2)");
    EXPECT_EQ(Message([&] { d.Decode({14, 0, 0}); }),
              "[ecERPSS::Uncompress] Compressed data ended before the record was complete.");
}

TEST(ERPSS, CompressedAndPlainFilesReadIdenticallyThroughTheFacade)
{
    TempDir dir;
    ErpssRecord r1{{kSlices[0], kSlices[1], kSlices[2]}, {{0, 1, 7}, {2, 3, 65535}}, {}};
    ErpssRecord r2{{kSlices[3], kSlices[4], kSlices[0]}, {{1, 0, 65534}}, {}};
    ErpssFile(true, 3, 3, {r1, r2}).write(dir.path("c.raw"));
    ErpssFile(false, 3, 3, {r1, r2}).write(dir.path("u.raw"));
    for (const char* file : {"c.raw", "u.raw"}) {
        SCOPED_TRACE(file);
        CFilelib f;
        std::string name = dir.path(file);
        ASSERT_EQ(f.GuessFileMFR(name), 28);
        f.Initialize(0);
        std::string unit;
        f.GetChanUnit(0, unit);
        EXPECT_EQ(std::to_string(f.GetNumChans()) + " x " + std::to_string(f.GetNumSlices()) + " [" + unit + "]", "3 x 6 []");
        EXPECT_FLOAT_EQ(f.GetSampleRate(), 250.0f);
        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, 1, 5), 5);
        for (int t = 0; t < 5; ++t)
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(m[c][t], static_cast<float>((t < 2 ? r1.slices[t + 1] : r2.slices[t - 2])[c]));
        EXPECT_EQ(EventsOf(f), "1-7@0#7/2 PAUSE@2#65535/2 DELETE@4#65534/2");
    }
}

TEST(ERPSS, WrapAroundAndCorruptFiles)
{
    TempDir dir;
    // 16-bit wrap-around: 32767 + 1 through deltas (an absolute start of 2047, then +255 steps).
    std::vector<std::vector<int>> ramp;
    for (int v = 2047, s = 0; s < 130; ++s, v = static_cast<int16_t>(v + 255))
        ramp.push_back({v});
    ErpssFile(true, 1, 130, {{ramp, {}, {}}}).write(dir.path("wrap.raw"));
    ecERPSS wrap(dir.path("wrap.raw").c_str());
    wrap.Initialize(0);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(wrap.ReadData(m, 0, 130), 130);
    EXPECT_EQ(m[0][129], static_cast<float>(static_cast<int16_t>(2047 + 129 * 255)));

    const std::string p = "[ecERPSS::";
    auto initError = [&](const Bytes& file) {
        file.write(dir.path("bad.raw"));
        ecERPSS r(dir.path("bad.raw").c_str());
        return Message([&] { r.Initialize(0); });
    };
    ErpssRecord tooBig{{{1}}, {}, std::vector<uint16_t>(5, 0xE000)};
    EXPECT_EQ(initError(ErpssFile(true, 1, 2, {tooBig})), p + "SetRecordOffsets] Compressed record size exceeds maximum");
    Bytes wrongKind = ErpssFile(false, 1, 1, {{{{1}}, {}, {}}});
    wrongKind.put_u16le(512 + 2, 0xF1);
    EXPECT_EQ(initError(wrongKind), p + "SetRecordOffsets] Invalid ERPSS record header encountered");
    Bytes badHeader = ErpssFile(false, 0, 1, {});
    EXPECT_EQ(initError(badHeader), p + "Initialize] Invalid ERPSS header: " + dir.path("bad.raw"));

    ErpssRecord deltaFirst{{{1}, {2}}, {}, Pack({5, 0, 0, 0})};
    ErpssFile(true, 1, 2, {deltaFirst}).write(dir.path("delta.raw"));
    ecERPSS delta(dir.path("delta.raw").c_str());
    delta.Initialize(0);
    EXPECT_EQ(Message([&] { delta.ReadData(m, 0, 1); }), p + "Uncompress] Out of bounds error (1)");

    ErpssRecord manyEvents{{{1}}, std::vector<std::array<int, 3>>(1, {0, 0, 1}), {}};
    Bytes events = ErpssFile(false, 1, 1, {manyEvents});
    events.put_u16le(512 + 20, 111);
    events.write(dir.path("events.raw"));
    ecERPSS tooMany(dir.path("events.raw").c_str());
    tooMany.Initialize(0);
    ecEventList list;
    EXPECT_EQ(Message([&] { tooMany.InitialEventList(&list, nullptr); }),
              p + "InitialEventList] Inconsistent number of events");

    // The other byte order: headers are read, samples refused.
    Bytes swabbed;
    for (size_t i = 0; i < events.data().size(); i += 2)
        swabbed.u8(events.data()[i + 1]).u8(events.data()[i]);
    swabbed.write(dir.path("swab.raw"));
    ecERPSS swab(dir.path("swab.raw").c_str());
    swab.Initialize(0);
    EXPECT_EQ(Message([&] { swab.ReadData(m, 0, 1); }),
              "[ecERPSS::ReadData] Reading of 'swabbed' data has not been tested in this release.  Please contact KVI "
              "for current status.");
}
