#include "hardwarescanner.h"

#include "ndacontrol.h"

#include <QProgressDialog>

#include <limits>

HardwareScanner::HardwareScanner(NdaControl& control, QWidget* dialogParent, QObject* parent)
    : QObject(parent), m_control(control)
{
    m_dialog = new QProgressDialog(dialogParent);
    m_dialog->setWindowModality(Qt::WindowModal);
    m_dialog->setMinimumWidth(300);
    m_dialog->setWindowTitle(tr("Scanning for Hardware"));
    m_dialog->setLabelText(tr("Initializing..."));
    m_dialog->setRange(0, 100);
    m_dialog->setAutoReset(false);
    m_dialog->setAutoClose(false);
    // Shown when the scan starts, not by the dialog's own guess of the remaining time.
    m_dialog->setMinimumDuration(std::numeric_limits<int>::max());
    m_dialog->reset();
    m_dialog->hide();
    // The dialog's own cancel() would hide it at once; it stays up until the scan has ended.
    disconnect(m_dialog, &QProgressDialog::canceled, m_dialog, nullptr);
    connect(m_dialog, &QProgressDialog::canceled, this, &HardwareScanner::onCancelRequested);

    connect(&control, &NdaControl::scanForHardwareStarted, this, &HardwareScanner::onStarted);
    connect(&control, &NdaControl::scanForHardwareProgressChanged, this,
            &HardwareScanner::onProgressChanged);
    connect(&control, &NdaControl::scanForHardwareScanningPorts, this,
            &HardwareScanner::onScanningPorts);
    connect(&control, &NdaControl::scanForHardwareOpeningPort, this,
            &HardwareScanner::onOpeningPort);
    connect(&control, &NdaControl::scanForHardwareCompleted, this, &HardwareScanner::onCompleted);
    connect(&control, &NdaControl::scanForHardwareAborted, this, &HardwareScanner::onAborted);
    connect(&control, &NdaControl::scanLogEvent, this, &HardwareScanner::scanLogEvent);
    connect(&control, &NdaControl::scanForHardwareForeignDevice, this,
            &HardwareScanner::foreignDeviceFound);
}

HardwareScanner::~HardwareScanner()
{
    delete m_dialog; // null if its parent widget went first
}

QProgressDialog* HardwareScanner::progressDialog() const
{
    return m_dialog.data();
}

void HardwareScanner::scanAllPorts()
{
    scan(QString(), 0);
}

void HardwareScanner::scanPort(const QString& port)
{
    scan(port, 0);
}

void HardwareScanner::scanPort(const QString& port, int baudRate)
{
    scan(port, baudRate);
}

void HardwareScanner::scan(const QString& port, int baudRate)
{
    m_control.scanForHardware(port, baudRate);
}

void HardwareScanner::onStarted()
{
    if (m_dialog) {
        m_dialog->reset();
        m_dialog->setLabelText(tr("Initializing..."));
        m_dialog->show();
    }
    emit scanForHardwareStateChanged(true);
    emit scanForHardwareStarted();
}

void HardwareScanner::onProgressChanged(int progress)
{
    // The signal goes first: setValue on a shown modal dialog runs the event loop, which
    // could deliver the end of the scan before it.
    emit scanForHardwareProgressChanged(progress);
    if (!m_dialog)
        return;
    if (progress >= 100)
        m_dialog->setLabelText(tr("Scan completed successfully."));
    m_dialog->setValue(progress);
}

void HardwareScanner::onScanningPorts()
{
    if (m_dialog)
        m_dialog->setLabelText(tr("Scanning ports..."));
}

void HardwareScanner::onOpeningPort(const QString& port, int baudRate)
{
    if (m_dialog)
        m_dialog->setLabelText(tr("Opening port: %1, baud rate: %2...").arg(port).arg(baudRate));
}

void HardwareScanner::onCompleted()
{
    if (m_dialog)
        m_dialog->hide();
    emit scanForHardwareStateChanged(false);
    emit scanForHardwareCompleted();
}

void HardwareScanner::onAborted()
{
    if (m_dialog)
        m_dialog->hide();
    emit scanForHardwareStateChanged(false);
    emit scanForHardwareAborted();
}

void HardwareScanner::onCancelRequested()
{
    if (m_dialog)
        m_dialog->setLabelText(tr("Aborting..."));
    m_control.abortScanForHardware();
}
