#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <atomic>
#include <mutex>

namespace {

std::mutex g_sinkMutex;
NdaLogSink g_sink = nullptr;   // guarded by g_sinkMutex
void* g_sinkContext = nullptr; // guarded by g_sinkMutex
std::atomic<bool> g_networkScanning{false};

} // namespace

void nda::log(NdaLogLevel level, const char* line)
{
    // The lock is held across the call so that ndaSetLogger(nullptr) returning means
    // the old sink will not be entered again.
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    if (g_sink)
        g_sink(g_sinkContext, level, line);
}

extern "C" void ndaSetLogger(NdaLogSink sink, void* context)
{
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    g_sink = sink;
    g_sinkContext = context;
}

extern "C" void ndaTerminate(void)
{
    nda::log(NDA_LOG_DEBUG, "Device library terminating");
    NvScanner_abortScan();
    nda::closeAllControls();
    ndaSetLogger(nullptr, nullptr);
}

extern "C" void ndaEnableNetworkScanning(int enable)
{
    g_networkScanning = enable != 0;
    nda::log(NDA_LOG_DEBUG, enable ? "Network scanning enabled" : "Network scanning disabled");
}

extern "C" int ndaNetworkScanningEnabled(void)
{
    return g_networkScanning ? 1 : 0;
}
