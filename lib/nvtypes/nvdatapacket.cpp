#include "nvdatapacket.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <unordered_map>

using namespace nvbe;

namespace {
constexpr double kTwo20 = 1048576.0;
constexpr double kTwo32 = 4294967296.0;

bool isOrientationQuantity(NvDataIdentifier quantity)
{
    return quantity == NDI_QUATERNION || quantity == NDI_ROTATION_MATRIX ||
           quantity == NDI_EULER_ANGLES;
}
} // namespace

void nvEncodeReal(double value, NvPrecision precision, uint8_t* out)
{
    switch (precision) {
    case NDP_FLOAT32:
        writeF32(out, static_cast<float>(value));
        return;
    case NDP_FP1220: {
        double scaled = std::isnan(value) ? 0.0 : std::round(value * kTwo20);
        scaled = std::clamp(scaled, double(std::numeric_limits<int32_t>::min()),
                            double(std::numeric_limits<int32_t>::max()));
        writeI32(out, static_cast<int32_t>(scaled));
        return;
    }
    case NDP_FP1632: {
        // 48-bit two's complement value in units of 2^-32: fraction first, then the
        // (floor) integer part.
        constexpr double lo = -140737488355328.0; // -2^47
        constexpr double hi = 140737488355327.0;  // 2^47 - 1
        double scaled = std::isnan(value) ? 0.0 : std::round(value * kTwo32);
        scaled = std::clamp(scaled, lo, hi);
        const uint64_t raw = static_cast<uint64_t>(static_cast<int64_t>(scaled));
        writeU32(out, static_cast<uint32_t>(raw));
        writeU16(out + 4, static_cast<uint16_t>(raw >> 32));
        return;
    }
    case NDP_FLOAT64:
        writeF64(out, value);
        return;
    }
}

double nvDecodeReal(const uint8_t* in, NvPrecision precision)
{
    switch (precision) {
    case NDP_FLOAT32:
        return readF32(in);
    case NDP_FP1220:
        return readI32(in) / kTwo20;
    case NDP_FP1632:
        return (double(readI16(in + 4)) * kTwo32 + double(readU32(in))) / kTwo32;
    case NDP_FLOAT64:
        return readF64(in);
    }
    return 0.0;
}

// ---- Layouts ----------------------------------------------------------------------

static_assert(sizeof(NvDataPacket::Item) == 6, "compact index entries");
static_assert(alignof(nvdetail::PacketLayout) >= alignof(NvDataPacket::Item), "items follow");

namespace {

using nvdetail::PacketLayout;

// Walks the items of `data`; calls `onItem(id, offset, size)` for each whole one.
// Returns the offset where the walk stopped (== size unless malformed).
template <typename F>
size_t walkItems(const uint8_t* data, size_t size, F&& onItem)
{
    size_t pos = 0;
    while (pos < size) {
        if (size - pos < 3)
            return pos;
        const size_t itemSize = data[pos + 2];
        if (size - pos - 3 < itemSize)
            return pos;
        onItem(readU16(data + pos), pos + 3, itemSize);
        pos += 3 + itemSize;
    }
    return pos;
}

void retain(const PacketLayout* layout)
{
    if (layout)
        layout->refs.fetch_add(1, std::memory_order_relaxed);
}

void release(const PacketLayout* layout)
{
    if (layout && layout->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        layout->~PacketLayout();
        ::operator delete(const_cast<PacketLayout*>(layout));
    }
}

// Whether the items of `data` are exactly the layout's: the same identifiers and sizes at
// the same places, and for a malformed layout a tail that stops the walk the same way.
// The offsets are known, so the checks do not wait on one another as a walk's do.
bool matches(const PacketLayout& layout, const uint8_t* data, size_t size)
{
    if (layout.dataSize != size)
        return false;
    const PacketLayout::Item* items = layout.items();
    for (size_t i = 0, n = layout.count; i < n; ++i) {
        const uint8_t* header = data + items[i].offset - 3;
        if (readU16(header) != items[i].id || header[2] != items[i].size)
            return false;
    }
    const size_t tail = size - layout.decodedSize;
    return tail < 3 || data[layout.decodedSize + 2] > tail - 3;
}

uint64_t mix(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

// One walk over the items of a packet's data: what its layout is made of, and the hash
// the shared cache files it under.
struct ItemWalk
{
    static constexpr size_t kLocalItems = 64;
    PacketLayout::Item local[kLocalItems];
    size_t count = 0;
    size_t decoded = 0;
    uint64_t hash = 0;

    ItemWalk(const uint8_t* data, size_t size)
    {
        hash = mix(0, size);
        decoded = walkItems(data, size, [&](uint16_t id, size_t offset, size_t itemSize) {
            if (count < kLocalItems)
                local[count] = {id, uint16_t(offset), uint16_t(itemSize)};
            hash = mix(hash, uint64_t(id) << 8 | itemSize);
            ++count;
        });
    }

    // A new layout; one reference, the caller's. Walks `data` again only for packets of
    // more than kLocalItems items.
    PacketLayout* make(const uint8_t* data, size_t size) const
    {
        void* memory = ::operator new(sizeof(PacketLayout) + count * sizeof(PacketLayout::Item));
        auto* layout =
            new (memory) PacketLayout{{1}, uint16_t(count), uint16_t(size), uint16_t(decoded), 0};
        PacketLayout::Item* items = layout->items();
        if (count <= kLocalItems) {
            std::memcpy(items, local, count * sizeof(PacketLayout::Item));
        } else {
            walkItems(data, decoded, [&](uint16_t id, size_t offset, size_t itemSize) {
                *items++ = {id, uint16_t(offset), uint16_t(itemSize)};
            });
        }
        return layout;
    }
};

// The layouts of every thread, by hash. Beyond kMaxLayouts (a stream of unrelated
// packets, garbage) it starts over; packets keep the layouts they hold.
class LayoutCache
{
public:
    static constexpr size_t kMaxLayouts = 1024;

    // The layout of `data`, from the cache or made and added; one reference, the caller's.
    const PacketLayout* find(const uint8_t* data, size_t size)
    {
        const ItemWalk walk(data, size);
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto range = m_layouts.equal_range(walk.hash);
        for (auto it = range.first; it != range.second; ++it) {
            if (matches(*it->second, data, size)) {
                retain(it->second);
                return it->second;
            }
        }
        if (m_layouts.size() >= kMaxLayouts)
            clearLocked();
        PacketLayout* made = walk.make(data, size);
        try {
            m_layouts.emplace(walk.hash, made);
        } catch (...) {
            release(made);
            throw;
        }
        retain(made); // the cache's
        return made;
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        clearLocked();
    }

private:
    void clearLocked()
    {
        for (const auto& entry : m_layouts)
            release(entry.second);
        m_layouts.clear();
    }

    std::mutex m_mutex;
    std::unordered_multimap<uint64_t, const PacketLayout*> m_layouts; // guarded by m_mutex
};

LayoutCache& layoutCache()
{
    // Never destroyed: packets and threads may outlive static destruction.
    static LayoutCache* cache = new LayoutCache;
    return *cache;
}

// The layouts this thread met last, so that the usual packet takes no lock: a device
// repeats a handful of layouts, and each port has a reader thread of its own.
struct RecentLayouts
{
    static constexpr unsigned kSize = 8;
    const PacketLayout* slots[kSize] = {}; // one reference each
    unsigned last = 0;                     // the slot that matched last
    unsigned next = 0;                     // the slot the next new layout takes

    ~RecentLayouts() { clear(); }
    void clear()
    {
        for (const PacketLayout*& slot : slots) {
            release(slot);
            slot = nullptr;
        }
    }

    // The layout of `data`; one reference, the caller's.
    const PacketLayout* find(const uint8_t* data, size_t size)
    {
        const PacketLayout* layout = slots[last];
        if (!layout || !matches(*layout, data, size)) {
            layout = nullptr;
            for (unsigned i = 0; i < kSize && !layout; ++i) {
                if (i != last && slots[i] && matches(*slots[i], data, size)) {
                    layout = slots[i];
                    last = i;
                }
            }
            if (!layout) {
                layout = layoutCache().find(data, size);
                release(slots[next]);
                slots[next] = layout;
                last = next;
                next = (next + 1) % kSize;
            }
        }
        retain(layout);
        return layout;
    }
};

thread_local RecentLayouts t_recentLayouts;

// The data of a frame-shaped byte range. Item offsets are 16-bit: anything longer than a
// frame can be is refused.
bool frameData(const uint8_t* frame, size_t size, const uint8_t** data, size_t* dataSize)
{
    if (!frame || size < NvMessage::MinFrameSize || size > NvMessage::MaxFrameSize ||
        frame[0] != NvMessage::Preamble)
        return false;
    const size_t header = frame[3] == NvMessage::ExtendedLength ? 6 : 4;
    if (size < header + 1)
        return false;
    *data = frame + header;
    *dataSize = size - header - 1;
    return true;
}

} // namespace

void NvDataPacket::clearLayoutCache()
{
    t_recentLayouts.clear();
    layoutCache().clear();
}

NvDataPacket NvDataPacket::viewFrame(const uint8_t* frame, size_t size)
{
    const uint8_t* data = nullptr;
    size_t dataSize = 0;
    if (!frameData(frame, size, &data, &dataSize))
        return {};
    return NvDataPacket(frame, t_recentLayouts.find(data, dataSize));
}

NvDataPacket NvDataPacket::viewFrame(const uint8_t* frame, size_t size,
                                     std::shared_ptr<const void> owner)
{
    const uint8_t* data = nullptr;
    size_t dataSize = 0;
    if (!owner)
        return viewFrame(frame, size);
    if (!frameData(frame, size, &data, &dataSize))
        return {};
    NvDataPacket packet(frame, t_recentLayouts.find(data, dataSize));
    packet.m_owner = std::move(owner);
    return packet;
}

NvDataPacket NvDataPacket::fromFrame(const uint8_t* frame, size_t size)
{
    const uint8_t* data = nullptr;
    size_t dataSize = 0;
    if (!frameData(frame, size, &data, &dataSize))
        return {};
    nvdetail::FrameBlock block = nvdetail::FrameBlock::allocate(size);
    std::memcpy(block.bytes(), frame, size);
    NvDataPacket packet(block.bytes(), t_recentLayouts.find(data, dataSize));
    packet.m_block = std::move(block);
    return packet;
}

NvDataPacket::NvDataPacket(const NvMessage& message)
{
    const uint8_t* data = nullptr;
    size_t dataSize = 0;
    if (!frameData(message.frame(), message.frameSize(), &data, &dataSize))
        return;
    m_block = message.m_block;
    m_frame = message.frame();
    m_layout = t_recentLayouts.find(data, dataSize);
}

NvDataPacket NvDataPacket::fromData(const uint8_t* data, size_t size, uint8_t busId)
{
    const NvMessage message(busId, NvMid::DataPacket, data, size);
    return NvDataPacket(message);
}

NvDataPacket::NvDataPacket(const NvDataPacket& other)
    : m_frame(other.m_frame), m_layout(other.m_layout), m_block(other.m_block),
      m_owner(other.m_owner)
{
    // Before the reference is taken: if the copy throws, nothing is held.
    if (isBorrowed())
        ownBytes();
    retain(m_layout);
}

NvDataPacket::NvDataPacket(NvDataPacket&& other) noexcept
    : m_frame(other.m_frame), m_layout(other.m_layout), m_block(std::move(other.m_block)),
      m_owner(std::move(other.m_owner))
{
    other.m_frame = nullptr;
    other.m_layout = nullptr;
    if (isBorrowed())
        ownBytes();
}

NvDataPacket& NvDataPacket::operator=(const NvDataPacket& other)
{
    if (this != &other)
        *this = NvDataPacket(other);
    return *this;
}

NvDataPacket& NvDataPacket::operator=(NvDataPacket&& other) noexcept
{
    if (this != &other) {
        release();
        m_frame = other.m_frame;
        m_layout = other.m_layout;
        m_block = std::move(other.m_block);
        m_owner = std::move(other.m_owner);
        other.m_frame = nullptr;
        other.m_layout = nullptr;
        if (isBorrowed())
            ownBytes();
    }
    return *this;
}

NvDataPacket::~NvDataPacket()
{
    ::release(m_layout);
}

void NvDataPacket::release() noexcept
{
    ::release(m_layout);
    m_layout = nullptr;
    m_frame = nullptr;
    m_block = nvdetail::FrameBlock();
    m_owner.reset();
}

void NvDataPacket::ownBytes()
{
    const size_t size = frameSize();
    nvdetail::FrameBlock block = nvdetail::FrameBlock::allocate(size);
    std::memcpy(block.bytes(), m_frame, size);
    m_frame = block.bytes();
    m_block = std::move(block);
}

NvMessage NvDataPacket::message() const
{
    if (!m_layout)
        return NvMessage();
    if (m_block)
        return NvMessage(m_block);
    return NvMessage::fromFrame(m_frame, frameSize());
}

NvDataIdentifier NvDataPacket::identifier(NvDataIdentifier quantity) const
{
    const Item* it = find(quantity);
    return it ? it->id : NvDataIdentifier(NDI_NONE);
}

NvByteArray NvDataPacket::rawItem(NvDataIdentifier quantity) const
{
    const Item* it = find(quantity);
    if (!it)
        return {};
    const uint8_t* p = data() + it->offset;
    return NvByteArray(p, p + it->size);
}

namespace {
template <size_t Width, typename Decode>
size_t decodeMany(const uint8_t* p, size_t size, double* out, size_t capacity, Decode decode)
{
    const size_t n = std::min(size / Width, capacity);
    for (size_t i = 0; i < n; ++i)
        out[i] = decode(p + i * Width);
    return n;
}
} // namespace

size_t NvDataPacket::reals(NvDataIdentifier quantity, double* out, size_t capacity) const
{
    const Item* it = find(quantity);
    if (!it || !nvIsRealQuantity(it->id))
        return 0;
    return decodeReals(*it, out, capacity);
}

size_t NvDataPacket::decodeReals(const Item& item, double* out, size_t capacity) const
{
    const Item* it = &item;
    const uint8_t* p = data() + it->offset;
    // One switch per item, not per value.
    switch (nvPrecision(it->id)) {
    case NDP_FLOAT32:
        return decodeMany<4>(p, it->size, out, capacity,
                             [](const uint8_t* q) { return double(readF32(q)); });
    case NDP_FP1220:
        return decodeMany<4>(p, it->size, out, capacity,
                             [](const uint8_t* q) { return readI32(q) / kTwo20; });
    case NDP_FP1632:
        return decodeMany<6>(p, it->size, out, capacity, [](const uint8_t* q) {
            return (double(readI16(q + 4)) * kTwo32 + double(readU32(q))) / kTwo32;
        });
    case NDP_FLOAT64:
        return decodeMany<8>(p, it->size, out, capacity, readF64);
    }
    return 0;
}

double NvDataPacket::real(NvDataIdentifier quantity, size_t index) const
{
    const Item* it = find(quantity);
    if (!it)
        return 0.0;
    const NvPrecision precision = nvPrecision(it->id);
    const size_t width = size_t(nvPrecisionSize(precision));
    if ((index + 1) * width > it->size)
        return 0.0;
    return nvDecodeReal(data() + it->offset + index * width, precision);
}

namespace {
// Fixed-size integer payloads: absent or short items read as 0.
template <typename T, T (*Read)(const uint8_t*)>
T readFixed(const NvDataPacket& packet, NvDataIdentifier quantity)
{
    const NvDataPacket::Item* it = packet.find(quantity);
    if (!it || it->size < sizeof(T))
        return T();
    return Read(packet.data() + it->offset);
}
} // namespace

uint16_t NvDataPacket::packetCounter() const
{
    return readFixed<uint16_t, readU16>(*this, NDI_PACKET_COUNTER);
}
uint32_t NvDataPacket::sampleTimeFine() const
{
    return readFixed<uint32_t, readU32>(*this, NDI_SAMPLE_TIME_FINE);
}
uint32_t NvDataPacket::sampleTimeCoarse() const
{
    return readFixed<uint32_t, readU32>(*this, NDI_SAMPLE_TIME_COARSE);
}
uint32_t NvDataPacket::timeOfWeek() const
{
    return readFixed<uint32_t, readU32>(*this, NDI_TIME_OF_WEEK);
}
uint8_t NvDataPacket::gnssAge() const
{
    return readFixed<uint8_t, readU8>(*this, NDI_GNSS_AGE);
}
uint32_t NvDataPacket::pressure() const
{
    return readFixed<uint32_t, readU32>(*this, NDI_BARO_PRESSURE);
}
uint8_t NvDataPacket::statusByte() const
{
    return readFixed<uint8_t, readU8>(*this, NDI_STATUS_BYTE);
}
uint32_t NvDataPacket::statusWord() const
{
    return readFixed<uint32_t, readU32>(*this, NDI_STATUS_WORD);
}
int8_t NvDataPacket::rssi() const
{
    return readFixed<int8_t, readI8>(*this, NDI_RSSI);
}
uint16_t NvDataPacket::analogIn1() const
{
    return readFixed<uint16_t, readU16>(*this, NDI_ANALOG_IN_1);
}
uint16_t NvDataPacket::analogIn2() const
{
    return readFixed<uint16_t, readU16>(*this, NDI_ANALOG_IN_2);
}
uint32_t NvDataPacket::gnssPvtPulse() const
{
    return readFixed<uint32_t, readU32>(*this, NDI_GNSS_PVT_PULSE);
}

NvUtcTime NvDataPacket::utcTime() const
{
    const Item* it = find(NDI_UTC_TIME);
    if (!it || it->size < NvUtcTime::WireSize)
        return {};
    return NvUtcTime::fromWire(data() + it->offset);
}

NvFrameRange NvDataPacket::frameRange() const
{
    const Item* it = find(NDI_FRAME_RANGE);
    if (!it || it->size < 4)
        return {};
    const uint8_t* p = data() + it->offset;
    return {readU16(p), readU16(p + 2)};
}

NvGnssPvt NvDataPacket::gnssPvt() const
{
    const Item* it = find(NDI_GNSS_PVT_DATA);
    if (!it || it->size < NvGnssPvt::WireSize)
        return {};
    return NvGnssPvt::fromWire(data() + it->offset);
}

NvGnssSatInfo NvDataPacket::gnssSatInfo() const
{
    NvGnssSatInfo info;
    const Item* it = find(NDI_GNSS_SAT_INFO);
    if (it && !NvGnssSatInfo::fromWire(data() + it->offset, it->size, info))
        info = NvGnssSatInfo();
    return info;
}

double NvDataPacket::temperature() const
{
    return real(NDI_TEMPERATURE);
}
double NvDataPacket::altitudeMsl() const
{
    return real(NDI_ALTITUDE_MSL);
}
double NvDataPacket::altitudeEllipsoid() const
{
    return real(NDI_ALTITUDE_ELLIPSOID);
}

NvLatLon NvDataPacket::latLon() const
{
    double v[2] = {0, 0};
    reals(NDI_LAT_LON, v, 2);
    return {v[0], v[1]};
}

NvVector3 NvDataPacket::positionEcef() const
{
    return vector3(NDI_POSITION_ECEF);
}

NvVector3 NvDataPacket::vector3(NvDataIdentifier quantity) const
{
    const Item* it = find(quantity);
    double v[3] = {0, 0, 0};
    if (it && nvIsRealQuantity(it->id))
        decodeReals(*it, v, 3);
    return {v[0], v[1], v[2]};
}

NvVector3 NvDataPacket::vector3(NvDataIdentifier quantity, NvCoordinateFrame frame) const
{
    const Item* it = find(quantity);
    if (!it)
        return {};
    const NvVector3 v = vector3(quantity);
    const NvCoordinateFrame from = nvCoordinateFrame(it->id);
    switch (nvVectorFrameKind(it->id)) {
    case NvVectorFrameKind::Sensor:
        return nvSensorVectorToFrame(v, from, frame);
    case NvVectorFrameKind::Navigation:
        return nvNavigationVectorToFrame(v, from, frame);
    case NvVectorFrameKind::None:
        break;
    }
    return v;
}

NvQuaternion NvDataPacket::deltaQ() const
{
    double v[4] = {1, 0, 0, 0};
    reals(NDI_DELTA_Q, v, 4);
    return {v[0], v[1], v[2], v[3]};
}

NvQuaternion NvDataPacket::deltaQ(NvCoordinateFrame frame) const
{
    const Item* it = find(NDI_DELTA_Q);
    if (!it)
        return {};
    return nvSensorRotationToFrame(deltaQ(), nvCoordinateFrame(it->id), frame);
}

// ---- Orientation --------------------------------------------------------------------

const NvDataPacket::Item* NvDataPacket::orientationItem() const
{
    if (!m_layout)
        return nullptr;
    const Item* items = m_layout->items();
    for (size_t i = 0; i < m_layout->count; ++i)
        if (isOrientationQuantity(nvQuantity(items[i].id)))
            return &items[i];
    return nullptr;
}

bool NvDataPacket::containsOrientation() const
{
    return orientationItem() != nullptr;
}

NvCoordinateFrame NvDataPacket::orientationFrame() const
{
    const Item* it = orientationItem();
    return it ? nvCoordinateFrame(it->id) : NCF_ENU;
}

NvQuaternion NvDataPacket::orientationQuaternion() const
{
    const Item* it = orientationItem();
    if (!it)
        return {};
    double v[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    switch (nvQuantity(it->id)) {
    case NDI_QUATERNION:
        decodeReals(*it, v, 4);
        return {v[0], v[1], v[2], v[3]};
    case NDI_ROTATION_MATRIX:
        decodeReals(*it, v, 9);
        return NvQuaternion::fromMatrix(NvMatrix3::fromColumnMajor(v));
    default:
        v[0] = v[1] = v[2] = 0;
        decodeReals(*it, v, 3);
        return NvQuaternion::fromEuler({v[0], v[1], v[2]});
    }
}

NvMatrix3 NvDataPacket::orientationMatrix() const
{
    const Item* it = orientationItem();
    if (!it)
        return {};
    if (nvQuantity(it->id) == NDI_ROTATION_MATRIX) {
        double v[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        reals(NDI_ROTATION_MATRIX, v, 9);
        return NvMatrix3::fromColumnMajor(v);
    }
    if (nvQuantity(it->id) == NDI_EULER_ANGLES)
        return nvMatrixFromEuler(orientationEuler());
    return orientationQuaternion().toMatrix();
}

NvEuler NvDataPacket::orientationEuler() const
{
    const Item* it = orientationItem();
    if (!it)
        return {};
    if (nvQuantity(it->id) == NDI_EULER_ANGLES) {
        double v[3] = {0, 0, 0};
        reals(NDI_EULER_ANGLES, v, 3);
        return {v[0], v[1], v[2]};
    }
    if (nvQuantity(it->id) == NDI_ROTATION_MATRIX)
        return nvEulerFromMatrix(orientationMatrix());
    return orientationQuaternion().toEuler();
}

NvQuaternion NvDataPacket::orientationQuaternion(NvCoordinateFrame frame) const
{
    return nvOrientationToFrame(orientationQuaternion(), orientationFrame(), frame);
}

NvMatrix3 NvDataPacket::orientationMatrix(NvCoordinateFrame frame) const
{
    return nvOrientationToFrame(orientationMatrix(), orientationFrame(), frame);
}

NvEuler NvDataPacket::orientationEuler(NvCoordinateFrame frame) const
{
    if (frame == orientationFrame())
        return orientationEuler();
    return nvEulerFromMatrix(orientationMatrix(frame));
}

bool operator==(const NvDataPacket& a, const NvDataPacket& b)
{
    if (a.isEmpty() || b.isEmpty())
        return a.isEmpty() == b.isEmpty();
    const size_t size = a.frameSize();
    return size == b.frameSize() && std::memcmp(a.m_frame, b.m_frame, size) == 0;
}

// ---- Builder ----------------------------------------------------------------------

uint8_t* NvDataPacketBuilder::reserveItem(NvDataIdentifier id, size_t size)
{
    const NvDataIdentifier quantity = nvQuantity(id);
    size_t pos = 0;
    while (pos + 3 <= m_data.size()) {
        const size_t oldSize = m_data[pos + 2];
        if (nvQuantity(readU16(m_data.data() + pos)) == quantity) {
            writeU16(m_data.data() + pos, id);
            m_data[pos + 2] = uint8_t(size);
            if (oldSize > size)
                m_data.erase(m_data.begin() + long(pos + 3 + size),
                             m_data.begin() + long(pos + 3 + oldSize));
            else if (oldSize < size)
                m_data.insert(m_data.begin() + long(pos + 3 + oldSize), size - oldSize, 0);
            return m_data.data() + pos + 3;
        }
        pos += 3 + oldSize;
    }
    const size_t at = m_data.size();
    m_data.resize(at + 3 + size);
    writeU16(m_data.data() + at, id);
    m_data[at + 2] = uint8_t(size);
    return m_data.data() + at + 3;
}

bool NvDataPacketBuilder::setItem(NvDataIdentifier id, const uint8_t* payload, size_t size)
{
    if (size > 255)
        return false;
    // `payload` may point into m_data, which reserveItem can move.
    const NvByteArray copy(payload, payload + size);
    uint8_t* out = reserveItem(id, size);
    if (size)
        std::memcpy(out, copy.data(), size);
    return true;
}

bool NvDataPacketBuilder::setReals(NvDataIdentifier id, const double* values, size_t count)
{
    const NvPrecision precision = nvPrecision(id);
    const size_t width = size_t(nvPrecisionSize(precision));
    if (count * width > 255)
        return false;
    uint8_t* out = reserveItem(id, count * width);
    for (size_t i = 0; i < count; ++i)
        nvEncodeReal(values[i], precision, out + i * width);
    return true;
}

bool NvDataPacketBuilder::setU8(NvDataIdentifier id, uint8_t value)
{
    *reserveItem(id, 1) = value;
    return true;
}

bool NvDataPacketBuilder::setU16(NvDataIdentifier id, uint16_t value)
{
    writeU16(reserveItem(id, 2), value);
    return true;
}

bool NvDataPacketBuilder::setU32(NvDataIdentifier id, uint32_t value)
{
    writeU32(reserveItem(id, 4), value);
    return true;
}

void NvDataPacketBuilder::setUtcTime(const NvUtcTime& time)
{
    time.toWire(reserveItem(NDI_UTC_TIME, NvUtcTime::WireSize));
}

void NvDataPacketBuilder::setFrameRange(uint16_t first, uint16_t last)
{
    uint8_t* out = reserveItem(NDI_FRAME_RANGE, 4);
    writeU16(out, first);
    writeU16(out + 2, last);
}

void NvDataPacketBuilder::setGnssPvt(const NvGnssPvt& pvt)
{
    pvt.toWire(reserveItem(NDI_GNSS_PVT_DATA, NvGnssPvt::WireSize));
}

void NvDataPacketBuilder::setGnssSatInfo(const NvGnssSatInfo& info)
{
    constexpr size_t maxSatellites = (255 - 8) / 6;
    if (info.satellites.size() <= maxSatellites) {
        const NvByteArray bytes = info.toWire();
        setItem(NDI_GNSS_SAT_INFO, bytes.data(), bytes.size());
        return;
    }
    NvGnssSatInfo cut = info;
    cut.satellites.resize(maxSatellites);
    const NvByteArray bytes = cut.toWire();
    setItem(NDI_GNSS_SAT_INFO, bytes.data(), bytes.size());
}

void NvDataPacketBuilder::setTemperature(double celsius, NvPrecision precision)
{
    setScalar(nvWithPrecision(NDI_TEMPERATURE, precision), celsius);
}

void NvDataPacketBuilder::setLatLon(double latitude, double longitude, NvDataIdentifier id)
{
    const double v[2] = {latitude, longitude};
    setReals(id, v, 2);
}

void NvDataPacketBuilder::setVector3(NvDataIdentifier id, const NvVector3& v)
{
    const double values[3] = {v.x, v.y, v.z};
    setReals(id, values, 3);
}

void NvDataPacketBuilder::setDeltaQ(const NvQuaternion& dq, NvDataIdentifier id)
{
    const double values[4] = {dq.w, dq.x, dq.y, dq.z};
    setReals(id, values, 4);
}

void NvDataPacketBuilder::setOrientation(const NvQuaternion& q, NvDataIdentifier id)
{
    switch (nvQuantity(id)) {
    case NDI_ROTATION_MATRIX:
        setRotationMatrix(q.toMatrix(), id);
        return;
    case NDI_EULER_ANGLES:
        setEuler(q.toEuler(), id);
        return;
    default:
        setQuaternion(q, id);
        return;
    }
}

void NvDataPacketBuilder::setQuaternion(const NvQuaternion& q, NvDataIdentifier id)
{
    const double values[4] = {q.w, q.x, q.y, q.z};
    setReals(id, values, 4);
}

void NvDataPacketBuilder::setRotationMatrix(const NvMatrix3& r, NvDataIdentifier id)
{
    double values[9];
    r.toColumnMajor(values);
    setReals(id, values, 9);
}

void NvDataPacketBuilder::setEuler(const NvEuler& e, NvDataIdentifier id)
{
    const double values[3] = {e.roll, e.pitch, e.yaw};
    setReals(id, values, 3);
}

NvMessage NvDataPacketBuilder::toMessage() const
{
    if (!fits())
        return {};
    return NvMessage(m_busId, NvMid::DataPacket, m_data);
}

NvDataPacket NvDataPacketBuilder::toPacket() const
{
    if (!fits())
        return {};
    return NvDataPacket::fromData(m_data.data(), m_data.size(), m_busId);
}
