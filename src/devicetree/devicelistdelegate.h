#pragma once
// Paints the value column by row kind (drop-downs, battery bars) and edits the editable
// kinds in place; also shows a row's context menu, falling back to its device's.

#include "devicelisttreeitem.h"

#include <QItemDelegate>
#include <QStyleOptionProgressBar>

class QMenu;

class DeviceListDelegate : public QItemDelegate
{
    Q_OBJECT

public:
    explicit DeviceListDelegate(QObject* parent = nullptr);

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option,
                          const QModelIndex& index) const override;
    void setEditorData(QWidget* editor, const QModelIndex& index) const override;
    void setModelData(QWidget* editor, QAbstractItemModel* model,
                      const QModelIndex& index) const override;
    void updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const override;

    static DeviceListTreeItem::Type getDeviceListTreeItemType(const QModelIndex& index);
    // The level bar of a battery row; above 100 the level is unknown.
    static QStyleOptionProgressBar batteryBarOption(const QStyleOptionViewItem& option,
                                                    const QVariant& value);
    // The menu of the row or, failing that, of its nearest ancestor that has one.
    static QMenu* contextMenuFor(const QModelIndex& index);
    void showContextMenu(const QModelIndex& index, const QPoint& globalPos) const;

signals:
    // A filter-scenario row asked for its dialog, which lives with the device settings.
    void scenarioDialogRequested(const QModelIndex& index) const;

public slots:
    void emitCommitData();
};
