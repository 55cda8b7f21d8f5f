#pragma once
// A device row of the tree: observes its device, keeps the "Device Information" facts,
// the progress of a running operation and the health of the device's link.

#include "devicelisttreeitem.h"
#include "ndadeviceobserver.h"
#include "ndadevicestate.h"
#include "ndalinkhealth.h"

#include <QElapsedTimer>

class NdaDevice;

class DeviceItem : public NdaDeviceObserver, public DeviceListTreeItem
{
    Q_OBJECT

public:
    DeviceItem(const NvDeviceId& id, const QString& key, DeviceModel& model);
    ~DeviceItem() override;

    void refresh() override;
    NvDeviceId deviceId() const override;
    bool isDeviceRow() const override { return true; }
    QMenu* contextMenu() override;
    NdaDeviceState::Type state() const;

    QString productCode() const;
    void setProductCode(const QString& code);
    QString portName() const;
    void setPortName(const QString& port);
    QVariant baudrate() const;
    void setBaudRate(int rate);
    QString firmwareRevision() const;
    void setFirmwareRevision(const QString& text);
    QString hardwareRevision() const;
    void setHardwareRevision(const QString& text);
    QString getNdaFilterProfileName() const;
    QStringList getAvailableNdaFilterProfiles() const;
    static NvDeviceId stringToDeviceId(const QString& text);
    // The identifier's text: what "Disconnect" hands back to the model.
    static QString deviceIdToString(const NvDeviceId& id);

    DeviceListTreeItem* connectedDevicesGroup() const { return m_connectedDevices; }
    DeviceListTreeItem* deviceInformationGroup() const { return m_deviceInformation; }
    int progressCurrent() const { return m_progressCurrent; }
    int progressTotal() const { return m_progressTotal; }

    // The firmware warning text, empty when there is none.
    QString firmwareWarning() const;
    void setFirmwareWarning(const QString& text);

    // ---- Link health
    DeviceListTreeItem* linkItem() const { return m_link; }
    // Reads the link again; true when its row or tool tip changed.
    bool updateLinkHealth();
    bool isLinkTroubled() const { return m_linkTroubled; }
    QString linkToolTip() const { return m_linkToolTip; }

protected:
    // The "Device Information" group as first child, the "Link" row last in it.
    void createDeviceItems();
    void setConnectedDevicesGroup(DeviceListTreeItem* group) { m_connectedDevices = group; }
    void onDeviceClosed(const NvDeviceId& id) override;

private slots:
    void handleDeviceStateChanged(const NvDeviceId& id, NdaDeviceState::Type newState,
                                  NdaDeviceState::Type oldState);
    void handleProgressChanged(NdaDevice& device, int current, int total);
    void handleProgressCompleted(NdaDevice& device, int result);
    void handleFlushingAborted(NdaDevice& device);

private:
    void resetProgress();

    QString m_prefix; // shown before the identifier
    DeviceListTreeItem* m_deviceInformation = nullptr;
    DeviceListTreeItem* m_productCode = nullptr;
    DeviceListTreeItem* m_port = nullptr;
    DeviceListTreeItem* m_baudrate = nullptr;
    DeviceListTreeItem* m_firmware = nullptr;
    DeviceListTreeItem* m_hardware = nullptr;
    DeviceListTreeItem* m_link = nullptr;
    DeviceListTreeItem* m_connectedDevices = nullptr;
    int m_progressCurrent = -1;
    int m_progressTotal = -1;
    QString m_firmwareWarning;

    QElapsedTimer m_measuringSince; // invalid when not measuring
    QElapsedTimer m_lastTrouble;    // since missed packets or checksum errors last grew
    quint64 m_lastLost = 0;
    bool m_linkTroubled = false;
    QString m_linkToolTip;
};
