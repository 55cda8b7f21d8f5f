#pragma once

#include <QIcon>
#include <QList>
#include <QObject>

class QAction;
class QTimer;

// Cycles an action's icon through a list of frames while running and shows the idle
// image otherwise (the record button while a recording runs).
class AnimatedIcon : public QObject
{
    Q_OBJECT

public:
    AnimatedIcon(QAction* action, const QList<QIcon>& frames, const QIcon& idle, int intervalMs,
                 QObject* parent = nullptr);

    bool isRunning() const;
    int currentFrame() const { return m_frame; }

public slots:
    void start();
    void stop();
    void setRunning(bool running);

private:
    void nextFrame();

    QAction* m_action;
    QList<QIcon> m_frames;
    QIcon m_idle;
    QTimer* m_timer;
    int m_frame = 0;
};
