// kvdump against what users feed it: recordings the device library made of kvsim devices
// with every output item on, raw port captures, NMEA text, live ports, and files that are
// none of these.

#include "fulloutput.h"
#include "kvsimharness.h"
#include "nivradeviceapi.h"
#include "nvframeparser.h"

#include <QtTest>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <set>
#include <thread>

using namespace std::chrono_literals;

namespace {

struct Run
{
    int exitCode = -1;
    QStringList lines;
    QString errors;
};

Run kvdump(const QStringList& args)
{
    QProcess process;
    process.start(QStringLiteral(KVDUMP_BINARY), args);
    Run run;
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        run.errors = QStringLiteral("kvdump did not end");
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.lines = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'));
    if (!run.lines.isEmpty() && run.lines.back().isEmpty())
        run.lines.removeLast();
    run.errors = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QJsonObject parse(const QString& line)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(line.toUtf8(), &error);
    return error.error == QJsonParseError::NoError ? doc.object() : QJsonObject();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// The data items of an OutputConfiguration or a DataPacket: their "<Item>.id" keys.
std::set<QString> itemsOf(const QJsonObject& outputConfiguration)
{
    std::set<QString> items;
    const QJsonObject fields = outputConfiguration.value(QStringLiteral("fields")).toObject();
    for (auto it = fields.begin(); it != fields.end(); ++it)
        if (it.key().endsWith(QLatin1String(".id")))
            items.insert(it.key().section(QLatin1Char('.'), 0, 0));
    return items;
}

} // namespace

class TestKvdump : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyFrameOfARecordingDecodes();
    void filterCountAndRaw();
    void recordingCutShort();
    void portCaptureWithGarbageAndABadFrame();
    void nmeaText();
    void inputsThatAreNotRecordings();
    void listensOnALivePortWithoutDisturbingIt();
    void configAsksTheDeviceToDescribeItself();

private:
    QTemporaryDir m_dir;
    QStringList m_recordings;
    std::vector<size_t> m_configured; // items set per recording
};

void TestKvdump::initTestCase()
{
    QVERIFY(m_dir.isValid());
    kvtest::KvsimProcess sim(
        {"--device", "imu", "--device", "ahrs", "--device", "gnss", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000);
    std::vector<NvDevice*> devices;
    for (const auto& port : sim.ports()) {
        NvString name = port.path;
        QVERIFY2(NvControl_openPort(control, &name, NBR_115200, 0),
                 NvControl_lastResultText(control));
        NvDeviceId id = NvDeviceId::fromString(port.id);
        NvDevice* dev = NvControl_device(control, &id);
        QVERIFY(dev);
        const size_t items = ndatest::configureFullOutput(dev);
        QVERIFY(items > 0);
        m_configured.push_back(items);
        const QString file = m_dir.filePath(QStringLiteral("%1.kvb").arg(port.kind.c_str()));
        NvString path = file.toStdString();
        QVERIFY2(NvDevice_createLogFile(dev, &path), NvControl_lastResultText(control));
        QVERIFY2(NvDevice_startRecording(dev), NvControl_lastResultText(control));
        devices.push_back(dev);
        m_recordings << file;
    }
    // Long enough for the slow items (GNSS at 1-4 Hz) to come round many times; a minute
    // (KVDUMP_TEST_SECONDS=60) takes some three minutes to check, too long for every run.
    const int seconds = qEnvironmentVariableIntValue("KVDUMP_TEST_SECONDS");
    std::this_thread::sleep_for(std::chrono::seconds(seconds > 0 ? seconds : 15));
    for (NvDevice* dev : devices) {
        QVERIFY(NvDevice_gotoConfig(dev));
        QVERIFY2(NvDevice_stopRecording(dev), NvControl_lastResultText(control));
    }
    NvControl_close(control);
    NvControl_destruct(control);
}

void TestKvdump::everyFrameOfARecordingDecodes()
{
    for (int r = 0; r < m_recordings.size(); ++r) {
        const QString& file = m_recordings[r];
        const Run run = kvdump({QStringLiteral("--json"), file});
        QCOMPARE(run.exitCode, 0);
        QVERIFY(run.lines.size() > 10);
        std::set<QString> configured;
        std::set<QString> seen;
        int packets = 0;
        QString lastTime;
        for (const QString& line : run.lines) {
            const QJsonObject frame = parse(line);
            QVERIFY2(!frame.isEmpty(), qPrintable(line));
            QVERIFY2(!frame.contains(QStringLiteral("error")), qPrintable(line));
            QVERIFY2(!frame.contains(QStringLiteral("skipped")), qPrintable(line));
            QVERIFY2(!line.contains(QStringLiteral("<no data")), qPrintable(line));
            QVERIFY2(!line.contains(QStringLiteral("<parse error")), qPrintable(line));
            const QString name = frame.value(QStringLiteral("name")).toString();
            // Every frame is dated by the file, and the dates never go back.
            const QString time = frame.value(QStringLiteral("time")).toString();
            QVERIFY2(!time.isEmpty() && time >= lastTime, qPrintable(line));
            lastTime = time;
            if (name == QLatin1String("OutputConfiguration"))
                configured = itemsOf(frame);
            if (name != QLatin1String("DataPacket"))
                continue;
            ++packets;
            QCOMPARE(frame.value(QStringLiteral("dir")).toString(), QStringLiteral("<"));
            QCOMPARE(frame.value(QStringLiteral("bus")).toInt(), 1);
            // Items at lower rates come in some packets only; none comes unasked.
            const std::set<QString> items = itemsOf(frame);
            for (const QString& item : items)
                QVERIFY2(configured.count(item), qPrintable(item + QStringLiteral(" in ") + line));
            QVERIFY2(items.count(QStringLiteral("PacketCounter")), qPrintable(line));
            seen.insert(items.begin(), items.end());
        }
        QCOMPARE(configured.size(), m_configured[size_t(r)]);
        QVERIFY(seen == configured);
        QVERIFY(packets > 50);
        // The file's own frames frame it; the description comes before the data.
        QCOMPARE(parse(run.lines.front()).value(QStringLiteral("name")).toString(),
                 QStringLiteral("FileHeader"));
        QCOMPARE(parse(run.lines[1]).value(QStringLiteral("name")).toString(),
                 QStringLiteral("DeviceId"));
        QCOMPARE(parse(run.lines.back()).value(QStringLiteral("name")).toString(),
                 QStringLiteral("FileEnd"));
        QVERIFY(run.errors.contains(QStringLiteral("0 with errors, 0 bytes skipped")));
    }
}

void TestKvdump::filterCountAndRaw()
{
    const QString file = m_recordings.front();
    {
        const Run run = kvdump({QStringLiteral("--filter"), QStringLiteral("datapacket"),
                                QStringLiteral("--count"), QStringLiteral("5"), file});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.lines.size(), 5);
        for (const QString& line : run.lines) {
            QVERIFY2(line.contains(QStringLiteral(" < 01 DataPacket ")), qPrintable(line));
            QVERIFY2(line.contains(QStringLiteral("PacketCounter.counter=")), qPrintable(line));
        }
    }
    {
        // Two names keep both kinds, in file order.
        const Run run = kvdump({QStringLiteral("--filter"), QStringLiteral("FileHeader"),
                                QStringLiteral("--filter"), QStringLiteral("ProductCode"), file});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.lines.size(), 2);
        QVERIFY(run.lines[0].contains(QStringLiteral(" - 00 FileHeader ")));
        QVERIFY(run.lines[1].contains(QStringLiteral("productcode=KV-100")));
    }
    {
        // The raw bytes of every frame, one after the other, are the file.
        const Run run = kvdump({QStringLiteral("--json"), QStringLiteral("--raw"), file});
        QCOMPARE(run.exitCode, 0);
        QByteArray bytes;
        for (const QString& line : run.lines)
            bytes +=
                QByteArray::fromHex(parse(line).value(QStringLiteral("raw")).toString().toLatin1());
        QCOMPARE(bytes.size(), readFile(file).size());
        QVERIFY(bytes == readFile(file));
    }
}

void TestKvdump::recordingCutShort()
{
    // A recording that ended in a crash: everything whole is shown, the cut frame as bytes.
    const QByteArray whole = readFile(m_recordings.front());
    const QString file = m_dir.filePath(QStringLiteral("cut.kvb"));
    // Cut five bytes into the first frame past the middle.
    qsizetype cutAt = 0;
    NvFrameParser parser;
    const auto* base = reinterpret_cast<const uint8_t*>(whole.constData());
    parser.feed(base, size_t(whole.size()), [&](const NvFrameView& view) {
        if (cutAt == 0 && view.frame - base > whole.size() / 2)
            cutAt = (view.frame - base) + 5;
    });
    QVERIFY(cutAt > 0);
    QVERIFY(writeFile(file, whole.left(cutAt)));
    const Run all = kvdump({QStringLiteral("--json"), m_recordings.front()});
    const Run cut = kvdump({QStringLiteral("--json"), file});
    QCOMPARE(cut.exitCode, 0);
    QVERIFY(cut.lines.size() > 10 && cut.lines.size() < all.lines.size());
    const QJsonObject last = parse(cut.lines.back());
    QCOMPARE(last.value(QStringLiteral("skipped")).toInt(), 5);
    for (int i = 0; i + 1 < cut.lines.size(); ++i)
        QCOMPARE(cut.lines[i], all.lines[i]);
}

void TestKvdump::portCaptureWithGarbageAndABadFrame()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:measure", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    kvtest::HostPort port(sim.ports().front().path);
    QVERIFY(port.isOpen());
    const std::string capture = port.readText(1500ms);
    // Whole frames as the port delivered them, with garbage, a frame whose checksum is wrong,
    // an unknown message and one whose data is too short in the middle.
    std::vector<QByteArray> frames;
    NvFrameParser parser;
    parser.feed(reinterpret_cast<const uint8_t*>(capture.data()), capture.size(),
                [&](const NvFrameView& view) {
                    frames.emplace_back(reinterpret_cast<const char*>(view.frame),
                                        qsizetype(view.size));
                });
    QVERIFY(frames.size() > 60);
    QByteArray bin;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (i == frames.size() / 2) {
            bin += QByteArray("\x01\x02\x03", 3);
            bin += QByteArray("\xFA\xFF\x1D\x02KV\x00", 7); // ProductCode "KV", checksum 0
            for (const NvMessage& m : {NvMessage(0xFF, 0x5A, NvByteArray{7}),
                                       NvMessage(0xFF, NvMid::LocationId, NvByteArray{1})})
                bin +=
                    QByteArray(reinterpret_cast<const char*>(m.frame()), qsizetype(m.frameSize()));
        }
        bin += frames[i];
    }
    const QString file = m_dir.filePath(QStringLiteral("capture.bin"));
    QVERIFY(writeFile(file, bin));

    const Run run = kvdump({file});
    QCOMPARE(run.exitCode, 0);
    int packets = 0;
    bool garbage = false;
    bool badFrame = false;
    bool unknown = false;
    bool shortData = false;
    for (const QString& line : run.lines) {
        if (line.contains(QStringLiteral(" < FF Unknown 1 ")) &&
            line.contains(QStringLiteral("error=\"unknown message 0x5a\"")) &&
            line.contains(QStringLiteral("raw=\"FA FF 5A 01 07 9F\"")))
            unknown = true;
        if (line.contains(QStringLiteral(" < FF LocationId 1 ")) &&
            line.contains(QStringLiteral("error=\"does not decode")) &&
            line.contains(QStringLiteral("raw=\"FA FF 85 01 01 7A\"")))
            shortData = true;
        if (line.contains(QStringLiteral(" < FF DataPacket ")) && !line.contains("error="))
            ++packets;
        if (line.contains(QStringLiteral("skipped 3 bytes: 01 02 03")))
            garbage = true;
        if (line.contains(QStringLiteral("ProductCode 2")) &&
            line.contains(QStringLiteral("error=\"checksum error\"")) &&
            line.contains(QStringLiteral("raw=\"FA FF 1D 02 4B 56 00\"")))
            badFrame = true;
    }
    QCOMPARE(packets, int(frames.size()));
    QVERIFY(garbage);
    QVERIFY(badFrame);
    QVERIFY(unknown);
    QVERIFY(shortData);
    QVERIFY2(run.errors.contains(QStringLiteral("3 with errors, 3 bytes skipped")),
             qPrintable(run.errors));
}

void TestKvdump::nmeaText()
{
    kvtest::KvsimProcess sim({"--device", "gnss:measure,nmea", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    kvtest::HostPort port(sim.ports().front().path);
    QVERIFY(port.isOpen());
    std::string text = port.readText(2500ms);
    // Whole lines only, and one that is not a sentence.
    text = text.substr(text.find('\n') + 1);
    text = text.substr(0, text.rfind('\n') + 1);
    text += "no sentence here\r\n";
    const QString file = m_dir.filePath(QStringLiteral("gnss.nm"));
    QVERIFY(writeFile(file, QByteArray::fromStdString(text)));

    const Run run = kvdump({file});
    QCOMPARE(run.exitCode, 0);
    int sentences = 0;
    for (const QString& line : run.lines) {
        if (line.startsWith(QStringLiteral("- skipped"))) {
            QCOMPARE(line, QStringLiteral("- skipped 16 bytes: \"no sentence here\""));
            continue;
        }
        const QStringList parts = line.split(QLatin1Char(' '));
        QCOMPARE(parts.size(), 6);
        QVERIFY2(parts[5].startsWith(QLatin1Char('$') + parts[3] + QLatin1Char(',')),
                 qPrintable(line));
        QCOMPARE(parts[4].toInt(), parts[5].size());
        ++sentences;
    }
    QVERIFY(sentences >= 4);
    QVERIFY(run.errors.contains(QStringLiteral("0 with errors, 16 bytes skipped")));

    const Run gga = kvdump(
        {QStringLiteral("--json"), QStringLiteral("--filter"), QStringLiteral("GPGGA"), file});
    QCOMPARE(gga.exitCode, 0);
    QVERIFY(!gga.lines.isEmpty());
    for (const QString& line : gga.lines)
        QVERIFY(parse(line)
                    .value(QStringLiteral("fields"))
                    .toObject()
                    .value(QStringLiteral("sentence"))
                    .toString()
                    .startsWith("$GPGGA,"));
}

void TestKvdump::inputsThatAreNotRecordings()
{
    QByteArray random(4096, '\0');
    for (int i = 0; i < random.size(); ++i)
        random[i] = char(QRandomGenerator::global()->bounded(256));
    const QString noise = m_dir.filePath(QStringLiteral("noise.kvb"));
    QVERIFY(writeFile(noise, random));
    Run run = kvdump({noise});
    QCOMPARE(run.exitCode, 1);
    QVERIFY(run.lines.isEmpty());
    QVERIFY2(run.errors.contains(QStringLiteral("not a recording")), qPrintable(run.errors));

    run = kvdump({m_dir.filePath(QStringLiteral("missing.kvb"))});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.errors.contains(QStringLiteral("no such file")), qPrintable(run.errors));

    run = kvdump({QStringLiteral("--port"), m_dir.filePath(QStringLiteral("no-port"))});
    QCOMPARE(run.exitCode, 1);

    // A definition file with a broken data format names the entry.
    const QString broken = m_dir.filePath(QStringLiteral("broken.txt"));
    QVERIFY(writeFile(broken, "mid, 36, DataPacket, {(<2,ndi,id\n"));
    run = kvdump({QStringLiteral("--structure"), broken, m_recordings.front()});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.errors.contains(QStringLiteral("message 36")), qPrintable(run.errors));

    // Wrong command lines.
    for (const QStringList& args :
         {QStringList{}, QStringList{QStringLiteral("--bogus"), m_recordings.front()},
          QStringList{m_recordings.front(), m_recordings.back()},
          QStringList{QStringLiteral("--count"), QStringLiteral("x"), m_recordings.front()},
          QStringList{QStringLiteral("--filter"), QStringLiteral("NoSuchMessage"),
                      m_recordings.front()},
          QStringList{QStringLiteral("--config"), m_recordings.front()}}) {
        run = kvdump(args);
        QVERIFY2(run.exitCode == 2, qPrintable(args.join(QLatin1Char(' '))));
        QVERIFY(!run.errors.isEmpty());
    }
    run = kvdump({QStringLiteral("--help")});
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.lines.join(QLatin1Char('\n')).contains(QStringLiteral("--filter NAME")));
}

void TestKvdump::listensOnALivePortWithoutDisturbingIt()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:measure", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const QString path = QString::fromStdString(sim.ports().front().path);
    const Run run =
        kvdump({QStringLiteral("--port"), path, QStringLiteral("--filter"),
                QStringLiteral("DataPacket"), QStringLiteral("--count"), QStringLiteral("5")});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.lines.size(), 5);
    for (const QString& line : run.lines)
        QVERIFY2(line.contains(QStringLiteral(" < FF DataPacket ")), qPrintable(line));
    // Nothing was sent: the device still measures.
    kvtest::HostPort port(sim.ports().front().path);
    port.collect(5s, 10);
    QCOMPARE(port.packets().size(), size_t(10));
}

void TestKvdump::configAsksTheDeviceToDescribeItself()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:measure", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const QString path = QString::fromStdString(sim.ports().front().path);
    const Run run = kvdump(
        {QStringLiteral("--port"), path, QStringLiteral("--config"), QStringLiteral("--json")});
    QCOMPARE(run.exitCode, 0);
    QStringList sent;
    QStringList replies;
    for (const QString& line : run.lines) {
        const QJsonObject frame = parse(line);
        QVERIFY2(!frame.isEmpty(), qPrintable(line));
        const QString name = frame.value(QStringLiteral("name")).toString();
        // Joining a measuring device mid-frame may show a piece of a packet as a broken
        // frame or skipped bytes; what was asked for decodes.
        if (frame.contains(QStringLiteral("skipped")) || name == QLatin1String("DataPacket") ||
            frame.value(QStringLiteral("error")).toString().contains(QLatin1String("checksum")))
            continue;
        QVERIFY2(!frame.contains(QStringLiteral("error")), qPrintable(line));
        if (frame.value(QStringLiteral("dir")).toString() == QLatin1String(">"))
            sent << name;
        else
            replies << name;
    }
    const QStringList expectedSent = {
        QStringLiteral("GoToConfig"),         QStringLiteral("ReqDeviceId"),
        QStringLiteral("ReqProductCode"),     QStringLiteral("ReqFirmwareRevision"),
        QStringLiteral("ReqHardwareVersion"), QStringLiteral("ReqOutputConfiguration"),
        QStringLiteral("ReqSyncSettings"),    QStringLiteral("ReqLocationId"),
        QStringLiteral("ReqFilterProfile")};
    QCOMPARE(sent, expectedSent);
    const QStringList expectedReplies = {
        QStringLiteral("GoToConfigAck"),   QStringLiteral("DeviceId"),
        QStringLiteral("ProductCode"),     QStringLiteral("FirmwareRevision"),
        QStringLiteral("HardwareVersion"), QStringLiteral("OutputConfiguration"),
        QStringLiteral("SyncSettings"),    QStringLiteral("LocationId"),
        QStringLiteral("FilterProfile")};
    QCOMPARE(replies, expectedReplies);
    // It left the device in configuration: it answers a request at once.
    kvtest::HostPort port(sim.ports().front().path);
    QCOMPARE(port.request(NvMid::ReqProductCode).messageId(), uint8_t(NvMid::ProductCode));
}

QTEST_GUILESS_MAIN(TestKvdump)
#include "tst_kvdump.moc"
