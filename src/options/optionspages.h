#pragma once
// The pages of the application's options dialog. Each reads its keys from the settings
// store when shown (refreshUi) and writes them on apply.

#include "abstractoptionspage.h"

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QRadioButton;
class QSpinBox;

class PlottingOptionsPage : public AbstractOptionsPage
{
    Q_OBJECT

public:
    static constexpr int DefaultMinimumDisplayTime = 500;
    static constexpr int DefaultMaximumDisplayTime = 10000;

    explicit PlottingOptionsPage(QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("PlottingOptions"); }
    QString trName() const override { return tr("Plotting Options"); }
    QString category() const override { return QStringLiteral("Plotting"); }
    QString trCategory() const override { return tr("Plotting"); }

public slots:
    void apply() override;
    void refreshUi() override;

private:
    QSpinBox* addTimeRow(class QGridLayout* grid, int row, const QString& label,
                         const QString& objectName, int fallback);

    QCheckBox* m_strobes = nullptr;
    QComboBox* m_orientation = nullptr;
    QComboBox* m_temperature = nullptr;
    QButtonGroup* m_filePlay = nullptr;
    QRadioButton* m_realTime = nullptr;
    QRadioButton* m_allData = nullptr;
    QRadioButton* m_allDataFast = nullptr;
    QSpinBox* m_minLive = nullptr;
    QSpinBox* m_maxLive = nullptr;
    QSpinBox* m_minFile = nullptr;
    QSpinBox* m_maxFile = nullptr;
    QCheckBox* m_autoAdjust = nullptr;
};

class LoggingOptionsPage : public AbstractOptionsPage
{
    Q_OBJECT

public:
    // What the options page offers as the default pattern.
    static QString defaultPattern() { return QStringLiteral("KV_<deviceid>-<trial>"); }

    explicit LoggingOptionsPage(QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("LoggingOptions"); }
    QString trName() const override { return tr("Logging Options"); }
    QString category() const override { return QStringLiteral("Logging"); }
    QString trCategory() const override { return tr("Logging"); }

    // The example shown under the pattern: "%1.kvb" of the pattern with sample values.
    QString exampleFileName() const;
    // The pattern with the example values in place of the placeholders.
    static QString examplePattern(const QString& pattern);

public slots:
    void apply() override;
    void refreshUi() override;
    void updateExampleFileName();

private:
    QLineEdit* m_pattern = nullptr;
    QLabel* m_example = nullptr;
};

// How recordings are written: split into parts by size or duration.
class KvigLoggingOptionsPage : public AbstractOptionsPage
{
    Q_OBJECT

public:
    explicit KvigLoggingOptionsPage(QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("KvigLoggingOptions"); }
    QString trName() const override { return tr("Recording Files"); }
    QString category() const override { return QStringLiteral("Logging"); }
    QString trCategory() const override { return tr("Logging"); }

    // Settings keys; 0 means no split.
    static QString splitSizeKey() { return QStringLiteral("logFileSplitMegabytes"); }
    static QString splitMinutesKey() { return QStringLiteral("logFileSplitMinutes"); }

public slots:
    void apply() override;
    void refreshUi() override;

private:
    QSpinBox* m_splitSize = nullptr;
    QSpinBox* m_splitMinutes = nullptr;
};

class MiscellaneousOptionsPage : public AbstractOptionsPage
{
    Q_OBJECT

public:
    explicit MiscellaneousOptionsPage(QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("MiscellaneousOptions"); }
    QString trName() const override { return tr("Miscellaneous Options"); }
    QString category() const override { return QStringLiteral("General"); }
    QString trCategory() const override { return tr("General"); }

public slots:
    void apply() override;
    void refreshUi() override;
    // The log option for docked trackers only while they are shown.
    void updateShowLogOptions();
    // The serial ports present, for the iMAR port choice.
    void refreshPortCombo();

private:
    QComboBox* m_frame = nullptr;
    QCheckBox* m_rs485 = nullptr;
    QCheckBox* m_filterReset = nullptr;
    QCheckBox* m_showDocked = nullptr;
    QCheckBox* m_logDocked = nullptr;
    QCheckBox* m_floating = nullptr;
    QCheckBox* m_ndaDataView = nullptr;
    QCheckBox* m_imarUsage = nullptr;
    QComboBox* m_imarType = nullptr;
    QComboBox* m_imarPort = nullptr;
    QComboBox* m_imarBaud = nullptr;
    QWidget* m_imarBox = nullptr;
};
