#include "currentdirectorywidget.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QSettings>
#include <QStandardPaths>
#include <QToolButton>

CurrentDirectoryWidget::CurrentDirectoryWidget(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);
    m_edit = new QLineEdit(this);
    m_edit->setObjectName(QStringLiteral("currentDirectoryEdit"));
    m_edit->setToolTip(tr("Folder for new recordings"));
    m_edit->setMinimumWidth(200);
    m_browse = new QToolButton(this);
    m_browse->setObjectName(QStringLiteral("currentDirectoryBrowseButton"));
    m_browse->setText(QStringLiteral("..."));
    m_browse->setToolTip(tr("Choose the folder for new recordings"));
    layout->addWidget(m_edit, 1);
    layout->addWidget(m_browse);

    m_directory = storedDirectory();
    m_edit->setText(QDir::toNativeSeparators(m_directory));
    connect(m_edit, &QLineEdit::editingFinished, this,
            &CurrentDirectoryWidget::handleEditingFinished);
    connect(m_browse, &QToolButton::clicked, this, &CurrentDirectoryWidget::chooseDirectory);
}

QString CurrentDirectoryWidget::settingsKey()
{
    return QStringLiteral("recordingDirectory");
}

QString CurrentDirectoryWidget::defaultDirectory()
{
    QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    if (documents.isEmpty())
        documents = QDir::homePath();
    return documents + QStringLiteral("/KvManager recordings");
}

QString CurrentDirectoryWidget::storedDirectory()
{
    const QString stored = QSettings().value(settingsKey()).toString().trimmed();
    return stored.isEmpty() ? defaultDirectory()
                            : QDir::cleanPath(QDir::fromNativeSeparators(stored));
}

QFileDialog* CurrentDirectoryWidget::folderDialog() const
{
    return m_dialog;
}

void CurrentDirectoryWidget::setDirectory(const QString& directory)
{
    const QString trimmed = directory.trimmed();
    if (trimmed.isEmpty()) {
        m_edit->setText(QDir::toNativeSeparators(m_directory));
        return;
    }
    const QString cleaned = QDir::cleanPath(QDir::fromNativeSeparators(trimmed));
    m_edit->setText(QDir::toNativeSeparators(cleaned));
    if (cleaned == m_directory)
        return;
    m_directory = cleaned;
    QSettings().setValue(settingsKey(), m_directory);
    emit directoryChanged(m_directory);
}

void CurrentDirectoryWidget::handleEditingFinished()
{
    setDirectory(m_edit->text());
}

void CurrentDirectoryWidget::chooseDirectory()
{
    if (m_dialog) {
        m_dialog->raise();
        m_dialog->activateWindow();
        return;
    }
    // A folder not made yet opens the chooser at its nearest existing parent.
    QString start = m_directory;
    while (!start.isEmpty() && !QFileInfo(start).isDir()) {
        const QString parent = QFileInfo(start).path();
        if (parent == start)
            break;
        start = parent;
    }
    m_dialog = new QFileDialog(this, tr("Select Recording Directory"), start);
    m_dialog->setObjectName(QStringLiteral("currentDirectoryDialog"));
    m_dialog->setFileMode(QFileDialog::Directory);
    m_dialog->setOption(QFileDialog::ShowDirsOnly, true);
    m_dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_dialog, &QFileDialog::fileSelected, this, &CurrentDirectoryWidget::setDirectory);
    m_dialog->open();
}
