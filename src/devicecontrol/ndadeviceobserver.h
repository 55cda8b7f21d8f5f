#pragma once
// Following one device from a window, dialog or plain object: the observer requests the
// device, releases it when it ends, and is switched to the invalid device when the device
// goes away (never inside the library's or the wrapper's call stack).

#include "ndametatypes.h"

#include <QDialog>
#include <QEvent>
#include <QObject>
#include <QString>
#include <QWidget>

class NdaControl;
class NdaDevice;
class NdaDeviceObserverBase;

// Moves the news of a closed device out of the caller's stack into the event loop.
class NdaDeviceObserverBaseDeviceCloser : public QObject
{
    Q_OBJECT

public:
    explicit NdaDeviceObserverBaseDeviceCloser(NdaDeviceObserverBase& observer);
    void onDeviceClosed(const NvDeviceId& id);
    bool event(QEvent* e) override;

    static const QEvent::Type DeviceClosedEventType;

private:
    NdaDeviceObserverBase& m_observer;
};

class NdaDeviceObserverBase
{
public:
    NdaDeviceObserverBase(NdaControl& control, const NvDeviceId& id);
    NdaDeviceObserverBase(NdaControl& control, const NdaDevice& device);
    virtual ~NdaDeviceObserverBase();
    NdaDeviceObserverBase(const NdaDeviceObserverBase&) = delete;
    NdaDeviceObserverBase& operator=(const NdaDeviceObserverBase&) = delete;

    void setDevice(NdaDevice& device);
    void setDevice(const NvDeviceId& id);
    NdaDevice& device() const { return *m_device; }
    NdaDevice* devicePtr() const { return m_device; }
    NvDeviceId deviceId() const;
    bool isDeviceValid() const;
    NdaControl& control() const { return m_control; }
    QString productCode() const;

    // The wrapper is about to be deleted: switch to the invalid device.
    void notifyDeviceDestroyed();
    // Posted handling of a device closed elsewhere.
    void handleDeviceClosed(const NvDeviceId& id);

protected:
    // After the observer switched to the invalid device because `id` went away.
    virtual void onDeviceClosed(const NvDeviceId& id) { (void)id; }

private:
    void attach(NdaDevice& device);
    void detach();

    NdaControl& m_control;
    NdaDevice* m_device = nullptr;
    NdaDeviceObserverBaseDeviceCloser m_closer;
};

class NdaDeviceObserver : public QObject, public NdaDeviceObserverBase
{
    Q_OBJECT

public:
    NdaDeviceObserver(NdaControl& control, const NvDeviceId& id, QObject* parent = nullptr);
    NdaDeviceObserver(NdaControl& control, const NdaDevice& device, QObject* parent = nullptr);

signals:
    void observerDestroyed(const NvDeviceId& id, NdaDeviceObserver* observer);

protected:
    void onDeviceClosed(const NvDeviceId& id) override;
};

class NdaDeviceObserverDialog : public QDialog, public NdaDeviceObserverBase
{
    Q_OBJECT

public:
    NdaDeviceObserverDialog(NdaControl& control, const NvDeviceId& id, QWidget* parent = nullptr);

signals:
    void observerDestroyed(const NvDeviceId& id, NdaDeviceObserverDialog* observer);

protected:
    void onDeviceClosed(const NvDeviceId& id) override;
};

class NdaDeviceObserverWidget : public QWidget, public NdaDeviceObserverBase
{
    Q_OBJECT

public:
    NdaDeviceObserverWidget(NdaControl& control, const NvDeviceId& id, QWidget* parent = nullptr);

signals:
    void observerDestroyed(const NvDeviceId& id, NdaDeviceObserverWidget* observer);

protected:
    void onDeviceClosed(const NvDeviceId& id) override;
};
