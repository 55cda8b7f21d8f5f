#pragma once
// Puts one device into measurement and waits for the library to confirm it, on a worker
// thread (invoke doWork there), so the GUI stays responsive. doWork touches no wrapper
// (they belong to the GUI thread and may go while it waits): it drives the library device
// and posts what the wrappers must learn to the GUI thread. Create and delete the worker
// on the GUI thread.

#include "ndadeviceobserver.h"

#include <QMutex>
#include <QWaitCondition>

class NdaMeasurementStarterWorker : public NdaDeviceObserver, public NvCallback
{
    Q_OBJECT

public:
    NdaMeasurementStarterWorker(NdaControl& control, const NvDeviceId& id,
                                QObject* parent = nullptr);
    ~NdaMeasurementStarterWorker() override;

    // Whether the last doWork got the device measuring.
    bool getResult() const;

    // How long doWork waits for the confirmation, ms.
    static constexpr int ConfirmationTimeout = 5000;

public slots:
    void doWork();

signals:
    void started();
    void completed(bool success);

protected:
    // Library threads.
    void onDeviceStateChanged(NvDevice* dev, NvDeviceState newState,
                              NvDeviceState oldState) override;
    void onError(NvDevice* dev, NvResultValue error) override;

private:
    void conclude(bool success); // with m_mutex held
    // Runs `f` with the device's wrapper on the GUI thread, if it still has one.
    template <typename F>
    void onGuiThread(F f);

    const NvDeviceId m_id;
    mutable QMutex m_mutex;
    QWaitCondition m_condition;
    NvDevice* m_watched = nullptr; // the handle the handler was added to
    bool m_done = false;
    bool m_result = false;
};
