#include "journaller.h"

#include <cinttypes>
#include <cstdlib>
#include <ctime>

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

namespace {

constexpr int kMaxFrames = 128;

// "#03 0x00005555deadbeef KvManager::construct()+0x1c (/path/to/module)"; without a
// symbol the offset is taken from the module base, which is what addr2line wants.
std::string frameText(int index, void* address)
{
    const auto pc = reinterpret_cast<std::uintptr_t>(address);
    char head[48];
    std::snprintf(head, sizeof(head), "#%02d 0x%016" PRIxPTR " ", index, pc);
    std::string text = head;

    Dl_info info{};
    if (!dladdr(address, &info)) {
        text += "?? (?)";
        return text;
    }
    // A return address just past a call to a noreturn function (abort, qFatal) lies one
    // byte beyond its function; the byte before it is still inside.
    Dl_info before{};
    if (!info.dli_sname && dladdr(static_cast<char*>(address) - 1, &before) && before.dli_sname)
        info = before;
    const char* module = info.dli_fname ? info.dli_fname : "?";
    char offset[32];
    if (info.dli_sname) {
        int status = 0;
        char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
        text += (status == 0 && demangled) ? demangled : info.dli_sname;
        std::free(demangled);
        std::snprintf(offset, sizeof(offset), "+0x%" PRIxPTR,
                      pc - reinterpret_cast<std::uintptr_t>(info.dli_saddr));
        text += offset;
        text += " (";
        text += module;
        text += ')';
    } else {
        std::snprintf(offset, sizeof(offset), "+0x%" PRIxPTR,
                      pc - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
        text += "?? (";
        text += module;
        text += offset;
        text += ')';
    }
    return text;
}

} // namespace

void Journaller::primeCallstack()
{
    // The first backtrace() dlopens libgcc_s, which must not happen inside a crash handler.
    static const bool primed = [] {
        void* frames[2];
        backtrace(frames, 2);
        return true;
    }();
    (void)primed;
}

__attribute__((noinline)) void Journaller::writeCallstack(JournalLogLevel level)
{
    if (level < m_logLevel.load() && level < m_debugLevel.load())
        return;

    void* frames[kMaxFrames];
    const int count = backtrace(frames, kMaxFrames);
    // Start at our caller. Counting frames is not enough: sanitizers interpose backtrace().
    const void* caller = __builtin_return_address(0);
    int first = 1;
    for (int i = 0; i < count; ++i) {
        if (frames[i] == caller) {
            first = i;
            break;
        }
    }

    // A crashing thread may hold the lock itself; a mangled dump beats none. Polled rather
    // than try_lock_for: nanosleep is async-signal-safe.
    std::unique_lock<std::timed_mutex> lock(m_threader->mutex(), std::defer_lock);
    const timespec pause{0, 2'000'000};
    for (int attempt = 0; attempt < 100 && !lock.try_lock(); ++attempt)
        nanosleep(&pause, nullptr);

    putLine(level, formatLine(level, "************ Dump Begin ************"), false);
    for (int i = first; i < count; ++i)
        putLine(level, formatLine(level, frameText(i - first, frames[i])), false);
    putLine(level, formatLine(level, "************* Dump End *************"), false);
}
