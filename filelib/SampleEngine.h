// The one data path under the readers. A reader describes where its samples lie (sample type,
// byte order, how channels and slices are arranged, which segments hold which slices, and how a
// stored number becomes a physical value); the engine then serves any run of slices: it reads
// large spans into one reusable buffer and converts them straight into the matrix rows.
//
// Layout model. The recording is a sequence of segments (records, epochs, data buffers) of
// `segmentSlices` slices each (the last may be shorter), at regular offsets or at offsets listed
// in a table. Inside a segment, channel c's k-th sample is at
// segment start + channels[c].offset + k * channels[c].stride. Multiplexed storage has
// offset = c x width and stride = slice bytes; vectorized storage has offset = c x segment bytes
// and stride = width. A channel stored with fewer samples per segment than the segment has slices
// (slower signals in EDF records) is delivered at the segment's rate by holding each sample:
// slice p shows sample floor(p x samples / segmentSlices).
//
// Arithmetic. Exact channels deliver float((raw + shift) x gain) computed in double and rounded
// once; single-precision channels deliver (float(raw) - shift) x gain in float (the arithmetic
// some formats have always been read with, kept so that their values stay bit-identical).
// Calibration factors, when given, then apply as value x factor + offset in float.
#pragma once

#include "companion/Export.h"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <vector>

enum class ecSampleType : uint8_t { Int8, UInt8, Int16, UInt16, Int24, Int32, Float32, Float64 };

FILELIB_API int SampleWidth(ecSampleType type);

struct ecChannelLayout {
    long long offset = 0;   // bytes from the segment's data start to the channel's first sample
    long long stride = 0;   // bytes from one of its samples to the next
    long long samples = 0;  // per segment; 0 means one per slice
    double gain = 1;
    double shift = 0;
    uint32_t mask = 0;  // non-zero: integer codes, the stored value's bits under the mask (trigger words)
    float divisor = 0;  // non-zero, in single precision: the value is then divided by it (averages over n sweeps)
};

struct FILELIB_API ecDataLayout {
    ecSampleType type = ecSampleType::Int16;
    bool bigEndian = false;
    bool exact = true;           // double arithmetic rounded once (see above)
    long long slices = 0;        // slices the recording holds
    long long segmentSlices = 0; // slices per segment; 0: one segment holds them all
    long long firstSegment = 0;  // file offset of the first segment
    long long segmentStride = 0; // bytes from one segment to the next (regular segments)
    long long segmentHeader = 0; // bytes before a segment's data
    std::vector<long long> segmentTable;  // file offsets of the segments, in place of the regular ones
    // With the table: the slices where the segments start. A segment then extends to the next
    // one's start; when that is more than segmentSlices (if set), the slices between are a gap
    // that reads as zeros (as are the slices before the first segment).
    std::vector<long long> segmentFirstSlices;
    std::vector<long long> segmentLengths;  // with the first slices: each segment's stored slices, if they differ
    // Segments whose bytes the reader decodes (compressed records): the samples of a segment
    // come from the read's decodeSegment, channel offsets counted from its first byte.
    bool decodedSegments = false;
    std::vector<ecChannelLayout> channels;

    // Slice-major samples of `stored` values per slice, the first `delivered` of which are channels.
    static ecDataLayout Multiplexed(ecSampleType type, bool bigEndian, int stored, int delivered, long long dataStart,
                                    long long slices);
    // Channel-major samples: all of channel 0, then all of channel 1, ...
    static ecDataLayout Vectorized(ecSampleType type, bool bigEndian, int channels, long long dataStart,
                                   long long slices);
    void SetConversion(int channel, double gain, double shift);
};

// What a read adds to the layout: calibration factors and offsets (one per channel: value x
// factor + offset), and the decoder of decoded segments (the segment's bytes, null when it cannot).
struct ecReadOptions {
    const float* calFactors = nullptr;
    const float* calOffsets = nullptr;
    std::function<const uint8_t*(long long segment)> decodeSegment;
};

class FILELIB_API ecSampleEngine {
public:
    void SetLayout(ecDataLayout layout);
    const ecDataLayout& Layout() const { return m_layout; }

    // Converts slices [first, first + count) into rows[c][0 .. count) for every channel whose row
    // is not null. The range must lie within the recording. Returns the slices converted: fewer
    // than count when the file ends before the bytes of the range.
    long long Read(FILE* fp, float* const* rows, long long first, long long count, const ecReadOptions& options = {});

private:
    struct Place {
        long long segment, slice;  // the segment and the slice within it
        long long stored, extent;  // its stored slices, and the slices up to the next segment
    };
    Place Locate(long long slice) const;
    long long SegmentStart(long long segment) const;
    long long SegmentSlices() const;
    long long ReadSpan(FILE* fp, long long from, long long bytes);
    // Slices [a, b) of one segment, whose bytes [from, to) of the file go to column `column`.
    struct Piece {
        long long from, to, lo;  // lo: where `from` lies in the segment
        long long a, b, column;
    };
    long long Gather(long long first, long long count, long long to);
    struct Target {
        float* const* rows;
        long long done;  // column of slice a in the rows
        const float* calFactors;
        const float* calOffsets;
    };
    void Convert(const uint8_t* base, long long lo, const Target& target, long long a, long long b);
    template <typename Decode>
    void ConvertWith(Decode decode, const uint8_t* base, long long lo, const Target& target, long long a,
                     long long b);
    ecDataLayout m_layout;
    std::vector<uint8_t> m_buffer;
    std::vector<Piece> m_pieces;  // the segments one read serves
    std::vector<int32_t> m_widened;  // one tile of 1- and 3-byte samples as 32-bit integers
};
