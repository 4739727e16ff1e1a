// The data-acquisition readers: ADInstruments CFWB, DATAQ WinDaq, Plexon.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "filelib/filelib.h"
#include "fixtures/DaqFiles.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/SharedData.h"

namespace {
// Opens `path` as `code` (detected, or set when the reader is never probed) and reads it whole.
struct Opened {
    CFilelib f;
    ecLabeledMatrix<float> m;
    int read = 0;
    Opened(const std::string& path, int code, bool probed = true)
    {
        std::string name = path;
        f.SetInputFileName(name.c_str());
        if (probed)
            EXPECT_EQ(f.GuessFileMFR(name), code);
        else
            f.SetFileSource(code);
        f.Initialize(0);
        read = f.GetNumSlices() > 0 ? f.ReadData(m, 0, f.GetNumSlices()) : 0;
    }
    std::string Name(int c) { std::string s; f.GetChanName(c, s); return s; }
    std::string Unit(int c) { std::string s; f.GetChanUnit(c, s); return s; }
};
}  // namespace

// Every sample type, int16 scale x (sample + offset) with a voltage unit in volts, a non-voltage
// unit kept, a time column skipped.
TEST(Cfwb, SampleTypesScalingUnitsAndTimeColumn)
{
    TempDir dir;
    const std::vector<std::vector<double>> stored = {{1, -2, 300}, {-32768, 0, 32767}};
    struct Case { int format; bool time; std::vector<double> first, second; } cases[] = {
        {3, false, {0.5e-3f * 11, 0.5e-3f * 8, 0.5e-3f * 310}, {-32766 * 0.25, 2 * 0.25, 32769 * 0.25}},
        {2, true, {1, -2, 300}, {-32768, 0, 32767}},
        {1, false, {1, -2, 300}, {-32768, 0, 32767}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        CfwbFile(c.format, {{"Fz", "mV", 0.5, 10}, {"Flow", "l/s", 0.25, 2}}, stored, 0.004, c.time).write(dir.path("a.bin"));
        Opened o(dir.path("a.bin"), 38);
        ASSERT_EQ(o.read, 3);
        EXPECT_FLOAT_EQ(o.f.GetSampleRate(), 250.0f);
        EXPECT_EQ(o.Name(0) + "/" + o.Unit(0) + " " + o.Name(1) + "/" + o.Unit(1), "Fz/V Flow/l/s");
        for (int t = 0; t < 3; ++t) {
            EXPECT_FLOAT_EQ(o.m[0][t], c.format == 3 ? c.first[t] : c.first[t] * 1e-3f);
            EXPECT_FLOAT_EQ(o.m[1][t], c.second[t]);
        }
    }
}

TEST(Cfwb, DamagedHeadersAreRefusedAfterTheClaim)
{
    TempDir dir;
    const Bytes good = CfwbFile(3, {{"A", "uV"}}, {{1, 2}}, 0.01);
    struct Case { Bytes bytes; std::string message; } cases[] = {
        {Bytes(good).put_u32le(64, 4), "[ecADInst_CFWB::Initialize] Unknown data format 4 (1 double, 2 float, 3 int16)."},
        {Bytes(good).put_u32le(52, 0x7FFFFFFF), "[ecADInst_CFWB::Initialize] The file holds 168 bytes; the header implies 214748364768."},
    };
    for (const Case& c : cases) {
        c.bytes.write(dir.path("d.bin"));
        CFilelib f;
        std::string name = dir.path("d.bin");
        EXPECT_EQ(Message([&] { f.GuessFileMFR(name); }), c.message);
    }
}

// save2gdf (BioSig) converts dev-set EDF files to CFWB; they read back to the EDF's values within
// one step of the CFWB's 16-bit scale. The EDF reader keeps trigger channels (Status) as codes
// while CFWB has no trigger notion, so those are compared by name only.
TEST(Cfwb, FilesWrittenBySave2gdfMatchTheirEdfSource)
{
    SHARED_DATA_OR_SKIP(edf, "edf");
    if (std::system("command -v save2gdf >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "save2gdf (Debian biosig-tools) is not installed";
    TempDir dir;
    for (const char* file : {"test.edf", "edf+C.edf"}) {
        SCOPED_TRACE(file);
        const std::string out = dir.path(std::string(file) + ".cfwb");
        ASSERT_EQ(std::system(("save2gdf -f=CFWB '" + edf + file + "' '" + out + "' >/dev/null 2>&1").c_str()), 0);
        Opened theirs(edf + file, 21), ours(out, 38);
        ASSERT_EQ(ours.f.GetNumChans(), theirs.f.GetNumChans());
        ASSERT_EQ(ours.read, theirs.read);
        EXPECT_EQ(ours.f.GetSampleRate(), theirs.f.GetSampleRate());
        for (int c = 0; c < ours.f.GetNumChans(); ++c) {
            EXPECT_EQ(ours.Name(c), theirs.Name(c));
            if (theirs.f.GetChanType(c) & 0x8000)
                continue;
            const float step = std::fabs(ours.f.GetChanScale(c)) * 1.0001f;
            for (int t = 0; t < ours.read; ++t)
                ASSERT_NEAR(ours.m[c][t], theirs.m[c][t], step) << ours.Name(c) << "[" << t << "]";
        }
    }
}

// Normal files drop the 2 flag bits, HiRes files divide by 4; markers with and without a time
// stamp, with and without a comment; "VOLT" is volts, "rpm" kept.
TEST(WinDaq, NormalAndHiResSamplesAndTrailerMarkers)
{
    TempDir dir;
    const std::vector<std::vector<int16_t>> samples = {{4 * 100 + 1, -4 * 3 + 2}, {4 * -7 + 3, 4 * 5}, {1, 2}};
    const std::vector<int32_t> trailer = {-2, static_cast<int32_t>(0x80000000u | 11), 1, 12345};
    for (bool hiRes : {false, true}) {
        SCOPED_TRACE(hiRes);
        WinDaqFile(hiRes, {{"Speed", "rpm", 0.5, 10}, {"Gear", "VOLT", 2, -1}}, samples, 0.01, trailer, "stop\0")
            .write(dir.path("w.wdq"));
        Opened o(dir.path("w.wdq"), 18, false);
        ASSERT_EQ(o.read, 3);
        EXPECT_FLOAT_EQ(o.f.GetSampleRate(), 100.0f);
        EXPECT_EQ(o.Name(0) + "/" + o.Unit(0) + " " + o.Name(1) + "/" + o.Unit(1), "Speed/rpm Gear/V");
        for (int t = 0; t < 3; ++t)
            for (int c = 0; c < 2; ++c) {
                const double stored = samples[static_cast<size_t>(t)][static_cast<size_t>(c)];
                const double reading = hiRes ? stored / 4 : std::floor(stored / 4);
                EXPECT_FLOAT_EQ(o.m[c][t], c ? 2 * reading - 1 : 0.5 * reading + 10);
            }
        EXPECT_EQ(EventsOf(o.f), "stop@2#1/2 Marker@1#2/2");
        EXPECT_EQ(o.f.GetRecordingInfo().date + " " + o.f.GetRecordingInfo().time, "1990-08-10 15:45:35");
    }
    WinDaqFile(false, {{"A", "V"}}, {{1}}, 0.01, {5}).write(dir.path("bad.wdq"));
    EXPECT_EQ(Message([&] { Opened(dir.path("bad.wdq"), 18, false); }),
              "[ecDataq::Initialize] Event marker 1 at slice 5 lies beyond the 1 slices.");
}

// The seeds: two slow channels whose blocks lie at different times (zeros where none is), raw
// counts with the version's header gain as the scale; spikes and strobed words as events; a
// spikes-only file opens with no channel.
TEST(Plexon, VersionsBlockTablesEventsAndSpikesOnly)
{
    TempDir dir;
    const DaqSeeds seeds = PlexonSeeds();
    struct Case { float gain0, gain1; const char* events; } cases[] = {
        {0.30517578125f, 2.44140625f, "sig001 unit 2@2#1/2 Strobed@6#513/2"},
        {0.001220703125f, 0.00244140625f, "Channel 1 unit 2@2#1/2 Event 257@6#513/2"},
    };
    for (size_t k = 0; k < 2; ++k) {
        SCOPED_TRACE(seeds[k].first);
        Bytes().raw(seeds[k].second).write(dir.path("p.plx"));
        Opened o(dir.path("p.plx"), 37);
        ASSERT_EQ(o.read, 7);
        EXPECT_FLOAT_EQ(o.f.GetSampleRate(), 1000.0f);
        EXPECT_EQ(o.Name(0) + "/" + o.Unit(0) + " " + o.Name(1), "AD01/ AD04");
        EXPECT_EQ(o.f.GetChanScale(0), cases[k].gain0);
        EXPECT_EQ(o.f.GetChanScale(1), cases[k].gain1);
        const float values[2][7] = {{1, -2, 3, 0, 0, 4, 5}, {0, 0, 0, -9, 0, 0, 0}};
        for (int t = 0; t < 7; ++t)
            EXPECT_EQ(o.m[0][t] * 100 + o.m[1][t], values[0][t] * 100 + values[1][t]) << t;
        EXPECT_EQ(EventsOf(o.f), cases[k].events);
    }
    Bytes().raw(seeds[2].second).write(dir.path("s.plx"));
    Opened o(dir.path("s.plx"), 37);
    EXPECT_EQ(o.f.GetNumChans(), 0);
    EXPECT_FLOAT_EQ(o.f.GetSampleRate(), 40000.0f);
    EXPECT_EQ(EventsOf(o.f), "sig001 unit 0@40#1/2 sig001 unit 1@4294967296#1/2");
}

// The README's reading of the real file: V1 in raw counts (Neo's raw values), 2.44140625 per
// count, and one event per spike (Wspk1u unit 0: 701).
TEST(Plexon, RealFileRawCountsAndSpikes)
{
    SHARED_DATA_OR_SKIP(data, "plexon");
    Opened o(data + "File_plexon_3.plx", 37);
    EXPECT_EQ(std::vector<float>(o.m[0], o.m[0] + 4), (std::vector<float>{668, 625, 569, 482}));
    EXPECT_EQ(o.f.GetChanScale(0), 2.44140625f);
    const std::string listed = EventsOf(o.f);
    size_t spikes = 0;
    for (size_t at = listed.find("Wspk1u unit 0@"); at != std::string::npos; at = listed.find("Wspk1u unit 0@", at + 1))
        ++spikes;
    EXPECT_EQ(spikes, 701u);
}
