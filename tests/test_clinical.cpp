// The clinical readers on byte-built recordings: the variants and failures the real files in
// ../shared/data do not show.
#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/ClinicalFiles.h"
#include "fixtures/Errors.h"

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
