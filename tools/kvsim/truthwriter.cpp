#include "truthwriter.h"

#include <nvenums.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace kvsim {

namespace {

void appendNumber(std::string& out, double v)
{
    out.push_back(',');
    if (std::isnan(v))
        return;
    char buf[32];
    // Shortest text that reads back to the same double.
    const auto result = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, result.ptr);
}

template <typename Int>
void appendInt(std::string& out, Int v)
{
    out.push_back(',');
    char buf[24];
    const auto result = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, result.ptr);
}

void appendReals(std::string& out, const double* v, int n)
{
    for (int i = 0; i < n; ++i)
        appendNumber(out, v[i]);
}

} // namespace

const char* sampleFateText(SampleFate fate)
{
    switch (fate) {
    case SampleFate::Sent:
        return "sent";
    case SampleFate::Dropped:
        return "dropped";
    case SampleFate::Corrupted:
        return "corrupted";
    case SampleFate::Garbage:
        return "garbage";
    case SampleFate::Overflow:
        return "overflow";
    }
    return "?";
}

TruthRow::TruthRow()
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (double* group : {q, deltaQ})
        for (int i = 0; i < 4; ++i)
            group[i] = nan;
    for (double* group :
         {euler, rateOfTurn, acceleration, freeAcceleration, magneticField, deltaV, velocity})
        for (int i = 0; i < 3; ++i)
            group[i] = nan;
    pressure = temperature = latitude = longitude = altitudeEllipsoid = altitudeMsl = nan;
}

TruthWriter::~TruthWriter()
{
    close();
}

bool TruthWriter::open(const std::string& path, std::string& error)
{
    m_file = std::fopen(path.c_str(), "we");
    if (!m_file) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::fputs(header(), m_file);
    std::fflush(m_file);
    return true;
}

void TruthWriter::writeBlock(const std::string& block)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file && !block.empty()) {
        std::fwrite(block.data(), 1, block.size(), m_file);
        std::fflush(m_file);
    }
}

void TruthWriter::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file)
        std::fclose(m_file);
    m_file = nullptr;
}

const char* TruthWriter::header()
{
    return "device,port,kind,output,status,counter,sample_time_fine,time,"
           "q0,q1,q2,q3,roll,pitch,yaw,gyr_x,gyr_y,gyr_z,acc_x,acc_y,acc_z,"
           "free_acc_x,free_acc_y,free_acc_z,mag_x,mag_y,mag_z,dq0,dq1,dq2,dq3,dv_x,dv_y,dv_z,"
           "pressure,temperature,latitude,longitude,altitude_ellipsoid,altitude_msl,"
           "vel_x,vel_y,vel_z,utc_ns,time_of_week,"
           "frame_q,frame_euler,frame_gyr,frame_acc,frame_free_acc,frame_mag,frame_dq,frame_dv,"
           "frame_vel\n";
}

void TruthWriter::format(const TruthRow& row, std::string& out)
{
    out += row.device;
    out.push_back(',');
    out += row.port;
    out.push_back(',');
    out += row.kind;
    out.push_back(',');
    out += row.output;
    out.push_back(',');
    out += sampleFateText(row.fate);
    appendInt(out, row.counter);
    appendInt(out, row.sampleTime);
    appendNumber(out, row.time);
    appendReals(out, row.q, 4);
    appendReals(out, row.euler, 3);
    appendReals(out, row.rateOfTurn, 3);
    appendReals(out, row.acceleration, 3);
    appendReals(out, row.freeAcceleration, 3);
    appendReals(out, row.magneticField, 3);
    appendReals(out, row.deltaQ, 4);
    appendReals(out, row.deltaV, 3);
    appendNumber(out, row.pressure);
    appendNumber(out, row.temperature);
    appendNumber(out, row.latitude);
    appendNumber(out, row.longitude);
    appendNumber(out, row.altitudeEllipsoid);
    appendNumber(out, row.altitudeMsl);
    appendReals(out, row.velocity, 3);
    appendInt(out, row.utcNs);
    appendInt(out, row.timeOfWeek);
    for (uint8_t f : row.frames)
        out += f == NCF_NED ? ",NED" : f == NCF_NWU ? ",NWU" : ",ENU";
    out.push_back('\n');
}

} // namespace kvsim
