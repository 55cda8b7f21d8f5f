#include "optionspages.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDate>
#include <QDir>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSpinBox>
#include <QTime>
#include <QVBoxLayout>

#include <algorithm>
#include <tuple>

namespace {

// The pattern's example values.
QString exampleDate()
{
    return QDate(2024, 1, 31).toString(QStringLiteral("yyyy-MM-dd"));
}
QString exampleDeviceId()
{
    return QStringLiteral("1300000000001000");
}
QString exampleProductCode()
{
    return QStringLiteral("KV-300");
}
QString exampleTime()
{
    return QStringLiteral("%1h%2").arg(9, 2, 10, QLatin1Char('0')).arg(5, 2, 10, QLatin1Char('0'));
}
QString exampleTrial()
{
    return QStringLiteral("000");
}

} // namespace

// ---- PlottingOptionsPage

PlottingOptionsPage::PlottingOptionsPage(QWidget* parent) : AbstractOptionsPage(parent)
{
    auto* layout = new QVBoxLayout(this);
    auto* graphs = new QGroupBox(tr("Graphs"), this);
    auto* form = new QFormLayout(graphs);
    m_strobes = new QCheckBox(tr("Display Graphs as Strobes"), graphs);
    m_strobes->setObjectName(QStringLiteral("graphStyleCheckBox"));
    form->addRow(m_strobes);
    m_orientation = new QComboBox(graphs);
    m_orientation->setObjectName(QStringLiteral("orientationPlotsComboBox"));
    m_orientation->addItem(tr("Euler Angles"), QStringLiteral("Euler"));
    m_orientation->addItem(tr("Quaternion"), QStringLiteral("Quaternion"));
    form->addRow(tr("Orientation Plots"), m_orientation);
    m_temperature = new QComboBox(graphs);
    m_temperature->setObjectName(QStringLiteral("temperaturePlotsComboBox"));
    m_temperature->addItem(tr("Celsius"), QStringLiteral("Celsius"));
    m_temperature->addItem(tr("Fahrenheit"), QStringLiteral("Fahrenheit"));
    form->addRow(tr("Temperature Plots"), m_temperature);
    layout->addWidget(graphs);

    auto* file = new QGroupBox(tr("File Plotting"), this);
    auto* fileLayout = new QVBoxLayout(file);
    m_realTime = new QRadioButton(tr("Real-Time"), file);
    m_allData =
        new QRadioButton(tr("All Data (update every 5 seconds until all data is processed)"), file);
    m_allDataFast = new QRadioButton(tr("All Data (as fast as possible)"), file);
    m_filePlay = new QButtonGroup(this);
    for (QRadioButton* b : {m_realTime, m_allData, m_allDataFast}) {
        m_filePlay->addButton(b);
        fileLayout->addWidget(b);
    }
    layout->addWidget(file);

    auto* times = new QGroupBox(tr("Display Time (ms)"), this);
    auto* grid = new QGridLayout(times);
    grid->addWidget(new QLabel(tr("Live"), times), 0, 1);
    grid->addWidget(new QLabel(tr("File"), times), 0, 3);
    m_minLive = addTimeRow(grid, 1, tr("Minimum Display Time"),
                           QStringLiteral("minimumDisplayTimeLive"), DefaultMinimumDisplayTime);
    m_maxLive = addTimeRow(grid, 2, tr("Maximum Display Time"),
                           QStringLiteral("maximumDisplayTimeLive"), DefaultMaximumDisplayTime);
    // The file column sits beside the live one.
    m_minFile = new QSpinBox(times);
    m_maxFile = new QSpinBox(times);
    int row = 1;
    for (auto [box, key, fallback] :
         {std::tuple{m_minFile, QStringLiteral("minimumDisplayTimeFile"),
                     DefaultMinimumDisplayTime},
          std::tuple{m_maxFile, QStringLiteral("maximumDisplayTimeFile"),
                     DefaultMaximumDisplayTime}}) {
        box->setObjectName(key);
        box->setRange(1, 3600000);
        box->setSingleStep(500);
        auto* reset = new QPushButton(tr("Default"), times);
        reset->setObjectName(key + QStringLiteral("DefaultButton"));
        connect(reset, &QPushButton::clicked, box,
                [box = box, fallback = fallback] { box->setValue(fallback); });
        grid->addWidget(box, row, 3);
        grid->addWidget(reset, row, 4);
        ++row;
    }
    m_autoAdjust = new QCheckBox(tr("Auto Adjust"), times);
    m_autoAdjust->setObjectName(QStringLiteral("autoFileTimeAdjustCheckBox"));
    grid->addWidget(m_autoAdjust, 3, 3, 1, 2);
    layout->addWidget(times);
    layout->addStretch();
}

QSpinBox* PlottingOptionsPage::addTimeRow(QGridLayout* grid, int row, const QString& label,
                                          const QString& objectName, int fallback)
{
    auto* box = new QSpinBox(this);
    box->setObjectName(objectName);
    box->setRange(1, 3600000);
    box->setSingleStep(500);
    auto* reset = new QPushButton(tr("Default"), this);
    reset->setObjectName(objectName + QStringLiteral("DefaultButton"));
    connect(reset, &QPushButton::clicked, box, [box, fallback] { box->setValue(fallback); });
    grid->addWidget(new QLabel(label, this), row, 0);
    grid->addWidget(box, row, 1);
    grid->addWidget(reset, row, 2);
    return box;
}

void PlottingOptionsPage::refreshUi()
{
    QSettings s;
    m_strobes->setChecked(s.value(QStringLiteral("graphStyle"), 0).toInt() == 256);
    m_orientation->setCurrentIndex(
        std::max(0, m_orientation->findData(
                        s.value(QStringLiteral("plotOrientationMode"), QStringLiteral("Euler")))));
    m_temperature->setCurrentIndex(
        std::max(0, m_temperature->findData(s.value(QStringLiteral("plotTemperatureFormat"),
                                                    QStringLiteral("Celsius")))));
    const bool all = s.value(QStringLiteral("filePlayAllData"), false).toBool();
    const bool fast = s.value(QStringLiteral("filePlayAllDataFast"), false).toBool();
    const bool real = s.value(QStringLiteral("filePlayRealtime"), false).toBool();
    // None stored as true: real time.
    (real || (!all && !fast) ? m_realTime : all ? m_allData : m_allDataFast)->setChecked(true);
    m_minLive->setValue(
        s.value(QStringLiteral("minimumDisplayTimeLive"), DefaultMinimumDisplayTime).toInt());
    m_maxLive->setValue(
        s.value(QStringLiteral("maximumDisplayTimeLive"), DefaultMaximumDisplayTime).toInt());
    m_minFile->setValue(
        s.value(QStringLiteral("minimumDisplayTimeFile"), DefaultMinimumDisplayTime).toInt());
    m_maxFile->setValue(
        s.value(QStringLiteral("maximumDisplayTimeFile"), DefaultMaximumDisplayTime).toInt());
    m_autoAdjust->setChecked(s.value(QStringLiteral("autoFileTimeAdjust"), false).toBool());
}

void PlottingOptionsPage::apply()
{
    QSettings s;
    s.setValue(QStringLiteral("graphStyle"), m_strobes->isChecked() ? 256 : 0);
    s.setValue(QStringLiteral("plotOrientationMode"), m_orientation->currentData());
    s.setValue(QStringLiteral("plotTemperatureFormat"), m_temperature->currentData());
    s.setValue(QStringLiteral("filePlayRealtime"), m_realTime->isChecked());
    s.setValue(QStringLiteral("filePlayAllData"), m_allData->isChecked());
    s.setValue(QStringLiteral("filePlayAllDataFast"), m_allDataFast->isChecked());
    // A minimum above the maximum would leave the graphs no window at all.
    s.setValue(QStringLiteral("minimumDisplayTimeLive"),
               std::min(m_minLive->value(), m_maxLive->value()));
    s.setValue(QStringLiteral("maximumDisplayTimeLive"),
               std::max(m_minLive->value(), m_maxLive->value()));
    s.setValue(QStringLiteral("minimumDisplayTimeFile"),
               std::min(m_minFile->value(), m_maxFile->value()));
    s.setValue(QStringLiteral("maximumDisplayTimeFile"),
               std::max(m_minFile->value(), m_maxFile->value()));
    s.setValue(QStringLiteral("autoFileTimeAdjust"), m_autoAdjust->isChecked());
}

// ---- LoggingOptionsPage

LoggingOptionsPage::LoggingOptionsPage(QWidget* parent) : AbstractOptionsPage(parent)
{
    auto* layout = new QVBoxLayout(this);
    auto* box = new QGroupBox(tr("Recording File Names"), this);
    auto* form = new QVBoxLayout(box);
    auto* row = new QHBoxLayout;
    m_pattern = new QLineEdit(box);
    m_pattern->setObjectName(QStringLiteral("logFileNameFormatLineEdit"));
    auto* reset = new QPushButton(tr("Default"), box);
    reset->setObjectName(QStringLiteral("logFileNameFormatDefaultButton"));
    connect(reset, &QPushButton::clicked, this, [this] {
        m_pattern->setText(defaultPattern());
        updateExampleFileName();
    });
    row->addWidget(new QLabel(tr("Pattern:"), box));
    row->addWidget(m_pattern, 1);
    row->addWidget(reset);
    form->addLayout(row);
    m_example = new QLabel(box);
    m_example->setObjectName(QStringLiteral("exampleFileNameLabel"));
    m_example->setTextInteractionFlags(Qt::TextSelectableByMouse);
    form->addWidget(m_example);
    form->addWidget(new QLabel(QStringLiteral("<b>%1</b>").arg(tr("Pattern Replacements:")), box));
    const QList<std::pair<QString, QString>> help = {
        {QStringLiteral("<date>"), tr("Date of Recording (e.g. %1)").arg(exampleDate())},
        {QStringLiteral("<deviceid>"), tr("Device ID (e.g. %2)").arg(exampleDeviceId())},
        {QStringLiteral("<productcode>"), tr("Product Code (e.g.%3)").arg(exampleProductCode())},
        {QStringLiteral("<time>"), tr("Time of Recording (e.g. %4)").arg(exampleTime())},
        {QStringLiteral("<trial>"), tr("Trial Number (Sequential) (e.g. %5)").arg(exampleTrial())},
    };
    auto* grid = new QGridLayout;
    int r = 0;
    for (const auto& [placeholder, text] : help) {
        grid->addWidget(new QLabel(placeholder.toHtmlEscaped(), box), r, 0);
        grid->addWidget(new QLabel(text, box), r, 1);
        ++r;
    }
    grid->setColumnStretch(1, 1);
    form->addLayout(grid);
    layout->addWidget(box);
    layout->addStretch();
    connect(m_pattern, &QLineEdit::textChanged, this, &LoggingOptionsPage::updateExampleFileName);
}

QString LoggingOptionsPage::examplePattern(const QString& pattern)
{
    QString name = pattern;
    name.replace(QStringLiteral("<date>"), exampleDate());
    name.replace(QStringLiteral("<deviceid>"), exampleDeviceId());
    name.replace(QStringLiteral("<productcode>"), exampleProductCode());
    name.replace(QStringLiteral("<time>"), exampleTime());
    name.replace(QStringLiteral("<trial>"), exampleTrial());
    return name;
}

QString LoggingOptionsPage::exampleFileName() const
{
    return m_example->text();
}

void LoggingOptionsPage::updateExampleFileName()
{
    QString name = examplePattern(m_pattern->text());
    // The recorder adds the suffix when the pattern has none.
    if (name.endsWith(QStringLiteral(".kvb"), Qt::CaseInsensitive))
        name.chop(4);
    m_example->setText(tr("Example: %1").arg(QStringLiteral("%1.kvb").arg(name)));
}

void LoggingOptionsPage::refreshUi()
{
    // Unset, the recorder uses its own default; show that, so what is shown is what happens.
    m_pattern->setText(
        QSettings()
            .value(QStringLiteral("logFileNameFormat"), QStringLiteral("KV_<deviceid>_<trial>.kvb"))
            .toString());
    updateExampleFileName();
}

void LoggingOptionsPage::apply()
{
    const QString pattern = m_pattern->text().trimmed();
    QSettings().setValue(QStringLiteral("logFileNameFormat"),
                         pattern.isEmpty() ? defaultPattern() : pattern);
}

// ---- KvigLoggingOptionsPage

KvigLoggingOptionsPage::KvigLoggingOptionsPage(QWidget* parent) : AbstractOptionsPage(parent)
{
    auto* layout = new QVBoxLayout(this);
    auto* box = new QGroupBox(tr("Split Long Recordings"), this);
    auto* form = new QFormLayout(box);
    m_splitSize = new QSpinBox(box);
    m_splitSize->setObjectName(QStringLiteral("splitSizeSpinBox"));
    m_splitSize->setRange(0, 1024 * 1024);
    m_splitSize->setSuffix(tr(" MB"));
    m_splitSize->setSpecialValueText(tr("Never"));
    m_splitMinutes = new QSpinBox(box);
    m_splitMinutes->setObjectName(QStringLiteral("splitMinutesSpinBox"));
    m_splitMinutes->setRange(0, 7 * 24 * 60);
    m_splitMinutes->setSuffix(tr(" min"));
    m_splitMinutes->setSpecialValueText(tr("Never"));
    form->addRow(tr("Start a new part after"), m_splitSize);
    form->addRow(tr("or after"), m_splitMinutes);
    auto* note = new QLabel(tr("Parts are named like the recording with -002, -003, ...; "
                               "opening the first part opens them all."),
                            box);
    note->setWordWrap(true);
    form->addRow(note);
    layout->addWidget(box);
    layout->addStretch();
}

void KvigLoggingOptionsPage::refreshUi()
{
    QSettings s;
    m_splitSize->setValue(s.value(splitSizeKey(), 0).toInt());
    m_splitMinutes->setValue(s.value(splitMinutesKey(), 0).toInt());
}

void KvigLoggingOptionsPage::apply()
{
    QSettings s;
    s.setValue(splitSizeKey(), m_splitSize->value());
    s.setValue(splitMinutesKey(), m_splitMinutes->value());
}

// ---- MiscellaneousOptionsPage

MiscellaneousOptionsPage::MiscellaneousOptionsPage(QWidget* parent) : AbstractOptionsPage(parent)
{
    auto* layout = new QVBoxLayout(this);
    auto* general = new QGroupBox(tr("General"), this);
    auto* form = new QFormLayout(general);
    m_frame = new QComboBox(general);
    m_frame->setObjectName(QStringLiteral("globalOutputFrameComboBox"));
    m_frame->addItems({QStringLiteral("ENU"), QStringLiteral("NED"), QStringLiteral("NWU")});
    form->addRow(tr("Output frame (coordinate system)"), m_frame);
    m_rs485 = new QCheckBox(tr("Enable RS485 Compatibility"), general);
    m_filterReset = new QCheckBox(tr("Perform Filter Reset at Start of File"), general);
    m_showDocked = new QCheckBox(tr("Show Docked Kvw's in Device List (Rescan Required)"), general);
    m_logDocked = new QCheckBox(tr("Log and Visualize Data for Docked Kvw's"), general);
    m_floating = new QCheckBox(tr("Don't force docking of device list"), general);
    m_ndaDataView = new QCheckBox(tr("Enable NDA Data View"), general);
    for (QCheckBox* b :
         {m_rs485, m_filterReset, m_showDocked, m_logDocked, m_floating, m_ndaDataView})
        form->addRow(b);
    connect(m_showDocked, &QCheckBox::toggled, this,
            &MiscellaneousOptionsPage::updateShowLogOptions);
    layout->addWidget(general);

    auto* imar = new QGroupBox(tr("iMAR"), this);
    m_imarBox = imar;
    auto* imarForm = new QFormLayout(imar);
    m_imarUsage = new QCheckBox(tr("Use iMAR"), imar);
    m_imarType = new QComboBox(imar);
    m_imarType->addItems({QStringLiteral("iMAR-FSAS"), QStringLiteral("iMAR-iFOG"),
                          QStringLiteral("iMAR-iFOG-UART")});
    m_imarPort = new QComboBox(imar);
    m_imarPort->setEditable(true);
    m_imarBaud = new QComboBox(imar);
    for (int rate : {115200, 57600, 38400, 19200, 9600})
        m_imarBaud->addItem(QString::number(rate), rate);
    imarForm->addRow(m_imarUsage);
    imarForm->addRow(tr("iMAR Type"), m_imarType);
    imarForm->addRow(tr("iMAR COM port"), m_imarPort);
    imarForm->addRow(tr("iMAR BaudRate"), m_imarBaud);
    layout->addWidget(imar);
    layout->addStretch();
}

void MiscellaneousOptionsPage::updateShowLogOptions()
{
    m_logDocked->setEnabled(m_showDocked->isChecked());
}

void MiscellaneousOptionsPage::refreshPortCombo()
{
    const QString current = m_imarPort->currentText();
    m_imarPort->clear();
    const QDir dev(QStringLiteral("/dev"));
    for (const QString& name : dev.entryList(
             {QStringLiteral("ttyS*"), QStringLiteral("ttyUSB*"), QStringLiteral("ttyACM*")},
             QDir::System | QDir::Files, QDir::Name))
        m_imarPort->addItem(dev.filePath(name));
    m_imarPort->setCurrentText(current);
}

void MiscellaneousOptionsPage::refreshUi()
{
    QSettings s;
    m_frame->setCurrentText(
        s.value(QStringLiteral("globalOutputFrame"), QStringLiteral("ENU")).toString());
    m_rs485->setChecked(s.value(QStringLiteral("rs485Compatibility"), true).toBool());
    m_filterReset->setChecked(s.value(QStringLiteral("filterResetAtStartOfFile"), true).toBool());
    m_showDocked->setChecked(s.value(QStringLiteral("showDockedKvws"), true).toBool());
    m_logDocked->setChecked(s.value(QStringLiteral("logDockedKvws"), false).toBool());
    m_floating->setChecked(s.value(QStringLiteral("allowFloatingDeviceList"), false).toBool());
    m_ndaDataView->setChecked(
        s.value(QStringLiteral("advanced/ndaDataViewEnabled"), false).toBool());
    // The iMAR options only where they are allowed.
    m_imarBox->setVisible(s.value(QStringLiteral("allowImar"), false).toBool());
    m_imarUsage->setChecked(s.value(QStringLiteral("imarUsage"), false).toBool());
    m_imarType->setCurrentIndex(std::clamp(s.value(QStringLiteral("imarType"), 0).toInt(), 0, 2));
    refreshPortCombo();
    m_imarPort->setCurrentText(s.value(QStringLiteral("imarPort")).toString());
    const int baud = m_imarBaud->findData(s.value(QStringLiteral("imarBaudRate"), 115200).toInt());
    m_imarBaud->setCurrentIndex(std::max(0, baud));
    updateShowLogOptions();
}

void MiscellaneousOptionsPage::apply()
{
    QSettings s;
    s.setValue(QStringLiteral("globalOutputFrame"), m_frame->currentText());
    s.setValue(QStringLiteral("rs485Compatibility"), m_rs485->isChecked());
    s.setValue(QStringLiteral("filterResetAtStartOfFile"), m_filterReset->isChecked());
    s.setValue(QStringLiteral("showDockedKvws"), m_showDocked->isChecked());
    s.setValue(QStringLiteral("logDockedKvws"), m_logDocked->isChecked());
    s.setValue(QStringLiteral("allowFloatingDeviceList"), m_floating->isChecked());
    s.setValue(QStringLiteral("advanced/ndaDataViewEnabled"), m_ndaDataView->isChecked());
    if (m_imarBox->isVisibleTo(this)) {
        s.setValue(QStringLiteral("imarUsage"), m_imarUsage->isChecked());
        s.setValue(QStringLiteral("imarType"), m_imarType->currentIndex());
        s.setValue(QStringLiteral("imarPort"), m_imarPort->currentText());
        s.setValue(QStringLiteral("imarBaudRate"), m_imarBaud->currentData());
    }
}
