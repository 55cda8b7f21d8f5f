#ifndef NIVRADEVICEAPI_H
#define NIVRADEVICEAPI_H

/* The device library's C interface. Global functions; the control, device and
 * scanner objects are added beside them. */

#include "nvexport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Levels of the library's diagnostic lines; equal in value to the application's
 * journal levels so that a sink can pass them on unchanged. */
typedef enum NdaLogLevel
{
    NDA_LOG_TRACE = 0,
    NDA_LOG_DEBUG = 1,
    NDA_LOG_ALERT = 2,
    NDA_LOG_ERROR = 3,
    NDA_LOG_FATAL = 4
} NdaLogLevel;

/* A line sink. Called on whichever thread the library writes from; must be
 * thread-safe and must not call back into the library. */
typedef void (*NdaLogSink)(void* context, NdaLogLevel level, const char* line);

/* Hands the library its line sink (null: discard diagnostics). The library never
 * prints to stdout or stderr. */
NV_API void ndaSetLogger(NdaLogSink sink, void* context);

/* Global shutdown: closes whatever the library still has open and drops the sink.
 * Safe to call more than once. */
NV_API void ndaTerminate(void);

/* Switches scanning of network-attached devices on or off (off by default). */
NV_API void ndaEnableNetworkScanning(int enable);
NV_API int ndaNetworkScanningEnabled(void);

#ifdef __cplusplus
}

namespace nda {
/* Writes one diagnostic line to the sink, if any. */
void log(NdaLogLevel level, const char* line);
} // namespace nda

#include "nvcallback.h"
#include "nvcontrol.h"
#endif

/* The plain C forms, for C programs and bindings. */
#include "nvplainc.h"

#endif
