#pragma once

// Runs a real kvsim process and talks to its ports like a host would.

#include <nvdeviceid.h>
#include <nvframeparser.h>
#include <nvmessage.h>

#include <chrono>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kvtest {

using Clock = std::chrono::steady_clock;

// A kvsim child with its own runtime folder (XDG_RUNTIME_DIR), so its announcements do
// not meet the user's.
class KvsimProcess
{
public:
    struct Port
    {
        std::string path;
        std::string id;
        std::string kind;
    };

    // Starts kvsim with `args`; reads one port line per --device. `runtimeDir` empty: a
    // fresh temporary folder owned by this object.
    explicit KvsimProcess(const std::vector<std::string>& args, const std::string& runtimeDir = {});
    ~KvsimProcess();
    KvsimProcess(const KvsimProcess&) = delete;
    KvsimProcess& operator=(const KvsimProcess&) = delete;

    bool started() const { return m_ports.size() == m_expectedPorts; }
    const std::vector<Port>& ports() const { return m_ports; }
    const std::string& runtimeDir() const { return m_runtimeDir; }
    std::string portsFile() const { return m_runtimeDir + "/kvsim/ports"; }
    std::string stderrText() const;

    // SIGTERM and wait (up to 15 s, then SIGKILL); the exit status, or -1.
    int terminate();
    // Waits for the process to end by itself; -1 on time-out.
    int wait(std::chrono::milliseconds timeout);
    // Stops or continues the emulator (SIGSTOP/SIGCONT): its devices go quiet but stay.
    void freeze(bool frozen);

private:
    pid_t m_pid = -1;
    std::string m_runtimeDir;
    bool m_ownsDir = false;
    std::string m_stderrPath;
    size_t m_expectedPorts = 0;
    std::vector<Port> m_ports;
};

// A temporary folder removed with everything in it.
std::string makeTempDir();
void removeTree(const std::string& path);
std::vector<std::string> readLines(const std::string& path);

// The host side of one port.
class HostPort
{
public:
    explicit HostPort(const std::string& path);
    ~HostPort();
    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    bool send(const NvMessage& message);
    bool send(uint8_t mid, const NvByteArray& data = {}, uint8_t busId = 0xFF)
    {
        return send(NvMessage(busId, mid, data));
    }
    // Waits for a frame with message id `mid` or an Error frame; frames before it are
    // kept (data packets in packets()). Empty message on time-out.
    NvMessage waitFor(uint8_t mid, std::chrono::milliseconds timeout = std::chrono::seconds(15));
    // Request and its reply (mid + 1) or Error.
    NvMessage request(uint8_t mid, const NvByteArray& data = {});
    // Reads for `duration`, or until `count` data packets are held.
    void collect(std::chrono::milliseconds duration, size_t count = SIZE_MAX);
    // Reads raw bytes (string output) for `duration`.
    std::string readText(std::chrono::milliseconds duration);
    // Reads until the port hangs up; true if it did within `timeout`.
    bool waitForHangUp(std::chrono::milliseconds timeout);

    std::vector<NvMessage>& packets() { return m_packets; }
    const NvFrameParser& parser() const { return m_parser; }

private:
    // One read with a time-out; false on time-out or hang-up.
    bool readSome(std::chrono::milliseconds timeout);

    int m_fd = -1;
    NvFrameParser m_parser;
    std::vector<NvMessage> m_frames;  // non-data frames not yet taken
    std::vector<NvMessage> m_packets; // data packets
    bool m_hungUp = false;
};

// The --truth CSV.
class TruthTable
{
public:
    bool load(const std::string& path);
    size_t column(const std::string& name) const;
    const std::vector<std::vector<std::string>>& rows() const { return m_rows; }
    // Rows of one device.
    std::vector<const std::vector<std::string>*> rowsOf(const std::string& deviceId) const;
    double number(const std::vector<std::string>& row, const std::string& name) const;
    const std::string& text(const std::vector<std::string>& row, const std::string& name) const;

private:
    std::map<std::string, size_t> m_columns;
    std::vector<std::vector<std::string>> m_rows;
};

// The identifier of the first emulated device of `kind` ("ahrs", "master", ...); empty
// when there is none.
inline NvDeviceId idOfKind(const KvsimProcess& sim, const std::string& kind)
{
    for (const auto& port : sim.ports())
        if (port.kind == kind)
            return NvDeviceId::fromString(port.id);
    return {};
}

} // namespace kvtest
