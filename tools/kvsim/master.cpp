#include "master.h"

#include "rng.h"

#include <nvbytes.h>

#include <algorithm>
#include <cmath>

namespace kvsim {

namespace {

constexpr int64_t kCallGapNs = 80'000'000; // between two trackers calling in
constexpr int64_t kReportPeriodNs = 1'000'000'000;
constexpr int64_t kFlushPeriodNs = 2'000'000; // one retransmission batch per wake-up
constexpr size_t kFlushBatch = 40;            // 20000 packets/s while the host keeps up
constexpr uint32_t kFlushProgressStep = 100;
constexpr size_t kMaxMissed = 100000; // per tracker; older ones are forgotten
constexpr double kTwoPi = 6.283185307179586;

// How many trackers the radio carries at a rate.
size_t trackersAtRate(uint16_t rate)
{
    return rate >= 100 ? 10 : rate >= 80 ? 20 : 32;
}

} // namespace

// A tracker's output on the master's port: its data packets meet the port's faults, and
// the ones left out are remembered for a flush.
class MasterDevice::TrackerLink : public LinkSink
{
public:
    TrackerLink(MasterDevice& master, Tracker& tracker) : m_master(master), m_tracker(tracker) {}
    LinkSink* upstream = nullptr;

    void sendControl(const NvMessage& message) override { upstream->sendControl(message); }
    SampleFate sendData(const uint8_t* bytes, size_t size, bool isFrame) override
    {
        const SampleFate fate = upstream->sendData(bytes, size, isFrame);
        if (fate == SampleFate::Dropped)
            m_master.remember(m_tracker, bytes, size);
        return fate;
    }
    bool sendRetransmission(const uint8_t* bytes, size_t size) override
    {
        return upstream->sendRetransmission(bytes, size);
    }

private:
    MasterDevice& m_master;
    Tracker& m_tracker;
};

MasterDevice::MasterDevice(const DeviceSetup& setup, uint32_t index, uint64_t seed,
                           int64_t originNs, TruthWriter* truth)
    : m_master(setup, index, seed, originNs, truth), m_originNs(originNs),
      m_defaultRate(setup.rate ? setup.rate : masterFactoryRate), m_updateRate(m_defaultRate)
{
    for (uint32_t slot = 0; slot < setup.trackers; ++slot) {
        DeviceSetup trackerSetup;
        trackerSetup.kind = Kind::Tracker;
        auto t = std::make_unique<Tracker>();
        t->device = std::make_unique<EmulatedDevice>(trackerSetup, index * 32 + slot, seed,
                                                     originNs, truth);
        t->link = std::make_unique<TrackerLink>(*this, *t);
        t->slot = slot;
        t->docked = slot < setup.docked;
        t->refusedOnCall = slot >= setup.trackers - setup.rejected;
        Rng rng(Rng::derive(seed, t->device->id().toInt() ^ 0xBA77E4ULL));
        t->battery = rng.uniform(55, 95);
        t->rssiBase = rng.uniform(-70, -50);
        t->rssiPhase = rng.uniform(0, kTwoPi);
        t->rssiPeriod = rng.uniform(20, 60);
        m_trackers.push_back(std::move(t));
    }
}

MasterDevice::~MasterDevice() = default;

void MasterDevice::setPortName(const std::string& port)
{
    m_master.setPortName(port);
    for (auto& t : m_trackers)
        t->device->setPortName(port);
}

LinkSink& MasterDevice::linkOf(Tracker& tracker, LinkSink& upstream)
{
    tracker.link->upstream = &upstream;
    return *tracker.link;
}

MasterDevice::Tracker* MasterDevice::trackerOnBus(uint8_t busId)
{
    for (auto& t : m_trackers)
        if (t->connected() && t->busId() == busId)
            return t.get();
    return nullptr;
}

void MasterDevice::powerUp(int64_t nowNs, LinkSink& link)
{
    m_master.powerUp(nowNs, link);
    for (auto& t : m_trackers) {
        t->device->powerUp(nowNs, linkOf(*t, link));
        t->lastBatteryNs = nowNs;
    }
    resetTrackers();
    m_nextReportNs = nowNs + kReportPeriodNs;
    syncMeasurement(nowNs, link);
}

void MasterDevice::resetTrackers()
{
    // Power-up and Reset: the radio is off, docked trackers are on their cable and every
    // host decision is forgotten. No status frames: the host knows the master restarted.
    m_channel = 0;
    m_nextCallNs = kNever;
    m_flushQueue.clear();
    m_flushing = false;
    m_flushDone = m_flushTotal = 0;
    m_nextFlushNs = kNever;
    for (auto& t : m_trackers) {
        t->device->goToConfig();
        t->missed.clear();
        t->flags = 0;
        t->hostRejected = false;
        t->pending = false;
        t->reason = NvRejectReason::None;
        t->state = t->docked ? NCS_PLUGGED_IN : NCS_DISCONNECTED;
        t->device->setBusId(t->busId());
    }
}

void MasterDevice::error(uint8_t code, LinkSink& link)
{
    link.sendControl(NvMessage(0xFF, NvMid::Error, NvByteArray{code}));
}

void MasterDevice::handleFrame(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    const uint8_t bus = frame.busId();
    if (bus == 0xFF) {
        handleMasterFrame(frame, nowNs, link);
        syncMeasurement(nowNs, link);
        return;
    }
    // While the master restarts nobody listens.
    const EmulatedDevice::State state = m_master.state();
    if (state == EmulatedDevice::State::Booting || state == EmulatedDevice::State::WaitingForAck)
        return;
    if (Tracker* t = trackerOnBus(bus))
        handleTrackerFrame(*t, frame, nowNs, link);
}

void MasterDevice::handleMasterFrame(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    const EmulatedDevice::State state = m_master.state();
    if (state == EmulatedDevice::State::Booting || state == EmulatedDevice::State::WaitingForAck)
        return m_master.handleMessage(frame, nowNs, link);
    switch (frame.messageId()) {
    case NvMid::ReqRadioChannel:
        if (measuring())
            return error(NRV_INVALID_MESSAGE, link);
        return setRadioChannel(frame, nowNs, link);
    case NvMid::ReqUpdateRate:
        if (measuring())
            return error(NRV_INVALID_MESSAGE, link);
        return setUpdateRate(frame, link);
    case NvMid::ReqTrackerList: {
        NvByteArray out(m_trackers.size() * KvwInfo::WireSize);
        for (size_t i = 0; i < m_trackers.size(); ++i)
            record(*m_trackers[i], nowNs).toWire(out.data() + i * KvwInfo::WireSize);
        link.sendControl(NvMessage(0xFF, NvMid::TrackerList, out));
        return;
    }
    case NvMid::TrackerCommand:
        return trackerCommand(frame, nowNs, link);
    case NvMid::StartFlush:
        return startFlush(frame, nowNs, link);
    // A master has no sensors and no data of its own.
    case NvMid::ReqData:
    case NvMid::SetNoRotation:
    case NvMid::ResetOrientation:
    case NvMid::ReqCalibrationRecord:
        return error(NRV_INVALID_MESSAGE, link);
    case NvMid::Reset:
        m_master.handleMessage(frame, nowNs, link);
        resetTrackers();
        return;
    case NvMid::RestoreFactoryDefaults:
        if (state == EmulatedDevice::State::Configuration) {
            const std::vector<uint16_t> offered = offeredRates();
            m_updateRate =
                std::find(offered.begin(), offered.end(), masterFactoryRate) != offered.end()
                    ? masterFactoryRate
                    : offered.back();
        }
        return m_master.handleMessage(frame, nowNs, link);
    default:
        return m_master.handleMessage(frame, nowNs, link);
    }
}

void MasterDevice::handleTrackerFrame(Tracker& t, const NvFrameView& frame, int64_t nowNs,
                                      LinkSink& link)
{
    const bool trackerMeasuring = t.device->state() == EmulatedDevice::State::Measurement;
    auto refuse = [&]() {
        link.sendControl(NvMessage(frame.busId(), NvMid::Error, NvByteArray{NRV_INVALID_MESSAGE}));
    };
    switch (frame.messageId()) {
    // The master decides when its trackers measure: a tracker only confirms the mode it
    // is in, and restarts with the master.
    case NvMid::GoToConfig:
        if (trackerMeasuring)
            return refuse();
        link.sendControl(NvMessage(frame.busId(), NvMid::GoToConfigAck));
        return;
    case NvMid::GoToMeasurement:
        if (!trackerMeasuring)
            return refuse();
        link.sendControl(NvMessage(frame.busId(), NvMid::GoToMeasurementAck));
        return;
    case NvMid::Reset:
        return refuse();
    case NvMid::WakeUpAck:
        return;
    default:
        t.device->handleMessage(frame, nowNs, linkOf(t, link));
        return;
    }
}

void MasterDevice::setRadioChannel(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    if (frame.dataSize() == 1) {
        const uint8_t channel = frame.data()[0];
        if (channel != 0 && (channel < 11 || channel > 25))
            return error(NRV_INVALID_PARAMETER, link);
        // The reply first: the status frames it causes follow it.
        link.sendControl(NvMessage(0xFF, NvMid::RadioChannel, NvByteArray{channel}));
        const bool wasOn = m_channel != 0;
        m_channel = channel;
        if (channel == 0 && wasOn) {
            m_nextCallNs = kNever;
            for (auto& t : m_trackers) {
                t->pending = false;
                if (!t->docked && (t->state == NCS_WIRELESS || t->state == NCS_REJECTED))
                    disconnect(*t, NCS_DISCONNECTED, NvRejectReason::None, link);
            }
        } else if (channel != 0 && !wasOn) {
            for (auto& t : m_trackers)
                if (!t->docked && t->state == NCS_DISCONNECTED &&
                    !(t->flags & KvwInfo::TransportMode))
                    t->pending = true;
            scheduleCalls(nowNs);
        }
        return;
    }
    if (frame.dataSize() != 0)
        return error(NRV_INVALID_PARAMETER, link);
    link.sendControl(NvMessage(0xFF, NvMid::RadioChannel, NvByteArray{m_channel}));
}

void MasterDevice::setUpdateRate(const NvFrameView& frame, LinkSink& link)
{
    const std::vector<uint16_t> offered = offeredRates();
    if (frame.dataSize() == 2) {
        const uint16_t rate = nvbe::readU16(frame.data());
        if (std::find(offered.begin(), offered.end(), rate) == offered.end())
            return error(NRV_INVALID_PARAMETER, link);
        m_updateRate = rate;
    } else if (frame.dataSize() != 0) {
        return error(NRV_INVALID_PARAMETER, link);
    }
    const size_t capacity = trackersAtRate(m_updateRate);
    const size_t used = wirelessCount();
    NvByteArray out;
    nvbe::appendU16(out, m_updateRate);
    out.push_back(uint8_t(capacity > used ? capacity - used : 0));
    out.push_back(uint8_t(offered.size()));
    for (uint16_t r : offered)
        nvbe::appendU16(out, r);
    link.sendControl(NvMessage(0xFF, NvMid::UpdateRate, out));
}

void MasterDevice::trackerCommand(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    if (frame.dataSize() != 9 || frame.data()[8] > uint8_t(NvTrackerCommand::TransportMode))
        return error(NRV_INVALID_PARAMETER, link);
    const uint64_t wanted = nvbe::readU64(frame.data());
    auto it = std::find_if(m_trackers.begin(), m_trackers.end(),
                           [&](const auto& t) { return t->device->id().toWire64() == wanted; });
    if (it == m_trackers.end())
        return error(NRV_INVALID_PARAMETER, link);
    Tracker& t = **it;
    link.sendControl(NvMessage(0xFF, NvMid::TrackerCommandAck, frame.data(), frame.dataSize()));

    const bool off = (t.flags & KvwInfo::TransportMode) != 0;
    switch (NvTrackerCommand(frame.data()[8])) {
    case NvTrackerCommand::Reject:
        t.hostRejected = true;
        t.flags &= uint8_t(~KvwInfo::Accepted);
        if (!off && (t.connected() || t.pending)) {
            t.pending = false;
            disconnect(t, NCS_REJECTED, NvRejectReason::Blacklisted, link);
        }
        return;
    case NvTrackerCommand::Accept:
        t.hostRejected = false;
        t.flags |= KvwInfo::Accepted;
        if (off || t.state != NCS_REJECTED)
            return;
        if (t.docked) {
            connect(t, NCS_PLUGGED_IN, nowNs, link);
        } else if (m_channel != 0) {
            // It calls in again, like any tracker the radio finds.
            t.pending = true;
            scheduleCalls(nowNs);
        }
        return;
    case NvTrackerCommand::SwitchOff:
    case NvTrackerCommand::TransportMode:
        if (off)
            return;
        t.flags |= KvwInfo::TransportMode;
        t.pending = false;
        disconnect(t, NCS_DISCONNECTED, NvRejectReason::None, link);
        return;
    }
}

void MasterDevice::startFlush(const NvFrameView& frame, int64_t nowNs, LinkSink& link)
{
    if (frame.dataSize() != 0)
        return error(NRV_INVALID_PARAMETER, link);
    // What was missed so far, tracker by tracker; a flush already running just grows.
    for (auto& t : m_trackers) {
        m_flushTotal += uint32_t(t->missed.size());
        for (NvByteArray& packet : t->missed)
            m_flushQueue.push_back(std::move(packet));
        t->missed.clear();
    }
    NvByteArray out;
    nvbe::appendU32(out, uint32_t(m_flushQueue.size()));
    link.sendControl(NvMessage(0xFF, NvMid::StartFlushAck, out));
    m_flushing = true;
    m_nextFlushNs = nowNs;
    if (m_flushQueue.empty())
        retransmit(nowNs, link); // nothing to send: the final progress at once
}

void MasterDevice::remember(Tracker& tracker, const uint8_t* bytes, size_t size)
{
    tracker.missed.emplace_back(bytes, bytes + size);
    if (tracker.missed.size() > kMaxMissed)
        tracker.missed.pop_front();
}

void MasterDevice::retransmit(int64_t nowNs, LinkSink& link)
{
    for (size_t i = 0; i < kFlushBatch && !m_flushQueue.empty(); ++i) {
        const NvByteArray& packet = m_flushQueue.front();
        if (!link.sendRetransmission(packet.data(), packet.size()))
            break; // the host has not read yet; the rest follows later
        m_flushQueue.pop_front();
        ++m_flushDone;
        if (m_flushDone % kFlushProgressStep == 0 && m_flushDone != m_flushTotal)
            sendFlushProgress(link);
    }
    if (m_flushQueue.empty()) {
        sendFlushProgress(link);
        m_flushing = false;
        m_flushDone = m_flushTotal = 0;
        m_nextFlushNs = kNever;
    } else {
        m_nextFlushNs = nowNs + kFlushPeriodNs;
    }
}

void MasterDevice::sendFlushProgress(LinkSink& link)
{
    NvByteArray out;
    nvbe::appendU32(out, m_flushDone);
    nvbe::appendU32(out, m_flushTotal);
    link.sendControl(NvMessage(0xFF, NvMid::FlushProgress, out));
}

void MasterDevice::syncMeasurement(int64_t nowNs, LinkSink& link)
{
    const bool now = measuring();
    if (now == m_measuring)
        return;
    m_measuring = now;
    if (now) {
        // A new recording: what the last one missed is no longer wanted.
        m_flushQueue.clear();
        m_flushing = false;
        m_flushDone = m_flushTotal = 0;
        m_nextFlushNs = kNever;
        for (auto& t : m_trackers) {
            t->missed.clear();
            if (t->state == NCS_WIRELESS)
                t->device->measureAtRate(nowNs, m_updateRate);
        }
    } else {
        for (auto& t : m_trackers)
            t->device->goToConfig();
        // Trackers that wait to call in do so once the master is back in configuration.
        scheduleCalls(nowNs);
    }
    (void)link;
}

void MasterDevice::scheduleCalls(int64_t nowNs)
{
    const bool anyPending =
        std::any_of(m_trackers.begin(), m_trackers.end(), [](const auto& t) { return t->pending; });
    if (!anyPending)
        m_nextCallNs = kNever;
    else if (m_nextCallNs == kNever)
        m_nextCallNs = nowNs + kCallGapNs;
}

void MasterDevice::callIn(Tracker& t, int64_t nowNs, LinkSink& link)
{
    t.pending = false;
    if (t.hostRejected || (t.refusedOnCall && !(t.flags & KvwInfo::Accepted))) {
        t.state = NCS_REJECTED;
        t.reason = t.hostRejected ? NvRejectReason::Blacklisted : NvRejectReason::VersionMismatch;
        t.device->setBusId(0);
        sendStatus(t, link);
        return;
    }
    connect(t, NCS_WIRELESS, nowNs, link);
}

void MasterDevice::connect(Tracker& t, NvConnectivityState state, int64_t nowNs, LinkSink& link)
{
    updateBattery(t, nowNs);
    t.state = state;
    t.reason = NvRejectReason::None;
    t.device->setBusId(t.busId());
    if (state == NCS_WIRELESS) {
        // More trackers than the rate carries: the master slows down.
        if (trackersAtRate(m_updateRate) < wirelessCount())
            m_updateRate = offeredRates().back();
        if (m_measuring)
            t.device->measureAtRate(nowNs, m_updateRate);
    }
    sendStatus(t, link);
}

void MasterDevice::disconnect(Tracker& t, NvConnectivityState state, NvRejectReason reason,
                              LinkSink& link)
{
    t.device->goToConfig();
    t.state = state;
    t.reason = reason;
    t.device->setBusId(0);
    sendStatus(t, link);
}

void MasterDevice::sendStatus(Tracker& t, LinkSink& link)
{
    NvByteArray out(KvwInfo::WireSize);
    record(t, t.lastBatteryNs).toWire(out.data());
    link.sendControl(NvMessage(0xFF, NvMid::TrackerStatus, out));
}

int8_t MasterDevice::rssiAt(const Tracker& t, int64_t nowNs) const
{
    const double s = double(nowNs - m_originNs) * 1e-9;
    const double rssi = t.rssiBase + 8 * std::sin(kTwoPi * s / t.rssiPeriod + t.rssiPhase);
    return int8_t(std::lround(std::clamp(rssi, -80.0, -40.0)));
}

void MasterDevice::updateBattery(Tracker& t, int64_t nowNs)
{
    const double seconds = double(nowNs - t.lastBatteryNs) * 1e-9;
    t.lastBatteryNs = nowNs;
    if (seconds <= 0)
        return;
    // Charging in the dock takes about ten minutes; a full battery lasts hours.
    if (t.state == NCS_PLUGGED_IN)
        t.battery = std::min(100.0, t.battery + seconds / 6);
    else
        t.battery = std::max(0.0, t.battery - seconds / 120);
}

KvwInfo MasterDevice::record(const Tracker& t, int64_t nowNs) const
{
    KvwInfo info;
    info.deviceId = t.device->id();
    info.busId = t.busId();
    info.state = t.state;
    info.rejectReason = t.reason;
    info.flags = t.flags;
    // Heard over the radio or on the cable; nothing is known of a tracker that is off.
    if (t.state == NCS_WIRELESS || t.state == NCS_REJECTED)
        info.rssi = rssiAt(t, nowNs);
    if (t.state != NCS_DISCONNECTED)
        info.batteryLevel = uint8_t(std::floor(t.battery));
    return info;
}

size_t MasterDevice::wirelessCount() const
{
    return size_t(std::count_if(m_trackers.begin(), m_trackers.end(),
                                [](const auto& t) { return t->state == NCS_WIRELESS; }));
}

std::vector<uint16_t> MasterDevice::offeredRates() const
{
    const size_t n = wirelessCount();
    std::vector<uint16_t> rates;
    for (uint16_t r : masterRates())
        if (trackersAtRate(r) >= n)
            rates.push_back(r);
    return rates;
}

void MasterDevice::sendLinkReport(int64_t nowNs, LinkSink& link)
{
    NvByteArray out;
    for (auto& t : m_trackers) {
        updateBattery(*t, nowNs);
        if (!t->connected())
            continue;
        const KvwInfo info = record(*t, nowNs);
        out.push_back(info.busId);
        out.push_back(uint8_t(info.rssi));
        out.push_back(info.batteryLevel);
    }
    if (!out.empty())
        link.sendControl(NvMessage(0xFF, NvMid::TrackerLinkReport, out));
}

int64_t MasterDevice::nextDeadline() const
{
    int64_t deadline = std::min({m_master.nextDeadline(), m_nextReportNs, m_nextFlushNs});
    if (!m_measuring && m_channel != 0)
        deadline = std::min(deadline, m_nextCallNs);
    for (const auto& t : m_trackers)
        deadline = std::min(deadline, t->device->nextDeadline());
    return deadline;
}

void MasterDevice::advance(int64_t nowNs, LinkSink& link)
{
    m_master.advance(nowNs, link);
    syncMeasurement(nowNs, link);
    if (!m_measuring && m_channel != 0 && nowNs >= m_nextCallNs) {
        m_nextCallNs = kNever;
        auto next = std::find_if(m_trackers.begin(), m_trackers.end(),
                                 [](const auto& t) { return t->pending; });
        if (next != m_trackers.end()) {
            callIn(**next, nowNs, link);
            scheduleCalls(nowNs);
        }
    }
    if (nowNs >= m_nextReportNs) {
        m_nextReportNs += kReportPeriodNs;
        if (m_nextReportNs <= nowNs) // after a stall: no burst of reports
            m_nextReportNs = nowNs + kReportPeriodNs;
        sendLinkReport(nowNs, link);
    }
    for (auto& t : m_trackers)
        t->device->advance(nowNs, linkOf(*t, link));
    if (m_flushing && nowNs >= m_nextFlushNs)
        retransmit(nowNs, link);
}

void MasterDevice::flushTruth()
{
    m_master.flushTruth();
    for (auto& t : m_trackers)
        t->device->flushTruth();
}

} // namespace kvsim
