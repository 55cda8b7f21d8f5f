#include "devicelist.h"

#include "devicelistdelegate.h"
#include "devicemodel.h"
#include "ndacontrol.h"

#include <QContextMenuEvent>
#include <QHeaderView>
#include <QSettings>
#include <QVBoxLayout>

namespace {

const char* const SettingsGroup = "Devicelist";
const char* const ColumnWidthKey = "columnWidth";
constexpr int DefaultColumnWidth = 100;

} // namespace

// ---- DeviceTreeView

DeviceTreeView::DeviceTreeView(QWidget* parent)
    : QTreeView(parent), m_delegate(new DeviceListDelegate(this))
{
    if (qobject_cast<DeviceList*>(parent))
        setItemDelegate(m_delegate);
    setAnimated(true);
    setWordWrap(true);
    setUniformRowHeights(true);
    setAlternatingRowColors(true);
    setIndentation(10);
    setEditTriggers(QAbstractItemView::AllEditTriggers);
    // Measure and Config Mode act on the selection: Ctrl- and Shift-click pick a set.
    setSelectionMode(QAbstractItemView::ExtendedSelection);
}

void DeviceTreeView::contextMenuEvent(QContextMenuEvent* event)
{
    const QModelIndex index = indexAt(event->pos());
    if (index.isValid())
        m_delegate->showContextMenu(index, event->globalPos());
}

// ---- DeviceList

DeviceList::DeviceList(NdaControl& control, DeviceModel& model, QWidget* parent)
    : QWidget(parent), m_control(control), m_view(new DeviceTreeView(this)), m_model(model),
      m_layout(new QVBoxLayout(this))
{
    registerNdaMetaTypes(); // std::vector<NvDeviceId> is NvDeviceIdArray
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->addWidget(m_view);
    m_view->setModel(&m_model);
    restoreColumnWidth();

    connect(m_view->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &DeviceList::handleSelectionChange);
    connect(&m_model, &QAbstractItemModel::rowsInserted, this, &DeviceList::handleRowsInserted);
    // A reset drops the view's selection without telling anyone. A rebuild resets twice
    // and is looked at once, when it is done, so that it is one selection change.
    connect(&m_model, &QAbstractItemModel::modelReset, this, [this] {
        if (!m_model.isRebuilding())
            handleRowsChanged();
    });
    connect(&m_model, &DeviceModel::listRebuilt, this, &DeviceList::handleRowsChanged);
    connect(&m_model, &DeviceModel::deviceAboutToBeRemoved, this,
            &DeviceList::handleDeviceAboutToBeRemoved);
}

DeviceList::~DeviceList() = default;

NvDeviceId DeviceList::getDeviceIdFromModelIndex(const QModelIndex& index) const
{
    return m_model.deviceId(index);
}

NvDeviceId DeviceList::currentlySelectedDeviceId() const
{
    for (const NvDeviceId& id : m_selection)
        if (m_control.isValidExistingDevice(id))
            return id;
    return {};
}

std::vector<NvDeviceId> DeviceList::currentlySelectedDeviceIds() const
{
    return validOnly(m_selection);
}

void DeviceList::reloadList()
{
    m_model.reloadList();
    expandSpecific();
}

void DeviceList::refreshList()
{
    m_model.refreshList();
}

void DeviceList::clear()
{
    m_model.clear();
}

void DeviceList::collapseAll()
{
    m_view->collapseAll();
}

void DeviceList::expandAll()
{
    m_view->expandAll();
}

void DeviceList::expandSpecific()
{
    for (const QModelIndex& index : m_model.itemsToExpand(QModelIndex()))
        m_view->expand(index);
}

void DeviceList::saveColumnWidth()
{
    QSettings settings;
    settings.beginGroup(QLatin1String(SettingsGroup));
    settings.setValue(QLatin1String(ColumnWidthKey), m_view->columnWidth(0));
}

void DeviceList::restoreColumnWidth()
{
    QSettings settings;
    settings.beginGroup(QLatin1String(SettingsGroup));
    bool ok = false;
    const int width = settings.value(QLatin1String(ColumnWidthKey), DefaultColumnWidth).toInt(&ok);
    if (ok)
        m_view->setColumnWidth(0, width);
}

std::vector<NvDeviceId> DeviceList::validOnly(const std::set<NvDeviceId>& ids) const
{
    std::vector<NvDeviceId> out;
    for (const NvDeviceId& id : ids)
        if (m_control.isValidExistingDevice(id))
            out.push_back(id);
    return out;
}

void DeviceList::syncSelection()
{
    std::set<NvDeviceId> now;
    for (const QModelIndex& index : m_view->selectionModel()->selectedIndexes()) {
        const NvDeviceId id = m_model.deviceId(index);
        if (!id.isEmpty())
            now.insert(id);
    }
    if (now == m_selection)
        return;
    std::vector<NvDeviceId> oldList = validOnly(m_selection);
    std::vector<NvDeviceId> newList = validOnly(now);
    m_selection = std::move(now);
    emit selectionChanged(newList, oldList);
}

void DeviceList::handleSelectionChange(const QItemSelection&, const QItemSelection&)
{
    syncSelection();
}

void DeviceList::handleRowsInserted(const QModelIndex&, int, int)
{
    if (!m_model.isRebuilding())
        handleRowsChanged();
}

void DeviceList::handleRowsChanged()
{
    QItemSelectionModel* selection = m_view->selectionModel();
    if (m_model.rowCount() > 0 && !selection->hasSelection())
        selection->select(m_model.index(0, 0),
                          QItemSelectionModel::Select | QItemSelectionModel::Rows);
    // After a reset that left nothing to select, the stored devices are gone too.
    syncSelection();
}

void DeviceList::handleDeviceAboutToBeRemoved(const QModelIndex&, const NvDeviceId& id)
{
    if (!m_selection.count(id))
        return;
    std::vector<NvDeviceId> oldList = validOnly(m_selection);
    m_selection.erase(id);
    emit selectionChanged(validOnly(m_selection), oldList);
}
