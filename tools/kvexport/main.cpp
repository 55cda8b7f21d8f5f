// kvexport: exports a recording (kvb, bin, nm) through an exporter plug-in, without a
// screen. The same worker as the application's export, with the plug-ins found in the
// "plugins" folder next to this program.

#include "abstractexporter.h"
#include "exportworker.h"
#include "ndacontrol.h"
#include "ndametatypes.h"
#include "pluginmanager.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cmath>
#include <cstdio>
#include <limits>
#include <unistd.h>

namespace {

enum ExitCode
{
    ExitOk = 0,
    ExitFailed = 1,
    ExitUsage = 2,
};

void printError(const QString& text)
{
    std::fprintf(stderr, "kvexport: %s\n", qPrintable(text));
}

bool parseSeconds(const QCommandLineParser& parser, const QString& option, double& out)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    out = parser.value(option).toDouble(&ok);
    if (!ok || !std::isfinite(out) || out < 0) {
        printError(QStringLiteral("--%1 wants seconds (a number of 0 or more), not \"%2\"")
                       .arg(option, parser.value(option)));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kvexport"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KV_VERSION_TEXT));
    qRegisterMetaType<NvDeviceId>();

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Exports every device of a recording (kvb, bin or nm) to a file each.\n"
        "Exit status 0 when every device was written, 1 on failure, 2 for a wrong command "
        "line."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("The recording."));
    const QCommandLineOption format(QStringLiteral("format"),
                                    QStringLiteral("Export format (default: text)."),
                                    QStringLiteral("NAME"));
    const QCommandLineOption listFormats(QStringLiteral("list-formats"),
                                         QStringLiteral("List the export formats and exit."));
    const QCommandLineOption from(QStringLiteral("from"),
                                  QStringLiteral("Start, seconds after the first sample."),
                                  QStringLiteral("S"));
    const QCommandLineOption to(QStringLiteral("to"),
                                QStringLiteral("End, seconds after the first sample."),
                                QStringLiteral("S"));
    const QCommandLineOption out(QStringLiteral("out"),
                                 QStringLiteral("Output folder (default: the recording's)."),
                                 QStringLiteral("DIR"));
    const QCommandLineOption separator(QStringLiteral("separator"),
                                       QStringLiteral("comma (default) or tab."),
                                       QStringLiteral("comma|tab"), QStringLiteral("comma"));
    const QCommandLineOption time(QStringLiteral("time"),
                                  QStringLiteral("Time column: the device's sample time "
                                                 "(default), the host's arrival time, or both."),
                                  QStringLiteral("sample|host|both"), QStringLiteral("sample"));
    parser.addOptions({format, listFormats, from, to, out, separator, time});
    parser.process(app);

    PluginManager plugins;
    plugins.loadPlugins(
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("plugins")));
    const QList<AbstractExporterFactory*> factories = plugins.pluginsOf<AbstractExporterFactory>();
    QStringList names;
    for (const AbstractExporterFactory* f : factories)
        names << f->name();

    if (parser.isSet(listFormats)) {
        if (factories.isEmpty()) {
            printError(QStringLiteral("No exporters are available."));
            return ExitFailed;
        }
        for (const AbstractExporterFactory* f : factories)
            std::printf("%-12s .%-6s %s\n", qPrintable(f->name()), qPrintable(f->fileSuffix()),
                        qPrintable(f->description()));
        return ExitOk;
    }

    const QStringList args = parser.positionalArguments();
    if (args.size() != 1) {
        printError(QStringLiteral("give one recording (kvexport --help)"));
        return ExitUsage;
    }
    const QString path = args.first();
    double fromSeconds = std::numeric_limits<double>::quiet_NaN();
    double toSeconds = std::numeric_limits<double>::quiet_NaN();
    if (!parseSeconds(parser, from.names().first(), fromSeconds) ||
        !parseSeconds(parser, to.names().first(), toSeconds))
        return ExitUsage;
    if (fromSeconds > toSeconds) {
        printError(QStringLiteral("--from lies after --to"));
        return ExitUsage;
    }
    const QString separatorName = parser.value(separator);
    if (separatorName != QLatin1String("comma") && separatorName != QLatin1String("tab")) {
        printError(QStringLiteral("--separator is comma or tab, not \"%1\"").arg(separatorName));
        return ExitUsage;
    }
    const QString timeName = parser.value(time);
    ExportWorker::TimeColumns timeColumns = ExportWorker::SampleTimeColumn;
    if (timeName == QLatin1String("host"))
        timeColumns = ExportWorker::HostTimeColumn;
    else if (timeName == QLatin1String("both"))
        timeColumns = ExportWorker::BothTimeColumns;
    else if (timeName != QLatin1String("sample")) {
        printError(QStringLiteral("--time is sample, host or both, not \"%1\"").arg(timeName));
        return ExitUsage;
    }

    if (factories.isEmpty()) {
        printError(QStringLiteral("No exporters are available."));
        return ExitFailed;
    }
    AbstractExporterFactory* factory = nullptr;
    const QString wanted = parser.isSet(format) ? parser.value(format) : QStringLiteral("text");
    for (AbstractExporterFactory* f : factories)
        if (f->name().compare(wanted, Qt::CaseInsensitive) == 0)
            factory = f;
    if (!factory && !parser.isSet(format))
        factory = factories.first();
    if (!factory) {
        printError(QStringLiteral("unknown format \"%1\"; available: %2")
                       .arg(wanted, names.join(QStringLiteral(", "))));
        return ExitFailed;
    }

    const QFileInfo input(path);
    if (!input.exists()) {
        printError(QStringLiteral("%1: no such file").arg(path));
        return ExitFailed;
    }
    if (!input.isFile()) {
        printError(QStringLiteral("%1: not a file").arg(path));
        return ExitFailed;
    }
    const QString outDir = parser.isSet(out) ? parser.value(out) : input.absolutePath();
    const QFileInfo outInfo(outDir);
    if (!outInfo.isDir()) {
        printError(QStringLiteral("%1: no such folder").arg(outDir));
        return ExitFailed;
    }
    if (!outInfo.isWritable()) {
        printError(QStringLiteral("%1: folder not writable").arg(outDir));
        return ExitFailed;
    }

    NdaControl control;
    NdaDevice& device = control.requestFileDevice(path);
    if (!device.isValid()) {
        printError(QStringLiteral("%1: cannot open: %2")
                       .arg(path, QString::fromUtf8(NvControl_lastResultText(nullptr))));
        return ExitFailed;
    }
    std::fprintf(stderr, "Loading %s\n", qPrintable(path));
    if (!NvDevice_loadLogFileAndWait(device.libraryDevice(), 0)) {
        printError(QStringLiteral("%1: cannot read: %2")
                       .arg(path, QString::fromUtf8(NvControl_lastResultText(nullptr))));
        control.releaseDevice(device);
        return ExitFailed;
    }

    ExportWorker worker(control);
    worker.setExporterFactory(factory);
    worker.setFileName(path);
    worker.setOutputFolder(QFileInfo(outDir).absoluteFilePath());
    worker.setOptions({{ExportOption::Separator, separatorName}});
    worker.setTimeRange(fromSeconds, toSeconds);
    worker.setTimeColumns(timeColumns);

    // On a terminal one line per step, its percentage rewritten in place; into a file or a
    // pipe, just the steps.
    const bool terminal = isatty(STDERR_FILENO);
    QString text;
    int percent = -1;
    const auto show = [&] {
        if (terminal) {
            std::fprintf(stderr, "\r%s %3d%%", qPrintable(text), qMax(percent, 0));
            std::fflush(stderr);
        }
    };
    const auto endLine = [&] {
        if (percent >= 0 && terminal)
            std::fputc('\n', stderr);
        percent = -1;
    };
    QObject::connect(&worker, &ExportWorker::progressTextChanged, &worker, [&](const QString& t) {
        endLine();
        text = t;
        percent = 0;
        if (terminal)
            show();
        else
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });
    QObject::connect(&worker, &ExportWorker::progressChanged, &worker, [&](int p) {
        if (p != percent && percent >= 0) {
            percent = p;
            show();
        }
    });
    QObject::connect(&worker, &ExportWorker::failed, &worker, [&](const QString& t) {
        endLine();
        printError(QString(t).replace(QLatin1Char('\n'), QStringLiteral(": ")));
    });
    worker.run();
    endLine();
    control.releaseDevice(device);

    for (const QString& written : worker.writtenFiles())
        std::printf("%s\n", qPrintable(written));
    return worker.outcome() == ExportWorker::Completed ? ExitOk : ExitFailed;
}
