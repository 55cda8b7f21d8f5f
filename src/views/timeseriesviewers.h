#pragma once
// The graph views of a device's data over time: inertial data, orientation, free
// acceleration, temperature, pressure, status flags, GNSS altitude and velocity. Each
// shows "Waiting for data…" until a packet with its items comes, ignores packets without
// them, and starts afresh when the device's time goes back (a seek in a recording).

#include "packetviewer.h"
#include "sampleclock.h"
#include "timeseriesplot.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cmath>

class QLabel;

// The graph, the time axis and what every graph view shares.
class TimeSeriesViewer : public PacketViewer
{
    Q_OBJECT

public:
    TimeSeriesViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    TimeSeriesPlot* plot() const { return m_plot; }
    bool isWaiting() const { return m_plot->isWaiting(); }
    // The newest value of each channel, in channelNames() order (NaN: none yet).
    QVector<double> latestValues() const { return m_plot->latestValues(); }
    QStringList channelNames() const { return m_plot->channelNames(); }
    // The legend as drawn in the last frame.
    QStringList legendTexts() const { return m_plot->legendTexts(); }

    void processPacket(const NvDataPacket& packet, int64_t arrivalNs) override;
    void refresh() override;
    void applyOptions(const PlottingOptions& options) override;
    void clear() override;

protected:
    // Whether the packet carries anything this view shows.
    virtual bool accepts(const NvDataPacket& packet) const = 0;
    // The packet's values at time t (s on the view's axis).
    virtual void addSamples(const NvDataPacket& packet, double t) = 0;
    // The lanes and channels for the current settings, on an empty plot.
    virtual void buildLanes() = 0;
    // Options of this view's own (units, forms); true when the lanes must be rebuilt.
    virtual bool takeOptions(const PlottingOptions& options)
    {
        (void)options;
        return false;
    }
    // Before a frame is drawn.
    virtual void beforeFrame() {}
    // After the samples were dropped.
    virtual void afterClear() {}
    // Replaces the lanes (new units or forms); what was buffered goes.
    void rebuild();
    // Adds three channels x, y, z (or the given names) to a lane.
    void addXyz(int lane, int decimals, const QStringList& names = {});

private:
    void chooseTimeAxis(PlottingOptions::TimeAxis axis);

    TimeSeriesPlot* m_plot = nullptr;
    SampleClock m_clock;
    bool m_rateKnown = false;
};

// |B| against its own slow reference: a disturbance (iron nearby, a motor) stands out.
class MagneticFieldHealth
{
public:
    static constexpr double Tolerance = 0.1;          // relative to the reference
    static constexpr double TimeConstant = 10.0;      // s, of the reference while undisturbed
    static constexpr double AdoptAfter = 30.0;        // s disturbed before a new level is taken
    static constexpr double AdoptTimeConstant = 60.0; // s

    void reset() { *this = MagneticFieldHealth(); }
    void add(double t, double norm);
    bool known() const { return m_known; }
    double reference() const { return m_reference; }
    double ratio() const { return m_ratio; }
    bool disturbed() const { return m_known && std::abs(m_ratio - 1) > Tolerance; }
    // "Magnetic field OK", "Disturbed (|B| 1.23× reference)"
    QString text() const;

private:
    bool m_known = false;
    double m_reference = 0;
    double m_ratio = 1;
    double m_last = 0;
    double m_start = 0;
    double m_disturbedFor = 0;
};

// Acceleration (m/s²), rate of turn (rad/s, as the device sends it) and magnetic field
// (a.u.), x/y/z each, the high-rate forms when only those come; Δv (m/s) and Δq in their
// place for a device that sends those instead; and
// the magnetic field's magnitude against its reference with a tolerance band.
class InertialDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    InertialDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    bool showsDeltaV() const { return m_deltaV; }
    bool showsDeltaQ() const { return m_deltaQ; }
    const MagneticFieldHealth& magneticFieldHealth() const { return m_health; }
    // The state line as shown.
    QString magneticFieldText() const;

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
    void beforeFrame() override;
    void afterClear() override;

private:
    bool m_deltaV = false;
    bool m_deltaQ = false;
    int m_first = 0; // first channel of acceleration or Δv
    int m_rotation = 0;
    int m_magnetic = 0;
    int m_norm = 0; // |B|, then the band's lower and upper edge
    MagneticFieldHealth m_health;
    QLabel* m_healthLabel = nullptr;
};

// Roll, pitch, yaw (deg) or the quaternion q0..q3, as the options say.
class OrientationDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    OrientationDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);
    bool showsQuaternion() const { return m_quaternion; }

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
    bool takeOptions(const PlottingOptions& options) override;

private:
    bool m_quaternion = false;
};

// Free acceleration x/y/z (m/s²).
class FreeAccelerationDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    FreeAccelerationDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
};

// Temperature in °C or °F, as the options say.
class TemperatureDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    TemperatureDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);
    bool showsFahrenheit() const { return m_fahrenheit; }

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
    bool takeOptions(const PlottingOptions& options) override;

private:
    bool m_fahrenheit = false;
};

// Barometric pressure in hPa.
class PressureDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    PressureDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
};

// The status word's flags (the status byte's, when only that comes), one 0/1 lane each.
class StatusDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    StatusDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
};

// Altitude above mean sea level and above the ellipsoid (m).
class AltitudeDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    AltitudeDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;
};

// Velocity (m/s) along the axes of the frame it comes in: east/north/up, north/east/down
// or north/west/up.
class VelocityDataViewer : public TimeSeriesViewer
{
    Q_OBJECT

public:
    VelocityDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

protected:
    bool accepts(const NvDataPacket& packet) const override;
    void addSamples(const NvDataPacket& packet, double t) override;
    void buildLanes() override;

private:
    int m_frame = -1;
};
