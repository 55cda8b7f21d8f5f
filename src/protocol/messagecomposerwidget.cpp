#include "messagecomposerwidget.h"

#include "ndacontrol.h"
#include "nvmessagedataeditor.h"
#include "nvmessagemodel.h"
#include "nvmessagesstructure.h"

#include <nvcontrol.h>

#include <QCheckBox>
#include <QComboBox>
#include <QCompleter>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QThread>
#include <QVBoxLayout>

#include <memory>

namespace {

constexpr int MaxHistory = 100;
// Preamble, bus, message id, extended length and checksum around the largest data part.
constexpr unsigned long MaxFrameBytes = NvMessageModel::MaxDataSize + 7;

// Zeros enough for every field of a fixed layout, so that the editor has something to
// edit; a message of variable length gets its shortest complete form.
HexByteString zeroDataFor(const NvMessagesStructure& structures, uint8_t messageId)
{
    const NvMessageStructure* structure = nullptr;
    if (!structures.getMIDStructure(HexByteString(messageId), structure) || !structure ||
        !structure->dataFormat())
        return {};
    for (size_t size = 0; size <= 256; ++size) {
        const HexByteString zeros = HexByteString::fromZeroes(size);
        if (!structures.decode(messageId, zeros).hasProblems)
            return zeros;
    }
    return {};
}

NvMessage toMessage(const HexByteString& frame)
{
    const HexByteString::Bytes& bytes = frame.toIntegers();
    return NvMessage::fromFrame(bytes.data(), bytes.size());
}

} // namespace

MessageComposerWidget::MessageComposerWidget(const NvMessagesStructure& structures,
                                             NdaControl& control, const NvDeviceId& id,
                                             QWidget* parent)
    : QWidget(parent), m_structures(structures), m_control(control), m_id(id)
{
    setWindowTitle(tr("Message Composer - %1").arg(QString::fromStdString(id.toString())));
    const QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);

    m_messageCombo = new QComboBox(this);
    m_messageCombo->setEditable(true);
    m_messageCombo->setInsertPolicy(QComboBox::NoInsert);
    m_messageCombo->addItem(QString(), -1);
    if (const NvMessagesStructure::Table* mids =
            structures.table(NvMessagesStructure::m_MIDTypeString)) {
        for (const auto& entry : *mids) {
            uint8_t mid = 0;
            if (entry.first.byteCount() == 1 && entry.first.toUInt8(mid))
                m_messageCombo->addItem(entry.second.listEntryText(), int(mid));
        }
    }
    m_messageCombo->completer()->setFilterMode(Qt::MatchContains);
    m_messageCombo->completer()->setCompletionMode(QCompleter::PopupCompletion);
    m_messageCombo->completer()->setCaseSensitivity(Qt::CaseInsensitive);
    m_messageCombo->lineEdit()->setPlaceholderText(tr("Search a message by name"));

    m_frameEdit = new QLineEdit(this);
    m_frameEdit->setFont(fixed);
    m_frameEdit->setPlaceholderText(tr("Frame bytes in hexadecimal, e.g. FA FF 30 00 D1"));
    m_frameEdit->setValidator(new HexByteStringValidator(m_typed, MaxFrameBytes, m_frameEdit));
    m_correctedLabel = new QLabel(this);
    m_correctedLabel->setFont(fixed);
    m_correctedLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_correctedLabel->setWordWrap(true);
    m_descriptionLabel = new QLabel(this);
    m_descriptionLabel->setWordWrap(true);

    m_editorArea = new QScrollArea(this);
    m_editorArea->setWidgetResizable(true);
    m_editorArea->setMinimumHeight(120);

    m_waitCheck = new QCheckBox(tr("Wait for the reply"), this);
    m_waitCheck->setChecked(true);
    m_timeoutSpin = new QSpinBox(this);
    m_timeoutSpin->setRange(100, 60000);
    m_timeoutSpin->setSingleStep(500);
    m_timeoutSpin->setValue(3000);
    m_timeoutSpin->setSuffix(tr(" ms"));
    m_timeoutSpin->setToolTip(tr("How long to wait for the reply"));
    m_sendButton = new QPushButton(tr("Send"), this);
    m_configButton = new QPushButton(tr("GoToConfig"), this);
    m_configButton->setToolTip(NvMessageModel::goToConfigFrame().toString());
    m_measureButton = new QPushButton(tr("GoToMeasurement"), this);
    m_measureButton->setToolTip(NvMessageModel::goToMeasurementFrame().toString());

    m_reply = new QPlainTextEdit(this);
    m_reply->setReadOnly(true);
    m_reply->setFont(fixed);
    m_history = new QListWidget(this);
    m_history->setFont(fixed);
    m_history->setToolTip(tr("Double-click a frame to compose it again"));

    auto* form = new QFormLayout;
    form->addRow(tr("Message:"), m_messageCombo);
    form->addRow(tr("Bytes:"), m_frameEdit);
    form->addRow(tr("Frame sent:"), m_correctedLabel);
    form->addRow(QString(), m_descriptionLabel);

    auto* sendRow = new QHBoxLayout;
    sendRow->addWidget(m_sendButton);
    sendRow->addWidget(m_waitCheck);
    sendRow->addWidget(m_timeoutSpin);
    sendRow->addStretch(1);
    sendRow->addWidget(m_configButton);
    sendRow->addWidget(m_measureButton);

    auto* replyBox = new QGroupBox(tr("Reply"), this);
    (new QVBoxLayout(replyBox))->addWidget(m_reply);
    auto* historyBox = new QGroupBox(tr("History"), this);
    (new QVBoxLayout(historyBox))->addWidget(m_history);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(replyBox, 3);
    bottom->addWidget(historyBox, 2);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(m_editorArea, 1);
    layout->addLayout(sendRow);
    layout->addLayout(bottom, 1);

    connect(m_messageCombo, qOverload<int>(&QComboBox::activated), this, [this](int index) {
        const int mid = m_messageCombo->itemData(index).toInt();
        if (mid >= 0)
            selectMessage(uint8_t(mid));
    });
    connect(m_frameEdit, &QLineEdit::textChanged, this, &MessageComposerWidget::onTextEdited);
    // Leaving the field shows the frame in the form it is sent in.
    connect(m_frameEdit, &QLineEdit::editingFinished, this, [this] {
        if (m_frameEdit->text() != m_corrected.toString())
            setFrameText(m_corrected.toString());
    });
    connect(m_sendButton, &QPushButton::clicked, this, &MessageComposerWidget::send);
    connect(m_configButton, &QPushButton::clicked, this, &MessageComposerWidget::sendGoToConfig);
    connect(m_measureButton, &QPushButton::clicked, this,
            &MessageComposerWidget::sendGoToMeasurement);
    connect(m_history, &QListWidget::itemDoubleClicked, this,
            [this](QListWidgetItem* item) { setFrameText(item->text()); });

    setFrameText(QString());
}

MessageComposerWidget::~MessageComposerWidget() = default;

QString MessageComposerWidget::frameText() const
{
    return m_frameEdit->text();
}

bool MessageComposerWidget::waitsForReply() const
{
    return m_waitCheck->isChecked();
}

void MessageComposerWidget::setWaitForReply(bool wait)
{
    m_waitCheck->setChecked(wait);
}

QString MessageComposerWidget::replyText() const
{
    return m_reply->toPlainText();
}

QStringList MessageComposerWidget::history() const
{
    QStringList out;
    for (int i = 0; i < m_history->count(); ++i)
        out << m_history->item(i)->text();
    return out;
}

void MessageComposerWidget::selectMessage(uint8_t messageId)
{
    HexByteString frame(HexByteString::Bytes{0xFA, 0xFF, messageId, 0x00});
    NvMessageModel::setMessageData(frame, zeroDataFor(m_structures, messageId));
    setFrameText(frame.toString());
    const int index = m_messageCombo->findData(int(messageId));
    if (index >= 0)
        m_messageCombo->setCurrentIndex(index);
}

void MessageComposerWidget::setFrameText(const QString& text)
{
    // Through the validator, as typing would go.
    QString canonical = text;
    int cursor = int(canonical.size());
    if (const QValidator* validator = m_frameEdit->validator())
        validator->validate(canonical, cursor);
    if (m_frameEdit->text() == canonical)
        onTextEdited();
    else
        m_frameEdit->setText(canonical);
}

void MessageComposerWidget::onTextEdited()
{
    if (m_updating)
        return;
    m_corrected = HexByteString(m_frameEdit->text());
    updateFrame(true);
}

void MessageComposerWidget::onDataEdited(const HexByteString& data)
{
    if (m_updating)
        return;
    NvMessageModel::setMessageData(m_corrected, data);
    m_editorData = data;
    // The editor stays: it is where the user is typing.
    updateFrame(false);
    m_updating = true;
    m_frameEdit->setText(m_corrected.toString());
    m_updating = false;
}

void MessageComposerWidget::updateFrame(bool rebuild)
{
    NvMessageModel::correctMessage(m_corrected);
    m_correctedLabel->setText(m_corrected.toString());

    const uint8_t mid = m_corrected.at(2);
    const NvMessageStructure* structure = nullptr;
    if (m_structures.getMIDStructure(HexByteString(mid), structure) && structure) {
        m_descriptionLabel->setText(structure->listEntryText());
        const int index = m_messageCombo->findData(int(mid));
        if (index >= 0 && index != m_messageCombo->currentIndex()) {
            const QSignalBlocker blocker(m_messageCombo);
            m_messageCombo->setCurrentIndex(index);
        }
    } else {
        m_descriptionLabel->setText(
            tr("Unknown message (MID: %1)").arg(HexByteString(mid).toString()));
    }
    if (rebuild &&
        (int(mid) != m_editorMessageId || NvMessageModel::messageData(m_corrected) != m_editorData))
        rebuildEditor();
}

void MessageComposerWidget::rebuildEditor()
{
    const uint8_t mid = m_corrected.at(2);
    m_editorMessageId = mid;
    m_editorData = NvMessageModel::messageData(m_corrected);
    if (QWidget* old = m_editorArea->takeWidget())
        old->deleteLater();
    m_editor = nullptr;
    const NvMessageStructure* structure = nullptr;
    if (m_structures.getMIDStructure(HexByteString(mid), structure) && structure)
        m_editor = structure->generateEditWidget(nullptr, m_structures, m_editorData);
    if (!m_editor) {
        auto* none = new QLabel(tr("This message has no fields to edit; type its bytes above."));
        none->setAlignment(Qt::AlignTop | Qt::AlignLeft);
        m_editorArea->setWidget(none);
        return;
    }
    if (auto* dataEditor = qobject_cast<NvMessageDataEditor*>(m_editor))
        connect(dataEditor, &NvMessageDataEditor::dataEdited, this,
                &MessageComposerWidget::onDataEdited);
    m_editorArea->setWidget(m_editor);
}

void MessageComposerWidget::send()
{
    NvMessageModel::correctMessage(m_corrected);
    sendFrame(m_corrected);
}

void MessageComposerWidget::sendGoToConfig()
{
    sendFrame(NvMessageModel::goToConfigFrame());
}

void MessageComposerWidget::sendGoToMeasurement()
{
    sendFrame(NvMessageModel::goToMeasurementFrame());
}

void MessageComposerWidget::updateButtons()
{
    for (QPushButton* button : {m_sendButton, m_configButton, m_measureButton})
        button->setEnabled(!m_sending);
}

void MessageComposerWidget::sendFrame(const HexByteString& frame)
{
    if (m_sending)
        return;
    const NvMessage message = toMessage(frame);
    const QString text = frame.toString();
    if (message.isEmpty() || !message.isValid()) {
        m_reply->setPlainText(tr("%1\nThis is not a valid frame.").arg(text));
        emit sendFinished(false, NvMessage());
        return;
    }
    NvDeviceRef device = m_control.libraryDeviceRef(m_id);
    if (!device.get()) {
        m_reply->setPlainText(tr("%1\nThe device is not connected.").arg(text));
        emit sendFinished(false, NvMessage());
        return;
    }

    // History: newest first, without repeating the frame just before.
    if (m_history->count() == 0 || m_history->item(0)->text() != text)
        m_history->insertItem(0, text);
    while (m_history->count() > MaxHistory)
        delete m_history->takeItem(m_history->count() - 1);
    emit frameSent(frame);

    m_sending = true;
    updateButtons();
    const bool wait = m_waitCheck->isChecked();
    const unsigned timeout = unsigned(m_timeoutSpin->value());
    m_reply->setPlainText(wait ? tr("%1\nWaiting for the reply...").arg(text)
                               : tr("%1\nSending...").arg(text));

    // Waiting for a reply takes up to the time-out: the GUI goes on meanwhile.
    struct Result
    {
        bool ok = false;
        NvMessage reply;
    };
    auto result = std::make_shared<Result>();
    QThread* thread = QThread::create([device, message, wait, timeout, result] {
        result->ok = NvDevice_sendCustomMessage(device.get(), &message, wait ? 1 : 0,
                                                &result->reply, timeout) != 0;
    });
    connect(thread, &QThread::finished, this, [this, result, text] {
        m_sending = false;
        updateButtons();
        showReply(result->ok, result->reply, text);
    });
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start();
}

void MessageComposerWidget::showReply(bool ok, const NvMessage& reply, const QString& frameText)
{
    m_lastReply = reply;
    QString text = QStringLiteral("→ %1\n").arg(frameText);
    if (reply.isEmpty()) {
        if (!ok)
            text += tr("No reply: %1").arg(m_control.lastResultText());
        else
            text += tr("Sent.");
    } else {
        const NvDecodedMessage decoded = m_structures.decode(reply);
        text += QStringLiteral("← %1\n").arg(QString::fromStdString(reply.toHex()));
        text += QStringLiteral("%1 (MID: %2)")
                    .arg(decoded.description.isEmpty() ? decoded.name : decoded.description,
                         HexByteString(reply.messageId()).toString());
        if (!decoded.text.isEmpty())
            text += QStringLiteral("\n") + decoded.text;
        if (reply.messageId() == NvMid::Error)
            ok = false;
    }
    m_reply->setPlainText(text);
    emit sendFinished(ok, reply);
}
