#pragma once

#include <QList>

class QAction;
class QMainWindow;
class QMdiArea;
class QMenu;
class QMenuBar;
class QStatusBar;
class QToolBar;

// The main window's menus, actions and tool bars, built in code the way a designer form
// would be. The main window connects them (connectUi); later companions fill their slots.
struct KvManagerUi
{
    // Indexed like ViewType: one checkable toggle per kind of data view.
    static constexpr int viewTypeCount = 14;
    static constexpr int recentFileSlots = 10;

    void setupUi(QMainWindow* window);
    void retranslateUi();

    QMdiArea* mdiArea = nullptr;
    QMenuBar* menuBar = nullptr;
    QStatusBar* statusBar = nullptr;
    QToolBar* mainToolBar = nullptr;
    QToolBar* playbackToolBar = nullptr;

    QMenu* menuFile = nullptr;
    QMenu* menuRecentFiles = nullptr;
    QMenu* menuDevice = nullptr;
    QMenu* menuView = nullptr;
    QMenu* menuTools = nullptr;
    QMenu* menuHelp = nullptr;

    QAction* actionOpen = nullptr;
    QAction* actionClose = nullptr;
    QAction* actionExport = nullptr;
    QAction* actionBatchExport = nullptr;
    QAction* actionExit = nullptr;
    QAction* recentFileActions[recentFileSlots] = {};

    QAction* actionScanAllPorts = nullptr;
    QAction* actionScanPort = nullptr;
    QAction* actionDeviceSettings = nullptr;
    QAction* actionWirelessConfiguration = nullptr;
    QAction* actionMeasure = nullptr;
    QAction* actionConfigMode = nullptr;
    QAction* actionRecord = nullptr;

    QAction* viewActions[viewTypeCount] = {};
    QAction* actionTileViews = nullptr;
    QAction* actionDeviceList = nullptr;
    QAction* actionMessageWindow = nullptr;
    QAction* actionScanLog = nullptr;

    QAction* actionPlay = nullptr;
    QAction* actionPause = nullptr;
    QAction* actionStop = nullptr;
    QAction* actionToStart = nullptr;

    QAction* actionNtripClient = nullptr;
    QAction* actionMessageViewer = nullptr;
    QAction* actionPacketViewer = nullptr;
    QAction* actionMessageComposer = nullptr;
    QAction* actionOptions = nullptr;

    QAction* actionAbout = nullptr;
    QAction* actionAboutQt = nullptr;

    // The menu texts of the view toggles, by ViewType value.
    static const char* const viewTypeTexts[viewTypeCount];
    static const char* const viewTypeIcons[viewTypeCount];
};
