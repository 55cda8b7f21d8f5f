#pragma once

// A decoded data packet (message 0x36) and the builder that makes one.
//
// The packet's data is a sequence of items: identifier (2, big-endian), size (1),
// payload. Decoding builds a compact index of the items (identifier, offset, size) next
// to the frame bytes in one shared, immutable block: copying a packet is one atomic
// increment, and values are converted only when asked for.
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

#include <cstddef>
#include <cstdint>
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

class NV_API NvDataPacket
{
public:
    // One entry of the item index.
    struct Item
    {
        NvDataIdentifier id;
        uint16_t offset; // of the payload, from the start of the message data
        uint16_t size;   // payload bytes
    };

    // The empty packet: no message, no items.
    NvDataPacket() = default;
    // Decodes the data of a message (normally a DataPacket, 0x36).
    explicit NvDataPacket(const NvMessage& message);
    // Decodes one verified frame, copying its bytes once (the checksum is not checked
    // again). Empty for anything that is not shaped like a frame.
    static NvDataPacket fromFrame(const uint8_t* frame, size_t size);
    // A DataPacket message with the given item bytes.
    static NvDataPacket fromData(const uint8_t* data, size_t size,
                                 uint8_t busId = NvMessage::BusIdDevice);

    bool isEmpty() const { return !m_block; }
    // An item ran past the end of the data; items before it are available.
    bool isMalformed() const;
    // Data offset at which decoding stopped for a malformed packet (else the data size).
    size_t decodedSize() const;

    // The frame the packet was decoded from (shares the bytes).
    NvMessage message() const;
    uint8_t busId() const { return m_block ? m_block.bytes()[1] : 0; }
    const uint8_t* data() const { return m_block ? m_block.bytes() + headerSize() : nullptr; }
    size_t dataSize() const { return m_block ? m_block.frameSize() - headerSize() - 1 : 0; }

    // ---- Items ----
    size_t itemCount() const;
    const Item& item(size_t index) const;
    const uint8_t* itemPayload(size_t index) const { return data() + item(index).offset; }
    // The first item of a quantity (format bits of `quantity` ignored), or null.
    const Item* find(NvDataIdentifier quantity) const
    {
        if (!m_block)
            return nullptr;
        const Index* ix = index();
        const Item* items = ix->items();
        const NvDataIdentifier q = nvQuantity(quantity);
        for (size_t i = 0, n = ix->count; i < n; ++i)
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

private:
    // Lives in the extra area of the packet's block, right after the frame.
    struct Index
    {
        uint16_t count;
        uint16_t malformed;
        uint16_t decodedSize;
        uint16_t headerSize;

        const Item* items() const { return reinterpret_cast<const Item*>(this + 1); }
        Item* items() { return reinterpret_cast<Item*>(this + 1); }
    };
    const Index* index() const { return static_cast<const Index*>(m_block.extra()); }
    // Reals of an item in its precision, at most `capacity`.
    size_t decodeReals(const Item& item, double* out, size_t capacity) const;
    size_t headerSize() const { return m_block.bytes()[3] == NvMessage::ExtendedLength ? 6 : 4; }
    // Which orientation item is present and how it is read.
    const Item* orientationItem() const;
    static NvDataPacket decode(nvdetail::FrameBlock block);

    nvdetail::FrameBlock m_block;
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
