#include "ndadeviceobserver.h"

#include "ndacontrol.h"
#include "ndadevice.h"

#include <QCoreApplication>

const QEvent::Type NdaDeviceObserverBaseDeviceCloser::DeviceClosedEventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());

namespace {

class DeviceClosedEvent : public QEvent
{
public:
    explicit DeviceClosedEvent(const NvDeviceId& id)
        : QEvent(NdaDeviceObserverBaseDeviceCloser::DeviceClosedEventType), m_id(id)
    {
    }
    const NvDeviceId& deviceId() const { return m_id; }

private:
    NvDeviceId m_id;
};

} // namespace

// ---- NdaDeviceObserverBaseDeviceCloser

NdaDeviceObserverBaseDeviceCloser::NdaDeviceObserverBaseDeviceCloser(
    NdaDeviceObserverBase& observer)
    : m_observer(observer)
{
}

void NdaDeviceObserverBaseDeviceCloser::onDeviceClosed(const NvDeviceId& id)
{
    QCoreApplication::postEvent(this, new DeviceClosedEvent(id));
}

bool NdaDeviceObserverBaseDeviceCloser::event(QEvent* e)
{
    if (e->type() == DeviceClosedEventType) {
        m_observer.handleDeviceClosed(static_cast<DeviceClosedEvent*>(e)->deviceId());
        return true;
    }
    return QObject::event(e);
}

// ---- NdaDeviceObserverBase

NdaDeviceObserverBase::NdaDeviceObserverBase(NdaControl& control, const NvDeviceId& id)
    : m_control(control), m_device(&control.getInvalidDevice()), m_closer(*this)
{
    attach(control.requestDevice(id));
}

NdaDeviceObserverBase::NdaDeviceObserverBase(NdaControl& control, const NdaDevice& device)
    : m_control(control), m_device(&control.getInvalidDevice()), m_closer(*this)
{
    attach(control.requestDevice(device));
}

NdaDeviceObserverBase::~NdaDeviceObserverBase()
{
    detach();
}

void NdaDeviceObserverBase::setDevice(NdaDevice& device)
{
    // The new one first: switching to the same device must not let its count reach zero.
    NdaDevice& next = m_control.requestDevice(device);
    detach();
    attach(next);
}

void NdaDeviceObserverBase::setDevice(const NvDeviceId& id)
{
    NdaDevice& next = m_control.requestDevice(id);
    detach();
    attach(next);
}

NvDeviceId NdaDeviceObserverBase::deviceId() const
{
    return m_device->deviceId();
}

bool NdaDeviceObserverBase::isDeviceValid() const
{
    return m_device->isValid();
}

QString NdaDeviceObserverBase::productCode() const
{
    return m_device->productCode();
}

void NdaDeviceObserverBase::notifyDeviceDestroyed()
{
    // The wrapper is being deleted and already out of the control's table: forget it
    // without touching it again, and leave the rest to the event loop.
    const NvDeviceId id = m_device->deviceId();
    m_device = &m_control.getInvalidDevice();
    m_closer.onDeviceClosed(id);
}

void NdaDeviceObserverBase::handleDeviceClosed(const NvDeviceId& id)
{
    if (m_device != &m_control.getInvalidDevice()) {
        // Switched to another device since the news was posted: that one is not closed.
        if (m_device->deviceId() != id)
            return;
        detach();
    }
    onDeviceClosed(id);
}

void NdaDeviceObserverBase::attach(NdaDevice& device)
{
    m_device = &device;
    if (device.isValid())
        device.addObserver(this);
}

void NdaDeviceObserverBase::detach()
{
    // The invalid device is never counted; every other wrapper was requested, even one
    // that has become invalid since.
    NdaDevice* device = m_device;
    m_device = &m_control.getInvalidDevice();
    if (device == m_device)
        return;
    device->removeObserver(this);
    m_control.releaseDevice(*device);
}

// ---- The concrete observers

NdaDeviceObserver::NdaDeviceObserver(NdaControl& control, const NvDeviceId& id, QObject* parent)
    : QObject(parent), NdaDeviceObserverBase(control, id)
{
}

NdaDeviceObserver::NdaDeviceObserver(NdaControl& control, const NdaDevice& device, QObject* parent)
    : QObject(parent), NdaDeviceObserverBase(control, device)
{
}

void NdaDeviceObserver::onDeviceClosed(const NvDeviceId& id)
{
    emit observerDestroyed(id, this);
}

NdaDeviceObserverDialog::NdaDeviceObserverDialog(NdaControl& control, const NvDeviceId& id,
                                                 QWidget* parent)
    : QDialog(parent), NdaDeviceObserverBase(control, id)
{
}

void NdaDeviceObserverDialog::onDeviceClosed(const NvDeviceId& id)
{
    emit observerDestroyed(id, this);
}

NdaDeviceObserverWidget::NdaDeviceObserverWidget(NdaControl& control, const NvDeviceId& id,
                                                 QWidget* parent)
    : QWidget(parent), NdaDeviceObserverBase(control, id)
{
}

void NdaDeviceObserverWidget::onDeviceClosed(const NvDeviceId& id)
{
    emit observerDestroyed(id, this);
}
