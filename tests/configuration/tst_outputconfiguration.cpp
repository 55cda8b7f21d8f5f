// The output configuration page against emulated devices: what the form offers per device
// kind, linking, presets, reading the device's array, and writing it back, down to what
// the device then streams. Also the rate slider on its own.

#include "frequencyslider.h"
#include "kvsimharness.h"
#include "modalcloser.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"
#include "outputconfigurationpage.h"
#include "outputconfigurationwidget.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QMessageBox>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSlider>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <vector>

using kvtest::idOfKind;

using kvtest::ModalCloser;

namespace {

template <class T>
T* child(const QWidget& parent, const char* name)
{
    return parent.findChild<T*>(QLatin1String(name));
}

QList<int> offeredRates(const QComboBox* combo)
{
    QList<int> rates;
    for (int i = 0; i < combo->count(); ++i)
        rates.append(combo->itemData(i).toInt());
    return rates;
}

// What a user does with a rate combo: pick the entry "N Hz".
bool chooseRate(QComboBox* combo, int hz)
{
    const int item = combo->findText(QStringLiteral("%1 Hz").arg(hz));
    if (item < 0 || !combo->isEnabled())
        return false;
    combo->setCurrentIndex(item);
    return true;
}

QStringList comboTexts(const QComboBox* combo)
{
    QStringList texts;
    for (int i = 0; i < combo->count(); ++i)
        texts.append(combo->itemText(i));
    return texts;
}

NvOutputConfigurationArray sortedConfig(NvOutputConfigurationArray config)
{
    std::sort(config.begin(), config.end());
    return config;
}

QString describe(const NvOutputConfigurationArray& config)
{
    QStringList parts;
    for (const NvOutputConfiguration& c : config)
        parts.append(QStringLiteral("%1@%2")
                         .arg(c.dataIdentifier, 4, 16, QLatin1Char('0'))
                         .arg(c.frequency));
    return parts.join(QLatin1Char(' '));
}

} // namespace

class TestOutputConfiguration : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void frequencySliderSnapsToItsList();
    void frequencySliderReportsOnlyUserMoves();

    void pageIdentifiesItselfAndReadsTheDevice();
    void ratesFollowTheDevice();
    void unavailableQuantitiesAreHidden();
    void dependentControlsFollowTheirBoxes();
    void linkFreqsMatchesRatesWhereOffered();
    void linkFormatsSetsEveryPrecision();
    void anotherPrecisionStillChecksTheQuantity();
    void presetsPerKind();
    void wirelessTrackerTakesTheMastersRates();
    void switchingDeviceRebuildsTheOffers();
    void choosingAPresetFillsTheForm();
    void appliedConfigurationIsWhatTheDeviceReportsAndStreams();
    void refusedConfigurationWarnsAndKeepsTheForm();
    void droppedPrecisionWarnsAndKeepsTheForm();
    void readOnlyPageDoesNotWrite();
    void deviceThatGoesAwayLeavesAHarmlessForm();

private:
    NdaDevice& device(const std::string& kind) { return m_control->requestDevice(m_ids.at(kind)); }

    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    std::unique_ptr<NdaControl> m_control;
    std::map<std::string, NvDeviceId> m_ids; // written by the tests, restored after each
    NvDeviceId m_tracker;                    // behind the master, only read
};

void TestOutputConfiguration::initTestCase()
{
    registerNdaMetaTypes();
    m_sim = std::make_unique<kvtest::KvsimProcess>(
        std::vector<std::string>{"--device", "imu", "--device", "ahrs", "--device", "gnss",
                                 "--device", "legacy", "--device", "master:1,docked=1", "--quiet"});
    QVERIFY(m_sim->started());
    for (const char* kind : {"imu", "ahrs", "gnss", "legacy"}) {
        m_ids[kind] = idOfKind(*m_sim, kind);
        QVERIFY(!m_ids[kind].isEmpty());
    }
    m_tracker = nvEmulatedTrackerId(0, 0);
}

void TestOutputConfiguration::init()
{
    m_control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000); // loaded machines
    for (const auto& port : m_sim->ports())
        QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
}

void TestOutputConfiguration::cleanup()
{
    // Every test starts from the devices' defaults.
    for (const auto& entry : m_ids) {
        if (NdaDevice* dev = m_control->getExistingDevice(entry.second)) {
            dev->gotoConfig();
            dev->restoreFactoryDefaults();
        }
    }
    m_control.reset();
}

void TestOutputConfiguration::cleanupTestCase()
{
    m_sim.reset();
}

// ---- FrequencySlider

void TestOutputConfiguration::frequencySliderSnapsToItsList()
{
    FrequencySlider slider;
    QCOMPARE(slider.currentFrequency(), 0);
    QCOMPARE(slider.label()->text(), QStringLiteral("0 Hz"));
    slider.setFrequency(0);
    slider.setFrequencyUpperBound(100);
    QCOMPARE(slider.currentFrequency(), 0);

    slider.setFrequencies({100, 1, 50, 10, 50});
    QCOMPARE(slider.frequencies(), (QList<int>{1, 10, 50, 100}));
    QCOMPARE(slider.currentFrequency(), 100);
    QCOMPARE(slider.frequencyAtIndex(1), 10);
    QCOMPARE(slider.frequencyAtIndex(7), 0);

    slider.setFrequency(10);
    QCOMPARE(slider.currentFrequency(), 10);
    QCOMPARE(slider.label()->text(), QStringLiteral("10 Hz"));
    slider.setFrequency(33); // not listed: the highest
    QCOMPARE(slider.currentFrequency(), 100);

    slider.setFrequencyUpperBound(50); // listed: taken as it is
    QCOMPARE(slider.currentFrequency(), 50);
    slider.setFrequencyUpperBound(0);
    QCOMPARE(slider.currentFrequency(), 100);
    slider.setFrequency(1);
    slider.setFrequencyUpperBound(5000); // above the list
    QCOMPARE(slider.currentFrequency(), 100);
    slider.setFrequency(1);
    slider.setFrequencyUpperBound(20); // between 10 and 50: the highest, not the nearest
    QCOMPARE(slider.currentFrequency(), 100);
    QCOMPARE(slider.label()->text(), QStringLiteral("100 Hz"));
}

void TestOutputConfiguration::frequencySliderReportsOnlyUserMoves()
{
    FrequencySlider slider;
    slider.setFrequencies({1, 10, 50, 100});
    QSignalSpy changed(&slider, &FrequencySlider::frequencyChanged);
    slider.setFrequency(10);
    slider.setFrequencyUpperBound(0);
    QCOMPARE(changed.size(), 0);

    QTest::keyClick(slider.slider(), Qt::Key_Left);
    QCOMPARE(changed.size(), 1);
    QCOMPARE(changed.at(0).at(0).toInt(), 50);
    QCOMPARE(slider.label()->text(), QStringLiteral("50 Hz"));
}

// ---- The page

void TestOutputConfiguration::pageIdentifiesItselfAndReadsTheDevice()
{
    ModalCloser closer;
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    QCOMPARE(page.trName(), QStringLiteral("Output Configuration"));
    QCOMPARE(page.category(), QStringLiteral("Device"));
    QCOMPARE(page.widgetCount(), 1);
    QVERIFY(page.currentWidget() == page.widgetAt(0));
    QVERIFY(qobject_cast<OutputConfigurationWidget*>(page.currentWidget()));

    QSignalSpy changed(&page, &KvSettingsOptionsPage::configurationChanged);
    page.loadSettings();
    QVERIFY(closer.texts.isEmpty());
    QCOMPARE(changed.size(), 0);
    QVERIFY(!page.haveChanges());

    // The ahrs defaults: counters, quaternion, acceleration, rate of turn, magnetic field and
    // status word, all at 100 Hz.
    QVERIFY(child<QCheckBox>(page, "timestampPacketCounterCheckBox")->isChecked());
    QVERIFY(child<QCheckBox>(page, "timestampSampleTimeFineCheckBox")->isChecked());
    QVERIFY(child<QCheckBox>(page, "statusWordCheckBox")->isChecked());
    QVERIFY(!child<QCheckBox>(page, "statusLegacyByteCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "oriFormatComboBox")->currentText(),
             QStringLiteral("Quaternion"));
    QCOMPARE(child<QComboBox>(page, "oriFreqComboBox")->currentText(), QStringLiteral("100 Hz"));
    QVERIFY(child<QCheckBox>(page, "inertialAccCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "inertialAccFreqComboBox")->currentText(),
             QStringLiteral("100 Hz"));
    QCOMPARE(child<QComboBox>(page, "inertialAccSubFormatComboBox")->currentText(),
             QStringLiteral("Floating Point 32-bit"));
    QVERIFY(child<QCheckBox>(page, "inertialGyrCheckBox")->isChecked());
    QVERIFY(child<QCheckBox>(page, "magFieldCheckBox")->isChecked());
    QVERIFY(!child<QCheckBox>(page, "pressureDataCheckBox")->isChecked());
    auto* widget = qobject_cast<OutputConfigurationWidget*>(page.currentWidget());
    QVERIFY(!widget->checkForChanges());
    QCOMPARE(child<QLabel>(page, "frequencyNoteLabel")->text(),
             QStringLiteral("For some devices, these values can be approximations"));
    QCOMPARE(child<QCheckBox>(page, "linkFreqsCheckBox")->text(), QStringLiteral("Link Freqs"));
    QCOMPARE(child<QCheckBox>(page, "linkFormatsCheckBox")->text(), QStringLiteral("Link Formats"));
    QCOMPARE(comboTexts(child<QComboBox>(page, "magSubFormatComboBox")),
             (QStringList{"Floating Point 32-bit", "Fixed Point 12.20", "Fixed Point 16.32",
                          "Floating Point 64-bit"}));

    // A user's edit marks the page changed and makes the form differ from the device.
    child<QCheckBox>(page, "pressureDataCheckBox")->click();
    QVERIFY(changed.size() >= 1);
    QVERIFY(page.haveChanges());
    QVERIFY(widget->checkForChanges());
    // Reading the device again drops the edit.
    page.loadSettings();
    QVERIFY(!child<QCheckBox>(page, "pressureDataCheckBox")->isChecked());
    QVERIFY(!page.haveChanges());
}

void TestOutputConfiguration::ratesFollowTheDevice()
{
    for (const char* kind : {"imu", "ahrs", "gnss"}) {
        NdaDevice& dev = device(kind);
        OutputConfigurationPage page(dev);
        const QList<int> acc = offeredRates(child<QComboBox>(page, "inertialAccFreqComboBox"));
        const QList<int> gyr = offeredRates(child<QComboBox>(page, "inertialGyrFreqComboBox"));
        QVERIFY(!acc.isEmpty());
        QCOMPARE(acc.first(), 1);
        QVERIFY(acc.contains(400));
        QCOMPARE(child<QComboBox>(page, "inertialAccFreqComboBox")->itemText(0),
                 QStringLiteral("1 Hz"));
        const int maxAcc = *std::max_element(acc.begin(), acc.end());
        const int maxGyr = *std::max_element(gyr.begin(), gyr.end());
        // High-rate items are only offered above the ordinary ones; these devices reach
        // 2000 Hz either way, so nothing is left to choose and the boxes stay shut.
        for (int rate : offeredRates(child<QComboBox>(page, "hrdAccFreqComboBox")))
            QVERIFY2(rate > maxAcc, kind);
        for (int rate : offeredRates(child<QComboBox>(page, "hrdGyrFreqComboBox")))
            QVERIFY2(rate > maxGyr, kind);
        QVERIFY(!child<QCheckBox>(page, "hrdAccCheckBox")->isHidden());
        QVERIFY(!child<QCheckBox>(page, "hrdAccCheckBox")->isEnabled());
        QVERIFY(!child<QCheckBox>(page, "hrdGyrCheckBox")->isEnabled());

        // Slow sensors top out where the device says.
        QCOMPARE(offeredRates(child<QComboBox>(page, "magFieldFreqComboBox")).last(), 100);
        QCOMPARE(offeredRates(child<QComboBox>(page, "pressureDataFreqComboBox")).last(), 50);
    }

    NdaDevice& legacy = device("legacy");
    OutputConfigurationPage page(legacy);
    QCOMPARE(offeredRates(child<QComboBox>(page, "inertialAccFreqComboBox")).last(), 400);
    QCOMPARE(child<QComboBox>(page, "hrdAccFreqComboBox")->currentText(),
             QStringLiteral("Not Available"));
}

void TestOutputConfiguration::unavailableQuantitiesAreHidden()
{
    NdaDevice& imu = device("imu");
    OutputConfigurationPage imuPage(imu);
    // No orientation on an IMU: its whole group goes.
    QCOMPARE(child<QComboBox>(imuPage, "oriFreqComboBox")->currentText(),
             QStringLiteral("Not Available"));
    QCOMPARE(child<QComboBox>(imuPage, "oriFreqComboBox")->currentData().toInt(), -1);
    QVERIFY(child<QComboBox>(imuPage, "oriFormatComboBox")->isHidden());
    QVERIFY(child<QComboBox>(imuPage, "oriSubFormatComboBox")->isHidden());
    QVERIFY(child<QGroupBox>(imuPage, "groupOrientation")->isHidden());
    QVERIFY(child<QCheckBox>(imuPage, "freeAccCheckBox")->isHidden());
    QVERIFY(child<QCheckBox>(imuPage, "gpsPosVelLatLonCheckBox")->isHidden());
    QVERIFY(child<QGroupBox>(imuPage, "groupPositionAndVelocity")->isHidden());
    QVERIFY(child<QGroupBox>(imuPage, "groupGnssData")->isHidden());
    QVERIFY(child<QGroupBox>(imuPage, "groupAnalogIn")->isHidden());
    QVERIFY(child<QCheckBox>(imuPage, "timestampFrameRangeCheckBox")->isHidden());
    QVERIFY(child<QCheckBox>(imuPage, "statusRssiCheckBox")->isHidden());
    QVERIFY(!child<QCheckBox>(imuPage, "inertialAccCheckBox")->isHidden());
    QVERIFY(!child<QCheckBox>(imuPage, "timestampUtcTimeCheckBox")->isHidden());
    QVERIFY(child<QCheckBox>(imuPage, "timestampUtcTimeOfWeekCheckBox")->isHidden());

    NdaDevice& gnss = device("gnss");
    OutputConfigurationPage gnssPage(gnss);
    QVERIFY(!child<QComboBox>(gnssPage, "oriFormatComboBox")->isHidden());
    QVERIFY(!child<QCheckBox>(gnssPage, "gpsPosVelLatLonCheckBox")->isHidden());
    QVERIFY(!child<QComboBox>(gnssPage, "gpsPosVelAltitudeFormatComboBox")->isHidden());
    QVERIFY(!child<QCheckBox>(gnssPage, "gpsPvtDataCheckBox")->isHidden());
    QVERIFY(!child<QCheckBox>(gnssPage, "timestampUtcTimeOfWeekCheckBox")->isHidden());
    QCOMPARE(offeredRates(child<QComboBox>(gnssPage, "gpsPvtDataFreqComboBox")),
             (QList<int>{1, 2, 4}));
    // The gnss defaults include lat/lon in fixed point 16.32 and PVT data at 4 Hz.
    QVERIFY(child<QCheckBox>(gnssPage, "gpsPosVelLatLonCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(gnssPage, "gpsPosVelSubFormatComboBox")->currentIndex(), 2);
    QCOMPARE(child<QComboBox>(gnssPage, "gpsPosVelAltitudeFormatComboBox")->currentText(),
             QStringLiteral("Ellipsoid Altitude"));
    QCOMPARE(child<QComboBox>(gnssPage, "gpsPvtDataFreqComboBox")->currentText(),
             QStringLiteral("4 Hz"));

    NdaDevice& legacy = device("legacy");
    OutputConfigurationPage legacyPage(legacy);
    QVERIFY(child<QCheckBox>(legacyPage, "timestampSampleTimeCoarseCheckBox")->isHidden());
    QVERIFY(child<QCheckBox>(legacyPage, "inertialDeltaVCheckBox")->isHidden());
    QVERIFY(child<QCheckBox>(legacyPage, "pressureDataCheckBox")->isHidden());
    QVERIFY(child<QGroupBox>(legacyPage, "groupHighRateData")->isHidden());
    QVERIFY(child<QGroupBox>(legacyPage, "groupPressure")->isHidden());
    QVERIFY(!child<QComboBox>(legacyPage, "oriFormatComboBox")->isHidden());
    QCOMPARE(child<QComboBox>(legacyPage, "oriFormatComboBox")->currentText(),
             QStringLiteral("Euler Angles"));
}

void TestOutputConfiguration::dependentControlsFollowTheirBoxes()
{
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    auto* pressure = child<QCheckBox>(page, "pressureDataCheckBox");
    auto* pressureFreq = child<QComboBox>(page, "pressureDataFreqComboBox");
    auto* pressureFormat = child<QComboBox>(page, "pressureSubFormatComboBox");
    QVERIFY(!pressure->isChecked());
    QVERIFY(pressure->isEnabled());
    QVERIFY(!pressureFreq->isEnabled());
    QVERIFY(!pressureFormat->isEnabled());
    pressure->click();
    QVERIFY(pressureFreq->isEnabled());
    QVERIFY(pressureFormat->isEnabled());

    // The orientation's format goes with its choice; so does the status byte.
    auto* ori = child<QComboBox>(page, "oriFormatComboBox");
    auto* statusByte = child<QCheckBox>(page, "statusLegacyByteCheckBox");
    QVERIFY(child<QComboBox>(page, "oriSubFormatComboBox")->isEnabled());
    QVERIFY(statusByte->isEnabled());
    ori->setCurrentIndex(ori->findText(QStringLiteral("No Orientation")));
    QVERIFY(!child<QComboBox>(page, "oriSubFormatComboBox")->isEnabled());
    QVERIFY(!child<QComboBox>(page, "oriFreqComboBox")->isEnabled());
    QVERIFY(!statusByte->isEnabled());
    ori->setCurrentIndex(ori->findText(QStringLiteral("Euler Angles")));
    QVERIFY(child<QComboBox>(page, "oriSubFormatComboBox")->isEnabled());
    QVERIFY(statusByte->isEnabled());

    // Every-packet items have no rate to choose.
    QVERIFY(child<QComboBox>(page, "timestampPacketCounterFreqComboBox")->isHidden());
    QVERIFY(!child<QLabel>(page, "timestampPacketCounterEveryPacketLabel")->isHidden());

    // IMU: no orientation format to choose at all.
    NdaDevice& imu = device("imu");
    OutputConfigurationPage imuPage(imu);
    QVERIFY(!child<QComboBox>(imuPage, "oriSubFormatComboBox")->isEnabled());
    QVERIFY(!child<QCheckBox>(imuPage, "statusLegacyByteCheckBox")->isEnabled());
}

void TestOutputConfiguration::linkFreqsMatchesRatesWhereOffered()
{
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    auto* acc = child<QComboBox>(page, "inertialAccFreqComboBox");
    auto* gyr = child<QComboBox>(page, "inertialGyrFreqComboBox");
    auto* mag = child<QComboBox>(page, "magFieldFreqComboBox");
    auto* ori = child<QComboBox>(page, "oriFreqComboBox");
    auto* pressure = child<QComboBox>(page, "pressureDataFreqComboBox");
    child<QCheckBox>(page, "pressureDataCheckBox")->click();
    QVERIFY(chooseRate(pressure, 2));
    QVERIFY(chooseRate(gyr, 200));

    // Ticking the box takes the fastest enabled rate as the reference.
    child<QCheckBox>(page, "linkFreqsCheckBox")->click();
    QCOMPARE(gyr->currentText(), QStringLiteral("200 Hz"));
    QCOMPARE(acc->currentText(), QStringLiteral("200 Hz"));
    QCOMPARE(ori->currentText(), QStringLiteral("200 Hz"));
    QCOMPARE(mag->currentText(), QStringLiteral("100 Hz"));     // its fastest
    QCOMPARE(pressure->currentText(), QStringLiteral("50 Hz")); // its fastest

    // From then on every change of a rate carries over.
    QVERIFY(chooseRate(acc, 400));
    QCOMPARE(gyr->currentText(), QStringLiteral("400 Hz"));
    QCOMPARE(ori->currentText(), QStringLiteral("400 Hz"));
    QCOMPARE(mag->currentText(), QStringLiteral("100 Hz"));
    QVERIFY(chooseRate(mag, 25));
    QCOMPARE(acc->currentText(), QStringLiteral("25 Hz"));
    QCOMPARE(gyr->currentText(), QStringLiteral("25 Hz"));
    QCOMPARE(ori->currentText(), QStringLiteral("25 Hz"));
    QCOMPARE(pressure->currentText(), QStringLiteral("25 Hz"));
    QVERIFY(page.haveChanges());

    // Unlinked, rates are independent again.
    child<QCheckBox>(page, "linkFreqsCheckBox")->click();
    QVERIFY(chooseRate(acc, 100));
    QCOMPARE(gyr->currentText(), QStringLiteral("25 Hz"));
}

void TestOutputConfiguration::linkFormatsSetsEveryPrecision()
{
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    auto* widget = qobject_cast<OutputConfigurationWidget*>(page.currentWidget());
    auto* magFormat = child<QComboBox>(page, "magSubFormatComboBox");
    magFormat->setCurrentIndex(3);

    child<QCheckBox>(page, "linkFormatsCheckBox")->click();
    const QList<QComboBox*> formats =
        page.findChildren<QComboBox*>(QRegularExpression(QStringLiteral("SubFormatComboBox$")));
    QVERIFY(formats.size() >= 10);
    for (QComboBox* combo : formats)
        QCOMPARE(combo->currentText(), QStringLiteral("Floating Point 64-bit"));

    child<QComboBox>(page, "inertialGyrSubFormatComboBox")->setCurrentIndex(1);
    for (QComboBox* combo : formats)
        QCOMPARE(combo->currentText(), QStringLiteral("Fixed Point 12.20"));

    // The device takes the precisions as chosen.
    ModalCloser closer;
    page.apply();
    QVERIFY2(closer.texts.isEmpty(), qPrintable(closer.texts.join(QLatin1Char('/'))));
    const NvOutputConfigurationArray config = ahrs.outputConfiguration();
    for (NvDataIdentifier id : {NvDataIdentifier(0x2011), NvDataIdentifier(0x4021),
                                NvDataIdentifier(0x8021), NvDataIdentifier(0xC021)}) {
        QVERIFY2(
            std::any_of(config.begin(), config.end(),
                        [id](const NvOutputConfiguration& c) { return c.dataIdentifier == id; }),
            qPrintable(describe(config)));
    }
    QVERIFY(!widget->checkForChanges());
    QVERIFY(!page.haveChanges());
}

void TestOutputConfiguration::anotherPrecisionStillChecksTheQuantity()
{
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    auto* widget = qobject_cast<OutputConfigurationWidget*>(page.currentWidget());

    const NvOutputConfigurationArray given = {{NDI_PACKET_COUNTER, 0xFFFF},
                                              {NvDataIdentifier(0x4023), 200},
                                              {NvDataIdentifier(0xC021), 50},
                                              {NvDataIdentifier(0x2032), 10}};
    widget->updateFromDevice(&given);
    QVERIFY(child<QCheckBox>(page, "inertialAccCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "inertialAccSubFormatComboBox")->currentText(),
             QStringLiteral("Floating Point 64-bit"));
    QCOMPARE(child<QComboBox>(page, "inertialAccFreqComboBox")->currentText(),
             QStringLiteral("200 Hz"));
    QVERIFY(child<QCheckBox>(page, "magFieldCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "magSubFormatComboBox")->currentText(),
             QStringLiteral("Fixed Point 12.20"));
    QCOMPARE(child<QComboBox>(page, "oriFormatComboBox")->currentText(),
             QStringLiteral("Euler Angles"));
    QCOMPARE(child<QComboBox>(page, "oriSubFormatComboBox")->currentText(),
             QStringLiteral("Fixed Point 16.32"));
    QVERIFY(!child<QCheckBox>(page, "inertialGyrCheckBox")->isChecked());
    QCOMPARE(sortedConfig(widget->assembleOutputConfigurationListFromGUI()), sortedConfig(given));

    // The same through the device: written elsewhere, read by the page.
    NvOutputConfigurationArray onDevice = {{NDI_PACKET_COUNTER, 0xFFFF},
                                           {NvDataIdentifier(0x8022), 250}};
    QVERIFY(ahrs.setOutputConfiguration(onDevice));
    ModalCloser closer;
    page.loadSettings();
    QVERIFY(child<QCheckBox>(page, "inertialGyrCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "inertialGyrSubFormatComboBox")->currentIndex(), 2);
    QCOMPARE(child<QComboBox>(page, "inertialGyrFreqComboBox")->currentText(),
             QStringLiteral("250 Hz"));
    QVERIFY(!child<QCheckBox>(page, "inertialAccCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "oriFormatComboBox")->currentText(),
             QStringLiteral("No Orientation"));
    QVERIFY(!widget->checkForChanges());
}

void TestOutputConfiguration::presetsPerKind()
{
    const auto presetNames = [this](const char* kind) {
        NdaDevice& dev = device(kind);
        OutputConfigurationPage page(dev);
        return comboTexts(child<QComboBox>(page, "presetComboBox"));
    };
    QCOMPARE(presetNames("imu"), (QStringList{"NDA Processing", "High-Rate Calibrated Outputs"}));
    QCOMPARE(presetNames("ahrs"),
             (QStringList{"NDA Processing", "High-Rate Calibrated Outputs", "Onboard Processing"}));
    QCOMPARE(presetNames("gnss"),
             (QStringList{"NDA Processing", "High-Rate Calibrated Outputs", "Onboard Processing"}));
    QCOMPARE(presetNames("legacy"), (QStringList{"NDA Processing"}));

    // Host processing on a GNSS unit also takes the raw GNSS data.
    NdaDevice& gnss = device("gnss");
    OutputConfigurationPage gnssPage(gnss);
    auto* gnssWidget = qobject_cast<OutputConfigurationWidget*>(gnssPage.currentWidget());
    const NvOutputConfigurationArray host = gnssWidget->presets().at(0).second;
    QCOMPARE(describe(host), QStringLiteral("1020@65535 1060@65535 e020@65535 4010@2000 "
                                            "8030@2000 c020@100 3010@50 7010@4 7030@4"));
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage ahrsPage(ahrs);
    auto* ahrsWidget = qobject_cast<OutputConfigurationWidget*>(ahrsPage.currentWidget());
    QCOMPARE(
        describe(ahrsWidget->presets().at(0).second),
        QStringLiteral("1020@65535 1060@65535 e020@65535 4010@2000 8030@2000 c020@100 3010@50"));
    // Onboard processing without GNSS is the orientation alone.
    QCOMPARE(describe(ahrsWidget->presets().at(2).second),
             QStringLiteral("1020@65535 1060@65535 e020@65535 2010@400"));
    // No preset matches the devices' defaults.
    QCOMPARE(child<QComboBox>(ahrsPage, "presetComboBox")->currentIndex(), -1);
}

void TestOutputConfiguration::wirelessTrackerTakesTheMastersRates()
{
    // The docked tracker becomes a device of its own once the master has been read.
    const auto trackerOpen = [this] {
        const NvDeviceIdArray ids = m_control->deviceIds();
        return std::find(ids.begin(), ids.end(), m_tracker) != ids.end();
    };
    QTRY_VERIFY_WITH_TIMEOUT(trackerOpen(), 10000);
    NdaDevice& tracker = m_control->requestDevice(m_tracker);
    QVERIFY(tracker.isValid());
    OutputConfigurationPage page(tracker);
    QCOMPARE(comboTexts(child<QComboBox>(page, "presetComboBox")), QStringList{"NDA Processing"});
    QCOMPARE(offeredRates(child<QComboBox>(page, "inertialAccFreqComboBox")),
             (QList<int>{40, 60, 80, 100, 120}));
    QVERIFY(child<QComboBox>(page, "oriFormatComboBox")->isEnabled());
    QVERIFY(child<QGroupBox>(page, "groupPositionAndVelocity")->isHidden());
    m_control->releaseDevice(m_tracker);
}

void TestOutputConfiguration::switchingDeviceRebuildsTheOffers()
{
    NdaDevice& ahrs = device("ahrs");
    NdaDevice& imu = device("imu");
    OutputConfigurationPage page(ahrs);
    QVERIFY(!child<QGroupBox>(page, "groupOrientation")->isHidden());
    QCOMPARE(child<QComboBox>(page, "presetComboBox")->count(), 3);

    page.setDevice(imu.deviceId());
    QVERIFY(child<QGroupBox>(page, "groupOrientation")->isHidden());
    QCOMPARE(child<QComboBox>(page, "presetComboBox")->count(), 2);
    QCOMPARE(child<QComboBox>(page, "oriFormatComboBox")->currentText(),
             QStringLiteral("No Orientation"));
    QVERIFY(!page.haveChanges());
    QVERIFY(!qobject_cast<OutputConfigurationWidget*>(page.currentWidget())->checkForChanges());

    page.setDevice(ahrs.deviceId());
    QVERIFY(!child<QGroupBox>(page, "groupOrientation")->isHidden());
    QCOMPARE(child<QComboBox>(page, "oriFormatComboBox")->currentText(),
             QStringLiteral("Quaternion"));
}

void TestOutputConfiguration::choosingAPresetFillsTheForm()
{
    NdaDevice& gnss = device("gnss");
    OutputConfigurationPage page(gnss);
    auto* widget = qobject_cast<OutputConfigurationWidget*>(page.currentWidget());
    auto* presets = child<QComboBox>(page, "presetComboBox");
    const int onboard = presets->findText(QStringLiteral("Onboard Processing"));
    QVERIFY(onboard >= 0);
    presets->setCurrentIndex(onboard);
    emit presets->activated(onboard); // what a user's pick does

    QCOMPARE(child<QComboBox>(page, "oriFormatComboBox")->currentText(),
             QStringLiteral("Quaternion"));
    QCOMPARE(child<QComboBox>(page, "oriFreqComboBox")->currentText(), QStringLiteral("400 Hz"));
    QVERIFY(child<QCheckBox>(page, "gpsPosVelLatLonCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "gpsPosVelAltitudeFormatComboBox")->currentText(),
             QStringLiteral("Ellipsoid Altitude"));
    QVERIFY(child<QCheckBox>(page, "gpsPosVelVelocityCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "gpsPosVelSubFormatComboBox")->currentText(),
             QStringLiteral("Fixed Point 16.32"));
    QVERIFY(!child<QCheckBox>(page, "inertialAccCheckBox")->isChecked());
    QVERIFY(!child<QCheckBox>(page, "magFieldCheckBox")->isChecked());
    QVERIFY(!child<QCheckBox>(page, "gpsPvtDataCheckBox")->isChecked());
    QCOMPARE(presets->currentIndex(), onboard);
    QCOMPARE(widget->getCurrentPresetFromGUI(), onboard);
    QVERIFY(page.haveChanges());

    // Any further edit leaves the preset.
    child<QCheckBox>(page, "inertialAccCheckBox")->click();
    QCOMPARE(presets->currentIndex(), -1);
    // Taking it back out finds the preset again.
    child<QCheckBox>(page, "inertialAccCheckBox")->click();
    QCOMPARE(presets->currentIndex(), onboard);

    // Written, the device reports exactly the preset.
    ModalCloser closer;
    page.apply();
    QVERIFY2(closer.texts.isEmpty(), qPrintable(closer.texts.join(QLatin1Char('/'))));
    QCOMPARE(describe(sortedConfig(gnss.outputConfiguration())),
             describe(sortedConfig(widget->presets().at(onboard).second)));
    QCOMPARE(presets->currentIndex(), onboard);
}

void TestOutputConfiguration::appliedConfigurationIsWhatTheDeviceReportsAndStreams()
{
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    QSignalSpy applied(&page, &OutputConfigurationPage::configurationChangeApplied);
    ModalCloser closer;
    page.loadSettings();

    // Quaternion at 100 Hz, acceleration at 400 Hz, counters; nothing else.
    for (const char* box : {"inertialGyrCheckBox", "magFieldCheckBox", "statusWordCheckBox"})
        child<QCheckBox>(page, box)->click();
    auto* ori = child<QComboBox>(page, "oriFormatComboBox");
    ori->setCurrentIndex(ori->findText(QStringLiteral("Quaternion")));
    QVERIFY(chooseRate(child<QComboBox>(page, "oriFreqComboBox"), 100));
    QVERIFY(chooseRate(child<QComboBox>(page, "inertialAccFreqComboBox"), 400));
    QVERIFY(page.haveChanges());

    page.apply();
    QVERIFY2(closer.texts.isEmpty(), qPrintable(closer.texts.join(QLatin1Char('/'))));
    const NvOutputConfigurationArray expected = {{NDI_PACKET_COUNTER, 0xFFFF},
                                                 {NDI_SAMPLE_TIME_FINE, 0xFFFF},
                                                 {NDI_QUATERNION, 100},
                                                 {NDI_ACCELERATION, 400}};
    QCOMPARE(describe(sortedConfig(ahrs.outputConfiguration())), describe(sortedConfig(expected)));
    QVERIFY(!page.haveChanges());
    QCOMPARE(applied.size(), 1);
    QCOMPARE(applied.at(0).at(0).value<NvDeviceId>(), ahrs.deviceId());
    // The form shows what the device now has.
    QCOMPARE(child<QComboBox>(page, "inertialAccFreqComboBox")->currentText(),
             QStringLiteral("400 Hz"));
    QVERIFY(!child<QCheckBox>(page, "inertialGyrCheckBox")->isChecked());

    // The device streams it: acceleration in every packet on a 400 Hz grid, the
    // quaternion on every whole hundredth of a second.
    std::vector<NvDataPacket> packets;
    const auto connection = connect(&ahrs, &NdaCallback::postProcessed, this,
                                    [&packets](const NvDataPacket& p) { packets.push_back(p); });
    QVERIFY(ahrs.gotoMeasurement());
    QTRY_VERIFY_WITH_TIMEOUT(packets.size() >= 80, 15000);
    QVERIFY(ahrs.gotoConfig());
    disconnect(connection);

    int quaternions = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        const NvDataPacket& p = packets[i];
        QVERIFY(p.contains(NDI_PACKET_COUNTER));
        QVERIFY(p.contains(NDI_SAMPLE_TIME_FINE));
        QCOMPARE(p.identifier(NDI_ACCELERATION), NvDataIdentifier(NDI_ACCELERATION));
        QVERIFY(!p.contains(NDI_RATE_OF_TURN));
        QVERIFY(!p.contains(NDI_MAGNETIC_FIELD));
        QVERIFY(!p.contains(NDI_STATUS_WORD));
        QCOMPARE(p.contains(NDI_QUATERNION), p.sampleTimeFine() % 100 == 0);
        quaternions += p.contains(NDI_QUATERNION) ? 1 : 0;
        if (i > 0 && uint16_t(packets[i - 1].packetCounter() + 1) == p.packetCounter())
            QCOMPARE(p.sampleTimeFine() - packets[i - 1].sampleTimeFine(), 25u);
    }
    QVERIFY(quaternions >= 10);
}

void TestOutputConfiguration::refusedConfigurationWarnsAndKeepsTheForm()
{
    NdaDevice& ahrs = device("ahrs");
    const NvOutputConfigurationArray before = ahrs.outputConfiguration();
    OutputConfigurationPage page(ahrs);
    auto* widget = qobject_cast<OutputConfigurationWidget*>(page.currentWidget());
    // A configuration made for another device: frame ranges, which this one cannot send.
    const NvOutputConfigurationArray foreign = {
        {NDI_PACKET_COUNTER, 0xFFFF}, {NDI_FRAME_RANGE, 0xFFFF}, {NDI_ACCELERATION, 100}};
    widget->setOutputConfigurationInGUI(foreign);
    page.setHaveChanges(true);

    ModalCloser closer;
    page.apply();
    QCOMPARE(closer.texts,
             QStringList{QStringLiteral("Configuration failed.\nPlease check settings.")});
    QCOMPARE(describe(sortedConfig(ahrs.outputConfiguration())), describe(sortedConfig(before)));
    // The user's choice stays, ready to be corrected and written again.
    QVERIFY(child<QCheckBox>(page, "timestampFrameRangeCheckBox")->isChecked());
    QVERIFY(child<QCheckBox>(page, "inertialAccCheckBox")->isChecked());
    QVERIFY(!child<QCheckBox>(page, "magFieldCheckBox")->isChecked());
    QVERIFY(page.haveChanges());

    child<QCheckBox>(page, "timestampFrameRangeCheckBox")->setChecked(false);
    closer.texts.clear();
    page.apply();
    QVERIFY(closer.texts.isEmpty());
    QCOMPARE(describe(sortedConfig(ahrs.outputConfiguration())),
             describe(sortedConfig({{NDI_PACKET_COUNTER, 0xFFFF}, {NDI_ACCELERATION, 100}})));
    QVERIFY(!page.haveChanges());
}

void TestOutputConfiguration::droppedPrecisionWarnsAndKeepsTheForm()
{
    // Pressure is a whole number of pascals: the device drops a precision asked of it.
    NdaDevice& ahrs = device("ahrs");
    OutputConfigurationPage page(ahrs);
    QSignalSpy applied(&page, &OutputConfigurationPage::configurationChangeApplied);
    child<QCheckBox>(page, "pressureDataCheckBox")->click();
    QVERIFY(chooseRate(child<QComboBox>(page, "pressureDataFreqComboBox"), 50));
    child<QComboBox>(page, "pressureSubFormatComboBox")->setCurrentIndex(1);

    ModalCloser closer;
    page.apply();
    QCOMPARE(closer.texts,
             QStringList{QStringLiteral("Not all settings have been properly transferred to the "
                                        "device.\nPlease check settings.")});
    // Everything else was written; the pressure arrived without its format.
    const NvOutputConfigurationArray config = ahrs.outputConfiguration();
    QVERIFY(std::any_of(config.begin(), config.end(), [](const NvOutputConfiguration& c) {
        return c.dataIdentifier == NDI_BARO_PRESSURE && c.frequency == 50;
    }));
    QVERIFY(child<QCheckBox>(page, "pressureDataCheckBox")->isChecked());
    QCOMPARE(child<QComboBox>(page, "pressureSubFormatComboBox")->currentText(),
             QStringLiteral("Fixed Point 12.20"));
    QCOMPARE(applied.size(), 0);
    QVERIFY(page.haveChanges());
}

void TestOutputConfiguration::readOnlyPageDoesNotWrite()
{
    NdaDevice& ahrs = device("ahrs");
    const NvOutputConfigurationArray before = ahrs.outputConfiguration();
    OutputConfigurationPage page(ahrs);
    child<QCheckBox>(page, "pressureDataCheckBox")->click();
    page.setReadOnly(true);
    QVERIFY(!page.haveChanges());
    QVERIFY(!child<QCheckBox>(page, "inertialAccCheckBox")->isEnabled());
    QVERIFY(!child<QComboBox>(page, "presetComboBox")->isEnabled());
    QVERIFY(!child<QCheckBox>(page, "linkFreqsCheckBox")->isEnabled());

    ModalCloser closer;
    page.apply();
    QVERIFY(closer.texts.isEmpty());
    QCOMPARE(describe(sortedConfig(ahrs.outputConfiguration())), describe(sortedConfig(before)));

    // Writable again, the dependencies hold as before.
    page.setReadOnly(false);
    QVERIFY(child<QCheckBox>(page, "inertialAccCheckBox")->isEnabled());
    QVERIFY(child<QComboBox>(page, "inertialAccFreqComboBox")->isEnabled());
    QVERIFY(!child<QComboBox>(page, "inertialDeltaVFreqComboBox")->isEnabled());
    QVERIFY(!child<QCheckBox>(page, "hrdAccCheckBox")->isEnabled());
}

void TestOutputConfiguration::deviceThatGoesAwayLeavesAHarmlessForm()
{
    NdaDevice& imu = device("imu");
    const NvDeviceId id = imu.deviceId();
    OutputConfigurationWidget widget(imu);
    QVERIFY(child<QCheckBox>(widget, "inertialAccCheckBox")->isEnabled());

    QVERIFY(m_control->closePort(id));
    QTRY_VERIFY_WITH_TIMEOUT(m_control->getExistingDevice(id) == nullptr, 10000);
    QVERIFY(!widget.ndaDevice().isValid());

    ModalCloser closer;
    QVERIFY(!widget.apply());
    widget.updateReadOnlyState();
    QVERIFY(!child<QCheckBox>(widget, "inertialAccCheckBox")->isEnabled());
    widget.updateFromDevice();
    QVERIFY(!child<QCheckBox>(widget, "inertialAccCheckBox")->isChecked());
    QVERIFY(closer.texts.isEmpty());

    // Reopened for the tests that follow.
    for (const auto& port : m_sim->ports())
        if (port.kind == "imu")
            QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
}

QTEST_MAIN(TestOutputConfiguration)
#include "tst_outputconfiguration.moc"
