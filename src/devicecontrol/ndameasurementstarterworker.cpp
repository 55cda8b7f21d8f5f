#include "ndameasurementstarterworker.h"

#include "ndacontrol.h"
#include "ndadevice.h"

#include <QDeadlineTimer>
#include <QMutexLocker>
#include <QPointer>
#include <QThread>

NdaMeasurementStarterWorker::NdaMeasurementStarterWorker(NdaControl& control, const NvDeviceId& id,
                                                         QObject* parent)
    : NdaDeviceObserver(control, id, parent), m_id(id)
{
}

NdaMeasurementStarterWorker::~NdaMeasurementStarterWorker() = default;

bool NdaMeasurementStarterWorker::getResult() const
{
    QMutexLocker lock(&m_mutex);
    return m_result;
}

void NdaMeasurementStarterWorker::conclude(bool success)
{
    if (m_done)
        return;
    m_done = true;
    m_result = success;
    m_condition.wakeAll();
}

template <typename F>
void NdaMeasurementStarterWorker::onGuiThread(F f)
{
    QPointer<NdaControl> control = &this->control();
    QMetaObject::invokeMethod(
        control.data(),
        [control, id = m_id, f] {
            if (control)
                if (NdaDevice* device = control->getExistingDevice(id))
                    f(*device);
        },
        Qt::QueuedConnection);
}

void NdaMeasurementStarterWorker::onDeviceStateChanged(NvDevice* dev, NvDeviceState newState,
                                                       NvDeviceState oldState)
{
    QMutexLocker lock(&m_mutex);
    if (dev != m_watched)
        return;
    if (newState == NDS_MEASUREMENT && oldState < NDS_MEASUREMENT)
        conclude(true);
    else if (newState == NDS_DESTRUCTING)
        conclude(false); // closed or unplugged meanwhile: no confirmation will come
}

void NdaMeasurementStarterWorker::onError(NvDevice* dev, NvResultValue error)
{
    QMutexLocker lock(&m_mutex);
    if (dev == m_watched && error == NRV_COULD_NOT_GO_TO_MEASUREMENT)
        conclude(false);
}

void NdaMeasurementStarterWorker::doWork()
{
    emit started();
    // Looked up again here: the device may have gone since the worker was made.
    const NvDeviceRef handle = control().libraryDeviceRef(m_id);
    {
        QMutexLocker lock(&m_mutex);
        m_watched = handle.get();
        m_done = false;
        m_result = false;
    }
    if (handle)
        NvDevice_addCallbackHandler(handle, plainC(), 1);

    // Wrappers belong to the GUI thread: from elsewhere the mark is posted there, where it
    // gives way to the library's news should that come first.
    if (QThread::currentThread() == control().thread()) {
        if (NdaDevice* device = control().getExistingDevice(m_id))
            device->markStartingMeasurement();
    } else {
        onGuiThread([](NdaDevice& device) { device.markStartingMeasurement(); });
    }
    // The library reports the state change before this returns, so the handler has
    // usually concluded by now. A failed call or a device measuring already needs no wait.
    const bool requested = handle && NvDevice_gotoMeasurement(handle);
    const bool measuringNow = handle && NvDevice_isMeasuring(handle);
    bool success = false;
    {
        QMutexLocker lock(&m_mutex);
        if (!m_done && (!requested || measuringNow))
            conclude(measuringNow);
        const QDeadlineTimer deadline(ConfirmationTimeout);
        while (!m_done) {
            if (!m_condition.wait(&m_mutex, deadline))
                break;
        }
        if (!m_done)
            conclude(false); // no confirmation in time
        success = m_result;
        m_watched = nullptr;
    }
    // Not under m_mutex: removal waits for a dispatch that may be in our handler.
    if (handle)
        NvDevice_removeCallbackHandler(handle, plainC());
    if (!success) {
        // Not left in Starting Measurement; a device that is still there says why it failed.
        const bool refused = handle && !requested;
        onGuiThread([refused](NdaDevice& device) {
            if (refused)
                emit device.control().error(device.deviceId(), NRV_COULD_NOT_GO_TO_MEASUREMENT);
            device.updateNdaDeviceState();
        });
    }
    emit completed(success);
}
