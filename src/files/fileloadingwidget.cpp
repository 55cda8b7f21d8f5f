#include "fileloadingwidget.h"

#include <QFileInfo>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

FileLoadingWidget::FileLoadingWidget(QWidget* parent)
    : QWidget(parent), m_file(new QLabel(this)), m_bar(new QProgressBar(this)),
      m_elapsed(new QLabel(this)), m_remaining(new QLabel(this)),
      m_abort(new QPushButton(tr("Abort"), this)), m_reload(new QPushButton(tr("Reload"), this)),
      m_stop(new QPushButton(tr("Stop"), this)), m_clock(new QTimer(this))
{
    m_file->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_file->setMinimumWidth(360);
    m_bar->setRange(0, 100);
    m_bar->setValue(0);
    m_abort->setToolTip(tr("Stop loading and close the file"));
    m_reload->setToolTip(tr("Load the file again from the start"));
    m_stop->setToolTip(tr("Stop loading and keep the file open"));

    auto* times = new QGridLayout;
    times->addWidget(new QLabel(tr("Elapsed:"), this), 0, 0);
    times->addWidget(m_elapsed, 0, 1);
    times->addWidget(new QLabel(tr("Remaining:"), this), 1, 0);
    times->addWidget(m_remaining, 1, 1);
    times->setColumnStretch(2, 1);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(m_reload);
    buttons->addWidget(m_stop);
    buttons->addWidget(m_abort);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_file);
    layout->addWidget(m_bar);
    layout->addLayout(times);
    layout->addLayout(buttons);

    connect(m_abort, &QPushButton::clicked, this, &FileLoadingWidget::cancelled);
    connect(m_reload, &QPushButton::clicked, this, &FileLoadingWidget::reload);
    connect(m_stop, &QPushButton::clicked, this, &FileLoadingWidget::stopped);
    // The elapsed time moves on between progress reports.
    m_clock->setInterval(500);
    connect(m_clock, &QTimer::timeout, this, &FileLoadingWidget::updateTimes);
    finish();
}

FileLoadingWidget::~FileLoadingWidget() = default;

void FileLoadingWidget::start(const QString& fileName)
{
    m_file->setText(tr("Loading %1").arg(QFileInfo(fileName).fileName()));
    m_file->setToolTip(fileName);
    m_current = 0;
    m_total = 0;
    m_bar->setValue(0);
    m_started.start();
    m_finishedMs = 0;
    m_running = true;
    m_clock->start();
    for (QPushButton* b : {m_abort, m_reload, m_stop})
        b->setEnabled(true);
    updateTimes();
}

void FileLoadingWidget::setProgress(int current, int total)
{
    m_current = std::max(current, 0);
    m_total = std::max(total, 0);
    m_bar->setValue(percent());
    updateTimes();
}

void FileLoadingWidget::finish()
{
    if (m_running)
        m_finishedMs = m_started.elapsed();
    m_running = false;
    m_clock->stop();
    for (QPushButton* b : {m_abort, m_reload, m_stop})
        b->setEnabled(false);
    updateTimes();
}

int FileLoadingWidget::percent() const
{
    if (m_total <= 0)
        return 0;
    return int(std::clamp<qint64>(qint64(m_current) * 100 / m_total, 0, 100));
}

qint64 FileLoadingWidget::remainingMs() const
{
    if (!m_started.isValid())
        return -1;
    if (m_total > 0 && m_current >= m_total)
        return 0;
    if (!m_running || m_current <= 0 || m_total <= 0)
        return -1;
    const qint64 elapsed = m_started.elapsed();
    return elapsed * (m_total - m_current) / m_current;
}

QString FileLoadingWidget::elapsedText() const
{
    if (!m_started.isValid())
        return formatDuration(0);
    return formatDuration(m_running ? m_started.elapsed() : m_finishedMs);
}

QString FileLoadingWidget::remainingText() const
{
    return formatDuration(remainingMs());
}

QString FileLoadingWidget::formatDuration(qint64 ms)
{
    if (ms < 0)
        return QStringLiteral("--:--");
    const qint64 seconds = (ms + 500) / 1000;
    const qint64 h = seconds / 3600;
    const qint64 m = (seconds / 60) % 60;
    const qint64 s = seconds % 60;
    if (h > 0)
        return QStringLiteral("%1:%2:%3")
            .arg(h)
            .arg(m, 2, 10, QLatin1Char('0'))
            .arg(s, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1:%2").arg(m).arg(s, 2, 10, QLatin1Char('0'));
}

void FileLoadingWidget::updateTimes()
{
    m_elapsed->setText(elapsedText());
    m_remaining->setText(remainingText());
}

FileLoadingDialog::FileLoadingDialog(QWidget* parent)
    : QDialog(parent), m_widget(new FileLoadingWidget(this))
{
    setWindowTitle(tr("Loading File"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_widget);
    connect(m_widget, &FileLoadingWidget::cancelled, this, &FileLoadingDialog::cancelled);
    connect(m_widget, &FileLoadingWidget::reload, this, &FileLoadingDialog::reload);
    connect(m_widget, &FileLoadingWidget::stopped, this, &FileLoadingDialog::stopped);
}

void FileLoadingDialog::reject()
{
    if (m_widget->isRunning())
        emit cancelled();
    QDialog::reject();
}
