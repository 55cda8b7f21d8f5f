#pragma once
// The heavy live load the device-library benchmarks drive kvsim devices with.
#include "nivradeviceapi.h"

// Everything at 2000 Hz where the item allows it, the rest at its highest rate.
inline NvOutputConfigurationArray richConfiguration()
{
    return {{NDI_PACKET_COUNTER, NV_FREQUENCY_EVERY_PACKET},
            {NDI_SAMPLE_TIME_FINE, NV_FREQUENCY_EVERY_PACKET},
            {NDI_STATUS_WORD, NV_FREQUENCY_EVERY_PACKET},
            {NDI_ACCELERATION_HR, 2000},
            {NDI_RATE_OF_TURN_HR, 2000},
            {NDI_DELTA_Q, 2000},
            {NDI_DELTA_V, 2000},
            {NDI_ACCELERATION, 2000},
            {NDI_RATE_OF_TURN, 2000},
            {NDI_QUATERNION, 400},
            {NDI_FREE_ACCELERATION, 400},
            {NDI_MAGNETIC_FIELD, 100},
            {NDI_TEMPERATURE, 100},
            {NDI_BARO_PRESSURE, 50}};
}
