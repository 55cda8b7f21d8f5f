#pragma once

// The interface between the application's export worker and the exporter plug-ins. The
// application has no export format of its own: a plug-in's factory makes exporters for
// one format, and each exporter writes one device of a recording to one file, pulling
// the values of the current sample from the source the worker hands it.
//
// Plug-ins see only Qt types here, so that they need not link the device library: the
// worker decodes the packets and answers in numbers.

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <QVector>
#include <QtPlugin>

// Option keys an exporter may understand (AbstractExporterFactory::supportedOptions).
namespace ExportOption {
// "comma" or "tab".
inline const QString Separator = QStringLiteral("separator");
} // namespace ExportOption

// One data item of the exported device: the quantity (format bits cleared), the item's
// identifier as recorded, and a name and unit per value.
struct ExportItem
{
    quint16 quantity = 0;
    quint16 dataIdentifier = 0;
    QString name;           // "Acceleration"
    QStringList valueNames; // "Acc_X", "Acc_Y", "Acc_Z"
    QStringList units;      // one per value; "" for counts and flags
};

// The device being exported and its current sample, as an exporter reads them. Values
// come from the sample the worker is at; every accessor answers an empty value (invalid
// QVariant, empty vector, NaN) when the sample lacks the item.
class AbstractExportSource
{
public:
    virtual ~AbstractExportSource() = default;

    // ---- The export as a whole
    virtual QString deviceIdText() const = 0;
    // The items chosen for export, in column order (all the recording has, by default).
    virtual QList<ExportItem> exportedItems() const = 0;
    // Which time columns the user asked for.
    virtual bool exportsSampleTime() const = 0;
    virtual bool exportsHostTime() const = 0;

    // ---- The current sample
    // The values of one item (quantity, format bits ignored), as exportedItems() names
    // them; empty when the sample lacks it.
    virtual QVector<double> itemValues(quint16 quantity) const = 0;
    // The same without an allocation: at most `capacity` values into `out` (MaxItemValues
    // always suffice); how many, 0 when the sample lacks the item.
    static constexpr int MaxItemValues = 16;
    virtual int itemValues(quint16 quantity, double* out, int capacity) const = 0;
    // Seconds of device time since the device's first sample; NaN when unknown.
    virtual double sampleTime() const = 0;
    // Host UTC time (ns since 1970) at which the sample was read; 0 when the file does not
    // say (bin and nm files, or a kvb of a writer without time marks).
    virtual quint64 hostTimeNs() const = 0;

    // Named accessors for exporters with fixed layouts.
    virtual QVariant packetCounter() const = 0;
    virtual bool containsSampleTimeFine() const = 0;
    virtual QVariant sampleTimeFine() const = 0; // 10 kHz ticks
    virtual QVariant sampleTime64() const = 0;   // 10 kHz ticks, unwrapped past 32 bits
    virtual QVariant utcDateTime() const = 0;    // QDateTime, UTC
    virtual QVariant temperature() const = 0;
    virtual QVector<double> acceleration() const = 0;
    virtual QVector<double> freeAcceleration() const = 0;
    virtual QVector<double> angularVelocity() const = 0;
    virtual QVector<double> magneticField() const = 0;
    virtual QVector<double> velocityIncrement() const = 0;
    virtual QVector<double> orientationIncrement() const = 0;
    // Orientation from whichever form the sample carries, in the coordinate frame of
    // `dataIdentifier` (format bits 2-3: 0 ENU, 4 NED, 8 NWU).
    virtual QVector<double> orientationQuaternion(quint16 dataIdentifier) const = 0;
    virtual QVector<double> orientationEuler(quint16 dataIdentifier) const = 0;
    virtual QVector<double> orientationMatrix(quint16 dataIdentifier) const = 0;
    virtual QVector<double> latitudeLongitude() const = 0;
    virtual bool containsAltitude() const = 0;
    virtual QVariant altitude() const = 0;
    virtual QVector<double> velocity(quint16 dataIdentifier) const = 0;
    virtual QVariant status() const = 0;
    virtual QVariant pressure() const = 0;
    virtual int updateRate() const = 0; // Hz, 0 when unknown
};

// Writes one device to one file. Made by a factory, deleted by the worker.
class AbstractExporter
{
public:
    virtual ~AbstractExporter() = default;
    // Creates the file and writes its header from the metadata (key → text); false when
    // the file cannot be made (errorString() says why).
    virtual bool open(const QMap<QString, QString>& metaData) = 0;
    // Writes the source's current sample; false on a write error.
    virtual bool writeFrame() = 0;
    // Completes and closes the file; false on a write error.
    virtual bool finalize() = 0;
    virtual QString errorString() const = 0;
};

class AbstractExporterFactory
{
public:
    virtual ~AbstractExporterFactory() = default;
    virtual QString name() const = 0;                 // shown in lists, chosen with --format
    virtual QString description() const = 0;          // one line
    virtual QString fileSuffix() const = 0;           // without the dot: "csv"
    virtual QStringList supportedOptions() const = 0; // ExportOption keys
    // An exporter of `source` into `fileName`; the caller owns it.
    virtual AbstractExporter* createExporter(AbstractExportSource& source, const QString& fileName,
                                             const QVariantMap& options) const = 0;
};

#define AbstractExporterFactory_iid "com.nivra.KvManager.AbstractExporterFactory/1.0"
Q_DECLARE_INTERFACE(AbstractExporterFactory, AbstractExporterFactory_iid)
