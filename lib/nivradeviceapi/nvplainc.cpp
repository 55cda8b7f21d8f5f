// The plain C interface (nvplainc.h): conversions between C buffers and the C++ types of
// nvcontrol.h, over the same functions. Nothing here keeps state of its own except the
// scan log sink.
#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <mutex>
#include <new>

using nda::setResult;

namespace {

template <typename T>
T failWith(NvResultValue value, T answer)
{
    setResult(value);
    return answer;
}

// A handle that names one device (not null, not the broadcast handle).
bool isDevice(NvDevice* device)
{
    if (device && !device->isBroadcast)
        return true;
    setResult(NRV_INVALID_DEVICE);
    return false;
}

// A (buffer, count) pair of the caller: null only with nothing to write into.
bool validOut(const void* buffer, long long capacity)
{
    return capacity >= 0 && (buffer || capacity == 0);
}

int clampToInt(size_t n)
{
    return n > size_t(INT_MAX) ? INT_MAX : int(n);
}

// Hands out bytes as the text convention of nvplainc.h says; `terminate` adds the zero.
int putBytes(const void* data, size_t length, void* buffer, size_t size, bool terminate)
{
    if (!buffer && size > 0)
        return failWith(NRV_INVALID_ARGUMENT, -1);
    const size_t room = terminate ? (size > 0 ? size - 1 : 0) : size;
    if (buffer && size > 0) {
        const size_t n = std::min(length, room);
        if (n > 0)
            std::memcpy(buffer, data, n);
        if (terminate)
            static_cast<char*>(buffer)[n] = '\0';
    }
    const bool fits = length <= room && (!terminate || size > 0);
    setResult(buffer && !fits ? NRV_HOST_BUFFER_OVERFLOW : NRV_OK);
    return clampToInt(length);
}

int putText(const std::string& text, char* buffer, size_t size)
{
    return putBytes(text.data(), text.size(), buffer, size, true);
}

// A fixed-size field of a record: cut to fit, always terminated.
template <size_t N>
void putField(char (&field)[N], const std::string& text)
{
    const size_t n = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

template <typename Get>
int deviceText(NvDevice* device, char* buffer, size_t size, Get get)
{
    if (!isDevice(device))
        return -1;
    return putText(get(device), buffer, size);
}

NvDeviceId deviceIdOf(NvDevice* device)
{
    NvDeviceId id;
    NvDevice_deviceId(device, &id);
    return id;
}

std::string productCodeOf(const NvDeviceId& id, const std::string& reported)
{
    if (!reported.empty())
        return reported;
    if (!id.productCode().empty())
        return id.productCode();
    const NvDeviceTypeInfo* info = id.typeInfo();
    return info && info->productCode ? info->productCode : std::string();
}

void fillRecord(const NvPortInfo& info, NvPortRecord* record)
{
    std::memset(record, 0, sizeof *record);
    putField(record->portName, info.portName);
    record->baudRate = info.baudRate;
    putField(record->deviceId, info.deviceId.toString());
    putField(record->productCode, productCodeOf(info.deviceId, {}));
    putField(record->deviceType, info.deviceId.deviceTypeText());
    putField(record->description, info.description);
    record->vendorId = info.vendorId;
    record->productId = info.productId;
    record->isEmulated = info.isEmulated;
    record->isRs485 = info.isRs485;
    record->isForeign = info.isForeign;
}

// ---- Scan log sink

std::mutex g_scanSinkMutex;
NvScanLogSink g_scanSink = nullptr; // guarded by g_scanSinkMutex
void* g_scanSinkContext = nullptr;  // guarded by g_scanSinkMutex

void scanLogTrampoline(const NvString* line)
{
    NvScanLogSink sink = nullptr;
    void* context = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_scanSinkMutex);
        sink = g_scanSink;
        context = g_scanSinkContext;
    }
    // Probes log from several threads at once: the sink runs outside the lock.
    if (sink && line)
        sink(context, line->c_str());
}

// ---- Packet items

bool validFrame(NvCoordinateFrame frame)
{
    return frame == NCF_ENU || frame == NCF_NED || frame == NCF_NWU;
}

// Values of the item as nvplainc.h lists them; short payloads give none.
int itemValues(const NvDataIdentifier id, const uint8_t* p, size_t size, double* v)
{
    const NvDataIdentifier q = nvQuantity(id);
    const int reals = nvRealCount(q);
    if (reals > 0) {
        const NvPrecision precision = nvPrecision(id);
        const size_t width = size_t(nvPrecisionSize(precision));
        const int n = std::min<int>(reals, int(size / width));
        for (int i = 0; i < n; ++i)
            v[i] = nvDecodeReal(p + size_t(i) * width, precision);
        return n;
    }
    switch (q) {
    case NDI_PACKET_COUNTER:
    case NDI_ANALOG_IN_1:
    case NDI_ANALOG_IN_2:
        if (size < 2)
            return 0;
        v[0] = nvbe::readU16(p);
        return 1;
    case NDI_SAMPLE_TIME_FINE:
    case NDI_SAMPLE_TIME_COARSE:
    case NDI_TIME_OF_WEEK:
    case NDI_BARO_PRESSURE:
    case NDI_STATUS_WORD:
    case NDI_GNSS_PVT_PULSE:
        if (size < 4)
            return 0;
        v[0] = nvbe::readU32(p);
        return 1;
    case NDI_GNSS_AGE:
    case NDI_STATUS_BYTE:
        if (size < 1)
            return 0;
        v[0] = p[0];
        return 1;
    case NDI_RSSI:
        if (size < 1)
            return 0;
        v[0] = nvbe::readI8(p);
        return 1;
    case NDI_FRAME_RANGE:
        if (size < 4)
            return 0;
        v[0] = nvbe::readU16(p);
        v[1] = nvbe::readU16(p + 2);
        return 2;
    case NDI_UTC_TIME: {
        if (size < NvUtcTime::WireSize)
            return 0;
        const NvUtcTime t = NvUtcTime::fromWire(p);
        const double values[] = {double(t.year),        double(t.month),  double(t.day),
                                 double(t.hour),        double(t.minute), double(t.second),
                                 double(t.nanoseconds), double(t.flags)};
        std::copy(std::begin(values), std::end(values), v);
        return int(std::size(values));
    }
    case NDI_GNSS_PVT_DATA: {
        if (size < NvGnssPvt::WireSize)
            return 0;
        const NvGnssPvt pvt = NvGnssPvt::fromWire(p);
        const double values[] = {pvt.latitudeDeg(), pvt.longitudeDeg(),  pvt.height * 1e-3,
                                 pvt.hMsl * 1e-3,   pvt.velN * 1e-3,     pvt.velE * 1e-3,
                                 pvt.velD * 1e-3,   double(pvt.fixType), double(pvt.numSv)};
        std::copy(std::begin(values), std::end(values), v);
        return int(std::size(values));
    }
    case NDI_GNSS_SAT_INFO:
        if (size < 8)
            return 0;
        v[0] = nvbe::readU32(p);
        v[1] = p[4];
        return 2;
    default:
        return 0;
    }
}

void fillItem(const NvDataPacket& packet, size_t index, NvPacketItem* out)
{
    const NvDataPacket::Item& item = packet.item(index);
    std::memset(out, 0, sizeof *out);
    out->dataIdentifier = item.id;
    out->quantity = nvQuantity(item.id);
    out->payloadSize = item.size;
    out->name = nvDataIdentifierName(item.id);
    out->valueCount = itemValues(item.id, packet.itemPayload(index), item.size, out->values);
}

} // namespace

extern "C" {

// ------------------------------------------------------------------------ Control

int NvControl_openPortByName(NvControl* control, const char* portName, NvBaudRate baudRate,
                             unsigned timeout)
{
    if (!control || !portName || !*portName)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    const NvString name(portName);
    return NvControl_openPort(control, &name, baudRate, timeout);
}

int NvControl_closePortByName(NvControl* control, const char* portName)
{
    if (!control || !portName)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    const NvString name(portName);
    return NvControl_closePort(control, &name);
}

int NvControl_openLogFileByName(NvControl* control, const char* fileName)
{
    if (!control || !fileName || !*fileName)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    const NvString name(fileName);
    return NvControl_openLogFile(control, &name);
}

NvDevice* NvControl_deviceRefByIdText(NvControl* control, const char* deviceId)
{
    if (!control || !deviceId)
        return failWith<NvDevice*>(NRV_INVALID_ARGUMENT, nullptr);
    const NvDeviceId id = NvDeviceId::fromString(deviceId);
    if (id.isEmpty())
        return failWith<NvDevice*>(NRV_INVALID_ARGUMENT, nullptr);
    NvDevice* device = NvControl_deviceRef(control, &id);
    setResult(device ? NRV_OK : NRV_INVALID_DEVICE);
    return device;
}

NvDevice* NvControl_deviceRefByPortName(NvControl* control, const char* portName)
{
    if (!control || !portName)
        return failWith<NvDevice*>(NRV_INVALID_ARGUMENT, nullptr);
    // Devices may come and go meanwhile: room for a few more than there are now.
    std::vector<NvDevice*> devices(size_t(NvControl_deviceCount(control)) + 8);
    const int n = NvControl_mainDevicesRef(control, devices.data(), int(devices.size()));
    NvDevice* found = nullptr;
    for (int i = 0; i < n; ++i) {
        NvString name;
        NvDevice_portName(devices[size_t(i)], &name);
        if (!found && name == portName)
            found = devices[size_t(i)];
        else
            NvDevice_removeRef(devices[size_t(i)]);
    }
    setResult(found ? NRV_OK : NRV_PORT_NOT_OPEN);
    return found;
}

// ------------------------------------------------------------------------ Scanner

int NvScanner_scanPortRecords(NvPortRecord* out, int capacity, NvBaudRate baudRate,
                              unsigned scanTime, int ignoreNonNivra, int detectRs485)
{
    if (!validOut(out, capacity))
        return failWith(NRV_INVALID_ARGUMENT, -1);
    NvPortInfoArray found;
    NvScanner_scanPorts(&found, baudRate, scanTime, ignoreNonNivra, detectRs485);
    const NvResultValue result = nda::lastResult();
    for (size_t i = 0; i < found.size() && i < size_t(capacity); ++i)
        fillRecord(found[i], &out[i]);
    setResult(result);
    return clampToInt(found.size());
}

int NvScanner_scanPortRecord(NvPortRecord* port, NvBaudRate baudRate, unsigned scanTime,
                             int detectRs485)
{
    if (!port)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    NvPortInfo info;
    info.portName.assign(port->portName,
                         std::find(port->portName, port->portName + NV_PORT_NAME_SIZE, '\0'));
    if (info.portName.empty())
        return failWith(NRV_INVALID_ARGUMENT, 0);
    const int found = NvScanner_scanPort(&info, baudRate, scanTime, detectRs485);
    NvResultValue result = nda::lastResult();
    if (!found && result == NRV_OK)
        result = NRV_NO_DEVICE_FOUND;
    fillRecord(info, port);
    setResult(result);
    return found ? 1 : 0;
}

void NvScanner_setScanLogSink(NvScanLogSink sink, void* context)
{
    // Unhooking first waits for lines being delivered, so the old sink is done with
    // when this returns.
    NvScanner_setScanLogCallback(nullptr);
    {
        std::lock_guard<std::mutex> lock(g_scanSinkMutex);
        g_scanSink = sink;
        g_scanSinkContext = context;
    }
    if (sink)
        NvScanner_setScanLogCallback(&scanLogTrampoline);
    setResult(NRV_OK);
}

// ------------------------------------------------------------------------ Device texts

int NvDevice_deviceIdText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size, [](NvDevice* d) { return deviceIdOf(d).toString(); });
}

int NvDevice_productCodeText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size, [](NvDevice* d) {
        NvString code;
        NvDevice_productCode(d, &code);
        return productCodeOf(deviceIdOf(d), code);
    });
}

int NvDevice_deviceTypeText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size,
                      [](NvDevice* d) { return deviceIdOf(d).deviceTypeText(); });
}

int NvDevice_firmwareVersionText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size, [](NvDevice* d) {
        NvVersion version;
        NvDevice_firmwareVersion(d, &version);
        return version.toString();
    });
}

int NvDevice_hardwareVersionText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size, [](NvDevice* d) {
        NvVersion version;
        NvDevice_hardwareVersion(d, &version);
        return version.toString();
    });
}

int NvDevice_portNameText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size, [](NvDevice* d) {
        NvString name;
        NvDevice_portName(d, &name);
        return name;
    });
}

int NvDevice_logFileNameText(NvDevice* device, char* buffer, size_t size)
{
    return deviceText(device, buffer, size, [](NvDevice* d) {
        NvString name;
        NvDevice_logFileName(d, &name);
        return name;
    });
}

// ------------------------------------------------------------------------ Output

int NvDevice_outputConfigurationRecords(NvDevice* device, NvOutputRecord* out, int capacity)
{
    if (!isDevice(device))
        return -1;
    if (!validOut(out, capacity))
        return failWith(NRV_INVALID_ARGUMENT, -1);
    NvOutputConfigurationArray config;
    NvDevice_outputConfiguration(device, &config);
    for (size_t i = 0; i < config.size() && i < size_t(capacity); ++i)
        out[i] = NvOutputRecord{config[i].dataIdentifier, config[i].frequency};
    setResult(NRV_OK);
    return clampToInt(config.size());
}

int NvDevice_setOutputConfigurationRecords(NvDevice* device, const NvOutputRecord* records,
                                           int count)
{
    if (!isDevice(device))
        return 0;
    if (!validOut(records, count) || count > NV_MAX_OUTPUT_RECORDS)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    NvOutputConfigurationArray config;
    for (int i = 0; i < count; ++i)
        config.emplace_back(records[i].dataIdentifier, records[i].frequency);
    return NvDevice_setOutputConfiguration(device, &config);
}

int NvDevice_supportedUpdateRateList(NvDevice* device, NvDataIdentifier dataIdentifier, int* out,
                                     int capacity)
{
    if (!isDevice(device))
        return -1;
    if (!validOut(out, capacity))
        return failWith(NRV_INVALID_ARGUMENT, -1);
    NvIntArray rates;
    NvDevice_supportedUpdateRates(device, dataIdentifier, &rates);
    std::copy_n(rates.begin(), std::min(rates.size(), size_t(capacity)), out);
    setResult(NRV_OK);
    return clampToInt(rates.size());
}

// ------------------------------------------------------------------------ Recording, files

int NvDevice_createLogFileByName(NvDevice* device, const char* fileName)
{
    if (!fileName || !*fileName)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    const NvString name(fileName);
    return NvDevice_createLogFile(device, &name);
}

int NvDevice_loadLogFileAndWait(NvDevice* device, unsigned timeoutMs)
{
    if (!isDevice(device))
        return 0;
    if (NvDevice_isFileLoaded(device))
        return failWith(NRV_OK, 1);

    struct Waiter
    {
        std::mutex mutex;
        std::condition_variable changed;
        bool finished = false;        // guarded by mutex
        NvResultValue error = NRV_OK; // guarded by mutex
    } waiter;
    NvCallbackPlainC handler{};
    handler.userData = &waiter;
    handler.onProgressUpdated = [](void* user, NvDevice*, int current, int total, const NvString*) {
        auto* w = static_cast<Waiter*>(user);
        if (total <= 0 || current < total)
            return;
        std::lock_guard<std::mutex> lock(w->mutex);
        w->finished = true;
        w->changed.notify_all();
    };
    handler.onError = [](void* user, NvDevice*, NvResultValue error) {
        auto* w = static_cast<Waiter*>(user);
        std::lock_guard<std::mutex> lock(w->mutex);
        w->error = error;
        w->finished = true;
        w->changed.notify_all();
    };
    handler.onDeviceStateChanged = [](void* user, NvDevice*, NvDeviceState state, NvDeviceState) {
        if (state != NDS_DESTRUCTING)
            return;
        auto* w = static_cast<Waiter*>(user);
        std::lock_guard<std::mutex> lock(w->mutex);
        w->error = NRV_ABORTED; // closed while loading
        w->finished = true;
        w->changed.notify_all();
    };
    NvDevice_addCallbackHandler(device, &handler, 1);
    if (!NvDevice_loadLogFile(device)) {
        const NvResultValue result = nda::lastResult();
        NvDevice_removeCallbackHandler(device, &handler);
        return failWith(result, 0);
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    NvResultValue result = NRV_OK;
    {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        // The file may have been loaded for another of its devices before the handler was
        // there: the state is looked at between waits as well.
        while (!waiter.finished && !NvDevice_isFileLoaded(device)) {
            if (timeoutMs && Clock::now() >= deadline) {
                result = NRV_TIMEOUT;
                break;
            }
            waiter.changed.wait_for(lock, std::chrono::milliseconds(50));
        }
        if (waiter.error != NRV_OK)
            result = waiter.error;
    }
    NvDevice_removeCallbackHandler(device, &handler);
    return failWith(result, result == NRV_OK ? 1 : 0);
}

NvCbDataPacket* NvDevice_newDataPacketByIndex(NvDevice* device, int64_t index)
{
    NvDataPacket packet;
    if (!NvDevice_dataPacketByIndex(device, index, &packet))
        return nullptr;
    NvDataPacket* copy = new (std::nothrow) NvDataPacket(std::move(packet));
    setResult(copy ? NRV_OK : NRV_OUT_OF_MEMORY);
    return copy;
}

// ------------------------------------------------------------------------ Packets

int NvPacket_itemCount(const NvCbDataPacket* packet)
{
    if (!packet)
        return failWith(NRV_INVALID_ARGUMENT, -1);
    setResult(NRV_OK);
    return clampToInt(packet->itemCount());
}

int NvPacket_item(const NvCbDataPacket* packet, int index, NvPacketItem* out)
{
    if (!packet || !out || index < 0 || size_t(index) >= packet->itemCount())
        return failWith(NRV_INVALID_ARGUMENT, 0);
    fillItem(*packet, size_t(index), out);
    return failWith(NRV_OK, 1);
}

int NvPacket_findItem(const NvCbDataPacket* packet, NvDataIdentifier quantity, NvPacketItem* out)
{
    if (!packet || !out)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    for (size_t i = 0, n = packet->itemCount(); i < n; ++i)
        if (nvQuantity(packet->item(i).id) == nvQuantity(quantity)) {
            fillItem(*packet, i, out);
            return failWith(NRV_OK, 1);
        }
    return failWith(NRV_NO_DATA, 0);
}

int NvPacket_itemPayload(const NvCbDataPacket* packet, int index, uint8_t* buffer, size_t size)
{
    if (!packet || index < 0 || size_t(index) >= packet->itemCount())
        return failWith(NRV_INVALID_ARGUMENT, -1);
    return putBytes(packet->itemPayload(size_t(index)), packet->item(size_t(index)).size, buffer,
                    size, false);
}

int NvPacket_packetCounter(const NvCbDataPacket* packet)
{
    if (!packet || !packet->contains(NDI_PACKET_COUNTER))
        return failWith(packet ? NRV_NO_DATA : NRV_INVALID_ARGUMENT, -1);
    return failWith<int>(NRV_OK, packet->packetCounter());
}

int64_t NvPacket_sampleTimeFine(const NvCbDataPacket* packet)
{
    if (!packet || !packet->contains(NDI_SAMPLE_TIME_FINE))
        return failWith<int64_t>(packet ? NRV_NO_DATA : NRV_INVALID_ARGUMENT, -1);
    return failWith<int64_t>(NRV_OK, packet->sampleTimeFine());
}

int64_t NvPacket_sampleTimeCoarse(const NvCbDataPacket* packet)
{
    if (!packet || !packet->contains(NDI_SAMPLE_TIME_COARSE))
        return failWith<int64_t>(packet ? NRV_NO_DATA : NRV_INVALID_ARGUMENT, -1);
    return failWith<int64_t>(NRV_OK, packet->sampleTimeCoarse());
}

int NvPacket_busId(const NvCbDataPacket* packet)
{
    if (!packet)
        return failWith(NRV_INVALID_ARGUMENT, -1);
    return failWith<int>(NRV_OK, packet->busId());
}

int NvPacket_isMalformed(const NvCbDataPacket* packet)
{
    if (!packet)
        return failWith(NRV_INVALID_ARGUMENT, 0);
    return failWith(NRV_OK, packet->isMalformed() ? 1 : 0);
}

int NvPacket_orientationQuaternion(const NvCbDataPacket* packet, NvCoordinateFrame frame,
                                   double out[4])
{
    if (!packet || !out || !validFrame(frame))
        return failWith(NRV_INVALID_ARGUMENT, 0);
    if (!packet->containsOrientation())
        return failWith(NRV_NO_DATA, 0);
    const NvQuaternion q = packet->orientationQuaternion(frame);
    out[0] = q.w;
    out[1] = q.x;
    out[2] = q.y;
    out[3] = q.z;
    return failWith(NRV_OK, 1);
}

int NvPacket_orientationEuler(const NvCbDataPacket* packet, NvCoordinateFrame frame, double out[3])
{
    if (!packet || !out || !validFrame(frame))
        return failWith(NRV_INVALID_ARGUMENT, 0);
    if (!packet->containsOrientation())
        return failWith(NRV_NO_DATA, 0);
    const NvEuler e = packet->orientationEuler(frame);
    out[0] = e.roll;
    out[1] = e.pitch;
    out[2] = e.yaw;
    return failWith(NRV_OK, 1);
}

NvCbDataPacket* NvPacket_copy(const NvCbDataPacket* packet)
{
    if (!packet)
        return failWith<NvCbDataPacket*>(NRV_INVALID_ARGUMENT, nullptr);
    NvDataPacket* copy = new (std::nothrow) NvDataPacket(*packet);
    setResult(copy ? NRV_OK : NRV_OUT_OF_MEMORY);
    return copy;
}

void NvPacket_delete(NvCbDataPacket* packet)
{
    delete packet;
    setResult(NRV_OK);
}

// ------------------------------------------------------------------------ Callback data

const char* NvCbString_text(const NvCbString* string)
{
    return string ? string->c_str() : "";
}

size_t NvCbString_size(const NvCbString* string)
{
    return string ? string->size() : 0;
}

const uint8_t* NvCbByteArray_data(const NvCbByteArray* bytes, size_t* size)
{
    if (size)
        *size = bytes ? bytes->size() : 0;
    return bytes ? bytes->data() : nullptr;
}

int NvCbMessage_messageId(const NvCbMessage* message)
{
    return message && !message->isEmpty() ? message->messageId() : -1;
}

int NvCbMessage_busId(const NvCbMessage* message)
{
    return message && !message->isEmpty() ? message->busId() : -1;
}

const uint8_t* NvCbMessage_data(const NvCbMessage* message, size_t* size)
{
    if (size)
        *size = message ? message->dataSize() : 0;
    return message ? message->data() : nullptr;
}

} // extern "C"
