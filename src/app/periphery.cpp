#include "periphery.h"

#include "journaller.h"

#include <QSettings>

QString Branding::organizationName()
{
    return QStringLiteral("Nivra");
}

QString Branding::organizationDomain()
{
    return QStringLiteral("nivra.local");
}

QString Branding::applicationName()
{
    return QStringLiteral("Kv Manager");
}

QString Branding::windowIconPath()
{
    return QStringLiteral(":/kvmanager/Resources/misc/kvmanager.ico");
}

void UsageStatistics::start()
{
    jlLog(JLL_TRACE, "Usage statistics: session started (kept local)");
}

void UsageStatistics::logEvent(const QString& category, const QString& action, const QString& label)
{
    Journaller* journal = jlGlobalJournal();
    if (!journal || journal->logLevel() > JLL_TRACE)
        return;
    QString line = QStringLiteral("Usage: %1/%2").arg(category, action);
    if (!label.isEmpty())
        line += QStringLiteral(" [%1]").arg(label);
    journal->log(JLL_TRACE, line.toStdString());
}

void UsageStatistics::logPreferences()
{
    Journaller* journal = jlGlobalJournal();
    if (!journal || journal->logLevel() > JLL_TRACE)
        return;
    QSettings settings;
    const QStringList keys = settings.allKeys();
    for (const QString& key : keys)
        logEvent(QStringLiteral("preference"), key);
}

void UsageStatistics::stop(int)
{
    // Nothing is sent anywhere, so there is nothing to wait for.
    jlLog(JLL_TRACE, "Usage statistics: session ended");
}

void UsageStatistics::cleanup() {}

void runUpdateCheck(const UpdateServerOptions& options, AutoUpdatable*)
{
    if (options.hostName.isEmpty()) {
        jlLog(JLL_TRACE, "Update check skipped: no update server configured");
        return;
    }
    jlLog(JLL_DEBUG, QStringLiteral("Update check: server %1:%2 configured, but this build "
                                    "does not contact update servers")
                         .arg(options.hostName)
                         .arg(options.port)
                         .toStdString());
}
