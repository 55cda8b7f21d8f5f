#ifndef NVPLAINC_H
#define NVPLAINC_H

/* The device library for C programs and for bindings (ctypes, cffi): plain C types only,
 * C99. nivradeviceapi.h includes it, in C and in C++; nvcontrol.h holds the C++ forms
 * (NvString, NvDeviceId, std::vector arrays) of the same operations, over the same core.
 *
 * Conventions:
 * - Calls that can fail set the calling thread's last result (NvControl_lastResult, its
 *   text NvControl_lastResultText); functions answering int answer 1 for success and 0
 *   for failure unless said otherwise.
 * - Texts go into the caller's buffer (buffer, size; size counts the terminating zero).
 *   The answer is the length of the whole text without the zero, as snprintf's: a text that
 *   does not fit is cut (still terminated) and the last result is NRV_HOST_BUFFER_OVERFLOW.
 *   A null buffer with size 0 only asks for the length. -1 when there is no text (null or
 *   unsuitable handle, null buffer with a size), with the reason as last result.
 * - Device handles answered here carry a reference of their own, so that a device closed
 *   by another thread (an unplug seen by its reader) cannot be freed under the caller:
 *   release each with NvDevice_removeRef.
 * - Callbacks (NvCallbackPlainC) arrive on the library's threads, mostly the reader thread
 *   of the device's port; a handler must not make requests to its own device's port
 *   (they answer NRV_INVALID_STATE) and should hand the work to its own thread. The data a
 *   callback receives (packets, strings, messages) is valid only during the call:
 *   NvPacket_copy keeps a packet. */

#include "nvcallback.h"
#include "nvenums.h"
#include "nvexport.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
struct NvControl;
extern "C" {
#else
typedef struct NvControl NvControl;
#endif

/* ---- Results ------------------------------------------------------------------------ */

/* A short English text for a result value; never null, static. */
NV_API const char* NvResultValue_toString(NvResultValue value);
/* The calling thread's last result (the control is not consulted and may be null). */
NV_API NvResultValue NvControl_lastResult(NvControl* control);
NV_API const char* NvControl_lastResultText(NvControl* control);

/* ---- Control ------------------------------------------------------------------------ */

NV_API NvControl* NvControl_construct(void);
/* Closes every device of the control first. */
NV_API void NvControl_destruct(NvControl* control);
/* chain 0: the handler replaces all earlier ones; non-zero: it is called after them.
 * The record must stay valid until it is removed or the control destructed. */
NV_API void NvControl_addCallbackHandler(NvControl* control, NvCallbackPlainC* handler, int chain);
/* After this returns the handler is not called again (a call running on another thread
 * is waited for; called from inside a callback, only the running call may finish). */
NV_API void NvControl_removeCallbackHandler(NvControl* control, NvCallbackPlainC* handler);
/* Time-out of requests that wait for a reply, ms (default 1500; 0 restores it). */
NV_API void NvControl_setReplyTimeout(NvControl* control, unsigned ms);
NV_API unsigned NvControl_replyTimeout(NvControl* control);

/* Opens a port and the device on it: NBR_DETECT tries the usual rates, fastest first.
 * timeout: ms to wait for the device's answers (0: the reply time-out). */
NV_API int NvControl_openPortByName(NvControl* control, const char* portName, NvBaudRate baudRate,
                                    unsigned timeout);
NV_API int NvControl_closePortByName(NvControl* control, const char* portName);
/* Opens a recording (kvb, bin, nm) as one file device per device it describes; load a
 * file device (NvDevice_loadLogFileAndWait) to read its packets. */
NV_API int NvControl_openLogFileByName(NvControl* control, const char* fileName);
/* Closes every device of the control. */
NV_API void NvControl_close(NvControl* control);
/* Devices open, trackers behind masters included. */
NV_API int NvControl_deviceCount(NvControl* control);

/* The device of an identifier as NvDevice_deviceIdText writes it (hexadecimal, case and
 * "0x" optional), referenced; null with NRV_INVALID_ARGUMENT for text that is no
 * identifier, NRV_INVALID_DEVICE when no such device is open. */
NV_API NvDevice* NvControl_deviceRefByIdText(NvControl* control, const char* deviceId);
/* The device on a port (a master, not its trackers), referenced; null with
 * NRV_PORT_NOT_OPEN when the control has no device there. */
NV_API NvDevice* NvControl_deviceRefByPortName(NvControl* control, const char* portName);
/* The main devices (those on ports or from files, not the trackers behind masters), each
 * referenced; answers the number of handles written, at most `capacity`. */
NV_API int NvControl_mainDevicesRef(NvControl* control, NvDevice** out, int capacity);

/* ---- Scanning ----------------------------------------------------------------------- */

#define NV_PORT_NAME_SIZE 256
#define NV_DEVICE_ID_TEXT_SIZE 24
#define NV_PRODUCT_CODE_SIZE 32
#define NV_DEVICE_TYPE_TEXT_SIZE 48
#define NV_PORT_DESCRIPTION_SIZE 128

/* A port and the device found on it. Texts are zero-terminated (cut to fit). */
typedef struct NvPortRecord
{
    char portName[NV_PORT_NAME_SIZE];           /* "/dev/ttyUSB0", "/dev/pts/7" */
    NvBaudRate baudRate;                        /* the rate the device answered at */
    char deviceId[NV_DEVICE_ID_TEXT_SIZE];      /* hexadecimal; "" for no device */
    char productCode[NV_PRODUCT_CODE_SIZE];     /* "KV-300" */
    char deviceType[NV_DEVICE_TYPE_TEXT_SIZE];  /* "KV-300 AHRS" */
    char description[NV_PORT_DESCRIPTION_SIZE]; /* what the system says about the port */
    uint16_t vendorId;                          /* USB identifiers; 0 for other ports */
    uint16_t productId;
    int isEmulated; /* announced by the emulator */
    int isRs485;
    int isForeign; /* answered, but not in Nbus: a device of another maker */
} NvPortRecord;

/* Probes every port (the system's serial ports, the emulator's announcements and
 * NV_EXTRA_PORTS) at `baudRate` (NBR_DETECT: searches the rate), scanTime ms per attempt
 * (0: the scanner's default), as NvScanner_scanPorts does. Answers the number of ports
 * with a device and writes the first `capacity` of them; -1 (NRV_INVALID_ARGUMENT) for a
 * null `out` with a capacity. */
NV_API int NvScanner_scanPortRecords(NvPortRecord* out, int capacity, NvBaudRate baudRate,
                                     unsigned scanTime, int ignoreNonNivra, int detectRs485);
/* Probes the port named in `port->portName` and fills the rest of the record; 1 when a
 * device answered (isForeign tells one of another maker). */
NV_API int NvScanner_scanPortRecord(NvPortRecord* port, NvBaudRate baudRate, unsigned scanTime,
                                    int detectRs485);
/* Ends every scan running in the process within milliseconds, from any thread (scan log
 * callbacks too): scanPorts returns what it found so far (last result NRV_ABORTED),
 * scanPort 0. A scan can be aborted from before its first scan log line; scans started
 * later run normally. */
NV_API void NvScanner_abortScan(void);
/* One line per scanning step, on the scanning threads; null stops the lines. A sink set
 * here replaces one set with NvScanner_setScanLogCallback; once the call returns, the old
 * sink is not called any more. */
typedef void (*NvScanLogSink)(void* context, const char* line);
NV_API void NvScanner_setScanLogSink(NvScanLogSink sink, void* context);

/* ---- Device ------------------------------------------------------------------------- */

/* Handlers of one device: called for its callbacks after the control's handlers, with the
 * same rules; they go when the device is destroyed. */
NV_API void NvDevice_addCallbackHandler(NvDevice* device, NvCallbackPlainC* handler, int chain);
NV_API void NvDevice_removeCallbackHandler(NvDevice* device, NvCallbackPlainC* handler);
NV_API int NvDevice_addRef(NvDevice* device);
/* Drops a reference; the device goes when it is closed and unreferenced. */
NV_API int NvDevice_removeRef(NvDevice* device);
NV_API int NvDevice_refCount(NvDevice* device);

/* Texts of the device, as the conventions above. */
NV_API int NvDevice_deviceIdText(NvDevice* device, char* buffer, size_t size);
NV_API int NvDevice_productCodeText(NvDevice* device, char* buffer, size_t size);
NV_API int NvDevice_deviceTypeText(NvDevice* device, char* buffer, size_t size);
NV_API int NvDevice_firmwareVersionText(NvDevice* device, char* buffer, size_t size);
NV_API int NvDevice_hardwareVersionText(NvDevice* device, char* buffer, size_t size);
/* The port (empty for file devices). */
NV_API int NvDevice_portNameText(NvDevice* device, char* buffer, size_t size);

NV_API NvBaudRate NvDevice_baudRate(NvDevice* device);
NV_API NvDeviceState NvDevice_deviceState(NvDevice* device);
NV_API NvConnectivityState NvDevice_connectivityState(NvDevice* device);
NV_API int NvDevice_isMeasuring(NvDevice* device);
NV_API int NvDevice_isInConfigMode(NvDevice* device);
NV_API int NvDevice_isRecording(NvDevice* device);
NV_API int NvDevice_isMasterDevice(NvDevice* device);
NV_API int NvDevice_isReadingFromFile(NvDevice* device);
NV_API int NvDevice_gotoConfig(NvDevice* device);
NV_API int NvDevice_gotoMeasurement(NvDevice* device);
NV_API int NvDevice_reset(NvDevice* device);

/* ---- Output configuration ------------------------------------------------------------ */

#define NV_MAX_OUTPUT_RECORDS 32

/* One item a device sends and how often. */
typedef struct NvOutputRecord
{
    NvDataIdentifier dataIdentifier; /* NDI_ACCELERATION, with format bits (precision, frame) */
    uint16_t frequency;              /* Hz; NV_FREQUENCY_EVERY_PACKET: with every packet */
} NvOutputRecord;

/* The configuration as the device last reported it: answers the number of records and
 * writes the first `capacity`; -1 on failure. */
NV_API int NvDevice_outputConfigurationRecords(NvDevice* device, NvOutputRecord* out, int capacity);
/* Sends a configuration (at most NV_MAX_OUTPUT_RECORDS; the device must be in
 * configuration). A refusal answers 0, sets the device's code as last result (e.g.
 * NRV_INVALID_PARAMETER for a rate it does not support) and leaves the configuration as
 * it was. Read the applied configuration back with NvDevice_outputConfigurationRecords. */
NV_API int NvDevice_setOutputConfigurationRecords(NvDevice* device, const NvOutputRecord* records,
                                                  int count);
/* The rates (Hz) the device offers for an item (a wireless master's trackers: the
 * master's update rates); answers their number and writes the first `capacity`; -1 on
 * failure. */
NV_API int NvDevice_supportedUpdateRateList(NvDevice* device, NvDataIdentifier dataIdentifier,
                                            int* out, int capacity);
NV_API int NvDevice_maximumUpdateRate(NvDevice* device);

/* ---- Recording ---------------------------------------------------------------------- */

/* Creates a kvb file and describes the device in it (NRV_LOG_FILE_ALREADY_OPEN when it
 * has one). */
NV_API int NvDevice_createLogFileByName(NvDevice* device, const char* fileName);
/* Puts the device into measurement if needed; WaitingForRecordingStart until its first
 * packet, then Recording. A write error (disk full) ends the recording with onError. */
NV_API int NvDevice_startRecording(NvDevice* device);
/* Flushing, then the file is closed and the device measures again. A master stops its
 * trackers for the retransmission of what it missed; that goes on after the call returns
 * (onProgressUpdated "Flushing") and ends back in measurement. */
NV_API int NvDevice_stopRecording(NvDevice* device);
/* Closes a file that is not being recorded to (after stopRecording it is closed already). */
NV_API int NvDevice_closeLogFile(NvDevice* device);
NV_API int NvDevice_logFileNameText(NvDevice* device, char* buffer, size_t size);
/* A file device: the bytes of all its parts; a recording device: bytes written so far. */
NV_API uint64_t NvDevice_logFileSize(NvDevice* device);
/* Data packets of the device's recording that reached its file (a master's: its trackers'
 * too), and those it took in that never will (the file's buffer full, a full disk or
 * another write error: what was buffered and what came until the recording ended). A
 * packet delivered while the device is in Recording is one or the other once the
 * recording has ended. Counted from NvDevice_createLogFile on and kept after the
 * recording ends, also on a closed device still referenced; 0 before any recording, and
 * on a tracker (NRV_NOT_SUPPORTED). */
NV_API uint64_t NvDevice_logPacketsWritten(NvDevice* device);
NV_API uint64_t NvDevice_logPacketsLost(NvDevice* device);

/* ---- File devices (NvControl_openLogFileByName) --------------------------------------- */

/* Loads the file (every part, every device of it) on a thread of its own:
 * onProgressUpdated(device, percent, 100, "Loading") to each device that asked, 100 of
 * 100 when done; onError(device, result) when it cannot be read. */
NV_API int NvDevice_loadLogFile(NvDevice* device);
/* Loads the file and waits until it is loaded: 1, or 0 with NRV_TIMEOUT after timeoutMs
 * (0: no limit), the loader's error, or NRV_ABORTED when the device is closed meanwhile.
 * A load stopped with NvDevice_abortLoadFile ends the wait only at the time-out. Not
 * from a callback. */
NV_API int NvDevice_loadLogFileAndWait(NvDevice* device, unsigned timeoutMs);
NV_API int NvDevice_isFileLoaded(NvDevice* device);
/* Packets of the device in the loaded file. */
NV_API int64_t NvDevice_packetCount(NvDevice* device);
/* A copy of packet `index` of the loaded file, to be released with NvPacket_delete; null
 * with NRV_END_OF_FILE past the end, NRV_INVALID_STATE before loading. */
NV_API NvCbDataPacket* NvDevice_newDataPacketByIndex(NvDevice* device, int64_t index);
/* Host UTC time (ns since 1970) at which packet `index` of a loaded kvb was read: the
 * recording's last time mark before it. 0 with NRV_NO_DATA when the file has none before
 * it (bin and nm files carry none), NRV_END_OF_FILE past the end, NRV_INVALID_STATE before
 * loading. */
NV_API int NvDevice_hostTimeByIndex(NvDevice* device, int64_t index, uint64_t* utcNs);

/* ---- Data packets ------------------------------------------------------------------- */

#define NV_PACKET_ITEM_MAX_VALUES 9

/* One item of a packet with its values as double:
 * - reals (acceleration, rate of turn, quaternion, Euler angles, ...): as sent, in the
 *   frame the identifier names (3, 4 or 9 values, 1 for temperature and altitudes);
 * - counters, times, pressure, status, RSSI, analog inputs: 1 value;
 * - frame range: first, last;
 * - UTC time: year, month, day, hour, minute, second, nanoseconds, flags;
 * - GNSS PVT: latitude, longitude (degrees), height above the ellipsoid, above mean sea
 *   level (m), velocity north, east, down (m/s), fix type, satellites used;
 * - GNSS satellite info: time of week (ms), number of satellites;
 * - anything else: no values (read the bytes with NvPacket_itemPayload). */
typedef struct NvPacketItem
{
    NvDataIdentifier dataIdentifier; /* as sent, with its format bits */
    NvDataIdentifier quantity;       /* format bits cleared: compare with NDI_* */
    int valueCount;
    int payloadSize; /* bytes on the wire */
    double values[NV_PACKET_ITEM_MAX_VALUES];
    const char* name; /* "Acceleration"; static */
} NvPacketItem;

/* -1 for a null packet. */
NV_API int NvPacket_itemCount(const NvCbDataPacket* packet);
NV_API int NvPacket_item(const NvCbDataPacket* packet, int index, NvPacketItem* out);
/* The first item of a quantity (format bits ignored); 0 with NRV_NO_DATA when absent. */
NV_API int NvPacket_findItem(const NvCbDataPacket* packet, NvDataIdentifier quantity,
                             NvPacketItem* out);
/* The raw payload of item `index`, as the text convention (answers the byte count). */
NV_API int NvPacket_itemPayload(const NvCbDataPacket* packet, int index, uint8_t* buffer,
                                size_t size);
/* 0..65535; -1 when the packet has no packet counter. */
NV_API int NvPacket_packetCounter(const NvCbDataPacket* packet);
/* 10 kHz ticks; -1 when absent. */
NV_API int64_t NvPacket_sampleTimeFine(const NvCbDataPacket* packet);
/* Seconds; -1 when absent. */
NV_API int64_t NvPacket_sampleTimeCoarse(const NvCbDataPacket* packet);
/* 0xFF for the device on the port, 1..32 for a tracker behind a master; -1 for null. */
NV_API int NvPacket_busId(const NvCbDataPacket* packet);
/* An item ran past the packet's end; the items before it are there. */
NV_API int NvPacket_isMalformed(const NvCbDataPacket* packet);
/* Orientation from whichever form the packet carries (quaternion, matrix or Euler),
 * converted into `frame`: w, x, y, z / roll, pitch, yaw in degrees. 0 with NRV_NO_DATA
 * when the packet has none. */
NV_API int NvPacket_orientationQuaternion(const NvCbDataPacket* packet, NvCoordinateFrame frame,
                                          double out[4]);
NV_API int NvPacket_orientationEuler(const NvCbDataPacket* packet, NvCoordinateFrame frame,
                                     double out[3]);
/* A copy that outlives the callback (a live packet's bytes are copied once, other packets'
 * are shared); NvPacket_delete it. */
NV_API NvCbDataPacket* NvPacket_copy(const NvCbDataPacket* packet);
NV_API void NvPacket_delete(NvCbDataPacket* packet);

/* ---- What other callbacks carry ------------------------------------------------------- */

/* The text (UTF-8, zero-terminated); "" for null. */
NV_API const char* NvCbString_text(const NvCbString* string);
NV_API size_t NvCbString_size(const NvCbString* string);
/* The bytes and their count; null (count 0) for null. */
NV_API const uint8_t* NvCbByteArray_data(const NvCbByteArray* bytes, size_t* size);
/* -1 for null. */
NV_API int NvCbMessage_messageId(const NvCbMessage* message);
NV_API int NvCbMessage_busId(const NvCbMessage* message);
NV_API const uint8_t* NvCbMessage_data(const NvCbMessage* message, size_t* size);

#ifdef __cplusplus
}
#endif

#endif
