#include "jlqt.h"
#include "journaller.h"

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QVariant>

#include <atomic>
#include <ctime>
#include <set>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace kvtest {
// Needs external linkage (and an exported executable) for dladdr to name it.
class CallstackProbe
{
public:
    __attribute__((noinline)) static void dump(Journaller& journal)
    {
        journal.writeCallstack(JLL_ALERT);
        asm volatile(""); // keeps the call from becoming a tail call
    }
};
} // namespace kvtest

namespace {

QString readAll(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

QStringList readLines(const QString& path)
{
    return readAll(path).split('\n', Qt::SkipEmptyParts);
}

// Redirects fd 2 into a file for the lifetime of the object.
class StderrCapture
{
public:
    explicit StderrCapture(const QString& path) : m_path(path)
    {
        std::fflush(stderr);
        m_saved = ::dup(2);
        const int fd =
            ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 2);
        ::close(fd);
    }
    ~StderrCapture() { text(); }
    QString text()
    {
        if (m_saved >= 0) {
            std::fflush(stderr);
            ::dup2(m_saved, 2);
            ::close(m_saved);
            m_saved = -1;
        }
        return readAll(m_path);
    }

private:
    QString m_path;
    int m_saved = -1;
};

class RecordingLogger : public JournalAdditionalLogger
{
public:
    explicit RecordingLogger(JournalLogLevel from) : m_from(from) {}
    bool acceptsLevel(JournalLogLevel level) const override { return level >= m_from; }
    void log(JournalLogLevel level, const char* file, int, const char* function,
             const std::string& text) override
    {
        messages << QString("%1%2 %3 %4")
                        .arg(gLogLevelString[level], file, function, QString::fromStdString(text));
    }
    QStringList messages;

private:
    JournalLogLevel m_from;
};

} // namespace

class TestJournaller : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    int m_fileCounter = 0;
    // A fresh file per case so data rows cannot see each other's lines.
    QString newPath(const QString& stem = "journal")
    {
        return m_dir.filePath(QString("%1-%2.log").arg(stem).arg(++m_fileCounter));
    }
    static std::string s(const QString& text) { return text.toStdString(); }

private slots:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QVERIFY(m_dir.isValid());
        // Away from UTC, so local and universal calendar times cannot be mixed up unnoticed.
        qputenv("TZ", "KVT-05:30");
        tzset();
    }

    void levelFromText_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<int>("level");
        QTest::newRow("lower") << "trace" << true << int(JLL_TRACE);
        QTest::newRow("mixed") << "Alert" << true << int(JLL_ALERT);
        QTest::newRow("upper") << "WRITE" << true << int(JLL_WRITE);
        QTest::newRow("digit") << "3" << true << int(JLL_ERROR);
        QTest::newRow("digit out of range") << "6" << false << 0;
        QTest::newRow("unknown name") << "warning" << false << 0;
    }
    void levelFromText()
    {
        QFETCH(QString, text);
        QFETCH(bool, valid);
        QFETCH(int, level);
        JournalLogLevel parsed = JLL_FATAL;
        QCOMPARE(journalLevelFromText(s(text), &parsed), valid);
        if (valid)
            QCOMPARE(int(parsed), level);
    }

    void thresholds_data()
    {
        QTest::addColumn<int>("logLevel");
        QTest::addColumn<int>("debugLevel");
        QTest::addColumn<int>("lineLevel");
        QTest::addColumn<bool>("inFile");
        QTest::addColumn<bool>("onStderr");
        QTest::newRow("echo only")
            << int(JLL_ERROR) << int(JLL_TRACE) << int(JLL_ALERT) << false << true;
        QTest::newRow("below both")
            << int(JLL_ALERT) << int(JLL_ERROR) << int(JLL_DEBUG) << false << false;
        QTest::newRow("file only")
            << int(JLL_ERROR) << int(JLL_FATAL) << int(JLL_ERROR) << true << false;
        QTest::newRow("both") << int(JLL_TRACE) << int(JLL_TRACE) << int(JLL_TRACE) << true << true;
        QTest::newRow("fatal") << int(JLL_ERROR) << int(JLL_FATAL) << int(JLL_FATAL) << true
                               << true;
    }
    void thresholds()
    {
        QFETCH(int, logLevel);
        QFETCH(int, debugLevel);
        QFETCH(int, lineLevel);
        QFETCH(bool, inFile);
        QFETCH(bool, onStderr);
        const QString path = newPath();
        const QString probe = QString("threshold probe ") + QTest::currentDataTag();
        StderrCapture capture(newPath("stderr"));
        Journaller journal(s(path), true, JournalLogLevel(logLevel));
        journal.setDebugLevel(JournalLogLevel(debugLevel));
        // At the flush level the line must be on disk when log() returns.
        journal.setFlushLevel(JournalLogLevel(lineLevel));
        journal.log(JournalLogLevel(lineLevel), s(probe));
        QCOMPARE(capture.text().contains(gLogLevelString[lineLevel] + probe), onStderr);
        QCOMPARE(readAll(path).contains(probe), inFile);
    }

    void lineFormat_data()
    {
        QTest::addColumn<bool>("calendar");
        QTest::addColumn<QString>("tag");
        QTest::newRow("epoch, no tag") << false << "";
        QTest::newRow("epoch, tag") << false << "dev7";
        QTest::newRow("calendar, tag") << true << "dev7";
    }
    void lineFormat()
    {
        QFETCH(bool, calendar);
        QFETCH(QString, tag);
        const QString path = newPath();
        {
            Journaller journal(s(path), true, JLL_TRACE);
            journal.setTag(s(tag));
            journal.setUseCalendarTime(calendar);
            journal.log(JLL_ALERT, "format probe");
        }
        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), 1);
        const QString time =
            calendar ? R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.\d{3})" : R"(([ \d]{10})\.\d{3})";
        const QString tagPart = tag.isEmpty() ? QString() : tag + ' ';
        const QRegularExpression pattern("^" + time + R"( <([0-9A-F]{8})> )" + tagPart +
                                         R"(\[ALERT\] format probe$)");
        const auto match = pattern.match(lines.first());
        QVERIFY2(match.hasMatch(), qPrintable(lines.first()));

        const qint64 seconds =
            calendar
                ? QDateTime::fromString(match.captured(1), "yyyy-MM-dd HH:mm:ss").toSecsSinceEpoch()
                : match.captured(1).trimmed().toLongLong();
        QVERIFY(qAbs(seconds - QDateTime::currentSecsSinceEpoch()) < 10);
        QCOMPARE(match.captured(2).toUInt(nullptr, 16), JournalThreader::currentThreadId());
        QCOMPARE(JournalThreader::currentThreadId(), unsigned(::gettid()));
    }

    void headerAndLevelChangesAreNoted()
    {
        const QString path = newPath();
        StderrCapture capture(newPath("stderr"));
        Journaller journal(s(path), true, JLL_ALERT);
        journal.writeFileHeader("KvManager 1.2");
        journal.setLogLevel(JLL_ERROR);
        journal.setDebugLevel(JLL_FATAL, true);
        journal.setFlushLevel(JLL_ERROR, true);
        journal.setLogLevel(JLL_ALERT, false);
        journal.setDebugLevel(JLL_ERROR);
        journal.flush();

        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), 4);
        QVERIFY2(QRegularExpression(
                     R"(\[WRITE\] Journaller logging to \Q)" + path +
                     R"(\E for KvManager 1\.2 on \d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4}$)")
                     .match(lines[0])
                     .hasMatch(),
                 qPrintable(lines[0]));
        QVERIFY(lines[1].endsWith("[WRITE] Log level set to [ERROR] "));
        QVERIFY(lines[2].endsWith("[WRITE] Debug level set to [FATAL] "));
        QVERIFY(lines[3].endsWith("[WRITE] Flush level set to [ERROR] "));
        // The header is for the file's reader: on stderr it would come before a program's
        // -help text.
        QVERIFY(!capture.text().contains("Journaller logging to"));
    }

    void alertsAndWorseAreOnDiskWhenLogReturns_data()
    {
        QTest::addColumn<int>("lineLevel");
        QTest::addColumn<QVariant>("flushLevel"); // invalid: the default
        QTest::addColumn<bool>("onDisk");
        QTest::newRow("debug waits") << int(JLL_DEBUG) << QVariant() << false;
        QTest::newRow("alert") << int(JLL_ALERT) << QVariant() << true;
        QTest::newRow("error") << int(JLL_ERROR) << QVariant() << true;
        QTest::newRow("alert, flush level fatal")
            << int(JLL_ALERT) << QVariant(int(JLL_FATAL)) << false;
        QTest::newRow("debug, flush level trace")
            << int(JLL_DEBUG) << QVariant(int(JLL_TRACE)) << true;
    }
    void alertsAndWorseAreOnDiskWhenLogReturns()
    {
        QFETCH(int, lineLevel);
        QFETCH(QVariant, flushLevel);
        QFETCH(bool, onDisk);
        const QString path = newPath();
        Journaller journal(s(path), true, JLL_TRACE);
        if (flushLevel.isValid())
            journal.setFlushLevel(JournalLogLevel(flushLevel.toInt()));
        journal.log(JournalLogLevel(lineLevel), "flush probe");
        // Read while the journaller still holds its buffer, as a `tail -f` would.
        QCOMPARE(readAll(path).contains("flush probe"), onDisk);
        journal.flush();
        QVERIFY(readAll(path).contains("flush probe"));
    }

    void unopenableFileEchoesAndCanMove()
    {
        const QString moved = newPath();
        StderrCapture capture(newPath("stderr"));
        Journaller journal(s(m_dir.filePath("missing/journal.log")), true, JLL_TRACE);
        journal.setDebugLevel(JLL_ERROR);
        journal.log(JLL_ERROR, "echo without file");
        journal.writeCallstack(JLL_ERROR);
        QVERIFY(journal.moveLogFile(s(moved), true, true));
        journal.log(JLL_ALERT, "after move");
        journal.flush();
        QVERIFY(capture.text().contains("[ERROR] echo without file"));
        QVERIFY(readAll(moved).contains("after move"));
    }

    void moveLogFileToMissingDirectoryKeepsOldFile()
    {
        const QString path = newPath();
        const QString target = m_dir.filePath("nowhere/new.log");
        StderrCapture capture(newPath("stderr"));
        Journaller journal(s(path), true, JLL_TRACE);
        QVERIFY(!journal.moveLogFile(s(target), true, false));
        journal.log(JLL_ALERT, "still here");
        journal.flush();
        QCOMPARE(QString::fromStdString(journal.fileName()), path);
        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].endsWith("Could not switch to new log location " + target));
        QVERIFY(lines[1].endsWith("still here"));
        QVERIFY(!QFile::exists(target));
    }

    void moveLogFile_data()
    {
        QTest::addColumn<bool>("purge");
        QTest::addColumn<bool>("copyContents");
        QTest::newRow("purge") << true << false;
        QTest::newRow("append, copy") << false << true;
    }
    void moveLogFile()
    {
        QFETCH(bool, purge);
        QFETCH(bool, copyContents);
        const QString oldPath = newPath("old");
        const QString newPath = this->newPath("new");
        {
            QFile previous(newPath);
            QVERIFY(previous.open(QIODevice::WriteOnly));
            previous.write("previous run\n");
        }
        StderrCapture capture(this->newPath("stderr"));
        Journaller journal(s(oldPath), true, JLL_TRACE);
        journal.log(JLL_ALERT, "old line");
        QVERIFY(journal.moveLogFile(s(QString(newPath).replace('/', '\\')), purge, copyContents));
        QCOMPARE(QString::fromStdString(journal.fileName()), newPath);
        journal.log(JLL_ALERT, "new line");
        journal.flush();

        const QString oldText = readAll(oldPath);
        QVERIFY(oldText.contains("old line"));
        QVERIFY(oldText.contains("[WRITE] Switching to file " + newPath + "\n"));
        QVERIFY(!oldText.contains("new line"));
        const QString newText = readAll(newPath);
        QCOMPARE(newText.contains("previous run"), !purge);
        QCOMPARE(newText.contains("old line"), copyContents);
        QVERIFY(newText.indexOf("old line") < newText.indexOf("new line"));
    }

    void moveLogsSharesFile_data()
    {
        QTest::addColumn<bool>("copyContents");
        QTest::newRow("share") << false;
        QTest::newRow("share, copy") << true;
    }
    void moveLogsSharesFile()
    {
        QFETCH(bool, copyContents);
        const QString pathA = newPath("a");
        const QString pathB = newPath("b");
        StderrCapture capture(newPath("stderr"));
        auto* a = new Journaller(s(pathA), true, JLL_TRACE);
        Journaller b(s(pathB), true, JLL_TRACE);
        a->log(JLL_ALERT, "a line");
        b.log(JLL_ALERT, "b before");
        QVERIFY(b.moveLogs(*a, copyContents));
        QCOMPARE(QString::fromStdString(b.fileName()), pathA);
        // The file must outlive the journaller that opened it while b holds a reference.
        delete a;
        b.log(JLL_ALERT, "b after");
        b.flush();

        const QString textA = readAll(pathA);
        QVERIFY(textA.contains("a line"));
        QVERIFY(textA.contains("b after"));
        QCOMPARE(textA.contains("b before"), copyContents);
        const QString textB = readAll(pathB);
        QVERIFY(textB.contains("[WRITE] Switching to file " + pathA));
        QVERIFY(!textB.contains("b after"));
    }

    void concurrentLinesStayWhole()
    {
        constexpr int kThreads = 8;
        constexpr int kLines = 2000;
        const QString path = newPath();
        Journaller a(s(path), true, JLL_TRACE);
        Journaller b(s(newPath()), true, JLL_TRACE);
        {
            StderrCapture capture(newPath("stderr"));
            QVERIFY(b.moveLogs(a, false));
        }
        std::atomic<bool> go{false};
        std::vector<unsigned> ids(kThreads);
        std::vector<std::thread> workers;
        for (int t = 0; t < kThreads; ++t) {
            workers.emplace_back([&, t] {
                ids[t] = JournalThreader::currentThreadId();
                Journaller& journal = (t % 2) ? a : b; // half through the sharing journaller
                while (!go.load())
                    std::this_thread::yield();
                for (int n = 0; n < kLines; ++n)
                    journal.log(JLL_ALERT, "worker " + std::to_string(t) + " seq " +
                                               std::to_string(n) + ' ' +
                                               std::string(n * 7 % 300, 'x'));
            });
        }
        go = true;
        for (auto& worker : workers)
            worker.join();
        a.flush();

        const QRegularExpression pattern(
            R"(^[ \d]{10}\.\d{3} <([0-9A-F]{8})> \[ALERT\] worker (\d) seq (\d+) (x*)$)");
        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), kThreads * kLines);
        std::vector<int> next(kThreads, 0);
        for (const QString& line : lines) {
            const auto match = pattern.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line));
            const int t = match.captured(2).toInt();
            const int n = match.captured(3).toInt();
            QVERIFY(t < kThreads);
            QCOMPARE(n, next[t]++);
            QCOMPARE(match.capturedLength(4), n * 7 % 300);
            QCOMPARE(match.captured(1).toUInt(nullptr, 16), ids[t]);
        }
        QCOMPARE(std::set<unsigned>(ids.begin(), ids.end()).size(), size_t(kThreads));
    }

    void callstack()
    {
        const QString path = newPath();
        {
            Journaller journal(s(path), true, JLL_TRACE);
            kvtest::CallstackProbe::dump(journal);
        }
        const QStringList lines = readLines(path);
        QVERIFY(lines.size() >= 4);
        QVERIFY(lines.first().endsWith("[ALERT] ************ Dump Begin ************"));
        QVERIFY(lines.last().endsWith("[ALERT] ************* Dump End *************"));
        const QRegularExpression frame(R"(\[ALERT\] #(\d\d) 0x[0-9a-f]{16} (.+) \((.+)\)$)");
        for (int i = 1; i < lines.size() - 1; ++i) {
            const auto match = frame.match(lines[i]);
            QVERIFY2(match.hasMatch(), qPrintable(lines[i]));
            QCOMPARE(match.captured(1).toInt(), i - 1);
        }
        // The dump starts at its caller: writeCallstack's own frame is left out.
        QVERIFY2(lines[1].contains("kvtest::CallstackProbe::dump(Journaller&)+0x"),
                 qPrintable(lines[1]));
        QVERIFY(!readAll(path).contains("Journaller::writeCallstack"));
    }

    void qtMessageHandler_data()
    {
        QTest::addColumn<int>("acceptFrom");
        QTest::addColumn<QStringList>("forwarded");
        const QString warning = "[ALERT] main.cpp jlQtMessageHandler qt warning probe";
        const QString critical = "[ERROR] main.cpp jlQtMessageHandler qt critical probe";
        QTest::newRow("logger takes all") << int(JLL_TRACE) << QStringList{warning, critical};
        QTest::newRow("logger takes errors") << int(JLL_ERROR) << QStringList{critical};
    }
    void qtMessageHandler()
    {
        QFETCH(int, acceptFrom);
        QFETCH(QStringList, forwarded);
        const QString path = newPath();
        Journaller journal(s(path), true, JLL_TRACE);
        RecordingLogger logger{JournalLogLevel(acceptFrom)};
        jlSetGlobalJournal(&journal);
        Journaller::setAdditionalLogger(&logger);
        const QtMessageHandler previous = qInstallMessageHandler(jlQtMessageHandler);
        qDebug("qt debug probe");
        qInfo("qt info probe");
        qWarning("qt warning probe");
        qCritical("qt critical probe");
        qInstallMessageHandler(previous);
        Journaller::setAdditionalLogger(nullptr);
        jlSetGlobalJournal(nullptr);
        journal.flush();

        const QStringList lines = readLines(path);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].endsWith("[ALERT] qt warning probe"));
        QVERIFY(lines[1].endsWith("[ERROR] qt critical probe"));
        QCOMPARE(logger.messages, forwarded);
    }

    void qtMessageHandlerWithoutJournalUsesStderr()
    {
        StderrCapture capture(newPath("stderr"));
        const QtMessageHandler previous = qInstallMessageHandler(jlQtMessageHandler);
        qWarning("orphan warning");
        qInstallMessageHandler(previous);
        QVERIFY(capture.text().contains("[ALERT] orphan warning"));
    }

    void terminateFlushesAndClearsGlobals()
    {
        const QString path = newPath();
        Journaller other(s(newPath()), true, JLL_TRACE);
        auto* journal = new Journaller(s(path), true, JLL_TRACE);
        jlSetGlobalJournal(&other);
        jlSetCrashJournal(journal);
        jlTerminate(journal);
        QCOMPARE(jlGlobalJournal(), &other); // not the one terminated

        journal = new Journaller(s(path), true, JLL_TRACE);
        jlSetGlobalJournal(journal);
        jlSetCrashJournal(journal);
        jlLog(JLL_DEBUG, "via jlLog"); // below the flush level: only the terminate flush saves it
        jlTerminate(journal);
        QVERIFY(!jlGlobalJournal());
        QVERIFY(!jlCrashJournal());
        QVERIFY(readAll(path).contains("[DEBUG] via jlLog"));
        jlLog(JLL_ALERT, "nobody listens");
    }
};

QTEST_GUILESS_MAIN(TestJournaller)
#include "tst_journaller.moc"
