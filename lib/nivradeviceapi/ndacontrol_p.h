#pragma once
// Internals of the control, its devices and their ports.

#include "nvcontrol.h"
#include "nvframeparser.h"

#include <atomic>
#include <condition_variable>
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

void setResult(NvResultValue value);
NvResultValue lastResult();
void closeAllControls();
// Whether some control has `name` open; fills the device's identity and rate into `info`.
bool findOpenPort(const std::string& name, NvPortInfo* info);

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
    // Sends `message` and waits for a frame with `replyMid` or an Error frame. An Error
    // gives its code; no answer gives NRV_TIMEOUT.
    NvResultValue request(const NvMessage& message, uint8_t replyMid, NvMessage* reply,
                          unsigned timeoutMs);
    void attach(NvDevice* device) { m_device = device; }
    bool isReaderThread() const;
    // The reader hands `device` to NvControl::release when it ends.
    void releaseOnExit(NvDevice* device) { m_releaseOnExit = device; }
    const std::string& name() const { return m_name; }
    NvBaudRate baudRate() const { return m_baudRate; }
    uint64_t checksumErrors() const { return m_checksumErrors; }

private:
    void readLoop();
    void readFrames();
    void onFrame(const NvFrameView& view);
    void onDataPacket(NvDevice* dev, const NvFrameView& view);
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
    NvFrameParser m_parser; // reader thread only
    std::atomic<uint64_t> m_checksumErrors{0};

    std::mutex m_writeMutex;
    std::mutex m_requestMutex; // one request at a time per port
    std::mutex m_replyMutex;   // guards the fields below
    std::condition_variable m_replyCv;
    bool m_waiting = false;
    uint8_t m_expected = 0;
    bool m_gotReply = false;
    bool m_hungUp = false;
    NvMessage m_reply;
};

} // namespace nda

struct NvDevice
{
    nda::Control* control = nullptr;
    bool isBroadcast = false;
    std::atomic<int> refs{0};
    std::atomic<bool> isOpen{true};
    std::atomic<NvDeviceState> state{NDS_INITIAL};

    // Fixed once the device is published.
    NvDeviceId id;
    std::shared_ptr<nda::Port> port;

    std::mutex mutex; // guards what follows: reinitialize reads it again
    NvString productCode;
    NvVersion firmware;
    NvVersion hardware;
    NvOutputConfigurationArray outputConfiguration;
    NvSyncSettingArray syncSettings;
    int locationId = 0;
    NvGpsStatus gnssStatus;

    // Reader thread only.
    bool m_haveCounter = false;
    uint16_t m_lastCounter = 0;
    void resetCounter();
};

struct NvControl
{
    NvControl();
    ~NvControl();

    // Calls `f(handler)` for every registered handler, in order, without holding a lock
    // while a handler runs.
    template <typename F>
    void dispatch(F&& f)
    {
        dispatchImpl(std::function<void(const NvCallbackPlainC*)>(std::forward<F>(f)));
    }
    void dispatchImpl(const std::function<void(const NvCallbackPlainC*)>& f);
    void addHandler(NvCallbackPlainC* handler, bool chain);
    void removeHandler(NvCallbackPlainC* handler);

    void changeState(NvDevice* dev, NvDeviceState newState);
    // The port of `dev` hung up (called on its reader thread).
    void deviceLost(NvDevice* dev);
    // Drops a closed device once nobody references it.
    void release(NvDevice* dev);

    bool openPort(const NvString& name, NvBaudRate baudRate, unsigned timeout, NvPortInfo* info);
    bool closeDevice(NvDevice* dev);
    NvDevice* findDevice(const NvDeviceId& id);
    NvDevice* findByPort(const NvString& name);
    std::vector<NvDevice*> devices();
    void closeAll();

    int options() const { return m_options; }
    std::atomic<int> m_options{0};
    std::atomic<unsigned> replyTimeout{1500};
    NvDevice broadcast;

private:
    std::mutex m_handlerMutex;
    std::condition_variable m_handlerCv;
    std::vector<NvCallbackPlainC*> m_handlers;
    std::set<uint64_t> m_activeDispatches;
    uint64_t m_nextTicket = 1;

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

// A device handle usable for a port request: non-null, not the broadcast, still open.
inline bool usable(NvDevice* dev)
{
    if (!dev || dev->isBroadcast)
        return fail(dev ? NRV_NOT_SUPPORTED : NRV_INVALID_DEVICE);
    if (!dev->isOpen)
        return fail(NRV_PORT_NOT_OPEN);
    return true;
}

inline unsigned timeoutOf(NvDevice* dev, unsigned timeout)
{
    return timeout ? timeout : dev->control->replyTimeout.load();
}

// Request `mid` and wait for mid + 1 (or an Error).
inline NvResultValue request(NvDevice* dev, uint8_t mid, const NvByteArray& data, NvMessage* reply,
                             unsigned timeout = 0)
{
    return dev->port->request(NvMessage::toDevice(mid, data), uint8_t(mid + 1), reply,
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

// Reads the output configuration and sync settings into the cache again.
NvResultValue reloadDevice(NvDevice* dev);

} // namespace nda
