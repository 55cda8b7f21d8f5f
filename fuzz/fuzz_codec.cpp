// libFuzzer target: the frame parser and the packet decoder on arbitrary bytes.
//
// Oracles besides the sanitizers: cutting the input into chunks must yield the same
// frames and counters as feeding it whole; every frame handed out must verify; a decoded
// packet must stay inside its frame and survive a rebuild from its own message.

#include "nvdatapacket.h"
#include "nvdeviceid.h"
#include "nvframeparser.h"
#include "nvgnss.h"
#include "nvoutputconfiguration.h"
#include "nvsyncsetting.h"

#include <cstdlib>
#include <vector>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

volatile double g_sink;

void exercisePacket(const NvDataPacket& p)
{
    check(!p.isEmpty());
    double sum = 0;
    for (size_t i = 0; i < p.itemCount(); ++i) {
        const NvDataPacket::Item& item = p.item(i);
        check(size_t(item.offset) + item.size <= p.decodedSize());
        check(p.find(item.id) != nullptr);
        double values[16];
        sum += double(p.reals(item.id, values, 16));
    }
    const NvQuaternion q = p.orientationQuaternion(NCF_NED);
    const NvEuler e = p.orientationEuler(NCF_NWU);
    const NvMatrix3 r = p.orientationMatrix();
    sum += q.w + e.yaw + r(2, 2) + p.deltaQ(NCF_NED).x;
    sum += p.vector3(NDI_ACCELERATION, NCF_NED).x + p.vector3(NDI_VELOCITY, NCF_NWU).y;
    sum += p.packetCounter() + p.sampleTimeFine() + p.sampleTimeCoarse() + p.timeOfWeek();
    sum += p.gnssAge() + p.utcTime().year + p.frameRange().last + p.pressure();
    sum += p.statusByte() + p.statusWord() + p.rssi() + p.analogIn1() + p.analogIn2();
    sum += p.gnssPvtPulse() + p.gnssPvt().lat + double(p.gnssSatInfo().satellites.size());
    sum += p.temperature() + p.altitudeMsl() + p.altitudeEllipsoid() + p.latLon().latitude;
    sum += p.positionEcef().z + p.magneticField().x + p.rawItem(0x7020).size();
    g_sink = sum;
    // The packet's own message decodes to the same items.
    const NvDataPacket again(p.message());
    check(again.itemCount() == p.itemCount());
    check(again.isMalformed() == p.isMalformed());
}

void exerciseWireRecords(const uint8_t* data, size_t size)
{
    NvOutputConfigurationArray config;
    if (nvOutputConfigurationFromWire(data, size, config))
        check(nvOutputConfigurationToWire(config) == NvByteArray(data, data + size));
    NvSyncSettingArray sync;
    if (nvSyncSettingsFromWire(data, size, sync))
        check(nvSyncSettingsToWire(sync) == NvByteArray(data, data + size));
    NvGnssSatInfo sat;
    if (NvGnssSatInfo::fromWire(data, size, sat))
        check(sat.wireSize() == size);
    NvGpsStatus status;
    if (NvGpsStatus::fromWire(data, size, status))
        check(status.toWire() == NvByteArray(data, data + size));
    const NvDeviceId id = NvDeviceId::fromWire(data, size);
    g_sink = double(id.families()) + double(id.typeName().size() + id.deviceTypeText().size());
}

struct Run
{
    std::vector<NvByteArray> frames;
    NvFrameParser::Counters counters;
    size_t pending = 0;
};

Run parse(const uint8_t* data, size_t size, const uint8_t* sizes, size_t sizeCount)
{
    Run run;
    NvFrameParser parser;
    size_t pos = 0;
    size_t k = 0;
    while (pos < size) {
        size_t n = size - pos;
        if (sizeCount)
            n = std::min<size_t>(n, 1 + sizes[k++ % sizeCount] % 64);
        parser.feed(data + pos, n, [&](const NvFrameView& v) {
            check(NvMessage::checkFrame(v.frame, v.size) == NvFrameCheck::Ok);
            check(v.dataSize() <= NvMessage::MaxDataSize);
            run.frames.emplace_back(v.frame, v.frame + v.size);
        });
        pos += n;
    }
    run.counters = parser.counters();
    run.pending = parser.pendingBytes();
    return run;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The first bytes choose a chunking; the whole input is the stream.
    const size_t sizeCount = size ? std::min<size_t>(data[0] % 8, size) : 0;
    const Run whole = parse(data, size, nullptr, 0);
    const Run chunked = parse(data, size, data, sizeCount);
    check(whole.frames == chunked.frames);
    check(whole.counters.frames == chunked.counters.frames);
    check(whole.counters.checksumErrors == chunked.counters.checksumErrors);
    check(whole.counters.oversizeFrames == chunked.counters.oversizeFrames);
    check(whole.counters.skippedBytes == chunked.counters.skippedBytes);
    check(whole.pending == chunked.pending);
    // Every byte is a frame byte, skipped, or pending.
    size_t frameBytes = 0;
    for (const NvByteArray& f : whole.frames)
        frameBytes += f.size();
    check(frameBytes + whole.counters.skippedBytes + whole.pending == size);

    for (const NvByteArray& f : whole.frames) {
        const NvMessage m = NvMessage::fromFrame(f);
        check(m.isValid());
        check(m.frameBytes() == f);
        exercisePacket(NvDataPacket::fromFrame(f.data(), f.size()));
        // Decoded in place, against the layout the copy above left in the cache, and a
        // copy of that: the same index.
        const NvDataPacket view = NvDataPacket::viewFrame(f.data(), f.size());
        exercisePacket(view);
        const NvDataPacket copy = view;
        check(copy == view && copy.itemCount() == view.itemCount() && !copy.isBorrowed());
    }
    // The input itself as packet data.
    if (size <= NvMessage::MaxDataSize)
        exercisePacket(NvDataPacket::fromData(data, size));
    exerciseWireRecords(data, size);
    return 0;
}
