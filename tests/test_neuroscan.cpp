#include <gtest/gtest.h>

#include "fixtures/Errors.h"

#include <cmath>
#include <fstream>
#include <functional>

#include "companion/Utility.h"
#include "filelib/filelib.h"
#include "filelib/readers/neuroscn.h"
#include "fixtures/NeuroscanFiles.h"

namespace {
// A continuous multiplexed file: counts[slice][channel] stored with `width` bytes.
std::string WriteCnt(const TempDir& dir, const std::string& name, NeuroscanSpec spec,
                     const std::vector<std::vector<int32_t>>& counts, int width,
                     const std::vector<NsEvent>& events = {}, uint8_t tableType = 2)
{
    const size_t hs = NeuroscanHeaderSize(spec.labels.size());
    spec.eventTablePos = static_cast<int32_t>(hs + counts.size() * spec.labels.size() * width);
    Bytes file = NeuroscanHeader(spec);
    for (const auto& slice : counts)
        for (int32_t v : slice)
            width == 2 ? file.i16le(static_cast<int16_t>(v)) : file.i32le(v);
    AppendEventTable(file, tableType, events);
    file.write(dir.path(name));
    return dir.path(name);
}

float ContinuousVolts(int32_t count, int16_t baseline, float sens, float cal)
{
    return (static_cast<float>(count) - static_cast<float>(baseline) * 0.000001f) * (sens * cal * 4.8828124e-09f);
}

std::vector<std::vector<int32_t>> Ramp(int slices, int channels, int32_t step)
{
    std::vector<std::vector<int32_t>> out(static_cast<size_t>(slices), std::vector<int32_t>(static_cast<size_t>(channels)));
    for (int t = 0; t < slices; ++t)
        for (int c = 0; c < channels; ++c)
            out[static_cast<size_t>(t)][static_cast<size_t>(c)] = (t + 1) * step * (c + 1) * (c % 2 ? -1 : 1);
    return out;
}
}  // namespace

TEST(Neuroscan, HeaderChecksInTheirOrder)
{
    TempDir dir;
    CNeuroscan noName("");
    EXPECT_EQ(Message([&] { noName.Initialize(0); }), "[CNeuroscan::Initialize] The time series name is not set.");
    CNeuroscan missing(dir.path("none.cnt").c_str());
    EXPECT_EQ(Message([&] { missing.Initialize(0); }), "[CNeuroscan::Initialize] Fail to open time series file.");

    Bytes shortFile;
    shortFile.text("Version 3.0", 899, '\0');
    shortFile.write(dir.path("short.cnt"));
    CNeuroscan tooShort(dir.path("short.cnt").c_str());
    EXPECT_EQ(Message([&] { tooShort.Initialize(0); }), "[CNeuroscan::Initialize] Not a NeuroScan file.");
    EXPECT_EQ(tooShort.GetInputFilePointer(), nullptr);  // closed before raising

    for (uint16_t channels : {0, 1025}) {
        NeuroscanSpec spec;
        spec.channelsField = channels ? channels : 0xFFFF;
        spec.labels = {};
        Bytes file = NeuroscanHeader(spec);
        file.put_u16le(370, channels);
        file.write(dir.path("bad.avg"));
        CNeuroscan bad(dir.path("bad.avg").c_str());
        EXPECT_EQ(Message([&] { bad.Initialize(0); }), "[CNeuroscan::Initialize] Invalid header data: " + dir.path("bad.avg"));
        EXPECT_EQ(bad.GetInputFilePointer(), nullptr);
    }
    NeuroscanSpec spec;
    NeuroscanHeader(spec).put_u8(7, '_').write(dir.path("v.avg"));
    CNeuroscan badVersion(dir.path("v.avg").c_str());
    EXPECT_EQ(Message([&] { badVersion.Initialize(0); }), "[CNeuroscan::Initialize] Invalid header data: " + dir.path("v.avg"));

    // Electrode blocks cut short: the whole header cannot be read.
    NeuroscanHeader(spec).head(950).write(dir.path("cut.avg"));
    CNeuroscan cutReader(dir.path("cut.avg").c_str());
    EXPECT_EQ(Message([&] { cutReader.Initialize(0); }),
              "[CNeuroscan::Initialize] Fail to read the whole header: " + dir.path("cut.avg"));

    // An average of 0 points.
    NeuroscanHeader(spec).write(dir.path("zero.avg"));
    CNeuroscan zero(dir.path("zero.avg").c_str());
    EXPECT_EQ(Message([&] { zero.Initialize(0); }), "[CNeuroscan::Initialize] Number of slices in the time series file is 0.");
}

TEST(Neuroscan, ChannelsReferenceMarksAndRunTypeFromExtension)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.labels = {"ref", "Avg", "GFP", "LongLabel12"};
    spec.points = 3;
    spec.sweeps = 7;
    spec.rate = 500;
    Bytes file = NeuroscanHeader(spec);
    file.zeros(4 * (5 + 12));
    for (const char* name : {"a.avg", "a.Eeg", "a.CNT", "a.eEg"}) {
        file.write(dir.path(name));
    }
    CNeuroscan avg(dir.path("a.avg").c_str());
    avg.Initialize(0);
    EXPECT_EQ(avg.GetFileMFR(), 4);
    EXPECT_EQ(avg.GetRunType(), 1u);
    EXPECT_EQ(avg.GetNumSlices(), 3);
    EXPECT_EQ(avg.GetNumEpochs(), 7);
    EXPECT_EQ(avg.GetEpochSlices(), 3);
    EXPECT_EQ(avg.GetValidEpochCnt(), 7);
    EXPECT_FLOAT_EQ(avg.GetSampleRate(), 500.0f);
    EXPECT_FLOAT_EQ(avg.GetPreStim(), -0.1f);
    std::string name, unit;
    avg.GetChanName(3, name);
    EXPECT_EQ(name, "LongLabel12");  // 10-byte field running into the next byte
    avg.GetChanUnit(0, unit);
    EXPECT_EQ(unit, "V");
    EXPECT_EQ(avg.GetChanType(0), 1024 | 4096);
    EXPECT_EQ(avg.GetChanType(1), 1024 | 4096);
    EXPECT_EQ(avg.GetChanType(2), 1024 | 2048);
    EXPECT_EQ(avg.GetChanType(3), 1024);
    // The later "Avg" label wins the reference: average reference, channel 1.
    EXPECT_EQ(avg.GetReferenceType(), 8u);
    EXPECT_EQ(avg.GetReferenceChannel(), 1);
    CNeuroscan epoched(dir.path("a.Eeg").c_str());
    epoched.Initialize(0);
    EXPECT_EQ(epoched.GetRunType(), 2u);
    CNeuroscan odd(dir.path("a.eEg").c_str());
    odd.Initialize(0);
    EXPECT_EQ(odd.GetRunType(), 1u);  // only the listed spellings count

    spec.labels = {"ref"};
    NeuroscanHeader(spec).write(dir.path("r.avg"));
    Bytes r = NeuroscanHeader(spec);
    r.zeros(17);
    r.write(dir.path("r.avg"));
    CNeuroscan ref(dir.path("r.avg").c_str());
    ref.Initialize(0);
    EXPECT_EQ(ref.GetReferenceType(), 2u);
    EXPECT_EQ(ref.GetReferenceChannel(), 0);
}

TEST(Neuroscan, Continuous16And32BitMultiplexedInVolts)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.baselines = {1000, -20};
    spec.sensitivities = {17.1875f, 2.0f};
    spec.calibrations = {1.0f, 0.5f};
    spec.numSamples = 4;  // settles the width: the data could be either
    const std::string p16b = WriteCnt(dir, "x16.cnt", spec, {{100, -200}, {32767, -32768}, {0, 5}, {1, 1}}, 2);
    spec.numSamples = 2;
    const std::string p32 = WriteCnt(dir, "w32.cnt", spec, {{100, -200}, {70000, -70000}}, 4);

    CNeuroscan r16(p16b.c_str());
    r16.Initialize(0);
    EXPECT_EQ(r16.GetSampleWidth(), 2);
    EXPECT_EQ(r16.GetNumSlices(), 4);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r16.ReadData(m, 0, 4), 4);
    EXPECT_EQ(m[0][0], ContinuousVolts(100, 1000, 17.1875f, 1.0f));
    EXPECT_EQ(m[1][1], ContinuousVolts(-32768, -20, 2.0f, 0.5f));
    EXPECT_EQ(m[0][1], ContinuousVolts(32767, 1000, 17.1875f, 1.0f));
    EXPECT_EQ(m.GetRowLabeledState(1).GetLabel(), "Cz");
    EXPECT_EQ(m.GetRowLabeledState(1).GetDataUnit(), "V");
    EXPECT_EQ(r16.ReadData(m, 3, 10), 1);  // cut at the end
    EXPECT_EQ(m.ncol(), 1);
    EXPECT_EQ(r16.ReadData(m, 4, 10), 0);

    // 4 slices of 16-bit = 2 of 32-bit; the header's sample count says 2.
    CNeuroscan r32(p32.c_str());
    r32.Initialize(0);
    EXPECT_EQ(r32.GetSampleWidth(), 4);
    ASSERT_EQ(r32.ReadData(m, 0, 2), 2);
    EXPECT_EQ(m[0][1], ContinuousVolts(70000, 1000, 17.1875f, 1.0f));
    EXPECT_EQ(m[1][1], ContinuousVolts(-70000, -20, 2.0f, 0.5f));
}

TEST(Neuroscan, BlockedContinuousData)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.continuousType = 3;
    spec.channelOffset = 2 * 3;  // blocks of 3 slices
    spec.sensitivities = {1.0f, 1.0f};
    const size_t hs = NeuroscanHeaderSize(2);
    // 8 slices: blocks [0..2], [3..5], [6..8]; each block channel 0 then channel 1.
    spec.eventTablePos = static_cast<int32_t>(hs + 2 * 9 * 2);
    Bytes file = NeuroscanHeader(spec);
    for (int block = 0; block < 3; ++block)
        for (int c = 0; c < 2; ++c)
            for (int pos = 0; pos < 3; ++pos)
                file.i16le(static_cast<int16_t>((c ? -1 : 1) * (block * 3 + pos + 1)));
    AppendEventTable(file, 0, {});
    file.write(dir.path("b.cnt"));
    CNeuroscan r(dir.path("b.cnt").c_str());
    r.Initialize(0);
    EXPECT_EQ(r.GetNumSlices(), 9);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r.ReadData(m, 2, 5), 5);  // slices 2..6 span three blocks
    const float unit = 4.8828124e-09f;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(m[0][i], static_cast<float>(i + 3) * unit);
        EXPECT_EQ(m[1][i], -static_cast<float>(i + 3) * unit);
    }
    ecEventList none;
    EXPECT_EQ(r.InitialEventList(&none, nullptr), 0);  // table type 0: no events, no error
}

TEST(Neuroscan, WidthDecisionSideFileAndRoughness)
{
    TempDir dir;
    NeuroscanSpec spec;
    // 40 bytes per channel: not a multiple of 4 at 16-bit? 40 is; use 42 to force 16-bit.
    std::vector<std::vector<int32_t>> odd = Ramp(21, 2, 3);
    const std::string pOdd = WriteCnt(dir, "odd.cnt", spec, odd, 2);
    WriteTextFile(pOdd + ".aux", "<ORVA_Auxiliary_Information><AcqBits>32</AcqBits></ORVA_Auxiliary_Information>");
    CNeuroscan oddReader(pOdd.c_str());
    oddReader.Initialize(0);
    EXPECT_EQ(oddReader.GetSampleWidth(), 2);  // the side file cannot override the geometry
    EXPECT_EQ(oddReader.GetNumSlices(), 21);

    // Ambiguous geometry, side file with 32.
    const std::string pAux = WriteCnt(dir, "aux.cnt", spec, Ramp(100, 2, 3), 2);
    WriteTextFile(pAux + ".aux", "<ORVA_Auxiliary_Information><AcqBits>32</AcqBits></ORVA_Auxiliary_Information>");
    CNeuroscan auxReader(pAux.c_str());
    auxReader.Initialize(0);
    EXPECT_EQ(auxReader.GetSampleWidth(), 4);
    EXPECT_EQ(auxReader.GetNumSlices(), 50);

    // A smooth 16-bit signal with no events: the side file says 24 (ignored), the roughness
    // test picks 16 bits, and the decision is written.
    const std::string p16 = WriteCnt(dir, "smooth16.cnt", spec, Ramp(400, 2, 3), 2);
    WriteTextFile(p16 + ".aux", "<ORVA_Auxiliary_Information><AcqBits>24</AcqBits></ORVA_Auxiliary_Information>");
    CNeuroscan r16(p16.c_str());
    r16.Initialize(0);
    EXPECT_EQ(r16.GetSampleWidth(), 2);
    EXPECT_EQ(r16.GetNumSlices(), 400);
    const std::string written16 =
        "<ORVA_Auxiliary_Information>\n<AcqBits>16</AcqBits>\n"
        "<Comment>Set AcqBits to 16 or 32 to resolve data file ambiguity</Comment>\n</ORVA_Auxiliary_Information>\n";
    EXPECT_EQ(ReadTextFile(p16 + ".aux"), written16);

    // A smooth 32-bit signal with one event: provisional 32, confirmed by roughness.
    const size_t hs = NeuroscanHeaderSize(2);
    const std::string p32 = WriteCnt(dir, "smooth32.cnt", spec, Ramp(200, 2, 3), 4,
                                     {{5, 0, static_cast<int32_t>(hs + 8 * 16)}});
    CNeuroscan r32(p32.c_str());
    r32.Initialize(0);
    EXPECT_EQ(r32.GetSampleWidth(), 4);
    EXPECT_EQ(r32.GetNumSlices(), 200);
    std::string written32 = written16;
    written32.replace(written32.find("16"), 2, "32");
    EXPECT_EQ(ReadTextFile(p32 + ".aux"), written32);

    // An event whose byte offset is not on a 4-byte channel boundary settles 16 bits, no side file.
    const std::string pEv = WriteCnt(dir, "ev.cnt", spec, Ramp(200, 2, 3), 2,
                                     {{5, 0, static_cast<int32_t>(hs + 2 * 2 * 3)}});
    CNeuroscan rEv(pEv.c_str());
    rEv.Initialize(0);
    EXPECT_EQ(rEv.GetSampleWidth(), 2);
    EXPECT_FALSE(std::ifstream(pEv + ".aux").good());
}

TEST(Neuroscan, ContinuousEvents)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.numSamples = 100;
    const int32_t hs = static_cast<int32_t>(NeuroscanHeaderSize(2));
    auto at = [&](int slice) { return hs + slice * 2 * 2; };
    const std::string p = WriteCnt(dir, "e.cnt", spec, Ramp(100, 2, 1), 2,
                                   {{7, 0x00, at(10)},
                                    {0, 0x03, at(20)},
                                    {0, 0xC0, at(30)},
                                    {0, 0xE0, at(35)},
                                    {0, 0xD0, at(40)},
                                    {65535, 0x00, at(99)},
                                    {0, 0x00, at(50)}});
    CNeuroscan r(p.c_str());
    r.Initialize(0);
    ecEventList list;
    ASSERT_EQ(r.InitialEventList(&list, nullptr), 4);
    EXPECT_EQ(list.GetEvent(0).GetEventName(), "7");
    EXPECT_EQ(list.GetEvent(0).GetEventCode(), 7);
    EXPECT_EQ(list.GetEvent(0).GetBegin(), 10);
    EXPECT_EQ(list.GetEvent(0).GetKind(), 2);
    EXPECT_EQ(list.GetEvent(0).GetCodeMask(), 65535);
    EXPECT_EQ(list.GetEvent(1).GetEventName(), "R3");
    EXPECT_EQ(list.GetEvent(1).GetBegin(), 20);
    EXPECT_EQ(list.GetEvent(2).GetEventName(), "Exclude");
    EXPECT_EQ(list.GetEvent(2).GetBegin(), 30);
    EXPECT_EQ(list.GetEvent(2).GetEnd(), 30);  // zero length although an end record follows
    EXPECT_EQ(list.GetEvent(2).GetKind(), 1);
    EXPECT_EQ(list.GetEvent(2).GetCodeMask(), 255);
    EXPECT_EQ(list.GetEvent(3).GetEventName(), "65535");
    EXPECT_EQ(list.GetEvent(3).GetBegin(), 99);
    // The table is freed and read again on the next call.
    ecEventList again;
    EXPECT_EQ(r.InitialEventList(&again, nullptr), 4);

    // A table that claims 40000 records loads 30000 (the records themselves are there).
    Bytes big = NeuroscanHeader([&] {
        NeuroscanSpec s = spec;
        s.eventTablePos = hs + 100 * 4;
        return s;
    }());
    for (int i = 0; i < 200; ++i)
        big.i16le(0);
    big.u8(2).i32le(40000 * 19).i32le(0);
    for (int i = 0; i < 40000; ++i)
        big.u16le(1).u8(0).u8(0).i32le(at(i % 100)).zeros(11);
    big.write(dir.path("big.cnt"));
    CNeuroscan many(dir.path("big.cnt").c_str());
    many.Initialize(0);
    ecEventList manyEvents;
    EXPECT_EQ(many.InitialEventList(&manyEvents, nullptr), 30000);

    Bytes badType = NeuroscanHeader([&] {
        NeuroscanSpec s = spec;
        s.eventTablePos = hs + 100 * 4;
        return s;
    }());
    badType.zeros(400).u8(7).i32le(0).i32le(0);
    badType.write(dir.path("type7.cnt"));
    CNeuroscan seven(dir.path("type7.cnt").c_str());
    seven.Initialize(0);
    EXPECT_EQ(Message([&] { seven.InitialEventList(&manyEvents, nullptr); }),
              "[CNeuroscan::ReadEventTable]: Unrecognized type of event table.");
}

TEST(Neuroscan, EpochedFilesAndSweepEvents)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.points = 3;
    spec.sweeps = 2;
    spec.scale = 2.5;
    spec.calibrations = {0.8f, 1.0f};
    spec.sensitivities = {99.0f, 99.0f};  // not used for epochs
    spec.baselines = {500, 500};
    auto build = [&](int width, bool extraSweep) {
        Bytes f = NeuroscanHeader(spec);
        for (int sweep = 0; sweep < 2 + (extraSweep ? 1 : 0); ++sweep) {
            f.u8(1).u16le(static_cast<uint16_t>(sweep == 0 ? 11 : 65000)).u16le(0).f32le(0).u16le(0).u16le(0);
            for (int t = 0; t < 3; ++t)
                for (int c = 0; c < 2; ++c) {
                    const int32_t v = (sweep * 10 + t + 1) * (c ? -1 : 1);
                    width == 2 ? f.i16le(static_cast<int16_t>(v)) : f.i32le(v * 100000);
                }
        }
        return f;
    };
    build(2, false).write(dir.path("s16.eeg"));
    build(4, true).write(dir.path("s32.eeg"));  // room for one sweep more: 32-bit
    CNeuroscan r16(dir.path("s16.eeg").c_str());
    r16.Initialize(0);
    EXPECT_EQ(r16.GetSampleWidth(), 2);
    EXPECT_EQ(r16.GetNumSlices(), 6);
    EXPECT_EQ(r16.GetNumEpochs(), 2);
    const float f0 = static_cast<float>(2.5 * 0.8f * 4.8828125e-09);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(r16.ReadData(m, 2, 3), 3);  // last slice of sweep 0, first two of sweep 1
    EXPECT_EQ(m[0][0], 3.0f * f0);
    EXPECT_EQ(m[0][1], 11.0f * f0);
    EXPECT_EQ(m[1][2], -12.0f * static_cast<float>(2.5 * 1.0f * 4.8828125e-09));

    CNeuroscan r32(dir.path("s32.eeg").c_str());
    r32.Initialize(0);
    EXPECT_EQ(r32.GetSampleWidth(), 4);
    ASSERT_EQ(r32.ReadData(m, 0, 1), 1);
    EXPECT_EQ(m[0][0], 100000.0f * f0);

    ecEventList sweeps;
    ASSERT_EQ(r16.InitialEventList(&sweeps, nullptr), 2);
    EXPECT_TRUE(sweeps.GetEvent(1).IsSegmentBoundary());
    EXPECT_EQ(sweeps.GetEvent(0).GetEventName(), "11");
    EXPECT_EQ(sweeps.GetEvent(1).GetEventName(), "65000");
    EXPECT_EQ(sweeps.GetEvent(1).GetBegin(), 3);

    // A truncated second sweep: an error on reading it, one sweep event.
    build(2, false).dropLast(4).write(dir.path("cut.eeg"));
    CNeuroscan truncated(dir.path("cut.eeg").c_str());
    truncated.Initialize(0);
    EXPECT_EQ(Message([&] { truncated.ReadData(m, 3, 1); }), "[CNeuroscan::ReadEEGData]: Error in reading epoch data.");
    ecEventList partial;
    EXPECT_EQ(truncated.InitialEventList(&partial, nullptr), 2);
}

TEST(Neuroscan, AveragesAndVariance)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.points = 2;
    spec.averaged = {4, 0};
    spec.variance = 1;
    Bytes f = NeuroscanHeader(spec);
    for (int record = 0; record < 4; ++record) {  // two averages, then two variances
        f.zeros(5);
        f.f32le(10.0f * (record + 1)).f32le(-2.0f * (record + 1));
    }
    f.write(dir.path("x.avg"));
    CFilelib facade;
    std::string name = dir.path("x.avg");
    ASSERT_EQ(facade.GuessFileMFR(name), 4);
    facade.Initialize(0);
    EXPECT_TRUE(facade.DoesVarianceExist());
    ecLabeledMatrix<float> m;
    ASSERT_EQ(facade.ReadData(m, 0, 2), 2);
    EXPECT_EQ(m[0][0], 10.0f * 0.000001f / 4);
    EXPECT_EQ(m[1][1], -4.0f * 0.000001f);  // n = 0: no division
    EXPECT_EQ(facade.ReadData(m, 1, 5), 1);
    EXPECT_EQ(m[0][0], -2.0f * 0.000001f / 4);

    auto* reader = dynamic_cast<CNeuroscan*>(facade.GetActiveFile());
    ASSERT_NE(reader, nullptr);
    ecLabeledMatrix<float> avg, var;
    reader->ReadAVGData(avg, var);
    EXPECT_EQ(avg[1][0], 20.0f * 0.000001f);
    EXPECT_EQ(var[0][0], 30.0f * 0.000001f / 4);
    EXPECT_EQ(var[1][1], -8.0f * 0.000001f);

    f.dropLast(1).write(dir.path("cut.avg"));
    CNeuroscan truncated(dir.path("cut.avg").c_str());
    truncated.Initialize(0);
    EXPECT_EQ(Message([&] { truncated.ReadAVGData(avg, var); }), " ORVA Error: Out of range error.");
    EXPECT_EQ(truncated.ReadData(m, 0, 2), 2);  // the averages themselves are complete
}

TEST(Neuroscan, TruncationAtEveryBoundaryNeverCrashes)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.numSamples = 50;
    const int32_t hs = static_cast<int32_t>(NeuroscanHeaderSize(2));
    const std::string p = WriteCnt(dir, "full.cnt", spec, Ramp(50, 2, 7), 2,
                                   {{3, 0, hs + 40}, {4, 0, hs + 80}, {5, 0, hs + 120}});
    const std::string full = ReadTextFile(p);
    for (size_t size = 0; size <= full.size(); size += (size < 1100 ? 37 : 1)) {
        const std::string path = dir.path("t" + std::to_string(size) + ".cnt");
        WriteTextFile(path, full.substr(0, size));
        CFilelib f;
        std::string name = path;
        try {
            if (f.GuessFileMFR(name) != 4)
                continue;
            f.Initialize(0);
            ecLabeledMatrix<float> m;
            const int got = f.ReadData(m, 0, 50);
            EXPECT_LE(got, 50);
            EXPECT_EQ(got, std::min<int>(50, static_cast<int>((std::max<long>(0, size - hs)) / 4)));
            ecEventList events;
            f.InitialEventList(&events, nullptr);
        } catch (const ecError& e) {
            EXPECT_NE(std::string(e.what()).find("[CNeuroscan::"), std::string::npos) << e.what();
        }
    }
}

// Real recordings written by other software.
TEST(NeuroscanRealFiles, Scan41Short16Bit)
{
    const std::string path = std::string(FILELIB_SHARED_DATA) + "/neuroscan/scan41_short.cnt";
    CFilelib f;
    std::string name = path;
    ASSERT_EQ(f.GuessFileMFR(name), 4);
    f.Initialize(0);
    EXPECT_EQ(dynamic_cast<CNeuroscan*>(f.GetActiveFile())->GetSampleWidth(), 2);
    ecLabeledMatrix<float> m;
    ASSERT_EQ(f.ReadData(m, 0, 3070), 3070);
    EXPECT_EQ(f.ReadData(m, 3070, 10), 0);  // nothing past the event table is data
    ecEventList events;
    ASSERT_EQ(f.InitialEventList(&events, nullptr), 5);
    const long begins[] = {334, 1011, 1665, 2325, 2985};
    const int codes[] = {7, 7, 109, 7, 109};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(events.GetEvent(i).GetBegin(), begins[i]);
        EXPECT_EQ(events.GetEvent(i).GetEventCode(), codes[i]);
    }
}

TEST(NeuroscanRealFiles, JWoess32BitWithMarkers)
{
    const std::string path =
        std::string(FILELIB_SHARED_DATA) + "/neuroscan/test_CNT_events_mne_JWoess_clipped__v1_9dafcf2.cnt";
    CFilelib f;
    std::string name = path;
    ASSERT_EQ(f.GuessFileMFR(name), 4);
    f.Initialize(0);
    EXPECT_EQ(dynamic_cast<CNeuroscan*>(f.GetActiveFile())->GetSampleWidth(), 4);
    ecEventList events;
    f.InitialEventList(&events, nullptr);
    std::vector<std::string> seen;
    for (int i = 0; i < events.GetEventCnt(true); ++i)
        seen.push_back(events.GetEvent(i).GetEventName() + "@" + std::to_string(events.GetEvent(i).GetBegin()));
    const std::vector<std::string> firstFour = {"Exclude@0", "R1@35383", "99@40487", "Exclude@52221"};
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(seen.begin(), seen.begin() + 4), firstFour);
}

TEST(NeuroscanRealFiles, BrokenEpochedFragmentIsRejected)
{
    const std::string path = std::string(FILELIB_SHARED_DATA) + "/neuroscan/bugzilla_456.eeg";
    CNeuroscan r(path.c_str());
    EXPECT_EQ(Message([&] { r.Initialize(0); }), "[CNeuroscan::Initialize] Invalid header data: " + path);
    CFilelib f;
    std::string name = path;
    EXPECT_EQ(f.GuessFileMFR(name), 0);  // the reader never claimed it
}
