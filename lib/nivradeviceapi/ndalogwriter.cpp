// The kvb writer (layout in docs/kvb-format.md).
#include "ndalogfile.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace nda {

namespace {

// Frames read in one batch arrive within microseconds of each other, so a mark at most
// every millisecond dates each batch as it came in without one mark per frame.
constexpr uint64_t TimeMarkIntervalNs = 1'000'000;
// The writer thread is woken early once this much is buffered, so that a fast stream
// is written in chunks the page cache likes rather than one big burst per sync period.
constexpr size_t WakeBytes = size_t(1) << 20;
constexpr const char* WriterName = "KvManager nivradeviceapi";

uint64_t clockNs(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return uint64_t(ts.tv_sec) * 1'000'000'000u + uint64_t(ts.tv_nsec);
}

// The coarse clock ticks in whole jiffies (4 ms): too slow to tell batches 1 ms apart.
uint64_t monoNs()
{
    return clockNs(CLOCK_MONOTONIC);
}

// The size a frame declares; callers know the header bytes are there.
size_t declaredSize(const uint8_t* f)
{
    if (f[3] == NvMessage::ExtendedLength)
        return 6 + (size_t(f[4]) << 8 | f[5]) + 1;
    return 4 + size_t(f[3]) + 1;
}

void putU16(uint8_t* p, uint16_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

void putU64(uint8_t* p, uint64_t v)
{
    for (int i = 7; i >= 0; --i, v >>= 8)
        p[i] = uint8_t(v);
}

void putFrame(std::vector<uint8_t>& out, uint8_t busId, uint8_t mid, const uint8_t* data,
              size_t size)
{
    const NvMessage m(busId, mid, data, size);
    out.insert(out.end(), m.frame(), m.frame() + m.frameSize());
}

// Moves a frame to another bus id; the checksum follows so that a bad one stays bad.
void rebus(uint8_t* frame, size_t size, uint8_t busId)
{
    const uint8_t old = frame[1];
    frame[1] = busId;
    frame[size - 1] = uint8_t(frame[size - 1] + old - busId);
}

NvResultValue resultOf(int err)
{
    return err == ENOSPC || err == EFBIG || err == EDQUOT ? NRV_DISK_FULL : NRV_FILE_WRITE_ERROR;
}

constexpr size_t EndFrameSize = 4 + 3 + 1;

bool isDataPacket(const uint8_t* frame, size_t size)
{
    return size > 2 && frame[2] == NvMid::DataPacket && frame[1] != LogFileBusId;
}

// The data packets among the whole frames in [data, data + size).
uint64_t dataPacketsIn(const uint8_t* data, size_t size)
{
    uint64_t packets = 0;
    for (size_t pos = 0; pos + NvMessage::MinFrameSize <= size;) {
        const size_t frameSize = declaredSize(data + pos);
        if (pos + frameSize > size)
            break;
        packets += isDataPacket(data + pos, frameSize);
        pos += frameSize;
    }
    return packets;
}

} // namespace

std::string logPartPath(const std::string& firstPart, unsigned part)
{
    if (part <= 1)
        return firstPart;
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "-%03u", part);
    const size_t slash = firstPart.find_last_of('/');
    const size_t dot = firstPart.find_last_of('.');
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    if (dot == std::string::npos || dot <= nameStart)
        return firstPart + suffix;
    return firstPart.substr(0, dot) + suffix + firstPart.substr(dot);
}

NvDeviceId logBinPlaceholderId()
{
    return NvDeviceId::fromWire64(0xFFFF000000000001ull);
}

NvDeviceId logNmPlaceholderId()
{
    return NvDeviceId::fromWire64(0x1770FFFF00000001ull);
}

LogWriter::LogWriter() = default;

LogWriter::~LogWriter()
{
    close();
}

void LogWriter::setErrorHandler(std::function<void(NvResultValue)> handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_errorHandler = std::move(handler);
}

NvResultValue LogWriter::create(const std::string& path, const LogWriterOptions& options)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_open || m_thread.joinable())
            return NRV_INVALID_STATE;
        m_buffer.clear();
        m_buffer.reserve(2 * WakeBytes);
        m_bufferAppended = 0;
        m_bufferPackets = 0;
        m_devices.clear();
        m_parts.clear();
        m_stop = m_failed = m_wakePending = false;
        m_lastMark = 0;
        m_error = NRV_OK;
    }
    m_options = options;
    if (m_options.syncMs == 0)
        m_options.syncMs = 1;
    m_path = path;
    m_framesWritten = 0;
    m_bytesWritten = 0;
    m_dropped = 0;
    m_packetCounts = std::make_shared<LogPacketCounts>();
    std::random_device entropy;
    m_recordingId = uint64_t(entropy()) << 32 ^ entropy() ^ clockNs(CLOCK_MONOTONIC);
    m_createdUtc = clockNs(CLOCK_REALTIME);
    if (!openPart(1)) {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_parts.clear();
        m_failed = false;
        m_error = NRV_OK;
        return NRV_OUTPUT_CANNOT_BE_OPENED;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
    }
    m_thread = std::thread([this] { run(); });
    return NRV_OK;
}

uint8_t LogWriter::addDevice(const NvDeviceId& id, const std::vector<NvMessage>& description)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open || m_failed || m_devices.size() >= LogMaxDevices)
        return 0;
    const uint8_t busId = uint8_t(m_devices.size() + 1);
    Device device;
    // The DeviceId frame opens a device's description: readers make the device on it.
    const std::vector<uint8_t> wire = id.toWire();
    putFrame(device.description, busId, NvMid::DeviceId, wire.data(), wire.size());
    for (const NvMessage& m : description) {
        if (m.isEmpty() || m.messageId() == NvMid::DeviceId)
            continue;
        const size_t at = device.description.size();
        device.description.insert(device.description.end(), m.frame(), m.frame() + m.frameSize());
        rebus(device.description.data() + at, m.frameSize(), busId);
    }
    m_buffer.insert(m_buffer.end(), device.description.begin(), device.description.end());
    m_devices.push_back(std::move(device));
    return busId;
}

void LogWriter::putTimeMarkLocked(uint64_t nowMono)
{
    uint8_t data[8];
    putU64(data, clockNs(CLOCK_REALTIME));
    putFrame(m_buffer, LogFileBusId, LogMid::TimeMark, data, sizeof data);
    m_lastMark = nowMono;
}

void LogWriter::append(uint8_t fileBusId, const uint8_t* frame, size_t size)
{
    if (!frame || size < NvMessage::MinFrameSize || size > NvMessage::MaxFrameSize ||
        frame[0] != NvMessage::Preamble || declaredSize(frame) != size) {
        ++m_dropped;
        return;
    }
    const bool packet = frame[2] == NvMid::DataPacket;
    const uint64_t now = monoNs();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open || m_failed || fileBusId == 0 || fileBusId > m_devices.size() ||
        m_buffer.size() + size > m_options.maxBufferBytes) {
        ++m_dropped;
        m_packetCounts->lost += packet;
        return;
    }
    if (now - m_lastMark >= TimeMarkIntervalNs)
        putTimeMarkLocked(now);
    const size_t at = m_buffer.size();
    m_buffer.insert(m_buffer.end(), frame, frame + size);
    rebus(m_buffer.data() + at, size, fileBusId);
    ++m_bufferAppended;
    m_bufferPackets += packet;
    if (m_buffer.size() >= WakeBytes && !m_wakePending) {
        m_wakePending = true;
        m_wake.notify_one();
    }
}

NvResultValue LogWriter::close()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_thread.joinable())
            return m_error;
        m_stop = true;
        m_wake.notify_one();
    }
    m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
    return m_error;
}

bool LogWriter::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_open && !m_failed;
}

NvResultValue LogWriter::error() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
}

uint64_t LogWriter::framesWritten() const
{
    return m_framesWritten.load();
}

uint64_t LogWriter::bytesWritten() const
{
    return m_bytesWritten.load();
}

uint64_t LogWriter::framesDropped() const
{
    return m_dropped.load();
}

std::vector<std::string> LogWriter::parts() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_parts;
}

void LogWriter::fail(int err)
{
    std::function<void(NvResultValue)> handler;
    NvResultValue result;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_failed)
            return;
        m_failed = true;
        m_error = result = resultOf(err);
        m_buffer.clear();
        m_packetCounts->lost += m_bufferPackets;
        m_bufferPackets = 0;
        handler = m_errorHandler;
    }
    if (handler)
        handler(result);
}

bool LogWriter::writeRange(const uint8_t* data, size_t size)
{
    size_t done = 0;
    int err = 0;
    while (done < size) {
        const ssize_t n = ::write(m_fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            err = errno;
            break;
        }
        if (n == 0) {
            err = EIO;
            break;
        }
        done += size_t(n);
    }
    if (done == size) {
        m_partBytes += size;
        m_bytesWritten += size;
        return true;
    }
    m_rangeKept = 0;
    // Cut back to the last whole frame so that the file stays a sequence of frames.
    size_t keep = 0;
    while (keep < size) {
        const size_t next = keep + declaredSize(data + keep);
        if (next > done)
            break;
        keep = next;
    }
    if (::ftruncate(m_fd, off_t(m_partBytes + keep)) == 0)
        ::lseek(m_fd, off_t(m_partBytes + keep), SEEK_SET);
    ::fdatasync(m_fd);
    m_partBytes += keep;
    m_bytesWritten += keep;
    m_rangeKept = keep;
    fail(err);
    return false;
}

bool LogWriter::openPart(unsigned part)
{
    const std::string path = logPartPath(m_path, part);
    // A file of that name goes rather than being cut to nothing: a reader may have it
    // mapped, and its pages would vanish under it (SIGBUS).
    struct stat st
    {
    };
    if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        ::unlink(path.c_str());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (part > 1)
            fail(errno);
        return false;
    }
    m_fd = fd;
    m_part = part;
    m_partBytes = 0;
    m_partHasData = false;
    m_partStartMono = monoNs();

    std::vector<uint8_t> head;
    std::string name = WriterName;
    std::vector<uint8_t> data(24 + name.size());
    std::memcpy(data.data(), "KVB", 3);
    data[3] = LogFormatVersion;
    data[4] = 0; // flags
    data[5] = 0; // reserved
    putU16(&data[6], uint16_t(part));
    putU64(&data[8], m_createdUtc);
    putU64(&data[16], m_recordingId);
    std::memcpy(&data[24], name.data(), name.size());
    putFrame(head, LogFileBusId, LogMid::Header, data.data(), data.size());
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_parts.push_back(path);
        // Every part describes every device so that it plays alone.
        for (const Device& d : m_devices)
            head.insert(head.end(), d.description.begin(), d.description.end());
    }
    return writeRange(head.data(), head.size());
}

bool LogWriter::finishPart(bool continues)
{
    uint8_t data[3] = {uint8_t(continues ? 1 : 0), 0, 0};
    if (continues)
        putU16(&data[1], uint16_t(m_part + 1));
    std::vector<uint8_t> end;
    putFrame(end, LogFileBusId, LogMid::End, data, sizeof data);
    bool ok = writeRange(end.data(), end.size());
    if (ok && ::fsync(m_fd) != 0) {
        fail(errno);
        ok = false;
    }
    ::close(m_fd);
    m_fd = -1;
    return ok;
}

bool LogWriter::writeBuffer(std::vector<uint8_t>& buffer, uint64_t appended, uint64_t packets)
{
    const uint8_t* p = buffer.data();
    const size_t size = buffer.size();
    // On an error only the packets before the cut reached the file; the rest are lost.
    auto failed = [&](size_t reached) {
        const uint64_t written = dataPacketsIn(p, reached);
        m_packetCounts->written += written;
        m_packetCounts->lost += packets - written;
        return false;
    };
    if (m_options.splitBytes == 0) {
        if (size && !writeRange(p, size))
            return failed(m_rangeKept);
        m_partHasData = m_partHasData || size > 0;
        m_framesWritten += appended;
        m_packetCounts->written += packets;
        return true;
    }
    size_t start = 0;
    size_t pos = 0;
    bool rangeHasData = false;
    while (pos < size) {
        const size_t frameSize = declaredSize(p + pos);
        if ((m_partHasData || rangeHasData) &&
            m_partBytes + (pos - start) + frameSize + EndFrameSize > m_options.splitBytes) {
            if (!writeRange(p + start, pos - start))
                return failed(start + m_rangeKept);
            if (!finishPart(true) || !openPart(m_part + 1))
                return failed(pos);
            start = pos;
            rangeHasData = false;
        }
        rangeHasData = rangeHasData || p[pos + 1] != LogFileBusId;
        pos += frameSize;
    }
    if (start < size && !writeRange(p + start, size - start))
        return failed(start + m_rangeKept);
    m_partHasData = m_partHasData || rangeHasData;
    m_framesWritten += appended;
    m_packetCounts->written += packets;
    return true;
}

void LogWriter::run()
{
    using namespace std::chrono;
    const uint64_t syncNs = uint64_t(m_options.syncMs) * 1'000'000u;
    uint64_t lastSync = monoNs();
    bool dirty = false;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        uint64_t waitNs = syncNs;
        if (m_options.splitMs && m_partHasData) {
            const uint64_t age = monoNs() - m_partStartMono;
            const uint64_t splitNs = m_options.splitMs * 1'000'000u;
            waitNs = std::min(waitNs, age >= splitNs ? 0 : splitNs - age);
        }
        m_wake.wait_for(lock, nanoseconds(waitNs), [this] { return m_stop || m_wakePending; });
        m_wakePending = false;
        const bool stop = m_stop;
        bool failed = m_failed;
        m_buffer.swap(m_spare);
        const uint64_t appended = m_bufferAppended;
        const uint64_t packets = m_bufferPackets;
        m_bufferAppended = 0;
        m_bufferPackets = 0;
        lock.unlock();

        if (!failed && m_options.splitMs && m_partHasData &&
            monoNs() - m_partStartMono >= m_options.splitMs * 1'000'000u)
            failed = !finishPart(true) || !openPart(m_part + 1);
        if (!failed && !m_spare.empty()) {
            failed = !writeBuffer(m_spare, appended, packets);
            dirty = true;
        } else if (failed) {
            m_packetCounts->lost += packets; // a part could not be begun
        }
        const uint64_t now = monoNs();
        if (!failed && dirty && now - lastSync >= syncNs) {
            if (::fdatasync(m_fd) != 0) {
                fail(errno);
                failed = true;
            }
            lastSync = now;
            dirty = false;
        }
        m_spare.clear();
        if (stop) {
            if (!failed && m_fd >= 0)
                finishPart(false);
            break;
        }
        lock.lock();
    }
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

} // namespace nda
