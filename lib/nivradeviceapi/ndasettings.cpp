// Per-device settings exchanged with the device, and the ".nva" settings files.
#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <cstring>

using nda::done;
using nda::fail;
using nda::request;
using nda::setResult;
using nda::usable;

namespace {

NvByteArray u16(unsigned value)
{
    return {uint8_t((value >> 8) & 0xFF), uint8_t(value & 0xFF)};
}

void appendU32(NvByteArray& out, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(uint8_t((value >> shift) & 0xFF));
}

// Reads (no data) or sets (data) a 16-bit setting; the device answers the value applied.
int u16Setting(NvDevice* device, uint8_t mid, const NvByteArray& data)
{
    if (!usable(device))
        return -1;
    NvMessage reply;
    const NvResultValue rc = request(device, mid, data, &reply);
    setResult(rc);
    if (rc != NRV_OK)
        return -1;
    if (reply.dataSize() < 2) {
        setResult(NRV_UNEXPECTED_REPLY);
        return -1;
    }
    return reply.readU16(0);
}

} // namespace

NvResultValue nda::reloadDevice(NvDevice* dev)
{
    NvMessage reply;
    NvOutputConfigurationArray config;
    NvResultValue rc = request(dev, NvMid::ReqOutputConfiguration, {}, &reply);
    if (rc != NRV_OK)
        return rc;
    if (!nvOutputConfigurationFromWire(reply.data(), reply.dataSize(), config))
        return NRV_UNEXPECTED_REPLY;
    // The rest is optional, as when the port was opened.
    NvSyncSettingArray sync;
    if (request(dev, NvMid::ReqSyncSettings, {}, &reply) == NRV_OK)
        nvSyncSettingsFromWire(reply.data(), reply.dataSize(), sync);
    std::lock_guard<std::mutex> lock(dev->mutex);
    dev->outputConfiguration = config;
    dev->syncSettings = sync;
    return NRV_OK;
}

extern "C" {

int NvDevice_reinitialize(NvDevice* device)
{
    if (!usable(device))
        return 0;
    NvMessage reply;
    NvResultValue rc = request(device, NvMid::ReqDeviceId, {}, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    if (NvDeviceId::fromWire(reply.data(), reply.dataSize()) != device->id)
        return fail(NRV_UNEXPECTED_REPLY); // another device behind the port
    NvString productCode;
    NvVersion firmware, hardware;
    if (request(device, NvMid::ReqProductCode, {}, &reply) == NRV_OK)
        productCode = nda::replyText(reply);
    if (request(device, NvMid::ReqFirmwareRevision, {}, &reply) == NRV_OK &&
        reply.dataSize() >= NvVersion::FirmwareWireSize)
        firmware = NvVersion::fromFirmwareWire(reply.data());
    if (request(device, NvMid::ReqHardwareVersion, {}, &reply) == NRV_OK &&
        reply.dataSize() >= NvVersion::HardwareWireSize)
        hardware = NvVersion::fromHardwareWire(reply.data());
    const bool haveLocation = request(device, NvMid::ReqLocationId, {}, &reply) == NRV_OK;
    const int location = reply.readU16(0);
    rc = nda::reloadDevice(device);
    if (rc != NRV_OK)
        return fail(rc);
    std::lock_guard<std::mutex> lock(device->mutex);
    device->productCode = productCode;
    device->firmware = firmware;
    device->hardware = hardware;
    if (haveLocation)
        device->locationId = location;
    setResult(NRV_OK);
    return 1;
}

int NvDevice_setSerialBaudRate(NvDevice* device, NvBaudRate baudRate)
{
    if (baudRate == NBR_DETECT || nvBaudRateToRate(baudRate) == 0)
        return fail(NRV_INVALID_BAUDRATE);
    if (!usable(device))
        return 0;
    if (!done(request(device, NvMid::SetBaudRate, {uint8_t(baudRate)}, nullptr)))
        return 0;
    device->pendingBaudRate = baudRate;
    return 1;
}

NvBaudRate NvDevice_serialBaudRate(NvDevice* device)
{
    if (!usable(device))
        return NBR_INVALID;
    NvMessage reply;
    const NvResultValue rc = request(device, NvMid::ReqBaudRate, {}, &reply);
    setResult(rc);
    return rc == NRV_OK && reply.dataSize() >= 1 ? NvBaudRate(reply.readU8(0)) : NBR_INVALID;
}

int NvDevice_errorMode(NvDevice* device)
{
    return u16Setting(device, NvMid::ReqErrorMode, {});
}

int NvDevice_setErrorMode(NvDevice* device, NvErrorMode mode)
{
    return u16Setting(device, NvMid::SetErrorMode, u16(unsigned(mode))) >= 0;
}

int NvDevice_rs485TransmissionDelay(NvDevice* device)
{
    return u16Setting(device, NvMid::ReqTransmitDelay, {});
}

int NvDevice_setRs485TransmissionDelay(NvDevice* device, uint16_t microseconds)
{
    return u16Setting(device, NvMid::SetTransmitDelay, u16(microseconds)) >= 0;
}

int NvDevice_setNoRotation(NvDevice* device, uint16_t seconds)
{
    if (!usable(device))
        return 0;
    return done(request(device, NvMid::SetNoRotation, u16(seconds), nullptr));
}

int64_t NvDevice_deviceOptionFlags(NvDevice* device)
{
    if (!usable(device))
        return -1;
    NvMessage reply;
    const NvResultValue rc = request(device, NvMid::ReqOptionFlags, {}, &reply);
    setResult(rc);
    return rc == NRV_OK ? int64_t(reply.readU32(0)) : -1;
}

int NvDevice_setDeviceOptionFlags(NvDevice* device, uint32_t setFlags, uint32_t clearFlags)
{
    if (!usable(device))
        return 0;
    NvByteArray data;
    appendU32(data, setFlags);
    appendU32(data, clearFlags);
    return done(request(device, NvMid::SetOptionFlags, data, nullptr));
}

int NvDevice_stringOutputMode(NvDevice* device, uint16_t* type, uint16_t* period)
{
    if (!usable(device))
        return 0;
    NvMessage reply;
    if (!done(request(device, NvMid::ReqStringOutputType, {}, &reply)))
        return 0;
    if (type)
        *type = reply.readU16(0);
    if (period)
        *period = reply.readU16(2);
    return 1;
}

int NvDevice_setStringOutputMode(NvDevice* device, uint16_t type, uint16_t period)
{
    if (!usable(device))
        return 0;
    NvByteArray data = u16(type);
    const NvByteArray p = u16(period);
    data.insert(data.end(), p.begin(), p.end());
    return done(request(device, NvMid::SetStringOutputType, data, nullptr));
}

int NvDevice_availableFilterProfiles(NvDevice* device, NvFilterProfileArray* out)
{
    if (out)
        out->clear();
    if (!usable(device))
        return 0;
    NvMessage reply;
    if (!done(request(device, NvMid::ReqAvailableFilterProfiles, {}, &reply)))
        return 0;
    constexpr size_t RecordSize = 22; // type, version, 20-byte zero-padded label
    for (size_t at = 0; out && at + RecordSize <= reply.dataSize(); at += RecordSize) {
        const char* label = reinterpret_cast<const char*>(reply.data() + at + 2);
        NvString text(label, strnlen(label, 20));
        while (!text.empty() && text.back() == ' ')
            text.pop_back();
        out->push_back({reply.readU8(at), reply.readU8(at + 1), text});
    }
    return 1;
}

int NvDevice_filterProfile(NvDevice* device)
{
    return u16Setting(device, NvMid::ReqFilterProfile, {});
}

int NvDevice_setFilterProfile(NvDevice* device, int type)
{
    if (type < 0 || type > 0xFFFF)
        return fail(NRV_INVALID_ARGUMENT);
    return u16Setting(device, NvMid::SetFilterProfile, u16(unsigned(type))) >= 0;
}

int NvDevice_requestGnssStatus(NvDevice* device)
{
    if (!usable(device))
        return 0;
    NvMessage reply;
    if (!done(request(device, NvMid::ReqGnssStatus, {}, &reply)))
        return 0;
    NvGpsStatus status;
    if (!NvGpsStatus::fromWire(reply.data(), reply.dataSize(), status))
        return fail(NRV_UNEXPECTED_REPLY);
    {
        std::lock_guard<std::mutex> lock(device->mutex);
        device->gnssStatus = status;
    }
    device->control->dispatch(device, [&](const NvCallbackPlainC* h) {
        if (h->onInfoResponse)
            h->onInfoResponse(h->userData, device, NIR_GNSS_STATUS);
    });
    setResult(NRV_OK);
    return 1;
}

void NvDevice_gnssStatus(NvDevice* device, NvGpsStatus* out)
{
    nda::copyCached(device, out, &NvDevice::gnssStatus);
}

} // extern "C"

NvSyncSettingArray nda::supportedSyncSettings(const NvDeviceId& id)
{
    struct Line
    {
        NvSyncLine line;
        std::vector<NvSyncFunction> functions;
    };
    std::vector<Line> lines;
    if (id.isWirelessMaster()) {
        // A station starts and stops recordings and tells others it does.
        const std::vector<NvSyncFunction> in = {NSF_START_RECORDING_IN, NSF_STOP_RECORDING_IN,
                                                NSF_TRIGGER_INDICATION};
        const std::vector<NvSyncFunction> out = {NSF_START_RECORDING_OUT, NSF_STOP_RECORDING_OUT,
                                                 NSF_INTERVAL_TRANSITION_RECORDING};
        lines = {{NSL_IN1, in}, {NSL_IN2, in}, {NSL_OUT1, out}, {NSL_OUT2, out}};
    } else if (id.isWirelessTracker() || id.isContainer()) {
        // Trackers behind a master are synchronised by it.
    } else if (id.isLegacyTracker()) {
        lines = {{NSL_IN1, {NSF_TRIGGER_INDICATION, NSF_SEND_LATEST}},
                 {NSL_OUT1, {NSF_INTERVAL_TRANSITION_MEASUREMENT}}};
    } else if (id.isInertialTracker() || id.isGnss() || id.isImu()) {
        const std::vector<NvSyncFunction> in = {NSF_RESET_TIMER,           NSF_TRIGGER_INDICATION,
                                                NSF_SEND_LATEST,           NSF_START_SAMPLING,
                                                NSF_CLOCK_BIAS_ESTIMATION, NSF_SAMPLE_AND_SEND};
        std::vector<NvSyncFunction> out = {NSF_INTERVAL_TRANSITION_MEASUREMENT,
                                           NSF_PULSE_WIDTH_MODULATION};
        if (id.isGnss())
            out.push_back(NSF_TIME_PULSE);
        lines = {{NSL_IN1, in},
                 {NSL_IN2, in},
                 {NSL_REQ_DATA, {NSF_SAMPLE_AND_SEND, NSF_SEND_LATEST}},
                 {NSL_OUT1, out},
                 {NSL_SYNC_OUT, out}};
        if (id.isGnss())
            lines.push_back({NSL_GNSS_1PPS, {NSF_CLOCK_BIAS_ESTIMATION, NSF_TRIGGER_INDICATION}});
    }
    NvSyncSettingArray out;
    for (const Line& l : lines)
        for (NvSyncFunction f : l.functions) {
            NvSyncSetting s;
            s.line = l.line;
            s.function = f;
            out.push_back(s);
        }
    return out;
}
