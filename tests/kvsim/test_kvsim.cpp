// End-to-end tests of the emulator: a real kvsim process, its pseudo-terminals opened
// like serial ports, and its truth file.

#include "kvsimharness.h"

#include <nvdatapacket.h>
#include <nvdeviceid.h>
#include <nvoutputconfiguration.h>
#include <nvsyncsetting.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <sstream>

using namespace kvtest;
using namespace std::chrono_literals;

namespace {

NvByteArray wire(const NvOutputConfigurationArray& config)
{
    return nvOutputConfigurationToWire(config);
}

NvOutputConfigurationArray readOutputConfiguration(HostPort& port)
{
    const NvMessage reply = port.request(NvMid::ReqOutputConfiguration);
    NvOutputConfigurationArray config;
    EXPECT_EQ(reply.messageId(), NvMid::OutputConfiguration);
    nvOutputConfigurationFromWire(reply.data(), reply.dataSize(), config);
    return config;
}

void expectError(const NvMessage& reply, uint8_t code)
{
    ASSERT_FALSE(reply.isEmpty()) << "no reply";
    EXPECT_EQ(reply.messageId(), NvMid::Error);
    EXPECT_EQ(reply.readU8(0), code);
}

void goToConfig(HostPort& port)
{
    ASSERT_EQ(port.request(NvMid::GoToConfig).messageId(), NvMid::GoToConfigAck);
}

// Key of a truth row: packet counter and sample time fine as the wire carries them.
using SampleKey = std::pair<uint16_t, uint32_t>;

std::map<SampleKey, const std::vector<std::string>*> rowsByKey(const TruthTable& truth,
                                                               const std::string& device)
{
    std::map<SampleKey, const std::vector<std::string>*> rows;
    for (const auto* row : truth.rowsOf(device))
        rows[{uint16_t(truth.number(*row, "counter")),
              uint32_t(uint64_t(truth.number(*row, "sample_time_fine")))}] = row;
    return rows;
}

struct KvsimStream : ::testing::Test
{
    std::string dir = makeTempDir();
    std::string truthPath = dir + "/truth.csv";
    ~KvsimStream() override { removeTree(dir); }
};

} // namespace

// ---- Announcements and process life ----------------------------------------------------

TEST(KvsimAnnouncement, PortsAppearAndOnlyOwnLinesVanishOnSigterm)
{
    const std::string runtime = makeTempDir();
    {
        KvsimProcess a({"--device", "imu", "--device", "ahrs", "--quiet"}, runtime);
        ASSERT_TRUE(a.started()) << a.stderrText();
        KvsimProcess b({"--device", "legacy", "--quiet"}, runtime);
        ASSERT_TRUE(b.started()) << b.stderrText();

        std::vector<std::string> lines = readLines(a.portsFile());
        const std::set<std::string> all(lines.begin(), lines.end());
        EXPECT_EQ(all,
                  (std::set<std::string>{a.ports()[0].path, a.ports()[1].path, b.ports()[0].path}));
        EXPECT_EQ(a.ports()[0].id, nvEmulatedDeviceId("imu", 0).toString());
        EXPECT_EQ(a.ports()[1].kind, "ahrs");
        EXPECT_EQ(b.ports()[0].id, nvEmulatedDeviceId("legacy", 0).toString());

        EXPECT_EQ(a.terminate(), 0);
        EXPECT_EQ(readLines(a.portsFile()), std::vector<std::string>{b.ports()[0].path});
        EXPECT_EQ(b.terminate(), 0);
        EXPECT_TRUE(readLines(b.portsFile()).empty());
    }
    removeTree(runtime);
}

TEST(KvsimAnnouncement, MasterNeedsAValidTrackerCount)
{
    for (const char* device : {"master", "master:0", "master:33", "master:2,docked=2,reject=1",
                               "master:2,rate=50", "imu:docked=1"}) {
        KvsimProcess sim({"--device", device});
        EXPECT_FALSE(sim.started()) << device;
        EXPECT_EQ(sim.wait(10s), 2) << device;
        EXPECT_FALSE(sim.stderrText().empty()) << device;
    }
    KvsimProcess sim(
        {"--device", "master:2,docked=1,reject=1,rate=60", "--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    EXPECT_EQ(sim.ports()[0].kind, "master");
    EXPECT_EQ(sim.ports()[0].id, nvEmulatedDeviceId("master", 0).toString());
    EXPECT_EQ(sim.ports()[1].kind, "imu");
}

// ---- Configuration mode ----------------------------------------------------------------

TEST(KvsimConfiguration, IdentityProductCodeAndVersions)
{
    KvsimProcess sim({"--device", "ahrs", "--device", "legacy", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    HostPort ahrs(sim.ports()[0].path);
    ASSERT_TRUE(ahrs.isOpen());
    goToConfig(ahrs);

    const NvDeviceId expected = nvEmulatedDeviceId("ahrs", 0);
    NvMessage reply = ahrs.request(NvMid::ReqDeviceId);
    ASSERT_EQ(reply.messageId(), NvMid::DeviceId);
    EXPECT_EQ(NvDeviceId::fromWire(reply.data(), reply.dataSize()), expected);
    EXPECT_EQ(reply.dataSize(), 8u);

    reply = ahrs.request(NvMid::ReqProductCode);
    ASSERT_EQ(reply.messageId(), NvMid::ProductCode);
    EXPECT_EQ(std::string(reply.data(), reply.data() + reply.dataSize()),
              expected.typeInfo()->productCode);
    EXPECT_EQ(ahrs.request(NvMid::ReqFirmwareRevision).dataSize(), 11u);
    EXPECT_EQ(ahrs.request(NvMid::ReqHardwareVersion).dataSize(), 2u);

    HostPort legacy(sim.ports()[1].path);
    goToConfig(legacy);
    reply = legacy.request(NvMid::ReqDeviceId);
    ASSERT_EQ(reply.dataSize(), 4u);
    EXPECT_TRUE(NvDeviceId::fromWire(reply.data(), reply.dataSize()).isLegacy());
}

TEST(KvsimConfiguration, UnsupportedRateIsRefusedAndTheOldConfigurationStays)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started());
    HostPort port(sim.ports()[0].path);
    goToConfig(port);

    const NvOutputConfigurationArray good = {{NDI_PACKET_COUNTER, 0xFFFF},
                                             {NDI_ACCELERATION | NDP_FP1220, 400},
                                             {NDI_MAGNETIC_FIELD, 100}};
    NvMessage reply = port.request(NvMid::SetOutputConfiguration, wire(good));
    ASSERT_EQ(reply.messageId(), NvMid::OutputConfiguration);
    EXPECT_EQ(reply.dataBytes(), wire(good));

    // The magnetometer runs at 100 Hz at most; 3 Hz divides nothing; an IMU has no
    // orientation.
    for (const NvOutputConfigurationArray& bad :
         {NvOutputConfigurationArray{{NDI_ACCELERATION, 400}, {NDI_MAGNETIC_FIELD, 400}},
          NvOutputConfigurationArray{{NDI_ACCELERATION, 3}},
          NvOutputConfigurationArray{{NDI_QUATERNION, 100}},
          NvOutputConfigurationArray{{NDI_ACCELERATION, 100}, {NDI_ACCELERATION, 200}}}) {
        expectError(port.request(NvMid::SetOutputConfiguration, wire(bad)), NRV_INVALID_PARAMETER);
        EXPECT_EQ(readOutputConfiguration(port), good);
    }
}

TEST(KvsimConfiguration, LegacyDeviceHasTheReducedItemSet)
{
    KvsimProcess sim({"--device", "legacy", "--quiet"});
    ASSERT_TRUE(sim.started());
    HostPort port(sim.ports()[0].path);
    goToConfig(port);
    expectError(port.request(NvMid::SetOutputConfiguration, wire({{NDI_DELTA_Q, 100}})),
                NRV_INVALID_PARAMETER);
    expectError(port.request(NvMid::SetOutputConfiguration, wire({{NDI_ACCELERATION, 2000}})),
                NRV_INVALID_PARAMETER);
    const NvOutputConfigurationArray config = {{NDI_PACKET_COUNTER, 0xFFFF},
                                               {NDI_EULER_ANGLES | NDP_FP1632, 400}};
    ASSERT_EQ(port.request(NvMid::SetOutputConfiguration, wire(config)).dataBytes(), wire(config));
    ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
    port.collect(15s, 100);
    goToConfig(port);
    ASSERT_GE(port.packets().size(), 100u);
    for (const NvMessage& m : port.packets()) {
        const NvDataPacket p(m);
        EXPECT_TRUE(p.contains(NDI_EULER_ANGLES));
        EXPECT_EQ(p.itemCount(), 2u);
    }
}

// The help's rate lists against what the devices accept: the help once promised 800 Hz,
// which is refused, and left out 125 and 250 Hz, which are taken.
TEST(KvsimConfiguration, HelpListsExactlyTheOutputRatesTheDevicesAccept)
{
    std::string help;
    {
        FILE* pipe = popen(KVSIM_BINARY " --help", "r");
        ASSERT_NE(pipe, nullptr);
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
            help.append(buffer, n);
        ASSERT_EQ(pclose(pipe), 0);
    }
    auto listed = [&help](const std::string& heading) {
        std::set<int> rates;
        const size_t at = help.find("\n" + heading);
        EXPECT_NE(at, std::string::npos) << heading;
        if (at == std::string::npos)
            return rates;
        std::istringstream line(help.substr(at + 1 + heading.size(),
                                            help.find('\n', at + 1) - at - 1 - heading.size()));
        int rate;
        while (line >> rate)
            rates.insert(rate);
        return rates;
    };

    KvsimProcess sim({"--device", "imu", "--device", "legacy", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    // Acceleration is one of the items the help gives the whole list for, on both kinds.
    for (const auto& [index, heading] :
         {std::pair<size_t, std::string>{0, "Divisors of 2000:"}, {1, "Divisors of 400:"}}) {
        const std::set<int> promised = listed(heading);
        ASSERT_FALSE(promised.empty()) << heading;
        HostPort port(sim.ports()[index].path);
        goToConfig(port);
        std::set<int> accepted;
        for (int rate = 1; rate <= 2000; ++rate) {
            const NvOutputConfigurationArray config = {
                {NDI_ACCELERATION, static_cast<uint16_t>(rate)}};
            const NvMessage reply = port.request(NvMid::SetOutputConfiguration, wire(config));
            ASSERT_FALSE(reply.isEmpty()) << rate;
            if (reply.messageId() == NvMid::OutputConfiguration)
                accepted.insert(rate);
        }
        EXPECT_EQ(accepted, promised) << sim.ports()[index].kind;
    }
}

TEST(KvsimConfiguration, RefusalsUnknownMessagesAndForeignBusIds)
{
    KvsimProcess sim({"--device", "gnss", "--quiet"});
    ASSERT_TRUE(sim.started());
    HostPort port(sim.ports()[0].path);
    goToConfig(port);

    expectError(port.request(0x7A), NRV_INVALID_MESSAGE);
    expectError(port.request(NvMid::SetBaudRate, {0x77}), NRV_INVALID_BAUDRATE);
    expectError(port.request(NvMid::SetFilterProfile, {0x00, 0x63}), NRV_INVALID_PARAMETER);
    expectError(port.request(NvMid::SetStringOutputType, {0, 1, 0, 1}), NRV_INVALID_PERIOD);

    // Another device's bus id goes unanswered; the device's own one is answered.
    ASSERT_TRUE(port.send(NvMid::ReqDeviceId, {}, 5));
    EXPECT_TRUE(port.waitFor(NvMid::DeviceId, 500ms).isEmpty());
    ASSERT_TRUE(port.send(NvMid::ReqDeviceId, {}, 1));
    EXPECT_EQ(port.waitFor(NvMid::DeviceId).busId(), 1);

    NvSyncSetting trigger;
    trigger.line = NSL_IN1;
    trigger.function = NSF_TRIGGER_INDICATION;
    NvMessage reply = port.request(NvMid::SetSyncSettings, nvSyncSettingsToWire({trigger}));
    ASSERT_EQ(reply.messageId(), NvMid::SyncSettings);
    EXPECT_EQ(reply.dataBytes(), nvSyncSettingsToWire({trigger}));
    NvSyncSetting badLine = trigger;
    badLine.line = NSL_CLOCK_IN;
    expectError(port.request(NvMid::SetSyncSettings, nvSyncSettingsToWire({badLine})),
                NRV_INVALID_PARAMETER);

    EXPECT_GE(port.request(NvMid::ReqAvailableFilterProfiles).dataSize(), 22u);
    EXPECT_EQ(port.request(NvMid::ReqCalibrationRecord, {0x00, 0xFF}).messageId(),
              NvMid::CalibrationRecord);
    EXPECT_EQ(port.request(NvMid::ReqGnssStatus).messageId(), NvMid::GnssStatus);

    // One RTCM 3 frame (type 1005 sized payload of zeros) with its CRC-24Q.
    NvByteArray rtcm = {0xD3, 0x00, 0x13};
    rtcm.resize(3 + 0x13, 0);
    uint32_t crc = 0;
    for (uint8_t b : rtcm) {
        crc ^= uint32_t(b) << 16;
        for (int i = 0; i < 8; ++i) {
            crc <<= 1;
            if (crc & 0x1000000)
                crc ^= 0x1864CFB;
        }
    }
    rtcm.push_back(uint8_t(crc >> 16));
    rtcm.push_back(uint8_t(crc >> 8));
    rtcm.push_back(uint8_t(crc));
    EXPECT_EQ(port.request(NvMid::ForwardGnssData, rtcm).messageId(), NvMid::ForwardGnssDataAck);
    rtcm.back() ^= 1;
    expectError(port.request(NvMid::ForwardGnssData, rtcm), NRV_INVALID_PARAMETER);

    // In measurement, configuration messages are refused.
    ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
    expectError(port.request(NvMid::ReqProductCode), NRV_INVALID_MESSAGE);
    goToConfig(port);
}

TEST(KvsimConfiguration, ResetSendsWakeUpAndConfigurationPersists)
{
    KvsimProcess sim({"--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started());
    HostPort port(sim.ports()[0].path);
    goToConfig(port);
    const NvOutputConfigurationArray config = {{NDI_PACKET_COUNTER, 0xFFFF},
                                               {NDI_EULER_ANGLES, 50}};
    ASSERT_EQ(port.request(NvMid::SetOutputConfiguration, wire(config)).messageId(),
              NvMid::OutputConfiguration);

    // Unanswered WakeUp: the device starts measuring on its own.
    EXPECT_EQ(port.request(NvMid::Reset).messageId(), NvMid::ResetAck);
    EXPECT_EQ(port.waitFor(NvMid::WakeUp).messageId(), NvMid::WakeUp);
    const NvMessage packet = port.waitFor(NvMid::DataPacket, 5s);
    ASSERT_FALSE(packet.isEmpty());
    EXPECT_TRUE(NvDataPacket(packet).contains(NDI_EULER_ANGLES));
    goToConfig(port);
    EXPECT_EQ(readOutputConfiguration(port), config);

    // Answered WakeUp: it stays in configuration. The answer must come within 500 ms; a
    // starved test process can miss that, so a few attempts are allowed.
    bool stayed = false;
    for (int attempt = 0; attempt < 3 && !stayed; ++attempt) {
        EXPECT_EQ(port.request(NvMid::Reset).messageId(), NvMid::ResetAck);
        EXPECT_EQ(port.waitFor(NvMid::WakeUp).messageId(), NvMid::WakeUp);
        ASSERT_TRUE(port.send(NvMid::WakeUpAck));
        port.packets().clear();
        port.collect(1500ms);
        const NvMessage reply = port.request(NvMid::ReqDeviceId);
        stayed = port.packets().empty() && reply.messageId() == NvMid::DeviceId;
        if (!stayed)
            goToConfig(port);
    }
    EXPECT_TRUE(stayed);
}

TEST(KvsimConfiguration, FactoryDefaultsRestoreTheDefaultConfiguration)
{
    KvsimProcess sim({"--device", "gnss", "--quiet"});
    ASSERT_TRUE(sim.started());
    HostPort port(sim.ports()[0].path);
    goToConfig(port);
    const NvOutputConfigurationArray defaults = readOutputConfiguration(port);
    ASSERT_FALSE(defaults.empty());

    const NvOutputConfigurationArray other = {{NDI_GNSS_PVT_DATA, 1}};
    ASSERT_EQ(port.request(NvMid::SetOutputConfiguration, wire(other)).messageId(),
              NvMid::OutputConfiguration);
    ASSERT_EQ(port.request(NvMid::SetLocationId, {0x12, 0x34}).readU16(0), 0x1234);
    ASSERT_EQ(port.request(NvMid::SetStringOutputType, {0, 1, 0, 200}).readU16(0), 1);

    EXPECT_EQ(port.request(NvMid::RestoreFactoryDefaults).messageId(),
              NvMid::RestoreFactoryDefaultsAck);
    EXPECT_EQ(readOutputConfiguration(port), defaults);
    EXPECT_EQ(port.request(NvMid::ReqLocationId).readU16(0), 0);
    EXPECT_EQ(port.request(NvMid::ReqStringOutputType).readU16(0), 0);
}

// ---- Measurement against the truth file ------------------------------------------------

TEST_F(KvsimStream, PacketsDecodeToTruthWithinEachPrecision)
{
    const NvOutputConfigurationArray config = {{NDI_PACKET_COUNTER, 0xFFFF},
                                               {NDI_SAMPLE_TIME_FINE, 0xFFFF},
                                               {NDI_QUATERNION | NDP_FLOAT32, 400},
                                               {NDI_EULER_ANGLES | NCF_NED | NDP_FLOAT64, 100},
                                               {NDI_ACCELERATION | NDP_FP1220, 2000},
                                               {NDI_RATE_OF_TURN | NDP_FP1632, 2000},
                                               {NDI_MAGNETIC_FIELD | NDP_FLOAT64, 100},
                                               {NDI_DELTA_Q | NDP_FP1632, 2000},
                                               {NDI_DELTA_V | NDP_FLOAT32, 1000},
                                               {NDI_FREE_ACCELERATION | NCF_NWU | NDP_FLOAT32, 400},
                                               {NDI_TEMPERATURE | NDP_FLOAT64, 50},
                                               {NDI_BARO_PRESSURE, 50}};
    std::vector<NvMessage> packets;
    std::string id;
    {
        KvsimProcess sim({"--device", "ahrs", "--seed", "7", "--truth", truthPath, "--quiet"});
        ASSERT_TRUE(sim.started());
        id = sim.ports()[0].id;
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        ASSERT_EQ(port.request(NvMid::SetOutputConfiguration, wire(config)).dataBytes(),
                  wire(config));
        ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
        port.collect(15s, 2000);
        goToConfig(port);
        packets = port.packets();
        EXPECT_EQ(sim.terminate(), 0);
    }
    ASSERT_GE(packets.size(), 200u);
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    const auto rows = rowsByKey(truth, id);

    struct Check
    {
        uint16_t quantity;
        const char* columns[4];
        size_t count;
        double tolerance; // absolute; negative: relative float32
    };
    const Check checks[] = {
        {NDI_QUATERNION, {"q0", "q1", "q2", "q3"}, 4, -1},
        {NDI_EULER_ANGLES, {"roll", "pitch", "yaw"}, 3, 0},
        {NDI_ACCELERATION, {"acc_x", "acc_y", "acc_z"}, 3, std::ldexp(1.0, -20)},
        {NDI_RATE_OF_TURN, {"gyr_x", "gyr_y", "gyr_z"}, 3, std::ldexp(1.0, -32)},
        {NDI_MAGNETIC_FIELD, {"mag_x", "mag_y", "mag_z"}, 3, 0},
        {NDI_DELTA_Q, {"dq0", "dq1", "dq2", "dq3"}, 4, std::ldexp(1.0, -32)},
        {NDI_DELTA_V, {"dv_x", "dv_y", "dv_z"}, 3, -1},
        {NDI_FREE_ACCELERATION, {"free_acc_x", "free_acc_y", "free_acc_z"}, 3, -1},
        {NDI_TEMPERATURE, {"temperature"}, 1, 0},
    };

    // A host that is starved long enough loses packets to the full transmit buffer; the
    // truth file names those, and no other counter value may go missing.
    std::set<int> overflowed;
    for (const auto* row : truth.rowsOf(id))
        if (truth.text(*row, "status") == "overflow")
            overflowed.insert(int(truth.number(*row, "counter")));
    int previous = -1;
    for (const NvMessage& message : packets) {
        const NvDataPacket p(message);
        ASSERT_FALSE(p.isMalformed());
        const uint16_t counter = p.packetCounter();
        for (int missing = previous + 1; previous >= 0 && missing < counter; ++missing) {
            EXPECT_EQ(overflowed.count(missing), 1u) << "gap in the packet counter: " << missing;
        }
        previous = counter;
        const auto it = rows.find({counter, p.sampleTimeFine()});
        ASSERT_NE(it, rows.end()) << "no truth row for counter " << counter;
        const auto& row = *it->second;
        EXPECT_EQ(truth.text(row, "status"), "sent");
        EXPECT_EQ(truth.text(row, "frame_euler"), "NED");
        EXPECT_EQ(truth.text(row, "frame_free_acc"), "NWU");

        // Packets come at 2000 Hz (every 5 ticks); slower items ride in every k-th one.
        EXPECT_EQ(p.sampleTimeFine() % 5, 0u);
        EXPECT_EQ(p.contains(NDI_DELTA_V), p.sampleTimeFine() % 10 == 0);
        EXPECT_EQ(p.contains(NDI_QUATERNION), p.sampleTimeFine() % 25 == 0);
        EXPECT_EQ(p.contains(NDI_EULER_ANGLES), p.sampleTimeFine() % 100 == 0);
        EXPECT_EQ(p.contains(NDI_TEMPERATURE), p.sampleTimeFine() % 200 == 0);
        for (const Check& c : checks) {
            if (!p.contains(c.quantity))
                continue;
            double values[4] = {};
            ASSERT_EQ(p.reals(c.quantity, values, 4), c.count);
            for (size_t i = 0; i < c.count; ++i) {
                const double expected = truth.number(row, c.columns[i]);
                const double tolerance =
                    c.tolerance < 0 ? std::ldexp(std::fabs(expected), -23) : c.tolerance;
                EXPECT_NEAR(values[i], expected, tolerance) << c.columns[i];
            }
        }
        if (p.contains(NDI_BARO_PRESSURE)) {
            EXPECT_NEAR(double(p.pressure()), truth.number(row, "pressure"), 0.5);
        }
    }
}

TEST_F(KvsimStream, GnssItemsDecodeToTruth)
{
    const NvOutputConfigurationArray config = {{NDI_PACKET_COUNTER, 0xFFFF},
                                               {NDI_SAMPLE_TIME_FINE, 0xFFFF},
                                               {NDI_UTC_TIME, 0xFFFF},
                                               {NDI_TIME_OF_WEEK, 0xFFFF},
                                               {NDI_LAT_LON | NDP_FP1632, 100},
                                               {NDI_ALTITUDE_ELLIPSOID | NDP_FLOAT64, 100},
                                               {NDI_VELOCITY | NCF_NED | NDP_FLOAT32, 100},
                                               {NDI_GNSS_PVT_DATA, 4},
                                               {NDI_GNSS_SAT_INFO, 1},
                                               {NDI_GNSS_AGE, 0xFFFF}};
    std::vector<NvMessage> packets;
    std::string id;
    {
        KvsimProcess sim({"--device", "gnss", "--seed", "3", "--truth", truthPath, "--quiet"});
        ASSERT_TRUE(sim.started());
        id = sim.ports()[0].id;
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        ASSERT_EQ(port.request(NvMid::SetOutputConfiguration, wire(config)).messageId(),
                  NvMid::OutputConfiguration);
        ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
        port.collect(15s, 230);
        goToConfig(port);
        packets = port.packets();
        EXPECT_EQ(sim.terminate(), 0);
    }
    ASSERT_GE(packets.size(), 30u);
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    const auto rows = rowsByKey(truth, id);
    int pvtPackets = 0;
    for (const NvMessage& message : packets) {
        const NvDataPacket p(message);
        const auto it = rows.find({p.packetCounter(), p.sampleTimeFine()});
        ASSERT_NE(it, rows.end());
        const auto& row = *it->second;
        const NvLatLon ll = p.latLon();
        EXPECT_NEAR(ll.latitude, truth.number(row, "latitude"), std::ldexp(1.0, -32));
        EXPECT_NEAR(ll.longitude, truth.number(row, "longitude"), std::ldexp(1.0, -32));
        EXPECT_EQ(p.altitudeEllipsoid(), truth.number(row, "altitude_ellipsoid"));
        const NvVector3 v = p.velocity();
        EXPECT_NEAR(v.x, truth.number(row, "vel_x"), 1e-6);
        EXPECT_NEAR(v.z, truth.number(row, "vel_z"), 1e-6);
        EXPECT_EQ(double(p.timeOfWeek()), truth.number(row, "time_of_week"));

        const NvUtcTime u = p.utcTime();
        tm t{};
        t.tm_year = u.year - 1900;
        t.tm_mon = u.month - 1;
        t.tm_mday = u.day;
        t.tm_hour = u.hour;
        t.tm_min = u.minute;
        t.tm_sec = u.second;
        EXPECT_EQ(int64_t(timegm(&t)) * 1000000000 + u.nanoseconds,
                  int64_t(std::stoll(truth.text(row, "utc_ns"))));

        // The GNSS solution comes at 4 Hz: every 2500 ticks; the age counts the 100 Hz
        // packets since.
        EXPECT_EQ(p.contains(NDI_GNSS_PVT_DATA), p.sampleTimeFine() % 2500 == 0);
        if (pvtPackets > 0) {
            EXPECT_EQ(p.gnssAge(), (p.sampleTimeFine() % 2500) / 100);
        }
        if (p.contains(NDI_GNSS_PVT_DATA)) {
            ++pvtPackets;
            const NvGnssPvt pvt = p.gnssPvt();
            EXPECT_NEAR(pvt.latitudeDeg(), truth.number(row, "latitude"), 0.51e-7);
            EXPECT_NEAR(pvt.height / 1000.0, truth.number(row, "altitude_ellipsoid"), 0.0006);
            EXPECT_EQ(pvt.fixType, NvGnssPvt::Fix3D);
        }
        if (p.contains(NDI_GNSS_SAT_INFO)) {
            EXPECT_FALSE(p.gnssSatInfo().satellites.empty());
        }
    }
    EXPECT_GE(pvtPackets, 1);
}

// ---- Faults ------------------------------------------------------------------------------

TEST_F(KvsimStream, DroppedPacketsLeaveCounterGapsThatTruthNames)
{
    std::vector<NvMessage> packets;
    std::string id;
    {
        KvsimProcess sim(
            {"--device", "imu", "--drop", "0.2", "--seed", "11", "--truth", truthPath, "--quiet"});
        ASSERT_TRUE(sim.started());
        id = sim.ports()[0].id;
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
        port.collect(10s, 150);
        goToConfig(port);
        packets = port.packets();
        EXPECT_EQ(sim.terminate(), 0);
    }
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    std::set<int> received, sent, dropped;
    for (const NvMessage& m : packets)
        received.insert(NvDataPacket(m).packetCounter());
    for (const auto* row : truth.rowsOf(id)) {
        const int counter = int(truth.number(*row, "counter"));
        if (truth.text(*row, "status") == "sent")
            sent.insert(counter);
        else if (truth.text(*row, "status") == "dropped")
            dropped.insert(counter);
    }
    EXPECT_EQ(received, sent);
    EXPECT_GT(dropped.size(), 5u);
    for (int c : dropped) {
        EXPECT_EQ(received.count(c), 0u);
    }
}

TEST_F(KvsimStream, CorruptedFramesFailTheirChecksumAndTheRestDecodes)
{
    std::vector<NvMessage> packets;
    uint64_t checksumErrors = 0;
    std::string id;
    {
        KvsimProcess sim({"--device", "ahrs", "--corrupt", "0.2", "--seed", "5", "--truth",
                          truthPath, "--quiet"});
        ASSERT_TRUE(sim.started());
        id = sim.ports()[0].id;
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
        port.collect(10s, 200);
        goToConfig(port);
        packets = port.packets();
        checksumErrors = port.parser().counters().checksumErrors;
        EXPECT_EQ(sim.terminate(), 0);
    }
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    std::set<int> intact;
    size_t corrupted = 0, garbage = 0;
    for (const auto* row : truth.rowsOf(id)) {
        const std::string& status = truth.text(*row, "status");
        corrupted += status == "corrupted";
        garbage += status == "garbage";
        if (status == "sent" || status == "garbage")
            intact.insert(int(truth.number(*row, "counter")));
    }
    EXPECT_GT(corrupted, 5u);
    EXPECT_GT(garbage, 0u);
    std::set<int> received;
    for (const NvMessage& m : packets)
        received.insert(NvDataPacket(m).packetCounter());
    for (int c : received) {
        EXPECT_EQ(intact.count(c), 1u) << "a damaged packet decoded: " << c;
    }
    // A damaged frame's inner bytes may pass as a frame by chance and hide the next one.
    EXPECT_GE(received.size() + 2, intact.size());
    EXPECT_GE(checksumErrors + 2, corrupted);
}

TEST(KvsimFaults, DisconnectEndsTheStreamAndTheAnnouncement)
{
    KvsimProcess sim({"--device", "imu:measure", "--disconnect-after", "1.5", "--quiet"});
    ASSERT_TRUE(sim.started());
    HostPort port(sim.ports()[0].path);
    ASSERT_TRUE(port.isOpen());
    EXPECT_TRUE(port.waitForHangUp(20s));
    // With its only port gone, the emulator ends by itself.
    EXPECT_EQ(sim.wait(20s), 0);
    EXPECT_TRUE(readLines(sim.portsFile()).empty());
}

// ---- NMEA string output --------------------------------------------------------------------

TEST_F(KvsimStream, NmeaSentencesHaveValidChecksumsAndGgaMatchesTruth)
{
    std::string text;
    std::string id;
    {
        KvsimProcess sim({"--device", "gnss", "--seed", "9", "--truth", truthPath, "--quiet"});
        ASSERT_TRUE(sim.started());
        id = sim.ports()[0].id;
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        const NvMessage reply = port.request(NvMid::SetStringOutputType, {0, 1, 0, 100});
        ASSERT_EQ(reply.messageId(), NvMid::StringOutputType);
        ASSERT_TRUE(port.send(NvMid::GoToMeasurement));
        text = port.readText(2s);
        goToConfig(port);
        EXPECT_EQ(sim.terminate(), 0);
    }
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    std::map<std::string, const std::vector<std::string>*> byTime; // hhmmss.ss
    for (const auto* row : truth.rowsOf(id)) {
        const int64_t ns = std::stoll(truth.text(*row, "utc_ns"));
        const int64_t cs = (ns + 5000000) / 10000000;
        const time_t s = time_t(cs / 100);
        tm t{};
        gmtime_r(&s, &t);
        char key[16];
        std::snprintf(key, sizeof key, "%02d%02d%02d.%02d", t.tm_hour, t.tm_min, t.tm_sec,
                      int(cs % 100));
        byTime[key] = row;
    }

    const size_t first = text.find('$');
    ASSERT_NE(first, std::string::npos);
    std::set<std::string> kinds;
    int ggaChecked = 0;
    size_t pos = first;
    for (;;) {
        const size_t end = text.find("\r\n", pos);
        if (end == std::string::npos)
            break;
        const std::string sentence = text.substr(pos, end - pos);
        pos = end + 2;
        const size_t star = sentence.find('*');
        ASSERT_EQ(sentence[0], '$');
        ASSERT_NE(star, std::string::npos) << sentence;
        uint8_t sum = 0;
        for (size_t i = 1; i < star; ++i)
            sum ^= uint8_t(sentence[i]);
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02X", sum);
        EXPECT_EQ(sentence.substr(star + 1), hex) << sentence;
        const std::string kind = sentence.substr(1, sentence.find(',') - 1);
        kinds.insert(kind);
        if (kind != "GPGGA")
            continue;
        std::vector<std::string> f;
        size_t s = 0;
        for (size_t c; (c = sentence.find(',', s)) != std::string::npos; s = c + 1)
            f.push_back(sentence.substr(s, c - s));
        const auto it = byTime.find(f[1]);
        ASSERT_NE(it, byTime.end()) << sentence;
        auto angle = [](const std::string& v, const std::string& hemi, int degDigits) {
            const double a = std::stod(v.substr(0, size_t(degDigits))) +
                             std::stod(v.substr(size_t(degDigits))) / 60.0;
            return hemi == "S" || hemi == "W" ? -a : a;
        };
        EXPECT_NEAR(angle(f[2], f[3], 2), truth.number(*it->second, "latitude"), 1e-8);
        EXPECT_NEAR(angle(f[4], f[5], 3), truth.number(*it->second, "longitude"), 1e-8);
        EXPECT_NEAR(std::stod(f[9]), truth.number(*it->second, "altitude_msl"), 0.0006);
        ++ggaChecked;
    }
    EXPECT_GE(ggaChecked, 5);
    for (const char* expected :
         {"GPGGA", "GPRMC", "GPVTG", "GNGSA", "GPGSV", "GPZDA", "HEHDT", "HEROT", "PRDID"}) {
        EXPECT_EQ(kinds.count(expected), 1u) << expected;
    }
}
