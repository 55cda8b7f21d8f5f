#include "fileplaybackmanager.h"

#include "fileloadingwidget.h"
#include "journaller.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "nivradeviceapi.h"

#include <QFileInfo>
#include <QMutexLocker>
#include <QSettings>
#include <QTimer>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

namespace {

const char* const CouldNotLoadText =
    QT_TRANSLATE_NOOP("FilePlaybackManager", "Could not load file");
const char* const FailedToLoadText =
    QT_TRANSLATE_NOOP("FilePlaybackManager", "Failed to load file");

constexpr int RealTimeTickMs = 20;
constexpr int SteppedTickMs = 5000;
constexpr quint64 SteppedFrames = 1000;
// Frames searched for one with an orientation before giving up.
constexpr qint64 OrientationSearchFrames = 10000;
constexpr double DefaultFrameIntervalMs = 10.0;

void journal(JournalLogLevel level, const QString& text)
{
    jlLog(level, text.toStdString());
}

double secondsOfDay(const NvUtcTime& t)
{
    return t.hour * 3600.0 + t.minute * 60.0 + t.second + t.nanoseconds / 1e9;
}

// The mean time between two packets of a device that does not say its rate, from its own
// time stamps; 0 when they say nothing either.
double measuredFrameInterval(const NdaDevice& device, qint64 count)
{
    if (count < 2)
        return 0;
    const NvDataPacket first = device.dataPacketByIndex(0);
    const NvDataPacket last = device.dataPacketByIndex(count - 1);
    double spanMs = 0;
    if (first.contains(NDI_SAMPLE_TIME_FINE) && last.contains(NDI_SAMPLE_TIME_FINE)) {
        // 10 kHz ticks; the unsigned difference survives one wrap of the counter.
        spanMs = double(uint32_t(last.sampleTimeFine() - first.sampleTimeFine())) / 10.0;
    } else if (first.contains(NDI_UTC_TIME) && last.contains(NDI_UTC_TIME)) {
        double span = secondsOfDay(last.utcTime()) - secondsOfDay(first.utcTime());
        if (span < 0)
            span += 86400.0; // past midnight
        spanMs = span * 1000.0;
    }
    return spanMs > 0 ? spanMs / double(count - 1) : 0;
}

} // namespace

FilePlaybackManager::FilePlaybackManager(NdaControl& control, QWidget* dialogParent,
                                         QObject* parent)
    : QObject(parent), m_control(control), m_dialogParent(dialogParent)
{
}

FilePlaybackManager::~FilePlaybackManager()
{
    stopTimer(true);
    // The wrappers stay with NdaControl, which may outlive us; only our references go.
    const bool loading = isLoading();
    for (NdaDevice* device : m_devices) {
        disconnect(device, nullptr, this, nullptr);
        if (loading)
            device->abortLoadFile();
    }
    const QList<NdaDevice*> devices = m_devices;
    m_devices.clear();
    m_device = nullptr;
    for (NdaDevice* device : devices)
        m_control.releaseDevice(*device);
    if (m_dialog && !m_dialog->parent())
        delete m_dialog.data();
}

// ---------------------------------------------------------------------------- Loading

void FilePlaybackManager::initializeFileLoad(const QString& path)
{
    loadFile(path);
}

void FilePlaybackManager::loadFile(const QString& path)
{
    cancelLoading();
    m_lastErrorDetail.clear();
    emit fileLoadingInitiated(path);
    stopPlayback();
    closeFile();
    m_path = path;

    const QFileInfo info(path);
    const bool exists = info.exists() && info.isFile();
    journal(JLL_TRACE,
            QStringLiteral("Usage: file load, %1 bytes").arg(exists ? info.size() : qint64(-1)));

    NdaDevice& device = m_control.requestFileDevice(path);
    if (!device.isValid()) {
        m_lastErrorDetail = m_control.lastResultText();
        m_control.releaseDevice(device);
        journal(
            JLL_ALERT,
            QStringLiteral("Could not open %1 as a recording: %2").arg(path, m_lastErrorDetail));
        fileLoadError(exists ? FileError::CouldNotOpen : FileError::FileNotFound,
                      tr(CouldNotLoadText));
        return;
    }
    m_device = &device;
    m_devices = {m_device};
    // Each tracker of the recording is a device of its own, reading the same file.
    const QString fileName = device.fileName();
    for (const NvDeviceId& id : m_control.mainDeviceIds()) {
        if (id == device.deviceId() || !m_control.isReadingFromFile(id))
            continue;
        NdaDevice& other = m_control.requestDevice(id);
        if (other.isValid() && other.fileName() == fileName)
            m_devices.append(&other);
        else
            m_control.releaseDevice(other);
    }
    // Followed from here on, so that whoever hears of the opening may close it again.
    for (NdaDevice* d : m_devices)
        connect(d, &NdaDevice::closed, this, &FilePlaybackManager::handleDeviceDestroyed);
    setState(NdaDeviceState::FileModeOpen);
    emit fileOpened(device);
    if (m_device != &device)
        return; // closed by whoever heard of it

    // The library's news comes inside the wrapper's own event handling, where the wrapper
    // must not be deleted; a listener may well close the file, so it hears of it afterwards.
    connect(m_device, &NdaDevice::fileLoadingProgressChanged, this,
            [this](NdaDevice& d, int current, int total) {
                relay([this, &d, current, total] { handleFileLoadProgress(d, current, total); });
            });
    connect(m_device, &NdaDevice::fileLoadingCompleted, this, [this](NdaDevice& d, int result) {
        relay([this, &d, result] { handleFileLoadCompleted(d, result); });
    });
    connect(m_device, &NdaCallback::error, this, [this](const NvDeviceId& id, NvResultValue r) {
        relay([this, id, r] { handleDeviceError(id, r); });
    });
    connect(m_device, &NdaDevice::fileLoadingStarted, this,
            &FilePlaybackManager::handleFileLoadStarted);
    loadFile(*m_device);
}

bool FilePlaybackManager::loadFile(NdaDevice& device)
{
    if (!selectScenarioOk(device)) {
        const QString path = m_path;
        closeFile();
        emit fileLoadingCancelled(path);
        return false;
    }
    setLoading(true);
    setState(NdaDeviceState::FileModeLoading);
    showLoadingDialog();
    if (device.loadLogFile())
        return true;
    // A refusal may have been reported through fileLoadingCompleted already.
    if (m_device == &device && isLoading()) {
        m_lastErrorDetail = m_control.lastResultText();
        fileLoadError(FileError::LoadFailed, tr(FailedToLoadText));
    }
    return false;
}

bool FilePlaybackManager::selectScenarioOk(NdaDevice&)
{
    // This build does not reprocess recordings with another filter scenario ("advanced",
    // "allowreprocessing"): a file plays with what it was recorded with, so there is
    // nothing to ask.
    return true;
}

void FilePlaybackManager::reloadFile()
{
    const QString path = m_device ? m_device->fileName() : m_path;
    if (!path.isEmpty())
        loadFile(path);
}

void FilePlaybackManager::cancelLoading()
{
    if (!isLoading())
        return;
    const QString path = m_path;
    if (m_device)
        m_device->abortLoadFile();
    setLoading(false);
    hideLoadingDialog();
    closeFile();
    journal(JLL_DEBUG, QStringLiteral("Loading of %1 cancelled").arg(path));
    emit fileLoadingCancelled(path);
}

void FilePlaybackManager::handleFileLoadCancel()
{
    cancelLoading();
}

void FilePlaybackManager::handleFileLoadReload()
{
    reloadFile();
}

void FilePlaybackManager::handleFileLoadStopped()
{
    if (!isLoading() || !m_device)
        return;
    // The library keeps nothing of a load it was told to stop: the file stays open,
    // unloaded, until it is reloaded or closed.
    m_device->abortLoadFile();
    setLoading(false);
    hideLoadingDialog();
    setState(NdaDeviceState::FileModeOpen);
    emit fileLoadingStopped(*m_device);
}

void FilePlaybackManager::handleFileLoadStarted(NdaDevice& device)
{
    if (&device == m_device && isLoading())
        emit fileLoadingStarted(device);
}

void FilePlaybackManager::handleFileLoadProgress(NdaDevice& device, int current, int total)
{
    if (&device != m_device || !isLoading())
        return;
    if (m_dialog)
        m_dialog->widget()->setProgress(current, total);
    emit fileLoadingProgressChanged(device, current, total);
}

void FilePlaybackManager::handleFileLoadCompleted(NdaDevice& device, int result)
{
    if (&device != m_device || !isLoading())
        return;
    if (result != 0) {
        m_lastErrorDetail = QString::fromUtf8(NvResultValue_toString(NvResultValue(result)));
        fileLoadError(FileError::LoadFailed, tr(FailedToLoadText));
        return;
    }
    computeFileInformation();
    m_loaded = true;
    m_index = 0;
    m_nextDelivery = 0;
    emit filePlaybackProgressChanged(device, 0, 100);
    emit filePlaybackFrameIndexChanged(device, 0);
    emit fileLoadingCompleted(device);
    if (m_device == &device)
        finalizeLoading(true);
}

void FilePlaybackManager::handleDeviceError(const NvDeviceId& id, NvResultValue result)
{
    // While loading, an error of the file's device is the loader's: the file cannot be read.
    if (!m_device || id != m_device->deviceId() || !isLoading())
        return;
    m_lastErrorDetail = QString::fromUtf8(NvResultValue_toString(result));
    journal(JLL_ALERT, QStringLiteral("Loading %1 failed: %2").arg(m_path, m_lastErrorDetail));
    fileLoadError(FileError::LoadFailed, tr(FailedToLoadText));
}

void FilePlaybackManager::relay(std::function<void()> work)
{
    // Dropped when the file's devices were let go meanwhile: the references it holds went
    // with them.
    const quint64 generation = m_generation;
    QMetaObject::invokeMethod(
        this,
        [this, generation, work = std::move(work)] {
            if (generation == m_generation)
                work();
        },
        Qt::QueuedConnection);
}

void FilePlaybackManager::computeFileInformation()
{
    m_counts.clear();
    m_frameCount = 0;
    NdaDevice* longest = m_device;
    for (NdaDevice* d : m_devices) {
        const qint64 count = std::max<qint64>(d->packetCount(), 0);
        m_counts.append(count);
        if (quint64(count) > m_frameCount) {
            m_frameCount = quint64(count);
            longest = d;
        }
    }
    // The pace is that of the device with the most frames: a master's file device has
    // none of its own, its trackers carry them.
    int rate = longest->updateRate();
    if (rate <= 0)
        for (const NvOutputConfiguration& c : longest->outputConfiguration())
            if (c.frequency < 65535)
                rate = std::max(rate, int(c.frequency));
    if (rate > 0) {
        m_frameInterval = 1000.0 / rate;
    } else {
        const double measured = measuredFrameInterval(*longest, qint64(m_frameCount));
        m_frameInterval = measured > 0 ? measured : DefaultFrameIntervalMs;
    }

    QSettings settings;
    if (settings.value(QStringLiteral("autoFileTimeAdjust"), false).toBool() && m_frameCount) {
        // The whole file, to the next full second, so that graphs show all of it.
        const double spanMs = std::ceil(double(m_frameCount) * m_frameInterval / 1000.0) * 1000.0;
        const int span = int(std::clamp(spanMs, 1000.0, double(std::numeric_limits<int>::max())));
        settings.setValue(QStringLiteral("maximumDisplayTimeFile"), span);
    }
    journal(JLL_DEBUG, QStringLiteral("Loaded %1: %2 frames of %3 device(s), %4 ms apart")
                           .arg(m_path)
                           .arg(m_frameCount)
                           .arg(m_devices.size())
                           .arg(m_frameInterval));
}

void FilePlaybackManager::finalizeLoading(bool ok)
{
    hideLoadingDialog();
    if (ok) {
        setState(NdaDeviceState::FileModeReady);
        setLoading(false);
        emit fileLoadingFinalized(m_path);
    } else {
        setLoading(false);
        closeFile();
    }
}

void FilePlaybackManager::fileLoadError(FileError::Type type, const QString& text)
{
    const QString path = m_path;
    hideLoadingDialog();
    // Told once, after the error and the closing, whether or not loading had begun.
    {
        QMutexLocker lock(&m_flagMutex);
        m_loading = false;
    }
    emit fileLoadingError(path, int(type), text);
    setState(NdaDeviceState::FileModeOpen);
    closeFile();
    emit fileLoadingStateChanged(false);
}

// ---------------------------------------------------------------------------- Closing

void FilePlaybackManager::closeFile()
{
    const bool wasPlaying = isPlaying();
    setPlayingFlags(false, false);
    stopTimer(true);
    if (wasPlaying)
        emit filePlaybackStateChanged(false);
    if (isLoading()) {
        if (m_device)
            m_device->abortLoadFile();
        setLoading(false);
        hideLoadingDialog();
    }
    if (!m_device)
        return;
    const NvDeviceId id = m_device->deviceId();
    releaseFileDevices(true);
    emit fileClosed(id);
}

void FilePlaybackManager::releaseFileDevices(bool close)
{
    ++m_generation;
    QList<NvDeviceId> ids;
    for (NdaDevice* d : m_devices) {
        disconnect(d, nullptr, this, nullptr);
        ids.append(d->deviceId());
    }
    const QList<NdaDevice*> devices = m_devices;
    m_devices.clear();
    m_counts.clear();
    m_device = nullptr;
    m_loaded = false;
    m_frameCount = 0;
    m_index = 0;
    m_nextDelivery = 0;
    if (!close) {
        for (NdaDevice* d : devices)
            m_control.releaseDevice(*d);
        return;
    }
    for (const NvDeviceId& id : ids) {
        // Every holder of the wrapper lets go (observers fall back to the invalid device),
        // and the library closes the file once its last device is closed.
        m_control.deleteDeviceAndChildren(id);
        m_control.closePort(id);
    }
}

void FilePlaybackManager::handleDeviceDestroyed(const NvDeviceId& id)
{
    // Closed from elsewhere (NdaControl::close, say): the wrapper is on its way out.
    if (m_device && id == m_device->deviceId()) {
        const bool wasPlaying = isPlaying();
        const bool wasLoading = isLoading();
        setPlayingFlags(false, false);
        stopTimer(true);
        disconnect(m_device, nullptr, this, nullptr);
        m_devices.removeAll(m_device);
        m_device = nullptr;
        releaseFileDevices(false);
        if (wasLoading) {
            hideLoadingDialog();
            setLoading(false);
        }
        if (wasPlaying)
            emit filePlaybackStateChanged(false);
        emit fileClosed(id);
        return;
    }
    for (int i = 0; i < m_devices.size(); ++i) {
        if (m_devices[i]->deviceId() == id) {
            disconnect(m_devices[i], nullptr, this, nullptr);
            m_devices.removeAt(i);
            if (i < m_counts.size())
                m_counts.removeAt(i);
            ++m_generation;
            return;
        }
    }
}

QList<NvDeviceId> FilePlaybackManager::fileDeviceIds() const
{
    QList<NvDeviceId> ids;
    for (const NdaDevice* d : m_devices)
        ids.append(d->deviceId());
    return ids;
}

// ---------------------------------------------------------------------------- Playback

int FilePlaybackManager::filePlaybackMode() const
{
    if (isPlaying())
        return m_mode;
    QSettings settings;
    if (settings.value(QStringLiteral("filePlayRealtime"), true).toBool())
        return RealTime;
    return settings.value(QStringLiteral("filePlayAllDataFast"), false).toBool() ? AllDataFast
                                                                                 : Stepped;
}

void FilePlaybackManager::startPlayback()
{
    if (!m_device || !m_loaded || isLoading())
        return;
    setPlayingFlags(false, false);
    m_mode = filePlaybackMode();
    setPlayingFlags(true, false);
    if (!m_timer) {
        m_timer = new QTimer(this);
        m_timer->setTimerType(Qt::PreciseTimer);
        connect(m_timer, &QTimer::timeout, this, &FilePlaybackManager::handlePlaybackTimer);
    }
    m_timer->setInterval(m_mode == RealTime ? RealTimeTickMs
                                            : (m_mode == Stepped ? SteppedTickMs : 0));
    m_startTime.start();
    m_startFrame = 0;
    m_index = 0;
    m_nextDelivery = 0; // from the first frame again: the views start afresh
    NdaDevice& device = *m_device;
    emit filePlaybackProgressChanged(device, 0, 100);
    emit filePlaybackFrameIndexChanged(device, 0);
    if (!m_device || !isPlaying())
        return;
    m_timer->start();
    setState(NdaDeviceState::FileModePlaying);
    emit filePlaybackStateChanged(true);
    emit filePlaybackStarted(device, int(std::min<quint64>(m_frameCount, INT_MAX)));
    if (m_mode != RealTime && m_device && isPlaying())
        handlePlaybackTimer();
}

void FilePlaybackManager::handlePlaybackTimer()
{
    if (!m_device || !m_loaded) {
        stopTimer(true);
        return;
    }
    NdaDevice& device = *m_device;
    const quint64 last = lastFrame();
    if (!isPlaying())
        m_index = 0;

    quint64 target = last;
    if (m_mode == RealTime) {
        const double frames = double(m_startTime.elapsed()) / m_frameInterval;
        target = m_startFrame + quint64(std::max(frames, 0.0));
    } else if (m_mode == Stepped) {
        target = m_index + SteppedFrames;
    }
    target = std::min(target, last);

    if (target != m_index || (target == 0 && m_index == 0)) {
        m_index = target;
        emit filePlaybackFrameIndexChanged(device, target);
        playbackFrame(target);
        if (m_device != &device)
            return; // closed by a listener
    }
    if (m_frameCount != 0)
        emit filePlaybackProgressChanged(
            device, int(std::lround(100.0 * double(m_index + 1) / double(m_frameCount))), 100);
    if (m_index >= last) {
        emit filePlaybackCompleted(device);
        if (m_device != &device)
            return;
        const bool wasPlaying = isPlaying();
        setPlayingFlags(false, false);
        setState(NdaDeviceState::FileModeReady);
        stopTimer(true);
        if (wasPlaying)
            emit filePlaybackStateChanged(false);
    }
}

void FilePlaybackManager::playbackFrame(quint64 index)
{
    if (!m_device || !m_loaded || m_frameCount == 0)
        return;
    index = std::min(index, lastFrame());
    // Going back (or showing a frame again) starts afresh there; going on delivers what
    // lies between, so that graphs miss nothing, but never so much that the GUI stalls.
    quint64 from = index < m_nextDelivery ? index : m_nextDelivery;
    const quint64 perDevice =
        std::max<quint64>(1000, MaxFramesPerDelivery / quint64(std::max(1, int(m_devices.size()))));
    if (index - from + 1 > perDevice)
        from = index + 1 - perDevice;
    m_nextDelivery = index + 1;

    const quint64 generation = m_generation;
    const QList<NdaDevice*> devices = m_devices;
    const QList<qint64> counts = m_counts;
    for (quint64 i = from; i <= index; ++i) {
        for (int d = 0; d < devices.size(); ++d) {
            if (d < counts.size() && qint64(i) >= counts[d])
                continue;
            devices[d]->deliverPlaybackPacket(devices[d]->dataPacketByIndex(qint64(i)));
            if (generation != m_generation)
                return; // a device went away under a listener
        }
    }
}

void FilePlaybackManager::seekTo(quint64 index)
{
    if (!m_device || !m_loaded || m_frameCount == 0)
        return;
    NdaDevice& device = *m_device;
    index = std::min(index, lastFrame());
    m_index = index;
    m_startFrame = index;
    m_startTime.restart();
    emit filePlaybackFrameIndexChanged(device, index);
    if (m_device != &device)
        return;
    emit filePlaybackProgressChanged(
        device, int(std::lround(100.0 * double(index + 1) / double(m_frameCount))), 100);
    if (m_device == &device)
        playbackFrame(index);
}

void FilePlaybackManager::setPlayBackToStart()
{
    seekTo(0);
}

void FilePlaybackManager::loadFirstOriDataFrame()
{
    if (!m_device || !m_loaded)
        return;
    // The 3D view shows the recording's first attitude before it plays.
    const quint64 generation = m_generation;
    const QList<NdaDevice*> devices = m_devices;
    for (int d = 0; d < devices.size(); ++d) {
        const qint64 count = d < m_counts.size() ? m_counts[d] : devices[d]->packetCount();
        for (qint64 i = 0; i < std::min(count, OrientationSearchFrames); ++i) {
            const NvDataPacket packet = devices[d]->dataPacketByIndex(i);
            if (packet.containsOrientation()) {
                devices[d]->deliverPlaybackPacket(packet);
                if (generation != m_generation)
                    return;
                break;
            }
        }
    }
}

void FilePlaybackManager::pausePlayback()
{
    if (!m_device || !isPlaying() || isPaused())
        return;
    setPlayingFlags(true, true);
    setState(NdaDeviceState::FileModePaused);
    if (m_timer)
        m_timer->stop();
    emit filePlaybackPaused(*m_device);
}

void FilePlaybackManager::resumePlayback()
{
    if (!m_device || !isPlaying() || !m_timer || m_timer->isActive())
        return;
    setPlayingFlags(true, false);
    setState(NdaDeviceState::FileModePlaying);
    // Real time goes on from where it stood, not from where it would be by now.
    m_startFrame = m_index;
    m_startTime.restart();
    m_timer->start();
    emit filePlaybackResumed(*m_device);
}

void FilePlaybackManager::stopPlayback()
{
    const bool wasPlaying = isPlaying();
    setPlayingFlags(false, false);
    stopTimer(false);
    if (!wasPlaying)
        return;
    emit filePlaybackStateChanged(false);
    if (m_device && m_loaded)
        setState(NdaDeviceState::FileModeReady);
}

// ---------------------------------------------------------------------------- State

bool FilePlaybackManager::isFileLoaded() const
{
    return m_device && m_loaded;
}

bool FilePlaybackManager::isLoading() const
{
    QMutexLocker lock(&m_flagMutex);
    return m_loading;
}

bool FilePlaybackManager::isPlaying() const
{
    QMutexLocker lock(&m_flagMutex);
    return m_playing;
}

bool FilePlaybackManager::isPaused() const
{
    QMutexLocker lock(&m_flagMutex);
    return m_paused;
}

void FilePlaybackManager::setPlayingFlags(bool playing, bool paused)
{
    QMutexLocker lock(&m_flagMutex);
    m_playing = playing;
    m_paused = playing && paused;
}

void FilePlaybackManager::setLoading(bool loading)
{
    {
        QMutexLocker lock(&m_flagMutex);
        if (m_loading == loading)
            return;
        m_loading = loading;
    }
    emit fileLoadingStateChanged(loading);
}

void FilePlaybackManager::setState(NdaDeviceState::Type state)
{
    for (NdaDevice* d : m_devices)
        d->setNdaDeviceState(state);
}

void FilePlaybackManager::stopTimer(bool discard)
{
    if (!m_timer)
        return;
    m_timer->stop();
    if (discard) {
        m_timer->deleteLater();
        m_timer = nullptr;
    }
}

void FilePlaybackManager::showLoadingDialog()
{
    if (!m_dialogEnabled)
        return;
    if (!m_dialog) {
        m_dialog = new FileLoadingDialog(m_dialogParent);
        m_dialog->setWindowModality(m_dialogParent ? Qt::WindowModal : Qt::NonModal);
        connect(m_dialog, &FileLoadingDialog::cancelled, this,
                &FilePlaybackManager::handleFileLoadCancel);
        connect(m_dialog, &FileLoadingDialog::reload, this,
                &FilePlaybackManager::handleFileLoadReload);
        connect(m_dialog, &FileLoadingDialog::stopped, this,
                &FilePlaybackManager::handleFileLoadStopped);
    }
    m_dialog->widget()->start(m_path);
    m_dialog->show();
}

void FilePlaybackManager::hideLoadingDialog()
{
    if (!m_dialog)
        return;
    m_dialog->widget()->finish();
    m_dialog->hide();
}
