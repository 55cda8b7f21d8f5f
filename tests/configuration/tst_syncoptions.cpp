// The synchronisation page: its rows and their texts, duplicate marks, the timing
// diagram, GPS clock synchronisation, the title and read-only state, and what an emulated
// device holds after the page has written to it.

#include "journaller.h"
#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"
#include "syncnamedatabase.h"
#include "syncoptionsmodel.h"
#include "syncoptionspage.h"
#include "syncrenderarea.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QLabel>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {

// Answers every modal message box with `answer` (when the box has it, else closes it) and
// keeps "title|text|informative text" of each.
class ModalCloser : public QObject
{
public:
    explicit ModalCloser(QMessageBox::StandardButton answer = QMessageBox::Ok) : m_answer(answer)
    {
        connect(&m_timer, &QTimer::timeout, this, [this] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                texts.append(box->windowTitle() + QLatin1Char('|') + box->text() +
                             QLatin1Char('|') + box->informativeText());
                if (QAbstractButton* button = box->button(m_answer))
                    button->click();
                else
                    box->done(QMessageBox::Ok);
            }
        });
        m_timer.start(10);
    }
    QStringList texts;

private:
    QMessageBox::StandardButton m_answer;
    QTimer m_timer;
};

NvSyncSetting setting(NvSyncLine line, NvSyncFunction function,
                      NvSyncPolarity polarity = NSP_RISING_EDGE)
{
    NvSyncSetting s;
    s.line = line;
    s.function = function;
    s.polarity = polarity;
    return s;
}

QString idText(const NvDeviceId& id)
{
    return QString::fromStdString(id.toString());
}

template <typename T>
T* child(QWidget& page, const char* name)
{
    T* w = page.findChild<T*>(QLatin1String(name));
    if (!w)
        qFatal("no widget %s", name);
    return w;
}

void chooseData(QComboBox* combo, int value)
{
    const int index = combo->findData(value);
    QVERIFY2(index >= 0, qPrintable(QStringLiteral("value %1 not offered").arg(value)));
    combo->setCurrentIndex(index);
}

QList<int> offered(QComboBox* combo)
{
    QList<int> values;
    for (int i = 0; i < combo->count(); ++i)
        values.append(combo->itemData(i).toInt());
    return values;
}

// Dark pixels in row `y` of the image.
int darkPixelsInRow(const QImage& image, int y)
{
    int dark = 0;
    for (int x = 0; x < image.width(); ++x)
        if (qGray(image.pixel(x, y)) < 80)
            ++dark;
    return dark;
}

} // namespace

class TestSyncOptions : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void namesFollowTheTablesAndUnknownValuesReadUnknown();
    void rowsShowLineAndFunctionAndMarkDuplicatesRed();
    void rowsAreInsertedOneAtATime();
    void drawnPulseWidthStaysBelowThePeriod();
    void levelsFollowThePolarity();
    void diagramDrawsTheSettingOffscreen();
    void gpsClockSyncForEachFamily();
    void windowTitleAndReadOnlyState();
    void widgetsFollowTheSelectedLineAndFunction();
    void duplicateWarningFollowsTheSelection();
    void appliedSettingsAreWhatTheDeviceReports();
    void refusedSettingsStayOnThePage();
    void deviceThatDoesNotAnswerIsNotReady();
    void gnssDeviceIsOfferedGpsClockSync();

private:
    NdaDevice& ahrs() { return *m_ahrs; }
    NdaDevice& gnss() { return *m_gnss; }
    // A page as the dialog builds it: constructed, then loaded.
    std::unique_ptr<SyncOptionsPage> loadedPage(NdaDevice& device);
    // Adds a row through the form and sets it up as a user would.
    void addRow(SyncOptionsPage& page, NvSyncLine line, NvSyncFunction function,
                NvSyncPolarity polarity = NSP_RISING_EDGE);

    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    std::unique_ptr<NdaControl> m_control;
    NvDeviceId m_ahrsId, m_gnssId;
    NdaDevice* m_ahrs = nullptr; // requested for the test, released after it
    NdaDevice* m_gnss = nullptr;
};

void TestSyncOptions::initTestCase()
{
    qRegisterMetaType<NvDeviceId>();
    m_sim = std::make_unique<kvtest::KvsimProcess>(
        std::vector<std::string>{"--device", "ahrs", "--device", "gnss", "--quiet"});
    QVERIFY(m_sim->started());
    for (const auto& port : m_sim->ports()) {
        if (port.kind == "ahrs")
            m_ahrsId = NvDeviceId::fromString(port.id);
        if (port.kind == "gnss")
            m_gnssId = NvDeviceId::fromString(port.id);
    }
    QVERIFY(!m_ahrsId.isEmpty() && !m_gnssId.isEmpty());
}

void TestSyncOptions::init()
{
    m_control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000); // loaded machines
    for (const auto& port : m_sim->ports())
        QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
    m_ahrs = &m_control->requestDevice(m_ahrsId);
    m_gnss = &m_control->requestDevice(m_gnssId);
    // Each test starts from a device without synchronisation.
    for (NdaDevice* device : {m_ahrs, m_gnss}) {
        QVERIFY(device->isValid());
        NdaDeviceMeasurementPauser pauser(*device);
        QVERIFY(device->setSyncSettings({setting(NSL_IN1, NSF_NONE)}));
        QVERIFY(device->syncSettings().empty());
    }
}

void TestSyncOptions::cleanup()
{
    m_control->releaseDevice(m_ahrsId);
    m_control->releaseDevice(m_gnssId);
    m_ahrs = m_gnss = nullptr;
    m_control.reset();
}

void TestSyncOptions::cleanupTestCase()
{
    m_sim.reset();
}

std::unique_ptr<SyncOptionsPage> TestSyncOptions::loadedPage(NdaDevice& device)
{
    auto page = std::make_unique<SyncOptionsPage>(device);
    page->resize(760, 520);
    ModalCloser closer;
    page->loadSettings();
    return page;
}

void TestSyncOptions::addRow(SyncOptionsPage& page, NvSyncLine line, NvSyncFunction function,
                             NvSyncPolarity polarity)
{
    child<QPushButton>(page, "syncListAddButton")->click();
    chooseData(child<QComboBox>(page, "syncParamLineCombo"), line);
    chooseData(child<QComboBox>(page, "syncParamFunctionCombo"), function);
    chooseData(child<QComboBox>(page, "syncParamPolarityCombo"), polarity);
}

void TestSyncOptions::namesFollowTheTablesAndUnknownValuesReadUnknown()
{
    const SyncNameDatabase names;
    QCOMPARE(names.lineName(NSL_IN1), QStringLiteral("In 1"));
    QCOMPARE(names.lineName(NSL_BIDIRECTIONAL1_IN), QStringLiteral("Bidirectional 1 <- In"));
    QCOMPARE(names.lineName(NSL_GNSS_1PPS), QStringLiteral("GNSS 1PPS"));
    QCOMPARE(names.lineName(NSL_RTS_OUT), QStringLiteral("RTS Out"));
    QCOMPARE(names.lineName(7), QStringLiteral("Unknown"));
    QCOMPARE(names.functionName(NSF_PULSE_WIDTH_MODULATION),
             QStringLiteral("Pulse With Modulation (Out)"));
    QCOMPARE(names.functionName(NSF_TIME_PULSE), QStringLiteral("1PPS Time-pulse"));
    QCOMPARE(names.functionName(NSF_NONE), QStringLiteral("None"));
    QCOMPARE(names.functionName(15), QStringLiteral("Unknown"));
    QCOMPARE(names.polarityName(NSP_BOTH_EDGES), QStringLiteral("Falling & Rising Edge"));
    QCOMPARE(names.polarityName(0), QStringLiteral("Unknown"));
    QVERIFY(SyncNameDatabase::isInput(NSL_GNSS_1PPS));
    QVERIFY(!SyncNameDatabase::isInput(NSL_OUT1));
    QVERIFY(SyncOptionsPage::isInput(NSL_REQ_DATA));
    QVERIFY(!SyncOptionsPage::isInput(NSL_NONE));
}

void TestSyncOptions::rowsShowLineAndFunctionAndMarkDuplicatesRed()
{
    SyncOptionsModel model;
    model.setSyncSettings({setting(NSL_IN1, NSF_START_RECORDING_IN),
                           setting(NSL_IN1, NSF_START_RECORDING_IN), setting(NSL_IN2, NSF_NONE),
                           setting(NSL_IN2, NSF_NONE),
                           setting(NSL_OUT1, NSF_INTERVAL_TRANSITION_MEASUREMENT)});
    QCOMPARE(model.rowCount(), 5);
    QCOMPARE(model.data(model.index(0)).toString(), QStringLiteral("In 1: Start Recording (In)"));
    QCOMPARE(model.data(model.index(4)).toString(),
             QStringLiteral("Out 1: Interval Transition Measurement (Out)"));
    QCOMPARE(model.headerData(0, Qt::Horizontal).toString(), QString());
    QCOMPARE(model.data(model.index(3), Qt::UserRole).toInt(), 3);

    const auto colour = [&model](int row) {
        return model.data(model.index(row), Qt::ForegroundRole).value<QBrush>().color();
    };
    QCOMPARE(colour(0), QColor(Qt::red));
    QCOMPARE(colour(1), QColor(Qt::red));
    QCOMPARE(colour(2), QColor(Qt::black)); // "None" twice on a line is no clash
    QCOMPARE(colour(3), QColor(Qt::black));
    QCOMPARE(colour(4), QColor(Qt::black));

    // Changing one of the pair clears both marks.
    NvSyncSetting changed = model.getSettings(model.index(1));
    changed.function = NSF_STOP_RECORDING_IN;
    QVERIFY(model.setSettings(model.index(1), changed));
    QCOMPARE(colour(0), QColor(Qt::black));
    QCOMPARE(colour(1), QColor(Qt::black));
    QCOMPARE(model.data(model.index(1)).toString(), QStringLiteral("In 1: Stop Recording (In)"));
}

void TestSyncOptions::rowsAreInsertedOneAtATime()
{
    SyncOptionsModel model;
    QVERIFY(!model.insertRows(0, 2));
    QVERIFY(!model.insertRows(1, 1)); // beyond the end
    QCOMPARE(model.rowCount(), 0);
    QVERIFY(model.insertRows(0, 1));
    QVERIFY(model.insertRows(1, 1));
    QCOMPARE(model.rowCount(), 2);

    const NvSyncSetting fresh = model.getSettings(model.index(1));
    QCOMPARE(int(fresh.line), 0);
    QCOMPARE(int(fresh.function), 16);
    QCOMPARE(int(fresh.polarity), 1);
    QCOMPARE(fresh.pulseWidth, 1000u);
    QCOMPARE(fresh.offset, 0);
    QCOMPARE(int(fresh.skipFirst + fresh.skipFactor + fresh.clockPeriod + fresh.triggerOnce), 0);
    QCOMPARE(model.data(model.index(0)).toString(), QStringLiteral("In 1: None"));

    QVERIFY(!model.removeRows(1, 2));
    QVERIFY(model.removeRows(0, 1));
    QCOMPARE(model.rowCount(), 1);
}

void TestSyncOptions::drawnPulseWidthStaysBelowThePeriod()
{
    SyncRenderArea area;
    area.resize(600, 216);
    area.setUpdateRate(100); // 10 ms
    QCOMPARE(area.periodMs(), 10.0);

    // A time pulse has a period of one second whatever the sample rate.
    area.setFunction(NSF_TIME_PULSE);
    area.setPulseWidth(1000000);
    QCOMPARE(area.adjustedPulseWidth(), 999999u);
    area.setPulseWidth(3000000);
    QCOMPARE(area.adjustedPulseWidth(), 999999u);
    area.setPulseWidth(50000);
    QCOMPARE(area.adjustedPulseWidth(), 50000u);

    area.setFunction(NSF_INTERVAL_TRANSITION_MEASUREMENT);
    area.setPulseWidth(10000);
    QCOMPARE(area.adjustedPulseWidth(), 9999u);
    area.setPulseWidth(9999);
    QCOMPARE(area.adjustedPulseWidth(), 9999u);
    area.setUpdateRate(400); // 2.5 ms
    QCOMPARE(area.adjustedPulseWidth(), 2499u);

    area.setPulseWidth(0);
    area.setZeroPwMode(SyncRenderArea::ZeroPwToggle);
    QCOMPARE(area.adjustedPulseWidth(), 600u * 1000u);
    area.setZeroPwMode(SyncRenderArea::ZeroPwSpike);
    QCOMPARE(area.adjustedPulseWidth(), 1u);
    area.setZeroPwMode(SyncRenderArea::ZeroPwNone);
    QCOMPARE(area.adjustedPulseWidth(), 0u);

    // The page draws what its selected row holds.
    auto page = loadedPage(gnss());
    addRow(*page, NSL_OUT1, NSF_TIME_PULSE);
    child<QSpinBox>(*page, "syncParamPulseWidthSpin")->setValue(1000000);
    QCOMPARE(page->currentSetting().pulseWidth, 1000000u);
    QCOMPARE(page->renderArea()->pulseWidth(), 1000000u);
    QCOMPARE(page->renderArea()->adjustedPulseWidth(), 999999u);

    // Values at the ends of their ranges are drawn without harm.
    SyncRenderArea extreme;
    extreme.resize(600, 216);
    extreme.setUpdateRate(0);
    extreme.setSyncMode(SyncRenderArea::PulseOutput);
    extreme.setInput(false);
    extreme.setFunction(NSF_PULSE_WIDTH_MODULATION);
    extreme.setPulseWidth(UINT32_MAX);
    extreme.setOffset(INT32_MIN);
    extreme.setSkipFirst(65535);
    extreme.setSkipFactor(65535);
    QCOMPARE(extreme.adjustedPulseWidth(), 999999u);
    QVERIFY(!extreme.grab().isNull());
    extreme.setSyncMode(SyncRenderArea::TriggerInput);
    extreme.setInput(true);
    extreme.setOffset(INT32_MAX);
    extreme.setUpdateRate(100000);
    QVERIFY(!extreme.grab().isNull());
}

void TestSyncOptions::levelsFollowThePolarity()
{
    SyncRenderArea area;
    area.setPolarity(NSP_RISING_EDGE);
    QCOMPARE(area.lowLevel(), 135);
    QCOMPARE(area.highLevel(), 55);
    area.setPolarity(NSP_FALLING_EDGE);
    QCOMPARE(area.lowLevel(), 55);
    QCOMPARE(area.highLevel(), 135);
    area.setPolarity(NSP_BOTH_EDGES); // the first edge of a pair rises
    QCOMPARE(area.lowLevel(), 135);
    QCOMPARE(area.highLevel(), 55);
}

void TestSyncOptions::diagramDrawsTheSettingOffscreen()
{
    struct Case
    {
        const char* file;
        NvSyncSetting setting;
    };
    NvSyncSetting trigger = setting(NSL_IN1, NSF_TRIGGER_INDICATION);
    trigger.offset = 3000;
    trigger.skipFirst = 1;
    trigger.skipFactor = 1;
    NvSyncSetting falling = setting(NSL_IN2, NSF_SAMPLE_AND_SEND, NSP_FALLING_EDGE);
    falling.triggerOnce = 1;
    NvSyncSetting both = setting(NSL_IN1, NSF_START_SAMPLING, NSP_BOTH_EDGES);
    both.offset = 1500;
    NvSyncSetting output = setting(NSL_OUT1, NSF_INTERVAL_TRANSITION_MEASUREMENT);
    output.pulseWidth = 4000;
    output.offset = 2000;
    output.skipFactor = 2;
    NvSyncSetting pps = setting(NSL_SYNC_OUT, NSF_TIME_PULSE);
    pps.pulseWidth = 1000000;
    NvSyncSetting clock = setting(NSL_IN2, NSF_CLOCK_BIAS_ESTIMATION);
    clock.clockPeriod = 1000;
    NvSyncSetting toggle = setting(NSL_OUT1, NSF_INTERVAL_TRANSITION_MEASUREMENT);
    toggle.pulseWidth = 0;
    const Case cases[] = {{"trigger", trigger}, {"falling", falling},
                          {"both", both},       {"output", output},
                          {"pps", pps},         {"clock", clock},
                          {"toggle", toggle},   {"none", setting(NSL_IN1, NSF_NONE)}};

    // Set KV_SYNC_DIAGRAM_DIR to keep the pictures for a look.
    const QString keep = qEnvironmentVariable("KV_SYNC_DIAGRAM_DIR");
    for (const Case& c : cases) {
        NvSyncSettingArray list{c.setting};
        SyncOptionsPage page(m_control->getInvalidDevice());
        page.resize(760, 520);
        page.model()->setSyncSettings(list);
        page.listView()->setCurrentIndex(page.model()->index(0));
        const QImage image = page.renderArea()->grab().toImage();
        if (!keep.isEmpty())
            image.save(QDir(keep).filePath(QStringLiteral("%1.png").arg(c.file)));
        QVERIFY(!image.isNull());
        if (c.setting.function == NSF_NONE) {
            QCOMPARE(page.renderArea()->syncMode(), SyncRenderArea::NoSync);
            continue;
        }
        // Each signal runs along one of its levels somewhere, and the title names it.
        QVERIFY2(darkPixelsInRow(image, SyncRenderArea::HighY) > 10, c.file);
        QVERIFY2(darkPixelsInRow(image, SyncRenderArea::LowY) > 10, c.file);
        QCOMPARE(page.renderArea()->functionText(), page.model()->data(page.model()->index(0)));
        if (!keep.isEmpty())
            page.grab().save(QDir(keep).filePath(QStringLiteral("page-%1.png").arg(c.file)));
    }
}

void TestSyncOptions::gpsClockSyncForEachFamily()
{
    const NvDeviceId p670 = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv670GnssIns, 1);
    const NvDeviceId p630 = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv630Ahrs, 2);
    const NvDeviceId s770 = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv770GnssIns, 3);
    const NvDeviceId m300 = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv300Ahrs, 4);
    const NvDeviceId r370 = NvDeviceId::fromTypeAndSerial(NvDeviceType::Kv370GnssIns, 5);
    QVERIFY(p670.isFamilyP() && s770.isFamilyS() && m300.isFamilyM() && r370.isFamilyR());

    NvSyncSetting oldBias = setting(NSL_IN1, NSF_CLOCK_BIAS_ESTIMATION);
    oldBias.clockPeriod = 100;
    const NvSyncSetting oldPulse = setting(NSL_OUT1, NSF_TIME_PULSE);
    const NvSyncSetting other = setting(NSL_IN2, NSF_TRIGGER_INDICATION);
    const NvSyncSettingArray start{oldBias, other, oldPulse};

    // Family P with internal GNSS: time pulse, then clock bias, both on line 2.
    NvSyncSettingArray list = start;
    QVERIFY(!SyncOptionsPage::isGpsClockSyncEnabledCorrectly(list, p670, true));
    SyncOptionsPage::setGpsClockSync(list, p670, true);
    QCOMPARE(list.size(), size_t(3));
    QCOMPARE(int(list[0].line), 2);
    QCOMPARE(int(list[0].function), int(NSF_TIME_PULSE));
    QCOMPARE(int(list[0].polarity), 1);
    QCOMPARE(list[0].pulseWidth, 50000u);
    QCOMPARE(list[0].clockPeriod, uint16_t(0));
    QCOMPARE(int(list[1].line), 2);
    QCOMPARE(int(list[1].function), int(NSF_CLOCK_BIAS_ESTIMATION));
    QCOMPARE(list[1].pulseWidth, 1000u);
    QCOMPARE(list[1].clockPeriod, uint16_t(1000));
    QCOMPARE(list[2], other);
    QVERIFY(SyncOptionsPage::isGpsClockSyncEnabledCorrectly(list, p670, true));

    // Family P without: line 1.
    list = start;
    SyncOptionsPage::setGpsClockSync(list, p630, false);
    QCOMPARE(int(list[0].line), 1);
    QCOMPARE(int(list[1].line), 1);
    QCOMPARE(int(list[1].function), int(NSF_CLOCK_BIAS_ESTIMATION));

    // Family S: the receiver's own lines.
    list = start;
    SyncOptionsPage::setGpsClockSync(list, s770, true);
    QCOMPARE(list.size(), size_t(3));
    QCOMPARE(int(list[0].line), int(NSL_GNSS_1PPS));
    QCOMPARE(int(list[0].function), int(NSF_TIME_PULSE));
    QCOMPARE(int(list[1].line), int(NSL_GNSS_CLOCK_IN));
    QCOMPARE(list[1].clockPeriod, uint16_t(1000));

    // Family M keeps its time-pulse settings and gets the clock bias alone.
    list = start;
    SyncOptionsPage::setGpsClockSync(list, m300, false);
    QCOMPARE(list.size(), size_t(3));
    QCOMPARE(int(list[0].line), int(NSL_GNSS_CLOCK_IN));
    QCOMPARE(int(list[0].function), int(NSF_CLOCK_BIAS_ESTIMATION));
    QCOMPARE(list[0].clockPeriod, uint16_t(1000));
    QCOMPARE(list[1], other);
    QCOMPARE(list[2], oldPulse);

    // Other families clock at 250.
    list = {};
    SyncOptionsPage::setGpsClockSync(list, r370, true);
    QCOMPARE(list.size(), size_t(1));
    QCOMPARE(list[0].clockPeriod, uint16_t(250));
    QVERIFY(SyncOptionsPage::isGpsClockSyncEnabledCorrectly(list, r370, true));
    list[0].clockPeriod = 1000;
    QVERIFY(!SyncOptionsPage::isGpsClockSyncEnabledCorrectly(list, r370, true));
}

void TestSyncOptions::windowTitleAndReadOnlyState()
{
    auto page = loadedPage(ahrs());
    const QString base = QStringLiteral("Synchronization Options for device ") + idText(m_ahrsId);
    QCOMPARE(page->windowTitle(), base);
    QCOMPARE(page->trName(), QStringLiteral("Synchronization Options"));
    QVERIFY(!page->haveChanges()); // loading is no change

    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION);
    QVERIFY(page->haveChanges());
    auto* add = child<QPushButton>(*page, "syncListAddButton");
    auto* pulse = child<QSpinBox>(*page, "syncParamOffsetSpin");
    QVERIFY(add->isEnabled() && pulse->isEnabled());

    page->setReadOnlyMode(true);
    QCOMPARE(page->windowTitle(), base + QStringLiteral(" (READ-ONLY)"));
    QVERIFY(!page->haveChanges());
    QVERIFY(!add->isEnabled());
    QVERIFY(!child<QPushButton>(*page, "syncListDeleteButton")->isEnabled());
    QVERIFY(!pulse->isEnabled());
    QVERIFY(!child<QComboBox>(*page, "syncParamLineCombo")->isEnabled());
    QVERIFY(page->listView()->isEnabled()); // the rows can still be looked at

    page->setReadOnlyMode(true, QStringLiteral("recording"));
    QCOMPARE(page->windowTitle(), base + QStringLiteral(" (READ-ONLY, recording)"));

    page->setReadOnly(false);
    QCOMPARE(page->windowTitle(), base);
    QVERIFY(add->isEnabled() && pulse->isEnabled());
}

void TestSyncOptions::widgetsFollowTheSelectedLineAndFunction()
{
    auto page = loadedPage(ahrs());
    auto* line = child<QComboBox>(*page, "syncParamLineCombo");
    auto* function = child<QComboBox>(*page, "syncParamFunctionCombo");
    auto* offsetLabel = child<QLabel>(*page, "syncParamOffsetLabel");
    auto* pulseWidth = child<QSpinBox>(*page, "syncParamPulseWidthSpin");
    auto* clock = child<QSpinBox>(*page, "syncParamClockPeriodSpin");
    auto* once = child<QCheckBox>(*page, "syncParamTriggerOnceCheck");

    // Nothing selected: nothing to edit.
    QCOMPARE(page->model()->rowCount(), 0);
    QVERIFY(!line->isEnabled());
    QVERIFY(!child<QPushButton>(*page, "syncListDeleteButton")->isEnabled());

    // The lines this tracker has, and per line what it can do.
    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION);
    QVERIFY(offered(line).contains(NSL_SYNC_OUT));
    QVERIFY(!offered(line).contains(NSL_GNSS_1PPS));
    QVERIFY(offered(function).contains(NSF_NONE));
    QVERIFY(!offered(function).contains(NSF_INTERVAL_TRANSITION_MEASUREMENT));
    QCOMPARE(offsetLabel->text(), QStringLiteral("Offset "));
    QVERIFY(!pulseWidth->isEnabled());
    QVERIFY(once->isEnabled());
    QVERIFY(!clock->isEnabled());

    chooseData(function, NSF_CLOCK_BIAS_ESTIMATION);
    QVERIFY(clock->isEnabled());
    QVERIFY(!once->isEnabled());
    QCOMPARE(page->renderArea()->syncMode(), SyncRenderArea::ClockInput);

    // A function the new line lacks falls back to "None".
    chooseData(line, NSL_OUT1);
    QCOMPARE(int(page->currentSetting().function), int(NSF_NONE));
    QVERIFY(offered(function).contains(NSF_PULSE_WIDTH_MODULATION));
    QVERIFY(!offered(function).contains(NSF_TIME_PULSE)); // no receiver in this one
    chooseData(function, NSF_PULSE_WIDTH_MODULATION);
    QCOMPARE(offsetLabel->text(), QStringLiteral("Delay "));
    QVERIFY(pulseWidth->isEnabled());
    QVERIFY(!once->isEnabled());
    QCOMPARE(page->model()->data(page->model()->index(0)).toString(),
             QStringLiteral("Out 1: Pulse With Modulation (Out)"));
    QCOMPARE(page->renderArea()->syncMode(), SyncRenderArea::PulseOutput);
    QVERIFY(!page->renderArea()->isInput());

    auto gnssPage = loadedPage(gnss());
    addRow(*gnssPage, NSL_OUT1, NSF_TIME_PULSE);
    QVERIFY(offered(child<QComboBox>(*gnssPage, "syncParamLineCombo")).contains(NSL_GNSS_1PPS));
}

void TestSyncOptions::duplicateWarningFollowsTheSelection()
{
    auto page = loadedPage(ahrs());
    auto* warning = child<QLabel>(*page, "syncWarningLabel");
    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION);
    QVERIFY(warning->text().isEmpty());
    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION);
    QCOMPARE(warning->text(),
             QStringLiteral("<font color=#FF0000>Warning: These are duplicate settings!</font>"));
    addRow(*page, NSL_IN2, NSF_SEND_LATEST);
    QVERIFY(warning->text().isEmpty());
    page->listView()->setCurrentIndex(page->model()->index(0));
    QVERIFY(!warning->text().isEmpty());
    page->deleteEntry();
    QCOMPARE(page->model()->rowCount(), 2);
    QVERIFY(warning->text().isEmpty());
}

void TestSyncOptions::appliedSettingsAreWhatTheDeviceReports()
{
    QTemporaryDir folder;
    const QString journalFile = folder.filePath(QStringLiteral("journal.log"));
    Journaller journal(journalFile.toStdString(), true, JLL_TRACE);
    jlSetGlobalJournal(&journal);

    auto page = loadedPage(ahrs());
    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION, NSP_FALLING_EDGE);
    child<QSpinBox>(*page, "syncParamOffsetSpin")->setValue(-250);
    child<QSpinBox>(*page, "syncParamSkipFirstSpin")->setValue(3);
    child<QSpinBox>(*page, "syncParamSkipFactorSpin")->setValue(2);
    child<QCheckBox>(*page, "syncParamTriggerOnceCheck")->setChecked(true);
    addRow(*page, NSL_OUT1, NSF_INTERVAL_TRANSITION_MEASUREMENT);
    child<QSpinBox>(*page, "syncParamPulseWidthSpin")->setValue(2000);
    QVERIFY(page->haveChanges());
    const NvSyncSettingArray written = page->model()->syncSettings();

    ModalCloser closer;
    page->apply();
    QVERIFY2(closer.texts.isEmpty(), qPrintable(closer.texts.join(QLatin1Char('\n'))));
    jlSetGlobalJournal(nullptr);

    const NvSyncSettingArray reported = ahrs().syncSettings();
    QCOMPARE(reported.size(), size_t(2));
    QCOMPARE(reported[0], written[0]);
    QCOMPARE(reported[1], written[1]);
    QCOMPARE(int(reported[0].polarity), int(NSP_FALLING_EDGE));
    QCOMPARE(reported[0].offset, -250);
    QCOMPARE(reported[1].pulseWidth, 2000u);
    QVERIFY(page->model()->syncSettings() == reported);
    QVERIFY(!page->haveChanges());

    journal.flush();
    QFile file(journalFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    QCOMPARE(text.count(QStringLiteral("Usage: DeviceSettings/AppliedSyncOptions_In")), 1);
    QCOMPARE(text.count(QStringLiteral("Usage: DeviceSettings/AppliedSyncOptions_Out")), 1);
    QVERIFY(text.contains(QStringLiteral("[TRACE]")));

    // Deleting every row writes "no synchronisation".
    while (page->model()->rowCount() > 0) {
        page->listView()->setCurrentIndex(page->model()->index(0));
        child<QPushButton>(*page, "syncListDeleteButton")->click();
    }
    page->apply();
    QVERIFY(ahrs().syncSettings().empty());
}

void TestSyncOptions::refusedSettingsStayOnThePage()
{
    auto page = loadedPage(ahrs());
    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION);
    page->apply();
    QCOMPARE(ahrs().syncSettings().size(), size_t(1));

    // The device takes each line once.
    addRow(*page, NSL_IN1, NSF_SEND_LATEST);
    addRow(*page, NSL_OUT1, NSF_PULSE_WIDTH_MODULATION);
    const NvSyncSettingArray edited = page->model()->syncSettings();
    QCOMPARE(edited.size(), size_t(3));

    ModalCloser closer;
    page->apply();
    QCOMPARE(closer.texts,
             QStringList{QStringLiteral("Synchronization Options|Invalid settings.|")});
    QVERIFY(page->model()->syncSettings() == edited);
    QVERIFY(page->haveChanges());
    QCOMPARE(page->currentSetting(), edited[2]);
    const NvSyncSettingArray kept = ahrs().syncSettings();
    QCOMPARE(kept.size(), size_t(1));
    QCOMPARE(int(kept[0].function), int(NSF_TRIGGER_INDICATION));
}

void TestSyncOptions::deviceThatDoesNotAnswerIsNotReady()
{
    auto page = loadedPage(ahrs());
    addRow(*page, NSL_IN2, NSF_START_SAMPLING);
    NvControl_setReplyTimeout(m_control->libraryControl(), 300);
    m_sim->freeze(true);
    ModalCloser closer;
    page->apply();
    m_sim->freeze(false);
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000);
    // Late answers to the requests that timed out are drained before the device is trusted.
    ahrs().reinitialize();
    QVERIFY(ahrs().reinitialize());
    QCOMPARE(closer.texts,
             QStringList{QStringLiteral("Synchronization Options|Device is not ready.|")});
    QCOMPARE(page->model()->rowCount(), 1);
    QCOMPARE(int(page->currentSetting().function), int(NSF_START_SAMPLING));
}

void TestSyncOptions::gnssDeviceIsOfferedGpsClockSync()
{
    auto page = loadedPage(gnss());
    addRow(*page, NSL_IN1, NSF_TRIGGER_INDICATION);
    {
        ModalCloser closer(QMessageBox::No);
        page->apply();
        QCOMPARE(closer.texts.size(), 1);
        QCOMPARE(closer.texts[0],
                 QStringLiteral("Synchronization Options|GPS Clock synchronization is not "
                                "enabled correctly. This results in suboptimal device "
                                "performance, unless an equivalent or better external "
                                "reference clock is used.|Do you want to enable GPS Clock "
                                "synchronization with the correct settings (based on the "
                                "GNSS Clock In)?"));
    }
    // Declined: the list went out as it was.
    const NvSyncSettingArray reported = gnss().syncSettings();
    QCOMPARE(reported.size(), size_t(1));
    QCOMPARE(int(reported[0].function), int(NSF_TRIGGER_INDICATION));

    // Accepted: the page shows the repaired list in front of the user's row.
    {
        ModalCloser closer(QMessageBox::Yes);
        page->apply();
        QVERIFY(!closer.texts.isEmpty());
    }
    const NvSyncSettingArray shown = page->model()->syncSettings();
    QVERIFY(shown.size() >= 3);
    QCOMPARE(int(shown[0].function), int(NSF_TIME_PULSE));
    QCOMPARE(int(shown[0].line), int(NSL_GNSS_1PPS));
    QCOMPARE(int(shown[1].function), int(NSF_CLOCK_BIAS_ESTIMATION));
    QCOMPARE(int(shown[1].line), int(NSL_GNSS_CLOCK_IN));
    QVERIFY(SyncOptionsPage::isGpsClockSyncEnabledCorrectly(shown, m_gnssId, true));
}

QTEST_MAIN(TestSyncOptions)
#include "tst_syncoptions.moc"
