#include "options.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

namespace kvsim {

namespace {

bool parseDouble(const std::string& text, double& value)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text.c_str(), &end);
    return errno == 0 && end && *end == '\0';
}

bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || !end || *end != '\0' || v > max)
        return false;
    value = v;
    return true;
}

bool parseFraction(const std::string& option, const std::string& text, double& value,
                   std::string& error)
{
    if (!parseDouble(text, value) || value < 0 || value > 1) {
        error = option + " needs a fraction from 0 to 1, not '" + text + "'";
        return false;
    }
    return true;
}

bool parseSeconds(const std::string& option, const std::string& text, double& value,
                  std::string& error)
{
    if (!parseDouble(text, value) || value < 0 || value > 1e7) {
        error = option + " needs a number of seconds, not '" + text + "'";
        return false;
    }
    return true;
}

bool parseDevice(const std::string& text, DeviceSetup& setup, std::string& error)
{
    const size_t colon = text.find(':');
    const std::string kindName = text.substr(0, colon);
    std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
    size_t start = 0;
    if (kindName == "master") {
        // The tracker count comes first: master:N[,OPT...]
        setup.kind = Kind::Master;
        const size_t comma = rest.find(',');
        uint64_t count = 0;
        if (colon == std::string::npos || !parseUnsigned(rest.substr(0, comma), 32, count) ||
            count == 0) {
            error = "the master kind needs its number of trackers, 1 to 32: master:N";
            return false;
        }
        setup.trackers = static_cast<uint32_t>(count);
        if (comma == std::string::npos)
            return true;
        start = comma + 1;
    } else if (!parseKind(kindName, setup.kind)) {
        error = "unknown device kind '" + kindName + "' (kinds: imu, ahrs, gnss, legacy, master:N)";
        return false;
    }
    if (colon == std::string::npos)
        return true;

    while (start <= rest.size()) {
        size_t comma = rest.find(',', start);
        if (comma == std::string::npos)
            comma = rest.size();
        const std::string option = rest.substr(start, comma - start);
        start = comma + 1;
        const size_t eq = option.find('=');
        const std::string key = option.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : option.substr(eq + 1);
        const bool hasValue = eq != std::string::npos;
        const KindInfo& info = kindInfo(setup.kind);
        uint64_t number = 0;
        double real = 0;
        if (key == "measure" && !hasValue) {
            setup.measure = true;
        } else if (key == "wakeup" && !hasValue) {
            setup.wakeUp = true;
        } else if (key == "rs485" && !hasValue) {
            setup.rs485 = true;
        } else if (key == "nmea" && !hasValue) {
            if (!info.hasGnss) {
                error = "option 'nmea' needs the gnss kind";
                return false;
            }
            setup.nmea = true;
        } else if (key == "rate" && hasValue && setup.kind == Kind::Master) {
            const auto& rates = masterRates();
            if (!parseUnsigned(value, 2000, number) ||
                std::find(rates.begin(), rates.end(), number) == rates.end()) {
                std::string offered;
                for (size_t i = 0; i < rates.size(); ++i)
                    offered += (i == 0                  ? ""
                                : i + 1 == rates.size() ? " or "
                                                        : ", ") +
                               std::to_string(rates[i]);
                error = "rate '" + value + "' is not an update rate of a master (" + offered + ")";
                return false;
            }
            setup.rate = static_cast<uint16_t>(number);
        } else if ((key == "docked" || key == "reject") && hasValue && setup.kind == Kind::Master) {
            if (!parseUnsigned(value, 32, number)) {
                error = key + " needs a number of trackers, not '" + value + "'";
                return false;
            }
            (key == "docked" ? setup.docked : setup.rejected) = static_cast<uint32_t>(number);
        } else if (key == "rate" && hasValue) {
            if (!parseUnsigned(value, 2000, number) ||
                !info.supportsRate(NDI_ACCELERATION, static_cast<uint16_t>(number))) {
                error = "rate '" + value + "' is not an output rate of the " + info.name +
                        " kind (see --help)";
                return false;
            }
            setup.rate = static_cast<uint16_t>(number);
        } else if (key == "index" && hasValue) {
            if (!parseUnsigned(value, 0xFFFFF, number)) {
                error = "index needs a number from 0 to 1048575";
                return false;
            }
            setup.index = static_cast<uint32_t>(number);
        } else if (key == "drop" && hasValue) {
            if (!parseFraction("drop", value, real, error))
                return false;
            setup.drop = real;
        } else if (key == "corrupt" && hasValue) {
            if (!parseFraction("corrupt", value, real, error))
                return false;
            setup.corrupt = real;
        } else if (key == "disconnect" && hasValue) {
            if (!parseSeconds("disconnect", value, real, error))
                return false;
            setup.disconnectAfter = real;
        } else {
            error = "unknown device option '" + option + "' in '" + text + "'";
            return false;
        }
    }
    if (setup.measure && setup.wakeUp) {
        error = "options 'measure' and 'wakeup' exclude each other";
        return false;
    }
    if (setup.docked + setup.rejected > setup.trackers) {
        error = "docked and rejected trackers together exceed the " +
                std::to_string(setup.trackers) + " trackers of '" + text + "'";
        return false;
    }
    return true;
}

} // namespace

bool parseOptions(int argc, char** argv, Options& options, std::string& error)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool inlineValue = false;
        if (arg.rfind("--", 0) == 0) {
            const size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                value = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
                inlineValue = true;
            }
        }
        auto needValue = [&]() {
            if (inlineValue)
                return true;
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            value = argv[++i];
            return true;
        };

        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--version") {
            options.version = true;
        } else if (arg == "--quiet" || arg == "-q") {
            options.quiet = true;
        } else if (arg == "--device" || arg == "-d") {
            if (!needValue())
                return false;
            DeviceSetup setup;
            if (!parseDevice(value, setup, error))
                return false;
            options.devices.push_back(setup);
        } else if (arg == "--seed") {
            uint64_t seed = 0;
            if (!needValue())
                return false;
            if (!parseUnsigned(value, UINT64_MAX, seed)) {
                error = "--seed needs a non-negative integer, not '" + value + "'";
                return false;
            }
            options.seed = seed;
        } else if (arg == "--truth") {
            if (!needValue())
                return false;
            if (value.empty()) {
                error = "--truth needs a file name";
                return false;
            }
            options.truthPath = value;
        } else if (arg == "--drop") {
            if (!needValue() || !parseFraction(arg, value, options.faults.drop, error))
                return false;
        } else if (arg == "--corrupt") {
            if (!needValue() || !parseFraction(arg, value, options.faults.corrupt, error))
                return false;
        } else if (arg == "--disconnect-after") {
            if (!needValue() || !parseSeconds(arg, value, options.faults.disconnectAfter, error))
                return false;
        } else {
            error = "unknown argument '" + arg + "' (try --help)";
            return false;
        }
    }
    if (options.help || options.version)
        return true;
    if (options.devices.empty()) {
        error = "no device: give at least one --device KIND (try --help)";
        return false;
    }
    for (DeviceSetup& setup : options.devices) {
        setup.faults = options.faults;
        if (setup.drop)
            setup.faults.drop = *setup.drop;
        if (setup.corrupt)
            setup.faults.corrupt = *setup.corrupt;
        if (setup.disconnectAfter)
            setup.faults.disconnectAfter = *setup.disconnectAfter;
    }
    return true;
}

} // namespace kvsim
