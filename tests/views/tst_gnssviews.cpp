// The GNSS views: the track over the ground, the satellite bars and the UTC date and time,
// fed known packets, and the track of an emulated GNSS/INS device driving its circle.

// The plotting library's header still uses Qt's foreach: first, with the keyword allowed.
#undef QT_NO_FOREACH
#include <qcustomplot.h>

#include "gnssviewers.h"
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "viewmanager.h"
#include "viewstest.h"

#include "nvdatapacket.h"

#include <QMdiArea>
#include <QMdiSubWindow>
#include <QTest>

#include <algorithm>
#include <cmath>

namespace {

NvDataPacket latLonPacket(double lat, double lon, double height)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(1);
    b.setLatLon(lat, lon, nvWithPrecision(NDI_LAT_LON, NDP_FP1632));
    b.setScalar(NDI_ALTITUDE_ELLIPSOID, height);
    return b.toPacket();
}

NvGnssPvt pvtAt(double lat, double lon, uint8_t fixType, uint8_t numSv)
{
    NvGnssPvt pvt;
    pvt.year = 2026;
    pvt.month = 11;
    pvt.day = 24;
    pvt.hour = 12;
    pvt.minute = 0;
    pvt.second = 0;
    pvt.valid = NvGnssPvt::ValidDate | NvGnssPvt::ValidTime | NvGnssPvt::FullyResolved;
    pvt.fixType = fixType;
    pvt.flags = fixType != NvGnssPvt::NoFix ? NvGnssPvt::GnssFixOk : 0;
    pvt.numSv = numSv;
    pvt.lat = static_cast<int32_t>(std::lround(lat * 1e7));
    pvt.lon = static_cast<int32_t>(std::lround(lon * 1e7));
    pvt.height = 98765; // mm
    return pvt;
}

NvDataPacket pvtPacket(const NvGnssPvt& pvt)
{
    NvDataPacketBuilder b;
    b.setGnssPvt(pvt);
    return b.toPacket();
}

NvDataPacket counterOnly()
{
    NvDataPacketBuilder b;
    b.setPacketCounter(7);
    b.setTemperature(21.5);
    return b.toPacket();
}

NvGnssSatellite sat(NvGnssSystem system, uint8_t id, uint8_t cno, bool used)
{
    NvGnssSatellite s;
    s.system = static_cast<uint8_t>(system);
    s.satelliteId = id;
    s.cno = cno;
    s.flags = 0x04 | 0x10 | (used ? NvGnssSatellite::UsedForNavigation : 0);
    s.elevation = 40;
    s.azimuth2 = 60;
    return s;
}

// The tick labels of the satellite plot's bar axis, left to right.
QStringList barLabels(QCustomPlot* plot)
{
    auto ticker = plot->xAxis->ticker().dynamicCast<QCPAxisTickerText>();
    return ticker ? QStringList(ticker->ticks().values()) : QStringList();
}

} // namespace

using viewstest::Harness;

class TestGnssViews : public QObject
{
    Q_OBJECT

private slots:
    void positionViewDrawsTheTrackInLocalMetres();
    void positionViewFitsTheTrackWithEqualScales();
    void satelliteViewShowsOneBarPerSatelliteBySystem();
    void utcViewShowsDateTimeValidityAndFix();
    void utcViewShowsOddTimesAsSent();
    void viewsOfAnEmulatedGnssDeviceFollowItsDrive();
    void viewsCloseWhenTheDeviceGoesAway();
};

void TestGnssViews::positionViewDrawsTheTrackInLocalMetres()
{
    Harness h;
    PositionDataViewer v(h.views, NvDeviceId(), PositionView);
    QCOMPARE(v.positionText(), QStringLiteral("Waiting for data…"));

    // Packets without a position leave the view waiting.
    v.processPacket(NvDataPacket(), 0);
    v.processPacket(counterOnly(), 0);
    v.refresh();
    QCOMPARE(v.trackSize(), 0);
    QCOMPARE(v.positionText(), QStringLiteral("Waiting for data…"));

    v.processPacket(latLonPacket(52.0, 6.0, 123.45), 0);
    v.processPacket(latLonPacket(52.001, 6.0, 123.5), 0);   // ~111 m north
    v.processPacket(latLonPacket(52.001, 6.001, 124.0), 0); // and ~69 m east
    v.processPacket(latLonPacket(52.001, 6.001, 124.0), 0); // standing: no new point
    v.refresh();
    QCOMPARE(v.trackSize(), 3);
    const auto& t = v.track();
    QCOMPARE(t[0], QPointF(0, 0));
    QVERIFY2(std::abs(t[1].y() - 111.26) < 0.3 && std::abs(t[1].x()) < 0.01,
             qPrintable(QStringLiteral("%1 %2").arg(t[1].x()).arg(t[1].y())));
    QVERIFY2(std::abs(t[2].x() - 68.68) < 0.3, qPrintable(QString::number(t[2].x())));
    // fp16.32 carries about 2.3e-10 degrees.
    QVERIFY(std::abs(v.latestLatLon().latitude - 52.001) < 1e-9);
    QVERIFY(std::abs(v.latestLatLon().longitude - 6.001) < 1e-9);
    QVERIFY2(v.positionText().contains(QStringLiteral("Lat 52.0010000°")) &&
                 v.positionText().contains(QStringLiteral("Lon 6.0010000°")) &&
                 v.positionText().contains(QStringLiteral("Height 124.00 m")) &&
                 v.positionText().contains(QStringLiteral("fix type unknown")),
             qPrintable(v.positionText()));
    QCOMPARE(v.plot()->plottableCount(), 3); // path, start, current position

    // A PVT alone also moves the position; its fix shows in the text.
    v.processPacket(pvtPacket(pvtAt(52.002, 6.001, NvGnssPvt::Fix3D, 9)), 0);
    v.refresh();
    QCOMPARE(v.trackSize(), 4);
    QVERIFY(std::abs(v.track()[3].y() - 222.5) < 0.5);
    QVERIFY2(v.positionText().contains(QStringLiteral("3D fix, 9 satellites used")) &&
                 v.positionText().contains(QStringLiteral("Height 98.77 m")),
             qPrintable(v.positionText()));

    // A PVT without a fix tells the fix but adds no point.
    v.processPacket(pvtPacket(pvtAt(10.0, 10.0, NvGnssPvt::NoFix, 2)), 0);
    v.refresh();
    QCOMPARE(v.trackSize(), 4);
    QVERIFY(std::abs(v.latestLatLon().latitude - 52.002) < 1e-9);
    QVERIFY(v.positionText().contains(QStringLiteral("No fix, 2 satellites used")));

    v.clear();
    QCOMPARE(v.trackSize(), 0);
    QCOMPARE(v.positionText(), QStringLiteral("Waiting for data…"));
}

void TestGnssViews::positionViewFitsTheTrackWithEqualScales()
{
    Harness h;
    PositionDataViewer v(h.views, NvDeviceId(), PositionView);
    v.widget()->resize(700, 400);
    v.widget()->show();
    QVERIFY(QTest::qWaitForWindowExposed(v.widget()));
    // A 300 m by 100 m rectangle walked from its south-west corner.
    const NvLatLon origin{47.3, 8.5};
    const double mPerDegLat = 111180.0;
    const double mPerDegLon = 111320.0 * std::cos(nvDegToRad(origin.latitude));
    const QPointF corners[] = {{0, 0}, {300, 0}, {300, 100}, {0, 100}, {0, 10}};
    for (const QPointF& c : corners)
        v.processPacket(latLonPacket(origin.latitude + c.y() / mPerDegLat,
                                     origin.longitude + c.x() / mPerDegLon, 400),
                        0);
    v.refresh();
    QVERIFY(v.autoFit());

    const QRectF shown = v.shownArea();
    QCPAxisRect* rect = v.plot()->axisRect();
    const double mppX = shown.width() / rect->width();
    const double mppY = shown.height() / rect->height();
    QVERIFY2(std::abs(mppX - mppY) < 1e-6 * mppX,
             qPrintable(QStringLiteral("%1 vs %2 m/px").arg(mppX).arg(mppY)));
    // Everything inside, with room to spare, and the long side nearly filling its axis.
    for (const QPointF& p : v.track()) {
        QVERIFY(p.x() > shown.left() + 5 && p.x() < shown.right() - 5);
        QVERIFY(p.y() > shown.top() + 5 && p.y() < shown.bottom() - 5);
    }
    QVERIFY2(shown.width() < 300 * 1.4, qPrintable(QString::number(shown.width())));

    // Zooming by hand ends the fit; new points then leave the view alone.
    v.plot()->xAxis->scaleRange(0.5); // as the mouse wheel does
    v.plot()->yAxis->scaleRange(0.5);
    QVERIFY(!v.autoFit());
    const QRectF zoomed = v.shownArea();
    v.processPacket(latLonPacket(origin.latitude + 2000 / mPerDegLat, origin.longitude, 400), 0);
    v.refresh();
    // (The north range may follow the axis settling to new tick labels, at equal scales.)
    QCOMPARE(v.shownArea().left(), zoomed.left());
    QCOMPARE(v.shownArea().right(), zoomed.right());
    QVERIFY(std::abs(v.shownArea().center().y() - zoomed.center().y()) < 1e-6);
    // A wider window keeps the user's east range and centre, at equal scales.
    v.widget()->resize(900, 400);
    QTRY_VERIFY(v.plot()->width() > 800);
    v.refresh();
    QVERIFY(!v.autoFit());
    const QRectF wider = v.shownArea();
    QVERIFY(std::abs(wider.width() - zoomed.width()) < 1e-6);
    QVERIFY(std::abs(wider.width() / rect->width() - wider.height() / rect->height()) <
            1e-6 * wider.width() / rect->width());
    QVERIFY(std::abs(wider.center().y() - zoomed.center().y()) < 1e-6);
    v.setAutoFit(true);
    QVERIFY(v.shownArea().bottom() > 2000);
}

void TestGnssViews::satelliteViewShowsOneBarPerSatelliteBySystem()
{
    Harness h;
    GnssSatInfoDataViewer v(h.views, NvDeviceId(), GnssSatInfoView);
    QCOMPARE(v.summaryText(), QStringLiteral("Waiting for data…"));
    v.processPacket(counterOnly(), 0);
    v.refresh();
    QVERIFY(!v.hasData());
    QCOMPARE(v.plot()->plottableCount(), 0);

    NvGnssSatInfo info;
    info.timeOfWeek = 123000;
    info.satellites = {
        sat(NvGnssSystem::Glonass, 7, 38, true), sat(NvGnssSystem::Gps, 12, 30, false),
        sat(NvGnssSystem::Beidou, 21, 25, false), sat(NvGnssSystem::Gps, 3, 45, true),
        sat(NvGnssSystem::Galileo, 5, 41, true)};
    NvDataPacketBuilder b;
    b.setGnssSatInfo(info);
    v.processPacket(b.toPacket(), 0);
    v.refresh();

    const QStringList order = {"G03", "G12", "E05", "C21", "R07"};
    QCOMPARE(v.satelliteCount(), 5);
    QCOMPARE(v.usedCount(), 3);
    QCOMPARE(v.satelliteLabels(), order);
    QCOMPARE(barLabels(v.plot()), order);
    QCOMPARE(v.cnoOf("R07"), 38);
    QCOMPARE(v.cnoOf("G12"), 30);
    QCOMPARE(v.cnoOf("G99"), -1);
    QVERIFY(v.isUsed("G03") && !v.isUsed("G12") && !v.isUsed("C21"));
    QVERIFY2(v.summaryText().startsWith(QStringLiteral("5 satellites, 3 used")),
             qPrintable(v.summaryText()));

    // Four systems, each once in the legend; used and unused bars look different.
    QCOMPARE(v.plot()->legend->itemCount(), 4);
    QStringList names;
    QColor usedGps, unusedGps;
    for (int i = 0; i < v.plot()->plottableCount(); ++i) {
        auto* bars = qobject_cast<QCPBars*>(v.plot()->plottable(i));
        QVERIFY(bars);
        if (v.plot()->legend->hasItemWithPlottable(bars))
            names << bars->name();
        if (bars->name() == QLatin1String("GPS")) {
            const double value = bars->data()->begin()->value;
            (value == 45 ? usedGps : unusedGps) = bars->brush().color();
        }
    }
    names.sort();
    QCOMPARE(names, QStringList({"BeiDou", "GLONASS", "GPS", "Galileo"}));
    QVERIFY(usedGps.isValid() && unusedGps.isValid());
    QVERIFY(usedGps.alpha() > unusedGps.alpha());
    QVERIFY(v.plot()->yAxis->range().upper >= 45);

    // Packets without satellite info leave the bars; an empty record empties them.
    v.processPacket(counterOnly(), 0);
    v.refresh();
    QCOMPARE(v.satelliteCount(), 5);
    b.clear();
    b.setGnssSatInfo(NvGnssSatInfo());
    v.processPacket(b.toPacket(), 0);
    v.refresh();
    QCOMPARE(v.satelliteCount(), 0);
    QCOMPARE(v.summaryText(), QStringLiteral("0 satellites, 0 used"));
    QCOMPARE(v.plot()->plottableCount(), 0);
}

void TestGnssViews::utcViewShowsDateTimeValidityAndFix()
{
    Harness h;
    UtcDateTimeViewer v(h.views, NvDeviceId(), UtcDateTimeView);
    QCOMPARE(v.dateTimeText(), QStringLiteral("No UTC time yet"));
    QCOMPARE(v.fixText(), QStringLiteral("Waiting for data…"));
    v.processPacket(counterOnly(), 0);
    v.refresh();
    QVERIFY(!v.hasTime());
    QCOMPARE(v.dateTimeText(), QStringLiteral("No UTC time yet"));

    NvUtcTime utc;
    utc.year = 2026;
    utc.month = 11;
    utc.day = 24;
    utc.hour = 13;
    utc.minute = 45;
    utc.second = 7;
    utc.nanoseconds = 123456789;
    utc.flags = NvUtcTime::ValidUtc | NvUtcTime::ValidTimeOfWeek;
    NvDataPacketBuilder b;
    b.setUtcTime(utc);
    v.processPacket(b.toPacket(), 0);
    v.refresh();
    QCOMPARE(v.dateText(), QStringLiteral("2026-11-24"));
    QCOMPARE(v.timeText(), QStringLiteral("13:45:07.123"));
    QCOMPARE(v.dateTimeText(), QStringLiteral("2026-11-24 13:45:07.123"));
    QCOMPARE(v.validityText(),
             QStringLiteral("UTC valid, week number not valid, time of week valid"));
    QCOMPARE(v.fixText(), QStringLiteral("Fix status unknown (no PVT data)"));

    // With the PVT the fix status comes; the UTC item still tells the time.
    NvGnssPvt pvt = pvtAt(52, 6, NvGnssPvt::Fix3D, 11);
    pvt.flags |= NvGnssPvt::CarrierFixed;
    b.setGnssPvt(pvt);
    utc.nanoseconds = 999999999;
    b.setUtcTime(utc);
    v.processPacket(b.toPacket(), 0);
    v.refresh();
    QCOMPARE(v.dateTimeText(), QStringLiteral("2026-11-24 13:45:07.999"));
    QCOMPARE(v.fixText(), QStringLiteral("3D fix, 11 satellites used, RTK fixed"));

    v.clear();
    QCOMPARE(v.dateTimeText(), QStringLiteral("No UTC time yet"));
}

void TestGnssViews::utcViewShowsOddTimesAsSent()
{
    Harness h;
    {
        // Only a PVT: its time, with a negative fraction belonging to the second before.
        UtcDateTimeViewer v(h.views, NvDeviceId(), UtcDateTimeView);
        NvGnssPvt pvt = pvtAt(52, 6, NvGnssPvt::Fix2D, 4);
        pvt.nano = -200000000;
        pvt.valid = NvGnssPvt::ValidDate;
        v.processPacket(pvtPacket(pvt), 0);
        v.refresh();
        QCOMPARE(v.dateTimeText(), QStringLiteral("2026-11-24 11:59:59.800"));
        QCOMPARE(v.validityText(),
                 QStringLiteral("From the PVT: date valid, time not valid, not fully resolved"));
        QCOMPARE(v.fixText(), QStringLiteral("2D fix, 4 satellites used"));
    }
    {
        // A receiver without time yet sends zeros; a leap second has second 60.
        UtcDateTimeViewer v(h.views, NvDeviceId(), UtcDateTimeView);
        NvUtcTime utc;
        NvDataPacketBuilder b;
        b.setUtcTime(utc);
        v.processPacket(b.toPacket(), 0);
        v.refresh();
        QCOMPARE(v.dateTimeText(), QStringLiteral("0000-00-00 00:00:00.000"));
        QCOMPARE(v.validityText(),
                 QStringLiteral("UTC not valid, week number not valid, time of week not valid"));
        utc.year = 2016;
        utc.month = 12;
        utc.day = 31;
        utc.hour = 23;
        utc.minute = 59;
        utc.second = 60;
        utc.nanoseconds = 500000000;
        utc.flags = NvUtcTime::ValidUtc;
        b.setUtcTime(utc);
        v.processPacket(b.toPacket(), 0);
        v.refresh();
        QCOMPARE(v.dateTimeText(), QStringLiteral("2016-12-31 23:59:60.500"));
    }
}

void TestGnssViews::viewsOfAnEmulatedGnssDeviceFollowItsDrive()
{
    kvtest::KvsimProcess sim({"--device", "gnss:measure", "--quiet"});
    QVERIFY(sim.started());
    Harness h;
    h.area.resize(1000, 700);
    h.area.show();
    NdaDevice* opened = h.open(sim);
    QVERIFY2(opened, qPrintable(h.control.lastResultText()));
    NdaDevice& device = *opened;
    const NvDeviceId id = device.deviceId();
    QVERIFY(id.isGnss());
    // Satellite info is not among the defaults: add it at 4 Hz.
    if (device.isMeasuring())
        QVERIFY(device.gotoConfig());
    NvOutputConfigurationArray config = device.outputConfiguration();
    QVERIFY(!config.empty());
    config.push_back(NvOutputConfiguration(NDI_GNSS_SAT_INFO, 4));
    QVERIFY2(device.setOutputConfiguration(config), qPrintable(h.control.lastResultText()));
    QVERIFY(device.gotoMeasurement());

    for (ViewType type : {PositionView, GnssSatInfoView, UtcDateTimeView}) {
        h.views.allowView(type, &NvDeviceId::isGnss);
        h.views.openView(type, id);
        QCOMPARE(h.views.viewCountInfo(type, id), 1u);
    }
    auto* position =
        qobject_cast<PositionDataViewer*>(h.views.findViews(PositionView, id).value(0).data());
    auto* utc =
        qobject_cast<UtcDateTimeViewer*>(h.views.findViews(UtcDateTimeView, id).value(0).data());
    auto* sats = qobject_cast<GnssSatInfoDataViewer*>(
        h.views.findViews(GnssSatInfoView, id).value(0).data());
    QVERIFY(position && utc && sats);
    QVERIFY(position->widget()->isVisible());

    QTRY_VERIFY_WITH_TIMEOUT(position->trackSize() >= 200, 20000);
    QTRY_VERIFY_WITH_TIMEOUT(sats->satelliteCount() > 0, 10000);
    QVERIFY(sats->usedCount() <= sats->satelliteCount());
    for (const QString& label : sats->satelliteLabels())
        QVERIFY2(sats->cnoOf(label) >= 0 && sats->cnoOf(label) < 70, qPrintable(label));
    QTRY_VERIFY_WITH_TIMEOUT(utc->hasTime() && utc->fixText().contains(QLatin1String("fix")),
                             10000);

    // 5-15 m/s at 100 Hz: 5-15 cm from one point to the next; the circle is at most 800 m
    // across.
    const std::vector<QPointF> track = position->track();
    std::vector<double> steps;
    for (size_t i = 1; i < track.size(); ++i)
        steps.push_back(
            std::hypot(track[i].x() - track[i - 1].x(), track[i].y() - track[i - 1].y()));
    std::sort(steps.begin(), steps.end());
    const double median = steps[steps.size() / 2];
    QVERIFY2(median > 0.03 && median < 0.2, qPrintable(QString::number(median)));
    QVERIFY2(steps.back() < 2.0, qPrintable(QString::number(steps.back())));
    double reach = 0;
    for (const QPointF& p : track)
        reach = std::max(reach, std::hypot(p.x(), p.y()));
    QVERIFY2(reach > 1.0 && reach < 800, qPrintable(QString::number(reach)));
    QVERIFY(position->positionText().startsWith(QLatin1String("Lat ")));
    QVERIFY2(utc->dateText().size() == 10 && utc->timeText().size() == 12,
             qPrintable(utc->dateTimeText()));
    QVERIFY2(utc->validityText().startsWith(QLatin1String("UTC valid")),
             qPrintable(utc->validityText()));

    const QString shot = QDir::current().filePath(QStringLiteral("gnss_views.png"));
    h.views.autoTileViews();
    QTest::qWait(300);
    QVERIFY(h.area.grab().save(shot));
    qInfo("screenshot: %s", qPrintable(shot));

    h.views.closeViews(PositionView, id);
    QTRY_COMPARE(h.views.viewCountInfo(PositionView, id), 0u);
}

void TestGnssViews::viewsCloseWhenTheDeviceGoesAway()
{
    kvtest::KvsimProcess sim({"--device", "gnss:measure,disconnect=3", "--quiet"});
    QVERIFY(sim.started());
    Harness h;
    h.area.resize(900, 600);
    h.area.show();
    NdaDevice* opened = h.open(sim);
    QVERIFY2(opened, qPrintable(h.control.lastResultText()));
    NdaDevice& device = *opened;
    const NvDeviceId id = device.deviceId();
    if (!device.isMeasuring())
        QVERIFY(device.gotoMeasurement());
    for (ViewType type : {PositionView, GnssSatInfoView, UtcDateTimeView}) {
        h.views.allowView(type, &NvDeviceId::isGnss);
        h.views.openView(type, id);
    }
    QCOMPARE(h.views.viewCountInfo(id), 3u);
    auto* position =
        qobject_cast<PositionDataViewer*>(h.views.findViews(PositionView, id).value(0).data());
    QVERIFY(position);
    QTRY_VERIFY_WITH_TIMEOUT(position->trackSize() > 0, 10000);

    // The port closes under the views: they go, and nothing else happens.
    QTRY_COMPARE_WITH_TIMEOUT(h.views.viewCountInfo(id), 0u, 15000);
    QVERIFY(h.area.subWindowList().isEmpty());
}

QTEST_MAIN(TestGnssViews)
#include "tst_gnssviews.moc"
