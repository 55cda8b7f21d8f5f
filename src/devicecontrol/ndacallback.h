#pragma once
// The bridge from the device library's threads to the GUI thread: library callbacks become
// posted Qt events, re-emitted here as signals in the order the library produced them.
// Live packets travel in batches (one event for all that came within a few milliseconds);
// any other event first sends on what is batched, so no signal overtakes a packet.

#include "ndadevicestate.h"
#include "ndametatypes.h"

#include <QEvent>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <cstddef>
#include <memory>
#include <vector>

// Custom event types, registered at static initialisation in this order.
extern const QEvent::Type NVEVENTTYPE;
extern const QEvent::Type NVPROCESSEVENTTYPE;
extern const QEvent::Type NVUPDATEPROGRESSEVENTTYPE;
extern const QEvent::Type NVCLIENTINFOEVENTTYPE;
extern const QEvent::Type NVFREESLOTSEVENTYPE;
extern const QEvent::Type LOADFILEEVENTTYPE;
extern const QEvent::Type CLOSEFILEEVENTTYPE;
extern const QEvent::Type SAVEFILEEVENTTYPE;
extern const QEvent::Type RECORDINGSTATECHANGEDEVENTTYPE;

// Kinds of NvEvent, NvClientInfoEvent and NvUpdateProgressEvent.
namespace NvEventKind {
enum : int
{
    ClientConnected = 4,
    ClientRejected = 5,
    ClientDisconnected = 6,
    MessageReceivedFromDevice = 10,
    MessageDetected = 11,
    MessageSentToDevice = 12,
    MissedPackets = 13,
    DataUnavailable = 14,
    WakeupReceived = 15,
    UpdateProgress = 16,
    BatteryLevel = 17,
    FlushingProgress = 19,
    Error = 20,
    Warning = 21,
    NonDataMessage = 22,
    DeviceStateChanged = 23,
};
}

class NvEvent : public QEvent
{
public:
    NvEvent(int kind, const NvDeviceId& id) : QEvent(NVEVENTTYPE), m_kind(kind), m_id(id) {}
    int kind() const { return m_kind; }
    const NvDeviceId& deviceId() const { return m_id; }

private:
    int m_kind;
    NvDeviceId m_id;
};

class NvErrorEvent : public NvEvent
{
public:
    NvErrorEvent(const NvDeviceId& id, NvResultValue result, int kind = NvEventKind::Error)
        : NvEvent(kind, id), m_result(result)
    {
    }
    NvResultValue result() const { return m_result; }

private:
    NvResultValue m_result;
};

class NvWarningEvent : public NvErrorEvent
{
public:
    NvWarningEvent(const NvDeviceId& id, NvResultValue result)
        : NvErrorEvent(id, result, NvEventKind::Warning)
    {
    }
};

class NvMessageEvent : public NvEvent
{
public:
    NvMessageEvent(int kind, const NvDeviceId& id, const NvMessage& message)
        : NvEvent(kind, id), m_message(message)
    {
    }
    const NvMessage& message() const { return m_message; }

private:
    NvMessage m_message;
};

class NvNonDataMessageEvent : public NvMessageEvent
{
public:
    NvNonDataMessageEvent(const NvDeviceId& id, const NvMessage& m)
        : NvMessageEvent(NvEventKind::NonDataMessage, id, m)
    {
    }
};

class NvMessageReceivedFromDeviceEvent : public NvMessageEvent
{
public:
    NvMessageReceivedFromDeviceEvent(const NvDeviceId& id, const NvMessage& m)
        : NvMessageEvent(NvEventKind::MessageReceivedFromDevice, id, m)
    {
    }
};

class NvMessageSentToDeviceEvent : public NvMessageEvent
{
public:
    NvMessageSentToDeviceEvent(const NvDeviceId& id, const NvMessage& m)
        : NvMessageEvent(NvEventKind::MessageSentToDevice, id, m)
    {
    }
};

class NvMessageDetectedEvent : public NvEvent
{
public:
    NvMessageDetectedEvent(const NvDeviceId& id, NvProtocolType type, const NvByteArray& raw)
        : NvEvent(NvEventKind::MessageDetected, id), m_type(type), m_raw(raw)
    {
    }
    NvProtocolType protocolType() const { return m_type; }
    const NvByteArray& raw() const { return m_raw; }

private:
    NvProtocolType m_type;
    NvByteArray m_raw;
};

class NvMissingSamplesEvent : public NvEvent
{
public:
    NvMissingSamplesEvent(const NvDeviceId& id, int count)
        : NvEvent(NvEventKind::MissedPackets, id), m_count(count)
    {
    }
    int count() const { return m_count; }

private:
    int m_count;
};

class NvDataUnavailableEvent : public NvEvent
{
public:
    NvDataUnavailableEvent(const NvDeviceId& id, int sampleTime)
        : NvEvent(NvEventKind::DataUnavailable, id), m_sampleTime(sampleTime)
    {
    }
    int sampleTime() const { return m_sampleTime; }

private:
    int m_sampleTime;
};

class NvWakeupEvent : public NvEvent
{
public:
    explicit NvWakeupEvent(const NvDeviceId& id) : NvEvent(NvEventKind::WakeupReceived, id) {}
};

class DeviceStateChangeEvent : public NvEvent
{
public:
    DeviceStateChangeEvent(const NvDeviceId& id, NdaDeviceState::Type newState,
                           NdaDeviceState::Type oldState)
        : NvEvent(NvEventKind::DeviceStateChanged, id), m_new(newState), m_old(oldState)
    {
    }
    NdaDeviceState::Type newState() const { return m_new; }
    NdaDeviceState::Type oldState() const { return m_old; }

private:
    NdaDeviceState::Type m_new, m_old;
};

// Live packets, in the library's order; each becomes one postProcessed.
class NvPostProcessEvent : public QEvent
{
public:
    explicit NvPostProcessEvent(std::vector<NvDataPacket> packets,
                                std::vector<qint64> arrivals = {})
        : QEvent(NVPROCESSEVENTTYPE), m_packets(std::move(packets)), m_arrivals(std::move(arrivals))
    {
    }
    const std::vector<NvDataPacket>& packets() const { return m_packets; }
    // When the library handed each packet over (steady clock, ns); may be empty.
    const std::vector<qint64>& arrivals() const { return m_arrivals; }

private:
    std::vector<NvDataPacket> m_packets;
    std::vector<qint64> m_arrivals;
};

class NvUpdateProgressEvent : public QEvent
{
public:
    NvUpdateProgressEvent(int kind, int current, int total, const NvDeviceId& id,
                          const QString& identifier)
        : QEvent(NVUPDATEPROGRESSEVENTTYPE), m_kind(kind), m_current(current), m_total(total),
          m_id(id), m_identifier(identifier)
    {
    }
    int kind() const { return m_kind; }
    int current() const { return m_current; }
    int total() const { return m_total; }
    const NvDeviceId& deviceId() const { return m_id; }
    const QString& identifier() const { return m_identifier; }

private:
    int m_kind, m_current, m_total;
    NvDeviceId m_id;
    QString m_identifier;
};

class NvClientInfoEvent : public QEvent
{
public:
    NvClientInfoEvent(int kind, const KvwInfo& info)
        : QEvent(NVCLIENTINFOEVENTTYPE), m_kind(kind), m_info(info)
    {
    }
    int kind() const { return m_kind; }
    const KvwInfo& info() const { return m_info; }

private:
    int m_kind;
    KvwInfo m_info;
};

class NvFreeSlotsEvent : public QEvent
{
public:
    // Not "slots": Qt defines that away, and the count with it.
    explicit NvFreeSlotsEvent(unsigned char count) : QEvent(NVFREESLOTSEVENTYPE), m_slots(count) {}
    unsigned char freeSlots() const { return m_slots; }

private:
    unsigned char m_slots;
};

// Told when the library destroys a device (NdaControl forgets its wrapper).
class NdaDeviceDestroyedCallback
{
public:
    virtual ~NdaDeviceDestroyedCallback() = default;
    virtual void deviceDestroyed(NvDevice* device) = 0;
};

class NdaCallback : public QObject, public NvCallback
{
    Q_OBJECT

public:
    explicit NdaCallback(QObject* parent = nullptr);
    ~NdaCallback() override;

    void registerDeviceDestroyedCallback(const QSharedPointer<NdaDeviceDestroyedCallback>& cb);
    void unRegisterDeviceDestroyedCallback(const QSharedPointer<NdaDeviceDestroyedCallback>& cb);

    // Library callbacks: library threads; they build one event and post it (a live packet
    // joins the pending batch), nothing else.
    void onDeviceStateChanged(NvDevice* dev, NvDeviceState newState,
                              NvDeviceState oldState) override;
    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket* packet) override;
    void onMissedPackets(NvDevice* dev, int count, int first, int last) override;
    void onWakeupReceived(NvDevice* dev) override;
    void onProgressUpdated(NvDevice* dev, int current, int total,
                           const NvString* identifier) override;
    void onConnectivityChanged(NvDevice* dev, NvConnectivityState state) override;
    void onInfoResponse(NvDevice* dev, NvInfoRequest request) override;
    void onError(NvDevice* dev, NvResultValue error) override;
    void onNonDataMessage(NvDevice* dev, const NvMessage* message) override;
    void onMessageDetected(NvDevice* dev, NvProtocolType type, const NvByteArray* raw) override;
    void onMessageReceivedFromDevice(NvDevice* dev, const NvMessage* message) override;
    void onMessageSentToDevice(NvDevice* dev, const NvMessage* message) override;
    void onDataUnavailable(NvDevice* dev, long sampleTime) override;
    void onRestoreCommunication(const NvString* port, NvResultValue result) override;

    bool event(QEvent* e) override;

    // The device's identifier; empty for a null handle.
    static NvDeviceId deviceIdOf(NvDevice* dev);
    // While postProcessed is being emitted: when the library handed that packet to the
    // bridge (steady clock, ns, as std::chrono::steady_clock); 0 outside or when unknown.
    qint64 currentPacketArrival() const { return m_currentArrival; }
    // The tracker record of a device, as the library reports it.
    static KvwInfo fillCiEvent(NvDevice* dev);

signals:
    void error(const NvDeviceId& id, NvResultValue result);
    void warning(const NvDeviceId& id, NvResultValue result);
    void samplesMissed(const NvDeviceId& id, int count);
    void dataUnavailable(const NvDeviceId& id, int sampleTime);
    void wakeupReceived(const NvDeviceId& id);
    void deviceStateChange(const NvDeviceId& id, NdaDeviceState::Type newState,
                           NdaDeviceState::Type oldState);
    void kvwConnected(const KvwInfo& info);
    void kvwDisconnected(const KvwInfo& info);
    void kvwRejected(const KvwInfo& info);
    void batteryLevelChanged(const KvwInfo& info);
    void messageReceivedFromDevice(const NvDeviceId& id, const NvMessage& message);
    void messageSentToDevice(const NvDeviceId& id, const NvMessage& message);
    void messageDetected(const NvDeviceId& id, NvProtocolType type, const NvByteArray& raw);
    void nonDataMessage(const NvDeviceId& id, const NvMessage& message);
    void postProcessed(const NvDataPacket& packet);
    void updateProgress(int current, int total, const NvDeviceId& id, const QString& identifier);
    void flushingProgress(int current, int total, const NvDeviceId& id, const QString& identifier);
    void progressCompleted(const NvDeviceId& id, const QString& identifier, int result);
    void flushingCompleted(const NvDeviceId& id, const QString& identifier, int result);
    void freeSlotsInd(unsigned char count);
    void gpsStatusChanged(const NvGpsStatus& status);
    void restoreCommunicationResult(const QString& port, NvResultValue result);

protected:
    // Hooks for the wrappers.
    virtual bool shouldProcessPacket() const { return true; }
    virtual NdaDeviceState::Type determineNewState(NvDeviceState state);
    // Stores the new application state (the wrapper keeps one).
    virtual void updateState(NdaDeviceState::Type newState, NdaDeviceState::Type oldState);
    // Library thread: does nothing for an old state "Destroyed" or equal states; else
    // handleDeviceStateChanged.
    virtual void onNdaDeviceStateChanged(NvDevice* dev, NdaDeviceState::Type newState,
                                         NdaDeviceState::Type oldState);
    // Runs every registered device-destroyed callback with the device.
    virtual void onDeviceDestructing(NvDevice* dev);
    void handleDeviceStateChanged(NvDevice* dev, NdaDeviceState::Type newState,
                                  NdaDeviceState::Type oldState);

protected slots:
    virtual void onUpdateProgress(int current, int total, const NvDeviceId& id,
                                  const QString& identifier);
    virtual void onProgressCompleted(const NvDeviceId& id, const QString& identifier, int result);
    virtual void onUpdateFlushingProgress(int current, int total, const NvDeviceId& id,
                                          const QString& identifier);
    virtual void onFlushingProgressCompleted(const NvDeviceId& id, const QString& identifier,
                                             int result);

private:
    struct PacketBatch;
    class BatchFlusher;
    // Library threads: posts `e` after every packet batched so far by any bridge.
    void post(QEvent* e);
    // GUI thread: emits the rest of the batch being emitted (a slot's nested event loop
    // gets there before anything newer).
    void emitPendingPackets();
    void emitPackets(const std::vector<NvDataPacket>& packets, const std::vector<qint64>& arrivals);
    void nvEvent(NvEvent* e);
    void clientInfoEvent(NvClientInfoEvent* e);
    void updateProgressEvent(NvUpdateProgressEvent* e);
    void flushingIndicationEvent(NvUpdateProgressEvent* e);

    QMutex m_destroyedMutex;
    QList<QSharedPointer<NdaDeviceDestroyedCallback>> m_destroyedCallbacks;

    std::shared_ptr<BatchFlusher> m_flusher; // shared by every bridge of the process
    std::shared_ptr<PacketBatch> m_batch;    // this bridge's packets waiting to be posted
    // GUI thread only
    const std::vector<NvDataPacket>* m_emitting = nullptr;
    const std::vector<qint64>* m_arrivals = nullptr;
    size_t m_emitNext = 0;
    qint64 m_currentArrival = 0;
};
