#pragma once
// Opens a recording as file devices, has the device library load it while a dialog shows
// the progress, and plays the loaded frames back through the same devices so that every
// view shows them as if they were live. GUI thread.

#include "fileloadingwidget.h"
#include "ndadevicestate.h"
#include "ndametatypes.h"

#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

class NdaControl;
class NdaDevice;
class QTimer;
class QWidget;

struct FileError
{
    enum Type
    {
        NoError = 0,
        FileNotFound = 1, // no such file, or not a regular file
        CouldNotOpen = 2, // the library opened no device from it (not a recording, damaged)
        LoadFailed = 3,   // the library refused to load it or could not read it
    };
};

class FilePlaybackManager : public QObject
{
    Q_OBJECT

public:
    enum PlaybackMode
    {
        RealTime = 0,    // at the pace of the recording
        Stepped = 1,     // 1000 frames every 5 s
        AllDataFast = 2, // straight to the end
    };

    // `dialogParent` is the window the loading dialog belongs to (may be null).
    explicit FilePlaybackManager(NdaControl& control, QWidget* dialogParent = nullptr,
                                 QObject* parent = nullptr);
    ~FilePlaybackManager() override;

    // ---- Files
    // Opens `path` (closing what was open) and loads it; the outcome comes as signals:
    // fileLoadingFinalized, fileLoadingError or fileLoadingCancelled.
    void loadFile(const QString& path);
    void initializeFileLoad(const QString& path); // the same, for a file asked for at start
    void reloadFile();
    void closeFile();
    void cancelLoading();
    bool isFileLoaded() const;
    bool isLoading() const;
    // The device the file was opened as (its first device), null when none is open.
    NdaDevice* currentDevice() const { return m_device; }
    // Every device of the open file, the first one first.
    QList<NvDeviceId> fileDeviceIds() const;
    QString currentFileName() const { return m_path; }
    // The device library's reason for the last failure, for a detailed message.
    QString lastErrorDetail() const { return m_lastErrorDetail; }
    // Without the dialog (a program without windows), progress still comes as signals.
    void setLoadingDialogEnabled(bool enabled) { m_dialogEnabled = enabled; }
    FileLoadingDialog* loadingDialog() const { return m_dialog; }

    // ---- Playback
    void startPlayback();
    void pausePlayback();
    void resumePlayback();
    void stopPlayback();
    void setPlayBackToStart();
    // Moves the playback position (a slider) and shows that frame; playback, if running,
    // goes on from there.
    void seekTo(quint64 index);
    // Delivers the frame at `index` of every device of the file to the views, after the
    // frames between the last one delivered and it (at most a bounded number).
    void playbackFrame(quint64 index);
    void loadFirstOriDataFrame();
    bool isPlaying() const;
    bool isPaused() const;
    int filePlaybackMode() const;
    quint64 frameCount() const { return m_frameCount; }
    quint64 currentFrameIndex() const { return m_index; }
    double getPlaybackFrameInterval() const { return m_frameInterval; }

    QString currentDirectory() const { return m_currentDirectory; }
    void setCurrentDirectory(const QString& directory) { m_currentDirectory = directory; }
    QString openFileDirectory() const { return m_openFileDirectory; }
    void setOpenFileDirectory(const QString& directory) { m_openFileDirectory = directory; }

    // At most this many frames go to the views per device and tick when playback jumps.
    static constexpr quint64 MaxFramesPerDelivery = 20000;

signals:
    void fileLoadingInitiated(const QString& path);
    void fileLoadingStarted(NdaDevice& device);
    void fileLoadingProgressChanged(NdaDevice& device, int current, int total);
    void fileLoadingCompleted(NdaDevice& device);
    void fileLoadingStopped(NdaDevice& device);
    void fileLoadingCancelled(const QString& path);
    void fileLoadingFinalized(const QString& path);
    void fileLoadingError(const QString& path, int type, const QString& text);
    void fileLoadingStateChanged(bool loading);
    void fileOpened(NdaDevice& device);
    void fileClosed(const NvDeviceId& id);
    void filePlaybackStateChanged(bool playing);
    void filePlaybackStarted(NdaDevice& device, int frameCount);
    void filePlaybackPaused(NdaDevice& device);
    void filePlaybackResumed(NdaDevice& device);
    void filePlaybackCompleted(NdaDevice& device);
    void filePlaybackProgressChanged(NdaDevice& device, int percent, int total);
    void filePlaybackFrameIndexChanged(NdaDevice& device, quint64 index);

public slots:
    void handleFileLoadCancel();
    void handleFileLoadReload();
    void handleFileLoadStopped();

private slots:
    void handlePlaybackTimer();
    void handleFileLoadStarted(NdaDevice& device);
    void handleDeviceDestroyed(const NvDeviceId& id);

private:
    // Reached through relay() from the file device's signals.
    void handleFileLoadProgress(NdaDevice& device, int current, int total);
    void handleFileLoadCompleted(NdaDevice& device, int result);
    void handleDeviceError(const NvDeviceId& id, NvResultValue result);
    // Runs `work` from the event loop, unless the file's devices are let go before.
    void relay(std::function<void()> work);
    bool loadFile(NdaDevice& device);
    // Here the filter scenario to process the file with would be chosen.
    bool selectScenarioOk(NdaDevice& device);
    void computeFileInformation();
    void finalizeLoading(bool ok);
    void fileLoadError(FileError::Type type, const QString& text);
    void setLoading(bool loading);
    void setState(NdaDeviceState::Type state);
    void showLoadingDialog();
    void hideLoadingDialog();
    void stopTimer(bool discard);
    // Drops the file's devices: closes them in the library and retires their wrappers.
    void releaseFileDevices(bool close);
    void setPlayingFlags(bool playing, bool paused);
    quint64 lastFrame() const { return m_frameCount ? m_frameCount - 1 : 0; }

    NdaControl& m_control;
    QPointer<QWidget> m_dialogParent;
    NdaDevice* m_device = nullptr;
    QList<NdaDevice*> m_devices; // every device of the file, m_device first
    QList<qint64> m_counts;      // their packet counts, once loaded
    quint64 m_generation = 0;    // counts the times the file's devices were let go
    QString m_path;
    QString m_currentDirectory;
    QString m_openFileDirectory;
    QString m_lastErrorDetail;

    mutable QMutex m_flagMutex; // the flags below may be read from any thread
    bool m_loading = false;
    bool m_loaded = false;
    bool m_playing = false;
    bool m_paused = false;

    int m_mode = RealTime;
    quint64 m_frameCount = 0;
    quint64 m_index = 0;
    quint64 m_nextDelivery = 0;    // the first frame the views have not had
    double m_frameInterval = 10.0; // ms
    QElapsedTimer m_startTime;
    quint64 m_startFrame = 0;
    QTimer* m_timer = nullptr;

    bool m_dialogEnabled = true;
    QPointer<FileLoadingDialog> m_dialog; // goes with its parent window, if it has one
};
