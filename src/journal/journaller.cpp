#include "journaller.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <ctime>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

const char* const gLogLevelString[6] = {"[TRACE] ", "[DEBUG] ", "[ALERT] ",
                                        "[ERROR] ", "[FATAL] ", "[WRITE] "};

namespace {

const char* const kLevelNames[6] = {"trace", "debug", "alert", "error", "fatal", "write"};

std::atomic<Journaller*> gGlobalJournal{nullptr};
std::atomic<Journaller*> gCrashJournal{nullptr};

thread_local unsigned tCachedThreadId = 0;

// A forked child keeps the parent's thread-local cache but gets a new tid.
void forgetThreadIdAfterFork()
{
    tCachedThreadId = 0;
}

// Appends everything in sourceName to target; the source must already be flushed.
void copyFileContents(const std::string& sourceName, JournalFile& target)
{
    std::FILE* source = std::fopen(sourceName.c_str(), "rbe");
    if (!source)
        return;
    char buffer[8192];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof(buffer), source)) > 0)
        target << std::string(buffer, count);
    std::fclose(source);
}

std::string toForwardSlashes(std::string name)
{
    std::replace(name.begin(), name.end(), '\\', '/');
    return name;
}

void releaseFile(JournalFile* file)
{
    if (file->removeRef() == 0)
        delete file;
}

} // namespace

bool journalLevelFromText(const std::string& text, JournalLogLevel* level)
{
    int found = -1;
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '5') {
        found = text[0] - '0';
    } else {
        std::string lower(text);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        for (int i = 0; i < 6; ++i) {
            if (lower == kLevelNames[i])
                found = i;
        }
    }
    if (found < 0)
        return false;
    if (level)
        *level = static_cast<JournalLogLevel>(found);
    return true;
}

// ---------------------------------------------------------------------------------------

JournalFile::JournalFile(const std::string& fileName, bool purge) : m_fileName(fileName)
{
    // 'e': the log descriptor must not leak into processes we start.
    m_stream = std::fopen(fileName.c_str(), purge ? "we" : "ae");
}

JournalFile::~JournalFile()
{
    if (m_stream)
        std::fclose(m_stream);
}

bool JournalFile::isOpen() const
{
    return m_stream != nullptr;
}

const std::string& JournalFile::fileName() const
{
    return m_fileName;
}

JournalFile& JournalFile::operator<<(const std::string& text)
{
    if (m_stream)
        std::fwrite(text.data(), 1, text.size(), m_stream);
    return *this;
}

JournalFile& JournalFile::operator<<(const char* text)
{
    if (m_stream && text)
        std::fputs(text, m_stream);
    return *this;
}

void JournalFile::flush()
{
    if (m_stream)
        std::fflush(m_stream);
}

void JournalFile::addRef()
{
    m_refCount.fetch_add(1);
}

int JournalFile::removeRef()
{
    return m_refCount.fetch_sub(1) - 1;
}

int JournalFile::refCount() const
{
    return m_refCount.load();
}

// ---------------------------------------------------------------------------------------

unsigned JournalThreader::currentThreadId()
{
    static std::once_flag atForkRegistered;
    std::call_once(atForkRegistered,
                   [] { pthread_atfork(nullptr, nullptr, &forgetThreadIdAfterFork); });
    if (tCachedThreadId == 0)
        tCachedThreadId = static_cast<unsigned>(syscall(SYS_gettid));
    return tCachedThreadId;
}

// ---------------------------------------------------------------------------------------

std::atomic<JournalAdditionalLogger*> Journaller::m_additionalLogger{nullptr};

Journaller::Journaller(const std::string& fileName, bool purge, JournalLogLevel level)
    : m_file(new JournalFile(fileName, purge)), m_threader(std::make_shared<JournalThreader>()),
      m_logLevel(level)
{
    primeCallstack();
}

Journaller::~Journaller()
{
    std::lock_guard<std::timed_mutex> lock(m_threader->mutex());
    m_file->flush();
    releaseFile(m_file);
    m_file = nullptr;
}

void Journaller::log(JournalLogLevel level, const std::string& text)
{
    if (level < m_logLevel.load() && level < m_debugLevel.load())
        return;
    writeLine(level, text, false);
}

void Journaller::setLogLevel(JournalLogLevel level, bool noteChange)
{
    m_logLevel = level;
    if (noteChange)
        writeLine(JLL_WRITE, std::string("Log level set to ") + gLogLevelString[level], false);
}

void Journaller::setDebugLevel(JournalLogLevel level, bool noteChange)
{
    m_debugLevel = level;
    if (noteChange)
        writeLine(JLL_WRITE, std::string("Debug level set to ") + gLogLevelString[level], false);
}

void Journaller::setFlushLevel(JournalLogLevel level, bool noteChange)
{
    m_flushLevel = level;
    if (noteChange)
        writeLine(JLL_WRITE, std::string("Flush level set to ") + gLogLevelString[level], false);
}

void Journaller::setTag(const std::string& tag)
{
    std::lock_guard<std::mutex> lock(m_tagMutex);
    m_tag = tag;
}

std::string Journaller::tag() const
{
    std::lock_guard<std::mutex> lock(m_tagMutex);
    return m_tag;
}

std::string Journaller::fileName() const
{
    std::lock_guard<std::timed_mutex> lock(m_threader->mutex());
    return m_file->fileName();
}

void Journaller::writeFileHeader(const std::string& text)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char date[64];
    // ISO with the UTC offset, so the epoch seconds of the lines can be related to it.
    std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S %z", &local);
    writeLine(JLL_WRITE, "Journaller logging to " + fileName() + " for " + text + " on " + date,
              true, false);
}

bool Journaller::moveLogFile(const std::string& newFileName, bool purge, bool copyContents)
{
    const std::string name = toForwardSlashes(newFileName);
    if (name == fileName())
        return true;

    auto* newFile = new JournalFile(name, purge);
    if (!newFile->isOpen()) {
        delete newFile;
        writeLine(JLL_WRITE, "Could not switch to new log location " + name, true);
        return false;
    }

    std::lock_guard<std::timed_mutex> lock(m_threader->mutex());
    putLine(JLL_WRITE, formatLine(JLL_WRITE, "Switching to file " + name), true);
    if (copyContents)
        copyFileContents(m_file->fileName(), *newFile);
    releaseFile(m_file);
    m_file = newFile;
    return true;
}

bool Journaller::moveLogs(Journaller& other, bool copyContents)
{
    if (&other == this)
        return true;

    std::unique_lock<std::timed_mutex> ownLock(m_threader->mutex(), std::defer_lock);
    std::unique_lock<std::timed_mutex> otherLock(other.m_threader->mutex(), std::defer_lock);
    if (m_threader == other.m_threader)
        ownLock.lock();
    else
        std::lock(ownLock, otherLock);

    if (m_file == other.m_file)
        return true;
    const std::string name = other.m_file->fileName();
    if (!other.m_file->isOpen()) {
        putLine(JLL_WRITE, formatLine(JLL_WRITE, "Could not switch to new log location " + name),
                true);
        return false;
    }

    putLine(JLL_WRITE, formatLine(JLL_WRITE, "Switching to file " + name), true);
    if (copyContents)
        copyFileContents(m_file->fileName(), *other.m_file);
    other.m_file->addRef();
    releaseFile(m_file);
    m_file = other.m_file;

    // Our lock must be released before the threader that owns it can go away.
    auto sharedThreader = other.m_threader;
    otherLock = {};
    ownLock = {};
    m_threader = std::move(sharedThreader);
    return true;
}

void Journaller::flush()
{
    std::lock_guard<std::timed_mutex> lock(m_threader->mutex());
    m_file->flush();
}

void Journaller::setAdditionalLogger(JournalAdditionalLogger* logger)
{
    m_additionalLogger = logger;
}

JournalAdditionalLogger* Journaller::additionalLogger()
{
    return m_additionalLogger.load();
}

void Journaller::writeLine(JournalLogLevel level, const std::string& text, bool forceFlush,
                           bool echo)
{
    const std::string line = formatLine(level, text);
    std::lock_guard<std::timed_mutex> lock(m_threader->mutex());
    putLine(level, line, forceFlush, echo);
}

std::string Journaller::formatLine(JournalLogLevel level, const std::string& text) const
{
    char thread[16];
    std::snprintf(thread, sizeof(thread), "<%08X> ", JournalThreader::currentThreadId());
    std::string line = timeText();
    line += thread;
    {
        std::lock_guard<std::mutex> lock(m_tagMutex);
        if (!m_tag.empty()) {
            line += m_tag;
            line += ' ';
        }
    }
    line += gLogLevelString[level];
    line += text;
    line += '\n';
    return line;
}

void Journaller::putLine(JournalLogLevel level, const std::string& line, bool forceFlush, bool echo)
{
    if (level >= m_logLevel.load()) {
        *m_file << line;
        if (forceFlush || level >= m_flushLevel.load())
            m_file->flush();
    }
    if (echo && level >= m_debugLevel.load())
        std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string Journaller::timeText() const
{
    using namespace std::chrono;
    const auto sinceEpoch = system_clock::now().time_since_epoch();
    const auto seconds = duration_cast<std::chrono::seconds>(sinceEpoch);
    const int millis = static_cast<int>(duration_cast<milliseconds>(sinceEpoch - seconds).count());
    char text[48];
    if (m_calendarTime) {
        const std::time_t now = static_cast<std::time_t>(seconds.count());
        std::tm local{};
        localtime_r(&now, &local);
        const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
        std::snprintf(text + length, sizeof(text) - length, ".%03d ", millis);
    } else {
        std::snprintf(text, sizeof(text), "%10ld.%03d ", static_cast<long>(seconds.count()),
                      millis);
    }
    return text;
}

// ---------------------------------------------------------------------------------------

void jlSetGlobalJournal(Journaller* journal)
{
    gGlobalJournal = journal;
}

Journaller* jlGlobalJournal()
{
    return gGlobalJournal.load();
}

void jlSetCrashJournal(Journaller* journal)
{
    gCrashJournal = journal;
}

Journaller* jlCrashJournal()
{
    return gCrashJournal.load();
}

void jlTerminate(Journaller* journal)
{
    if (!journal)
        return;
    journal->flush();
    Journaller* expected = journal;
    gGlobalJournal.compare_exchange_strong(expected, nullptr);
    expected = journal;
    gCrashJournal.compare_exchange_strong(expected, nullptr);
    delete journal;
}

void jlLog(JournalLogLevel level, const std::string& text)
{
    if (Journaller* journal = gGlobalJournal.load())
        journal->log(level, text);
}
