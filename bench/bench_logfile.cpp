// kvb recordings: load throughput (MB/s, packets/s) from the page cache (warm) and from
// the disk (cold), mapped and read into memory, with what the index costs per packet;
// random access to packets; the writer's CPU cost per 1000 appended packets (caller +
// writer thread).
//
// The recording (8 devices, the rich 2000 Hz configuration of bench_devicelib) is written
// once into a folder of its own in $TMPDIR, which goes at exit, also after a failed check
// or an interrupting signal.

#include "ndalogfile.h"

#include <benchmark/benchmark.h>

#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <random>
#include <string>
#include <sys/mman.h>
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

// The folder and the files the benchmarks write. Removing them takes only unlink and
// rmdir, so that a signal handler can do it too.
class Scratch
{
public:
    static Scratch& get()
    {
        static Scratch* s = new Scratch; // never destroyed: used by atexit and signals
        return *s;
    }
    // A path in the folder for one of the names the benchmarks use.
    std::string path(const char* name) const { return std::string(m_dir) + "/" + name; }
    // Async-signal-safe.
    void remove() const
    {
        char file[PATH_MAX];
        for (const char* name : Names) {
            if (std::strlen(m_dir) + std::strlen(name) + 2 > sizeof file)
                continue;
            std::strcpy(file, m_dir);
            std::strcat(file, "/");
            std::strcat(file, name);
            ::unlink(file);
        }
        ::rmdir(m_dir);
    }

    static constexpr const char* Names[] = {"big.kvb", "cold.kvb", "writer.kvb"};

private:
    Scratch()
    {
        const char* base = std::getenv("TMPDIR");
        const std::string pattern =
            std::string(base && *base ? base : "/tmp") + "/kvlogbench-XXXXXX";
        if (pattern.size() >= sizeof m_dir)
            std::abort();
        std::strcpy(m_dir, pattern.c_str());
        if (!::mkdtemp(m_dir))
            std::abort();
        std::atexit([] { Scratch::get().remove(); });
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGABRT})
            std::signal(sig, [](int signo) {
                Scratch::get().remove();
                std::signal(signo, SIG_DFL);
                std::raise(signo);
            });
    }
    char m_dir[PATH_MAX / 2];
};

// A failed check ends the run (the files go with it).
void check(bool ok, const char* what)
{
    if (ok)
        return;
    std::fprintf(stderr, "bench_logfile: %s\n", what);
    std::abort();
}

// The packet with the counter and sample time of sample `n` (as the device would have
// sent it), into `out`; returns its size. The 2000 frames repeat, their times go on.
size_t stamp(const NvMessage& m, uint64_t n, uint8_t* out)
{
    const size_t size = m.frameSize();
    std::memcpy(out, m.frame(), size);
    // Counter and sample time fine are the first two items (see richPacket).
    uint8_t* counter = out + 4 + 3;
    uint8_t* time = out + 4 + 5 + 3;
    const uint32_t ticks = uint32_t(n * 5);
    counter[0] = uint8_t(n >> 8), counter[1] = uint8_t(n);
    for (int i = 0; i < 4; ++i)
        time[i] = uint8_t(ticks >> (24 - 8 * i));
    uint8_t sum = 0;
    for (size_t i = 1; i + 1 < size; ++i)
        sum = uint8_t(sum + out[i]);
    out[size - 1] = uint8_t(-sum);
    return size;
}

// Appends `packets` packets round robin over the devices; returns the file. `running`:
// counters and sample times go on rather than repeat every 2000 packets.
std::string record(const char* name, uint64_t packets, uint64_t targetBytes = 0,
                   bool running = false)
{
    const std::string path = Scratch::get().path(name);
    nda::LogWriter w;
    check(w.create(path) == NRV_OK, "cannot create a recording");
    uint8_t bus[Devices];
    for (int d = 0; d < Devices; ++d)
        bus[d] = w.addDevice(nvEmulatedDeviceId("ahrs", unsigned(d)), {});
    const Frames& f = frames();
    uint64_t bytes = 0;
    for (uint64_t i = 0; targetBytes ? bytes < targetBytes : i < packets; ++i) {
        const int d = int(i % Devices);
        const NvMessage& m = f.perDevice[size_t(d)][(i / Devices) % 2000];
        if (running) {
            uint8_t frame[NvMessage::MaxFrameSize];
            w.append(bus[d], frame, stamp(m, i / Devices, frame));
        } else {
            w.append(bus[d], m.frame(), m.frameSize());
        }
        bytes += m.frameSize();
        // Let the writer keep up rather than buffer everything (as live data would).
        if (i % 65536 == 65535)
            while (w.bytesWritten() + (64u << 20) < bytes && w.error() == NRV_OK)
                usleep(1000);
    }
    check(w.close() == NRV_OK, "cannot write a recording");
    return path;
}

const std::string& bigRecording()
{
    static const std::string path = record("big.kvb", 0, TargetBytes, true);
    return path;
}

// Resident anonymous memory of the process (not file pages), bytes, with the memory
// that malloc keeps for later given back first.
int64_t anonymousResident()
{
    ::malloc_trim(0);
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("RssAnon:", 0) == 0)
            return std::atoll(line.c_str() + 8) * 1024;
    return 0;
}

// Share of the file's pages in the page cache.
double residentShare(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    check(fd >= 0, "cannot open the recording");
    const size_t size = size_t(std::filesystem::file_size(path));
    void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    check(map != MAP_FAILED, "cannot map the recording");
    const long page = ::sysconf(_SC_PAGESIZE);
    std::vector<unsigned char> in((size + size_t(page) - 1) / size_t(page));
    check(::mincore(map, size, in.data()) == 0, "mincore failed");
    ::munmap(map, size);
    size_t resident = 0;
    for (unsigned char c : in)
        resident += c & 1;
    return in.empty() ? 0 : double(resident) / double(in.size());
}

// Puts the file's pages out of the page cache. Where the system keeps them anyway the
// next best is a file written afresh, which is what the cold figures then are.
std::string coldRecording()
{
    const std::string& big = bigRecording();
    static bool dropWorks = true;
    if (dropWorks) {
        const int fd = ::open(big.c_str(), O_RDONLY | O_CLOEXEC);
        check(fd >= 0, "cannot open the recording");
        ::fsync(fd);
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
        if (residentShare(big) < 0.05)
            return big;
        dropWorks = false;
    }
    return record("cold.kvb", 0, TargetBytes, true);
}

// Arguments: mapped (1) or read into memory (0, as before mapping, and where a file
// cannot be mapped); cold (1) or warm (0).
void BM_Load(benchmark::State& state)
{
    const bool map = state.range(0) != 0;
    const bool cold = state.range(1) != 0;
    const std::string& path = bigRecording();
    uint64_t bytes = 0, packets = 0, indexBytes = 0;
    int64_t anonymous = 0;
    double residentBefore = 0;
    for (auto _ : state) {
        std::string file = path;
        if (cold) {
            state.PauseTiming();
            file = coldRecording();
            residentBefore += residentShare(file);
            state.ResumeTiming();
        }
        const int64_t anonymousBefore = anonymousResident();
        nda::LogReader r;
        r.setAccess(map ? nda::LogReader::Access::Map : nda::LogReader::Access::Read);
        if (r.open(file) != NRV_OK || r.load() != NRV_OK || r.isMapped() != map) {
            state.SkipWithError("load failed");
            break;
        }
        bytes += r.fileSize();
        uint64_t n = 0;
        for (size_t d = 0; d < r.devices().size(); ++d)
            n += r.packetCount(d);
        packets += n;
        benchmark::DoNotOptimize(r.packetFrame(0, 0, nullptr));
        state.PauseTiming();
        indexBytes += r.indexBytes();
        anonymous += anonymousResident() - anonymousBefore;
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(bytes));
    state.counters["packets/s"] = benchmark::Counter(double(packets), benchmark::Counter::kIsRate);
    state.counters["file MB"] = double(std::filesystem::file_size(path)) / 1e6;
    if (packets) {
        // What a loaded recording costs beyond the page cache, per packet.
        state.counters["index B/packet"] = double(indexBytes) / double(packets);
        state.counters["anon B/packet"] = double(anonymous) / double(packets);
    }
    if (cold)
        state.counters["cached before %"] =
            100 * residentBefore / double(std::max<int64_t>(state.iterations(), 1));
}
BENCHMARK(BM_Load)
    ->ArgNames({"map", "cold"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(3);
BENCHMARK(BM_Load)
    ->ArgNames({"map", "cold"})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

// Playback and export: a packet by index, decoded from the shared buffer.
void BM_PacketByIndex(benchmark::State& state)
{
    static nda::LogReader* reader = [] {
        auto* r = new nda::LogReader;
        check(r->open(bigRecording()) == NRV_OK && r->load() == NRV_OK, "load failed");
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
    Scratch::get();
    frames();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Scratch::get().remove();
    return 0;
}
