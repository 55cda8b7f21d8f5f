#pragma once
// The device's synchronisation settings as a list, one row per setting, as the page edits
// them before they are written.

#include "nvsyncsetting.h"
#include "syncnamedatabase.h"

#include <QAbstractListModel>

class SyncOptionsModel : public QAbstractListModel
{
    Q_OBJECT

public:
    explicit SyncOptionsModel(QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    // Display: "<line>: <function>"; foreground red for duplicates; user role: the row.
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    // One default row at a time, at most one past the end.
    bool insertRows(int row, int count, const QModelIndex& parent = QModelIndex()) override;
    bool removeRows(int row, int count, const QModelIndex& parent = QModelIndex()) override;

    void setSyncSettings(const NvSyncSettingArray& settings);
    const NvSyncSettingArray& syncSettings() const { return m_settings; }
    // The row's setting; the default setting for an invalid index.
    NvSyncSetting getSettings(const QModelIndex& index) const;
    // Replaces one row; every row is redrawn since duplicates may have come or gone.
    bool setSettings(const QModelIndex& index, const NvSyncSetting& setting);
    // Another row has the same line and the same function, and that function is not "None".
    bool isDuplicate(const QModelIndex& index) const;
    // Redraws all rows (texts and duplicate marks).
    void updateViews();

    // The row a new setting starts as.
    static NvSyncSetting defaultSetting();

    const SyncNameDatabase& names() const { return m_names; }

private:
    bool isValidRow(const QModelIndex& index) const;

    SyncNameDatabase m_names;
    NvSyncSettingArray m_settings;
};
