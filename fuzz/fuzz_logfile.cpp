// libFuzzer target: the recording reader (kvb, bin, nm) on arbitrary bytes, from memory.
//
// Oracles besides the sanitizers: whatever open() accepts loads; every packet and message
// handed out is a whole, verified frame inside the input (or, for nm, a packet the reader
// made); the byte accounting never exceeds the input; loading twice gives the same result.

#include "ndalogfile.h"

#include <cstdlib>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

volatile double g_sink;

struct Summary
{
    size_t devices = 0, packets = 0, messages = 0, sentences = 0;
    uint64_t skipped = 0, checksumErrors = 0, truncated = 0, frames = 0;
    bool operator==(const Summary& o) const
    {
        return devices == o.devices && packets == o.packets && messages == o.messages &&
               sentences == o.sentences && skipped == o.skipped &&
               checksumErrors == o.checksumErrors && truncated == o.truncated && frames == o.frames;
    }
};

Summary touchAll(const nda::LogReader& r, size_t inputSize)
{
    Summary s;
    s.devices = r.devices().size();
    double sum = 0;
    for (size_t d = 0; d < r.devices().size(); ++d) {
        const nda::LogReader::Device& dev = r.devices()[d];
        sum += double(dev.id.toInt() + dev.productCode.size() + dev.outputConfiguration.size() +
                      dev.syncSettings.size()) +
               dev.locationId + dev.filterProfile + dev.firmware.major;
        for (size_t i = 0; i < r.packetCount(d); ++i) {
            size_t size = 0;
            const uint8_t* f = r.packetFrame(d, i, &size);
            check(f != nullptr && size >= NvMessage::MinFrameSize);
            check(NvMessage::checkFrame(f, size) == NvFrameCheck::Ok);
            const NvDataPacket p = r.packet(d, i);
            check(!p.isEmpty());
            sum += p.packetCounter() + p.acceleration().x + p.latLon().latitude + p.utcTime().year +
                   p.orientationEuler().yaw;
            sum += double(r.packetHostTime(d, i));
        }
        check(r.packet(d, r.packetCount(d)).isEmpty());
        for (size_t i = 0; i < r.messageCount(d); ++i) {
            const NvMessage m = r.message(d, i);
            check(m.isValid());
            sum += m.messageId();
        }
        s.packets += r.packetCount(d);
        s.messages += r.messageCount(d);
    }
    for (size_t i = 0; i < r.sentenceCount(); ++i) {
        const std::string line = r.sentence(i);
        check(line.size() >= 4 && line.size() <= inputSize);
        sum += line[0];
    }
    s.sentences = r.sentenceCount();
    s.skipped = r.skippedBytes();
    s.checksumErrors = r.checksumErrors();
    s.truncated = r.truncatedBytes();
    s.frames = r.frameCount();
    check(s.skipped + s.truncated <= inputSize);
    check(r.fileSize() == inputSize);
    g_sink = sum;
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nda::LogReader r;
    if (r.openMemory(data, size) != NRV_OK)
        return 0;
    check(r.load() == NRV_OK);
    const Summary first = touchAll(r, size);
    if (r.type() != nda::LogReader::Type::Nm)
        check(first.frames >= first.packets + first.messages);
    check(r.load() == NRV_OK);
    check(touchAll(r, size) == first);
    return 0;
}
