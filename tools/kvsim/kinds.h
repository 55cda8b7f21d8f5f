#pragma once

#include "motion.h"

#include <nvenums.h>
#include <nvversion.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kvsim {

enum class Kind
{
    Imu,
    Ahrs,
    Gnss,
    Legacy,
    Master,  // wireless master: a port with trackers behind it
    Tracker, // wireless tracker behind a master; not a command-line kind
};

struct OutputRecord
{
    uint16_t id = 0;
    uint16_t frequency = 0;
    friend bool operator==(const OutputRecord& a, const OutputRecord& b)
    {
        return a.id == b.id && a.frequency == b.frequency;
    }
};

struct ItemSupport
{
    uint16_t quantity;
    std::vector<uint16_t> rates; // ascending; NV_FREQUENCY_EVERY_PACKET is always allowed
};

struct FilterProfile
{
    uint8_t type;
    uint8_t version;
    const char* label;
};

// What one kind of emulated device is and can do. Immutable; one per kind.
struct KindInfo
{
    Kind kind;
    const char* name; // also the kind name of nvEmulatedDeviceId
    NvVersion firmware;
    uint8_t hardwareMajor, hardwareMinor;
    bool hasOrientation;
    bool hasGnss;    // GNSS items, GNSS status and platform, RTCM forwarding, NMEA output
    bool hasBattery; // reported by the master in tracker records and link reports
    MotionModel::Style motion;
    uint16_t idleRate; // packet rate when only every-packet items are configured
    std::vector<ItemSupport> items;
    std::vector<OutputRecord> defaultOutput;
    std::vector<FilterProfile> profiles;
    uint16_t defaultProfile;
    std::vector<uint8_t> syncLines;
    uint32_t optionMask; // option flag bits the device knows

    const ItemSupport* support(uint16_t id) const;
    bool supportsRate(uint16_t id, uint16_t frequency) const;
    bool hasProfile(uint16_t type) const;
};

const KindInfo& kindInfo(Kind kind);
// The kinds a command line names directly (not master, which takes a tracker count, nor
// tracker, which only exists behind a master).
bool parseKind(const std::string& name, Kind& kind);

// Update rates a master offers to its trackers, fastest last.
const std::vector<uint16_t>& masterRates();
// A master's update rate at power-up and after RestoreFactoryDefaults (where offered).
constexpr uint16_t masterFactoryRate = 100;

// Option flag bits (Req/SetOptionFlags). The emulator records them; none changes the output.
enum OptionFlag : uint32_t
{
    OF_DISABLE_AUTO_STORE = 0x00000001,
    OF_DISABLE_AUTO_MEASUREMENT = 0x00000002,
    OF_ENABLE_BEIDOU = 0x00000004,
    OF_ENABLE_AHS = 0x00000010,
    OF_ENABLE_ORIENTATION_SMOOTHER = 0x00000020,
    OF_ENABLE_CONFIGURABLE_BUS_ID = 0x00000040,
    OF_ENABLE_IN_RUN_COMPASS_CALIBRATION = 0x00000080,
    OF_ENABLE_CONFIGURATION_MESSAGE_AT_STARTUP = 0x00000200,
    OF_ENABLE_POSITION_VELOCITY_SMOOTHER = 0x00000800,
    OF_ENABLE_CONTINUOUS_ZERO_ROTATION_UPDATE = 0x00001000,
};

// Baud rate code of a real rate (see NvBaudRate).
bool isValidBaudCode(uint8_t code);
// Output rates for the configuration pages: divisors of 2000.
const std::vector<uint16_t>& divisorsOf2000();

} // namespace kvsim
