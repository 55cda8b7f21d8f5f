// The message viewer, packet viewer and message composer against an emulated AHRS,
// offscreen: what an engineer debugging the protocol would see and do.

#include "kvsimharness.h"
#include "messagecomposerwidget.h"
#include "messageviewerwidget.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"
#include "nvmessagesstructure.h"
#include "packetviewerwidget.h"

#include <nvcontrol.h>

#include <QFile>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTableView>
#include <QTemporaryDir>
#include <QTreeWidget>
#include <QtTest>

#include <cmath>
#include <memory>

namespace {

bool reportsOn(NdaControl& control)
{
    return (NvControl_options(control.libraryControl()) & NVO_REPORT_MESSAGES) != 0;
}

// The shown rows as "->Name" / "<-Name".
QStringList shownRows(const MessageViewerWidget& viewer)
{
    QStringList rows;
    for (int row = 0; row < viewer.shownCount(); ++row) {
        const MessageViewerFrame& f = viewer.shownFrame(row);
        rows << (f.sent ? QStringLiteral("->") : QStringLiteral("<-")) +
                    viewer.model()->messageName(f.message.messageId());
    }
    return rows;
}

// Whether `wanted` occurs in `rows` in this order (other rows may lie between).
bool inOrder(const QStringList& rows, const QStringList& wanted)
{
    int next = 0;
    for (const QString& row : rows)
        if (next < wanted.size() && row == wanted[next])
            ++next;
    return next == wanted.size();
}

QTreeWidgetItem* findItem(QTreeWidget* tree, const QString& name)
{
    const QList<QTreeWidgetItem*> found =
        tree->findItems(name, Qt::MatchExactly | Qt::MatchRecursive, 0);
    return found.isEmpty() ? nullptr : found.first();
}

} // namespace

class TestMessageWidgets : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void viewerKeepsTheNewestFramesOnly();
    void viewerShowsTheExchangeDecoded();
    void viewerFiltersPausesAndSaves();
    void composerCorrectsSendsAndDecodesTheReply();
    void packetViewerShowsTheLatestPacket();

private:
    NdaDevice& device() { return m_control->requestDevice(m_ahrs); }
    bool requestDeviceId(NdaDevice& dev);

    NvMessagesStructure m_structures;
    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    std::unique_ptr<NdaControl> m_control;
    NvDeviceId m_ahrs;
};

void TestMessageWidgets::initTestCase()
{
    qRegisterMetaType<NvDeviceId>();
    QVERIFY(m_structures.read());
    m_sim = std::make_unique<kvtest::KvsimProcess>(
        std::vector<std::string>{"--device", "ahrs", "--quiet"});
    QVERIFY2(m_sim->started(), m_sim->stderrText().c_str());
    m_ahrs = kvtest::idOfKind(*m_sim, "ahrs");
    QVERIFY(!m_ahrs.isEmpty());
}

void TestMessageWidgets::init()
{
    m_control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000);
    for (const auto& port : m_sim->ports())
        QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
    QVERIFY(m_control->isValidExistingDevice(m_ahrs) ||
            m_control->libraryDeviceRef(m_ahrs).get() != nullptr);
}

void TestMessageWidgets::cleanup()
{
    m_control.reset();
}

void TestMessageWidgets::cleanupTestCase()
{
    m_sim.reset();
}

bool TestMessageWidgets::requestDeviceId(NdaDevice& dev)
{
    NvMessage reply;
    return dev.sendCustomMessage(NvMessage::toDevice(NvMid::ReqDeviceId), true, reply, 3000) &&
           reply.messageId() == NvMid::DeviceId;
}

void TestMessageWidgets::viewerKeepsTheNewestFramesOnly()
{
    MessageViewerModel model(m_structures, 5);
    std::vector<MessageViewerFrame> frames;
    for (uint8_t i = 0; i < 3; ++i)
        frames.push_back(
            {QTime::currentTime(), true, NvMessage::toDevice(NvMid::SetNoRotation, {0, i})});
    model.append(frames);
    QCOMPARE(model.rowCount(), 3);
    frames.clear();
    for (uint8_t i = 3; i < 11; ++i)
        frames.push_back(
            {QTime::currentTime(), false, NvMessage::toDevice(NvMid::SetNoRotation, {0, i})});
    model.append(frames); // more than fits at once
    QCOMPARE(model.rowCount(), 5);
    QCOMPARE(model.frame(0).message.readU16(0), uint16_t(6));
    QCOMPARE(model.frame(4).message.readU16(0), uint16_t(10));
    QCOMPARE(model.index(4, MessageViewerModel::NameColumn).data().toString(),
             QStringLiteral("SetNoRotation"));
    QCOMPARE(model.index(4, MessageViewerModel::LengthColumn).data().toInt(), 2);
    QCOMPARE(model.index(4, MessageViewerModel::BusColumn).data().toString(), QStringLiteral("FF"));
    QCOMPARE(model.messageName(0xEE), QStringLiteral("Unknown (MID: EE)"));
}

void TestMessageWidgets::viewerShowsTheExchangeDecoded()
{
    QVERIFY(!reportsOn(*m_control));
    NdaDevice& dev = device();
    {
        auto viewer = std::make_unique<MessageViewerWidget>(m_structures, *m_control, m_ahrs);
        viewer->resize(1000, 600);
        viewer->show();
        QVERIFY(reportsOn(*m_control)); // reports only while a viewer looks

        QVERIFY(dev.gotoConfig());
        QVERIFY(requestDeviceId(dev));
        // Each request before its reply: a frame is reported as it goes out.
        // Generous: under a sanitizer on a loaded machine the rows come late.
        QTRY_VERIFY_WITH_TIMEOUT(inOrder(shownRows(*viewer), {"->GoToConfig", "<-GoToConfigAck",
                                                              "->ReqDeviceId", "<-DeviceId"}),
                                 15000);

        // The DeviceId reply: its field carries the device's identifier, its bytes the frame.
        int row = -1;
        for (int r = viewer->shownCount() - 1; r >= 0 && row < 0; --r)
            if (viewer->shownFrame(r).message.messageId() == NvMid::DeviceId)
                row = r;
        QVERIFY(row >= 0);
        viewer->selectShownRow(row);
        QTreeWidgetItem* idField = findItem(viewer->fieldTree(), QStringLiteral("Device id"));
        QVERIFY(idField);
        QCOMPARE(idField->text(1), QStringLiteral("Null"));
        QCOMPARE(idField->text(2).remove(QLatin1Char(' ')).toUpper(),
                 QString::fromStdString(m_ahrs.toString()));
        QVERIFY(!idField->toolTip(2).isEmpty());
        const QString hex = viewer->hexView()->toPlainText();
        QVERIFY2(hex.startsWith(QStringLiteral("0000  FA FF 01 08 ")), qPrintable(hex));
        // Choosing the field marks its bytes (after the four header bytes) in the hex view.
        QVERIFY(viewer->hexView()->extraSelections().isEmpty());
        viewer->fieldTree()->setCurrentItem(idField);
        const auto marked = viewer->hexView()->extraSelections();
        QCOMPARE(marked.size(), 8);
        QCOMPARE(marked.first().cursor.selectedText(),
                 QStringLiteral("%1").arg(QString::fromStdString(m_ahrs.toString()).left(2)));

        // A short measurement: its packets come in, decoded per item.
        QVERIFY(dev.gotoMeasurement());
        QTRY_VERIFY(shownRows(*viewer).count(QStringLiteral("<-DataPacket")) >= 60);
        // The table follows the newest row, unless the user scrolled up to read.
        QScrollBar* bar = viewer->tableView()->verticalScrollBar();
        QTRY_VERIFY(bar->maximum() > 0 && bar->value() == bar->maximum());
        bar->setValue(0);
        int count = viewer->shownCount();
        QTRY_VERIFY(viewer->shownCount() > count + 20);
        QCOMPARE(bar->value(), 0);
        bar->setValue(bar->maximum());
        count = viewer->shownCount();
        QTRY_VERIFY(viewer->shownCount() > count + 20);
        QTRY_COMPARE(bar->value(), bar->maximum());
        QVERIFY(dev.gotoConfig());
        QTRY_VERIFY(inOrder(shownRows(*viewer), {"->GoToMeasurement", "->GoToConfig"}) &&
                    inOrder(shownRows(*viewer), {"<-GoToMeasurementAck", "<-DataPacket"}));
        row = shownRows(*viewer).indexOf(QStringLiteral("<-DataPacket"));
        viewer->selectShownRow(row);
        QVERIFY(findItem(viewer->fieldTree(), QStringLiteral("Acceleration")));
        QVERIFY(findItem(viewer->fieldTree(), QStringLiteral("Packet Counter")));
        QCOMPARE(viewer->tableView()
                     ->model()
                     ->index(row, MessageViewerModel::DirectionColumn)
                     .data()
                     .toString(),
                 QStringLiteral("←"));
    }
    QVERIFY(!reportsOn(*m_control)); // the last viewer gone: as it was before
    m_control->releaseDevice(dev);
}

void TestMessageWidgets::viewerFiltersPausesAndSaves()
{
    NdaDevice& dev = device();
    MessageViewerWidget viewer(m_structures, *m_control, m_ahrs);
    viewer.show();
    QVERIFY(dev.gotoConfig());
    QVERIFY(dev.gotoMeasurement());
    QTRY_VERIFY(shownRows(viewer).count(QStringLiteral("<-DataPacket")) >= 10);
    QVERIFY(dev.gotoConfig());
    QVERIFY(requestDeviceId(dev));
    QTRY_VERIFY(shownRows(viewer).contains(QStringLiteral("<-DeviceId")));
    const int all = viewer.shownCount();

    // By message, by direction, and both.
    viewer.setMessageFilter(NvMid::DataPacket);
    QVERIFY(viewer.shownCount() >= 10 && viewer.shownCount() < all);
    QCOMPARE(shownRows(viewer).count(QStringLiteral("<-DataPacket")), viewer.shownCount());
    viewer.setMessageFilter(-1);
    viewer.setDirectionFilter(MessageViewerWidget::Direction::Sent);
    const QStringList sent = shownRows(viewer);
    QVERIFY(sent.contains(QStringLiteral("->ReqDeviceId")));
    QCOMPARE(sent.filter(QStringLiteral("->")).size(), sent.size());
    viewer.setDirectionFilter(MessageViewerWidget::Direction::Received);
    QCOMPARE(shownRows(viewer).filter(QStringLiteral("<-")).size(), viewer.shownCount());
    viewer.setMessageFilter(NvMid::ReqDeviceId);
    QCOMPARE(viewer.shownCount(), 0); // a request is never received
    viewer.setDirectionFilter(MessageViewerWidget::Direction::Both);
    viewer.setMessageFilter(-1);
    QCOMPARE(viewer.shownCount(), all);

    // Paused: new frames are counted, not shown; resuming shows them.
    viewer.setPaused(true);
    QVERIFY(requestDeviceId(dev));
    QTRY_COMPARE(viewer.pausedCount(), 2);
    QCOMPARE(viewer.shownCount(), all);
    viewer.setPaused(false);
    QCOMPARE(viewer.pausedCount(), 0);
    QCOMPARE(viewer.shownCount(), all + 2);
    QStringList resumed = shownRows(viewer).mid(all);
    resumed.sort(); // a quick reply may be reported before its request
    QCOMPARE(resumed, (QStringList{"->ReqDeviceId", "<-DeviceId"}));

    // Saving writes what is shown: decoded lines, or the raw frames.
    QTemporaryDir dir;
    viewer.setMessageFilter(NvMid::DeviceId);
    const int shown = viewer.shownCount();
    QCOMPARE(shown, 2);
    const QString text = dir.filePath(QStringLiteral("frames.txt"));
    QVERIFY(viewer.saveToFile(text));
    QFile textFile(text);
    QVERIFY(textFile.open(QIODevice::ReadOnly));
    const QStringList lines =
        QString::fromUtf8(textFile.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), shown);
    for (const QString& line : lines) {
        QVERIFY2(line.contains(QStringLiteral("<-\tFF\tDeviceId\t8")), qPrintable(line));
        QVERIFY2(line.contains(QLatin1String("Device id")), qPrintable(line));
    }
    const QString raw = dir.filePath(QStringLiteral("frames.bin"));
    QVERIFY(viewer.saveToFile(raw));
    QFile rawFile(raw);
    QVERIFY(rawFile.open(QIODevice::ReadOnly));
    const QByteArray bytes = rawFile.readAll();
    QCOMPARE(bytes.size(), 2 * 13);
    QCOMPARE(bytes.left(4), QByteArray::fromHex("FAFF0108"));

    // A folder that is not there: a reason, and the good file stays.
    QString error;
    QVERIFY(!viewer.saveToFile(dir.filePath(QStringLiteral("missing/frames.txt")), &error));
    QVERIFY(!error.isEmpty());
    QCOMPARE(QFileInfo(text).size(), textFile.size());

    viewer.clear();
    QCOMPARE(viewer.shownCount(), 0);
    QCOMPARE(viewer.model()->rowCount(), 0);
    m_control->releaseDevice(dev);
}

void TestMessageWidgets::composerCorrectsSendsAndDecodesTheReply()
{
    NdaDevice& dev = device();
    MessageComposerWidget composer(m_structures, *m_control, m_ahrs);
    composer.show();
    QSignalSpy finished(&composer, &MessageComposerWidget::sendFinished);

    // Typed bytes are validated as typed and corrected into a whole frame.
    auto* edit = composer.findChild<QLineEdit*>();
    QVERIFY(edit && edit->validator());
    composer.setFrameText(QString());
    edit->setFocus();
    QTest::keyClicks(edit, QStringLiteral("fa"));
    QCOMPARE(composer.frameText(), QStringLiteral("FA"));
    QCOMPARE(composer.correctedFrame().toString(), QStringLiteral("FA FF 30 00 D1"));
    QTest::keyClicks(edit, QStringLiteral("ffxx1c"));
    QCOMPARE(composer.frameText(), QStringLiteral("FA FF 1C"));
    QCOMPARE(composer.correctedFrame().toString(), QStringLiteral("FA FF 1C 00 E5"));

    // In configuration mode, ReqProductCode is answered with the product code.
    QVERIFY(dev.gotoConfig());
    composer.setWaitForReply(true);
    composer.send();
    QTRY_COMPARE(finished.size(), 1);
    QVERIFY(finished.first().at(0).toBool());
    QCOMPARE(composer.lastReply().messageId(), uint8_t(NvMid::ProductCode));
    QVERIFY2(composer.replyText().contains(QLatin1String("ProductCode")),
             qPrintable(composer.replyText()));
    QVERIFY2(composer.replyText().contains(QLatin1String("KV-300")),
             qPrintable(composer.replyText()));

    // A request the device refuses comes back as an Error, decoded.
    composer.setFrameText(QStringLiteral("FA FF EE"));
    composer.send();
    QTRY_COMPARE(finished.size(), 2);
    QVERIFY(!finished.last().at(0).toBool());
    QVERIFY2(composer.replyText().contains(QLatin1String("Error")),
             qPrintable(composer.replyText()));

    // Picking a message with fields gives its editor; editing it rewrites the frame.
    composer.selectMessage(NvMid::SetNoRotation);
    QCOMPARE(composer.correctedFrame().at(2), uint8_t(NvMid::SetNoRotation));
    QCOMPARE(composer.correctedFrame().toString(), QStringLiteral("FA FF 22 02 00 00 DD"));
    QVERIFY(composer.dataEditor());
    auto* seconds = composer.dataEditor()->findChild<QLineEdit*>(QStringLiteral("seconds"));
    QVERIFY(seconds);
    seconds->setText(QStringLiteral("10"));
    emit seconds->editingFinished();
    QCOMPARE(composer.correctedFrame().toString(), QStringLiteral("FA FF 22 02 00 0A D3"));
    QCOMPARE(composer.frameText(), QStringLiteral("FA FF 22 02 00 0A D3"));

    // The fixed frames are one click away.
    auto buttonNamed = [&](const QString& text) {
        for (QPushButton* b : composer.findChildren<QPushButton*>())
            if (b->text() == text)
                return b;
        return static_cast<QPushButton*>(nullptr);
    };
    QPushButton* measure = buttonNamed(QStringLiteral("GoToMeasurement"));
    QVERIFY(measure);
    QTest::mouseClick(measure, Qt::LeftButton);
    QTRY_COMPARE(finished.size(), 3);
    QVERIFY(finished.last().at(0).toBool());
    QTRY_VERIFY(dev.isMeasuring());
    QTest::mouseClick(buttonNamed(QStringLiteral("GoToConfig")), Qt::LeftButton);
    QTRY_COMPARE(finished.size(), 4);
    QTRY_VERIFY(!dev.isMeasuring());

    const QStringList history = composer.history();
    QCOMPARE(history.value(0), QStringLiteral("FA FF 30 00 D1"));
    QCOMPARE(history.value(1), QStringLiteral("FA FF 10 00 F1"));
    QVERIFY(history.contains(QStringLiteral("FA FF 1C 00 E5")));
    m_control->releaseDevice(dev);
}

void TestMessageWidgets::packetViewerShowsTheLatestPacket()
{
    NdaDevice& dev = device();
    PacketViewerWidget viewer(m_structures, *m_control, m_ahrs);
    viewer.show();
    QVERIFY(dev.gotoConfig());
    QVERIFY(dev.gotoMeasurement());
    QTRY_VERIFY(findItem(viewer.itemTree(), QStringLiteral("Acceleration")));

    QTreeWidgetItem* acc = findItem(viewer.itemTree(), QStringLiteral("Acceleration"));
    QVERIFY(!acc->text(1).isEmpty()); // precision and frame, e.g. "Float32 ENU"
    QCOMPARE(acc->childCount(), 3);
    // The values are those of the packet shown, and look like gravity on a moving device.
    const NvVector3 truth = viewer.shownPacket().acceleration();
    double sum = 0;
    for (int i = 0; i < 3; ++i) {
        bool ok = false;
        const double v = acc->child(i)->data(2, Qt::UserRole).toDouble(&ok);
        QVERIFY(ok);
        QVERIFY2(std::abs(v - truth[i]) < 1e-4, qPrintable(acc->text(2)));
        sum += v * v;
    }
    QVERIFY2(std::sqrt(sum) > 6.0 && std::sqrt(sum) < 14.0, qPrintable(acc->text(2)));
    QVERIFY(findItem(viewer.itemTree(), QStringLiteral("Quaternion")));
    QTreeWidgetItem* counter = findItem(viewer.itemTree(), QStringLiteral("Packet Counter"));
    QVERIFY(counter);
    QVERIFY(counter->text(1).isEmpty()); // an integer has no precision or frame

    // Paused: packets still come, the shown one stays.
    viewer.setPaused(true);
    QTest::qWait(150); // let a pending redraw pass
    const uint16_t shown = viewer.shownPacket().packetCounter();
    const qint64 received = viewer.packetCount();
    QTRY_VERIFY(viewer.packetCount() > received + 10);
    QCOMPARE(viewer.shownPacket().packetCounter(), shown);
    viewer.setPaused(false);
    QTRY_VERIFY(viewer.shownPacket().packetCounter() != shown);
    QVERIFY(dev.gotoConfig());
    m_control->releaseDevice(dev);
}

QTEST_MAIN(TestMessageWidgets)
#include "tst_messagewidgets.moc"
