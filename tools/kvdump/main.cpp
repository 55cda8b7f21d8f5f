// kvdump: prints the frames of a recording or of a live port one per line, decoded with
// the same message database as the application's protocol tools.

#include "dumpoutput.h"
#include "ndalogfile.h"
#include "nvframeparser.h"
#include "nvmessage.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

const char* const Help =
    "usage: kvdump [OPTIONS] FILE\n"
    "       kvdump [OPTIONS] --port NAME [--baud RATE] [--config]\n"
    "\n"
    "Prints every frame of a recording (kvb, bin or nm) or of a live serial port, one line\n"
    "per frame:\n"
    "  TIME DIR BUS NAME LENGTH name=value ...\n"
    "TIME is host UTC (kvb: from the file's time marks; port: when read; '-' when unknown),\n"
    "DIR '>' host to device, '<' device to host, '-' a kvb's own frames (FileHeader,\n"
    "TimeMark, FileEnd, bus 00), BUS the bus id in hex, LENGTH the data bytes. nm files print\n"
    "each NMEA sentence as it is. A frame that does not decode (checksum error, unknown\n"
    "message, data that does not fit its format) is printed with error=\"reason\" and its\n"
    "bytes; bytes between frames are printed as 'skipped N bytes'. A summary goes to\n"
    "standard error.\n"
    "\n"
    "Options:\n"
    "  --port NAME        listen on a serial port or pseudo-terminal, read-only; nothing is\n"
    "                     sent unless --config is given. Ends with Ctrl-C, --count or\n"
    "                     when the port closes.\n"
    "  --baud RATE        port speed (default 115200)\n"
    "  --config           send GoToConfig, then the requests that describe the device\n"
    "                     (DeviceId, ProductCode, FirmwareRevision, HardwareVersion,\n"
    "                     OutputConfiguration, SyncSettings, LocationId, FilterProfile),\n"
    "                     print what goes out and what comes back, and end. The device is\n"
    "                     left in configuration mode.\n"
    "  --raw              add the frame's bytes in hex\n"
    "  --filter NAME      print only this message (case-insensitive, e.g. DataPacket;\n"
    "                     nm files: a sentence such as GPGGA, or NMEA for all);\n"
    "                     repeatable. Skipped bytes are then only counted.\n"
    "  --json             one JSON object per line: time, dir, bus, mid, name, length,\n"
    "                     fields {name: value}, raw (with --raw or an error), error;\n"
    "                     skipped bytes as {time, skipped, raw}\n"
    "  --count N          stop after N printed frames\n"
    "  --structure FILE   message definitions (default: messages_structure.txt beside\n"
    "                     kvdump)\n"
    "  -h, --help         this text\n"
    "\n"
    "Exit status: 0 done; 1 the input cannot be read (missing, not a recording, a port that\n"
    "does not open, a device that does not answer --config) or the definition file has\n"
    "errors; 2 a wrong command line.\n";

std::atomic<bool> g_stop{false};

void onSignal(int)
{
    g_stop = true;
}

int usageError(const QString& text)
{
    std::fprintf(stderr, "kvdump: %s\nTry 'kvdump --help'.\n", qPrintable(text));
    return 2;
}

int inputError(const QString& text)
{
    std::fprintf(stderr, "kvdump: %s\n", qPrintable(text));
    return 1;
}

uint64_t nowNs()
{
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count());
}

uint64_t bigEndian64(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = v << 8 | p[i];
    return v;
}

// Runs of skipped bytes arrive in pieces; a bad frame is only recognisable in the whole run.
class SkipCollector
{
public:
    explicit SkipCollector(FrameDumper& dumper) : m_dumper(dumper) {}
    void add(uint64_t timeNs, const uint8_t* bytes, size_t size)
    {
        if (m_bytes.empty())
            m_time = timeNs;
        m_bytes.insert(m_bytes.end(), bytes, bytes + size);
    }
    void flush()
    {
        if (!m_bytes.empty())
            m_dumper.skipped(m_time, m_bytes.data(), m_bytes.size());
        m_bytes.clear();
    }

private:
    FrameDumper& m_dumper;
    std::vector<uint8_t> m_bytes;
    uint64_t m_time = 0;
};

void summary(const FrameDumper& dumper)
{
    std::fflush(stdout);
    std::fprintf(stderr,
                 "kvdump: %llu frames, %llu printed, %llu with errors, %llu bytes skipped\n",
                 static_cast<unsigned long long>(dumper.frames()),
                 static_cast<unsigned long long>(dumper.printed()),
                 static_cast<unsigned long long>(dumper.errors()),
                 static_cast<unsigned long long>(dumper.skippedBytes()));
}

int dumpFrames(const QString& path, bool kvb, FrameDumper& dumper)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return inputError(QStringLiteral("%1: %2").arg(path, file.errorString()));
    const qint64 size = file.size();
    QByteArray copy;
    const uint8_t* bytes = file.map(0, size);
    if (!bytes) {
        copy = file.readAll();
        bytes = reinterpret_cast<const uint8_t*>(copy.constData());
    }
    NvFrameParser parser;
    SkipCollector skips(dumper);
    dumper.setKvb(kvb);
    uint64_t time = 0;
    bool more = true;
    auto onFrame = [&](const NvFrameView& view) {
        if (!more)
            return;
        skips.flush();
        DumpFrame f;
        f.frame = view.frame;
        f.size = view.size;
        if (kvb && view.busId() == nda::LogFileBusId && view.dataSize() >= 8 &&
            (view.messageId() == nda::LogMid::TimeMark ||
             (view.messageId() == nda::LogMid::Header && view.dataSize() >= 24)))
            time = bigEndian64(view.data() + (view.messageId() == nda::LogMid::Header ? 8 : 0));
        f.timeNs = time;
        more = dumper.frame(f);
    };
    auto onSkipped = [&](const uint8_t* skipped, size_t count) { skips.add(time, skipped, count); };
    // In slices, so that --count on a long recording ends without reading all of it.
    constexpr size_t Slice = size_t(1) << 20;
    for (size_t at = 0; at < size_t(size) && more; at += Slice)
        parser.feed(bytes + at, std::min(Slice, size_t(size) - at), onFrame, onSkipped);
    // A frame cut by the end of the file (a crash, a full disk) is the file's last bytes.
    const size_t cut = parser.pendingBytes();
    if (more && cut > 0 && cut <= size_t(size))
        skips.add(time, bytes + size - cut, cut);
    parser.flush();
    if (more)
        skips.flush();
    summary(dumper);
    return 0;
}

bool nmeaChecksumOk(const std::string& s)
{
    const size_t star = s.rfind('*');
    if (star == std::string::npos || star + 3 != s.size())
        return false;
    uint8_t sum = 0;
    for (size_t i = 1; i < star; ++i)
        sum ^= uint8_t(s[i]);
    char* end = nullptr;
    const unsigned long given = std::strtoul(s.c_str() + star + 1, &end, 16);
    return end == s.c_str() + s.size() && given == sum;
}

int dumpNmea(const QString& path, FrameDumper& dumper)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return inputError(QStringLiteral("%1: %2").arg(path, file.errorString()));
    while (!file.atEnd() && !dumper.done()) {
        QByteArray line = file.readLine();
        while (line.endsWith('\n') || line.endsWith('\r'))
            line.chop(1);
        qsizetype start = line.indexOf('$');
        const qsizetype bang = line.indexOf('!');
        if (start < 0 || (bang >= 0 && bang < start))
            start = bang;
        const qsizetype star = start < 0 ? -1 : line.lastIndexOf('*');
        if (start < 0 || star < start || star + 3 > line.size()) {
            if (!line.isEmpty())
                dumper.skipped(0, reinterpret_cast<const uint8_t*>(line.constData()),
                               size_t(line.size()));
            continue;
        }
        if (start > 0)
            dumper.skipped(0, reinterpret_cast<const uint8_t*>(line.constData()), size_t(start));
        const std::string sentence = line.mid(start, star + 3 - start).toStdString();
        dumper.sentence(sentence, nmeaChecksumOk(sentence));
        const qsizetype rest = line.size() - (star + 3);
        if (rest > 0)
            dumper.skipped(0, reinterpret_cast<const uint8_t*>(line.constData() + star + 3),
                           size_t(rest));
    }
    summary(dumper);
    return 0;
}

speed_t speedOf(int baud)
{
    switch (baud) {
    case 9600:
        return B9600;
    case 19200:
        return B19200;
    case 38400:
        return B38400;
    case 57600:
        return B57600;
    case 115200:
        return B115200;
    case 230400:
        return B230400;
    case 460800:
        return B460800;
    case 921600:
        return B921600;
    case 2000000:
        return B2000000;
    case 4000000:
        return B4000000;
    default:
        return B0;
    }
}

class PortReader
{
public:
    PortReader(int fd, FrameDumper& dumper) : m_fd(fd), m_dumper(dumper), m_skips(dumper) {}

    // Reads for up to `timeoutMs` (or until stopped); -1 when the port closed or failed.
    // Frames of message id `waitMid` (or an Error) end the wait early: the return is 1.
    int read(int timeoutMs, int waitMid = -1)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!g_stop && !m_dumper.done()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  end - std::chrono::steady_clock::now())
                                  .count();
            if (timeoutMs >= 0 && left <= 0)
                return 0;
            pollfd p{m_fd, POLLIN, 0};
            const int r = ::poll(&p, 1, timeoutMs < 0 ? 200 : int(std::min<long long>(left, 200)));
            if (r < 0 && errno == EINTR)
                continue;
            if (r < 0)
                return -1;
            if (r == 0)
                continue;
            uint8_t buffer[4096];
            const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n < 0 && (errno == EAGAIN || errno == EINTR))
                continue;
            if (n <= 0)
                return -1; // hang-up: the other side closed
            const uint64_t time = nowNs();
            m_lastTime = time;
            m_recent.insert(m_recent.end(), buffer, buffer + n);
            if (m_recent.size() > RecentBytes)
                m_recent.erase(m_recent.begin(), m_recent.end() - RecentBytes);
            bool matched = false;
            m_parser.feed(
                buffer, size_t(n),
                [&](const NvFrameView& view) {
                    if (m_dumper.done())
                        return;
                    m_skips.flush();
                    DumpFrame f;
                    f.timeNs = time;
                    f.frame = view.frame;
                    f.size = view.size;
                    m_dumper.frame(f);
                    if (waitMid >= 0 &&
                        (view.messageId() == waitMid || view.messageId() == NvMid::Error))
                        matched = true;
                },
                [&](const uint8_t* bytes, size_t count) { m_skips.add(time, bytes, count); });
            if (matched)
                return 1;
        }
        return 0;
    }
    void finish()
    {
        // A frame the port stopped in the middle of is shown like other stray bytes.
        const size_t cut = m_parser.pendingBytes();
        if (!m_dumper.done() && cut > 0 && cut <= m_recent.size())
            m_skips.add(m_lastTime, m_recent.data() + m_recent.size() - cut, cut);
        m_parser.flush();
        if (!m_dumper.done())
            m_skips.flush();
    }

private:
    int m_fd;
    FrameDumper& m_dumper;
    NvFrameParser m_parser;
    SkipCollector m_skips;
    // The last bytes read: enough to hold any frame the parser still waits to complete.
    static constexpr size_t RecentBytes = 4096;
    std::vector<uint8_t> m_recent;
    uint64_t m_lastTime = 0;
};

int dumpPort(const QString& name, int baud, bool config, FrameDumper& dumper)
{
    const QByteArray path = QFile::encodeName(name);
    const int fd = ::open(path.constData(), (config ? O_RDWR : O_RDONLY) | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return inputError(
            QStringLiteral("%1: %2").arg(name, QString::fromLocal8Bit(std::strerror(errno))));
    termios saved{};
    const bool tty = ::tcgetattr(fd, &saved) == 0;
    if (tty) {
        termios t = saved;
        ::cfmakeraw(&t);
        t.c_cflag |= CLOCAL | CREAD;
        t.c_cc[VMIN] = 0;
        t.c_cc[VTIME] = 0;
        ::cfsetispeed(&t, speedOf(baud));
        ::cfsetospeed(&t, speedOf(baud));
        ::tcsetattr(fd, TCSANOW, &t);
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    // Someone watching a port through a pipe wants each line as it happens.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    PortReader reader(fd, dumper);
    int status = 0;
    if (!config) {
        if (reader.read(-1) < 0)
            std::fprintf(stderr, "kvdump: %s: the port closed\n", qPrintable(name));
    } else {
        struct Request
        {
            uint8_t mid;
            int timeoutMs;
        };
        // What the device library asks to describe a device in a recording.
        const Request requests[] = {
            {NvMid::GoToConfig, 3000},         {NvMid::ReqDeviceId, 2000},
            {NvMid::ReqProductCode, 2000},     {NvMid::ReqFirmwareRevision, 2000},
            {NvMid::ReqHardwareVersion, 2000}, {NvMid::ReqOutputConfiguration, 2000},
            {NvMid::ReqSyncSettings, 2000},    {NvMid::ReqLocationId, 2000},
            {NvMid::ReqFilterProfile, 2000}};
        for (const Request& request : requests) {
            if (g_stop || dumper.done())
                break;
            const NvMessage message(0xFF, request.mid);
            DumpFrame f;
            f.timeNs = nowNs();
            f.dir = '>';
            f.frame = message.frame();
            f.size = message.frameSize();
            dumper.frame(f);
            if (::write(fd, message.frame(), message.frameSize()) != ssize_t(message.frameSize())) {
                status = inputError(QStringLiteral("%1: cannot send: %2")
                                        .arg(name, QString::fromLocal8Bit(std::strerror(errno))));
                break;
            }
            const int r = reader.read(request.timeoutMs, request.mid + 1);
            if (r < 0) {
                status = inputError(QStringLiteral("%1: the port closed").arg(name));
                break;
            }
            if (r == 0 && request.mid == NvMid::GoToConfig && !g_stop && !dumper.done()) {
                status = inputError(QStringLiteral("%1: no GoToConfigAck").arg(name));
                break;
            }
        }
    }
    reader.finish();
    if (tty)
        ::tcsetattr(fd, TCSANOW, &saved);
    ::close(fd);
    summary(dumper);
    return status;
}

QString resultText(NvResultValue rc)
{
    switch (rc) {
    case NRV_FILE_NOT_FOUND:
        return QStringLiteral("no such file");
    case NRV_NOT_A_REGULAR_FILE:
        return QStringLiteral("not a regular file");
    case NRV_NOT_A_RECORDING:
        return QStringLiteral("not a recording (neither kvb, bin nor nm)");
    case NRV_FILE_DAMAGED:
        return QStringLiteral("damaged kvb: its header frame is cut or wrong");
    case NRV_FILE_VERSION_UNSUPPORTED:
        return QStringLiteral("a kvb of a newer format");
    default:
        return QString::fromLatin1(nvResultValueText(rc));
    }
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QString());
    const QCommandLineOption port(QStringLiteral("port"), QString(), QStringLiteral("NAME"));
    const QCommandLineOption baud(QStringLiteral("baud"), QString(), QStringLiteral("RATE"),
                                  QStringLiteral("115200"));
    const QCommandLineOption config(QStringLiteral("config"), QString());
    const QCommandLineOption raw(QStringLiteral("raw"), QString());
    const QCommandLineOption filter(QStringLiteral("filter"), QString(), QStringLiteral("NAME"));
    const QCommandLineOption json(QStringLiteral("json"), QString());
    const QCommandLineOption count(QStringLiteral("count"), QString(), QStringLiteral("N"));
    const QCommandLineOption structure(QStringLiteral("structure"), QString(),
                                       QStringLiteral("FILE"));
    parser.addOptions({help, port, baud, config, raw, filter, json, count, structure});
    parser.addPositionalArgument(QStringLiteral("FILE"), QString());
    if (!parser.parse(app.arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(help)) {
        std::fputs(Help, stdout);
        return 0;
    }
    const QStringList files = parser.positionalArguments();
    const bool live = parser.isSet(port);
    if (live ? !files.isEmpty() : files.size() != 1)
        return usageError(QStringLiteral("give one recording, or --port NAME"));
    if (parser.isSet(config) && !live)
        return usageError(QStringLiteral("--config needs --port"));
    bool ok = false;
    const int rate = parser.value(baud).toInt(&ok);
    if (!ok || speedOf(rate) == B0)
        return usageError(QStringLiteral("unsupported baud rate '%1'").arg(parser.value(baud)));

    DumpOptions options;
    options.raw = parser.isSet(raw);
    options.json = parser.isSet(json);
    if (parser.isSet(count)) {
        options.count = parser.value(count).toULongLong(&ok);
        if (!ok || options.count == 0)
            return usageError(QStringLiteral("--count wants a positive number, not '%1'")
                                  .arg(parser.value(count)));
    }
    for (const QString& name : parser.values(filter))
        options.filters.insert(name.toLower());

    const QString structurePath =
        parser.isSet(structure)
            ? parser.value(structure)
            : QCoreApplication::applicationDirPath() + QLatin1Char('/') +
                  QString::fromLatin1(NvMessagesStructure::m_MessagesStructureFileName);
    NvMessagesStructure database;
    if (!QFileInfo(structurePath).isFile() || !database.read(structurePath))
        return inputError(
            QStringLiteral("%1: cannot read the message definitions").arg(structurePath));
    const auto broken = database.parseErrors();
    if (!broken.empty()) {
        for (const NvMessageStructure* entry : broken)
            std::fprintf(stderr, "kvdump: %s: message %s: data format does not parse: %s\n",
                         qPrintable(structurePath), qPrintable(entry->identifier().toString()),
                         entry->dataFormatString().c_str());
        return 1;
    }
    if (!database.hasTable(NvMessagesStructure::m_MIDTypeString))
        return inputError(QStringLiteral("%1: defines no messages").arg(structurePath));

    nda::LogReader::Type type = nda::LogReader::Type::Bin;
    if (!live) {
        nda::LogReader identify;
        const NvResultValue rc = identify.open(QFile::encodeName(files.front()).toStdString());
        if (rc != NRV_OK)
            return inputError(QStringLiteral("%1: %2").arg(files.front(), resultText(rc)));
        type = identify.type();
    }
    if (live || type != nda::LogReader::Type::Nm) {
        // Catch a misspelt filter now rather than print nothing.
        const QSet<QString> known = FrameDumper::knownNames(database);
        for (const QString& name : std::as_const(options.filters))
            if (!known.contains(name))
                return usageError(
                    QStringLiteral("no message named '%1' in %2").arg(name, structurePath));
    }

    FrameDumper dumper(database, options);
    if (live)
        return dumpPort(parser.value(port), rate, parser.isSet(config), dumper);
    if (type == nda::LogReader::Type::Nm)
        return dumpNmea(files.front(), dumper);
    return dumpFrames(files.front(), type == nda::LogReader::Type::Kvb, dumper);
}
