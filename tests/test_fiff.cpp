#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <cstdio>
#include <functional>

#include "filelib/filelib.h"
#include "filelib/readers/Neuromag_FIFF.h"
#include "fixtures/Bytes.h"
#include "fixtures/Describe.h"
#include "fixtures/VendorFiles.h"

namespace {
enum : uint32_t { kMeas = 100, kMeasInfo = 101, kRawData = 102, kProcessed = 103, kEvoked = 104, kAspect = 105, kHpi = 108 };

// FILE_ID, an SFREQ before MEAS_DATE (ignored), MEAS_DATE, NCHAN, SFREQ.
Fiff Header(uint32_t channels)
{
    return Fiff().tag(100, 31, Bytes().zeros(20)).f32(201, 999.0f).u32(204, 0).u32(200, channels).f32(201, 500.0f);
}

// The measurement info of a converted file (no MEAS_DATE): a gradiometer (cal 2e-12, range 3)
// and a stimulus channel at 500 Hz. The HPI sub-block's NCHAN and SFREQ are not the recording's.
Fiff MeasInfo()
{
    Fiff f;
    f.tag(100, 31, Bytes().zeros(20)).block(kMeas).block(kMeasInfo);
    f.block(kHpi).u32(200, 9).f32(201, 7.0f).endBlock(kHpi).u32(200, 2).f32(201, 500.0f);
    f.tag(203, 30, ChInfo("MEG0111", 1, 3.0f, 2e-12f, 201, 0xFFFFFFF1)).tag(203, 30, ChInfo("STI101", 3, 1, 1, 107));
    return f.endBlock(kMeasInfo);
}

// An EVOKED block whose ASPECT holds the channels' rows as one float matrix (as MNE writes it)
// or as one vector of shorts per channel.
void Evoked(Fiff& f, const std::string& comment, int first, int last, const std::vector<std::vector<float>>& rows,
            bool matrix)
{
    f.block(kEvoked).tag(206, 10, Bytes().raw(comment)).u32(208, static_cast<uint32_t>(first));
    f.u32(209, static_cast<uint32_t>(last)).block(kAspect);
    Bytes all;
    for (const std::vector<float>& row : rows) {
        Bytes one;
        for (float v : row) {
            all.f32be(v);
            one.u16be(static_cast<uint16_t>(v));
        }
        if (!matrix)
            f.tag(302, 2, one);
    }
    all.u32be(static_cast<uint32_t>(rows[0].size())).u32be(static_cast<uint32_t>(rows.size())).u32be(2);
    if (matrix)
        f.tag(302, 0x40000004, all);
    f.endBlock(kAspect).endBlock(kEvoked);
}

// A reader on a file, with its directory built unless told otherwise.
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
};
}  // namespace

TEST(FIFF, TagWalk)
{
    // FILE_ID jumps over 8 bytes of junk; then kinds 214, 255, 5999 (the last one kept); the end
    // tag's data hold a FILE_ID header, which the final step appends.
    Fiff jumps;
    jumps.tag(100, 31, Bytes().zeros(4), 20 + 8).raw(Bytes().zeros(8)).u32(214, 1).u32(255, 2).u32(5999, 3);
    jumps.tag(108, 0, Bytes().u32be(100).u32be(31).u32be(0).u32be(0xFFFFFFFF), 0xFFFFFFFF);
    const Fiff start = Fiff().tag(100, 31, Bytes().zeros(4));
    const std::string shortRead = "[ecNeuromag_FIFF::ReadUnsignedLong] Inconsistent offsets";
    const std::tuple<Fiff, std::vector<std::string>, std::string> cases[] = {  // file, names, part of the error
        {jumps, {"FILE_ID", "CH_POS", "CH_POS", "Unsupported", "FILE_ID"}, ""},
        {Fiff(start).tag(108, 0, Bytes().u32be(6000).zeros(12), 0xFFFFFFFF), {"FILE_ID"}, ""},  // final kind >= 6000
        // A kind >= 6000 ends the walk; the final step reads the next word (type 3) as a kind.
        {Fiff(start).u32(6001, 1).u32(200, 4).end(), {"FILE_ID", "Unsupported"}, ""},
        // The final step meets a known kind without the twelve bytes that should follow it.
        {Fiff(start).tag(108, 0, Bytes().u32be(100).zeros(4), 0xFFFFFFFF), {}, shortRead},
        {Fiff(start).u32(200, 4).tag(108, 0, Bytes()).tag(108, 0, Bytes(), 20), {}, "loops back on itself."},
    };
    for (const auto& [file, names, error] : cases) {
        Walked w(file, false);
        const std::string raised = Message([&] { w.reader.ReadAllTagRecords(); });
        std::vector<std::string> walked;
        for (const FIFF_TagRec& rec : w.reader.GetDirectory())
            walked.push_back(rec.name);
        if (error.empty())
            EXPECT_EQ(walked, names) << raised;
        else
            EXPECT_NE(raised.find(error), std::string::npos) << raised;
    }
    EXPECT_EQ(Walked(jumps).reader.GetDirectory()[1].dataPos, 20 + 8 + 16);
}

TEST(FIFF, DirectoryQueriesAndRecords)
{
    Fiff f = Header(3).u32(208, 11).u32(208, 22).u32(209, 99).tag(600, 3, Bytes().zeros(12)).u32(200, 5);
    f.tag(203, 30, ChInfo("EEG 001", 2, 2.0f, 0.5f, 107, 0xFFFFFFFA));
    f.tag(203, 30, ChInfo("EEG 001", 2, 1, 1, 107)).tag(203, 30, ChInfo("EEG 001", 2, 1, 1, 107));
    Bytes trans = Bytes().u32be(1).u32be(4);
    for (int i = 0; i < 24; ++i)
        trans.f32be(static_cast<float>(i));
    f.tag(222, 35, trans).tag(213, 33, Bytes().u32be(1).u32be(2).f32be(0).f32be(0.1f).f32be(0));
    f.tag(213, 33, Bytes().u32be(1).u32be(1).f32be(-0.07f).f32be(0).f32be(0));
    f.tag(213, 33, Bytes().u32be(3).u32be(1).f32be(9).f32be(9).f32be(9)).end();
    Walked w(f);
    ecNeuromag_FIFF& r = w.reader;
    EXPECT_EQ(r.Get("NCHAN"), 5u);  // the second occurrence
    EXPECT_EQ(r.CountAfter("FIRST_SAMPLE", "MEAS_DATE"), 2u);
    EXPECT_EQ(r.CountAfter("SFREQ", "NO_SUCH"), 0u);
    EXPECT_EQ(r.SizeAfter("EVENT_CHANNELS", "MEAS_DATE", 0), 12u);
    EXPECT_EQ(r.SizeAfter("EVENT_CHANNELS", "MEAS_DATE", 1), 12u);
    EXPECT_EQ(r.SizeAfter("EVENT_CHANNELS", "MEAS_DATE", 2), 0u);
    EXPECT_EQ(r.GetNumEventChans_FIFF(), 3u);
    EXPECT_EQ(r.GetFirstSample_FIFF(2), 22);
    EXPECT_EQ(r.GetLastSample_FIFF(1), 99);
    EXPECT_FLOAT_EQ(r.GetSampleRate_FIFF(), 500.0f);  // the SFREQ before MEAS_DATE does not count
    // The cursor moves on each success, stays on failure, and a reset starts afresh.
    std::vector<size_t> cursors;
    for (int i = 0; i < 3; ++i)
        cursors.push_back(r.NextAfter("FIRST_SAMPLE", "MEAS_DATE") ? r.GetCursor() : 0);
    r.ResetCursor();
    EXPECT_TRUE(r.NextAfter("FIRST_SAMPLE", "MEAS_DATE"));
    EXPECT_EQ(cursors, (std::vector<size_t>{5, 6, 0}));
    EXPECT_EQ(r.GetCursor(), 5u);
    // Unlike ReadUnsignedLong (see TagWalk), ReadFloat answers a short read with 0.
    FIFF_TagRec pastEnd;
    pastEnd.dataPos = static_cast<long long>(f.size()) - 2;
    EXPECT_EQ(r.ReadFloat(pastEnd), 0.0f);

    ASSERT_EQ(r.SetChannelInformationVector(), 3u);
    const auto& ch = r.GetChannelInformation();
    EXPECT_EQ(ch[1].Name() + "," + ch[2].Name(), "EEG 001x,EEG 001x");  // only the first match is looked at
    EXPECT_EQ(std::make_pair(ch[0].range, ch[0].cal), std::make_pair(2.0f, 0.5f));
    EXPECT_EQ(ch[0].chpos.ez[2], 5.5f);
    EXPECT_EQ(static_cast<int32_t>(ch[0].unitMul), -6);
    ASSERT_EQ(r.SetCoordinateTransformationVector(), 1u);
    const FIFF_CoordTrans& t = r.GetCoordinateTransformations()[0];
    EXPECT_EQ(t.Coord(true) + ">" + t.Coord(false), "DEVICE>HEAD");
    EXPECT_EQ(std::make_tuple(t.rot[1][2], t.move[2], t.invmove[2]), std::make_tuple(5.0f, 11.0f, 23.0f));
    ASSERT_EQ(r.SetDigitizationPointVector(), 3u);
    float nasion[3], lpa[3];
    ASSERT_TRUE(r.GetFiducial(2, nasion) && r.GetFiducial(1, lpa));
    EXPECT_FLOAT_EQ(nasion[1], 0.1f);
    EXPECT_FLOAT_EQ(lpa[0], -0.07f);
    EXPECT_FALSE(r.GetFiducial(3, lpa));  // the only ident-1 point of kind EEG is not cardinal
}

// Files without MEAS_DATE. Raw: buffers of 3 slices in short, int, float and double with one
// skipped buffer between them, values x cal x range. Averaged: sets of 3 samples from sample -1
// (-2 ms at 500 Hz), values x cal only, as the sets are stored.
TEST(FIFF, RawAndAveragedData)
{
    Fiff raw = MeasInfo().block(kRawData).u32(208, 3000);
    raw.tag(300, 2, Bytes().u16be(1).u16be(0).u16be(static_cast<uint16_t>(-2)).u16be(0).u16be(3).u16be(4)).u32(301, 1);
    raw.tag(300, 3, Bytes().u32be(10).u32be(0).u32be(20).u32be(8).u32be(30).u32be(8));
    raw.tag(300, 4, Bytes().f32be(1.5f).f32be(2).f32be(2.5f).f32be(2).f32be(3.5f).f32be(0));
    raw.tag(300, 5, Bytes().f64be(-1).f64be(0).f64be(-2).f64be(1).f64be(-3).f64be(1)).endBlock(kRawData);
    struct Case {
        Fiff file;
        unsigned runType;
        int epochs, epochSlices;
        float preStim, scale;
        long firstSample;
        std::vector<float> meg, stim;                            // from slice 1 on
        std::string events;
    };
    std::vector<Case> cases = {{raw, 4, 1, 15, 0, 6e-12f, 3000, {-2, 3, 0, 0, 0, 10, 20, 30, 1.5f, 2.5f, 3.5f, -1, -2, -3},
                                {0, 4, 0, 0, 0, 0, 8, 8, 2, 2, 0, 0, 1, 1},
                                "4@2#4/2 8@7#8/2 1@13#1/2"}};  // rises only
    for (bool matrix : {true, false}) {
        Fiff one = MeasInfo().block(kProcessed);
        Evoked(one, "aud", -1, 1, {{1, 2, 3}, {0, 4, 0}}, matrix);
        Fiff two = one;
        Evoked(two, "vis", -1, 1, {{-1, -2, -3}, {0, 0, 8}}, matrix);
        cases.push_back({one, 1, 1, 3, -0.002f, 2e-12f, -1, {2, 3}, {4, 0}, "aud@0"});
        cases.push_back({two, 2, 2, 3, -0.002f, 2e-12f, -1, {2, 3, -1, -2, -3}, {4, 0, 0, 0, 8}, "aud@0 vis@3"});
    }
    for (const Case& c : cases) {
        Walked w(Fiff(c.file).endBlock(kMeas).end(), false);
        ecNeuromag_FIFF& r = w.reader;
        r.Initialize(0);
        EXPECT_EQ(r.GetRunType(), c.runType);
        EXPECT_EQ(std::make_tuple(r.GetNumEpochs(), r.GetEpochSlices(), r.GetNumSlices()),
                  std::make_tuple(c.epochs, c.epochSlices, c.epochs * c.epochSlices));
        EXPECT_FLOAT_EQ(r.GetPreStim(), c.preStim);
        EXPECT_EQ(r.GetFirstSampleNumber(), c.firstSample);
        EXPECT_FLOAT_EQ(r.GetSampleRate(), 500.0f);
        EXPECT_TRUE(r.UseChanUnitPrefix(0));
        EXPECT_EQ(ChannelsOf(r), "MEG0111/T/m/512 STI101/V/32768");
        ecLabeledMatrix<float> m;
        ASSERT_EQ(r.ReadData(m, 1, 100), static_cast<int>(c.meg.size()));
        for (size_t t = 0; t < c.meg.size(); ++t) {
            EXPECT_FLOAT_EQ(m[0][t], c.meg[t] * c.scale) << t;
            EXPECT_EQ(m[1][t], c.stim[t]) << t;
        }
        EXPECT_EQ(EventsOf(r), c.events);
    }
}

// What the accessors (which still look after MEAS_DATE) and Initialize refuse, and with which
// message ("<file>" stands for the file's path).
TEST(FIFF, ErrorMessages)
{
    const auto init = [](ecNeuromag_FIFF& r) { r.Initialize(0); };
    const auto chans = [](ecNeuromag_FIFF& r) { r.GetNumChans_FIFF(); };
    const auto rate = [](ecNeuromag_FIFF& r) { r.GetSampleRate_FIFF(); };
    const Fiff start = Fiff().tag(100, 31, Bytes().zeros(4));
    const auto info = [&](uint32_t channels) {
        return Fiff(start).block(kMeasInfo).u32(200, channels).tag(203, 30, ChInfo("A", 1, 1, 1, 112));
    };
    const auto rated = [&](float sfreq) { return info(1).f32(201, sfreq); };
    const auto set = [&](int first, int last, const std::vector<std::vector<float>>& rows, bool matrix) {
        Fiff f = rated(100);
        Evoked(f, "", first, last, rows, matrix);
        return f;
    };
    const auto open = [&] { return rated(100).block(kEvoked).u32(208, 0).u32(209, 1).block(kAspect); };  // samples 0, 1
    Fiff twoWindows = set(0, 1, {{1, 2}}, true);
    Evoked(twoWindows, "", 0, 2, {{1, 2, 3}}, true);
    const std::string m1 = "[ecNeuroMag_FIFF::", m2 = "[ecNeuromag_FIFF::", in = m2 + "Initialize] ";
    const std::tuple<Fiff, std::function<void(ecNeuromag_FIFF&)>, std::string> cases[] = {
        {MeasInfo(), chans, m1 + "GetNumChans_FIFF] NCHAN not found after MEAS_DATE in FIFF file"},
        {MeasInfo(), rate, m1 + "GetSampleRate_FIFF] SFREQ not found after MEAS_DATE in FIFF file"},
        {Header(0), chans, m2 + "GetNumChans_FIFF] Zero channels detected in FIFF file"},
        {Header(2).tag(203, 30, ChInfo("A", 1, 1, 1, 112)), chans,
         m2 + "GetNumChans_FIFF] Inconsistent number of channels detected in FIFF file"},
        {Fiff().tag(100, 31, Bytes()).u32(204, 0).f32(201, 0.0f), rate,
         m2 + "GetSampleRate_FIFF] Zero or negative sample rate detected in FIFF file"},
        {Fiff().raw(Bytes().raw("hello world, not fiff")), init, in + "Not a FIFF file (its first tag is not FILE_ID): <file>"},
        {Fiff(start).block(kMeasInfo).block(kHpi).u32(200, 1), init, in + "NCHAN not found in the measurement info of FIFF file"},
        {info(0), init, in + "Zero channels detected in FIFF file"},
        {info(2), init, in + "Inconsistent number of channels detected in FIFF file"},
        {info(1).block(kHpi).f32(201, 100), init, in + "SFREQ not found in the measurement info of FIFF file"},
        {rated(-1), init, in + "Zero, negative or infinite sample rate detected in FIFF file"},
        {rated(100).tag(300, 4, Bytes().zeros(6)), init,
         in + "A DATA_BUFFER of 6 bytes does not hold whole slices of 1 channels."},
        {rated(100).tag(300, 4, Bytes()), init, in + "<file> holds no samples."},
        {rated(100), init, in + "<file> holds neither raw data buffers nor averaged sets."},
        {twoWindows, init,
         in + "The averaged sets cover different sample windows; they cannot be delivered as epochs of one length."},
        {set(2, 1, {{}}, true), init, in + "An averaged set ends before it begins."},
        {rated(100).block(kEvoked).u32(208, 0), init, in + "An averaged set lacks its FIRST_SAMPLE or LAST_SAMPLE."},
        {rated(100).block(kEvoked).u32(208, 0).u32(209, 0), init, in + "An averaged set holds no ASPECT block."},
        {set(0, 1, {{1, 2}, {3, 4}}, false), init, in + "An averaged set holds 2 EPOCH tags for 1 channels."},
        {set(0, 2, {{1, 2}}, false), init, in + "An EPOCH of 4 bytes does not hold 3 samples."},
        {open().tag(302, 1, Bytes().zeros(2)), init, in + "Unsupported data type 1 in an EPOCH."},
        {set(0, 0, {{1, 2}}, true), init, in + "An EPOCH matrix does not hold 1 channels of 1 samples."},
        // The right size, but dimensions of 2 channels of 1 sample.
        {open().tag(302, 0x40000004, Bytes().zeros(8).u32be(1).u32be(2).u32be(2)), init,
         in + "An EPOCH matrix does not hold 1 channels of 2 samples."},
    };
    for (const auto& [file, call, message] : cases) {
        Walked w(Fiff(file).end());
        std::string raised = Message([&] { call(w.reader); });
        if (const size_t at = raised.find(w.path); at != std::string::npos)
            raised.replace(at, w.path.size(), "<file>");
        EXPECT_EQ(raised, message);
    }
}
