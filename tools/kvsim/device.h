#pragma once

#include "kinds.h"
#include "motion.h"
#include "options.h"
#include "sky.h"
#include "truthwriter.h"

#include <nvdatapacket.h>
#include <nvdeviceid.h>
#include <nvframeparser.h>
#include <nvmessage.h>
#include <nvoutputconfiguration.h>
#include <nvsyncsetting.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace kvsim {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
constexpr int64_t kNsPerTick = 100000; // sample time fine counts at 10 kHz

// Where a device's output goes: the port's link with its transmit buffer and faults.
class LinkSink
{
public:
    virtual ~LinkSink() = default;
    // Replies and other control messages; never dropped or damaged.
    virtual void sendControl(const NvMessage& message) = 0;
    // Measurement output (a data packet frame, or NMEA text); may be dropped, damaged or
    // lost to a full buffer, as the result tells.
    virtual SampleFate sendData(const uint8_t* bytes, size_t size, bool isFrame) = 0;
    // A frame sent again on request (a master's flush): no faults, but it waits for room
    // in the transmit buffer instead of being lost. False: no room now, try later.
    virtual bool sendRetransmission(const uint8_t* bytes, size_t size) = 0;
};

// What a port runs: one device, or a master with the devices behind it. Runs on the
// port's thread; not thread-safe.
class PortDevice
{
public:
    virtual ~PortDevice() = default;
    virtual const NvDeviceId& id() const = 0;
    virtual const char* kindName() const = 0;
    // For diagnostics: "configuration", "measurement", ...
    virtual const char* stateText() const = 0;
    virtual void setPortName(const std::string& port) = 0;
    // Power-on at `nowNs` (CLOCK_MONOTONIC).
    virtual void powerUp(int64_t nowNs, LinkSink& link) = 0;
    // Every frame read from the port; the device decides whether it is addressed.
    virtual void handleFrame(const NvFrameView& frame, int64_t nowNs, LinkSink& link) = 0;
    // The next time advance() has something to do, or kNever.
    virtual int64_t nextDeadline() const = 0;
    virtual void advance(int64_t nowNs, LinkSink& link) = 0;
    // Hands buffered truth rows to the writer.
    virtual void flushTruth() = 0;
};

// What a device keeps across resets and loses only to RestoreFactoryDefaults.
struct DeviceConfig
{
    uint8_t baudCode = NBR_115200;
    uint16_t errorMode = NEM_INCREASE_COUNTER;
    uint16_t transmitDelay = 0;
    uint32_t optionFlags = 0;
    uint16_t locationId = 0;
    NvSyncSettingArray sync;
    NvOutputConfigurationArray output;
    uint16_t stringType = 0;     // 0 binary data packets, 1 NMEA
    uint16_t stringPeriod = 100; // ms between NMEA sentence groups
    uint16_t filterProfile = 0;
    uint16_t gnssPlatform = 0;
    float leverArm[3] = {0, 0, 0}; // m, GNSS antenna from the sensor, sensor frame
    std::vector<uint32_t> portConfig;
    double storedHeadingOffset = 0; // radians, from ResetOrientation "store"
};

// String output types (Req/SetStringOutputType).
enum StringOutputType : uint16_t
{
    SOT_NONE = 0,
    SOT_NMEA = 1,
};

// One emulated device: its configuration state machine, its clock and the samples it
// produces. Runs on its port's thread; not thread-safe.
class EmulatedDevice : public PortDevice
{
public:
    enum class State
    {
        Booting,       // after a reset, before the WakeUp is sent
        WaitingForAck, // WakeUp sent; measures unless the host answers in time
        Configuration,
        Measurement,
    };

    EmulatedDevice(const DeviceSetup& setup, uint32_t index, uint64_t seed, int64_t originNs,
                   TruthWriter* truth);

    const NvDeviceId& id() const override { return m_id; }
    const char* kindName() const override { return m_info.name; }
    const char* stateText() const override;
    const KindInfo& info() const { return m_info; }
    State state() const { return m_state; }
    uint8_t busId() const { return m_busId; }
    void setPortName(const std::string& port) override { m_truthRow.port = port; }

    void powerUp(int64_t nowNs, LinkSink& link) override;
    // Whether this device answers a frame with the given bus identifier.
    bool addressedBy(uint8_t busId) const { return busId == 0xFF || busId == m_busId; }
    void handleFrame(const NvFrameView& frame, int64_t nowNs, LinkSink& link) override
    {
        handleMessage(frame, nowNs, link);
    }
    void handleMessage(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    int64_t nextDeadline() const override;
    void advance(int64_t nowNs, LinkSink& link) override { advance(nowNs, link, 4000); }
    // Does everything due at or before `nowNs`: samples, the WakeUp, the end of the wait.
    // At most `maxSamples` samples per call so that a long stall cannot starve the port.
    void advance(int64_t nowNs, LinkSink& link, int maxSamples);
    void flushTruth() override;

    // Behind a master: the bus id the device answers to and puts on its data packets
    // (0 while it is not connected).
    void setBusId(uint8_t busId) { m_busId = m_dataBusId = busId; }
    // Measures at `rate` Hz with every configured item in every packet, as a tracker does
    // when its master measures.
    void measureAtRate(int64_t nowNs, uint16_t rate);
    // Back to configuration, as after GoToConfig.
    void goToConfig();

    static DeviceConfig defaultConfig(const KindInfo& info, const DeviceSetup& setup);

private:
    struct ActiveItem
    {
        NvDataIdentifier id;
        uint16_t frequency;
        uint32_t divisor; // due on grid indices that are multiples of this
    };

    void reply(uint8_t busId, uint8_t mid, const NvByteArray& data, LinkSink& link);
    void error(uint8_t busId, uint8_t code, LinkSink& link);
    void handleConfigurationMessage(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    bool handleAnyStateMessage(const NvFrameView& frame, int64_t nowNs, LinkSink& link);

    void setOutputConfiguration(const NvFrameView& frame, LinkSink& link);
    void setSyncSettings(const NvFrameView& frame, LinkSink& link);
    void setStringOutputType(const NvFrameView& frame, LinkSink& link);
    void setPortConfig(const NvFrameView& frame, LinkSink& link);
    void forwardGnssData(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    NvByteArray calibrationRecord() const;

    void reboot(int64_t nowNs);
    void startMeasurement(int64_t nowNs);
    void stopMeasurement();
    uint64_t ticksAt(int64_t nowNs) const;
    int64_t nsAtTick(uint64_t tick) const;
    double motionTime(uint64_t tick) const;
    int64_t utcNsAtTick(uint64_t tick) const;
    uint32_t statusWord(uint64_t tick) const;
    bool rtkActive(uint64_t tick) const;
    bool rtkFixed(uint64_t tick) const;
    bool nmeaOutput() const;
    bool isDue(uint64_t gridIndex) const;
    uint64_t gridTick(uint64_t gridIndex) const;

    // Builds the data packet of one sample: every item when `all`, otherwise those due at
    // grid index `gridIndex`.
    NvMessage buildPacket(uint64_t tick, bool all, uint64_t gridIndex, TruthRow& row);
    void emitSample(uint64_t gridIndex, LinkSink& link);
    void emitNmeaEpoch(uint64_t tick, LinkSink& link);
    void recordTruth(TruthRow& row, SampleFate fate);
    NvGnssPvt makePvt(uint64_t tick, const MotionSample& s, const Vec3& velNed,
                      double heading) const;

    const KindInfo& m_info;
    DeviceSetup m_setup;
    NvDeviceId m_id;
    uint8_t m_busId = 1;
    uint8_t m_dataBusId = 0xFF; // bus id of unsolicited frames (data packets, WakeUp)
    uint16_t m_fixedRate = 0;   // nonzero: measuring at this rate for a master
    MotionModel m_motion;
    SkyModel m_sky;
    int64_t m_originNs;  // emulator start: motion time 0
    int64_t m_powerUpNs; // sample time fine 0
    int64_t m_utcAtPowerUpNs = 0;
    bool m_utcSet = false;
    State m_state = State::Configuration;
    int64_t m_stateDeadline = kNever; // WakeUp send time or end of the wait for its ack
    DeviceConfig m_config;

    // Measurement schedule.
    std::vector<ActiveItem> m_items;
    uint32_t m_gridRate = 0;
    uint64_t m_gridTicks = 0;
    uint64_t m_nextGrid = 0;
    uint16_t m_packetCounter = 0;
    double m_headingOffset = 0; // radians, about the vertical
    int64_t m_noRotationUntilNs = 0;
    int64_t m_lastRtcmNs = -1'000'000'000'000; // long before any correction could count
    uint32_t m_rtcmFrames = 0;
    uint64_t m_gnssEpoch = std::numeric_limits<uint64_t>::max();
    uint8_t m_packetsSinceGnss = 0;

    NvDataPacketBuilder m_builder;
    TruthWriter* m_truth;
    TruthRow m_truthRow; // template with the device columns filled in
    std::string m_truthBuffer;
    int64_t m_lastTruthFlushNs = 0;
};

} // namespace kvsim
