#pragma once

// Synchronisation settings: which line triggers or emits which function.
// Wire form (Req/SetSyncSettings 0x2C, reply 0x2D): 18-byte records, big-endian, fields
// in declaration order: line, function, polarity (1 each), pulse width (4), offset (4,
// signed), skip first (2), skip factor (2), clock period (2), trigger once (1).

#include "nvbytes.h"
#include "nvenums.h"
#include "nvexport.h"

#include <cstddef>
#include <cstdint>
#include <vector>

struct NV_API NvSyncSetting
{
    NvSyncLine line = NSL_IN1;
    NvSyncFunction function = NSF_NONE;
    NvSyncPolarity polarity = NSP_RISING_EDGE;
    uint32_t pulseWidth = 1000; // µs
    int32_t offset = 0;         // µs
    uint16_t skipFirst = 0;
    uint16_t skipFactor = 0;
    uint16_t clockPeriod = 0;
    uint8_t triggerOnce = 0;

    static constexpr size_t WireSize = 18;
    void toWire(uint8_t* out) const;
    static NvSyncSetting fromWire(const uint8_t* in);

    bool isInput() const { return line <= NSL_GNSS_1PPS; }

    NV_API friend bool operator==(const NvSyncSetting& a, const NvSyncSetting& b);
    friend bool operator!=(const NvSyncSetting& a, const NvSyncSetting& b) { return !(a == b); }
};

using NvSyncSettingArray = std::vector<NvSyncSetting>;

NV_API NvByteArray nvSyncSettingsToWire(const NvSyncSettingArray& settings);
// False for a size that is not a multiple of 18.
NV_API bool nvSyncSettingsFromWire(const uint8_t* data, size_t size, NvSyncSettingArray& out);

// English names as a settings page shows them; "Unknown" outside the tables.
NV_API const char* nvSyncLineName(int line);
NV_API const char* nvSyncFunctionName(int function);
NV_API const char* nvSyncPolarityName(int polarity);
