#include "filerecordmanager.h"

#include "currentdirectorywidget.h"
#include "devicecontroller.h"
#include "journaller.h"
#include "ndacontrol.h"
#include "ndadevice.h"

#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>

#include <algorithm>
#include <climits>

namespace {

void logUsage(const char* action)
{
    jlLog(JLL_TRACE, std::string("Usage: Recording/") + action);
}

} // namespace

FileRecordManager::FileRecordManager(NdaControl& control, DeviceController& controller,
                                     QObject* parent)
    : QObject(parent), m_control(control), m_controller(controller),
      m_currentDirectory(CurrentDirectoryWidget::storedDirectory())
{
    connect(&control, &NdaControl::deviceStateChange, this,
            &FileRecordManager::handleDeviceStateChange);
    connect(&control, &NdaControl::flushingProgress, this,
            &FileRecordManager::handleFlushingProgress);
    connect(&control, &NdaControl::aboutToCloseDevice, this,
            &FileRecordManager::handleWrapperGoing);
    // A device nobody holds a wrapper of goes without aboutToCloseDevice.
    connect(&control, &NdaControl::deviceDestroyedByNda, this,
            &FileRecordManager::handleAboutToCloseDevice);
    connect(&control, &NdaControl::error, this, &FileRecordManager::handleDeviceError);
}

FileRecordManager::~FileRecordManager()
{
    delete m_flushingDialog;
}

void FileRecordManager::setDialogParent(QWidget* parent)
{
    m_dialogParent = parent;
}

void FileRecordManager::setCurrentDirectory(const QString& directory)
{
    m_currentDirectory = directory;
}

bool FileRecordManager::startRecording()
{
    bool created = true;
    const QString directory = m_currentDirectory;
    if (!QFileInfo(directory).isDir()) {
        QMessageBox question(
            QMessageBox::Question, tr("Directory Does Not Exist"),
            tr("The directory \"%1\" does not exist.").arg(QDir::toNativeSeparators(directory)),
            QMessageBox::Yes | QMessageBox::No, m_dialogParent);
        question.setInformativeText(tr("Create it and continue measuring?"));
        question.setDefaultButton(QMessageBox::No);
        if (question.exec() == QMessageBox::Yes && !QDir().mkpath(directory)) {
            created = false;
            auto* box = new QMessageBox(QMessageBox::Critical, tr("Error Creating Directory"),
                                        tr("The directory \"%1\" could not be created.")
                                            .arg(QDir::toNativeSeparators(directory)),
                                        QMessageBox::Ok, m_dialogParent);
            box->setAttribute(Qt::WA_DeleteOnClose);
            box->open();
        }
    }
    // The question is about the folder only: the recording starts either way, and a file
    // that cannot be made is reported by the controller for each device.
    m_controller.startRecordingAll();
    logUsage("Start");
    return created;
}

void FileRecordManager::stopRecording()
{
    m_controller.stopRecordingAll();
    logUsage("Stop");
}

void FileRecordManager::signalRecordError(FileRecordError::Type type, const QString& text)
{
    jlLog(JLL_ERROR, "Recording error " + std::to_string(int(type)) + ": " + text.toStdString());
    emit recordError(type, text);
}

QProgressDialog* FileRecordManager::flushingDialog() const
{
    return m_flushingDialog;
}

QString FileRecordManager::flushingLabelText(size_t flushingDevices)
{
    return tr("Retransmitting missed data for %1 device%2")
        .arg(flushingDevices)
        .arg(flushingDevices == 1 ? QString() : QStringLiteral("s"));
}

// ---------------------------------------------------------------------------- Counting

void FileRecordManager::handleDeviceStateChange(const NvDeviceId& id, NdaDeviceState::Type newState,
                                                NdaDeviceState::Type oldState)
{
    if (newState == NdaDeviceState::Destroyed) {
        handleAboutToCloseDevice(id);
        return;
    }
    const auto it = m_contributions.find(id);
    Contribution now = it == m_contributions.end() ? Contribution() : it->second;

    bool started = false;
    if (NdaDevice* device = m_control.getExistingDevice(id))
        started = device->recordingStarted(newState, oldState);
    else
        started = NdaDeviceState::recordingStarted(newState, oldState);

    now.waiting = NdaControl::waitingForRecordingStart(newState, oldState);
    if (started)
        now.recording = true;
    if (NdaControl::recordingStopped(newState, oldState))
        now.recording = false;
    if (NdaControl::flushingStarted(newState, oldState))
        now.flushing = true;
    if (NdaControl::flushingStopped(newState, oldState))
        now.flushing = false;
    // Whatever the path out of a recording (configuration, an error, a file state), a
    // device outside the recording states adds nothing.
    if (!NdaDeviceState::isRecording(newState))
        now = Contribution();
    apply(id, now);
}

void FileRecordManager::handleAboutToCloseDevice(const NvDeviceId& id)
{
    apply(id, Contribution());
}

void FileRecordManager::handleWrapperGoing(const NvDeviceId& id)
{
    // The last wrapper of a device that records on may be released (a view closing): only
    // a device that is really going takes its counts along.
    const NvDeviceRef device = m_control.libraryDeviceRef(id);
    if (!device || NvDevice_deviceState(device) == NDS_DESTRUCTING)
        handleAboutToCloseDevice(id);
}

void FileRecordManager::apply(const NvDeviceId& id, const Contribution& now)
{
    const auto it = m_contributions.find(id);
    const Contribution before = it == m_contributions.end() ? Contribution() : it->second;
    if (now.isEmpty()) {
        if (it != m_contributions.end())
            m_contributions.erase(it);
    } else {
        m_contributions[id] = now;
    }

    const auto adjust = [](size_t& count, bool was, bool is) {
        const size_t previous = count;
        if (is && !was)
            ++count;
        else if (was && !is && count > 0)
            --count;
        return previous;
    };
    const size_t waitingBefore = adjust(m_waitingCount, before.waiting, now.waiting);
    const size_t recordingBefore = adjust(m_recordingCount, before.recording, now.recording);
    const size_t flushingBefore = adjust(m_flushingCount, before.flushing, now.flushing);

    if (before.flushing && !now.flushing) {
        // Its part of the dialog is done, whether it finished or was aborted.
        const auto progress = m_flushProgress.find(id);
        if (progress != m_flushProgress.end())
            progress->second.first = progress->second.second;
    }
    if (flushingBefore == 0 && m_flushingCount > 0) {
        // A new flushing period gets a dialog of its own at its first report.
        m_flushProgress.clear();
        if (m_flushingDialog)
            m_flushingDialog->deleteLater();
        m_flushingDialog = nullptr;
    }

    if (m_waitingCount != waitingBefore)
        emit numberOfWaitingForRecordingStartDevicesChanged(waitingBefore, m_waitingCount);
    if (m_recordingCount != recordingBefore)
        emit numberOfRecordingDevicesChanged(recordingBefore, m_recordingCount);
    if (m_flushingCount != flushingBefore) {
        emit numberOfFlushingDevicesChanged(flushingBefore, m_flushingCount);
        if (m_flushingCount == 0)
            closeFlushingDialog();
        else
            updateFlushingDialog();
    }

    const bool recording = m_waitingCount + m_recordingCount + m_flushingCount > 0;
    if (recording == m_counted)
        return;
    m_counted = recording;
    if (recording) {
        publishRecordingState();
    } else if (!m_publishPending) {
        // A master stopping passes through Configuration before it flushes, both reported
        // before we hear of either: the end is published once what is queued has been
        // heard, so the flag does not blink off and on again.
        m_publishPending = true;
        QMetaObject::invokeMethod(this, &FileRecordManager::publishRecordingState,
                                  Qt::QueuedConnection);
    }
}

void FileRecordManager::publishRecordingState()
{
    m_publishPending = false;
    if (m_counted == m_recording)
        return;
    m_recording = m_counted;
    emit recordingStateChanged(m_recording);
}

void FileRecordManager::handleDeviceError(const NvDeviceId& id, NvResultValue result)
{
    if (result != NRV_DISK_FULL && result != NRV_FILE_WRITE_ERROR)
        return;
    if (m_contributions.find(id) == m_contributions.end())
        return;
    signalRecordError(FileRecordError::WriteFailed,
                      tr("The recording of device %1 stopped: %2")
                          .arg(QString::fromStdString(id.toString()),
                               QString::fromUtf8(NvResultValue_toString(result))));
}

// ---------------------------------------------------------------------------- Flushing

void FileRecordManager::handleFlushingProgress(int current, int total, const NvDeviceId& id,
                                               const QString& identifier)
{
    Q_UNUSED(identifier);
    // A report that comes after the devices stopped flushing (an aborted flush winding
    // down) would bring a finished dialog back.
    if (m_flushingCount == 0)
        return;
    if (!m_flushingDialog)
        createFlushingDialog();
    m_flushProgress[id] = {current, total};
    updateFlushingDialog();
}

void FileRecordManager::createFlushingDialog()
{
    m_flushingDialog = new QProgressDialog(m_dialogParent);
    m_flushingDialog->setObjectName(QStringLiteral("flushingDialog"));
    m_flushingDialog->setWindowTitle(tr("Flushing..."));
    m_flushingDialog->setLabelText(flushingLabelText(std::max<size_t>(m_flushingCount, 1)));
    m_flushingDialog->setCancelButtonText(tr("Abort"));
    m_flushingDialog->setMinimumDuration(1000);
    m_flushingDialog->setRange(0, 0);
    m_flushingDialog->setValue(0);
    // Abort keeps the dialog up, saying so, until the devices have stopped flushing.
    disconnect(m_flushingDialog, &QProgressDialog::canceled, m_flushingDialog,
               &QProgressDialog::cancel);
    connect(m_flushingDialog, &QProgressDialog::canceled, this,
            &FileRecordManager::handleAbortFlushing);
}

void FileRecordManager::updateFlushingDialog()
{
    if (!m_flushingDialog)
        return;
    // A report with nobody counted as flushing yet still stands for one device.
    m_flushingDialog->setLabelText(flushingLabelText(std::max<size_t>(m_flushingCount, 1)));
    if (m_flushProgress.empty())
        return;
    long long current = 0, total = 0;
    for (const auto& entry : m_flushProgress) {
        current += entry.second.first;
        total += entry.second.second;
    }
    const int maximum = int(std::min<long long>(total, INT_MAX));
    const int value = int(std::min<long long>(current, maximum));
    if (m_flushingDialog->maximum() != maximum)
        m_flushingDialog->setMaximum(maximum);
    // The dialog closes itself when the value reaches the maximum.
    m_flushingDialog->setValue(value);
}

void FileRecordManager::closeFlushingDialog()
{
    m_flushProgress.clear();
    // reset() also stops the timer that would show a dialog not shown yet.
    if (m_flushingDialog)
        m_flushingDialog->reset();
}

void FileRecordManager::handleAbortFlushing()
{
    if (m_flushingDialog) {
        m_flushingDialog->setCancelButtonText(tr("Aborting..."));
        if (auto* button = m_flushingDialog->findChild<QPushButton*>())
            button->setEnabled(false);
    }
    logUsage("AbortFlushing");
    m_controller.abortFlushingAll();
}
