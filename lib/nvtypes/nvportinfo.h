#pragma once

// A port the scanner found or was given, with what it learnt about the device on it.

#include "nvbytes.h"
#include "nvdeviceid.h"
#include "nvenums.h"

#include <cstdint>
#include <vector>

struct NvPortInfo
{
    NvString portName;                // "/dev/ttyUSB0", "/dev/pts/7"
    NvBaudRate baudRate = NBR_DETECT; // the rate the device answered at
    NvDeviceId deviceId;              // empty until a device answered
    uint16_t vendorId = 0;            // USB identifiers, 0 for other ports
    uint16_t productId = 0;
    NvString description;    // what the system says about the port
    bool isEmulated = false; // announced by the emulator
    bool isRs485 = false;
    bool isForeign = false; // answered, but not with Nbus

    bool isUsb() const { return vendorId != 0 || productId != 0; }
    bool hasDevice() const { return !deviceId.isEmpty(); }

    friend bool operator==(const NvPortInfo& a, const NvPortInfo& b)
    {
        return a.portName == b.portName && a.baudRate == b.baudRate && a.deviceId == b.deviceId &&
               a.vendorId == b.vendorId && a.productId == b.productId &&
               a.description == b.description && a.isEmulated == b.isEmulated &&
               a.isRs485 == b.isRs485 && a.isForeign == b.isForeign;
    }
    friend bool operator!=(const NvPortInfo& a, const NvPortInfo& b) { return !(a == b); }
    // By port name (the scanner's order).
    friend bool operator<(const NvPortInfo& a, const NvPortInfo& b)
    {
        return a.portName < b.portName;
    }
};

using NvPortInfoArray = std::vector<NvPortInfo>;
