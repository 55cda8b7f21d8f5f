#include "kvmanagerui.h"

#include <QAction>
#include <QCoreApplication>
#include <QIcon>
#include <QMainWindow>
#include <QMdiArea>
#include <QMenu>
#include <QMenuBar>
#include <QStatusBar>
#include <QToolBar>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("KvManager", text);
}

QIcon actionIcon(const char* name)
{
    return QIcon(QStringLiteral(":/kvmanager/Resources/actions/%1.svg").arg(QLatin1String(name)));
}

QAction* makeAction(QMainWindow* window, const char* objectName, const char* icon = nullptr)
{
    auto* action = new QAction(window);
    action->setObjectName(QLatin1String(objectName));
    if (icon)
        action->setIcon(actionIcon(icon));
    return action;
}

} // namespace

const char* const KvManagerUi::viewTypeTexts[viewTypeCount] = {
    "&3D View",  "&Inertial Data", "&Orientation Data", "&Status",           "&Position",
    "&Altitude", "P&ressure",      "&Velocity",         "&GNSS Satellites",  "&UTC Date and Time",
    "&NDA Data", "&Temperature",   "Device &Messages",  "&Free Acceleration"};

const char* const KvManagerUi::viewTypeIcons[viewTypeCount] = {
    "view-3d",   "view-plot", "view-plot", "view-plot", "view-plot", "view-plot",      "view-plot",
    "view-plot", "view-plot", "view-plot", "scan-log",  "view-plot", "message-window", "view-plot"};

void KvManagerUi::setupUi(QMainWindow* window)
{
    window->setObjectName(QStringLiteral("KvManager"));
    window->setDockOptions(QMainWindow::AnimatedDocks | QMainWindow::AllowTabbedDocks);

    mdiArea = new QMdiArea(window);
    mdiArea->setObjectName(QStringLiteral("mdiArea"));
    mdiArea->setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    mdiArea->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    window->setCentralWidget(mdiArea);

    actionOpen = makeAction(window, "actionOpen", "open");
    actionOpen->setShortcut(QKeySequence::Open);
    actionClose = makeAction(window, "actionClose", "close");
    actionClose->setShortcut(QKeySequence::Close);
    actionClose->setEnabled(false);
    actionExport = makeAction(window, "actionExport");
    actionExport->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
    actionExport->setEnabled(false);
    actionBatchExport = makeAction(window, "actionBatchExport");
    actionBatchExport->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_E));
    actionExit = makeAction(window, "actionExit", "exit");
    actionExit->setShortcut(QKeySequence::Quit);
    actionExit->setMenuRole(QAction::QuitRole);
    for (int i = 0; i < recentFileSlots; ++i) {
        recentFileActions[i] = new QAction(window);
        recentFileActions[i]->setObjectName(QStringLiteral("actionRecentFile%1").arg(i + 1));
        recentFileActions[i]->setVisible(false);
    }

    actionScanAllPorts = makeAction(window, "actionScanAllPorts", "scan-all");
    actionScanAllPorts->setShortcuts({QKeySequence(Qt::Key_F5), QKeySequence::Refresh});
    actionScanPort = makeAction(window, "actionScanPort", "scan-port");
    actionScanPort->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_F5));
    actionDeviceSettings = makeAction(window, "actionDeviceSettings", "device-settings");
    actionDeviceSettings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_D));
    actionDeviceSettings->setEnabled(false);
    actionWirelessConfiguration = makeAction(window, "actionWirelessConfiguration", "wireless");
    actionWirelessConfiguration->setEnabled(false);
    actionMeasure = makeAction(window, "actionMeasure", "measure");
    actionMeasure->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_M));
    actionMeasure->setEnabled(false);
    actionConfigMode = makeAction(window, "actionConfigMode", "config-mode");
    actionConfigMode->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_M));
    actionConfigMode->setEnabled(false);
    actionRecord = makeAction(window, "actionRecord");
    actionRecord->setCheckable(true);
    actionRecord->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_R));
    actionRecord->setEnabled(false);

    for (int i = 0; i < viewTypeCount; ++i) {
        viewActions[i] = makeAction(window, "", viewTypeIcons[i]);
        viewActions[i]->setObjectName(QStringLiteral("actionView%1").arg(i));
        viewActions[i]->setCheckable(true);
        viewActions[i]->setEnabled(false);
        viewActions[i]->setData(i);
    }
    actionTileViews = makeAction(window, "actionTileViews");
    actionTileViews->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_T));
    actionDeviceList = makeAction(window, "actionDeviceList", "device-list");
    actionDeviceList->setCheckable(true);
    actionDeviceList->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_1));
    actionMessageWindow = makeAction(window, "actionMessageWindow", "message-window");
    actionMessageWindow->setCheckable(true);
    actionMessageWindow->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_2));
    actionScanLog = makeAction(window, "actionScanLog", "scan-log");
    actionScanLog->setCheckable(true);
    actionScanLog->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_3));

    actionPlay = new QAction(
        QIcon(QStringLiteral(":/kvmanager/Resources/playbackToolbar/play-32n")), QString(), window);
    actionPlay->setObjectName(QStringLiteral("actionPlay"));
    actionPlay->setShortcut(QKeySequence(Qt::Key_Space));
    actionPause =
        new QAction(QIcon(QStringLiteral(":/kvmanager/Resources/playbackToolbar/pause-32n")),
                    QString(), window);
    actionPause->setObjectName(QStringLiteral("actionPause"));
    actionStop = new QAction(
        QIcon(QStringLiteral(":/kvmanager/Resources/playbackToolbar/stop-32n")), QString(), window);
    actionStop->setObjectName(QStringLiteral("actionStop"));
    actionToStart =
        new QAction(QIcon(QStringLiteral(":/kvmanager/Resources/playbackToolbar/tostart-32n")),
                    QString(), window);
    actionToStart->setObjectName(QStringLiteral("actionToStart"));
    actionToStart->setShortcut(QKeySequence(Qt::Key_Home));
    for (QAction* action : {actionPlay, actionPause, actionStop, actionToStart})
        action->setEnabled(false);

    actionMessageViewer = makeAction(window, "actionMessageViewer");
    actionMessageViewer->setShortcut(QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_M));
    actionMessageViewer->setEnabled(false);
    actionPacketViewer = makeAction(window, "actionPacketViewer");
    actionPacketViewer->setShortcut(QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_P));
    actionPacketViewer->setEnabled(false);
    actionMessageComposer = makeAction(window, "actionMessageComposer");
    actionMessageComposer->setShortcut(QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_C));
    actionMessageComposer->setEnabled(false);
    actionNtripClient = makeAction(window, "actionNtripClient", "ntrip");
    actionNtripClient->setCheckable(true);
    actionNtripClient->setEnabled(false);
    actionOptions = makeAction(window, "actionOptions", "options");
    actionOptions->setShortcut(QKeySequence::Preferences);
    actionOptions->setMenuRole(QAction::PreferencesRole);
    actionAbout = makeAction(window, "actionAbout", "about");
    actionAbout->setMenuRole(QAction::AboutRole);
    actionAboutQt = makeAction(window, "actionAboutQt");
    actionAboutQt->setMenuRole(QAction::AboutQtRole);

    menuBar = new QMenuBar(window);
    menuBar->setObjectName(QStringLiteral("menuBar"));
    window->setMenuBar(menuBar);

    menuFile = menuBar->addMenu(QString());
    menuFile->setObjectName(QStringLiteral("menuFile"));
    menuFile->addAction(actionOpen);
    menuRecentFiles = menuFile->addMenu(QString());
    menuRecentFiles->setObjectName(QStringLiteral("menuRecentFiles"));
    for (QAction* action : recentFileActions)
        menuRecentFiles->addAction(action);
    menuFile->addAction(actionClose);
    menuFile->addSeparator();
    menuFile->addAction(actionExport);
    menuFile->addAction(actionBatchExport);
    menuFile->addSeparator();
    menuFile->addAction(actionExit);

    menuDevice = menuBar->addMenu(QString());
    menuDevice->setObjectName(QStringLiteral("menuDevice"));
    menuDevice->addAction(actionScanAllPorts);
    menuDevice->addAction(actionScanPort);
    menuDevice->addSeparator();
    menuDevice->addAction(actionMeasure);
    menuDevice->addAction(actionConfigMode);
    menuDevice->addAction(actionRecord);
    menuDevice->addSeparator();
    menuDevice->addAction(actionDeviceSettings);
    menuDevice->addAction(actionWirelessConfiguration);

    menuView = menuBar->addMenu(QString());
    menuView->setObjectName(QStringLiteral("menuView"));
    for (QAction* action : viewActions)
        menuView->addAction(action);
    menuView->addAction(actionTileViews);
    menuView->addSeparator();
    menuView->addAction(actionDeviceList);
    menuView->addAction(actionMessageWindow);
    menuView->addAction(actionScanLog);

    menuTools = menuBar->addMenu(QString());
    menuTools->setObjectName(QStringLiteral("menuTools"));
    menuTools->addAction(actionMessageViewer);
    menuTools->addAction(actionPacketViewer);
    menuTools->addAction(actionMessageComposer);
    menuTools->addSeparator();
    menuTools->addAction(actionNtripClient);
    menuTools->addSeparator();
    menuTools->addAction(actionOptions);

    menuHelp = menuBar->addMenu(QString());
    menuHelp->setObjectName(QStringLiteral("menuHelp"));
    menuHelp->addAction(actionAbout);

    mainToolBar = new QToolBar(window);
    mainToolBar->setObjectName(QStringLiteral("mainToolBar"));
    mainToolBar->setIconSize(QSize(24, 24));
    window->addToolBar(Qt::TopToolBarArea, mainToolBar);
    mainToolBar->addAction(actionOpen);
    mainToolBar->addAction(actionScanAllPorts);
    mainToolBar->addAction(actionScanPort);
    mainToolBar->addSeparator();
    mainToolBar->addAction(actionMeasure);
    mainToolBar->addAction(actionConfigMode);
    mainToolBar->addAction(actionRecord);
    mainToolBar->addSeparator();
    mainToolBar->addAction(actionDeviceSettings);
    mainToolBar->addAction(actionWirelessConfiguration);
    mainToolBar->addSeparator();
    mainToolBar->addAction(viewActions[0]);
    mainToolBar->addAction(viewActions[1]);
    mainToolBar->addAction(viewActions[2]);

    playbackToolBar = new QToolBar(window);
    playbackToolBar->setObjectName(QStringLiteral("playbackToolBar"));
    playbackToolBar->setIconSize(QSize(24, 24));
    window->addToolBar(Qt::TopToolBarArea, playbackToolBar);
    playbackToolBar->addAction(actionToStart);
    playbackToolBar->addAction(actionPlay);
    playbackToolBar->addAction(actionPause);
    playbackToolBar->addAction(actionStop);

    statusBar = new QStatusBar(window);
    statusBar->setObjectName(QStringLiteral("statusBar"));
    window->setStatusBar(statusBar);

    retranslateUi();
}

void KvManagerUi::retranslateUi()
{
    menuFile->setTitle(tr("&File"));
    menuRecentFiles->setTitle(tr("&Recent Files"));
    menuDevice->setTitle(tr("&Device"));
    menuView->setTitle(tr("&View"));
    menuTools->setTitle(tr("&Tools"));
    menuHelp->setTitle(tr("&Help"));
    mainToolBar->setWindowTitle(tr("Main Toolbar"));
    playbackToolBar->setWindowTitle(tr("Playback Toolbar"));

    actionOpen->setText(tr("&Open..."));
    actionOpen->setStatusTip(tr("Open a recording (kvb, nm or bin file)"));
    actionClose->setText(tr("&Close File"));
    actionClose->setStatusTip(tr("Close the open recording"));
    actionExport->setText(tr("&Export..."));
    actionExport->setStatusTip(tr("Export the open recording through an exporter plug-in"));
    actionBatchExport->setText(tr("&Batch Export..."));
    actionBatchExport->setStatusTip(tr("Export several recordings in one run"));
    actionExit->setText(tr("E&xit"));
    actionScanAllPorts->setText(tr("Scan &All Ports"));
    actionScanAllPorts->setStatusTip(tr("Search every port for devices and open them"));
    actionScanPort->setText(tr("Scan &Port..."));
    actionScanPort->setStatusTip(tr("Search one port for devices"));
    actionMeasure->setText(tr("&Measurement Mode"));
    actionMeasure->setStatusTip(tr("Put the selected devices into measurement"));
    actionConfigMode->setText(tr("&Configuration Mode"));
    actionConfigMode->setStatusTip(tr("Put the selected devices into configuration mode"));
    actionRecord->setText(tr("&Record"));
    actionRecord->setStatusTip(tr("Record the measuring devices to a log file"));
    actionDeviceSettings->setText(tr("Device &Settings..."));
    actionDeviceSettings->setStatusTip(tr("Change the configuration of the selected device"));
    actionWirelessConfiguration->setText(tr("&Wireless Configuration..."));
    actionWirelessConfiguration->setStatusTip(tr("Radio channel and update rate of a master"));
    for (int i = 0; i < viewTypeCount; ++i)
        viewActions[i]->setText(tr(viewTypeTexts[i]));
    actionTileViews->setText(tr("&Tile Views"));
    actionDeviceList->setText(tr("&Device List"));
    actionMessageWindow->setText(tr("&Message Window"));
    actionScanLog->setText(tr("Scan &Log"));
    actionPlay->setText(tr("Play"));
    actionPause->setText(tr("Pause"));
    actionStop->setText(tr("Stop"));
    actionToStart->setText(tr("Jump to Start"));
    actionMessageViewer->setText(tr("&Message Viewer"));
    actionMessageViewer->setStatusTip(
        tr("Every message sent to and received from the selected device, decoded"));
    actionPacketViewer->setText(tr("&Packet Viewer"));
    actionPacketViewer->setStatusTip(
        tr("The latest data packet of the selected device, item by item"));
    actionMessageComposer->setText(tr("Message &Composer"));
    actionMessageComposer->setStatusTip(
        tr("Compose a message, send it to the selected device, see the reply"));
    actionNtripClient->setText(tr("&NTRIP Client"));
    actionNtripClient->setStatusTip(tr("Forward RTK corrections from a caster to a device"));
    actionOptions->setText(tr("&Options..."));
    actionAbout->setText(tr("&About Kv Manager"));
    actionAboutQt->setText(tr("About &Qt"));
}
