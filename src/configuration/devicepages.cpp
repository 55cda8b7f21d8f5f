#include "devicepages.h"

#include "ndadevice.h"

#include "nvbytes.h"
#include "nvenums.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QSpinBox>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

constexpr int RequestTimeoutMs = 2000;

QFrame* section(const QString& objectName, QWidget* parent)
{
    auto* frame = new QFrame(parent);
    frame->setObjectName(objectName);
    frame->setFrameShape(QFrame::StyledPanel);
    return frame;
}

QLabel* heading(const QString& text, QWidget* parent)
{
    auto* label = new QLabel(QStringLiteral("<b>%1</b>").arg(text), parent);
    return label;
}

// Option flags a user may change here, with what they do.
struct FlagText
{
    uint32_t bit;
    const char* text;
};
constexpr FlagText Flags[] = {
    {0x00000001, "Disable automatic storage (settings last until power-off)"},
    {0x00000002, "Disable automatic measurement after power-up"},
    {0x00000004, "GNSS: BeiDou instead of GLONASS"},
    {0x00000010, "Heading stabilisation"},
    {0x00000020, "Orientation smoother"},
    {0x00000080, "In-run compass calibration"},
    {0x00000800, "Position/velocity smoother"},
    {0x00001000, "Continuous zero-rotation update"},
};

} // namespace

// ---- IdentificationParamsKvsPage

IdentificationParamsKvsPage::IdentificationParamsKvsPage(NdaDevice& device, QWidget* parent)
    : KvSettingsOptionsPage(device, parent)
{
    auto* frame = section(QStringLiteral("identification"), this);
    auto* form = new QGridLayout(frame);
    m_id = new QLabel(frame);
    m_productCode = new QLabel(frame);
    m_firmware = new QLabel(frame);
    m_hardware = new QLabel(frame);
    for (QLabel* l : {m_id, m_productCode, m_firmware, m_hardware})
        l->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_locationId = new QSpinBox(frame);
    m_locationId->setObjectName(QStringLiteral("identificationLocationIdSpinBox"));
    m_locationId->setRange(0, 65535);
    m_locationId->setToolTip(tr("A number of your choice that tells devices apart in a setup"));
    form->addWidget(new QLabel(tr("Device ID:"), frame), 0, 0);
    form->addWidget(m_id, 0, 1);
    form->addWidget(new QLabel(tr("Product Code:"), frame), 0, 2);
    form->addWidget(m_productCode, 0, 3);
    form->addWidget(new QLabel(tr("Firmware:"), frame), 1, 0);
    form->addWidget(m_firmware, 1, 1);
    form->addWidget(new QLabel(tr("Hardware:"), frame), 1, 2);
    form->addWidget(m_hardware, 1, 3);
    form->addWidget(new QLabel(tr("Location ID:"), frame), 2, 0);
    form->addWidget(m_locationId, 2, 1);
    form->setColumnStretch(3, 1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(frame);
    connectChangedSignals(this);
}

QStringList IdentificationParamsKvsPage::sections() const
{
    return {QStringLiteral("identificationLocationId")};
}

QString IdentificationParamsKvsPage::deviceIdText() const
{
    return m_id->text();
}

int IdentificationParamsKvsPage::locationId() const
{
    return m_locationId->value();
}

void IdentificationParamsKvsPage::doApply()
{
    NdaDeviceMeasurementPauser pauser(device());
    if (!device().setLocationId(m_locationId->value()))
        QMessageBox::warning(this, tr("Warning"), tr("The location ID was not accepted."));
}

void IdentificationParamsKvsPage::doUpdateFromDevice()
{
    const QSignalBlocker blocker(m_locationId);
    m_id->setText(QString::fromStdString(device().deviceId().toString()));
    m_productCode->setText(device().productCode());
    m_firmware->setText(QString::fromStdString(device().firmwareVersion().toString()));
    m_hardware->setText(QString::fromStdString(device().hardwareVersion().toString()));
    m_locationId->setValue(device().locationId());
    setHaveChanges(false);
}

// ---- DeviceSettingsKvsPage

DeviceSettingsKvsPage::DeviceSettingsKvsPage(NdaDevice& device, QWidget* parent)
    : KvSettingsOptionsPage(device, parent)
{
    auto* layout = new QVBoxLayout(this);

    auto* filter = section(QStringLiteral("filter"), this);
    auto* filterForm = new QFormLayout(filter);
    m_filterProfile = new QComboBox(filter);
    m_filterProfile->setObjectName(QStringLiteral("filterProfileComboBox"));
    filterForm->addRow(heading(tr("Filter"), filter));
    filterForm->addRow(tr("Filter profile:"), m_filterProfile);
    layout->addWidget(filter);

    auto* comm = section(QStringLiteral("communication"), this);
    auto* commForm = new QFormLayout(comm);
    m_baudRate = new QComboBox(comm);
    m_baudRate->setObjectName(QStringLiteral("communicationBaudRateComboBox"));
    for (NvBaudRate code : {NBR_9600, NBR_19200, NBR_38400, NBR_57600, NBR_115200, NBR_230400,
                            NBR_460800, NBR_921600, NBR_2000000, NBR_4000000})
        m_baudRate->addItem(tr("%1 bps").arg(nvBaudRateToRate(code)), static_cast<int>(code));
    m_baudRate->setToolTip(tr("The port follows the device to the new rate when it is reset"));
    m_errorMode = new QComboBox(comm);
    m_errorMode->setObjectName(QStringLiteral("communicationErrorModeComboBox"));
    m_errorMode->addItem(tr("Ignore (drop the sample)"), NEM_IGNORE);
    m_errorMode->addItem(tr("Increase packet counter (gap visible)"), NEM_INCREASE_COUNTER);
    m_errorMode->addItem(tr("Send error"), NEM_SEND_ERROR);
    m_errorMode->addItem(tr("Send error and go to configuration"), NEM_SEND_ERROR_AND_CONFIG);
    m_rs485Delay = new QSpinBox(comm);
    m_rs485Delay->setObjectName(QStringLiteral("rs485DelaySpinBox"));
    m_rs485Delay->setRange(0, 65535);
    m_rs485Delay->setSuffix(tr(" µs"));
    commForm->addRow(heading(tr("Communication"), comm));
    commForm->addRow(tr("Baud rate:"), m_baudRate);
    commForm->addRow(tr("Error mode:"), m_errorMode);
    auto* rs485Label = new QLabel(tr("RS-485 transmit delay:"), comm);
    rs485Label->setObjectName(QStringLiteral("rs485DelayLabel"));
    commForm->addRow(rs485Label, m_rs485Delay);
    layout->addWidget(comm);

    auto* options = section(QStringLiteral("options"), this);
    auto* optionsLayout = new QVBoxLayout(options);
    optionsLayout->addWidget(heading(tr("Options"), options));
    for (const FlagText& flag : Flags) {
        auto* box = new QCheckBox(tr(flag.text), options);
        box->setObjectName(QStringLiteral("optionsFlag%1CheckBox").arg(flag.bit, 0, 16));
        box->setProperty("flag", flag.bit);
        m_flagBoxes.append(box);
        optionsLayout->addWidget(box);
    }
    layout->addWidget(options);

    connectChangedSignals(this);

    // Acting at once, not a pending change: tool buttons stay out of the change tracking.
    auto* orientation = section(QStringLiteral("orientationReset"), this);
    auto* resetLayout = new QHBoxLayout(orientation);
    m_resetHeading = new QToolButton(orientation);
    m_resetHeading->setObjectName(QStringLiteral("orientationResetHeadingButton"));
    m_resetHeading->setText(tr("Reset Heading"));
    m_resetHeading->setToolTip(tr("Make the current heading zero"));
    m_defaultHeading = new QToolButton(orientation);
    m_defaultHeading->setObjectName(QStringLiteral("orientationResetDefaultButton"));
    m_defaultHeading->setText(tr("Default Heading"));
    m_storeHeading = new QToolButton(orientation);
    m_storeHeading->setObjectName(QStringLiteral("orientationResetStoreButton"));
    m_storeHeading->setText(tr("Store"));
    m_storeHeading->setToolTip(tr("Keep the heading reset across power cycles"));
    m_resetResult = new QLabel(orientation);
    resetLayout->addWidget(new QLabel(tr("Orientation:"), orientation));
    resetLayout->addWidget(m_resetHeading);
    resetLayout->addWidget(m_defaultHeading);
    resetLayout->addWidget(m_storeHeading);
    resetLayout->addWidget(m_resetResult, 1);
    layout->addWidget(orientation);
    layout->addStretch();
    connect(m_resetHeading, &QToolButton::clicked, this, [this] { resetOrientation(1); });
    connect(m_defaultHeading, &QToolButton::clicked, this, [this] { resetOrientation(5); });
    connect(m_storeHeading, &QToolButton::clicked, this, [this] { resetOrientation(0); });
}

QStringList DeviceSettingsKvsPage::sections() const
{
    return {QStringLiteral("filter"), QStringLiteral("communication"), QStringLiteral("rs485"),
            QStringLiteral("options"), QStringLiteral("orientationReset")};
}

bool DeviceSettingsKvsPage::resetOrientation(uint16_t code)
{
    NvByteArray data;
    nvbe::appendU16(data, code);
    NvMessage reply;
    const bool ok =
        device().sendCustomMessage(NvMessage(NvMessage::BusIdDevice, NvMid::ResetOrientation, data),
                                   true, reply, RequestTimeoutMs) &&
        reply.messageId() == NvMid::ResetOrientationAck;
    m_resetResult->setText(ok ? tr("Done") : tr("Refused by the device"));
    return ok;
}

bool DeviceSettingsKvsPage::readOptionFlags(uint32_t* flags) const
{
    NvMessage reply;
    if (!device().sendCustomMessage(NvMessage(NvMessage::BusIdDevice, NvMid::ReqOptionFlags, {}),
                                    true, reply, RequestTimeoutMs) ||
        reply.messageId() != NvMid::OptionFlags || reply.dataSize() < 4)
        return false;
    *flags = nvbe::readU32(reply.data());
    return true;
}

bool DeviceSettingsKvsPage::writeOptionFlags(uint32_t set, uint32_t clear)
{
    NvByteArray data;
    nvbe::appendU32(data, set);
    nvbe::appendU32(data, clear);
    NvMessage reply;
    return device().sendCustomMessage(
               NvMessage(NvMessage::BusIdDevice, NvMid::SetOptionFlags, data), true, reply,
               RequestTimeoutMs) &&
           reply.messageId() == NvMid::OptionFlags;
}

void DeviceSettingsKvsPage::doApply()
{
    NdaDeviceMeasurementPauser pauser(device());
    QStringList refused;
    const int profile = m_filterProfile->currentData().toInt();
    if (m_filterProfile->count() > 0 && profile != device().onboardFilterProfile() &&
        !device().setOnboardFilterProfile(profile))
        refused << tr("filter profile");
    const auto baud = static_cast<NvBaudRate>(m_baudRate->currentData().toInt());
    if (!device().isReadingFromFile() && baud != device().serialBaudRate() &&
        !device().setSerialBaudRate(baud))
        refused << tr("baud rate");
    const auto mode = static_cast<NvErrorMode>(m_errorMode->currentData().toInt());
    if (mode != device().errorMode() && !device().setErrorMode(mode))
        refused << tr("error mode");
    if (m_rs485Delay->isVisible() && m_rs485Delay->value() != device().rs485TransmissionDelay() &&
        !device().setRs485TransmissionDelay(static_cast<unsigned short>(m_rs485Delay->value())))
        refused << tr("RS-485 delay");
    if (m_haveFlags) {
        uint32_t set = 0, clear = 0;
        for (QCheckBox* box : m_flagBoxes) {
            if (!box->isEnabled())
                continue;
            const uint32_t bit = box->property("flag").toUInt();
            if (box->isChecked() && !(m_flags & bit))
                set |= bit;
            else if (!box->isChecked() && (m_flags & bit))
                clear |= bit;
        }
        if ((set || clear) && !writeOptionFlags(set, clear))
            refused << tr("options");
    }
    if (!refused.isEmpty())
        QMessageBox::warning(this, tr("Warning"),
                             tr("The device did not accept: %1.").arg(refused.join(tr(", "))));
    if (profile != m_filterAtLoad)
        emit filterChanged();
}

void DeviceSettingsKvsPage::doUpdateFromDevice()
{
    NdaDeviceMeasurementPauser pauser(device());
    const QSignalBlocker b1(m_filterProfile), b2(m_baudRate), b3(m_errorMode), b4(m_rs485Delay);

    m_filterProfile->clear();
    for (const NvFilterProfileInfo& p : device().availableOnboardFilterProfiles())
        m_filterProfile->addItem(
            QStringLiteral("%1 (%2)").arg(QString::fromStdString(p.label)).arg(p.type), p.type);
    m_filterAtLoad = device().onboardFilterProfile();
    m_filterProfile->setCurrentIndex(m_filterProfile->findData(m_filterAtLoad));
    if (m_filterProfile->count() == 0)
        hideSection(QStringLiteral("filter"));

    const int baudIndex = m_baudRate->findData(static_cast<int>(device().serialBaudRate()));
    m_baudRate->setCurrentIndex(baudIndex);
    // A recording or a USB link has no baud rate to choose.
    m_baudRate->setEnabled(baudIndex >= 0 && !isReadOnly());
    m_errorMode->setCurrentIndex(m_errorMode->findData(device().errorMode()));

    const int delay = device().rs485TransmissionDelay();
    const bool rs485 = delay >= 0 && !device().isReadingFromFile();
    if (rs485)
        m_rs485Delay->setValue(delay);
    m_rs485Delay->setVisible(rs485);
    findChild<QLabel*>(QStringLiteral("rs485DelayLabel"))->setVisible(rs485);

    m_haveFlags = readOptionFlags(&m_flags);
    for (QCheckBox* box : m_flagBoxes) {
        const QSignalBlocker blocker(box);
        box->setChecked(m_flags & box->property("flag").toUInt());
        box->setEnabled(m_haveFlags && !isReadOnly());
    }
    const bool canReset = !device().deviceId().isImu() && !device().isReadingFromFile();
    for (QToolButton* b : {m_resetHeading, m_defaultHeading, m_storeHeading})
        b->setEnabled(canReset && !isReadOnly());
    setHaveChanges(false);
}

// ---- ModelingParamsKvsPage

ModelingParamsKvsPage::ModelingParamsKvsPage(NdaDevice& device, QWidget* parent)
    : KvSettingsOptionsPage(device, parent)
{
    auto* layout = new QVBoxLayout(this);
    auto* gnss = section(QStringLiteral("gnssModel"), this);
    auto* form = new QGridLayout(gnss);
    form->addWidget(heading(tr("GNSS Lever Arm"), gnss), 0, 0, 1, 4);
    form->addWidget(new QLabel(tr("Antenna position from the sensor, in the sensor frame:"), gnss),
                    1, 0, 1, 4);
    const char* axes[3] = {"X", "Y", "Z"};
    for (int i = 0; i < 3; ++i) {
        m_arm[i] = new QDoubleSpinBox(gnss);
        m_arm[i]->setObjectName(QStringLiteral("gnssModelLeverArm%1SpinBox").arg(axes[i]));
        m_arm[i]->setRange(-100.0, 100.0);
        m_arm[i]->setDecimals(3);
        m_arm[i]->setSingleStep(0.01);
        m_arm[i]->setSuffix(tr(" m"));
        form->addWidget(new QLabel(QStringLiteral("%1:").arg(axes[i]), gnss), 2, i * 2 % 6);
        form->addWidget(m_arm[i], 2, i * 2 % 6 + 1);
    }
    // Each axis in its own pair of columns.
    form->addWidget(heading(tr("GNSS Platform"), gnss), 3, 0, 1, 4);
    m_platform = new QComboBox(gnss);
    m_platform->setObjectName(QStringLiteral("gnssModelPlatformComboBox"));
    for (int code : {0, 2, 3, 4, 5, 6, 7, 8, 9})
        m_platform->addItem(platformName(code), code);
    form->addWidget(m_platform, 4, 0, 1, 4);
    layout->addWidget(gnss);
    m_none = new QLabel(tr("This device has no modeling parameters to set."), this);
    m_none->setObjectName(QStringLiteral("noModelLabel"));
    layout->addWidget(m_none);
    layout->addStretch();
    connectChangedSignals(this);
    // Double spin boxes are not among the tracked kinds.
    for (QDoubleSpinBox* arm : m_arm)
        connect(arm, qOverload<double>(&QDoubleSpinBox::valueChanged), this,
                &KvSettingsOptionsPage::configurationChanged);
    const bool isGnss = device.deviceId().isGnss();
    gnss->setVisible(isGnss);
    m_none->setVisible(!isGnss);
}

QStringList ModelingParamsKvsPage::sections() const
{
    return {QStringLiteral("gnssModel")};
}

QString ModelingParamsKvsPage::platformName(int code)
{
    switch (code) {
    case 0:
        return tr("Portable");
    case 2:
        return tr("Stationary");
    case 3:
        return tr("Pedestrian");
    case 4:
        return tr("Automotive");
    case 5:
        return tr("At Sea");
    case 6:
        return tr("Airborne < 1 g");
    case 7:
        return tr("Airborne < 2 g");
    case 8:
        return tr("Airborne < 4 g");
    case 9:
        return tr("Wrist");
    }
    return tr("Unknown");
}

bool ModelingParamsKvsPage::request(uint8_t mid, const NvByteArray& data, NvMessage* reply) const
{
    return device().sendCustomMessage(NvMessage(NvMessage::BusIdDevice, mid, data), true, *reply,
                                      RequestTimeoutMs) &&
           reply->messageId() == mid + 1;
}

void ModelingParamsKvsPage::doApply()
{
    if (!device().deviceId().isGnss())
        return;
    NdaDeviceMeasurementPauser pauser(device());
    NvByteArray arm;
    for (QDoubleSpinBox* box : m_arm)
        nvbe::appendF32(arm, static_cast<float>(box->value()));
    NvByteArray platform;
    nvbe::appendU16(platform, static_cast<uint16_t>(m_platform->currentData().toInt()));
    NvMessage reply;
    const bool armOk = request(NvMid::SetGnssLeverArm, arm, &reply);
    const bool platformOk = request(NvMid::SetGnssPlatform, platform, &reply);
    if (!armOk || !platformOk)
        QMessageBox::warning(
            this, tr("Warning"),
            tr("The device did not accept the %1.").arg(!armOk ? tr("lever arm") : tr("platform")));
}

void ModelingParamsKvsPage::doUpdateFromDevice()
{
    if (!device().deviceId().isGnss() || device().isReadingFromFile())
        return;
    NdaDeviceMeasurementPauser pauser(device());
    NvMessage reply;
    if (request(NvMid::ReqGnssLeverArm, {}, &reply) && reply.dataSize() >= 12) {
        for (int i = 0; i < 3; ++i) {
            const QSignalBlocker blocker(m_arm[i]);
            m_arm[i]->setValue(nvbe::readF32(reply.data() + 4 * i));
        }
    }
    if (request(NvMid::ReqGnssPlatform, {}, &reply) && reply.dataSize() >= 2) {
        const QSignalBlocker blocker(m_platform);
        m_platform->setCurrentIndex(m_platform->findData(nvbe::readU16(reply.data())));
    }
    setHaveChanges(false);
}
