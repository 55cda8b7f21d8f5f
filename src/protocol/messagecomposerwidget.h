#pragma once

// Builds a frame by name or by bytes, edits its data field by field and sends it to one
// device, showing the reply decoded. The frame is kept valid (length, checksum) as it is
// edited, so what is shown is what goes out.

#include "hexbytestring.h"

#include <nvdeviceid.h>
#include <nvmessage.h>

#include <QWidget>

class NdaControl;
class NvMessagesStructure;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QScrollArea;
class QSpinBox;

class MessageComposerWidget : public QWidget
{
    Q_OBJECT
public:
    MessageComposerWidget(const NvMessagesStructure& structures, NdaControl& control,
                          const NvDeviceId& id, QWidget* parent = nullptr);
    ~MessageComposerWidget() override;

    const NvDeviceId& deviceId() const { return m_id; }
    // What the user typed, and the frame as it will be sent.
    QString frameText() const;
    HexByteString correctedFrame() const { return m_corrected; }
    // Starts a frame for a message of the database (empty data).
    void selectMessage(uint8_t messageId);
    // Replaces the typed text, as if the user had typed it.
    void setFrameText(const QString& text);
    bool waitsForReply() const;
    void setWaitForReply(bool wait);
    bool isSending() const { return m_sending; }
    // The decoded reply (or error, or time-out) of the last send.
    QString replyText() const;
    const NvMessage& lastReply() const { return m_lastReply; }
    // Sent frames, newest first.
    QStringList history() const;
    // The field editor of the current frame, or null when its message has no fields.
    QWidget* dataEditor() const { return m_editor; }

public slots:
    // Sends the corrected frame; ignored while a send is under way.
    void send();
    void sendGoToConfig();
    void sendGoToMeasurement();

signals:
    void frameSent(const HexByteString& frame);
    // `ok` false: the device did not take the frame or no reply came (or an Error did).
    void sendFinished(bool ok, const NvMessage& reply);

private:
    void sendFrame(const HexByteString& frame);
    void onTextEdited();
    void onDataEdited(const HexByteString& data);
    void updateFrame(bool rebuildEditor);
    void rebuildEditor();
    void showReply(bool ok, const NvMessage& reply, const QString& frameText);
    void updateButtons();

    const NvMessagesStructure& m_structures;
    NdaControl& m_control;
    NvDeviceId m_id;

    QComboBox* m_messageCombo;
    QLineEdit* m_frameEdit;
    HexByteString m_typed; // bound to the validator
    QLabel* m_correctedLabel;
    QLabel* m_descriptionLabel;
    QScrollArea* m_editorArea;
    QWidget* m_editor = nullptr;
    QCheckBox* m_waitCheck;
    QSpinBox* m_timeoutSpin;
    QPushButton* m_sendButton;
    QPushButton* m_configButton;
    QPushButton* m_measureButton;
    QPlainTextEdit* m_reply;
    QListWidget* m_history;

    HexByteString m_corrected;
    int m_editorMessageId = -1;
    HexByteString m_editorData;
    bool m_updating = false;
    bool m_sending = false;
    NvMessage m_lastReply;
};
