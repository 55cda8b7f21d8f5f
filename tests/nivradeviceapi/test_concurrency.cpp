// Handlers that talk back to the library, and look-ups racing a device that goes away.
#include "controltest.h"

#include <cstdio>
#include <cstdlib>
#include <future>

namespace {

// Runs `f` on its own thread; a call still running after `limit` is a hang, and the test
// program cannot go on (the hung thread holds the control), so it ends here.
template <typename F>
auto mustReturn(F f, const char* what, std::chrono::seconds limit = 20s)
{
    auto future = std::async(std::launch::async, std::move(f));
    if (future.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "%s did not return within %llds: dead-lock\n", what,
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        std::_Exit(3);
    }
    return future.get();
}

// Asks the device for its product code from inside the first report of a message sent to
// it (on the requesting thread), or of a reply received (on the reader thread).
class TalkBack : public Recorder
{
public:
    explicit TalkBack(bool onReceived) : m_onReceived(onReceived) {}

    void onMessageSentToDevice(NvDevice* dev, const NvMessage* message) override
    {
        if (!m_onReceived)
            talkBack(dev, message);
    }
    void onMessageReceivedFromDevice(NvDevice* dev, const NvMessage* message) override
    {
        if (m_onReceived)
            talkBack(dev, message);
    }

    std::atomic<int> nestedResult{-1};
    NvMessage nestedReply;
    std::atomic<bool> done{false};

private:
    void talkBack(NvDevice* dev, const NvMessage* message)
    {
        if (message->messageId() == NvMid::ReqProductCode ||
            message->messageId() == NvMid::ReqProductCode + 1 || m_entered.exchange(true))
            return;
        NvMessage request(NvMessage::BusIdDevice, NvMid::ReqProductCode, {});
        NvMessage reply;
        const int ok = NvDevice_sendCustomMessage(dev, &request, 1, &reply, 3000);
        nestedReply = reply;
        nestedResult = ok ? int(NRV_OK) : int(NvControl_lastResult(nullptr));
        done = true;
    }

    bool m_onReceived;
    std::atomic<bool> m_entered{false};
};

} // namespace

TEST(Concurrency, HandlersThatRequestOnTheSamePortDoNotHang)
{
    KvsimProcess sim({"--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);

    for (const bool onReceived : {false, true}) {
        SCOPED_TRACE(onReceived ? "handler on a received reply" : "handler on a sent request");
        NvControl* control = NvControl_construct();
        NvControl_setReplyTimeout(control, 5000);
        TalkBack handler(onReceived);
        NvControl_addCallbackHandler(control, handler.plainC(), 1);
        NvString name = sim.ports()[0].path;
        ASSERT_TRUE(NvControl_openPort(control, &name, NBR_115200, 0));
        NvControl_setOptions(control, NVO_REPORT_MESSAGES, 0);
        NvDeviceRef dev = nvDeviceRef(control, id);
        ASSERT_TRUE(dev);

        NvMessage outer(NvMessage::BusIdDevice, NvMid::ReqDeviceId, {});
        NvMessage outerReply;
        const int ok = mustReturn(
            [&] { return NvDevice_sendCustomMessage(dev.get(), &outer, 1, &outerReply, 3000); },
            "a request whose sent report makes a request");
        EXPECT_TRUE(ok);
        EXPECT_EQ(outerReply.messageId(), NvMid::ReqDeviceId + 1);
        ASSERT_TRUE(waitUntil([&] { return handler.done.load(); }, 10s));
        if (onReceived) {
            // The reader cannot wait for a reply it would have to read itself.
            EXPECT_EQ(handler.nestedResult.load(), int(NRV_INVALID_STATE));
        } else {
            EXPECT_EQ(handler.nestedResult.load(), int(NRV_OK));
            EXPECT_EQ(handler.nestedReply.messageId(), NvMid::ReqProductCode + 1);
        }
        // The port still answers afterwards.
        NvMessage again;
        EXPECT_TRUE(NvDevice_sendCustomMessage(dev.get(), &outer, 1, &again, 3000));
        dev = NvDeviceRef();
        NvControl_close(control);
        NvControl_destruct(control);
    }
}

TEST(Concurrency, RequestsFromSeveralThreadsEachGetTheirOwnReply)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000);
    NvString name = sim.ports()[0].path;
    ASSERT_TRUE(NvControl_openPort(control, &name, NBR_115200, 0));
    NvDeviceRef dev = nvDeviceRef(control, NvDeviceId::fromString(sim.ports()[0].id));
    ASSERT_TRUE(dev);

    std::atomic<int> wrong{0}, failed{0};
    std::vector<std::thread> threads;
    for (const uint8_t mid :
         {NvMid::ReqDeviceId, NvMid::ReqProductCode, NvMid::ReqFirmwareRevision}) {
        threads.emplace_back([&, mid] {
            for (int i = 0; i < 40; ++i) {
                NvMessage request(NvMessage::BusIdDevice, mid, {});
                NvMessage reply;
                if (!NvDevice_sendCustomMessage(dev.get(), &request, 1, &reply, 3000))
                    ++failed;
                else if (reply.messageId() != mid + 1)
                    ++wrong;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(wrong.load(), 0);
    dev = NvDeviceRef();
    NvControl_close(control);
    NvControl_destruct(control);
}

TEST_F(ControlTest, LookUpAndReferenceRacesAnUnplug)
{
    KvsimProcess lost({"--device", "ahrs", "--disconnect-after", "3", "--quiet"});
    KvsimProcess kept({"--device", "imu:index=1", "--quiet"});
    ASSERT_TRUE(lost.started()) << lost.stderrText();
    ASSERT_TRUE(kept.started()) << kept.stderrText();
    ASSERT_NE(open(lost.ports()[0]), nullptr) << NvControl_lastResultText(control);
    ASSERT_NE(open(kept.ports()[0]), nullptr) << NvControl_lastResultText(control);
    const NvDeviceId lostId = NvDeviceId::fromString(lost.ports()[0].id);
    const NvDeviceId keptId = NvDeviceId::fromString(kept.ports()[0].id);
    ASSERT_TRUE(NvDevice_gotoMeasurement(NvControl_broadcast(control)));

    // Every handle the look-up answers stays usable for as long as it is held, although the
    // reader closes the device on the unplug at any moment in between.
    std::atomic<bool> stop{false};
    std::atomic<long> seen{0};
    std::atomic<int> badIds{0};
    auto lookUp = [&] {
        while (!stop) {
            for (const NvDeviceId& id : {lostId, keptId}) {
                NvDeviceRef dev = nvDeviceRef(control, id);
                if (!dev)
                    continue;
                NvDeviceId got;
                NvDevice_deviceId(dev.get(), &got);
                NvString code;
                NvDevice_productCode(dev.get(), &code);
                NvOutputConfigurationArray config;
                NvDevice_outputConfiguration(dev.get(), &config);
                if (got != id || code.empty())
                    ++badIds;
                NvDevice_deviceState(dev.get());
                ++seen;
            }
            NvDevice* mains[8];
            const int n = NvControl_mainDevicesRef(control, mains, 8);
            for (int i = 0; i < n; ++i) {
                NvDevice_isMeasuring(mains[i]);
                NvDevice_removeRef(mains[i]);
            }
        }
    };
    std::thread a(lookUp), b(lookUp);
    // Mode changes to every device reference each one too.
    std::thread modes([&] {
        while (!stop) {
            NvDevice_gotoConfig(NvControl_broadcast(control));
            NvDevice_gotoMeasurement(NvControl_broadcast(control));
        }
    });
    const bool gone = waitUntil([&] { return NvControl_deviceCount(control) == 1; }, 30s);
    std::this_thread::sleep_for(200ms); // look-ups of the vanished device, too
    stop = true;
    a.join();
    b.join();
    modes.join();
    ASSERT_TRUE(gone);
    EXPECT_GT(seen.load(), 0);
    EXPECT_EQ(badIds.load(), 0);
    EXPECT_FALSE(nvDeviceRef(control, lostId));

    NvDeviceRef kept1 = nvDeviceRef(control, keptId);
    ASSERT_TRUE(kept1);
    const int refs = NvDevice_refCount(kept1.get());
    {
        NvDeviceRef copy = kept1;
        EXPECT_EQ(NvDevice_refCount(kept1.get()), refs + 1);
    }
    EXPECT_EQ(NvDevice_refCount(kept1.get()), refs);
}
