// Writes the seed corpora of the fuzz targets: small valid files of every kind, built by the
// test fixture writers. Usage: fuzz_make_seeds DIR (creates DIR/<target>/...).
#include <sys/stat.h>

#include <string>
#include <vector>

#include "fixtures/EdfFiles.h"
#include "fixtures/GenericFiles.h"
#include "fixtures/NeuroscanFiles.h"
#include "fixtures/VendorFiles.h"

namespace {

std::string g_dir;

void Seed(const std::string& target, const std::string& name, const std::vector<uint8_t>& bytes)
{
    mkdir((g_dir + "/" + target).c_str(), 0755);
    Bytes b;
    for (uint8_t v : bytes)
        b.u8(v);
    b.write(g_dir + "/" + target + "/" + name);
    mkdir((g_dir + "/facade").c_str(), 0755);
    b.write(g_dir + "/facade/" + target + "_" + name);
}

std::vector<uint8_t> Join(const std::vector<std::string>& parts)
{
    std::vector<uint8_t> out;
    for (const std::string& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::string Text(const Bytes& b) { return std::string(b.data().begin(), b.data().end()); }

void GenericSeeds()
{
    const std::vector<std::vector<double>> values = {{1, 2, 3, 4}, {-1, 0, 1, 2}};
    for (const char* format : {"Short", "Float", "Swab_Double", "ASCII", "Byte"}) {
        GenericSpec spec;
        spec.format = format;
        spec.epochs = std::string(format) == "Float" ? 2 : 0;
        spec.runType = spec.epochs ? "MultiEpoch" : "Continuous";
        spec.sliceMode = std::string(format) != "Byte";
        Seed("generic", format, Join({GenericHeader(spec), "\n--DATA--\n", Text(GenericData(spec, values))}));
    }
}

void NeuroscanSeeds()
{
    NeuroscanSpec spec;
    spec.numSamples = 8;
    const size_t hs = NeuroscanHeaderSize(2);
    spec.eventTablePos = static_cast<int32_t>(hs + 8 * 4);
    Bytes cnt = NeuroscanHeader(spec);
    for (int i = 0; i < 16; ++i)
        cnt.i16le(static_cast<int16_t>(i * 100 - 700));
    AppendEventTable(cnt, 2, {{7, 0, static_cast<int32_t>(hs + 8)}, {0, 0xC0, static_cast<int32_t>(hs + 16)}, {0, 0xD0, static_cast<int32_t>(hs + 24)}});
    Seed("neuroscan", "cnt16", cnt.data());
    spec.continuousType = 3;
    spec.channelOffset = 4;
    Bytes blocked = NeuroscanHeader(spec);
    for (int i = 0; i < 16; ++i)
        blocked.i16le(static_cast<int16_t>(i));
    AppendEventTable(blocked, 1, {{3, 0, static_cast<int32_t>(hs + 4)}});
    Seed("neuroscan", "blocked", blocked.data());
}

EdfSignal Signal(const std::string& label, int samples)
{
    EdfSignal s;
    s.label = label;
    s.samples = samples;
    for (int i = 0; i < samples * 2; ++i)
        s.values.push_back(i * 37 - 100);
    return s;
}

void EdfSeeds()
{
    EdfSpec edf;
    edf.reserved = "EDF+C";
    edf.records = "2";
    EdfSignal annotations;
    annotations.label = "EDF Annotations";
    annotations.samples = 16;
    annotations.annotations = {std::string("+0\x14\x14\0+0.5\x15" "1\x14" "stim\x14", 17), "+1\x14\x14"};
    edf.signals = {Signal("Fz", 4), Signal("Status", 2), annotations};
    Seed("edf", "edfplus", EdfFile(edf).data());
    edf.reserved = "EDF+D";
    Seed("edf", "discontinuous", EdfFile(edf).data());
    EdfSpec bdf;
    bdf.bdf = true;
    bdf.records = "2";
    bdf.signals = {Signal("C3", 4), Signal("Status", 4)};
    for (EdfSignal& s : bdf.signals) {
        s.digMin = "-8388608";
        s.digMax = "8388607";
    }
    Seed("bdf", "bdf", EdfFile(bdf).data());
}

void BrainVisionSeeds()
{
    const std::string header =
        "Brain Vision Data Exchange Header File Version 2.0\r\n[Common Infos]\r\nCodepage=UTF-8\r\nDataFile=f.eeg\r\n"
        "MarkerFile=f.vmrk\r\nDataFormat=BINARY\r\nDataOrientation=MULTIPLEXED\r\nNumberOfChannels=2\r\n"
        "SamplingInterval=1000\r\nSegmentationType=MARKERBASED\r\nSegmentDataPoints=2\r\n[Binary Infos]\r\n"
        "BinaryFormat=INT_16\r\n[Channel Infos]\r\nCh1=Fz,,0.5,\xC2\xB5V\r\nCh2=GSR,,1,\xC2\xB5S\r\n";
    const std::string markers = "Brain Vision Data Exchange Marker File, Version 2.0\r\n[Marker Infos]\r\n"
                                "Mk1=New Segment,,1,1,0\r\nMk2=Stimulus,S  1,2,1,0\r\n";
    Bytes data;
    for (int i = 0; i < 8; ++i)
        data.i16le(static_cast<int16_t>(i * 1000));
    Seed("brainvision", "int16", Join({header, "\n--MARKERS--\n", markers, "\n--DATA--\n", Text(data)}));
}

void EgiSeeds()
{
    for (int version : {2, 4, 7}) {
        Bytes b = EgiHeader(version, 2, 2, {"DIN1"}, 12, 400, 2);
        for (int s = 0; s < (version == 7 ? 2 : 1); ++s) {
            if (version == 7)
                b.u16be(1).u32be(0);
            for (int i = 0; i < 6; ++i) {
                if (version == 2) b.u16be(static_cast<uint16_t>(i));
                else if (version == 4) b.f32be(static_cast<float>(i));
                else b.f64be(i);
            }
        }
        Seed("egi", "v" + std::to_string(version), b.data());
    }
}

void ErpssSeeds()
{
    const ErpssRecord record{{{100, 200}, {101, 202}}, {{1, 2, 7}}, {}};
    Seed("erpss", "plain", ErpssFile(false, 2, 2, {record}).data());
    Seed("erpss", "compressed", ErpssFile(true, 2, 2, {record, record}).data());
}

void FiffSeeds()
{
    Fiff f;
    f.tag(100, 31, Bytes().zeros(20)).u32(204, 0).u32(200, 2).f32(201, 1000);
    f.tag(203, 30, ChInfo("MEG0111", 1, 1, 1e-12f, 112)).tag(203, 30, ChInfo("STI101", 3, 1, 1, 107));
    f.tag(213, 33, Bytes().u32be(1).u32be(2).f32be(0).f32be(0.1f).f32be(0)).u32(208, 3000);
    f.tag(300, 2, Bytes().u16be(1).u16be(0).u16be(2).u16be(5)).u32(301, 1);
    f.tag(300, 4, Bytes().f32be(1).f32be(0).f32be(2).f32be(5)).end();
    Seed("fiff", "raw", f.bytes().data());
}

void XmlSeeds()
{
    const std::string texts[] = {
        "?xml version=\"1.0\"?><ORVA_Header><NumChans>2</NumChans><ChannelList><Channel><Name>a&amp;b</Name>"
        "</Channel></ChannelList><!-- c --><![CDATA[x]]></ORVA_Header>",
        "ORVA_Calibration><bSkipCalib>0</bSkipCalib><CalEvtCodes><evt>1</evt></CalEvtCodes><CalFactorList><chan>"
        "<label>A</label><factor>2</factor><offset>1</offset></chan></CalFactorList></ORVA_Calibration>",
        "E><Event><Name>n</Name><Begin>1</Begin><End>2</End></Event><item><l>x</l><s>1</s></item></E>"};
    int k = 0;
    for (const std::string& t : texts)
        Seed("xml", "x" + std::to_string(k++), std::vector<uint8_t>(t.begin(), t.end()));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 1;
    g_dir = argv[1];
    mkdir(g_dir.c_str(), 0755);
    GenericSeeds();
    NeuroscanSeeds();
    EdfSeeds();
    BrainVisionSeeds();
    EgiSeeds();
    ErpssSeeds();
    FiffSeeds();
    XmlSeeds();
    return 0;
}
