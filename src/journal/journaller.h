#pragma once

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

// The application's diagnostic log: time-stamped lines from any thread into one file,
// with separate thresholds for what is written, what is echoed to debug output (stderr)
// and what forces a flush.

enum JournalLogLevel
{
    JLL_TRACE = 0,
    JLL_DEBUG = 1,
    JLL_ALERT = 2,
    JLL_ERROR = 3,
    JLL_FATAL = 4,
    JLL_WRITE = 5,
};

// Indexed by JournalLogLevel: "[TRACE] " ... "[WRITE] ".
extern const char* const gLogLevelString[6];

// Parses "trace", "DEBUG", "2", ... into a level; false when the text names none.
bool journalLevelFromText(const std::string& text, JournalLogLevel* level);

// The open log file, shared by reference count between journallers writing to it.
// Writes are not synchronised here; the journaller's threader serialises whole lines.
class JournalFile
{
public:
    // Opens (and with purge empties) the file; check isOpen().
    JournalFile(const std::string& fileName, bool purge);
    ~JournalFile();
    JournalFile(const JournalFile&) = delete;
    JournalFile& operator=(const JournalFile&) = delete;

    bool isOpen() const;
    const std::string& fileName() const;

    JournalFile& operator<<(const std::string& text);
    JournalFile& operator<<(const char* text);
    void flush();

    void addRef();
    // Returns the count left; the caller deletes the file object at 0.
    int removeRef();
    int refCount() const;

private:
    std::string m_fileName;
    std::FILE* m_stream = nullptr;
    std::atomic<int> m_refCount{1};
};

// Serialises the lines of concurrent threads and names the calling thread.
class JournalThreader
{
public:
    // The kernel thread id (as top and gdb show it) of the calling thread.
    static unsigned currentThreadId();

    // Whole lines are written under this lock so they never interleave.
    std::timed_mutex& mutex() { return m_mutex; }

private:
    std::timed_mutex m_mutex;
};

// A second sink that sees what the Qt message handler and the crash handler journal,
// with the position in the source that reported it.
class JournalAdditionalLogger
{
public:
    virtual ~JournalAdditionalLogger() = default;
    virtual bool acceptsLevel(JournalLogLevel level) const = 0;
    virtual void log(JournalLogLevel level, const char* file, int line, const char* function,
                     const std::string& text) = 0;
};

class Journaller
{
public:
    // Opens fileName (emptying it when purge is set); the caller writes the header with
    // writeFileHeader. If the file cannot be opened, lines are dropped but still echoed.
    Journaller(const std::string& fileName, bool purge, JournalLogLevel level);
    ~Journaller();
    Journaller(const Journaller&) = delete;
    Journaller& operator=(const Journaller&) = delete;

    void log(JournalLogLevel level, const std::string& text);

    // The log level change is noted in the file ("Log level set to [ALERT] ") when
    // noteChange is set; the debug and flush levels note theirs the same way.
    void setLogLevel(JournalLogLevel level, bool noteChange = true);
    void setDebugLevel(JournalLogLevel level, bool noteChange = false);
    void setFlushLevel(JournalLogLevel level, bool noteChange = false);
    JournalLogLevel logLevel() const { return m_logLevel.load(); }
    JournalLogLevel debugLevel() const { return m_debugLevel.load(); }
    JournalLogLevel flushLevel() const { return m_flushLevel.load(); }

    void setTag(const std::string& tag);
    std::string tag() const;

    // false: seconds since the epoch "%10ld.%03d "; true: local calendar time.
    void setUseCalendarTime(bool on) { m_calendarTime = on; }
    bool useCalendarTime() const { return m_calendarTime; }

    std::string fileName() const;

    // "Journaller logging to <file> for <text> on <date>", the date as local
    // "YYYY-MM-DD hh:mm:ss +zzzz". File only: it says nothing to a reader of stderr.
    void writeFileHeader(const std::string& text);

    // "************ Dump Begin ************", one line per frame with demangled names,
    // "************* Dump End *************". Usable from a crash signal handler: it does
    // not wait long for a lock the faulting thread may hold.
    void writeCallstack(JournalLogLevel level);

    // Switch to another file. On failure the old file stays in use and gets a line
    // "Could not switch to new log location <name>". With copyContents the lines
    // written so far are copied into the new file first.
    bool moveLogFile(const std::string& newFileName, bool purge, bool copyContents);
    // Share other's file (and its threader) from now on; the file's reference count is
    // raised. Call it before other threads write through this journaller.
    bool moveLogs(Journaller& other, bool copyContents);

    void flush();

    static void setAdditionalLogger(JournalAdditionalLogger* logger);
    static JournalAdditionalLogger* additionalLogger();

private:
    void writeLine(JournalLogLevel level, const std::string& text, bool forceFlush,
                   bool echo = true);
    std::string timeText() const;
    std::string formatLine(JournalLogLevel level, const std::string& text) const;
    // The caller holds m_threader->mutex() (or, in a crash, could not get it).
    void putLine(JournalLogLevel level, const std::string& line, bool forceFlush, bool echo = true);
    // Loads what backtrace() needs while it is still safe to do so.
    static void primeCallstack();

    JournalFile* m_file = nullptr; // guarded by m_threader->mutex()
    std::shared_ptr<JournalThreader> m_threader;
    std::atomic<JournalLogLevel> m_logLevel;
    std::atomic<JournalLogLevel> m_debugLevel{JLL_FATAL};
    // Alerts and worse are what a reader of a hung or killed program looks for; they are
    // rare, so flushing after each costs nothing.
    std::atomic<JournalLogLevel> m_flushLevel{JLL_ALERT};
    std::atomic<bool> m_calendarTime{false};
    mutable std::mutex m_tagMutex;
    std::string m_tag; // guarded by m_tagMutex

    static std::atomic<JournalAdditionalLogger*> m_additionalLogger;
};

// The process-wide journal that the Qt message handler, the crash handler and the
// device library write to. Not owned.
void jlSetGlobalJournal(Journaller* journal);
Journaller* jlGlobalJournal();
void jlSetCrashJournal(Journaller* journal);
Journaller* jlCrashJournal();

// Flushes and destroys the journaller at exit (and clears the globals that point to it).
void jlTerminate(Journaller* journal);

// Convenience for the global journal; does nothing when there is none.
void jlLog(JournalLogLevel level, const std::string& text);
