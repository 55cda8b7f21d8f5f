#pragma once
// Mode changes and recordings of groups of devices in synchronisation order, and the
// number of measuring devices. The main window is reached through DeviceControllerHost, so
// this library does not depend on the application.

#include "ndadevicestate.h"
#include "ndametatypes.h"

#include <QIODevice>
#include <QObject>
#include <QString>
#include <QThread>

#include <functional>
#include <list>
#include <map>
#include <set>
#include <vector>

class NdaControl;
class NdaDevice;
class NdaDeviceSelection;
class NdaMeasurementStarterWorker;

class DeviceControllerHost
{
public:
    virtual ~DeviceControllerHost() = default;
    virtual QString generateLogFileName(const NvDeviceId& id) = 0;
    // May change the name (e.g. when the file exists).
    virtual QString checkExistingFilename(const QString& name) = 0;
    virtual void onOpenFileFailed(QIODevice::OpenMode mode, const QString& name) = 0;
};

class DeviceController : public QObject
{
    Q_OBJECT

public:
    using Step = std::function<bool(NdaDevice&)>;

    DeviceController(DeviceControllerHost& host, NdaControl& control, QObject* parent = nullptr);
    ~DeviceController() override;

    DeviceControllerHost& kvManager() const { return m_host; }
    NdaControl& control() const { return m_control; }

    // Groups. Followers start measuring before the devices that give them the signal, and
    // stop after them. Mode changes run on the controller's worker thread, one after the
    // other in the order they were asked for, so a silent device never blocks the GUI; they
    // answer whether every device was there to ask, and failures arrive as the control's
    // error signal (305 and 306) and in modeChangesDone.
    bool gotoConfig(const NvDeviceIdArray& ids);
    bool gotoConfigAll();
    bool gotoMeasurement(const NvDeviceIdArray& ids);
    bool gotoMeasurementAll();
    bool stopRecording(const NvDeviceIdArray& ids);
    bool stopRecordingAll();
    bool abortFlushing(const NvDeviceIdArray& ids);
    bool abortFlushingAll();
    // Every measuring main device of `ids` starts recording through startRecording(device),
    // followers of a synchronisation signal before its sources, so that a device waiting for
    // a start trigger is armed before the trigger can come (trackers record with their
    // master). While mode changes are pending the starts wait for them, in the order asked
    // for, and the answer is true; otherwise they happen now and the answer is whether all
    // started. Files that cannot be made go to the host's onOpenFileFailed.
    bool startRecording(const NvDeviceIdArray& ids);
    bool startRecordingAll();

    // One device.
    bool gotoConfig(NdaDevice& device);
    bool gotoMeasurement(NdaDevice& device);
    bool stopRecording(NdaDevice& device);
    bool abortFlushing(NdaDevice& device);
    bool startRecording(NdaDevice& device);

    // In the selection's order (ascending sync role) / in reverse; every device is
    // visited, the answer is whether all steps succeeded.
    static bool forAll(const NdaDeviceSelection& selection, const Step& step);
    static bool forAllReversed(const NdaDeviceSelection& selection, const Step& step);

    size_t numberOfMeasuringDevices() const { return m_measuringCount; }

    // Whether mode changes asked for are still running.
    bool isChangingModes() const { return m_pendingJobs > 0; }

signals:
    void numberOfMeasuringDevicesChanged(size_t previous, size_t current);
    // Every mode change asked for so far has run; `success`: each device got there.
    void modeChangesDone(bool success);

public slots:
    void handleDeviceStateChange(const NvDeviceId& id, NdaDeviceState::Type newState,
                                 NdaDeviceState::Type oldState);
    void handleDeviceDestroyedByNda(const NvDeviceId& id);

private:
    bool currentlyMeasuring(const NvDeviceId& id) const;
    void recount();
    // The devices of `ids` that are there, in ascending synchronisation role (or
    // descending); `allThere`: every one of them is.
    NvDeviceIdArray inSyncOrder(const NvDeviceIdArray& ids, bool reversed, bool* allThere) const;
    // Starts measurement on each device in turn (each confirmed before the next starts).
    bool startMeasuring(const NvDeviceIdArray& ordered);
    // Stops recording and measurement on each device in turn.
    bool stopMeasuring(const NvDeviceIdArray& ordered);
    // Starts recording on the measuring main devices of `ids`, in synchronisation order.
    bool startRecordingNow(const NvDeviceIdArray& ids);
    // Runs `job` on the worker thread after what was queued before (it answers success),
    // then `after` on the GUI thread.
    void queue(std::function<bool()> job, std::function<void()> after = {});
    void jobDone(bool success);

    DeviceControllerHost& m_host;
    NdaControl& m_control;
    // The latest state each device reported; the state signals arrive after the library
    // has moved on, so asking it would count devices whose change is still on its way.
    std::map<NvDeviceId, NdaDeviceState::Type> m_states;
    size_t m_measuringCount = 0;

    QThread m_worker;
    QObject* m_workerContext = nullptr; // lives on m_worker
    // Starters waiting for or in their job; made and deleted on the GUI thread.
    std::list<NdaMeasurementStarterWorker*> m_starters;
    int m_pendingJobs = 0;
    bool m_jobsSucceeded = true;
};
