// Finds devices on the system's ports: the serial ports the system lists (libserialport,
// with USB ids), the emulator's announcement file and NV_EXTRA_PORTS (colon-separated).
#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

#include <cstdlib>
#include <fstream>
#include <libserialport.h>
#include <unistd.h>

namespace {

std::mutex g_logMutex;
NvScanLogCallback g_logCallback = nullptr; // guarded by g_logMutex

void scanLog(const std::string& line)
{
    nda::log(NDA_LOG_DEBUG, line.c_str());
    std::lock_guard<std::mutex> lock(g_logMutex);
    if (g_logCallback)
        g_logCallback(&line);
}

std::string announcementFile()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime)
        return std::string(runtime) + "/kvsim/ports";
    return "/tmp/kvsim-" + std::to_string(getuid()) + "/ports";
}

void addPort(NvPortInfoArray& ports, const std::string& name, bool emulated)
{
    if (name.empty())
        return;
    for (NvPortInfo& p : ports)
        if (p.portName == name) {
            p.isEmulated = p.isEmulated || emulated;
            return;
        }
    NvPortInfo info;
    info.portName = name;
    info.isEmulated = emulated;
    info.description = emulated ? "kvsim emulated device" : "extra port";
    ports.push_back(info);
}

void systemPorts(NvPortInfoArray& ports)
{
    sp_port** list = nullptr;
    if (sp_list_ports(&list) != SP_OK)
        return;
    for (sp_port** p = list; *p; ++p) {
        const char* name = sp_get_port_name(*p);
        if (!name || !*name)
            continue;
        NvPortInfo info;
        info.portName = name;
        if (const char* description = sp_get_port_description(*p))
            info.description = description;
        int vid = 0, pid = 0;
        if (sp_get_port_transport(*p) == SP_TRANSPORT_USB &&
            sp_get_port_usb_vid_pid(*p, &vid, &pid) == SP_OK) {
            info.vendorId = uint16_t(vid);
            info.productId = uint16_t(pid);
        }
        ports.push_back(info);
    }
    sp_free_port_list(list);
}

NvPortInfoArray candidatePorts()
{
    NvPortInfoArray ports;
    const char* system = std::getenv("NV_SCAN_SYSTEM_PORTS");
    if (!system || std::string(system) != "0")
        systemPorts(ports);
    std::ifstream file(announcementFile());
    std::string line;
    while (std::getline(file, line))
        addPort(ports, line, true);
    if (const char* extra = std::getenv("NV_EXTRA_PORTS")) {
        std::string list = extra;
        size_t start = 0;
        while (start <= list.size()) {
            const size_t end = std::min(list.find(':', start), list.size());
            addPort(ports, list.substr(start, end - start), false);
            start = end + 1;
        }
    }
    return ports;
}

std::string rateText(NvBaudRate baudRate)
{
    return baudRate == NBR_DETECT ? std::string("any rate")
                                  : std::to_string(nvBaudRateToRate(baudRate)) + " bd";
}

} // namespace

extern "C" {

void NvScanner_systemPorts(NvPortInfoArray* out)
{
    if (!out)
        return;
    out->clear();
    systemPorts(*out);
    nda::setResult(NRV_OK);
}

void NvScanner_setScanLogCallback(NvScanLogCallback callback)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_logCallback = callback;
}

} // extern "C"

namespace {

// Listens for a device of another maker that talks without being asked (NMEA receivers,
// text consoles). Marks `info` foreign when one is heard.
bool probeForeign(NvPortInfo& info, NvBaudRate baudRate, unsigned scanTime)
{
    std::vector<NvBaudRate> rates;
    if (baudRate != NBR_DETECT)
        rates = {baudRate};
    else
        rates = {NBR_115200, NBR_9600, NBR_4800, NBR_38400, NBR_57600};
    const unsigned listen = std::min(scanTime, 600u);
    for (NvBaudRate rate : rates) {
        int nmea = 0, text = 0;
        const NvResultValue rc = nda::listenRaw(info.portName, rate, listen,
                                                [&](NvProtocolType type, const NvByteArray&) {
                                                    nmea += type == NPT_NMEA;
                                                    text += type == NPT_TEXT;
                                                });
        if (rc != NRV_OK)
            return false;
        if (nmea > 0 || text > 0) {
            info.isForeign = true;
            info.baudRate = rate;
            info.deviceId = NvDeviceId();
            info.description = std::string(nmea > 0 ? "NMEA device" : "text console") +
                               " of another maker at " + std::to_string(nvBaudRateToRate(rate)) +
                               " bd";
            return true;
        }
    }
    return false;
}

// RS-485 interfaces are the ones with a transmission delay to ask about.
bool answersTransmitDelay(NvControl& probe, const NvDeviceId& id)
{
    NvDevice* dev = probe.findDevice(id);
    return dev && NvDevice_rs485TransmissionDelay(dev) >= 0;
}

int scanOne(NvPortInfo* portInfo, NvBaudRate baudRate, unsigned scanTime, int detectRs485,
            bool allowForeign)
{
    if (!portInfo || portInfo->portName.empty()) {
        nda::setResult(NRV_INVALID_ARGUMENT);
        return 0;
    }
    const std::string& name = portInfo->portName;
    if (nda::findOpenPort(name, portInfo)) {
        // Opening it again would steal the owner's replies.
        scanLog("Port " + name + " is open already: " + portInfo->deviceId.toString());
        nda::setResult(NRV_OK);
        return 1;
    }
    scanLog("Scanning port " + name + " at " + rateText(baudRate));
    scanTime = scanTime ? scanTime : 1500u;
    // A private control: the scan does not disturb the application's devices or handlers.
    NvControl probe;
    NvPortInfo found = *portInfo;
    found.isForeign = false;
    if (!probe.openPort(name, baudRate, scanTime, &found)) {
        const NvResultValue rc = nda::lastResult();
        // Only a port that said something without answering is worth a longer listen.
        const bool unanswered =
            (rc == NRV_TIMEOUT || rc == NRV_BAUDRATE_NOT_DETECTED) && nda::lastOpenBytesHeard() > 0;
        if (unanswered && probeForeign(found, baudRate, scanTime)) {
            *portInfo = found;
            scanLog("Found " + found.description + " on " + name +
                    (allowForeign ? "" : " (not listed)"));
            nda::setResult(allowForeign ? NRV_OK : NRV_NO_DEVICE_FOUND);
            return allowForeign ? 1 : 0;
        }
        scanLog("No device on " + name + ": " + nvResultValueText(rc));
        nda::setResult(rc);
        return 0;
    }
    if (detectRs485) {
        found.isRs485 = answersTransmitDelay(probe, found.deviceId);
        scanLog(std::string("Interface of ") + found.deviceId.toString() + ": " +
                (found.isRs485 ? "RS-485" : "RS-232/USB"));
    }
    probe.closeAll();
    *portInfo = found;
    scanLog("Found " + found.deviceId.toString() + " on " + name + " at " +
            std::to_string(nvBaudRateToRate(found.baudRate)) + " bd");
    nda::setResult(NRV_OK);
    return 1;
}

} // namespace

extern "C" {

int NvScanner_scanPort(NvPortInfo* portInfo, NvBaudRate baudRate, unsigned scanTime,
                       int detectRs485)
{
    // A single port is the caller's explicit choice: what answers there is reported,
    // foreign or not (isForeign tells).
    return scanOne(portInfo, baudRate, scanTime, detectRs485, true);
}

void NvScanner_scanPorts(NvPortInfoArray* out, NvBaudRate baudRate, unsigned scanTime,
                         int ignoreNonNivra, int detectRs485)
{
    if (!out)
        return;
    out->clear();
    NvPortInfoArray ports = candidatePorts();
    scanLog("Scanning " + std::to_string(ports.size()) + " port(s)");
    for (NvPortInfo& info : ports)
        if (scanOne(&info, baudRate, scanTime, detectRs485, !ignoreNonNivra))
            out->push_back(info);
    scanLog("Scan done: " + std::to_string(out->size()) + " device(s)");
    nda::setResult(out->empty() ? NRV_NO_DEVICE_FOUND : NRV_OK);
}

} // extern "C"
