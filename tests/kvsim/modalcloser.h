#pragma once
// For widget tests: closes every modal message box that opens while it lives (with OK) and
// remembers what each said, so a test can check the texts a user would have read.

#include <QApplication>
#include <QMessageBox>
#include <QObject>
#include <QStringList>
#include <QTimer>

namespace kvtest {

class ModalCloser : public QObject
{
public:
    ModalCloser()
    {
        connect(&m_timer, &QTimer::timeout, this, [this] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                texts.append(box->text());
                titled.append(box->windowTitle() + QLatin1Char('|') + box->text());
                box->done(QMessageBox::Ok);
            }
        });
        m_timer.start(10);
    }
    QStringList texts;  // each box's text
    QStringList titled; // "title|text"

private:
    QTimer m_timer;
};

} // namespace kvtest
