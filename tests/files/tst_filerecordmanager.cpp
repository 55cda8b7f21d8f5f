// Recording: log file names from the user's pattern, the recording folder, and the record
// manager against emulated devices (the folder question, the counts, devices going away,
// a wireless master flushing what it missed).

#include "currentdirectorywidget.h"
#include "devicecontroller.h"
#include "filenamepattern.h"
#include "filerecordmanager.h"
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"

#include <QApplication>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolButton>
#include <QtTest>

#include <csignal>
#include <memory>
#include <sys/resource.h>

namespace {

QString idText(const NvDeviceId& id)
{
    return QString::fromStdString(id.toString());
}

bool touch(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly);
}

// What the main window does for the controller: names from the stored pattern in the
// record manager's folder, failures remembered.
class RecordingHost : public DeviceControllerHost
{
public:
    explicit RecordingHost(NdaControl& control) : m_control(control) {}
    QString generateLogFileName(const NvDeviceId& id) override
    {
        return ::generateLogFileName(directory, LogFileName::storedPattern(), id,
                                     m_control.productCode(id), QDateTime::currentDateTime());
    }
    QString checkExistingFilename(const QString& name) override { return name; }
    void onOpenFileFailed(QIODevice::OpenMode mode, const QString& name) override
    {
        QCOMPARE(mode, QIODevice::OpenMode(QIODevice::WriteOnly));
        failedFiles << name;
    }

    QString directory;
    QStringList failedFiles;

private:
    NdaControl& m_control;
};

// Answers every message box that comes up while it lives with `answer` (OK when the box
// has no such button) and remembers "title|text|informative text".
class BoxAnswerer : public QObject
{
public:
    explicit BoxAnswerer(QMessageBox::StandardButton answer) : m_answer(answer)
    {
        connect(&m_timer, &QTimer::timeout, this, [this] {
            const QWidgetList widgets = QApplication::topLevelWidgets();
            for (QWidget* widget : widgets) {
                auto* box = qobject_cast<QMessageBox*>(widget);
                if (!box || !box->isVisible())
                    continue;
                texts << box->windowTitle() + QLatin1Char('|') + box->text() + QLatin1Char('|') +
                             box->informativeText();
                defaults << (box->defaultButton() ? box->defaultButton()->text() : QString());
                QAbstractButton* button = box->button(m_answer);
                if (!button)
                    button = box->button(QMessageBox::Ok);
                button->click();
            }
        });
        m_timer.start(10);
    }
    QStringList texts;
    QStringList defaults; // the default button's text

private:
    QMessageBox::StandardButton m_answer;
    QTimer m_timer;
};

// Each change of a count goes up or down by one from where the last one left it.
bool countsChainByOne(const QSignalSpy& spy)
{
    qulonglong last = 0;
    for (const QList<QVariant>& change : spy) {
        const qulonglong previous = change.at(0).toULongLong();
        const qulonglong current = change.at(1).toULongLong();
        if (previous != last || (current != previous + 1 && current + 1 != previous))
            return false;
        last = current;
    }
    return true;
}

qulonglong highest(const QSignalSpy& spy)
{
    qulonglong top = 0;
    for (const QList<QVariant>& change : spy)
        top = std::max(top, change.at(1).toULongLong());
    return top;
}

} // namespace

class TestFileRecordManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void fileNamesFollowThePattern();
    void placeholdersAreReplacedOnce();
    void flushingLabelCountsDevices();
    void recordingFolderWidgetKeepsTheSetting();

    void missingFolderAnsweredNoStillStartsTheRecording();
    void missingFolderAnsweredYesIsCreatedAndRecordedInto();
    void folderThatCannotBeMadeIsReported();
    void countsFollowARecordingOfTwoDevices();
    void deviceClosingWhileRecordingLeavesNoCount();
    void fullDiskEndsTheRecordingWithAnError();
    void wirelessMasterFlushesWithProgress();

private:
    // Both emulated devices measuring (through the controller's worker).
    bool measureAll();
    QString expectedName(const QString& dir, const NvDeviceId& id, int trial) const
    {
        return QStringLiteral("%1/KV_%2_%3.kvb")
            .arg(dir, idText(id), LogFileName::trialText(trial));
    }

    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    std::unique_ptr<NdaControl> m_control;
    std::unique_ptr<RecordingHost> m_host;
    std::unique_ptr<DeviceController> m_controller;
    std::unique_ptr<FileRecordManager> m_manager;
    std::unique_ptr<QTemporaryDir> m_files;
    NvDeviceId m_first, m_second;
    QTemporaryDir m_settings;
};

void TestFileRecordManager::initTestCase()
{
    registerNdaMetaTypes();
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvRecordTest"));
    m_sim = std::make_unique<kvtest::KvsimProcess>(
        std::vector<std::string>{"--device", "ahrs", "--device", "ahrs", "--quiet"});
    QVERIFY(m_sim->started());
    m_first = NvDeviceId::fromString(m_sim->ports()[0].id);
    m_second = NvDeviceId::fromString(m_sim->ports()[1].id);
    QVERIFY(m_first != m_second);
}

void TestFileRecordManager::init()
{
    QSettings().clear();
    m_files = std::make_unique<QTemporaryDir>();
    QVERIFY(m_files->isValid());
    m_control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000);
    m_host = std::make_unique<RecordingHost>(*m_control);
    m_controller = std::make_unique<DeviceController>(*m_host, *m_control);
    m_manager = std::make_unique<FileRecordManager>(*m_control, *m_controller);
}

void TestFileRecordManager::cleanup()
{
    // Ports close before the controller goes, as in the main window.
    if (m_control)
        m_control->close();
    m_manager.reset();
    m_controller.reset();
    m_host.reset();
    m_control.reset();
    m_files.reset();
}

void TestFileRecordManager::cleanupTestCase()
{
    m_sim.reset();
}

bool TestFileRecordManager::measureAll()
{
    for (const auto& port : m_sim->ports())
        if (!m_control->openPort(port.path, NBR_115200, 0))
            return false;
    QSignalSpy done(m_controller.get(), &DeviceController::modeChangesDone);
    if (!m_controller->gotoMeasurementAll())
        return false;
    return done.wait(15000) && done.at(0).at(0).toBool();
}

// ---------------------------------------------------------------------------- Names

void TestFileRecordManager::fileNamesFollowThePattern()
{
    QTemporaryDir dir;
    const QString path = dir.path();
    const NvDeviceId id = m_first;
    const QDateTime lastOfJanuary(QDate(2024, 1, 31), QTime(9, 5, 42));
    const QString def = LogFileName::defaultPattern();
    QCOMPARE(def, QStringLiteral("KV_<deviceid>_<trial>.kvb"));

    // Trials count up past the files that are there.
    QCOMPARE(generateLogFileName(path, def, id, "KV-300", lastOfJanuary),
             expectedName(path, id, 0));
    QVERIFY(touch(expectedName(path, id, 0)));
    QCOMPARE(generateLogFileName(path, def, id, "KV-300", lastOfJanuary),
             expectedName(path, id, 1));
    QVERIFY(touch(expectedName(path, id, 1)));
    QCOMPARE(generateLogFileName(path, def, id, "KV-300", lastOfJanuary),
             expectedName(path, id, 2));
    QCOMPARE(LogFileName::trialText(7), QStringLiteral("007"));
    QCOMPARE(LogFileName::trialText(1000), QStringLiteral("1000"));
    // A folder given with its separator gets no second one.
    QCOMPARE(generateLogFileName(path + "/", def, id, "KV-300", lastOfJanuary),
             expectedName(path, id, 2));

    // Without <trial> the one name is used even when its file exists.
    const QString fixed = path + "/fixed_" + idText(id) + ".kvb";
    QVERIFY(touch(fixed));
    QCOMPARE(generateLogFileName(path, "fixed_<deviceid>", id, "KV-300", lastOfJanuary), fixed);

    // Date, time, product code; the suffix is appended unless there in any case.
    QCOMPARE(generateLogFileName(path, "log_<date>", id, "KV-300", lastOfJanuary),
             path + "/log_2024-01-31.kvb");
    QCOMPARE(generateLogFileName(path, "take_<time>.KVB", id, "KV-300", lastOfJanuary),
             path + "/take_09h05.KVB");
    QCOMPARE(generateLogFileName(path, "<productcode>-<trial>.kvbx", id, "KV-300", lastOfJanuary),
             path + "/KV-300-000.kvbx.kvb");
    QCOMPARE(generateLogFileName(path, "<productcode>_<deviceid>", id, "KV-300", lastOfJanuary),
             path + "/KV-300_" + idText(id) + ".kvb");
    // The options page's form of the default gets its suffix too.
    QCOMPARE(generateLogFileName(path, "KV_<deviceid>-<trial>", id, "KV-300", lastOfJanuary),
             path + "/KV_" + idText(id) + "-000.kvb");
    // No pattern at all stands for the default.
    QCOMPARE(generateLogFileName(path, QString(), id, "KV-300", lastOfJanuary),
             expectedName(path, id, 2));
    // A separator in a product code does not lead into another folder.
    QCOMPARE(generateLogFileName(path, "<productcode>", id, "A/B", lastOfJanuary),
             path + "/A_B.kvb");

    // The stored pattern, or the default when none is stored.
    QCOMPARE(LogFileName::storedPattern(), def);
    QSettings().setValue(LogFileName::settingsKey(), "mine_<trial>");
    QCOMPARE(LogFileName::storedPattern(), QStringLiteral("mine_<trial>"));
    QSettings().remove(LogFileName::settingsKey());
}

void TestFileRecordManager::placeholdersAreReplacedOnce()
{
    FileNamePatternReplacer replacer;
    replacer.setReplacement("<deviceid>", "<trial>");
    replacer.setReplacement("<trial>", 5);
    QVERIFY(replacer.hasPlaceholder("<trial>"));
    QCOMPARE(replacer.replacement("<trial>").toInt(), 5);
    // A value that looks like a placeholder stays what it is; unknown ones are kept.
    QCOMPARE(replacer.parse("a<deviceid>b<trial>c<other>"), QStringLiteral("a<trial>b5c<other>"));
    replacer.setReplacement("<trial>", "007");
    QCOMPARE(replacer.parse("<trial><trial>"), QStringLiteral("007007"));
    QCOMPARE(replacer.parse(QString()), QString());
}

void TestFileRecordManager::flushingLabelCountsDevices()
{
    QCOMPARE(FileRecordManager::flushingLabelText(1),
             QStringLiteral("Retransmitting missed data for 1 device"));
    QCOMPARE(FileRecordManager::flushingLabelText(2),
             QStringLiteral("Retransmitting missed data for 2 devices"));
}

void TestFileRecordManager::recordingFolderWidgetKeepsTheSetting()
{
    const QString fallback = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
                             "/KvManager recordings";
    QCOMPARE(CurrentDirectoryWidget::defaultDirectory(), fallback);
    CurrentDirectoryWidget widget;
    QCOMPARE(widget.directory(), fallback);
    QCOMPARE(widget.browseButton()->text(), QStringLiteral("..."));
    // The record manager starts with the same folder.
    QCOMPARE(m_manager->currentDirectory(), fallback);

    QSignalSpy changed(&widget, &CurrentDirectoryWidget::directoryChanged);
    const QString typed = m_files->path() + "/typed//here/";
    widget.lineEdit()->setText(typed);
    emit widget.lineEdit()->editingFinished();
    QCOMPARE(changed.count(), 1);
    QCOMPARE(widget.directory(), m_files->path() + "/typed/here");
    QCOMPARE(QSettings().value("recordingDirectory").toString(), widget.directory());
    // Blank text puts the folder back; the same folder again changes nothing.
    widget.lineEdit()->setText("  ");
    emit widget.lineEdit()->editingFinished();
    QCOMPARE(widget.lineEdit()->text(), m_files->path() + "/typed/here");
    widget.setDirectory(m_files->path() + "/typed/here");
    QCOMPARE(changed.count(), 1);

    // A second widget (the next start) reads it back.
    CurrentDirectoryWidget next;
    QCOMPARE(next.directory(), m_files->path() + "/typed/here");
    FileRecordManager another(*m_control, *m_controller);
    QCOMPARE(another.currentDirectory(), m_files->path() + "/typed/here");

    // "..." opens a folder chooser at the nearest folder that exists; the choice is taken.
    widget.show();
    QTest::mouseClick(widget.browseButton(), Qt::LeftButton);
    QFileDialog* chooser = widget.folderDialog();
    QVERIFY(chooser);
    QCOMPARE(QDir(chooser->directory()).absolutePath(), QDir(m_files->path()).absolutePath());
    QVERIFY(QDir(m_files->path()).mkdir("chosen"));
    chooser->setDirectory(m_files->path() + "/chosen");
    QVERIFY(QMetaObject::invokeMethod(chooser, "accept"));
    QTRY_VERIFY(!widget.folderDialog()); // gone when closed
    QCOMPARE(widget.directory(), m_files->path() + "/chosen");
    QCOMPARE(changed.count(), 2);
    QCOMPARE(changed.last().at(0).toString(), m_files->path() + "/chosen");
}

// ---------------------------------------------------------------------------- Recording

void TestFileRecordManager::missingFolderAnsweredNoStillStartsTheRecording()
{
    QVERIFY(measureAll());
    const QString missing = m_files->path() + "/not/there";
    m_manager->setCurrentDirectory(missing);
    m_host->directory = missing;
    BoxAnswerer no(QMessageBox::No);
    QVERIFY(m_manager->startRecording());
    QCOMPARE(no.texts, QStringList{"Directory Does Not Exist|The directory \"" + missing +
                                   "\" does not exist.|Create it and continue measuring?"});
    QCOMPARE(QString(no.defaults.value(0)).remove(QLatin1Char('&')), QStringLiteral("No"));
    // The folder stays missing; the library cannot create the files there, and each
    // device's failure is reported as a file that could not be opened.
    QVERIFY(!QFileInfo::exists(missing));
    QTRY_COMPARE_WITH_TIMEOUT(m_host->failedFiles.size(), 2, 10000);
    QCOMPARE(
        QSet<QString>(m_host->failedFiles.begin(), m_host->failedFiles.end()),
        (QSet<QString>{expectedName(missing, m_first, 0), expectedName(missing, m_second, 0)}));
    QVERIFY(!m_control->isRecording(m_first) && !m_control->isRecording(m_second));
    QVERIFY(!m_manager->recordingState());
}

void TestFileRecordManager::missingFolderAnsweredYesIsCreatedAndRecordedInto()
{
    QVERIFY(measureAll());
    const QString missing = m_files->path() + "/made/for/it";
    m_manager->setCurrentDirectory(missing);
    m_host->directory = missing;
    QSignalSpy state(m_manager.get(), &FileRecordManager::recordingStateChanged);
    {
        BoxAnswerer yes(QMessageBox::Yes);
        QVERIFY(m_manager->startRecording());
        QCOMPARE(yes.texts.size(), 1);
    }
    QVERIFY(QFileInfo(missing).isDir());
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(2), 10000);
    QVERIFY(m_host->failedFiles.isEmpty());
    QVERIFY(QFileInfo::exists(expectedName(missing, m_first, 0)));
    QVERIFY(QFileInfo::exists(expectedName(missing, m_second, 0)));

    // The folder is there now: no question the second time, and recording devices are
    // left alone (no second file).
    BoxAnswerer none(QMessageBox::No);
    QVERIFY(m_manager->startRecording());
    QVERIFY(none.texts.isEmpty());
    QVERIFY(!QFileInfo::exists(expectedName(missing, m_first, 1)));

    m_manager->stopRecording();
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 10000);
    QCOMPARE(state.count(), 2);
}

void TestFileRecordManager::folderThatCannotBeMadeIsReported()
{
    QVERIFY(measureAll());
    const QString blocker = m_files->path() + "/a-file";
    QVERIFY(touch(blocker));
    const QString impossible = blocker + "/below";
    m_manager->setCurrentDirectory(impossible);
    m_host->directory = impossible;
    BoxAnswerer yes(QMessageBox::Yes);
    QVERIFY(!m_manager->startRecording());
    // The question, then the error box, which does not hold the call up.
    QTRY_COMPARE_WITH_TIMEOUT(yes.texts.size(), 2, 5000);
    QCOMPARE(yes.texts.at(1), "Error Creating Directory|The directory \"" + impossible +
                                  "\" could not be created.|");
    // The recording was asked for all the same.
    QTRY_COMPARE_WITH_TIMEOUT(m_host->failedFiles.size(), 2, 10000);
}

void TestFileRecordManager::countsFollowARecordingOfTwoDevices()
{
    for (const auto& port : m_sim->ports())
        QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
    m_manager->setCurrentDirectory(m_files->path());
    m_host->directory = m_files->path();
    QSignalSpy state(m_manager.get(), &FileRecordManager::recordingStateChanged);
    QSignalSpy recording(m_manager.get(), &FileRecordManager::numberOfRecordingDevicesChanged);
    QSignalSpy waiting(m_manager.get(),
                       &FileRecordManager::numberOfWaitingForRecordingStartDevicesChanged);
    QSignalSpy flushing(m_manager.get(), &FileRecordManager::numberOfFlushingDevicesChanged);

    // Asked while the devices are still on their way into measurement: the starts follow.
    QSignalSpy done(m_controller.get(), &DeviceController::modeChangesDone);
    QVERIFY(m_controller->gotoMeasurementAll());
    BoxAnswerer none(QMessageBox::No);
    QVERIFY(m_manager->startRecording());
    QVERIFY(done.wait(15000));
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(2), 10000);
    QVERIFY(m_manager->recordingState());
    QCOMPARE(m_manager->numberOfWaitingForRecordingStartDevices(), size_t(0));
    QCOMPARE(state.count(), 1);
    QCOMPARE(state.at(0).at(0).toBool(), true);
    QVERIFY(highest(waiting) >= 1);
    QVERIFY(countsChainByOne(waiting) && countsChainByOne(recording));
    QVERIFY(m_control->isRecording(m_first) && m_control->isRecording(m_second));

    // Letting go of a wrapper of a recording device (a view closing) keeps its count.
    QVERIFY(!m_control->getExistingDevice(m_first));
    QSignalSpy going(m_control.get(), &NdaControl::aboutToCloseDevice);
    m_control->requestDevice(m_first);
    m_control->releaseDevice(m_first);
    QCOMPARE(going.count(), 1);
    QCOMPARE(m_manager->numberOfRecordingDevices(), size_t(2));

    m_manager->stopRecording();
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 10000);
    QCOMPARE(m_manager->numberOfRecordingDevices(), size_t(0));
    QCOMPARE(m_manager->numberOfFlushingDevices(), size_t(0));
    QCOMPARE(m_manager->numberOfWaitingForRecordingStartDevices(), size_t(0));
    QCOMPARE(state.count(), 2);
    QCOMPARE(state.at(1).at(0).toBool(), false);
    QVERIFY(countsChainByOne(waiting) && countsChainByOne(recording) && countsChainByOne(flushing));
    QCOMPARE(highest(recording), qulonglong(2));
    // The devices measure on, their files written under the default pattern.
    QVERIFY(m_control->isMeasuring(m_first) && m_control->isMeasuring(m_second));
    for (const NvDeviceId& id : {m_first, m_second})
        QVERIFY(QFileInfo(expectedName(m_files->path(), id, 0)).size() > 0);
    QVERIFY(none.texts.isEmpty());
    QVERIFY(m_host->failedFiles.isEmpty());

    // The next recording takes the next trial.
    QVERIFY(m_manager->startRecording());
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(2), 10000);
    QVERIFY(QFileInfo::exists(expectedName(m_files->path(), m_first, 1)));
    m_manager->stopRecording();
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 10000);
}

void TestFileRecordManager::deviceClosingWhileRecordingLeavesNoCount()
{
    QVERIFY(measureAll());
    m_manager->setCurrentDirectory(m_files->path());
    m_host->directory = m_files->path();
    QVERIFY(m_manager->startRecording());
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(2), 10000);
    QSignalSpy state(m_manager.get(), &FileRecordManager::recordingStateChanged);

    QVERIFY(m_control->closePort(m_first));
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(1), 10000);
    QVERIFY(m_manager->recordingState());
    QCOMPARE(state.count(), 0);

    // The last one going (held by a wrapper this time) ends the recording state.
    NdaDevice& second = m_control->requestDevice(m_second);
    QVERIFY(second.isRecording());
    QVERIFY(m_control->closePort(m_second));
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 10000);
    QCOMPARE(m_manager->numberOfRecordingDevices(), size_t(0));
    QCOMPARE(m_manager->numberOfWaitingForRecordingStartDevices(), size_t(0));
    QCOMPARE(m_manager->numberOfFlushingDevices(), size_t(0));
    QCOMPARE(state.count(), 1);
    // Closed while recording, both files stay.
    for (const NvDeviceId& id : {m_first, m_second})
        QVERIFY(QFileInfo(expectedName(m_files->path(), id, 0)).size() > 0);
}

void TestFileRecordManager::fullDiskEndsTheRecordingWithAnError()
{
    QVERIFY(measureAll());
    m_manager->setCurrentDirectory(m_files->path());
    m_host->directory = m_files->path();
    QSignalSpy errors(m_manager.get(), &FileRecordManager::recordError);
    // A file-size limit stands in for a full disk (its signal ignored, so that the write
    // fails instead).
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &old), 0);
    rlimit limit = old;
    limit.rlim_cur = 16 * 1024;
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
    QVERIFY(m_manager->startRecording());
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(2), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 30000);
    setrlimit(RLIMIT_FSIZE, &old);
    QCOMPARE(errors.count(), 2);
    QStringList texts;
    for (const QList<QVariant>& error : errors) {
        QCOMPARE(error.at(0).value<FileRecordError::Type>(), FileRecordError::WriteFailed);
        texts << error.at(1).toString();
    }
    texts.sort();
    QStringList expected;
    for (const NvDeviceId& id : {m_first, m_second})
        expected << QStringLiteral("The recording of device %1 stopped: %2")
                        .arg(idText(id), QString::fromUtf8(NvResultValue_toString(NRV_DISK_FULL)));
    expected.sort();
    QCOMPARE(texts, expected);
    // The devices measure on; their files keep what fitted.
    QVERIFY(m_control->isMeasuring(m_first) && m_control->isMeasuring(m_second));
    QCOMPARE(m_manager->numberOfRecordingDevices(), size_t(0));
    for (const NvDeviceId& id : {m_first, m_second})
        QVERIFY(QFileInfo(expectedName(m_files->path(), id, 0)).size() > 0);
}

void TestFileRecordManager::wirelessMasterFlushesWithProgress()
{
    // Two trackers over the radio at 120 Hz losing 30 % of their packets: a few hundred to
    // retransmit, reported every 100.
    kvtest::KvsimProcess sim(
        {"--device", "master:3,docked=1,rate=120", "--drop", "0.3", "--seed", "5", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId master = NvDeviceId::fromString(sim.ports()[0].id);
    QVERIFY(m_control->openPort(sim.ports()[0].path, NBR_115200, 0));
    QVERIFY(m_control->enableRadio(master, 12));
    const auto wireless = [&] {
        int n = 0;
        for (const NvDeviceId& id : m_control->childDeviceIds(master))
            n += m_control->isDeviceWireless(id) ? 1 : 0;
        return n;
    };
    QTRY_COMPARE_WITH_TIMEOUT(wireless(), 2, 15000);
    QSignalSpy done(m_controller.get(), &DeviceController::modeChangesDone);
    QVERIFY(m_controller->gotoMeasurementAll());
    QVERIFY(done.wait(15000));
    m_manager->setCurrentDirectory(m_files->path());
    m_host->directory = m_files->path();

    int missed = 0;
    connect(m_control.get(), &NdaControl::samplesMissed, this,
            [&missed](const NvDeviceId&, int count) { missed += count; });
    // What the dialog shows after each report (the manager hears the report first).
    struct Seen
    {
        int current, total, maximum, value;
        bool visible;
        QString label, title;
    };
    std::vector<Seen> seen;
    bool abortAtFirst = false, aborted = false;
    connect(m_control.get(), &NdaControl::flushingProgress, this,
            [&](int current, int total, const NvDeviceId&, const QString&) {
                QProgressDialog* dialog = m_manager->flushingDialog();
                QVERIFY(dialog);
                seen.push_back({current, total, dialog->maximum(), dialog->value(),
                                dialog->isVisible(), dialog->labelText(), dialog->windowTitle()});
                if (abortAtFirst && seen.size() == 1 && current < total) {
                    auto* button = dialog->findChild<QPushButton*>();
                    QVERIFY(button);
                    QCOMPARE(button->text(), QStringLiteral("Abort"));
                    button->click();
                    QCOMPARE(button->text(), QStringLiteral("Aborting..."));
                    aborted = true;
                }
            });

    QSignalSpy flushing(m_manager.get(), &FileRecordManager::numberOfFlushingDevicesChanged);
    QSignalSpy state(m_manager.get(), &FileRecordManager::recordingStateChanged);
    QVERIFY(m_manager->startRecording());
    // The master and its two radio trackers.
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(3), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(missed >= 250, 20000);
    m_manager->stopRecording();
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 20000);
    // Recording until the flush is over, once: the master's pass through configuration on
    // its way into flushing does not blink the flag.
    QCOMPARE(state.count(), 2);
    QCOMPARE(state.at(0).at(0).toBool(), true);
    QCOMPARE(state.at(1).at(0).toBool(), false);
    QCOMPARE(highest(flushing), qulonglong(1));
    QVERIFY(countsChainByOne(flushing));
    QCOMPARE(m_manager->numberOfRecordingDevices(), size_t(0));

    // Several reports, the dialog following each; the last one completes it and it is gone.
    QVERIFY2(seen.size() >= 3, qPrintable(QString::number(seen.size())));
    for (size_t i = 0; i + 1 < seen.size(); ++i) {
        QVERIFY(seen[i].current < seen[i].total);
        QCOMPARE(seen[i].maximum, seen[i].total);
        QCOMPARE(seen[i].value, seen[i].current);
    }
    QCOMPARE(seen.back().current, seen.back().total);
    QCOMPARE(seen.back().maximum, seen.back().total);
    QVERIFY(!seen.back().visible);
    QCOMPARE(seen.front().title, QStringLiteral("Flushing..."));
    QCOMPARE(seen.front().label, QStringLiteral("Retransmitting missed data for 1 device"));
    QPointer<QProgressDialog> first = m_manager->flushingDialog();
    QVERIFY(first && !first->isVisible() && !first->wasCanceled());
    QTRY_VERIFY_WITH_TIMEOUT(m_control->isMeasuring(master), 10000);

    // Again, aborted at the first report: a fresh dialog, "Aborting...", and the master
    // measures again without the rest.
    seen.clear();
    missed = 0;
    abortAtFirst = true;
    QVERIFY(m_manager->startRecording());
    QTRY_COMPARE_WITH_TIMEOUT(m_manager->numberOfRecordingDevices(), size_t(3), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(missed >= 250, 20000);
    m_manager->stopRecording();
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->recordingState(), 20000);
    QVERIFY(aborted);
    QTRY_VERIFY(first.isNull()); // the first period's dialog made way
    QProgressDialog* second = m_manager->flushingDialog();
    QVERIFY(second && !second->isVisible());
    QCOMPARE(second->findChild<QPushButton*>()->text(), QStringLiteral("Aborting..."));
    QTRY_VERIFY_WITH_TIMEOUT(m_control->isMeasuring(master), 10000);
    QCOMPARE(m_manager->numberOfFlushingDevices(), size_t(0));
    QVERIFY(m_host->failedFiles.isEmpty());
    m_control->close();
}

QTEST_MAIN(TestFileRecordManager)
#include "tst_filerecordmanager.moc"
