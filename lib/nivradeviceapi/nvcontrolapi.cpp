#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <algorithm>
#include <cstring>
#include <future>

using nda::done;
using nda::fail;
using nda::request;
using nda::setResult;
using nda::timeoutOf;
using nda::usable;

namespace {

thread_local std::vector<uint64_t> t_dispatchTickets; // dispatches running on this thread

} // namespace

// ------------------------------------------------------------------------ NvControl

namespace {
// Every live control, for ndaTerminate and for the scanner, which must leave ports alone
// that a control has open. Lock order: this mutex before a control's own.
std::mutex g_registryMutex;
std::set<NvControl*> g_controls;
} // namespace

void nda::closeAllControls()
{
    std::lock_guard<std::mutex> lock(g_registryMutex);
    for (NvControl* control : g_controls)
        control->closeAll();
}

bool nda::findOpenPort(const std::string& name, NvPortInfo* info)
{
    std::lock_guard<std::mutex> lock(g_registryMutex);
    for (NvControl* control : g_controls)
        if (NvDevice* dev = control->findByPort(name)) {
            if (info) {
                info->deviceId = dev->id;
                info->baudRate = dev->port->baudRate();
            }
            return true;
        }
    return false;
}

NvControl::NvControl()
{
    broadcast.control = this;
    broadcast.isBroadcast = true;
    std::lock_guard<std::mutex> lock(g_registryMutex);
    g_controls.insert(this);
}

NvControl::~NvControl()
{
    {
        std::lock_guard<std::mutex> lock(g_registryMutex);
        g_controls.erase(this);
    }
    stopRestore();
    closeAll();
    {
        std::lock_guard<std::mutex> lock(m_workerMutex);
        m_workerStop = true;
    }
    m_workerCv.notify_all();
    if (m_worker.joinable())
        m_worker.join();
    closeAll(); // what the worker's last tasks may have left
}

void NvControl::runInBackground(std::function<void()> task)
{
    std::lock_guard<std::mutex> lock(m_workerMutex);
    if (m_workerStop)
        return;
    m_workerTasks.push_back(std::move(task));
    if (!m_worker.joinable())
        m_worker = std::thread([this] { workerLoop(); });
    m_workerCv.notify_one();
}

void NvControl::workerLoop()
{
    std::unique_lock<std::mutex> lock(m_workerMutex);
    for (;;) {
        m_workerCv.wait(lock, [this] { return m_workerStop || !m_workerTasks.empty(); });
        if (m_workerTasks.empty())
            return;
        std::function<void()> task = std::move(m_workerTasks.front());
        m_workerTasks.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

void NvControl::dispatchImpl(NvDevice* dev, const std::function<void(const NvCallbackPlainC*)>& f)
{
    std::vector<NvCallbackPlainC*> snapshot;
    size_t controlCount = 0;
    uint64_t ticket = 0;
    {
        std::lock_guard<std::mutex> lock(m_handlerMutex);
        snapshot = m_handlers;
        controlCount = snapshot.size();
        if (dev) {
            auto it = m_deviceHandlers.find(dev);
            if (it != m_deviceHandlers.end())
                snapshot.insert(snapshot.end(), it->second.begin(), it->second.end());
        }
        if (snapshot.empty())
            return;
        ticket = m_nextTicket++;
        m_activeDispatches.insert(ticket);
    }
    t_dispatchTickets.push_back(ticket);
    for (size_t i = 0; i < snapshot.size(); ++i) {
        NvCallbackPlainC* h = snapshot[i];
        {
            // A handler removed by an earlier handler of this very dispatch is skipped.
            std::lock_guard<std::mutex> lock(m_handlerMutex);
            const std::vector<NvCallbackPlainC*>* list = &m_handlers;
            if (i >= controlCount) {
                auto it = m_deviceHandlers.find(dev);
                if (it == m_deviceHandlers.end())
                    continue;
                list = &it->second;
            }
            if (std::find(list->begin(), list->end(), h) == list->end())
                continue;
        }
        f(h);
    }
    t_dispatchTickets.pop_back();
    {
        std::lock_guard<std::mutex> lock(m_handlerMutex);
        m_activeDispatches.erase(ticket);
    }
    m_handlerCv.notify_all();
}

void NvControl::addHandler(NvCallbackPlainC* handler, bool chain, NvDevice* dev)
{
    if (!handler)
        return;
    std::lock_guard<std::mutex> lock(m_handlerMutex);
    std::vector<NvCallbackPlainC*>& list = dev ? m_deviceHandlers[dev] : m_handlers;
    if (!chain)
        list.clear();
    if (std::find(list.begin(), list.end(), handler) == list.end())
        list.push_back(handler);
}

void NvControl::removeHandler(NvCallbackPlainC* handler, NvDevice* dev)
{
    std::unique_lock<std::mutex> lock(m_handlerMutex);
    if (dev) {
        auto it = m_deviceHandlers.find(dev);
        if (it != m_deviceHandlers.end())
            it->second.erase(std::remove(it->second.begin(), it->second.end(), handler),
                             it->second.end());
    } else {
        m_handlers.erase(std::remove(m_handlers.begin(), m_handlers.end(), handler),
                         m_handlers.end());
    }
    // Wait for the dispatches that may still hold the handler, except this thread's own.
    const uint64_t limit = m_nextTicket;
    m_handlerCv.wait(lock, [&] {
        for (uint64_t t : m_activeDispatches)
            if (t < limit && std::find(t_dispatchTickets.begin(), t_dispatchTickets.end(), t) ==
                                 t_dispatchTickets.end())
                return false;
        return true;
    });
}

void NvControl::forgetHandlers(NvDevice* dev)
{
    std::lock_guard<std::mutex> lock(m_handlerMutex);
    m_deviceHandlers.erase(dev);
}

void NvControl::changeState(NvDevice* dev, NvDeviceState newState)
{
    const NvDeviceState old = dev->state.exchange(newState);
    if (old == newState)
        return;
    dispatch(dev, [&](const NvCallbackPlainC* h) {
        if (h->onDeviceStateChanged)
            h->onDeviceStateChanged(h->userData, dev, newState, old);
    });
}

namespace {
// Destructing is reported when a device leaves the table (closed or lost), so holders of
// a reference learn it at once; by now it was reported, unless nobody saw it close.
void destroyDevice(NvControl* control, std::unique_ptr<NvDevice> dev)
{
    control->changeState(dev.get(), NDS_DESTRUCTING);
    control->forgetHandlers(dev.get());
    dev.reset();
}
} // namespace

void NvControl::deviceLost(NvDevice* dev)
{
    nda::closeRecording(dev);
    if (dev->isMaster)
        for (NvDevice* child : childrenOf(dev))
            closeChild(child, false);
    std::unique_ptr<NvDevice> owned;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_devices.find(dev->id);
        if (it == m_devices.end() || it->second.get() != dev)
            return; // being closed by an API call
        owned = std::move(it->second);
        m_devices.erase(it);
        m_deadPorts.push_back(dev->port); // joined later, not from its own thread
        dev->isOpen = false;
    }
    changeState(dev, NDS_DESTRUCTING);
    retire(std::move(owned));
}

void NvControl::release(NvDevice* dev, bool settle)
{
    std::unique_ptr<NvDevice> owned;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it =
            std::find_if(m_closed.begin(), m_closed.end(),
                         [dev](const std::unique_ptr<NvDevice>& d) { return d.get() == dev; });
        if (it == m_closed.end())
            return;
        if (settle)
            dev->releasePending = false;
        if (dev->refs > 0 || dev->releasePending)
            return;
        owned = std::move(*it);
        m_closed.erase(it);
    }
    destroyDevice(this, std::move(owned));
}

void NvControl::closeChild(NvDevice* child, bool portStopped)
{
    std::unique_ptr<NvDevice> owned;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_devices.find(child->id);
        if (it == m_devices.end() || it->second.get() != child)
            return;
        owned = std::move(it->second);
        m_devices.erase(it);
        {
            std::lock_guard<std::mutex> childLock(child->master->childMutex);
            if (child->master->children[child->busId] == child)
                child->master->children[child->busId] = nullptr;
        }
        child->isOpen = false;
        child->releasePending = true; // a reference dropped meanwhile must not free it
        m_closed.push_back(std::move(owned));
    }
    changeState(child, NDS_DESTRUCTING);
    // The reader may be inside a callback with this very handle: it releases the device
    // once it is past it.
    if (portStopped && !child->port->isReaderThread())
        release(child, true);
    else
        child->port->releaseLater(child);
}

bool NvControl::closeDevice(NvDevice* dev)
{
    if (dev->master) {
        closeChild(dev, false);
        setResult(NRV_OK);
        return true;
    }
    std::unique_ptr<NvDevice> owned;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = std::find_if(m_devices.begin(), m_devices.end(),
                               [dev](const auto& entry) { return entry.second.get() == dev; });
        if (it == m_devices.end())
            return fail(NRV_INVALID_DEVICE);
        owned = std::move(it->second);
        m_devices.erase(it);
        if (dev->isFile)
            dev->isOpen = false;
    }
    if (dev->isFile) {
        nda::fileDeviceClosing(dev);
        changeState(dev, NDS_DESTRUCTING);
        retire(std::move(owned));
        setResult(NRV_OK);
        return true;
    }
    dev->port->attach(nullptr);
    dev->port->shutdown();
    nda::closeRecording(dev); // what was recorded stays a valid file
    if (dev->isMaster)
        for (NvDevice* child : childrenOf(dev))
            closeChild(child, true);
    changeState(dev, NDS_DESTRUCTING);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dev->isOpen = false;
        if (dev->port->isReaderThread()) {
            // Closed from its own callback: later handlers of this dispatch still get the
            // handle, so the reader releases the device once it has left its callbacks.
            m_deadPorts.push_back(dev->port);
            dev->releasePending = true;
            dev->port->releaseOnExit(dev);
            m_closed.push_back(std::move(owned));
            setResult(NRV_OK);
            return true;
        }
    }
    retire(std::move(owned));
    setResult(NRV_OK);
    return true;
}

int NvControl::unref(NvDevice* dev)
{
    // Under the lock that closing takes: a closer that sees the count reach 0 destroys the
    // device, so nothing may touch it after the decrement outside the lock.
    int left;
    bool closed;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        left = --dev->refs;
        closed = !dev->isOpen;
    }
    if (left == 0 && closed)
        release(dev); // may destroy the device
    return left;
}

void NvControl::retire(std::unique_ptr<NvDevice> owned)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (owned->refs > 0) {
            m_closed.push_back(std::move(owned));
            return;
        }
    }
    destroyDevice(this, std::move(owned));
}

NvDevice* NvControl::findDevice(const NvDeviceId& id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_devices.find(id);
    return it == m_devices.end() ? nullptr : it->second.get();
}

NvDevice* NvControl::findByPort(const NvString& name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_devices)
        if (!entry.second->master && entry.second->port && entry.second->port->name() == name)
            return entry.second.get();
    return nullptr;
}

std::vector<NvDevice*> NvControl::mainDevices()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<NvDevice*> out;
    for (auto& entry : m_devices)
        if (!entry.second->master)
            out.push_back(entry.second.get());
    return out;
}

std::vector<NvDeviceRef> NvControl::mainDevicesRef()
{
    std::vector<NvDeviceRef> out;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_devices)
        if (!entry.second->master) {
            ++entry.second->refs;
            out.push_back(NvDeviceRef::adopt(entry.second.get()));
        }
    return out;
}

NvDeviceIdArray NvControl::deviceIds(bool mainOnly)
{
    NvDeviceIdArray out;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_devices)
        if (!mainOnly || !entry.second->master)
            out.push_back(entry.first);
    return out;
}

std::vector<NvDevice*> NvControl::childrenOf(NvDevice* master)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<NvDevice*> out;
    for (auto& entry : m_devices)
        if (entry.second->master == master)
            out.push_back(entry.second.get());
    return out;
}

std::vector<NvDevice*> NvControl::devices()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<NvDevice*> out;
    for (auto& entry : m_devices)
        out.push_back(entry.second.get());
    return out;
}

void NvControl::closeAll()
{
    for (const NvDeviceRef& dev : mainDevicesRef())
        closeDevice(dev.get());
    std::vector<std::shared_ptr<nda::Port>> dead;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dead.swap(m_deadPorts);
    }
    for (auto& port : dead)
        port->shutdown();
}

namespace {

struct OpeningGuard
{
    std::mutex& mutex;
    std::set<std::string>& opening;
    std::string name;
    ~OpeningGuard()
    {
        std::lock_guard<std::mutex> lock(mutex);
        opening.erase(name);
    }
};

} // namespace

bool NvControl::openPort(const NvString& name, NvBaudRate baudRate, unsigned timeout,
                         NvPortInfo* info)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& entry : m_devices)
            if (entry.second->port && entry.second->port->name() == name)
                return fail(NRV_PORT_IN_USE);
        if (!m_opening.insert(name).second)
            return fail(NRV_PORT_IN_USE);
    }
    OpeningGuard guard{m_mutex, m_opening, name};
    if (baudRate != NBR_DETECT && nvBaudRateToRate(baudRate) == 0)
        return fail(NRV_INVALID_BAUDRATE);

    auto port = std::make_shared<nda::Port>(this, name);
    NvResultValue rc = port->open(baudRate == NBR_DETECT ? NBR_115200 : baudRate);
    if (rc != NRV_OK)
        return fail(rc);
    const unsigned t = timeout ? timeout : replyTimeout.load();

    // Configuration mode first: a measuring device refuses most requests.
    std::vector<NvBaudRate> rates;
    if (baudRate == NBR_DETECT) {
        rates = nda::detectionOrder(name);
    } else {
        rates = {baudRate, baudRate}; // one retry: the first may meet a WakeUp in flight
    }
    // A device answers GoToConfig within milliseconds at its rate; a silent port costs the
    // sweep a quarter second per rate instead of a whole reply time-out each.
    const unsigned perRate = baudRate == NBR_DETECT ? std::min(t, 250u) : t;
    rc = NRV_TIMEOUT;
    for (NvBaudRate rate : rates) {
        if (!port->setBaudRate(rate))
            continue;
        rc = port->request(NvMessage::toDevice(NvMid::GoToConfig), NvMid::GoToConfigAck, nullptr,
                           perRate);
        if (rc == NRV_OK || rc == NRV_UNEXPECTED_DISCONNECT)
            break;
    }
    if (rc != NRV_OK) {
        port->shutdown();
        return fail(rc == NRV_TIMEOUT && baudRate == NBR_DETECT ? NRV_BAUDRATE_NOT_DETECTED : rc);
    }

    std::unique_ptr<NvDevice> dev = identify(port, NvMessage::BusIdDevice, t, &rc);
    if (!dev) {
        port->shutdown();
        return fail(rc);
    }
    std::vector<std::unique_ptr<NvDevice>> children;
    if (dev->isMaster) {
        port->setMasterPort();
        readMasterState(dev.get(), t);
        std::vector<KvwInfo> present;
        {
            std::lock_guard<std::mutex> lock(dev->mutex);
            present = dev->trackers;
        }
        for (const KvwInfo& info : present) {
            if ((info.state != NCS_PLUGGED_IN && info.state != NCS_WIRELESS) || info.busId == 0 ||
                info.busId > 32)
                continue;
            std::unique_ptr<NvDevice> child = identify(port, info.busId, t, nullptr);
            if (!child)
                child = std::make_unique<NvDevice>();
            child->control = this;
            child->id = info.deviceId; // as the master knows it, even if it did not answer
            if (child->productCode.empty())
                child->productCode = info.deviceId.productCode();
            child->busId = info.busId;
            child->kvw = info;
            child->port = port;
            children.push_back(std::move(child));
        }
    }

    NvDevice* raw = dev.get();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_devices.count(raw->id)) {
            port->shutdown();
            return fail(NRV_PORT_IN_USE); // the same device on another port
        }
        m_devices.emplace(raw->id, std::move(dev));
    }
    if (info) {
        info->portName = name;
        info->baudRate = port->baudRate();
        info->deviceId = raw->id;
    }
    nda::rememberPortRate(name, port->baudRate());
    nda::log(NDA_LOG_DEBUG, ("Opened " + name + ": " + raw->id.toString()).c_str());
    changeState(raw, NDS_CONFIGURATION);
    // Trackers are published on the reader, where their frames are routed; the opener
    // waits so that they are there when openPort returns.
    if (!children.empty()) {
        auto pending =
            std::make_shared<std::vector<std::unique_ptr<NvDevice>>>(std::move(children));
        auto doneFlag = std::make_shared<std::promise<void>>();
        std::future<void> attached = doneFlag->get_future();
        port->post([this, raw, pending, doneFlag] {
            for (auto& child : *pending)
                attachChild(raw, std::move(child), true);
            doneFlag->set_value();
        });
        port->attach(raw);
        attached.wait();
    } else {
        port->attach(raw);
    }
    setResult(NRV_OK);
    return true;
}

// ------------------------------------------------------------------------ C functions

extern "C" {

const char* NvResultValue_toString(NvResultValue value)
{
    return nvResultValueText(value);
}

NvControl* NvControl_construct(void)
{
    setResult(NRV_OK);
    return new NvControl();
}

void NvControl_destruct(NvControl* control)
{
    delete control;
}

void NvControl_addCallbackHandler(NvControl* control, NvCallbackPlainC* handler, int chain)
{
    if (control)
        control->addHandler(handler, chain != 0);
}

void NvControl_removeCallbackHandler(NvControl* control, NvCallbackPlainC* handler)
{
    if (control)
        control->removeHandler(handler);
}

void NvDevice_addCallbackHandler(NvDevice* device, NvCallbackPlainC* handler, int chain)
{
    if (device && !device->isBroadcast)
        device->control->addHandler(handler, chain != 0, device);
}

void NvDevice_removeCallbackHandler(NvDevice* device, NvCallbackPlainC* handler)
{
    if (device && !device->isBroadcast)
        device->control->removeHandler(handler, device);
}

void NvControl_setReplyTimeout(NvControl* control, unsigned ms)
{
    if (control)
        control->replyTimeout = ms ? ms : 1500;
}

unsigned NvControl_replyTimeout(NvControl* control)
{
    return control ? control->replyTimeout.load() : 0;
}

int NvControl_openPort(NvControl* control, const NvString* portName, NvBaudRate baudRate,
                       unsigned timeout)
{
    if (!control || !portName)
        return fail(NRV_INVALID_ARGUMENT);
    return control->openPort(*portName, baudRate, timeout, nullptr);
}

int NvControl_openPort_1(NvControl* control, NvPortInfo* portInfo, unsigned timeout)
{
    if (!control || !portInfo)
        return fail(NRV_INVALID_ARGUMENT);
    return control->openPort(portInfo->portName, portInfo->baudRate, timeout, portInfo);
}

int NvControl_openImarPort_internal(NvControl* control, const NvString* portName, NvBaudRate, int,
                                    unsigned)
{
    if (!control || !portName)
        return fail(NRV_INVALID_ARGUMENT);
    // External iMAR units speak their own protocol; the library lists their identifiers
    // (isImar) but does not talk to them.
    nda::log(NDA_LOG_ALERT, ("iMAR port " + *portName + " not opened: not supported").c_str());
    return fail(NRV_NOT_SUPPORTED);
}

int NvControl_closePort(NvControl* control, const NvString* portName)
{
    if (!control || !portName)
        return fail(NRV_INVALID_ARGUMENT);
    NvDevice* dev = control->findByPort(*portName);
    return dev ? control->closeDevice(dev) : fail(NRV_PORT_NOT_OPEN);
}

int NvControl_closePort_1(NvControl* control, const NvDeviceId* deviceId)
{
    if (!control || !deviceId)
        return fail(NRV_INVALID_ARGUMENT);
    NvDevice* dev = control->findDevice(*deviceId);
    return dev ? control->closeDevice(dev) : fail(NRV_INVALID_DEVICE);
}

void NvControl_close(NvControl* control)
{
    if (control)
        control->closeAll();
    setResult(NRV_OK);
}

NvDevice* NvControl_device(NvControl* control, const NvDeviceId* deviceId)
{
    if (!control || !deviceId)
        return nullptr;
    return control->findDevice(*deviceId);
}

NvDevice* NvControl_deviceRef(NvControl* control, const NvDeviceId* deviceId)
{
    if (!control || !deviceId)
        return nullptr;
    return control->findAndRef(*deviceId);
}

NvDevice* NvControl_broadcast(NvControl* control)
{
    return control ? &control->broadcast : nullptr;
}

void NvControl_deviceIds(NvControl* control, NvDeviceIdArray* out)
{
    if (!control || !out)
        return;
    *out = control->deviceIds(false);
}

void NvControl_mainDeviceIds(NvControl* control, NvDeviceIdArray* out)
{
    if (!control || !out)
        return;
    *out = control->deviceIds(true);
}

int NvControl_mainDevices(NvControl* control, NvDevice** out, int capacity)
{
    if (!control)
        return 0;
    const auto devs = control->mainDevices();
    for (int i = 0; out && i < capacity && i < int(devs.size()); ++i)
        out[i] = devs[size_t(i)];
    return int(devs.size());
}

int NvControl_mainDevicesRef(NvControl* control, NvDevice** out, int capacity)
{
    if (!control || !out || capacity <= 0)
        return 0;
    int n = 0;
    for (NvDeviceRef& dev : control->mainDevicesRef())
        if (n < capacity) {
            out[n++] = dev.get();
            NvDevice_addRef(out[n - 1]); // the caller's own, beside the one `dev` drops
        }
    return n;
}

void NvControl_kvDeviceIds(NvControl* control, NvDeviceIdArray* out)
{
    if (!control || !out)
        return;
    out->clear();
    for (const NvDeviceId& id : control->deviceIds(false))
        if (!id.isImar())
            out->push_back(id);
}

int NvControl_deviceCount(NvControl* control)
{
    return control ? int(control->devices().size()) : 0;
}

void NvControl_setOptions(NvControl* control, int enable, int disable)
{
    if (!control)
        return;
    int options = control->m_options.load();
    while (!control->m_options.compare_exchange_weak(options, (options | enable) & ~disable)) {
    }
}

int NvControl_options(NvControl* control)
{
    return control ? control->options() : 0;
}

NvResultValue NvControl_lastResult(NvControl*)
{
    return nda::lastResult();
}

const char* NvControl_lastResultText(NvControl*)
{
    return nvResultValueText(nda::lastResult());
}

// ------------------------------------------------------------------------ NvDevice

int NvDevice_addRef(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return 0;
    return ++device->refs;
}

int NvDevice_removeRef(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return 0;
    return device->control->unref(device);
}

int NvDevice_refCount(NvDevice* device)
{
    return device ? device->refs.load() : 0;
}

void NvDevice_deviceId(NvDevice* device, NvDeviceId* out)
{
    if (out)
        *out = device && !device->isBroadcast ? device->id : NvDeviceId();
}

void NvDevice_productCode(NvDevice* device, NvString* out)
{
    nda::copyCached(device, out, &NvDevice::productCode);
}

void NvDevice_firmwareVersion(NvDevice* device, NvVersion* out)
{
    nda::copyCached(device, out, &NvDevice::firmware);
}

void NvDevice_hardwareVersion(NvDevice* device, NvVersion* out)
{
    nda::copyCached(device, out, &NvDevice::hardware);
}

void NvDevice_portName(NvDevice* device, NvString* out)
{
    if (out)
        *out = device && device->port ? device->port->name() : NvString();
}

NvBaudRate NvDevice_baudRate(NvDevice* device)
{
    return device && device->port ? device->port->baudRate() : NBR_INVALID;
}

NvDeviceState NvDevice_deviceState(NvDevice* device)
{
    return device ? device->state.load() : NDS_INITIAL;
}

NvConnectivityState NvDevice_connectivityState(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return NCS_UNKNOWN;
    if (!device->isOpen)
        return NCS_DISCONNECTED;
    if (device->isFile)
        return NCS_FILE;
    if (device->master) {
        std::lock_guard<std::mutex> lock(device->mutex);
        return device->kvw.state;
    }
    return NCS_PLUGGED_IN;
}

int NvDevice_isMeasuring(NvDevice* device)
{
    return device && device->state == NDS_MEASUREMENT;
}

int NvDevice_isInConfigMode(NvDevice* device)
{
    return device && device->state == NDS_CONFIGURATION;
}

namespace {
int modeChange(NvDevice* device, uint8_t mid, NvResultValue failure)
{
    if (device && device->isBroadcast) {
        bool ok = true;
        // Masters pass mode changes on to their trackers. Each device is referenced: an
        // unplug may close it while the request waits.
        for (const NvDeviceRef& dev : device->control->mainDevicesRef())
            ok = modeChange(dev.get(), mid, failure) && ok;
        setResult(ok ? NRV_OK : failure);
        return ok;
    }
    if (!usable(device))
        return 0;
    const NvResultValue rc = request(device, mid, {}, nullptr);
    return done(rc);
}
} // namespace

int NvDevice_gotoConfig(NvDevice* device)
{
    return modeChange(device, NvMid::GoToConfig, NRV_COULD_NOT_GO_TO_CONFIGURATION);
}

int NvDevice_gotoMeasurement(NvDevice* device)
{
    return modeChange(device, NvMid::GoToMeasurement, NRV_COULD_NOT_GO_TO_MEASUREMENT);
}

int NvDevice_reset(NvDevice* device)
{
    if (!usable(device))
        return 0;
    // The WakeUp that follows is answered by the reader, which keeps the device in
    // configuration and reports it.
    if (!done(request(device, NvMid::Reset, {}, nullptr)))
        return 0;
    // The device boots at the rate it was given; the port follows (a device behind a
    // master keeps the master's link).
    const NvBaudRate next = device->pendingBaudRate.exchange(NBR_INVALID);
    if (next != NBR_INVALID && !device->master && !device->port->setBaudRate(next))
        return fail(NRV_PORT_OPEN_FAILED);
    return 1;
}

int NvDevice_restoreFactoryDefaults(NvDevice* device)
{
    if (!usable(device))
        return 0;
    if (!done(request(device, NvMid::RestoreFactoryDefaults, {}, nullptr)))
        return 0;
    return NvDevice_updateCachedDeviceInformation(device);
}

int NvDevice_updateCachedDeviceInformation(NvDevice* device)
{
    if (!usable(device))
        return 0;
    NvMessage reply;
    NvOutputConfigurationArray config;
    NvResultValue rc = request(device, NvMid::ReqOutputConfiguration, {}, &reply);
    if (rc != NRV_OK || !nvOutputConfigurationFromWire(reply.data(), reply.dataSize(), config))
        return fail(rc != NRV_OK ? rc : NRV_UNEXPECTED_REPLY);
    NvSyncSettingArray sync;
    rc = request(device, NvMid::ReqSyncSettings, {}, &reply);
    if (rc == NRV_OK)
        nvSyncSettingsFromWire(reply.data(), reply.dataSize(), sync);
    // A factory reset or a settings file changes it as well.
    const bool haveLocation =
        request(device, NvMid::ReqLocationId, {}, &reply) == NRV_OK && reply.dataSize() >= 2;
    const int location = haveLocation ? reply.readU16(0) : 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    device->outputConfiguration = config;
    device->syncSettings = sync;
    if (haveLocation)
        device->locationId = location;
    setResult(NRV_OK);
    return 1;
}

void NvDevice_outputConfiguration(NvDevice* device, NvOutputConfigurationArray* out)
{
    nda::copyCached(device, out, &NvDevice::outputConfiguration);
}

int NvDevice_setOutputConfiguration(NvDevice* device, NvOutputConfigurationArray* config)
{
    if (!config)
        return fail(NRV_INVALID_ARGUMENT);
    if (!usable(device))
        return 0;
    NvByteArray wire;
    if (!nvOutputConfigurationToWire(*config, wire))
        return fail(NRV_INVALID_ARGUMENT);
    NvMessage reply;
    const NvResultValue rc = request(device, NvMid::SetOutputConfiguration, wire, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    NvOutputConfigurationArray applied;
    if (!nvOutputConfigurationFromWire(reply.data(), reply.dataSize(), applied))
        return fail(NRV_UNEXPECTED_REPLY);
    {
        std::lock_guard<std::mutex> lock(device->mutex);
        device->outputConfiguration = applied;
    }
    *config = applied;
    setResult(NRV_OK);
    return 1;
}

void NvDevice_syncSettings(NvDevice* device, NvSyncSettingArray* out)
{
    nda::copyCached(device, out, &NvDevice::syncSettings);
}

int NvDevice_setSyncSettings(NvDevice* device, const NvSyncSettingArray* settings)
{
    if (!settings)
        return fail(NRV_INVALID_ARGUMENT);
    if (!usable(device))
        return 0;
    NvMessage reply;
    const NvResultValue rc =
        request(device, NvMid::SetSyncSettings, nvSyncSettingsToWire(*settings), &reply);
    if (rc != NRV_OK)
        return fail(rc);
    NvSyncSettingArray applied;
    nvSyncSettingsFromWire(reply.data(), reply.dataSize(), applied);
    std::lock_guard<std::mutex> lock(device->mutex);
    device->syncSettings = applied;
    setResult(NRV_OK);
    return 1;
}

void NvDevice_supportedSyncSettings(NvDevice* device, NvSyncSettingArray* out)
{
    if (!out)
        return;
    out->clear();
    if (!device || device->isBroadcast) {
        setResult(NRV_INVALID_DEVICE);
        return;
    }
    *out = nda::supportedSyncSettings(device->id);
    setResult(NRV_OK);
}

int NvDevice_locationId(NvDevice* device)
{
    if (!device)
        return 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->locationId;
}

int NvDevice_setLocationId(NvDevice* device, int locationId)
{
    if (!usable(device))
        return 0;
    NvMessage reply;
    const NvResultValue rc =
        request(device, NvMid::SetLocationId,
                {uint8_t((locationId >> 8) & 0xFF), uint8_t(locationId & 0xFF)}, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    std::lock_guard<std::mutex> lock(device->mutex);
    device->locationId = reply.readU16(0);
    setResult(NRV_OK);
    return 1;
}

int NvDevice_sendCustomMessage(NvDevice* device, const NvMessage* message, int waitForReply,
                               NvMessage* reply, unsigned timeout)
{
    if (!message || message->isEmpty())
        return fail(NRV_INVALID_ARGUMENT);
    if (!usable(device))
        return 0;
    if (!waitForReply)
        return device->port->write(*message) ? done(NRV_OK) : fail(NRV_PORT_WRITE_ERROR);
    const uint8_t mid = message->messageId();
    const uint8_t replyMid = mid == NvMid::ReqData ? uint8_t(NvMid::DataPacket) : uint8_t(mid + 1);
    return done(device->port->request(*message, replyMid, reply, timeoutOf(device, timeout)));
}

int NvDevice_sendRawMessage(NvDevice* device, const NvMessage* message)
{
    return NvDevice_sendCustomMessage(device, message, 0, nullptr, 0);
}

uint64_t NvDevice_checksumErrors(NvDevice* device)
{
    return device && device->port ? device->port->checksumErrors() : 0;
}

} // extern "C"
