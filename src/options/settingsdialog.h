#pragma once
// The application's options: pages by category beside a stack, OK / Cancel / Apply, and
// the page shown last comes back ("SettingsDialog.lastpage").

#include <QDialog>
#include <QList>

class AbstractOptionsPage;
class QListWidget;
class QStackedWidget;

class SettingsDialog : public QDialog
{
    Q_OBJECT

public:
    explicit SettingsDialog(QWidget* parent = nullptr);
    ~SettingsDialog() override;

    const QList<AbstractOptionsPage*>& pages() const { return m_pages; }
    AbstractOptionsPage* page(const QString& name) const;
    AbstractOptionsPage* currentPage() const;
    void showPage(const QString& name);

public slots:
    // Every page writes its values.
    void apply();
    void accept() override;

signals:
    // After the pages wrote their values (the plotting options, the recording pattern...).
    void applied();

private:
    void addPage(AbstractOptionsPage* page);

    QListWidget* m_list = nullptr;
    QStackedWidget* m_stack = nullptr;
    QList<AbstractOptionsPage*> m_pages;
};
