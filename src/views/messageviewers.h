#pragma once
// Text views of what a device says besides data: the library's notices about the device
// (errors, warnings, missed samples, state changes, progress) and the device's own
// non-data messages. Newest at the bottom, bounded, pausable, savable.

#include "packetviewer.h"

#include <QStringList>

class QLabel;
class QPlainTextEdit;
class QToolButton;

// The shared log widget of both message views.
class MessageLogViewer : public PacketViewer
{
    Q_OBJECT

public:
    static constexpr int MaximumLines = 5000;

    MessageLogViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    // One line, stamped with the host time; held back while paused.
    void addLine(const QString& text);
    QStringList lines() const;
    bool isPaused() const { return m_paused; }
    void setPaused(bool paused);
    void clear() override;
    // Writes the shown lines to a text file; false with the reason on failure.
    bool saveTo(const QString& fileName, QString* error = nullptr) const;

private:
    void save();

    QPlainTextEdit* m_text = nullptr;
    QToolButton* m_pause = nullptr;
    QLabel* m_count = nullptr;
    QStringList m_held;
    bool m_paused = false;
    quint64 m_total = 0;
};

class NDAMessageDataViewer : public MessageLogViewer
{
    Q_OBJECT

public:
    NDAMessageDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);
};

class DeviceMessageDataViewer : public MessageLogViewer
{
    Q_OBJECT

public:
    DeviceMessageDataViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);

    // "<name> (0x<mid>), <n> bytes: <hex>"
    static QString describe(const NvMessage& message);
};
