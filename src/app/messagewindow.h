#pragma once

#include <QStringList>
#include <QWidget>

class QPlainTextEdit;

// A read-only log of one-line messages for the user (device errors, scan log lines).
// Keeps the newest lines up to a limit so that a chatty device cannot grow it forever.
class MessageWindow : public QWidget
{
    Q_OBJECT

public:
    static constexpr int maximumLines = 10000;

    explicit MessageWindow(QWidget* parent = nullptr);

    QStringList lines() const;
    int lineCount() const;

public slots:
    void addMessage(const QString& message);
    void clear();
    // Asks for a file name and writes all lines to it; a failure is reported in a box.
    void saveAs();

signals:
    void messageAdded(const QString& message);

private:
    void showContextMenu(const QPoint& position);

    QPlainTextEdit* m_text;
};
