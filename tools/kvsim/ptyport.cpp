#include "ptyport.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace kvsim {

PtyPort::~PtyPort()
{
    close();
}

bool PtyPort::open(std::string& error)
{
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_master < 0) {
        error = std::string("posix_openpt: ") + std::strerror(errno);
        return false;
    }
    char name[128];
    if (grantpt(m_master) != 0 || unlockpt(m_master) != 0 ||
        ptsname_r(m_master, name, sizeof name) != 0) {
        error = std::string("cannot unlock pseudo-terminal: ") + std::strerror(errno);
        close();
        return false;
    }
    m_slavePath = name;
    m_slave = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_slave < 0) {
        error = m_slavePath + ": " + std::strerror(errno);
        close();
        return false;
    }
    // Without raw mode the line discipline would echo the host's bytes back to us and
    // translate CR/LF inside binary frames.
    termios tio{};
    if (tcgetattr(m_slave, &tio) != 0) {
        error = m_slavePath + ": tcgetattr: " + std::strerror(errno);
        close();
        return false;
    }
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    if (tcsetattr(m_slave, TCSANOW, &tio) != 0) {
        error = m_slavePath + ": tcsetattr: " + std::strerror(errno);
        close();
        return false;
    }
    return true;
}

void PtyPort::close()
{
    if (m_slave >= 0)
        ::close(m_slave);
    if (m_master >= 0)
        ::close(m_master);
    m_slave = m_master = -1;
}

} // namespace kvsim
