#include "devicemodel.h"

#include "deviceitems.h"
#include "ndacontrol.h"
#include "ndadevice.h"

#include <QColor>
#include <QMenu>
#include <QSettings>
#include <QtMath>

#include <algorithm>

// A static library's resources are not registered by themselves.
static void initDeviceTreeResources()
{
    Q_INIT_RESOURCE(devicetree);
}

namespace {

const QColor LinkTroubleColour(0xc8, 0x82, 0x00);

bool isWirelessTrackerItem(const DeviceListTreeItem* item)
{
    return item->isDeviceRow() && item->deviceId().isWirelessTracker();
}

// The library's versions compare major, then minor, then revision.
bool isNewer(const NvVersion& a, const NvVersion& b)
{
    if (a.major != b.major)
        return a.major > b.major;
    if (a.minor != b.minor)
        return a.minor > b.minor;
    return a.revision > b.revision;
}

} // namespace

DeviceModel::DeviceModel(NdaControl& control, QObject* parent)
    : QAbstractItemModel(parent), m_control(control)
{
    initDeviceTreeResources();
    registerNdaMetaTypes();
    qRegisterMetaType<DeviceListTreeItem::Type>("DeviceListTreeItem::Type");
    clear();
    connect(&m_control, &NdaCallback::batteryLevelChanged, this, &DeviceModel::updateBatteryLevels);
    connect(&m_control, &NdaCallback::kvwConnected, this, &DeviceModel::handleKvwConnected);
    m_linkTimer.setInterval(1000);
    connect(&m_linkTimer, &QTimer::timeout, this, &DeviceModel::updateLinkHealth);
    m_linkTimer.start();
}

DeviceModel::~DeviceModel()
{
    // The rows release their devices; the control outlives the model.
    delete m_root;
    m_root = nullptr;
}

// ---- QAbstractItemModel

int DeviceModel::columnCount(const QModelIndex&) const
{
    return ColumnCount;
}

int DeviceModel::rowCount(const QModelIndex& parent) const
{
    if (parent.isValid() && parent.column() != 0)
        return 0;
    const DeviceListTreeItem* node = parent.isValid() ? indexToItem(parent) : m_root;
    return node ? node->childCount() : 0;
}

QModelIndex DeviceModel::index(int row, int column, const QModelIndex& parent) const
{
    if (row < 0 || column < 0 || column >= ColumnCount)
        return {};
    if (parent.isValid() && parent.column() != 0)
        return {};
    const DeviceListTreeItem* node = parent.isValid() ? indexToItem(parent) : m_root;
    if (!node)
        return {};
    const DeviceListTreeItem* child = node->child(row);
    return child ? createIndex(row, column, quintptr(child->id())) : QModelIndex();
}

QModelIndex DeviceModel::parent(const QModelIndex& index) const
{
    const DeviceListTreeItem* node = indexToItem(index);
    if (!node)
        return {};
    const DeviceListTreeItem* up = node->parentItem();
    if (!up || up == m_root || !up->parentItem())
        return {};
    return createIndex(up->parentItem()->indexOf(up), 0, quintptr(up->id()));
}

QVariant DeviceModel::data(const QModelIndex& index, int role) const
{
    const DeviceListTreeItem* node = indexToItem(index);
    if (!node)
        return {};
    const auto* device = node->isDeviceRow() ? static_cast<const DeviceItem*>(node) : nullptr;
    const int column = index.column();
    switch (role) {
    case Qt::DisplayRole:
        switch (column) {
        case KeyColumn:
            return node->key();
        case ValueColumn:
            return node->value();
        case StateColumn:
            return device ? NdaDeviceState::toString(device->state()) : QVariant();
        case ProgressColumn:
            if (device && device->progressTotal() >= 1)
                return QStringLiteral("%1%").arg(
                    qRound(double(device->progressCurrent()) / device->progressTotal() * 100.0));
            return {};
        default:
            return QStringLiteral("Invalid model index (%1,%2)").arg(index.row()).arg(column);
        }
    case Qt::DecorationRole:
        return column == KeyColumn ? node->icon() : QIcon();
    case Qt::ToolTipRole: {
        if (device && !device->linkToolTip().isEmpty())
            return node->toolTip().isEmpty() ? device->linkToolTip()
                                             : node->toolTip() + "\n\n" + device->linkToolTip();
        return node->toolTip();
    }
    case Qt::ForegroundRole: {
        const DeviceListTreeItem* up = node->parentItem();
        while (up && !up->isDeviceRow())
            up = up->parentItem();
        if (up && static_cast<const DeviceItem*>(up)->linkItem() == node &&
            static_cast<const DeviceItem*>(up)->isLinkTroubled())
            return LinkTroubleColour;
        return {};
    }
    case TypeRole:
        return int(node->type());
    case EnumItemsRole:
        return node->enumItems();
    case DeviceIdRole:
        return device ? QVariant::fromValue(device->deviceId()) : QVariant();
    default:
        return {};
    }
}

QVariant DeviceModel::headerData(int, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole)
        return QString();
    return {};
}

Qt::ItemFlags DeviceModel::flags(const QModelIndex& index) const
{
    const DeviceListTreeItem* node = indexToItem(index);
    if (!node)
        return Qt::NoItemFlags;
    if (index.column() == KeyColumn)
        return QAbstractItemModel::flags(index);
    Qt::ItemFlags f = Qt::ItemIsSelectable | Qt::ItemIsEnabled;
    const auto type = node->type();
    const bool editableType = type == DeviceListTreeItem::Enumeration ||
                              type == DeviceListTreeItem::EditableEnumeration ||
                              type == DeviceListTreeItem::Boolean ||
                              type == DeviceListTreeItem::FilterScenario;
    if (!node->isReadOnly() && index.column() == ValueColumn && editableType)
        f |= Qt::ItemIsEditable;
    return f;
}

bool DeviceModel::setData(const QModelIndex&, const QVariant&, int)
{
    return false;
}

// ---- Queries

NvDeviceId DeviceModel::deviceId(const QModelIndex& index) const
{
    const DeviceListTreeItem* node = indexToItem(index);
    return node ? node->deviceId() : NvDeviceId();
}

DeviceListTreeItem* DeviceModel::indexToItem(const QModelIndex& index) const
{
    if (!index.isValid() || index.row() < 0 || index.column() < 0 || index.model() != this ||
        !m_root)
        return nullptr;
    return m_root->find(quint64(index.internalId()));
}

QModelIndex DeviceModel::itemIndex(const DeviceListTreeItem* item, int column) const
{
    if (!item || item == m_root || !item->parentItem() || !m_root->contains(item))
        return {};
    return createIndex(item->parentItem()->indexOf(item), column, quintptr(item->id()));
}

QModelIndex DeviceModel::getModelIndex(const NvDeviceId& id, int column) const
{
    return itemIndex(deviceItem(id), column);
}

DeviceItem* DeviceModel::deviceItem(const NvDeviceId& id) const
{
    auto it = m_devices.find(id);
    return it == m_devices.end() ? nullptr : it->second;
}

QMenu* DeviceModel::contextMenu(const QModelIndex& index) const
{
    DeviceListTreeItem* node = indexToItem(index);
    return node ? node->contextMenu() : nullptr;
}

QModelIndexList DeviceModel::itemsToExpand(const QModelIndex& parent) const
{
    QModelIndexList out;
    DeviceListTreeItem* node = parent.isValid() ? indexToItem(parent) : m_root;
    if (node)
        for (int i = 0; i < node->childCount(); ++i)
            itemsToExpand(node->child(i), out);
    return out;
}

void DeviceModel::itemsToExpand(DeviceListTreeItem* item, QModelIndexList& out) const
{
    if (item->expandByDefault())
        out << itemIndex(item);
    for (int i = 0; i < item->childCount(); ++i)
        itemsToExpand(item->child(i), out);
}

NvDeviceIdArray DeviceModel::devicesInTransportMode() const
{
    NvDeviceIdArray ids;
    for (const NvDeviceId& id : m_control.deviceIds())
        if (m_control.isInTransportMode(id))
            ids.push_back(id);
    return ids;
}

// ---- Changes

void DeviceModel::appendChild(DeviceListTreeItem* parent, DeviceListTreeItem* child)
{
    if (!parent || !child)
        return;
    if (!m_resetting) {
        const int row = parent->childCount();
        beginInsertRows(itemIndex(parent), row, row);
        parent->appendChild(child);
        endInsertRows();
    } else {
        parent->appendChild(child);
    }
    if (isWirelessTrackerItem(child))
        adjustPowerableDeviceCount(1);
}

void DeviceModel::removeChild(DeviceListTreeItem* parent, DeviceListTreeItem* child)
{
    if (!parent || !child)
        return;
    const int row = parent->indexOf(child);
    if (row < 0)
        return;
    while (child->childCount() > 0)
        removeChild(child, child->child(child->childCount() - 1));
    const bool tracker = isWirelessTrackerItem(child);
    dropFromHash(child);
    if (!m_resetting)
        beginRemoveRows(itemIndex(parent), row, row);
    parent->removeChild(child);
    if (!m_resetting)
        endRemoveRows();
    if (tracker)
        adjustPowerableDeviceCount(-1);
}

void DeviceModel::dropFromHash(DeviceListTreeItem* item)
{
    if (!item->isDeviceRow())
        return;
    auto it = m_devices.find(item->deviceId());
    if (it != m_devices.end() && it->second == item)
        m_devices.erase(it);
    else // the device may have gone invalid: look for the row itself
        for (auto i = m_devices.begin(); i != m_devices.end(); ++i)
            if (i->second == item) {
                m_devices.erase(i);
                break;
            }
}

void DeviceModel::adjustPowerableDeviceCount(int delta)
{
    const int before = m_powerableCount;
    m_powerableCount = std::max(0, m_powerableCount + delta);
    if (before == 0 && m_powerableCount > 0)
        emit powerableDevicePresenceChanged(true);
    else if (before > 0 && m_powerableCount == 0)
        emit powerableDevicePresenceChanged(false);
}

void DeviceModel::emitDeviceDataChanged()
{
    if (!m_resetting)
        emitAllDataChanged(m_root);
}

void DeviceModel::emitAllDataChanged(const DeviceListTreeItem* parent)
{
    const int rows = parent->childCount();
    if (rows == 0)
        return;
    const QModelIndex p = itemIndex(parent);
    emit dataChanged(index(0, 0, p), index(rows - 1, ColumnCount - 1, p));
    for (int i = 0; i < rows; ++i)
        if (parent->child(i)->hasChildren())
            emitAllDataChanged(parent->child(i));
}

void DeviceModel::emitDeviceDataChanged(const NvDeviceId& id, int column)
{
    if (m_resetting)
        return;
    const QModelIndex cell = getModelIndex(id, column);
    if (cell.isValid())
        emit dataChanged(cell, cell);
}

void DeviceModel::emitItemDataChanged(const DeviceListTreeItem* item, int firstColumn,
                                      int lastColumn, const QList<int>& roles)
{
    if (m_resetting)
        return;
    const QModelIndex first = itemIndex(item, firstColumn);
    if (first.isValid())
        emit dataChanged(first, first.siblingAtColumn(lastColumn), roles);
}

void DeviceModel::emitUserChangedData()
{
    emit userChangedData();
}

// ---- Rebuild

void DeviceModel::reloadList()
{
    NdaMeasurementPauser pauser(m_control);
    m_rebuilding = true;
    clear();
    beginResetModel();
    m_resetting = true;

    NvDeviceIdArray mains = m_control.mainDeviceIds();
    NvDeviceIdArray connected;
    // Masters first; the order within either kind is of no concern.
    std::sort(mains.begin(), mains.end(), [](const NvDeviceId& a, const NvDeviceId& b) {
        return a.isWirelessMaster() && !b.isWirelessMaster();
    });
    for (const NvDeviceId& id : mains) {
        if (m_devices.count(id))
            continue;
        DeviceItem* item = makeMainItem(id);
        if (!item)
            continue;
        checkFirmware(item);
        appendChild(m_root, item);
        m_devices[id] = item;
        connected.push_back(id);
    }

    // Trackers in the order of their master's slots, as the master lists them.
    std::vector<std::pair<int, NvDeviceId>> bySlot;
    for (const NvDeviceId& id : m_control.deviceIds())
        bySlot.emplace_back(m_control.busId(id), id);
    std::stable_sort(bySlot.begin(), bySlot.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : bySlot) {
        const NvDeviceId& id = entry.second;
        if (m_devices.count(id))
            continue;
        DeviceItem* item = makeTrackerItem(id);
        if (!item)
            continue;
        DeviceItem* master = deviceItem(m_control.getMasterId(id));
        DeviceListTreeItem* group = master ? master->connectedDevicesGroup() : nullptr;
        appendChild(group ? group : m_root, item);
        m_devices[id] = item;
    }

    m_resetting = false;
    endResetModel();
    // Told once the model is whole again, so that a listener may look at it.
    for (const NvDeviceId& id : connected)
        emit deviceConnected(id);
    refreshList();
    m_rebuilding = false;
    emit listRebuilt();
}

DeviceItem* DeviceModel::makeMainItem(const NvDeviceId& id)
{
    if (id.isBodyPack())
        return BodyPackItem::createItem(id, *this);
    if (id.isWirelessMaster()) {
        if (id.isWirelessMasterDongle())
            return AerloDongleItem::createItem(id, *this);
        return AerloStationItem::createItem(id, *this);
    }
    if (id.isWirelessTracker()) {
        if (!m_control.isReadingFromFile(id) && m_control.isInTransportMode(id)) {
            m_control.closePort(id);
            return nullptr;
        }
        return KvwItem::createItem(id, *this);
    }
    if (id.isLegacyTracker())
        return LegacyTrackerItem::createItem(id, *this);
    if (id.isCompactSeries())
        return KviSeriesAItem::createItem(id, *this);
    if (id.isIndustrialSeries())
        return KviSeriesBItem::createItem(id, *this);
    if (id.isHighEndSeries())
        return KviSeriesCItem::createItem(id, *this);
    if (id.isGnss())
        return KvigItem::createItem(id, *this);
    if (id.isInertialTracker())
        return KviItem::createItem(id, *this);
    if (id.isGlove())
        return GloveItem::createItem(id, *this);
    if (id.isImar())
        return ImarItem::createItem(id, *this);
    if (id.isSyncStation())
        return AerloStationItem::createItem(id, *this);
    return nullptr;
}

DeviceItem* DeviceModel::makeTrackerItem(const NvDeviceId& id)
{
    if (id.isWirelessTracker()) {
        if (m_control.getMasterId(id) == id && m_control.isInTransportMode(id))
            return nullptr;
        return KvwItem::createItem(id, *this);
    }
    if (id.isInertialTracker() || id.isGnss())
        return KviItem::createItem(id, *this);
    if (id.isLegacyTracker())
        return LegacyTrackerItem::createItem(id, *this);
    if (id.isGlove())
        return GloveItem::createItem(id, *this);
    return nullptr;
}

DeviceModel::FirmwareWarning DeviceModel::firmwareWarning(const NvVersion& firmware,
                                                          const QString& recorded)
{
    NvVersion latest;
    if (!recorded.isEmpty() && NvVersion::fromString(recorded.toStdString(), latest) &&
        isNewer(latest, firmware))
        return NewerFirmwareWarning;
    if (firmware.major == 255)
        return BootloaderWarning;
    return NoFirmwareWarning;
}

void DeviceModel::checkFirmware(DeviceItem* item)
{
    NdaDevice& device = item->device();
    if (!device.isValid())
        return;
    QSettings settings;
    settings.beginGroup(QStringLiteral("firmwareVersions"));
    const QString key = QString::fromStdString(item->deviceId().deviceTypeText());
    switch (firmwareWarning(device.firmwareVersion(), settings.value(key).toString())) {
    case NewerFirmwareWarning:
        item->setNewerFirmwareAvailable(true);
        item->setIcon(warningIcon());
        item->setFirmwareWarning(newerFirmwareText());
        break;
    case BootloaderWarning:
        item->setDeviceInBootloader(true);
        item->setIcon(warningIcon());
        item->setFirmwareWarning(bootloaderText());
        break;
    case NoFirmwareWarning:
        break;
    }
}

void DeviceModel::refreshList()
{
    NdaMeasurementPauser pauser(m_control);
    std::vector<DeviceItem*> off;
    collectPoweredOff(m_root, off);
    for (DeviceItem* item : off) {
        m_control.closePort(item->deviceId());
        removeChild(item->parentItem(), item);
    }
}

void DeviceModel::collectPoweredOff(DeviceListTreeItem* item, std::vector<DeviceItem*>& out) const
{
    for (int i = 0; i < item->childCount(); ++i) {
        DeviceListTreeItem* child = item->child(i);
        if (child->isDeviceRow()) {
            if (auto* kvw = dynamic_cast<KvwItem*>(static_cast<DeviceItem*>(child))) {
                kvw->refresh();
                if (!kvw->isPowerOn()) {
                    out.push_back(kvw);
                    continue;
                }
            }
        }
        collectPoweredOff(child, out);
    }
}

void DeviceModel::clear()
{
    beginResetModel();
    DeviceListTreeItem* old = m_root;
    m_root = new DeviceListTreeItem(QStringLiteral("Root"), *this);
    m_devices.clear();
    delete old;
    endResetModel();
    if (m_powerableCount != 0) {
        m_powerableCount = 0;
        emit powerableDevicePresenceChanged(false);
    }
}

void DeviceModel::removeDevice(const NvDeviceId& id)
{
    DeviceItem* item = deviceItem(id);
    if (!item)
        return;
    const QModelIndex index = itemIndex(item);
    emit deviceAboutToBeRemoved(index, id);
    removeChild(item->parentItem(), item);
    m_devices.erase(id);
    emit deviceRemoved(index, id);
}

void DeviceModel::removeDeviceItem(DeviceItem* item)
{
    for (const auto& entry : m_devices)
        if (entry.second == item) {
            const NvDeviceId id = entry.first; // the entry goes during the removal
            removeDevice(id);
            return;
        }
}

void DeviceModel::powerOff(const NvDeviceId& id)
{
    NdaMeasurementPauser pauser(m_control);
    m_control.gotoConfig(id);
    m_control.setInTransportMode(id, true);
    m_control.closePort(id);
    removeDevice(id);
}

void DeviceModel::disconnectDevice(const QString& deviceText)
{
    const NvDeviceId id = DeviceItem::stringToDeviceId(deviceText);
    if (id.isEmpty())
        return;
    m_control.closePort(id);
    removeDevice(id);
}

void DeviceModel::updateBatteryLevels(const KvwInfo& info)
{
    setBatteryLevel(info.deviceId, info.batteryLevel);
}

void DeviceModel::setBatteryLevel(const NvDeviceId& id, int percent)
{
    DeviceItem* item = deviceItem(id);
    if (!item)
        return;
    if (auto* kvw = dynamic_cast<KvwItem*>(item)) {
        if (kvw->setBatteryLevel(percent))
            emitItemDataChanged(kvw->batteryItem(), ValueColumn, ValueColumn);
    } else if (auto* pack = dynamic_cast<BodyPackItem*>(item)) {
        pack->setBatteryLevel(percent);
        emitItemDataChanged(pack->batteryItem(), ValueColumn, ValueColumn);
    }
}

void DeviceModel::handleKvwConnected(const KvwInfo& info)
{
    DeviceItem* item = deviceItem(info.deviceId);
    auto* kvw = dynamic_cast<KvwItem*>(item);
    if (!kvw) {
        if (!item && !m_rebuilding)
            emit trackersChanged();
        return;
    }
    kvw->refresh(); // announces its rows changed
}

void DeviceModel::updateLinkHealth()
{
    for (const auto& entry : m_devices) {
        DeviceItem* item = entry.second;
        if (!item->updateLinkHealth())
            continue;
        emitItemDataChanged(item->linkItem(), KeyColumn, ValueColumn,
                            {Qt::DisplayRole, Qt::ForegroundRole, Qt::ToolTipRole});
        emitItemDataChanged(item, KeyColumn, KeyColumn, {Qt::ToolTipRole});
    }
}

// ---- Icons and texts

QIcon DeviceModel::familyIcon(const QString& name)
{
    return QIcon(QStringLiteral(":/devicetree/icons/%1.png").arg(name));
}

QIcon DeviceModel::warningIcon()
{
    return QIcon(QStringLiteral(":/kvmanager/Resources/misc/warning.png"));
}

QString DeviceModel::newerFirmwareText()
{
    return tr("Newer firmware is available");
}

QString DeviceModel::bootloaderText()
{
    return tr("Device is in bootloader state.\nCheck ORBIS for more information");
}
