#pragma once
// Writes the devices of a loaded recording, one file each, through an exporter that a
// plug-in supplies. A worker object: set it up on the GUI thread, move it to a thread of
// its own and call run() there; abort() may be called from any thread.
//
// It reads the recording through the device library only (never through the GUI
// thread's wrappers), so it needs nothing of the GUI thread while it runs.

#include "abstractexporter.h"
#include "ndametatypes.h"

#include <nivradeviceapi.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <limits>
#include <map>
#include <set>

class NdaControl;

class ExportWorker : public QObject, public AbstractExportSource
{
    Q_OBJECT

public:
    enum TimeColumns
    {
        SampleTimeColumn = 1, // seconds of device time since the device's first sample
        HostTimeColumn = 2,   // host UTC at which the sample was read
        BothTimeColumns = 3,
    };
    Q_ENUM(TimeColumns)

    // What run() ended with.
    enum Outcome
    {
        NotRun,
        Completed, // every device written
        Failed,    // at least one device could not be written; the others were
        Aborted,
    };

    explicit ExportWorker(NdaControl& control, QObject* parent = nullptr);
    ~ExportWorker() override;

    // ---- Set-up, before run()
    void setExporterFactory(AbstractExporterFactory* factory) { m_factory = factory; }
    AbstractExporterFactory* exporterFactory() const { return m_factory; }
    // The recording (as opened: its first part); its devices must be loaded.
    void setFileName(const QString& path) { m_fileName = path; }
    QString fileName() const { return m_fileName; }
    // The folder the files go to; empty: the recording's own.
    void setOutputFolder(const QString& folder) { m_outputFolder = folder; }
    QString outputFolder() const { return m_outputFolder; }
    // Options for the exporter (ExportOption keys).
    void setOptions(const QVariantMap& options) { m_options = options; }
    // Seconds of device time since each device's first sample (by its UTC item where it
    // has no sample time); NaN leaves that end open.
    void setTimeRange(double from, double to)
    {
        m_from = from;
        m_to = to;
    }
    // Quantities to export (format bits ignored); empty: every item the recording has.
    void setQuantities(const std::set<quint16>& quantities);
    void setTimeColumns(TimeColumns columns) { m_timeColumns = columns; }
    TimeColumns timeColumns() const { return m_timeColumns; }
    // The filter scenario the recording was processed with, for exporters that ask.
    void setScenario(int scenario) { m_scenario = scenario; }
    int scenario() const { return m_scenario; }
    NdaControl& getControl() const { return m_control; }

    // The devices of the recording that have samples, in identifier order.
    NvDeviceIdArray exportableDevices() const;
    // The file each of those devices goes to: the recording's name with the exporter's
    // suffix in the output folder, extended by the device identifier where several
    // devices would share one name.
    std::map<NvDeviceId, QString> plannedFileNames() const;

    // ---- After run()
    Outcome outcome() const { return m_outcome; }
    QStringList writtenFiles() const { return m_written; }
    QStringList failures() const { return m_failures; }

    // Metadata for the header of `path`, of the device being exported.
    QMap<QString, QString> metaData(const QString& path) const;
    // "<folder of fileName>/<name without suffix><addition>.<complete suffix>".
    static QString extendFilename(const QString& fileName, const QString& addition);
    // The names in `names` that more than one device would use, with those devices.
    static void findDuplicateFileNames(const std::map<NvDeviceId, QString>& names,
                                       std::map<QString, std::set<NvDeviceId>>& duplicates);
    // Every item the sample carries: what the columns of an export of it would be.
    static ExportItem describeItem(quint16 dataIdentifier);
    void logUsageEvent(const QString& text) const;

    // ---- AbstractExportSource
    QString deviceIdText() const override;
    QList<ExportItem> exportedItems() const override { return m_items; }
    bool exportsSampleTime() const override { return m_timeColumns & SampleTimeColumn; }
    bool exportsHostTime() const override { return m_timeColumns & HostTimeColumn; }
    QVector<double> itemValues(quint16 quantity) const override;
    int itemValues(quint16 quantity, double* out, int capacity) const override;
    double sampleTime() const override { return m_sampleTime; }
    quint64 hostTimeNs() const override { return m_hostTime; }
    QVariant packetCounter() const override;
    bool containsSampleTimeFine() const override;
    QVariant sampleTimeFine() const override;
    QVariant sampleTime64() const override;
    QVariant utcDateTime() const override;
    QVariant temperature() const override;
    QVector<double> acceleration() const override;
    QVector<double> freeAcceleration() const override;
    QVector<double> angularVelocity() const override;
    QVector<double> magneticField() const override;
    QVector<double> velocityIncrement() const override;
    QVector<double> orientationIncrement() const override;
    QVector<double> orientationQuaternion(quint16 dataIdentifier) const override;
    QVector<double> orientationEuler(quint16 dataIdentifier) const override;
    QVector<double> orientationMatrix(quint16 dataIdentifier) const override;
    QVector<double> latitudeLongitude() const override;
    bool containsAltitude() const override;
    QVariant altitude() const override;
    QVector<double> velocity(quint16 dataIdentifier) const override;
    QVariant status() const override;
    QVariant pressure() const override;
    int updateRate() const override;
    // More of the current sample, for exporters that know this class.
    QVariant utc() const;
    QVariant scrTemperature() const { return {}; } // raw sensor data is not recorded
    QVariant scrGyroTemperature() const { return {}; }
    QVector<double> accelerationHR() const;
    QVector<double> scrAcceleration() const { return {}; }
    QVector<double> rateOfTurnHR() const;
    QVector<double> scrGyroscopeData() const { return {}; }
    QVector<double> scrMagneticField() const { return {}; }
    QVariant analogIn1() const;
    QVariant analogIn2() const;
    QVariant clipFlags() const { return {}; }
    QVariant pressureAge() const { return {}; }
    QVariant rssi() const;
    QVector<double> rawGnssPvtData() const;
    QVector<double> rawGnssSatInfo() const;
    QVariant triggerIndicationData(quint16) const { return {}; }
    int updateRate(quint16 dataIdentifier) const;

public slots:
    // Exports every exportable device, or stops at an abort.
    void run();
    // One device; false when it could not be written or the export was aborted.
    bool exportDevice(const NvDeviceId& id);
    void abort() { m_abort = true; }
    // The recording could not be opened for export.
    void onOpenFileFailed(int mode, const QString& path);

signals:
    void progressChanged(int percent);
    void progressTextChanged(const QString& text);
    void failed(const QString& text);
    void aborted();
    void fileWritten(const QString& path);
    // run() is over, whatever its outcome.
    void finished();

private:
    enum class Result
    {
        Written,
        Failed,
        Aborted
    };
    Result exportOne(const NvDeviceId& id, const QString& path);
    void fail(const QString& text, const QString& detail);
    bool selectItems(NvDevice* device, int64_t count);
    void setPacket(const NvDataPacket& packet, uint64_t hostTime);
    QVector<double> vector3(quint16 quantity) const;
    // The value of an item of one whole number; false for other items.
    bool scalarValue(NvDataIdentifier quantity, double& value) const;

    NdaControl& m_control;
    AbstractExporterFactory* m_factory = nullptr;
    QString m_fileName;
    QString m_outputFolder;
    QVariantMap m_options;
    double m_from = std::numeric_limits<double>::quiet_NaN();
    double m_to = std::numeric_limits<double>::quiet_NaN();
    std::set<quint16> m_quantities;
    TimeColumns m_timeColumns = SampleTimeColumn;
    int m_scenario = -1;
    std::atomic<bool> m_abort{false};
    Outcome m_outcome = NotRun;
    QStringList m_written;
    QStringList m_failures;

    // The device being exported and where it stands (worker thread).
    NvDeviceRef m_device;
    NvDeviceId m_deviceId;
    QList<ExportItem> m_items;
    NvDataPacket m_packet;
    uint64_t m_hostTime = 0;
    double m_sampleTime = std::numeric_limits<double>::quiet_NaN();
    bool m_haveTicks = false;
    uint32_t m_lastTicks = 0;
    int64_t m_ticks64 = 0;
    int64_t m_firstTicks = 0;
    bool m_haveUtc = false;
    int64_t m_firstUtcNs = 0;
};
