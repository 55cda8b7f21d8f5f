#pragma once
// One node of the device tree: a device row, a group or a fact about a device. Indexes
// carry the node's id, never its address, and are resolved again on every use.

#include "nvdeviceid.h"

#include <QIcon>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariant>

#include <vector>

class DeviceModel;
class QMenu;

class DeviceListTreeItem
{
public:
    enum Type
    {
        Enumeration = 0,
        EditableEnumeration = 1,
        Fixed = 2,
        BatteryLevel = 3,
        ReadOnlyText = 4,
        Boolean = 5,
        FilterScenario = 6,
    };

    DeviceListTreeItem(const QString& key, const QVariant& value, Type type, DeviceModel& model);
    // A grouping row.
    DeviceListTreeItem(const QString& key, DeviceModel& model);
    virtual ~DeviceListTreeItem();
    DeviceListTreeItem(const DeviceListTreeItem&) = delete;
    DeviceListTreeItem& operator=(const DeviceListTreeItem&) = delete;

    virtual void refresh();
    // The device of the nearest device row at or above this node.
    virtual NvDeviceId deviceId() const;
    virtual DeviceListTreeItem* child(int row) const;
    virtual int childCount() const;
    virtual int columnCount() const;
    virtual bool contains(const DeviceListTreeItem* item) const;
    virtual void setParent(DeviceListTreeItem* parent);
    virtual void appendChild(DeviceListTreeItem* child);
    virtual void removeChild(DeviceListTreeItem* child);
    virtual QList<QVariant> enumItems() const;
    virtual void setEnumItems(const QList<QVariant>& items);
    virtual QIcon icon() const;
    virtual void setIcon(const QIcon& icon);
    // A new menu that the caller owns, or null.
    virtual QMenu* contextMenu();
    virtual bool isReadOnly() const;
    virtual bool isDeviceRow() const { return false; }

    const QString& key() const { return m_key; }
    const QVariant& value() const { return m_value; }
    void setValue(const QVariant& value) { m_value = value; }
    const QString& toolTip() const { return m_toolTip; }
    void setToolTip(const QString& toolTip) { m_toolTip = toolTip; }
    Type type() const { return m_type; }
    void setType(Type type) { m_type = type; }
    int indexOf(const DeviceListTreeItem* child) const;
    DeviceListTreeItem* parentItem() const { return m_parent; }
    bool hasChildren() const { return !m_children.empty(); }
    DeviceListTreeItem* find(quint64 id);
    quint64 id() const { return m_id; }
    DeviceModel& model() const { return m_model; }

    bool expandByDefault() const { return m_expandByDefault; }
    void setExpandByDefault(bool on) { m_expandByDefault = on; }
    bool newerFirmwareAvailable() const { return m_newerFirmwareAvailable; }
    void setNewerFirmwareAvailable(bool on) { m_newerFirmwareAvailable = on; }
    bool deviceInBootloader() const { return m_deviceInBootloader; }
    void setDeviceInBootloader(bool on) { m_deviceInBootloader = on; }
    bool isGroupingItem() const { return m_isGroupingItem; }

private:
    QString m_key;
    QVariant m_value;
    Type m_type = ReadOnlyText;
    DeviceModel& m_model;
    DeviceListTreeItem* m_parent = nullptr;
    std::vector<DeviceListTreeItem*> m_children;
    QList<QVariant> m_enumItems;
    QIcon m_icon;
    QString m_toolTip;
    bool m_expandByDefault = false;
    bool m_newerFirmwareAvailable = false;
    bool m_deviceInBootloader = false;
    bool m_isGroupingItem = false;
    // Never reused, unlike an address: an index kept across a rebuild must not find a
    // newer node that happens to live at the same place.
    quint64 m_id;
};

Q_DECLARE_METATYPE(DeviceListTreeItem::Type)
