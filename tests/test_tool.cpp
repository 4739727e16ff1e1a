#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>

#include "companion/Xml.h"
#include "filelib/filelib.h"
#include "fixtures/GenericFiles.h"
#include "fixtures/Json.h"
#include "fixtures/EdfFiles.h"
#include "fixtures/NeuroscanFiles.h"
#include "fixtures/VendorFiles.h"

namespace {
struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

ToolRun Tool(const TempDir& dir, const std::string& args)
{
    const std::string out = dir.path("stdout.txt"), err = dir.path("stderr.txt");
    const int raw = std::system((std::string(FILELIB_TOOL_PATH) + " " + args + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadTextFile(out), ReadTextFile(err)};
}

// Writes one byte-built recording of each supported format; returns their paths.
std::vector<std::string> Recordings(const TempDir& dir)
{
    GenericSpec spec;
    spec.chans = 3;
    spec.slices = 6;
    spec.names = {"A", "B", "TRIG"};
    spec.types = {1024, 1024, 0x8000};
    spec.scales = {0.5f, 1, 1};
    const std::string generic = WriteGenericPair(dir, "g.dat", spec, {{1, 2, 3, 4, 5, 6}, {0, -1, 0, 1, 0, -1}, {0, 0, 3, 3, 0, 0}});
    WriteTextFile(generic + ".evt", "\"Stim x\" 3 2\n");

    NeuroscanSpec ns;
    ns.numSamples = 4;
    const size_t hs = NeuroscanHeaderSize(2);
    ns.eventTablePos = static_cast<int32_t>(hs + 4 * 2 * 2);
    Bytes cnt = NeuroscanHeader(ns);
    for (int16_t v : {10, -10, 20, -20, 30, -30, 40, -40})
        cnt.i16le(v);
    AppendEventTable(cnt, 2, {{9, 0, static_cast<int32_t>(hs + 2 * 4)}});
    cnt.write(dir.path("n.cnt"));

    EdfSpec edf;
    edf.reserved = "EDF+C";
    EdfSignal fz;
    fz.samples = 4;
    fz.values = {1, -2, 3, -4};
    EdfSignal annotations;
    annotations.label = "EDF Annotations";
    annotations.samples = 12;
    annotations.annotations = {std::string("+0\x14\x14\0+0.5\x14stim\x14", 16)};
    edf.signals = {fz, annotations};
    EdfFile(edf).write(dir.path("e.edf"));
    EdfSpec bdf;
    bdf.bdf = true;
    EdfSignal status;
    status.label = "Status";
    status.samples = 4;
    status.values = {0, 0, 5, 5};
    bdf.signals = {fz, status};
    EdfFile(bdf).write(dir.path("b.bdf"));

    WriteTextFile(dir.path("v.vhdr"), "Brain Vision Data Exchange Header File Version 1.0\n[Common Infos]\nDataFile=v.eeg\n"
                                      "MarkerFile=v.vmrk\nNumberOfChannels=1\nSamplingInterval=2000\n[Channel Infos]\n"
                                      "Ch1=Cz,,0.5,uV\n");
    WriteTextFile(dir.path("v.vmrk"), "[Marker Infos]\nMk1=Stimulus,S  3,2,1,0\n");
    Bytes().i16le(10).i16le(-20).i16le(30).i16le(-40).write(dir.path("v.eeg"));

    Bytes egi = EgiHeader(4, 1, 3, {"DIN1"});
    for (float v : {1.5f, 0.0f, -2.5f, 1.0f, 3.5f, 0.0f})
        egi.f32be(v);
    egi.write(dir.path("g.raw"));

    ErpssFile(true, 1, 3, {{{{5}, {7}, {-1}}, {{1, 2, 9}}, {}}}).write(dir.path("r.raw"));

    Fiff fiff;
    fiff.tag(100, 31, Bytes().zeros(4)).u32(204, 0).u32(200, 2).f32(201, 100);
    fiff.tag(203, 30, ChInfo("MEG0111", 1, 1, 1e-12f, 112)).tag(203, 30, ChInfo("STI101", 3, 1, 1, 107));
    fiff.tag(300, 3, Bytes().u32be(5).u32be(0).u32be(6).u32be(4).u32be(7).u32be(4)).end();
    fiff.write(dir.path("m.fif"));
    return {generic,           dir.path("n.cnt"), dir.path("e.edf"), dir.path("b.bdf"), dir.path("v.vhdr"),
            dir.path("g.raw"), dir.path("r.raw"), dir.path("m.fif")};
}
}  // namespace

TEST(Tool, InfoEventsAndDumpAgreeWithTheLibrary)
{
    TempDir dir;
    for (const std::string& path : Recordings(dir)) {
        SCOPED_TRACE(path);
        CFilelib f;
        std::string name = path;
        ASSERT_NE(f.GuessFileMFR(name), 0);
        f.Initialize(0);

        const ToolRun info = Tool(dir, "info " + path + " --json");
        ASSERT_EQ(info.status, 0) << info.err;
        const Json i = ParseJson(info.out);
        EXPECT_EQ(i["code"].number, f.GetFileSource());
        EXPECT_EQ(i["run_type"].number, f.GetRunType());
        EXPECT_FLOAT_EQ(static_cast<float>(i["sample_rate"].number), f.GetSampleRate());
        EXPECT_EQ(i["slices"].number, f.GetNumSlices());
        EXPECT_EQ(i["epochs"].number, f.GetNumEpochs());
        EXPECT_EQ(i["reference_channel"].number, f.GetReferenceChannel());
        ASSERT_EQ(i["channels"].size(), static_cast<size_t>(f.GetNumChans()));
        for (int c = 0; c < f.GetNumChans(); ++c) {
            std::string chanName, unit;
            f.GetChanName(c, chanName);
            f.GetChanUnit(c, unit);
            EXPECT_EQ(i["channels"][static_cast<size_t>(c)]["name"].text, chanName);
            EXPECT_EQ(i["channels"][static_cast<size_t>(c)]["unit"].text, unit);
            EXPECT_EQ(i["channels"][static_cast<size_t>(c)]["type"].number, f.GetChanType(c));
            EXPECT_EQ(static_cast<float>(i["channels"][static_cast<size_t>(c)]["scale"].number), f.GetChanScale(c));
        }

        ecEventList events;
        f.InitialEventList(&events, nullptr);
        const ToolRun ev = Tool(dir, "events " + path + " --json");
        ASSERT_EQ(ev.status, 0) << ev.err;
        const Json e = ParseJson(ev.out);
        ASSERT_EQ(e.size(), static_cast<size_t>(events.GetEventCnt(true)));
        ASSERT_GT(e.size(), 0u);
        EXPECT_EQ(e[0]["name"].text, events.GetEvent(0).GetEventName());
        EXPECT_EQ(e[0]["begin"].number, events.GetEvent(0).GetBegin());
        EXPECT_EQ(e[0]["code"].number, events.GetEvent(0).GetEventCode());
        EXPECT_EQ(e[0]["kind"].number, events.GetEvent(0).GetKind());

        ecLabeledMatrix<float> m;
        const int n = f.ReadData(m, 1, 3);
        const ToolRun dump = Tool(dir, "dump " + path + " --first 1 --count 3 --json");
        ASSERT_EQ(dump.status, 0) << dump.err;
        const Json d = ParseJson(dump.out);
        EXPECT_EQ(d["first"].number, 1);
        EXPECT_EQ(d["count"].number, n);
        ASSERT_EQ(d["data"].size(), static_cast<size_t>(f.GetNumChans()));
        for (int c = 0; c < f.GetNumChans(); ++c)
            for (int s = 0; s < n; ++s)
                EXPECT_EQ(static_cast<float>(d["data"][static_cast<size_t>(c)][static_cast<size_t>(s)].number), m[c][s]);
    }
}

TEST(Tool, ExitStatusesAndMessages)
{
    TempDir dir;
    const std::vector<std::string> paths = Recordings(dir);
    EXPECT_EQ(Tool(dir, "--help").status, 0);
    EXPECT_EQ(Tool(dir, "dump --help").status, 0);
    EXPECT_EQ(Tool(dir, "frobnicate x").status, 1);

    const ToolRun missing = Tool(dir, "info " + dir.path("nothing.cnt"));
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("cannot open"), std::string::npos);

    WriteTextFile(dir.path("notes.txt"), "just some text that is no recording");
    const ToolRun unknown = Tool(dir, "info " + dir.path("notes.txt"));
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("is not a recording filelib recognises"), std::string::npos);
    EXPECT_NE(unknown.err.find("Neuroscan"), std::string::npos);

    Bytes().i16le(1).write(paths[0]);  // the generic header now declares more data than there is
    const ToolRun damaged = Tool(dir, "dump " + paths[0]);
    EXPECT_EQ(damaged.status, 1);
    EXPECT_NE(damaged.err.find("[CGeneric::Initialize] The data file"), std::string::npos) << damaged.err;

    const ToolRun badChannel = Tool(dir, "dump " + paths[1] + " --channels Nope");
    EXPECT_EQ(badChannel.status, 1);
    EXPECT_EQ(badChannel.err, "no channel named \"Nope\"\n");
}

TEST(Tool, ConvertRoundTripsAndTriggersAreFound)
{
    TempDir dir;
    const std::string source = Recordings(dir)[1];
    const std::string copy = dir.path("copy.f32");
    const ToolRun convert = Tool(dir, "convert " + source + " " + copy);
    ASSERT_EQ(convert.status, 0) << convert.err;
    CFilelib a, b;
    std::string na = source, nb = copy;
    ASSERT_EQ(a.GuessFileMFR(na), 4);
    ASSERT_EQ(b.GuessFileMFR(nb), 2);
    a.Initialize(0);
    b.Initialize(0);
    EXPECT_EQ(a.GetNumSlices(), b.GetNumSlices());
    EXPECT_EQ(a.GetSampleRate(), b.GetSampleRate());
    ecLabeledMatrix<float> ma, mb;
    ASSERT_EQ(a.ReadData(ma, 0, 4), 4);
    ASSERT_EQ(b.ReadData(mb, 0, 4), 4);
    for (int c = 0; c < 2; ++c)
        for (int s = 0; s < 4; ++s)
            EXPECT_EQ(ma[c][s], mb[c][s]);
    ecEventList ea, eb;
    EXPECT_EQ(a.InitialEventList(&ea, nullptr), b.InitialEventList(&eb, nullptr));

    const ToolRun triggers = Tool(dir, "triggers " + dir.path("g.dat") + " --threshold 2 --json");
    ASSERT_EQ(triggers.status, 0) << triggers.err;
    const Json t = ParseJson(triggers.out);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0]["begin"].number, 2);
    EXPECT_EQ(t[0]["name"].text, "1");
    const ToolRun noTrigger = Tool(dir, "triggers " + source);
    EXPECT_EQ(noTrigger.status, 1);
}

TEST(Tool, PlotIsValidSvgWithOneTracePerChannel)
{
    TempDir dir;
    const std::string source = Recordings(dir)[0];
    const ToolRun plot = Tool(dir, "plot " + source + " --out " + dir.path("p.svg") + " --channels A,TRIG");
    ASSERT_EQ(plot.status, 0) << plot.err;
    ecXml svg;
    ASSERT_TRUE(svg.Read(dir.path("p.svg")));
    EXPECT_EQ(svg.GetName(), "svg");
    const std::vector<ecXml> traces = svg.Children("g");
    int traceGroups = 0, eventGroups = 0;
    for (const ecXml& g : traces) {
        if (g.TagExists("polyline"))
            ++traceGroups;
        else if (g.TagExists("line") && g.GetString("text").find("Stim") == 0)
            ++eventGroups;
    }
    EXPECT_EQ(traceGroups, 2);
    EXPECT_EQ(eventGroups, 1);
    EXPECT_EQ(Tool(dir, "plot " + source).status, 1);  // --out is required
}
