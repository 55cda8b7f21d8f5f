#pragma once
// Runs the control's hardware scan behind a progress dialog and reports its course.

#include <QObject>
#include <QPointer>
#include <QString>

class NdaControl;
class QProgressDialog;
class QWidget;

class HardwareScanner : public QObject
{
    Q_OBJECT

public:
    explicit HardwareScanner(NdaControl& control, QWidget* dialogParent = nullptr,
                             QObject* parent = nullptr);
    ~HardwareScanner() override;

    NdaControl& control() const { return m_control; }
    QProgressDialog* progressDialog() const;

public slots:
    void scanAllPorts();
    void scanPort(const QString& port);
    void scanPort(const QString& port, int baudRate);
    // baudRate: an NvBaudRate code; 0 (NBR_DETECT) lets the library find the rate.
    virtual void scan(const QString& port, int baudRate);

signals:
    void scanForHardwareStarted();
    void scanForHardwareCompleted();
    void scanForHardwareAborted();
    void scanForHardwareStateChanged(bool scanning);
    void scanForHardwareProgressChanged(int progress);
    void scanLogEvent(QString line);
    // A device of another maker, heard on `port` when allowNonNivraDevices is on.
    void foreignDeviceFound(const QString& port, const QString& description);

private slots:
    void onStarted();
    void onProgressChanged(int progress);
    void onScanningPorts();
    void onOpeningPort(const QString& port, int baudRate);
    void onCompleted();
    void onAborted();
    void onCancelRequested();

private:
    NdaControl& m_control;
    QPointer<QProgressDialog> m_dialog;
};
