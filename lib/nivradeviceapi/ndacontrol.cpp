#include "ndacontrol_p.h"

#include "nivradeviceapi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

namespace nda {

namespace {
thread_local NvResultValue t_lastResult = NRV_OK;
} // namespace

void setResult(NvResultValue value)
{
    t_lastResult = value;
}
NvResultValue lastResult()
{
    return t_lastResult;
}

// ---------------------------------------------------------------------------- Port

Port::Port(Control* control, std::string name) : m_control(control), m_name(std::move(name)) {}

Port::~Port()
{
    shutdown();
    if (m_thread.joinable())
        m_thread.detach(); // last owner dropped on the reader thread itself: it only returns
}

bool Port::isReaderThread() const
{
    return m_thread.get_id() == std::this_thread::get_id();
}

static speed_t speedFor(int rate)
{
    switch (rate) {
    case 4800:
        return B4800;
    case 9600:
        return B9600;
    case 19200:
        return B19200;
    case 38400:
        return B38400;
    case 57600:
        return B57600;
    case 115200:
        return B115200;
    case 230400:
        return B230400;
    case 460800:
        return B460800;
    case 921600:
        return B921600;
    case 1000000:
        return B1000000;
    case 2000000:
        return B2000000;
    case 4000000:
        return B4000000;
    default:
        return B115200; // rates termios lacks; pseudo-terminals ignore the rate anyway
    }
}

NvResultValue Port::open(NvBaudRate baudRate)
{
    m_fd = ::open(m_name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0)
        return errno == EBUSY ? NRV_PORT_IN_USE : NRV_PORT_OPEN_FAILED;
    // Opened non-blocking so that missing modem lines cannot hang open(); reads go
    // through poll(), writes may block.
    fcntl(m_fd, F_SETFL, fcntl(m_fd, F_GETFL) & ~O_NONBLOCK);
    if (!setBaudRate(baudRate))
        return NRV_PORT_OPEN_FAILED;
    // A device that measured while nobody read has filled the buffer with old packets.
    tcflush(m_fd, TCIOFLUSH);
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wakeFd < 0)
        return NRV_PORT_OPEN_FAILED;
    m_thread = std::thread([this] { readLoop(); });
    return NRV_OK;
}

bool Port::setBaudRate(NvBaudRate baudRate)
{
    termios tio{};
    if (tcgetattr(m_fd, &tio) != 0)
        return false;
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    cfsetspeed(&tio, speedFor(nvBaudRateToRate(baudRate)));
    if (tcsetattr(m_fd, TCSANOW, &tio) != 0)
        return false;
    m_baudRate = baudRate;
    return true;
}

void Port::shutdown()
{
    m_stop = true;
    if (m_wakeFd >= 0) {
        uint64_t one = 1;
        ssize_t ignored = ::write(m_wakeFd, &one, sizeof one);
        (void)ignored;
    }
    // Closed from one of its own callbacks, the reader ends after the callback returns;
    // the control keeps the port until then and joins it later.
    if (m_thread.joinable() && !isReaderThread())
        m_thread.join();
    {
        std::lock_guard<std::mutex> lock(m_replyMutex);
        m_hungUp = true;
    }
    m_replyCv.notify_all();
    std::lock_guard<std::mutex> lock(m_writeMutex); // no write may use the descriptor now
    if (m_fd >= 0)
        ::close(m_fd);
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
    m_fd = m_wakeFd = -1;
}

bool Port::write(const NvMessage& message)
{
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        if (m_fd < 0 || message.isEmpty())
            return false;
        const uint8_t* p = message.frame();
        size_t left = message.frameSize();
        while (left > 0) {
            ssize_t n = ::write(m_fd, p, left);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            p += n;
            left -= size_t(n);
        }
    }
    // Reported outside the write lock: a handler may well send a message itself.
    NvDevice* dev = m_device.load();
    if (dev && (m_control->options() & NVO_REPORT_MESSAGES))
        m_control->dispatch([&](const NvCallbackPlainC* h) {
            if (h->onMessageSentToDevice)
                h->onMessageSentToDevice(h->userData, dev, &message);
        });
    return true;
}

NvResultValue Port::request(const NvMessage& message, uint8_t replyMid, NvMessage* reply,
                            unsigned timeoutMs)
{
    if (isReaderThread())
        return NRV_INVALID_STATE; // the reply could never be read: we are its reader
    std::lock_guard<std::mutex> serial(m_requestMutex);
    {
        std::lock_guard<std::mutex> lock(m_replyMutex);
        if (m_hungUp)
            return NRV_PORT_NOT_OPEN;
        m_waiting = true;
        m_expected = replyMid;
        m_gotReply = false;
        m_reply = NvMessage();
    }
    if (!write(message)) {
        std::lock_guard<std::mutex> lock(m_replyMutex);
        m_waiting = false;
        return NRV_PORT_WRITE_ERROR;
    }
    std::unique_lock<std::mutex> lock(m_replyMutex);
    m_replyCv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                       [this] { return m_gotReply || m_hungUp; });
    m_waiting = false;
    if (!m_gotReply)
        return m_hungUp ? NRV_UNEXPECTED_DISCONNECT : NRV_TIMEOUT;
    NvMessage answer = m_reply;
    m_reply = NvMessage();
    lock.unlock();
    if (answer.messageId() == NvMid::Error && replyMid != NvMid::Error) {
        if (reply)
            *reply = answer;
        const int code = answer.dataSize() > 0 ? answer.readU8(0) : int(NRV_ERROR);
        return NvResultValue(code == 0 ? int(NRV_ERROR) : code);
    }
    if (reply)
        *reply = answer;
    return NRV_OK;
}

void Port::readLoop()
{
    readFrames();
    if (NvDevice* dev = m_releaseOnExit.exchange(nullptr))
        m_control->release(dev);
}

void Port::readFrames()
{
    uint8_t buffer[4096];
    while (!m_stop) {
        pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        int rc = ::poll(fds, 2, 500);
        if (m_stop)
            break;
        if (rc < 0) {
            if (errno == EINTR)
                continue;
            lost();
            return;
        }
        if (rc == 0)
            continue;
        if (fds[0].revents & POLLIN) {
            ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n > 0) {
                const uint64_t before = m_parser.counters().checksumErrors;
                m_parser.feed(buffer, size_t(n),
                              [this](const NvFrameView& view) { onFrame(view); });
                m_checksumErrors += m_parser.counters().checksumErrors - before;
                continue;
            }
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            lost();
            return;
        }
        if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
            lost();
            return;
        }
    }
}

void Port::lost()
{
    {
        std::lock_guard<std::mutex> lock(m_replyMutex);
        m_hungUp = true;
    }
    m_replyCv.notify_all();
    if (m_stop)
        return; // closing on purpose
    nda::log(NDA_LOG_ALERT, ("Port " + m_name + " disconnected").c_str());
    NvDevice* dev = m_device.load();
    if (!dev)
        return; // still opening: the opener sees the hang-up
    m_control->dispatch([&](const NvCallbackPlainC* h) {
        if (h->onError)
            h->onError(h->userData, dev, NRV_UNEXPECTED_DISCONNECT);
    });
    m_control->deviceLost(dev);
}

void Port::onFrame(const NvFrameView& view)
{
    if (m_stop)
        return; // closed from a callback of an earlier frame of this chunk
    const uint8_t mid = view.messageId();
    NvDevice* dev = m_device.load();
    // The state follows the device's acknowledgements, here on the reader thread, before
    // the waiting request returns and before the packets that follow.
    if (dev && mid == NvMid::GoToMeasurementAck) {
        dev->resetCounter();
        m_control->changeState(dev, NDS_MEASUREMENT);
    } else if (dev && mid == NvMid::GoToConfigAck) {
        m_control->changeState(dev, NDS_CONFIGURATION);
    }
    bool delivered = false;
    {
        std::lock_guard<std::mutex> lock(m_replyMutex);
        if (m_waiting && !m_gotReply && (mid == m_expected || mid == NvMid::Error)) {
            m_reply = view.toMessage();
            m_gotReply = true;
            delivered = true;
        }
    }
    if (delivered)
        m_replyCv.notify_all();

    if (dev && (m_control->options() & NVO_REPORT_MESSAGES)) {
        NvMessage message = view.toMessage();
        m_control->dispatch([&](const NvCallbackPlainC* h) {
            if (h->onMessageReceivedFromDevice)
                h->onMessageReceivedFromDevice(h->userData, dev, &message);
        });
    }

    switch (mid) {
    case NvMid::GoToMeasurementAck:
    case NvMid::GoToConfigAck:
        return;
    case NvMid::WakeUp:
        // Keeps the device in configuration: the library decides when it measures.
        write(NvMessage::toDevice(NvMid::WakeUpAck));
        {
            // A device that boots drops what it received before; a GoToConfig waiting for
            // its acknowledgement is answered by the WakeUpAck just sent.
            std::lock_guard<std::mutex> lock(m_replyMutex);
            if (m_waiting && !m_gotReply && m_expected == NvMid::GoToConfigAck) {
                m_reply = NvMessage::toDevice(NvMid::GoToConfigAck);
                m_gotReply = true;
                m_replyCv.notify_all();
            }
        }
        if (dev) {
            dev->resetCounter();
            m_control->changeState(dev, NDS_CONFIGURATION);
            m_control->dispatch([&](const NvCallbackPlainC* h) {
                if (h->onWakeupReceived)
                    h->onWakeupReceived(h->userData, dev);
            });
        }
        return;
    case NvMid::DataPacket:
        if (dev && !delivered)
            onDataPacket(dev, view);
        return;
    case NvMid::Error:
        if (dev && !delivered) {
            const NvResultValue code =
                NvResultValue(view.dataSize() > 0 ? view.data()[0] : int(NRV_ERROR));
            m_control->dispatch([&](const NvCallbackPlainC* h) {
                if (h->onError)
                    h->onError(h->userData, dev, code);
            });
        }
        return;
    default:
        if (dev && !delivered) {
            NvMessage message = view.toMessage();
            m_control->dispatch([&](const NvCallbackPlainC* h) {
                if (h->onNonDataMessage)
                    h->onNonDataMessage(h->userData, dev, &message);
            });
        }
        return;
    }
}

void Port::onDataPacket(NvDevice* dev, const NvFrameView& view)
{
    NvDataPacket packet = NvDataPacket::fromFrame(view.frame, view.size);
    if (packet.isEmpty())
        return;
    if (packet.contains(NDI_PACKET_COUNTER)) {
        const uint16_t counter = packet.packetCounter();
        if (dev->m_haveCounter && counter != uint16_t(dev->m_lastCounter + 1)) {
            const uint16_t first = uint16_t(dev->m_lastCounter + 1);
            const uint16_t last = uint16_t(counter - 1);
            const int count = uint16_t(counter - first);
            m_control->dispatch([&](const NvCallbackPlainC* h) {
                if (h->onMissedPackets)
                    h->onMissedPackets(h->userData, dev, count, first, last);
            });
        }
        dev->m_haveCounter = true;
        dev->m_lastCounter = counter;
    }
    m_control->dispatch([&](const NvCallbackPlainC* h) {
        if (h->onLiveDataAvailable)
            h->onLiveDataAvailable(h->userData, dev, &packet);
    });
}

} // namespace nda

// -------------------------------------------------------------------------- NvDevice

void NvDevice::resetCounter()
{
    m_haveCounter = false;
}
