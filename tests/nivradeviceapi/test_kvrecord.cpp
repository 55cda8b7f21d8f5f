// The command-line recorder against an emulated device: what it says it wrote is in the
// file, and failures show in its exit status.
#include "controltest.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Runs a command; its standard output and exit status.
std::pair<std::string, int> run(const std::string& command)
{
    std::string output;
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (!pipe)
        return {"", -1};
    char buffer[512];
    while (size_t n = fread(buffer, 1, sizeof buffer, pipe))
        output.append(buffer, n);
    const int status = pclose(pipe);
    return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

struct Recorded
{
    bool ended = false; // by itself, within the time given
    int status = -1;
    std::string out, err;
};

// Runs kvrecord with `args` under a file size limit (0: none) and gives it `timeout` to end
// by itself; killed after that.
Recorded runKvrecord(const std::vector<std::string>& args, rlim_t fileSizeLimit,
                     std::chrono::seconds timeout)
{
    const std::string dir = kvtest::makeTempDir();
    const std::string outPath = dir + "/out", errPath = dir + "/err";
    std::vector<std::string> argv{KVRECORD_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (std::string& a : argv)
        cargv.push_back(a.data());
    cargv.push_back(nullptr);
    Recorded r;
    const pid_t child = fork();
    if (child < 0)
        return r;
    if (child == 0) {
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        if (fileSizeLimit) {
            const rlimit limit{fileSizeLimit, fileSizeLimit};
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        execv(cargv[0], cargv.data());
        _exit(127);
    }
    int status = 0;
    r.ended = waitUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, timeout);
    if (!r.ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    auto text = [](const std::string& path) {
        std::string all;
        for (const std::string& line : kvtest::readLines(path))
            all += line + "\n";
        return all;
    };
    r.out = text(outPath);
    r.err = text(errPath);
    kvtest::removeTree(dir);
    return r;
}

// The one device line of kvrecord's table: device, written, lost, missed, file, reason.
struct Line
{
    std::string id, path, note;
    uint64_t written = 0, lost = 0, missed = 0;
};

Line deviceLine(const std::string& output)
{
    std::istringstream lines(output);
    std::string header;
    std::getline(lines, header);
    Line l;
    lines >> l.id >> l.written >> l.lost >> l.missed >> l.path;
    std::getline(lines, l.note);
    return l;
}

// What a recording reopened holds: the packets of `id` in `file`.
int64_t packetsInFile(NvControl* control, const std::string& file, const std::string& id)
{
    NvString name = file;
    if (!NvControl_openLogFile(control, &name))
        return -1;
    NvDeviceId fileId = NvDeviceId::fromString(id);
    NvDevice* dev = NvControl_device(control, &fileId);
    if (!dev || !NvDevice_loadLogFile(dev) ||
        !waitUntil([&] { return NvDevice_isFileLoaded(dev) != 0; }))
        return -1;
    const int64_t count = NvDevice_packetCount(dev);
    NvControl_closePort(control, &name);
    return count;
}

} // namespace

TEST_F(ControlTest, KvrecordRecordsForADurationAndReportsWhatItWrote)
{
    KvsimProcess sim({"--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const std::string dir = kvtest::makeTempDir();
    const std::string file = dir + "/rig.kvb";
    const auto [output, status] = run(std::string(KVRECORD_BINARY) + " --port " +
                                      sim.ports()[0].path + " --duration 1 --out " + file);
    ASSERT_EQ(status, 0) << output;
    const Line line = deviceLine(output);
    EXPECT_EQ(line.id, sim.ports()[0].id);
    EXPECT_EQ(line.path, file);
    EXPECT_GT(line.written, 50u);
    EXPECT_EQ(line.lost, 0u);
    EXPECT_EQ(line.missed, 0u);
    EXPECT_EQ(line.note, "");
    EXPECT_EQ(packetsInFile(control, file, line.id), int64_t(line.written));
    NvControl_close(control);

    EXPECT_EQ(run(std::string(KVRECORD_BINARY) + " --port /nonexistent/port --duration 1 --out " +
                  dir + "/none.kvb")
                  .second,
              1);
    EXPECT_EQ(run(std::string(KVRECORD_BINARY) + " --duration -3").second, 2);
    kvtest::removeTree(dir);
}

// On a full disk what it says it wrote is what the file holds, the rest is reported lost,
// and it does not wait out --duration for a device that records no more.
TEST_F(ControlTest, KvrecordOnAFullDiskCountsWhatReachedTheFile)
{
    KvsimProcess sim({"--device", "ahrs:rate=2000", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const std::string dir = kvtest::makeTempDir();
    const std::string file = dir + "/full.kvb";
    const Recorded r = runKvrecord(
        {"--port", sim.ports()[0].path, "--duration", "600", "--out", file}, 64 * 1024 + 11, 120s);
    ASSERT_TRUE(r.ended) << r.out << r.err;
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    const Line line = deviceLine(r.out);
    EXPECT_EQ(line.id, sim.ports()[0].id);
    EXPECT_EQ(line.note, "  (disk full)") << r.out;
    EXPECT_GT(line.written, 100u);
    EXPECT_GT(line.lost, 0u);
    EXPECT_NE(r.err.find(std::to_string(line.written) + " packets written, " +
                         std::to_string(line.lost) + " lost (disk full)"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(packetsInFile(control, file, line.id), int64_t(line.written)) << r.out;
    kvtest::removeTree(dir);
}

// Every device unplugged: it ends then, with what reached the file, and says so.
TEST_F(ControlTest, KvrecordEndsWhenEveryDeviceIsGone)
{
    KvsimProcess sim({"--device", "ahrs:rate=400", "--disconnect-after", "3", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    const std::string dir = kvtest::makeTempDir();
    const std::string file = dir + "/gone.kvb";
    const Recorded r =
        runKvrecord({"--port", sim.ports()[0].path, "--duration", "600", "--out", file}, 0, 120s);
    ASSERT_TRUE(r.ended) << r.out << r.err;
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    const Line line = deviceLine(r.out);
    EXPECT_EQ(line.id, sim.ports()[0].id);
    EXPECT_EQ(line.note, "  (disconnected)") << r.out;
    EXPECT_GT(line.written, 100u);
    EXPECT_EQ(line.lost, 0u);
    EXPECT_EQ(packetsInFile(control, file, line.id), int64_t(line.written)) << r.out;
    kvtest::removeTree(dir);
}
