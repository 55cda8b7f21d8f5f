// Sets up the journal and crash handler the way the application does, then dies in the
// way named on the command line: crashchild LOGFILE (segv|fpe|abort|ill|qfatal). With
// "alert" it journals a Qt warning, says "logged" on stdout and waits to be killed.
#include "crashhandler.h"
#include "jlqt.h"
#include "journaller.h"

#include <QtGlobal>

#include <csignal>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace crashtest {
// Not inlined, so that the dump has a named frame of ours to look for; not checked by
// UBSan, which would report the null store itself instead of letting it fault.
__attribute__((noinline, no_sanitize_undefined)) void faultingFunction(const char* how)
{
    if (std::strcmp(how, "segv") == 0) {
        volatile int* nowhere = nullptr;
        *nowhere = 1;
    } else if (std::strcmp(how, "fpe") == 0) {
        std::raise(SIGFPE);
    } else if (std::strcmp(how, "abort") == 0) {
        std::abort();
    } else if (std::strcmp(how, "ill") == 0) {
        std::raise(SIGILL);
    } else if (std::strcmp(how, "qfatal") == 0) {
        qFatal("fatal condition for the test");
    }
}
} // namespace crashtest

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    auto* journal = new Journaller(argv[1], true, JLL_ALERT);
    journal->setDebugLevel(JLL_FATAL);
    jlSetGlobalJournal(journal);
    jlSetCrashJournal(journal);
    installCrashHandler();
    qInstallMessageHandler(jlQtMessageHandler);
    if (std::strcmp(argv[2], "alert") == 0) {
        qWarning("alert for the test");
        std::puts("logged");
        std::fflush(stdout);
        for (;;)
            pause();
    }
    crashtest::faultingFunction(argv[2]);
    return 0;
}
