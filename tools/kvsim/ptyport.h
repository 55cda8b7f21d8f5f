#pragma once

#include <string>

namespace kvsim {

// One pseudo-terminal pair. The emulator works on the master side; hosts open the slave
// path like a serial port. The slave is put in raw mode and kept open by us as well, so
// that the pair lives (and keeps its settings) while no host has it open.
class PtyPort
{
public:
    PtyPort() = default;
    ~PtyPort();
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;

    // Returns false and sets error on failure.
    bool open(std::string& error);
    // Closes both sides: a host that has the slave open sees a hang-up, like a device
    // being unplugged.
    void close();

    bool isOpen() const { return m_master >= 0; }
    int masterFd() const { return m_master; }
    const std::string& slavePath() const { return m_slavePath; }

private:
    int m_master = -1;
    int m_slave = -1;
    std::string m_slavePath;
};

} // namespace kvsim
