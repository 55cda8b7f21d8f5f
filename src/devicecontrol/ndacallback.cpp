#include "ndacallback.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <thread>

// One translation unit, so the numbers come out in this order on every run.
const QEvent::Type NVEVENTTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type NVPROCESSEVENTTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type NVUPDATEPROGRESSEVENTTYPE =
    static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type NVCLIENTINFOEVENTTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type NVFREESLOTSEVENTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type LOADFILEEVENTTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type CLOSEFILEEVENTTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type SAVEFILEEVENTTYPE = static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type RECORDINGSTATECHANGEDEVENTTYPE =
    static_cast<QEvent::Type>(QEvent::registerEventType());

namespace {

// Registered after the public types so their numbers stay as they were.
const QEvent::Type RestoreCommunicationEventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());

class RestoreCommunicationEvent : public QEvent
{
public:
    RestoreCommunicationEvent(const QString& port, NvResultValue result)
        : QEvent(RestoreCommunicationEventType), m_port(port), m_result(result)
    {
    }
    const QString& port() const { return m_port; }
    NvResultValue result() const { return m_result; }

private:
    QString m_port;
    NvResultValue m_result;
};

const QString FlushingIdentifier = QStringLiteral("Flushing");

// How long a live packet waits for others to share its event. At 2000 Hz per device that
// is one event for eight packets of a wrapper; a single packet is still there at once to
// the eye.
constexpr std::chrono::milliseconds BatchWindow(4);

} // namespace

// A bridge's live packets that are not posted yet.
struct NdaCallback::PacketBatch
{
    std::mutex mutex;
    // guarded by mutex
    NdaCallback* target = nullptr; // null once the bridge is being destroyed
    std::vector<NvDataPacket> packets;
    std::vector<qint64> arrivals; // steady clock, ns, one per packet
    bool scheduled = false;       // in the flusher's list

    void postLocked()
    {
        if (packets.empty())
            return;
        if (target)
            QCoreApplication::postEvent(
                target, new NvPostProcessEvent(std::move(packets), std::move(arrivals)));
        packets.clear(); // whatever the move left
        arrivals.clear();
    }
};

// Posts the batches of every bridge in the process, at the latest BatchWindow after the
// first packet of a round, from one thread (not one per device). Every other event a
// bridge posts goes through postAfterBatches, under the same lock, so it follows every
// packet any bridge received before it: the signals of the control and of the wrappers
// keep the library's order among each other, as with one event per packet.
class NdaCallback::BatchFlusher
{
public:
    BatchFlusher() : m_thread([this] { run(); }) {}
    ~BatchFlusher()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    BatchFlusher(const BatchFlusher&) = delete;
    BatchFlusher& operator=(const BatchFlusher&) = delete;

    // The one of the process while any bridge holds it.
    static std::shared_ptr<BatchFlusher> instance()
    {
        static std::mutex mutex;
        static std::weak_ptr<BatchFlusher> current;
        std::lock_guard<std::mutex> lock(mutex);
        std::shared_ptr<BatchFlusher> flusher = current.lock();
        if (!flusher) {
            flusher = std::make_shared<BatchFlusher>();
            current = flusher;
        }
        return flusher;
    }

    // Library threads: `batch` got its first packet since it was last posted. The caller
    // holds no batch lock (the lock order is m_mutex, then a batch's).
    void schedule(std::shared_ptr<PacketBatch> batch)
    {
        bool first;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            first = m_scheduled.empty();
            if (first)
                m_deadline = std::chrono::steady_clock::now() + BatchWindow;
            m_scheduled.push_back(std::move(batch));
        }
        if (first)
            m_wake.notify_one();
    }

    void postAfterBatches(QObject* receiver, QEvent* e)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        postBatchesLocked();
        QCoreApplication::postEvent(receiver, e);
    }

    void postBatches()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        postBatchesLocked();
    }

private:
    void postBatchesLocked()
    {
        for (const std::shared_ptr<PacketBatch>& batch : m_scheduled) {
            std::lock_guard<std::mutex> lock(batch->mutex);
            batch->postLocked();
            batch->scheduled = false;
        }
        m_scheduled.clear();
    }

    void run()
    {
        pthread_setname_np(pthread_self(), "nda-batches");
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stop) {
            if (m_scheduled.empty()) {
                m_wake.wait(lock);
                continue;
            }
            const auto deadline = m_deadline;
            m_wake.wait_until(lock, deadline, [this] { return m_stop || m_scheduled.empty(); });
            // Posted meanwhile by another event, maybe with a new round begun since.
            if (!m_stop && !m_scheduled.empty() && std::chrono::steady_clock::now() >= m_deadline)
                postBatchesLocked();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    // guarded by m_mutex; whatever a bridge posts is posted under it
    std::vector<std::shared_ptr<PacketBatch>> m_scheduled;
    std::chrono::steady_clock::time_point m_deadline; // of the first packet's round
    bool m_stop = false;
    std::thread m_thread;
};

NdaCallback::NdaCallback(QObject* parent)
    : QObject(parent), m_flusher(BatchFlusher::instance()), m_batch(std::make_shared<PacketBatch>())
{
    m_batch->target = this;
    registerNdaMetaTypes();
}

// Events still queued for this object are dropped by QObject's destructor; packets not
// yet posted are dropped here.
NdaCallback::~NdaCallback()
{
    std::lock_guard<std::mutex> lock(m_batch->mutex);
    m_batch->target = nullptr;
    m_batch->packets.clear();
}

void NdaCallback::registerDeviceDestroyedCallback(
    const QSharedPointer<NdaDeviceDestroyedCallback>& cb)
{
    if (!cb)
        return;
    QMutexLocker lock(&m_destroyedMutex);
    if (!m_destroyedCallbacks.contains(cb))
        m_destroyedCallbacks.append(cb);
}

void NdaCallback::unRegisterDeviceDestroyedCallback(
    const QSharedPointer<NdaDeviceDestroyedCallback>& cb)
{
    QMutexLocker lock(&m_destroyedMutex);
    m_destroyedCallbacks.removeAll(cb);
}

NvDeviceId NdaCallback::deviceIdOf(NvDevice* dev)
{
    NvDeviceId id;
    if (dev)
        NvDevice_deviceId(dev, &id);
    return id;
}

KvwInfo NdaCallback::fillCiEvent(NvDevice* dev)
{
    KvwInfo info;
    if (dev)
        NvDevice_kvwInfo(dev, &info);
    return info;
}

void NdaCallback::post(QEvent* e)
{
    m_flusher->postAfterBatches(this, e);
}

// ---- Library threads

void NdaCallback::onDeviceStateChanged(NvDevice* dev, NvDeviceState newState,
                                       NvDeviceState oldState)
{
    onNdaDeviceStateChanged(dev, determineNewState(newState), determineNewState(oldState));
}

NdaDeviceState::Type NdaCallback::determineNewState(NvDeviceState state)
{
    return NdaDeviceState::fromNvDeviceState(state);
}

void NdaCallback::updateState(NdaDeviceState::Type, NdaDeviceState::Type) {}

void NdaCallback::onNdaDeviceStateChanged(NvDevice* dev, NdaDeviceState::Type newState,
                                          NdaDeviceState::Type oldState)
{
    // Nothing follows Destroyed; an overridden mapping may fold two library states into one.
    if (oldState == NdaDeviceState::Destroyed || newState == oldState)
        return;
    handleDeviceStateChanged(dev, newState, oldState);
}

void NdaCallback::handleDeviceStateChanged(NvDevice* dev, NdaDeviceState::Type newState,
                                           NdaDeviceState::Type oldState)
{
    updateState(newState, oldState);
    if (newState == NdaDeviceState::Destroyed) {
        // No state change for a device that is going: its owners retire the wrapper, and
        // they are told while the handle still identifies it, after what it delivered.
        m_flusher->postBatches();
        onDeviceDestructing(dev);
        return;
    }
    post(new DeviceStateChangeEvent(deviceIdOf(dev), newState, oldState));
}

void NdaCallback::onDeviceDestructing(NvDevice* dev)
{
    QList<QSharedPointer<NdaDeviceDestroyedCallback>> callbacks;
    {
        // A callback may unregister itself; it must not find the list locked.
        QMutexLocker lock(&m_destroyedMutex);
        callbacks = m_destroyedCallbacks;
    }
    for (const auto& cb : callbacks)
        cb->deviceDestroyed(dev);
}

void NdaCallback::onLiveDataAvailable(NvDevice*, const NvDataPacket* packet)
{
    if (!packet || !shouldProcessPacket())
        return;
    const qint64 arrival = std::chrono::duration_cast<std::chrono::nanoseconds>(
                               std::chrono::steady_clock::now().time_since_epoch())
                               .count();
    bool first;
    {
        std::lock_guard<std::mutex> lock(m_batch->mutex);
        if (m_batch->packets.capacity() == 0) {
            m_batch->packets.reserve(16);
            m_batch->arrivals.reserve(16);
        }
        m_batch->packets.push_back(*packet);
        m_batch->arrivals.push_back(arrival);
        first = !m_batch->scheduled;
        m_batch->scheduled = true;
    }
    if (first)
        m_flusher->schedule(m_batch);
}

void NdaCallback::onMissedPackets(NvDevice* dev, int count, int, int)
{
    post(new NvMissingSamplesEvent(deviceIdOf(dev), count));
}

void NdaCallback::onWakeupReceived(NvDevice* dev)
{
    post(new NvWakeupEvent(deviceIdOf(dev)));
}

void NdaCallback::onProgressUpdated(NvDevice* dev, int current, int total,
                                    const NvString* identifier)
{
    const QString text = identifier ? QString::fromStdString(*identifier) : QString();
    const int kind =
        text == FlushingIdentifier ? NvEventKind::FlushingProgress : NvEventKind::UpdateProgress;
    post(new NvUpdateProgressEvent(kind, current, total, deviceIdOf(dev), text));
}

void NdaCallback::onConnectivityChanged(NvDevice* dev, NvConnectivityState state)
{
    int kind;
    switch (state) {
    case NCS_DISCONNECTED:
        kind = NvEventKind::ClientDisconnected;
        break;
    case NCS_REJECTED:
        kind = NvEventKind::ClientRejected;
        break;
    case NCS_PLUGGED_IN:
    case NCS_WIRELESS:
        kind = NvEventKind::ClientConnected;
        break;
    default:
        return; // file devices and unknown links are no tracker news
    }
    post(new NvClientInfoEvent(kind, fillCiEvent(dev)));
    // A tracker that comes or goes changes what its master has room for.
    if (NvDevice* master = NvDevice_masterDevice(dev))
        post(new NvFreeSlotsEvent(static_cast<unsigned char>(NvDevice_freeSlots(master))));
}

void NdaCallback::onInfoResponse(NvDevice* dev, NvInfoRequest request)
{
    if (request != NIR_BATTERY_LEVEL)
        return;
    post(new NvClientInfoEvent(NvEventKind::BatteryLevel, fillCiEvent(dev)));
}

void NdaCallback::onError(NvDevice* dev, NvResultValue error)
{
    // The library reports a device's warnings as errors of the warning class.
    if (error == NRV_WARNING)
        post(new NvWarningEvent(deviceIdOf(dev), error));
    else
        post(new NvErrorEvent(deviceIdOf(dev), error));
}

void NdaCallback::onNonDataMessage(NvDevice* dev, const NvMessage* message)
{
    post(new NvNonDataMessageEvent(deviceIdOf(dev), message ? *message : NvMessage()));
    // A device's Warning message is a warning too; its own code and text stay in the
    // message for those who read the raw messages.
    if (message && message->messageId() == NvMid::Warning)
        post(new NvWarningEvent(deviceIdOf(dev), NRV_WARNING));
}

void NdaCallback::onMessageDetected(NvDevice* dev, NvProtocolType type, const NvByteArray* raw)
{
    post(new NvMessageDetectedEvent(deviceIdOf(dev), type, raw ? *raw : NvByteArray()));
}

void NdaCallback::onMessageReceivedFromDevice(NvDevice* dev, const NvMessage* message)
{
    post(new NvMessageReceivedFromDeviceEvent(deviceIdOf(dev), message ? *message : NvMessage()));
}

void NdaCallback::onMessageSentToDevice(NvDevice* dev, const NvMessage* message)
{
    post(new NvMessageSentToDeviceEvent(deviceIdOf(dev), message ? *message : NvMessage()));
}

void NdaCallback::onDataUnavailable(NvDevice* dev, long sampleTime)
{
    post(new NvDataUnavailableEvent(deviceIdOf(dev), int(sampleTime)));
}

void NdaCallback::onRestoreCommunication(const NvString* port, NvResultValue result)
{
    post(new RestoreCommunicationEvent(port ? QString::fromStdString(*port) : QString(), result));
}

// ---- GUI thread

bool NdaCallback::event(QEvent* e)
{
    emitPendingPackets();
    const QEvent::Type type = e->type();
    if (type == NVEVENTTYPE) {
        nvEvent(static_cast<NvEvent*>(e));
        return true;
    }
    if (type == NVPROCESSEVENTTYPE) {
        auto* batch = static_cast<NvPostProcessEvent*>(e);
        emitPackets(batch->packets(), batch->arrivals());
        return true;
    }
    if (type == NVCLIENTINFOEVENTTYPE) {
        clientInfoEvent(static_cast<NvClientInfoEvent*>(e));
        return true;
    }
    if (type == NVUPDATEPROGRESSEVENTTYPE) {
        auto* progress = static_cast<NvUpdateProgressEvent*>(e);
        if (progress->kind() == NvEventKind::FlushingProgress)
            flushingIndicationEvent(progress);
        else
            updateProgressEvent(progress);
        return true;
    }
    if (type == NVFREESLOTSEVENTYPE) {
        emit freeSlotsInd(static_cast<NvFreeSlotsEvent*>(e)->freeSlots());
        return true;
    }
    if (type == RestoreCommunicationEventType) {
        auto* restore = static_cast<RestoreCommunicationEvent*>(e);
        emit restoreCommunicationResult(restore->port(), restore->result());
        return true;
    }
    return QObject::event(e);
}

void NdaCallback::emitPendingPackets()
{
    while (m_emitting && m_emitNext < m_emitting->size()) {
        const size_t i = m_emitNext++;
        m_currentArrival = i < m_arrivals->size() ? (*m_arrivals)[i] : 0;
        emit postProcessed((*m_emitting)[i]);
    }
}

void NdaCallback::emitPackets(const std::vector<NvDataPacket>& packets,
                              const std::vector<qint64>& arrivals)
{
    m_emitting = &packets;
    m_arrivals = &arrivals;
    m_emitNext = 0;
    emitPendingPackets();
    m_emitting = nullptr; // also when a nested loop finished it, or a newer batch after it
    m_currentArrival = 0;
}

void NdaCallback::nvEvent(NvEvent* e)
{
    const NvDeviceId& id = e->deviceId();
    switch (e->kind()) {
    case NvEventKind::MessageReceivedFromDevice:
        emit messageReceivedFromDevice(id, static_cast<NvMessageEvent*>(e)->message());
        break;
    case NvEventKind::MessageDetected: {
        auto* detected = static_cast<NvMessageDetectedEvent*>(e);
        emit messageDetected(id, detected->protocolType(), detected->raw());
        break;
    }
    case NvEventKind::MessageSentToDevice:
        emit messageSentToDevice(id, static_cast<NvMessageEvent*>(e)->message());
        break;
    case NvEventKind::MissedPackets:
        emit samplesMissed(id, static_cast<NvMissingSamplesEvent*>(e)->count());
        break;
    case NvEventKind::DataUnavailable:
        emit dataUnavailable(id, static_cast<NvDataUnavailableEvent*>(e)->sampleTime());
        break;
    case NvEventKind::WakeupReceived:
        emit wakeupReceived(id);
        break;
    case NvEventKind::Error:
        emit error(id, static_cast<NvErrorEvent*>(e)->result());
        break;
    case NvEventKind::Warning:
        emit warning(id, static_cast<NvErrorEvent*>(e)->result());
        break;
    case NvEventKind::NonDataMessage:
        emit nonDataMessage(id, static_cast<NvMessageEvent*>(e)->message());
        break;
    case NvEventKind::DeviceStateChanged: {
        auto* change = static_cast<DeviceStateChangeEvent*>(e);
        emit deviceStateChange(id, change->newState(), change->oldState());
        break;
    }
    default:
        break;
    }
}

void NdaCallback::clientInfoEvent(NvClientInfoEvent* e)
{
    switch (e->kind()) {
    case NvEventKind::ClientConnected:
        emit kvwConnected(e->info());
        break;
    case NvEventKind::ClientRejected:
        emit kvwRejected(e->info());
        break;
    case NvEventKind::ClientDisconnected:
        emit kvwDisconnected(e->info());
        break;
    case NvEventKind::BatteryLevel:
        emit batteryLevelChanged(e->info());
        break;
    default:
        break;
    }
}

void NdaCallback::updateProgressEvent(NvUpdateProgressEvent* e)
{
    emit updateProgress(e->current(), e->total(), e->deviceId(), e->identifier());
    onUpdateProgress(e->current(), e->total(), e->deviceId(), e->identifier());
    if (e->total() > 0 && e->current() >= e->total()) {
        emit progressCompleted(e->deviceId(), e->identifier(), 0);
        onProgressCompleted(e->deviceId(), e->identifier(), 0);
    }
}

void NdaCallback::flushingIndicationEvent(NvUpdateProgressEvent* e)
{
    emit flushingProgress(e->current(), e->total(), e->deviceId(), e->identifier());
    onUpdateFlushingProgress(e->current(), e->total(), e->deviceId(), e->identifier());
    if (e->total() > 0 && e->current() >= e->total()) {
        emit flushingCompleted(e->deviceId(), e->identifier(), 0);
        onFlushingProgressCompleted(e->deviceId(), e->identifier(), 0);
    }
}

void NdaCallback::onUpdateProgress(int, int, const NvDeviceId&, const QString&) {}

void NdaCallback::onProgressCompleted(const NvDeviceId&, const QString&, int) {}

void NdaCallback::onUpdateFlushingProgress(int, int, const NvDeviceId&, const QString&) {}

void NdaCallback::onFlushingProgressCompleted(const NvDeviceId&, const QString&, int) {}
