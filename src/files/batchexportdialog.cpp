#include "batchexportdialog.h"

#include "exportdialog.h"
#include "ndacontrol.h"
#include "pluginmanager.h"

#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QThread>
#include <QVBoxLayout>

namespace {

const QStringList RecordingPatterns{QStringLiteral("*.kvb"), QStringLiteral("*.bin"),
                                    QStringLiteral("*.nm")};

} // namespace

BatchExportDialog::BatchExportDialog(NdaControl& control, PluginManager& plugins,
                                     const QStringList& files, QWidget* parent)
    : QDialog(parent), m_control(control)
{
    setWindowTitle(tr("Batch export"));
    auto* layout = new QVBoxLayout(this);
    m_list = new QListWidget(this);
    m_list->setObjectName(QStringLiteral("fileList"));
    layout->addWidget(m_list);
    auto* fileButtons = new QHBoxLayout;
    m_addFilesButton = new QPushButton(tr("Add files…"), this);
    m_addFolderButton = new QPushButton(tr("Add folder…"), this);
    auto* clear = new QPushButton(tr("Clear"), this);
    fileButtons->addWidget(m_addFilesButton);
    fileButtons->addWidget(m_addFolderButton);
    fileButtons->addWidget(clear);
    fileButtons->addStretch();
    layout->addLayout(fileButtons);
    connect(m_addFilesButton, &QPushButton::clicked, this, [this] {
        addFiles(QFileDialog::getOpenFileNames(
            this, tr("Recordings"), QString(),
            tr("Recordings (%1)").arg(RecordingPatterns.join(QLatin1Char(' ')))));
    });
    connect(m_addFolderButton, &QPushButton::clicked, this, [this] {
        const QString folder = QFileDialog::getExistingDirectory(this, tr("Folder of recordings"));
        if (!folder.isEmpty())
            addFolder(folder);
    });
    connect(clear, &QPushButton::clicked, this, [this] {
        if (m_running)
            return;
        m_files.clear();
        m_list->clear();
        updateButtons();
    });

    m_options = new ExportOptionsWidget(plugins, this);
    layout->addWidget(m_options);
    connect(m_options, &ExportOptionsWidget::changed, this, &BatchExportDialog::updateButtons);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("statusLabel"));
    m_status->setWordWrap(true);
    layout->addWidget(m_status);
    m_fileProgress = new QProgressBar(this);
    m_fileProgress->setRange(0, 100);
    m_fileProgress->setValue(0);
    layout->addWidget(m_fileProgress);
    m_overall = new QProgressBar(this);
    m_overall->setValue(0);
    m_overall->setFormat(tr("%v of %m recordings"));
    layout->addWidget(m_overall);
    m_summary = new QLabel(this);
    m_summary->setObjectName(QStringLiteral("summaryLabel"));
    m_summary->setWordWrap(true);
    m_summary->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_summary);

    auto* buttons = new QDialogButtonBox(this);
    m_exportButton = buttons->addButton(tr("Export"), QDialogButtonBox::ActionRole);
    m_exportButton->setObjectName(QStringLiteral("exportButton"));
    m_abortButton = buttons->addButton(tr("Abort"), QDialogButtonBox::ActionRole);
    m_abortButton->setObjectName(QStringLiteral("abortButton"));
    buttons->addButton(QDialogButtonBox::Close);
    layout->addWidget(buttons);
    connect(m_exportButton, &QPushButton::clicked, this, &BatchExportDialog::startExport);
    connect(m_abortButton, &QPushButton::clicked, this, &BatchExportDialog::abortExport);
    connect(buttons, &QDialogButtonBox::rejected, this, &BatchExportDialog::reject);

    if (!files.isEmpty())
        m_options->setOutputFolder(QFileInfo(files.first()).absolutePath());
    addFiles(files);
    if (!hasExporters())
        m_status->setText(tr("No exporters are available."));
    updateButtons();
}

BatchExportDialog::~BatchExportDialog()
{
    if (m_thread) {
        m_worker->abort();
        m_thread->quit();
        m_thread->wait();
    }
    if (m_device && m_device->isValid())
        m_device->abortLoadFile();
    if (m_device) {
        const QString fileName = m_device->fileName();
        m_control.releaseDevice(*m_device);
        if (m_openedHere)
            closeRecording(fileName);
    }
}

void BatchExportDialog::closeRecording(const QString& fileName)
{
    // Each device of a recording is a file device of its own; all of them go.
    for (const NvDeviceId& id : m_control.mainDeviceIds()) {
        const NvDeviceRef device = m_control.libraryDeviceRef(id);
        NvString name;
        NvDevice_fileName(device, &name);
        if (NvDevice_isReadingFromFile(device) && QString::fromStdString(name) == fileName)
            m_control.closePort(id);
    }
}

bool BatchExportDialog::hasExporters() const
{
    return m_options->hasExporters();
}

void BatchExportDialog::addFiles(const QStringList& files)
{
    if (m_running)
        return;
    for (const QString& file : files) {
        const QString path = QFileInfo(file).absoluteFilePath();
        if (file.isEmpty() || m_files.contains(path))
            continue;
        m_files << path;
        m_list->addItem(path);
    }
    updateButtons();
}

int BatchExportDialog::addFolder(const QString& folder)
{
    const QDir dir(folder);
    QStringList found;
    for (const QFileInfo& info : dir.entryInfoList(RecordingPatterns, QDir::Files, QDir::Name)) {
        // Later parts of a split recording load with its first part.
        if (info.completeBaseName().contains(QRegularExpression(QStringLiteral("-\\d{3,}$"))) &&
            dir.exists(info.completeBaseName().section(QLatin1Char('-'), 0, -2) + QLatin1Char('.') +
                       info.suffix()))
            continue;
        found << info.absoluteFilePath();
    }
    const int before = int(m_files.size());
    addFiles(found);
    if (m_options->outputFolder().isEmpty())
        m_options->setOutputFolder(dir.absolutePath());
    return int(m_files.size()) - before;
}

void BatchExportDialog::setOutputFolder(const QString& folder)
{
    m_options->setOutputFolder(folder);
}

bool BatchExportDialog::setFormat(const QString& name)
{
    return m_options->setFormat(name);
}

void BatchExportDialog::setTimeColumns(ExportWorker::TimeColumns columns)
{
    m_options->setTimeColumns(columns);
}

QString BatchExportDialog::summaryText() const
{
    return m_summary->text();
}

void BatchExportDialog::updateButtons()
{
    m_exportButton->setEnabled(!m_running && hasExporters() && !m_files.isEmpty());
    m_abortButton->setEnabled(m_running);
    m_options->setEnabled(!m_running);
    m_addFilesButton->setEnabled(!m_running);
    m_addFolderButton->setEnabled(!m_running);
}

void BatchExportDialog::showOverall()
{
    m_overall->setRange(0, int(m_files.size()));
    m_overall->setValue(qMax(m_index, 0));
}

void BatchExportDialog::startExport()
{
    if (m_running || !hasExporters() || m_files.isEmpty())
        return;
    const QString folderProblem = m_options->checkOutputFolder();
    if (!folderProblem.isEmpty()) {
        QMessageBox::warning(this, windowTitle(), folderProblem);
        return;
    }
    m_written.clear();
    m_failures.clear();
    m_summary->clear();
    m_running = true;
    m_aborted = false;
    m_index = -1;
    updateButtons();
    processNext();
}

void BatchExportDialog::abortExport()
{
    if (!m_running)
        return;
    m_aborted = true;
    if (m_worker)
        m_worker->abort();
    else if (m_device) {
        m_device->abortLoadFile();
        finishFile(); // a stopped load reports nothing more
    }
}

void BatchExportDialog::processNext()
{
    ++m_index;
    showOverall();
    if (m_aborted || m_index >= m_files.size()) {
        finishBatch();
        return;
    }
    const QString path = m_files[m_index];
    m_status->setText(tr("Loading %1").arg(QFileInfo(path).fileName()));
    m_fileProgress->setValue(0);
    if (!QFileInfo(path).isFile()) {
        m_failures << tr("%1: the file does not exist").arg(path);
        processNext();
        return;
    }

    // The application may have the recording open: export it as it is and leave it open.
    m_openedHere = false;
    m_device = nullptr;
    for (const NvDeviceId& id : m_control.mainDeviceIds()) {
        if (!m_control.isReadingFromFile(id))
            continue;
        NdaDevice& existing = m_control.requestDevice(id);
        if (existing.isValid() && QFileInfo(existing.fileName()).absoluteFilePath() == path) {
            m_device = &existing;
            break;
        }
        m_control.releaseDevice(existing);
    }
    if (!m_device) {
        NdaDevice& opened = m_control.requestFileDevice(path);
        if (!opened.isValid()) {
            m_failures << tr("%1: Could not load file (%2)").arg(path, m_control.lastResultText());
            processNext();
            return;
        }
        m_device = &opened;
        m_openedHere = true;
    }
    if (NvDevice_isFileLoaded(m_device->libraryDevice())) {
        exportLoaded();
        return;
    }
    connect(m_device, &NdaDevice::fileLoadingProgressChanged, this,
            [this](NdaDevice&, int current, int total) {
                m_fileProgress->setValue(total > 0 ? current * 100 / total : 0);
            });
    connect(m_device, &NdaDevice::fileLoadingCompleted, this, &BatchExportDialog::handleFileLoaded);
    connect(m_device, &NdaCallback::error, this, &BatchExportDialog::handleLoadError);
    if (!m_device->loadLogFile() && m_device) {
        m_failures << tr("%1: Failed to load file (%2)").arg(path, m_control.lastResultText());
        finishFile();
    }
}

void BatchExportDialog::handleFileLoaded(NdaDevice& device, int result)
{
    if (&device != m_device || m_worker)
        return;
    if (!NvDevice_isFileLoaded(device.libraryDevice())) {
        if (!m_aborted)
            m_failures << tr("%1: Failed to load file (%2)")
                              .arg(m_files[m_index], QString::fromUtf8(NvResultValue_toString(
                                                         NvResultValue(result))));
        finishFile();
        return;
    }
    exportLoaded();
}

void BatchExportDialog::handleLoadError()
{
    if (!m_device || m_worker || NvDevice_isFileLoaded(m_device->libraryDevice()))
        return;
    m_failures << tr("%1: Failed to load file").arg(m_files[m_index]);
    finishFile();
}

void BatchExportDialog::exportLoaded()
{
    disconnect(m_device, nullptr, this, nullptr);
    m_worker = std::make_unique<ExportWorker>(m_control);
    m_worker->setExporterFactory(m_options->factory());
    m_worker->setFileName(m_device->fileName());
    m_worker->setOutputFolder(m_options->outputFolder());
    m_worker->setOptions(m_options->exporterOptions());
    m_worker->setTimeColumns(m_options->timeColumns());
    m_thread = new QThread(this);
    m_worker->moveToThread(m_thread);
    connect(m_thread, &QThread::started, m_worker.get(), &ExportWorker::run);
    connect(m_worker.get(), &ExportWorker::progressChanged, m_fileProgress,
            &QProgressBar::setValue);
    connect(m_worker.get(), &ExportWorker::progressTextChanged, m_status, &QLabel::setText);
    connect(m_worker.get(), &ExportWorker::finished, this,
            &BatchExportDialog::handleWorkerFinished);
    m_thread->start();
}

void BatchExportDialog::handleWorkerFinished()
{
    if (!m_thread)
        return;
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
    m_thread = nullptr;
    m_written << m_worker->writtenFiles();
    const QString name = QFileInfo(m_files[m_index]).fileName();
    for (const QString& failure : m_worker->failures())
        m_failures << name + QStringLiteral(": ") +
                          QString(failure).replace(QLatin1Char('\n'), QStringLiteral(" "));
    if (m_worker->outcome() == ExportWorker::Aborted)
        m_aborted = true;
    m_worker.reset();
    finishFile();
}

void BatchExportDialog::finishFile()
{
    if (m_device) {
        disconnect(m_device, nullptr, this, nullptr);
        NdaDevice* device = m_device;
        m_device = nullptr;
        const QString fileName = device->fileName();
        m_control.releaseDevice(*device);
        if (m_openedHere)
            closeRecording(fileName);
    }
    m_openedHere = false;
    // Queued: the next file opens after the signals of this one have been handled.
    QMetaObject::invokeMethod(this, &BatchExportDialog::processNext, Qt::QueuedConnection);
}

void BatchExportDialog::finishBatch()
{
    m_running = false;
    m_device = nullptr;
    updateButtons();
    m_fileProgress->setValue(m_aborted ? m_fileProgress->value() : 100);
    QString summary = tr("%n file(s) written.", nullptr, int(m_written.size()));
    if (m_aborted)
        summary += QLatin1Char(' ') + tr("Aborted.");
    if (!m_failures.isEmpty())
        summary += QLatin1Char('\n') + tr("Failed:") + QLatin1Char('\n') +
                   m_failures.join(QLatin1Char('\n'));
    m_summary->setText(summary);
    m_status->setText(m_aborted ? tr("Export aborted") : tr("Export finished"));
    emit batchFinished(int(m_written.size()), int(m_failures.size()));
    if (m_closeWhenDone)
        QDialog::reject();
}

void BatchExportDialog::reject()
{
    if (m_running) {
        m_closeWhenDone = true;
        abortExport();
        return;
    }
    QDialog::reject();
}
