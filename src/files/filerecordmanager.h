#pragma once
// Starts and stops the recording of every measuring device, makes sure the recording folder
// exists, counts the devices that wait for a recording start, record and flush, and shows
// the progress of wireless trackers retransmitting what their master missed.

#include "ndadevicestate.h"
#include "ndametatypes.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <cstddef>
#include <map>
#include <utility>

class DeviceController;
class NdaControl;
class QProgressDialog;
class QWidget;

// The kinds of recordError.
struct FileRecordError
{
    Q_GADGET
public:
    enum Type
    {
        NoError = 0,
        DirectoryNotCreated = 1,
        FileNotCreated = 2,
        RecordingNotStarted = 3,
        // The device library ended a recording: disk full or another write error.
        WriteFailed = 4,
    };
    Q_ENUM(Type)
};

class FileRecordManager : public QObject
{
    Q_OBJECT

public:
    using RecordError = FileRecordError;

    // Follows the control's devices from now on (state changes, flushing progress, devices
    // going away).
    FileRecordManager(NdaControl& control, DeviceController& controller, QObject* parent = nullptr);
    ~FileRecordManager() override;

    // Parent of the message boxes and of the flushing dialog (may be null).
    void setDialogParent(QWidget* parent);

    // Asks whether to create a missing folder, then starts recording on every measuring
    // device whatever the answer. False only when the folder could not be created.
    bool startRecording();
    void stopRecording();

    // Some device waits for its recording start, records or flushes. The end of a
    // recording is told from the event loop, after the state changes already on their way.
    bool recordingState() const { return m_recording; }
    size_t numberOfRecordingDevices() const { return m_recordingCount; }
    size_t numberOfFlushingDevices() const { return m_flushingCount; }
    size_t numberOfWaitingForRecordingStartDevices() const { return m_waitingCount; }

    QString currentDirectory() const { return m_currentDirectory; }
    void setCurrentDirectory(const QString& directory);

    void signalRecordError(FileRecordError::Type type, const QString& text);

    // The flushing dialog of the present (or last) flushing period, null before the first
    // progress report.
    QProgressDialog* flushingDialog() const;
    // "Retransmitting missed data for 1 device", "... for 2 devices".
    static QString flushingLabelText(size_t flushingDevices);

signals:
    void recordingStateChanged(bool recording);
    void numberOfRecordingDevicesChanged(size_t previous, size_t current);
    void numberOfFlushingDevicesChanged(size_t previous, size_t current);
    void numberOfWaitingForRecordingStartDevicesChanged(size_t previous, size_t current);
    void recordError(FileRecordError::Type type, const QString& text);

public slots:
    void handleDeviceStateChange(const NvDeviceId& id, NdaDeviceState::Type newState,
                                 NdaDeviceState::Type oldState);
    void handleFlushingProgress(int current, int total, const NvDeviceId& id,
                                const QString& identifier);
    // Forgets what the device contributed to the counts.
    void handleAboutToCloseDevice(const NvDeviceId& id);
    void handleAbortFlushing();

private:
    // What one device adds to the counts.
    struct Contribution
    {
        bool waiting = false;
        bool recording = false;
        bool flushing = false;
        bool isEmpty() const { return !waiting && !recording && !flushing; }
    };

    void apply(const NvDeviceId& id, const Contribution& now);
    void publishRecordingState();
    void handleWrapperGoing(const NvDeviceId& id);
    void handleDeviceError(const NvDeviceId& id, NvResultValue result);
    void createFlushingDialog();
    void updateFlushingDialog();
    void closeFlushingDialog();

    NdaControl& m_control;
    DeviceController& m_controller;
    QPointer<QWidget> m_dialogParent;
    QString m_currentDirectory;
    std::map<NvDeviceId, Contribution> m_contributions;
    size_t m_recordingCount = 0;
    size_t m_flushingCount = 0;
    size_t m_waitingCount = 0;
    bool m_recording = false; // as published through recordingStateChanged
    bool m_counted = false;   // as the counts say now
    bool m_publishPending = false;
    QPointer<QProgressDialog> m_flushingDialog;
    // Progress (current, total) of each device in the present flushing period; several
    // masters flushing at once share the one dialog.
    std::map<NvDeviceId, std::pair<int, int>> m_flushProgress;
};
