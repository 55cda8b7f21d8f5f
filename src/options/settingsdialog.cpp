#include "settingsdialog.h"

#include "abstractoptionspage.h"
#include "optionspages.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QListWidget>
#include <QPushButton>
#include <QSettings>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace {
const QString LastPageKey = QStringLiteral("SettingsDialog.lastpage");
}

SettingsDialog::SettingsDialog(QWidget* parent) : QDialog(parent)
{
    setWindowTitle(tr("Options"));
    auto* layout = new QVBoxLayout(this);
    auto* row = new QHBoxLayout;
    m_list = new QListWidget(this);
    m_list->setObjectName(QStringLiteral("pageList"));
    m_list->setMaximumWidth(220);
    m_stack = new QStackedWidget(this);
    row->addWidget(m_list);
    row->addWidget(m_stack, 1);
    layout->addLayout(row, 1);
    auto* buttons = new QDialogButtonBox(
        QDialogButtonBox::Ok | QDialogButtonBox::Cancel | QDialogButtonBox::Apply, this);
    layout->addWidget(buttons);
    connect(buttons, &QDialogButtonBox::accepted, this, &SettingsDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &SettingsDialog::reject);
    connect(buttons->button(QDialogButtonBox::Apply), &QPushButton::clicked, this,
            &SettingsDialog::apply);

    addPage(new PlottingOptionsPage);
    addPage(new LoggingOptionsPage);
    addPage(new KvigLoggingOptionsPage);
    addPage(new MiscellaneousOptionsPage);

    connect(m_list, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row < 0 || row >= m_pages.size())
            return;
        m_pages[row]->refreshUi();
        m_stack->setCurrentIndex(row);
        QSettings().setValue(LastPageKey, m_pages[row]->name());
    });
    const QString last = QSettings().value(LastPageKey).toString();
    showPage(last.isEmpty() ? m_pages.first()->name() : last);
    if (m_list->currentRow() < 0)
        m_list->setCurrentRow(0);
    for (AbstractOptionsPage* p : std::as_const(m_pages))
        p->refreshUi();
    resize(760, 520);
}

SettingsDialog::~SettingsDialog() = default;

void SettingsDialog::addPage(AbstractOptionsPage* page)
{
    m_pages.append(page);
    m_stack->addWidget(page);
    m_list->addItem(QStringLiteral("%1: %2").arg(page->trCategory(), page->trName()));
}

AbstractOptionsPage* SettingsDialog::page(const QString& name) const
{
    for (AbstractOptionsPage* p : m_pages)
        if (p->name() == name)
            return p;
    return nullptr;
}

AbstractOptionsPage* SettingsDialog::currentPage() const
{
    const int row = m_list->currentRow();
    return row >= 0 && row < m_pages.size() ? m_pages[row] : nullptr;
}

void SettingsDialog::showPage(const QString& name)
{
    for (int i = 0; i < m_pages.size(); ++i)
        if (m_pages[i]->name() == name)
            m_list->setCurrentRow(i);
}

void SettingsDialog::apply()
{
    for (AbstractOptionsPage* p : std::as_const(m_pages))
        p->apply();
    emit applied();
}

void SettingsDialog::accept()
{
    apply();
    QDialog::accept();
}
