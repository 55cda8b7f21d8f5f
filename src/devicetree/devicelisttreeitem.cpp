#include "devicelisttreeitem.h"

#include <QMenu>

#include <algorithm>
#include <atomic>

namespace {

quint64 nextNodeId()
{
    static std::atomic<quint64> counter{0};
    return ++counter;
}

} // namespace

DeviceListTreeItem::DeviceListTreeItem(const QString& key, const QVariant& value, Type type,
                                       DeviceModel& model)
    : m_key(key), m_value(value), m_type(type), m_model(model), m_id(nextNodeId())
{
}

DeviceListTreeItem::DeviceListTreeItem(const QString& key, DeviceModel& model)
    : m_key(key), m_type(ReadOnlyText), m_model(model), m_isGroupingItem(true), m_id(nextNodeId())
{
}

DeviceListTreeItem::~DeviceListTreeItem()
{
    // Last first, so that a child's destructor never sees a half-emptied list.
    while (!m_children.empty()) {
        DeviceListTreeItem* last = m_children.back();
        m_children.pop_back();
        delete last;
    }
}

void DeviceListTreeItem::refresh()
{
    for (DeviceListTreeItem* child : m_children)
        child->refresh();
}

NvDeviceId DeviceListTreeItem::deviceId() const
{
    return m_parent ? m_parent->deviceId() : NvDeviceId();
}

DeviceListTreeItem* DeviceListTreeItem::child(int row) const
{
    if (row < 0 || row >= int(m_children.size()))
        return nullptr;
    return m_children[size_t(row)];
}

int DeviceListTreeItem::childCount() const
{
    return int(m_children.size());
}

int DeviceListTreeItem::columnCount() const
{
    return 2;
}

bool DeviceListTreeItem::contains(const DeviceListTreeItem* item) const
{
    if (item == this)
        return true;
    return std::any_of(m_children.begin(), m_children.end(),
                       [item](const DeviceListTreeItem* c) { return c->contains(item); });
}

void DeviceListTreeItem::setParent(DeviceListTreeItem* parent)
{
    m_parent = parent;
}

void DeviceListTreeItem::appendChild(DeviceListTreeItem* child)
{
    if (!child)
        return;
    m_children.push_back(child);
    child->setParent(this);
}

void DeviceListTreeItem::removeChild(DeviceListTreeItem* child)
{
    auto it = std::find(m_children.begin(), m_children.end(), child);
    if (it == m_children.end())
        return;
    m_children.erase(it);
    delete child;
}

QList<QVariant> DeviceListTreeItem::enumItems() const
{
    return m_enumItems;
}

void DeviceListTreeItem::setEnumItems(const QList<QVariant>& items)
{
    m_enumItems = items;
}

QIcon DeviceListTreeItem::icon() const
{
    return m_icon;
}

void DeviceListTreeItem::setIcon(const QIcon& icon)
{
    m_icon = icon;
}

QMenu* DeviceListTreeItem::contextMenu()
{
    return nullptr;
}

bool DeviceListTreeItem::isReadOnly() const
{
    return true;
}

int DeviceListTreeItem::indexOf(const DeviceListTreeItem* child) const
{
    auto it = std::find(m_children.begin(), m_children.end(), child);
    return it == m_children.end() ? -1 : int(it - m_children.begin());
}

DeviceListTreeItem* DeviceListTreeItem::find(quint64 id)
{
    if (m_id == id)
        return this;
    for (DeviceListTreeItem* child : m_children)
        if (DeviceListTreeItem* found = child->find(id))
            return found;
    return nullptr;
}
