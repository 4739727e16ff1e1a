// Reading speed of every reader through CFilelib, beside a plain loop that freads the same file
// in 1 MiB blocks and converts its samples with one scale factor (the practical limit).
// The files are generated once per run in a temporary directory; FILELIB_BENCH_MB sets their
// data size (default 256 MB each).
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "companion/ByteCursor.h"
#include "filelib/ReaderTable.h"
#include "filelib/filelib.h"
#include "filelib/readers/Neuromag_FIFF.h"
#include "fixtures/AntFiles.h"
#include "fixtures/ClinicalFiles.h"
#include "fixtures/CtfFiles.h"
#include "fixtures/DaqFiles.h"
#include "fixtures/EdfFiles.h"
#include "fixtures/FourDFiles.h"
#include "fixtures/NeuroscanFiles.h"
#include "fixtures/NkMicromedFiles.h"

namespace {

constexpr int kChannels = 64;
constexpr int kBlock = 5000;

long long DataBytes()
{
    const char* mb = std::getenv("FILELIB_BENCH_MB");
    return (mb ? std::atoll(mb) : 256) << 20;
}

// Appends `bytes` of samples to an open file, 1 MiB at a time: pseudo-random integers, or
// finite big-endian floats (random bits would make NaNs and denormals).
void AppendNoise(FILE* out, long long bytes, bool bigEndianFloats = false)
{
    std::vector<uint8_t> chunk(1 << 20);
    uint32_t state = 2463534242u;
    for (size_t i = 0; i < chunk.size(); i += 4) {
        state ^= state << 13, state ^= state >> 17, state ^= state << 5;
        const uint32_t word = bigEndianFloats ? FloatToBits(static_cast<float>(static_cast<int16_t>(state))) : state;
        for (int k = 0; k < 4; ++k)
            chunk[i + static_cast<size_t>(k)] = static_cast<uint8_t>(bigEndianFloats ? word >> (24 - 8 * k) : word >> (8 * k));
    }
    for (long long done = 0; done < bytes; done += static_cast<long long>(chunk.size()))
        std::fwrite(chunk.data(), 1, static_cast<size_t>(std::min<long long>(bytes - done, chunk.size())), out);
}

struct Recording {
    std::string path;
    long long dataOffset;
    long long dataBytes;
    int sampleBytes;
    bool bigEndian;
    bool isFloat;
    std::string dataPath = {};  // the samples' file, when not `path`
    bool exact = false;         // converted in double and rounded once (EDF, BDF and the newer readers)
    const std::string& DataFile() const { return dataPath.empty() ? path : dataPath; }
};

void WriteFile(const std::string& path, const Bytes& header, long long dataBytes, const Bytes& trailer = Bytes())
{
    FILE* out = std::fopen(path.c_str(), "wb");
    std::fwrite(header.data().data(), 1, header.size(), out);
    AppendNoise(out, dataBytes);
    std::fwrite(trailer.data().data(), 1, trailer.size(), out);
    std::fclose(out);
}

Recording Neuroscan(const std::string& dir, const char* name, int width, bool blocked)
{
    NeuroscanSpec spec;
    spec.labels.clear();
    for (int c = 0; c < kChannels; ++c)
        spec.labels.push_back("E" + std::to_string(c + 1));
    const long long sliceBytes = static_cast<long long>(kChannels) * width;
    long long slices = DataBytes() / sliceBytes;
    if (blocked)
        slices -= slices % 1000;
    const long long hs = static_cast<long long>(NeuroscanHeaderSize(kChannels));
    spec.eventTablePos = static_cast<int32_t>(hs + slices * sliceBytes);
    spec.numSamples = static_cast<uint32_t>(slices);
    spec.continuousType = blocked ? 3 : 1;
    spec.channelOffset = blocked ? 2000 : 0;
    const std::string path = dir + "/" + name;
    Bytes table;
    table.u8(0).i32le(0).i32le(0);
    WriteFile(path, NeuroscanHeader(spec), slices * sliceBytes, table);
    return {path, hs, slices * sliceBytes, width, false, false};
}

Recording Edf(const std::string& dir, const char* name, bool bdf)
{
    EdfSpec spec;
    spec.bdf = bdf;
    const int bytes = bdf ? 3 : 2;
    for (int c = 0; c < kChannels; ++c) {
        EdfSignal s;
        s.label = "E" + std::to_string(c + 1);
        s.samples = 512;
        spec.signals.push_back(s);
    }
    const long long recordBytes = 512LL * kChannels * bytes;
    const long long records = DataBytes() / recordBytes;
    spec.records = std::to_string(records);
    const Bytes file = EdfFile(spec);  // header plus one record of zeros
    Bytes header;
    for (size_t i = 0; i < 256u * (kChannels + 1); ++i)
        header.u8(file.data()[i]);
    const std::string path = dir + "/" + name;
    WriteFile(path, header, records * recordBytes);
    return {path, static_cast<long long>(header.size()), records * recordBytes, bytes, false, false, {}, true};
}

Bytes FiffTag(uint32_t kind, uint32_t type, const Bytes& data, uint32_t next = 0)
{
    Bytes b;
    b.u32be(kind).u32be(type).u32be(static_cast<uint32_t>(data.size())).u32be(next);
    for (uint8_t v : data.data())
        b.u8(v);
    return b;
}

void Append(Bytes& to, const Bytes& from)
{
    for (uint8_t v : from.data())
        to.u8(v);
}

Bytes FiffHeader()
{
    Bytes h;
    Append(h, FiffTag(100, 31, Bytes().zeros(20)));
    Append(h, FiffTag(204, 3, Bytes().u32be(0)));
    Append(h, FiffTag(200, 3, Bytes().u32be(kChannels)));
    Append(h, FiffTag(201, 4, Bytes().f32be(1000.0f)));
    for (int c = 0; c < kChannels; ++c) {
        Bytes info;
        info.u32be(static_cast<uint32_t>(c)).u32be(static_cast<uint32_t>(c)).u32be(1).f32be(1.0f).f32be(1e-13f);
        info.zeros(52).u32be(112).u32be(0).text("MEG" + std::to_string(c), 16, '\0');
        Append(h, FiffTag(203, 30, info));
    }
    return h;
}

Recording Fiff(const std::string& dir, const char* name, uint32_t type, int bytes)
{
    const long long bufferBytes = 1000LL * kChannels * bytes;
    const long long buffers = DataBytes() / (bufferBytes + 16);
    const std::string path = dir + "/" + name;
    FILE* out = std::fopen(path.c_str(), "wb");
    const Bytes header = FiffHeader();
    std::fwrite(header.data().data(), 1, header.size(), out);
    for (long long b = 0; b < buffers; ++b) {
        Bytes patched;
        patched.u32be(300).u32be(type).u32be(static_cast<uint32_t>(bufferBytes)).u32be(0);
        std::fwrite(patched.data().data(), 1, 16, out);
        AppendNoise(out, bufferBytes, type == 4);
    }
    const Bytes end = FiffTag(108, 0, Bytes(), 0xFFFFFFFF);
    std::fwrite(end.data().data(), 1, end.size(), out);
    std::fclose(out);
    return {path, static_cast<long long>(header.size()), buffers * (bufferBytes + 16), bytes, true, type == 4};
}

Recording Generic(const std::string& dir, const char* name)
{
    const long long slices = DataBytes() / (4LL * kChannels);
    const std::string path = dir + "/" + name;
    std::string header = "<ORVA_Header>\n<DataFormat>Float</DataFormat>\n<MatrixOrientation>Slice_Mode</MatrixOrientation>\n"
                         "<RunType>Continuous</RunType>\n<NumSlices>" + std::to_string(slices) +
                         "</NumSlices>\n<SampleRate>1000</SampleRate>\n<NumChans>" + std::to_string(kChannels) +
                         "</NumChans>\n</ORVA_Header>\n";
    FILE* h = std::fopen((path + ".orva_hdr").c_str(), "wb");
    std::fwrite(header.data(), 1, header.size(), h);
    std::fclose(h);
    // Finite floats: a ramp pattern rather than random bits (which would include NaNs).
    FILE* out = std::fopen(path.c_str(), "wb");
    std::vector<float> chunk(1 << 18);
    for (size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<float>(i % 4096) * 0.25f;
    const long long total = slices * 4LL * kChannels;
    for (long long done = 0; done < total; done += static_cast<long long>(chunk.size() * 4))
        std::fwrite(chunk.data(), 1, static_cast<size_t>(std::min<long long>(total - done, chunk.size() * 4)), out);
    std::fclose(out);
    return {path, 0, total, 4, false, true};
}

// The 1 GB-class case: BrainVision INT_16 multiplexed, four times the other files' size.
Recording BrainVisionInt16(const std::string& dir, const char* name)
{
    const long long slices = 4 * DataBytes() / (2LL * kChannels);
    const std::string path = dir + "/" + name;
    std::string header = "Brain Vision Data Exchange Header File Version 2.0\n[Common Infos]\nDataFile=" + std::string(name) +
                         ".eeg\nDataFormat=BINARY\nDataOrientation=MULTIPLEXED\nNumberOfChannels=" +
                         std::to_string(kChannels) + "\nSamplingInterval=1000\n[Binary Infos]\nBinaryFormat=INT_16\n"
                         "[Channel Infos]\n";
    for (int c = 0; c < kChannels; ++c)
        header += "Ch" + std::to_string(c + 1) + "=E" + std::to_string(c + 1) + ",,0.1,uV\n";
    FILE* h = std::fopen(path.c_str(), "wb");
    std::fwrite(header.data(), 1, header.size(), h);
    std::fclose(h);
    WriteFile(path + ".eeg", Bytes(), slices * 2 * kChannels);
    return {path, 0, slices * 2 * kChannels, 2, false, false, path + ".eeg"};
}

// CFWB int16, interleaved behind its channel headers.
Recording Cfwb(const std::string& dir, const char* name)
{
    const long long slices = DataBytes() / (2LL * kChannels);
    const std::vector<CfwbChannel> channels(kChannels, CfwbChannel{"E", "uV", 0.1, 0});
    Bytes header = CfwbFile(3, channels, std::vector<std::vector<double>>(kChannels), 0.001);
    header.put_u32le(56, static_cast<uint32_t>(slices));
    const std::string path = dir + "/" + name;
    WriteFile(path, header, slices * 2 * kChannels);
    return {path, static_cast<long long>(header.size()), slices * 2 * kChannels, 2, false, false, {}, true};
}

// CTF: a .ds folder of 10-second trials of big-endian int32 samples, channel by channel.
Recording Ctf(const std::string& dir)
{
    const int samples = 12000;
    const long long trialBytes = 4LL * kChannels * samples, trials = std::max(1LL, DataBytes() / trialBytes);
    const std::string folder = dir + "/c.ds/";
    mkdir(folder.c_str(), 0700);
    std::vector<CtfChannel> channels;
    for (int c = 0; c < kChannels; ++c)
        channels.push_back({"M" + std::to_string(c), 5, 1e15});
    CtfRes4(channels, samples, 1200, 0).write(folder + "c.res4");
    WriteFile(folder + "c.meg4", Bytes().text("MEG41CP", 8, '\0'), trials * trialBytes);
    return {folder + "c.res4", 8, trials * trialBytes, 4, true, false, folder + "c.meg4", true};
}

// An MFF folder of one signal block (float32, channel-major), under 2 GiB as a block must be.
Recording Mff(const std::string& dir, const char* name)
{
    const std::string folder = dir + "/" + name;
    mkdir(folder.c_str(), 0700);
    WriteTextFile(folder + "/info.xml", "<fileInfo><recordTime>2020-01-29T06:19:39.000000-08:00</recordTime></fileInfo>");
    WriteTextFile(folder + "/info1.xml", "<dataInfo><generalInformation><fileDataType><EEG/></fileDataType></generalInformation></dataInfo>");
    const long long samples = DataBytes() / (4LL * kChannels), headerBytes = 20 + 8 * kChannels;
    Bytes header = Bytes().u32le(1).u32le(static_cast<uint32_t>(headerBytes)).u32le(static_cast<uint32_t>(samples * 4 * kChannels)).u32le(kChannels);
    for (int c = 0; c < kChannels; ++c)
        header.u32le(static_cast<uint32_t>(4 * samples * c));
    for (int c = 0; c < kChannels; ++c)
        header.u32le(1000u << 8 | 32u);
    WriteFile(folder + "/signal1.bin", header.u32le(0), samples * 4 * kChannels);
    return {folder, headerBytes, samples * 4 * kChannels, 4, false, true, folder + "/signal1.bin", true};
}

// eXimia: the samples alone, 64 channels of 16 bits (kChannels is the format's own count).
Recording Nexstim(const std::string& dir, const char* name)
{
    const long long bytes = DataBytes() / (2LL * kChannels) * (2LL * kChannels);
    const std::string path = dir + "/" + name;
    WriteFile(path, Bytes(), bytes);
    return {path, 0, bytes, 2, false, false, {}, true};
}

// ANT: RF64 with RAW3 blocks of first differences in 4-bit residuals (a sawtooth, so that every
// sixteenth value is an exception). Compressed: its rate counts the decoded int32 bytes.
Recording Ant(const std::string& dir, const char* name)
{
    const long long slices = DataBytes() / (4LL * kChannels);
    AntSpec spec;
    spec.rf64 = true;
    spec.blockSlices = 1000;
    spec.values.assign(kChannels, std::vector<int32_t>(static_cast<size_t>(slices)));
    spec.order.clear();
    for (int c = 0; c < kChannels; ++c) {
        spec.order.push_back(static_cast<int16_t>(c));
        for (long long t = 0; t < slices; ++t)
            spec.values[static_cast<size_t>(c)][static_cast<size_t>(t)] = static_cast<int32_t>((t + c) % 16 - 8);
    }
    const std::string path = dir + "/" + name;
    AntFile(spec).write(path);
    return {path, 0, slices * 4 * kChannels, 4, false, false};
}

// Persyst: a layout of kChannels labels beside interleaved int16 samples in f.dat.
Recording Persyst(const std::string& dir)
{
    std::vector<std::string> labels;
    for (int c = 0; c < kChannels; ++c)
        labels.push_back("E" + std::to_string(c + 1));
    WriteTextFile(dir + "/p.lay", PersystLayout(labels, 0, 0, ""));
    const long long bytes = DataBytes() / (2LL * kChannels) * (2LL * kChannels);
    WriteFile(dir + "/f.dat", Bytes(), bytes);
    return {dir + "/p.lay", 0, bytes, 2, false, false, dir + "/f.dat", true};
}

// NicVue export: two int16 channels, the header's sample count matching the data.
Recording NicVue(const std::string& dir)
{
    const long long slices = DataBytes() / 4;
    WriteTextFile(dir + "/n.head", NicVueHeader(static_cast<int>(slices)));
    WriteFile(dir + "/n.data", Bytes(), slices * 4);
    return {dir + "/n.data", 0, slices * 4, 2, false, false, {}, true};
}

// WinDaq: 16 channels of packed readings (flag bits cleared by the reader), the channel names after
// the data; found by its extension.
Recording WinDaq(const std::string& dir)
{
    const int channels = 16;
    const Bytes file = WinDaqFile(false, std::vector<WinDaqChannel>(channels, WinDaqChannel{"E", "V", 0.001, 0}), {}, 0.001, {}, "");
    const long long bytes = DataBytes() / (2LL * channels) * (2LL * channels);
    Bytes head = Bytes().raw(std::string(file.data().begin(), file.data().begin() + 1156));
    head.put_u32le(8, static_cast<uint32_t>(bytes));
    const std::string path = dir + "/w.wdq";
    WriteFile(path, head, bytes, Bytes().raw(std::string(file.data().begin() + 1156, file.data().end())));
    return {path, 1156, bytes, 2, false, false, {}, true};
}

// Plexon: four slow channels at 1 kHz in blocks of 4096 samples, interleaved in time as the
// acquisition writes them (the block headers count in the bytes read).
Recording Plexon(const std::string& dir)
{
    const int channels = 4, words = 4096;
    const long long rounds = std::max(1LL, DataBytes() / (2LL * channels * words));
    std::vector<PlxSlow> slow;
    for (int c = 0; c < channels; ++c)
        slow.push_back({"AD" + std::to_string(c + 1), c, 1000});
    std::vector<PlxBlock> blocks;
    for (long long r = 0; r < rounds; ++r)
        for (int c = 0; c < channels; ++c)
            blocks.push_back({5, r * words * 40, c, 0, std::vector<int16_t>(words, static_cast<int16_t>(r - c))});
    const Bytes file = PlexonFile(106, {}, {}, slow, blocks);
    const long long dataBytes = rounds * channels * (16 + 2LL * words);
    const std::string path = dir + "/p.plx";
    file.write(path);
    return {path, static_cast<long long>(file.size()) - dataBytes, dataBytes, 2, false, false, {}, true};
}

// 4D: 16-bit big-endian slices, then the header; the configuration beside the pdf.
Recording FourDPdf(const std::string& dir, const char* name)
{
    const long long slices = DataBytes() / (2LL * kChannels);
    FourDSpec spec{1, {static_cast<int>(slices)}, {}};
    for (int c = 0; c < kChannels; ++c)
        spec.channels.push_back({"A" + std::to_string(c + 1), 1, 1e-13f});
    const std::string path = dir + "/" + name;
    FourDConfig(spec.channels).write(dir + "/4d_config");
    WriteFile(path, Bytes(), slices * 2 * kChannels, FourDHeader(spec, slices * 2 * kChannels));
    return {path, 0, slices * 2 * kChannels, 2, true, false, {}, true};
}

// Nihon Kohden: kChannels electrodes at 1000 Hz in one data block, each slice with its extra value.
Recording NihonKohden(const std::string& dir)
{
    std::vector<int> codes;
    std::string names = "[ELECTRODE]\n";
    for (int c = 0; c < kChannels; ++c) {
        codes.push_back(c);
        names += std::to_string(1000 + c).substr(1) + "=E" + std::to_string(c + 1) + "\n";
    }
    WriteTextFile(dir + "/k.21E", names);
    const long long tenthBytes = 100LL * (kChannels + 1) * 2, tenths = DataBytes() / tenthBytes;
    Bytes head = NkEeg(codes, 1000, 0, {{}});
    head.put_u32le(0x200 + 0x1c, static_cast<uint32_t>(tenths));
    WriteFile(dir + "/k.EEG", head, tenths * tenthBytes);
    return {dir + "/k.EEG", static_cast<long long>(head.size()), tenths * tenthBytes, 2, false, false};
}

// Micromed: a type-4 header of kChannels µV electrodes, unsigned 16-bit samples.
Recording Micromed(const std::string& dir)
{
    std::vector<MmElectrode> electrodes;
    for (int c = 0; c < kChannels; ++c)
        electrodes.push_back({"E" + std::to_string(c + 1), 0, 0, 65535, 32768, -3200, 3200, 2});
    const Bytes head = MmTrc(4, 2, electrodes, {}, {}, {});
    const long long bytes = DataBytes() / (2LL * kChannels) * (2LL * kChannels);
    WriteFile(dir + "/m.TRC", head, bytes);
    return {dir + "/m.TRC", static_cast<long long>(head.size()), bytes, 2, false, false};
}

struct Files {
    std::string dir;
    std::map<std::string, Recording> byName;
    Files()
    {
        char tmpl[] = "/tmp/filelib_bench_XXXXXX";
        dir = mkdtemp(tmpl);
        byName["NeuroscanInt16"] = Neuroscan(dir, "n16.cnt", 2, false);
        byName["NeuroscanInt32"] = Neuroscan(dir, "n32.cnt", 4, false);
        byName["NeuroscanBlocked"] = Neuroscan(dir, "nblk.cnt", 2, true);
        byName["EDF"] = Edf(dir, "e.edf", false);
        byName["BDF"] = Edf(dir, "b.bdf", true);
        byName["FiffFloat"] = Fiff(dir, "f.fif", 4, 4);
        byName["FiffInt16"] = Fiff(dir, "s.fif", 2, 2);
        byName["GenericFloat"] = Generic(dir, "g.f32");
        byName["BrainVisionInt16x4"] = BrainVisionInt16(dir, "bv.vhdr");
        byName["CFWBInt16"] = Cfwb(dir, "c.bin");
        byName["CtfInt32"] = Ctf(dir);
        byName["MffFloat"] = Mff(dir, "m.mff");
        byName["NexstimInt16"] = Nexstim(dir, "x.nxe");
        byName["FourDInt16"] = FourDPdf(dir, "4d_pdf");
        byName["AntRaw3"] = Ant(dir, "a.cnt");
        byName["PersystInt16"] = Persyst(dir);
        byName["NicVueInt16x2"] = NicVue(dir);
        byName["WinDaqInt16x16"] = WinDaq(dir);
        byName["PlexonInt16x4"] = Plexon(dir);
        byName["NihonKohdenUInt16"] = NihonKohden(dir);
        byName["MicromedUInt16"] = Micromed(dir);
    }
    ~Files()
    {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

Files& TheFiles()
{
    static Files files;
    return files;
}

void Open(CFilelib& f, const Recording& r)
{
    std::string name = r.path;
    if (f.GuessFileMFR(name) == 0)
        f.SetFileSource(UnprobedReaderByExtension(r.path));  // Persyst: never detected
    if (f.GetFileSource() == 0)
        throw std::runtime_error("not recognised: " + r.path);
    f.Initialize(0);
}

void BM_ReadData(benchmark::State& state, const std::string& format)
{
    const Recording& r = TheFiles().byName.at(format);
    CFilelib f;
    Open(f, r);
    ecLabeledMatrix<float> block;
    for (auto _ : state) {
        double sum = 0;
        for (int first = 0, n; (n = f.ReadData(block, first, kBlock)) > 0; first += n)
            sum += block[0][0];
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * r.dataBytes);
}

inline float FloatOf(uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

// The practical limit: fread 1 MiB blocks and convert every sample, in storage order, with one
// scale factor in a loop specialised for the sample type.
template <typename Convert>
void PlainLoopWith(benchmark::State& state, const Recording& r, Convert convert)
{
    const size_t width = static_cast<size_t>(r.sampleBytes);
    std::vector<uint8_t> raw((1 << 20) - (1 << 20) % width);
    std::vector<float> out(raw.size() / width);
    for (auto _ : state) {
        FILE* fp = std::fopen(r.DataFile().c_str(), "rb");
        fseeko(fp, r.dataOffset, SEEK_SET);
        double sum = 0;
        for (long long done = 0; done < r.dataBytes;) {
            const size_t want = static_cast<size_t>(std::min<long long>(r.dataBytes - done, static_cast<long long>(raw.size())));
            const size_t got = std::fread(raw.data(), 1, want, fp);
            if (got == 0)
                break;
            const size_t n = got / width;
            const uint8_t* p = raw.data();
            for (size_t i = 0; i < n; ++i, p += width)
                out[i] = convert(p);
            sum += out[0];
            done += static_cast<long long>(got);
        }
        std::fclose(fp);
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * r.dataBytes);
}

// In the format's own arithmetic: double rounded once where its values must be exact (EDF, BDF).
template <typename Decode>
void PlainLoop(benchmark::State& state, const Recording& r, Decode decode)
{
    if (r.exact)
        return PlainLoopWith(state, r, [decode](const uint8_t* p) {
            return static_cast<float>((static_cast<double>(decode(p)) + 0.5) * 1e-7);
        });
    PlainLoopWith(state, r, [decode](const uint8_t* p) { return decode(p) * 1e-7f; });
}

void BM_Baseline(benchmark::State& state, const std::string& format)
{
    const Recording& r = TheFiles().byName.at(format);
    if (r.sampleBytes == 3)
        return PlainLoop(state, r, [](const uint8_t* p) {
            return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(p[0] << 8 | p[1] << 16 | p[2] << 24)) >> 8);
        });
    if (r.sampleBytes == 2 && r.bigEndian)
        return PlainLoop(state, r, [](const uint8_t* p) { return static_cast<float>(static_cast<int16_t>(LoadU16BE(p))); });
    if (r.sampleBytes == 2)
        return PlainLoop(state, r, [](const uint8_t* p) { return static_cast<float>(static_cast<int16_t>(LoadU16LE(p))); });
    if (r.isFloat && r.bigEndian)
        return PlainLoop(state, r, [](const uint8_t* p) { return FloatOf(LoadU32BE(p)); });
    if (r.isFloat)
        return PlainLoop(state, r, [](const uint8_t* p) { return FloatOf(LoadU32LE(p)); });
    if (r.bigEndian)
        return PlainLoop(state, r, [](const uint8_t* p) { return static_cast<float>(static_cast<int32_t>(LoadU32BE(p))); });
    return PlainLoop(state, r, [](const uint8_t* p) { return static_cast<float>(static_cast<int32_t>(LoadU32LE(p))); });
}

void BM_Open(benchmark::State& state, const std::string& format)
{
    const Recording& r = TheFiles().byName.at(format);
    for (auto _ : state) {
        CFilelib f;
        Open(f, r);
        benchmark::DoNotOptimize(f.GetNumSlices());
    }
}

void BM_FindAllTriggers(benchmark::State& state)
{
    const Recording& r = TheFiles().byName.at("EDF");
    CFilelib f;
    Open(f, r);
    f.GetActiveFile()->SetChanType(0, 0x8000);
    for (auto _ : state) {
        ecEventList events;
        benchmark::DoNotOptimize(f.GetActiveFile()->FindAllTriggers(&events, 0, 1e-3f, 0, false, nullptr));
    }
    state.SetBytesProcessed(state.iterations() * r.dataBytes);
}

void BM_FiffTagWalk50000(benchmark::State& state)
{
    static const std::string path = TheFiles().dir + "/tags.fif";
    static const bool written = [] {
        Bytes b = FiffHeader();
        for (int i = 0; i < 50000; ++i)
            Append(b, FiffTag(108, 3, Bytes().u32be(static_cast<uint32_t>(i))));
        Append(b, FiffTag(108, 0, Bytes(), 0xFFFFFFFF));
        b.write(path);
        return true;
    }();
    benchmark::DoNotOptimize(written);
    for (auto _ : state) {
        ecNeuromag_FIFF reader(path.c_str());
        reader.SetInputFilePointer(std::fopen(path.c_str(), "rb"));
        reader.ReadAllTagRecords();
        benchmark::DoNotOptimize(reader.GetDirectory().size());
    }
}

const char* const kFormats[] = {"NeuroscanInt16", "NeuroscanInt32", "NeuroscanBlocked", "EDF",          "BDF",
                                "FiffFloat",      "FiffInt16",      "GenericFloat",     "BrainVisionInt16x4",
                                "CFWBInt16",      "CtfInt32",       "MffFloat",         "NexstimInt16", "FourDInt16",
                                "PersystInt16",   "NicVueInt16x2",  "WinDaqInt16x16",   "PlexonInt16x4",
                                "NihonKohdenUInt16", "MicromedUInt16"};

int Register()
{
    for (const char* format : kFormats) {
        benchmark::RegisterBenchmark((std::string("Baseline/") + format).c_str(), BM_Baseline, std::string(format))
            ->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("ReadData/") + format).c_str(), BM_ReadData, std::string(format))
            ->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Open/") + format).c_str(), BM_Open, std::string(format))
            ->Unit(benchmark::kMillisecond);
    }
    // Compressed: no plain loop reads its samples, so it has no ratio, only its decoding rate.
    benchmark::RegisterBenchmark("ReadData/AntRaw3", BM_ReadData, std::string("AntRaw3"))
        ->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
    benchmark::RegisterBenchmark("FindAllTriggers/EDF", BM_FindAllTriggers)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("FiffTagWalk/50000", BM_FiffTagWalk50000)->Unit(benchmark::kMillisecond);
    return 0;
}
const int registered = Register();

// Prints the console table as usual and remembers every run's rate for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        // With repetitions, the median stands for the format (other aggregates are not rates).
        for (const Run& run : runs) {
            const bool aggregate = run.run_type == Run::RT_Aggregate;
            if (run.error_occurred || !run.counters.count("bytes_per_second") ||
                (aggregate && run.aggregate_name != "median"))
                continue;
            if (aggregate || !medians.count(run.run_name.function_name))
                rates[run.run_name.function_name] = run.counters.at("bytes_per_second").value;
            if (aggregate)
                medians.insert(run.run_name.function_name);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
    std::set<std::string> medians;
};

}  // namespace

// The reading speed of every format as a fraction of its plain loop, measured in this run.
int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n%-20s %10s %10s %7s\n", "format", "ReadData", "baseline", "ratio");
    for (const char* format : kFormats) {
        const auto read = reporter.rates.find(std::string("ReadData/") + format);
        const auto base = reporter.rates.find(std::string("Baseline/") + format);
        if (read != reporter.rates.end() && base != reporter.rates.end())
            std::printf("%-20s %7.2f GB/s %5.2f GB/s %7.2f\n", format, read->second / 1e9, base->second / 1e9,
                        read->second / base->second);
    }
    return 0;
}
