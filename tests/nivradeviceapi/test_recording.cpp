// Recording live devices to kvb files through the library and reading them back as file
// devices: what the callbacks delivered is what the file holds, in order.
#include "blockguard.h"
#include "controltest.h"
#include "ndalogfile.h"

#include <csignal>
#include <cstring>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Notes, per device, how many packets had come when it entered Recording.
class RecordingMarker : public NvCallback
{
public:
    RecordingMarker(Recorder& recorder, std::map<NvDevice*, size_t>& marks)
        : m_recorder(recorder), m_marks(marks)
    {
    }
    void onDeviceStateChanged(NvDevice* dev, NvDeviceState state, NvDeviceState) override
    {
        // Runs on the reader before the packet that started the recording is delivered.
        if (state == NDS_RECORDING) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_marks[dev] = m_recorder.packetCount(dev);
        }
    }

    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket*) override
    {
        if (NvDevice_deviceState(dev) == NDS_RECORDING)
            ++whileRecording;
    }
    std::atomic<int64_t> whileRecording{0};

private:
    Recorder& m_recorder;
    std::map<NvDevice*, size_t>& m_marks;
    std::mutex m_mutex;
};

class RecordingTest : public ControlTest
{
protected:
    void SetUp() override
    {
        ControlTest::SetUp();
        NvControl_addCallbackHandler(control, marker.plainC(), 1);
        dir = kvtest::makeTempDir();
    }
    void TearDown() override
    {
        ControlTest::TearDown();
        kvtest::removeTree(dir);
    }

    // The data bytes of a packet: the bus id of a frame changes on its way into a file.
    static NvByteArray dataOf(const NvDataPacket& p)
    {
        return NvByteArray(p.data(), p.data() + p.dataSize());
    }

    // States `dev` went through, in order.
    std::vector<NvDeviceState> statesOf(NvDevice* dev)
    {
        std::vector<NvDeviceState> out;
        for (const auto& s : recorder.states())
            if (s.device == dev)
                out.push_back(s.newState);
        return out;
    }

    // Packets delivered live since `dev` entered Recording.
    std::vector<NvDataPacket> recordedLive(NvDevice* dev)
    {
        const std::vector<NvDataPacket> all = recorder.packets(dev);
        return std::vector<NvDataPacket>(all.begin() + long(atRecording[dev]), all.end());
    }

    // Opens and loads `file`; the file devices in `out` by id.
    bool openAndLoad(const std::string& file, std::map<NvDeviceId, NvDevice*>& out)
    {
        NvString name = file;
        const size_t before = recorder.copy(recorder.progress).size();
        if (!NvControl_openLogFile(control, &name))
            return false;
        NvDeviceIdArray ids;
        NvControl_deviceIds(control, &ids);
        std::vector<NvDevice*> fileDevices;
        for (const NvDeviceId& id : ids) {
            NvDevice* dev = NvControl_device(control, &id);
            NvString fileName;
            NvDevice_fileName(dev, &fileName);
            if (NvDevice_isReadingFromFile(dev) && fileName == file) {
                out[id] = dev;
                fileDevices.push_back(dev);
            }
        }
        if (fileDevices.empty() || !NvDevice_loadLogFile(fileDevices[0]))
            return false;
        return waitUntil([&] {
            const auto progress = recorder.copy(recorder.progress);
            for (size_t i = before; i < progress.size(); ++i)
                if (progress[i].what == "Loading" && progress[i].current == 100)
                    return true;
            return false;
        });
    }

    std::string dir;
    std::map<NvDevice*, size_t> atRecording;
    RecordingMarker marker{recorder, atRecording}; // outlives the control's last callback
};

} // namespace

TEST_F(RecordingTest, RecordedDevicesReopenWithExactlyThePacketsDeliveredLive)
{
    const std::string truth = dir + "/truth.csv";
    KvsimProcess sim({"--device", "imu:rate=400", "--device", "ahrs", "--device", "gnss", "--truth",
                      truth, "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    std::vector<NvDevice*> devs;
    for (const auto& port : sim.ports()) {
        devs.push_back(open(port));
        ASSERT_NE(devs.back(), nullptr) << NvControl_lastResultText(control);
    }
    // Recording a device in configuration puts it into measurement.
    for (size_t i = 0; i < devs.size(); ++i) {
        const NvString file = dir + "/rec" + std::to_string(i) + ".kvb";
        ASSERT_TRUE(NvDevice_createLogFile(devs[i], &file)) << NvControl_lastResultText(control);
        EXPECT_FALSE(NvDevice_createLogFile(devs[i], &file));
        EXPECT_EQ(NvControl_lastResult(control), NRV_LOG_FILE_ALREADY_OPEN);
        ASSERT_TRUE(NvDevice_startRecording(devs[i])) << NvControl_lastResultText(control);
    }
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(devs[1]) >= 300; }));
    for (NvDevice* dev : devs) {
        EXPECT_TRUE(NvDevice_isRecording(dev));
        EXPECT_GT(NvDevice_logFileSize(dev), 0u);
        ASSERT_TRUE(NvDevice_gotoConfig(dev)); // nothing arrives after this
        ASSERT_TRUE(NvDevice_stopRecording(dev)) << NvControl_lastResultText(control);
        EXPECT_FALSE(NvDevice_stopRecording(dev));
        EXPECT_EQ(NvControl_lastResult(control), NRV_NOT_RECORDING);
    }
    // Waiting, Recording, Flushing; stopped in configuration it stays there.
    const auto states = statesOf(devs[0]);
    const std::vector<NvDeviceState> expected = {
        NDS_CONFIGURATION, NDS_MEASUREMENT,   NDS_WAITING_FOR_RECORDING_START,
        NDS_RECORDING,     NDS_CONFIGURATION, NDS_FLUSHING,
        NDS_CONFIGURATION};
    EXPECT_EQ(states, expected);
    std::map<NvDevice*, std::vector<NvDataPacket>> live;
    for (NvDevice* dev : devs)
        live[dev] = recordedLive(dev);
    NvControl_close(control);
    sim.terminate();

    kvtest::TruthTable table;
    ASSERT_TRUE(table.load(truth));
    for (size_t i = 0; i < devs.size(); ++i) {
        SCOPED_TRACE(sim.ports()[i].kind);
        std::map<NvDeviceId, NvDevice*> files;
        ASSERT_TRUE(openAndLoad(dir + "/rec" + std::to_string(i) + ".kvb", files));
        ASSERT_EQ(files.size(), 1u);
        NvDevice* file = files.begin()->second;
        EXPECT_EQ(files.begin()->first.toString(), sim.ports()[i].id);
        EXPECT_EQ(NvDevice_connectivityState(file), NCS_FILE);
        EXPECT_FALSE(NvDevice_gotoMeasurement(file));
        NvString code;
        NvDevice_productCode(file, &code);
        EXPECT_FALSE(code.empty());

        const auto& expectedPackets = live[devs[i]];
        ASSERT_GT(expectedPackets.size(), 100u);
        ASSERT_EQ(NvDevice_packetCount(file), int64_t(expectedPackets.size()));
        std::map<uint32_t, std::string> status;
        for (const auto* row : table.rowsOf(sim.ports()[i].id))
            status[uint32_t(uint64_t(table.number(*row, "sample_time_fine")))] =
                table.text(*row, "status");
        for (size_t k = 0; k < expectedPackets.size(); ++k) {
            NvDataPacket p;
            ASSERT_TRUE(NvDevice_dataPacketByIndex(file, int64_t(k), &p));
            ASSERT_EQ(dataOf(p), dataOf(expectedPackets[k])) << "packet " << k;
            ASSERT_EQ(status[p.sampleTimeFine()], "sent");
        }
        NvDataPacket past;
        EXPECT_FALSE(NvDevice_dataPacketByIndex(file, int64_t(expectedPackets.size()), &past));
        NvControl_close(control);
    }
}

TEST_F(RecordingTest, StoppingGoesThroughFlushingBackToMeasurementAndTheFileStaysOpenable)
{
    KvsimProcess sim({"--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr);
    const NvString file = dir + "/live.kvb";
    EXPECT_FALSE(NvDevice_startRecording(dev));
    EXPECT_EQ(NvControl_lastResult(control), NRV_NO_LOG_FILE);
    ASSERT_TRUE(NvDevice_gotoMeasurement(dev));
    ASSERT_TRUE(NvDevice_createLogFile(dev, &file));
    ASSERT_TRUE(NvDevice_startRecording(dev));
    ASSERT_TRUE(waitUntil([&] { return NvDevice_deviceState(dev) == NDS_RECORDING; }));

    // A reader of the file while it is written sees whole frames within the sync period.
    std::this_thread::sleep_for(1500ms);
    {
        NvControl* other = NvControl_construct();
        ASSERT_TRUE(NvControl_openLogFile(other, &file)) << NvControl_lastResultText(other);
        NvControl_destruct(other);
    }
    ASSERT_TRUE(NvDevice_stopRecording(dev));
    EXPECT_TRUE(NvDevice_isMeasuring(dev));
    const auto states = statesOf(dev);
    ASSERT_GE(states.size(), 4u);
    EXPECT_EQ(std::vector<NvDeviceState>(states.end() - 4, states.end()),
              (std::vector<NvDeviceState>{NDS_WAITING_FOR_RECORDING_START, NDS_RECORDING,
                                          NDS_FLUSHING, NDS_MEASUREMENT}));
    EXPECT_FALSE(NvDevice_closeLogFile(dev)); // closed with the recording
    EXPECT_EQ(NvControl_lastResult(control), NRV_NO_LOG_FILE);
    NvControl_close(control);

    // Stopped while it measured: every packet delivered in Recording is in the file.
    std::map<NvDeviceId, NvDevice*> files;
    ASSERT_TRUE(openAndLoad(file, files));
    EXPECT_GT(NvDevice_packetCount(files.begin()->second), 100);
    EXPECT_EQ(NvDevice_packetCount(files.begin()->second), marker.whileRecording.load());
}

TEST_F(RecordingTest, AMastersRecordingGetsWhatItMissedBackByTheFlush)
{
    KvsimProcess sim({"--device", "master:3,docked=1,rate=120,drop=0.1", "--seed", "3", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* master = open(sim.ports()[0]);
    ASSERT_NE(master, nullptr) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_enableRadio(master, 12));
    const NvDeviceId t1 = nvEmulatedTrackerId(0, 1), t2 = nvEmulatedTrackerId(0, 2);
    ASSERT_TRUE(waitUntil(
        [&] { return NvControl_device(control, &t1) && NvControl_device(control, &t2); }, 15s));
    const NvString file = dir + "/wireless.kvb";
    ASSERT_TRUE(NvDevice_createLogFile(master, &file)) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_startRecording(master)) << NvControl_lastResultText(control);
    NvDevice* tracker = NvControl_device(control, &t2);
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(tracker) >= 150; }, 15s));
    EXPECT_EQ(NvDevice_deviceState(master), NDS_RECORDING);
    ASSERT_TRUE(NvDevice_stopRecording(master)) << NvControl_lastResultText(control);
    ASSERT_FALSE(recorder.missed().empty());
    // Flushing with progress, then back to measurement by itself.
    ASSERT_TRUE(waitUntil([&] { return NvDevice_isMeasuring(master) != 0; }, 20s));
    const auto progress = recorder.copy(recorder.progress);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back().what, "Flushing");
    EXPECT_EQ(progress.back().current, progress.back().total);
    ASSERT_TRUE(NvDevice_gotoConfig(master));
    NvControl_close(control);

    // In the file each tracker's counters run without a gap: nothing was lost. What came
    // back by the flush (at the file's end) plays where it belongs.
    std::map<NvDeviceId, NvDevice*> files;
    ASSERT_TRUE(openAndLoad(file, files));
    EXPECT_EQ(files.size(), 4u); // the master and its three trackers
    NvDataPacket kept;
    for (const NvDeviceId& id : {t1, t2}) {
        NvDevice* f = files[id];
        ASSERT_NE(f, nullptr);
        std::set<int> counters;
        int64_t notNext = 0;
        NvDataPacket previous;
        for (int64_t k = 0; k < NvDevice_packetCount(f); ++k) {
            NvDataPacket p;
            ASSERT_TRUE(NvDevice_dataPacketByIndex(f, k, &p));
            counters.insert(p.packetCounter());
            if (k > 0 && p.packetCounter() != uint16_t(previous.packetCounter() + 1))
                ++notNext;
            previous = p;
        }
        ASSERT_GT(counters.size(), 100u);
        EXPECT_EQ(int(counters.size()), *counters.rbegin() - *counters.begin() + 1)
            << id.toString();
        EXPECT_EQ(notNext, 0) << id.toString();
        kept = previous;
    }
    // A packet handed out outlives its file device.
    const NvByteArray keptData = dataOf(kept);
    NvControl_close(control);
    EXPECT_EQ(dataOf(kept), keptData);
    EXPECT_NE(kept.sampleTimeFine(), 0u);
}

TEST_F(RecordingTest, AFullDiskEndsTheRecordingWithAnErrorAndKeepsAValidFile)
{
    KvsimProcess sim({"--device", "ahrs:rate=400", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr);
    // Every packet delivered in Recording ends up in the file or counted lost.
    struct InRecording : NvCallback
    {
        void onLiveDataAvailable(NvDevice* d, const NvDataPacket*) override
        {
            packets += NvDevice_deviceState(d) == NDS_RECORDING;
        }
        std::atomic<uint64_t> packets{0};
    } inRecording;
    NvControl_addCallbackHandler(control, inRecording.plainC(), 1);
    // A file-size limit stands in for a full disk; the signal it raises is ignored so
    // that the write fails instead.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit limit = old;
    limit.rlim_cur = 64 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const NvString file = dir + "/full.kvb";
    ASSERT_TRUE(NvDevice_createLogFile(dev, &file));
    ASSERT_TRUE(NvDevice_startRecording(dev));
    const bool failed = waitUntil(
        [&] {
            for (const auto& e : recorder.errors())
                if (e.first == dev && e.second == NRV_DISK_FULL)
                    return true;
            return false;
        },
        20s);
    setrlimit(RLIMIT_FSIZE, &old);
    ASSERT_TRUE(failed);
    ASSERT_TRUE(waitUntil([&] { return NvDevice_deviceState(dev) == NDS_MEASUREMENT; }));
    EXPECT_FALSE(NvDevice_isRecording(dev));
    const uint64_t written = NvDevice_logPacketsWritten(dev);
    const uint64_t lost = NvDevice_logPacketsLost(dev);
    EXPECT_GT(lost, 0u);
    NvControl_close(control);
    NvControl_removeCallbackHandler(control, inRecording.plainC());
    EXPECT_EQ(written + lost, inRecording.packets.load());

    std::map<NvDeviceId, NvDevice*> files;
    ASSERT_TRUE(openAndLoad(file, files));
    EXPECT_EQ(NvDevice_packetCount(files.begin()->second), int64_t(written));
    EXPECT_GT(NvDevice_packetCount(files.begin()->second), 50);
    EXPECT_EQ(NvDevice_fileSkippedBytes(files.begin()->second), 0u);
}

TEST_F(RecordingTest, SplitPartsOpenAloneAndTheFirstOpensThemAll)
{
    KvsimProcess sim({"--device", "ahrs:rate=2000", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr);
    NvControl_setLogFileSplit(control, 48 * 1024, 0);
    const NvString file = dir + "/split.kvb";
    ASSERT_TRUE(NvDevice_createLogFile(dev, &file));
    ASSERT_TRUE(NvDevice_startRecording(dev));
    ASSERT_TRUE(waitUntil([&] { return NvDevice_logFileSize(dev) > 200 * 1024; }, 20s));
    ASSERT_TRUE(NvDevice_stopRecording(dev));
    NvControl_close(control);

    std::map<NvDeviceId, NvDevice*> whole;
    ASSERT_TRUE(openAndLoad(file, whole));
    NvDevice* all = whole.begin()->second;
    NvStringArray parts;
    NvDevice_logFileParts(all, &parts);
    ASSERT_GE(parts.size(), 4u);
    EXPECT_EQ(parts[1], dir + "/split-002.kvb");
    const int64_t total = NvDevice_packetCount(all);
    // The packets run on across the parts.
    int64_t sum = 0;
    NvDataPacket previous;
    for (int64_t k = 0; k < total; ++k) {
        NvDataPacket p;
        ASSERT_TRUE(NvDevice_dataPacketByIndex(all, k, &p));
        if (k > 0) {
            ASSERT_EQ(p.packetCounter(), uint16_t(previous.packetCounter() + 1)) << k;
        }
        previous = p;
    }
    NvControl_close(control);
    for (size_t i = 1; i < parts.size(); ++i) {
        std::map<NvDeviceId, NvDevice*> one;
        ASSERT_TRUE(openAndLoad(parts[i], one)) << parts[i];
        sum += NvDevice_packetCount(one.begin()->second);
        NvControl_close(control);
    }
    // A later part plays alone; together they are the whole recording.
    std::map<NvDeviceId, NvDevice*> first;
    nda::LogReader firstAlone;
    ASSERT_EQ(firstAlone.open(parts[0]), NRV_OK);
    ASSERT_EQ(firstAlone.load(), NRV_OK);
    EXPECT_EQ(sum + int64_t(firstAlone.packetCount(0)), total);
}

// open() of a FIFO waits for a writer, forever: such files are refused unopened.
TEST_F(RecordingTest, AFifoIsRefusedAtOnceAndDoesNotStopTheOpeningOfAFirstPart)
{
    const std::string fifo = dir + "/pipe.kvb";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    NvString name = fifo;
    int opened = 1;
    NvResultValue rc = NRV_OK;
    ASSERT_TRUE(kvtest::returnsPromptly(
        [&] {
            opened = NvControl_openLogFile(control, &name);
            rc = NvControl_lastResult(control);
        },
        fifo));
    EXPECT_EQ(opened, 0);
    EXPECT_EQ(rc, NRV_NOT_A_REGULAR_FILE);
    EXPECT_EQ(NvControl_deviceCount(control), 0);

    // A FIFO named like the second part of a recording.
    const std::string first = dir + "/rec.kvb";
    {
        nda::LogWriter w;
        ASSERT_EQ(w.create(first), NRV_OK);
        const uint8_t bus = w.addDevice(nvEmulatedDeviceId("ahrs", 7), {});
        for (uint16_t i = 0; i < 100; ++i) {
            NvDataPacketBuilder b;
            b.setPacketCounter(i);
            w.append(bus, b.toMessage());
        }
        ASSERT_EQ(w.close(), NRV_OK);
    }
    const std::string second = dir + "/rec-002.kvb";
    ASSERT_EQ(::mkfifo(second.c_str(), 0600), 0);
    std::map<NvDeviceId, NvDevice*> files;
    bool loaded = false;
    ASSERT_TRUE(kvtest::returnsPromptly([&] { loaded = openAndLoad(first, files); }, second));
    ASSERT_TRUE(loaded);
    NvStringArray parts;
    NvDevice_logFileParts(files.begin()->second, &parts);
    EXPECT_EQ(parts, NvStringArray{first});
    EXPECT_EQ(NvDevice_packetCount(files.begin()->second), 100);
}

TEST_F(RecordingTest, FilesThatAreNoRecordingsAreRefusedClearly)
{
    const std::string text = dir + "/notes.txt";
    std::ofstream(text) << "shopping list\nmilk\n";
    NvString name = text;
    EXPECT_FALSE(NvControl_openLogFile(control, &name));
    EXPECT_EQ(NvControl_lastResult(control), NRV_NOT_A_RECORDING);
    name = dir + "/missing.kvb";
    EXPECT_FALSE(NvControl_openLogFile(control, &name));
    EXPECT_EQ(NvControl_lastResult(control), NRV_FILE_NOT_FOUND);
    name = dir;
    EXPECT_FALSE(NvControl_openLogFile(control, &name));
    EXPECT_EQ(NvControl_lastResult(control), NRV_NOT_A_REGULAR_FILE);
    EXPECT_EQ(NvControl_deviceCount(control), 0);
}
