// Malformed input, reader by reader: truncation at every header boundary, counts of 0, -1,
// 65535 and 2^31-1, sizes that overflow 32 bits, offsets past the end, zero, negative and NaN
// rates, text in numeric fields, loops. Every variant must either read or fail with the
// library's own error (a text that starts with the bracketed class and method): never a crash,
// a sanitizer report, or a standard-library error from a size taken on trust.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>

#include "filelib/filelib.h"
#include "fixtures/EdfFiles.h"
#include "fixtures/Exercise.h"
#include "fixtures/GenericFiles.h"
#include "fixtures/NeuroscanFiles.h"
#include "fixtures/ReaderCases.h"
#include "fixtures/VendorFiles.h"

namespace {

using Buffer = std::vector<uint8_t>;

void Write(const std::string& path, const Buffer& bytes)
{
    Bytes b;
    for (uint8_t v : bytes)
        b.u8(v);
    b.write(path);
}

Buffer Of(const Bytes& b) { return b.data(); }

// Every variant is written to `path` and read; the outcome must be clean.
class Sweep {
public:
    explicit Sweep(std::string path) : m_path(std::move(path)) {}
    void Try(const Buffer& bytes, const std::string& what)
    {
        Write(m_path, bytes);
        const std::string outcome = ExerciseRecording(m_path);
        ++m_variants;
        EXPECT_TRUE(outcome.empty() || outcome[0] == '[') << what << ": " << outcome;
        if (!outcome.empty())
            ++m_refused;
    }
    // Every length from 0 to `upTo`, then every `step` bytes to the whole file.
    void Truncations(const Buffer& bytes, size_t upTo, size_t step)
    {
        for (size_t n = 0; n < bytes.size(); n += n < upTo ? 1 : step)
            Try(Buffer(bytes.begin(), bytes.begin() + static_cast<long>(n)), "cut at " + std::to_string(n));
    }
    // Integer fields overwritten with the awkward counts, little- or big-endian.
    void Integers(const Buffer& bytes, const std::vector<size_t>& offsets, int width, bool bigEndian)
    {
        for (size_t at : offsets)
            for (uint32_t v : {0u, 1u, 0xFFFFu, 0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, 0x10000u}) {
                Buffer b = bytes;
                for (int k = 0; k < width && at + static_cast<size_t>(k) < b.size(); ++k) {
                    const int shift = 8 * (bigEndian ? width - 1 - k : k);
                    b[at + static_cast<size_t>(k)] = static_cast<uint8_t>(v >> shift);
                }
                Try(b, "field at " + std::to_string(at) + " = " + std::to_string(v));
            }
    }
    // Text fields of fixed width replaced with awkward numbers and words.
    void Texts(const Buffer& bytes, const std::vector<std::pair<size_t, size_t>>& fields)
    {
        for (const auto& [at, width] : fields)
            for (const char* text : {"0", "-1", "65535", "2147483647", "4294967296", "nan", "-0.5", "abc", "1e308", ""}) {
                Buffer b = bytes;
                for (size_t k = 0; k < width; ++k)
                    b[at + k] = static_cast<uint8_t>(k < std::strlen(text) ? text[k] : ' ');
                Try(b, "text at " + std::to_string(at) + " = '" + text + "'");
            }
    }
    int Variants() const { return m_variants; }
    int Refused() const { return m_refused; }

private:
    std::string m_path;
    int m_variants = 0;
    int m_refused = 0;
};

// Replaces every occurrence of `key` + value up to the line end in a text header.
std::string WithValue(std::string text, const std::string& key, const std::string& value)
{
    const size_t at = text.find(key);
    if (at == std::string::npos)
        return text;
    const size_t start = at + key.size();
    const size_t end = text.find_first_of("\r\n<", start);
    return text.replace(start, end - start, value);
}

const char* const kAwkward[] = {"0", "-1", "65535", "2147483647", "4294967296", "nan", "-0.5", "abc", "1e308", ""};

}  // namespace

TEST(Malformed, Neuroscan)
{
    TempDir dir;
    // The continuous seed of the reader-case table: 2 channels of 8 slices, its event table after them.
    const std::string seed = FindReaderCase("neuroscan")->seeds().front().second;
    const Buffer cnt(seed.begin(), seed.end());
    const size_t hs = NeuroscanHeaderSize(2);
    Sweep sweep(dir.path("m.cnt"));
    sweep.Truncations(cnt, hs + 90, 3);
    sweep.Integers(cnt, {362, 368, 370, 376, 864, 886, 894, hs + 32 + 1, 900 + 15, 900 + 47}, 4, false);
    sweep.Integers(cnt, {370, 885, 20, 538, 804}, 1, false);
    // NaN and infinite electrode gains: values, never a crash.
    Buffer nanGain = cnt;
    for (size_t k = 0; k < 4; ++k)
        nanGain[900 + 59 + k] = 0xFF;
    sweep.Try(nanGain, "NaN sensitivity");
    // Epoched and averaged kinds with huge sweeps and points.
    NeuroscanSpec spec;
    spec.points = 4;
    spec.sweeps = 2;
    Bytes eeg = NeuroscanHeader(spec);
    eeg.zeros(2 * (13 + 2 * 4 * 2));
    Sweep epochs(dir.path("m.eeg"));
    epochs.Integers(Of(eeg), {362, 368}, 2, false);
    epochs.Truncations(Of(eeg), 0, 5);
    Sweep avg(dir.path("m.avg"));
    avg.Integers(Of(eeg), {362, 368, 900 + 15, 375}, 2, false);
    EXPECT_GT(sweep.Refused(), 0);
}

TEST(Malformed, EdfAndBdf)
{
    TempDir dir;
    for (bool bdf : {false, true}) {
        EdfSpec spec;
        spec.bdf = bdf;
        spec.reserved = bdf ? "BDF+C" : "EDF+C";
        spec.records = "2";
        EdfSignal s;
        s.samples = 4;
        s.values = {1, 2, 3, 4, 5, 6, 7, 8};
        EdfSignal a;
        a.label = bdf ? "BDF Annotations" : "EDF Annotations";
        a.samples = 12;
        a.annotations = {std::string("+0\x14\x14\0+0.5\x15" "1\x14" "x\x14", 14), "+1\x14\x14"};
        spec.signals = {s, a};
        const Buffer file = Of(EdfFile(spec));
        Sweep sweep(dir.path(bdf ? "m.bdf" : "m.edf"));
        sweep.Truncations(file, 768 + 10, 7);
        std::vector<std::pair<size_t, size_t>> fields = {{184, 8}, {236, 8}, {244, 8}, {252, 4}};
        for (size_t block : {104u, 112u, 120u, 128u}) {
            fields.push_back({256 + block * 2, 8});
            fields.push_back({256 + block * 2 + 8, 8});
        }
        fields.push_back({256 + 216 * 2, 8});
        fields.push_back({256 + 216 * 2 + 8, 8});
        sweep.Texts(file, fields);
        // Discontinuous: record onsets that go backwards, jump far or are not numbers.
        spec.reserved = bdf ? "BDF+D" : "EDF+D";
        for (const char* onset : {"+0.5", "-3", "+1e12", "+x", "+99999999"}) {
            spec.signals[1].annotations = {"+0\x14\x14", std::string(onset) + "\x14\x14"};
            sweep.Try(Of(EdfFile(spec)), std::string("record onset ") + onset);
        }
        // Records whose size times their count overflows 64 bits.
        EdfSpec wide;
        wide.bdf = bdf;
        wide.records = "99999999";
        for (int k = 0; k < 400; ++k) {
            EdfSignal big;
            big.samples = 99999999;
            wide.signals.push_back(big);
        }
        sweep.Try(Of(EdfHeader(wide)), "400 signals of 99,999,999 samples in 99,999,999 records");
        EXPECT_GT(sweep.Refused(), 0);
    }
}

TEST(Malformed, Generic)
{
    TempDir dir;
    GenericSpec spec;
    spec.epochs = 2;
    spec.runType = "MultiEpoch";
    const std::string path = WriteGenericPair(dir, "g.dat", spec, {{1, 2, 3, 4}, {5, 6, 7, 8}});
    const std::string header = GenericHeader(spec);
    Sweep sweep(path + ".probe");
    int variants = 0;
    for (const char* key : {"<NumChans>", "<NumSlices>", "<NumEpochs>", "<OffsetToData>", "<SampleRate>", "<Scale>"}) {
        for (const char* value : kAwkward) {
            WriteTextFile(path + ".orva_hdr", WithValue(header, key, value));
            const std::string outcome = ExerciseRecording(path);
            EXPECT_TRUE(outcome.empty() || outcome[0] == '[') << key << value << ": " << outcome;
            ++variants;
        }
    }
    for (size_t n = 0; n < header.size(); n += 11) {
        WriteTextFile(path + ".orva_hdr", header.substr(0, n));
        const std::string outcome = ExerciseRecording(path);
        EXPECT_TRUE(outcome.empty() || outcome[0] == '[') << "header cut at " << n << ": " << outcome;
    }
    EXPECT_GT(variants, 0);
}

TEST(Malformed, BrainVision)
{
    TempDir dir;
    const std::string header =
        "Brain Vision Data Exchange Header File Version 2.0\n[Common Infos]\nDataFile=b.eeg\nMarkerFile=b.vmrk\n"
        "DataFormat=BINARY\nDataOrientation=VECTORIZED\nNumberOfChannels=2\nSamplingInterval=1000\nDataPoints=4\n"
        "SegmentationType=MARKERBASED\nSegmentDataPoints=2\n[Binary Infos]\nBinaryFormat=INT_32\n[Channel Infos]\n"
        "Ch1=A,,0.5,uV\nCh2=B,,1,mV\n";
    const std::string markers = "[Marker Infos]\nMk1=New Segment,,1,1,0\nMk2=Stimulus,S  1,3,1,0\n";
    Bytes data;
    for (int i = 0; i < 8; ++i)
        data.i32le(i * 1000);
    data.write(dir.path("b.eeg"));
    WriteTextFile(dir.path("b.vmrk"), markers);
    auto check = [&](const std::string& h, const std::string& m, const std::string& what) {
        WriteTextFile(dir.path("b.vhdr"), h);
        WriteTextFile(dir.path("b.vmrk"), m);
        const std::string outcome = ExerciseRecording(dir.path("b.vhdr"));
        EXPECT_TRUE(outcome.empty() || outcome[0] == '[') << what << ": " << outcome;
    };
    for (const char* key : {"NumberOfChannels=", "SamplingInterval=", "DataPoints=", "SegmentDataPoints=", "Ch1=A,,",
                            "DataFile=", "MarkerFile="})
        for (const char* value : kAwkward)
            check(WithValue(header, key, value), markers, std::string(key) + value);
    for (const char* position : kAwkward)
        check(header, WithValue(markers, "Mk2=Stimulus,S  1,", position), std::string("marker at ") + position);
    for (size_t n = 0; n < header.size(); n += 9)
        check(header.substr(0, n), markers, "header cut at " + std::to_string(n));
}

TEST(Malformed, EgiSimple)
{
    TempDir dir;
    Bytes egi;
    egi.u32be(4).u16be(2014).u16be(4).u16be(8).u16be(9).u16be(46).u16be(44).u32be(736);
    egi.u16be(250).u16be(2).u16be(1).u16be(0).u16be(0).u32be(3).u16be(1).text("DIN1", 4);
    for (int i = 0; i < 9; ++i)
        egi.f32be(static_cast<float>(i));
    Sweep sweep(dir.path("m.raw"));
    sweep.Truncations(Of(egi), 50, 4);
    sweep.Integers(Of(egi), {20, 22, 26, 28, 34}, 2, true);
    sweep.Integers(Of(egi), {0, 30}, 4, true);
    Buffer segmented = Of(egi);
    segmented[3] = 5;  // version 5: the category list and segment count are read from the same bytes
    sweep.Try(segmented, "segmented reading of a continuous header");
    EXPECT_GT(sweep.Refused(), 0);
}

TEST(Malformed, ErpssAndFiff)
{
    TempDir dir;
    Bytes erpss;
    erpss.u16le(0x55AA).u16le(0xB0).u16le(1).u16le(2).zeros(10).u16le(2).zeros(512 - 20);
    erpss.u16le(0x55AA).u16le(0xF0).u16le(1).u16le(2).zeros(2).u16le(2).zeros(8).u16le(1);
    erpss.u16le(3).zeros(16).u16le(4000).zeros(30).u8(1).u8(2).u16le(7).zeros(512 - 76);
    erpss.u16le(0xE064).u16le(0xE0C8).u16le(0x1200);
    Sweep e(dir.path("m.raw"));
    e.Truncations(Of(erpss), 0, 17);
    e.Integers(Of(erpss), {4, 6, 18, 512 + 4, 512 + 6, 512 + 10, 512 + 20, 512 + 22, 512 + 40}, 2, false);
    EXPECT_GT(e.Refused(), 0);

    Fiff built;
    built.tag(100, 31, Bytes().zeros(4)).u32(204, 0).u32(200, 1).f32(201, 100);
    built.tag(203, 30, Bytes().u32be(1).u32be(1).u32be(3).f32be(1).f32be(1).zeros(52).u32be(107).u32be(0).text("STI", 16, '\0'));
    built.tag(300, 3, Bytes().u32be(0).u32be(5).u32be(0)).u32(301, 2).end();
    const Bytes& fiff = built.bytes();
    Sweep f(dir.path("m.fif"));
    f.Truncations(Of(fiff), 0, 5);
    // Tag sizes and next pointers (every tag header), NCHAN and the buffers' contents.
    std::vector<size_t> sizes, nexts;
    for (size_t at : {0u, 20u, 40u, 60u, 80u, 192u, 220u, 240u}) {
        sizes.push_back(at + 8);
        nexts.push_back(at + 12);
    }
    f.Integers(Of(fiff), sizes, 4, true);
    f.Integers(Of(fiff), nexts, 4, true);
    f.Integers(Of(fiff), {56, 76, 208, 236}, 4, true);  // NCHAN, SFREQ, a sample, the skip count
    Buffer nanRate = Of(fiff);
    nanRate[76] = 0x7F, nanRate[77] = 0xC0, nanRate[78] = 0, nanRate[79] = 0;
    f.Try(nanRate, "NaN SFREQ");
    EXPECT_GT(f.Refused(), 0);
}
