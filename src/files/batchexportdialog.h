#pragma once
// Exports many recordings one after another: each is opened as a file device (or taken as
// it is when the application has it open already), loaded, exported on a worker thread
// and closed again. One progress view for all; a summary says what was written and what
// failed, and a file that fails does not stop the others.

#include "exportworker.h"

#include <QDialog>

#include <memory>

class ExportOptionsWidget;
class NdaControl;
class NdaDevice;
class PluginManager;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QThread;

class BatchExportDialog : public QDialog
{
    Q_OBJECT

public:
    BatchExportDialog(NdaControl& control, PluginManager& plugins, const QStringList& files,
                      QWidget* parent = nullptr);
    ~BatchExportDialog() override;

    bool hasExporters() const;
    bool isRunning() const { return m_running; }
    QStringList files() const { return m_files; }
    void addFiles(const QStringList& files);
    // Adds the recordings (kvb, bin, nm) of a folder; how many were added.
    int addFolder(const QString& folder);
    void setOutputFolder(const QString& folder);
    bool setFormat(const QString& name);
    void setTimeColumns(ExportWorker::TimeColumns columns);
    // What the last run wrote, and one text per failed recording or device.
    QStringList writtenFiles() const { return m_written; }
    QStringList failures() const { return m_failures; }
    QString summaryText() const;

public slots:
    void startExport();
    void abortExport();
    // While an export runs: aborts it and closes once it has stopped.
    void reject() override;

signals:
    void batchFinished(int written, int failed);

private slots:
    void handleFileLoaded(NdaDevice& device, int result);
    void handleLoadError();
    void handleWorkerFinished();

private:
    void processNext();
    void exportLoaded();
    void finishFile();
    void finishBatch();
    void closeRecording(const QString& fileName);
    void updateButtons();
    void showOverall();

    NdaControl& m_control;
    ExportOptionsWidget* m_options = nullptr;
    QListWidget* m_list = nullptr;
    QProgressBar* m_fileProgress = nullptr;
    QProgressBar* m_overall = nullptr;
    QLabel* m_status = nullptr;
    QLabel* m_summary = nullptr;
    QPushButton* m_exportButton = nullptr;
    QPushButton* m_abortButton = nullptr;
    QPushButton* m_addFilesButton = nullptr;
    QPushButton* m_addFolderButton = nullptr;

    QStringList m_files;
    QStringList m_written;
    QStringList m_failures;
    int m_index = -1;
    bool m_running = false;
    bool m_aborted = false;
    bool m_closeWhenDone = false;
    // The recording being worked on.
    NdaDevice* m_device = nullptr; // requested here; null while none
    bool m_openedHere = false;
    QThread* m_thread = nullptr;
    std::unique_ptr<ExportWorker> m_worker;
};
