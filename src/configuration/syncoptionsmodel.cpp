#include "syncoptionsmodel.h"

#include <QBrush>
#include <QColor>

SyncOptionsModel::SyncOptionsModel(QObject* parent) : QAbstractListModel(parent) {}

NvSyncSetting SyncOptionsModel::defaultSetting()
{
    NvSyncSetting s;
    s.line = NSL_IN1;
    s.function = NSF_NONE;
    s.polarity = NSP_RISING_EDGE;
    s.pulseWidth = 1000;
    s.offset = 0;
    s.skipFirst = 0;
    s.skipFactor = 0;
    s.clockPeriod = 0;
    s.triggerOnce = 0;
    return s;
}

int SyncOptionsModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_settings.size());
}

bool SyncOptionsModel::isValidRow(const QModelIndex& index) const
{
    return index.isValid() && index.model() == this && index.row() >= 0 && index.row() < rowCount();
}

QVariant SyncOptionsModel::data(const QModelIndex& index, int role) const
{
    if (!isValidRow(index))
        return {};
    const NvSyncSetting& s = m_settings[static_cast<size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
        return QStringLiteral("%2: %1").arg(m_names.functionName(s.function),
                                            m_names.lineName(s.line));
    case Qt::ForegroundRole:
        return QBrush(isDuplicate(index) ? QColor(Qt::red) : QColor(Qt::black));
    case Qt::UserRole:
        return index.row();
    default:
        return {};
    }
}

QVariant SyncOptionsModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role == Qt::DisplayRole && orientation == Qt::Horizontal && section == 0)
        return QString();
    return QAbstractListModel::headerData(section, orientation, role);
}

bool SyncOptionsModel::insertRows(int row, int count, const QModelIndex& parent)
{
    // The page adds one row per click; several at once would be a caller's mistake.
    if (parent.isValid() || count != 1 || row < 0 || row > rowCount())
        return false;
    beginInsertRows(QModelIndex(), row, row);
    m_settings.insert(m_settings.begin() + row, defaultSetting());
    endInsertRows();
    updateViews();
    return true;
}

bool SyncOptionsModel::removeRows(int row, int count, const QModelIndex& parent)
{
    if (parent.isValid() || count < 1 || row < 0 || row + count > rowCount())
        return false;
    beginRemoveRows(QModelIndex(), row, row + count - 1);
    m_settings.erase(m_settings.begin() + row, m_settings.begin() + row + count);
    endRemoveRows();
    updateViews();
    return true;
}

void SyncOptionsModel::setSyncSettings(const NvSyncSettingArray& settings)
{
    beginResetModel();
    m_settings = settings;
    endResetModel();
}

NvSyncSetting SyncOptionsModel::getSettings(const QModelIndex& index) const
{
    return isValidRow(index) ? m_settings[static_cast<size_t>(index.row())] : defaultSetting();
}

bool SyncOptionsModel::setSettings(const QModelIndex& index, const NvSyncSetting& setting)
{
    if (!isValidRow(index))
        return false;
    NvSyncSetting& s = m_settings[static_cast<size_t>(index.row())];
    if (s == setting)
        return true;
    s = setting;
    updateViews();
    return true;
}

bool SyncOptionsModel::isDuplicate(const QModelIndex& index) const
{
    if (!isValidRow(index))
        return false;
    const size_t row = static_cast<size_t>(index.row());
    const NvSyncSetting& s = m_settings[row];
    if (s.function == NSF_NONE)
        return false;
    for (size_t i = 0; i < m_settings.size(); ++i)
        if (i != row && m_settings[i].line == s.line && m_settings[i].function == s.function)
            return true;
    return false;
}

void SyncOptionsModel::updateViews()
{
    if (rowCount() > 0)
        emit dataChanged(index(0), index(rowCount() - 1),
                         {Qt::DisplayRole, Qt::ForegroundRole, Qt::UserRole});
}
