#include "sky.h"

#include "rng.h"

#include <algorithm>
#include <cmath>

namespace kvsim {

SkyModel::SkyModel(uint64_t seed)
{
    Rng rng(seed);
    // GPS, GLONASS, Galileo, BeiDou with their id ranges.
    const struct
    {
        uint8_t system, count, maxId;
    } constellations[] = {{0, 7, 32}, {6, 4, 24}, {2, 4, 36}, {3, 3, 37}};
    for (const auto& c : constellations) {
        std::vector<uint8_t> ids;
        while (ids.size() < c.count) {
            const uint8_t id = static_cast<uint8_t>(1 + rng.below(c.maxId));
            if (std::find(ids.begin(), ids.end(), id) == ids.end())
                ids.push_back(id);
        }
        std::sort(ids.begin(), ids.end());
        for (uint8_t id : ids)
            m_orbits.push_back({c.system, id, rng.uniform(5, 80), rng.uniform(2, 10),
                                rng.uniform(0, 360), rng.uniform(-0.004, 0.004),
                                rng.uniform(0, 6.28), rng.uniform(-3, 3)});
    }
}

std::vector<SkySatellite> SkyModel::at(double t) const
{
    std::vector<SkySatellite> sats;
    sats.reserve(m_orbits.size());
    for (const Orbit& o : m_orbits) {
        const double elevation =
            std::clamp(o.elevation0 + o.elevationSwing * std::sin(t / 900.0 + o.phase), 1.0, 89.0);
        double azimuth = std::fmod(o.azimuth0 + o.azimuthRate * t, 360.0);
        if (azimuth < 0)
            azimuth += 360.0;
        const double cno = 28 + 20 * std::sin(elevation * 3.14159265358979 / 180.0) + o.cnoOffset +
                           std::sin(t / 7.0 + o.phase);
        sats.push_back({o.system, o.id, elevation, azimuth, cno, elevation > 10});
    }
    return sats;
}

} // namespace kvsim
