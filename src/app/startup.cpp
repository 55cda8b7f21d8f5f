#include "startup.h"

#include "crashhandler.h"
#include "jlqt.h"
#include "journaller.h"
#include "kvmanager.h"
#include "kvversion.h"
#include "nivradeviceapi.h"
#include "periphery.h"
#include "unixsignalwatcher.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QStandardPaths>
#include <QTimer>

namespace {

void journalSink(void* context, NdaLogLevel level, const char* line)
{
    static_cast<Journaller*>(context)->log(static_cast<JournalLogLevel>(level), line);
}

// KVMANAGER_LOG_LEVEL=trace|debug|... makes the journal more (or less) talkative
// for a diagnostic run; without it the journal keeps to alerts and worse.
JournalLogLevel initialLogLevel()
{
    JournalLogLevel level = JLL_ALERT;
    const QByteArray text = qgetenv("KVMANAGER_LOG_LEVEL");
    if (!text.isEmpty() && !journalLevelFromText(text.toStdString(), &level))
        level = JLL_ALERT;
    return level;
}

} // namespace

int packQtVersion(const QString& version)
{
    const QStringList parts = version.split(QLatin1Char('.'));
    int packed = 0;
    for (int i = 0; i < 3; ++i) {
        const int value = i < parts.size() ? parts.at(i).toInt() : 0;
        packed = packed * 256 + value;
    }
    // major * 65536 + minor * 256 + patch
    return packed;
}

QString journalFolder()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
    return QDir::toNativeSeparators(QStringLiteral("%1/Nivra/kvmanager/").arg(base));
}

int kvManagerMain(int argc, char** argv)
{
    const QString folder = journalFolder();
    QDir().mkpath(folder);

    auto* journal = new Journaller(QStringLiteral("%1kvmanager.log").arg(folder).toStdString(),
                                   true, initialLogLevel());
    journal->setDebugLevel(JLL_FATAL);
    journal->writeFileHeader("Kv Manager");
    jlSetGlobalJournal(journal);
    ndaSetLogger(journalSink, journal);

    const int exitCode = mainCatch(argc, argv);

    ndaTerminate();
    jlTerminate(journal);
    return exitCode;
}

int mainCatch(int argc, char** argv)
{
    jlSetCrashJournal(jlGlobalJournal());
    installCrashHandler();
    return startApp(argc, argv);
}

int startApp(int argc, char** argv)
{
    QtMessageHandler previousHandler = nullptr;
    if (jlGlobalJournal())
        previousHandler = qInstallMessageHandler(jlQtMessageHandler);

    const int required = packQtVersion(QString::fromLatin1(requiredQtVersion));
    if (packQtVersion(QString::fromLatin1(qVersion())) < required) {
        if (!QApplication::instance())
            new QApplication(argc, argv);
        const QString text =
            QStringLiteral("Executable '%1' requires Qt %2, found Qt %3.")
                .arg(QCoreApplication::applicationName(), QString::fromLatin1(requiredQtVersion),
                     QString::fromLatin1(qVersion()));
        QMessageBox::critical(nullptr, QStringLiteral("Incompatible Qt Library Error"), text);
        qFatal("%s", qPrintable(text));
    }

    QApplication app(argc, argv);
    QApplication::setAttribute(Qt::AA_DontCreateNativeWidgetSiblings);
    Q_INIT_RESOURCE(kvmanager);

    QApplication::setOrganizationName(Branding::organizationName());
    QApplication::setOrganizationDomain(Branding::organizationDomain());
    QApplication::setApplicationName(Branding::applicationName());
    QApplication::setWindowIcon(QIcon(Branding::windowIconPath()));
    QApplication::setApplicationVersion(QStringLiteral("%1.%2.%3 %4")
                                            .arg(KV_VERSION_MAJOR)
                                            .arg(KV_VERSION_MINOR)
                                            .arg(KV_VERSION_REVISION)
                                            .arg(QStringLiteral(KV_BUILD_TEXT)));

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("An kvb file to open"));
    parser.process(app);

    QString fileToOpen;
    if (!parser.positionalArguments().isEmpty())
        fileToOpen = QFileInfo(parser.positionalArguments().constFirst()).absoluteFilePath();

    UsageStatistics::start();
    UsageStatistics::logEvent(QStringLiteral("application"), QStringLiteral("start"));

    UpdateServerOptions updateServer;
    // These two options are never declared, so the parser reports them as undefined and
    // the update server keeps its defaults.
    const QString server = parser.value(QStringLiteral("updateserver"));
    if (!server.isEmpty())
        updateServer.hostName = server;
    const QString port = parser.value(QStringLiteral("serverport"));
    if (!port.isEmpty())
        updateServer.port = port.toInt();

    int exitCode = 0;
    {
        KvManager window(updateServer);
        UnixSignalWatcher signalWatcher;
        QObject::connect(&signalWatcher, &UnixSignalWatcher::terminationRequested, &window,
                         [](int signal) {
                             jlLog(JLL_ALERT, "Closing on signal " + std::to_string(signal));
                             QApplication::closeAllWindows();
                         });
        window.show();
        // From the event loop, so that a quit requested while a load reports a failure in
        // a box ends the program rather than a loop that has not started yet.
        QTimer::singleShot(0, &window, [&window, fileToOpen] {
            if (!fileToOpen.isEmpty())
                window.loadFile(fileToOpen);
            else
                window.doScanAllPorts();
        });

        exitCode = QApplication::exec();
    }

    UsageStatistics::logPreferences();
    UsageStatistics::logEvent(QStringLiteral("application"), QStringLiteral("stop"));
    UsageStatistics::stop(10000);
    UsageStatistics::cleanup();

    if (jlGlobalJournal())
        qInstallMessageHandler(previousHandler);
    return exitCode;
}
