#pragma once

// What a wireless master reports about one of its trackers, and its wire record
// (TrackerList 0xF5, TrackerStatus 0xFB): tracker id (8), bus id (1), state (1,
// NvConnectivityState), reject reason (1), RSSI (i8 dBm, -128 unknown), battery (%,
// 0xFF unknown), flags (1): 14 bytes.

#include "nvdeviceid.h"
#include "nvenums.h"
#include "nvexport.h"

#include <cstddef>
#include <cstdint>

// Why a master rejected a tracker.
enum class NvRejectReason : uint8_t
{
    None = 0,
    VersionMismatch = 1,
    Blacklisted = 2,
    StationDisconnecting = 3,
    SystemOperational = 4,
};

struct NV_API KvwInfo
{
    enum Flags : uint8_t
    {
        TransportMode = 0x01, // the tracker is switched off for transport
        Accepted = 0x02,      // the host accepted it (masters that ask first)
    };
    static constexpr int8_t RssiUnknown = -128;
    static constexpr uint8_t BatteryUnknown = 0xFF;

    NvDeviceId deviceId;
    NvDeviceId masterId; // not on the wire: the master the record came from
    uint8_t busId = 0;   // 1..32
    NvConnectivityState state = NCS_DISCONNECTED;
    NvRejectReason rejectReason = NvRejectReason::None;
    int8_t rssi = RssiUnknown;             // dBm
    uint8_t batteryLevel = BatteryUnknown; // 0..100 %
    uint8_t flags = 0;

    bool hasRssi() const { return rssi != RssiUnknown; }
    bool hasBatteryLevel() const { return batteryLevel != BatteryUnknown; }
    bool isInTransportMode() const { return (flags & TransportMode) != 0; }

    static constexpr size_t WireSize = 14;
    void toWire(uint8_t* out) const;
    // `masterId` is left empty.
    static KvwInfo fromWire(const uint8_t* in);

    NV_API friend bool operator==(const KvwInfo& a, const KvwInfo& b);
    friend bool operator!=(const KvwInfo& a, const KvwInfo& b) { return !(a == b); }
};
