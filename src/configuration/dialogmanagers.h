#pragma once
// One dialog per device: asking again raises the open one. A dialog is forgotten when its
// device goes away or it closes.

#include "nvdeviceid.h"

#include <QObject>
#include <QPointer>

#include <map>

class KvSettingsDialog;
class NdaControl;
class NdaDeviceObserverDialog;
class QWidget;

class DeviceDialogManager : public QObject
{
    Q_OBJECT

public:
    explicit DeviceDialogManager(NdaControl& control, QObject* parent = nullptr);
    ~DeviceDialogManager() override;

    NdaControl& control() const { return m_control; }
    NdaDeviceObserverDialog* dialog(const NvDeviceId& id) const;
    size_t dialogCount() const { return m_dialogs.size(); }
    // Takes `dialog` into the table; it is forgotten when it is destroyed or its device goes.
    void addDialog(const NvDeviceId& id, NdaDeviceObserverDialog* dialog);
    void closeAll();

private:
    void forget(const NvDeviceId& id, QObject* dialog);

    struct Entry
    {
        QPointer<NdaDeviceObserverDialog> dialog;
        const QObject* object = nullptr; // compared only, never used: it may be mid-destruction
    };
    NdaControl& m_control;
    std::map<NvDeviceId, Entry> m_dialogs;
};

class KvSettingsDialogManager : public DeviceDialogManager
{
    Q_OBJECT

public:
    explicit KvSettingsDialogManager(NdaControl& control, QObject* parent = nullptr);

    // The open dialog of the device, raised, or a new one; null for a device that is gone.
    KvSettingsDialog* createDialog(const NvDeviceId& id, QWidget* parent = nullptr);
    KvSettingsDialog* settingsDialog(const NvDeviceId& id) const;

signals:
    void configurationSaved(const NvDeviceId& id);
    void deviceChanged(const NvDeviceId& id);
    void onboardScenariosChanged(const NvDeviceId& id);
    void filterOptionsShortcutTriggered(const NvDeviceId& id);
    void filterChanged(const NvDeviceId& id);
    void dialogOpened(KvSettingsDialog* dialog);
};
