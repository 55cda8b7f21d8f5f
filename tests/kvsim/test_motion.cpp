// The emulator's motion and sentence building, in-process.

#include "motion.h"
#include "nmea.h"

#include <gtest/gtest.h>

using namespace kvsim;

namespace {

Vec3 vecPart(const Quat& q)
{
    return {q.x, q.y, q.z};
}

const MotionModel::Style kStyles[] = {MotionModel::Style::Handheld, MotionModel::Style::Vehicle};

} // namespace

TEST(KvsimMotion, RateOfTurnIsTheDerivativeOfTheOrientation)
{
    for (MotionModel::Style style : kStyles) {
        SCOPED_TRACE(style == MotionModel::Style::Handheld ? "handheld" : "vehicle");
        const MotionModel model(style, 42);
        const double h = 1e-5;
        for (double t : {0.3, 12.7, 95.1}) {
            const MotionSample s = model.sample(t, 0.01);
            const Quat before = model.sample(t - h, 0.01).q, after = model.sample(t + h, 0.01).q;
            // q' = q (0, w) / 2, so w = 2 vec(conj(q) q').
            const Quat dq{(after.w - before.w) / (2 * h), (after.x - before.x) / (2 * h),
                          (after.y - before.y) / (2 * h), (after.z - before.z) / (2 * h)};
            const Vec3 w = 2.0 * vecPart(conj(s.q) * dq);
            EXPECT_NEAR(w.x, s.rateOfTurn.x, 1e-6);
            EXPECT_NEAR(w.y, s.rateOfTurn.y, 1e-6);
            EXPECT_NEAR(w.z, s.rateOfTurn.z, 1e-6);
        }
    }
}

TEST(KvsimMotion, IncrementsAccelerationAndFieldAgreeWithTheMotion)
{
    for (MotionModel::Style style : kStyles) {
        SCOPED_TRACE(style == MotionModel::Style::Handheld ? "handheld" : "vehicle");
        const MotionModel model(style, 7);
        const double t = 33.3, interval = 0.01;
        const MotionSample s = model.sample(t, interval);

        const Vec3 force = rotate(s.q, s.acceleration) - s.freeAcceleration;
        EXPECT_NEAR(force.x, 0, 1e-9);
        EXPECT_NEAR(force.z, 9.80665, 1e-9);
        EXPECT_NEAR(norm(s.magneticField), 1.0, 1e-12);

        const Quat q0 = model.sample(t - interval, interval).q;
        const Quat expected = canonical(conj(q0) * s.q);
        EXPECT_NEAR(s.deltaQ.w, expected.w, 1e-12);
        EXPECT_NEAR(s.deltaQ.z, expected.z, 1e-12);

        // Delta v against Simpson's rule over the specific force in the start frame.
        const int n = 200;
        Vec3 sum;
        for (int i = 0; i <= n; ++i) {
            const MotionSample m = model.sample(t - interval + interval * i / n, interval);
            const double weight = (i == 0 || i == n) ? 1 : (i % 2 ? 4 : 2);
            sum = sum + weight * rotateInverse(q0, rotate(m.q, m.acceleration));
        }
        const Vec3 dv = (interval / (3.0 * n)) * sum;
        EXPECT_NEAR(dv.x, s.deltaV.x, 1e-9);
        EXPECT_NEAR(dv.y, s.deltaV.y, 1e-9);
        EXPECT_NEAR(dv.z, s.deltaV.z, 1e-9);
    }
}

TEST(KvsimMotion, PositionVelocityAndPressureAgree)
{
    for (MotionModel::Style style : kStyles) {
        SCOPED_TRACE(style == MotionModel::Style::Handheld ? "handheld" : "vehicle");
        const MotionModel model(style, 99);
        const double t = 61.0, h = 1e-3;
        const MotionSample a = model.sample(t - h, h), b = model.sample(t + h, h);
        const MotionSample s = model.sample(t, h);
        const Vec3 ecefVelocity = (1 / (2 * h)) * (b.ecef - a.ecef);
        EXPECT_NEAR(norm(ecefVelocity), norm(s.velocityEnu), 1e-4);
        EXPECT_NEAR((b.altitudeEllipsoid - a.altitudeEllipsoid) / (2 * h), s.velocityEnu.z, 1e-4);
        EXPECT_NEAR(s.pressure, pressureAtAltitude(s.altitudeMsl), 1e-9);
        EXPECT_LT(pressureAtAltitude(1000), pressureAtAltitude(0));
    }
}

TEST(KvsimNmea, ChecksumAndAngleFormat)
{
    EXPECT_EQ(nmeaSentence("GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,"),
              "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n");
    EXPECT_EQ(nmeaAngle(48.1173, true), "4807.0380000,N");
    EXPECT_EQ(nmeaAngle(-11.5, false), "01130.0000000,W");
    // Rounding carries into the degrees instead of writing 60 minutes.
    EXPECT_EQ(nmeaAngle(59.999999999999, true), "6000.0000000,N");
}
