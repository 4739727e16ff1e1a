// The metafile: several recordings read as one, and the concat writer.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "filelib/readers/ORVA_MetaFile.h"
#include "fixtures/Bytes.h"
#include "fixtures/Errors.h"
#include "fixtures/MetaFiles.h"
#include "fixtures/SharedData.h"

namespace {

void Open(CFilelib& f, std::string path)
{
    ASSERT_NE(f.GuessFileMFR(path), 0) << path;
    f.Initialize(0);
}

// The samples of the channel named `channel`, read in one call.
std::vector<float> Row(CFilelib& f, const std::string& channel, int first, int count)
{
    ecLabeledMatrix<float> block;
    EXPECT_EQ(f.ReadData(block, first, count), count);
    for (int c = 0; c < f.GetNumChans(); ++c)
        if (block.GetRowLabeledState(c).GetLabel() == channel)
            return std::vector<float>(block[c], block[c] + count);
    return {};
}

// concat's metafile reads as the members' concatenation: every channel's samples (matched by name,
// read across the joins in one call), their events and one boundary per join.
void ExpectJoined(const std::string& meta, const std::vector<std::string>& members)
{
    ASSERT_GT(WriteMetaFile(meta, members, false), 0);
    EXPECT_NE(Message([&] { WriteMetaFile(meta, members, false); }).find("exists"), std::string::npos);
    EXPECT_EQ(ReadTextFile(meta).find("path=\"/"), std::string::npos);  // relative paths only
    CFilelib joined;
    Open(joined, meta);
    std::vector<CFilelib> opened(members.size());
    ecEventList events, own;
    for (size_t k = 0; k < members.size(); ++k) {
        Open(opened[k], members[k]);
        opened[k].InitialEventList(&own, nullptr);
    }
    EXPECT_EQ(joined.InitialEventList(&events, nullptr), own.GetEventCnt() + static_cast<int>(members.size()) - 1);
    for (int c = 0; c < joined.GetNumChans(); ++c) {
        std::string name;
        joined.GetChanName(c, name);
        std::vector<float> expected;
        for (CFilelib& member : opened) {
            const std::vector<float> row = Row(member, name, 0, member.GetNumSlices());
            expected.insert(expected.end(), row.begin(), row.end());
        }
        EXPECT_EQ(Row(joined, name, 0, joined.GetNumSlices()), expected) << name;
    }
}

}  // namespace

TEST(MetaFile, JoinsRangesAndNestedMetafiles)
{
    TempDir dir;
    WriteMetaRowFiles(dir.path("f"), MetaSeeds().front().second);
    CFilelib f;
    Open(f, dir.path("f.orva_mf"));
    EXPECT_EQ(f.GetCurrentFileName(1), dir.path("f_b.rec"));
    // Fz of f.edf is 37 i - 100 counts of 0.1 uV; f_b.rec takes its slices 2..5.
    const std::vector<float> got = Row(f, "Fz", 6, 6);
    const int counts[] = {122, 159, -26, 11, 48, 85};
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], counts[i] * 1e-7, 1e-12) << i;
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 5);
    // The Status change at slice 6 lies beyond f_b.rec's range.
    const std::pair<std::string, long> expected[] = {
        {"stim", 2}, {"1", 6}, {"f_b.rec", 8}, {"stim", 8}, {"user mark", 10}};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(std::make_pair(events.GetEvent(i).GetEventName(), events.GetEvent(i).GetBegin()), expected[i]);
}

TEST(MetaFile, JoinsBrainVisionWithEdfAndDevSetEdfs)
{
    TempDir dir;
    WriteBrainVisionAndEdf(dir.dir());
    ExpectJoined(dir.path("mixed.orva_mf"), {dir.path("bv.vhdr"), dir.path("e.edf")});
    SHARED_DATA_OR_SKIP(edf, "edf");
    ExpectJoined(dir.path("pair.orva_mf"), {edf + "edf+C.edf", edf + "edf+C.edf"});
}

TEST(MetaFile, RefusesBrokenListsNamingTheCause)
{
    for (const MetaBroken& c : MetaBrokenCases()) {
        TempDir dir;
        WriteMetaRowFiles(dir.path("f"), c.bytes);
        CFilelib f;
        std::string name = dir.path("f.orva_mf");
        const std::string error = Message([&] { f.GuessFileMFR(name); });
        EXPECT_EQ(error.rfind("[ecORVA_MetaFile::Initialize] ", 0), 0u) << c.name << ": " << error;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.name << ": " << error;
    }
}
