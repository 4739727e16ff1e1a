#include "filelib/SampleEngine.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif
#include <utility>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

// Large enough that a read costs far more than its call, small enough to stay in the cache's
// neighbourhood and never to matter for memory.
constexpr long long kBlockBytes = 1LL << 20;
// Slices converted across all channels before moving on: the tile's bytes stay in the first-level
// cache while every row is written sequentially.
constexpr long long kTileSlices = 64;

// The stored number of each sample type, in its natural type (integers as int32_t), with the
// sample's width known at compile time so that contiguous runs vectorise.
template <int Width, typename Raw, Raw (*Load)(const uint8_t*)>
struct Decoder {
    static constexpr int kWidth = Width;
    Raw operator()(const uint8_t* p) const { return Load(p); }
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
        for (long long i = 0; i < n; ++i)
            out[i] = conv.Apply<Mode, Calibrated>(decode, p + i * Decode::kWidth);
        return;
    }
    for (long long i = 0; i < n; ++i)
        out[i] = conv.Apply<Mode, Calibrated>(decode, p + i * ch.stride);
}

template <bool Calibrated, typename Decode>
void ConvertChannel(int mode, Decode decode, const Conversion& conv, const ecChannelLayout& ch, const uint8_t* base,
                    long long lo, long long segmentSlices, float* out, long long t0, long long t1)
{
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

bool ecSampleEngine::ReadSpan(FILE* fp, long long from, long long bytes)
{
    m_buffer.resize(static_cast<size_t>(bytes));
    return ReadAt(fp, from, m_buffer.data(), m_buffer.size()) == m_buffer.size();
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

// Slice-major floats (`perSlice` apart) into channel rows. Four slices of four channels at a time
// travel as one register transpose, so that every row is written sixteen bytes at a time instead
// of one value per cache line touched.
void ecSampleEngine::Transpose(const float* in, long long perSlice, long long n, float* const* rows,
                               long long column) const
{
    const size_t count = m_layout.channels.size();
    long long t = 0;
#if defined(__SSE2__)
    for (; t + 4 <= n; t += 4) {
        const float* p = in + t * perSlice;
        size_t c = 0;
        for (; c + 4 <= count; c += 4) {
            __m128 r0 = _mm_loadu_ps(p + c), r1 = _mm_loadu_ps(p + perSlice + c);
            __m128 r2 = _mm_loadu_ps(p + 2 * perSlice + c), r3 = _mm_loadu_ps(p + 3 * perSlice + c);
            _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
            _mm_storeu_ps(rows[c] + column + t, r0);
            _mm_storeu_ps(rows[c + 1] + column + t, r1);
            _mm_storeu_ps(rows[c + 2] + column + t, r2);
            _mm_storeu_ps(rows[c + 3] + column + t, r3);
        }
        for (; c < count; ++c)
            for (long long k = 0; k < 4; ++k)
                rows[c][column + t + k] = p[k * perSlice + static_cast<long long>(c)];
    }
#endif
    for (size_t c = 0; c < count; ++c)
        for (long long k = t; k < n; ++k)
            rows[c][column + k] = in[k * perSlice + static_cast<long long>(c)];
}

template <typename Decode>
bool ecSampleEngine::ConvertInterleaved(Decode decode, const uint8_t* base, long long lo, const Target& target,
                                        long long a, long long b)
{
    // Slice-major samples move into channel rows fastest in two steps: the tile's values to floats
    // in storage order (a loop the compiler vectorises), then the 4-byte floats to their rows.
    // Only where that float is the stored number itself: integers of up to 24 bits, and floats.
    using Raw = decltype(decode(base));
    constexpr bool floatHoldsIt = Decode::kWidth <= 3 || std::is_same_v<Raw, float>;
    const std::vector<ecChannelLayout>& chans = m_layout.channels;
    if (!floatHoldsIt || chans.empty() || target.calFactors)
        return false;
    const long long stride = chans[0].stride, perSlice = stride / Decode::kWidth;
    if (stride <= Decode::kWidth || stride % Decode::kWidth != 0)
        return false;
    for (size_t c = 0; c < chans.size(); ++c)
        if (chans[c].samples != 0 || chans[c].mask != 0 || chans[c].divisor != 0 || chans[c].stride != stride ||
            chans[c].offset != chans[0].offset + static_cast<long long>(c) * Decode::kWidth || !target.rows[c])
            return false;
    const long long tile = std::max<long long>(8, 4096 / perSlice);
    m_scratch.resize(static_cast<size_t>(tile * perSlice));
    m_shiftPattern.assign(static_cast<size_t>(perSlice), 0.0f);  // 0 for stored values nobody reads
    m_gainPattern.assign(static_cast<size_t>(perSlice), 0.0f);
    m_exactShift.assign(static_cast<size_t>(perSlice), 0.0);
    m_exactGain.assign(static_cast<size_t>(perSlice), 0.0);
    for (size_t c = 0; c < chans.size(); ++c) {
        m_shiftPattern[c] = static_cast<float>(chans[c].shift);
        m_gainPattern[c] = static_cast<float>(chans[c].gain);
        m_exactShift[c] = chans[c].shift;
        m_exactGain[c] = chans[c].gain;
    }
    for (long long t0 = a; t0 < b; t0 += tile) {
        const long long n = std::min(b, t0 + tile) - t0;
        const uint8_t* p = base + (chans[0].offset + t0 * stride - lo);
        const long long column = target.done + (t0 - a);
        float* scratch = m_scratch.data();
        // Gain and offset applied in storage order, through one slice's pattern of them, so
        // that the move into the rows carries no arithmetic.
        auto fill = [&](auto convert) {
            for (long long t = 0; t < n; ++t) {
                // The last slice only up to the last channel wanted: stored values after it (a
                // trailing channel nobody reads) may lie beyond the bytes read.
                const long long wanted = t + 1 < n ? perSlice : static_cast<long long>(chans.size());
                const uint8_t* q = p + t * stride;
                float* out = scratch + t * perSlice;
                for (long long c = 0; c < wanted; ++c)
                    out[c] = convert(decode(q + c * Decode::kWidth), c);
            }
        };
        if (m_layout.exact) {
            const double* shift = m_exactShift.data();
            const double* gain = m_exactGain.data();
            fill([&](Raw v, long long c) { return static_cast<float>((static_cast<double>(v) + shift[c]) * gain[c]); });
        } else {
            const float* shift = m_shiftPattern.data();
            const float* gain = m_gainPattern.data();
            fill([&](Raw v, long long c) { return (static_cast<float>(v) - shift[c]) * gain[c]; });
        }
        Transpose(scratch, perSlice, n, target.rows, column);
    }
    return true;
}

template <typename Decode>
void ecSampleEngine::ConvertWith(Decode decode, const uint8_t* base, long long lo, const Target& target, long long a,
                                 long long b)
{
    if (ConvertInterleaved(decode, base, lo, target, a, b))
        return;
    const long long segmentSlices = SegmentSlices();
    const bool calibrated = target.calFactors && target.calOffsets;
    auto convert = [&](size_t c, long long t0, long long t1) {
        const ecChannelLayout& ch = m_layout.channels[c];
        const Conversion conv{ch.gain,
                              ch.shift,
                              static_cast<float>(ch.gain),
                              static_cast<float>(ch.shift),
                              calibrated ? target.calFactors[c] : 1.0f,
                              calibrated ? target.calOffsets[c] : 0.0f,
                              static_cast<int64_t>(ch.mask),
                              ch.divisor};
        const int mode = ch.mask ? kMasked : m_layout.exact ? kExact : ch.divisor != 0 ? kDivided : kSingle;
        float* out = target.rows[c] + target.done + (t0 - a);
        if (calibrated)
            ConvertChannel<true>(mode, decode, conv, ch, base, lo, segmentSlices, out, t0, t1);
        else
            ConvertChannel<false>(mode, decode, conv, ch, base, lo, segmentSlices, out, t0, t1);
    };
    // A channel stored as one run converts in one go; interleaved ones go tile by tile, so that
    // a tile's bytes stay in the first-level cache while every row is written in order.
    auto contiguous = [&](const ecChannelLayout& ch) { return ch.samples == 0 && ch.stride == Decode::kWidth; };
    for (size_t c = 0; c < m_layout.channels.size(); ++c)
        if (target.rows[c] && contiguous(m_layout.channels[c]))
            convert(c, a, b);
    for (long long t0 = a; t0 < b; t0 += kTileSlices)
        for (size_t c = 0; c < m_layout.channels.size(); ++c)
            if (target.rows[c] && !contiguous(m_layout.channels[c]))
                convert(c, t0, std::min(b, t0 + kTileSlices));
}

void ecSampleEngine::Convert(const uint8_t* base, long long lo, const Target& target, long long a, long long b)
{
    WithDecoder(m_layout.type, m_layout.bigEndian, [&](auto decode) { ConvertWith(decode, base, lo, target, a, b); });
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
        if (a >= inSegment) {  // a gap between segments reads as zeros
            const long long gap = std::min(extent - a, count - done);
            for (size_t c = 0; c < channels; ++c)
                if (rows[c])
                    std::fill(rows[c] + done, rows[c] + done + gap, 0.0f);
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
            if (!ReadSpan(fp, start + span.first, span.second - span.first))
                return done;
            Convert(m_buffer.data(), span.first, {rows, done, calFactors, calOffsets}, a, b);
        } else {
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
                    if (!ReadSpan(fp, start + from, to - from))
                        return done;
                    Convert(m_buffer.data(), from, {one.data(), done + (s - a), calFactors, calOffsets}, s, e);
                }
            }
        }
        done += b - a;
    }
    return done;
}
