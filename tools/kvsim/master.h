#pragma once

#include "device.h"

#include <nvkvwinfo.h>

#include <deque>
#include <memory>
#include <vector>

namespace kvsim {

// A wireless master and its trackers on one port. The master answers bus id 0xFF itself
// (the ordinary configuration messages through an EmulatedDevice of the master kind, the
// radio, update rate, tracker and flush messages here); bus ids 1..32 go to the tracker
// connected with that bus id, and to nobody when none is.
class MasterDevice : public PortDevice
{
public:
    MasterDevice(const DeviceSetup& setup, uint32_t index, uint64_t seed, int64_t originNs,
                 TruthWriter* truth);
    ~MasterDevice() override;

    const NvDeviceId& id() const override { return m_master.id(); }
    const char* kindName() const override { return m_master.kindName(); }
    const char* stateText() const override { return m_master.stateText(); }
    void setPortName(const std::string& port) override;
    void powerUp(int64_t nowNs, LinkSink& link) override;
    void handleFrame(const NvFrameView& frame, int64_t nowNs, LinkSink& link) override;
    int64_t nextDeadline() const override;
    void advance(int64_t nowNs, LinkSink& link) override;
    void flushTruth() override;

private:
    class TrackerLink;
    struct Tracker
    {
        std::unique_ptr<EmulatedDevice> device;
        std::unique_ptr<TrackerLink> link;
        uint32_t slot = 0;
        bool docked = false;        // sits in the dock from power-up
        bool refusedOnCall = false; // firmware the master does not take (reject=K)
        bool hostRejected = false;  // the host rejected it; refused until accepted
        bool pending = false;       // will call in over the radio
        NvConnectivityState state = NCS_DISCONNECTED;
        NvRejectReason reason = NvRejectReason::None;
        uint8_t flags = 0; // KvwInfo::Flags
        double battery = 80;
        double rssiBase = -60, rssiPhase = 0, rssiPeriod = 30;
        int64_t lastBatteryNs = 0;
        // Data packets the host missed while measuring, oldest first, for a flush.
        std::deque<NvByteArray> missed;

        bool connected() const { return state == NCS_PLUGGED_IN || state == NCS_WIRELESS; }
        uint8_t busId() const { return connected() ? uint8_t(slot + 1) : 0; }
    };

    bool measuring() const { return m_master.state() == EmulatedDevice::State::Measurement; }
    LinkSink& linkOf(Tracker& tracker, LinkSink& upstream);
    Tracker* trackerOnBus(uint8_t busId);

    void handleMasterFrame(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    void handleTrackerFrame(Tracker& tracker, const NvFrameView& frame, int64_t nowNs,
                            LinkSink& link);
    void setRadioChannel(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    void setUpdateRate(const NvFrameView& frame, LinkSink& link);
    void trackerCommand(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    void startFlush(const NvFrameView& frame, int64_t nowNs, LinkSink& link);
    void error(uint8_t code, LinkSink& link);

    // Follows the master into and out of measurement.
    void syncMeasurement(int64_t nowNs, LinkSink& link);
    void resetTrackers();
    void callIn(Tracker& tracker, int64_t nowNs, LinkSink& link);
    void connect(Tracker& tracker, NvConnectivityState state, int64_t nowNs, LinkSink& link);
    void disconnect(Tracker& tracker, NvConnectivityState state, NvRejectReason reason,
                    LinkSink& link);
    void scheduleCalls(int64_t nowNs);
    void sendStatus(Tracker& tracker, LinkSink& link);
    void sendLinkReport(int64_t nowNs, LinkSink& link);
    void sendFlushProgress(LinkSink& link);
    void retransmit(int64_t nowNs, LinkSink& link);
    void remember(Tracker& tracker, const uint8_t* bytes, size_t size);

    int8_t rssiAt(const Tracker& tracker, int64_t nowNs) const;
    void updateBattery(Tracker& tracker, int64_t nowNs);
    KvwInfo record(const Tracker& tracker, int64_t nowNs) const;
    size_t wirelessCount() const;
    std::vector<uint16_t> offeredRates() const;

    EmulatedDevice m_master;
    std::vector<std::unique_ptr<Tracker>> m_trackers;
    int64_t m_originNs;
    uint16_t m_defaultRate;
    uint16_t m_updateRate;
    uint8_t m_channel = 0; // 0: radio off
    bool m_measuring = false;
    int64_t m_nextCallNs = kNever;
    int64_t m_nextReportNs = kNever;

    // Flush: packets queued for retransmission and the progress counters.
    std::deque<NvByteArray> m_flushQueue;
    uint32_t m_flushDone = 0;
    uint32_t m_flushTotal = 0;
    bool m_flushing = false;
    int64_t m_nextFlushNs = kNever;
};

} // namespace kvsim
