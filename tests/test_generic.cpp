#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <fstream>
#include <sstream>

#include "filelib/GenericExport.h"
#include "filelib/filelib.h"
#include "filelib/readers/Generic.h"
#include "fixtures/Describe.h"
#include "fixtures/GenericFiles.h"

namespace {
// 3 channels x 6 slices of values every integer format can hold exactly.
const std::vector<std::vector<double>> kValues = {{0, 1, 2, 3, 4, 5}, {10, 20, 30, 40, 50, 60}, {100, 101, 102, 103, 104, 105}};

// Three channels of six slices in three epochs of two (the values of kValues).
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
}  // namespace

TEST(CGenericHeader, WriteHeaderLinesInOrderAndReadThemBack)
{
    TempDir dir;
    CGeneric g(dir.path("avg.dat").c_str());
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

    // Run type 3 and the complex format write no words; a frequency resolution is written as its inverse.
    g.SetRunType(3);
    g.SetDataFormat(kFmtComplex);
    g.SetDomain(4);
    g.SetSampleRate(0.25f, 0);
    ASSERT_TRUE(g.WriteHeader());
    const std::string text = ReadTextFile(dir.path("avg.dat.orva_hdr"));
    EXPECT_EQ(text.find("<RunType>"), std::string::npos);
    EXPECT_EQ(text.find("<DataFormat>"), std::string::npos);
    EXPECT_NE(text.find("<DataDomain>FrequencyDomain</DataDomain>"), std::string::npos);
    EXPECT_NE(text.find("<SampleRate>4</SampleRate>"), std::string::npos);

    // Read back (with a format word added): run type stays at its default, the rate is restored.
    std::string withFormat = text;
    withFormat.insert(withFormat.find("<MatrixOrientation>"), "<DataFormat>Complex</DataFormat>\n");
    WriteTextFile(dir.path("avg.dat.orva_hdr"), withFormat);
    CGeneric back(dir.path("avg.dat").c_str());
    ASSERT_TRUE(back.ReadHeader());
    EXPECT_EQ(back.GetRunType(), 0u);
    EXPECT_EQ(back.GetDataFormat(), kFmtComplex);
    EXPECT_EQ(back.GetDomain(), 4);
    EXPECT_FLOAT_EQ(back.GetSampleRate(), 0.25f);
    // Complex samples cannot be delivered as floats.
    EXPECT_EQ(Message([&] { back.Initialize(0); }), "[CGeneric::Initialize] Unsupported data format: Complex");
}

// Each format name maps to its stored type (the engine's own tests decode every type); the
// formats take turns with the orientations and run types, so each of those is met in each other.
TEST(CGenericData, EveryFormatOrientationAndRunTypeReadsThroughTheFacade)
{
    TempDir dir;
    const char* formats[] = {"Byte",      "Short",     "Long",       "Float",      "Double",
                             "Swab_Short", "Swab_Long", "Swab_Float", "Swab_Double", "ASCII"};
    const char* runs[] = {"SingleEpoch", "MultiEpoch", "Continuous"};
    const std::vector<std::vector<double>>& values = kValues;
    for (int i = 0; i < 10; ++i) {
        GenericSpec spec = ThreeEpochs();
        spec.format = formats[i];
        spec.sliceMode = i % 2 == 0;
        spec.runType = runs[i % 3];
        spec.epochs = i % 3 == 1 ? 3 : 0;
        spec.offset = 7;
        spec.types = {1024, 1024, 0x8000};
        spec.scales = {1, 0.5f, 2};
        SCOPED_TRACE(spec.format + (spec.sliceMode ? " slice " : " trace ") + spec.runType);
        CFilelib f;
        std::string name = WriteGenericPair(dir, "f" + std::to_string(i) + ".bin", spec, values);
        ASSERT_EQ(f.GuessFileMFR(name), 2);
        f.Initialize(0);
        EXPECT_EQ(std::vector<long>({f.GetRunType(), f.GetNumSlices(), f.GetNumEpochs(), f.GetEpochSlices()}),
                  std::vector<long>({i % 3 == 0 ? 1 : i % 3 == 1 ? 2 : 4, 6, spec.epochs ? 3 : 1, spec.epochs ? 2 : 6}));
        EXPECT_FLOAT_EQ(f.GetPreStim(), 0.1f);
        std::string unit;
        f.GetChanUnit(2, unit);
        EXPECT_EQ(unit + std::to_string(f.UseChanUnit(2)), "V1");
        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, 1, 4), 4);  // crosses epoch boundaries in the epoched runs
        for (int c = 0; c < 3; ++c)
            for (int t = 0; t < 4; ++t)
                EXPECT_FLOAT_EQ(m[c][t], static_cast<float>(values[c][t + 1] * spec.scales[c]));
        EXPECT_EQ(m.GetRowLabeledState(1).GetLabel() + m.GetRowLabeledState(1).GetDataUnit(), "BV");
        EXPECT_EQ(f.ReadData(m, 4, 100), 2);  // clipped at the end
        EXPECT_EQ(f.ReadData(m, 6, 1), 0);
    }
}

TEST(CGenericData, EpochsSlicesAndTheirMessages)
{
    TempDir dir;
    GenericSpec spec = ThreeEpochs();
    spec.sliceMode = false;
    const std::string path = WriteGenericPair(dir, "e.dat", spec, kValues);
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
    EXPECT_EQ(EventsText(events), "New Segment@0 New Segment@2 New Segment@4 Stim@3#7/2");
    EXPECT_TRUE(events.GetEvent(1).IsSegmentBoundary());
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
    const std::string path = WriteGenericPair(dir, "src.dat", spec, kValues);
    WriteTextFile(path + ".evt", "\"Stim A\" 5 4 4 2\n");
    CFilelib src;
    std::string name = path;
    ASSERT_EQ(src.GuessFileMFR(name), 2);
    src.Initialize(0);

    const std::string out = dir.path("copy.f32");
    ASSERT_EQ(WriteGenericCopy(src, out, nullptr), 6);

    CFilelib back;
    std::string outName = out;
    ASSERT_EQ(back.GuessFileMFR(outName), 2);
    back.Initialize(0);
    EXPECT_EQ(std::vector<long>({back.GetRunType(), back.GetNumEpochs(), back.GetDataFormat()}),
              std::vector<long>({2, 3, kFmtFloat}));
    EXPECT_EQ(ChannelsOf(back), "A/V/1024 B&C/V/512 D/V/32768");  // "&" escaped when written
    ecLabeledMatrix<float> a, b;
    ASSERT_EQ(src.ReadData(a, 0, 6), 6);
    ASSERT_EQ(back.ReadData(b, 0, 6), 6);
    for (int c = 0; c < 3; ++c)
        for (int t = 0; t < 6; ++t)
            EXPECT_EQ(a[c][t], b[c][t]);
    EXPECT_EQ(EventsOf(back), "New Segment@0 New Segment@2 New Segment@4 Stim A@4#5/2");

    struct Cancel : ecProgressDlg {
        bool CheckCancelButton() override { return true; }
    } cancel;
    const std::string cancelled = dir.path("cancelled.f32");
    EXPECT_EQ(WriteGenericCopy(src, cancelled, &cancel), -1);
    EXPECT_FALSE(std::ifstream(cancelled).good());
}
