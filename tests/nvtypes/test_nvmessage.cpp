#include "nvenums.h"
#include "nvmessage.h"

#include <gtest/gtest.h>

#include <numeric>

TEST(NvMessageBuild, ShortFrame)
{
    const NvMessage m = NvMessage::toDevice(NvMid::GoToConfig);
    EXPECT_EQ(m.toHex(), "FA FF 30 00 D1");
    EXPECT_TRUE(m.isValid());
    EXPECT_EQ(m.busId(), 0xFF);
    EXPECT_EQ(m.messageId(), 0x30);
    EXPECT_EQ(m.dataSize(), 0u);
    EXPECT_FALSE(m.isExtended());
    EXPECT_EQ(m.checksum(), 0xD1);

    const NvMessage set(0x01, NvMid::SetBaudRate, NvByteArray{NBR_115200});
    EXPECT_EQ(set.toHex(), "FA 01 18 01 09 DD");
    EXPECT_TRUE(set.isValid());
}

TEST(NvMessageBuild, LengthFormsAtTheirLimits)
{
    struct Row
    {
        size_t size;
        bool extended;
        size_t frameSize;
    };
    for (const Row& row :
         {Row{0, false, 5}, Row{254, false, 259}, Row{255, true, 262}, Row{2048, true, 2055}}) {
        SCOPED_TRACE(row.size);
        NvByteArray data(row.size);
        std::iota(data.begin(), data.end(), uint8_t(0));
        const NvMessage m(0xFF, 0x36, data);
        ASSERT_FALSE(m.isEmpty());
        EXPECT_EQ(m.isExtended(), row.extended);
        EXPECT_EQ(m.frameSize(), row.frameSize);
        EXPECT_EQ(m.dataSize(), row.size);
        EXPECT_EQ(m.dataBytes(), data);
        EXPECT_TRUE(m.isValid());
        const NvByteArray f = m.frameBytes();
        EXPECT_EQ(std::accumulate(f.begin() + 1, f.end(), 0u) % 256, 0u);
        if (row.extended) {
            EXPECT_EQ(f[3], 0xFF);
            EXPECT_EQ(size_t(f[4]) << 8 | f[5], row.size);
        } else {
            EXPECT_EQ(f[3], row.size);
        }
    }
    EXPECT_TRUE(NvMessage(0xFF, 0x36, NvByteArray(2049)).isEmpty());
    EXPECT_FALSE(NvMessage().isValid());
}

TEST(NvMessageCheck, Verdicts)
{
    const NvByteArray good = NvMessage(0x02, 0x13, NvByteArray{1, 2, 3}).frameBytes();
    NvByteArray badSum = good;
    badSum.back() ^= 1;
    NvByteArray longer = good;
    longer.push_back(0);
    NvByteArray noPre = good;
    noPre[0] = 0xFB;
    const NvByteArray oversize = {0xFA, 0xFF, 0x36, 0xFF, 0x08, 0x01, 0x00};
    const NvByteArray truncated(good.begin(), good.end() - 1);

    struct Row
    {
        const char* legend;
        NvByteArray bytes;
        NvFrameCheck check;
        bool kept;
    };
    const Row rows[] = {
        {"good", good, NvFrameCheck::Ok, true},
        {"bad checksum", badSum, NvFrameCheck::BadChecksum, true},
        {"one byte too many", longer, NvFrameCheck::SizeMismatch, false},
        {"no preamble", noPre, NvFrameCheck::NoPreamble, false},
        {"2049 declared", oversize, NvFrameCheck::Oversize, false},
        {"checksum missing", truncated, NvFrameCheck::TooShort, false},
        {"empty", {}, NvFrameCheck::TooShort, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        EXPECT_EQ(NvMessage::checkFrame(row.bytes.data(), row.bytes.size()), row.check);
        NvFrameCheck check = NvFrameCheck::Ok;
        const NvMessage m = NvMessage::fromFrame(row.bytes, &check);
        EXPECT_EQ(check, row.check);
        EXPECT_EQ(!m.isEmpty(), row.kept);
        EXPECT_EQ(m.isValid(), row.check == NvFrameCheck::Ok);
        EXPECT_STRNE(nvFrameCheckText(row.check), "unknown");
    }
    const NvMessage kept = NvMessage::fromFrame(badSum);
    EXPECT_EQ(kept.dataBytes(), (NvByteArray{1, 2, 3}));
}

TEST(NvMessageAccess, BigEndianReadsAndWrites)
{
    NvMessage m(0xFF, 0x60, NvByteArray{});
    EXPECT_TRUE(m.writeU8(0, 0x12));
    EXPECT_TRUE(m.writeU16(1, 0x3456));
    EXPECT_TRUE(m.writeU32(3, 0x789ABCDE));
    EXPECT_TRUE(m.writeU64(7, 0x0102030405060708ull));
    EXPECT_TRUE(m.writeI16(15, -2));
    EXPECT_TRUE(m.writeI32(17, -100000));
    EXPECT_TRUE(m.writeF32(21, -1.5f));
    EXPECT_TRUE(m.writeF64(25, 3.25));
    EXPECT_TRUE(m.isValid());
    EXPECT_EQ(m.dataSize(), 33u);
    EXPECT_EQ(nvToHex(m.data(), 7), "12 34 56 78 9A BC DE");
    EXPECT_EQ(m.readU8(0), 0x12);
    EXPECT_EQ(m.readU16(1), 0x3456);
    EXPECT_EQ(m.readU32(3), 0x789ABCDEu);
    EXPECT_EQ(m.readU64(7), 0x0102030405060708ull);
    EXPECT_EQ(m.readI16(15), -2);
    EXPECT_EQ(m.readI32(17), -100000);
    EXPECT_EQ(m.readF32(21), -1.5f);
    EXPECT_EQ(m.readF64(25), 3.25);
    EXPECT_EQ(nvToHex(m.data() + 21, 4), "BF C0 00 00");
    // Reads past the end give 0, writes past 2048 are refused.
    EXPECT_EQ(m.readU32(31), 0u);
    EXPECT_EQ(m.readU8(33), 0u);
    EXPECT_FALSE(m.writeU16(2047, 1));
    EXPECT_TRUE(m.writeU8(2047, 1));
    EXPECT_TRUE(m.isExtended());
    EXPECT_TRUE(m.isValid());
}

TEST(NvMessageAccess, CopiesAreIndependentAfterAWrite)
{
    const NvMessage a(0x01, 0x84, NvByteArray{0x00, 0x07});
    NvMessage b = a;
    EXPECT_EQ(b.frame(), a.frame()); // shared until written
    b.writeU16(0, 0x0102);
    b.setBusId(0x02);
    b.setMessageId(0x85);
    EXPECT_NE(b.frame(), a.frame());
    EXPECT_EQ(a.readU16(0), 0x0007);
    EXPECT_EQ(a.busId(), 0x01);
    EXPECT_EQ(b.readU16(0), 0x0102);
    EXPECT_EQ(b.busId(), 0x02);
    EXPECT_EQ(b.messageId(), 0x85);
    EXPECT_TRUE(a.isValid());
    EXPECT_TRUE(b.isValid());
    EXPECT_NE(a, b);
}

TEST(NvMessageAccess, GrowingAcrossTheExtendedLengthKeepsTheData)
{
    NvMessage m(0x05, 0x36, NvByteArray(250, 0xAB));
    ASSERT_TRUE(m.append(NvByteArray(10, 0xCD).data(), 10));
    EXPECT_TRUE(m.isExtended());
    EXPECT_EQ(m.dataSize(), 260u);
    EXPECT_EQ(m.readU8(249), 0xAB);
    EXPECT_EQ(m.readU8(250), 0xCD);
    EXPECT_EQ(m.busId(), 0x05);
    EXPECT_TRUE(m.isValid());
    ASSERT_TRUE(m.resizeData(3));
    EXPECT_FALSE(m.isExtended());
    EXPECT_EQ(m.dataBytes(), NvByteArray(3, 0xAB));
    EXPECT_TRUE(m.isValid());
    // Appending a message's own bytes to itself.
    ASSERT_TRUE(m.append(m.data(), m.dataSize()));
    EXPECT_EQ(m.dataBytes(), NvByteArray(6, 0xAB));
    NvMessage empty;
    empty.setMessageId(0x34);
    EXPECT_EQ(empty.toHex(), "FA FF 34 00 CD");
}

TEST(NvMessageIds, NamesAndReplyRule)
{
    EXPECT_STREQ(nvMessageIdName(NvMid::GoToConfig), "GoToConfig");
    EXPECT_STREQ(nvMessageIdName(NvMid::TrackerStatus), "TrackerStatus");
    EXPECT_STREQ(nvMessageIdName(0xFA), "Unknown");
    // Every request's reply is the identifier plus one (ReqData excepted).
    const uint8_t requests[] = {
        NvMid::ReqDeviceId,
        NvMid::RestoreFactoryDefaults,
        NvMid::GoToMeasurement,
        NvMid::ReqFirmwareRevision,
        NvMid::ReqBaudRate,
        NvMid::ReqProductCode,
        NvMid::ReqHardwareVersion,
        NvMid::SetNoRotation,
        NvMid::ReqSyncSettings,
        NvMid::GoToConfig,
        NvMid::WakeUp,
        NvMid::Reset,
        NvMid::ReqOptionFlags,
        NvMid::ReqUtcTime,
        NvMid::ReqAvailableFilterProfiles,
        NvMid::ReqFilterProfile,
        NvMid::ReqGnssPlatform,
        NvMid::ReqLocationId,
        NvMid::ReqPortConfig,
        NvMid::ReqStringOutputType,
        NvMid::ReqCalibrationRecord,
        NvMid::ResetOrientation,
        NvMid::ReqGnssStatus,
        NvMid::ReqOutputConfiguration,
        NvMid::ReqErrorMode,
        NvMid::ReqTransmitDelay,
        NvMid::ForwardGnssData,
        NvMid::ReqRadioChannel,
        NvMid::ReqUpdateRate,
        NvMid::ReqTrackerList,
        NvMid::TrackerCommand,
        NvMid::StartFlush,
    };
    for (uint8_t mid : requests) {
        EXPECT_STRNE(nvMessageIdName(mid), "Unknown") << int(mid);
        EXPECT_STRNE(nvMessageIdName(uint8_t(mid + 1)), "Unknown") << int(mid);
    }
    for (int mid = 0xF0; mid <= 0xFD; ++mid)
        if (mid != 0xFA) {
            EXPECT_STRNE(nvMessageIdName(uint8_t(mid)), "Unknown") << mid;
        }
}
