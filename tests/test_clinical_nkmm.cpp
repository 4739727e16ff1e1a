// The Nihon Kohden and Micromed readers on byte-built recordings (the variants the real files do
// not show) and on what the real files' READMEs state beyond the shared integration test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <tuple>

#include "filelib/filelib.h"
#include "filelib/readers/Micromed.h"
#include "filelib/readers/NihonKohden.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/NkMicromedFiles.h"
#include "fixtures/SharedData.h"

namespace {
// Writes `eeg` (lower-case names: the companions follow the opened file's case) with a .21e and a .log.
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

// What detecting `path` raises.
std::string Refusal(std::string path)
{
    return Message([&] { CFilelib().GuessFileMFR(path); });
}
}  // namespace

TEST(NihonKohden, TwoDataBlocksCalibratedPerInputWithLogEventsAndABoundary)
{
    const Counts first = {{0, 65535, 32768, 100, 9}}, second = {{32768, 0, 65535, 1, 9}};
    NkFiles f(NkEeg({0, 26, 42, 77}, 100, 1, {first, second}));
    NihonKoden r(f.eeg.c_str());
    r.Initialize(0);
    ASSERT_EQ(r.GetNumSlices(), 20);
    EXPECT_EQ(ChannelsOf(r), "Fp1/V/1024 X1/V/0 DC01/V/0 $M/V/0");
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 0, 20), 20);
    // slices 0 and 10 (the second block's first): low + count x (high - low) / 65535
    const double expected[4][2] = {{-3200e-6, -1.71878e-10}, {3199.902e-6, -3200e-6}, {1.314992e-5, 12.00256},
                                   {-11.96627, -12.0025337}};
    for (int c = 0; c < 4; ++c)
        for (int t = 0; t < 2; ++t)
            EXPECT_NEAR(m[c][t * 10], expected[c][t], 1e-6 * std::abs(expected[c][t]) + 1e-15) << c << "," << t;
    EXPECT_EQ(r.GetStartTime(), "");
    EXPECT_EQ(EventsOf(r), "New Segment@10 first@0/2 second@6200/2");
}

// EEG-1200A: channels and samples from the extended blocks (16-bit codes), rate from the old ones,
// each block's length from where the next begins; the old blocks' one-channel lists are ignored.
TEST(NihonKohden, ExtendedBlocksGiveChannelsCodesAndLengths)
{
    const Counts first = {{0, 65535, 7, 1}, {1, 2, 3, 4}}, second = {{65535, 0, 32768, 9}, {5, 6, 7, 8}, {9, 10, 11, 12}};
    NkFiles f(NkExtendedEeg({0, 300, 42}, 2000, {first, second}), "[ELECTRODE]\n0000=Fp1\n0042=DC01\n0300=G1\n");
    NihonKoden r(f.eeg.c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetNumSlices(), 5);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 2000);
    EXPECT_EQ(ChannelsOf(r), "Fp1/V/1024 G1/V/0 DC01/V/0");
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 0, 5), 5);
    const std::tuple<int, int, double> values[] = {{1, 0, 3199.902e-6}, {0, 2, 3199.902e-6}, {2, 2, 1.314992e-5}, {1, 4, -3.19902e-3}};
    for (const auto& [c, t, volts] : values)
        EXPECT_NEAR(m[c][t], volts, 1e-5 * std::abs(volts)) << c << "," << t;
    EXPECT_EQ(EventsOf(r), "New Segment@2 first@0/2 second@124000/2");
    Bytes oneMore = NkExtendedEeg({0}, 200, {{{1}}, {{2}}});
    NkFiles g(oneMore.put_u8(0x111, 1));
    EXPECT_EQ(Refusal(g.eeg), "[NihonKoden::Initialize] The extended block table lists 2 data blocks for the 1 of the control blocks.");
}

// Each System 98 header type (2 and 3: 1-byte ORDER codes, 16-bit logical ranges, no trigger
// area). µV: 6400 / 65536 per count around 32768; %: 100 / 65536 per count from 0; nV with 1-byte samples.
TEST(MicroMed, SampleWidthsUnitsOrderAndEventAreas)
{
    const struct {
        int headerType, bytes;
        std::vector<MmElectrode> electrodes;
        std::vector<std::vector<uint32_t>> counts;
        double first[2];
        const char *channels, *events;
    } cases[] = {
        {2, 2, {{"Fz", 0, 0, 65535, 32768, -3200, 3200, 2}, {"SpO2", 100, 0, 65535, 0, 0, 100, 2}}, {{0, 65535}, {32769, 1}},
         {-3200e-6, 100.0 * 65535 / 65536}, "Fz/V/1024 SpO2/%/0", "lights off@0/2"},
        {3, 1, {{"A", -1, 0, 255, 128, -256, 256, 4}, {"B", 1, 0, 255, 0, 0, 256, 4}}, {{0, 255}, {129, 1}}, {-256e-9, 255e-3},
         "A/V/1024 B/V/1024", "lights off@0/2"},
        {4, 4, {{"W", 2, -1000, 999, 0, -1, 1, 1}, {"V", 2, -1000, 999, 0, -1, 1, 1}}, {{0xFFFFFC18u, 999}, {1, 2}}, {-1, 0.999},
         "W/V/1024 V/V/1024", "7@1#7/2 lights off@0/2"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const Bytes trc = MmTrc(c.headerType, c.bytes, c.electrodes, c.counts, {{1, 7}, {0, 0}, {9, 1}}, {{0, "lights off"}});
        trc.write(dir.path("t.TRC"));
        MicroMed r(dir.path("t.TRC").c_str());
        r.Initialize(0);
        ASSERT_EQ(r.GetNumSlices(), 2);
        EXPECT_EQ(r.GetSampleRate(), 128.0f * c.electrodes[0].coefficient);
        EXPECT_EQ(ChannelsOf(r), c.channels);
        ecLabeledMatrix<float> m;
        ASSERT_EQ(r.ReadData(m, 0, 2), 2);
        for (int ch = 0; ch < 2; ++ch)
            EXPECT_NEAR(m[ch][0], c.first[ch], 1e-6 * std::abs(c.first[ch]));
        EXPECT_EQ(EventsOf(r), c.events);  // the empty and the late trigger are no events
    }
}

// What a user must be told by name: mixed rates, electrode fields that would misscale every
// sample, a missing or incomplete electrode table (damaged blocks are the malformed-input sweep's).
TEST(NihonKohdenMicromed, RefusalsNameTheirCause)
{
    TempDir dir;
    const MmElectrode fz = {"Fz", 0, 0, 65535, 32768, -3200, 3200, 2};
    MmElectrode slow = fz, odd = fz, flat = fz;
    slow.coefficient = 1;
    odd.unit = 7;
    flat.lmax = -1;
    const std::pair<MmElectrode, const char*> cases[] = {
        {slow, "[MicroMed::Initialize] Electrode Fz is sampled at 128.000000 Hz; the recording needs one rate for all."},
        {odd, "[MicroMed::Initialize] Electrode Fz has the unknown unit code 7."},
        {flat, "[MicroMed::Initialize] Electrode Fz has the logical range 0 .. -1."},
    };
    for (const auto& [second, says] : cases) {
        MmTrc(4, 2, {fz, second}, {}, {}, {}).write(dir.path("t.TRC"));
        EXPECT_EQ(Refusal(dir.path("t.TRC")), says);
    }
    NkFiles f(NkEeg({0, 77}, 100, 1, {{}}), "[ELECTRODE]\n0000=Fp1\n");
    EXPECT_EQ(Refusal(f.eeg).rfind("[NihonKoden::Initialize] Electrode code 77 is not in ", 0), 0u) << Refusal(f.eeg);
    std::remove(f.dir.path("r.21e").c_str());
    EXPECT_EQ(Refusal(f.eeg), "[NihonKoden::Initialize] Cannot read the electrode name table " + f.dir.path("r.21e") + ".");
}

TEST(NihonKohdenMicromed, RealRecordingsStartTimes)
{
    SHARED_DATA_OR_SKIP(data, "");
    NihonKoden nk((data + "nihonkohden/MB0400FU.EEG").c_str());
    MicroMed mm((data + "micromed/File_micromed_1.TRC").c_str());
    nk.Initialize(0);
    mm.Initialize(0);
    EXPECT_EQ(nk.GetStartTime(), "2019-04-03 16:00:16");
    const ecRecordingInfo& i = nk.GetRecordingInfo();
    EXPECT_EQ(i.subjectId + "|" + i.subjectName + "|" + i.subjectSex + "|" + i.subjectBirthDate, "6416|Test_no_cap Asdf|M|2019-01-01");
    EXPECT_EQ(mm.GetStartTime() + " " + std::to_string(mm.GetHeaderType()), "2007-11-15 15:04:07 4");
    const ecRecordingInfo& m = mm.GetRecordingInfo();
    EXPECT_EQ(m.subjectName + "|" + m.subjectBirthDate + "|" + m.channelFilters.at(0), "Tp_metrologie Tp_metrologie|2007-11-15|HP:0.15Hz");
}
