#pragma once

#include "kinds.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvsim {

struct FaultSettings
{
    double drop = 0;             // fraction of data packets not sent
    double corrupt = 0;          // fraction of data frames damaged
    double disconnectAfter = -1; // seconds until the port closes; negative: never
};

struct DeviceSetup
{
    Kind kind = Kind::Imu;
    bool measure = false;          // start measuring at once
    bool wakeUp = false;           // power up with a WakeUp like after a reset
    bool rs485 = false;            // on an RS-485 interface: has a transmission delay
    bool nmea = false;             // start with NMEA string output (gnss)
    uint16_t rate = 0;             // default output rate instead of the kind's 100 Hz
    std::optional<uint32_t> index; // serial index of the identifier
    uint32_t trackers = 0;         // master: trackers behind it, 1..32
    uint32_t docked = 0;           // master: the first ones sit in the dock
    uint32_t rejected = 0;         // master: the last ones are refused when they call in
    FaultSettings faults;          // after parsing: the global settings with overrides
    std::optional<double> drop, corrupt, disconnectAfter; // per-device overrides
};

struct Options
{
    std::vector<DeviceSetup> devices;
    uint64_t seed = 1;
    std::string truthPath;
    FaultSettings faults;
    bool quiet = false;
    bool help = false;
    bool version = false;
};

// Parses the command line; false with a message in error on mistakes.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);
std::string helpText();

} // namespace kvsim
