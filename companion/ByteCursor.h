// The one way readers take fields out of a header: a bounds-checked cursor over a byte buffer
// with explicit little- and big-endian decoding. A field outside the buffer raises ecError;
// nothing is ever read past the end, and nothing depends on the host's byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

class ByteCursor {
public:
    ByteCursor(const void* data, size_t size) : m_data(static_cast<const uint8_t*>(data)), m_size(size) {}

    size_t size() const { return m_size; }
    size_t tell() const { return m_pos; }
    size_t remaining() const { return m_size - m_pos; }
    void seek(size_t offset);
    void skip(size_t count) { seek(Checked(m_pos, count)); }

    // Absolute reads (do not move the cursor).
    uint8_t u8(size_t at) const { return *Field(at, 1); }
    int8_t i8(size_t at) const { return static_cast<int8_t>(u8(at)); }
    uint16_t u16le(size_t at) const;
    int16_t i16le(size_t at) const { return static_cast<int16_t>(u16le(at)); }
    uint32_t u32le(size_t at) const;
    int32_t i32le(size_t at) const { return static_cast<int32_t>(u32le(at)); }
    uint64_t u64le(size_t at) const;
    float f32le(size_t at) const;
    double f64le(size_t at) const;
    uint16_t u16be(size_t at) const;
    int16_t i16be(size_t at) const { return static_cast<int16_t>(u16be(at)); }
    uint32_t u32be(size_t at) const;
    int32_t i32be(size_t at) const { return static_cast<int32_t>(u32be(at)); }
    uint64_t u64be(size_t at) const;
    float f32be(size_t at) const;
    double f64be(size_t at) const;
    // `len` bytes as text, cut at the first NUL.
    std::string str(size_t at, size_t len) const;

    // Sequential reads (advance the cursor).
    uint8_t next_u8() { return Take(&ByteCursor::u8, 1); }
    uint16_t next_u16le() { return Take(&ByteCursor::u16le, 2); }
    int16_t next_i16le() { return Take(&ByteCursor::i16le, 2); }
    uint32_t next_u32le() { return Take(&ByteCursor::u32le, 4); }
    int32_t next_i32le() { return Take(&ByteCursor::i32le, 4); }
    float next_f32le() { return Take(&ByteCursor::f32le, 4); }
    uint16_t next_u16be() { return Take(&ByteCursor::u16be, 2); }
    int16_t next_i16be() { return Take(&ByteCursor::i16be, 2); }
    uint32_t next_u32be() { return Take(&ByteCursor::u32be, 4); }
    int32_t next_i32be() { return Take(&ByteCursor::i32be, 4); }
    float next_f32be() { return Take(&ByteCursor::f32be, 4); }
    double next_f64be() { return Take(&ByteCursor::f64be, 8); }
    std::string next_str(size_t len)
    {
        std::string s = str(m_pos, len);
        m_pos += len;
        return s;
    }

private:
    const uint8_t* Field(size_t at, size_t len) const;
    size_t Checked(size_t at, size_t len) const;
    template <typename R>
    R Take(R (ByteCursor::*read)(size_t) const, size_t len)
    {
        R value = (this->*read)(m_pos);
        m_pos += len;
        return value;
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// Little- and big-endian decoding of raw bytes already known to be in range (data paths).
// On hosts whose byte order the compiler reports, a word is loaded whole and swapped when
// needed (one instruction each); elsewhere it is assembled byte by byte.
#if defined(__BYTE_ORDER__) && (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ || __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__)
namespace byte_order_detail {
constexpr bool kLittle = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
template <typename T>
inline T Load(const uint8_t* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
}  // namespace byte_order_detail
inline uint16_t LoadU16LE(const uint8_t* p)
{
    const uint16_t v = byte_order_detail::Load<uint16_t>(p);
    return byte_order_detail::kLittle ? v : __builtin_bswap16(v);
}
inline uint32_t LoadU32LE(const uint8_t* p)
{
    const uint32_t v = byte_order_detail::Load<uint32_t>(p);
    return byte_order_detail::kLittle ? v : __builtin_bswap32(v);
}
inline uint64_t LoadU64LE(const uint8_t* p)
{
    const uint64_t v = byte_order_detail::Load<uint64_t>(p);
    return byte_order_detail::kLittle ? v : __builtin_bswap64(v);
}
inline uint16_t LoadU16BE(const uint8_t* p)
{
    const uint16_t v = byte_order_detail::Load<uint16_t>(p);
    return byte_order_detail::kLittle ? __builtin_bswap16(v) : v;
}
inline uint32_t LoadU32BE(const uint8_t* p)
{
    const uint32_t v = byte_order_detail::Load<uint32_t>(p);
    return byte_order_detail::kLittle ? __builtin_bswap32(v) : v;
}
inline uint64_t LoadU64BE(const uint8_t* p)
{
    const uint64_t v = byte_order_detail::Load<uint64_t>(p);
    return byte_order_detail::kLittle ? __builtin_bswap64(v) : v;
}
#else
inline uint16_t LoadU16LE(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t LoadU32LE(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t LoadU64LE(const uint8_t* p)
{
    return static_cast<uint64_t>(LoadU32LE(p)) | (static_cast<uint64_t>(LoadU32LE(p + 4)) << 32);
}
inline uint16_t LoadU16BE(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t LoadU32BE(const uint8_t* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}
inline uint64_t LoadU64BE(const uint8_t* p)
{
    return (static_cast<uint64_t>(LoadU32BE(p)) << 32) | static_cast<uint64_t>(LoadU32BE(p + 4));
}
#endif
float BitsToFloat(uint32_t bits);
double BitsToDouble(uint64_t bits);
uint32_t FloatToBits(float value);
uint64_t DoubleToBits(double value);
