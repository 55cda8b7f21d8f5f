// Wireless masters through the library: trackers behind the master's port become devices
// of their own, connect and disconnect with the radio and the master's commands, and
// stream when the master measures.
#include "controltest.h"

#include <algorithm>
#include <map>
#include <set>

namespace {

class WirelessTest : public ControlTest
{
protected:
    NvDevice* openMaster(const KvsimProcess::Port& port)
    {
        NvDevice* master = open(port);
        if (master)
            masterId = NvDeviceId::fromString(port.id);
        return master;
    }
    size_t countOf(NvConnectivityState state)
    {
        size_t n = 0;
        for (const auto& c : recorder.copy(recorder.connectivity))
            n += c.state == state;
        return n;
    }
    NvDevice* tracker(uint32_t slot, uint32_t masterIndex = 0)
    {
        const NvDeviceId id = nvEmulatedTrackerId(masterIndex, slot);
        return NvControl_device(control, &id);
    }
    NvDeviceId masterId;
};

} // namespace

TEST_F(WirelessTest, DockedAndWirelessTrackersBecomeDevicesBehindTheMaster)
{
    KvsimProcess sim({"--device", "master:4,docked=1", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* master = openMaster(sim.ports()[0]);
    ASSERT_NE(master, nullptr) << NvControl_lastResultText(control);
    EXPECT_TRUE(NvDevice_isMasterDevice(master));
    EXPECT_FALSE(NvDevice_isRadioEnabled(master));
    EXPECT_EQ(NvDevice_updateRate(master), 100);

    // The docked tracker is there when openPort returns, identified through the master.
    NvDevice* docked = tracker(0);
    ASSERT_NE(docked, nullptr);
    EXPECT_EQ(NvDevice_masterDevice(docked), master);
    EXPECT_EQ(NvDevice_busId(docked), 1);
    EXPECT_EQ(NvDevice_connectivityState(docked), NCS_PLUGGED_IN);
    NvString code;
    NvDevice_productCode(docked, &code);
    EXPECT_EQ(code, "KVW-2");
    NvVersion firmware;
    NvDevice_firmwareVersion(docked, &firmware);
    EXPECT_EQ(firmware.major, 2);
    const NvDeviceId dockedId = nvEmulatedTrackerId(0, 0);
    EXPECT_TRUE(NvControl_isDeviceDocked(control, &dockedId));
    EXPECT_FALSE(NvControl_isDeviceWireless(control, &dockedId));
    NvDeviceId dock;
    NvControl_dockDeviceId(control, &dockedId, &dock);
    EXPECT_EQ(dock, masterId);
    NvDeviceIdArray mains, all;
    NvControl_mainDeviceIds(control, &mains);
    NvControl_deviceIds(control, &all);
    EXPECT_EQ(mains, NvDeviceIdArray{masterId});
    EXPECT_EQ(all.size(), 2u);

    // Channels outside 11..25 are refused before they reach the device.
    EXPECT_FALSE(NvDevice_enableRadio(master, 26));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_CHANNEL);
    EXPECT_FALSE(NvDevice_enableRadio(docked, 12));
    EXPECT_EQ(NvControl_lastResult(control), NRV_NOT_A_MASTER);

    // Radio on: the three others connect, each reported once it is identified.
    ASSERT_TRUE(NvDevice_enableRadio(master, 15)) << NvControl_lastResultText(control);
    EXPECT_EQ(NvDevice_radioChannel(master), 15);
    ASSERT_TRUE(waitUntil([&] { return countOf(NCS_WIRELESS) == 3; }, 15s));
    for (const auto& c : recorder.copy(recorder.connectivity)) {
        EXPECT_EQ(c.info.masterId, masterId);
        EXPECT_EQ(c.info.busId == 1, c.state == NCS_PLUGGED_IN);
    }
    NvControl_deviceIds(control, &all);
    EXPECT_EQ(all.size(), 5u);
    for (uint32_t slot = 1; slot < 4; ++slot) {
        NvDevice* t = tracker(slot);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(NvDevice_busId(t), int(slot + 1));
        EXPECT_EQ(NvDevice_connectivityState(t), NCS_WIRELESS);
        NvDevice_productCode(t, &code);
        EXPECT_EQ(code, "KVW-2");
    }
    std::vector<KvwInfo> records;
    NvDevice_trackerInfos(master, &records);
    EXPECT_EQ(records.size(), 4u);
    EXPECT_EQ(NvDevice_freeSlots(master), 7); // 100 Hz carries ten; the docked one needs none

    // Rates follow the master; one it does not offer is refused and the old one stays.
    NvIntArray rates;
    NvDevice_supportedUpdateRates(master, NDI_QUATERNION, &rates);
    EXPECT_EQ(rates, (NvIntArray{40, 60, 80, 100, 120}));
    EXPECT_EQ(NvDevice_maximumUpdateRate(tracker(1)), 120);
    EXPECT_FALSE(NvDevice_setUpdateRate(master, 50));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    ASSERT_TRUE(NvDevice_setUpdateRate(master, 60));
    EXPECT_EQ(NvDevice_updateRate(master), 60);
    EXPECT_EQ(NvDevice_freeSlots(master), 29);

    // Battery and signal arrive with the master's link reports.
    ASSERT_TRUE(waitUntil(
        [&] {
            for (const auto& i : recorder.copy(recorder.infos))
                if (i.second == NIR_BATTERY_LEVEL && i.first == tracker(2))
                    return true;
            return false;
        },
        10s));
    EXPECT_GE(NvDevice_batteryLevel(tracker(2)), 0);
    EXPECT_LE(NvDevice_lastKnownRssi(tracker(2)), -40);
    EXPECT_GE(NvDevice_lastKnownRssi(tracker(2)), -80);
    EXPECT_TRUE(NvDevice_requestBatteryLevel(docked));
    EXPECT_FALSE(NvDevice_requestBatteryLevel(master));

    // Radio off: the wireless trackers disconnect and are closed; the docked one stays.
    ASSERT_TRUE(NvDevice_disableRadio(master));
    ASSERT_TRUE(waitUntil([&] { return countOf(NCS_DISCONNECTED) == 3; }, 10s));
    ASSERT_TRUE(waitUntil([&] { return NvControl_deviceCount(control) == 2; }));
    EXPECT_EQ(NvDevice_freeSlots(master), 32); // each gave its slot back
    EXPECT_NE(tracker(0), nullptr);
    EXPECT_EQ(tracker(1), nullptr);

    // Closing the master closes what is behind it.
    NvControl_close(control);
    EXPECT_EQ(NvControl_deviceCount(control), 0);
    std::set<NvDevice*> destroyed;
    for (const auto& s : recorder.states())
        if (s.newState == NDS_DESTRUCTING)
            destroyed.insert(s.device);
    EXPECT_EQ(destroyed.size(), 5u); // master, docked one, three that disconnected
}

TEST_F(WirelessTest, MasterMeasurementStreamsEachTrackerAndMissedPacketsComeBackInAFlush)
{
    const std::string dir = kvtest::makeTempDir();
    KvsimProcess sim({"--device", "master:3,docked=1,rate=120,drop=0.1", "--seed", "7", "--truth",
                      dir + "/truth.csv", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* master = openMaster(sim.ports()[0]);
    ASSERT_NE(master, nullptr) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_enableRadio(master, 20));
    ASSERT_TRUE(waitUntil([&] { return countOf(NCS_WIRELESS) == 2; }, 15s));

    ASSERT_TRUE(NvDevice_gotoMeasurement(master)) << NvControl_lastResultText(control);
    EXPECT_TRUE(NvDevice_isMeasuring(tracker(1)));
    EXPECT_TRUE(NvDevice_isMeasuring(tracker(2)));
    EXPECT_FALSE(NvDevice_isMeasuring(tracker(0))); // docked trackers stay out of it
    ASSERT_TRUE(waitUntil([&] { return recorder.packetCount(tracker(2)) >= 120; }, 15s));
    ASSERT_TRUE(NvDevice_gotoConfig(master));
    EXPECT_TRUE(NvDevice_isInConfigMode(tracker(1)));
    EXPECT_EQ(recorder.packetCount(tracker(0)), 0u);
    EXPECT_EQ(recorder.packetCount(master), 0u);

    // Every packet came with its tracker's bus id; the gaps are reported per tracker.
    int missed = 0;
    for (const auto& m : recorder.missed()) {
        EXPECT_TRUE(m.device == tracker(1) || m.device == tracker(2));
        missed += m.count;
    }
    for (uint32_t slot : {1u, 2u})
        for (const NvDataPacket& p : recorder.packets(tracker(slot)))
            ASSERT_EQ(p.busId(), slot + 1);
    ASSERT_GT(missed, 0);

    // A flush sends the dropped packets again, reporting progress until done == total;
    // each comes back into a gap that was reported, or after the last packet seen.
    std::map<NvDevice*, size_t> seen;
    for (uint32_t slot : {1u, 2u})
        seen[tracker(slot)] = recorder.packetCount(tracker(slot));
    const size_t gapsBefore = recorder.missed().size();
    NvMessage start = NvMessage::toDevice(NvMid::StartFlush), reply;
    ASSERT_TRUE(NvDevice_sendCustomMessage(master, &start, 1, &reply, 0));
    const int total = int(reply.readU32(0));
    ASSERT_GT(total, 0);
    ASSERT_TRUE(waitUntil(
        [&] {
            const auto progress = recorder.copy(recorder.progress);
            return !progress.empty() && progress.back().current == progress.back().total;
        },
        15s));
    for (const auto& p : recorder.copy(recorder.progress)) {
        EXPECT_EQ(p.device, master);
        EXPECT_EQ(p.what, "Flushing");
        EXPECT_EQ(p.total, total);
    }
    ASSERT_TRUE(waitUntil([&] {
        return recorder.packetCount(tracker(1)) + recorder.packetCount(tracker(2)) ==
               seen[tracker(1)] + seen[tracker(2)] + size_t(total);
    }));
    const auto gaps = recorder.missed();
    EXPECT_EQ(gaps.size(), gapsBefore); // retransmissions are no gaps of their own
    for (uint32_t slot : {1u, 2u}) {
        const auto packets = recorder.packets(tracker(slot));
        const uint16_t lastLive = packets[seen[tracker(slot)] - 1].packetCounter();
        for (size_t i = seen[tracker(slot)]; i < packets.size(); ++i) {
            const int c = packets[i].packetCounter();
            const bool inGap = std::any_of(gaps.begin(), gaps.end(), [&](const auto& g) {
                return g.device == tracker(slot) && c >= g.first && c <= g.last;
            });
            EXPECT_TRUE(inGap || c > lastLive) << "counter " << c;
        }
    }
    kvtest::removeTree(dir);
    NvControl_close(control);
}

TEST_F(WirelessTest, RejectAcceptAndTransportModeChangeWhatIsConnected)
{
    KvsimProcess sim({"--device", "master:3,reject=1", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* master = openMaster(sim.ports()[0]);
    ASSERT_NE(master, nullptr) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_enableRadio(master, 11));
    ASSERT_TRUE(
        waitUntil([&] { return countOf(NCS_WIRELESS) == 2 && countOf(NCS_REJECTED) == 1; }, 15s));
    // The refused tracker is reported (with its record) but is no device.
    const NvDeviceId refusedId = nvEmulatedTrackerId(0, 2);
    EXPECT_EQ(NvControl_device(control, &refusedId), nullptr);
    for (const auto& c : recorder.copy(recorder.connectivity))
        if (c.state == NCS_REJECTED) {
            EXPECT_EQ(c.id, refusedId);
            EXPECT_EQ(c.info.rejectReason, NvRejectReason::VersionMismatch);
        }

    ASSERT_TRUE(NvDevice_setDeviceAccepted(master, &refusedId))
        << NvControl_lastResultText(control);
    ASSERT_TRUE(waitUntil([&] { return countOf(NCS_WIRELESS) == 3; }, 15s));
    ASSERT_TRUE(waitUntil([&] { return NvControl_device(control, &refusedId) != nullptr; }));

    const NvDeviceId firstId = nvEmulatedTrackerId(0, 0);
    ASSERT_TRUE(NvDevice_setDeviceRejected(master, &firstId));
    ASSERT_TRUE(waitUntil([&] { return NvControl_device(control, &firstId) == nullptr; }));
    std::vector<KvwInfo> records;
    NvDevice_trackerInfos(master, &records);
    auto record = std::find_if(records.begin(), records.end(),
                               [&](const KvwInfo& r) { return r.deviceId == firstId; });
    ASSERT_NE(record, records.end());
    EXPECT_EQ(record->state, NCS_REJECTED);

    NvDevice* second = tracker(1);
    ASSERT_NE(second, nullptr);
    ASSERT_TRUE(NvDevice_setTransportMode(second, 1)) << NvControl_lastResultText(control);
    const NvDeviceId secondId = nvEmulatedTrackerId(0, 1);
    ASSERT_TRUE(waitUntil([&] { return NvControl_device(control, &secondId) == nullptr; }));

    const NvDeviceId stranger = nvEmulatedTrackerId(5, 0);
    EXPECT_FALSE(NvDevice_setDeviceAccepted(master, &stranger));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_PARAMETER);
    NvControl_close(control);
}

TEST_F(WirelessTest, TwoMastersCannotShareAChannelAndALostMasterTakesItsTrackers)
{
    KvsimProcess sim(
        {"--device", "master:2,docked=2", "--device", "master:1,disconnect=3", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* a = openMaster(sim.ports()[0]);
    NvDevice* b = openMaster(sim.ports()[1]);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_TRUE(NvDevice_enableRadio(a, 14));
    EXPECT_FALSE(NvDevice_enableRadio(b, 14));
    EXPECT_EQ(NvControl_lastResult(control), NRV_CHANNEL_IN_USE);
    ASSERT_TRUE(NvDevice_enableRadio(b, 16));
    ASSERT_TRUE(waitUntil([&] { return tracker(0, 1) != nullptr; }, 15s));
    ASSERT_TRUE(NvDevice_gotoMeasurement(b));

    // The second master's port goes away: it and its tracker are closed, the first stays.
    ASSERT_TRUE(waitUntil([&] { return NvControl_deviceCount(control) == 3; }, 15s));
    EXPECT_NE(tracker(0, 0), nullptr);
    EXPECT_NE(tracker(1, 0), nullptr);
    EXPECT_EQ(tracker(0, 1), nullptr);
    bool lost = false;
    for (const auto& e : recorder.errors())
        lost = lost || e.second == NRV_UNEXPECTED_DISCONNECT;
    EXPECT_TRUE(lost);
    NvControl_close(control);
}
