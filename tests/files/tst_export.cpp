// Export of recordings made from emulated devices: what the text exporter writes against
// the emulator's truth, file names, abort and failures, time range, quantities and time
// columns, the export dialogs, and kvexport on the command line.

#include "abstractexporter.h"
#include "batchexportdialog.h"
#include "exportdialog.h"
#include "exportworker.h"
#include "kvsimharness.h"
#include "modalcloser.h"
#include "ndacontrol.h"
#include "ndametatypes.h"
#include "pluginmanager.h"

#include <QApplication>
#include <QDateTime>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <cmath>
#include <map>
#include <memory>

using kvtest::ModalCloser;

namespace {

struct Csv
{
    QStringList meta; // "Key: value"
    QStringList header;
    QList<QStringList> rows;
    int column(const QString& name) const { return int(header.indexOf(name)); }
};

Csv readCsv(const QString& path, QChar separator = QLatin1Char(','))
{
    Csv csv;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return csv;
    QTextStream in(&file);
    while (!in.atEnd()) {
        const QString line = in.readLine();
        if (line.startsWith(QLatin1String("// ")))
            csv.meta << line.mid(3);
        else if (csv.header.isEmpty())
            csv.header = line.split(separator);
        else
            csv.rows << line.split(separator);
    }
    return csv;
}

// The truth column of an exported column; empty for those the truth does not have.
// Vector items name their axes by frame, so the axis is taken from the column's place.
std::string truthColumn(const QString& header, std::map<QString, int>& axisSeen)
{
    const QString name = header.section(QStringLiteral(" ("), 0, 0);
    static const std::map<QString, std::string> direct{
        {QStringLiteral("Quat_q0"), "q0"},
        {QStringLiteral("Quat_q1"), "q1"},
        {QStringLiteral("Quat_q2"), "q2"},
        {QStringLiteral("Quat_q3"), "q3"},
        {QStringLiteral("Roll"), "roll"},
        {QStringLiteral("Pitch"), "pitch"},
        {QStringLiteral("Yaw"), "yaw"},
        {QStringLiteral("Latitude"), "latitude"},
        {QStringLiteral("Longitude"), "longitude"},
        {QStringLiteral("Temperature"), "temperature"},
        {QStringLiteral("Altitude_Ellipsoid"), "altitude_ellipsoid"},
        {QStringLiteral("Altitude_MSL"), "altitude_msl"},
        {QStringLiteral("dq0"), "dq0"},
        {QStringLiteral("dq1"), "dq1"},
        {QStringLiteral("dq2"), "dq2"},
        {QStringLiteral("dq3"), "dq3"}};
    static const std::map<QString, std::string> vectors{
        {QStringLiteral("Acc"), "acc_"}, {QStringLiteral("Gyr"), "gyr_"},
        {QStringLiteral("Mag"), "mag_"}, {QStringLiteral("FreeAcc"), "free_acc_"},
        {QStringLiteral("Vel"), "vel_"}, {QStringLiteral("dv"), "dv_"}};
    if (const auto it = direct.find(name); it != direct.end())
        return it->second;
    const QString prefix = name.section(QLatin1Char('_'), 0, 0);
    if (const auto it = vectors.find(prefix);
        it != vectors.end() && name.count(QLatin1Char('_')) == 1)
        return it->second + "xyz"[axisSeen[prefix]++ % 3];
    return {};
}

qint64 nowNs()
{
    return QDateTime::currentMSecsSinceEpoch() * 1000000;
}

} // namespace

class TestExport : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void everyTruthSampleIsExportedInOrderWithinItsResolution();
    void trackersSharingANameGetDistinctExtendedNames();
    void abortEndsWithAbortedAndLeavesNoFile();
    void unwritableOutputSaysErrorOpeningFile();
    void timeRangeAndQuantitiesNarrowTheExport();
    void hostTimeColumnRisesWithinTheRecordingsWallClock();
    void tabSeparatesWhenAskedAndMetadataHeadsTheFile();
    void dialogWithoutExportersOffersNoExport();
    void dialogExportsOnAWorkerThreadAndReportsFailure();
    void batchExportWritesEveryRecordingAndSummarizesFailures();
    void kvexportOnTheCommandLine();

private:
    // Opens and loads a recording through the facade; its first file device.
    NdaDevice& openAndLoad(const QString& path);
    void record();
    QString exportOne(const QString& kind, ExportWorker& worker);

    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    QTemporaryDir m_dir;
    QString m_truthPath;
    std::map<std::string, QString> m_files; // kind -> recording
    std::map<std::string, NvDeviceId> m_ids;
    qint64 m_recordStartNs = 0;
    qint64 m_recordEndNs = 0;
    PluginManager m_plugins;
    AbstractExporterFactory* m_text = nullptr;
    std::unique_ptr<NdaControl> m_control;
    QTemporaryDir m_settings;
};

void TestExport::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvExportTest"));
    qRegisterMetaType<NvDeviceId>();
    QVERIFY(m_dir.isValid());
    QVERIFY(m_plugins.loadPlugins(QStringLiteral(KV_PLUGIN_DIR)) > 0);
    for (AbstractExporterFactory* f : m_plugins.pluginsOf<AbstractExporterFactory>())
        if (f->name() == QLatin1String("text"))
            m_text = f;
    QVERIFY(m_text);

    m_truthPath = m_dir.filePath(QStringLiteral("truth.csv"));
    m_sim = std::make_unique<kvtest::KvsimProcess>(std::vector<std::string>{
        "--device", "imu", "--device", "ahrs", "--device", "gnss", "--device", "master:2",
        "--truth", m_truthPath.toStdString(), "--quiet"});
    QVERIFY(m_sim->started());
    record();
}

// Records every device for three seconds with the device library alone, each to a file
// of its own; the master's file holds its two trackers.
void TestExport::record()
{
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000);
    std::vector<NvDevice*> devices;
    NvDevice* master = nullptr;
    for (const auto& port : m_sim->ports()) {
        QVERIFY2(NvControl_openPortByName(control, port.path.c_str(), NBR_115200, 0),
                 NvControl_lastResultText(control));
        NvDevice* device = NvControl_deviceRefByPortName(control, port.path.c_str());
        QVERIFY(device);
        devices.push_back(device);
        m_ids[port.kind] = NvDeviceId::fromString(port.id);
        m_files[port.kind] =
            m_dir.filePath(QString::fromStdString(port.kind) + QStringLiteral(".kvb"));
        if (port.kind == "master")
            master = device;
    }
    QVERIFY(master);
    QVERIFY(NvDevice_enableRadio(master, 15));
    QTRY_COMPARE_WITH_TIMEOUT(NvControl_deviceCount(control), int(devices.size()) + 2, 15000);

    m_recordStartNs = nowNs();
    for (size_t i = 0; i < devices.size(); ++i) {
        const std::string kind = m_sim->ports()[i].kind;
        QVERIFY(NvDevice_createLogFileByName(devices[i], m_files[kind].toUtf8().constData()));
        QVERIFY2(NvDevice_startRecording(devices[i]), NvControl_lastResultText(control));
    }
    QTest::qWait(3000);
    for (NvDevice* device : devices)
        QVERIFY(NvDevice_stopRecording(device));
    QTRY_VERIFY_WITH_TIMEOUT(NvDevice_deviceState(master) != NDS_FLUSHING &&
                                 NvDevice_deviceState(master) != NDS_RECORDING,
                             15000);
    m_recordEndNs = nowNs();
    for (NvDevice* device : devices)
        NvDevice_removeRef(device);
    NvControl_destruct(control);
    QTest::qWait(400); // the truth file is flushed every 200 ms
}

void TestExport::init()
{
    m_control = std::make_unique<NdaControl>();
}

void TestExport::cleanup()
{
    m_control.reset();
}

void TestExport::cleanupTestCase()
{
    m_sim.reset();
}

NdaDevice& TestExport::openAndLoad(const QString& path)
{
    NdaDevice& device = m_control->requestFileDevice(path);
    if (device.isValid() && !NvDevice_loadLogFileAndWait(device.libraryDevice(), 30000))
        qWarning() << "loading" << path << "failed:" << m_control->lastResultText();
    return device;
}

QString TestExport::exportOne(const QString& kind, ExportWorker& worker)
{
    const QString path = m_files[kind.toStdString()];
    worker.setExporterFactory(m_text);
    worker.setFileName(path);
    const auto names = worker.plannedFileNames();
    worker.run();
    return names.size() == 1 ? names.begin()->second : QString();
}

void TestExport::everyTruthSampleIsExportedInOrderWithinItsResolution()
{
    kvtest::TruthTable truth;
    QVERIFY(truth.load(m_truthPath.toStdString()));
    for (const char* kind : {"imu", "ahrs", "gnss"}) {
        const QString file = m_files[kind];
        QVERIFY(openAndLoad(file).isValid());
        ExportWorker worker(*m_control);
        const QString out = exportOne(QString::fromLatin1(kind), worker);
        QCOMPARE(worker.outcome(), ExportWorker::Completed);
        QCOMPARE(worker.writtenFiles(), QStringList{out});
        const Csv csv = readCsv(out);
        QVERIFY2(csv.rows.size() >= 250, kind); // three seconds at 100 Hz
        QCOMPARE(csv.header.value(0), QStringLiteral("Time (s)"));
        const int counterColumn = csv.column(QStringLiteral("PacketCounter"));
        const int stfColumn = csv.column(QStringLiteral("SampleTimeFine (100 µs)"));
        QVERIFY(counterColumn > 0 && stfColumn > 0);

        std::map<QString, int> axes;
        std::vector<std::pair<int, std::string>> compared;
        for (int c = 0; c < csv.header.size(); ++c) {
            const std::string t = truthColumn(csv.header[c], axes);
            if (!t.empty())
                compared.emplace_back(c, t);
        }
        QVERIFY2(compared.size() >= 9, kind); // acceleration, rate of turn, magnetic field, ...

        const std::string id = m_ids[kind].toString();
        std::map<long long, const std::vector<std::string>*> byTicks;
        for (const auto* row : truth.rowsOf(id))
            if (truth.text(*row, "output") == "binary")
                byTicks[(long long)truth.number(*row, "sample_time_fine")] = row;

        long long previous = -1;
        const long long first = csv.rows.first()[stfColumn].toLongLong();
        for (const QStringList& row : csv.rows) {
            const long long ticks = row[stfColumn].toLongLong();
            QVERIFY2(ticks > previous, "samples in order");
            previous = ticks;
            QCOMPARE(row[0].toDouble(), (ticks - first) / 10000.0);
            const auto found = byTicks.find(ticks);
            QVERIFY2(found != byTicks.end(),
                     qPrintable(QStringLiteral("%1 at %2").arg(kind).arg(ticks)));
            const auto& t = *found->second;
            QCOMPARE(truth.text(t, "status"), std::string("sent"));
            QCOMPARE(row[counterColumn].toLongLong(),
                     (long long)truth.number(t, "counter") % 65536);
            for (const auto& [column, name] : compared) {
                const double expected = truth.number(t, name);
                const double got = row[column].toDouble();
                // float32 is good to 2^-24 relative, fixed point 16.32 to 2^-33.
                const double resolution =
                    std::abs(expected) * std::ldexp(1.0, -23) + std::ldexp(1.0, -32);
                if (std::abs(got - expected) > resolution)
                    QFAIL(qPrintable(QStringLiteral("%1 %2 at %3: %4, truth %5")
                                         .arg(kind, csv.header[column])
                                         .arg(ticks)
                                         .arg(got, 0, 'g', 17)
                                         .arg(expected, 0, 'g', 17)));
            }
        }
        // None missing: every sample the device sent between the first and the last.
        int sent = 0;
        for (auto it = byTicks.lower_bound(first); it != byTicks.end() && it->first <= previous;
             ++it)
            sent += truth.text(*it->second, "status") == "sent";
        QCOMPARE(sent, int(csv.rows.size()));
        m_control->deleteDeviceAndChildren(m_ids[kind]);
    }
}

void TestExport::trackersSharingANameGetDistinctExtendedNames()
{
    QCOMPARE(
        ExportWorker::extendFilename(QStringLiteral("/data/run.2024.csv"), QStringLiteral("_7")),
        QStringLiteral("/data/run_7.2024.csv"));
    QCOMPARE(ExportWorker::extendFilename(QStringLiteral("/data/run"), QStringLiteral("_7")),
             QStringLiteral("/data/run_7"));

    QVERIFY(openAndLoad(m_files["master"]).isValid());
    ExportWorker worker(*m_control);
    worker.setExporterFactory(m_text);
    worker.setFileName(m_files["master"]);
    QCOMPARE(int(worker.exportableDevices().size()), 2); // the master has no samples
    const auto planned = worker.plannedFileNames();
    QCOMPARE(int(planned.size()), 2);
    std::map<NvDeviceId, QString> unextended;
    for (const auto& [id, name] : planned) {
        QVERIFY2(name.contains(QString::fromStdString(id.toString())), qPrintable(name));
        QCOMPARE(QFileInfo(name).absolutePath(), QFileInfo(m_files["master"]).absolutePath());
        unextended[id] = m_dir.filePath(QStringLiteral("master.csv"));
    }
    QVERIFY(planned.begin()->second != std::next(planned.begin())->second);
    std::map<QString, std::set<NvDeviceId>> duplicates;
    ExportWorker::findDuplicateFileNames(unextended, duplicates);
    QCOMPARE(int(duplicates.size()), 1);
    QCOMPARE(int(duplicates.begin()->second.size()), 2);

    worker.run();
    QCOMPARE(worker.outcome(), ExportWorker::Completed);
    for (const auto& [id, name] : planned) {
        const Csv csv = readCsv(name);
        QVERIFY2(csv.rows.size() > 100, qPrintable(name));
        QVERIFY(csv.meta.contains(QStringLiteral("DeviceID: ") +
                                  QString::fromStdString(id.toString())));
    }
}

void TestExport::abortEndsWithAbortedAndLeavesNoFile()
{
    QVERIFY(openAndLoad(m_files["gnss"]).isValid());
    auto* worker = new ExportWorker(*m_control);
    worker->setExporterFactory(m_text);
    worker->setFileName(m_files["gnss"]);
    worker->setOutputFolder(m_dir.filePath(QStringLiteral("aborted")));
    QVERIFY(QDir().mkpath(worker->outputFolder()));
    const QString planned = worker->plannedFileNames().begin()->second;
    // Abort as soon as the frames begin, on the worker's own thread.
    connect(
        worker, &ExportWorker::progressTextChanged, worker,
        [worker](const QString& text) {
            if (text.startsWith(QLatin1String("Exporting")))
                worker->abort();
        },
        Qt::DirectConnection);
    QThread thread;
    worker->moveToThread(&thread);
    connect(&thread, &QThread::started, worker, &ExportWorker::run);
    connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
    QSignalSpy aborted(worker, &ExportWorker::aborted);
    QSignalSpy written(worker, &ExportWorker::fileWritten);
    QSignalSpy finished(worker, &ExportWorker::finished);
    thread.start();
    QVERIFY(finished.wait(20000));
    QCOMPARE(aborted.count(), 1);
    QCOMPARE(written.count(), 0);
    thread.quit();
    thread.wait();
    QVERIFY(!QFile::exists(planned));
    QVERIFY(QDir(QFileInfo(planned).absolutePath()).entryList(QDir::Files).isEmpty());
}

void TestExport::unwritableOutputSaysErrorOpeningFile()
{
    QVERIFY(openAndLoad(m_files["imu"]).isValid());
    ExportWorker worker(*m_control);
    worker.setOutputFolder(m_dir.filePath(QStringLiteral("no/such/folder")));
    QSignalSpy failed(&worker, &ExportWorker::failed);
    QSignalSpy texts(&worker, &ExportWorker::progressTextChanged);
    exportOne(QStringLiteral("imu"), worker);
    QCOMPARE(worker.outcome(), ExportWorker::Failed);
    QCOMPARE(failed.count(), 1);
    QVERIFY(failed.first().first().toString().startsWith(QLatin1String("Error opening file")));
    QStringList shown;
    for (const auto& args : texts)
        shown << args.first().toString();
    QCOMPARE(shown,
             (QStringList{QStringLiteral("Initializing"), QStringLiteral("Error opening file")}));
    QVERIFY(worker.writtenFiles().isEmpty());
}

void TestExport::timeRangeAndQuantitiesNarrowTheExport()
{
    QVERIFY(openAndLoad(m_files["ahrs"]).isValid());
    ExportWorker worker(*m_control);
    worker.setTimeRange(0.5, 1.0);
    worker.setQuantities({quint16(NDI_ACCELERATION | NDP_FLOAT64), NDI_PACKET_COUNTER});
    const Csv csv = readCsv(exportOne(QStringLiteral("ahrs"), worker));
    QCOMPARE(csv.header,
             (QStringList{QStringLiteral("Time (s)"), QStringLiteral("PacketCounter"),
                          QStringLiteral("Acc_X (m/s²)"), QStringLiteral("Acc_Y (m/s²)"),
                          QStringLiteral("Acc_Z (m/s²)")}));
    QCOMPARE(csv.rows.size(), 51); // 100 Hz, both ends included
    QCOMPARE(csv.rows.first().first(), QStringLiteral("0.5"));
    QCOMPARE(csv.rows.last().first(), QStringLiteral("1"));
    for (const QStringList& row : csv.rows)
        for (const QString& cell : row)
            QVERIFY(!cell.isEmpty());
}

void TestExport::hostTimeColumnRisesWithinTheRecordingsWallClock()
{
    QVERIFY(openAndLoad(m_files["imu"]).isValid());
    ExportWorker worker(*m_control);
    worker.setTimeColumns(ExportWorker::BothTimeColumns);
    const Csv csv = readCsv(exportOne(QStringLiteral("imu"), worker));
    QCOMPARE(csv.header.mid(0, 2),
             (QStringList{QStringLiteral("Time (s)"), QStringLiteral("HostTime (UTC ns)")}));
    qulonglong previous = 0;
    int rises = 0;
    for (const QStringList& row : csv.rows) {
        bool ok = false;
        const qulonglong host = row[1].toULongLong(&ok);
        QVERIFY(ok);
        QVERIFY(host >= previous);
        QVERIFY(host >= qulonglong(m_recordStartNs) && host <= qulonglong(m_recordEndNs));
        rises += host > previous;
        previous = host;
    }
    // The packets of a 100 Hz device mostly come in reads of their own, each dated by a
    // mark of its own (a busy host reads several at once now and then).
    QVERIFY2(rises > csv.rows.size() / 4, qPrintable(QString::number(rises)));

    ExportWorker hostOnly(*m_control);
    hostOnly.setTimeColumns(ExportWorker::HostTimeColumn);
    const Csv onlyHost = readCsv(exportOne(QStringLiteral("imu"), hostOnly));
    QCOMPARE(onlyHost.header.first(), QStringLiteral("HostTime (UTC ns)"));
    QVERIFY(!onlyHost.header.contains(QStringLiteral("Time (s)")));
}

void TestExport::tabSeparatesWhenAskedAndMetadataHeadsTheFile()
{
    QVERIFY(openAndLoad(m_files["gnss"]).isValid());
    ExportWorker worker(*m_control);
    worker.setOptions({{ExportOption::Separator, QStringLiteral("tab")}});
    const Csv csv = readCsv(exportOne(QStringLiteral("gnss"), worker), QLatin1Char('\t'));
    QVERIFY(csv.header.size() > 20);
    QVERIFY(csv.rows.size() > 250);
    for (const char* key :
         {"DeviceID", "VersionKVM", "VersionNDA", "InputFile", "ProductCode", "FilterProfileName",
          "FilterProfile", "FilterProfileVersion", "FilterProfileType", "StartTime",
          "FirmwareVersion", "HardwareVersion", "optionFlags", "gnssPlatform"}) {
        const QString prefix = QString::fromLatin1(key) + QStringLiteral(":");
        QVERIFY2(std::any_of(csv.meta.begin(), csv.meta.end(),
                             [&](const QString& m) { return m.startsWith(prefix); }),
                 key);
    }
    QVERIFY(csv.meta.contains(QStringLiteral("InputFile: gnss")));
    QVERIFY(csv.meta.contains(QStringLiteral("ProductCode: KV-770")));
    // GNSS PVT comes four times a second: the other rows leave its cells empty.
    const int pvt = csv.column(QStringLiteral("PVT_Latitude (deg)"));
    QVERIFY(pvt > 0);
    int empty = 0;
    for (const QStringList& row : csv.rows)
        empty += row[pvt].isEmpty();
    QVERIFY(empty > csv.rows.size() / 2 && empty < csv.rows.size());
}

void TestExport::dialogWithoutExportersOffersNoExport()
{
    QVERIFY(openAndLoad(m_files["imu"]).isValid());
    PluginManager none;
    ExportDialog dialog(*m_control, none, m_files["imu"]);
    dialog.show();
    QVERIFY(!dialog.hasExporters());
    auto* label = dialog.findChild<QLabel*>(QStringLiteral("noExportersLabel"));
    QVERIFY(label && label->isVisible());
    QCOMPARE(label->text(), QStringLiteral("No exporters are available."));
    QVERIFY(!dialog.findChild<QPushButton*>(QStringLiteral("exportButton"))->isEnabled());

    BatchExportDialog batch(*m_control, none, {m_files["imu"]});
    QVERIFY(!batch.hasExporters());
    QVERIFY(!batch.findChild<QPushButton*>(QStringLiteral("exportButton"))->isEnabled());
}

void TestExport::dialogExportsOnAWorkerThreadAndReportsFailure()
{
    QVERIFY(openAndLoad(m_files["ahrs"]).isValid());
    ModalCloser closer;
    ExportDialog dialog(*m_control, m_plugins, m_files["ahrs"]);
    dialog.show();
    QVERIFY(dialog.hasExporters());
    QVERIFY(dialog.setFormat(QStringLiteral("text")));
    const QString folder = m_dir.filePath(QStringLiteral("dialog"));
    QVERIFY(QDir().mkpath(folder));
    dialog.setOutputFolder(folder);
    dialog.setQuantities({NDI_QUATERNION});
    QSignalSpy finished(&dialog, &ExportDialog::exportFinished);
    QTest::mouseClick(dialog.findChild<QPushButton*>(QStringLiteral("exportButton")),
                      Qt::LeftButton);
    QVERIFY(dialog.isRunning() || finished.count() == 1);
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 20000);
    QCOMPARE(finished.first().first().toBool(), true);
    QCOMPARE(dialog.writtenFiles(), QStringList{QDir(folder).filePath(QStringLiteral("ahrs.csv"))});
    const Csv csv = readCsv(dialog.writtenFiles().first());
    QCOMPARE(csv.header, (QStringList{QStringLiteral("Time (s)"), QStringLiteral("Quat_q0"),
                                      QStringLiteral("Quat_q1"), QStringLiteral("Quat_q2"),
                                      QStringLiteral("Quat_q3")}));
    QVERIFY(closer.texts.isEmpty());

    // A folder that is gone by the time the export starts: a message, the dialog stays.
    dialog.setOutputFolder(m_dir.filePath(QStringLiteral("vanished")));
    QTest::mouseClick(dialog.findChild<QPushButton*>(QStringLiteral("exportButton")),
                      Qt::LeftButton);
    QTRY_COMPARE(closer.texts.size(), 1);
    QVERIFY(closer.texts.first().contains(QLatin1String("does not exist")));
    QVERIFY(dialog.isVisible());
    QCOMPARE(finished.count(), 1);

    // Closing while it runs aborts first; the dialog goes once its thread has ended.
    dialog.setOutputFolder(folder);
    QTest::mouseClick(dialog.findChild<QPushButton*>(QStringLiteral("exportButton")),
                      Qt::LeftButton);
    dialog.reject();
    QTRY_VERIFY_WITH_TIMEOUT(!dialog.isVisible(), 20000);
    QVERIFY(!dialog.isRunning());
    QCOMPARE(finished.count(), 2);
}

void TestExport::batchExportWritesEveryRecordingAndSummarizesFailures()
{
    const QString foreign = m_dir.filePath(QStringLiteral("notes.kvb"));
    {
        QFile file(foreign);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("these are my notes, not a recording\n");
    }
    // One recording is open in the application already: it stays open.
    NdaDevice& open = openAndLoad(m_files["ahrs"]);
    QVERIFY(open.isValid());
    const QString folder = m_dir.filePath(QStringLiteral("batch"));
    QVERIFY(QDir().mkpath(folder));
    ModalCloser closer;
    BatchExportDialog dialog(*m_control, m_plugins, {m_files["imu"], foreign, m_files["ahrs"]});
    dialog.show();
    dialog.setOutputFolder(folder);
    dialog.setTimeColumns(ExportWorker::BothTimeColumns);
    QSignalSpy finished(&dialog, &BatchExportDialog::batchFinished);
    dialog.startExport();
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 30000);
    QCOMPARE(finished.first().at(0).toInt(), 2);
    QCOMPARE(finished.first().at(1).toInt(), 1);
    QCOMPARE(dialog.writtenFiles(),
             (QStringList{QDir(folder).filePath(QStringLiteral("imu.csv")),
                          QDir(folder).filePath(QStringLiteral("ahrs.csv"))}));
    QVERIFY(dialog.failures().first().contains(foreign));
    QVERIFY(dialog.summaryText().contains(QLatin1String("Failed")));
    QVERIFY(readCsv(QDir(folder).filePath(QStringLiteral("imu.csv"))).rows.size() > 250);
    QVERIFY(closer.texts.isEmpty());
    // What the dialog opened it closed again; what was open stays so.
    QVERIFY(!m_control->isValidExistingDevice(m_ids["imu"]) ||
            !m_control->isReadingFromFile(m_ids["imu"]));
    QVERIFY(open.isValid());
    QVERIFY(m_control->isReadingFromFile(m_ids["ahrs"]));

    // Abort stops the batch after the recording at hand.
    BatchExportDialog aborted(*m_control, m_plugins, {m_files["ahrs"], m_files["imu"]});
    aborted.setOutputFolder(folder);
    QSignalSpy abortedFinished(&aborted, &BatchExportDialog::batchFinished);
    aborted.startExport();
    aborted.abortExport();
    QTRY_COMPARE_WITH_TIMEOUT(abortedFinished.count(), 1, 30000);
    QVERIFY(aborted.writtenFiles().size() <= 1);
    QVERIFY(aborted.summaryText().contains(QLatin1String("Aborted")));
    QVERIFY(!aborted.isRunning());

    // A folder of recordings: every kvb in it, once.
    BatchExportDialog fromFolder(*m_control, m_plugins, {});
    QCOMPARE(fromFolder.addFolder(m_dir.path()), 5); // four recordings and the notes
    QCOMPARE(fromFolder.addFolder(m_dir.path()), 0);
}

void TestExport::kvexportOnTheCommandLine()
{
    const QString out = m_dir.filePath(QStringLiteral("cli"));
    QVERIFY(QDir().mkpath(out));
    const auto run = [](const QStringList& args, QString* error = nullptr) {
        QProcess process;
        process.start(QStringLiteral(KVEXPORT_BINARY), args);
        process.waitForFinished(60000);
        if (error)
            *error = QString::fromUtf8(process.readAllStandardError());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    };
    QString error;
    QCOMPARE(run({QStringLiteral("--list-formats")}), 0);
    QCOMPARE(run({m_files["gnss"], QStringLiteral("--out"), out, QStringLiteral("--time"),
                  QStringLiteral("both"), QStringLiteral("--from"), QStringLiteral("1"),
                  QStringLiteral("--to"), QStringLiteral("2")},
                 &error),
             0);
    QVERIFY2(error.contains(QLatin1String("Exporting to")), qPrintable(error));
    const Csv csv = readCsv(QDir(out).filePath(QStringLiteral("gnss.csv")));
    QCOMPARE(csv.header.mid(0, 2),
             (QStringList{QStringLiteral("Time (s)"), QStringLiteral("HostTime (UTC ns)")}));
    QCOMPARE(csv.rows.size(), 101);

    QCOMPARE(run({m_files["master"], QStringLiteral("--out"), out}), 0);
    QCOMPARE(QDir(out).entryList({QStringLiteral("master_*.csv")}).size(), 2);

    QVERIFY(run({m_dir.filePath(QStringLiteral("missing.kvb"))}, &error) != 0);
    QVERIFY2(error.contains(QLatin1String("no such file")), qPrintable(error));
    const QString foreign = m_dir.filePath(QStringLiteral("foreign.txt"));
    {
        QFile file(foreign);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("hello, this is text\n");
    }
    QVERIFY(run({foreign}, &error) != 0);
    QVERIFY2(error.contains(QLatin1String("not a recording")), qPrintable(error));
    QVERIFY(run({m_files["imu"], QStringLiteral("--format"), QStringLiteral("xml")}, &error) != 0);
    QVERIFY2(error.contains(QLatin1String("unknown format \"xml\"")), qPrintable(error));
    QVERIFY(
        run({m_files["imu"], QStringLiteral("--out"), m_dir.filePath(QStringLiteral("nowhere"))},
            &error) != 0);
    QVERIFY2(error.contains(QLatin1String("no such folder")), qPrintable(error));
}

QTEST_MAIN(TestExport)
#include "tst_export.moc"
