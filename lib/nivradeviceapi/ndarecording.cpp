// Recording live devices to kvb files. The reader thread of a port appends every frame of
// a recorded device to its LogWriter, which buffers and writes on a thread of its own.
// A master's trackers go into the master's file, each with a file bus id of its own.
//
// States: startRecording -> WaitingForRecordingStart, the first data packet -> Recording;
// stopRecording -> Flushing -> Measurement. A master first stops its trackers and has them
// send what it missed (Flushing with progress), then measures again.

#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <future>

using nda::done;
using nda::fail;
using nda::setResult;
using nda::usable;

std::vector<NvMessage> nda::describeForLog(NvDevice* dev)
{
    const uint8_t bus = dev->busId;
    std::vector<NvMessage> out;
    std::lock_guard<std::mutex> lock(dev->mutex);
    out.emplace_back(bus, NvMid::DeviceId, dev->id.toWire());
    if (!dev->productCode.empty())
        out.emplace_back(bus, NvMid::ProductCode,
                         NvByteArray(dev->productCode.begin(), dev->productCode.end()));
    uint8_t version[NvVersion::FirmwareWireSize] = {};
    dev->firmware.toFirmwareWire(version);
    out.emplace_back(bus, NvMid::FirmwareRevision, version, NvVersion::FirmwareWireSize);
    dev->hardware.toHardwareWire(version);
    out.emplace_back(bus, NvMid::HardwareVersion, version, NvVersion::HardwareWireSize);
    out.emplace_back(bus, NvMid::OutputConfiguration,
                     nvOutputConfigurationToWire(dev->outputConfiguration));
    out.emplace_back(bus, NvMid::SyncSettings, nvSyncSettingsToWire(dev->syncSettings));
    out.emplace_back(bus, NvMid::LocationId,
                     NvByteArray{uint8_t(dev->locationId >> 8), uint8_t(dev->locationId)});
    if (dev->filterProfile >= 0)
        out.emplace_back(
            bus, NvMid::FilterProfile,
            NvByteArray{uint8_t(dev->filterProfile >> 8), uint8_t(dev->filterProfile)});
    return out;
}

void nda::closeRecording(NvDevice* dev)
{
    std::shared_ptr<LogWriter> writer;
    {
        std::lock_guard<std::mutex> lock(dev->recMutex);
        writer = std::move(dev->logWriter);
        dev->recording = false;
    }
    if (writer)
        writer->close(); // a master's trackers share it: the last holder closes no sooner
}

void nda::recordFrame(NvDevice* dev, const NvFrameView& view)
{
    std::lock_guard<std::mutex> lock(dev->recMutex);
    if (dev->recording && dev->logWriter)
        dev->logWriter->append(dev->logBusId, view.frame, view.size);
}

void nda::recordNewChild(NvDevice* master, NvDevice* child)
{
    std::shared_ptr<LogWriter> writer;
    bool recording;
    {
        std::lock_guard<std::mutex> lock(master->recMutex);
        writer = master->logWriter;
        recording = master->recording;
    }
    if (!writer)
        return;
    const uint8_t bus = writer->addDevice(child->id, describeForLog(child));
    std::lock_guard<std::mutex> lock(child->recMutex);
    child->logWriter = writer;
    child->logBusId = bus;
    child->logFileName = master->logFileName;
    child->recording = recording && bus != 0;
}

namespace {

// The devices a recording of `dev` covers: itself and, for a master, its trackers.
std::vector<NvDevice*> recordedDevices(NvDevice* dev)
{
    std::vector<NvDevice*> out{dev};
    if (dev->isMaster)
        for (NvDevice* child : dev->control->childrenOf(dev))
            out.push_back(child);
    return out;
}

void setRecording(NvDevice* dev, bool on)
{
    for (NvDevice* d : recordedDevices(dev)) {
        std::lock_guard<std::mutex> lock(d->recMutex);
        d->recording = on && d->logWriter && d->logBusId != 0;
    }
}

// Detaches the writer from every device of the recording; the caller closes it.
std::shared_ptr<nda::LogWriter> detachWriter(NvDevice* dev)
{
    std::shared_ptr<nda::LogWriter> writer;
    for (NvDevice* d : recordedDevices(dev)) {
        std::lock_guard<std::mutex> lock(d->recMutex);
        if (d == dev)
            writer = d->logWriter;
        d->logWriter.reset();
        d->recording = false;
        d->logBusId = 0;
    }
    return writer;
}

// Ends a recording: the file is closed (what is buffered is written and synced) and the
// devices measure again. A master is told to measure again; its acknowledgement moves the
// trackers along.
NvResultValue finishRecording(NvDevice* dev, bool measureAgain)
{
    dev->flushing = false;
    std::shared_ptr<nda::LogWriter> writer = detachWriter(dev);
    const NvResultValue rc = writer ? writer->close() : NRV_OK;
    if (measureAgain && dev->isMaster) {
        dev->control->changeState(dev, NDS_CONFIGURATION);
        NvDevice_gotoMeasurement(dev);
    } else if (measureAgain) {
        for (NvDevice* d : recordedDevices(dev))
            if (d->state == NDS_FLUSHING)
                d->control->changeState(d, NDS_MEASUREMENT);
    }
    return rc;
}

// Runs `task` on the port's reader between two chunks and waits for it, so that what it
// changes (recording on or off, the state) falls between two frames: every packet
// delivered in Recording is in the file, and no other.
void onReader(const std::shared_ptr<nda::Port>& port, const std::function<void()>& task)
{
    if (port->isReaderThread()) {
        task();
        return;
    }
    auto doneFlag = std::make_shared<std::promise<void>>();
    std::future<void> finished = doneFlag->get_future();
    port->post([task, doneFlag] {
        task();
        doneFlag->set_value();
    });
    finished.wait();
}

// The counts stay readable on a closed device (through a reference): a recorder learns
// what reached the file of a device that was unplugged.
bool usableForCounts(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return fail(NRV_INVALID_DEVICE);
    if (device->master)
        return fail(NRV_NOT_SUPPORTED); // recorded with its master
    setResult(NRV_OK);
    return true;
}

} // namespace

void nda::Port::onFlushDone(NvDevice* master)
{
    if (!master->flushing.exchange(false))
        return;
    // Closing and the request to measure again cannot run on the reader.
    NvControl* control = m_control;
    const NvDeviceId id = master->id;
    control->runInBackground([control, id] {
        NvDevice* dev = control->findDevice(id);
        if (!dev)
            return;
        nda::DeviceRef hold(dev);
        finishRecording(dev, true);
    });
}

extern "C" {

void NvControl_setLogFileSplit(NvControl* control, uint64_t maxBytes, uint64_t maxMs)
{
    if (!control)
        return;
    control->logSplitBytes = maxBytes;
    control->logSplitMs = maxMs;
}

int NvDevice_createLogFile(NvDevice* device, const NvString* fileName)
{
    if (!fileName || fileName->empty())
        return fail(NRV_INVALID_ARGUMENT);
    if (!usable(device))
        return 0;
    if (device->master)
        return fail(NRV_NOT_SUPPORTED); // recorded with its master
    {
        std::lock_guard<std::mutex> lock(device->recMutex);
        if (device->logWriter)
            return fail(NRV_LOG_FILE_ALREADY_OPEN);
    }
    auto writer = std::make_shared<nda::LogWriter>();
    // A write error (disk full) ends the recording where it is; the file stays valid.
    NvControl* control = device->control;
    const NvDeviceId id = device->id;
    writer->setErrorHandler([control, id](NvResultValue error) {
        control->runInBackground([control, id, error] {
            NvDevice* dev = control->findDevice(id);
            if (!dev)
                return;
            nda::DeviceRef hold(dev);
            control->dispatch(dev, [&](const NvCallbackPlainC* h) {
                if (h->onError)
                    h->onError(h->userData, dev, error);
            });
            // Between two frames, as a stop: every packet delivered in Recording was handed
            // to the writer, so the file's packets and the lost ones are all of them.
            onReader(dev->port, [dev, control] {
                setRecording(dev, false);
                for (NvDevice* d : recordedDevices(dev)) {
                    d->awaitingFirstPacket = false;
                    if (d->state == NDS_RECORDING || d->state == NDS_WAITING_FOR_RECORDING_START)
                        control->changeState(d, NDS_MEASUREMENT);
                }
            });
            finishRecording(dev, false);
        });
    });
    nda::LogWriterOptions options;
    options.splitBytes = control->logSplitBytes;
    options.splitMs = control->logSplitMs;
    const NvResultValue rc = writer->create(*fileName, options);
    if (rc != NRV_OK)
        return fail(rc);
    {
        std::lock_guard<std::mutex> lock(device->recMutex);
        device->logPackets = writer->packetCounts();
    }
    for (NvDevice* d : recordedDevices(device)) {
        const uint8_t bus = writer->addDevice(d->id, nda::describeForLog(d));
        std::lock_guard<std::mutex> lock(d->recMutex);
        d->logWriter = writer;
        d->logBusId = bus;
        d->logFileName = *fileName;
        d->recording = false;
    }
    setResult(NRV_OK);
    return 1;
}

int NvDevice_closeLogFile(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return fail(NRV_INVALID_DEVICE);
    if (device->master)
        return fail(NRV_NOT_SUPPORTED);
    if (device->state == NDS_RECORDING || device->state == NDS_WAITING_FOR_RECORDING_START ||
        device->flushing)
        return fail(NRV_RECORDING_IN_PROGRESS);
    std::shared_ptr<nda::LogWriter> writer = detachWriter(device);
    if (!writer)
        return fail(NRV_NO_LOG_FILE);
    return done(writer->close());
}

int NvDevice_startRecording(NvDevice* device)
{
    if (!usable(device))
        return 0;
    if (device->master)
        return fail(NRV_NOT_SUPPORTED);
    {
        std::lock_guard<std::mutex> lock(device->recMutex);
        if (!device->logWriter)
            return fail(NRV_NO_LOG_FILE);
        if (device->recording)
            return fail(NRV_RECORDING_IN_PROGRESS);
    }
    if (device->state != NDS_MEASUREMENT && !NvDevice_gotoMeasurement(device))
        return 0;
    onReader(device->port, [device] {
        setRecording(device, true);
        for (NvDevice* d : recordedDevices(device)) {
            if (d != device && d->state != NDS_MEASUREMENT)
                continue; // a docked tracker stays out of it
            d->awaitingFirstPacket = true;
            d->control->changeState(d, NDS_WAITING_FOR_RECORDING_START);
        }
    });
    setResult(NRV_OK);
    return 1;
}

int NvDevice_stopRecording(NvDevice* device)
{
    if (!usable(device))
        return 0;
    if (device->master)
        return fail(NRV_NOT_SUPPORTED);
    {
        std::lock_guard<std::mutex> lock(device->recMutex);
        if (!device->recording)
            return fail(NRV_NOT_RECORDING);
    }
    nda::DeviceRef hold(device);
    if (!device->isMaster) {
        // Flushing is writing out what is buffered; then the device is where it was.
        NvDeviceState after = NDS_MEASUREMENT;
        onReader(device->port, [device, &after] {
            if (device->state == NDS_CONFIGURATION)
                after = NDS_CONFIGURATION;
            device->awaitingFirstPacket = false;
            setRecording(device, false);
            device->control->changeState(device, NDS_FLUSHING);
        });
        const NvResultValue rc = finishRecording(device, false);
        device->control->changeState(device, after);
        return done(rc);
    }
    // The trackers retransmit what the master missed once they are stopped; their packets
    // still go into the file.
    if (!NvDevice_gotoConfig(device))
        return 0;
    for (NvDevice* d : recordedDevices(device))
        d->awaitingFirstPacket = false;
    device->flushing = true;
    device->control->changeState(device, NDS_FLUSHING);
    NvMessage reply;
    const NvResultValue rc = nda::request(device, NvMid::StartFlush, {}, &reply);
    if (rc != NRV_OK || reply.dataSize() < 4 || reply.readU32(0) == 0) {
        // Nothing to retransmit (or no flush to be had): done at once.
        const NvResultValue closed = finishRecording(device, true);
        return done(rc != NRV_OK ? NRV_OK : closed);
    }
    setResult(NRV_OK);
    return 1;
}

int NvDevice_abortFlushing(NvDevice* device)
{
    if (!usable(device))
        return 0;
    if (!device->flushing)
        return fail(NRV_INVALID_STATE);
    nda::DeviceRef hold(device);
    return done(finishRecording(device, true));
}

int NvDevice_isRecording(NvDevice* device)
{
    if (!device)
        return 0;
    const NvDeviceState s = device->state;
    return s == NDS_WAITING_FOR_RECORDING_START || s == NDS_RECORDING || s == NDS_FLUSHING;
}

uint64_t NvDevice_logPacketsWritten(NvDevice* device)
{
    if (!usableForCounts(device))
        return 0;
    std::lock_guard<std::mutex> lock(device->recMutex);
    return device->logPackets ? device->logPackets->written.load() : 0;
}

uint64_t NvDevice_logPacketsLost(NvDevice* device)
{
    if (!usableForCounts(device))
        return 0;
    std::lock_guard<std::mutex> lock(device->recMutex);
    return device->logPackets ? device->logPackets->lost.load() : 0;
}

void NvDevice_logFileName(NvDevice* device, NvString* out)
{
    if (!out)
        return;
    out->clear();
    if (!device)
        return;
    std::lock_guard<std::mutex> lock(device->recMutex);
    *out = device->logFileName;
}

} // extern "C"
