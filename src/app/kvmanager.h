#pragma once

#include "devicecontroller.h"
#include "kvmanagerui.h"
#include "ndacontrol.h"
#include "nvdeviceid.h"
#include "periphery.h"
#include "viewmanager.h"

#include <QEvent>
#include <QIODevice>
#include <QMainWindow>
#include <QPointer>
#include <QStringList>

#include <set>
#include <utility>

class AnimatedIcon;
class DeviceList;
class DeviceModel;
class HardwareScanner;
class KvmFilterOptionsCallback;
class MessageWindow;
class PluginManager;
class PlotManager;
class CurrentDirectoryWidget;
class FileRecordManager;
class FilePlaybackManager;
class NvMessagesStructure;
class QSlider;
class DeviceDialogManager;
class KvSettingsDialogManager;
class ViewManager;
class QDockWidget;
class QLabel;
class QMimeData;
class QProgressBar;
class QStackedWidget;
class QTimer;

// The main window. It owns the long-lived companions of the application, each made by a
// constructX member and destroyed by its destructX counterpart in reverse order.
class KvManager : public QMainWindow, public AutoUpdatable, public DeviceControllerHost
{
    Q_OBJECT

public:
    // Posted from worker threads and handled in event(); registered at static
    // initialisation in this order.
    class ConfigurationChangedEvent : public QEvent
    {
    public:
        static const QEvent::Type eventType;
        explicit ConfigurationChangedEvent(const NvDeviceId& id) : QEvent(eventType), m_id(id) {}
        NvDeviceId deviceId() const { return m_id; }

    private:
        NvDeviceId m_id;
    };

    class OpenFileFailedEvent : public QEvent
    {
    public:
        static const QEvent::Type eventType;
        OpenFileFailedEvent(QIODevice::OpenMode mode, const QString& fileName)
            : QEvent(eventType), m_mode(mode), m_fileName(fileName)
        {
        }
        QIODevice::OpenMode openMode() const { return m_mode; }
        QString fileName() const { return m_fileName; }

    private:
        QIODevice::OpenMode m_mode;
        QString m_fileName;
    };

    class ExportFailedEvent : public QEvent
    {
    public:
        static const QEvent::Type eventType;
        explicit ExportFailedEvent(const QString& fileName)
            : QEvent(eventType), m_fileName(fileName)
        {
        }
        QString fileName() const { return m_fileName; }

    private:
        QString m_fileName;
    };

    class RecordFailedEvent : public QEvent
    {
    public:
        static const QEvent::Type eventType;
        RecordFailedEvent() : QEvent(eventType) {}
    };

    static constexpr int maximumRecentFiles = 10;

    explicit KvManager(UpdateServerOptions updateServer, QWidget* parent = nullptr,
                       Qt::WindowFlags flags = {});
    ~KvManager() override;

    void loadFile(const QString& fileName);
    void loadFiles(const QList<QString>& fileNames);

    void addRecentFile(const QString& fileName);
    void removeRecentFile(const QString& fileName);
    void updateRecentFiles();

    void loadWindowSettings();
    void saveWindowSettings();
    void loadWidgetSettings(QWidget* widget);
    void saveWidgetSettings(QObject* object);

    void loadPlugins();
    void loadPluginSettings();
    void savePluginSettings();
    PluginManager* pluginManager() const { return m_pluginManager; }

    // Entry points other parts use to talk to the user.
    void addMessageToMessageWindow(const QString& message, bool forceVisible = false);
    void addMessageToScanLog(const QString& message);

    // Failure entry points: they only post their event, so any thread may call them.
    void onOpenFileFailed(QIODevice::OpenMode mode, const QString& fileName) override;
    void handleExportDeviceFailed(const QString& fileName);
    void onRecordFailed();

    // The drop rules: which URLs a drag may carry, and which files a drop loads.
    static bool hasLoadableSuffix(const QString& fileName);
    static bool acceptsDrag(const QMimeData* data);
    static QStringList filesToLoad(const QMimeData* data, Qt::DropAction action);

    void handleUpdateAvailable(const QString& version, const QString& downloadLink) override;

    // Recording file names: the recording folder, the device and the time.
    QString generateLogFileName(const NvDeviceId& id) override;
    QString checkExistingFilename(const QString& name) override;

    NdaControl* ndaControl() const { return m_ndaControl; }
    DeviceController* deviceController() const { return m_deviceController; }
    HardwareScanner* hardwareScanner() const { return m_hardwareScanner; }
    DeviceModel* deviceModel() const { return m_deviceModel; }
    DeviceList* deviceList() const { return m_deviceList; }
    ViewManager* viewManager() const { return m_viewManager; }
    PlotManager* plotManager() const { return m_plotManager; }
    KvSettingsDialogManager* settingsDialogManager() const { return m_settingsDialogManager; }
    FileRecordManager* fileRecordManager() const { return m_fileRecordManager; }
    FilePlaybackManager* filePlaybackManager() const { return m_filePlaybackManager; }
    const NvMessagesStructure* messagesStructure() const { return m_messagesStructure; }
    // The protocol tool windows now open.
    QList<QWidget*> toolWindows() const;
    QSlider* playbackSlider() const { return m_playbackSlider; }
    CurrentDirectoryWidget* currentDirectoryWidget() const { return m_currentDirectoryWidget; }
    // The kinds of view the user wants for the selected devices (the checked toggles).
    const std::set<ViewType>& wantedViewTypes() const { return m_wantedViewTypes; }
    // The devices the user selected in the device list.
    const NvDeviceIdArray& selectedDevices() const { return m_selectedDevices; }
    // The status bar's summary of the open devices and their links.
    QString deviceStatusText() const;
    // The status bar's recording indicator text ("" when nothing records).
    QString recordingIndicatorText() const;
    bool isSendingBatteryRequests() const { return m_batteryTimer != nullptr; }
    bool isSendingGpsStatusRequests() const { return m_gpsStatusTimer != nullptr; }

    MessageWindow* messageWindow() const { return m_messageWindow; }
    MessageWindow* scanLogWindow() const { return m_scanLogWindow; }
    QDockWidget* deviceListDock() const { return m_deviceListDock; }
    QDockWidget* messageWindowDock() const { return m_messageWindowDock; }
    QDockWidget* scanLogWindowDock() const { return m_scanLogWindowDock; }
    const KvManagerUi& ui() const { return m_ui; }
    QString currentFileName() const { return m_currentFileName; }

public slots:
    void doScanAllPorts();
    void doScanPort();
    void fileOpenRecent();
    void handleFileLoadError(const QString& fileName, int code, const QString& text);
    void handleFileLoadingFinalized(const QString& fileName);
    void handleFileClosed();

    // Device notifications.
    void handleDeviceError(const NvDeviceId& id, NvResultValue result);
    void handleDeviceWarning(const NvDeviceId& id, NvResultValue result);
    void handleSamplesMissed(const NvDeviceId& id, int count);
    void handleDataUnavailable(const NvDeviceId& id, int sampleTime);
    void handleWakeupReceived(const NvDeviceId& id);
    void handleKvwDisconnect(const KvwInfo& info);
    void handleNdaAboutToClose();
    void handleNdaClosed();
    void handleScanForHardwareCompleted();
    void handleScanForHardwareAborted();
    void handleScanForHardwareProgressChanged(int progress);
    void handleScanForHardwareStateChanged(bool scanning);
    void handleNumberOfMeasuringDevicesChanged(size_t previous, size_t current);
    void handleDeviceSelectionChanged(const std::vector<NvDeviceId>& selection);
    // Measurement and configuration for the selected devices (all when none is selected).
    void startMeasurement();
    void stopMeasurement();
    void handleNumberOfRecordingDevicesChanged(size_t previous, size_t current);
    void handleNumberOfWaitingForRecordingStartDevicesChanged(size_t previous, size_t current);
    // A master's radio went off: its port is scanned again.
    void handleWirelessRadioOff();
    void handleFileClosed(const NvDeviceId& id);

    // View manager notifications.
    void handleViewTypeCountChanged(ViewType type, unsigned oldCount, unsigned newCount);
    void handleViewTypeToggled(ViewType type, bool on, const ViewManager::ViewerList& viewers);
    void handleBeforeConstructingView(ViewType type, const NvDeviceId& id);
    void handleAfterConstructingView(ViewType type, const NvDeviceId& id);
    void handleBeforeOpeningView(ViewType type, const NvDeviceId& id);
    void handleAfterOpeningView(ViewType type, const NvDeviceId& id);
    void handleViewOperationStarted(ViewManager::ViewOperation::Type op, ViewType type);
    void handleViewOperationCompleted(ViewManager::ViewOperation::Type op, ViewType type);
    void handleViewClosedByUser(ViewType type, const NvDeviceId& id);
    // A view toggle of the View menu or tool bar.
    void toggleViewType(ViewType type, bool on);
    // Device > Record: starts recording every measuring device, or stops the recording.
    void toggleRecording();
    void handleRecordingStateChanged(bool recording);
    void handleRecordError(int type, const QString& text);
    // File > Export: the open recording through an exporter plug-in.
    void exportFile();
    // File > Batch Export: several recordings in one run (the open one listed first).
    void batchExport();
    // Tools > Message Viewer / Packet Viewer / Message Composer for the selected device.
    void openMessageViewer();
    void openPacketViewer();
    void openMessageComposer();
    // Tools > Options: the application's options; applied ones take effect at once.
    void showOptions();
    // The settings dialog of the selected device (the first of several).
    void openDeviceSettings();
    void openDeviceSettings(const NvDeviceId& id);
    void handleKvSettingsConfigurationChanged(const NvDeviceId& id);
    void handleOnboardScenariosChanged(const NvDeviceId& id);
    void handleFilterOptionsShortcutTriggered(const NvDeviceId& id);
    void handleFilterChanged(const NvDeviceId& id);

    // Periodic requests: battery levels of wireless trackers (500 ms), GNSS status (2 s).
    void startSendingBatteryRequests();
    void stopSendingBatteryRequests();
    void startSendingGpsStatusRequests();
    void stopSendingGpsStatusRequests();

signals:
    // Queued to the window's own handlers, so that any thread may request these.
    // baudRate: bits per second, 0 to detect it.
    void portScanRequested(const QString& portName, int baudRate);
    void loadFileRequested(const QString& fileName);
    void closing();
    // A file load has begun (from the command line, the menu, a drop or a request).
    void fileLoadStarted(const QString& fileName);

protected:
    bool event(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private slots:
    void handlePortScanRequested(const QString& portName, int baudRate);
    void handleLoadFileRequested(const QString& fileName);
    void handleDeviceListVisibilityChanged(bool visible);
    void fileOpen();
    void fileClose();
    void showAbout();

private:
    void construct();
    void destruct();

    void constructUi();
    void constructToolBarWidgets();
    void destructToolBarWidgets();
    void constructStatusBarWidgets();
    void destructStatusBarWidgets();
    void constructNdaControl();
    void destructNdaControl();
    void constructDeviceController();
    void destructDeviceController();
    void constructHardwareScanner();
    void destructHardwareScanner();
    void constructDeviceModel();
    void destructDeviceModel();
    void constructDeviceList();
    void destructDeviceList();
    void reloadDeviceList();
    void constructViewManager();
    void destructViewManager();
    // Which device may show which view: the registration of the view types.
    void registerViewPermissions();
    void constructDialogManagers();
    void destructDialogManagers();
    void constructProtocolTools();
    void destructProtocolTools();
    // A protocol tool window for the selected device, closed with the devices.
    void showToolWindow(QWidget* window);
    void constructFilePlaybackManager();
    void destructFilePlaybackManager();
    void updatePlaybackActions();
    void constructFileRecordManager();
    void destructFileRecordManager();
    void constructPlotManager();
    void destructPlotManager();
    // Views follow the selection: wanted kinds open for new devices, close for old ones.
    void updateViewsForSelection(const std::vector<NvDeviceId>& previous);
    void updateViewActions();
    void saveWantedViewTypes() const;
    void constructRecentFileMenu();
    void destructRecentFileMenu();
    void constructMessageWindow();
    void destructMessageWindow();
    void constructScanLogWindow();
    void destructScanLogWindow();
    void connectUi();

    void setupHelpMenu();
    void fixUiObjectNames();
    void readAdvancedSettings();
    void updateWindowTitle();
    void applyDefaultLayout();
    // Modal critical box, queued behind one that is already showing.
    void showCriticalMessage(const QString& title, const QString& text);
    // Holds a wrapper for every open main device, so that each keeps its link record.
    void holdOpenDevices();
    void releaseHeldDevices();
    void updateDeviceStatus();
    void updateRecordingIndicator();
    // A closable tool window at the bottom whose visibility the toggle action follows.
    QDockWidget* makeToolDock(const QString& title, const QString& objectName, QWidget* content,
                              QAction* toggle);
    static void restoreDockGeometry(QDockWidget* dock, const QVariant& stored);

    KvManagerUi m_ui;
    UpdateServerOptions m_updateServer;
    PluginManager* m_pluginManager = nullptr;
    NdaControl* m_ndaControl = nullptr;
    DeviceController* m_deviceController = nullptr;
    HardwareScanner* m_hardwareScanner = nullptr;
    NvDeviceIdArray m_heldDevices;
    QTimer* m_deviceStatusTimer = nullptr;
    QTimer* m_batteryTimer = nullptr;
    QTimer* m_trackerReloadTimer = nullptr;
    QTimer* m_gpsStatusTimer = nullptr;
    size_t m_recordingDevices = 0;
    size_t m_waitingDevices = 0;

    QDockWidget* m_deviceListDock = nullptr;
    QStackedWidget* m_deviceListStack = nullptr; // the hint, or the device tree
    DeviceModel* m_deviceModel = nullptr;
    DeviceList* m_deviceList = nullptr;
    NvDeviceIdArray m_selectedDevices;
    ViewManager* m_viewManager = nullptr;
    PlotManager* m_plotManager = nullptr;
    std::set<ViewType> m_wantedViewTypes;
    DeviceDialogManager* m_deviceDialogManager = nullptr;
    KvSettingsDialogManager* m_settingsDialogManager = nullptr;
    FileRecordManager* m_fileRecordManager = nullptr;
    FilePlaybackManager* m_filePlaybackManager = nullptr;
    QSlider* m_playbackSlider = nullptr;
    NvMessagesStructure* m_messagesStructure = nullptr; // read once, at start
    QList<QPointer<QWidget>> m_toolWindows;
    CurrentDirectoryWidget* m_currentDirectoryWidget = nullptr;
    QDockWidget* m_messageWindowDock = nullptr;
    MessageWindow* m_messageWindow = nullptr;
    QDockWidget* m_scanLogWindowDock = nullptr;
    MessageWindow* m_scanLogWindow = nullptr;
    KvmFilterOptionsCallback* m_filterOptionsCallback = nullptr;
    AnimatedIcon* m_recordIcon = nullptr;

    QLabel* m_recordingIndicator = nullptr;
    QLabel* m_deviceCountLabel = nullptr;
    QProgressBar* m_scanProgress = nullptr;

    QString m_currentFileName;
    QList<std::pair<QString, QString>> m_pendingMessages; // title, text
    bool m_showingMessage = false;
    bool m_networkScanner = false;
    bool m_ndaDataViewEnabled = false;
    bool m_messageOnWakeup = false;
};
