#pragma once
// The recording folder in the main window's tool bar: a line edit and a "..." button that
// opens a folder chooser. The folder is kept in the settings ("recordingDirectory").

#include <QPointer>
#include <QString>
#include <QWidget>

class QFileDialog;
class QLineEdit;
class QToolButton;

class CurrentDirectoryWidget : public QWidget
{
    Q_OBJECT

public:
    explicit CurrentDirectoryWidget(QWidget* parent = nullptr);

    static QString settingsKey(); // "recordingDirectory"
    // The user's documents folder + "/KvManager recordings".
    static QString defaultDirectory();
    // What the settings hold (the default when nothing is stored).
    static QString storedDirectory();

    QString directory() const { return m_directory; }
    QLineEdit* lineEdit() const { return m_edit; }
    QToolButton* browseButton() const { return m_browse; }
    // The folder chooser while it is open, else null.
    QFileDialog* folderDialog() const;

signals:
    void directoryChanged(const QString& directory);

public slots:
    // Stores and shows `directory` (cleaned up); an empty text keeps the present folder.
    void setDirectory(const QString& directory);
    // Opens the folder chooser at the present folder (or the nearest one that exists); the
    // folder chosen becomes the directory. Does not block.
    void chooseDirectory();

private:
    void handleEditingFinished();

    QLineEdit* m_edit = nullptr;
    QToolButton* m_browse = nullptr;
    QPointer<QFileDialog> m_dialog;
    QString m_directory;
};
