#pragma once
// The tree of connected and file devices: masters with their trackers in a "Connected
// Devices" group, stand-alone trackers, and under each device its facts. Rebuilt from the
// control on demand; rows go one by one when a device closes.

#include "devicelisttreeitem.h"
#include "ndametatypes.h"
#include "nvversion.h"

#include <QAbstractItemModel>
#include <QModelIndexList>
#include <QTimer>

#include <unordered_map>

class DeviceItem;
class NdaControl;
class QMenu;

class DeviceModel : public QAbstractItemModel
{
    Q_OBJECT

public:
    enum Column
    {
        KeyColumn = 0,
        ValueColumn = 1,
        StateColumn = 2,
        ProgressColumn = 3,
        ColumnCount = 4,
    };
    enum Role
    {
        TypeRole = Qt::UserRole,
        EnumItemsRole = Qt::UserRole + 1,
        DeviceIdRole = Qt::UserRole + 2,
    };

    explicit DeviceModel(NdaControl& control, QObject* parent = nullptr);
    ~DeviceModel() override;

    // ---- QAbstractItemModel
    int columnCount(const QModelIndex& parent = {}) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& index) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role = Qt::EditRole) override;

    // ---- Queries
    NvDeviceId deviceId(const QModelIndex& index) const;
    DeviceListTreeItem* indexToItem(const QModelIndex& index) const;
    QModelIndex getModelIndex(const NvDeviceId& id, int column = 0) const;
    QModelIndex itemIndex(const DeviceListTreeItem* item, int column = 0) const;
    DeviceItem* deviceItem(const NvDeviceId& id) const;
    // Owned by the caller, who shows and deletes it; null when the row has none.
    QMenu* contextMenu(const QModelIndex& index) const;
    QModelIndexList itemsToExpand(const QModelIndex& parent = {}) const;
    NvDeviceIdArray devicesInTransportMode() const;
    QString lastErrorMessage() const { return m_lastErrorMessage; }
    NdaControl& ndaControl() const { return m_control; }
    int powerableDeviceCount() const { return m_powerableCount; }
    DeviceListTreeItem* rootItem() const { return m_root; }
    // Inside reloadList(), which resets the model more than once.
    bool isRebuilding() const { return m_rebuilding; }

    // ---- Changes
    void appendChild(DeviceListTreeItem* parent, DeviceListTreeItem* child);
    void removeChild(DeviceListTreeItem* parent, DeviceListTreeItem* child);
    void adjustPowerableDeviceCount(int delta);
    void emitDeviceDataChanged();
    void emitDeviceDataChanged(const NvDeviceId& id, int column);
    void emitItemDataChanged(const DeviceListTreeItem* item, int firstColumn, int lastColumn,
                             const QList<int>& roles = {});

    enum FirmwareWarning
    {
        NoFirmwareWarning,
        NewerFirmwareWarning,
        BootloaderWarning,
    };
    // `recorded` is the latest version known for the device type ("" when none).
    static FirmwareWarning firmwareWarning(const NvVersion& firmware, const QString& recorded);

    static QIcon familyIcon(const QString& name);
    static QIcon warningIcon();
    static QString newerFirmwareText();
    static QString bootloaderText();

public slots:
    void reloadList();
    void refreshList();
    void clear();
    void removeDevice(const NvDeviceId& id);
    void powerOff(const NvDeviceId& id);
    void disconnectDevice(const QString& deviceText);
    void updateBatteryLevels(const KvwInfo& info);
    void setBatteryLevel(const NvDeviceId& id, int percent);
    void emitUserChangedData();
    // Reads every device's link again; updates only the cells that changed.
    void updateLinkHealth();
    // A tracker called in, docked or left its dock: a known row is refreshed, a new
    // tracker asks for a rebuild (the tree is only ever built whole).
    void handleKvwConnected(const KvwInfo& info);

signals:
    void deviceAboutToBeRemoved(const QModelIndex& index, const NvDeviceId& id);
    void deviceRemoved(const QModelIndex& index, const NvDeviceId& id);
    void powerableDevicePresenceChanged(bool present);
    void userChangedData();
    // reloadList() is done, rows and all.
    void listRebuilt();
    // A rebuild gave a main device its row (the usage statistics count these).
    void deviceConnected(const NvDeviceId& id);
    // A tracker without a row is connected now; the owner of the list rebuilds it.
    void trackersChanged();

private:
    friend class DeviceItem;
    // A device row heard that its device closed (from the event loop).
    void removeDeviceItem(DeviceItem* item);
    DeviceItem* makeMainItem(const NvDeviceId& id);
    DeviceItem* makeTrackerItem(const NvDeviceId& id);
    void checkFirmware(DeviceItem* item);
    void dropFromHash(DeviceListTreeItem* item);
    void collectPoweredOff(DeviceListTreeItem* item, std::vector<DeviceItem*>& out) const;
    void emitAllDataChanged(const DeviceListTreeItem* parent);
    void itemsToExpand(DeviceListTreeItem* item, QModelIndexList& out) const;

    NdaControl& m_control;
    DeviceListTreeItem* m_root = nullptr;
    std::unordered_map<NvDeviceId, DeviceItem*> m_devices;
    int m_powerableCount = 0;
    QString m_lastErrorMessage;
    bool m_resetting = false; // rows appear without insertion signals inside a reset
    bool m_rebuilding = false;
    QTimer m_linkTimer;
};
