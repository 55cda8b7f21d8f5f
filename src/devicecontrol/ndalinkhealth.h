#pragma once
// How well a device's link keeps up: what arrives against what the device was told to
// send. Kept per device on the GUI thread from the packets the bridge delivers.

#include <QElapsedTimer>
#include <QtGlobal>

#include <deque>

struct NdaLinkHealth
{
    double packetsPerSecond = 0;   // received over the last second
    int configuredRate = 0;        // Hz the device should send at; 0 unknown
    quint64 packets = 0;           // received since the device opened
    quint64 missed = 0;            // reported as missed by the library
    quint64 checksumErrors = 0;    // frames of its port dropped for their checksum
    qint64 msSinceLastPacket = -1; // -1: none yet
    // A wireless master sends no data of its own: its figures are the sums over the
    // trackers measuring through it, and this is their number. -1 for any other device.
    int trackers = -1;

    bool isMaster() const { return trackers >= 0; }
    // Share of the configured rate that arrives (1 when it keeps up; 0 when unknown).
    double ratio() const { return configuredRate > 0 ? packetsPerSecond / configuredRate : 0; }
    // Keeps up within a few percent and has sent within a second; a master with no
    // tracker measuring has nothing to keep up with.
    bool isHealthy() const
    {
        if (trackers == 0)
            return true;
        return msSinceLastPacket >= 0 && msSinceLastPacket < 1000 &&
               (configuredRate == 0 || ratio() > 0.95);
    }
    // Adds a tracker's figures to a master's.
    void addTracker(const NdaLinkHealth& tracker);
};

class NdaLinkHealthMeter
{
public:
    NdaLinkHealthMeter();
    void setConfiguredRate(int hz) { m_rate = hz; }
    void packetArrived();
    void packetsMissed(int count) { m_missed += quint64(count > 0 ? count : 0); }
    NdaLinkHealth health(quint64 checksumErrors) const;

private:
    void dropOld(qint64 nowMs) const;

    QElapsedTimer m_clock;
    mutable std::deque<qint64> m_window; // arrival times (ms) within the last second
    qint64 m_last = -1;
    quint64 m_packets = 0;
    quint64 m_missed = 0;
    int m_rate = 0;
};
