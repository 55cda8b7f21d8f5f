#pragma once
// Recognises what a device sends besides Nbus frames: NMEA sentences (string output of
// GNSS devices), RTCM 3 frames, plain text lines (boot banners, other makers' devices)
// and anything else. Fed with the bytes the frame parser skipped, in stream order.

#include "nvbytes.h"
#include "nvenums.h"

#include <cstddef>
#include <cstdint>
#include <functional>

namespace nda {

class StreamDetector
{
public:
    using Sink = std::function<void(NvProtocolType type, const NvByteArray& bytes)>;

    // Longest NMEA sentence or text line kept before it counts as unknown bytes.
    static constexpr size_t MaxLine = 1024;

    void feed(const uint8_t* bytes, size_t count, const Sink& sink);
    // Hands out what is held (the stream paused or ended): unfinished messages as unknown.
    void flush(const Sink& sink);
    uint64_t unknownBytes() const { return m_unknownTotal; }

private:
    enum class Mode
    {
        Search,
        Line,  // '$' or printable text up to the line end
        Rtcm3, // 0xD3, 10-bit length, payload, CRC-24Q
    };
    void emitUnknown(const Sink& sink);
    void finishLine(const Sink& sink);
    void finishRtcm(const Sink& sink);

    Mode m_mode = Mode::Search;
    NvByteArray m_current;
    NvByteArray m_unknown;
    size_t m_rtcmTotal = 0;
    uint64_t m_unknownTotal = 0;
};

// NMEA sentence check: "$...*hh" with the XOR checksum of the bytes between.
bool isValidNmeaSentence(const uint8_t* bytes, size_t count);
// RTCM 3 CRC-24Q over `count` bytes.
uint32_t rtcm3Crc24(const uint8_t* bytes, size_t count);

} // namespace nda
