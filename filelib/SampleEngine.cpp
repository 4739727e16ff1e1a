#include "filelib/SampleEngine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <immintrin.h>
#endif
#include <utility>

#include <unistd.h>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

// Large enough that a read costs far more than its call, small enough to stay in the cache's
// neighbourhood and never to matter for memory.
constexpr long long kBlockBytes = 1LL << 20;
// Slices converted across all channels before moving on: the tile's bytes stay in the first-level
// cache while every row is written sequentially.
constexpr long long kTileSlices = 64;
// Bytes between two segments (their headers) that one read may pass over rather than stop at.
constexpr long long kGapBytes = 4096;

// The stored number of each sample type, in its natural type (integers as int32_t), with the
// sample's width known at compile time so that contiguous runs vectorise.
template <int Width, typename RawType, RawType (*Load)(const uint8_t*)>
struct Decoder {
    static constexpr int kWidth = Width;
    using Raw = RawType;
    RawType operator()(const uint8_t* p) const { return Load(p); }
};

int32_t I8(const uint8_t* p) { return static_cast<int8_t>(*p); }
int32_t U8(const uint8_t* p) { return *p; }
int32_t I16LE(const uint8_t* p) { return static_cast<int16_t>(LoadU16LE(p)); }
int32_t I16BE(const uint8_t* p) { return static_cast<int16_t>(LoadU16BE(p)); }
int32_t U16LE(const uint8_t* p) { return LoadU16LE(p); }
int32_t U16BE(const uint8_t* p) { return LoadU16BE(p); }
int32_t I24LE(const uint8_t* p)
{
    const uint32_t u = static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16);
    return static_cast<int32_t>(u << 8) >> 8;
}
int32_t I24BE(const uint8_t* p)
{
    const uint32_t u = (static_cast<uint32_t>(p[0]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | static_cast<uint32_t>(p[2]);
    return static_cast<int32_t>(u << 8) >> 8;
}
int32_t I32LE(const uint8_t* p) { return static_cast<int32_t>(LoadU32LE(p)); }
int32_t I32BE(const uint8_t* p) { return static_cast<int32_t>(LoadU32BE(p)); }
// An IEEE value from its stored bits.
template <typename Value, typename Bits, Bits (*Load)(const uint8_t*)>
Value FromBits(const uint8_t* p)
{
    const Bits bits = Load(p);
    Value v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

// Calls apply(decode) with the decoder of the sample type.
template <typename Apply>
void WithDecoder(ecSampleType type, bool bigEndian, Apply apply)
{
    switch (type) {
    case ecSampleType::Int8: return apply(Decoder<1, int32_t, I8>());
    case ecSampleType::UInt8: return apply(Decoder<1, int32_t, U8>());
    case ecSampleType::Int16:
        return bigEndian ? apply(Decoder<2, int32_t, I16BE>()) : apply(Decoder<2, int32_t, I16LE>());
    case ecSampleType::UInt16:
        return bigEndian ? apply(Decoder<2, int32_t, U16BE>()) : apply(Decoder<2, int32_t, U16LE>());
    case ecSampleType::Int24:
        return bigEndian ? apply(Decoder<3, int32_t, I24BE>()) : apply(Decoder<3, int32_t, I24LE>());
    case ecSampleType::Int32:
        return bigEndian ? apply(Decoder<4, int32_t, I32BE>()) : apply(Decoder<4, int32_t, I32LE>());
    case ecSampleType::Float32:
        return bigEndian ? apply(Decoder<4, float, FromBits<float, uint32_t, LoadU32BE>>())
                         : apply(Decoder<4, float, FromBits<float, uint32_t, LoadU32LE>>());
    case ecSampleType::Float64:
        return bigEndian ? apply(Decoder<8, double, FromBits<double, uint64_t, LoadU64BE>>())
                         : apply(Decoder<8, double, FromBits<double, uint64_t, LoadU64LE>>());
    }
}

// One channel's conversion, stored number to delivered float, in one of three arithmetics.
enum Arithmetic { kSingle, kExact, kMasked, kDivided };

struct Conversion {
    double gain, shift;
    float gainF, shiftF, calFactor, calOffset;
    int64_t mask;
    float divisor;
    int mode;  // the Arithmetic

    template <int Mode, bool Calibrated, typename Decode>
    float Apply(Decode decode, const uint8_t* p) const
    {
        float v;
        if constexpr (Mode == kExact)
            v = static_cast<float>((static_cast<double>(decode(p)) + shift) * gain);
        else if constexpr (Mode == kSingle)
            v = (static_cast<float>(decode(p)) - shiftF) * gainF;
        else if constexpr (Mode == kDivided)
            v = (static_cast<float>(decode(p)) - shiftF) * gainF / divisor;
        else
            v = static_cast<float>(static_cast<int64_t>(decode(p)) & mask);
        return Calibrated ? v * calFactor + calOffset : v;
    }
};

#if defined(__GNUC__) && defined(__x86_64__)
// Eight values at a time in 256-bit registers, chosen at run time where the processor has them (no
// fused multiply-add: the arithmetic stays the scalar one lane by lane, so values are identical).
#define FILELIB_AVX2 __attribute__((target("avx2")))

struct WideLanes {
    __m256 shiftF, gainF, calFactor, calOffset;
    __m256d shift, gain;
};

FILELIB_AVX2 WideLanes WideLanesOf(const Conversion& c)
{
    return {_mm256_set1_ps(c.shiftF),    _mm256_set1_ps(c.gainF), _mm256_set1_ps(c.calFactor),
            _mm256_set1_ps(c.calOffset), _mm256_set1_pd(c.shift), _mm256_set1_pd(c.gain)};
}

// Eight values of one channel (32-bit integers, or float bits) in the channel's arithmetic.
// Unshifted: every shift is zero, which leaves an integer unchanged (no integer is -0), so the
// subtraction can go.
template <int Mode, bool Calibrated, bool Floats = false, bool Shifted = true>
FILELIB_AVX2 __m256 Convert8(__m256i v, const WideLanes& k)
{
    __m256 f;
    if constexpr (Mode == kExact && Floats) {
        const __m256 x = _mm256_castsi256_ps(v);
        const __m256d lo = _mm256_cvtps_pd(_mm256_castps256_ps128(x));
        const __m256d hi = _mm256_cvtps_pd(_mm256_extractf128_ps(x, 1));
        f = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(_mm256_mul_pd(_mm256_add_pd(lo, k.shift), k.gain))),
                                 _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_add_pd(hi, k.shift), k.gain)), 1);
    } else if constexpr (Mode == kExact) {
        const __m256d lo = _mm256_cvtepi32_pd(_mm256_castsi256_si128(v));
        const __m256d hi = _mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1));
        f = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(_mm256_mul_pd(Shifted ? _mm256_add_pd(lo, k.shift) : lo, k.gain))),
                                 _mm256_cvtpd_ps(_mm256_mul_pd(Shifted ? _mm256_add_pd(hi, k.shift) : hi, k.gain)), 1);
    } else {
        const __m256 x = Floats ? _mm256_castsi256_ps(v) : _mm256_cvtepi32_ps(v);
        f = _mm256_mul_ps(Shifted ? _mm256_sub_ps(x, k.shiftF) : x, k.gainF);
    }
    if constexpr (Calibrated)
        f = _mm256_add_ps(_mm256_mul_ps(f, k.calFactor), k.calOffset);
    return f;
}

bool WideBlocks()
{
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

FILELIB_AVX2 __m128i Bytes16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
FILELIB_AVX2 __m256i Bytes32(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// Eight stored values from p as 32-bit lanes (float bits for floats). A 3-byte load takes 32
// bytes for its 24, so its caller leaves 8 bytes behind the last value it loads.
template <typename Decode>
FILELIB_AVX2 __m256i Load8(const uint8_t* p)
{
    using D = Decode;
    const __m128i swap16 = _mm_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14);
    const __m256i swap32 = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12,
                                            3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    if constexpr (std::is_same_v<D, Decoder<1, int32_t, I8>>)
        return _mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    else if constexpr (std::is_same_v<D, Decoder<1, int32_t, U8>>)
        return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    else if constexpr (std::is_same_v<D, Decoder<2, int32_t, I16LE>>)
        return _mm256_cvtepi16_epi32(Bytes16(p));
    else if constexpr (std::is_same_v<D, Decoder<2, int32_t, I16BE>>)
        return _mm256_cvtepi16_epi32(_mm_shuffle_epi8(Bytes16(p), swap16));
    else if constexpr (std::is_same_v<D, Decoder<2, int32_t, U16LE>>)
        return _mm256_cvtepu16_epi32(Bytes16(p));
    else if constexpr (std::is_same_v<D, Decoder<2, int32_t, U16BE>>)
        return _mm256_cvtepu16_epi32(_mm_shuffle_epi8(Bytes16(p), swap16));
    else if constexpr (D::kWidth == 3) {
        // Values 0-3 in the low half, 4-7 in the high one, each to the top three bytes of its lane.
        constexpr bool le = std::is_same_v<D, Decoder<3, int32_t, I24LE>>;
        const __m256i spread = _mm256_permutevar8x32_epi32(Bytes32(p), _mm256_setr_epi32(0, 1, 2, 3, 2, 3, 4, 5));
        const __m256i order = le ? _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11,
                                                    -1, 4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15)
                                 : _mm256_setr_epi8(-1, 2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9,
                                                    -1, 6, 5, 4, -1, 9, 8, 7, -1, 12, 11, 10, -1, 15, 14, 13);
        return _mm256_srai_epi32(_mm256_shuffle_epi8(spread, order), 8);
    } else if constexpr (std::is_same_v<D, Decoder<4, int32_t, I32LE>> ||
                         std::is_same_v<D, Decoder<4, float, FromBits<float, uint32_t, LoadU32LE>>>)
        return Bytes32(p);
    else
        return _mm256_shuffle_epi8(Bytes32(p), swap32);
}

template <int Mode, bool Calibrated, typename Decode, bool Shifted>
FILELIB_AVX2 void ConvertGroups(const WideLanes& k, const uint8_t* p, float* out, long long groups)
{
    constexpr bool floats = std::is_same_v<typename Decode::Raw, float>;
    for (long long g = 0; g < groups; ++g)
        _mm256_storeu_ps(out + 8 * g, Convert8<Mode, Calibrated, floats, Shifted>(Load8<Decode>(p + 8 * g * Decode::kWidth), k));
}

// A contiguous run of n values: the whole groups of eight it converts, the rest left to the caller.
// Integers with no shift leave it out (floats keep it: -0 + 0 is +0, and x - 0 quiets a signalling NaN).
template <int Mode, bool Calibrated, typename Decode>
FILELIB_AVX2 long long ConvertRunWide(const Conversion& conv, const uint8_t* p, float* out, long long n)
{
    const WideLanes k = WideLanesOf(conv);
    const long long groups = Decode::kWidth == 3 ? (n - 3) / 8 : n / 8;  // 3 values' bytes behind the last load
    if (std::is_same_v<typename Decode::Raw, float> || conv.shift != 0 || conv.shiftF != 0)
        ConvertGroups<Mode, Calibrated, Decode, true>(k, p, out, groups);
    else
        ConvertGroups<Mode, Calibrated, Decode, false>(k, p, out, groups);
    return std::max(0LL, groups) * 8;
}

// Whether ConvertRunWide handles the sample type and arithmetic.
template <int Mode, typename Decode>
constexpr bool kWideRun = (Mode == kExact || Mode == kSingle) && Decode::kWidth <= 4;
#else
bool WideBlocks() { return false; }
template <int Mode, typename Decode>
constexpr bool kWideRun = false;
template <int Mode, bool Calibrated, typename Decode>
long long ConvertRunWide(const Conversion&, const uint8_t*, float*, long long) { return 0; }
#endif

// One channel's run of samples [t0, t1) into out[0 .. t1 - t0): held channels (samples > 0) look up the
// sample each slice shows; the arithmetic is fixed outside the loop, which has no branch.
// `base` holds the segment's bytes from `lo` on: sample k of the channel is at
// base + offset + k * stride - lo (only bytes of the slices converted are ever addressed).
template <int Mode, bool Calibrated, typename Decode>
void ConvertRun(Decode decode, const Conversion& conv, const ecChannelLayout& ch, const uint8_t* base, long long lo,
                long long segmentSlices, float* out, long long t0, long long t1)
{
    if (ch.samples > 0) {
        for (long long t = t0; t < t1; ++t)
            out[t - t0] = conv.Apply<Mode, Calibrated>(decode, base + (ch.offset + t * ch.samples / segmentSlices * ch.stride - lo));
        return;
    }
    const uint8_t* p = base + (ch.offset + t0 * ch.stride - lo);
    const long long n = t1 - t0;
    if (ch.stride == Decode::kWidth) {  // one contiguous run: a stride the compiler knows
        long long i = 0;
        if constexpr (kWideRun<Mode, Decode>)
            i = WideBlocks() ? ConvertRunWide<Mode, Calibrated, Decode>(conv, p, out, n) : 0;
        for (; i < n; ++i)
            out[i] = conv.Apply<Mode, Calibrated>(decode, p + i * Decode::kWidth);
        return;
    }
    for (long long i = 0; i < n; ++i)
        out[i] = conv.Apply<Mode, Calibrated>(decode, p + i * ch.stride);
}

template <bool Calibrated, typename Decode>
void ConvertChannel(Decode decode, const Conversion& conv, const ecChannelLayout& ch, const uint8_t* base,
                    long long lo, long long segmentSlices, float* out, long long t0, long long t1)
{
    const int mode = conv.mode;
    if (mode == kExact)
        ConvertRun<kExact, Calibrated>(decode, conv, ch, base, lo, segmentSlices, out, t0, t1);
    else if (mode == kSingle)
        ConvertRun<kSingle, Calibrated>(decode, conv, ch, base, lo, segmentSlices, out, t0, t1);
    else if (mode == kDivided)
        ConvertRun<kDivided, Calibrated>(decode, conv, ch, base, lo, segmentSlices, out, t0, t1);
    else
        ConvertRun<kMasked, Calibrated>(decode, conv, ch, base, lo, segmentSlices, out, t0, t1);
}

}  // namespace

int SampleWidth(ecSampleType type)
{
    switch (type) {
    case ecSampleType::Int8:
    case ecSampleType::UInt8:
        return 1;
    case ecSampleType::Int16:
    case ecSampleType::UInt16:
        return 2;
    case ecSampleType::Int24:
        return 3;
    case ecSampleType::Int32:
    case ecSampleType::Float32:
        return 4;
    case ecSampleType::Float64:
        return 8;
    }
    return 1;
}

ecDataLayout ecDataLayout::Multiplexed(ecSampleType type, bool bigEndian, int stored, int delivered,
                                       long long dataStart, long long slices)
{
    ecDataLayout layout;
    layout.type = type;
    layout.bigEndian = bigEndian;
    layout.slices = slices;
    layout.firstSegment = dataStart;
    const int width = SampleWidth(type);
    layout.channels.resize(static_cast<size_t>(std::max(0, delivered)));
    for (size_t c = 0; c < layout.channels.size(); ++c) {
        layout.channels[c].offset = static_cast<long long>(c) * width;
        layout.channels[c].stride = static_cast<long long>(stored) * width;
    }
    return layout;
}

ecDataLayout ecDataLayout::Vectorized(ecSampleType type, bool bigEndian, int channels, long long dataStart,
                                      long long slices)
{
    ecDataLayout layout = Multiplexed(type, bigEndian, channels, channels, dataStart, slices);
    const int width = SampleWidth(type);
    for (size_t c = 0; c < layout.channels.size(); ++c) {
        layout.channels[c].offset = static_cast<long long>(c) * slices * width;
        layout.channels[c].stride = width;
    }
    return layout;
}

void ecDataLayout::SetConversion(int channel, double gain, double shift)
{
    ecChannelLayout& c = channels.at(static_cast<size_t>(channel));
    c.gain = gain;
    c.shift = shift;
}

void ecSampleEngine::SetLayout(ecDataLayout layout) { m_layout = std::move(layout); }

long long ecSampleEngine::SegmentSlices() const
{
    return m_layout.segmentSlices > 0 ? m_layout.segmentSlices : std::max<long long>(1, m_layout.slices);
}

long long ecSampleEngine::SegmentStart(long long segment) const
{
    const long long start = m_layout.segmentTable.empty() ? m_layout.firstSegment + segment * m_layout.segmentStride
                                                          : m_layout.segmentTable[static_cast<size_t>(segment)];
    return start + m_layout.segmentHeader;
}

// The bytes read, in one call at the offset that bypasses the stream's buffer: a seek and a
// buffered read would cost two calls more, one of them for bytes nobody asked for. The buffer
// only grows (a resize would clear bytes that are about to be read).
long long ecSampleEngine::ReadSpan(FILE* fp, long long from, long long bytes)
{
    if (m_buffer.size() < static_cast<size_t>(bytes))
        m_buffer.resize(static_cast<size_t>(bytes));
    const int fd = fileno(fp);
    if (fd < 0)  // a stream with no file under it
        return static_cast<long long>(ReadAt(fp, from, m_buffer.data(), static_cast<size_t>(bytes)));
    long long got = 0;
    while (got < bytes) {
        const ssize_t n = pread(fd, m_buffer.data() + got, static_cast<size_t>(bytes - got), static_cast<off_t>(from + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += n;
    }
    return got;
}

namespace {
// Index of the sample a channel shows at slice p of its segment.
long long SampleAt(const ecChannelLayout& c, long long p, long long segmentSlices)
{
    return c.samples > 0 ? p * c.samples / segmentSlices : p;
}

// Bytes [lo, hi) of a segment that slices [a, b) of channels [c0, c1) need.
std::pair<long long, long long> Span(const ecDataLayout& layout, long long segmentSlices, long long a, long long b,
                                     size_t c0, size_t c1)
{
    const int width = SampleWidth(layout.type);
    long long lo = -1, hi = 0;
    for (size_t c = c0; c < c1; ++c) {
        const ecChannelLayout& ch = layout.channels[c];
        const long long from = ch.offset + SampleAt(ch, a, segmentSlices) * ch.stride;
        const long long to = ch.offset + SampleAt(ch, b - 1, segmentSlices) * ch.stride + width;
        lo = lo < 0 ? from : std::min(lo, from);
        hi = std::max(hi, to);
    }
    return {std::max(0LL, lo), hi};
}
}  // namespace

#if defined(__SSE2__)
namespace {
// Multiplexed samples move into their rows as register blocks: eight slices of eight 16-bit
// channels (four of four 32-bit ones) are loaded as they lie, transposed in registers while still
// in their stored width, then widened, converted with each channel's own constants and stored as
// runs of its row. Samples of 1 and 3 bytes are first widened to 32-bit integers in storage order.
// The arithmetic is the scalar one lane by lane (no fused operations), so values are identical.

// Channels side by side, every one a sample per slice, one stride apart: what the blocks handle.
bool Multiplexed(const ecDataLayout& layout, int width)
{
    const std::vector<ecChannelLayout>& chans = layout.channels;
    if (chans.empty())
        return false;
    const long long stride = chans[0].stride;
    if (stride <= width)
        return false;
    for (size_t c = 0; c < chans.size(); ++c)
        if (chans[c].samples != 0 || chans[c].mask != 0 || chans[c].divisor != 0 || chans[c].stride != stride ||
            chans[c].offset != chans[0].offset + static_cast<long long>(c) * width)
            return false;
    return true;
}

template <bool BigEndian>
__m128i Swap16(__m128i v)
{
    return BigEndian ? _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)) : v;
}

template <bool BigEndian>
__m128i Swap32(__m128i v)
{
    return BigEndian ? Swap16<true>(_mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1)) : v;
}

// One channel's constants, in registers.
struct Lanes {
    __m128 shiftF, gainF, calFactor, calOffset;
    __m128d shift, gain;
    explicit Lanes(const Conversion& c)
        : shiftF(_mm_set1_ps(c.shiftF)), gainF(_mm_set1_ps(c.gainF)), calFactor(_mm_set1_ps(c.calFactor)),
          calOffset(_mm_set1_ps(c.calOffset)), shift(_mm_set1_pd(c.shift)), gain(_mm_set1_pd(c.gain))
    {
    }
};

// Four values of one channel (32-bit integers, or float bits) in the channel's arithmetic;
// unshifted as Convert8.
template <int Mode, bool Calibrated, bool Floats, bool Shifted = true>
__m128 Convert4(__m128i v, const Lanes& k)
{
    __m128 f;
    if constexpr (Mode == kExact) {
        __m128d lo, hi;
        if constexpr (Floats) {
            const __m128 x = _mm_castsi128_ps(v);
            lo = _mm_cvtps_pd(x);
            hi = _mm_cvtps_pd(_mm_movehl_ps(x, x));
        } else {
            lo = _mm_cvtepi32_pd(v);
            hi = _mm_cvtepi32_pd(_mm_shuffle_epi32(v, 0xEE));
        }
        f = _mm_movelh_ps(_mm_cvtpd_ps(_mm_mul_pd(Shifted ? _mm_add_pd(lo, k.shift) : lo, k.gain)),
                          _mm_cvtpd_ps(_mm_mul_pd(Shifted ? _mm_add_pd(hi, k.shift) : hi, k.gain)));
    } else {
        const __m128 x = Floats ? _mm_castsi128_ps(v) : _mm_cvtepi32_ps(v);
        f = _mm_mul_ps(Shifted ? _mm_sub_ps(x, k.shiftF) : x, k.gainF);
    }
    if constexpr (Calibrated)
        f = _mm_add_ps(_mm_mul_ps(f, k.calFactor), k.calOffset);
    return f;
}

// Blocks of slices from `p`, `stride` bytes apart, `groups` blocks one after the other; channel
// j's values go to out[j] on.
using Block = void (*)(const uint8_t* p, long long stride, long long groups, const Conversion* conv, float* const* out);

template <bool BigEndian, bool Signed, int Mode, bool Calibrated>
void Block16(const uint8_t* p, long long stride, long long groups, const Conversion* conv, float* const* out)
{
    const Lanes k[8] = {Lanes(conv[0]), Lanes(conv[1]), Lanes(conv[2]), Lanes(conv[3]),
                        Lanes(conv[4]), Lanes(conv[5]), Lanes(conv[6]), Lanes(conv[7])};
    for (long long g = 0; g < groups; ++g, p += 8 * stride) {
        __m128i r[8];
        for (int s = 0; s < 8; ++s)
            r[s] = Swap16<BigEndian>(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + s * stride)));
        // Pairs of slices (channels 0-3 and 4-7 apart), then fours: quads[h][j] holds channels
        // 2j and 2j + 1 of slices 4h to 4h + 3, which widen straight into their 32-bit values.
        __m128i lo[4], hi[4];
        for (int s = 0; s < 4; ++s) {
            lo[s] = _mm_unpacklo_epi16(r[2 * s], r[2 * s + 1]);
            hi[s] = _mm_unpackhi_epi16(r[2 * s], r[2 * s + 1]);
        }
        for (int h = 0; h < 2; ++h) {
            const __m128i* l = lo + 2 * h;
            const __m128i* u = hi + 2 * h;
            const __m128i quads[4] = {_mm_unpacklo_epi32(l[0], l[1]), _mm_unpackhi_epi32(l[0], l[1]),
                                      _mm_unpacklo_epi32(u[0], u[1]), _mm_unpackhi_epi32(u[0], u[1])};
            for (int j = 0; j < 4; ++j) {
                const __m128i even = Signed ? _mm_srai_epi32(_mm_unpacklo_epi16(quads[j], quads[j]), 16)
                                            : _mm_unpacklo_epi16(quads[j], _mm_setzero_si128());
                const __m128i odd = Signed ? _mm_srai_epi32(_mm_unpackhi_epi16(quads[j], quads[j]), 16)
                                           : _mm_unpackhi_epi16(quads[j], _mm_setzero_si128());
                _mm_storeu_ps(out[2 * j] + 8 * g + 4 * h, Convert4<Mode, Calibrated, false>(even, k[2 * j]));
                _mm_storeu_ps(out[2 * j + 1] + 8 * g + 4 * h, Convert4<Mode, Calibrated, false>(odd, k[2 * j + 1]));
            }
        }
    }
}

template <bool BigEndian, bool Floats, int Mode, bool Calibrated, bool Shifted>
void Block32(const uint8_t* p, long long stride, long long groups, const Conversion* conv, float* const* out)
{
    const Lanes k[4] = {Lanes(conv[0]), Lanes(conv[1]), Lanes(conv[2]), Lanes(conv[3])};
    for (long long g = 0; g < groups; ++g, p += 4 * stride) {
        __m128 r[4];
        for (int s = 0; s < 4; ++s)
            r[s] = _mm_castsi128_ps(Swap32<BigEndian>(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + s * stride))));
        _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
        for (int j = 0; j < 4; ++j)
            _mm_storeu_ps(out[j] + 4 * g, Convert4<Mode, Calibrated, Floats, Shifted>(_mm_castps_si128(r[j]), k[j]));
    }
}

#if defined(__GNUC__) && defined(__x86_64__)
// With 256-bit registers holding slice s in their low half and slice s + 4 in their high half, the
// same two unpack stages leave one channel's eight slices in one register, stored in one go: half
// the shuffles of the 128-bit blocks, which shuffles bound.
template <bool BigEndian, bool Signed, int Mode, bool Calibrated, bool Shifted>
FILELIB_AVX2 void Block16Wide(const uint8_t* p, long long stride, long long groups, const Conversion* conv,
                              float* const* out)
{
    WideLanes k[8];
    for (int j = 0; j < 8; ++j)
        k[j] = WideLanesOf(conv[j]);
    for (long long g = 0; g < groups; ++g, p += 8 * stride) {
        __m256i r[4];
        for (int s = 0; s < 4; ++s) {
            const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + s * stride));
            const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + (s + 4) * stride));
            r[s] = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
            if (BigEndian)
                r[s] = _mm256_or_si256(_mm256_slli_epi16(r[s], 8), _mm256_srli_epi16(r[s], 8));
        }
        const __m256i lo0 = _mm256_unpacklo_epi16(r[0], r[1]), hi0 = _mm256_unpackhi_epi16(r[0], r[1]);
        const __m256i lo1 = _mm256_unpacklo_epi16(r[2], r[3]), hi1 = _mm256_unpackhi_epi16(r[2], r[3]);
        // Channels 2j and 2j + 1, slices 0-3 in the low half and 4-7 in the high half.
        const __m256i quads[4] = {_mm256_unpacklo_epi32(lo0, lo1), _mm256_unpackhi_epi32(lo0, lo1),
                                  _mm256_unpacklo_epi32(hi0, hi1), _mm256_unpackhi_epi32(hi0, hi1)};
        for (int j = 0; j < 4; ++j) {
            const __m256i q = quads[j];
            const __m256i even = Signed ? _mm256_srai_epi32(_mm256_unpacklo_epi16(q, q), 16)
                                        : _mm256_unpacklo_epi16(q, _mm256_setzero_si256());
            const __m256i odd = Signed ? _mm256_srai_epi32(_mm256_unpackhi_epi16(q, q), 16)
                                       : _mm256_unpackhi_epi16(q, _mm256_setzero_si256());
            _mm256_storeu_ps(out[2 * j] + 8 * g, Convert8<Mode, Calibrated, false, Shifted>(even, k[2 * j]));
            _mm256_storeu_ps(out[2 * j + 1] + 8 * g, Convert8<Mode, Calibrated, false, Shifted>(odd, k[2 * j + 1]));
        }
    }
}

template <bool BigEndian, bool Signed, int Mode, bool Calibrated>
Block Block16For(bool shifted)
{
    if (!WideBlocks())
        return Block16<BigEndian, Signed, Mode, Calibrated>;
    return shifted ? Block16Wide<BigEndian, Signed, Mode, Calibrated, true> : Block16Wide<BigEndian, Signed, Mode, Calibrated, false>;
}
#else
template <bool BigEndian, bool Signed, int Mode, bool Calibrated>
Block Block16For(bool)
{
    return Block16<BigEndian, Signed, Mode, Calibrated>;
}
#endif

// Floats keep their shift whatever it is (see Convert8).
template <bool BigEndian, bool Floats, int Mode, bool Calibrated>
Block Block32For(bool shifted)
{
    if (Floats || shifted)
        return Block32<BigEndian, Floats, Mode, Calibrated, true>;
    return Block32<BigEndian, Floats, Mode, Calibrated, Floats>;
}

struct Mover {
    Block block = nullptr;
    int channels = 0, slices = 0;  // the block's size
};

template <int Mode, bool Calibrated>
Mover MoverIn(ecSampleType type, bool bigEndian, bool shifted)
{
    switch (type) {
    case ecSampleType::Int16:
        return {bigEndian ? Block16For<true, true, Mode, Calibrated>(shifted) : Block16For<false, true, Mode, Calibrated>(shifted), 8, 8};
    case ecSampleType::UInt16:
        return {bigEndian ? Block16For<true, false, Mode, Calibrated>(shifted) : Block16For<false, false, Mode, Calibrated>(shifted),
                8, 8};
    case ecSampleType::Int32:
        return {bigEndian ? Block32For<true, false, Mode, Calibrated>(shifted) : Block32For<false, false, Mode, Calibrated>(shifted),
                4, 4};
    case ecSampleType::Float32:
        return {bigEndian ? Block32For<true, true, Mode, Calibrated>(shifted) : Block32For<false, true, Mode, Calibrated>(shifted),
                4, 4};
    case ecSampleType::Int8:
    case ecSampleType::UInt8:
    case ecSampleType::Int24:  // widened to native 32-bit integers first
        return {Block32For<false, false, Mode, Calibrated>(shifted), 4, 4};
    default:
        return {};
    }
}

// The blocks for the arithmetic every channel shares (one rule per layout); none for others.
Mover MoverFor(ecSampleType type, bool bigEndian, const Conversion* conv, size_t channels, bool calibrated)
{
    const int mode = conv[0].mode;
    bool shifted = false;
    for (size_t c = 0; c < channels; ++c) {
        if (conv[c].mode != mode)
            return {};
        shifted = shifted || conv[c].shift != 0 || conv[c].shiftF != 0;
    }
    if (mode == kExact)
        return calibrated ? MoverIn<kExact, true>(type, bigEndian, shifted) : MoverIn<kExact, false>(type, bigEndian, shifted);
    if (mode == kSingle)
        return calibrated ? MoverIn<kSingle, true>(type, bigEndian, shifted) : MoverIn<kSingle, false>(type, bigEndian, shifted);
    return {};
}

// One read's multiplexed samples and where they go.
struct Interleaved {
    const uint8_t* first;  // the first slice's first sample
    long long stride;      // bytes from one slice to the next
    float* const* rows;
    long long column;      // of the first slice in the rows
    const Conversion* conv;
    size_t channels;
};

// Moves `n` slices tile by tile: the tile's bytes stay in the first-level cache while each row
// receives a run of it. Channels and slices outside whole blocks, and blocks with a row not
// wanted, go through `convert` (channel, first slice, end slice; counted from the read's first).
template <typename Decode, typename Convert>
void MoveInterleaved(Decode decode, const Interleaved& in, const Mover& mover, long long n, std::vector<int32_t>& widened,
                     Convert convert)
{
    constexpr bool widen = Decode::kWidth == 1 || Decode::kWidth == 3;
    const long long count = static_cast<long long>(in.channels), width = widen ? 4 : Decode::kWidth;
    float* out[8];
    for (long long t0 = 0; t0 < n; t0 += kTileSlices) {
        const long long t1 = std::min(n, t0 + kTileSlices);
        const long long whole = t0 + (t1 - t0) / mover.slices * mover.slices;
        const uint8_t* src = in.first + t0 * in.stride;
        long long stride = in.stride;
        if constexpr (widen) {
            widened.resize(static_cast<size_t>((whole - t0) * count));
            for (long long t = t0; t < whole; ++t)
                for (long long c = 0; c < count; ++c)
                    widened[static_cast<size_t>((t - t0) * count + c)] = decode(in.first + t * in.stride + c * Decode::kWidth);
            src = reinterpret_cast<const uint8_t*>(widened.data());
            stride = count * 4;
        }
        for (long long c0 = 0; c0 < count; c0 += mover.channels) {
            const long long c1 = std::min(count, c0 + mover.channels);
            bool blocks = c1 - c0 == mover.channels;
            for (long long c = c0; c < c1; ++c)
                blocks = blocks && in.rows[c];
            if (blocks) {
                for (long long j = 0; j < mover.channels; ++j)
                    out[j] = in.rows[c0 + j] + in.column + t0;
                mover.block(src + c0 * width, stride, (whole - t0) / mover.slices, in.conv + c0, out);
            }
            for (long long c = c0; c < c1; ++c)
                if (in.rows[c] && (!blocks || whole < t1))
                    convert(static_cast<size_t>(c), blocks ? whole : t0, t1);
        }
    }
}
}  // namespace
#endif
template <typename Decode>
void ecSampleEngine::ConvertWith(Decode decode, const uint8_t* base, long long lo, const Target& target, long long a,
                                 long long b)
{
    const long long segmentSlices = SegmentSlices();
    const bool calibrated = target.calFactors && target.calOffsets;
    const std::vector<ecChannelLayout>& chans = m_layout.channels;
    std::vector<Conversion> convs(chans.size());
    for (size_t c = 0; c < chans.size(); ++c) {
        const ecChannelLayout& ch = chans[c];
        const int mode = ch.mask ? kMasked : m_layout.exact ? kExact : ch.divisor != 0 ? kDivided : kSingle;
        convs[c] = {ch.gain,
                    ch.shift,
                    static_cast<float>(ch.gain),
                    static_cast<float>(ch.shift),
                    calibrated ? target.calFactors[c] : 1.0f,
                    calibrated ? target.calOffsets[c] : 0.0f,
                    static_cast<int64_t>(ch.mask),
                    ch.divisor,
                    mode};
    }
    auto convert = [&](size_t c, long long t0, long long t1) {
        float* out = target.rows[c] + target.done + (t0 - a);
        if (calibrated)
            ConvertChannel<true>(decode, convs[c], chans[c], base, lo, segmentSlices, out, t0, t1);
        else
            ConvertChannel<false>(decode, convs[c], chans[c], base, lo, segmentSlices, out, t0, t1);
    };
#if defined(__SSE2__)
    if (Multiplexed(m_layout, Decode::kWidth)) {
        const uint8_t* first = base + (chans[0].offset + a * chans[0].stride - lo);
        const Interleaved in{first, chans[0].stride, target.rows, target.done, convs.data(), chans.size()};
        const Mover mover = MoverFor(m_layout.type, m_layout.bigEndian, convs.data(), chans.size(), calibrated);
        if (mover.block) {
            MoveInterleaved(decode, in, mover, b - a, m_widened,
                            [&](size_t c, long long t0, long long t1) { convert(c, a + t0, a + t1); });
            return;
        }
    }
#endif
    // A channel stored as one run converts in one go; interleaved ones go tile by tile, so that
    // a tile's bytes stay in the first-level cache while every row is written in order.
    auto contiguous = [&](const ecChannelLayout& ch) { return ch.samples == 0 && ch.stride == Decode::kWidth; };
    bool interleaved = false;
    for (size_t c = 0; c < chans.size(); ++c) {
        if (target.rows[c] && contiguous(chans[c]))
            convert(c, a, b);
        interleaved = interleaved || (target.rows[c] && !contiguous(chans[c]));
    }
    for (long long t0 = a; interleaved && t0 < b; t0 += kTileSlices)
        for (size_t c = 0; c < chans.size(); ++c)
            if (target.rows[c] && !contiguous(chans[c]))
                convert(c, t0, std::min(b, t0 + kTileSlices));
}

void ecSampleEngine::Convert(const uint8_t* base, long long lo, const Target& target, long long a, long long b)
{
    WithDecoder(m_layout.type, m_layout.bigEndian, [&](auto decode) { ConvertWith(decode, base, lo, target, a, b); });
}

// Appends to the pieces the segments that follow the last one, as long as their bytes follow
// within a few kilobytes and one block holds them all: small segments (records of some
// kilobytes) then cost one read together rather than a call each. Returns the end of their bytes.
long long ecSampleEngine::Gather(long long first, long long count, long long to)
{
    const long long segmentSlices = SegmentSlices();
    const size_t channels = m_layout.channels.size();
    const long long segments = m_layout.segmentTable.empty() ? -1 : static_cast<long long>(m_layout.segmentTable.size());
    for (long long column = m_pieces.back().column + (m_pieces.back().b - m_pieces.back().a); column < count;) {
        const Place place = Locate(first + column);
        if (place.slice >= place.stored || (segments >= 0 && place.segment >= segments))
            break;
        const long long b = std::min(place.stored, place.slice + count - column);
        const auto [lo, hi] = Span(m_layout, segmentSlices, place.slice, b, 0, channels);
        const long long start = SegmentStart(place.segment);
        if (start + lo < to || start + lo - to > kGapBytes || start + hi - m_pieces.front().from > kBlockBytes)
            break;
        m_pieces.push_back({start + lo, start + hi, lo, place.slice, b, column});
        to = start + hi;
        column += b - place.slice;
    }
    return to;
}

ecSampleEngine::Place ecSampleEngine::Locate(long long slice) const
{
    const std::vector<long long>& firsts = m_layout.segmentFirstSlices;
    if (firsts.empty()) {
        const long long perSegment = SegmentSlices(), segment = slice / perSegment;
        const long long length = std::min(perSegment, m_layout.slices - segment * perSegment);
        return {segment, slice % perSegment, length, length};
    }
    const long long segment = std::upper_bound(firsts.begin(), firsts.end(), slice) - firsts.begin() - 1;
    if (segment < 0)  // before the first segment: a gap
        return {-1, slice, 0, firsts.front()};
    const size_t s = static_cast<size_t>(segment);
    const long long extent = (s + 1 < firsts.size() ? firsts[s + 1] : m_layout.slices) - firsts[s];
    long long stored = m_layout.segmentSlices > 0 ? std::min(m_layout.segmentSlices, extent) : extent;
    if (s < m_layout.segmentLengths.size())
        stored = std::min(stored, m_layout.segmentLengths[s]);
    return {segment, slice - firsts[s], stored, extent};
}

long long ecSampleEngine::Read(FILE* fp, float* const* rows, long long first, long long count,
                               const ecReadOptions& options)
{
    const float* calFactors = options.calFactors;
    const float* calOffsets = options.calOffsets;
    const long long segmentSlices = SegmentSlices();
    const size_t channels = m_layout.channels.size();
    const int width = SampleWidth(m_layout.type);
    std::vector<float*> one(channels, nullptr);
    long long done = 0;
    while (done < count) {
        const auto [segment, a, inSegment, extent] = Locate(first + done);
        if (a >= inSegment) {  // a gap between segments reads as zeros, calibrated like any value
            const long long gap = std::min(extent - a, count - done);
            for (size_t c = 0; c < channels; ++c)
                if (rows[c])
                    std::fill(rows[c] + done, rows[c] + done + gap, calOffsets ? calOffsets[c] : 0.0f);
            done += gap;
            continue;
        }
        long long b = std::min(inSegment, a + count - done);
        if (!m_layout.segmentTable.empty() && segment >= static_cast<long long>(m_layout.segmentTable.size()))
            return done;
        if (m_layout.decodedSegments) {
            const uint8_t* decoded = options.decodeSegment ? options.decodeSegment(segment) : nullptr;
            if (!decoded)
                return done;
            Convert(decoded, 0, {rows, done, calFactors, calOffsets}, a, b);
            done += b - a;
            continue;
        }
        const long long start = SegmentStart(segment);
        // As many slices of every channel as fit one block; when even one slice does not
        // (channel-major storage), one channel at a time.
        auto span = Span(m_layout, segmentSlices, a, b, 0, channels);
        while (b - a > 1 && span.second - span.first > kBlockBytes) {
            b = a + (b - a) / 2;
            span = Span(m_layout, segmentSlices, a, b, 0, channels);
        }
        if (span.second - span.first <= kBlockBytes) {
            m_pieces.assign(1, {start + span.first, start + span.second, span.first, a, b, done});
            const long long from = start + span.first, to = Gather(first, count, start + span.second);
            const long long got = ReadSpan(fp, from, to - from);
            for (const Piece& piece : m_pieces) {
                if (piece.to - from > got)
                    return done;
                Convert(m_buffer.data() + (piece.from - from), piece.lo, {rows, piece.column, calFactors, calOffsets},
                        piece.a, piece.b);
                done = piece.column + (piece.b - piece.a);
            }
            continue;
        }
        b = std::min(inSegment, a + count - done);
        for (size_t c = 0; c < channels; ++c) {
            if (!rows[c])
                continue;
            // A block of this channel's samples, however far apart they lie.
            const long long perBlock =
                std::max<long long>(1, kBlockBytes / std::max<long long>(width, m_layout.channels[c].stride));
            std::fill(one.begin(), one.end(), nullptr);
            one[c] = rows[c];
            for (long long s = a; s < b; s += perBlock) {
                const long long e = std::min(b, s + perBlock);
                const auto [from, to] = Span(m_layout, segmentSlices, s, e, c, c + 1);
                if (ReadSpan(fp, start + from, to - from) != to - from)
                    return done;
                Convert(m_buffer.data(), from, {one.data(), done + (s - a), calFactors, calOffsets}, s, e);
            }
        }
        done += b - a;
    }
    return done;
}
