#include "dialogmanagers.h"

#include "kvsettingsdialog.h"
#include "ndacontrol.h"
#include "ndadeviceobserver.h"

#include <QApplication>

#include <algorithm>

DeviceDialogManager::DeviceDialogManager(NdaControl& control, QObject* parent)
    : QObject(parent), m_control(control)
{
}

DeviceDialogManager::~DeviceDialogManager()
{
    closeAll();
}

NdaDeviceObserverDialog* DeviceDialogManager::dialog(const NvDeviceId& id) const
{
    const auto it = m_dialogs.find(id);
    return it == m_dialogs.end() ? nullptr : it->second.dialog.data();
}

void DeviceDialogManager::addDialog(const NvDeviceId& id, NdaDeviceObserverDialog* dialog)
{
    m_dialogs[id] = Entry{dialog, dialog};
    connect(dialog, &QObject::destroyed, this, [this, id](QObject* d) { forget(id, d); });
    connect(dialog, &NdaDeviceObserverDialog::observerDestroyed, this,
            [this](const NvDeviceId& gone, NdaDeviceObserverDialog* d) { forget(gone, d); });
}

void DeviceDialogManager::forget(const NvDeviceId& id, QObject* dialog)
{
    const auto it = m_dialogs.find(id);
    if (it != m_dialogs.end() && (it->second.dialog.isNull() || it->second.object == dialog))
        m_dialogs.erase(it);
}

void DeviceDialogManager::closeAll()
{
    auto dialogs = m_dialogs;
    m_dialogs.clear();
    for (auto& entry : dialogs)
        delete entry.second.dialog.data();
}

KvSettingsDialogManager::KvSettingsDialogManager(NdaControl& control, QObject* parent)
    : DeviceDialogManager(control, parent)
{
}

KvSettingsDialog* KvSettingsDialogManager::settingsDialog(const NvDeviceId& id) const
{
    return qobject_cast<KvSettingsDialog*>(dialog(id));
}

KvSettingsDialog* KvSettingsDialogManager::createDialog(const NvDeviceId& id, QWidget* parent)
{
    if (KvSettingsDialog* open = settingsDialog(id)) {
        open->show();
        open->raise();
        open->activateWindow();
        return open;
    }
    const NvDeviceIdArray open = control().deviceIds();
    if (id.isEmpty() || std::find(open.begin(), open.end(), id) == open.end())
        return nullptr;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    auto* d = new KvSettingsDialog(control(), id, parent);
    QApplication::restoreOverrideCursor();
    addDialog(id, d);
    connect(d, &KvSettingsDialog::configurationSaved, this,
            &KvSettingsDialogManager::configurationSaved);
    connect(d, &KvSettingsDialog::deviceChanged, this, &KvSettingsDialogManager::deviceChanged);
    connect(d, &KvSettingsDialog::onboardScenariosChanged, this,
            &KvSettingsDialogManager::onboardScenariosChanged);
    connect(d, &KvSettingsDialog::filterOptionsShortcutTriggered, this,
            &KvSettingsDialogManager::filterOptionsShortcutTriggered);
    connect(d, &KvSettingsDialog::filterChanged, this, &KvSettingsDialogManager::filterChanged);
    d->show();
    emit dialogOpened(d);
    return d;
}
