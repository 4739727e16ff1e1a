#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <sstream>

#include "filelib/filelib.h"
#include "filelib/readers/BrainVision.h"
#include "filelib/readers/EGI_Simple.h"
#include "fixtures/Bytes.h"
#include "fixtures/VendorFiles.h"

namespace {
std::string Header(const std::string& format, const std::string& orientation, const std::string& extra = "",
                   const std::string& dataFile = "d.eeg")
{
    return "Brain Vision Data Exchange Header File Version 2.0\r\n; comment\r\n[Common Infos]\r\nCodepage=UTF-8\r\n"
           "DataFile=" + dataFile + "\r\nMarkerFile=d.vmrk\r\nDataFormat=BINARY\r\nDataOrientation=" + orientation +
           "\r\nNumberOfChannels=3\r\nSamplingInterval=3906.25\r\n" + extra +
           "\r\n[Binary Infos]\r\nBinaryFormat=" + format +
           "\r\n\r\n[Channel Infos]\r\nCh1=Fp1\\1a,,0.5,\xC2\xB5V\r\nCh2=GSR,,2,\xC2\xB5S\r\nCh3=Oz,,,\r\n"
           "[Comment]\r\nCh4=not a channel\r\n";
}

// values[channel][slice]
Bytes Data(const std::string& format, bool vectorized, bool bigEndian, const std::vector<std::vector<double>>& values)
{
    Bytes b;
    auto put = [&](double v) {
        if (format == "INT_16") bigEndian ? b.u16be(static_cast<uint16_t>(static_cast<int16_t>(v))) : b.i16le(static_cast<int16_t>(v));
        else if (format == "INT_32") bigEndian ? b.u32be(static_cast<uint32_t>(static_cast<int32_t>(v))) : b.i32le(static_cast<int32_t>(v));
        else bigEndian ? b.f32be(static_cast<float>(v)) : b.f32le(static_cast<float>(v));
    };
    const size_t slices = values[0].size();
    if (vectorized)
        for (const auto& channel : values)
            for (double v : channel)
                put(v);
    else
        for (size_t t = 0; t < slices; ++t)
            for (const auto& channel : values)
                put(channel[t]);
    return b;
}

const std::vector<std::vector<double>> kValues = {{1, -2, 3, -4}, {10, 20, 30, 40}, {-100, 0, 100, 32767}};
}  // namespace

TEST(BrainVision, EveryBinaryFormatAndOrientationThroughTheFacade)
{
    TempDir dir;
    WriteTextFile(dir.path("d.vmrk"), "Brain Vision Data Exchange Marker File, Version 2.0\n[Marker Infos]\n"
                                      "Mk1=New Segment,,1,1,0,20130202105441832000\nMk2=Stimulus,S 12,3,2,0\n"
                                      "Mk10=Response,R  3,4,0,0\nMk3=Comment,bad\\1idea,2,1,0\n");
    for (const char* format : {"INT_16", "INT_32", "IEEE_FLOAT_32"}) {
        for (const char* orientation : {"MULTIPLEXED", "VECTORIZED"}) {
            for (bool big : {false, true}) {
                SCOPED_TRACE(std::string(format) + " " + orientation + (big ? " big" : ""));
                std::string header = Header(format, orientation);
                if (big)
                    header.insert(header.find("\r\n\r\n[Channel Infos]"), "\r\nUseBigEndianOrder=YES");
                WriteTextFile(dir.path("d.vhdr"), header);
                Data(format, std::string(orientation) == "VECTORIZED", big, kValues).write(dir.path("d.eeg"));
                CFilelib f;
                std::string name = dir.path("d.vhdr");
                ASSERT_EQ(f.GuessFileMFR(name), 29);
                f.Initialize(0);
                EXPECT_FLOAT_EQ(f.GetSampleRate(), 256.0f);
                EXPECT_EQ(f.GetNumSlices(), 4);
                EXPECT_EQ(f.GetNumChans(), 3);
                std::string chanName, unit;
                f.GetChanName(0, chanName);
                EXPECT_EQ(chanName, "Fp1,a");
                f.GetChanUnit(1, unit);
                EXPECT_EQ(unit, "\xC2\xB5S");
                f.GetChanUnit(2, unit);
                EXPECT_EQ(unit, "V");  // no unit: microvolts
                EXPECT_EQ(f.GetEEGChannelCount(), 2);
                ecLabeledMatrix<float> m;
                ASSERT_EQ(f.ReadData(m, 1, 3), 3);
                for (int t = 0; t < 3; ++t) {
                    EXPECT_EQ(m[0][t], static_cast<float>(kValues[0][t + 1] * 0.5 * 1e-6));
                    EXPECT_EQ(m[1][t], static_cast<float>(kValues[1][t + 1] * 2));
                    EXPECT_EQ(m[2][t], static_cast<float>(kValues[2][t + 1] * 1e-6));
                }
            }
        }
    }
    CFilelib f;
    std::string name = dir.path("d.vhdr");
    ASSERT_EQ(f.GuessFileMFR(name), 29);
    f.Initialize(0);
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 4);
    EXPECT_TRUE(events.GetEvent(0).IsSegmentBoundary());
    EXPECT_EQ(events.GetEvent(1).GetEventName(), "Stimulus/S 12");
    EXPECT_EQ(events.GetEvent(1).GetEventCode(), 12);
    EXPECT_EQ(events.GetEvent(1).GetBegin(), 2);
    EXPECT_EQ(events.GetEvent(1).GetEnd(), 4);
    EXPECT_EQ(events.GetEvent(2).GetEventName(), "Comment/bad,idea");
    EXPECT_EQ(events.GetEvent(3).GetEventName(), "Response/R  3");  // Mk10 after Mk3
    EXPECT_EQ(events.GetEvent(3).GetKind(), 3);
}

TEST(BrainVision, Latin1SegmentsAndRefusals)
{
    TempDir dir;
    std::string latin = Header("INT_16", "MULTIPLEXED", "DataPoints=4\nSegmentationType=MARKERBASED\nSegmentDataPoints=2\n");
    latin.replace(latin.find("Codepage=UTF-8"), 14, "Codepage=ANSI");
    for (size_t at; (at = latin.find("\xC2\xB5")) != std::string::npos;)
        latin.replace(at, 2, "\xB5");  // one Latin-1 byte
    WriteTextFile(dir.path("d.vhdr"), latin);
    Data("INT_16", false, false, kValues).write(dir.path("d.eeg"));
    BrainVision r(dir.path("d.vhdr").c_str());
    r.Initialize(0);
    std::string unit;
    r.GetChanUnit(1, unit);
    EXPECT_EQ(unit, "\xC2\xB5S");
    EXPECT_EQ(r.GetRunType(), 2u);
    EXPECT_EQ(r.GetNumEpochs(), 2);
    EXPECT_EQ(r.GetEpochSlices(), 2);

    const std::string p = "[BrainVision::Initialize] ";
    auto fails = [&](const std::string& header) {
        WriteTextFile(dir.path("x.vhdr"), header);
        BrainVision bad(dir.path("x.vhdr").c_str());
        const std::string message = Message([&] { bad.Initialize(0); });
        EXPECT_EQ(bad.GetFileMFR(), 29);
        return message;
    };
    EXPECT_EQ(fails(Header("INT_16", "MULTIPLEXED", "", "../d.eeg")),
              p + "The data file '../d.eeg' lies outside the header's folder.");
    EXPECT_EQ(fails(Header("INT_16", "MULTIPLEXED", "", "/etc/passwd")),
              p + "The data file '/etc/passwd' lies outside the header's folder.");
    EXPECT_EQ(fails(Header("INT_16", "MULTIPLEXED", "", "missing.eeg")),
              p + "Cannot open the data file " + dir.path("missing.eeg"));
    EXPECT_EQ(fails(Header("INT_64", "MULTIPLEXED")), p + "Unknown BinaryFormat 'INT_64'.");
    EXPECT_EQ(fails(Header("INT_16", "SIDEWAYS")), p + "Unknown DataOrientation 'SIDEWAYS'.");
    std::string zeroRate = Header("INT_16", "MULTIPLEXED");
    zeroRate.replace(zeroRate.find("3906.25"), 7, "0");
    EXPECT_EQ(fails(zeroRate), p + "Invalid SamplingInterval '0'.");
    std::string noChannels = Header("INT_16", "MULTIPLEXED");
    noChannels.replace(noChannels.find("NumberOfChannels=3"), 18, "NumberOfChannels=x");
    EXPECT_EQ(fails(noChannels), p + "Invalid NumberOfChannels 'x'.");
    EXPECT_EQ(fails(Header("INT_16", "MULTIPLEXED", "DataPoints=5\n")),
              p + "The data file " + dir.path("d.eeg") + " holds 24 bytes, fewer than DataPoints=5 needs.");
    WriteTextFile(dir.path("y.vhdr"), "Some other text file\n");
    BrainVision foreign(dir.path("y.vhdr").c_str());
    EXPECT_EQ(Message([&] { foreign.Initialize(0); }), p + "Not a BrainVision header: " + dir.path("y.vhdr"));
    EXPECT_EQ(foreign.GetFileMFR(), 0);
}

TEST(EGISimple, VersionsValuesAndEvents)
{
    TempDir dir;
    // Version 2: 16-bit with range / 2^bits scaling (400 uV over 12 bits), one event code.
    Bytes v2 = EgiHeader(2, 2, 3, {"DIN1"}, 12, 400);
    for (int t = 0; t < 3; ++t)
        v2.u16be(static_cast<uint16_t>(100 * (t + 1))).u16be(static_cast<uint16_t>(-7)).u16be(t == 1 ? 1 : 0);
    v2.write(dir.path("v2.raw"));
    CFilelib f;
    std::string name = dir.path("v2.raw");
    ASSERT_EQ(f.GuessFileMFR(name), 44);
    f.Initialize(0);
    EXPECT_EQ(f.GetNumChans(), 3);
    EXPECT_EQ(f.GetNumChans(0x8000), 1);
    std::string code;
    f.GetChanName(2, code);
    EXPECT_EQ(code, "DIN1");
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 3), 3);
    EXPECT_FLOAT_EQ(m[0][2], static_cast<float>(300 * 400.0 / 4096 * 1e-6));
    EXPECT_FLOAT_EQ(m[1][0], static_cast<float>(-7 * 400.0 / 4096 * 1e-6));
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 1);
    EXPECT_EQ(events.GetEvent(0).GetEventName(), "DIN1");
    EXPECT_EQ(events.GetEvent(0).GetBegin(), 1);

    // Version 7: segmented doubles, two segments of two samples.
    Bytes v7 = EgiHeader(7, 1, 2, {}, 0, 0, 2);
    for (int s = 0; s < 2; ++s) {
        v7.u16be(static_cast<uint16_t>(s + 1)).u32be(1000u * s);
        v7.f64be(1.5 + s).f64be(-2.5 - s);
    }
    v7.write(dir.path("v7.raw"));
    EGI_Simple seg(dir.path("v7.raw").c_str());
    seg.Initialize(0);
    EXPECT_EQ(seg.GetRunType(), 2u);
    EXPECT_EQ(seg.GetNumEpochs(), 2);
    EXPECT_EQ(seg.GetNumSlices(), 4);
    ASSERT_EQ(seg.ReadData(m, 1, 3), 3);
    EXPECT_FLOAT_EQ(m[0][0], -2.5e-6f);
    EXPECT_FLOAT_EQ(m[0][1], 2.5e-6f);
    EXPECT_FLOAT_EQ(m[0][2], -3.5e-6f);
    ecEventList boundaries;
    ASSERT_EQ(seg.InitialEventList(&boundaries, nullptr), 2);
    EXPECT_EQ(boundaries.GetEvent(1).GetEventName(), "target");
    EXPECT_EQ(boundaries.GetEvent(1).GetBegin(), 2);

    // Damage: data shorter than the header implies, zero rate, cut header.
    v2.dropLast(2).write(dir.path("short.raw"));
    EGI_Simple cut(dir.path("short.raw").c_str());
    EXPECT_EQ(Message([&] { cut.Initialize(0); }), "[EGI_Simple::Initialize] The file holds 56 bytes; the header implies 58.");
    Bytes zero = EgiHeader(4, 2, 1, {});
    zero.put_u16le(20, 0);
    zero.zeros(8).write(dir.path("zero.raw"));
    EGI_Simple zeroRate(dir.path("zero.raw").c_str());
    EXPECT_EQ(Message([&] { zeroRate.Initialize(0); }), "[EGI_Simple::Initialize] The sampling rate is 0.");
    v2.head(34).write(dir.path("head.raw"));
    EGI_Simple headCut(dir.path("head.raw").c_str());
    EXPECT_EQ(Message([&] { headCut.Initialize(0); }),
              "[EGI_Simple::Initialize] The header of " + dir.path("head.raw") + " is cut short.");
}

// Real recordings written by other software.
TEST(BrainVisionRealFiles, ValuesAndMarkers)
{
    const std::string d = std::string(FILELIB_SHARED_DATA) + "/brainvision/";
    ecLabeledMatrix<float> m;
    {
        CFilelib f;
        std::string name = d + "test.vhdr";
        ASSERT_EQ(f.GuessFileMFR(name), 29);
        f.Initialize(0);
        ASSERT_EQ(f.ReadData(m, 0, 3), 3);
        EXPECT_FLOAT_EQ(m[29][0], -26.0f);  // HR in its declared unit, "uS"
        std::string unit;
        f.GetChanUnit(31, unit);
        EXPECT_EQ(unit, "C");
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 14);
        const long begins[] = {0, 486, 496, 1769, 1779, 3252, 3262, 4935, 4945, 5999, 6619, 6629, 7629, 7699};
        for (int i = 0; i < 14; ++i)
            EXPECT_EQ(events.GetEvent(i).GetBegin(), begins[i]);
        EXPECT_EQ(events.GetEvent(12).GetEventName(), "SyncStatus/Sync On");
    }
    {
        CFilelib f;
        std::string name = d + "test_old_layout_latin1_software_filter.vhdr";
        ASSERT_EQ(f.GuessFileMFR(name), 29);
        f.Initialize(0);
        ecEventList events;
        EXPECT_EQ(f.InitialEventList(&events, nullptr), 2);
    }
    {
        CFilelib f;
        std::string name = d + "File_brainvision_3_int16.vhdr";
        ASSERT_EQ(f.GuessFileMFR(name), 29);
        f.Initialize(0);
        EXPECT_EQ(f.GetRunType(), 2u);
        EXPECT_EQ(f.GetNumEpochs(), 34);
        EXPECT_EQ(f.GetEpochSlices(), 294);
        ecEventList events;
        EXPECT_EQ(f.InitialEventList(&events, nullptr), 102);
    }
}

TEST(EGIRealFiles, ValuesAndEvents)
{
    const std::string d = std::string(FILELIB_SHARED_DATA) + "/egi/";
    CFilelib f;
    std::string name = d + "test_egi.raw";
    ASSERT_EQ(f.GuessFileMFR(name), 44);
    f.Initialize(0);
    EXPECT_EQ(f.GetEEGChannelCount(), 256);
    EXPECT_EQ(f.GetNumChans(0x8000), 6);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 77), 77);
    std::istringstream txt(ReadTextFile(d + "test_egi.txt"));
    for (int row = 0; row < 257; ++row)
        for (int t = 0; t < 77; ++t) {
            double v = 0;
            ASSERT_TRUE(txt >> v);
            if (row > 0) {
                // Single-precision samples: within float rounding of the peers' doubles.
                EXPECT_NEAR(m[row - 1][t], v * 1e-6, std::max(1e-10, std::fabs(v) * 1e-6 * 1.2e-7)) << row << "," << t;
            }
        }
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 2);
    EXPECT_EQ(events.GetEvent(0).GetEventName(), "TRSP");
    EXPECT_EQ(events.GetEvent(0).GetBegin(), 19);
    EXPECT_EQ(events.GetEvent(1).GetEventName(), "XXX1");
    EXPECT_EQ(events.GetEvent(1).GetBegin(), 57);
}
