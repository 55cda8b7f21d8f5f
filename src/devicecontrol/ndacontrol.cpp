#include "ndacontrol.h"

#include "ndascanforhardwarethread.h"

#include <QFileInfo>
#include <QMetaObject>
#include <QPointer>

#include <functional>

// The library tells of a destroyed device on its own thread; the wrapper goes on the GUI
// thread, where the table lives.
class NdaControl::DestroyedCallback : public NdaDeviceDestroyedCallback
{
public:
    explicit DestroyedCallback(NdaControl& control) : m_control(&control) {}
    void deviceDestroyed(NvDevice* device) override
    {
        const NvDeviceId id = NdaCallback::deviceIdOf(device);
        QPointer<NdaControl> control = m_control;
        QMetaObject::invokeMethod(
            m_control,
            [control, id] {
                if (control)
                    control->handleDeviceDestroyed(id);
            },
            Qt::QueuedConnection);
    }

private:
    NdaControl* m_control;
};

NdaControl::NdaControl(QObject* parent) : NdaCallback(parent)
{
    m_control = NvControl_construct();
    m_invalid = new NdaDevice(*this, NvControl_device(m_control, nullptr));
    registerNdaMetaTypes();
    NvControl_addCallbackHandler(m_control, plainC(), 1);
    m_destroyedCallback = QSharedPointer<NdaDeviceDestroyedCallback>(new DestroyedCallback(*this));
    registerDeviceDestroyedCallback(m_destroyedCallback);
}

NdaControl::~NdaControl()
{
    if (m_scanThread) {
        m_scanThread->abortScan();
        m_scanThread->wait();
        delete m_scanThread;
        m_scanThread = nullptr;
    }
    NvControl_stopRestoreCommunication(m_control);
    // Wrappers first: each drops its library reference and handler.
    while (!m_devices.empty())
        deleteEntry(m_devices.begin()->first);
    NvControl_close(m_control);
    NvControl_removeCallbackHandler(m_control, plainC());
    unRegisterDeviceDestroyedCallback(m_destroyedCallback);
    delete m_invalid;
    NvControl_destruct(m_control);
}

NvDeviceRef NdaControl::lib(const NvDeviceId& id) const
{
    return id.isEmpty() ? NvDeviceRef() : nvDeviceRef(m_control, id);
}

// ------------------------------------------------------------------------ Device lifetime

NdaDevice& NdaControl::requestDevice(const NvDeviceId& id)
{
    if (id.isEmpty())
        return *m_invalid;
    const NvDeviceRef device = lib(id);
    auto it = m_devices.find(id);
    if (it != m_devices.end()) {
        NvDevice* held = it->second.first->libraryDevice();
        const bool stale = held && held != device && NvDevice_deviceState(held) == NDS_DESTRUCTING;
        if (!stale || !device) {
            ++it->second.second;
            return *it->second.first;
        }
        // The library closed that device and opened another under the same identifier
        // (a recording of it, say) before the news of the close came in.
        deleteEntry(id);
    }
    if (!device)
        return *m_invalid;
    auto* wrapper = new NdaDevice(*this, device);
    m_devices.emplace(id, std::make_pair(wrapper, 1u));
    return *wrapper;
}

NdaDevice& NdaControl::requestDevice(const NdaDevice& device)
{
    return requestDevice(device.deviceId());
}

const NdaDevice& NdaControl::requestConstDevice(const NvDeviceId& id)
{
    return requestDevice(id);
}

const NdaDevice& NdaControl::requestConstDevice(const NdaDevice& device)
{
    return requestDevice(device.deviceId());
}

void NdaControl::releaseDevice(const NvDeviceId& id)
{
    auto it = m_devices.find(id);
    if (it == m_devices.end())
        return;
    if (--it->second.second == 0)
        deleteEntry(id);
}

void NdaControl::releaseDevice(const NdaDevice& device)
{
    if (&device != m_invalid)
        releaseDevice(device.deviceId());
}

void NdaControl::deleteEntry(const NvDeviceId& id)
{
    auto it = m_devices.find(id);
    if (it == m_devices.end())
        return;
    NdaDevice* wrapper = it->second.first;
    m_devices.erase(it);
    emit aboutToCloseDevice(id);
    wrapper->preDeleteTrigger();
    delete wrapper;
}

void NdaControl::deleteDeviceAndChildren(const NvDeviceId& id)
{
    for (const NvDeviceId& child : childDeviceIds(id))
        deleteDeviceAndChildren(child);
    deleteEntry(id);
}

unsigned NdaControl::referenceCount(const NvDeviceId& id) const
{
    auto it = m_devices.find(id);
    return it == m_devices.end() ? 0 : it->second.second;
}

void NdaControl::handleDeviceDestroyed(const NvDeviceId& id)
{
    // Only the wrapper of a closed device goes: by now the identifier may name a device
    // opened since (its recording, say), and the wrapper's reference keeps the closed one
    // readable.
    auto it = m_devices.find(id);
    if (it != m_devices.end()) {
        NvDevice* device = it->second.first->libraryDevice();
        if (!device || NvDevice_deviceState(device) == NDS_DESTRUCTING)
            deleteEntry(id);
    }
    emit deviceDestroyedByNda(id);
}

NdaDevice& NdaControl::requestFileDevice(const QString& path)
{
    const NvString name = path.toStdString();
    if (!NvControl_openLogFile(m_control, &name))
        return *m_invalid;
    applyOptionFlags();
    // The file's devices are those reading from this file; the first is the one asked for.
    for (const NvDeviceId& id : mainDeviceIds()) {
        const NvDeviceRef device = lib(id);
        NvString file;
        NvDevice_fileName(device, &file);
        if (NvDevice_isReadingFromFile(device) && file == name)
            return requestDevice(id);
    }
    return *m_invalid;
}

const NdaDevice& NdaControl::requestConstFileDevice(const QString& path)
{
    return requestFileDevice(path);
}

NdaDeviceSelection NdaControl::requestDeviceSelection(const std::set<NvDeviceId>& ids)
{
    NdaDeviceSelection selection(*this);
    for (const NvDeviceId& id : ids)
        selection.addToSelection(id);
    return selection;
}

NdaDeviceSelection NdaControl::requestDeviceSelection(const NvDeviceIdArray& ids)
{
    return requestDeviceSelection(std::set<NvDeviceId>(ids.begin(), ids.end()));
}

NdaDevice* NdaControl::getExistingDevice(const NvDeviceId& id) const
{
    auto it = m_devices.find(id);
    return it == m_devices.end() ? nullptr : it->second.first;
}

const NdaDevice* NdaControl::getExistingConstDevice(const NvDeviceId& id) const
{
    return getExistingDevice(id);
}

bool NdaControl::isValidExistingDevice(const NvDeviceId& id) const
{
    const NdaDevice* device = getExistingDevice(id);
    return device && device->isValid();
}

// ------------------------------------------------------------------------ Ports and files

bool NdaControl::openPort(const NvString& name, NvBaudRate baudRate, unsigned timeout)
{
    return NvControl_openPort(m_control, &name, baudRate, timeout) != 0;
}

bool NdaControl::openPort(NvPortInfo& info, unsigned timeout)
{
    return NvControl_openPort_1(m_control, &info, timeout) != 0;
}

bool NdaControl::closePort(const NvString& name)
{
    return NvControl_closePort(m_control, &name) != 0;
}

bool NdaControl::closePort(const NvDeviceId& id)
{
    return NvControl_closePort_1(m_control, &id) != 0;
}

bool NdaControl::openImarPort_internal(const NvString& name, NvBaudRate baudRate, int channel,
                                       unsigned timeout)
{
    return NvControl_openImarPort_internal(m_control, &name, baudRate, channel, timeout) != 0;
}

void NdaControl::close()
{
    if (m_closing)
        return;
    m_closing = true;
    emit aboutToClose();
    NvDevice_gotoConfig(NvControl_broadcast(m_control));
    NvControl_close(m_control);
    m_closing = false;
    emit closed();
}

void NdaControl::scanForHardware(const QString& port, int baudRate)
{
    if (m_scanThread)
        return;
    close();
    m_scanThread = new NdaScanForHardwareThread(*this, port, NvBaudRate(baudRate));
    NdaScanForHardwareThread* t = m_scanThread;
    connect(t, &NdaScanForHardwareThread::scanCompleted, this,
            &NdaControl::scanForHardwareCompleted);
    connect(t, &NdaScanForHardwareThread::progressChanged, this,
            &NdaControl::scanForHardwareProgressChanged);
    connect(t, &NdaScanForHardwareThread::scanAborted, this, &NdaControl::scanForHardwareAborted);
    connect(t, &NdaScanForHardwareThread::scanningPorts, this,
            &NdaControl::scanForHardwareScanningPorts);
    connect(t, &NdaScanForHardwareThread::openingPort, this,
            &NdaControl::scanForHardwareOpeningPort);
    connect(t, &NdaScanForHardwareThread::scanLogEvent, this, &NdaControl::scanLogEvent);
    connect(t, &NdaScanForHardwareThread::foreignDeviceFound, this,
            &NdaControl::scanForHardwareForeignDevice);
    connect(t, &QThread::finished, this, &NdaControl::handleScanForHardwareFinished);
    emit scanForHardwareStarted();
    t->start(QThread::InheritPriority);
}

void NdaControl::abortScanForHardware()
{
    if (m_scanThread)
        m_scanThread->abortScan();
}

void NdaControl::handleScanForHardwareFinished()
{
    // The thread deletes itself later (its own finished() connection).
    m_scanThread = nullptr;
    applyOptionFlags();
}

void NdaControl::setOptionFlags(bool first, bool second)
{
    m_optionFirst = first;
    m_optionSecond = second;
}

void NdaControl::applyOptionFlags()
{
    setOptionEnabled(NvOption(1), m_optionFirst);
    setOptionEnabled(NvOption(2), m_optionSecond);
}

bool NdaControl::startRestoreCommunication(const QString& port)
{
    const NvString name = port.toStdString();
    return NvControl_startRestoreCommunication(m_control, &name) != 0;
}

void NdaControl::stopRestoreCommunication()
{
    NvControl_stopRestoreCommunication(m_control);
}

bool NdaControl::loadAltFilterProfiles(const QString& path)
{
    if (!QFileInfo::exists(path))
        return false;
    const NvString name = path.toStdString();
    return NvControl_loadFilterProfiles(m_control, &name) != 0;
}

void NdaControl::setOptionEnabled(NvOption option, bool on)
{
    if (on)
        NvControl_setOptions(m_control, option, 0);
    else
        NvControl_setOptions(m_control, 0, option);
}

NvResultValue NdaControl::lastResult() const
{
    return NvControl_lastResult(m_control);
}

QString NdaControl::lastResultText() const
{
    return QString::fromUtf8(NvControl_lastResultText(m_control));
}

QString NdaControl::version()
{
    return QStringLiteral("KvManager device library 1.0");
}

// ------------------------------------------------------------------------ Queries

NvDeviceIdArray NdaControl::kvDeviceIds() const
{
    NvDeviceIdArray out;
    NvControl_kvDeviceIds(m_control, &out);
    return out;
}

NvDeviceIdArray NdaControl::deviceIds() const
{
    NvDeviceIdArray out;
    NvControl_deviceIds(m_control, &out);
    return out;
}

NvDeviceIdArray NdaControl::mainDeviceIds() const
{
    NvDeviceIdArray out;
    NvControl_mainDeviceIds(m_control, &out);
    return out;
}

NvDeviceIdArray NdaControl::wirelessMasterIds() const
{
    NvDeviceIdArray out;
    for (const NvDeviceId& id : mainDeviceIds())
        if (NvDevice_isMasterDevice(lib(id).get()))
            out.push_back(id);
    return out;
}

NvDeviceIdArray NdaControl::childDeviceIds(const NvDeviceId& id) const
{
    NvDeviceIdArray out;
    const NvDeviceRef parent = lib(id);
    if (!parent)
        return out;
    for (const NvDeviceId& child : deviceIds())
        if (NvDevice_masterDevice(lib(child).get()) == parent)
            out.push_back(child);
    return out;
}

int NdaControl::deviceCount() const
{
    return NvControl_deviceCount(m_control);
}

// A query on the library device, or the neutral value when it is not there.
template <typename T, typename F>
static T ask(const NvDeviceRef& device, T neutral, F&& f)
{
    return device ? T(f(device.get())) : neutral;
}

bool NdaControl::isInTransportMode(const NvDeviceId& id) const
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_isInTransportMode(d) != 0; });
}

bool NdaControl::isInStringOutputMode(const NvDeviceId& id) const
{
    const NdaDevice* existing = getExistingDevice(id);
    if (existing)
        return existing->isInStringOutputMode();
    return ask(lib(id), false, [](NvDevice* d) {
        uint16_t type = 0, period = 0;
        return !NvDevice_isReadingFromFile(d) && NvDevice_stringOutputMode(d, &type, &period) &&
               type != 0;
    });
}

NvOutputConfigurationArray NdaControl::outputConfiguration(const NvDeviceId& id) const
{
    NvOutputConfigurationArray out;
    if (const NvDeviceRef d = lib(id))
        NvDevice_outputConfiguration(d, &out);
    return out;
}

bool NdaControl::isDeviceDocked(const NvDeviceId& id) const
{
    return NvControl_isDeviceDocked(m_control, &id) != 0;
}

NvDeviceId NdaControl::dockDeviceId(const NvDeviceId& id) const
{
    NvDeviceId out;
    NvControl_dockDeviceId(m_control, &id, &out);
    return out;
}

bool NdaControl::isDeviceWireless(const NvDeviceId& id) const
{
    return NvControl_isDeviceWireless(m_control, &id) != 0;
}

bool NdaControl::isReadingFromFile() const
{
    for (const NvDeviceId& id : mainDeviceIds())
        if (isReadingFromFile(id))
            return true;
    return false;
}

bool NdaControl::isReadingFromFile(const NvDeviceId& id) const
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_isReadingFromFile(d) != 0; });
}

QString NdaControl::productCode(const NvDeviceId& id) const
{
    NvString code;
    if (const NvDeviceRef d = lib(id))
        NvDevice_productCode(d, &code);
    return QString::fromStdString(code);
}

NvDeviceId NdaControl::getMasterId(const NvDeviceId& id) const
{
    NvDeviceId out;
    if (const NvDeviceRef d = lib(id))
        NvDevice_deviceId(NvDevice_masterDevice(d), &out);
    return out;
}

bool NdaControl::deviceUsesOnboardFiltering(const NvDeviceId& id) const
{
    // Devices that compute their orientation themselves filter on board.
    return lib(id) && id.hasOrientationOutput() && !id.isWirelessMaster();
}

bool NdaControl::deviceUsesUsb(const NvDeviceId& id) const
{
    const NvDeviceRef d = lib(id);
    if (!d)
        return false;
    NvString port;
    NvDevice_portName(d, &port);
    return port.find("ttyUSB") != NvString::npos || port.find("ttyACM") != NvString::npos;
}

int NdaControl::getUpdateRate(const NvDeviceId& id) const
{
    if (const NdaDevice* existing = getExistingDevice(id))
        return existing->updateRate();
    NdaDevice probe(const_cast<NdaControl&>(*this), lib(id).get());
    return probe.updateRate();
}

int NdaControl::getLocationId(const NvDeviceId& id) const
{
    return ask(lib(id), 0, [](NvDevice* d) { return NvDevice_locationId(d); });
}

NvBaudRate NdaControl::getSerialBaudRate(const NvDeviceId& id) const
{
    return ask(lib(id), NBR_INVALID, [](NvDevice* d) { return NvDevice_baudRate(d); });
}

QString NdaControl::getPortName(const NvDeviceId& id) const
{
    NvString name;
    if (const NvDeviceRef d = lib(id))
        NvDevice_portName(d, &name);
    return QString::fromStdString(name);
}

NvFilterProfileArray NdaControl::availableOnboardFilterProfiles(const NvDeviceId& id) const
{
    NvFilterProfileArray out;
    const NvDeviceRef d = lib(id);
    if (d && !NvDevice_isReadingFromFile(d))
        NvDevice_availableFilterProfiles(d, &out);
    return out;
}

NvFilterProfileArray NdaControl::availableNdaFilterProfiles(const NvDeviceId& id) const
{
    NvFilterProfileArray out;
    if (lib(id))
        NvControl_filterProfiles(m_control, &out);
    return out;
}

NvSyncSettingArray NdaControl::supportedSyncSettings(const NvDeviceId& id) const
{
    NvSyncSettingArray out;
    if (const NvDeviceRef d = lib(id))
        NvDevice_supportedSyncSettings(d, &out);
    return out;
}

NvIntArray NdaControl::supportedUpdateRates(const NvDeviceId& id, NvDataIdentifier dataId) const
{
    NvIntArray out;
    if (const NvDeviceRef d = lib(id))
        NvDevice_supportedUpdateRates(d, dataId, &out);
    return out;
}

NvSyncSettingArray NdaControl::syncSettings(const NvDeviceId& id) const
{
    NvSyncSettingArray out;
    if (const NvDeviceRef d = lib(id))
        NvDevice_syncSettings(d, &out);
    return out;
}

int NdaControl::getNdaFilterProfile(const NvDeviceId& id) const
{
    return ask(lib(id), -1, [](NvDevice* d) { return NvDevice_hostFilterProfile(d); });
}

int NdaControl::getOnBoardFilterProfile(const NvDeviceId& id) const
{
    return ask(lib(id), -1, [](NvDevice* d) {
        return NvDevice_isReadingFromFile(d) ? -1 : NvDevice_filterProfile(d);
    });
}

bool NdaControl::isMeasuring(const NvDeviceId& id) const
{
    if (const NdaDevice* existing = getExistingDevice(id))
        return existing->isMeasuring();
    return ask(lib(id), false, [](NvDevice* d) {
        return NdaDeviceState::isMeasuring(
            NdaDeviceState::fromNvDeviceState(NvDevice_deviceState(d)));
    });
}

bool NdaControl::isRecording(const NvDeviceId& id) const
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_isRecording(d) != 0; });
}

bool NdaControl::isMasterDevice(const NvDeviceId& id) const
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_isMasterDevice(d) != 0; });
}

int NdaControl::getBatteryLevel(const NvDeviceId& id) const
{
    return ask(lib(id), -1, [](NvDevice* d) { return NvDevice_batteryLevel(d); });
}

NvConnectivityState NdaControl::connectivityState(const NvDeviceId& id) const
{
    return ask(lib(id), NCS_UNKNOWN, [](NvDevice* d) { return NvDevice_connectivityState(d); });
}

int NdaControl::lastKnownRssi(const NvDeviceId& id) const
{
    return ask(lib(id), int(KvwInfo::RssiUnknown),
               [](NvDevice* d) { return NvDevice_lastKnownRssi(d); });
}

int NdaControl::busId(const NvDeviceId& id) const
{
    return ask(lib(id), 0, [](NvDevice* d) { return NvDevice_busId(d); });
}

bool NdaControl::isRadioEnabled(const NvDeviceId& id) const
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_isRadioEnabled(d) != 0; });
}

int NdaControl::radioChannel(const NvDeviceId& id) const
{
    return ask(lib(id), 0, [](NvDevice* d) { return NvDevice_radioChannel(d); });
}

int NdaControl::getScenario(const NvDeviceId& id) const
{
    return getOnBoardFilterProfile(id);
}

NdaLinkHealth NdaControl::linkHealth(const NvDeviceId& id) const
{
    const NdaDevice* existing = getExistingDevice(id);
    return existing ? existing->linkHealth() : NdaLinkHealth();
}

// ------------------------------------------------------------------------ Commands

bool NdaControl::setInTransportMode(const NvDeviceId& id, bool on)
{
    return ask(lib(id), false, [on](NvDevice* d) { return NvDevice_setTransportMode(d, on) != 0; });
}

bool NdaControl::setLocationId(const NvDeviceId& id, int locationId)
{
    return ask(lib(id), false,
               [locationId](NvDevice* d) { return NvDevice_setLocationId(d, locationId) != 0; });
}

bool NdaControl::setSerialBaudRate(const NvDeviceId& id, NvBaudRate baudRate)
{
    return ask(lib(id), false,
               [baudRate](NvDevice* d) { return NvDevice_setSerialBaudRate(d, baudRate) != 0; });
}

bool NdaControl::setNdaFilterProfile(const NvDeviceId& id, int type)
{
    return ask(lib(id), false,
               [type](NvDevice* d) { return NvDevice_setHostFilterProfile(d, type) != 0; });
}

bool NdaControl::setOnboardFilterProfile(const NvDeviceId& id, int type)
{
    return ask(lib(id), false,
               [type](NvDevice* d) { return NvDevice_setFilterProfile(d, type) != 0; });
}

bool NdaControl::gotoConfig(const NvDeviceId& id)
{
    if (NdaDevice* existing = getExistingDevice(id))
        return existing->gotoConfig();
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_gotoConfig(d) != 0; });
}

bool NdaControl::gotoConfigForAll(const NvDeviceIdArray& ids)
{
    bool ok = true;
    NdaDeviceSelection selection = requestDeviceSelection(ids);
    std::vector<NdaDevice*> devices = selection.getDevices();
    // Sources stop before the devices that follow them.
    for (auto it = devices.rbegin(); it != devices.rend(); ++it)
        ok = (*it)->gotoConfig() && ok;
    return ok;
}

bool NdaControl::gotoMeasurement(const NvDeviceId& id)
{
    if (NdaDevice* existing = getExistingDevice(id))
        return existing->gotoMeasurement();
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_gotoMeasurement(d) != 0; });
}

bool NdaControl::gotoMeasurementForAll(const NvDeviceIdArray& ids)
{
    bool ok = true;
    NdaDeviceSelection selection = requestDeviceSelection(ids);
    for (NdaDevice* device : selection.getDevices())
        ok = device->gotoMeasurement() && ok;
    return ok;
}

bool NdaControl::restoreFactoryDefaults(const NvDeviceId& id)
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_restoreFactoryDefaults(d) != 0; });
}

bool NdaControl::updateCachedDeviceInformation(const NvDeviceId& id)
{
    if (NdaDevice* existing = getExistingDevice(id))
        return existing->updateCachedDeviceInformation();
    return ask(lib(id), false,
               [](NvDevice* d) { return NvDevice_updateCachedDeviceInformation(d) != 0; });
}

bool NdaControl::requestBatteryLevel(const NvDeviceId& id)
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_requestBatteryLevel(d) != 0; });
}

bool NdaControl::requestGpsStatus(const NvDeviceId& id)
{
    const NvDeviceRef d = lib(id);
    if (!d || !NvDevice_requestGnssStatus(d))
        return false;
    NvGpsStatus status;
    NvDevice_gnssStatus(d, &status);
    emit gpsStatusChanged(status);
    return true;
}

bool NdaControl::setSyncSettings(const NvDeviceId& id, const NvSyncSettingArray& settings)
{
    return ask(lib(id), false,
               [&settings](NvDevice* d) { return NvDevice_setSyncSettings(d, &settings) != 0; });
}

bool NdaControl::enableRadio(const NvDeviceId& id, int channel)
{
    return ask(lib(id), false,
               [channel](NvDevice* d) { return NvDevice_enableRadio(d, channel) != 0; });
}

bool NdaControl::disableRadio(const NvDeviceId& id)
{
    return ask(lib(id), false, [](NvDevice* d) { return NvDevice_disableRadio(d) != 0; });
}

bool NdaControl::disableRadioForAll(const NvDeviceIdArray& ids)
{
    bool ok = true;
    for (const NvDeviceId& id : ids)
        ok = disableRadio(id) && ok;
    return ok;
}

bool NdaControl::setDeviceAccepted(const NvDeviceId& master, const NvDeviceId& child)
{
    return ask(lib(master), false,
               [&child](NvDevice* d) { return NvDevice_setDeviceAccepted(d, &child) != 0; });
}

bool NdaControl::setDeviceRejected(const NvDeviceId& master, const NvDeviceId& child)
{
    return ask(lib(master), false,
               [&child](NvDevice* d) { return NvDevice_setDeviceRejected(d, &child) != 0; });
}

bool NdaControl::switchOff(const NvDeviceId& id)
{
    const NvDeviceRef d = lib(id);
    if (!d)
        return false;
    bool ok = gotoConfig(id);
    if (id.isWirelessTracker()) {
        ok = NvDevice_setTransportMode(d, 1) && ok;
        ok = closePort(id) && ok;
    } else if (id.isWirelessMaster()) {
        ok = NvDevice_setTransportMode(d, 1) && ok;
        ok = NvDevice_disableRadio(d) && ok;
        ok = gotoConfig(id) && ok;
    }
    return ok;
}

bool NdaControl::switchOffAll()
{
    bool ok = switchOffAllAerlo();
    return switchOffAllKvw() && ok;
}

bool NdaControl::switchOffAllKvw()
{
    bool ok = true;
    for (const NvDeviceId& id : deviceIds())
        if (id.isWirelessTracker() && lib(id))
            ok = switchOff(id) && ok;
    return ok;
}

bool NdaControl::switchOffAllAerlo()
{
    bool ok = true;
    for (const NvDeviceId& id : wirelessMasterIds())
        ok = switchOff(id) && ok;
    return ok;
}

// ------------------------------------------------------------------------ State helpers

bool NdaControl::measurementStarted(NdaDeviceState::Type n, NdaDeviceState::Type o)
{
    return NdaDeviceState::measurementStarted(n, o);
}

bool NdaControl::recordingStopped(NdaDeviceState::Type n, NdaDeviceState::Type o)
{
    return NdaDeviceState::recordingStopped(n, o);
}

bool NdaControl::waitingForRecordingStart(NdaDeviceState::Type n, NdaDeviceState::Type o)
{
    return NdaDeviceState::waitingForRecordingStart(n, o);
}

bool NdaControl::flushingStarted(NdaDeviceState::Type n, NdaDeviceState::Type o)
{
    return NdaDeviceState::flushingStarted(n, o);
}

bool NdaControl::flushingStopped(NdaDeviceState::Type n, NdaDeviceState::Type o)
{
    return NdaDeviceState::flushingStopped(n, o);
}

bool NdaControl::isMeasuring(NdaDeviceState::Type state)
{
    return NdaDeviceState::isMeasuring(state);
}

// ------------------------------------------------------------------------ Progress

void NdaControl::onUpdateProgress(int, int, const NvDeviceId&, const QString&) {}

void NdaControl::onProgressCompleted(const NvDeviceId&, const QString&, int) {}

void NdaControl::onUpdateFlushingProgress(int, int, const NvDeviceId&, const QString&) {}

void NdaControl::onFlushingProgressCompleted(const NvDeviceId&, const QString&, int) {}

// ------------------------------------------------------------------------ Scope objects

NdaDeviceRequester::NdaDeviceRequester(NdaControl& control, const NvDeviceId& id)
    : m_control(control), m_device(control.requestDevice(id))
{
}

NdaDeviceRequester::NdaDeviceRequester(NdaControl& control, const NdaDevice& device)
    : m_control(control), m_device(control.requestDevice(device))
{
}

NdaDeviceRequester::~NdaDeviceRequester()
{
    m_control.releaseDevice(m_device);
}

NdaMeasurementPauser::NdaMeasurementPauser(NdaControl& control) : m_control(control)
{
    for (const NvDeviceId& id : control.mainDeviceIds())
        if (control.isMeasuring(id) && !control.isReadingFromFile(id))
            m_ids.push_back(id);
    m_paused = m_ids.empty() || control.gotoConfigForAll(m_ids);
}

NdaMeasurementPauser::NdaMeasurementPauser(NdaControl& control, const NvDeviceId& id)
    : m_control(control)
{
    if (control.isMeasuring(id) && !control.isReadingFromFile(id)) {
        m_ids.push_back(id);
        m_paused = control.gotoConfig(id);
    }
}

NdaMeasurementPauser::~NdaMeasurementPauser()
{
    NvDeviceIdArray resume;
    for (const NvDeviceId& id : m_ids)
        if (!m_control.isReadingFromFile(id))
            resume.push_back(id);
    if (!resume.empty())
        m_control.gotoMeasurementForAll(resume);
}
