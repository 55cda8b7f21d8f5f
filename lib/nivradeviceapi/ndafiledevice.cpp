// Recordings opened as devices: one file device per device a kvb describes (one for a bin
// or nm file). A split recording opens from its first part and loads its parts in order
// as one. Loading runs on a thread of the file's own; packets are served by index,
// decoded in place from the reader's mappings, which they share: a packet handed out
// stays valid after its file device is closed.

#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <cerrno>
#include <unistd.h>

using nda::done;
using nda::fail;
using nda::setResult;

namespace nda {

class FileSource
{
public:
    explicit FileSource(NvControl* control) : m_control(control) {}
    ~FileSource()
    {
        abort = true;
        if (m_loader.joinable()) {
            // The loader may hold the last reference itself: then it only returns.
            if (m_loader.get_id() == std::this_thread::get_id())
                m_loader.detach();
            else
                m_loader.join();
        }
    }

    std::vector<std::string> parts; // the first and every following part, in order
    std::vector<LogReader::Device> devices;
    uint64_t totalBytes = 0;
    std::atomic<bool> abort{false};

    enum State
    {
        Idle,
        Loading,
        Loaded,
        Failed
    };
    std::atomic<int> state{Idle};

    // Starts the loader unless it runs or ran; false when it cannot start.
    bool startLoading(const std::shared_ptr<FileSource>& self, const NvDeviceId& requester);
    size_t packetCount(size_t device) const;
    NvDataPacket packet(size_t device, size_t index) const;
    uint64_t hostTime(size_t device, size_t index) const;
    uint64_t skippedBytes() const;

private:
    void load(std::shared_ptr<FileSource> self);
    void report(int current, int total, NvResultValue error);

    NvControl* m_control;
    std::thread m_loader;
    std::mutex m_mutex; // guards the requesters
    std::vector<NvDeviceId> m_requesters;
    // Written by the loader before state becomes Loaded, read only after.
    std::unique_ptr<LogReader> m_reader;
    std::vector<int> m_readerDevice; // each device's index in the reader (-1: none)
};

bool FileSource::startLoading(const std::shared_ptr<FileSource>& self, const NvDeviceId& requester)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (std::find(m_requesters.begin(), m_requesters.end(), requester) == m_requesters.end())
            m_requesters.push_back(requester);
    }
    int expected = Idle;
    if (!state.compare_exchange_strong(expected, Loading)) {
        if (expected == Loaded) // loaded before: tell the new asker at once
            report(100, 100, NRV_OK);
        return expected != Failed;
    }
    m_loader = std::thread([this, self] { load(self); });
    return true;
}

void FileSource::report(int current, int total, NvResultValue error)
{
    static const NvString loading = "Loading";
    std::vector<NvDeviceId> requesters;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        requesters = m_requesters;
    }
    for (const NvDeviceId& id : requesters) {
        NvDevice* dev = m_control->findAndRef(id);
        if (!dev)
            continue;
        m_control->dispatch(dev, [&](const NvCallbackPlainC* h) {
            if (error != NRV_OK) {
                if (h->onError)
                    h->onError(h->userData, dev, error);
            } else if (h->onProgressUpdated) {
                h->onProgressUpdated(h->userData, dev, current, total, &loading);
            }
        });
        NvDevice_removeRef(dev);
    }
}

void FileSource::load(std::shared_ptr<FileSource> self)
{
    (void)self; // keeps the source while loading
    int lastPercent = -1;
    report(0, 100, NRV_OK);
    auto reader = std::make_unique<LogReader>();
    NvResultValue rc = reader->open(parts.front());
    if (rc == NRV_OK) {
        reader->setFollowingParts(std::vector<std::string>(parts.begin() + 1, parts.end()));
        rc = reader->load(
            [&](uint64_t doneBytes, uint64_t total) {
                const int percent = total ? int(doneBytes * 100 / total) : 100;
                if (percent != lastPercent && percent < 100) {
                    lastPercent = percent;
                    report(percent, 100, NRV_OK);
                }
            },
            &abort);
    }
    if (rc != NRV_OK) {
        state = Failed;
        if (rc != NRV_ABORTED)
            report(0, 0, rc);
        return;
    }
    std::vector<int> located(devices.size(), -1);
    for (size_t d = 0; d < devices.size(); ++d) {
        const auto& inReader = reader->devices();
        for (size_t i = 0; i < inReader.size() && located[d] < 0; ++i)
            if (inReader[i].id == devices[d].id)
                located[d] = int(i);
    }
    m_reader = std::move(reader);
    m_readerDevice = std::move(located);
    state = Loaded;
    report(100, 100, NRV_OK);
}

size_t FileSource::packetCount(size_t device) const
{
    if (state != Loaded || device >= m_readerDevice.size() || m_readerDevice[device] < 0)
        return 0;
    return m_reader->packetCount(size_t(m_readerDevice[device]));
}

NvDataPacket FileSource::packet(size_t device, size_t index) const
{
    if (state != Loaded || device >= m_readerDevice.size() || m_readerDevice[device] < 0)
        return NvDataPacket();
    return m_reader->packet(size_t(m_readerDevice[device]), index);
}

uint64_t FileSource::hostTime(size_t device, size_t index) const
{
    if (state != Loaded || device >= m_readerDevice.size() || m_readerDevice[device] < 0)
        return 0;
    return m_reader->packetHostTime(size_t(m_readerDevice[device]), index);
}

uint64_t FileSource::skippedBytes() const
{
    return state == Loaded ? m_reader->skippedBytes() : 0;
}

} // namespace nda

void nda::fileDeviceClosing(NvDevice* dev)
{
    bool others = false;
    for (NvDevice* d : dev->control->mainDevices())
        others = others || (d != dev && d->file == dev->file);
    if (!others)
        dev->file->abort = true;
}

NvDevice* NvControl::findAndRef(const NvDeviceId& id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_devices.find(id);
    if (it == m_devices.end())
        return nullptr;
    ++it->second->refs;
    return it->second.get();
}

bool NvControl::openFile(const NvString& path)
{
    // The devices are described at the start of a file: a look at its head names them
    // without reading it all.
    nda::LogReader probe;
    NvResultValue rc = probe.open(path);
    if (rc != NRV_OK)
        return fail(rc);
    constexpr size_t HeadBytes = size_t(4) << 20;
    std::vector<uint8_t> head(size_t(std::min<uint64_t>(probe.fileSize(), HeadBytes)));
    const long long got = nda::readFileHead(path, head.data(), head.size(), &rc);
    if (got < 0)
        return fail(rc);
    if (size_t(got) < head.size())
        return fail(NRV_FILE_READ_ERROR);
    nda::LogReader headReader;
    rc = headReader.openMemory(head.data(), head.size());
    if (rc == NRV_OK)
        rc = headReader.load();
    if (rc != NRV_OK)
        return fail(rc);
    if (headReader.devices().empty())
        return fail(NRV_NO_DEVICE_FOUND);

    auto source = std::make_shared<nda::FileSource>(this);
    source->parts.push_back(path);
    // The first part stands for the whole recording; a later one opened by itself plays
    // alone.
    if (probe.type() == nda::LogReader::Type::Kvb && probe.header().part <= 1)
        for (const std::string& part : probe.followingParts())
            source->parts.push_back(part);
    for (const std::string& part : source->parts) {
        nda::LogReader r;
        if (r.open(part) == NRV_OK)
            source->totalBytes += r.fileSize();
    }
    source->devices = headReader.devices();

    std::vector<std::unique_ptr<NvDevice>> made;
    for (size_t i = 0; i < source->devices.size(); ++i) {
        const auto& d = source->devices[i];
        auto dev = std::make_unique<NvDevice>();
        dev->control = this;
        dev->isFile = true;
        dev->file = source;
        dev->fileDevice = i;
        dev->id = d.id;
        dev->productCode = d.productCode.empty() ? d.id.productCode() : d.productCode;
        dev->firmware = d.firmware;
        dev->hardware = d.hardware;
        dev->outputConfiguration = d.outputConfiguration;
        dev->syncSettings = d.syncSettings;
        dev->locationId = std::max(d.locationId, 0);
        dev->filterProfile = d.filterProfile;
        dev->logFileName = path;
        made.push_back(std::move(dev));
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& dev : made)
            if (m_devices.count(dev->id))
                return fail(NRV_PORT_IN_USE); // that device is open already
        for (auto& dev : made)
            m_devices.emplace(dev->id, std::move(dev));
    }
    nda::log(NDA_LOG_DEBUG, ("Opened recording " + path).c_str());
    setResult(NRV_OK);
    return true;
}

extern "C" {

int NvControl_openLogFile(NvControl* control, const NvString* fileName)
{
    if (!control || !fileName || fileName->empty())
        return fail(NRV_INVALID_ARGUMENT);
    return control->openFile(*fileName);
}

int NvDevice_isReadingFromFile(NvDevice* device)
{
    return device && device->isFile;
}

void NvDevice_fileName(NvDevice* device, NvString* out)
{
    if (!out)
        return;
    out->clear();
    if (device && device->isFile)
        *out = device->file->parts.front();
}

void NvDevice_logFileParts(NvDevice* device, NvStringArray* out)
{
    if (!out)
        return;
    out->clear();
    if (device && device->isFile)
        *out = device->file->parts;
}

uint64_t NvDevice_logFileSize(NvDevice* device)
{
    if (!device)
        return 0;
    if (device->isFile)
        return device->file->totalBytes;
    std::lock_guard<std::mutex> lock(device->recMutex);
    return device->logWriter ? device->logWriter->bytesWritten() : 0;
}

int NvDevice_loadLogFile(NvDevice* device)
{
    if (!device || !device->isFile)
        return fail(device ? NRV_NOT_SUPPORTED : NRV_INVALID_DEVICE);
    if (!device->file->startLoading(device->file, device->id))
        return fail(NRV_FILE_DAMAGED);
    setResult(NRV_OK);
    return 1;
}

int NvDevice_abortLoadFile(NvDevice* device)
{
    if (!device || !device->isFile)
        return fail(device ? NRV_NOT_SUPPORTED : NRV_INVALID_DEVICE);
    device->file->abort = true;
    setResult(NRV_OK);
    return 1;
}

int NvDevice_isFileLoaded(NvDevice* device)
{
    return device && device->isFile && device->file->state == nda::FileSource::Loaded;
}

int64_t NvDevice_packetCount(NvDevice* device)
{
    if (!device || !device->isFile)
        return 0;
    return int64_t(device->file->packetCount(device->fileDevice));
}

int NvDevice_dataPacketByIndex(NvDevice* device, int64_t index, NvDataPacket* out)
{
    if (!out)
        return fail(NRV_INVALID_ARGUMENT);
    *out = NvDataPacket();
    if (!device || !device->isFile)
        return fail(device ? NRV_NOT_SUPPORTED : NRV_INVALID_DEVICE);
    if (device->file->state != nda::FileSource::Loaded)
        return fail(NRV_INVALID_STATE);
    if (index < 0)
        return fail(NRV_INVALID_ARGUMENT);
    *out = device->file->packet(device->fileDevice, size_t(index));
    return out->isEmpty() ? fail(NRV_END_OF_FILE) : done(NRV_OK);
}

int NvDevice_hostTimeByIndex(NvDevice* device, int64_t index, uint64_t* utcNs)
{
    if (!utcNs)
        return fail(NRV_INVALID_ARGUMENT);
    *utcNs = 0;
    if (!device || !device->isFile)
        return fail(device ? NRV_NOT_SUPPORTED : NRV_INVALID_DEVICE);
    if (device->file->state != nda::FileSource::Loaded)
        return fail(NRV_INVALID_STATE);
    if (index < 0)
        return fail(NRV_INVALID_ARGUMENT);
    if (index >= int64_t(device->file->packetCount(device->fileDevice)))
        return fail(NRV_END_OF_FILE);
    *utcNs = device->file->hostTime(device->fileDevice, size_t(index));
    return *utcNs ? done(NRV_OK) : fail(NRV_NO_DATA);
}

uint64_t NvDevice_fileSkippedBytes(NvDevice* device)
{
    return device && device->isFile ? device->file->skippedBytes() : 0;
}

} // extern "C"
