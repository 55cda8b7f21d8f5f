#pragma once
// The device rows of each family. createItem builds the row with its children and
// refreshes it; the model decides which family a device belongs to.

#include "deviceitem.h"

// Any single tracker: adds the "Output Information" group.
class KvItem : public DeviceItem
{
public:
    void refresh() override;

protected:
    KvItem(const NvDeviceId& id, const QString& key, DeviceModel& model);
    // Builds the children, sets the family icon and reads the device.
    static void finish(KvItem* item, const QString& iconName);

private:
    DeviceListTreeItem* m_locationId = nullptr;
    DeviceListTreeItem* m_filterProfile = nullptr;
};

class KviItem : public KvItem
{
public:
    static KviItem* createItem(const NvDeviceId& id, DeviceModel& model);

protected:
    KviItem(const NvDeviceId& id, DeviceModel& model);
};

class KvigItem : public KviItem
{
public:
    static KvigItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    using KviItem::KviItem;
};

class KviSeriesAItem : public KviItem
{
public:
    static KviSeriesAItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    using KviItem::KviItem;
};

class KviSeriesBItem : public KviItem
{
public:
    static KviSeriesBItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    using KviItem::KviItem;
};

class KviSeriesCItem : public KviItem
{
public:
    static KviSeriesCItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    using KviItem::KviItem;
};

class LegacyTrackerItem : public KviItem
{
public:
    static LegacyTrackerItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    using KviItem::KviItem;
};

class GloveItem : public KvItem
{
public:
    static GloveItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    GloveItem(const NvDeviceId& id, DeviceModel& model);
};

class ImarItem : public KvItem
{
public:
    static ImarItem* createItem(const NvDeviceId& id, DeviceModel& model);
    void refresh() override;

private:
    ImarItem(const NvDeviceId& id, DeviceModel& model);
    DeviceListTreeItem* m_updateRate = nullptr;
};

class KvwItem : public DeviceItem
{
public:
    enum Connection
    {
        Docked = 0,
        Wireless = 1,
        FromFile = 2,
    };

    static KvwItem* createItem(const NvDeviceId& id, DeviceModel& model);
    void refresh() override;
    QMenu* contextMenu() override;

    bool isPowerOn() const { return m_powerOn; }
    Connection connection() const { return m_connection; }
    int batteryLevel() const;
    // True when the stored level changed.
    bool setBatteryLevel(int percent);
    DeviceListTreeItem* batteryItem() const { return m_battery; }
    static QString connectionText(Connection connection);

private:
    KvwItem(const NvDeviceId& id, DeviceModel& model);
    void setPower(bool on);

    DeviceListTreeItem* m_power = nullptr;
    DeviceListTreeItem* m_battery = nullptr;
    DeviceListTreeItem* m_connectionRow = nullptr;
    bool m_powerOn = true;
    Connection m_connection = Docked;
};

class AerloStationItem : public DeviceItem
{
public:
    static AerloStationItem* createItem(const NvDeviceId& id, DeviceModel& model);
    void refresh() override;

protected:
    AerloStationItem(const NvDeviceId& id, const QString& key, DeviceModel& model);
    void createStationItems();

private:
    DeviceListTreeItem* m_stationPort = nullptr;
    DeviceListTreeItem* m_stationBaudrate = nullptr;
};

class AerloDongleItem : public AerloStationItem
{
public:
    static AerloDongleItem* createItem(const NvDeviceId& id, DeviceModel& model);

private:
    using AerloStationItem::AerloStationItem;
};

class BodyPackItem : public DeviceItem
{
public:
    static BodyPackItem* createItem(const NvDeviceId& id, DeviceModel& model);
    void refresh() override;
    void setBatteryLevel(int percent);
    DeviceListTreeItem* batteryItem() const { return m_battery; }

private:
    BodyPackItem(const NvDeviceId& id, DeviceModel& model);

    DeviceListTreeItem* m_packPort = nullptr;
    DeviceListTreeItem* m_updateRate = nullptr;
    DeviceListTreeItem* m_battery = nullptr;
};
