#include "sampleclock.h"

void SampleClock::setAxis(TimeAxis axis)
{
    if (axis != m_axis) {
        m_axis = axis;
        reset();
    }
}

void SampleClock::reset()
{
    m_started = false;
    m_wentBack = false;
    m_haveFine = false;
    m_haveCounter = false;
    m_fineTicks = 0;
    m_counterTicks = 0;
    m_firstArrival = 0;
    m_last = 0;
}

double SampleClock::sampleSeconds(const NvDataPacket& packet, int64_t arrivalNs)
{
    if (packet.contains(NDI_SAMPLE_TIME_FINE)) {
        const uint32_t fine = packet.sampleTimeFine();
        if (m_haveFine)
            m_fineTicks += static_cast<int32_t>(fine - m_lastFine); // wraps and small steps back
        else
            m_fineTicks = fine;
        m_haveFine = true;
        m_lastFine = fine;
        return static_cast<double>(m_fineTicks) / 10000.0;
    }
    if (packet.contains(NDI_PACKET_COUNTER) && m_rate > 0) {
        const uint16_t counter = packet.packetCounter();
        if (m_haveCounter)
            m_counterTicks += static_cast<int16_t>(counter - m_lastCounter);
        else
            m_counterTicks = counter;
        m_haveCounter = true;
        m_lastCounter = counter;
        return static_cast<double>(m_counterTicks) / m_rate;
    }
    return static_cast<double>(arrivalNs) * 1e-9;
}

double SampleClock::timeOf(const NvDataPacket& packet, int64_t arrivalNs)
{
    double t;
    if (m_axis == TimeAxis::HostTime && arrivalNs != 0)
        t = static_cast<double>(arrivalNs) * 1e-9;
    else
        t = sampleSeconds(packet, arrivalNs);
    if (!m_started) {
        m_started = true;
        m_origin = t;
        m_last = 0;
        m_wentBack = false;
        return 0;
    }
    const double rel = t - m_origin;
    m_wentBack = rel < m_last;
    if (m_wentBack) {
        // A new run: start the axis again here.
        m_origin = t;
        m_last = 0;
        return 0;
    }
    m_last = rel;
    return rel;
}
