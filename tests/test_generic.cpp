#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <fstream>
#include <sstream>

#include "filelib/GenericExport.h"
#include "filelib/filelib.h"
#include "filelib/readers/Generic.h"
#include "fixtures/GenericFiles.h"

namespace {
// 3 channels x 6 slices of values every integer format can hold exactly.
std::vector<std::vector<double>> Values()
{
    return {{0, 1, 2, 3, 4, 5}, {10, 20, 30, 40, 50, 60}, {100, 101, 102, 103, 104, 105}};
}

// Three channels of six slices in three epochs of two (the values of Values()).
GenericSpec ThreeEpochs()
{
    GenericSpec spec;
    spec.chans = 3;
    spec.slices = 6;
    spec.epochs = 3;
    spec.runType = "MultiEpoch";
    spec.names = {"A", "B", "C"};
    spec.types = {1024, 1024, 1024};
    spec.scales = {1, 1, 1};
    return spec;
}

CGeneric Configured(const std::string& path)
{
    CGeneric g(path.c_str());
    g.SetNumChans(2);
    std::string a = "Fz", u = "V";
    g.SetChanName(0, a);
    g.SetChanUnit(1, u);
    g.SetChanScale(1, 0.5f);
    g.SetChanType(1, 0x8000);
    g.SetSampleRate(500, 0);
    g.SetNumSlices(1000);
    g.SetPreStim(0.1f);
    g.SetSID("subject");
    return g;
}
}  // namespace

TEST(CGenericHeader, WriteHeaderLinesInOrder)
{
    TempDir dir;
    CGeneric g = Configured(dir.path("avg.dat"));
    g.SetRunType(1);
    g.SetCntFileName("raw.cnt");
    g.SetValidEpochCnt(42);
    g.SetDataFormat(kFmtSwabShort);
    g.SetDataMatrixOrientation(false);
    g.SetDataType(2);
    g.SetProbabilityType(4);
    ASSERT_TRUE(g.WriteHeader());
    EXPECT_EQ(ReadTextFile(dir.path("avg.dat.orva_hdr")),
              "<ORVA_Header>\n<DataFileName>" + dir.path("avg.dat") +
                  "</DataFileName>\n<SID>subject</SID>\n<CID></CID>\n<RunType>SingleEpoch</RunType>\n"
                  "<CntFileName>raw.cnt</CntFileName>\n<DataFormat>Swab_Short</DataFormat>\n"
                  "<MatrixOrientation>Trace_Mode</MatrixOrientation>\n<OffsetToData>0</OffsetToData>\n"
                  "<NumTrials>42</NumTrials>\n<DataDomain>TimeDomain</DataDomain>\n<DataType>PowerSpectrum</DataType>\n"
                  "<PValues>LogQ-LogP</PValues>\n<NumSlices>1000</NumSlices>\n<SampleRate>500</SampleRate>\n"
                  "<NumChans>2</NumChans>\n<PreStim>0.1</PreStim>\n<ChannelList>\n"
                  "<Channel>\n<Name>Fz</Name>\n<Type>1024</Type>\n<Scale>1</Scale>\n<Unit></Unit>\n<UseUnit>0</UseUnit>\n"
                  "<UsePrefix>0</UsePrefix>\n</Channel>\n"
                  "<Channel>\n<Name>2</Name>\n<Type>32768</Type>\n<Scale>0.5</Scale>\n<Unit>V</Unit>\n<UseUnit>0</UseUnit>\n"
                  "<UsePrefix>0</UsePrefix>\n</Channel>\n</ChannelList>\n<fOutputScale>1</fOutputScale>\n</ORVA_Header>\n");

    // Continuous: neither NumTrials nor CntFileName.
    g.SetRunType(4);
    std::ostringstream cont;
    g.WriteHeaderText(cont, false);
    EXPECT_EQ(cont.str().find("NumTrials"), std::string::npos);
    EXPECT_EQ(cont.str().find("CntFileName"), std::string::npos);
    EXPECT_NE(cont.str().find("<RunType>Continuous</RunType>\n<DataFormat>"), std::string::npos);

    CGeneric empty("");
    EXPECT_FALSE(empty.WriteHeader());
}

TEST(CGenericHeader, RunType3ComplexAndFrequencyDomain)
{
    TempDir dir;
    CGeneric g = Configured(dir.path("f.dat"));
    g.SetRunType(3);
    g.SetDataFormat(kFmtComplex);
    g.SetDomain(4);
    g.SetSampleRate(0.25f, 0);  // frequency resolution: written as its inverse
    ASSERT_TRUE(g.WriteHeader());
    const std::string text = ReadTextFile(dir.path("f.dat.orva_hdr"));
    EXPECT_EQ(text.find("<RunType>"), std::string::npos);
    EXPECT_EQ(text.find("<DataFormat>"), std::string::npos);
    EXPECT_NE(text.find("<DataDomain>FrequencyDomain</DataDomain>"), std::string::npos);
    EXPECT_NE(text.find("<SampleRate>4</SampleRate>"), std::string::npos);

    // Read back (with a format word added): run type stays at its default, the rate is restored.
    std::string withFormat = text;
    withFormat.insert(withFormat.find("<MatrixOrientation>"), "<DataFormat>Complex</DataFormat>\n");
    WriteTextFile(dir.path("f.dat.orva_hdr"), withFormat);
    CGeneric back(dir.path("f.dat").c_str());
    ASSERT_TRUE(back.ReadHeader());
    EXPECT_EQ(back.GetRunType(), 0u);
    EXPECT_EQ(back.GetDataFormat(), kFmtComplex);
    EXPECT_EQ(back.GetDomain(), 4);
    EXPECT_FLOAT_EQ(back.GetSampleRate(), 0.25f);
    std::string name;
    back.GetChanName(0, name);
    EXPECT_EQ(name, "Fz");
    EXPECT_EQ(back.GetChanScale(1), 0.5f);
    EXPECT_EQ(back.GetChanType(1), 0x8000);
    EXPECT_EQ(back.GetSID(), "subject");
    // Complex samples cannot be delivered as floats.
    EXPECT_EQ(Message([&] { back.Initialize(0); }), "[CGeneric::Initialize] Unsupported data format: Complex");
}

TEST(CGenericHeader, MalformedHeadersAreRefusedWithoutCrashing)
{
    TempDir dir;
    const std::string path = WriteGenericPair(dir, "m.dat", GenericSpec(), {{1, 2, 3, 4}, {5, 6, 7, 8}});
    const std::string good = GenericHeader(GenericSpec());
    auto refuses = [&](const std::string& header) {
        WriteTextFile(path + ".orva_hdr", header);
        CGeneric g(path.c_str());
        return !g.ReadHeader();
    };
    EXPECT_TRUE(refuses(good.substr(0, good.size() / 2)));
    EXPECT_TRUE(refuses("<Other_Header><NumChans>2</NumChans></Other_Header>"));
    EXPECT_TRUE(refuses(""));
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string h = good;
        h.replace(h.find(from), from.size(), to);
        return h;
    };
    EXPECT_TRUE(refuses(replaced("<NumChans>2", "<NumChans>1000000000")));
    EXPECT_TRUE(refuses(replaced("<NumChans>2", "<NumChans>0")));
    EXPECT_TRUE(refuses(replaced("<NumChans>2", "<NumChans>two")));
    EXPECT_TRUE(refuses(replaced("<NumSlices>4", "<NumSlices>-4")));
    EXPECT_TRUE(refuses(replaced("<SampleRate>250", "<SampleRate>0")));
    EXPECT_TRUE(refuses(replaced("Short", "Nibble")));
    EXPECT_TRUE(refuses(replaced("<NumChans>2", "<NumChans>1")));  // more channels listed than declared
    std::remove((path + ".orva_hdr").c_str());
    CGeneric missing(path.c_str());
    EXPECT_FALSE(missing.ReadHeader());

    // Sizes that the data file cannot hold are refused at Initialize, before any allocation.
    WriteTextFile(path + ".orva_hdr", replaced("<NumSlices>4", "<NumSlices>2000000000"));
    CGeneric huge(path.c_str());
    EXPECT_EQ(Message([&] { huge.Initialize(0); }),
              "[CGeneric::Initialize] The data file " + path + " holds 16 bytes; the header declares 8000000000.");
}

// Every run type, data format with a byte width and orientation round-trips through the facade.
TEST(CGenericData, RoundTripsEveryFormatOrientationAndRunType)
{
    TempDir dir;
    const char* formats[] = {"Byte",      "Short",     "Long",       "Float",      "Double",
                             "Swab_Short", "Swab_Long", "Swab_Float", "Swab_Double", "ASCII"};
    const std::vector<std::vector<double>> values = Values();
    int file = 0;
    for (const char* format : formats) {
        for (bool sliceMode : {true, false}) {
            for (const char* run : {"SingleEpoch", "MultiEpoch", "Continuous"}) {
                GenericSpec spec;
                spec.format = format;
                spec.sliceMode = sliceMode;
                spec.runType = run;
                spec.chans = 3;
                spec.slices = 6;
                spec.epochs = std::string(run) == "MultiEpoch" ? 3 : 0;
                spec.offset = 7;
                spec.names = {"A", "B", "C"};
                spec.types = {1024, 1024, 0x8000};
                spec.scales = {1, 0.5f, 2};
                const std::string path = WriteGenericPair(dir, "f" + std::to_string(file++) + ".bin", spec, values);
                SCOPED_TRACE(std::string(format) + (sliceMode ? " slice " : " trace ") + run);

                CFilelib f;
                std::string name = path;
                ASSERT_EQ(f.GuessFileMFR(name), 2);
                f.Initialize(0);
                EXPECT_EQ(f.GetRunType(), std::string(run) == "SingleEpoch" ? 1u : std::string(run) == "MultiEpoch" ? 2u : 4u);
                EXPECT_EQ(f.GetNumChans(), 3);
                EXPECT_EQ(f.GetNumSlices(), 6);
                EXPECT_EQ(f.GetNumEpochs(), spec.epochs > 0 ? 3 : 1);
                EXPECT_EQ(f.GetEpochSlices(), spec.epochs > 0 ? 2 : 6);
                EXPECT_FLOAT_EQ(f.GetSampleRate(), 250.0f);
                EXPECT_FLOAT_EQ(f.GetPreStim(), 0.1f);
                std::string chanName, unit;
                f.GetChanName(2, chanName);
                f.GetChanUnit(2, unit);
                EXPECT_EQ(chanName, "C");
                EXPECT_EQ(unit, "V");
                EXPECT_TRUE(f.UseChanUnit(2));

                ecLabeledMatrix<float> m;
                ASSERT_EQ(f.ReadData(m, 1, 4), 4);  // crosses epoch boundaries in the epoched runs
                for (int c = 0; c < 3; ++c)
                    for (int t = 0; t < 4; ++t)
                        EXPECT_FLOAT_EQ(m[c][t], static_cast<float>(values[c][t + 1] * spec.scales[c]));
                EXPECT_EQ(m.GetRowLabeledState(1).GetLabel(), "B");
                EXPECT_EQ(m.GetRowLabeledState(1).GetDataUnit(), "V");
                EXPECT_EQ(f.ReadData(m, 4, 100), 2);  // clipped at the end
                EXPECT_EQ(f.ReadData(m, 6, 1), 0);
            }
        }
    }
}

TEST(CGenericData, EpochsSlicesAndTheirMessages)
{
    TempDir dir;
    GenericSpec spec = ThreeEpochs();
    spec.sliceMode = false;
    const std::string path = WriteGenericPair(dir, "e.dat", spec, Values());
    CGeneric g(path.c_str());
    g.Initialize(0);
    ecLabeledMatrix<float> m;
    g.ReadEEGData(m, 2);
    ASSERT_EQ(m.ncol(), 2);
    EXPECT_EQ(m[1][0], 50.0f);
    EXPECT_EQ(m[2][1], 105.0f);
    EXPECT_EQ(Message([&] { g.ReadEEGData(m, 3); }), "[CGeneric::ReadEEGData]: Out of range error.");
    EXPECT_EQ(Message([&] { g.ReadEEGData(m, -1); }), "[CGeneric::ReadEEGData]: Out of range error.");
    EXPECT_EQ(Message([&] { g.ReadData(m, -1, 2); }), "[CGeneric::ReadData]: Dimension specified does not agree with the data.");
    ecVector<float> slice(3);
    g.ReadOneSlice(slice, 3);
    EXPECT_EQ(slice[1], 40.0f);
    ecVector<float> wrong(2);
    EXPECT_EQ(Message([&] { g.ReadOneSlice(wrong, 0); }), "[CGeneric::ReadOneSlice]: Dimension mismatch error.");
    EXPECT_EQ(Message([&] { g.ReadOneSlice(slice, 6); }), "[CGeneric::ReadOneSlice]: Error in reading one slice.");
    g.SetDataFormat(kFmtComplex);
    EXPECT_EQ(Message([&] { g.ReadEEGData(m, 0); }), "[CGeneric::ReadEEGData]: Unrecognized data format.");

    ecEventList events;
    WriteTextFile(path + ".evt", "Stim 7 3\n");
    EXPECT_EQ(g.InitialEventList(&events, nullptr), 4);
    EXPECT_TRUE(events.GetEvent(1).IsSegmentBoundary());
    EXPECT_EQ(events.GetEvent(1).GetBegin(), 2);
    EXPECT_EQ(events.GetEvent(3).GetEventName(), "Stim");
    EXPECT_EQ(events.GetEvent(3).GetBegin(), 3);
}

// The file shrinks under an initialised reader (far from stdio's buffered window).
TEST(CGenericData, TruncatedDataAfterInitializeGivesTheReadTexts)
{
    TempDir dir;
    GenericSpec spec;
    spec.slices = 10000;
    const std::vector<std::vector<double>> values(2, std::vector<double>(10000, 1.0));
    const std::string path = WriteGenericPair(dir, "t.dat", spec, values);
    CGeneric g(path.c_str());
    g.Initialize(0);
    spec.epochs = 2;
    spec.runType = "MultiEpoch";
    const std::string p2 = WriteGenericPair(dir, "t2.dat", spec, values);
    CGeneric e(p2.c_str());
    e.Initialize(0);
    Bytes().i16le(1).write(path);
    Bytes().i16le(1).write(p2);
    ecLabeledMatrix<float> m;
    EXPECT_EQ(Message([&] { g.ReadData(m, 9000, 4); }), "[CGeneric::ReadCNTData]: Error in reading data file.");
    EXPECT_EQ(Message([&] { e.ReadEEGData(m, 1); }), "[CGeneric::ReadEEGData]: Error in reading EEG data file.");
}

TEST(GenericExport, WritesAPairThatReadsBackThroughDetection)
{
    TempDir dir;
    GenericSpec spec = ThreeEpochs();
    spec.names = {"A", "B&amp;C", "D"};
    spec.types = {1024, 0x200, 0x8000};
    spec.scales = {1, 0.25f, 3};
    spec.format = "Swab_Long";
    const std::string path = WriteGenericPair(dir, "src.dat", spec, Values());
    WriteTextFile(path + ".evt", "\"Stim A\" 5 4 4 2\n");
    CFilelib src;
    std::string name = path;
    ASSERT_EQ(src.GuessFileMFR(name), 2);
    src.Initialize(0);

    struct Counting : ecProgressDlg {
        int steps = 0;
        int StepIt() override { return ++steps; }
    } progress;
    const std::string out = dir.path("copy.f32");
    ASSERT_EQ(WriteGenericCopy(src, out, &progress), 6);
    EXPECT_EQ(progress.steps, 1);

    CFilelib back;
    std::string outName = out;
    ASSERT_EQ(back.GuessFileMFR(outName), 2);
    back.Initialize(0);
    EXPECT_EQ(back.GetRunType(), 2u);
    EXPECT_EQ(back.GetNumEpochs(), 3);
    EXPECT_EQ(back.GetNumSlices(), 6);
    EXPECT_EQ(back.GetDataFormat(), kFmtFloat);
    std::string n1;
    back.GetChanName(1, n1);
    EXPECT_EQ(n1, "B&C");
    EXPECT_EQ(back.GetChanType(1), 0x200);
    EXPECT_EQ(back.GetMEGChannelCount(), 1);
    ecLabeledMatrix<float> a, b;
    ASSERT_EQ(src.ReadData(a, 0, 6), 6);
    ASSERT_EQ(back.ReadData(b, 0, 6), 6);
    for (int c = 0; c < 3; ++c)
        for (int t = 0; t < 6; ++t)
            EXPECT_EQ(a[c][t], b[c][t]);
    ecEventList events;
    EXPECT_EQ(back.InitialEventList(&events, nullptr), 4);
    EXPECT_EQ(events.GetEvent(3).GetEventName(), "Stim A");
    EXPECT_EQ(events.GetEvent(3).GetEventCode(), 5);

    struct Cancel : ecProgressDlg {
        bool CheckCancelButton() override { return true; }
    } cancel;
    const std::string cancelled = dir.path("cancelled.f32");
    EXPECT_EQ(WriteGenericCopy(src, cancelled, &cancel), -1);
    EXPECT_FALSE(std::ifstream(cancelled).good());
}
