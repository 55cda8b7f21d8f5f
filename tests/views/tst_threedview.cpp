// The 3D view: it follows the orientation and resets the heading whatever the display; on
// a display with OpenGL (a virtual X server) it draws the device, and without one (the
// offscreen platform) it says so instead.
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "threedviewer.h"
#include "viewmanager.h"
#include "viewstest.h"

#include "nvdatapacket.h"

#include <QDir>
#include <QGuiApplication>
#include <QLabel>
#include <QMdiArea>
#include <QOpenGLContext>
#include <QPushButton>
#include <QRegularExpression>
#include <QSet>
#include <QTest>
#include <QVBoxLayout>

#include <cmath>

namespace {

NvDataPacket orientationPacket(const NvEuler& e, NvDataIdentifier id = NDI_QUATERNION)
{
    NvDataPacketBuilder b;
    b.setPacketCounter(1);
    b.setOrientation(NvQuaternion::fromEuler(e), id);
    return b.toPacket();
}

bool near(double a, double b, double tolerance = 0.05)
{
    double d = std::fmod(std::abs(a - b), 360.0);
    return std::min(d, 360.0 - d) < tolerance;
}

QString eulerString(const NvEuler& e)
{
    return QStringLiteral("roll %1 pitch %2 yaw %3").arg(e.roll).arg(e.pitch).arg(e.yaw);
}

// The angles the label shows, in its order.
QList<double> shownAngles(const ThreeDViewer& v)
{
    QList<double> angles;
    static const QRegularExpression number(QStringLiteral("(-?\\d+\\.\\d)°"));
    auto it = number.globalMatch(v.eulerText());
    while (it.hasNext())
        angles << it.next().captured(1).toDouble();
    return angles;
}

int distinctColours(const QImage& image)
{
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            colours.insert(image.pixel(x, y));
    return colours.size();
}

// Share of pixels that differ clearly between two images of the same size.
double changedShare(const QImage& a, const QImage& b)
{
    int changed = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            if (std::abs(qRed(p) - qRed(q)) + std::abs(qGreen(p) - qGreen(q)) +
                    std::abs(qBlue(p) - qBlue(q)) >
                30)
                ++changed;
        }
    return double(changed) / (a.width() * a.height());
}

} // namespace

using viewstest::Harness;

class TestThreeDView : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void followsTheOrientationAndResetsTheHeading();
    void showsAnglesInTheFrameTheDeviceSends();
    void saysSoWithoutOpenGl();
    void drawsTheDeviceTurning();
    void followsAnEmulatedTracker();
    void closesWhenTheDeviceGoesAway();
};

void TestThreeDView::initTestCase()
{
    qInfo("platform %s, OpenGL %s", qPrintable(QGuiApplication::platformName()),
          ThreeDViewer::openGlAvailable() ? "available" : "unavailable");
}

void TestThreeDView::followsTheOrientationAndResetsTheHeading()
{
    Harness h;
    ThreeDViewer v(h.views, NvDeviceId(), ThreeDView);
    QVERIFY(!v.hasOrientation());
    QCOMPARE(v.eulerText(), QStringLiteral("Waiting for orientation data…"));

    // Nothing to follow in these.
    v.processPacket(NvDataPacket(), 0);
    NvDataPacketBuilder b;
    b.setPacketCounter(3);
    b.setTemperature(20);
    v.processPacket(b.toPacket(), 0);
    v.resetHeading();
    v.refresh();
    QVERIFY(!v.hasOrientation());

    v.processPacket(orientationPacket({10, -20, 75}), 0);
    v.refresh();
    QVERIFY(v.hasOrientation());
    NvEuler e = v.latestEuler();
    QVERIFY2(near(e.roll, 10) && near(e.pitch, -20) && near(e.yaw, 75), qPrintable(eulerString(e)));
    QCOMPARE(shownAngles(v), QList<double>({10.0, -20.0, 75.0}));
    QVERIFY(v.eulerText().startsWith(QLatin1String("Roll")));

    // The heading becomes zero; roll and pitch stay.
    QPushButton* reset = nullptr;
    for (QPushButton* b : v.widget()->findChildren<QPushButton*>())
        if (b->text() == QLatin1String("Reset Heading"))
            reset = b;
    QVERIFY(reset && reset->isEnabled());
    QTest::mouseClick(reset, Qt::LeftButton);
    e = v.latestEuler();
    QVERIFY2(near(e.roll, 10) && near(e.pitch, -20) && near(e.yaw, 0), qPrintable(eulerString(e)));
    QCOMPARE(shownAngles(v), QList<double>({10.0, -20.0, 0.0}));
    QVERIFY2(!v.eulerText().contains(QLatin1String("-0.0")), qPrintable(v.eulerText()));

    // Later turns count from the new zero.
    v.processPacket(orientationPacket({-5, 30, 120}), 0);
    v.refresh();
    e = v.latestEuler();
    QVERIFY2(near(e.roll, -5) && near(e.pitch, 30) && near(e.yaw, 45), qPrintable(eulerString(e)));
    v.processPacket(orientationPacket({0, 0, -170}), 0);
    v.refresh();
    QVERIFY2(near(v.latestEuler().yaw, 115), qPrintable(eulerString(v.latestEuler())));
    QCOMPARE(shownAngles(v), QList<double>({0.0, 0.0, 115.0}));

    v.clear();
    QVERIFY(!v.hasOrientation());
    QCOMPARE(v.eulerText(), QStringLiteral("Waiting for orientation data…"));
    QVERIFY(!reset->isEnabled());
}

void TestThreeDView::showsAnglesInTheFrameTheDeviceSends()
{
    Harness h;
    ThreeDViewer v(h.views, NvDeviceId(), ThreeDView);
    // Euler angles alone, and in NED: shown as sent.
    const NvDataIdentifier nedEuler = nvWithFrame(NDI_EULER_ANGLES, NCF_NED);
    v.processPacket(orientationPacket({-30, 15, 200 - 360}, nedEuler), 0);
    v.refresh();
    QVERIFY2(near(v.latestEuler().roll, -30) && near(v.latestEuler().pitch, 15) &&
                 near(v.latestEuler().yaw, -160),
             qPrintable(eulerString(v.latestEuler())));
    v.resetHeading();
    QVERIFY(near(v.latestEuler().yaw, 0) && near(v.latestEuler().roll, -30));

    // A rotation matrix in ENU: a new frame starts without the old heading reset.
    const NvDataIdentifier matrix = NDI_ROTATION_MATRIX;
    v.processPacket(orientationPacket({0, 45, 90}, matrix), 0);
    v.refresh();
    QVERIFY2(near(v.latestEuler().pitch, 45, 0.01) && near(v.latestEuler().yaw, 90, 0.01),
             qPrintable(eulerString(v.latestEuler())));
}

void TestThreeDView::saysSoWithoutOpenGl()
{
    if (ThreeDViewer::openGlAvailable())
        QSKIP("this display has OpenGL");
    Harness h;
    ThreeDViewer v(h.views, NvDeviceId(), ThreeDView);
    v.widget()->resize(400, 300);
    v.widget()->show();
    QVERIFY(QTest::qWaitForWindowExposed(v.widget()));
    QVERIFY(!v.glWidget());
    QCOMPARE(v.unavailableText(),
             QStringLiteral("3D view unavailable: no OpenGL context on this display."));
    bool shown = false;
    for (QLabel* label : v.widget()->findChildren<QLabel*>())
        shown |= label->isVisible() && label->text() == v.unavailableText();
    QVERIFY(shown);

    // Still following, and the frames do not mind the missing scene.
    v.processPacket(orientationPacket({1, 2, 3}), 0);
    v.refresh();
    QCOMPARE(shownAngles(v), QList<double>({1.0, 2.0, 3.0}));
    const QImage image = v.widget()->grab().toImage();
    QVERIFY(!image.isNull());
    QVERIFY(image.save(QDir::current().filePath(QStringLiteral("threedview_fallback.png"))));
}

void TestThreeDView::drawsTheDeviceTurning()
{
    if (!ThreeDViewer::openGlAvailable())
        QSKIP("no OpenGL on this display (run on a virtual X server)");
    Harness h;
    ThreeDViewer v(h.views, NvDeviceId(), ThreeDView);
    v.widget()->resize(640, 480);
    v.widget()->show();
    QVERIFY(QTest::qWaitForWindowExposed(v.widget()));
    OrientationGlWidget* gl = v.glWidget();
    QVERIFY(gl);
    QTRY_VERIFY(gl->isContextReady());
    QVERIFY(gl->context() && gl->context()->isValid());
    QVERIFY(v.unavailableText().isEmpty());

    v.processPacket(orientationPacket({20, -15, 30}), 0);
    v.refresh();
    const QImage first = gl->grabFramebuffer();
    QVERIFY(!first.isNull());
    QVERIFY2(distinctColours(first) > 100, qPrintable(QString::number(distinctColours(first))));
    QVERIFY(first.save(QDir::current().filePath(QStringLiteral("threedview.png"))));
    QVERIFY(
        v.widget()->grab().save(QDir::current().filePath(QStringLiteral("threedview_window.png"))));

    v.processPacket(orientationPacket({-40, 35, 160}), 0);
    v.refresh();
    const QImage turned = gl->grabFramebuffer();
    QCOMPARE(turned.size(), first.size());
    const double share = changedShare(first, turned);
    QVERIFY2(share > 0.02, qPrintable(QString::number(share)));
    QVERIFY(turned.save(QDir::current().filePath(QStringLiteral("threedview_turned.png"))));

    // The same orientation draws the same picture.
    v.processPacket(orientationPacket({20, -15, 30}), 0);
    v.refresh();
    QVERIFY(changedShare(first, gl->grabFramebuffer()) < 0.001);

    // Into another window: a new context, drawn again.
    QWidget other;
    auto* layout = new QVBoxLayout(&other);
    layout->addWidget(v.widget());
    other.resize(640, 480);
    other.show();
    QVERIFY(QTest::qWaitForWindowExposed(&other));
    QTRY_VERIFY(gl->isContextReady());
    const QImage again = gl->grabFramebuffer();
    QVERIFY(!again.isNull());
    QVERIFY(distinctColours(again) > 100);
    QVERIFY(v.unavailableText().isEmpty());
    // Well after showing, the scene is still there (no fallback taken for a slow start).
    QTest::qWait(1300);
    QVERIFY(v.unavailableText().isEmpty());
    QVERIFY(gl->isVisible());
    layout->removeWidget(v.widget());
    v.widget()->setParent(nullptr);
}

void TestThreeDView::followsAnEmulatedTracker()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:measure", "--quiet"});
    QVERIFY(sim.started());
    Harness h;
    h.area.resize(700, 500);
    h.area.show();
    NdaDevice* opened = h.open(sim);
    QVERIFY2(opened, qPrintable(h.control.lastResultText()));
    NdaDevice& device = *opened;
    const NvDeviceId id = device.deviceId();
    if (!device.isMeasuring())
        QVERIFY(device.gotoMeasurement());
    h.views.allowView(ThreeDView);
    h.views.openView(ThreeDView, id);
    QCOMPARE(h.views.viewCountInfo(ThreeDView, id), 1u);
    auto* v = qobject_cast<ThreeDViewer*>(h.views.findViews(ThreeDView, id).value(0).data());
    QVERIFY(v);
    QTRY_VERIFY_WITH_TIMEOUT(v->hasOrientation() && shownAngles(*v).size() == 3, 15000);
    // The emulator keeps turning: the angles move on.
    const QString before = v->eulerText();
    QTRY_VERIFY_WITH_TIMEOUT(v->eulerText() != before, 5000);
    if (v->glWidget())
        QTRY_VERIFY(v->glWidget()->isContextReady());
    QTest::qWait(200);
    QVERIFY(h.area.grab().save(QDir::current().filePath(QStringLiteral("threedview_live.png"))));
    h.views.closeViews(ThreeDView, id);
    QTRY_COMPARE(h.views.viewCountInfo(ThreeDView, id), 0u);
}

void TestThreeDView::closesWhenTheDeviceGoesAway()
{
    kvtest::KvsimProcess sim({"--device", "ahrs:measure,disconnect=3", "--quiet"});
    QVERIFY(sim.started());
    Harness h;
    h.area.resize(700, 500);
    h.area.show();
    NdaDevice* opened = h.open(sim);
    QVERIFY2(opened, qPrintable(h.control.lastResultText()));
    NdaDevice& device = *opened;
    const NvDeviceId id = device.deviceId();
    if (!device.isMeasuring())
        QVERIFY(device.gotoMeasurement());
    h.views.allowView(ThreeDView);
    h.views.openView(ThreeDView, id);
    auto* v = qobject_cast<ThreeDViewer*>(h.views.findViews(ThreeDView, id).value(0).data());
    QVERIFY(v);
    QTRY_VERIFY_WITH_TIMEOUT(v->hasOrientation(), 10000);
    // The port closes while the scene is drawn: the view goes with its context.
    QTRY_COMPARE_WITH_TIMEOUT(h.views.viewCountInfo(ThreeDView, id), 0u, 15000);
    QVERIFY(h.area.subWindowList().isEmpty());
}

QTEST_MAIN(TestThreeDView)
#include "tst_threedview.moc"
