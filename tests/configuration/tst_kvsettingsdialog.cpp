// The device settings dialog against emulated devices: which pages and buttons each kind
// gets, what Apply writes and in which order, Save/Load Settings, and the read-only rules.

#include "devicepages.h"
#include "dialogmanagers.h"
#include "kvsettingsdialog.h"
#include "kvsimharness.h"
#include "modalcloser.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "ndametatypes.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <QTreeWidget>
#include <QtTest>

#include <memory>

using kvtest::idOfKind;

using kvtest::ModalCloser;

namespace {

QStringList pageNames(const KvSettingsDialog& dialog)
{
    QStringList names;
    for (const KvSettingsOptionsPage* page : dialog.pages())
        names << page->name();
    return names;
}

} // namespace

class TestKvSettingsDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void eachKindGetsItsPagesAndButtons();
    void applyWritesOnlyChangedPagesInOrder();
    void saveWithPendingChangesWritesThemFirst();
    void settingsFileMovesToAnotherDevice();
    void recordingMakesTheDialogReadOnly();
    void modelingAndDevicePagesReachTheDevice();
    void managerKeepsOneDialogPerDeviceAndClosesWithIt();
    void revertRestoresFactoryDefaults();

private:
    // Held until the control goes at the end of the test.
    NdaDevice& device(const NvDeviceId& id)
    {
        if (NdaDevice* existing = m_control->getExistingDevice(id))
            return *existing;
        return m_control->requestDevice(id);
    }

    std::unique_ptr<kvtest::KvsimProcess> m_sim;
    std::unique_ptr<NdaControl> m_control;
    NvDeviceId m_ahrs, m_ahrs2, m_gnss, m_master;
    QTemporaryDir m_files;
};

void TestKvSettingsDialog::initTestCase()
{
    qRegisterMetaType<NvDeviceId>();
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_files.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvSettingsTest"));
    m_sim = std::make_unique<kvtest::KvsimProcess>(
        std::vector<std::string>{"--device", "ahrs", "--device", "ahrs", "--device", "gnss:measure",
                                 "--device", "master:2,docked=1", "--quiet"});
    QVERIFY(m_sim->started());
    m_ahrs = NvDeviceId::fromString(m_sim->ports()[0].id);
    m_ahrs2 = NvDeviceId::fromString(m_sim->ports()[1].id);
    m_gnss = idOfKind(*m_sim, "gnss");
    m_master = idOfKind(*m_sim, "master");
    QVERIFY(m_ahrs != m_ahrs2 && !m_gnss.isEmpty() && !m_master.isEmpty());
}

void TestKvSettingsDialog::init()
{
    m_control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(m_control->libraryControl(), 5000);
    for (const auto& port : m_sim->ports())
        QVERIFY(m_control->openPort(port.path, NBR_115200, 0));
}

void TestKvSettingsDialog::cleanup()
{
    m_control.reset();
}

void TestKvSettingsDialog::cleanupTestCase()
{
    m_sim.reset();
}

void TestKvSettingsDialog::eachKindGetsItsPagesAndButtons()
{
    ModalCloser closer;
    {
        KvSettingsDialog tracker(*m_control, m_ahrs);
        QCOMPARE(tracker.windowTitle(), QStringLiteral("Device Settings for KV %1")
                                            .arg(QString::fromStdString(m_ahrs.toString())));
        QCOMPARE(pageNames(tracker), (QStringList{tracker.pages()[0]->name(), "DeviceSettings",
                                                  tracker.pages()[2]->name(), "ModelingParams"}));
        QVERIFY(tracker.identificationPage());
        QCOMPARE(tracker.identificationPage()->deviceIdText(),
                 QString::fromStdString(m_ahrs.toString()));
        for (QPushButton* b : {tracker.saveButton(), tracker.loadButton(), tracker.revertButton()})
            QVERIFY(!b->isHidden());
        QVERIFY(!tracker.applyButton()->isEnabled()); // nothing changed yet
        // The tree shows a page and selecting an entry shows its page.
        QTreeWidgetItem* current = tracker.treeWidget()->currentItem();
        QVERIFY(current && current->parent());
        QCOMPARE(tracker.stackedWidget()->currentWidget()->objectName().isEmpty() ||
                     tracker.stackedWidget()->currentWidget() != nullptr,
                 true);
    }
    {
        KvSettingsDialog station(*m_control, m_master);
        QVERIFY(station.windowTitle().contains(QStringLiteral("for Aerlo Station ")));
        QCOMPARE(station.pages().size(), 1); // synchronisation only
        QVERIFY(!station.identificationPage());
        QVERIFY(station.revertButton()->isHidden());
        QVERIFY(station.saveButton()->isHidden());
        QVERIFY(station.loadButton()->isHidden());
    }
    const NvDeviceIdArray trackers = m_control->childDeviceIds(m_master);
    QVERIFY(!trackers.empty());
    {
        KvSettingsDialog wireless(*m_control, trackers.front());
        QVERIFY(!pageNames(wireless).contains(QStringLiteral("SyncOptions")));
        QCOMPARE(wireless.pages().size(), 3);
        QVERIFY(wireless.saveButton()->isHidden());
        QVERIFY(wireless.loadButton()->isHidden());
        QVERIFY(!wireless.revertButton()->isHidden());
    }
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('\n'))));
}

void TestKvSettingsDialog::applyWritesOnlyChangedPagesInOrder()
{
    ModalCloser closer;
    m_control->setOptionEnabled(NVO_REPORT_MESSAGES, true);
    QVERIFY(device(m_gnss).gotoMeasurement());
    KvSettingsDialog dialog(*m_control, m_gnss);
    QVERIFY(!dialog.isReadOnly());
    QVERIFY(m_control->isMeasuring(m_gnss)); // opening paused it only for a while
    auto* location = dialog.identificationPage()->findChild<QSpinBox*>(
        QStringLiteral("identificationLocationIdSpinBox"));
    QVERIFY(location);
    location->setValue(4321);
    auto* modeling = qobject_cast<ModelingParamsKvsPage*>(dialog.page("ModelingParams"));
    QVERIFY(modeling);
    auto* arm = modeling->findChild<QDoubleSpinBox*>(QStringLiteral("gnssModelLeverArmXSpinBox"));
    QVERIFY(arm);
    arm->setValue(1.25);
    QVERIFY(dialog.applyButton()->isEnabled());

    std::vector<int> sent; // message ids with data, in order
    connect(&device(m_gnss), &NdaCallback::messageSentToDevice, &dialog,
            [&sent](const NvDeviceId&, const NvMessage& m) {
                if (m.dataSize() > 0 || m.messageId() == NvMid::GoToConfig)
                    sent.push_back(m.messageId());
            });
    dialog.applyButton()->click();
    QTRY_VERIFY(!sent.empty());
    QTest::qWait(200);
    QCOMPARE(dialog.applyButton()->text(), QStringLiteral("&Apply"));
    QVERIFY(!dialog.applyButton()->isEnabled());
    const auto at = [&sent](int mid) {
        return std::find(sent.begin(), sent.end(), mid) - sent.begin();
    };
    // Identification first (created first), then the model; nothing else was written.
    QVERIFY(at(NvMid::SetLocationId) < static_cast<long>(sent.size()));
    QVERIFY(at(NvMid::SetGnssLeverArm) < static_cast<long>(sent.size()));
    QVERIFY(at(NvMid::SetLocationId) < at(NvMid::SetGnssLeverArm));
    QCOMPARE(at(NvMid::SetOutputConfiguration), static_cast<long>(sent.size()));
    QCOMPARE(at(NvMid::SetSyncSettings), static_cast<long>(sent.size()));
    QCOMPARE(device(m_gnss).locationId(), 4321);
    // Re-read after writing: the page shows what the device holds.
    QCOMPARE(arm->value(), 1.25);
    QTRY_VERIFY(m_control->isMeasuring(m_gnss));
    m_control->setOptionEnabled(NVO_REPORT_MESSAGES, false);
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('\n'))));
}

void TestKvSettingsDialog::saveWithPendingChangesWritesThemFirst()
{
    ModalCloser closer;
    KvSettingsDialog dialog(*m_control, m_ahrs);
    auto* location = dialog.identificationPage()->findChild<QSpinBox*>(
        QStringLiteral("identificationLocationIdSpinBox"));
    location->setValue(777);
    QVERIFY(dialog.hasUnwrittenChanges());
    const QString file = m_files.filePath(QStringLiteral("pending.nva"));
    QSignalSpy saved(&dialog, &KvSettingsDialog::configurationSaved);
    dialog.setNvaFilename(file);
    dialog.handleSaveToNvaTriggered();
    QCOMPARE(device(m_ahrs).locationId(), 777);
    QFile nva(file);
    QVERIFY(nva.open(QIODevice::ReadOnly));
    QVERIFY(nva.readAll().contains("locationid=777"));
    QCOMPARE(saved.count(), 1);
    QVERIFY(!dialog.hasUnwrittenChanges());

    // Nothing pending: the file is written at once, the device untouched.
    dialog.handleSaveToNvaTriggered();
    QCOMPARE(saved.count(), 2);
    // A folder that does not exist: the user is told, the dialog stays.
    dialog.setNvaFilename(m_files.filePath(QStringLiteral("no/such/folder/x.nva")));
    dialog.handleSaveToNvaTriggered();
    QTRY_VERIFY(
        closer.titled.contains(QStringLiteral("Warning|Configuration not correctly saved.")));
}

void TestKvSettingsDialog::settingsFileMovesToAnotherDevice()
{
    ModalCloser closer;
    const QString file = m_files.filePath(QStringLiteral("moved.nva"));
    {
        NdaDeviceMeasurementPauser pauser(device(m_ahrs));
        QVERIFY(device(m_ahrs).setLocationId(31));
        QCOMPARE(device(m_ahrs).createConfigFile(file.toStdString()), 0);
    }
    KvSettingsDialog other(*m_control, m_ahrs2);
    QSignalSpy changed(&other, &KvSettingsDialog::deviceChanged);
    other.loadFromNva(file);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(device(m_ahrs2).locationId(), 31);
    QCOMPARE(other.identificationPage()->locationId(), 31);

    // A file that is no configuration: said so, nothing lost.
    const QString junk = m_files.filePath(QStringLiteral("junk.nva"));
    QFile f(junk);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write("\x01\x02 not a configuration\n");
    f.close();
    other.loadFromNva(junk);
    QTRY_VERIFY(
        closer.titled.contains(QStringLiteral("Warning|Configuration not correctly applied.")));
    QCOMPARE(device(m_ahrs2).locationId(), 31);
}

void TestKvSettingsDialog::recordingMakesTheDialogReadOnly()
{
    ModalCloser closer;
    NdaDevice& gnss = device(m_gnss);
    QVERIFY(gnss.gotoMeasurement());
    KvSettingsDialog dialog(*m_control, m_gnss);
    QVERIFY(!dialog.isReadOnly());
    QSignalSpy readOnly(&dialog, &KvSettingsDialog::readOnlyChanged);
    const QString file = m_files.filePath(QStringLiteral("rec.kvb"));
    QVERIFY(gnss.createLogFile(file.toStdString()));
    QVERIFY(gnss.startRecording());
    QTRY_VERIFY_WITH_TIMEOUT(dialog.isReadOnly(), 5000);
    QVERIFY(!dialog.applyButton()->isEnabled());
    QVERIFY(!dialog.saveButton()->isEnabled());
    QVERIFY(!dialog.loadButton()->isEnabled());
    QVERIFY(!dialog.revertButton()->isEnabled());
    auto* location = dialog.identificationPage()->findChild<QSpinBox*>(
        QStringLiteral("identificationLocationIdSpinBox"));
    QVERIFY(!location->isEnabled());

    QVERIFY(gnss.stopRecording());
    QTRY_VERIFY_WITH_TIMEOUT(!dialog.isReadOnly(), 5000);
    QVERIFY(dialog.saveButton()->isEnabled());
    QVERIFY(location->isEnabled());
    QVERIFY(readOnly.count() >= 2);
    gnss.closeLogFile();
}

void TestKvSettingsDialog::modelingAndDevicePagesReachTheDevice()
{
    ModalCloser closer;
    KvSettingsDialog dialog(*m_control, m_gnss);
    auto* settings = qobject_cast<DeviceSettingsKvsPage*>(dialog.page("DeviceSettings"));
    QVERIFY(settings);
    QVERIFY(settings->hasOptionFlags());
    // A heading reset is acknowledged at once, with no Apply.
    QVERIFY(settings->resetOrientation(1));
    QVERIFY(!dialog.applyButton()->isEnabled());

    // An imu has no modeling parameters and cannot reset its heading.
    KvSettingsDialog imuLike(*m_control, m_ahrs);
    auto* modeling = imuLike.page("ModelingParams");
    QVERIFY(modeling->findChild<QWidget*>(QStringLiteral("gnssModel"))->isHidden());
    QVERIFY(!modeling->findChild<QWidget*>(QStringLiteral("noModelLabel"))->isHidden());
    QVERIFY2(closer.titled.isEmpty(), qPrintable(closer.titled.join(QLatin1Char('\n'))));
}

void TestKvSettingsDialog::managerKeepsOneDialogPerDeviceAndClosesWithIt()
{
    ModalCloser closer;
    KvSettingsDialogManager manager(*m_control);
    QPointer<KvSettingsDialog> first = manager.createDialog(m_ahrs);
    QVERIFY(first);
    QCOMPARE(manager.createDialog(m_ahrs), first.data());
    QCOMPARE(manager.dialogCount(), size_t(1));
    QVERIFY(!manager.createDialog(NvDeviceId()));
    QSignalSpy changed(&manager, &KvSettingsDialogManager::deviceChanged);
    emit first->deviceChanged(m_ahrs);
    QCOMPARE(changed.count(), 1);

    // The device goes away: its dialog closes and is forgotten.
    QVERIFY(m_control->closePort(m_ahrs));
    QTRY_VERIFY(first.isNull());
    QCOMPARE(manager.dialogCount(), size_t(0));
}

void TestKvSettingsDialog::revertRestoresFactoryDefaults()
{
    ModalCloser closer;
    NdaDevice& ahrs = device(m_ahrs2);
    {
        NdaDeviceMeasurementPauser pauser(ahrs);
        QVERIFY(ahrs.setLocationId(55));
    }
    KvSettingsDialog dialog(*m_control, m_ahrs2);
    QCOMPARE(dialog.identificationPage()->locationId(), 55);
    QSignalSpy changed(&dialog, &KvSettingsDialog::deviceChanged);
    dialog.revertButton()->click();
    QCOMPARE(closer.titled.value(0),
             QStringLiteral("Revert Settings|Settings successfully restored"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(ahrs.locationId(), 0);
    QCOMPARE(dialog.revertButton()->text(), QStringLiteral("Revert"));
    QVERIFY(dialog.revertButton()->isEnabled());
    QVERIFY(!dialog.applyButton()->isEnabled());
    // A following Save Settings runs a write pass first.
    QVERIFY(dialog.hasUnwrittenChanges());
}

QTEST_MAIN(TestKvSettingsDialog)
#include "tst_kvsettingsdialog.moc"
