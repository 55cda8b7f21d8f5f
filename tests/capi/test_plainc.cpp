// What a C caller reads from packets through nvplainc.h: every kind of item as values,
// raw payloads through the buffer convention, copies that outlive the original, and
// clean refusals of null or out-of-range arguments.
#include "nivradeviceapi.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

NvPacketItem itemOf(const NvDataPacket& packet, NvDataIdentifier quantity)
{
    NvPacketItem item;
    EXPECT_TRUE(NvPacket_findItem(&packet, quantity, &item)) << std::hex << quantity;
    return item;
}

std::vector<double> valuesOf(const NvPacketItem& item)
{
    return std::vector<double>(item.values, item.values + item.valueCount);
}

} // namespace

TEST(PlainCPacket, EveryKindOfItemHasItsValues)
{
    NvDataPacketBuilder builder;
    builder.setPacketCounter(65535);
    builder.setSampleTimeFine(123456789);
    builder.setSampleTimeCoarse(12345);
    builder.setFrameRange(7, 9);
    builder.setRssi(-71);
    builder.setStatusWord(0x25);
    builder.setPressure(101325);
    NvUtcTime utc;
    utc.year = 2024;
    utc.month = 2;
    utc.day = 29;
    utc.hour = 23;
    utc.minute = 59;
    utc.second = 60;
    utc.nanoseconds = 999999999;
    utc.flags = NvUtcTime::ValidUtc;
    builder.setUtcTime(utc);
    NvGnssPvt pvt;
    pvt.lat = 523456789;
    pvt.lon = -12345678;
    pvt.height = 45678;
    pvt.hMsl = 1234;
    pvt.velN = 1500;
    pvt.velE = -2500;
    pvt.velD = 100;
    pvt.fixType = NvGnssPvt::Fix3D;
    pvt.numSv = 14;
    builder.setGnssPvt(pvt);
    NvGnssSatInfo sats;
    sats.timeOfWeek = 345600000;
    sats.satellites.resize(5);
    builder.setGnssSatInfo(sats);
    builder.setVector3(nvWithPrecision(NDI_ACCELERATION, NDP_FP1632), {0.5, -1.25, 9.8125});
    builder.setQuaternion({0.5, 0.5, 0.5, 0.5}, NDI_QUATERNION | NCF_NED | NDP_FLOAT64);
    const NvDataPacket packet = builder.toPacket();

    EXPECT_EQ(NvPacket_itemCount(&packet), 12);
    EXPECT_EQ(NvPacket_packetCounter(&packet), 65535);
    EXPECT_EQ(NvPacket_sampleTimeFine(&packet), 123456789);
    EXPECT_EQ(NvPacket_sampleTimeCoarse(&packet), 12345);
    EXPECT_EQ(NvPacket_busId(&packet), 0xFF);
    EXPECT_FALSE(NvPacket_isMalformed(&packet));

    EXPECT_EQ(valuesOf(itemOf(packet, NDI_FRAME_RANGE)), (std::vector<double>{7, 9}));
    EXPECT_EQ(valuesOf(itemOf(packet, NDI_RSSI)), (std::vector<double>{-71}));
    EXPECT_EQ(valuesOf(itemOf(packet, NDI_STATUS_WORD)), (std::vector<double>{0x25}));
    EXPECT_EQ(valuesOf(itemOf(packet, NDI_BARO_PRESSURE)), (std::vector<double>{101325}));
    EXPECT_EQ(valuesOf(itemOf(packet, NDI_UTC_TIME)),
              (std::vector<double>{2024, 2, 29, 23, 59, 60, 999999999, NvUtcTime::ValidUtc}));
    const std::vector<double> p = valuesOf(itemOf(packet, NDI_GNSS_PVT_DATA));
    ASSERT_EQ(p.size(), 9u);
    EXPECT_DOUBLE_EQ(p[0], 52.3456789);
    EXPECT_DOUBLE_EQ(p[1], -1.2345678);
    EXPECT_DOUBLE_EQ(p[2], 45.678);
    EXPECT_DOUBLE_EQ(p[3], 1.234);
    EXPECT_DOUBLE_EQ(p[4], 1.5);
    EXPECT_DOUBLE_EQ(p[5], -2.5);
    EXPECT_DOUBLE_EQ(p[6], 0.1);
    EXPECT_EQ(p[7], NvGnssPvt::Fix3D);
    EXPECT_EQ(p[8], 14);
    EXPECT_EQ(valuesOf(itemOf(packet, NDI_GNSS_SAT_INFO)), (std::vector<double>{345600000, 5}));

    const NvPacketItem acc = itemOf(packet, NDI_ACCELERATION);
    EXPECT_EQ(acc.dataIdentifier, NDI_ACCELERATION | NDP_FP1632);
    EXPECT_EQ(acc.quantity, NDI_ACCELERATION);
    EXPECT_EQ(acc.payloadSize, 18);
    EXPECT_STREQ(acc.name, "Acceleration");
    EXPECT_EQ(valuesOf(acc), (std::vector<double>{0.5, -1.25, 9.8125}));

    // The quaternion as sent (NED, float64), and converted on request.
    const NvPacketItem q = itemOf(packet, NDI_QUATERNION);
    EXPECT_EQ(valuesOf(q), (std::vector<double>{0.5, 0.5, 0.5, 0.5}));
    double ned[4], enu[4], euler[3];
    ASSERT_TRUE(NvPacket_orientationQuaternion(&packet, NCF_NED, ned));
    EXPECT_EQ(std::vector<double>(ned, ned + 4), (std::vector<double>{0.5, 0.5, 0.5, 0.5}));
    ASSERT_TRUE(NvPacket_orientationQuaternion(&packet, NCF_ENU, enu));
    const NvQuaternion expected =
        packet.orientationQuaternion(NCF_ENU); // the library's own conversion
    EXPECT_EQ(std::vector<double>(enu, enu + 4),
              (std::vector<double>{expected.w, expected.x, expected.y, expected.z}));
    ASSERT_TRUE(NvPacket_orientationEuler(&packet, NCF_NED, euler));
    EXPECT_NEAR(euler[0], 90.0, 1e-9);
    EXPECT_NEAR(euler[1], 0.0, 1e-9);
    EXPECT_NEAR(euler[2], 90.0, 1e-9);
}

TEST(PlainCPacket, ItemsByIndexAndRawPayloads)
{
    NvDataPacketBuilder builder;
    builder.setPacketCounter(0x1234);
    builder.setVector3(NDI_RATE_OF_TURN, {1, 2, 3});
    const uint8_t unknown[] = {1, 2, 3, 4, 5};
    builder.setItem(0x9990, unknown, sizeof unknown);
    const NvDataPacket packet = builder.toPacket();

    NvPacketItem item;
    ASSERT_TRUE(NvPacket_item(&packet, 2, &item));
    EXPECT_EQ(item.quantity, 0x9990);
    EXPECT_EQ(item.valueCount, 0);
    EXPECT_EQ(item.payloadSize, 5);
    EXPECT_STREQ(item.name, "Unknown");

    // Asking for the size, a short buffer, a whole one.
    EXPECT_EQ(NvPacket_itemPayload(&packet, 2, nullptr, 0), 5);
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_OK);
    uint8_t buffer[8] = {};
    EXPECT_EQ(NvPacket_itemPayload(&packet, 2, buffer, 3), 5);
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_HOST_BUFFER_OVERFLOW);
    EXPECT_EQ(std::memcmp(buffer, unknown, 3), 0);
    EXPECT_EQ(buffer[3], 0);
    EXPECT_EQ(NvPacket_itemPayload(&packet, 0, buffer, sizeof buffer), 2);
    EXPECT_EQ(buffer[0], 0x12);
    EXPECT_EQ(buffer[1], 0x34);

    EXPECT_FALSE(NvPacket_item(&packet, 3, &item));
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_INVALID_ARGUMENT);
    EXPECT_FALSE(NvPacket_item(&packet, -1, &item));
    EXPECT_EQ(NvPacket_itemPayload(&packet, 3, buffer, sizeof buffer), -1);
    EXPECT_EQ(NvPacket_itemPayload(&packet, 0, nullptr, 4), -1);
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_INVALID_ARGUMENT);
    EXPECT_FALSE(NvPacket_findItem(&packet, NDI_ACCELERATION, &item));
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_NO_DATA);
    EXPECT_EQ(NvPacket_sampleTimeFine(&packet), -1);
    double q[4];
    EXPECT_FALSE(NvPacket_orientationQuaternion(&packet, NCF_ENU, q));
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_NO_DATA);
    EXPECT_FALSE(NvPacket_orientationQuaternion(&packet, NvCoordinateFrame(3), q));
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_INVALID_ARGUMENT);
}

TEST(PlainCPacket, ACopyOutlivesTheOriginal)
{
    NvCbDataPacket* copy = nullptr;
    {
        NvDataPacketBuilder builder;
        builder.setPacketCounter(42);
        const NvDataPacket packet = builder.toPacket();
        copy = NvPacket_copy(&packet);
    }
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(NvPacket_packetCounter(copy), 42);
    NvPacket_delete(copy);
    NvPacket_delete(nullptr);
    EXPECT_EQ(NvPacket_copy(nullptr), nullptr);
}

TEST(PlainCPacket, AMalformedPacketKeepsTheItemsBeforeTheDamage)
{
    // A counter item, then an item that claims more bytes than there are.
    const uint8_t data[] = {0x10, 0x20, 2, 0x00, 0x07, 0x40, 0x20, 12, 1, 2, 3};
    const NvDataPacket packet = NvDataPacket::fromData(data, sizeof data);
    EXPECT_TRUE(NvPacket_isMalformed(&packet));
    EXPECT_EQ(NvPacket_itemCount(&packet), 1);
    EXPECT_EQ(NvPacket_packetCounter(&packet), 7);
}

TEST(PlainCPacket, NullArgumentsAreRefused)
{
    NvPacketItem item;
    double values[4];
    EXPECT_EQ(NvPacket_itemCount(nullptr), -1);
    EXPECT_FALSE(NvPacket_item(nullptr, 0, &item));
    EXPECT_FALSE(NvPacket_findItem(nullptr, NDI_ACCELERATION, &item));
    EXPECT_EQ(NvPacket_packetCounter(nullptr), -1);
    EXPECT_EQ(NvPacket_sampleTimeCoarse(nullptr), -1);
    EXPECT_EQ(NvPacket_busId(nullptr), -1);
    EXPECT_FALSE(NvPacket_orientationEuler(nullptr, NCF_ENU, values));
    EXPECT_EQ(NvControl_lastResult(nullptr), NRV_INVALID_ARGUMENT);

    EXPECT_STREQ(NvCbString_text(nullptr), "");
    const NvString text = "Loading";
    EXPECT_STREQ(NvCbString_text(&text), "Loading");
    EXPECT_EQ(NvCbString_size(&text), 7u);
    size_t size = 99;
    EXPECT_EQ(NvCbByteArray_data(nullptr, &size), nullptr);
    EXPECT_EQ(size, 0u);
    const NvMessage message(0xFF, 0x42, NvByteArray{33});
    EXPECT_EQ(NvCbMessage_messageId(&message), 0x42);
    EXPECT_EQ(NvCbMessage_busId(&message), 0xFF);
    ASSERT_NE(NvCbMessage_data(&message, &size), nullptr);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(NvCbMessage_messageId(nullptr), -1);
}

TEST(PlainCControl, BadArgumentsGiveResultValues)
{
    NvControl* control = NvControl_construct();
    char text[32] = "unchanged";
    EXPECT_FALSE(NvControl_openPortByName(control, "", NBR_DETECT, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_ARGUMENT);
    EXPECT_FALSE(NvControl_openPortByName(nullptr, "/dev/null", NBR_DETECT, 0));
    EXPECT_FALSE(NvControl_closePortByName(control, "/dev/pts/999"));
    EXPECT_EQ(NvControl_lastResult(control), NRV_PORT_NOT_OPEN);
    EXPECT_FALSE(NvControl_openLogFileByName(control, nullptr));
    EXPECT_EQ(NvControl_deviceRefByIdText(control, "12345678901234567"), nullptr);
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_ARGUMENT);
    EXPECT_EQ(NvControl_deviceRefByIdText(control, "0x13000000000010FF"), nullptr);
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_DEVICE);

    // The broadcast handle names no device.
    NvDevice* broadcast = NvControl_broadcast(control);
    EXPECT_EQ(NvDevice_deviceIdText(broadcast, text, sizeof text), -1);
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_DEVICE);
    EXPECT_EQ(NvDevice_outputConfigurationRecords(broadcast, nullptr, 0), -1);
    EXPECT_FALSE(NvDevice_createLogFileByName(nullptr, "x.kvb"));
    EXPECT_FALSE(NvDevice_loadLogFileAndWait(nullptr, 10));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_DEVICE);
    EXPECT_EQ(NvDevice_newDataPacketByIndex(nullptr, 0), nullptr);

    NvPortRecord records[2];
    EXPECT_EQ(NvScanner_scanPortRecords(nullptr, 2, NBR_DETECT, 0, 1, 0), -1);
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_ARGUMENT);
    EXPECT_EQ(NvScanner_scanPortRecords(records, -1, NBR_DETECT, 0, 1, 0), -1);
    NvPortRecord empty{};
    EXPECT_FALSE(NvScanner_scanPortRecord(&empty, NBR_DETECT, 0, 0));
    EXPECT_EQ(NvControl_lastResult(control), NRV_INVALID_ARGUMENT);
    EXPECT_FALSE(NvScanner_scanPortRecord(nullptr, NBR_DETECT, 0, 0));
    NvControl_destruct(control);
}
