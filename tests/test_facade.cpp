#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "filelib/readers/Generic.h"
#include "fixtures/Errors.h"
#include "fixtures/GenericFiles.h"

namespace {
const std::vector<std::vector<double>> kFour = {{1, 2, 3, 4}, {-1, -2, -3, -4}};
}  // namespace

TEST(CFilelib, WithoutReaderRaisesTheNineTextsAndAnswersNeutrally)
{
    CFilelib f;
    std::string s;
    // Standard exceptions, not ecError: no reader was ever there to raise one.
    const std::string head = "std::exception: [CFilelib::", tail = ": The time series file is not set properly (pActiveFile=0).";
    EXPECT_EQ(Message([&] { f.GetRunType(); }), head + "GetRunType]" + tail);
    EXPECT_EQ(Message([&] { f.GetChanName(0, s); }), head + "GetChanName]" + tail);
    EXPECT_EQ(Message([&] { f.GetChanType(0); }), head + "GetChanName]" + tail);
    EXPECT_EQ(Message([&] { f.GetChanScale(0); }), head + "GetChanScale]" + tail);
    EXPECT_EQ(Message([&] { f.GetChanUnit(0, s); }), head + "GetChanUnit]" + tail);
    EXPECT_EQ(Message([&] { f.UseChanUnit(0); }), head + "UseChanUnit]" + tail);
    EXPECT_EQ(Message([&] { f.UseChanUnitPrefix(0); }), head + "UseChanUnitPrefix]" + tail);
    EXPECT_EQ(Message([&] { f.GetSampleRate(); }), head + "GetSampleRate]" + tail);
    EXPECT_EQ(Message([&] { f.GetPreStim(); }), head + "GetSampleRate]" + tail);
    EXPECT_EQ(Message([&] { f.GetDuration(); }), head + "GetSampleRate]" + tail);

    // Channel counts, domain, format, data type, probability type, orientation, source,
    // reference channel and type, review mode, the four lengths, header, variance, PPM option.
    EXPECT_EQ(std::vector<long>({f.GetNumChans(), f.GetNumChans(0xFFFF), f.GetOnChannelCount(), f.GetEEGChannelCount(),
                                 f.GetMEGChannelCount(), f.GetDomain(), f.GetDataFormat(), f.GetDataType(),
                                 f.GetProbabilityType(), f.GetDataMatrixOrientation(), f.GetFileSource(),
                                 f.GetReferenceChannel(), f.GetReferenceType(), f.IsEpochReviewMode(), f.GetNumSlices(),
                                 f.GetEpochSlices(), f.GetNumEpochs(), f.GetValidEpochCnt(), f.WriteHeader(),
                                 f.DoesVarianceExist(), f.GetCurrentFilePPMOption(0)}),
              std::vector<long>({0, 0, 0, 0, 0, 1, -1, -1, 0, 1, 0, -1, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(f.GetSID() + f.GetCurrentFileName(0), "");
    ecLabeledMatrix<float> m;
    ecEventList events;
    std::vector<float> v{7};
    EXPECT_EQ(f.ReadData(m, 0, 10) + f.InitialEventList(&events, nullptr) + f.ReadOneRawSlice(v, 0), 0);
    f.SetInputFileName("a.bin");
    f.SetInputFileName(nullptr);  // ignored
    EXPECT_EQ(f.GetInputFileName(), "a.bin");
}

TEST(CFilelib, FactoryEdgeCases)
{
    CFilelib f;
    EXPECT_EQ(Message([&] { f.Initialize(0); }), "std::exception: [CFilelib::Initialize]: ORVA error - Input file name is null.");
    f.SetInputFileName("whatever.bin");
    for (int code : {0, 1, 5, 46, -3}) {  // unlisted codes and readers not built in create nothing
        f.SetFileSource(code);
        EXPECT_EQ(Message([&] { f.Initialize(0); }), "(nothing raised)") << code;
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
    // All, of a type, switched on (any, EEG, trigger), EEG, MEG: the trigger channel is switched off.
    EXPECT_EQ(std::vector<int>({f.GetNumChans(), f.GetNumChans(0x8000), f.GetOnChannelCount(), f.GetOnChannelCount(0x400),
                                f.GetOnChannelCount(0x8000), f.GetEEGChannelCount(), f.GetMEGChannelCount()}),
              std::vector<int>({2, 1, 1, 1, 0, 1, 0}));
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
    spec.slices = 2000000000;  // two shorts each: beyond 32 bits, refused before any allocation
    WriteTextFile(path + ".orva_hdr", GenericHeader(spec));
    CFilelib f;
    std::string name = path;
    EXPECT_EQ(Message([&] { f.GuessFileMFR(name); }),
              "[CGeneric::Initialize] The data file " + path + " holds 16 bytes; the header declares 8000000000.");
    EXPECT_EQ(f.GetFileSource(), 0u);
    EXPECT_EQ(f.GetActiveFile(), nullptr);

    std::remove(path.c_str());
    EXPECT_EQ(Message([&] { f.GuessFileMFR(name); }),
              "[CGeneric::Initialize] Unable to open file:" + path);
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
