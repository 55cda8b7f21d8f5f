#pragma once
// The device library's value types as Qt meta types, for queued signals and QVariant.

#include <QMetaType>

#include "nivradeviceapi.h"
#include "nvdatapacket.h"
#include "nvdeviceid.h"
#include "nvgnss.h"
#include "nvkvwinfo.h"
#include "nvmessage.h"

Q_DECLARE_METATYPE(NvDeviceId)
Q_DECLARE_METATYPE(NvMessage)
Q_DECLARE_METATYPE(NvDataPacket)
Q_DECLARE_METATYPE(NvByteArray)
Q_DECLARE_METATYPE(KvwInfo)
Q_DECLARE_METATYPE(NvGpsStatus)
Q_DECLARE_METATYPE(NvResultValue)
Q_DECLARE_METATYPE(NvProtocolType)
Q_DECLARE_METATYPE(NvDeviceIdArray)

// Registers the types above (and the device state) by name; idempotent.
void registerNdaMetaTypes();
