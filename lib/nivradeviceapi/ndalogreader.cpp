// The reader of kvb, bin and nm recordings (layout in docs/kvb-format.md).
#include "ndalogfile.h"
#include "nvframeparser.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nda {

namespace {

constexpr uint16_t NoDevice = 0xFFFF;
constexpr size_t SniffBytes = 64 * 1024;
constexpr size_t HeaderFixedSize = 24;

uint32_t getU32(const uint8_t* p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint64_t getU64(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = v << 8 | p[i];
    return v;
}

size_t declaredSize(const uint8_t* f)
{
    if (f[3] == NvMessage::ExtendedLength)
        return 6 + (size_t(f[4]) << 8 | f[5]) + 1;
    return 4 + size_t(f[3]) + 1;
}

// What a kvb's first bytes must be, as far as they go: FA 00 B0 length "KVB".
bool matchesHeaderPrefix(const uint8_t* p, size_t n)
{
    static const uint8_t fixed[] = {NvMessage::Preamble, LogFileBusId, LogMid::Header};
    for (size_t i = 0; i < n && i < 3; ++i)
        if (p[i] != fixed[i])
            return false;
    if (n > 3 && (p[3] < HeaderFixedSize || p[3] == NvMessage::ExtendedLength))
        return false;
    for (size_t i = 4; i < n && i < 7; ++i)
        if (p[i] != uint8_t("KVB"[i - 4]))
            return false;
    return true;
}

bool isHex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

int hexValue(char c)
{
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

// The sentence "$...*hh" inside a line: its start and length, or false.
bool findSentence(const char* line, size_t n, size_t& start, size_t& length, bool& badChecksum)
{
    badChecksum = false;
    const void* dollar = std::memchr(line, '$', n);
    if (!dollar)
        dollar = std::memchr(line, '!', n);
    if (!dollar)
        return false;
    start = size_t(static_cast<const char*>(dollar) - line);
    size_t star = n;
    for (size_t i = n; i-- > start + 1;)
        if (line[i] == '*') {
            star = i;
            break;
        }
    if (star == n || star + 3 > n || !isHex(line[star + 1]) || !isHex(line[star + 2]))
        return false;
    uint8_t sum = 0;
    for (size_t i = start + 1; i < star; ++i)
        sum ^= uint8_t(line[i]);
    length = star + 3 - start;
    badChecksum = sum != (hexValue(line[star + 1]) << 4 | hexValue(line[star + 2]));
    return !badChecksum;
}

// Text of NMEA sentences: nearly all printable, with at least one whole sentence.
bool looksLikeNmea(const uint8_t* p, size_t n)
{
    size_t text = 0;
    for (size_t i = 0; i < n; ++i)
        text += (p[i] >= 0x20 && p[i] < 0x7F) || p[i] == '\r' || p[i] == '\n' || p[i] == '\t';
    if (text * 100 < n * 99)
        return false;
    const char* s = reinterpret_cast<const char*>(p);
    size_t pos = 0;
    while (pos < n) {
        const void* nl = std::memchr(s + pos, '\n', n - pos);
        const size_t end = nl ? size_t(static_cast<const char*>(nl) - s) : n;
        size_t start, length;
        bool bad;
        if (findSentence(s + pos, end - pos, start, length, bad))
            return true;
        pos = end + 1;
    }
    return false;
}

// A decimal number without locale ("-12.345"); false for anything else or empty.
bool parseDecimal(const char* p, size_t n, double& out)
{
    if (n == 0)
        return false;
    size_t i = 0;
    bool negative = false;
    if (p[0] == '-' || p[0] == '+') {
        negative = p[0] == '-';
        ++i;
    }
    double value = 0, scale = 0;
    bool digits = false;
    for (; i < n; ++i) {
        if (p[i] >= '0' && p[i] <= '9') {
            value = value * 10 + (p[i] - '0');
            if (scale)
                scale *= 10;
            digits = true;
        } else if (p[i] == '.' && !scale) {
            scale = 1;
        } else {
            return false;
        }
    }
    if (!digits)
        return false;
    out = (negative ? -value : value) / (scale ? scale : 1);
    return true;
}

bool twoDigits(const char* p, unsigned& out)
{
    if (p[0] < '0' || p[0] > '9' || p[1] < '0' || p[1] > '9')
        return false;
    out = unsigned(p[0] - '0') * 10 + unsigned(p[1] - '0');
    return true;
}

struct Field
{
    const char* p = nullptr;
    size_t n = 0;
};

} // namespace

// One GNSS epoch gathered from the sentences that share its time of day.
struct logdetail::NmEpoch
{
    std::string time; // the time field as sent; empty: no epoch open
    unsigned hour = 0, minute = 0, second = 0;
    uint32_t nanoseconds = 0;
    bool haveDate = false;
    unsigned year = 0, month = 0, day = 0;
    bool havePosition = false, haveAltitude = false, haveGeoid = false, haveVelocity = false;
    double latitude = 0, longitude = 0, altitude = 0, geoid = 0, speed = 0, course = 0;
    bool fix = false;
};

namespace {

using Epoch = logdetail::NmEpoch;

bool parseTime(const Field& f, Epoch& e)
{
    if (f.n < 6 || !twoDigits(f.p, e.hour) || !twoDigits(f.p + 2, e.minute) ||
        !twoDigits(f.p + 4, e.second))
        return false;
    double fraction = 0;
    if (f.n > 6 && !parseDecimal(f.p + 6, f.n - 6, fraction))
        return false;
    e.nanoseconds = uint32_t(std::lround(fraction * 1e9));
    return e.hour < 24 && e.minute < 60 && e.second <= 60 && e.nanoseconds < 1'000'000'000u;
}

// "ddmm.mmmm" / "dddmm.mmmm" with a hemisphere letter.
bool parseCoordinate(const Field& value, const Field& hemisphere, double& out)
{
    double v;
    if (!parseDecimal(value.p, value.n, v) || hemisphere.n != 1 || v < 0)
        return false;
    const double degrees = std::floor(v / 100);
    out = degrees + (v - degrees * 100) / 60;
    const char h = hemisphere.p[0];
    if (h == 'S' || h == 'W')
        out = -out;
    else if (h != 'N' && h != 'E')
        return false;
    return true;
}

} // namespace

namespace {
// What pread gives from the start of `fd`, up to `size` bytes (less at the end or an error).
size_t readAt(int fd, void* out, size_t size)
{
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd, static_cast<uint8_t*>(out) + got, size - got, off_t(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += size_t(n);
    }
    return got;
}
} // namespace

long long readFileHead(const std::string& path, void* out, size_t size, NvResultValue* rc)
{
    int fd = -1;
    uint64_t fileSize = 0;
    *rc = openRegularFile(path, &fd, &fileSize);
    if (*rc != NRV_OK)
        return -1;
    const size_t got = readAt(fd, out, size);
    ::close(fd);
    return (long long)got;
}

NvResultValue openRegularFile(const std::string& path, int* fd, uint64_t* size)
{
    *fd = -1;
    *size = 0;
    struct stat st
    {
    };
    if (::stat(path.c_str(), &st) != 0)
        return errno == ENOENT || errno == ENOTDIR ? NRV_FILE_NOT_FOUND : NRV_FILE_READ_ERROR;
    if (!S_ISREG(st.st_mode))
        return NRV_NOT_A_REGULAR_FILE;
    // Non-blocking and checked again: the name may have become a FIFO since the stat.
    const int f = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (f < 0)
        return errno == ENOENT || errno == ENOTDIR ? NRV_FILE_NOT_FOUND : NRV_FILE_READ_ERROR;
    if (::fstat(f, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(f);
        return NRV_NOT_A_REGULAR_FILE;
    }
    *fd = f;
    *size = uint64_t(st.st_size);
    return NRV_OK;
}

LogReader::OffsetList::OffsetList(OffsetList&& other) noexcept
    : m_data(other.m_data), m_size(other.m_size), m_capacity(other.m_capacity)
{
    other.m_data = nullptr;
    other.m_size = other.m_capacity = 0;
}

LogReader::OffsetList& LogReader::OffsetList::operator=(OffsetList&& other) noexcept
{
    if (this != &other) {
        std::free(m_data);
        m_data = other.m_data;
        m_size = other.m_size;
        m_capacity = other.m_capacity;
        other.m_data = nullptr;
        other.m_size = other.m_capacity = 0;
    }
    return *this;
}

LogReader::OffsetList::~OffsetList()
{
    std::free(m_data);
}

void LogReader::OffsetList::grow()
{
    const size_t capacity = m_capacity ? m_capacity * 2 : 1024;
    void* p = std::realloc(m_data, capacity * EntryBytes);
    if (!p)
        throw std::bad_alloc();
    m_data = static_cast<uint8_t*>(p);
    m_capacity = capacity;
}

void LogReader::OffsetList::shrink()
{
    if (m_size == m_capacity)
        return;
    if (m_size == 0) {
        std::free(m_data);
        m_data = nullptr;
        m_capacity = 0;
        return;
    }
    if (void* p = std::realloc(m_data, m_size * EntryBytes)) {
        m_data = static_cast<uint8_t*>(p);
        m_capacity = m_size;
    }
}

bool LogReader::Bytes::map(int fd, uint64_t size)
{
    reset();
    if (size == 0 || size > uint64_t(SIZE_MAX))
        return false;
    void* map = ::mmap(nullptr, size_t(size), PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED)
        return false;
    // Larger read-ahead while the file is indexed, from start to end.
    ::madvise(map, size_t(size), MADV_SEQUENTIAL);
    m_map = map;
    m_mapSize = size_t(size);
    m_data = static_cast<uint8_t*>(map);
    m_mapping = true;
    return true;
}

bool LogReader::Bytes::allocate(uint64_t size)
{
    reset();
    constexpr size_t Huge = size_t(2) << 20;
    if (size > uint64_t(SIZE_MAX) - 2 * Huge)
        return false;
    const size_t want = size_t(size ? size : 1);
    const size_t mapSize = want + (want >= Huge ? Huge : 0);
    void* map =
        ::mmap(nullptr, mapSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED)
        return false;
    m_map = map;
    m_mapSize = mapSize;
    m_data = static_cast<uint8_t*>(map);
    if (want >= Huge) {
        const uintptr_t at = reinterpret_cast<uintptr_t>(map);
        m_data = static_cast<uint8_t*>(map) + ((Huge - at % Huge) % Huge);
        ::madvise(m_data, want, MADV_HUGEPAGE);
    }
    return true;
}

void LogReader::Bytes::reset()
{
    if (m_map)
        ::munmap(m_map, m_mapSize);
    m_map = nullptr;
    m_mapSize = 0;
    m_data = nullptr;
    m_mapping = false;
}

int64_t LogReader::CounterOrder::next(const uint8_t* d, size_t n)
{
    // The first item of each quantity counts, as for NvDataPacket.
    bool seenCounter = false, seenTime = false, haveCounter = false, haveTime = false;
    uint16_t counter = 0;
    uint32_t time = 0;
    size_t pos = 0;
    // Most devices send the counter first and the sample time next.
    if (n >= 12 && (d[0] << 8 | (d[1] & 0xF0)) == NDI_PACKET_COUNTER && d[2] == 2 &&
        (d[5] << 8 | (d[6] & 0xF0)) == NDI_SAMPLE_TIME_FINE && d[7] == 4) {
        seenCounter = haveCounter = seenTime = haveTime = true;
        counter = uint16_t(d[3] << 8 | d[4]);
        time = getU32(d + 8);
        pos = n;
    }
    for (; pos + 3 <= n && !(seenCounter && seenTime);) {
        const unsigned id = (unsigned(d[pos]) << 8 | d[pos + 1]) & NDI_QUANTITY_MASK;
        const size_t size = d[pos + 2];
        const uint8_t* p = d + pos + 3;
        if (pos + 3 + size > n)
            break;
        if (id == NDI_PACKET_COUNTER && !seenCounter) {
            seenCounter = true;
            haveCounter = size >= 2;
            counter = haveCounter ? uint16_t(p[0] << 8 | p[1]) : 0;
        } else if (id == NDI_SAMPLE_TIME_FINE && !seenTime) {
            seenTime = true;
            haveTime = size >= 4;
            time = haveTime ? getU32(p) : 0;
        }
        pos += 3 + size;
    }
    if (!haveCounter)
        return m_key;
    if (!m_started) {
        m_started = true;
        m_key = counter;
    } else {
        const int step16 = int16_t(uint16_t(counter - m_counter));
        int64_t step = step16;
        if (haveTime && m_haveTime) {
            const int64_t ticks = int32_t(time - m_time);
            // Forward in counter and time, at about the pace seen so far: the usual case.
            const bool plausible =
                step16 > 0 && ticks > 0 &&
                (m_refTicks == 0 ||
                 std::llabs(ticks * m_refStep - step16 * m_refTicks) < 32768 * m_refTicks);
            if (!plausible)
                step = resolve(step16, ticks);
            else if (step16 <= 1024)
                m_refStep = step16, m_refTicks = ticks;
        }
        m_key += step;
    }
    m_counter = counter;
    m_haveTime = haveTime;
    m_time = time;
    return m_key;
}

// The step of the counter, in whole turns of 65536, that moves the way the sample time
// does and comes nearest the pace of the last ordinary step. A flush reaching back
// further than half the counter's range, and a counter that starts again from 0 when
// the device goes back into measurement, come out right this way.
int64_t LogReader::CounterOrder::resolve(int step16, int64_t ticks) const
{
    if (ticks == 0)
        return step16;
    int64_t step = step16;
    if (m_refTicks > 0) {
        const double want = double(ticks) * m_refStep / double(m_refTicks);
        step += 65536 * std::llround((want - step16) / 65536);
    }
    while (ticks > 0 && step <= 0)
        step += 65536;
    while (ticks < 0 && step >= 0)
        step -= 65536;
    return step;
}

LogReader::LogReader() : m_epoch(new logdetail::NmEpoch)
{
    reset();
}

LogReader::~LogReader() = default;

void LogReader::reset()
{
    m_loaded = false;
    m_complete = m_continues = false;
    m_parts.clear();
    m_devices.clear();
    m_index.clear();
    std::fill(std::begin(m_busToDevice), std::end(m_busToDevice), NoDevice);
    m_binBusId = -1;
    m_timeMarks.clear();
    m_sentences.clear();
    m_synth.clear();
    *m_epoch = logdetail::NmEpoch();
    m_skipped = m_checksumErrors = m_truncated = m_unknownFrames = m_frames = 0;
}

NvResultValue LogReader::open(const std::string& path)
{
    reset();
    m_header = HeaderInfo();
    m_memory.reset();
    m_memorySize = 0;
    m_following.clear();
    m_fromMemory = false;
    m_path = path;
    int fd = -1;
    uint64_t size = 0;
    const NvResultValue rc = openRegularFile(path, &fd, &size);
    if (rc != NRV_OK)
        return rc;
    uint8_t head[SniffBytes];
    const size_t got = readAt(fd, head, size_t(std::min<uint64_t>(SniffBytes, size)));
    ::close(fd);
    return sniff(head, got, size);
}

NvResultValue LogReader::openMemory(const uint8_t* data, size_t size)
{
    reset();
    m_header = HeaderInfo();
    m_path.clear();
    m_following.clear();
    m_fromMemory = true;
    // Packets of an earlier load may still share the old copy.
    m_memory = std::make_shared<Bytes>();
    m_memorySize = 0;
    if (!m_memory->allocate(size))
        return NRV_OUT_OF_MEMORY;
    if (size)
        std::memcpy(m_memory->get(), data, size);
    m_memorySize = size;
    return sniff(m_memory->get(), std::min(size, SniffBytes), size);
}

NvResultValue LogReader::sniff(const uint8_t* head, size_t n, uint64_t fileSize)
{
    m_fileSize = fileSize;
    if (n == 0)
        return NRV_NOT_A_RECORDING;
    if (head[0] == NvMessage::Preamble && matchesHeaderPrefix(head, n)) {
        if (n < 4 || n < declaredSize(head))
            return NRV_FILE_DAMAGED; // cut inside its header
        const size_t size = declaredSize(head);
        if (NvMessage::checkFrame(head, size) != NvFrameCheck::Ok)
            return NRV_FILE_DAMAGED;
        const uint8_t* d = head + 4;
        m_header.version = d[3];
        if (m_header.version != LogFormatVersion)
            return m_header.version > LogFormatVersion ? NRV_FILE_VERSION_UNSUPPORTED
                                                       : NRV_FILE_DAMAGED;
        m_header.part = unsigned(d[6]) << 8 | d[7];
        m_header.createdUtcNs = getU64(d + 8);
        m_header.recordingId = getU64(d + 16);
        m_header.writer.assign(reinterpret_cast<const char*>(d + HeaderFixedSize),
                               size - 5 - HeaderFixedSize);
        m_type = Type::Kvb;
        return NRV_OK;
    }
    if (looksLikeNmea(head, n)) {
        m_type = Type::Nm;
        return NRV_OK;
    }
    // A port capture: most of its first bytes are whole frames.
    NvFrameParser parser;
    size_t frameBytes = 0;
    parser.feed(head, n, [&](const NvFrameView& v) { frameBytes += v.size; });
    if (parser.counters().frames > 0 && frameBytes * 2 >= n - parser.pendingBytes()) {
        m_type = Type::Bin;
        return NRV_OK;
    }
    return NRV_NOT_A_RECORDING;
}

NvResultValue LogReader::load(const std::function<void(uint64_t, uint64_t)>& progress,
                              const std::atomic<bool>* abort)
{
    reset();
    NvResultValue rc;
    try {
        rc = loadParts(progress, abort);
    } catch (const std::bad_alloc&) {
        rc = NRV_OUT_OF_MEMORY;
    }
    if (rc != NRV_OK) {
        reset();
        return rc;
    }
    m_loaded = true;
    return NRV_OK;
}

NvResultValue LogReader::loadParts(const std::function<void(uint64_t, uint64_t)>& progress,
                                   const std::atomic<bool>* abort)
{
    if (m_type == Type::Bin || m_type == Type::Nm) {
        Device d;
        d.id = m_type == Type::Nm ? logNmPlaceholderId() : logBinPlaceholderId();
        d.busId = NvMessage::BusIdDevice;
        m_devices.push_back(d);
        m_index.emplace_back();
    }

    // Every part is opened first: the total for the progress, and a part that cannot be
    // opened ends the recording before it.
    struct File
    {
        int fd = -1;
        uint64_t size = 0;
    };
    struct Files : std::vector<File>
    {
        ~Files()
        {
            for (const File& f : *this)
                if (f.fd >= 0)
                    ::close(f.fd);
        }
    } files;
    uint64_t total = 0;
    if (m_fromMemory) {
        files.push_back({-1, m_memorySize});
    } else {
        std::vector<std::string> paths{m_path};
        if (m_type == Type::Kvb)
            paths.insert(paths.end(), m_following.begin(), m_following.end());
        for (const std::string& path : paths) {
            File f;
            const NvResultValue rc = openRegularFile(path, &f.fd, &f.size);
            if (rc != NRV_OK) {
                if (files.empty())
                    return rc;
                break;
            }
            files.push_back(f);
        }
    }
    for (const File& f : files)
        total += f.size;
    if (files[0].size >= OffsetList::Limit)
        return NRV_NOT_SUPPORTED;

    // Index a slice while it is warm in the cache (1/128 of the whole, so that progress
    // and abort come at least every 1 %); a frame or line cut by a slice's end is taken
    // up again by the next one.
    const uint64_t slice = std::clamp<uint64_t>(total / 128, 4096, 8 << 20);
    uint64_t before = 0; // bytes of the parts before this one
    NvFrameParser parser;
    bool ended = false;
    for (size_t i = 0; i < files.size() && !ended; ++i) {
        if (before + files[i].size > OffsetList::Limit)
            break;
        Part part;
        part.base = before;
        part.size = files[i].size;
        bool mapped = false;
        if (m_fromMemory) {
            part.bytes = m_memory;
        } else {
            part.bytes = std::make_shared<Bytes>();
            mapped = m_access == Access::Map && part.bytes->map(files[i].fd, part.size);
            if (!mapped && part.size > 0 && !part.bytes->allocate(part.size))
                return NRV_OUT_OF_MEMORY;
            if (!mapped)
                ::posix_fadvise(files[i].fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        }
        part.data = part.bytes->get();
        m_parts.push_back(std::move(part));
        Part& p = m_parts.back();
        const unsigned number = m_header.part + unsigned(i);
        const bool complete = m_complete, continues = m_continues;
        // Bus ids stay with their devices from part to part (the writer keeps them).
        m_complete = m_continues = false;
        parser.reset();
        uint64_t readEnd = 0, parsed = 0;
        while (readEnd < p.size) {
            const uint64_t want = std::min(slice, p.size - readEnd);
            uint64_t got = want;
            if (mapped) {
                got = populate(p, readEnd, want, files[i].fd);
            } else if (!m_fromMemory) {
                got = 0;
                while (got < want) {
                    const ssize_t n = ::pread(files[i].fd, p.bytes->get() + readEnd + got,
                                              size_t(want - got), off_t(readEnd + got));
                    if (n < 0 && errno == EINTR)
                        continue;
                    if (n < 0)
                        return NRV_FILE_READ_ERROR;
                    if (n == 0)
                        break;
                    got += uint64_t(n);
                }
            }
            readEnd += got;
            if (got < want)
                p.size = readEnd; // the file shrank under us: index what is there
            if (i > 0 && parsed == 0 && !isNextPart(p.data, readEnd, number)) {
                // Replaced since the parts were listed: the recording ends before it.
                m_parts.pop_back();
                m_complete = complete, m_continues = continues;
                ended = true;
                break;
            }
            indexSlice(p, parsed, readEnd, readEnd >= p.size, parser);
            if (progress)
                progress(before + readEnd, total);
            if (abort && abort->load(std::memory_order_relaxed))
                return NRV_ABORTED;
        }
        if (ended)
            break;
        if (mapped) // playback reads here and there, and again
            ::madvise(const_cast<uint8_t*>(p.data), size_t(files[i].size), MADV_NORMAL);
        // What is left is a frame (or line) the part ends inside of.
        m_truncated += readEnd - parsed;
        before += p.size;
    }
    m_fileSize = before;
    for (DeviceIndex& ix : m_index) {
        if (!ix.inOrder && (m_type == Type::Kvb || (m_type == Type::Bin && m_binBusId >= 0)))
            sortByCounter(ix);
        ix.packets.shrink();
        ix.messages.shrink_to_fit();
    }
    return NRV_OK;
}

// Maps the pages of [offset, offset + size) of a mapped part before they are read; a
// part cut short since it was mapped ends where its file ends now, rather than in a
// SIGBUS. Returns how many of the bytes are there.
uint64_t LogReader::populate(const Part& p, uint64_t offset, uint64_t size, int fd)
{
    static const long page = ::sysconf(_SC_PAGESIZE);
    const uint64_t from = offset / uint64_t(page) * uint64_t(page);
    uint8_t* start = const_cast<uint8_t*>(p.data) + from;
    if (::madvise(start, size_t(offset + size - from), MADV_POPULATE_READ) == 0 ||
        (errno != EFAULT && errno != EIO))
        return size; // done, or a kernel without it: the pages come by faults
    struct stat st
    {
    };
    if (::fstat(fd, &st) != 0 || uint64_t(st.st_size) >= offset + size)
        return size;
    return uint64_t(st.st_size) > offset ? uint64_t(st.st_size) - offset : 0;
}

bool LogReader::isNextPart(const uint8_t* data, uint64_t size, unsigned part) const
{
    if (size < 4 || !matchesHeaderPrefix(data, size_t(std::min<uint64_t>(size, 7))) ||
        declaredSize(data) > size ||
        NvMessage::checkFrame(data, declaredSize(data)) != NvFrameCheck::Ok ||
        declaredSize(data) < 5 + HeaderFixedSize)
        return false;
    const uint8_t* d = data + 4;
    return d[3] == LogFormatVersion && (unsigned(d[6]) << 8 | d[7]) == part &&
           getU64(d + 16) == m_header.recordingId;
}

void LogReader::indexSlice(Part& p, uint64_t& parsed, uint64_t end, bool last,
                           NvFrameParser& parser)
{
    if (m_type == Type::Nm) {
        parsed = indexNm(parsed, end, last);
        return;
    }
    const uint8_t* base = p.data;
    const uint64_t at = p.base;
    parser.reset();
    if (m_type == Type::Kvb)
        parser.feed(base + parsed, size_t(end - parsed),
                    [&](const NvFrameView& v) { onKvbFrame(at + uint64_t(v.frame - base), v); });
    else
        parser.feed(base + parsed, size_t(end - parsed),
                    [&](const NvFrameView& v) { onBinFrame(at + uint64_t(v.frame - base), v); });
    const NvFrameParser::Counters& c = parser.counters();
    m_frames += c.frames;
    m_checksumErrors += c.checksumErrors;
    m_skipped += c.skippedBytes;
    parsed = end - parser.pendingBytes();
}

void LogReader::addPacket(DeviceIndex& ix, uint64_t offset, const NvFrameView& v)
{
    ix.packets.push(offset);
    const int64_t key = ix.order.next(v.data(), v.dataSize());
    ix.inOrder = ix.inOrder && key >= ix.lastKey;
    ix.lastKey = std::max(ix.lastKey, key);
}

void LogReader::sortByCounter(DeviceIndex& ix)
{
    // The keys again, from the start: offsets in file order are unique, so sorting the
    // pairs keeps packets with equal keys in file order.
    std::vector<std::pair<int64_t, uint64_t>> keyed(ix.packets.size());
    CounterOrder order;
    for (size_t i = 0; i < keyed.size(); ++i) {
        const uint64_t offset = ix.packets[i];
        const uint8_t* f = at(offset);
        const size_t header = f[3] == NvMessage::ExtendedLength ? 6 : 4;
        keyed[i] = {order.next(f + header, declaredSize(f) - header - 1), offset};
    }
    std::sort(keyed.begin(), keyed.end());
    for (size_t i = 0; i < keyed.size(); ++i)
        ix.packets.set(i, keyed[i].second);
}

void LogReader::onKvbFrame(uint64_t offset, const NvFrameView& v)
{
    const uint8_t bus = v.busId();
    const uint8_t mid = v.messageId();
    uint16_t device = m_busToDevice[bus];
    if (mid == NvMid::DataPacket && device != NoDevice) {
        addPacket(m_index[device], offset, v);
        return;
    }
    if (bus == LogFileBusId) {
        if (mid == LogMid::TimeMark && v.dataSize() >= 8)
            m_timeMarks.push_back({offset, getU64(v.data())});
        else if (mid == LogMid::End && v.dataSize() >= 1) {
            m_complete = true;
            m_continues = v.data()[0] & 1;
        } else if (mid != LogMid::Header)
            ++m_unknownFrames;
        return;
    }
    if (mid == NvMid::DeviceId && device != NoDevice && m_parts.size() > 1 &&
        (v.dataSize() == 4 || v.dataSize() == 8) &&
        NvDeviceId::fromWire(v.data(), v.dataSize()) != m_devices[device].id)
        device = NoDevice; // a later part gave the bus id to another device
    if (device == NoDevice) {
        if (mid != NvMid::DeviceId || bus == NvMessage::BusIdDevice) {
            ++m_unknownFrames;
            return;
        }
        m_busToDevice[bus] = uint16_t(m_devices.size());
        Device d;
        d.busId = bus;
        m_devices.push_back(d);
        m_index.emplace_back();
        m_index.back().messages.push_back(offset);
        describe(m_devices.back(), m_index.back(), v);
        return;
    }
    m_index[device].messages.push_back(offset);
    describe(m_devices[device], m_index[device], v);
}

void LogReader::onBinFrame(uint64_t offset, const NvFrameView& v)
{
    if (v.messageId() == NvMid::DataPacket) {
        // A capture of a master's port holds several trackers: their counters do not
        // make one sequence, and such a capture keeps its file order.
        if (m_binBusId == -1)
            m_binBusId = v.busId();
        else if (m_binBusId != v.busId())
            m_binBusId = -2;
        addPacket(m_index[0], offset, v);
        return;
    }
    m_index[0].messages.push_back(offset);
    if (v.messageId() == NvMid::DeviceId && !(m_index[0].described & 1))
        m_devices[0].busId = v.busId();
    describe(m_devices[0], m_index[0], v);
}

// The first reply of each kind describes the device.
void LogReader::describe(Device& d, DeviceIndex& ix, const NvFrameView& v)
{
    const uint8_t* data = v.data();
    const size_t size = v.dataSize();
    auto first = [&](unsigned bit) {
        if (ix.described & (1u << bit))
            return false;
        ix.described |= 1u << bit;
        return true;
    };
    switch (v.messageId()) {
    case NvMid::DeviceId: {
        const NvDeviceId id = NvDeviceId::fromWire(data, size);
        if ((size == 4 || size == 8) && first(0)) {
            d.id = id;
            if (!d.id.isLegacy() && !d.id.isEmpty() && !d.productCode.empty())
                d.id = NvDeviceId(d.id.toInt(), 0, d.productCode);
        }
        break;
    }
    case NvMid::ProductCode:
        if (first(1)) {
            d.productCode.assign(reinterpret_cast<const char*>(data),
                                 strnlen(reinterpret_cast<const char*>(data), size));
            if (!d.id.isLegacy() && !d.id.isEmpty())
                d.id = NvDeviceId(d.id.toInt(), 0, d.productCode);
        }
        break;
    case NvMid::FirmwareRevision:
        if (size >= NvVersion::FirmwareWireSize && first(2))
            d.firmware = NvVersion::fromFirmwareWire(data);
        break;
    case NvMid::HardwareVersion:
        if (size >= NvVersion::HardwareWireSize && first(3))
            d.hardware = NvVersion::fromHardwareWire(data);
        break;
    case NvMid::OutputConfiguration: {
        NvOutputConfigurationArray config;
        if (nvOutputConfigurationFromWire(data, size, config) && first(4))
            d.outputConfiguration = std::move(config);
        break;
    }
    case NvMid::SyncSettings: {
        NvSyncSettingArray sync;
        if (nvSyncSettingsFromWire(data, size, sync) && first(5))
            d.syncSettings = std::move(sync);
        break;
    }
    case NvMid::LocationId:
        if (size >= 2 && first(6))
            d.locationId = int(data[0]) << 8 | data[1];
        break;
    case NvMid::FilterProfile:
        if (size >= 2 && first(7))
            d.filterProfile = int(data[0]) << 8 | data[1];
        break;
    default:
        break;
    }
}

uint64_t LogReader::indexNm(uint64_t begin, uint64_t end, bool last)
{
    const char* s = reinterpret_cast<const char*>(m_parts[0].data);
    uint64_t pos = begin;
    while (pos < end) {
        const void* nl = std::memchr(s + pos, '\n', size_t(end - pos));
        if (!nl && !last) {
            if (end - pos <= 65536)
                break; // the line goes on in the next slice
            // No sentence is this long: don't search it again with every slice.
            m_skipped += end - pos;
            pos = end;
            break;
        }
        const uint64_t lineEnd = nl ? uint64_t(static_cast<const char*>(nl) - s) : end;
        uint64_t n = lineEnd - pos;
        if (n && s[pos + n - 1] == '\r')
            --n;
        size_t start = 0, length = 0;
        bool bad = false;
        if (n && findSentence(s + pos, size_t(n), start, length, bad) && length < 65536) {
            m_skipped += n - length;
            m_sentences.push_back({pos + start, uint32_t(length)});
            ++m_frames;
            onSentence(s + pos + start, length);
        } else {
            m_skipped += n;
            m_checksumErrors += bad;
        }
        pos = nl ? lineEnd + 1 : end;
    }
    if (last)
        finishEpoch();
    return pos;
}

void LogReader::onSentence(const char* p, size_t n)
{
    // Body between "$" and "*hh", split at commas.
    Field fields[24];
    size_t count = 0;
    const char* body = p + 1;
    const char* stop = p + n - 3;
    const char* f = body;
    for (const char* q = body; q <= stop && count < 24; ++q) {
        if (q == stop || *q == ',') {
            fields[count++] = Field{f, size_t(q - f)};
            f = q + 1;
        }
    }
    if (count < 2 || fields[0].n < 5)
        return;
    const char* type = fields[0].p + fields[0].n - 3;
    const bool gga = std::memcmp(type, "GGA", 3) == 0;
    const bool rmc = std::memcmp(type, "RMC", 3) == 0;
    if (!gga && !rmc)
        return;
    Epoch probe;
    if (!parseTime(fields[1], probe))
        return;
    const std::string time(fields[1].p, fields[1].n);
    Epoch& e = *m_epoch;
    if (!e.time.empty() && e.time != time)
        finishEpoch();
    if (e.time.empty()) {
        const bool haveDate = e.haveDate;
        const unsigned y = e.year, mo = e.month, d = e.day;
        e = probe;
        e.time = time;
        // The date carries over to epochs that only have a GGA.
        e.haveDate = haveDate, e.year = y, e.month = mo, e.day = d;
    }
    double v;
    if (gga && count >= 10) {
        double lat, lon;
        if (parseCoordinate(fields[2], fields[3], lat) &&
            parseCoordinate(fields[4], fields[5], lon)) {
            e.havePosition = true, e.latitude = lat, e.longitude = lon;
        }
        if (fields[6].n && fields[6].p[0] != '0')
            e.fix = true;
        if (parseDecimal(fields[9].p, fields[9].n, v))
            e.haveAltitude = true, e.altitude = v;
        if (count >= 12 && parseDecimal(fields[11].p, fields[11].n, v))
            e.haveGeoid = true, e.geoid = v;
    } else if (rmc && count >= 10) {
        const bool valid = fields[2].n == 1 && fields[2].p[0] == 'A';
        e.fix = e.fix || valid;
        double lat, lon;
        if (!e.havePosition && parseCoordinate(fields[3], fields[4], lat) &&
            parseCoordinate(fields[5], fields[6], lon))
            e.havePosition = true, e.latitude = lat, e.longitude = lon;
        double course = 0;
        if (parseDecimal(fields[7].p, fields[7].n, v)) {
            parseDecimal(fields[8].p, fields[8].n, course);
            e.haveVelocity = true, e.speed = v * (1852.0 / 3600.0), e.course = course;
        }
        unsigned dd, mm, yy;
        if (fields[9].n == 6 && twoDigits(fields[9].p, dd) && twoDigits(fields[9].p + 2, mm) &&
            twoDigits(fields[9].p + 4, yy) && dd >= 1 && dd <= 31 && mm >= 1 && mm <= 12) {
            e.haveDate = true, e.day = dd, e.month = mm, e.year = yy < 80 ? 2000 + yy : 1900 + yy;
        }
    }
}

void LogReader::finishEpoch()
{
    Epoch& e = *m_epoch;
    if (e.time.empty())
        return;
    NvDataPacketBuilder b;
    b.setPacketCounter(uint16_t(m_index[0].packets.size()));
    NvUtcTime t;
    t.nanoseconds = e.nanoseconds;
    t.hour = uint8_t(e.hour), t.minute = uint8_t(e.minute), t.second = uint8_t(e.second);
    if (e.haveDate) {
        t.year = uint16_t(e.year), t.month = uint8_t(e.month), t.day = uint8_t(e.day);
        t.flags = NvUtcTime::ValidUtc;
    }
    b.setUtcTime(t);
    if (e.havePosition)
        b.setLatLon(e.latitude, e.longitude, nvWithPrecision(NDI_LAT_LON, NDP_FLOAT64));
    if (e.haveAltitude) {
        b.setScalar(nvWithPrecision(NDI_ALTITUDE_MSL, NDP_FLOAT64), e.altitude);
        if (e.haveGeoid)
            b.setScalar(nvWithPrecision(NDI_ALTITUDE_ELLIPSOID, NDP_FLOAT64), e.altitude + e.geoid);
    }
    if (e.haveVelocity) {
        const double c = e.course * M_PI / 180;
        b.setVector3(nvWithFrame(NDI_VELOCITY, NCF_ENU),
                     {e.speed * std::sin(c), e.speed * std::cos(c), 0});
    }
    b.setStatusWord(e.fix ? uint32_t(NvStatus::GnssFix) : 0u);
    const NvMessage m = b.toMessage();
    m_index[0].packets.push(m_synth.size());
    m_synth.insert(m_synth.end(), m.frame(), m.frame() + m.frameSize());
    e.time.clear();
    e.havePosition = e.haveAltitude = e.haveGeoid = e.haveVelocity = e.fix = false;
}

const LogReader::Part& LogReader::partOf(uint64_t offset) const
{
    if (m_parts.size() == 1)
        return m_parts[0];
    auto it = std::upper_bound(m_parts.begin(), m_parts.end(), offset,
                               [](uint64_t o, const Part& p) { return o < p.base; });
    return *--it;
}

const uint8_t* LogReader::at(uint64_t offset) const
{
    const Part& p = partOf(offset);
    return p.data + (offset - p.base);
}

const uint8_t* LogReader::packetAt(uint64_t offset) const
{
    return m_type == Type::Nm ? m_synth.data() + offset : at(offset);
}

bool LogReader::isMapped() const
{
    if (m_parts.empty())
        return false;
    for (const Part& p : m_parts)
        if (!p.bytes || !p.bytes->isMapping())
            return false;
    return true;
}

size_t LogReader::indexBytes() const
{
    size_t n = m_devices.capacity() * sizeof(Device) + m_index.capacity() * sizeof(DeviceIndex) +
               m_timeMarks.capacity() * sizeof(TimeMark) + m_sentences.capacity() * sizeof(Span) +
               m_synth.capacity() + m_parts.capacity() * sizeof(Part);
    for (const DeviceIndex& ix : m_index)
        n += ix.packets.bytes() + ix.messages.capacity() * sizeof(uint64_t);
    return n;
}

size_t LogReader::packetCount(size_t device) const
{
    return device < m_index.size() ? m_index[device].packets.size() : 0;
}

const uint8_t* LogReader::packetFrame(size_t device, size_t index, size_t* size) const
{
    if (device >= m_index.size() || index >= m_index[device].packets.size()) {
        if (size)
            *size = 0;
        return nullptr;
    }
    const uint8_t* f = packetAt(m_index[device].packets[index]);
    if (size)
        *size = declaredSize(f);
    return f;
}

NvDataPacket LogReader::packet(size_t device, size_t index) const
{
    if (device >= m_index.size() || index >= m_index[device].packets.size())
        return NvDataPacket();
    const uint64_t offset = m_index[device].packets[index];
    if (m_type == Type::Nm) {
        const uint8_t* f = m_synth.data() + offset;
        return NvDataPacket::fromFrame(f, declaredSize(f));
    }
    const Part& p = partOf(offset);
    const uint8_t* f = p.data + (offset - p.base);
    return NvDataPacket::viewFrame(f, declaredSize(f), p.bytes);
}

uint64_t LogReader::packetHostTime(size_t device, size_t index) const
{
    if (m_type != Type::Kvb || device >= m_index.size() || index >= m_index[device].packets.size())
        return 0;
    const uint64_t offset = m_index[device].packets[index];
    auto it = std::upper_bound(m_timeMarks.begin(), m_timeMarks.end(), offset,
                               [](uint64_t o, const TimeMark& m) { return o < m.offset; });
    return it == m_timeMarks.begin() ? 0 : std::prev(it)->utcNs;
}

size_t LogReader::messageCount(size_t device) const
{
    return device < m_index.size() ? m_index[device].messages.size() : 0;
}

NvMessage LogReader::message(size_t device, size_t index) const
{
    if (device >= m_index.size() || index >= m_index[device].messages.size())
        return {};
    const uint8_t* f = at(m_index[device].messages[index]);
    return NvMessage::fromFrame(f, declaredSize(f));
}

std::string LogReader::sentence(size_t index) const
{
    if (index >= m_sentences.size())
        return {};
    const Span& s = m_sentences[index];
    return std::string(reinterpret_cast<const char*>(m_parts[0].data) + s.offset, s.size);
}

std::vector<std::string> LogReader::followingParts() const
{
    std::vector<std::string> out;
    if (m_type != Type::Kvb || m_path.empty() || m_header.part == 0)
        return out;
    // The first part's name: this one's without its "-NNN".
    std::string first = m_path;
    if (m_header.part > 1) {
        const std::string suffix = logPartPath("x", m_header.part).substr(1);
        const size_t slash = m_path.find_last_of('/');
        const size_t at = m_path.rfind(suffix);
        if (at == std::string::npos || (slash != std::string::npos && at < slash))
            return out;
        first = m_path.substr(0, at) + m_path.substr(at + suffix.size());
    }
    for (unsigned part = m_header.part + 1; part < 100000; ++part) {
        const std::string path = logPartPath(first, part);
        LogReader next;
        if (next.open(path) != NRV_OK || next.type() != Type::Kvb ||
            next.header().recordingId != m_header.recordingId || next.header().part != part)
            break;
        out.push_back(path);
    }
    return out;
}

} // namespace nda
