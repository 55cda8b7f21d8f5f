#include "motion.h"

#include "rng.h"

#include <cmath>

namespace kvsim {

namespace {

constexpr double kGravity = 9.80665;
constexpr double kWgsA = 6378137.0;
constexpr double kWgsF = 1.0 / 298.257223563;
constexpr double kWgsE2 = kWgsF * (2 - kWgsF);

Vec3 mul(const Mat3& m, Vec3 v)
{
    return {m.m[0][0] * v.x + m.m[0][1] * v.y + m.m[0][2] * v.z,
            m.m[1][0] * v.x + m.m[1][1] * v.y + m.m[1][2] * v.z,
            m.m[2][0] * v.x + m.m[2][1] * v.y + m.m[2][2] * v.z};
}

Vec3 mulTransposed(const Mat3& m, Vec3 v)
{
    return {m.m[0][0] * v.x + m.m[1][0] * v.y + m.m[2][0] * v.z,
            m.m[0][1] * v.x + m.m[1][1] * v.y + m.m[2][1] * v.z,
            m.m[0][2] * v.x + m.m[1][2] * v.y + m.m[2][2] * v.z};
}

} // namespace

double MotionModel::Signal::value(double t) const
{
    double v = base + slope * t;
    for (const Wave& w : waves)
        v += w.amplitude * std::sin(w.omega * t + w.phase);
    return v;
}

double MotionModel::Signal::rate(double t) const
{
    double v = slope;
    for (const Wave& w : waves)
        v += w.amplitude * w.omega * std::cos(w.omega * t + w.phase);
    return v;
}

double MotionModel::Signal::accel(double t) const
{
    double v = 0;
    for (const Wave& w : waves)
        v -= w.amplitude * w.omega * w.omega * std::sin(w.omega * t + w.phase);
    return v;
}

MotionModel::MotionModel(Style style, uint64_t seed)
{
    Rng rng(seed);
    auto waves = [&rng](Signal& s, int count, double maxAmplitude, double minHz, double maxHz) {
        for (int i = 0; i < count; ++i) {
            const double omega = 2 * kPi * rng.uniform(minHz, maxHz);
            s.waves.push_back(
                {maxAmplitude / count * rng.uniform(0.3, 1.0), omega, rng.uniform(0, 2 * kPi)});
        }
    };

    const double deg = 1 / kDeg;
    // Pitch stays well inside +-90 degrees so that the angles never meet gimbal lock.
    waves(m_roll, 3, 35 * deg, 0.05, 0.7);
    waves(m_pitch, 3, 30 * deg, 0.05, 0.6);
    if (style == Style::Vehicle) {
        m_radius = rng.uniform(150, 400);
        const double speed = rng.uniform(5, 15);
        m_circleRate = (rng.chance(0.5) ? 1 : -1) * speed / m_radius;
        m_circlePhase = rng.uniform(0, 2 * kPi);
        // The vehicle points along its track, with a little crabbing on top.
        m_yaw.base = m_circlePhase + (m_circleRate < 0 ? kPi : 0);
        m_yaw.slope = m_circleRate;
        waves(m_yaw, 2, 8 * deg, 0.05, 0.3);
        waves(m_pos[2], 2, 3.0, 0.01, 0.05);
        for (Signal* s : {&m_roll, &m_pitch})
            for (Wave& w : s->waves)
                w.amplitude *= 0.25;
    } else {
        m_yaw.base = rng.uniform(-kPi, kPi);
        waves(m_yaw, 3, 90 * deg, 0.02, 0.4);
        waves(m_pos[0], 2, 0.6, 0.1, 0.6);
        waves(m_pos[1], 2, 0.6, 0.1, 0.6);
        waves(m_pos[2], 2, 0.4, 0.1, 0.6);
    }

    m_lat0 = rng.uniform(-60, 60);
    m_lon0 = rng.uniform(-180, 180);
    m_h0 = rng.uniform(0, 1200);
    m_geoidSeparation = rng.uniform(-40, 60);
    m_ecef0 = geodeticToEcef(m_lat0, m_lon0, m_h0);
    m_enuToEcef0 = enuToEcef(m_lat0, m_lon0);

    // A dipole-like field: inclination follows latitude, declination is local.
    const double inclination = std::atan(2 * std::tan(m_lat0 * deg));
    const double declination = rng.uniform(-12, 12) * deg;
    m_earthField = {std::cos(inclination) * std::sin(declination),
                    std::cos(inclination) * std::cos(declination), -std::sin(inclination)};
    m_temperature0 = rng.uniform(18, 30);
}

Quat MotionModel::orientation(double t) const
{
    return fromEuler(m_roll.value(t), m_pitch.value(t), m_yaw.value(t));
}

Vec3 MotionModel::positionEnu(double t) const
{
    const double a = m_circleRate * t + m_circlePhase;
    return {m_radius * std::sin(a) + m_pos[0].value(t), -m_radius * std::cos(a) + m_pos[1].value(t),
            m_pos[2].value(t)};
}

Vec3 MotionModel::velocityEnu(double t) const
{
    const double a = m_circleRate * t + m_circlePhase;
    const double v = m_radius * m_circleRate;
    return {v * std::cos(a) + m_pos[0].rate(t), v * std::sin(a) + m_pos[1].rate(t),
            m_pos[2].rate(t)};
}

Vec3 MotionModel::accelerationEnu(double t) const
{
    const double a = m_circleRate * t + m_circlePhase;
    const double c = m_radius * m_circleRate * m_circleRate;
    return {-c * std::sin(a) + m_pos[0].accel(t), c * std::cos(a) + m_pos[1].accel(t),
            m_pos[2].accel(t)};
}

MotionSample MotionModel::sample(double t, double interval) const
{
    MotionSample s;
    s.t = t;
    s.q = orientation(t);

    // Body rates from the angle rates of the z-y-x sequence.
    const double roll = m_roll.value(t), pitch = m_pitch.value(t);
    const double dRoll = m_roll.rate(t), dPitch = m_pitch.rate(t), dYaw = m_yaw.rate(t);
    const double sr = std::sin(roll), cr = std::cos(roll);
    const double sp = std::sin(pitch), cp = std::cos(pitch);
    s.rateOfTurn = {dRoll - dYaw * sp, dPitch * cr + dYaw * cp * sr, -dPitch * sr + dYaw * cp * cr};

    const Vec3 up{0, 0, kGravity};
    s.freeAcceleration = accelerationEnu(t);
    s.acceleration = rotateInverse(s.q, s.freeAcceleration + up);
    s.magneticField = rotateInverse(s.q, m_earthField);

    // Increments over the interval, exact for this motion: the integral of the earth-frame
    // specific force is the change of velocity plus gravity times the interval.
    const double t0 = t - interval;
    const Quat q0 = orientation(t0);
    s.deltaQ = canonical(conj(q0) * s.q);
    s.deltaV = rotateInverse(q0, velocityEnu(t) - velocityEnu(t0) + interval * up);

    const Vec3 enu = positionEnu(t);
    s.ecef = m_ecef0 + mul(m_enuToEcef0, enu);
    ecefToGeodetic(s.ecef, s.latitude, s.longitude, s.altitudeEllipsoid);
    s.altitudeMsl = s.altitudeEllipsoid - m_geoidSeparation;
    const Vec3 velEcef = mul(m_enuToEcef0, velocityEnu(t));
    s.velocityEnu = mulTransposed(enuToEcef(s.latitude, s.longitude), velEcef);

    s.pressure = pressureAtAltitude(s.altitudeMsl);
    // Warms up after power-on, then wanders a little.
    s.temperature =
        m_temperature0 + 4.0 * (1 - std::exp(-t / 900.0)) + 0.3 * std::sin(2 * kPi * t / 240.0);
    return s;
}

Vec3 geodeticToEcef(double latDeg, double lonDeg, double height)
{
    const double lat = latDeg / kDeg, lon = lonDeg / kDeg;
    const double n = kWgsA / std::sqrt(1 - kWgsE2 * std::sin(lat) * std::sin(lat));
    return {(n + height) * std::cos(lat) * std::cos(lon),
            (n + height) * std::cos(lat) * std::sin(lon),
            (n * (1 - kWgsE2) + height) * std::sin(lat)};
}

void ecefToGeodetic(Vec3 ecef, double& latDeg, double& lonDeg, double& height)
{
    const double p = std::hypot(ecef.x, ecef.y);
    double lat = std::atan2(ecef.z, p * (1 - kWgsE2));
    double h = 0;
    // Converges to double precision in a handful of steps away from the poles.
    for (int i = 0; i < 6; ++i) {
        const double s = std::sin(lat);
        const double n = kWgsA / std::sqrt(1 - kWgsE2 * s * s);
        h = p / std::cos(lat) - n;
        lat = std::atan2(ecef.z, p * (1 - kWgsE2 * n / (n + h)));
    }
    latDeg = lat * kDeg;
    lonDeg = std::atan2(ecef.y, ecef.x) * kDeg;
    height = h;
}

Mat3 enuToEcef(double latDeg, double lonDeg)
{
    const double sl = std::sin(latDeg / kDeg), cl = std::cos(latDeg / kDeg);
    const double so = std::sin(lonDeg / kDeg), co = std::cos(lonDeg / kDeg);
    return {{{-so, -sl * co, cl * co}, {co, -sl * so, cl * so}, {0, cl, sl}}};
}

double pressureAtAltitude(double altitudeMsl)
{
    return 101325.0 * std::pow(1 - 2.25577e-5 * altitudeMsl, 5.25588);
}

} // namespace kvsim
