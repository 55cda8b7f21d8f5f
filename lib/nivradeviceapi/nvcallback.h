#ifndef NVCALLBACK_H
#define NVCALLBACK_H

/* The callback record a control calls its handlers through, and a C++ base class that
 * fills it with trampolines to virtual methods.
 *
 * Entries are called on the reader thread of the device's port (state changes caused by
 * closing on the closing thread), in registration order, never under a lock that an API
 * call could need. Null entries are skipped. Each entry receives the record's userData. */

#include "nvenums.h"
#include "nvexport.h"

#ifdef __cplusplus
#include "nvbytes.h"
#include "nvdatapacket.h"
#include "nvmessage.h"
struct NvDevice;
typedef NvString NvCbString;
typedef NvByteArray NvCbByteArray;
typedef NvMessage NvCbMessage;
typedef NvDataPacket NvCbDataPacket;
#else
typedef struct NvDevice NvDevice;
typedef struct NvCbString NvCbString;
typedef struct NvCbByteArray NvCbByteArray;
typedef struct NvCbMessage NvCbMessage;
typedef struct NvCbDataPacket NvCbDataPacket;
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NvCallbackPlainC
{
    void* userData;
    void (*onDeviceStateChanged)(void* userData, struct NvDevice* dev, NvDeviceState newState,
                                 NvDeviceState oldState);
    void (*onLiveDataAvailable)(void* userData, struct NvDevice* dev, const NvCbDataPacket* packet);
    void (*onMissedPackets)(void* userData, struct NvDevice* dev, int count, int first, int last);
    void (*onWakeupReceived)(void* userData, struct NvDevice* dev);
    void (*onProgressUpdated)(void* userData, struct NvDevice* dev, int current, int total,
                              const NvCbString* identifier);
    void (*onConnectivityChanged)(void* userData, struct NvDevice* dev, NvConnectivityState state);
    void (*onInfoResponse)(void* userData, struct NvDevice* dev, NvInfoRequest request);
    void (*onError)(void* userData, struct NvDevice* dev, NvResultValue error);
    void (*onNonDataMessage)(void* userData, struct NvDevice* dev, const NvCbMessage* message);
    void (*onMessageDetected)(void* userData, struct NvDevice* dev, NvProtocolType type,
                              const NvCbByteArray* raw);
    void (*onMessageReceivedFromDevice)(void* userData, struct NvDevice* dev,
                                        const NvCbMessage* message);
    void (*onMessageSentToDevice)(void* userData, struct NvDevice* dev, const NvCbMessage* message);
    void (*onDataUnavailable)(void* userData, struct NvDevice* dev, long sampleTime);
    void (*onRestoreCommunication)(void* userData, const NvCbString* port, NvResultValue result);
    /* Reserved for log-file writing and buffered data; leave null (not called yet). */
    void (*onWriteMessageToLogFile)(void* userData, struct NvDevice* dev,
                                    const NvCbMessage* message);
    void (*onBufferedDataAvailable)(void* userData, struct NvDevice* dev,
                                    const NvCbDataPacket* packet);
} NvCallbackPlainC;

#ifdef __cplusplus
}

/* Derive, override what you need, and pass plainC() to NvControl_addCallbackHandler. */
class NV_API NvCallback
{
public:
    NvCallback();
    virtual ~NvCallback() = default;
    NvCallback(const NvCallback&) = delete;
    NvCallback& operator=(const NvCallback&) = delete;

    NvCallbackPlainC* plainC() { return &m_plainC; }

    virtual void onDeviceStateChanged(NvDevice*, NvDeviceState, NvDeviceState) {}
    virtual void onLiveDataAvailable(NvDevice*, const NvDataPacket*) {}
    virtual void onMissedPackets(NvDevice*, int, int, int) {}
    virtual void onWakeupReceived(NvDevice*) {}
    virtual void onProgressUpdated(NvDevice*, int, int, const NvString*) {}
    virtual void onConnectivityChanged(NvDevice*, NvConnectivityState) {}
    virtual void onInfoResponse(NvDevice*, NvInfoRequest) {}
    virtual void onError(NvDevice*, NvResultValue) {}
    virtual void onNonDataMessage(NvDevice*, const NvMessage*) {}
    virtual void onMessageDetected(NvDevice*, NvProtocolType, const NvByteArray*) {}
    virtual void onMessageReceivedFromDevice(NvDevice*, const NvMessage*) {}
    virtual void onMessageSentToDevice(NvDevice*, const NvMessage*) {}
    virtual void onDataUnavailable(NvDevice*, long) {}
    virtual void onRestoreCommunication(const NvString*, NvResultValue) {}

private:
    NvCallbackPlainC m_plainC;
};
#endif

#endif
