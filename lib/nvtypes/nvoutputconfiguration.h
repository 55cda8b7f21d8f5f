#pragma once

// Output configuration: which data items a device sends and how often.
// Wire form (Req/SetOutputConfiguration 0xC0, reply 0xC1): records of data identifier (2)
// and frequency (2), big-endian, at most 32.

#include "nvbytes.h"
#include "nvenums.h"
#include "nvexport.h"

#include <cstddef>
#include <cstdint>
#include <vector>

struct NvOutputConfiguration
{
    NvDataIdentifier dataIdentifier = NDI_NONE;
    uint16_t frequency = 0; // Hz; NV_FREQUENCY_EVERY_PACKET: with every packet

    constexpr NvOutputConfiguration() = default;
    constexpr NvOutputConfiguration(NvDataIdentifier id, uint16_t hz)
        : dataIdentifier(id), frequency(hz)
    {
    }
    bool isEveryPacket() const { return frequency == NV_FREQUENCY_EVERY_PACKET; }

    friend bool operator==(const NvOutputConfiguration& a, const NvOutputConfiguration& b)
    {
        return a.dataIdentifier == b.dataIdentifier && a.frequency == b.frequency;
    }
    friend bool operator!=(const NvOutputConfiguration& a, const NvOutputConfiguration& b)
    {
        return !(a == b);
    }
    // By identifier, then frequency (sorting arrays for comparison).
    friend bool operator<(const NvOutputConfiguration& a, const NvOutputConfiguration& b)
    {
        return a.dataIdentifier != b.dataIdentifier ? a.dataIdentifier < b.dataIdentifier
                                                    : a.frequency < b.frequency;
    }
};

using NvOutputConfigurationArray = std::vector<NvOutputConfiguration>;

constexpr size_t NvOutputConfigurationRecordSize = 4;
constexpr size_t NvOutputConfigurationMaxRecords = 32;

// The wire records of an array; false (and `out` untouched) for more than 32 records.
NV_API bool nvOutputConfigurationToWire(const NvOutputConfigurationArray& config, NvByteArray& out);
NV_API NvByteArray nvOutputConfigurationToWire(const NvOutputConfigurationArray& config);
// False for a size that is not a multiple of 4 or more than 32 records.
NV_API bool nvOutputConfigurationFromWire(const uint8_t* data, size_t size,
                                          NvOutputConfigurationArray& out);
// The record of a quantity (format bits ignored), or null.
NV_API const NvOutputConfiguration* nvFindOutput(const NvOutputConfigurationArray& config,
                                                 NvDataIdentifier quantity);
