// The clinical readers on byte-built recordings: the variants and failures the real files in
// ../shared/data do not show.
#include <gtest/gtest.h>

#include "filelib/ReaderTable.h"
#include "filelib/filelib.h"
#include "fixtures/ClinicalFiles.h"
#include "fixtures/Errors.h"
#include "fixtures/SharedData.h"

namespace {
// As the filelib program opens a file: detection, else the never-probed reader of its extension.
int Open(CFilelib& f, const std::string& path)
{
    std::string name = path;
    const int detected = f.GuessFileMFR(name);
    f.SetInputFileName(path.c_str());
    f.SetFileSource(detected ? detected : UnprobedReaderByExtension(path));
    f.Initialize(0);
    return static_cast<int>(f.GetFileSource());
}

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
         "f.lay", 25, "FP1 1024,ECG 1024,", {5e-6f, -1e-5f, 1.5e-5f, -2e-5f}, "a, b,c|150|175|7;"},
        {"f.bni", BniHeader("0.0\t0\t1\tMontage: Selected Lines: 2\r\nFz-EOG1,x\r\n0.125\t5\t0\tEyes closed\r\n"),
         "f.eeg", "f.eeg", 36, "Fz 1024,EOG1 0,", {5e-6f, -4e-5f, 1.5e-5f, -8e-5f}, "Eyes closed|13|13|5;"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        WriteTextFile(dir.path(c.header), c.text);
        Bytes().zeros(c.code == 25 ? 3 : 4).append(Ints({10, -20, 30, -40, 50})).write(dir.path(c.data));
        CFilelib f;
        ASSERT_EQ(Open(f, dir.path(c.opened)), c.code);
        std::string channels, name, events;
        for (int ch = 0; ch < f.GetNumChans(); ++ch) {
            f.GetChanName(ch, name);
            channels += name + " " + std::to_string(f.GetChanType(ch)) + ",";
        }
        EXPECT_EQ(channels, c.channels);
        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, 0, 5), 2);
        EXPECT_EQ(std::vector<float>({m[0][0], m[1][0], m[0][1], m[1][1]}), c.values);
        ecEventList list;
        f.InitialEventList(&list, nullptr);
        for (int i = 0; i < list.GetEventCnt(true); ++i) {
            const ecEvent& e = list.GetEvent(i);
            events += e.GetEventName() + "|" + std::to_string(e.GetBegin()) + "|" + std::to_string(e.GetEnd()) + "|" +
                      std::to_string(e.GetEventCode()) + ";";
        }
        EXPECT_EQ(events, c.events);
    }
}

TEST(Clinical, FailuresNameTheirCause)
{
    TempDir dir;
    Ints({1, 2}, 4).write(dir.path("f.dat"));
    Ints({1, 2}, 4).write(dir.path("f.data"));  // 2 slices of the export's 2 channels
    const std::string lay = PersystLayout({"A", "B"}, 7, 0, "");
    const struct {
        std::string file, text, says;
    } cases[] = {
        {"f.lay", Replaced(lay, "DataType=7", "DataType=3"), "[PerSyst::Initialize] Unsupported DataType 3 (0: 16-bit, 7: 32-bit integers)."},
        {"f.lay", Replaced(lay, "WaveformCount=2", "WaveformCount=3"), "[PerSyst::Initialize] [ChannelMap] names 2 channels; WaveformCount is 3."},
        {"f.lay", Replaced(lay, "B=2", "B=1"), "[PerSyst::Initialize] [ChannelMap] gives 'b' the column '1' (columns 1..2, each once)."},
        {"f.lay", Replaced(lay, "f.dat", "g.dat"), "[PerSyst::Initialize] Cannot open the data file " + dir.path("g.dat")},
        {"f.head", NicVueHeader(3), "[ecNicolet_BNI::Initialize] The header declares 3 slices; " + dir.path("f.data") + " holds 2."},
        {"f.head", Replaced(NicVueHeader(2), "sample_bytes=2", "sample_bytes=4"), "[ecNicolet_BNI::Initialize] sample_bytes is '4': only 2-byte samples can be read."},
        {"f.head", Replaced(NicVueHeader(2), "[C3,ECG]", "[C3]"), "[ecNicolet_BNI::Initialize] elec_names names 1 channels; num_channels is 2."},
        {"f.bni", BniHeader(""), "[ecNicolet_BNI::Initialize] Cannot open the data file " + dir.path("f.eeg")},
        {"f.bni", Replaced(BniHeader(""), "0.5,2,", "0.5,2,1"), "[ecNicolet_BNI::Initialize] UvPerBit gives 3 values for 2 channels."},
        {"f.nxe", std::string(127, 'x'), "[ecNexstim::Initialize] The file holds no whole slice of 64 channels: " + dir.path("f.nxe")},
    };
    for (const auto& c : cases) {
        WriteTextFile(dir.path(c.file), c.text);
        CFilelib f;
        EXPECT_EQ(Message([&] { Open(f, dir.path(c.file)); }), c.says);
    }
    CFilelib unnamed;  // the factory hands the reader the facade's (empty) file name
    unnamed.SetFileSource(25);
    EXPECT_EQ(Message([&] { unnamed.Initialize(0); }), "[PerSyst::Initialize] No layout file (.lay) is named.");
}

// What the recordings' READMEs state beyond the shared test: channel types and comment texts.
TEST(Clinical, RealRecordingsTypesAndCommentTexts)
{
    SHARED_DATA_OR_SKIP(data, "");
    const std::string persyst = data + "persyst/sub-pt1_ses-02_task-monitor_acq-ecog_run-01_clip2.lay";
    const struct {
        std::string file;
        int eeg, trigger;
    } files[] = {{data + "nicolet/test_nicolet_raw.data", 24, 0}, {data + "eximia/test_eximia.nxe", 60, 3}, {persyst, 83, 0}};
    for (const auto& r : files) {
        CFilelib f;
        Open(f, r.file);
        EXPECT_EQ(std::to_string(f.GetNumChans(kChanEEG)) + " " + std::to_string(f.GetNumChans(kChanTrigger)),
                  std::to_string(r.eeg) + " " + std::to_string(r.trigger)) << r.file;
    }
    CFilelib f;
    Open(f, persyst);
    ecEventList events;
    std::string names;
    for (int i = 0, n = f.InitialEventList(&events, nullptr); i < n; ++i)
        names += events.GetEvent(i).GetEventName() + ";";
    EXPECT_EQ(names, "seizure;seizure;seizure1,2;CLip2;Clip1;");
}
