#include "kvmanager.h"

#include "animatedicon.h"
#include "batchexportdialog.h"
#include "currentdirectorywidget.h"
#include "deviceitem.h"
#include "devicelist.h"
#include "devicemodel.h"
#include "dialogmanagers.h"
#include "exportdialog.h"
#include "fileloadingwidget.h"
#include "filenamepattern.h"
#include "fileplaybackmanager.h"
#include "filerecordmanager.h"
#include "hardwarescanner.h"
#include "journaller.h"
#include "kvmanagerhelpers.h"
#include "kvsettingsdialog.h"
#include "messagecomposerwidget.h"
#include "messageviewerwidget.h"
#include "messagewindow.h"
#include "nivradeviceapi.h"
#include "nvmessagesstructure.h"
#include "packetviewerwidget.h"
#include "plotmanager.h"
#include "pluginmanager.h"
#include "settingsdialog.h"
#include "settingssynchronizer.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDateTime>
#include <QDir>
#include <QDockWidget>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QLabel>
#include <QMdiArea>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QRegularExpression>
#include <QScreen>
#include <QSettings>
#include <QSlider>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTimer>
#include <QToolBar>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>

#include <climits>

// Registered in this order at static initialisation, before any window exists.
const QEvent::Type KvManager::ConfigurationChangedEvent::eventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type KvManager::OpenFileFailedEvent::eventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type KvManager::ExportFailedEvent::eventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());
const QEvent::Type KvManager::RecordFailedEvent::eventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());

namespace {

const char* const recentFilesKey = "recentFiles";

void journal(JournalLogLevel level, const QString& text)
{
    jlLog(level, text.toStdString());
}

} // namespace

KvManager::KvManager(UpdateServerOptions updateServer, QWidget* parent, Qt::WindowFlags flags)
    : QMainWindow(parent, flags), m_updateServer(std::move(updateServer))
{
    m_pluginManager = new PluginManager(this);
    construct();

    setupHelpMenu();
    fixUiObjectNames();

    m_deviceListDock->show();
    m_messageWindow->show();
    m_messageWindowDock->show();
    m_scanLogWindowDock->hide();

    loadPlugins();
    setAcceptDrops(true);
    applyDefaultLayout();
    loadWindowSettings();
    show();

    readAdvancedSettings();

    QList<QIcon> frames;
    for (int i = 1; i <= 4; ++i)
        frames.append(
            QIcon(QStringLiteral(":/kvmanager/Resources/playbackToolbar/recording%1-32n").arg(i)));
    m_recordIcon = new AnimatedIcon(
        m_ui.actionRecord, frames,
        QIcon(QStringLiteral(":/kvmanager/Resources/playbackToolbar/record-32n")), 100, this);

    runUpdateCheck(m_updateServer, this);
}

KvManager::~KvManager()
{
    destruct();
}

void KvManager::construct()
{
    constructUi();
    constructToolBarWidgets();
    constructStatusBarWidgets();
    constructNdaControl();
    constructDeviceController();
    constructDeviceModel();
    constructDeviceList();
    constructViewManager();
    constructDialogManagers();
    constructProtocolTools();
    constructFilePlaybackManager();
    constructFileRecordManager();
    constructPlotManager();
    constructHardwareScanner();
    constructRecentFileMenu();
    constructMessageWindow();
    constructScanLogWindow();

    m_filterOptionsCallback = new KvmFilterOptionsCallback(this);
    // Queued: these are the entry points for requests from other threads.
    connect(this, &KvManager::portScanRequested, this, &KvManager::handlePortScanRequested,
            Qt::QueuedConnection);
    connect(this, &KvManager::loadFileRequested, this, &KvManager::handleLoadFileRequested,
            Qt::QueuedConnection);
    connectUi();
}

void KvManager::destruct()
{
    delete m_filterOptionsCallback;
    m_filterOptionsCallback = nullptr;
    destructStatusBarWidgets();

    destructScanLogWindow();
    destructMessageWindow();
    destructRecentFileMenu();
    destructHardwareScanner();
    destructPlotManager();
    destructFileRecordManager();
    destructFilePlaybackManager();
    destructProtocolTools();
    destructDialogManagers();
    destructViewManager();
    destructDeviceList();
    destructDeviceModel();
    destructDeviceController();
    destructNdaControl();
    destructToolBarWidgets();
}

// ---- device control ----------------------------------------------------------------------

void KvManager::constructNdaControl()
{
    m_ndaControl = new NdaControl();
    NdaControl* c = m_ndaControl;
    connect(c, &NdaControl::aboutToClose, this, &KvManager::handleNdaAboutToClose);
    connect(c, &NdaControl::closed, this, &KvManager::handleNdaClosed);
    connect(c, &NdaCallback::kvwDisconnected, this, &KvManager::handleKvwDisconnect);
    connect(c, &NdaCallback::error, this, &KvManager::handleDeviceError);
    connect(c, &NdaCallback::warning, this, &KvManager::handleDeviceWarning);
    connect(c, &NdaCallback::samplesMissed, this, &KvManager::handleSamplesMissed);
    connect(c, &NdaCallback::dataUnavailable, this, &KvManager::handleDataUnavailable);
    connect(c, &NdaCallback::wakeupReceived, this, &KvManager::handleWakeupReceived);
    // A device that went away (unplugged) leaves the status bar's count.
    connect(c, &NdaControl::deviceDestroyedByNda, this, [this](const NvDeviceId& id) {
        m_heldDevices.erase(std::remove(m_heldDevices.begin(), m_heldDevices.end(), id),
                            m_heldDevices.end());
        updateDeviceStatus();
    });
    m_deviceStatusTimer = new QTimer(this);
    m_deviceStatusTimer->setInterval(500);
    connect(m_deviceStatusTimer, &QTimer::timeout, this, &KvManager::updateDeviceStatus);
    m_deviceStatusTimer->start();
}

void KvManager::destructNdaControl()
{
    delete m_deviceStatusTimer;
    m_deviceStatusTimer = nullptr;
    releaseHeldDevices();
    delete m_ndaControl;
    m_ndaControl = nullptr;
}

void KvManager::constructDeviceController()
{
    m_deviceController = new DeviceController(*this, *m_ndaControl);
    connect(m_deviceController, &DeviceController::numberOfMeasuringDevicesChanged, this,
            &KvManager::handleNumberOfMeasuringDevicesChanged);
}

void KvManager::destructDeviceController()
{
    delete m_deviceController;
    m_deviceController = nullptr;
}

void KvManager::constructHardwareScanner()
{
    m_hardwareScanner = new HardwareScanner(*m_ndaControl, this);
    HardwareScanner* h = m_hardwareScanner;
    connect(h, &HardwareScanner::scanForHardwareCompleted, this,
            &KvManager::handleScanForHardwareCompleted);
    connect(h, &HardwareScanner::scanForHardwareAborted, this,
            &KvManager::handleScanForHardwareAborted);
    connect(h, &HardwareScanner::scanForHardwareProgressChanged, this,
            &KvManager::handleScanForHardwareProgressChanged);
    connect(h, &HardwareScanner::scanForHardwareStateChanged, this,
            &KvManager::handleScanForHardwareStateChanged);
    connect(h, &HardwareScanner::scanLogEvent, this, &KvManager::addMessageToScanLog);
    // allowNonNivraDevices: what talks on a port without speaking Nbus is named, not opened.
    connect(h, &HardwareScanner::foreignDeviceFound, this,
            [this](const QString& port, const QString& description) {
                addMessageToMessageWindow(tr("Port %1: %2 (not opened)").arg(port, description));
            });
}

void KvManager::destructHardwareScanner()
{
    delete m_hardwareScanner;
    m_hardwareScanner = nullptr;
}

void KvManager::holdOpenDevices()
{
    releaseHeldDevices();
    bool trackers = false, gnss = false;
    for (const NvDeviceId& id : m_ndaControl->mainDeviceIds()) {
        if (m_ndaControl->requestDevice(id).isValid())
            m_heldDevices.push_back(id);
        else
            m_ndaControl->releaseDevice(id);
        trackers = trackers || m_ndaControl->isMasterDevice(id);
        gnss = gnss || (id.isGnss() && !m_ndaControl->isReadingFromFile(id));
    }
    // Levels and satellites are only asked for while there is someone to answer.
    if (trackers)
        startSendingBatteryRequests();
    if (gnss)
        startSendingGpsStatusRequests();
    updateDeviceStatus();
}

void KvManager::releaseHeldDevices()
{
    const NvDeviceIdArray held = std::exchange(m_heldDevices, {});
    for (const NvDeviceId& id : held)
        m_ndaControl->releaseDevice(id);
}

QString KvManager::deviceStatusText() const
{
    if (m_filePlaybackManager && m_filePlaybackManager->isFileLoaded()) {
        // A recording: where playback stands instead of link figures.
        const FilePlaybackManager* p = m_filePlaybackManager;
        const quint64 frames = p->frameCount();
        return tr("Recording, frame %1 of %2%3")
            .arg(frames ? p->currentFrameIndex() + 1 : 0)
            .arg(frames)
            .arg(p->isPlaying() && !p->isPaused() ? tr(", playing") : QString());
    }
    if (!m_ndaControl || m_heldDevices.empty())
        return tr("No devices");
    double packetsPerSecond = 0;
    quint64 missed = 0;
    int silent = 0;
    for (const NvDeviceId& id : m_heldDevices) {
        const NdaLinkHealth h = m_ndaControl->linkHealth(id);
        packetsPerSecond += h.packetsPerSecond;
        missed += h.missed;
        if (m_ndaControl->isMeasuring(id) && !h.isHealthy())
            ++silent;
    }
    QString text = tr("%n device(s)", nullptr, int(m_heldDevices.size()));
    text += tr(", %1 packets/s").arg(qRound(packetsPerSecond));
    if (missed > 0)
        text += tr(", %1 missed").arg(missed);
    if (silent > 0)
        text += tr(", %n link(s) behind", nullptr, silent);
    return text;
}

void KvManager::updateDeviceStatus()
{
    if (!m_deviceCountLabel || !m_ndaControl)
        return;
    m_deviceCountLabel->setText(deviceStatusText());
    QStringList details;
    for (const NvDeviceId& id : m_heldDevices) {
        const NdaLinkHealth h = m_ndaControl->linkHealth(id);
        if (h.trackers == 0) {
            details << tr("%1: no tracker measuring").arg(QString::fromStdString(id.toString()));
            continue;
        }
        const QString device = h.isMaster() ? tr("%1 (%n tracker(s))", nullptr, h.trackers)
                                                  .arg(QString::fromStdString(id.toString()))
                                            : QString::fromStdString(id.toString());
        details << tr("%1: %2 of %3 Hz, %4 missed, %5 checksum errors, last packet %6")
                       .arg(device)
                       .arg(h.packetsPerSecond, 0, 'f', 0)
                       .arg(h.configuredRate)
                       .arg(h.missed)
                       .arg(h.checksumErrors)
                       .arg(h.msSinceLastPacket < 0 ? tr("never")
                                                    : tr("%1 ms ago").arg(h.msSinceLastPacket));
    }
    m_deviceCountLabel->setToolTip(details.join(QLatin1Char('\n')));
}

QString KvManager::generateLogFileName(const NvDeviceId& id)
{
    const QString folder = m_fileRecordManager ? m_fileRecordManager->currentDirectory()
                                               : CurrentDirectoryWidget::storedDirectory();
    return ::generateLogFileName(folder, LogFileName::storedPattern(), id,
                                 m_ndaControl->productCode(id), QDateTime::currentDateTime());
}

QString KvManager::checkExistingFilename(const QString& name)
{
    // The trial number already found a free name; a pattern without one names the same
    // file each time, and the user asked for exactly that.
    return name;
}

// ---- device notifications ------------------------------------------------------------------

void KvManager::handleDeviceError(const NvDeviceId& id, NvResultValue result)
{
    const QString device = QString::fromStdString(id.toString());
    const QString text = QString::fromUtf8(NvResultValue_toString(result));
    switch (int(result)) {
    case 41:
        addMessageToMessageWindow(tr("WARNING: Device: %1: Data Overflow detected. Sample times "
                                     "may not be correct. Selected baudrate may be too low.")
                                      .arg(device),
                                  true);
        break;
    case 42:
    case 305:
        addMessageToMessageWindow(tr("ERROR: Device: %1: %2.").arg(device, text), true);
        break;
    default:
        addMessageToMessageWindow(tr("WARNING: Device: %1: %2.").arg(device, text), false);
        break;
    }
}

void KvManager::handleDeviceWarning(const NvDeviceId& id, NvResultValue result)
{
    addMessageToMessageWindow(tr("WARNING: Device: %1: %2.")
                                  .arg(QString::fromStdString(id.toString()),
                                       QString::fromUtf8(NvResultValue_toString(result))),
                              false);
}

void KvManager::handleSamplesMissed(const NvDeviceId&, int) {}

void KvManager::handleDataUnavailable(const NvDeviceId& id, int sampleTime)
{
    addMessageToMessageWindow(tr("WARNING: Packet %1 unavailable for device %2")
                                  .arg(sampleTime)
                                  .arg(QString::fromStdString(id.toString())));
}

void KvManager::handleWakeupReceived(const NvDeviceId& id)
{
    if (m_messageOnWakeup)
        addMessageToMessageWindow(
            tr("Device %1 has reset").arg(QString::fromStdString(id.toString())));
}

void KvManager::handleKvwDisconnect(const KvwInfo& info)
{
    if (info.deviceId.isLegacy())
        addMessageToMessageWindow(tr("Lost connection to device %1")
                                      .arg(QString::fromStdString(info.deviceId.toString())));
    else
        addMessageToMessageWindow(tr("Master Device %1 lost its connection to KV %2")
                                      .arg(QString::fromStdString(info.masterId.toString()),
                                           QString::fromStdString(info.deviceId.toString())));
}

void KvManager::handleNdaAboutToClose()
{
    stopSendingBatteryRequests();
    stopSendingGpsStatusRequests();
    releaseHeldDevices();
    statusBar()->showMessage(tr("Closing devices. Please wait... "));
}

void KvManager::handleNdaClosed()
{
    reloadDeviceList();
    statusBar()->clearMessage();
    updateDeviceStatus();
}

void KvManager::handleScanForHardwareCompleted()
{
    statusBar()->showMessage(tr("Reloading devices. Please wait... "));
    holdOpenDevices();
    // The tree reads what it shows from the devices while they are still in configuration;
    // then they measure (on the controller's thread), followers before the devices they
    // follow.
    reloadDeviceList();
    m_deviceController->gotoMeasurementAll();
    statusBar()->clearMessage();
}

void KvManager::handleScanForHardwareAborted()
{
    statusBar()->showMessage(tr("Reloading devices. Please wait... "));
    holdOpenDevices();
    reloadDeviceList();
    statusBar()->clearMessage();
}

void KvManager::handleScanForHardwareProgressChanged(int progress)
{
    m_scanProgress->setValue(progress);
}

void KvManager::handleScanForHardwareStateChanged(bool scanning)
{
    m_scanProgress->setVisible(scanning);
    m_ui.actionScanAllPorts->setEnabled(!scanning);
}

void KvManager::handleNumberOfRecordingDevicesChanged(size_t, size_t current)
{
    m_recordingDevices = current;
    updateRecordingIndicator();
}

void KvManager::handleNumberOfWaitingForRecordingStartDevicesChanged(size_t, size_t current)
{
    m_waitingDevices = current;
    updateRecordingIndicator();
}

QString KvManager::recordingIndicatorText() const
{
    if (m_waitingDevices > 0)
        return tr("REC WAITING FOR SYNC [%1]").arg(m_waitingDevices);
    if (m_recordingDevices > 0)
        return tr("REC [%1]").arg(m_recordingDevices);
    return QString();
}

void KvManager::updateRecordingIndicator()
{
    const QString text = recordingIndicatorText();
    if (text.isEmpty()) {
        m_recordingIndicator->hide();
        return;
    }
    const QString image =
        m_waitingDevices > 0
            ? QStringLiteral(":/kvmanager/Resources/playbackToolbar/recordingpause-32n.png")
            : QStringLiteral(":/kvmanager/Resources/playbackToolbar/record-32n.png");
    m_recordingIndicator->setText(
        QStringLiteral("<img src=\"%1\" width=\"16\" height=\"16\"> %2").arg(image, text));
    m_recordingIndicator->show();
}

void KvManager::handleWirelessRadioOff()
{
    for (const NvDeviceId& id : m_ndaControl->wirelessMasterIds())
        if (!m_ndaControl->isRadioEnabled(id))
            emit portScanRequested(m_ndaControl->getPortName(id), 0);
}

void KvManager::handleFileClosed(const NvDeviceId&)
{
    handleFileClosed();
}

void KvManager::startSendingBatteryRequests()
{
    if (m_batteryTimer)
        return;
    m_batteryTimer = new QTimer(this);
    m_batteryTimer->setInterval(500);
    connect(m_batteryTimer, &QTimer::timeout, this, [this] {
        for (const NvDeviceId& id : m_ndaControl->deviceIds())
            if (id.isWirelessTracker())
                m_ndaControl->requestBatteryLevel(id);
    });
    m_batteryTimer->start();
}

void KvManager::stopSendingBatteryRequests()
{
    delete m_batteryTimer;
    m_batteryTimer = nullptr;
}

void KvManager::startSendingGpsStatusRequests()
{
    if (m_gpsStatusTimer)
        return;
    m_gpsStatusTimer = new QTimer(this);
    m_gpsStatusTimer->setInterval(2000);
    connect(m_gpsStatusTimer, &QTimer::timeout, this, [this] {
        for (const NvDeviceId& id : m_ndaControl->mainDeviceIds())
            if (id.isGnss() && !m_ndaControl->isReadingFromFile(id))
                m_ndaControl->requestGpsStatus(id);
    });
    m_gpsStatusTimer->start();
}

void KvManager::stopSendingGpsStatusRequests()
{
    delete m_gpsStatusTimer;
    m_gpsStatusTimer = nullptr;
}

void KvManager::handleNumberOfMeasuringDevicesChanged(size_t, size_t current)
{
    journal(JLL_DEBUG, QStringLiteral("%1 device(s) measuring").arg(current));
    updateDeviceStatus();
    // Something to record, or a recording to stop.
    m_ui.actionRecord->setEnabled(current > 0 ||
                                  (m_fileRecordManager && m_fileRecordManager->recordingState()));
}

void KvManager::constructUi()
{
    m_ui.setupUi(this);
    updateWindowTitle();
}

void KvManager::constructToolBarWidgets()
{
    m_ui.mainToolBar->setToolButtonStyle(Qt::ToolButtonIconOnly);
    m_ui.playbackToolBar->setToolButtonStyle(Qt::ToolButtonIconOnly);
}

void KvManager::destructToolBarWidgets() {}

void KvManager::constructStatusBarWidgets()
{
    m_scanProgress = new QProgressBar(this);
    m_scanProgress->setObjectName(QStringLiteral("scanProgress"));
    m_scanProgress->setRange(0, 100);
    m_scanProgress->setMaximumWidth(160);
    m_scanProgress->setFormat(tr("Scanning %p%"));
    m_scanProgress->hide();
    statusBar()->addPermanentWidget(m_scanProgress);

    m_recordingIndicator = new QLabel(this);
    m_recordingIndicator->setObjectName(QStringLiteral("recordingIndicator"));
    m_recordingIndicator->hide();
    statusBar()->addPermanentWidget(m_recordingIndicator);

    m_deviceCountLabel = new QLabel(tr("No devices"), this);
    m_deviceCountLabel->setObjectName(QStringLiteral("deviceCountLabel"));
    statusBar()->addPermanentWidget(m_deviceCountLabel);
}

void KvManager::destructStatusBarWidgets()
{
    delete m_scanProgress;
    m_scanProgress = nullptr;
    delete m_recordingIndicator;
    m_recordingIndicator = nullptr;
    delete m_deviceCountLabel;
    m_deviceCountLabel = nullptr;
}

QDockWidget* KvManager::makeToolDock(const QString& title, const QString& objectName,
                                     QWidget* content, QAction* toggle)
{
    auto* dock = new QDockWidget(title, this);
    dock->setObjectName(objectName);
    dock->setWidget(content);
    dock->setAllowedAreas(Qt::RightDockWidgetArea | Qt::TopDockWidgetArea |
                          Qt::BottomDockWidgetArea);
    dock->setFeatures(QDockWidget::DockWidgetClosable);
    addDockWidget(Qt::BottomDockWidgetArea, dock);
    connect(dock, &QDockWidget::visibilityChanged, toggle, [toggle](bool visible) {
        QSignalBlocker blocker(toggle);
        toggle->setChecked(visible);
    });
    return dock;
}

void KvManager::constructDeviceModel()
{
    m_deviceModel = new DeviceModel(*m_ndaControl, this);
    connect(m_deviceModel, &DeviceModel::deviceConnected, this, [](const NvDeviceId& id) {
        const std::string code = id.productCode();
        UsageStatistics::logEvent(
            QStringLiteral("device"),
            QStringLiteral("DeviceConnected_%1")
                .arg(QString::fromStdString(code.empty() ? id.typeName() : code)));
    });
    // Trackers call in one after another once a radio is on: one rebuild for a burst.
    m_trackerReloadTimer = new QTimer(this);
    m_trackerReloadTimer->setSingleShot(true);
    m_trackerReloadTimer->setInterval(250);
    connect(m_trackerReloadTimer, &QTimer::timeout, this, [this] {
        if (m_deviceList && m_ndaControl && !m_ndaControl->isReadingFromFile())
            reloadDeviceList();
    });
    connect(m_deviceModel, &DeviceModel::trackersChanged, m_trackerReloadTimer,
            qOverload<>(&QTimer::start));
}

void KvManager::destructDeviceModel()
{
    delete m_trackerReloadTimer;
    m_trackerReloadTimer = nullptr;
    // Its rows hold devices: it goes before the device control.
    delete m_deviceModel;
    m_deviceModel = nullptr;
}

void KvManager::constructDeviceList()
{
    // Until there are devices the dock says how to get some.
    auto* hintPage = new QWidget;
    auto* layout = new QVBoxLayout(hintPage);
    auto* hint =
        new QLabel(tr("No devices.\n\nUse Device > Scan All Ports (F5) to search for devices, or "
                      "File > Open (Ctrl+O) to open a recording."),
                   hintPage);
    hint->setObjectName(QStringLiteral("deviceListHint"));
    hint->setWordWrap(true);
    hint->setAlignment(Qt::AlignCenter);
    hint->setEnabled(false);
    layout->addWidget(hint);

    m_deviceListStack = new QStackedWidget;
    m_deviceListStack->addWidget(hintPage);
    m_deviceList = new DeviceList(*m_ndaControl, *m_deviceModel, m_deviceListStack);
    m_deviceList->setObjectName(QStringLiteral("deviceList"));
    m_deviceListStack->addWidget(m_deviceList);
    auto showWhatThereIs = [this] {
        m_deviceListStack->setCurrentIndex(m_deviceModel->rowCount() > 0 ? 1 : 0);
    };
    connect(m_deviceModel, &QAbstractItemModel::modelReset, this, showWhatThereIs);
    connect(m_deviceModel, &QAbstractItemModel::rowsInserted, this, showWhatThereIs);
    connect(m_deviceModel, &QAbstractItemModel::rowsRemoved, this, showWhatThereIs);
    connect(m_deviceList, &DeviceList::selectionChanged, this,
            [this](const std::vector<NvDeviceId>& selection, const std::vector<NvDeviceId>&) {
                handleDeviceSelectionChanged(selection);
            });

    m_deviceListDock = new QDockWidget(tr("Device List"), this);
    m_deviceListDock->setObjectName(QStringLiteral("DeviceList"));
    m_deviceListDock->setWidget(m_deviceListStack);
    m_deviceListDock->setAllowedAreas(Qt::LeftDockWidgetArea | Qt::RightDockWidgetArea);
    m_deviceListDock->setMinimumWidth(220);
    addDockWidget(Qt::LeftDockWidgetArea, m_deviceListDock);
    if (!QSettings().value(QStringLiteral("allowFloatingDeviceList"), false).toBool())
        m_deviceListDock->setFeatures(m_deviceListDock->features() &
                                      ~QDockWidget::DockWidgetFloatable);
    connect(m_deviceListDock, &QDockWidget::visibilityChanged, this,
            &KvManager::handleDeviceListVisibilityChanged);
}

void KvManager::destructDeviceList()
{
    if (m_deviceList)
        m_deviceList->saveColumnWidth();
    delete m_deviceListDock;
    m_deviceListDock = nullptr;
    m_deviceListStack = nullptr;
    m_deviceList = nullptr;
}

void KvManager::reloadDeviceList()
{
    m_deviceList->reloadList();
    // The selected device shows its information at once; identifiers are read whole.
    QTreeView* view = m_deviceList->view();
    const QModelIndexList selected = view->selectionModel()->selectedRows();
    if (!selected.isEmpty()) {
        view->expand(selected.first());
        view->expand(m_deviceModel->index(0, 0, selected.first())); // "Device Information"
    }
    view->resizeColumnToContents(1);
}

void KvManager::handleDeviceSelectionChanged(const std::vector<NvDeviceId>& selection)
{
    const std::vector<NvDeviceId> previous(m_selectedDevices.begin(), m_selectedDevices.end());
    m_selectedDevices.assign(selection.begin(), selection.end());
    const bool any = !m_ndaControl->mainDeviceIds().empty();
    m_ui.actionMeasure->setEnabled(any);
    m_ui.actionConfigMode->setEnabled(any);
    m_ui.actionDeviceSettings->setEnabled(!m_selectedDevices.empty());
    for (QAction* tool :
         {m_ui.actionMessageViewer, m_ui.actionPacketViewer, m_ui.actionMessageComposer})
        tool->setEnabled(!m_selectedDevices.empty());
    updateViewsForSelection(previous);
}

// ---- device settings ---------------------------------------------------------------------

void KvManager::constructDialogManagers()
{
    m_deviceDialogManager = new DeviceDialogManager(*m_ndaControl, this);
    m_settingsDialogManager = new KvSettingsDialogManager(*m_ndaControl, this);
    KvSettingsDialogManager* m = m_settingsDialogManager;
    connect(m, &KvSettingsDialogManager::configurationSaved, this,
            &KvManager::handleKvSettingsConfigurationChanged);
    connect(m, &KvSettingsDialogManager::deviceChanged, this,
            &KvManager::handleKvSettingsConfigurationChanged);
    connect(m, &KvSettingsDialogManager::onboardScenariosChanged, this,
            &KvManager::handleOnboardScenariosChanged);
    connect(m, &KvSettingsDialogManager::filterOptionsShortcutTriggered, this,
            &KvManager::handleFilterOptionsShortcutTriggered);
    connect(m, &KvSettingsDialogManager::filterChanged, this, &KvManager::handleFilterChanged);
}

void KvManager::destructDialogManagers()
{
    delete m_settingsDialogManager;
    m_settingsDialogManager = nullptr;
    delete m_deviceDialogManager;
    m_deviceDialogManager = nullptr;
}

// ---- protocol tools ----------------------------------------------------------------------

void KvManager::constructProtocolTools()
{
    m_messagesStructure = new NvMessagesStructure;
    if (!m_messagesStructure->read())
        journal(JLL_ALERT, QStringLiteral("No messages_structure.txt beside the program: the "
                                          "protocol tools show raw bytes only"));
    else if (!m_messagesStructure->parseErrors().empty())
        journal(JLL_ALERT, QStringLiteral("messages_structure.txt: %1 entries do not parse")
                               .arg(m_messagesStructure->parseErrors().size()));
}

void KvManager::destructProtocolTools()
{
    // The windows hold devices of the control: they go first.
    for (const QPointer<QWidget>& w : std::as_const(m_toolWindows))
        delete w.data();
    m_toolWindows.clear();
    delete m_messagesStructure;
    m_messagesStructure = nullptr;
}

QList<QWidget*> KvManager::toolWindows() const
{
    QList<QWidget*> open;
    for (const QPointer<QWidget>& w : m_toolWindows)
        if (w)
            open.append(w.data());
    return open;
}

void KvManager::showToolWindow(QWidget* window)
{
    window->setParent(this, Qt::Window);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->resize(900, 560);
    m_toolWindows.removeAll(QPointer<QWidget>());
    m_toolWindows.append(window);
    window->show();
    window->raise();
}

void KvManager::openMessageViewer()
{
    if (!m_selectedDevices.empty())
        showToolWindow(new MessageViewerWidget(*m_messagesStructure, *m_ndaControl,
                                               m_selectedDevices.front()));
}

void KvManager::openPacketViewer()
{
    if (!m_selectedDevices.empty())
        showToolWindow(
            new PacketViewerWidget(*m_messagesStructure, *m_ndaControl, m_selectedDevices.front()));
}

void KvManager::openMessageComposer()
{
    if (!m_selectedDevices.empty())
        showToolWindow(new MessageComposerWidget(*m_messagesStructure, *m_ndaControl,
                                                 m_selectedDevices.front()));
}

// ---- playback ----------------------------------------------------------------------------

void KvManager::constructFilePlaybackManager()
{
    m_filePlaybackManager = new FilePlaybackManager(*m_ndaControl, this, this);
    FilePlaybackManager* p = m_filePlaybackManager;
    connect(p, &FilePlaybackManager::fileLoadingError, this,
            [this](const QString& path, int type, const QString& text) {
                const QString detail = m_filePlaybackManager->lastErrorDetail();
                handleFileLoadError(path, type,
                                    detail.isEmpty() ? text
                                                     : QStringLiteral("%1 (%2)").arg(text, detail));
                updatePlaybackActions();
            });
    connect(p, &FilePlaybackManager::fileLoadingFinalized, this, [this](const QString& path) {
        handleFileLoadingFinalized(path);
        // The recording's devices take the live ones' place in the tree and the views.
        reloadDeviceList();
        m_filePlaybackManager->loadFirstOriDataFrame();
        updatePlaybackActions();
    });
    connect(p, &FilePlaybackManager::fileClosed, this, [this](const NvDeviceId& id) {
        handleFileClosed(id);
        updatePlaybackActions();
    });
    connect(p, &FilePlaybackManager::filePlaybackStateChanged, this,
            [this] { updatePlaybackActions(); });
    connect(p, &FilePlaybackManager::filePlaybackStarted, this,
            [this] { updatePlaybackActions(); });
    connect(p, &FilePlaybackManager::filePlaybackPaused, this, [this] { updatePlaybackActions(); });
    connect(p, &FilePlaybackManager::filePlaybackResumed, this,
            [this] { updatePlaybackActions(); });
    connect(p, &FilePlaybackManager::filePlaybackCompleted, this,
            [this] { updatePlaybackActions(); });
    connect(p, &FilePlaybackManager::filePlaybackFrameIndexChanged, this,
            [this](NdaDevice&, quint64 index) {
                QSignalBlocker blocker(m_playbackSlider);
                m_playbackSlider->setValue(static_cast<int>(
                    std::min<quint64>(index, static_cast<quint64>(m_playbackSlider->maximum()))));
            });

    m_playbackSlider = new QSlider(Qt::Horizontal, this);
    m_playbackSlider->setObjectName(QStringLiteral("playbackSlider"));
    m_playbackSlider->setToolTip(tr("Playback position"));
    m_playbackSlider->setMinimumWidth(240);
    m_playbackSlider->setEnabled(false);
    m_ui.playbackToolBar->addWidget(m_playbackSlider);
    connect(m_playbackSlider, &QSlider::valueChanged, this, [this](int value) {
        if (m_filePlaybackManager->isFileLoaded())
            m_filePlaybackManager->seekTo(static_cast<quint64>(std::max(value, 0)));
    });
}

void KvManager::destructFilePlaybackManager()
{
    delete m_filePlaybackManager;
    m_filePlaybackManager = nullptr;
}

void KvManager::updatePlaybackActions()
{
    FilePlaybackManager* p = m_filePlaybackManager;
    const bool loaded = p->isFileLoaded();
    const bool playing = loaded && p->isPlaying() && !p->isPaused();
    m_ui.actionPlay->setEnabled(loaded && !playing);
    m_ui.actionPause->setEnabled(playing);
    m_ui.actionStop->setEnabled(loaded && p->isPlaying());
    m_ui.actionToStart->setEnabled(loaded);
    const quint64 frames = p->frameCount();
    QSignalBlocker blocker(m_playbackSlider);
    m_playbackSlider->setEnabled(loaded && frames > 1);
    m_playbackSlider->setRange(
        0, static_cast<int>(std::min<quint64>(frames > 0 ? frames - 1 : 0, INT_MAX)));
    m_playbackSlider->setValue(
        static_cast<int>(std::min<quint64>(p->currentFrameIndex(), INT_MAX)));
}

// ---- recording ---------------------------------------------------------------------------

void KvManager::constructFileRecordManager()
{
    m_fileRecordManager = new FileRecordManager(*m_ndaControl, *m_deviceController, this);
    m_fileRecordManager->setDialogParent(this);
    FileRecordManager* r = m_fileRecordManager;
    connect(r, &FileRecordManager::numberOfRecordingDevicesChanged, this,
            &KvManager::handleNumberOfRecordingDevicesChanged);
    connect(r, &FileRecordManager::numberOfWaitingForRecordingStartDevicesChanged, this,
            &KvManager::handleNumberOfWaitingForRecordingStartDevicesChanged);
    connect(r, &FileRecordManager::recordingStateChanged, this,
            &KvManager::handleRecordingStateChanged);
    connect(r, &FileRecordManager::recordError, this,
            [this](FileRecordError::Type type, const QString& text) {
                handleRecordError(static_cast<int>(type), text);
            });

    m_currentDirectoryWidget = new CurrentDirectoryWidget(this);
    m_currentDirectoryWidget->setObjectName(QStringLiteral("currentDirectoryWidget"));
    m_currentDirectoryWidget->setToolTip(tr("Folder of new recordings"));
    m_ui.mainToolBar->addWidget(m_currentDirectoryWidget);
    r->setCurrentDirectory(m_currentDirectoryWidget->directory());
    connect(m_currentDirectoryWidget, &CurrentDirectoryWidget::directoryChanged, r,
            &FileRecordManager::setCurrentDirectory);
}

void KvManager::destructFileRecordManager()
{
    delete m_fileRecordManager;
    m_fileRecordManager = nullptr;
}

void KvManager::toggleRecording()
{
    if (m_fileRecordManager->recordingState()) {
        m_fileRecordManager->stopRecording();
        return;
    }
    // Long recordings may go into parts (the options' recording-file page).
    QSettings settings;
    const quint64 megabytes =
        settings.value(QStringLiteral("logFileSplitMegabytes"), 0).toULongLong();
    const quint64 minutes = settings.value(QStringLiteral("logFileSplitMinutes"), 0).toULongLong();
    NvControl_setLogFileSplit(m_ndaControl->libraryControl(), megabytes * 1000 * 1000,
                              minutes * 60 * 1000);
    m_fileRecordManager->startRecording();
    // The action's check mark follows the devices, not the click.
    QSignalBlocker blocker(m_ui.actionRecord);
    m_ui.actionRecord->setChecked(m_fileRecordManager->recordingState());
}

void KvManager::handleRecordingStateChanged(bool recording)
{
    QSignalBlocker blocker(m_ui.actionRecord);
    m_ui.actionRecord->setChecked(recording);
    if (recording)
        m_ui.actionRecord->setEnabled(true);
    if (m_recordIcon)
        m_recordIcon->setRunning(recording);
    m_currentDirectoryWidget->setEnabled(!recording);
}

void KvManager::handleRecordError(int, const QString& text)
{
    addMessageToMessageWindow(QStringLiteral("ERROR: %1").arg(text), true);
}

void KvManager::exportFile()
{
    if (m_currentFileName.isEmpty())
        return;
    ExportDialog dialog(*m_ndaControl, *m_pluginManager, m_currentFileName, this);
    dialog.exec();
}

void KvManager::batchExport()
{
    QStringList files;
    if (!m_currentFileName.isEmpty())
        files << m_currentFileName;
    BatchExportDialog dialog(*m_ndaControl, *m_pluginManager, files, this);
    dialog.exec();
}

void KvManager::showOptions()
{
    SettingsDialog dialog(this);
    connect(&dialog, &SettingsDialog::applied, this, [this] {
        m_plotManager->reloadOptions();
        readAdvancedSettings();
        updateRecentFiles();
    });
    dialog.exec();
}

void KvManager::openDeviceSettings()
{
    if (!m_selectedDevices.empty())
        openDeviceSettings(m_selectedDevices.front());
}

void KvManager::openDeviceSettings(const NvDeviceId& id)
{
    if (id.isEmpty() || !m_ndaControl->isValidExistingDevice(id))
        return;
    m_settingsDialogManager->createDialog(id, this);
}

void KvManager::handleKvSettingsConfigurationChanged(const NvDeviceId& id)
{
    QCoreApplication::postEvent(this, new ConfigurationChangedEvent(id));
}

void KvManager::handleOnboardScenariosChanged(const NvDeviceId& id)
{
    journal(JLL_DEBUG, QStringLiteral("Filter profiles changed for %1")
                           .arg(QString::fromStdString(id.toString())));
}

void KvManager::handleFilterOptionsShortcutTriggered(const NvDeviceId& id)
{
    openDeviceSettings(id);
}

void KvManager::handleFilterChanged(const NvDeviceId& id)
{
    addMessageToMessageWindow(
        tr("Device %1: filter profile changed.").arg(QString::fromStdString(id.toString())));
}

// ---- data views --------------------------------------------------------------------------

void KvManager::constructViewManager()
{
    m_viewManager = new ViewManager(*m_ndaControl, *m_ui.mdiArea, this);
    registerViewPermissions();
    QSettings settings;
    m_viewManager->setAutoTile(settings.value(QStringLiteral("autoTileViews"), true).toBool());
    // Inertial data and orientation unless the user chose otherwise before.
    const QVariantList wanted =
        settings.value(QStringLiteral("openViewTypes"), QVariantList{InertialView, ThreeDView})
            .toList();
    for (const QVariant& v : wanted)
        if (isValidViewType(v.toInt()))
            m_wantedViewTypes.insert(static_cast<ViewType>(v.toInt()));

    ViewManager* vm = m_viewManager;
    connect(vm, &ViewManager::viewTypeCountChanged, this, &KvManager::handleViewTypeCountChanged);
    connect(vm, &ViewManager::viewTypeToggled, this, &KvManager::handleViewTypeToggled);
    connect(vm, &ViewManager::beforeConstructingView, this,
            &KvManager::handleBeforeConstructingView);
    connect(vm, &ViewManager::afterConstructingView, this, &KvManager::handleAfterConstructingView);
    connect(vm, &ViewManager::beforeOpeningView, this, &KvManager::handleBeforeOpeningView);
    connect(vm, &ViewManager::afterOpeningView, this, &KvManager::handleAfterOpeningView);
    connect(
        vm,
        qOverload<ViewManager::ViewOperation::Type, ViewType>(&ViewManager::viewOperationStarted),
        this, &KvManager::handleViewOperationStarted);
    connect(
        vm,
        qOverload<ViewManager::ViewOperation::Type, ViewType>(&ViewManager::viewOperationCompleted),
        this, &KvManager::handleViewOperationCompleted);
    connect(vm, &ViewManager::viewClosedByUser, this, &KvManager::handleViewClosedByUser);

    for (int i = 0; i < KvManagerUi::viewTypeCount; ++i) {
        QAction* action = m_ui.viewActions[i];
        {
            QSignalBlocker blocker(action);
            action->setChecked(m_wantedViewTypes.count(static_cast<ViewType>(i)) != 0);
        }
        connect(action, &QAction::triggered, this,
                [this, i](bool on) { toggleViewType(static_cast<ViewType>(i), on); });
    }
    updateViewActions();
}

void KvManager::destructViewManager()
{
    delete m_viewManager;
    m_viewManager = nullptr;
}

void KvManager::registerViewPermissions()
{
    // Containers (masters, sync stations) carry no data of their own; GNSS-only views need
    // a receiver. The device library tells both from the identifier.
    const auto notContainer = [](const NvDeviceId& id) { return !id.isContainer(); };
    for (ViewType type : {ThreeDView, InertialView, OrientationView, StatusView, PressureView,
                          TemperatureView, FreeAccelerationView})
        m_viewManager->allowView(type, notContainer);
    for (ViewType type :
         {PositionView, AltitudeView, VelocityView, GnssSatInfoView, UtcDateTimeView})
        m_viewManager->allowView(type, &NvDeviceId::isGnss);
    m_viewManager->allowView(NdaMessageView);
    m_viewManager->allowView(DeviceMessageView);
}

void KvManager::constructPlotManager()
{
    m_plotManager = new PlotManager(this);
    m_viewManager->setPlotManager(m_plotManager);
}

void KvManager::destructPlotManager()
{
    if (m_viewManager)
        m_viewManager->setPlotManager(nullptr);
    delete m_plotManager;
    m_plotManager = nullptr;
}

void KvManager::updateViewsForSelection(const std::vector<NvDeviceId>& previous)
{
    if (!m_viewManager)
        return;
    const std::vector<NvDeviceId> now(m_selectedDevices.begin(), m_selectedDevices.end());
    m_viewManager->setDevices(now);
    const std::set<NvDeviceId> nowSet(now.begin(), now.end());
    for (ViewType type : m_wantedViewTypes) {
        for (const NvDeviceId& id : previous)
            if (!nowSet.count(id))
                m_viewManager->closeViews(type, id);
    }
    // Spread the opening over several passes so the window stays responsive when many
    // devices are selected at once.
    unsigned delay = 0;
    for (const NvDeviceId& id : now)
        for (ViewType type : m_wantedViewTypes)
            if (m_viewManager->viewCountInfo(type, id) == 0 && m_viewManager->viewAllowed(id, type))
                m_viewManager->openViewsLater(type, id, delay++);
    updateViewActions();
}

void KvManager::updateViewActions()
{
    std::vector<NvDeviceId> ids =
        m_viewManager ? m_viewManager->devices() : std::vector<NvDeviceId>();
    for (int i = 0; i < KvManagerUi::viewTypeCount; ++i) {
        const auto type = static_cast<ViewType>(i);
        const bool allowed = std::any_of(ids.begin(), ids.end(), [&](const NvDeviceId& id) {
            return m_viewManager->viewAllowed(id, type);
        });
        m_ui.viewActions[i]->setEnabled(allowed);
    }
}

void KvManager::saveWantedViewTypes() const
{
    QVariantList list;
    for (ViewType type : m_wantedViewTypes)
        list.append(static_cast<int>(type));
    QSettings().setValue(QStringLiteral("openViewTypes"), list);
}

void KvManager::toggleViewType(ViewType type, bool on)
{
    if (on)
        m_wantedViewTypes.insert(type);
    else
        m_wantedViewTypes.erase(type);
    saveWantedViewTypes();
    m_viewManager->toggleViews(type, on);
}

void KvManager::handleViewTypeCountChanged(ViewType type, unsigned oldCount, unsigned newCount)
{
    journal(
        JLL_TRACE,
        QStringLiteral("%1 views: %2 -> %3").arg(viewTypeName(type)).arg(oldCount).arg(newCount));
}

void KvManager::handleViewTypeToggled(ViewType type, bool on, const ViewManager::ViewerList&)
{
    QAction* action = m_ui.viewActions[type];
    QSignalBlocker blocker(action);
    action->setChecked(on);
}

void KvManager::handleBeforeConstructingView(ViewType type, const NvDeviceId& id)
{
    statusBar()->showMessage(
        tr("Opening %1 for %2...").arg(viewTypeName(type), QString::fromStdString(id.toString())));
}

void KvManager::handleAfterConstructingView(ViewType, const NvDeviceId&) {}

void KvManager::handleBeforeOpeningView(ViewType, const NvDeviceId&) {}

void KvManager::handleAfterOpeningView(ViewType, const NvDeviceId& id)
{
    statusBar()->clearMessage();
    // A view of a recording that is not playing shows where playback stands.
    FilePlaybackManager* p = m_filePlaybackManager;
    if (p && p->isFileLoaded() && !p->isLoading() && (!p->isPlaying() || p->isPaused()) &&
        p->fileDeviceIds().contains(id)) {
        if (p->currentFrameIndex() == 0)
            p->loadFirstOriDataFrame();
        else
            p->seekTo(p->currentFrameIndex());
    }
}

void KvManager::handleViewOperationStarted(ViewManager::ViewOperation::Type, ViewType type)
{
    // No second toggle of a kind while its views are still opening or closing.
    m_ui.viewActions[type]->setEnabled(false);
}

void KvManager::handleViewOperationCompleted(ViewManager::ViewOperation::Type, ViewType)
{
    updateViewActions();
}

void KvManager::handleViewClosedByUser(ViewType type, const NvDeviceId&)
{
    // The last view of a kind closed by hand: the user no longer wants that kind.
    if (m_viewManager->viewCountInfo(type) > 1)
        return;
    m_wantedViewTypes.erase(type);
    saveWantedViewTypes();
    QSignalBlocker blocker(m_ui.viewActions[type]);
    m_ui.viewActions[type]->setChecked(false);
}

void KvManager::startMeasurement()
{
    if (m_selectedDevices.empty())
        m_deviceController->gotoMeasurementAll();
    else
        m_deviceController->gotoMeasurement(m_selectedDevices);
}

void KvManager::stopMeasurement()
{
    if (m_selectedDevices.empty())
        m_deviceController->gotoConfigAll();
    else
        m_deviceController->gotoConfig(m_selectedDevices);
}

void KvManager::constructRecentFileMenu()
{
    for (QAction* action : m_ui.recentFileActions)
        connect(action, &QAction::triggered, this, &KvManager::fileOpenRecent);
    updateRecentFiles();
}

void KvManager::destructRecentFileMenu()
{
    for (QAction* action : m_ui.recentFileActions)
        disconnect(action, nullptr, this, nullptr);
}

void KvManager::constructMessageWindow()
{
    m_messageWindow = new MessageWindow;
    m_messageWindow->setObjectName(QStringLiteral("messageWindowWidget"));
    m_messageWindowDock = makeToolDock(tr("Message Window"), QStringLiteral("MessageWindow"),
                                       m_messageWindow, m_ui.actionMessageWindow);
}

void KvManager::destructMessageWindow()
{
    delete m_messageWindowDock;
    m_messageWindowDock = nullptr;
    m_messageWindow = nullptr;
}

void KvManager::constructScanLogWindow()
{
    m_scanLogWindow = new MessageWindow;
    m_scanLogWindow->setObjectName(QStringLiteral("scanLogWindowWidget"));
    m_scanLogWindowDock = makeToolDock(tr("Scan Log"), QStringLiteral("ScanLogWindow"),
                                       m_scanLogWindow, m_ui.actionScanLog);
    tabifyDockWidget(m_messageWindowDock, m_scanLogWindowDock);
}

void KvManager::destructScanLogWindow()
{
    delete m_scanLogWindowDock;
    m_scanLogWindowDock = nullptr;
    m_scanLogWindow = nullptr;
}

void KvManager::connectUi()
{
    connect(m_ui.actionOpen, &QAction::triggered, this, &KvManager::fileOpen);
    connect(m_ui.actionClose, &QAction::triggered, this, &KvManager::fileClose);
    connect(m_ui.actionExit, &QAction::triggered, this, &QWidget::close);
    connect(m_ui.actionScanAllPorts, &QAction::triggered, this, &KvManager::doScanAllPorts);
    connect(m_ui.actionScanPort, &QAction::triggered, this, &KvManager::doScanPort);
    connect(m_ui.actionMeasure, &QAction::triggered, this, &KvManager::startMeasurement);
    connect(m_ui.actionConfigMode, &QAction::triggered, this, &KvManager::stopMeasurement);
    connect(m_ui.actionDeviceSettings, &QAction::triggered, this,
            qOverload<>(&KvManager::openDeviceSettings));
    connect(m_ui.actionOptions, &QAction::triggered, this, &KvManager::showOptions);
    connect(m_ui.actionMessageViewer, &QAction::triggered, this, &KvManager::openMessageViewer);
    connect(m_ui.actionPacketViewer, &QAction::triggered, this, &KvManager::openPacketViewer);
    connect(m_ui.actionMessageComposer, &QAction::triggered, this, &KvManager::openMessageComposer);
    connect(m_ui.actionRecord, &QAction::triggered, this, &KvManager::toggleRecording);
    connect(m_ui.actionExport, &QAction::triggered, this, &KvManager::exportFile);
    connect(m_ui.actionPlay, &QAction::triggered, this, [this] {
        if (m_filePlaybackManager->isPaused())
            m_filePlaybackManager->resumePlayback();
        else
            m_filePlaybackManager->startPlayback();
        updatePlaybackActions();
    });
    connect(m_ui.actionPause, &QAction::triggered, this, [this] {
        m_filePlaybackManager->pausePlayback();
        updatePlaybackActions();
    });
    connect(m_ui.actionStop, &QAction::triggered, this, [this] {
        m_filePlaybackManager->stopPlayback();
        updatePlaybackActions();
    });
    connect(m_ui.actionToStart, &QAction::triggered, this, [this] {
        m_filePlaybackManager->setPlayBackToStart();
        updatePlaybackActions();
    });
    connect(m_ui.actionBatchExport, &QAction::triggered, this, &KvManager::batchExport);
    connect(
        m_deviceList->view(), &QAbstractItemView::doubleClicked, this,
        [this](const QModelIndex& index) { openDeviceSettings(m_deviceModel->deviceId(index)); });
    connect(m_ui.actionTileViews, &QAction::triggered, m_viewManager, &ViewManager::autoTileViews);
    connect(m_ui.actionDeviceList, &QAction::toggled, m_deviceListDock, &QWidget::setVisible);
    connect(m_ui.actionMessageWindow, &QAction::toggled, m_messageWindowDock, &QWidget::setVisible);
    connect(m_ui.actionScanLog, &QAction::toggled, m_scanLogWindowDock, &QWidget::setVisible);
    connect(m_ui.actionAbout, &QAction::triggered, this, &KvManager::showAbout);
    connect(m_ui.actionAboutQt, &QAction::triggered, qApp, &QApplication::aboutQt);
}

void KvManager::setupHelpMenu()
{
    m_ui.menuHelp->addAction(m_ui.actionAboutQt);
}

void KvManager::fixUiObjectNames()
{
    // Stable names keep saved tool bar state and usage events meaningful across versions
    // and languages; only objects that have none yet get one. A name already taken is
    // qualified with the owner's name (the docks' own toggle actions, for instance).
    static const QRegularExpression nonWord(QStringLiteral("[^A-Za-z0-9]+"));
    QSet<QString> taken;
    const QList<QObject*> all = findChildren<QObject*>();
    for (QObject* object : all) {
        if (!object->objectName().isEmpty())
            taken.insert(object->objectName());
    }
    auto assign = [&](QObject* object, const QString& prefix, QString text) {
        if (!object->objectName().isEmpty() || text.isEmpty())
            return;
        text.remove(QLatin1Char('&'));
        QString name = prefix;
        const QStringList words = text.split(nonWord, Qt::SkipEmptyParts);
        for (const QString& word : words)
            name += word.at(0).toUpper() + word.mid(1);
        if (taken.contains(name) && object->parent())
            name = object->parent()->objectName() + QLatin1Char('_') + name;
        taken.insert(name);
        object->setObjectName(name);
    };
    const QList<QAction*> actions = findChildren<QAction*>();
    for (QAction* action : actions)
        assign(action, QStringLiteral("action"), action->text());
    const QList<QMenu*> menus = findChildren<QMenu*>();
    for (QMenu* menu : menus)
        assign(menu, QStringLiteral("menu"), menu->title());
    const QList<QToolBar*> toolBars = findChildren<QToolBar*>();
    for (QToolBar* toolBar : toolBars)
        assign(toolBar, QStringLiteral("toolBar"), toolBar->windowTitle());
}

void KvManager::readAdvancedSettings()
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("advanced"));
    m_networkScanner = settings.value(QStringLiteral("networkscanner"), false).toBool();
    m_ndaDataViewEnabled = settings.value(QStringLiteral("ndaDataViewEnabled"), false).toBool();
    m_messageOnWakeup = settings.value(QStringLiteral("messageOnWakeup"), false).toBool();
    settings.endGroup();

    if (m_networkScanner)
        ndaEnableNetworkScanning(1);
    // The raw-data view is a diagnostic tool, offered only when asked for.
    m_ui.viewActions[10]->setVisible(m_ndaDataViewEnabled);
}

void KvManager::updateWindowTitle()
{
    QString title = QStringLiteral("%1 %2").arg(QApplication::applicationName(),
                                                QApplication::applicationVersion());
    if (!m_currentFileName.isEmpty())
        title += QStringLiteral(" - [") + m_currentFileName + QLatin1Char(']');
    setWindowTitle(title);
}

// ---- files -------------------------------------------------------------------------------

void KvManager::loadFile(const QString& fileName)
{
    journal(JLL_DEBUG, QStringLiteral("Loading file %1").arg(fileName));
    emit fileLoadStarted(fileName);
    UsageStatistics::logEvent(QStringLiteral("file"), QStringLiteral("load"));

    const QFileInfo info(fileName);
    if (!info.isFile() || !info.isReadable()) {
        onOpenFileFailed(QIODevice::ReadOnly, fileName);
        return;
    }
    // A recording is shown instead of the live devices: the device library will not open
    // a recording of a device that is still connected, and views follow one or the other.
    if (m_fileRecordManager && m_fileRecordManager->recordingState())
        m_fileRecordManager->stopRecording();
    const NvDeviceIdArray open = m_ndaControl->mainDeviceIds();
    const bool live = std::any_of(open.begin(), open.end(), [this](const NvDeviceId& id) {
        return !m_ndaControl->isReadingFromFile(id);
    });
    if (live) {
        m_viewManager->clearViews();
        m_ndaControl->close();
    }
    m_filePlaybackManager->loadFile(info.absoluteFilePath());
}

void KvManager::loadFiles(const QList<QString>& fileNames)
{
    for (const QString& fileName : fileNames)
        loadFile(fileName);
}

void KvManager::fileOpen()
{
    QSettings settings;
    const QString folder = settings.value(QStringLiteral("openFileDirectory")).toString();
    const QString fileName = QFileDialog::getOpenFileName(
        this, tr("Open Recording"), folder,
        tr("Recordings (*.kvb *.nm *.bin);;Kv binary logs (*.kvb);;NMEA captures (*.nm);;"
           "Raw captures (*.bin);;All files (*)"));
    if (fileName.isEmpty())
        return;
    settings.setValue(QStringLiteral("openFileDirectory"), QFileInfo(fileName).absolutePath());
    loadFile(fileName);
}

void KvManager::fileClose()
{
    m_filePlaybackManager->closeFile();
    handleFileClosed();
    reloadDeviceList();
}

void KvManager::fileOpenRecent()
{
    if (auto* action = qobject_cast<QAction*>(sender()))
        loadFile(action->data().toString());
}

void KvManager::handleFileLoadError(const QString& fileName, int code, const QString& text)
{
    journal(JLL_ERROR,
            QStringLiteral("Failed to load file %1 (%2): %3").arg(fileName).arg(code).arg(text));
    removeRecentFile(fileName);
    addMessageToMessageWindow(
        QStringLiteral("Failed to load file: '%1': '%2'").arg(fileName, text));
    showCriticalMessage(tr("Failed to load file"),
                        QStringLiteral("Filename: %1\nError: %2").arg(fileName, text));
}

void KvManager::handleFileLoadingFinalized(const QString& fileName)
{
    m_currentFileName = fileName;
    addRecentFile(fileName);
    m_ui.actionClose->setEnabled(true);
    m_ui.actionExport->setEnabled(true);
    updateWindowTitle();
}

void KvManager::handleFileClosed()
{
    m_currentFileName.clear();
    m_ui.actionClose->setEnabled(false);
    m_ui.actionExport->setEnabled(false);
    updateWindowTitle();
}

void KvManager::handleLoadFileRequested(const QString& fileName)
{
    loadFile(fileName);
}

void KvManager::onOpenFileFailed(QIODevice::OpenMode mode, const QString& fileName)
{
    QCoreApplication::postEvent(this, new OpenFileFailedEvent(mode, fileName));
}

void KvManager::handleExportDeviceFailed(const QString& fileName)
{
    QCoreApplication::postEvent(this, new ExportFailedEvent(fileName));
}

void KvManager::onRecordFailed()
{
    QCoreApplication::postEvent(this, new RecordFailedEvent);
}

// ---- recent files ------------------------------------------------------------------------

void KvManager::addRecentFile(const QString& fileName)
{
    QSettings settings;
    QStringList files = settings.value(QLatin1String(recentFilesKey)).toStringList();
    files.removeAll(fileName);
    files.prepend(fileName);
    while (files.size() > maximumRecentFiles)
        files.removeLast();
    settings.setValue(QLatin1String(recentFilesKey), files);
    updateRecentFiles();
}

void KvManager::removeRecentFile(const QString& fileName)
{
    QSettings settings;
    QStringList files = settings.value(QLatin1String(recentFilesKey)).toStringList();
    files.removeAll(fileName);
    settings.setValue(QLatin1String(recentFilesKey), files);
    updateRecentFiles();
}

void KvManager::updateRecentFiles()
{
    QSettings settings;
    const QStringList files = settings.value(QLatin1String(recentFilesKey)).toStringList();
    const int maxShown =
        settings.value(QStringLiteral("UserInterfaceSettings/maxRecentFiles"), 4).toInt();
    const int shown =
        std::clamp<int>(std::min<int>(files.size(), maxShown), 0, KvManagerUi::recentFileSlots);

    for (int i = 0; i < KvManagerUi::recentFileSlots; ++i) {
        QAction* action = m_ui.recentFileActions[i];
        if (i < shown) {
            const QString& path = files.at(i);
            QString name = QFileInfo(path).fileName();
            name.replace(QLatin1Char('&'), QStringLiteral("&&"));
            action->setText(QStringLiteral("&%1 %2").arg(i + 1).arg(name));
            action->setData(path);
            action->setStatusTip(tr("Load file %1").arg(path));
            action->setVisible(true);
        } else {
            action->setVisible(false);
        }
    }
    m_ui.menuRecentFiles->setEnabled(shown > 0);
}

// ---- scanning ----------------------------------------------------------------------------

void KvManager::doScanAllPorts()
{
    journal(JLL_DEBUG, QStringLiteral("Scanning all ports"));
    UsageStatistics::logEvent(QStringLiteral("device"), QStringLiteral("scanAllPorts"));
    addMessageToScanLog(tr("Scanning all ports"));
    m_hardwareScanner->scanAllPorts();
}

void KvManager::doScanPort()
{
    QSettings settings;
    const QString last = settings.value(QStringLiteral("lastScannedPort")).toString();
    bool ok = false;
    const QString port =
        QInputDialog::getText(this, tr("Scan Port"), tr("Port name (for example /dev/ttyUSB0):"),
                              QLineEdit::Normal, last, &ok)
            .trimmed();
    if (!ok || port.isEmpty())
        return;
    settings.setValue(QStringLiteral("lastScannedPort"), port);
    emit portScanRequested(port, 0);
}

void KvManager::handlePortScanRequested(const QString& portName, int baudRate)
{
    journal(JLL_DEBUG, QStringLiteral("Scanning port %1 at %2").arg(portName).arg(baudRate));
    addMessageToScanLog(tr("Scanning port %1").arg(portName));
    // Requests name the rate in bits per second; the scanner takes the library's code.
    NvBaudRate code = baudRate > 0 ? nvRateToBaudRate(baudRate) : NBR_DETECT;
    if (code == NBR_INVALID)
        code = NBR_DETECT;
    m_hardwareScanner->scanPort(portName, int(code));
}

// ---- messages ----------------------------------------------------------------------------

void KvManager::addMessageToMessageWindow(const QString& message, bool forceVisible)
{
    if (forceVisible && !m_messageWindowDock->isVisible())
        m_messageWindowDock->show();
    m_messageWindow->addMessage(message);
}

void KvManager::addMessageToScanLog(const QString& message)
{
    m_scanLogWindow->addMessage(message);
}

void KvManager::showCriticalMessage(const QString& title, const QString& text)
{
    // One box at a time, in the order the failures happened: a box's own event loop would
    // otherwise open the next failure's box on top of it, and the user would read them
    // newest first.
    m_pendingMessages.append({title, text});
    if (m_showingMessage)
        return;
    m_showingMessage = true;
    while (!m_pendingMessages.isEmpty()) {
        const auto [boxTitle, boxText] = m_pendingMessages.takeFirst();
        QMessageBox::critical(this, boxTitle, boxText);
    }
    m_showingMessage = false;
}

// ---- events ------------------------------------------------------------------------------

bool KvManager::event(QEvent* event)
{
    const QEvent::Type type = event->type();
    if (type == ConfigurationChangedEvent::eventType) {
        auto* changed = static_cast<ConfigurationChangedEvent*>(event);
        journal(JLL_DEBUG, QStringLiteral("Configuration changed for %1")
                               .arg(QString::fromStdString(changed->deviceId().toString())));
        // The tree shows the device's facts and output configuration.
        if (DeviceItem* item = m_deviceModel->deviceItem(changed->deviceId()))
            item->refresh();
        return true;
    }
    if (type == OpenFileFailedEvent::eventType) {
        auto* failed = static_cast<OpenFileFailedEvent*>(event);
        showCriticalMessage(tr("Error"), tr("Failed to open file: '%1'.").arg(failed->fileName()));
        return true;
    }
    if (type == ExportFailedEvent::eventType) {
        auto* failed = static_cast<ExportFailedEvent*>(event);
        showCriticalMessage(tr("Error"),
                            tr("Failed to export device: '%1'.").arg(failed->fileName()));
        return true;
    }
    if (type == RecordFailedEvent::eventType) {
        showCriticalMessage(tr("Error"), tr("Failed to start recording."));
        return true;
    }
    return QMainWindow::event(event);
}

void KvManager::closeEvent(QCloseEvent* event)
{
    QApplication::setOverrideCursor(Qt::WaitCursor);
    m_viewManager->clearViews();
    for (const QPointer<QWidget>& w : std::as_const(m_toolWindows))
        delete w.data();
    m_toolWindows.clear();
    m_ndaControl->abortScanForHardware();
    m_ndaControl->close();
    saveWindowSettings();
    savePluginSettings();
    disconnect(m_deviceListDock, nullptr, this, nullptr);
    disconnect(m_messageWindowDock, nullptr, this, nullptr);
    emit closing();
    QMainWindow::closeEvent(event);
    QApplication::restoreOverrideCursor();
}

void KvManager::handleDeviceListVisibilityChanged(bool visible)
{
    QSignalBlocker blocker(m_ui.actionDeviceList);
    m_ui.actionDeviceList->setChecked(visible);
}

// ---- drag and drop -----------------------------------------------------------------------

bool KvManager::hasLoadableSuffix(const QString& fileName)
{
    // Case-sensitive on purpose: the device library only recognises these spellings.
    const QString suffix = QFileInfo(fileName).suffix();
    return suffix == QLatin1String("kvb") || suffix == QLatin1String("nm") ||
           suffix == QLatin1String("bin");
}

bool KvManager::acceptsDrag(const QMimeData* data)
{
    if (!data || !data->hasUrls())
        return false;
    const QList<QUrl> urls = data->urls();
    return std::any_of(urls.begin(), urls.end(),
                       [](const QUrl& url) { return hasLoadableSuffix(url.path()); });
}

QStringList KvManager::filesToLoad(const QMimeData* data, Qt::DropAction action)
{
    QStringList files;
    if (!data || (action != Qt::CopyAction && action != Qt::MoveAction))
        return files;
    const QList<QUrl> urls = data->urls();
    for (const QUrl& url : urls) {
        const QString path = url.toLocalFile();
        const QFileInfo info(path);
        if (!path.isEmpty() && info.exists() && info.isFile() && hasLoadableSuffix(path))
            files.append(info.absoluteFilePath());
    }
    return files;
}

void KvManager::dragEnterEvent(QDragEnterEvent* event)
{
    if (event->mimeData()->hasFormat(QStringLiteral("text/uri-list")))
        event->acceptProposedAction();
}

void KvManager::dragMoveEvent(QDragMoveEvent* event)
{
    if (acceptsDrag(event->mimeData()))
        event->acceptProposedAction();
    else
        event->ignore();
}

void KvManager::dragLeaveEvent(QDragLeaveEvent* event)
{
    event->accept();
}

void KvManager::dropEvent(QDropEvent* event)
{
    const QStringList files = filesToLoad(event->mimeData(), event->dropAction());
    for (const QString& file : files)
        new KvManagerLoadFileEvent(this, file);
    if (!files.isEmpty())
        event->acceptProposedAction();
}

// ---- settings ----------------------------------------------------------------------------

void KvManager::applyDefaultLayout()
{
    // What a first start looks like, before any saved layout: the window fits the screen
    // and the data views get most of it.
    QSize size(1280, 800);
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        size = size.boundedTo(screen->availableGeometry().size() * 0.9);
    resize(size);
    resizeDocks({m_deviceListDock}, {400}, Qt::Horizontal);
    resizeDocks({m_messageWindowDock}, {150}, Qt::Vertical);
}

void KvManager::restoreDockGeometry(QDockWidget* dock, const QVariant& stored)
{
    if (!stored.isValid())
        return;
    const QRect rect = stored.toRect();
    if (rect.left() <= rect.right() && rect.top() <= rect.bottom())
        dock->setGeometry(rect);
}

void KvManager::loadWindowSettings()
{
    QSettings settings;
    restoreGeometry(settings.value(QStringLiteral("geometry"), saveGeometry()).toByteArray());
    setWindowState(Qt::WindowStates(
        settings.value(QStringLiteral("windowstate"), int(windowState())).toInt()));
    restoreState(settings.value(QStringLiteral("toolbarState2"), saveState(0)).toByteArray(), 0);
    restoreDockGeometry(m_deviceListDock, settings.value(QStringLiteral("deviceListGeometry")));
    restoreDockGeometry(m_messageWindowDock,
                        settings.value(QStringLiteral("messageWindowGeometry")));
    restoreDockGeometry(m_scanLogWindowDock,
                        settings.value(QStringLiteral("scanLogWindowGeometry")));
}

void KvManager::saveWindowSettings()
{
    QSettings settings;
    settings.setValue(QStringLiteral("geometry"), saveGeometry());
    settings.setValue(QStringLiteral("windowstate"), int(windowState()));
    settings.setValue(QStringLiteral("deviceListGeometry"), m_deviceListDock->geometry());
    settings.setValue(QStringLiteral("messageWindowGeometry"), m_messageWindowDock->geometry());
    settings.setValue(QStringLiteral("toolbarState2"), saveState(0));
}

void KvManager::loadWidgetSettings(QWidget* widget)
{
    QSettings settings;
    const QRect rect = settings.value(widget->windowTitle(), widget->frameGeometry()).toRect();
    widget->resize(rect.size());
    widget->move(rect.topLeft());
}

void KvManager::saveWidgetSettings(QObject* object)
{
    auto* widget = qobject_cast<QWidget*>(object);
    if (!widget)
        return;
    QSettings().setValue(widget->windowTitle(), widget->frameGeometry());
}

// ---- plug-ins ----------------------------------------------------------------------------

void KvManager::loadPlugins()
{
    const QString folder =
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("plugins"));
    const int count = m_pluginManager->loadPlugins(folder);
    journal(JLL_DEBUG, QStringLiteral("Loaded %1 plug-ins from %2").arg(count).arg(folder));
    const QList<PluginManager::LoadError> errors = m_pluginManager->loadErrors();
    for (const PluginManager::LoadError& error : errors)
        addMessageToMessageWindow(
            tr("WARNING: Plug-in '%1' could not be loaded: %2").arg(error.fileName, error.text));
    loadPluginSettings();
}

void KvManager::loadPluginSettings()
{
    const QList<SettingsSynchronizer*> plugins = m_pluginManager->pluginsOf<SettingsSynchronizer>();
    for (SettingsSynchronizer* plugin : plugins)
        plugin->loadSettings();
}

void KvManager::savePluginSettings()
{
    const QList<SettingsSynchronizer*> plugins = m_pluginManager->pluginsOf<SettingsSynchronizer>();
    for (SettingsSynchronizer* plugin : plugins)
        plugin->saveSettings();
}

// ---- periphery ---------------------------------------------------------------------------

void KvManager::handleUpdateAvailable(const QString& version, const QString& downloadLink)
{
    addMessageToMessageWindow(tr("Version %1 is available: %2").arg(version, downloadLink));
}

void KvManager::showAbout()
{
    QMessageBox::about(
        this, tr("About %1").arg(QApplication::applicationName()),
        tr("<h3>%1</h3><p>Version %2</p>"
           "<p>Scan, configure, watch and record inertial motion trackers, orientation "
           "sensors and GNSS/INS units.</p><p>Built with Qt %3, running on Qt %4.</p>")
            .arg(QApplication::applicationName(), QApplication::applicationVersion(),
                 QStringLiteral(QT_VERSION_STR), QString::fromLatin1(qVersion())));
}
