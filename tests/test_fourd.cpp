// 4D/BTi: byte-built recordings for what the real ones do not show (each data format, epochs,
// both configuration names, the claim, every channel kind, trigger codes).
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "filelib/readers/FourD.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/Exercise.h"
#include "fixtures/FourDFiles.h"
#include "fixtures/SharedData.h"

TEST(FourD, EachDataFormatAndEpochLayout)
{
    const std::vector<FourDChannel> channels = {{"A2", 3, 0.5f, 2}, {"TRIGGER", 5, 1}, {"A1", 1, 0.25f}, {"E1", 2, 1e-6f}, {"X1", 4, 2}};
    const std::vector<double> stored = {3, 0, -4, 100, 1, -1, 32769, 8, -200, 0, 0, 32769, 0, 0, 0, 0, 7, 0, 0, 0};
    // A1, A2, TRIGGER, E1, X1 at slices 0 and 1: integers x scale x units per bit, floats x scale.
    const std::vector<float> integers = {-1, 2, 3, -1, 0, 32769, 1e-4f, -2e-4f, 2, 0}, floats = {-4, 8, 6, -2, 0, 32769, 100, -200, 1, 0};
    const struct { int format; std::vector<int> epochs; const char *pdf, *config, *boundary; unsigned runType; } rows[] = {
        {1, {4}, "rec_pdf", "rec_config", "", kRunContinuous},
        {2, {2, 2}, "c,rfDC", "config", "", kRunMultiEpoch},
        {3, {3, 1}, "rec_pdf", "rec_config", "New Segment@3 ", kRunContinuous},
        {4, {4}, "c,rfDC", "config", "", kRunContinuous}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format);
        TempDir dir;
        std::string pdf = dir.path(row.pdf), config = dir.path(row.config);
        FourDPdf({row.format, row.epochs, channels}, stored).write(pdf);
        EXPECT_EQ(Message([&] { CFilelib().GuessFileMFR(pdf); }).rfind("[FourD::Initialize] No configuration file", 0), 0u);
        FourDConfig(channels).write(config);
        FourD r(pdf.c_str());
        r.Initialize(0);
        EXPECT_EQ(r.GetConfigFileName() + " " + std::to_string(r.GetRunType()), config + " " + std::to_string(row.runType));
        EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
        EXPECT_EQ(ChannelsOf(r), "A1/T/512 A2/T/4096 TRIGGER//32768 E1/V/1024 X1/V/0");
        ecLabeledMatrix<float> m;
        ASSERT_EQ(r.ReadData(m, 0, 2), 2);
        for (int c = 0; c < 5; ++c)
            for (int t = 0; t < 2; ++t)
                EXPECT_FLOAT_EQ(m[c][t], (row.format <= 2 ? integers : floats)[static_cast<size_t>(2 * c + t)]) << c << t;
        EXPECT_EQ(EventsOf(r), row.boundary + std::string("32769@1#32769/2 7@3#7/2"));
        EXPECT_EQ(CFilelib().GuessFileMFR(config), 0);  // a configuration is no pdf
    }
}

// The real pdf's start is its creation stamp (UTC), its filter the hardware high pass it records.
TEST(FourD, RealRecordingStartAndFilter)
{
    SHARED_DATA_OR_SKIP(data, "bti/linux");
    CFilelib f;
    ASSERT_EQ(OpenRecording(f, data + "test_pdf_linux"), kMfr4D);
    const ecRecordingInfo& r = f.GetRecordingInfo();
    EXPECT_EQ(r.date + " " + r.time + " " + r.channelFilters.at(279), "2012-09-23 11:51:38 HP:0.1Hz");
}
