// CTF datasets: the reader-case seed (three trials over .meg4 and .1_meg4, markers, a bad channel
// and a bad segment), a continuous variant, and what the real dataset's README states.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/CtfFiles.h"
#include "fixtures/Describe.h"
#include "fixtures/Exercise.h"
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
    ASSERT_EQ(OpenRecording(f, WriteSeed(dir)), kMfrCTF);
    EXPECT_EQ(f.GetRunType(), 2u);
    EXPECT_EQ(f.GetNumEpochs(), 3);
    EXPECT_EQ(f.GetEpochSlices(), 4);
    EXPECT_FLOAT_EQ(f.GetPreStim(), 0.005f);
    EXPECT_EQ(ChannelsOf(f), "MLC11-4304/T/2560 UPPT001//32768 SCLK01-177//0");  // the MEG channel is bad
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 6, 6), 6);  // across the two data files
    const float meg[] = {995, 996, 1993, 1994, 1995, 1996}, clock[] = {6, 7, 108, 109, 110, 111};
    for (long t = 0; t < 6; ++t) {
        EXPECT_FLOAT_EQ(m[0][t], meg[t] * 0.5e-12f);
        EXPECT_EQ(m[2][t], clock[t] * 0.25f);
    }
    EXPECT_EQ(EventsOf(f), "stim@1#1/2 bad@2..3/1 5@6#5/2 New Segment@8 stim@8#1/2");
    EXPECT_EQ(f.GetRecordingInfo().channelFilters, std::vector<std::string>(3, "LP:40Hz"));
}

TEST(CTF, TrialsThatFollowOnTheClockAreOneContinuousEpoch)
{
    TempDir dir;
    CtfRes4({{"SCLK01-177", 17, 1}}, 2, 100, 0).write(dir.path("c.ds/c.res4"));
    CtfMeg4(0, 3, 1, 2, Ramp).write(dir.path("c.ds/c.meg4"));
    CFilelib f;
    ASSERT_EQ(OpenRecording(f, dir.path("c.ds/c.res4")), kMfrCTF);
    EXPECT_EQ(f.GetRunType(), 4u);
    EXPECT_EQ(f.GetNumSlices(), 6);
    EXPECT_EQ(EventsOf(f), "");
}

TEST(CTF, RealDatasetKeepsItsTwoDiscontinuousTrials)
{
    SHARED_DATA_OR_SKIP(data, "ctf/testdata_ctf_short_discontinuous.ds");
    CFilelib f;
    ASSERT_EQ(OpenRecording(f, data), kMfrCTF);
    EXPECT_EQ(f.GetNumEpochs(), 2);
    EXPECT_EQ(f.GetEpochSlices(), 1201);
    EXPECT_EQ(ChannelsOf(f, {1, 3, 4, 40, 305}),
              "UPPT001//32768 SCLK01-177//0 BG1-4304/T/4608 MLC22-4304/T/512 EEG057/V/1024");
    EXPECT_EQ(f.GetRecordingInfo().subjectId, "Anonymized4977_1448272137_0");
}
