// Live-data throughput of the device library against kvsim devices measuring at 2000 Hz:
// packets per second through the callback and the library process's CPU time.
#include "kvsimharness.h"
#include "nivradeviceapi.h"
#include "richconfiguration.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <sys/resource.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

class Counter : public NvCallback
{
public:
    void onLiveDataAvailable(NvDevice*, const NvDataPacket*) override
    {
        packets.fetch_add(1, std::memory_order_relaxed);
    }
    void onMissedPackets(NvDevice*, int count, int, int) override { missed += count; }
    std::atomic<uint64_t> packets{0};
    std::atomic<uint64_t> missed{0};
};

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage); // this process only: kvsim is a child
    auto seconds = [](const timeval& tv) { return double(tv.tv_sec) + tv.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void measure(benchmark::State& state, int deviceCount)
{
    std::vector<std::string> args{"--quiet"};
    for (int i = 0; i < deviceCount; ++i) {
        args.push_back("--device");
        args.push_back("ahrs:index=" + std::to_string(i));
    }
    kvtest::KvsimProcess sim(args);
    if (!sim.started()) {
        state.SkipWithError("kvsim did not start");
        return;
    }
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000);
    Counter counter;
    NvControl_addCallbackHandler(control, counter.plainC(), 1);
    std::vector<NvDevice*> devices;
    for (const auto& port : sim.ports()) {
        NvString name = port.path;
        NvDeviceId id = NvDeviceId::fromString(port.id);
        NvOutputConfigurationArray config = richConfiguration();
        NvDevice* dev = nullptr;
        if (NvControl_openPort(control, &name, NBR_921600, 0))
            dev = NvControl_device(control, &id);
        if (!dev || !NvDevice_setOutputConfiguration(dev, &config)) {
            state.SkipWithError(NvControl_lastResultText(control));
            NvControl_destruct(control);
            return;
        }
        devices.push_back(dev);
    }
    for (NvDevice* dev : devices)
        NvDevice_gotoMeasurement(dev);
    std::this_thread::sleep_for(500ms); // past the start-up

    uint64_t packets = 0, missed = 0;
    double cpu = 0, wall = 0;
    for (auto _ : state) {
        const uint64_t p0 = counter.packets, m0 = counter.missed;
        const double c0 = cpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(5s);
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        cpu += cpuSeconds() - c0;
        packets += counter.packets - p0;
        missed += counter.missed - m0;
    }
    uint64_t checksumErrors = 0;
    for (NvDevice* dev : devices)
        checksumErrors += NvDevice_checksumErrors(dev);
    NvControl_close(control);
    NvControl_destruct(control);

    state.counters["packets_per_s"] = double(packets) / wall;
    state.counters["cpu_ms_per_1000_packets"] = packets ? cpu * 1e6 / double(packets) : 0;
    state.counters["cpu_percent"] = 100 * cpu / wall;
    state.counters["missed"] = double(missed);
    state.counters["checksum_errors"] = double(checksumErrors);
}

void BM_OneDevice2000Hz(benchmark::State& state)
{
    measure(state, 1);
}
void BM_EightDevices2000Hz(benchmark::State& state)
{
    measure(state, 8);
}

} // namespace

BENCHMARK(BM_OneDevice2000Hz)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_EightDevices2000Hz)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK_MAIN();
