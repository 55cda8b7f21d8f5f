#include "kvmanagerhelpers.h"

#include "kvmanager.h"

#include <QTimer>

KvManagerLoadFileEvent::KvManagerLoadFileEvent(KvManager* window, const QString& fileName)
    : QObject(window), m_window(window), m_fileName(fileName)
{
    QTimer::singleShot(10, this, &KvManagerLoadFileEvent::loadFileAndDestroySelf);
}

void KvManagerLoadFileEvent::loadFileAndDestroySelf()
{
    if (m_window)
        m_window->loadFile(m_fileName);
    deleteLater();
}
