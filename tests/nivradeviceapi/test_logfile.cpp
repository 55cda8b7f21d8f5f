// Recording files: kvb written and read back, cut, damaged, split, full disks; bin and nm;
// packets in counter order; files that are not regular files.
#include "blockguard.h"
#include "ndalogfile.h"
#include "nvframeparser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using nda::LogReader;
using nda::LogWriter;
using nda::LogWriterOptions;
namespace fs = std::filesystem;

namespace {

class TempDir
{
public:
    TempDir()
    {
        char name[] = "/tmp/kvlogtest-XXXXXX";
        m_path = ::mkdtemp(name);
    }
    ~TempDir()
    {
        std::error_code ec;
        fs::remove_all(m_path, ec);
    }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::vector<uint8_t> readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const uint8_t* data, size_t size)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), std::streamsize(size));
}

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes)
{
    writeFile(path, bytes.data(), bytes.size());
}

NvMessage reply(uint8_t mid, const NvByteArray& data)
{
    return NvMessage(NvMessage::BusIdDevice, mid, data);
}

// The replies a device gives when it is opened; `n` varies the values.
std::vector<NvMessage> description(unsigned n, const std::string& productCode)
{
    NvByteArray fw(NvVersion::FirmwareWireSize);
    NvVersion(1, uint8_t(2 + n), 3, 400 + n, 7).toFirmwareWire(fw.data());
    NvByteArray hw(NvVersion::HardwareWireSize);
    NvVersion(2, uint8_t(n)).toHardwareWire(hw.data());
    const NvOutputConfigurationArray output = {{NDI_PACKET_COUNTER, 0xFFFF},
                                               {NDI_QUATERNION, uint16_t(100 * (n + 1))}};
    NvSyncSetting sync;
    sync.line = NSL_IN1;
    sync.function = NSF_START_RECORDING_IN;
    sync.skipFactor = uint16_t(n);
    return {reply(NvMid::ProductCode, NvByteArray(productCode.begin(), productCode.end())),
            reply(NvMid::FirmwareRevision, fw),
            reply(NvMid::HardwareVersion, hw),
            reply(NvMid::OutputConfiguration, nvOutputConfigurationToWire(output)),
            reply(NvMid::SyncSettings, nvSyncSettingsToWire({sync})),
            reply(NvMid::LocationId, {0, uint8_t(10 + n)}),
            reply(NvMid::FilterProfile, {0, uint8_t(n)})};
}

// A data packet as a device on `busId` sends it; `extra` makes it longer (extended length).
NvMessage packet(uint8_t busId, uint16_t counter, size_t extra = 0)
{
    NvDataPacketBuilder b(busId);
    b.setPacketCounter(counter);
    b.setSampleTimeFine(counter * 10u);
    b.setQuaternion(NvQuaternion::fromEuler({1, 2, double(counter % 360)}));
    b.setVector3(NDI_ACCELERATION, {0.1, 0.2, 9.81});
    for (size_t i = 0; i < extra / 15; ++i)
        b.setVector3(NvDataIdentifier(0x6010 + 0x10 * i), {1, 2, 3});
    return b.toMessage();
}

// Counters of every packet of a device, in file order.
std::vector<uint16_t> counters(const LogReader& r, size_t device)
{
    std::vector<uint16_t> out;
    for (size_t i = 0; i < r.packetCount(device); ++i)
        out.push_back(r.packet(device, i).packetCounter());
    return out;
}

std::vector<uint16_t> range(uint16_t first, uint16_t count)
{
    std::vector<uint16_t> out;
    for (uint16_t i = 0; i < count; ++i)
        out.push_back(uint16_t(first + i));
    return out;
}

NvResultValue openAndLoad(LogReader& r, const std::string& path)
{
    const NvResultValue rc = r.open(path);
    return rc != NRV_OK ? rc : r.load();
}

const NvDeviceId kImu = nvEmulatedDeviceId("imu", 0);
const NvDeviceId kLegacy = nvEmulatedDeviceId("legacy", 0);
const NvDeviceId kTracker = nvEmulatedTrackerId(0, 4);

// Three devices: one of them a tracker behind a master (bus 5 on the master's port),
// a frame with extended length, an Error frame and a frame whose checksum broke on the
// way; returns the frames appended per device.
std::vector<std::vector<NvMessage>> writeThreeDevices(const std::string& path,
                                                      LogWriterOptions options = {})
{
    LogWriter w;
    EXPECT_EQ(w.create(path, options), NRV_OK);
    const uint8_t a = w.addDevice(kImu, description(0, "KV-100"));
    const uint8_t b = w.addDevice(kLegacy, description(1, "KV-L30"));
    const uint8_t c = w.addDevice(kTracker, description(2, "KVW-2"));
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(c, 3);
    std::vector<std::vector<NvMessage>> sent(3);
    for (uint16_t i = 0; i < 50; ++i) {
        sent[0].push_back(packet(0xFF, i, i == 7 ? 400 : 0));
        w.append(a, sent[0].back());
        if (i % 2 == 0) {
            sent[1].push_back(packet(0xFF, uint16_t(1000 + i)));
            w.append(b, sent[1].back());
        }
        sent[2].push_back(packet(5, uint16_t(2000 + i)));
        w.append(c, sent[2].back());
        if (i == 20)
            w.append(b, NvMessage(0xFF, NvMid::Error, NvByteArray{41}));
    }
    NvMessage broken = packet(0xFF, 9999);
    NvByteArray bytes = broken.frameBytes();
    bytes[6] ^= 0x10;
    w.append(a, bytes.data(), bytes.size());
    EXPECT_EQ(w.close(), NRV_OK);
    EXPECT_EQ(w.framesWritten(), 50u + 25u + 50u + 1u + 1u);
    EXPECT_EQ(w.parts(), std::vector<std::string>{path});
    return sent;
}

} // namespace

TEST(LogRoundTrip, SeveralDevicesReopenWithTheirFramesInOrder)
{
    TempDir dir;
    const std::string path = dir / "three.kvb";
    const auto sent = writeThreeDevices(path);

    LogReader r;
    ASSERT_EQ(r.open(path), NRV_OK);
    EXPECT_EQ(r.type(), LogReader::Type::Kvb);
    EXPECT_EQ(r.header().part, 1u);
    EXPECT_EQ(r.header().version, 1u);
    EXPECT_NE(r.header().recordingId, 0u);
    EXPECT_FALSE(r.header().writer.empty());
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_NEAR(double(r.header().createdUtcNs),
                double(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()), 60e9);
    ASSERT_EQ(r.load(), NRV_OK);
    EXPECT_TRUE(r.isComplete());
    EXPECT_FALSE(r.continues());
    EXPECT_TRUE(r.followingParts().empty());
    EXPECT_EQ(r.fileSize(), fs::file_size(path));
    EXPECT_EQ(r.skippedBytes(), packet(0xFF, 9999).frameSize()); // the broken frame
    EXPECT_GE(r.checksumErrors(), 1u);
    EXPECT_EQ(r.truncatedBytes(), 0u);
    EXPECT_EQ(r.unknownFrames(), 0u);

    ASSERT_EQ(r.devices().size(), 3u);
    const NvDeviceId ids[] = {kImu, kLegacy, kTracker};
    const char* codes[] = {"KV-100", "KV-L30", "KVW-2"};
    for (size_t d = 0; d < 3; ++d) {
        SCOPED_TRACE(d);
        const LogReader::Device& dev = r.devices()[d];
        EXPECT_EQ(dev.id, ids[d]);
        EXPECT_EQ(dev.busId, d + 1);
        EXPECT_EQ(dev.productCode, codes[d]);
        EXPECT_EQ(dev.firmware, NvVersion(1, uint8_t(2 + d), 3));
        EXPECT_EQ(dev.firmware.build, 400 + d);
        EXPECT_EQ(dev.hardware, NvVersion(2, uint8_t(d)));
        ASSERT_EQ(dev.outputConfiguration.size(), 2u);
        EXPECT_EQ(dev.outputConfiguration[1].frequency, 100 * (d + 1));
        ASSERT_EQ(dev.syncSettings.size(), 1u);
        EXPECT_EQ(dev.syncSettings[0].skipFactor, d);
        EXPECT_EQ(dev.locationId, int(10 + d));
        EXPECT_EQ(dev.filterProfile, int(d));

        // Exactly the frames appended, moved to the device's file bus id.
        ASSERT_EQ(r.packetCount(d), sent[d].size());
        for (size_t i = 0; i < sent[d].size(); ++i) {
            NvMessage expected = sent[d][i];
            expected.setBusId(uint8_t(d + 1));
            const NvDataPacket p = r.packet(d, i);
            ASSERT_EQ(p.message(), expected) << i;
            EXPECT_NE(r.packetHostTime(d, i), 0u);
        }
    }
    EXPECT_EQ(r.devices()[0].id.productCode(), "KV-100");
    EXPECT_TRUE(r.packet(0, 7).message().isExtended());
    EXPECT_TRUE(r.packet(0, 50).isEmpty());
    EXPECT_TRUE(r.packet(3, 0).isEmpty());
    // Description replies and the Error frame are kept as messages of their device.
    EXPECT_EQ(r.messageCount(0), 8u);
    ASSERT_EQ(r.messageCount(1), 9u);
    EXPECT_EQ(r.message(1, 8).messageId(), NvMid::Error);
    EXPECT_EQ(r.message(1, 8).readU8(0), 41);
    EXPECT_EQ(r.message(1, 0).messageId(), NvMid::DeviceId);
}

TEST(LogRoundTrip, WriterRefusesWhatItCannotRecord)
{
    TempDir dir;
    LogWriter w;
    EXPECT_EQ(w.addDevice(kImu, {}), 0);
    EXPECT_EQ(w.create(dir / "missing/x.kvb"), NRV_OUTPUT_CANNOT_BE_OPENED);
    EXPECT_TRUE(w.parts().empty());
    ASSERT_EQ(w.create(dir / "x.kvb"), NRV_OK);
    EXPECT_EQ(w.create(dir / "y.kvb"), NRV_INVALID_STATE);
    const uint8_t bus = w.addDevice(kImu, {});
    const NvMessage p = packet(0xFF, 1);
    w.append(uint8_t(bus + 1), p);               // no such device
    w.append(bus, p.frame(), p.frameSize() - 1); // not a whole frame
    w.append(bus, p.frame() + 1, p.frameSize() - 1);
    EXPECT_EQ(w.framesDropped(), 3u);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(w.addDevice(kImu, {}) != 0, i < 253);
    EXPECT_EQ(w.close(), NRV_OK);
    EXPECT_EQ(w.close(), NRV_OK);
    LogReader r;
    ASSERT_EQ(openAndLoad(r, dir / "x.kvb"), NRV_OK);
    EXPECT_EQ(r.devices().size(), 254u);
    EXPECT_EQ(r.devices()[253].busId, 254);
    EXPECT_EQ(r.packetCount(0), 0u);
}

// Data reaches the disk while recording: a crash loses at most the last sync period.
TEST(LogRoundTrip, WrittenWithinTheSyncPeriodWhileStillOpen)
{
    TempDir dir;
    LogWriterOptions options;
    options.syncMs = 100;
    LogWriter w;
    ASSERT_EQ(w.create(dir / "live.kvb", options), NRV_OK);
    const uint8_t bus = w.addDevice(kImu, description(0, "KV-100"));
    for (uint16_t i = 0; i < 100; ++i)
        w.append(bus, packet(0xFF, i));
    std::this_thread::sleep_for(400ms);
    LogReader r;
    ASSERT_EQ(openAndLoad(r, dir / "live.kvb"), NRV_OK);
    EXPECT_FALSE(r.isComplete());
    ASSERT_EQ(r.devices().size(), 1u);
    EXPECT_EQ(counters(r, 0), range(0, 100));
    EXPECT_EQ(w.framesWritten(), 100u);
    EXPECT_EQ(w.close(), NRV_OK);
}

TEST(LogCut, EveryByteOffsetReopensWithEveryWholeFrame)
{
    TempDir dir;
    const std::string path = dir / "small.kvb";
    {
        LogWriter w;
        ASSERT_EQ(w.create(path), NRV_OK);
        const uint8_t a = w.addDevice(kImu, description(0, "KV-100"));
        const uint8_t b = w.addDevice(kLegacy, description(1, "KV-L30"));
        for (uint16_t i = 0; i < 12; ++i) {
            w.append(a, packet(0xFF, i, i == 5 ? 300 : 0));
            w.append(b, packet(0xFF, uint16_t(100 + i)));
        }
        ASSERT_EQ(w.close(), NRV_OK);
    }
    const std::vector<uint8_t> whole = readFile(path);
    // Where each frame ends, and what it is.
    struct Frame
    {
        size_t end;
        uint8_t bus, mid;
    };
    std::vector<Frame> frames;
    NvFrameParser parser;
    parser.feed(whole.data(), whole.size(), [&](const NvFrameView& v) {
        frames.push_back({size_t(v.frame - whole.data()) + v.size, v.busId(), v.messageId()});
    });
    ASSERT_EQ(parser.counters().skippedBytes, 0u);
    const size_t headerEnd = frames[0].end;

    const std::string cut = dir / "cut.kvb";
    for (size_t size = 0; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        writeFile(cut, whole.data(), size);
        LogReader r;
        const NvResultValue rc = r.open(cut);
        if (size == 0) {
            ASSERT_EQ(rc, NRV_NOT_A_RECORDING);
            continue;
        }
        if (size < headerEnd) {
            ASSERT_EQ(rc, NRV_FILE_DAMAGED);
            continue;
        }
        ASSERT_EQ(rc, NRV_OK);
        ASSERT_EQ(r.load(), NRV_OK);
        size_t devices = 0, packets[3] = {0, 0, 0}, lastEnd = 0;
        bool end = false;
        for (const Frame& f : frames) {
            if (f.end > size)
                break;
            lastEnd = f.end;
            devices += f.mid == NvMid::DeviceId;
            if (f.mid == NvMid::DataPacket)
                ++packets[f.bus];
            end = end || f.mid == nda::LogMid::End;
        }
        ASSERT_EQ(r.devices().size(), devices);
        ASSERT_EQ(r.truncatedBytes(), size - lastEnd);
        ASSERT_EQ(r.skippedBytes(), 0u);
        ASSERT_EQ(r.isComplete(), end);
        for (size_t d = 0; d < devices; ++d) {
            ASSERT_EQ(r.packetCount(d), packets[d + 1]);
            ASSERT_EQ(counters(r, d), range(uint16_t(d * 100), uint16_t(packets[d + 1])));
        }
    }
}

TEST(LogGarbage, BetweenFramesIsSkippedAndCounted)
{
    TempDir dir;
    const std::string path = dir / "clean.kvb";
    const auto sent = writeThreeDevices(path);
    const std::vector<uint8_t> clean = readFile(path);

    // Garbage after every 10th frame: runs without a preamble, and runs with stray 0xFA
    // bytes that look like the start of a frame.
    std::vector<uint8_t> dirty;
    uint64_t garbage = 0;
    size_t n = 0;
    std::mt19937 rng(7);
    NvFrameParser parser;
    parser.feed(clean.data(), clean.size(), [&](const NvFrameView& v) {
        dirty.insert(dirty.end(), v.frame, v.frame + v.size);
        if (++n % 10 == 0) {
            const size_t len = 1 + rng() % 40;
            for (size_t i = 0; i < len; ++i)
                dirty.push_back(n % 20 == 0 && i % 7 == 0 ? 0xFA : uint8_t(rng() % 0xF0));
            garbage += len;
        }
    });
    LogReader r;
    writeFile(dir / "dirty.kvb", dirty);
    ASSERT_EQ(openAndLoad(r, dir / "dirty.kvb"), NRV_OK);
    // (The broken frame of the clean file is not in the copy: only whole frames are.)
    EXPECT_EQ(r.skippedBytes(), garbage);
    ASSERT_EQ(r.devices().size(), 3u);
    for (size_t d = 0; d < 3; ++d) {
        ASSERT_EQ(r.packetCount(d), sent[d].size());
        for (size_t i = 0; i < sent[d].size(); ++i)
            EXPECT_EQ(r.packet(d, i).dataSize(), sent[d][i].dataSize());
    }
    EXPECT_TRUE(r.isComplete());
}

TEST(LogNotARecording, TextPngRandomEmptyMissing)
{
    TempDir dir;
    LogReader r;
    const std::string text = "Just some notes.\nNothing recorded here, $5 and *42.\n";
    writeFile(dir / "notes.txt", reinterpret_cast<const uint8_t*>(text.data()), text.size());
    EXPECT_EQ(r.open(dir / "notes.txt"), NRV_NOT_A_RECORDING);

    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 0, 0, 0, 13,
                                'I',  'H', 'D', 'R', 0,    0,    1,    0,    0, 0, 1, 0};
    png.resize(2000, 0x3C);
    writeFile(dir / "image.png", png);
    EXPECT_EQ(r.open(dir / "image.png"), NRV_NOT_A_RECORDING);

    std::mt19937 rng(11);
    for (int round = 0; round < 20; ++round) {
        std::vector<uint8_t> noise(64 + rng() % 100000);
        for (uint8_t& b : noise)
            b = uint8_t(rng());
        writeFile(dir / "noise.bin", noise);
        EXPECT_EQ(r.open(dir / "noise.bin"), NRV_NOT_A_RECORDING) << round;
    }

    writeFile(dir / "empty.kvb", nullptr, 0);
    EXPECT_EQ(r.open(dir / "empty.kvb"), NRV_NOT_A_RECORDING);
    EXPECT_EQ(r.open(dir / "nothing.kvb"), NRV_FILE_NOT_FOUND);
    EXPECT_EQ(r.open(dir / "nothing/at/all.kvb"), NRV_FILE_NOT_FOUND);
    fs::create_directory(dir / "folder.kvb");
    EXPECT_EQ(r.open(dir / "folder.kvb"), NRV_NOT_A_REGULAR_FILE);
    EXPECT_EQ(r.open("/dev/null"), NRV_NOT_A_REGULAR_FILE);

    // A kvb of a later format version.
    writeThreeDevices(dir / "v1.kvb");
    std::vector<uint8_t> bytes = readFile(dir / "v1.kvb");
    bytes[7] = 2;             // version
    bytes[bytes[3] + 4] -= 1; // checksum of the header frame
    writeFile(dir / "v2.kvb", bytes);
    EXPECT_EQ(r.open(dir / "v2.kvb"), NRV_FILE_VERSION_UNSUPPORTED);
    // A damaged header.
    bytes[10] ^= 1;
    writeFile(dir / "bad.kvb", bytes);
    EXPECT_EQ(r.open(dir / "bad.kvb"), NRV_FILE_DAMAGED);
}

// A full disk, made with RLIMIT_FSIZE in a child (SIGXFSZ ignored, so writes fail with
// EFBIG): the handler is called once, the recording stops, the file keeps whole frames.
TEST(LogDiskFull, StopsWithErrorAndLeavesAValidFile)
{
    TempDir dir;
    const std::string path = dir / "full.kvb";
    constexpr rlim_t Limit = 100 * 1000 + 37;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{Limit, Limit};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::atomic<int> calls{0};
        std::atomic<int> value{0};
        LogWriterOptions options;
        options.syncMs = 20;
        LogWriter w;
        w.setErrorHandler([&](NvResultValue rc) {
            ++calls;
            value = int(rc);
        });
        if (w.create(path, options) != NRV_OK)
            _exit(10);
        const uint8_t bus = w.addDevice(kImu, description(0, "KV-100"));
        for (int i = 0; i < 20000 && calls == 0; ++i) {
            w.append(bus, packet(0xFF, uint16_t(i)));
            if (i % 500 == 0)
                std::this_thread::sleep_for(5ms);
        }
        for (int i = 0; i < 200 && calls == 0; ++i)
            std::this_thread::sleep_for(10ms);
        w.append(bus, packet(0xFF, 1)); // after the error: dropped
        const NvResultValue closed = w.close();
        if (calls != 1)
            _exit(11);
        if (value != NRV_DISK_FULL || closed != NRV_DISK_FULL || w.error() != NRV_DISK_FULL)
            _exit(12);
        if (w.bytesWritten() > Limit || w.framesDropped() == 0)
            _exit(13);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    EXPECT_LE(fs::file_size(path), Limit);
    LogReader r;
    ASSERT_EQ(openAndLoad(r, path), NRV_OK);
    EXPECT_EQ(r.truncatedBytes(), 0u);
    EXPECT_EQ(r.skippedBytes(), 0u);
    EXPECT_FALSE(r.isComplete());
    ASSERT_EQ(r.devices().size(), 1u);
    EXPECT_GT(r.packetCount(0), 500u);
    EXPECT_EQ(counters(r, 0), range(0, uint16_t(r.packetCount(0))));
}

TEST(LogSplit, BySizeEachPartOpensAloneAndTheFirstListsTheRest)
{
    TempDir dir;
    const std::string path = dir / "long.kvb";
    LogWriterOptions options;
    options.splitBytes = 8000;
    LogWriter w;
    ASSERT_EQ(w.create(path, options), NRV_OK);
    const uint8_t a = w.addDevice(kImu, description(0, "KV-100"));
    const uint8_t b = w.addDevice(kLegacy, description(1, "KV-L30"));
    for (uint16_t i = 0; i < 400; ++i) {
        w.append(a, packet(0xFF, i));
        w.append(b, packet(0xFF, uint16_t(1000 + i)));
        if (i % 100 == 0)
            std::this_thread::sleep_for(20ms);
    }
    ASSERT_EQ(w.close(), NRV_OK);
    const std::vector<std::string> parts = w.parts();
    ASSERT_GE(parts.size(), 6u);
    EXPECT_EQ(parts[0], path);
    EXPECT_EQ(parts[1], dir / "long-002.kvb");
    EXPECT_EQ(parts[2], dir / "long-003.kvb");

    std::vector<uint16_t> all[2];
    for (size_t k = 0; k < parts.size(); ++k) {
        SCOPED_TRACE(parts[k]);
        EXPECT_LE(fs::file_size(parts[k]), options.splitBytes);
        LogReader r;
        ASSERT_EQ(openAndLoad(r, parts[k]), NRV_OK);
        EXPECT_EQ(r.header().part, k + 1);
        EXPECT_TRUE(r.isComplete());
        EXPECT_EQ(r.continues(), k + 1 < parts.size());
        EXPECT_EQ(r.followingParts(),
                  std::vector<std::string>(parts.begin() + long(k) + 1, parts.end()));
        ASSERT_EQ(r.devices().size(), 2u);
        EXPECT_EQ(r.devices()[0].id, kImu);
        EXPECT_EQ(r.devices()[1].id, kLegacy);
        EXPECT_EQ(r.devices()[1].productCode, "KV-L30");
        EXPECT_EQ(r.devices()[1].locationId, 11);
        for (size_t d = 0; d < 2; ++d) {
            const std::vector<uint16_t> c = counters(r, d);
            all[d].insert(all[d].end(), c.begin(), c.end());
        }
    }
    EXPECT_EQ(all[0], range(0, 400));
    EXPECT_EQ(all[1], range(1000, 400));

    // A part of another recording with the next name ends the list.
    LogWriter other;
    ASSERT_EQ(other.create(dir / "other.kvb"), NRV_OK);
    other.close();
    fs::copy_file(dir / "other.kvb", nda::logPartPath(path, unsigned(parts.size() + 1)));
    LogReader first;
    ASSERT_EQ(first.open(path), NRV_OK);
    EXPECT_EQ(first.followingParts().size(), parts.size() - 1);
}

TEST(LogSplit, ByDuration)
{
    TempDir dir;
    const std::string path = dir / "timed";
    LogWriterOptions options;
    options.splitMs = 150;
    options.syncMs = 50;
    LogWriter w;
    ASSERT_EQ(w.create(path, options), NRV_OK);
    const uint8_t a = w.addDevice(kImu, description(0, "KV-100"));
    for (uint16_t i = 0; i < 50; ++i) {
        w.append(a, packet(0xFF, i));
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_EQ(w.close(), NRV_OK);
    const std::vector<std::string> parts = w.parts();
    ASSERT_GE(parts.size(), 2u);
    EXPECT_EQ(parts[1], dir / "timed-002");
    std::vector<uint16_t> all;
    for (const std::string& part : parts) {
        LogReader r;
        ASSERT_EQ(openAndLoad(r, part), NRV_OK);
        ASSERT_EQ(r.devices().size(), 1u);
        const std::vector<uint16_t> c = counters(r, 0);
        all.insert(all.end(), c.begin(), c.end());
    }
    EXPECT_EQ(all, range(0, 50));
    EXPECT_EQ(nda::logPartPath("/a.b/c", 12), "/a.b/c-012");
    EXPECT_EQ(nda::logPartPath("/a/.c", 2), "/a/.c-002");
    EXPECT_EQ(nda::logPartPath("x.kvb", 1000), "x-1000.kvb");
}

TEST(LogConcurrent, AppendFromSeveralThreads)
{
    TempDir dir;
    const std::string path = dir / "threads.kvb";
    constexpr uint16_t PerThread = 20000;
    LogWriter w;
    ASSERT_EQ(w.create(path), NRV_OK);
    uint8_t bus[4];
    for (int t = 0; t < 4; ++t)
        bus[t] = w.addDevice(nvEmulatedDeviceId("ahrs", unsigned(t)),
                             description(unsigned(t), "KV-300"));
    const uint8_t shared = w.addDevice(kImu, description(9, "KV-100"));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (uint16_t i = 0; i < PerThread; ++i) {
                w.append(bus[t], packet(0xFF, i));
                // Two threads share a device: one sends even counters, the other odd.
                if (t < 2 && i % 4 == 0)
                    w.append(shared, packet(0xFF, uint16_t(i / 2 + t)));
            }
        });
    for (std::thread& t : threads)
        t.join();
    ASSERT_EQ(w.close(), NRV_OK);
    EXPECT_EQ(w.framesWritten(), 4u * PerThread + PerThread / 2);

    LogReader r;
    ASSERT_EQ(openAndLoad(r, path), NRV_OK);
    ASSERT_EQ(r.devices().size(), 5u);
    for (size_t d = 0; d < 4; ++d)
        EXPECT_EQ(counters(r, d), range(0, PerThread));
    std::vector<uint16_t> even, odd;
    for (uint16_t c : counters(r, 4))
        (c % 2 ? odd : even).push_back(c);
    std::vector<uint16_t> expectEven, expectOdd;
    for (uint16_t i = 0; i < PerThread; i += 4)
        expectEven.push_back(uint16_t(i / 2)), expectOdd.push_back(uint16_t(i / 2 + 1));
    EXPECT_EQ(even, expectEven);
    EXPECT_EQ(odd, expectOdd);
}

TEST(LogBin, CaptureOpensAsOneDevice)
{
    TempDir dir;
    std::vector<uint8_t> capture = {'x', 'y', 0x00, 0x13};
    auto add = [&](const NvMessage& m) {
        capture.insert(capture.end(), m.frame(), m.frame() + m.frameSize());
    };
    const NvDeviceId id = nvEmulatedDeviceId("ahrs", 3);
    const std::vector<uint8_t> wire = id.toWire();
    add(NvMessage(0xFF, NvMid::GoToConfigAck));
    add(NvMessage(0xFF, NvMid::DeviceId, wire.data(), wire.size()));
    for (const NvMessage& m : description(4, "KV-300"))
        add(m);
    for (uint16_t i = 0; i < 300; ++i)
        add(packet(0xFF, i));
    writeFile(dir / "port.bin", capture);

    LogReader r;
    ASSERT_EQ(r.open(dir / "port.bin"), NRV_OK);
    EXPECT_EQ(r.type(), LogReader::Type::Bin);
    ASSERT_EQ(r.load(), NRV_OK);
    ASSERT_EQ(r.devices().size(), 1u);
    EXPECT_EQ(r.devices()[0].id, id);
    EXPECT_EQ(r.devices()[0].busId, 0xFF);
    EXPECT_EQ(r.devices()[0].locationId, 14);
    EXPECT_EQ(r.devices()[0].firmware, NvVersion(1, 6, 3));
    EXPECT_EQ(counters(r, 0), range(0, 300));
    EXPECT_EQ(r.messageCount(0), 9u);
    EXPECT_EQ(r.skippedBytes(), 4u);
    EXPECT_TRUE(r.followingParts().empty());

    // Without identity replies: the placeholder.
    std::vector<uint8_t> bare;
    for (uint16_t i = 0; i < 3; ++i) {
        const NvMessage m = packet(0xFF, i);
        bare.insert(bare.end(), m.frame(), m.frame() + m.frameSize());
    }
    ASSERT_EQ(r.openMemory(bare.data(), bare.size()), NRV_OK);
    ASSERT_EQ(r.load(), NRV_OK);
    ASSERT_EQ(r.devices().size(), 1u);
    EXPECT_EQ(r.devices()[0].id, nda::logBinPlaceholderId());
    EXPECT_EQ(r.devices()[0].id.toString(), "FFFF000000000001");
    EXPECT_EQ(r.packetCount(0), 3u);
}

TEST(LogNm, NmeaFileOpensAsOneGnssDeviceWithAPacketPerEpoch)
{
    TempDir dir;
    const std::string text =
        "$GPGGA,123519.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*00\r\n"
        "$GPRMC,123519.00,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*00\r\n"
        "$GPGSV,1,1,01,07,79,048,42*00\r\n"
        "junk line\r\n"
        "$GPGGA,123520.00,4807.040,S,01131.002,W,1,08,0.9,546.0,M,46.9,M,,*00\r\n"
        "$GNRMC,123521.50,V,,,,,,,240394,,,N*00\r\n"
        "$GNGGA,123522.00,4807.050,N,01131.010,E,0,00,,,M,,M,,*00";
    // Fill in the right checksums where the text has *00.
    std::string fixed;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        end = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(pos, end - pos);
        const size_t star = line.find("*00");
        if (star != std::string::npos) {
            uint8_t sum = 0;
            for (size_t i = 1; i < star; ++i)
                sum ^= uint8_t(line[i]);
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02X", sum);
            line.replace(star + 1, 2, hex);
        }
        fixed += line;
        pos = end;
    }
    fixed += "\r\n$GPGGA,123523.00,4807.050,N,01131.010,E,1,08,0.9,545.4,M,46.9,M,,*FF\r\n";
    writeFile(dir / "gnss.nm", reinterpret_cast<const uint8_t*>(fixed.data()), fixed.size());

    LogReader r;
    ASSERT_EQ(r.open(dir / "gnss.nm"), NRV_OK);
    EXPECT_EQ(r.type(), LogReader::Type::Nm);
    ASSERT_EQ(r.load(), NRV_OK);
    ASSERT_EQ(r.devices().size(), 1u);
    EXPECT_EQ(r.devices()[0].id, nda::logNmPlaceholderId());
    EXPECT_TRUE(r.devices()[0].id.isGnss());
    ASSERT_EQ(r.sentenceCount(), 6u);
    EXPECT_EQ(r.sentence(2).substr(0, 27), "$GPGSV,1,1,01,07,79,048,42*");
    EXPECT_EQ(r.checksumErrors(), 1u);
    EXPECT_EQ(r.skippedBytes(), 9u + fixed.size() - fixed.rfind("$GPGGA") - 2);
    ASSERT_EQ(r.packetCount(0), 4u);

    const NvDataPacket p0 = r.packet(0, 0);
    EXPECT_EQ(p0.packetCounter(), 0);
    const NvUtcTime t = p0.utcTime();
    EXPECT_EQ(t.year, 1994);
    EXPECT_EQ(t.month, 3);
    EXPECT_EQ(t.day, 23);
    EXPECT_EQ(t.hour, 12);
    EXPECT_EQ(t.minute, 35);
    EXPECT_EQ(t.second, 19);
    EXPECT_EQ(t.flags, NvUtcTime::ValidUtc);
    EXPECT_NEAR(p0.latLon().latitude, 48 + 7.038 / 60, 1e-9);
    EXPECT_NEAR(p0.latLon().longitude, 11 + 31.0 / 60, 1e-9);
    EXPECT_NEAR(p0.altitudeMsl(), 545.4, 1e-9);
    EXPECT_NEAR(p0.altitudeEllipsoid(), 545.4 + 46.9, 1e-9);
    const double speed = 22.4 * 1852 / 3600, course = 84.4 * M_PI / 180;
    EXPECT_NEAR(p0.velocity().x, speed * std::sin(course), 1e-4);
    EXPECT_NEAR(p0.velocity().y, speed * std::cos(course), 1e-4);
    EXPECT_EQ(p0.statusWord(), uint32_t(NvStatus::GnssFix));

    const NvDataPacket p1 = r.packet(0, 1); // GGA only: the date carries over
    EXPECT_EQ(p1.utcTime().day, 23);
    EXPECT_EQ(p1.utcTime().second, 20);
    EXPECT_NEAR(p1.latLon().latitude, -(48 + 7.040 / 60), 1e-9);
    EXPECT_NEAR(p1.latLon().longitude, -(11 + 31.002 / 60), 1e-9);
    EXPECT_FALSE(p1.contains(NDI_VELOCITY));

    const NvDataPacket p2 = r.packet(0, 2); // RMC without a fix
    EXPECT_EQ(p2.utcTime().day, 24);
    EXPECT_EQ(p2.utcTime().nanoseconds, 500000000u);
    EXPECT_FALSE(p2.contains(NDI_LAT_LON));
    EXPECT_EQ(p2.statusWord(), 0u);
    EXPECT_EQ(r.packet(0, 3).utcTime().second, 22);
}

TEST(LogLoad, ProgressAndAbort)
{
    TempDir dir;
    const std::string path = dir / "big.kvb";
    {
        LogWriter w;
        ASSERT_EQ(w.create(path), NRV_OK);
        const uint8_t a = w.addDevice(kImu, {});
        for (int i = 0; i < 60000; ++i)
            w.append(a, packet(0xFF, uint16_t(i)));
        ASSERT_EQ(w.close(), NRV_OK);
    }
    LogReader r;
    ASSERT_EQ(r.open(path), NRV_OK);
    std::vector<std::pair<uint64_t, uint64_t>> calls;
    ASSERT_EQ(r.load([&](uint64_t done, uint64_t total) { calls.emplace_back(done, total); }),
              NRV_OK);
    ASSERT_FALSE(calls.empty());
    EXPECT_GE(calls.size(), 50u);
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].second, r.fileSize());
        if (i) {
            EXPECT_LE(calls[i].first - calls[i - 1].first, r.fileSize() / 100 + 1);
        }
    }
    EXPECT_EQ(calls.back().first, r.fileSize());
    EXPECT_EQ(r.packetCount(0), 60000u);

    std::atomic<bool> abort{false};
    EXPECT_EQ(r.load(
                  [&](uint64_t done, uint64_t total) {
                      if (done * 2 > total)
                          abort = true;
                  },
                  &abort),
              NRV_ABORTED);
    EXPECT_TRUE(r.devices().empty());
    EXPECT_EQ(r.packetCount(0), 0u);
    abort = false;
    EXPECT_EQ(r.load({}, &abort), NRV_OK);
    EXPECT_EQ(r.packetCount(0), 60000u);
}

// open() on a FIFO waits for a writer: it must never be tried.
TEST(LogNotARegularFile, FifoIsRefusedAtOnceAlsoAsTheNextPart)
{
    TempDir dir;
    const std::string fifo = dir / "pipe.kvb";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    LogReader r;
    NvResultValue rc = NRV_OK;
    EXPECT_TRUE(kvtest::returnsPromptly([&] { rc = r.open(fifo); }, fifo));
    EXPECT_EQ(rc, NRV_NOT_A_REGULAR_FILE);
    EXPECT_STREQ(nvResultValueText(rc), "Not a regular file (a folder, FIFO or device)");

    // Named like the second part of a recording: the recording has one part.
    const std::string first = dir / "rec.kvb";
    const std::string second = dir / "rec-002.kvb";
    writeThreeDevices(first);
    ASSERT_EQ(::mkfifo(second.c_str(), 0600), 0);
    ASSERT_EQ(r.open(first), NRV_OK);
    std::vector<std::string> parts = {"?"};
    EXPECT_TRUE(kvtest::returnsPromptly([&] { parts = r.followingParts(); }, second));
    EXPECT_TRUE(parts.empty());
    r.setFollowingParts({second});
    EXPECT_TRUE(kvtest::returnsPromptly([&] { rc = r.load(); }, second));
    EXPECT_EQ(rc, NRV_OK);
    EXPECT_EQ(r.loadedParts(), 1u);
    EXPECT_EQ(r.packetCount(0), 50u);
}

namespace {

// A tracker's packet for sample `n` at 2000 Hz (5 ticks of the sample time a sample);
// `tag` tells packets apart that share a counter.
NvMessage trackerPacket(uint32_t n, uint32_t ticks, float tag = 0)
{
    NvDataPacketBuilder b(5);
    b.setPacketCounter(uint16_t(n));
    b.setSampleTimeFine(ticks);
    b.setVector3(NDI_ACCELERATION, {tag, 0, 9.81});
    return b.toMessage();
}

std::vector<uint16_t> counterRun(uint32_t count)
{
    std::vector<uint16_t> out;
    for (uint32_t n = 0; n < count; ++n)
        out.push_back(uint16_t(n));
    return out;
}

} // namespace

// What a master's trackers retransmit after the recording is appended at the file's end;
// it plays back where its counters put it.
TEST(LogOrder, RetransmittedPacketsTakeTheirPlacesAcrossCounterWraps)
{
    TempDir dir;
    const std::string path = dir / "flushed.kvb";
    // 50 s at 2000 Hz: the counter wraps, and some missed packets lie further back than
    // half its range when they come.
    constexpr uint32_t Samples = 100000;
    const std::set<uint32_t> missed = {3, 4, 5, 20000, 50000, 50001, 99990};
    LogWriter w;
    ASSERT_EQ(w.create(path), NRV_OK);
    const uint8_t tracker = w.addDevice(kTracker, {});
    const uint8_t plain = w.addDevice(kImu, {});
    const uint8_t restarted = w.addDevice(kLegacy, {});
    for (uint32_t n = 0; n < Samples; ++n) {
        if (!missed.count(n))
            w.append(tracker, trackerPacket(n, n * 5));
        if (n % 100 == 0) {
            // No counter at all: file order.
            NvDataPacketBuilder b;
            b.setVector3(NDI_ACCELERATION, {double(Samples - n), 0, 0});
            w.append(plain, b.toMessage());
        }
        // Measurement started anew half-way: the counter begins at 0 again while the
        // sample time runs on; one packet of the second run comes back at the end.
        if (n % 50 == 0 && n != 60000)
            w.append(restarted, trackerPacket(n < 50000 ? n / 50 : n / 50 - 1000, n * 5, 2));
    }
    for (uint32_t n : missed)
        w.append(tracker, trackerPacket(n, n * 5));
    w.append(restarted, trackerPacket(200, 60000 * 5, 2));
    ASSERT_EQ(w.close(), NRV_OK);

    std::vector<uint16_t> restartedCounters = counterRun(1000);
    for (uint16_t c : counterRun(1000))
        restartedCounters.push_back(c);
    std::vector<NvDataPacket> kept;
    for (LogReader::Access access : {LogReader::Access::Map, LogReader::Access::Read}) {
        SCOPED_TRACE(int(access));
        LogReader r;
        r.setAccess(access);
        ASSERT_EQ(openAndLoad(r, path), NRV_OK);
        EXPECT_EQ(r.isMapped(), access == LogReader::Access::Map);
        ASSERT_EQ(r.devices().size(), 3u);
        EXPECT_EQ(counters(r, 0), counterRun(Samples));
        ASSERT_EQ(r.packetCount(1), Samples / 100);
        for (size_t i = 0; i < r.packetCount(1); ++i)
            ASSERT_EQ(r.packet(1, i).acceleration().x, double(Samples - 100 * i)) << i;
        EXPECT_EQ(counters(r, 2), restartedCounters);
        EXPECT_LE(r.indexBytes(), 10 * (Samples + Samples / 100 + Samples / 50) + 65536);
        kept.push_back(r.packet(0, Samples - 1));
    }
    // Packets outlive their reader and its mapping.
    for (const NvDataPacket& p : kept) {
        EXPECT_EQ(p.packetCounter(), uint16_t(Samples - 1));
        EXPECT_EQ(p.sampleTimeFine(), (Samples - 1) * 5);
    }
}

// A split recording loaded as one: the flush lands in the last part and plays in the
// earlier ones.
TEST(LogOrder, AFlushInTheLastPartPlaysInTheEarlierOnes)
{
    TempDir dir;
    LogWriterOptions options;
    options.splitBytes = 16000;
    LogWriter w;
    ASSERT_EQ(w.create(dir / "split.kvb", options), NRV_OK);
    const uint8_t tracker = w.addDevice(kTracker, description(2, "KVW-2"));
    constexpr uint32_t Samples = 2000;
    for (uint32_t n = 0; n < Samples; ++n)
        if (n % 97 != 1)
            w.append(tracker, trackerPacket(n, n * 5));
    for (uint32_t n = 1; n < Samples; n += 97)
        w.append(tracker, trackerPacket(n, n * 5));
    ASSERT_EQ(w.close(), NRV_OK);
    const std::vector<std::string> parts = w.parts();
    ASSERT_GE(parts.size(), 3u);
    const std::vector<std::string> following(parts.begin() + 1, parts.end());

    LogReader r;
    ASSERT_EQ(r.open(parts[0]), NRV_OK);
    r.setFollowingParts(following);
    ASSERT_EQ(r.load(), NRV_OK);
    EXPECT_EQ(r.loadedParts(), parts.size());
    EXPECT_TRUE(r.isComplete());
    uint64_t bytes = 0;
    for (const std::string& part : parts)
        bytes += fs::file_size(part);
    EXPECT_EQ(r.fileSize(), bytes);
    ASSERT_EQ(r.devices().size(), 1u);
    EXPECT_EQ(r.devices()[0].productCode, "KVW-2");
    EXPECT_EQ(counters(r, 0), counterRun(Samples));
    EXPECT_EQ(r.messageCount(0), 8u * parts.size()); // each part describes the tracker

    // A part of another recording in the place of the third: the recording ends before it.
    LogWriter other;
    ASSERT_EQ(other.create(dir / "other.kvb"), NRV_OK);
    ASSERT_EQ(other.close(), NRV_OK);
    fs::copy_file(dir / "other.kvb", parts[2], fs::copy_options::overwrite_existing);
    ASSERT_EQ(r.open(parts[0]), NRV_OK);
    r.setFollowingParts(following);
    ASSERT_EQ(r.load(), NRV_OK);
    EXPECT_EQ(r.loadedParts(), 2u);
    EXPECT_TRUE(r.continues()); // as the second part's end says
    EXPECT_EQ(r.fileSize(), fs::file_size(parts[0]) + fs::file_size(parts[1]));
}

// Recording again under the name of a recording that is loaded (mapped) must not pull the
// pages from under its reader.
TEST(LogOrder, RecordingOverALoadedFileLeavesItsReaderWhole)
{
    TempDir dir;
    const std::string path = dir / "again.kvb";
    const auto sent = writeThreeDevices(path);
    LogReader r;
    ASSERT_EQ(openAndLoad(r, path), NRV_OK);
    ASSERT_TRUE(r.isMapped());
    LogWriter w;
    ASSERT_EQ(w.create(path), NRV_OK);
    ASSERT_EQ(w.close(), NRV_OK);
    ASSERT_LT(fs::file_size(path), r.fileSize());
    for (size_t d = 0; d < 3; ++d)
        for (size_t i = 0; i < sent[d].size(); ++i)
            ASSERT_EQ(r.packet(d, i).dataSize(), sent[d][i].dataSize());
}
