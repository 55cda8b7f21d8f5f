#pragma once
// The control, device and scanner functions whose arguments are nvtypes' C++ types. C
// linkage over opaque handles; those whose arguments are plain C (construction, handlers,
// references, states, mode changes, recording, ...) are declared once, in nvplainc.h.
//
// Result values: every call sets the calling thread's last result (NvControl_lastResult),
// so a result is read on the thread that made the call it belongs to.

#include "nvcallback.h"
#include "nvdeviceid.h"
#include "nvexport.h"
#include "nvgnss.h"
#include "nvkvwinfo.h"
#include "nvmessage.h"
#include "nvoutputconfiguration.h"
#include "nvplainc.h"
#include "nvportinfo.h"
#include "nvsyncsetting.h"
#include "nvversion.h"

#include <utility>

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

// ---- Control

// timeout: ms to wait for the device to answer while opening (0: the reply time-out).
NV_API int NvControl_openPort(NvControl* control, const NvString* portName, NvBaudRate baudRate,
                              unsigned timeout);
NV_API int NvControl_openPort_1(NvControl* control, NvPortInfo* portInfo, unsigned timeout);
NV_API int NvControl_openImarPort_internal(NvControl* control, const NvString* portName,
                                           NvBaudRate baudRate, int channel, unsigned timeout);
// Opens a recording (kvb, bin, nm; the first part of a split one) as one file device per
// device it describes; NRV_PORT_IN_USE when one of them is open already. Then load it
// (NvDevice_loadLogFile) to read its packets.
NV_API int NvControl_openLogFile(NvControl* control, const NvString* fileName);
NV_API int NvControl_closePort(NvControl* control, const NvString* portName);
NV_API int NvControl_closePort_1(NvControl* control, const NvDeviceId* deviceId);

// The device's handle without a reference of its own: valid only while something else
// keeps the device (a reader thread closing it on unplug may free it at once). Prefer
// NvControl_deviceRef.
NV_API NvDevice* NvControl_device(NvControl* control, const NvDeviceId* deviceId);
// Looks the device up and takes a reference in one step, so that it cannot be freed in
// between; null when there is no such device. Release with NvDevice_removeRef.
NV_API NvDevice* NvControl_deviceRef(NvControl* control, const NvDeviceId* deviceId);
// A handle whose mode commands go to every open device.
NV_API NvDevice* NvControl_broadcast(NvControl* control);
NV_API void NvControl_deviceIds(NvControl* control, NvDeviceIdArray* out);
NV_API void NvControl_mainDeviceIds(NvControl* control, NvDeviceIdArray* out);
// Handles of the main devices; each carries no extra reference.
NV_API int NvControl_mainDevices(NvControl* control, NvDevice** out, int capacity);
NV_API void NvControl_kvDeviceIds(NvControl* control, NvDeviceIdArray* out);
NV_API int NvControl_isDeviceWireless(NvControl* control, const NvDeviceId* deviceId);
NV_API int NvControl_isDeviceDocked(NvControl* control, const NvDeviceId* deviceId);
NV_API void NvControl_dockDeviceId(NvControl* control, const NvDeviceId* deviceId, NvDeviceId* out);
NV_API void NvControl_setOptions(NvControl* control, int enable, int disable);
NV_API int NvControl_options(NvControl* control);
// Host-side filter profiles: a file ("format=nvf 1", "profile=TYPE VERSION LABEL" lines)
// replaces the built-in set; a bad file leaves the set in use.
NV_API int NvControl_loadFilterProfiles(NvControl* control, const NvString* fileName);
NV_API void NvControl_filterProfiles(NvControl* control, NvFilterProfileArray* out);
NV_API int NvControl_startRestoreCommunication(NvControl* control, const NvString* portName);
NV_API void NvControl_stopRestoreCommunication(NvControl* control);

// ---- Device (every call answers false / neutral and sets NRV_INVALID_DEVICE on null)
NV_API void NvDevice_deviceId(NvDevice* device, NvDeviceId* out);
NV_API void NvDevice_productCode(NvDevice* device, NvString* out);
NV_API void NvDevice_firmwareVersion(NvDevice* device, NvVersion* out);
NV_API void NvDevice_hardwareVersion(NvDevice* device, NvVersion* out);
NV_API void NvDevice_portName(NvDevice* device, NvString* out);
NV_API int NvDevice_restoreFactoryDefaults(NvDevice* device);
NV_API int NvDevice_reinitialize(NvDevice* device);
NV_API int NvDevice_updateCachedDeviceInformation(NvDevice* device);
NV_API void NvDevice_outputConfiguration(NvDevice* device, NvOutputConfigurationArray* out);
// A refusal answers false, leaves the device's configuration as it was and sets the
// device's error code as last result.
NV_API int NvDevice_setOutputConfiguration(NvDevice* device, NvOutputConfigurationArray* config);
NV_API void NvDevice_supportedUpdateRates(NvDevice* device, NvDataIdentifier id, NvIntArray* out);
NV_API void NvDevice_syncSettings(NvDevice* device, NvSyncSettingArray* out);
NV_API int NvDevice_setSyncSettings(NvDevice* device, const NvSyncSettingArray* settings);
NV_API void NvDevice_supportedSyncSettings(NvDevice* device, NvSyncSettingArray* out);
NV_API int NvDevice_locationId(NvDevice* device);
NV_API int NvDevice_setLocationId(NvDevice* device, int locationId);
// Stores the rate the device uses from its next power-up or reset; the open port keeps
// its rate until it is opened again.
NV_API int NvDevice_setSerialBaudRate(NvDevice* device, NvBaudRate baudRate);
// Settings read from the device (NRV_OK as last result) or set on it; a refusal answers
// false / -1 and sets the device's error code as last result.
NV_API NvBaudRate NvDevice_serialBaudRate(NvDevice* device);
NV_API int NvDevice_errorMode(NvDevice* device);
NV_API int NvDevice_setErrorMode(NvDevice* device, NvErrorMode mode);
NV_API int NvDevice_rs485TransmissionDelay(NvDevice* device); // microseconds
NV_API int NvDevice_setRs485TransmissionDelay(NvDevice* device, uint16_t microseconds);
// Tells the device it is at rest for `seconds` (1..600), for a gyroscope bias update.
NV_API int NvDevice_setNoRotation(NvDevice* device, uint16_t seconds);
// The option flags (NvDeviceOption bits); -1 on failure.
NV_API int64_t NvDevice_deviceOptionFlags(NvDevice* device);
NV_API int NvDevice_setDeviceOptionFlags(NvDevice* device, uint32_t setFlags, uint32_t clearFlags);
// String output: NvStringOutput type (0 binary packets, 1 NMEA) and period in ms.
NV_API int NvDevice_stringOutputMode(NvDevice* device, uint16_t* type, uint16_t* period);
NV_API int NvDevice_setStringOutputMode(NvDevice* device, uint16_t type, uint16_t period);
NV_API int NvDevice_availableFilterProfiles(NvDevice* device, NvFilterProfileArray* out);
// The selected filter profile type; -1 on failure.
NV_API int NvDevice_filterProfile(NvDevice* device);
NV_API int NvDevice_setFilterProfile(NvDevice* device, int type);
// The host-side profile used for the device (one of NvControl_filterProfiles).
NV_API int NvDevice_setHostFilterProfile(NvDevice* device, int type);
NV_API int NvDevice_hostFilterProfile(NvDevice* device);
// Asks a GNSS device for its satellites; reported to onInfoResponse(NIR_GNSS_STATUS) on
// the calling thread, then kept for NvDevice_gnssStatus.
NV_API int NvDevice_requestGnssStatus(NvDevice* device);
NV_API void NvDevice_gnssStatus(NvDevice* device, NvGpsStatus* out);
// waitForReply: waits for message id + 1 or Error; timeout 0 = the control's.
NV_API int NvDevice_sendCustomMessage(NvDevice* device, const NvMessage* message, int waitForReply,
                                      NvMessage* reply, unsigned timeout);
NV_API int NvDevice_sendRawMessage(NvDevice* device, const NvMessage* message);
// Settings files (".nva", docs/device-library.md). Both answer a result value, NRV_OK (0)
// on success; apply tries every setting and answers the first refusal.
NV_API int NvDevice_createConfigFile(NvDevice* device, const NvString* fileName);
NV_API int NvDevice_applyConfigFile(NvDevice* device, const NvString* fileName);
// ---- Wireless masters and trackers (docs/device-library.md, "Wireless")
NV_API NvDevice* NvDevice_masterDevice(NvDevice* device); // a tracker's master, else null
NV_API int NvDevice_busId(NvDevice* device);              // 1..32 behind a master, 255 on a port
// A tracker's latest record (connection, RSSI, battery); empty for other devices.
NV_API void NvDevice_kvwInfo(NvDevice* device, KvwInfo* out);
// Every tracker a master has reported (connected, docked, rejected, disconnected).
NV_API void NvDevice_trackerInfos(NvDevice* device, std::vector<KvwInfo>* out);
NV_API int NvDevice_requestTrackerList(NvDevice* device);
NV_API int NvDevice_radioChannel(NvDevice* device); // 0: radio off
NV_API int NvDevice_isRadioEnabled(NvDevice* device);
// channel 11..25; NRV_CHANNEL_IN_USE when another master of the control has it.
NV_API int NvDevice_enableRadio(NvDevice* device, int channel);
NV_API int NvDevice_disableRadio(NvDevice* device);
NV_API int NvDevice_updateRate(NvDevice* device); // a master's, Hz
NV_API int NvDevice_setUpdateRate(NvDevice* device, int rate);
NV_API int NvDevice_freeSlots(NvDevice* device);
NV_API int NvDevice_setDeviceAccepted(NvDevice* device, const NvDeviceId* tracker);
NV_API int NvDevice_setDeviceRejected(NvDevice* device, const NvDeviceId* tracker);
// A tracker switches off for transport (through its master); a master remembers it.
NV_API int NvDevice_setTransportMode(NvDevice* device, int enable);
NV_API int NvDevice_isInTransportMode(NvDevice* device);
// A tracker's battery is reported to onInfoResponse(NIR_BATTERY_LEVEL) on the calling
// thread; masters also report changes by themselves, on the reader.
NV_API int NvDevice_requestBatteryLevel(NvDevice* device);
NV_API int NvDevice_batteryLevel(NvDevice* device);  // %, -1 unknown
NV_API int NvDevice_lastKnownRssi(NvDevice* device); // dBm, -128 unknown
// ---- Recording (".kvb", docs/kvb-format.md; a master records its trackers with it)
// Log files created from now on start a new part ("rec-002.kvb", ...) before one grows
// past `maxBytes` or lasts `maxMs`; 0 and 0: one file.
NV_API void NvControl_setLogFileSplit(NvControl* control, uint64_t maxBytes, uint64_t maxMs);
// Creates the file and describes the device in it; NRV_LOG_FILE_ALREADY_OPEN if it has one.
NV_API int NvDevice_createLogFile(NvDevice* device, const NvString* fileName);
NV_API void NvDevice_logFileName(NvDevice* device, NvString* out);
NV_API int NvDevice_abortFlushing(NvDevice* device);

// ---- Devices read from recordings (NvControl_openLogFile)
NV_API void NvDevice_fileName(NvDevice* device, NvString* out); // the first part
// Every part of a split recording, in order (the file alone otherwise).
NV_API void NvDevice_logFileParts(NvDevice* device, NvStringArray* out);
NV_API int NvDevice_abortLoadFile(NvDevice* device);
NV_API int NvDevice_dataPacketByIndex(NvDevice* device, int64_t index, NvDataPacket* out);
// Bytes between frames the reader skipped (garbage), over all parts.
NV_API uint64_t NvDevice_fileSkippedBytes(NvDevice* device);
// Frames of this device's port dropped for a bad checksum.
NV_API uint64_t NvDevice_checksumErrors(NvDevice* device);

// ---- Scanner
// One line per step of a scan, each naming its port. Called on the scan's probe threads,
// several at a time: must be thread-safe. Once the setter returns, the previous callback
// is not called any more.
typedef void (*NvScanLogCallback)(const NvString* line);
NV_API void NvScanner_setScanLogCallback(NvScanLogCallback callback);
// The serial ports the system lists (name, description, USB vendor/product id), without
// touching them; pseudo-terminals are not among them.
NV_API void NvScanner_systemPorts(NvPortInfoArray* out);
// Ports of the system (its serial ports, emulator announcements and NV_EXTRA_PORTS) with a
// device found at `baudRate` (NBR_DETECT: the port's last known rate, 115200, 921600, then
// the rest fastest first), probed in parallel, in the order of the port list. scanTime: ms
// per attempt (0: 250; a rate search gives each rate at most 250).
NV_API void NvScanner_scanPorts(NvPortInfoArray* out, NvBaudRate baudRate, unsigned scanTime,
                                int ignoreNonNivra, int detectRs485);
NV_API int NvScanner_scanPort(NvPortInfo* portInfo, NvBaudRate baudRate, unsigned scanTime,
                              int detectRs485);
}

// Holds one library reference for as long as it lives: what NvControl_deviceRef answers,
// or a handle referenced here.
class NvDeviceRef
{
public:
    NvDeviceRef() = default;
    // Takes over a reference the caller already holds (NvControl_deviceRef's).
    static NvDeviceRef adopt(NvDevice* device)
    {
        NvDeviceRef ref;
        ref.m_device = device;
        return ref;
    }
    // Adds a reference of its own to a handle that is known to be alive.
    static NvDeviceRef share(NvDevice* device)
    {
        NvDevice_addRef(device);
        return adopt(device);
    }
    ~NvDeviceRef() { NvDevice_removeRef(m_device); }
    NvDeviceRef(NvDeviceRef&& other) noexcept : m_device(other.m_device)
    {
        other.m_device = nullptr;
    }
    NvDeviceRef& operator=(NvDeviceRef&& other) noexcept
    {
        if (this != &other) {
            NvDevice_removeRef(m_device);
            m_device = other.m_device;
            other.m_device = nullptr;
        }
        return *this;
    }
    NvDeviceRef(const NvDeviceRef& other) : m_device(other.m_device) { NvDevice_addRef(m_device); }
    NvDeviceRef& operator=(const NvDeviceRef& other)
    {
        NvDeviceRef copy(other);
        return *this = std::move(copy);
    }

    NvDevice* get() const { return m_device; }
    explicit operator bool() const { return m_device != nullptr; }
    // Passes straight to the NvDevice_ functions; not from a temporary, whose reference
    // would be gone before the handle is used (call get() inside one expression instead).
    operator NvDevice*() const& { return m_device; }
    operator NvDevice*() const&& = delete;

private:
    NvDevice* m_device = nullptr;
};

// The device of `id`, referenced (empty when there is none).
inline NvDeviceRef nvDeviceRef(NvControl* control, const NvDeviceId& id)
{
    return NvDeviceRef::adopt(NvControl_deviceRef(control, &id));
}
