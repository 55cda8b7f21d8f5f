#pragma once

// Records carried by time and GNSS data items, and the GNSS status reply.

#include "nvbytes.h"
#include "nvexport.h"

#include <cstddef>
#include <cstdint>
#include <vector>

// UTC time item (0x1010) and Req/SetUtcTime (0x60): 12 bytes.
struct NV_API NvUtcTime
{
    enum Flags : uint8_t
    {
        ValidTimeOfWeek = 0x01,
        ValidWeekNumber = 0x02,
        ValidUtc = 0x04,
    };
    uint32_t nanoseconds = 0; // 0..999,999,999 within the second
    uint16_t year = 0;
    uint8_t month = 0; // 1..12
    uint8_t day = 0;   // 1..31
    uint8_t hour = 0;
    uint8_t minute = 0;
    uint8_t second = 0; // 0..60 (leap second)
    uint8_t flags = 0;

    static constexpr size_t WireSize = 12;
    void toWire(uint8_t* out) const;
    static NvUtcTime fromWire(const uint8_t* in);
    NV_API friend bool operator==(const NvUtcTime& a, const NvUtcTime& b);
    friend bool operator!=(const NvUtcTime& a, const NvUtcTime& b) { return !(a == b); }
};

// GNSS PVT data item (0x7010): 94 bytes, all fields big-endian, in this order.
struct NV_API NvGnssPvt
{
    enum FixType : uint8_t
    {
        NoFix = 0,
        DeadReckoning = 1,
        Fix2D = 2,
        Fix3D = 3,
        GnssAndDeadReckoning = 4,
        TimeOnly = 5,
    };
    enum Valid : uint8_t // `valid`
    {
        ValidDate = 0x01,
        ValidTime = 0x02,
        FullyResolved = 0x04,
    };
    enum Flags : uint8_t // `flags`; bits 6-7: carrier solution 0 none, 1 float, 2 fixed
    {
        GnssFixOk = 0x01,
        DifferentialSolution = 0x02,
        CarrierFloat = 0x40,
        CarrierFixed = 0x80,
    };

    uint32_t timeOfWeek = 0;   // ms                      offset 0
    uint16_t year = 0;         //                         4
    uint8_t month = 0;         //                         6
    uint8_t day = 0;           //                         7
    uint8_t hour = 0;          //                         8
    uint8_t minute = 0;        //                         9
    uint8_t second = 0;        //                         10
    uint8_t valid = 0;         //                         11
    uint32_t timeAccuracy = 0; // ns                    12
    int32_t nano = 0;          // ns, fraction of second  16
    uint8_t fixType = NoFix;   //                         20
    uint8_t flags = 0;         //                         21
    uint8_t numSv = 0;         // satellites used         22
    uint8_t reserved = 0;      //                         23
    int32_t lon = 0;           // 1e-7 deg                24
    int32_t lat = 0;           // 1e-7 deg                28
    int32_t height = 0;        // mm above ellipsoid      32
    int32_t hMsl = 0;          // mm above mean sea level 36
    uint32_t hAcc = 0;         // mm                      40
    uint32_t vAcc = 0;         // mm                      44
    int32_t velN = 0;          // mm/s                    48
    int32_t velE = 0;          // mm/s                    52
    int32_t velD = 0;          // mm/s                    56
    int32_t gSpeed = 0;        // mm/s ground speed       60
    int32_t headMot = 0;       // 1e-5 deg heading of motion 64
    uint32_t sAcc = 0;         // mm/s                    68
    uint32_t headAcc = 0;      // 1e-5 deg                72
    int32_t headVeh = 0;       // 1e-5 deg heading of vehicle 76
    uint16_t gdop = 0;         // 0.01, geometric         80
    uint16_t pdop = 0;         // position                82
    uint16_t tdop = 0;         // time                    84
    uint16_t vdop = 0;         // vertical                86
    uint16_t hdop = 0;         // horizontal              88
    uint16_t ndop = 0;         // northing                90
    uint16_t edop = 0;         // easting                 92

    static constexpr size_t WireSize = 94;
    void toWire(uint8_t* out) const;
    static NvGnssPvt fromWire(const uint8_t* in);

    double latitudeDeg() const { return lat * 1e-7; }
    double longitudeDeg() const { return lon * 1e-7; }
    NV_API friend bool operator==(const NvGnssPvt& a, const NvGnssPvt& b);
    friend bool operator!=(const NvGnssPvt& a, const NvGnssPvt& b) { return !(a == b); }
};

// GNSS systems (satellite records).
enum class NvGnssSystem : uint8_t
{
    Gps = 0,
    Sbas = 1,
    Galileo = 2,
    Beidou = 3,
    Qzss = 5,
    Glonass = 6,
};

// GNSS satellite info item (0x7020): time of week (4), count (1), 3 reserved, then per
// satellite 6 bytes: system (1), satellite id (1), C/N0 dBHz (1), flags (1), elevation
// (i8, degrees), azimuth (u8, units of 2 degrees).
struct NvGnssSatellite
{
    enum Flags : uint8_t
    {
        QualityMask = 0x07, // 0 no signal .. 7 code and carrier locked
        UsedForNavigation = 0x08,
        HealthMask = 0x30, // 0 unknown, 0x10 healthy, 0x20 unhealthy
        DifferentialAvailable = 0x40,
    };
    uint8_t system = 0;
    uint8_t satelliteId = 0;
    uint8_t cno = 0;
    uint8_t flags = 0;
    int8_t elevation = 0; // degrees
    uint8_t azimuth2 = 0; // degrees / 2
    NV_API friend bool operator==(const NvGnssSatellite& a, const NvGnssSatellite& b);
};

struct NV_API NvGnssSatInfo
{
    uint32_t timeOfWeek = 0;                 // ms
    std::vector<NvGnssSatellite> satellites; // at most 255 (a packet holds fewer)

    size_t wireSize() const { return 8 + 6 * satellites.size(); }
    NvByteArray toWire() const;
    // False when the size does not match the count.
    static bool fromWire(const uint8_t* in, size_t size, NvGnssSatInfo& out);
    NV_API friend bool operator==(const NvGnssSatInfo& a, const NvGnssSatInfo& b);
};

// Reply to ReqGnssStatus (0xA7): count (1), then per satellite system, id, C/N0, flags.
struct NV_API NvGpsStatus
{
    struct Satellite
    {
        uint8_t system = 0;
        uint8_t satelliteId = 0;
        uint8_t cno = 0;   // dBHz
        uint8_t flags = 0; // as NvGnssSatellite::Flags
        friend bool operator==(const Satellite& a, const Satellite& b)
        {
            return a.system == b.system && a.satelliteId == b.satelliteId && a.cno == b.cno &&
                   a.flags == b.flags;
        }
    };
    std::vector<Satellite> satellites;

    NvByteArray toWire() const;
    static bool fromWire(const uint8_t* in, size_t size, NvGpsStatus& out);
    friend bool operator==(const NvGpsStatus& a, const NvGpsStatus& b)
    {
        return a.satellites == b.satellites;
    }
};
