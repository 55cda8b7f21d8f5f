#include "devicecontroller.h"

#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndadeviceselection.h"
#include "ndameasurementstarterworker.h"

#include <QPointer>
#include <QSettings>

DeviceController::DeviceController(DeviceControllerHost& host, NdaControl& control, QObject* parent)
    : QObject(parent), m_host(host), m_control(control)
{
    // Every device known now gets its state here: state signals still queued would
    // otherwise meet the library's newer states of the others.
    for (const NvDeviceId& id : m_control.mainDeviceIds()) {
        if (const NdaDevice* device = m_control.getExistingDevice(id))
            m_states[id] = device->ndaDeviceState();
        else if (m_control.isMeasuring(id) || m_control.isRecording(id))
            m_states[id] = NdaDeviceState::Measuring;
        else
            m_states[id] = NdaDeviceState::ConfigMode;
    }
    recount();
    connect(&control, &NdaControl::deviceStateChange, this,
            &DeviceController::handleDeviceStateChange);
    connect(&control, &NdaControl::deviceDestroyedByNda, this,
            &DeviceController::handleDeviceDestroyedByNda);
    m_worker.setObjectName(QStringLiteral("DeviceModeChanges"));
    m_workerContext = new QObject;
    m_workerContext->moveToThread(&m_worker);
    connect(&m_worker, &QThread::finished, m_workerContext, &QObject::deleteLater);
    m_worker.start();
}

DeviceController::~DeviceController()
{
    // A job in progress ends quickly once the ports are closed (the control is closed
    // before the controller goes); the jobs behind it find no devices.
    m_worker.quit();
    m_worker.wait();
    for (NdaMeasurementStarterWorker* starter : m_starters)
        delete starter;
}

void DeviceController::queue(std::function<bool()> job, std::function<void()> after)
{
    ++m_pendingJobs;
    // The worker thread runs while the controller lives (its destructor waits for it), so
    // `this` is valid there; the answer is dropped if the controller is gone by then.
    QMetaObject::invokeMethod(
        m_workerContext,
        [this, job = std::move(job), after = std::move(after)] {
            const bool ok = job();
            QMetaObject::invokeMethod(
                this,
                [this, ok, after] {
                    if (after)
                        after();
                    jobDone(ok);
                },
                Qt::QueuedConnection);
        },
        Qt::QueuedConnection);
}

void DeviceController::jobDone(bool success)
{
    m_jobsSucceeded = m_jobsSucceeded && success;
    if (--m_pendingJobs > 0)
        return;
    const bool all = m_jobsSucceeded;
    m_jobsSucceeded = true;
    emit modeChangesDone(all);
}

bool DeviceController::startMeasuring(const NvDeviceIdArray& ordered)
{
    std::vector<NdaMeasurementStarterWorker*> starters;
    bool valid = true;
    for (const NvDeviceId& id : ordered) {
        auto* starter = new NdaMeasurementStarterWorker(m_control, id);
        valid = starter->isDeviceValid() && valid;
        starters.push_back(starter);
        m_starters.push_back(starter);
    }
    queue(
        [starters] {
            bool ok = true;
            for (NdaMeasurementStarterWorker* starter : starters) {
                starter->doWork();
                ok = starter->getResult() && ok;
            }
            return ok;
        },
        [this, starters] {
            for (NdaMeasurementStarterWorker* starter : starters) {
                m_starters.remove(starter);
                delete starter;
            }
        });
    return valid;
}

bool DeviceController::stopMeasuring(const NvDeviceIdArray& ordered)
{
    NdaControl* control = &m_control;
    queue([control, ordered] {
        bool ok = true;
        for (const NvDeviceId& id : ordered) {
            const NvDeviceRef device = control->libraryDeviceRef(id);
            if (!device)
                continue; // gone meanwhile, and reported as such
            if (NvDevice_isRecording(device))
                NvDevice_stopRecording(device);
            if (NvDevice_gotoConfig(device))
                continue;
            ok = false;
            QMetaObject::invokeMethod(
                control,
                [control, id] { emit control->error(id, NRV_COULD_NOT_GO_TO_CONFIGURATION); },
                Qt::QueuedConnection);
        }
        return ok;
    });
    return !ordered.empty();
}

bool DeviceController::forAll(const NdaDeviceSelection& selection, const Step& step)
{
    bool ok = true;
    for (NdaDevice* device : selection.getDevices())
        ok = step(*device) && ok;
    return ok;
}

bool DeviceController::forAllReversed(const NdaDeviceSelection& selection, const Step& step)
{
    const std::vector<NdaDevice*> devices = selection.getDevices();
    bool ok = true;
    for (auto it = devices.rbegin(); it != devices.rend(); ++it)
        ok = step(**it) && ok;
    return ok;
}

NvDeviceIdArray DeviceController::inSyncOrder(const NvDeviceIdArray& ids, bool reversed,
                                              bool* allThere) const
{
    NvDeviceIdArray ordered;
    const auto collect = [&ordered](NdaDevice& device) {
        ordered.push_back(device.deviceId());
        return true;
    };
    const NdaDeviceSelection selection = m_control.requestDeviceSelection(ids);
    if (reversed)
        forAllReversed(selection, collect);
    else
        forAll(selection, collect);
    *allThere = ordered.size() == std::set<NvDeviceId>(ids.begin(), ids.end()).size();
    return ordered;
}

bool DeviceController::gotoConfig(const NvDeviceIdArray& ids)
{
    bool allThere = false;
    const NvDeviceIdArray ordered = inSyncOrder(ids, true, &allThere);
    return stopMeasuring(ordered) && allThere;
}

bool DeviceController::gotoConfigAll()
{
    return gotoConfig(m_control.mainDeviceIds());
}

bool DeviceController::gotoMeasurement(const NvDeviceIdArray& ids)
{
    bool allThere = false;
    const NvDeviceIdArray ordered = inSyncOrder(ids, false, &allThere);
    return startMeasuring(ordered) && allThere;
}

bool DeviceController::gotoMeasurementAll()
{
    return gotoMeasurement(m_control.mainDeviceIds());
}

bool DeviceController::stopRecording(const NvDeviceIdArray& ids)
{
    return forAllReversed(m_control.requestDeviceSelection(ids),
                          [this](NdaDevice& device) { return stopRecording(device); });
}

bool DeviceController::stopRecordingAll()
{
    return stopRecording(m_control.mainDeviceIds());
}

bool DeviceController::abortFlushing(const NvDeviceIdArray& ids)
{
    return forAllReversed(m_control.requestDeviceSelection(ids),
                          [this](NdaDevice& device) { return abortFlushing(device); });
}

bool DeviceController::abortFlushingAll()
{
    return abortFlushing(m_control.mainDeviceIds());
}

bool DeviceController::startRecording(const NvDeviceIdArray& ids)
{
    if (m_pendingJobs == 0)
        return startRecordingNow(ids);
    // Devices on their way into measurement are recorded once there. The starts themselves
    // use wrappers, so they run on the GUI thread when the worker has got this far.
    queue([] { return true; }, [this, ids] { startRecordingNow(ids); });
    return true;
}

bool DeviceController::startRecordingAll()
{
    return startRecording(m_control.mainDeviceIds());
}

bool DeviceController::startRecordingNow(const NvDeviceIdArray& ids)
{
    const NvDeviceIdArray mainIds = m_control.mainDeviceIds();
    const std::set<NvDeviceId> mainSet(mainIds.begin(), mainIds.end());
    NvDeviceIdArray measuring;
    for (const NvDeviceId& id : ids)
        if (mainSet.count(id) && m_control.isMeasuring(id))
            measuring.push_back(id);
    return forAll(m_control.requestDeviceSelection(measuring),
                  [this](NdaDevice& device) { return startRecording(device); });
}

bool DeviceController::gotoConfig(NdaDevice& device)
{
    return stopMeasuring({device.deviceId()});
}

bool DeviceController::gotoMeasurement(NdaDevice& device)
{
    // A device that does not answer keeps the request waiting for its time-out: not on the
    // GUI thread.
    return startMeasuring({device.deviceId()});
}

bool DeviceController::stopRecording(NdaDevice& device)
{
    if (!device.isRecording())
        return true;
    return device.stopRecording();
}

bool DeviceController::abortFlushing(NdaDevice& device)
{
    // The first two may find nothing left to end; what counts is measuring again.
    device.abortFlushing();
    device.stopRecording();
    const bool config = gotoConfig(device);
    const bool measuring = gotoMeasurement(device);
    return config && measuring;
}

bool DeviceController::startRecording(NdaDevice& device)
{
    // A second file for a running recording would stay empty.
    if (device.isRecording() || m_control.isRecording(device.deviceId()))
        return true;
    const QString name =
        m_host.checkExistingFilename(m_host.generateLogFileName(device.deviceId()));
    if (!device.createLogFile(name.toStdString())) {
        m_host.onOpenFileFailed(QIODevice::WriteOnly, name);
        return false;
    }
    if (QSettings().value(QStringLiteral("advanced/filterresetbeforerecording"), false).toBool()) {
        // Restarting the measurement starts the filters afresh for the recording; here and
        // now, since the recording starts next.
        device.gotoConfig();
        device.gotoMeasurement();
    }
    if (!device.startRecording()) {
        device.closeLogFile();
        return false;
    }
    return true;
}

bool DeviceController::currentlyMeasuring(const NvDeviceId& id) const
{
    const auto it = m_states.find(id);
    if (it != m_states.end())
        return NdaDeviceState::isMeasuring(it->second);
    if (const NdaDevice* device = m_control.getExistingDevice(id))
        return NdaDeviceState::isMeasuring(device->ndaDeviceState());
    return m_control.isMeasuring(id);
}

void DeviceController::recount()
{
    size_t count = 0;
    for (const NvDeviceId& id : m_control.mainDeviceIds())
        if (currentlyMeasuring(id))
            ++count;
    const size_t previous = m_measuringCount;
    m_measuringCount = count;
    if (count != previous)
        emit numberOfMeasuringDevicesChanged(previous, count);
}

void DeviceController::handleDeviceStateChange(const NvDeviceId& id, NdaDeviceState::Type newState,
                                               NdaDeviceState::Type oldState)
{
    Q_UNUSED(oldState);
    if (newState == NdaDeviceState::Destroyed)
        m_states.erase(id);
    else
        m_states[id] = newState;
    recount();
}

void DeviceController::handleDeviceDestroyedByNda(const NvDeviceId& id)
{
    m_states.erase(id);
    recount();
}
