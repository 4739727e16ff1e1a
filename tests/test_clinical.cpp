// The clinical readers on byte-built recordings: the variants and failures the real files in
// ../shared/data do not show.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/ClinicalFiles.h"
#include "fixtures/Errors.h"
#include "fixtures/SharedData.h"

namespace {
// Opens `path` with the reader of `code`, as the program's --format does.
void OpenAs(CFilelib& f, const std::string& path, int code)
{
    f.SetInputFileName(path.c_str());
    f.SetFileSource(code);
    f.Initialize(0);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    return text.replace(text.find(from), from.size(), to);
}
}  // namespace

// Columns named through the map (kept in file order, whatever the map's order), 16-bit samples
// after a header, and comments whose text holds commas; a torn last slice is not read.
TEST(Clinical, PersystColumnsSamplesAndComments)
{
    TempDir dir;
    WriteTextFile(dir.path("f.lay"), PersystLayout({"Fp1-Ref", "ECG"}, 0, 3, "1.5,0.25,0,7,a, b,c\r\nnot a comment\r\n"));
    Bytes().zeros(3).append(Ints({10, -20, 30, -40, 50})).write(dir.path("f.dat"));
    CFilelib f;
    OpenAs(f, dir.path("f.lay"), 25);
    std::string first, second;
    f.GetChanName(0, first);
    f.GetChanName(1, second);
    EXPECT_EQ(first + "," + second, "FP1,ECG");
    ASSERT_EQ(f.GetNumSlices(), 2);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 2), 2);
    EXPECT_EQ(std::vector<float>({m[0][0], m[1][0], m[0][1], m[1][1]}), std::vector<float>({5e-6f, -1e-5f, 1.5e-5f, -2e-5f}));
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 1);
    const ecEvent& e = events.GetEvent(0);
    EXPECT_EQ(e.GetEventName() + "|" + std::to_string(e.GetBegin()) + "|" + std::to_string(e.GetEnd()) + "|" +
                  std::to_string(e.GetEventCode()),
              "a, b,c|150|175|7");
}

TEST(Clinical, PersystFailuresNameTheirCause)
{
    TempDir dir;
    const std::string layout = PersystLayout({"A", "B"}, 7, 0, "");
    Ints({1, 2}, 4).write(dir.path("f.dat"));
    const struct {
        std::string from, to, says;
    } cases[] = {
        {"DataType=7", "DataType=3", "[PerSyst::Initialize] Unsupported DataType 3 (0: 16-bit, 7: 32-bit integers)."},
        {"WaveformCount=2", "WaveformCount=3", "[PerSyst::Initialize] [ChannelMap] names 2 channels; WaveformCount is 3."},
        {"B=2", "B=1", "[PerSyst::Initialize] [ChannelMap] gives 'b' the column '1' (columns 1..2, each once)."},
        {"f.dat", "g.dat", "[PerSyst::Initialize] Cannot open the data file " + dir.path("g.dat")},
        {"[FileInfo]", "[Info]", "[PerSyst::Initialize] Not a Persyst layout file (no [FileInfo] section): " + dir.path("f.lay")},
    };
    for (const auto& c : cases) {
        WriteTextFile(dir.path("f.lay"), Replaced(layout, c.from, c.to));
        CFilelib f;
        EXPECT_EQ(Message([&] { OpenAs(f, dir.path("f.lay"), 25); }), c.says);
    }
    CFilelib unnamed;  // the factory hands the reader the facade's (empty) file name
    EXPECT_EQ(Message([&] { OpenAs(unnamed, "", 25); }), "[PerSyst::Initialize] No layout file (.lay) is named.");
}

// The BNI-1 form, named by its data file: per-channel microvolts per bit, a data offset, the
// data file named with a Windows path, and events without the display montage lines.
TEST(Clinical, NicoletBniChannelsSamplesAndEvents)
{
    TempDir dir;
    WriteTextFile(dir.path("f.bni"), BniHeader("0.000000\t0\t1\tMontage: Selected Lines: 2\r\nFz-EOG1,x\r\n"
                                               "0.125\t5\t0\tEyes closed\r\n"));
    Bytes().zeros(4).append(Ints({10, -20, 30, -40, 50})).write(dir.path("f.eeg"));
    CFilelib f;
    std::string name = dir.path("f.eeg");
    ASSERT_EQ(f.GuessFileMFR(name), 36);
    f.Initialize(0);
    ASSERT_EQ(f.GetNumSlices(), 2);
    EXPECT_EQ(std::vector<int>({f.GetChanType(0), f.GetChanType(1)}), std::vector<int>({0x400, 0}));
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 2), 2);
    EXPECT_EQ(std::vector<float>({m[0][0], m[1][0], m[0][1], m[1][1]}), std::vector<float>({5e-6f, -4e-5f, 1.5e-5f, -8e-5f}));
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 1);
    EXPECT_EQ(events.GetEvent(0).GetEventName() + "|" + std::to_string(events.GetEvent(0).GetBegin()) + "|" +
                  std::to_string(events.GetEvent(0).GetEventCode()),
              "Eyes closed|13|5");
}

TEST(Clinical, NicoletFailuresNameTheirCause)
{
    TempDir dir;
    Ints({1, 2, 3, 4}).write(dir.path("f.data"));
    const struct {
        std::string file, text, says;
    } cases[] = {
        {"f.head", NicVueHeader(3), "The header declares 3 slices; " + dir.path("f.data") + " holds 2."},
        {"f.head", Replaced(NicVueHeader(2), "sample_bytes=2", "sample_bytes=4"), "sample_bytes is '4': only 2-byte samples can be read."},
        {"f.head", Replaced(NicVueHeader(2), "[C3,ECG]", "[C3]"), "elec_names names 1 channels; num_channels is 2."},
        {"f.bni", BniHeader(""), "Cannot open the data file " + dir.path("f.eeg")},
        {"f.bni", Replaced(BniHeader(""), "0.5,2,", "0.5,2,1"), "UvPerBit gives 3 values for 2 channels."},
    };
    for (const auto& c : cases) {
        WriteTextFile(dir.path(c.file), c.text);
        CFilelib f;
        std::string name = dir.path(c.file);
        EXPECT_EQ(Message([&] { f.GuessFileMFR(name); }), "[ecNicolet_BNI::Initialize] " + c.says);
    }
}

// What the recordings' READMEs state beyond the shared test: channel types and event texts.
TEST(Clinical, RealRecordingsTypesAndCommentTexts)
{
    SHARED_DATA_OR_SKIP(data, "");
    const struct {
        std::string file;
        int code, eeg, trigger;
    } files[] = {{"nicolet/test_nicolet_raw.data", 36, 24, 0}, {"eximia/test_eximia.nxe", 30, 60, 3},
                 {"persyst/sub-pt1_ses-02_task-monitor_acq-ecog_run-01_clip2.lay", 25, 83, 0}};
    for (const auto& r : files) {
        CFilelib f;
        OpenAs(f, data + r.file, r.code);
        EXPECT_EQ(f.GetNumChans(kChanEEG) * 100 + f.GetNumChans(kChanTrigger), r.eeg * 100 + r.trigger) << r.file;
    }
    CFilelib persyst;
    OpenAs(persyst, data + files[2].file, 25);
    ecEventList events;
    persyst.InitialEventList(&events, nullptr);
    std::string names;
    for (int i = 0; i < events.GetEventCnt(true); ++i)
        names += events.GetEvent(i).GetEventName() + ";";
    EXPECT_EQ(names, "seizure;seizure;seizure1,2;CLip2;Clip1;");
}

// eXimia files have no header: a torn last slice is not read, and a file without one whole
// slice is refused once its extension claimed it.
TEST(Clinical, NexstimWholeSlicesOnly)
{
    TempDir dir;
    Ints(std::vector<int>(64 * 2 + 5, 1)).write(dir.path("torn.nxe"));
    Ints(std::vector<int>(63, 1)).write(dir.path("short.nxe"));
    CFilelib f;
    std::string torn = dir.path("torn.nxe"), cut = dir.path("short.nxe");
    ASSERT_EQ(f.GuessFileMFR(torn), 30);
    EXPECT_EQ(f.GetActiveFile()->GetNumSlices(), 2);
    CFilelib g;
    EXPECT_EQ(Message([&] { g.GuessFileMFR(cut); }),
              "[ecNexstim::Initialize] The file holds no whole slice of 64 channels: " + cut);
}
