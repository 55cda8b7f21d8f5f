// The view manager against emulated devices: permissions, counts, delayed and closing
// events, toggles, and views following their device away.

#include "kvsimharness.h"
#include "messageviewers.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"
#include "viewmanager.h"

#include <QApplication>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using kvtest::idOfKind;

namespace {

// The registration the main window makes.
void registerViews(ViewManager& vm)
{
    const auto notContainer = [](const NvDeviceId& id) { return !id.isContainer(); };
    for (ViewType t : {ThreeDView, InertialView, OrientationView, StatusView, PressureView,
                       TemperatureView, FreeAccelerationView})
        vm.allowView(t, notContainer);
    for (ViewType t : {PositionView, AltitudeView, VelocityView, GnssSatInfoView, UtcDateTimeView})
        vm.allowView(t, &NvDeviceId::isGnss);
    vm.allowView(NdaMessageView);
    vm.allowView(DeviceMessageView);
}

} // namespace

class TestViewManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void permissionsFollowTheRegistration();
    void gnssViewForADeviceWithoutGnssDoesNothing();
    void countsRiseOneByOneAndOperationsAreReported();
    void reopeningWhileClosingIsRefused();
    void delayedOpenTakesEffectOnTheFourthDelivery();
    void delayedCloseAndSpreadOpens();
    void userClosingASubWindowErasesTheView();
    void togglesOpenForTheChosenDevicesAndCloseAll();
    void closeAndReopenGivesAFreshViewer();
    void closingADeviceClosesItsViews();
    void messageViewsShowWhatTheDeviceAndLibrarySay();

private:
    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    std::unique_ptr<NdaControl> m_control;
    std::unique_ptr<QMdiArea> m_area;
    std::unique_ptr<ViewManager> m_vm;
    NvDeviceId m_ahrs, m_gnss, m_master;
    QTemporaryDir m_settings;
};

void TestViewManager::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvViewsTest"));
    qRegisterMetaType<NvDeviceId>();
    m_sim = std::make_unique<kvtest::KvsimProcess>(std::vector<std::string>{
        "--device", "ahrs", "--device", "gnss", "--device", "master:1", "--quiet"});
    QVERIFY(m_sim->started());
    m_ahrs = idOfKind(*m_sim, "ahrs");
    m_gnss = idOfKind(*m_sim, "gnss");
    m_master = idOfKind(*m_sim, "master");
    QVERIFY(!m_ahrs.isEmpty() && !m_gnss.isEmpty() && !m_master.isEmpty());
}

void TestViewManager::init()
{
    m_control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000);
    for (const auto& port : m_sim->ports())
        QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
    m_area = std::make_unique<QMdiArea>();
    m_area->resize(1000, 700);
    m_area->show();
    m_vm = std::make_unique<ViewManager>(*m_control, *m_area);
    registerViews(*m_vm);
}

void TestViewManager::cleanup()
{
    m_vm.reset();
    m_area.reset();
    m_control.reset();
}

void TestViewManager::cleanupTestCase()
{
    m_sim.reset();
}

void TestViewManager::permissionsFollowTheRegistration()
{
    QVERIFY(m_vm->viewAllowed(m_ahrs, InertialView));
    QVERIFY(!m_vm->viewAllowed(m_ahrs, PositionView));
    QVERIFY(m_vm->viewAllowed(m_gnss, PositionView));
    QVERIFY(m_vm->viewAllowed(m_gnss, ThreeDView));
    // A master carries no data of its own, but says things.
    QVERIFY(!m_vm->viewAllowed(m_master, InertialView));
    QVERIFY(m_vm->viewAllowed(m_master, DeviceMessageView));
    QVERIFY(m_vm->viewAllowed(m_master, NdaMessageView));

    // Nothing registered: nothing allowed.
    ViewManager bare(*m_control, *m_area);
    QVERIFY(!bare.viewAllowed(m_ahrs, DeviceMessageView));
    bare.openView(DeviceMessageView, m_ahrs);
    QCOMPARE(bare.viewCountInfo(), 0u);
}

void TestViewManager::gnssViewForADeviceWithoutGnssDoesNothing()
{
    QSignalSpy constructing(m_vm.get(), &ViewManager::beforeConstructingView);
    QSignalSpy counts(m_vm.get(), &ViewManager::viewTypeCountChanged);
    QSignalSpy started(m_vm.get(), qOverload<ViewManager::ViewOperation::Type, ViewType>(
                                       &ViewManager::viewOperationStarted));
    m_vm->openView(PositionView, m_ahrs);
    m_vm->openView(static_cast<ViewType>(14), m_ahrs); // outside the table
    m_vm->openView(static_cast<ViewType>(-1), m_ahrs);
    QCOMPARE(constructing.count(), 0);
    QCOMPARE(counts.count(), 0);
    QCOMPARE(started.count(), 0);
    QCOMPARE(m_vm->viewCountInfo(), 0u);
    QCOMPARE(m_area->subWindowList().size(), 0);
}

void TestViewManager::countsRiseOneByOneAndOperationsAreReported()
{
    QSignalSpy counts(m_vm.get(), &ViewManager::viewTypeCountChanged);
    QSignalSpy order(m_vm.get(), &ViewManager::afterOpeningView);
    QSignalSpy startedById(m_vm.get(),
                           qOverload<ViewManager::ViewOperation::Type, ViewType, const NvDeviceId&>(
                               &ViewManager::viewOperationStarted));
    QSignalSpy completed(m_vm.get(), qOverload<ViewManager::ViewOperation::Type, ViewType>(
                                         &ViewManager::viewOperationCompleted));
    m_vm->openView(DeviceMessageView, m_ahrs);
    m_vm->openView(DeviceMessageView, m_gnss);
    QCOMPARE(counts.count(), 2);
    QCOMPARE(counts[0][1].toUInt(), 0u);
    QCOMPARE(counts[0][2].toUInt(), 1u);
    QCOMPARE(counts[1][1].toUInt(), 1u);
    QCOMPARE(counts[1][2].toUInt(), 2u);
    QCOMPARE(order.count(), 2);
    QCOMPARE(startedById.count(), 2);
    QCOMPARE(completed.count(), 2);
    QVERIFY(
        !m_vm->isOperationInProgress(ViewManager::ViewOperation::Open, DeviceMessageView, m_ahrs));

    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView), 2u);
    QCOMPARE(m_vm->viewCountInfo(m_ahrs), 1u);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_gnss), 1u);
    QCOMPARE(m_vm->findViews(DeviceMessageView).size(), 2);
    QVERIFY(m_vm->lookup(DeviceMessageView, m_ahrs));
    QVERIFY(!m_vm->lookup(InertialView, m_ahrs));
    // Each view sits in its own sub-window titled after the view and the device.
    QCOMPARE(m_area->subWindowList().size(), 2);
    const auto viewer = m_vm->viewList(DeviceMessageView, m_ahrs).first();
    QCOMPARE(m_vm->subWindow(viewer.data())->windowTitle(),
             QStringLiteral("Device Messages - %1").arg(QString::fromStdString(m_ahrs.toString())));
}

void TestViewManager::reopeningWhileClosingIsRefused()
{
    m_vm->openView(NdaMessageView, m_ahrs);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView, m_ahrs), 1u);
    QSignalSpy counts(m_vm.get(), &ViewManager::viewTypeCountChanged);
    m_vm->closeViews(NdaMessageView, m_ahrs);
    // Not torn down inside the caller's stack...
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView, m_ahrs), 1u);
    QVERIFY(m_vm->isOperationInProgress(ViewManager::ViewOperation::Close, NdaMessageView, m_ahrs));
    QVERIFY(!m_vm->viewAllowed(m_ahrs, NdaMessageView));
    // ...and not to be opened again meanwhile.
    m_vm->openView(NdaMessageView, m_ahrs);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView, m_ahrs), 1u);
    QCOMPARE(counts.count(), 0);

    QTRY_COMPARE(m_vm->viewCountInfo(NdaMessageView, m_ahrs), 0u);
    QCOMPARE(counts.count(), 1);
    QCOMPARE(counts[0][2].toUInt(), 0u);
    QCOMPARE(m_area->subWindowList().size(), 0);
    QVERIFY(m_vm->viewAllowed(m_ahrs, NdaMessageView));
    m_vm->openView(NdaMessageView, m_ahrs);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView, m_ahrs), 1u);
}

void TestViewManager::delayedOpenTakesEffectOnTheFourthDelivery()
{
    m_vm->openViewsLater(DeviceMessageView, m_ahrs, 3);
    for (int delivery = 1; delivery <= 3; ++delivery) {
        QCoreApplication::sendPostedEvents(m_vm.get(),
                                           ViewManager::ChangeViewStateEvent::eventType);
        QVERIFY2(m_vm->viewCountInfo(DeviceMessageView, m_ahrs) == 0,
                 qPrintable(QStringLiteral("open after delivery %1").arg(delivery)));
    }
    QCoreApplication::sendPostedEvents(m_vm.get(), ViewManager::ChangeViewStateEvent::eventType);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_ahrs), 1u);
}

void TestViewManager::delayedCloseAndSpreadOpens()
{
    ViewManager::DelayMap delays{{m_ahrs, 0}, {m_gnss, 2}};
    m_vm->openViewsLater({{DeviceMessageView, delays}, {NdaMessageView, delays}},
                         {DeviceMessageView});
    QCoreApplication::sendPostedEvents(m_vm.get(), ViewManager::ChangeViewStateEvent::eventType);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_ahrs), 1u);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_gnss), 0u);
    QTRY_COMPARE(m_vm->viewCountInfo(DeviceMessageView, m_gnss), 1u);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView), 0u); // not among the chosen types

    m_vm->changeViewStateLater(DeviceMessageView, m_ahrs, false, 1);
    QCoreApplication::sendPostedEvents(m_vm.get(), ViewManager::ChangeViewStateEvent::eventType);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_ahrs), 1u);
    QTRY_COMPARE(m_vm->viewCountInfo(DeviceMessageView, m_ahrs), 0u);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_gnss), 1u);
}

void TestViewManager::userClosingASubWindowErasesTheView()
{
    m_vm->openView(DeviceMessageView, m_ahrs);
    m_vm->openView(DeviceMessageView, m_gnss);
    QSignalSpy byUser(m_vm.get(), &ViewManager::viewClosedByUser);
    QPointer<QMdiSubWindow> window =
        m_vm->subWindow(m_vm->viewList(DeviceMessageView, m_ahrs).first().data());
    QVERIFY(window);
    window->close();
    QCOMPARE(byUser.count(), 1);
    QCOMPARE(byUser[0][1].value<NvDeviceId>(), m_ahrs);
    QTRY_VERIFY(window.isNull());
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView), 1u);
    QCOMPARE(m_vm->viewCountInfo(DeviceMessageView, m_gnss), 1u);
}

void TestViewManager::togglesOpenForTheChosenDevicesAndCloseAll()
{
    QSignalSpy toggled(m_vm.get(), &ViewManager::viewTypeToggled);
    m_vm->setDevices({m_ahrs, m_master});
    m_vm->toggleViews(NdaMessageView, true);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView), 2u);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView, m_gnss), 0u);
    QCOMPARE(toggled.count(), 1);
    QCOMPARE(toggled[0][2].value<ViewManager::ViewerList>().size(), 2);
    // Toggling on again opens no second view per device.
    m_vm->toggleViews(NdaMessageView, true);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView), 2u);

    m_vm->toggleViews(NdaMessageView, false);
    QCOMPARE(toggled.last()[1].toBool(), false);
    QCOMPARE(toggled.last()[2].value<ViewManager::ViewerList>().size(), 2);
    QTRY_COMPARE(m_vm->viewCountInfo(NdaMessageView), 0u);

    // No selection: every open device that may show the view.
    m_vm->setDevices({});
    m_vm->toggleViews(InertialView, true);
    QCOMPARE(m_vm->viewCountInfo(InertialView, m_master), 0u);
    QVERIFY(m_vm->viewCountInfo(InertialView, m_ahrs) <= 1u); // once the graph class exists
}

void TestViewManager::closeAndReopenGivesAFreshViewer()
{
    m_vm->setAutoTile(true);
    m_vm->openView(NdaMessageView, m_ahrs);
    m_vm->openView(NdaMessageView, m_gnss);
    const PacketViewer* before = m_vm->viewList(NdaMessageView, m_ahrs).first().data();
    QSignalSpy counts(m_vm.get(), &ViewManager::viewTypeCountChanged);
    m_vm->closeAndReopenViews(NdaMessageView, m_ahrs);
    QCOMPARE(m_vm->viewCountInfo(NdaMessageView, m_ahrs), 1u);
    QVERIFY(m_vm->viewList(NdaMessageView, m_ahrs).first().data() != before);
    QCOMPARE(counts.count(), 2); // down and up again
    // Tiled: the two windows share the area side by side, none overlaps the other.
    const auto windows = m_area->subWindowList();
    QCOMPARE(windows.size(), 2);
    QVERIFY(!windows[0]->geometry().intersects(windows[1]->geometry()));

    m_vm->clearViews();
    QCOMPARE(m_vm->viewCountInfo(), 0u);
    QCOMPARE(m_area->subWindowList().size(), 0);
}

void TestViewManager::closingADeviceClosesItsViews()
{
    m_vm->openView(DeviceMessageView, m_ahrs);
    m_vm->openView(NdaMessageView, m_ahrs);
    m_vm->openView(DeviceMessageView, m_gnss);
    QCOMPARE(m_vm->viewCountInfo(), 3u);
    QVERIFY(m_control->closePort(m_ahrs));
    QTRY_COMPARE(m_vm->viewCountInfo(m_ahrs), 0u);
    QCOMPARE(m_vm->viewCountInfo(m_gnss), 1u);
    QCOMPARE(m_area->subWindowList().size(), 1);
    // The views held the device: with them gone, nobody does.
    QTRY_COMPARE(m_control->referenceCount(m_ahrs), 0u);
}

void TestViewManager::messageViewsShowWhatTheDeviceAndLibrarySay()
{
    m_vm->openView(NdaMessageView, m_ahrs);
    auto* nda =
        qobject_cast<NDAMessageDataViewer*>(m_vm->viewList(NdaMessageView, m_ahrs).first().data());
    QVERIFY(nda);
    NdaDevice* device = m_control->getExistingDevice(m_ahrs);
    QVERIFY(device);
    emit device->error(m_ahrs, static_cast<NvResultValue>(42));
    QVERIFY(nda->lines().last().contains(QStringLiteral("Error 42")));
    nda->setPaused(true);
    emit device->samplesMissed(m_ahrs, 3);
    QVERIFY(!nda->lines().last().contains(QStringLiteral("missed")));
    nda->setPaused(false);
    QVERIFY(nda->lines().last().contains(QStringLiteral("3 sample(s) missed")));
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("messages.txt"));
    QVERIFY(nda->saveTo(file));
    QFile saved(file);
    QVERIFY(saved.open(QIODevice::ReadOnly));
    QVERIFY(saved.readAll().contains("Error 42"));
    QString error;
    QVERIFY(!nda->saveTo(dir.filePath(QStringLiteral("no/such/folder/m.txt")), &error));
    QVERIFY(!error.isEmpty());

    // A request the device answers with a message of its own shows in its message view.
    m_vm->openView(DeviceMessageView, m_ahrs);
    auto* own = qobject_cast<DeviceMessageDataViewer*>(
        m_vm->viewList(DeviceMessageView, m_ahrs).first().data());
    QVERIFY(own);
    const NvMessage reply(0xFF, 0x43, NvByteArray{0x04});
    emit device->nonDataMessage(m_ahrs, reply);
    QVERIFY(own->lines().last().contains(QStringLiteral("(0x43), 1 bytes: ")));
}

QTEST_MAIN(TestViewManager)
#include "tst_viewmanager.moc"
