// Inputs that once broke a reader (found by the fuzz targets), kept with what each must do now.
// tests/data/broken/<reader-case row>/<what is wrong>.<ext>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "filelib/ReaderTable.h"
#include "filelib/filelib.h"
#include "fixtures/AllocationProbe.h"
#include "fixtures/Bytes.h"
#include "fixtures/Exercise.h"
#include "fixtures/ReaderCases.h"

namespace {
const std::string kBroken = std::string(FILELIB_TEST_DATA) + "/broken/";

std::vector<std::string> BrokenFiles()
{
    std::vector<std::string> out;
    for (const ReaderCase& row : ReaderCases()) {  // a folder per row that has broken files
        std::error_code none;
        for (const auto& e : std::filesystem::directory_iterator(kBroken + row.name, none))
            out.push_back(e.path().string());
    }
    return out;
}
}  // namespace

TEST(BrokenFiles, ClearAnswersAndNoAllocationBeyondTheFile)
{
    const std::vector<std::string> files = BrokenFiles();
    ASSERT_GE(files.size(), 5u);
    for (const std::string& path : files) {
        allocation_probe::Reset();
        const std::string outcome = ExerciseRecording(path);
        EXPECT_TRUE(outcome.empty() || outcome[0] == '[') << path << ": " << outcome;
        // Every one of these files is under 2 KB; a few MB of blocks and buffers is the most
        // reading it may take.
        EXPECT_LT(allocation_probe::Largest(), 8u << 20) << path;
    }
}

TEST(BrokenFiles, SegmentsOfZeroSamplesAndOverflowingSizesAreRefused)
{
    EXPECT_EQ(ExerciseRecording(kBroken + "egi/data-size-beyond-64-bits.edf"),
              "[EGI_Simple::Initialize] The header declares more data than any file can hold.");
    EXPECT_EQ(ExerciseRecording(kBroken + "egi/segments-of-zero-samples.raw"),
              "[EGI_Simple::Initialize] The header declares segments of 0 samples.");
}

// A skip of 134 million slices before the data: the events come from the data buffers only.
TEST(BrokenFiles, EventsOfAFiffFileWithALongSkip)
{
    CFilelib f;
    std::string name = kBroken + "fiff/long-skip-before-the-data.fif";
    ASSERT_EQ(f.GuessFileMFR(name), 20);
    f.Initialize(0);
    EXPECT_GT(f.GetNumSlices(), 100000000);
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 1);
    EXPECT_EQ(events.GetEvent(0).GetBegin(), 1);
    EXPECT_EQ(events.GetEvent(0).GetEventCode(), 3);
}

namespace {
// A calibrated read gives raw x factor + offset on each channel's own row, whichever path of the
// reader applies it (the engine's conversion pass, one engine per channel, the facade's fallback).
void ExpectCalibrationOnEveryRow(const std::string& path)
{
    CFilelib f;
    OpenRecording(f, path);
    const int chans = f.GetNumChans(), n = std::min(f.GetNumSlices(), 16);
    ecLabeledMatrix<float> raw, calibrated;
    ASSERT_EQ(f.ReadData(raw, 0, n), n);
    std::vector<std::string> labels(static_cast<size_t>(chans));
    std::vector<float> factors, offsets;
    for (int c = 0; c < chans; ++c) {
        f.GetChanName(c, labels[static_cast<size_t>(c)]);
        factors.push_back(2.0f + static_cast<float>(c));
        offsets.push_back(-0.5f * static_cast<float>(c));
    }
    if (std::set<std::string>(labels.begin(), labels.end()).size() != labels.size())
        return;  // factors are matched by label
    ecCalibration& record = f.GetActiveFile()->GetCalibration();
    record.SetLabels(labels);
    record.SetFactors(factors);
    record.SetOffsets(offsets);
    record.SetDerived(true);
    f.GetActiveFile()->ResolveCalibration();
    ASSERT_EQ(f.ReadData(calibrated, 0, n), n);
    for (long r = 0; r < raw.nrow(); ++r)
        for (long s = 0; s < n; ++s)
            EXPECT_FLOAT_EQ(calibrated[r][s], raw[r][s] * factors[static_cast<size_t>(r)] + offsets[static_cast<size_t>(r)])
                << labels[static_cast<size_t>(r)] << " slice " << s;
}
}  // namespace

// The fuzz seeds of every reader are recordings of its format, split into the files the row names:
// a seed that no longer opens would leave its fuzz target starting from noise.
TEST(ReaderCases, SeedsOpenAsTheirFormat)
{
    int seeds = 0;
    for (const ReaderCase& row : ReaderCases()) {
        for (const auto& [name, bytes] : row.seeds()) {
            SCOPED_TRACE(row.name + "/" + name);
            TempDir dir;  // side files of one row (a metafile's f.evt) are no other row's
            const std::string stem = dir.path("f");  // the name the seeds' own references use
            const auto parts = SplitFiles(row, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ASSERT_EQ(parts.size(), row.suffixes.size());
            for (size_t k = 0; k < parts.size(); ++k)
                Bytes().raw(std::string(parts[k].begin(), parts[k].end())).write(stem + row.suffixes[k]);
            CFilelib f;
            std::string opened = stem + row.opened;
            const int detected = f.GuessFileMFR(opened);
            EXPECT_EQ(detected ? detected : UnprobedReaderByExtension(opened), row.code);
            EXPECT_EQ(ExerciseRecording(opened), "");
            ExpectCalibrationOnEveryRow(opened);
            ++seeds;
        }
    }
    EXPECT_GE(seeds, 14);
}
