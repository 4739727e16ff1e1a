#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <cmath>
#include <functional>
#include <sstream>

#include "filelib/filelib.h"
#include "filelib/readers/EDF_BDF.h"
#include "fixtures/EdfFiles.h"

using namespace std::string_literals;

namespace {
EdfSignal Sig(const std::string& label, int samples, std::vector<int> values, const std::string& unit = "uV")
{
    EdfSignal s;
    s.label = label;
    s.samples = samples;
    s.values = std::move(values);
    s.unit = unit;
    return s;
}

EdfSignal Annotations(int samples, std::vector<std::string> perRecord)
{
    EdfSignal s;
    s.label = "EDF Annotations";
    s.unit = "";
    s.physMin = "-1";
    s.physMax = "1";
    s.samples = samples;
    s.annotations = std::move(perRecord);
    return s;
}

std::string Write(const TempDir& dir, const std::string& name, const EdfSpec& spec)
{
    EdfFile(spec).write(dir.path(name));
    return dir.path(name);
}

std::vector<std::string> Names(const ecEventList& list)
{
    std::vector<std::string> out;
    for (int i = 0; i < list.GetEventCnt(true); ++i)
        out.push_back(list.GetEvent(i).GetEventName() + "@" + std::to_string(list.GetEvent(i).GetBegin()) + "-" +
                      std::to_string(list.GetEvent(i).GetEnd()));
    return out;
}
}  // namespace

TEST(EDF, DetectionRowsAndTheHiddenAnnotationSignal)
{
    TempDir dir;
    EdfSpec bdf;
    bdf.bdf = true;
    bdf.signals = {Sig("Fz", 2, {-8388608, 8388607})};
    bdf.signals[0].digMin = "-8388608";
    bdf.signals[0].digMax = "8388607";
    CFilelib b;
    std::string bName = Write(dir, "a.bdf", bdf);
    ASSERT_EQ(b.GuessFileMFR(bName), 22);
    b.Initialize(0);
    EXPECT_EQ(dynamic_cast<CEDF_BDF*>(b.GetActiveFile())->GetBytesPerSample(), 3);

    EdfSpec edf;
    edf.reserved = "EDF+C";
    edf.signals = {Sig("Fz", 2, {1, 2}), Annotations(8, {"+0\x14\x14"})};
    CFilelib e;
    std::string eName = Write(dir, "a.edf", edf);
    ASSERT_EQ(e.GuessFileMFR(eName), 21);
    e.Initialize(0);
    EXPECT_EQ(dynamic_cast<CEDF_BDF*>(e.GetActiveFile())->GetBytesPerSample(), 2);
    EXPECT_EQ(e.GetNumChans(), 1);
    EXPECT_EQ(e.GetActiveFile()->GetNumChans(), 2);
    EXPECT_EQ(e.GetNumChans(0xFFFF), 2);  // the type count runs over every signal

    // A damaged EDF is claimed at row 4 (row 3 expects a BDF) and reports its own error.
    EdfSpec broken = edf;
    broken.signals[0].digMax = "1";
    broken.signals[0].digMin = "1";
    std::string brokenName = Write(dir, "broken.edf", broken);
    CFilelib d;
    EXPECT_EQ(Message([&] { d.GuessFileMFR(brokenName); }),
              "[CEDF_BDF::Initialize] Digital minimum equals digital maximum of signal 1 ('Fz').");
}

TEST(EDF, ExactValuesUnitsScalesAndTypes)
{
    TempDir dir;
    EdfSpec spec;
    spec.records = "2";
    spec.duration = "0.5";
    EdfSignal mv = Sig("C3", 2, {-32768, 32767, 0, 100}, "mV");
    mv.physMin = "-100";
    mv.physMax = "100";
    EdfSignal pa = Sig("Current", 2, {10, 20, 30, 40}, "pA");
    pa.physMin = "0";
    pa.physMax = "1000";
    pa.digMin = "0";
    pa.digMax = "1000";
    spec.signals = {mv, pa, Sig("Status", 2, {0, 1, 2, 3}, "Boolean"), Sig("DIG DTRIG", 2, {0, 0, 0, 0})};
    CEDF_BDF r(Write(dir, "v.edf", spec).c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetFileMFR(), 21);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 4.0f);
    EXPECT_EQ(r.GetNumSlices(), 4);
    EXPECT_EQ(r.GetRunType(), 4u);
    EXPECT_EQ(r.GetAnnotationSignal(), -1);
    std::string unit;
    r.GetChanUnit(0, unit);
    EXPECT_EQ(unit, "V");
    r.GetChanUnit(1, unit);
    EXPECT_EQ(unit, "pA");
    EXPECT_EQ(r.GetChanType(0), 0x400);
    EXPECT_EQ(r.GetChanType(2), 0x8000);
    EXPECT_EQ(r.GetChanType(3), 0x8000);
    const double gain = 200.0 / 65535 * 1e-3;
    EXPECT_FLOAT_EQ(r.GetChanScale(0), static_cast<float>(gain));
    EXPECT_FLOAT_EQ(r.GetChanOffset(0), static_cast<float>((-100 + 32768 * 200.0 / 65535) * 1e-3));
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 1, 3), 3);
    EXPECT_EQ(m[0][0], static_cast<float>(-0.1 + (32767 + 32768) * gain));
    EXPECT_EQ(m[0][2], static_cast<float>(-0.1 + (100 + 32768) * gain));
    EXPECT_EQ(m[1][1], 30.0f);  // not a voltage: the stated unit
    EXPECT_EQ(m.GetRowLabeledState(1).GetDataUnit(), "pA");

    EdfSpec b;
    b.bdf = true;
    EdfSignal s = Sig("Fp1", 3, {-8388608, 8388607, -1});
    s.physMin = "-262144";
    s.physMax = "262143";
    s.digMin = "-8388608";
    s.digMax = "8388607";
    b.signals = {s};
    CEDF_BDF rb(Write(dir, "v.bdf", b).c_str());
    rb.Initialize(0);
    EXPECT_EQ(rb.GetFileMFR(), 22);
    ASSERT_EQ(rb.ReadData(m, 0, 3), 3);
    const double g = (262143.0 + 262144.0) / 16777215.0;
    EXPECT_FLOAT_EQ(m[0][0], static_cast<float>(-262144 * 1e-6));
    EXPECT_FLOAT_EQ(m[0][1], static_cast<float>(262143 * 1e-6));
    EXPECT_FLOAT_EQ(m[0][2], static_cast<float>((-262144 + (-1 + 8388608) * g) * 1e-6));
}

TEST(EDF, MixedRatesHoldEachStoredSample)
{
    TempDir dir;
    EdfSpec spec;
    spec.records = "2";
    EdfSignal fast = Sig("fast", 5, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, "V");
    EdfSignal slow = Sig("slow", 2, {100, 200, 300, 400}, "V");
    for (EdfSignal* s : {&fast, &slow}) {
        s->physMin = "-32768";
        s->physMax = "32767";
    }
    spec.signals = {slow, fast};
    CEDF_BDF r(Write(dir, "m.edf", spec).c_str());
    r.Initialize(0);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 5.0f);
    EXPECT_EQ(r.GetNumSlices(), 10);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 0, 10), 10);
    // slice p of a record shows stored sample floor(p * 2 / 5): 0 0 0 1 1
    const float slow0[] = {100, 100, 100, 200, 200, 300, 300, 300, 400, 400};
    for (int t = 0; t < 10; ++t) {
        EXPECT_EQ(m[0][t], slow0[t]) << t;
        EXPECT_EQ(m[1][t], static_cast<float>(t));
    }
    ASSERT_EQ(r.ReadData(m, 4, 2), 2);
    EXPECT_EQ(m[0][0], 200.0f);
    EXPECT_EQ(m[0][1], 300.0f);
}

TEST(EDF, AnnotationsTextsOnsetsDurationsAndSignalOrder)
{
    TempDir dir;
    EdfSpec spec;
    spec.reserved = "EDF+C";
    spec.records = "2";
    spec.duration = "1";
    // The annotation signal comes first in the file; a second one holds more events.
    spec.signals = {Annotations(30, {"+0\x14\x14\0+0.5\x15" "0.25\x14" "A\x14" "B\x14"s,
                                     "+1\x14\x14\0-0.5\x14" "early\x14"s}),
                    Sig("Fz", 10, {}),
                    Annotations(10, {"+1.2\x14" "A\x14"s, "+1.999\x15" "1\x14" "late\x14"s})};
    spec.signals[2].label = "EDF Annotations";
    CFilelib f;
    std::string name = Write(dir, "a.edf", spec);
    ASSERT_EQ(f.GuessFileMFR(name), 21);
    f.Initialize(0);
    auto* reader = dynamic_cast<CEDF_BDF*>(f.GetActiveFile());
    EXPECT_EQ(reader->GetNumChans(), 2);  // Fz, then the first annotation signal
    EXPECT_EQ(reader->GetAnnotationSignal(), 1);
    std::string label;
    reader->GetChanName(1, label);
    EXPECT_EQ(label, "EDF Annotations");
    EXPECT_EQ(reader->GetChanType(1), 0x800);
    ecLabeledMatrix<float> m;
    EXPECT_EQ(f.ReadData(m, 0, 20), 20);
    EXPECT_EQ(m[1][3], 0.0f);  // the annotation row reads as zeros

    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 5);
    EXPECT_EQ(Names(events),
              (std::vector<std::string>{"early@-5--5", "A@5-8", "B@5-8", "A@12-12", "late@20-30"}));
    EXPECT_EQ(events.GetEvent(3).GetEventCode(), events.GetEvent(1).GetEventCode());  // same text, same code
    EXPECT_EQ(events.GetEvent(2).GetEventCode(), 2);
}

TEST(EDF, DiscontinuousRecordsKeepTheirGaps)
{
    TempDir dir;
    EdfSpec spec;
    spec.reserved = "EDF+D";
    spec.records = "3";
    spec.signals = {Sig("Fz", 4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, "V"), Annotations(8, {"+0\x14\x14", "+1\x14\x14", "+3.5\x14\x14"})};
    spec.signals[0].physMin = "-32768";
    spec.signals[0].physMax = "32767";
    CEDF_BDF r(Write(dir, "d.edf", spec).c_str());
    r.Initialize(0);
    EXPECT_TRUE(r.IsDiscontinuous());
    EXPECT_EQ(r.GetNumSlices(), 18);  // the third record starts at 3.5 s = slice 14
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 6, 12), 12);
    const float expected[] = {7, 8, 0, 0, 0, 0, 0, 0, 9, 10, 11, 12};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(m[0][i], expected[i]) << i;
    ecEventList events;
    ASSERT_EQ(r.InitialEventList(&events, nullptr), 1);
    EXPECT_TRUE(events.GetEvent(0).IsSegmentBoundary());
    EXPECT_EQ(events.GetEvent(0).GetBegin(), 14);

    spec.signals[1].annotations = {"+0\x14\x14", "+0.5\x14\x14", "+3\x14\x14"};
    CEDF_BDF overlap(Write(dir, "o.edf", spec).c_str());
    EXPECT_EQ(Message([&] { overlap.Initialize(0); }),
              "[CEDF_BDF::Initialize] Record 2 of the discontinuous file starts before the previous one ends.");
}

TEST(EDF, RecordCountRecoveredAndPartialLastRecord)
{
    TempDir dir;
    EdfSpec spec;
    spec.records = "3";
    spec.signals = {Sig("Fz", 2, {1, 2, 3, 4, 5, 6}, "V")};
    spec.signals[0].physMin = "-32768";
    spec.signals[0].physMax = "32767";
    Bytes file = EdfFile(spec);
    file.put_text(236, "-1      ").write(dir.path("open.edf"));  // still recording: the count comes from the file size
    CEDF_BDF r(dir.path("open.edf").c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetNumSlices(), 6);

    file.put_text(236, "3       ").dropLast(2).write(dir.path("cut.edf"));  // the last record loses its last sample
    CEDF_BDF partial(dir.path("cut.edf").c_str());
    partial.Initialize(0);
    EXPECT_EQ(partial.GetNumSlices(), 6);
    ecLabeledMatrix<float> m;
    EXPECT_EQ(partial.ReadData(m, 0, 6), 6);
    EXPECT_EQ(m[0][4], 5.0f);
    EXPECT_EQ(m[0][5], 0.0f);
}

TEST(EDF, MalformedHeadersGiveClearErrors)
{
    TempDir dir;
    EdfSpec good;
    good.signals = {Sig("Fz", 2, {1, 2})};
    auto fails = [&](const EdfSpec& spec) {
        CEDF_BDF r(Write(dir, "bad.edf", spec).c_str());
        const std::string message = Message([&] { r.Initialize(0); });
        EXPECT_EQ(r.GetFileMFR(), 21) << "claimed before failing";
        return message;
    };
    const std::string p = "[CEDF_BDF::Initialize] ";
    EdfSpec s = good;
    s.headerBytes = "12x";
    EXPECT_EQ(fails(s), p + "Invalid number of bytes in header record: '12x     '");
    s = good;
    s.headerBytes = "1024";
    EXPECT_EQ(fails(s), p + "The header declares 1024 header bytes; 1 signals need 512.");
    s = good;
    s.records = "many";
    EXPECT_EQ(fails(s), p + "Invalid number of data records: 'many    '");
    s = good;
    s.duration = "1,5";
    EXPECT_EQ(fails(s), p + "Invalid duration of a data record: '1,5     '");
    s = good;
    s.signalCount = "0";
    EXPECT_EQ(fails(s), p + "Invalid number of signals: '0   '");
    s = good;
    s.signalCount = "9999";
    EXPECT_EQ(fails(s), p + "The header declares 9999 signals but the file holds only 516 bytes.");
    for (auto [field, text] : {std::pair<std::string EdfSignal::*, std::string>{&EdfSignal::physMin, "physical minimum"},
                               {&EdfSignal::physMax, "physical maximum"},
                               {&EdfSignal::digMin, "digital minimum"},
                               {&EdfSignal::digMax, "digital maximum"}}) {
        s = good;
        s.signals[0].*field = "--";
        EXPECT_EQ(fails(s), p + "Invalid " + text + " of signal 1 ('Fz'): '--      '");
    }
    s = good;
    s.signals[0].samples = 0;
    EXPECT_EQ(fails(s), p + "Invalid number of samples in each data record of signal 1 ('Fz'): '0       '");
    s = good;
    s.duration = "0";
    EXPECT_EQ(fails(s), p + "A record duration of 0 leaves the data signals without a sample rate.");

    WriteTextFile(dir.path("text.edf"), "0       but nothing else");
    CEDF_BDF tooShort(dir.path("text.edf").c_str());
    EXPECT_EQ(Message([&] { tooShort.Initialize(0); }), p + "Not an EDF or BDF file: " + dir.path("text.edf"));
    EXPECT_EQ(tooShort.GetFileMFR(), 0);  // not claimed
}

// Real recordings written by other software.
TEST(EDFRealFiles, ValuesEventsAndChannels)
{
    const std::string d = std::string(FILELIB_SHARED_DATA);
    auto open = [](CFilelib& f, const std::string& path, int code) {
        std::string name = path;
        ASSERT_EQ(f.GuessFileMFR(name), code) << path;
        f.Initialize(0);
    };
    ecLabeledMatrix<float> m;
    {
        CFilelib f;
        open(f, d + "/edf/test.edf", 21);
        EXPECT_EQ(f.GetNumChans(0x8000), 1);  // Status kept as a trigger channel
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 5);
        EXPECT_EQ(Names(events), (std::vector<std::string>{"start@0-0", "type A@69-200", "type A@200-712",
                                                           "type B@1024-1024", "type A@1280-2560"}));
    }
    {
        CFilelib f;
        open(f, d + "/edf/edf+C.edf", 21);
        std::string unit;
        f.GetChanUnit(2, unit);
        EXPECT_EQ(unit, "pA");
        f.GetChanUnit(4, unit);
        EXPECT_EQ(unit, "C");
    }
    {
        CFilelib f;
        open(f, d + "/edf/test_edf_stim_channel.edf", 21);
        // The companion text holds the first 717 slices in uV (6 to 7 digits, another program's rounding):
        // within half a digital step.
        ASSERT_EQ(f.ReadData(m, 0, 717), 717);
        std::istringstream txt(ReadTextFile(d + "/edf/test_edf_stim_channel.txt"));
        for (int t = 0; t < 717; ++t)
            for (int c = 0; c < 25; ++c) {
                double microvolts = 0;
                ASSERT_TRUE(txt >> microvolts);
                EXPECT_NEAR(m[c][t], microvolts * 1e-6, f.GetChanScale(c) * 0.51 + std::fabs(microvolts) * 5e-12) << t << "," << c;
            }
        ecEventList triggers;
        EXPECT_EQ(f.GetActiveFile()->FindAllTriggers(&triggers, 0, 50e-6f, 0, false, nullptr), 12);
        const long expected[] = {121, 170, 193, 255, 307, 340, 388, 528, 558, 591, 644, 668};
        for (int i = 0; i < 12; ++i)
            EXPECT_EQ(triggers.GetEvent(i).GetBegin(), expected[i]);
    }
    {
        CFilelib f;
        open(f, d + "/edf/test_utf8_annotations.edf", 21);
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 2);
        EXPECT_EQ(Names(events), (std::vector<std::string>{"RECORD START@0-0", "\xE4\xBB\xB0\xE5\x8D\xA7@400-500"}));
    }
    {
        CFilelib f;
        open(f, d + "/edf/SC4001EC-Hypnogram.edf", 21);
        EXPECT_EQ(f.GetNumChans(), 0);
        EXPECT_EQ(f.GetNumSlices(), 0);
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 154);
        EXPECT_EQ(Names(events)[1], "Sleep stage 1@30630000-30750000");  // milliseconds
        EXPECT_EQ(Names(events)[153], "Sleep stage ?@79500000-86400000");
    }
    {
        CFilelib f;
        open(f, d + "/bdf/test.bdf", 22);
        EXPECT_EQ(f.GetNumChans(0x400), 72);
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 1);
        EXPECT_EQ(Names(events)[0], "128@589-589");
    }
    {
        CFilelib f;
        open(f, d + "/bdf/test_bdf_stim_channel.bdf", 22);
        EXPECT_EQ(f.GetNumChans(0x400), 3);
        ecEventList events;
        ASSERT_EQ(f.InitialEventList(&events, nullptr), 9);
        EXPECT_EQ(Names(events)[0], "4@242-242");
        EXPECT_EQ(Names(events)[1], "2@310-310");
        EXPECT_EQ(Names(events)[8], "1@4790-4790");
    }
}
