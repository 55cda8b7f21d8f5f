#include "ndadevice.h"

#include "ndacontrol.h"
#include "ndadeviceobserver.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <algorithm>

// Every operation checks the handle under the device mutex; the library call itself runs
// without it so that a callback of the same device (which takes the state mutex) cannot
// wait for us.
#define NDA_DEVICE_OR(value)                                                                       \
    NvDevice* dev = handle();                                                                      \
    if (!dev)                                                                                      \
        return value;

namespace {

QString shortCode(const NvString& code)
{
    // "KV-300-2A8G4" -> "KV-300": the family and model, without the variant.
    const QString full = QString::fromStdString(code);
    const int first = full.indexOf(QLatin1Char('-'));
    const int second = first < 0 ? -1 : full.indexOf(QLatin1Char('-'), first + 1);
    return second < 0 ? full : full.left(second);
}

} // namespace

NdaDevice::NdaDevice(NdaControl& control, NvDevice* device)
    : NdaCallback(nullptr), m_control(control), m_device(device)
{
    if (!m_device)
        return;
    NvDevice_addRef(m_device);
    if (NvDevice_isReadingFromFile(m_device))
        NvControl_setOptions(control.libraryControl(), NVO_RETAIN_FILE_DATA, 0);
    m_valid = true;
    NvDevice_deviceId(m_device, &m_id);
    NvString code;
    NvDevice_productCode(m_device, &code);
    m_shortProductCode = shortCode(code);
    m_state = NdaDeviceState::fromNvDeviceState(NvDevice_deviceState(m_device));
    m_supportedUpdateRates = supportedUpdateRates(NDI_PACKET_COUNTER);
    m_link.setConfiguredRate(updateRate());
    NvDevice_addCallbackHandler(m_device, plainC(), 1);
    m_handlerAdded = true;
    // Link health follows what the bridge delivers, on the GUI thread.
    connect(this, &NdaCallback::postProcessed, this,
            [this](const NvDataPacket& p) { onLinkPacket(p); });
    connect(this, &NdaCallback::samplesMissed, this,
            [this](const NvDeviceId&, int count) { onLinkMissed(count); });
}

NdaDevice::~NdaDevice()
{
    NvDevice* dev = nullptr;
    {
        QMutexLocker lock(&m_deviceMutex);
        dev = m_device;
        m_device = nullptr;
        m_valid = false;
    }
    if (dev) {
        if (m_handlerAdded)
            NvDevice_removeCallbackHandler(dev, plainC());
        if (!NvDevice_isReadingFromFile(dev) && !NvDevice_isRecording(dev))
            NvDevice_closeLogFile(dev);
    }
    emit closed(m_id);
    if (dev)
        NvDevice_removeRef(dev);
}

NvDevice* NdaDevice::handle() const
{
    QMutexLocker lock(&m_deviceMutex);
    return m_valid ? m_device : nullptr;
}

bool NdaDevice::isValid() const
{
    return handle() != nullptr;
}

void NdaDevice::setValid(bool valid)
{
    QMutexLocker lock(&m_deviceMutex);
    m_valid = valid && m_device;
}

NvDeviceId NdaDevice::deviceId() const
{
    return m_id;
}

NvDeviceId NdaDevice::masterId() const
{
    NDA_DEVICE_OR(NvDeviceId())
    NvDeviceId id;
    NvDevice_deviceId(NvDevice_masterDevice(dev), &id);
    return id;
}

NdaDevice* NdaDevice::masterDevice() const
{
    const NvDeviceId id = masterId();
    return id.isEmpty() ? nullptr : m_control.getExistingDevice(id);
}

NvDeviceIdArray NdaDevice::childDeviceIds() const
{
    return isValid() ? m_control.childDeviceIds(m_id) : NvDeviceIdArray();
}

NvDeviceId NdaDevice::getFirstChildDeviceId() const
{
    const NvDeviceIdArray ids = childDeviceIds();
    return ids.empty() ? NvDeviceId() : ids.front();
}

int NdaDevice::busId() const
{
    NDA_DEVICE_OR(0)
    return NvDevice_busId(dev);
}

QString NdaDevice::productCode() const
{
    NDA_DEVICE_OR(QString())
    NvString code;
    NvDevice_productCode(dev, &code);
    return QString::fromStdString(code);
}

QString NdaDevice::shortProductCode() const
{
    return m_shortProductCode;
}

NvVersion NdaDevice::firmwareVersion() const
{
    NDA_DEVICE_OR(NvVersion())
    NvVersion v;
    NvDevice_firmwareVersion(dev, &v);
    return v;
}

NvVersion NdaDevice::hardwareVersion() const
{
    NDA_DEVICE_OR(NvVersion())
    NvVersion v;
    NvDevice_hardwareVersion(dev, &v);
    return v;
}

QString NdaDevice::portName() const
{
    NDA_DEVICE_OR(QString())
    NvString name;
    NvDevice_portName(dev, &name);
    return QString::fromStdString(name);
}

QString NdaDevice::fileName() const
{
    NDA_DEVICE_OR(QString())
    NvString name;
    if (NvDevice_isReadingFromFile(dev))
        NvDevice_fileName(dev, &name);
    else
        NvDevice_logFileName(dev, &name);
    return QString::fromStdString(name);
}

qint64 NdaDevice::logFileSize() const
{
    NDA_DEVICE_OR(0)
    return qint64(NvDevice_logFileSize(dev));
}

bool NdaDevice::isReadingFromFile() const
{
    NDA_DEVICE_OR(false)
    return NvDevice_isReadingFromFile(dev) != 0;
}

bool NdaDevice::isInStringOutputMode() const
{
    NDA_DEVICE_OR(false)
    if (NvDevice_isReadingFromFile(dev) || NvDevice_isMeasuring(dev))
        return false;
    uint16_t type = 0, period = 0;
    return NvDevice_stringOutputMode(dev, &type, &period) && type != 0;
}

bool NdaDevice::usesLegacyDeviceMode() const
{
    return isValid() && m_id.isLegacy();
}

NdaDeviceState::Type NdaDevice::ndaDeviceState() const
{
    QMutexLocker stateLock(&m_stateMutex);
    if (NdaDeviceState::isFileState(m_state))
        return m_state;
    if (isValid() && isReadingFromFile())
        return NdaDeviceState::FileMode;
    return m_state;
}

void NdaDevice::updateState(NdaDeviceState::Type newState, NdaDeviceState::Type)
{
    QMutexLocker stateLock(&m_stateMutex);
    // A file device never falls back to a live state.
    if (NdaDeviceState::isFileState(m_state) && !NdaDeviceState::isFileState(newState))
        return;
    m_state = newState;
}

void NdaDevice::setNdaDeviceState(NdaDeviceState::Type state)
{
    NvDevice* dev = handle();
    if (!dev)
        return;
    // As if the library had reported it, so that every observer of state changes sees it.
    onNdaDeviceStateChanged(dev, state, ndaDeviceState());
}

void NdaDevice::updateNdaDeviceState()
{
    NvDevice* dev = handle();
    if (!dev)
        return;
    onNdaDeviceStateChanged(dev, NdaDeviceState::fromNvDeviceState(NvDevice_deviceState(dev)),
                            ndaDeviceState());
}

void NdaDevice::markStartingMeasurement()
{
    if (!handle())
        return;
    // Decided and posted under the state lock that the library's news takes to update the
    // state, so the events arrive in the order the states were taken.
    QMutexLocker stateLock(&m_stateMutex);
    const NdaDeviceState::Type old = m_state;
    if (NdaDeviceState::isFileState(old) || NdaDeviceState::isMeasuring(old) ||
        old == NdaDeviceState::StartingMeasurement || old == NdaDeviceState::Destroyed)
        return;
    m_state = NdaDeviceState::StartingMeasurement;
    QCoreApplication::postEvent(this, new DeviceStateChangeEvent(m_id, m_state, old));
}

bool NdaDevice::isInConfigMode() const
{
    NDA_DEVICE_OR(false)
    return NvDevice_isInConfigMode(dev) != 0;
}

bool NdaDevice::isMeasuring() const
{
    return isValid() && NdaDeviceState::isMeasuring(ndaDeviceState());
}

bool NdaDevice::isRecording() const
{
    NDA_DEVICE_OR(false)
    return NvDevice_isRecording(dev) != 0;
}

NvConnectivityState NdaDevice::connectivityState() const
{
    NDA_DEVICE_OR(NCS_UNKNOWN)
    return NvDevice_connectivityState(dev);
}

int NdaDevice::lastKnownRssi() const
{
    NDA_DEVICE_OR(KvwInfo::RssiUnknown)
    return NvDevice_lastKnownRssi(dev);
}

bool NdaDevice::shouldProcessPacket() const
{
    return isValid() && !isReadingFromFile();
}

NdaLinkHealth NdaDevice::linkHealth() const
{
    NvDevice* dev = handle();
    const quint64 checksumErrors = dev ? NvDevice_checksumErrors(dev) : 0;
    if (!dev || !NvDevice_isMasterDevice(dev) || NvDevice_isReadingFromFile(dev))
        return m_link.health(checksumErrors);
    // Its trackers' packets are theirs, not its own: the master keeps up when they do.
    // Trackers share its port, and so its checksum errors.
    NdaLinkHealth health;
    health.trackers = 0;
    health.checksumErrors = checksumErrors;
    for (const NvDeviceId& id : childDeviceIds()) {
        const NdaDevice* tracker = m_control.getExistingDevice(id);
        if (tracker && tracker->isMeasuring())
            health.addTracker(tracker->m_link.health(checksumErrors));
    }
    return health;
}

void NdaDevice::onLinkPacket(const NvDataPacket&)
{
    m_link.packetArrived();
}

void NdaDevice::onLinkMissed(int count)
{
    m_link.packetsMissed(count);
}

// ---------------------------------------------------------------------------- Commands

bool NdaDevice::gotoConfig()
{
    NDA_DEVICE_OR(false)
    if (ndaDeviceState() == NdaDeviceState::Recording)
        NvDevice_stopRecording(dev);
    if (NvDevice_gotoConfig(dev))
        return true;
    emit m_control.error(m_id, NRV_COULD_NOT_GO_TO_CONFIGURATION);
    return false;
}

bool NdaDevice::gotoMeasurement()
{
    NDA_DEVICE_OR(false)
    if (NvDevice_gotoMeasurement(dev))
        return true;
    emit m_control.error(m_id, NRV_COULD_NOT_GO_TO_MEASUREMENT);
    return false;
}

bool NdaDevice::loadLogFile()
{
    NDA_DEVICE_OR(false)
    emit fileLoadingStarted(*this);
    if (NvDevice_loadLogFile(dev))
        return true;
    emit fileLoadingCompleted(*this, NRV_ERROR);
    return false;
}

bool NdaDevice::abortLoadFile()
{
    NDA_DEVICE_OR(false)
    return NvDevice_abortLoadFile(dev) != 0;
}

bool NdaDevice::reinitialize()
{
    NDA_DEVICE_OR(false)
    const bool ok = NvDevice_reinitialize(dev) != 0;
    m_link.setConfiguredRate(updateRate());
    return ok;
}

bool NdaDevice::reset()
{
    NDA_DEVICE_OR(false)
    return NvDevice_reset(dev) != 0;
}

bool NdaDevice::restoreFactoryDefaults()
{
    NDA_DEVICE_OR(false)
    const bool ok = NvDevice_restoreFactoryDefaults(dev) != 0;
    m_link.setConfiguredRate(updateRate());
    return ok;
}

bool NdaDevice::updateCachedDeviceInformation()
{
    NDA_DEVICE_OR(false)
    const bool ok = NvDevice_updateCachedDeviceInformation(dev) != 0;
    m_supportedUpdateRates = supportedUpdateRates(NDI_PACKET_COUNTER);
    m_link.setConfiguredRate(updateRate());
    return ok;
}

int NdaDevice::createConfigFile(const NvString& fileName)
{
    NDA_DEVICE_OR(NRV_INVALID_DEVICE)
    return NvDevice_createConfigFile(dev, &fileName);
}

int NdaDevice::applyConfigFile(const NvString& fileName)
{
    NDA_DEVICE_OR(NRV_INVALID_DEVICE)
    const int rc = NvDevice_applyConfigFile(dev, &fileName);
    m_link.setConfiguredRate(updateRate());
    return rc;
}

bool NdaDevice::sendCustomMessage(const NvMessage& msg, bool waitForResult, NvMessage& reply,
                                  int timeout)
{
    NDA_DEVICE_OR(false)
    return NvDevice_sendCustomMessage(dev, &msg, waitForResult, &reply,
                                      unsigned(std::max(timeout, 0))) != 0;
}

bool NdaDevice::sendRawMessage(const NvMessage& msg)
{
    NDA_DEVICE_OR(false)
    return NvDevice_sendRawMessage(dev, &msg) != 0;
}

bool NdaDevice::setOutputConfiguration(NvOutputConfigurationArray& config)
{
    NDA_DEVICE_OR(false)
    const bool ok = NvDevice_setOutputConfiguration(dev, &config) != 0;
    m_link.setConfiguredRate(updateRate());
    return ok;
}

bool NdaDevice::setSyncSettings(const NvSyncSettingArray& settings)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setSyncSettings(dev, &settings) != 0;
}

bool NdaDevice::setSerialBaudRate(NvBaudRate baudRate)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setSerialBaudRate(dev, baudRate) != 0;
}

bool NdaDevice::setErrorMode(NvErrorMode mode)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setErrorMode(dev, mode) != 0;
}

bool NdaDevice::setRs485TransmissionDelay(unsigned short delay)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setRs485TransmissionDelay(dev, delay) != 0;
}

bool NdaDevice::setLocationId(int id)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setLocationId(dev, id) != 0;
}

bool NdaDevice::setNoRotation(unsigned short seconds)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setNoRotation(dev, seconds) != 0;
}

bool NdaDevice::setPortConfiguration(const NvIntArray& config)
{
    NDA_DEVICE_OR(false)
    NvByteArray data;
    for (int word : config)
        nvbe::appendU32(data, uint32_t(word));
    NvMessage reply;
    const NvMessage request = NvMessage(uint8_t(NvDevice_busId(dev)), NvMid::SetPortConfig, data);
    return NvDevice_sendCustomMessage(dev, &request, 1, &reply, 0) &&
           reply.messageId() == NvMid::PortConfig;
}

bool NdaDevice::enableRadio(int channel)
{
    NDA_DEVICE_OR(false)
    return NvDevice_enableRadio(dev, channel) != 0;
}

bool NdaDevice::disableRadio()
{
    NDA_DEVICE_OR(false)
    return NvDevice_disableRadio(dev) != 0;
}

bool NdaDevice::setUpdateRate(int rate)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setUpdateRate(dev, rate) != 0;
}

bool NdaDevice::setDeviceAccepted(const NvDeviceId& tracker)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setDeviceAccepted(dev, &tracker) != 0;
}

bool NdaDevice::setDeviceRejected(const NvDeviceId& tracker)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setDeviceRejected(dev, &tracker) != 0;
}

bool NdaDevice::setNdaFilterProfile(int type)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setHostFilterProfile(dev, type) != 0;
}

bool NdaDevice::setNdaFilterProfile(const NvString& label)
{
    for (const NvFilterProfileInfo& p : availableNdaFilterProfiles())
        if (p.label == label)
            return setNdaFilterProfile(p.type);
    return false;
}

bool NdaDevice::setOnboardFilterProfile(int type)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setFilterProfile(dev, type) != 0;
}

bool NdaDevice::setOnboardFilterProfile(const NvString& label)
{
    for (const NvFilterProfileInfo& p : availableOnboardFilterProfiles())
        if (p.label == label)
            return setOnboardFilterProfile(p.type);
    return false;
}

bool NdaDevice::replaceFilterProfile(int oldType, int newType)
{
    if (ndaFilterProfile() != oldType)
        return false;
    return setNdaFilterProfile(newType);
}

bool NdaDevice::setTransportMode(bool on)
{
    NDA_DEVICE_OR(false)
    return NvDevice_setTransportMode(dev, on) != 0;
}

bool NdaDevice::createLogFile(const NvString& fileName)
{
    NDA_DEVICE_OR(false)
    return NvDevice_createLogFile(dev, &fileName) != 0;
}

bool NdaDevice::closeLogFile()
{
    NDA_DEVICE_OR(false)
    return NvDevice_closeLogFile(dev) != 0;
}

bool NdaDevice::startRecording()
{
    NDA_DEVICE_OR(false)
    return NvDevice_startRecording(dev) != 0;
}

bool NdaDevice::stopRecording()
{
    NDA_DEVICE_OR(false)
    return NvDevice_stopRecording(dev) != 0;
}

bool NdaDevice::abortFlushing()
{
    NDA_DEVICE_OR(false)
    const bool ok = NvDevice_abortFlushing(dev) != 0;
    if (ok)
        emit flushingAborted(*this);
    return ok;
}

bool NdaDevice::requestBatteryLevel()
{
    NDA_DEVICE_OR(false)
    return NvDevice_requestBatteryLevel(dev) != 0;
}

bool NdaDevice::requestGpsStatus()
{
    NDA_DEVICE_OR(false)
    if (!NvDevice_requestGnssStatus(dev))
        return false;
    NvGpsStatus status;
    NvDevice_gnssStatus(dev, &status);
    emit gpsStatusChanged(status);
    return true;
}

void NdaDevice::addCallbackHandler(NvCallbackPlainC* handler, bool chain)
{
    NvDevice* dev = handle();
    if (dev)
        NvDevice_addCallbackHandler(dev, handler, chain);
}

void NdaDevice::removeCallbackHandler(NvCallbackPlainC* handler)
{
    NvDevice* dev = handle();
    if (dev)
        NvDevice_removeCallbackHandler(dev, handler);
}

// ---------------------------------------------------------------------------- Queries

NvSyncSettingArray NdaDevice::supportedSyncSettings() const
{
    NDA_DEVICE_OR(NvSyncSettingArray())
    NvSyncSettingArray out;
    NvDevice_supportedSyncSettings(dev, &out);
    return out;
}

NvSyncSettingArray NdaDevice::syncSettings() const
{
    NDA_DEVICE_OR(NvSyncSettingArray())
    NvSyncSettingArray out;
    NvDevice_syncSettings(dev, &out);
    return out;
}

NvIntArray NdaDevice::supportedUpdateRates(NvDataIdentifier id) const
{
    NDA_DEVICE_OR(NvIntArray())
    NvIntArray out;
    NvDevice_supportedUpdateRates(dev, id, &out);
    return out;
}

int NdaDevice::updateRate() const
{
    NDA_DEVICE_OR(0)
    if (NvDevice_isMasterDevice(dev))
        return NvDevice_updateRate(dev);
    if (NvDevice* master = NvDevice_masterDevice(dev))
        return NvDevice_updateRate(master);
    int fastest = 0;
    for (const NvOutputConfiguration& c : outputConfiguration())
        if (!c.isEveryPacket())
            fastest = std::max(fastest, int(c.frequency));
    return fastest;
}

int NdaDevice::maximumUpdateRate() const
{
    NDA_DEVICE_OR(0)
    return NvDevice_maximumUpdateRate(dev);
}

int NdaDevice::maximumUpdateRate(NvDataIdentifier id) const
{
    const NvIntArray rates = supportedUpdateRates(id);
    return rates.empty() ? 0 : *std::max_element(rates.begin(), rates.end());
}

bool NdaDevice::hasDataEnabled(NvDataIdentifier id) const
{
    const NvOutputConfigurationArray config = outputConfiguration();
    return std::any_of(config.begin(), config.end(), [id](const NvOutputConfiguration& c) {
        return nvQuantity(NvDataIdentifier(c.dataIdentifier)) == nvQuantity(id) && c.frequency != 0;
    });
}

bool NdaDevice::hasProcessedDataEnabled(const NvDataIdentifier& id) const
{
    // Host processing adds nothing of its own yet: what arrives is what is configured.
    return hasDataEnabled(id);
}

NvOutputConfigurationArray NdaDevice::outputConfiguration() const
{
    NDA_DEVICE_OR(NvOutputConfigurationArray())
    NvOutputConfigurationArray out;
    NvDevice_outputConfiguration(dev, &out);
    return out;
}

NvIntArray NdaDevice::portConfiguration() const
{
    NDA_DEVICE_OR(NvIntArray())
    NvMessage reply;
    const NvMessage request(uint8_t(NvDevice_busId(dev)), NvMid::ReqPortConfig);
    NvIntArray out;
    if (NvDevice_sendCustomMessage(dev, &request, 1, &reply, 0) &&
        reply.messageId() == NvMid::PortConfig)
        for (size_t off = 0; off + 4 <= reply.dataSize(); off += 4)
            out.push_back(int(reply.readU32(off)));
    return out;
}

NvBaudRate NdaDevice::serialBaudRate() const
{
    NDA_DEVICE_OR(NBR_INVALID)
    return NvDevice_serialBaudRate(dev);
}

int NdaDevice::errorMode() const
{
    NDA_DEVICE_OR(-1)
    return NvDevice_errorMode(dev);
}

int NdaDevice::rs485TransmissionDelay() const
{
    NDA_DEVICE_OR(-1)
    return NvDevice_rs485TransmissionDelay(dev);
}

int NdaDevice::locationId() const
{
    NDA_DEVICE_OR(0)
    return NvDevice_locationId(dev);
}

int NdaDevice::radioChannel() const
{
    NDA_DEVICE_OR(0)
    return NvDevice_radioChannel(dev);
}

bool NdaDevice::isRadioEnabled() const
{
    NDA_DEVICE_OR(false)
    return NvDevice_isRadioEnabled(dev) != 0;
}

int NdaDevice::batteryLevel() const
{
    NDA_DEVICE_OR(-1)
    return NvDevice_batteryLevel(dev);
}

bool NdaDevice::isInTransportMode() const
{
    NDA_DEVICE_OR(false)
    return NvDevice_isInTransportMode(dev) != 0;
}

NvFilterProfileArray NdaDevice::availableOnboardFilterProfiles() const
{
    NDA_DEVICE_OR(NvFilterProfileArray())
    NvFilterProfileArray out;
    if (!NvDevice_isReadingFromFile(dev))
        NvDevice_availableFilterProfiles(dev, &out);
    return out;
}

NvFilterProfileArray NdaDevice::availableNdaFilterProfiles() const
{
    if (!isValid())
        return {};
    NvFilterProfileArray out;
    NvControl_filterProfiles(m_control.libraryControl(), &out);
    return out;
}

int NdaDevice::ndaFilterProfile() const
{
    NDA_DEVICE_OR(-1)
    return NvDevice_hostFilterProfile(dev);
}

int NdaDevice::onboardFilterProfile() const
{
    NDA_DEVICE_OR(-1)
    return NvDevice_isReadingFromFile(dev) ? -1 : NvDevice_filterProfile(dev);
}

qint64 NdaDevice::packetCount() const
{
    NDA_DEVICE_OR(0)
    return NvDevice_packetCount(dev);
}

NvDataPacket NdaDevice::dataPacketByIndex(qint64 index) const
{
    NDA_DEVICE_OR(NvDataPacket())
    NvDataPacket packet;
    NvDevice_dataPacketByIndex(dev, index, &packet);
    return packet;
}

quint64 NdaDevice::hostTimeByIndex(qint64 index) const
{
    NDA_DEVICE_OR(0)
    uint64_t utcNs = 0;
    NvDevice_hostTimeByIndex(dev, index, &utcNs);
    return utcNs;
}

void NdaDevice::deliverPlaybackPacket(const NvDataPacket& packet)
{
    if (!packet.isEmpty())
        emit postProcessed(packet);
}

int NdaDevice::syncRole() const
{
    // Followers of a synchronisation signal before the devices that give it; a master
    // gives its trackers their timing, so it comes last.
    NDA_DEVICE_OR(0)
    if (NvDevice_isMasterDevice(dev))
        return 3;
    bool input = false, output = false;
    for (const NvSyncSetting& s : syncSettings()) {
        if (s.function == NSF_NONE)
            continue;
        (s.isInput() ? input : output) = true;
    }
    if (input)
        return 0;
    return output ? 2 : 1;
}

// ---------------------------------------------------------------------------- Observers

void NdaDevice::addObserver(NdaDeviceObserverBase* observer)
{
    m_observers.insert(observer);
}

void NdaDevice::removeObserver(NdaDeviceObserverBase* observer)
{
    m_observers.remove(observer);
}

void NdaDevice::preDeleteTrigger()
{
    NvDevice* dev = handle();
    if (dev && m_handlerAdded) {
        NvDevice_removeCallbackHandler(dev, plainC());
        m_handlerAdded = false;
    }
    const QSet<NdaDeviceObserverBase*> observers = m_observers;
    m_observers.clear();
    for (NdaDeviceObserverBase* observer : observers)
        observer->notifyDeviceDestroyed();
    emit aboutToClose(*this);
}

bool NdaDevice::recordingStarted(NdaDeviceState::Type newState, NdaDeviceState::Type oldState)
{
    if (m_id.isAerloX() && newState == NdaDeviceState::Recording &&
        oldState != NdaDeviceState::StartingRecording) {
        // A recording must pass through Starting Recording on these masters.
        if (NvDevice* dev = handle())
            NvDevice_stopRecording(dev);
        return true;
    }
    return newState == NdaDeviceState::Recording;
}

// ---------------------------------------------------------------------------- Progress

void NdaDevice::onUpdateProgress(int current, int total, const NvDeviceId&, const QString&)
{
    if (isReadingFromFile())
        emit fileLoadingProgressChanged(*this, current, total);
    else
        emit progressChanged(*this, current, total);
}

void NdaDevice::onProgressCompleted(const NvDeviceId&, const QString&, int result)
{
    if (isReadingFromFile())
        emit fileLoadingCompleted(*this, result);
    else
        emit progressCompleted(*this, result);
}

void NdaDevice::onUpdateFlushingProgress(int current, int total, const NvDeviceId&, const QString&)
{
    emit flushingProgressChanged(*this, current, total);
}

void NdaDevice::onFlushingProgressCompleted(const NvDeviceId&, const QString&, int result)
{
    emit flushingCompleted(*this, result);
}

// ---------------------------------------------------------------------------- Pauser

NdaDeviceMeasurementPauser::NdaDeviceMeasurementPauser(NdaDevice& device, bool pauseMaster)
    : m_control(device.control())
{
    NdaDevice* master = &device;
    if (pauseMaster && !device.masterId().isEmpty())
        master = device.masterDevice();
    if (master && master->isValid() && master->isMeasuring() && !master->isReadingFromFile() &&
        master->gotoConfig())
        m_paused = master->deviceId();
    m_wasInConfigMode = device.isInConfigMode();
}

NdaDeviceMeasurementPauser::~NdaDeviceMeasurementPauser()
{
    // A failure is reported (305) by the go-to-measurement itself; a device that went away
    // meanwhile has nothing to resume.
    if (!m_paused.isEmpty())
        m_control.gotoMeasurement(m_paused);
}
