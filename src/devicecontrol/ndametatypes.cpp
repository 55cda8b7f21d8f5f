#include "ndametatypes.h"

#include "ndadevicestate.h"

void registerNdaMetaTypes()
{
    qRegisterMetaType<NvDeviceId>("NvDeviceId");
    qRegisterMetaType<NvMessage>("NvMessage");
    qRegisterMetaType<NvDataPacket>("NvDataPacket");
    qRegisterMetaType<NvByteArray>("NvByteArray");
    qRegisterMetaType<KvwInfo>("KvwInfo");
    qRegisterMetaType<NvGpsStatus>("NvGpsStatus");
    qRegisterMetaType<NvResultValue>("NvResultValue");
    qRegisterMetaType<NvProtocolType>("NvProtocolType");
    qRegisterMetaType<NvDeviceIdArray>("NvDeviceIdArray");
    qRegisterMetaType<NdaDeviceState::Type>("NdaDeviceState::Type");
}
