#include "textexporter.h"

#include <charconv>
#include <cmath>

namespace {

// Rows gather in memory and go to the file in blocks of about this size.
constexpr size_t FlushBytes = 256 * 1024;

} // namespace

TextExporter::TextExporter(AbstractExportSource& source, const QString& fileName, char separator)
    : m_source(source), m_file(fileName), m_separator(separator)
{
}

TextExporter::~TextExporter()
{
    if (m_file.isOpen())
        m_file.cancelWriting();
}

bool TextExporter::open(const QMap<QString, QString>& metaData)
{
    if (!m_file.open(QIODevice::WriteOnly)) {
        m_error = m_file.errorString();
        return false;
    }
    m_items = m_source.exportedItems();
    QString header;
    for (auto it = metaData.begin(); it != metaData.end(); ++it)
        header += QStringLiteral("// %1: %2\n").arg(it.key(), it.value());
    QStringList columns;
    if (m_source.exportsSampleTime())
        columns << QStringLiteral("Time (s)");
    if (m_source.exportsHostTime())
        columns << QStringLiteral("HostTime (UTC ns)");
    for (const ExportItem& item : m_items) {
        for (int i = 0; i < item.valueNames.size(); ++i) {
            const QString unit = item.units.value(i);
            columns << (unit.isEmpty() ? item.valueNames[i]
                                       : QStringLiteral("%1 (%2)").arg(item.valueNames[i], unit));
        }
    }
    header += columns.join(QLatin1Char(m_separator)) + QLatin1Char('\n');
    m_buffer = header.toStdString();
    return flush();
}

void TextExporter::appendNumber(double value)
{
    if (std::isnan(value))
        return; // an empty cell says "unknown" better than "nan"
    // Shortest round-trip either way; plain decimals where they stay short ("0.0005", not
    // "5e-04"), since people read these files too.
    char text[400];
    const double magnitude = std::abs(value);
    const bool plain = magnitude == 0 || (magnitude >= 1e-5 && magnitude < 1e15);
    const auto result =
        plain ? std::to_chars(text, text + sizeof text, value, std::chars_format::fixed)
              : std::to_chars(text, text + sizeof text, value);
    m_buffer.append(text, result.ptr);
}

bool TextExporter::writeFrame()
{
    bool first = true;
    const auto separate = [&] {
        if (!first)
            m_buffer += m_separator;
        first = false;
    };
    if (m_source.exportsSampleTime()) {
        separate();
        appendNumber(m_source.sampleTime());
    }
    if (m_source.exportsHostTime()) {
        separate();
        if (const quint64 ns = m_source.hostTimeNs()) {
            char text[24];
            const auto result = std::to_chars(text, text + sizeof text, ns);
            m_buffer.append(text, result.ptr);
        }
    }
    for (const ExportItem& item : m_items) {
        double values[AbstractExportSource::MaxItemValues];
        const int count =
            m_source.itemValues(item.quantity, values, AbstractExportSource::MaxItemValues);
        for (int i = 0; i < item.valueNames.size(); ++i) {
            separate();
            if (i < count)
                appendNumber(values[i]);
        }
    }
    m_buffer += '\n';
    return m_buffer.size() < FlushBytes || flush();
}

bool TextExporter::flush()
{
    if (m_buffer.empty())
        return true;
    const qint64 written = m_file.write(m_buffer.data(), qint64(m_buffer.size()));
    if (written != qint64(m_buffer.size())) {
        m_error = m_file.errorString();
        return false;
    }
    m_buffer.clear();
    return true;
}

bool TextExporter::finalize()
{
    if (!flush())
        return false;
    if (!m_file.commit()) {
        m_error = m_file.errorString();
        return false;
    }
    return true;
}

AbstractExporter* TextExporterFactory::createExporter(AbstractExportSource& source,
                                                      const QString& fileName,
                                                      const QVariantMap& options) const
{
    const QString separator = options.value(ExportOption::Separator).toString();
    return new TextExporter(source, fileName, separator == QLatin1String("tab") ? '\t' : ',');
}
