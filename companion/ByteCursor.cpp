#include "companion/ByteCursor.h"

#include <cstring>
#include <string>

#include "companion/ObjectModel.h"

float BitsToFloat(uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

double BitsToDouble(uint64_t bits)
{
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
}

uint32_t FloatToBits(float value)
{
    uint32_t bits;
    std::memcpy(&bits, &value, 4);
    return bits;
}

uint64_t DoubleToBits(double value)
{
    uint64_t bits;
    std::memcpy(&bits, &value, 8);
    return bits;
}

size_t ByteCursor::Checked(size_t at, size_t len) const
{
    if (at > m_size || len > m_size - at)
        throw ecError("[ByteCursor] Field of " + std::to_string(len) + " bytes at offset " + std::to_string(at) +
                      " lies outside the " + std::to_string(m_size) + "-byte header.");
    return at + len;
}

const uint8_t* ByteCursor::Field(size_t at, size_t len) const
{
    Checked(at, len);
    return m_data + at;
}

void ByteCursor::seek(size_t offset)
{
    Checked(offset, 0);
    m_pos = offset;
}

uint16_t ByteCursor::u16le(size_t at) const { return LoadU16LE(Field(at, 2)); }
uint32_t ByteCursor::u32le(size_t at) const { return LoadU32LE(Field(at, 4)); }
uint64_t ByteCursor::u64le(size_t at) const { return LoadU64LE(Field(at, 8)); }
float ByteCursor::f32le(size_t at) const { return BitsToFloat(u32le(at)); }
double ByteCursor::f64le(size_t at) const { return BitsToDouble(u64le(at)); }
uint16_t ByteCursor::u16be(size_t at) const { return LoadU16BE(Field(at, 2)); }
uint32_t ByteCursor::u32be(size_t at) const { return LoadU32BE(Field(at, 4)); }
uint64_t ByteCursor::u64be(size_t at) const { return LoadU64BE(Field(at, 8)); }
float ByteCursor::f32be(size_t at) const { return BitsToFloat(u32be(at)); }
double ByteCursor::f64be(size_t at) const { return BitsToDouble(u64be(at)); }

std::string ByteCursor::str(size_t at, size_t len) const
{
    const char* p = reinterpret_cast<const char*>(Field(at, len));
    size_t n = 0;
    while (n < len && p[n] != '\0')
        ++n;
    return std::string(p, n);
}
