#include "portrunner.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace kvsim {

namespace {

// Like a device's transmit FIFO: measurement data that does not fit is lost; replies
// always go in.
constexpr size_t kTxBufferSize = 16 * 1024;
// Measurement output leaves every 2 ms, like a USB serial adapter's latency timer: at
// 2000 Hz four packets share one wake-up, which cuts the thread's switches without
// touching any sample time. Replies go out as soon as the request is read.
constexpr int64_t kTxFrameNs = 2'000'000;

} // namespace

int64_t PortRunner::monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

PortRunner::PortRunner(std::unique_ptr<PortDevice> device, const FaultSettings& faults,
                       uint64_t seed, Events events)
    : m_device(std::move(device)), m_faults(faults),
      m_faultRng(Rng::derive(seed, m_device->id().toInt() ^ 0xFA017ULL)),
      m_events(std::move(events))
{
}

PortRunner::~PortRunner()
{
    stop();
    if (m_stopFd >= 0)
        close(m_stopFd);
    if (m_timerFd >= 0)
        close(m_timerFd);
}

bool PortRunner::open(std::string& error)
{
    if (!m_pty.open(error))
        return false;
    m_stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (m_stopFd < 0 || m_timerFd < 0) {
        error = std::string("eventfd/timerfd: ") + std::strerror(errno);
        return false;
    }
    m_device->setPortName(m_pty.slavePath());
    return true;
}

bool PortRunner::start(int64_t originNs, std::string& error)
{
    if (m_faults.disconnectAfter >= 0)
        m_disconnectAt = originNs + int64_t(m_faults.disconnectAfter * 1e9);
    m_device->powerUp(originNs, *this);
    m_lastState = m_device->stateText();
    try {
        m_thread = std::thread(&PortRunner::run, this);
    } catch (const std::system_error& e) {
        error = e.what();
        return false;
    }
    return true;
}

void PortRunner::stop()
{
    if (!m_thread.joinable())
        return;
    const uint64_t one = 1;
    if (write(m_stopFd, &one, sizeof one) < 0) {
        // The counter cannot overflow with one write; nothing else can fail here.
    }
    m_thread.join();
}

void PortRunner::log(const std::string& text)
{
    if (m_events.log)
        m_events.log(m_pty.slavePath() + " " + m_device->kindName() + ": " + text);
}

void PortRunner::logStateChange()
{
    const std::string state = m_device->stateText();
    if (state != m_lastState)
        log(state);
    m_lastState = state;
}

void PortRunner::sendControl(const NvMessage& message)
{
    if (!m_pty.isOpen() || message.isEmpty())
        return;
    m_out.insert(m_out.end(), message.frame(), message.frame() + message.frameSize());
}

SampleFate PortRunner::sendData(const uint8_t* bytes, size_t size, bool isFrame)
{
    // The fault draws come first and always in the same number, so that a seed gives the
    // same faults whatever the reader does.
    const bool drop = m_faultRng.chance(m_faults.drop);
    const bool corrupt = m_faultRng.chance(m_faults.corrupt);
    const uint64_t how = m_faultRng.next();
    if (drop)
        return SampleFate::Dropped;
    if (!m_pty.isOpen())
        return SampleFate::Overflow;

    const bool garbage = corrupt && (how & 3) == 0;
    const size_t junk = garbage ? 1 + ((how >> 8) % 8) : 0;
    if (m_out.size() - m_outHead + size + junk > kTxBufferSize) {
        flushOutput();
        if (m_out.size() - m_outHead + size + junk > kTxBufferSize) {
            if (m_overflows++ == 0)
                log("transmit buffer full: the host does not read; samples are lost");
            return SampleFate::Overflow;
        }
    }
    if (garbage) {
        for (size_t i = 0; i < junk; ++i) {
            uint8_t b = uint8_t(how >> (16 + 5 * i));
            // Junk never looks like the start of a frame or of a sentence.
            if (b == NvMessage::Preamble || b == '$')
                b = 0x55;
            m_out.push_back(b);
        }
        m_out.insert(m_out.end(), bytes, bytes + size);
        return SampleFate::Garbage;
    }
    const size_t start = m_out.size();
    m_out.insert(m_out.end(), bytes, bytes + size);
    if (!corrupt)
        return SampleFate::Sent;

    uint8_t* p = m_out.data() + start;
    if (isFrame) {
        // A byte after the header (data or checksum): the frame keeps its length and
        // fails its checksum.
        const size_t header = p[3] == NvMessage::ExtendedLength ? 6 : 4;
        const size_t at = header + (how >> 8) % (size - header);
        p[at] ^= uint8_t(1 + (how >> 24) % 255);
    } else {
        // A checksum digit of the first sentence changes to another hex digit.
        const void* star = std::memchr(p, '*', size);
        if (star && static_cast<const uint8_t*>(star) + 2 < p + size) {
            uint8_t* digit = static_cast<uint8_t*>(const_cast<void*>(star)) + 1 + ((how >> 8) & 1);
            static const char hex[] = "0123456789ABCDEF";
            const char* pos = std::strchr(hex, *digit);
            const int value = pos ? int(pos - hex) : 0;
            *digit = uint8_t(hex[(value + 1 + (how >> 16) % 15) % 16]);
        }
    }
    return SampleFate::Corrupted;
}

bool PortRunner::sendRetransmission(const uint8_t* bytes, size_t size)
{
    if (!m_pty.isOpen())
        return true; // nobody will ever read it
    if (m_out.size() - m_outHead + size > kTxBufferSize) {
        flushOutput();
        if (m_out.size() - m_outHead + size > kTxBufferSize)
            return false;
    }
    m_out.insert(m_out.end(), bytes, bytes + size);
    return true;
}

bool PortRunner::flushOutput()
{
    while (m_outHead < m_out.size() && m_pty.isOpen()) {
        const ssize_t n =
            write(m_pty.masterFd(), m_out.data() + m_outHead, m_out.size() - m_outHead);
        if (n > 0) {
            m_outHead += size_t(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break; // EAGAIN: the pseudo-terminal is full
    }
    if (m_outHead == m_out.size()) {
        m_out.clear();
        m_outHead = 0;
    } else if (m_outHead > kTxBufferSize) {
        m_out.erase(m_out.begin(), m_out.begin() + std::ptrdiff_t(m_outHead));
        m_outHead = 0;
    }
    return m_out.empty();
}

void PortRunner::armTimer(int64_t deadline)
{
    if (deadline == m_armed)
        return;
    itimerspec timer{};
    if (deadline != kNever) {
        timer.it_value.tv_sec = deadline / 1'000'000'000;
        timer.it_value.tv_nsec = deadline % 1'000'000'000;
    }
    // Absolute deadlines: a late wake-up never shifts the samples that follow.
    timerfd_settime(m_timerFd, TFD_TIMER_ABSTIME, &timer, nullptr);
    m_armed = deadline;
}

void PortRunner::readInput(int64_t nowNs)
{
    uint8_t buf[4096];
    for (;;) {
        const ssize_t n = read(m_pty.masterFd(), buf, sizeof buf);
        if (n > 0) {
            m_parser.feed(buf, size_t(n), [&](const NvFrameView& frame) {
                m_device->handleFrame(frame, nowNs, *this);
            });
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        return;
    }
}

void PortRunner::run()
{
    if (m_lastState == "measurement")
        log(m_lastState);
    for (;;) {
        const int64_t deadline = std::min(m_device->nextDeadline(), m_disconnectAt);
        armTimer(deadline == kNever ? kNever
                                    : (deadline + kTxFrameNs - 1) / kTxFrameNs * kTxFrameNs);

        pollfd fds[3] = {{m_stopFd, POLLIN, 0},
                         {m_pty.masterFd(), short(POLLIN | (m_out.empty() ? 0 : POLLOUT)), 0},
                         {m_timerFd, POLLIN, 0}};
        const int rc = poll(fds, 3, -1);
        if (rc < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN)
            break;
        const int64_t now = monotonicNs();
        if (fds[2].revents & POLLIN)
            m_armed = -1; // expired: re-arming clears it

        if (fds[1].revents & POLLIN)
            readInput(now);
        m_device->advance(now, *this);
        flushOutput();
        logStateChange();

        if (now >= m_disconnectAt) {
            m_device->flushTruth();
            m_pty.close();
            log("disconnected");
            m_disconnected = true;
            if (m_events.disconnected)
                m_events.disconnected(*this);
            return;
        }
    }
    m_device->flushTruth();
}

} // namespace kvsim
