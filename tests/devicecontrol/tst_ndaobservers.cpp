// Observers and selections over emulated devices: reference counts, the switch to the
// invalid device when the library destroys a device, and the synchronisation order.
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadeviceobserver.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <vector>

namespace {

NvDeviceId idOf(const kvtest::KvsimProcess::Port& port)
{
    return NvDeviceId::fromString(port.id);
}

bool openAll(NdaControl& control, const kvtest::KvsimProcess& sim)
{
    NvControl_setReplyTimeout(control.libraryControl(), 5000); // loaded machines
    for (const auto& port : sim.ports())
        if (!control.openPort(port.path, NBR_115200, 0))
            return false;
    return true;
}

NvSyncSettingArray oneSetting(NvSyncLine line, NvSyncFunction function)
{
    NvSyncSetting setting;
    setting.line = line;
    setting.function = function;
    return {setting};
}

} // namespace

class TestNdaObservers : public QObject
{
    Q_OBJECT

private slots:
    void observerCountsItsDeviceAndLetsGoWhenTheLibraryDestroysIt();
    void observerSwitchesDevicesWithoutLosingCounts();
    void selectionIsSortedBySyncRoleAndCopiesKeepCounts();
};

void TestNdaObservers::observerCountsItsDeviceAndLetsGoWhenTheLibraryDestroysIt()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control; // goes before the emulator
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId id = idOf(sim.ports()[0]);
    QCOMPARE(control.referenceCount(id), 0u);

    auto observer = std::make_unique<NdaDeviceObserver>(control, id);
    QVERIFY(observer->isDeviceValid());
    QCOMPARE(observer->deviceId(), id);
    QVERIFY(!observer->productCode().isEmpty());
    QCOMPARE(control.referenceCount(id), 1u);
    {
        NdaDeviceObserverWidget widget(control, id);
        NdaDeviceObserver fromDevice(control, observer->device());
        QCOMPARE(&fromDevice.device(), &observer->device());
        QCOMPARE(control.referenceCount(id), 3u);
    }
    QCOMPARE(control.referenceCount(id), 1u);
    NdaDeviceObserverDialog dialog(control, id);
    QCOMPARE(control.referenceCount(id), 2u);

    QSignalSpy destroyed(observer.get(), &NdaDeviceObserver::observerDestroyed);
    QSignalSpy dialogDestroyed(&dialog, &NdaDeviceObserverDialog::observerDestroyed);
    // When the control drops the wrapper the observer has let go of it, but hears of it
    // only from the event loop, not inside the wrapper's deletion.
    int heardAtDeletion = -1;
    bool validAtDeletion = true;
    connect(&control, &NdaControl::deviceDestroyedByNda, this, [&](const NvDeviceId& gone) {
        if (gone != id)
            return;
        heardAtDeletion = destroyed.size();
        validAtDeletion = observer->isDeviceValid();
    });

    QVERIFY(control.closePort(id));
    QTRY_COMPARE(destroyed.size(), 1);
    QCOMPARE(heardAtDeletion, 0);
    QVERIFY(!validAtDeletion);
    QCOMPARE(destroyed.at(0).at(0).value<NvDeviceId>(), id);
    QCOMPARE(destroyed.at(0).at(1).value<NdaDeviceObserver*>(), observer.get());
    QCOMPARE(observer->devicePtr(), &control.getInvalidDevice());
    QVERIFY(!observer->isDeviceValid());
    QVERIFY(observer->deviceId().isEmpty());
    QTRY_COMPARE(dialogDestroyed.size(), 1);
    QCOMPARE(control.referenceCount(id), 0u);
    QVERIFY(control.getExistingDevice(id) == nullptr);

    QTest::qWait(100);
    QCOMPARE(destroyed.size(), 1);
    QCOMPARE(dialogDestroyed.size(), 1);
    observer.reset(); // nothing left to release
    QCOMPARE(control.referenceCount(id), 0u);
}

void TestNdaObservers::observerSwitchesDevicesWithoutLosingCounts()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--device", "imu", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId a = idOf(sim.ports()[0]), b = idOf(sim.ports()[1]);
    const NvDeviceId unknown = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv710Imu, 4242);

    NdaDeviceObserver observer(control, unknown);
    QVERIFY(!observer.isDeviceValid());
    QCOMPARE(observer.devicePtr(), &control.getInvalidDevice());
    QCOMPARE(control.referenceCount(unknown), 0u);

    observer.setDevice(a);
    QVERIFY(observer.isDeviceValid());
    QCOMPARE(control.referenceCount(a), 1u);
    observer.setDevice(a); // the same device: its wrapper survives the switch
    QCOMPARE(control.referenceCount(a), 1u);
    NdaDevice* wrapperOfA = control.getExistingDevice(a);
    QCOMPARE(observer.devicePtr(), wrapperOfA);

    {
        NdaDeviceRequester holdB(control, b);
        observer.setDevice(holdB.device());
        QCOMPARE(control.referenceCount(a), 0u);
        QVERIFY(control.getExistingDevice(a) == nullptr);
        QCOMPARE(control.referenceCount(b), 2u);
    }
    QCOMPARE(control.referenceCount(b), 1u);
    QCOMPARE(observer.deviceId(), b);

    // A closed-device notice for a device the observer no longer follows changes nothing.
    QSignalSpy destroyed(&observer, &NdaDeviceObserver::observerDestroyed);
    observer.handleDeviceClosed(a);
    QCOMPARE(observer.deviceId(), b);
    QCOMPARE(control.referenceCount(b), 1u);
    QCOMPARE(destroyed.size(), 0);
    // One for the device it follows lets go of it.
    observer.handleDeviceClosed(b);
    QCOMPARE(destroyed.size(), 1);
    QVERIFY(!observer.isDeviceValid());
    QCOMPARE(control.referenceCount(b), 0u);

    observer.setDevice(NvDeviceId());
    QCOMPARE(observer.devicePtr(), &control.getInvalidDevice());
}

void TestNdaObservers::selectionIsSortedBySyncRoleAndCopiesKeepCounts()
{
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "imu", "--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    std::vector<NvDeviceId> ids;
    for (const auto& port : sim.ports())
        ids.push_back(idOf(port));
    // Roles: the first follows a trigger (0), the last gives one (2), the others neither (1).
    QVERIFY2(control.setSyncSettings(ids[0], oneSetting(NSL_IN1, NSF_TRIGGER_INDICATION)),
             qPrintable(control.lastResultText()));
    QVERIFY2(
        control.setSyncSettings(ids[3], oneSetting(NSL_OUT1, NSF_INTERVAL_TRANSITION_MEASUREMENT)),
        qPrintable(control.lastResultText()));
    const NvDeviceId unknown = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv710Imu, 4242);

    // Added last-first, so the order below is not the order of adding.
    NdaDeviceSelection selection(control);
    selection.addToSelection(unknown);
    for (auto it = ids.rbegin(); it != ids.rend(); ++it)
        selection.addToSelection(*it);
    selection.addToSelection(ids[1]); // once per identifier
    QCOMPARE(selection.size(), size_t(4));
    QVERIFY(!selection.contains(unknown));
    for (const NvDeviceId& id : ids)
        QCOMPARE(control.referenceCount(id), 1u);

    const std::vector<NdaDevice*> devices = selection.getDevices();
    QCOMPARE(devices.size(), size_t(4));
    std::vector<int> roles;
    for (NdaDevice* device : devices)
        roles.push_back(device->syncRole());
    QCOMPARE(roles, (std::vector<int>{0, 1, 1, 2}));
    QCOMPARE(devices.front()->deviceId(), ids[0]);
    QCOMPARE(devices.back()->deviceId(), ids[3]);
    QVERIFY(devices[1]->deviceId() < devices[2]->deviceId());
    QVERIFY(NdaDeviceSelection::leftIsSlaverThanRight(devices[0], devices[1]));
    QVERIFY(!NdaDeviceSelection::leftIsSlaverThanRight(devices[1], devices[2]));

    {
        NdaDeviceSelection copy(selection);
        QCOMPARE(copy.size(), size_t(4));
        for (const NvDeviceId& id : ids)
            QCOMPARE(control.referenceCount(id), 2u);
        NdaDeviceSelection assigned =
            control.requestDeviceSelection(NvDeviceIdArray{ids[0], ids[1]});
        QCOMPARE(control.referenceCount(ids[0]), 3u);
        assigned = copy;
        const NdaDeviceSelection& same = assigned;
        assigned = same; // self-assignment keeps the counts
        QCOMPARE(assigned.size(), size_t(4));
        for (const NvDeviceId& id : ids)
            QCOMPARE(control.referenceCount(id), 3u);
        copy.removeFromSelection(ids[2]);
        copy.removeFromSelection(ids[2]);
        QCOMPARE(control.referenceCount(ids[2]), 2u);
    }
    for (const NvDeviceId& id : ids)
        QCOMPARE(control.referenceCount(id), 1u);

    // The last release deletes the wrapper.
    selection.removeFromSelection(ids[2]);
    QVERIFY(control.getExistingDevice(ids[2]) == nullptr);
    {
        NdaDeviceSelection moved = selection;
        selection = NdaDeviceSelection(control);
        QVERIFY(selection.isEmpty());
        QCOMPARE(control.referenceCount(ids[0]), 1u);
    }
    for (const NvDeviceId& id : ids)
        QCOMPARE(control.referenceCount(id), 0u);
}

QTEST_MAIN(TestNdaObservers)
#include "tst_ndaobservers.moc"
