#pragma once
// The device pages besides output and synchronisation: who the device is, how it talks and
// filters, and where its GNSS antenna sits.

#include "kvsettingsoptionspage.h"

#include <cstdint>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSpinBox;
class QToolButton;

// Identifier, product code, firmware and hardware versions (read only) and the location id.
class IdentificationParamsKvsPage : public KvSettingsOptionsPage
{
    Q_OBJECT

public:
    explicit IdentificationParamsKvsPage(NdaDevice& device, QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("Identification"); }
    QString trName() const override { return tr("Identification"); }
    QString category() const override { return QStringLiteral("Device"); }
    QString trCategory() const override { return tr("Device"); }
    QStringList sections() const override;

    QString deviceIdText() const;
    int locationId() const;

protected:
    void doApply() override;
    void doUpdateFromDevice() override;
    // The location id needs no reinitialisation.
    void doReinitializeDevice() override {}

private:
    QLabel* m_id = nullptr;
    QLabel* m_productCode = nullptr;
    QLabel* m_firmware = nullptr;
    QLabel* m_hardware = nullptr;
    QSpinBox* m_locationId = nullptr;
};

// Filter profile, baud rate, error mode, RS-485 delay, option flags, orientation resets.
class DeviceSettingsKvsPage : public KvSettingsOptionsPage
{
    Q_OBJECT

public:
    explicit DeviceSettingsKvsPage(NdaDevice& device, QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("DeviceSettings"); }
    QString trName() const override { return tr("Device Settings"); }
    QString category() const override { return QStringLiteral("Device"); }
    QString trCategory() const override { return tr("Device"); }
    QStringList sections() const override;

    // The option flags the device reported (0 when it does not know them).
    uint32_t optionFlags() const { return m_flags; }
    bool hasOptionFlags() const { return m_haveFlags; }
    // Sends ResetOrientation with `code` (1 heading, 5 default heading, 3 inclination,
    // 4 alignment, 0 store); false when the device refused.
    bool resetOrientation(uint16_t code);

signals:
    void filterChanged();
    void onboardScenariosChanged();
    void filterOptionsShortcutTriggered();

protected:
    void doApply() override;
    void doUpdateFromDevice() override;

private:
    bool readOptionFlags(uint32_t* flags) const;
    bool writeOptionFlags(uint32_t set, uint32_t clear);

    QComboBox* m_filterProfile = nullptr;
    QComboBox* m_baudRate = nullptr;
    QComboBox* m_errorMode = nullptr;
    QSpinBox* m_rs485Delay = nullptr;
    QList<QCheckBox*> m_flagBoxes; // bit in the box's "flag" property
    QToolButton* m_resetHeading = nullptr;
    QToolButton* m_defaultHeading = nullptr;
    QToolButton* m_storeHeading = nullptr;
    QLabel* m_resetResult = nullptr;
    uint32_t m_flags = 0;
    bool m_haveFlags = false;
    int m_filterAtLoad = -1;
};

// GNSS lever arm and receiver platform; other devices show that they have none.
class ModelingParamsKvsPage : public KvSettingsOptionsPage
{
    Q_OBJECT

public:
    explicit ModelingParamsKvsPage(NdaDevice& device, QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("ModelingParams"); }
    QString trName() const override { return tr("Modeling Parameters"); }
    QString category() const override { return QStringLiteral("Device"); }
    QString trCategory() const override { return tr("Device"); }
    QStringList sections() const override;

    // The receiver's dynamic models, by platform code.
    static QString platformName(int code);

protected:
    void doApply() override;
    void doUpdateFromDevice() override;

private:
    bool request(uint8_t mid, const NvByteArray& data, NvMessage* reply) const;

    QDoubleSpinBox* m_arm[3] = {};
    QComboBox* m_platform = nullptr;
    QLabel* m_none = nullptr;
};
