#pragma once
// The control, device and scanner functions. C linkage over opaque handles; value types
// are nvtypes' C++ types, so callers are C++.
//
// Result values: every call sets the calling thread's last result (NvControl_lastResult),
// so a result is read on the thread that made the call it belongs to.

#include "nvcallback.h"
#include "nvdeviceid.h"
#include "nvgnss.h"
#include "nvkvwinfo.h"
#include "nvmessage.h"
#include "nvoutputconfiguration.h"
#include "nvportinfo.h"
#include "nvsyncsetting.h"
#include "nvversion.h"

struct NvControl;
struct NvDevice;

// One filter profile a device offers (AvailableFilterProfiles).
struct NvFilterProfileInfo
{
    int type = 0;
    int version = 0;
    NvString label;
};
typedef std::vector<NvFilterProfileInfo> NvFilterProfileArray;
typedef std::vector<NvString> NvStringArray;

extern "C" {

const char* NvResultValue_toString(NvResultValue value);

// ---- Control
NvControl* NvControl_construct(void);
void NvControl_destruct(NvControl* control);
// chain false: the handler replaces all earlier ones; true: it is called after them.
void NvControl_addCallbackHandler(NvControl* control, NvCallbackPlainC* handler, int chain);
// After this returns the handler is not called again (a call running on another thread
// is waited for; called from inside a callback, only the running call may finish).
void NvControl_removeCallbackHandler(NvControl* control, NvCallbackPlainC* handler);
// Time-out of requests that wait for a reply, ms (default 1500).
void NvControl_setReplyTimeout(NvControl* control, unsigned ms);
unsigned NvControl_replyTimeout(NvControl* control);

// timeout: ms to wait for the device to answer while opening (0: the reply time-out).
int NvControl_openPort(NvControl* control, const NvString* portName, NvBaudRate baudRate,
                       unsigned timeout);
int NvControl_openPort_1(NvControl* control, NvPortInfo* portInfo, unsigned timeout);
int NvControl_openImarPort_internal(NvControl* control, const NvString* portName,
                                    NvBaudRate baudRate, int channel, unsigned timeout);
// Opens a recording (kvb, bin, nm; the first part of a split one) as one file device per
// device it describes; NRV_PORT_IN_USE when one of them is open already. Then load it
// (NvDevice_loadLogFile) to read its packets.
int NvControl_openLogFile(NvControl* control, const NvString* fileName);
int NvControl_closePort(NvControl* control, const NvString* portName);
int NvControl_closePort_1(NvControl* control, const NvDeviceId* deviceId);
void NvControl_close(NvControl* control);

NvDevice* NvControl_device(NvControl* control, const NvDeviceId* deviceId);
// A handle whose mode commands go to every open device.
NvDevice* NvControl_broadcast(NvControl* control);
void NvControl_deviceIds(NvControl* control, NvDeviceIdArray* out);
void NvControl_mainDeviceIds(NvControl* control, NvDeviceIdArray* out);
// Handles of the main devices; each carries no extra reference.
int NvControl_mainDevices(NvControl* control, NvDevice** out, int capacity);
void NvControl_kvDeviceIds(NvControl* control, NvDeviceIdArray* out);
int NvControl_deviceCount(NvControl* control);
int NvControl_isDeviceWireless(NvControl* control, const NvDeviceId* deviceId);
int NvControl_isDeviceDocked(NvControl* control, const NvDeviceId* deviceId);
void NvControl_dockDeviceId(NvControl* control, const NvDeviceId* deviceId, NvDeviceId* out);
void NvControl_setOptions(NvControl* control, int enable, int disable);
int NvControl_options(NvControl* control);
// Host-side filter profiles: a file ("format=nvf 1", "profile=TYPE VERSION LABEL" lines)
// replaces the built-in set; a bad file leaves the set in use.
int NvControl_loadFilterProfiles(NvControl* control, const NvString* fileName);
void NvControl_filterProfiles(NvControl* control, NvFilterProfileArray* out);
int NvControl_startRestoreCommunication(NvControl* control, const NvString* portName);
void NvControl_stopRestoreCommunication(NvControl* control);
NvResultValue NvControl_lastResult(NvControl* control);
const char* NvControl_lastResultText(NvControl* control);

// ---- Device (every call answers false / neutral and sets NRV_INVALID_DEVICE on null)
// Handlers of one device: called for its callbacks after the control's handlers, with the
// same rules; they go when the device is destroyed.
void NvDevice_addCallbackHandler(NvDevice* device, NvCallbackPlainC* handler, int chain);
void NvDevice_removeCallbackHandler(NvDevice* device, NvCallbackPlainC* handler);
int NvDevice_addRef(NvDevice* device);
int NvDevice_removeRef(NvDevice* device);
int NvDevice_refCount(NvDevice* device);
void NvDevice_deviceId(NvDevice* device, NvDeviceId* out);
void NvDevice_productCode(NvDevice* device, NvString* out);
void NvDevice_firmwareVersion(NvDevice* device, NvVersion* out);
void NvDevice_hardwareVersion(NvDevice* device, NvVersion* out);
void NvDevice_portName(NvDevice* device, NvString* out);
NvBaudRate NvDevice_baudRate(NvDevice* device);
NvDeviceState NvDevice_deviceState(NvDevice* device);
NvConnectivityState NvDevice_connectivityState(NvDevice* device);
int NvDevice_isMeasuring(NvDevice* device);
int NvDevice_isInConfigMode(NvDevice* device);
int NvDevice_isRecording(NvDevice* device);
int NvDevice_isMasterDevice(NvDevice* device);
int NvDevice_gotoConfig(NvDevice* device);
int NvDevice_gotoMeasurement(NvDevice* device);
int NvDevice_reset(NvDevice* device);
int NvDevice_restoreFactoryDefaults(NvDevice* device);
int NvDevice_reinitialize(NvDevice* device);
int NvDevice_updateCachedDeviceInformation(NvDevice* device);
void NvDevice_outputConfiguration(NvDevice* device, NvOutputConfigurationArray* out);
// A refusal answers false, leaves the device's configuration as it was and sets the
// device's error code as last result.
int NvDevice_setOutputConfiguration(NvDevice* device, NvOutputConfigurationArray* config);
void NvDevice_supportedUpdateRates(NvDevice* device, NvDataIdentifier id, NvIntArray* out);
int NvDevice_maximumUpdateRate(NvDevice* device);
void NvDevice_syncSettings(NvDevice* device, NvSyncSettingArray* out);
int NvDevice_setSyncSettings(NvDevice* device, const NvSyncSettingArray* settings);
void NvDevice_supportedSyncSettings(NvDevice* device, NvSyncSettingArray* out);
int NvDevice_locationId(NvDevice* device);
int NvDevice_setLocationId(NvDevice* device, int locationId);
// Stores the rate the device uses from its next power-up or reset; the open port keeps
// its rate until it is opened again.
int NvDevice_setSerialBaudRate(NvDevice* device, NvBaudRate baudRate);
// Settings read from the device (NRV_OK as last result) or set on it; a refusal answers
// false / -1 and sets the device's error code as last result.
NvBaudRate NvDevice_serialBaudRate(NvDevice* device);
int NvDevice_errorMode(NvDevice* device);
int NvDevice_setErrorMode(NvDevice* device, NvErrorMode mode);
int NvDevice_rs485TransmissionDelay(NvDevice* device); // microseconds
int NvDevice_setRs485TransmissionDelay(NvDevice* device, uint16_t microseconds);
// Tells the device it is at rest for `seconds` (1..600), for a gyroscope bias update.
int NvDevice_setNoRotation(NvDevice* device, uint16_t seconds);
// The option flags (NvDeviceOption bits); -1 on failure.
int64_t NvDevice_deviceOptionFlags(NvDevice* device);
int NvDevice_setDeviceOptionFlags(NvDevice* device, uint32_t setFlags, uint32_t clearFlags);
// String output: NvStringOutput type (0 binary packets, 1 NMEA) and period in ms.
int NvDevice_stringOutputMode(NvDevice* device, uint16_t* type, uint16_t* period);
int NvDevice_setStringOutputMode(NvDevice* device, uint16_t type, uint16_t period);
int NvDevice_availableFilterProfiles(NvDevice* device, NvFilterProfileArray* out);
// The selected filter profile type; -1 on failure.
int NvDevice_filterProfile(NvDevice* device);
int NvDevice_setFilterProfile(NvDevice* device, int type);
// The host-side profile used for the device (one of NvControl_filterProfiles).
int NvDevice_setHostFilterProfile(NvDevice* device, int type);
int NvDevice_hostFilterProfile(NvDevice* device);
// Asks a GNSS device for its satellites; reported to onInfoResponse(NIR_GNSS_STATUS) on
// the calling thread, then kept for NvDevice_gnssStatus.
int NvDevice_requestGnssStatus(NvDevice* device);
void NvDevice_gnssStatus(NvDevice* device, NvGpsStatus* out);
// waitForReply: waits for message id + 1 or Error; timeout 0 = the control's.
int NvDevice_sendCustomMessage(NvDevice* device, const NvMessage* message, int waitForReply,
                               NvMessage* reply, unsigned timeout);
int NvDevice_sendRawMessage(NvDevice* device, const NvMessage* message);
// Settings files (".nva", docs/device-library.md). Both answer a result value, NRV_OK (0)
// on success; apply tries every setting and answers the first refusal.
int NvDevice_createConfigFile(NvDevice* device, const NvString* fileName);
int NvDevice_applyConfigFile(NvDevice* device, const NvString* fileName);
// ---- Wireless masters and trackers (docs/device-library.md, "Wireless")
NvDevice* NvDevice_masterDevice(NvDevice* device); // a tracker's master, else null
int NvDevice_busId(NvDevice* device);              // 1..32 behind a master, 255 on a port
// A tracker's latest record (connection, RSSI, battery); empty for other devices.
void NvDevice_kvwInfo(NvDevice* device, KvwInfo* out);
// Every tracker a master has reported (connected, docked, rejected, disconnected).
void NvDevice_trackerInfos(NvDevice* device, std::vector<KvwInfo>* out);
int NvDevice_requestTrackerList(NvDevice* device);
int NvDevice_radioChannel(NvDevice* device); // 0: radio off
int NvDevice_isRadioEnabled(NvDevice* device);
// channel 11..25; NRV_CHANNEL_IN_USE when another master of the control has it.
int NvDevice_enableRadio(NvDevice* device, int channel);
int NvDevice_disableRadio(NvDevice* device);
int NvDevice_updateRate(NvDevice* device); // a master's, Hz
int NvDevice_setUpdateRate(NvDevice* device, int rate);
int NvDevice_freeSlots(NvDevice* device);
int NvDevice_setDeviceAccepted(NvDevice* device, const NvDeviceId* tracker);
int NvDevice_setDeviceRejected(NvDevice* device, const NvDeviceId* tracker);
// A tracker switches off for transport (through its master); a master remembers it.
int NvDevice_setTransportMode(NvDevice* device, int enable);
int NvDevice_isInTransportMode(NvDevice* device);
// A tracker's battery is reported to onInfoResponse(NIR_BATTERY_LEVEL) on the calling
// thread; masters also report changes by themselves, on the reader.
int NvDevice_requestBatteryLevel(NvDevice* device);
int NvDevice_batteryLevel(NvDevice* device);  // %, -1 unknown
int NvDevice_lastKnownRssi(NvDevice* device); // dBm, -128 unknown
// ---- Recording (".kvb", docs/kvb-format.md; a master records its trackers with it)
// Log files created from now on start a new part ("rec-002.kvb", ...) before one grows
// past `maxBytes` or lasts `maxMs`; 0 and 0: one file.
void NvControl_setLogFileSplit(NvControl* control, uint64_t maxBytes, uint64_t maxMs);
// Creates the file and describes the device in it; NRV_LOG_FILE_ALREADY_OPEN if it has one.
int NvDevice_createLogFile(NvDevice* device, const NvString* fileName);
// Closes a file that is not being recorded to (after stopRecording it is closed already).
int NvDevice_closeLogFile(NvDevice* device);
void NvDevice_logFileName(NvDevice* device, NvString* out);
// Puts the device into measurement if needed; WaitingForRecordingStart until its first
// packet, then Recording. A write error (disk full) ends the recording with onError.
int NvDevice_startRecording(NvDevice* device);
// Flushing, then the file is closed and the device measures again. A master stops its
// trackers for the retransmission of what it missed; that goes on after the call returns
// (onProgressUpdated "Flushing") and ends back in measurement.
int NvDevice_stopRecording(NvDevice* device);
int NvDevice_abortFlushing(NvDevice* device);

// ---- Devices read from recordings (NvControl_openLogFile)
int NvDevice_isReadingFromFile(NvDevice* device);
void NvDevice_fileName(NvDevice* device, NvString* out); // the first part
// Every part of a split recording, in order (the file alone otherwise).
void NvDevice_logFileParts(NvDevice* device, NvStringArray* out);
// A file device: the bytes of all its parts; a recording device: bytes written so far.
uint64_t NvDevice_logFileSize(NvDevice* device);
// Loads the file (every part, every device of it) on a thread of its own:
// onProgressUpdated(device, percent, 100, "Loading") to each device that asked, 100 of
// 100 when done; onError(device, result) when it cannot be read.
int NvDevice_loadLogFile(NvDevice* device);
int NvDevice_abortLoadFile(NvDevice* device);
int NvDevice_isFileLoaded(NvDevice* device);
// The device's packet queue (after loading).
int64_t NvDevice_packetCount(NvDevice* device);
int NvDevice_dataPacketByIndex(NvDevice* device, int64_t index, NvDataPacket* out);
// Bytes between frames the reader skipped (garbage), over all parts.
uint64_t NvDevice_fileSkippedBytes(NvDevice* device);
// Frames of this device's port dropped for a bad checksum.
uint64_t NvDevice_checksumErrors(NvDevice* device);

// ---- Scanner
typedef void (*NvScanLogCallback)(const NvString* line);
void NvScanner_setScanLogCallback(NvScanLogCallback callback);
// The serial ports the system lists (name, description, USB vendor/product id), without
// touching them; pseudo-terminals are not among them.
void NvScanner_systemPorts(NvPortInfoArray* out);
// Ports of the system (its serial ports, emulator announcements and NV_EXTRA_PORTS) with a
// device found at `baudRate` (NBR_DETECT: fastest first). scanTime: ms per attempt
// (0: 1500).
void NvScanner_scanPorts(NvPortInfoArray* out, NvBaudRate baudRate, unsigned scanTime,
                         int ignoreNonNivra, int detectRs485);
int NvScanner_scanPort(NvPortInfo* portInfo, NvBaudRate baudRate, unsigned scanTime,
                       int detectRs485);
}
