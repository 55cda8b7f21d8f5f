#include "messagewindow.h"

#include <QFileDialog>
#include <QFontDatabase>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QSaveFile>
#include <QScrollBar>
#include <QTextBlock>
#include <QVBoxLayout>

MessageWindow::MessageWindow(QWidget* parent) : QWidget(parent), m_text(new QPlainTextEdit(this))
{
    m_text->setReadOnly(true);
    m_text->setMaximumBlockCount(maximumLines);
    m_text->setLineWrapMode(QPlainTextEdit::NoWrap);
    m_text->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_text->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_text, &QWidget::customContextMenuRequested, this, &MessageWindow::showContextMenu);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_text);
}

QStringList MessageWindow::lines() const
{
    QStringList result;
    if (m_text->document()->isEmpty())
        return result;
    for (QTextBlock block = m_text->document()->begin(); block.isValid(); block = block.next())
        result.append(block.text());
    return result;
}

int MessageWindow::lineCount() const
{
    return m_text->document()->isEmpty() ? 0 : m_text->document()->blockCount();
}

void MessageWindow::addMessage(const QString& message)
{
    // Follow the end only when the user has not scrolled back to read something.
    QScrollBar* bar = m_text->verticalScrollBar();
    const bool atEnd = bar->value() == bar->maximum();
    m_text->appendPlainText(message);
    if (atEnd)
        bar->setValue(bar->maximum());
    emit messageAdded(message);
}

void MessageWindow::clear()
{
    m_text->clear();
}

void MessageWindow::saveAs()
{
    const QString fileName = QFileDialog::getSaveFileName(this, tr("Save Messages"), QString(),
                                                          tr("Text files (*.txt);;All files (*)"));
    if (fileName.isEmpty())
        return;
    QSaveFile file(fileName);
    bool ok = file.open(QIODevice::WriteOnly | QIODevice::Text);
    if (ok) {
        file.write(m_text->toPlainText().toUtf8());
        file.write("\n");
        ok = file.commit();
    }
    if (!ok)
        QMessageBox::critical(
            this, tr("Error"),
            tr("Failed to save messages to '%1': %2").arg(fileName, file.errorString()));
}

void MessageWindow::showContextMenu(const QPoint& position)
{
    QMenu* menu = m_text->createStandardContextMenu(position);
    menu->addSeparator();
    menu->addAction(tr("Clear"), this, &MessageWindow::clear);
    menu->addAction(tr("Save As..."), this, &MessageWindow::saveAs);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(m_text->viewport()->mapToGlobal(position));
}
