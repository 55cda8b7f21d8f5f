// The device tree model over emulated devices: its shape after a rebuild, the columns,
// progress, the powerable-device signal, removal and stale indexes, firmware warnings and
// link health.
#include "deviceitems.h"
#include "devicelistdelegate.h"
#include "devicemodel.h"
#include "devicetreetest.h"
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"

#include <QAbstractItemModelTester>
#include <QMenu>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <tuple>
#include <vector>

namespace {

using devicetreetest::idOfKind;
using devicetreetest::openAll;

QModelIndex childByKey(const QAbstractItemModel& model, const QModelIndex& parent,
                       const QString& key)
{
    for (int row = 0; row < model.rowCount(parent); ++row) {
        const QModelIndex index = model.index(row, 0, parent);
        if (index.data().toString() == key)
            return index;
    }
    return {};
}

NvDeviceId rowDevice(const QModelIndex& index)
{
    return index.data(DeviceModel::DeviceIdRole).value<NvDeviceId>();
}

QImage iconImage(const QIcon& icon)
{
    return icon.pixmap(16, 16).toImage().convertToFormat(QImage::Format_ARGB32);
}

QImage iconImage(const QModelIndex& index)
{
    return iconImage(index.data(Qt::DecorationRole).value<QIcon>());
}

} // namespace

class TestDeviceModel : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void rebuildListsMastersFirstWithTrackersAndFacts();
    void progressPowerOffAndStaleIndexes();
    void firmwareWarnings();
    void everyFamilyHasAnIconOfItsOwn();
    void linkHealthTurnsAmberWhenPacketsGoMissing();
    void masterLinkIsJudgedByItsTrackers();

private:
    QTemporaryDir m_settingsDir;
};

void TestDeviceModel::initTestCase()
{
    QVERIFY(m_settingsDir.isValid());
    devicetreetest::useSettingsFolder(m_settingsDir, QStringLiteral("tst_devicemodel"));
}

void TestDeviceModel::rebuildListsMastersFirstWithTrackersAndFacts()
{
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "master:3,docked=1", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    {
        DeviceModel model(control);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QSignalSpy powerable(&model, &DeviceModel::powerableDevicePresenceChanged);
        QCOMPARE(model.rowCount(), 0);

        model.reloadList();
        QCOMPARE(model.rowCount(), 3);
        QCOMPARE(model.columnCount(), 4);
        for (int column = 0; column < 4; ++column)
            QCOMPARE(model.headerData(column, Qt::Horizontal).toString(), QString());
        QVERIFY(!model.headerData(0, Qt::Vertical).isValid());

        // The master first, the two trackers after it in either order.
        const NvDeviceId master = idOfKind(sim, "master");
        const NvDeviceId imu = idOfKind(sim, "imu");
        const NvDeviceId ahrs = idOfKind(sim, "ahrs");
        const QModelIndex masterRow = model.index(0, 0);
        QCOMPARE(rowDevice(masterRow), master);
        QCOMPARE(masterRow.data().toString(), QStringLiteral("Aerlo Station"));
        QVERIFY(!masterRow.data(Qt::DecorationRole).value<QIcon>().isNull());
        const std::set<NvDeviceId> others{rowDevice(model.index(1, 0)),
                                          rowDevice(model.index(2, 0))};
        QCOMPARE(others, (std::set<NvDeviceId>{imu, ahrs}));
        const QModelIndex imuRow = model.getModelIndex(imu);
        QCOMPARE(imuRow.data().toString(), QString::fromStdString(imu.deviceTypeText()));
        QCOMPARE(model.index(imuRow.row(), 1).data().toString(),
                 QString::fromStdString(imu.toString()));
        QCOMPARE(model.index(imuRow.row(), 2).data().toString(),
                 NdaDeviceState::toString(NdaDeviceState::ConfigMode));
        QVERIFY(!model.index(imuRow.row(), 3).data().isValid());

        // Facts of a tracker, each mapping back to its device.
        const QModelIndex info = model.index(0, 0, imuRow);
        QCOMPARE(info.data().toString(), QStringLiteral("Device Information"));
        const QModelIndex code = childByKey(model, info, QStringLiteral("Product Code"));
        QVERIFY(code.isValid());
        QCOMPARE(code.siblingAtColumn(1).data().toString(),
                 control.getExistingDevice(imu)->shortProductCode());
        QCOMPARE(model.deviceId(code), imu);
        QVERIFY(!code.data(DeviceModel::DeviceIdRole).isValid());
        QCOMPARE(code.data(DeviceModel::TypeRole).toInt(), int(DeviceListTreeItem::ReadOnlyText));
        QCOMPARE(childByKey(model, info, QStringLiteral("Baudrate")).siblingAtColumn(1).data(),
                 QVariant(115200));
        QVERIFY(childByKey(model, info, QStringLiteral("Link")).isValid());
        QVERIFY(childByKey(model, imuRow, QStringLiteral("Output Information")).isValid());
        QCOMPARE(model.flags(code.siblingAtColumn(1)), Qt::ItemIsSelectable | Qt::ItemIsEnabled);
        QVERIFY(!model.setData(code.siblingAtColumn(1), QStringLiteral("x")));

        // The docked tracker sits in the master's group; one powerable device appeared.
        const QModelIndex group = childByKey(model, masterRow, QStringLiteral("Connected Devices"));
        QVERIFY(group.isValid());
        QCOMPARE(model.rowCount(group), 1);
        const QModelIndex kvw = model.index(0, 0, group);
        QCOMPARE(kvw.data().toString(), QStringLiteral("Kvw"));
        QVERIFY(rowDevice(kvw).isWirelessTracker());
        QCOMPARE(model.getModelIndex(rowDevice(kvw)), kvw);
        QCOMPARE(powerable.count(), 1);
        QCOMPARE(powerable.at(0).at(0).toBool(), true);
        QVERIFY(model.itemsToExpand().contains(masterRow));
        QVERIFY(model.itemsToExpand().contains(group));

        // An information row offers its device's menu; a docked tracker can be powered off.
        std::unique_ptr<QMenu> menu(DeviceListDelegate::contextMenuFor(code));
        QVERIFY(menu);
        QCOMPARE(menu->actions().size(), 1);
        QCOMPARE(menu->actions().at(0)->text(), QStringLiteral("Disconnect"));
        std::unique_ptr<QMenu> kvwMenu(model.contextMenu(kvw));
        QVERIFY(kvwMenu);
        QCOMPARE(kvwMenu->actions().at(0)->text(), QStringLiteral("Power Off"));
        QVERIFY(kvwMenu->actions().at(0)->isEnabled());
        QVERIFY(!model.contextMenu(group));

        // The master's link reports bring the docked tracker's battery level.
        const QModelIndex status = childByKey(model, kvw, QStringLiteral("Status Information"));
        QCOMPARE(childByKey(model, status, QStringLiteral("Power")).siblingAtColumn(1).data(),
                 QVariant(QStringLiteral("Power On")));
        const QModelIndex battery =
            childByKey(model, status, QStringLiteral("Battery Level")).siblingAtColumn(1);
        QCOMPARE(battery.data(DeviceModel::TypeRole).toInt(),
                 int(DeviceListTreeItem::BatteryLevel));
        QTRY_VERIFY_WITH_TIMEOUT(battery.data().toInt() <= 100, 5000);
        QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
        model.setBatteryLevel(rowDevice(kvw), 42);
        model.setBatteryLevel(rowDevice(kvw), 42);
        QCOMPARE(battery.data().toInt(), 42);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).value<QModelIndex>(), battery);

        // Trackers on the radio ask for a rebuild and join the group in slot order, each
        // saying how it is connected; they cannot be powered off from here.
        QSignalSpy trackersChanged(&model, &DeviceModel::trackersChanged);
        QVERIFY(control.enableRadio(master, 11));
        QTRY_COMPARE_WITH_TIMEOUT(int(control.deviceIds().size()), 6, 10000);
        QTRY_VERIFY(trackersChanged.count() >= 1);
        model.reloadList();
        const QModelIndex radioGroup =
            childByKey(model, model.index(0, 0), QStringLiteral("Connected Devices"));
        QCOMPARE(model.rowCount(radioGroup), 3);
        int wireless = 0, lastBus = 0;
        for (int row = 0; row < 3; ++row) {
            const NvDeviceId tracker = rowDevice(model.index(row, 0, radioGroup));
            QVERIFY(control.busId(tracker) > lastBus);
            lastBus = control.busId(tracker);
            const QModelIndex trackerStatus = childByKey(model, model.index(row, 0, radioGroup),
                                                         QStringLiteral("Status Information"));
            QCOMPARE(childByKey(model, trackerStatus, QStringLiteral("Connection"))
                         .siblingAtColumn(1)
                         .data()
                         .toString(),
                     control.isDeviceWireless(tracker) ? QStringLiteral("Wireless")
                                                       : QStringLiteral("Docked"));
            if (!control.isDeviceWireless(tracker))
                continue;
            ++wireless;
            std::unique_ptr<QMenu> radioMenu(model.contextMenu(model.index(row, 0, radioGroup)));
            QVERIFY(radioMenu);
            QCOMPARE(radioMenu->actions().size(), 1);
            QVERIFY(!radioMenu->actions().at(0)->isEnabled());
        }
        QCOMPARE(wireless, 2);
        QCOMPARE(model.powerableDeviceCount(), 3);
        QCOMPARE(powerable.count(), 3); // false at the clear, true again
        QCOMPARE(powerable.at(2).at(0).toBool(), true);
        control.disableRadio(master);
    }
    control.close();
}

void TestDeviceModel::progressPowerOffAndStaleIndexes()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--device", "master:3,docked=1", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    {
        DeviceModel model(control);
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        model.reloadList();
        const NvDeviceId imu = idOfKind(sim, "imu");
        NdaDevice* device = control.getExistingDevice(imu);
        QVERIFY(device);

        // Progress of 3 of 8, then done.
        QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
        const QModelIndex progress = model.getModelIndex(imu, DeviceModel::ProgressColumn);
        emit device->progressChanged(*device, 3, 8);
        QCOMPARE(progress.data().toString(), QStringLiteral("38%"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).value<QModelIndex>(), progress);
        emit device->progressCompleted(*device, 0);
        QVERIFY(!progress.data().isValid());
        QVERIFY(!model.index(0, 3, model.getModelIndex(imu)).data().isValid());

        // Powering the docked tracker off takes its row and the last powerable device.
        QSignalSpy powerable(&model, &DeviceModel::powerableDevicePresenceChanged);
        QSignalSpy removed(&model, &DeviceModel::deviceRemoved);
        const QModelIndex group =
            childByKey(model, model.index(0, 0), QStringLiteral("Connected Devices"));
        const NvDeviceId tracker = rowDevice(model.index(0, 0, group));
        QVERIFY(tracker.isWirelessTracker());
        model.powerOff(tracker);
        QCOMPARE(powerable.count(), 1);
        QCOMPARE(powerable.at(0).at(0).toBool(), false);
        QCOMPARE(removed.count(), 1);
        QCOMPARE(removed.at(0).at(1).value<NvDeviceId>(), tracker);
        QCOMPARE(model.rowCount(group), 0);
        QVERIFY(!model.getModelIndex(tracker).isValid());

        // The tracker is off now: a rebuild makes no row for it and no powerable news.
        const QModelIndex kept = model.index(0, 0, model.getModelIndex(imu));
        QVERIFY(kept.data().isValid());
        QTRY_VERIFY_WITH_TIMEOUT(
            !control.isValidExistingDevice(tracker) && control.deviceCount() == 2, 5000);
        model.reloadList();
        QVERIFY(!model.getModelIndex(tracker).isValid());
        QCOMPARE(model.rowCount(
                     childByKey(model, model.index(0, 0), QStringLiteral("Connected Devices"))),
                 0);
        QCOMPARE(powerable.count(), 1);

        // An index from before the rebuild finds nothing.
        QVERIFY(!kept.data().isValid());
        QVERIFY(!kept.data(Qt::ToolTipRole).isValid());
        QVERIFY(model.deviceId(kept).isEmpty());
        QCOMPARE(model.flags(kept), Qt::NoItemFlags);
        QVERIFY(!model.parent(kept).isValid());
        QCOMPARE(model.rowCount(kept), 0);
        QVERIFY(!model.contextMenu(kept));
        model.removeDevice(NvDeviceId::fromString("0000ABCD")); // unknown: nothing happens
        QCOMPARE(model.rowCount(), 2);

        // A device that closes loses its row.
        QSignalSpy aboutToGo(&model, &DeviceModel::deviceAboutToBeRemoved);
        model.disconnectDevice(QString::fromStdString(imu.toString()));
        QCOMPARE(aboutToGo.count(), 1);
        QCOMPARE(aboutToGo.at(0).at(1).value<NvDeviceId>(), imu);
        QCOMPARE(model.rowCount(), 1);
    }
    control.close();
}

void TestDeviceModel::firmwareWarnings()
{
    using W = DeviceModel;
    QCOMPARE(W::firmwareWarning(NvVersion(1, 2, 3), QString()), W::NoFirmwareWarning);
    QCOMPARE(W::firmwareWarning(NvVersion(1, 2, 3), QStringLiteral("1.2.3")), W::NoFirmwareWarning);
    QCOMPARE(W::firmwareWarning(NvVersion(1, 2, 3), QStringLiteral("1.2.4")),
             W::NewerFirmwareWarning);
    QCOMPARE(W::firmwareWarning(NvVersion(1, 9, 9), QStringLiteral("2.0.0")),
             W::NewerFirmwareWarning);
    QCOMPARE(W::firmwareWarning(NvVersion(2, 0, 0), QStringLiteral("1.9.9")), W::NoFirmwareWarning);
    QCOMPARE(W::firmwareWarning(NvVersion(255, 0, 0), QString()), W::BootloaderWarning);
    QCOMPARE(W::firmwareWarning(NvVersion(255, 0, 0), QStringLiteral("garbage")),
             W::BootloaderWarning);
    // A newer recorded version wins over the bootloader.
    QCOMPARE(W::firmwareWarning(NvVersion(255, 0, 0), QStringLiteral("255.1.0")),
             W::NewerFirmwareWarning);

    kvtest::KvsimProcess sim({"--device", "ahrs", "--device", "imu", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId ahrs = idOfKind(sim, "ahrs");
    const NvDeviceId imu = idOfKind(sim, "imu");
    {
        QSettings settings;
        settings.beginGroup(QStringLiteral("firmwareVersions"));
        settings.setValue(QString::fromStdString(ahrs.deviceTypeText()), QStringLiteral("254.0.0"));
        settings.setValue(QString::fromStdString(imu.deviceTypeText()), QStringLiteral("0.0.1"));
    }
    {
        DeviceModel model(control);
        model.reloadList();
        const QModelIndex ahrsRow = model.getModelIndex(ahrs);
        QCOMPARE(ahrsRow.data(Qt::ToolTipRole).toString().section('\n', 0, 0),
                 QStringLiteral("Newer firmware is available"));
        QCOMPARE(ahrsRow.data(Qt::DecorationRole).value<QIcon>().cacheKey() ==
                     model.getModelIndex(imu).data(Qt::DecorationRole).value<QIcon>().cacheKey(),
                 false);
        const QModelIndex firmware =
            childByKey(model, model.index(0, 0, ahrsRow), QStringLiteral("Firmware Revision"));
        QCOMPARE(firmware.data(Qt::ToolTipRole).toString(),
                 QStringLiteral("Newer firmware is available"));
        // The application's warning image, on the device row and the firmware row.
        const QString warningPath = QStringLiteral(":/kvmanager/Resources/misc/warning.png");
        QVERIFY(!QImage(warningPath).isNull());
        QCOMPARE(iconImage(firmware), iconImage(QIcon(warningPath)));
        QCOMPARE(iconImage(ahrsRow), iconImage(QIcon(warningPath)));
        QVERIFY(!model.getModelIndex(imu)
                     .data(Qt::ToolTipRole)
                     .toString()
                     .contains(QStringLiteral("firmware")));
    }
    QSettings().remove(QStringLiteral("firmwareVersions"));
    control.close();
}

void TestDeviceModel::everyFamilyHasAnIconOfItsOwn()
{
    // The row of each family as a rebuild makes it; the devices need not be there.
    NdaControl control;
    DeviceModel model(control);
    using Make = DeviceItem* (*)(const NvDeviceId&, DeviceModel&);
    const std::vector<std::tuple<const char*, uint32_t, Make>> families = {
        {"inertial tracker", NvDeviceType::Kv300Ahrs,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return KviItem::createItem(id, m);
         }},
        {"GNSS/INS tracker", NvDeviceType::Kv370GnssIns,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return KvigItem::createItem(id, m);
         }},
        {"compact series", NvDeviceType::Kv100Imu,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return KviSeriesAItem::createItem(id, m);
         }},
        {"industrial series", NvDeviceType::Kv610Imu,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return KviSeriesBItem::createItem(id, m);
         }},
        {"high-end series", NvDeviceType::Kv770GnssIns,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return KviSeriesCItem::createItem(id, m);
         }},
        {"legacy tracker", NvDeviceType::LegacyAhrs,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return LegacyTrackerItem::createItem(id, m);
         }},
        {"wireless tracker", NvDeviceType::KvwTracker,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return KvwItem::createItem(id, m);
         }},
        {"master station", NvDeviceType::StationX,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return AerloStationItem::createItem(id, m);
         }},
        {"master dongle", NvDeviceType::DongleX,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return AerloDongleItem::createItem(id, m);
         }},
        {"sync station", NvDeviceType::SyncStation,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return AerloStationItem::createItem(id, m);
         }},
        {"body pack", NvDeviceType::BodyPack,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return BodyPackItem::createItem(id, m);
         }},
        {"glove", NvDeviceType::GloveLeft,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return GloveItem::createItem(id, m);
         }},
        {"iMAR", NvDeviceType::ImarFsas,
         [](const NvDeviceId& id, DeviceModel& m) -> DeviceItem* {
             return ImarItem::createItem(id, m);
         }},
    };
    std::vector<std::pair<QString, QImage>> seen = {
        {QStringLiteral("firmware warning"),
         iconImage(QIcon(QStringLiteral(":/kvmanager/Resources/misc/warning.png")))}};
    for (const auto& [family, type, make] : families) {
        std::unique_ptr<DeviceItem> row(make(NvDeviceId::fromTypeAndSerial(type, 1), model));
        const QImage image = iconImage(row->icon());
        QVERIFY2(!image.isNull(), family);
        for (const auto& [other, otherImage] : seen)
            QVERIFY2(
                image != otherImage,
                qPrintable(QStringLiteral("%1 looks like %2").arg(QLatin1String(family), other)));
        seen.emplace_back(QLatin1String(family), image);
    }
}

void TestDeviceModel::linkHealthTurnsAmberWhenPacketsGoMissing()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:drop=0.3", "--device", "imu", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId lossy = idOfKind(sim, "ahrs");
    const NvDeviceId clean = idOfKind(sim, "imu");
    {
        DeviceModel model(control);
        model.reloadList();
        auto linkOf = [&](const NvDeviceId& id) {
            return childByKey(model, model.index(0, 0, model.getModelIndex(id)),
                              QStringLiteral("Link"))
                .siblingAtColumn(1);
        };
        QVERIFY(control.gotoMeasurement(lossy));
        QVERIFY(control.gotoMeasurement(clean));
        QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
        QTRY_VERIFY_WITH_TIMEOUT(linkOf(lossy).data(Qt::ForegroundRole).isValid(), 10000);
        QTest::qWait(2500);
        QVERIFY2(!linkOf(clean).data(Qt::ForegroundRole).isValid(),
                 qPrintable(linkOf(clean).data().toString()));
        QVERIFY(linkOf(clean).data().toString().contains(QStringLiteral(" Hz, 0 missed")));
        QVERIFY(!linkOf(lossy).data().toString().contains(QStringLiteral(" 0 missed")));
        QVERIFY(model.getModelIndex(lossy)
                    .data(Qt::ToolTipRole)
                    .toString()
                    .contains(QStringLiteral("Missed: ")));
        // The timer touches only the link cells and the device rows' tool tips.
        for (const QList<QVariant>& args : changed) {
            const auto topLeft = args.at(0).value<QModelIndex>();
            const auto roles = args.at(2).value<QList<int>>();
            if (roles.contains(Qt::ForegroundRole))
                QCOMPARE(topLeft.data().toString(), QStringLiteral("Link"));
            else if (!roles.isEmpty())
                QCOMPARE(roles, QList<int>{Qt::ToolTipRole});
            else // the state column follows the measurement
                QCOMPARE(topLeft.column(), int(DeviceModel::StateColumn));
        }
        control.gotoConfig(lossy);
        control.gotoConfig(clean);
    }
    control.close();
}

void TestDeviceModel::masterLinkIsJudgedByItsTrackers()
{
    kvtest::KvsimProcess sim({"--device", "master:2", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId master = idOfKind(sim, "master");
    {
        DeviceModel model(control);
        model.reloadList();
        auto link = [&] {
            return childByKey(model, model.index(0, 0, model.getModelIndex(master)),
                              QStringLiteral("Link"))
                .siblingAtColumn(1);
        };
        // Its radio is off: no tracker sends, and the master is behind on nothing.
        QVERIFY(control.gotoMeasurement(master));
        QTest::qWait(3500); // past the grace a measurement start gets, and a refresh
        QCOMPARE(link().data().toString(), QStringLiteral("no tracker measuring"));
        QVERIFY(!link().data(Qt::ForegroundRole).isValid());
        QVERIFY(control.gotoConfig(master));

        // With the radio on both trackers call in; the master keeps up when they do.
        QVERIFY(control.enableRadio(master, 11));
        QTRY_COMPARE_WITH_TIMEOUT(control.childDeviceIds(master).size(), size_t(2), 15000);
        model.reloadList(); // rows for the trackers
        QVERIFY(control.gotoMeasurement(master));
        QTRY_VERIFY_WITH_TIMEOUT(
            link().data().toString().startsWith(QStringLiteral("2 tracker(s), ")), 5000);
        QTest::qWait(3500);
        const QString text = link().data().toString();
        QVERIFY2(text.contains(QStringLiteral("/200 Hz, 0 missed")), qPrintable(text));
        QVERIFY2(!link().data(Qt::ForegroundRole).isValid(), qPrintable(text));
        QVERIFY(control.linkHealth(master).isHealthy());
        QVERIFY(control.linkHealth(master).packetsPerSecond > 150);
        control.gotoConfig(master);
    }
    control.close();
}

QTEST_MAIN(TestDeviceModel)
#include "tst_devicemodel.moc"
