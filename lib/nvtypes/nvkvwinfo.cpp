#include "nvkvwinfo.h"

#include "nvbytes.h"

void KvwInfo::toWire(uint8_t* out) const
{
    nvbe::writeU64(out, deviceId.toWire64());
    out[8] = busId;
    out[9] = uint8_t(state);
    out[10] = uint8_t(rejectReason);
    out[11] = uint8_t(rssi);
    out[12] = batteryLevel;
    out[13] = flags;
}

KvwInfo KvwInfo::fromWire(const uint8_t* in)
{
    KvwInfo info;
    info.deviceId = NvDeviceId::fromWire64(nvbe::readU64(in));
    info.busId = in[8];
    info.state = in[9] <= NCS_UNKNOWN ? NvConnectivityState(in[9]) : NCS_UNKNOWN;
    info.rejectReason = NvRejectReason(in[10]);
    info.rssi = int8_t(in[11]);
    info.batteryLevel = in[12];
    info.flags = in[13];
    return info;
}

bool operator==(const KvwInfo& a, const KvwInfo& b)
{
    return a.deviceId == b.deviceId && a.masterId == b.masterId && a.busId == b.busId &&
           a.state == b.state && a.rejectReason == b.rejectReason && a.rssi == b.rssi &&
           a.batteryLevel == b.batteryLevel && a.flags == b.flags;
}
