#include "nvmath.h"

#include <algorithm>

NvVector3 NvVector3::normalized() const
{
    const double n = norm();
    return n > 0.0 ? *this / n : NvVector3();
}

NvMatrix3 NvMatrix3::fromRows(const NvVector3& r0, const NvVector3& r1, const NvVector3& r2)
{
    NvMatrix3 r;
    const NvVector3* rows[3] = {&r0, &r1, &r2};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            r.m[i][j] = (*rows[i])[j];
    return r;
}

NvMatrix3 NvMatrix3::fromColumnMajor(const double* values)
{
    NvMatrix3 r;
    for (int c = 0; c < 3; ++c)
        for (int row = 0; row < 3; ++row)
            r.m[row][c] = values[c * 3 + row];
    return r;
}

void NvMatrix3::toColumnMajor(double* values) const
{
    for (int c = 0; c < 3; ++c)
        for (int row = 0; row < 3; ++row)
            values[c * 3 + row] = m[row][c];
}

NvMatrix3 NvMatrix3::transposed() const
{
    NvMatrix3 t;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            t.m[i][j] = m[j][i];
    return t;
}

double NvMatrix3::determinant() const
{
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

NvMatrix3 operator*(const NvMatrix3& a, const NvMatrix3& b)
{
    NvMatrix3 r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            r.m[i][j] = a.m[i][0] * b.m[0][j] + a.m[i][1] * b.m[1][j] + a.m[i][2] * b.m[2][j];
    return r;
}

bool operator==(const NvMatrix3& a, const NvMatrix3& b)
{
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (a.m[i][j] != b.m[i][j])
                return false;
    return true;
}

// ---- Quaternion ---------------------------------------------------------------------

NvQuaternion NvQuaternion::fromAxisAngle(const NvVector3& axis, double angle)
{
    const NvVector3 u = axis.normalized();
    if (u.norm() == 0.0)
        return {};
    const double s = std::sin(angle / 2);
    return {std::cos(angle / 2), u.x * s, u.y * s, u.z * s};
}

NvQuaternion NvQuaternion::fromRotationVector(const NvVector3& rv)
{
    const double angle = rv.norm();
    if (angle < 1e-12) // small-angle form keeps tiny increments exact
        return NvQuaternion(1.0, rv.x / 2, rv.y / 2, rv.z / 2).normalized();
    return fromAxisAngle(rv, angle);
}

NvQuaternion NvQuaternion::normalized() const
{
    const double n = norm();
    if (!(n > 0.0))
        return {};
    const double s = w < 0 ? -1.0 / n : 1.0 / n;
    return {w * s, x * s, y * s, z * s};
}

NvVector3 NvQuaternion::rotate(const NvVector3& v) const
{
    // v + 2 u x (u x v + w v), u the vector part; q assumed unit.
    const NvVector3 u(x, y, z);
    const NvVector3 t = u.cross(v) * 2.0;
    return v + t * w + u.cross(t);
}

NvMatrix3 NvQuaternion::toMatrix() const
{
    const NvQuaternion q = normalized();
    const double xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
    const double xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
    const double wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
    NvMatrix3 r;
    r.m[0][0] = 1 - 2 * (yy + zz);
    r.m[0][1] = 2 * (xy - wz);
    r.m[0][2] = 2 * (xz + wy);
    r.m[1][0] = 2 * (xy + wz);
    r.m[1][1] = 1 - 2 * (xx + zz);
    r.m[1][2] = 2 * (yz - wx);
    r.m[2][0] = 2 * (xz - wy);
    r.m[2][1] = 2 * (yz + wx);
    r.m[2][2] = 1 - 2 * (xx + yy);
    return r;
}

NvQuaternion NvQuaternion::fromMatrix(const NvMatrix3& r)
{
    // Shepperd: divide by the largest of the four candidates for accuracy.
    const auto& m = r.m;
    const double trace = m[0][0] + m[1][1] + m[2][2];
    NvQuaternion q;
    if (trace > 0) {
        const double s = std::sqrt(trace + 1.0) * 2;
        q = {0.25 * s, (m[2][1] - m[1][2]) / s, (m[0][2] - m[2][0]) / s, (m[1][0] - m[0][1]) / s};
    } else if (m[0][0] > m[1][1] && m[0][0] > m[2][2]) {
        const double s = std::sqrt(1.0 + m[0][0] - m[1][1] - m[2][2]) * 2;
        q = {(m[2][1] - m[1][2]) / s, 0.25 * s, (m[0][1] + m[1][0]) / s, (m[0][2] + m[2][0]) / s};
    } else if (m[1][1] > m[2][2]) {
        const double s = std::sqrt(1.0 + m[1][1] - m[0][0] - m[2][2]) * 2;
        q = {(m[0][2] - m[2][0]) / s, (m[0][1] + m[1][0]) / s, 0.25 * s, (m[1][2] + m[2][1]) / s};
    } else {
        const double s = std::sqrt(1.0 + m[2][2] - m[0][0] - m[1][1]) * 2;
        q = {(m[1][0] - m[0][1]) / s, (m[0][2] + m[2][0]) / s, (m[1][2] + m[2][1]) / s, 0.25 * s};
    }
    return q.normalized();
}

NvQuaternion NvQuaternion::fromEuler(const NvEuler& e)
{
    const double hr = nvDegToRad(e.roll) / 2;
    const double hp = nvDegToRad(e.pitch) / 2;
    const double hy = nvDegToRad(e.yaw) / 2;
    const NvQuaternion qx(std::cos(hr), std::sin(hr), 0, 0);
    const NvQuaternion qy(std::cos(hp), 0, std::sin(hp), 0);
    const NvQuaternion qz(std::cos(hy), 0, 0, std::sin(hy));
    return (qz * qy * qx).normalized();
}

NvEuler NvQuaternion::toEuler() const
{
    return nvEulerFromMatrix(toMatrix());
}

double NvQuaternion::angleTo(const NvQuaternion& other) const
{
    const NvQuaternion a = normalized();
    const NvQuaternion b = other.normalized();
    // atan2 of the relative rotation keeps small angles exact where acos would not.
    const NvQuaternion r = a.conjugate() * b;
    const double v = std::sqrt(r.x * r.x + r.y * r.y + r.z * r.z);
    return 2 * std::atan2(v, std::fabs(r.w));
}

NvMatrix3 nvMatrixFromEuler(const NvEuler& e)
{
    const double cr = std::cos(nvDegToRad(e.roll)), sr = std::sin(nvDegToRad(e.roll));
    const double cp = std::cos(nvDegToRad(e.pitch)), sp = std::sin(nvDegToRad(e.pitch));
    const double cy = std::cos(nvDegToRad(e.yaw)), sy = std::sin(nvDegToRad(e.yaw));
    NvMatrix3 r;
    r.m[0][0] = cy * cp;
    r.m[0][1] = cy * sp * sr - sy * cr;
    r.m[0][2] = cy * sp * cr + sy * sr;
    r.m[1][0] = sy * cp;
    r.m[1][1] = sy * sp * sr + cy * cr;
    r.m[1][2] = sy * sp * cr - cy * sr;
    r.m[2][0] = -sp;
    r.m[2][1] = cp * sr;
    r.m[2][2] = cp * cr;
    return r;
}

NvEuler nvEulerFromMatrix(const NvMatrix3& r)
{
    const auto& m = r.m;
    const double cp = std::hypot(m[0][0], m[1][0]);
    NvEuler e;
    e.pitch = nvRadToDeg(std::atan2(-m[2][0], cp));
    if (cp > 1e-9) {
        e.roll = nvRadToDeg(std::atan2(m[2][1], m[2][2]));
        e.yaw = nvRadToDeg(std::atan2(m[1][0], m[0][0]));
    } else {
        // Gimbal lock: only roll -/+ yaw is defined; put it all in yaw.
        e.roll = 0.0;
        e.yaw = nvRadToDeg(std::atan2(-m[0][1], m[1][1]));
    }
    if (e.yaw <= -180.0)
        e.yaw += 360.0;
    if (e.roll <= -180.0)
        e.roll += 360.0;
    return e;
}

// ---- Frames ---------------------------------------------------------------------------

NvMatrix3 nvReferenceRotation(NvCoordinateFrame frame)
{
    switch (frame) {
    case NCF_NED:
        return NvMatrix3::fromRows({0, 1, 0}, {1, 0, 0}, {0, 0, -1});
    case NCF_NWU:
        return NvMatrix3::fromRows({0, 1, 0}, {-1, 0, 0}, {0, 0, 1});
    case NCF_ENU:
        break;
    }
    return NvMatrix3::identity();
}

NvMatrix3 nvSensorRotation(NvCoordinateFrame frame)
{
    if (frame == NCF_NED)
        return NvMatrix3::fromRows({1, 0, 0}, {0, -1, 0}, {0, 0, -1});
    return NvMatrix3::identity();
}

namespace {
// Quaternion forms of the rotations above.
NvQuaternion referenceQuaternion(NvCoordinateFrame frame)
{
    const double h = std::sqrt(0.5);
    switch (frame) {
    case NCF_NED:
        return {0, h, h, 0};
    case NCF_NWU:
        return {h, 0, 0, -h};
    case NCF_ENU:
        break;
    }
    return {};
}

NvQuaternion sensorQuaternion(NvCoordinateFrame frame)
{
    return frame == NCF_NED ? NvQuaternion(0, 1, 0, 0) : NvQuaternion();
}

NvCoordinateFrame cleanFrame(NvCoordinateFrame frame)
{
    // Frame bits 0xC are reserved: treat them as ENU rather than guess.
    return frame == NCF_NED || frame == NCF_NWU ? frame : NCF_ENU;
}
} // namespace

NvQuaternion nvOrientationToFrame(const NvQuaternion& q, NvCoordinateFrame from,
                                  NvCoordinateFrame to)
{
    from = cleanFrame(from);
    to = cleanFrame(to);
    if (from == to)
        return q;
    const NvQuaternion enu = referenceQuaternion(from).conjugate() * q * sensorQuaternion(from);
    return (referenceQuaternion(to) * enu * sensorQuaternion(to).conjugate()).normalized();
}

NvMatrix3 nvOrientationToFrame(const NvMatrix3& r, NvCoordinateFrame from, NvCoordinateFrame to)
{
    from = cleanFrame(from);
    to = cleanFrame(to);
    if (from == to)
        return r;
    const NvMatrix3 enu = nvReferenceRotation(from).transposed() * r * nvSensorRotation(from);
    return nvReferenceRotation(to) * enu * nvSensorRotation(to).transposed();
}

NvVector3 nvNavigationVectorToFrame(const NvVector3& v, NvCoordinateFrame from,
                                    NvCoordinateFrame to)
{
    from = cleanFrame(from);
    to = cleanFrame(to);
    if (from == to)
        return v;
    return nvReferenceRotation(to) * (nvReferenceRotation(from).transposed() * v);
}

NvVector3 nvSensorVectorToFrame(const NvVector3& v, NvCoordinateFrame from, NvCoordinateFrame to)
{
    from = cleanFrame(from);
    to = cleanFrame(to);
    if (from == to)
        return v;
    return nvSensorRotation(to) * (nvSensorRotation(from).transposed() * v);
}

NvQuaternion nvSensorRotationToFrame(const NvQuaternion& dq, NvCoordinateFrame from,
                                     NvCoordinateFrame to)
{
    from = cleanFrame(from);
    to = cleanFrame(to);
    if (from == to)
        return dq;
    const NvQuaternion s = sensorQuaternion(to) * sensorQuaternion(from).conjugate();
    const NvQuaternion r = s * dq * s.conjugate();
    // Keep the sign of the scalar part: Δq is usually tiny, not a canonical orientation.
    return {dq.w, r.x, r.y, r.z};
}

NvVectorFrameKind nvVectorFrameKind(NvDataIdentifier id)
{
    switch (nvQuantity(id)) {
    case NDI_DELTA_V:
    case NDI_ACCELERATION:
    case NDI_ACCELERATION_HR:
    case NDI_RATE_OF_TURN:
    case NDI_RATE_OF_TURN_HR:
    case NDI_MAGNETIC_FIELD:
        return NvVectorFrameKind::Sensor;
    case NDI_FREE_ACCELERATION:
    case NDI_VELOCITY:
        return NvVectorFrameKind::Navigation;
    default:
        return NvVectorFrameKind::None;
    }
}
