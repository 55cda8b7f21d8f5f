// The device controller and the measurement starter against kvsim devices: group order by
// synchronisation role, the measuring count, recordings, starts that succeed and fail.

#include "devicecontroller.h"
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndameasurementstarterworker.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

constexpr int WaitMs = 15000;

// Names files in a folder of the test; an existing name gets a number, as the window's does.
class TestHost : public DeviceControllerHost
{
public:
    explicit TestHost(const QString& folder) : m_folder(folder) {}

    QString generateLogFileName(const NvDeviceId& id) override
    {
        return QDir(m_folder).filePath(QString::fromStdString(id.toString()) +
                                       QStringLiteral(".kvb"));
    }
    QString checkExistingFilename(const QString& name) override
    {
        QString candidate = name;
        const QFileInfo info(name);
        for (int n = 1; QFileInfo::exists(candidate); ++n)
            candidate = info.dir().filePath(
                QStringLiteral("%1_%2.%3").arg(info.completeBaseName()).arg(n).arg(info.suffix()));
        return candidate;
    }
    void onOpenFileFailed(QIODevice::OpenMode mode, const QString& name) override
    {
        failures.push_back({mode, name});
    }

    std::vector<std::pair<QIODevice::OpenMode, QString>> failures;

private:
    QString m_folder;
};

NvDeviceId idOf(const kvtest::KvsimProcess::Port& port)
{
    return NvDeviceId::fromString(port.id);
}

bool openAll(NdaControl& control, const kvtest::KvsimProcess& sim)
{
    for (const kvtest::KvsimProcess::Port& port : sim.ports())
        if (!control.openPort(port.path, NBR_115200, 0))
            return false;
    return true;
}

QStringList kvbFiles(const QString& folder)
{
    return QDir(folder).entryList({QStringLiteral("*.kvb")}, QDir::Files, QDir::Name);
}

} // namespace

class TestDeviceController : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void groupsFollowTheSyncRoleAndTheCountFollowsTheStates();
    void startRecordingTwiceMakesOneFile();
    void measurementStarterConfirmsOrFailsAtOnce();
    void modeChangesRunOffTheGuiThreadInTheOrderAsked();
};

void TestDeviceController::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("NivraTest"));
    QCoreApplication::setApplicationName(
        QStringLiteral("tst_devicecontroller-%1").arg(QCoreApplication::applicationPid()));
}

void TestDeviceController::init()
{
    QSettings().clear();
}

void TestDeviceController::cleanupTestCase()
{
    QSettings settings;
    settings.clear();
    settings.sync();
    QFile::remove(settings.fileName());
}

void TestDeviceController::groupsFollowTheSyncRoleAndTheCountFollowsTheStates()
{
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "gnss", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));

    NvDeviceIdArray ids;
    for (const auto& port : sim.ports())
        ids.push_back(idOf(port));
    std::sort(ids.begin(), ids.end());
    // Against the order of the identifiers: the highest follows a signal (an input line),
    // the lowest gives one (an output line), the middle one has none.
    NvSyncSetting input;
    input.line = NSL_IN1;
    input.function = NSF_TRIGGER_INDICATION;
    NvSyncSetting output;
    output.line = NSL_OUT1;
    output.function = NSF_INTERVAL_TRANSITION_MEASUREMENT;
    QVERIFY2(control.setSyncSettings(ids[2], {input}), qPrintable(control.lastResultText()));
    QVERIFY2(control.setSyncSettings(ids[0], {output}), qPrintable(control.lastResultText()));
    const NvDeviceIdArray forward{ids[2], ids[1], ids[0]};
    const NvDeviceIdArray backward{ids[0], ids[1], ids[2]};
    {
        NdaDeviceSelection selection = control.requestDeviceSelection(ids);
        const std::vector<NdaDevice*> devices = selection.getDevices();
        QCOMPARE(devices.size(), size_t(3));
        for (size_t i = 0; i < 3; ++i)
            QCOMPARE(devices[i]->deviceId(), forward[i]);
        QVERIFY(devices[0]->syncRole() < devices[1]->syncRole());
        QVERIFY(devices[1]->syncRole() < devices[2]->syncRole());
    }

    QTemporaryDir folder;
    TestHost host(folder.path());
    DeviceController controller(host, control);
    QCOMPARE(&controller.kvManager(), static_cast<DeviceControllerHost*>(&host));
    QCOMPARE(&controller.control(), &control);
    QCOMPARE(controller.numberOfMeasuringDevices(), size_t(0));

    NvDeviceIdArray toMeasuring, toConfig;
    connect(&control, &NdaControl::deviceStateChange, this,
            [&](const NvDeviceId& id, NdaDeviceState::Type newState, NdaDeviceState::Type) {
                if (newState == NdaDeviceState::Measuring)
                    toMeasuring.push_back(id);
                else if (newState == NdaDeviceState::ConfigMode)
                    toConfig.push_back(id);
            });
    QSignalSpy counts(&controller, &DeviceController::numberOfMeasuringDevicesChanged);
    auto countPairs = [&counts] {
        std::vector<std::pair<size_t, size_t>> out;
        for (const QList<QVariant>& args : counts)
            out.emplace_back(args.at(0).value<size_t>(), args.at(1).value<size_t>());
        counts.clear();
        return out;
    };
    using Pairs = std::vector<std::pair<size_t, size_t>>;

    QVERIFY(controller.gotoMeasurement(ids));
    QTRY_COMPARE_WITH_TIMEOUT(toMeasuring.size(), size_t(3), WaitMs);
    QCOMPARE(toMeasuring, forward);
    QTRY_COMPARE_WITH_TIMEOUT(counts.count(), 3, WaitMs);
    QCOMPARE(countPairs(), (Pairs{{0, 1}, {1, 2}, {2, 3}}));
    QCOMPARE(controller.numberOfMeasuringDevices(), size_t(3));

    QVERIFY(controller.gotoConfig(ids));
    QTRY_COMPARE_WITH_TIMEOUT(toConfig.size(), size_t(3), WaitMs);
    QCOMPARE(toConfig, backward);
    QTRY_COMPARE_WITH_TIMEOUT(counts.count(), 3, WaitMs);
    QCOMPARE(countPairs(), (Pairs{{3, 2}, {2, 1}, {1, 0}}));

    // All main devices, and a device that goes away is no longer counted.
    toMeasuring.clear();
    QVERIFY(controller.gotoMeasurementAll());
    QTRY_COMPARE_WITH_TIMEOUT(toMeasuring.size(), size_t(3), WaitMs);
    QCOMPARE(toMeasuring, forward);
    QTRY_COMPARE_WITH_TIMEOUT(controller.numberOfMeasuringDevices(), size_t(3), WaitMs);
    countPairs();
    QVERIFY(control.closePort(ids[1]));
    QTRY_COMPARE_WITH_TIMEOUT(controller.numberOfMeasuringDevices(), size_t(2), WaitMs);
    QCOMPARE(countPairs(), (Pairs{{3, 2}}));
    QVERIFY(controller.gotoConfigAll());
    QTRY_COMPARE_WITH_TIMEOUT(controller.numberOfMeasuringDevices(), size_t(0), WaitMs);
    QCOMPARE(countPairs(), (Pairs{{2, 1}, {1, 0}}));
    QVERIFY(host.failures.empty());
}

void TestDeviceController::startRecordingTwiceMakesOneFile()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    const NvDeviceId id = idOf(sim.ports()[0]);

    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    TestHost host(folder.path());
    DeviceController controller(host, control);
    NdaDeviceRequester requester(control, id);
    NdaDevice& device = requester.device();
    QVERIFY(device.isValid());

    QVERIFY(controller.gotoMeasurement(device));
    QTRY_VERIFY_WITH_TIMEOUT(device.isMeasuring(), WaitMs);

    // With the filter reset the measurement restarts (through configuration) first.
    QSettings().setValue(QStringLiteral("advanced/filterresetbeforerecording"), true);
    std::vector<NdaDeviceState::Type> states;
    connect(&control, &NdaControl::deviceStateChange, this,
            [&](const NvDeviceId& changed, NdaDeviceState::Type newState, NdaDeviceState::Type) {
                if (changed == id)
                    states.push_back(newState);
            });

    QVERIFY(controller.startRecording(device));
    QVERIFY(device.isRecording());
    QVERIFY(controller.startRecording(device)); // at once: waiting for the first packet
    QTRY_VERIFY_WITH_TIMEOUT(
        std::find(states.begin(), states.end(), NdaDeviceState::Recording) != states.end(), WaitMs);
    QVERIFY(controller.startRecording(device)); // and while it records
    QCOMPARE(kvbFiles(folder.path()),
             QStringList{QString::fromStdString(id.toString()) + QStringLiteral(".kvb")});
    QVERIFY(host.failures.empty());
    const auto config = std::find(states.begin(), states.end(), NdaDeviceState::ConfigMode);
    QVERIFY(config != states.end());
    QVERIFY(std::find(config, states.end(), NdaDeviceState::Measuring) != states.end());

    QVERIFY(controller.stopRecording(NvDeviceIdArray{id}));
    QTRY_VERIFY_WITH_TIMEOUT(!device.isRecording(), WaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(NvDevice_isMeasuring(device.libraryDevice()), WaitMs);
    QVERIFY(QFileInfo(folder.filePath(kvbFiles(folder.path()).first())).size() > 0);

    // The next recording gets a file of its own; abortFlushing ends it and measures again.
    QSettings().setValue(QStringLiteral("advanced/filterresetbeforerecording"), false);
    states.clear();
    QVERIFY(controller.startRecording(device));
    QCOMPARE(kvbFiles(folder.path()).size(), 2);
    QTRY_VERIFY_WITH_TIMEOUT(
        std::find(states.begin(), states.end(), NdaDeviceState::Recording) != states.end(), WaitMs);
    QVERIFY(std::find(states.begin(), states.end(), NdaDeviceState::ConfigMode) == states.end());
    QVERIFY(controller.abortFlushingAll());
    QTRY_VERIFY_WITH_TIMEOUT(!device.isRecording(), WaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(NvDevice_isMeasuring(device.libraryDevice()), WaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(std::find(states.begin(), states.end(), NdaDeviceState::ConfigMode) !=
                                 states.end(),
                             WaitMs);

    // A file that cannot be made is the window's to report, and nothing records.
    TestHost badHost(folder.filePath(QStringLiteral("missing/folder")));
    DeviceController badController(badHost, control);
    QVERIFY(!badController.startRecording(device));
    QCOMPARE(badHost.failures.size(), size_t(1));
    QCOMPARE(badHost.failures[0].first, QIODevice::OpenMode(QIODevice::WriteOnly));
    QVERIFY(!device.isRecording());
    QVERIFY(controller.gotoConfig(device));
}

void TestDeviceController::measurementStarterConfirmsOrFailsAtOnce()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--device", "imu", "--quiet"});
    kvtest::KvsimProcess gone({"--device", "gnss", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    QVERIFY2(gone.started(), gone.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    QVERIFY2(openAll(control, gone), qPrintable(control.lastResultText()));
    const NvDeviceId liveId = idOf(sim.ports()[0]);
    const NvDeviceId recordedId = idOf(sim.ports()[1]);
    const NvDeviceId goneId = idOf(gone.ports()[0]);

    QThread thread;
    thread.start();
    const auto stopThread = qScopeGuard([&thread] {
        thread.quit();
        thread.wait();
    });
    auto runOnThread = [&](NdaMeasurementStarterWorker& worker) {
        worker.moveToThread(&thread);
        QMetaObject::invokeMethod(&worker, &NdaMeasurementStarterWorker::doWork,
                                  Qt::QueuedConnection);
    };
    // Back before it is deleted here.
    auto bringBack = [](NdaMeasurementStarterWorker& worker) {
        QThread* gui = QThread::currentThread();
        QMetaObject::invokeMethod(
            &worker, [&worker, gui] { worker.moveToThread(gui); }, Qt::BlockingQueuedConnection);
    };
    std::vector<NvDeviceId> failedToMeasure;
    connect(&control, &NdaControl::error, this, [&](const NvDeviceId& id, NvResultValue result) {
        if (result == NRV_COULD_NOT_GO_TO_MEASUREMENT)
            failedToMeasure.push_back(id);
    });

    {
        NdaMeasurementStarterWorker worker(control, liveId);
        QSignalSpy started(&worker, &NdaMeasurementStarterWorker::started);
        QSignalSpy completed(&worker, &NdaMeasurementStarterWorker::completed);
        runOnThread(worker);
        QTRY_COMPARE_WITH_TIMEOUT(completed.count(), 1, WaitMs);
        QCOMPARE(started.count(), 1);
        QCOMPARE(completed.at(0).at(0).toBool(), true);
        QVERIFY(worker.getResult());
        QVERIFY(NvDevice_isMeasuring(worker.device().libraryDevice()));
        QTRY_COMPARE_WITH_TIMEOUT(worker.device().ndaDeviceState(), NdaDeviceState::Measuring,
                                  WaitMs);
        bringBack(worker);
    }

    // A device read from a recording refuses the mode change: the wrapper reports error 305
    // and the worker concludes from the failed call instead of waiting for a confirmation.
    QTemporaryDir folder;
    const QString recording = folder.filePath(QStringLiteral("imu.kvb"));
    {
        NdaDeviceRequester requester(control, recordedId);
        NdaDevice& device = requester.device();
        QVERIFY(device.createLogFile(recording.toStdString()));
        QVERIFY(device.startRecording());
        QTRY_COMPARE_WITH_TIMEOUT(NvDevice_deviceState(device.libraryDevice()), NDS_RECORDING,
                                  WaitMs);
        QVERIFY(device.stopRecording());
    }
    {
        // The live device is gone from the control before its recording takes its place.
        QSignalSpy retired(&control, &NdaControl::deviceDestroyedByNda);
        QVERIFY(control.closePort(recordedId));
        QTRY_VERIFY_WITH_TIMEOUT(!retired.isEmpty(), WaitMs);
        QCOMPARE(retired.at(0).at(0).value<NvDeviceId>(), recordedId);
    }
    NdaDevice& fileDevice = control.requestFileDevice(recording);
    QVERIFY2(fileDevice.isValid(), qPrintable(control.lastResultText()));
    QVERIFY(fileDevice.isReadingFromFile());
    QCOMPARE(fileDevice.deviceId(), recordedId);
    {
        NdaMeasurementStarterWorker worker(control, recordedId);
        QVERIFY(worker.isDeviceValid());
        QSignalSpy completed(&worker, &NdaMeasurementStarterWorker::completed);
        runOnThread(worker);
        QTRY_COMPARE_WITH_TIMEOUT(completed.count(), 1, WaitMs);
        QCOMPARE(completed.at(0).at(0).toBool(), false);
        QVERIFY(!worker.getResult());
        QTRY_COMPARE_WITH_TIMEOUT(failedToMeasure, std::vector<NvDeviceId>{recordedId}, WaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(
            worker.device().ndaDeviceState() != NdaDeviceState::StartingMeasurement, WaitMs);
        bringBack(worker);
    }
    control.releaseDevice(fileDevice);

    // A port that vanished: the device is retired and the worker left with the invalid
    // device, whose request fails at once.
    NdaMeasurementStarterWorker worker(control, goneId);
    QVERIFY(worker.isDeviceValid());
    QSignalSpy destroyed(&control, &NdaControl::deviceDestroyedByNda);
    QVERIFY(gone.terminate() >= 0);
    QTRY_VERIFY_WITH_TIMEOUT(!destroyed.isEmpty(), WaitMs);
    QCOMPARE(destroyed.at(0).at(0).value<NvDeviceId>(), goneId);
    QTRY_VERIFY_WITH_TIMEOUT(!worker.isDeviceValid(), WaitMs);
    QSignalSpy completed(&worker, &NdaMeasurementStarterWorker::completed);
    runOnThread(worker);
    QTRY_COMPARE_WITH_TIMEOUT(completed.count(), 1, WaitMs);
    QCOMPARE(completed.at(0).at(0).toBool(), false);
    QVERIFY(!worker.getResult());
    bringBack(worker);
}

void TestDeviceController::modeChangesRunOffTheGuiThreadInTheOrderAsked()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    kvtest::KvsimProcess silent({"--device", "gnss", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    QVERIFY2(silent.started(), silent.stderrText().c_str());
    NdaControl control;
    QVERIFY2(openAll(control, sim), qPrintable(control.lastResultText()));
    QVERIFY2(openAll(control, silent), qPrintable(control.lastResultText()));
    const NvDeviceId silentId = idOf(silent.ports()[0]);
    QTemporaryDir folder;
    TestHost host(folder.path());
    DeviceController controller(host, control);
    QSignalSpy done(&controller, &DeviceController::modeChangesDone);
    std::vector<NvDeviceId> failedToMeasure;
    connect(&control, &NdaControl::error, this, [&](const NvDeviceId& id, NvResultValue result) {
        if (result == NRV_COULD_NOT_GO_TO_MEASUREMENT)
            failedToMeasure.push_back(id);
    });

    // A device that does not answer holds up its own start, not the caller: the call
    // returns while the start still waits for the reply, and the event loop runs on.
    silent.freeze(true);
    QVERIFY(controller.gotoMeasurementAll());
    QVERIFY(controller.isChangingModes());
    bool timerRan = false;
    QTimer::singleShot(0, this, [&] { timerRan = true; });
    QTRY_VERIFY_WITH_TIMEOUT(timerRan, WaitMs);
    QVERIFY(done.isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, WaitMs);
    QCOMPARE(done.at(0).at(0).toBool(), false);
    QVERIFY(!controller.isChangingModes());
    QCOMPARE(failedToMeasure, std::vector<NvDeviceId>{silentId});
    for (const auto& port : sim.ports())
        QVERIFY(NvDevice_isMeasuring(control.libraryDeviceRef(idOf(port)).get()));
    QTRY_VERIFY_WITH_TIMEOUT(!control.getExistingDevice(silentId) ||
                                 control.getExistingDevice(silentId)->ndaDeviceState() !=
                                     NdaDeviceState::StartingMeasurement,
                             WaitMs);
    silent.freeze(false);

    // Measure then configuration at once: the later request wins, whatever the timing.
    done.clear();
    QVERIFY(controller.gotoMeasurementAll());
    QVERIFY(controller.gotoConfigAll());
    QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, WaitMs);
    QCOMPARE(done.at(0).at(0).toBool(), true);
    for (const NvDeviceId& id : control.mainDeviceIds())
        QVERIFY(NvDevice_isInConfigMode(control.libraryDeviceRef(id).get()));
    QTRY_COMPARE_WITH_TIMEOUT(controller.numberOfMeasuringDevices(), size_t(0), WaitMs);
    control.close();
}

QTEST_MAIN(TestDeviceController)
#include "tst_devicecontroller.moc"
