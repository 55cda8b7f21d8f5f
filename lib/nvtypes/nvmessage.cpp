#include "nvmessage.h"

#include "nvdetail.h"

#include <algorithm>

#include <cstdlib>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace nvdetail {

FrameBlock FrameBlock::allocate(size_t frameSize, size_t extraSize)
{
    const size_t extraOffset = (frameSize + 7) & ~size_t(7);
    void* memory = ::operator new(sizeof(Header) + extraOffset + extraSize);
    FrameBlock block;
    block.m_header =
        new (memory) Header{{1}, uint32_t(frameSize), uint32_t(extraOffset), uint32_t(extraSize)};
    return block;
}

FrameBlock::FrameBlock(const FrameBlock& other) noexcept : m_header(other.m_header)
{
    if (m_header)
        m_header->refs.fetch_add(1, std::memory_order_relaxed);
}

FrameBlock& FrameBlock::operator=(const FrameBlock& other) noexcept
{
    if (other.m_header)
        other.m_header->refs.fetch_add(1, std::memory_order_relaxed);
    release();
    m_header = other.m_header;
    return *this;
}

FrameBlock& FrameBlock::operator=(FrameBlock&& other) noexcept
{
    if (this != &other) {
        release();
        m_header = other.m_header;
        other.m_header = nullptr;
    }
    return *this;
}

void FrameBlock::release() noexcept
{
    if (m_header && m_header->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        m_header->~Header();
        ::operator delete(m_header);
    }
    m_header = nullptr;
}

// Sum of bytes modulo 256.
uint8_t byteSum(const uint8_t* p, size_t n)
{
    uint32_t sum = 0;
#if defined(__SSE2__)
    __m128i acc = _mm_setzero_si128();
    const __m128i zero = _mm_setzero_si128();
    while (n >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        acc = _mm_add_epi64(acc, _mm_sad_epu8(v, zero));
        p += 16;
        n -= 16;
    }
    sum = uint32_t(_mm_cvtsi128_si32(acc)) + uint32_t(_mm_cvtsi128_si32(_mm_srli_si128(acc, 8)));
#endif
    while (n >= 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);
        // Pairs of bytes into 16-bit lanes, then fold the lanes.
        uint64_t pairs = (word & 0x00FF00FF00FF00FFull) + ((word >> 8) & 0x00FF00FF00FF00FFull);
        pairs += pairs >> 32;
        pairs += pairs >> 16;
        sum += uint32_t(pairs & 0xFFFF);
        p += 8;
        n -= 8;
    }
    while (n--)
        sum += *p++;
    return uint8_t(sum);
}

} // namespace nvdetail

namespace {

struct MidName
{
    uint8_t mid;
    const char* name;
};

constexpr MidName kMidNames[] = {
    {NvMid::ReqDeviceId, "ReqDeviceId"},
    {NvMid::DeviceId, "DeviceId"},
    {NvMid::RestoreFactoryDefaults, "RestoreFactoryDefaults"},
    {NvMid::RestoreFactoryDefaultsAck, "RestoreFactoryDefaultsAck"},
    {NvMid::GoToMeasurement, "GoToMeasurement"},
    {NvMid::GoToMeasurementAck, "GoToMeasurementAck"},
    {NvMid::ReqFirmwareRevision, "ReqFirmwareRevision"},
    {NvMid::FirmwareRevision, "FirmwareRevision"},
    {NvMid::ReqBaudRate, "ReqBaudRate"},
    {NvMid::BaudRate, "BaudRate"},
    {NvMid::ReqProductCode, "ReqProductCode"},
    {NvMid::ProductCode, "ProductCode"},
    {NvMid::ReqHardwareVersion, "ReqHardwareVersion"},
    {NvMid::HardwareVersion, "HardwareVersion"},
    {NvMid::SetNoRotation, "SetNoRotation"},
    {NvMid::SetNoRotationAck, "SetNoRotationAck"},
    {NvMid::ReqSyncSettings, "ReqSyncSettings"},
    {NvMid::SyncSettings, "SyncSettings"},
    {NvMid::GoToConfig, "GoToConfig"},
    {NvMid::GoToConfigAck, "GoToConfigAck"},
    {NvMid::ReqData, "ReqData"},
    {NvMid::DataPacket, "DataPacket"},
    {NvMid::WakeUp, "WakeUp"},
    {NvMid::WakeUpAck, "WakeUpAck"},
    {NvMid::Reset, "Reset"},
    {NvMid::ResetAck, "ResetAck"},
    {NvMid::Error, "Error"},
    {NvMid::Warning, "Warning"},
    {NvMid::ReqOptionFlags, "ReqOptionFlags"},
    {NvMid::OptionFlags, "OptionFlags"},
    {NvMid::ReqUtcTime, "ReqUtcTime"},
    {NvMid::UtcTime, "UtcTime"},
    {NvMid::ReqAvailableFilterProfiles, "ReqAvailableFilterProfiles"},
    {NvMid::AvailableFilterProfiles, "AvailableFilterProfiles"},
    {NvMid::ReqFilterProfile, "ReqFilterProfile"},
    {NvMid::FilterProfile, "FilterProfile"},
    {NvMid::ReqGnssLeverArm, "ReqGnssLeverArm"},
    {NvMid::GnssLeverArm, "GnssLeverArm"},
    {NvMid::ReqGnssPlatform, "ReqGnssPlatform"},
    {NvMid::GnssPlatform, "GnssPlatform"},
    {NvMid::ReqLocationId, "ReqLocationId"},
    {NvMid::LocationId, "LocationId"},
    {NvMid::ReqPortConfig, "ReqPortConfig"},
    {NvMid::PortConfig, "PortConfig"},
    {NvMid::ReqStringOutputType, "ReqStringOutputType"},
    {NvMid::StringOutputType, "StringOutputType"},
    {NvMid::ReqCalibrationRecord, "ReqCalibrationRecord"},
    {NvMid::CalibrationRecord, "CalibrationRecord"},
    {NvMid::ResetOrientation, "ResetOrientation"},
    {NvMid::ResetOrientationAck, "ResetOrientationAck"},
    {NvMid::ReqGnssStatus, "ReqGnssStatus"},
    {NvMid::GnssStatus, "GnssStatus"},
    {NvMid::ReqOutputConfiguration, "ReqOutputConfiguration"},
    {NvMid::OutputConfiguration, "OutputConfiguration"},
    {NvMid::ReqErrorMode, "ReqErrorMode"},
    {NvMid::ErrorMode, "ErrorMode"},
    {NvMid::ReqTransmitDelay, "ReqTransmitDelay"},
    {NvMid::TransmitDelay, "TransmitDelay"},
    {NvMid::ForwardGnssData, "ForwardGnssData"},
    {NvMid::ForwardGnssDataAck, "ForwardGnssDataAck"},
    {NvMid::ReqRadioChannel, "ReqRadioChannel"},
    {NvMid::RadioChannel, "RadioChannel"},
    {NvMid::ReqUpdateRate, "ReqUpdateRate"},
    {NvMid::UpdateRate, "UpdateRate"},
    {NvMid::ReqTrackerList, "ReqTrackerList"},
    {NvMid::TrackerList, "TrackerList"},
    {NvMid::TrackerCommand, "TrackerCommand"},
    {NvMid::TrackerCommandAck, "TrackerCommandAck"},
    {NvMid::StartFlush, "StartFlush"},
    {NvMid::StartFlushAck, "StartFlushAck"},
    {NvMid::TrackerStatus, "TrackerStatus"},
    {NvMid::TrackerLinkReport, "TrackerLinkReport"},
    {NvMid::FlushProgress, "FlushProgress"},
};

} // namespace

const char* nvMessageIdName(uint8_t messageId)
{
    for (const MidName& entry : kMidNames)
        if (entry.mid == messageId)
            return entry.name;
    return "Unknown";
}

const char* nvFrameCheckText(NvFrameCheck check)
{
    switch (check) {
    case NvFrameCheck::Ok:
        return "ok";
    case NvFrameCheck::TooShort:
        return "frame too short";
    case NvFrameCheck::NoPreamble:
        return "no preamble";
    case NvFrameCheck::Oversize:
        return "declared length above 2048";
    case NvFrameCheck::SizeMismatch:
        return "bytes after the checksum";
    case NvFrameCheck::BadChecksum:
        return "checksum fault";
    }
    return "unknown";
}

// ---- NvMessage --------------------------------------------------------------------

NvMessage::NvMessage(uint8_t busId, uint8_t messageId, const NvByteArray& data)
    : NvMessage(busId, messageId, data.data(), data.size())
{
}

NvMessage::NvMessage(uint8_t busId, uint8_t messageId, const uint8_t* data, size_t size)
{
    if (size > MaxDataSize)
        return;
    const size_t header = headerSizeFor(size);
    m_block = nvdetail::FrameBlock::allocate(header + size + 1);
    uint8_t* f = m_block.bytes();
    f[0] = Preamble;
    f[1] = busId;
    f[2] = messageId;
    if (header == 4) {
        f[3] = uint8_t(size);
    } else {
        f[3] = ExtendedLength;
        f[4] = uint8_t(size >> 8);
        f[5] = uint8_t(size);
    }
    if (size)
        std::memcpy(f + header, data, size);
    updateChecksum();
}

NvFrameCheck NvMessage::checkFrame(const uint8_t* frame, size_t size)
{
    if (size < MinFrameSize)
        return size > 0 && frame[0] != Preamble ? NvFrameCheck::NoPreamble : NvFrameCheck::TooShort;
    if (frame[0] != Preamble)
        return NvFrameCheck::NoPreamble;
    size_t header = 4;
    size_t length = frame[3];
    if (length == ExtendedLength) {
        if (size < 7)
            return NvFrameCheck::TooShort;
        header = 6;
        length = size_t(frame[4]) << 8 | frame[5];
        if (length > MaxDataSize)
            return NvFrameCheck::Oversize;
    }
    const size_t total = header + length + 1;
    if (size < total)
        return NvFrameCheck::TooShort;
    if (size > total)
        return NvFrameCheck::SizeMismatch;
    return nvdetail::byteSum(frame + 1, size - 1) == 0 ? NvFrameCheck::Ok
                                                       : NvFrameCheck::BadChecksum;
}

NvMessage NvMessage::fromFrame(const uint8_t* frame, size_t size, NvFrameCheck* check)
{
    const NvFrameCheck verdict = checkFrame(frame, size);
    if (check)
        *check = verdict;
    if (verdict != NvFrameCheck::Ok && verdict != NvFrameCheck::BadChecksum)
        return {};
    nvdetail::FrameBlock block = nvdetail::FrameBlock::allocate(size);
    std::memcpy(block.bytes(), frame, size);
    return NvMessage(std::move(block));
}

uint8_t NvMessage::computeChecksum(const uint8_t* frame, size_t size)
{
    return size <= 1 ? 0 : uint8_t(-nvdetail::byteSum(frame + 1, size - 1));
}

bool NvMessage::isValid() const
{
    return m_block && nvdetail::byteSum(frame() + 1, frameSize() - 1) == 0;
}

size_t NvMessage::dataSize() const
{
    return m_block ? frameSize() - headerSize() - 1 : 0;
}

NvByteArray NvMessage::dataBytes() const
{
    return m_block ? NvByteArray(data(), data() + dataSize()) : NvByteArray();
}

NvByteArray NvMessage::frameBytes() const
{
    return m_block ? NvByteArray(frame(), frame() + frameSize()) : NvByteArray();
}

std::string NvMessage::toHex() const
{
    return nvToHex(frame(), frameSize());
}

uint8_t NvMessage::readU8(size_t offset) const
{
    return offset < dataSize() ? data()[offset] : 0;
}

uint16_t NvMessage::readU16(size_t offset) const
{
    return offset + 2 <= dataSize() ? nvbe::readU16(data() + offset) : 0;
}

uint32_t NvMessage::readU32(size_t offset) const
{
    return offset + 4 <= dataSize() ? nvbe::readU32(data() + offset) : 0;
}

uint64_t NvMessage::readU64(size_t offset) const
{
    return offset + 8 <= dataSize() ? nvbe::readU64(data() + offset) : 0;
}

float NvMessage::readF32(size_t offset) const
{
    return offset + 4 <= dataSize() ? nvbe::readF32(data() + offset) : 0.0f;
}

double NvMessage::readF64(size_t offset) const
{
    return offset + 8 <= dataSize() ? nvbe::readF64(data() + offset) : 0.0;
}

bool NvMessage::prepareWrite(size_t size)
{
    if (size > MaxDataSize)
        return false;
    const uint8_t bus = m_block ? busId() : BusIdDevice;
    const uint8_t mid = messageId();
    if (m_block && !m_block.isShared() && size == dataSize())
        return true;
    // Rebuild: the header form may change and the bytes may be shared.
    const size_t header = headerSizeFor(size);
    nvdetail::FrameBlock block = nvdetail::FrameBlock::allocate(header + size + 1);
    uint8_t* f = block.bytes();
    f[0] = Preamble;
    f[1] = bus;
    f[2] = mid;
    if (header == 4) {
        f[3] = uint8_t(size);
    } else {
        f[3] = ExtendedLength;
        f[4] = uint8_t(size >> 8);
        f[5] = uint8_t(size);
    }
    const size_t keep = std::min(size, dataSize());
    if (keep)
        std::memcpy(f + header, data(), keep);
    if (size > keep)
        std::memset(f + header + keep, 0, size - keep);
    m_block = std::move(block);
    return true;
}

void NvMessage::updateChecksum()
{
    uint8_t* f = m_block.bytes();
    const size_t size = m_block.frameSize();
    f[size - 1] = computeChecksum(f, size - 1);
}

void NvMessage::setBusId(uint8_t busId)
{
    prepareWrite(dataSize());
    m_block.bytes()[1] = busId;
    updateChecksum();
}

void NvMessage::setMessageId(uint8_t messageId)
{
    prepareWrite(dataSize());
    m_block.bytes()[2] = messageId;
    updateChecksum();
}

bool NvMessage::setData(const uint8_t* bytes, size_t size)
{
    if (!prepareWrite(size))
        return false;
    if (size)
        std::memmove(m_block.bytes() + headerSize(), bytes, size);
    updateChecksum();
    return true;
}

bool NvMessage::resizeData(size_t size)
{
    if (!prepareWrite(size))
        return false;
    updateChecksum();
    return true;
}

bool NvMessage::append(const uint8_t* bytes, size_t size)
{
    const size_t old = dataSize();
    if (old + size > MaxDataSize)
        return false;
    // Copy first: `bytes` may point into this message.
    NvByteArray copy(bytes, bytes + size);
    if (!prepareWrite(old + size))
        return false;
    if (size)
        std::memcpy(m_block.bytes() + headerSize() + old, copy.data(), size);
    updateChecksum();
    return true;
}

// Grows the data when the field lies past its end, writes it and reseals the frame.
template <typename Writer>
bool NvMessage::writeAt(size_t offset, size_t width, Writer writer)
{
    const size_t needed = offset + width;
    if (needed > MaxDataSize || !resizeData(std::max(needed, dataSize())))
        return false;
    writer(m_block.bytes() + headerSize() + offset);
    updateChecksum();
    return true;
}

bool NvMessage::writeU8(size_t offset, uint8_t value)
{
    return writeAt(offset, 1, [&](uint8_t* p) { nvbe::writeU8(p, value); });
}

bool NvMessage::writeU16(size_t offset, uint16_t value)
{
    return writeAt(offset, 2, [&](uint8_t* p) { nvbe::writeU16(p, value); });
}

bool NvMessage::writeU32(size_t offset, uint32_t value)
{
    return writeAt(offset, 4, [&](uint8_t* p) { nvbe::writeU32(p, value); });
}

bool NvMessage::writeU64(size_t offset, uint64_t value)
{
    return writeAt(offset, 8, [&](uint8_t* p) { nvbe::writeU64(p, value); });
}

bool NvMessage::writeF32(size_t offset, float value)
{
    return writeAt(offset, 4, [&](uint8_t* p) { nvbe::writeF32(p, value); });
}

bool NvMessage::writeF64(size_t offset, double value)
{
    return writeAt(offset, 8, [&](uint8_t* p) { nvbe::writeF64(p, value); });
}

bool operator==(const NvMessage& a, const NvMessage& b)
{
    if (a.frameSize() != b.frameSize())
        return false;
    return a.frameSize() == 0 || std::memcmp(a.frame(), b.frame(), a.frameSize()) == 0;
}
