#pragma once

#include <QIcon>
#include <QString>

// Branding, usage statistics and the update check. All of them are local and private:
// nothing here opens a network connection.

struct UpdateServerOptions
{
    QString hostName; // empty: no update server, the update check does nothing
    int port = 443;
};

// Implemented by the main window so that an update check can offer what it found.
class AutoUpdatable
{
public:
    virtual ~AutoUpdatable() = default;
    virtual void handleUpdateAvailable(const QString& version, const QString& downloadLink) = 0;
};

namespace Branding {
QString organizationName();
QString organizationDomain();
QString applicationName();
QString windowIconPath();
} // namespace Branding

// Usage events go to the journal at trace level and nowhere else.
namespace UsageStatistics {
void start();
void logEvent(const QString& category, const QString& action, const QString& label = QString());
void logPreferences();
void stop(int timeoutMs);
void cleanup();
} // namespace UsageStatistics

// Checks for a newer version on the configured server; without one it only notes that
// it was skipped. Never blocks.
void runUpdateCheck(const UpdateServerOptions& options, AutoUpdatable* client);
