#include <gtest/gtest.h>

#include <fstream>

#include "filelib/filelib.h"
#include "filelib/readers/neuroscn.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/NeuroscanFiles.h"
#include "fixtures/SharedData.h"

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

// Non-zero counts that grow with the slice, alternating in sign from channel to channel.
std::vector<std::vector<int32_t>> Ramp(int slices, int channels, int32_t step)
{
    std::vector<std::vector<int32_t>> out(static_cast<size_t>(slices), std::vector<int32_t>(static_cast<size_t>(channels)));
    for (int t = 0; t < slices; ++t)
        for (int c = 0; c < channels; ++c)
            out[static_cast<size_t>(t)][static_cast<size_t>(c)] = (t + 1) * step * (c + 1) * (c % 2 ? -1 : 1);
    return out;
}

// Two-channel files of every kind, every stored value non-zero: x16.cnt (4 slices), cut.cnt (x16.cnt
// cut in its third slice), w32.cnt (2 slices of 32-bit); b.cnt: 9 slices in blocks of 3, slice + 1
// and its negative; s16.eeg, s32.eeg (room for one sweep more), cut.eeg (s16 cut in sweep 2): 2 sweeps
// of 3 points, point t of sweep s holding 10 s + t + 1 and its negative (x 100000 at 32-bit), types
// 11, 65000; x.avg, cut.avg (a byte short): 2 points with variance, averaged over 4 and 0 sweeps.
void WriteKinds(const TempDir& dir)
{
    NeuroscanSpec spec;
    spec.baselines = {1000, -20};
    spec.sensitivities = {17.1875f, 2.0f};
    spec.calibrations = {1.0f, 0.5f};
    spec.numSamples = 4;  // settles the width: the data could be either
    const std::string x16 = WriteCnt(dir, "x16.cnt", spec, {{100, -200}, {32767, -32768}, {0, 5}, {1, 1}}, 2);
    WriteTextFile(dir.path("cut.cnt"), ReadTextFile(x16).substr(0, NeuroscanHeaderSize(2) + 2 * 4 + 2));
    spec.numSamples = 2;
    WriteCnt(dir, "w32.cnt", spec, {{100, -200}, {70000, -70000}}, 4);

    NeuroscanSpec blocked;
    blocked.continuousType = 3;
    blocked.channelOffset = 2 * 3;
    blocked.eventTablePos = static_cast<int32_t>(NeuroscanHeaderSize(2) + 2 * 9 * 2);
    Bytes b = NeuroscanHeader(blocked);
    for (int block = 0; block < 3; ++block)
        for (int c = 0; c < 2; ++c)
            for (int pos = 0; pos < 3; ++pos)
                b.i16le(static_cast<int16_t>((c ? -1 : 1) * (block * 3 + pos + 1)));
    AppendEventTable(b, 0, {});
    b.write(dir.path("b.cnt"));

    NeuroscanSpec epochs;
    epochs.points = 3;
    epochs.sweeps = 2;
    epochs.scale = 2.5;
    epochs.calibrations = {0.8f, 1.0f};
    epochs.sensitivities = {99.0f, 99.0f};  // not used for epochs
    epochs.baselines = {500, 500};
    for (int width : {2, 4}) {
        Bytes f = NeuroscanHeader(epochs);
        for (int sweep = 0; sweep < width / 2 + 1; ++sweep) {
            f.u8(1).u16le(static_cast<uint16_t>(sweep == 0 ? 11 : 65000)).u16le(0).f32le(0).u16le(0).u16le(0);
            for (int t = 0; t < 3; ++t)
                for (int c = 0; c < 2; ++c) {
                    const int32_t v = (sweep * 10 + t + 1) * (c ? -1 : 1);
                    width == 2 ? f.i16le(static_cast<int16_t>(v)) : f.i32le(v * 100000);
                }
        }
        f.write(dir.path(width == 2 ? "s16.eeg" : "s32.eeg"));
        if (width == 2)
            f.dropLast(4).write(dir.path("cut.eeg"));
    }

    NeuroscanSpec average;
    average.points = 2;
    average.averaged = {4, 0};
    average.variance = 1;
    Bytes a = NeuroscanHeader(average);
    for (int record = 0; record < 4; ++record)  // two averages, then two variances
        a.zeros(5).f32le(10.0f * (record + 1)).f32le(-2.0f * (record + 1));
    a.write(dir.path("x.avg"));
    a.dropLast(1).write(dir.path("cut.avg"));
}

std::string AuxText(int bits)
{
    return "<ORVA_Auxiliary_Information>\n<AcqBits>" + std::to_string(bits) +
           "</AcqBits>\n<Comment>Set AcqBits to 16 or 32 to resolve data file ambiguity</Comment>\n"
           "</ORVA_Auxiliary_Information>\n";
}
}  // namespace

TEST(Neuroscan, HeaderChecksInTheirOrder)
{
    TempDir dir;
    const NeuroscanSpec spec;
    Bytes tooShort;
    tooShort.text("Version 3.0", 899, '\0');
    const std::string invalid = "[CNeuroscan::Initialize] Invalid header data: ";
    const struct {
        const char* name;  // "": no name given
        Bytes bytes;       // empty: no file
        std::string message;  // followed by the file's name when named
        bool named, closed;
    } cases[] = {
        {"", Bytes(), "[CNeuroscan::Initialize] The time series name is not set.", false, true},
        {"none.cnt", Bytes(), "[CNeuroscan::Initialize] Fail to open time series file.", false, true},
        {"short.cnt", tooShort, "[CNeuroscan::Initialize] Not a NeuroScan file.", false, true},
        {"c0.avg", NeuroscanHeader(spec).put_u16le(370, 0), invalid, true, true},
        {"c1025.avg", NeuroscanHeader(spec).put_u16le(370, 1025), invalid, true, true},
        {"v.avg", NeuroscanHeader(spec).put_u8(7, '_'), invalid, true, true},
        {"zero.avg", NeuroscanHeader(spec), "[CNeuroscan::Initialize] Number of slices in the time series file is 0.",
         false, false},
    };
    for (const auto& c : cases) {
        const std::string path = *c.name ? dir.path(c.name) : "";
        if (!c.bytes.data().empty())
            c.bytes.write(path);
        CNeuroscan r(path.c_str());
        EXPECT_EQ(Message([&] { r.Initialize(0); }), c.message + (c.named ? path : ""));
        EXPECT_EQ(r.GetInputFilePointer() == nullptr, c.closed) << c.name;
    }
}

TEST(Neuroscan, ChannelsReferenceMarksAndRunTypeFromExtension)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.labels = {"ref", "Avg", "GFP", "LongLabel12"};
    spec.points = 3;
    spec.sweeps = 7;
    spec.rate = 500;
    const Bytes file = NeuroscanHeader(spec).zeros(4 * (5 + 12));
    // Only the listed spellings count.
    const std::pair<std::string, unsigned> runTypes[] = {{"a.Eeg", 2}, {"a.CNT", 4}, {"a.eEg", 1}, {"a.avg", 1}};
    for (const auto& [name, runType] : runTypes) {
        file.write(dir.path(name));
        CNeuroscan r(dir.path(name).c_str());
        r.Initialize(0);
        EXPECT_EQ(r.GetRunType(), runType) << name;
    }
    CNeuroscan avg(dir.path("a.avg").c_str());
    avg.Initialize(0);
    EXPECT_EQ((std::vector<int>{avg.GetFileMFR(), avg.GetNumSlices(), avg.GetNumEpochs(), avg.GetEpochSlices(),
                                avg.GetValidEpochCnt()}),
              (std::vector<int>{4, 3, 7, 3, 7}));
    EXPECT_FLOAT_EQ(avg.GetSampleRate(), 500.0f);
    EXPECT_FLOAT_EQ(avg.GetPreStim(), -0.1f);
    // The last label is a 10-byte field running into the next byte.
    EXPECT_EQ(ChannelsOf(avg), "ref/V/5120 Avg/V/5120 GFP/V/3072 LongLabel12/V/1024");
    // The later "Avg" label wins the reference: average reference, channel 1.
    EXPECT_EQ(std::make_pair(avg.GetReferenceType(), avg.GetReferenceChannel()), std::make_pair(8u, 1));

    spec.labels = {"ref"};
    NeuroscanHeader(spec).zeros(17).write(dir.path("r.avg"));
    CNeuroscan ref(dir.path("r.avg").c_str());
    ref.Initialize(0);
    EXPECT_EQ(std::make_pair(ref.GetReferenceType(), ref.GetReferenceChannel()), std::make_pair(2u, 0));
}

// A range beyond the data has each kind's own answer: continuous blocks keep the requested width,
// 0 where nothing was read, and count what was read; a missing epoch and a range beyond an
// average's points are errors.
TEST(Neuroscan, DataOfEveryKindAndRangesBeyondIt)
{
    TempDir dir;
    WriteKinds(dir);
    auto v0 = [](int32_t count) { return ContinuousVolts(count, 1000, 17.1875f, 1.0f); };
    auto v1 = [](int32_t count) { return ContinuousVolts(count, -20, 2.0f, 0.5f); };
    const float e0 = static_cast<float>(2.5 * 0.8f * 4.8828125e-09), e1 = static_cast<float>(2.5 * 4.8828125e-09);
    const float b = 4.8828124e-09f, uv = 0.000001f;
    const std::string cntRange = "[CNeuroscan::ReadCNTData]: Slices out of range error.";
    const std::string avgRange = "[CNeuroscan::ReadAVGData]: Slices out of range error.";
    const struct {
        const char* file;
        int first, count, read;
        int channel;
        std::vector<float> values;  // the channel's first delivered values
        std::string error;
    } cases[] = {
        {"x16.cnt", 0, 3, 3, 0, {v0(100), v0(32767), v0(0)}, ""},
        {"x16.cnt", 3, 10, 1, 0, {v0(1)}, ""},  // the event table that follows is no data
        {"x16.cnt", 4, 3, 0, 0, {}, ""},
        {"x16.cnt", -1, 2, 0, 0, {}, cntRange},
        {"x16.cnt", 0, -1, 0, 0, {}, cntRange},
        {"cut.cnt", 0, 4, 2, 1, {v1(-200), v1(-32768)}, ""},  // the header promises 4 slices
        {"w32.cnt", 0, 2, 2, 0, {v0(100), v0(70000)}, ""},
        {"w32.cnt", 1, 5, 1, 1, {v1(-70000)}, ""},
        {"w32.cnt", -3, 1, 0, 0, {}, "[CNeuroscan::ReadCNTData2]: Slices out of range error."},
        {"b.cnt", 2, 5, 5, 0, {3 * b, 4 * b, 5 * b, 6 * b, 7 * b}, ""},  // across three blocks
        {"b.cnt", 7, 5, 2, 1, {-8 * b, -9 * b}, ""},
        {"b.cnt", 12, 2, 0, 0, {}, ""},
        {"s16.eeg", 2, 4, 4, 0, {3 * e0, 11 * e0, 12 * e0, 13 * e0}, ""},  // across two sweeps
        {"s16.eeg", 3, 2, 2, 1, {-11 * e1, -12 * e1}, ""},
        {"s16.eeg", 5, 2, 0, 0, {}, "[CNeuroscan::ReadEEGData]: Epoch number is out of range."},
        {"s16.eeg", -1, 2, 0, 0, {}, cntRange},
        {"cut.eeg", 3, 1, 0, 0, {}, "[CNeuroscan::ReadEEGData]: Error in reading epoch data."},
        {"s32.eeg", 0, 1, 1, 0, {100000 * e0}, ""},
        {"x.avg", 0, 2, 2, 0, {10 * uv / 4, -2 * uv / 4}, ""},
        {"cut.avg", 0, 2, 2, 1, {20 * uv, -4 * uv}, ""},  // averaged over 0 sweeps: no division
        {"x.avg", 1, 2, 0, 0, {}, avgRange},
        {"x.avg", -1, 1, 0, 0, {}, avgRange},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " from " + std::to_string(c.first) + ", " + std::to_string(c.count));
        CNeuroscan r(dir.path(c.file).c_str());
        r.Initialize(0);
        ecLabeledMatrix<float> m;
        if (!c.error.empty()) {
            EXPECT_EQ(Message([&] { r.ReadData(m, c.first, c.count); }), c.error);
            continue;
        }
        ASSERT_EQ(r.ReadData(m, c.first, c.count), c.read);
        ASSERT_EQ(m.nrow(), 2);
        ASSERT_EQ(m.ncol(), c.count);
        EXPECT_EQ(m.GetRowLabeledState(1).GetLabel() + m.GetRowLabeledState(1).GetDataUnit(), "CzV");
        for (size_t t = 0; t < c.values.size(); ++t)
            EXPECT_EQ(m[c.channel][static_cast<long>(t)], c.values[t]) << t;
        for (int ch = 0; ch < 2; ++ch)  // every value the files store is non-zero
            for (int t = 0; t < c.count; ++t)
                EXPECT_EQ(m[ch][t] == 0.0f, t >= c.read) << ch << ", " << t;
    }
}

TEST(Neuroscan, WidthDecisionSideFileAndRoughness)
{
    TempDir dir;
    const int32_t hs = static_cast<int32_t>(NeuroscanHeaderSize(2));
    const struct {
        const char* name;
        int slices, width;
        int32_t eventAt;  // byte offset of one event past the header, -1: none
        int auxBefore;    // AcqBits of a side file present before, 0: none
        int wantWidth, wantSlices;
        int auxAfter;  // 0: no side file
    } cases[] = {
        {"odd.cnt", 21, 2, -1, 32, 2, 21, 32},      // 42 bytes per channel: the geometry wins over the side file
        {"aux.cnt", 100, 2, -1, 32, 4, 50, 32},     // ambiguous: the side file decides
        {"smooth16.cnt", 400, 2, -1, 24, 2, 400, 16},  // 24 is ignored; no events, roughness picks and writes 16
        {"smooth32.cnt", 200, 4, 8 * 16, 0, 4, 200, 32},  // one event: provisional 32, confirmed by roughness
        {"ev.cnt", 200, 2, 2 * 2 * 3, 0, 2, 200, 0},  // an event off a 4-byte channel boundary: 16, nothing written
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<NsEvent> events;
        if (c.eventAt >= 0)
            events.push_back({5, 0, hs + c.eventAt});
        const std::string path = WriteCnt(dir, c.name, NeuroscanSpec(), Ramp(c.slices, 2, 3), c.width, events);
        if (c.auxBefore)
            WriteTextFile(path + ".aux", AuxText(c.auxBefore));
        CNeuroscan r(path.c_str());
        r.Initialize(0);
        EXPECT_EQ(r.GetSampleWidth(), c.wantWidth);
        EXPECT_EQ(r.GetNumSlices(), c.wantSlices);
        EXPECT_EQ(std::ifstream(path + ".aux").good(), c.auxAfter != 0);
        if (c.auxAfter) {
            EXPECT_EQ(ReadTextFile(path + ".aux"), AuxText(c.auxAfter));
        }
    }
}

TEST(Neuroscan, ContinuousEvents)
{
    TempDir dir;
    NeuroscanSpec spec;
    spec.numSamples = 100;
    const int32_t hs = static_cast<int32_t>(NeuroscanHeaderSize(2));
    auto at = [&](int slice) { return hs + slice * 2 * 2; };
    const std::string p = WriteCnt(dir, "e.cnt", spec, Ramp(100, 2, 1), 2,
                                   {{7, 0x00, at(10)}, {0, 0x03, at(20)}, {0, 0xC0, at(30)}, {0, 0xE0, at(35)},
                                    {0, 0xD0, at(40)}, {65535, 0x00, at(99)}, {0, 0x00, at(50)}});
    CNeuroscan r(p.c_str());
    r.Initialize(0);
    // The exclusion has zero length although an end record follows.
    EXPECT_EQ(EventsOf(r), "7@10#7/2 R3@20#3/3 Exclude@30/1 65535@99#65535/2");
    ecEventList list, again;  // the table is freed and read again on the next call
    ASSERT_EQ(r.InitialEventList(&list, nullptr), 4);
    EXPECT_EQ(r.InitialEventList(&again, nullptr), 4);
    EXPECT_EQ(std::make_pair(list.GetEvent(0).GetCodeMask(), list.GetEvent(2).GetCodeMask()), std::make_pair(65535, 255));

    // A table of 40000 records loads 30000; a table of type 7 is refused.
    CNeuroscan many(WriteCnt(dir, "big.cnt", spec, Ramp(100, 2, 1), 2, std::vector<NsEvent>(40000, {1, 0, at(3)})).c_str());
    many.Initialize(0);
    EXPECT_EQ(many.InitialEventList(&again, nullptr), 30000);
    CNeuroscan seven(WriteCnt(dir, "type7.cnt", spec, Ramp(100, 2, 1), 2, {}, 7).c_str());
    seven.Initialize(0);
    EXPECT_EQ(Message([&] { seven.InitialEventList(&again, nullptr); }),
              "[CNeuroscan::ReadEventTable]: Unrecognized type of event table.");
}

TEST(Neuroscan, SweepEventsAndVarianceRecords)
{
    TempDir dir;
    WriteKinds(dir);
    for (const char* file : {"s16.eeg", "cut.eeg"}) {  // the cut file still holds both sweep headers
        CNeuroscan r(dir.path(file).c_str());
        r.Initialize(0);
        ecEventList sweeps;
        r.InitialEventList(&sweeps, nullptr);
        EXPECT_EQ(EventsText(sweeps), "11@0#11 65000@3#65000");
        EXPECT_TRUE(sweeps.GetEvent(1).IsSegmentBoundary());
    }

    CNeuroscan reader(dir.path("x.avg").c_str());
    reader.Initialize(0);
    EXPECT_TRUE(reader.DoesVarianceExist());
    ecLabeledMatrix<float> avg, var;
    reader.ReadAVGData(avg, var);
    EXPECT_EQ(avg[1][0], 20.0f * 0.000001f);
    EXPECT_EQ(var[0][0], 30.0f * 0.000001f / 4);
    EXPECT_EQ(var[1][1], -8.0f * 0.000001f);
    // The trigger search never asks an average for slices past its end (which is an error there).
    reader.SetChanType(0, kChanTrigger);
    ecEventList found;
    EXPECT_EQ(reader.FindAllTriggers(&found, 0, 1e-6f, 0, false, nullptr), 0);
    CNeuroscan truncated(dir.path("cut.avg").c_str());
    truncated.Initialize(0);
    EXPECT_EQ(Message([&] { truncated.ReadAVGData(avg, var); }), " ORVA Error: Out of range error.");
}

// The peers refuse this real file too (test_real_files skips it); the reader must not claim it.
TEST(NeuroscanRealFiles, ABrokenHeaderIsRefusedUnclaimed)
{
    SHARED_DATA_OR_SKIP(folder, "neuroscan");
    std::string broken = folder + "bugzilla_456.eeg";
    CNeuroscan r(broken.c_str());
    EXPECT_EQ(Message([&] { r.Initialize(0); }), "[CNeuroscan::Initialize] Invalid header data: " + broken);
    EXPECT_EQ(CFilelib().GuessFileMFR(broken), 0);
}
