#include "nvdeviceid.h"

#include <cctype>
#include <cstdio>

namespace {

using namespace NvFamily;

constexpr uint32_t kTracker = InertialTracker;
constexpr uint32_t kMaster = WirelessMaster | Container;

// The one table of device types. Legacy rows are 12-bit types, new-form rows 16-bit
// types from 0x1000 up; only iMAR rows have 0xE in the low nibble of a legacy type.
constexpr NvDeviceTypeInfo kTypes[] = {
    // Legacy wired trackers: family L.
    {NvDeviceType::LegacyImu, true, kTracker | LegacyTracker | Imu, 'L', "kvl10", "KV-L10 IMU",
     "KV-L10"},
    {NvDeviceType::LegacyVru, true, kTracker | LegacyTracker, 'L', "kvl20", "KV-L20 VRU", "KV-L20"},
    {NvDeviceType::LegacyAhrs, true, kTracker | LegacyTracker, 'L', "kvl30", "KV-L30 AHRS",
     "KV-L30"},
    // First-generation wireless system.
    {NvDeviceType::LegacyStation, true, kMaster | MasterStation, 0, "kvstation1",
     "KV Station (gen 1)", "KV-ST1"},
    {NvDeviceType::LegacyDongle, true, kMaster | MasterDongle, 0, "kvdongle1", "KV Dongle (gen 1)",
     "KV-DG1"},
    {NvDeviceType::LegacyKvwTracker, true, WirelessTracker, 0, "kvw1", "KVW tracker (gen 1)",
     "KVW-1"},
    // External iMAR units.
    {NvDeviceType::ImarFsas, true, Imar, 0, "imarfsas", "iMAR FSAS", "IMAR-FSAS"},
    {NvDeviceType::ImarIfog, true, Imar, 0, "imarifog", "iMAR iFOG", "IMAR-IFOG"},
    {NvDeviceType::ImarIfogUart, true, Imar, 0, "imarifoguart", "iMAR iFOG-UART", "IMAR-IFOG-UART"},
    // Compact series: family M, GNSS member family R.
    {NvDeviceType::Kv100Imu, false, kTracker | CompactSeries | Imu, 'M', "kv100", "KV-100 IMU",
     "KV-100"},
    {NvDeviceType::Kv200Vru, false, kTracker | CompactSeries, 'M', "kv200", "KV-200 VRU", "KV-200"},
    {NvDeviceType::Kv300Ahrs, false, kTracker | CompactSeries, 'M', "kv300", "KV-300 AHRS",
     "KV-300"},
    {NvDeviceType::Kv370GnssIns, false, kTracker | CompactSeries | Gnss, 'R', "kv370",
     "KV-370 GNSS/INS", "KV-370"},
    // Industrial series: family P.
    {NvDeviceType::Kv610Imu, false, kTracker | IndustrialSeries | Imu, 'P', "kv610", "KV-610 IMU",
     "KV-610"},
    {NvDeviceType::Kv620Vru, false, kTracker | IndustrialSeries, 'P', "kv620", "KV-620 VRU",
     "KV-620"},
    {NvDeviceType::Kv630Ahrs, false, kTracker | IndustrialSeries, 'P', "kv630", "KV-630 AHRS",
     "KV-630"},
    {NvDeviceType::Kv670GnssIns, false, kTracker | IndustrialSeries | Gnss, 'P', "kv670",
     "KV-670 GNSS/INS", "KV-670"},
    // High-end series: family Q, GNSS/INS family S.
    {NvDeviceType::Kv710Imu, false, kTracker | HighEndSeries | Imu, 'Q', "kv710", "KV-710 IMU",
     "KV-710"},
    {NvDeviceType::Kv730Ahrs, false, kTracker | HighEndSeries, 'Q', "kv730", "KV-730 AHRS",
     "KV-730"},
    {NvDeviceType::Kv770GnssIns, false, kTracker | HighEndSeries | Gnss, 'S', "kv770",
     "KV-770 GNSS/INS", "KV-770"},
    // Wireless and body-worn systems.
    {NvDeviceType::StationX, false, kMaster | MasterStation | AerloX, 0, "kvstationx",
     "KV Station X", "KV-STX"},
    {NvDeviceType::DongleX, false, kMaster | MasterDongle | AerloX, 0, "kvdonglex", "KV Dongle X",
     "KV-DGX"},
    {NvDeviceType::KvwTracker, false, WirelessTracker, 0, "kvw2", "KVW tracker", "KVW-2"},
    {NvDeviceType::BodyPack, false, BodyPack | Container, 0, "kvbodypack", "KV Body Pack", "KV-BP"},
    {NvDeviceType::GloveLeft, false, Glove, 0, "kvglovel", "KV Glove (left)", "KV-GL-L"},
    {NvDeviceType::GloveRight, false, Glove, 0, "kvglover", "KV Glove (right)", "KV-GL-R"},
    {NvDeviceType::SyncStation, false, SyncStation | Container, 0, "kvsyncstation",
     "KV Sync Station", "KV-SYNC"},
};

constexpr uint32_t kLegacySerialMask = 0xFFFFF;
constexpr uint64_t kNewSerialMask = 0xFFFFFFFFFFFFull;
constexpr uint64_t kEmulatedSerialBase = 0x1000;

} // namespace

const NvDeviceTypeInfo* nvDeviceTypeTable(size_t* count)
{
    if (count)
        *count = sizeof kTypes / sizeof kTypes[0];
    return kTypes;
}

const NvDeviceTypeInfo* nvDeviceTypeInfo(uint32_t deviceType, bool legacyForm)
{
    for (const NvDeviceTypeInfo& info : kTypes)
        if (info.type == deviceType && info.legacyForm == legacyForm)
            return &info;
    return nullptr;
}

NvDeviceId::NvDeviceId(uint32_t legacyId)
    : m_form(legacyId ? Form::Legacy : Form::Empty), m_number(legacyId)
{
}

NvDeviceId::NvDeviceId(uint64_t serial, uint32_t deviceType, const std::string& productCode)
    : m_form(Form::New), m_number(serial), m_deviceType(deviceType), m_productCode(productCode)
{
}

NvDeviceId NvDeviceId::fromTypeAndSerial(uint32_t deviceType, uint64_t serial)
{
    const NvDeviceTypeInfo* legacy = nvDeviceTypeInfo(deviceType, true);
    if (legacy || (deviceType != 0 && deviceType < 0x1000))
        return NvDeviceId(static_cast<uint32_t>(deviceType << 20 | (serial & kLegacySerialMask)));
    const NvDeviceTypeInfo* info = nvDeviceTypeInfo(deviceType, false);
    return NvDeviceId(uint64_t(deviceType & 0xFFFF) << 48 | (serial & kNewSerialMask), deviceType,
                      info ? info->productCode : "");
}

uint32_t NvDeviceId::deviceType() const
{
    if (isLegacy())
        return static_cast<uint32_t>(m_number >> 20);
    if (m_form == Form::New)
        return m_deviceType ? m_deviceType : static_cast<uint32_t>(m_number >> 48);
    return 0;
}

uint64_t NvDeviceId::serialNumber() const
{
    if (isLegacy())
        return m_number & kLegacySerialMask;
    return m_number & kNewSerialMask;
}

std::string NvDeviceId::toString() const
{
    char text[17];
    switch (m_form) {
    case Form::Empty:
        return {};
    case Form::Legacy:
        std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(m_number));
        return text;
    case Form::New:
        std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(m_number));
        return text;
    }
    return {};
}

NvDeviceId NvDeviceId::fromString(const std::string& text)
{
    size_t pos = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        pos = 2;
    const size_t digits = text.size() - pos;
    if (digits == 0 || digits > 16)
        return {};
    uint64_t value = 0;
    for (; pos < text.size(); ++pos) {
        const int c = std::toupper(static_cast<unsigned char>(text[pos]));
        if (!std::isxdigit(c))
            return {};
        value = (value << 4) | static_cast<uint64_t>(c <= '9' ? c - '0' : c - 'A' + 10);
    }
    if (digits <= 8)
        return NvDeviceId(static_cast<uint32_t>(value));
    return fromWire64(value);
}

NvDeviceId NvDeviceId::fromWire64(uint64_t number)
{
    if (number == 0)
        return {};
    if (number <= 0xFFFFFFFFull)
        return NvDeviceId(static_cast<uint32_t>(number));
    const uint32_t type = static_cast<uint32_t>(number >> 48);
    const NvDeviceTypeInfo* info = nvDeviceTypeInfo(type, false);
    return NvDeviceId(number, 0, info ? info->productCode : "");
}

std::vector<uint8_t> NvDeviceId::toWire() const
{
    std::vector<uint8_t> out;
    const int bytes = isLegacy() ? 4 : m_form == Form::New ? 8 : 0;
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<uint8_t>(m_number >> (8 * i)));
    return out;
}

NvDeviceId NvDeviceId::fromWire(const uint8_t* data, size_t size)
{
    if (size != 4 && size != 8)
        return {};
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value = value << 8 | data[i];
    if (size == 4)
        return NvDeviceId(static_cast<uint32_t>(value));
    // An 8-byte reply is the new form even when the type bits are 0.
    const NvDeviceTypeInfo* info = nvDeviceTypeInfo(static_cast<uint32_t>(value >> 48), false);
    return value ? NvDeviceId(value, 0, info ? info->productCode : "") : NvDeviceId();
}

const NvDeviceTypeInfo* NvDeviceId::typeInfo() const
{
    if (isEmpty())
        return nullptr;
    return nvDeviceTypeInfo(deviceType(), isLegacy());
}

uint32_t NvDeviceId::families() const
{
    const NvDeviceTypeInfo* info = typeInfo();
    uint32_t flags = info ? info->families : 0;
    if (isImar())
        flags |= NvFamily::Imar;
    return flags;
}

bool NvDeviceId::isWirelessMaster() const
{
    return families() & NvFamily::WirelessMaster;
}
bool NvDeviceId::isWirelessMasterStation() const
{
    return families() & NvFamily::MasterStation;
}
bool NvDeviceId::isWirelessMasterDongle() const
{
    return families() & NvFamily::MasterDongle;
}
bool NvDeviceId::isAerloX() const
{
    return families() & NvFamily::AerloX;
}
bool NvDeviceId::isWirelessTracker() const
{
    return families() & NvFamily::WirelessTracker;
}
bool NvDeviceId::isBodyPack() const
{
    return families() & NvFamily::BodyPack;
}
bool NvDeviceId::isGlove() const
{
    return families() & NvFamily::Glove;
}
bool NvDeviceId::isSyncStation() const
{
    return families() & NvFamily::SyncStation;
}
bool NvDeviceId::isLegacyTracker() const
{
    return families() & NvFamily::LegacyTracker;
}
bool NvDeviceId::isCompactSeries() const
{
    return families() & NvFamily::CompactSeries;
}
bool NvDeviceId::isIndustrialSeries() const
{
    return families() & NvFamily::IndustrialSeries;
}
bool NvDeviceId::isHighEndSeries() const
{
    return families() & NvFamily::HighEndSeries;
}
bool NvDeviceId::isGnss() const
{
    return families() & NvFamily::Gnss;
}
bool NvDeviceId::isImu() const
{
    return families() & NvFamily::Imu;
}
bool NvDeviceId::isInertialTracker() const
{
    return families() & NvFamily::InertialTracker;
}
bool NvDeviceId::isContainer() const
{
    return families() & NvFamily::Container;
}

char NvDeviceId::letterFamily() const
{
    const NvDeviceTypeInfo* info = typeInfo();
    return info ? info->letterFamily : 0;
}

bool NvDeviceId::isImar() const
{
    return isLegacy() && (m_number & 0xF00000u) == 0xE00000u;
}

bool NvDeviceId::hasOrientationOutput() const
{
    const uint32_t f = families();
    if (f & NvFamily::InertialTracker)
        return !(f & NvFamily::Imu);
    return (f & (NvFamily::WirelessTracker | NvFamily::Glove)) != 0;
}

std::string NvDeviceId::deviceTypeText() const
{
    if (isEmpty())
        return {};
    const NvDeviceTypeInfo* info = typeInfo();
    if (info)
        return info->text;
    return isImar() ? "iMAR unit" : "Unknown device";
}

std::string NvDeviceId::typeName() const
{
    if (isEmpty())
        return {};
    const NvDeviceTypeInfo* info = typeInfo();
    if (info)
        return info->typeName;
    char text[16];
    std::snprintf(text, sizeof text, isLegacy() ? "type%03X" : "type%04X", deviceType());
    return text;
}

NvDeviceId nvEmulatedDeviceId(const std::string& kind, uint32_t index)
{
    uint32_t type = 0;
    if (kind == "imu")
        type = NvDeviceType::Kv100Imu;
    else if (kind == "ahrs")
        type = NvDeviceType::Kv300Ahrs;
    else if (kind == "gnss")
        type = NvDeviceType::Kv770GnssIns;
    else if (kind == "legacy")
        type = NvDeviceType::LegacyAhrs;
    else if (kind == "master")
        type = NvDeviceType::StationX;
    else if (kind == "tracker")
        type = NvDeviceType::KvwTracker;
    else
        return {};
    return NvDeviceId::fromTypeAndSerial(type, kEmulatedSerialBase + index);
}

NvDeviceId nvEmulatedTrackerId(uint32_t masterIndex, uint32_t slot)
{
    return nvEmulatedDeviceId("tracker", masterIndex * 32 + slot);
}
