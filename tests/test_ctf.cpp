// CTF datasets: the reader-case seed (three trials over .meg4 and .1_meg4, markers, a bad channel
// and a bad segment), a continuous variant, and what the real dataset's README states.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/CtfFiles.h"
#include "fixtures/SharedData.h"

namespace {
std::string WriteSeed(const TempDir& dir)
{
    const ReaderCase& row = *FindReaderCase("ctf");
    const std::string bytes = row.seeds().front().second;
    const auto parts = SplitFiles(row, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    for (size_t k = 0; k < parts.size(); ++k)
        Bytes().raw(std::string(parts[k].begin(), parts[k].end())).write(dir.path("f") + row.suffixes[k]);
    return dir.path("f.ds");
}
int32_t Ramp(int trial, int, int sample) { return trial * 2 + sample; }  // a clock running on over trials
}  // namespace

TEST(CTF, TrialsOverTwoDataFilesWithMarkersBadChannelAndBadSegment)
{
    TempDir dir;
    CFilelib f;
    std::string name = WriteSeed(dir);
    ASSERT_EQ(f.GuessFileMFR(name), kMfrCTF);
    f.Initialize(0);
    EXPECT_EQ(f.GetRunType(), 2u);
    EXPECT_EQ(f.GetNumEpochs(), 3);
    EXPECT_EQ(f.GetEpochSlices(), 4);
    EXPECT_FLOAT_EQ(f.GetPreStim(), 0.005f);
    const int types[] = {kChanMEG | kChanOff, kChanTrigger, 0};
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ(f.GetChanType(c), types[c]);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 6, 6), 6);  // across the two data files
    const float meg[] = {995, 996, 1993, 1994, 1995, 1996}, clock[] = {6, 7, 108, 109, 110, 111};
    for (long t = 0; t < 6; ++t) {
        EXPECT_FLOAT_EQ(m[0][t], meg[t] * 0.5e-12f);
        EXPECT_EQ(m[2][t], clock[t] * 0.25f);
    }
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 5);
    const struct { long begin, end; const char* name; int code, kind; } expected[] = {
        {1, 1, "stim", 1, 2}, {2, 3, "bad", 0, 1}, {6, 6, "5", 5, 2}, {8, 8, "New Segment", 0, 0}, {8, 8, "stim", 1, 2}};
    for (int i = 0; i < 5; ++i) {
        const ecEvent& e = events.GetEvent(i);
        EXPECT_EQ(e.GetBegin(), expected[i].begin);
        EXPECT_EQ(e.GetEnd(), expected[i].end);
        EXPECT_EQ(e.GetEventName(), expected[i].name);
        EXPECT_EQ(e.GetEventCode(), expected[i].code);
        EXPECT_EQ(e.GetKind(), expected[i].kind);
    }
}

TEST(CTF, TrialsThatFollowOnTheClockAreOneContinuousEpoch)
{
    TempDir dir;
    CtfRes4({{"SCLK01-177", 17, 1}}, 2, 100, 0).write(dir.path("c.ds/c.res4"));
    CtfMeg4(0, 3, 1, 2, Ramp).write(dir.path("c.ds/c.meg4"));
    CFilelib f;
    std::string name = dir.path("c.ds/c.res4");
    ASSERT_EQ(f.GuessFileMFR(name), kMfrCTF);
    f.Initialize(0);
    EXPECT_EQ(f.GetRunType(), 4u);
    EXPECT_EQ(f.GetNumSlices(), 6);
    ecEventList events;
    EXPECT_EQ(f.InitialEventList(&events, nullptr), 0);
}

TEST(CTF, RealDatasetKeepsItsTwoDiscontinuousTrials)
{
    SHARED_DATA_OR_SKIP(data, "ctf/testdata_ctf_short_discontinuous.ds");
    CFilelib f;
    std::string name = data;
    ASSERT_EQ(f.GuessFileMFR(name), kMfrCTF);
    f.Initialize(0);
    EXPECT_EQ(f.GetNumEpochs(), 2);
    EXPECT_EQ(f.GetEpochSlices(), 1201);
    const struct { int chan, type; const char* unit; } rows[] = {
        {1, kChanTrigger, ""}, {3, 0, ""}, {4, kChanMEG | kChanReference, "T"}, {40, kChanMEG, "T"}, {305, kChanEEG, "V"}};
    for (const auto& r : rows) {
        std::string unit;
        f.GetChanUnit(r.chan, unit);
        EXPECT_EQ(f.GetChanType(r.chan), r.type) << r.chan;
        EXPECT_EQ(unit, r.unit) << r.chan;
    }
}
