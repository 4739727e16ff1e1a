#include <gtest/gtest.h>

#include "filelib/Writers.h"
#include "fixtures/EdfFiles.h"

using namespace std::string_literals;

namespace {

// EDF+ at 4 Hz: Fz (step 0.1 uV), Slow at 2 Hz (step 0.1 uV), three records, four events (two
// in the first record, one with a duration and a comma).
std::string EdfSource(const TempDir& dir)
{
    EdfSpec spec;
    spec.reserved = "EDF+C";
    spec.records = "3";
    EdfSignal fz, slow, notes;
    fz.label = "Fz";
    fz.values = {-32768, 32767, 0, 1, -1, 1234, -4321, 7, 8, 9, 10, 11};
    slow.label = "Slow";
    slow.samples = 2;
    slow.physMin = "-200";
    slow.physMax = "200";
    slow.digMin = "-2000";
    slow.digMax = "2000";
    slow.values = {-2000, 2000, 5, -5, 0, 3};
    notes.label = "EDF Annotations";
    notes.samples = 30;
    notes.annotations = {"+0\x14\x14\0+0.25\x14" "A\x14\0+0.5\x15" "0.25\x14" "B, c\x14"s, "+1\x14\x14\0+1.75\x14" "D\x14"s,
                         "+2\x14\x14"};
    spec.signals = {fz, slow, notes};
    EdfFile(spec).write(dir.path("source.edf"));
    return dir.path("source.edf");
}

// BrainVision with INT_16 counts of 0.5 uV or float samples in uV.
std::string BrainVisionSource(const TempDir& dir, bool int16)
{
    const std::string stem = int16 ? "int16" : "float";
    WriteTextFile(dir.path(stem + ".vhdr"),
                  "Brain Vision Data Exchange Header File Version 1.0\n[Common Infos]\nDataFile=" + stem +
                      ".eeg\nMarkerFile=" + stem + ".vmrk\nNumberOfChannels=2\nSamplingInterval=2000\n"
                      "[Binary Infos]\nBinaryFormat=" + (int16 ? "INT_16" : "IEEE_FLOAT_32") +
                      "\n[Channel Infos]\nCh1=AVeryLongChannelName1,,0.5,µV\nCh2=B\\1C,,0.5,µV\n");
    WriteTextFile(dir.path(stem + ".vmrk"), "[Marker Infos]\nMk1=Stimulus,S\\1 7,3,1,0\n");
    Bytes data;
    for (int v : {-32768, 32767, 3, -3, 0, 12345})
        int16 ? data.i16le(static_cast<int16_t>(v)) : data.f32le(v * 0.013f);
    data.write(dir.path(stem + ".eeg"));
    return dir.path(stem + ".vhdr");
}

CFilelib Opened(std::string path)
{
    CFilelib f;
    EXPECT_NE(f.GuessFileMFR(path), 0) << path;
    f.Initialize(0);
    return f;
}

std::string Events(CFilelib& f)
{
    ecEventList list;
    f.InitialEventList(&list, nullptr);
    std::string out;
    for (int i = 0; i < list.GetEventCnt(true); ++i) {
        const ecEvent& e = list.GetEvent(i);
        if (!e.IsSegmentBoundary())
            out += e.GetEventName() + "@" + std::to_string(e.GetBegin()) + "-" + std::to_string(e.GetEnd()) + " ";
    }
    return out;
}

}  // namespace

// Integer sources come back bit for bit through EDF+, BDF+ and BrainVision INT_16; any source
// through BrainVision float. The slow channel keeps its own rate, the events their onsets.
TEST(Export, CopiesReadBackBitForBit)
{
    TempDir dir;
    const struct {
        std::string source, target;
        ecOutputFormat format;
        std::string events;
    } rows[] = {
        {EdfSource(dir), "a.edf", ecOutputFormat::EDF, "A@1-1 B, c@2-3 D@7-7 "},
        {EdfSource(dir), "a.bdf", ecOutputFormat::BDF, "A@1-1 B, c@2-3 D@7-7 "},
        {EdfSource(dir), "a.vhdr", ecOutputFormat::BrainVision, "A@1-2 B, c@2-3 D@7-8 "},
        {BrainVisionSource(dir, true), "b.vhdr", ecOutputFormat::BrainVisionInt16, "Stimulus/S, 7@2-3 "},
        {BrainVisionSource(dir, false), "c.vhdr", ecOutputFormat::BrainVision, "Stimulus/S, 7@2-3 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        CFilelib source = Opened(row.source);
        ASSERT_EQ(WriteCopy(source, dir.path(row.target), row.format, {}, nullptr), source.GetNumSlices());
        CFilelib copy = Opened(dir.path(row.target));
        ASSERT_EQ(copy.GetNumSlices(), source.GetNumSlices());
        EXPECT_EQ(copy.GetSampleRate(), source.GetSampleRate());
        ecLabeledMatrix<float> a, b;
        source.ReadData(a, 0, source.GetNumSlices());
        copy.ReadData(b, 0, copy.GetNumSlices());
        for (int c = 0; c < source.GetNumChans(); ++c) {
            EXPECT_EQ(a.GetRowLabeledState(c).Label(), b.GetRowLabeledState(c).Label());
            for (int s = 0; s < source.GetNumSlices(); ++s)
                EXPECT_EQ(a[c][s], b[c][s]) << c << " " << s;
        }
        EXPECT_EQ(Events(copy), row.events);
        if (row.format == ecOutputFormat::EDF || row.format == ecOutputFormat::BDF) {
            const std::vector<double>& rates = copy.GetRecordingInfo().channelRates;
            EXPECT_EQ(std::vector<double>(rates.begin(), rates.begin() + 2), std::vector<double>({4, 2}));
        }
    }
}

// A window of slices and channels: the events shift with it, the channels come in the order
// asked; texts too long for their field are written shortened and reported.
TEST(Export, WindowsShiftEventsAndTruncationIsReported)
{
    TempDir dir;
    CFilelib edf = Opened(EdfSource(dir));
    const struct {
        ecSelection selection;
        std::string events;
    } rows[] = {{{4, 8, {1, 0}}, "D@3-3 "}, {{1, 2, {}}, "A@0-0 B, c@1-2 "}, {{12, -1, {}}, ""}};
    for (const auto& row : rows) {
        ASSERT_EQ(WriteCopy(edf, dir.path("w.edf"), ecOutputFormat::EDF, row.selection, nullptr),
                  std::min(12 - row.selection.first, row.selection.count < 0 ? 12L : row.selection.count));
        CFilelib copy = Opened(dir.path("w.edf"));
        EXPECT_EQ(Events(copy), row.events);
    }
    EXPECT_THROW(WriteCopy(edf, dir.path("w.edf"), ecOutputFormat::EDF, {13, 1, {}}, nullptr), ecError);
    EXPECT_THROW(WriteCopy(edf, dir.path("w.edf"), ecOutputFormat::EDF, {0, 1, {2}}, nullptr), ecError);

    CFilelib bv = Opened(BrainVisionSource(dir, true));
    std::vector<std::string> warnings;
    WriteCopy(bv, dir.path("t.edf"), ecOutputFormat::EDF, {}, nullptr, &warnings);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], "label \"AVeryLongChannelName1\" written as \"AVeryLongChannel\"");
}
