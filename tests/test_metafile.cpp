// The metafile: several recordings read as one, and the writer of the program's concat command.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "filelib/readers/ORVA_MetaFile.h"
#include "fixtures/Bytes.h"
#include "fixtures/Errors.h"
#include "fixtures/MetaFiles.h"
#include "fixtures/SharedData.h"

namespace {

void Open(CFilelib& f, const std::string& path)
{
    std::string name = path;
    ASSERT_NE(f.GuessFileMFR(name), 0) << path;
    f.Initialize(0);
}

void WriteRowFiles(const std::string& stem, const std::string& bytes)
{
    const ReaderCase& row = *FindReaderCase("metafile");
    const auto parts = SplitFiles(row, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    for (size_t k = 0; k < parts.size(); ++k)
        Bytes().raw(std::string(parts[k].begin(), parts[k].end())).write(stem + row.suffixes[k]);
}

std::vector<float> Row(CFilelib& f, const std::string& channel, int first, int count)
{
    ecLabeledMatrix<float> block;
    EXPECT_EQ(f.ReadData(block, first, count), count);
    for (int c = 0; c < f.GetNumChans(); ++c)
        if (block.GetRowLabeledState(c).GetLabel() == channel)
            return std::vector<float>(block[c], block[c] + count);
    ADD_FAILURE() << "no channel " << channel;
    return {};
}

// Written by the concat writer; slices are the members' sum, every channel's samples (read in one
// call across the joins) the members' own, their events shifted behind a boundary at each join.
void ExpectJoined(const std::string& meta, const std::vector<std::string>& members)
{
    ASSERT_GT(WriteMetaFile(meta, members, false), 0);
    EXPECT_EQ(ReadTextFile(meta).find("path=\"/"), std::string::npos);  // relative paths only
    CFilelib joined;
    Open(joined, meta);
    ASSERT_EQ(joined.GetFileSource(), 33u);
    ecEventList events;
    joined.InitialEventList(&events, nullptr);
    int offset = 0, next = 0;
    for (const std::string& path : members) {
        CFilelib member;
        Open(member, path);
        ecEventList own;
        member.InitialEventList(&own, nullptr);
        if (offset > 0) {
            EXPECT_TRUE(events.GetEvent(next++).IsSegmentBoundary());
        }
        for (int e = 0; e < own.GetEventCnt(); ++e, ++next) {
            EXPECT_EQ(events.GetEvent(next).GetEventName(), own.GetEvent(e).GetEventName());
            EXPECT_EQ(events.GetEvent(next).GetBegin(), own.GetEvent(e).GetBegin() + offset);
        }
        for (int c = 0; c < joined.GetNumChans(); ++c) {
            std::string name;
            joined.GetChanName(c, name);
            EXPECT_EQ(Row(joined, name, 0, joined.GetNumSlices()).at(static_cast<size_t>(offset) + 1),
                      Row(member, name, 1, 1).at(0)) << name;
        }
        offset += member.GetNumSlices();
    }
    EXPECT_EQ(joined.GetNumSlices(), offset);
    EXPECT_EQ(events.GetEventCnt(), next);
    EXPECT_NE(Message([&] { WriteMetaFile(meta, members, false); }).find("exists"), std::string::npos);
}

}  // namespace

TEST(MetaFile, JoinsRangesAndNestedMetafiles)
{
    TempDir dir;
    WriteRowFiles(dir.path("f"), MetaSeeds().front().second);
    CFilelib f;
    Open(f, dir.path("f.orva_mf"));
    ASSERT_EQ(f.GetNumSlices(), 12);
    EXPECT_EQ(f.GetCurrentFileName(1), dir.path("f_b.rec"));
    const std::vector<float> fz = {-30e-6f, -20e-6f, -10e-6f, 0, 10e-6f, 20e-6f, 30e-6f, 40e-6f};
    std::vector<float> expected(fz.begin() + 6, fz.end());
    expected.insert(expected.end(), fz.begin() + 2, fz.begin() + 6);
    const std::vector<float> got = Row(f, "Fz", 6, 6);
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], expected[i], 1e-9) << i;
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 4);
    const std::vector<std::pair<std::string, long>> want = {{"stim", 2}, {"f_b.rec", 8}, {"stim", 8}, {"user mark", 10}};
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(events.GetEvent(static_cast<int>(i)).GetEventName(), want[i].first);
        EXPECT_EQ(events.GetEvent(static_cast<int>(i)).GetBegin(), want[i].second);
    }
}

TEST(MetaFile, JoinsDevSetEdfAndBrainVisionWithEdf)
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
        WriteRowFiles(dir.path("f"), c.bytes);
        CFilelib f;
        std::string name = dir.path("f.orva_mf");
        const std::string error = Message([&] { f.GuessFileMFR(name); });
        EXPECT_NE(error.find("[ecORVA_MetaFile::Initialize]"), std::string::npos) << c.name << ": " << error;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.name << ": " << error;
    }
}
