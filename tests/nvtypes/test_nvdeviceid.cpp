#include "nvdeviceid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

TEST(NvDeviceId, TextRoundTripKeepsFormAndNumber)
{
    const NvDeviceId legacy(0x0380051Au);
    EXPECT_EQ(legacy.toString(), "0380051A");
    EXPECT_EQ(NvDeviceId::fromString("0380051a"), legacy);
    EXPECT_EQ(NvDeviceId::fromString("0x380051A"), legacy);
    EXPECT_EQ(legacy.deviceType(), 0x038u);

    const NvDeviceId modern(0x00B4000000001234ull, 0x0B4, "KV-GNSS-710");
    EXPECT_EQ(modern.toString(), "00B4000000001234");
    const NvDeviceId parsed = NvDeviceId::fromString(modern.toString());
    EXPECT_EQ(parsed, modern);
    EXPECT_FALSE(parsed.isLegacy());
}

TEST(NvDeviceId, MalformedTextGivesEmpty)
{
    for (const char* text : {"", "0x", "XYZ", "12345678901234567", "12 34", "-1"})
        EXPECT_TRUE(NvDeviceId::fromString(text).isEmpty()) << text;
    EXPECT_TRUE(NvDeviceId(0u).isEmpty());
    EXPECT_EQ(NvDeviceId().toString(), "");
}

TEST(NvDeviceId, LegacySortsBeforeNewThenByNumber)
{
    std::vector<NvDeviceId> ids = {NvDeviceId(2ull, 1, "B"), NvDeviceId(0xFFFFFFFFu), NvDeviceId(),
                                   NvDeviceId(1ull, 9, "A"), NvDeviceId(5u)};
    std::sort(ids.begin(), ids.end());
    EXPECT_TRUE(ids[0].isEmpty());
    EXPECT_EQ(ids[1], NvDeviceId(5u));
    EXPECT_EQ(ids[2], NvDeviceId(0xFFFFFFFFu));
    EXPECT_EQ(ids[3].toInt(), 1u);
    EXPECT_EQ(ids[4].toInt(), 2u);
    // Same number, different form: distinct identities.
    EXPECT_NE(NvDeviceId(7u), NvDeviceId(7ull, 0, ""));
}
