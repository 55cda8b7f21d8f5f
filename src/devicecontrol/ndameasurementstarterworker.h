#pragma once
// Puts one device into measurement and waits for the library to confirm it, on a worker
// thread (move the object there and invoke doWork), so the GUI stays responsive.

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

    mutable QMutex m_mutex;
    QWaitCondition m_condition;
    NvDevice* m_watched = nullptr; // the handle the handler was added to
    bool m_done = false;
    bool m_result = false;
};
