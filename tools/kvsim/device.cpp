#include "device.h"

#include "nmea.h"
#include "rng.h"

#include <nvbytes.h>
#include <nvgnss.h>
#include <nvmath.h>
#include <nvversion.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <numeric>

namespace kvsim {

namespace {

constexpr int64_t kBootNs = 50'000'000;        // reset to WakeUp
constexpr int64_t kWakeWindowNs = 500'000'000; // WakeUp to automatic measurement
constexpr int64_t kGpsEpochUnixS = 315964800;  // 1980-01-06
constexpr int64_t kLeapSeconds = 18;           // GPS - UTC
constexpr uint64_t kTicksPerSecond = 10000;
constexpr uint64_t kGnssEpochTicks = 2500; // GNSS solutions come at 4 Hz
constexpr size_t kMaxSyncSettings = 4;
constexpr int64_t kRtcmValidNs = 10'000'000'000;

// Status word bits of our devices.
enum StatusBit : uint32_t
{
    SB_SELF_TEST_OK = 0x01,
    SB_ORIENTATION_VALID = 0x02,
    SB_GNSS_FIX = 0x04,
    SB_NO_ROTATION_UPDATE = 0x08,
    SB_RTK_FLOAT = 0x10,
    SB_RTK_FIXED = 0x20,
};

int64_t realtimeNs()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

NvQuaternion toNv(const Quat& q)
{
    return {q.w, q.x, q.y, q.z};
}
NvVector3 toNv(const Vec3& v)
{
    return {v.x, v.y, v.z};
}

NvUtcTime utcFields(int64_t utcNs, uint8_t flags)
{
    const int64_t seconds = utcNs >= 0 ? utcNs / 1'000'000'000 : (utcNs + 1) / 1'000'000'000 - 1;
    const time_t tt = static_cast<time_t>(seconds);
    tm t{};
    gmtime_r(&tt, &t);
    NvUtcTime u;
    u.nanoseconds = static_cast<uint32_t>(utcNs - seconds * 1'000'000'000);
    u.year = static_cast<uint16_t>(t.tm_year + 1900);
    u.month = static_cast<uint8_t>(t.tm_mon + 1);
    u.day = static_cast<uint8_t>(t.tm_mday);
    u.hour = static_cast<uint8_t>(t.tm_hour);
    u.minute = static_cast<uint8_t>(t.tm_min);
    u.second = static_cast<uint8_t>(t.tm_sec);
    u.flags = flags;
    return u;
}

bool utcToNs(const NvUtcTime& u, int64_t& ns)
{
    static const int daysInMonth[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (u.year < 1970 || u.year > 2200 || u.month < 1 || u.month > 12 || u.day < 1 ||
        u.day > daysInMonth[u.month - 1] || u.hour > 23 || u.minute > 59 || u.second > 60 ||
        u.nanoseconds > 999'999'999)
        return false;
    tm t{};
    t.tm_year = u.year - 1900;
    t.tm_mon = u.month - 1;
    t.tm_mday = u.day;
    t.tm_hour = u.hour;
    t.tm_min = u.minute;
    t.tm_sec = u.second;
    ns = int64_t(timegm(&t)) * 1'000'000'000 + u.nanoseconds;
    return true;
}

int64_t timeOfWeekMs(int64_t utcNs)
{
    const int64_t gpsMs = (utcNs / 1'000'000) - (kGpsEpochUnixS - kLeapSeconds) * 1000;
    const int64_t weekMs = 604800LL * 1000;
    return ((gpsMs % weekMs) + weekMs) % weekMs;
}

// CRC-24Q of RTCM 3.
uint32_t crc24q(const uint8_t* data, size_t size)
{
    uint32_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc ^= uint32_t(data[i]) << 16;
        for (int b = 0; b < 8; ++b) {
            crc <<= 1;
            if (crc & 0x1000000)
                crc ^= 0x1864CFB;
        }
    }
    return crc & 0xFFFFFF;
}

// Quantities whose frame decides the truth columns, in frame_* column order.
const uint16_t kFrameQuantities[9] = {NDI_QUATERNION,   NDI_EULER_ANGLES,      NDI_RATE_OF_TURN,
                                      NDI_ACCELERATION, NDI_FREE_ACCELERATION, NDI_MAGNETIC_FIELD,
                                      NDI_DELTA_Q,      NDI_DELTA_V,           NDI_VELOCITY};

} // namespace

DeviceConfig EmulatedDevice::defaultConfig(const KindInfo& info, const DeviceSetup& setup)
{
    DeviceConfig c;
    for (const OutputRecord& r : info.defaultOutput) {
        uint16_t f = r.frequency;
        // A rate preset applies to the items that can run at it.
        if (setup.rate && f == 100 && info.supportsRate(r.id, setup.rate))
            f = setup.rate;
        c.output.emplace_back(r.id, f);
    }
    c.filterProfile = info.defaultProfile;
    c.stringType = setup.nmea ? SOT_NMEA : SOT_NONE;
    c.gnssPlatform = info.hasGnss ? 4 : 0; // automotive
    // Port words: baud rate code in bits 0-7, protocol in bits 8-15 (0 Nbus, 1 NMEA, 2 RTCM).
    c.portConfig = {NBR_115200, NBR_115200};
    if (info.hasGnss)
        c.portConfig.push_back(0x0200u | NBR_115200);
    return c;
}

EmulatedDevice::EmulatedDevice(const DeviceSetup& setup, uint32_t index, uint64_t seed,
                               int64_t originNs, TruthWriter* truth)
    : m_info(kindInfo(setup.kind)), m_setup(setup), m_id(nvEmulatedDeviceId(m_info.name, index)),
      m_motion(m_info.motion, Rng::derive(seed, m_id.toInt())),
      m_sky(Rng::derive(seed, m_id.toInt() ^ 0x5A5A5A5A5A5AULL)), m_originNs(originNs),
      m_powerUpNs(originNs), m_config(defaultConfig(m_info, setup)), m_truth(truth)
{
    m_truthRow.device = m_id.toString();
    m_truthRow.kind = m_info.name;
}

void EmulatedDevice::powerUp(int64_t nowNs, LinkSink& link)
{
    (void)link;
    m_powerUpNs = nowNs;
    m_utcAtPowerUpNs = realtimeNs();
    m_lastTruthFlushNs = nowNs;
    if (m_setup.measure) {
        startMeasurement(nowNs);
    } else if (m_setup.wakeUp) {
        m_state = State::Booting;
        m_stateDeadline = nowNs;
    } else {
        m_state = State::Configuration;
    }
}

void EmulatedDevice::reboot(int64_t nowNs)
{
    stopMeasurement();
    m_state = State::Booting;
    m_stateDeadline = nowNs + kBootNs;
    m_powerUpNs = nowNs + kBootNs;
    m_utcAtPowerUpNs = realtimeNs() + kBootNs;
    m_utcSet = false;
    m_packetCounter = 0;
    m_headingOffset = m_config.storedHeadingOffset;
    m_noRotationUntilNs = 0;
}

uint64_t EmulatedDevice::ticksAt(int64_t nowNs) const
{
    return nowNs <= m_powerUpNs ? 0 : uint64_t(nowNs - m_powerUpNs) / kNsPerTick;
}

int64_t EmulatedDevice::nsAtTick(uint64_t tick) const
{
    return m_powerUpNs + int64_t(tick) * kNsPerTick;
}

double EmulatedDevice::motionTime(uint64_t tick) const
{
    return double(m_powerUpNs - m_originNs) * 1e-9 + double(tick) / kTicksPerSecond;
}

int64_t EmulatedDevice::utcNsAtTick(uint64_t tick) const
{
    return m_utcAtPowerUpNs + int64_t(tick) * kNsPerTick;
}

bool EmulatedDevice::rtkActive(uint64_t tick) const
{
    return m_info.hasGnss && nsAtTick(tick) - m_lastRtcmNs < kRtcmValidNs;
}

bool EmulatedDevice::rtkFixed(uint64_t tick) const
{
    // A few correction frames are needed before the ambiguities resolve.
    return rtkActive(tick) && m_rtcmFrames >= 3;
}

uint32_t EmulatedDevice::statusWord(uint64_t tick) const
{
    uint32_t s = SB_SELF_TEST_OK;
    if (m_info.hasOrientation)
        s |= SB_ORIENTATION_VALID;
    if (m_info.hasGnss)
        s |= SB_GNSS_FIX;
    if (nsAtTick(tick) < m_noRotationUntilNs)
        s |= SB_NO_ROTATION_UPDATE;
    if (rtkActive(tick))
        s |= rtkFixed(tick) ? SB_RTK_FIXED : SB_RTK_FLOAT;
    return s;
}

bool EmulatedDevice::nmeaOutput() const
{
    return m_info.hasGnss && m_config.stringType == SOT_NMEA;
}

const char* EmulatedDevice::stateText() const
{
    switch (m_state) {
    case State::Booting:
        return "resetting";
    case State::WaitingForAck:
        return "sent WakeUp";
    case State::Configuration:
        return "configuration";
    case State::Measurement:
        return "measurement";
    }
    return "?";
}

void EmulatedDevice::measureAtRate(int64_t nowNs, uint16_t rate)
{
    m_fixedRate = rate;
    startMeasurement(nowNs);
}

void EmulatedDevice::goToConfig()
{
    stopMeasurement();
    m_state = State::Configuration;
    m_stateDeadline = kNever;
}

uint64_t EmulatedDevice::gridTick(uint64_t gridIndex) const
{
    // Exact for the divisors of 10 kHz; a master's 60 and 120 Hz fall between ticks and
    // take the tick before.
    return nmeaOutput() ? gridIndex * m_gridTicks : gridIndex * kTicksPerSecond / m_gridRate;
}

void EmulatedDevice::startMeasurement(int64_t nowNs)
{
    m_items.clear();
    uint32_t lcm = 1;
    bool anyRate = false;
    for (const NvOutputConfiguration& r : m_config.output) {
        // Under a master every item comes with every packet, at the master's rate.
        const uint16_t frequency = m_fixedRate ? NV_FREQUENCY_EVERY_PACKET : r.frequency;
        m_items.push_back({r.dataIdentifier, frequency, 0});
        if (frequency != NV_FREQUENCY_EVERY_PACKET) {
            lcm = std::lcm(lcm, uint32_t(frequency));
            anyRate = true;
        }
    }
    // Every supported rate divides 2000, so the common grid never runs faster than that.
    m_gridRate = m_fixedRate ? m_fixedRate : anyRate ? lcm : m_info.idleRate;
    for (ActiveItem& item : m_items)
        if (item.frequency != NV_FREQUENCY_EVERY_PACKET)
            item.divisor = m_gridRate / item.frequency;
    if (nmeaOutput()) {
        m_gridTicks = uint64_t(m_config.stringPeriod) * kTicksPerSecond / 1000;
        m_nextGrid = ticksAt(nowNs) / m_gridTicks + 1;
    } else {
        m_gridTicks = kTicksPerSecond / m_gridRate;
        m_nextGrid = ticksAt(nowNs) * m_gridRate / kTicksPerSecond + 1;
    }
    m_packetCounter = 0;
    m_state = State::Measurement;
    m_stateDeadline = kNever;
    if (!nmeaOutput())
        while (!isDue(m_nextGrid))
            ++m_nextGrid;
}

bool EmulatedDevice::isDue(uint64_t gridIndex) const
{
    // Items at a rate set the packet times; every-packet items only ride along, so with
    // nothing but those the packets come at the grid rate.
    bool anyRate = false;
    for (const ActiveItem& item : m_items) {
        if (item.divisor == 0)
            continue;
        if (gridIndex % item.divisor == 0)
            return true;
        anyRate = true;
    }
    return !anyRate;
}

void EmulatedDevice::stopMeasurement()
{
    if (m_state == State::Measurement)
        m_state = State::Configuration;
    m_fixedRate = 0;
    flushTruth();
}

int64_t EmulatedDevice::nextDeadline() const
{
    switch (m_state) {
    case State::Booting:
    case State::WaitingForAck:
        return m_stateDeadline;
    case State::Measurement:
        if (m_items.empty() && !nmeaOutput())
            return kNever; // nothing configured, nothing sent
        return nsAtTick(gridTick(m_nextGrid));
    case State::Configuration:
        break;
    }
    return kNever;
}

void EmulatedDevice::advance(int64_t nowNs, LinkSink& link, int maxSamples)
{
    if (m_state == State::Booting && nowNs >= m_stateDeadline) {
        link.sendControl(NvMessage(m_dataBusId, NvMid::WakeUp));
        m_state = State::WaitingForAck;
        m_stateDeadline += kWakeWindowNs;
    }
    if (m_state == State::WaitingForAck && nowNs >= m_stateDeadline) {
        if (m_config.optionFlags & OF_DISABLE_AUTO_MEASUREMENT) {
            m_state = State::Configuration;
            m_stateDeadline = kNever;
        } else {
            startMeasurement(m_stateDeadline);
        }
    }
    if (m_state == State::Measurement && (!m_items.empty() || nmeaOutput())) {
        const bool nmea = nmeaOutput();
        for (int i = 0; i < maxSamples && nsAtTick(gridTick(m_nextGrid)) <= nowNs; ++i) {
            if (nmea) {
                emitNmeaEpoch(gridTick(m_nextGrid), link);
                ++m_nextGrid;
            } else {
                emitSample(m_nextGrid, link);
                do {
                    ++m_nextGrid;
                } while (!isDue(m_nextGrid));
            }
        }
    }
    if (m_truthBuffer.size() > 256 * 1024 ||
        (!m_truthBuffer.empty() && nowNs - m_lastTruthFlushNs > 200'000'000)) {
        flushTruth();
        m_lastTruthFlushNs = nowNs;
    }
}

void EmulatedDevice::flushTruth()
{
    if (m_truth && !m_truthBuffer.empty())
        m_truth->writeBlock(m_truthBuffer);
    m_truthBuffer.clear();
}

void EmulatedDevice::recordTruth(TruthRow& row, SampleFate fate)
{
    if (!m_truth)
        return;
    row.fate = fate;
    TruthWriter::format(row, m_truthBuffer);
}

NvMessage EmulatedDevice::buildPacket(uint64_t tick, bool all, uint64_t gridIndex, TruthRow& row)
{
    const double t = motionTime(tick);
    const double gridInterval =
        m_fixedRate ? 1.0 / m_fixedRate : double(m_gridTicks ? m_gridTicks : 100) / kTicksPerSecond;
    const MotionSample s = m_motion.sample(t, gridInterval);
    const int64_t utcNs = utcNsAtTick(tick);

    // A heading reset turns the navigation frame about the vertical.
    const Quat turn = axisAngle({0, 0, 1}, -m_headingOffset);
    const NvQuaternion qEnu = toNv(turn * s.q);
    const NvVector3 freeAccEnu = toNv(rotate(turn, s.freeAcceleration));

    auto frameOf = [this](uint16_t quantity) {
        const NvOutputConfiguration* r = nvFindOutput(m_config.output, quantity);
        return r ? nvCoordinateFrame(r->dataIdentifier) : NCF_ENU;
    };
    auto intervalOf = [&](uint16_t quantity) {
        const NvOutputConfiguration* r = nvFindOutput(m_config.output, quantity);
        return r && !r->isEveryPacket() && !m_fixedRate ? 1.0 / r->frequency : gridInterval;
    };
    auto increments = [&](double interval, NvQuaternion& dq, NvVector3& dv) {
        const MotionSample inc = interval == gridInterval ? s : m_motion.sample(t, interval);
        dq = toNv(inc.deltaQ);
        dv = toNv(inc.deltaV);
    };

    row.counter = m_packetCounter;
    row.sampleTime = tick;
    row.time = t;
    row.utcNs = utcNs;
    row.output = "binary";
    row.timeOfWeek = m_info.hasGnss ? timeOfWeekMs(utcNs) : -1;
    for (int i = 0; i < 9; ++i)
        row.frames[i] = static_cast<uint8_t>(frameOf(kFrameQuantities[i]));

    // The truth columns, each in the frame of its configured item.
    {
        const NvQuaternion q =
            nvOrientationToFrame(qEnu, NCF_ENU, NvCoordinateFrame(row.frames[0])).normalized();
        row.q[0] = q.w, row.q[1] = q.x, row.q[2] = q.y, row.q[3] = q.z;
        const NvEuler e = nvOrientationToFrame(qEnu, NCF_ENU, NvCoordinateFrame(row.frames[1]))
                              .normalized()
                              .toEuler();
        row.euler[0] = e.roll, row.euler[1] = e.pitch, row.euler[2] = e.yaw;
        auto put = [](double* dst, const NvVector3& v) {
            dst[0] = v.x, dst[1] = v.y, dst[2] = v.z;
        };
        auto sensor = [&](const Vec3& v, int col) {
            return nvSensorVectorToFrame(toNv(v), NCF_ENU, NvCoordinateFrame(row.frames[col]));
        };
        put(row.rateOfTurn, sensor(s.rateOfTurn, 2));
        put(row.acceleration, sensor(s.acceleration, 3));
        put(row.freeAcceleration,
            nvNavigationVectorToFrame(freeAccEnu, NCF_ENU, NvCoordinateFrame(row.frames[4])));
        put(row.magneticField, sensor(s.magneticField, 5));
        NvQuaternion dq, dqUnused;
        NvVector3 dv, dvUnused;
        increments(intervalOf(NDI_DELTA_Q), dq, dvUnused);
        increments(intervalOf(NDI_DELTA_V), dqUnused, dv);
        dq = nvSensorRotationToFrame(dq, NCF_ENU, NvCoordinateFrame(row.frames[6])).normalized();
        row.deltaQ[0] = dq.w, row.deltaQ[1] = dq.x, row.deltaQ[2] = dq.y, row.deltaQ[3] = dq.z;
        put(row.deltaV, nvSensorVectorToFrame(dv, NCF_ENU, NvCoordinateFrame(row.frames[7])));
        row.pressure = s.pressure;
        row.temperature = s.temperature;
        if (m_info.hasGnss) {
            row.latitude = s.latitude;
            row.longitude = s.longitude;
            row.altitudeEllipsoid = s.altitudeEllipsoid;
            row.altitudeMsl = s.altitudeMsl;
            put(row.velocity, nvNavigationVectorToFrame(toNv(s.velocityEnu), NCF_ENU,
                                                        NvCoordinateFrame(row.frames[8])));
        }
    }

    // Packets since the latest GNSS solution, for the GNSS age item.
    if (tick / kGnssEpochTicks != m_gnssEpoch) {
        m_gnssEpoch = tick / kGnssEpochTicks;
        m_packetsSinceGnss = 0;
    } else if (m_packetsSinceGnss < 255) {
        ++m_packetsSinceGnss;
    }

    m_builder.clear();
    m_builder.setBusId(m_dataBusId);
    for (const ActiveItem& item : m_items) {
        if (!all && item.divisor != 0 && gridIndex % item.divisor != 0)
            continue;
        const NvDataIdentifier id = item.id;
        const uint16_t quantity = nvQuantity(id);
        const NvCoordinateFrame frame = nvCoordinateFrame(id);
        const int col =
            int(std::find(std::begin(kFrameQuantities), std::end(kFrameQuantities), quantity) -
                std::begin(kFrameQuantities));
        // Values go in exactly as the truth row holds them when the frames agree.
        const bool sameFrame = col < 9 && row.frames[col] == frame;
        switch (quantity) {
        case NDI_PACKET_COUNTER:
            m_builder.setPacketCounter(m_packetCounter);
            break;
        case NDI_SAMPLE_TIME_FINE:
            m_builder.setSampleTimeFine(uint32_t(tick));
            break;
        case NDI_SAMPLE_TIME_COARSE:
            m_builder.setSampleTimeCoarse(uint32_t(tick / kTicksPerSecond));
            break;
        case NDI_UTC_TIME: {
            uint8_t flags = m_utcSet ? NvUtcTime::ValidUtc : 0;
            if (m_info.hasGnss)
                flags =
                    NvUtcTime::ValidUtc | NvUtcTime::ValidTimeOfWeek | NvUtcTime::ValidWeekNumber;
            m_builder.setUtcTime(utcFields(utcNs, flags));
            break;
        }
        case NDI_TIME_OF_WEEK:
            m_builder.setTimeOfWeek(uint32_t(timeOfWeekMs(utcNs)));
            break;
        case NDI_GNSS_AGE:
            m_builder.setGnssAge(m_packetsSinceGnss);
            break;
        case NDI_STATUS_BYTE:
            m_builder.setStatusByte(uint8_t(statusWord(tick)));
            break;
        case NDI_STATUS_WORD:
            m_builder.setStatusWord(statusWord(tick));
            break;
        case NDI_TEMPERATURE:
            m_builder.setScalar(id, s.temperature);
            break;
        case NDI_BARO_PRESSURE:
            m_builder.setPressure(uint32_t(std::lround(s.pressure)));
            break;
        case NDI_QUATERNION:
        case NDI_ROTATION_MATRIX:
        case NDI_EULER_ANGLES: {
            const NvQuaternion q = nvOrientationToFrame(qEnu, NCF_ENU, frame).normalized();
            if (quantity == NDI_QUATERNION)
                m_builder.setQuaternion(q, id);
            else if (quantity == NDI_ROTATION_MATRIX)
                m_builder.setRotationMatrix(q.toMatrix(), id);
            else
                m_builder.setEuler(q.toEuler(), id);
            break;
        }
        case NDI_ACCELERATION:
        case NDI_ACCELERATION_HR:
            m_builder.setVector3(id, nvSensorVectorToFrame(toNv(s.acceleration), NCF_ENU, frame));
            break;
        case NDI_RATE_OF_TURN:
        case NDI_RATE_OF_TURN_HR:
            m_builder.setVector3(id, nvSensorVectorToFrame(toNv(s.rateOfTurn), NCF_ENU, frame));
            break;
        case NDI_MAGNETIC_FIELD:
            m_builder.setVector3(id, nvSensorVectorToFrame(toNv(s.magneticField), NCF_ENU, frame));
            break;
        case NDI_FREE_ACCELERATION:
            m_builder.setVector3(id, nvNavigationVectorToFrame(freeAccEnu, NCF_ENU, frame));
            break;
        case NDI_DELTA_Q:
            if (sameFrame) {
                m_builder.setDeltaQ({row.deltaQ[0], row.deltaQ[1], row.deltaQ[2], row.deltaQ[3]},
                                    id);
            } else {
                NvQuaternion dq;
                NvVector3 dv;
                increments(intervalOf(NDI_DELTA_Q), dq, dv);
                m_builder.setDeltaQ(nvSensorRotationToFrame(dq, NCF_ENU, frame).normalized(), id);
            }
            break;
        case NDI_DELTA_V:
            if (sameFrame) {
                m_builder.setVector3(id, {row.deltaV[0], row.deltaV[1], row.deltaV[2]});
            } else {
                NvQuaternion dq;
                NvVector3 dv;
                increments(intervalOf(NDI_DELTA_V), dq, dv);
                m_builder.setVector3(id, nvSensorVectorToFrame(dv, NCF_ENU, frame));
            }
            break;
        case NDI_ALTITUDE_MSL:
            m_builder.setScalar(id, s.altitudeMsl);
            break;
        case NDI_ALTITUDE_ELLIPSOID:
            m_builder.setScalar(id, s.altitudeEllipsoid);
            break;
        case NDI_POSITION_ECEF:
            m_builder.setVector3(id, toNv(s.ecef));
            break;
        case NDI_LAT_LON:
            m_builder.setLatLon(s.latitude, s.longitude, id);
            break;
        case NDI_VELOCITY:
            m_builder.setVector3(id,
                                 nvNavigationVectorToFrame(toNv(s.velocityEnu), NCF_ENU, frame));
            break;
        case NDI_GNSS_PVT_DATA: {
            const NvVector3 ned = nvNavigationVectorToFrame(toNv(s.velocityEnu), NCF_ENU, NCF_NED);
            const double heading =
                nvOrientationToFrame(qEnu, NCF_ENU, NCF_NED).normalized().toEuler().yaw;
            m_builder.setGnssPvt(makePvt(tick, s, {ned.x, ned.y, ned.z}, heading));
            break;
        }
        case NDI_GNSS_SAT_INFO: {
            NvGnssSatInfo info;
            info.timeOfWeek = uint32_t(timeOfWeekMs(utcNs));
            for (const SkySatellite& sat : m_sky.at(t)) {
                NvGnssSatellite g;
                g.system = sat.system;
                g.satelliteId = sat.id;
                g.cno = uint8_t(std::lround(sat.cno));
                g.flags = uint8_t((sat.used ? NvGnssSatellite::UsedForNavigation : 0) | 0x10 |
                                  (sat.cno > 30 ? 7 : 4) |
                                  (rtkActive(tick) ? NvGnssSatellite::DifferentialAvailable : 0));
                g.elevation = int8_t(std::lround(sat.elevation));
                g.azimuth2 = uint8_t(std::lround(sat.azimuth / 2) % 180);
                info.satellites.push_back(g);
            }
            m_builder.setGnssSatInfo(info);
            break;
        }
        case NDI_GNSS_PVT_PULSE: {
            // The last whole second of GNSS time before the sample.
            const uint64_t sinceSecond =
                uint64_t(((utcNs % 1'000'000'000) + 1'000'000'000) % 1'000'000'000) / kNsPerTick;
            m_builder.setGnssPvtPulse(uint32_t(tick >= sinceSecond ? tick - sinceSecond : 0));
            break;
        }
        default:
            break;
        }
    }
    return m_builder.toMessage();
}

NvGnssPvt EmulatedDevice::makePvt(uint64_t tick, const MotionSample& s, const Vec3& velNed,
                                  double heading) const
{
    // The solution of the latest GNSS epoch at or before the sample.
    const int64_t utcNs = utcNsAtTick(tick);
    const NvUtcTime u = utcFields(utcNs, 0);
    const bool rtk = rtkActive(tick);
    const bool fixed = rtkFixed(tick);
    int used = 0;
    for (const SkySatellite& sat : m_sky.at(s.t))
        used += sat.used ? 1 : 0;

    NvGnssPvt p;
    p.timeOfWeek = uint32_t(timeOfWeekMs(utcNs));
    p.year = u.year;
    p.month = u.month;
    p.day = u.day;
    p.hour = u.hour;
    p.minute = u.minute;
    p.second = u.second;
    p.valid = NvGnssPvt::ValidDate | NvGnssPvt::ValidTime | NvGnssPvt::FullyResolved;
    p.timeAccuracy = 20;
    p.nano = int32_t(u.nanoseconds);
    p.fixType = NvGnssPvt::Fix3D;
    p.flags = NvGnssPvt::GnssFixOk;
    if (rtk)
        p.flags |= NvGnssPvt::DifferentialSolution |
                   (fixed ? NvGnssPvt::CarrierFixed : NvGnssPvt::CarrierFloat);
    p.numSv = uint8_t(used);
    p.lon = int32_t(std::lround(s.longitude * 1e7));
    p.lat = int32_t(std::lround(s.latitude * 1e7));
    p.height = int32_t(std::lround(s.altitudeEllipsoid * 1000));
    p.hMsl = int32_t(std::lround(s.altitudeMsl * 1000));
    p.hAcc = fixed ? 14 : rtk ? 250 : 900;
    p.vAcc = fixed ? 22 : rtk ? 400 : 1400;
    p.velN = int32_t(std::lround(velNed.x * 1000));
    p.velE = int32_t(std::lround(velNed.y * 1000));
    p.velD = int32_t(std::lround(velNed.z * 1000));
    p.gSpeed = int32_t(std::lround(std::hypot(velNed.x, velNed.y) * 1000));
    double course = std::atan2(velNed.y, velNed.x) * kDeg;
    if (course < 0)
        course += 360;
    p.headMot = int32_t(std::lround(course * 1e5));
    p.sAcc = 80;
    p.headAcc = 50000;
    double h = heading < 0 ? heading + 360 : heading;
    p.headVeh = int32_t(std::lround(h * 1e5));
    p.gdop = 140;
    p.pdop = 120;
    p.tdop = 70;
    p.vdop = 95;
    p.hdop = 75;
    p.ndop = 55;
    p.edop = 50;
    return p;
}

void EmulatedDevice::emitSample(uint64_t gridIndex, LinkSink& link)
{
    const uint64_t tick = gridTick(gridIndex);
    TruthRow row = m_truthRow;
    const NvMessage message = buildPacket(tick, false, gridIndex, row);
    ++m_packetCounter;
    const SampleFate fate = link.sendData(message.frame(), message.frameSize(), true);
    recordTruth(row, fate);
}

void EmulatedDevice::emitNmeaEpoch(uint64_t tick, LinkSink& link)
{
    const double t = motionTime(tick);
    const MotionSample s = m_motion.sample(t, double(m_gridTicks) / kTicksPerSecond);
    const int64_t utcNs = utcNsAtTick(tick);
    const Quat turn = axisAngle({0, 0, 1}, -m_headingOffset);
    const NvQuaternion qNed = nvOrientationToFrame(toNv(turn * s.q), NCF_ENU, NCF_NED).normalized();
    const NvEuler e = qNed.toEuler();
    const NvVector3 velNed = nvNavigationVectorToFrame(toNv(s.velocityEnu), NCF_ENU, NCF_NED);
    // Rate of turn about the vertical: yaw rate of the NED Euler angles.
    const NvVector3 w = nvSensorVectorToFrame(toNv(s.rateOfTurn), NCF_ENU, NCF_NED);
    const double cr = std::cos(nvDegToRad(e.roll)), sr = std::sin(nvDegToRad(e.roll));
    const double yawRate = (w.y * sr + w.z * cr) / std::cos(nvDegToRad(e.pitch));

    NmeaEpoch epoch;
    epoch.utcNs = utcNs;
    epoch.latitude = s.latitude;
    epoch.longitude = s.longitude;
    epoch.altitudeMsl = s.altitudeMsl;
    epoch.geoidSeparation = m_motion.geoidSeparation();
    epoch.quality = rtkActive(tick) ? (rtkFixed(tick) ? 4 : 5) : 1;
    epoch.correctionAge = rtkActive(tick) ? double(nsAtTick(tick) - m_lastRtcmNs) * 1e-9 : -1;
    epoch.hdop = 0.75;
    epoch.vdop = 0.95;
    epoch.pdop = 1.2;
    epoch.velocityNorth = velNed.x;
    epoch.velocityEast = velNed.y;
    epoch.velocityDown = velNed.z;
    epoch.roll = e.roll;
    epoch.pitch = e.pitch;
    epoch.heading = e.yaw;
    epoch.rateOfTurn = yawRate * kDeg * 60;
    for (const SkySatellite& sat : m_sky.at(t))
        epoch.satellites.push_back({sat.system, sat.id, int(std::lround(sat.elevation)),
                                    int(std::lround(sat.azimuth)) % 360, int(std::lround(sat.cno)),
                                    sat.used});
    const std::string text = nmeaEpochText(epoch);

    TruthRow row = m_truthRow;
    row.output = "nmea";
    row.counter = m_packetCounter++;
    row.sampleTime = tick;
    row.time = t;
    row.utcNs = utcNs;
    row.timeOfWeek = timeOfWeekMs(utcNs);
    row.q[0] = qNed.w, row.q[1] = qNed.x, row.q[2] = qNed.y, row.q[3] = qNed.z;
    row.euler[0] = e.roll, row.euler[1] = e.pitch, row.euler[2] = e.yaw;
    row.frames[0] = row.frames[1] = row.frames[8] = NCF_NED;
    row.latitude = s.latitude;
    row.longitude = s.longitude;
    row.altitudeEllipsoid = s.altitudeEllipsoid;
    row.altitudeMsl = s.altitudeMsl;
    row.velocity[0] = velNed.x, row.velocity[1] = velNed.y, row.velocity[2] = velNed.z;
    const SampleFate fate =
        link.sendData(reinterpret_cast<const uint8_t*>(text.data()), text.size(), false);
    recordTruth(row, fate);
}

void EmulatedDevice::reply(uint8_t busId, uint8_t mid, const NvByteArray& data, LinkSink& link)
{
    link.sendControl(NvMessage(busId, mid, data));
}

void EmulatedDevice::error(uint8_t busId, uint8_t code, LinkSink& link)
{
    link.sendControl(NvMessage(busId, NvMid::Error, NvByteArray{code}));
}

void EmulatedDevice::handleMessage(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    if (!addressedBy(frame.busId()))
        return;
    const uint8_t mid = frame.messageId();
    switch (m_state) {
    case State::Booting:
        // Not listening yet.
        return;
    case State::WaitingForAck:
        if (mid == NvMid::WakeUpAck) {
            m_state = State::Configuration;
            m_stateDeadline = kNever;
        } else if (mid == NvMid::GoToConfig) {
            m_state = State::Configuration;
            m_stateDeadline = kNever;
            reply(frame.busId(), NvMid::GoToConfigAck, {}, link);
        }
        return;
    case State::Measurement:
        if (!handleAnyStateMessage(frame, nowNs, link))
            error(frame.busId(), NRV_INVALID_MESSAGE, link);
        return;
    case State::Configuration:
        if (!handleAnyStateMessage(frame, nowNs, link))
            handleConfigurationMessage(frame, nowNs, link);
        return;
    }
}

// Messages a device takes in either mode.
bool EmulatedDevice::handleAnyStateMessage(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    const uint8_t bus = frame.busId();
    const uint8_t* d = frame.data();
    const size_t n = frame.dataSize();
    switch (frame.messageId()) {
    case NvMid::WakeUpAck:
        return true; // late or spurious: nothing to do
    case NvMid::GoToConfig:
        stopMeasurement();
        m_state = State::Configuration;
        reply(bus, NvMid::GoToConfigAck, {}, link);
        return true;
    case NvMid::GoToMeasurement:
        reply(bus, NvMid::GoToMeasurementAck, {}, link);
        if (m_state != State::Measurement)
            startMeasurement(nowNs);
        return true;
    case NvMid::Reset:
        reply(bus, NvMid::ResetAck, {}, link);
        reboot(nowNs);
        return true;
    case NvMid::ReqData: {
        if (nmeaOutput() && m_state == State::Measurement)
            return false;
        // Polled sample: every configured item, at the current instant.
        if (m_state != State::Measurement) {
            m_items.clear();
            for (const NvOutputConfiguration& r : m_config.output)
                m_items.push_back({r.dataIdentifier, r.frequency, 0});
            m_gridTicks = kTicksPerSecond / m_info.idleRate;
        }
        const uint64_t tick = ticksAt(nowNs);
        TruthRow row = m_truthRow;
        NvMessage message = buildPacket(tick, true, 0, row);
        ++m_packetCounter;
        message.setBusId(bus);
        link.sendControl(message);
        recordTruth(row, SampleFate::Sent);
        return true;
    }
    case NvMid::SetNoRotation: {
        if (n != 2) {
            error(bus, NRV_INVALID_PARAMETER, link);
            return true;
        }
        const uint16_t seconds = nvbe::readU16(d);
        if (seconds == 0 || seconds > 600) {
            error(bus, NRV_INVALID_PARAMETER, link);
            return true;
        }
        m_noRotationUntilNs = nowNs + int64_t(seconds) * 1'000'000'000;
        reply(bus, NvMid::SetNoRotationAck, {}, link);
        return true;
    }
    case NvMid::ResetOrientation: {
        if (!m_info.hasOrientation) {
            error(bus, NRV_INVALID_MESSAGE, link);
            return true;
        }
        const uint16_t code = n == 2 ? nvbe::readU16(d) : 0xFFFF;
        // 0 store, 1 heading, 3 inclination, 4 alignment, 5 default heading,
        // 6 default inclination, 7 default alignment.
        if (code == 2 || code > 7) {
            error(bus, NRV_INVALID_PARAMETER, link);
            return true;
        }
        if (code == 1) {
            const double t = motionTime(ticksAt(nowNs));
            const Quat q = m_motion.sample(t, 0.01).q;
            const Vec3 e = toEulerDeg(q);
            m_headingOffset = e.z / kDeg;
        } else if (code == 5) {
            m_headingOffset = 0;
        } else if (code == 0) {
            m_config.storedHeadingOffset = m_headingOffset;
        }
        reply(bus, NvMid::ResetOrientationAck, {}, link);
        return true;
    }
    case NvMid::ReqUtcTime: {
        if (n == NvUtcTime::WireSize) {
            const NvUtcTime u = NvUtcTime::fromWire(d);
            int64_t ns = 0;
            if (!utcToNs(u, ns)) {
                error(bus, NRV_INVALID_PARAMETER, link);
                return true;
            }
            m_utcAtPowerUpNs = ns - int64_t(ticksAt(nowNs)) * kNsPerTick;
            m_utcSet = true;
        } else if (n != 0) {
            error(bus, NRV_INVALID_PARAMETER, link);
            return true;
        }
        NvByteArray out(NvUtcTime::WireSize);
        const bool valid = m_utcSet || m_info.hasGnss;
        utcFields(utcNsAtTick(ticksAt(nowNs)), valid ? NvUtcTime::ValidUtc : 0).toWire(out.data());
        reply(bus, NvMid::UtcTime, out, link);
        return true;
    }
    case NvMid::ReqGnssStatus: {
        if (!m_info.hasGnss)
            return false;
        NvGpsStatus status;
        for (const SkySatellite& sat : m_sky.at(motionTime(ticksAt(nowNs))))
            status.satellites.push_back(
                {sat.system, sat.id, uint8_t(std::lround(sat.cno)),
                 uint8_t((sat.used ? NvGnssSatellite::UsedForNavigation : 0) | 0x10 |
                         (sat.cno > 30 ? 7 : 4))});
        reply(bus, NvMid::GnssStatus, status.toWire(), link);
        return true;
    }
    case NvMid::ForwardGnssData:
        if (!m_info.hasGnss)
            return false;
        forwardGnssData(frame, nowNs, link);
        return true;
    default:
        return false;
    }
}

void EmulatedDevice::handleConfigurationMessage(const NvFrameView& frame, int64_t nowNs,
                                                LinkSink& link)
{
    (void)nowNs;
    const uint8_t bus = frame.busId();
    const uint8_t* d = frame.data();
    const size_t n = frame.dataSize();
    auto bad = [&]() { error(bus, NRV_INVALID_PARAMETER, link); };
    auto u16reply = [&](uint8_t mid, uint16_t value) {
        NvByteArray out;
        nvbe::appendU16(out, value);
        reply(bus, mid, out, link);
    };

    switch (frame.messageId()) {
    case NvMid::ReqDeviceId:
        reply(bus, NvMid::DeviceId, m_id.toWire(), link);
        return;
    case NvMid::ReqProductCode: {
        std::string code = m_id.productCode();
        if (code.empty() && m_id.typeInfo())
            code = m_id.typeInfo()->productCode;
        code.resize(std::min<size_t>(code.size(), 24));
        reply(bus, NvMid::ProductCode, NvByteArray(code.begin(), code.end()), link);
        return;
    }
    case NvMid::ReqFirmwareRevision: {
        NvByteArray out(NvVersion::FirmwareWireSize);
        m_info.firmware.toFirmwareWire(out.data());
        reply(bus, NvMid::FirmwareRevision, out, link);
        return;
    }
    case NvMid::ReqHardwareVersion: {
        NvByteArray out(NvVersion::HardwareWireSize);
        NvVersion(m_info.hardwareMajor, m_info.hardwareMinor).toHardwareWire(out.data());
        reply(bus, NvMid::HardwareVersion, out, link);
        return;
    }
    case NvMid::RestoreFactoryDefaults: {
        // The kind's defaults, not the command line's start options.
        DeviceSetup factory;
        factory.kind = m_setup.kind;
        m_config = defaultConfig(m_info, factory);
    }
        m_headingOffset = 0;
        reply(bus, NvMid::RestoreFactoryDefaultsAck, {}, link);
        return;
    case NvMid::ReqBaudRate:
        if (n == 1) {
            if (!isValidBaudCode(d[0])) {
                error(bus, NRV_INVALID_BAUDRATE, link);
                return;
            }
            // Recorded only: a pseudo-terminal has no line rate.
            m_config.baudCode = d[0];
        } else if (n != 0) {
            return bad();
        }
        reply(bus, NvMid::BaudRate, NvByteArray{m_config.baudCode}, link);
        return;
    case NvMid::ReqErrorMode:
        if (n == 2) {
            const uint16_t mode = nvbe::readU16(d);
            if (mode > NEM_SEND_ERROR_AND_CONFIG)
                return bad();
            m_config.errorMode = mode;
        } else if (n != 0) {
            return bad();
        }
        u16reply(NvMid::ErrorMode, m_config.errorMode);
        return;
    case NvMid::ReqTransmitDelay:
        // Only an RS-485 interface waits before it answers; RS-232 and USB do not know it.
        if (!m_setup.rs485)
            return error(bus, NRV_INVALID_MESSAGE, link);
        if (n == 2)
            m_config.transmitDelay = nvbe::readU16(d);
        else if (n != 0)
            return bad();
        u16reply(NvMid::TransmitDelay, m_config.transmitDelay);
        return;
    case NvMid::ReqOptionFlags: {
        if (n == 8) {
            const uint32_t set = nvbe::readU32(d), clear = nvbe::readU32(d + 4);
            if (((set | clear) & ~m_info.optionMask) != 0 || (set & clear) != 0)
                return bad();
            m_config.optionFlags = (m_config.optionFlags | set) & ~clear;
        } else if (n != 0) {
            return bad();
        }
        NvByteArray out;
        nvbe::appendU32(out, m_config.optionFlags);
        reply(bus, NvMid::OptionFlags, out, link);
        return;
    }
    case NvMid::ReqLocationId:
        if (n == 2)
            m_config.locationId = nvbe::readU16(d);
        else if (n != 0)
            return bad();
        u16reply(NvMid::LocationId, m_config.locationId);
        return;
    case NvMid::ReqSyncSettings:
        setSyncSettings(frame, link);
        return;
    case NvMid::ReqOutputConfiguration:
        setOutputConfiguration(frame, link);
        return;
    case NvMid::ReqStringOutputType:
        setStringOutputType(frame, link);
        return;
    case NvMid::ReqAvailableFilterProfiles: {
        NvByteArray out;
        for (const FilterProfile& p : m_info.profiles) {
            out.push_back(p.type);
            out.push_back(p.version);
            // Zero-padded, not necessarily terminated.
            char label[20] = {};
            std::memcpy(label, p.label, strnlen(p.label, sizeof label));
            out.insert(out.end(), label, label + sizeof label);
        }
        reply(bus, NvMid::AvailableFilterProfiles, out, link);
        return;
    }
    case NvMid::ReqFilterProfile:
        if (n == 2) {
            const uint16_t type = nvbe::readU16(d);
            if (!m_info.hasProfile(type))
                return bad();
            m_config.filterProfile = type;
        } else if (n != 0) {
            return bad();
        }
        u16reply(NvMid::FilterProfile, m_config.filterProfile);
        return;
    case NvMid::ReqGnssPlatform:
        if (!m_info.hasGnss)
            break;
        if (n == 2) {
            // Dynamic models: 0 portable, 2 stationary, 3 pedestrian, 4 automotive, 5 at sea,
            // 6-8 airborne (<1 g, <2 g, <4 g), 9 wrist.
            const uint16_t platform = nvbe::readU16(d);
            if (platform == 1 || platform > 9)
                return bad();
            m_config.gnssPlatform = platform;
        } else if (n != 0) {
            return bad();
        }
        u16reply(NvMid::GnssPlatform, m_config.gnssPlatform);
        return;
    case NvMid::ReqGnssLeverArm: {
        if (!m_info.hasGnss)
            break;
        if (n == 12) {
            float arm[3];
            for (int i = 0; i < 3; ++i) {
                arm[i] = nvbe::readF32(d + 4 * i);
                // An antenna more than 100 m away is a typing error, not a vehicle.
                if (!(arm[i] >= -100.0f && arm[i] <= 100.0f))
                    return bad();
            }
            std::copy(arm, arm + 3, m_config.leverArm);
        } else if (n != 0) {
            return bad();
        }
        NvByteArray out;
        for (float v : m_config.leverArm)
            nvbe::appendF32(out, v);
        reply(bus, NvMid::GnssLeverArm, out, link);
        return;
    }
    case NvMid::ReqCalibrationRecord:
        if (n != 2 || d[0] != 0x00 || d[1] != 0xFF)
            return bad();
        reply(bus, NvMid::CalibrationRecord, calibrationRecord(), link);
        return;
    case NvMid::ReqPortConfig:
        setPortConfig(frame, link);
        return;
    default:
        break;
    }
    error(bus, NRV_INVALID_MESSAGE, link);
}

void EmulatedDevice::setOutputConfiguration(const NvFrameView& frame, LinkSink& link)
{
    const uint8_t bus = frame.busId();
    if (frame.dataSize() != 0) {
        NvOutputConfigurationArray requested;
        if (!nvOutputConfigurationFromWire(frame.data(), frame.dataSize(), requested))
            return error(bus, NRV_INVALID_PARAMETER, link);
        NvOutputConfigurationArray applied;
        for (NvOutputConfiguration r : requested) {
            const uint16_t quantity = nvQuantity(r.dataIdentifier);
            // The old configuration stays when any record is refused.
            if (!m_info.support(quantity) || r.frequency == 0 ||
                !m_info.supportsRate(quantity, r.frequency) ||
                (r.dataIdentifier & NDI_FRAME_MASK) == NDI_FRAME_MASK ||
                nvFindOutput(applied, quantity))
                return error(bus, NRV_INVALID_PARAMETER, link);
            if (!nvIsRealQuantity(quantity))
                r.dataIdentifier = quantity; // format bits mean nothing for integer items
            applied.push_back(r);
        }
        m_config.output = applied;
    }
    reply(bus, NvMid::OutputConfiguration, nvOutputConfigurationToWire(m_config.output), link);
}

void EmulatedDevice::setSyncSettings(const NvFrameView& frame, LinkSink& link)
{
    const uint8_t bus = frame.busId();
    const uint8_t* d = frame.data();
    const size_t n = frame.dataSize();
    if (n != 0) {
        if (n % NvSyncSetting::WireSize != 0 || n / NvSyncSetting::WireSize > kMaxSyncSettings)
            return error(bus, NRV_INVALID_PARAMETER, link);
        // Checked on the raw bytes before they become enumerations.
        std::vector<uint8_t> lines;
        for (size_t off = 0; off < n; off += NvSyncSetting::WireSize) {
            const uint8_t line = d[off], function = d[off + 1], polarity = d[off + 2];
            if (function == NSF_NONE)
                continue;
            const bool known = std::find(m_info.syncLines.begin(), m_info.syncLines.end(), line) !=
                               m_info.syncLines.end();
            const bool input = line <= NSL_GNSS_1PPS;
            bool functionOk = false;
            if (line == NSL_REQ_DATA)
                functionOk = function == NSF_SAMPLE_AND_SEND || function == NSF_SEND_LATEST;
            else if (line == NSL_GNSS_1PPS)
                functionOk =
                    function == NSF_CLOCK_BIAS_ESTIMATION || function == NSF_TRIGGER_INDICATION;
            else if (input)
                functionOk = function == NSF_RESET_TIMER || function == NSF_TRIGGER_INDICATION ||
                             function == NSF_SEND_LATEST || function == NSF_START_SAMPLING ||
                             function == NSF_CLOCK_BIAS_ESTIMATION ||
                             function == NSF_SAMPLE_AND_SEND;
            else
                functionOk = function == NSF_INTERVAL_TRANSITION_MEASUREMENT ||
                             function == NSF_PULSE_WIDTH_MODULATION ||
                             (function == NSF_TIME_PULSE && m_info.hasGnss);
            // A master's lines start and stop recordings and mark them.
            if (m_info.kind == Kind::Master)
                functionOk = input ? function == NSF_START_RECORDING_IN ||
                                         function == NSF_STOP_RECORDING_IN ||
                                         function == NSF_TRIGGER_INDICATION
                                   : function == NSF_INTERVAL_TRANSITION_MEASUREMENT ||
                                         function == NSF_INTERVAL_TRANSITION_RECORDING ||
                                         function == NSF_GO_TO_OPERATIONAL ||
                                         function == NSF_START_RECORDING_OUT ||
                                         function == NSF_STOP_RECORDING_OUT;
            if (m_info.kind == Kind::Legacy)
                functionOk = functionOk &&
                             (function == NSF_TRIGGER_INDICATION || function == NSF_SEND_LATEST ||
                              function == NSF_INTERVAL_TRANSITION_MEASUREMENT);
            if (!known || !functionOk || polarity < NSP_RISING_EDGE || polarity > NSP_BOTH_EDGES ||
                std::find(lines.begin(), lines.end(), line) != lines.end())
                return error(bus, NRV_INVALID_PARAMETER, link);
            lines.push_back(line);
        }
        NvSyncSettingArray applied;
        for (size_t off = 0; off < n; off += NvSyncSetting::WireSize)
            if (d[off + 1] != NSF_NONE)
                applied.push_back(NvSyncSetting::fromWire(d + off));
        m_config.sync = applied;
    }
    reply(bus, NvMid::SyncSettings, nvSyncSettingsToWire(m_config.sync), link);
}

void EmulatedDevice::setStringOutputType(const NvFrameView& frame, LinkSink& link)
{
    const uint8_t bus = frame.busId();
    const size_t n = frame.dataSize();
    if (n == 4) {
        const uint16_t type = nvbe::readU16(frame.data());
        const uint16_t period = nvbe::readU16(frame.data() + 2);
        if (type > SOT_NMEA || (type == SOT_NMEA && !m_info.hasGnss))
            return error(bus, NRV_INVALID_PARAMETER, link);
        if (type == SOT_NMEA && (period < 10 || period > 10000))
            return error(bus, NRV_INVALID_PERIOD, link);
        m_config.stringType = type;
        if (type == SOT_NMEA)
            m_config.stringPeriod = period;
    } else if (n != 0) {
        return error(bus, NRV_INVALID_PARAMETER, link);
    }
    NvByteArray out;
    nvbe::appendU16(out, m_config.stringType);
    nvbe::appendU16(out, m_config.stringPeriod);
    reply(bus, NvMid::StringOutputType, out, link);
}

void EmulatedDevice::setPortConfig(const NvFrameView& frame, LinkSink& link)
{
    const uint8_t bus = frame.busId();
    const size_t n = frame.dataSize();
    if (n != 0) {
        if (n % 4 != 0 || n / 4 != m_config.portConfig.size())
            return error(bus, NRV_INVALID_PARAMETER, link);
        std::vector<uint32_t> words;
        for (size_t off = 0; off < n; off += 4) {
            const uint32_t w = nvbe::readU32(frame.data() + off);
            if (!isValidBaudCode(uint8_t(w & 0xFF)) || ((w >> 8) & 0xFF) > 2 || (w >> 16) != 0)
                return error(bus, NRV_INVALID_PARAMETER, link);
            words.push_back(w);
        }
        m_config.portConfig = words;
    }
    NvByteArray out;
    for (uint32_t w : m_config.portConfig)
        nvbe::appendU32(out, w);
    reply(bus, NvMid::PortConfig, out, link);
}

void EmulatedDevice::forwardGnssData(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    const uint8_t* d = frame.data();
    const size_t n = frame.dataSize();
    // Exactly one RTCM 3 frame: D3, 6 zero bits and a 10-bit length, payload, CRC-24Q.
    bool ok = n >= 6 && d[0] == 0xD3 && (d[1] & 0xFC) == 0;
    if (ok) {
        const size_t length = (size_t(d[1] & 0x03) << 8) | d[2];
        ok = n == length + 6 && crc24q(d, n - 3) == ((uint32_t(d[n - 3]) << 16) |
                                                     (uint32_t(d[n - 2]) << 8) | d[n - 1]);
    }
    if (!ok)
        return error(frame.busId(), NRV_INVALID_PARAMETER, link);
    if (nowNs - m_lastRtcmNs >= kRtcmValidNs)
        m_rtcmFrames = 0;
    m_lastRtcmNs = nowNs;
    ++m_rtcmFrames;
    reply(frame.busId(), NvMid::ForwardGnssDataAck, {}, link);
}

NvByteArray EmulatedDevice::calibrationRecord() const
{
    // Version 1 of our layout: version (1), reserved (1), device id (8), calibration date
    // (year 2, month 1, day 1), temperature (f32), then for accelerometer, gyroscope and
    // magnetometer a gain matrix (9 x f32, row-major) and an offset (3 x f32), and a
    // 16-bit sum of all bytes before it. 164 bytes.
    Rng rng(m_id.toInt() ^ 0xCA11B4A7E5ULL);
    NvByteArray out;
    out.push_back(1);
    out.push_back(0);
    nvbe::appendU64(out, m_id.toWire64());
    nvbe::appendU16(out, uint16_t(2023 + rng.below(3)));
    out.push_back(uint8_t(1 + rng.below(12)));
    out.push_back(uint8_t(1 + rng.below(28)));
    nvbe::appendF32(out, float(rng.uniform(21, 25)));
    const double gains[3] = {1.0, 1.0, 1.0};
    for (double gain : gains) {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                nvbe::appendF32(out, float(r == c ? gain * rng.uniform(0.995, 1.005)
                                                  : rng.uniform(-0.004, 0.004)));
        for (int i = 0; i < 3; ++i)
            nvbe::appendF32(out, float(rng.uniform(-0.05, 0.05)));
    }
    uint16_t sum = 0;
    for (uint8_t b : out)
        sum = uint16_t(sum + b);
    nvbe::appendU16(out, sum);
    return out;
}

} // namespace kvsim
