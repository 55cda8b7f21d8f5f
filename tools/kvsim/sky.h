#pragma once

#include <cstdint>
#include <vector>

namespace kvsim {

// A satellite as the receiver sees it at one instant.
struct SkySatellite
{
    uint8_t system; // NvGnssSystem
    uint8_t id;
    double elevation; // degrees
    double azimuth;   // degrees
    double cno;       // dBHz
    bool used;
};

// A fixed constellation drifting slowly across the sky; elevations and signal levels
// change over minutes, as seen from a receiver on the ground.
class SkyModel
{
public:
    explicit SkyModel(uint64_t seed);
    std::vector<SkySatellite> at(double t) const;

private:
    struct Orbit
    {
        uint8_t system, id;
        double elevation0, elevationSwing, azimuth0, azimuthRate, phase, cnoOffset;
    };
    std::vector<Orbit> m_orbits;
};

} // namespace kvsim
