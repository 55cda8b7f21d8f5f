#pragma once

// One Nbus message and the protocol's message identifiers.
//
// Frame: FA | bus id | message id | length | [ext length hi | ext length lo] | data | checksum
// - length 0..254 is the data size; 0xFF announces a two-byte big-endian extended length
//   (the library writes the extended form for 255..2048 data bytes and accepts it for any
//   size up to 2048 when reading);
// - the checksum makes the sum of every byte after the preamble 0 modulo 256;
// - bus id 0xFF addresses the device on the port itself, 1..32 the devices behind a
//   master.

#include "nvbytes.h"
#include "nvexport.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

// Message identifiers. A reply has the request's identifier plus one (ReqData is
// answered by a DataPacket); a refused request is answered by Error.
namespace NvMid {
enum : uint8_t
{
    ReqDeviceId = 0x00,
    DeviceId = 0x01, // 4 bytes (legacy form) or 8 bytes (new form)
    RestoreFactoryDefaults = 0x0E,
    RestoreFactoryDefaultsAck = 0x0F,
    GoToMeasurement = 0x10,
    GoToMeasurementAck = 0x11,
    ReqFirmwareRevision = 0x12,
    FirmwareRevision = 0x13, // major, minor, revision (1 each), build (4), change (4)
    ReqBaudRate = 0x18,      // no data: request; 1 byte NvBaudRate code: set
    SetBaudRate = 0x18,
    BaudRate = 0x19,
    ReqProductCode = 0x1C,
    ProductCode = 0x1D, // ASCII, at most 24 bytes
    ReqHardwareVersion = 0x1E,
    HardwareVersion = 0x1F, // major, minor
    SetNoRotation = 0x22,   // seconds (2)
    SetNoRotationAck = 0x23,
    ReqSyncSettings = 0x2C, // n x 18-byte records: set
    SetSyncSettings = 0x2C,
    SyncSettings = 0x2D,
    GoToConfig = 0x30,
    GoToConfigAck = 0x31,
    ReqData = 0x34,
    DataPacket = 0x36, // items: identifier (2), size (1), payload
    WakeUp = 0x3E,     // device -> host after power-up or reset
    WakeUpAck = 0x3F,  // host -> device within 500 ms: stay in configuration
    Reset = 0x40,
    ResetAck = 0x41,
    Error = 0x42,          // error code (1), optional detail
    Warning = 0x43,        // code (4), text
    ReqOptionFlags = 0x48, // set mask (4), clear mask (4): set
    SetOptionFlags = 0x48,
    OptionFlags = 0x49, // resulting flags (4)
    ReqUtcTime = 0x60,  // UTC time item (12): set
    SetUtcTime = 0x60,
    UtcTime = 0x61,
    ReqAvailableFilterProfiles = 0x62,
    AvailableFilterProfiles = 0x63, // n x (type 1, version 1, label 20)
    ReqFilterProfile = 0x64,        // type (2): set
    SetFilterProfile = 0x64,
    FilterProfile = 0x65,
    ReqGnssLeverArm = 0x68, // x, y, z float32 m (12): set
    SetGnssLeverArm = 0x68,
    GnssLeverArm = 0x69,
    ReqGnssPlatform = 0x76, // platform (2): set
    SetGnssPlatform = 0x76,
    GnssPlatform = 0x77,
    ReqLocationId = 0x84, // 2 bytes: set
    SetLocationId = 0x84,
    LocationId = 0x85,
    ReqPortConfig = 0x8C, // n x 4 bytes: set
    SetPortConfig = 0x8C,
    PortConfig = 0x8D,
    ReqStringOutputType = 0x8E, // type (2), period (2): set
    SetStringOutputType = 0x8E,
    StringOutputType = 0x8F,
    ReqCalibrationRecord = 0x90, // 00 FF
    CalibrationRecord = 0x91,
    ResetOrientation = 0xA4, // code (2)
    ResetOrientationAck = 0xA5,
    ReqGnssStatus = 0xA6,
    GnssStatus = 0xA7,             // count (1), per satellite: system, id, C/N0, flags (1 each)
    ReqOutputConfiguration = 0xC0, // n x (identifier 2, frequency 2), n <= 32: set
    SetOutputConfiguration = 0xC0,
    OutputConfiguration = 0xC1,
    ReqErrorMode = 0xDB - 1, // 2 bytes: set
    SetErrorMode = 0xDB - 1,
    ErrorMode = 0xDB,
    ReqTransmitDelay = 0xDC, // 2 bytes, microseconds (RS-485): set
    SetTransmitDelay = 0xDC,
    TransmitDelay = 0xDD,
    ForwardGnssData = 0xE2, // one RTCM 3 frame
    ForwardGnssDataAck = 0xE3,

    // Wireless masters (0xF0..0xFD). Tracker identifiers are 8 bytes: the new-form number,
    // or a legacy identifier zero-extended. 0xFA is left unused so that a message
    // identifier never looks like a preamble.
    ReqRadioChannel = 0xF0, // channel (1): set; 11..25 enables the radio there, 0 disables
    SetRadioChannel = 0xF0,
    RadioChannel = 0xF1,  // channel (1), 0 = radio off
    ReqUpdateRate = 0xF2, // rate Hz (2): set
    SetUpdateRate = 0xF2,
    UpdateRate = 0xF3, // rate (2), free slots (1), n (1), n x supported rate (2)
    ReqTrackerList = 0xF4,
    TrackerList = 0xF5,    // n x 14-byte tracker record
    TrackerCommand = 0xF6, // tracker id (8), command (1): NvTrackerCommand
    TrackerCommandAck = 0xF7,
    StartFlush = 0xF8, // ask the trackers to retransmit what the master missed
    StartFlushAck = 0xF9,
    TrackerStatus = 0xFB,     // device -> host: one tracker record on connect/reject/disconnect
    TrackerLinkReport = 0xFC, // device -> host: n x (bus id, RSSI i8 dBm, battery %)
    FlushProgress = 0xFD      // device -> host: packets done (4), total (4); done == total ends
};
} // namespace NvMid

// Commands of NvMid::TrackerCommand.
enum class NvTrackerCommand : uint8_t
{
    Reject = 0,
    Accept = 1,
    SwitchOff = 2,
    TransportMode = 3,
};

// Device option flags (Req/SetOptionFlags 0x48). A device refuses (Error 33) bits it
// does not have.
namespace NvDeviceOption {
enum : uint32_t
{
    DisableAutoStore = 0x00000001,       // settings last until power-off only
    DisableAutoMeasurement = 0x00000002, // stay in configuration after an unanswered WakeUp
    EnableBeidou = 0x00000004,           // GNSS: BeiDou instead of GLONASS
    EnableHeadingStabilisation = 0x00000010,
    EnableOrientationSmoother = 0x00000020,
    EnableConfigurableBusId = 0x00000040,
    EnableInRunCompassCalibration = 0x00000080,
    EnableConfigurationMessageAtStartup = 0x00000200,
    EnablePositionVelocitySmoother = 0x00000800,
    EnableContinuousZeroRotationUpdate = 0x00001000,
};
}

// Status word bits (item 0xE020); the status byte (0xE010) is its low 8 bits.
namespace NvStatus {
enum : uint32_t
{
    SelfTestOk = 0x01,
    OrientationValid = 0x02,
    GnssFix = 0x04,
    NoRotationUpdate = 0x08, // a no-rotation update (SetNoRotation) is running
    RtkFloat = 0x10,
    RtkFixed = 0x20,
};
}

// String output types (Req/SetStringOutputType 0x8E).
namespace NvStringOutput {
enum : uint16_t
{
    None = 0, // binary Nbus data packets
    Nmea = 1, // NMEA sentences every `period` ms, 10..10000 (GNSS kinds)
};
}

// The English name of a message identifier ("GoToConfig"); "Unknown" otherwise.
NV_API const char* nvMessageIdName(uint8_t messageId);

// Why a byte range is or is not one whole frame.
enum class NvFrameCheck
{
    Ok,
    TooShort,     // fewer bytes than the header or the declared length needs
    NoPreamble,   // first byte is not 0xFA
    Oversize,     // declared data length above 2048
    SizeMismatch, // more bytes than the declared length needs
    BadChecksum,
};
NV_API const char* nvFrameCheckText(NvFrameCheck check);

namespace nvdetail {
// A reference-counted byte block: a frame and an optional extra area that a data
// packet keeps its item index in. One allocation; copying a handle is one atomic
// increment.
class NV_API FrameBlock
{
public:
    FrameBlock() = default;
    // Frame bytes and extra area are left uninitialised.
    static FrameBlock allocate(size_t frameSize, size_t extraSize = 0);
    FrameBlock(const FrameBlock& other) noexcept;
    FrameBlock(FrameBlock&& other) noexcept : m_header(other.m_header) { other.m_header = nullptr; }
    FrameBlock& operator=(const FrameBlock& other) noexcept;
    FrameBlock& operator=(FrameBlock&& other) noexcept;
    ~FrameBlock() { release(); }

    explicit operator bool() const { return m_header != nullptr; }
    uint8_t* bytes() const { return reinterpret_cast<uint8_t*>(m_header + 1); }
    size_t frameSize() const { return m_header ? m_header->frameSize : 0; }
    void* extra() const { return bytes() + m_header->extraOffset; }
    size_t extraSize() const { return m_header ? m_header->extraSize : 0; }
    bool isShared() const { return m_header && m_header->refs.load(std::memory_order_acquire) > 1; }

private:
    struct alignas(8) Header
    {
        std::atomic<uint32_t> refs;
        uint32_t frameSize;
        uint32_t extraOffset;
        uint32_t extraSize;
    };
    void release() noexcept;
    Header* m_header = nullptr;
};
} // namespace nvdetail

// A message: the whole frame, always with a correct length and (when built here) a
// correct checksum. Immutable bytes shared between copies; the setters copy first when
// the bytes are shared. The default message is empty (no frame, not valid).
class NV_API NvMessage
{
public:
    static constexpr uint8_t Preamble = 0xFA;
    static constexpr uint8_t BusIdDevice = 0xFF; // the device on the port itself
    static constexpr uint8_t ExtendedLength = 0xFF;
    static constexpr size_t MaxDataSize = 2048;
    static constexpr size_t MinFrameSize = 5;
    static constexpr size_t MaxFrameSize = MaxDataSize + 7;

    NvMessage() = default;
    // More than 2048 data bytes give an empty message.
    NvMessage(uint8_t busId, uint8_t messageId, const NvByteArray& data = {});
    NvMessage(uint8_t busId, uint8_t messageId, const uint8_t* data, size_t size);
    // A message for the device on the port (bus id 0xFF).
    static NvMessage toDevice(uint8_t messageId, const NvByteArray& data = {})
    {
        return NvMessage(BusIdDevice, messageId, data);
    }

    // Takes exactly one frame. A frame whose structure is sound but whose checksum is
    // wrong is kept (isValid() false); anything else gives an empty message. `check`,
    // when given, receives the verdict.
    static NvMessage fromFrame(const uint8_t* frame, size_t size, NvFrameCheck* check = nullptr);
    static NvMessage fromFrame(const NvByteArray& frame, NvFrameCheck* check = nullptr)
    {
        return fromFrame(frame.data(), frame.size(), check);
    }
    static NvFrameCheck checkFrame(const uint8_t* frame, size_t size);
    // 4, or 6 for 255 data bytes and more.
    static size_t headerSizeFor(size_t dataSize) { return dataSize < 255 ? 4 : 6; }
    // The checksum byte for frame bytes [0, size) (preamble included, checksum excluded).
    static uint8_t computeChecksum(const uint8_t* frame, size_t size);

    bool isEmpty() const { return !m_block; }
    // A frame is held and its checksum is right.
    bool isValid() const;

    uint8_t busId() const { return m_block ? m_block.bytes()[1] : 0; }
    uint8_t messageId() const { return m_block ? m_block.bytes()[2] : 0; }
    bool isExtended() const { return m_block && m_block.bytes()[3] == ExtendedLength; }
    size_t dataSize() const;
    // Null for the empty message; may be a valid pointer with dataSize() 0.
    const uint8_t* data() const { return m_block ? m_block.bytes() + headerSize() : nullptr; }
    const uint8_t* frame() const { return m_block ? m_block.bytes() : nullptr; }
    size_t frameSize() const { return m_block.frameSize(); }
    uint8_t checksum() const { return m_block ? m_block.bytes()[frameSize() - 1] : 0; }
    NvByteArray dataBytes() const;
    NvByteArray frameBytes() const;
    // "FA FF 30 00 D1"
    std::string toHex() const;

    // Big-endian reads at a data offset; a read past the data gives 0.
    uint8_t readU8(size_t offset) const;
    uint16_t readU16(size_t offset) const;
    uint32_t readU32(size_t offset) const;
    uint64_t readU64(size_t offset) const;
    int8_t readI8(size_t offset) const { return static_cast<int8_t>(readU8(offset)); }
    int16_t readI16(size_t offset) const { return static_cast<int16_t>(readU16(offset)); }
    int32_t readI32(size_t offset) const { return static_cast<int32_t>(readU32(offset)); }
    float readF32(size_t offset) const;
    double readF64(size_t offset) const;

    // Setters keep the frame consistent (length form, checksum). Writes past the end grow
    // the data with zeros; growth beyond 2048 bytes is refused (false). On the empty
    // message they first create a frame for bus 0xFF, message 0.
    void setBusId(uint8_t busId);
    void setMessageId(uint8_t messageId);
    bool setData(const uint8_t* data, size_t size);
    bool setData(const NvByteArray& data) { return setData(data.data(), data.size()); }
    bool resizeData(size_t size);
    bool append(const uint8_t* data, size_t size);
    bool writeU8(size_t offset, uint8_t value);
    bool writeU16(size_t offset, uint16_t value);
    bool writeU32(size_t offset, uint32_t value);
    bool writeU64(size_t offset, uint64_t value);
    bool writeI16(size_t offset, int16_t value) { return writeU16(offset, uint16_t(value)); }
    bool writeI32(size_t offset, int32_t value) { return writeU32(offset, uint32_t(value)); }
    bool writeF32(size_t offset, float value);
    bool writeF64(size_t offset, double value);

    // Same frame bytes.
    NV_API friend bool operator==(const NvMessage& a, const NvMessage& b);
    friend bool operator!=(const NvMessage& a, const NvMessage& b) { return !(a == b); }

private:
    friend class NvDataPacket;
    explicit NvMessage(nvdetail::FrameBlock block) : m_block(std::move(block)) {}
    size_t headerSize() const { return isExtended() ? 6 : 4; }
    // Makes the bytes unshared and `size` data bytes long (new bytes zero).
    bool prepareWrite(size_t size);
    void updateChecksum();
    template <typename Writer>
    bool writeAt(size_t offset, size_t width, Writer writer);

    nvdetail::FrameBlock m_block;
};
