#pragma once

// A pseudo-terminal standing in for a port without one of our devices behind it, for
// scans to probe: nothing at all, a device of unknown make that sends binary noise all the
// time (heard at every rate, never Nbus, NMEA or text), or an NMEA receiver of another
// maker.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <pty.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace kvtest {

class FakePort
{
public:
    enum Kind
    {
        Silent,
        Noise,
        Nmea,
    };

    explicit FakePort(Kind kind)
    {
        char name[128] = {};
        termios tio{};
        cfmakeraw(&tio);
        if (openpty(&m_master, &m_slave, name, &tio, nullptr) != 0)
            return;
        path = name;
        fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
        m_thread = std::thread([this, kind] { run(kind); });
    }
    ~FakePort()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        if (m_slave >= 0)
            ::close(m_slave);
        if (m_master >= 0)
            ::close(m_master);
    }
    FakePort(const FakePort&) = delete;
    FakePort& operator=(const FakePort&) = delete;

    bool isOpen() const { return !path.empty(); }
    // The name a scan is given (the slave side).
    std::string path;

private:
    void run(Kind kind)
    {
        const std::string gga =
            "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
        uint8_t value = 0x80;
        while (!m_stop) {
            // What the probes send goes unread otherwise, until the buffer is full.
            uint8_t sink[256];
            while (::read(m_master, sink, sizeof sink) > 0) {
            }
            if (kind == Noise) {
                uint8_t noise[64];
                for (uint8_t& b : noise) {
                    value = uint8_t(0x80 | ((value * 37 + 11) & 0x7F));
                    b = value == 0xD3 || value == 0xFA ? 0x81 : value; // no RTCM, no preamble
                }
                write(noise, sizeof noise);
            } else if (kind == Nmea) {
                write(gga.data(), gga.size());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    void write(const void* data, size_t size)
    {
        const ssize_t n = ::write(m_master, data, size);
        (void)n; // a full buffer drops it: nobody listens
    }

    int m_master = -1;
    int m_slave = -1; // kept open: the probes' closing theirs must not hang the line up
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace kvtest
