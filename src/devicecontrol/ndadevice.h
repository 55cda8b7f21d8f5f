#pragma once
// The application's wrapper of one library device: a live device on a port, a tracker
// behind a master, or a recording opened as a device. Made and counted by NdaControl only.

#include "ndacallback.h"
#include "ndalinkhealth.h"

#include <QMutex>
#include <QSet>

class NdaControl;
class NdaDeviceObserverBase;

class NdaDevice : public NdaCallback
{
    Q_OBJECT

public:
    // `device` may be null: the wrapper is then invalid. Holds one library reference.
    NdaDevice(NdaControl& control, NvDevice* device);
    ~NdaDevice() override;

    // ---- Identity and state
    bool isValid() const;
    void setValid(bool valid);
    NvDevice* libraryDevice() const { return m_device; }
    NdaControl& control() const { return m_control; }
    NvDeviceId deviceId() const;
    NvDeviceId masterId() const;
    NdaDevice* masterDevice() const; // the existing wrapper of its master, or null
    NvDeviceIdArray childDeviceIds() const;
    NvDeviceId getFirstChildDeviceId() const;
    int busId() const;
    QString productCode() const;
    QString shortProductCode() const;
    NvVersion firmwareVersion() const;
    NvVersion hardwareVersion() const;
    QString portName() const;
    QString fileName() const;
    qint64 logFileSize() const;
    bool isReadingFromFile() const;
    bool isInStringOutputMode() const;
    bool usesLegacyDeviceMode() const;
    NdaDeviceState::Type ndaDeviceState() const;
    void setNdaDeviceState(NdaDeviceState::Type state);
    void updateNdaDeviceState();
    // "Starting Measurement", unless the library (which reports from its own threads) has
    // moved the device on already.
    void markStartingMeasurement();
    bool isInConfigMode() const;
    bool isMeasuring() const;
    bool isRecording() const;
    NvConnectivityState connectivityState() const;
    int lastKnownRssi() const;
    bool shouldProcessPacket() const override;
    // The link as the application sees it (GUI thread).
    NdaLinkHealth linkHealth() const;

    // ---- Commands (false when invalid or refused; lastResult of the control says why)
    bool gotoConfig();
    bool gotoMeasurement();
    bool loadLogFile();
    bool abortLoadFile();
    bool reinitialize();
    bool reset();
    bool restoreFactoryDefaults();
    bool updateCachedDeviceInformation();
    int createConfigFile(const NvString& fileName); // result value, 0 on success
    int applyConfigFile(const NvString& fileName);  // result value, 0 on success
    bool sendCustomMessage(const NvMessage& msg, bool waitForResult, NvMessage& reply, int timeout);
    bool sendRawMessage(const NvMessage& msg);
    bool setOutputConfiguration(NvOutputConfigurationArray& config);
    bool setSyncSettings(const NvSyncSettingArray& settings);
    bool setSerialBaudRate(NvBaudRate baudRate);
    bool setErrorMode(NvErrorMode mode);
    bool setRs485TransmissionDelay(unsigned short delay);
    bool setLocationId(int id);
    bool setNoRotation(unsigned short seconds);
    bool setPortConfiguration(const NvIntArray& config);
    bool enableRadio(int channel);
    bool disableRadio();
    bool setUpdateRate(int rate);
    bool setDeviceAccepted(const NvDeviceId& tracker);
    bool setDeviceRejected(const NvDeviceId& tracker);
    bool setNdaFilterProfile(int type);
    bool setNdaFilterProfile(const NvString& label);
    bool setOnboardFilterProfile(int type);
    bool setOnboardFilterProfile(const NvString& label);
    bool replaceFilterProfile(int oldType, int newType);
    bool setTransportMode(bool on);
    bool createLogFile(const NvString& fileName);
    bool closeLogFile();
    bool startRecording();
    bool stopRecording();
    bool abortFlushing();
    bool requestBatteryLevel();
    bool requestGpsStatus();
    void addCallbackHandler(NvCallbackPlainC* handler, bool chain);
    void removeCallbackHandler(NvCallbackPlainC* handler);

    // ---- Queries (neutral values when invalid)
    NvSyncSettingArray supportedSyncSettings() const;
    NvSyncSettingArray syncSettings() const;
    NvIntArray supportedUpdateRates(NvDataIdentifier id) const;
    int updateRate() const; // the fastest configured item, or a master's rate
    int maximumUpdateRate() const;
    int maximumUpdateRate(NvDataIdentifier id) const;
    bool hasDataEnabled(NvDataIdentifier id) const;
    bool hasProcessedDataEnabled(const NvDataIdentifier& id) const;
    NvOutputConfigurationArray outputConfiguration() const;
    NvIntArray portConfiguration() const;
    NvBaudRate serialBaudRate() const;
    int errorMode() const;
    int rs485TransmissionDelay() const;
    int locationId() const;
    int radioChannel() const;
    bool isRadioEnabled() const;
    int batteryLevel() const;
    bool isInTransportMode() const;
    NvFilterProfileArray availableOnboardFilterProfiles() const;
    NvFilterProfileArray availableNdaFilterProfiles() const;
    int ndaFilterProfile() const;
    int onboardFilterProfile() const;
    // Packets of a loaded file device.
    qint64 packetCount() const;
    NvDataPacket dataPacketByIndex(qint64 index) const;
    // Playback hands a file's packets to the views as postProcessed; outside the bridge's
    // delivery currentPacketArrival() is 0, which tells the views the packet is recorded.
    void deliverPlaybackPacket(const NvDataPacket& packet);
    // Host UTC time (ns since 1970) the packet was read at; 0 when the file does not say.
    quint64 hostTimeByIndex(qint64 index) const;
    // Where the device stands in synchronisation: lower follows, higher gives the signal.
    int syncRole() const;

    // ---- Observers (GUI thread)
    void addObserver(NdaDeviceObserverBase* observer);
    void removeObserver(NdaDeviceObserverBase* observer);
    // NdaControl calls this before it deletes the wrapper.
    void preDeleteTrigger();

    // True for a newer-family master that entered Recording without Starting Recording:
    // its recording is stopped at once. Otherwise whether the new state is Recording.
    bool recordingStarted(NdaDeviceState::Type newState, NdaDeviceState::Type oldState);

signals:
    void closed(const NvDeviceId& id);
    void aboutToClose(NdaDevice& device);
    void fileLoadingStarted(NdaDevice& device);
    void fileLoadingProgressChanged(NdaDevice& device, int current, int total);
    void fileLoadingCompleted(NdaDevice& device, int result);
    void progressChanged(NdaDevice& device, int current, int total);
    void progressCompleted(NdaDevice& device, int result);
    void flushingProgressChanged(NdaDevice& device, int current, int total);
    void flushingCompleted(NdaDevice& device, int result);
    void flushingAborted(NdaDevice& device);

protected:
    void updateState(NdaDeviceState::Type newState, NdaDeviceState::Type oldState) override;

protected slots:
    void onUpdateProgress(int current, int total, const NvDeviceId& id,
                          const QString& identifier) override;
    void onProgressCompleted(const NvDeviceId& id, const QString& identifier, int result) override;
    void onUpdateFlushingProgress(int current, int total, const NvDeviceId& id,
                                  const QString& identifier) override;
    void onFlushingProgressCompleted(const NvDeviceId& id, const QString& identifier,
                                     int result) override;

private:
    friend class NdaControl;
    // The library handle when the wrapper is valid, else null (takes the device mutex).
    NvDevice* handle() const;
    void onLinkPacket(const NvDataPacket& packet); // GUI thread
    void onLinkMissed(int count);                  // GUI thread

    bool m_valid = false;
    NdaControl& m_control;
    NvDevice* m_device = nullptr;
    NvDeviceId m_id;
    QString m_shortProductCode;
    NdaDeviceState::Type m_state = NdaDeviceState::Invalid;
    NvIntArray m_supportedUpdateRates;
    mutable QMutex m_deviceMutex; // the handle and the valid flag
    mutable QMutex m_stateMutex;  // the application state; taken before the device mutex
    QSet<NdaDeviceObserverBase*> m_observers;
    NdaLinkHealthMeter m_link;
    bool m_handlerAdded = false;
};

// Pauses the master of one device (the device itself if it is a master) for its lifetime.
class NdaDeviceMeasurementPauser
{
public:
    explicit NdaDeviceMeasurementPauser(NdaDevice& device, bool pauseMaster = true);
    ~NdaDeviceMeasurementPauser();
    NdaDeviceMeasurementPauser(const NdaDeviceMeasurementPauser&) = delete;
    NdaDeviceMeasurementPauser& operator=(const NdaDeviceMeasurementPauser&) = delete;
    bool hasPaused() const { return !m_paused.isEmpty(); }
    bool wasInConfigMode() const { return m_wasInConfigMode; }

private:
    // By identifier: the device may go away (unplugged) while paused, its wrapper with it.
    NdaControl& m_control;
    NvDeviceId m_paused;
    bool m_wasInConfigMode = false;
};
