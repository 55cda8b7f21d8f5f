#include "filenamepattern.h"

#include <QFileInfo>
#include <QSettings>

void FileNamePatternReplacer::setReplacement(const QString& placeholder, const QVariant& value)
{
    m_replacements.insert(placeholder, value);
}

QVariant FileNamePatternReplacer::replacement(const QString& placeholder) const
{
    return m_replacements.value(placeholder);
}

bool FileNamePatternReplacer::hasPlaceholder(const QString& placeholder) const
{
    return m_replacements.contains(placeholder);
}

QString FileNamePatternReplacer::parse(const QString& pattern) const
{
    // One pass over the pattern: a device id or product code that contains something
    // placeholder-like must not be expanded a second time.
    QString out;
    out.reserve(pattern.size() + 32);
    qsizetype i = 0;
    while (i < pattern.size()) {
        qsizetype matched = 0;
        QString value;
        for (auto it = m_replacements.cbegin(); it != m_replacements.cend(); ++it) {
            const QString& key = it.key();
            if (key.size() > matched && !key.isEmpty() &&
                QStringView(pattern).mid(i).startsWith(key)) {
                matched = key.size();
                value = it.value().toString();
            }
        }
        if (matched > 0) {
            out += value;
            i += matched;
        } else {
            out += pattern.at(i);
            ++i;
        }
    }
    return out;
}

namespace LogFileName {

QString settingsKey()
{
    return QStringLiteral("logFileNameFormat");
}

QString defaultPattern()
{
    return QStringLiteral("KV_<deviceid>_<trial>.kvb");
}

QString suffix()
{
    return QStringLiteral("kvb");
}

QString datePlaceholder()
{
    return QStringLiteral("<date>");
}

QString deviceIdPlaceholder()
{
    return QStringLiteral("<deviceid>");
}

QString productCodePlaceholder()
{
    return QStringLiteral("<productcode>");
}

QString timePlaceholder()
{
    return QStringLiteral("<time>");
}

QString trialPlaceholder()
{
    return QStringLiteral("<trial>");
}

QString timeText(const QTime& time)
{
    return QStringLiteral("%1h%2")
        .arg(time.hour(), 2, 10, QLatin1Char('0'))
        .arg(time.minute(), 2, 10, QLatin1Char('0'));
}

QString trialText(int trial)
{
    return QStringLiteral("%1").arg(trial, 3, 10, QLatin1Char('0'));
}

QString storedPattern()
{
    return QSettings().value(settingsKey(), defaultPattern()).toString();
}

QString withSuffix(const QString& pattern)
{
    const QString effective = pattern.trimmed().isEmpty() ? defaultPattern() : pattern;
    if (QFileInfo(effective).suffix().compare(suffix(), Qt::CaseInsensitive) == 0)
        return effective;
    return effective + QLatin1Char('.') + suffix();
}

} // namespace LogFileName

namespace {

// A separator in a device's text would put the file into another folder.
QString fileNameSafe(QString text)
{
    text.replace(QLatin1Char('/'), QLatin1Char('_'));
    text.replace(QLatin1Char('\\'), QLatin1Char('_'));
    return text;
}

QString inDirectory(const QString& directory, const QString& name)
{
    if (directory.isEmpty())
        return name;
    if (directory.endsWith(QLatin1Char('/')))
        return directory + name;
    return directory + QLatin1Char('/') + name;
}

} // namespace

QString generateLogFileName(const QString& directory, const QString& pattern, const NvDeviceId& id,
                            const QString& productCode, const QDateTime& now)
{
    const QString full = LogFileName::withSuffix(pattern);
    FileNamePatternReplacer replacer;
    replacer.setReplacement(LogFileName::datePlaceholder(),
                            now.date().toString(QStringLiteral("yyyy-MM-dd")));
    replacer.setReplacement(LogFileName::deviceIdPlaceholder(),
                            fileNameSafe(QString::fromStdString(id.toString())));
    replacer.setReplacement(LogFileName::productCodePlaceholder(), fileNameSafe(productCode));
    replacer.setReplacement(LogFileName::timePlaceholder(), LogFileName::timeText(now.time()));

    QString kept;
    for (int trial = 0;; ++trial) {
        replacer.setReplacement(LogFileName::trialPlaceholder(), LogFileName::trialText(trial));
        const QString candidate = inDirectory(directory, replacer.parse(full));
        // Without "<trial>" the name never changes: that one it is, existing or not.
        if (candidate == kept)
            break;
        kept = candidate;
        if (!QFileInfo::exists(kept))
            break;
    }
    return kept;
}
