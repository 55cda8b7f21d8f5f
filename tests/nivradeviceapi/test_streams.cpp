// What the library makes of a device's stream besides data packets: other protocols,
// silence while measuring, and the synchronisation settings each family offers.
#include "controltest.h"
#include "ndadetector.h"

#include <string>

namespace {

NvByteArray bytesOf(const std::string& text)
{
    return NvByteArray(text.begin(), text.end());
}

// An RTCM 3 frame with `payload` and a correct CRC.
NvByteArray rtcmFrame(const NvByteArray& payload)
{
    NvByteArray frame = {0xD3, uint8_t(payload.size() >> 8), uint8_t(payload.size() & 0xFF)};
    frame.insert(frame.end(), payload.begin(), payload.end());
    const uint32_t crc = nda::rtcm3Crc24(frame.data(), frame.size());
    frame.push_back(uint8_t(crc >> 16));
    frame.push_back(uint8_t(crc >> 8));
    frame.push_back(uint8_t(crc));
    return frame;
}

using Detected = std::vector<std::pair<NvProtocolType, NvByteArray>>;

Detected detect(const NvByteArray& stream, size_t split)
{
    nda::StreamDetector detector;
    Detected out;
    auto sink = [&](NvProtocolType type, const NvByteArray& bytes) {
        // Runs of unknown bytes may come in pieces; join neighbours for comparison.
        if (type == NPT_UNKNOWN && !out.empty() && out.back().first == NPT_UNKNOWN)
            out.back().second.insert(out.back().second.end(), bytes.begin(), bytes.end());
        else
            out.emplace_back(type, bytes);
    };
    detector.feed(stream.data(), split, sink);
    detector.feed(stream.data() + split, stream.size() - split, sink);
    detector.flush(sink);
    return out;
}

} // namespace

TEST(StreamDetector, SortsNmeaRtcmTextAndNoiseAtEveryChunkBoundary)
{
    const std::string gga = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
    const std::string damaged =
        "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*48\r\n";
    const NvByteArray rtcm = rtcmFrame({0x3E, 0xD0, 0x00, 0x03, 0x8A, 0x5C});
    NvByteArray badRtcm = rtcm;
    badRtcm[4] ^= 0x01;

    NvByteArray stream = bytesOf(gga);
    stream.insert(stream.end(), rtcm.begin(), rtcm.end());
    const NvByteArray noise = {0x01, 0x02, 0xFE, 0x80};
    stream.insert(stream.end(), noise.begin(), noise.end());
    const NvByteArray banner = bytesOf("KV boot 1.6\r\n");
    stream.insert(stream.end(), banner.begin(), banner.end());
    const NvByteArray bad = bytesOf(damaged);
    stream.insert(stream.end(), bad.begin(), bad.end());
    stream.insert(stream.end(), badRtcm.begin(), badRtcm.end());
    const NvByteArray tail = bytesOf("$GPZDA,201530.00,04,07,2002,00,00*60\r\n");
    stream.insert(stream.end(), tail.begin(), tail.end());

    for (size_t split = 0; split <= stream.size(); ++split) {
        SCOPED_TRACE("split at " + std::to_string(split));
        const Detected got = detect(stream, split);
        ASSERT_EQ(got.size(), 6u);
        EXPECT_EQ(got[0], std::make_pair(NPT_NMEA, bytesOf(gga)));
        EXPECT_EQ(got[1], std::make_pair(NPT_RTCM3, rtcm));
        EXPECT_EQ(got[2], std::make_pair(NPT_UNKNOWN, noise));
        EXPECT_EQ(got[3], std::make_pair(NPT_TEXT, banner));
        // A sentence with a wrong checksum and a damaged RTCM frame are noise, not data.
        NvByteArray junk = bad;
        junk.insert(junk.end(), badRtcm.begin(), badRtcm.end());
        EXPECT_EQ(got[4].first, NPT_UNKNOWN);
        EXPECT_EQ(got[4].second.size(), junk.size());
        EXPECT_EQ(got[5], std::make_pair(NPT_NMEA, tail));
    }
}

TEST(StreamDetector, OverlongLinesAndBinaryRunsStayBounded)
{
    nda::StreamDetector detector;
    size_t unknown = 0, largest = 0;
    auto sink = [&](NvProtocolType type, const NvByteArray& bytes) {
        EXPECT_EQ(type, NPT_UNKNOWN);
        unknown += bytes.size();
        largest = std::max(largest, bytes.size());
    };
    NvByteArray line(5000, 'A'); // no line end: not text after MaxLine
    detector.feed(line.data(), line.size(), sink);
    NvByteArray binary(20000, 0x00);
    detector.feed(binary.data(), binary.size(), sink);
    detector.flush(sink);
    EXPECT_EQ(unknown, line.size() + binary.size());
    EXPECT_LE(largest, 5000u + nda::StreamDetector::MaxLine);
}

TEST_F(ControlTest, NmeaOutputOfAGnssDeviceArrivesAsDetectedSentences)
{
    KvsimProcess sim({"--device", "gnss:nmea", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* dev = open(sim.ports()[0]);
    ASSERT_NE(dev, nullptr) << NvControl_lastResultText(control);
    ASSERT_TRUE(NvDevice_gotoMeasurement(dev)) << NvControl_lastResultText(control);
    auto nmeaCount = [&] {
        size_t n = 0;
        for (const auto& d : recorder.copy(recorder.detected))
            n += d.first == NPT_NMEA;
        return n;
    };
    ASSERT_TRUE(waitUntil([&] { return nmeaCount() >= 20; }, 10s));
    ASSERT_TRUE(NvDevice_gotoConfig(dev));
    bool sawGga = false;
    for (const auto& d : recorder.copy(recorder.detected)) {
        ASSERT_EQ(d.first, NPT_NMEA) << std::string(d.second.begin(), d.second.end());
        EXPECT_TRUE(nda::isValidNmeaSentence(d.second.data(), d.second.size()));
        const std::string text(d.second.begin(), d.second.end());
        sawGga = sawGga || text.compare(3, 3, "GGA") == 0;
    }
    EXPECT_TRUE(sawGga);
    EXPECT_EQ(recorder.total(), 0u); // no data packets while the string output runs
    NvControl_close(control);
}

TEST_F(ControlTest, SilenceWhileMeasuringIsReportedOnceAsDataUnavailable)
{
    KvsimProcess sim({"--device", "imu:drop=1", "--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* silent = open(sim.ports()[0]);
    NvDevice* talking = open(sim.ports()[1]);
    ASSERT_NE(silent, nullptr);
    ASSERT_NE(talking, nullptr);
    ASSERT_TRUE(NvDevice_gotoMeasurement(silent));
    ASSERT_TRUE(NvDevice_gotoMeasurement(talking));
    ASSERT_TRUE(waitUntil([&] { return !recorder.copy(recorder.unavailable).empty(); }, 10s));
    std::this_thread::sleep_for(1500ms); // still silent: no second report
    const auto reports = recorder.copy(recorder.unavailable);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].first, silent);
    EXPECT_GT(recorder.packetCount(talking), 100u);
    NvControl_close(control);
}

TEST_F(ControlTest, EverySupportedSyncSettingIsAcceptedByTheDevice)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--device", "gnss", "--device",
                      "legacy", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    for (const auto& port : sim.ports()) {
        SCOPED_TRACE(port.kind);
        NvDevice* dev = open(port);
        ASSERT_NE(dev, nullptr);
        NvSyncSettingArray supported;
        NvDevice_supportedSyncSettings(dev, &supported);
        ASSERT_FALSE(supported.empty());
        for (const NvSyncSetting& s : supported) {
            NvSyncSettingArray one = {s};
            EXPECT_TRUE(NvDevice_setSyncSettings(dev, &one))
                << nvSyncLineName(s.line) << " / " << nvSyncFunctionName(s.function);
        }
        // A GNSS time pulse is offered only where there is a receiver.
        const bool timePulse =
            std::any_of(supported.begin(), supported.end(),
                        [](const NvSyncSetting& s) { return s.function == NSF_TIME_PULSE; });
        EXPECT_EQ(timePulse, port.kind == "gnss");
    }
    NvControl_close(control);
}

TEST_F(ControlTest, DeviceHandlersHearOnlyTheirDevice)
{
    KvsimProcess sim({"--device", "imu", "--device", "ahrs", "--quiet"});
    ASSERT_TRUE(sim.started()) << sim.stderrText();
    NvDevice* a = open(sim.ports()[0]);
    NvDevice* b = open(sim.ports()[1]);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    Recorder onlyA;
    NvDevice_addCallbackHandler(a, onlyA.plainC(), 1);
    ASSERT_TRUE(NvDevice_gotoMeasurement(a));
    ASSERT_TRUE(NvDevice_gotoMeasurement(b));
    ASSERT_TRUE(waitUntil([&] { return onlyA.packetCount(a) >= 50; }));
    EXPECT_EQ(onlyA.packetCount(b), 0u);
    EXPECT_GE(recorder.packetCount(b), 1u); // the control's handler hears both
    NvDevice_removeCallbackHandler(a, onlyA.plainC());
    const size_t after = onlyA.packetCount(a);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(onlyA.packetCount(a), after);
    NvControl_close(control);
}
