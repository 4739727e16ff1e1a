// EGI MFF folders: byte-built ones for PNS, pauses, changed block headers, segments and averages;
// the paused real recording for its events on the stored timeline.
#include <gtest/gtest.h>

#include <cstdio>

#include "filelib/filelib.h"
#include "fixtures/Bytes.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/Exercise.h"
#include "fixtures/MffFiles.h"
#include "fixtures/SharedData.h"

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
    Bytes().raw("<patient><fields><field><name>Patient ID</name><data>p7</data></field>"
                "<field><name>Gender</name><data>Female</data></field><field><name>Date of Birth</name>"
                "<data>1990-02-03T00:00:00</data></field><field><name>First (Given) Name</name><data>Ann</data>"
                "</field></fields></patient>").write(dir.path("r.mff/subject.xml"));
    CFilelib f;
    ASSERT_EQ(OpenRecording(f, dir.path("r.mff/")), kMfrEGI);
    const ecRecordingInfo& who = f.GetRecordingInfo();
    EXPECT_EQ(who.subjectId + " " + who.subjectName + " " + who.subjectSex + " " + who.subjectBirthDate, "p7 Ann F 1990-02-03");
    EXPECT_EQ(f.GetNumSlices(), 4);  // ends with the PNS
    EXPECT_EQ(f.GetRunType(), 4u);
    EXPECT_EQ(f.GetReferenceChannel(), 2);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 4), 4);
    EXPECT_EQ(ChannelsOf(f), "E1/V/1024 E2/V/1024 VREF/V/5120 P1/V/0 P2/bpm/0");
    const float scale[] = {2e-6f, 1e-6f, 1e-6f, 1e-6f, 1};
    for (int c = 0; c < 5; ++c)
        for (int t = 0; t < 4; ++t)
            EXPECT_FLOAT_EQ(m[c][t], (c * 100 + t) * scale[c]) << c << "," << t;
    // 8 ms are 2 slices, cut at the last slice; the event after the last sample is left out.
    EXPECT_EQ(EventsOf(f), "New Segment@0 New Segment@3 SESS:go@1..3#1/2 bgin@3#2/2 SESS@3#1/2");
}

// Segments of categories are epochs named by their category; one average is run type 1; a
// missing signal file is named; a folder that is no MFF is left to other readers.
TEST(Mff, SegmentsAveragesAndMissingFiles)
{
    TempDir dir;
    MffSpec spec;
    spec.blocks = {4, 4};
    spec.epochBegins = {0, 2000000};
    spec.categories = {"Face", "House"};
    spec.stimulusUs = 8000;
    spec.averaged = true;
    WriteMff(dir.path("a"), spec);
    CFilelib two;
    ASSERT_EQ(OpenRecording(two, dir.path("a.mff/info.xml")), kMfrEGI);
    EXPECT_EQ(two.GetRunType(), 2u);
    EXPECT_EQ(two.GetNumEpochs(), 2);
    EXPECT_FLOAT_EQ(two.GetPreStim(), 0.008f);
    EXPECT_EQ(EventsOf(two), "Face@0 House@4");
    spec.blocks = {4};
    spec.epochBegins = {0};
    spec.categories = {"Face"};
    WriteMff(dir.path("b"), spec);
    std::string name = dir.path("b.mff");
    CFilelib one;
    ASSERT_EQ(OpenRecording(one, name), kMfrEGI);
    EXPECT_EQ(one.GetRunType(), 1u);
    std::remove((name + "/signal1.bin").c_str());
    EXPECT_EQ(Message([&] { CFilelib().GuessFileMFR(name); }),
              "[CEGI::Initialize] Cannot open the EEG signal file " + name + "/signal1.bin.");
    std::string folder = dir.dir();
    EXPECT_EQ(CFilelib().GuessFileMFR(folder), 0);
}

// The README's events: all 23 on the stored timeline, two of them in the second pause.
TEST(Mff, PausedRealRecordingEvents)
{
    SHARED_DATA_OR_SKIP(data, "mff/test_egi_multiepoch_paused.mff");
    CFilelib f;
    ASSERT_EQ(OpenRecording(f, data + "signal1.bin"), kMfrEGI);
    EXPECT_EQ(f.GetRecordingInfo().subjectId, "epoch_pause");
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 26);
    EXPECT_EQ(EventsText(events, 1, 4), "New Segment@326 New Segment@2048 SESS:assr-am@220#1/2 CELL:TARG@222#2/2");
    EXPECT_EQ(EventsText(events, 14, 2) + " " + EventsText(events, 9, 1) + " " + EventsText(events, 25),
              "FIX+@2048#4/2 AM40@2048#5/2 bgin@1413#3/2 bgin@3497#3/2");
}
