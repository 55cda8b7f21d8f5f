#pragma once
// Log file names from the user's pattern ("KV_<deviceid>_<trial>.kvb"): the placeholder
// replacer and the search for the first free trial number.

#include "ndametatypes.h"

#include <QDateTime>
#include <QMap>
#include <QString>
#include <QVariant>

class FileNamePatternReplacer
{
public:
    void setReplacement(const QString& placeholder, const QVariant& value);
    QVariant replacement(const QString& placeholder) const;
    bool hasPlaceholder(const QString& placeholder) const;
    // The pattern with every known placeholder replaced by its value's text; unknown
    // placeholders stay as they are. Replacements are not searched again, so a value that
    // happens to look like a placeholder is taken literally.
    QString parse(const QString& pattern) const;

private:
    QMap<QString, QVariant> m_replacements;
};

namespace LogFileName {

// The settings key of the pattern and the pattern used when none is stored.
QString settingsKey();    // "logFileNameFormat"
QString defaultPattern(); // "KV_<deviceid>_<trial>.kvb"
QString suffix();         // "kvb"

QString datePlaceholder();        // "<date>"
QString deviceIdPlaceholder();    // "<deviceid>"
QString productCodePlaceholder(); // "<productcode>"
QString timePlaceholder();        // "<time>"
QString trialPlaceholder();       // "<trial>"

// "09h05" for 9:05.
QString timeText(const QTime& time);
// "000", "001", ..., "999", "1000", ...
QString trialText(int trial);
// The pattern as stored (default when none or only blanks), ".kvb" appended unless it
// already ends so (in any case).
QString storedPattern();
QString withSuffix(const QString& pattern);

} // namespace LogFileName

// The full path of the next log file for device `id` in `directory`: `pattern` with its
// placeholders replaced, "<trial>" counting up from "000" to the first name that does not
// exist yet. A pattern without "<trial>" gives its one name even when that file exists (the
// recording replaces it). An empty pattern stands for the default one.
QString generateLogFileName(const QString& directory, const QString& pattern, const NvDeviceId& id,
                            const QString& productCode, const QDateTime& now);
