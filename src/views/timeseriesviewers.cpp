// The plotting library's inline code still uses Qt's foreach, which our targets switch
// off: its header has to come before any Qt header, with the keyword allowed.
#undef QT_NO_FOREACH
#include <qcustomplot.h>

#include "timeseriesviewers.h"

#include "ndadevice.h"

#include "nvmessage.h"

#include <QHBoxLayout>
#include <QLabel>

#include <algorithm>
#include <cmath>

namespace {

const QColor Red(214, 39, 40);
const QColor Green(44, 160, 44);
const QColor Blue(31, 119, 180);
const QColor Dark(60, 60, 60);

constexpr double PaPerHpa = 100.0;

} // namespace

// ---- TimeSeriesViewer

TimeSeriesViewer::TimeSeriesViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : PacketViewer(manager, id, type), m_plot(new TimeSeriesPlot)
{
    const PlottingOptions& o = options();
    const bool file = isFileDevice();
    m_plot->setDisplayTimeBounds(file ? o.minimumDisplayTimeFile : o.minimumDisplayTimeLive,
                                 file ? o.maximumDisplayTimeFile : o.maximumDisplayTimeLive);
    m_plot->setDisplayTime(o.defaultDisplayTime(file));
    m_plot->setStrobes(o.strobes);
    m_plot->setTimeAxis(o.timeAxis);
    m_clock.setAxis(o.timeAxis);
    connect(m_plot, &TimeSeriesPlot::timeAxisChosen, this, &TimeSeriesViewer::chooseTimeAxis);
    setWidget(m_plot);
    subscribeToRefresh();
}

void TimeSeriesViewer::processPacket(const NvDataPacket& packet, int64_t arrivalNs)
{
    if (packet.isEmpty() || !accepts(packet))
        return;
    if (!m_rateKnown && !packet.contains(NDI_SAMPLE_TIME_FINE)) {
        // Counters alone need the nominal rate to become time.
        m_rateKnown = true;
        if (isDeviceValid())
            m_clock.setNominalRate(device().updateRate());
    }
    const double t = m_clock.timeOf(packet, arrivalNs);
    if (m_clock.wentBack()) {
        m_plot->clear();
        afterClear();
    }
    if (m_plot->isWaiting())
        m_plot->setWaiting(false);
    addSamples(packet, t);
}

void TimeSeriesViewer::refresh()
{
    beforeFrame();
    m_plot->refresh();
}

void TimeSeriesViewer::applyOptions(const PlottingOptions& options)
{
    const bool file = isFileDevice();
    m_plot->setDisplayTimeBounds(
        file ? options.minimumDisplayTimeFile : options.minimumDisplayTimeLive,
        file ? options.maximumDisplayTimeFile : options.maximumDisplayTimeLive);
    m_plot->setStrobes(options.strobes);
    if (options.timeAxis != m_clock.axis()) {
        // Times on the two axes do not mix.
        m_clock.setAxis(options.timeAxis);
        m_plot->setTimeAxis(options.timeAxis);
        m_plot->clear();
        afterClear();
    }
    if (takeOptions(options))
        rebuild();
}

void TimeSeriesViewer::clear()
{
    m_clock.reset();
    m_plot->clear();
    afterClear();
}

void TimeSeriesViewer::rebuild()
{
    m_plot->removeAll();
    buildLanes();
    afterClear();
}

void TimeSeriesViewer::addXyz(int lane, int decimals, const QStringList& names)
{
    const QStringList n = names.size() == 3 ? names
                                            : QStringList{QStringLiteral("x"), QStringLiteral("y"),
                                                          QStringLiteral("z")};
    m_plot->addChannel(lane, n[0], Red, decimals);
    m_plot->addChannel(lane, n[1], Green, decimals);
    m_plot->addChannel(lane, n[2], Blue, decimals);
}

void TimeSeriesViewer::chooseTimeAxis(PlottingOptions::TimeAxis axis)
{
    PlottingOptions o = options();
    if (o.timeAxis == axis)
        return;
    o.timeAxis = axis;
    o.save();
    plotManager().setOptions(o); // every view follows through applyOptions
}

// ---- MagneticFieldHealth

void MagneticFieldHealth::add(double t, double norm)
{
    if (!std::isfinite(norm) || norm <= 0)
        return;
    if (!m_known) {
        m_known = true;
        m_reference = norm;
        m_ratio = 1;
        m_last = m_start = t;
        m_disturbedFor = 0;
        return;
    }
    const double dt = std::clamp(t - m_last, 0.0, 1.0);
    m_last = t;
    m_ratio = norm / m_reference;
    double timeConstant = TimeConstant;
    if (t - m_start < 2.0) {
        // Settle quickly on the first level seen.
        timeConstant = 0.5;
        m_disturbedFor = 0;
    } else if (std::abs(m_ratio - 1) > Tolerance) {
        // A disturbance does not move the reference, unless it lasts: then it is the
        // new normal (the device moved to another place).
        m_disturbedFor += dt;
        if (m_disturbedFor < AdoptAfter)
            return;
        timeConstant = AdoptTimeConstant;
    } else {
        m_disturbedFor = 0;
    }
    m_reference += (norm - m_reference) * std::min(1.0, dt / timeConstant);
}

QString MagneticFieldHealth::text() const
{
    if (!m_known)
        return QObject::tr("Magnetic field: no data");
    if (!disturbed())
        return QObject::tr("Magnetic field OK");
    return QObject::tr("Disturbed (|B| %1× reference)").arg(m_ratio, 0, 'f', 2);
}

// ---- InertialDataViewer

InertialDataViewer::InertialDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : TimeSeriesViewer(manager, id, type)
{
    m_healthLabel = new QLabel;
    m_healthLabel->setToolTip(
        tr("Magnitude of the magnetic field against its slow average; more than %1 % off "
           "means a disturbance")
            .arg(MagneticFieldHealth::Tolerance * 100));
    plot()->toolBar()->addWidget(m_healthLabel);
    rebuild();
}

QString InertialDataViewer::magneticFieldText() const
{
    return m_healthLabel->text();
}

bool InertialDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_ACCELERATION) || packet.contains(NDI_RATE_OF_TURN) ||
           packet.contains(NDI_MAGNETIC_FIELD) || packet.contains(NDI_DELTA_V) ||
           packet.contains(NDI_DELTA_Q) || packet.contains(NDI_ACCELERATION_HR) ||
           packet.contains(NDI_RATE_OF_TURN_HR);
}

void InertialDataViewer::buildLanes()
{
    TimeSeriesPlot* p = plot();
    const int first =
        m_deltaV ? p->addLane(tr("Δv"), tr("m/s")) : p->addLane(tr("Acceleration"), tr("m/s²"));
    m_first = p->channelCount();
    addXyz(first, m_deltaV ? 5 : 3);
    m_rotation = p->channelCount();
    if (m_deltaQ) {
        const int lane = p->addLane(tr("Δq"), QString());
        p->addChannel(lane, QStringLiteral("q0"), Dark, 6);
        p->addChannel(lane, QStringLiteral("q1"), Red, 6);
        p->addChannel(lane, QStringLiteral("q2"), Green, 6);
        p->addChannel(lane, QStringLiteral("q3"), Blue, 6);
    } else {
        addXyz(p->addLane(tr("Rate of turn"), tr("rad/s")), 3);
    }
    m_magnetic = p->channelCount();
    addXyz(p->addLane(tr("Magnetic field"), tr("a.u.")), 3);
    const int health = p->addLane(tr("|B|"), tr("a.u."), 0.6);
    m_norm = p->addChannel(health, tr("|B|"), Dark, 3);
    const QColor band(44, 160, 44, 60);
    const int low = p->addChannel(health, tr("low"), band, 3);
    const int high = p->addChannel(health, tr("high"), band, 3);
    p->setChannelFill(high, low, band);
}

void InertialDataViewer::afterClear()
{
    m_health.reset();
}

void InertialDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    // The high-rate forms stand in when the plain ones are not sent.
    const bool plainAcc = packet.contains(NDI_ACCELERATION);
    const bool plainRot = packet.contains(NDI_RATE_OF_TURN);
    const bool hasAcc = plainAcc || packet.contains(NDI_ACCELERATION_HR);
    const bool hasRot = plainRot || packet.contains(NDI_RATE_OF_TURN_HR);
    const bool hasDv = packet.contains(NDI_DELTA_V);
    const bool hasDq = packet.contains(NDI_DELTA_Q);
    // The device sends increments instead (or again the plain values): other lanes.
    const bool deltaV = hasAcc ? false : hasDv ? true : m_deltaV;
    const bool deltaQ = hasRot ? false : hasDq ? true : m_deltaQ;
    if (deltaV != m_deltaV || deltaQ != m_deltaQ) {
        m_deltaV = deltaV;
        m_deltaQ = deltaQ;
        rebuild();
    }

    TimeSeriesPlot* p = plot();
    auto addVector = [&](int channel, const NvVector3& v) {
        p->append(channel, t, v.x);
        p->append(channel + 1, t, v.y);
        p->append(channel + 2, t, v.z);
    };
    if (m_deltaV ? hasDv : hasAcc)
        addVector(m_first, m_deltaV   ? packet.deltaVelocity()
                           : plainAcc ? packet.acceleration()
                                      : packet.accelerationHr());
    if (m_deltaQ ? hasDq : hasRot) {
        if (m_deltaQ) {
            const NvQuaternion dq = packet.deltaQ();
            p->append(m_rotation, t, dq.w);
            p->append(m_rotation + 1, t, dq.x);
            p->append(m_rotation + 2, t, dq.y);
            p->append(m_rotation + 3, t, dq.z);
        } else {
            addVector(m_rotation, plainRot ? packet.rateOfTurn() : packet.rateOfTurnHr());
        }
    }
    if (packet.contains(NDI_MAGNETIC_FIELD)) {
        const NvVector3 b = packet.magneticField();
        addVector(m_magnetic, b);
        const double norm = b.norm();
        m_health.add(t, norm);
        p->append(m_norm, t, norm);
        if (m_health.known()) {
            const double ref = m_health.reference();
            p->append(m_norm + 1, t, ref * (1 - MagneticFieldHealth::Tolerance));
            p->append(m_norm + 2, t, ref * (1 + MagneticFieldHealth::Tolerance));
        }
    }
}

void InertialDataViewer::beforeFrame()
{
    if (plot()->isPaused())
        return;
    const QString text = m_health.text();
    if (text == m_healthLabel->text())
        return;
    m_healthLabel->setText(text);
    m_healthLabel->setStyleSheet(!m_health.known()      ? QString()
                                 : m_health.disturbed() ? QStringLiteral("color: #c62828;")
                                                        : QStringLiteral("color: #2e7d32;"));
}

// ---- OrientationDataViewer

OrientationDataViewer::OrientationDataViewer(ViewManager& manager, const NvDeviceId& id,
                                             ViewType type)
    : TimeSeriesViewer(manager, id, type), m_quaternion(options().orientationQuaternion)
{
    rebuild();
}

bool OrientationDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.containsOrientation();
}

void OrientationDataViewer::buildLanes()
{
    TimeSeriesPlot* p = plot();
    if (m_quaternion) {
        const int lane = p->addLane(tr("Orientation quaternion"), QString());
        p->addChannel(lane, QStringLiteral("q0"), Dark, 4);
        p->addChannel(lane, QStringLiteral("q1"), Red, 4);
        p->addChannel(lane, QStringLiteral("q2"), Green, 4);
        p->addChannel(lane, QStringLiteral("q3"), Blue, 4);
    } else {
        addXyz(p->addLane(tr("Euler angles"), tr("deg")), 2, {tr("roll"), tr("pitch"), tr("yaw")});
    }
}

bool OrientationDataViewer::takeOptions(const PlottingOptions& options)
{
    if (options.orientationQuaternion == m_quaternion)
        return false;
    m_quaternion = options.orientationQuaternion;
    return true;
}

void OrientationDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    TimeSeriesPlot* p = plot();
    if (m_quaternion) {
        const NvQuaternion q = packet.orientationQuaternion();
        p->append(0, t, q.w);
        p->append(1, t, q.x);
        p->append(2, t, q.y);
        p->append(3, t, q.z);
    } else {
        const NvEuler e = packet.orientationEuler();
        p->append(0, t, e.roll);
        p->append(1, t, e.pitch);
        p->append(2, t, e.yaw);
    }
}

// ---- FreeAccelerationDataViewer

FreeAccelerationDataViewer::FreeAccelerationDataViewer(ViewManager& manager, const NvDeviceId& id,
                                                       ViewType type)
    : TimeSeriesViewer(manager, id, type)
{
    rebuild();
}

bool FreeAccelerationDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_FREE_ACCELERATION);
}

void FreeAccelerationDataViewer::buildLanes()
{
    addXyz(plot()->addLane(tr("Free acceleration"), tr("m/s²")), 3);
}

void FreeAccelerationDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    const NvVector3 a = packet.freeAcceleration();
    plot()->append(0, t, a.x);
    plot()->append(1, t, a.y);
    plot()->append(2, t, a.z);
}

// ---- TemperatureDataViewer

TemperatureDataViewer::TemperatureDataViewer(ViewManager& manager, const NvDeviceId& id,
                                             ViewType type)
    : TimeSeriesViewer(manager, id, type), m_fahrenheit(options().fahrenheit)
{
    rebuild();
}

bool TemperatureDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_TEMPERATURE);
}

void TemperatureDataViewer::buildLanes()
{
    const int lane = plot()->addLane(tr("Temperature"), m_fahrenheit ? tr("°F") : tr("°C"));
    plot()->addChannel(lane, tr("Temperature"), Red, 2);
}

bool TemperatureDataViewer::takeOptions(const PlottingOptions& options)
{
    if (options.fahrenheit == m_fahrenheit)
        return false;
    m_fahrenheit = options.fahrenheit;
    return true;
}

void TemperatureDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    const double c = packet.temperature();
    plot()->append(0, t, m_fahrenheit ? c * 9.0 / 5.0 + 32.0 : c);
}

// ---- PressureDataViewer

PressureDataViewer::PressureDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : TimeSeriesViewer(manager, id, type)
{
    rebuild();
}

bool PressureDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_BARO_PRESSURE);
}

void PressureDataViewer::buildLanes()
{
    const int lane = plot()->addLane(tr("Pressure"), tr("hPa"));
    plot()->addChannel(lane, tr("Pressure"), Blue, 2);
}

void PressureDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    plot()->append(0, t, packet.pressure() / PaPerHpa);
}

// ---- StatusDataViewer

namespace {

struct StatusFlag
{
    uint32_t bit;
    const char* name;
};

// The bits the status word defines; the others are always 0.
const StatusFlag StatusFlags[] = {
    {NvStatus::SelfTestOk, QT_TRANSLATE_NOOP("StatusDataViewer", "Self-test OK")},
    {NvStatus::OrientationValid, QT_TRANSLATE_NOOP("StatusDataViewer", "Orientation valid")},
    {NvStatus::GnssFix, QT_TRANSLATE_NOOP("StatusDataViewer", "GNSS fix")},
    {NvStatus::NoRotationUpdate, QT_TRANSLATE_NOOP("StatusDataViewer", "No-rotation update")},
    {NvStatus::RtkFloat, QT_TRANSLATE_NOOP("StatusDataViewer", "RTK float")},
    {NvStatus::RtkFixed, QT_TRANSLATE_NOOP("StatusDataViewer", "RTK fixed")},
};

} // namespace

StatusDataViewer::StatusDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : TimeSeriesViewer(manager, id, type)
{
    rebuild();
}

bool StatusDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_STATUS_WORD) || packet.contains(NDI_STATUS_BYTE);
}

void StatusDataViewer::buildLanes()
{
    TimeSeriesPlot* p = plot();
    const QColor colors[] = {Blue, Green, Red, Dark, QColor(148, 103, 189), QColor(140, 86, 75)};
    int i = 0;
    for (const StatusFlag& flag : StatusFlags) {
        const QString name = tr(flag.name);
        const int lane = p->addLane(name, QString());
        p->setLaneFixedRange(lane, -0.25, 1.6); // room above for the legend
        QCPAxis* axis = p->valueAxis(lane);
        QSharedPointer<QCPAxisTickerFixed> ticker(new QCPAxisTickerFixed);
        ticker->setTickStep(1.0);
        ticker->setScaleStrategy(QCPAxisTickerFixed::ssNone);
        axis->setTicker(ticker);
        axis->setLabel(QString());
        const int channel = p->addChannel(lane, name, colors[i++ % 6], 0);
        p->setChannelStep(channel, true);
        p->setChannelFormatter(channel, [](double v) { return v >= 0.5 ? tr("yes") : tr("no"); });
    }
}

void StatusDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    const uint32_t word =
        packet.contains(NDI_STATUS_WORD) ? packet.statusWord() : packet.statusByte();
    int channel = 0;
    for (const StatusFlag& flag : StatusFlags)
        plot()->append(channel++, t, (word & flag.bit) ? 1.0 : 0.0);
}

// ---- AltitudeDataViewer

AltitudeDataViewer::AltitudeDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : TimeSeriesViewer(manager, id, type)
{
    rebuild();
}

bool AltitudeDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_ALTITUDE_MSL) || packet.contains(NDI_ALTITUDE_ELLIPSOID);
}

void AltitudeDataViewer::buildLanes()
{
    const int lane = plot()->addLane(tr("Altitude"), tr("m"));
    plot()->addChannel(lane, tr("MSL"), Blue, 2);
    plot()->addChannel(lane, tr("ellipsoid"), Red, 2);
}

void AltitudeDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    if (packet.contains(NDI_ALTITUDE_MSL))
        plot()->append(0, t, packet.altitudeMsl());
    if (packet.contains(NDI_ALTITUDE_ELLIPSOID))
        plot()->append(1, t, packet.altitudeEllipsoid());
}

// ---- VelocityDataViewer

VelocityDataViewer::VelocityDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : TimeSeriesViewer(manager, id, type)
{
    rebuild();
}

bool VelocityDataViewer::accepts(const NvDataPacket& packet) const
{
    return packet.contains(NDI_VELOCITY);
}

void VelocityDataViewer::buildLanes()
{
    addXyz(plot()->addLane(tr("Velocity"), tr("m/s")), 3, {tr("east"), tr("north"), tr("up")});
    m_frame = NCF_ENU;
}

void VelocityDataViewer::addSamples(const NvDataPacket& packet, double t)
{
    const int frame = nvCoordinateFrame(packet.identifier(NDI_VELOCITY));
    if (frame != m_frame) {
        // Values in another frame do not continue the old lines.
        plot()->clear();
        m_frame = frame;
        const QStringList names =
            frame == NCF_NED   ? QStringList{tr("north"), tr("east"), tr("down")}
            : frame == NCF_NWU ? QStringList{tr("north"), tr("west"), tr("up")}
                               : QStringList{tr("east"), tr("north"), tr("up")};
        for (int i = 0; i < 3; ++i)
            plot()->setChannelName(i, names[i]);
    }
    const NvVector3 v = packet.velocity();
    plot()->append(0, t, v.x);
    plot()->append(1, t, v.y);
    plot()->append(2, t, v.z);
}
