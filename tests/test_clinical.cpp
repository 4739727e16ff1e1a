// The clinical readers on byte-built recordings: the variants and failures the real files in
// ../shared/data do not show.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/ClinicalFiles.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/Exercise.h"
#include "fixtures/SharedData.h"

namespace {
std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    return text.replace(text.find(from), from.size(), to);
}
}  // namespace

// Persyst: columns named through the map, samples after a header, a comment whose text holds
// commas, a torn last slice. BNI-1 named by its data file: microvolts per bit per channel, a
// data offset, a Windows path to the data, events without the display montage lines.
TEST(Clinical, LayoutsSamplesAndEvents)
{
    const struct {
        std::string header, text, data, opened;
        int code;
        std::string channels;
        std::vector<float> values;  // two slices of both channels
        std::string events;
    } cases[] = {
        {"f.lay", PersystLayout({"Fp1-Ref", "ECG"}, 0, 3, "1.5,0.25,0,7,a, b,c\r\nnot a comment\r\n"), "f.dat",
         "f.lay", 25, "FP1/V/1024 ECG/V/1024", {5e-6f, -1e-5f, 1.5e-5f, -2e-5f}, "a, b,c@150..175#7/2"},
        {"f.bni", BniHeader("0.0\t0\t1\tMontage: Selected Lines: 2\r\nFz-EOG1,x\r\n0.125\t5\t0\tEyes closed\r\n"),
         "f.eeg", "f.eeg", 36, "Fz/V/1024 EOG1/V/0", {5e-6f, -4e-5f, 1.5e-5f, -8e-5f}, "Eyes closed@13#5/2"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        WriteTextFile(dir.path(c.header), c.text);
        Bytes().zeros(c.code == 25 ? 3 : 4).append(Ints({10, -20, 30, -40, 50})).write(dir.path(c.data));
        CFilelib f;
        ASSERT_EQ(OpenRecording(f, dir.path(c.opened)), c.code);
        EXPECT_EQ(ChannelsOf(f), c.channels);
        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, 0, 5), 2);
        EXPECT_EQ(std::vector<float>({m[0][0], m[1][0], m[0][1], m[1][1]}), c.values);
        EXPECT_EQ(EventsOf(f), c.events);
    }
}

// An unsupported variant and a missing file are named (damaged headers are the malformed-input
// sweep's).
TEST(Clinical, FailuresNameTheirCause)
{
    TempDir dir;
    Ints({1, 2}, 4).write(dir.path("f.dat"));
    Ints({1, 2}, 4).write(dir.path("f.data"));  // 2 slices of the export's 2 channels
    const std::string lay = PersystLayout({"A", "B"}, 7, 0, "");
    const struct {
        std::string file, text, says;
    } cases[] = {
        {"f.lay", Replaced(lay, "DataType=7", "DataType=3"),
         "[PerSyst::Initialize] Unsupported DataType 3 (0: 16-bit, 7: 32-bit integers)."},
        {"f.lay", Replaced(lay, "f.dat", "g.dat"), "[PerSyst::Initialize] Cannot open the data file " + dir.path("g.dat")},
        {"f.head", Replaced(NicVueHeader(2), "sample_bytes=2", "sample_bytes=4"),
         "[ecNicolet_BNI::Initialize] sample_bytes is '4': only 2-byte samples can be read."},
        {"f.bni", BniHeader(""), "[ecNicolet_BNI::Initialize] Cannot open the data file " + dir.path("f.eeg")},
    };
    for (const auto& c : cases) {
        WriteTextFile(dir.path(c.file), c.text);
        CFilelib f;
        EXPECT_EQ(Message([&] { OpenRecording(f, dir.path(c.file)); }), c.says);
    }
    CFilelib unnamed;  // the factory hands the reader the facade's (empty) file name
    unnamed.SetFileSource(25);
    EXPECT_EQ(Message([&] { unnamed.Initialize(0); }), "[PerSyst::Initialize] No layout file (.lay) is named.");
}

// What the recordings' READMEs state beyond the shared test: the channel kinds (eXimia's trigger
// channels carry its events).
TEST(Clinical, RealRecordingsChannelKinds)
{
    SHARED_DATA_OR_SKIP(data, "");
    const struct {
        const char* file;
        int eeg, trigger;
    } files[] = {{"nicolet/test_nicolet_raw.data", 24, 0}, {"eximia/test_eximia.nxe", 60, 3}};
    for (const auto& r : files) {
        CFilelib f;
        OpenRecording(f, data + r.file);
        EXPECT_EQ(f.GetNumChans(kChanEEG), r.eeg) << r.file;
        EXPECT_EQ(f.GetNumChans(kChanTrigger), r.trigger) << r.file;
    }
}
