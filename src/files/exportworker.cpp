#include "exportworker.h"

#include "journaller.h"
#include "ndacontrol.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimeZone>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

const QString MetersPerSecond2 = QStringLiteral("m/s²");

QStringList axes(const QString& prefix, const QStringList& letters)
{
    QStringList names;
    for (const QString& letter : letters)
        names << prefix + QLatin1Char('_') + letter;
    return names;
}

// Navigation-frame vectors name their axes after the frame the item was sent in.
QStringList frameLetters(quint16 id)
{
    switch (nvCoordinateFrame(NvDataIdentifier(id))) {
    case NCF_NED:
        return {QStringLiteral("N"), QStringLiteral("E"), QStringLiteral("D")};
    case NCF_NWU:
        return {QStringLiteral("N"), QStringLiteral("W"), QStringLiteral("U")};
    default:
        return {QStringLiteral("E"), QStringLiteral("N"), QStringLiteral("U")};
    }
}

const QStringList Xyz{QStringLiteral("X"), QStringLiteral("Y"), QStringLiteral("Z")};

QVector<double> toVector(const NvVector3& v)
{
    return {v.x, v.y, v.z};
}

QVector<double> toVector(const NvQuaternion& q)
{
    return {q.w, q.x, q.y, q.z};
}

QString versionText(const NvVersion& v)
{
    return QStringLiteral("%1.%2.%3").arg(v.major).arg(v.minor).arg(v.revision);
}

} // namespace

ExportWorker::ExportWorker(NdaControl& control, QObject* parent)
    : QObject(parent), m_control(control)
{
}

ExportWorker::~ExportWorker() = default;

void ExportWorker::setQuantities(const std::set<quint16>& quantities)
{
    m_quantities.clear();
    for (quint16 q : quantities)
        m_quantities.insert(nvQuantity(NvDataIdentifier(q)));
}

NvDeviceIdArray ExportWorker::exportableDevices() const
{
    NvDeviceIdArray out;
    NvDeviceIdArray ids;
    NvControl_deviceIds(m_control.libraryControl(), &ids);
    const NvString wanted = m_fileName.toStdString();
    for (const NvDeviceId& id : ids) {
        const NvDeviceRef device = nvDeviceRef(m_control.libraryControl(), id);
        if (!device || !NvDevice_isReadingFromFile(device))
            continue;
        NvString name;
        NvDevice_fileName(device, &name);
        // A master of a recording carries no samples of its own: nothing to write.
        if (name == wanted && NvDevice_packetCount(device) > 0)
            out.push_back(id);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::map<NvDeviceId, QString> ExportWorker::plannedFileNames() const
{
    std::map<NvDeviceId, QString> names;
    const QFileInfo input(m_fileName);
    const QString folder = m_outputFolder.isEmpty() ? input.absolutePath() : m_outputFolder;
    const QString suffix = m_factory ? m_factory->fileSuffix() : QStringLiteral("txt");
    const QString planned =
        QDir(folder).absoluteFilePath(input.completeBaseName() + QLatin1Char('.') + suffix);
    for (const NvDeviceId& id : exportableDevices())
        names[id] = planned;
    std::map<QString, std::set<NvDeviceId>> duplicates;
    findDuplicateFileNames(names, duplicates);
    for (const auto& [name, ids] : duplicates)
        for (const NvDeviceId& id : ids)
            names[id] =
                extendFilename(name, QLatin1Char('_') + QString::fromStdString(id.toString()));
    return names;
}

QString ExportWorker::extendFilename(const QString& fileName, const QString& addition)
{
    const QFileInfo info(fileName);
    QString name = info.baseName() + addition;
    if (!info.completeSuffix().isEmpty())
        name += QLatin1Char('.') + info.completeSuffix();
    return QDir(info.absolutePath()).filePath(name);
}

void ExportWorker::findDuplicateFileNames(const std::map<NvDeviceId, QString>& names,
                                          std::map<QString, std::set<NvDeviceId>>& duplicates)
{
    std::map<QString, std::set<NvDeviceId>> users;
    for (const auto& [id, name] : names)
        users[QFileInfo(name).absoluteFilePath()].insert(id);
    duplicates.clear();
    for (auto& [name, ids] : users)
        if (ids.size() > 1)
            duplicates[name] = ids;
}

void ExportWorker::logUsageEvent(const QString& text) const
{
    jlLog(JLL_TRACE, "Usage: " + text.toStdString());
}

void ExportWorker::onOpenFileFailed(int mode, const QString& path)
{
    Q_UNUSED(mode)
    fail(tr("Error opening file"), path);
}

void ExportWorker::fail(const QString& text, const QString& detail)
{
    emit progressTextChanged(text);
    const QString full = detail.isEmpty() ? text : text + QLatin1Char('\n') + detail;
    m_failures << full;
    emit failed(full);
}

// ---------------------------------------------------------------------------- Running

void ExportWorker::run()
{
    m_abort = false;
    m_outcome = Completed;
    m_written.clear();
    m_failures.clear();
    if (!m_factory) {
        fail(tr("No exporters are available."), QString());
        m_outcome = Failed;
        emit finished();
        return;
    }
    logUsageEvent(QStringLiteral("Export %1 as %2").arg(m_fileName, m_factory->name()));
    const std::map<NvDeviceId, QString> names = plannedFileNames();
    if (names.empty()) {
        fail(tr("The recording holds no samples to export."), m_fileName);
        m_outcome = Failed;
    }
    for (const auto& [id, path] : names) {
        if (m_abort) {
            m_outcome = Aborted;
            break;
        }
        const Result result = exportOne(id, path);
        if (result == Result::Aborted) {
            m_outcome = Aborted;
            break;
        }
        if (result == Result::Failed)
            m_outcome = Failed;
    }
    if (m_outcome == Aborted)
        emit aborted();
    emit finished();
}

bool ExportWorker::exportDevice(const NvDeviceId& id)
{
    const auto names = plannedFileNames();
    const auto it = names.find(id);
    if (it == names.end() || !m_factory)
        return false;
    m_abort = false;
    return exportOne(id, it->second) == Result::Written;
}

ExportWorker::Result ExportWorker::exportOne(const NvDeviceId& id, const QString& path)
{
    emit progressChanged(0);
    emit progressTextChanged(tr("Initializing"));
    m_device = nvDeviceRef(m_control.libraryControl(), id);
    m_deviceId = id;
    m_haveTicks = false;
    m_haveUtc = false;
    m_packet = NvDataPacket();
    struct Reset
    {
        ExportWorker* w;
        ~Reset()
        {
            w->m_packet = NvDataPacket();
            w->m_device = NvDeviceRef();
        }
    } reset{this};
    const int64_t count = m_device ? NvDevice_packetCount(m_device) : 0;
    if (!selectItems(m_device, count))
        return Result::Aborted;

    std::unique_ptr<AbstractExporter> exporter(m_factory->createExporter(*this, path, m_options));
    if (!exporter || !exporter->open(metaData(path))) {
        const QString why = exporter ? exporter->errorString() : QString();
        fail(tr("Error opening file"), why.isEmpty() ? path : path + QStringLiteral(": ") + why);
        return Result::Failed;
    }
    emit progressTextChanged(
        tr("Exporting to %2 for device %1").arg(QString::fromStdString(id.toString()), path));
    const bool needHostTime = exportsHostTime();
    int lastPercent = 0;
    for (int64_t i = 0; i < count; ++i) {
        if (m_abort.load(std::memory_order_relaxed)) {
            // The exporter drops what it has written: half a file would pass for the whole
            // recording (and one written before stays as it was).
            exporter.reset();
            return Result::Aborted;
        }
        NvDataPacket packet;
        if (!NvDevice_dataPacketByIndex(m_device, i, &packet))
            continue;
        uint64_t host = 0;
        if (needHostTime)
            NvDevice_hostTimeByIndex(m_device, i, &host);
        setPacket(packet, host);
        // A sample whose time is unknown cannot be placed: it stays in.
        const bool before = !std::isnan(m_from) && m_sampleTime < m_from;
        const bool after = !std::isnan(m_to) && m_sampleTime > m_to;
        if (!before && !after && !exporter->writeFrame()) {
            const QString why = exporter->errorString();
            exporter.reset();
            fail(tr("Error writing file"), path + QStringLiteral(": ") + why);
            return Result::Failed;
        }
        const int percent = int((i + 1) * 100 / count);
        if (percent != lastPercent) {
            lastPercent = percent;
            emit progressChanged(percent);
        }
    }
    emit progressTextChanged(tr("Finalizing"));
    const bool finalized = exporter->finalize();
    const QString why = exporter->errorString();
    exporter.reset();
    if (!finalized) {
        fail(tr("Error writing file"), path + QStringLiteral(": ") + why);
        return Result::Failed;
    }
    emit progressChanged(100);
    m_written << path;
    emit fileWritten(path);
    return Result::Written;
}

// The items of the device's samples (a pass over the file: slow items such as GNSS PVT
// come in one sample of many), narrowed to the quantities asked for.
bool ExportWorker::selectItems(NvDevice* device, int64_t count)
{
    std::map<quint16, quint16> seen; // quantity -> identifier as sent
    NvDataPacket packet;
    for (int64_t i = 0; i < count; ++i) {
        if ((i & 1023) == 0 && m_abort.load(std::memory_order_relaxed))
            return false;
        if (!NvDevice_dataPacketByIndex(device, i, &packet))
            continue;
        for (size_t k = 0; k < packet.itemCount(); ++k) {
            const NvDataIdentifier id = packet.item(k).id;
            seen.emplace(nvQuantity(id), id);
        }
    }
    m_items.clear();
    for (const auto& [quantity, id] : seen) {
        if (!m_quantities.empty() && !m_quantities.count(quantity))
            continue;
        ExportItem item = describeItem(id);
        if (!item.valueNames.isEmpty())
            m_items << item;
    }
    return true;
}

void ExportWorker::setPacket(const NvDataPacket& packet, uint64_t hostTime)
{
    m_packet = packet;
    m_hostTime = hostTime;
    if (!packet.contains(NDI_SAMPLE_TIME_FINE)) {
        // Devices without a sample clock (NMEA captures) are timed by their UTC item.
        const NvUtcTime utc = packet.utcTime();
        const QDate date(utc.year, utc.month, utc.day);
        if (!packet.contains(NDI_UTC_TIME) || !(utc.flags & NvUtcTime::ValidUtc) ||
            !date.isValid()) {
            m_sampleTime = std::numeric_limits<double>::quiet_NaN();
            return;
        }
        const int64_t seconds =
            ((date.toJulianDay() - 2440588) * 24 + utc.hour) * 3600 + utc.minute * 60 + utc.second;
        const int64_t ns = seconds * 1000000000 + utc.nanoseconds;
        if (!m_haveUtc) {
            m_haveUtc = true;
            m_firstUtcNs = ns;
        }
        m_sampleTime = double(ns - m_firstUtcNs) / 1e9;
        return;
    }
    const uint32_t ticks = packet.sampleTimeFine();
    if (!m_haveTicks) {
        m_haveTicks = true;
        m_ticks64 = m_firstTicks = ticks;
    } else {
        // 32-bit ticks wrap after five days; samples are in counter order, so a step
        // back of more than half the range is a wrap.
        m_ticks64 += int32_t(ticks - m_lastTicks);
    }
    m_lastTicks = ticks;
    m_sampleTime = double(m_ticks64 - m_firstTicks) / 10000.0;
}

// ---------------------------------------------------------------------------- Metadata

QMap<QString, QString> ExportWorker::metaData(const QString& path) const
{
    Q_UNUSED(path)
    QMap<QString, QString> meta;
    NvDevice* dev = m_device.get();
    meta[QStringLiteral("DeviceID")] = QString::fromStdString(m_deviceId.toString());
    meta[QStringLiteral("VersionKVM")] = QCoreApplication::applicationVersion();
    meta[QStringLiteral("VersionNDA")] = NdaControl::version();
    meta[QStringLiteral("InputFile")] = QFileInfo(m_fileName).completeBaseName();
    NvString productCode;
    NvDevice_productCode(dev, &productCode);
    meta[QStringLiteral("ProductCode")] = QString::fromStdString(productCode);

    QString profileLabel, profileName, profileVersion, profileType;
    const int type = dev ? NvDevice_hostFilterProfile(dev) : -1;
    if (type >= 0) {
        NvFilterProfileArray profiles;
        NvControl_filterProfiles(m_control.libraryControl(), &profiles);
        for (const NvFilterProfileInfo& p : profiles) {
            if (p.type != type)
                continue;
            profileLabel = profileName = QString::fromStdString(p.label);
            profileVersion = QStringLiteral("%1.%2").arg(p.version / 10).arg(p.version % 10);
            profileType = QString::number(p.type);
        }
    }
    meta[QStringLiteral("FilterProfileName")] = profileLabel;
    meta[QStringLiteral("FilterProfile")] = profileName;
    meta[QStringLiteral("FilterProfileVersion")] = profileVersion;
    meta[QStringLiteral("FilterProfileType")] = profileType;

    QString start;
    uint64_t firstHost = 0;
    if (dev && NvDevice_hostTimeByIndex(dev, 0, &firstHost))
        start = QDateTime::fromMSecsSinceEpoch(qint64(firstHost / 1000000), QTimeZone::utc())
                    .toString(Qt::ISODateWithMs);
    else
        start = QFileInfo(m_fileName).lastModified().toUTC().toString(Qt::ISODate);
    meta[QStringLiteral("StartTime")] = start;

    NvVersion firmware, hardware;
    NvDevice_firmwareVersion(dev, &firmware);
    NvDevice_hardwareVersion(dev, &hardware);
    meta[QStringLiteral("FirmwareVersion")] = versionText(firmware);
    meta[QStringLiteral("HardwareVersion")] = versionText(hardware);

    // A recording does not keep the option flags; a live device answers them.
    QString flags;
    const int64_t options =
        dev && !NvDevice_isReadingFromFile(dev) ? NvDevice_deviceOptionFlags(dev) : -1;
    if (options >= 0) {
        const auto add = [&](uint32_t bit, const char* name) {
            flags += QString::fromLatin1(name) +
                     (options & bit ? QStringLiteral(" Enabled, ") : QStringLiteral(" Disabled, "));
        };
        add(0x10, "AHS");
        add(0x80, "ICC");
        add(0x20, "Orientation Smoother");
        add(0x800, "Position/Velocity Smoother");
        add(0x1000, "Continuous Zero Rotation Update");
        if (options & 0x4)
            flags += QStringLiteral("Beidou Enabled, ");
    }
    meta[QStringLiteral("optionFlags")] = flags;
    if (m_deviceId.isGnss())
        meta[QStringLiteral("gnssPlatform")] = QString();
    return meta;
}

// ---------------------------------------------------------------------------- Items

ExportItem ExportWorker::describeItem(quint16 dataIdentifier)
{
    const NvDataIdentifier id = NvDataIdentifier(dataIdentifier);
    ExportItem item;
    item.quantity = nvQuantity(id);
    item.dataIdentifier = dataIdentifier;
    item.name = QString::fromLatin1(nvDataIdentifierName(id));
    auto set = [&](const QStringList& names, const QString& unit) {
        item.valueNames = names;
        for (int i = 0; i < names.size(); ++i)
            item.units << unit;
    };
    switch (item.quantity) {
    case NDI_TEMPERATURE:
        set({QStringLiteral("Temperature")}, QStringLiteral("°C"));
        break;
    case NDI_UTC_TIME:
        item.valueNames = {QStringLiteral("UTC_Year"),   QStringLiteral("UTC_Month"),
                           QStringLiteral("UTC_Day"),    QStringLiteral("UTC_Hour"),
                           QStringLiteral("UTC_Minute"), QStringLiteral("UTC_Second"),
                           QStringLiteral("UTC_Nano"),   QStringLiteral("UTC_Valid")};
        item.units = {
            QString(), QString(), QString(), QString(), QString(), QString(), QStringLiteral("ns"),
            QString()};
        break;
    case NDI_PACKET_COUNTER:
        set({QStringLiteral("PacketCounter")}, QString());
        break;
    case NDI_TIME_OF_WEEK:
        set({QStringLiteral("TimeOfWeek")}, QStringLiteral("ms"));
        break;
    case NDI_GNSS_AGE:
        set({QStringLiteral("GnssAge")}, QString());
        break;
    case NDI_SAMPLE_TIME_FINE:
        set({QStringLiteral("SampleTimeFine")}, QStringLiteral("100 µs"));
        break;
    case NDI_SAMPLE_TIME_COARSE:
        set({QStringLiteral("SampleTimeCoarse")}, QStringLiteral("s"));
        break;
    case NDI_FRAME_RANGE:
        set({QStringLiteral("FrameRange_First"), QStringLiteral("FrameRange_Last")}, QString());
        break;
    case NDI_QUATERNION:
        set({QStringLiteral("Quat_q0"), QStringLiteral("Quat_q1"), QStringLiteral("Quat_q2"),
             QStringLiteral("Quat_q3")},
            QString());
        break;
    case NDI_ROTATION_MATRIX: {
        QStringList names;
        for (int column = 1; column <= 3; ++column)
            for (int row = 1; row <= 3; ++row)
                names << QStringLiteral("Mat[%1][%2]").arg(row).arg(column);
        set(names, QString());
        break;
    }
    case NDI_EULER_ANGLES:
        set({QStringLiteral("Roll"), QStringLiteral("Pitch"), QStringLiteral("Yaw")},
            QStringLiteral("deg"));
        break;
    case NDI_BARO_PRESSURE:
        set({QStringLiteral("Pressure")}, QStringLiteral("Pa"));
        break;
    case NDI_DELTA_V:
        set(axes(QStringLiteral("dv"), Xyz), QStringLiteral("m/s"));
        break;
    case NDI_ACCELERATION:
        set(axes(QStringLiteral("Acc"), Xyz), MetersPerSecond2);
        break;
    case NDI_FREE_ACCELERATION:
        set(axes(QStringLiteral("FreeAcc"), frameLetters(dataIdentifier)), MetersPerSecond2);
        break;
    case NDI_ACCELERATION_HR:
        set(axes(QStringLiteral("AccHR"), Xyz), MetersPerSecond2);
        break;
    case NDI_ALTITUDE_MSL:
        set({QStringLiteral("Altitude_MSL")}, QStringLiteral("m"));
        break;
    case NDI_ALTITUDE_ELLIPSOID:
        set({QStringLiteral("Altitude_Ellipsoid")}, QStringLiteral("m"));
        break;
    case NDI_POSITION_ECEF:
        set(axes(QStringLiteral("Pos_ECEF"), Xyz), QStringLiteral("m"));
        break;
    case NDI_LAT_LON:
        set({QStringLiteral("Latitude"), QStringLiteral("Longitude")}, QStringLiteral("deg"));
        break;
    case NDI_GNSS_PVT_DATA:
        item.valueNames = {QStringLiteral("PVT_Latitude"), QStringLiteral("PVT_Longitude"),
                           QStringLiteral("PVT_Height"),   QStringLiteral("PVT_HeightMSL"),
                           QStringLiteral("PVT_Vel_N"),    QStringLiteral("PVT_Vel_E"),
                           QStringLiteral("PVT_Vel_D"),    QStringLiteral("PVT_FixType"),
                           QStringLiteral("PVT_NumSV"),    QStringLiteral("PVT_HAcc"),
                           QStringLiteral("PVT_VAcc"),     QStringLiteral("PVT_TimeOfWeek")};
        item.units = {QStringLiteral("deg"),
                      QStringLiteral("deg"),
                      QStringLiteral("m"),
                      QStringLiteral("m"),
                      QStringLiteral("m/s"),
                      QStringLiteral("m/s"),
                      QStringLiteral("m/s"),
                      QString(),
                      QString(),
                      QStringLiteral("m"),
                      QStringLiteral("m"),
                      QStringLiteral("ms")};
        break;
    case NDI_GNSS_SAT_INFO:
        item.valueNames = {QStringLiteral("SatInfo_TimeOfWeek"), QStringLiteral("SatInfo_NumSats")};
        item.units = {QStringLiteral("ms"), QString()};
        break;
    case NDI_GNSS_PVT_PULSE:
        set({QStringLiteral("PvtPulse")}, QStringLiteral("100 µs"));
        break;
    case NDI_RATE_OF_TURN:
        set(axes(QStringLiteral("Gyr"), Xyz), QStringLiteral("rad/s"));
        break;
    case NDI_DELTA_Q:
        set({QStringLiteral("dq0"), QStringLiteral("dq1"), QStringLiteral("dq2"),
             QStringLiteral("dq3")},
            QString());
        break;
    case NDI_RATE_OF_TURN_HR:
        set(axes(QStringLiteral("GyrHR"), Xyz), QStringLiteral("rad/s"));
        break;
    case NDI_ANALOG_IN_1:
        set({QStringLiteral("AnalogIn1")}, QString());
        break;
    case NDI_ANALOG_IN_2:
        set({QStringLiteral("AnalogIn2")}, QString());
        break;
    case NDI_MAGNETIC_FIELD:
        set(axes(QStringLiteral("Mag"), Xyz), QStringLiteral("a.u."));
        break;
    case NDI_VELOCITY:
        set(axes(QStringLiteral("Vel"), frameLetters(dataIdentifier)), QStringLiteral("m/s"));
        break;
    case NDI_STATUS_BYTE:
        set({QStringLiteral("StatusByte")}, QString());
        break;
    case NDI_STATUS_WORD:
        set({QStringLiteral("StatusWord")}, QString());
        break;
    case NDI_RSSI:
        set({QStringLiteral("RSSI")}, QStringLiteral("dBm"));
        break;
    default:
        break; // not known: no columns
    }
    return item;
}

QVector<double> ExportWorker::itemValues(quint16 quantity) const
{
    const NvDataIdentifier q = nvQuantity(NvDataIdentifier(quantity));
    if (!m_packet.contains(q))
        return {};
    switch (q) {
    case NDI_UTC_TIME: {
        const NvUtcTime t = m_packet.utcTime();
        return {double(t.year),   double(t.month),  double(t.day),         double(t.hour),
                double(t.minute), double(t.second), double(t.nanoseconds), double(t.flags)};
    }
    case NDI_FRAME_RANGE: {
        const NvFrameRange r = m_packet.frameRange();
        return {double(r.first), double(r.last)};
    }
    case NDI_GNSS_PVT_DATA:
        return rawGnssPvtData();
    case NDI_GNSS_SAT_INFO:
        return rawGnssSatInfo();
    default: {
        double values[MaxItemValues];
        return QVector<double>(values, values + itemValues(quantity, values, MaxItemValues));
    }
    }
}

int ExportWorker::itemValues(quint16 quantity, double* out, int capacity) const
{
    const NvDataIdentifier q = nvQuantity(NvDataIdentifier(quantity));
    if (capacity <= 0 || !m_packet.contains(q))
        return 0;
    if (nvIsRealQuantity(q))
        return int(m_packet.reals(q, out, size_t(capacity)));
    if (scalarValue(q, out[0]))
        return 1;
    switch (q) {
    case NDI_UTC_TIME:
    case NDI_FRAME_RANGE:
    case NDI_GNSS_PVT_DATA:
    case NDI_GNSS_SAT_INFO: {
        const QVector<double> values = itemValues(quantity);
        const int n = qMin(capacity, int(values.size()));
        std::copy_n(values.begin(), n, out);
        return n;
    }
    default:
        return 0;
    }
}

bool ExportWorker::scalarValue(NvDataIdentifier quantity, double& value) const
{
    switch (quantity) {
    case NDI_PACKET_COUNTER:
        value = m_packet.packetCounter();
        return true;
    case NDI_TIME_OF_WEEK:
        value = m_packet.timeOfWeek();
        return true;
    case NDI_GNSS_AGE:
        value = m_packet.gnssAge();
        return true;
    case NDI_SAMPLE_TIME_FINE:
        value = m_packet.sampleTimeFine();
        return true;
    case NDI_SAMPLE_TIME_COARSE:
        value = m_packet.sampleTimeCoarse();
        return true;
    case NDI_BARO_PRESSURE:
        value = m_packet.pressure();
        return true;
    case NDI_GNSS_PVT_PULSE:
        value = m_packet.gnssPvtPulse();
        return true;
    case NDI_ANALOG_IN_1:
        value = m_packet.analogIn1();
        return true;
    case NDI_ANALOG_IN_2:
        value = m_packet.analogIn2();
        return true;
    case NDI_STATUS_BYTE:
        value = m_packet.statusByte();
        return true;
    case NDI_STATUS_WORD:
        value = m_packet.statusWord();
        return true;
    case NDI_RSSI:
        value = m_packet.rssi();
        return true;
    default:
        return false;
    }
}

QString ExportWorker::deviceIdText() const
{
    return QString::fromStdString(m_deviceId.toString());
}

QVector<double> ExportWorker::vector3(quint16 quantity) const
{
    if (!m_packet.contains(NvDataIdentifier(quantity)))
        return {};
    return toVector(m_packet.vector3(NvDataIdentifier(quantity)));
}

QVariant ExportWorker::packetCounter() const
{
    return m_packet.contains(NDI_PACKET_COUNTER) ? QVariant(m_packet.packetCounter()) : QVariant();
}

bool ExportWorker::containsSampleTimeFine() const
{
    return m_packet.contains(NDI_SAMPLE_TIME_FINE);
}

QVariant ExportWorker::sampleTimeFine() const
{
    return containsSampleTimeFine() ? QVariant(m_packet.sampleTimeFine()) : QVariant();
}

QVariant ExportWorker::sampleTime64() const
{
    return containsSampleTimeFine() ? QVariant(qint64(m_ticks64)) : QVariant();
}

QVariant ExportWorker::utc() const
{
    if (!m_packet.contains(NDI_UTC_TIME))
        return {};
    const NvUtcTime t = m_packet.utcTime();
    return QVariantList{t.year, t.month, t.day, t.hour, t.minute, t.second, t.nanoseconds, t.flags};
}

QVariant ExportWorker::utcDateTime() const
{
    if (!m_packet.contains(NDI_UTC_TIME))
        return {};
    const NvUtcTime t = m_packet.utcTime();
    if (!(t.flags & NvUtcTime::ValidUtc))
        return {};
    const QDateTime at(
        QDate(t.year, t.month, t.day),
        QTime(t.hour, t.minute, qMin<int>(t.second, 59), int(t.nanoseconds / 1000000)),
        QTimeZone::utc());
    return at.isValid() ? QVariant(at) : QVariant();
}

QVariant ExportWorker::temperature() const
{
    return m_packet.contains(NDI_TEMPERATURE) ? QVariant(m_packet.temperature()) : QVariant();
}

QVector<double> ExportWorker::acceleration() const
{
    return vector3(NDI_ACCELERATION);
}

QVector<double> ExportWorker::freeAcceleration() const
{
    return vector3(NDI_FREE_ACCELERATION);
}

QVector<double> ExportWorker::angularVelocity() const
{
    return vector3(NDI_RATE_OF_TURN);
}

QVector<double> ExportWorker::magneticField() const
{
    return vector3(NDI_MAGNETIC_FIELD);
}

QVector<double> ExportWorker::velocityIncrement() const
{
    return vector3(NDI_DELTA_V);
}

QVector<double> ExportWorker::accelerationHR() const
{
    return vector3(NDI_ACCELERATION_HR);
}

QVector<double> ExportWorker::rateOfTurnHR() const
{
    return vector3(NDI_RATE_OF_TURN_HR);
}

QVector<double> ExportWorker::orientationIncrement() const
{
    return m_packet.contains(NDI_DELTA_Q) ? toVector(m_packet.deltaQ()) : QVector<double>();
}

QVector<double> ExportWorker::orientationQuaternion(quint16 dataIdentifier) const
{
    if (!m_packet.containsOrientation())
        return {};
    return toVector(
        m_packet.orientationQuaternion(nvCoordinateFrame(NvDataIdentifier(dataIdentifier))));
}

QVector<double> ExportWorker::orientationEuler(quint16 dataIdentifier) const
{
    if (!m_packet.containsOrientation())
        return {};
    const NvEuler e =
        m_packet.orientationEuler(nvCoordinateFrame(NvDataIdentifier(dataIdentifier)));
    return {e.roll, e.pitch, e.yaw};
}

QVector<double> ExportWorker::orientationMatrix(quint16 dataIdentifier) const
{
    if (!m_packet.containsOrientation())
        return {};
    const NvMatrix3 m =
        m_packet.orientationMatrix(nvCoordinateFrame(NvDataIdentifier(dataIdentifier)));
    QVector<double> out(9);
    m.toColumnMajor(out.data());
    return out;
}

QVector<double> ExportWorker::latitudeLongitude() const
{
    if (!m_packet.contains(NDI_LAT_LON))
        return {};
    const NvLatLon l = m_packet.latLon();
    return {l.latitude, l.longitude};
}

bool ExportWorker::containsAltitude() const
{
    return m_packet.contains(NDI_ALTITUDE_ELLIPSOID) || m_packet.contains(NDI_ALTITUDE_MSL);
}

QVariant ExportWorker::altitude() const
{
    if (m_packet.contains(NDI_ALTITUDE_ELLIPSOID))
        return m_packet.altitudeEllipsoid();
    if (m_packet.contains(NDI_ALTITUDE_MSL))
        return m_packet.altitudeMsl();
    return {};
}

QVector<double> ExportWorker::velocity(quint16 dataIdentifier) const
{
    if (!m_packet.contains(NDI_VELOCITY))
        return {};
    return toVector(
        m_packet.vector3(NDI_VELOCITY, nvCoordinateFrame(NvDataIdentifier(dataIdentifier))));
}

QVariant ExportWorker::status() const
{
    if (m_packet.contains(NDI_STATUS_WORD))
        return m_packet.statusWord();
    if (m_packet.contains(NDI_STATUS_BYTE))
        return m_packet.statusByte();
    return {};
}

QVariant ExportWorker::pressure() const
{
    return m_packet.contains(NDI_BARO_PRESSURE) ? QVariant(m_packet.pressure()) : QVariant();
}

QVariant ExportWorker::analogIn1() const
{
    return m_packet.contains(NDI_ANALOG_IN_1) ? QVariant(m_packet.analogIn1()) : QVariant();
}

QVariant ExportWorker::analogIn2() const
{
    return m_packet.contains(NDI_ANALOG_IN_2) ? QVariant(m_packet.analogIn2()) : QVariant();
}

QVariant ExportWorker::rssi() const
{
    return m_packet.contains(NDI_RSSI) ? QVariant(int(m_packet.rssi())) : QVariant();
}

QVector<double> ExportWorker::rawGnssPvtData() const
{
    if (!m_packet.contains(NDI_GNSS_PVT_DATA))
        return {};
    const NvGnssPvt p = m_packet.gnssPvt();
    return {p.latitudeDeg(), p.longitudeDeg(), p.height / 1000.0, p.hMsl / 1000.0,
            p.velN / 1000.0, p.velE / 1000.0,  p.velD / 1000.0,   double(p.fixType),
            double(p.numSv), p.hAcc / 1000.0,  p.vAcc / 1000.0,   double(p.timeOfWeek)};
}

QVector<double> ExportWorker::rawGnssSatInfo() const
{
    if (!m_packet.contains(NDI_GNSS_SAT_INFO))
        return {};
    const NvGnssSatInfo info = m_packet.gnssSatInfo();
    return {double(info.timeOfWeek), double(info.satellites.size())};
}

int ExportWorker::updateRate() const
{
    return updateRate(NDI_NONE);
}

int ExportWorker::updateRate(quint16 dataIdentifier) const
{
    NvOutputConfigurationArray config;
    NvDevice_outputConfiguration(m_device.get(), &config);
    int fastest = 0;
    for (const NvOutputConfiguration& c : config) {
        if (c.isEveryPacket())
            continue;
        if (dataIdentifier != NDI_NONE && nvQuantity(NvDataIdentifier(c.dataIdentifier)) !=
                                              nvQuantity(NvDataIdentifier(dataIdentifier)))
            continue;
        fastest = qMax(fastest, int(c.frequency));
    }
    return fastest;
}
