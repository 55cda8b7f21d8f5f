#include "ndacontrol_p.h"

#include "nivradeviceapi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <time.h>
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

int64_t monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
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

unsigned termiosSpeed(NvBaudRate baudRate)
{
    return speedFor(nvBaudRateToRate(baudRate));
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
    if (!isReaderThread())
        runPosted(true); // what the reader did not get to; it is gone now
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

bool Port::writeFrame(const NvMessage& message)
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
    return true;
}

void Port::reportSent(const NvMessage& message)
{
    NvDevice* dev = m_device.load();
    if (dev && (m_control->options() & NVO_REPORT_MESSAGES))
        m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
            if (h->onMessageSentToDevice)
                h->onMessageSentToDevice(h->userData, dev, &message);
        });
}

bool Port::write(const NvMessage& message)
{
    // Reported before it goes out, so that a quick reply is never reported before its
    // request; outside every lock: a handler may well send a message itself.
    reportSent(message);
    return writeFrame(message);
}

Port::Pending* Port::pendingFor(uint8_t mid, uint8_t bus, bool masterPort)
{
    for (Pending* p : m_pending) {
        const bool fromAddressee =
            bus == p->bus || (!masterPort && p->bus == NvMessage::BusIdDevice);
        if (!p->answered && fromAddressee && (mid == p->mid || mid == NvMid::Error))
            return p;
    }
    return nullptr;
}

NvResultValue Port::request(const NvMessage& message, uint8_t replyMid, NvMessage* reply,
                            unsigned timeoutMs)
{
    if (isReaderThread())
        return NRV_INVALID_STATE; // the reply could never be read: we are its reader
    Pending pending;
    pending.mid = replyMid;
    pending.bus = message.busId();
    auto forget = [this, &pending] {
        m_pending.erase(std::remove(m_pending.begin(), m_pending.end(), &pending), m_pending.end());
    };
    // Reported before it goes out (a quick reply must not be reported first) and with no
    // lock held: a handler that makes a request of its own on this port simply goes first.
    reportSent(message);
    {
        std::lock_guard<std::mutex> order(m_requestMutex);
        {
            std::lock_guard<std::mutex> lock(m_replyMutex);
            if (m_hungUp)
                return NRV_PORT_NOT_OPEN;
            m_pending.push_back(&pending);
        }
        if (!writeFrame(message)) {
            std::lock_guard<std::mutex> lock(m_replyMutex);
            forget();
            return NRV_PORT_WRITE_ERROR;
        }
    }
    std::unique_lock<std::mutex> lock(m_replyMutex);
    m_replyCv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                       [&] { return pending.answered || m_hungUp; });
    forget();
    if (!pending.answered)
        return m_hungUp ? NRV_UNEXPECTED_DISCONNECT : NRV_TIMEOUT;
    lock.unlock();
    const NvMessage& answer = pending.reply;
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
    runPosted(true);
    if (NvDevice* dev = m_releaseOnExit.exchange(nullptr))
        m_control->release(dev, true);
}

void Port::readFrames()
{
    uint8_t buffer[4096];
    m_lastInputNs = monotonicNs();
    while (!m_stop) {
        pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        // Short polls while measuring so that a stalled stream is noticed in time.
        const NvDevice* dev = m_device.load();
        const bool measuring = dev && (dev->state == NDS_MEASUREMENT || dev->isMaster);
        int rc = ::poll(fds, 2, measuring ? 100 : 500);
        if (m_stop)
            break;
        if (rc < 0) {
            if (errno == EINTR)
                continue;
            lost();
            return;
        }
        if (fds[1].revents & POLLIN) {
            uint64_t count = 0;
            ssize_t ignored = ::read(m_wakeFd, &count, sizeof count);
            (void)ignored;
        }
        runPosted();
        if (rc > 0 && (fds[0].revents & POLLIN)) {
            ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n > 0) {
                m_lastInputNs = monotonicNs();
                m_bytesReceived += uint64_t(n);
                const uint64_t before = m_parser.counters().checksumErrors;
                m_parser.feed(
                    buffer, size_t(n), [this](const NvFrameView& view) { onFrame(view); },
                    [this](const uint8_t* bytes, size_t count) { onSkipped(bytes, count); });
                m_checksumErrors += m_parser.counters().checksumErrors - before;
                runPosted();
                checkDataFlow();
                continue;
            }
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            lost();
            return;
        }
        if (rc > 0 && (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL))) {
            lost();
            return;
        }
        if (monotonicNs() - m_lastInputNs > 200'000'000)
            m_detector.flush([this](NvProtocolType type, const NvByteArray& bytes) {
                reportDetected(type, bytes);
            });
        checkDataFlow();
    }
}

void Port::post(std::function<void()> task)
{
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(m_postMutex);
        if (m_postsRunHere) {
            m_posted.push_back(std::move(task));
            queued = true;
        }
    }
    if (!queued) {
        task(); // the reader is gone and joined: nothing can race with the task
        return;
    }
    if (m_wakeFd >= 0) {
        uint64_t one = 1;
        ssize_t ignored = ::write(m_wakeFd, &one, sizeof one);
        (void)ignored;
    }
}

void Port::runPosted(bool last)
{
    for (;;) {
        std::vector<std::function<void()>> tasks;
        {
            std::lock_guard<std::mutex> lock(m_postMutex);
            if (m_posted.empty()) {
                if (last)
                    m_postsRunHere = false;
                return;
            }
            tasks.swap(m_posted);
        }
        for (auto& task : tasks)
            task();
    }
}

void Port::releaseLater(NvDevice* device)
{
    post([control = m_control, device] { control->release(device, true); });
}

void Port::onSkipped(const uint8_t* bytes, size_t count)
{
    m_detector.feed(bytes, count, [this](NvProtocolType type, const NvByteArray& detected) {
        reportDetected(type, detected);
    });
}

void Port::reportDetected(NvProtocolType type, const NvByteArray& bytes)
{
    NvDevice* dev = m_device.load();
    if (!dev)
        return;
    m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
        if (h->onMessageDetected)
            h->onMessageDetected(h->userData, dev, type, &bytes);
    });
}

namespace {

// How long a measuring device may stay silent before its data counts as unavailable:
// three packet periods of its fastest item, at least half a second.
int64_t silenceLimitNs(NvDevice* dev)
{
    unsigned fastest = 0;
    {
        std::lock_guard<std::mutex> lock(dev->mutex);
        for (const NvOutputConfiguration& c : dev->outputConfiguration)
            if (!c.isEveryPacket() && c.frequency > fastest)
                fastest = c.frequency;
        if (dev->master)
            fastest = unsigned(std::max(dev->master->updateRate, 0));
    }
    if (fastest == 0)
        return 2'000'000'000;
    return std::max<int64_t>(500'000'000, 3 * 1'000'000'000LL / fastest);
}

} // namespace

void Port::checkDataFlow()
{
    NvDevice* dev = m_device.load();
    if (!dev)
        return;
    const int64_t now = monotonicNs();
    auto check = [&](NvDevice* d) {
        if (d->state != NDS_MEASUREMENT || d->m_dataUnavailable || d->m_lastPacketNs == 0)
            return;
        if (now - d->m_lastPacketNs < silenceLimitNs(d))
            return;
        d->m_dataUnavailable = true;
        const long sampleTime = long(d->m_lastSampleTime);
        m_control->dispatch(d, [&](const NvCallbackPlainC* h) {
            if (h->onDataUnavailable)
                h->onDataUnavailable(h->userData, d, sampleTime);
        });
    };
    if (!dev->isMaster) {
        check(dev);
        return;
    }
    for (uint8_t bus = 1; bus <= 32; ++bus)
        if (NvDevice* child = dev->child(bus))
            check(child);
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
    m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
        if (h->onError)
            h->onError(h->userData, dev, NRV_UNEXPECTED_DISCONNECT);
    });
    m_control->deviceLost(dev);
}

void Port::enterMode(NvDevice* dev, NvDeviceState state)
{
    dev->resetCounter();
    dev->m_lastPacketNs = state == NDS_MEASUREMENT ? monotonicNs() : 0;
    m_control->changeState(dev, state);
    if (!dev->isMaster)
        return;
    // A master starts and stops the trackers connected over the radio with it.
    for (uint8_t bus = 1; bus <= 32; ++bus) {
        NvDevice* child = dev->child(bus);
        if (!child)
            continue;
        bool wireless;
        {
            std::lock_guard<std::mutex> lock(child->mutex);
            wireless = child->kvw.state == NCS_WIRELESS;
        }
        if (wireless || state != NDS_MEASUREMENT) {
            child->resetCounter();
            child->m_lastPacketNs = state == NDS_MEASUREMENT ? monotonicNs() : 0;
            m_control->changeState(child, state);
        }
    }
}

void Port::onFrame(const NvFrameView& view)
{
    if (m_stop)
        return; // closed from a callback of an earlier frame of this chunk
    const uint8_t mid = view.messageId();
    const uint8_t bus = view.busId();
    NvDevice* portDevice = m_device.load();
    NvDevice* dev = portDevice;
    const bool masterPort = m_masterPort.load();
    if (masterPort && bus != NvMessage::BusIdDevice)
        dev = portDevice ? portDevice->child(bus) : nullptr;
    if (dev)
        recordFrame(dev, view);
    // The state follows the device's acknowledgements, here on the reader thread, before
    // the waiting request returns and before the packets that follow.
    if (dev && mid == NvMid::GoToMeasurementAck)
        enterMode(dev, NDS_MEASUREMENT);
    else if (dev && mid == NvMid::GoToConfigAck)
        enterMode(dev, NDS_CONFIGURATION);
    bool delivered = false;
    {
        std::lock_guard<std::mutex> lock(m_replyMutex);
        if (Pending* p = pendingFor(mid, bus, masterPort)) {
            p->reply = view.toMessage();
            p->answered = true;
            delivered = true;
        }
    }
    if (delivered)
        m_replyCv.notify_all();

    if (dev && (m_control->options() & NVO_REPORT_MESSAGES)) {
        NvMessage message = view.toMessage();
        m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
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
        write(NvMessage(bus, NvMid::WakeUpAck));
        if (bus == NvMessage::BusIdDevice) {
            // A device that boots drops what it received before; a GoToConfig waiting for
            // its acknowledgement is answered by the WakeUpAck just sent.
            std::lock_guard<std::mutex> lock(m_replyMutex);
            if (Pending* p = pendingFor(NvMid::GoToConfigAck, bus, masterPort)) {
                p->reply = NvMessage::toDevice(NvMid::GoToConfigAck);
                p->answered = true;
                m_replyCv.notify_all();
            }
        }
        if (dev) {
            enterMode(dev, NDS_CONFIGURATION);
            m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
                if (h->onWakeupReceived)
                    h->onWakeupReceived(h->userData, dev);
            });
        }
        return;
    case NvMid::DataPacket:
        if (dev && !delivered)
            onDataPacket(dev, view);
        return;
    case NvMid::TrackerStatus:
    case NvMid::TrackerLinkReport:
    case NvMid::FlushProgress:
        if (masterPort && portDevice && dev == portDevice) {
            onMasterMessage(portDevice, view);
            return;
        }
        break;
    default:
        break;
    }
    if (!dev || delivered)
        return;
    if (mid == NvMid::Error) {
        const NvResultValue code =
            NvResultValue(view.dataSize() > 0 ? view.data()[0] : int(NRV_ERROR));
        m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
            if (h->onError)
                h->onError(h->userData, dev, code);
        });
        return;
    }
    NvMessage message = view.toMessage();
    m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
        if (h->onNonDataMessage)
            h->onNonDataMessage(h->userData, dev, &message);
    });
}

void Port::onDataPacket(NvDevice* dev, const NvFrameView& view)
{
    // Borrows the reader's buffer for the handlers' calls; what a handler keeps is a copy
    // with bytes of its own.
    NvDataPacket packet = NvDataPacket::viewFrame(view.frame, view.size);
    if (packet.isEmpty())
        return;
    // Packets outside measurement are retransmissions of a flush, in their own order.
    const NvDeviceState state = dev->state;
    const bool live = state == NDS_MEASUREMENT || state == NDS_RECORDING ||
                      state == NDS_WAITING_FOR_RECORDING_START;
    if (live && packet.contains(NDI_PACKET_COUNTER)) {
        const uint16_t counter = packet.packetCounter();
        if (dev->m_haveCounter && counter != uint16_t(dev->m_lastCounter + 1)) {
            const uint16_t first = uint16_t(dev->m_lastCounter + 1);
            const uint16_t last = uint16_t(counter - 1);
            const int count = uint16_t(counter - first);
            m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
                if (h->onMissedPackets)
                    h->onMissedPackets(h->userData, dev, count, first, last);
            });
        }
        dev->m_haveCounter = true;
        dev->m_lastCounter = counter;
    }
    if (dev->awaitingFirstPacket.exchange(false))
        m_control->changeState(dev, NDS_RECORDING);
    if (dev->master && dev->master->awaitingFirstPacket.exchange(false))
        m_control->changeState(dev->master, NDS_RECORDING);
    dev->m_lastPacketNs = monotonicNs();
    if (packet.contains(NDI_SAMPLE_TIME_FINE))
        dev->m_lastSampleTime = packet.sampleTimeFine();
    dev->m_dataUnavailable = false;
    m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
        if (h->onLiveDataAvailable)
            h->onLiveDataAvailable(h->userData, dev, &packet);
    });
}

} // namespace nda

// -------------------------------------------------------------------------- NvDevice

void NvDevice::resetCounter()
{
    m_haveCounter = false;
    m_dataUnavailable = false;
}

NvDevice* NvDevice::child(uint8_t bus)
{
    if (bus == 0 || bus >= children.size())
        return nullptr;
    std::lock_guard<std::mutex> lock(childMutex);
    return children[bus];
}
