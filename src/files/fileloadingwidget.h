#pragma once
// Progress of a recording being loaded: a bar, the time spent and the time still to go,
// and the buttons that give up (Abort), start over (Reload) or stop loading but keep the
// file open (Stop).

#include <QDialog>
#include <QElapsedTimer>
#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;
class QTimer;

class FileLoadingWidget : public QWidget
{
    Q_OBJECT

public:
    explicit FileLoadingWidget(QWidget* parent = nullptr);
    ~FileLoadingWidget() override;

    // A fresh run for `fileName`: progress 0, clock from now, buttons enabled.
    void start(const QString& fileName);
    void setProgress(int current, int total);
    // Loading has ended (any way): the clock stops, the buttons go dark.
    void finish();

    int percent() const;
    bool isRunning() const { return m_running; }
    QString elapsedText() const;
    QString remainingText() const;
    // "m:ss", or "h:mm:ss" from an hour on; "--:--" for an unknown (negative) time.
    static QString formatDuration(qint64 ms);

    QProgressBar* progressBar() const { return m_bar; }
    QPushButton* abortButton() const { return m_abort; }
    QPushButton* reloadButton() const { return m_reload; }
    QPushButton* stopButton() const { return m_stop; }

signals:
    void cancelled();
    void reload();
    void stopped();

private:
    void updateTimes();
    // Milliseconds still to go, from the pace so far; -1 while that cannot be told.
    qint64 remainingMs() const;

    QLabel* m_file = nullptr;
    QProgressBar* m_bar = nullptr;
    QLabel* m_elapsed = nullptr;
    QLabel* m_remaining = nullptr;
    QPushButton* m_abort = nullptr;
    QPushButton* m_reload = nullptr;
    QPushButton* m_stop = nullptr;
    QTimer* m_clock = nullptr;
    QElapsedTimer m_started;
    qint64 m_finishedMs = 0;
    int m_current = 0;
    int m_total = 0;
    bool m_running = false;
};

class FileLoadingDialog : public QDialog
{
    Q_OBJECT

public:
    explicit FileLoadingDialog(QWidget* parent = nullptr);

    FileLoadingWidget* widget() const { return m_widget; }

signals:
    void cancelled();
    void reload();
    void stopped();

public slots:
    // Escape and the window's close button abort the loading like the Abort button.
    void reject() override;

private:
    FileLoadingWidget* m_widget = nullptr;
};
