// The emulated wireless master: its own messages, its trackers behind it on the same
// port, measurement through it, and the flush of packets the host missed.

#include "kvsimharness.h"

#include <nvbytes.h>
#include <nvdatapacket.h>
#include <nvdeviceid.h>
#include <nvkvwinfo.h>
#include <nvoutputconfiguration.h>

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace kvtest;
using namespace std::chrono_literals;

namespace {

void expectError(const NvMessage& reply, uint8_t code)
{
    ASSERT_FALSE(reply.isEmpty()) << "no reply";
    EXPECT_EQ(reply.messageId(), NvMid::Error);
    EXPECT_EQ(reply.readU8(0), code);
}

std::vector<KvwInfo> trackerList(HostPort& port)
{
    const NvMessage reply = port.request(NvMid::ReqTrackerList);
    EXPECT_EQ(reply.messageId(), NvMid::TrackerList);
    EXPECT_EQ(reply.dataSize() % KvwInfo::WireSize, 0u);
    std::vector<KvwInfo> list;
    for (size_t off = 0; off + KvwInfo::WireSize <= reply.dataSize(); off += KvwInfo::WireSize)
        list.push_back(KvwInfo::fromWire(reply.data() + off));
    return list;
}

// The next `count` TrackerStatus records, in the order they came.
std::vector<KvwInfo> waitForStatus(HostPort& port, size_t count,
                                   std::chrono::milliseconds timeout = 10s)
{
    std::vector<KvwInfo> records;
    const auto end = Clock::now() + timeout;
    while (records.size() < count && Clock::now() < end) {
        const NvMessage m =
            port.waitFor(NvMid::TrackerStatus,
                         std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()));
        if (m.isEmpty())
            break;
        EXPECT_EQ(m.messageId(), NvMid::TrackerStatus) << m.toHex();
        EXPECT_EQ(m.busId(), 0xFF);
        if (m.messageId() == NvMid::TrackerStatus && m.dataSize() == KvwInfo::WireSize)
            records.push_back(KvwInfo::fromWire(m.data()));
    }
    return records;
}

NvMessage requestOnBus(HostPort& port, uint8_t busId, uint8_t mid, const NvByteArray& data = {},
                       std::chrono::milliseconds timeout = 5s)
{
    if (!port.send(mid, data, busId))
        return {};
    return port.waitFor(uint8_t(mid + 1), timeout);
}

NvByteArray command(const NvDeviceId& tracker, NvTrackerCommand cmd)
{
    NvByteArray out;
    nvbe::appendU64(out, tracker.toWire64());
    out.push_back(uint8_t(cmd));
    return out;
}

NvByteArray u16(uint16_t value)
{
    NvByteArray out;
    nvbe::appendU16(out, value);
    return out;
}

struct UpdateRate
{
    uint16_t rate = 0;
    uint8_t freeSlots = 0;
    std::vector<uint16_t> offered;
};

UpdateRate parseUpdateRate(const NvMessage& reply)
{
    UpdateRate r;
    EXPECT_EQ(reply.messageId(), NvMid::UpdateRate);
    r.rate = reply.readU16(0);
    r.freeSlots = reply.readU8(2);
    const size_t n = reply.readU8(3);
    EXPECT_EQ(reply.dataSize(), 4 + 2 * n);
    for (size_t i = 0; i < n; ++i)
        r.offered.push_back(reply.readU16(4 + 2 * i));
    return r;
}

void goToConfig(HostPort& port)
{
    ASSERT_EQ(port.request(NvMid::GoToConfig).messageId(), NvMid::GoToConfigAck);
}

// Turns the radio on and waits for `count` trackers to call in.
std::vector<KvwInfo> radioOn(HostPort& port, size_t count, uint8_t channel = 15)
{
    const NvMessage reply = port.request(NvMid::SetRadioChannel, {channel});
    EXPECT_EQ(reply.messageId(), NvMid::RadioChannel);
    EXPECT_EQ(reply.readU8(0), channel);
    const std::vector<KvwInfo> records = waitForStatus(port, count);
    EXPECT_EQ(records.size(), count);
    return records;
}

struct KvsimMasterTruth : ::testing::Test
{
    std::string dir = makeTempDir();
    std::string truthPath = dir + "/truth.csv";
    ~KvsimMasterTruth() override { removeTree(dir); }
};

} // namespace

TEST(KvsimMaster, IdentityDockRadioAndLinkReports)
{
    KvsimProcess sim({"--device", "master:4,docked=1", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const NvDeviceId masterId = nvEmulatedDeviceId("master", 0);
    EXPECT_EQ(sim.ports()[0].kind, "master");
    EXPECT_EQ(sim.ports()[0].id, masterId.toString());
    HostPort port(sim.ports()[0].path);
    ASSERT_TRUE(port.isOpen());
    goToConfig(port);

    NvMessage reply = port.request(NvMid::ReqDeviceId);
    ASSERT_EQ(reply.messageId(), NvMid::DeviceId);
    EXPECT_EQ(NvDeviceId::fromWire(reply.data(), reply.dataSize()), masterId);
    reply = port.request(NvMid::ReqProductCode);
    EXPECT_EQ(std::string(reply.data(), reply.data() + reply.dataSize()), "KV-STX");
    EXPECT_EQ(port.request(NvMid::ReqFirmwareRevision).dataSize(), 11u);

    // No data items: an empty output configuration, and no other.
    reply = port.request(NvMid::ReqOutputConfiguration);
    ASSERT_EQ(reply.messageId(), NvMid::OutputConfiguration);
    EXPECT_EQ(reply.dataSize(), 0u);
    expectError(port.request(NvMid::SetOutputConfiguration,
                             nvOutputConfigurationToWire({{NDI_PACKET_COUNTER, 0xFFFF}})),
                NRV_INVALID_PARAMETER);
    expectError(port.request(NvMid::ReqData), NRV_INVALID_MESSAGE);

    // Radio off: only the docked tracker is connected.
    EXPECT_EQ(port.request(NvMid::ReqRadioChannel).readU8(0), 0);
    std::vector<KvwInfo> list = trackerList(port);
    ASSERT_EQ(list.size(), 4u);
    for (uint32_t slot = 0; slot < 4; ++slot) {
        EXPECT_EQ(list[slot].deviceId, nvEmulatedTrackerId(0, slot));
        EXPECT_EQ(list[slot].state, slot == 0 ? NCS_PLUGGED_IN : NCS_DISCONNECTED);
        EXPECT_EQ(list[slot].busId, slot == 0 ? 1 : 0);
    }
    EXPECT_TRUE(list[0].hasBatteryLevel());
    EXPECT_FALSE(list[0].hasRssi());

    // The docked tracker answers on its bus id; an unused bus id gets nothing.
    reply = requestOnBus(port, 1, NvMid::ReqDeviceId);
    ASSERT_EQ(reply.messageId(), NvMid::DeviceId);
    EXPECT_EQ(reply.busId(), 1);
    EXPECT_EQ(NvDeviceId::fromWire(reply.data(), reply.dataSize()), nvEmulatedTrackerId(0, 0));
    reply = requestOnBus(port, 1, NvMid::ReqProductCode);
    EXPECT_EQ(std::string(reply.data(), reply.data() + reply.dataSize()), "KVW-2");
    EXPECT_TRUE(requestOnBus(port, 2, NvMid::ReqDeviceId, {}, 400ms).isEmpty());

    expectError(port.request(NvMid::SetRadioChannel, {26}), NRV_INVALID_PARAMETER);
    expectError(port.request(NvMid::SetRadioChannel, {5}), NRV_INVALID_PARAMETER);
    EXPECT_EQ(port.request(NvMid::ReqRadioChannel).readU8(0), 0);

    // Radio on: the others call in one by one, in slot order.
    const std::vector<KvwInfo> calls = radioOn(port, 3, 15);
    ASSERT_EQ(calls.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(calls[i].deviceId, nvEmulatedTrackerId(0, i + 1));
        EXPECT_EQ(calls[i].state, NCS_WIRELESS);
        EXPECT_EQ(calls[i].busId, i + 2);
    }
    list = trackerList(port);
    for (uint32_t slot = 1; slot < 4; ++slot) {
        EXPECT_EQ(list[slot].state, NCS_WIRELESS);
        EXPECT_EQ(list[slot].busId, slot + 1);
        EXPECT_GE(list[slot].rssi, -80);
        EXPECT_LE(list[slot].rssi, -40);
        EXPECT_LE(list[slot].batteryLevel, 100);
    }
    reply = requestOnBus(port, 3, NvMid::ReqDeviceId);
    EXPECT_EQ(reply.busId(), 3);
    EXPECT_EQ(NvDeviceId::fromWire(reply.data(), reply.dataSize()), nvEmulatedTrackerId(0, 2));
    expectError(port.request(NvMid::SetRadioChannel, {26}), NRV_INVALID_PARAMETER);
    EXPECT_EQ(port.request(NvMid::ReqRadioChannel).readU8(0), 15);

    // About once a second: bus id, RSSI and battery of every connected tracker.
    // Reports from before the last call-in have fewer entries.
    const auto until = Clock::now() + 5s;
    do {
        reply = port.waitFor(NvMid::TrackerLinkReport, 3s);
        ASSERT_EQ(reply.messageId(), NvMid::TrackerLinkReport);
    } while (reply.dataSize() != 12 && Clock::now() < until);
    ASSERT_EQ(reply.dataSize(), 12u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(reply.readU8(3 * i), i + 1);
        const int8_t rssi = reply.readI8(3 * i + 1);
        if (i == 0)
            EXPECT_EQ(rssi, KvwInfo::RssiUnknown);
        else
            EXPECT_TRUE(rssi >= -80 && rssi <= -40) << int(rssi);
        EXPECT_LE(reply.readU8(3 * i + 2), 100);
    }

    // Radio off: the wireless ones disconnect, the docked one stays.
    ASSERT_EQ(port.request(NvMid::SetRadioChannel, {0}).readU8(0), 0);
    const std::vector<KvwInfo> gone = waitForStatus(port, 3);
    ASSERT_EQ(gone.size(), 3u);
    for (const KvwInfo& r : gone) {
        EXPECT_EQ(r.state, NCS_DISCONNECTED);
        EXPECT_EQ(r.busId, 0);
    }
    EXPECT_EQ(trackerList(port)[0].state, NCS_PLUGGED_IN);
}

TEST(KvsimMaster, UpdateRatesOfferedFollowTheTrackerCount)
{
    KvsimProcess sim({"--device", "master:12", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    HostPort port(sim.ports()[0].path);
    goToConfig(port);

    UpdateRate r = parseUpdateRate(port.request(NvMid::ReqUpdateRate));
    EXPECT_EQ(r.rate, 100);
    EXPECT_EQ(r.offered, (std::vector<uint16_t>{40, 60, 80, 100, 120}));
    EXPECT_EQ(r.freeSlots, 10);
    expectError(port.request(NvMid::SetUpdateRate, u16(90)), NRV_INVALID_PARAMETER);
    EXPECT_EQ(parseUpdateRate(port.request(NvMid::SetUpdateRate, u16(120))).rate, 120);

    // Twelve trackers are more than 100 Hz and up carry: the master slows to 80 Hz.
    radioOn(port, 12);
    r = parseUpdateRate(port.request(NvMid::ReqUpdateRate));
    EXPECT_EQ(r.rate, 80);
    EXPECT_EQ(r.offered, (std::vector<uint16_t>{40, 60, 80}));
    EXPECT_EQ(r.freeSlots, 8);
    expectError(port.request(NvMid::SetUpdateRate, u16(100)), NRV_INVALID_PARAMETER);
    r = parseUpdateRate(port.request(NvMid::SetUpdateRate, u16(60)));
    EXPECT_EQ(r.rate, 60);
    EXPECT_EQ(r.freeSlots, 20);

    // Not while measuring.
    ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
    expectError(port.request(NvMid::SetUpdateRate, u16(40)), NRV_INVALID_MESSAGE);
    expectError(port.request(NvMid::SetRadioChannel, {0}), NRV_INVALID_MESSAGE);
    EXPECT_EQ(trackerList(port).size(), 12u);
    goToConfig(port);
}

TEST_F(KvsimMasterTruth, TrackersMeasureThroughTheMasterAtItsUpdateRate)
{
    std::vector<NvMessage> packets;
    {
        KvsimProcess sim(
            {"--device", "master:3,docked=1", "--seed", "4", "--truth", truthPath, "--quiet"});
        ASSERT_TRUE(sim.started()) << sim.stderrText();
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        radioOn(port, 2);
        ASSERT_EQ(parseUpdateRate(port.request(NvMid::SetUpdateRate, u16(60))).rate, 60);

        // A tracker's own configuration, through its bus id.
        NvMessage reply = requestOnBus(port, 2, NvMid::ReqOutputConfiguration);
        ASSERT_EQ(reply.messageId(), NvMid::OutputConfiguration);
        EXPECT_EQ(reply.busId(), 2);
        NvOutputConfigurationArray config;
        ASSERT_TRUE(nvOutputConfigurationFromWire(reply.data(), reply.dataSize(), config));
        EXPECT_NE(nvFindOutput(config, NDI_QUATERNION), nullptr);
        expectError(requestOnBus(port, 2, NvMid::SetOutputConfiguration,
                                 nvOutputConfigurationToWire({{NDI_ACCELERATION, 400}})),
                    NRV_INVALID_PARAMETER);

        ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
        port.collect(15s, 120);
        // The master's own messages still work; a tracker refuses configuration.
        EXPECT_EQ(trackerList(port).size(), 3u);
        expectError(requestOnBus(port, 3, NvMid::ReqProductCode), NRV_INVALID_MESSAGE);
        goToConfig(port);
        packets = port.packets();

        reply = requestOnBus(port, 3, NvMid::ReqDeviceId);
        ASSERT_EQ(reply.messageId(), NvMid::DeviceId);
        EXPECT_EQ(reply.busId(), 3);
        EXPECT_EQ(NvDeviceId::fromWire(reply.data(), reply.dataSize()), nvEmulatedTrackerId(0, 2));
        EXPECT_EQ(sim.terminate(), 0);
    }

    ASSERT_GE(packets.size(), 100u);
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    std::map<uint8_t, std::vector<NvDataPacket>> byBus;
    for (const NvMessage& m : packets)
        byBus[m.busId()].emplace_back(m);
    // The docked tracker does not measure with the master.
    EXPECT_EQ(byBus.size(), 2u);
    EXPECT_EQ(byBus.count(1), 0u);
    for (uint8_t bus : {uint8_t(2), uint8_t(3)}) {
        const std::vector<NvDataPacket>& list = byBus[bus];
        ASSERT_GE(list.size(), 30u) << int(bus);
        const std::string id = nvEmulatedTrackerId(0, bus - 1u).toString();
        std::map<std::pair<uint16_t, uint32_t>, const std::vector<std::string>*> rows;
        for (const auto* row : truth.rowsOf(id)) {
            EXPECT_EQ(truth.text(*row, "kind"), "tracker");
            rows[{uint16_t(truth.number(*row, "counter")),
                  uint32_t(truth.number(*row, "sample_time_fine"))}] = row;
        }
        for (size_t i = 0; i < list.size(); ++i) {
            const NvDataPacket& p = list[i];
            ASSERT_FALSE(p.isMalformed());
            EXPECT_TRUE(p.contains(NDI_QUATERNION));
            EXPECT_TRUE(p.contains(NDI_ACCELERATION));
            EXPECT_EQ(p.packetCounter(), i) << "counters continuous from 0";
            if (i > 0) {
                // 60 Hz on a 10 kHz clock: 166 or 167 ticks apart.
                const uint32_t step = p.sampleTimeFine() - list[i - 1].sampleTimeFine();
                EXPECT_TRUE(step == 166 || step == 167) << step;
            }
            const auto it = rows.find({p.packetCounter(), p.sampleTimeFine()});
            ASSERT_NE(it, rows.end()) << "no truth row for bus " << int(bus);
            EXPECT_EQ(truth.text(*it->second, "status"), "sent");
            double q[4];
            ASSERT_EQ(p.reals(NDI_QUATERNION, q, 4), 4u);
            EXPECT_NEAR(q[0], truth.number(*it->second, "q0"), 1e-6);
            EXPECT_NEAR(q[3], truth.number(*it->second, "q3"), 1e-6);
        }
        // Both trackers sample on the same radio frames.
        EXPECT_EQ(byBus[2].front().sampleTimeFine(), byBus[3].front().sampleTimeFine());
    }
}

TEST_F(KvsimMasterTruth, DroppedPacketsComeBackWithAFlush)
{
    std::map<uint8_t, std::set<int>> live, again;
    uint32_t announced = 0;
    std::vector<std::pair<uint32_t, uint32_t>> progress;
    {
        KvsimProcess sim({"--device", "master:4,rate=120,drop=0.15", "--seed", "21", "--truth",
                          truthPath, "--quiet"});
        ASSERT_TRUE(sim.started()) << sim.stderrText();
        HostPort port(sim.ports()[0].path);
        goToConfig(port);
        radioOn(port, 4);
        ASSERT_EQ(port.request(NvMid::GoToMeasurement).messageId(), NvMid::GoToMeasurementAck);
        port.collect(2500ms);
        goToConfig(port);
        for (const NvMessage& m : port.packets())
            live[m.busId()].insert(NvDataPacket(m).packetCounter());
        port.packets().clear();

        const NvMessage reply = port.request(NvMid::StartFlush);
        ASSERT_EQ(reply.messageId(), NvMid::StartFlushAck);
        announced = reply.readU32(0);
        for (;;) {
            const NvMessage m = port.waitFor(NvMid::FlushProgress, 10s);
            ASSERT_EQ(m.messageId(), NvMid::FlushProgress);
            progress.emplace_back(m.readU32(0), m.readU32(4));
            if (progress.back().first == progress.back().second)
                break;
        }
        for (const NvMessage& m : port.packets())
            again[m.busId()].insert(NvDataPacket(m).packetCounter());
        EXPECT_EQ(sim.terminate(), 0);
    }

    ASSERT_EQ(live.size(), 4u);
    TruthTable truth;
    ASSERT_TRUE(truth.load(truthPath));
    size_t gaps = 0, resent = 0;
    for (uint8_t bus = 1; bus <= 4; ++bus) {
        const std::set<int>& seen = live[bus];
        const std::set<int>& flushed = again[bus];
        ASSERT_FALSE(seen.empty());
        for (int c = 0; c < *seen.rbegin(); ++c)
            gaps += seen.count(c) ? 0 : 1;
        resent += flushed.size();
        // Together they are every counter from 0, each once.
        std::set<int> all = seen;
        for (int c : flushed)
            EXPECT_TRUE(all.insert(c).second) << "sent twice: " << c;
        const int last = *all.rbegin();
        EXPECT_EQ(all.size(), size_t(last + 1)) << "bus " << int(bus);
        // The truth file names the dropped ones.
        std::set<int> dropped;
        for (const auto* row : truth.rowsOf(nvEmulatedTrackerId(0, bus - 1u).toString()))
            if (truth.text(*row, "status") == "dropped")
                dropped.insert(int(truth.number(*row, "counter")));
        EXPECT_EQ(dropped, flushed) << "bus " << int(bus);
    }
    EXPECT_GT(gaps, 100u); // so that progress comes in steps too
    EXPECT_EQ(resent, announced);
    // Only drops after a tracker's last live packet are no gaps.
    EXPECT_GE(announced, gaps);
    EXPECT_LE(announced, gaps + 8);
    ASSERT_GE(progress.size(), 2u);
    for (size_t i = 0; i + 1 < progress.size(); ++i) {
        EXPECT_EQ(progress[i].first, (i + 1) * 100);
        EXPECT_EQ(progress[i].second, announced);
    }
    EXPECT_EQ(progress.back(), std::make_pair(announced, announced));
}

TEST(KvsimMaster, RejectAcceptAndTransportModeCommands)
{
    KvsimProcess sim({"--device", "master:3,reject=1", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    HostPort port(sim.ports()[0].path);
    goToConfig(port);
    const NvDeviceId t0 = nvEmulatedTrackerId(0, 0), t1 = nvEmulatedTrackerId(0, 1),
                     t2 = nvEmulatedTrackerId(0, 2);

    // The last one calls in with firmware the master refuses.
    const std::vector<KvwInfo> calls = radioOn(port, 3);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].deviceId, t2);
    EXPECT_EQ(calls[2].state, NCS_REJECTED);
    EXPECT_EQ(calls[2].rejectReason, NvRejectReason::VersionMismatch);
    EXPECT_EQ(calls[2].busId, 0);
    EXPECT_TRUE(requestOnBus(port, 3, NvMid::ReqDeviceId, {}, 400ms).isEmpty());

    // Accepted by the host, it connects.
    NvMessage reply = port.request(NvMid::TrackerCommand, command(t2, NvTrackerCommand::Accept));
    ASSERT_EQ(reply.messageId(), NvMid::TrackerCommandAck);
    EXPECT_EQ(reply.dataBytes(), command(t2, NvTrackerCommand::Accept));
    std::vector<KvwInfo> status = waitForStatus(port, 1);
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0].deviceId, t2);
    EXPECT_EQ(status[0].state, NCS_WIRELESS);
    EXPECT_EQ(status[0].busId, 3);
    EXPECT_TRUE(status[0].flags & KvwInfo::Accepted);
    EXPECT_EQ(requestOnBus(port, 3, NvMid::ReqDeviceId).busId(), 3);

    // Transport mode: off until the master restarts.
    ASSERT_EQ(port.request(NvMid::TrackerCommand, command(t1, NvTrackerCommand::TransportMode))
                  .messageId(),
              NvMid::TrackerCommandAck);
    status = waitForStatus(port, 1);
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0].deviceId, t1);
    EXPECT_EQ(status[0].state, NCS_DISCONNECTED);
    EXPECT_TRUE(status[0].isInTransportMode());
    EXPECT_EQ(status[0].busId, 0);
    EXPECT_TRUE(requestOnBus(port, 2, NvMid::ReqDeviceId, {}, 400ms).isEmpty());

    // Rejected by the host.
    ASSERT_EQ(
        port.request(NvMid::TrackerCommand, command(t0, NvTrackerCommand::Reject)).messageId(),
        NvMid::TrackerCommandAck);
    status = waitForStatus(port, 1);
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0].state, NCS_REJECTED);
    EXPECT_EQ(status[0].rejectReason, NvRejectReason::Blacklisted);

    std::vector<KvwInfo> list = trackerList(port);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].state, NCS_REJECTED);
    EXPECT_EQ(list[1].state, NCS_DISCONNECTED);
    EXPECT_TRUE(list[1].isInTransportMode());
    EXPECT_EQ(list[2].state, NCS_WIRELESS);

    // Unknown trackers, unknown commands and short requests.
    expectError(port.request(NvMid::TrackerCommand,
                             command(nvEmulatedTrackerId(0, 3), NvTrackerCommand::Accept)),
                NRV_INVALID_PARAMETER);
    expectError(port.request(NvMid::TrackerCommand,
                             command(nvEmulatedDeviceId("master", 0), NvTrackerCommand::Reject)),
                NRV_INVALID_PARAMETER);
    NvByteArray bad = command(t0, NvTrackerCommand::Accept);
    bad.back() = 9;
    expectError(port.request(NvMid::TrackerCommand, bad), NRV_INVALID_PARAMETER);
    bad.pop_back();
    expectError(port.request(NvMid::TrackerCommand, bad), NRV_INVALID_PARAMETER);

    // A restart forgets it all: radio off, nobody connected, no transport flags.
    ASSERT_EQ(port.request(NvMid::Reset).messageId(), NvMid::ResetAck);
    ASSERT_EQ(port.waitFor(NvMid::WakeUp).messageId(), NvMid::WakeUp);
    ASSERT_TRUE(port.send(NvMid::WakeUpAck));
    EXPECT_EQ(port.request(NvMid::ReqRadioChannel).readU8(0), 0);
    list = trackerList(port);
    ASSERT_EQ(list.size(), 3u);
    for (const KvwInfo& r : list) {
        EXPECT_EQ(r.state, NCS_DISCONNECTED);
        EXPECT_EQ(r.flags, 0);
    }
}
