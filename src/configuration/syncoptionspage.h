#pragma once
// The device's synchronisation settings: a list of (line, function) rows, the parameters
// of the selected row, and a timing diagram of it.

#include "kvsettingsoptionspage.h"
#include "ndametatypes.h"
#include "nvdeviceid.h"
#include "nvsyncsetting.h"

#include <QModelIndex>

#include <functional>

class QCheckBox;
class QComboBox;
class QLabel;
class QListView;
class QPushButton;
class QSpinBox;
class SyncOptionsModel;
class SyncRenderArea;

class SyncOptionsPage : public KvSettingsOptionsPage
{
    Q_OBJECT

public:
    explicit SyncOptionsPage(NdaDevice& device, QWidget* parent = nullptr);

    QString name() const override;
    QString trName() const override;
    QString category() const override;
    QString trCategory() const override;
    QStringList sections() const override;

    SyncOptionsModel* model() const { return m_model; }
    SyncRenderArea* renderArea() const { return m_renderArea; }
    QListView* listView() const { return m_listView; }

    NvSyncSetting currentSetting() const;
    NvSyncSetting settings(const QModelIndex& index) const;
    static bool isInput(NvSyncLine line);

    // The settings that clock the device from its GNSS receiver, in front of `settings`
    // (replacing earlier clock-bias and, where the device has a time-pulse line, time-pulse
    // settings). `hasInternalGnss` matters for family P only.
    static void setGpsClockSync(NvSyncSettingArray& settings, const NvDeviceId& id,
                                bool hasInternalGnss);
    static bool isGpsClockSyncEnabledCorrectly(const NvSyncSettingArray& settings,
                                               const NvDeviceId& id, bool hasInternalGnss);
    // The same for this page's device; a GNSS/INS unit has its receiver inside.
    void setGpsClockSync(NvSyncSettingArray& settings) const;
    bool isGpsClockSyncEnabledCorrectly(NvSyncSettingArray& settings) const;
    // Whether writing asks to repair the clock synchronisation: devices with a receiver.
    bool offersGpsClockSync() const;

    // Journals what was written: no synchronisation at all, or a line per setting.
    static void logSyncUsage(const NvSyncSettingArray& settings);
    void logSyncUsage() const;

public slots:
    void apply() override;
    void setReadOnly(bool readOnly) override;
    void refreshUi() override;

    void setReadOnlyMode(bool readOnly, const QString& reason = QString());
    void updateWindowTitle();
    void deleteEntry();
    void addEntry();
    void enableParameters(bool enable);
    void setUpdateRate(int rate);
    void setTriggerOnce(bool once);
    void setSkipFirst(int count);
    void setSkipFactor(int factor);
    void setPulseWidth(int microseconds);
    void setOffset(int microseconds);
    void setClockPeriod(int milliseconds);
    void setPolarity(int comboIndex);
    void clearWarningText();
    void testForDuplicate(const QModelIndex& index);
    void updateWidgetsAvailability(const QModelIndex& index);
    void updateWidgetsForSetting(const QModelIndex& index);
    // Reads the settings from the device again.
    void refresh();
    // Asks the dialog to show the wireless configuration, where a master's radio and
    // rate are set.
    void showWirelessConfigurationPage();

signals:
    void wirelessConfigurationRequested(const NvDeviceId& id);

protected:
    void doApply() override;
    void doUpdateFromDevice() override;

private slots:
    void handleCurrentChanged(const QModelIndex& current, const QModelIndex& previous);
    void handleLineChanged(int comboIndex);
    void handleFunctionChanged(int comboIndex);

private:
    void buildForm();
    // False when the device refused the list (the user was told why).
    bool writeSettings();
    // Offers to add GPS clock synchronisation to `settings`; true when the user accepted.
    bool offerGpsClockSync(NvSyncSettingArray& settings);
    QModelIndex currentIndex() const;
    void modifyCurrent(const std::function<void(NvSyncSetting&)>& change);
    void updateRenderArea(const NvSyncSetting& setting);
    void fillLineCombo(int currentLine);
    void fillFunctionCombo(int line, int currentFunction);
    QString readOnlyReasonFromDevice() const;

    NvDeviceId m_deviceId;
    NvSyncSettingArray m_supported; // (line, function) pairs the device offers
    SyncOptionsModel* m_model = nullptr;
    SyncRenderArea* m_renderArea = nullptr;
    QListView* m_listView = nullptr;
    QPushButton* m_addButton = nullptr;
    QPushButton* m_deleteButton = nullptr;
    QComboBox* m_lineCombo = nullptr;
    QComboBox* m_functionCombo = nullptr;
    QComboBox* m_polarityCombo = nullptr;
    QSpinBox* m_pulseWidthSpin = nullptr;
    QLabel* m_offsetLabel = nullptr;
    QSpinBox* m_offsetSpin = nullptr;
    QSpinBox* m_skipFirstSpin = nullptr;
    QSpinBox* m_skipFactorSpin = nullptr;
    QSpinBox* m_clockPeriodSpin = nullptr;
    QCheckBox* m_triggerOnceCheck = nullptr;
    QLabel* m_warningLabel = nullptr;
    QString m_readOnlyReason;
    int m_updateRate = 100;
    bool m_filling = false; // widgets are being set from the model, not by the user
};
