// Output configuration, synchronisation settings and the small records: wire forms.

#include "nvtypes.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

TEST(NvOutputConfigurationWire, RoundTripAndBytes)
{
    const NvOutputConfigurationArray config = {
        {NDI_PACKET_COUNTER, NV_FREQUENCY_EVERY_PACKET},
        {NDI_QUATERNION | NDP_FP1632 | NCF_NED, 400},
        {NDI_ACCELERATION, 100},
    };
    const NvByteArray wire = nvOutputConfigurationToWire(config);
    EXPECT_EQ(nvToHex(wire), "10 20 FF FF 20 16 01 90 40 20 00 64");
    NvOutputConfigurationArray back;
    ASSERT_TRUE(nvOutputConfigurationFromWire(wire.data(), wire.size(), back));
    EXPECT_EQ(back, config);
    EXPECT_TRUE(back[0].isEveryPacket());
    ASSERT_NE(nvFindOutput(back, NDI_QUATERNION), nullptr);
    EXPECT_EQ(nvFindOutput(back, NDI_QUATERNION)->frequency, 400);
    EXPECT_EQ(nvFindOutput(back, NDI_MAGNETIC_FIELD), nullptr);
}

TEST(NvOutputConfigurationWire, Limits)
{
    NvOutputConfigurationArray full(32, {NDI_ACCELERATION, 100});
    NvByteArray wire;
    EXPECT_TRUE(nvOutputConfigurationToWire(full, wire));
    EXPECT_EQ(wire.size(), 128u);
    full.push_back({NDI_STATUS_WORD, 1});
    EXPECT_FALSE(nvOutputConfigurationToWire(full, wire));
    EXPECT_EQ(wire.size(), 128u); // untouched
    NvOutputConfigurationArray out = {{1, 1}};
    EXPECT_FALSE(nvOutputConfigurationFromWire(wire.data(), 3, out));
    const NvByteArray tooMany(33 * 4, 0);
    EXPECT_FALSE(nvOutputConfigurationFromWire(tooMany.data(), tooMany.size(), out));
    EXPECT_TRUE(nvOutputConfigurationFromWire(nullptr, 0, out));
    EXPECT_TRUE(out.empty());
    // Sorting orders by identifier, then frequency.
    NvOutputConfigurationArray s = {{0x4020, 100}, {0x1020, 5}, {0x4020, 50}};
    std::sort(s.begin(), s.end());
    EXPECT_EQ(s, (NvOutputConfigurationArray{{0x1020, 5}, {0x4020, 50}, {0x4020, 100}}));
}

TEST(NvSyncSettingWire, FieldOrderAndRoundTrip)
{
    NvSyncSetting s;
    s.line = NSL_GNSS_1PPS;
    s.function = NSF_TIME_PULSE;
    s.polarity = NSP_FALLING_EDGE;
    s.pulseWidth = 50000;
    s.offset = -250;
    s.skipFirst = 3;
    s.skipFactor = 0x0102;
    s.clockPeriod = 1000;
    s.triggerOnce = 1;
    uint8_t wire[NvSyncSetting::WireSize];
    s.toWire(wire);
    EXPECT_EQ(nvToHex(wire, sizeof wire), "09 0E 02 00 00 C3 50 FF FF FF 06 00 03 01 02 03 E8 01");
    EXPECT_EQ(NvSyncSetting::fromWire(wire), s);

    const NvSyncSettingArray list = {s, NvSyncSetting()};
    const NvByteArray bytes = nvSyncSettingsToWire(list);
    EXPECT_EQ(bytes.size(), 36u);
    NvSyncSettingArray back;
    ASSERT_TRUE(nvSyncSettingsFromWire(bytes.data(), bytes.size(), back));
    EXPECT_EQ(back, list);
    EXPECT_FALSE(nvSyncSettingsFromWire(bytes.data(), 17, back));
}

TEST(NvSyncSettingWire, DefaultsAndNames)
{
    const NvSyncSetting d;
    EXPECT_EQ(d.line, NSL_IN1);
    EXPECT_EQ(d.function, NSF_NONE);
    EXPECT_EQ(d.polarity, NSP_RISING_EDGE);
    EXPECT_EQ(d.pulseWidth, 1000u);
    EXPECT_TRUE(d.isInput());
    NvSyncSetting out = d;
    out.line = NSL_OUT1;
    EXPECT_FALSE(out.isInput());
    EXPECT_STREQ(nvSyncLineName(NSL_BIDIRECTIONAL1_IN), "Bidirectional 1 <- In");
    EXPECT_STREQ(nvSyncLineName(7), "Unknown");
    EXPECT_STREQ(nvSyncFunctionName(NSF_TIME_PULSE), "1PPS Time-pulse");
    EXPECT_STREQ(nvSyncFunctionName(15), "Unknown");
    EXPECT_STREQ(nvSyncPolarityName(NSP_BOTH_EDGES), "Falling & Rising Edge");
    EXPECT_STREQ(nvSyncPolarityName(0), "Unknown");
}

TEST(NvEnums, ResultValueTexts)
{
    std::set<std::string> texts;
    int known = 0;
    for (int v = 0; v < 1024; ++v) {
        const char* text = nvResultValueText(NvResultValue(v));
        ASSERT_NE(text, nullptr);
        if (nvIsKnownResultValue(v)) {
            ++known;
            EXPECT_TRUE(texts.insert(text).second) << "duplicate text for " << v;
        } else {
            EXPECT_STREQ(text, "Unknown result value") << v;
        }
    }
    EXPECT_EQ(known, 10 + (NRV_LAST_HOST_CODE - NRV_FIRST_HOST_CODE + 1));
    EXPECT_STREQ(nvResultValueText(NRV_OK), "Operation was performed successfully");
    EXPECT_STREQ(nvResultValueText(NRV_TIMEOUT), "Timeout");
    EXPECT_STREQ(nvResultValueText(NRV_COULD_NOT_GO_TO_MEASUREMENT), "Could not go to measurement");
    EXPECT_STREQ(nvResultValueText(NRV_COULD_NOT_GO_TO_CONFIGURATION),
                 "Could not go to configuration");
    EXPECT_EQ(NRV_COULD_NOT_GO_TO_MEASUREMENT, 305);
    EXPECT_EQ(NRV_COULD_NOT_GO_TO_CONFIGURATION, 314);
    EXPECT_EQ(NRV_UNEXPECTED_DISCONNECT, 262);
}

TEST(NvEnums, BaudRates)
{
    EXPECT_EQ(nvBaudRateToRate(NBR_115200), 115200);
    EXPECT_EQ(nvBaudRateToRate(NBR_4000000), 4000000);
    EXPECT_EQ(nvBaudRateToRate(NBR_DETECT), 0);
    EXPECT_EQ(nvRateToBaudRate(0), NBR_DETECT);
    EXPECT_EQ(nvRateToBaudRate(12345), NBR_INVALID);
    NvBaudRate codes[32];
    const int n = nvBaudRatesFastestFirst(codes, 32);
    ASSERT_EQ(n, 16);
    EXPECT_EQ(codes[0], NBR_4000000);
    EXPECT_EQ(codes[n - 1], NBR_4800);
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(nvRateToBaudRate(nvBaudRateToRate(codes[i])), codes[i]);
        if (i) {
            EXPECT_LT(nvBaudRateToRate(codes[i]), nvBaudRateToRate(codes[i - 1]));
        }
    }
    EXPECT_EQ(nvBaudRatesFastestFirst(nullptr, 0), 16);
}

TEST(NvEnums, DataIdentifierHelpers)
{
    const NvDataIdentifier id = NDI_QUATERNION | NDP_FP1632 | NCF_NWU;
    EXPECT_EQ(id, 0x201A);
    EXPECT_EQ(nvQuantity(id), NDI_QUATERNION);
    EXPECT_EQ(nvPrecision(id), NDP_FP1632);
    EXPECT_EQ(nvCoordinateFrame(id), NCF_NWU);
    EXPECT_EQ(nvWithPrecision(id, NDP_FLOAT64), 0x201B);
    EXPECT_EQ(nvWithFrame(id, NCF_NED), 0x2016);
    EXPECT_EQ(nvPrecisionSize(NDP_FP1632), 6);
    EXPECT_EQ(nvItemSize(NDI_ROTATION_MATRIX | NDP_FLOAT64), 72);
    EXPECT_EQ(nvItemSize(NDI_GNSS_PVT_DATA), 94);
    EXPECT_EQ(nvItemSize(NDI_UTC_TIME), 12);
    EXPECT_EQ(nvItemSize(0x9990), 0);
    EXPECT_STREQ(nvDataIdentifierName(NDI_FREE_ACCELERATION | 3), "Free Acceleration");
    EXPECT_FALSE(nvIsRealQuantity(NDI_BARO_PRESSURE));
    EXPECT_TRUE(nvIsRealQuantity(NDI_TEMPERATURE));
}

TEST(NvRecords, VersionKvwInfoGnssStatusHex)
{
    NvVersion v(1, 12, 3, 4567, 89);
    uint8_t fw[NvVersion::FirmwareWireSize];
    v.toFirmwareWire(fw);
    EXPECT_EQ(nvToHex(fw, sizeof fw), "01 0C 03 00 00 11 D7 00 00 00 59");
    const NvVersion back = NvVersion::fromFirmwareWire(fw);
    EXPECT_EQ(back.build, 4567u);
    EXPECT_EQ(back.change, 89u);
    EXPECT_EQ(back.toString(), "1.12.3");
    EXPECT_EQ(back.toLongString(), "1.12.3 build 4567 rev 89");
    NvVersion parsed;
    EXPECT_TRUE(NvVersion::fromString("2.0.10", parsed));
    EXPECT_GT(parsed, v);
    EXPECT_LT(NvVersion(1, 12, 2), v);
    for (const char* bad : {"", "1.", "1..2", "256.0", "1.2.3.4", "a.b", "1.2x"})
        EXPECT_FALSE(NvVersion::fromString(bad, parsed)) << bad;

    KvwInfo info;
    info.deviceId = nvEmulatedTrackerId(0, 4);
    info.busId = 5;
    info.state = NCS_REJECTED;
    info.rejectReason = NvRejectReason::Blacklisted;
    info.rssi = -61;
    info.batteryLevel = 87;
    info.flags = KvwInfo::TransportMode;
    uint8_t rec[KvwInfo::WireSize];
    info.toWire(rec);
    EXPECT_EQ(nvToHex(rec, sizeof rec), "22 00 00 00 00 00 10 04 05 01 02 C3 57 01");
    EXPECT_EQ(KvwInfo::fromWire(rec), info);
    EXPECT_TRUE(info.isInTransportMode());
    EXPECT_FALSE(KvwInfo().hasRssi());

    NvGpsStatus status;
    status.satellites = {{0, 5, 40, 0x0B}, {2, 11, 33, 0x18}};
    const NvByteArray wire = status.toWire();
    EXPECT_EQ(nvToHex(wire), "02 00 05 28 0B 02 0B 21 18");
    NvGpsStatus gotStatus;
    ASSERT_TRUE(NvGpsStatus::fromWire(wire.data(), wire.size(), gotStatus));
    EXPECT_EQ(gotStatus, status);
    EXPECT_FALSE(NvGpsStatus::fromWire(wire.data(), wire.size() - 1, gotStatus));

    NvByteArray bytes;
    EXPECT_TRUE(nvFromHex("fa ff 30 00d1", bytes));
    EXPECT_EQ(nvToHex(bytes), "FA FF 30 00 D1");
    EXPECT_FALSE(nvFromHex("F A", bytes));
    EXPECT_FALSE(nvFromHex("FAB", bytes));
    EXPECT_FALSE(nvFromHex("GG", bytes));
}

TEST(NvSyncSettingWire, ValuesOutsideTheTablesSurvive)
{
    // Found by fuzzing: a device may send any byte; reading it must be defined behaviour.
    uint8_t wire[NvSyncSetting::WireSize] = {35, 200, 255};
    const NvSyncSetting s = NvSyncSetting::fromWire(wire);
    EXPECT_EQ(int(s.line), 35);
    EXPECT_EQ(int(s.function), 200);
    EXPECT_EQ(int(s.polarity), 255);
    EXPECT_FALSE(s.isInput());
    EXPECT_STREQ(nvSyncLineName(s.line), "Unknown");
    uint8_t back[NvSyncSetting::WireSize];
    s.toWire(back);
    EXPECT_EQ(NvByteArray(back, back + sizeof back), NvByteArray(wire, wire + sizeof wire));
}
