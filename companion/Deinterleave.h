// Conversion of slice-major (multiplexed) sample blocks into channel rows: the hot loop of
// most readers. The block is processed in tiles of slices so that the reads of a tile stay in
// the first-level cache while every channel's row is written sequentially.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

// rows[c][t] = (decode(sample t of channel c) - pre[c]) * post[c] for t in [0, slices).
// Sample t of channel c is at raw + t * stride + c * width.
template <typename Decode>
void Deinterleave(const uint8_t* raw, size_t slices, size_t channels, size_t width, size_t stride, float* const* rows,
                  const float* pre, const float* post, Decode decode)
{
    constexpr size_t kTile = 64;
    for (size_t t0 = 0; t0 < slices; t0 += kTile) {
        const size_t t1 = std::min(slices, t0 + kTile);
        for (size_t c = 0; c < channels; ++c) {
            float* out = rows[c];
            const float b = pre[c], f = post[c];
            const uint8_t* p = raw + t0 * stride + c * width;
            for (size_t t = t0; t < t1; ++t, p += stride)
                out[t] = (decode(p) - b) * f;
        }
    }
}
