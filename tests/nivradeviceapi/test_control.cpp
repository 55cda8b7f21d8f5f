// The device library against emulated devices.
#include "controltest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using kvtest::KvsimProcess;

TEST_F(ControlTest, OpensAnEmulatedDeviceAndReadsItsIdentity)
{
    KvsimProcess sim({"--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    EXPECT_EQ(NvControl_lastResult(control), NRV_OK);

    NvDeviceId id;
    NvDevice_deviceId(dev, &id);
    EXPECT_EQ(id.toString(), sim.ports()[0].id);
    EXPECT_TRUE(id.hasOrientationOutput());
    NvString productCode, portName;
    NvDevice_productCode(dev, &productCode);
    NvDevice_portName(dev, &portName);
    EXPECT_FALSE(productCode.empty());
    EXPECT_EQ(portName, sim.ports()[0].path);
    NvVersion firmware;
    NvDevice_firmwareVersion(dev, &firmware);
    EXPECT_FALSE(firmware.isNull());
    EXPECT_TRUE(NvDevice_isInConfigMode(dev));
    NvOutputConfigurationArray config;
    NvDevice_outputConfiguration(dev, &config);
    EXPECT_NE(nvFindOutput(config, NDI_QUATERNION), nullptr);
    EXPECT_EQ(NvDevice_maximumUpdateRate(dev), 2000);

    EXPECT_EQ(NvControl_deviceCount(control), 1);
    NvDeviceIdArray ids;
    NvControl_deviceIds(control, &ids);
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_EQ(ids[0], id);
    const auto states = recorder.states();
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(states[0].newState, NDS_CONFIGURATION);
    EXPECT_EQ(states[0].oldState, NDS_INITIAL);

    // Opening twice is refused; a port without a device times out.
    NvString name = sim.ports()[0].path;
    EXPECT_FALSE(NvControl_openPort(control, &name, NBR_115200, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_PORT_IN_USE);

    EXPECT_TRUE(NvControl_closePort(control, &name));
    EXPECT_EQ(NvControl_deviceCount(control), 0);
    EXPECT_EQ(recorder.states().back().newState, NDS_DESTRUCTING);
    EXPECT_EQ(NvControl_device(control, &id), nullptr);
}

TEST_F(ControlTest, TerminateClosesEveryControl)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    ASSERT_NE(open(sim.ports()[0]), nullptr) << NvControl_lastResultText(control);
    ndaTerminate();
    EXPECT_EQ(NvControl_deviceCount(control), 0);
    EXPECT_EQ(recorder.states().back().newState, NDS_DESTRUCTING);
}

TEST_F(ControlTest, UnknownPortsImarPortsAndProfileFilesAnswerCleanly)
{
    NvString name = "/nonexistent/port";
    EXPECT_FALSE(NvControl_openPort(control, &name, NBR_115200, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_PORT_OPEN_FAILED);
    EXPECT_FALSE(NvControl_openImarPort_internal(control, &name, NBR_115200, 0, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_NOT_SUPPORTED);
    EXPECT_FALSE(NvDevice_gotoMeasurement(nullptr));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_DEVICE);
    EXPECT_STREQ(NvResultValue_toString(NRV_TIMEOUT), nvResultValueText(NRV_TIMEOUT));

    // An alternative profile file replaces the built-in set; a bad one leaves it alone.
    NvFilterProfileArray profiles;
    NvControl_filterProfiles(control, &profiles);
    ASSERT_FALSE(profiles.empty());
    const std::string dir = kvtest::makeTempDir();
    const NvString good = dir + "/alt.nvf", bad = dir + "/bad.nvf";
    std::ofstream(good) << "# site profiles\nformat=nvf 1\nprofile=7 2 vehicle, rough road\n"
                           "profile=8 1 rotor\n";
    std::ofstream(bad) << "format=nvf 1\nprofile=9 x broken\n";
    EXPECT_FALSE(NvControl_loadFilterProfiles(control, &bad));
    EXPECT_EQ(NvControl_lastResult(control), NRV_CONFIG_FILE_INVALID);
    ASSERT_TRUE(NvControl_loadFilterProfiles(control, &good));
    NvControl_filterProfiles(control, &profiles);
    ASSERT_EQ(profiles.size(), 2u);
    EXPECT_EQ(profiles[0].type, 7);
    EXPECT_EQ(profiles[0].version, 2);
    EXPECT_EQ(profiles[0].label, "vehicle, rough road");
    EXPECT_FALSE(NvControl_loadFilterProfiles(control, &bad));
    NvControl_filterProfiles(control, &profiles);
    EXPECT_EQ(profiles.size(), 2u);
    const NvString missing = dir + "/missing.nvf";
    EXPECT_FALSE(NvControl_loadFilterProfiles(control, &missing));
    EXPECT_EQ(NvControl_lastResult(control), NRV_FILE_NOT_FOUND);
    kvtest::removeTree(dir);
}

TEST_F(ControlTest, ChainedHandlersAreBothCalledAndRemovalIsFinal)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    Recorder second;
    NvControl_addCallbackHandler(control, second.plainC(), 1);
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_gotoMeasurement(dev)) << NvControl_lastResultText(control);
    EXPECT_TRUE(NvDevice_isMeasuring(dev));
    ASSERT_TRUE(waitUntil([&] { return second.total() >= 50 && recorder.total() >= 50; }));

    NvControl_removeCallbackHandler(control, second.plainC());
    const size_t atRemoval = second.total();
    const size_t firstAtRemoval = recorder.total();
    ASSERT_TRUE(waitUntil([&] { return recorder.total() >= firstAtRemoval + 50; }));
    EXPECT_EQ(second.total(), atRemoval);
    EXPECT_TRUE(NvDevice_gotoConfig(dev));
    EXPECT_TRUE(NvDevice_isInConfigMode(dev));
    NvControl_close(control); // before the emulator goes: its hang-up would close the device
}

namespace {
// Removes itself, or closes the device's port, from inside its first live-data callback.
class SelfRemover : public NvCallback
{
public:
    SelfRemover(NvControl* control, bool closePort) : m_control(control), m_closePort(closePort) {}
    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket*) override
    {
        if (++calls > 1)
            return;
        if (m_closePort) {
            NvDeviceId id;
            NvDevice_deviceId(dev, &id);
            closed = NvControl_closePort_1(m_control, &id);
            // A request from the port's own reader cannot be answered and says so.
        } else {
            NvControl_removeCallbackHandler(m_control, plainC());
            NvMessage req = NvMessage::toDevice(NvMid::ReqProductCode);
            requestRefused = !NvDevice_sendCustomMessage(dev, &req, 1, nullptr, 0) &&
                             NvControl_lastResult(m_control) == NRV_INVALID_STATE;
        }
    }
    std::atomic<int> calls{0};
    std::atomic<bool> closed{false};
    std::atomic<bool> requestRefused{false};

private:
    NvControl* m_control;
    bool m_closePort;
};
} // namespace

TEST_F(ControlTest, HandlersMayRemoveThemselvesAndClosePortsFromCallbacks)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* a = open(sim.ports()[0]);
    ASSERT_NE(a, nullptr) << NvControl_lastResultText(control);
    SelfRemover remover(control, false);
    NvControl_addCallbackHandler(control, remover.plainC(), 1);
    ASSERT_TRUE(NvDevice_gotoMeasurement(a));
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(a) >= 100; }));
    EXPECT_EQ(remover.calls, 1);
    EXPECT_TRUE(remover.requestRefused);
    ASSERT_TRUE(NvDevice_gotoConfig(a));

    NvDevice* b = open(sim.ports()[1]);
    ASSERT_NE(b, nullptr) << NvControl_lastResultText(control);
    SelfRemover closer(control, true);
    NvControl_addCallbackHandler(control, closer.plainC(), 1);
    ASSERT_TRUE(NvDevice_gotoMeasurement(b));
    ASSERT_TRUE(waitUntil([&] { return closer.closed.load(); }));
    ASSERT_TRUE(waitUntil([&] { return NvControl_deviceCount(control) == 1; }));
    EXPECT_TRUE(waitUntil([&] {
        const auto states = recorder.states();
        return states.back().device == b && states.back().newState == NDS_DESTRUCTING;
    }));
    NvControl_removeCallbackHandler(control, closer.plainC());
    NvControl_close(control);
}

TEST_F(ControlTest, MeasurementDeliversTheTruthInOrder)
{
    const std::string dir = kvtest::makeTempDir();
    const std::string truth = dir + "/truth.csv";
    {
        KvsimProcess sim({"--device", "ahrs", "--truth", truth, "--quiet"});
        ASSERT_TRUE(sim.started()) << sim.stderrText();
        NvDevice* dev = open(sim.ports()[0]);
        ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
        ASSERT_TRUE(NvDevice_gotoMeasurement(dev));
        ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(dev) >= 200; }));
        ASSERT_TRUE(NvDevice_gotoConfig(dev));
        const auto packets = recorder.packets(dev);
        EXPECT_TRUE(recorder.missed().empty());
        for (size_t i = 1; i < packets.size(); ++i)
            ASSERT_EQ(packets[i].packetCounter(), uint16_t(packets[i - 1].packetCounter() + 1));
        NvControl_close(control);
        sim.terminate();

        kvtest::TruthTable table;
        ASSERT_TRUE(table.load(truth));
        std::map<std::pair<uint32_t, uint32_t>, const std::vector<std::string>*> rows;
        for (const auto* row : table.rowsOf(sim.ports()[0].id))
            rows[{uint32_t(table.number(*row, "counter")),
                  uint32_t(uint64_t(table.number(*row, "sample_time_fine")))}] = row;
        for (const auto& p : packets) {
            auto it = rows.find({p.packetCounter(), p.sampleTimeFine()});
            ASSERT_NE(it, rows.end()) << p.packetCounter();
            EXPECT_EQ(table.text(*it->second, "status"), "sent");
            EXPECT_NEAR(p.acceleration().x, table.number(*it->second, "acc_x"), 1e-4);
        }
    }
    kvtest::removeTree(dir);
}

TEST_F(ControlTest, DroppedPacketsAreReportedAsMissedRanges)
{
    const std::string dir = kvtest::makeTempDir();
    const std::string truth = dir + "/truth.csv";
    {
        KvsimProcess sim(
            {"--device", "imu", "--drop", "0.05", "--seed", "7", "--truth", truth, "--quiet"});
        ASSERT_TRUE(sim.started()) << sim.stderrText();
        NvDevice* dev = open(sim.ports()[0]);
        ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
        ASSERT_TRUE(NvDevice_gotoMeasurement(dev));
        ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(dev) >= 400; }));
        ASSERT_TRUE(NvDevice_gotoConfig(dev));
        const auto packets = recorder.packets(dev);
        const auto missed = recorder.missed();
        NvControl_close(control);
        sim.terminate();
        ASSERT_FALSE(missed.empty());

        kvtest::TruthTable table;
        ASSERT_TRUE(table.load(truth));
        std::map<uint32_t, std::string> status; // first measurement only: counters unique
        for (const auto* row : table.rowsOf(sim.ports()[0].id))
            status.emplace(uint32_t(table.number(*row, "counter")), table.text(*row, "status"));
        // Every gap between received packets is one reported range of dropped packets.
        size_t gaps = 0;
        for (size_t i = 1; i < packets.size(); ++i) {
            const uint16_t prev = packets[i - 1].packetCounter();
            const uint16_t cur = packets[i].packetCounter();
            if (cur == uint16_t(prev + 1))
                continue;
            ASSERT_LT(gaps, missed.size());
            EXPECT_EQ(missed[gaps].first, uint16_t(prev + 1));
            EXPECT_EQ(missed[gaps].last, uint16_t(cur - 1));
            EXPECT_EQ(missed[gaps].count, int(uint16_t(cur - prev - 1)));
            for (uint16_t c = uint16_t(prev + 1); c != cur; ++c)
                EXPECT_NE(status[c], "sent") << c;
            ++gaps;
        }
        EXPECT_EQ(gaps, missed.size());
    }
    kvtest::removeTree(dir);
}

TEST_F(ControlTest, CorruptedPacketsAreSurvived)
{
    KvsimProcess sim({"--device", "ahrs", "--corrupt", "0.1", "--seed", "3", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_gotoMeasurement(dev));
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(dev) >= 400; }));
    EXPECT_GT(NvDevice_checksumErrors(dev), 0u);
    EXPECT_FALSE(recorder.missed().empty());
    const size_t before = recorder.packetCount(dev);
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(dev) >= before + 50; }));
    EXPECT_TRUE(NvDevice_gotoConfig(dev));
    NvControl_close(control);
}

TEST_F(ControlTest, UnsupportedRateIsRefusedAndTheOldConfigurationStays)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    NvOutputConfigurationArray before;
    NvDevice_outputConfiguration(dev, &before);
    ASSERT_FALSE(before.empty());

    NvIntArray rates;
    NvDevice_supportedUpdateRates(dev, NDI_ACCELERATION, &rates);
    EXPECT_EQ(std::count(rates.begin(), rates.end(), 333), 0);
    EXPECT_EQ(std::count(rates.begin(), rates.end(), 400), 1);
    NvDevice_supportedUpdateRates(dev, NDI_QUATERNION, &rates);
    EXPECT_TRUE(rates.empty()); // no orientation on an IMU

    NvOutputConfigurationArray bad = {{NDI_PACKET_COUNTER, NV_FREQUENCY_EVERY_PACKET},
                                      {NDI_ACCELERATION, 333}};
    EXPECT_FALSE(NvDevice_setOutputConfiguration(dev, &bad));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    NvOutputConfigurationArray after;
    NvDevice_outputConfiguration(dev, &after);
    EXPECT_EQ(after, before);
    ASSERT_TRUE(NvDevice_updateCachedDeviceInformation(dev));
    NvDevice_outputConfiguration(dev, &after);
    EXPECT_EQ(after, before);

    NvOutputConfigurationArray good = {{NDI_PACKET_COUNTER, NV_FREQUENCY_EVERY_PACKET},
                                       {NDI_ACCELERATION, 400}};
    EXPECT_TRUE(NvDevice_setOutputConfiguration(dev, &good)) << NvControl_lastResultText(control);
    NvDevice_outputConfiguration(dev, &after);
    EXPECT_EQ(after.size(), 2u);

    // A custom request and its reply.
    NvMessage req = NvMessage::toDevice(NvMid::ReqProductCode);
    NvMessage reply;
    EXPECT_TRUE(NvDevice_sendCustomMessage(dev, &req, 1, &reply, 0));
    EXPECT_EQ(reply.messageId(), NvMid::ProductCode);

    // A frame for another bus id is ignored by the device: the wait times out.
    NvMessage elsewhere(5, NvMid::ReqProductCode);
    EXPECT_FALSE(NvDevice_sendCustomMessage(dev, &elsewhere, 1, &reply, 300));
    EXPECT_EQ(NvControl_lastResult(control), NRV_TIMEOUT);
    EXPECT_STREQ(NvControl_lastResultText(control), nvResultValueText(NRV_TIMEOUT));
    // An unknown request is refused with the device's code.
    NvMessage unknown = NvMessage::toDevice(0x70);
    EXPECT_FALSE(NvDevice_sendCustomMessage(dev, &unknown, 1, &reply, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_MESSAGE);
    EXPECT_TRUE(NvDevice_sendCustomMessage(dev, &req, 1, &reply, 0)); // still in step
    EXPECT_EQ(reply.messageId(), NvMid::ProductCode);
    NvControl_close(control);
}

TEST_F(ControlTest, SupportedRatesAreWhatTheDevicesAccept)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--device", "gnss", "--device",
                      "legacy", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const NvDataIdentifier quantities[] = {
        NDI_PACKET_COUNTER, NDI_SAMPLE_TIME_FINE, NDI_SAMPLE_TIME_COARSE, NDI_STATUS_WORD,
        NDI_UTC_TIME,       NDI_ACCELERATION,     NDI_RATE_OF_TURN,       NDI_DELTA_Q,
        NDI_DELTA_V,        NDI_ACCELERATION_HR,  NDI_MAGNETIC_FIELD,     NDI_TEMPERATURE,
        NDI_BARO_PRESSURE,  NDI_QUATERNION,       NDI_EULER_ANGLES,       NDI_FREE_ACCELERATION,
        NDI_LAT_LON,        NDI_VELOCITY,         NDI_TIME_OF_WEEK,       NDI_GNSS_PVT_DATA,
        NDI_ANALOG_IN_1};
    for (const auto& port : sim.ports()) {
        NvDevice* dev = open(port);
        ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
        for (NvDataIdentifier q : quantities) {
            NvIntArray rates;
            NvDevice_supportedUpdateRates(dev, q, &rates);
            if (rates.empty()) {
                NvOutputConfigurationArray config = {{q, 1}};
                EXPECT_FALSE(NvDevice_setOutputConfiguration(dev, &config))
                    << port.kind << " " << nvDataIdentifierName(q);
                continue;
            }
            EXPECT_LE(rates.back(), NvDevice_maximumUpdateRate(dev));
            for (int rate : {rates.front(), rates.back()}) {
                NvOutputConfigurationArray config = {{q, uint16_t(rate)}};
                EXPECT_TRUE(NvDevice_setOutputConfiguration(dev, &config))
                    << port.kind << " " << nvDataIdentifierName(q) << " " << rate << ": "
                    << NvControl_lastResultText(control);
            }
            NvOutputConfigurationArray tooFast = {{q, uint16_t(rates.back() * 2)}};
            EXPECT_FALSE(NvDevice_setOutputConfiguration(dev, &tooFast))
                << port.kind << " " << nvDataIdentifierName(q);
        }
    }
    NvControl_close(control);
}

TEST_F(ControlTest, ResetIsAnsweredAndTheDeviceStaysInConfiguration)
{
    KvsimProcess sim({"--device", "ahrs:wakeup", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    EXPECT_TRUE(NvDevice_isInConfigMode(dev));

    ASSERT_TRUE(NvDevice_reset(dev)) << NvControl_lastResultText(control);
    ASSERT_TRUE(waitUntil([&] { return recorder.wakeUps >= 1; }));
    std::this_thread::sleep_for(1500ms); // past the device's 500 ms decision
    EXPECT_TRUE(NvDevice_isInConfigMode(dev));
    EXPECT_EQ(recorder.packetCount(dev), 0u);
    NvMessage req = NvMessage::toDevice(NvMid::ReqProductCode);
    EXPECT_TRUE(NvDevice_sendCustomMessage(dev, &req, 1, nullptr, 0)); // answered: configuration

    // A new rate takes effect at the reset, and the port follows it.
    ASSERT_TRUE(NvDevice_setSerialBaudRate(dev, NBR_460800));
    EXPECT_EQ(NvDevice_baudRate(dev), NBR_115200);
    ASSERT_TRUE(NvDevice_reset(dev)) << NvControl_lastResultText(control);
    EXPECT_EQ(NvDevice_baudRate(dev), NBR_460800);
    ASSERT_TRUE(waitUntil([&] { return recorder.wakeUps >= 2; }));
    EXPECT_EQ(NvDevice_serialBaudRate(dev), NBR_460800);
    NvControl_close(control);
}

TEST_F(ControlTest, RestoringCommunicationRegainsAStreamingDeviceOrEndsWhenStopped)
{
    KvsimProcess sim({"--device", "ahrs:measure,rate=400", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const NvString port = sim.ports()[0].path;
    ASSERT_TRUE(NvControl_startRestoreCommunication(control, &port));
    ASSERT_TRUE(waitUntil([&] { return !recorder.copy(recorder.restored).empty(); }, 20s));
    auto restored = recorder.copy(recorder.restored);
    EXPECT_EQ(restored[0], std::make_pair(port, NRV_OK));
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    EXPECT_TRUE(NvDevice_isInConfigMode(dev));
    // Its own port is not touched while a control has it open.
    EXPECT_FALSE(NvControl_startRestoreCommunication(control, &port));
    EXPECT_EQ(NvControl_lastResult(control), NRV_PORT_IN_USE);
    NvControl_close(control);

    // Nobody answers on a silent port: stopping ends the attempt with "aborted".
    const int fd = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    grantpt(fd);
    unlockpt(fd);
    char name[128] = {};
    ptsname_r(fd, name, sizeof name);
    const NvString silent = name;
    ASSERT_TRUE(NvControl_startRestoreCommunication(control, &silent));
    std::this_thread::sleep_for(300ms);
    NvControl_stopRestoreCommunication(control);
    restored = recorder.copy(recorder.restored);
    ASSERT_EQ(restored.size(), 2u);
    EXPECT_EQ(restored[1], std::make_pair(silent, NRV_ABORTED));
    ::close(fd);
}

TEST_F(ControlTest, SyncSettingsAreSetAndRefused)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);

    NvSyncSetting trigger;
    trigger.line = NSL_IN1;
    trigger.function = NSF_TRIGGER_INDICATION;
    trigger.polarity = NSP_RISING_EDGE;
    NvSyncSettingArray settings = {trigger};
    ASSERT_TRUE(NvDevice_setSyncSettings(dev, &settings)) << NvControl_lastResultText(control);
    NvSyncSettingArray cached;
    NvDevice_syncSettings(dev, &cached);
    ASSERT_EQ(cached.size(), 1u);
    EXPECT_EQ(cached[0].line, NSL_IN1);
    EXPECT_EQ(cached[0].function, NSF_TRIGGER_INDICATION);

    NvSyncSetting wrong = trigger;
    wrong.function = NSF_PULSE_WIDTH_MODULATION; // an output function on an input line
    NvSyncSettingArray bad = {wrong};
    EXPECT_FALSE(NvDevice_setSyncSettings(dev, &bad));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    NvDevice_syncSettings(dev, &cached);
    ASSERT_EQ(cached.size(), 1u);
    EXPECT_EQ(cached[0].function, NSF_TRIGGER_INDICATION);
    NvControl_close(control);
}

TEST_F(ControlTest, DisconnectClosesOneDeviceWhileAnotherStreams)
{
    KvsimProcess lost({"--device", "ahrs", "--disconnect-after", "4", "--quiet"});
    KvsimProcess kept({"--device", "ahrs:index=1", "--quiet"});
    ASSERT_TRUE(lost.started()) << lost.stderrText();
    ASSERT_TRUE(kept.started()) << kept.stderrText();
    NvDevice* a = open(lost.ports()[0]);
    ASSERT_NE(a, nullptr) << NvControl_lastResultText(control);
    NvDevice* b = open(kept.ports()[0]);
    ASSERT_NE(b, nullptr) << NvControl_lastResultText(control);
    NvDevice_addRef(a); // keeps the handle valid after the library closes it
    ASSERT_TRUE(NvDevice_gotoMeasurement(a));
    ASSERT_TRUE(NvDevice_gotoMeasurement(b));

    ASSERT_TRUE(waitUntil([&] {
        for (const auto& e : recorder.errors())
            if (e.first == a && e.second == NRV_UNEXPECTED_DISCONNECT)
                return true;
        return false;
    }));
    ASSERT_TRUE(waitUntil([&] { return NvControl_deviceCount(control) == 1; }));
    NvDeviceId idA = NvDeviceId::fromString(lost.ports()[0].id);
    EXPECT_EQ(NvControl_device(control, &idA), nullptr);
    EXPECT_EQ(NvDevice_connectivityState(a), NCS_DISCONNECTED);
    EXPECT_FALSE(NvDevice_gotoConfig(a));
    EXPECT_EQ(NvControl_lastResult(control), NRV_PORT_NOT_OPEN);

    const size_t before = recorder.packetCount(b);
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(b) >= before + 100; }));

    // The last reference destroys it, reported as "destructing".
    EXPECT_EQ(NvDevice_removeRef(a), 0);
    const auto states = recorder.states();
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(states.back().device, a);
    EXPECT_EQ(states.back().newState, NDS_DESTRUCTING);
    EXPECT_TRUE(NvDevice_gotoConfig(b));
    NvControl_close(control);
}

namespace {

std::vector<std::string> g_scanLog;
std::mutex g_scanLogMutex;

void collectScanLog(const NvString* line)
{
    std::lock_guard<std::mutex> lock(g_scanLogMutex);
    g_scanLog.push_back(*line);
}

// Points the scanner at one runtime folder and extra port list for a test's duration.
class ScanEnvironment
{
public:
    ScanEnvironment(const std::string& runtimeDir, const std::string& extraPorts)
    {
        save("XDG_RUNTIME_DIR", m_runtime, m_hadRuntime);
        save("NV_EXTRA_PORTS", m_extra, m_hadExtra);
        setenv("XDG_RUNTIME_DIR", runtimeDir.c_str(), 1);
        save("NV_SCAN_SYSTEM_PORTS", m_system, m_hadSystem);
        setenv("NV_EXTRA_PORTS", extraPorts.c_str(), 1);
        // The machine's own serial ports would make the scan's duration and result depend
        // on the hardware.
        setenv("NV_SCAN_SYSTEM_PORTS", "0", 1);
    }
    ~ScanEnvironment()
    {
        restore("XDG_RUNTIME_DIR", m_runtime, m_hadRuntime);
        restore("NV_EXTRA_PORTS", m_extra, m_hadExtra);
        restore("NV_SCAN_SYSTEM_PORTS", m_system, m_hadSystem);
    }

private:
    static void save(const char* name, std::string& value, bool& had)
    {
        const char* v = getenv(name);
        had = v != nullptr;
        value = v ? v : "";
    }
    static void restore(const char* name, const std::string& value, bool had)
    {
        if (had)
            setenv(name, value.c_str(), 1);
        else
            unsetenv(name);
    }
    std::string m_runtime, m_extra;
    bool m_hadRuntime = false, m_hadExtra = false;
    std::string m_system;
    bool m_hadSystem = false;
};

} // namespace

TEST_F(ControlTest, ScannerFindsAnnouncedAndExtraPorts)
{
    KvsimProcess sim({"--device", "imu", "--device", "legacy:rs485", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    KvsimProcess other({"--device", "gnss:index=3", "--quiet"});
    ASSERT_TRUE(other.started()) << other.stderrText();
    ScanEnvironment env(sim.runtimeDir(), "/nonexistent/port:" + other.ports()[0].path);
    {
        std::lock_guard<std::mutex> lock(g_scanLogMutex);
        g_scanLog.clear();
    }
    NvScanner_setScanLogCallback(collectScanLog);

    NvPortInfoArray found;
    NvScanner_scanPorts(&found, NBR_DETECT, 3000, 1, 1);
    NvScanner_setScanLogCallback(nullptr);
    ASSERT_EQ(found.size(), 3u);
    std::map<std::string, std::string> byPort;
    for (const NvPortInfo& info : found) {
        EXPECT_NE(info.baudRate, NBR_DETECT);
        byPort[info.portName] = info.deviceId.toString();
        EXPECT_EQ(info.isRs485, info.portName == sim.ports()[1].path) << info.portName;
    }
    EXPECT_EQ(byPort[sim.ports()[0].path], sim.ports()[0].id);
    EXPECT_EQ(byPort[sim.ports()[1].path], sim.ports()[1].id);
    EXPECT_EQ(byPort[other.ports()[0].path], other.ports()[0].id);
    {
        std::lock_guard<std::mutex> lock(g_scanLogMutex);
        EXPECT_GE(g_scanLog.size(), 5u);
    }

    // Each found port opens with its device's product code.
    const std::map<std::string, std::string> codes = {
        {"imu", "KV-100"}, {"legacy", "KV-L30"}, {"gnss", "KV-770"}};
    for (const auto& port : {sim.ports()[0], sim.ports()[1], other.ports()[0]}) {
        NvDevice* dev = open(port);
        ASSERT_NE(dev, nullptr) << port.kind;
        NvString code;
        NvDevice_productCode(dev, &code);
        EXPECT_EQ(code, codes.at(port.kind));
    }
    NvControl_close(control);

    // A port the control has open is reported without a probe.
    NvPortInfo info = found[0];
    ASSERT_TRUE(NvControl_openPort_1(control, &info, 0)) << NvControl_lastResultText(control);
    NvPortInfo again;
    again.portName = info.portName;
    EXPECT_TRUE(NvScanner_scanPort(&again, NBR_115200, 1000, 0));
    EXPECT_EQ(again.deviceId, info.deviceId);
    EXPECT_EQ(NvControl_deviceCount(control), 1);

    NvPortInfo none;
    none.portName = "/nonexistent/port";
    EXPECT_FALSE(NvScanner_scanPort(&none, NBR_115200, 500, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_PORT_OPEN_FAILED);
    NvControl_close(control);
}

namespace {

// A pseudo-terminal with a talker of another maker behind it: NMEA text, no Nbus.
class ForeignTalker
{
public:
    explicit ForeignTalker(bool talk)
    {
        m_fd = posix_openpt(O_RDWR | O_NOCTTY);
        grantpt(m_fd);
        unlockpt(m_fd);
        char name[128] = {};
        ptsname_r(m_fd, name, sizeof name);
        path = name;
        termios tio{};
        tcgetattr(m_fd, &tio);
        cfmakeraw(&tio);
        tcsetattr(m_fd, TCSANOW, &tio);
        if (talk)
            m_thread = std::thread([this] {
                const std::string gga =
                    "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
                while (!m_stop) {
                    ssize_t n = ::write(m_fd, gga.data(), gga.size());
                    (void)n;
                    std::this_thread::sleep_for(50ms);
                }
            });
    }
    ~ForeignTalker()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        ::close(m_fd);
    }
    std::string path;

private:
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace

TEST_F(ControlTest, ScannerListsOtherMakersOnlyWhenAllowedAndSkipsSilentPorts)
{
    ForeignTalker nmea(true), silent(false);
    const std::string empty = kvtest::makeTempDir();
    ScanEnvironment env(empty, nmea.path + ":" + silent.path);

    NvPortInfoArray found;
    NvScanner_scanPorts(&found, NBR_DETECT, 1000, 0, 0);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].portName, nmea.path);
    EXPECT_TRUE(found[0].isForeign);
    EXPECT_FALSE(found[0].hasDevice());
    EXPECT_NE(found[0].description.find("NMEA"), std::string::npos) << found[0].description;

    NvScanner_scanPorts(&found, NBR_115200, 400, 1, 0);
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(NvControl_lastResult(control), NRV_NO_DEVICE_FOUND);
    kvtest::removeTree(empty);
}

namespace {

class InfoCounter : public NvCallback
{
public:
    void onInfoResponse(NvDevice*, NvInfoRequest request) override
    {
        if (request == NIR_GNSS_STATUS)
            ++gnss;
    }
    std::atomic<int> gnss{0};
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The settings lines of a .nva file, without the lines naming the device.
std::string settingsOf(const std::string& text)
{
    std::istringstream in(text);
    std::string line, out;
    while (std::getline(in, line))
        if (line.rfind("device=", 0) != 0)
            out += line + "\n";
    return out;
}

} // namespace

TEST_F(ControlTest, DeviceSettingsAreExchangedAndRefused)
{
    KvsimProcess sim({"--device", "ahrs:rs485", "--device", "gnss", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    NvDevice* gnss = open(sim.ports()[1]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    ASSERT_NE(gnss, nullptr) << NvControl_lastResultText(control);

    EXPECT_TRUE(NvDevice_setSerialBaudRate(dev, NBR_921600)) << NvControl_lastResultText(control);
    EXPECT_EQ(NvDevice_serialBaudRate(dev), NBR_921600);
    EXPECT_FALSE(NvDevice_setSerialBaudRate(dev, NvBaudRate(0x40)));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_BAUDRATE);

    EXPECT_TRUE(NvDevice_setErrorMode(dev, NEM_SEND_ERROR));
    EXPECT_EQ(NvDevice_errorMode(dev), int(NEM_SEND_ERROR));
    EXPECT_FALSE(NvDevice_setErrorMode(dev, NvErrorMode(7)));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    EXPECT_EQ(NvDevice_errorMode(dev), int(NEM_SEND_ERROR));

    EXPECT_TRUE(NvDevice_setRs485TransmissionDelay(dev, 1234));
    EXPECT_EQ(NvDevice_rs485TransmissionDelay(dev), 1234);
    EXPECT_EQ(NvDevice_rs485TransmissionDelay(gnss), -1); // no RS-485 interface
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_MESSAGE);

    EXPECT_TRUE(NvDevice_setNoRotation(dev, 5));
    EXPECT_FALSE(NvDevice_setNoRotation(dev, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);

    EXPECT_TRUE(NvDevice_setDeviceOptionFlags(dev, NvDeviceOption::DisableAutoMeasurement, 0));
    EXPECT_EQ(NvDevice_deviceOptionFlags(dev) & NvDeviceOption::DisableAutoMeasurement,
              NvDeviceOption::DisableAutoMeasurement);
    EXPECT_TRUE(NvDevice_setDeviceOptionFlags(dev, 0, NvDeviceOption::DisableAutoMeasurement));
    EXPECT_EQ(NvDevice_deviceOptionFlags(dev) & NvDeviceOption::DisableAutoMeasurement, 0);
    EXPECT_FALSE(NvDevice_setDeviceOptionFlags(dev, NvDeviceOption::DisableAutoMeasurement,
                                               NvDeviceOption::DisableAutoMeasurement));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    EXPECT_FALSE(NvDevice_setDeviceOptionFlags(dev, NvDeviceOption::EnableBeidou, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);

    // NMEA output only on the GNSS kind.
    EXPECT_FALSE(NvDevice_setStringOutputMode(dev, NvStringOutput::Nmea, 100));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    EXPECT_TRUE(NvDevice_setStringOutputMode(gnss, NvStringOutput::Nmea, 200));
    uint16_t type = 0, period = 0;
    EXPECT_TRUE(NvDevice_stringOutputMode(gnss, &type, &period));
    EXPECT_EQ(type, NvStringOutput::Nmea);
    EXPECT_EQ(period, 200);
    EXPECT_FALSE(NvDevice_setStringOutputMode(gnss, NvStringOutput::Nmea, 5));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PERIOD);
    EXPECT_TRUE(NvDevice_setStringOutputMode(gnss, NvStringOutput::None, 200));

    NvFilterProfileArray profiles;
    ASSERT_TRUE(NvDevice_availableFilterProfiles(dev, &profiles));
    ASSERT_GE(profiles.size(), 2u);
    EXPECT_FALSE(profiles[1].label.empty());
    EXPECT_TRUE(NvDevice_setFilterProfile(dev, profiles[1].type));
    EXPECT_EQ(NvDevice_filterProfile(dev), profiles[1].type);
    EXPECT_FALSE(NvDevice_setFilterProfile(dev, 200));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    EXPECT_EQ(NvDevice_filterProfile(dev), profiles[1].type);

    // Reinitialize reads what another host changed behind the cache's back.
    kvtest::HostPort other(sim.ports()[0].path);
    ASSERT_TRUE(NvDevice_setLocationId(dev, 17));
    NvString productCode;
    NvDevice_productCode(dev, &productCode);
    NvOutputConfigurationArray config{{NDI_PACKET_COUNTER, NV_FREQUENCY_EVERY_PACKET},
                                      {NDI_ACCELERATION, 200}};
    ASSERT_TRUE(other.send(NvMid::SetOutputConfiguration, nvOutputConfigurationToWire(config)));
    ASSERT_TRUE(other.send(NvMid::SetLocationId, {0, 42}));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(NvDevice_reinitialize(dev)) << NvControl_lastResultText(control);
    EXPECT_EQ(NvDevice_locationId(dev), 42);
    NvOutputConfigurationArray cached;
    NvDevice_outputConfiguration(dev, &cached);
    EXPECT_EQ(cached, config);
    NvString again;
    NvDevice_productCode(dev, &again);
    EXPECT_EQ(again, productCode);

    EXPECT_FALSE(NvDevice_requestBatteryLevel(dev));
    EXPECT_EQ(NvControl_lastResult(control), NRV_NOT_SUPPORTED);

    InfoCounter info;
    NvControl_addCallbackHandler(control, info.plainC(), 1);
    EXPECT_FALSE(NvDevice_requestGnssStatus(dev));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_MESSAGE);
    EXPECT_TRUE(NvDevice_requestGnssStatus(gnss)) << NvControl_lastResultText(control);
    EXPECT_EQ(info.gnss.load(), 1);
    NvGpsStatus status;
    NvDevice_gnssStatus(gnss, &status);
    EXPECT_FALSE(status.satellites.empty());
    NvControl_removeCallbackHandler(control, info.plainC());
    NvControl_close(control);
}

TEST_F(ControlTest, SettingsFileMovesTheSettingsToAnotherDevice)
{
    KvsimProcess sim({"--device", "ahrs:rs485", "--device", "ahrs:rs485", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* a = open(sim.ports()[0]);
    NvDevice* b = open(sim.ports()[1]);
    ASSERT_NE(a, nullptr) << NvControl_lastResultText(control);
    ASSERT_NE(b, nullptr) << NvControl_lastResultText(control);

    NvOutputConfigurationArray config{{NDI_PACKET_COUNTER, NV_FREQUENCY_EVERY_PACKET},
                                      {NDI_ACCELERATION_HR, 1000},
                                      {NDI_EULER_ANGLES, 200},
                                      {NDI_TEMPERATURE, 10}};
    ASSERT_TRUE(NvDevice_setOutputConfiguration(a, &config)) << NvControl_lastResultText(control);
    NvSyncSetting trigger;
    trigger.line = NSL_IN1;
    trigger.function = NSF_TRIGGER_INDICATION;
    trigger.polarity = NSP_RISING_EDGE;
    NvSyncSettingArray sync{trigger};
    ASSERT_TRUE(NvDevice_setSyncSettings(a, &sync));
    ASSERT_TRUE(NvDevice_setErrorMode(a, NEM_SEND_ERROR_AND_CONFIG));
    ASSERT_TRUE(NvDevice_setRs485TransmissionDelay(a, 300));
    ASSERT_TRUE(NvDevice_setDeviceOptionFlags(a, NvDeviceOption::DisableAutoMeasurement, 0));
    ASSERT_TRUE(NvDevice_setLocationId(a, 9));
    ASSERT_TRUE(NvDevice_setFilterProfile(a, 3));

    const std::string dir = kvtest::makeTempDir();
    const NvString fileA = dir + "/a.nva", fileB = dir + "/b.nva";
    ASSERT_EQ(NvDevice_createConfigFile(a, &fileA), int(NRV_OK))
        << NvControl_lastResultText(control);
    // A measuring device is paused for the settings and measures again afterwards.
    ASSERT_TRUE(NvDevice_gotoMeasurement(b));
    EXPECT_EQ(NvDevice_applyConfigFile(b, &fileA), int(NRV_OK))
        << NvControl_lastResultText(control);
    EXPECT_EQ(NvControl_lastResult(control), NRV_OK);
    EXPECT_TRUE(NvDevice_isMeasuring(b));
    const auto progress = recorder.copy(recorder.progress);
    ASSERT_GE(progress.size(), 2u);
    EXPECT_EQ(progress.front().current, 0);
    EXPECT_EQ(progress.back().current, progress.back().total);
    EXPECT_EQ(progress.back().what, "Applying settings");
    ASSERT_TRUE(NvDevice_gotoConfig(b));

    NvOutputConfigurationArray cached;
    NvDevice_outputConfiguration(b, &cached);
    EXPECT_EQ(cached, config);
    EXPECT_EQ(NvDevice_errorMode(b), int(NEM_SEND_ERROR_AND_CONFIG));
    EXPECT_EQ(NvDevice_locationId(b), 9);
    EXPECT_EQ(NvDevice_filterProfile(b), 3);
    ASSERT_EQ(NvDevice_createConfigFile(b, &fileB), int(NRV_OK));
    const std::string textA = readFile(fileA);
    EXPECT_NE(textA.find("format=nva 1\n"), std::string::npos);
    EXPECT_NE(textA.find("device=" + sim.ports()[0].id), std::string::npos);
    EXPECT_EQ(settingsOf(textA), settingsOf(readFile(fileB)));

    // An unsupported rate refuses the output configuration (33), the other settings of
    // the file are still applied.
    ASSERT_TRUE(NvDevice_restoreFactoryDefaults(b));
    NvOutputConfigurationArray before;
    NvDevice_outputConfiguration(b, &before);
    std::string badRate = textA;
    const size_t at = badRate.find("output=0x4040 1000");
    ASSERT_NE(at, std::string::npos) << textA;
    badRate.replace(at, 18, "output=0x4040 333");
    const NvString badFile = dir + "/rate.nva";
    writeFile(badFile, badRate);
    EXPECT_EQ(NvDevice_applyConfigFile(b, &badFile), int(NRV_INVALID_PARAMETER));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    NvDevice_outputConfiguration(b, &cached);
    EXPECT_EQ(cached, before);
    EXPECT_EQ(NvDevice_errorMode(b), int(NEM_SEND_ERROR_AND_CONFIG));
    EXPECT_EQ(NvDevice_locationId(b), 9);

    // Damaged, foreign and missing files change nothing and say why.
    ASSERT_TRUE(NvDevice_setLocationId(b, 1));
    const NvString other = dir + "/other.nva";
    writeFile(other, "[General]\nname=something else\n");
    EXPECT_EQ(NvDevice_applyConfigFile(b, &other), int(NRV_CONFIG_FILE_INVALID));
    writeFile(other, std::string("\x00\xff\xfa\x10garbage", 11));
    EXPECT_EQ(NvDevice_applyConfigFile(b, &other), int(NRV_CONFIG_FILE_INVALID));
    writeFile(other, "format=nva 2\nlocationid=5\n");
    EXPECT_EQ(NvDevice_applyConfigFile(b, &other), int(NRV_FILE_VERSION_UNSUPPORTED));
    std::string damaged = textA;
    damaged.replace(damaged.find("locationid=9"), 12, "locationid=x9");
    writeFile(other, damaged);
    EXPECT_EQ(NvDevice_applyConfigFile(b, &other), int(NRV_CONFIG_FILE_INVALID));
    EXPECT_EQ(NvControl_lastResult(control), NRV_CONFIG_FILE_INVALID);
    EXPECT_EQ(NvDevice_locationId(b), 1);
    const NvString missing = dir + "/missing.nva";
    EXPECT_EQ(NvDevice_applyConfigFile(b, &missing), int(NRV_FILE_NOT_FOUND));
    EXPECT_EQ(NvDevice_applyConfigFile(nullptr, &missing), int(NRV_INVALID_DEVICE));
    NvControl_close(control);
    kvtest::removeTree(dir);
}

TEST(Scanner, SystemPortsAreRealSerialPortsOnly)
{
    // Whatever this machine has: emulated pseudo-terminals are never among them.
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvPortInfoArray ports;
    NvScanner_systemPorts(&ports);
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_OK);
    for (const NvPortInfo& port : ports) {
        EXPECT_FALSE(port.portName.empty());
        EXPECT_NE(port.portName, sim.ports()[0].path);
        EXPECT_EQ(port.portName.rfind("/dev/pts/", 0), std::string::npos) << port.portName;
        EXPECT_FALSE(port.isEmulated);
        EXPECT_FALSE(port.hasDevice());
    }
}
