// The facade and its wrappers against emulated devices: reference counts, the invalid
// device, closing, devices the library destroys, file devices, pausers and link health.
#include "kvsimharness.h"
#include "ndacontrol.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

class TstNdaControl : public QObject
{
    Q_OBJECT

private:
    // Opens every port of `sim` through `control`.
    static void openAll(NdaControl& control, const kvtest::KvsimProcess& sim)
    {
        for (const auto& port : sim.ports())
            QVERIFY2(control.openPort(port.path, NBR_115200, 0),
                     qPrintable(control.lastResultText()));
    }
    static NvDeviceId idOf(const kvtest::KvsimProcess::Port& port)
    {
        return NvDeviceId::fromString(port.id);
    }

private slots:
    void referenceCountsAndTheInvalidDevice()
    {
        kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
        QVERIFY(sim.started());
        NdaControl control;
        openAll(control, sim);
        const NvDeviceId id = idOf(sim.ports()[0]);
        QSignalSpy aboutToCloseDevice(&control, &NdaControl::aboutToCloseDevice);

        NdaDevice& first = control.requestDevice(id);
        NdaDevice& second = control.requestDevice(id);
        QCOMPARE(&first, &second);
        QVERIFY(first.isValid());
        QCOMPARE(control.referenceCount(id), 2u);
        QCOMPARE(first.ndaDeviceState(), NdaDeviceState::ConfigMode);
        QCOMPARE(first.shortProductCode(), QStringLiteral("KV-300"));
        control.releaseDevice(id);
        QVERIFY(control.getExistingDevice(id));
        QCOMPARE(aboutToCloseDevice.count(), 0);
        control.releaseDevice(id);
        QVERIFY(!control.getExistingDevice(id));
        QCOMPARE(aboutToCloseDevice.count(), 1);
        control.releaseDevice(id); // unknown now: nothing happens
        QCOMPARE(aboutToCloseDevice.count(), 1);

        // Invalid and unknown identifiers give the invalid device and count nothing.
        NdaDevice& invalid = control.requestDevice(NvDeviceId());
        QCOMPARE(&invalid, &control.getInvalidDevice());
        QVERIFY(!invalid.isValid());
        QCOMPARE(invalid.ndaDeviceState(), NdaDeviceState::Invalid);
        QVERIFY(!invalid.gotoMeasurement());
        QVERIFY(!invalid.setLocationId(3));
        QCOMPARE(invalid.productCode(), QString());
        QCOMPARE(&control.requestDevice(NvDeviceId::fromString("1300000000009999")), &invalid);
        QCOMPARE(control.referenceCount(NvDeviceId::fromString("1300000000009999")), 0u);
        control.releaseDevice(invalid);
        QCOMPARE(NdaDeviceState::toString(16), QStringLiteral("Error"));
        {
            NdaDeviceRequester requester(control, id);
            QVERIFY(requester.isValid());
            QCOMPARE(control.referenceCount(id), 1u);
        }
        QCOMPARE(control.referenceCount(id), 0u);
        control.close();
    }

    void closeIsNotReenteredAndDestroyedDevicesLeaveTheTable()
    {
        kvtest::KvsimProcess sim({"--device", "imu", "--device", "ahrs:disconnect=2", "--quiet"});
        QVERIFY(sim.started());
        NdaControl control;
        openAll(control, sim);
        const NvDeviceId kept = idOf(sim.ports()[0]), lost = idOf(sim.ports()[1]);
        NdaDevice& keptDevice = control.requestDevice(kept);
        control.requestDevice(lost);
        QVERIFY(control.gotoMeasurementForAll(control.mainDeviceIds()));

        // The unplugged device's wrapper goes, with the signals; the other measures on.
        QSignalSpy destroyed(&control, &NdaControl::deviceDestroyedByNda);
        QSignalSpy errors(&control, &NdaCallback::error);
        QTRY_COMPARE_WITH_TIMEOUT(destroyed.count(), 1, 15000);
        QCOMPARE(destroyed.at(0).at(0).value<NvDeviceId>(), lost);
        QVERIFY(!control.getExistingDevice(lost));
        QVERIFY(errors.count() >= 1);
        QCOMPARE(errors.at(0).at(1).value<NvResultValue>(), NRV_UNEXPECTED_DISCONNECT);
        QVERIFY(keptDevice.isMeasuring());
        QTRY_VERIFY(keptDevice.linkHealth().packets > 20);
        const NdaLinkHealth health = keptDevice.linkHealth();
        QCOMPARE(health.configuredRate, 100);
        QVERIFY(health.msSinceLastPacket >= 0);

        // close() called again from a slot of aboutToClose returns at once.
        int closes = 0;
        connect(&control, &NdaControl::aboutToClose, &control, [&] {
            ++closes;
            control.close();
        });
        QSignalSpy closed(&control, &NdaControl::closed);
        control.close();
        QCOMPARE(closes, 1);
        QCOMPARE(closed.count(), 1);
        QCOMPARE(control.deviceCount(), 0);
        QTRY_VERIFY(!control.getExistingDevice(kept));
    }

    void pausersAndRecordingThroughTheWrapper()
    {
        kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
        QVERIFY(sim.started());
        NdaControl control;
        openAll(control, sim);
        const NvDeviceId id = idOf(sim.ports()[0]);
        NdaDevice& device = control.requestDevice(id);
        {
            NdaMeasurementPauser nothing(control); // nothing measures: nothing to do
            QVERIFY(nothing.pausedDevices().empty());
        }
        QVERIFY(!device.isMeasuring());

        QVERIFY(device.gotoMeasurement());
        QTRY_COMPARE(device.ndaDeviceState(), NdaDeviceState::Measuring);
        {
            NdaMeasurementPauser pauser(control);
            QVERIFY(pauser.isPaused());
            QVERIFY(device.isInConfigMode());
        }
        QVERIFY(NvDevice_isMeasuring(device.libraryDevice()));
        {
            NdaDeviceMeasurementPauser pauser(device);
            QVERIFY(pauser.hasPaused());
            QVERIFY(device.isInConfigMode());
        }
        QVERIFY(NvDevice_isMeasuring(device.libraryDevice()));

        // gotoConfig on a recording device stops the recording first.
        QTemporaryDir dir;
        QVERIFY(device.createLogFile((dir.path() + "/w.kvb").toStdString()));
        QVERIFY(device.startRecording());
        QTRY_COMPARE(device.ndaDeviceState(), NdaDeviceState::Recording);
        QTest::qWait(300);
        QVERIFY(device.gotoConfig());
        QVERIFY(!device.isRecording());
        QTRY_COMPARE(device.ndaDeviceState(), NdaDeviceState::ConfigMode);
        control.close();

        // The recording opens as a file device: file state, no live packets.
        NdaDevice& file = control.requestFileDevice(dir.path() + "/w.kvb");
        QVERIFY(file.isValid());
        QVERIFY(file.isReadingFromFile());
        QCOMPARE(file.ndaDeviceState(), NdaDeviceState::FileMode);
        QCOMPARE(file.connectivityState(), NCS_FILE);
        QSignalSpy completed(&file, &NdaDevice::fileLoadingCompleted);
        QSignalSpy live(&file, &NdaCallback::postProcessed);
        QVERIFY(file.loadLogFile());
        QTRY_COMPARE(completed.count(), 1);
        QVERIFY(file.packetCount() > 10);
        QVERIFY(!file.dataPacketByIndex(0).isEmpty());
        QCOMPARE(live.count(), 0);
        file.setNdaDeviceState(NdaDeviceState::FileModeReady);
        QTRY_COMPARE(file.ndaDeviceState(), NdaDeviceState::FileModeReady);
        file.setNdaDeviceState(NdaDeviceState::ConfigMode); // never back to a live state
        QCoreApplication::processEvents();
        QCOMPARE(file.ndaDeviceState(), NdaDeviceState::FileModeReady);
        QVERIFY(&control.requestFileDevice(dir.path() + "/missing.kvb") ==
                &control.getInvalidDevice());
        control.releaseDevice(file);
        control.close();
    }

    void aPauserReportsAFailedResumeOnceAndOutlivesItsDevice()
    {
        kvtest::KvsimProcess sim({"--device", "imu", "--quiet"});
        QVERIFY(sim.started());
        NdaControl control;
        openAll(control, sim);
        QSignalSpy errors(&control, &NdaCallback::error);
        auto measurementErrors = [&errors] {
            int n = 0;
            for (const auto& args : errors)
                n += args.at(1).value<NvResultValue>() == NRV_COULD_NOT_GO_TO_MEASUREMENT;
            return n;
        };

        // The device stops answering while paused: one "could not go to measurement".
        NdaDeviceRequester frozen(control, idOf(sim.ports()[0]));
        QVERIFY(frozen.device().gotoMeasurement());
        {
            NdaDeviceMeasurementPauser pauser(frozen.device());
            QVERIFY(pauser.hasPaused());
            sim.freeze(true);
        }
        sim.freeze(false);
        QCOMPARE(measurementErrors(), 1);

        // The device goes away while paused, its wrapper with it: nothing to resume.
        kvtest::KvsimProcess lost({"--device", "ahrs:index=1,disconnect=2", "--quiet"});
        QVERIFY(lost.started());
        openAll(control, lost);
        const NvDeviceId lostId = idOf(lost.ports()[0]);
        QSignalSpy destroyed(&control, &NdaControl::deviceDestroyedByNda);
        {
            NdaDevice& device = control.requestDevice(lostId);
            QVERIFY(device.gotoMeasurement());
            NdaDeviceMeasurementPauser pauser(device);
            QVERIFY(pauser.hasPaused());
            QTRY_COMPARE_WITH_TIMEOUT(destroyed.count(), 1, 15000);
            QVERIFY(!control.getExistingDevice(lostId));
        }
        QCOMPARE(measurementErrors(), 1);
        control.close();
    }
};

QTEST_MAIN(TstNdaControl)
#include "tst_ndacontrol.moc"
