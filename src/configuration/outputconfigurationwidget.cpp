#include "outputconfigurationwidget.h"

#include "ndadevice.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFont>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHash>
#include <QLabel>
#include <QMessageBox>
#include <QScrollArea>
#include <QVBoxLayout>

#include <algorithm>
#include <utility>

namespace {

constexpr int EveryPacket = NV_FREQUENCY_EVERY_PACKET;

// Row indices, in the order of the table below (and of the records sent).
enum RowIndex
{
    PacketCounterRow,
    SampleTimeFineRow,
    SampleTimeCoarseRow,
    UtcTimeRow,
    TimeOfWeekRow,
    FrameRangeRow,
    OrientationRow,
    AccelerationRow,
    DeltaVRow,
    FreeAccelerationRow,
    RateOfTurnRow,
    DeltaQRow,
    MagneticFieldRow,
    TemperatureRow,
    PressureRow,
    AccelerationHrRow,
    RateOfTurnHrRow,
    StatusByteRow,
    RssiRow,
    StatusWordRow,
    LatLonRow,
    AltitudeRow,
    VelocityRow,
    GpsAgeRow,
    PvtDataRow,
    SatInfoRow,
    PvtPulseRow,
    AnalogIn1Row,
    AnalogIn2Row,
    RowCount
};

enum Group
{
    TimestampGroup,
    OrientationGroup,
    InertialGroup,
    MagneticGroup,
    TemperatureGroup,
    PressureGroup,
    HighRateGroup,
    StatusGroup,
    PositionGroup,
    GnssGroup,
    AnalogGroup,
    GroupCount
};

struct GroupInfo
{
    const char* name;
    const char* title;
    int column;
};

const GroupInfo groupTable[GroupCount] = {
    {"groupTimestamp", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Timestamp"), 0},
    {"groupOrientation", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Orientation"), 0},
    {"groupInertialData", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Inertial Data"), 0},
    {"groupMagneticField", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Magnetic Field"), 0},
    {"groupTemperature", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Temperature"), 0},
    {"groupPressure", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Pressure"), 0},
    {"groupHighRateData", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "High-Rate Data"), 1},
    {"groupStatus", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Status"), 1},
    {"groupPositionAndVelocity",
     QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Position and Velocity"), 1},
    {"groupGnssData", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "GNSS Data"), 1},
    {"groupAnalogIn", QT_TRANSLATE_NOOP("OutputConfigurationWidget", "Analog In"), 1},
};

enum class Kind
{
    EveryPacket, // counters, time stamps and status come with every packet
    Rated,
};

struct RowInfo
{
    const char* name; // object-name stem
    const char* label;
    NvDataIdentifier quantity; // NDI_NONE: a choice of variants
    Kind kind;
    const char* subFormat; // null: none; "": the row's own; else the group's shared one
    Group group;
};

#define TR_ROW(text) QT_TRANSLATE_NOOP("OutputConfigurationWidget", text)

const RowInfo rowTable[RowCount] = {
    {"timestampPacketCounter", TR_ROW("Packet Counter"), NDI_PACKET_COUNTER, Kind::EveryPacket,
     nullptr, TimestampGroup},
    {"timestampSampleTimeFine", TR_ROW("Sample Time Fine"), NDI_SAMPLE_TIME_FINE, Kind::EveryPacket,
     nullptr, TimestampGroup},
    {"timestampSampleTimeCoarse", TR_ROW("Sample Time Coarse"), NDI_SAMPLE_TIME_COARSE,
     Kind::EveryPacket, nullptr, TimestampGroup},
    {"timestampUtcTime", TR_ROW("UTC Time"), NDI_UTC_TIME, Kind::EveryPacket, nullptr,
     TimestampGroup},
    {"timestampUtcTimeOfWeek", TR_ROW("Time Of Week"), NDI_TIME_OF_WEEK, Kind::EveryPacket, nullptr,
     TimestampGroup},
    {"timestampFrameRange", TR_ROW("Frame Range"), NDI_FRAME_RANGE, Kind::EveryPacket, nullptr,
     TimestampGroup},
    {"ori", TR_ROW("Orientation"), NDI_NONE, Kind::Rated, "oriSubFormatComboBox", OrientationGroup},
    {"inertialAcc", TR_ROW("Acceleration"), NDI_ACCELERATION, Kind::Rated, "", InertialGroup},
    {"inertialDeltaV", TR_ROW("\u2206v"), NDI_DELTA_V, Kind::Rated, "", InertialGroup},
    {"freeAcc", TR_ROW("Free Acceleration"), NDI_FREE_ACCELERATION, Kind::Rated, "", InertialGroup},
    {"inertialGyr", TR_ROW("Rate of Turn"), NDI_RATE_OF_TURN, Kind::Rated, "", InertialGroup},
    {"inertialDeltaQ", TR_ROW("\u2206q"), NDI_DELTA_Q, Kind::Rated, "", InertialGroup},
    {"magField", TR_ROW("Magnetic Field"), NDI_MAGNETIC_FIELD, Kind::Rated, "magSubFormatComboBox",
     MagneticGroup},
    {"tempThermometer", TR_ROW("Temperature"), NDI_TEMPERATURE, Kind::Rated,
     "tempSubFormatComboBox", TemperatureGroup},
    {"pressureData", TR_ROW("Barometric Pressure"), NDI_BARO_PRESSURE, Kind::Rated,
     "pressureSubFormatComboBox", PressureGroup},
    {"hrdAcc", TR_ROW("Acceleration HR"), NDI_ACCELERATION_HR, Kind::Rated, nullptr, HighRateGroup},
    {"hrdGyr", TR_ROW("Rate of Turn HR"), NDI_RATE_OF_TURN_HR, Kind::Rated, nullptr, HighRateGroup},
    {"statusLegacyByte", TR_ROW("Status Byte"), NDI_STATUS_BYTE, Kind::EveryPacket, nullptr,
     StatusGroup},
    {"statusRssi", TR_ROW("RSSI"), NDI_RSSI, Kind::EveryPacket, nullptr, StatusGroup},
    {"statusWord", TR_ROW("Status Word"), NDI_STATUS_WORD, Kind::EveryPacket, nullptr, StatusGroup},
    {"gpsPosVelLatLon", TR_ROW("Latitude and Longitude"), NDI_LAT_LON, Kind::Rated,
     "gpsPosVelSubFormatComboBox", PositionGroup},
    {"gpsPosVelAltitude", TR_ROW("Altitude"), NDI_NONE, Kind::Rated, "gpsPosVelSubFormatComboBox",
     PositionGroup},
    {"gpsPosVelVelocity", TR_ROW("Velocity"), NDI_VELOCITY, Kind::Rated,
     "gpsPosVelSubFormatComboBox", PositionGroup},
    {"gpsAge", TR_ROW("GPS Age"), NDI_GNSS_AGE, Kind::EveryPacket, nullptr, GnssGroup},
    {"gpsPvtData", TR_ROW("Pvt Data"), NDI_GNSS_PVT_DATA, Kind::Rated, nullptr, GnssGroup},
    {"gpsSatInfo", TR_ROW("SatInfo"), NDI_GNSS_SAT_INFO, Kind::Rated, nullptr, GnssGroup},
    {"gpsPvtPulse", TR_ROW("Pvt Pulse Timestamp"), NDI_GNSS_PVT_PULSE, Kind::Rated, nullptr,
     GnssGroup},
    {"analogIn1", TR_ROW("Analog In Channel 1"), NDI_ANALOG_IN_1, Kind::Rated, nullptr,
     AnalogGroup},
    {"analogIn2", TR_ROW("Analog In Channel 2"), NDI_ANALOG_IN_2, Kind::Rated, nullptr,
     AnalogGroup},
};

#undef TR_ROW

// The combo box's current rate; -1 when it offers none ("Not Available" or empty).
int rateOf(const QComboBox* combo)
{
    if (!combo || combo->currentIndex() < 0)
        return -1;
    bool ok = false;
    const int rate = combo->currentData().toInt(&ok);
    return ok ? rate : -1;
}

NvOutputConfigurationArray sorted(NvOutputConfigurationArray config)
{
    std::sort(config.begin(), config.end());
    return config;
}

bool isOrientation(NvDataIdentifier quantity)
{
    return quantity == NDI_QUATERNION || quantity == NDI_ROTATION_MATRIX ||
           quantity == NDI_EULER_ANGLES;
}

bool isAltitude(NvDataIdentifier quantity)
{
    return quantity == NDI_ALTITUDE_MSL || quantity == NDI_ALTITUDE_ELLIPSOID ||
           quantity == NDI_POSITION_ECEF;
}

// Families P and Q sample both high-rate quantities on one clock.
bool sharesHighRate(const NvDeviceId& id)
{
    return id.isFamilyP() || id.isFamilyQ();
}

// Shared by every form: a match started by one form must not be re-entered by the
// combo boxes it changes, in whichever form they sit.
bool matchingFrequencies = false;
bool matchingSubFormats = false;

} // namespace

// ---- Row

bool OutputConfigurationWidget::Row::isChosen() const
{
    return check ? check->isChecked() : choice && choice->currentIndex() > 0;
}

NvDataIdentifier OutputConfigurationWidget::Row::identifier() const
{
    NvDataIdentifier id = quantity;
    if (choice)
        id = NvDataIdentifier(choice->currentData().toUInt());
    if (subFormat && subFormat->currentIndex() > 0)
        id = NvDataIdentifier(id | (subFormat->currentIndex() & NDI_PRECISION_MASK));
    return id;
}

bool OutputConfigurationWidget::Row::isHidden() const
{
    return check ? check->isHidden() : choice->isHidden();
}

// ---- Form

OutputConfigurationWidget::OutputConfigurationWidget(NdaDevice& device, QWidget* parent)
    : AbstractOutputConfigurationWidget(device, parent)
{
    setObjectName(QStringLiteral("outputConfigurationWidget"));
    buildForm();
    updateNewDevice();
    updateFromDevice();
}

QComboBox* OutputConfigurationWidget::makeSubFormatCombo(const QString& name)
{
    auto* combo = new QComboBox;
    combo->setObjectName(name);
    // The index is the precision OR-ed into the identifier: keep this order.
    combo->addItem(tr("Floating Point 32-bit"));
    combo->addItem(tr("Fixed Point 12.20"));
    combo->addItem(tr("Fixed Point 16.32"));
    combo->addItem(tr("Floating Point 64-bit"));
    combo->setToolTip(tr("Numeric format"));
    return combo;
}

QComboBox* OutputConfigurationWidget::makeFreqCombo(const QString& name)
{
    auto* combo = new QComboBox;
    combo->setObjectName(name);
    combo->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    combo->setMinimumContentsLength(8);
    combo->setToolTip(tr("Output rate"));
    combo->setPlaceholderText(tr("None"));
    return combo;
}

void OutputConfigurationWidget::buildForm()
{
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);

    auto* top = new QHBoxLayout;
    auto* presetLabel = new QLabel(tr("Preset:"));
    presetLabel->setObjectName(QStringLiteral("presetLabel"));
    m_presetCombo = new QComboBox;
    m_presetCombo->setObjectName(QStringLiteral("presetComboBox"));
    m_presetCombo->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    m_presetCombo->setMinimumContentsLength(24);
    presetLabel->setBuddy(m_presetCombo);
    m_linkFreqs = new QCheckBox(tr("Link Freqs"));
    m_linkFreqs->setObjectName(QStringLiteral("linkFreqsCheckBox"));
    m_linkFreqs->setToolTip(tr("Changing one rate sets every other rate to it where offered"));
    m_linkFormats = new QCheckBox(tr("Link Formats"));
    m_linkFormats->setObjectName(QStringLiteral("linkFormatsCheckBox"));
    m_linkFormats->setToolTip(tr("Changing one numeric format sets every other one to it"));
    top->addWidget(presetLabel);
    top->addWidget(m_presetCombo);
    top->addStretch(1);
    top->addWidget(m_linkFormats);
    top->addWidget(m_linkFreqs);
    outer->addLayout(top);

    auto* note = new QLabel(tr("For some devices, these values can be approximations"));
    note->setObjectName(QStringLiteral("frequencyNoteLabel"));
    note->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    QFont noteFont = note->font();
    noteFont.setItalic(true);
    note->setFont(noteFont);
    note->setToolTip(tr("The rates offered are those the device reports; some devices "
                        "derive them from a clock that does not divide them exactly"));
    outer->addWidget(note);

    auto* scroll = new QScrollArea;
    scroll->setObjectName(QStringLiteral("outputScrollArea"));
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("outputContent"));
    auto* columns = new QHBoxLayout(content);
    QVBoxLayout* column[2] = {new QVBoxLayout, new QVBoxLayout};
    columns->addLayout(column[0], 1);
    columns->addLayout(column[1], 1);

    QGridLayout* grids[GroupCount] = {};
    for (int g = 0; g < GroupCount; ++g) {
        auto* box = new QGroupBox(tr(groupTable[g].title));
        box->setObjectName(QLatin1String(groupTable[g].name));
        grids[g] = new QGridLayout(box);
        grids[g]->setColumnStretch(0, 1);
        column[groupTable[g].column]->addWidget(box);
        m_groups.append(box);
    }
    column[0]->addStretch(1);
    column[1]->addStretch(1);

    // Shared numeric formats; the position one gets a row of its own, the others sit on the
    // single row of their group.
    QComboBox* positionFormat = makeSubFormatCombo(QStringLiteral("gpsPosVelSubFormatComboBox"));
    {
        auto* label = new QLabel(tr("Format:"));
        label->setObjectName(QStringLiteral("gpsPosVelSubFormatLabel"));
        grids[PositionGroup]->addWidget(label, 0, 0);
        grids[PositionGroup]->addWidget(positionFormat, 0, 1);
    }

    m_rows.resize(RowCount);
    for (int i = 0; i < RowCount; ++i) {
        const RowInfo& info = rowTable[i];
        Row& row = m_rows[size_t(i)];
        row.name = QLatin1String(info.name);
        row.quantity = info.quantity;
        row.everyPacket = info.kind == Kind::EveryPacket;
        row.group = m_groups.at(info.group);
        QGridLayout* grid = grids[info.group];
        const int line = grid->rowCount();

        if (i == OrientationRow) {
            row.choice = new QComboBox;
            row.choice->setObjectName(QStringLiteral("oriFormatComboBox"));
            row.choice->addItem(tr("No Orientation"), 0);
            row.choice->addItem(tr("Quaternion"), int(NDI_QUATERNION));
            row.choice->addItem(tr("Euler Angles"), int(NDI_EULER_ANGLES));
            row.choice->addItem(tr("Rotation Matrix"), int(NDI_ROTATION_MATRIX));
            grid->addWidget(row.choice, line, 0);
        } else if (i == AltitudeRow) {
            row.choice = new QComboBox;
            row.choice->setObjectName(QStringLiteral("gpsPosVelAltitudeFormatComboBox"));
            row.choice->addItem(tr("No Altitude"), 0);
            row.choice->addItem(tr("Ellipsoid Altitude"), int(NDI_ALTITUDE_ELLIPSOID));
            grid->addWidget(row.choice, line, 0);
        } else {
            row.check = new QCheckBox(tr(info.label));
            row.check->setObjectName(row.name + QStringLiteral("CheckBox"));
            grid->addWidget(row.check, line, 0);
        }

        if (info.subFormat) {
            const QString name = *info.subFormat ? QLatin1String(info.subFormat)
                                                 : row.name + QStringLiteral("SubFormatComboBox");
            if (name == positionFormat->objectName()) {
                row.subFormat = positionFormat;
            } else {
                row.subFormat = makeSubFormatCombo(name);
                grid->addWidget(row.subFormat, line, 1);
            }
        }

        row.freq = makeFreqCombo(row.name + QStringLiteral("FreqComboBox"));
        grid->addWidget(row.freq, line, 2);
        if (row.everyPacket) {
            // The device sends these with every packet whatever the rates say; the combo
            // stays (it tells whether the device has the item) but is not shown.
            row.everyPacketLabel = new QLabel(tr("every packet"));
            row.everyPacketLabel->setObjectName(row.name + QStringLiteral("EveryPacketLabel"));
            row.everyPacketLabel->setEnabled(false);
            grid->addWidget(row.everyPacketLabel, line, 2);
        }
    }

    scroll->setWidget(content);
    outer->addWidget(scroll, 1);

    for (Row& row : m_rows)
        connectRow(row);
    connect(m_presetCombo, qOverload<int>(&QComboBox::activated), this,
            &OutputConfigurationWidget::selectConfigurationPreset);
    connect(m_linkFreqs, &QCheckBox::toggled, this, [this](bool on) {
        if (on && !m_filling)
            matchFrequencies(nullptr);
    });
    connect(m_linkFormats, &QCheckBox::toggled, this, [this](bool on) {
        if (on && !m_filling)
            matchSubFormats(nullptr);
    });
    // A shared format belongs to no single row; connect it once.
    connect(positionFormat, qOverload<int>(&QComboBox::currentIndexChanged), this,
            [this, positionFormat] {
                if (!m_filling && m_linkFormats->isChecked())
                    matchSubFormats(positionFormat);
                handleEdit();
            });
}

void OutputConfigurationWidget::connectRow(Row& row)
{
    const int index = int(&row - m_rows.data());
    if (row.check) {
        connect(row.check, &QCheckBox::toggled, this, [this, index] {
            switch (index) {
            case AccelerationRow:
            case DeltaVRow:
            case FreeAccelerationRow:
            case RateOfTurnRow:
            case DeltaQRow:
                updateInertialOptions();
                break;
            case MagneticFieldRow:
                updateMagOptions();
                break;
            case TemperatureRow:
                updateTemperatureOptions();
                break;
            case PressureRow:
                updatePressureOptions();
                break;
            case AccelerationHrRow:
            case RateOfTurnHrRow:
                setHrdChecked();
                break;
            case StatusByteRow:
            case RssiRow:
            case StatusWordRow:
                updateStatusOptions();
                break;
            case LatLonRow:
            case VelocityRow:
                updateGpsPosVelOptions();
                break;
            case GpsAgeRow:
            case PvtDataRow:
            case SatInfoRow:
            case PvtPulseRow:
                updateGpsRawOptions();
                break;
            case AnalogIn1Row:
            case AnalogIn2Row:
                updateAnalogInOptions();
                break;
            default:
                break;
            }
            handleEdit();
        });
    }
    if (row.choice) {
        connect(row.choice, qOverload<int>(&QComboBox::currentIndexChanged), this,
                [this, index](int current) {
                    if (index == OrientationRow) {
                        enableOriSubFormat(current);
                        updateStatusOptions();
                    } else {
                        updateGpsPosVelOptions();
                    }
                    handleEdit();
                });
    }
    QComboBox* freq = row.freq;
    connect(freq, qOverload<int>(&QComboBox::currentIndexChanged), this, [this, freq, index] {
        if (m_filling)
            return;
        if (index == AccelerationHrRow && sharesHighRate(ndaDevice().deviceId()))
            setHrdChecked();
        if (m_linkFreqs->isChecked())
            matchFrequencies(freq);
        handleEdit();
    });
    // The position format is shared by three rows and connected where it is made.
    if (row.subFormat && index != LatLonRow && index != AltitudeRow && index != VelocityRow) {
        QComboBox* sub = row.subFormat;
        connect(sub, qOverload<int>(&QComboBox::currentIndexChanged), this, [this, sub] {
            if (!m_filling && m_linkFormats->isChecked())
                matchSubFormats(sub);
            handleEdit();
        });
    }
}

void OutputConfigurationWidget::handleEdit()
{
    if (m_filling)
        return;
    setModified(true);
    updateSelectedPreset();
    emit configurationChanged();
}

// ---- Reading and writing

NvOutputConfigurationArray OutputConfigurationWidget::getOutputConfigurationFromDevice() const
{
    return ndaDevice().outputConfiguration();
}

NvOutputConfigurationArray OutputConfigurationWidget::getOutputConfigurationFromGUI() const
{
    return assembleOutputConfigurationListFromGUI();
}

NvOutputConfigurationArray OutputConfigurationWidget::assembleOutputConfigurationListFromGUI() const
{
    NvOutputConfigurationArray config;
    const bool sharedHighRate = sharesHighRate(ndaDevice().deviceId());
    for (size_t i = 0; i < m_rows.size(); ++i) {
        const Row& row = m_rows[i];
        if (!row.isChosen())
            continue;
        int frequency = EveryPacket;
        if (!row.everyPacket) {
            const QComboBox* combo = row.freq;
            if (i == RateOfTurnHrRow && sharedHighRate)
                combo = m_rows[AccelerationHrRow].freq;
            frequency = rateOf(combo);
            if (frequency < 0) // nothing the device offers for it
                continue;
        }
        config.emplace_back(row.identifier(), uint16_t(frequency));
    }
    return config;
}

void OutputConfigurationWidget::setOutputConfigurationInGUI(
    const NvOutputConfigurationArray& config)
{
    ++m_filling;
    for (Row& row : m_rows) {
        if (row.check)
            row.check->setChecked(false);
        else
            row.choice->setCurrentIndex(0);
        if (row.subFormat)
            row.subFormat->setCurrentIndex(0);
    }
    QHash<QComboBox*, int> formatSetBy;
    for (const NvOutputConfiguration& record : config) {
        const NvDataIdentifier quantity = nvQuantity(record.dataIdentifier);
        Row* row = rowForQuantity(quantity);
        if (!row)
            continue;
        if (row->check) {
            row->check->setChecked(true);
        } else {
            const int item = row->choice->findData(int(quantity));
            if (item < 0)
                continue;
            row->choice->setCurrentIndex(item);
        }
        // A shared format can show one precision only: the first row of its group that
        // the device sends (latitude/longitude for the position group) decides.
        const int index = int(row - m_rows.data());
        if (row->subFormat && index <= formatSetBy.value(row->subFormat, index)) {
            row->subFormat->setCurrentIndex(nvPrecision(record.dataIdentifier));
            formatSetBy.insert(row->subFormat, index);
        }
        if (!row->everyPacket)
            selectFreqComboItem(row->freq, record);
    }
    --m_filling;
    updateAllOptions();
    updateSelectedPreset();
}

void OutputConfigurationWidget::updateFromDevice(const NvOutputConfigurationArray* config)
{
    setOutputConfigurationInGUI(config ? *config : getOutputConfigurationFromDevice());
    setModified(false);
}

bool OutputConfigurationWidget::checkForChanges()
{
    return sorted(assembleOutputConfigurationListFromGUI()) !=
           sorted(getOutputConfigurationFromDevice());
}

bool OutputConfigurationWidget::apply()
{
    NdaDevice& device = ndaDevice();
    if (isReadOnly() || !device.isValid())
        return false;
    if (!checkForChanges()) {
        setModified(false);
        return true;
    }

    NvOutputConfigurationArray config = assembleOutputConfigurationListFromGUI();
    bool written = false;
    bool transferred = false;
    {
        NdaDeviceMeasurementPauser pauser(device);
        written = device.setOutputConfiguration(config);
        device.reinitialize();
        transferred = written && !checkForChanges();
    }
    // The boxes come after the device has been given back its measurement: a user may
    // leave a box open for a while.
    if (!written) {
        QMessageBox::warning(this, tr("Output Configuration"),
                             tr("Configuration failed.\nPlease check settings."));
        return false;
    }
    if (!transferred) {
        QMessageBox::warning(
            this, tr("Output Configuration"),
            tr("Not all settings have been properly transferred to the device.\nPlease check "
               "settings."));
        return false;
    }
    setModified(false);
    emit changesSubmitted();
    return true;
}

// ---- Rates

void OutputConfigurationWidget::fillFreqCombo(QComboBox* combo, NvDataIdentifier id)
{
    if (!combo)
        return;
    ++m_filling;
    combo->clear();
    NdaDevice& device = ndaDevice();
    const NvIntArray rates = device.supportedUpdateRates(id);
    if (rates.empty()) {
        combo->addItem(tr("Not Available"), -1);
        QString section = combo->objectName();
        section.chop(12); // "FreqComboBox"
        if (section.size() > 2)
            hideSection(section);
        combo->setCurrentIndex(0);
        --m_filling;
        return;
    }
    if (rates.size() == 1 && rates.front() == 0) {
        combo->addItem(tr("Default"), 0);
        combo->setCurrentIndex(0);
        --m_filling;
        return;
    }
    if (rates.size() == 1 && rates.front() == EveryPacket)
        combo->hide();

    // A high-rate quantity is only worth choosing above what the ordinary one can do.
    int lowerLimit = 0;
    if (nvQuantity(id) == NDI_ACCELERATION_HR)
        lowerLimit = device.maximumUpdateRate(NDI_ACCELERATION);
    else if (nvQuantity(id) == NDI_RATE_OF_TURN_HR)
        lowerLimit = device.maximumUpdateRate(NDI_RATE_OF_TURN);
    for (const int rate : rates)
        if (rate > lowerLimit)
            combo->addItem(tr("%1 Hz").arg(rate), rate);
    combo->setToolTip(combo->count() > 0
                          ? tr("Output rate")
                          : tr("The standard item already reaches the device's highest rate"));
    combo->setCurrentIndex(0);
    --m_filling;
}

void OutputConfigurationWidget::selectFreqComboItem(QComboBox* combo,
                                                    const NvOutputConfiguration& record)
{
    if (!combo)
        return;
    const int wanted = record.frequency;
    int item = combo->findData(wanted);
    if (item < 0) {
        int best = -1;
        for (int i = 0; i < combo->count(); ++i) {
            const int rate = combo->itemData(i).toInt();
            if (rate <= wanted && (best < 0 || rate > combo->itemData(best).toInt()))
                best = i;
        }
        item = best;
    }
    if (item >= 0)
        combo->setCurrentIndex(item);
}

QList<QComboBox*> OutputConfigurationWidget::combosEndingWith(const QString& suffix) const
{
    QList<QComboBox*> out;
    const QList<QComboBox*> combos = findChildren<QComboBox*>();
    for (QComboBox* combo : combos)
        if (combo->objectName().endsWith(suffix))
            out.append(combo);
    return out;
}

void OutputConfigurationWidget::matchFrequencies(QComboBox* reference)
{
    if (matchingFrequencies)
        return;
    const QList<QComboBox*> combos = combosEndingWith(QStringLiteral("FreqComboBox"));
    if (!reference) {
        int bestRate = 0;
        for (QComboBox* combo : combos) {
            if (!combo->isEnabled())
                continue;
            const int rate = rateOf(combo);
            if (!reference) {
                reference = combo;
                bestRate = rate;
            } else if (rate > 0 && rate >= bestRate) {
                reference = combo;
                bestRate = rate;
            }
        }
        if (!reference)
            return;
    }

    const int limit = rateOf(reference);
    matchingFrequencies = true;
    for (QComboBox* combo : combos) {
        if (combo == reference)
            continue;
        // The fastest rate the combo offers that does not exceed the reference, whatever
        // order the device listed its rates in.
        int best = -1;
        for (int i = 0; i < combo->count(); ++i) {
            const int rate = combo->itemData(i).toInt();
            if (rate <= limit && (best < 0 || rate > combo->itemData(best).toInt()))
                best = i;
        }
        if (best >= 0)
            combo->setCurrentIndex(best);
    }
    matchingFrequencies = false;
}

void OutputConfigurationWidget::matchSubFormats(QComboBox* reference)
{
    if (matchingSubFormats)
        return;
    const QList<QComboBox*> combos = combosEndingWith(QStringLiteral("SubFormatComboBox"));
    if (!reference) {
        for (QComboBox* combo : combos)
            if (combo->isEnabled() &&
                (!reference || combo->currentIndex() >= reference->currentIndex()))
                reference = combo;
        if (!reference)
            return;
    }
    const int index = reference->currentIndex();
    matchingSubFormats = true;
    for (QComboBox* combo : combos)
        if (combo != reference && index < combo->count())
            combo->setCurrentIndex(index);
    matchingSubFormats = false;
}

// ---- Presets

void OutputConfigurationWidget::addDataIdentifierToConfig(NvOutputConfigurationArray& config,
                                                          NvDataIdentifier id) const
{
    const NvIntArray rates = ndaDevice().supportedUpdateRates(id);
    if (rates.empty())
        return;
    config.emplace_back(id, uint16_t(*std::max_element(rates.begin(), rates.end())));
}

void OutputConfigurationWidget::generatePresets()
{
    m_presets.clear();
    const NdaDevice& device = ndaDevice();
    const NvDeviceId id = device.deviceId();
    const NvOutputConfigurationArray common = {{NDI_PACKET_COUNTER, EveryPacket},
                                               {NDI_SAMPLE_TIME_FINE, EveryPacket},
                                               {NDI_STATUS_WORD, EveryPacket}};

    NvOutputConfigurationArray host = common;
    addDataIdentifierToConfig(host, NDI_DELTA_V);
    addDataIdentifierToConfig(host, NDI_DELTA_Q);
    {
        // The magnetometer is read at 100 Hz for host processing, where offered.
        const NvIntArray rates = device.supportedUpdateRates(NDI_MAGNETIC_FIELD);
        if (std::find(rates.begin(), rates.end(), 100) != rates.end())
            host.emplace_back(NDI_MAGNETIC_FIELD, uint16_t(100));
        else
            addDataIdentifierToConfig(host, NDI_MAGNETIC_FIELD);
    }
    addDataIdentifierToConfig(host, NDI_BARO_PRESSURE);
    if (id.isGnss()) {
        addDataIdentifierToConfig(host, NDI_GNSS_PVT_DATA);
        addDataIdentifierToConfig(host, NDI_GNSS_PVT_PULSE);
    }
    m_presets.append({tr("NDA Processing"), host});

    if (!id.isWirelessTracker() && !id.isFamilyL() && !id.isFamilyP()) {
        NvOutputConfigurationArray highRate = common;
        addDataIdentifierToConfig(highRate, NDI_ACCELERATION_HR);
        addDataIdentifierToConfig(highRate, NDI_RATE_OF_TURN_HR);
        m_presets.append({tr("High-Rate Calibrated Outputs"), highRate});
    }

    if (!id.isImu() && !id.isWirelessTracker() && !id.isFamilyL()) {
        NvOutputConfigurationArray onboard = common;
        addDataIdentifierToConfig(onboard, NDI_QUATERNION);
        addDataIdentifierToConfig(onboard, NvDataIdentifier(NDI_LAT_LON | NDP_FP1632));
        addDataIdentifierToConfig(onboard, NvDataIdentifier(NDI_ALTITUDE_ELLIPSOID | NDP_FP1632));
        addDataIdentifierToConfig(onboard, NvDataIdentifier(NDI_VELOCITY | NDP_FP1632));
        m_presets.append({tr("Onboard Processing"), onboard});
    }

    ++m_filling;
    m_presetCombo->clear();
    for (const Preset& preset : m_presets)
        m_presetCombo->addItem(preset.first);
    m_presetCombo->setCurrentIndex(-1);
    --m_filling;
}

int OutputConfigurationWidget::getCurrentPresetFromGUI() const
{
    const NvOutputConfigurationArray form = sorted(assembleOutputConfigurationListFromGUI());
    int found = -1;
    for (int i = 0; i < m_presets.size(); ++i)
        if (sorted(m_presets.at(i).second) == form)
            found = i;
    return found;
}

void OutputConfigurationWidget::updateSelectedPreset()
{
    const int index = getCurrentPresetFromGUI();
    if (m_presetCombo->currentIndex() != index)
        m_presetCombo->setCurrentIndex(index);
}

void OutputConfigurationWidget::selectConfigurationPreset(int index)
{
    if (index < 0 || index >= m_presets.size())
        return;
    setOutputConfigurationInGUI(m_presets.at(index).second);
    setModified(true);
    emit configurationChanged();
}

void OutputConfigurationWidget::selectDefaultConfigurationPreset()
{
    selectConfigurationPreset(0);
}

// ---- Option dependencies

void OutputConfigurationWidget::updateRows(std::initializer_list<int> rows)
{
    const bool writable = isWritable();
    for (const int index : rows) {
        Row& row = m_rows[size_t(index)];
        if (row.check)
            row.check->setEnabled(writable);
        if (row.choice)
            row.choice->setEnabled(writable);
        row.freq->setEnabled(writable && !row.everyPacket && row.isChosen());
    }
}

void OutputConfigurationWidget::updateSubFormat(QComboBox* subFormat,
                                                std::initializer_list<int> rows)
{
    bool chosen = false;
    for (const int index : rows)
        chosen = chosen || m_rows[size_t(index)].isChosen();
    subFormat->setEnabled(isWritable() && chosen);
}

void OutputConfigurationWidget::updateInertialOptions()
{
    updateRows({AccelerationRow, DeltaVRow, FreeAccelerationRow, RateOfTurnRow, DeltaQRow});
    for (const int index :
         {AccelerationRow, DeltaVRow, FreeAccelerationRow, RateOfTurnRow, DeltaQRow})
        updateSubFormat(m_rows[size_t(index)].subFormat, {index});
}

void OutputConfigurationWidget::updatePressureOptions()
{
    Row& row = m_rows[PressureRow];
    // Family R decides the pressure box elsewhere; leave it as it stands.
    const bool keepBox = ndaDevice().deviceId().isFamilyR();
    const bool wasEnabled = row.check->isEnabled();
    updateRows({PressureRow});
    if (keepBox)
        row.check->setEnabled(wasEnabled);
    updateSubFormat(row.subFormat, {PressureRow});
}

void OutputConfigurationWidget::updateGpsPosVelOptions()
{
    updateRows({LatLonRow, AltitudeRow, VelocityRow});
    updateSubFormat(m_rows[LatLonRow].subFormat, {LatLonRow, AltitudeRow, VelocityRow});
}

void OutputConfigurationWidget::updateGpsRawOptions()
{
    updateRows({GpsAgeRow, PvtDataRow, SatInfoRow, PvtPulseRow});
}

void OutputConfigurationWidget::updateTemperatureOptions()
{
    updateRows({TemperatureRow});
    updateSubFormat(m_rows[TemperatureRow].subFormat, {TemperatureRow});
}

void OutputConfigurationWidget::updateHrdOptions()
{
    updateRows({AccelerationHrRow, RateOfTurnHrRow});
    const bool writable = isWritable();
    const bool sharedHighRate = sharesHighRate(ndaDevice().deviceId());
    for (const int index : {AccelerationHrRow, RateOfTurnHrRow}) {
        Row& row = m_rows[size_t(index)];
        // No rate above the ordinary quantity's: nothing to choose, but a box the device
        // had set can still be cleared.
        if (row.freq->count() == 0 && !row.check->isChecked())
            row.check->setEnabled(false);
        if (index == RateOfTurnHrRow && sharedHighRate)
            row.freq->setEnabled(false); // follows the acceleration's rate
    }
    if (sharedHighRate && writable)
        m_rows[AccelerationHrRow].freq->setEnabled(m_rows[AccelerationHrRow].isChosen() ||
                                                   m_rows[RateOfTurnHrRow].isChosen());
}

void OutputConfigurationWidget::updateAnalogInOptions()
{
    updateRows({AnalogIn1Row, AnalogIn2Row});
}

void OutputConfigurationWidget::updateMagOptions()
{
    updateRows({MagneticFieldRow});
    updateSubFormat(m_rows[MagneticFieldRow].subFormat, {MagneticFieldRow});
}

void OutputConfigurationWidget::updateStatusOptions()
{
    updateRows({StatusByteRow, RssiRow, StatusWordRow});
    // The status byte belongs with orientation output; a box already set stays clearable.
    QCheckBox* statusByte = m_rows[StatusByteRow].check;
    statusByte->setEnabled(isWritable() &&
                           (m_rows[OrientationRow].isChosen() || statusByte->isChecked()));
}

void OutputConfigurationWidget::enableOriSubFormat(int oriIndex)
{
    Row& row = m_rows[OrientationRow];
    updateRows({OrientationRow});
    const bool hasOrientation = !ndaDevice().deviceId().isImu();
    row.subFormat->setEnabled(isWritable() && hasOrientation && oriIndex > 0);
}

void OutputConfigurationWidget::setHrdChecked()
{
    if (sharesHighRate(ndaDevice().deviceId())) {
        // One high-rate clock: the rate-of-turn combo shows what will be sent.
        QComboBox* acc = m_rows[AccelerationHrRow].freq;
        QComboBox* gyr = m_rows[RateOfTurnHrRow].freq;
        const int item = gyr->findData(acc->currentData());
        if (item >= 0) {
            ++m_filling;
            gyr->setCurrentIndex(item);
            --m_filling;
        }
    }
    updateHrdOptions();
}

void OutputConfigurationWidget::updateAllOptions()
{
    updateRows({PacketCounterRow, SampleTimeFineRow, SampleTimeCoarseRow, UtcTimeRow, TimeOfWeekRow,
                FrameRangeRow});
    enableOriSubFormat(m_rows[OrientationRow].choice->currentIndex());
    updateInertialOptions();
    updateMagOptions();
    updateTemperatureOptions();
    updatePressureOptions();
    updateHrdOptions();
    updateStatusOptions();
    updateGpsPosVelOptions();
    updateGpsRawOptions();
    updateAnalogInOptions();
}

void OutputConfigurationWidget::updateReadOnlyState()
{
    const bool writable = isWritable();
    m_presetCombo->setEnabled(writable);
    m_linkFreqs->setEnabled(writable);
    m_linkFormats->setEnabled(writable);
    updateAllOptions();
}

// ---- Device

OutputConfigurationWidget::Row* OutputConfigurationWidget::rowForQuantity(NvDataIdentifier quantity)
{
    if (isOrientation(quantity))
        return &m_rows[OrientationRow];
    if (isAltitude(quantity))
        return &m_rows[AltitudeRow];
    for (Row& row : m_rows)
        if (row.quantity != NDI_NONE && row.quantity == quantity)
            return &row;
    return nullptr;
}

void OutputConfigurationWidget::hideEmptyGroups()
{
    for (QGroupBox* group : std::as_const(m_groups)) {
        bool anyShown = false;
        for (const Row& row : m_rows)
            if (row.group == group && !row.isHidden())
                anyShown = true;
        group->setVisible(anyShown);
    }
}

void OutputConfigurationWidget::updateNewDevice()
{
    ++m_filling;
    for (QGroupBox* group : std::as_const(m_groups))
        group->show();
    for (Row& row : m_rows) {
        showSection(row.name);
        if (row.check)
            row.check->show();
        if (row.choice)
            row.choice->show();
        row.freq->show();
    }
    for (Row& row : m_rows) {
        NvDataIdentifier id = row.quantity;
        if (row.choice)
            id = NvDataIdentifier(row.choice->itemData(1).toUInt());
        fillFreqCombo(row.freq, id);
    }
    for (Row& row : m_rows) {
        if (!row.everyPacket)
            continue;
        row.freq->hide();
        row.everyPacketLabel->setVisible(!row.isHidden());
    }
    // The shared position format has no rate of its own: it goes with the group.
    m_rows[LatLonRow].subFormat->setVisible(!(m_rows[LatLonRow].isHidden() &&
                                              m_rows[AltitudeRow].isHidden() &&
                                              m_rows[VelocityRow].isHidden()));
    hideEmptyGroups();
    generatePresets();
    --m_filling;
    updateReadOnlyState();
}
