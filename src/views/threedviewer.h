#pragma once
// The 3D view: the device drawn as a box turning with its orientation, over a ground grid
// and fixed world axes, with roll/pitch/yaw as text and a heading reset. Where no OpenGL
// context can be had it says so in text and keeps following the orientation.

#include "packetviewer.h"

#include "nvmath.h"

#include <QColor>
#include <QOpenGLFunctions>
#include <QOpenGLWidget>
#include <QPointF>
#include <QString>

#include <vector>

class QLabel;
class QVector3D;
class QPushButton;
class QStackedWidget;

// Draws the scene with fixed-function GL; the orientation is in ENU (x east, y north, z
// up; sensor x forward, y left, z up).
class OrientationGlWidget : public QOpenGLWidget, protected QOpenGLFunctions
{
    Q_OBJECT

public:
    explicit OrientationGlWidget(QWidget* parent = nullptr);
    ~OrientationGlWidget() override;

    void setOrientation(const NvQuaternion& enu);
    NvQuaternion orientation() const { return m_orientation; }
    // A context was made and initialised.
    bool isContextReady() const { return m_ready; }

signals:
    // The context could not be made or went away for good.
    void contextLost();

protected:
    void showEvent(QShowEvent* event) override;
    void initializeGL() override;
    void paintGL() override;

private:
    void releaseContext();
    void drawGrid();
    void drawWorldAxes(int w, int h);
    void drawBody();
    void drawSensorAxes();
    // Projects `at` with the current matrices; the text is painted after the scene.
    void addLabel(const QVector3D& at, const QString& text, const QColor& color);
    void drawLabels();

    struct ScreenLabel
    {
        QPointF at; // device pixels, y up (GL window coordinates)
        QString text;
        QColor color;
    };
    std::vector<ScreenLabel> m_labels;
    NvQuaternion m_orientation;
    bool m_ready = false;
    QMetaObject::Connection m_contextConnection;
};

class ThreeDViewer : public PacketViewer
{
    Q_OBJECT

public:
    ThreeDViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);
    ~ThreeDViewer() override;

    // Whether fixed-function OpenGL works on this display: never on the offscreen and
    // minimal platforms; elsewhere a throw-away context must be made and current.
    static bool openGlAvailable();

    void processPacket(const NvDataPacket& packet, int64_t arrivalNs) override;
    void refresh() override;
    void clear() override;

    // Makes the current heading the zero heading, keeping roll and pitch.
    void resetHeading();
    // As shown: in the packets' frame, the heading reset applied.
    NvQuaternion latestOrientation() const;
    NvEuler latestEuler() const { return latestOrientation().toEuler(); }
    bool hasOrientation() const { return m_hasOrientation; }
    // "Roll … Pitch … Yaw …" as the label shows it.
    QString eulerText() const;
    // The text shown instead of the scene; empty while the scene is shown.
    QString unavailableText() const;
    // Null when the fallback is shown.
    OrientationGlWidget* glWidget() const { return m_gl; }

    static QString unavailableMessage();

private:
    void showFallback();
    void updateLabel();

    QStackedWidget* m_stack = nullptr;
    OrientationGlWidget* m_gl = nullptr;
    QLabel* m_fallback = nullptr;
    QLabel* m_angles = nullptr;
    QPushButton* m_resetButton = nullptr;

    NvQuaternion m_device; // as received, in m_frame
    NvCoordinateFrame m_frame = NCF_ENU;
    NvQuaternion m_headingOffset; // about the frame's vertical, applied on the left
    bool m_hasOrientation = false;
    bool m_changed = false;
};
