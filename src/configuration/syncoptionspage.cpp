#include "syncoptionspage.h"

#include "journaller.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "syncoptionsmodel.h"
#include "syncrenderarea.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>

#include <algorithm>
#include <climits>

namespace {

// Section names: the object names of the widgets they hold begin with them.
const QString ListSection = QStringLiteral("syncList");
const QString ParamSection = QStringLiteral("syncParam");

constexpr int DefaultUpdateRate = 100;

bool isEventOutput(int function)
{
    return function == NSF_GO_TO_OPERATIONAL || function == NSF_START_RECORDING_OUT ||
           function == NSF_STOP_RECORDING_OUT;
}

// Results that say the device could not take any request now, rather than that it
// disliked this one.
bool meansNotReady(NvResultValue rc)
{
    switch (rc) {
    case NRV_INVALID_MESSAGE:
    case NRV_TIMEOUT:
    case NRV_NO_DATA:
    case NRV_UNEXPECTED_DISCONNECT:
    case NRV_PORT_NOT_OPEN:
    case NRV_PORT_READ_ERROR:
    case NRV_PORT_WRITE_ERROR:
    case NRV_INVALID_DEVICE:
    case NRV_INVALID_STATE:
    case NRV_RECORDING_IN_PROGRESS:
    case NRV_NOT_IN_CONFIGURATION:
    case NRV_DEVICE_BUSY:
        return true;
    default:
        return false;
    }
}

void logUsage(const char* event)
{
    jlLog(JLL_TRACE, std::string("Usage: DeviceSettings/") + event);
}

QSpinBox* makeSpin(QWidget* parent, const char* objectName, int minimum, int maximum,
                   const QString& suffix = QString())
{
    auto* spin = new QSpinBox(parent);
    spin->setObjectName(QLatin1String(objectName));
    spin->setRange(minimum, maximum);
    spin->setSuffix(suffix);
    spin->setKeyboardTracking(false);
    return spin;
}

QLabel* makeLabel(QWidget* parent, const char* objectName, const QString& text)
{
    auto* label = new QLabel(text, parent);
    label->setObjectName(QLatin1String(objectName));
    return label;
}

} // namespace

SyncOptionsPage::SyncOptionsPage(NdaDevice& device, QWidget* parent)
    : KvSettingsOptionsPage(device, parent), m_deviceId(device.deviceId())
{
    m_model = new SyncOptionsModel(this);
    buildForm();
    updateWidgetsForSetting(QModelIndex());
    updateWindowTitle();
}

QString SyncOptionsPage::name() const
{
    return QStringLiteral("SyncOptions");
}

QString SyncOptionsPage::trName() const
{
    return tr("Synchronization Options");
}

QString SyncOptionsPage::category() const
{
    return QStringLiteral("Device");
}

QString SyncOptionsPage::trCategory() const
{
    return tr("Device");
}

QStringList SyncOptionsPage::sections() const
{
    return {ListSection, ParamSection};
}

void SyncOptionsPage::buildForm()
{
    auto* mainLayout = new QVBoxLayout(this);

    auto* top = new QHBoxLayout;
    mainLayout->addLayout(top);

    // The rows stay browsable when the page is read-only, so the view is in no section.
    auto* rowsBox = new QVBoxLayout;
    m_listView = new QListView(this);
    m_listView->setObjectName(QStringLiteral("syncRowsView"));
    m_listView->setModel(m_model);
    m_listView->setSelectionMode(QAbstractItemView::SingleSelection);
    m_listView->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_listView->setMinimumWidth(260);
    rowsBox->addWidget(m_listView);
    auto* buttons = new QHBoxLayout;
    m_addButton = new QPushButton(tr("Add"), this);
    m_addButton->setObjectName(ListSection + QStringLiteral("AddButton"));
    m_deleteButton = new QPushButton(tr("Delete"), this);
    m_deleteButton->setObjectName(ListSection + QStringLiteral("DeleteButton"));
    buttons->addWidget(m_addButton);
    buttons->addWidget(m_deleteButton);
    buttons->addStretch();
    rowsBox->addLayout(buttons);
    top->addLayout(rowsBox, 1);

    auto* form = new QFormLayout;
    m_lineCombo = new QComboBox(this);
    m_lineCombo->setObjectName(QStringLiteral("syncParamLineCombo"));
    m_functionCombo = new QComboBox(this);
    m_functionCombo->setObjectName(QStringLiteral("syncParamFunctionCombo"));
    m_polarityCombo = new QComboBox(this);
    m_polarityCombo->setObjectName(QStringLiteral("syncParamPolarityCombo"));
    const QString us = QStringLiteral(" \u00b5s");
    m_pulseWidthSpin = makeSpin(this, "syncParamPulseWidthSpin", 0, INT_MAX, us);
    m_offsetSpin = makeSpin(this, "syncParamOffsetSpin", INT_MIN, INT_MAX, us);
    m_skipFirstSpin = makeSpin(this, "syncParamSkipFirstSpin", 0, 65535);
    m_skipFactorSpin = makeSpin(this, "syncParamSkipFactorSpin", 0, 65535);
    m_clockPeriodSpin = makeSpin(this, "syncParamClockPeriodSpin", 0, 65535, QStringLiteral(" ms"));
    m_triggerOnceCheck = new QCheckBox(tr("Trigger once"), this);
    m_triggerOnceCheck->setObjectName(QStringLiteral("syncParamTriggerOnceCheck"));
    m_offsetLabel = makeLabel(this, "syncParamOffsetLabel", tr("Offset "));

    form->addRow(makeLabel(this, "syncParamLineLabel", tr("Line")), m_lineCombo);
    form->addRow(makeLabel(this, "syncParamFunctionLabel", tr("Function")), m_functionCombo);
    form->addRow(makeLabel(this, "syncParamPolarityLabel", tr("Polarity")), m_polarityCombo);
    form->addRow(makeLabel(this, "syncParamPulseWidthLabel", tr("Pulse width")), m_pulseWidthSpin);
    form->addRow(m_offsetLabel, m_offsetSpin);
    form->addRow(makeLabel(this, "syncParamSkipFirstLabel", tr("Skip first")), m_skipFirstSpin);
    form->addRow(makeLabel(this, "syncParamSkipFactorLabel", tr("Skip factor")), m_skipFactorSpin);
    form->addRow(makeLabel(this, "syncParamClockPeriodLabel", tr("Clock period")),
                 m_clockPeriodSpin);
    form->addRow(QString(), m_triggerOnceCheck);
    top->addLayout(form, 1);

    m_warningLabel = new QLabel(this);
    m_warningLabel->setObjectName(QStringLiteral("syncWarningLabel"));
    m_warningLabel->setTextFormat(Qt::RichText);
    mainLayout->addWidget(m_warningLabel);

    m_renderArea = new SyncRenderArea(this);
    m_renderArea->setObjectName(QStringLiteral("syncRenderArea"));
    mainLayout->addWidget(m_renderArea, 1);

    connect(m_listView->selectionModel(), &QItemSelectionModel::currentChanged, this,
            &SyncOptionsPage::handleCurrentChanged);
    connect(m_addButton, &QPushButton::clicked, this, &SyncOptionsPage::addEntry);
    connect(m_deleteButton, &QPushButton::clicked, this, &SyncOptionsPage::deleteEntry);
    connect(m_lineCombo, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &SyncOptionsPage::handleLineChanged);
    connect(m_functionCombo, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &SyncOptionsPage::handleFunctionChanged);
    connect(m_polarityCombo, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &SyncOptionsPage::setPolarity);
    connect(m_pulseWidthSpin, qOverload<int>(&QSpinBox::valueChanged), this,
            &SyncOptionsPage::setPulseWidth);
    connect(m_offsetSpin, qOverload<int>(&QSpinBox::valueChanged), this,
            &SyncOptionsPage::setOffset);
    connect(m_skipFirstSpin, qOverload<int>(&QSpinBox::valueChanged), this,
            &SyncOptionsPage::setSkipFirst);
    connect(m_skipFactorSpin, qOverload<int>(&QSpinBox::valueChanged), this,
            &SyncOptionsPage::setSkipFactor);
    connect(m_clockPeriodSpin, qOverload<int>(&QSpinBox::valueChanged), this,
            &SyncOptionsPage::setClockPeriod);
    connect(m_triggerOnceCheck, &QCheckBox::toggled, this, &SyncOptionsPage::setTriggerOnce);

    connectChangedSignals(this);
}

// ---- Reading and writing

void SyncOptionsPage::doUpdateFromDevice()
{
    m_deviceId = device().deviceId();
    m_supported = device().supportedSyncSettings();
    const int rate = device().updateRate();
    setUpdateRate(rate > 0 ? rate : DefaultUpdateRate);

    const int previousRow = currentIndex().row();
    m_model->setSyncSettings(device().syncSettings());
    const int rows = m_model->rowCount();
    if (rows > 0) {
        const int row = previousRow >= 0 && previousRow < rows ? previousRow : 0;
        m_listView->setCurrentIndex(m_model->index(row));
    }
    updateWidgetsForSetting(currentIndex());
    updateWindowTitle();
    setHaveChanges(false);
}

void SyncOptionsPage::doApply()
{
    writeSettings();
}

void SyncOptionsPage::apply()
{
    // A refused list stays on the page for the user to correct: re-reading the device
    // would replace it with what the device still holds.
    if (!writeSettings()) {
        setHaveChanges(true);
        return;
    }
    doReinitializeDevice();
    doUpdateFromDevice();
}

bool SyncOptionsPage::writeSettings()
{
    if (isReadOnly())
        return false;
    NvSyncSettingArray list = m_model->syncSettings();
    if (offersGpsClockSync() && !isGpsClockSyncEnabledCorrectly(list) && offerGpsClockSync(list)) {
        m_model->setSyncSettings(list);
        m_listView->setCurrentIndex(m_model->index(0));
        updateWidgetsForSetting(currentIndex());
    }

    // A request without records only reads the settings back; a lone "None" record is
    // what clears them.
    const NvSyncSettingArray request =
        list.empty() ? NvSyncSettingArray{SyncOptionsModel::defaultSetting()} : list;
    bool written = false;
    NvResultValue rc = NRV_OK;
    {
        NdaDeviceMeasurementPauser pauser(device());
        written = device().setSyncSettings(request);
        // Read before the pauser resumes measurement and the result is overwritten.
        rc = device().control().lastResult();
    }
    if (!written) {
        const bool notReady = !device().isValid() || meansNotReady(rc);
        QMessageBox::critical(this, tr("Synchronization Options"),
                              notReady ? tr("Device is not ready.") : tr("Invalid settings."));
        return false;
    }
    logSyncUsage(list);
    return true;
}

void SyncOptionsPage::refresh()
{
    doUpdateFromDevice();
}

void SyncOptionsPage::refreshUi()
{
    updateWidgetsForSetting(currentIndex());
}

void SyncOptionsPage::showWirelessConfigurationPage()
{
    emit wirelessConfigurationRequested(device().deviceId());
}

// ---- GPS clock synchronisation

void SyncOptionsPage::setGpsClockSync(NvSyncSettingArray& settings, const NvDeviceId& id,
                                      bool hasInternalGnss)
{
    // Family S and P trackers also take the receiver's time pulse on a line of their own.
    const bool pulseCapable = id.isFamilyS() || id.isFamilyP();
    const NvSyncLine familyPLine = hasInternalGnss ? NSL_IN3 : NSL_IN2;

    NvSyncSettingArray kept;
    for (const NvSyncSetting& s : settings) {
        if (s.function == NSF_CLOCK_BIAS_ESTIMATION)
            continue;
        if (pulseCapable && s.function == NSF_TIME_PULSE)
            continue;
        kept.push_back(s);
    }

    NvSyncSetting bias;
    bias.line = id.isFamilyP() ? familyPLine : NSL_GNSS_CLOCK_IN;
    bias.function = NSF_CLOCK_BIAS_ESTIMATION;
    bias.polarity = NSP_RISING_EDGE;
    bias.pulseWidth = 1000;
    bias.offset = 0;
    bias.skipFirst = 0;
    bias.skipFactor = 0;
    bias.triggerOnce = 0;
    bias.clockPeriod = (id.isFamilyM() || id.isFamilyS() || id.isFamilyP()) ? 1000 : 250;

    NvSyncSettingArray result;
    if (pulseCapable) {
        NvSyncSetting pulse;
        pulse.line = id.isFamilyP() ? familyPLine : NSL_GNSS_1PPS;
        pulse.function = NSF_TIME_PULSE;
        pulse.polarity = NSP_RISING_EDGE;
        pulse.pulseWidth = 50000;
        pulse.offset = 0;
        pulse.skipFirst = 0;
        pulse.skipFactor = 0;
        pulse.clockPeriod = 0;
        pulse.triggerOnce = 0;
        result.push_back(pulse);
    }
    result.push_back(bias);
    result.insert(result.end(), kept.begin(), kept.end());
    settings = result;
}

bool SyncOptionsPage::isGpsClockSyncEnabledCorrectly(const NvSyncSettingArray& settings,
                                                     const NvDeviceId& id, bool hasInternalGnss)
{
    NvSyncSettingArray wanted;
    setGpsClockSync(wanted, id, hasInternalGnss);
    // Pulse width, offset and skips stay the user's choice; the line, the edge and the
    // clock period must be right for the estimator to lock.
    for (const NvSyncSetting& w : wanted) {
        const bool present =
            std::any_of(settings.begin(), settings.end(), [&w](const NvSyncSetting& s) {
                return s.line == w.line && s.function == w.function && s.polarity == w.polarity &&
                       (w.function != NSF_CLOCK_BIAS_ESTIMATION || s.clockPeriod == w.clockPeriod);
            });
        if (!present)
            return false;
    }
    return true;
}

void SyncOptionsPage::setGpsClockSync(NvSyncSettingArray& settings) const
{
    const NvDeviceId id = device().deviceId();
    setGpsClockSync(settings, id, id.isGnss());
}

bool SyncOptionsPage::isGpsClockSyncEnabledCorrectly(NvSyncSettingArray& settings) const
{
    const NvDeviceId id = device().deviceId();
    return isGpsClockSyncEnabledCorrectly(settings, id, id.isGnss());
}

bool SyncOptionsPage::offersGpsClockSync() const
{
    return device().isValid() && !device().isReadingFromFile() && device().deviceId().isGnss();
}

bool SyncOptionsPage::offerGpsClockSync(NvSyncSettingArray& settings)
{
    NvSyncSettingArray repaired = settings;
    setGpsClockSync(repaired);
    const bool basedOnClockIn =
        std::any_of(repaired.begin(), repaired.end(), [](const NvSyncSetting& s) {
            return s.function == NSF_CLOCK_BIAS_ESTIMATION && s.line == NSL_GNSS_CLOCK_IN;
        });
    QMessageBox box(QMessageBox::Warning, tr("Synchronization Options"),
                    tr("GPS Clock synchronization is not enabled correctly. This results in "
                       "suboptimal device performance, unless an equivalent or better external "
                       "reference clock is used."),
                    QMessageBox::Yes | QMessageBox::No, this);
    box.setInformativeText(basedOnClockIn
                               ? tr("Do you want to enable GPS Clock synchronization with the "
                                    "correct settings (based on the GNSS Clock In)?")
                               : tr("Do you want to enable GPS Clock synchronization with the "
                                    "correct settings?"));
    box.setDefaultButton(QMessageBox::Yes);
    if (box.exec() != QMessageBox::Yes)
        return false;
    settings = repaired;
    return true;
}

// ---- Usage

void SyncOptionsPage::logSyncUsage(const NvSyncSettingArray& settings)
{
    if (settings.empty()) {
        logUsage("AppliedSyncOptions_NoSync");
        return;
    }
    for (const NvSyncSetting& s : settings)
        logUsage(isInput(s.line) ? "AppliedSyncOptions_In" : "AppliedSyncOptions_Out");
}

void SyncOptionsPage::logSyncUsage() const
{
    logSyncUsage(m_model->syncSettings());
}

// ---- Read-only state and title

void SyncOptionsPage::setReadOnly(bool readOnly)
{
    setReadOnlyMode(readOnly, readOnly ? readOnlyReasonFromDevice() : QString());
}

void SyncOptionsPage::setReadOnlyMode(bool readOnly, const QString& reason)
{
    m_readOnlyReason = readOnly ? reason : QString();
    KvSettingsOptionsPage::setReadOnly(readOnly);
    updateWidgetsAvailability(currentIndex());
    updateWindowTitle();
}

QString SyncOptionsPage::readOnlyReasonFromDevice() const
{
    if (!device().isValid())
        return tr("device not available");
    if (device().isReadingFromFile())
        return tr("file");
    if (device().isRecording())
        return tr("recording");
    return QString();
}

void SyncOptionsPage::updateWindowTitle()
{
    QString title = tr("Synchronization Options");
    const NvDeviceId id = device().deviceId();
    if (!id.isEmpty())
        title += tr(" for device %1").arg(QString::fromStdString(id.toString()));
    if (isReadOnly())
        title += m_readOnlyReason.isEmpty() ? tr(" (READ-ONLY)")
                                            : tr(" (READ-ONLY, %1)").arg(m_readOnlyReason);
    setWindowTitle(title);
}

// ---- Rows

QModelIndex SyncOptionsPage::currentIndex() const
{
    const QModelIndex index = m_listView->currentIndex();
    return index.isValid() && index.row() < m_model->rowCount() ? index : QModelIndex();
}

NvSyncSetting SyncOptionsPage::currentSetting() const
{
    return m_model->getSettings(currentIndex());
}

NvSyncSetting SyncOptionsPage::settings(const QModelIndex& index) const
{
    return m_model->getSettings(index);
}

bool SyncOptionsPage::isInput(NvSyncLine line)
{
    return SyncNameDatabase::isInput(line);
}

void SyncOptionsPage::addEntry()
{
    if (isReadOnly())
        return;
    const QModelIndex current = currentIndex();
    const int row = current.isValid() ? current.row() + 1 : m_model->rowCount();
    if (!m_model->insertRows(row, 1))
        return;
    m_listView->setCurrentIndex(m_model->index(row));
    updateWidgetsForSetting(currentIndex());
}

void SyncOptionsPage::deleteEntry()
{
    const QModelIndex current = currentIndex();
    if (isReadOnly() || !current.isValid())
        return;
    const int row = current.row();
    m_model->removeRows(row, 1);
    if (m_model->rowCount() > 0)
        m_listView->setCurrentIndex(m_model->index(std::min(row, m_model->rowCount() - 1)));
    updateWidgetsForSetting(currentIndex());
}

void SyncOptionsPage::handleCurrentChanged(const QModelIndex& current, const QModelIndex&)
{
    updateWidgetsForSetting(current);
}

void SyncOptionsPage::modifyCurrent(const std::function<void(NvSyncSetting&)>& change)
{
    if (m_filling)
        return;
    const QModelIndex index = currentIndex();
    if (!index.isValid())
        return;
    NvSyncSetting s = m_model->getSettings(index);
    change(s);
    m_model->setSettings(index, s);
    updateRenderArea(s);
    testForDuplicate(index);
}

void SyncOptionsPage::handleLineChanged(int comboIndex)
{
    if (m_filling || comboIndex < 0)
        return;
    const int line = m_lineCombo->itemData(comboIndex).toInt();
    modifyCurrent([this, line](NvSyncSetting& s) {
        s.line = NvSyncLine(line);
        // A function the new line does not offer would only be refused by the device.
        if (!m_supported.empty() && s.function != NSF_NONE) {
            const bool offered =
                std::any_of(m_supported.begin(), m_supported.end(), [&s](const NvSyncSetting& o) {
                    return o.line == s.line && o.function == s.function;
                });
            if (!offered)
                s.function = NSF_NONE;
        }
    });
    updateWidgetsForSetting(currentIndex());
}

void SyncOptionsPage::handleFunctionChanged(int comboIndex)
{
    if (m_filling || comboIndex < 0)
        return;
    const int function = m_functionCombo->itemData(comboIndex).toInt();
    modifyCurrent([function](NvSyncSetting& s) { s.function = NvSyncFunction(function); });
    updateWidgetsForSetting(currentIndex());
}

void SyncOptionsPage::setPolarity(int comboIndex)
{
    if (comboIndex < 0)
        return;
    const int polarity = m_polarityCombo->itemData(comboIndex).toInt();
    modifyCurrent([polarity](NvSyncSetting& s) { s.polarity = NvSyncPolarity(polarity); });
}

void SyncOptionsPage::setUpdateRate(int rate)
{
    m_updateRate = rate;
    m_renderArea->setUpdateRate(rate);
}

void SyncOptionsPage::setTriggerOnce(bool once)
{
    modifyCurrent([once](NvSyncSetting& s) { s.triggerOnce = once ? 1 : 0; });
}

void SyncOptionsPage::setSkipFirst(int count)
{
    modifyCurrent([count](NvSyncSetting& s) { s.skipFirst = static_cast<uint16_t>(count); });
}

void SyncOptionsPage::setSkipFactor(int factor)
{
    modifyCurrent([factor](NvSyncSetting& s) { s.skipFactor = static_cast<uint16_t>(factor); });
}

void SyncOptionsPage::setPulseWidth(int microseconds)
{
    modifyCurrent(
        [microseconds](NvSyncSetting& s) { s.pulseWidth = static_cast<uint32_t>(microseconds); });
}

void SyncOptionsPage::setOffset(int microseconds)
{
    modifyCurrent([microseconds](NvSyncSetting& s) { s.offset = microseconds; });
}

void SyncOptionsPage::setClockPeriod(int milliseconds)
{
    modifyCurrent(
        [milliseconds](NvSyncSetting& s) { s.clockPeriod = static_cast<uint16_t>(milliseconds); });
}

// ---- Widgets

void SyncOptionsPage::clearWarningText()
{
    m_warningLabel->clear();
}

void SyncOptionsPage::testForDuplicate(const QModelIndex& index)
{
    if (m_model->isDuplicate(index))
        m_warningLabel->setText(
            tr("<font color=#FF0000>Warning: These are duplicate settings!</font>"));
    else
        clearWarningText();
}

void SyncOptionsPage::fillLineCombo(int currentLine)
{
    const SyncNameDatabase& names = m_model->names();
    QList<int> lines;
    for (int line : names.lines()) {
        const bool offered =
            m_supported.empty() ||
            std::any_of(m_supported.begin(), m_supported.end(),
                        [line](const NvSyncSetting& s) { return int(s.line) == line; });
        if (offered || line == currentLine)
            lines.append(line);
    }
    if (!lines.contains(currentLine))
        lines.append(currentLine); // a line the tables do not know still shows as it is
    const QSignalBlocker blocker(m_lineCombo);
    m_lineCombo->clear();
    for (int line : lines)
        m_lineCombo->addItem(names.lineName(line), line);
    m_lineCombo->setCurrentIndex(m_lineCombo->findData(currentLine));
}

void SyncOptionsPage::fillFunctionCombo(int line, int currentFunction)
{
    const SyncNameDatabase& names = m_model->names();
    QList<int> functions;
    for (int function : names.functions()) {
        const bool offered =
            m_supported.empty() || function == NSF_NONE ||
            std::any_of(m_supported.begin(), m_supported.end(),
                        [line, function](const NvSyncSetting& s) {
                            return int(s.line) == line && int(s.function) == function;
                        });
        if (offered || function == currentFunction)
            functions.append(function);
    }
    if (!functions.contains(currentFunction))
        functions.append(currentFunction);
    const QSignalBlocker blocker(m_functionCombo);
    m_functionCombo->clear();
    for (int function : functions)
        m_functionCombo->addItem(names.functionName(function), function);
    m_functionCombo->setCurrentIndex(m_functionCombo->findData(currentFunction));
}

void SyncOptionsPage::updateWidgetsForSetting(const QModelIndex& index)
{
    m_filling = true;
    const NvSyncSetting s = m_model->getSettings(index);
    fillLineCombo(s.line);
    fillFunctionCombo(s.line, s.function);
    {
        const QSignalBlocker b(m_polarityCombo);
        m_polarityCombo->clear();
        const SyncNameDatabase& names = m_model->names();
        QList<int> polarities = names.polarities();
        if (!polarities.contains(s.polarity))
            polarities.append(s.polarity);
        for (int polarity : polarities)
            m_polarityCombo->addItem(names.polarityName(polarity), polarity);
        m_polarityCombo->setCurrentIndex(m_polarityCombo->findData(int(s.polarity)));
    }
    const auto setSpin = [](QSpinBox* spin, long long value) {
        const QSignalBlocker b(spin);
        spin->setValue(
            static_cast<int>(std::clamp<long long>(value, spin->minimum(), spin->maximum())));
    };
    setSpin(m_pulseWidthSpin, s.pulseWidth);
    setSpin(m_offsetSpin, s.offset);
    setSpin(m_skipFirstSpin, s.skipFirst);
    setSpin(m_skipFactorSpin, s.skipFactor);
    setSpin(m_clockPeriodSpin, s.clockPeriod);
    {
        const QSignalBlocker b(m_triggerOnceCheck);
        m_triggerOnceCheck->setChecked(s.triggerOnce != 0);
    }
    m_filling = false;

    updateWidgetsAvailability(index);
    updateRenderArea(s);
    if (index.isValid())
        testForDuplicate(index);
    else
        clearWarningText();
}

void SyncOptionsPage::enableParameters(bool enable)
{
    for (QWidget* w : findChildren<QWidget*>())
        if (w->objectName().startsWith(ParamSection))
            w->setEnabled(enable);
}

void SyncOptionsPage::updateWidgetsAvailability(const QModelIndex& index)
{
    const bool editable = !isReadOnly();
    m_addButton->setEnabled(editable);
    m_deleteButton->setEnabled(editable && index.isValid());
    enableParameters(editable && index.isValid());

    const NvSyncSetting s = m_model->getSettings(index);
    const bool input = isInput(s.line);
    m_offsetLabel->setText(input ? tr("Offset ") : tr("Delay "));
    if (!editable || !index.isValid())
        return;

    const int f = s.function;
    const bool none = f == NSF_NONE || s.line == NSL_NONE;
    const bool clockBias = f == NSF_CLOCK_BIAS_ESTIMATION;
    // A ReqData message has no edge; a time pulse has a width even on the 1PPS input.
    m_polarityCombo->setEnabled(!none && s.line != NSL_REQ_DATA);
    const bool pulse = !none && (!input || f == NSF_TIME_PULSE);
    m_pulseWidthSpin->setEnabled(pulse);
    findChild<QLabel*>(QStringLiteral("syncParamPulseWidthLabel"))->setEnabled(pulse);
    m_offsetSpin->setEnabled(!none);
    m_offsetLabel->setEnabled(!none);
    const bool skips = !none && !clockBias && !isEventOutput(f);
    m_skipFirstSpin->setEnabled(skips);
    m_skipFactorSpin->setEnabled(skips);
    findChild<QLabel*>(QStringLiteral("syncParamSkipFirstLabel"))->setEnabled(skips);
    findChild<QLabel*>(QStringLiteral("syncParamSkipFactorLabel"))->setEnabled(skips);
    m_clockPeriodSpin->setEnabled(clockBias);
    findChild<QLabel*>(QStringLiteral("syncParamClockPeriodLabel"))->setEnabled(clockBias);
    m_triggerOnceCheck->setEnabled(input && !none && !clockBias && f != NSF_TIME_PULSE);
}

void SyncOptionsPage::updateRenderArea(const NvSyncSetting& s)
{
    const int f = s.function;
    const bool timePulse = f == NSF_TIME_PULSE;
    // The time pulse is drawn as the pulse train it is, whichever line carries it.
    const bool input = isInput(s.line) && !timePulse;
    SyncRenderArea::SyncMode mode = SyncRenderArea::PulseOutput;
    if (!currentIndex().isValid() || f == NSF_NONE || s.line == NSL_NONE)
        mode = SyncRenderArea::NoSync;
    else if (f == NSF_CLOCK_BIAS_ESTIMATION)
        mode = SyncRenderArea::ClockInput;
    else if (input)
        mode = SyncRenderArea::TriggerInput;
    else if (isEventOutput(f))
        mode = SyncRenderArea::EventOutput;

    SyncRenderArea::ZeroPwMode zero = SyncRenderArea::ZeroPwToggle;
    if (f == NSF_PULSE_WIDTH_MODULATION)
        zero = SyncRenderArea::ZeroPwNone;
    else if (timePulse)
        zero = SyncRenderArea::ZeroPwSpike;

    m_renderArea->setFunction(f);
    m_renderArea->setFunctionText(
        currentIndex().isValid() ? m_model->data(currentIndex()).toString() : QString());
    m_renderArea->setInput(input);
    m_renderArea->setSyncMode(mode);
    m_renderArea->setZeroPwMode(zero);
    m_renderArea->setStartSampling(f == NSF_START_SAMPLING);
    m_renderArea->setUpdateRate(m_updateRate);
    m_renderArea->setPolarity(s.polarity);
    m_renderArea->setPulseWidth(s.pulseWidth);
    m_renderArea->setOffset(s.offset);
    m_renderArea->setSkipFirst(s.skipFirst);
    m_renderArea->setSkipFactor(s.skipFactor);
    m_renderArea->setClockPeriod(s.clockPeriod);
    m_renderArea->setTriggerOnce(s.triggerOnce != 0);
}
