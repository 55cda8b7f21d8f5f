#pragma once
// A set of requested devices, listed in ascending synchronisation role: devices that follow
// a synchronisation signal before the devices that give it.

#include "ndametatypes.h"

#include <map>
#include <vector>

class NdaControl;
class NdaDevice;

class NdaDeviceSelection
{
public:
    explicit NdaDeviceSelection(NdaControl& control);
    NdaDeviceSelection(const NdaDeviceSelection& other);
    NdaDeviceSelection& operator=(const NdaDeviceSelection& other);
    ~NdaDeviceSelection();

    // Requests the device (once per identifier); invalid identifiers are not added.
    void addToSelection(const NvDeviceId& id);
    void removeFromSelection(const NvDeviceId& id);
    bool contains(const NvDeviceId& id) const;
    size_t size() const { return m_devices.size(); }
    bool isEmpty() const { return m_devices.empty(); }
    // Sorted by ascending syncRole, ties by identifier.
    std::vector<NdaDevice*> getDevices() const;
    NdaControl& control() const { return *m_control; }

    static bool leftIsSlaverThanRight(const NdaDevice* left, const NdaDevice* right);

private:
    void releaseAll();
    NdaControl* m_control;
    std::map<NvDeviceId, NdaDevice*> m_devices;
};
