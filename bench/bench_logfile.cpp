// kvb recordings: load throughput from the page cache (MB/s, packets/s), random access
// to packets, and the writer's CPU cost per 1000 appended packets (caller + writer thread).
//
// The recording (8 devices, the rich 2000 Hz configuration of bench_devicelib) is written
// once into $TMPDIR and removed at exit.

#include "ndalogfile.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int Devices = 8;
constexpr uint64_t TargetBytes = uint64_t(220) << 20;

// What a tracker measuring at 2000 Hz sends: every packet the high-rate items, every
// fifth the orientation, every twentieth magnetic field and temperature.
NvMessage richPacket(uint16_t counter, int device)
{
    NvDataPacketBuilder b;
    const double t = counter * 0.0005 + device;
    b.setPacketCounter(counter);
    b.setSampleTimeFine(uint32_t(counter) * 5u);
    b.setStatusWord(0x3);
    b.setVector3(NDI_ACCELERATION, {0.1 * std::sin(t), 0.2, 9.81});
    b.setVector3(NDI_RATE_OF_TURN, {0.01, 0.02 * std::cos(t), -0.03});
    b.setVector3(NDI_ACCELERATION_HR, {0.11, 0.21, 9.8});
    b.setVector3(NDI_RATE_OF_TURN_HR, {0.011, 0.021, -0.031});
    b.setDeltaQ(NvQuaternion::fromEuler({0.001, 0.002, 0.003}));
    b.setVector3(NDI_DELTA_V, {0.0001, 0.0002, 0.0049});
    if (counter % 5 == 0) {
        b.setQuaternion(NvQuaternion::fromEuler({10, 20, 30.0 + counter % 90}));
        b.setVector3(NDI_FREE_ACCELERATION, {0.1, -0.2, 0.0});
    }
    if (counter % 20 == 0) {
        b.setVector3(NDI_MAGNETIC_FIELD, {0.4, 0.1, -0.9});
        b.setTemperature(24.5);
    }
    return b.toMessage();
}

// 2000 distinct packets per device, sent round robin: realistic sizes and contents
// without building a million packets.
struct Frames
{
    std::vector<std::vector<NvMessage>> perDevice;
    Frames() : perDevice(Devices)
    {
        for (int d = 0; d < Devices; ++d)
            for (uint16_t i = 0; i < 2000; ++i)
                perDevice[size_t(d)].push_back(richPacket(i, d));
    }
};

const Frames& frames()
{
    static const Frames f;
    return f;
}

std::string tempDir()
{
    static std::string dir = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/kvlogbench-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        std::string made = ::mkdtemp(name.data());
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(tempDir(), ec);
        });
        return made;
    }();
    return dir;
}

// Appends `packets` packets round robin over the devices; returns the file.
std::string record(const std::string& name, uint64_t packets, uint64_t targetBytes = 0)
{
    const std::string path = tempDir() + "/" + name;
    nda::LogWriter w;
    if (w.create(path) != NRV_OK)
        std::abort();
    uint8_t bus[Devices];
    for (int d = 0; d < Devices; ++d)
        bus[d] = w.addDevice(nvEmulatedDeviceId("ahrs", unsigned(d)), {});
    const Frames& f = frames();
    uint64_t bytes = 0;
    for (uint64_t i = 0; targetBytes ? bytes < targetBytes : i < packets; ++i) {
        const int d = int(i % Devices);
        const NvMessage& m = f.perDevice[size_t(d)][(i / Devices) % 2000];
        w.append(bus[d], m.frame(), m.frameSize());
        bytes += m.frameSize();
        // Let the writer keep up rather than buffer everything (as live data would).
        if (i % 65536 == 65535)
            while (w.bytesWritten() + (64u << 20) < bytes)
                usleep(1000);
    }
    if (w.close() != NRV_OK)
        std::abort();
    return path;
}

const std::string& bigRecording()
{
    static const std::string path = record("big.kvb", 0, TargetBytes);
    return path;
}

void BM_Load(benchmark::State& state)
{
    const std::string& path = bigRecording();
    uint64_t bytes = 0, packets = 0;
    for (auto _ : state) {
        nda::LogReader r;
        if (r.open(path) != NRV_OK || r.load() != NRV_OK) {
            state.SkipWithError("load failed");
            break;
        }
        bytes += r.fileSize();
        for (size_t d = 0; d < r.devices().size(); ++d)
            packets += r.packetCount(d);
        benchmark::DoNotOptimize(r.packetFrame(0, 0, nullptr));
    }
    state.SetBytesProcessed(int64_t(bytes));
    state.counters["packets/s"] = benchmark::Counter(double(packets), benchmark::Counter::kIsRate);
    state.counters["file MB"] = double(std::filesystem::file_size(path)) / 1e6;
}
BENCHMARK(BM_Load)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3);

// Playback and export: a packet by index, decoded from the shared buffer.
void BM_PacketByIndex(benchmark::State& state)
{
    static nda::LogReader* reader = [] {
        auto* r = new nda::LogReader;
        if (r->open(bigRecording()) != NRV_OK || r->load() != NRV_OK)
            std::abort();
        return r;
    }();
    std::mt19937 rng(1);
    const size_t count = reader->packetCount(3);
    double sum = 0;
    for (auto _ : state) {
        const NvDataPacket p = reader->packet(3, rng() % count);
        sum += p.acceleration().z + p.packetCounter();
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_PacketByIndex);

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

// CPU of the whole process (appending thread and writer thread, write() and fdatasync
// included) per 1000 packets, for a recording of 2 M packets.
void BM_WriterCpu(benchmark::State& state)
{
    constexpr uint64_t Packets = 2'000'000;
    double cpu = 0;
    uint64_t packets = 0;
    for (auto _ : state) {
        const double before = cpuSeconds();
        const std::string path = record("writer.kvb", Packets);
        cpu += cpuSeconds() - before;
        packets += Packets;
        state.PauseTiming();
        std::filesystem::remove(path);
        state.ResumeTiming();
    }
    state.counters["CPU ms per 1000 packets"] = cpu * 1e3 / (double(packets) / 1000);
    state.counters["packets/s"] = benchmark::Counter(double(packets), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_WriterCpu)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

} // namespace

int main(int argc, char** argv)
{
    frames();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
