#pragma once
// Puts a device's every output item at its highest rate: what tests and benchmarks of
// decoding want from a recording or a stream ("every kind with its full item set").
#include "nivradeviceapi.h"

#include <algorithm>

namespace ndatest {

// Every quantity a device may offer; each device gets those it supports.
constexpr NvDataIdentifier AllQuantities[] = {
    NDI_PACKET_COUNTER,  NDI_SAMPLE_TIME_FINE, NDI_SAMPLE_TIME_COARSE, NDI_UTC_TIME,
    NDI_STATUS_BYTE,     NDI_STATUS_WORD,      NDI_TIME_OF_WEEK,       NDI_GNSS_AGE,
    NDI_FRAME_RANGE,     NDI_QUATERNION,       NDI_ROTATION_MATRIX,    NDI_EULER_ANGLES,
    NDI_BARO_PRESSURE,   NDI_DELTA_V,          NDI_ACCELERATION,       NDI_FREE_ACCELERATION,
    NDI_ACCELERATION_HR, NDI_ALTITUDE_MSL,     NDI_ALTITUDE_ELLIPSOID, NDI_POSITION_ECEF,
    NDI_LAT_LON,         NDI_GNSS_PVT_DATA,    NDI_GNSS_SAT_INFO,      NDI_GNSS_PVT_PULSE,
    NDI_RATE_OF_TURN,    NDI_DELTA_Q,          NDI_RATE_OF_TURN_HR,    NDI_ANALOG_IN_1,
    NDI_ANALOG_IN_2,     NDI_MAGNETIC_FIELD,   NDI_VELOCITY,           NDI_RSSI,
    NDI_TEMPERATURE};

// Every supported item at its highest rate. Positions in float64 (fixed point cannot hold
// them); the other reals take float32, fixed 12.20, fixed 16.32 and float64 in turn, so
// that every decoder runs.
inline NvOutputConfigurationArray fullOutputConfiguration(NvDevice* dev)
{
    NvOutputConfigurationArray config;
    int real = 0;
    for (NvDataIdentifier q : AllQuantities) {
        NvIntArray rates;
        NvDevice_supportedUpdateRates(dev, q, &rates);
        if (rates.empty())
            continue;
        NvDataIdentifier id = q;
        if (q == NDI_POSITION_ECEF || q == NDI_LAT_LON || q == NDI_ALTITUDE_MSL ||
            q == NDI_ALTITUDE_ELLIPSOID)
            id = nvWithPrecision(q, NDP_FLOAT64);
        else if (nvIsRealQuantity(q))
            id = nvWithPrecision(q, NvPrecision(real++ % 4));
        config.push_back({id, uint16_t(*std::max_element(rates.begin(), rates.end()))});
    }
    return config;
}

// Sets that configuration; the rate table may offer an item the device refuses (a
// wireless tracker's HR items): then it keeps what the device takes, one item at a time.
// Answers the number of items set (0: the device took none, last result says why).
inline size_t configureFullOutput(NvDevice* dev)
{
    NvOutputConfigurationArray config = fullOutputConfiguration(dev);
    if (NvDevice_setOutputConfiguration(dev, &config))
        return config.size();
    NvOutputConfigurationArray taken;
    for (const NvOutputConfiguration& item : config) {
        taken.push_back(item);
        if (!NvDevice_setOutputConfiguration(dev, &taken))
            taken.pop_back();
    }
    return !taken.empty() && NvDevice_setOutputConfiguration(dev, &taken) ? taken.size() : 0;
}

} // namespace ndatest
