#include "startup.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// The start-up path of the real program and its crash handling, each in a child process
// with its own home so that nothing touches the user's settings or journal.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void packQtVersion_data();
    void packQtVersion();
    void fileArgumentLoadsAndDoesNotScan();
    void noArgumentScansAllPorts();
    void undeclaredUpdateOptionsEndWithParserMessage_data();
    void undeclaredUpdateOptionsEndWithParserMessage();
    void helpAndVersionSayOnlyWhatWasAskedFor_data();
    void helpAndVersionSayOnlyWhatWasAskedFor();
    void crashWritesDumpAndExits255_data();
    void crashWritesDumpAndExits255();
    void alertsAndErrorsSurviveSigkill();

private:
    struct Run
    {
        int exitCode = -1;
        QString journal;
        QString errorOutput;
    };
    enum Ending
    {
        RunsUntilTerminated,
        EndsByItself
    };
    // Starts the program; one that keeps running is asked to close with SIGTERM after it
    // has settled, as a user's session would.
    Run runProgram(const QStringList& arguments, Ending ending,
                   const QString& workingDirectory = QString());
    QProcessEnvironment isolatedEnvironment() const;

    QTemporaryDir m_home;
};

void TestStartup::packQtVersion_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<int>("packed");
    QTest::newRow("required") << "6.2.0" << (6 << 16) + (2 << 8);
    QTest::newRow("patch counts") << "6.4.2" << (6 << 16) + (4 << 8) + 2;
    QTest::newRow("major only") << "7" << (7 << 16);
    QTest::newRow("non-number is 0") << "6.x.3" << (6 << 16) + 3;
    QTest::newRow("empty") << "" << 0;
    QTest::newRow("extra parts ignored") << "6.5.1.9" << (6 << 16) + (5 << 8) + 1;
}

void TestStartup::packQtVersion()
{
    QFETCH(QString, version);
    QFETCH(int, packed);
    QCOMPARE(::packQtVersion(version), packed);
    // The check itself: older run times are refused, newer ones pass.
    QVERIFY(::packQtVersion(QStringLiteral("6.1.9")) < ::packQtVersion(requiredQtVersion));
    QVERIFY(::packQtVersion(QStringLiteral("6.10.0")) > ::packQtVersion(requiredQtVersion));
}

QProcessEnvironment TestStartup::isolatedEnvironment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), m_home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), m_home.filePath(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_home.path());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("KVMANAGER_LOG_LEVEL"), QStringLiteral("debug"));
    return env;
}

TestStartup::Run TestStartup::runProgram(const QStringList& arguments, Ending ending,
                                         const QString& workingDirectory)
{
    const QString journalPath =
        m_home.filePath(QStringLiteral("data/Nivra/kvmanager/kvmanager.log"));
    QFile::remove(journalPath);

    QProcess process;
    process.setProcessEnvironment(isolatedEnvironment());
    if (!workingDirectory.isEmpty())
        process.setWorkingDirectory(workingDirectory);
    process.start(QStringLiteral(KVMANAGER_BINARY), arguments);
    Run run;
    if (!process.waitForStarted(10000))
        return run;

    auto journalText = [&journalPath] {
        QFile file(journalPath);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    };
    if (ending == RunsUntilTerminated) {
        QTest::qWait(1500);
        if (process.state() == QProcess::Running)
            ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    }
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished();
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.journal = journalText();
    run.errorOutput = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

void TestStartup::fileArgumentLoadsAndDoesNotScan()
{
    QTemporaryDir work;
    QFile recording(work.filePath(QStringLiteral("trial 1.kvb")));
    QVERIFY(recording.open(QIODevice::WriteOnly));
    recording.write("not much of a recording");
    recording.close();

    // A relative name on the command line is loaded by its absolute path.
    const Run run = runProgram({QStringLiteral("trial 1.kvb")}, RunsUntilTerminated, work.path());
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.journal.contains(QStringLiteral("Loading file ") + recording.fileName()),
             qPrintable(run.journal));
    QVERIFY(!run.journal.contains(QStringLiteral("Scanning all ports")));
    // The journal starts with its header.
    QVERIFY(run.journal.section(QLatin1Char('\n'), 0, 0)
                .contains(QRegularExpression(QStringLiteral(
                    "\\[WRITE\\] Journaller logging to .*kvmanager\\.log for Kv Manager on "))));
}

void TestStartup::noArgumentScansAllPorts()
{
    const Run run = runProgram({}, RunsUntilTerminated);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.journal.contains(QStringLiteral("Scanning all ports")), qPrintable(run.journal));
    QVERIFY(!run.journal.contains(QStringLiteral("Loading file")));
    QVERIFY(run.journal.contains(QStringLiteral("Closing on signal 15")));
}

void TestStartup::undeclaredUpdateOptionsEndWithParserMessage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("option");
    QTest::newRow("updateserver") << QStringList{"-updateserver", "example.invalid"}
                                  << "updateserver";
    QTest::newRow("serverport") << QStringList{"-serverport", "8443"} << "serverport";
}

void TestStartup::undeclaredUpdateOptionsEndWithParserMessage()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, option);
    const Run run = runProgram(arguments, EndsByItself);
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.errorOutput.contains(QStringLiteral("Unknown option '%1'").arg(option)),
             qPrintable(run.errorOutput));
}

void TestStartup::helpAndVersionSayOnlyWhatWasAskedFor_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QString>("expected");
    QTest::newRow("help") << "-help"
                          << "An kvb file to open";
    QTest::newRow("version") << "-version"
                             << "Kv Manager";
}

void TestStartup::helpAndVersionSayOnlyWhatWasAskedFor()
{
    QFETCH(QString, option);
    QFETCH(QString, expected);
    QProcess process;
    process.setProcessEnvironment(isolatedEnvironment());
    process.start(QStringLiteral(KVMANAGER_BINARY), {option});
    QVERIFY(process.waitForFinished(30000));
    QCOMPARE(process.exitCode(), 0);
    const QString output = QString::fromLocal8Bit(process.readAllStandardOutput());
    QVERIFY2(output.contains(expected), qPrintable(output));
    // No journal line (such as its header) on the terminal around it.
    const QString errors = QString::fromLocal8Bit(process.readAllStandardError());
    QVERIFY2(!errors.contains(QRegularExpression(QStringLiteral("\\d+\\.\\d{3} <[0-9A-F]{8}> "))),
             qPrintable(errors));
    QVERIFY2(!errors.contains(QStringLiteral("Journaller logging to")), qPrintable(errors));
}

void TestStartup::crashWritesDumpAndExits255_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<QString>("signalText");
    QTest::newRow("segmentation fault") << "segv" << QString::fromLocal8Bit(strsignal(SIGSEGV));
    QTest::newRow("floating point") << "fpe" << QString::fromLocal8Bit(strsignal(SIGFPE));
    QTest::newRow("abort") << "abort" << QString::fromLocal8Bit(strsignal(SIGABRT));
    QTest::newRow("illegal instruction") << "ill" << QString::fromLocal8Bit(strsignal(SIGILL));
    QTest::newRow("fatal Qt message") << "qfatal" << QString::fromLocal8Bit(strsignal(SIGABRT));
}

void TestStartup::crashWritesDumpAndExits255()
{
    QFETCH(QString, how);
    QFETCH(QString, signalText);
    QTemporaryDir dir;
    const QString log = dir.filePath(QStringLiteral("crash.log"));

    QProcess child;
    child.start(QStringLiteral(CRASHCHILD_BINARY), {log, how});
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 255);

    QFile file(log);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    QVERIFY2(text.contains(QStringLiteral("[FATAL] ") + signalText), qPrintable(text));
    const qsizetype begin = text.indexOf(QStringLiteral("************ Dump Begin ************"));
    const qsizetype end = text.indexOf(QStringLiteral("************* Dump End *************"));
    QVERIFY(begin >= 0);
    QVERIFY(end > begin);
    // The frames between the markers are demangled.
    QVERIFY2(text.mid(begin, end - begin).contains(QStringLiteral("crashtest::faultingFunction")),
             qPrintable(text));
    if (how == QLatin1String("qfatal"))
        QVERIFY(text.contains(QStringLiteral("[FATAL] fatal condition for the test")));
}

void TestStartup::alertsAndErrorsSurviveSigkill()
{
    // A child set up as the application sets itself up journals a Qt warning (ALERT).
    QTemporaryDir dir;
    const QString log = dir.filePath(QStringLiteral("alert.log"));
    QProcess child;
    child.start(QStringLiteral(CRASHCHILD_BINARY), {log, QStringLiteral("alert")});
    QVERIFY(child.waitForStarted(10000));
    QByteArray said;
    QTRY_VERIFY_WITH_TIMEOUT((said += child.readAllStandardOutput()).contains("logged"), 10000);
    ::kill(static_cast<pid_t>(child.processId()), SIGKILL);
    QVERIFY(child.waitForFinished(10000));
    QFile file(log);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    QVERIFY2(text.contains(QStringLiteral("[ALERT] alert for the test")), qPrintable(text));

    // The program itself, at its default log level: a recording it cannot load is an
    // ERROR line, readable while its box waits for the user and after a kill -9.
    QTemporaryDir work;
    QFile recording(work.filePath(QStringLiteral("broken.kvb")));
    QVERIFY(recording.open(QIODevice::WriteOnly));
    recording.write("not a recording");
    recording.close();
    const QString journalPath =
        m_home.filePath(QStringLiteral("data/Nivra/kvmanager/kvmanager.log"));
    QFile::remove(journalPath);
    QProcessEnvironment env = isolatedEnvironment();
    env.remove(QStringLiteral("KVMANAGER_LOG_LEVEL"));
    QProcess program;
    program.setProcessEnvironment(env);
    program.start(QStringLiteral(KVMANAGER_BINARY), {recording.fileName()});
    QVERIFY(program.waitForStarted(10000));
    auto journal = [&journalPath] {
        QFile file(journalPath);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    };
    const QString line = QStringLiteral("[ERROR] Failed to load file ") + recording.fileName();
    QTRY_VERIFY_WITH_TIMEOUT(journal().contains(line), 20000);
    QCOMPARE(program.state(), QProcess::Running);
    ::kill(static_cast<pid_t>(program.processId()), SIGKILL);
    QVERIFY(program.waitForFinished(10000));
    QVERIFY2(journal().contains(line), qPrintable(journal()));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
