#include "animatedicon.h"

#include <QAction>
#include <QTimer>

AnimatedIcon::AnimatedIcon(QAction* action, const QList<QIcon>& frames, const QIcon& idle,
                           int intervalMs, QObject* parent)
    : QObject(parent), m_action(action), m_frames(frames), m_idle(idle), m_timer(new QTimer(this))
{
    m_timer->setInterval(intervalMs);
    connect(m_timer, &QTimer::timeout, this, &AnimatedIcon::nextFrame);
    m_action->setIcon(m_idle);
}

bool AnimatedIcon::isRunning() const
{
    return m_timer->isActive();
}

void AnimatedIcon::start()
{
    if (m_frames.isEmpty() || m_timer->isActive())
        return;
    m_frame = 0;
    m_action->setIcon(m_frames.at(0));
    m_timer->start();
}

void AnimatedIcon::stop()
{
    m_timer->stop();
    m_frame = 0;
    m_action->setIcon(m_idle);
}

void AnimatedIcon::setRunning(bool running)
{
    running ? start() : stop();
}

void AnimatedIcon::nextFrame()
{
    m_frame = (m_frame + 1) % static_cast<int>(m_frames.size());
    m_action->setIcon(m_frames.at(m_frame));
}
