#include "messageviewers.h"

#include "ndadevice.h"

#include "nvmessage.h"

#include <QDateTime>
#include <QFile>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QTextStream>
#include <QToolButton>
#include <QVBoxLayout>

MessageLogViewer::MessageLogViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : PacketViewer(manager, id, type)
{
    auto* w = new QWidget;
    auto* layout = new QVBoxLayout(w);
    layout->setContentsMargins(2, 2, 2, 2);
    auto* bar = new QHBoxLayout;
    m_pause = new QToolButton;
    m_pause->setText(tr("Pause"));
    m_pause->setCheckable(true);
    m_pause->setToolTip(tr("Hold new lines back until resumed"));
    connect(m_pause, &QToolButton::toggled, this, &MessageLogViewer::setPaused);
    auto* clearButton = new QToolButton;
    clearButton->setText(tr("Clear"));
    connect(clearButton, &QToolButton::clicked, this, &MessageLogViewer::clear);
    auto* saveButton = new QToolButton;
    saveButton->setText(tr("Save..."));
    connect(saveButton, &QToolButton::clicked, this, &MessageLogViewer::save);
    m_count = new QLabel;
    bar->addWidget(m_pause);
    bar->addWidget(clearButton);
    bar->addWidget(saveButton);
    bar->addStretch();
    bar->addWidget(m_count);
    layout->addLayout(bar);
    m_text = new QPlainTextEdit;
    m_text->setReadOnly(true);
    m_text->setMaximumBlockCount(MaximumLines);
    m_text->setLineWrapMode(QPlainTextEdit::NoWrap);
    m_text->setFont(QFont(QStringLiteral("monospace")));
    layout->addWidget(m_text);
    setWidget(w);
}

void MessageLogViewer::addLine(const QString& text)
{
    ++m_total;
    const QString line = QStringLiteral("%1  %2").arg(
        QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")), text);
    if (m_paused) {
        m_held.append(line);
        while (m_held.size() > MaximumLines)
            m_held.removeFirst();
    } else {
        m_text->appendPlainText(line);
    }
    m_count->setText(tr("%n message(s)", nullptr, static_cast<int>(m_total)));
}

QStringList MessageLogViewer::lines() const
{
    QString all = m_text->toPlainText();
    return all.isEmpty() ? QStringList() : all.split(QLatin1Char('\n'));
}

void MessageLogViewer::setPaused(bool paused)
{
    if (paused == m_paused)
        return;
    m_paused = paused;
    if (m_pause->isChecked() != paused)
        m_pause->setChecked(paused);
    m_pause->setText(paused ? tr("Resume") : tr("Pause"));
    if (!paused) {
        for (const QString& line : qAsConst(m_held))
            m_text->appendPlainText(line);
        m_held.clear();
    }
}

void MessageLogViewer::clear()
{
    m_text->clear();
    m_held.clear();
    m_total = 0;
    m_count->clear();
}

bool MessageLogViewer::saveTo(const QString& fileName, QString* error) const
{
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    QTextStream out(&file);
    out << m_text->toPlainText() << '\n';
    out.flush();
    if (file.error() != QFileDevice::NoError) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

void MessageLogViewer::save()
{
    const QString name = QFileDialog::getSaveFileName(widget(), tr("Save Messages"), QString(),
                                                      tr("Text files (*.txt);;All files (*)"));
    if (name.isEmpty())
        return;
    QString error;
    if (!saveTo(name, &error))
        QMessageBox::critical(widget(), tr("Error"),
                              tr("Failed to save the messages to '%1': %2").arg(name, error));
}

// ---- NDAMessageDataViewer

NDAMessageDataViewer::NDAMessageDataViewer(ViewManager& manager, const NvDeviceId& id,
                                           ViewType type)
    : MessageLogViewer(manager, id, type)
{
    if (!isDeviceValid())
        return;
    NdaDevice* dev = devicePtr();
    connect(dev, &NdaCallback::error, this, [this](const NvDeviceId&, NvResultValue r) {
        addLine(tr("Error %1: %2").arg(r).arg(QString::fromUtf8(NvResultValue_toString(r))));
    });
    connect(dev, &NdaCallback::warning, this, [this](const NvDeviceId&, NvResultValue r) {
        addLine(tr("Warning %1: %2").arg(r).arg(QString::fromUtf8(NvResultValue_toString(r))));
    });
    connect(dev, &NdaCallback::samplesMissed, this, [this](const NvDeviceId&, int count) {
        addLine(tr("%n sample(s) missed", nullptr, count));
    });
    connect(dev, &NdaCallback::dataUnavailable, this, [this](const NvDeviceId&, int packet) {
        addLine(tr("Packet %1 unavailable").arg(packet));
    });
    connect(dev, &NdaCallback::wakeupReceived, this,
            [this](const NvDeviceId&) { addLine(tr("Device has reset (wake-up)")); });
    connect(dev, &NdaCallback::deviceStateChange, this,
            [this](const NvDeviceId&, NdaDeviceState::Type now, NdaDeviceState::Type before) {
                addLine(tr("State: %1 -> %2")
                            .arg(NdaDeviceState::toString(before), NdaDeviceState::toString(now)));
            });
    connect(dev, &NdaDevice::progressChanged, this, [this](NdaDevice&, int current, int total) {
        addLine(tr("Progress %1 of %2").arg(current).arg(total));
    });
    connect(dev, &NdaDevice::flushingProgressChanged, this,
            [this](NdaDevice&, int current, int total) {
                addLine(tr("Flushing %1 of %2").arg(current).arg(total));
            });
    connect(dev, &NdaCallback::messageDetected, this,
            [this](const NvDeviceId&, NvProtocolType type, const NvByteArray& raw) {
                addLine(tr("Foreign message detected (protocol %1, %n byte(s))", nullptr,
                           static_cast<int>(raw.size()))
                            .arg(static_cast<int>(type)));
            });
    addLine(tr("Following %1").arg(QString::fromStdString(id.toString())));
}

// ---- DeviceMessageDataViewer

DeviceMessageDataViewer::DeviceMessageDataViewer(ViewManager& manager, const NvDeviceId& id,
                                                 ViewType type)
    : MessageLogViewer(manager, id, type)
{
    if (!isDeviceValid())
        return;
    connect(devicePtr(), &NdaCallback::nonDataMessage, this,
            [this](const NvDeviceId&, const NvMessage& m) { addLine(describe(m)); });
}

QString DeviceMessageDataViewer::describe(const NvMessage& message)
{
    return QStringLiteral("%1 (0x%2), %3 bytes: %4")
        .arg(QString::fromLatin1(nvMessageIdName(message.messageId())))
        .arg(message.messageId(), 2, 16, QLatin1Char('0'))
        .arg(message.dataSize())
        .arg(QString::fromStdString(message.toHex()));
}
