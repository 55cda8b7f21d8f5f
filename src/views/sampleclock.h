#pragma once
// The time axis of a view: seconds since the first packet it saw, by the device's own
// sample time or by the host's arrival time. Sample time comes from SampleTimeFine
// (10 kHz, unwrapped over its 32-bit wrap), else from the packet counter at the nominal
// rate (unwrapped over 16 bits), else from the arrival time.

#include "plotmanager.h"

#include "nvdatapacket.h"

#include <cstdint>

class SampleClock
{
public:
    using TimeAxis = PlottingOptions::TimeAxis;

    void setAxis(TimeAxis axis);
    TimeAxis axis() const { return m_axis; }
    // Used only when packets carry a counter but no sample time.
    void setNominalRate(double hz) { m_rate = hz; }
    // Starts a new origin with the next packet.
    void reset();

    // The packet's time in seconds; arrivalNs is the host steady clock (0 unknown, e.g. a
    // packet from a file: then the sample time serves on either axis).
    double timeOf(const NvDataPacket& packet, int64_t arrivalNs);
    // True when the last timeOf went backwards (a seek in a file, a device reset): the
    // caller should drop what it buffered.
    bool wentBack() const { return m_wentBack; }

private:
    double sampleSeconds(const NvDataPacket& packet, int64_t arrivalNs);

    TimeAxis m_axis = TimeAxis::SampleTime;
    double m_rate = 0;
    bool m_started = false;
    bool m_wentBack = false;
    double m_last = 0;
    // unwrapping
    bool m_haveFine = false;
    uint32_t m_lastFine = 0;
    int64_t m_fineTicks = 0;
    bool m_haveCounter = false;
    uint16_t m_lastCounter = 0;
    int64_t m_counterTicks = 0;
    int64_t m_firstArrival = 0;
    double m_origin = 0;
};
