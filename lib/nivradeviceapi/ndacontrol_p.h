#pragma once
// Internals of the control, its devices and their ports.

#include "ndadetector.h"
#include "ndalogfile.h"
#include "nvcontrol.h"
#include "nvframeparser.h"
#include "nvkvwinfo.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace nda {

using Control = ::NvControl;
class FileSource;

void setResult(NvResultValue value);
NvResultValue lastResult();
int64_t monotonicNs();
void closeAllControls();
// Whether some control has `name` open; fills the device's identity and rate into `info`.
bool findOpenPort(const std::string& name, NvPortInfo* info);
// termios speed (speed_t) of a rate code; rates termios lacks give B115200.
unsigned termiosSpeed(NvBaudRate baudRate);
// The rate a device last answered at on port `name` in this process (NBR_DETECT: none),
// and the order a rate search tries: that rate, 115200, 921600, then the rest fastest
// first.
void rememberPortRate(const std::string& name, NvBaudRate rate);
NvBaudRate knownPortRate(const std::string& name);
std::vector<NvBaudRate> detectionOrder(const std::string& name);

// One open port: its file descriptor, its reader thread and the request/reply exchange.
class Port
{
public:
    Port(Control* control, std::string name);
    ~Port();
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    NvResultValue open(NvBaudRate baudRate);
    bool setBaudRate(NvBaudRate baudRate);
    // Stops and joins the reader, closes the port. Idempotent.
    void shutdown();
    bool write(const NvMessage& message);
    // Sends `message` and waits for a frame with `replyMid` or an Error frame from the
    // message's bus id (on a master's port; elsewhere from any). An Error gives its code;
    // no answer gives NRV_TIMEOUT.
    NvResultValue request(const NvMessage& message, uint8_t replyMid, NvMessage* reply,
                          unsigned timeoutMs);
    void attach(NvDevice* device) { m_device = device; }
    NvDevice* attached() const { return m_device.load(); }
    // Frames with bus ids 1..32 come from the devices behind a master.
    void setMasterPort() { m_masterPort = true; }
    bool isReaderThread() const;
    // The reader hands `device` to NvControl::release when it ends.
    void releaseOnExit(NvDevice* device) { m_releaseOnExit = device; }
    // Runs `task` on the reader thread between two chunks of input (or at once on it).
    // Tasks still queued when the reader ends run on the thread that stops it.
    void post(std::function<void()> task);
    // Hands a closed child device to NvControl::release once the reader is past every
    // callback that may still use it.
    void releaseLater(NvDevice* device);
    const std::string& name() const { return m_name; }
    NvBaudRate baudRate() const { return m_baudRate; }
    uint64_t checksumErrors() const { return m_checksumErrors; }
    uint64_t bytesReceived() const { return m_bytesReceived; }

private:
    void readLoop();
    void readFrames();
    // `last`: the reader is joined; later posts run on the posting thread.
    void runPosted(bool last = false);
    void onFrame(const NvFrameView& view);
    void onDataPacket(NvDevice* dev, const NvFrameView& view);
    void onMasterMessage(NvDevice* master, const NvFrameView& view);
    void enterMode(NvDevice* dev, NvDeviceState state);
    void onFlushDone(NvDevice* master);
    void onSkipped(const uint8_t* bytes, size_t count);
    void reportDetected(NvProtocolType type, const NvByteArray& bytes);
    void checkDataFlow();
    void lost();

    Control* m_control;
    std::string m_name;
    NvBaudRate m_baudRate = NBR_DETECT;
    int m_fd = -1;
    int m_wakeFd = -1;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<NvDevice*> m_device{nullptr};
    std::atomic<NvDevice*> m_releaseOnExit{nullptr};
    std::atomic<bool> m_masterPort{false};
    NvFrameParser m_parser;    // reader thread only
    StreamDetector m_detector; // reader thread only
    int64_t m_lastInputNs = 0; // reader thread only
    std::atomic<uint64_t> m_checksumErrors{0};
    std::atomic<uint64_t> m_bytesReceived{0};

    std::mutex m_postMutex;
    std::vector<std::function<void()>> m_posted;
    bool m_postsRunHere = true; // false once the reader is joined

    // One request waiting for its reply; lives on the requester's stack.
    struct Pending
    {
        uint8_t mid = 0;
        uint8_t bus = 0xFF;
        bool answered = false;
        NvMessage reply;
    };
    bool writeFrame(const NvMessage& message);
    void reportSent(const NvMessage& message);
    // The oldest waiting request that `mid` from `bus` answers (m_replyMutex held).
    Pending* pendingFor(uint8_t mid, uint8_t bus, bool masterPort);

    std::mutex m_writeMutex;
    // Frames reach the wire in the order their requests are queued; held only while
    // queueing and writing, never while a handler runs or a reply is awaited.
    std::mutex m_requestMutex;
    std::mutex m_replyMutex; // guards the fields below
    std::condition_variable m_replyCv;
    // Devices answer in the order they were asked: the oldest request a reply fits takes it.
    std::deque<Pending*> m_pending;
    bool m_hungUp = false;
};

} // namespace nda

struct NvDevice
{
    nda::Control* control = nullptr;
    bool isBroadcast = false;
    std::atomic<int> refs{0};
    std::atomic<bool> isOpen{true};
    std::atomic<NvDeviceState> state{NDS_INITIAL};
    // Closed, but its closer (or the reader past its callbacks) still has to let go: the
    // last reference dropped elsewhere must not free it before then. Guarded by the
    // control's m_mutex.
    bool releasePending = false;

    // Fixed once the device is published.
    NvDeviceId id;
    std::shared_ptr<nda::Port> port; // a child shares its master's
    uint8_t busId = NvMessage::BusIdDevice;
    NvDevice* master = nullptr; // the wireless master a tracker is behind
    bool isMaster = false;

    std::mutex mutex; // guards what follows: reinitialize reads it again
    NvString productCode;
    NvVersion firmware;
    NvVersion hardware;
    NvOutputConfigurationArray outputConfiguration;
    NvSyncSettingArray syncSettings;
    int locationId = 0;
    NvGpsStatus gnssStatus;
    // Wireless: a tracker's latest record from its master; a master's radio, rate and
    // every tracker it has reported.
    KvwInfo kvw;
    bool transportMode = false;
    int hostProfile = 1;
    // Stored by setSerialBaudRate; the port follows when the device resets.
    std::atomic<NvBaudRate> pendingBaudRate{NBR_INVALID};
    int radioChannel = 0;
    int updateRate = 0;
    int freeSlots = 0;
    std::vector<int> offeredRates;
    std::vector<KvwInfo> trackers;

    int filterProfile = -1; // as read when opened; -1 unknown

    // Recording: the file a port device (and a master's trackers) is written to. The
    // reader appends every frame of the device while `recording` is set.
    std::mutex recMutex;
    std::shared_ptr<nda::LogWriter> logWriter;
    uint8_t logBusId = 0;
    bool recording = false;
    std::string logFileName;
    // The packets of the last recording created on this device, kept after it ends.
    std::shared_ptr<const nda::LogPacketCounts> logPackets;
    std::atomic<bool> awaitingFirstPacket{false};
    std::atomic<bool> flushing{false};

    // A device read from a recording.
    bool isFile = false;
    std::shared_ptr<nda::FileSource> file;
    size_t fileDevice = 0; // index in the file's device list

    // A master's children by bus id: written under the control's lock and this one,
    // read by the reader under this one.
    std::mutex childMutex;
    std::array<NvDevice*, 33> children{};
    NvDevice* child(uint8_t busId);

    // Reader thread only.
    bool m_haveCounter = false;
    uint16_t m_lastCounter = 0;
    int64_t m_lastPacketNs = 0;
    int64_t m_lastSampleTime = 0;
    bool m_dataUnavailable = false;
    void resetCounter();
};

struct NvControl
{
    NvControl();
    ~NvControl();
    NvControl(const NvControl&) = delete;
    NvControl& operator=(const NvControl&) = delete;

    // Calls `f(handler)` for every handler of the control, then every handler of `dev`
    // (null: the control's only), in order, without holding a lock while a handler runs.
    template <typename F>
    void dispatch(NvDevice* dev, F&& f)
    {
        dispatchImpl(dev, std::function<void(const NvCallbackPlainC*)>(std::forward<F>(f)));
    }
    void dispatchImpl(NvDevice* dev, const std::function<void(const NvCallbackPlainC*)>& f);
    // `dev` null: a handler of the control, for every device.
    void addHandler(NvCallbackPlainC* handler, bool chain, NvDevice* dev = nullptr);
    void removeHandler(NvCallbackPlainC* handler, NvDevice* dev = nullptr);
    // A destroyed device's handlers go with it.
    void forgetHandlers(NvDevice* dev);

    void changeState(NvDevice* dev, NvDeviceState newState);
    // The port of `dev` hung up (called on its reader thread).
    void deviceLost(NvDevice* dev);
    // Drops a closed device once nobody references it. `settle`: the closer (or the reader
    // it handed the device to) lets go of it now.
    void release(NvDevice* dev, bool settle = false);
    // One reference less; the count left.
    int unref(NvDevice* dev);

    bool openPort(const NvString& name, NvBaudRate baudRate, unsigned timeout, NvPortInfo* info);
    bool closeDevice(NvDevice* dev);
    NvDevice* findDevice(const NvDeviceId& id);
    // The main device on port `name` (not the devices behind a master there).
    NvDevice* findByPort(const NvString& name);
    std::vector<NvDevice*> devices();
    std::vector<NvDevice*> mainDevices();
    // The main devices, each referenced, for work that runs after the lock is left.
    std::vector<NvDeviceRef> mainDevicesRef();
    // Identifiers read under the lock (all devices, or the main ones only).
    NvDeviceIdArray deviceIds(bool mainOnly);
    std::vector<NvDevice*> childrenOf(NvDevice* master);
    void closeAll();

    // Reads a device's identity and settings through `port` (not on its reader thread):
    // the port's own device (bus 0xFF) or one behind a master. Null when its id is
    // unreadable; the result value then says why.
    std::unique_ptr<NvDevice> identify(const std::shared_ptr<nda::Port>& port, uint8_t busId,
                                       unsigned timeout, NvResultValue* rc);
    // Reads a master's radio, rate and tracker list into its cache.
    NvResultValue readMasterState(NvDevice* master, unsigned timeout);
    // Publishes a tracker behind `master` (on the master's reader thread, or before the
    // master is published) and reports its connectivity. False when its id or bus is taken.
    bool attachChild(NvDevice* master, std::unique_ptr<NvDevice> child, bool report);
    // A tracker record from the master (reader thread).
    void trackerReported(NvDevice* master, const KvwInfo& info);
    // Runs `task` on the control's worker thread (requests that a reader cannot make).
    void runInBackground(std::function<void()> task);

    // Opens a recording as file devices.
    bool openFile(const NvString& path);
    // Looks a device up and takes a reference under the lock that destruction needs.
    NvDevice* findAndRef(const NvDeviceId& id);

    // Regaining a device that does not answer at its port (see the C function).
    bool startRestore(const NvString& portName);
    void stopRestore();

    int options() const { return m_options; }
    std::atomic<int> m_options{0};
    std::atomic<uint64_t> logSplitBytes{0};
    std::atomic<uint64_t> logSplitMs{0};
    std::mutex filterMutex;
    NvFilterProfileArray hostProfiles; // empty: the built-in set
    std::atomic<unsigned> replyTimeout{1500};
    NvDevice broadcast;

private:
    std::mutex m_handlerMutex;
    std::condition_variable m_handlerCv;
    std::vector<NvCallbackPlainC*> m_handlers;
    std::map<NvDevice*, std::vector<NvCallbackPlainC*>> m_deviceHandlers;
    std::set<uint64_t> m_activeDispatches;
    uint64_t m_nextTicket = 1;

    void closeChild(NvDevice* child, bool portStopped);
    // Keeps a closed device while somebody references it, destroys it otherwise.
    void retire(std::unique_ptr<NvDevice> owned);
    void workerLoop();
    void restoreLoop(std::string portName);

    std::thread m_restoreThread;
    std::atomic<bool> m_restoreStop{false};

    std::mutex m_workerMutex;
    std::condition_variable m_workerCv;
    std::deque<std::function<void()>> m_workerTasks;
    std::thread m_worker;
    bool m_workerStop = false;

    std::mutex m_mutex; // guards the maps below
    std::map<NvDeviceId, std::unique_ptr<NvDevice>> m_devices;
    std::vector<std::unique_ptr<NvDevice>> m_closed; // closed, still referenced
    std::vector<std::shared_ptr<nda::Port>> m_deadPorts;
    std::set<std::string> m_opening;
};

namespace nda {

inline bool fail(NvResultValue value)
{
    setResult(value);
    return false;
}

inline bool done(NvResultValue rc)
{
    setResult(rc);
    return rc == NRV_OK;
}

// A device handle usable for a port request: non-null, not the broadcast nor a file,
// still open.
inline bool usable(NvDevice* dev)
{
    if (!dev || dev->isBroadcast || dev->isFile)
        return fail(dev ? NRV_NOT_SUPPORTED : NRV_INVALID_DEVICE);
    if (!dev->isOpen)
        return fail(NRV_PORT_NOT_OPEN);
    return true;
}

inline unsigned timeoutOf(NvDevice* dev, unsigned timeout)
{
    return timeout ? timeout : dev->control->replyTimeout.load();
}

// Holds a reference for the length of a call whose own effect may close the device (a
// tracker switched off disconnects while the call still uses it).
class DeviceRef
{
public:
    explicit DeviceRef(NvDevice* device) : m_device(device) { NvDevice_addRef(m_device); }
    ~DeviceRef() { NvDevice_removeRef(m_device); }
    DeviceRef(const DeviceRef&) = delete;
    DeviceRef& operator=(const DeviceRef&) = delete;

private:
    NvDevice* m_device;
};

// Request `mid` and wait for mid + 1 (or an Error).
inline NvResultValue request(NvDevice* dev, uint8_t mid, const NvByteArray& data, NvMessage* reply,
                             unsigned timeout = 0)
{
    return dev->port->request(NvMessage(dev->busId, mid, data), uint8_t(mid + 1), reply,
                              timeoutOf(dev, timeout));
}

// A text reply (product code, filter label) without its padding.
inline NvString replyText(const NvMessage& reply)
{
    NvString text(reinterpret_cast<const char*>(reply.data()), reply.dataSize());
    while (!text.empty() && (text.back() == '\0' || text.back() == ' '))
        text.pop_back();
    return text;
}

// Copies a cached field under the device's lock; the default value for a null device.
template <typename T>
void copyCached(NvDevice* dev, T* out, T NvDevice::*field)
{
    if (!out)
        return;
    *out = T();
    if (!dev)
        return;
    std::lock_guard<std::mutex> lock(dev->mutex);
    *out = dev->*field;
}

// The replies that describe `dev` in a recording, rebuilt from what it reported.
std::vector<NvMessage> describeForLog(NvDevice* dev);
// A file device is closed: loading stops when no other device of the file is left.
void fileDeviceClosing(NvDevice* dev);
// Closes the recording of a device that goes away; the file stays valid.
void closeRecording(NvDevice* dev);
// Appends a frame of `dev` to its recording, if it is being recorded (reader thread).
void recordFrame(NvDevice* dev, const NvFrameView& view);
// Adds a tracker that connected while its master records.
void recordNewChild(NvDevice* master, NvDevice* child);

// One setting per line and function a device of this family accepts (polarity rising,
// other fields at their defaults); the lines come from the family, not the device.
NvSyncSettingArray supportedSyncSettings(const NvDeviceId& id);

// Reads the output configuration and sync settings into the cache again.
NvResultValue reloadDevice(NvDevice* dev);

} // namespace nda
