#include "threedviewer.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLPaintDevice>
#include <QPainter>
#include <QPushButton>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>
#include <QVector3D>

#include <GL/gl.h>
#include <GL/glu.h>

#include <cmath>

namespace {

// The box is shaped like a tracker case: long along x, flat along z (scene units).
constexpr double BodyX = 1.0;
constexpr double BodyY = 0.7;
constexpr double BodyZ = 0.32;
constexpr double SensorAxisLength = 1.75;
constexpr double GroundZ = -1.3;
constexpr int GridHalfCells = 8;
constexpr double GridCell = 0.5;
constexpr double WorldAxisLength = 1.0;

// Seen from the south-west, somewhat above: east runs off to the right, north to the left,
// so that both world axes show their length.
constexpr double EyeX = -4.4;
constexpr double EyeY = -5.6;
constexpr double EyeZ = 3.5;

struct Rgb
{
    float r, g, b;
};

const Rgb AxisColors[3] = {{0.90f, 0.20f, 0.18f}, {0.22f, 0.78f, 0.25f}, {0.25f, 0.45f, 0.95f}};

void loadRotation(const NvQuaternion& q)
{
    const NvMatrix3 r = q.normalized().toMatrix();
    // Column-major, as GL wants it.
    const GLdouble m[16] = {r(0, 0), r(1, 0), r(2, 0), 0, r(0, 1), r(1, 1), r(2, 1), 0,
                            r(0, 2), r(1, 2), r(2, 2), 0, 0,       0,       0,       1};
    glMultMatrixd(m);
}

// An arrow from the origin along +z, `length` long.
void drawArrow(GLUquadric* quadric, double length, double radius)
{
    const double head = std::min(0.32, length * 0.25);
    const double shaft = length - head;
    gluCylinder(quadric, radius, radius, shaft, 16, 1);
    glPushMatrix();
    glTranslated(0, 0, shaft);
    gluQuadricOrientation(quadric, GLU_INSIDE);
    gluDisk(quadric, 0, radius * 2.6, 16, 1);
    gluQuadricOrientation(quadric, GLU_OUTSIDE);
    gluCylinder(quadric, radius * 2.6, 0, head, 16, 1);
    glPopMatrix();
}

// Turns +z onto axis 0 (x), 1 (y) or leaves it (z).
void turnOntoAxis(int axis)
{
    if (axis == 0)
        glRotated(90, 0, 1, 0);
    else if (axis == 1)
        glRotated(-90, 1, 0, 0);
}

bool project(const QVector3D& p, const GLdouble* model, const GLdouble* proj, const GLint* view,
             QPointF* out)
{
    GLdouble x = 0, y = 0, z = 0;
    if (gluProject(p.x(), p.y(), p.z(), model, proj, view, &x, &y, &z) != GL_TRUE)
        return false;
    if (z < 0.0 || z > 1.0)
        return false;
    *out = QPointF(x, y);
    return true;
}

} // namespace

// ---- OrientationGlWidget

OrientationGlWidget::OrientationGlWidget(QWidget* parent) : QOpenGLWidget(parent)
{
    setMinimumSize(160, 120);
}

void OrientationGlWidget::showEvent(QShowEvent* event)
{
    QOpenGLWidget::showEvent(event);
    // A context that fails to come up gives no initializeGL, only a warning and a black
    // widget. Shown for a while and still without one: give up on it.
    QTimer::singleShot(1000, this, [this] {
        if (isVisible() && !context() && !m_ready)
            emit contextLost();
    });
}

OrientationGlWidget::~OrientationGlWidget()
{
    QObject::disconnect(m_contextConnection);
}

void OrientationGlWidget::setOrientation(const NvQuaternion& enu)
{
    m_orientation = enu;
    update();
}

void OrientationGlWidget::releaseContext()
{
    // Nothing lives in the context (immediate mode); a new one comes with initializeGL.
    m_ready = false;
}

void OrientationGlWidget::initializeGL()
{
    QOpenGLContext* ctx = context();
    if (!ctx || !ctx->isValid() || ctx->isOpenGLES() ||
        ctx->format().profile() == QSurfaceFormat::CoreProfile) {
        // No fixed-function pipeline: let the viewer fall back once this call is over.
        QTimer::singleShot(0, this, [this] { emit contextLost(); });
        return;
    }
    initializeOpenGLFunctions();
    QObject::disconnect(m_contextConnection);
    m_contextConnection = connect(ctx, &QOpenGLContext::aboutToBeDestroyed, this,
                                  &OrientationGlWidget::releaseContext);
    m_ready = true;
}

void OrientationGlWidget::paintGL()
{
    if (!m_ready)
        return;
    // QPainter's engine leaves its program and buffers bound after the labels.
    glUseProgram(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
    for (GLuint i = 0; i < 8; ++i)
        glDisableVertexAttribArray(i);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
    glDisable(GL_TEXTURE_2D);
    glDisable(GL_SCISSOR_TEST);
    glDisable(GL_STENCIL_TEST);
    glDisable(GL_BLEND);
    glDepthMask(GL_TRUE);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);

    const qreal dpr = devicePixelRatioF();
    const int w = std::max(1, int(width() * dpr));
    const int h = std::max(1, int(height() * dpr));
    glViewport(0, 0, w, h);
    glClearColor(0.12f, 0.14f, 0.18f, 1.0f);
    glClearDepth(1.0);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    // Background: a vertical gradient, darker at the bottom.
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_LIGHTING);
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
    glBegin(GL_QUADS);
    glColor3f(0.10f, 0.11f, 0.14f);
    glVertex2f(-1, -1);
    glVertex2f(1, -1);
    glColor3f(0.27f, 0.31f, 0.38f);
    glVertex2f(1, 1);
    glVertex2f(-1, 1);
    glEnd();

    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    gluPerspective(34.0, double(w) / double(h), 0.1, 100.0);
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
    gluLookAt(EyeX, EyeY, EyeZ, 0, 0, -0.35, 0, 0, 1);

    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LEQUAL);
    glEnable(GL_LINE_SMOOTH);
    glHint(GL_LINE_SMOOTH_HINT, GL_NICEST);

    m_labels.clear();
    drawGrid();

    // The light stays with the viewer.
    glPushMatrix();
    glLoadIdentity();
    const GLfloat lightPos[4] = {-0.4f, 0.8f, 1.0f, 0.0f};
    const GLfloat ambient[4] = {0.35f, 0.35f, 0.38f, 1.0f};
    const GLfloat diffuse[4] = {0.75f, 0.75f, 0.72f, 1.0f};
    glLightfv(GL_LIGHT0, GL_POSITION, lightPos);
    glLightfv(GL_LIGHT0, GL_AMBIENT, ambient);
    glLightfv(GL_LIGHT0, GL_DIFFUSE, diffuse);
    glPopMatrix();

    glPushMatrix();
    loadRotation(m_orientation);
    drawBody();
    drawSensorAxes();
    glPopMatrix();

    drawWorldAxes(w, h);
    glViewport(0, 0, w, h);
    drawLabels();
}

void OrientationGlWidget::addLabel(const QVector3D& at, const QString& text, const QColor& color)
{
    GLdouble model[16];
    GLdouble proj[16];
    GLint view[4];
    glGetDoublev(GL_MODELVIEW_MATRIX, model);
    glGetDoublev(GL_PROJECTION_MATRIX, proj);
    glGetIntegerv(GL_VIEWPORT, view);
    QPointF p;
    if (project(at, model, proj, view, &p))
        m_labels.push_back({p, text, color});
}

void OrientationGlWidget::drawGrid()
{
    glDisable(GL_LIGHTING);
    const double extent = GridHalfCells * GridCell;
    // A faint floor under the lines, so that the box reads as standing above it.
    glEnable(GL_BLEND);
    glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    glEnable(GL_POLYGON_OFFSET_FILL);
    glPolygonOffset(1.0f, 1.0f);
    glColor4f(0.20f, 0.23f, 0.28f, 0.55f);
    glBegin(GL_QUADS);
    glVertex3d(-extent, -extent, GroundZ);
    glVertex3d(extent, -extent, GroundZ);
    glVertex3d(extent, extent, GroundZ);
    glVertex3d(-extent, extent, GroundZ);
    glEnd();
    glDisable(GL_POLYGON_OFFSET_FILL);

    glLineWidth(1.0f);
    glBegin(GL_LINES);
    for (int i = -GridHalfCells; i <= GridHalfCells; ++i) {
        const double c = i * GridCell;
        const float a = i == 0 ? 0.75f : 0.4f;
        glColor4f(0.62f, 0.66f, 0.72f, a);
        glVertex3d(c, -extent, GroundZ);
        glVertex3d(c, extent, GroundZ);
        glVertex3d(-extent, c, GroundZ);
        glVertex3d(extent, c, GroundZ);
    }
    glEnd();
    glDisable(GL_BLEND);
}

void OrientationGlWidget::drawWorldAxes(int w, int h)
{
    // East, north and up in a corner of their own, seen from where the scene is seen: the
    // reference the box turns against, never hidden by it.
    const int size = std::max(60, int(std::min(w, h) / 3.2));
    glViewport(0, 0, size, size);
    glClear(GL_DEPTH_BUFFER_BIT);
    glMatrixMode(GL_PROJECTION);
    glPushMatrix();
    glLoadIdentity();
    gluPerspective(34.0, 1.0, 0.1, 100.0);
    glMatrixMode(GL_MODELVIEW);
    glPushMatrix();
    glLoadIdentity();
    const double eye = std::sqrt(EyeX * EyeX + EyeY * EyeY + EyeZ * EyeZ);
    const double k = 4.6 / eye;
    gluLookAt(EyeX * k, EyeY * k, EyeZ * k, 0, 0, 0.2, 0, 0, 1);
    glDisable(GL_LIGHTING);
    glLineWidth(2.5f);
    glBegin(GL_LINES);
    for (int axis = 0; axis < 3; ++axis) {
        const Rgb& c = AxisColors[axis];
        glColor3f(c.r * 0.8f + 0.15f, c.g * 0.8f + 0.15f, c.b * 0.8f + 0.15f);
        double end[3] = {0, 0, 0};
        end[axis] = WorldAxisLength;
        glVertex3d(0, 0, 0);
        glVertex3dv(end);
    }
    glEnd();
    glLineWidth(1.0f);
    const char* names[3] = {"E", "N", "U"};
    for (int axis = 0; axis < 3; ++axis) {
        QVector3D tip;
        tip[axis] = float(WorldAxisLength + 0.3);
        const Rgb& c = AxisColors[axis];
        addLabel(tip, QString::fromLatin1(names[axis]),
                 QColor::fromRgbF(c.r * 0.7f + 0.3f, c.g * 0.7f + 0.3f, c.b * 0.7f + 0.3f));
    }
    glPopMatrix();
    glMatrixMode(GL_PROJECTION);
    glPopMatrix();
    glMatrixMode(GL_MODELVIEW);
}

void OrientationGlWidget::drawBody()
{
    glEnable(GL_LIGHTING);
    glEnable(GL_LIGHT0);
    glEnable(GL_COLOR_MATERIAL);
    glColorMaterial(GL_FRONT_AND_BACK, GL_AMBIENT_AND_DIFFUSE);
    glEnable(GL_NORMALIZE);
    glShadeModel(GL_FLAT);

    // Faces tinted by the axis they face: the +x end, the left (+y) side and the top
    // (+z) in the axis colours, their opposites darker.
    struct Face
    {
        int axis;
        int sign;
    };
    const Face faces[6] = {{0, 1}, {0, -1}, {1, 1}, {1, -1}, {2, 1}, {2, -1}};
    const double half[3] = {BodyX, BodyY, BodyZ};
    glBegin(GL_QUADS);
    for (const Face& f : faces) {
        const Rgb& c = AxisColors[f.axis];
        const float k = f.sign > 0 ? 0.78f : 0.38f;
        glColor3f(c.r * k + 0.12f, c.g * k + 0.12f, c.b * k + 0.12f);
        const int u = (f.axis + 1) % 3;
        const int v = (f.axis + 2) % 3;
        double n[3] = {0, 0, 0};
        n[f.axis] = f.sign;
        glNormal3dv(n);
        const double corners[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
        for (int i = 0; i < 4; ++i) {
            // Counter-clockwise seen from outside.
            const int j = f.sign > 0 ? i : 3 - i;
            double p[3];
            p[f.axis] = f.sign * half[f.axis];
            p[u] = corners[j][0] * half[u];
            p[v] = corners[j][1] * half[v];
            glVertex3dv(p);
        }
    }
    glEnd();
    glDisable(GL_LIGHTING);

    // An arrow printed on the top, pointing forward.
    glEnable(GL_POLYGON_OFFSET_FILL);
    glPolygonOffset(-1.0f, -1.0f);
    glColor3f(0.95f, 0.95f, 0.92f);
    const double z = BodyZ;
    glBegin(GL_TRIANGLES);
    glVertex3d(0.75, 0.0, z);
    glVertex3d(0.20, 0.38, z);
    glVertex3d(0.20, -0.38, z);
    glEnd();
    glBegin(GL_QUADS);
    glVertex3d(0.20, 0.13, z);
    glVertex3d(-0.65, 0.13, z);
    glVertex3d(-0.65, -0.13, z);
    glVertex3d(0.20, -0.13, z);
    glEnd();
    glDisable(GL_POLYGON_OFFSET_FILL);

    // Dark edges keep the shape readable whatever the light.
    glLineWidth(1.5f);
    glColor3f(0.05f, 0.05f, 0.06f);
    for (int sz : {-1, 1}) {
        glBegin(GL_LINE_LOOP);
        glVertex3d(-BodyX, -BodyY, sz * BodyZ);
        glVertex3d(BodyX, -BodyY, sz * BodyZ);
        glVertex3d(BodyX, BodyY, sz * BodyZ);
        glVertex3d(-BodyX, BodyY, sz * BodyZ);
        glEnd();
    }
    glBegin(GL_LINES);
    for (int sx : {-1, 1})
        for (int sy : {-1, 1}) {
            glVertex3d(sx * BodyX, sy * BodyY, -BodyZ);
            glVertex3d(sx * BodyX, sy * BodyY, BodyZ);
        }
    glEnd();
    glLineWidth(1.0f);
}

void OrientationGlWidget::drawSensorAxes()
{
    glEnable(GL_LIGHTING);
    glShadeModel(GL_SMOOTH);
    GLUquadric* quadric = gluNewQuadric();
    if (!quadric)
        return;
    gluQuadricNormals(quadric, GLU_SMOOTH);
    for (int axis = 0; axis < 3; ++axis) {
        const Rgb& c = AxisColors[axis];
        glColor3f(c.r, c.g, c.b);
        glPushMatrix();
        turnOntoAxis(axis);
        drawArrow(quadric, SensorAxisLength, 0.035);
        glPopMatrix();
    }
    gluDeleteQuadric(quadric);
    glDisable(GL_LIGHTING);
    const char* names[3] = {"x", "y", "z"};
    for (int axis = 0; axis < 3; ++axis) {
        QVector3D tip;
        tip[axis] = float(SensorAxisLength + 0.2);
        const Rgb& c = AxisColors[axis];
        addLabel(tip, QString::fromLatin1(names[axis]),
                 QColor::fromRgbF(std::min(1.0f, c.r + 0.15f), std::min(1.0f, c.g + 0.15f),
                                  std::min(1.0f, c.b + 0.15f)));
    }
}

void OrientationGlWidget::drawLabels()
{
    GLint view[4];
    glGetIntegerv(GL_VIEWPORT, view);
    const qreal dpr = devicePixelRatioF();
    // Onto the bound frame buffer itself: a painter on the widget would follow a grab's
    // redirection and end up under the scene.
    QOpenGLPaintDevice device(QSize(view[2], view[3]));
    device.setDevicePixelRatio(dpr);
    QPainter painter(&device);
    painter.setRenderHint(QPainter::Antialiasing);
    QFont font = painter.font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.15);
    painter.setFont(font);
    const QFontMetricsF fm(font);
    for (const ScreenLabel& l : m_labels) {
        const QPointF at = QPointF(l.at.x(), view[3] - l.at.y()) / dpr;
        const QRectF box(at.x() - fm.horizontalAdvance(l.text) / 2 - 3,
                         at.y() - fm.height() / 2 - 1, fm.horizontalAdvance(l.text) + 6,
                         fm.height() + 2);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(0, 0, 0, 110));
        painter.drawRoundedRect(box, 3, 3);
        painter.setPen(l.color);
        painter.drawText(box, Qt::AlignCenter, l.text);
    }
    painter.end();

    // Blending left partial alpha in the frame buffer, which the window would show through:
    // the scene is opaque.
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_TRUE);
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
}

// ---- ThreeDViewer

QString ThreeDViewer::unavailableMessage()
{
    return tr("3D view unavailable: no OpenGL context on this display.");
}

bool ThreeDViewer::openGlAvailable()
{
    // A context that cannot be made does not get better later: ask once.
    static int available = -1;
    if (available >= 0)
        return available == 1;
    available = 0;
    const QString platform = QGuiApplication::platformName();
    // Offscreen may hand out a context, but a QOpenGLWidget on it cannot be drawn.
    if (platform.isEmpty() || platform == QLatin1String("offscreen") ||
        platform == QLatin1String("minimal"))
        return false;
    QOpenGLContext context;
    if (!context.create() || context.isOpenGLES() ||
        context.format().profile() == QSurfaceFormat::CoreProfile)
        return false;
    QOffscreenSurface surface;
    surface.setFormat(context.format());
    surface.create();
    if (!surface.isValid() || !context.makeCurrent(&surface))
        return false;
    const GLubyte* renderer = glGetString(GL_RENDERER);
    available = renderer ? 1 : 0;
    context.doneCurrent();
    return available == 1;
}

ThreeDViewer::ThreeDViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : PacketViewer(manager, id, type)
{
    auto* w = new QWidget;
    auto* layout = new QVBoxLayout(w);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->setSpacing(2);
    auto* bar = new QHBoxLayout;
    m_resetButton = new QPushButton(tr("Reset Heading"));
    m_resetButton->setToolTip(tr("Take the current heading as zero; roll and pitch stay"));
    connect(m_resetButton, &QPushButton::clicked, this, &ThreeDViewer::resetHeading);
    m_angles = new QLabel;
    QFont mono(QStringLiteral("monospace"));
    mono.setStyleHint(QFont::TypeWriter);
    m_angles->setFont(mono);
    m_angles->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // Long angle texts are cut, not a reason for a wide window.
    m_angles->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_angles->setMinimumWidth(0);
    bar->addWidget(m_resetButton);
    bar->addSpacing(8);
    bar->addWidget(m_angles, 1);
    layout->addLayout(bar);

    m_stack = new QStackedWidget;
    m_fallback = new QLabel;
    m_fallback->setAlignment(Qt::AlignCenter);
    m_fallback->setWordWrap(true);
    m_fallback->setMinimumSize(160, 120);
    m_stack->addWidget(m_fallback);
    if (openGlAvailable()) {
        m_gl = new OrientationGlWidget;
        m_stack->addWidget(m_gl);
        m_stack->setCurrentWidget(m_gl);
        connect(m_gl, &OrientationGlWidget::contextLost, this, &ThreeDViewer::showFallback);
    } else {
        showFallback();
    }
    layout->addWidget(m_stack, 1);
    setWidget(w);
    updateLabel();
    subscribeToRefresh();
}

ThreeDViewer::~ThreeDViewer() = default;

void ThreeDViewer::showFallback()
{
    m_fallback->setText(unavailableMessage());
    m_stack->setCurrentWidget(m_fallback);
}

QString ThreeDViewer::unavailableText() const
{
    return m_stack->currentWidget() == m_fallback ? m_fallback->text() : QString();
}

void ThreeDViewer::processPacket(const NvDataPacket& packet, int64_t)
{
    if (!packet.containsOrientation())
        return;
    const NvQuaternion q = packet.orientationQuaternion();
    if (!std::isfinite(q.w) || !std::isfinite(q.x) || !std::isfinite(q.y) || !std::isfinite(q.z) ||
        q.norm() < 1e-6)
        return;
    const NvCoordinateFrame frame = packet.orientationFrame();
    if (frame != m_frame) {
        // A heading taken in another frame means nothing in this one.
        m_frame = frame;
        m_headingOffset = NvQuaternion();
    }
    const NvQuaternion unit = q.normalized();
    if (m_hasOrientation && unit == m_device)
        return;
    m_device = unit;
    m_hasOrientation = true;
    m_changed = true;
}

NvQuaternion ThreeDViewer::latestOrientation() const
{
    return (m_headingOffset * m_device).normalized();
}

void ThreeDViewer::resetHeading()
{
    if (!m_hasOrientation)
        return;
    const double yaw = m_device.toEuler().yaw;
    m_headingOffset = NvQuaternion::fromAxisAngle(NvVector3(0, 0, 1), -nvDegToRad(yaw));
    m_changed = true;
    // Show it at once, not only with the next packet.
    refresh();
}

void ThreeDViewer::refresh()
{
    if (!m_changed)
        return;
    m_changed = false;
    updateLabel();
    if (m_gl)
        m_gl->setOrientation(nvOrientationToFrame(latestOrientation(), m_frame, NCF_ENU));
}

void ThreeDViewer::clear()
{
    m_hasOrientation = false;
    m_device = NvQuaternion();
    m_headingOffset = NvQuaternion();
    m_changed = true;
    refresh();
}

QString ThreeDViewer::eulerText() const
{
    return m_angles->text();
}

void ThreeDViewer::updateLabel()
{
    m_resetButton->setEnabled(m_hasOrientation);
    if (!m_hasOrientation) {
        m_angles->setText(tr("Waiting for orientation data…"));
        return;
    }
    const NvEuler e = latestEuler();
    const auto angle = [](double deg) {
        // Rounded first, and "+ 0.0" so that a tiny negative never shows as "-0.0".
        return QStringLiteral("%1°").arg(std::round(deg * 10.0) / 10.0 + 0.0, 6, 'f', 1);
    };
    m_angles->setText(
        tr("Roll %1  Pitch %2  Yaw %3").arg(angle(e.roll), angle(e.pitch), angle(e.yaw)));
}
