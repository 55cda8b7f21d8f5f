#include "deviceitems.h"

#include "devicemodel.h"
#include "ndacontrol.h"
#include "ndadevice.h"

#include <QMenu>

namespace {

QString typeText(const NvDeviceId& id)
{
    return DeviceItem::tr(id.deviceTypeText().c_str());
}

} // namespace

// ---- KvItem

KvItem::KvItem(const NvDeviceId& id, const QString& key, DeviceModel& model)
    : DeviceItem(id, key, model)
{
}

void KvItem::finish(KvItem* item, const QString& iconName)
{
    item->createDeviceItems();
    auto* output = new DeviceListTreeItem(tr("Output Information"), item->model());
    item->appendChild(output);
    item->m_locationId = new DeviceListTreeItem(tr("Location ID"), QStringLiteral("fakeLocation"),
                                                ReadOnlyText, item->model());
    output->appendChild(item->m_locationId);
    item->m_filterProfile = new DeviceListTreeItem(tr("Filter Settings profile"), QString(),
                                                   ReadOnlyText, item->model());
    output->appendChild(item->m_filterProfile);
    item->setIcon(DeviceModel::familyIcon(iconName));
    item->refresh();
}

void KvItem::refresh()
{
    if (device().isValid()) {
        m_locationId->setValue(device().locationId());
        m_filterProfile->setValue(getNdaFilterProfileName());
    }
    DeviceItem::refresh();
}

// ---- Inertial trackers

KviItem::KviItem(const NvDeviceId& id, DeviceModel& model) : KvItem(id, typeText(id), model) {}

KviItem* KviItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new KviItem(id, model);
    finish(item, QStringLiteral("tracker"));
    return item;
}

KvigItem* KvigItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new KvigItem(id, model);
    finish(item, QStringLiteral("gnss"));
    return item;
}

KviSeriesAItem* KviSeriesAItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new KviSeriesAItem(id, model);
    finish(item, QStringLiteral("seriesa"));
    return item;
}

KviSeriesBItem* KviSeriesBItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new KviSeriesBItem(id, model);
    finish(item, QStringLiteral("seriesb"));
    return item;
}

KviSeriesCItem* KviSeriesCItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new KviSeriesCItem(id, model);
    finish(item, QStringLiteral("seriesc"));
    return item;
}

LegacyTrackerItem* LegacyTrackerItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new LegacyTrackerItem(id, model);
    finish(item, QStringLiteral("legacy"));
    return item;
}

GloveItem::GloveItem(const NvDeviceId& id, DeviceModel& model) : KvItem(id, tr("Glove"), model) {}

GloveItem* GloveItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new GloveItem(id, model);
    finish(item, QStringLiteral("glove"));
    return item;
}

ImarItem::ImarItem(const NvDeviceId& id, DeviceModel& model) : KvItem(id, tr("iMAR"), model) {}

ImarItem* ImarItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new ImarItem(id, model);
    item->m_updateRate = new DeviceListTreeItem(tr("Update Rate"), tr("N/A"), ReadOnlyText, model);
    finish(item, QStringLiteral("imar"));
    return item;
}

void ImarItem::refresh()
{
    // Lives in the "Device Information" group, which exists only once finish() ran.
    if (m_updateRate && !m_updateRate->parentItem() && deviceInformationGroup())
        deviceInformationGroup()->appendChild(m_updateRate);
    if (device().isValid())
        m_updateRate->setValue(device().updateRate());
    KvItem::refresh();
}

// ---- KvwItem

KvwItem::KvwItem(const NvDeviceId& id, DeviceModel& model) : DeviceItem(id, tr("Kvw"), model) {}

KvwItem* KvwItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new KvwItem(id, model);
    item->createDeviceItems();
    auto* status = new DeviceListTreeItem(tr("Status Information"), model);
    status->setExpandByDefault(true);
    item->appendChild(status);
    item->m_power = new DeviceListTreeItem(tr("Power"), tr("Power On"), ReadOnlyText, model);
    item->m_power->setToolTip(tr("Right-click to turn off."));
    status->appendChild(item->m_power);
    item->m_battery = new DeviceListTreeItem(tr("Battery Level"), int(KvwInfo::BatteryUnknown),
                                             BatteryLevel, model);
    status->appendChild(item->m_battery);
    // How the tracker reaches its master: the dock's cable or the radio.
    item->m_connectionRow =
        new DeviceListTreeItem(tr("Connection"), QString(), ReadOnlyText, model);
    status->appendChild(item->m_connectionRow);
    item->setIcon(DeviceModel::familyIcon(QStringLiteral("kvw")));
    item->refresh();
    return item;
}

void KvwItem::refresh()
{
    NdaDevice& dev = device();
    NdaControl& control = model().ndaControl();
    const NvDeviceId id = deviceId();
    if (dev.isReadingFromFile()) {
        setPower(true);
        m_connection = FromFile;
    } else {
        setPower(!control.isInTransportMode(id));
        m_connection = control.isDeviceWireless(id) ? Wireless : Docked;
    }
    m_connectionRow->setValue(connectionText(m_connection));
    if (dev.isValid()) {
        const int level = dev.batteryLevel();
        if (level >= 0)
            m_battery->setValue(level);
    }
    DeviceItem::refresh();
}

QMenu* KvwItem::contextMenu()
{
    if (m_connection == FromFile)
        return nullptr;
    auto* menu = new QMenu;
    if (m_connection == Wireless) {
        menu->addAction(tr("Power Off (only for docked Kvws)"))->setEnabled(false);
        return menu;
    }
    QAction* power = menu->addAction(tr("Power Off"));
    const NvDeviceId id = deviceId();
    DeviceModel* m = &model();
    connect(power, &QAction::triggered, m, [m, id] { m->powerOff(id); });
    return menu;
}

QString KvwItem::connectionText(Connection connection)
{
    switch (connection) {
    case Docked:
        return tr("Docked");
    case Wireless:
        return tr("Wireless");
    case FromFile:
        return tr("Recording");
    }
    return QString();
}

int KvwItem::batteryLevel() const
{
    return m_battery->value().toInt();
}

bool KvwItem::setBatteryLevel(int percent)
{
    if (m_battery->value().toInt() == percent)
        return false;
    m_battery->setValue(percent);
    return true;
}

void KvwItem::setPower(bool on)
{
    m_powerOn = on;
    m_power->setValue(on ? tr("Power On") : tr("Power Off"));
}

// ---- Masters

AerloStationItem::AerloStationItem(const NvDeviceId& id, const QString& key, DeviceModel& model)
    : DeviceItem(id, key, model)
{
}

void AerloStationItem::createStationItems()
{
    createDeviceItems();
    m_stationPort = new DeviceListTreeItem(tr("Communication Port"), QStringLiteral("fakeComPort"),
                                           ReadOnlyText, model());
    appendChild(m_stationPort);
    m_stationBaudrate = new DeviceListTreeItem(tr("Baudrate"), tr("N/A"), ReadOnlyText, model());
    appendChild(m_stationBaudrate);
    auto* connected = new DeviceListTreeItem(tr("Connected Devices"), model());
    connected->setExpandByDefault(true);
    appendChild(connected);
    setConnectedDevicesGroup(connected);
    setExpandByDefault(true);
}

AerloStationItem* AerloStationItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new AerloStationItem(id, tr("Aerlo Station"), model);
    item->createStationItems();
    // A synchronisation station gets a row of this kind, but an icon of its own.
    item->setIcon(DeviceModel::familyIcon(id.isSyncStation() ? QStringLiteral("syncstation")
                                                             : QStringLiteral("station")));
    item->refresh();
    return item;
}

void AerloStationItem::refresh()
{
    if (device().isValid()) {
        m_stationPort->setValue(device().portName());
        m_stationBaudrate->setValue(nvBaudRateToRate(device().serialBaudRate()));
    }
    DeviceItem::refresh();
}

AerloDongleItem* AerloDongleItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new AerloDongleItem(id, tr("Aerlo Dongle"), model);
    item->createStationItems();
    item->setIcon(DeviceModel::familyIcon(QStringLiteral("dongle")));
    item->refresh();
    return item;
}

BodyPackItem::BodyPackItem(const NvDeviceId& id, DeviceModel& model)
    : DeviceItem(id, tr("Body Pack"), model)
{
}

BodyPackItem* BodyPackItem::createItem(const NvDeviceId& id, DeviceModel& model)
{
    auto* item = new BodyPackItem(id, model);
    item->createDeviceItems();
    auto* status = new DeviceListTreeItem(tr("Status Information"), model);
    status->setExpandByDefault(true);
    item->appendChild(status);
    item->m_packPort = new DeviceListTreeItem(tr("Communication Port"),
                                              QStringLiteral("fakeComPort"), ReadOnlyText, model);
    status->appendChild(item->m_packPort);
    item->m_updateRate = new DeviceListTreeItem(tr("Update Rate"), tr("N/A"), ReadOnlyText, model);
    status->appendChild(item->m_updateRate);
    item->m_battery = new DeviceListTreeItem(tr("Battery Level"), int(KvwInfo::BatteryUnknown),
                                             BatteryLevel, model);
    status->appendChild(item->m_battery);
    auto* connected = new DeviceListTreeItem(tr("Connected Devices"), model);
    connected->setExpandByDefault(true);
    item->appendChild(connected);
    item->setConnectedDevicesGroup(connected);
    item->setExpandByDefault(true);
    item->setIcon(DeviceModel::familyIcon(QStringLiteral("bodypack")));
    item->refresh();
    return item;
}

void BodyPackItem::refresh()
{
    if (device().isValid()) {
        m_packPort->setValue(device().portName());
        m_updateRate->setValue(device().updateRate());
    }
    DeviceItem::refresh();
}

void BodyPackItem::setBatteryLevel(int percent)
{
    m_battery->setValue(percent);
}
