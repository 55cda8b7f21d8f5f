#include "ndadeviceselection.h"

#include "ndacontrol.h"
#include "ndadevice.h"

#include <algorithm>

NdaDeviceSelection::NdaDeviceSelection(NdaControl& control) : m_control(&control) {}

NdaDeviceSelection::NdaDeviceSelection(const NdaDeviceSelection& other) : m_control(other.m_control)
{
    for (const auto& entry : other.m_devices)
        addToSelection(entry.first);
}

NdaDeviceSelection& NdaDeviceSelection::operator=(const NdaDeviceSelection& other)
{
    if (this == &other)
        return *this;
    // Request before releasing, so devices in both selections never drop to zero.
    NdaDeviceSelection copy(other);
    releaseAll();
    m_control = copy.m_control;
    m_devices.swap(copy.m_devices);
    return *this;
}

NdaDeviceSelection::~NdaDeviceSelection()
{
    releaseAll();
}

void NdaDeviceSelection::addToSelection(const NvDeviceId& id)
{
    if (contains(id))
        return;
    NdaDevice& device = m_control->requestDevice(id);
    if (!device.isValid()) {
        // A wrapper that went invalid is still counted; the invalid device is not.
        m_control->releaseDevice(id);
        return;
    }
    m_devices.emplace(id, &device);
}

void NdaDeviceSelection::removeFromSelection(const NvDeviceId& id)
{
    if (m_devices.erase(id) != 0)
        m_control->releaseDevice(id);
}

bool NdaDeviceSelection::contains(const NvDeviceId& id) const
{
    return m_devices.count(id) != 0;
}

std::vector<NdaDevice*> NdaDeviceSelection::getDevices() const
{
    std::vector<NdaDevice*> devices;
    devices.reserve(m_devices.size());
    for (const auto& entry : m_devices)
        devices.push_back(entry.second);
    // The map is in identifier order, so a stable sort leaves ties by identifier.
    std::stable_sort(devices.begin(), devices.end(), &NdaDeviceSelection::leftIsSlaverThanRight);
    return devices;
}

bool NdaDeviceSelection::leftIsSlaverThanRight(const NdaDevice* left, const NdaDevice* right)
{
    return left->syncRole() < right->syncRole();
}

void NdaDeviceSelection::releaseAll()
{
    std::map<NvDeviceId, NdaDevice*> devices;
    devices.swap(m_devices);
    for (const auto& entry : devices)
        m_control->releaseDevice(entry.first);
}
