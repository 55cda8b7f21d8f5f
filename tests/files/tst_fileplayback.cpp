// Opening, loading and playing back recordings: real kvb files recorded from kvsim devices,
// files made from them (exact frame counts, a cut, a large one), nm and bin captures, and
// files that are none; frames arrive at the devices' wrappers as the views get them.

#include "fileloadingwidget.h"
#include "fileplaybackmanager.h"
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"
#include "nivradeviceapi.h"
#include "packetviewer.h"
#include "viewmanager.h"

#include <QFile>
#include <QMdiArea>
#include <QProgressBar>
#include <QPushButton>
#include <QRandomGenerator>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <chrono>
#include <memory>
#include <thread>

using kvtest::idOfKind;

namespace {

using namespace std::chrono_literals;

template <typename Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds timeout)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

QByteArray readAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeAll(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// One Nbus frame of a file, as the file holds it.
struct Frame
{
    int offset = 0;
    int size = 0;
    quint8 bus = 0;
    quint8 mid = 0;
    int dataOffset = 0; // within the frame
};

// Splits a file made of whole frames (a kvb as written: no garbage).
QList<Frame> framesOf(const QByteArray& bytes)
{
    QList<Frame> frames;
    const auto* b = reinterpret_cast<const quint8*>(bytes.constData());
    int i = 0;
    while (i + 5 <= bytes.size() && b[i] == 0xFA) {
        Frame f;
        f.offset = i;
        f.bus = b[i + 1];
        f.mid = b[i + 2];
        int length = b[i + 3];
        f.dataOffset = 4;
        if (length == 0xFF) {
            length = (b[i + 4] << 8) | b[i + 5];
            f.dataOffset = 6;
        }
        f.size = f.dataOffset + length + 1;
        if (i + f.size > bytes.size())
            break; // cut inside this frame
        frames.append(f);
        i += f.size;
    }
    return frames;
}

int dataFrameCount(const QByteArray& bytes, int bus)
{
    int n = 0;
    for (const Frame& f : framesOf(bytes))
        if (f.mid == 0x36 && (bus < 0 || f.bus == bus))
            ++n;
    return n;
}

void fixChecksum(QByteArray& frame)
{
    quint8 sum = 0;
    for (int i = 1; i < frame.size() - 1; ++i)
        sum = quint8(sum + quint8(frame[i]));
    frame[frame.size() - 1] = char(quint8(-sum));
}

// A recording of exactly `count` frames: the description of `recorded` and copies of its
// first data frame with running packet counters and sample times (100 Hz).
QByteArray synthesize(const QByteArray& recorded, int count)
{
    const QList<Frame> frames = framesOf(recorded);
    int first = 0;
    while (first < frames.size() && frames[first].mid != 0x36)
        ++first;
    if (first == frames.size())
        return {};
    const Frame& f = frames[first];
    QByteArray out = recorded.left(f.offset);
    QByteArray frame = recorded.mid(f.offset, f.size);
    int counterAt = -1, timeAt = -1;
    for (int i = f.dataOffset; i + 3 <= f.size - 1;) {
        const int id = (quint8(frame[i]) << 8) | quint8(frame[i + 1]);
        const int size = quint8(frame[i + 2]);
        if ((id & 0xFFF0) == NDI_PACKET_COUNTER)
            counterAt = i + 3;
        if ((id & 0xFFF0) == NDI_SAMPLE_TIME_FINE)
            timeAt = i + 3;
        i += 3 + size;
    }
    if (counterAt < 0 || timeAt < 0)
        return {};
    out.reserve(out.size() + qsizetype(count) * frame.size());
    for (int n = 0; n < count; ++n) {
        frame[counterAt] = char((n >> 8) & 0xFF);
        frame[counterAt + 1] = char(n & 0xFF);
        const quint32 time = 100000u + quint32(n) * 100u;
        for (int k = 0; k < 4; ++k)
            frame[timeAt + k] = char((time >> (24 - 8 * k)) & 0xFF);
        fixChecksum(frame);
        out.append(frame);
    }
    return out;
}

QByteArray nmeaSentence(const QByteArray& body)
{
    quint8 x = 0;
    for (char c : body)
        x ^= quint8(c);
    return "$" + body + "*" + QByteArray::number(x, 16).toUpper().rightJustified(2, '0') + "\r\n";
}

// What the manager says, in order, as text.
class Log : public QObject
{
public:
    explicit Log(FilePlaybackManager& m)
    {
        auto add = [this](const QString& s) { events.append(s); };
        connect(&m, &FilePlaybackManager::fileLoadingInitiated, this,
                [add](const QString&) { add("initiated"); });
        connect(&m, &FilePlaybackManager::fileOpened, this, [add](NdaDevice&) { add("opened"); });
        connect(&m, &FilePlaybackManager::fileLoadingStarted, this,
                [add](NdaDevice&) { add("loadingStarted"); });
        connect(&m, &FilePlaybackManager::fileLoadingProgressChanged, this,
                [this](NdaDevice&, int current, int total) {
                    progress.append(qMakePair(current, total));
                });
        connect(&m, &FilePlaybackManager::fileLoadingCompleted, this,
                [add](NdaDevice&) { add("completed"); });
        connect(&m, &FilePlaybackManager::fileLoadingFinalized, this,
                [add](const QString&) { add("finalized"); });
        connect(&m, &FilePlaybackManager::fileLoadingCancelled, this,
                [add](const QString&) { add("cancelled"); });
        connect(&m, &FilePlaybackManager::fileLoadingStopped, this,
                [add](NdaDevice&) { add("stopped"); });
        connect(&m, &FilePlaybackManager::fileLoadingError, this,
                [this, add](const QString& path, int type, const QString& text) {
                    add("error");
                    errorPath = path;
                    errorType = type;
                    errorText = text;
                });
        connect(&m, &FilePlaybackManager::fileLoadingStateChanged, this,
                [add](bool on) { add(on ? "loading" : "notLoading"); });
        connect(&m, &FilePlaybackManager::fileClosed, this,
                [add](const NvDeviceId&) { add("closed"); });
        connect(&m, &FilePlaybackManager::filePlaybackStarted, this,
                [this, add](NdaDevice&, int frames) {
                    add("playStarted");
                    startedFrames = frames;
                });
        connect(&m, &FilePlaybackManager::filePlaybackPaused, this,
                [add](NdaDevice&) { add("paused"); });
        connect(&m, &FilePlaybackManager::filePlaybackResumed, this,
                [add](NdaDevice&) { add("resumed"); });
        connect(&m, &FilePlaybackManager::filePlaybackCompleted, this,
                [add](NdaDevice&) { add("playCompleted"); });
        connect(&m, &FilePlaybackManager::filePlaybackStateChanged, this,
                [add](bool on) { add(on ? "playing" : "notPlaying"); });
        connect(&m, &FilePlaybackManager::filePlaybackProgressChanged, this,
                [this](NdaDevice&, int percent, int) { percents.append(percent); });
        connect(&m, &FilePlaybackManager::filePlaybackFrameIndexChanged, this,
                [this](NdaDevice&, quint64 index) { indexes.append(index); });
    }
    QStringList events;
    QList<QPair<int, int>> progress;
    QList<int> percents;
    QList<quint64> indexes;
    QString errorPath, errorText;
    int errorType = -1;
    int startedFrames = -1;
};

// Packets a device's wrapper hands to the views.
class Packets : public QObject
{
public:
    explicit Packets(NdaDevice& device) : m_device(&device)
    {
        connect(&device, &NdaCallback::postProcessed, this, [this](const NvDataPacket& p) {
            counters.append(p.packetCounter());
            if (m_device->currentPacketArrival() != 0)
                ++live;
        });
    }
    QList<quint16> counters;
    int live = 0;

    // Each counter one more than the one before it.
    bool consecutive() const
    {
        for (int i = 1; i < counters.size(); ++i)
            if (counters[i] != quint16(counters[i - 1] + 1))
                return false;
        return true;
    }

private:
    NdaDevice* m_device;
};

} // namespace

class TestFilePlayback : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void loadingShowsProgressAndEndsReady();
    void aRecordingOfSeveralDevicesPlaysEachToItsOwnWrapper();
    void oneFrameCompletesOnTheFirstTick();
    void steppedModeMovesAThousandFramesATick();
    void allDataFastJumpsToTheEndWithABoundedDelivery();
    void realTimeDeliversEveryFrameInOrder();
    void pauseResumeStopAndBackToStart();
    void seekDeliversTheFramesUpToTheNewPosition();
    void aCutFileLoadsWhatIsWhole();
    void filesThatAreNoRecordingsGiveAnErrorAndLeaveNothingOpen();
    void aFileThatCannotBeReadWhenLoadingFailsToLoad();
    void abortingALargeFileCancelsItAndItLoadsAgain();
    void stopKeepsTheFileOpenUnloadedAndReloadLoadsIt();
    void nmAndBinCapturesOpenToo();
    void closingFromElsewhereDropsTheFile();
    void listenersMayCloseTheFileWhileItLoads();
    void viewsShowThePlayedFramesAsRecorded();
    void theLoadingWidgetTellsTimeAndForwardsItsButtons();

private:
    // Loads `path` and waits for the end of it.
    bool loadAndWait(const QString& path);
    void setMode(int mode);

    QTemporaryDir m_dir;
    QTemporaryDir m_settings;
    QString m_single; // one AHRS, about 1.5 s at 100 Hz
    QString m_multi;  // a master and its two trackers
    NvDeviceId m_ahrs, m_master, m_tracker1, m_tracker2;
    QByteArray m_singleBytes;
    std::unique_ptr<NdaControl> m_control;
    std::unique_ptr<FilePlaybackManager> m_manager;
    std::unique_ptr<Log> m_log;
};

void TestFilePlayback::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvFilesTest"));
    QVERIFY(m_dir.isValid());

    kvtest::KvsimProcess sim({"--device", "ahrs", "--device", "master:2", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    m_ahrs = idOfKind(sim, "ahrs");
    m_master = idOfKind(sim, "master");
    m_tracker1 = nvEmulatedTrackerId(0, 0);
    m_tracker2 = nvEmulatedTrackerId(0, 1);

    // Recorded with the library itself: what the application reads back is its own.
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000);
    for (const auto& port : sim.ports()) {
        const NvString name = port.path;
        QVERIFY2(NvControl_openPort(control, &name, NBR_115200, 0),
                 NvControl_lastResultText(control));
    }
    NvDevice* ahrs = NvControl_device(control, &m_ahrs);
    NvDevice* master = NvControl_device(control, &m_master);
    QVERIFY(ahrs && master);
    QVERIFY(NvDevice_enableRadio(master, 12));
    QVERIFY(waitUntil(
        [&] {
            return NvControl_device(control, &m_tracker1) && NvControl_device(control, &m_tracker2);
        },
        15s));
    m_single = m_dir.filePath(QStringLiteral("single.kvb"));
    m_multi = m_dir.filePath(QStringLiteral("multi.kvb"));
    const NvString single = m_single.toStdString(), multi = m_multi.toStdString();
    QVERIFY(NvDevice_gotoMeasurement(ahrs));
    QVERIFY(NvDevice_createLogFile(ahrs, &single));
    QVERIFY(NvDevice_createLogFile(master, &multi));
    QVERIFY(NvDevice_startRecording(ahrs));
    QVERIFY(NvDevice_startRecording(master));
    std::this_thread::sleep_for(1500ms);
    QVERIFY(NvDevice_stopRecording(ahrs));
    QVERIFY(NvDevice_stopRecording(master));
    QVERIFY(waitUntil([&] { return NvDevice_isMeasuring(master) != 0; }, 20s));
    NvDevice_gotoConfig(ahrs);
    NvDevice_gotoConfig(master);
    NvControl_close(control);
    NvControl_destruct(control);

    m_singleBytes = readAll(m_single);
    QVERIFY(dataFrameCount(m_singleBytes, 1) > 50);
    QVERIFY(dataFrameCount(readAll(m_multi), -1) > 100);
}

void TestFilePlayback::init()
{
    QSettings().clear();
    m_control = std::make_unique<NdaControl>();
    m_manager = std::make_unique<FilePlaybackManager>(*m_control);
    m_log = std::make_unique<Log>(*m_manager);
}

void TestFilePlayback::cleanup()
{
    m_log.reset();
    m_manager.reset();
    m_control.reset();
}

bool TestFilePlayback::loadAndWait(const QString& path)
{
    m_log->events.clear();
    m_manager->loadFile(path);
    const auto ended = [this] {
        return m_log->events.contains("finalized") || m_log->events.contains("error") ||
               m_log->events.contains("cancelled");
    };
    QElapsedTimer t;
    t.start();
    while (!ended() && t.elapsed() < 30000)
        QTest::qWait(10);
    return m_log->events.contains("finalized");
}

void TestFilePlayback::setMode(int mode)
{
    QSettings s;
    s.setValue(QStringLiteral("filePlayRealtime"), mode == FilePlaybackManager::RealTime);
    s.setValue(QStringLiteral("filePlayAllDataFast"), mode == FilePlaybackManager::AllDataFast);
}

void TestFilePlayback::loadingShowsProgressAndEndsReady()
{
    QSignalSpy states(m_manager.get(), &FilePlaybackManager::fileLoadingStateChanged);
    m_manager->loadFile(m_single);
    // The dialog is up while the library loads on its own thread.
    QVERIFY(m_manager->isLoading());
    QVERIFY(m_manager->loadingDialog() && m_manager->loadingDialog()->isVisible());
    QCOMPARE(m_manager->currentDevice()->ndaDeviceState(), NdaDeviceState::FileModeLoading);
    QTRY_VERIFY_WITH_TIMEOUT(m_log->events.contains("finalized"), 30000);

    QCOMPARE(m_log->events, (QStringList{"initiated", "opened", "loading", "loadingStarted",
                                         "completed", "notLoading", "finalized"}));
    QVERIFY(!m_log->progress.isEmpty());
    QCOMPARE(m_log->progress.last(), qMakePair(100, 100));
    for (int i = 1; i < m_log->progress.size(); ++i)
        QVERIFY(m_log->progress[i].first >= m_log->progress[i - 1].first);
    QCOMPARE(states.count(), 2);
    QVERIFY(!m_manager->isLoading());
    QVERIFY(m_manager->isFileLoaded());
    QVERIFY(!m_manager->loadingDialog()->isVisible());
    QCOMPARE(m_manager->loadingDialog()->widget()->percent(), 100);

    NdaDevice* device = m_manager->currentDevice();
    QVERIFY(device);
    QCOMPARE(device->deviceId(), m_ahrs);
    QCOMPARE(device->ndaDeviceState(), NdaDeviceState::FileModeReady);
    QCOMPARE(m_manager->frameCount(), quint64(dataFrameCount(m_singleBytes, 1)));
    QCOMPARE(m_manager->currentFrameIndex(), quint64(0));
    QCOMPARE(m_log->indexes, (QList<quint64>{0}));
    QCOMPARE(m_log->percents, (QList<int>{0}));
    QCOMPARE(m_manager->getPlaybackFrameInterval(), 10.0); // 100 Hz
    QCOMPARE(m_manager->currentFileName(), m_single);

    // Closing lets go of it all; the library can open it again.
    m_manager->closeFile();
    QVERIFY(!m_manager->currentDevice());
    QVERIFY(!m_manager->isFileLoaded());
    QVERIFY(!m_control->isReadingFromFile());
    QCOMPARE(m_log->events.last(), QStringLiteral("closed"));
    QVERIFY(loadAndWait(m_single));
}

void TestFilePlayback::aRecordingOfSeveralDevicesPlaysEachToItsOwnWrapper()
{
    QVERIFY(loadAndWait(m_multi));
    const QList<NvDeviceId> ids = m_manager->fileDeviceIds();
    QCOMPARE(ids.size(), 3);
    QVERIFY(ids.contains(m_master) && ids.contains(m_tracker1) && ids.contains(m_tracker2));
    quint64 largest = 0;
    std::map<NvDeviceId, std::unique_ptr<Packets>> received;
    for (const NvDeviceId& id : ids) {
        NdaDevice* d = m_control->getExistingDevice(id);
        QVERIFY(d);
        QCOMPARE(d->ndaDeviceState(), NdaDeviceState::FileModeReady);
        largest = std::max(largest, quint64(d->packetCount()));
        received[id] = std::make_unique<Packets>(*d);
    }
    QCOMPARE(m_manager->frameCount(), largest);
    QVERIFY(largest > 50);

    setMode(FilePlaybackManager::AllDataFast);
    m_manager->startPlayback();
    QVERIFY(m_log->events.contains("playCompleted"));
    for (const NvDeviceId& id : ids) {
        const qint64 count = m_control->getExistingDevice(id)->packetCount();
        QCOMPARE(received[id]->counters.size(), int(count));
        QVERIFY(received[id]->consecutive());
        QCOMPARE(received[id]->live, 0);
        if (count > 0)
            QCOMPARE(received[id]->counters.first(),
                     m_control->getExistingDevice(id)->dataPacketByIndex(0).packetCounter());
    }
    QVERIFY(received[m_tracker1]->counters.size() > 50);
    QVERIFY(received[m_tracker2]->counters.size() > 50);

    m_manager->closeFile();
    for (const NvDeviceId& id : ids)
        QVERIFY(!m_control->getExistingDevice(id));
}

void TestFilePlayback::oneFrameCompletesOnTheFirstTick()
{
    const QString path = m_dir.filePath(QStringLiteral("one.kvb"));
    QVERIFY(writeAll(path, synthesize(m_singleBytes, 1)));
    QVERIFY(loadAndWait(path));
    QCOMPARE(m_manager->frameCount(), quint64(1));
    Packets packets(*m_manager->currentDevice());
    m_log->percents.clear();
    m_log->indexes.clear();

    m_manager->startPlayback(); // real time: the first tick comes from the timer
    QVERIFY(m_manager->isPlaying());
    QCOMPARE(m_manager->currentDevice()->ndaDeviceState(), NdaDeviceState::FileModePlaying);
    QCOMPARE(m_log->startedFrames, 1);
    QTRY_VERIFY(m_log->events.contains("playCompleted"));
    QCOMPARE(m_log->percents, (QList<int>{0, 100}));
    QCOMPARE(m_log->indexes, (QList<quint64>{0, 0}));
    QCOMPARE(packets.counters, (QList<quint16>{0}));
    QVERIFY(!m_manager->isPlaying());
    QCOMPARE(m_manager->currentDevice()->ndaDeviceState(), NdaDeviceState::FileModeReady);
    QCOMPARE(m_log->events.mid(m_log->events.indexOf("playStarted") - 1),
             (QStringList{"playing", "playStarted", "playCompleted", "notPlaying"}));
}

void TestFilePlayback::steppedModeMovesAThousandFramesATick()
{
    const QString path = m_dir.filePath(QStringLiteral("frames2500.kvb"));
    QVERIFY(writeAll(path, synthesize(m_singleBytes, 2500)));
    QSettings().setValue(QStringLiteral("autoFileTimeAdjust"), true);
    QVERIFY(loadAndWait(path));
    QCOMPARE(m_manager->frameCount(), quint64(2500));
    // Graphs of the file are set to show all of it: 25 s at 100 Hz.
    QCOMPARE(QSettings().value(QStringLiteral("maximumDisplayTimeFile")).toInt(), 25000);
    setMode(FilePlaybackManager::Stepped);
    QCOMPARE(m_manager->filePlaybackMode(), int(FilePlaybackManager::Stepped));
    Packets packets(*m_manager->currentDevice());
    m_log->indexes.clear();
    m_log->percents.clear();

    m_manager->startPlayback(); // the first step at once, the others every 5 s
    QCOMPARE(m_log->indexes, (QList<quint64>{0, 1000}));
    QCOMPARE(m_manager->currentFrameIndex(), quint64(1000));
    QVERIFY(m_manager->isPlaying());
    QTRY_VERIFY_WITH_TIMEOUT(m_log->events.contains("playCompleted"), 20000);
    QCOMPARE(m_log->indexes, (QList<quint64>{0, 1000, 2000, 2499}));
    QCOMPARE(m_log->percents, (QList<int>{0, 40, 80, 100}));
    // Every frame reached the views, in order.
    QCOMPARE(packets.counters.size(), 2500);
    QVERIFY(packets.consecutive());
    QVERIFY(!m_manager->isPlaying());
}

void TestFilePlayback::allDataFastJumpsToTheEndWithABoundedDelivery()
{
    const int frames = 50000;
    const QString path = m_dir.filePath(QStringLiteral("frames50000.kvb"));
    QVERIFY(writeAll(path, synthesize(m_singleBytes, frames)));
    QVERIFY(loadAndWait(path));
    setMode(FilePlaybackManager::AllDataFast);
    Packets packets(*m_manager->currentDevice());
    m_log->indexes.clear();

    m_manager->startPlayback();
    QVERIFY(m_log->events.contains("playCompleted"));
    QCOMPARE(m_log->indexes, (QList<quint64>{0, quint64(frames - 1)}));
    QCOMPARE(m_log->percents.last(), 100);
    // The last frames before the end, not all of them, so the GUI does not stall.
    QCOMPARE(packets.counters.size(), int(FilePlaybackManager::MaxFramesPerDelivery));
    QVERIFY(packets.consecutive());
    QCOMPARE(packets.counters.last(), quint16(frames - 1));
}

void TestFilePlayback::realTimeDeliversEveryFrameInOrder()
{
    QVERIFY(loadAndWait(m_single));
    QCOMPARE(m_manager->filePlaybackMode(), int(FilePlaybackManager::RealTime)); // default
    NdaDevice& device = *m_manager->currentDevice();
    Packets packets(device);
    m_manager->startPlayback();
    QTRY_VERIFY_WITH_TIMEOUT(m_log->events.contains("playCompleted"), 30000);
    QCOMPARE(quint64(packets.counters.size()), m_manager->frameCount());
    QVERIFY(packets.consecutive());
    QCOMPARE(packets.counters.first(), device.dataPacketByIndex(0).packetCounter());
    QCOMPARE(packets.live, 0); // recorded, as the views tell
    // The position moved on in steps, never back, and ended on the last frame.
    for (int i = 1; i < m_log->indexes.size(); ++i)
        QVERIFY(m_log->indexes[i] >= m_log->indexes[i - 1]);
    QCOMPARE(m_log->indexes.last(), m_manager->frameCount() - 1);
    QVERIFY(m_log->indexes.size() > 5);
    QCOMPARE(m_log->percents.last(), 100);
    QCOMPARE(device.ndaDeviceState(), NdaDeviceState::FileModeReady);
}

void TestFilePlayback::pauseResumeStopAndBackToStart()
{
    QVERIFY(loadAndWait(m_single));
    NdaDevice& device = *m_manager->currentDevice();
    Packets packets(device);
    m_manager->startPlayback();
    QTRY_VERIFY(m_manager->currentFrameIndex() >= 10);

    m_manager->pausePlayback();
    QVERIFY(m_manager->isPaused());
    QVERIFY(m_manager->isPlaying());
    QCOMPARE(device.ndaDeviceState(), NdaDeviceState::FileModePaused);
    const quint64 at = m_manager->currentFrameIndex();
    const int delivered = packets.counters.size();
    QTest::qWait(100);
    QCOMPARE(m_manager->currentFrameIndex(), at);
    QCOMPARE(packets.counters.size(), delivered);

    m_manager->resumePlayback();
    QVERIFY(!m_manager->isPaused());
    QCOMPARE(device.ndaDeviceState(), NdaDeviceState::FileModePlaying);
    QTRY_VERIFY(m_manager->currentFrameIndex() > at);
    QVERIFY(packets.consecutive()); // nothing skipped across the pause

    m_manager->stopPlayback();
    QVERIFY(!m_manager->isPlaying());
    QCOMPARE(device.ndaDeviceState(), NdaDeviceState::FileModeReady);
    QCOMPARE(m_log->events.filter("paused").size(), 1);
    QCOMPARE(m_log->events.filter("resumed").size(), 1);
    QCOMPARE(m_log->events.last(), QStringLiteral("notPlaying"));
    QVERIFY(!m_log->events.contains("playCompleted"));

    packets.counters.clear();
    m_manager->setPlayBackToStart();
    QCOMPARE(m_manager->currentFrameIndex(), quint64(0));
    QCOMPARE(m_log->indexes.last(), quint64(0));
    QCOMPARE(packets.counters, (QList<quint16>{device.dataPacketByIndex(0).packetCounter()}));

    // Playing again starts at the beginning and runs to the end.
    packets.counters.clear();
    m_manager->startPlayback();
    QTRY_VERIFY_WITH_TIMEOUT(m_log->events.contains("playCompleted"), 30000);
    QCOMPARE(quint64(packets.counters.size()), m_manager->frameCount());
    QVERIFY(packets.consecutive());
}

void TestFilePlayback::seekDeliversTheFramesUpToTheNewPosition()
{
    QVERIFY(loadAndWait(m_single));
    NdaDevice& device = *m_manager->currentDevice();
    const auto counterAt = [&device](int i) { return device.dataPacketByIndex(i).packetCounter(); };
    Packets packets(device);

    // Before playing, the first attitude of the recording for the 3D view.
    m_manager->loadFirstOriDataFrame();
    QCOMPARE(packets.counters, (QList<quint16>{counterAt(0)}));
    QCOMPARE(m_manager->currentFrameIndex(), quint64(0));
    packets.counters.clear();

    m_manager->seekTo(40);
    QCOMPARE(m_manager->currentFrameIndex(), quint64(40));
    QCOMPARE(m_log->indexes.last(), quint64(40));
    QCOMPARE(packets.counters.size(), 41); // everything up to it, for the graphs
    QCOMPARE(packets.counters.last(), counterAt(40));
    QVERIFY(packets.consecutive());

    packets.counters.clear();
    m_manager->seekTo(10); // back: the views start again from there
    QCOMPARE(packets.counters, (QList<quint16>{counterAt(10)}));
    packets.counters.clear();
    m_manager->seekTo(20);
    QCOMPARE(packets.counters.size(), 10);
    QCOMPARE(packets.counters.first(), counterAt(11));

    packets.counters.clear();
    m_manager->seekTo(1000000); // past the end: the last frame
    QCOMPARE(m_manager->currentFrameIndex(), m_manager->frameCount() - 1);
    QCOMPARE(packets.counters.last(), counterAt(int(m_manager->frameCount() - 1)));

    // While playing, playback goes on from the new position.
    m_manager->startPlayback();
    QTRY_VERIFY(m_manager->currentFrameIndex() >= 2);
    m_manager->seekTo(m_manager->frameCount() - 3);
    QTRY_VERIFY(m_log->events.contains("playCompleted"));
    QCOMPARE(m_log->indexes.last(), m_manager->frameCount() - 1);
}

void TestFilePlayback::aCutFileLoadsWhatIsWhole()
{
    const QList<Frame> frames = framesOf(m_singleBytes);
    int lastData = frames.size() - 1;
    while (frames[lastData].mid != 0x36)
        --lastData;
    const Frame& cutIn = frames[lastData];
    const QString path = m_dir.filePath(QStringLiteral("cut.kvb"));
    QVERIFY(writeAll(path, m_singleBytes.left(cutIn.offset + cutIn.size / 2)));
    QVERIFY(loadAndWait(path));
    QCOMPARE(m_manager->frameCount(), quint64(dataFrameCount(m_singleBytes, 1) - 1));
    QCOMPARE(m_manager->currentDevice()->ndaDeviceState(), NdaDeviceState::FileModeReady);
}

void TestFilePlayback::filesThatAreNoRecordingsGiveAnErrorAndLeaveNothingOpen()
{
    const QString foreign = m_dir.filePath(QStringLiteral("foreign.kvb"));
    QByteArray noise(64 * 1024, 0);
    QRandomGenerator random(7);
    for (char& c : noise)
        c = char(random.bounded(256));
    QVERIFY(writeAll(foreign, noise));
    const QString missing = m_dir.filePath(QStringLiteral("missing.kvb"));

    for (const QString& path : {foreign, missing}) {
        m_log->events.clear();
        QVERIFY(!loadAndWait(path));
        QCOMPARE(m_log->errorPath, path);
        QCOMPARE(m_log->errorText, QStringLiteral("Could not load file"));
        QCOMPARE(m_log->errorType,
                 int(path == missing ? FileError::FileNotFound : FileError::CouldNotOpen));
        QVERIFY(!m_manager->lastErrorDetail().isEmpty());
        QCOMPARE(m_log->events.last(), QStringLiteral("notLoading"));
        QVERIFY(!m_log->events.contains("opened"));
        QVERIFY(!m_manager->currentDevice());
        QVERIFY(!m_manager->isLoading());
        QVERIFY(!m_manager->isFileLoaded());
        QVERIFY(m_control->deviceIds().empty());
    }
    // A good file after them loads as ever.
    QVERIFY(loadAndWait(m_single));
}

void TestFilePlayback::aFileThatCannotBeReadWhenLoadingFailsToLoad()
{
    const QString path = m_dir.filePath(QStringLiteral("vanishing.kvb"));
    QVERIFY(writeAll(path, m_singleBytes));
    // Gone between opening (the devices it describes) and loading (all of it).
    connect(m_manager.get(), &FilePlaybackManager::fileOpened, this,
            [&path](NdaDevice&) { QFile::remove(path); });
    QVERIFY(!loadAndWait(path));
    QCOMPARE(m_log->errorText, QStringLiteral("Failed to load file"));
    QCOMPARE(m_log->errorType, int(FileError::LoadFailed));
    QCOMPARE(m_log->errorPath, path);
    QVERIFY(!m_manager->currentDevice());
    QVERIFY(!m_manager->isLoading());
    QVERIFY(!m_manager->loadingDialog()->isVisible());
    QVERIFY(m_control->deviceIds().empty());
    QVERIFY(!m_log->events.contains("finalized"));
}

void TestFilePlayback::abortingALargeFileCancelsItAndItLoadsAgain()
{
    const int frames = 1500000;
    const QString path = m_dir.filePath(QStringLiteral("large.kvb"));
    QVERIFY(writeAll(path, synthesize(m_singleBytes, frames)));
    m_manager->loadFile(path);
    QVERIFY(m_manager->isLoading());
    m_manager->loadingDialog()->widget()->abortButton()->click();

    QCOMPARE(m_log->events.filter("cancelled").size(), 1);
    QVERIFY(!m_manager->isLoading());
    QVERIFY(!m_manager->currentDevice());
    QVERIFY(!m_manager->loadingDialog()->isVisible());
    QVERIFY(m_control->deviceIds().empty());
    QTest::qWait(200); // whatever the loader had posted comes to nothing
    QVERIFY(!m_log->events.contains("completed"));
    QVERIFY(!m_log->events.contains("finalized"));
    QVERIFY(!m_log->events.contains("error"));

    // Nothing of it stayed open: it opens and loads again.
    QVERIFY(loadAndWait(path));
    QCOMPARE(m_manager->frameCount(), quint64(frames));
    QFile::remove(path);
}

void TestFilePlayback::stopKeepsTheFileOpenUnloadedAndReloadLoadsIt()
{
    m_manager->loadFile(m_single);
    QVERIFY(m_manager->isLoading());
    m_manager->loadingDialog()->widget()->stopButton()->click();
    QVERIFY(m_log->events.contains("stopped"));
    QVERIFY(!m_manager->isLoading());
    QVERIFY(!m_manager->isFileLoaded());
    QVERIFY(m_manager->currentDevice());
    QCOMPARE(m_manager->currentDevice()->ndaDeviceState(), NdaDeviceState::FileModeOpen);
    QTest::qWait(100);
    QVERIFY(!m_log->events.contains("finalized"));

    m_log->events.clear();
    m_manager->reloadFile();
    QTRY_VERIFY_WITH_TIMEOUT(m_log->events.contains("finalized"), 30000);
    QVERIFY(m_manager->isFileLoaded());
    QCOMPARE(m_manager->frameCount(), quint64(dataFrameCount(m_singleBytes, 1)));
}

void TestFilePlayback::nmAndBinCapturesOpenToo()
{
    // NMEA text: five epochs a second apart.
    QByteArray text;
    for (int s = 0; s < 5; ++s) {
        const QByteArray time = "1200" + QByteArray::number(s).rightJustified(2, '0') + ".00";
        text += nmeaSentence("GPGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,");
        text +=
            nmeaSentence("GPRMC," + time + ",A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W");
    }
    const QString nm = m_dir.filePath(QStringLiteral("capture.nm"));
    QVERIFY(writeAll(nm, text));
    QVERIFY(loadAndWait(nm));
    QCOMPARE(m_manager->frameCount(), quint64(5));
    QCOMPARE(m_manager->getPlaybackFrameInterval(), 1000.0); // from the times of the epochs
    Packets nmPackets(*m_manager->currentDevice());
    setMode(FilePlaybackManager::AllDataFast);
    m_manager->startPlayback();
    QCOMPARE(nmPackets.counters.size(), 5);
    QVERIFY(nmPackets.consecutive());

    // A port capture: the frames of the AHRS without the file's own.
    QByteArray capture;
    for (const Frame& f : framesOf(m_singleBytes))
        if (f.bus != 0)
            capture += m_singleBytes.mid(f.offset, f.size);
    const QString bin = m_dir.filePath(QStringLiteral("capture.bin"));
    QVERIFY(writeAll(bin, capture));
    QVERIFY(loadAndWait(bin));
    QCOMPARE(m_manager->currentDevice()->deviceId(), m_ahrs);
    QCOMPARE(m_manager->frameCount(), quint64(dataFrameCount(m_singleBytes, 1)));
    QVERIFY(!m_control->getExistingDevice(NvDeviceId::fromString("1770FFFF00000001")));
}

void TestFilePlayback::closingFromElsewhereDropsTheFile()
{
    QVERIFY(loadAndWait(m_multi));
    m_manager->startPlayback();
    QVERIFY(m_manager->isPlaying());
    m_control->close(); // the main window closing every port and file
    QTRY_VERIFY(!m_manager->currentDevice());
    QVERIFY(!m_manager->isPlaying());
    QVERIFY(m_manager->fileDeviceIds().isEmpty());
    QVERIFY(m_log->events.contains("closed"));
    QCOMPARE(m_log->events.filter("notPlaying").size(), 1);
    QTRY_VERIFY(m_control->deviceIds().empty());
    // It opens again afterwards.
    QVERIFY(loadAndWait(m_multi));
}

void TestFilePlayback::listenersMayCloseTheFileWhileItLoads()
{
    // On the first word of progress, and on completion: either way the file goes, cleanly.
    QMetaObject::Connection closer = connect(
        m_manager.get(), &FilePlaybackManager::fileLoadingProgressChanged, this,
        [this](NdaDevice&, int, int) { m_manager->closeFile(); }, Qt::DirectConnection);
    m_manager->loadFile(m_single);
    QTRY_VERIFY(m_log->events.contains("closed"));
    disconnect(closer);
    QVERIFY(!m_manager->currentDevice());
    QVERIFY(!m_manager->isLoading());
    QVERIFY(m_control->deviceIds().empty());
    QTest::qWait(100);
    QVERIFY(!m_log->events.contains("finalized"));
    QCOMPARE(m_log->events.count("loading"), 1);
    QCOMPARE(m_log->events.count("notLoading"), 1);

    closer = connect(m_manager.get(), &FilePlaybackManager::fileLoadingCompleted, this,
                     [this](NdaDevice&) { m_manager->closeFile(); });
    m_log->events.clear();
    m_manager->loadFile(m_single);
    QTRY_VERIFY(m_log->events.contains("closed"));
    disconnect(closer);
    QVERIFY(!m_manager->currentDevice());
    QVERIFY(m_control->deviceIds().empty());
    QVERIFY(loadAndWait(m_single));
}

void TestFilePlayback::viewsShowThePlayedFramesAsRecorded()
{
    QVERIFY(loadAndWait(m_single));
    QMdiArea area;
    area.resize(900, 600);
    area.show();
    ViewManager views(*m_control, area);
    views.allowView(InertialView);
    views.openView(InertialView, m_ahrs);
    const auto viewers = views.viewList(InertialView, m_ahrs);
    QCOMPARE(viewers.size(), 1);
    const PacketViewer* viewer = viewers.first().data();
    QVERIFY(viewer->isFileDevice());

    setMode(FilePlaybackManager::AllDataFast);
    m_manager->startPlayback();
    QCOMPARE(viewer->packetsProcessed(), m_manager->frameCount());

    // Closing the file takes its views with it.
    m_manager->closeFile();
    QTRY_COMPARE(views.viewCountInfo(), 0u);
}

void TestFilePlayback::theLoadingWidgetTellsTimeAndForwardsItsButtons()
{
    QCOMPARE(FileLoadingWidget::formatDuration(0), QStringLiteral("0:00"));
    QCOMPARE(FileLoadingWidget::formatDuration(61400), QStringLiteral("1:01"));
    QCOMPARE(FileLoadingWidget::formatDuration(3600000 + 5 * 60000 + 9000),
             QStringLiteral("1:05:09"));
    QCOMPARE(FileLoadingWidget::formatDuration(-1), QStringLiteral("--:--"));

    FileLoadingDialog dialog;
    FileLoadingWidget& w = *dialog.widget();
    QSignalSpy cancelled(&dialog, &FileLoadingDialog::cancelled);
    QSignalSpy reload(&dialog, &FileLoadingDialog::reload);
    QSignalSpy stopped(&dialog, &FileLoadingDialog::stopped);
    w.start(QStringLiteral("/some/where/rec.kvb"));
    QCOMPARE(w.remainingText(), QStringLiteral("--:--")); // no pace yet
    w.setProgress(50, 200);
    QCOMPARE(w.percent(), 25);
    QCOMPARE(w.progressBar()->value(), 25);
    w.setProgress(200, 200);
    QCOMPARE(w.remainingText(), QStringLiteral("0:00"));
    w.reloadButton()->click();
    w.stopButton()->click();
    w.abortButton()->click();
    QCOMPARE(reload.count(), 1);
    QCOMPARE(stopped.count(), 1);
    QCOMPARE(cancelled.count(), 1);
    dialog.show();
    dialog.reject(); // Escape while loading gives up like Abort
    QCOMPARE(cancelled.count(), 2);
    w.finish();
    QVERIFY(!w.abortButton()->isEnabled());
}

QTEST_MAIN(TestFilePlayback)
#include "tst_fileplayback.moc"
