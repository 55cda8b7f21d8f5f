// Wireless masters and the trackers behind them: identity reading shared with the port
// devices, the master's unsolicited reports on its reader thread, and the API calls.

#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <algorithm>

using nda::done;
using nda::fail;
using nda::setResult;
using nda::usable;

namespace {

NvResultValue ask(const std::shared_ptr<nda::Port>& port, uint8_t bus, uint8_t mid,
                  NvMessage* reply, unsigned timeout, const NvByteArray& data = {})
{
    return port->request(NvMessage(bus, mid, data), uint8_t(mid + 1), reply, timeout);
}

// Replaces the record of the same tracker, or appends it.
void storeRecord(std::vector<KvwInfo>& records, const KvwInfo& info)
{
    for (KvwInfo& r : records)
        if (r.deviceId == info.deviceId) {
            r = info;
            return;
        }
    records.push_back(info);
}

bool isPresent(const KvwInfo& info)
{
    return (info.state == NCS_PLUGGED_IN || info.state == NCS_WIRELESS) && info.busId >= 1 &&
           info.busId <= 32;
}

} // namespace

std::unique_ptr<NvDevice> NvControl::identify(const std::shared_ptr<nda::Port>& port, uint8_t bus,
                                              unsigned t, NvResultValue* rc)
{
    auto dev = std::make_unique<NvDevice>();
    dev->control = this;
    dev->busId = bus;
    dev->port = port;
    NvMessage reply;
    NvResultValue r = port->request(NvMessage(bus, NvMid::ReqDeviceId), NvMid::DeviceId, &reply, t);
    if (r == NRV_OK)
        dev->id = NvDeviceId::fromWire(reply.data(), reply.dataSize());
    if (r != NRV_OK || dev->id.isEmpty()) {
        if (rc)
            *rc = NRV_DEVICE_INFO_UNREADABLE;
        return nullptr;
    }
    dev->isMaster = bus == NvMessage::BusIdDevice && dev->id.isWirelessMaster();
    // The rest is optional: an older device may refuse some of it.
    if (ask(port, bus, NvMid::ReqProductCode, &reply, t) == NRV_OK)
        dev->productCode = nda::replyText(reply);
    if (dev->productCode.empty())
        dev->productCode = dev->id.productCode();
    if (ask(port, bus, NvMid::ReqFirmwareRevision, &reply, t) == NRV_OK &&
        reply.dataSize() >= NvVersion::FirmwareWireSize)
        dev->firmware = NvVersion::fromFirmwareWire(reply.data());
    if (ask(port, bus, NvMid::ReqHardwareVersion, &reply, t) == NRV_OK &&
        reply.dataSize() >= NvVersion::HardwareWireSize)
        dev->hardware = NvVersion::fromHardwareWire(reply.data());
    if (ask(port, bus, NvMid::ReqOutputConfiguration, &reply, t) == NRV_OK)
        nvOutputConfigurationFromWire(reply.data(), reply.dataSize(), dev->outputConfiguration);
    if (ask(port, bus, NvMid::ReqSyncSettings, &reply, t) == NRV_OK)
        nvSyncSettingsFromWire(reply.data(), reply.dataSize(), dev->syncSettings);
    if (ask(port, bus, NvMid::ReqLocationId, &reply, t) == NRV_OK && reply.dataSize() >= 2)
        dev->locationId = reply.readU16(0);
    if (ask(port, bus, NvMid::ReqFilterProfile, &reply, t) == NRV_OK && reply.dataSize() >= 2)
        dev->filterProfile = reply.readU16(0);
    if (rc)
        *rc = NRV_OK;
    return dev;
}

namespace nda {

// Decodes an UpdateRate reply into the master's cache.
void storeUpdateRate(NvDevice* master, const NvMessage& reply)
{
    if (reply.dataSize() < 4)
        return;
    std::vector<int> offered;
    const size_t n = reply.readU8(3);
    for (size_t i = 0; i < n && 4 + 2 * i + 1 < reply.dataSize(); ++i)
        offered.push_back(reply.readU16(4 + 2 * i));
    std::lock_guard<std::mutex> lock(master->mutex);
    master->updateRate = reply.readU16(0);
    master->freeSlots = reply.readU8(2);
    master->offeredRates = offered;
}

std::vector<KvwInfo> trackerRecords(const NvMessage& reply, const NvDeviceId& masterId)
{
    std::vector<KvwInfo> out;
    for (size_t off = 0; off + KvwInfo::WireSize <= reply.dataSize(); off += KvwInfo::WireSize) {
        KvwInfo info = KvwInfo::fromWire(reply.data() + off);
        info.masterId = masterId;
        out.push_back(info);
    }
    return out;
}

} // namespace nda

NvResultValue NvControl::readMasterState(NvDevice* master, unsigned t)
{
    NvMessage reply;
    const auto& port = master->port;
    NvResultValue rc = ask(port, NvMessage::BusIdDevice, NvMid::ReqRadioChannel, &reply, t);
    if (rc == NRV_OK && reply.dataSize() >= 1) {
        std::lock_guard<std::mutex> lock(master->mutex);
        master->radioChannel = reply.readU8(0);
    }
    if (ask(port, NvMessage::BusIdDevice, NvMid::ReqUpdateRate, &reply, t) == NRV_OK)
        nda::storeUpdateRate(master, reply);
    rc = ask(port, NvMessage::BusIdDevice, NvMid::ReqTrackerList, &reply, t);
    if (rc != NRV_OK)
        return rc;
    const std::vector<KvwInfo> records = nda::trackerRecords(reply, master->id);
    std::lock_guard<std::mutex> lock(master->mutex);
    for (const KvwInfo& info : records)
        storeRecord(master->trackers, info);
    return NRV_OK;
}

bool NvControl::attachChild(NvDevice* master, std::unique_ptr<NvDevice> child, bool report)
{
    NvDevice* raw = child.get();
    raw->master = master;
    raw->control = this;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_devices.count(raw->id))
            return false;
        std::lock_guard<std::mutex> childLock(master->childMutex);
        if (master->children[raw->busId])
            return false;
        master->children[raw->busId] = raw;
        m_devices.emplace(raw->id, std::move(child));
    }
    NvConnectivityState state;
    {
        std::lock_guard<std::mutex> lock(raw->mutex);
        state = raw->kvw.state;
    }
    nda::recordNewChild(master, raw);
    const bool measuring = master->state == NDS_MEASUREMENT && state == NCS_WIRELESS;
    if (measuring)
        raw->m_lastPacketNs = nda::monotonicNs();
    changeState(raw, measuring ? NDS_MEASUREMENT : NDS_CONFIGURATION);
    if (report)
        dispatch(raw, [&](const NvCallbackPlainC* h) {
            if (h->onConnectivityChanged)
                h->onConnectivityChanged(h->userData, raw, state);
        });
    return true;
}

void NvControl::trackerReported(NvDevice* master, const KvwInfo& reported)
{
    KvwInfo info = reported;
    info.masterId = master->id;
    {
        std::lock_guard<std::mutex> lock(master->mutex);
        storeRecord(master->trackers, info);
    }
    NvDevice* child = nullptr;
    for (NvDevice* c : childrenOf(master))
        if (c->id == info.deviceId)
            child = c;

    auto report = [&](NvDevice* dev) {
        dispatch(dev, [&](const NvCallbackPlainC* h) {
            if (h->onConnectivityChanged)
                h->onConnectivityChanged(h->userData, dev, info.state);
        });
    };

    if (child) {
        NvConnectivityState before;
        {
            std::lock_guard<std::mutex> lock(child->mutex);
            before = child->kvw.state;
            child->kvw = info;
        }
        // The master tells its free slots only when asked, which this (reader) thread
        // cannot do: a tracker leaving the radio gives its slot back, one joining it from
        // the dock takes one. Before the report, so that handlers see the new count.
        if (before == NCS_WIRELESS && info.state != NCS_WIRELESS) {
            std::lock_guard<std::mutex> lock(master->mutex);
            ++master->freeSlots;
        } else if (before != NCS_WIRELESS && info.state == NCS_WIRELESS) {
            std::lock_guard<std::mutex> lock(master->mutex);
            master->freeSlots = std::max(master->freeSlots - 1, 0);
        }
        if (isPresent(info) && info.busId == child->busId) {
            if (before != info.state)
                report(child);
            return;
        }
        report(child);
        closeChild(child, false);
        if (!isPresent(info))
            return;
        // Moved to another bus id: identified again below.
    }
    if (!isPresent(info)) {
        // Nothing to attach it to: the report carries a stand-in that lives for the call.
        NvDevice standIn;
        standIn.control = this;
        standIn.id = info.deviceId;
        standIn.productCode = info.deviceId.productCode();
        standIn.master = master;
        standIn.busId = info.busId;
        standIn.kvw = info;
        standIn.isOpen = false;
        report(&standIn);
        return;
    }
    // Its identity takes requests, which this (reader) thread cannot make.
    std::shared_ptr<nda::Port> port = master->port;
    const NvDeviceId masterId = master->id;
    const unsigned timeout = replyTimeout.load();
    runInBackground([this, port, masterId, info, timeout] {
        std::unique_ptr<NvDevice> dev = identify(port, info.busId, timeout, nullptr);
        if (!dev) {
            dev = std::make_unique<NvDevice>();
            dev->productCode = info.deviceId.productCode();
        }
        dev->id = info.deviceId;
        dev->busId = info.busId;
        dev->port = port;
        dev->kvw = info;
        // A new tracker may have changed the rates the master offers.
        NvMessage rate;
        if (ask(port, NvMessage::BusIdDevice, NvMid::ReqUpdateRate, &rate, timeout) != NRV_OK)
            rate = NvMessage();
        NvDevice* fresh = dev.release();
        port->post([this, port, masterId, fresh, rate] {
            std::unique_ptr<NvDevice> owned(fresh);
            NvDevice* m = port->attached();
            if (!m || m->id != masterId || !m->isOpen)
                return;
            if (!rate.isEmpty())
                nda::storeUpdateRate(m, rate);
            attachChild(m, std::move(owned), true);
        });
    });
}

void nda::Port::onMasterMessage(NvDevice* master, const NvFrameView& view)
{
    const uint8_t* d = view.data();
    const size_t n = view.dataSize();
    switch (view.messageId()) {
    case NvMid::TrackerStatus:
        for (size_t off = 0; off + KvwInfo::WireSize <= n; off += KvwInfo::WireSize)
            m_control->trackerReported(master, KvwInfo::fromWire(d + off));
        return;
    case NvMid::TrackerLinkReport:
        for (size_t off = 0; off + 3 <= n; off += 3) {
            NvDevice* child = master->child(d[off]);
            if (!child)
                continue;
            const int8_t rssi = int8_t(d[off + 1]);
            const uint8_t battery = d[off + 2];
            {
                std::lock_guard<std::mutex> lock(child->mutex);
                child->kvw.rssi = rssi;
                child->kvw.batteryLevel = battery;
            }
            {
                std::lock_guard<std::mutex> lock(master->mutex);
                for (KvwInfo& r : master->trackers)
                    if (r.deviceId == child->id) {
                        r.rssi = rssi;
                        r.batteryLevel = battery;
                    }
            }
            // Every report is passed on (about once a second): a display of the levels
            // stays fresh without polling.
            m_control->dispatch(child, [&](const NvCallbackPlainC* h) {
                if (!h->onInfoResponse)
                    return;
                h->onInfoResponse(h->userData, child, NIR_SIGNAL_STRENGTH);
                h->onInfoResponse(h->userData, child, NIR_BATTERY_LEVEL);
            });
        }
        return;
    case NvMid::FlushProgress: {
        if (n < 8)
            return;
        const int doneCount = int(view.toMessage().readU32(0));
        const int total = int(view.toMessage().readU32(4));
        static const NvString flushing = "Flushing";
        m_control->dispatch(master, [&](const NvCallbackPlainC* h) {
            if (h->onProgressUpdated)
                h->onProgressUpdated(h->userData, master, doneCount, total, &flushing);
        });
        if (doneCount >= total)
            onFlushDone(master);
        return;
    }
    default:
        return;
    }
}

// ------------------------------------------------------------------------ C functions

namespace {

bool masterUsable(NvDevice* dev)
{
    if (!usable(dev))
        return false;
    if (!dev->isMaster)
        return fail(NRV_NOT_A_MASTER);
    return true;
}

NvResultValue masterRequest(NvDevice* master, uint8_t mid, const NvByteArray& data,
                            NvMessage* reply)
{
    return ask(master->port, NvMessage::BusIdDevice, mid, reply,
               master->control->replyTimeout.load(), data);
}

NvDevice* trackerOf(NvControl* control, const NvDeviceId* id)
{
    if (!control || !id)
        return nullptr;
    NvDevice* dev = control->findDevice(*id);
    return dev && dev->master ? dev : nullptr;
}

int trackerCommand(NvDevice* master, const NvDeviceId& tracker, NvTrackerCommand command)
{
    NvByteArray data;
    const uint64_t number = tracker.toWire64();
    for (int shift = 56; shift >= 0; shift -= 8)
        data.push_back(uint8_t(number >> shift));
    data.push_back(uint8_t(command));
    NvMessage reply;
    return done(masterRequest(master, NvMid::TrackerCommand, data, &reply));
}

} // namespace

extern "C" {

int NvControl_isDeviceWireless(NvControl* control, const NvDeviceId* deviceId)
{
    NvDevice* dev = trackerOf(control, deviceId);
    if (!dev)
        return 0;
    std::lock_guard<std::mutex> lock(dev->mutex);
    return dev->kvw.state == NCS_WIRELESS;
}

int NvControl_isDeviceDocked(NvControl* control, const NvDeviceId* deviceId)
{
    NvDevice* dev = trackerOf(control, deviceId);
    if (!dev)
        return 0;
    std::lock_guard<std::mutex> lock(dev->mutex);
    return dev->kvw.state == NCS_PLUGGED_IN;
}

void NvControl_dockDeviceId(NvControl* control, const NvDeviceId* deviceId, NvDeviceId* out)
{
    if (!out)
        return;
    *out = NvDeviceId();
    if (NvControl_isDeviceDocked(control, deviceId))
        *out = trackerOf(control, deviceId)->master->id;
}

int NvDevice_isMasterDevice(NvDevice* device)
{
    return device && device->isMaster;
}

NvDevice* NvDevice_masterDevice(NvDevice* device)
{
    return device ? device->master : nullptr;
}

int NvDevice_busId(NvDevice* device)
{
    return device ? device->busId : 0;
}

void NvDevice_kvwInfo(NvDevice* device, KvwInfo* out)
{
    if (!out)
        return;
    *out = KvwInfo();
    if (!device || !device->master)
        return;
    std::lock_guard<std::mutex> lock(device->mutex);
    *out = device->kvw;
}

void NvDevice_trackerInfos(NvDevice* device, std::vector<KvwInfo>* out)
{
    nda::copyCached(device, out, &NvDevice::trackers);
}

int NvDevice_requestTrackerList(NvDevice* device)
{
    if (!masterUsable(device))
        return 0;
    NvMessage reply;
    const NvResultValue rc = masterRequest(device, NvMid::ReqTrackerList, {}, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    const std::vector<KvwInfo> records = nda::trackerRecords(reply, device->id);
    std::lock_guard<std::mutex> lock(device->mutex);
    for (const KvwInfo& info : records)
        storeRecord(device->trackers, info);
    setResult(NRV_OK);
    return 1;
}

int NvDevice_radioChannel(NvDevice* device)
{
    if (!device || !device->isMaster)
        return 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->radioChannel;
}

int NvDevice_isRadioEnabled(NvDevice* device)
{
    return NvDevice_radioChannel(device) != 0;
}

int NvDevice_enableRadio(NvDevice* device, int channel)
{
    if (!masterUsable(device))
        return 0;
    if (channel < 11 || channel > 25)
        return fail(NRV_INVALID_CHANNEL);
    for (const NvDeviceRef& other : device->control->mainDevicesRef())
        if (other.get() != device && other.get()->isMaster &&
            NvDevice_radioChannel(other.get()) == channel)
            return fail(NRV_CHANNEL_IN_USE);
    NvMessage reply;
    const NvResultValue rc =
        masterRequest(device, NvMid::SetRadioChannel, {uint8_t(channel)}, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    std::lock_guard<std::mutex> lock(device->mutex);
    device->radioChannel = reply.dataSize() >= 1 ? reply.readU8(0) : channel;
    setResult(NRV_OK);
    return 1;
}

int NvDevice_disableRadio(NvDevice* device)
{
    if (!masterUsable(device))
        return 0;
    NvMessage reply;
    const NvResultValue rc = masterRequest(device, NvMid::SetRadioChannel, {0}, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    std::lock_guard<std::mutex> lock(device->mutex);
    device->radioChannel = 0;
    setResult(NRV_OK);
    return 1;
}

int NvDevice_updateRate(NvDevice* device)
{
    if (!device || !device->isMaster)
        return 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->updateRate;
}

int NvDevice_setUpdateRate(NvDevice* device, int rate)
{
    if (!masterUsable(device))
        return 0;
    if (rate <= 0 || rate > 0xFFFF)
        return fail(NRV_INVALID_ARGUMENT);
    NvMessage reply;
    const NvResultValue rc = masterRequest(device, NvMid::SetUpdateRate,
                                           {uint8_t(rate >> 8), uint8_t(rate & 0xFF)}, &reply);
    if (rc != NRV_OK)
        return fail(rc);
    nda::storeUpdateRate(device, reply);
    setResult(NRV_OK);
    return 1;
}

int NvDevice_freeSlots(NvDevice* device)
{
    if (!device || !device->isMaster)
        return 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->freeSlots;
}

int NvDevice_setDeviceAccepted(NvDevice* device, const NvDeviceId* tracker)
{
    if (!tracker)
        return fail(NRV_INVALID_ARGUMENT);
    return masterUsable(device) && trackerCommand(device, *tracker, NvTrackerCommand::Accept);
}

int NvDevice_setDeviceRejected(NvDevice* device, const NvDeviceId* tracker)
{
    if (!tracker)
        return fail(NRV_INVALID_ARGUMENT);
    return masterUsable(device) && trackerCommand(device, *tracker, NvTrackerCommand::Reject);
}

int NvDevice_setTransportMode(NvDevice* device, int enable)
{
    if (!usable(device))
        return 0;
    if (device->isMaster) {
        // A station has no transport mode on the wire; switching it off for transport
        // is its radio going off, which the caller does. Remember the wish.
        std::lock_guard<std::mutex> lock(device->mutex);
        device->transportMode = enable != 0;
        setResult(NRV_OK);
        return 1;
    }
    if (!device->master)
        return fail(NRV_NOT_SUPPORTED);
    if (!enable)
        return fail(NRV_NOT_SUPPORTED); // a tracker wakes up in its dock, not by command
    if (!usable(device->master))
        return 0;
    nda::DeviceRef hold(device);
    if (!trackerCommand(device->master, device->id, NvTrackerCommand::TransportMode))
        return 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    device->transportMode = true;
    device->kvw.flags |= KvwInfo::TransportMode;
    return 1;
}

int NvDevice_isInTransportMode(NvDevice* device)
{
    if (!device)
        return 0;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->transportMode || device->kvw.isInTransportMode();
}

int NvDevice_requestBatteryLevel(NvDevice* device)
{
    if (!usable(device))
        return 0;
    if (!device->master)
        return fail(NRV_NOT_SUPPORTED);
    // The master reports battery levels by itself; a request refreshes them at once.
    nda::DeviceRef hold(device);
    if (!NvDevice_requestTrackerList(device->master))
        return 0;
    {
        std::lock_guard<std::mutex> masterLock(device->master->mutex);
        std::lock_guard<std::mutex> lock(device->mutex);
        for (const KvwInfo& r : device->master->trackers)
            if (r.deviceId == device->id) {
                device->kvw.batteryLevel = r.batteryLevel;
                device->kvw.rssi = r.rssi;
            }
    }
    device->control->dispatch(device, [&](const NvCallbackPlainC* h) {
        if (h->onInfoResponse)
            h->onInfoResponse(h->userData, device, NIR_BATTERY_LEVEL);
    });
    setResult(NRV_OK);
    return 1;
}

int NvDevice_batteryLevel(NvDevice* device)
{
    if (!device || !device->master)
        return -1;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->kvw.hasBatteryLevel() ? device->kvw.batteryLevel : -1;
}

int NvDevice_lastKnownRssi(NvDevice* device)
{
    if (!device || !device->master)
        return KvwInfo::RssiUnknown;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->kvw.rssi;
}

} // extern "C"
