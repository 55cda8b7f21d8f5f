#include "ndalinkhealth.h"

NdaLinkHealthMeter::NdaLinkHealthMeter()
{
    m_clock.start();
}

void NdaLinkHealthMeter::dropOld(qint64 nowMs) const
{
    while (!m_window.empty() && m_window.front() <= nowMs - 1000)
        m_window.pop_front();
}

void NdaLinkHealthMeter::packetArrived()
{
    const qint64 now = m_clock.elapsed();
    m_window.push_back(now);
    dropOld(now);
    m_last = now;
    ++m_packets;
}

NdaLinkHealth NdaLinkHealthMeter::health(quint64 checksumErrors) const
{
    const qint64 now = m_clock.elapsed();
    dropOld(now);
    NdaLinkHealth h;
    // Over the time actually observed while the device is young, else the last second.
    const qint64 span = qMin<qint64>(1000, qMax<qint64>(now, 1));
    h.packetsPerSecond = double(m_window.size()) * 1000.0 / double(span);
    h.configuredRate = m_rate;
    h.packets = m_packets;
    h.missed = m_missed;
    h.checksumErrors = checksumErrors;
    h.msSinceLastPacket = m_last < 0 ? -1 : now - m_last;
    return h;
}

void NdaLinkHealth::addTracker(const NdaLinkHealth& tracker)
{
    trackers = qMax(trackers, 0) + 1;
    packetsPerSecond += tracker.packetsPerSecond;
    configuredRate += tracker.configuredRate;
    packets += tracker.packets;
    missed += tracker.missed;
    if (tracker.msSinceLastPacket >= 0 &&
        (msSinceLastPacket < 0 || tracker.msSinceLastPacket < msSinceLastPacket))
        msSinceLastPacket = tracker.msSinceLastPacket;
}
