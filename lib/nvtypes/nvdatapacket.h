#pragma once

// A decoded data packet (message 0x36) and the builder that makes one.
//
// The packet's data is a sequence of items: identifier (2, big-endian), size (1),
// payload. Decoding finds the packet's item index (identifier, offset, size of every
// item) in a cache of layouts: a device sends the same items in the same sizes packet
// after packet, so the index is built once per layout and shared, immutable, by every
// packet of that layout. Values are converted only when asked for.
//
// Where the bytes live, and how long a packet may be kept:
// - fromFrame() copies the frame into a block of the packet's own (one allocation);
//   NvDataPacket(message) shares the message's block. Such a packet lives as long as
//   anyone holds it.
// - viewFrame(frame, size, owner) reads the bytes where they are, and every copy shares
//   `owner`, which keeps them alive (a loaded recording). No allocation.
// - viewFrame(frame, size) borrows the bytes: valid only while they are (a reader's buffer
//   during a callback). No allocation; isBorrowed() is true. Copying or moving a borrowed
//   packet copies its bytes into a block of the copy's own, so whatever a handler keeps
//   (a copy, NvPacket_copy, a Qt event) outlives the buffer. Never keep a reference or
//   pointer to a borrowed packet beyond the call that handed it out.
// Copies of the other two forms share the bytes: one atomic increment each for the bytes
// and the index.
//
// Identifiers are looked up by quantity (format bits ignored). Values of real quantities
// come back as double whatever precision was sent. Items the library does not know are
// kept and can be read raw. An item whose size runs past the end of the data ends the
// decoding: the items before it are kept and the packet is flagged malformed.

#include "nvenums.h"
#include "nvexport.h"
#include "nvgnss.h"
#include "nvmath.h"
#include "nvmessage.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

struct NvFrameRange
{
    uint16_t first = 0;
    uint16_t last = 0;
    friend bool operator==(const NvFrameRange& a, const NvFrameRange& b)
    {
        return a.first == b.first && a.last == b.last;
    }
};

struct NvLatLon
{
    double latitude = 0.0;  // degrees
    double longitude = 0.0; // degrees
};

// Fixed-point and float encodings of one real value in a precision.
// Encoding saturates at the format's range (fp1220: [-2048, 2048), fp1632: [-32768,
// 32768)); NaN encodes as 0 in the fixed-point formats.
NV_API void nvEncodeReal(double value, NvPrecision precision, uint8_t* out);
NV_API double nvDecodeReal(const uint8_t* in, NvPrecision precision);

namespace nvdetail {
// The item index of one packet layout: shared by every packet with the same items in the
// same sizes, immutable once made. The items follow the header.
struct PacketLayout
{
    struct Item
    {
        NvDataIdentifier id;
        uint16_t offset; // of the payload, from the start of the message data
        uint16_t size;   // payload bytes
    };
    mutable std::atomic<uint32_t> refs;
    uint16_t count;
    uint16_t dataSize;
    uint16_t decodedSize; // where decoding stopped; dataSize unless malformed
    uint16_t reserved;

    const Item* items() const { return reinterpret_cast<const Item*>(this + 1); }
    Item* items() { return reinterpret_cast<Item*>(this + 1); }
};
} // namespace nvdetail

class NV_API NvDataPacket
{
public:
    // One entry of the item index.
    using Item = nvdetail::PacketLayout::Item;

    // The empty packet: no message, no items.
    NvDataPacket() = default;
    // Decodes the data of a message (normally a DataPacket, 0x36), sharing its bytes.
    explicit NvDataPacket(const NvMessage& message);
    // Decodes one verified frame, copying its bytes once (the checksum is not checked
    // again). Empty for anything that is not shaped like a frame.
    static NvDataPacket fromFrame(const uint8_t* frame, size_t size);
    // Decodes one verified frame in place, without copying or allocating. Borrowed: valid
    // only while the bytes are; copies own theirs (see the top of this file).
    static NvDataPacket viewFrame(const uint8_t* frame, size_t size);
    // Decodes one verified frame in place; `owner` keeps the bytes alive and is shared by
    // every copy (e.g. an aliasing std::shared_ptr to the buffer of a loaded recording).
    static NvDataPacket viewFrame(const uint8_t* frame, size_t size,
                                  std::shared_ptr<const void> owner);
    // A DataPacket message with the given item bytes.
    static NvDataPacket fromData(const uint8_t* data, size_t size,
                                 uint8_t busId = NvMessage::BusIdDevice);

    NvDataPacket(const NvDataPacket& other);
    // Moving a borrowed packet copies its bytes, as copying does; the source is left empty.
    NvDataPacket(NvDataPacket&& other) noexcept;
    NvDataPacket& operator=(const NvDataPacket& other);
    NvDataPacket& operator=(NvDataPacket&& other) noexcept;
    ~NvDataPacket();

    bool isEmpty() const { return !m_layout; }
    // Reads bytes that nobody keeps alive for it (viewFrame without an owner).
    bool isBorrowed() const { return m_layout && !m_block && !m_owner; }
    // An item ran past the end of the data; items before it are available.
    bool isMalformed() const { return m_layout && m_layout->decodedSize != m_layout->dataSize; }
    // Data offset at which decoding stopped for a malformed packet (else the data size).
    size_t decodedSize() const { return m_layout ? m_layout->decodedSize : 0; }

    // The frame the packet was decoded from (shares the bytes of a packet that owns them,
    // copies them otherwise).
    NvMessage message() const;
    uint8_t busId() const { return m_layout ? m_frame[1] : 0; }
    const uint8_t* data() const { return m_layout ? m_frame + headerSize() : nullptr; }
    size_t dataSize() const { return m_layout ? m_layout->dataSize : 0; }

    // ---- Items ----
    size_t itemCount() const { return m_layout ? m_layout->count : 0; }
    const Item& item(size_t index) const { return m_layout->items()[index]; }
    const uint8_t* itemPayload(size_t index) const { return data() + item(index).offset; }
    // The first item of a quantity (format bits of `quantity` ignored), or null.
    const Item* find(NvDataIdentifier quantity) const
    {
        if (!m_layout)
            return nullptr;
        const Item* items = m_layout->items();
        const NvDataIdentifier q = nvQuantity(quantity);
        for (size_t i = 0, n = m_layout->count; i < n; ++i)
            if (nvQuantity(items[i].id) == q)
                return &items[i];
        return nullptr;
    }
    bool contains(NvDataIdentifier quantity) const { return find(quantity) != nullptr; }
    // The identifier as sent (with its format bits), or NDI_NONE.
    NvDataIdentifier identifier(NvDataIdentifier quantity) const;
    // Raw payload of an item; empty when absent.
    NvByteArray rawItem(NvDataIdentifier quantity) const;

    // Reals of an item converted to double, in the frame they were sent in; returns how
    // many were written (at most `capacity`), 0 when absent or not a real quantity.
    size_t reals(NvDataIdentifier quantity, double* out, size_t capacity) const;
    // One real (index within the item), 0 when absent.
    double real(NvDataIdentifier quantity, size_t index = 0) const;

    // ---- Typed getters: neutral values (0, identity) when the item is absent ----
    uint16_t packetCounter() const;
    uint32_t sampleTimeFine() const;   // 10 kHz ticks
    uint32_t sampleTimeCoarse() const; // s
    uint32_t timeOfWeek() const;       // ms
    uint8_t gnssAge() const;
    NvUtcTime utcTime() const;
    NvFrameRange frameRange() const;
    uint32_t pressure() const; // Pa
    uint8_t statusByte() const;
    uint32_t statusWord() const;
    int8_t rssi() const; // dBm
    uint16_t analogIn1() const;
    uint16_t analogIn2() const;
    uint32_t gnssPvtPulse() const; // sample time fine of the pulse
    NvGnssPvt gnssPvt() const;
    NvGnssSatInfo gnssSatInfo() const;
    double temperature() const;       // °C
    double altitudeMsl() const;       // m
    double altitudeEllipsoid() const; // m
    NvLatLon latLon() const;
    NvVector3 positionEcef() const; // m

    // 3-vectors of a quantity as sent, or converted into `frame` (sensor- or navigation-
    // frame rule by quantity; quantities without a frame come back unchanged).
    NvVector3 vector3(NvDataIdentifier quantity) const;
    NvVector3 vector3(NvDataIdentifier quantity, NvCoordinateFrame frame) const;
    NvVector3 acceleration() const { return vector3(NDI_ACCELERATION); }
    NvVector3 freeAcceleration() const { return vector3(NDI_FREE_ACCELERATION); }
    NvVector3 deltaVelocity() const { return vector3(NDI_DELTA_V); }
    NvVector3 accelerationHr() const { return vector3(NDI_ACCELERATION_HR); }
    NvVector3 rateOfTurn() const { return vector3(NDI_RATE_OF_TURN); }
    NvVector3 rateOfTurnHr() const { return vector3(NDI_RATE_OF_TURN_HR); }
    NvVector3 magneticField() const { return vector3(NDI_MAGNETIC_FIELD); }
    NvVector3 velocity() const { return vector3(NDI_VELOCITY); }
    // Δq, identity when absent.
    NvQuaternion deltaQ() const;
    NvQuaternion deltaQ(NvCoordinateFrame frame) const;

    // ---- Orientation: any one of quaternion, matrix or Euler answers all three ----
    // Whether some orientation item is present.
    bool containsOrientation() const;
    // The frame of the orientation item (ENU when there is none).
    NvCoordinateFrame orientationFrame() const;
    NvQuaternion orientationQuaternion() const;
    NvQuaternion orientationQuaternion(NvCoordinateFrame frame) const;
    NvMatrix3 orientationMatrix() const;
    NvMatrix3 orientationMatrix(NvCoordinateFrame frame) const;
    NvEuler orientationEuler() const;
    NvEuler orientationEuler(NvCoordinateFrame frame) const;

    // Same message bytes.
    NV_API friend bool operator==(const NvDataPacket& a, const NvDataPacket& b);
    friend bool operator!=(const NvDataPacket& a, const NvDataPacket& b) { return !(a == b); }

    // Forgets the cached layouts (the shared ones and the calling thread's recent ones);
    // packets keep theirs. For benchmarks of a first pass and for tests.
    static void clearLayoutCache();

private:
    // Takes over a reference to `layout`.
    NvDataPacket(const uint8_t* frame, const nvdetail::PacketLayout* layout) noexcept
        : m_frame(frame), m_layout(layout)
    {
    }
    // Reals of an item in its precision, at most `capacity`.
    size_t decodeReals(const Item& item, double* out, size_t capacity) const;
    size_t headerSize() const { return m_frame[3] == NvMessage::ExtendedLength ? 6 : 4; }
    size_t frameSize() const { return headerSize() + m_layout->dataSize + 1; }
    // Copies borrowed bytes into a block of this packet's own.
    void ownBytes();
    void release() noexcept;
    // Which orientation item is present and how it is read.
    const Item* orientationItem() const;

    const uint8_t* m_frame = nullptr;
    // Null for the empty packet; one reference held.
    const nvdetail::PacketLayout* m_layout = nullptr;
    // What keeps m_frame alive: a block of the packet's own (or a message's), an outside
    // owner, or nothing for a borrowed packet.
    nvdetail::FrameBlock m_block;
    std::shared_ptr<const void> m_owner;
};

// Builds the data of a DataPacket item by item; the emulator's encoder. Setting a
// quantity that is already present replaces its item in place; otherwise items keep the
// order in which they were set. Values are written as given, in the identifier's frame
// and precision (convert with nvmath.h first when the source is another frame).
class NV_API NvDataPacketBuilder
{
public:
    explicit NvDataPacketBuilder(uint8_t busId = NvMessage::BusIdDevice) : m_busId(busId) {}

    void clear() { m_data.clear(); }
    void setBusId(uint8_t busId) { m_busId = busId; }
    uint8_t busId() const { return m_busId; }
    // The items so far; data beyond 2048 bytes makes toMessage() fail.
    const NvByteArray& data() const { return m_data; }
    bool fits() const { return m_data.size() <= NvMessage::MaxDataSize; }

    // Generic items. The payload must be at most 255 bytes (else nothing is added, false).
    bool setItem(NvDataIdentifier id, const uint8_t* payload, size_t size);
    // Reals in the identifier's precision.
    bool setReals(NvDataIdentifier id, const double* values, size_t count);
    bool setU8(NvDataIdentifier id, uint8_t value);
    bool setU16(NvDataIdentifier id, uint16_t value);
    bool setU32(NvDataIdentifier id, uint32_t value);

    // Typed items.
    void setPacketCounter(uint16_t counter) { setU16(NDI_PACKET_COUNTER, counter); }
    void setSampleTimeFine(uint32_t ticks) { setU32(NDI_SAMPLE_TIME_FINE, ticks); }
    void setSampleTimeCoarse(uint32_t seconds) { setU32(NDI_SAMPLE_TIME_COARSE, seconds); }
    void setTimeOfWeek(uint32_t ms) { setU32(NDI_TIME_OF_WEEK, ms); }
    void setGnssAge(uint8_t age) { setU8(NDI_GNSS_AGE, age); }
    void setUtcTime(const NvUtcTime& time);
    void setFrameRange(uint16_t first, uint16_t last);
    void setPressure(uint32_t pascal) { setU32(NDI_BARO_PRESSURE, pascal); }
    void setStatusByte(uint8_t status) { setU8(NDI_STATUS_BYTE, status); }
    void setStatusWord(uint32_t status) { setU32(NDI_STATUS_WORD, status); }
    void setRssi(int8_t dbm) { setU8(NDI_RSSI, static_cast<uint8_t>(dbm)); }
    void setAnalogIn1(uint16_t value) { setU16(NDI_ANALOG_IN_1, value); }
    void setAnalogIn2(uint16_t value) { setU16(NDI_ANALOG_IN_2, value); }
    void setGnssPvtPulse(uint32_t sampleTimeFine) { setU32(NDI_GNSS_PVT_PULSE, sampleTimeFine); }
    void setGnssPvt(const NvGnssPvt& pvt);
    // At most 41 satellites fit an item's 255 bytes; the rest are left out.
    void setGnssSatInfo(const NvGnssSatInfo& info);

    // Temperature, altitudes and other single reals.
    void setScalar(NvDataIdentifier id, double value) { setReals(id, &value, 1); }
    void setTemperature(double celsius, NvPrecision precision = NDP_FLOAT32);
    void setLatLon(double latitude, double longitude, NvDataIdentifier id = NDI_LAT_LON);
    void setVector3(NvDataIdentifier id, const NvVector3& v);
    void setDeltaQ(const NvQuaternion& dq, NvDataIdentifier id = NDI_DELTA_Q);
    // Writes `q` in the form the identifier's quantity names (quaternion, rotation
    // matrix or Euler angles) and its precision; `q` must already be in the identifier's
    // frame.
    void setOrientation(const NvQuaternion& q, NvDataIdentifier id = NDI_QUATERNION);
    void setQuaternion(const NvQuaternion& q, NvDataIdentifier id = NDI_QUATERNION);
    void setRotationMatrix(const NvMatrix3& r, NvDataIdentifier id = NDI_ROTATION_MATRIX);
    void setEuler(const NvEuler& e, NvDataIdentifier id = NDI_EULER_ANGLES);

    // A DataPacket message (0x36); empty when the data exceeds 2048 bytes.
    NvMessage toMessage() const;
    NvDataPacket toPacket() const;

private:
    uint8_t* reserveItem(NvDataIdentifier id, size_t size);

    uint8_t m_busId;
    NvByteArray m_data;
};
