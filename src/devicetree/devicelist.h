#pragma once
// The device dock's tree of devices, and the one place that turns the user's row
// selection into the set of devices the rest of the program works on.

#include "ndametatypes.h"

#include <QItemSelection>
#include <QTreeView>
#include <QWidget>

#include <set>
#include <vector>

class DeviceListDelegate;
class DeviceModel;
class NdaControl;
class QVBoxLayout;

class DeviceTreeView : public QTreeView
{
    Q_OBJECT

public:
    explicit DeviceTreeView(QWidget* parent = nullptr);
    DeviceListDelegate* delegate() const { return m_delegate; }

protected:
    void contextMenuEvent(QContextMenuEvent* event) override;

private:
    DeviceListDelegate* m_delegate;
};

class DeviceList : public QWidget
{
    Q_OBJECT

public:
    DeviceList(NdaControl& control, DeviceModel& model, QWidget* parent = nullptr);
    ~DeviceList() override;

    DeviceModel& model() const { return m_model; }
    DeviceTreeView* view() const { return m_view; }
    NvDeviceId getDeviceIdFromModelIndex(const QModelIndex& index) const;
    NvDeviceId currentlySelectedDeviceId() const;
    std::vector<NvDeviceId> currentlySelectedDeviceIds() const;

public slots:
    void reloadList();
    void refreshList();
    void clear();
    void collapseAll();
    void expandAll();
    void expandSpecific();
    void saveColumnWidth();
    void restoreColumnWidth();

signals:
    void selectionChanged(std::vector<NvDeviceId> newSelection,
                          std::vector<NvDeviceId> oldSelection);

private slots:
    void handleSelectionChange(const QItemSelection& selected, const QItemSelection& deselected);
    void handleRowsInserted(const QModelIndex& parent, int start, int end);
    void handleRowsChanged();
    void handleDeviceAboutToBeRemoved(const QModelIndex& index, const NvDeviceId& id);

private:
    std::vector<NvDeviceId> validOnly(const std::set<NvDeviceId>& ids) const;
    void syncSelection();

    NdaControl& m_control;
    DeviceTreeView* m_view;
    DeviceModel& m_model;
    std::set<NvDeviceId> m_selection;
    QVBoxLayout* m_layout;
};
