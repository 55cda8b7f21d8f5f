// Finds devices on the system's ports: the serial ports the system lists (libserialport,
// with USB ids), the emulator's announcement file and NV_EXTRA_PORTS (colon-separated).
//
// Ports are probed in parallel, each on its own thread, straight on the descriptor: a
// probe only needs GoToConfig, the device id and (RS-485) the transmission delay, and
// owning the poll lets an abort end every wait at once.
#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <libserialport.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

// ------------------------------------------------------------------------ Scan log

std::mutex g_logMutex; // guards the three below
std::condition_variable g_logIdle;
NvScanLogCallback g_logCallback = nullptr;
int g_logCallsRunning = 0;
thread_local bool t_inLogCallback = false;

// The callback runs without the lock: it may take its own locks, and probes on other
// threads log at the same time.
void scanLog(const std::string& line)
{
    nda::log(NDA_LOG_DEBUG, line.c_str());
    NvScanLogCallback callback = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_logMutex);
        callback = g_logCallback;
        if (!callback)
            return;
        ++g_logCallsRunning;
    }
    t_inLogCallback = true;
    callback(&line);
    t_inLogCallback = false;
    {
        std::lock_guard<std::mutex> lock(g_logMutex);
        --g_logCallsRunning;
    }
    g_logIdle.notify_all();
}

// ------------------------------------------------------------------------ Known rates

std::mutex g_rateMutex;
std::map<std::string, NvBaudRate> g_knownRates; // guarded by g_rateMutex

// ------------------------------------------------------------------------ Abort

// One running scan. Its eventfd becomes readable, and stays so, when the scan is
// aborted: every probe polls it beside its port.
struct ScanRun
{
    ScanRun() : wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~ScanRun()
    {
        if (wakeFd >= 0)
            ::close(wakeFd);
    }
    ScanRun(const ScanRun&) = delete;
    ScanRun& operator=(const ScanRun&) = delete;

    void abort()
    {
        aborted = true;
        if (wakeFd >= 0) {
            const uint64_t one = 1;
            ssize_t ignored = ::write(wakeFd, &one, sizeof one);
            (void)ignored;
        }
    }

    std::atomic<bool> aborted{false};
    const int wakeFd;
};

std::mutex g_runMutex;
std::set<ScanRun*> g_runs; // guarded by g_runMutex

// Registers a scan for NvScanner_abortScan for as long as it lives.
class RunningScan
{
public:
    RunningScan()
    {
        std::lock_guard<std::mutex> lock(g_runMutex);
        g_runs.insert(&m_run);
    }
    ~RunningScan()
    {
        std::lock_guard<std::mutex> lock(g_runMutex);
        g_runs.erase(&m_run);
    }
    RunningScan(const RunningScan&) = delete;
    RunningScan& operator=(const RunningScan&) = delete;
    ScanRun& run() { return m_run; }

private:
    ScanRun m_run;
};

// ------------------------------------------------------------------------ Port list

std::string announcementFile()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime)
        return std::string(runtime) + "/kvsim/ports";
    return "/tmp/kvsim-" + std::to_string(getuid()) + "/ports";
}

// A port to probe. Only ports the system listed are checked for a UART behind them:
// emulated and extra ports are what the user pointed the scan at.
struct Candidate
{
    NvPortInfo info;
    bool system = false;
};

void addPort(std::vector<Candidate>& ports, const std::string& name, bool emulated)
{
    if (name.empty())
        return;
    for (Candidate& p : ports)
        if (p.info.portName == name) {
            p.info.isEmulated = p.info.isEmulated || emulated;
            p.system = false;
            return;
        }
    Candidate c;
    c.info.portName = name;
    c.info.isEmulated = emulated;
    c.info.description = emulated ? "kvsim emulated device" : "extra port";
    ports.push_back(c);
}

void systemPorts(NvPortInfoArray& ports)
{
    sp_port** list = nullptr;
    if (sp_list_ports(&list) != SP_OK)
        return;
    for (sp_port** p = list; *p; ++p) {
        const char* name = sp_get_port_name(*p);
        if (!name || !*name)
            continue;
        NvPortInfo info;
        info.portName = name;
        if (const char* description = sp_get_port_description(*p))
            info.description = description;
        int vid = 0, pid = 0;
        if (sp_get_port_transport(*p) == SP_TRANSPORT_USB &&
            sp_get_port_usb_vid_pid(*p, &vid, &pid) == SP_OK) {
            info.vendorId = uint16_t(vid);
            info.productId = uint16_t(pid);
        }
        ports.push_back(info);
    }
    sp_free_port_list(list);
}

// The announced and NV_EXTRA_PORTS ports, after `ports`.
void namedPorts(std::vector<Candidate>& ports)
{
    std::ifstream file(announcementFile());
    std::string line;
    while (std::getline(file, line))
        addPort(ports, line, true);
    if (const char* extra = std::getenv("NV_EXTRA_PORTS")) {
        std::string list = extra;
        size_t start = 0;
        while (start <= list.size()) {
            const size_t end = std::min(list.find(':', start), list.size());
            addPort(ports, list.substr(start, end - start), false);
            start = end + 1;
        }
    }
}

std::vector<Candidate> candidatePorts()
{
    std::vector<Candidate> ports;
    const char* system = std::getenv("NV_SCAN_SYSTEM_PORTS");
    if (!system || std::string(system) != "0") {
        NvPortInfoArray listed;
        systemPorts(listed);
        for (NvPortInfo& info : listed)
            ports.push_back({std::move(info), true});
    }
    namedPorts(ports);
    return ports;
}

bool isNamedPort(const std::string& name)
{
    std::vector<Candidate> named;
    namedPorts(named);
    return std::any_of(named.begin(), named.end(),
                       [&](const Candidate& c) { return c.info.portName == name; });
}

// An on-board port the kernel lists although no UART answers behind it (most of
// ttyS0..31): TIOCGSERIAL says PORT_UNKNOWN. Anything else, or a port that does not
// answer the ioctl (USB CDC, pseudo-terminals), is probed.
bool hasNoUart(const std::string& name)
{
    const int fd = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false; // the probe reports why it does not open
    serial_struct serial{};
    const bool unknown = ::ioctl(fd, TIOCGSERIAL, &serial) == 0 && serial.type == PORT_UNKNOWN;
    ::close(fd);
    return unknown;
}

// What a scan time of 0 means: devices on RS-232 and USB answer within milliseconds (a
// USB adapter's latency timer and a frame at 4800 bd included); only RS-485 interfaces,
// which turn the line around late, need the longer time callers give them.
constexpr unsigned DefaultScanTime = 250;

std::string rateText(NvBaudRate baudRate)
{
    return baudRate == NBR_DETECT ? std::string("any rate")
                                  : std::to_string(nvBaudRateToRate(baudRate)) + " bd";
}

// ------------------------------------------------------------------------ Probe

// A port opened for probing: raw, non-blocking, no reader thread. Every wait polls the
// scan's abort descriptor too.
class ProbePort
{
public:
    enum class Wait
    {
        Answered,
        TimedOut,
        Aborted,
        HungUp,
    };

    ProbePort(std::string name, ScanRun& run) : m_name(std::move(name)), m_run(run) {}
    ~ProbePort()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    ProbePort(const ProbePort&) = delete;
    ProbePort& operator=(const ProbePort&) = delete;

    NvResultValue open()
    {
        m_fd = ::open(m_name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (m_fd < 0)
            return errno == EBUSY ? NRV_PORT_IN_USE : NRV_PORT_OPEN_FAILED;
        // A device that measured while nobody read has filled the buffer with old packets.
        tcflush(m_fd, TCIOFLUSH);
        return NRV_OK;
    }

    // Switches the rate; `drain` lets what was written leave at the old rate first.
    bool setRate(NvBaudRate rate, bool drain)
    {
        if (drain)
            tcdrain(m_fd);
        termios tio{};
        if (tcgetattr(m_fd, &tio) != 0)
            return false;
        cfmakeraw(&tio);
        tio.c_cflag |= CLOCAL | CREAD;
        tio.c_cflag &= ~tcflag_t(CRTSCTS); // a dead line must not hold the output back
        tio.c_iflag &= ~tcflag_t(IGNPAR);  // bytes at a wrong rate are framing errors: keep them
        cfsetspeed(&tio, speed_t(nda::termiosSpeed(rate)));
        if (tcsetattr(m_fd, TCSANOW, &tio) != 0)
            return false;
        return true;
    }

    // A fresh start for an attempt: what arrived meanwhile counts as heard, then goes.
    void restart()
    {
        drain();
        m_parser.reset();
        m_detector = nda::StreamDetector();
        m_nmea = 0;
    }

    bool send(const NvMessage& message)
    {
        const uint8_t* p = message.frame();
        size_t left = message.frameSize();
        while (left > 0) {
            const ssize_t n = ::write(m_fd, p, left);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false; // nobody reads the other end: as good as unanswered
            p += n;
            left -= size_t(n);
        }
        return true;
    }

    // Reads for up to `ms` until `accept(frame)` takes a frame from the device.
    template <typename Accept>
    Wait await(unsigned ms, Accept&& accept)
    {
        return readFor(ms, [&](const uint8_t* bytes, size_t count) {
            bool answered = false;
            m_parser.feed(
                bytes, count, [&](const NvFrameView& view) { answered = answered || accept(view); },
                [&](const uint8_t* skipped, size_t n) {
                    m_detector.feed(skipped, n, [&](NvProtocolType type, const NvByteArray&) {
                        m_nmea += type == NPT_NMEA;
                    });
                });
            return answered;
        });
    }

    // GoToConfig at `rate`. A WakeUp counts as its acknowledgement: a device that boots
    // drops what it received, and the WakeUpAck keeps it in configuration.
    Wait goToConfig(NvBaudRate rate, unsigned ms)
    {
        if (!setRate(rate, false))
            return Wait::TimedOut;
        restart();
        send(NvMessage::toDevice(NvMid::GoToConfig));
        return await(ms, [this](const NvFrameView& view) {
            if (view.busId() != NvMessage::BusIdDevice)
                return false;
            if (view.messageId() == NvMid::WakeUp) {
                send(NvMessage::toDevice(NvMid::WakeUpAck));
                return true;
            }
            return view.messageId() == NvMid::GoToConfigAck;
        });
    }

    // Sends `mid` and waits for `replyMid` or an Error frame; an Error gives its code.
    NvResultValue request(uint8_t mid, uint8_t replyMid, NvMessage* reply, unsigned ms)
    {
        restart();
        send(NvMessage::toDevice(mid));
        NvMessage answer;
        const Wait wait = await(ms, [&](const NvFrameView& view) {
            if (view.busId() != NvMessage::BusIdDevice ||
                (view.messageId() != replyMid && view.messageId() != NvMid::Error))
                return false;
            answer = view.toMessage();
            return true;
        });
        if (wait == Wait::Aborted)
            return NRV_ABORTED;
        if (wait == Wait::HungUp)
            return NRV_UNEXPECTED_DISCONNECT;
        if (wait == Wait::TimedOut)
            return NRV_TIMEOUT;
        if (answer.messageId() == NvMid::Error) {
            const int code = answer.dataSize() > 0 ? answer.readU8(0) : int(NRV_ERROR);
            return NvResultValue(code == 0 ? int(NRV_ERROR) : code);
        }
        if (reply)
            *reply = answer;
        return NRV_OK;
    }

    // GoToConfig at every rate in `rates` back to back, without waiting in between.
    void sendAtEach(const std::vector<NvBaudRate>& rates)
    {
        for (NvBaudRate rate : rates) {
            drain();
            if (setRate(rate, true))
                send(NvMessage::toDevice(NvMid::GoToConfig));
        }
        tcdrain(m_fd);
    }

    // Listens without sending: only counts what is heard (and NMEA sentences).
    Wait listen(unsigned ms)
    {
        return await(ms, [](const NvFrameView&) { return false; });
    }

    // Listens `ms` at `rate` without sending; hands what it hears to `sink`.
    template <typename Sink>
    Wait listenFor(NvBaudRate rate, unsigned ms, Sink&& sink)
    {
        if (!setRate(rate, false))
            return Wait::TimedOut;
        restart();
        nda::StreamDetector detector;
        const Wait wait = readFor(ms, [&](const uint8_t* bytes, size_t count) {
            detector.feed(bytes, count, sink);
            return false;
        });
        detector.flush(sink);
        return wait;
    }

    uint64_t bytesHeard() const { return m_heard; }
    // NMEA sentences with a valid checksum since the last restart.
    int nmeaHeard() const { return m_nmea; }

private:
    // Reads what arrives for up to `ms`, until `onBytes(bytes, count)` says it is enough.
    template <typename OnBytes>
    Wait readFor(unsigned ms, OnBytes&& onBytes)
    {
        const int64_t end = nda::monotonicNs() + int64_t(ms) * 1'000'000;
        uint8_t buffer[1024];
        for (;;) {
            if (m_run.aborted)
                return Wait::Aborted;
            const int64_t now = nda::monotonicNs();
            if (now >= end)
                return Wait::TimedOut;
            int timeout = int((end - now + 999'999) / 1'000'000);
            if (m_run.wakeFd < 0)
                timeout = std::min(timeout, 20); // no descriptor to wake us: look often
            pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_run.wakeFd, POLLIN, 0}};
            const int rc = ::poll(fds, 2, timeout);
            if (rc < 0 && errno == EINTR)
                continue;
            if (rc < 0)
                return Wait::HungUp;
            if (rc == 0 || !(fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            if (n <= 0)
                return Wait::HungUp;
            m_heard += uint64_t(n);
            if (onBytes(buffer, size_t(n)))
                return Wait::Answered;
        }
    }

    void drain()
    {
        uint8_t buffer[1024];
        for (;;) {
            const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return;
            m_heard += uint64_t(n);
        }
    }

    std::string m_name;
    ScanRun& m_run;
    int m_fd = -1;
    NvFrameParser m_parser;
    nda::StreamDetector m_detector;
    uint64_t m_heard = 0;
    int m_nmea = 0;
};

// How one port's rate search ended.
struct RateResult
{
    NvResultValue rc = NRV_TIMEOUT;
    NvBaudRate rate = NBR_DETECT;     // the device answered here (rc NRV_OK)
    NvBaudRate nmeaRate = NBR_DETECT; // NMEA heard here and no Nbus answer
    bool silent = false;              // not a byte heard at any rate
};

NvResultValue waitResult(ProbePort::Wait wait)
{
    switch (wait) {
    case ProbePort::Wait::Answered:
        return NRV_OK;
    case ProbePort::Wait::Aborted:
        return NRV_ABORTED;
    case ProbePort::Wait::HungUp:
        return NRV_UNEXPECTED_DISCONNECT;
    case ProbePort::Wait::TimedOut:
        break;
    }
    return NRV_TIMEOUT;
}

// Rates that end up at one termios speed (those termios lacks) are one attempt.
std::vector<NvBaudRate> distinctSpeeds(const std::vector<NvBaudRate>& rates, NvBaudRate tried)
{
    std::vector<NvBaudRate> out;
    std::vector<unsigned> speeds{nda::termiosSpeed(tried)};
    for (NvBaudRate rate : rates) {
        const unsigned speed = nda::termiosSpeed(rate);
        if (std::find(speeds.begin(), speeds.end(), speed) != speeds.end())
            continue;
        speeds.push_back(speed);
        out.push_back(rate);
    }
    return out;
}

// Finds the rate a device answers GoToConfig at.
//
// A device in configuration answers only at its own rate; one that measures is heard at
// every rate, as garbage at the wrong ones. So once the likeliest rate met silence, a
// GoToConfig is sent at each other rate in one burst and the port listened to once: a
// device at any of them answers, and its answer is heard (as garbage, perhaps) whatever
// rate the port is at by then. A port that stays silent has nothing on it at any rate
// and is given up. Only a port that was heard is tried rate by rate.
RateResult findRate(ProbePort& port, const std::vector<NvBaudRate>& order, unsigned perRate,
                    bool fixed)
{
    RateResult result;
    const NvBaudRate first = order.front();
    ProbePort::Wait wait = port.goToConfig(first, perRate);
    if (wait == ProbePort::Wait::TimedOut && fixed && port.bytesHeard() > 0 &&
        port.nmeaHeard() == 0)
        wait = port.goToConfig(first, perRate); // the first may have met a WakeUp in flight
    if (wait == ProbePort::Wait::Answered) {
        result.rc = NRV_OK;
        result.rate = first;
        return result;
    }
    if (wait != ProbePort::Wait::TimedOut) {
        result.rc = waitResult(wait);
        return result;
    }
    if (port.nmeaHeard() > 0) {
        result.nmeaRate = first; // it talks at this rate, just not with us
        return result;
    }
    if (fixed) {
        result.silent = port.bytesHeard() == 0;
        return result;
    }
    const std::vector<NvBaudRate> rest =
        distinctSpeeds(std::vector<NvBaudRate>(order.begin() + 1, order.end()), first);
    if (port.bytesHeard() == 0) {
        port.sendAtEach(rest);
        wait = port.listen(perRate);
        if (wait != ProbePort::Wait::TimedOut) {
            result.rc = waitResult(wait);
            return result;
        }
        if (port.bytesHeard() == 0) {
            result.silent = true;
            return result;
        }
    }
    for (NvBaudRate rate : rest) {
        wait = port.goToConfig(rate, perRate);
        if (wait == ProbePort::Wait::Answered) {
            result.rc = NRV_OK;
            result.rate = rate;
            return result;
        }
        if (wait != ProbePort::Wait::TimedOut) {
            result.rc = waitResult(wait);
            return result;
        }
        if (port.nmeaHeard() > 0) {
            result.nmeaRate = rate;
            return result;
        }
    }
    return result;
}

std::string foreignDescription(bool nmea, NvBaudRate rate)
{
    return std::string(nmea ? "NMEA device" : "text console") + " of another maker at " +
           std::to_string(nvBaudRateToRate(rate)) + " bd";
}

// Listens for a device of another maker that talks without being asked (NMEA receivers,
// text consoles). Marks `info` foreign when one is heard.
bool probeForeign(ProbePort& port, NvPortInfo& info, NvBaudRate baudRate)
{
    std::vector<NvBaudRate> rates;
    if (baudRate != NBR_DETECT)
        rates = {baudRate};
    else
        rates = {NBR_115200, NBR_9600, NBR_4800, NBR_38400, NBR_57600};
    // Talkers of other makers send about once a second; this catches most of them.
    constexpr unsigned listen = 600;
    for (NvBaudRate rate : rates) {
        int nmea = 0, text = 0;
        const ProbePort::Wait wait =
            port.listenFor(rate, listen, [&](NvProtocolType type, const NvByteArray&) {
                nmea += type == NPT_NMEA;
                text += type == NPT_TEXT;
            });
        if (wait != ProbePort::Wait::TimedOut)
            return false;
        if (nmea > 0 || text > 0) {
            info.isForeign = true;
            info.baudRate = rate;
            info.deviceId = NvDeviceId();
            info.description = foreignDescription(nmea > 0, rate);
            return true;
        }
    }
    return false;
}

// The whole probe of one port: 1 and `*portInfo` filled when a device answered (or a
// foreign one was heard and `allowForeign`). Sets the calling thread's result.
int scanOne(NvPortInfo* portInfo, NvBaudRate baudRate, unsigned scanTime, int detectRs485,
            bool allowForeign, bool checkUart, ScanRun& run)
{
    if (!portInfo || portInfo->portName.empty()) {
        nda::setResult(NRV_INVALID_ARGUMENT);
        return 0;
    }
    const std::string name = portInfo->portName;
    if (nda::findOpenPort(name, portInfo)) {
        // Opening it again would steal the owner's replies.
        scanLog("Port " + name + " is open already: " + portInfo->deviceId.toString());
        nda::setResult(NRV_OK);
        return 1;
    }
    if (baudRate != NBR_DETECT && nvBaudRateToRate(baudRate) == 0) {
        nda::setResult(NRV_INVALID_BAUDRATE);
        return 0;
    }
    if (checkUart && hasNoUart(name)) {
        scanLog("Skipping " + name + ": no UART behind it");
        nda::setResult(NRV_NO_DEVICE_FOUND);
        return 0;
    }
    if (run.aborted) {
        nda::setResult(NRV_ABORTED);
        return 0;
    }
    scanLog("Scanning port " + name + " at " + rateText(baudRate));
    const unsigned t = scanTime ? scanTime : DefaultScanTime;
    // A device answers GoToConfig within milliseconds at its rate; a rate sweep gives each
    // rate a quarter second at most instead of a whole attempt.
    const bool fixed = baudRate != NBR_DETECT;
    const unsigned perRate = fixed ? t : std::min(t, DefaultScanTime);

    auto abortedHere = [&name] {
        scanLog("Scan of " + name + " aborted");
        nda::setResult(NRV_ABORTED);
        return 0;
    };
    ProbePort port(name, run);
    NvResultValue rc = port.open();
    if (rc != NRV_OK) {
        scanLog("No device on " + name + ": " + nvResultValueText(rc));
        nda::setResult(rc);
        return 0;
    }
    const RateResult found =
        findRate(port, fixed ? std::vector<NvBaudRate>{baudRate} : nda::detectionOrder(name),
                 perRate, fixed);
    NvPortInfo info = *portInfo;
    info.isForeign = false;
    if (found.rc == NRV_ABORTED)
        return abortedHere();
    if (found.rc != NRV_OK) {
        // Only a port that said something without answering is worth a longer listen.
        bool foreign = false;
        if (found.nmeaRate != NBR_DETECT) {
            info.isForeign = true;
            info.baudRate = found.nmeaRate;
            info.deviceId = NvDeviceId();
            info.description = foreignDescription(true, found.nmeaRate);
            foreign = true;
        } else if (found.rc == NRV_TIMEOUT && !found.silent) {
            foreign = probeForeign(port, info, baudRate);
        }
        if (run.aborted)
            return abortedHere();
        if (foreign) {
            *portInfo = info;
            scanLog("Found " + info.description + " on " + name +
                    (allowForeign ? "" : " (not listed)"));
            nda::setResult(allowForeign ? NRV_OK : NRV_NO_DEVICE_FOUND);
            return allowForeign ? 1 : 0;
        }
        rc = found.rc == NRV_TIMEOUT && !fixed ? NRV_BAUDRATE_NOT_DETECTED : found.rc;
        scanLog("No device on " + name + ": " +
                (found.silent ? std::string("silent") : std::string(nvResultValueText(rc))));
        nda::setResult(rc);
        return 0;
    }

    NvMessage reply;
    rc = port.request(NvMid::ReqDeviceId, NvMid::DeviceId, &reply, t);
    if (rc == NRV_OK)
        info.deviceId = NvDeviceId::fromWire(reply.data(), reply.dataSize());
    if (rc == NRV_ABORTED)
        return abortedHere();
    if (rc != NRV_OK || info.deviceId.isEmpty()) {
        scanLog("No device on " + name + ": " + nvResultValueText(NRV_DEVICE_INFO_UNREADABLE));
        nda::setResult(NRV_DEVICE_INFO_UNREADABLE);
        return 0;
    }
    info.baudRate = found.rate;
    nda::rememberPortRate(name, found.rate);
    if (detectRs485) {
        // RS-485 interfaces are the ones with a transmission delay to ask about.
        rc = port.request(NvMid::ReqTransmitDelay, NvMid::TransmitDelay, &reply, t);
        if (rc == NRV_ABORTED)
            return abortedHere();
        info.isRs485 = rc == NRV_OK && reply.dataSize() >= 2;
        scanLog("Interface of " + info.deviceId.toString() + " on " + name + ": " +
                (info.isRs485 ? "RS-485" : "RS-232/USB"));
    }
    *portInfo = info;
    scanLog("Found " + info.deviceId.toString() + " on " + name + " at " +
            std::to_string(nvBaudRateToRate(info.baudRate)) + " bd");
    nda::setResult(NRV_OK);
    return 1;
}

} // namespace

namespace nda {

void rememberPortRate(const std::string& name, NvBaudRate rate)
{
    if (name.empty() || nvBaudRateToRate(rate) == 0)
        return;
    std::lock_guard<std::mutex> lock(g_rateMutex);
    g_knownRates[name] = rate;
}

NvBaudRate knownPortRate(const std::string& name)
{
    std::lock_guard<std::mutex> lock(g_rateMutex);
    auto it = g_knownRates.find(name);
    return it == g_knownRates.end() ? NBR_DETECT : it->second;
}

std::vector<NvBaudRate> detectionOrder(const std::string& name)
{
    std::vector<NvBaudRate> order;
    auto add = [&order](NvBaudRate rate) {
        if (rate != NBR_DETECT && std::find(order.begin(), order.end(), rate) == order.end())
            order.push_back(rate);
    };
    add(knownPortRate(name));
    add(NBR_115200);
    add(NBR_921600);
    std::vector<NvBaudRate> all(size_t(nvBaudRatesFastestFirst(nullptr, 0)));
    nvBaudRatesFastestFirst(all.data(), int(all.size()));
    for (NvBaudRate rate : all)
        add(rate);
    return order;
}

} // namespace nda

extern "C" {

void NvScanner_systemPorts(NvPortInfoArray* out)
{
    if (!out)
        return;
    out->clear();
    systemPorts(*out);
    nda::setResult(NRV_OK);
}

void NvScanner_setScanLogCallback(NvScanLogCallback callback)
{
    std::unique_lock<std::mutex> lock(g_logMutex);
    g_logCallback = callback;
    // The old callback may be on its way out on a probe thread; once this returns it is
    // not called any more. From inside a callback, waiting would wait for itself.
    if (!t_inLogCallback)
        g_logIdle.wait(lock, [] { return g_logCallsRunning == 0; });
}

void NvScanner_abortScan(void)
{
    std::lock_guard<std::mutex> lock(g_runMutex);
    for (ScanRun* run : g_runs)
        run->abort();
    nda::setResult(NRV_OK);
}

int NvScanner_scanPort(NvPortInfo* portInfo, NvBaudRate baudRate, unsigned scanTime,
                       int detectRs485)
{
    RunningScan scan;
    // A single port is the caller's explicit choice: what answers there is reported,
    // foreign or not (isForeign tells).
    const bool checkUart = portInfo && !isNamedPort(portInfo->portName);
    return scanOne(portInfo, baudRate, scanTime, detectRs485, true, checkUart, scan.run());
}

void NvScanner_scanPorts(NvPortInfoArray* out, NvBaudRate baudRate, unsigned scanTime,
                         int ignoreNonNivra, int detectRs485)
{
    if (!out)
        return;
    out->clear();
    RunningScan scan;
    ScanRun& run = scan.run();
    std::vector<Candidate> ports = candidatePorts();
    scanLog("Scanning " + std::to_string(ports.size()) + " port(s)");

    // One thread per port: a silent port costs its probe time whatever the others do.
    // Results keep the port list's order.
    std::vector<char> found(ports.size(), 0);
    std::atomic<size_t> next{0};
    auto work = [&] {
        for (size_t i = next++; i < ports.size(); i = next++) {
            if (run.aborted)
                return;
            found[i] = char(scanOne(&ports[i].info, baudRate, scanTime, detectRs485,
                                    !ignoreNonNivra, ports[i].system, run));
        }
    };
    constexpr size_t MaxThreads = 32;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < std::min(ports.size(), MaxThreads); ++i)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();

    for (size_t i = 0; i < ports.size(); ++i)
        if (found[i])
            out->push_back(ports[i].info);
    if (run.aborted) {
        scanLog("Scan aborted: " + std::to_string(out->size()) + " device(s) so far");
        nda::setResult(NRV_ABORTED);
        return;
    }
    scanLog("Scan done: " + std::to_string(out->size()) + " device(s)");
    nda::setResult(out->empty() ? NRV_NO_DEVICE_FOUND : NRV_OK);
}

} // extern "C"
