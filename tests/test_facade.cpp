#include <gtest/gtest.h>

#include <functional>

#include "filelib/filelib.h"
#include "filelib/readers/Generic.h"
#include "fixtures/GenericFiles.h"

namespace {
std::string StdMessage(const std::function<void()>& f)
{
    try {
        f();
    } catch (const ecError& e) {
        return std::string("ecError: ") + e.what();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(nothing raised)";
}

const std::vector<std::vector<double>> kFour = {{1, 2, 3, 4}, {-1, -2, -3, -4}};
}  // namespace

TEST(CFilelib, WithoutReaderRaisesTheNineTextsAndAnswersNeutrally)
{
    CFilelib f;
    std::string s;
    const std::string tail = ": The time series file is not set properly (pActiveFile=0).";
    EXPECT_EQ(StdMessage([&] { f.GetRunType(); }), "[CFilelib::GetRunType]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetChanName(0, s); }), "[CFilelib::GetChanName]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetChanType(0); }), "[CFilelib::GetChanName]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetChanScale(0); }), "[CFilelib::GetChanScale]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetChanUnit(0, s); }), "[CFilelib::GetChanUnit]" + tail);
    EXPECT_EQ(StdMessage([&] { f.UseChanUnit(0); }), "[CFilelib::UseChanUnit]" + tail);
    EXPECT_EQ(StdMessage([&] { f.UseChanUnitPrefix(0); }), "[CFilelib::UseChanUnitPrefix]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetSampleRate(); }), "[CFilelib::GetSampleRate]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetPreStim(); }), "[CFilelib::GetSampleRate]" + tail);
    EXPECT_EQ(StdMessage([&] { f.GetDuration(); }), "[CFilelib::GetSampleRate]" + tail);

    EXPECT_EQ(f.GetNumChans(), 0);
    EXPECT_EQ(f.GetNumChans(0xFFFF), 0);
    EXPECT_EQ(f.GetOnChannelCount(), 0);
    EXPECT_EQ(f.GetEEGChannelCount(), 0);
    EXPECT_EQ(f.GetMEGChannelCount(), 0);
    EXPECT_EQ(f.GetDomain(), 1);
    EXPECT_EQ(f.GetDataFormat(), -1);
    EXPECT_EQ(f.GetDataType(), -1);
    EXPECT_EQ(f.GetProbabilityType(), 0);
    EXPECT_TRUE(f.GetDataMatrixOrientation());
    EXPECT_EQ(f.GetFileSource(), 0u);
    EXPECT_EQ(f.GetReferenceChannel(), -1);
    EXPECT_EQ(f.GetReferenceType(), 0u);
    EXPECT_FALSE(f.IsEpochReviewMode());
    EXPECT_EQ(f.GetNumSlices() + f.GetEpochSlices() + f.GetNumEpochs() + f.GetValidEpochCnt(), 0);
    EXPECT_EQ(f.GetSID(), "");
    EXPECT_FALSE(f.WriteHeader());
    EXPECT_FALSE(f.DoesVarianceExist());
    EXPECT_EQ(f.GetCurrentFileName(0), "");
    EXPECT_EQ(f.GetCurrentFilePPMOption(0), 1);
    ecLabeledMatrix<float> m;
    EXPECT_EQ(f.ReadData(m, 0, 10), 0);
    ecEventList events;
    EXPECT_EQ(f.InitialEventList(&events, nullptr), 0);
    std::vector<float> v{7};
    EXPECT_FALSE(f.ReadOneRawSlice(v, 0));
    f.SetNumChans(3);  // quiet setters do nothing
    f.SetRunType(2);
    EXPECT_EQ(f.GetNumChans(), 0);

    f.SetFileSource(33);
    EXPECT_EQ(f.GetFileSource(), 33u);
    f.SetInputFileName("a.bin");
    f.SetInputFileName(nullptr);
    EXPECT_EQ(f.GetInputFileName(), "a.bin");
}

TEST(CFilelib, FactoryEdgeCases)
{
    CFilelib f;
    EXPECT_EQ(StdMessage([&] { f.Initialize(0); }), "[CFilelib::Initialize]: ORVA error - Input file name is null.");
    f.SetInputFileName("whatever.bin");
    for (int code : {0, 1, 5, 46, -3}) {  // unlisted codes and readers not built in create nothing
        f.SetFileSource(code);
        EXPECT_EQ(StdMessage([&] { f.Initialize(0); }), "(nothing raised)") << code;
        EXPECT_EQ(f.GetActiveFile(), nullptr);
    }
}

TEST(CFilelib, DetectionFindsGenericFilesAndLeavesForeignOnesAlone)
{
    TempDir dir;
    GenericSpec spec;
    spec.types = {1024, 0x8000 | 0x800};
    const std::string path = WriteGenericPair(dir, "run1.dat", spec, kFour);
    WriteTextFile(dir.path("foreign.bin"), "not a recording at all");

    CFilelib f;
    std::string foreign = dir.path("foreign.bin");
    EXPECT_EQ(f.GuessFileMFR(foreign), 0);
    EXPECT_EQ(f.GetFileSource(), 0u);
    EXPECT_EQ(f.GetActiveFile(), nullptr);

    std::string name = path;
    EXPECT_EQ(f.GuessFileType(name), 4);
    EXPECT_EQ(f.GetFileSource(), 2u);
    ASSERT_NE(f.GetActiveFile(), nullptr);
    f.Initialize(0);
    EXPECT_NE(f.GetActiveFile(), nullptr);
    EXPECT_EQ(f.GetNumChans(), 2);
    EXPECT_EQ(f.GetNumChans(0x8000), 1);
    EXPECT_EQ(f.GetOnChannelCount(), 1);
    EXPECT_EQ(f.GetOnChannelCount(0x400), 1);
    EXPECT_EQ(f.GetOnChannelCount(0x8000), 0);
    EXPECT_EQ(f.GetEEGChannelCount(), 1);
    EXPECT_EQ(f.GetMEGChannelCount(), 0);
    EXPECT_FLOAT_EQ(f.GetDuration(), 4.0f / 250.0f);
    EXPECT_EQ(f.GetSID(), "S1");
    EXPECT_EQ(f.GetDataFormat(), kFmtShort);

    // Already detected: the stored source answers even for another name, without probing.
    EXPECT_EQ(f.GuessFileMFR(foreign), 2);
    // Reuse for a second file: reset the source first.
    f.SetFileSource(0);
    f.SetInputFileName(foreign.c_str());
    EXPECT_EQ(f.GuessFileMFR(foreign), 0);
    std::string again = path;
    EXPECT_EQ(f.GuessFileMFR(again), 2);
}

TEST(CFilelib, AClaimedButDamagedFileRaisesTheReadersError)
{
    TempDir dir;
    GenericSpec spec;
    const std::string path = WriteGenericPair(dir, "short.dat", spec, kFour);
    Bytes().i16le(1).write(path);  // the header declares 16 bytes of data; 2 remain
    CFilelib f;
    std::string name = path;
    EXPECT_EQ(StdMessage([&] { f.GuessFileMFR(name); }),
              "ecError: [CGeneric::Initialize] The data file " + path + " holds 2 bytes; the header declares 16.");
    EXPECT_EQ(f.GetFileSource(), 0u);
    EXPECT_EQ(f.GetActiveFile(), nullptr);

    std::remove(path.c_str());
    EXPECT_EQ(StdMessage([&] { f.GuessFileMFR(name); }),
              "ecError: [CGeneric::Initialize] Unable to open file:" + path);
}

TEST(CFilelib, CopiesShareTheReaderSafely)
{
    TempDir dir;
    std::string path = WriteGenericPair(dir, "c.dat", GenericSpec(), kFour);
    auto* first = new CFilelib;
    first->SetInputFileName(path.c_str());
    first->SetFileSource(2);
    first->Initialize(0);
    CFilelib second(*first);
    CFilelib third;
    third = *first;
    EXPECT_EQ(second.GetActiveFile(), first->GetActiveFile());
    first->Free();
    delete first;
    ecLabeledMatrix<float> m;
    EXPECT_EQ(second.ReadData(m, 0, 4), 4);
    EXPECT_EQ(m[1][3], -4.0f);
    second.Free();
    EXPECT_EQ(third.ReadData(m, 1, 1), 1);
    EXPECT_EQ(m[0][0], 2.0f);
}

TEST(CFilelib, ReadOneRawSliceAndCalibratedReads)
{
    TempDir dir;
    GenericSpec spec;
    spec.extra =
        "<ORVA_Calibration><bSkipCalib>0</bSkipCalib><iCalMode>2</iCalMode><fCalAmp>10</fCalAmp>"
        "<fBaseStart>0</fBaseStart><fBaseStop>0.004</fBaseStop><fSigStart>0.008</fSigStart>"
        "<fSigStop>0.016</fSigStop></ORVA_Calibration>\n";
    spec.names = {"A", "B"};
    const std::string path = WriteGenericPair(dir, "cal.dat", spec, {{1, 1, 3, 3}, {5, 5, 6, 6}});
    CFilelib f;
    std::string name = path;
    ASSERT_EQ(f.GuessFileMFR(name), 2);
    f.Initialize(0);  // the header's calibration record asks for a mean-mode calibration
    ASSERT_TRUE(f.GetActiveFile()->GetCalibration().GetDerived());
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 4), 4);
    EXPECT_FLOAT_EQ(m[0][0], 0.0f);
    EXPECT_FLOAT_EQ(m[0][2], 10.0f);
    EXPECT_FLOAT_EQ(m[1][3], 10.0f);
    std::vector<float> raw{9, 9, 9};
    ASSERT_TRUE(f.ReadOneRawSlice(raw, 2));
    EXPECT_EQ(raw, (std::vector<float>{3, 6}));  // raw: no calibration
    std::vector<float> untouched{9};
    EXPECT_FALSE(f.ReadOneRawSlice(untouched, 4));
    EXPECT_EQ(untouched, std::vector<float>{9});
}
