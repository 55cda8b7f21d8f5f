#include "nvgnss.h"

using namespace nvbe;

void NvUtcTime::toWire(uint8_t* out) const
{
    writeU32(out, nanoseconds);
    writeU16(out + 4, year);
    out[6] = month;
    out[7] = day;
    out[8] = hour;
    out[9] = minute;
    out[10] = second;
    out[11] = flags;
}

NvUtcTime NvUtcTime::fromWire(const uint8_t* in)
{
    NvUtcTime t;
    t.nanoseconds = readU32(in);
    t.year = readU16(in + 4);
    t.month = in[6];
    t.day = in[7];
    t.hour = in[8];
    t.minute = in[9];
    t.second = in[10];
    t.flags = in[11];
    return t;
}

bool operator==(const NvUtcTime& a, const NvUtcTime& b)
{
    return a.nanoseconds == b.nanoseconds && a.year == b.year && a.month == b.month &&
           a.day == b.day && a.hour == b.hour && a.minute == b.minute && a.second == b.second &&
           a.flags == b.flags;
}

void NvGnssPvt::toWire(uint8_t* out) const
{
    writeU32(out + 0, timeOfWeek);
    writeU16(out + 4, year);
    out[6] = month;
    out[7] = day;
    out[8] = hour;
    out[9] = minute;
    out[10] = second;
    out[11] = valid;
    writeU32(out + 12, timeAccuracy);
    writeI32(out + 16, nano);
    out[20] = fixType;
    out[21] = flags;
    out[22] = numSv;
    out[23] = reserved;
    writeI32(out + 24, lon);
    writeI32(out + 28, lat);
    writeI32(out + 32, height);
    writeI32(out + 36, hMsl);
    writeU32(out + 40, hAcc);
    writeU32(out + 44, vAcc);
    writeI32(out + 48, velN);
    writeI32(out + 52, velE);
    writeI32(out + 56, velD);
    writeI32(out + 60, gSpeed);
    writeI32(out + 64, headMot);
    writeU32(out + 68, sAcc);
    writeU32(out + 72, headAcc);
    writeI32(out + 76, headVeh);
    writeU16(out + 80, gdop);
    writeU16(out + 82, pdop);
    writeU16(out + 84, tdop);
    writeU16(out + 86, vdop);
    writeU16(out + 88, hdop);
    writeU16(out + 90, ndop);
    writeU16(out + 92, edop);
}

NvGnssPvt NvGnssPvt::fromWire(const uint8_t* in)
{
    NvGnssPvt p;
    p.timeOfWeek = readU32(in + 0);
    p.year = readU16(in + 4);
    p.month = in[6];
    p.day = in[7];
    p.hour = in[8];
    p.minute = in[9];
    p.second = in[10];
    p.valid = in[11];
    p.timeAccuracy = readU32(in + 12);
    p.nano = readI32(in + 16);
    p.fixType = in[20];
    p.flags = in[21];
    p.numSv = in[22];
    p.reserved = in[23];
    p.lon = readI32(in + 24);
    p.lat = readI32(in + 28);
    p.height = readI32(in + 32);
    p.hMsl = readI32(in + 36);
    p.hAcc = readU32(in + 40);
    p.vAcc = readU32(in + 44);
    p.velN = readI32(in + 48);
    p.velE = readI32(in + 52);
    p.velD = readI32(in + 56);
    p.gSpeed = readI32(in + 60);
    p.headMot = readI32(in + 64);
    p.sAcc = readU32(in + 68);
    p.headAcc = readU32(in + 72);
    p.headVeh = readI32(in + 76);
    p.gdop = readU16(in + 80);
    p.pdop = readU16(in + 82);
    p.tdop = readU16(in + 84);
    p.vdop = readU16(in + 86);
    p.hdop = readU16(in + 88);
    p.ndop = readU16(in + 90);
    p.edop = readU16(in + 92);
    return p;
}

bool operator==(const NvGnssPvt& a, const NvGnssPvt& b)
{
    uint8_t wa[NvGnssPvt::WireSize];
    uint8_t wb[NvGnssPvt::WireSize];
    a.toWire(wa);
    b.toWire(wb);
    return std::memcmp(wa, wb, sizeof wa) == 0;
}

bool operator==(const NvGnssSatellite& a, const NvGnssSatellite& b)
{
    return a.system == b.system && a.satelliteId == b.satelliteId && a.cno == b.cno &&
           a.flags == b.flags && a.elevation == b.elevation && a.azimuth2 == b.azimuth2;
}

NvByteArray NvGnssSatInfo::toWire() const
{
    NvByteArray out;
    const size_t count = satellites.size() > 255 ? 255 : satellites.size();
    out.reserve(8 + 6 * count);
    appendU32(out, timeOfWeek);
    out.push_back(uint8_t(count));
    out.insert(out.end(), 3, 0);
    for (size_t i = 0; i < count; ++i) {
        const NvGnssSatellite& s = satellites[i];
        out.push_back(s.system);
        out.push_back(s.satelliteId);
        out.push_back(s.cno);
        out.push_back(s.flags);
        out.push_back(uint8_t(s.elevation));
        out.push_back(s.azimuth2);
    }
    return out;
}

bool NvGnssSatInfo::fromWire(const uint8_t* in, size_t size, NvGnssSatInfo& out)
{
    if (size < 8)
        return false;
    const size_t count = in[4];
    if (size != 8 + 6 * count)
        return false;
    out.timeOfWeek = readU32(in);
    out.satellites.resize(count);
    for (size_t i = 0; i < count; ++i) {
        const uint8_t* s = in + 8 + 6 * i;
        out.satellites[i] = {s[0], s[1], s[2], s[3], int8_t(s[4]), s[5]};
    }
    return true;
}

bool operator==(const NvGnssSatInfo& a, const NvGnssSatInfo& b)
{
    return a.timeOfWeek == b.timeOfWeek && a.satellites == b.satellites;
}

NvByteArray NvGpsStatus::toWire() const
{
    NvByteArray out;
    const size_t count = satellites.size() > 255 ? 255 : satellites.size();
    out.push_back(uint8_t(count));
    for (size_t i = 0; i < count; ++i) {
        const Satellite& s = satellites[i];
        out.insert(out.end(), {s.system, s.satelliteId, s.cno, s.flags});
    }
    return out;
}

bool NvGpsStatus::fromWire(const uint8_t* in, size_t size, NvGpsStatus& out)
{
    if (size < 1 || size != 1 + 4 * size_t(in[0]))
        return false;
    out.satellites.resize(in[0]);
    for (size_t i = 0; i < out.satellites.size(); ++i) {
        const uint8_t* s = in + 1 + 4 * i;
        out.satellites[i] = {s[0], s[1], s[2], s[3]};
    }
    return true;
}
