#pragma once
// The application's one owner of the device library's control: ports, files, the scan
// thread, and reference-counted device wrappers by identifier. GUI thread only (the scan
// thread opens ports through it while the GUI waits for the scan's signals).

#include "ndacallback.h"
#include "ndadevice.h"
#include "ndadeviceselection.h"

#include <QString>

#include <map>
#include <memory>
#include <set>
#include <utility>

class NdaScanForHardwareThread;

class NdaControl : public NdaCallback
{
    Q_OBJECT

public:
    explicit NdaControl(QObject* parent = nullptr);
    ~NdaControl() override;

    NvControl* libraryControl() const { return m_control; }

    // ---- Device lifetime
    NdaDevice& requestDevice(const NvDeviceId& id);
    NdaDevice& requestDevice(const NdaDevice& device);
    const NdaDevice& requestConstDevice(const NvDeviceId& id);
    const NdaDevice& requestConstDevice(const NdaDevice& device);
    void releaseDevice(const NvDeviceId& id);
    void releaseDevice(const NdaDevice& device);
    NdaDevice& requestFileDevice(const QString& path);
    const NdaDevice& requestConstFileDevice(const QString& path);
    NdaDeviceSelection requestDeviceSelection(const std::set<NvDeviceId>& ids);
    NdaDeviceSelection requestDeviceSelection(const NvDeviceIdArray& ids);
    NdaDevice* getExistingDevice(const NvDeviceId& id) const;
    // The library's device, referenced while the answer lives; any thread may ask (a
    // worker that must not touch wrappers, which belong to the GUI thread).
    NvDeviceRef libraryDeviceRef(const NvDeviceId& id) const { return lib(id); }
    const NdaDevice* getExistingConstDevice(const NvDeviceId& id) const;
    bool isValidExistingDevice(const NvDeviceId& id) const;
    NdaDevice& getInvalidDevice() const { return *m_invalid; }
    // Deletes the wrappers of the device and its children, whatever their counts.
    void deleteDeviceAndChildren(const NvDeviceId& id);
    // The wrapper's reference count (0 when not in the table).
    unsigned referenceCount(const NvDeviceId& id) const;

    // ---- Ports and files
    bool openPort(const NvString& name, NvBaudRate baudRate, unsigned timeout);
    bool openPort(NvPortInfo& info, unsigned timeout);
    bool closePort(const NvString& name);
    bool closePort(const NvDeviceId& id);
    bool openImarPort_internal(const NvString& name, NvBaudRate baudRate, int channel,
                               unsigned timeout);
    void close();
    bool isClosing() const { return m_closing; }
    void scanForHardware(const QString& port, int baudRate);
    void abortScanForHardware();
    bool isScanning() const { return m_scanThread != nullptr; }
    bool startRestoreCommunication(const QString& port);
    void stopRestoreCommunication();
    bool loadAltFilterProfiles(const QString& path);
    void setOptionEnabled(NvOption option, bool on);
    NvResultValue lastResult() const;
    QString lastResultText() const;
    static QString version();

    // ---- Queries by identifier (neutral values when the device is not there)
    NvDeviceIdArray kvDeviceIds() const;
    NvDeviceIdArray deviceIds() const;
    NvDeviceIdArray mainDeviceIds() const;
    NvDeviceIdArray wirelessMasterIds() const;
    NvDeviceIdArray childDeviceIds(const NvDeviceId& id) const;
    int deviceCount() const;
    bool isInTransportMode(const NvDeviceId& id) const;
    bool isInStringOutputMode(const NvDeviceId& id) const;
    NvOutputConfigurationArray outputConfiguration(const NvDeviceId& id) const;
    bool isDeviceDocked(const NvDeviceId& id) const;
    NvDeviceId dockDeviceId(const NvDeviceId& id) const;
    bool isDeviceWireless(const NvDeviceId& id) const;
    bool isReadingFromFile() const; // any device
    bool isReadingFromFile(const NvDeviceId& id) const;
    QString productCode(const NvDeviceId& id) const;
    NvDeviceId getMasterId(const NvDeviceId& id) const;
    bool deviceUsesOnboardFiltering(const NvDeviceId& id) const;
    bool deviceUsesUsb(const NvDeviceId& id) const;
    int getUpdateRate(const NvDeviceId& id) const;
    int getLocationId(const NvDeviceId& id) const;
    NvBaudRate getSerialBaudRate(const NvDeviceId& id) const;
    QString getPortName(const NvDeviceId& id) const;
    NvFilterProfileArray availableOnboardFilterProfiles(const NvDeviceId& id) const;
    NvFilterProfileArray availableNdaFilterProfiles(const NvDeviceId& id) const;
    NvSyncSettingArray supportedSyncSettings(const NvDeviceId& id) const;
    NvIntArray supportedUpdateRates(const NvDeviceId& id, NvDataIdentifier dataId) const;
    NvSyncSettingArray syncSettings(const NvDeviceId& id) const;
    int getNdaFilterProfile(const NvDeviceId& id) const;
    int getOnBoardFilterProfile(const NvDeviceId& id) const;
    bool isMeasuring(const NvDeviceId& id) const;
    bool isRecording(const NvDeviceId& id) const;
    bool isMasterDevice(const NvDeviceId& id) const;
    int getBatteryLevel(const NvDeviceId& id) const;
    NvConnectivityState connectivityState(const NvDeviceId& id) const;
    int lastKnownRssi(const NvDeviceId& id) const;
    // 1..32 behind a master (its slot + 1), 255 on a port, 0 when unknown.
    int busId(const NvDeviceId& id) const;
    bool isRadioEnabled(const NvDeviceId& id) const;
    int radioChannel(const NvDeviceId& id) const;
    int getScenario(const NvDeviceId& id) const; // the on-board filter profile
    NdaLinkHealth linkHealth(const NvDeviceId& id) const;

    // ---- Commands by identifier (the library's success)
    bool setInTransportMode(const NvDeviceId& id, bool on = true);
    bool setLocationId(const NvDeviceId& id, int locationId);
    bool setSerialBaudRate(const NvDeviceId& id, NvBaudRate baudRate);
    bool setNdaFilterProfile(const NvDeviceId& id, int type);
    bool setOnboardFilterProfile(const NvDeviceId& id, int type);
    bool gotoConfig(const NvDeviceId& id);
    bool gotoConfigForAll(const NvDeviceIdArray& ids);
    bool gotoMeasurement(const NvDeviceId& id);
    bool gotoMeasurementForAll(const NvDeviceIdArray& ids);
    bool restoreFactoryDefaults(const NvDeviceId& id);
    bool updateCachedDeviceInformation(const NvDeviceId& id);
    bool requestBatteryLevel(const NvDeviceId& id);
    bool requestGpsStatus(const NvDeviceId& id);
    bool setSyncSettings(const NvDeviceId& id, const NvSyncSettingArray& settings);
    bool enableRadio(const NvDeviceId& id, int channel);
    bool disableRadio(const NvDeviceId& id);
    bool disableRadioForAll(const NvDeviceIdArray& ids);
    bool setDeviceAccepted(const NvDeviceId& master, const NvDeviceId& child);
    bool setDeviceRejected(const NvDeviceId& master, const NvDeviceId& child);
    bool switchOff(const NvDeviceId& id);
    bool switchOffAll();
    bool switchOffAllKvw();
    bool switchOffAllAerlo();

    // ---- State helpers (new state first)
    static bool measurementStarted(NdaDeviceState::Type newState, NdaDeviceState::Type oldState);
    static bool recordingStopped(NdaDeviceState::Type newState, NdaDeviceState::Type oldState);
    static bool waitingForRecordingStart(NdaDeviceState::Type newState,
                                         NdaDeviceState::Type oldState);
    static bool flushingStarted(NdaDeviceState::Type newState, NdaDeviceState::Type oldState);
    static bool flushingStopped(NdaDeviceState::Type newState, NdaDeviceState::Type oldState);
    static bool isMeasuring(NdaDeviceState::Type state);

    // The options applied after a scan and after opening a file (library options 1, 2).
    void setOptionFlags(bool first, bool second);

signals:
    void aboutToClose();
    void closed();
    void scanForHardwareStarted();
    void scanForHardwareCompleted();
    void scanForHardwareAborted();
    void scanForHardwareScanningPorts();
    void scanForHardwareProgressChanged(int progress);
    void scanForHardwareOpeningPort(const QString& port, int baudRate);
    void scanLogEvent(QString line);
    // A scan heard a device of another maker on `port` (allowNonNivraDevices); not opened.
    void scanForHardwareForeignDevice(const QString& port, const QString& description);
    void aboutToCloseDevice(const NvDeviceId& id);
    void deviceDestroyedByNda(const NvDeviceId& id);

public slots:
    void onUpdateProgress(int current, int total, const NvDeviceId& id,
                          const QString& identifier) override;
    void onProgressCompleted(const NvDeviceId& id, const QString& identifier, int result) override;
    void onUpdateFlushingProgress(int current, int total, const NvDeviceId& id,
                                  const QString& identifier) override;
    void onFlushingProgressCompleted(const NvDeviceId& id, const QString& identifier,
                                     int result) override;

private slots:
    void handleScanForHardwareFinished();

private:
    class DestroyedCallback;
    void handleDeviceDestroyed(const NvDeviceId& id); // GUI thread (posted)
    void deleteEntry(const NvDeviceId& id);
    void applyOptionFlags();
    NvDeviceRef lib(const NvDeviceId& id) const;

    NvControl* m_control = nullptr;
    bool m_closing = false;
    std::map<NvDeviceId, std::pair<NdaDevice*, unsigned>> m_devices;
    NdaScanForHardwareThread* m_scanThread = nullptr;
    NdaDevice* m_invalid = nullptr;
    bool m_optionFirst = true;
    bool m_optionSecond = true;
    QSharedPointer<NdaDeviceDestroyedCallback> m_destroyedCallback;
};

// Requests a device for the scope of the object.
class NdaDeviceRequester
{
public:
    NdaDeviceRequester(NdaControl& control, const NvDeviceId& id);
    NdaDeviceRequester(NdaControl& control, const NdaDevice& device);
    ~NdaDeviceRequester();
    NdaDeviceRequester(const NdaDeviceRequester&) = delete;
    NdaDeviceRequester& operator=(const NdaDeviceRequester&) = delete;
    NdaDevice& device() const { return m_device; }
    bool isValid() const { return m_device.isValid(); }

private:
    NdaControl& m_control;
    NdaDevice& m_device;
};

// Takes measuring devices to configuration for its lifetime (all main devices, or one).
class NdaMeasurementPauser
{
public:
    explicit NdaMeasurementPauser(NdaControl& control);
    NdaMeasurementPauser(NdaControl& control, const NvDeviceId& id);
    ~NdaMeasurementPauser();
    NdaMeasurementPauser(const NdaMeasurementPauser&) = delete;
    NdaMeasurementPauser& operator=(const NdaMeasurementPauser&) = delete;
    bool isPaused() const { return m_paused; }
    const NvDeviceIdArray& pausedDevices() const { return m_ids; }

private:
    NdaControl& m_control;
    NvDeviceIdArray m_ids;
    bool m_paused = false;
};
