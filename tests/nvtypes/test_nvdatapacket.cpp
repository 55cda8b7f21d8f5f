#include "nvdatapacket.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

// Half a unit in the last place of each precision, or the float32 relative error.
double tolerance(NvPrecision precision, double value)
{
    switch (precision) {
    case NDP_FLOAT32:
        return std::fabs(value) * 6e-8 + 1e-30;
    case NDP_FP1220:
        return std::ldexp(1.0, -21);
    case NDP_FP1632:
        return std::ldexp(1.0, -33);
    case NDP_FLOAT64:
        return 0.0;
    }
    return 0.0;
}

NvDataPacket packetOf(const NvByteArray& data)
{
    return NvDataPacket::fromData(data.data(), data.size());
}

const NvDataIdentifier kRealQuantities[] = {
    NDI_TEMPERATURE,        NDI_QUATERNION,      NDI_ROTATION_MATRIX,
    NDI_EULER_ANGLES,       NDI_DELTA_V,         NDI_ACCELERATION,
    NDI_FREE_ACCELERATION,  NDI_ACCELERATION_HR, NDI_ALTITUDE_MSL,
    NDI_ALTITUDE_ELLIPSOID, NDI_POSITION_ECEF,   NDI_LAT_LON,
    NDI_RATE_OF_TURN,       NDI_DELTA_Q,         NDI_RATE_OF_TURN_HR,
    NDI_MAGNETIC_FIELD,     NDI_VELOCITY,
};
const NvPrecision kPrecisions[] = {NDP_FLOAT32, NDP_FP1220, NDP_FP1632, NDP_FLOAT64};
const NvCoordinateFrame kFrames[] = {NCF_ENU, NCF_NED, NCF_NWU};

} // namespace

// ---- Fixed point ------------------------------------------------------------------

TEST(NvDataPacketFixedPoint, KnownBytes)
{
    struct Row
    {
        NvPrecision precision;
        NvByteArray bytes;
        double value;
    };
    const Row rows[] = {
        {NDP_FP1220, {0x00, 0x10, 0x00, 0x00}, 1.0},
        {NDP_FP1220, {0xFF, 0xF0, 0x00, 0x00}, -1.0},
        {NDP_FP1220, {0xFF, 0xE8, 0x00, 0x00}, -1.5},
        {NDP_FP1220, {0x00, 0x00, 0x00, 0x01}, std::ldexp(1.0, -20)},
        {NDP_FP1220, {0x7F, 0xFF, 0xFF, 0xFF}, 2048.0 - std::ldexp(1.0, -20)},
        {NDP_FP1220, {0x80, 0x00, 0x00, 0x00}, -2048.0},
        {NDP_FP1632, {0x80, 0x00, 0x00, 0x00, 0x00, 0x01}, 1.5},
        {NDP_FP1632, {0x00, 0x00, 0x00, 0x00, 0x00, 0x01}, 1.0},
        {NDP_FP1632, {0x80, 0x00, 0x00, 0x00, 0xFF, 0xFF}, -0.5},
        {NDP_FP1632, {0x80, 0x00, 0x00, 0x00, 0xFF, 0xFE}, -1.5},
        {NDP_FP1632, {0x00, 0x00, 0x00, 0x01, 0x00, 0x00}, std::ldexp(1.0, -32)},
        {NDP_FP1632, {0x00, 0x00, 0x00, 0x00, 0x80, 0x00}, -32768.0},
        {NDP_FLOAT32, {0x3F, 0xC0, 0x00, 0x00}, 1.5},
        {NDP_FLOAT64, {0xBF, 0xF8, 0, 0, 0, 0, 0, 0}, -1.5},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.value);
        EXPECT_EQ(nvDecodeReal(row.bytes.data(), row.precision), row.value);
        uint8_t out[8] = {};
        nvEncodeReal(row.value, row.precision, out);
        EXPECT_EQ(NvByteArray(out, out + row.bytes.size()), row.bytes);

        // The same bytes as a temperature item decode to the same value.
        NvByteArray data = {0x08, uint8_t(0x10 | row.precision), uint8_t(row.bytes.size())};
        data.insert(data.end(), row.bytes.begin(), row.bytes.end());
        EXPECT_EQ(packetOf(data).temperature(), row.value);
    }
}

TEST(NvDataPacketFixedPoint, RoundsToNearestAndSaturates)
{
    uint8_t out[8];
    // Below half a unit rounds to 0, above it to one unit.
    nvEncodeReal(std::ldexp(1.0, -22), NDP_FP1220, out);
    EXPECT_EQ(nvDecodeReal(out, NDP_FP1220), 0.0);
    nvEncodeReal(std::ldexp(1.0, -20) * 0.75, NDP_FP1220, out);
    EXPECT_EQ(nvDecodeReal(out, NDP_FP1220), std::ldexp(1.0, -20));
    nvEncodeReal(-std::ldexp(1.0, -32) * 0.75, NDP_FP1632, out);
    EXPECT_EQ(nvDecodeReal(out, NDP_FP1632), -std::ldexp(1.0, -32));
    // Out of range values pin to the ends instead of wrapping.
    nvEncodeReal(5000.0, NDP_FP1220, out);
    EXPECT_NEAR(nvDecodeReal(out, NDP_FP1220), 2048.0, 1e-5);
    nvEncodeReal(-5000.0, NDP_FP1220, out);
    EXPECT_EQ(nvDecodeReal(out, NDP_FP1220), -2048.0);
    nvEncodeReal(1e9, NDP_FP1632, out);
    EXPECT_NEAR(nvDecodeReal(out, NDP_FP1632), 32768.0, 1e-9);
    nvEncodeReal(-1e9, NDP_FP1632, out);
    EXPECT_EQ(nvDecodeReal(out, NDP_FP1632), -32768.0);
    nvEncodeReal(std::nan(""), NDP_FP1632, out);
    EXPECT_EQ(nvDecodeReal(out, NDP_FP1632), 0.0);
}

// ---- Round trips of every item ------------------------------------------------------

TEST(NvDataPacketRoundTrip, EveryRealItemInEveryPrecisionAndFrame)
{
    const double samples[] = {0.0, 1.0, -1.0, 3.14159265358979, -123.456789, 1e-3, -2047.5};
    for (NvDataIdentifier quantity : kRealQuantities) {
        const int count = nvRealCount(quantity);
        ASSERT_GT(count, 0) << std::hex << quantity;
        for (NvPrecision precision : kPrecisions) {
            for (NvCoordinateFrame frame : kFrames) {
                const NvDataIdentifier id =
                    nvWithFrame(nvWithPrecision(quantity, precision), frame);
                SCOPED_TRACE(::testing::Message() << std::hex << "id 0x" << id);
                std::vector<double> values(static_cast<size_t>(count));
                for (int i = 0; i < count; ++i)
                    values[size_t(i)] = samples[size_t(i) % 7] * (i % 2 ? 1 : -0.5);
                NvDataPacketBuilder builder;
                builder.setPacketCounter(7);
                ASSERT_TRUE(builder.setReals(id, values.data(), values.size()));
                const NvDataPacket packet = builder.toPacket();
                ASSERT_FALSE(packet.isMalformed());
                EXPECT_TRUE(packet.contains(quantity));
                EXPECT_TRUE(packet.contains(nvWithPrecision(quantity, NDP_FLOAT64)));
                EXPECT_EQ(packet.identifier(quantity), id);
                EXPECT_EQ(packet.find(quantity)->size, nvItemSize(id));
                std::vector<double> back(size_t(count) + 2, 99.0);
                ASSERT_EQ(packet.reals(quantity, back.data(), back.size()), size_t(count));
                for (int i = 0; i < count; ++i)
                    EXPECT_NEAR(back[size_t(i)], values[size_t(i)],
                                tolerance(precision, values[size_t(i)]))
                        << "value " << i;
                EXPECT_EQ(back[size_t(count)], 99.0); // nothing written past the item
                EXPECT_EQ(packet.packetCounter(), 7);
            }
        }
    }
}

TEST(NvDataPacketRoundTrip, IntegerAndRecordItems)
{
    NvUtcTime utc;
    utc.nanoseconds = 123456789;
    utc.year = 2031;
    utc.month = 12;
    utc.day = 31;
    utc.hour = 23;
    utc.minute = 59;
    utc.second = 60;
    utc.flags = NvUtcTime::ValidUtc | NvUtcTime::ValidTimeOfWeek;

    NvGnssPvt pvt;
    pvt.timeOfWeek = 345600123;
    pvt.year = 2030;
    pvt.month = 6;
    pvt.day = 15;
    pvt.hour = 12;
    pvt.minute = 30;
    pvt.second = 45;
    pvt.valid = NvGnssPvt::ValidDate | NvGnssPvt::ValidTime;
    pvt.timeAccuracy = 25;
    pvt.nano = -12345;
    pvt.fixType = NvGnssPvt::Fix3D;
    pvt.flags = NvGnssPvt::GnssFixOk | NvGnssPvt::CarrierFixed;
    pvt.numSv = 17;
    pvt.lon = 43812345;
    pvt.lat = -523456789;
    pvt.height = 65432;
    pvt.hMsl = 23456;
    pvt.hAcc = 1200;
    pvt.vAcc = 2300;
    pvt.velN = -1500;
    pvt.velE = 2500;
    pvt.velD = -30;
    pvt.gSpeed = 2915;
    pvt.headMot = 12000000;
    pvt.sAcc = 80;
    pvt.headAcc = 150000;
    pvt.headVeh = -9000000;
    pvt.gdop = 180;
    pvt.pdop = 150;
    pvt.tdop = 90;
    pvt.vdop = 120;
    pvt.hdop = 95;
    pvt.ndop = 70;
    pvt.edop = 65;

    NvGnssSatInfo sat;
    sat.timeOfWeek = 345600000;
    sat.satellites = {{0, 12, 45, 0x1F, 63, 170}, {6, 3, 30, 0x08, -5, 0}};

    NvDataPacketBuilder b(5);
    b.setPacketCounter(0xFFFE);
    b.setSampleTimeFine(0xDEADBEEF);
    b.setSampleTimeCoarse(86400);
    b.setUtcTime(utc);
    b.setTimeOfWeek(604799999);
    b.setGnssAge(17);
    b.setFrameRange(65530, 3);
    b.setPressure(101325);
    b.setStatusByte(0xA5);
    b.setStatusWord(0x80000001);
    b.setRssi(-87);
    b.setAnalogIn1(4095);
    b.setAnalogIn2(1);
    b.setGnssPvtPulse(123456);
    b.setGnssPvt(pvt);
    b.setGnssSatInfo(sat);

    const NvDataPacket p = b.toPacket();
    ASSERT_FALSE(p.isEmpty());
    EXPECT_FALSE(p.isMalformed());
    EXPECT_EQ(p.busId(), 5);
    EXPECT_EQ(p.itemCount(), 16u);
    EXPECT_EQ(p.packetCounter(), 0xFFFE);
    EXPECT_EQ(p.sampleTimeFine(), 0xDEADBEEFu);
    EXPECT_EQ(p.sampleTimeCoarse(), 86400u);
    EXPECT_EQ(p.utcTime(), utc);
    EXPECT_EQ(p.timeOfWeek(), 604799999u);
    EXPECT_EQ(p.gnssAge(), 17);
    EXPECT_EQ(p.frameRange(), (NvFrameRange{65530, 3}));
    EXPECT_EQ(p.pressure(), 101325u);
    EXPECT_EQ(p.statusByte(), 0xA5);
    EXPECT_EQ(p.statusWord(), 0x80000001u);
    EXPECT_EQ(p.rssi(), -87);
    EXPECT_EQ(p.analogIn1(), 4095);
    EXPECT_EQ(p.analogIn2(), 1);
    EXPECT_EQ(p.gnssPvtPulse(), 123456u);
    EXPECT_EQ(p.gnssPvt(), pvt);
    EXPECT_EQ(p.find(NDI_GNSS_PVT_DATA)->size, 94);
    EXPECT_NEAR(p.gnssPvt().latitudeDeg(), -52.3456789, 1e-12);
    EXPECT_EQ(p.gnssSatInfo(), sat);
    EXPECT_EQ(p.find(NDI_GNSS_SAT_INFO)->size, 8 + 2 * 6);
}

TEST(NvDataPacketRoundTrip, TypedRealSetters)
{
    NvDataPacketBuilder b;
    b.setTemperature(21.5, NDP_FP1632);
    b.setLatLon(52.2215, 6.8937, nvWithPrecision(NDI_LAT_LON, NDP_FLOAT64));
    b.setScalar(NDI_ALTITUDE_MSL | NDP_FP1632, 42.25);
    b.setScalar(NDI_ALTITUDE_ELLIPSOID | NDP_FLOAT64, 85.125);
    b.setVector3(NDI_POSITION_ECEF | NDP_FLOAT64, {3920000.5, 474000.25, 5000000.125});
    b.setVector3(NDI_ACCELERATION, {0.1, -0.2, 9.81});
    b.setDeltaQ({0.9999, 0.001, -0.002, 0.003}, NDI_DELTA_Q | NDP_FLOAT64);
    const NvDataPacket p = b.toPacket();
    EXPECT_EQ(p.temperature(), 21.5);
    EXPECT_EQ(p.latLon().latitude, 52.2215);
    EXPECT_EQ(p.latLon().longitude, 6.8937);
    EXPECT_EQ(p.altitudeMsl(), 42.25);
    EXPECT_EQ(p.altitudeEllipsoid(), 85.125);
    EXPECT_EQ(p.positionEcef(), NvVector3(3920000.5, 474000.25, 5000000.125));
    EXPECT_NEAR(p.acceleration().z, 9.81, 1e-6);
    EXPECT_EQ(p.deltaQ(), NvQuaternion(0.9999, 0.001, -0.002, 0.003));
}

TEST(NvDataPacketBuilderTest, SettingAQuantityAgainReplacesItInPlace)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(1);
    b.setVector3(NDI_ACCELERATION, {1, 2, 3});
    b.setStatusWord(9);
    b.setVector3(NDI_ACCELERATION | NDP_FLOAT64, {4, 5, 6}); // grows from 12 to 24 bytes
    b.setPacketCounter(2);
    const NvDataPacket p = b.toPacket();
    ASSERT_EQ(p.itemCount(), 3u);
    EXPECT_EQ(p.item(0).id, NDI_PACKET_COUNTER);
    EXPECT_EQ(p.item(1).id, NDI_ACCELERATION | NDP_FLOAT64);
    EXPECT_EQ(p.item(2).id, NDI_STATUS_WORD);
    EXPECT_EQ(p.packetCounter(), 2);
    EXPECT_EQ(p.acceleration(), NvVector3(4, 5, 6));
    EXPECT_EQ(p.statusWord(), 9u);
    b.setVector3(NDI_ACCELERATION, {7, 8, 9}); // shrinks back
    EXPECT_EQ(b.toPacket().acceleration(), NvVector3(7, 8, 9));
    EXPECT_EQ(b.toPacket().statusWord(), 9u);
    EXPECT_EQ(b.data().size(), 3u + 2 + 3 + 12 + 3 + 4);
}

TEST(NvDataPacketBuilderTest, RefusesItemsAndPacketsThatDoNotFit)
{
    NvDataPacketBuilder b;
    std::vector<double> many(40, 1.0);
    EXPECT_FALSE(b.setReals(NDI_ROTATION_MATRIX | NDP_FLOAT64, many.data(), many.size()));
    EXPECT_TRUE(b.data().empty());
    const std::vector<uint8_t> big(255, 0);
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(b.setItem(NvDataIdentifier(0xF010 + i * 0x10), big.data(), big.size()));
    EXPECT_FALSE(b.fits()); // 8 x 258 bytes
    EXPECT_TRUE(b.toMessage().isEmpty());
    EXPECT_TRUE(b.toPacket().isEmpty());

    NvGnssSatInfo info;
    info.satellites.resize(60);
    NvDataPacketBuilder g;
    g.setGnssSatInfo(info);
    EXPECT_EQ(g.toPacket().gnssSatInfo().satellites.size(), 41u);
}

TEST(NvDataPacketBuilderTest, MessageIsADataPacketFrame)
{
    NvDataPacketBuilder b(3);
    b.setPacketCounter(0x1234);
    const NvMessage m = b.toMessage();
    EXPECT_EQ(m.toHex(), "FA 03 36 05 10 20 02 12 34 " +
                             nvToHex(std::vector<uint8_t>{
                                 NvMessage::computeChecksum(m.frame(), m.frameSize() - 1)}));
    EXPECT_TRUE(m.isValid());
    EXPECT_EQ(NvDataPacket(m).message(), m);
    EXPECT_EQ(NvDataPacket(m), b.toPacket());
}

// ---- Decoding robustness ------------------------------------------------------------

TEST(NvDataPacketDecode, UnknownItemsAreKeptAndSkipped)
{
    const NvByteArray data = {0x10, 0x20, 0x02, 0x00, 0x05,              // packet counter 5
                              0x99, 0x93, 0x03, 0xAA, 0xBB, 0xCC,        // unknown 0x9993
                              0xE0, 0x20, 0x04, 0x00, 0x00, 0x01, 0x00}; // status word 256
    const NvDataPacket p = packetOf(data);
    EXPECT_FALSE(p.isMalformed());
    ASSERT_EQ(p.itemCount(), 3u);
    EXPECT_EQ(p.packetCounter(), 5);
    EXPECT_EQ(p.statusWord(), 256u);
    EXPECT_TRUE(p.contains(0x9990));
    EXPECT_EQ(p.rawItem(0x9990), (NvByteArray{0xAA, 0xBB, 0xCC}));
    double v;
    EXPECT_EQ(p.reals(0x9990, &v, 1), 0u);
}

TEST(NvDataPacketDecode, MalformedTailKeepsTheItemsBefore)
{
    struct Row
    {
        const char* legend;
        NvByteArray data;
        size_t items;
        size_t decoded;
    };
    const Row rows[] = {
        {"size runs past the end", {0x10, 0x20, 0x02, 0x00, 0x05, 0x40, 0x20, 0x0C, 1, 2, 3}, 1, 5},
        {"two bytes of a header", {0x10, 0x20, 0x02, 0x00, 0x05, 0x40}, 1, 5},
        {"first item broken", {0x10, 0x20, 0x05, 0x00}, 0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        const NvDataPacket p = packetOf(row.data);
        EXPECT_TRUE(p.isMalformed());
        EXPECT_EQ(p.itemCount(), row.items);
        EXPECT_EQ(p.decodedSize(), row.decoded);
        EXPECT_EQ(p.packetCounter(), row.items ? 5 : 0);
        EXPECT_FALSE(p.contains(NDI_ACCELERATION));
        EXPECT_EQ(p.acceleration(), NvVector3());
    }
    const NvDataPacket empty = packetOf({});
    EXPECT_FALSE(empty.isEmpty());
    EXPECT_FALSE(empty.isMalformed());
    EXPECT_EQ(empty.itemCount(), 0u);
}

TEST(NvDataPacketDecode, ShortItemsReadAsNeutralValues)
{
    // A packet counter of one byte and an acceleration of 2 reals.
    const NvByteArray data = {0x10, 0x20, 0x01, 0x07, 0x40, 0x20, 0x08, 0x3F,
                              0x80, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00};
    const NvDataPacket p = packetOf(data);
    EXPECT_FALSE(p.isMalformed());
    EXPECT_EQ(p.packetCounter(), 0);
    EXPECT_EQ(p.acceleration(), NvVector3(1, 2, 0));
    EXPECT_EQ(p.real(NDI_ACCELERATION, 2), 0.0);
}

TEST(NvDataPacketDecode, CopiesShareTheBytes)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(3);
    const NvDataPacket a = b.toPacket();
    const NvDataPacket copy = a; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.data(), a.data());
    EXPECT_EQ(copy.message().frame(), a.message().frame());
    // Writing through a message copy leaves the packet alone.
    NvMessage m = a.message();
    m.writeU16(3, 9);
    EXPECT_EQ(a.packetCounter(), 3);
    EXPECT_EQ(NvDataPacket(m).packetCounter(), 9);
    EXPECT_TRUE(NvDataPacket().isEmpty());
    EXPECT_EQ(NvDataPacket().packetCounter(), 0);
    EXPECT_FALSE(NvDataPacket().containsOrientation());
}

// ---- Orientation and frames through the packet --------------------------------------

TEST(NvDataPacketOrientation, AnyFormAnswersAllThree)
{
    const NvQuaternion q = NvQuaternion::fromEuler({25.0, -40.0, 130.0});
    for (NvDataIdentifier form : {NDI_QUATERNION, NDI_ROTATION_MATRIX, NDI_EULER_ANGLES}) {
        for (NvPrecision precision : {NDP_FLOAT64, NDP_FP1632, NDP_FLOAT32, NDP_FP1220}) {
            SCOPED_TRACE(::testing::Message() << std::hex << form << " p" << precision);
            const double tol = precision == NDP_FLOAT64  ? 1e-12
                               : precision == NDP_FP1632 ? 1e-8
                                                         : 1e-4;
            NvDataPacketBuilder b;
            b.setOrientation(q, nvWithPrecision(form, precision));
            const NvDataPacket p = b.toPacket();
            ASSERT_TRUE(p.containsOrientation());
            EXPECT_LT(p.orientationQuaternion().angleTo(q), tol * 10);
            const NvEuler e = p.orientationEuler();
            EXPECT_NEAR(e.roll, 25.0, tol * 1000);
            EXPECT_NEAR(e.pitch, -40.0, tol * 1000);
            EXPECT_NEAR(e.yaw, 130.0, tol * 1000);
            const NvMatrix3 r = p.orientationMatrix();
            const NvMatrix3 expected = q.toMatrix();
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 3; ++j)
                    EXPECT_NEAR(r(i, j), expected(i, j), tol * 10);
        }
    }
}

TEST(NvDataPacketOrientation, FramesConvertOnRequest)
{
    // Level, x pointing north: yaw 90 in ENU, 0 in NED and NWU.
    const NvQuaternion northEnu = NvQuaternion::fromEuler({0, 0, 90});
    NvDataPacketBuilder b;
    b.setOrientation(northEnu, NDI_QUATERNION | NDP_FLOAT64 | NCF_ENU);
    b.setVector3(NDI_VELOCITY | NDP_FLOAT64 | NCF_ENU, {1, 2, 3});        // east 1, north 2, up 3
    b.setVector3(NDI_ACCELERATION | NDP_FLOAT64 | NCF_ENU, {0, 0, 9.81}); // level
    const NvDataPacket p = b.toPacket();
    for (NvCoordinateFrame f : {NCF_NED, NCF_NWU}) {
        const NvEuler e = p.orientationEuler(f);
        EXPECT_NEAR(e.roll, 0, 1e-9);
        EXPECT_NEAR(e.pitch, 0, 1e-9);
        EXPECT_NEAR(e.yaw, 0, 1e-9);
    }
    EXPECT_NEAR(p.orientationEuler(NCF_ENU).yaw, 90, 1e-9);
    const NvVector3 vNed = p.vector3(NDI_VELOCITY, NCF_NED);
    EXPECT_NEAR(vNed.x, 2, 1e-12);
    EXPECT_NEAR(vNed.y, 1, 1e-12);
    EXPECT_NEAR(vNed.z, -3, 1e-12);
    const NvVector3 vNwu = p.vector3(NDI_VELOCITY, NCF_NWU);
    EXPECT_NEAR(vNwu.x, 2, 1e-12);
    EXPECT_NEAR(vNwu.y, -1, 1e-12);
    EXPECT_NEAR(vNwu.z, 3, 1e-12);
    // A level sensor measures +g on its up axis: -g on the down axis in NED.
    EXPECT_NEAR(p.vector3(NDI_ACCELERATION, NCF_NED).z, -9.81, 1e-12);
    EXPECT_NEAR(p.vector3(NDI_ACCELERATION, NCF_NWU).z, 9.81, 1e-12);
    EXPECT_EQ(p.vector3(NDI_POSITION_ECEF, NCF_NED), NvVector3());
}

TEST(NvDataPacketOrientation, NedPacketAnswersInEnu)
{
    const NvQuaternion enu = NvQuaternion::fromEuler({10, 20, 30});
    const NvQuaternion ned = nvOrientationToFrame(enu, NCF_ENU, NCF_NED);
    NvDataPacketBuilder b;
    b.setOrientation(ned, NDI_ROTATION_MATRIX | NDP_FLOAT64 | NCF_NED);
    b.setDeltaQ(nvSensorRotationToFrame(NvQuaternion(0.99, 0.1, 0.05, -0.02).normalized(), NCF_ENU,
                                        NCF_NED),
                NDI_DELTA_Q | NDP_FLOAT64 | NCF_NED);
    const NvDataPacket p = b.toPacket();
    EXPECT_EQ(p.orientationFrame(), NCF_NED);
    EXPECT_LT(p.orientationQuaternion(NCF_ENU).angleTo(enu), 1e-12);
    EXPECT_LT(p.orientationQuaternion().angleTo(ned), 1e-12);
    const NvQuaternion dq = p.deltaQ(NCF_ENU);
    const NvQuaternion expected = NvQuaternion(0.99, 0.1, 0.05, -0.02).normalized();
    EXPECT_NEAR(dq.w, expected.w, 1e-12);
    EXPECT_NEAR(dq.x, expected.x, 1e-12);
    EXPECT_NEAR(dq.y, expected.y, 1e-12);
    EXPECT_NEAR(dq.z, expected.z, 1e-12);
}
