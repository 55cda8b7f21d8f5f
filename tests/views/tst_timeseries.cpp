// The graph views fed with known packets and with an emulated device: the values and
// legends they show, their units and forms per option, pause, zoom and follow, the
// display-time window, and a time axis that goes back.
// The plotting library's inline code still uses Qt's foreach, which our targets switch
// off: its header has to come before any Qt header, with the keyword allowed.
#undef QT_NO_FOREACH
#include <qcustomplot.h>

#include "kvsimharness.h"
#include "ndacontrol.h"
#include "timeseriesviewers.h"
#include "viewmanager.h"

#include <QMdiArea>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

namespace {

constexpr int64_t Second = 1000000000;

// Sample time fine of sample `i` at `hz`, from `start` ticks.
uint32_t ticks(int i, int hz, uint32_t start = 0)
{
    return start + static_cast<uint32_t>(i * (10000 / hz));
}

NvDataPacket inertial(int i, const NvVector3& acc, const NvVector3& gyr, const NvVector3& mag,
                      uint32_t start = 0)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(static_cast<uint16_t>(i));
    b.setSampleTimeFine(ticks(i, 100, start));
    b.setVector3(NDI_ACCELERATION, acc);
    b.setVector3(NDI_RATE_OF_TURN, gyr);
    b.setVector3(NDI_MAGNETIC_FIELD, mag);
    return b.toPacket();
}

NvDataPacket freeAcceleration(int i, double x, uint32_t start = 0)
{
    NvDataPacketBuilder b;
    b.setSampleTimeFine(ticks(i, 100, start));
    b.setVector3(NDI_FREE_ACCELERATION, NvVector3(x, -x, 0.5));
    return b.toPacket();
}

bool near(double a, double b, double tolerance = 1e-5)
{
    return std::fabs(a - b) <= tolerance;
}

// Prints both when they differ.
#define COMPARE_NEAR(a, b, tol)                                                                    \
    QVERIFY2(near((a), (b), (tol)), qPrintable(QStringLiteral("%1 vs %2").arg(a).arg(b)))

} // namespace

class TestTimeSeries : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void inertialViewShowsLatestValuesAndMagneticHealth();
    void incrementsTakeTheLanesOfAccelerationAndRateOfTurn();
    void orientationFollowsTheEulerOrQuaternionOption();
    void unitsAndFlagsOfTheOtherViews();
    void pauseZoomAndFollow();
    void mouseZoomAndDragStopFollowingDoubleClickFollows();
    void timeGoingBackClears();
    void buffersStayBoundedWithoutFrames();
    void strobesAndTimeAxisFromTheOptions();
    void emulatedAhrsThroughTheViewManager();

private:
    QTemporaryDir m_settingsDir;
};

void TestTimeSeries::initTestCase()
{
    QVERIFY(m_settingsDir.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settingsDir.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvViewsTest"));
    QCoreApplication::setApplicationName(QStringLiteral("tst_timeseries"));
}

void TestTimeSeries::init()
{
    QSettings().clear(); // every case starts from the default options
}

void TestTimeSeries::inertialViewShowsLatestValuesAndMagneticHealth()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    InertialDataViewer v(vm, NvDeviceId(), InertialView);
    QVERIFY(v.isWaiting());
    QCOMPARE(v.channelNames(),
             QStringList({"x", "y", "z", "x", "y", "z", "x", "y", "z", "|B|", "low", "high"}));

    // Packets without inertial items change nothing; neither does an empty one.
    NvDataPacketBuilder other;
    other.setTemperature(21.5);
    v.processPacket(other.toPacket(), 0);
    v.processPacket(NvDataPacket(), 0);
    QVERIFY(v.isWaiting());
    QVERIFY(std::isnan(v.latestValues()[0]));

    const NvVector3 mag(0.3, 0.1, -0.9);
    for (int i = 0; i < 300; ++i)
        v.processPacket(
            inertial(i, NvVector3(0.1 + i * 0.001, -0.2, 9.81), NvVector3(0.01, 0.02, -0.5), mag),
            0);
    QVERIFY(!v.isWaiting());
    const QVector<double> latest = v.latestValues();
    COMPARE_NEAR(latest[0], 0.399, 1e-5);
    COMPARE_NEAR(latest[2], 9.81, 1e-5);
    COMPARE_NEAR(latest[5], -0.5, 1e-6);
    COMPARE_NEAR(latest[6], 0.3, 1e-6);
    COMPARE_NEAR(latest[9], mag.norm(), 1e-6);
    v.refresh();
    QStringList legend = v.legendTexts();
    QCOMPARE(legend[0], QStringLiteral("x  0.399"));
    QCOMPARE(legend[2], QStringLiteral("z  9.810"));
    QCOMPARE(legend[5], QStringLiteral("z  -0.500"));
    QCOMPARE(v.magneticFieldText(), QStringLiteral("Magnetic field OK"));
    QVERIFY(!v.magneticFieldHealth().disturbed());
    COMPARE_NEAR(v.magneticFieldHealth().reference(), mag.norm(), 1e-6);

    // Iron nearby: |B| 23 % up for half a second.
    for (int i = 300; i < 350; ++i)
        v.processPacket(inertial(i, NvVector3(0, 0, 9.81), NvVector3(), mag * 1.23), 0);
    v.refresh();
    QCOMPARE(v.magneticFieldText(), QStringLiteral("Disturbed (|B| 1.23× reference)"));
    QVERIFY(v.magneticFieldHealth().disturbed());
    COMPARE_NEAR(v.magneticFieldHealth().reference(), mag.norm(), 1e-6); // not pulled along
    // And gone again.
    for (int i = 350; i < 400; ++i)
        v.processPacket(inertial(i, NvVector3(0, 0, 9.81), NvVector3(), mag * 1.01), 0);
    v.refresh();
    QCOMPARE(v.magneticFieldText(), QStringLiteral("Magnetic field OK"));
    // The band around |B| follows the reference.
    const QVector<double> band = v.latestValues();
    COMPARE_NEAR(band[10], 0.9 * v.magneticFieldHealth().reference(), 1e-9);
    COMPARE_NEAR(band[11], 1.1 * v.magneticFieldHealth().reference(), 1e-9);
}

void TestTimeSeries::incrementsTakeTheLanesOfAccelerationAndRateOfTurn()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    InertialDataViewer v(vm, NvDeviceId(), InertialView);
    QVERIFY(!v.showsDeltaV() && !v.showsDeltaQ());

    const NvQuaternion dq = NvQuaternion::fromAxisAngle(NvVector3(0, 0, 1), 0.01);
    for (int i = 0; i < 50; ++i) {
        NvDataPacketBuilder b;
        b.setSampleTimeFine(ticks(i, 100));
        b.setVector3(NDI_DELTA_V, NvVector3(0.001, -0.002, 0.0981));
        b.setDeltaQ(dq);
        b.setVector3(NDI_MAGNETIC_FIELD, NvVector3(0, 1, 0));
        v.processPacket(b.toPacket(), 0);
    }
    QVERIFY(v.showsDeltaV());
    QVERIFY(v.showsDeltaQ());
    QCOMPARE(v.channelNames().mid(0, 7), QStringList({"x", "y", "z", "q0", "q1", "q2", "q3"}));
    QCOMPARE(v.channelNames().size(), 13);
    const QVector<double> latest = v.latestValues();
    COMPARE_NEAR(latest[2], 0.0981, 1e-6);
    COMPARE_NEAR(latest[3], dq.w, 1e-6);
    COMPARE_NEAR(latest[6], dq.z, 1e-6);
    COMPARE_NEAR(latest[8], 1.0, 1e-6); // magnetic y
    v.refresh();
    QCOMPARE(v.legendTexts()[2], QStringLiteral("z  0.09810"));

    // Only the high-rate acceleration: it stands in for the plain one.
    NvDataPacketBuilder hr;
    hr.setSampleTimeFine(ticks(50, 100));
    hr.setVector3(NDI_ACCELERATION_HR, NvVector3(0.5, 0.25, 9.75));
    v.processPacket(hr.toPacket(), 0);
    QVERIFY(!v.showsDeltaV());
    COMPARE_NEAR(v.latestValues()[2], 9.75, 1e-6);

    // Acceleration and rate of turn again: their lanes come back.
    v.processPacket(inertial(51, NvVector3(1, 2, 3), NvVector3(), NvVector3(0, 1, 0)), 0);
    QVERIFY(!v.showsDeltaV());
    QVERIFY(!v.showsDeltaQ());
    COMPARE_NEAR(v.latestValues()[0], 1.0, 1e-6);
    QCOMPARE(v.channelNames().size(), 12);
}

void TestTimeSeries::orientationFollowsTheEulerOrQuaternionOption()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    OrientationDataViewer v(vm, NvDeviceId(), OrientationView);
    QVERIFY(!v.showsQuaternion());
    QCOMPARE(v.channelNames(), QStringList({"roll", "pitch", "yaw"}));

    const NvQuaternion q = NvQuaternion::fromEuler(NvEuler(10, -20, 30));
    auto packet = [&](int i) {
        NvDataPacketBuilder b;
        b.setSampleTimeFine(ticks(i, 100));
        b.setQuaternion(q);
        return b.toPacket();
    };
    for (int i = 0; i < 10; ++i)
        v.processPacket(packet(i), 0);
    QVector<double> latest = v.latestValues();
    COMPARE_NEAR(latest[0], 10, 1e-4);
    COMPARE_NEAR(latest[1], -20, 1e-4);
    COMPARE_NEAR(latest[2], 30, 1e-4);
    v.refresh();
    QCOMPARE(v.legendTexts(), QStringList({"roll  10.00", "pitch  -20.00", "yaw  30.00"}));

    PlottingOptions o = vm.plotManager().options();
    o.orientationQuaternion = true;
    vm.plotManager().setOptions(o);
    QVERIFY(v.showsQuaternion());
    QCOMPARE(v.channelNames(), QStringList({"q0", "q1", "q2", "q3"}));
    QVERIFY(std::isnan(v.latestValues()[0])); // Euler samples are not quaternions
    for (int i = 10; i < 20; ++i)
        v.processPacket(packet(i), 0);
    latest = v.latestValues();
    COMPARE_NEAR(latest[0], q.w, 1e-6);
    COMPARE_NEAR(latest[1], q.x, 1e-6);
    COMPARE_NEAR(latest[3], q.z, 1e-6);

    // Packets without orientation are not for this view.
    OrientationDataViewer fresh(vm, NvDeviceId(), OrientationView);
    fresh.processPacket(inertial(0, NvVector3(), NvVector3(), NvVector3()), 0);
    QVERIFY(fresh.isWaiting());
}

void TestTimeSeries::unitsAndFlagsOfTheOtherViews()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);

    NvDataPacketBuilder b;
    b.setSampleTimeFine(1000);
    b.setTemperature(25.0);
    b.setPressure(101325);
    b.setStatusWord(NvStatus::SelfTestOk | NvStatus::OrientationValid | 0x100);
    b.setScalar(NDI_ALTITUDE_MSL, 123.25);
    b.setScalar(NDI_ALTITUDE_ELLIPSOID, 170.5);
    b.setVector3(nvWithFrame(NDI_VELOCITY, NCF_NED), NvVector3(1.5, -2.5, 0.25));
    b.setVector3(NDI_FREE_ACCELERATION, NvVector3(0.5, -0.25, 0.125));
    const NvDataPacket all = b.toPacket();
    NvDataPacketBuilder none;
    none.setSampleTimeFine(1000);
    const NvDataPacket empty = none.toPacket();

    TemperatureDataViewer temperature(vm, NvDeviceId(), TemperatureView);
    PressureDataViewer pressure(vm, NvDeviceId(), PressureView);
    StatusDataViewer status(vm, NvDeviceId(), StatusView);
    AltitudeDataViewer altitude(vm, NvDeviceId(), AltitudeView);
    VelocityDataViewer velocity(vm, NvDeviceId(), VelocityView);
    FreeAccelerationDataViewer free(vm, NvDeviceId(), FreeAccelerationView);
    const QList<TimeSeriesViewer*> views{&temperature, &pressure, &status,
                                         &altitude,    &velocity, &free};
    for (TimeSeriesViewer* view : views) {
        view->processPacket(empty, 0);
        QVERIFY(view->isWaiting());
        view->processPacket(all, 0);
        QVERIFY(!view->isWaiting());
        view->refresh();
    }

    COMPARE_NEAR(temperature.latestValues()[0], 25.0, 1e-5);
    QCOMPARE(temperature.legendTexts(), QStringList{"Temperature  25.00"});
    COMPARE_NEAR(pressure.latestValues()[0], 1013.25, 1e-9);
    QCOMPARE(pressure.legendTexts(), QStringList{"Pressure  1013.25"});
    QCOMPARE(status.latestValues(), QVector<double>({1, 1, 0, 0, 0, 0}));
    QCOMPARE(status.channelNames(), QStringList({"Self-test OK", "Orientation valid", "GNSS fix",
                                                 "No-rotation update", "RTK float", "RTK fixed"}));
    QCOMPARE(status.legendTexts()[0], QStringLiteral("Self-test OK  yes"));
    QCOMPARE(status.legendTexts()[2], QStringLiteral("GNSS fix  no"));
    COMPARE_NEAR(altitude.latestValues()[0], 123.25, 1e-4);
    COMPARE_NEAR(altitude.latestValues()[1], 170.5, 1e-4);
    QCOMPARE(velocity.channelNames(), QStringList({"north", "east", "down"}));
    COMPARE_NEAR(velocity.latestValues()[1], -2.5, 1e-6);
    QCOMPARE(velocity.legendTexts()[0], QStringLiteral("north  1.500"));
    QCOMPARE(free.legendTexts(), QStringList({"x  0.500", "y  -0.250", "z  0.125"}));

    // Fahrenheit from the options, for what comes next.
    PlottingOptions o = vm.plotManager().options();
    o.fahrenheit = true;
    vm.plotManager().setOptions(o);
    QVERIFY(temperature.showsFahrenheit());
    NvDataPacketBuilder later;
    later.setSampleTimeFine(2000);
    later.setTemperature(25.0);
    later.setStatusByte(NvStatus::GnssFix);
    temperature.processPacket(later.toPacket(), 0);
    status.processPacket(later.toPacket(), 0);
    COMPARE_NEAR(temperature.latestValues()[0], 77.0, 1e-4);
    temperature.refresh();
    QCOMPARE(temperature.legendTexts(), QStringList{"Temperature  77.00"});
    // Only the status byte: its flags are the word's low bits.
    QCOMPARE(status.latestValues(), QVector<double>({0, 0, 1, 0, 0, 0}));
}

void TestTimeSeries::pauseZoomAndFollow()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    FreeAccelerationDataViewer v(vm, NvDeviceId(), FreeAccelerationView);
    TimeSeriesPlot* plot = v.plot();
    // The window starts at the longest live display time and stays within the bounds.
    QCOMPARE(plot->displayTime(), vm.plotManager().options().maximumDisplayTimeLive);
    plot->setDisplayTime(3600 * 1000);
    QCOMPARE(plot->displayTime(), 10000);
    plot->setDisplayTime(10);
    QCOMPARE(plot->displayTime(), 500);
    plot->setDisplayTime(2000);

    for (int i = 0; i < 200; ++i)
        v.processPacket(freeAcceleration(i, i * 0.01), 0);
    v.refresh();
    QCOMPARE(plot->visibleTo(), 1.99);
    QCOMPARE(plot->visibleFrom(), -0.01);
    const QStringList shown = v.legendTexts();
    const int points = plot->displayedPointCount(0);
    QCOMPARE(shown[0], QStringLiteral("x  1.990"));
    QVERIFY(points > 100 && points <= 200);

    // Paused: the graph stays, the samples keep coming into the buffer.
    plot->setPaused(true);
    for (int i = 200; i < 400; ++i)
        v.processPacket(freeAcceleration(i, i * 0.01), 0);
    v.refresh();
    QCOMPARE(plot->visibleTo(), 1.99);
    QCOMPARE(v.legendTexts(), shown);
    QCOMPARE(plot->displayedPointCount(0), points);
    QCOMPARE(plot->bufferedCount(0), size_t(400));
    COMPARE_NEAR(v.latestValues()[0], 3.99, 1e-6);

    // Resuming jumps to now.
    plot->setPaused(false);
    QVERIFY(plot->isFollowing());
    v.refresh();
    QCOMPARE(plot->visibleTo(), 3.99);
    QCOMPARE(v.legendTexts()[0], QStringLiteral("x  3.990"));

    // Zoomed in: no following; the legend tells the value at the right edge.
    plot->showRange(0.5, 1.0);
    QVERIFY(!plot->isFollowing());
    for (int i = 400; i < 450; ++i)
        v.processPacket(freeAcceleration(i, i * 0.01), 0);
    v.refresh();
    QCOMPARE(plot->visibleFrom(), 0.5);
    QCOMPARE(plot->visibleTo(), 1.0);
    QCOMPARE(v.legendTexts()[0], QStringLiteral("x  1.000"));
    QVERIFY(plot->displayedPointCount(0) >= 50);
    plot->follow();
    v.refresh();
    QCOMPARE(plot->visibleTo(), 4.49);

    // Narrower bounds from the options clamp the window.
    PlottingOptions o = vm.plotManager().options();
    o.maximumDisplayTimeLive = 1000;
    vm.plotManager().setOptions(o);
    QCOMPARE(plot->displayTime(), 1000);
    v.refresh();
    COMPARE_NEAR(plot->visibleTo() - plot->visibleFrom(), 1.0, 1e-9);

    // Auto-scale fits the value axis to what is shown (x: 3.50 .. 4.49, y: the negative);
    // off, the axis stays where it is.
    QVERIFY(plot->autoScale());
    const QCPRange fitted = plot->valueAxis(0)->range();
    QVERIFY(fitted.lower < -4.49 && fitted.lower > -5.0);
    QVERIFY(fitted.upper > 4.49 && fitted.upper < 5.0);
    plot->setAutoScale(false);
    QVERIFY(!plot->autoScale());
    for (int i = 450; i < 500; ++i)
        v.processPacket(freeAcceleration(i, i * 0.1), 0);
    v.refresh();
    QCOMPARE(plot->valueAxis(0)->range(), fitted);
    plot->setAutoScale(true);
    v.refresh();
    QVERIFY(plot->valueAxis(0)->range().upper > 49);
}

void TestTimeSeries::mouseZoomAndDragStopFollowingDoubleClickFollows()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    FreeAccelerationDataViewer v(vm, NvDeviceId(), FreeAccelerationView);
    TimeSeriesPlot* plot = v.plot();
    int i = 0;
    for (; i < 500; ++i)
        v.processPacket(freeAcceleration(i, i * 0.01), 0);
    plot->resize(800, 500);
    plot->show();
    QVERIFY(QTest::qWaitForWindowExposed(plot));
    v.refresh();
    QCustomPlot* qcp = plot->customPlot();
    qcp->replot(QCustomPlot::rpImmediateRefresh); // lays the lanes out
    QCOMPARE(plot->visibleTo(), 4.99);
    const double span = plot->visibleTo() - plot->visibleFrom();
    const QPoint centre = qcp->axisRect(0)->rect().center();
    auto mouse = [&](QEvent::Type type, const QPoint& at, Qt::MouseButton button,
                     Qt::MouseButtons buttons) {
        QMouseEvent e(type, at, qcp->mapToGlobal(at), button, buttons, Qt::NoModifier);
        QCoreApplication::sendEvent(qcp, &e);
    };

    // The wheel zooms in on the time axis and stops the following.
    QWheelEvent wheel(centre, qcp->mapToGlobal(centre), QPoint(), QPoint(0, 120), Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(qcp, &wheel);
    QVERIFY(!plot->isFollowing());
    const double from = plot->visibleFrom(), to = plot->visibleTo();
    QVERIFY(to - from < span);
    for (; i < 600; ++i)
        v.processPacket(freeAcceleration(i, i * 0.01), 0);
    v.refresh();
    QCOMPARE(plot->visibleFrom(), from);
    QCOMPARE(plot->visibleTo(), to);

    // Dragging to the right shows earlier data.
    mouse(QEvent::MouseButtonPress, centre, Qt::LeftButton, Qt::LeftButton);
    mouse(QEvent::MouseMove, centre + QPoint(100, 0), Qt::NoButton, Qt::LeftButton);
    mouse(QEvent::MouseButtonRelease, centre + QPoint(100, 0), Qt::LeftButton, Qt::NoButton);
    QVERIFY(plot->visibleTo() < to);
    COMPARE_NEAR(plot->visibleTo() - plot->visibleFrom(), to - from, 1e-9);
    v.refresh();
    QVERIFY(plot->displayedPointCount(0) > 0);

    // A double-click goes back to the newest data.
    mouse(QEvent::MouseButtonDblClick, centre, Qt::LeftButton, Qt::LeftButton);
    QVERIFY(plot->isFollowing());
    v.refresh();
    QCOMPARE(plot->visibleTo(), 5.99);
    COMPARE_NEAR(plot->visibleTo() - plot->visibleFrom(), span, 1e-9);
}

void TestTimeSeries::timeGoingBackClears()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    FreeAccelerationDataViewer v(vm, NvDeviceId(), FreeAccelerationView);
    for (int i = 0; i < 200; ++i)
        v.processPacket(freeAcceleration(i, 1.0, 500000), 0);
    v.refresh();
    QCOMPARE(v.plot()->bufferedCount(0), size_t(200));
    QCOMPARE(v.plot()->visibleTo(), 1.99);

    // A seek back in a recording: what was shown goes, the axis starts again.
    v.processPacket(freeAcceleration(0, 2.0, 20000), 0);
    QCOMPARE(v.plot()->bufferedCount(0), size_t(1));
    for (int i = 1; i < 50; ++i)
        v.processPacket(freeAcceleration(i, 2.0, 20000), 0);
    v.refresh();
    QCOMPARE(v.plot()->visibleTo(), 0.49);
    QCOMPARE(v.legendTexts()[0], QStringLiteral("x  2.000"));

    // clear() forgets too.
    v.clear();
    QCOMPARE(v.plot()->bufferedCount(0), size_t(0));
    QVERIFY(std::isnan(v.latestValues()[0]));
}

void TestTimeSeries::buffersStayBoundedWithoutFrames()
{
    // A view that is not drawn (hidden, minimised) keeps twice the longest window.
    TimeSeriesPlot plot;
    plot.setDisplayTimeBounds(500, 10000);
    const int channel = plot.addChannel(plot.addLane(QStringLiteral("a"), QStringLiteral("u")),
                                        QStringLiteral("x"), Qt::red);
    for (int i = 0; i < 120000; ++i)
        plot.append(channel, i * 0.001, i);
    QVERIFY(plot.bufferedCount(channel) <= 20000 + 4096);
    QVERIFY(plot.bufferedCount(channel) >= 20000);
    QCOMPARE(plot.latestValues()[channel], 119999.0);
    QVERIFY(plot.prepareFrame());
    QCOMPARE(plot.visibleTo(), 119.999);
    QCOMPARE(plot.legendTexts(), QStringList{"x  119999.000"});
    QVERIFY(!plot.prepareFrame()); // nothing new: nothing to draw
}

void TestTimeSeries::strobesAndTimeAxisFromTheOptions()
{
    QMdiArea area;
    NdaControl control;
    ViewManager vm(control, area);
    FreeAccelerationDataViewer v(vm, NvDeviceId(), FreeAccelerationView);
    QVERIFY(!v.plot()->strobes());
    QCOMPARE(v.plot()->timeAxis(), PlottingOptions::TimeAxis::SampleTime);

    PlottingOptions o = vm.plotManager().options();
    o.strobes = true;
    o.timeAxis = PlottingOptions::TimeAxis::HostTime;
    vm.plotManager().setOptions(o);
    QVERIFY(v.plot()->strobes());
    QCOMPARE(v.plot()->timeAxis(), PlottingOptions::TimeAxis::HostTime);
    // Strobes: dots, no lines.
    QCPGraph* graph = v.plot()->customPlot()->graph(0);
    QCOMPARE(graph->lineStyle(), QCPGraph::lsNone);
    QCOMPARE(graph->scatterStyle().shape(), QCPScatterStyle::ssDisc);

    // Host time: arrival times count, the sample times do not.
    for (int i = 0; i < 10; ++i)
        v.processPacket(freeAcceleration(i * 7, 1.0), 5 * Second + i * Second / 4);
    v.refresh();
    QCOMPARE(v.plot()->visibleTo(), 2.25);

    // The combo box writes the option for every view and into the settings.
    emit v.plot()->timeAxisChosen(PlottingOptions::TimeAxis::SampleTime);
    QCOMPARE(vm.plotManager().options().timeAxis, PlottingOptions::TimeAxis::SampleTime);
    QCOMPARE(PlottingOptions::fromSettings().timeAxis, PlottingOptions::TimeAxis::SampleTime);
    QCOMPARE(v.plot()->timeAxis(), PlottingOptions::TimeAxis::SampleTime);
    QCOMPARE(v.plot()->bufferedCount(0), size_t(0)); // times of the other axis are gone
}

void TestTimeSeries::emulatedAhrsThroughTheViewManager()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:measure", "--quiet"});
    QVERIFY2(sim.started(), sim.stderrText().c_str());
    const NvDeviceId id = NvDeviceId::fromString(sim.ports()[0].id);
    NdaControl control;
    NvControl_setReplyTimeout(control.libraryControl(), 5000); // loaded machines
    QVERIFY(control.openPort(sim.ports()[0].path, NBR_115200, 0));

    QMdiArea area;
    area.resize(1000, 700);
    area.show();
    ViewManager vm(control, area);
    vm.allowView(InertialView);
    vm.openView(InertialView, id);
    const ViewManager::ViewerList views = vm.findViews(InertialView, id);
    QCOMPARE(views.size(), qsizetype(1));
    auto* viewer = qobject_cast<InertialDataViewer*>(views.front().data());
    QVERIFY(viewer);
    QVERIFY(viewer->isWaiting());
    QVERIFY(control.gotoMeasurement(id));

    QTRY_VERIFY_WITH_TIMEOUT(viewer->packetsProcessed() > 100, 15000);
    QVERIFY(!viewer->isWaiting());
    // |acc| is gravity plus the emulated motion (which reaches a few m/s²): about 9.8 on
    // average.
    double sum = 0;
    int count = 0;
    for (int i = 0; i < 100; ++i) {
        const QVector<double> a = viewer->latestValues();
        sum += std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
        ++count;
        QTest::qWait(10);
    }
    const double g = sum / count;
    QVERIFY2(g > 7.5 && g < 12.0, qPrintable(QString::number(g)));
    // The frames of the display clock draw it: the legend shows numbers.
    QTRY_VERIFY_WITH_TIMEOUT(!viewer->legendTexts()[0].endsWith(QStringLiteral("–")), 5000);
    QVERIFY(viewer->plot()->displayedPointCount(0) > 10);
    QTRY_VERIFY_WITH_TIMEOUT(viewer->magneticFieldHealth().known(), 5000);
    QVERIFY(!viewer->magneticFieldHealth().disturbed());

    // The device goes away: the view closes, nothing else happens.
    control.close();
    QTRY_COMPARE_WITH_TIMEOUT(vm.viewCountInfo(InertialView, id), 0u, 5000);
}

QTEST_MAIN(TestTimeSeries)
#include "tst_timeseries.moc"
