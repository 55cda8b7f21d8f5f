#include "ndascanforhardwarethread.h"

#include "ndacontrol.h"

#include <QMutexLocker>
#include <QSettings>

QMutex NdaScanForHardwareThread::s_runningMutex;
NdaScanForHardwareThread* NdaScanForHardwareThread::s_running = nullptr;

NdaScanForHardwareThread::NdaScanForHardwareThread(NdaControl& control, const QString& port,
                                                   NvBaudRate baudRate, QObject* parent)
    : QThread(parent), m_control(control), m_port(port), m_baudRate(baudRate)
{
    connect(this, &QThread::finished, this, &QObject::deleteLater);
}

NdaScanForHardwareThread::~NdaScanForHardwareThread()
{
    // Only reached after finished(), but a thread deleted early must not stay the sink.
    QMutexLocker lock(&s_runningMutex);
    if (s_running == this)
        s_running = nullptr;
}

void NdaScanForHardwareThread::abortScan()
{
    m_abort.store(true);
    NvScanner_abortScan();
}

unsigned NdaScanForHardwareThread::scanTime() const
{
    return QSettings().value(QStringLiteral("rs485Compatibility"), true).toBool() ? 1000u : 0u;
}

void NdaScanForHardwareThread::scanLogFunc(const NvString* line)
{
    if (!line)
        return;
    QMutexLocker lock(&s_runningMutex);
    if (!s_running)
        return;
    // An abort between the flag's last look and the library's start of the scan would
    // find no scan to end; every scan logs once it can be aborted, so it ends here.
    if (s_running->isAborted())
        NvScanner_abortScan();
    emit s_running->scanLogEvent(QString::fromStdString(*line));
}

void NdaScanForHardwareThread::setProgress(int progress)
{
    // Equal steps (the first port at 20) would only repeat the value.
    if (progress == m_lastProgress)
        return;
    m_lastProgress = progress;
    emit progressChanged(progress);
}

NvPortInfoArray NdaScanForHardwareThread::findPorts(bool rs485, unsigned scanTime)
{
    const bool allowForeign =
        QSettings().value(QStringLiteral("allowNonNivraDevices"), false).toBool();
    NvPortInfoArray all;
    if (!m_port.isEmpty()) {
        NvPortInfo info;
        info.portName = m_port.toStdString();
        if (NvScanner_scanPort(&info, m_baudRate, scanTime, rs485))
            all.push_back(info);
    } else {
        NvScanner_scanPorts(&all, m_baudRate, scanTime, !allowForeign, rs485);
    }
    // Devices of other makers are only named for the user: nothing here speaks their
    // protocol, so they are not opened.
    NvPortInfoArray found;
    for (const NvPortInfo& info : all) {
        if (!info.isForeign)
            found.push_back(info);
        else if (allowForeign)
            emit foreignDeviceFound(QString::fromStdString(info.portName),
                                    QString::fromStdString(info.description));
    }
    return found;
}

void NdaScanForHardwareThread::closeDockedTrackers(const NvDeviceId& opened)
{
    NvControl* lib = m_control.libraryControl();
    if (NvControl_isDeviceDocked(lib, &opened)) {
        m_control.closePort(opened);
        return;
    }
    // Docked trackers come up as children of the master's port; each closes on its own.
    NvDeviceIdArray ids;
    NvControl_deviceIds(lib, &ids);
    for (const NvDeviceId& id : ids) {
        if (id == opened || !NvControl_isDeviceDocked(lib, &id))
            continue;
        NvDeviceId dock;
        NvControl_dockDeviceId(lib, &id, &dock);
        if (dock == opened)
            m_control.closePort(id);
    }
}

void NdaScanForHardwareThread::openFound(NvPortInfo& info, unsigned scanTime, bool showDocked)
{
    emit openingPort(QString::fromStdString(info.portName), nvBaudRateToRate(info.baudRate));
    if (!m_control.openPort(info, scanTime))
        return;
    if (!showDocked && !info.deviceId.isEmpty())
        closeDockedTrackers(info.deviceId);
}

void NdaScanForHardwareThread::run()
{
    setObjectName(QStringLiteral("NdaScanForHardwareThread"));
    {
        QMutexLocker lock(&s_runningMutex);
        s_running = this;
    }
    NvScanner_setScanLogCallback(&NdaScanForHardwareThread::scanLogFunc);
    setProgress(10);
    emit scanningPorts();

    QSettings settings;
    const unsigned time = scanTime();
    const bool rs485 = settings.value(QStringLiteral("rs485Compatibility"), true).toBool();
    const bool imarUsage = settings.value(QStringLiteral("imarUsage"), false).toBool();

    NvPortInfoArray ports;
    if (!m_abort.load())
        ports = findPorts(rs485, time);

    auto finish = [this](bool aborted) {
        {
            QMutexLocker lock(&s_runningMutex);
            if (s_running == this)
                s_running = nullptr;
        }
        if (aborted) {
            emit scanAborted();
        } else {
            setProgress(100);
            emit scanCompleted();
        }
    };

    if (m_abort.load())
        return finish(true);
    if (ports.empty() && !imarUsage)
        return finish(false);

    setProgress(20);
    const bool showDocked = settings.value(QStringLiteral("showDockedKvws"), true).toBool();
    const int total = int(ports.size());
    for (int i = 0; i < total; ++i) {
        if (m_abort.load())
            return finish(true);
        setProgress(20 + 80 * i / total);
        openFound(ports[size_t(i)], time, showDocked);
    }

    if (imarUsage) {
        if (m_abort.load())
            return finish(true);
        const QString imarPort = settings.value(QStringLiteral("imarPort")).toString();
        const int imarRate = settings.value(QStringLiteral("imarBaudRate"), 115200).toInt();
        const int imarType = settings.value(QStringLiteral("imarType"), 0).toInt();
        emit openingPort(imarPort, imarRate);
        // Our library answers "not supported" here; the scan result stands without it.
        m_control.openImarPort_internal(imarPort.toStdString(), nvRateToBaudRate(imarRate),
                                        imarType, time);
    }
    finish(false);
}
