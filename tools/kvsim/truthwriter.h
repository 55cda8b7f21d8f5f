#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

namespace kvsim {

// What became of a generated sample on the link.
enum class SampleFate
{
    Sent,      // written intact
    Dropped,   // left out on purpose (--drop)
    Corrupted, // written with a damaged byte, so its checksum fails
    Garbage,   // written intact after a few junk bytes
    Overflow,  // the transmit buffer was full (the host does not read fast enough)
};
const char* sampleFateText(SampleFate fate);

// One row of the truth file: the values exactly as they went into the encoder, before
// any quantisation. NaN marks a value the device does not have.
struct TruthRow
{
    std::string device; // identifier text
    std::string port;
    const char* kind = "";
    const char* output = "binary"; // "binary" or "nmea"
    SampleFate fate = SampleFate::Sent;
    uint32_t counter = 0;    // packet counter (NMEA: sentence group number)
    uint64_t sampleTime = 0; // 10 kHz ticks since power-up, before the 32-bit wrap
    double time = 0;         // seconds of emulator time of the sample
    double q[4], euler[3], rateOfTurn[3], acceleration[3], freeAcceleration[3], magneticField[3];
    double deltaQ[4], deltaV[3];
    double pressure, temperature;
    double latitude, longitude, altitudeEllipsoid, altitudeMsl, velocity[3];
    int64_t utcNs = 0;       // UTC of the sample, ns since 1970
    int64_t timeOfWeek = -1; // GNSS time of week, ms; -1 without GNSS
    // Coordinate frame (NCF_*) of each frame-dependent value, in the order of the
    // frame_* columns: q, euler, gyr, acc, free_acc, mag, dq, dv, vel.
    uint8_t frames[9] = {};

    TruthRow();
};

// The --truth CSV file, shared by all devices. Devices format rows into their own buffer
// and hand over whole blocks, so the lock is taken rarely and rows never interleave.
class TruthWriter
{
public:
    ~TruthWriter();
    bool open(const std::string& path, std::string& error);
    bool isOpen() const { return m_file != nullptr; }
    void writeBlock(const std::string& block);
    void close();

    static const char* header();
    // Appends one formatted row (with newline).
    static void format(const TruthRow& row, std::string& out);

private:
    std::mutex m_mutex; // guards m_file
    FILE* m_file = nullptr;
};

} // namespace kvsim
