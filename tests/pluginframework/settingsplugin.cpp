#include "settingssynchronizer.h"

#include <QObject>
#include <QSettings>

// Counts its loads and saves in the settings store so that the test can see them.
class SettingsPlugin : public QObject, public SettingsSynchronizer
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID SettingsSynchronizer_iid)
    Q_INTERFACES(SettingsSynchronizer)

public:
    void loadSettings() override { bump(QStringLiteral("loads")); }
    void saveSettings() override { bump(QStringLiteral("saves")); }

private:
    static void bump(const QString& key)
    {
        QSettings settings;
        settings.setValue(key, settings.value(key, 0).toInt() + 1);
    }
};

#include "settingsplugin.moc"
