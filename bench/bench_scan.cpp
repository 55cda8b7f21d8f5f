// Scanning: a full scan with rate detection of four emulated devices among eight silent
// pseudo-terminals (ports with nothing behind them, as most of a machine's are), and the
// time from NvScanner_abortScan to the end of a running scan.
#include "fakeport.h"
#include "kvsimharness.h"
#include "nivradeviceapi.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// kvsim with an imu, an ahrs, a gnss unit and a legacy tracker, announced in its own
// runtime folder, plus eight silent ports in NV_EXTRA_PORTS; no system ports.
class Setup
{
public:
    Setup()
        : m_sim({"--device", "imu", "--device", "ahrs", "--device", "gnss", "--device", "legacy",
                 "--quiet"})
    {
        std::string extra;
        for (int i = 0; i < 8; ++i) {
            m_silent.push_back(std::make_unique<kvtest::FakePort>(kvtest::FakePort::Silent));
            extra += (extra.empty() ? "" : ":") + m_silent.back()->path;
        }
        setenv("XDG_RUNTIME_DIR", m_sim.runtimeDir().c_str(), 1);
        setenv("NV_EXTRA_PORTS", extra.c_str(), 1);
        setenv("NV_SCAN_SYSTEM_PORTS", "0", 1);
    }
    bool ok() const
    {
        if (!m_sim.started())
            return false;
        for (const auto& port : m_silent)
            if (!port->isOpen())
                return false;
        return true;
    }

private:
    kvtest::KvsimProcess m_sim;
    std::vector<std::unique_ptr<kvtest::FakePort>> m_silent;
};

// The application's scan: rate detection, RS-485 detection, scan time 1000 ms
// (rs485Compatibility on) or 0 (off).
void BM_FullScan(benchmark::State& state)
{
    Setup setup;
    if (!setup.ok()) {
        state.SkipWithError("kvsim or the pseudo-terminals did not start");
        return;
    }
    const unsigned scanTime = unsigned(state.range(0));
    const int rs485 = scanTime > 0;
    double total = 0;
    for (auto _ : state) {
        NvPortInfoArray found;
        const auto t0 = Clock::now();
        NvScanner_scanPorts(&found, NBR_DETECT, scanTime, 1, rs485);
        const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        state.SetIterationTime(seconds);
        total += seconds;
        if (found.size() != 4) {
            state.SkipWithError("the scan did not find the four devices");
            return;
        }
    }
    state.counters["s_per_scan"] = total / double(state.iterations());
}

// From the abort to the scan's return, the abort given while the silent ports wait.
void BM_AbortToEnd(benchmark::State& state)
{
    Setup setup;
    if (!setup.ok()) {
        state.SkipWithError("kvsim or the pseudo-terminals did not start");
        return;
    }
    double total = 0;
    for (auto _ : state) {
        Clock::time_point ended;
        std::thread scan([&ended] {
            NvPortInfoArray found;
            NvScanner_scanPorts(&found, NBR_DETECT, 1000, 1, 1);
            ended = Clock::now();
        });
        std::this_thread::sleep_for(150ms);
        const auto aborted = Clock::now();
        NvScanner_abortScan();
        scan.join();
        const double seconds = std::chrono::duration<double>(ended - aborted).count();
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["ms_abort_to_end"] = 1000 * total / double(state.iterations());
}

} // namespace

BENCHMARK(BM_FullScan)
    ->Arg(1000)
    ->Arg(0)
    ->Iterations(10)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AbortToEnd)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
