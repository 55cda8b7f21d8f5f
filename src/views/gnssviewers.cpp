// The plotting library's inline code still uses Qt's foreach, which our targets switch
// off: its header has to come before any Qt header, with the keyword allowed.
#undef QT_NO_FOREACH
#include <qcustomplot.h>

#include "gnssviewers.h"

#include <QCheckBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QTimeZone>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace {

QString waitingText()
{
    return QCoreApplication::translate("GnssViews", "Waiting for data…");
}

QString satellites(int n)
{
    return n == 1 ? QCoreApplication::translate("GnssViews", "1 satellite")
                  : QCoreApplication::translate("GnssViews", "%1 satellites").arg(n);
}

QColor systemColor(uint8_t system)
{
    switch (static_cast<NvGnssSystem>(system)) {
    case NvGnssSystem::Gps:
        return QColor(0x2f, 0x6f, 0xd6);
    case NvGnssSystem::Glonass:
        return QColor(0xd6, 0x45, 0x41);
    case NvGnssSystem::Galileo:
        return QColor(0xe0, 0x9a, 0x12);
    case NvGnssSystem::Beidou:
        return QColor(0x2e, 0x9e, 0x57);
    case NvGnssSystem::Qzss:
        return QColor(0x8e, 0x5b, 0xd6);
    case NvGnssSystem::Sbas:
        return QColor(0x7f, 0x8c, 0x8d);
    }
    return QColor(0x99, 0x80, 0x66);
}

bool hasPositionFix(const NvGnssPvt& pvt)
{
    return pvt.fixType >= NvGnssPvt::DeadReckoning &&
           pvt.fixType <= NvGnssPvt::GnssAndDeadReckoning && (pvt.lat != 0 || pvt.lon != 0);
}

bool plausible(const NvLatLon& p)
{
    return std::isfinite(p.latitude) && std::isfinite(p.longitude) &&
           std::abs(p.latitude) <= 90.0 && std::abs(p.longitude) <= 360.0;
}

QFont scaledFont(const QFont& base, double factor, bool bold)
{
    QFont f = base;
    f.setPointSizeF(base.pointSizeF() * factor);
    f.setBold(bold);
    return f;
}

} // namespace

// ---- Texts

namespace gnssText {

QString fixTypeName(uint8_t fixType)
{
    switch (fixType) {
    case NvGnssPvt::NoFix:
        return QCoreApplication::translate("GnssViews", "No fix");
    case NvGnssPvt::DeadReckoning:
        return QCoreApplication::translate("GnssViews", "Dead reckoning");
    case NvGnssPvt::Fix2D:
        return QCoreApplication::translate("GnssViews", "2D fix");
    case NvGnssPvt::Fix3D:
        return QCoreApplication::translate("GnssViews", "3D fix");
    case NvGnssPvt::GnssAndDeadReckoning:
        return QCoreApplication::translate("GnssViews", "GNSS + dead reckoning");
    case NvGnssPvt::TimeOnly:
        return QCoreApplication::translate("GnssViews", "Time only");
    }
    return QCoreApplication::translate("GnssViews", "Unknown fix (%1)").arg(fixType);
}

QString fixStatus(const NvGnssPvt& pvt)
{
    QString text = QCoreApplication::translate("GnssViews", "%1, %2 used")
                       .arg(fixTypeName(pvt.fixType), satellites(pvt.numSv));
    if (pvt.flags & NvGnssPvt::CarrierFixed)
        text += QCoreApplication::translate("GnssViews", ", RTK fixed");
    else if (pvt.flags & NvGnssPvt::CarrierFloat)
        text += QCoreApplication::translate("GnssViews", ", RTK float");
    else if (pvt.flags & NvGnssPvt::DifferentialSolution)
        text += QCoreApplication::translate("GnssViews", ", differential");
    if (pvt.fixType != NvGnssPvt::NoFix && !(pvt.flags & NvGnssPvt::GnssFixOk))
        text += QCoreApplication::translate("GnssViews", " (not OK)");
    return text;
}

QChar systemLetter(uint8_t system)
{
    switch (static_cast<NvGnssSystem>(system)) {
    case NvGnssSystem::Gps:
        return QLatin1Char('G');
    case NvGnssSystem::Sbas:
        return QLatin1Char('S');
    case NvGnssSystem::Galileo:
        return QLatin1Char('E');
    case NvGnssSystem::Beidou:
        return QLatin1Char('C');
    case NvGnssSystem::Qzss:
        return QLatin1Char('J');
    case NvGnssSystem::Glonass:
        return QLatin1Char('R');
    }
    return QLatin1Char('?');
}

QString systemName(uint8_t system)
{
    switch (static_cast<NvGnssSystem>(system)) {
    case NvGnssSystem::Gps:
        return QStringLiteral("GPS");
    case NvGnssSystem::Sbas:
        return QStringLiteral("SBAS");
    case NvGnssSystem::Galileo:
        return QStringLiteral("Galileo");
    case NvGnssSystem::Beidou:
        return QStringLiteral("BeiDou");
    case NvGnssSystem::Qzss:
        return QStringLiteral("QZSS");
    case NvGnssSystem::Glonass:
        return QStringLiteral("GLONASS");
    }
    return QCoreApplication::translate("GnssViews", "System %1").arg(system);
}

QString satelliteLabel(uint8_t system, uint8_t satelliteId)
{
    return QStringLiteral("%1%2")
        .arg(systemLetter(system))
        .arg(satelliteId, 2, 10, QLatin1Char('0'));
}

} // namespace gnssText

// ---- PositionDataViewer

QPointF PositionDataViewer::toLocal(const NvLatLon& origin, const NvLatLon& p)
{
    // WGS-84 radii of curvature: good to well under a metre over a few kilometres.
    constexpr double a = 6378137.0;
    constexpr double e2 = 6.69437999014e-3;
    const double lat0 = nvDegToRad(origin.latitude);
    const double s = std::sin(lat0);
    const double w = std::sqrt(1.0 - e2 * s * s);
    const double meridian = a * (1.0 - e2) / (w * w * w);
    const double normal = a / w;
    double dLon = p.longitude - origin.longitude;
    if (dLon > 180.0)
        dLon -= 360.0;
    else if (dLon < -180.0)
        dLon += 360.0;
    return QPointF(nvDegToRad(dLon) * normal * std::cos(lat0),
                   nvDegToRad(p.latitude - origin.latitude) * meridian);
}

PositionDataViewer::PositionDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : PacketViewer(manager, id, type)
{
    auto* w = new QWidget;
    auto* layout = new QVBoxLayout(w);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->setSpacing(2);
    auto* bar = new QHBoxLayout;
    m_text = new QLabel;
    m_text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_autoFitBox = new QCheckBox(tr("Auto-fit"));
    m_autoFitBox->setChecked(true);
    m_autoFitBox->setToolTip(tr("Keep the whole track in view; dragging or zooming stops it"));
    connect(m_autoFitBox, &QCheckBox::toggled, this, &PositionDataViewer::setAutoFit);
    bar->addWidget(m_text, 1);
    bar->addWidget(m_autoFitBox);
    layout->addLayout(bar);

    m_plot = new QCustomPlot;
    m_plot->setMinimumSize(200, 160);
    m_plot->setInteractions(QCP::iRangeDrag | QCP::iRangeZoom);
    m_plot->xAxis->setLabel(tr("East [m]"));
    m_plot->yAxis->setLabel(tr("North [m]"));
    m_plot->xAxis2->setVisible(true);
    m_plot->yAxis2->setVisible(true);
    m_plot->xAxis2->setTickLabels(false);
    m_plot->yAxis2->setTickLabels(false);
    connect(m_plot->xAxis, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), m_plot->xAxis2,
            qOverload<const QCPRange&>(&QCPAxis::setRange));
    connect(m_plot->yAxis, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), m_plot->yAxis2,
            qOverload<const QCPRange&>(&QCPAxis::setRange));
    m_plot->xAxis->setRange(-10, 10);
    m_plot->yAxis->setRange(-10, 10);
    // The user taking the view over ends the automatic fit.
    const auto userMoved = [this] {
        if (!m_fitting && m_autoFit)
            setAutoFit(false);
    };
    connect(m_plot->xAxis, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), this, userMoved);
    connect(m_plot->yAxis, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), this, userMoved);

    m_path = new QCPCurve(m_plot->xAxis, m_plot->yAxis);
    m_path->setPen(QPen(QColor(0x2f, 0x6f, 0xd6), 1.6));
    m_path->setName(tr("Track"));
    m_start = m_plot->addGraph();
    m_start->setLineStyle(QCPGraph::lsNone);
    m_start->setScatterStyle(
        QCPScatterStyle(QCPScatterStyle::ssSquare, QColor(0x30, 0x30, 0x30), Qt::white, 8));
    m_current = m_plot->addGraph();
    m_current->setLineStyle(QCPGraph::lsNone);
    m_current->setScatterStyle(QCPScatterStyle(QCPScatterStyle::ssCircle, QColor(0x90, 0x10, 0x10),
                                               QColor(0xe8, 0x3a, 0x2f), 11));
    layout->addWidget(m_plot, 1);
    setWidget(w);
    updateText();
    subscribeToRefresh();
}

void PositionDataViewer::processPacket(const NvDataPacket& packet, int64_t)
{
    const bool hasPvt = packet.contains(NDI_GNSS_PVT_DATA);
    NvGnssPvt pvt;
    if (hasPvt) {
        pvt = packet.gnssPvt();
        m_pvt = pvt;
        m_hasPvt = true;
        m_changed = true;
    }
    NvLatLon p;
    if (packet.contains(NDI_LAT_LON))
        p = packet.latLon();
    else if (hasPvt && hasPositionFix(pvt))
        p = NvLatLon{pvt.latitudeDeg(), pvt.longitudeDeg()};
    else
        return;
    if (!plausible(p))
        return;

    if (packet.contains(NDI_ALTITUDE_ELLIPSOID)) {
        m_height = packet.altitudeEllipsoid();
        m_hasHeight = true;
    } else if (hasPvt && hasPositionFix(pvt)) {
        m_height = pvt.height * 1e-3;
        m_hasHeight = true;
    }
    if (!m_hasPosition) {
        m_origin = p;
        m_hasPosition = true;
    }
    m_latest = p;
    m_latestLocal = toLocal(m_origin, p);
    m_changed = true;
    if (!m_track.empty()) {
        const QPointF d = m_latestLocal - m_track.back();
        if (std::hypot(d.x(), d.y()) < MinimumStep)
            return;
    }
    m_track.push_back(m_latestLocal);
    if (static_cast<int>(m_track.size()) > MaximumTrackPoints) {
        const size_t drop = MaximumTrackPoints / 10;
        m_track.erase(m_track.begin(), m_track.begin() + static_cast<std::ptrdiff_t>(drop));
        m_plotted = m_plotted > drop ? m_plotted - drop : 0;
        m_trackTrimmed = true;
    }
}

void PositionDataViewer::refresh()
{
    const bool resized = m_plot->axisRect()->rect().size() != m_fittedArea;
    if (!m_changed && !resized)
        return;
    m_changed = false;
    if (m_trackTrimmed) {
        m_path->data()->clear();
        m_plotted = 0;
        m_trackTrimmed = false;
    }
    if (m_plotted < m_track.size()) {
        QVector<double> t, x, y;
        const int n = static_cast<int>(m_track.size() - m_plotted);
        t.reserve(n);
        x.reserve(n);
        y.reserve(n);
        for (size_t i = m_plotted; i < m_track.size(); ++i) {
            t.append(m_nextT++);
            x.append(m_track[i].x());
            y.append(m_track[i].y());
        }
        m_path->addData(t, x, y, true);
        m_plotted = m_track.size();
    }
    m_start->data()->clear();
    m_current->data()->clear();
    if (m_hasPosition) {
        if (!m_track.empty())
            m_start->addData(m_track.front().x(), m_track.front().y());
        m_current->addData(m_latestLocal.x(), m_latestLocal.y());
    }
    updateText();
    if (m_autoFit || resized)
        placeView();
    m_plot->replot();
    // The axis rectangle is only known after a layout: again if it turned out different.
    if (m_plot->axisRect()->rect().size() != m_fittedArea) {
        placeView();
        m_plot->replot();
    }
}

void PositionDataViewer::placeView()
{
    if (m_autoFit) {
        fitView();
        return;
    }
    // Where the user put it, but a metre as long north as east whatever the window's shape.
    m_fitting = true;
    m_plot->yAxis->setScaleRatio(m_plot->xAxis, 1.0);
    m_fitting = false;
    m_fittedArea = m_plot->axisRect()->rect().size();
}

void PositionDataViewer::fitView()
{
    double minX = 0, maxX = 0, minY = 0, maxY = 0;
    bool any = false;
    const auto include = [&](const QPointF& p) {
        if (!any) {
            minX = maxX = p.x();
            minY = maxY = p.y();
            any = true;
            return;
        }
        minX = std::min(minX, p.x());
        maxX = std::max(maxX, p.x());
        minY = std::min(minY, p.y());
        maxY = std::max(maxY, p.y());
    };
    for (const QPointF& p : m_track)
        include(p);
    if (m_hasPosition)
        include(m_latestLocal);
    const double spanX = maxX - minX;
    const double spanY = maxY - minY;
    const double margin = 0.08 * std::max(spanX, spanY) + 2.0;
    const double halfX = spanX / 2 + margin;
    const double halfY = spanY / 2 + margin;
    const QSize area = m_plot->axisRect()->rect().size();
    const double w = std::max(10, area.width());
    const double h = std::max(10, area.height());
    // Metres per pixel the same both ways, enough for the wider of the two.
    const double scale = std::max(2 * halfX / w, 2 * halfY / h);
    const double cx = (minX + maxX) / 2;
    const double cy = (minY + maxY) / 2;
    m_fitting = true;
    m_plot->xAxis->setRange(cx - scale * w / 2, cx + scale * w / 2);
    m_plot->yAxis->setRange(cy - scale * h / 2, cy + scale * h / 2);
    m_fitting = false;
    m_fittedArea = area;
}

void PositionDataViewer::setAutoFit(bool on)
{
    m_autoFit = on;
    if (m_autoFitBox->isChecked() != on)
        m_autoFitBox->setChecked(on);
    if (on) {
        m_changed = true;
        if (m_plot->isVisible())
            refresh();
    }
}

QRectF PositionDataViewer::shownArea() const
{
    const QCPRange x = m_plot->xAxis->range();
    const QCPRange y = m_plot->yAxis->range();
    return QRectF(QPointF(x.lower, y.lower), QPointF(x.upper, y.upper));
}

void PositionDataViewer::clear()
{
    m_track.clear();
    m_plotted = 0;
    m_trackTrimmed = true;
    m_hasPosition = false;
    m_hasHeight = false;
    m_hasPvt = false;
    m_latest = NvLatLon();
    m_latestLocal = QPointF();
    m_changed = true;
    refresh();
}

QString PositionDataViewer::positionText() const
{
    return m_text->text();
}

void PositionDataViewer::updateText()
{
    if (!m_hasPosition) {
        m_text->setText(m_hasPvt ? tr("No position yet (%1)").arg(gnssText::fixStatus(m_pvt))
                                 : waitingText());
        return;
    }
    QString text =
        tr("Lat %1°  Lon %2°").arg(m_latest.latitude, 0, 'f', 7).arg(m_latest.longitude, 0, 'f', 7);
    if (m_hasHeight)
        text += tr("  Height %1 m").arg(m_height, 0, 'f', 2);
    text += QStringLiteral("  |  ");
    text += m_hasPvt ? gnssText::fixStatus(m_pvt) : tr("fix type unknown");
    m_text->setText(text);
}

// ---- GnssSatInfoDataViewer

GnssSatInfoDataViewer::GnssSatInfoDataViewer(ViewManager& manager, const NvDeviceId& id,
                                             ViewType type)
    : PacketViewer(manager, id, type)
{
    auto* w = new QWidget;
    auto* layout = new QVBoxLayout(w);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->setSpacing(2);
    m_text = new QLabel(waitingText());
    layout->addWidget(m_text);
    m_plot = new QCustomPlot;
    m_plot->setMinimumSize(200, 160);
    m_plot->yAxis->setLabel(tr("C/N0 [dB-Hz]"));
    m_plot->yAxis->setRange(0, 55);
    m_plot->xAxis->setRange(-0.5, 11.5);
    m_plot->xAxis->grid()->setVisible(false);
    m_plot->legend->setVisible(false);
    m_plot->legend->setFont(scaledFont(m_plot->font(), 0.9, false));
    // The legend in a row of its own above the bars, which it would otherwise hide.
    m_plot->plotLayout()->insertRow(0);
    m_plot->plotLayout()->addElement(0, 0, m_plot->legend);
    m_plot->plotLayout()->setRowStretchFactor(0, 0.001);
    m_plot->legend->setFillOrder(QCPLayoutGrid::foColumnsFirst);
    m_plot->legend->setBorderPen(Qt::NoPen);
    m_plot->legend->setMargins(QMargins(4, 2, 4, 0));
    layout->addWidget(m_plot, 1);
    setWidget(w);
    subscribeToRefresh();
}

void GnssSatInfoDataViewer::processPacket(const NvDataPacket& packet, int64_t)
{
    if (!packet.contains(NDI_GNSS_SAT_INFO))
        return;
    NvGnssSatInfo info = packet.gnssSatInfo();
    std::sort(info.satellites.begin(), info.satellites.end(),
              [](const NvGnssSatellite& a, const NvGnssSatellite& b) {
                  return a.system != b.system ? a.system < b.system : a.satelliteId < b.satelliteId;
              });
    m_satellites = std::move(info.satellites);
    m_hasData = true;
    m_changed = true;
}

int GnssSatInfoDataViewer::usedCount() const
{
    return static_cast<int>(
        std::count_if(m_satellites.begin(), m_satellites.end(), [](const NvGnssSatellite& s) {
            return (s.flags & NvGnssSatellite::UsedForNavigation) != 0;
        }));
}

QStringList GnssSatInfoDataViewer::satelliteLabels() const
{
    QStringList labels;
    for (const NvGnssSatellite& s : m_satellites)
        labels.append(gnssText::satelliteLabel(s.system, s.satelliteId));
    return labels;
}

int GnssSatInfoDataViewer::cnoOf(const QString& label) const
{
    for (const NvGnssSatellite& s : m_satellites)
        if (gnssText::satelliteLabel(s.system, s.satelliteId) == label)
            return s.cno;
    return -1;
}

bool GnssSatInfoDataViewer::isUsed(const QString& label) const
{
    for (const NvGnssSatellite& s : m_satellites)
        if (gnssText::satelliteLabel(s.system, s.satelliteId) == label)
            return (s.flags & NvGnssSatellite::UsedForNavigation) != 0;
    return false;
}

QString GnssSatInfoDataViewer::summaryText() const
{
    return m_text->text();
}

void GnssSatInfoDataViewer::refresh()
{
    if (!m_changed)
        return;
    m_changed = false;
    rebuild();
}

void GnssSatInfoDataViewer::clear()
{
    m_satellites.clear();
    m_hasData = false;
    m_changed = false;
    rebuild();
}

void GnssSatInfoDataViewer::rebuild()
{
    m_plot->clearPlottables();
    m_plot->legend->clearItems();
    if (!m_hasData) {
        m_text->setText(waitingText());
        m_plot->legend->setVisible(false);
        m_plot->replot();
        return;
    }
    const int used = usedCount();
    m_text->setText(tr("%1, %2 used").arg(satellites(satelliteCount())).arg(used) +
                    (satelliteCount() > used ? tr("  (pale bars: not used)") : QString()));

    QSharedPointer<QCPAxisTickerText> ticker(new QCPAxisTickerText);
    int maxCno = 0;
    // One pair of bar sets per system: used in the solid colour, the others pale.
    std::map<uint8_t, std::pair<QCPBars*, QCPBars*>> bars;
    for (size_t i = 0; i < m_satellites.size(); ++i) {
        const NvGnssSatellite& s = m_satellites[i];
        const bool isUsed = s.flags & NvGnssSatellite::UsedForNavigation;
        auto& pair = bars[s.system];
        QCPBars*& set = isUsed ? pair.first : pair.second;
        if (!set) {
            set = new QCPBars(m_plot->xAxis, m_plot->yAxis);
            set->setWidth(0.72);
            const QColor c = systemColor(s.system);
            if (isUsed) {
                set->setPen(QPen(c.darker(140), 1));
                set->setBrush(c);
            } else {
                QColor pale = c;
                pale.setAlpha(70);
                set->setPen(QPen(c, 1, Qt::DashLine));
                set->setBrush(pale);
            }
            set->setName(gnssText::systemName(s.system));
        }
        set->addData(double(i), s.cno);
        ticker->addTick(double(i), gnssText::satelliteLabel(s.system, s.satelliteId));
        maxCno = std::max<int>(maxCno, s.cno);
    }
    // The legend names each system once.
    for (const auto& entry : bars) {
        QCPBars* shown = entry.second.first ? entry.second.first : entry.second.second;
        for (QCPBars* b : {entry.second.first, entry.second.second})
            if (b && b != shown)
                b->removeFromLegend();
    }
    m_plot->legend->setVisible(!bars.empty());
    m_plot->xAxis->setTicker(ticker);
    m_plot->xAxis->setTickLabelRotation(m_satellites.size() > 16 ? 90 : 0);
    m_plot->xAxis->setRange(-0.6, std::max<double>(m_satellites.size(), 6) - 0.4);
    m_plot->yAxis->setRange(0, std::max(55, maxCno + 8));
    m_plot->replot();
}

// ---- UtcDateTimeViewer

UtcDateTimeViewer::UtcDateTimeViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : PacketViewer(manager, id, type)
{
    auto* w = new QWidget;
    auto* layout = new QVBoxLayout(w);
    layout->setContentsMargins(12, 12, 12, 12);
    layout->setSpacing(6);
    m_date = new QLabel;
    m_time = new QLabel;
    QFont big = scaledFont(w->font(), 2.4, true);
    m_date->setFont(big);
    QFont mono = big;
    mono.setFamily(QStringLiteral("monospace"));
    mono.setStyleHint(QFont::TypeWriter);
    m_time->setFont(mono);
    m_validity = new QLabel;
    m_fix = new QLabel;
    m_fix->setFont(scaledFont(w->font(), 1.2, false));
    for (QLabel* l : {m_date, m_time, m_validity, m_fix}) {
        l->setAlignment(Qt::AlignCenter);
        l->setTextInteractionFlags(Qt::TextSelectableByMouse);
    }
    layout->addStretch();
    layout->addWidget(m_date);
    layout->addWidget(m_time);
    layout->addSpacing(8);
    layout->addWidget(m_validity);
    layout->addWidget(m_fix);
    layout->addStretch();
    setWidget(w);
    updateTexts();
    subscribeToRefresh();
}

void UtcDateTimeViewer::processPacket(const NvDataPacket& packet, int64_t)
{
    const bool hasUtc = packet.contains(NDI_UTC_TIME);
    const bool hasPvt = packet.contains(NDI_GNSS_PVT_DATA);
    if (!hasUtc && !hasPvt)
        return;
    if (hasPvt) {
        m_pvt = packet.gnssPvt();
        m_hasPvt = true;
    }
    if (hasUtc) {
        m_utc = packet.utcTime();
        m_hasTime = true;
        m_fromPvt = false;
    } else if (!m_hasTime || m_fromPvt) {
        // Only the PVT tells the time: its date and time fields, its own validity.
        m_hasTime = true;
        m_fromPvt = true;
    }
    m_changed = true;
}

void UtcDateTimeViewer::refresh()
{
    if (!m_changed)
        return;
    m_changed = false;
    updateTexts();
}

void UtcDateTimeViewer::clear()
{
    m_hasTime = false;
    m_hasPvt = false;
    m_fromPvt = false;
    m_changed = false;
    updateTexts();
}

QString UtcDateTimeViewer::dateTimeText() const
{
    if (!m_hasTime)
        return m_date->text();
    return m_date->text() + QLatin1Char(' ') + m_time->text();
}

QString UtcDateTimeViewer::dateText() const
{
    return m_hasTime ? m_date->text() : QString();
}

QString UtcDateTimeViewer::timeText() const
{
    return m_time->text();
}

QString UtcDateTimeViewer::validityText() const
{
    return m_validity->text();
}

QString UtcDateTimeViewer::fixText() const
{
    return m_fix->text();
}

void UtcDateTimeViewer::updateTexts()
{
    if (!m_hasTime) {
        m_date->setText(tr("No UTC time yet"));
        m_time->clear();
        m_validity->clear();
        m_fix->setText(waitingText());
        return;
    }
    int year, month, day, hour, minute, second;
    qint64 nanoseconds;
    if (m_fromPvt) {
        year = m_pvt.year;
        month = m_pvt.month;
        day = m_pvt.day;
        hour = m_pvt.hour;
        minute = m_pvt.minute;
        second = m_pvt.second;
        nanoseconds = m_pvt.nano;
    } else {
        year = m_utc.year;
        month = m_utc.month;
        day = m_utc.day;
        hour = m_utc.hour;
        minute = m_utc.minute;
        second = m_utc.second;
        nanoseconds = m_utc.nanoseconds;
    }
    const QDate date(year, month, day);
    const bool leap = second == 60;
    const QTime time(hour, minute, leap ? 59 : second);
    if (date.isValid() && time.isValid() && !leap) {
        // A negative fraction (the PVT's) belongs to the second before.
        const QDateTime dt = QDateTime(date, time, QTimeZone::utc())
                                 .addMSecs(static_cast<qint64>(std::floor(nanoseconds / 1e6)));
        m_date->setText(dt.toString(QStringLiteral("yyyy-MM-dd")));
        m_time->setText(dt.toString(QStringLiteral("HH:mm:ss.zzz")));
    } else {
        // Shown as sent, whatever it is: a leap second or a receiver still finding itself.
        const qint64 ms = std::clamp<qint64>(nanoseconds / 1000000, 0, 999);
        m_date->setText(QString::asprintf("%04d-%02d-%02d", year, month, day));
        m_time->setText(QString::asprintf("%02d:%02d:%02d.%03lld", hour, minute, second, ms));
    }

    const auto mark = [](bool valid) { return valid ? tr("valid") : tr("not valid"); };
    if (m_fromPvt) {
        m_validity->setText(tr("From the PVT: date %1, time %2, %3")
                                .arg(mark(m_pvt.valid & NvGnssPvt::ValidDate),
                                     mark(m_pvt.valid & NvGnssPvt::ValidTime),
                                     (m_pvt.valid & NvGnssPvt::FullyResolved)
                                         ? tr("fully resolved")
                                         : tr("not fully resolved")));
    } else {
        m_validity->setText(tr("UTC %1, week number %2, time of week %3")
                                .arg(mark(m_utc.flags & NvUtcTime::ValidUtc),
                                     mark(m_utc.flags & NvUtcTime::ValidWeekNumber),
                                     mark(m_utc.flags & NvUtcTime::ValidTimeOfWeek)));
    }
    m_fix->setText(m_hasPvt ? gnssText::fixStatus(m_pvt) : tr("Fix status unknown (no PVT data)"));
}
