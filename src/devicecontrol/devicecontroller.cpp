#include "devicecontroller.h"

#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndadeviceselection.h"

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
}

DeviceController::~DeviceController() = default;

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

bool DeviceController::gotoConfig(const NvDeviceIdArray& ids)
{
    return forAllReversed(m_control.requestDeviceSelection(ids),
                          [this](NdaDevice& device) { return gotoConfig(device); });
}

bool DeviceController::gotoConfigAll()
{
    return gotoConfig(m_control.mainDeviceIds());
}

bool DeviceController::gotoMeasurement(const NvDeviceIdArray& ids)
{
    return forAll(m_control.requestDeviceSelection(ids),
                  [this](NdaDevice& device) { return gotoMeasurement(device); });
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

bool DeviceController::gotoConfig(NdaDevice& device)
{
    return device.gotoConfig();
}

bool DeviceController::gotoMeasurement(NdaDevice& device)
{
    // A mode change is one request and its acknowledgement, which the library reports
    // before the call returns: short enough for the GUI thread, so no worker thread here.
    return device.gotoMeasurement();
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
    const bool config = device.gotoConfig();
    const bool measuring = device.gotoMeasurement();
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
        // Restarting the measurement starts the filters afresh for the recording.
        gotoConfig(device);
        gotoMeasurement(device);
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
