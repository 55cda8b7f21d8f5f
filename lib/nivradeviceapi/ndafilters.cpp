// Host-side filter profiles: the profiles the library can run on the host for devices
// that deliver raw inertial data, a built-in set that an alternative profile file
// replaces. File: "format=nvf 1", then one "profile=TYPE VERSION LABEL" line per profile
// ('#' lines and blank lines ignored).

#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <fstream>
#include <sstream>

namespace {

NvFilterProfileArray builtInProfiles()
{
    return {{1, 1, "general"}, {2, 1, "high_mag_dep"}, {3, 1, "dynamic"}, {4, 1, "low_mag_dep"}};
}

NvResultValue parseProfiles(std::istream& in, NvFilterProfileArray& out)
{
    std::string line;
    bool header = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        if (!header) {
            if (line.rfind("format=nvf ", 0) != 0)
                return NRV_CONFIG_FILE_INVALID;
            if (line != "format=nvf 1")
                return NRV_FILE_VERSION_UNSUPPORTED;
            header = true;
            continue;
        }
        if (line.rfind("profile=", 0) != 0)
            return NRV_CONFIG_FILE_INVALID;
        std::istringstream fields(line.substr(8));
        NvFilterProfileInfo p;
        if (!(fields >> p.type >> p.version) || p.type <= 0 || p.type > 0xFFFF || p.version < 0)
            return NRV_CONFIG_FILE_INVALID;
        std::getline(fields >> std::ws, p.label);
        if (p.label.empty())
            return NRV_CONFIG_FILE_INVALID;
        for (const NvFilterProfileInfo& q : out)
            if (q.type == p.type)
                return NRV_CONFIG_FILE_INVALID;
        out.push_back(p);
    }
    return header && !out.empty() ? NRV_OK : NRV_CONFIG_FILE_INVALID;
}

} // namespace

extern "C" {

int NvControl_loadFilterProfiles(NvControl* control, const NvString* fileName)
{
    if (!control || !fileName || fileName->empty())
        return nda::fail(NRV_INVALID_ARGUMENT);
    std::ifstream file(*fileName, std::ios::binary);
    if (!file)
        return nda::fail(NRV_FILE_NOT_FOUND);
    NvFilterProfileArray loaded;
    const NvResultValue rc = parseProfiles(file, loaded);
    if (rc != NRV_OK)
        return nda::fail(rc); // the profiles in use stay
    std::lock_guard<std::mutex> lock(control->filterMutex);
    control->hostProfiles = loaded;
    nda::setResult(NRV_OK);
    return 1;
}

void NvControl_filterProfiles(NvControl* control, NvFilterProfileArray* out)
{
    if (!out)
        return;
    out->clear();
    if (!control)
        return;
    std::lock_guard<std::mutex> lock(control->filterMutex);
    *out = control->hostProfiles.empty() ? builtInProfiles() : control->hostProfiles;
}

int NvDevice_setHostFilterProfile(NvDevice* device, int type)
{
    if (!device || device->isBroadcast)
        return nda::fail(NRV_INVALID_DEVICE);
    NvFilterProfileArray profiles;
    NvControl_filterProfiles(device->control, &profiles);
    for (const NvFilterProfileInfo& p : profiles)
        if (p.type == type) {
            std::lock_guard<std::mutex> lock(device->mutex);
            device->hostProfile = type;
            nda::setResult(NRV_OK);
            return 1;
        }
    return nda::fail(NRV_INVALID_PARAMETER);
}

int NvDevice_hostFilterProfile(NvDevice* device)
{
    if (!device || device->isBroadcast)
        return -1;
    std::lock_guard<std::mutex> lock(device->mutex);
    return device->hostProfile;
}

} // extern "C"
