#pragma once

#include "simmath.h"

#include <cstdint>
#include <vector>

namespace kvsim {

// The true state of an emulated device at one instant, in the ENU earth frame and the
// x-forward, y-left, z-up sensor frame. Everything is a closed-form function of time, so
// any sample can be produced in any order and the derived values agree exactly with the
// orientation and path they come from.
struct MotionSample
{
    double t = 0;          // seconds of physical time since the emulator started
    Quat q;                // sensor to earth
    Vec3 rateOfTurn;       // rad/s, sensor frame
    Vec3 acceleration;     // specific force, m/s^2, sensor frame
    Vec3 freeAcceleration; // m/s^2, earth frame, gravity removed
    Vec3 magneticField;    // sensor frame, unit norm
    Quat deltaQ;           // rotation over the interval, in the sensor frame at its start
    Vec3 deltaV;           // m/s over the interval, sensor frame at its start
    double pressure = 0;   // Pa
    double temperature = 0;
    double latitude = 0, longitude = 0; // degrees
    double altitudeEllipsoid = 0, altitudeMsl = 0;
    Vec3 ecef;
    Vec3 velocityEnu; // m/s in the local level frame at the current position
};

class MotionModel
{
public:
    enum class Style
    {
        Handheld, // small oscillations about a fixed spot
        Vehicle   // driving a circle, heading along the track
    };

    MotionModel(Style style, uint64_t seed);

    // The state at time t; deltaQ and deltaV cover [t - interval, t].
    MotionSample sample(double t, double interval) const;

    double geoidSeparation() const { return m_geoidSeparation; }

private:
    struct Wave
    {
        double amplitude, omega, phase;
    };
    struct Signal
    {
        double base = 0, slope = 0;
        std::vector<Wave> waves;
        double value(double t) const;
        double rate(double t) const;
        double accel(double t) const;
    };

    Quat orientation(double t) const;
    Vec3 positionEnu(double t) const;
    Vec3 velocityEnu(double t) const;
    Vec3 accelerationEnu(double t) const;

    Signal m_roll, m_pitch, m_yaw;
    Signal m_pos[3];
    double m_radius = 0, m_circleRate = 0, m_circlePhase = 0;
    double m_lat0 = 0, m_lon0 = 0, m_h0 = 0;
    double m_geoidSeparation = 0;
    Vec3 m_ecef0;
    Mat3 m_enuToEcef0;
    Vec3 m_earthField;
    double m_temperature0 = 0;
};

// WGS-84 conversions.
Vec3 geodeticToEcef(double latDeg, double lonDeg, double height);
void ecefToGeodetic(Vec3 ecef, double& latDeg, double& lonDeg, double& height);
// Columns are east, north and up at the given place, in ECEF.
Mat3 enuToEcef(double latDeg, double lonDeg);
// Standard atmosphere pressure at a height above mean sea level.
double pressureAtAltitude(double altitudeMsl);

} // namespace kvsim
