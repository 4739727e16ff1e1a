#include <gtest/gtest.h>

#include <sstream>

#include "companion/Xml.h"
#include "fixtures/Bytes.h"
#include "fixtures/MemoryReader.h"

namespace {
std::string CalibrateMessage(ecFilebase& r)
{
    try {
        r.Calibrate();
    } catch (const ecError& e) {
        return e.what();
    }
    return "(nothing raised)";
}

// Two channels at 100 Hz; from slice 100 to 149 a pulse of 2 and 0.5 sits on baselines of
// 1 and -1; a second pulse starts at 300.
MemoryReader PulseReader()
{
    std::vector<std::vector<float>> s(2, std::vector<float>(400));
    for (int i = 0; i < 400; ++i) {
        bool on = (i >= 100 && i < 150) || (i >= 300 && i < 350);
        s[0][static_cast<size_t>(i)] = 1.0f + (on ? 2.0f : 0.0f);
        s[1][static_cast<size_t>(i)] = -1.0f + (on ? 0.5f : 0.0f);
    }
    MemoryReader r(s, 100);
    std::string a = "A", b = "B";
    r.SetChanName(0, a);
    r.SetChanName(1, b);
    return r;
}
}  // namespace

TEST(ecCalibration, DefaultsAndWriteXml)
{
    ecCalibration cal;
    EXPECT_TRUE(cal.GetSkipCalib());
    EXPECT_FALSE(cal.GetDerived());
    EXPECT_EQ(cal.GetCalFile(), "");
    std::ostringstream out;
    EXPECT_TRUE(cal.WriteXml(out));
    EXPECT_EQ(out.str(),
              "<ORVA_Calibration><bSkipCalib>1</bSkipCalib><bDerived>0</bDerived><fCalAmp>0</fCalAmp>"
              "<iCalMode>0</iCalMode><sCalFile></sCalFile><fBaseStart>0</fBaseStart><fBaseStop>0</fBaseStop>"
              "<fSigStart>0</fSigStart><fSigStop>0</fSigStop><iNumEvt>0</iNumEvt><CalEvtCodes></CalEvtCodes>"
              "</ORVA_Calibration>");

    cal.SetDerived(true);
    cal.SetSkipCalib(false);
    cal.SetCalAmp(0.5f);
    cal.SetCalEvtCodes({"7", "Cal"});
    cal.SetLabels({"A", "B"});
    cal.SetFactors({2.0f, 0.25f});
    cal.SetOffsets({-1.5f, 3.0f});
    std::ostringstream derived;
    cal.WriteXml(derived);
    EXPECT_NE(derived.str().find("<iNumEvt>2</iNumEvt><CalEvtCodes><evt>7</evt><evt>Cal</evt></CalEvtCodes>"
                                 "<iNumChans>2</iNumChans><CalFactorList><chan><label>A</label><factor>2</factor>"
                                 "<offset>-1.5</offset></chan><chan><label>B</label><factor>0.25</factor><offset>3"
                                 "</offset></chan></CalFactorList></ORVA_Calibration>"),
              std::string::npos)
        << derived.str();

    ecXml xml;
    ASSERT_TRUE(xml.Read("<Header>" + derived.str() + "</Header>"));
    ecCalibration back;
    ASSERT_TRUE(back.ReadXml(xml));
    EXPECT_FALSE(back.GetSkipCalib());
    EXPECT_TRUE(back.GetDerived());
    EXPECT_EQ(back.GetCalAmp(), 0.5f);
    EXPECT_EQ(back.GetCalEvtCodes(), (std::vector<std::string>{"7", "Cal"}));
    EXPECT_EQ(back.GetLabels(), cal.GetLabels());
    EXPECT_EQ(back.GetFactors(), cal.GetFactors());
    EXPECT_EQ(back.GetOffsets(), cal.GetOffsets());
    ecXml other;
    ASSERT_TRUE(other.Read("<Header/>"));
    EXPECT_FALSE(back.ReadXml(other));

    std::vector<float> f, o;
    EXPECT_EQ(back.Transfer({"B", "Z"}, f, o), 1);
    EXPECT_EQ(f, (std::vector<float>{0.25f, 1.0f}));
    EXPECT_EQ(o, (std::vector<float>{3.0f, 0.0f}));

    // Inconsistent vectors: the error, with the part before it already written.
    cal.SetOffsets({1.0f});
    std::ostringstream broken;
    try {
        cal.WriteXml(broken);
        FAIL();
    } catch (const ecError& e) {
        EXPECT_STREQ(e.what(), "[ecCalibration::WriteXml] Size inconsistency");
        EXPECT_EQ(e.GetKind(), 1);
    }
    EXPECT_EQ(broken.str().rfind("</CalEvtCodes>"), broken.str().size() - 14);
}

TEST(Calibrate, RecoversAKnownAmplitudeFromTheStartOfTheRecording)
{
    MemoryReader r = PulseReader();
    ecCalibration& cal = r.GetCalibration();
    r.Calibrate();  // skipped by default
    EXPECT_FALSE(cal.GetDerived());
    cal.SetSkipCalib(false);
    cal.SetCalMode(kCalMean);
    cal.SetCalAmp(100e-6f);
    cal.SetBaseStart(0.0f);
    cal.SetBaseStop(0.9f);
    cal.SetSigStart(1.1f);
    cal.SetSigStop(1.4f);
    r.Calibrate();
    ASSERT_TRUE(cal.GetDerived());
    EXPECT_EQ(cal.GetLabels(), (std::vector<std::string>{"A", "B"}));
    EXPECT_FLOAT_EQ(cal.GetFactors()[0], 50e-6f);
    EXPECT_FLOAT_EQ(cal.GetFactors()[1], 200e-6f);
    // The baseline maps to 0 and the pulse to the calibration amplitude.
    EXPECT_NEAR(1.0f * cal.GetFactors()[0] + cal.GetOffsets()[0], 0.0f, 1e-9f);
    EXPECT_NEAR(-0.5f * cal.GetFactors()[1] + cal.GetOffsets()[1], 100e-6f, 1e-9f);
}

TEST(Calibrate, PeakModeRelativeToEventsAndCalFileRoundTrip)
{
    TempDir dir;
    MemoryReader r = PulseReader();
    for (long at : {100L, 300L}) {
        ecEvent e;
        e.SetEventName("Cal");
        e.SetBegin(at);
        r.events.push_back(e);
    }
    ecEvent other;
    other.SetEventName("Stim");
    other.SetBegin(390);  // not a calibration event: its intervals would leave the data
    r.events.push_back(other);
    ecCalibration& cal = r.GetCalibration();
    cal.SetSkipCalib(false);
    cal.SetCalMode(kCalPeak);
    cal.SetCalAmp(2.0f);
    cal.SetCalEvtCodes({"Cal"});
    cal.SetBaseStart(-0.5f);
    cal.SetBaseStop(-0.1f);
    cal.SetSigStart(0.0f);
    cal.SetSigStop(0.3f);
    cal.SetCalFile(dir.path("r.cal"));
    r.Calibrate();
    EXPECT_FLOAT_EQ(cal.GetFactors()[0], 1.0f);
    EXPECT_FLOAT_EQ(cal.GetFactors()[1], 4.0f);
    EXPECT_EQ(ReadTextFile(dir.path("r.cal")), "# label\tfactor\toffset\nA\t1\t-1\nB\t4\t4\n");

    MemoryReader fromFile = PulseReader();
    fromFile.GetCalibration().SetSkipCalib(false);
    fromFile.GetCalibration().SetCalMode(kCalFromFile);
    fromFile.GetCalibration().SetCalFile(dir.path("r.cal"));
    fromFile.Calibrate();
    EXPECT_TRUE(fromFile.GetCalibration().GetDerived());
    EXPECT_EQ(fromFile.GetCalibration().GetFactors(), cal.GetFactors());
    EXPECT_EQ(fromFile.GetCalibration().GetOffsets(), cal.GetOffsets());
}

TEST(Calibrate, EachErrorInItsPlace)
{
    TempDir dir;
    auto setup = [](MemoryReader& r, int mode) {
        ecCalibration& cal = r.GetCalibration();
        cal.SetSkipCalib(false);
        cal.SetCalMode(mode);
        cal.SetCalAmp(1.0f);
        cal.SetBaseStart(0.0f);
        cal.SetBaseStop(0.5f);
        cal.SetSigStart(1.0f);
        cal.SetSigStop(1.5f);
    };
    const std::string p = "[ecFilebase::Calibrate] ";

    MemoryReader reversed = PulseReader();
    setup(reversed, kCalPeak);
    reversed.GetCalibration().SetSigStop(0.9f);
    EXPECT_EQ(CalibrateMessage(reversed), p + "Invalid calibration start/stop times");
    MemoryReader pastEnd = PulseReader();
    setup(pastEnd, kCalMean);
    pastEnd.GetCalibration().SetSigStop(5.0f);
    EXPECT_EQ(CalibrateMessage(pastEnd), p + "Invalid calibration start/stop times");
    MemoryReader noEvent = PulseReader();
    setup(noEvent, kCalMean);
    noEvent.GetCalibration().SetCalEvtCodes({"99"});
    EXPECT_EQ(CalibrateMessage(noEvent), p + "Invalid calibration start/stop times");

    MemoryReader flat = PulseReader();
    setup(flat, kCalPeak);
    flat.GetCalibration().SetSigStart(2.0f);  // 2.0 .. 2.5 s is baseline again
    flat.GetCalibration().SetSigStop(2.5f);
    EXPECT_EQ(CalibrateMessage(flat), p + "Peak calibration signal does not exceed baseline");
    EXPECT_FALSE(flat.GetCalibration().GetDerived());

    MemoryReader badMode = PulseReader();
    setup(badMode, 7);
    EXPECT_EQ(CalibrateMessage(badMode), p + "Unrecognized calibration mode");

    MemoryReader noFile = PulseReader();
    setup(noFile, kCalFromFile);
    noFile.GetCalibration().SetCalFile(dir.path("missing.cal"));
    EXPECT_EQ(CalibrateMessage(noFile), p + "Failed to open calibration file");
    MemoryReader unwritable = PulseReader();
    setup(unwritable, kCalMean);
    unwritable.GetCalibration().SetCalFile(dir.path("no/such/dir/x.cal"));
    EXPECT_EQ(CalibrateMessage(unwritable), p + "Failed to open calibration file");

    WriteTextFile(dir.path("bad.cal"), "A\tnot-a-number\t0\n");
    MemoryReader badFile = PulseReader();
    setup(badFile, kCalFromFile);
    badFile.GetCalibration().SetCalFile(dir.path("bad.cal"));
    EXPECT_EQ(CalibrateMessage(badFile), p + "Error reading calibration file");

    // A span too large to hold in memory (a very long recording measured over hours).
    std::vector<std::vector<float>> wide(64, std::vector<float>(10));
    MemoryReader huge(wide, 1e6f);
    huge.SetNumSlices(2000000000);
    setup(huge, kCalMean);
    huge.GetCalibration().SetBaseStop(1000.0f);
    huge.GetCalibration().SetSigStart(1000.0f);
    huge.GetCalibration().SetSigStop(1999.0f);
    EXPECT_EQ(CalibrateMessage(huge), p + "Failed to create calibration data pointer");
}
