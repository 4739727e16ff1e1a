#include <gtest/gtest.h>

#include <functional>

#include "filelib/filelib.h"
#include "filelib/readers/EDF_BDF.h"
#include "fixtures/Describe.h"
#include "fixtures/EdfFiles.h"
#include "fixtures/Errors.h"
#include "fixtures/Exercise.h"

using namespace std::string_literals;

namespace {
// Physical range = digital range unless given: the delivered values are the stored ones.
EdfSignal Sig(const std::string& label, int samples, std::vector<int> values, const std::string& unit = "V")
{
    EdfSignal s;
    s.label = label;
    s.samples = samples;
    s.values = std::move(values);
    s.unit = unit;
    s.physMin = s.digMin;
    s.physMax = s.digMax;
    return s;
}

EdfSignal Annotations(int samples, std::vector<std::string> perRecord)
{
    EdfSignal s = Sig("EDF Annotations", samples, {}, "");
    s.annotations = std::move(perRecord);
    return s;
}

std::string Write(const TempDir& dir, const std::string& name, const EdfSpec& spec)
{
    EdfFile(spec).write(dir.path(name));
    return dir.path(name);
}
}  // namespace

// EDF lists its annotation signal last and the facade hides it; BDF does not list it. Either
// way the facade's channels are exactly the rows it delivers.
TEST(EDF, TheFacadeDeliversOneRowPerChannelItCounts)
{
    TempDir dir;
    for (bool bdf : {false, true}) {
        SCOPED_TRACE(bdf ? "BDF+" : "EDF+");
        EdfSpec spec;
        spec.bdf = bdf;
        spec.reserved = bdf ? "BDF+C" : "EDF+C";
        spec.signals = {Annotations(8, {"+0\x14\x14"}), Sig("Fz", 2, {1, 2})};
        spec.signals[0].label = bdf ? "BDF Annotations" : "EDF Annotations";
        CFilelib f;
        ASSERT_EQ(OpenRecording(f, Write(dir, bdf ? "a.bdf" : "a.edf", spec)), bdf ? 22 : 21);
        auto* reader = dynamic_cast<CEDF_BDF*>(f.GetActiveFile());
        EXPECT_EQ(reader->GetAnnotationSignal(), bdf ? -1 : 1);
        EXPECT_EQ(f.GetNumChans(0xFFFF), bdf ? 1 : 2);  // the type count runs over the reader's channels
        ecLabeledMatrix<float> m;
        std::vector<float> slice;
        ASSERT_EQ(f.ReadData(m, 0, 2), 2);
        ASSERT_TRUE(f.ReadOneRawSlice(slice, 1));
        EXPECT_EQ(std::vector<long>({f.GetNumChans(), m.nrow(), static_cast<long>(slice.size())}),
                  std::vector<long>({1, 1, 1}));
        EXPECT_EQ(m.GetRowLabeledState(0).Label() + " " + std::to_string(m[0][1]), "Fz 2.000000");
    }
}

// physical = (digital - dmin) x (pmax - pmin) / (dmax - dmin) + pmin in double, in volts for a
// voltage, rounded once to float: exact near zero even beside a large offset. Trigger channels,
// by name or transducer type, deliver codes without a unit (BioSemi's Status the low 16 bits of
// its word) and list one event per change to a non-zero code.
TEST(EDF, PhysicalValuesAndTriggerCodes)
{
    TempDir dir;
    const int lo16 = -32768, hi16 = 32767, lo24 = -8388608, hi24 = 8388607;
    const int w = 0x1C0000;  // BioSemi's Status sets bits above its trigger lines
    const struct {
        bool bdf;
        const char *label, *transducer, *unit, *pmin, *pmax;
        int dmin, dmax;
        std::vector<int> stored;
        double toUnit;  // 0: a trigger channel delivering `codes`
        std::vector<float> codes;
    } rows[] = {
        {false, "C3", "", "mV", "0", "6553.5", lo16, hi16, {lo16, lo16 + 1, lo16 + 2, 0, hi16}, 1e-3, {}},
        {false, "C3", "", "pA", "0", "6553.5", lo16, hi16, {lo16, lo16 + 1, lo16 + 2, 0, hi16}, 1, {}},
        {false, "C3", "", "uV", "-100", "100", lo16, hi16, {lo16, lo16 + 1, lo16 + 2, 0, hi16}, 1e-6, {}},
        {true, "C3", "", "uV", "0", "1677721", lo24, hi24, {lo24, lo24 + 1, lo24 + 2, 0, hi24}, 1e-6, {}},
        {true, "Status", "", "uV", "-187470", "187470", lo24, hi24, {w, w + 4, w + 4, w, w + 2}, 0, {0, 4, 4, 0, 2}},
        {false, "DIG DTRIG", "", "", "0", "100", lo16, hi16, {lo16, hi16, hi16, lo16, hi16}, 0, {0, 100, 100, 0, 100}},
        {false, "trigger", "", "uV", "0", "100", 0, 100, {0, 4, 4, 0, 2}, 0, {0, 4, 4, 0, 2}},
        {false, "STI 014", "", "uV", "0", "100", 0, 100, {0, 4, 4, 0, 2}, 0, {0, 4, 4, 0, 2}},
        {false, "Ext", "Triggers and Status", "uV", "0", "100", 0, 100, {0, 4, 4, 0, 2}, 0, {0, 4, 4, 0, 2}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.label) + " " + row.unit);
        EdfSpec spec;
        spec.bdf = row.bdf;
        EdfSignal& s = spec.signals.emplace_back(Sig(row.label, 5, row.stored, row.unit));
        s.transducer = row.transducer;
        s.physMin = row.pmin, s.physMax = row.pmax;
        s.digMin = std::to_string(row.dmin), s.digMax = std::to_string(row.dmax);
        CEDF_BDF r(Write(dir, row.bdf ? "v.bdf" : "v.edf", spec).c_str());
        r.Initialize(0);
        ecLabeledMatrix<float> m;
        ecEventList events;
        ASSERT_EQ(r.ReadData(m, 0, 5), 5);
        const double pmin = std::stod(row.pmin), range = std::stod(row.pmax) - pmin;
        for (int i = 0; row.toUnit > 0 && i < 5; ++i) {
            const double physical = (row.stored[i] - row.dmin) * range / (row.dmax - row.dmin) + pmin;
            EXPECT_FLOAT_EQ(m[0][i], static_cast<float>(physical * row.toUnit)) << i;
        }
        EXPECT_EQ(m.GetRowLabeledState(0).GetDataUnit(), row.toUnit == 0 ? "" : row.toUnit == 1 ? row.unit : "V");
        EXPECT_EQ(r.GetChanType(0), row.toUnit > 0 ? kChanEEG : kChanTrigger);
        if (row.toUnit > 0)
            continue;
        EXPECT_EQ(std::vector<float>(m[0], m[0] + 5), row.codes);
        ASSERT_EQ(r.InitialEventList(&events, nullptr), 2);
        const std::string code = std::to_string(static_cast<int>(row.codes[4]));
        EXPECT_EQ(EventsText(events, 1), code + "@4#" + code + "/2");
    }
}

TEST(EDF, MixedRatesHoldEachStoredSample)
{
    TempDir dir;
    EdfSpec spec;
    spec.records = "2";
    spec.signals = {Sig("slow", 2, {100, 200, 300, 400}), Sig("fast", 5, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9})};
    CEDF_BDF r(Write(dir, "m.edf", spec).c_str());
    r.Initialize(0);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 5.0f);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 0, 10), 10);
    // slice p of a record shows stored sample floor(p * 2 / 5): 0 0 0 1 1
    EXPECT_EQ(std::vector<float>(m[0], m[0] + 10),
              (std::vector<float>{100, 100, 100, 200, 200, 300, 300, 300, 400, 400}));
    EXPECT_EQ(std::vector<float>(m[1], m[1] + 10), (std::vector<float>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    ASSERT_EQ(r.ReadData(m, 4, 2), 2);
    EXPECT_EQ(std::vector<float>(m[0], m[0] + 2), (std::vector<float>{200, 300}));
}

// The data begin 0.25 s after the header's start time (record 0's time-keeping onset); the
// exporter of record 1 left out the NUL bytes between its entries.
TEST(EDF, AnnotationsCountFromTheFirstRecordAndSurviveMissingSeparators)
{
    TempDir dir;
    EdfSpec spec;
    spec.reserved = "EDF+C";
    spec.records = "2";
    spec.signals = {Annotations(40, {"+0.25\x14\x14\0+0.75\x15"
                                     "0.3\x14"
                                     "A\x14"
                                     "B\x14"s,
                                     "+1.25\x14\x14\0-0.25\x14"
                                     "early\x14+1.75\x14"
                                     "late\x14+2.05\x15"
                                     "1\x14"
                                     "A\x14"s}),
                    Sig("Fz", 10, {}),
                    Annotations(10, {"+1.45\x14"
                                     "A\x14"s,
                                     "+2.149\x15"
                                     "1\x14"
                                     "x\x14"s})};
    CEDF_BDF r(Write(dir, "a.edf", spec).c_str());
    r.Initialize(0);
    // The same text has the same code.
    EXPECT_EQ(EventsOf(r), "early@-5#3/2 A@5..8#1/2 B@5..8#2/2 A@12#1/2 late@15#4/2 A@18..28#1/2 x@19..29#5/2");
}

TEST(EDF, DiscontinuousRecordsKeepTheirGaps)
{
    TempDir dir;
    EdfSpec spec;
    spec.reserved = "EDF+D";
    spec.records = "3";
    // Records at 0.5, 1.5 and 4 s after the start time: 1 s and 3.5 s after the first.
    spec.signals = {Sig("Fz", 4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}),
                    Annotations(8, {"+0.5\x14\x14", "+1.5\x14\x14", "+4\x14\x14"})};
    CEDF_BDF r(Write(dir, "d.edf", spec).c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetNumSlices(), 18);  // the third record starts at slice 14
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 6, 12), 12);
    EXPECT_EQ(std::vector<float>(m[0], m[0] + 12), (std::vector<float>{7, 8, 0, 0, 0, 0, 0, 0, 9, 10, 11, 12}));
    ecEventList events;
    ASSERT_EQ(r.InitialEventList(&events, nullptr), 1);
    EXPECT_TRUE(events.GetEvent(0).IsSegmentBoundary());
    EXPECT_EQ(events.GetEvent(0).GetBegin(), 14);

    spec.signals[1].annotations = {"+0\x14\x14", "+0.5\x14\x14", "+3\x14\x14"};
    CEDF_BDF overlap(Write(dir, "o.edf", spec).c_str());
    EXPECT_EQ(Message([&] { overlap.Initialize(0); }),
              "[CEDF_BDF::Initialize] Record 2 of the discontinuous file starts before the previous one ends.");
}

// A file still being written (-1 records) or cut short delivers its complete records only.
TEST(EDF, CutFilesDeliverTheirCompleteRecordsOnly)
{
    TempDir dir;
    EdfSpec spec;
    spec.records = "3";
    spec.signals = {Sig("Fz", 2, {1, 2, 3, 4, 5, 6})};
    const struct {
        const char* records;
        size_t cut;
        int slices;
    } rows[] = {{"-1      ", 0, 6}, {"5       ", 0, 6}, {"3       ", 2, 4}, {"3       ", 11, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.records) + " cut " + std::to_string(row.cut));
        EdfFile(spec).put_text(236, row.records).dropLast(row.cut).write(dir.path("cut.edf"));
        CEDF_BDF r(dir.path("cut.edf").c_str());
        r.Initialize(0);
        EXPECT_EQ(r.GetNumSlices(), row.slices);
        ecLabeledMatrix<float> m;
        EXPECT_EQ(r.ReadData(m, 0, 6), row.slices);
        const std::vector<float> all = {1, 2, 3, 4, 5, 6};
        EXPECT_EQ(std::vector<float>(m[0], m[0] + m.ncol()), std::vector<float>(all.begin(), all.begin() + row.slices));
    }
}

TEST(EDF, MalformedHeadersGiveClearErrors)
{
    TempDir dir;
    const std::string p = "[CEDF_BDF::Initialize] ";
    const std::pair<std::function<void(EdfSpec&)>, std::string> rows[] = {
        {[](EdfSpec& s) { s.headerBytes = "12x"; }, "Invalid number of bytes in header record: '12x     '"},
        {[](EdfSpec& s) { s.headerBytes = "1024"; }, "The header declares 1024 header bytes; 1 signals need 512."},
        {[](EdfSpec& s) { s.records = "many"; }, "Invalid number of data records: 'many    '"},
        {[](EdfSpec& s) { s.duration = "1,5"; }, "Invalid duration of a data record: '1,5     '"},
        {[](EdfSpec& s) { s.duration = "0"; }, "A record duration of 0 leaves the data signals without a sample rate."},
        {[](EdfSpec& s) { s.signalCount = "0"; }, "Invalid number of signals: '0   '"},
        {[](EdfSpec& s) { s.signalCount = "9999"; },
         "The header declares 9999 signals but the file holds only 516 bytes."},
        {[](EdfSpec& s) { s.signals[0].physMin = "--"; }, "Invalid physical minimum of signal 1 ('Fz'): '--      '"},
        {[](EdfSpec& s) { s.signals[0].physMax = "--"; }, "Invalid physical maximum of signal 1 ('Fz'): '--      '"},
        {[](EdfSpec& s) { s.signals[0].digMin = "--"; }, "Invalid digital minimum of signal 1 ('Fz'): '--      '"},
        {[](EdfSpec& s) { s.signals[0].digMax = "--"; }, "Invalid digital maximum of signal 1 ('Fz'): '--      '"},
        {[](EdfSpec& s) { s.signals[0].digMax = "-32768"; },
         "Digital minimum equals digital maximum of signal 1 ('Fz')."},
        {[](EdfSpec& s) { s.signals[0].physMax = "-32768"; },
         "Physical minimum equals physical maximum of signal 1 ('Fz')."},
        {[](EdfSpec& s) { s.signals[0].samples = 0; },
         "Invalid number of samples in each data record of signal 1 ('Fz'): '0       '"},
    };
    for (const auto& [change, text] : rows) {
        EdfSpec spec;
        spec.signals = {Sig("Fz", 2, {1, 2})};
        change(spec);
        CFilelib f;
        std::string name = Write(dir, "bad.edf", spec);
        EXPECT_EQ(Message([&] { f.GuessFileMFR(name); }), p + text);  // claimed, then refused
    }
    WriteTextFile(dir.path("text.edf"), "0       but nothing else");
    CEDF_BDF tooShort(dir.path("text.edf").c_str());
    EXPECT_EQ(Message([&] { tooShort.Initialize(0); }), p + "Not an EDF or BDF file: " + dir.path("text.edf"));
    EXPECT_EQ(tooShort.GetFileMFR(), 0);  // not claimed
}
