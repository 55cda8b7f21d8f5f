#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

class KvManager;

// Loads one dropped file from the event loop (10 ms later) and deletes itself, so that a
// drop returns at once and a slow load never runs inside the drag-and-drop machinery.
class KvManagerLoadFileEvent : public QObject
{
    Q_OBJECT

public:
    KvManagerLoadFileEvent(KvManager* window, const QString& fileName);

private:
    void loadFileAndDestroySelf();

    QPointer<KvManager> m_window;
    QString m_fileName;
};

// Forwards filter-option requests from the device layer to the window.
class KvmFilterOptionsCallback : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

signals:
    void filterOptionsRequested();
};
