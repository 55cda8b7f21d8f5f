#include "nvmath.h"

#include <gtest/gtest.h>

#include <random>

namespace {

void expectSameRotation(const NvQuaternion& a, const NvQuaternion& b, double tol)
{
    EXPECT_LT(a.angleTo(b), tol) << "a=(" << a.w << "," << a.x << "," << a.y << "," << a.z
                                 << ") b=(" << b.w << "," << b.x << "," << b.y << "," << b.z << ")";
}

NvQuaternion randomRotation(std::mt19937& rng)
{
    std::normal_distribution<double> n;
    return NvQuaternion(n(rng), n(rng), n(rng), n(rng)).normalized();
}

} // namespace

TEST(NvMath, QuaternionMatrixEulerCycleIsConsistent)
{
    std::mt19937 rng(42);
    for (int i = 0; i < 2000; ++i) {
        const NvQuaternion q = randomRotation(rng);
        const NvMatrix3 r = q.toMatrix();
        EXPECT_NEAR(r.determinant(), 1.0, 1e-12);
        const NvEuler e = nvEulerFromMatrix(r);
        EXPECT_LE(std::fabs(e.pitch), 90.0);
        EXPECT_LE(std::fabs(e.roll), 180.0);
        EXPECT_LE(std::fabs(e.yaw), 180.0);
        expectSameRotation(NvQuaternion::fromEuler(e), q, 1e-7);
        expectSameRotation(NvQuaternion::fromMatrix(r), q, 1e-7);
        const NvMatrix3 back = nvMatrixFromEuler(e);
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b)
                EXPECT_NEAR(back(a, b), r(a, b), 1e-9);
        // The quaternion and the matrix rotate vectors alike.
        const NvVector3 v(0.3, -1.2, 2.5);
        const NvVector3 viaQ = q.rotate(v);
        const NvVector3 viaR = r * v;
        EXPECT_NEAR(viaQ.x, viaR.x, 1e-12);
        EXPECT_NEAR(viaQ.y, viaR.y, 1e-12);
        EXPECT_NEAR(viaQ.z, viaR.z, 1e-12);
    }
}

TEST(NvMath, EulerConventionAndKnownAngles)
{
    // Yaw 90: sensor x points along reference y.
    const NvVector3 x = NvQuaternion::fromEuler({0, 0, 90}).rotate({1, 0, 0});
    EXPECT_NEAR(x.y, 1.0, 1e-15);
    // Pitch 30: a right-handed turn about y takes x to (cos 30, 0, -sin 30).
    const NvVector3 p = NvQuaternion::fromEuler({0, 30, 0}).rotate({1, 0, 0});
    EXPECT_NEAR(p.z, -0.5, 1e-15);
    // Roll 90: sensor y points along reference z.
    const NvVector3 r = NvQuaternion::fromEuler({90, 0, 0}).rotate({0, 1, 0});
    EXPECT_NEAR(r.z, 1.0, 1e-15);
    const NvEuler e = NvQuaternion::fromEuler({-170, 45, 179}).toEuler();
    EXPECT_NEAR(e.roll, -170, 1e-9);
    EXPECT_NEAR(e.pitch, 45, 1e-9);
    EXPECT_NEAR(e.yaw, 179, 1e-9);
    // Yaw of exactly 180 comes back as +180, never -180.
    EXPECT_NEAR(NvQuaternion::fromEuler({0, 0, 180}).toEuler().yaw, 180, 1e-9);
}

TEST(NvMath, GimbalLockKeepsTheRotation)
{
    for (double pitch : {90.0, -90.0, 89.9999999, -89.9999999}) {
        for (double roll : {0.0, 30.0, -120.0}) {
            const NvQuaternion q = NvQuaternion::fromEuler({roll, pitch, 40.0});
            const NvEuler e = q.toEuler();
            SCOPED_TRACE(::testing::Message() << "pitch " << pitch << " roll " << roll);
            EXPECT_NEAR(e.pitch, pitch, 1e-4);
            EXPECT_FALSE(std::isnan(e.roll) || std::isnan(e.yaw));
            // The angles may trade roll for yaw but must describe the same rotation.
            expectSameRotation(NvQuaternion::fromEuler(e), q, 1e-6);
        }
    }
}

TEST(NvMath, QuaternionHelpers)
{
    EXPECT_EQ(NvQuaternion(0, 0, 0, 0).normalized(), NvQuaternion());
    const NvQuaternion neg = NvQuaternion(-2, 0, 0, 0).normalized();
    EXPECT_EQ(neg, NvQuaternion(1, 0, 0, 0));
    const NvQuaternion axis = NvQuaternion::fromAxisAngle({0, 0, 2}, nvDegToRad(90));
    expectSameRotation(axis, NvQuaternion::fromEuler({0, 0, 90}), 1e-12);
    const NvQuaternion rv = NvQuaternion::fromRotationVector({0, 0, nvDegToRad(90)});
    expectSameRotation(rv, axis, 1e-12);
    const NvQuaternion tiny = NvQuaternion::fromRotationVector({1e-14, 0, 0});
    EXPECT_NEAR(tiny.x, 5e-15, 1e-20);
    EXPECT_NEAR(axis.angleTo(NvQuaternion()), nvDegToRad(90), 1e-12);
    const NvMatrix3 m = NvMatrix3::fromRows({1, 2, 3}, {4, 5, 6}, {7, 8, 10});
    double cm[9];
    m.toColumnMajor(cm);
    EXPECT_EQ(cm[1], 4.0);
    EXPECT_EQ(cm[3], 2.0);
    EXPECT_EQ(NvMatrix3::fromColumnMajor(cm), m);
    EXPECT_EQ(m.transposed()(0, 1), 4.0);
    EXPECT_NEAR(m.determinant(), -3.0, 1e-12);
    EXPECT_EQ(NvVector3(3, 0, 4).normalized(), NvVector3(0.6, 0, 0.8));
    EXPECT_EQ(NvVector3().normalized(), NvVector3());
}

TEST(NvMathFrames, RotationsAreProperAndConsistent)
{
    for (NvCoordinateFrame f : {NCF_ENU, NCF_NED, NCF_NWU}) {
        EXPECT_NEAR(nvReferenceRotation(f).determinant(), 1.0, 1e-15);
        EXPECT_NEAR(nvSensorRotation(f).determinant(), 1.0, 1e-15);
    }
    std::mt19937 rng(7);
    const NvCoordinateFrame frames[] = {NCF_ENU, NCF_NED, NCF_NWU};
    for (int i = 0; i < 200; ++i) {
        const NvQuaternion q = randomRotation(rng);
        // A sensor-frame vector taken into the reference frame gives the same physical
        // vector in every frame.
        const NvVector3 sensor(0.3, -1.1, 9.7);
        const NvVector3 reference = q.rotate(sensor);
        for (NvCoordinateFrame b : frames) {
            const NvQuaternion qb = nvOrientationToFrame(q, NCF_ENU, b);
            const NvVector3 got = qb.rotate(nvSensorVectorToFrame(sensor, NCF_ENU, b));
            const NvVector3 want = nvNavigationVectorToFrame(reference, NCF_ENU, b);
            EXPECT_NEAR(got.x, want.x, 1e-9);
            EXPECT_NEAR(got.y, want.y, 1e-9);
            EXPECT_NEAR(got.z, want.z, 1e-9);
            for (NvCoordinateFrame a : frames) {
                const NvQuaternion qa = nvOrientationToFrame(q, NCF_ENU, a);
                // Direct and via-ENU conversions agree, quaternion and matrix forms agree,
                // and the conversion goes back.
                expectSameRotation(nvOrientationToFrame(qa, a, b), qb, 1e-9);
                expectSameRotation(
                    NvQuaternion::fromMatrix(nvOrientationToFrame(qa.toMatrix(), a, b)), qb, 1e-9);
                expectSameRotation(nvOrientationToFrame(qb, b, a), qa, 1e-9);
                const NvVector3 v(1, -2, 3);
                const NvVector3 back = nvSensorVectorToFrame(nvSensorVectorToFrame(v, a, b), b, a);
                EXPECT_NEAR((back - v).norm(), 0.0, 1e-15);
            }
        }
    }
}

TEST(NvMathFrames, VectorKinds)
{
    EXPECT_EQ(nvVectorFrameKind(NDI_ACCELERATION | NCF_NED), NvVectorFrameKind::Sensor);
    EXPECT_EQ(nvVectorFrameKind(NDI_MAGNETIC_FIELD), NvVectorFrameKind::Sensor);
    EXPECT_EQ(nvVectorFrameKind(NDI_RATE_OF_TURN_HR), NvVectorFrameKind::Sensor);
    EXPECT_EQ(nvVectorFrameKind(NDI_FREE_ACCELERATION), NvVectorFrameKind::Navigation);
    EXPECT_EQ(nvVectorFrameKind(NDI_VELOCITY | 3), NvVectorFrameKind::Navigation);
    EXPECT_EQ(nvVectorFrameKind(NDI_POSITION_ECEF), NvVectorFrameKind::None);
    // Reserved frame bits (0xC) read as ENU.
    const NvVector3 v(1, 2, 3);
    EXPECT_EQ(nvNavigationVectorToFrame(v, NvCoordinateFrame(0xC), NCF_ENU), v);
}
