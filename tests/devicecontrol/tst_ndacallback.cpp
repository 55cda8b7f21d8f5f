// The bridge from library threads to the GUI thread: order, thread and filtering of the
// re-emitted signals, first with callbacks called by hand, then from a real control; live
// packets in batches against kvsim devices.
#include "kvsimharness.h"
#include "ndacallback.h"
#include "ndacontrol.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QPointer>
#include <QSignalSpy>
#include <QStringList>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
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

// What the library reports of each device, in its order and worded as the bridge's
// signals: the packets' counters, and every other report with the number of packets
// delivered before it.
class LibraryLog : public NvCallback
{
public:
    struct Report
    {
        QString line;
        size_t packetsBefore;
    };
    struct Device
    {
        std::vector<uint16_t> packets;
        std::vector<Report> reports;
    };

    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket* packet) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_devices[NdaCallback::deviceIdOf(dev)].packets.push_back(packet->packetCounter());
    }
    void onMissedPackets(NvDevice* dev, int count, int, int) override
    {
        add(dev, QStringLiteral("missed %1").arg(count));
    }
    void onError(NvDevice* dev, NvResultValue error) override
    {
        add(dev, QStringLiteral("error %1").arg(int(error)));
    }
    void onDeviceStateChanged(NvDevice* dev, NvDeviceState n, NvDeviceState o) override
    {
        const auto newState = NdaDeviceState::fromNvDeviceState(n);
        const auto oldState = NdaDeviceState::fromNvDeviceState(o);
        // The bridge turns Destroyed into the wrapper's end, not into a signal.
        if (newState != oldState && newState != NdaDeviceState::Destroyed &&
            oldState != NdaDeviceState::Destroyed)
            add(dev, QStringLiteral("state %1 %2").arg(int(newState)).arg(int(oldState)));
    }
    Device device(const NvDeviceId& id)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_devices[id];
    }
    size_t packets(const NvDeviceId& id)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_devices[id].packets.size();
    }

private:
    void add(NvDevice* dev, const QString& line)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Device& d = m_devices[NdaCallback::deviceIdOf(dev)];
        d.reports.push_back({line, d.packets.size()});
    }
    std::mutex m_mutex;
    std::map<NvDeviceId, Device> m_devices; // guarded by m_mutex
};

// The signals of several bridges that hear the same single device: the packets each
// emitted, and each other signal with the packets every one of them had emitted by then.
class MergedLog : public QObject
{
public:
    struct Report
    {
        size_t bridge;
        QString line;
        std::vector<size_t> packetsSoFar;
    };

    explicit MergedLog(const std::vector<NdaCallback*>& bridges) : packets(bridges.size())
    {
        for (size_t i = 0; i < bridges.size(); ++i) {
            NdaCallback* cb = bridges[i];
            connect(cb, &NdaCallback::postProcessed, this,
                    [this, i](const NvDataPacket& p) { packets[i].push_back(p.packetCounter()); });
            connect(cb, &NdaCallback::samplesMissed, this, [this, i](const NvDeviceId&, int n) {
                add(i, QStringLiteral("missed %1").arg(n));
            });
            connect(cb, &NdaCallback::error, this, [this, i](const NvDeviceId&, NvResultValue r) {
                add(i, QStringLiteral("error %1").arg(int(r)));
            });
            connect(cb, &NdaCallback::deviceStateChange, this,
                    [this, i](const NvDeviceId&, NdaDeviceState::Type n, NdaDeviceState::Type o) {
                        add(i, QStringLiteral("state %1 %2").arg(int(n)).arg(int(o)));
                    });
        }
    }
    std::vector<Report> of(size_t bridge) const
    {
        std::vector<Report> out;
        for (const Report& s : reports)
            if (s.bridge == bridge)
                out.push_back(s);
        return out;
    }

    std::vector<std::vector<uint16_t>> packets;
    std::vector<Report> reports;

private:
    void add(size_t bridge, const QString& line)
    {
        std::vector<size_t> counts;
        for (const auto& p : packets)
            counts.push_back(p.size());
        reports.push_back({bridge, line, counts});
    }
};

// Counts the batches of live packets that reach an object.
class BatchCounter : public QObject
{
public:
    int batches = 0;

protected:
    bool eventFilter(QObject*, QEvent* e) override
    {
        if (e->type() == NVPROCESSEVENTTYPE)
            ++batches;
        return false;
    }
};

} // namespace

class TestNdaCallback : public QObject
{
    Q_OBJECT

private slots:
    void eventTypesAreRegisteredInOrder();
    void callbacksFromAnotherThreadArriveInOrderOnTheGuiThread();
    void destroyedCallbacksRunOnTheLibraryThreadUntilUnregistered();
    void liveDeviceDeliversPacketsAndStatesInOrder();
    void slotWithNestedEventLoopSeesPacketsInOrder();
    void controlAndWrapperKeepTheLibrarysOrderAcrossPacketsAndReports();
    void highRateOfSeveralDevicesArrivesWholeInBatches();
    void singlePacketOfAQuietDeviceArrivesBeforeTheNext();
    void nothingArrivesAfterTheDeviceIsDestroyed_data();
    void nothingArrivesAfterTheDeviceIsDestroyed();
    void warningClassErrorsAndWarningMessagesAreWarnings();
    void masterTellsItsFreeSlotsAsTrackersComeAndGo();
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

void TestNdaCallback::slotWithNestedEventLoopSeesPacketsInOrder()
{
    Bridge bridge;
    SignalLog log(bridge);
    // A slot that spins an event loop in the middle of a batch (a message box, say) while
    // the library goes on must not let newer signals in before the rest of that batch.
    std::atomic<bool> nested{false};
    int linesInNestedLoop = 0;
    connect(&bridge, &NdaCallback::postProcessed, &bridge, [&](const NvDataPacket& p) {
        if (p.packetCounter() != 3 || nested)
            return;
        nested = true;
        const int before = int(log.lines.size());
        const bool ended =
            QTest::qWaitFor([&] { return log.lines.contains(QStringLiteral("error 257")); }, 10000);
        linesInNestedLoop = ended ? int(log.lines.size()) - before : 0;
    });
    std::thread library([&] {
        NvCallback& cb = bridge;
        for (uint16_t i = 1; i <= 10; ++i) {
            const NvDataPacket packet = packetWithCounter(i);
            cb.onLiveDataAvailable(nullptr, &packet);
        }
        cb.onMissedPackets(nullptr, 2, 11, 12);
        for (int i = 0; i < 1000 && !nested; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (uint16_t i = 13; i <= 14; ++i) {
            const NvDataPacket packet = packetWithCounter(i);
            cb.onLiveDataAvailable(nullptr, &packet);
        }
        cb.onError(nullptr, NRV_TIMEOUT);
    });
    QStringList expected;
    for (int i = 1; i <= 10; ++i)
        expected << QStringLiteral("packet %1").arg(i);
    expected << "missed 2"
             << "packet 13"
             << "packet 14"
             << "error 257";
    const bool all = QTest::qWaitFor([&] { return log.lines.size() >= expected.size(); }, 20000);
    library.join();
    QVERIFY(all);
    QCOMPARE(log.lines, expected);
    QVERIFY(nested);
    QVERIFY(linesInNestedLoop > 0); // the newer events did come in the nested loop
}

void TestNdaCallback::controlAndWrapperKeepTheLibrarysOrderAcrossPacketsAndReports()
{
    // Gaps give missed-packet reports between the packets; mode changes give states.
    kvtest::KvsimProcess sim({"--device", "ahrs:rate=2000", "--drop", "0.01", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);
    LibraryLog library;
    NdaControl control;
    NvControl_setReplyTimeout(control.libraryControl(), 5000); // loaded machines
    QVERIFY(control.openPort(sim.ports()[0].path, NBR_115200, 0));
    NdaDevice& wrapper = control.requestDevice(id);
    QVERIFY(wrapper.isValid());
    QCoreApplication::processEvents(); // the news of the opening
    MergedLog log({&control, &wrapper});
    NvControl_addCallbackHandler(control.libraryControl(), library.plainC(), 1);

    for (int round = 0; round < 3; ++round) {
        QVERIFY(control.gotoMeasurement(id));
        QTest::qWait(300);
        QVERIFY(control.gotoConfig(id));
    }
    const LibraryLog::Device reported = library.device(id);
    QVERIFY(reported.packets.size() > 500);
    QVERIFY(reported.reports.size() >= 7); // six states and some gaps
    QTRY_COMPARE(log.reports.size(), 2 * reported.reports.size());
    control.close();
    NvControl_removeCallbackHandler(control.libraryControl(), library.plainC());

    for (size_t bridge = 0; bridge < 2; ++bridge) {
        QVERIFY(log.packets[bridge] == reported.packets);
        const std::vector<MergedLog::Report> emitted = log.of(bridge);
        QCOMPARE(emitted.size(), reported.reports.size());
        for (size_t i = 0; i < emitted.size(); ++i) {
            QCOMPARE(emitted[i].line, reported.reports[i].line);
            // Both have emitted exactly the packets that came before the report.
            for (size_t seen : emitted[i].packetsSoFar)
                QCOMPARE(seen, reported.reports[i].packetsBefore);
        }
    }
}

void TestNdaCallback::highRateOfSeveralDevicesArrivesWholeInBatches()
{
    const int count = 4;
    std::vector<std::string> args{"--quiet"};
    for (int i = 0; i < count; ++i)
        args.insert(args.end(), {"--device", "ahrs:rate=2000,index=" + std::to_string(i)});
    kvtest::KvsimProcess sim(args);
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    LibraryLog library;
    NdaControl control;
    NvControl_setReplyTimeout(control.libraryControl(), 5000);
    NvControl_addCallbackHandler(control.libraryControl(), library.plainC(), 1);
    size_t controlPackets = 0;
    connect(&control, &NdaCallback::postProcessed, this,
            [&](const NvDataPacket&) { ++controlPackets; });
    std::vector<NvDeviceId> ids;
    std::vector<std::vector<uint16_t>> received(count);
    BatchCounter batches;
    for (int i = 0; i < count; ++i) {
        ids.push_back(NvDeviceId::fromString(sim.ports()[size_t(i)].id));
        QVERIFY(control.openPort(sim.ports()[size_t(i)].path, NBR_115200, 0));
        NdaDevice& wrapper = control.requestDevice(ids.back());
        wrapper.installEventFilter(&batches);
        connect(&wrapper, &NdaCallback::postProcessed, this, [&, i](const NvDataPacket& p) {
            received[size_t(i)].push_back(p.packetCounter());
        });
    }
    for (const NvDeviceId& id : ids)
        QVERIFY(control.gotoMeasurement(id));
    QTest::qWait(1500);
    for (const NvDeviceId& id : ids)
        QVERIFY(control.gotoConfig(id));

    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        const std::vector<uint16_t> sent = library.device(ids[size_t(i)]).packets;
        QVERIFY(sent.size() > 1000);
        QTRY_COMPARE(received[size_t(i)].size(), sent.size());
        QVERIFY(received[size_t(i)] == sent);
        total += sent.size();
    }
    QCOMPARE(controlPackets, total);
    // Far fewer events than packets for the GUI thread to wake up for.
    QVERIFY2(
        size_t(batches.batches) * 2 <= total,
        qPrintable(QStringLiteral("%1 batches for %2 packets").arg(batches.batches).arg(total)));
    control.close();
    NvControl_removeCallbackHandler(control.libraryControl(), library.plainC());
}

void TestNdaCallback::singlePacketOfAQuietDeviceArrivesBeforeTheNext()
{
    // One packet a second: nothing comes after a packet to send its batch on.
    kvtest::KvsimProcess sim({"--device", "ahrs:rate=1", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);
    LibraryLog library;
    NdaControl control;
    NvControl_setReplyTimeout(control.libraryControl(), 5000);
    NvControl_addCallbackHandler(control.libraryControl(), library.plainC(), 1);
    QVERIFY(control.openPort(sim.ports()[0].path, NBR_115200, 0));
    NdaDevice& wrapper = control.requestDevice(id);
    size_t controlPackets = 0, wrapperPackets = 0;
    connect(&control, &NdaCallback::postProcessed, this,
            [&](const NvDataPacket&) { ++controlPackets; });
    connect(&wrapper, &NdaCallback::postProcessed, this,
            [&](const NvDataPacket&) { ++wrapperPackets; });
    QVERIFY(control.gotoMeasurement(id));

    for (size_t n = 1; n <= 3; ++n) {
        QVERIFY(QTest::qWaitFor([&] { return library.packets(id) >= n; }, 10000));
        QCOMPARE(library.packets(id), n);
        QVERIFY(
            QTest::qWaitFor([&] { return wrapperPackets == n || library.packets(id) > n; }, 10000));
        QCOMPARE(wrapperPackets, n);
        QCOMPARE(controlPackets, n);
        QCOMPARE(library.packets(id), n); // before the next packet came
    }
    control.close();
    NvControl_removeCallbackHandler(control.libraryControl(), library.plainC());
}

void TestNdaCallback::nothingArrivesAfterTheDeviceIsDestroyed_data()
{
    QTest::addColumn<bool>("unplugged");
    QTest::newRow("closed while streaming") << false;
    QTest::newRow("unplugged while streaming") << true; // an error comes first
}

void TestNdaCallback::nothingArrivesAfterTheDeviceIsDestroyed()
{
    QFETCH(bool, unplugged);
    std::vector<std::string> args{"--device", "ahrs:rate=2000", "--quiet"};
    if (unplugged)
        args.insert(args.end(), {"--disconnect-after", "2"});
    kvtest::KvsimProcess sim(args);
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);
    LibraryLog library;
    NdaControl control;
    NvControl_setReplyTimeout(control.libraryControl(), 5000);
    NvControl_addCallbackHandler(control.libraryControl(), library.plainC(), 1);
    QVERIFY(control.openPort(sim.ports()[0].path, NBR_115200, 0));
    QPointer<NdaDevice> wrapper = &control.requestDevice(id);
    size_t controlPackets = 0, wrapperPackets = 0, afterDestroyed = 0;
    bool destroyed = false;
    connect(&control, &NdaCallback::postProcessed, this, [&](const NvDataPacket&) {
        ++controlPackets;
        afterDestroyed += destroyed;
    });
    connect(wrapper, &NdaCallback::postProcessed, this, [&](const NvDataPacket&) {
        ++wrapperPackets;
        afterDestroyed += destroyed;
    });
    size_t packetsAtDestroyed = 0;
    bool wrapperGone = false;
    connect(&control, &NdaControl::deviceDestroyedByNda, this, [&](const NvDeviceId& gone) {
        if (gone != id)
            return;
        destroyed = true;
        packetsAtDestroyed = controlPackets;
        wrapperGone = wrapper.isNull();
    });
    QVERIFY(control.gotoMeasurement(id));
    if (!unplugged) {
        QVERIFY(QTest::qWaitFor([&] { return library.packets(id) > 200; }, 20000));
        QVERIFY(control.closePort(id));
    }

    QTRY_VERIFY_WITH_TIMEOUT(destroyed, 20000);
    QTest::qWait(100); // anything still on its way
    const LibraryLog::Device reported = library.device(id);
    QVERIFY(reported.packets.size() > 100);
    if (unplugged)
        QCOMPARE(reported.reports.back().line,
                 QStringLiteral("error %1").arg(int(NRV_UNEXPECTED_DISCONNECT)));
    // All of it before the news of the end, and nothing after.
    QCOMPARE(packetsAtDestroyed, reported.packets.size());
    QCOMPARE(wrapperPackets, reported.packets.size());
    QCOMPARE(afterDestroyed, size_t(0));
    QVERIFY(wrapperGone);
    control.close();
    NvControl_removeCallbackHandler(control.libraryControl(), library.plainC());
}

void TestNdaCallback::warningClassErrorsAndWarningMessagesAreWarnings()
{
    NdaCallback bridge;
    SignalLog log(bridge);
    const NvMessage warning(0xFF, NvMid::Warning, {0, 0, 0, 7, 'h', 'o', 't'});
    const NvMessage other(0xFF, 0x42, {4});
    std::thread library([&] {
        NvCallback& cb = bridge;
        cb.onError(nullptr, NRV_WARNING);
        cb.onError(nullptr, NRV_DATA_OVERFLOW); // the main window's own warning text
        cb.onNonDataMessage(nullptr, &warning);
        cb.onNonDataMessage(nullptr, &other);
        cb.onError(nullptr, NRV_TIMEOUT);
    });
    library.join();
    const QStringList expected = {"warning 50", "error 41",   "nondata 67",
                                  "warning 50", "nondata 66", "error 257"};
    QTRY_COMPARE(log.lines, expected);
    QCOMPARE(log.offGuiThread, 0);
}

void TestNdaCallback::masterTellsItsFreeSlotsAsTrackersComeAndGo()
{
    // At 100 Hz the radio carries ten trackers; none is in the dock.
    kvtest::KvsimProcess sim({"--device", "master:2", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);

    NdaCallback bridge;
    SignalLog log(bridge);
    QSignalSpy freeSlots(&bridge, &NdaCallback::freeSlotsInd);
    QSignalSpy connected(&bridge, &NdaCallback::kvwConnected);
    QSignalSpy disconnected(&bridge, &NdaCallback::kvwDisconnected);
    connect(&bridge, &NdaCallback::freeSlotsInd, &log, [&log](unsigned char count) {
        log.lines << QStringLiteral("free %1").arg(int(count));
    });
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000); // loaded machines
    NvControl_addCallbackHandler(control, bridge.plainC(), 1);
    const NvString name = sim.ports()[0].path;
    bool cameAndWent = false;
    if (NvControl_openPort(control, &name, NBR_115200, 0)) {
        NvDevice* master = NvControl_device(control, &id);
        // No QTRY here: a failure must still close the control below.
        cameAndWent = master && NvDevice_enableRadio(master, 11) &&
                      QTest::qWaitFor(
                          [&] { return connected.size() == 2 && freeSlots.size() == 2; }, 15000) &&
                      NvDevice_disableRadio(master) &&
                      QTest::qWaitFor(
                          [&] { return disconnected.size() == 2 && freeSlots.size() == 4; }, 15000);
    }
    const QString failure = QString::fromUtf8(NvControl_lastResultText(control));
    NvControl_close(control);
    NvControl_removeCallbackHandler(control, bridge.plainC());
    NvControl_destruct(control);
    QCoreApplication::processEvents();
    QVERIFY2(cameAndWent, qPrintable(failure + QLatin1Char('\n') + log.lines.join(", ")));

    // Each count follows the news of the tracker that changed it.
    QStringList trackerNews;
    for (const QString& line : log.lines)
        if (line.startsWith(QLatin1String("free")) || line.endsWith(QLatin1String("connected")))
            trackerNews << line;
    const QStringList expected = {"connected",    "free 9", "connected",    "free 8",
                                  "disconnected", "free 9", "disconnected", "free 10"};
    QCOMPARE(trackerNews, expected);
    QCOMPARE(log.offGuiThread, 0);
}

QTEST_GUILESS_MAIN(TestNdaCallback)
#include "tst_ndacallback.moc"
