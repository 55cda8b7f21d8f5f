#include "nmea.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace kvsim {

namespace {

struct UtcFields
{
    int year, month, day, hour, minute, second, centiseconds;
};

UtcFields breakDown(int64_t utcNs)
{
    // Round to the 10 ms that the sentences show, carrying into the seconds.
    const int64_t cs = (utcNs + 5000000) / 10000000;
    const time_t seconds = static_cast<time_t>(cs / 100);
    tm t{};
    gmtime_r(&seconds, &t);
    return {t.tm_year + 1900,          t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
            static_cast<int>(cs % 100)};
}

std::string timeOfDay(const UtcFields& u)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d%02d%02d.%02d", u.hour, u.minute, u.second, u.centiseconds);
    return buf;
}

std::string format(const char* fmt, double value)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, fmt, value);
    return buf;
}

double wrap360(double deg)
{
    double d = std::fmod(deg, 360.0);
    if (d < 0)
        d += 360.0;
    // fmod of a tiny negative gives 360 after the shift.
    return d >= 360.0 ? 0.0 : d;
}

const char* gsvTalker(uint8_t system)
{
    switch (system) {
    case 2:
        return "GA";
    case 3:
        return "GB";
    case 6:
        return "GL";
    default:
        return "GP";
    }
}

// NMEA 4.10 system identifiers of GSA.
int gsaSystemId(uint8_t system)
{
    switch (system) {
    case 6:
        return 2;
    case 2:
        return 3;
    case 3:
        return 4;
    default:
        return 1;
    }
}

} // namespace

uint8_t nmeaChecksum(const std::string& body)
{
    uint8_t sum = 0;
    for (char c : body)
        sum ^= static_cast<uint8_t>(c);
    return sum;
}

std::string nmeaSentence(const std::string& body)
{
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X\r\n", nmeaChecksum(body));
    return "$" + body + tail;
}

std::string nmeaAngle(double degrees, bool latitude)
{
    const char hemisphere = latitude ? (degrees < 0 ? 'S' : 'N') : (degrees < 0 ? 'W' : 'E');
    // Integer units of 1e-7 minutes so that rounding carries into the degrees.
    const long long units = std::llround(std::fabs(degrees) * 60.0 * 1e7);
    const long long perDegree = 60LL * 10000000LL;
    const long long deg = units / perDegree;
    const long long rest = units % perDegree;
    char buf[40];
    std::snprintf(buf, sizeof buf, latitude ? "%02lld%02lld.%07lld,%c" : "%03lld%02lld.%07lld,%c",
                  deg, rest / 10000000LL, rest % 10000000LL, hemisphere);
    return buf;
}

std::string nmeaEpochText(const NmeaEpoch& e)
{
    const UtcFields u = breakDown(e.utcNs);
    const std::string tod = timeOfDay(u);
    const std::string lat = nmeaAngle(e.latitude, true);
    const std::string lon = nmeaAngle(e.longitude, false);
    const double speed = std::hypot(e.velocityNorth, e.velocityEast);
    const double knots = speed * 3600.0 / 1852.0;
    const double course = wrap360(std::atan2(e.velocityEast, e.velocityNorth) * 180.0 / M_PI);
    const char mode = e.quality == 4 ? 'R' : e.quality == 5 ? 'F' : 'A';
    int used = 0;
    for (const NmeaSatellite& s : e.satellites)
        used += s.used ? 1 : 0;

    std::string out;
    char buf[160];
    std::snprintf(buf, sizeof buf, "GPGGA,%s,%s,%s,%d,%02d,%.1f,%.3f,M,%.3f,M,", tod.c_str(),
                  lat.c_str(), lon.c_str(), e.quality, used, e.hdop, e.altitudeMsl,
                  e.geoidSeparation);
    std::string gga = buf;
    gga += e.correctionAge >= 0 ? format("%.1f,0000", e.correctionAge) : ",";
    out += nmeaSentence(gga);

    std::snprintf(buf, sizeof buf, "GPRMC,%s,A,%s,%s,%.3f,%.2f,%02d%02d%02d,,,%c", tod.c_str(),
                  lat.c_str(), lon.c_str(), knots, course, u.day, u.month, u.year % 100, mode);
    out += nmeaSentence(buf);

    std::snprintf(buf, sizeof buf, "GPVTG,%.2f,T,,M,%.3f,N,%.3f,K,%c", course, knots, speed * 3.6,
                  mode);
    out += nmeaSentence(buf);

    for (uint8_t system : {0, 6, 2, 3}) {
        std::string gsa = "GNGSA,A,3";
        int fields = 0;
        for (const NmeaSatellite& s : e.satellites) {
            if (s.system == system && s.used && fields < 12) {
                gsa += "," + std::to_string(s.id);
                ++fields;
            }
        }
        if (fields == 0)
            continue;
        for (; fields < 12; ++fields)
            gsa += ",";
        std::snprintf(buf, sizeof buf, ",%.1f,%.1f,%.1f,%d", e.pdop, e.hdop, e.vdop,
                      gsaSystemId(system));
        out += nmeaSentence(gsa + buf);
    }

    for (uint8_t system : {0, 6, 2, 3}) {
        std::vector<const NmeaSatellite*> inView;
        for (const NmeaSatellite& s : e.satellites)
            if (s.system == system)
                inView.push_back(&s);
        const int total = static_cast<int>((inView.size() + 3) / 4);
        for (int m = 0; m < total; ++m) {
            std::snprintf(buf, sizeof buf, "%sGSV,%d,%d,%02d", gsvTalker(system), total, m + 1,
                          static_cast<int>(inView.size()));
            std::string gsv = buf;
            for (size_t i = static_cast<size_t>(m) * 4; i < inView.size() && i < (m + 1) * 4u;
                 ++i) {
                const NmeaSatellite& s = *inView[i];
                std::snprintf(buf, sizeof buf, ",%02d,%02d,%03d,%02d", s.id, s.elevation, s.azimuth,
                              s.cno);
                gsv += buf;
            }
            out += nmeaSentence(gsv);
        }
    }

    std::snprintf(buf, sizeof buf, "GPZDA,%s,%02d,%02d,%04d,00,00", tod.c_str(), u.day, u.month,
                  u.year);
    out += nmeaSentence(buf);
    out += nmeaSentence("HEHDT," + format("%.2f", wrap360(e.heading)) + ",T");
    out += nmeaSentence("HEROT," + format("%.2f", e.rateOfTurn) + ",A");
    std::snprintf(buf, sizeof buf, "PRDID,%.2f,%.2f,%.2f", e.pitch, e.roll, wrap360(e.heading));
    out += nmeaSentence(buf);
    return out;
}

} // namespace kvsim
