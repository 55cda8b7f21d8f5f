#pragma once
// The settings dialog of one device: its pages in a category tree beside a stack, Apply
// (changed pages in creation order, each followed by a reinitialisation and a re-read),
// Revert to factory defaults, and Save/Load Settings to and from a ".nva" file.

#include "ndadeviceobserver.h"
#include "ndadevicestate.h"

#include <QList>
#include <QString>

class KvSettingsOptionsPage;
class IdentificationParamsKvsPage;
class QFrame;
class QPushButton;
class QSplitter;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;

class KvSettingsDialog : public NdaDeviceObserverDialog
{
    Q_OBJECT

public:
    KvSettingsDialog(NdaControl& control, const NvDeviceId& id, QWidget* parent = nullptr);
    ~KvSettingsDialog() override;

    // "KV", "Aerlo Station" or "Unknown Device".
    static QString deviceKind(const NvDeviceId& id);

    const QList<KvSettingsOptionsPage*>& pages() const { return m_pages; }
    KvSettingsOptionsPage* page(const QString& name) const;
    IdentificationParamsKvsPage* identificationPage() const { return m_idPage; }
    bool isReadOnly() const { return m_readOnly; }
    bool hasUnwrittenChanges() const { return m_unwrittenChanges; }
    QString nvaFilename() const { return m_nvaFilename; }
    void setNvaFilename(const QString& name) { m_nvaFilename = name; }

    QPushButton* applyButton() const { return m_apply; }
    QPushButton* revertButton() const { return m_revert; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* loadButton() const { return m_load; }
    QTreeWidget* treeWidget() const { return m_tree; }
    QStackedWidget* stackedWidget() const { return m_stack; }

public slots:
    void handleWriteToKv();
    void handleBeginWriteToKv();
    void handleEndWriteToKv();
    void revertSettings();
    void saveToNva();
    void handleSaveToNvaTriggered();
    void loadFromNva();
    // Applies a configuration file without asking for it.
    void loadFromNva(const QString& fileName);
    void setCurrentWidget(QTreeWidgetItem* current, QTreeWidgetItem* previous);
    void handleDeviceStateChanged(const NvDeviceId& id, NdaDeviceState::Type newState,
                                  NdaDeviceState::Type oldState);
    void disableWriteToKvButton();
    void handleConfigurationChanged();
    void setHaveChanges(bool changes);
    void setReadOnly(bool readOnly);

signals:
    void configurationSaved(const NvDeviceId& id);
    void deviceChanged(const NvDeviceId& id);
    void onboardScenariosChanged(const NvDeviceId& id);
    void filterOptionsShortcutTriggered(const NvDeviceId& id);
    void filterChanged(const NvDeviceId& id);
    void readOnlyChanged(bool readOnly);

protected:
    void onDeviceClosed(const NvDeviceId& id) override;

private slots:
    void handleConfigurationSaved();
    void handleOnboardScenariosChanged();
    void handleFilterOptionsShortcutTriggered();
    void handleFilterChanged();

private:
    void buildForm();
    void setupPages();
    void setupPage(KvSettingsOptionsPage* page);
    QTreeWidgetItem* categoryItem(const QString& category) const;
    QTreeWidgetItem* ensureCategoryAvailable(const QString& category, const QString& trCategory);
    void connectPageSignals(KvSettingsOptionsPage* page);
    void updateReadOnlyState();
    void generateNvaFile();
    void repaintNow(QWidget* widget);

    NvDeviceId m_id;
    QTreeWidget* m_tree = nullptr;
    QStackedWidget* m_stack = nullptr;
    QSplitter* m_splitter = nullptr;
    QFrame* m_idParamsFrame = nullptr;
    QPushButton* m_save = nullptr;
    QPushButton* m_load = nullptr;
    QPushButton* m_apply = nullptr;
    QPushButton* m_revert = nullptr;
    IdentificationParamsKvsPage* m_idPage = nullptr;
    QList<KvSettingsOptionsPage*> m_pages;
    QString m_nvaFilename;
    bool m_readOnly = false;
    bool m_unwrittenChanges = false;
    bool m_saveAfterWrite = false;
};
