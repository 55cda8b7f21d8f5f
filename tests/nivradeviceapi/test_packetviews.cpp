// Live packets are decoded in place in the reader's buffer. What a handler reads from such
// a packet, what it keeps (a copy, NvPacket_copy) and a fresh decode of the same frame
// agree for every kvsim kind with every item it supports, also when the device is
// reconfigured mid-stream; the copies stay whole after the port and its buffer are gone.
#include "controltest.h"
#include "fulloutput.h"

#include <memory>

namespace {

// Everything a packet answers, as numbers.
std::vector<double> everything(const NvDataPacket& p)
{
    std::vector<double> out{double(p.itemCount()), double(p.dataSize()), double(p.busId()),
                            double(p.isMalformed())};
    for (size_t i = 0; i < p.itemCount(); ++i) {
        const NvDataPacket::Item& it = p.item(i);
        out.insert(out.end(), {double(it.id), double(it.offset), double(it.size)});
        out.insert(out.end(), p.itemPayload(i), p.itemPayload(i) + it.size);
        double reals[16];
        out.insert(out.end(), reals, reals + p.reals(it.id, reals, 16));
    }
    const NvQuaternion q = p.orientationQuaternion(NCF_NED);
    const NvEuler e = p.orientationEuler();
    const NvLatLon ll = p.latLon();
    for (const NvVector3& v :
         {p.acceleration(), p.vector3(NDI_RATE_OF_TURN, NCF_NWU), p.magneticField(),
          p.freeAcceleration(), p.velocity(), p.positionEcef()})
        out.insert(out.end(), {v.x, v.y, v.z});
    out.insert(out.end(),
               {double(p.packetCounter()), double(p.sampleTimeFine()), q.w, q.x, q.y, q.z, e.roll,
                e.pitch, e.yaw, ll.latitude, ll.longitude, p.altitudeEllipsoid(), p.temperature(),
                double(p.statusWord()), double(p.gnssPvt().lat),
                double(p.gnssSatInfo().satellites.size()), double(p.utcTime().nanoseconds)});
    return out;
}

// Keeps, per device, what the handler saw in each packet and what it kept of it.
class Keeper : public NvCallback
{
public:
    struct Kept
    {
        bool borrowed = false;
        std::vector<double> seen;
        NvDataPacket copy;
        std::shared_ptr<NvCbDataPacket> plainCopy;
        NvByteArray frame;
    };

    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket* packet) override
    {
        Kept k;
        k.borrowed = packet->isBorrowed();
        k.seen = everything(*packet);
        k.copy = *packet;
        k.plainCopy.reset(NvPacket_copy(packet), NvPacket_delete);
        k.frame = packet->message().frameBytes();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_kept[dev].push_back(std::move(k));
    }
    size_t count(NvDevice* dev)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_kept[dev].size();
    }
    std::map<NvDevice*, std::vector<Kept>> take()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::move(m_kept);
    }

private:
    std::mutex m_mutex;
    std::map<NvDevice*, std::vector<Kept>> m_kept;
};

class PacketViewTest : public ControlTest
{
protected:
    void SetUp() override
    {
        ControlTest::SetUp();
        NvControl_addCallbackHandler(control, keeper.plainC(), 1);
    }
    Keeper keeper; // outlives the control's last callback
};

} // namespace

TEST_F(PacketViewTest, LivePacketsReadInPlaceAgreeWithTheirCopiesForEveryKindAndLayout)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--device", "gnss", "--device",
                      "legacy", "--device", "master:2", "--seed", "5", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    std::vector<NvDevice*> ports;   // what takes GoToMeasurement
    std::vector<NvDevice*> sources; // what sends packets
    std::set<NvDevice*> trackers;
    for (const auto& port : sim.ports()) {
        NvDevice* dev = open(port);
        ASSERT_NE(dev, nullptr) << port.kind << ": " << NvControl_lastResultText(control);
        ports.push_back(dev);
        if (!NvDevice_isMasterDevice(dev)) {
            sources.push_back(dev);
            continue;
        }
        ASSERT_TRUE(NvDevice_enableRadio(dev, 12));
        for (uint32_t slot = 0; slot < 2; ++slot) {
            NvDeviceId id = nvEmulatedTrackerId(0, slot);
            ASSERT_TRUE(waitUntil([&] { return NvControl_device(control, &id) != nullptr; }));
            sources.push_back(NvControl_device(control, &id));
            trackers.insert(sources.back());
        }
    }
    // Default output first, then every item: the layouts change under the reader.
    auto measure = [&](size_t atLeast, std::chrono::milliseconds more) {
        for (NvDevice* dev : ports)
            ASSERT_TRUE(NvDevice_gotoMeasurement(dev)) << NvControl_lastResultText(control);
        for (NvDevice* dev : sources)
            ASSERT_TRUE(waitUntil([&] { return keeper.count(dev) >= atLeast; }));
        std::this_thread::sleep_for(more);
        for (NvDevice* dev : ports)
            ASSERT_TRUE(NvDevice_gotoConfig(dev)) << NvControl_lastResultText(control);
    };
    measure(20, 0ms);
    std::map<NvDevice*, std::set<NvDataIdentifier>> configured;
    for (NvDevice* dev : sources) {
        ASSERT_GT(ndatest::configureFullOutput(dev), 6u) << NvControl_lastResultText(control);
        NvOutputConfigurationArray applied;
        NvDevice_outputConfiguration(dev, &applied);
        for (const NvOutputConfiguration& item : applied)
            configured[dev].insert(nvQuantity(item.dataIdentifier));
    }
    // Past a second, so that the GNSS records (1 Hz) come too.
    measure(120, 1200ms);
    // The readers and their buffers go away; what was kept must not read them.
    NvControl_close(control);
    sim.terminate();

    auto kept = keeper.take();
    for (NvDevice* dev : sources) {
        const std::vector<Keeper::Kept>& list = kept[dev];
        ASSERT_GE(list.size(), 120u);
        std::set<std::vector<NvDataIdentifier>> layouts;
        std::set<NvDataIdentifier> seen;
        for (size_t i = 0; i < list.size(); ++i) {
            const Keeper::Kept& k = list[i];
            SCOPED_TRACE("packet " + std::to_string(i));
            ASSERT_TRUE(k.borrowed);
            ASSERT_FALSE(k.copy.isBorrowed());
            ASSERT_EQ(everything(k.copy), k.seen);
            ASSERT_EQ(everything(*k.plainCopy), k.seen);
            ASSERT_EQ(everything(NvDataPacket::fromFrame(k.frame.data(), k.frame.size())), k.seen);
            std::vector<NvDataIdentifier> ids;
            for (size_t n = 0; n < k.copy.itemCount(); ++n) {
                ids.push_back(k.copy.item(n).id);
                seen.insert(nvQuantity(k.copy.item(n).id));
            }
            layouts.insert(ids);
        }
        // Every configured item came; the default output, then every item with the slower
        // ones riding in some packets only (a tracker sends all of them in every packet).
        for (NvDataIdentifier q : configured[dev])
            EXPECT_TRUE(seen.count(q)) << nvDataIdentifierName(q);
        EXPECT_GE(layouts.size(), trackers.count(dev) ? 2u : 3u);
    }
}
