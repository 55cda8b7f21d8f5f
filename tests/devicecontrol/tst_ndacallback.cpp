// The bridge from library threads to the GUI thread: order, thread and filtering of the
// re-emitted signals, first with callbacks called by hand, then from a real control.
#include "kvsimharness.h"
#include "ndacallback.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QStringList>
#include <QTest>
#include <QThread>

#include <atomic>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Counts what a wrapper would see on the library thread.
class Bridge : public NdaCallback
{
public:
    std::atomic<bool> processPackets{true};
    std::mutex mutex;
    std::vector<std::pair<NdaDeviceState::Type, NdaDeviceState::Type>> stored;
    QStringList slotCalls; // GUI thread only

protected:
    bool shouldProcessPacket() const override { return processPackets; }
    void updateState(NdaDeviceState::Type newState, NdaDeviceState::Type oldState) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        stored.emplace_back(newState, oldState);
    }
    void onUpdateProgress(int current, int total, const NvDeviceId&, const QString& what) override
    {
        slotCalls << QStringLiteral("progress %1/%2 %3").arg(current).arg(total).arg(what);
    }
    void onProgressCompleted(const NvDeviceId&, const QString& what, int result) override
    {
        slotCalls << QStringLiteral("completed %1 %2").arg(what).arg(result);
    }
    void onUpdateFlushingProgress(int current, int total, const NvDeviceId&,
                                  const QString&) override
    {
        slotCalls << QStringLiteral("flushing %1/%2").arg(current).arg(total);
    }
    void onFlushingProgressCompleted(const NvDeviceId&, const QString&, int result) override
    {
        slotCalls << QStringLiteral("flushed %1").arg(result);
    }
};

class DestroyedRecorder : public NdaDeviceDestroyedCallback
{
public:
    void deviceDestroyed(NvDevice* device) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        devices.push_back(device);
        threads.push_back(QThread::currentThread());
    }
    std::mutex mutex;
    std::vector<NvDevice*> devices;
    std::vector<QThread*> threads;
};

// Every signal of the bridge as one line, in arrival order, with the thread it came on.
class SignalLog : public QObject
{
public:
    explicit SignalLog(NdaCallback& cb)
    {
        connect(&cb, &NdaCallback::error, this,
                [this](const NvDeviceId& id, NvResultValue r) { add(id, "error", int(r)); });
        connect(&cb, &NdaCallback::warning, this,
                [this](const NvDeviceId& id, NvResultValue r) { add(id, "warning", int(r)); });
        connect(&cb, &NdaCallback::samplesMissed, this,
                [this](const NvDeviceId& id, int n) { add(id, "missed", n); });
        connect(&cb, &NdaCallback::dataUnavailable, this,
                [this](const NvDeviceId& id, int t) { add(id, "unavailable", t); });
        connect(&cb, &NdaCallback::wakeupReceived, this,
                [this](const NvDeviceId& id) { add(id, "wakeup"); });
        connect(&cb, &NdaCallback::deviceStateChange, this,
                [this](const NvDeviceId& id, NdaDeviceState::Type n, NdaDeviceState::Type o) {
                    add(id, "state", int(n), int(o));
                });
        connect(&cb, &NdaCallback::kvwConnected, this,
                [this](const KvwInfo& i) { add(i.deviceId, "connected"); });
        connect(&cb, &NdaCallback::kvwRejected, this,
                [this](const KvwInfo& i) { add(i.deviceId, "rejected"); });
        connect(&cb, &NdaCallback::kvwDisconnected, this,
                [this](const KvwInfo& i) { add(i.deviceId, "disconnected"); });
        connect(&cb, &NdaCallback::batteryLevelChanged, this,
                [this](const KvwInfo& i) { add(i.deviceId, "battery"); });
        connect(&cb, &NdaCallback::messageReceivedFromDevice, this,
                [this](const NvDeviceId& id, const NvMessage& m) {
                    add(id, "received", m.messageId());
                });
        connect(
            &cb, &NdaCallback::messageSentToDevice, this,
            [this](const NvDeviceId& id, const NvMessage& m) { add(id, "sent", m.messageId()); });
        connect(&cb, &NdaCallback::nonDataMessage, this,
                [this](const NvDeviceId& id, const NvMessage& m) {
                    add(id, "nondata", m.messageId());
                });
        connect(&cb, &NdaCallback::messageDetected, this,
                [this](const NvDeviceId& id, NvProtocolType t, const NvByteArray& raw) {
                    add(id, "detected", int(t), int(raw.size()));
                });
        connect(&cb, &NdaCallback::postProcessed, this,
                [this](const NvDataPacket& p) { add(NvDeviceId(), "packet", p.packetCounter()); });
        connect(&cb, &NdaCallback::updateProgress, this,
                [this](int c, int t, const NvDeviceId& id, const QString& what) {
                    add(id, "progress " + what, c, t);
                });
        connect(&cb, &NdaCallback::progressCompleted, this,
                [this](const NvDeviceId& id, const QString& what, int r) {
                    add(id, "completed " + what, r);
                });
        connect(&cb, &NdaCallback::flushingProgress, this,
                [this](int c, int t, const NvDeviceId& id, const QString& what) {
                    add(id, "flushing " + what, c, t);
                });
        connect(&cb, &NdaCallback::flushingCompleted, this,
                [this](const NvDeviceId& id, const QString& what, int r) {
                    add(id, "flushed " + what, r);
                });
        connect(&cb, &NdaCallback::restoreCommunicationResult, this,
                [this](const QString& port, NvResultValue r) {
                    add(NvDeviceId(), "restore " + port, int(r));
                });
    }

    QStringList lines;
    int offGuiThread = 0;
    int withId = 0;

private:
    void add(const NvDeviceId& id, const QString& what, int a = -1, int b = -1)
    {
        if (QThread::currentThread() != QCoreApplication::instance()->thread())
            ++offGuiThread;
        if (!id.isEmpty())
            ++withId;
        QString line = what;
        if (a != -1)
            line += QStringLiteral(" %1").arg(a);
        if (b != -1)
            line += QStringLiteral(" %1").arg(b);
        lines << line;
    }
};

NvDataPacket packetWithCounter(uint16_t counter)
{
    NvDataPacketBuilder builder;
    builder.setPacketCounter(counter);
    return builder.toPacket();
}

} // namespace

class TestNdaCallback : public QObject
{
    Q_OBJECT

private slots:
    void eventTypesAreRegisteredInOrder();
    void callbacksFromAnotherThreadArriveInOrderOnTheGuiThread();
    void destroyedCallbacksRunOnTheLibraryThreadUntilUnregistered();
    void liveDeviceDeliversPacketsAndStatesInOrder();
};

void TestNdaCallback::eventTypesAreRegisteredInOrder()
{
    const int types[] = {
        NVEVENTTYPE,           NVPROCESSEVENTTYPE,  NVUPDATEPROGRESSEVENTTYPE,
        NVCLIENTINFOEVENTTYPE, NVFREESLOTSEVENTYPE, LOADFILEEVENTTYPE,
        CLOSEFILEEVENTTYPE,    SAVEFILEEVENTTYPE,   RECORDINGSTATECHANGEDEVENTTYPE};
    const int step = types[1] - types[0];
    QVERIFY(step == 1 || step == -1);
    for (size_t i = 0; i < std::size(types); ++i) {
        QVERIFY(types[i] >= QEvent::User && types[i] <= QEvent::MaxUser);
        if (i > 0)
            QCOMPARE(types[i] - types[i - 1], step);
    }
}

void TestNdaCallback::callbacksFromAnotherThreadArriveInOrderOnTheGuiThread()
{
    Bridge bridge;
    SignalLog log(bridge);
    QSignalSpy states(&bridge, &NdaCallback::deviceStateChange);
    QSignalSpy packets(&bridge, &NdaCallback::postProcessed);
    auto destroyed = QSharedPointer<DestroyedRecorder>::create();
    bridge.registerDeviceDestroyedCallback(destroyed);

    const NvString firmware = "Firmware";
    const NvString flushing = "Flushing";
    const NvString port = "/dev/ttyKV0";
    const NvMessage received(0xFF, 0x3F), sent(0xFF, 0x30), nonData(0xFF, 0x42, {4});
    const NvByteArray raw{'$', 'G', 'P'};

    std::thread library([&] {
        NvCallback& cb = bridge;
        cb.onError(nullptr, NRV_TIMEOUT);
        cb.onMissedPackets(nullptr, 3, 10, 12);
        cb.onMessageReceivedFromDevice(nullptr, &received);
        cb.onDeviceStateChanged(nullptr, NDS_CONFIGURATION, NDS_INITIAL);
        cb.onDeviceStateChanged(nullptr, NDS_MEASUREMENT, NDS_CONFIGURATION);
        cb.onDeviceStateChanged(nullptr, NDS_MEASUREMENT, NDS_MEASUREMENT); // no change
        cb.onProgressUpdated(nullptr, 1, 4, &firmware);
        cb.onConnectivityChanged(nullptr, NCS_FILE); // not tracker news
        cb.onInfoResponse(nullptr, NIR_SIGNAL_STRENGTH);
        cb.onProgressUpdated(nullptr, 1, 2, &flushing);
        cb.onProgressUpdated(nullptr, 2, 2, &flushing);
        cb.onConnectivityChanged(nullptr, NCS_DISCONNECTED);
        cb.onConnectivityChanged(nullptr, NCS_REJECTED);
        cb.onConnectivityChanged(nullptr, NCS_PLUGGED_IN);
        cb.onConnectivityChanged(nullptr, NCS_WIRELESS);
        cb.onInfoResponse(nullptr, NIR_BATTERY_LEVEL);
        const NvDataPacket first = packetWithCounter(7);
        cb.onLiveDataAvailable(nullptr, &first);
        bridge.processPackets = false;
        const NvDataPacket dropped = packetWithCounter(8);
        cb.onLiveDataAvailable(nullptr, &dropped);
        bridge.processPackets = true;
        cb.onProgressUpdated(nullptr, 4, 4, &firmware);
        cb.onDeviceStateChanged(nullptr, NDS_DESTRUCTING, NDS_MEASUREMENT);
        cb.onDeviceStateChanged(nullptr, NDS_CONFIGURATION, NDS_DESTRUCTING); // after the end
        cb.onWakeupReceived(nullptr);
        cb.onDataUnavailable(nullptr, 1234);
        cb.onNonDataMessage(nullptr, &nonData);
        cb.onMessageDetected(nullptr, NPT_NMEA, &raw);
        cb.onMessageSentToDevice(nullptr, &sent);
        cb.onRestoreCommunication(&port, NRV_OK);
        cb.onError(nullptr, NRV_INVALID_MESSAGE);
    });
    library.join();
    // Nothing is emitted from the library thread itself.
    QVERIFY(log.lines.isEmpty());

    const QStringList expected = {
        "error 257",
        "missed 3",
        "received 63",
        "state 2 1",
        "state 3 2",
        "progress Firmware 1 4",
        "flushing Flushing 1 2",
        "flushing Flushing 2 2",
        "flushed Flushing 0",
        "disconnected",
        "rejected",
        "connected",
        "connected",
        "battery",
        "packet 7",
        "progress Firmware 4 4",
        "completed Firmware 0",
        "wakeup",
        "unavailable 1234",
        "nondata 66",
        "detected 1 3",
        "sent 48",
        "restore /dev/ttyKV0 0",
        "error 4",
    };
    QTRY_COMPARE(log.lines.size(), expected.size());
    QCOMPARE(log.lines, expected);
    QCOMPARE(log.offGuiThread, 0);
    QCOMPARE(log.withId, 0);

    QCOMPARE(states.size(), 2);
    QCOMPARE(states.at(0).at(0).value<NvDeviceId>(), NvDeviceId());
    QCOMPARE(states.at(1).at(2).value<NdaDeviceState::Type>(), NdaDeviceState::ConfigMode);
    QCOMPARE(packets.size(), 1);

    // The wrapper's state follows every real change, Destroyed included.
    using S = NdaDeviceState::Type;
    const std::vector<std::pair<S, S>> stored = {
        {NdaDeviceState::ConfigMode, NdaDeviceState::Initializing},
        {NdaDeviceState::Measuring, NdaDeviceState::ConfigMode},
        {NdaDeviceState::Destroyed, NdaDeviceState::Measuring}};
    QVERIFY(bridge.stored == stored);

    const QStringList slotCalls = {"progress 1/4 Firmware", "flushing 1/2",
                                   "flushing 2/2",          "flushed 0",
                                   "progress 4/4 Firmware", "completed Firmware 0"};
    QCOMPARE(bridge.slotCalls, slotCalls);

    QCOMPARE(destroyed->devices.size(), size_t(1));
    QVERIFY(destroyed->devices[0] == nullptr);
}

void TestNdaCallback::destroyedCallbacksRunOnTheLibraryThreadUntilUnregistered()
{
    Bridge bridge;
    QSignalSpy states(&bridge, &NdaCallback::deviceStateChange);
    auto first = QSharedPointer<DestroyedRecorder>::create();
    auto second = QSharedPointer<DestroyedRecorder>::create();
    bridge.registerDeviceDestroyedCallback(first);
    bridge.registerDeviceDestroyedCallback(second);
    bridge.registerDeviceDestroyedCallback(first); // once is enough

    QThread* libraryThread = nullptr;
    auto destruct = [&] {
        std::thread library([&] {
            libraryThread = QThread::currentThread();
            bridge.onDeviceStateChanged(nullptr, NDS_DESTRUCTING, NDS_CONFIGURATION);
        });
        library.join();
    };
    destruct();
    QCOMPARE(first->devices.size(), size_t(1));
    QCOMPARE(second->devices.size(), size_t(1));
    QCOMPARE(first->threads[0], libraryThread);
    QVERIFY(first->threads[0] != QCoreApplication::instance()->thread());

    bridge.unRegisterDeviceDestroyedCallback(first);
    destruct();
    QCOMPARE(first->devices.size(), size_t(1));
    QCOMPARE(second->devices.size(), size_t(2));

    QCoreApplication::processEvents();
    QCOMPARE(states.size(), 0);
}

void TestNdaCallback::liveDeviceDeliversPacketsAndStatesInOrder()
{
    kvtest::KvsimProcess sim({"--device", "ahrs", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);

    NdaCallback bridge;
    SignalLog log(bridge);
    QSignalSpy states(&bridge, &NdaCallback::deviceStateChange);
    std::vector<uint16_t> counters;
    connect(&bridge, &NdaCallback::postProcessed, &bridge,
            [&](const NvDataPacket& packet) { counters.push_back(packet.packetCounter()); });
    auto destroyed = QSharedPointer<DestroyedRecorder>::create();
    bridge.registerDeviceDestroyedCallback(destroyed);

    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000); // loaded machines
    NvControl_addCallbackHandler(control, bridge.plainC(), 1);
    const NvString name = sim.ports()[0].path;
    bool measured = false;
    if (NvControl_openPort(control, &name, NBR_115200, 0)) {
        NvDevice* dev = NvControl_device(control, &id);
        measured = dev && NvDevice_gotoMeasurement(dev);
        // No QTRY here: a failure must still close the control below.
        if (measured)
            measured = QTest::qWaitFor([&] { return counters.size() >= 100; }, 30000);
    }
    const QString failure = QString::fromUtf8(NvControl_lastResultText(control));
    // Before the emulator goes (its hang-up would close the device) and before the bridge.
    NvControl_close(control);
    NvControl_removeCallbackHandler(control, bridge.plainC());
    NvControl_destruct(control);
    QCoreApplication::processEvents();
    QVERIFY2(measured, qPrintable(failure));

    QCOMPARE(log.offGuiThread, 0);
    for (size_t i = 1; i < counters.size(); ++i) {
        const uint16_t step = uint16_t(counters[i] - counters[i - 1]);
        QVERIFY2(step >= 1 && step < 1000,
                 qPrintable(QStringLiteral("%1 after %2").arg(counters[i]).arg(counters[i - 1])));
    }

    // Configuration to measurement, from this device; closing destroys it without a
    // state change of its own.
    bool sawMeasuring = false;
    for (const QList<QVariant>& change : states) {
        QCOMPARE(change.at(0).value<NvDeviceId>(), id);
        QVERIFY(change.at(1).value<NdaDeviceState::Type>() != NdaDeviceState::Destroyed);
        if (change.at(1).value<NdaDeviceState::Type>() == NdaDeviceState::Measuring &&
            change.at(2).value<NdaDeviceState::Type>() == NdaDeviceState::ConfigMode)
            sawMeasuring = true;
    }
    QVERIFY(sawMeasuring);
    QCOMPARE(destroyed->devices.size(), size_t(1));
    QVERIFY(destroyed->devices[0] != nullptr);
}

QTEST_GUILESS_MAIN(TestNdaCallback)
#include "tst_ndacallback.moc"
