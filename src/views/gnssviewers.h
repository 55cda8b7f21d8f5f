#pragma once
// The views of a GNSS/INS device's receiver: the track over the ground, the satellites and
// their signal strength, and the UTC date and time with the fix status.

#include "packetviewer.h"

#include "nvgnss.h"

#include <QPointF>
#include <QSize>
#include <QString>
#include <QStringList>

#include <vector>

class QCheckBox;
class QCPBars;
class QCPCurve;
class QCPGraph;
class QCustomPlot;
class QLabel;

namespace gnssText {
// "No fix", "2D fix", "3D fix", ...
QString fixTypeName(uint8_t fixType);
// "3D fix, 9 satellites used, RTK fixed"
QString fixStatus(const NvGnssPvt& pvt);
// RINEX letters: G GPS, S SBAS, E Galileo, C BeiDou, J QZSS, R GLONASS; '?' otherwise.
QChar systemLetter(uint8_t system);
QString systemName(uint8_t system);
// Letter and two-digit id: "G07".
QString satelliteLabel(uint8_t system, uint8_t satelliteId);
} // namespace gnssText

// The path of the device in east/north metres around its first fix.
class PositionDataViewer : public PacketViewer
{
    Q_OBJECT

public:
    // The oldest points go once the track holds this many.
    static constexpr int MaximumTrackPoints = 20000;
    // Closer than this to the previous point: not a new point (a standing receiver).
    static constexpr double MinimumStep = 0.02; // m

    PositionDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    void processPacket(const NvDataPacket& packet, int64_t arrivalNs) override;
    void refresh() override;
    void clear() override;

    int trackSize() const { return static_cast<int>(m_track.size()); }
    // East/north metres from the first fix, oldest first.
    const std::vector<QPointF>& track() const { return m_track; }
    bool hasFix() const { return m_hasPosition; }
    NvLatLon latestLatLon() const { return m_latest; }
    double latestHeight() const { return m_height; }
    // The text above the plot: position, height and fix type, or "Waiting for data…".
    QString positionText() const;
    // The shown east (x) and north (y) ranges, metres.
    QRectF shownArea() const;
    bool autoFit() const { return m_autoFit; }
    void setAutoFit(bool on);
    QCustomPlot* plot() const { return m_plot; }

    // Local east/north metres of `p` around `origin` (equirectangular with the ellipsoid's
    // radii of curvature at the origin).
    static QPointF toLocal(const NvLatLon& origin, const NvLatLon& p);

private:
    // Fits the track, or keeps the user's view at equal scales.
    void placeView();
    void fitView();
    void updateText();

    QLabel* m_text = nullptr;
    QCheckBox* m_autoFitBox = nullptr;
    QCustomPlot* m_plot = nullptr;
    QCPCurve* m_path = nullptr;
    QCPGraph* m_start = nullptr;
    QCPGraph* m_current = nullptr;

    std::vector<QPointF> m_track;
    size_t m_plotted = 0; // points of m_track already in m_path
    double m_nextT = 0;   // curve parameter of the next point
    bool m_trackTrimmed = false;
    NvLatLon m_origin;
    NvLatLon m_latest;
    QPointF m_latestLocal;
    double m_height = 0;
    bool m_hasHeight = false;
    bool m_hasPosition = false;
    NvGnssPvt m_pvt;
    bool m_hasPvt = false;
    bool m_changed = false;
    bool m_autoFit = true;
    bool m_fitting = false;
    QSize m_fittedArea; // the axis rectangle the ranges were fitted to
};

// One bar per satellite: its C/N0, coloured by system, pale when not used for navigation.
class GnssSatInfoDataViewer : public PacketViewer
{
    Q_OBJECT

public:
    GnssSatInfoDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    void processPacket(const NvDataPacket& packet, int64_t arrivalNs) override;
    void refresh() override;
    void clear() override;

    bool hasData() const { return m_hasData; }
    int satelliteCount() const { return static_cast<int>(m_satellites.size()); }
    int usedCount() const;
    // The bar labels in the order shown ("G03", "G12", "R07", ...).
    QStringList satelliteLabels() const;
    // C/N0 of the satellite with `label`, -1 when it is not shown.
    int cnoOf(const QString& label) const;
    bool isUsed(const QString& label) const;
    // "12 satellites, 8 used" or "Waiting for data…".
    QString summaryText() const;
    QCustomPlot* plot() const { return m_plot; }

private:
    void rebuild();

    QLabel* m_text = nullptr;
    QCustomPlot* m_plot = nullptr;
    std::vector<NvGnssSatellite> m_satellites; // sorted by system and id
    bool m_hasData = false;
    bool m_changed = false;
};

// The receiver's UTC date and time, how valid it is, and the fix status.
class UtcDateTimeViewer : public PacketViewer
{
    Q_OBJECT

public:
    UtcDateTimeViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    void processPacket(const NvDataPacket& packet, int64_t arrivalNs) override;
    void refresh() override;
    void clear() override;

    bool hasTime() const { return m_hasTime; }
    // "yyyy-MM-dd HH:mm:ss.zzz", or "No UTC time yet".
    QString dateTimeText() const;
    QString dateText() const;
    QString timeText() const;
    // Which parts the receiver vouches for.
    QString validityText() const;
    // From the PVT: "3D fix, 9 satellites used"; "Waiting for data…" before any packet.
    QString fixText() const;

private:
    void updateTexts();

    QLabel* m_date = nullptr;
    QLabel* m_time = nullptr;
    QLabel* m_validity = nullptr;
    QLabel* m_fix = nullptr;
    NvUtcTime m_utc;
    bool m_hasTime = false;
    bool m_fromPvt = false; // the time came from the PVT record, not the UTC item
    NvGnssPvt m_pvt;
    bool m_hasPvt = false;
    bool m_changed = false;
};
