#pragma once
// The standard output configuration form: one row per quantity a tracker can send, each
// with its check box (or a choice of variants), numeric format and rate, grouped by kind.
// Rates come from the device, so a quantity it cannot send is hidden with its row.

#include "abstractoutputconfigurationwidget.h"

#include "nvenums.h"

#include <QList>
#include <QPair>
#include <QString>

#include <vector>

class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;

class OutputConfigurationWidget : public AbstractOutputConfigurationWidget
{
    Q_OBJECT

public:
    using Preset = QPair<QString, NvOutputConfigurationArray>;

    explicit OutputConfigurationWidget(NdaDevice& device, QWidget* parent = nullptr);

    NvOutputConfigurationArray getOutputConfigurationFromDevice() const;
    NvOutputConfigurationArray getOutputConfigurationFromGUI() const;
    // One record per chosen row, in the form's order.
    NvOutputConfigurationArray assembleOutputConfigurationListFromGUI() const;
    // Shows `config` and nothing else; records the form has no row for are left out.
    void setOutputConfigurationInGUI(const NvOutputConfigurationArray& config);

    void updateFromDevice(const NvOutputConfigurationArray* config = nullptr) override;
    bool apply() override;
    bool checkForChanges() override;
    void selectDefaultConfigurationPreset() override;

    // Offers the device's rates for `id`; see the rules in the implementation.
    void fillFreqCombo(QComboBox* combo, NvDataIdentifier id);
    // The record's rate, or the nearest offered one below it.
    void selectFreqComboItem(QComboBox* combo, const NvOutputConfiguration& record);

    void generatePresets();
    const QList<Preset>& presets() const { return m_presets; }
    // Index of the preset the form shows, -1 for none.
    int getCurrentPresetFromGUI() const;

public slots:
    // Sets every rate to that of `reference` (or of the fastest enabled rate) where offered.
    void matchFrequencies(QComboBox* reference = nullptr);
    // Sets every numeric format to that of `reference` (or of the highest enabled one).
    void matchSubFormats(QComboBox* reference = nullptr);
    void selectConfigurationPreset(int index);
    void updateSelectedPreset();

    void updateInertialOptions();
    void updatePressureOptions();
    void updateGpsPosVelOptions();
    void updateGpsRawOptions();
    void updateTemperatureOptions();
    void updateHrdOptions();
    void updateAnalogInOptions();
    void updateMagOptions();
    void updateStatusOptions();
    void updateAllOptions();
    void enableOriSubFormat(int oriIndex);
    void setHrdChecked();
    void updateReadOnlyState() override;
    void updateNewDevice() override;

private:
    struct Row
    {
        QString name;
        NvDataIdentifier quantity = NDI_NONE; // NDI_NONE: the choice combo's item says
        bool everyPacket = false;
        QCheckBox* check = nullptr;
        QComboBox* choice = nullptr; // variants with a "none" item first
        QComboBox* freq = nullptr;
        QComboBox* subFormat = nullptr; // the row's own or one shared by its group
        QLabel* everyPacketLabel = nullptr;
        QGroupBox* group = nullptr;

        bool isChosen() const;
        NvDataIdentifier identifier() const; // quantity with the chosen precision
        bool isHidden() const;
    };

    void buildForm();
    QComboBox* makeSubFormatCombo(const QString& name);
    QComboBox* makeFreqCombo(const QString& name);
    void connectRow(Row& row);
    // Marks the form changed after a user edit (not while the form is being filled).
    void handleEdit();
    void updateRows(std::initializer_list<int> rows);
    void updateSubFormat(QComboBox* subFormat, std::initializer_list<int> rows);
    void addDataIdentifierToConfig(NvOutputConfigurationArray& config, NvDataIdentifier id) const;
    Row* rowForQuantity(NvDataIdentifier quantity);
    QList<QComboBox*> combosEndingWith(const QString& suffix) const;
    void hideEmptyGroups();

    std::vector<Row> m_rows; // in the order records are sent
    QList<QGroupBox*> m_groups;
    QComboBox* m_presetCombo = nullptr;
    QCheckBox* m_linkFreqs = nullptr;
    QCheckBox* m_linkFormats = nullptr;
    QList<Preset> m_presets;
    int m_filling = 0; // the form is being filled by the program, not edited
};
