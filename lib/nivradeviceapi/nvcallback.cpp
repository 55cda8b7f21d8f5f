#include "nvcallback.h"

namespace {
NvCallback* self(void* userData)
{
    return static_cast<NvCallback*>(userData);
}
} // namespace

NvCallback::NvCallback() : m_plainC{}
{
    m_plainC.userData = this;
    m_plainC.onDeviceStateChanged = [](void* u, NvDevice* d, NvDeviceState n, NvDeviceState o) {
        self(u)->onDeviceStateChanged(d, n, o);
    };
    m_plainC.onLiveDataAvailable = [](void* u, NvDevice* d, const NvDataPacket* p) {
        self(u)->onLiveDataAvailable(d, p);
    };
    m_plainC.onMissedPackets = [](void* u, NvDevice* d, int count, int first, int last) {
        self(u)->onMissedPackets(d, count, first, last);
    };
    m_plainC.onWakeupReceived = [](void* u, NvDevice* d) { self(u)->onWakeupReceived(d); };
    m_plainC.onProgressUpdated = [](void* u, NvDevice* d, int current, int total,
                                    const NvString* id) {
        self(u)->onProgressUpdated(d, current, total, id);
    };
    m_plainC.onConnectivityChanged = [](void* u, NvDevice* d, NvConnectivityState s) {
        self(u)->onConnectivityChanged(d, s);
    };
    m_plainC.onInfoResponse = [](void* u, NvDevice* d, NvInfoRequest r) {
        self(u)->onInfoResponse(d, r);
    };
    m_plainC.onError = [](void* u, NvDevice* d, NvResultValue e) { self(u)->onError(d, e); };
    m_plainC.onNonDataMessage = [](void* u, NvDevice* d, const NvMessage* m) {
        self(u)->onNonDataMessage(d, m);
    };
    m_plainC.onMessageDetected = [](void* u, NvDevice* d, NvProtocolType t, const NvByteArray* b) {
        self(u)->onMessageDetected(d, t, b);
    };
    m_plainC.onMessageReceivedFromDevice = [](void* u, NvDevice* d, const NvMessage* m) {
        self(u)->onMessageReceivedFromDevice(d, m);
    };
    m_plainC.onMessageSentToDevice = [](void* u, NvDevice* d, const NvMessage* m) {
        self(u)->onMessageSentToDevice(d, m);
    };
    m_plainC.onDataUnavailable = [](void* u, NvDevice* d, long t) {
        self(u)->onDataUnavailable(d, t);
    };
    m_plainC.onRestoreCommunication = [](void* u, const NvString* port, NvResultValue r) {
        self(u)->onRestoreCommunication(port, r);
    };
}
