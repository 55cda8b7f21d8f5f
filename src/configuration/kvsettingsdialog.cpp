#include "kvsettingsdialog.h"

#include "devicepages.h"
#include "kvsettingsoptionspage.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "outputconfigurationpage.h"
#include "syncoptionspage.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFrame>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QMessageBox>
#include <QPushButton>
#include <QScopeGuard>
#include <QSplitter>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

// The library's connectivity value of a tracker that is out of reach.
constexpr int ConnectivityUnreachable = 3;

bool isMasterStation(const NvDeviceId& id)
{
    return id.isWirelessMasterStation();
}

} // namespace

KvSettingsDialog::KvSettingsDialog(NdaControl& control, const NvDeviceId& id, QWidget* parent)
    : NdaDeviceObserverDialog(control, id, parent), m_id(id)
{
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(
        tr("%1 for %2 %3")
            .arg(tr("Device Settings"), deviceKind(id), QString::fromStdString(id.toString())));
    buildForm();
    if (isDeviceValid())
        connect(devicePtr(), &NdaCallback::deviceStateChange, this,
                &KvSettingsDialog::handleDeviceStateChanged);
    connect(m_tree, &QTreeWidget::currentItemChanged, this, &KvSettingsDialog::setCurrentWidget);
    connect(m_revert, &QPushButton::clicked, this, &KvSettingsDialog::revertSettings);
    connect(m_save, &QPushButton::clicked, this, &KvSettingsDialog::saveToNva);
    connect(m_load, &QPushButton::clicked, this, qOverload<>(&KvSettingsDialog::loadFromNva));
    connect(m_apply, &QPushButton::clicked, this, &KvSettingsDialog::handleWriteToKv);

    // Reading every page needs configuration mode: one pause for all of them.
    std::unique_ptr<NdaDeviceMeasurementPauser> pauser;
    if (isDeviceValid() && !device().isReadingFromFile() && !device().isRecording())
        pauser = std::make_unique<NdaDeviceMeasurementPauser>(device());

    if (!isMasterStation(id)) {
        m_idPage = new IdentificationParamsKvsPage(device(), m_idParamsFrame);
        m_idPage->loadSettings();
        connect(m_idPage, &KvSettingsOptionsPage::configurationChanged, this,
                &KvSettingsDialog::handleConfigurationChanged);
        connect(m_idPage, &KvSettingsOptionsPage::configurationSaved, this,
                &KvSettingsDialog::handleConfigurationSaved);
        connect(this, &KvSettingsDialog::readOnlyChanged, m_idPage,
                &KvSettingsOptionsPage::setReadOnly);
        static_cast<QVBoxLayout*>(m_idParamsFrame->layout())->insertWidget(0, m_idPage);
    } else {
        m_idParamsFrame->hide();
    }
    m_apply->setEnabled(false);
    if (isMasterStation(id))
        m_revert->hide();
    if (isMasterStation(id) || id.isWirelessTracker()) {
        m_save->hide();
        m_load->hide();
    }
    setupPages();
    pauser.reset();
    updateReadOnlyState();
    resize(1140, 720);
    m_splitter->setSizes({210, 930});
}

KvSettingsDialog::~KvSettingsDialog() = default;

QString KvSettingsDialog::deviceKind(const NvDeviceId& id)
{
    if (isMasterStation(id))
        return tr("Aerlo Station");
    if (id.isInertialTracker() || id.isWirelessTracker() || id.isLegacyTracker() || id.isImu() ||
        id.isGnss())
        return tr("KV");
    return tr("Unknown Device");
}

void KvSettingsDialog::buildForm()
{
    auto* layout = new QVBoxLayout(this);
    m_idParamsFrame = new QFrame(this);
    m_idParamsFrame->setObjectName(QStringLiteral("idParamsFrame"));
    auto* idLayout = new QVBoxLayout(m_idParamsFrame);
    idLayout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_idParamsFrame);

    m_splitter = new QSplitter(this);
    m_splitter->setObjectName(QStringLiteral("splitter"));
    m_tree = new QTreeWidget(m_splitter);
    m_tree->setObjectName(QStringLiteral("theTreeWidget"));
    m_tree->setHeaderHidden(true);
    m_tree->setMinimumWidth(170);
    m_stack = new QStackedWidget(m_splitter);
    m_stack->setObjectName(QStringLiteral("theStackedWidget"));
    m_splitter->setStretchFactor(1, 1);
    layout->addWidget(m_splitter, 1);

    auto* buttons = new QHBoxLayout;
    m_save = new QPushButton(tr("Save Settings"), this);
    m_save->setObjectName(QStringLiteral("saveToNvaPushButton"));
    m_save->setToolTip(tr("Write the device's configuration to a .nva file"));
    m_load = new QPushButton(tr("Load Settings"), this);
    m_load->setObjectName(QStringLiteral("loadFromNvaPushButton"));
    m_load->setToolTip(tr("Apply a .nva configuration file to the device"));
    m_apply = new QPushButton(tr("&Apply"), this);
    m_apply->setObjectName(QStringLiteral("writeToKvPushButton"));
    m_apply->setToolTip(tr("Write the changed pages to the device"));
    m_revert = new QPushButton(tr("Revert"), this);
    m_revert->setObjectName(QStringLiteral("revertPushButton"));
    m_revert->setToolTip(tr("Restore the device's factory defaults"));
    auto* close = new QPushButton(tr("Close"), this);
    close->setObjectName(QStringLiteral("closePushButton"));
    connect(close, &QPushButton::clicked, this, &QDialog::close);
    buttons->addWidget(m_save);
    buttons->addWidget(m_load);
    buttons->addStretch();
    buttons->addWidget(m_revert);
    buttons->addWidget(m_apply);
    buttons->addWidget(close);
    layout->addLayout(buttons);
}

void KvSettingsDialog::setupPages()
{
    const NvDeviceId id = m_id;
    QList<KvSettingsOptionsPage*> created;
    if (!isMasterStation(id)) {
        created.append(new OutputConfigurationPage(device()));
        auto* settings = new DeviceSettingsKvsPage(device());
        connect(settings, &DeviceSettingsKvsPage::filterChanged, this,
                &KvSettingsDialog::handleFilterChanged);
        connect(settings, &DeviceSettingsKvsPage::onboardScenariosChanged, this,
                &KvSettingsDialog::handleOnboardScenariosChanged);
        connect(settings, &DeviceSettingsKvsPage::filterOptionsShortcutTriggered, this,
                &KvSettingsDialog::handleFilterOptionsShortcutTriggered);
        created.append(settings);
    }
    if (!id.isWirelessTracker())
        created.append(new SyncOptionsPage(device()));
    if (!isMasterStation(id))
        created.append(new ModelingParamsKvsPage(device()));
    for (KvSettingsOptionsPage* page : created)
        setupPage(page);

    connect(m_apply, &QPushButton::clicked, this, &KvSettingsDialog::disableWriteToKvButton);
    m_tree->sortItems(0, Qt::AscendingOrder);
    if (QTreeWidgetItem* top = m_tree->topLevelItem(0))
        m_tree->setCurrentItem(top->childCount() > 0 ? top->child(0) : top);
    m_tree->expandAll();
}

void KvSettingsDialog::setupPage(KvSettingsOptionsPage* page)
{
    QTreeWidgetItem* category = ensureCategoryAvailable(page->category(), page->trCategory());
    auto* item = new QTreeWidgetItem(category, QStringList(page->trName()));
    m_stack->addWidget(page);
    item->setData(0, Qt::UserRole, QVariant::fromValue<QObject*>(page));
    m_pages.append(page);
    page->loadSettings();
    connectPageSignals(page);
}

QTreeWidgetItem* KvSettingsDialog::categoryItem(const QString& category) const
{
    for (int i = 0; i < m_tree->topLevelItemCount(); ++i)
        if (m_tree->topLevelItem(i)->data(0, Qt::UserRole + 1).toString() == category)
            return m_tree->topLevelItem(i);
    return nullptr;
}

QTreeWidgetItem* KvSettingsDialog::ensureCategoryAvailable(const QString& category,
                                                           const QString& trCategory)
{
    if (QTreeWidgetItem* item = categoryItem(category))
        return item;
    auto* item = new QTreeWidgetItem(m_tree, QStringList(trCategory));
    item->setData(0, Qt::UserRole + 1, category);
    item->setFlags((item->flags() & ~Qt::ItemIsSelectable) | Qt::ItemIsEnabled);
    return item;
}

void KvSettingsDialog::connectPageSignals(KvSettingsOptionsPage* page)
{
    connect(page, &KvSettingsOptionsPage::configurationChanged, this,
            &KvSettingsDialog::handleConfigurationChanged);
    connect(page, &KvSettingsOptionsPage::configurationSaved, this,
            &KvSettingsDialog::handleConfigurationSaved);
    connect(this, &KvSettingsDialog::readOnlyChanged, page, &KvSettingsOptionsPage::setReadOnly);
}

KvSettingsOptionsPage* KvSettingsDialog::page(const QString& name) const
{
    if (m_idPage && m_idPage->name() == name)
        return m_idPage;
    for (KvSettingsOptionsPage* p : m_pages)
        if (p->name() == name)
            return p;
    return nullptr;
}

void KvSettingsDialog::setCurrentWidget(QTreeWidgetItem* current, QTreeWidgetItem*)
{
    if (!current)
        return;
    if (auto* page = qobject_cast<QWidget*>(current->data(0, Qt::UserRole).value<QObject*>()))
        m_stack->setCurrentWidget(page);
    else if (current->childCount() > 0)
        m_tree->setCurrentItem(current->child(0));
}

void KvSettingsDialog::repaintNow(QWidget* widget)
{
    widget->repaint();
}

void KvSettingsDialog::handleWriteToKv()
{
    handleBeginWriteToKv();
    QList<KvSettingsOptionsPage*> all;
    if (m_idPage)
        all.append(m_idPage);
    all += m_pages;
    for (KvSettingsOptionsPage* page : all)
        if (page->haveChanges())
            page->apply();
    handleEndWriteToKv();
}

void KvSettingsDialog::handleBeginWriteToKv()
{
    m_apply->setEnabled(false);
    m_apply->setText(tr("Writing..."));
    repaintNow(m_apply);
}

void KvSettingsDialog::handleEndWriteToKv()
{
    m_apply->setText(tr("&Apply"));
    if (m_saveAfterWrite) {
        generateNvaFile();
        m_saveAfterWrite = false;
    }
}

void KvSettingsDialog::revertSettings()
{
    m_revert->setEnabled(false);
    m_revert->setText(tr("Reverting..."));
    repaintNow(m_revert);
    bool ok;
    {
        NdaDeviceMeasurementPauser pauser(device());
        ok = device().restoreFactoryDefaults();
        if (ok) {
            m_revert->setText(tr("Reinitializing..."));
            repaintNow(m_revert);
            device().reset();
            device().reinitialize();
        }
    }
    if (ok) {
        QMessageBox::information(this, tr("Revert Settings"), tr("Settings successfully restored"));
        m_apply->setEnabled(false);
        // Kept on purpose: a following Save Settings runs a write pass first.
        m_unwrittenChanges = true;
        NdaDeviceMeasurementPauser pauser(device());
        for (KvSettingsOptionsPage* page : m_pages)
            page->loadSettings();
    } else {
        QMessageBox::warning(this, tr("Revert Settings"), tr("Settings NOT successfully restored"));
    }
    emit deviceChanged(m_id);
    m_revert->setText(tr("Revert"));
    m_revert->setEnabled(true);
}

void KvSettingsDialog::saveToNva()
{
    m_saveAfterWrite = true;
    const QString name = QFileDialog::getSaveFileName(
        this, tr("Save Configuration File"), m_nvaFilename, tr("Configuration Files (*.nva)"));
    m_nvaFilename = name;
    if (name.isEmpty()) {
        m_saveAfterWrite = false;
        return;
    }
    handleSaveToNvaTriggered();
}

void KvSettingsDialog::handleSaveToNvaTriggered()
{
    m_saveAfterWrite = true;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    const auto restore = qScopeGuard([] { QApplication::restoreOverrideCursor(); });
    if (m_unwrittenChanges) {
        if (!m_readOnly)
            m_apply->setEnabled(true);
        m_apply->click();
        if (m_saveAfterWrite) { // read-only: no write pass ran
            generateNvaFile();
            m_saveAfterWrite = false;
        }
    } else {
        generateNvaFile();
        m_saveAfterWrite = false;
    }
}

void KvSettingsDialog::generateNvaFile()
{
    if (m_nvaFilename.isEmpty())
        return;
    const int result = device().createConfigFile(m_nvaFilename.toStdString());
    if (result != 0)
        QMessageBox::warning(this, tr("Warning"), tr("Configuration not correctly saved."));
    else
        emit configurationSaved(m_id);
}

void KvSettingsDialog::loadFromNva()
{
    const QString name = QFileDialog::getOpenFileName(this, tr("Load Configuration File"),
                                                      QString(), tr("Configuration Files (*.nva)"));
    if (name.isEmpty())
        return;
    loadFromNva(name);
}

void KvSettingsDialog::loadFromNva(const QString& fileName)
{
    int result;
    {
        QApplication::setOverrideCursor(Qt::WaitCursor);
        const auto restore = qScopeGuard([] { QApplication::restoreOverrideCursor(); });
        result = device().applyConfigFile(fileName.toStdString());
    }
    if (result != 0)
        QMessageBox::warning(this, tr("Warning"), tr("Configuration not correctly applied."));
    const bool wasMeasuring = device().isMeasuring();
    if (!device().gotoConfig()) {
        QMessageBox box(QMessageBox::Warning, tr("Warning"),
                        tr("Failed to set device to config mode and update device information."),
                        QMessageBox::Ok, this);
        box.setInformativeText(
            tr("Configuration was correctly applied.\nA re-scan may be necessary."));
        box.exec();
        return;
    }
    device().updateCachedDeviceInformation();
    // What the file changed shows on the pages (the device is in configuration now).
    if (m_idPage)
        m_idPage->loadSettings();
    for (KvSettingsOptionsPage* page : m_pages)
        page->loadSettings();
    if (wasMeasuring)
        device().gotoMeasurement();
    emit deviceChanged(m_id);
}

void KvSettingsDialog::handleDeviceStateChanged(const NvDeviceId& id, NdaDeviceState::Type newState,
                                                NdaDeviceState::Type oldState)
{
    if (id != m_id)
        return;
    if (NdaDeviceState::isRecording(newState) != NdaDeviceState::isRecording(oldState))
        updateReadOnlyState();
}

void KvSettingsDialog::disableWriteToKvButton()
{
    m_apply->setEnabled(false);
    m_unwrittenChanges = false;
}

void KvSettingsDialog::handleConfigurationChanged()
{
    m_unwrittenChanges = true;
    if (!m_readOnly)
        m_apply->setEnabled(true);
}

void KvSettingsDialog::setHaveChanges(bool changes)
{
    m_unwrittenChanges = true;
    m_apply->setEnabled(changes && !m_readOnly);
}

void KvSettingsDialog::setReadOnly(bool readOnly)
{
    m_readOnly = readOnly;
    emit readOnlyChanged(readOnly);
    if (readOnly) {
        m_apply->setEnabled(false);
        m_unwrittenChanges = true;
    }
    m_save->setEnabled(!readOnly);
    m_load->setEnabled(!readOnly);
    m_revert->setEnabled(!readOnly);
}

void KvSettingsDialog::updateReadOnlyState()
{
    const bool valid = isDeviceValid();
    const bool readOnly = !valid || device().isRecording() || device().isReadingFromFile() ||
                          static_cast<int>(device().connectivityState()) == ConnectivityUnreachable;
    setReadOnly(readOnly);
}

void KvSettingsDialog::onDeviceClosed(const NvDeviceId& id)
{
    NdaDeviceObserverDialog::onDeviceClosed(id);
    close();
}

void KvSettingsDialog::handleConfigurationSaved()
{
    emit configurationSaved(m_id);
}

void KvSettingsDialog::handleOnboardScenariosChanged()
{
    emit onboardScenariosChanged(m_id);
}

void KvSettingsDialog::handleFilterOptionsShortcutTriggered()
{
    emit filterOptionsShortcutTriggered(m_id);
}

void KvSettingsDialog::handleFilterChanged()
{
    emit filterChanged(m_id);
}
