#include "unixsignalwatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_pipe[2] = {-1, -1};

void forwardSignal(int signal)
{
    // Only async-signal-safe work here: one byte into the pipe.
    const unsigned char byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] ssize_t written = ::write(g_pipe[0], &byte, 1);
}

} // namespace

UnixSignalWatcher::UnixSignalWatcher(QObject* parent) : QObject(parent)
{
    if (g_pipe[0] >= 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pipe) != 0)
        return;
    ::fcntl(g_pipe[0], F_SETFL, O_NONBLOCK);
    m_notifier = new QSocketNotifier(g_pipe[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &UnixSignalWatcher::readSignal);

    struct sigaction action
    {
    };
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
}

UnixSignalWatcher::~UnixSignalWatcher()
{
    if (!m_notifier)
        return;
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, SIG_DFL);
    delete m_notifier;
    ::close(g_pipe[0]);
    ::close(g_pipe[1]);
    g_pipe[0] = g_pipe[1] = -1;
}

void UnixSignalWatcher::readSignal()
{
    unsigned char byte = 0;
    if (::read(g_pipe[1], &byte, 1) == 1)
        emit terminationRequested(byte);
}
