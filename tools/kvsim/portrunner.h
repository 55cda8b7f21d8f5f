#pragma once

#include "device.h"
#include "options.h"
#include "ptyport.h"
#include "rng.h"

#include <nvframeparser.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kvsim {

// One port and its thread: the pseudo-terminal, the frames coming in, the device's output
// going out through a small transmit buffer, the link faults and the clock. Every frame
// goes to the port's device, which answers the bus ids it has: a single device its own
// and 0xFF, a master 0xFF and those of its connected trackers.
class PortRunner : public LinkSink
{
public:
    struct Events
    {
        std::function<void(const std::string& line)> log; // diagnostics, may be empty
        std::function<void(PortRunner&)> disconnected;    // port closed by a fault
    };

    PortRunner(std::unique_ptr<PortDevice> device, const FaultSettings& faults, uint64_t seed,
               Events events);
    ~PortRunner() override;

    bool open(std::string& error);
    const std::string& port() const { return m_pty.slavePath(); }
    PortDevice& device() { return *m_device; }

    // Powers the device up at `originNs` and starts the thread.
    bool start(int64_t originNs, std::string& error);
    // Asks the thread to end and waits for it.
    void stop();
    bool isDisconnected() const { return m_disconnected.load(); }

    void sendControl(const NvMessage& message) override;
    SampleFate sendData(const uint8_t* bytes, size_t size, bool isFrame) override;
    bool sendRetransmission(const uint8_t* bytes, size_t size) override;

    static int64_t monotonicNs();

private:
    void run();
    void readInput(int64_t nowNs);
    bool flushOutput();
    void armTimer(int64_t deadline);
    void logStateChange();
    void log(const std::string& text);

    std::unique_ptr<PortDevice> m_device;
    FaultSettings m_faults;
    Rng m_faultRng;
    Events m_events;
    PtyPort m_pty;
    NvFrameParser m_parser;
    std::thread m_thread;
    int m_stopFd = -1;
    int m_timerFd = -1;
    int64_t m_armed = -1;
    int64_t m_disconnectAt = kNever;
    std::atomic<bool> m_disconnected{false};
    std::string m_lastState;

    // The transmit buffer: bytes the pseudo-terminal has not taken yet.
    std::vector<uint8_t> m_out;
    size_t m_outHead = 0;
    uint64_t m_overflows = 0;
};

} // namespace kvsim
