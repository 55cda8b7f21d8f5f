#pragma once

#include "nvexport.h"
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Device types. Legacy types are 12 bits (bits 20-31 of a legacy identifier); types of
// the new form are 16 bits, from 0x1000 up, and are also carried in bits 48-63 of the
// new form's number, so that an identifier read back from text or from the 8-byte wire
// form still knows its type. docs/protocol.md tables the families of each type.
namespace NvDeviceType {
enum : uint32_t
{
    Unknown = 0,

    // Legacy form. Only iMAR units have 0xE in the low nibble (bits 20-23 of the id).
    LegacyImu = 0x010,        // KV-L10 IMU, family L
    LegacyVru = 0x020,        // KV-L20 VRU, family L
    LegacyAhrs = 0x030,       // KV-L30 AHRS, family L
    LegacyStation = 0x050,    // first wireless master station
    LegacyDongle = 0x051,     // first wireless master dongle
    LegacyKvwTracker = 0x052, // first wireless tracker
    ImarFsas = 0x00E,         // external iMAR units
    ImarIfog = 0x01E,
    ImarIfogUart = 0x02E,

    // New form: compact series (families M, R)
    Kv100Imu = 0x1100,
    Kv200Vru = 0x1200,
    Kv300Ahrs = 0x1300,
    Kv370GnssIns = 0x1370,
    // Industrial series (family P)
    Kv610Imu = 0x1610,
    Kv620Vru = 0x1620,
    Kv630Ahrs = 0x1630,
    Kv670GnssIns = 0x1670, // internal GNSS receiver
    // High-end series (families Q, S)
    Kv710Imu = 0x1710,
    Kv730Ahrs = 0x1730,
    Kv770GnssIns = 0x1770,
    // Wireless and body-worn systems
    StationX = 0x2100, // wireless master station, newer master family
    DongleX = 0x2110,  // wireless master dongle, newer master family
    KvwTracker = 0x2200,
    BodyPack = 0x2300,
    GloveLeft = 0x2400,
    GloveRight = 0x2401,
    SyncStation = 0x2500,
};
} // namespace NvDeviceType

// Family flags of a device type.
namespace NvFamily {
enum : uint32_t
{
    WirelessMaster = 1u << 0,
    MasterStation = 1u << 1,
    MasterDongle = 1u << 2,
    AerloX = 1u << 3, // the newer wireless-master family
    WirelessTracker = 1u << 4,
    BodyPack = 1u << 5,
    Glove = 1u << 6,
    SyncStation = 1u << 7,
    LegacyTracker = 1u << 8, // legacy wired tracker
    CompactSeries = 1u << 9,
    IndustrialSeries = 1u << 10,
    HighEndSeries = 1u << 11,
    Gnss = 1u << 12,
    Imu = 1u << 13, // no orientation output
    InertialTracker = 1u << 14,
    Container = 1u << 15, // holds other devices
    Imar = 1u << 16,
};
}

// One row of the device-type table.
struct NvDeviceTypeInfo
{
    uint32_t type;
    bool legacyForm;
    uint32_t families;       // NvFamily flags
    char letterFamily;       // 'L', 'M', 'P', 'Q', 'R', 'S' or 0
    const char* typeName;    // short stable key, e.g. "kv100"
    const char* text;        // what the GUI shows, e.g. "KV-100 IMU"
    const char* productCode; // default product code, e.g. "KV-100"
};

// The identity of a device. Two forms exist: the legacy 32-bit identifier (device type
// in bits 20-31, serial in bits 0-19) and the newer form, a 64-bit number (device type in
// bits 48-63, serial below) that comes with a product code and a device-type number.
// Identity, order and text are those of the number; legacy identifiers sort before new
// ones. The default value is empty and means "no device".
class NV_API NvDeviceId
{
public:
    NvDeviceId() = default;
    explicit NvDeviceId(uint32_t legacyId);
    // A `deviceType` of 0 takes the type from bits 48-63 of `serial`.
    NvDeviceId(uint64_t serial, uint32_t deviceType, const std::string& productCode);
    // From type and serial: the legacy form for a legacy table type (serial masked to 20
    // bits), the new form otherwise (serial masked to 48 bits, the table's product code).
    static NvDeviceId fromTypeAndSerial(uint32_t deviceType, uint64_t serial);

    bool isEmpty() const { return m_form == Form::Empty; }
    bool isLegacy() const { return m_form == Form::Legacy; }

    // The legacy identifier, or 0 for the new form.
    uint32_t legacyDeviceId() const { return isLegacy() ? static_cast<uint32_t>(m_number) : 0; }
    // The number that identifies the device in either form.
    uint64_t toInt() const { return m_number; }
    // Bits 20-31 of a legacy identifier; the device-type number of the new form.
    uint32_t deviceType() const;
    // The serial part: bits 0-19 (legacy) or 0-47 (new).
    uint64_t serialNumber() const;
    const std::string& productCode() const { return m_productCode; }

    // Upper-case hexadecimal: 8 digits for the legacy form, 16 for the new one;
    // empty for the empty identifier.
    std::string toString() const;
    // Parses what toString writes (case-insensitive, optional "0x"); 1 to 8 digits give
    // the legacy form, 9 to 16 the new one. Anything else gives the empty identifier.
    static NvDeviceId fromString(const std::string& text);

    // The 8-byte field of master messages: the new form's number, or the legacy
    // identifier zero-extended (new-form numbers always have a type in bits 48-63).
    uint64_t toWire64() const { return m_number; }
    static NvDeviceId fromWire64(uint64_t number);
    // The DeviceId reply (0x01): 4 bytes legacy, 8 bytes new form, big-endian.
    std::vector<uint8_t> toWire() const;
    static NvDeviceId fromWire(const uint8_t* data, size_t size);

    // ---- Families: functions of the identifier alone (the type table) ----
    const NvDeviceTypeInfo* typeInfo() const;
    uint32_t families() const;
    bool isWirelessMaster() const;
    bool isWirelessMasterStation() const;
    bool isWirelessMasterDongle() const;
    bool isAerloX() const;
    bool isWirelessTracker() const;
    bool isBodyPack() const;
    bool isGlove() const;
    bool isSyncStation() const;
    bool isLegacyTracker() const;
    bool isCompactSeries() const;
    bool isIndustrialSeries() const;
    bool isHighEndSeries() const;
    bool isGnss() const;
    bool isImu() const;
    bool isInertialTracker() const;
    bool isContainer() const;
    bool isFamilyL() const { return letterFamily() == 'L'; }
    bool isFamilyM() const { return letterFamily() == 'M'; }
    bool isFamilyP() const { return letterFamily() == 'P'; }
    bool isFamilyQ() const { return letterFamily() == 'Q'; }
    bool isFamilyR() const { return letterFamily() == 'R'; }
    bool isFamilyS() const { return letterFamily() == 'S'; }
    char letterFamily() const;
    // Legacy form with bits 20-23 equal to 0xE, known type or not.
    bool isImar() const;
    // Whether the device can output orientation (inertial trackers that are not IMUs,
    // wireless trackers, gloves).
    bool hasOrientationOutput() const;

    // "KV-100 IMU"; "Unknown device" for types not in the table, "" for empty.
    std::string deviceTypeText() const;
    // "kv100"; "type" + hexadecimal type for types not in the table, "" for empty.
    std::string typeName() const;

    friend bool operator==(const NvDeviceId& a, const NvDeviceId& b)
    {
        return a.m_form == b.m_form && a.m_number == b.m_number;
    }
    friend bool operator!=(const NvDeviceId& a, const NvDeviceId& b) { return !(a == b); }
    friend bool operator<(const NvDeviceId& a, const NvDeviceId& b)
    {
        return a.m_form != b.m_form ? a.m_form < b.m_form : a.m_number < b.m_number;
    }
    friend bool operator>(const NvDeviceId& a, const NvDeviceId& b) { return b < a; }
    friend bool operator<=(const NvDeviceId& a, const NvDeviceId& b) { return !(b < a); }
    friend bool operator>=(const NvDeviceId& a, const NvDeviceId& b) { return !(a < b); }

private:
    // Declaration order is the sort order of the forms.
    enum class Form : uint8_t
    {
        Empty,
        Legacy,
        New
    };

    Form m_form = Form::Empty;
    uint64_t m_number = 0;
    uint32_t m_deviceType = 0;
    std::string m_productCode;
};

using NvDeviceIdArray = std::vector<NvDeviceId>;

// The type table (one row per known type) and a lookup in it.
NV_API const NvDeviceTypeInfo* nvDeviceTypeTable(size_t* count);
NV_API const NvDeviceTypeInfo* nvDeviceTypeInfo(uint32_t deviceType, bool legacyForm);

// The identifiers the emulator gives its devices, so that it and the tests agree.
// Kinds: "imu" (KV-100, compact IMU), "ahrs" (KV-300, compact AHRS), "gnss" (KV-770,
// high-end GNSS/INS), "legacy" (KV-L30 AHRS, legacy 32-bit form), "master" (Station X,
// the newer master family: isAerloX), "tracker" (KVW tracker, behind a master).
// `index` (0, 1, ...) tells devices of one kind apart; the serial is 0x1000 + index,
// so bits 20-23 stay 0 for any index below 0xFF000. Unknown kinds give the empty id.
NV_API NvDeviceId nvEmulatedDeviceId(const std::string& kind, uint32_t index);
// Tracker `slot` (0..31) of master `masterIndex`: "tracker" index masterIndex * 32 + slot.
NV_API NvDeviceId nvEmulatedTrackerId(uint32_t masterIndex, uint32_t slot);

namespace std {
template <>
struct hash<NvDeviceId>
{
    size_t operator()(const NvDeviceId& id) const noexcept
    {
        return std::hash<uint64_t>()(id.toInt() ^ (id.isLegacy() ? 0x9E3779B97F4A7C15ull : 0));
    }
};
} // namespace std
