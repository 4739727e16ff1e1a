#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <cstdio>
#include <functional>

#include "filelib/filelib.h"
#include "filelib/readers/Neuromag_FIFF.h"
#include "fixtures/Bytes.h"
#include "fixtures/VendorFiles.h"

namespace {
// FILE_ID, an SFREQ before MEAS_DATE (ignored), MEAS_DATE, NCHAN, SFREQ.
Fiff Header(uint32_t channels)
{
    Fiff f;
    f.tag(100, 31, Bytes().zeros(20)).f32(201, 999.0f).u32(204, 0).u32(200, channels).f32(201, 500.0f);
    return f;
}

// A reader on a file, with its directory built.
struct Walked {
    TempDir dir;
    std::string path;
    ecNeuromag_FIFF reader;
    explicit Walked(const Fiff& f, bool walk = true) : path(dir.path("t.fif")), reader(path.c_str())
    {
        f.write(path);
        reader.SetInputFilePointer(std::fopen(path.c_str(), "rb"));
        if (walk)
            reader.ReadAllTagRecords();
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> out;
        for (const FIFF_TagRec& r : reader.GetDirectory())
            out.push_back(r.name);
        return out;
    }
};

const std::string kShort = "[ecNeuromag_FIFF::ReadUnsignedLong] Inconsistent offsets";
}  // namespace

TEST(FIFF, KindNamesAndByteHelpers)
{
    ecNeuromag_FIFF r("");
    EXPECT_EQ(r.IdentifyKind(214), "CH_POS");
    EXPECT_EQ(r.IdentifyKind(255), "CH_POS");
    EXPECT_EQ(r.IdentifyKind(119), "<reserved>");
    EXPECT_EQ(r.IdentifyKind(3417), "PROJ_ITEM_CH_NAME_LIST");
    EXPECT_EQ(r.IdentifyKind(232), "Unsupported");
    EXPECT_EQ(r.IdentifyKind(5999), "Unsupported");
    EXPECT_EQ(r.IdentifyKind(6000), "");
    FIFF_4Byte four;
    four.b[0] = 0x12, four.b[1] = 0x34, four.b[2] = 0x56, four.b[3] = 0x78;
    four.reverse();
    EXPECT_EQ(four.b[0], 0x78);
    EXPECT_EQ(four.b[3], 0x12);
    FIFF_2Byte two;
    two.b[0] = 1, two.b[1] = 2;
    two.swap();
    EXPECT_EQ(two.b[0], 2);
}

TEST(FIFF, TagWalkSequentialJumpsEndsAndTheFinalStep)
{
    // FILE_ID jumps over 8 bytes of junk; then kinds 214, 255, 5000; the end tag's data hold a
    // FILE_ID header, which the final step appends.
    Fiff f;
    f.tag(100, 31, Bytes().zeros(4), 20 + 8);
    f.raw(Bytes().zeros(8));
    f.u32(214, 1).u32(255, 2).u32(5000, 3);
    f.tag(108, 0, Bytes().u32be(100).u32be(31).u32be(0).u32be(0xFFFFFFFF), 0xFFFFFFFF);
    Walked w(f);
    EXPECT_EQ(w.Names(), (std::vector<std::string>{"FILE_ID", "CH_POS", "CH_POS", "Unsupported", "FILE_ID"}));
    EXPECT_EQ(w.reader.GetDirectory()[1].dataPos, 20 + 8 + 16);
    EXPECT_EQ(w.reader.GetDirectory()[1].kind, 214u);

    // The final step meets a kind of 6000 or more: nothing more is appended.
    Fiff big;
    big.tag(100, 31, Bytes().zeros(4)).tag(108, 0, Bytes().u32be(7000).zeros(12), 0xFFFFFFFF);
    EXPECT_EQ(Walked(big).Names(), (std::vector<std::string>{"FILE_ID"}));
    // ... or a known kind without the twelve bytes that should follow it.
    Fiff cut;
    cut.tag(100, 31, Bytes().zeros(4)).tag(108, 0, Bytes().u32be(100).zeros(4), 0xFFFFFFFF);
    Walked cutWalk(cut, false);
    EXPECT_EQ(Message([&] { cutWalk.reader.ReadAllTagRecords(); }), kShort);
    // A kind of 6000 or more in the chain ends the walk; the final step then reads the next
    // word (that tag's type, 3) as a kind and appends it as "Unsupported".
    Fiff stop;
    stop.tag(100, 31, Bytes().zeros(4)).u32(6001, 1).u32(200, 4).end();
    EXPECT_EQ(Walked(stop).Names(), (std::vector<std::string>{"FILE_ID", "Unsupported"}));
    // A chain whose last tag says "next follows" runs into the end of the file.
    Fiff open;
    open.tag(100, 31, Bytes().zeros(4)).u32(200, 4);
    Walked openWalk(open, false);
    EXPECT_EQ(Message([&] { openWalk.reader.ReadAllTagRecords(); }), kShort);
    // A chain that jumps back to its own start ends with an error instead of running forever.
    Fiff looping;
    looping.tag(100, 31, Bytes().zeros(4), 0).u32(200, 4, 0);
    looping.tag(108, 0, Bytes(), 0);
    looping.tag(108, 0, Bytes(), 20);  // back to the NCHAN tag, forever
    Walked loopWalk(looping, false);
    EXPECT_EQ(Message([&] { loopWalk.reader.ReadAllTagRecords(); }),
              "[ecNeuromag_FIFF::ReadAllTagRecords] The tag chain of " + loopWalk.path + " loops back on itself.");
}

TEST(FIFF, ShortReadsAndQueries)
{
    Fiff f = Header(2);
    f.u32(208, 11).u32(208, 22).u32(209, 99).tag(600, 3, Bytes().zeros(12)).u32(200, 5).end();
    Walked w(f);
    ecNeuromag_FIFF& r = w.reader;
    EXPECT_EQ(r.Get("NCHAN"), 5u);  // the second occurrence
    EXPECT_EQ(r.Get("NOTHING"), 0u);
    EXPECT_EQ(r.CountAfter("SFREQ", "MEAS_DATE"), 1u);
    EXPECT_EQ(r.CountAfter("FIRST_SAMPLE", "MEAS_DATE"), 2u);
    EXPECT_EQ(r.CountAfter("SFREQ", "NO_SUCH"), 0u);
    EXPECT_EQ(r.SizeAfter("EVENT_CHANNELS", "MEAS_DATE", 0), 12u);
    EXPECT_EQ(r.SizeAfter("EVENT_CHANNELS", "MEAS_DATE", 1), 12u);
    EXPECT_EQ(r.SizeAfter("EVENT_CHANNELS", "MEAS_DATE", 2), 0u);
    EXPECT_EQ(r.GetNumEventChans_FIFF(), 3u);
    EXPECT_EQ(r.GetFirstSample_FIFF(2), 22);
    EXPECT_EQ(r.GetLastSample_FIFF(1), 99);
    EXPECT_EQ(Message([&] { r.GetFirstSample_FIFF(3); }),
              "[ecNeuroMag_FIFF::GetFirstSample_FIFF] nth FIRST_SAMPLE not found after MEAS_DATE in FIFF file");
    EXPECT_EQ(Message([&] { r.GetLastSample_FIFF(2); }),
              "[ecNeuroMag_FIFF::GetLastSample_FIFF] LAST_SAMPLE not found after MEAS_DATE in FIFF file");
    EXPECT_FLOAT_EQ(r.GetSampleRate_FIFF(), 500.0f);  // the SFREQ before MEAS_DATE does not count

    EXPECT_TRUE(r.NextAfter("FIRST_SAMPLE", "MEAS_DATE"));
    const size_t first = r.GetCursor();
    EXPECT_TRUE(r.NextAfter("FIRST_SAMPLE", "MEAS_DATE"));
    EXPECT_EQ(r.GetCursor(), first + 1);
    EXPECT_FALSE(r.NextAfter("FIRST_SAMPLE", "MEAS_DATE"));
    EXPECT_EQ(r.GetCursor(), first + 1);  // unchanged on failure
    r.ResetCursor();
    EXPECT_TRUE(r.NextAfter("FIRST_SAMPLE", "MEAS_DATE"));
    EXPECT_EQ(r.GetCursor(), first);

    // ReadUnsignedLong raises on a short read; ReadFloat answers 0.
    FIFF_TagRec pastEnd;
    pastEnd.dataPos = static_cast<long long>(f.size()) - 2;
    EXPECT_EQ(Message([&] { r.ReadUnsignedLong(pastEnd); }), kShort);
    EXPECT_EQ(r.ReadFloat(pastEnd), 0.0f);

    TempDir out;
    r.WriteTagRecords(out.path("dir.txt"));
    const std::string text = ReadTextFile(out.path("dir.txt"));
    char expected[200];
    std::snprintf(expected, sizeof expected, "%25s %12u %12u %12u %12u %12lu\n", "FILE_ID", 100u, 31u, 20u, 0u, 16lu);
    EXPECT_EQ(text.substr(0, std::string(expected).size()), expected);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(r.GetDirectory().size()));
    r.WriteTagRecords(out.path("no/such/dir.txt"));  // quietly nothing
}

TEST(FIFF, HeaderAccessorMessages)
{
    const std::string p1 = "[ecNeuroMag_FIFF::", p2 = "[ecNeuromag_FIFF::";
    Fiff noMeas;
    noMeas.tag(100, 31, Bytes().zeros(4)).u32(200, 2).f32(201, 100).end();
    Walked a(noMeas);
    EXPECT_EQ(Message([&] { a.reader.GetNumChans_FIFF(); }),
              p1 + "GetNumChans_FIFF] NCHAN not found after MEAS_DATE in FIFF file");
    EXPECT_EQ(Message([&] { a.reader.GetSampleRate_FIFF(); }),
              p1 + "GetSampleRate_FIFF] SFREQ not found after MEAS_DATE in FIFF file");
    Fiff zero = Header(0);
    zero.end();
    EXPECT_EQ(Message([&] { Walked(zero).reader.GetNumChans_FIFF(); }),
              p2 + "GetNumChans_FIFF] Zero channels detected in FIFF file");
    Fiff mismatch = Header(2);
    mismatch.tag(203, 30, ChInfo("A", 1, 1, 1, 112)).end();
    EXPECT_EQ(Message([&] { Walked(mismatch).reader.GetNumChans_FIFF(); }),
              p2 + "GetNumChans_FIFF] Inconsistent number of channels detected in FIFF file");
    Fiff badRate;
    badRate.tag(100, 31, Bytes().zeros(4)).u32(204, 0).f32(201, 0.0f).end();
    EXPECT_EQ(Message([&] { Walked(badRate).reader.GetSampleRate_FIFF(); }),
              p2 + "GetSampleRate_FIFF] Zero or negative sample rate detected in FIFF file");
}

TEST(FIFF, RecordsRenamingAndFiducials)
{
    Fiff f = Header(3);
    f.tag(203, 30, ChInfo("EEG 001", 2, 2.0f, 0.5f, 107, 0xFFFFFFFA));
    f.tag(203, 30, ChInfo("EEG 001", 2, 1, 1, 107)).tag(203, 30, ChInfo("EEG 001", 202, 1, 1, 107));
    Bytes trans;
    trans.u32be(1).u32be(4);
    for (int i = 0; i < 24; ++i)
        trans.f32be(static_cast<float>(i));
    f.tag(222, 35, trans);
    f.tag(213, 33, Bytes().u32be(1).u32be(2).f32be(0).f32be(0.1f).f32be(0));
    f.tag(213, 33, Bytes().u32be(1).u32be(1).f32be(-0.07f).f32be(0).f32be(0));
    f.tag(213, 33, Bytes().u32be(3).u32be(1).f32be(9).f32be(9).f32be(9));
    f.end();
    Walked w(f);
    ecNeuromag_FIFF& r = w.reader;
    ASSERT_EQ(r.SetChannelInformationVector(), 3u);
    const auto& ch = r.GetChannelInformation();
    EXPECT_EQ(ch[0].Name(), "EEG 001");
    EXPECT_EQ(ch[1].Name(), "EEG 001x");
    EXPECT_EQ(ch[2].Name(), "EEG 001x");  // only the first match is looked at
    EXPECT_EQ(ch[0].scanNo, 7u);
    EXPECT_EQ(ch[0].Kind(), "EEG_CH");
    EXPECT_EQ(ch[2].Kind(), "EOG_CH");
    EXPECT_EQ(ch[0].range, 2.0f);
    EXPECT_EQ(ch[0].cal, 0.5f);
    EXPECT_EQ(ch[0].chpos.CoilType(), "VV_PLANAR_T1");
    EXPECT_EQ(ch[0].chpos.ez[2], 5.5f);
    EXPECT_EQ(ch[0].unit, 107u);
    EXPECT_EQ(static_cast<int32_t>(ch[0].unitMul), -6);
    ASSERT_EQ(r.SetCoordinateTransformationVector(), 1u);
    const FIFF_CoordTrans& t = r.GetCoordinateTransformations()[0];
    EXPECT_EQ(t.Coord(true), "DEVICE");
    EXPECT_EQ(t.Coord(false), "HEAD");
    EXPECT_EQ(t.rot[1][2], 5.0f);
    EXPECT_EQ(t.move[2], 11.0f);
    EXPECT_EQ(t.invrot[0][0], 12.0f);
    EXPECT_EQ(t.invmove[2], 23.0f);
    ASSERT_EQ(r.SetDigitizationPointVector(), 3u);
    EXPECT_EQ(r.GetDigitizationPoints()[2].Kind(), "EEG");
    float p[3];
    ASSERT_TRUE(r.GetFiducial(2, p));
    EXPECT_FLOAT_EQ(p[1], 0.1f);
    ASSERT_TRUE(r.GetFiducial(1, p));
    EXPECT_FLOAT_EQ(p[0], -0.07f);
    EXPECT_FALSE(r.GetFiducial(3, p));  // the only ident-1 point of kind EEG is not cardinal
    FIFF_ChInfo info;
    info.kind = 77;
    EXPECT_EQ(info.Kind(), "UNKNOWN_CH");
    FIFF_DigPoint unknown;
    unknown.kind = 9;
    EXPECT_EQ(unknown.Kind(), "UNKNOWN");
}

TEST(FIFF, RawDataThroughTheFacade)
{
    // Two channels: a magnetometer (cal x range = 2e-12) and a stimulus channel. Buffers of 3
    // slices in short, int, float and double, with one skipped buffer between them.
    Fiff f = Header(2);
    f.tag(203, 30, ChInfo("MEG0111", 1, 1.0f, 2e-12f, 112, 0xFFFFFFF1)).tag(203, 30, ChInfo("STI101", 3, 1, 1, 107));
    f.u32(208, 3000);
    f.tag(300, 2, Bytes().u16be(1).u16be(0).u16be(static_cast<uint16_t>(-2)).u16be(0).u16be(3).u16be(4));
    f.u32(301, 1);
    f.tag(300, 3, Bytes().u32be(10).u32be(0).u32be(20).u32be(8).u32be(30).u32be(8));
    f.tag(300, 4, Bytes().f32be(1.5f).f32be(2).f32be(2.5f).f32be(2).f32be(3.5f).f32be(0));
    f.tag(300, 5, Bytes().f64be(-1).f64be(0).f64be(-2).f64be(1).f64be(-3).f64be(1));
    f.end();
    TempDir dir;
    f.write(dir.path("raw.fif"));
    CFilelib facade;
    std::string name = dir.path("raw.fif");
    ASSERT_EQ(facade.GuessFileMFR(name), 20);
    facade.Initialize(0);
    auto* reader = dynamic_cast<ecNeuromag_FIFF*>(facade.GetActiveFile());
    EXPECT_EQ(reader->GetFirstSampleNumber(), 3000);
    EXPECT_EQ(facade.GetNumSlices(), 15);
    EXPECT_FLOAT_EQ(facade.GetSampleRate(), 500.0f);
    EXPECT_EQ(facade.GetMEGChannelCount(), 1);
    EXPECT_EQ(facade.GetChanType(1), 0x8000);
    std::string unit;
    facade.GetChanUnit(0, unit);
    EXPECT_EQ(unit, "T");
    EXPECT_TRUE(facade.UseChanUnitPrefix(0));
    ecLabeledMatrix<float> m;
    ASSERT_EQ(facade.ReadData(m, 0, 15), 15);
    const float meg[] = {1, -2, 3, 0, 0, 0, 10, 20, 30, 1.5f, 2.5f, 3.5f, -1, -2, -3};
    const float stim[] = {0, 0, 4, 0, 0, 0, 0, 8, 8, 2, 2, 0, 0, 1, 1};
    for (int t = 0; t < 15; ++t) {
        EXPECT_FLOAT_EQ(m[0][t], meg[t] * 2e-12f) << t;
        EXPECT_EQ(m[1][t], stim[t]) << t;
    }
    ASSERT_EQ(facade.ReadData(m, 4, 4), 4);
    EXPECT_EQ(m[0][2], 10 * 2e-12f);
    ecEventList events;
    // Rises only: 0->4, 0->8, 0->1 (8->2 falls).
    ASSERT_EQ(facade.InitialEventList(&events, nullptr), 3);
    const long begins[] = {2, 7, 13};
    const int codes[] = {4, 8, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(events.GetEvent(i).GetBegin(), begins[i]);
        EXPECT_EQ(events.GetEvent(i).GetEventCode(), codes[i]);
    }

    // Damage: a data buffer past the end, an odd buffer size, a file that is not FIFF.
    Fiff broken = Header(1);
    broken.tag(203, 30, ChInfo("A", 1, 1, 1, 112)).tag(300, 4, Bytes().zeros(6)).end();
    broken.write(dir.path("odd.fif"));
    ecNeuromag_FIFF odd(dir.path("odd.fif").c_str());
    EXPECT_EQ(Message([&] { odd.Initialize(0); }),
              "[ecNeuromag_FIFF::Initialize] A DATA_BUFFER of 6 bytes does not hold whole slices of 1 channels.");
    WriteTextFile(dir.path("text.fif"), "hello world, not fiff");
    ecNeuromag_FIFF text(dir.path("text.fif").c_str());
    EXPECT_EQ(Message([&] { text.Initialize(0); }),
              "[ecNeuromag_FIFF::Initialize] Not a FIFF file (its first tag is not FILE_ID): " + dir.path("text.fif"));
    EXPECT_EQ(text.GetFileMFR(), 0);
}

// Real recordings written by other software.
TEST(FIFFRealFiles, ChannelsValuesAndTriggers)
{
    const std::string d = std::string(FILELIB_SHARED_DATA) + "/fiff/";
    {
        CFilelib f;
        std::string name = d + "test_elekta_3ch_raw.fif";
        ASSERT_EQ(f.GuessFileMFR(name), 20);
        f.Initialize(0);
        auto* r = dynamic_cast<ecNeuromag_FIFF*>(f.GetActiveFile());
        const char* units[] = {"T", "T/m", "T/m", "V"};
        for (int c = 0; c < 4; ++c) {
            std::string u;
            f.GetChanUnit(c, u);
            EXPECT_EQ(u, units[c]);
        }
        EXPECT_EQ(r->GetChannelInformation()[0].Kind(), "MEG_CH");
        EXPECT_EQ(r->GetChannelInformation()[3].Kind(), "STIM_CH");
        EXPECT_FLOAT_EQ(f.GetChanScale(1), -1.044e-08f);  // negative, as stored
        EXPECT_EQ(r->GetFirstSampleNumber(), 3000);
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 162);
        const long begins[] = {483, 979, 1451, 1975, 2506, 2913};
        const int codes[] = {2, 2, 32, 16, 64, 128};
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(events.GetEvent(i).GetBegin(), begins[i]);
            EXPECT_EQ(events.GetEvent(i).GetEventCode(), codes[i]);
        }
    }
    {
        CFilelib f;
        std::string name = d + "neuromag122_test_file-raw.fif";
        ASSERT_EQ(f.GuessFileMFR(name), 20);
        f.Initialize(0);
        EXPECT_EQ(f.GetMEGChannelCount(), 122);
        EXPECT_EQ(f.GetNumChans(0x8000), 7);
        EXPECT_EQ(dynamic_cast<ecNeuromag_FIFF*>(f.GetActiveFile())->GetFirstSampleNumber(), 21000);
        int negative = 0;
        for (int c = 0; c < 122; ++c)
            negative += f.GetChanScale(c) < 0;
        EXPECT_EQ(negative, 61);
        ecEventList events;
        EXPECT_EQ(f.InitialEventList(&events, nullptr), 0);
    }
}
