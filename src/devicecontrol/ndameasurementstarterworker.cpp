#include "ndameasurementstarterworker.h"

#include "ndacontrol.h"
#include "ndadevice.h"

#include <QDeadlineTimer>
#include <QMutexLocker>

NdaMeasurementStarterWorker::NdaMeasurementStarterWorker(NdaControl& control, const NvDeviceId& id,
                                                         QObject* parent)
    : NdaDeviceObserver(control, id, parent)
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

void NdaMeasurementStarterWorker::onDeviceStateChanged(NvDevice* dev, NvDeviceState newState,
                                                       NvDeviceState oldState)
{
    QMutexLocker lock(&m_mutex);
    if (dev != m_watched)
        return;
    if (newState == NDS_MEASUREMENT && oldState < NDS_MEASUREMENT)
        conclude(true);
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
    NdaDevice& dev = device();
    NvDevice* handle = dev.libraryDevice();
    {
        QMutexLocker lock(&m_mutex);
        m_watched = handle;
        m_done = false;
        m_result = false;
    }
    dev.addCallbackHandler(plainC(), true);

    dev.setNdaDeviceState(NdaDeviceState::StartingMeasurement);
    // The library reports the state change before this returns, so the handler has
    // usually concluded by now. A failed call (which the wrapper reports as error 305) or
    // a device reading Measuring already needs no wait.
    const bool requested = dev.gotoMeasurement();
    const bool measuringNow =
        dev.ndaDeviceState() == NdaDeviceState::Measuring || NvDevice_isMeasuring(handle) != 0;
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
    dev.removeCallbackHandler(plainC());
    if (!success)
        dev.updateNdaDeviceState(); // not left in Starting Measurement
    emit completed(success);
}
