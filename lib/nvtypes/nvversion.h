#pragma once

// A firmware or hardware version. The FirmwareRevision reply (0x13) carries major, minor,
// revision (1 byte each), build number (4) and change number (4); the HardwareVersion
// reply (0x1F) major and minor.

#include "nvexport.h"
#include <cstddef>
#include <cstdint>
#include <string>

struct NV_API NvVersion
{
    uint8_t major = 0;
    uint8_t minor = 0;
    uint8_t revision = 0;
    uint32_t build = 0;
    uint32_t change = 0;

    constexpr NvVersion() = default;
    constexpr NvVersion(uint8_t ma, uint8_t mi, uint8_t rev = 0, uint32_t b = 0, uint32_t c = 0)
        : major(ma), minor(mi), revision(rev), build(b), change(c)
    {
    }

    bool isNull() const { return major == 0 && minor == 0 && revision == 0; }
    // "major.minor.revision"
    std::string toString() const;
    // "major.minor.revision build B rev C" (the parts present)
    std::string toLongString() const;
    // Parses "a", "a.b" or "a.b.c" (each 0..255); false otherwise.
    static bool fromString(const std::string& text, NvVersion& out);

    static constexpr size_t FirmwareWireSize = 11;
    static constexpr size_t HardwareWireSize = 2;
    void toFirmwareWire(uint8_t* out) const;
    static NvVersion fromFirmwareWire(const uint8_t* in);
    void toHardwareWire(uint8_t* out) const;
    static NvVersion fromHardwareWire(const uint8_t* in);

    // Order and equality by major, minor, revision (build and change do not count).
    friend bool operator<(const NvVersion& a, const NvVersion& b)
    {
        if (a.major != b.major)
            return a.major < b.major;
        if (a.minor != b.minor)
            return a.minor < b.minor;
        return a.revision < b.revision;
    }
    friend bool operator>(const NvVersion& a, const NvVersion& b) { return b < a; }
    friend bool operator<=(const NvVersion& a, const NvVersion& b) { return !(b < a); }
    friend bool operator>=(const NvVersion& a, const NvVersion& b) { return !(a < b); }
    friend bool operator==(const NvVersion& a, const NvVersion& b)
    {
        return a.major == b.major && a.minor == b.minor && a.revision == b.revision;
    }
    friend bool operator!=(const NvVersion& a, const NvVersion& b) { return !(a == b); }
};
