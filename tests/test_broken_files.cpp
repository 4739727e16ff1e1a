// Inputs that once broke a reader (found by the fuzz targets), kept with the clear answer each
// must give now. tests/data/broken/<family>/<what is wrong>.<ext>
#include <gtest/gtest.h>

#include <functional>

#include "filelib/filelib.h"

namespace {
std::string Detect(const std::string& path)
{
    try {
        CFilelib f;
        std::string name = path;
        if (f.GuessFileMFR(name) == 0)
            return "not recognised";
        f.Initialize(0);
        ecEventList events;
        f.InitialEventList(&events, nullptr);
        return "read";
    } catch (const std::exception& e) {
        return e.what();
    }
}

const std::string kBroken = std::string(FILELIB_TEST_DATA) + "/broken/";
}  // namespace

// The trigger search on a recording of 26,759 channels and no slices once asked for a block of
// 5000 slices of every channel (535 MB).
TEST(BrokenFiles, TriggerSearchOnManyChannelsWithoutSlices)
{
    CFilelib f;
    std::string name = kBroken + "egi/many-channels-no-slices.cnt";
    ASSERT_EQ(f.GuessFileMFR(name), 44);
    f.Initialize(0);
    EXPECT_EQ(f.GetNumSlices(), 0);
    EXPECT_GT(f.GetNumChans(), 20000);
    ecEventList events;
    EXPECT_EQ(f.GetActiveFile()->FindAllTriggers(&events, 0, 0.5f, 0, false, nullptr), 0);
}

TEST(BrokenFiles, EachGivesItsClearError)
{
    EXPECT_EQ(Detect(kBroken + "egi/segments-of-zero-samples.raw"),
              "[EGI_Simple::Initialize] The header declares segments of 0 samples.");
}
