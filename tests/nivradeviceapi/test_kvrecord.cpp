// The command-line recorder against an emulated device: what it says it wrote is in the
// file, and failures show in its exit status.
#include "controltest.h"

#include <cstdio>
#include <sstream>
#include <sys/wait.h>

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
    // device, written, missed, file
    std::istringstream lines(output);
    std::string header, id, path;
    uint64_t written = 0, missed = 0;
    std::getline(lines, header);
    lines >> id >> written >> missed >> path;
    EXPECT_EQ(id, sim.ports()[0].id);
    EXPECT_EQ(path, file);
    EXPECT_GT(written, 50u);
    EXPECT_EQ(missed, 0u);

    NvString name = file;
    ASSERT_TRUE(NvControl_openLogFile(control, &name)) << NvControl_lastResultText(control);
    NvDeviceId fileId = NvDeviceId::fromString(id);
    NvDevice* dev = NvControl_device(control, &fileId);
    ASSERT_NE(dev, nullptr);
    ASSERT_TRUE(NvDevice_loadLogFile(dev));
    ASSERT_TRUE(waitUntil([&] { return NvDevice_isFileLoaded(dev) != 0; }));
    EXPECT_EQ(NvDevice_packetCount(dev), int64_t(written));
    NvControl_close(control);

    EXPECT_EQ(run(std::string(KVRECORD_BINARY) + " --port /nonexistent/port --duration 1 --out " +
                  dir + "/none.kvb")
                  .second,
              1);
    EXPECT_EQ(run(std::string(KVRECORD_BINARY) + " --duration -3").second, 2);
    kvtest::removeTree(dir);
}
