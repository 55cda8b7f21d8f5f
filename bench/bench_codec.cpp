// Framing throughput of NvFrameParser on a mixed stream, the decode rate of a ten-item
// data packet, each value read, and the decode rate of real recordings of every kvsim kind
// with every item it supports (BM_DecodeRecorded).

#include "fulloutput.h"
#include "kvsimharness.h"
#include "nivradeviceapi.h"
#include "nvdatapacket.h"
#include "nvframeparser.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <thread>
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

// The reader's whole path: cut frames from a stream of ten-item packets and decode each in
// place.
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
                            sum += readAll(NvDataPacket::viewFrame(v.frame, v.size));
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

// ---- Recordings --------------------------------------------------------------------

struct Recording
{
    std::string kind;
    std::vector<uint8_t> bytes;                        // the whole kvb file
    std::vector<std::pair<uint32_t, uint16_t>> frames; // data packets: offset, size
    uint64_t items = 0;
    size_t layouts = 0; // distinct item layouts among the packets
    std::string error;
};

constexpr const char* Kinds[] = {"imu", "ahrs", "gnss", "legacy", "master:4"};
constexpr int RecordSeconds = 3;

bool waitUntil(const std::function<bool()>& done, std::chrono::seconds timeout)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// Records each kind for a few seconds with the library, one kvb per kind, and reads the
// files back. Empty `error` on success.
std::vector<Recording> makeRecordings()
{
    std::vector<Recording> out(std::size(Kinds));
    std::vector<std::string> args{"--quiet", "--seed", "11"};
    for (size_t k = 0; k < out.size(); ++k) {
        out[k].kind = Kinds[k];
        args.push_back("--device");
        args.push_back(Kinds[k]);
    }
    auto failAll = [&](const std::string& why) {
        for (Recording& r : out)
            r.error = why;
        return out;
    };
    kvtest::KvsimProcess sim(args);
    if (!sim.started())
        return failAll("kvsim did not start: " + sim.stderrText());
    const std::string dir = kvtest::makeTempDir();
    NvControl* control = NvControl_construct();
    NvControl_setReplyTimeout(control, 5000);
    std::vector<NvDevice*> mains;
    std::string error;
    for (const auto& port : sim.ports()) {
        const NvString name = port.path;
        const NvDeviceId id = NvDeviceId::fromString(port.id);
        NvDevice* dev = NvControl_openPort(control, &name, NBR_921600, 0)
                            ? NvControl_device(control, &id)
                            : nullptr;
        if (!dev) {
            error = port.kind + ": " + NvControl_lastResultText(control);
            break;
        }
        mains.push_back(dev);
        std::vector<NvDevice*> configured{dev};
        if (NvDevice_isMasterDevice(dev)) {
            configured.clear();
            NvDevice_enableRadio(dev, 11);
            std::vector<NvDeviceId> trackers;
            for (uint32_t slot = 0; slot < 4; ++slot)
                trackers.push_back(nvEmulatedTrackerId(0, slot));
            waitUntil(
                [&] {
                    for (NvDeviceId& t : trackers)
                        if (!NvControl_device(control, &t))
                            return false;
                    return true;
                },
                std::chrono::seconds(15));
            for (NvDeviceId& t : trackers)
                if (NvDevice* tracker = NvControl_device(control, &t))
                    configured.push_back(tracker);
        }
        for (NvDevice* d : configured)
            if (ndatest::configureFullOutput(d) == 0)
                error = port.kind + " configuration: " + NvControl_lastResultText(control);
    }
    for (size_t k = 0; error.empty() && k < mains.size(); ++k) {
        const NvString file = dir + "/" + std::to_string(k) + ".kvb";
        if (!NvDevice_createLogFile(mains[k], &file) || !NvDevice_startRecording(mains[k]))
            error = out[k].kind + " recording: " + NvControl_lastResultText(control);
    }
    if (error.empty()) {
        std::this_thread::sleep_for(std::chrono::seconds(RecordSeconds));
        for (NvDevice* dev : mains)
            NvDevice_stopRecording(dev);
        for (NvDevice* dev : mains)
            waitUntil([&] { return NvDevice_deviceState(dev) != NDS_FLUSHING; },
                      std::chrono::seconds(20));
    }
    NvControl_close(control);
    NvControl_destruct(control);
    if (!error.empty()) {
        kvtest::removeTree(dir);
        return failAll(error);
    }

    for (size_t k = 0; k < out.size(); ++k) {
        Recording& r = out[k];
        std::ifstream in(dir + "/" + std::to_string(k) + ".kvb", std::ios::binary);
        r.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        NvFrameParser parser;
        parser.feed(r.bytes.data(), r.bytes.size(), [&](const NvFrameView& v) {
            // Bus id 0 marks the file's own frames.
            if (v.busId() != 0 && v.messageId() == NvMid::DataPacket)
                r.frames.emplace_back(uint32_t(v.frame - r.bytes.data()), uint16_t(v.size));
        });
        std::set<std::vector<uint32_t>> layouts;
        for (const auto& [offset, size] : r.frames) {
            const NvDataPacket p = NvDataPacket::fromFrame(r.bytes.data() + offset, size);
            std::vector<uint32_t> layout{uint32_t(p.dataSize())};
            for (size_t i = 0; i < p.itemCount(); ++i)
                layout.push_back(uint32_t(p.item(i).id) << 8 | p.item(i).size);
            layouts.insert(layout);
            r.items += p.itemCount();
        }
        r.layouts = layouts.size();
        if (r.frames.empty())
            r.error = r.kind + ": no data packets recorded";
    }
    kvtest::removeTree(dir);
    return out;
}

const std::vector<Recording>& recordings()
{
    static const std::vector<Recording> all = makeRecordings();
    return all;
}

// What a consumer of every item does with it: reals converted (one precision switch per
// item), integers read, the GNSS records parsed.
template <size_t Width, typename Read>
double sumOf(const uint8_t* p, size_t size, Read read)
{
    double sum = 0;
    for (size_t at = 0; at + Width <= size; at += Width)
        sum += read(p + at);
    return sum;
}

double readItem(NvDataIdentifier id, const uint8_t* p, size_t size)
{
    using namespace nvbe;
    if (nvIsRealQuantity(id)) {
        switch (nvPrecision(id)) {
        case NDP_FLOAT32:
            return sumOf<4>(p, size, [](const uint8_t* q) { return double(readF32(q)); });
        case NDP_FP1220:
            return sumOf<4>(p, size, [](const uint8_t* q) { return readI32(q) / 1048576.0; });
        case NDP_FP1632:
            return sumOf<6>(p, size, [](const uint8_t* q) {
                return double(readI16(q + 4)) + double(readU32(q)) / 4294967296.0;
            });
        case NDP_FLOAT64:
            return sumOf<8>(p, size, readF64);
        }
    }
    switch (nvQuantity(id)) {
    case NDI_UTC_TIME:
        return size >= NvUtcTime::WireSize ? NvUtcTime::fromWire(p).nanoseconds : 0;
    case NDI_GNSS_PVT_DATA:
        return size >= NvGnssPvt::WireSize ? NvGnssPvt::fromWire(p).latitudeDeg() : 0;
    case NDI_GNSS_SAT_INFO: {
        NvGnssSatInfo info;
        return NvGnssSatInfo::fromWire(p, size, info) ? double(info.satellites.size()) : 0;
    }
    default:
        break;
    }
    switch (size) {
    case 1:
        return p[0];
    case 2:
        return readU16(p);
    case 4:
        return readU32(p);
    default:
        return double(size);
    }
}

// Decoding alone touches the index (identifier and size of every item); with `Values`
// every item is read as well.
template <bool Values>
double visitItems(const NvDataPacket::Item* items, size_t count, const uint8_t* data)
{
    double sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum += Values ? readItem(items[i].id, data + items[i].offset, items[i].size)
                      : double(items[i].id + items[i].size);
    return sum;
}

template <bool Values>
double visitItems(const NvDataPacket& p)
{
    return p.itemCount() ? visitItems<Values>(&p.item(0), p.itemCount(), p.data()) : 0.0;
}

// The decoder before packets could view their frames: one block per packet holding a
// copy of the frame and a fresh item index behind it.
class ReferencePacket
{
public:
    struct Index
    {
        uint16_t count, malformed, decodedSize, headerSize;
    };
    explicit ReferencePacket(const uint8_t* frame, size_t size)
    {
        const size_t header = frame[3] == NvMessage::ExtendedLength ? 6 : 4;
        const uint8_t* data = frame + header;
        const size_t dataSize = size - header - 1;
        constexpr size_t kLocalItems = 48;
        NvDataPacket::Item local[kLocalItems];
        size_t count = 0, pos = 0;
        while (pos + 3 <= dataSize && dataSize - pos - 3 >= data[pos + 2]) {
            if (count < kLocalItems)
                local[count] = {NvDataIdentifier(nvbe::readU16(data + pos)), uint16_t(pos + 3),
                                data[pos + 2]};
            ++count;
            pos += 3 + data[pos + 2];
        }
        m_block = nvdetail::FrameBlock::allocate(size, sizeof(Index) +
                                                           count * sizeof(NvDataPacket::Item));
        std::memcpy(m_block.bytes(), frame, size);
        Index* index = static_cast<Index*>(m_block.extra());
        *index = {uint16_t(count), uint16_t(pos != dataSize), uint16_t(pos), uint16_t(header)};
        std::memcpy(index + 1, local, std::min(count, kLocalItems) * sizeof(NvDataPacket::Item));
    }
    template <bool Values>
    double visit() const
    {
        const Index* index = static_cast<const Index*>(m_block.extra());
        return visitItems<Values>(reinterpret_cast<const NvDataPacket::Item*>(index + 1),
                                  index->count, m_block.bytes() + index->headerSize);
    }

private:
    nvdetail::FrameBlock m_block;
};

enum class Decode
{
    Memcpy,    // copy each frame, nothing decoded: the floor
    Reference, // the decoder as it was: a block per packet, the index built in it
    Owning,    // NvDataPacket::fromFrame: a copy of the frame, the shared index
    View,      // NvDataPacket::viewFrame: borrowed bytes, as the port reader decodes
    Shared,    // viewFrame with an owner that keeps the recording alive
};

struct Mode
{
    const char* name;
    Decode how;
    bool cold = false;   // the layout cache emptied before each pass: a first pass
    bool values = false; // every item read as well
    bool kept = false;   // every packet of a pass held until its end, as a loader does
};

template <bool Values>
double decodeOne(Decode how, const uint8_t* frame, size_t size,
                 const std::shared_ptr<const void>& owner, uint8_t* scratch)
{
    switch (how) {
    case Decode::Memcpy:
        std::memcpy(scratch, frame, size);
        benchmark::DoNotOptimize(scratch);
        return 0;
    case Decode::Reference:
        return ReferencePacket(frame, size).visit<Values>();
    case Decode::Owning:
        return visitItems<Values>(NvDataPacket::fromFrame(frame, size));
    case Decode::View:
        return visitItems<Values>(NvDataPacket::viewFrame(frame, size));
    case Decode::Shared:
        return visitItems<Values>(NvDataPacket::viewFrame(frame, size, owner));
    }
    return 0;
}

template <bool Values>
void decodeRecorded(benchmark::State& state, size_t kind, const Mode& mode)
{
    const Recording& r = recordings()[kind];
    if (!r.error.empty()) {
        state.SkipWithError(r.error.c_str());
        return;
    }
    const auto bytes = std::make_shared<const std::vector<uint8_t>>(r.bytes);
    const uint8_t* base = bytes->data();
    const std::shared_ptr<const void> owner(bytes, base);
    std::vector<uint8_t> scratch(NvMessage::MaxFrameSize);
    std::vector<NvDataPacket> keptPackets;
    std::vector<ReferencePacket> keptReferences;
    keptPackets.reserve(r.frames.size());
    keptReferences.reserve(r.frames.size());
    NvDataPacket::clearLayoutCache();
    for (auto _ : state) {
        if (mode.cold) {
            state.PauseTiming();
            NvDataPacket::clearLayoutCache();
            state.ResumeTiming();
        }
        double sum = 0;
        if (!mode.kept) {
            for (const auto& [offset, size] : r.frames)
                sum += decodeOne<Values>(mode.how, base + offset, size, owner, scratch.data());
        } else if (mode.how == Decode::Reference) {
            for (const auto& [offset, size] : r.frames)
                keptReferences.emplace_back(base + offset, size);
            for (const ReferencePacket& p : keptReferences)
                sum += p.visit<Values>();
            keptReferences.clear();
        } else {
            for (const auto& [offset, size] : r.frames)
                keptPackets.push_back(mode.how == Decode::Owning
                                          ? NvDataPacket::fromFrame(base + offset, size)
                                          : NvDataPacket::viewFrame(base + offset, size, owner));
            for (const NvDataPacket& p : keptPackets)
                sum += visitItems<Values>(p);
            keptPackets.clear();
        }
        benchmark::DoNotOptimize(sum);
    }
    const double passes = double(state.iterations());
    state.counters["packets/s"] =
        benchmark::Counter(passes * double(r.frames.size()), benchmark::Counter::kIsRate);
    state.counters["items/s"] =
        benchmark::Counter(passes * double(r.items), benchmark::Counter::kIsRate);
    char label[80];
    std::snprintf(label, sizeof label, "%zu packets, %.1f items each, %zu layouts", r.frames.size(),
                  double(r.items) / double(r.frames.size()), r.layouts);
    state.SetLabel(label);
}

void registerRecorded()
{
    static const Mode modes[] = {
        {"memcpy", Decode::Memcpy},
        {"reference", Decode::Reference},
        {"owning", Decode::Owning},
        {"view_cold", Decode::View, true},
        {"view_warm", Decode::View},
        {"shared_warm", Decode::Shared},
        {"reference+values", Decode::Reference, false, true},
        {"view+values", Decode::View, false, true},
        {"reference_kept", Decode::Reference, false, false, true},
        {"owning_kept", Decode::Owning, false, false, true},
        {"shared_kept", Decode::Shared, false, false, true},
    };
    for (size_t k = 0; k < std::size(Kinds); ++k) {
        std::string kind = Kinds[k];
        kind = kind.substr(0, kind.find(':'));
        for (const Mode& m : modes)
            benchmark::RegisterBenchmark(("BM_DecodeRecorded/" + kind + "/" + m.name).c_str(),
                                         [k, &m](benchmark::State& s) {
                                             if (m.values)
                                                 decodeRecorded<true>(s, k, m);
                                             else
                                                 decodeRecorded<false>(s, k, m);
                                         })
                ->Unit(benchmark::kMicrosecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    registerRecorded();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
