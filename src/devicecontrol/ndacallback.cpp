#include "ndacallback.h"

#include <QCoreApplication>
#include <QMutexLocker>

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

} // namespace

NdaCallback::NdaCallback(QObject* parent) : QObject(parent)
{
    registerNdaMetaTypes();
}

// Events still queued for this object are dropped by QObject's destructor.
NdaCallback::~NdaCallback() = default;

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
    QCoreApplication::postEvent(this, e);
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
        // they are told while the handle still identifies it.
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
    post(new NvPostProcessEvent(*packet));
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
}

void NdaCallback::onInfoResponse(NvDevice* dev, NvInfoRequest request)
{
    if (request != NIR_BATTERY_LEVEL)
        return;
    post(new NvClientInfoEvent(NvEventKind::BatteryLevel, fillCiEvent(dev)));
}

void NdaCallback::onError(NvDevice* dev, NvResultValue error)
{
    post(new NvErrorEvent(deviceIdOf(dev), error));
}

void NdaCallback::onNonDataMessage(NvDevice* dev, const NvMessage* message)
{
    post(new NvNonDataMessageEvent(deviceIdOf(dev), message ? *message : NvMessage()));
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
    const QEvent::Type type = e->type();
    if (type == NVEVENTTYPE) {
        nvEvent(static_cast<NvEvent*>(e));
        return true;
    }
    if (type == NVPROCESSEVENTTYPE) {
        emit postProcessed(static_cast<NvPostProcessEvent*>(e)->packet());
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
