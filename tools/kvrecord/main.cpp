// kvrecord: records every device it finds (or the ports it is given) to kvb files for a
// while, until Ctrl-C or until no device records any more, then tells per device what
// reached the file, what was lost on the way (a full disk) and what the device missed.

#include "nivradeviceapi.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> g_stop{false};

void onSignal(int)
{
    g_stop = true;
}

const char* const Usage =
    "usage: kvrecord [--port NAME]... [--duration SECONDS] [--out FILE.kvb]\n"
    "\n"
    "Records devices to kvb files. Without --port every port is scanned (system serial\n"
    "ports, kvsim announcements, NV_EXTRA_PORTS). Without --duration it records until\n"
    "Ctrl-C; it ends early once no device records any more (unplugged, disk full). With\n"
    "several devices each gets FILE_<device id>.kvb. Prints per device the packets written\n"
    "to the file, those lost on the way, and those the device missed. Exit status 0 when\n"
    "every device recorded without error, 1 otherwise, 2 for a wrong command line.\n";

struct Count
{
    uint64_t missed = 0;
    uint64_t retransmitted = 0; // a master's trackers fill gaps after the recording
    bool failed = false;
    bool disconnected = false;
    NvResultValue fileError = NRV_OK;
};

// Counts the gaps in what each device delivers while it records; what reached the file
// the library counts.
class Counter : public NvCallback
{
public:
    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket*) override
    {
        // The retransmissions to a master's trackers after the recording (they are in
        // configuration then) fill gaps reported while it recorded.
        NvDevice* master = NvDevice_masterDevice(dev);
        if (NvDevice_deviceState(dev) != NDS_CONFIGURATION || !master ||
            NvDevice_deviceState(master) != NDS_FLUSHING)
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counts[idOf(dev)].retransmitted;
    }
    void onMissedPackets(NvDevice* dev, int count, int, int) override
    {
        if (NvDevice_deviceState(dev) != NDS_RECORDING)
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_counts[idOf(dev)].missed += uint64_t(count);
    }
    void onError(NvDevice* dev, NvResultValue error) override
    {
        std::fprintf(stderr, "kvrecord: %s: %s\n", idOf(dev).toString().c_str(),
                     NvResultValue_toString(error));
        std::lock_guard<std::mutex> lock(m_mutex);
        Count& c = m_counts[idOf(dev)];
        c.failed = true;
        c.disconnected = c.disconnected || error == NRV_UNEXPECTED_DISCONNECT;
        if (error == NRV_DISK_FULL || error == NRV_FILE_WRITE_ERROR)
            c.fileError = error;
    }
    std::map<NvDeviceId, Count> counts()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_counts;
    }

private:
    static NvDeviceId idOf(NvDevice* dev)
    {
        NvDeviceId id;
        NvDevice_deviceId(dev, &id);
        return id;
    }
    std::mutex m_mutex;
    std::map<NvDeviceId, Count> m_counts;
};

std::string defaultOutput()
{
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", std::localtime(&now));
    return std::string("kvrecord-") + stamp + ".kvb";
}

std::string fileFor(const std::string& out, const NvDeviceId& id, bool several)
{
    if (!several)
        return out;
    const size_t dot = out.rfind('.');
    const size_t slash = out.rfind('/');
    const bool hasSuffix = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    const std::string stem = hasSuffix ? out.substr(0, dot) : out;
    return stem + "_" + id.toString() + (hasSuffix ? out.substr(dot) : ".kvb");
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> ports;
    double duration = -1;
    std::string out;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--port") {
            const char* v = value();
            if (!v)
                return std::fputs(Usage, stderr), 2;
            ports.push_back(v);
        } else if (arg == "--duration") {
            const char* v = value();
            char* end = nullptr;
            duration = v ? std::strtod(v, &end) : -1;
            if (!v || *end || duration <= 0) {
                std::fprintf(stderr, "kvrecord: --duration needs a positive number of seconds\n");
                return 2;
            }
        } else if (arg == "--out") {
            const char* v = value();
            if (!v || !*v)
                return std::fputs(Usage, stderr), 2;
            out = v;
        } else if (arg == "-h" || arg == "--help") {
            std::fputs(Usage, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "kvrecord: unknown argument '%s'\n%s", arg.c_str(), Usage);
            return 2;
        }
    }
    if (out.empty())
        out = defaultOutput();
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    // Under a file size limit (ulimit -f) a write then fails as on a full disk, and is
    // reported, rather than killing the recorder.
    std::signal(SIGXFSZ, SIG_IGN);

    NvControl* control = NvControl_construct();
    Counter counter;
    NvControl_addCallbackHandler(control, counter.plainC(), 1);
    int status = 0;

    if (ports.empty()) {
        std::fprintf(stderr, "kvrecord: scanning ports...\n");
        NvPortInfoArray found;
        NvScanner_scanPorts(&found, NBR_DETECT, 0, 1, 0);
        for (NvPortInfo& info : found)
            if (!NvControl_openPort_1(control, &info, 0)) {
                std::fprintf(stderr, "kvrecord: %s: %s\n", info.portName.c_str(),
                             NvControl_lastResultText(control));
                status = 1;
            }
    } else {
        for (const std::string& name : ports)
            if (!NvControl_openPort(control, &name, NBR_DETECT, 0)) {
                std::fprintf(stderr, "kvrecord: %s: %s\n", name.c_str(),
                             NvControl_lastResultText(control));
                status = 1;
            }
    }
    NvDeviceIdArray ids;
    NvControl_mainDeviceIds(control, &ids);
    if (ids.empty()) {
        std::fprintf(stderr, "kvrecord: no device to record\n");
        NvControl_destruct(control);
        return 1;
    }

    // A master with its radio off would record nothing: switch it on and give its
    // trackers a moment to connect.
    bool waitForTrackers = false;
    for (const NvDeviceId& id : ids) {
        const NvDeviceRef master = nvDeviceRef(control, id);
        if (!NvDevice_isMasterDevice(master) || NvDevice_isRadioEnabled(master))
            continue;
        for (int channel = 11; channel <= 25; ++channel)
            if (NvDevice_enableRadio(master, channel)) {
                std::fprintf(stderr, "kvrecord: %s: radio on, channel %d\n", id.toString().c_str(),
                             channel);
                waitForTrackers = true;
                break;
            }
    }
    if (waitForTrackers)
        std::this_thread::sleep_for(std::chrono::seconds(3));

    // Held to the end: an unplugged device still tells what reached its file.
    std::map<NvDeviceId, std::pair<NvDeviceRef, std::string>> files;
    for (const NvDeviceId& id : ids) {
        NvDeviceRef dev = nvDeviceRef(control, id);
        const std::string file = fileFor(out, id, ids.size() > 1);
        if (!NvDevice_createLogFile(dev, &file) || !NvDevice_startRecording(dev)) {
            std::fprintf(stderr, "kvrecord: %s: cannot record to %s: %s\n", id.toString().c_str(),
                         file.c_str(), NvControl_lastResultText(control));
            status = 1;
            continue;
        }
        files.emplace(id, std::make_pair(std::move(dev), file));
        std::fprintf(stderr, "kvrecord: recording %s to %s\n", id.toString().c_str(), file.c_str());
    }

    // Until the time is up, or no recording is left to wait for (devices unplugged, files
    // that could not be written).
    auto recording = [&files] {
        for (const auto& entry : files)
            if (NvDevice_isRecording(entry.second.first.get()))
                return true;
        return false;
    };
    const auto start = std::chrono::steady_clock::now();
    while (!g_stop && recording()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (duration > 0 &&
            std::chrono::steady_clock::now() - start >= std::chrono::duration<double>(duration))
            break;
    }

    for (const auto& [id, entry] : files) {
        NvDevice* dev = entry.first.get();
        if (NvDevice_deviceState(dev) == NDS_DESTRUCTING)
            continue; // unplugged: its file was closed when it went
        if (NvDevice_isRecording(dev) && !NvDevice_stopRecording(dev)) {
            std::fprintf(stderr, "kvrecord: %s: %s\n", id.toString().c_str(),
                         NvControl_lastResultText(control));
            status = 1;
        }
        // A master retransmits what it missed before it measures again.
        for (int i = 0; i < 600 && NvDevice_deviceState(dev) == NDS_FLUSHING; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        NvDevice_gotoConfig(dev);
    }
    NvControl_close(control);

    const auto counts = counter.counts();
    std::printf("%-18s %10s %10s %10s  %s\n", "device", "written", "lost", "missed", "file");
    for (const auto& [id, entry] : files) {
        NvDevice* dev = entry.first.get();
        auto it = counts.find(id);
        Count c = it == counts.end() ? Count() : it->second;
        // A master's own line carries its trackers' packets (its file holds them).
        if (id.isWirelessMaster())
            for (const auto& [other, oc] : counts)
                if (other.isWirelessTracker()) {
                    c.missed += oc.missed;
                    c.retransmitted += oc.retransmitted;
                    c.failed = c.failed || oc.failed;
                }
        const uint64_t written = NvDevice_logPacketsWritten(dev);
        const uint64_t lost = NvDevice_logPacketsLost(dev);
        const uint64_t missed = c.missed > c.retransmitted ? c.missed - c.retransmitted : 0;
        const char* why = c.fileError == NRV_DISK_FULL          ? "disk full"
                          : c.fileError == NRV_FILE_WRITE_ERROR ? "write error"
                          : c.disconnected                      ? "disconnected"
                          : c.failed                            ? "error"
                                                                : nullptr;
        std::printf("%-18s %10llu %10llu %10llu  %s%s%s%s\n", id.toString().c_str(),
                    static_cast<unsigned long long>(written), static_cast<unsigned long long>(lost),
                    static_cast<unsigned long long>(missed), entry.second.c_str(), why ? "  (" : "",
                    why ? why : "", why ? ")" : "");
        if (lost > 0)
            std::fprintf(stderr, "kvrecord: %s: %llu packets written, %llu lost (%s)\n",
                         id.toString().c_str(), static_cast<unsigned long long>(written),
                         static_cast<unsigned long long>(lost), why ? why : "buffer full");
        if (c.failed || lost > 0 || written == 0)
            status = 1;
    }
    files.clear(); // the references go before the control
    NvControl_destruct(control);
    ndaTerminate();
    return status;
}
