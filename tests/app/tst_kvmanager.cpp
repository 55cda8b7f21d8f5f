#include "abstractexporter.h"
#include "currentdirectorywidget.h"
#include "deviceitem.h"
#include "devicelist.h"
#include "devicemodel.h"
#include "dialogmanagers.h"
#include "exportworker.h"
#include "fakeport.h"
#include "fileplaybackmanager.h"
#include "filerecordmanager.h"
#include "hardwarescanner.h"
#include "journaller.h"
#include "kvmanager.h"
#include "kvsettingsdialog.h"
#include "kvsettingsoptionspage.h"
#include "kvsimharness.h"
#include "messagewindow.h"
#include "modalcloser.h"
#include "nvmessagesstructure.h"
#include "plotmanager.h"
#include "pluginmanager.h"
#include "settingsdialog.h"
#include "timeseriesviewers.h"
#include "viewmanager.h"

#include <QAction>
#include <QApplication>
#include <QDockWidget>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QTreeView>
#include <QUrl>

#include <QCheckBox>
#include <QComboBox>
#include <QMdiSubWindow>
#include <QPushButton>
#include <QTreeWidget>

#include <algorithm>
#include <memory>

// A scan finds only `sim`'s devices while this lives.
class ScanOnly
{
public:
    explicit ScanOnly(const kvtest::KvsimProcess& sim)
    {
        qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(sim.runtimeDir()));
        qputenv("NV_SCAN_SYSTEM_PORTS", "0");
    }
    ~ScanOnly()
    {
        qunsetenv("XDG_RUNTIME_DIR");
        qunsetenv("NV_SCAN_SYSTEM_PORTS");
    }
    ScanOnly(const ScanOnly&) = delete;
    ScanOnly& operator=(const ScanOnly&) = delete;
};

using kvtest::ModalCloser;

class TestKvManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void docksHaveTheirNamesAreasAndFeatures();
    void floatingDeviceListIsASetting();
    void recentFilesMoveToFrontAndKeepTen();
    void recentFilesShown_data();
    void recentFilesShown();
    void recentFileWithAmpersandShowsItOnce();
    void recentFileActionLoadsItsPath();
    void dragMoveAcceptsOnlyKnownSuffixes_data();
    void dragMoveAcceptsOnlyKnownSuffixes();
    void dropLoadsOnlyExistingFilesWithCopyOrMove_data();
    void dropLoadsOnlyExistingFilesWithCopyOrMove();
    void failureEventsShowTheirBoxes();
    void customEventTypesAreDistinctAndOrdered();
    void fileLoadErrorRemovesRecentFileAndTellsUser();
    void missingFileReportsOpenFailure();
    void forcedMessageShowsHiddenMessageWindow();
    void requestsFromOtherThreadsRunOnGuiThread();
    void windowSettingsSurviveRestart();
    void invalidDockGeometryIsIgnored();
    void titleNamesApplicationFileAndVersion();
    void everyActionHasAStableName();
    void scanOpensTheEmulatedDevicesAndAnUnplugLeavesTheOthers();
    void devicesOfOtherMakersAreNamedInTheMessageWindowWhenAllowed();
    void closingDuringAScanDoesNotWaitForIt();
    void deviceErrorsHaveTheirPrefixAndOpenTheMessageWindowOnce();
    void deviceNotificationsAndTheRecordingIndicator();
    void ctrlClickedDevicesAreTheOnesThatMeasure();
    void masterWithoutTrackersIsNoLinkBehind();
    void viewsFollowTheSelectionAndTheToggles();
    void outputChosenInTheSettingsDialogReachesTheViews();
    void optionsTakeEffectWhenApplied();
    void recordButtonRecordsIntoTheChosenFolder();
    void recordPlayBackAndExportEverySample();
    void protocolToolsOpenForTheSelectedDevice();

private:
    std::unique_ptr<KvManager> m_window;
    QTemporaryDir m_files;
};

void TestKvManager::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QApplication::setOrganizationName(QStringLiteral("NivraTest"));
    QApplication::setApplicationName(QStringLiteral("Kv Manager"));
    QApplication::setApplicationVersion(QStringLiteral("1.2.3 test"));
    Q_INIT_RESOURCE(kvmanager);
    QVERIFY(QSettings().fileName().contains(QStringLiteral("qttest")));
}

void TestKvManager::init()
{
    QSettings().clear();
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
}

void TestKvManager::cleanup()
{
    m_window.reset();
}

void TestKvManager::docksHaveTheirNamesAreasAndFeatures()
{
    QDockWidget* deviceList = m_window->deviceListDock();
    QDockWidget* messages = m_window->messageWindowDock();
    QDockWidget* scanLog = m_window->scanLogWindowDock();
    QCOMPARE(deviceList->objectName(), QStringLiteral("DeviceList"));
    QCOMPARE(deviceList->windowTitle(), QStringLiteral("Device List"));
    QCOMPARE(messages->objectName(), QStringLiteral("MessageWindow"));
    QCOMPARE(scanLog->objectName(), QStringLiteral("ScanLogWindow"));

    QCOMPARE(deviceList->allowedAreas(), Qt::LeftDockWidgetArea | Qt::RightDockWidgetArea);
    QCOMPARE(m_window->dockWidgetArea(deviceList), Qt::LeftDockWidgetArea);
    for (QDockWidget* dock : {messages, scanLog}) {
        QCOMPARE(dock->allowedAreas(),
                 Qt::RightDockWidgetArea | Qt::TopDockWidgetArea | Qt::BottomDockWidgetArea);
        QCOMPARE(dock->features(), QDockWidget::DockWidgetClosable);
        QCOMPARE(m_window->dockWidgetArea(dock), Qt::BottomDockWidgetArea);
    }

    QVERIFY(deviceList->isVisible());
    QVERIFY(messages->isVisible());
    QVERIFY(!scanLog->isVisible());

    // The view menu's toggles follow the docks both ways.
    QVERIFY(m_window->ui().actionDeviceList->isChecked());
    m_window->ui().actionScanLog->trigger();
    QVERIFY(scanLog->isVisible());
    deviceList->close();
    QVERIFY(!m_window->ui().actionDeviceList->isChecked());
}

void TestKvManager::floatingDeviceListIsASetting()
{
    QVERIFY(!(m_window->deviceListDock()->features() & QDockWidget::DockWidgetFloatable));
    m_window.reset();
    QSettings().setValue(QStringLiteral("allowFloatingDeviceList"), true);
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    QVERIFY(m_window->deviceListDock()->features() & QDockWidget::DockWidgetFloatable);
}

static QStringList visibleRecentTexts(const KvManager& window)
{
    QStringList texts;
    for (QAction* action : window.ui().recentFileActions) {
        if (action->isVisible())
            texts.append(action->text());
    }
    return texts;
}

void TestKvManager::recentFilesMoveToFrontAndKeepTen()
{
    for (int i = 1; i <= 11; ++i)
        m_window->addRecentFile(QStringLiteral("/data/trial%1.kvb").arg(i));
    QStringList stored = QSettings().value(QStringLiteral("recentFiles")).toStringList();
    QCOMPARE(stored.size(), 10);
    QCOMPARE(stored.first(), QStringLiteral("/data/trial11.kvb"));
    QVERIFY(!stored.contains(QStringLiteral("/data/trial1.kvb")));

    m_window->addRecentFile(QStringLiteral("/data/trial5.kvb"));
    stored = QSettings().value(QStringLiteral("recentFiles")).toStringList();
    QCOMPARE(stored.size(), 10);
    QCOMPARE(stored.first(), QStringLiteral("/data/trial5.kvb"));
    QCOMPARE(stored.count(QStringLiteral("/data/trial5.kvb")), 1);

    // Four are shown by default, newest first, numbered from 1.
    QCOMPARE(visibleRecentTexts(*m_window),
             QStringList({"&1 trial5.kvb", "&2 trial11.kvb", "&3 trial10.kvb", "&4 trial9.kvb"}));
    QCOMPARE(m_window->ui().recentFileActions[0]->statusTip(),
             QStringLiteral("Load file /data/trial5.kvb"));
}

void TestKvManager::recentFilesShown_data()
{
    QTest::addColumn<QVariant>("maxRecentFiles");
    QTest::addColumn<int>("files");
    QTest::addColumn<int>("shown");
    QTest::newRow("default") << QVariant() << 6 << 4;
    QTest::newRow("zero") << QVariant(0) << 6 << 0;
    QTest::newRow("negative") << QVariant(-3) << 6 << 0;
    QTest::newRow("above ten") << QVariant(25) << 12 << 10;
    QTest::newRow("fewer files than allowed") << QVariant(8) << 3 << 3;
}

void TestKvManager::recentFilesShown()
{
    QFETCH(QVariant, maxRecentFiles);
    QFETCH(int, files);
    QFETCH(int, shown);
    if (maxRecentFiles.isValid())
        QSettings().setValue(QStringLiteral("UserInterfaceSettings/maxRecentFiles"),
                             maxRecentFiles);
    for (int i = 0; i < files; ++i)
        m_window->addRecentFile(QStringLiteral("/data/f%1.kvb").arg(i));
    QCOMPARE(visibleRecentTexts(*m_window).size(), shown);
    QCOMPARE(m_window->ui().menuRecentFiles->isEnabled(), shown > 0);
}

void TestKvManager::recentFileWithAmpersandShowsItOnce()
{
    m_window->addRecentFile(QStringLiteral("/data/R&D walk.kvb"));
    QAction* action = m_window->ui().recentFileActions[0];
    QCOMPARE(action->text(), QStringLiteral("&1 R&&D walk.kvb"));
    QCOMPARE(action->data().toString(), QStringLiteral("/data/R&D walk.kvb"));
}

void TestKvManager::recentFileActionLoadsItsPath()
{
    ModalCloser closer;
    m_window->addRecentFile(QStringLiteral("/data/a.kvb"));
    m_window->addRecentFile(QStringLiteral("/data/b.kvb"));
    QSignalSpy loads(m_window.get(), &KvManager::fileLoadStarted);
    m_window->ui().recentFileActions[1]->trigger();
    QCOMPARE(loads.size(), 1);
    QCOMPARE(loads.at(0).at(0).toString(), QStringLiteral("/data/a.kvb"));
}

void TestKvManager::dragMoveAcceptsOnlyKnownSuffixes_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("kvb") << QStringList{"/tmp/a.kvb"} << true;
    QTest::newRow("nm") << QStringList{"/tmp/a.nm"} << true;
    QTest::newRow("bin") << QStringList{"/tmp/a.bin"} << true;
    QTest::newRow("one of several") << QStringList{"/tmp/a.txt", "/tmp/b.kvb"} << true;
    QTest::newRow("upper-case suffix") << QStringList{"/tmp/a.KVB"} << false;
    QTest::newRow("other suffix") << QStringList{"/tmp/a.csv"} << false;
    QTest::newRow("no urls") << QStringList{} << false;
}

void TestKvManager::dragMoveAcceptsOnlyKnownSuffixes()
{
    QFETCH(QStringList, paths);
    QFETCH(bool, accepted);
    QMimeData data;
    QList<QUrl> urls;
    for (const QString& path : paths)
        urls.append(QUrl::fromLocalFile(path));
    data.setUrls(urls);

    // Any uri list may enter; the move decides.
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(m_window.get(), &enter);
    QVERIFY(enter.isAccepted() || paths.isEmpty());
    QDragMoveEvent move(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    move.setAccepted(false);
    QApplication::sendEvent(m_window.get(), &move);
    QCOMPARE(move.isAccepted(), accepted);
}

void TestKvManager::dropLoadsOnlyExistingFilesWithCopyOrMove_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("makeFolder");
    QTest::addColumn<int>("action");
    QTest::addColumn<bool>("loaded");
    QTest::newRow("kvb copied") << "walk.kvb" << false << int(Qt::CopyAction) << true;
    QTest::newRow("nm moved") << "gnss.nm" << false << int(Qt::MoveAction) << true;
    QTest::newRow("link action") << "walk.kvb" << false << int(Qt::LinkAction) << false;
    QTest::newRow("upper-case suffix") << "WALK.KVB" << false << int(Qt::CopyAction) << false;
    QTest::newRow("folder") << "folder.kvb" << true << int(Qt::CopyAction) << false;
    QTest::newRow("missing file") << "" << false << int(Qt::CopyAction) << false;
}

void TestKvManager::dropLoadsOnlyExistingFilesWithCopyOrMove()
{
    QFETCH(QString, name);
    QFETCH(bool, makeFolder);
    QFETCH(int, action);
    QFETCH(bool, loaded);
    QString path = m_files.filePath(name.isEmpty() ? QStringLiteral("gone.kvb") : name);
    if (makeFolder) {
        QVERIFY(QDir().mkpath(path));
    } else if (!name.isEmpty()) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }

    ModalCloser closer;
    QSignalSpy loads(m_window.get(), &KvManager::fileLoadStarted);
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(path)});
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(m_window.get(), &enter);
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction | Qt::MoveAction | Qt::LinkAction, &data,
                    Qt::LeftButton, Qt::NoModifier);
    drop.setDropAction(static_cast<Qt::DropAction>(action));
    QApplication::sendEvent(m_window.get(), &drop);

    // The load happens from the event loop, never inside the drop.
    QCOMPARE(loads.size(), 0);
    if (loaded) {
        QTRY_COMPARE(loads.size(), 1);
        QCOMPARE(loads.at(0).at(0).toString(), path);
    } else {
        QTest::qWait(50);
        QCOMPARE(loads.size(), 0);
    }
}

void TestKvManager::failureEventsShowTheirBoxes()
{
    ModalCloser closer;
    m_window->onOpenFileFailed(QIODevice::ReadOnly, QStringLiteral("/data/x.kvb"));
    m_window->handleExportDeviceFailed(QStringLiteral("/data/y.kvb"));
    m_window->onRecordFailed();
    // Nothing is shown synchronously: the entry points only post.
    QVERIFY(closer.titled.isEmpty());
    QTRY_COMPARE(closer.titled.size(), 3);
    QCOMPARE(closer.titled, QStringList({"Error|Failed to open file: '/data/x.kvb'.",
                                         "Error|Failed to export device: '/data/y.kvb'.",
                                         "Error|Failed to start recording."}));
}

void TestKvManager::customEventTypesAreDistinctAndOrdered()
{
    const int first = KvManager::ConfigurationChangedEvent::eventType;
    QVERIFY(first >= QEvent::User && first <= QEvent::MaxUser);
    // registerEventType hands out descending numbers; the four were taken one after another.
    QCOMPARE(int(KvManager::OpenFileFailedEvent::eventType), first - 1);
    QCOMPARE(int(KvManager::ExportFailedEvent::eventType), first - 2);
    QCOMPARE(int(KvManager::RecordFailedEvent::eventType), first - 3);

    const NvDeviceId id(0x0380051Au);
    KvManager::ConfigurationChangedEvent changed(id);
    QCOMPARE(changed.deviceId(), id);
    // An unhandled-looking event of ours is consumed, not passed on.
    QVERIFY(QApplication::sendEvent(m_window.get(), &changed));
}

void TestKvManager::fileLoadErrorRemovesRecentFileAndTellsUser()
{
    ModalCloser closer;
    m_window->addRecentFile(QStringLiteral("/data/keep.kvb"));
    m_window->addRecentFile(QStringLiteral("/data/broken.kvb"));
    m_window->handleFileLoadError(QStringLiteral("/data/broken.kvb"), 3, QStringLiteral("Bad"));

    QCOMPARE(QSettings().value(QStringLiteral("recentFiles")).toStringList(),
             QStringList{"/data/keep.kvb"});
    QCOMPARE(visibleRecentTexts(*m_window), QStringList{"&1 keep.kvb"});
    QCOMPARE(m_window->messageWindow()->lines().last(),
             QStringLiteral("Failed to load file: '/data/broken.kvb': 'Bad'"));
    QCOMPARE(closer.titled,
             QStringList{"Failed to load file|Filename: /data/broken.kvb\nError: Bad"});
}

void TestKvManager::missingFileReportsOpenFailure()
{
    ModalCloser closer;
    const QString path = m_files.filePath(QStringLiteral("never-written.kvb"));
    m_window->loadFile(path);
    QTRY_COMPARE(closer.titled, QStringList{"Error|Failed to open file: '" + path + "'."});
}

void TestKvManager::forcedMessageShowsHiddenMessageWindow()
{
    m_window->messageWindowDock()->close();
    QVERIFY(!m_window->messageWindowDock()->isVisible());

    m_window->addMessageToMessageWindow(QStringLiteral("quiet"), false);
    QVERIFY(!m_window->messageWindowDock()->isVisible());

    m_window->addMessageToMessageWindow(QStringLiteral("first"), true);
    m_window->addMessageToMessageWindow(QStringLiteral("second"), true);
    QVERIFY(m_window->messageWindowDock()->isVisible());
    QVERIFY(m_window->ui().actionMessageWindow->isChecked());
    QCOMPARE(m_window->messageWindow()->lines(), QStringList({"quiet", "first", "second"}));
}

void TestKvManager::requestsFromOtherThreadsRunOnGuiThread()
{
    QThread* guiThread = QThread::currentThread();
    QThread* handledOn = nullptr;
    connect(m_window->scanLogWindow(), &MessageWindow::messageAdded, this,
            [&handledOn] { handledOn = QThread::currentThread(); });

    std::unique_ptr<QThread> worker(QThread::create(
        [this] { emit m_window->portScanRequested(QStringLiteral("/dev/pts/7"), 115200); }));
    worker->start();
    QVERIFY(worker->wait(5000));
    QTRY_VERIFY(handledOn != nullptr);
    QCOMPARE(handledOn, guiThread);
    QCOMPARE(m_window->scanLogWindow()->lines().last(), QStringLiteral("Scanning port /dev/pts/7"));
}

void TestKvManager::windowSettingsSurviveRestart()
{
    m_window->scanLogWindowDock()->show();
    m_window->resize(900, 640);
    m_window->close();
    QSettings settings;
    for (const char* key : {"geometry", "windowstate", "toolbarState2", "deviceListGeometry",
                            "messageWindowGeometry"})
        QVERIFY2(settings.contains(QLatin1String(key)), key);

    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    QCOMPARE(m_window->size(), QSize(900, 640));
    // The dock layout comes back, including the tool window the user opened.
    QVERIFY(m_window->scanLogWindowDock()->isVisible());
}

void TestKvManager::invalidDockGeometryIsIgnored()
{
    m_window.reset();
    QSettings().setValue(QStringLiteral("deviceListGeometry"),
                         QRect(QPoint(50, 50), QPoint(10, 10)));
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    QVERIFY(m_window->deviceListDock()->geometry().width() > 0);
    QVERIFY(m_window->deviceListDock()->geometry().left() != 50);
}

void TestKvManager::titleNamesApplicationFileAndVersion()
{
    QCOMPARE(m_window->windowTitle(), QStringLiteral("Kv Manager 1.2.3 test"));
    m_window->handleFileLoadingFinalized(QStringLiteral("/data/walk.kvb"));
    QCOMPARE(m_window->windowTitle(), QStringLiteral("Kv Manager 1.2.3 test - [/data/walk.kvb]"));
    QVERIFY(m_window->ui().actionClose->isEnabled());
    m_window->ui().actionClose->trigger();
    QCOMPARE(m_window->windowTitle(), QStringLiteral("Kv Manager 1.2.3 test"));
}

void TestKvManager::everyActionHasAStableName()
{
    const QList<QAction*> actions = m_window->findChildren<QAction*>();
    QSet<QString> names;
    for (QAction* action : actions) {
        if (action->isSeparator() || action->text().isEmpty() || action->menu())
            continue;
        QVERIFY2(!action->objectName().isEmpty(), qPrintable(action->text()));
        QVERIFY2(!names.contains(action->objectName()), qPrintable(action->objectName()));
        names.insert(action->objectName());
    }
}

void TestKvManager::scanOpensTheEmulatedDevicesAndAnUnplugLeavesTheOthers()
{
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "gnss:disconnect=4", "--quiet"});
    QVERIFY(sim.started());
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(sim.runtimeDir()));
    qputenv("NV_SCAN_SYSTEM_PORTS", "0"); // the machine's own serial ports stay out of it
    ModalCloser closer;
    QSignalSpy measuring(m_window->deviceController(),
                         &DeviceController::numberOfMeasuringDevicesChanged);
    QSignalSpy scanning(m_window->hardwareScanner(), &HardwareScanner::scanForHardwareStateChanged);
    m_window->doScanAllPorts();
    QTRY_COMPARE_WITH_TIMEOUT(m_window->ndaControl()->deviceCount(), 3, 20000);
    QTRY_COMPARE(scanning.count(), 2); // the scan dialog came and went
    QTRY_VERIFY_WITH_TIMEOUT(!measuring.isEmpty() && measuring.last().at(1).value<size_t>() == 3,
                             10000);
    QTRY_VERIFY(m_window->deviceStatusText().startsWith(QStringLiteral("3 device")));
    QVERIFY(m_window->scanLogWindow()
                ->lines()
                .join(QLatin1Char('\n'))
                .contains(QStringLiteral("Found")));
    // The tree read each device's settings before it started measuring (a measuring
    // device refuses such requests, and the rows would read 0).
    for (const auto& port : sim.ports()) {
        const DeviceItem* item =
            m_window->deviceModel()->deviceItem(NvDeviceId::fromString(port.id));
        QVERIFY(item);
        QCOMPARE(item->baudrate().toInt(), 115200);
    }

    // The GNSS unit goes away: a message, the others go on measuring.
    QTRY_COMPARE_WITH_TIMEOUT(m_window->ndaControl()->deviceCount(), 2, 15000);
    QTRY_VERIFY(m_window->messageWindow()
                    ->lines()
                    .join(QLatin1Char('\n'))
                    .contains(QStringLiteral("Unexpected disconnect")));
    QTRY_VERIFY(m_window->deviceStatusText().startsWith(QStringLiteral("2 device")));
    for (const NvDeviceId& id : m_window->ndaControl()->mainDeviceIds())
        QVERIFY(m_window->ndaControl()->isMeasuring(id));
    QTRY_VERIFY(m_window->ndaControl()
                    ->linkHealth(NvDeviceId::fromString(sim.ports()[1].id))
                    .packetsPerSecond > 50);

    m_window->close();
    QCOMPARE(m_window->ndaControl()->deviceCount(), 0);
    qunsetenv("XDG_RUNTIME_DIR");
    qunsetenv("NV_SCAN_SYSTEM_PORTS");
}

void TestKvManager::devicesOfOtherMakersAreNamedInTheMessageWindowWhenAllowed()
{
    kvtest::FakePort receiver(kvtest::FakePort::Nmea);
    QVERIFY(receiver.isOpen());
    QTemporaryDir runtime;
    qputenv("XDG_RUNTIME_DIR", runtime.path().toLocal8Bit());
    qputenv("NV_SCAN_SYSTEM_PORTS", "0");
    qputenv("NV_EXTRA_PORTS", QByteArray::fromStdString(receiver.path));
    const QString prefix = QStringLiteral("Port %1: NMEA device of another maker at ")
                               .arg(QString::fromStdString(receiver.path));
    auto named = [&] {
        const QStringList lines = m_window->messageWindow()->lines();
        return std::any_of(lines.begin(), lines.end(), [&](const QString& line) {
            return line.startsWith(prefix) && line.endsWith(QStringLiteral(" bd (not opened)"));
        });
    };

    for (const bool allowed : {false, true}) {
        QSettings().setValue(QStringLiteral("allowNonNivraDevices"), allowed);
        QSignalSpy scanning(m_window->hardwareScanner(),
                            &HardwareScanner::scanForHardwareStateChanged);
        m_window->doScanAllPorts();
        QTRY_COMPARE_WITH_TIMEOUT(scanning.count(), 2, 20000);
        QCOMPARE(named(), allowed);
        QCOMPARE(m_window->ndaControl()->deviceCount(), 0);
    }
    qunsetenv("XDG_RUNTIME_DIR");
    qunsetenv("NV_SCAN_SYSTEM_PORTS");
    qunsetenv("NV_EXTRA_PORTS");
}

void TestKvManager::closingDuringAScanDoesNotWaitForIt()
{
    kvtest::KvsimProcess sim({"--device", "imu", "--quiet"});
    QVERIFY(sim.started());
    // A port where something of unknown make babbles: probing it takes seconds.
    kvtest::FakePort noise(kvtest::FakePort::Noise);
    QVERIFY(noise.isOpen());
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(sim.runtimeDir()));
    qputenv("NV_SCAN_SYSTEM_PORTS", "0");
    qputenv("NV_EXTRA_PORTS", QByteArray::fromStdString(noise.path));
    const QString probing = QStringLiteral("Scanning port ") + QString::fromStdString(noise.path);

    m_window->doScanAllPorts();
    QTRY_VERIFY(m_window->scanLogWindow()->lines().join(QLatin1Char('\n')).contains(probing));
    QVERIFY(m_window->ndaControl()->isScanning());
    QElapsedTimer closing;
    closing.start();
    m_window->close();
    m_window.reset(); // the control goes with the window and joins the scan thread
    // Generous: ending the scan takes milliseconds, the noisy port's probe seconds.
    QVERIFY2(closing.elapsed() < 2000, qPrintable(QStringLiteral("%1 ms").arg(closing.elapsed())));
    qunsetenv("XDG_RUNTIME_DIR");
    qunsetenv("NV_SCAN_SYSTEM_PORTS");
    qunsetenv("NV_EXTRA_PORTS");
}

void TestKvManager::deviceErrorsHaveTheirPrefixAndOpenTheMessageWindowOnce()
{
    m_window->show();
    m_window->messageWindowDock()->hide();
    QSignalSpy shown(m_window->messageWindowDock(), &QDockWidget::visibilityChanged);
    const NvDeviceId id = NvDeviceId::fromString("1300000000001000");
    NdaControl* control = m_window->ndaControl();
    emit control->error(id, NvResultValue(50)); // a warning: the window stays closed
    emit control->warning(id, NRV_WARNING);     // and so it does for the device's warnings
    QVERIFY(!m_window->messageWindowDock()->isVisible());
    emit control->error(id, NvResultValue(42));
    emit control->error(id, NRV_COULD_NOT_GO_TO_MEASUREMENT);
    emit control->error(id, NvResultValue(41));
    QVERIFY(m_window->messageWindowDock()->isVisible());
    QCOMPARE(shown.count(), 1); // opened once for the three
    const QStringList lines = m_window->messageWindow()->lines();
    QCOMPARE(lines.size(), 5);
    QVERIFY(lines[0].startsWith(QStringLiteral("WARNING: Device: 1300000000001000: ")));
    QCOMPARE(lines[1], QStringLiteral("WARNING: Device: 1300000000001000: Warning."));
    QVERIFY(lines[2].startsWith(QStringLiteral("ERROR: Device: 1300000000001000: ")));
    QVERIFY(lines[3].startsWith(QStringLiteral("ERROR: Device: 1300000000001000: ")));
    QCOMPARE(lines[4], QStringLiteral("WARNING: Device: 1300000000001000: Data Overflow detected. "
                                      "Sample times may not be correct. Selected baudrate may be "
                                      "too low."));
    QVERIFY(lines[2].endsWith(QLatin1Char('.')));
}

void TestKvManager::deviceNotificationsAndTheRecordingIndicator()
{
    NdaControl* control = m_window->ndaControl();
    const NvDeviceId id = NvDeviceId::fromString("1300000000001000");
    emit control->dataUnavailable(id, 77);
    emit control->wakeupReceived(id); // "messageOnWakeup" is off by default: no line
    KvwInfo lost;
    lost.deviceId = NvDeviceId::fromString("2200000000001001");
    lost.masterId = NvDeviceId::fromString("2100000000001000");
    emit control->kvwDisconnected(lost);
    lost.deviceId = NvDeviceId::fromString("03001000");
    emit control->kvwDisconnected(lost);
    QCOMPARE(
        m_window->messageWindow()->lines(),
        QStringList({QStringLiteral("WARNING: Packet 77 unavailable for device 1300000000001000"),
                     QStringLiteral("Master Device 2100000000001000 lost its connection to KV "
                                    "2200000000001001"),
                     QStringLiteral("Lost connection to device 03001000")}));

    QCOMPARE(m_window->recordingIndicatorText(), QString());
    m_window->handleNumberOfRecordingDevicesChanged(0, 2);
    QCOMPARE(m_window->recordingIndicatorText(), QStringLiteral("REC [2]"));
    m_window->handleNumberOfWaitingForRecordingStartDevicesChanged(0, 1);
    QCOMPARE(m_window->recordingIndicatorText(), QStringLiteral("REC WAITING FOR SYNC [1]"));
    m_window->handleNumberOfWaitingForRecordingStartDevicesChanged(1, 0);
    m_window->handleNumberOfRecordingDevicesChanged(2, 0);
    QCOMPARE(m_window->recordingIndicatorText(), QString());

    m_window->startSendingBatteryRequests();
    m_window->startSendingGpsStatusRequests();
    QVERIFY(m_window->isSendingBatteryRequests() && m_window->isSendingGpsStatusRequests());
    m_window->ndaControl()->close(); // closing the devices ends the requests
    QVERIFY(!m_window->isSendingBatteryRequests() && !m_window->isSendingGpsStatusRequests());
}

namespace {

// Waits until every mode change asked for so far has run.
bool modeChangesSettle(DeviceController* controller, QSignalSpy& done, int before)
{
    return QTest::qWaitFor([&] { return done.count() > before && !controller->isChangingModes(); },
                           20000);
}

void clickRow(QTreeView* view, int row, Qt::KeyboardModifiers modifiers)
{
    const QModelIndex index = view->model()->index(row, 0);
    view->scrollTo(index);
    QTest::mouseClick(view->viewport(), Qt::LeftButton, modifiers,
                      view->visualRect(index).center());
}

} // namespace

void TestKvManager::ctrlClickedDevicesAreTheOnesThatMeasure()
{
    // Usage events are TRACE lines of the journal.
    QTemporaryDir logFolder;
    const QString logPath = logFolder.filePath(QStringLiteral("kvmanager.log"));
    Journaller journal(logPath.toStdString(), true, JLL_TRACE);
    jlSetGlobalJournal(&journal);
    const auto forget = qScopeGuard([] { jlSetGlobalJournal(nullptr); });
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "gnss", "--quiet"});
    QVERIFY(sim.started());
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(sim.runtimeDir()));
    qputenv("NV_SCAN_SYSTEM_PORTS", "0");
    ModalCloser closer;
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    // A press while a row's expansion is animated only ends the animation.
    QTreeView* view = m_window->deviceList()->view();
    view->setAnimated(false);
    DeviceController* controller = m_window->deviceController();
    NdaControl* control = m_window->ndaControl();
    QSignalSpy done(controller, &DeviceController::modeChangesDone);
    m_window->doScanAllPorts();
    QTRY_COMPARE_WITH_TIMEOUT(m_window->deviceModel()->rowCount(), 3, 20000);
    QVERIFY(modeChangesSettle(controller, done, 0)); // the scan's measurement
    QTRY_COMPARE_WITH_TIMEOUT(controller->numberOfMeasuringDevices(), size_t(3), 10000);

    // Ctrl+A and Config Mode: all three stop.
    view->setFocus();
    QTest::keyClick(view, Qt::Key_A, Qt::ControlModifier);
    QCOMPARE(m_window->selectedDevices().size(), size_t(3));
    int before = done.count();
    m_window->ui().actionConfigMode->trigger();
    QVERIFY(modeChangesSettle(controller, done, before));
    QTRY_COMPARE_WITH_TIMEOUT(controller->numberOfMeasuringDevices(), size_t(0), 10000);

    // The first device, Ctrl-click the third, Measure: those two measure, the second not.
    clickRow(view, 0, Qt::NoModifier);
    clickRow(view, 2, Qt::ControlModifier);
    const NvDeviceId first = m_window->deviceModel()->deviceId(view->model()->index(0, 0));
    const NvDeviceId second = m_window->deviceModel()->deviceId(view->model()->index(1, 0));
    const NvDeviceId third = m_window->deviceModel()->deviceId(view->model()->index(2, 0));
    before = done.count();
    m_window->ui().actionMeasure->trigger();
    QVERIFY(modeChangesSettle(controller, done, before));
    QTRY_VERIFY_WITH_TIMEOUT(control->isMeasuring(first) && control->isMeasuring(third), 10000);
    QTest::qWait(300); // news of anything else would be here by now
    QVERIFY(!control->isMeasuring(second));
    QCOMPARE(controller->numberOfMeasuringDevices(), size_t(2));

    // Each device that got its row is a usage event.
    m_window->close();
    jlSetGlobalJournal(nullptr);
    journal.flush();
    QFile log(logPath);
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(log.readAll());
    for (const char* code : {"KV-100", "KV-300", "KV-770"})
        QVERIFY2(text.contains(QStringLiteral("[TRACE] Usage: device/DeviceConnected_") +
                               QLatin1String(code)),
                 qPrintable(text));
    qunsetenv("XDG_RUNTIME_DIR");
    qunsetenv("NV_SCAN_SYSTEM_PORTS");
}

void TestKvManager::masterWithoutTrackersIsNoLinkBehind()
{
    kvtest::KvsimProcess sim({"--device", "master:2", "--quiet"});
    QVERIFY(sim.started());
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(sim.runtimeDir()));
    qputenv("NV_SCAN_SYSTEM_PORTS", "0");
    ModalCloser closer;
    const NvDeviceId master = NvDeviceId::fromString(sim.ports()[0].id);
    DeviceController* controller = m_window->deviceController();
    NdaControl* control = m_window->ndaControl();
    QSignalSpy done(controller, &DeviceController::modeChangesDone);
    auto packetsPerSecond = [this] {
        static const QRegularExpression figure(QStringLiteral(", (\\d+) packets/s"));
        return figure.match(m_window->deviceStatusText()).captured(1).toInt();
    };

    // The radio is off after power-up: the master measures with nobody behind it.
    m_window->doScanAllPorts();
    QVERIFY(modeChangesSettle(controller, done, 0));
    QTRY_VERIFY_WITH_TIMEOUT(control->isMeasuring(master), 10000);
    QTest::qWait(1500); // longer than a link may be silent
    QVERIFY2(!m_window->deviceStatusText().contains(QStringLiteral("behind")),
             qPrintable(m_window->deviceStatusText()));
    QTRY_VERIFY(m_window->findChild<QLabel*>(QStringLiteral("deviceCountLabel"))
                    ->toolTip()
                    .contains(QStringLiteral("no tracker measuring")));

    // Its trackers on the radio, scanned again: they measure and the master keeps up.
    int before = done.count();
    m_window->ui().actionConfigMode->trigger();
    QVERIFY(modeChangesSettle(controller, done, before));
    QTRY_VERIFY_WITH_TIMEOUT(!control->isMeasuring(master), 10000);
    QVERIFY(control->enableRadio(master, 11));
    QTRY_COMPARE_WITH_TIMEOUT(control->childDeviceIds(master).size(), size_t(2), 15000);
    before = done.count();
    m_window->doScanAllPorts();
    QVERIFY(modeChangesSettle(controller, done, before));
    QTRY_COMPARE_WITH_TIMEOUT(control->childDeviceIds(master).size(), size_t(2), 15000);
    QTRY_VERIFY_WITH_TIMEOUT(packetsPerSecond() > 150, 10000); // 2 x 100 Hz
    QTest::qWait(1500);
    QVERIFY2(!m_window->deviceStatusText().contains(QStringLiteral("behind")),
             qPrintable(m_window->deviceStatusText()));
    QVERIFY(m_window->findChild<QLabel*>(QStringLiteral("deviceCountLabel"))
                ->toolTip()
                .contains(QStringLiteral("(2 tracker(s))")));
    m_window->close();
    qunsetenv("XDG_RUNTIME_DIR");
    qunsetenv("NV_SCAN_SYSTEM_PORTS");
}

QTEST_MAIN(TestKvManager)
#include "tst_kvmanager.moc"

void TestKvManager::viewsFollowTheSelectionAndTheToggles()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--device", "gnss", "--quiet"});
    QVERIFY(sim.started());
    const ScanOnly scanOnly(sim);
    ModalCloser closer;
    // The kinds of view wanted last time come back.
    m_window.reset();
    QSettings().setValue(QStringLiteral("openViewTypes"), QVariantList{DeviceMessageView});
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    const KvManagerUi& ui = m_window->ui();
    QVERIFY(ui.viewActions[DeviceMessageView]->isChecked());
    QVERIFY(!ui.viewActions[NdaMessageView]->isChecked());
    QVERIFY(!ui.viewActions[PositionView]->isEnabled()); // nothing open yet

    QTreeView* tree = m_window->deviceList()->view();
    tree->setAnimated(false);
    m_window->doScanAllPorts();
    QTRY_COMPARE_WITH_TIMEOUT(m_window->deviceModel()->rowCount(), 2, 20000);
    int ahrsRow = 0, gnssRow = 1;
    if (m_window->deviceModel()->deviceId(tree->model()->index(0, 0)).isGnss())
        std::swap(ahrsRow, gnssRow);
    const NvDeviceId ahrs = m_window->deviceModel()->deviceId(tree->model()->index(ahrsRow, 0));
    const NvDeviceId gnss = m_window->deviceModel()->deviceId(tree->model()->index(gnssRow, 0));

    // The selection after the scan gets the wanted view, and only that device.
    ViewManager* vm = m_window->viewManager();
    QTRY_COMPARE_WITH_TIMEOUT(vm->viewCountInfo(DeviceMessageView), 1u, 10000);
    const NvDeviceId first = m_window->selectedDevices().front();
    QCOMPARE(vm->viewCountInfo(DeviceMessageView, first), 1u);

    // Views follow the selection; GNSS views are offered for the GNSS device only.
    clickRow(tree, gnssRow, Qt::NoModifier);
    QTRY_COMPARE(vm->viewCountInfo(DeviceMessageView, gnss), 1u);
    QTRY_COMPARE(vm->viewCountInfo(DeviceMessageView, ahrs), 0u);
    QVERIFY(ui.viewActions[PositionView]->isEnabled());
    clickRow(tree, ahrsRow, Qt::NoModifier);
    QTRY_COMPARE(vm->viewCountInfo(DeviceMessageView, ahrs), 1u);
    QTRY_COMPARE(vm->viewCountInfo(DeviceMessageView, gnss), 0u);
    QVERIFY(!ui.viewActions[PositionView]->isEnabled());
    QVERIFY(ui.viewActions[InertialView]->isEnabled());

    // A toggle opens its kind for the selection and is remembered.
    ui.viewActions[NdaMessageView]->trigger();
    QCOMPARE(vm->viewCountInfo(NdaMessageView, ahrs), 1u);
    QVERIFY(ui.viewActions[NdaMessageView]->isChecked());
    QVERIFY(QSettings().value(QStringLiteral("openViewTypes")).toList().contains(NdaMessageView));
    ui.viewActions[NdaMessageView]->trigger();
    QTRY_COMPARE(vm->viewCountInfo(NdaMessageView), 0u);
    QVERIFY(!QSettings().value(QStringLiteral("openViewTypes")).toList().contains(NdaMessageView));

    // Closing the last view of a kind by hand unchecks its toggle: it stays closed.
    QMdiSubWindow* window = vm->subWindow(vm->viewList(DeviceMessageView, ahrs).first().data());
    QVERIFY(window);
    window->close();
    QTRY_COMPARE(vm->viewCountInfo(DeviceMessageView), 0u);
    QVERIFY(!ui.viewActions[DeviceMessageView]->isChecked());
    clickRow(tree, gnssRow, Qt::NoModifier);
    QTest::qWait(100);
    QCOMPARE(vm->viewCountInfo(), 0u);

    // Device Settings opens the selected device's dialog; a double-click another's.
    QVERIFY(ui.actionDeviceSettings->isEnabled());
    ui.actionDeviceSettings->trigger();
    KvSettingsDialogManager* dialogs = m_window->settingsDialogManager();
    QTRY_VERIFY(dialogs->settingsDialog(gnss) && dialogs->settingsDialog(gnss)->isVisible());
    // A double click is a press, then the double-click event on the same row.
    const QPoint ahrsCenter = tree->visualRect(tree->model()->index(ahrsRow, 0)).center();
    QTest::mousePress(tree->viewport(), Qt::LeftButton, {}, ahrsCenter);
    QTest::mouseDClick(tree->viewport(), Qt::LeftButton, {}, ahrsCenter);
    QTRY_VERIFY(dialogs->settingsDialog(ahrs) && dialogs->settingsDialog(ahrs)->isVisible());
    QCOMPARE(dialogs->dialogCount(), size_t(2));
    dialogs->settingsDialog(ahrs)->close();
    dialogs->settingsDialog(gnss)->close();
    QTRY_COMPARE(dialogs->dialogCount(), size_t(0));
    clickRow(tree, gnssRow, Qt::NoModifier);

    // Closing the window takes every view down with the devices.
    ui.viewActions[DeviceMessageView]->trigger();
    QCOMPARE(vm->viewCountInfo(DeviceMessageView, gnss), 1u);
    m_window->close();
    QCOMPARE(vm->viewCountInfo(), 0u);
}

void TestKvManager::outputChosenInTheSettingsDialogReachesTheViews()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
    QVERIFY(sim.started());
    const ScanOnly scanOnly(sim);
    ModalCloser closer;
    m_window.reset();
    QSettings().setValue(QStringLiteral("openViewTypes"), QVariantList{InertialView});
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    m_window->resize(1280, 800);
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    m_window->doScanAllPorts();
    const NvDeviceId ahrs = NvDeviceId::fromString(sim.ports()[0].id);
    ViewManager* vm = m_window->viewManager();
    QTRY_COMPARE_WITH_TIMEOUT(vm->viewCountInfo(InertialView, ahrs), 1u, 20000);
    QTRY_VERIFY_WITH_TIMEOUT(m_window->ndaControl()->isMeasuring(ahrs), 10000);

    // Device Settings, Output Configuration: quaternion at 100 Hz, acceleration at 400 Hz.
    m_window->ui().actionDeviceSettings->trigger();
    KvSettingsDialog* dialog = m_window->settingsDialogManager()->settingsDialog(ahrs);
    QVERIFY(dialog);
    KvSettingsOptionsPage* page = dialog->page(QStringLiteral("OutputConfiguration"));
    QVERIFY(page);
    for (const char* name : {"inertialGyrCheckBox", "magFieldCheckBox", "statusWordCheckBox"}) {
        auto* box = page->findChild<QCheckBox*>(QLatin1String(name));
        QVERIFY2(box && box->isChecked(), name);
        box->click();
    }
    auto* ori = page->findChild<QComboBox*>(QStringLiteral("oriFormatComboBox"));
    ori->setCurrentIndex(ori->findText(QStringLiteral("Quaternion")));
    for (auto [name, hz] : {std::pair{"oriFreqComboBox", 100}, {"inertialAccFreqComboBox", 400}}) {
        auto* rate = page->findChild<QComboBox*>(QLatin1String(name));
        QVERIFY(rate);
        rate->setCurrentIndex(rate->findText(QStringLiteral("%1 Hz").arg(hz)));
        QCOMPARE(rate->currentText(), QStringLiteral("%1 Hz").arg(hz));
    }
    dialog->treeWidget()->setCurrentItem(dialog->treeWidget()->findItems(
        QStringLiteral("Output Configuration"), Qt::MatchRecursive)[0]);
    QVERIFY(dialog->applyButton()->isEnabled());
    if (const QByteArray dir = qgetenv("KV_SCREENSHOT_DIR"); !dir.isEmpty())
        dialog->grab().save(QString::fromLocal8Bit(dir) + QStringLiteral("/settings-dialog.png"));
    dialog->applyButton()->click();
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('/'))));

    // The device measures again with the new output; a view opened now shows acceleration
    // and never a rate of turn.
    QTRY_VERIFY_WITH_TIMEOUT(m_window->ndaControl()->isMeasuring(ahrs), 10000);
    const NvOutputConfigurationArray config = m_window->ndaControl()->outputConfiguration(ahrs);
    QVERIFY(std::any_of(config.begin(), config.end(), [](const NvOutputConfiguration& c) {
        return nvQuantity(c.dataIdentifier) == nvQuantity(NDI_QUATERNION) && c.frequency == 100;
    }));
    QTest::qWait(300); // packets sent before the change are still on their way
    vm->closeAndReopenViews(InertialView, ahrs);
    auto* inertial =
        qobject_cast<InertialDataViewer*>(vm->viewList(InertialView, ahrs).first().data());
    QVERIFY(inertial);
    QTRY_VERIFY_WITH_TIMEOUT(inertial->packetsProcessed() > 100, 10000);
    // Lanes: acceleration x, y, z, then rate of turn x, y, z.
    const QVector<double> values = inertial->latestValues();
    QVERIFY(values.size() >= 6);
    for (int i = 0; i < 3; ++i) {
        QVERIFY(!std::isnan(values[i]));
        QVERIFY(std::isnan(values[i + 3]));
    }
    dialog->close();
}

void TestKvManager::optionsTakeEffectWhenApplied()
{
    QVERIFY(!m_window->plotManager()->options().strobes);
    bool seen = false;
    QTimer::singleShot(50, this, [&seen] {
        auto* dialog = qobject_cast<SettingsDialog*>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        seen = true;
        dialog->showPage(QStringLiteral("PlottingOptions"));
        dialog->currentPage()
            ->findChild<QCheckBox*>(QStringLiteral("graphStyleCheckBox"))
            ->setChecked(true);
        dialog->accept();
    });
    m_window->ui().actionOptions->trigger();
    QVERIFY(seen);
    QVERIFY(m_window->plotManager()->options().strobes);
    QCOMPARE(QSettings().value(QStringLiteral("graphStyle")).toInt(), 256);
}

void TestKvManager::recordButtonRecordsIntoTheChosenFolder()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
    QVERIFY(sim.started());
    const ScanOnly scanOnly(sim);
    ModalCloser closer;
    QTemporaryDir folder;
    m_window.reset();
    QSettings().setValue(QStringLiteral("recordingDirectory"), folder.path());
    QSettings().setValue(QStringLiteral("openViewTypes"), QVariantList{});
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    QCOMPARE(m_window->fileRecordManager()->currentDirectory(), folder.path());
    QVERIFY(!m_window->ui().actionRecord->isEnabled()); // nothing measures yet
    m_window->doScanAllPorts();
    const NvDeviceId ahrs = NvDeviceId::fromString(sim.ports()[0].id);
    QTRY_VERIFY_WITH_TIMEOUT(m_window->ndaControl()->isMeasuring(ahrs), 20000);
    QTRY_VERIFY(m_window->ui().actionRecord->isEnabled());

    m_window->ui().actionRecord->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(m_window->fileRecordManager()->recordingState(), 10000);
    QVERIFY(m_window->ui().actionRecord->isChecked());
    QTRY_COMPARE(m_window->recordingIndicatorText(), QStringLiteral("REC [1]"));
    QVERIFY(!m_window->currentDirectoryWidget()->isEnabled());
    QTest::qWait(500);
    m_window->ui().actionRecord->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->fileRecordManager()->recordingState(), 10000);
    QVERIFY(!m_window->ui().actionRecord->isChecked());
    QTRY_COMPARE(m_window->recordingIndicatorText(), QString());

    // The default pattern: the device, then the first free trial number.
    const QFileInfo file(
        QDir(folder.path())
            .filePath(
                QStringLiteral("KV_%1_000.kvb").arg(QString::fromStdString(ahrs.toString()))));
    QTRY_VERIFY(file.exists());
    QTRY_VERIFY(QFileInfo(file.filePath()).size() > 1000);
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('/'))));
}

// The whole journey: record emulated devices with the record button, open the recording,
// play it back into a view, export it with the text plug-in, and find every sample the
// devices sent in the file, in order, each value within its format's resolution.
void TestKvManager::recordPlayBackAndExportEverySample()
{
    QTemporaryDir folder;
    const QString truthPath = folder.filePath(QStringLiteral("truth.csv"));
    kvtest::KvsimProcess sim(
        {"--device", "ahrs", "--device", "gnss", "--truth", truthPath.toStdString(), "--quiet"});
    QVERIFY(sim.started());
    const ScanOnly scanOnly(sim);
    ModalCloser closer;
    m_window.reset();
    QSettings().setValue(QStringLiteral("recordingDirectory"), folder.path());
    QSettings().setValue(QStringLiteral("openViewTypes"), QVariantList{InertialView});
    QSettings().setValue(QStringLiteral("filePlayAllDataFast"), true);
    QSettings().setValue(QStringLiteral("filePlayRealtime"), false);
    m_window = std::make_unique<KvManager>(UpdateServerOptions());
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    m_window->doScanAllPorts();
    const NvDeviceId ahrs = NvDeviceId::fromString(sim.ports()[0].id);
    const NvDeviceId gnss = NvDeviceId::fromString(sim.ports()[1].id);
    QTRY_VERIFY_WITH_TIMEOUT(m_window->ndaControl()->isMeasuring(ahrs) &&
                                 m_window->ndaControl()->isMeasuring(gnss),
                             20000);

    // Record two seconds.
    m_window->ui().actionRecord->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(m_window->fileRecordManager()->recordingState(), 10000);
    QTest::qWait(2000);
    m_window->ui().actionRecord->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->fileRecordManager()->recordingState(), 10000);
    const QString recording =
        QDir(folder.path())
            .filePath(QStringLiteral("KV_%1_000.kvb").arg(QString::fromStdString(ahrs.toString())));
    QTRY_VERIFY(QFileInfo(recording).size() > 10000);

    // Open it: the live devices make way, the recording's device shows in the tree.
    m_window->loadFile(recording);
    FilePlaybackManager* playback = m_window->filePlaybackManager();
    QTRY_VERIFY_WITH_TIMEOUT(playback->isFileLoaded() && !playback->isLoading(), 20000);
    QCOMPARE(m_window->currentFileName(), recording);
    QVERIFY(m_window->windowTitle().contains(recording));
    QVERIFY(m_window->ui().actionExport->isEnabled());
    QTRY_COMPARE(m_window->deviceModel()->rowCount(), 1);
    QVERIFY(playback->frameCount() >= 150); // two seconds at 100 Hz

    // Play it back as fast as it goes: the inertial view gets the samples.
    QTRY_COMPARE_WITH_TIMEOUT(m_window->viewManager()->viewCountInfo(InertialView, ahrs), 1u,
                              10000);
    auto* view = qobject_cast<InertialDataViewer*>(
        m_window->viewManager()->viewList(InertialView, ahrs).first().data());
    QVERIFY(view);
    m_window->ui().actionPlay->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(!playback->isPlaying(), 20000);
    QCOMPARE(playback->currentFrameIndex() + 1, playback->frameCount());
    QCOMPARE(m_window->playbackSlider()->value(), m_window->playbackSlider()->maximum());
    QVERIFY(view->packetsProcessed() >= playback->frameCount() - 1);
    QVERIFY(!std::isnan(view->latestValues().value(0)));

    // Export with the text plug-in.
    AbstractExporterFactory* text = nullptr;
    for (AbstractExporterFactory* f :
         m_window->pluginManager()->pluginsOf<AbstractExporterFactory>())
        if (f->name() == QLatin1String("text"))
            text = f;
    QVERIFY2(text, "the text exporter is installed next to the application");
    ExportWorker worker(*m_window->ndaControl());
    worker.setExporterFactory(text);
    worker.setFileName(recording);
    worker.setOutputFolder(folder.path());
    worker.run();
    QCOMPARE(worker.outcome(), ExportWorker::Completed);
    QCOMPARE(worker.writtenFiles().size(), 1);

    QFile csvFile(worker.writtenFiles().first());
    QVERIFY(csvFile.open(QIODevice::ReadOnly | QIODevice::Text));
    QStringList header;
    QList<QStringList> rows;
    while (!csvFile.atEnd()) {
        const QString line = QString::fromUtf8(csvFile.readLine()).trimmed();
        if (line.startsWith(QLatin1String("//")))
            continue;
        if (header.isEmpty())
            header = line.split(QLatin1Char(','));
        else
            rows << line.split(QLatin1Char(','));
    }
    const auto column = [&header](const QString& prefix) {
        for (int i = 0; i < header.size(); ++i)
            if (header[i].startsWith(prefix))
                return i;
        return -1;
    };
    const int stf = column(QStringLiteral("SampleTimeFine"));
    const int counter = column(QStringLiteral("PacketCounter"));
    const int accX = column(QStringLiteral("Acc_"));
    const int q0 = column(QStringLiteral("Quat_q0"));
    QVERIFY(stf >= 0 && counter >= 0 && accX >= 0 && q0 >= 0);

    QTest::qWait(400); // the truth file is written every 200 ms
    kvtest::TruthTable truth;
    QVERIFY(truth.load(truthPath.toStdString()));
    std::map<long long, const std::vector<std::string>*> sent;
    for (const auto* row : truth.rowsOf(ahrs.toString()))
        if (truth.text(*row, "output") == "binary" && truth.text(*row, "status") == "sent")
            sent[(long long)truth.number(*row, "sample_time_fine")] = row;
    long long previous = -1;
    for (const QStringList& row : rows) {
        const long long ticks = row[stf].toLongLong();
        QVERIFY2(ticks > previous, "in order");
        previous = ticks;
        const auto found = sent.find(ticks);
        QVERIFY2(found != sent.end(), qPrintable(QStringLiteral("sample at %1").arg(ticks)));
        const auto& t = *found->second;
        QCOMPARE(row[counter].toLongLong(), (long long)truth.number(t, "counter") % 65536);
        const std::pair<int, const char*> checks[] = {
            {accX, "acc_x"}, {accX + 1, "acc_y"}, {accX + 2, "acc_z"}, {q0, "q0"}};
        for (const auto& [c, name] : checks) {
            const double expected = truth.number(t, name);
            // float32: 2^-24 relative.
            QVERIFY2(std::abs(row[c].toDouble() - expected) <=
                         std::abs(expected) * std::ldexp(1.0, -23) + 1e-12,
                     name);
        }
    }
    // None missing between the first and the last exported sample.
    const long long first = rows.first()[stf].toLongLong();
    int expectedRows = 0;
    for (auto it = sent.lower_bound(first); it != sent.end() && it->first <= previous; ++it)
        ++expectedRows;
    QCOMPARE(rows.size(), expectedRows);
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('/'))));
}

void TestKvManager::protocolToolsOpenForTheSelectedDevice()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
    QVERIFY(sim.started());
    const ScanOnly scanOnly(sim);
    ModalCloser closer;
    // The definition file lies beside the program and describes every message.
    QVERIFY(m_window->messagesStructure());
    QVERIFY(!m_window->messagesStructure()->isEmpty());
    QVERIFY(m_window->messagesStructure()->parseErrors().empty());
    QVERIFY(!m_window->ui().actionMessageViewer->isEnabled());

    m_window->doScanAllPorts();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->selectedDevices().empty(), 20000);
    for (QAction* tool : {m_window->ui().actionMessageViewer, m_window->ui().actionPacketViewer,
                          m_window->ui().actionMessageComposer}) {
        QVERIFY(tool->isEnabled());
        tool->trigger();
    }
    const QList<QWidget*> windows = m_window->toolWindows();
    QCOMPARE(windows.size(), 3);
    const QString id = QString::fromStdString(m_window->selectedDevices().front().toString());
    for (QWidget* w : windows) {
        QVERIFY(w->isVisible());
        QVERIFY2(w->windowTitle().contains(id), qPrintable(w->windowTitle()));
    }
    if (const QByteArray dir = qgetenv("KV_SCREENSHOT_DIR"); !dir.isEmpty()) {
        QTest::qWait(1500); // some traffic to show
        for (QWidget* w : windows)
            w->grab().save(QString::fromLocal8Bit(dir) + QLatin1Char('/') +
                           w->metaObject()->className() + QStringLiteral(".png"));
    }
    // Closing the main window takes them along before the devices go.
    m_window->close();
    QVERIFY(m_window->toolWindows().isEmpty());
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('/'))));
}
