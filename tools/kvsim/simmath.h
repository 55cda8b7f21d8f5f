#pragma once

#include <cmath>

// The few vector and quaternion operations the motion model needs, in double precision.
// Quaternions are (w, x, y, z) and rotate body-frame vectors into the earth frame.
namespace kvsim {

struct Vec3
{
    double x = 0, y = 0, z = 0;
};

inline Vec3 operator+(Vec3 a, Vec3 b)
{
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(Vec3 a, Vec3 b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec3 operator*(double s, Vec3 a)
{
    return {s * a.x, s * a.y, s * a.z};
}
inline double dot(Vec3 a, Vec3 b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline double norm(Vec3 a)
{
    return std::sqrt(dot(a, a));
}

struct Quat
{
    double w = 1, x = 0, y = 0, z = 0;
};

inline Quat operator*(Quat a, Quat b)
{
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z,
            a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
            a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}
inline Quat conj(Quat q)
{
    return {q.w, -q.x, -q.y, -q.z};
}
// The same rotation with a non-negative scalar part.
inline Quat canonical(Quat q)
{
    return q.w < 0 ? Quat{-q.w, -q.x, -q.y, -q.z} : q;
}

inline Vec3 rotate(Quat q, Vec3 v)
{
    const Quat r = q * Quat{0, v.x, v.y, v.z} * conj(q);
    return {r.x, r.y, r.z};
}
inline Vec3 rotateInverse(Quat q, Vec3 v)
{
    return rotate(conj(q), v);
}

// Row-major 3x3.
struct Mat3
{
    double m[3][3];
};

inline Mat3 toMatrix(Quat q)
{
    const double w = q.w, x = q.x, y = q.y, z = q.z;
    return {{{1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
             {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
             {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}}};
}

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = 180.0 / kPi;

// Roll, pitch, yaw in degrees (rotation order z-y-x) of the rotation q.
inline Vec3 toEulerDeg(Quat q)
{
    const Mat3 r = toMatrix(q);
    double s = -r.m[2][0];
    s = s > 1 ? 1 : (s < -1 ? -1 : s);
    return {std::atan2(r.m[2][1], r.m[2][2]) * kDeg, std::asin(s) * kDeg,
            std::atan2(r.m[1][0], r.m[0][0]) * kDeg};
}

// Rotation order z-y-x from angles in radians.
inline Quat fromEuler(double roll, double pitch, double yaw)
{
    const double cr = std::cos(roll / 2), sr = std::sin(roll / 2);
    const double cp = std::cos(pitch / 2), sp = std::sin(pitch / 2);
    const double cy = std::cos(yaw / 2), sy = std::sin(yaw / 2);
    return {cr * cp * cy + sr * sp * sy, sr * cp * cy - cr * sp * sy, cr * sp * cy + sr * cp * sy,
            cr * cp * sy - sr * sp * cy};
}

inline Quat axisAngle(Vec3 unitAxis, double angle)
{
    const double s = std::sin(angle / 2);
    return {std::cos(angle / 2), s * unitAxis.x, s * unitAxis.y, s * unitAxis.z};
}

} // namespace kvsim
