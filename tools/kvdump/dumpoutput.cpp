#include "dumpoutput.h"

#include "ndalogfile.h"

#include <QDateTime>
#include <QLocale>

#include <algorithm>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

namespace {

const char* const HeaderName = "FileHeader";
const char* const TimeMarkName = "TimeMark";
const char* const EndName = "FileEnd";

uint64_t bigEndian(const uint8_t* p, size_t n)
{
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i)
        v = v << 8 | p[i];
    return v;
}

QString hex(const uint8_t* bytes, size_t size)
{
    return HexByteString(bytes, size).toString();
}

// Whole frame shape at `p`: its size, or 0 when the bytes do not hold one.
size_t frameShape(const uint8_t* p, size_t n)
{
    if (n < 5 || p[0] != 0xFA)
        return 0;
    size_t header = 4;
    size_t length = p[3];
    if (length == 0xFF) {
        if (n < 7)
            return 0;
        header = 6;
        length = size_t(p[4]) << 8 | p[5];
        if (length > 2048)
            return 0;
    }
    const size_t total = header + length + 1;
    return total <= n ? total : 0;
}

size_t headerSize(const uint8_t* frame)
{
    return frame[3] == 0xFF ? 6 : 4;
}

bool checksumOk(const uint8_t* frame, size_t size)
{
    uint8_t sum = 0;
    for (size_t i = 1; i < size; ++i)
        sum = uint8_t(sum + frame[i]);
    return sum == 0;
}

QString jsonString(const QString& text)
{
    QString out = QStringLiteral("\"");
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '"':
            out += QStringLiteral("\\\"");
            break;
        case '\\':
            out += QStringLiteral("\\\\");
            break;
        case '\n':
            out += QStringLiteral("\\n");
            break;
        case '\r':
            out += QStringLiteral("\\r");
            break;
        case '\t':
            out += QStringLiteral("\\t");
            break;
        default:
            if (c.unicode() < 0x20)
                out += QStringLiteral("\\u%1").arg(int(c.unicode()), 4, 16, QLatin1Char('0'));
            else
                out += c;
        }
    }
    return out + QLatin1Char('"');
}

QString jsonValue(const QVariant& value, const QString& text)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
        return value.toString();
    case QMetaType::Double:
    case QMetaType::Float: {
        // The shown text has the field's own precision (a float32 without float64 noise).
        bool shown = false;
        text.toDouble(&shown);
        if (shown)
            return text;
        const double d = value.toDouble();
        if (!std::isfinite(d))
            return QStringLiteral("null");
        return QString::number(d, 'g', QLocale::FloatingPointShortest);
    }
    default:
        return jsonString(value.isValid() ? value.toString() : text);
    }
}

// Text values with blanks, quotes or equals signs are quoted so a line splits cleanly.
QString textValue(const QString& text)
{
    if (!text.isEmpty() && !text.contains(QLatin1Char(' ')) && !text.contains(QLatin1Char('"')) &&
        !text.contains(QLatin1Char('=')))
        return text;
    QString quoted = text;
    quoted.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    quoted.replace(QLatin1Char('"'), QStringLiteral("\\\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

void writeLine(const QString& line)
{
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fputc('\n', stdout);
}

// "Rate Of Turn" -> "RateOfTurn": keys stay one word in a text line.
QString compact(QString text)
{
    text.remove(QLatin1Char(' '));
    return text;
}

} // namespace

void FrameDumper::appendFields(const NvDecodedMessage& decoded, std::vector<Field>& fields)
{
    // A data item's fields carry its name as their group; its identifier and size come
    // before them and take the item's name from the identifier's text.
    std::vector<QString> keys;
    QString item;
    for (const NvDecodedField& d : decoded.fields) {
        QString key = d.variable.isEmpty() ? compact(d.label) : d.variable;
        if (d.typeName == QLatin1String("NDI"))
            item = compact(d.valueText.section(QStringLiteral(" ("), 0, 0));
        if (!d.group.isEmpty())
            key = compact(d.group) + QLatin1Char('.') + key;
        else if (!item.isEmpty())
            key = item + QLatin1Char('.') + key;
        keys.push_back(key);
    }
    // Repeated names (the records of a set) are numbered so that every key is unique.
    std::map<QString, int> seen;
    for (const QString& key : keys)
        ++seen[key];
    std::map<QString, int> index;
    for (size_t i = 0; i < keys.size(); ++i) {
        QString key = keys[i];
        if (seen[key] > 1)
            key += QStringLiteral("[%1]").arg(index[key]++);
        fields.push_back({key, decoded.fields[i].valueText, decoded.fields[i].value});
    }
}

FrameDumper::FrameDumper(const NvMessagesStructure& database, DumpOptions options)
    : m_database(database), m_options(std::move(options))
{
}

QString FrameDumper::formatTime(uint64_t ns)
{
    if (ns == 0)
        return QStringLiteral("-");
    const QDateTime t = QDateTime::fromMSecsSinceEpoch(qint64(ns / 1000000), Qt::UTC);
    return t.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.")) +
           QStringLiteral("%1Z").arg(qulonglong(ns % 1000000000 / 1000), 6, 10, QLatin1Char('0'));
}

QSet<QString> FrameDumper::knownNames(const NvMessagesStructure& database)
{
    QSet<QString> names{QString::fromLatin1(HeaderName).toLower(),
                        QString::fromLatin1(TimeMarkName).toLower(),
                        QString::fromLatin1(EndName).toLower(), QStringLiteral("unknown")};
    if (const auto* table = database.table(NvMessagesStructure::m_MIDTypeString))
        for (const auto& entry : *table) {
            const auto& description = entry.second.description();
            names.insert(description.messageName().toLower());
            if (description.count() == 3) {
                names.insert((description.name(0) + description.name(2)).toLower());
                names.insert((description.name(1) + description.name(2)).toLower());
            }
        }
    return names;
}

bool FrameDumper::keep(const QString& name) const
{
    return m_options.filters.isEmpty() || m_options.filters.contains(name.toLower());
}

void FrameDumper::decodeFileFrame(uint8_t mid, const uint8_t* data, size_t size, QString& name,
                                  std::vector<Field>& fields, QString& error) const
{
    auto add = [&](const char* n, const QString& text, const QVariant& value = {}) {
        fields.push_back({QString::fromLatin1(n), text, value});
    };
    switch (mid) {
    case nda::LogMid::Header:
        name = QString::fromLatin1(HeaderName);
        if (size < 24 || std::memcmp(data, "KVB", 3) != 0) {
            error = QStringLiteral("file header of %1 bytes, without its 24-byte start").arg(size);
            return;
        }
        add("version", QString::number(data[3]), int(data[3]));
        add("part", QString::number(bigEndian(data + 6, 2)), int(bigEndian(data + 6, 2)));
        add("created", formatTime(bigEndian(data + 8, 8)));
        add("recording", hex(data + 16, 8).remove(QLatin1Char(' ')));
        add("writer",
            QString::fromLatin1(reinterpret_cast<const char*>(data + 24), int(size - 24)));
        return;
    case nda::LogMid::TimeMark:
        name = QString::fromLatin1(TimeMarkName);
        if (size != 8) {
            error = QStringLiteral("time mark of %1 bytes, not 8").arg(size);
            return;
        }
        add("time", formatTime(bigEndian(data, 8)));
        return;
    case nda::LogMid::End:
        name = QString::fromLatin1(EndName);
        if (size < 3) {
            error = QStringLiteral("end frame of %1 bytes, not 3").arg(size);
            return;
        }
        add("continues", (data[0] & 1) ? QStringLiteral("true") : QStringLiteral("false"),
            bool(data[0] & 1));
        add("next", QString::number(bigEndian(data + 1, 2)), int(bigEndian(data + 1, 2)));
        return;
    default:
        name = QStringLiteral("Unknown");
        error = QStringLiteral("unknown file frame 0x%1").arg(mid, 2, 16, QLatin1Char('0'));
    }
}

bool FrameDumper::frame(const DumpFrame& f)
{
    if (done())
        return false;
    const uint8_t* p = f.frame;
    const size_t header = headerSize(p);
    const uint8_t bus = p[1];
    const uint8_t mid = p[2];
    const uint8_t* data = p + header;
    const size_t length = f.size - header - 1;
    ++m_frames;

    QString name;
    QString error;
    std::vector<Field> fields;
    const bool sumOk = checksumOk(p, f.size);
    const bool fileFrame = m_kvb && bus == nda::LogFileBusId;
    if (fileFrame) {
        decodeFileFrame(mid, data, length, name, fields, error);
    } else {
        const NvDecodedMessage decoded = m_database.decode(mid, HexByteString(data, length));
        name = decoded.name;
        const NvMessageStructure* entry = nullptr;
        m_database.getMIDStructure(HexByteString(mid), entry);
        bool emptyAllowed = false;
        if (entry) {
            // "[Req/Set]Name": without data it is the request, with data the setting.
            const auto& description = entry->description();
            if (description.count() == 3)
                name = description.name(length == 0 ? 0 : 1) + description.name(2);
            // A set repeats its record until the data ends: none at all is a valid list.
            emptyAllowed =
                length == 0 &&
                (description.count() == 3 ||
                 std::dynamic_pointer_cast<NvMessageDataFormat::Set>(entry->dataFormat()));
        }
        if (!decoded.known) {
            error = QStringLiteral("unknown message 0x%1").arg(mid, 2, 16, QLatin1Char('0'));
        } else if (emptyAllowed) {
            // nothing to show
        } else if (decoded.hasProblems) {
            error = QStringLiteral("does not decode: %1").arg(decoded.text);
        } else if (decoded.fields.empty() && length > 0) {
            // A message without a data format: its bytes are all there is to show.
            fields.push_back({QStringLiteral("data"), decoded.text, {}});
        }
        if (!emptyAllowed)
            appendFields(decoded, fields);
        // Bytes past what the definition describes mean the two disagree.
        size_t described = 0;
        for (const NvDecodedField& d : decoded.fields)
            described = std::max(described, d.offset + d.bytes.byteCount());
        if (error.isEmpty() && !decoded.fields.empty() && described < length)
            error = QStringLiteral("%1 bytes after the described data").arg(length - described);
    }
    if (!sumOk)
        error = error.isEmpty() ? QStringLiteral("checksum error")
                                : QStringLiteral("checksum error; ") + error;
    if (!keep(name))
        return true;
    if (!error.isEmpty())
        ++m_errors;
    print(f.timeNs, fileFrame ? '-' : f.dir, bus, mid, name, length, fields, error, p, f.size);
    return !done();
}

bool FrameDumper::sentence(const std::string& text, bool checksumOk)
{
    if (done())
        return false;
    ++m_frames;
    QString name = QStringLiteral("NMEA");
    const size_t comma = text.find(',');
    if (text.size() > 1 && comma != std::string::npos)
        name = QString::fromLatin1(text.data() + 1, int(comma - 1));
    if (!keep(name) && !keep(QStringLiteral("NMEA")))
        return true;
    const QString error = checksumOk ? QString() : QStringLiteral("checksum error");
    if (!error.isEmpty())
        ++m_errors;
    const std::vector<Field> fields{
        {QStringLiteral("sentence"), QString::fromLatin1(text.data(), int(text.size())), {}}};
    print(0, '<', -1, -1, name, text.size(), fields, error,
          reinterpret_cast<const uint8_t*>(text.data()), text.size());
    return !done();
}

void FrameDumper::skipped(uint64_t timeNs, const uint8_t* bytes, size_t size)
{
    // A 0xFA inside stray data often looks like the start of a short frame. A candidate
    // counts as a damaged frame only when frames follow it without a gap: it ends where
    // the run ends (a good frame or the end of the input comes next) or where another
    // such candidate begins.
    std::vector<size_t> damaged(size + 1, 0); // frame size at i, 0: none
    for (size_t i = size; i-- > 0;) {
        if (bytes[i] != 0xFA)
            continue;
        const size_t n = frameShape(bytes + i, size - i);
        if (n != 0 && !checksumOk(bytes + i, n) && (i + n == size || damaged[i + n] != 0))
            damaged[i] = n;
    }
    size_t start = 0;
    for (size_t i = 0; i < size && !done();) {
        if (damaged[i] == 0) {
            ++i;
            continue;
        }
        skippedRun(timeNs, bytes + start, i - start);
        DumpFrame f;
        f.timeNs = timeNs;
        f.frame = bytes + i;
        f.size = damaged[i];
        frame(f);
        i += damaged[i];
        start = i;
    }
    if (!done())
        skippedRun(timeNs, bytes + start, size - start);
}

void FrameDumper::skippedRun(uint64_t timeNs, const uint8_t* bytes, size_t size)
{
    if (size == 0)
        return;
    m_skipped += size;
    if (!m_options.filters.isEmpty())
        return; // counted in the summary; a filtered listing stays one kind of line
    if (m_options.json) {
        writeLine(QStringLiteral("{\"time\":%1,\"skipped\":%2,\"raw\":%3}")
                      .arg(timeNs ? jsonString(formatTime(timeNs)) : QStringLiteral("null"))
                      .arg(size)
                      .arg(jsonString(hex(bytes, size))));
    } else {
        // Text (a stray line of an nm file, a device's string output) reads better as text.
        bool text = true;
        for (size_t i = 0; i < size && text; ++i)
            text = (bytes[i] >= 0x20 && bytes[i] < 0x7F) || bytes[i] == '\t';
        writeLine(QStringLiteral("%1 skipped %2 bytes: %3")
                      .arg(formatTime(timeNs))
                      .arg(size)
                      .arg(text ? textValue(QString::fromLatin1(
                                      reinterpret_cast<const char*>(bytes), int(size)))
                                : hex(bytes, size)));
    }
}

void FrameDumper::print(uint64_t timeNs, char dir, int bus, int mid, const QString& name,
                        size_t length, const std::vector<Field>& fields, const QString& error,
                        const uint8_t* bytes, size_t size)
{
    ++m_printed;
    const bool withRaw = m_options.raw || !error.isEmpty();
    if (m_options.json) {
        QString line = QStringLiteral("{\"time\":%1,\"dir\":%2,\"bus\":%3,\"mid\":%4,\"name\":%5,"
                                      "\"length\":%6,\"fields\":{")
                           .arg(timeNs ? jsonString(formatTime(timeNs)) : QStringLiteral("null"),
                                jsonString(QString(QLatin1Char(dir))),
                                bus < 0 ? QStringLiteral("null") : QString::number(bus),
                                mid < 0 ? QStringLiteral("null") : QString::number(mid),
                                jsonString(name), QString::number(length));
        bool first = true;
        for (const Field& field : fields) {
            if (!first)
                line += QLatin1Char(',');
            first = false;
            line += jsonString(field.name) + QLatin1Char(':') + jsonValue(field.value, field.text);
        }
        line += QLatin1Char('}');
        if (withRaw) {
            line += QStringLiteral(",\"raw\":") +
                    jsonString(bus < 0 ? QString::fromLatin1(reinterpret_cast<const char*>(bytes),
                                                             int(size))
                                       : hex(bytes, size));
        }
        if (!error.isEmpty())
            line += QStringLiteral(",\"error\":") + jsonString(error);
        writeLine(line + QLatin1Char('}'));
        return;
    }
    QString line =
        QStringLiteral("%1 %2 %3 %4 %5")
            .arg(formatTime(timeNs), QString(QLatin1Char(dir)),
                 bus < 0 ? QStringLiteral("-")
                         : QStringLiteral("%1").arg(bus, 2, 16, QLatin1Char('0')).toUpper(),
                 name, QString::number(length));
    if (bus < 0) {
        // An NMEA sentence is its own best text.
        line += QLatin1Char(' ') + fields.front().text;
    } else {
        for (const Field& field : fields)
            line += QLatin1Char(' ') + field.name + QLatin1Char('=') + textValue(field.text);
        if (withRaw)
            line += QStringLiteral(" raw=\"") + hex(bytes, size) + QLatin1Char('"');
    }
    if (!error.isEmpty())
        line += QStringLiteral(" error=") + textValue(error);
    writeLine(line);
}
