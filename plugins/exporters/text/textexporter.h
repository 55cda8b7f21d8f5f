#pragma once
// Text export: a header of "// Key: value" comment lines from the metadata, a row of
// column names with units, then one row per sample and one column per value of the
// exported items. Numbers are written in their shortest form that reads back to the
// same double; a sample without an item leaves its cells empty.

#include "abstractexporter.h"

#include <QObject>
#include <QSaveFile>

#include <string>

class TextExporter : public AbstractExporter
{
public:
    TextExporter(AbstractExportSource& source, const QString& fileName, char separator);
    ~TextExporter() override;

    bool open(const QMap<QString, QString>& metaData) override;
    bool writeFrame() override;
    bool finalize() override;
    QString errorString() const override { return m_error; }

private:
    bool flush();
    void appendNumber(double value);

    AbstractExportSource& m_source;
    // Written under a temporary name and renamed when complete: an aborted or failed
    // export leaves no partial file, and an earlier file of the name stays until then.
    QSaveFile m_file;
    char m_separator;
    QList<ExportItem> m_items;
    std::string m_buffer;
    QString m_error;
};

class TextExporterFactory : public QObject, public AbstractExporterFactory
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID AbstractExporterFactory_iid)
    Q_INTERFACES(AbstractExporterFactory)

public:
    QString name() const override { return QStringLiteral("text"); }
    QString description() const override
    {
        return tr("Text: one row per sample, comma or tab separated values");
    }
    QString fileSuffix() const override { return QStringLiteral("csv"); }
    QStringList supportedOptions() const override { return {ExportOption::Separator}; }
    AbstractExporter* createExporter(AbstractExportSource& source, const QString& fileName,
                                     const QVariantMap& options) const override;
};
