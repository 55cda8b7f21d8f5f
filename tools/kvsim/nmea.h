#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvsim {

struct NmeaSatellite
{
    uint8_t system = 0; // NvGnssSystem
    uint8_t id = 0;
    int elevation = 0; // degrees
    int azimuth = 0;   // degrees
    int cno = 0;       // dBHz
    bool used = false;
};

// One epoch of string output: everything the sentences of that epoch report.
struct NmeaEpoch
{
    int64_t utcNs = 0; // UTC, ns since 1970
    double latitude = 0, longitude = 0;
    double altitudeMsl = 0, geoidSeparation = 0;
    int quality = 1; // GGA fix quality: 1 GNSS, 4 RTK fixed, 5 RTK float
    double hdop = 0, vdop = 0, pdop = 0;
    double correctionAge = -1; // s; negative: no corrections
    double velocityNorth = 0, velocityEast = 0, velocityDown = 0;
    double roll = 0, pitch = 0, heading = 0; // degrees, NED conventions
    double rateOfTurn = 0;                   // degrees per minute about the vertical
    std::vector<NmeaSatellite> satellites;
};

// XOR of the characters between '$' and '*'.
uint8_t nmeaChecksum(const std::string& body);
// "$" body "*HH" CR LF.
std::string nmeaSentence(const std::string& body);
// The sentences of one epoch, in sending order: GPGGA, GPRMC, GPVTG, GNGSA (one per
// system), xxGSV, GPZDA, HEHDT, HEROT, PRDID.
std::string nmeaEpochText(const NmeaEpoch& epoch);

// Latitude or longitude as NMEA writes it ("4807.0381234,N"), minutes to 7 decimals.
std::string nmeaAngle(double degrees, bool latitude);

} // namespace kvsim
