// The options dialog: each page's keys and defaults, the file-plotting radio group, the
// "Default" buttons, the example file name, and the page shown last.

#include "optionspages.h"
#include "settingsdialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QtTest>

class TestSettingsDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void plottingDefaultsAndTheRadioGroup();
    void displayTimesHaveDefaultButtonsAndStayOrdered();
    void loggingPatternShowsItsExample();
    void miscellaneousKeysAndDockedLogOption();
    void lastPageComesBack();

private:
    QTemporaryDir m_settings;
};

void TestSettingsDialog::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvOptionsTest"));
    QCoreApplication::setApplicationName(QStringLiteral("Options"));
}

void TestSettingsDialog::init()
{
    QSettings().clear();
}

void TestSettingsDialog::plottingDefaultsAndTheRadioGroup()
{
    SettingsDialog dialog;
    dialog.showPage(QStringLiteral("PlottingOptions"));
    auto* page = dialog.page(QStringLiteral("PlottingOptions"));
    QVERIFY(page);
    QCOMPARE(page->trName(), QStringLiteral("Plotting Options"));
    auto radios = page->findChildren<QRadioButton*>();
    QCOMPARE(radios.size(), 3);
    // Nothing stored: real time.
    QVERIFY(radios[0]->isChecked());
    QCOMPARE(radios[0]->text(), QStringLiteral("Real-Time"));
    QVERIFY(!page->findChild<QCheckBox*>(QStringLiteral("graphStyleCheckBox"))->isChecked());

    page->findChild<QCheckBox*>(QStringLiteral("graphStyleCheckBox"))->setChecked(true);
    auto* ori = page->findChild<QComboBox*>(QStringLiteral("orientationPlotsComboBox"));
    ori->setCurrentIndex(ori->findText(QStringLiteral("Quaternion")));
    radios[2]->setChecked(true);
    dialog.apply();
    QSettings s;
    QCOMPARE(s.value(QStringLiteral("graphStyle")).toInt(), 256);
    QCOMPARE(s.value(QStringLiteral("plotOrientationMode")).toString(),
             QStringLiteral("Quaternion"));
    QCOMPARE(s.value(QStringLiteral("plotTemperatureFormat")).toString(),
             QStringLiteral("Celsius"));
    QCOMPARE(s.value(QStringLiteral("filePlayRealtime")).toBool(), false);
    QCOMPARE(s.value(QStringLiteral("filePlayAllData")).toBool(), false);
    QCOMPARE(s.value(QStringLiteral("filePlayAllDataFast")).toBool(), true);

    // Shown again: what was stored.
    SettingsDialog again;
    auto* second = again.page(QStringLiteral("PlottingOptions"));
    QVERIFY(second->findChildren<QRadioButton*>()[2]->isChecked());
    QVERIFY(second->findChild<QCheckBox*>(QStringLiteral("graphStyleCheckBox"))->isChecked());
}

void TestSettingsDialog::displayTimesHaveDefaultButtonsAndStayOrdered()
{
    SettingsDialog dialog;
    auto* page = dialog.page(QStringLiteral("PlottingOptions"));
    auto* minLive = page->findChild<QSpinBox*>(QStringLiteral("minimumDisplayTimeLive"));
    auto* maxFile = page->findChild<QSpinBox*>(QStringLiteral("maximumDisplayTimeFile"));
    QCOMPARE(minLive->value(), 500);
    QCOMPARE(maxFile->value(), 10000);
    minLive->setValue(20000); // above the maximum
    maxFile->setValue(1234);
    page->findChild<QPushButton*>(QStringLiteral("maximumDisplayTimeFileDefaultButton"))->click();
    QCOMPARE(maxFile->value(), 10000);
    dialog.apply();
    QSettings s;
    QCOMPARE(s.value(QStringLiteral("minimumDisplayTimeLive")).toInt(), 10000);
    QCOMPARE(s.value(QStringLiteral("maximumDisplayTimeLive")).toInt(), 20000);
    QCOMPARE(s.value(QStringLiteral("maximumDisplayTimeFile")).toInt(), 10000);
}

void TestSettingsDialog::loggingPatternShowsItsExample()
{
    SettingsDialog dialog;
    auto* page = qobject_cast<LoggingOptionsPage*>(dialog.page(QStringLiteral("LoggingOptions")));
    QVERIFY(page);
    auto* pattern = page->findChild<QLineEdit*>(QStringLiteral("logFileNameFormatLineEdit"));
    pattern->setText(QStringLiteral("log_<date>_<time>"));
    QCOMPARE(page->exampleFileName(), QStringLiteral("Example: log_2024-01-31_09h05.kvb"));
    page->findChild<QPushButton*>(QStringLiteral("logFileNameFormatDefaultButton"))->click();
    QCOMPARE(pattern->text(), QStringLiteral("KV_<deviceid>-<trial>"));
    QCOMPARE(page->exampleFileName(), QStringLiteral("Example: KV_1300000000001000-000.kvb"));
    dialog.apply();
    QCOMPARE(QSettings().value(QStringLiteral("logFileNameFormat")).toString(),
             QStringLiteral("KV_<deviceid>-<trial>"));
    const QStringList texts = [page] {
        QStringList all;
        for (QLabel* l : page->findChildren<QLabel*>())
            all << l->text();
        return all;
    }();
    QVERIFY(texts.contains(QStringLiteral("<b>Pattern Replacements:</b>")));
    QVERIFY(texts.contains(QStringLiteral("Product Code (e.g.KV-300)")));
    QVERIFY(texts.contains(QStringLiteral("Time of Recording (e.g. 09h05)")));
}

void TestSettingsDialog::miscellaneousKeysAndDockedLogOption()
{
    SettingsDialog dialog;
    auto* page = dialog.page(QStringLiteral("MiscellaneousOptions"));
    QCOMPARE(page->trName(), QStringLiteral("Miscellaneous Options"));
    auto boxes = page->findChildren<QCheckBox*>();
    auto box = [&boxes](const QString& text) {
        for (QCheckBox* b : boxes)
            if (b->text() == text)
                return b;
        return static_cast<QCheckBox*>(nullptr);
    };
    QVERIFY(box(QStringLiteral("Enable RS485 Compatibility"))->isChecked());
    QVERIFY(box(QStringLiteral("Perform Filter Reset at Start of File"))->isChecked());
    QCheckBox* showDocked =
        box(QStringLiteral("Show Docked Kvw's in Device List (Rescan Required)"));
    QCheckBox* logDocked = box(QStringLiteral("Log and Visualize Data for Docked Kvw's"));
    QVERIFY(showDocked->isChecked() && logDocked->isEnabled() && !logDocked->isChecked());
    showDocked->setChecked(false);
    QVERIFY(!logDocked->isEnabled());
    box(QStringLiteral("Enable NDA Data View"))->setChecked(true);
    auto* frame = page->findChild<QComboBox*>(QStringLiteral("globalOutputFrameComboBox"));
    QCOMPARE(frame->currentText(), QStringLiteral("ENU"));
    frame->setCurrentText(QStringLiteral("NED"));
    dialog.apply();
    QSettings s;
    QCOMPARE(s.value(QStringLiteral("showDockedKvws")).toBool(), false);
    QCOMPARE(s.value(QStringLiteral("advanced/ndaDataViewEnabled")).toBool(), true);
    QCOMPARE(s.value(QStringLiteral("globalOutputFrame")).toString(), QStringLiteral("NED"));
    // The iMAR options are offered only where allowed.
    QVERIFY(!s.contains(QStringLiteral("imarUsage")));
}

void TestSettingsDialog::lastPageComesBack()
{
    {
        SettingsDialog dialog;
        dialog.showPage(QStringLiteral("MiscellaneousOptions"));
    }
    QCOMPARE(QSettings().value(QStringLiteral("SettingsDialog.lastpage")).toString(),
             QStringLiteral("MiscellaneousOptions"));
    SettingsDialog again;
    QCOMPARE(again.currentPage()->name(), QStringLiteral("MiscellaneousOptions"));
}

QTEST_MAIN(TestSettingsDialog)
#include "tst_settingsdialog.moc"
