// Framing throughput of NvFrameParser on a mixed stream and the decode rate of a
// ten-item data packet, each value read.

#include "nvdatapacket.h"
#include "nvframeparser.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

NvDataPacketBuilder tenItemBuilder(uint16_t counter)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(counter);
    b.setSampleTimeFine(100000u + counter * 10u);
    b.setQuaternion(NvQuaternion::fromEuler({10, 20, 30.0 + counter % 90}));
    b.setVector3(NDI_ACCELERATION, {0.1, -0.2, 9.81});
    b.setVector3(NDI_RATE_OF_TURN, {0.01, 0.02, -0.03});
    b.setVector3(NDI_MAGNETIC_FIELD, {0.4, 0.1, -0.9});
    b.setVector3(NDI_FREE_ACCELERATION, {0.1, -0.2, 0.0});
    b.setTemperature(24.5);
    b.setPressure(101325);
    b.setStatusWord(0x3);
    return b;
}

// Data packets of 20 to ~200 bytes, every 16th frame an extended-length one (300 to
// 2000 bytes), and a run of garbage (without 0xFA) after every 50th frame.
std::vector<uint8_t> mixedStream(size_t targetBytes)
{
    std::mt19937 rng(2024);
    std::vector<uint8_t> stream;
    stream.reserve(targetBytes + 4096);
    uint16_t counter = 0;
    while (stream.size() < targetBytes) {
        NvMessage m;
        if (counter % 16 == 15) {
            std::vector<uint8_t> data(300 + rng() % 1700);
            for (uint8_t& byte : data)
                byte = uint8_t(rng());
            m = NvMessage(0xFF, NvMid::DataPacket, data);
        } else {
            NvDataPacketBuilder b = tenItemBuilder(counter);
            for (unsigned extra = rng() % 6; extra > 0; --extra)
                b.setVector3(NvDataIdentifier(0x4010 + extra * 0x10 + 3), {1, 2, 3});
            if (counter % 3 == 0) // a short one
                b.clear(), b.setPacketCounter(counter), b.setStatusWord(1);
            m = b.toMessage();
        }
        stream.insert(stream.end(), m.frame(), m.frame() + m.frameSize());
        if (counter % 50 == 49)
            for (unsigned g = 8 + rng() % 40; g > 0; --g)
                stream.push_back(uint8_t(rng() % 0xF0));
        ++counter;
    }
    return stream;
}

void BM_Framing(benchmark::State& state)
{
    const std::vector<uint8_t> stream = mixedStream(8 << 20);
    const size_t chunk = size_t(state.range(0));
    uint64_t frames = 0;
    for (auto _ : state) {
        NvFrameParser parser;
        size_t sum = 0;
        for (size_t pos = 0; pos < stream.size(); pos += chunk) {
            const size_t n = std::min(chunk, stream.size() - pos);
            parser.feed(stream.data() + pos, n,
                        [&](const NvFrameView& v) { sum += v.size + v.messageId(); });
        }
        benchmark::DoNotOptimize(sum);
        frames += parser.counters().frames;
        if (parser.counters().checksumErrors != 0 || parser.counters().oversizeFrames != 0) {
            state.SkipWithError("the stream did not parse cleanly");
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
    state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Framing)->Arg(4096)->Arg(65536)->Arg(64)->Unit(benchmark::kMillisecond);

// Everything a viewer reads from a packet.
double readAll(const NvDataPacket& p)
{
    const NvQuaternion q = p.orientationQuaternion();
    const NvVector3 acc = p.acceleration();
    const NvVector3 gyr = p.rateOfTurn();
    const NvVector3 mag = p.magneticField();
    const NvVector3 free = p.freeAcceleration();
    return p.packetCounter() + p.sampleTimeFine() + q.w + q.x + q.y + q.z + acc.x + acc.y + acc.z +
           gyr.x + gyr.y + gyr.z + mag.x + mag.y + mag.z + free.x + free.y + free.z +
           p.temperature() + p.pressure() + p.statusWord();
}

void BM_DecodeTenItems(benchmark::State& state)
{
    const NvMessage m = tenItemBuilder(7).toMessage();
    for (auto _ : state) {
        const NvDataPacket p = NvDataPacket::fromFrame(m.frame(), m.frameSize());
        benchmark::DoNotOptimize(readAll(p));
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetLabel(std::to_string(m.frameSize()) + "-byte frame");
}
BENCHMARK(BM_DecodeTenItems);

// Decode only (index build, no value read).
void BM_IndexTenItems(benchmark::State& state)
{
    const NvMessage m = tenItemBuilder(7).toMessage();
    for (auto _ : state) {
        const NvDataPacket p = NvDataPacket::fromFrame(m.frame(), m.frameSize());
        benchmark::DoNotOptimize(p.itemCount());
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_IndexTenItems);

// The reader's whole path: cut frames from a stream of ten-item packets and decode each.
void BM_FrameAndDecode(benchmark::State& state)
{
    std::vector<uint8_t> stream;
    for (uint16_t i = 0; i < 4096; ++i) {
        const NvMessage m = tenItemBuilder(i).toMessage();
        stream.insert(stream.end(), m.frame(), m.frame() + m.frameSize());
    }
    for (auto _ : state) {
        NvFrameParser parser;
        double sum = 0;
        for (size_t pos = 0; pos < stream.size(); pos += 4096)
            parser.feed(stream.data() + pos, std::min<size_t>(4096, stream.size() - pos),
                        [&](const NvFrameView& v) {
                            sum += readAll(NvDataPacket::fromFrame(v.frame, v.size));
                        });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 4096);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
}
BENCHMARK(BM_FrameAndDecode)->Unit(benchmark::kMillisecond);

// The emulator's path: build a ten-item packet.
void BM_EncodeTenItems(benchmark::State& state)
{
    uint16_t counter = 0;
    for (auto _ : state) {
        const NvMessage m = tenItemBuilder(counter++).toMessage();
        benchmark::DoNotOptimize(m.frame());
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_EncodeTenItems);

} // namespace

BENCHMARK_MAIN();
