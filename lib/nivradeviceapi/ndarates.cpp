// Output rates per product. Derived from the device families: the legacy trackers sample
// at 400 Hz, the others at 2000 Hz; slow sensors and computed outputs have caps.
#include "ndacontrol_p.h"

#include <algorithm>

namespace {

std::vector<int> divisorsUpTo(int base, int cap)
{
    std::vector<int> out;
    for (int f = 1; f <= base; ++f)
        if (base % f == 0 && f <= cap)
            out.push_back(f);
    return out;
}

std::vector<int> ratesFor(const NvDeviceId& id, NvDataIdentifier dataId)
{
    const bool legacy = id.isLegacy();
    const int base = legacy ? 400 : 2000;
    const bool orientation = id.hasOrientationOutput();
    const bool gnss = id.isGnss();
    switch (nvQuantity(dataId)) {
    case NDI_PACKET_COUNTER:
    case NDI_SAMPLE_TIME_FINE:
    case NDI_STATUS_BYTE:
    case NDI_ACCELERATION:
    case NDI_RATE_OF_TURN:
        return divisorsUpTo(base, base);
    case NDI_SAMPLE_TIME_COARSE:
    case NDI_STATUS_WORD:
    case NDI_UTC_TIME:
    case NDI_DELTA_Q:
    case NDI_DELTA_V:
        return legacy ? std::vector<int>{} : divisorsUpTo(base, base);
    case NDI_ACCELERATION_HR:
    case NDI_RATE_OF_TURN_HR:
        return legacy ? std::vector<int>{} : std::vector<int>{400, 500, 1000, 2000};
    case NDI_MAGNETIC_FIELD:
    case NDI_TEMPERATURE:
        return divisorsUpTo(base, 100);
    case NDI_BARO_PRESSURE:
        return legacy ? std::vector<int>{} : divisorsUpTo(base, 50);
    case NDI_QUATERNION:
    case NDI_ROTATION_MATRIX:
    case NDI_EULER_ANGLES:
        return orientation ? divisorsUpTo(base, 400) : std::vector<int>{};
    case NDI_FREE_ACCELERATION:
        return orientation && !legacy ? divisorsUpTo(base, 400) : std::vector<int>{};
    case NDI_LAT_LON:
    case NDI_ALTITUDE_MSL:
    case NDI_ALTITUDE_ELLIPSOID:
    case NDI_POSITION_ECEF:
    case NDI_VELOCITY:
    case NDI_GNSS_AGE:
        return gnss ? divisorsUpTo(base, 400) : std::vector<int>{};
    case NDI_TIME_OF_WEEK:
        return gnss ? divisorsUpTo(base, base) : std::vector<int>{};
    case NDI_GNSS_PVT_DATA:
    case NDI_GNSS_SAT_INFO:
    case NDI_GNSS_PVT_PULSE:
        return gnss ? std::vector<int>{1, 2, 4} : std::vector<int>{};
    default:
        return {};
    }
}

} // namespace

extern "C" {

void NvDevice_supportedUpdateRates(NvDevice* device, NvDataIdentifier id, NvIntArray* out)
{
    if (!out)
        return;
    out->clear();
    if (!device || device->isBroadcast) {
        nda::setResult(NRV_INVALID_DEVICE);
        return;
    }
    if (device->isMaster || device->master) {
        // Over the radio every item comes at the master's update rate.
        NvDevice* master = device->isMaster ? device : device->master;
        if (device->isMaster || !ratesFor(device->id, id).empty()) {
            std::lock_guard<std::mutex> lock(master->mutex);
            *out = master->offeredRates;
        }
    } else {
        *out = ratesFor(device->id, id);
    }
    nda::setResult(NRV_OK);
}

int NvDevice_maximumUpdateRate(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return 0;
    if (device->isMaster || device->master) {
        NvDevice* master = device->isMaster ? device : device->master;
        std::lock_guard<std::mutex> lock(master->mutex);
        return master->offeredRates.empty()
                   ? 0
                   : *std::max_element(master->offeredRates.begin(), master->offeredRates.end());
    }
    return device->id.isLegacy() ? 400 : 2000;
}

} // extern "C"
