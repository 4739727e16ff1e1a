#include <gtest/gtest.h>

#include <sstream>

#include "companion/Xml.h"
#include "fixtures/Bytes.h"
#include "fixtures/Errors.h"
#include "fixtures/MemoryReader.h"

namespace {
// Switches calibration on in `mode`: `amp` between the baseline and signal windows (seconds).
void Window(ecCalibration& cal, int mode, float amp, float baseStart, float baseStop, float sigStart, float sigStop)
{
    cal.SetSkipCalib(false);
    cal.SetCalMode(mode);
    cal.SetCalAmp(amp);
    cal.SetBaseStart(baseStart);
    cal.SetBaseStop(baseStop);
    cal.SetSigStart(sigStart);
    cal.SetSigStop(sigStop);
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

// The record a generic header carries: written and read back whole.
TEST(ecCalibration, WriteXmlReadsBack)
{
    ecCalibration cal;
    cal.SetDerived(true);
    cal.SetSkipCalib(false);
    cal.SetCalAmp(0.5f);
    cal.SetCalEvtCodes({"7", "Cal"});
    cal.SetLabels({"A", "B"});
    cal.SetFactors({2.0f, 0.25f});
    cal.SetOffsets({-1.5f, 3.0f});
    std::ostringstream derived;
    ASSERT_TRUE(cal.WriteXml(derived));

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
    EXPECT_EQ(Message([&] { cal.WriteXml(broken); }), "[ecCalibration::WriteXml] Size inconsistency");
    EXPECT_EQ(broken.str().rfind("</CalEvtCodes>"), broken.str().size() - 14);
}

TEST(Calibrate, RecoversAKnownAmplitudeFromTheStartOfTheRecording)
{
    MemoryReader r = PulseReader();
    ecCalibration& cal = r.GetCalibration();
    r.Calibrate();  // skipped by default
    EXPECT_FALSE(cal.GetDerived());
    Window(cal, kCalMean, 100e-6f, 0.0f, 0.9f, 1.1f, 1.4f);
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
    Window(cal, kCalPeak, 2.0f, -0.5f, -0.1f, 0.0f, 0.3f);
    cal.SetCalEvtCodes({"Cal"});
    cal.SetCalFile(dir.path("r.cal"));
    r.Calibrate();
    EXPECT_FLOAT_EQ(cal.GetFactors()[0], 1.0f);
    EXPECT_FLOAT_EQ(cal.GetFactors()[1], 4.0f);
    EXPECT_EQ(ReadTextFile(dir.path("r.cal")), "# label\tfactor\toffset\nA\t1\t-1\nB\t4\t4\n");

    MemoryReader fromFile = PulseReader();
    ecCalibration& read = fromFile.GetCalibration();
    Window(read, kCalFromFile, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f);
    read.SetCalFile(dir.path("r.cal"));
    fromFile.Calibrate();
    EXPECT_TRUE(read.GetDerived());
    EXPECT_EQ(read.GetFactors(), cal.GetFactors());
    EXPECT_EQ(read.GetOffsets(), cal.GetOffsets());
}

TEST(Calibrate, EachErrorInItsPlace)
{
    TempDir dir;
    WriteTextFile(dir.path("bad.cal"), "A\tnot-a-number\t0\n");
    const std::string times = "Invalid calibration start/stop times", file = "Failed to open calibration file";
    const struct {
        int mode;
        std::function<void(ecCalibration&)> change;  // of the windows 0-0.5 s and 1-1.5 s
        std::string message;
        bool derived = false;  // only a file that cannot be written leaves the derived factors
    } rows[] = {
        {kCalPeak, [](ecCalibration& c) { c.SetSigStop(0.9f); }, times},
        {kCalMean, [](ecCalibration& c) { c.SetSigStop(5.0f); }, times},
        {kCalMean, [](ecCalibration& c) { c.SetCalEvtCodes({"99"}); }, times},
        {kCalPeak, [](ecCalibration& c) { c.SetSigStart(2.0f), c.SetSigStop(2.5f); },  // baseline again
         "Peak calibration signal does not exceed baseline"},
        {7, [](ecCalibration&) {}, "Unrecognized calibration mode"},
        {kCalFromFile, [&](ecCalibration& c) { c.SetCalFile(dir.path("missing.cal")); }, file},
        {kCalMean, [&](ecCalibration& c) { c.SetCalFile(dir.path("no/such/dir/x.cal")); }, file, true},
        {kCalFromFile, [&](ecCalibration& c) { c.SetCalFile(dir.path("bad.cal")); }, "Error reading calibration file"},
    };
    for (const auto& row : rows) {
        MemoryReader r = PulseReader();
        Window(r.GetCalibration(), row.mode, 1.0f, 0.0f, 0.5f, 1.0f, 1.5f);
        row.change(r.GetCalibration());
        EXPECT_EQ(Message([&] { r.Calibrate(); }), "[ecFilebase::Calibrate] " + row.message);
        EXPECT_EQ(r.GetCalibration().GetDerived(), row.derived) << row.message;
    }

    // A span too large to hold in memory (a very long recording measured over hours).
    MemoryReader huge(std::vector<std::vector<float>>(64, std::vector<float>(10)), 1e6f);
    huge.SetNumSlices(2000000000);
    Window(huge.GetCalibration(), kCalMean, 1.0f, 0.0f, 1000.0f, 1000.0f, 1999.0f);
    EXPECT_EQ(Message([&] { huge.Calibrate(); }), "[ecFilebase::Calibrate] Failed to create calibration data pointer");
}
