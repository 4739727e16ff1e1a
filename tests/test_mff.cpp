// EGI MFF folders: byte-built ones for PNS, pauses, changed block headers, segments and averages;
// the paused real recording for its events on the stored timeline.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/Bytes.h"
#include "fixtures/MffFiles.h"
#include "fixtures/SharedData.h"

namespace {
struct Opened {
    CFilelib f;
    ecEventList events;
    explicit Opened(std::string name)
    {
        EXPECT_EQ(f.GuessFileMFR(name), 6);
        f.Initialize(0);
        f.InitialEventList(&events, nullptr);
    }
    std::string Event(int k) { return events.GetEvent(k).GetEventName() + "@" + std::to_string(events.GetEvent(k).GetBegin()); }
};
}  // namespace

// Two epochs (3 + 2 stored samples, a pause between), the PNS a sample short, the second block
// with a header of its own; an event in the pause lands on the second epoch's first slice.
TEST(Mff, PausedRecordingWithPnsOnTheStoredTimeline)
{
    TempDir dir;
    MffSpec spec;
    spec.eeg = 3;
    spec.pns = 2;
    spec.blocks = {3, 2};
    spec.newHeader = {true, true};
    spec.pnsShort = true;
    spec.gain1 = 2;
    spec.epochBegins = {0, 5000000};
    spec.events = {{4000, "SESS", "go"}, {1000000, "bgin", ""}, {5000000, "SESS", ""}, {9000000, "late", ""}};
    WriteMff(dir.path("r"), spec);
    Opened o(dir.path("r.mff/"));
    ASSERT_EQ(o.f.GetNumChans(), 5);
    EXPECT_EQ(o.f.GetNumSlices(), 4);  // ends with the PNS
    EXPECT_EQ(o.f.GetRunType(), 4u);
    const char* names[] = {"E1", "E2", "VREF", "P1", "P2"};
    const char* units[] = {"V", "V", "V", "V", "bpm"};
    for (int c = 0; c < 5; ++c) {
        std::string name, unit;
        o.f.GetChanName(c, name);
        o.f.GetChanUnit(c, unit);
        EXPECT_EQ(name + " " + unit, std::string(names[c]) + " " + units[c]);
    }
    EXPECT_EQ(o.f.GetReferenceChannel(), 2);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(o.f.ReadData(m, 0, 4), 4);
    const float scale[] = {2e-6f, 1e-6f, 1e-6f, 1e-6f, 1};
    for (int c = 0; c < 5; ++c)
        for (int t = 0; t < 4; ++t)
            EXPECT_FLOAT_EQ(m[c][t], (c * 100 + t) * scale[c]) << c << "," << t;
    ASSERT_EQ(o.events.GetEventCnt(true), 5);  // the event after the last sample is left out
    const char* expected[] = {"New Segment@0", "New Segment@3", "SESS:go@1", "bgin@3", "SESS@3"};
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(o.Event(k), expected[k]);
    EXPECT_EQ(o.events.GetEvent(2).GetEnd(), 3);  // 8 ms = 2 slices
    EXPECT_EQ(o.events.GetEvent(4).GetEnd(), 3);  // cut at the last slice
    EXPECT_EQ(o.events.GetEvent(3).GetEventCode(), 2);
}

TEST(Mff, SegmentsOfCategoriesAreEpochsAndOneAverageIsRunType1)
{
    TempDir dir;
    MffSpec spec;
    spec.blocks = {4, 4};
    spec.epochBegins = {0, 2000000};
    spec.categories = {"Face", "House"};
    spec.stimulusUs = 8000;
    spec.averaged = true;
    WriteMff(dir.path("a"), spec);
    Opened two(dir.path("a.mff/info.xml"));
    EXPECT_EQ(two.f.GetRunType(), 2u);
    EXPECT_EQ(two.f.GetNumEpochs(), 2);
    EXPECT_FLOAT_EQ(two.f.GetPreStim(), 0.008f);
    EXPECT_EQ(two.Event(0) + " " + two.Event(1), "Face@0 House@4");
    spec.blocks = {4};
    spec.epochBegins = {0};
    spec.categories = {"Face"};
    WriteMff(dir.path("b"), spec);
    EXPECT_EQ(Opened(dir.path("b.mff")).f.GetRunType(), 1u);
    spec.blocks = {4, 3};
    spec.epochBegins = {0, 2000000};
    spec.categories = {"Face", "Face"};
    WriteMff(dir.path("c"), spec);
    CFilelib f;
    std::string name = dir.path("c.mff");
    EXPECT_THROW(f.GuessFileMFR(name), ecError);
    std::remove((name + "/signal1.bin").c_str());
    try {
        CFilelib g;
        g.GuessFileMFR(name);
        FAIL();
    } catch (const ecError& e) {
        EXPECT_EQ(std::string(e.what()), "[CEGI::Initialize] Cannot open the EEG signal file " + name + "/signal1.bin.");
    }
    std::string folder = dir.dir();  // a folder that is no MFF: no reader claims it
    EXPECT_EQ(CFilelib().GuessFileMFR(folder), 0);
}

// The README's events: all 23 on the stored timeline, two of them in the second pause.
TEST(Mff, PausedRealRecordingEvents)
{
    SHARED_DATA_OR_SKIP(data, "mff/test_egi_multiepoch_paused.mff");
    Opened o(data + "signal1.bin");
    ASSERT_EQ(o.events.GetEventCnt(true), 26);
    EXPECT_EQ(o.Event(1) + " " + o.Event(2), "New Segment@326 New Segment@2048");
    EXPECT_EQ(o.Event(3) + " " + o.Event(4), "SESS:assr-am@220 CELL:TARG@222");
    EXPECT_EQ(o.Event(9) + " " + o.Event(14) + " " + o.Event(15), "bgin@1413 FIX+@2048 AM40@2048");
    EXPECT_EQ(o.Event(25), "bgin@3497");
}
