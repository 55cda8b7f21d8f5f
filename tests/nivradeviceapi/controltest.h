#pragma once
// What the device-library tests share: a recorder of callbacks and a fixture with a
// control whose handler is that recorder.
#include "kvsimharness.h"
#include "nivradeviceapi.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using kvtest::KvsimProcess;

namespace ndatest {

// Records what the library reports, thread-safely.
class Recorder : public NvCallback
{
public:
    struct Missed
    {
        NvDevice* device;
        int count, first, last;
    };
    struct State
    {
        NvDevice* device;
        NvDeviceState newState, oldState;
    };

    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket* packet) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_packets[dev].push_back(*packet);
        ++m_total;
    }
    void onWakeupReceived(NvDevice*) override { ++wakeUps; }
    void onMissedPackets(NvDevice* dev, int count, int first, int last) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_missed.push_back({dev, count, first, last});
    }
    void onError(NvDevice* dev, NvResultValue error) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_errors.emplace_back(dev, error);
    }
    void onDeviceStateChanged(NvDevice* dev, NvDeviceState n, NvDeviceState o) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_states.push_back({dev, n, o});
    }

    void onConnectivityChanged(NvDevice* dev, NvConnectivityState state) override
    {
        KvwInfo info;
        NvDevice_kvwInfo(dev, &info); // what an application fills its event from
        std::lock_guard<std::mutex> lock(m_mutex);
        connectivity.push_back({info.deviceId, state, info});
    }
    void onInfoResponse(NvDevice* dev, NvInfoRequest request) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        infos.emplace_back(dev, request);
    }
    void onProgressUpdated(NvDevice* dev, int current, int total, const NvString* what) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        progress.push_back({dev, current, total, what ? *what : NvString()});
    }
    void onMessageDetected(NvDevice*, NvProtocolType type, const NvByteArray* raw) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        detected.emplace_back(type, *raw);
    }
    void onDataUnavailable(NvDevice* dev, long sampleTime) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        unavailable.emplace_back(dev, sampleTime);
    }
    void onRestoreCommunication(const NvString* port, NvResultValue result) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        restored.emplace_back(port ? *port : NvString(), result);
    }

    struct Connectivity
    {
        NvDeviceId id;
        NvConnectivityState state;
        KvwInfo info;
    };
    struct Progress
    {
        NvDevice* device;
        int current, total;
        NvString what;
    };
    // Snapshot of any of the lists below, under the lock.
    template <typename T>
    T copy(const T& list)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return list;
    }
    std::vector<Connectivity> connectivity;
    std::vector<std::pair<NvDevice*, NvInfoRequest>> infos;
    std::vector<Progress> progress;
    std::vector<std::pair<NvProtocolType, NvByteArray>> detected;
    std::vector<std::pair<NvDevice*, long>> unavailable;
    std::vector<std::pair<NvString, NvResultValue>> restored;

    size_t total()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_total;
    }
    std::vector<NvDataPacket> packets(NvDevice* dev)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_packets[dev];
    }
    size_t packetCount(NvDevice* dev)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_packets[dev].size();
    }
    std::vector<Missed> missed()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_missed;
    }
    std::vector<std::pair<NvDevice*, NvResultValue>> errors()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_errors;
    }
    std::atomic<int> wakeUps{0};

    std::vector<State> states()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_states;
    }

private:
    std::mutex m_mutex;
    std::map<NvDevice*, std::vector<NvDataPacket>> m_packets;
    std::vector<Missed> m_missed;
    std::vector<std::pair<NvDevice*, NvResultValue>> m_errors;
    std::vector<State> m_states;
    size_t m_total = 0;
};

template <typename Pred>
inline bool waitUntil(Pred pred, std::chrono::milliseconds timeout = 30s)
{
    const auto end = kvtest::Clock::now() + timeout;
    while (!pred()) {
        if (kvtest::Clock::now() > end)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

class ControlTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        control = NvControl_construct();
        NvControl_setReplyTimeout(control, 5000); // loaded machines
        NvControl_addCallbackHandler(control, recorder.plainC(), 1);
    }
    void TearDown() override
    {
        NvControl_close(control);
        NvControl_destruct(control);
    }
    NvDevice* open(const KvsimProcess::Port& port)
    {
        NvString name = port.path;
        if (!NvControl_openPort(control, &name, NBR_115200, 0))
            return nullptr;
        NvDeviceId id = NvDeviceId::fromString(port.id);
        return NvControl_device(control, &id);
    }

    NvControl* control = nullptr;
    Recorder recorder;
};

} // namespace ndatest

using ndatest::ControlTest;
using ndatest::Recorder;
using ndatest::waitUntil;
