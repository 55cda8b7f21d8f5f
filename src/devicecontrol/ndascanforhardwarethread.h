#pragma once
// Scans the ports for devices and opens what it finds through the control, off the GUI
// thread; the GUI follows through the signals.

#include "ndametatypes.h"

#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>

class NdaControl;

class NdaScanForHardwareThread : public QThread
{
    Q_OBJECT

public:
    // `port` empty scans every port; `baudRate` NBR_DETECT lets the library find the rate.
    NdaScanForHardwareThread(NdaControl& control, const QString& port, NvBaudRate baudRate,
                             QObject* parent = nullptr);
    ~NdaScanForHardwareThread() override;

    // Any thread: the library's probes end at once, the scan before the next port it would
    // open.
    void abortScan();
    bool isAborted() const { return m_abort.load(); }
    NvBaudRate baudrate() const { return m_baudRate; }
    const QString& port() const { return m_port; }
    // ms per attempt: RS-485 interfaces answer late, so they get a second; 0 otherwise,
    // which the library reads as its own short default (250 ms).
    unsigned scanTime() const;

    // The library's scan log sink; forwards to the running scan, if any.
    static void scanLogFunc(const NvString* line);

signals:
    void progressChanged(int progress);
    void scanningPorts();
    void openingPort(const QString& port, int baudRate);
    void scanCompleted();
    void scanAborted();
    void scanLogEvent(QString line);
    // A port where something of another maker talks (allowNonNivraDevices); not opened.
    void foreignDeviceFound(const QString& port, const QString& description);

protected:
    void run() override;

private:
    void setProgress(int progress);
    NvPortInfoArray findPorts(bool rs485, unsigned scanTime);
    void openFound(NvPortInfo& info, unsigned scanTime, bool showDocked);
    void closeDockedTrackers(const NvDeviceId& opened);

    NdaControl& m_control;
    const QString m_port;
    const NvBaudRate m_baudRate;
    std::atomic<bool> m_abort{false};
    int m_lastProgress = -1;

    static QMutex s_runningMutex;
    static NdaScanForHardwareThread* s_running; // guarded by s_runningMutex
};
