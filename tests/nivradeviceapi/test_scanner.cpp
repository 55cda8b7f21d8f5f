// The scanner against emulated devices and pseudo-terminals that stay silent or babble:
// what a scan finds, in which order, the last known rate, and aborting a scan.
#include "controltest.h"
#include "fakeport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

using kvtest::FakePort;

namespace {

// Points the scanner at `extraPorts` only: no announcements, no system ports.
class ScanPorts
{
public:
    explicit ScanPorts(const std::vector<std::string>& extraPorts) : m_empty(kvtest::makeTempDir())
    {
        std::string list;
        for (const std::string& port : extraPorts)
            list += (list.empty() ? "" : ":") + port;
        save("XDG_RUNTIME_DIR");
        save("NV_EXTRA_PORTS");
        save("NV_SCAN_SYSTEM_PORTS");
        setenv("XDG_RUNTIME_DIR", m_empty.c_str(), 1);
        setenv("NV_EXTRA_PORTS", list.c_str(), 1);
        setenv("NV_SCAN_SYSTEM_PORTS", "0", 1);
    }
    ~ScanPorts()
    {
        for (const auto& [name, value] : m_saved)
            if (value.first)
                setenv(name.c_str(), value.second.c_str(), 1);
            else
                unsetenv(name.c_str());
        kvtest::removeTree(m_empty);
    }

private:
    void save(const char* name)
    {
        const char* v = getenv(name);
        m_saved[name] = {v != nullptr, v ? v : ""};
    }
    std::string m_empty;
    std::map<std::string, std::pair<bool, std::string>> m_saved;
};

// The scan log, collected from whichever probe thread writes it.
struct ScanLog
{
    static std::mutex mutex;
    static std::vector<std::string> lines;
    // Aborts the scan once a line contains this (set before the scan).
    static std::string abortOn;
    static std::chrono::steady_clock::time_point abortedAt;

    static void collect(const NvString* line)
    {
        bool abort = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(*line);
            if (!abortOn.empty() && line->find(abortOn) != std::string::npos) {
                abortOn.clear();
                abortedAt = std::chrono::steady_clock::now();
                abort = true;
            }
        }
        // From inside the callback: the scanner holds no lock while it runs.
        if (abort)
            NvScanner_abortScan();
    }
    static void start(const std::string& abortWhen = {})
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
        abortOn = abortWhen;
        NvScanner_setScanLogCallback(&ScanLog::collect);
    }
    static std::vector<std::string> stop()
    {
        NvScanner_setScanLogCallback(nullptr);
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
};
std::mutex ScanLog::mutex;
std::vector<std::string> ScanLog::lines;
std::string ScanLog::abortOn;
std::chrono::steady_clock::time_point ScanLog::abortedAt;

std::vector<std::string> names(const NvPortInfoArray& found)
{
    std::vector<std::string> out;
    for (const NvPortInfo& info : found)
        out.push_back(info.portName);
    return out;
}

} // namespace

TEST_F(ControlTest, ScanAmongSilentPortsFindsExactlyTheDevicesInPortOrder)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--device", "gnss", "--device",
                      "legacy", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    std::vector<std::unique_ptr<FakePort>> silent;
    for (int i = 0; i < 6; ++i) {
        silent.push_back(std::make_unique<FakePort>(FakePort::Silent));
        ASSERT_TRUE(silent.back()->isOpen());
    }
    // Silent ports first and between the devices: they finish last, yet the result follows
    // the port list.
    const auto& p = sim.ports();
    const std::vector<std::string> list{
        silent[0]->path, silent[1]->path, p[2].path, silent[2]->path, p[0].path,
        silent[3]->path, p[3].path,       p[1].path, silent[4]->path, silent[5]->path};
    ScanPorts env(list);

    ScanLog::start();
    NvPortInfoArray found;
    NvScanner_scanPorts(&found, NBR_DETECT, 1000, 1, 0);
    const std::vector<std::string> log = ScanLog::stop();
    EXPECT_EQ(NvControl_lastResult(control), NRV_OK);

    ASSERT_EQ(names(found), (std::vector<std::string>{p[2].path, p[0].path, p[3].path, p[1].path}));
    EXPECT_EQ(found[0].deviceId.toString(), p[2].id);
    EXPECT_EQ(found[1].deviceId.toString(), p[0].id);
    EXPECT_EQ(found[2].deviceId.toString(), p[3].id);
    EXPECT_EQ(found[3].deviceId.toString(), p[1].id);
    for (const NvPortInfo& info : found) {
        EXPECT_FALSE(info.isForeign);
        EXPECT_NE(nvBaudRateToRate(info.baudRate), 0) << info.portName;
    }

    // Lines from parallel probes stay whole, and each probe line names its port.
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log.front(), "Scanning 10 port(s)");
    EXPECT_EQ(log.back(), "Scan done: 4 device(s)");
    for (size_t i = 1; i + 1 < log.size(); ++i)
        EXPECT_TRUE(std::any_of(list.begin(), list.end(), [&](const std::string& port) {
            return log[i].find(port) != std::string::npos;
        })) << log[i];
    for (const auto& port : silent)
        EXPECT_EQ(std::count(log.begin(), log.end(), "No device on " + port->path + ": silent"), 1)
            << port->path;
}

TEST_F(ControlTest, LastKnownRateOfAPortIsTriedFirst)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const std::string path = sim.ports()[0].path;
    ScanPorts env({path});

    // Opened at an uncommon rate (a pseudo-terminal takes any): that is the port's rate now.
    NvString name = path;
    ASSERT_TRUE(NvControl_openPort(control, &name, NBR_4800, 0))
        << NvControl_lastResultText(control);
    NvControl_close(control);

    NvPortInfoArray found;
    NvScanner_scanPorts(&found, NBR_DETECT, 0, 1, 0);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].deviceId.toString(), sim.ports()[0].id);
    EXPECT_EQ(found[0].baudRate, NBR_4800);

    // A scan at a fixed rate teaches the port that rate; the next rate search starts there,
    // and so does opening with rate detection.
    NvPortInfo one;
    one.portName = path;
    ASSERT_TRUE(NvScanner_scanPort(&one, NBR_38400, 0, 0));
    EXPECT_EQ(one.baudRate, NBR_38400);
    NvPortInfo again;
    again.portName = path;
    ASSERT_TRUE(NvScanner_scanPort(&again, NBR_DETECT, 0, 0));
    EXPECT_EQ(again.baudRate, NBR_38400);
    NvPortInfo opened;
    opened.portName = path;
    ASSERT_TRUE(NvControl_openPort_1(control, &opened, 0)) << NvControl_lastResultText(control);
    EXPECT_EQ(opened.baudRate, NBR_38400);
    NvControl_close(control);
}

TEST_F(ControlTest, AbortEndsARunningScanSoonAndTheNextScanWorks)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    FakePort noise(FakePort::Noise), silentA(FakePort::Silent), silentB(FakePort::Silent);
    ASSERT_TRUE(noise.isOpen());
    std::set<std::string> ids{sim.ports()[0].id, sim.ports()[1].id};

    {
        // The noisy port is heard at every rate and answers none: its probe alone takes
        // seconds. The abort comes from the scan log callback once that probe is under way.
        ScanPorts env(
            {sim.ports()[0].path, noise.path, silentA.path, sim.ports()[1].path, silentB.path});
        ScanLog::start("Scanning port " + noise.path);
        NvPortInfoArray found;
        NvScanner_scanPorts(&found, NBR_DETECT, 1000, 1, 0);
        const auto ended = std::chrono::steady_clock::now();
        const NvResultValue rc = NvControl_lastResult(control);
        const std::vector<std::string> log = ScanLog::stop();
        EXPECT_EQ(rc, NRV_ABORTED);
        // Generous: a second for what takes milliseconds; the probe itself takes seconds.
        EXPECT_LT(ended - ScanLog::abortedAt, 1s);
        // What was found up to then: devices only, in port order.
        for (const NvPortInfo& info : found)
            EXPECT_TRUE(ids.count(info.deviceId.toString())) << info.portName;
        if (found.size() == 2) {
            EXPECT_EQ(found[0].portName, sim.ports()[0].path);
        }
        EXPECT_NE(std::find(log.begin(), log.end(), "Scan of " + noise.path + " aborted"),
                  log.end());
    }

    {
        // One port, at a fixed rate with a long scan time: the abort ends the attempt.
        NvPortInfo one;
        one.portName = silentA.path;
        auto result = std::async(std::launch::async, [&] {
            const int ok = NvScanner_scanPort(&one, NBR_115200, 60000, 0);
            return std::make_pair(ok, NvControl_lastResult(nullptr));
        });
        std::this_thread::sleep_for(200ms);
        NvScanner_abortScan();
        ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
        const auto [ok, rc] = result.get();
        EXPECT_EQ(ok, 0);
        EXPECT_EQ(rc, NRV_ABORTED);
    }

    // An abort is over with its scan: the next one finds every device.
    ScanPorts env({sim.ports()[0].path, silentA.path, sim.ports()[1].path});
    NvPortInfoArray found;
    NvScanner_scanPorts(&found, NBR_DETECT, 1000, 1, 0);
    ASSERT_EQ(names(found), (std::vector<std::string>{sim.ports()[0].path, sim.ports()[1].path}));
    EXPECT_EQ(NvControl_lastResult(control), NRV_OK);
}

TEST(Scanner, AbortWithoutAScanChangesNothing)
{
    KvsimProcess sim({"--device", "imu", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    ScanPorts env({sim.ports()[0].path});
    NvScanner_abortScan();
    NvPortInfoArray found;
    NvScanner_scanPorts(&found, NBR_DETECT, 0, 1, 0);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].deviceId.toString(), sim.ports()[0].id);
}
