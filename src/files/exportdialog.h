#pragma once
// Exports a loaded recording through one of the exporter plug-ins: format, output folder,
// separator, time column, time range and quantities, then the export itself on a thread
// of its own with a progress bar and Abort. Closing the dialog while it runs aborts it.

#include "exportworker.h"

#include <QDialog>

#include <memory>

class AbstractExporterFactory;
class NdaControl;
class PluginManager;
class QCheckBox;
class QComboBox;
class QDialogButtonBox;
class QDoubleSpinBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QThread;

// The choices both export dialogs offer, and the worker set up from them.
class ExportOptionsWidget;

class ExportDialog : public QDialog
{
    Q_OBJECT

public:
    // `fileName`: the recording as opened (NdaDevice::fileName of its file devices),
    // loaded.
    ExportDialog(NdaControl& control, PluginManager& plugins, const QString& fileName,
                 QWidget* parent = nullptr);
    ~ExportDialog() override;

    bool hasExporters() const;
    bool isRunning() const { return m_thread != nullptr; }
    QString outputFolder() const;
    void setOutputFolder(const QString& folder);
    // Selects a format by its name; false when there is none of that name.
    bool setFormat(const QString& name);
    void setTimeColumns(ExportWorker::TimeColumns columns);
    // Limits the export to [from, to] seconds after the first sample.
    void setTimeRange(double from, double to);
    // Ticks only these quantities (format bits ignored) in the list.
    void setQuantities(const std::set<quint16>& quantities);
    // What the last export wrote and what failed in it.
    QStringList writtenFiles() const { return m_written; }
    QStringList failures() const { return m_failures; }
    QString statusText() const;

public slots:
    void startExport();
    void abortExport();
    // While an export runs: aborts it and closes once it has stopped.
    void reject() override;

signals:
    // An export ended; `ok` when every device was written.
    void exportFinished(bool ok);

private slots:
    void handleWorkerFinished();

private:
    void updateButtons();

    NdaControl& m_control;
    QString m_fileName;
    ExportOptionsWidget* m_options = nullptr;
    QListWidget* m_quantities = nullptr;
    QCheckBox* m_wholeRange = nullptr;
    QDoubleSpinBox* m_from = nullptr;
    QDoubleSpinBox* m_to = nullptr;
    QProgressBar* m_progress = nullptr;
    QLabel* m_status = nullptr;
    QPushButton* m_exportButton = nullptr;
    QPushButton* m_abortButton = nullptr;
    QDialogButtonBox* m_buttons = nullptr;
    QThread* m_thread = nullptr;
    std::unique_ptr<ExportWorker> m_worker;
    QStringList m_written;
    QStringList m_failures;
    bool m_closeWhenDone = false;
};

// Format, output folder, separator and time column (shared by the single and the batch
// export).
class ExportOptionsWidget : public QWidget
{
    Q_OBJECT

public:
    ExportOptionsWidget(PluginManager& plugins, QWidget* parent = nullptr);
    bool hasExporters() const { return !m_factories.isEmpty(); }
    AbstractExporterFactory* factory() const;
    bool setFormat(const QString& name);
    QString outputFolder() const;
    void setOutputFolder(const QString& folder);
    ExportWorker::TimeColumns timeColumns() const;
    void setTimeColumns(ExportWorker::TimeColumns columns);
    QVariantMap exporterOptions() const;
    // Checks the output folder; an empty text when it will do.
    QString checkOutputFolder() const;

signals:
    void changed();

private:
    void updateSeparator();

    QList<AbstractExporterFactory*> m_factories;
    QLabel* m_noExporters = nullptr;
    QComboBox* m_format = nullptr;
    QLineEdit* m_folder = nullptr;
    QComboBox* m_separator = nullptr;
    QComboBox* m_time = nullptr;
};
