// ".nva" settings files: a line-based key=value text, read back from the device when
// written and applied message by message (format in docs/device-library.md).
#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

using nda::setResult;

namespace {

constexpr const char* FormatLine = "format=nva 1";

struct Settings
{
    bool haveErrorMode = false, haveDelay = false, haveFlags = false, haveLocation = false;
    bool haveString = false, haveProfile = false, haveOutput = false, haveSync = false;
    unsigned errorMode = 0, delay = 0, location = 0, stringType = 0, stringPeriod = 0;
    unsigned profile = 0;
    uint32_t flags = 0;
    NvOutputConfigurationArray output;
    NvSyncSettingArray sync;
};

std::string hex(const uint8_t* data, size_t size)
{
    std::string out;
    char digits[3];
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", data[i]);
        out += digits;
    }
    return out;
}

bool fromHex(const std::string& text, NvByteArray& out)
{
    if (text.empty() || text.size() % 2)
        return false;
    for (size_t i = 0; i < text.size(); i += 2) {
        char* end = nullptr;
        const std::string pair = text.substr(i, 2);
        const unsigned long v = std::strtoul(pair.c_str(), &end, 16);
        if (*end)
            return false;
        out.push_back(uint8_t(v));
    }
    return true;
}

// A whole unsigned number (decimal or 0x hex) no larger than `max`.
bool number(const std::string& text, unsigned long max, unsigned long& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoul(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0' && out <= max;
}

// Parses the whole file before anything is sent, so a damaged file changes nothing.
NvResultValue parse(std::istream& in, Settings& s)
{
    std::string line;
    bool haveFormat = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        if (!haveFormat) {
            if (line == FormatLine) {
                haveFormat = true;
                continue;
            }
            return line.rfind("format=nva ", 0) == 0 ? NRV_FILE_VERSION_UNSUPPORTED
                                                     : NRV_CONFIG_FILE_INVALID;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            return NRV_CONFIG_FILE_INVALID;
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        unsigned long a = 0, b = 0;
        if (key == "device" || key == "product") {
            continue; // where the file came from; any device of a kind may take it
        } else if (key == "errormode" && number(value, 0xFFFF, a)) {
            s.haveErrorMode = true;
            s.errorMode = unsigned(a);
        } else if (key == "transmitdelay" && number(value, 0xFFFF, a)) {
            s.haveDelay = true;
            s.delay = unsigned(a);
        } else if (key == "optionflags" && number(value, 0xFFFFFFFFul, a)) {
            s.haveFlags = true;
            s.flags = uint32_t(a);
        } else if (key == "locationid" && number(value, 0xFFFF, a)) {
            s.haveLocation = true;
            s.location = unsigned(a);
        } else if (key == "filterprofile" && number(value, 0xFFFF, a)) {
            s.haveProfile = true;
            s.profile = unsigned(a);
        } else if (key == "stringoutput") {
            const size_t sp = value.find(' ');
            if (sp == std::string::npos || !number(value.substr(0, sp), 0xFFFF, a) ||
                !number(value.substr(sp + 1), 0xFFFF, b))
                return NRV_CONFIG_FILE_INVALID;
            s.haveString = true;
            s.stringType = unsigned(a);
            s.stringPeriod = unsigned(b);
        } else if (key == "output") {
            // "output=" alone: an empty configuration.
            s.haveOutput = true;
            if (value.empty())
                continue;
            const size_t sp = value.find(' ');
            if (sp == std::string::npos || !number(value.substr(0, sp), 0xFFFF, a) ||
                !number(value.substr(sp + 1), 0xFFFF, b))
                return NRV_CONFIG_FILE_INVALID;
            s.output.push_back({NvDataIdentifier(a), uint16_t(b)});
        } else if (key == "sync") {
            s.haveSync = true;
            if (value.empty())
                continue;
            NvByteArray wire;
            NvSyncSettingArray one;
            if (!fromHex(value, wire) || !nvSyncSettingsFromWire(wire.data(), wire.size(), one) ||
                one.size() != 1)
                return NRV_CONFIG_FILE_INVALID;
            s.sync.push_back(one[0]);
        } else {
            return NRV_CONFIG_FILE_INVALID; // unknown key or bad value
        }
    }
    return haveFormat ? NRV_OK : NRV_CONFIG_FILE_INVALID;
}

NvResultValue lastOr(NvResultValue fallback)
{
    const NvResultValue rc = nda::lastResult();
    return rc == NRV_OK ? fallback : rc;
}

int finish(NvResultValue rc)
{
    setResult(rc);
    return int(rc);
}

} // namespace

extern "C" {

int NvDevice_createConfigFile(NvDevice* device, const NvString* fileName)
{
    if (!fileName || fileName->empty())
        return finish(NRV_INVALID_ARGUMENT);
    if (!nda::usable(device))
        return int(nda::lastResult());
    // Everything comes from the device itself, not from the cache.
    NvMessage reply;
    NvResultValue rc = nda::reloadDevice(device);
    if (rc != NRV_OK)
        return finish(rc);
    std::ostringstream out;
    out << "# Device settings, written by the KvManager device library\n" << FormatLine << "\n";
    NvString product;
    NvDevice_productCode(device, &product);
    out << "device=" << device->id.toString() << "\nproduct=" << product << "\n";
    const int errorMode = NvDevice_errorMode(device);
    if (errorMode < 0)
        return finish(lastOr(NRV_UNEXPECTED_REPLY));
    out << "errormode=" << errorMode << "\n";
    // Optional on some devices: what the device refuses to report is left out.
    const int delay = NvDevice_rs485TransmissionDelay(device);
    if (delay >= 0)
        out << "transmitdelay=" << delay << "\n";
    const int64_t flags = NvDevice_deviceOptionFlags(device);
    if (flags >= 0) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08x", unsigned(flags));
        out << "optionflags=" << text << "\n";
    }
    if (nda::request(device, NvMid::ReqLocationId, {}, &reply) == NRV_OK)
        out << "locationid=" << reply.readU16(0) << "\n";
    uint16_t stringType = 0, stringPeriod = 0;
    if (NvDevice_stringOutputMode(device, &stringType, &stringPeriod))
        out << "stringoutput=" << stringType << " " << stringPeriod << "\n";
    NvFilterProfileArray profiles;
    if (NvDevice_availableFilterProfiles(device, &profiles) && !profiles.empty()) {
        const int profile = NvDevice_filterProfile(device);
        if (profile >= 0)
            out << "filterprofile=" << profile << "\n";
    }
    NvOutputConfigurationArray config;
    NvDevice_outputConfiguration(device, &config);
    if (config.empty())
        out << "output=\n";
    for (const NvOutputConfiguration& c : config) {
        char text[32];
        std::snprintf(text, sizeof text, "0x%04x %u", unsigned(c.dataIdentifier),
                      unsigned(c.frequency));
        out << "output=" << text << "\n";
    }
    NvSyncSettingArray sync;
    NvDevice_syncSettings(device, &sync);
    if (sync.empty())
        out << "sync=\n";
    for (const NvSyncSetting& setting : sync) {
        const NvByteArray wire = nvSyncSettingsToWire({setting});
        out << "sync=" << hex(wire.data(), wire.size()) << "\n";
    }

    std::ofstream file(*fileName, std::ios::binary | std::ios::trunc);
    if (!file)
        return finish(NRV_OUTPUT_CANNOT_BE_OPENED);
    file << out.str();
    file.close();
    return finish(file ? NRV_OK : NRV_FILE_WRITE_ERROR);
}

int NvDevice_applyConfigFile(NvDevice* device, const NvString* fileName)
{
    if (!fileName || fileName->empty())
        return finish(NRV_INVALID_ARGUMENT);
    if (!nda::usable(device))
        return int(nda::lastResult());
    std::ifstream file(*fileName, std::ios::binary);
    if (!file)
        return finish(NRV_FILE_NOT_FOUND);
    Settings s;
    const NvResultValue parsed = parse(file, s);
    if (parsed != NRV_OK)
        return finish(parsed);

    // Every setting is tried; the first refusal is the answer.
    std::vector<std::function<bool()>> steps;
    if (s.haveErrorMode)
        steps.push_back([&] { return NvDevice_setErrorMode(device, NvErrorMode(s.errorMode)); });
    if (s.haveDelay)
        steps.push_back(
            [&] { return NvDevice_setRs485TransmissionDelay(device, uint16_t(s.delay)); });
    if (s.haveFlags)
        steps.push_back([&] {
            const int64_t current = NvDevice_deviceOptionFlags(device);
            return current >= 0 &&
                   NvDevice_setDeviceOptionFlags(device, s.flags & ~uint32_t(current),
                                                 uint32_t(current) & ~s.flags);
        });
    if (s.haveLocation)
        steps.push_back([&] { return NvDevice_setLocationId(device, int(s.location)); });
    if (s.haveString)
        steps.push_back([&] {
            return NvDevice_setStringOutputMode(device, uint16_t(s.stringType),
                                                uint16_t(s.stringPeriod));
        });
    if (s.haveProfile)
        steps.push_back([&] { return NvDevice_setFilterProfile(device, int(s.profile)); });
    if (s.haveOutput)
        steps.push_back([&] { return NvDevice_setOutputConfiguration(device, &s.output); });
    if (s.haveSync)
        steps.push_back([&] { return NvDevice_setSyncSettings(device, &s.sync); });

    // A measuring device refuses settings: pause it and let it measure again afterwards.
    const bool wasMeasuring = device->state == NDS_MEASUREMENT;
    if (wasMeasuring && !NvDevice_gotoConfig(device))
        return finish(nda::lastResult());
    static const NvString progressName = "Applying settings";
    const int total = int(steps.size());
    auto progress = [&](int current) {
        device->control->dispatch(device, [&](const NvCallbackPlainC* h) {
            if (h->onProgressUpdated)
                h->onProgressUpdated(h->userData, device, current, total, &progressName);
        });
    };
    NvResultValue first = NRV_OK;
    for (int i = 0; i < total; ++i) {
        progress(i);
        if (!steps[size_t(i)]() && first == NRV_OK)
            first = lastOr(NRV_ERROR);
    }
    progress(total);
    if (wasMeasuring && !NvDevice_gotoMeasurement(device) && first == NRV_OK)
        first = nda::lastResult();
    return finish(first);
}

} // extern "C"
