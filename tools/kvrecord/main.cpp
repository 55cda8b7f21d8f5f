// kvrecord: records every device it finds (or the ports it is given) to kvb files for a
// while or until Ctrl-C, then tells per device what was written and what was missed.

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
    "Ctrl-C. With several devices each gets FILE_<device id>.kvb. Exit status 0 when every\n"
    "device recorded without error, 1 otherwise, 2 for a wrong command line.\n";

struct Count
{
    uint64_t written = 0;
    uint64_t missed = 0;
    uint64_t retransmitted = 0; // a master's trackers fill gaps after the recording
    bool failed = false;
    bool disconnected = false;
};

// Counts what each device delivers while it records.
class Counter : public NvCallback
{
public:
    void onLiveDataAvailable(NvDevice* dev, const NvDataPacket*) override
    {
        // Recording, and the retransmissions to a master's trackers after it (they are
        // in configuration then); nothing else goes into the file.
        const NvDeviceState s = NvDevice_deviceState(dev);
        NvDevice* master = NvDevice_masterDevice(dev);
        const bool retransmitted =
            s == NDS_CONFIGURATION && master && NvDevice_deviceState(master) == NDS_FLUSHING;
        if (s != NDS_RECORDING && !retransmitted)
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        Count& c = m_counts[idOf(dev)];
        ++c.written;
        c.retransmitted += s == NDS_CONFIGURATION;
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

    std::map<NvDeviceId, std::string> files;
    for (const NvDeviceId& id : ids) {
        const NvDeviceRef dev = nvDeviceRef(control, id);
        const std::string file = fileFor(out, id, ids.size() > 1);
        if (!NvDevice_createLogFile(dev, &file) || !NvDevice_startRecording(dev)) {
            std::fprintf(stderr, "kvrecord: %s: cannot record to %s: %s\n", id.toString().c_str(),
                         file.c_str(), NvControl_lastResultText(control));
            status = 1;
            continue;
        }
        files[id] = file;
        std::fprintf(stderr, "kvrecord: recording %s to %s\n", id.toString().c_str(), file.c_str());
    }

    const auto start = std::chrono::steady_clock::now();
    while (!g_stop && !files.empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (duration > 0 &&
            std::chrono::steady_clock::now() - start >= std::chrono::duration<double>(duration))
            break;
    }

    for (const auto& [id, file] : files) {
        const NvDeviceRef dev = nvDeviceRef(control, id);
        if (!dev)
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
    std::printf("%-18s %10s %10s  %s\n", "device", "written", "missed", "file");
    for (const auto& [id, file] : files) {
        auto it = counts.find(id);
        Count c = it == counts.end() ? Count() : it->second;
        // A master's own line carries its trackers' packets.
        if (id.isWirelessMaster())
            for (const auto& [other, oc] : counts)
                if (other.isWirelessTracker()) {
                    c.written += oc.written;
                    c.missed += oc.missed;
                    c.retransmitted += oc.retransmitted;
                    c.failed = c.failed || oc.failed;
                }
        const uint64_t missed = c.missed > c.retransmitted ? c.missed - c.retransmitted : 0;
        std::printf("%-18s %10llu %10llu  %s%s\n", id.toString().c_str(),
                    static_cast<unsigned long long>(c.written),
                    static_cast<unsigned long long>(missed), file.c_str(),
                    c.disconnected ? "  (disconnected)"
                    : c.failed     ? "  (error)"
                                   : "");
        if (c.failed || c.written == 0)
            status = 1;
    }
    NvControl_destruct(control);
    ndaTerminate();
    return status;
}
