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

TEST(BrokenFiles, EachGivesItsClearError)
{
    EXPECT_EQ(Detect(kBroken + "egi/segments-of-zero-samples.raw"),
              "[EGI_Simple::Initialize] The header declares segments of 0 samples.");
}
