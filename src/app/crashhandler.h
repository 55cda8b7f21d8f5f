#pragma once

// Installs one SA_SIGINFO handler for SIGSEGV, SIGILL, SIGABRT and SIGFPE (in that order)
// that writes the signal's name and the call stack to the crash journal and ends the
// process with status 255. The handler runs on an alternate stack so that a stack
// overflow on the main thread still gets its dump.
void installCrashHandler();
