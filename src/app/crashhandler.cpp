#include "crashhandler.h"

#include "journaller.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

void signal_handler(int signal, siginfo_t*, void*)
{
    Journaller* journal = jlCrashJournal();
    if (!journal)
        _exit(-1);

    const char* name = strsignal(signal);
    if (journal->logLevel() <= JLL_FATAL || journal->debugLevel() <= JLL_FATAL)
        journal->log(JLL_FATAL, name ? name : "Unknown signal");
    if (JournalAdditionalLogger* extra = Journaller::additionalLogger()) {
        if (extra->acceptsLevel(JLL_FATAL))
            extra->log(JLL_FATAL, "main.cpp", 37, "signal_handler", name ? name : "");
    }
    journal->writeCallstack(JLL_FATAL);
    journal->flush();
    _exit(-1);
}

} // namespace

void installCrashHandler()
{
    // Main thread only; other threads overflowing their stack die without a dump.
    static char alternateStack[64 * 1024];
    stack_t stack{};
    stack.ss_sp = alternateStack;
    stack.ss_size = sizeof alternateStack;
    sigaltstack(&stack, nullptr);

    struct sigaction action
    {
    };
    action.sa_sigaction = signal_handler;
    sigemptyset(&action.sa_mask);
    // A fault inside the handler itself takes the default action instead of recursing.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    for (int signal : {SIGSEGV, SIGILL, SIGABRT, SIGFPE})
        sigaction(signal, &action, nullptr);
}
