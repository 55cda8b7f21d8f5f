// Restoring communication with a device that does not answer at its port: at an unknown
// rate, or streaming so fast that it never hears a request. GoToConfig goes out in quick
// bursts at every rate in turn, for as long as it takes the user to power-cycle the
// device (a booting device listens for it before it starts measuring).

#include "ndacontrol_p.h"
#include "nivradeviceapi.h"

namespace {

constexpr int64_t RestoreLimitNs = 60'000'000'000; // then the result is a time-out
constexpr unsigned BurstReplyMs = 40;

} // namespace

bool NvControl::startRestore(const NvString& portName)
{
    if (findByPort(portName))
        return nda::fail(NRV_PORT_IN_USE);
    stopRestore();
    m_restoreStop = false;
    m_restoreThread = std::thread([this, portName] { restoreLoop(portName); });
    nda::setResult(NRV_OK);
    return true;
}

void NvControl::stopRestore()
{
    m_restoreStop = true;
    if (m_restoreThread.joinable() && m_restoreThread.get_id() != std::this_thread::get_id())
        m_restoreThread.join();
}

void NvControl::restoreLoop(std::string portName)
{
    auto port = std::make_shared<nda::Port>(this, portName);
    NvResultValue rc = port->open(NBR_115200);
    if (rc == NRV_OK) {
        std::vector<NvBaudRate> rates(size_t(nvBaudRatesFastestFirst(nullptr, 0)));
        nvBaudRatesFastestFirst(rates.data(), int(rates.size()));
        const int64_t end = nda::monotonicNs() + RestoreLimitNs;
        rc = NRV_TIMEOUT;
        while (rc == NRV_TIMEOUT) {
            if (m_restoreStop) {
                rc = NRV_ABORTED;
                break;
            }
            if (nda::monotonicNs() > end)
                break;
            for (NvBaudRate rate : rates) {
                if (m_restoreStop || !port->setBaudRate(rate))
                    break;
                const NvResultValue r = port->request(NvMessage::toDevice(NvMid::GoToConfig),
                                                      NvMid::GoToConfigAck, nullptr, BurstReplyMs);
                if (r != NRV_TIMEOUT) {
                    rc = r;
                    break;
                }
            }
        }
        if (rc == NRV_OK)
            nda::log(NDA_LOG_DEBUG, ("Communication restored on " + portName + " at " +
                                     std::to_string(nvBaudRateToRate(port->baudRate())) + " bd")
                                        .c_str());
        port->shutdown();
    }
    const NvString name = portName;
    dispatch(nullptr, [&](const NvCallbackPlainC* h) {
        if (h->onRestoreCommunication)
            h->onRestoreCommunication(h->userData, &name, rc);
    });
}

extern "C" {

int NvControl_startRestoreCommunication(NvControl* control, const NvString* portName)
{
    if (!control || !portName || portName->empty())
        return nda::fail(NRV_INVALID_ARGUMENT);
    return control->startRestore(*portName);
}

void NvControl_stopRestoreCommunication(NvControl* control)
{
    if (control)
        control->stopRestore();
}

} // extern "C"
