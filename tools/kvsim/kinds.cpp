#include "kinds.h"

#include <algorithm>

namespace kvsim {

namespace {

constexpr uint16_t kEvery = NV_FREQUENCY_EVERY_PACKET;

std::vector<uint16_t> ratesUpTo(uint16_t max, uint16_t base = 2000)
{
    std::vector<uint16_t> rates;
    for (uint16_t r = 1; r <= max; ++r)
        if (base % r == 0)
            rates.push_back(r);
    return rates;
}

// Counters, time and status: with every packet or at any packet rate of the kind.
void addCommon(std::vector<ItemSupport>& items, uint16_t maxRate, uint16_t base)
{
    for (uint16_t q : {NDI_PACKET_COUNTER, NDI_SAMPLE_TIME_FINE, NDI_SAMPLE_TIME_COARSE,
                       NDI_STATUS_BYTE, NDI_STATUS_WORD, NDI_UTC_TIME})
        items.push_back({q, ratesUpTo(maxRate, base)});
}

void addInertial(std::vector<ItemSupport>& items)
{
    addCommon(items, 2000, 2000);
    items.push_back({NDI_TEMPERATURE, ratesUpTo(100)});
    items.push_back({NDI_BARO_PRESSURE, ratesUpTo(50)});
    for (uint16_t q : {NDI_ACCELERATION, NDI_RATE_OF_TURN, NDI_DELTA_Q, NDI_DELTA_V})
        items.push_back({q, ratesUpTo(2000)});
    // High-rate outputs only come at the high rates.
    for (uint16_t q : {NDI_ACCELERATION_HR, NDI_RATE_OF_TURN_HR})
        items.push_back({q, {400, 500, 1000, 2000}});
    items.push_back({NDI_MAGNETIC_FIELD, ratesUpTo(100)});
}

void addOrientation(std::vector<ItemSupport>& items)
{
    for (uint16_t q :
         {NDI_QUATERNION, NDI_ROTATION_MATRIX, NDI_EULER_ANGLES, NDI_FREE_ACCELERATION})
        items.push_back({q, ratesUpTo(400)});
}

void addGnss(std::vector<ItemSupport>& items)
{
    items.push_back({NDI_TIME_OF_WEEK, ratesUpTo(2000)});
    items.push_back({NDI_GNSS_AGE, ratesUpTo(400)});
    for (uint16_t q : {NDI_GNSS_PVT_DATA, NDI_GNSS_SAT_INFO, NDI_GNSS_PVT_PULSE})
        items.push_back({q, {1, 2, 4}});
    for (uint16_t q :
         {NDI_ALTITUDE_MSL, NDI_ALTITUDE_ELLIPSOID, NDI_POSITION_ECEF, NDI_LAT_LON, NDI_VELOCITY})
        items.push_back({q, ratesUpTo(400)});
}

std::vector<KindInfo> makeKinds()
{
    const uint32_t commonOptions = OF_DISABLE_AUTO_STORE | OF_DISABLE_AUTO_MEASUREMENT |
                                   OF_ENABLE_CONFIGURABLE_BUS_ID |
                                   OF_ENABLE_CONFIGURATION_MESSAGE_AT_STARTUP;
    const uint32_t orientationOptions =
        OF_ENABLE_AHS | OF_ENABLE_ORIENTATION_SMOOTHER | OF_ENABLE_IN_RUN_COMPASS_CALIBRATION;
    std::vector<KindInfo> kinds;

    KindInfo imu{Kind::Imu,
                 "imu",
                 {1, 4, 2, 1187, 40211},
                 2,
                 1,
                 false,
                 false,
                 false,
                 MotionModel::Style::Handheld,
                 100,
                 {},
                 {{NDI_PACKET_COUNTER, kEvery},
                  {NDI_SAMPLE_TIME_FINE, kEvery},
                  {NDI_ACCELERATION, 100},
                  {NDI_RATE_OF_TURN, 100},
                  {NDI_MAGNETIC_FIELD, 100},
                  {NDI_STATUS_WORD, kEvery}},
                 {},
                 0,
                 {NSL_IN1, NSL_IN2, NSL_REQ_DATA, NSL_OUT1, NSL_SYNC_OUT},
                 commonOptions | OF_ENABLE_CONTINUOUS_ZERO_ROTATION_UPDATE};
    addInertial(imu.items);
    kinds.push_back(imu);

    KindInfo ahrs = imu;
    ahrs.kind = Kind::Ahrs;
    ahrs.name = "ahrs";
    ahrs.firmware = {1, 6, 0, 1402, 40377};
    ahrs.hardwareMajor = 2;
    ahrs.hardwareMinor = 3;
    ahrs.hasOrientation = true;
    addOrientation(ahrs.items);
    ahrs.defaultOutput = {{NDI_PACKET_COUNTER, kEvery}, {NDI_SAMPLE_TIME_FINE, kEvery},
                          {NDI_QUATERNION, 100},        {NDI_ACCELERATION, 100},
                          {NDI_RATE_OF_TURN, 100},      {NDI_MAGNETIC_FIELD, 100},
                          {NDI_STATUS_WORD, kEvery}};
    ahrs.profiles = {{1, 3, "general"},
                     {2, 3, "magnetic_disturbed"},
                     {3, 2, "dynamic"},
                     {4, 1, "no_magnetometer"},
                     {5, 1, "vertical_only"}};
    ahrs.defaultProfile = 1;
    ahrs.optionMask |= orientationOptions;
    kinds.push_back(ahrs);

    KindInfo gnss = ahrs;
    gnss.kind = Kind::Gnss;
    gnss.name = "gnss";
    gnss.firmware = {2, 1, 3, 2210, 41002};
    gnss.hardwareMajor = 1;
    gnss.hardwareMinor = 2;
    gnss.hasGnss = true;
    gnss.motion = MotionModel::Style::Vehicle;
    addGnss(gnss.items);
    gnss.defaultOutput = {{NDI_PACKET_COUNTER, kEvery},  {NDI_SAMPLE_TIME_FINE, kEvery},
                          {NDI_UTC_TIME, 100},           {NDI_QUATERNION, 100},
                          {NDI_ACCELERATION, 100},       {NDI_RATE_OF_TURN, 100},
                          {NDI_MAGNETIC_FIELD, 100},     {NDI_LAT_LON | NCF_ENU | NDP_FP1632, 100},
                          {NDI_ALTITUDE_ELLIPSOID, 100}, {NDI_VELOCITY, 100},
                          {NDI_GNSS_PVT_DATA, 4},        {NDI_STATUS_WORD, kEvery}};
    gnss.profiles = {{11, 2, "general"},
                     {12, 2, "automotive"},
                     {13, 1, "marine"},
                     {14, 1, "airborne"},
                     {15, 1, "pedestrian"}};
    gnss.defaultProfile = 11;
    gnss.syncLines.push_back(NSL_GNSS_1PPS);
    gnss.optionMask |= OF_ENABLE_BEIDOU | OF_ENABLE_POSITION_VELOCITY_SMOOTHER;
    kinds.push_back(gnss);

    KindInfo legacy{Kind::Legacy,
                    "legacy",
                    {0, 9, 7, 312, 9120},
                    1,
                    0,
                    true,
                    false,
                    false,
                    MotionModel::Style::Handheld,
                    100,
                    {},
                    {{NDI_PACKET_COUNTER, kEvery},
                     {NDI_SAMPLE_TIME_FINE, kEvery},
                     {NDI_EULER_ANGLES, 100},
                     {NDI_ACCELERATION, 100},
                     {NDI_RATE_OF_TURN, 100},
                     {NDI_MAGNETIC_FIELD, 100}},
                    {{1, 1, "human"}, {2, 1, "machine"}, {3, 1, "marine"}},
                    2,
                    {NSL_IN1, NSL_OUT1},
                    OF_DISABLE_AUTO_STORE};
    // The older generation: a smaller item set and at most 400 Hz.
    for (uint16_t q : {NDI_PACKET_COUNTER, NDI_SAMPLE_TIME_FINE, NDI_STATUS_BYTE})
        legacy.items.push_back({q, ratesUpTo(400, 400)});
    legacy.items.push_back({NDI_TEMPERATURE, ratesUpTo(100, 400)});
    for (uint16_t q : {NDI_QUATERNION, NDI_ROTATION_MATRIX, NDI_EULER_ANGLES, NDI_ACCELERATION,
                       NDI_RATE_OF_TURN})
        legacy.items.push_back({q, ratesUpTo(400, 400)});
    legacy.items.push_back({NDI_MAGNETIC_FIELD, ratesUpTo(100, 400)});
    kinds.push_back(legacy);

    // A master has no sensors: no items, no filter, sync lines for recording control.
    KindInfo master = legacy;
    master.kind = Kind::Master;
    master.name = "master";
    master.firmware = {4, 3, 1, 2718, 42117};
    master.hardwareMajor = 3;
    master.hardwareMinor = 0;
    master.hasOrientation = false;
    master.items.clear();
    master.defaultOutput.clear();
    master.profiles.clear();
    master.defaultProfile = 0;
    master.syncLines = {NSL_IN1, NSL_IN2, NSL_OUT1, NSL_OUT2};
    master.optionMask = OF_DISABLE_AUTO_STORE | OF_DISABLE_AUTO_MEASUREMENT;
    kinds.push_back(master);

    // A tracker samples when the radio frame comes, so its items run at the master's
    // update rates only.
    KindInfo tracker = ahrs;
    tracker.kind = Kind::Tracker;
    tracker.name = "tracker";
    tracker.firmware = {2, 4, 0, 1733, 41568};
    tracker.hardwareMajor = 1;
    tracker.hardwareMinor = 4;
    tracker.hasBattery = true;
    tracker.items.clear();
    for (uint16_t q :
         {NDI_PACKET_COUNTER, NDI_SAMPLE_TIME_FINE, NDI_SAMPLE_TIME_COARSE, NDI_STATUS_BYTE,
          NDI_STATUS_WORD, NDI_UTC_TIME, NDI_TEMPERATURE, NDI_BARO_PRESSURE, NDI_ACCELERATION,
          NDI_RATE_OF_TURN, NDI_DELTA_Q, NDI_DELTA_V, NDI_MAGNETIC_FIELD, NDI_QUATERNION,
          NDI_ROTATION_MATRIX, NDI_EULER_ANGLES, NDI_FREE_ACCELERATION})
        tracker.items.push_back({q, masterRates()});
    tracker.syncLines.clear();
    tracker.optionMask = OF_DISABLE_AUTO_STORE | orientationOptions;
    kinds.push_back(tracker);
    return kinds;
}

} // namespace

const ItemSupport* KindInfo::support(uint16_t id) const
{
    const uint16_t q = id & NDI_QUANTITY_MASK;
    for (const ItemSupport& item : items)
        if (item.quantity == q)
            return &item;
    return nullptr;
}

bool KindInfo::supportsRate(uint16_t id, uint16_t frequency) const
{
    const ItemSupport* item = support(id);
    if (!item)
        return false;
    return frequency == kEvery ||
           std::binary_search(item->rates.begin(), item->rates.end(), frequency);
}

bool KindInfo::hasProfile(uint16_t type) const
{
    return std::any_of(profiles.begin(), profiles.end(),
                       [type](const FilterProfile& p) { return p.type == type; });
}

const KindInfo& kindInfo(Kind kind)
{
    static const std::vector<KindInfo> kinds = makeKinds();
    return kinds[static_cast<size_t>(kind)];
}

bool parseKind(const std::string& name, Kind& kind)
{
    for (Kind k : {Kind::Imu, Kind::Ahrs, Kind::Gnss, Kind::Legacy}) {
        if (name == kindInfo(k).name) {
            kind = k;
            return true;
        }
    }
    return false;
}

const std::vector<uint16_t>& masterRates()
{
    static const std::vector<uint16_t> rates = {40, 60, 80, 100, 120};
    return rates;
}

bool isValidBaudCode(uint8_t code)
{
    return code >= NBR_4800 && code <= NBR_4000000;
}

const std::vector<uint16_t>& divisorsOf2000()
{
    static const std::vector<uint16_t> rates = ratesUpTo(2000);
    return rates;
}

} // namespace kvsim
