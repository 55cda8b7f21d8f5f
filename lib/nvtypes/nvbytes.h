#pragma once

// Plain byte and text containers of the library and the big-endian helpers that every
// Nbus payload is read and written with.

#include "nvexport.h"
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

// Text as the library passes it (UTF-8). A plain std::string so that callers need no
// conversions.
using NvString = std::string;
// Raw bytes (message data, captured streams).
using NvByteArray = std::vector<uint8_t>;
// A list of integers (port configuration words and the like).
using NvIntArray = std::vector<int>;

// Upper-case hexadecimal with one space between bytes: "FA FF 30 00 D1".
NV_API std::string nvToHex(const uint8_t* data, size_t size);
inline std::string nvToHex(const NvByteArray& bytes)
{
    return nvToHex(bytes.data(), bytes.size());
}
// Parses hexadecimal bytes; whitespace between bytes is optional. False on an odd
// number of digits or a character that is neither a digit nor whitespace.
NV_API bool nvFromHex(const std::string& text, NvByteArray& out);

// Big-endian reads and writes. The pointers must have room for the value; nothing here
// checks bounds (callers check sizes once per record, not per field).
namespace nvbe {

inline uint8_t readU8(const uint8_t* p)
{
    return p[0];
}
inline uint16_t readU16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline uint32_t readU32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline uint64_t readU64(const uint8_t* p)
{
    return (uint64_t(readU32(p)) << 32) | readU32(p + 4);
}
inline int8_t readI8(const uint8_t* p)
{
    return static_cast<int8_t>(p[0]);
}
inline int16_t readI16(const uint8_t* p)
{
    return static_cast<int16_t>(readU16(p));
}
inline int32_t readI32(const uint8_t* p)
{
    return static_cast<int32_t>(readU32(p));
}
inline int64_t readI64(const uint8_t* p)
{
    return static_cast<int64_t>(readU64(p));
}
inline float readF32(const uint8_t* p)
{
    const uint32_t bits = readU32(p);
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}
inline double readF64(const uint8_t* p)
{
    const uint64_t bits = readU64(p);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

inline void writeU8(uint8_t* p, uint8_t v)
{
    p[0] = v;
}
inline void writeU16(uint8_t* p, uint16_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void writeU32(uint8_t* p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline void writeU64(uint8_t* p, uint64_t v)
{
    writeU32(p, uint32_t(v >> 32));
    writeU32(p + 4, uint32_t(v));
}
inline void writeI8(uint8_t* p, int8_t v)
{
    p[0] = static_cast<uint8_t>(v);
}
inline void writeI16(uint8_t* p, int16_t v)
{
    writeU16(p, static_cast<uint16_t>(v));
}
inline void writeI32(uint8_t* p, int32_t v)
{
    writeU32(p, static_cast<uint32_t>(v));
}
inline void writeI64(uint8_t* p, int64_t v)
{
    writeU64(p, static_cast<uint64_t>(v));
}
inline void writeF32(uint8_t* p, float v)
{
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    writeU32(p, bits);
}
inline void writeF64(uint8_t* p, double v)
{
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    writeU64(p, bits);
}

// Appending forms for building payloads.
inline void appendU8(NvByteArray& out, uint8_t v)
{
    out.push_back(v);
}
inline void appendU16(NvByteArray& out, uint16_t v)
{
    out.resize(out.size() + 2);
    writeU16(out.data() + out.size() - 2, v);
}
inline void appendU32(NvByteArray& out, uint32_t v)
{
    out.resize(out.size() + 4);
    writeU32(out.data() + out.size() - 4, v);
}
inline void appendU64(NvByteArray& out, uint64_t v)
{
    out.resize(out.size() + 8);
    writeU64(out.data() + out.size() - 8, v);
}
inline void appendI16(NvByteArray& out, int16_t v)
{
    appendU16(out, static_cast<uint16_t>(v));
}
inline void appendI32(NvByteArray& out, int32_t v)
{
    appendU32(out, static_cast<uint32_t>(v));
}
inline void appendF32(NvByteArray& out, float v)
{
    out.resize(out.size() + 4);
    writeF32(out.data() + out.size() - 4, v);
}
inline void appendF64(NvByteArray& out, double v)
{
    out.resize(out.size() + 8);
    writeF64(out.data() + out.size() - 8, v);
}

} // namespace nvbe
