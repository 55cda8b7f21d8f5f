// The hardware scan against kvsim devices: the scan thread's course as the control and
// the scanner's dialog report it, abort, docked trackers.

#include "fakeport.h"
#include "hardwarescanner.h"
#include "kvsimharness.h"
#include "ndacontrol.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QProgressDialog>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <set>

namespace {

constexpr int ScanWaitMs = 60000;

std::set<std::string> idTexts(const NvDeviceIdArray& ids)
{
    std::set<std::string> out;
    for (const NvDeviceId& id : ids)
        out.insert(id.toString());
    return out;
}

void pointScannerAt(const std::string& runtimeDir)
{
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(runtimeDir));
}

// Ports beside the emulator's, for one test.
class ExtraPorts
{
public:
    explicit ExtraPorts(const QStringList& ports)
    {
        qputenv("NV_EXTRA_PORTS", ports.join(QLatin1Char(':')).toLocal8Bit());
    }
    ~ExtraPorts() { qunsetenv("NV_EXTRA_PORTS"); }
};

bool anyLineContains(const QSignalSpy& spy, const QString& text)
{
    for (const QList<QVariant>& args : spy)
        if (args.at(0).toString().contains(text))
            return true;
    return false;
}

} // namespace

class TestHardwareScanner : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void scanOfAllPortsOpensTheEmulatedDevices();
    void cancelEndsTheScanAborted();
    void scanWithoutDevicesCompletesAtOnce();
    void scanOfOnePortOpensOnlyItsDevice();
    void imarPortIsTriedAndTheScanGoesOn();
    void dockedTrackersAreClosedWhenNotShown();
    void cancelEndsTheLibraryScanOfANoisyPortSoon();
    void devicesOfOtherMakersAreListedOnlyWhenAllowed();
    void scanWithoutRs485CompatibilityFindsTheDevices();

private:
    QByteArray m_savedRuntimeDir;
};

void TestHardwareScanner::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("NivraTest"));
    QCoreApplication::setApplicationName(
        QStringLiteral("tst_hardwarescanner-%1").arg(QCoreApplication::applicationPid()));
    // Only the emulator's announcements: the machine's own serial ports stay untouched.
    qputenv("NV_SCAN_SYSTEM_PORTS", "0");
    m_savedRuntimeDir = qgetenv("XDG_RUNTIME_DIR");
}

void TestHardwareScanner::init()
{
    QSettings().clear();
}

void TestHardwareScanner::cleanupTestCase()
{
    QSettings settings;
    settings.clear();
    settings.sync();
    QFile::remove(settings.fileName());
    if (m_savedRuntimeDir.isEmpty())
        qunsetenv("XDG_RUNTIME_DIR");
    else
        qputenv("XDG_RUNTIME_DIR", m_savedRuntimeDir);
}

void TestHardwareScanner::scanOfAllPortsOpensTheEmulatedDevices()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());

    NdaControl control;
    HardwareScanner scanner(control);
    QProgressDialog* dialog = scanner.progressDialog();
    QVERIFY(dialog);
    QCOMPARE(dialog->windowTitle(), QStringLiteral("Scanning for Hardware"));
    QCOMPARE(dialog->labelText(), QStringLiteral("Initializing..."));
    QVERIFY(!dialog->isVisible());

    QSignalSpy started(&control, &NdaControl::scanForHardwareStarted);
    QSignalSpy progress(&control, &NdaControl::scanForHardwareProgressChanged);
    QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
    QSignalSpy logLines(&scanner, &HardwareScanner::scanLogEvent);
    QSignalSpy state(&scanner, &HardwareScanner::scanForHardwareStateChanged);
    QSignalSpy completed(&scanner, &HardwareScanner::scanForHardwareCompleted);
    QSignalSpy aborted(&scanner, &HardwareScanner::scanForHardwareAborted);
    QSignalSpy forwardedProgress(&scanner, &HardwareScanner::scanForHardwareProgressChanged);

    // Connected after the scanner: they see the dialog as the scanner left it.
    QStringList labels;
    bool shownWhileScanning = false;
    connect(&control, &NdaControl::scanForHardwareStarted, this,
            [&] { shownWhileScanning = dialog->isVisible(); });
    connect(&control, &NdaControl::scanForHardwareScanningPorts, this,
            [&] { labels << dialog->labelText(); });
    connect(&control, &NdaControl::scanForHardwareOpeningPort, this,
            [&] { labels << dialog->labelText(); });
    connect(&control, &NdaControl::scanForHardwareProgressChanged, this, [&](int value) {
        if (value == 100)
            labels << dialog->labelText();
    });

    scanner.scanAllPorts();
    // A scan while one runs is ignored, however it is asked for.
    scanner.scanAllPorts();
    control.scanForHardware(QString(), 0);
    QVERIFY(control.isScanning());
    QCOMPARE(started.count(), 1);

    QVERIFY(completed.wait(ScanWaitMs));
    QTest::qWait(100); // room for a second scan's signals, which must not come
    QCOMPARE(started.count(), 1);
    QCOMPARE(completed.count(), 1);
    QCOMPARE(aborted.count(), 0);
    QVERIFY(shownWhileScanning);
    QVERIFY(!dialog->isVisible());
    QTRY_VERIFY(!control.isScanning());

    QList<int> values;
    for (const QList<QVariant>& args : progress)
        values << args.at(0).toInt();
    QVERIFY2(values.size() >= 3, qPrintable(QStringLiteral("progress %1").arg(values.size())));
    QCOMPARE(values.first(), 10);
    QVERIFY(values.contains(20));
    QCOMPARE(values.last(), 100);
    QVERIFY(std::is_sorted(values.begin(), values.end()));
    QVERIFY(std::adjacent_find(values.begin(), values.end()) == values.end());
    QCOMPARE(forwardedProgress.count(), progress.count());

    std::set<std::string> openedPorts;
    QStringList expectedLabels{QStringLiteral("Scanning ports...")};
    for (const QList<QVariant>& args : opening) {
        openedPorts.insert(args.at(0).toString().toStdString());
        QVERIFY(args.at(1).toInt() > 0);
        expectedLabels << QStringLiteral("Opening port: %1, baud rate: %2...")
                              .arg(args.at(0).toString())
                              .arg(args.at(1).toInt());
    }
    expectedLabels << QStringLiteral("Scan completed successfully.");
    QCOMPARE(opening.count(), 2);
    QCOMPARE(openedPorts, (std::set<std::string>{sim.ports()[0].path, sim.ports()[1].path}));
    QCOMPARE(labels, expectedLabels);
    QVERIFY(!logLines.isEmpty());
    QVERIFY(!logLines.first().at(0).toString().isEmpty());

    QCOMPARE(state.count(), 2);
    QCOMPARE(state.at(0).at(0).toBool(), true);
    QCOMPARE(state.at(1).at(0).toBool(), false);

    QCOMPARE(idTexts(control.mainDeviceIds()),
             (std::set<std::string>{sim.ports()[0].id, sim.ports()[1].id}));
}

void TestHardwareScanner::cancelEndsTheScanAborted()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());

    NdaControl control;
    HardwareScanner scanner(control);
    QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
    QSignalSpy state(&scanner, &HardwareScanner::scanForHardwareStateChanged);
    QSignalSpy completed(&scanner, &HardwareScanner::scanForHardwareCompleted);
    QSignalSpy aborted(&scanner, &HardwareScanner::scanForHardwareAborted);

    scanner.scanAllPorts();
    QProgressDialog* dialog = scanner.progressDialog();
    QVERIFY(dialog->isVisible());
    auto* cancel = dialog->findChild<QPushButton*>();
    QVERIFY(cancel);
    // Before the scan thread can have opened anything: the scan of the ports takes longer
    // than this, and the flag is looked at before every port.
    cancel->click();
    QCOMPARE(dialog->labelText(), QStringLiteral("Aborting..."));
    QVERIFY(dialog->isVisible()); // up until the scan has really ended

    QVERIFY(aborted.wait(ScanWaitMs));
    QCOMPARE(completed.count(), 0);
    QCOMPARE(opening.count(), 0);
    QVERIFY(!dialog->isVisible());
    QCOMPARE(state.count(), 2);
    QCOMPARE(state.at(0).at(0).toBool(), true);
    QCOMPARE(state.at(1).at(0).toBool(), false);
    QVERIFY(control.mainDeviceIds().empty());

    // The control takes the next scan.
    QTRY_VERIFY(!control.isScanning());
    scanner.scanAllPorts();
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(control.mainDeviceIds().size(), size_t(2));
}

void TestHardwareScanner::scanWithoutDevicesCompletesAtOnce()
{
    QTemporaryDir empty;
    QVERIFY(empty.isValid());
    pointScannerAt(empty.path().toStdString());

    NdaControl control;
    QSignalSpy progress(&control, &NdaControl::scanForHardwareProgressChanged);
    QSignalSpy scanning(&control, &NdaControl::scanForHardwareScanningPorts);
    QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
    QSignalSpy completed(&control, &NdaControl::scanForHardwareCompleted);
    QSignalSpy aborted(&control, &NdaControl::scanForHardwareAborted);

    control.scanForHardware(QString(), 0);
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(progress.count(), 2);
    QCOMPARE(progress.at(0).at(0).toInt(), 10);
    QCOMPARE(progress.at(1).at(0).toInt(), 100);
    QCOMPARE(scanning.count(), 1);
    QCOMPARE(opening.count(), 0);
    QCOMPARE(aborted.count(), 0);
    QVERIFY(control.deviceIds().empty());
}

void TestHardwareScanner::scanOfOnePortOpensOnlyItsDevice()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());

    NdaControl control;
    HardwareScanner scanner(control);
    QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
    QSignalSpy completed(&scanner, &HardwareScanner::scanForHardwareCompleted);
    const QString port = QString::fromStdString(sim.ports()[1].path);
    scanner.scanPort(port, NBR_115200);
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(opening.count(), 1);
    QCOMPARE(opening.at(0).at(0).toString(), port);
    QCOMPARE(opening.at(0).at(1).toInt(), 115200);
    QCOMPARE(idTexts(control.mainDeviceIds()), (std::set<std::string>{sim.ports()[1].id}));

    // A port without a device: nothing to open.
    QTRY_VERIFY(!control.isScanning());
    scanner.scanPort(QStringLiteral("/dev/null"));
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(opening.count(), 1);
    QVERIFY(control.mainDeviceIds().empty()); // a scan starts from a closed control
}

void TestHardwareScanner::imarPortIsTriedAndTheScanGoesOn()
{
    QTemporaryDir empty;
    QVERIFY(empty.isValid());
    pointScannerAt(empty.path().toStdString());
    QSettings settings;
    settings.setValue(QStringLiteral("imarUsage"), true);
    settings.setValue(QStringLiteral("imarPort"), QStringLiteral("/dev/ttyIMAR"));
    settings.setValue(QStringLiteral("imarBaudRate"), 115200);
    settings.setValue(QStringLiteral("imarType"), 1);
    settings.sync();

    NdaControl control;
    QSignalSpy progress(&control, &NdaControl::scanForHardwareProgressChanged);
    QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
    QSignalSpy completed(&control, &NdaControl::scanForHardwareCompleted);
    control.scanForHardware(QString(), 0);
    QVERIFY(completed.wait(ScanWaitMs));
    QList<int> values;
    for (const QList<QVariant>& args : progress)
        values << args.at(0).toInt();
    QCOMPARE(values, (QList<int>{10, 20, 100}));
    QCOMPARE(opening.count(), 1);
    QCOMPARE(opening.at(0).at(0).toString(), QStringLiteral("/dev/ttyIMAR"));
    QCOMPARE(opening.at(0).at(1).toInt(), 115200);
    QVERIFY(control.deviceIds().empty());
}

void TestHardwareScanner::dockedTrackersAreClosedWhenNotShown()
{
    kvtest::KvsimProcess sim({"--device", "master:2,docked=1", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());
    const std::string masterId = sim.ports()[0].id;

    std::string trackerId;
    {
        // Shown (the default): the docked tracker is a device behind its master.
        NdaControl control;
        QSignalSpy completed(&control, &NdaControl::scanForHardwareCompleted);
        control.scanForHardware(QString(), 0);
        QVERIFY(completed.wait(ScanWaitMs));
        QCOMPARE(idTexts(control.mainDeviceIds()), (std::set<std::string>{masterId}));
        const NvDeviceIdArray all = control.deviceIds();
        QCOMPARE(all.size(), size_t(2)); // the other tracker is not connected: radio off
        for (const NvDeviceId& id : all)
            if (id.toString() != masterId)
                trackerId = id.toString();
        QVERIFY(control.isDeviceDocked(NvDeviceId::fromString(trackerId)));
    }

    QSettings().setValue(QStringLiteral("showDockedKvws"), false);
    NdaControl control;
    QSignalSpy completed(&control, &NdaControl::scanForHardwareCompleted);
    control.scanForHardware(QString(), 0);
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(idTexts(control.deviceIds()), (std::set<std::string>{masterId}));
    QCOMPARE(idTexts(control.mainDeviceIds()), (std::set<std::string>{masterId}));
    QVERIFY(control.getMasterId(NvDeviceId::fromString(trackerId)).isEmpty());
}

void TestHardwareScanner::cancelEndsTheLibraryScanOfANoisyPortSoon()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());
    // Something of unknown make babbles on this port: heard at every rate, answering none,
    // its probe alone takes seconds.
    kvtest::FakePort noise(kvtest::FakePort::Noise);
    kvtest::FakePort silent(kvtest::FakePort::Silent);
    QVERIFY(noise.isOpen() && silent.isOpen());
    const QString noisePath = QString::fromStdString(noise.path);

    NdaControl control;
    HardwareScanner scanner(control);
    QSignalSpy logLines(&scanner, &HardwareScanner::scanLogEvent);
    QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
    QSignalSpy completed(&scanner, &HardwareScanner::scanForHardwareCompleted);
    QSignalSpy aborted(&scanner, &HardwareScanner::scanForHardwareAborted);
    {
        ExtraPorts extra({noisePath, QString::fromStdString(silent.path)});
        scanner.scanAllPorts();
        QTRY_VERIFY(anyLineContains(logLines, QStringLiteral("Scanning port ") + noisePath));
        QProgressDialog* dialog = scanner.progressDialog();
        QVERIFY(dialog->isVisible());
        auto* cancel = dialog->findChild<QPushButton*>();
        QVERIFY(cancel);
        QElapsedTimer sinceCancel;
        sinceCancel.start();
        cancel->click();
        QVERIFY(aborted.wait(ScanWaitMs));
        // Generous: the abort takes milliseconds, the noisy port's probe seconds.
        QVERIFY2(sinceCancel.elapsed() < 2000,
                 qPrintable(QStringLiteral("%1 ms").arg(sinceCancel.elapsed())));
        QVERIFY(!dialog->isVisible());
    }
    QCOMPARE(completed.count(), 0);
    QCOMPARE(opening.count(), 0);
    QVERIFY(control.mainDeviceIds().empty());
    QVERIFY(anyLineContains(logLines,
                            QStringLiteral("Scan of ") + noisePath + QStringLiteral(" aborted")));

    // The next scan runs whole.
    QTRY_VERIFY(!control.isScanning());
    scanner.scanAllPorts();
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(idTexts(control.mainDeviceIds()),
             (std::set<std::string>{sim.ports()[0].id, sim.ports()[1].id}));
}

void TestHardwareScanner::devicesOfOtherMakersAreListedOnlyWhenAllowed()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());
    kvtest::FakePort receiver(kvtest::FakePort::Nmea);
    QVERIFY(receiver.isOpen());
    const QString receiverPath = QString::fromStdString(receiver.path);
    ExtraPorts extra({receiverPath});
    const std::set<std::string> ours{sim.ports()[0].id};

    for (const bool allowed : {false, true}) {
        QSettings().setValue(QStringLiteral("allowNonNivraDevices"), allowed);
        NdaControl control;
        HardwareScanner scanner(control);
        QSignalSpy foreign(&scanner, &HardwareScanner::foreignDeviceFound);
        QSignalSpy opening(&control, &NdaControl::scanForHardwareOpeningPort);
        QSignalSpy completed(&scanner, &HardwareScanner::scanForHardwareCompleted);
        scanner.scanAllPorts();
        QVERIFY(completed.wait(ScanWaitMs));
        // Never opened: nothing here speaks its protocol. Our device is, either way.
        QCOMPARE(opening.count(), 1);
        QCOMPARE(opening.at(0).at(0).toString(), QString::fromStdString(sim.ports()[0].path));
        QCOMPARE(idTexts(control.deviceIds()), ours);
        if (!allowed) {
            QCOMPARE(foreign.count(), 0);
            continue;
        }
        QCOMPARE(foreign.count(), 1);
        QCOMPARE(foreign.at(0).at(0).toString(), receiverPath);
        QVERIFY2(foreign.at(0).at(1).toString().startsWith(QStringLiteral("NMEA device")),
                 qPrintable(foreign.at(0).at(1).toString()));

        // Asked about that one port, the scan names it too.
        QTRY_VERIFY(!control.isScanning());
        scanner.scanPort(receiverPath);
        QVERIFY(completed.wait(ScanWaitMs));
        QCOMPARE(foreign.count(), 2);
        QCOMPARE(foreign.at(1).at(0).toString(), receiverPath);
        QVERIFY(control.deviceIds().empty());
    }
}

void TestHardwareScanner::scanWithoutRs485CompatibilityFindsTheDevices()
{
    // Scan time 0: the library's short default, not a longer wait.
    QSettings().setValue(QStringLiteral("rs485Compatibility"), false);
    kvtest::KvsimProcess sim({"--device", "ahrs", "--device", "legacy:rs485", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    pointScannerAt(sim.runtimeDir());
    kvtest::FakePort silent(kvtest::FakePort::Silent);
    ExtraPorts extra({QString::fromStdString(silent.path)});

    NdaControl control;
    QSignalSpy completed(&control, &NdaControl::scanForHardwareCompleted);
    control.scanForHardware(QString(), 0);
    QVERIFY(completed.wait(ScanWaitMs));
    QCOMPARE(idTexts(control.mainDeviceIds()),
             (std::set<std::string>{sim.ports()[0].id, sim.ports()[1].id}));
}

QTEST_MAIN(TestHardwareScanner)
#include "tst_hardwarescanner.moc"
