#include "kvsimharness.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace kvtest {

using namespace std::chrono;

std::string makeTempDir()
{
    char tmpl[] = "/tmp/kvsim-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    return dir ? dir : "";
}

void removeTree(const std::string& path)
{
    if (path.empty())
        return;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name == "." || name == "..")
                continue;
            const std::string full = path + "/" + name;
            struct stat st
            {
            };
            if (lstat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                removeTree(full);
            else
                unlink(full.c_str());
        }
        closedir(d);
    }
    rmdir(path.c_str());
}

std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

KvsimProcess::KvsimProcess(const std::vector<std::string>& args, const std::string& runtimeDir)
    : m_runtimeDir(runtimeDir)
{
    if (m_runtimeDir.empty()) {
        m_runtimeDir = makeTempDir();
        m_ownsDir = true;
    }
    for (const std::string& a : args)
        if (a == "--device" || a == "-d")
            ++m_expectedPorts;
    m_stderrPath = m_runtimeDir + "/stderr." + std::to_string(getpid()) + "." +
                   std::to_string(reinterpret_cast<uintptr_t>(this));

    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return;
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "XDG_RUNTIME_DIR=", 16) != 0)
            env.emplace_back(*e);
    env.push_back("XDG_RUNTIME_DIR=" + m_runtimeDir);
    std::vector<char*> envp;
    for (std::string& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> argStore{KVSIM_BINARY};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_stderrPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (posix_spawn(&m_pid, KVSIM_BINARY, &actions, nullptr, argv.data(), envp.data()) != 0)
        m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);

    // One line per device, within a generous time for a loaded machine.
    std::string buffer;
    const auto end = Clock::now() + seconds(20);
    while (m_pid > 0 && m_ports.size() < m_expectedPorts && Clock::now() < end) {
        pollfd p{out[0], POLLIN, 0};
        if (poll(&p, 1, 200) <= 0)
            continue;
        char chunk[512];
        const ssize_t n = read(out[0], chunk, sizeof chunk);
        if (n <= 0)
            break;
        buffer.append(chunk, size_t(n));
        size_t nl;
        while ((nl = buffer.find('\n')) != std::string::npos) {
            std::istringstream line(buffer.substr(0, nl));
            buffer.erase(0, nl + 1);
            Port port;
            line >> port.path >> port.id >> port.kind;
            m_ports.push_back(port);
        }
    }
    close(out[0]);
}

KvsimProcess::~KvsimProcess()
{
    terminate();
    // The emulator's own account helps when a test failed.
    if (::testing::Test::HasFailure()) {
        const std::string text = stderrText();
        if (!text.empty())
            std::fprintf(stderr, "kvsim stderr:\n%s\n", text.c_str());
    }
    if (m_ownsDir)
        removeTree(m_runtimeDir);
    else
        unlink(m_stderrPath.c_str());
}

std::string KvsimProcess::stderrText() const
{
    std::ifstream in(m_stderrPath);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

int KvsimProcess::wait(milliseconds timeout)
{
    if (m_pid <= 0)
        return -1;
    const auto end = Clock::now() + timeout;
    for (;;) {
        int status = 0;
        const pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (Clock::now() >= end)
            return -1;
        std::this_thread::sleep_for(milliseconds(20));
    }
}

void KvsimProcess::freeze(bool frozen)
{
    if (m_pid <= 0 || ::kill(m_pid, frozen ? SIGSTOP : SIGCONT) != 0)
        return;
    // A stop takes effect some time after kill returns; wait until it has, so that nothing
    // sent from now on is answered.
    int status = 0;
    while (::waitpid(m_pid, &status, frozen ? WUNTRACED : WCONTINUED) < 0 && errno == EINTR) {
    }
}

int KvsimProcess::terminate()
{
    if (m_pid <= 0)
        return -1;
    kill(m_pid, SIGTERM);
    const int status = wait(seconds(20));
    if (status < 0 && m_pid > 0) {
        // Where each thread waits, for the report.
        if (DIR* d = opendir(("/proc/" + std::to_string(m_pid) + "/task").c_str())) {
            while (dirent* e = readdir(d)) {
                if (e->d_name[0] == '.')
                    continue;
                const std::string task = "/proc/" + std::to_string(m_pid) + "/task/" + e->d_name;
                std::ifstream wchan(task + "/wchan"), stat(task + "/stat");
                std::string w, st;
                std::getline(wchan, w);
                std::getline(stat, st);
                std::fprintf(stderr, "kvsim did not end: task %s wchan %s stat %s\n", e->d_name,
                             w.c_str(), st.c_str());
            }
            closedir(d);
        }
        kill(m_pid, SIGKILL);
        return wait(seconds(5)) < 0 ? -1 : -1;
    }
    return status;
}

HostPort::HostPort(const std::string& path)
{
    m_fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_fd < 0)
        return;
    termios tio{};
    tcgetattr(m_fd, &tio);
    cfmakeraw(&tio);
    tcsetattr(m_fd, TCSANOW, &tio);
    tcflush(m_fd, TCIOFLUSH);
}

HostPort::~HostPort()
{
    if (m_fd >= 0)
        close(m_fd);
}

bool HostPort::send(const NvMessage& message)
{
    size_t done = 0;
    while (done < message.frameSize()) {
        const ssize_t n = write(m_fd, message.frame() + done, message.frameSize() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

bool HostPort::readSome(milliseconds timeout)
{
    if (m_hungUp)
        return false;
    pollfd p{m_fd, POLLIN, 0};
    const int rc = poll(&p, 1, int(timeout.count()));
    if (rc <= 0)
        return false;
    uint8_t buf[8192];
    const ssize_t n = read(m_fd, buf, sizeof buf);
    if (n <= 0) {
        if (n == 0 || errno != EINTR)
            m_hungUp = true;
        return false;
    }
    m_parser.feed(buf, size_t(n), [this](const NvFrameView& frame) {
        if (frame.messageId() == NvMid::DataPacket)
            m_packets.push_back(frame.toMessage());
        else
            m_frames.push_back(frame.toMessage());
    });
    return true;
}

NvMessage HostPort::waitFor(uint8_t mid, milliseconds timeout)
{
    const auto end = Clock::now() + timeout;
    for (;;) {
        for (auto it = m_frames.begin(); it != m_frames.end(); ++it) {
            if (it->messageId() == mid || it->messageId() == NvMid::Error) {
                NvMessage m = *it;
                m_frames.erase(it);
                return m;
            }
        }
        if (mid == NvMid::DataPacket && !m_packets.empty()) {
            NvMessage m = m_packets.front();
            m_packets.erase(m_packets.begin());
            return m;
        }
        const auto now = Clock::now();
        if (now >= end || m_hungUp)
            return {};
        readSome(duration_cast<milliseconds>(end - now) + milliseconds(1));
    }
}

NvMessage HostPort::request(uint8_t mid, const NvByteArray& data)
{
    if (!send(mid, data))
        return {};
    return waitFor(uint8_t(mid + 1));
}

void HostPort::collect(milliseconds duration, size_t count)
{
    const auto end = Clock::now() + duration;
    while (m_packets.size() < count && !m_hungUp) {
        const auto now = Clock::now();
        if (now >= end)
            break;
        readSome(duration_cast<milliseconds>(end - now) + milliseconds(1));
    }
}

std::string HostPort::readText(milliseconds duration)
{
    std::string text;
    const auto end = Clock::now() + duration;
    for (;;) {
        const auto now = Clock::now();
        if (now >= end)
            break;
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, int(duration_cast<milliseconds>(end - now).count()) + 1) <= 0)
            continue;
        char buf[4096];
        const ssize_t n = read(m_fd, buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, size_t(n));
    }
    return text;
}

bool HostPort::waitForHangUp(milliseconds timeout)
{
    const auto end = Clock::now() + timeout;
    while (Clock::now() < end) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        if (p.revents & (POLLHUP | POLLERR))
            return true;
        uint8_t buf[4096];
        const ssize_t n = read(m_fd, buf, sizeof buf);
        if (n == 0 || (n < 0 && errno == EIO))
            return true;
    }
    return false;
}

bool TruthTable::load(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    if (!std::getline(in, line))
        return false;
    auto split = [](const std::string& s) {
        std::vector<std::string> fields;
        size_t start = 0;
        for (;;) {
            const size_t comma = s.find(',', start);
            fields.push_back(s.substr(start, comma - start));
            if (comma == std::string::npos)
                break;
            start = comma + 1;
        }
        return fields;
    };
    const std::vector<std::string> header = split(line);
    for (size_t i = 0; i < header.size(); ++i)
        m_columns[header[i]] = i;
    while (std::getline(in, line)) {
        std::vector<std::string> row = split(line);
        if (row.size() == header.size())
            m_rows.push_back(std::move(row));
    }
    return true;
}

size_t TruthTable::column(const std::string& name) const
{
    auto it = m_columns.find(name);
    return it == m_columns.end() ? SIZE_MAX : it->second;
}

std::vector<const std::vector<std::string>*> TruthTable::rowsOf(const std::string& deviceId) const
{
    std::vector<const std::vector<std::string>*> out;
    const size_t c = column("device");
    for (const auto& row : m_rows)
        if (row[c] == deviceId)
            out.push_back(&row);
    return out;
}

double TruthTable::number(const std::vector<std::string>& row, const std::string& name) const
{
    const std::string& s = text(row, name);
    return s.empty() ? std::nan("") : std::strtod(s.c_str(), nullptr);
}

const std::string& TruthTable::text(const std::vector<std::string>& row,
                                    const std::string& name) const
{
    static const std::string empty;
    const size_t c = column(name);
    return c < row.size() ? row[c] : empty;
}

} // namespace kvtest
