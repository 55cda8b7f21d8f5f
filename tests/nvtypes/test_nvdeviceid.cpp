#include "nvdeviceid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
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

// ---- Families ----------------------------------------------------------------------

namespace {

// The family tests, named, so that a failing row says which one disagreed.
struct FamilyTest
{
    const char* name;
    bool (NvDeviceId::*test)() const;
};

const FamilyTest kFamilyTests[] = {
    {"WirelessMaster", &NvDeviceId::isWirelessMaster},
    {"WirelessMasterStation", &NvDeviceId::isWirelessMasterStation},
    {"WirelessMasterDongle", &NvDeviceId::isWirelessMasterDongle},
    {"AerloX", &NvDeviceId::isAerloX},
    {"WirelessTracker", &NvDeviceId::isWirelessTracker},
    {"BodyPack", &NvDeviceId::isBodyPack},
    {"Glove", &NvDeviceId::isGlove},
    {"SyncStation", &NvDeviceId::isSyncStation},
    {"LegacyTracker", &NvDeviceId::isLegacyTracker},
    {"CompactSeries", &NvDeviceId::isCompactSeries},
    {"IndustrialSeries", &NvDeviceId::isIndustrialSeries},
    {"HighEndSeries", &NvDeviceId::isHighEndSeries},
    {"Gnss", &NvDeviceId::isGnss},
    {"Imu", &NvDeviceId::isImu},
    {"InertialTracker", &NvDeviceId::isInertialTracker},
    {"Container", &NvDeviceId::isContainer},
    {"FamilyL", &NvDeviceId::isFamilyL},
    {"FamilyM", &NvDeviceId::isFamilyM},
    {"FamilyP", &NvDeviceId::isFamilyP},
    {"FamilyQ", &NvDeviceId::isFamilyQ},
    {"FamilyR", &NvDeviceId::isFamilyR},
    {"FamilyS", &NvDeviceId::isFamilyS},
    {"Imar", &NvDeviceId::isImar},
};

std::vector<std::string> familiesOf(const NvDeviceId& id)
{
    std::vector<std::string> names;
    for (const FamilyTest& t : kFamilyTests)
        if ((id.*t.test)())
            names.push_back(t.name);
    return names;
}

} // namespace

TEST(NvDeviceIdFamilies, EmulatedKinds)
{
    struct Row
    {
        const char* kind;
        bool legacy;
        const char* text;
        const char* typeName;
        std::vector<std::string> families;
    };
    const Row rows[] = {
        {"imu",
         false,
         "KV-100 IMU",
         "kv100",
         {"CompactSeries", "Imu", "InertialTracker", "FamilyM"}},
        {"ahrs", false, "KV-300 AHRS", "kv300", {"CompactSeries", "InertialTracker", "FamilyM"}},
        {"gnss",
         false,
         "KV-770 GNSS/INS",
         "kv770",
         {"HighEndSeries", "Gnss", "InertialTracker", "FamilyS"}},
        {"legacy", true, "KV-L30 AHRS", "kvl30", {"LegacyTracker", "InertialTracker", "FamilyL"}},
        {"master",
         false,
         "KV Station X",
         "kvstationx",
         {"WirelessMaster", "WirelessMasterStation", "AerloX", "Container"}},
        {"tracker", false, "KVW tracker", "kvw2", {"WirelessTracker"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.kind);
        for (uint32_t index : {0u, 1u, 31u, 1000u}) {
            const NvDeviceId id = nvEmulatedDeviceId(row.kind, index);
            ASSERT_FALSE(id.isEmpty());
            EXPECT_EQ(id.isLegacy(), row.legacy);
            EXPECT_EQ(id.deviceTypeText(), row.text);
            EXPECT_EQ(id.typeName(), row.typeName);
            EXPECT_EQ(familiesOf(id), row.families);
            EXPECT_EQ(id.serialNumber(), 0x1000u + index);
            EXPECT_EQ(nvEmulatedDeviceId(row.kind, index), id); // deterministic
            EXPECT_NE(nvEmulatedDeviceId(row.kind, index + 1), id);
            // What the scanner reads back (text, DeviceId reply) is the same device.
            const NvDeviceId viaText = NvDeviceId::fromString(id.toString());
            const std::vector<uint8_t> wire = id.toWire();
            const NvDeviceId viaWire = NvDeviceId::fromWire(wire.data(), wire.size());
            for (const NvDeviceId& back : {viaText, viaWire}) {
                EXPECT_EQ(back, id);
                EXPECT_EQ(familiesOf(back), row.families);
                EXPECT_EQ(back.typeName(), row.typeName);
            }
            EXPECT_EQ(wire.size(), row.legacy ? 4u : 8u);
            EXPECT_EQ(NvDeviceId::fromWire64(id.toWire64()), id);
        }
    }
    EXPECT_EQ(nvEmulatedDeviceId("legacy", 0).toString(), "03001000");
    EXPECT_EQ(nvEmulatedDeviceId("imu", 2).toString(), "1100000000001002");
    EXPECT_EQ(nvEmulatedDeviceId("imu", 0).productCode(), "KV-100");
    EXPECT_EQ(nvEmulatedTrackerId(1, 3), nvEmulatedDeviceId("tracker", 35));
    EXPECT_TRUE(nvEmulatedDeviceId("toaster", 0).isEmpty());
}

TEST(NvDeviceIdFamilies, TableIsConsistent)
{
    size_t count = 0;
    const NvDeviceTypeInfo* table = nvDeviceTypeTable(&count);
    ASSERT_GT(count, 20u);
    std::vector<std::string> names, texts;
    for (size_t i = 0; i < count; ++i) {
        const NvDeviceTypeInfo& row = table[i];
        SCOPED_TRACE(row.typeName);
        const NvDeviceId id = NvDeviceId::fromTypeAndSerial(row.type, 0x12345);
        EXPECT_EQ(id.isLegacy(), row.legacyForm);
        EXPECT_EQ(id.deviceType(), row.type);
        EXPECT_EQ(id.typeInfo(), &row);
        EXPECT_EQ(id.deviceTypeText(), row.text);
        EXPECT_EQ(id.productCode(), row.legacyForm ? "" : row.productCode);
        names.push_back(row.typeName);
        texts.push_back(row.text);
        EXPECT_TRUE(row.legacyForm ? row.type < 0x1000 : row.type >= 0x1000);

        // iMAR: exactly the legacy types with 0xE in bits 20-23.
        EXPECT_EQ(id.isImar(), row.legacyForm && (row.type & 0xF) == 0xE);
        EXPECT_EQ(id.isImar(), (row.families & NvFamily::Imar) != 0);

        // Letter families partition the wired trackers.
        const uint32_t f = row.families;
        const char letter = row.letterFamily;
        EXPECT_EQ(letter != 0, (f & NvFamily::InertialTracker) != 0);
        EXPECT_EQ(letter == 'L', (f & NvFamily::LegacyTracker) != 0);
        EXPECT_EQ(letter == 'M' || letter == 'R', (f & NvFamily::CompactSeries) != 0);
        EXPECT_EQ(letter == 'P', (f & NvFamily::IndustrialSeries) != 0);
        EXPECT_EQ(letter == 'Q' || letter == 'S', (f & NvFamily::HighEndSeries) != 0);
        if (letter == 'R' || letter == 'S') {
            EXPECT_TRUE(f & NvFamily::Gnss);
        }
        if (letter == 'M' || letter == 'Q') {
            EXPECT_FALSE(f & NvFamily::Gnss);
        }
        // A GNSS unit computes orientation; an IMU does not.
        EXPECT_FALSE((f & NvFamily::Gnss) && (f & NvFamily::Imu));
        EXPECT_EQ(id.hasOrientationOutput(),
                  (f & (NvFamily::InertialTracker | NvFamily::WirelessTracker | NvFamily::Glove)) &&
                      !(f & NvFamily::Imu));
        // Masters are stations or dongles; containers are what holds others.
        if (f & NvFamily::WirelessMaster) {
            EXPECT_EQ(bool(f & NvFamily::MasterStation) + bool(f & NvFamily::MasterDongle), 1);
        }
        if (f & (NvFamily::MasterStation | NvFamily::MasterDongle | NvFamily::AerloX)) {
            EXPECT_TRUE(f & NvFamily::WirelessMaster);
        }
        EXPECT_EQ((f & NvFamily::Container) != 0,
                  (f & (NvFamily::WirelessMaster | NvFamily::BodyPack | NvFamily::SyncStation)) !=
                      0);
        if (f & NvFamily::AerloX) {
            EXPECT_FALSE(row.legacyForm);
        }
        // One series at most.
        EXPECT_LE(bool(f & NvFamily::CompactSeries) + bool(f & NvFamily::IndustrialSeries) +
                      bool(f & NvFamily::HighEndSeries) + bool(f & NvFamily::LegacyTracker),
                  1);
    }
    std::sort(names.begin(), names.end());
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end()) << "type names unique";
    EXPECT_EQ(std::adjacent_find(texts.begin(), texts.end()), texts.end()) << "texts unique";
}

TEST(NvDeviceIdFamilies, ImarRuleIsTheBitsAlone)
{
    EXPECT_TRUE(NvDeviceId(0x00E00001u).isImar());
    EXPECT_TRUE(NvDeviceId(0x7FE00001u).isImar()); // unknown type, still iMAR
    EXPECT_EQ(NvDeviceId(0x7FE00001u).deviceTypeText(), "iMAR unit");
    EXPECT_FALSE(NvDeviceId(0x00D00001u).isImar());
    // The new form never is, whatever its serial.
    EXPECT_FALSE(NvDeviceId(0x1100000000E00000ull, 0, "").isImar());
    EXPECT_FALSE(NvDeviceId().isImar());
}

TEST(NvDeviceIdFamilies, UnknownAndEmptyIdentifiers)
{
    const NvDeviceId unknownLegacy(0x7F000001u);
    EXPECT_EQ(unknownLegacy.deviceTypeText(), "Unknown device");
    EXPECT_EQ(unknownLegacy.typeName(), "type7F0");
    EXPECT_TRUE(familiesOf(unknownLegacy).empty());
    const NvDeviceId unknownNew(0x7777000000000001ull, 0, "");
    EXPECT_EQ(unknownNew.deviceType(), 0x7777u);
    EXPECT_EQ(unknownNew.typeName(), "type7777");
    const NvDeviceId empty;
    EXPECT_EQ(empty.deviceTypeText(), "");
    EXPECT_EQ(empty.typeName(), "");
    EXPECT_TRUE(familiesOf(empty).empty());
    EXPECT_TRUE(NvDeviceId::fromWire(nullptr, 0).isEmpty());
    EXPECT_TRUE(NvDeviceId::fromWire64(0).isEmpty());
    // An explicit type wins over the number's type bits.
    const NvDeviceId explicitType(0x42ull, NvDeviceType::Kv630Ahrs, "KV-630");
    EXPECT_TRUE(explicitType.isIndustrialSeries());
    EXPECT_EQ(explicitType.typeName(), "kv630");
}

TEST(NvDeviceId, HashFollowsIdentity)
{
    std::hash<NvDeviceId> h;
    EXPECT_EQ(h(NvDeviceId(5u)), h(NvDeviceId::fromString("00000005")));
    EXPECT_NE(h(NvDeviceId(5u)), h(NvDeviceId(5ull, 0, "")));
}
