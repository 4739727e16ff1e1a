// The Nihon Kohden and Micromed readers on byte-built recordings (the variants the real files do
// not show) and on what the real files' READMEs state beyond the shared integration test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "filelib/readers/Micromed.h"
#include "filelib/readers/NihonKohden.h"
#include "fixtures/Errors.h"
#include "fixtures/NkMicromedFiles.h"
#include "fixtures/SharedData.h"

namespace {
// Opens `eeg` (lower-case names: the companions follow the opened file's case) with a .21e and a .log.
struct NkFiles {
    TempDir dir;
    std::string eeg = dir.path("r.eeg");
    NkFiles(const Bytes& data, const std::string& names = "[ELECTRODE]\n0000=Fp1\n0026=X1\n0042=DC01\n0077=$M\n")
    {
        data.write(eeg);
        WriteTextFile(dir.path("r.21e"), names);
        NkLog({{"first", "000000"}, {"second", "000102"}}).write(dir.path("r.log"));
    }
};
}  // namespace

TEST(NihonKohden, TwoDataBlocksCalibratedPerInputWithLogEventsAndABoundary)
{
    const Counts first = {{0, 65535, 32768, 100, 9}}, second = {{32768, 0, 65535, 1, 9}};
    NkFiles f(NkEeg({0, 26, 42, 77}, 100, 1, {first, second}));
    NihonKoden r(f.eeg.c_str());
    r.Initialize(0);
    ASSERT_EQ(r.GetNumSlices(), 20);
    const char* names[] = {"Fp1", "X1", "DC01", "$M"};
    const int types[] = {kChanEEG, 0, 0, 0};
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 0, 20), 20);
    // slices 0 and 10 (the second block's first): low + count x (high - low) / 65535
    const double expected[4][2] = {{-3200e-6, -1.71878e-10}, {3199.902e-6, -3200e-6}, {1.314992e-5, 12.00256},
                                   {-11.96627, -12.0025337}};
    for (int c = 0; c < 4; ++c) {
        std::string name;
        r.GetChanName(c, name);
        EXPECT_EQ(name, names[c]);
        EXPECT_EQ(r.GetChanType(c), types[c]);
        for (int t = 0; t < 2; ++t)
            EXPECT_NEAR(m[c][t * 10], expected[c][t], 1e-6 * std::abs(expected[c][t]) + 1e-15) << c << "," << t;
    }
    EXPECT_EQ(r.GetStartTime(), "");
    ecEventList events;
    ASSERT_EQ(r.InitialEventList(&events, nullptr), 3);
    const long begins[] = {10, 0, 6200};
    for (int e = 0; e < 3; ++e)
        EXPECT_EQ(events.GetEvent(e).GetBegin(), begins[e]);
    EXPECT_EQ(events.GetEvent(2).GetEventName(), "second");
}

TEST(NihonKohden, DamagedRecordingsAreRefusedNamingWhatIsWrong)
{
    const Bytes good = NkEeg({0, 77}, 100, 1, {{}});
    const struct {
        Bytes eeg;
        std::string names;
        std::string message;
    } cases[] = {
        {good, "[ELECTRODE]\n0000=Fp1\n", "[NihonKoden::Initialize] Electrode code 77 is not in "},
        {good.dropLast(1), "", "[NihonKoden::Initialize] The file holds 630 bytes; its data block at offset 512 needs 631."},
        {NkEeg({0}, 0, 1, {{}}), "", "[NihonKoden::Initialize] The data block at offset 512 declares 1 channels at 0 Hz."},
    };
    for (const auto& c : cases) {
        NkFiles f(c.eeg, c.names);
        NihonKoden r(f.eeg.c_str());
        EXPECT_EQ(Message([&] { r.Initialize(0); }).rfind(c.message, 0), 0u) << Message([&] { r.Initialize(0); });
        EXPECT_EQ(r.GetFileMFR(), kMfrNihonKohden);
    }
    NkFiles f(good);
    std::remove(f.dir.path("r.21e").c_str());
    NihonKoden r(f.eeg.c_str());
    EXPECT_EQ(Message([&] { r.Initialize(0); }), "[NihonKoden::Initialize] Cannot read the electrode name table " +
                                                      f.dir.path("r.21e") + ".");
}

TEST(NihonKohden, RealRecordingStartsAt20190403)
{
    SHARED_DATA_OR_SKIP(data, "nihonkohden");
    NihonKoden r((data + "MB0400FU.EEG").c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetStartTime(), "2019-04-03 16:00:16");
}

TEST(MicroMed, SampleWidthsUnitsOrderAndEventAreas)
{
    // µV: 6400 / 65536 per count around 32768; %: 100 / 65536 per count from 0; nV with 1-byte samples.
    const std::vector<MmElectrode> e = {{"Fz", 0, 0, 65535, 32768, -3200, 3200, 2}, {"SpO2", 100, 0, 65535, 0, 0, 100, 2}};
    const struct {
        int bytes;
        std::vector<MmElectrode> electrodes;
        std::vector<std::vector<uint32_t>> counts;
        double first[2];
    } cases[] = {
        {2, e, {{0, 65535}, {32769, 1}}, {-3200e-6, 100.0 * 65535 / 65536}},
        {1, {{"A", -1, 0, 255, 128, -256, 256, 4}, {"B", 1, 0, 255, 0, 0, 256, 4}}, {{0, 255}, {129, 1}}, {-256e-9, 255e-3}},
        {4, {{"W", 2, -1000, 999, 0, -1, 1, 1}, {"V", 2, -1000, 999, 0, -1, 1, 1}}, {{0xFFFFFC18u, 999}, {1, 2}}, {-1, 0.999}},
    };
    for (const auto& c : cases) {
        TempDir dir;
        MmTrc(4, c.bytes, c.electrodes, c.counts, {{1, 7}, {0, 0}, {9, 1}}, {{0, "lights off"}}).write(dir.path("t.TRC"));
        MicroMed r(dir.path("t.TRC").c_str());
        r.Initialize(0);
        ASSERT_EQ(r.GetNumSlices(), 2);
        EXPECT_EQ(r.GetSampleRate(), 128.0f * c.electrodes[0].coefficient);
        ecLabeledMatrix<float> m;
        ASSERT_EQ(r.ReadData(m, 0, 2), 2);
        for (int ch = 0; ch < 2; ++ch)
            EXPECT_NEAR(m[ch][0], c.first[ch], 1e-6 * std::abs(c.first[ch]));
        ecEventList events;
        ASSERT_EQ(r.InitialEventList(&events, nullptr), 2);  // the empty and the late trigger are no events
        EXPECT_EQ(events.GetEvent(0).GetEventName() + "@" + std::to_string(events.GetEvent(0).GetBegin()) + " " +
                      events.GetEvent(1).GetEventName(), "7@1 lights off");
    }
    std::string unit;
    TempDir dir;
    MmTrc(2, 2, e, {{0, 0}}, {}, {}).write(dir.path("u.trc"));
    MicroMed r(dir.path("u.trc").c_str());
    r.Initialize(0);
    r.GetChanUnit(1, unit);
    EXPECT_EQ(unit + std::to_string(r.GetChanType(1)) + std::to_string(r.GetHeaderType()), "%02");
}

TEST(MicroMed, InconsistentHeadersAreRefused)
{
    const MmElectrode fz = {"Fz", 0, 0, 65535, 32768, -3200, 3200, 2};
    MmElectrode slow = fz, odd = fz, flat = fz;
    slow.coefficient = 1;
    odd.unit = 7;
    flat.lmax = -1;
    const struct {
        MmElectrode second;
        const char* message;
    } cases[] = {
        {slow, "[MicroMed::Initialize] Electrode Fz is sampled at 128.000000 Hz; the recording needs one rate for all."},
        {odd, "[MicroMed::Initialize] Electrode Fz has the unknown unit code 7."},
        {flat, "[MicroMed::Initialize] Electrode Fz has the logical range 0 .. -1."},
    };
    for (const auto& c : cases) {
        TempDir dir;
        MmTrc(4, 2, {fz, c.second}, {}, {}, {}).write(dir.path("t.TRC"));
        MicroMed r(dir.path("t.TRC").c_str());
        EXPECT_EQ(Message([&] { r.Initialize(0); }), c.message);
        EXPECT_EQ(r.GetFileMFR(), kMfrMicromed);
    }
}

TEST(MicroMed, RealRecordingDate)
{
    SHARED_DATA_OR_SKIP(data, "micromed");
    MicroMed r((data + "File_micromed_1.TRC").c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetStartTime() + " " + std::to_string(r.GetHeaderType()), "2007-11-15 15:04:07 4");
}
