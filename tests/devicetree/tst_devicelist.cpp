// The device list over emulated devices: the first row selected after a rebuild, rows
// mapped to devices for the selection, removal of the selected device, the battery bar
// and the column width setting.
#include "devicelist.h"
#include "devicelistdelegate.h"
#include "devicemodel.h"
#include "devicetreetest.h"
#include "kvsimharness.h"
#include "ndacontrol.h"

#include <QComboBox>
#include <QImage>
#include <QLineEdit>
#include <QPainter>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTemporaryDir>
#include <QTest>

namespace {

using devicetreetest::idOfKind;
using devicetreetest::openAll;

using Ids = std::vector<NvDeviceId>;

Ids newSelection(const QSignalSpy& spy, int at)
{
    return spy.at(at).at(0).value<Ids>();
}

Ids oldSelection(const QSignalSpy& spy, int at)
{
    return spy.at(at).at(1).value<Ids>();
}

} // namespace

class TestDeviceList : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void selectionFollowsRowsRebuildsAndRemovals();
    void batteryBarShowsUnknownLevels();
    void delegatePaintsAndEditsEachKind();
    void columnWidthIsKept();

private:
    QTemporaryDir m_settingsDir;
};

void TestDeviceList::initTestCase()
{
    QVERIFY(m_settingsDir.isValid());
    devicetreetest::useSettingsFolder(m_settingsDir, QStringLiteral("tst_devicelist"));
}

void TestDeviceList::selectionFollowsRowsRebuildsAndRemovals()
{
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "master:3,docked=1", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId master = idOfKind(sim, "master");
    const NvDeviceId ahrs = idOfKind(sim, "ahrs");
    {
        DeviceModel model(control);
        DeviceList list(control, model);
        QCOMPARE(list.view()->itemDelegate(), list.view()->delegate());
        QSignalSpy changed(&list, &DeviceList::selectionChanged);

        // A rebuild into an empty selection selects the first device row as a whole.
        list.reloadList();
        QCOMPARE(changed.count(), 1);
        QCOMPARE(newSelection(changed, 0), Ids{master});
        QVERIFY(oldSelection(changed, 0).empty());
        QCOMPARE(list.currentlySelectedDeviceId(), master);
        QVERIFY(list.view()->selectionModel()->isRowSelected(0, QModelIndex()));
        const QModelIndex group = model.index(3, 0, model.index(0, 0));
        QCOMPARE(group.data().toString(), QStringLiteral("Connected Devices"));
        QVERIFY(list.view()->isExpanded(model.index(0, 0)));
        QVERIFY(list.view()->isExpanded(group));

        // Two facts of one device are one device.
        const QModelIndex info = model.index(0, 0, model.getModelIndex(ahrs));
        QItemSelection rows;
        rows.select(model.index(0, 0, info), model.index(0, 3, info));
        rows.select(model.index(2, 0, info), model.index(2, 3, info));
        list.view()->selectionModel()->select(rows, QItemSelectionModel::ClearAndSelect);
        QCOMPARE(changed.count(), 2);
        QCOMPARE(newSelection(changed, 1), Ids{ahrs});
        QCOMPARE(oldSelection(changed, 1), Ids{master});
        QCOMPARE(list.currentlySelectedDeviceIds(), Ids{ahrs});
        QCOMPARE(list.getDeviceIdFromModelIndex(model.index(2, 1, info)), ahrs);

        // Another row of the same device changes nothing.
        list.view()->selectionModel()->select(model.getModelIndex(ahrs),
                                              QItemSelectionModel::ClearAndSelect |
                                                  QItemSelectionModel::Rows);
        QCOMPARE(changed.count(), 2);

        // A rebuild is one change, to the first row.
        list.reloadList();
        QCOMPARE(changed.count(), 3);
        QCOMPARE(newSelection(changed, 2), Ids{master});
        QCOMPARE(oldSelection(changed, 2), Ids{ahrs});

        // Both devices, then the selected ones go away one by one.
        list.view()->selectionModel()->select(
            model.getModelIndex(ahrs), QItemSelectionModel::Select | QItemSelectionModel::Rows);
        QCOMPARE(changed.count(), 4);
        const Ids both = master < ahrs ? Ids{master, ahrs} : Ids{ahrs, master};
        QCOMPARE(newSelection(changed, 3), both);
        model.disconnectDevice(QString::fromStdString(ahrs.toString()));
        QCOMPARE(changed.count(), 5);
        QCOMPARE(newSelection(changed, 4), Ids{master});
        QCOMPARE(oldSelection(changed, 4), both);
        model.removeDevice(master);
        QCOMPARE(changed.count(), 6);
        QVERIFY(newSelection(changed, 5).empty());
        QCOMPARE(oldSelection(changed, 5), Ids{master});
        QVERIFY(list.currentlySelectedDeviceId().isEmpty());
        QVERIFY(list.currentlySelectedDeviceIds().empty());

        // A rebuild that finds devices again selects the first one; an empty one clears.
        list.reloadList();
        QCOMPARE(changed.count(), 7);
        QCOMPARE(newSelection(changed, 6).size(), size_t(1));
        QCOMPARE(list.currentlySelectedDeviceId(), newSelection(changed, 6).front());
        control.close();
        QTRY_COMPARE_WITH_TIMEOUT(model.rowCount(), 0, 5000);
        QCOMPARE(changed.count(), 8);
        QVERIFY(newSelection(changed, 7).empty());
        list.reloadList();
        QCOMPARE(changed.count(), 8);
        QCOMPARE(model.rowCount(), 0);
    }
    control.close();
}

void TestDeviceList::batteryBarShowsUnknownLevels()
{
    QStyleOptionViewItem option;
    option.rect = QRect(0, 0, 100, 16);
    const QStyleOptionProgressBar known = DeviceListDelegate::batteryBarOption(option, 55);
    QCOMPARE(known.progress, 55);
    QCOMPARE(known.text, QStringLiteral("55%"));
    QCOMPARE(known.minimum, 0);
    QCOMPARE(known.maximum, 100);
    const QStyleOptionProgressBar full = DeviceListDelegate::batteryBarOption(option, 100);
    QCOMPARE(full.text, QStringLiteral("100%"));
    const QStyleOptionProgressBar unknown = DeviceListDelegate::batteryBarOption(option, 101);
    QCOMPARE(unknown.progress, 0);
    QCOMPARE(unknown.text, QStringLiteral("N/A"));
}

void TestDeviceList::delegatePaintsAndEditsEachKind()
{
    QStandardItemModel model(7, 2);
    for (int type = 0; type < 7; ++type) {
        auto* item = new QStandardItem;
        item->setData(type, DeviceModel::TypeRole);
        item->setData(type == DeviceListTreeItem::Boolean ? QVariant(false) : QVariant(type * 10),
                      Qt::DisplayRole);
        item->setData(QVariantList{0, 10, 20}, DeviceModel::EnumItemsRole);
        model.setItem(type, 1, item);
    }
    DeviceListDelegate delegate;
    QWidget host;
    QImage image(120, 20, QImage::Format_ARGB32);
    QPainter painter(&image);
    QStyleOptionViewItem option;
    option.rect = image.rect();
    for (int type = 0; type < 7; ++type) {
        const QModelIndex value = model.index(type, 1);
        QCOMPARE(int(DeviceListDelegate::getDeviceListTreeItemType(value)), type);
        delegate.paint(&painter, option, value);
        delegate.paint(&painter, option, model.index(type, 0));
    }
    painter.end();

    QSignalSpy commits(&delegate, &QAbstractItemDelegate::commitData);
    std::unique_ptr<QWidget> choice(delegate.createEditor(&host, option, model.index(0, 1)));
    auto* combo = qobject_cast<QComboBox*>(choice.get());
    QVERIFY(combo);
    QCOMPARE(combo->count(), 3);
    delegate.setEditorData(combo, model.index(0, 1));
    QCOMPARE(combo->currentIndex(), 0);
    QCOMPARE(commits.count(), 0);
    combo->setCurrentIndex(2);
    QCOMPARE(commits.count(), 1);

    std::unique_ptr<QWidget> flag(delegate.createEditor(&host, option, model.index(5, 1)));
    auto* boolean = qobject_cast<QComboBox*>(flag.get());
    QVERIFY(boolean);
    QCOMPARE(boolean->itemData(0), QVariant(true));
    QCOMPARE(boolean->itemData(1), QVariant(false));
    delegate.setEditorData(boolean, model.index(5, 1));
    QCOMPARE(boolean->currentIndex(), 1);

    QSignalSpy scenario(&delegate, &DeviceListDelegate::scenarioDialogRequested);
    QVERIFY(!delegate.createEditor(&host, option, model.index(6, 1)));
    QCOMPARE(scenario.count(), 1);

    std::unique_ptr<QWidget> text(delegate.createEditor(&host, option, model.index(4, 1)));
    auto* edit = qobject_cast<QLineEdit*>(text.get());
    QVERIFY(edit);
    delegate.updateEditorGeometry(edit, option, model.index(4, 1));
    QCOMPARE(edit->geometry(), option.rect);
    QTest::keyClicks(edit, QStringLiteral("ab"));
    QCOMPARE(commits.count(), 3);
}

void TestDeviceList::columnWidthIsKept()
{
    NdaControl control;
    DeviceModel model(control);
    {
        DeviceList list(control, model);
        QCOMPARE(list.view()->columnWidth(0), 100); // the default
        list.view()->setColumnWidth(0, 173);
        list.saveColumnWidth();
    }
    QCOMPARE(QSettings().value(QStringLiteral("Devicelist/columnWidth")).toInt(), 173);
    {
        DeviceList list(control, model);
        QCOMPARE(list.view()->columnWidth(0), 173);
        QSettings().setValue(QStringLiteral("Devicelist/columnWidth"), QStringLiteral("wide"));
        list.view()->setColumnWidth(0, 120);
        list.restoreColumnWidth();
        QCOMPARE(list.view()->columnWidth(0), 120);
    }
    // Only a list's own view uses the delegate.
    DeviceTreeView alone;
    QVERIFY(alone.itemDelegate() != alone.delegate());
}

QTEST_MAIN(TestDeviceList)
#include "tst_devicelist.moc"
