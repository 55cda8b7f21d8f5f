#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGINT, SIGTERM and SIGHUP into a Qt signal on the GUI thread, so that Ctrl-C in a
// terminal or a session shutdown closes the window the normal way and settings are saved.
class UnixSignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit UnixSignalWatcher(QObject* parent = nullptr);
    ~UnixSignalWatcher() override;

signals:
    void terminationRequested(int signal);

private:
    void readSignal();

    QSocketNotifier* m_notifier = nullptr;
};
