#pragma once

// The small numeric library: 3-vectors, 3x3 matrices, unit quaternions and Euler angles,
// with the conversions between the orientation forms and between the coordinate frames
// that data identifiers name.
//
// Conventions (those of the data items):
// - A quaternion (w, x, y, z) = (q0, q1, q2, q3) rotates sensor coordinates into the
//   reference frame: v_ref = q * v_sensor * conj(q).
// - The rotation matrix is the same rotation, v_ref = R v_sensor; on the wire it is
//   sent column-major (R00, R10, R20, R01, ...).
// - Euler angles are roll, pitch, yaw in degrees with R = Rz(yaw) Ry(pitch) Rx(roll);
//   pitch lies in [-90, 90], roll and yaw in (-180, 180].
// - Frames: ENU (x east, y north, z up; sensor x forward, y left, z up), NWU (x north,
//   y west, z up; same sensor axes), NED (x north, y east, z down; sensor x forward,
//   y right, z down). A level sensor with x pointing north has yaw 0 in NED and NWU and
//   yaw 90 in ENU.

#include "nvenums.h"
#include "nvexport.h"

#include <cmath>

struct NV_API NvVector3
{
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    constexpr NvVector3() = default;
    constexpr NvVector3(double x_, double y_, double z_) : x(x_), y(y_), z(z_) {}

    double operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }
    double& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }

    double dot(const NvVector3& o) const { return x * o.x + y * o.y + z * o.z; }
    NvVector3 cross(const NvVector3& o) const
    {
        return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
    }
    double norm() const { return std::sqrt(dot(*this)); }
    // Unit vector in the same direction; the zero vector stays zero.
    NvVector3 normalized() const;

    friend NvVector3 operator+(const NvVector3& a, const NvVector3& b)
    {
        return {a.x + b.x, a.y + b.y, a.z + b.z};
    }
    friend NvVector3 operator-(const NvVector3& a, const NvVector3& b)
    {
        return {a.x - b.x, a.y - b.y, a.z - b.z};
    }
    friend NvVector3 operator-(const NvVector3& a) { return {-a.x, -a.y, -a.z}; }
    friend NvVector3 operator*(const NvVector3& a, double s) { return {a.x * s, a.y * s, a.z * s}; }
    friend NvVector3 operator*(double s, const NvVector3& a) { return a * s; }
    friend NvVector3 operator/(const NvVector3& a, double s) { return {a.x / s, a.y / s, a.z / s}; }
    friend bool operator==(const NvVector3& a, const NvVector3& b)
    {
        return a.x == b.x && a.y == b.y && a.z == b.z;
    }
    friend bool operator!=(const NvVector3& a, const NvVector3& b) { return !(a == b); }
};

// 3x3 matrix, m[row][column].
struct NV_API NvMatrix3
{
    double m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

    static NvMatrix3 identity() { return NvMatrix3(); }
    static NvMatrix3 fromRows(const NvVector3& r0, const NvVector3& r1, const NvVector3& r2);
    // Nine values in wire order (column-major).
    static NvMatrix3 fromColumnMajor(const double* values);
    void toColumnMajor(double* values) const;

    double operator()(int row, int column) const { return m[row][column]; }
    double& operator()(int row, int column) { return m[row][column]; }

    NvMatrix3 transposed() const;
    double determinant() const;
    NvVector3 row(int r) const { return {m[r][0], m[r][1], m[r][2]}; }
    NvVector3 column(int c) const { return {m[0][c], m[1][c], m[2][c]}; }

    NV_API friend NvMatrix3 operator*(const NvMatrix3& a, const NvMatrix3& b);
    friend NvVector3 operator*(const NvMatrix3& a, const NvVector3& v)
    {
        return {a.m[0][0] * v.x + a.m[0][1] * v.y + a.m[0][2] * v.z,
                a.m[1][0] * v.x + a.m[1][1] * v.y + a.m[1][2] * v.z,
                a.m[2][0] * v.x + a.m[2][1] * v.y + a.m[2][2] * v.z};
    }
    NV_API friend bool operator==(const NvMatrix3& a, const NvMatrix3& b);
    friend bool operator!=(const NvMatrix3& a, const NvMatrix3& b) { return !(a == b); }
};

// Roll, pitch, yaw in degrees.
struct NvEuler
{
    double roll = 0.0;
    double pitch = 0.0;
    double yaw = 0.0;

    constexpr NvEuler() = default;
    constexpr NvEuler(double r, double p, double y) : roll(r), pitch(p), yaw(y) {}
};

struct NV_API NvQuaternion
{
    double w = 1.0;
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    constexpr NvQuaternion() = default;
    constexpr NvQuaternion(double w_, double x_, double y_, double z_) : w(w_), x(x_), y(y_), z(z_)
    {
    }

    // Rotation by `angle` radians about `axis` (need not be unit length).
    static NvQuaternion fromAxisAngle(const NvVector3& axis, double angle);
    // Rotation vector (axis times angle in radians), as integrated rates give it.
    static NvQuaternion fromRotationVector(const NvVector3& rv);
    static NvQuaternion fromMatrix(const NvMatrix3& r);
    static NvQuaternion fromEuler(const NvEuler& e);

    double norm() const { return std::sqrt(w * w + x * x + y * y + z * z); }
    // Unit quaternion with w >= 0 (the two signs are the same rotation); the zero
    // quaternion gives the identity.
    NvQuaternion normalized() const;
    NvQuaternion conjugate() const { return {w, -x, -y, -z}; }
    NvVector3 rotate(const NvVector3& v) const;
    NvMatrix3 toMatrix() const;
    NvEuler toEuler() const;
    // Angle in radians of the rotation between two orientations (0..pi), sign-blind.
    double angleTo(const NvQuaternion& other) const;

    friend NvQuaternion operator*(const NvQuaternion& a, const NvQuaternion& b)
    {
        return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z,
                a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
                a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
                a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
    }
    friend bool operator==(const NvQuaternion& a, const NvQuaternion& b)
    {
        return a.w == b.w && a.x == b.x && a.y == b.y && a.z == b.z;
    }
    friend bool operator!=(const NvQuaternion& a, const NvQuaternion& b) { return !(a == b); }
};

NV_API NvMatrix3 nvMatrixFromEuler(const NvEuler& e);
NV_API NvEuler nvEulerFromMatrix(const NvMatrix3& r);

constexpr double nvDegToRad(double deg)
{
    return deg * 0.017453292519943295769;
}
constexpr double nvRadToDeg(double rad)
{
    return rad * 57.295779513082320877;
}

// ---- Coordinate frames -----------------------------------------------------------
//
// Relative to ENU each frame has a reference rotation C (ENU coordinates of a
// reference-frame vector -> the frame's) and a sensor-axes rotation S. Orientation in
// frame f: R_f = C_f R_enu S_f^T. Navigation-frame vectors (free acceleration, velocity)
// transform with C, sensor-frame vectors (acceleration, Δv, rate of turn, magnetic
// field) with S.

NV_API NvMatrix3 nvReferenceRotation(NvCoordinateFrame frame);
NV_API NvMatrix3 nvSensorRotation(NvCoordinateFrame frame);

NV_API NvQuaternion nvOrientationToFrame(const NvQuaternion& q, NvCoordinateFrame from,
                                         NvCoordinateFrame to);
NV_API NvMatrix3 nvOrientationToFrame(const NvMatrix3& r, NvCoordinateFrame from,
                                      NvCoordinateFrame to);
NV_API NvVector3 nvNavigationVectorToFrame(const NvVector3& v, NvCoordinateFrame from,
                                           NvCoordinateFrame to);
NV_API NvVector3 nvSensorVectorToFrame(const NvVector3& v, NvCoordinateFrame from,
                                       NvCoordinateFrame to);
// A rotation increment (Δq) lives in the sensor frame: its axis turns with S.
NV_API NvQuaternion nvSensorRotationToFrame(const NvQuaternion& dq, NvCoordinateFrame from,
                                            NvCoordinateFrame to);

// Which of the above applies to a quantity's 3-vector.
enum class NvVectorFrameKind
{
    None,       // frame bits have no meaning (positions, altitudes, ...)
    Sensor,     // acceleration, Δv, rate of turn, magnetic field, their HR forms
    Navigation, // free acceleration, velocity
};
NV_API NvVectorFrameKind nvVectorFrameKind(NvDataIdentifier id);
