#include "exportdialog.h"

#include "ndacontrol.h"
#include "pluginmanager.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QThread>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>
#include <limits>
#include <map>

namespace {

const char* const NoExportersText =
    QT_TRANSLATE_NOOP("ExportDialog", "No exporters are available.");

// The file devices reading `fileName`, referenced.
std::vector<NvDeviceRef> fileDevices(NdaControl& control, const QString& fileName)
{
    std::vector<NvDeviceRef> out;
    NvDeviceIdArray ids;
    NvControl_deviceIds(control.libraryControl(), &ids);
    const NvString wanted = fileName.toStdString();
    for (const NvDeviceId& id : ids) {
        NvDeviceRef device = nvDeviceRef(control.libraryControl(), id);
        NvString name;
        NvDevice_fileName(device, &name);
        if (device && NvDevice_isReadingFromFile(device) && name == wanted)
            out.push_back(std::move(device));
    }
    return out;
}

// The items a recording's devices send (identifier as sent, by quantity) and the longest
// device time it spans. The items come from the devices' descriptions and a look at the
// first samples: enough to offer a choice without reading a large file on the GUI thread.
struct RecordingSummary
{
    std::map<quint16, quint16> items;
    double seconds = 0;
};

RecordingSummary summarize(NdaControl& control, const QString& fileName)
{
    constexpr int64_t Look = 2000;
    RecordingSummary summary;
    for (const NvDeviceRef& device : fileDevices(control, fileName)) {
        NvOutputConfigurationArray config;
        NvDevice_outputConfiguration(device, &config);
        for (const NvOutputConfiguration& c : config)
            summary.items.emplace(nvQuantity(c.dataIdentifier), c.dataIdentifier);
        const int64_t count = NvDevice_packetCount(device);
        NvDataPacket packet;
        for (int64_t i = 0; i < std::min(count, Look); ++i) {
            if (!NvDevice_dataPacketByIndex(device, i, &packet))
                continue;
            for (size_t k = 0; k < packet.itemCount(); ++k)
                summary.items.emplace(nvQuantity(packet.item(k).id), packet.item(k).id);
        }
        NvDataPacket first, last;
        if (count > 0 && NvDevice_dataPacketByIndex(device, 0, &first) &&
            NvDevice_dataPacketByIndex(device, count - 1, &last) &&
            first.contains(NDI_SAMPLE_TIME_FINE) && last.contains(NDI_SAMPLE_TIME_FINE)) {
            const uint32_t ticks = last.sampleTimeFine() - first.sampleTimeFine();
            summary.seconds = std::max(summary.seconds, ticks / 10000.0);
        }
    }
    return summary;
}

} // namespace

// ---------------------------------------------------------------------------- Options

ExportOptionsWidget::ExportOptionsWidget(PluginManager& plugins, QWidget* parent)
    : QWidget(parent), m_factories(plugins.pluginsOf<AbstractExporterFactory>())
{
    auto* form = new QFormLayout(this);
    form->setContentsMargins(0, 0, 0, 0);
    m_noExporters = new QLabel(QCoreApplication::translate("ExportDialog", NoExportersText), this);
    m_noExporters->setObjectName(QStringLiteral("noExportersLabel"));
    m_noExporters->setVisible(m_factories.isEmpty());
    form->addRow(m_noExporters);

    m_format = new QComboBox(this);
    m_format->setObjectName(QStringLiteral("formatCombo"));
    for (const AbstractExporterFactory* f : m_factories) {
        m_format->addItem(f->name());
        m_format->setItemData(m_format->count() - 1, f->description(), Qt::ToolTipRole);
    }
    m_format->setEnabled(!m_factories.isEmpty());
    form->addRow(tr("Format:"), m_format);

    auto* folderRow = new QHBoxLayout;
    m_folder = new QLineEdit(this);
    m_folder->setObjectName(QStringLiteral("folderEdit"));
    auto* browse = new QToolButton(this);
    browse->setText(QStringLiteral("…"));
    folderRow->addWidget(m_folder);
    folderRow->addWidget(browse);
    form->addRow(tr("Output folder:"), folderRow);
    connect(browse, &QToolButton::clicked, this, [this] {
        const QString folder =
            QFileDialog::getExistingDirectory(this, tr("Output folder"), m_folder->text());
        if (!folder.isEmpty())
            m_folder->setText(folder);
    });

    m_separator = new QComboBox(this);
    m_separator->setObjectName(QStringLiteral("separatorCombo"));
    m_separator->addItem(tr("Comma"), QStringLiteral("comma"));
    m_separator->addItem(tr("Tab"), QStringLiteral("tab"));
    form->addRow(tr("Separator:"), m_separator);

    m_time = new QComboBox(this);
    m_time->setObjectName(QStringLiteral("timeCombo"));
    m_time->addItem(tr("Sample time of the device"), int(ExportWorker::SampleTimeColumn));
    m_time->addItem(tr("Arrival time at the host (UTC)"), int(ExportWorker::HostTimeColumn));
    m_time->addItem(tr("Both"), int(ExportWorker::BothTimeColumns));
    form->addRow(tr("Time column:"), m_time);

    connect(m_format, &QComboBox::currentIndexChanged, this, [this] {
        updateSeparator();
        emit changed();
    });
    connect(m_folder, &QLineEdit::textChanged, this, &ExportOptionsWidget::changed);
    updateSeparator();
}

AbstractExporterFactory* ExportOptionsWidget::factory() const
{
    const int i = m_format->currentIndex();
    return i >= 0 && i < m_factories.size() ? m_factories[i] : nullptr;
}

bool ExportOptionsWidget::setFormat(const QString& name)
{
    const int i = m_format->findText(name, Qt::MatchFixedString);
    if (i < 0)
        return false;
    m_format->setCurrentIndex(i);
    return true;
}

QString ExportOptionsWidget::outputFolder() const
{
    return m_folder->text().trimmed();
}

void ExportOptionsWidget::setOutputFolder(const QString& folder)
{
    m_folder->setText(QDir::toNativeSeparators(folder));
}

ExportWorker::TimeColumns ExportOptionsWidget::timeColumns() const
{
    return ExportWorker::TimeColumns(m_time->currentData().toInt());
}

void ExportOptionsWidget::setTimeColumns(ExportWorker::TimeColumns columns)
{
    m_time->setCurrentIndex(m_time->findData(int(columns)));
}

QVariantMap ExportOptionsWidget::exporterOptions() const
{
    return {{ExportOption::Separator, m_separator->currentData()}};
}

QString ExportOptionsWidget::checkOutputFolder() const
{
    const QString folder = outputFolder();
    if (folder.isEmpty())
        return tr("Choose an output folder.");
    const QFileInfo info(folder);
    if (!info.isDir())
        return tr("The output folder %1 does not exist.").arg(folder);
    if (!info.isWritable())
        return tr("The output folder %1 is not writable.").arg(folder);
    return {};
}

void ExportOptionsWidget::updateSeparator()
{
    const AbstractExporterFactory* f = factory();
    m_separator->setEnabled(f && f->supportedOptions().contains(ExportOption::Separator));
}

// ---------------------------------------------------------------------------- Dialog

ExportDialog::ExportDialog(NdaControl& control, PluginManager& plugins, const QString& fileName,
                           QWidget* parent)
    : QDialog(parent), m_control(control), m_fileName(fileName)
{
    setWindowTitle(tr("Export %1").arg(QFileInfo(fileName).fileName()));
    auto* layout = new QVBoxLayout(this);
    m_options = new ExportOptionsWidget(plugins, this);
    m_options->setOutputFolder(QFileInfo(fileName).absolutePath());
    layout->addWidget(m_options);

    const RecordingSummary summary = summarize(control, fileName);
    auto* range = new QFormLayout;
    m_wholeRange = new QCheckBox(tr("Whole recording"), this);
    m_wholeRange->setChecked(true);
    m_from = new QDoubleSpinBox(this);
    m_to = new QDoubleSpinBox(this);
    for (QDoubleSpinBox* box : {m_from, m_to}) {
        box->setDecimals(3);
        box->setSuffix(tr(" s"));
        box->setRange(0, summary.seconds > 0 ? summary.seconds : 1e9);
        box->setEnabled(false);
    }
    m_to->setValue(m_to->maximum());
    range->addRow(tr("Time range:"), m_wholeRange);
    range->addRow(tr("From:"), m_from);
    range->addRow(tr("To:"), m_to);
    layout->addLayout(range);
    connect(m_wholeRange, &QCheckBox::toggled, this, [this](bool whole) {
        m_from->setEnabled(!whole);
        m_to->setEnabled(!whole);
    });

    layout->addWidget(new QLabel(tr("Quantities:"), this));
    m_quantities = new QListWidget(this);
    m_quantities->setObjectName(QStringLiteral("quantityList"));
    for (const auto& [quantity, id] : summary.items) {
        const ExportItem item = ExportWorker::describeItem(id);
        if (item.valueNames.isEmpty())
            continue;
        auto* row = new QListWidgetItem(item.name, m_quantities);
        row->setData(Qt::UserRole, int(quantity));
        row->setFlags(row->flags() | Qt::ItemIsUserCheckable);
        row->setCheckState(Qt::Checked);
    }
    layout->addWidget(m_quantities);

    m_progress = new QProgressBar(this);
    m_progress->setRange(0, 100);
    m_progress->setValue(0);
    layout->addWidget(m_progress);
    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("statusLabel"));
    m_status->setWordWrap(true);
    layout->addWidget(m_status);

    m_buttons = new QDialogButtonBox(this);
    m_exportButton = m_buttons->addButton(tr("Export"), QDialogButtonBox::ActionRole);
    m_exportButton->setObjectName(QStringLiteral("exportButton"));
    m_abortButton = m_buttons->addButton(tr("Abort"), QDialogButtonBox::ActionRole);
    m_abortButton->setObjectName(QStringLiteral("abortButton"));
    m_buttons->addButton(QDialogButtonBox::Close);
    layout->addWidget(m_buttons);
    connect(m_exportButton, &QPushButton::clicked, this, &ExportDialog::startExport);
    connect(m_abortButton, &QPushButton::clicked, this, &ExportDialog::abortExport);
    connect(m_buttons, &QDialogButtonBox::rejected, this, &ExportDialog::reject);
    connect(m_options, &ExportOptionsWidget::changed, this, &ExportDialog::updateButtons);
    if (!hasExporters())
        m_status->setText(tr(NoExportersText));
    updateButtons();
}

ExportDialog::~ExportDialog()
{
    if (m_thread) {
        m_worker->abort();
        m_thread->quit();
        m_thread->wait();
    }
}

bool ExportDialog::hasExporters() const
{
    return m_options->hasExporters();
}

QString ExportDialog::outputFolder() const
{
    return m_options->outputFolder();
}

void ExportDialog::setOutputFolder(const QString& folder)
{
    m_options->setOutputFolder(folder);
}

bool ExportDialog::setFormat(const QString& name)
{
    return m_options->setFormat(name);
}

void ExportDialog::setTimeColumns(ExportWorker::TimeColumns columns)
{
    m_options->setTimeColumns(columns);
}

void ExportDialog::setTimeRange(double from, double to)
{
    m_wholeRange->setChecked(false);
    m_from->setValue(from);
    m_to->setValue(to);
}

void ExportDialog::setQuantities(const std::set<quint16>& quantities)
{
    for (int i = 0; i < m_quantities->count(); ++i) {
        QListWidgetItem* row = m_quantities->item(i);
        const quint16 q = quint16(row->data(Qt::UserRole).toInt());
        row->setCheckState(quantities.count(nvQuantity(NvDataIdentifier(q))) ? Qt::Checked
                                                                             : Qt::Unchecked);
    }
}

QString ExportDialog::statusText() const
{
    return m_status->text();
}

void ExportDialog::updateButtons()
{
    const bool running = isRunning();
    m_exportButton->setEnabled(!running && hasExporters());
    m_abortButton->setEnabled(running);
    m_options->setEnabled(!running);
    m_quantities->setEnabled(!running);
}

void ExportDialog::startExport()
{
    if (isRunning() || !hasExporters())
        return;
    const QString folderProblem = m_options->checkOutputFolder();
    if (!folderProblem.isEmpty()) {
        QMessageBox::warning(this, windowTitle(), folderProblem);
        return;
    }
    std::set<quint16> quantities;
    bool all = true;
    for (int i = 0; i < m_quantities->count(); ++i) {
        const QListWidgetItem* row = m_quantities->item(i);
        if (row->checkState() == Qt::Checked)
            quantities.insert(quint16(row->data(Qt::UserRole).toInt()));
        else
            all = false;
    }
    if (!all && quantities.empty()) {
        QMessageBox::warning(this, windowTitle(), tr("Choose at least one quantity."));
        return;
    }

    m_written.clear();
    m_failures.clear();
    m_worker = std::make_unique<ExportWorker>(m_control);
    m_worker->setExporterFactory(m_options->factory());
    m_worker->setFileName(m_fileName);
    m_worker->setOutputFolder(m_options->outputFolder());
    m_worker->setOptions(m_options->exporterOptions());
    m_worker->setTimeColumns(m_options->timeColumns());
    if (!all)
        m_worker->setQuantities(quantities);
    if (!m_wholeRange->isChecked())
        m_worker->setTimeRange(m_from->value(), m_to->value());

    m_thread = new QThread(this);
    m_worker->moveToThread(m_thread);
    connect(m_thread, &QThread::started, m_worker.get(), &ExportWorker::run);
    connect(m_worker.get(), &ExportWorker::progressChanged, m_progress, &QProgressBar::setValue);
    connect(m_worker.get(), &ExportWorker::progressTextChanged, m_status, &QLabel::setText);
    connect(m_worker.get(), &ExportWorker::finished, this, &ExportDialog::handleWorkerFinished);
    m_progress->setValue(0);
    updateButtons();
    m_thread->start();
}

void ExportDialog::abortExport()
{
    if (m_worker)
        m_worker->abort();
}

void ExportDialog::handleWorkerFinished()
{
    if (!m_thread)
        return;
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
    m_thread = nullptr;
    const ExportWorker::Outcome outcome = m_worker->outcome();
    m_written = m_worker->writtenFiles();
    m_failures = m_worker->failures();
    m_worker.reset();
    updateButtons();

    switch (outcome) {
    case ExportWorker::Completed:
        m_status->setText(tr("Exported to %1").arg(m_written.join(QStringLiteral(", "))));
        break;
    case ExportWorker::Aborted:
        m_status->setText(tr("Export aborted"));
        break;
    default:
        m_status->setText(m_failures.value(0));
        break;
    }
    emit exportFinished(outcome == ExportWorker::Completed);
    if (m_closeWhenDone) {
        QDialog::reject();
        return;
    }
    if (outcome == ExportWorker::Failed)
        QMessageBox::warning(this, windowTitle(), m_failures.join(QStringLiteral("\n\n")));
}

void ExportDialog::reject()
{
    if (isRunning()) {
        // Closes once the worker has stopped: its thread must not outlive the dialog.
        m_closeWhenDone = true;
        abortExport();
        return;
    }
    QDialog::reject();
}
