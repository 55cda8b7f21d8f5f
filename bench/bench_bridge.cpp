// The bridge from the library's reader threads to the GUI thread under a full live load:
// kvsim devices at 2000 Hz through NdaControl and one NdaDevice wrapper each, as in the
// application. Prints how often the GUI thread is woken and how many events the bridge
// posts, the packets delivered as signals, and how long a packet takes from the library's
// callback to its signal on the GUI thread.
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "richconfiguration.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage); // this process only: kvsim is a child
    auto seconds = [](const timeval& tv) { return double(tv.tv_sec) + tv.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Counts the events delivered to the bridge objects (what the library threads posted).
class CountingApplication : public QCoreApplication
{
public:
    using QCoreApplication::QCoreApplication;
    bool notify(QObject* receiver, QEvent* event) override
    {
        if (event->type() >= QEvent::User && qobject_cast<NdaCallback*>(receiver))
            ++bridgeEvents;
        return QCoreApplication::notify(receiver, event);
    }
    uint64_t bridgeEvents = 0; // GUI thread only
};

// When each packet left the library, by device and packet counter; called on the reader
// before the wrapper's own handler, which comes after the control's.
class Stamper : public NvCallback
{
public:
    explicit Stamper(std::vector<NvDeviceId> ids) : m_ids(std::move(ids))
    {
        for (size_t i = 0; i < m_ids.size(); ++i)
            m_stamps.push_back(std::make_unique<std::array<std::atomic<int64_t>, 65536>>());
    }
    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket* packet) override
    {
        const int index = indexOf(dev);
        if (index >= 0 && packet)
            (*m_stamps[size_t(index)])[packet->packetCounter()].store(nowNs(),
                                                                      std::memory_order_release);
    }
    int64_t stamp(size_t device, uint16_t counter) const
    {
        return (*m_stamps[device])[counter].load(std::memory_order_acquire);
    }

private:
    int indexOf(NvDevice* dev) const
    {
        NvDeviceId id;
        NvDevice_deviceId(dev, &id);
        for (size_t i = 0; i < m_ids.size(); ++i)
            if (m_ids[i] == id)
                return int(i);
        return -1;
    }
    std::vector<NvDeviceId> m_ids;
    std::vector<std::unique_ptr<std::array<std::atomic<int64_t>, 65536>>> m_stamps;
};

void measure(benchmark::State& state, int deviceCount)
{
    auto* app = static_cast<CountingApplication*>(QCoreApplication::instance());
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
    std::vector<NvDeviceId> ids;
    for (const auto& port : sim.ports())
        ids.push_back(NvDeviceId::fromString(port.id));

    auto control = std::make_unique<NdaControl>();
    NvControl* lib = control->libraryControl();
    NvControl_setReplyTimeout(lib, 5000);
    Stamper stamper(ids);
    NvControl_addCallbackHandler(lib, stamper.plainC(), 1);

    uint64_t controlPackets = 0, wrapperPackets = 0, latencyCount = 0;
    int64_t latencySumNs = 0, latencyMaxNs = 0;
    std::vector<NdaDevice*> wrappers;
    QObject context;
    QObject::connect(control.get(), &NdaCallback::postProcessed, &context,
                     [&](const NvDataPacket&) { ++controlPackets; });
    for (size_t i = 0; i < ids.size(); ++i) {
        NvString name = sim.ports()[i].path;
        NvOutputConfigurationArray config = richConfiguration();
        NvDevice* dev = nullptr;
        if (control->openPort(name, NBR_921600, 0))
            dev = NvControl_device(lib, &ids[i]);
        if (!dev || !NvDevice_setOutputConfiguration(dev, &config)) {
            state.SkipWithError(NvControl_lastResultText(lib));
            NvControl_removeCallbackHandler(lib, stamper.plainC());
            return;
        }
        NdaDevice& wrapper = control->requestDevice(ids[i]);
        wrappers.push_back(&wrapper);
        QObject::connect(&wrapper, &NdaCallback::postProcessed, &context,
                         [&, i](const NvDataPacket& packet) {
                             ++wrapperPackets;
                             const int64_t sent = stamper.stamp(i, packet.packetCounter());
                             if (sent == 0)
                                 return;
                             const int64_t delay = nowNs() - sent;
                             latencySumNs += delay;
                             latencyMaxNs = std::max(latencyMaxNs, delay);
                             ++latencyCount;
                         });
    }
    uint64_t wakeups = 0;
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake,
                     &context, [&] { ++wakeups; });

    for (const NvDeviceId& id : ids)
        control->gotoMeasurement(id);
    QEventLoop loop;
    QTimer::singleShot(500ms, &loop, &QEventLoop::quit); // past the start-up
    loop.exec();

    uint64_t packets = 0, events = 0, woken = 0;
    double cpu = 0, wall = 0;
    for (auto _ : state) {
        const uint64_t p0 = controlPackets, e0 = app->bridgeEvents, w0 = wakeups;
        latencySumNs = latencyMaxNs = 0;
        latencyCount = 0;
        const double c0 = cpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        QTimer::singleShot(5s, Qt::PreciseTimer, &loop, &QEventLoop::quit);
        loop.exec();
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        cpu += cpuSeconds() - c0;
        packets += controlPackets - p0;
        events += app->bridgeEvents - e0;
        woken += wakeups - w0;
    }
    for (NdaDevice* wrapper : wrappers)
        control->releaseDevice(*wrapper);
    control->close();
    NvControl_removeCallbackHandler(lib, stamper.plainC());
    control.reset();

    state.counters["packets_per_s"] = double(packets) / wall;
    state.counters["bridge_events_per_s"] = double(events) / wall;
    state.counters["gui_wakeups_per_s"] = double(woken) / wall;
    state.counters["latency_mean_ms"] =
        latencyCount ? double(latencySumNs) / double(latencyCount) / 1e6 : 0;
    state.counters["latency_max_ms"] = double(latencyMaxNs) / 1e6;
    state.counters["cpu_percent"] = 100 * cpu / wall;
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

int main(int argc, char** argv)
{
    CountingApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
