#include "pluginmanager.h"
#include "settingssynchronizer.h"

#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

class TestPluginManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QCoreApplication::setOrganizationName(QStringLiteral("NivraTest"));
        QCoreApplication::setApplicationName(QStringLiteral("tst_pluginmanager"));
        QSettings().clear();
    }

    void loadsPluginsAndSkipsBrokenOnes()
    {
        QTemporaryDir folder;
        QVERIFY(QFile::copy(QStringLiteral(TEST_PLUGIN_FILE),
                            folder.filePath(QStringLiteral("libgood.so"))));
        // Looks like a library by name but is not one: reported, not fatal.
        QFile broken(folder.filePath(QStringLiteral("libbroken.so")));
        QVERIFY(broken.open(QIODevice::WriteOnly));
        broken.write("this is not an ELF file");
        broken.close();
        QFile notes(folder.filePath(QStringLiteral("README.txt")));
        QVERIFY(notes.open(QIODevice::WriteOnly));
        notes.close();

        PluginManager manager;
        QSignalSpy failed(&manager, &PluginManager::pluginLoadFailed);
        QCOMPARE(manager.loadPlugins(folder.path()), 1);
        QCOMPARE(manager.loadErrors().size(), 1);
        QVERIFY(manager.loadErrors().first().fileName.endsWith(QStringLiteral("libbroken.so")));
        QVERIFY(!manager.loadErrors().first().text.isEmpty());
        QCOMPARE(failed.size(), 1);

        const QList<SettingsSynchronizer*> synchronizers =
            manager.pluginsOf<SettingsSynchronizer>();
        QCOMPARE(synchronizers.size(), 1);
        synchronizers.first()->loadSettings();
        synchronizers.first()->saveSettings();
        synchronizers.first()->saveSettings();
        QCOMPARE(QSettings().value(QStringLiteral("loads")).toInt(), 1);
        QCOMPARE(QSettings().value(QStringLiteral("saves")).toInt(), 2);

        manager.unloadPlugins();
        QVERIFY(manager.pluginsOf<SettingsSynchronizer>().isEmpty());
    }

    void missingFolderLoadsNothing()
    {
        PluginManager manager;
        QCOMPARE(manager.loadPlugins(QStringLiteral("/nonexistent/plugins")), 0);
        QVERIFY(manager.loadErrors().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestPluginManager)
#include "tst_pluginmanager.moc"
