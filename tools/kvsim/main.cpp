// kvsim: emulated motion trackers on pseudo-terminals.

#include "announcer.h"
#include "device.h"
#include "master.h"
#include "options.h"
#include "portrunner.h"
#include "truthwriter.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

using namespace kvsim;

namespace {

std::mutex g_stderrMutex;

void logLine(const std::string& line)
{
    std::lock_guard<std::mutex> lock(g_stderrMutex);
    std::fprintf(stderr, "kvsim: %s\n", line.c_str());
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "kvsim: %s\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(helpText().c_str(), stdout);
        return 0;
    }
    if (options.version) {
        std::printf("kvsim 1.0\n");
        return 0;
    }

    // Signals are taken by the main thread only, through a signalfd; the port threads
    // inherit the blocked mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    const int doneFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signalFd < 0 || doneFd < 0) {
        std::fprintf(stderr, "kvsim: signalfd/eventfd: %s\n", std::strerror(errno));
        return 1;
    }

    TruthWriter truth;
    if (!options.truthPath.empty() && !truth.open(options.truthPath, error)) {
        std::fprintf(stderr, "kvsim: cannot write the truth file: %s\n", error.c_str());
        return 1;
    }

    Announcer announcer;
    auto log = options.quiet ? std::function<void(const std::string&)>() : logLine;
    const int64_t origin = PortRunner::monotonicNs();
    std::vector<std::unique_ptr<PortRunner>> runners;
    std::map<Kind, uint32_t> kindCount;
    std::atomic<int> disconnected{0};
    for (const DeviceSetup& setup : options.devices) {
        const uint32_t index = setup.index ? *setup.index : kindCount[setup.kind];
        ++kindCount[setup.kind];
        TruthWriter* truthWriter = truth.isOpen() ? &truth : nullptr;
        std::unique_ptr<PortDevice> device;
        if (setup.kind == Kind::Master)
            device =
                std::make_unique<MasterDevice>(setup, index, options.seed, origin, truthWriter);
        else
            device =
                std::make_unique<EmulatedDevice>(setup, index, options.seed, origin, truthWriter);
        PortRunner::Events events;
        events.log = log;
        events.disconnected = [&announcer, &disconnected, doneFd](PortRunner& runner) {
            announcer.remove(runner.port());
            ++disconnected;
            const uint64_t one = 1;
            if (write(doneFd, &one, sizeof one) < 0) {
                // An eventfd write of 1 cannot fail short of a full counter.
            }
        };
        auto runner =
            std::make_unique<PortRunner>(std::move(device), setup.faults, options.seed, events);
        if (!runner->open(error)) {
            std::fprintf(stderr, "kvsim: cannot create a pseudo-terminal: %s\n", error.c_str());
            return 1;
        }
        runners.push_back(std::move(runner));
    }

    // Without the ports file scanners do not find the devices, but a host that is told
    // the port can still use it, so this is not fatal.
    bool announced = false;
    for (auto& runner : runners) {
        if (announcer.add(runner->port(), error))
            announced = true;
        else
            std::fprintf(stderr, "kvsim: warning: cannot announce %s: %s\n", runner->port().c_str(),
                         error.c_str());
    }
    for (auto& runner : runners) {
        PortDevice& device = runner->device();
        std::printf("%s %s %s\n", runner->port().c_str(), device.id().toString().c_str(),
                    device.kindName());
    }
    std::fflush(stdout);
    if (log && announced)
        log("announced in " + announcer.filePath());

    for (auto& runner : runners) {
        if (!runner->start(origin, error)) {
            std::fprintf(stderr, "kvsim: cannot start a port thread: %s\n", error.c_str());
            for (auto& r : runners)
                r->stop();
            announcer.removeAll();
            return 1;
        }
    }

    int exitCode = 0;
    for (;;) {
        pollfd fds[2] = {{signalFd, POLLIN, 0}, {doneFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            exitCode = 1;
            break;
        }
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info{};
            if (read(signalFd, &info, sizeof info) == sizeof info && log)
                log(std::string("stopping on ") + strsignal(int(info.ssi_signo)));
            break;
        }
        if (fds[1].revents & POLLIN) {
            uint64_t count = 0;
            if (read(doneFd, &count, sizeof count) < 0) {
                // Spurious wake-up; the counter below decides.
            }
            // Every port closed: nothing is left to emulate.
            if (disconnected.load() == int(runners.size()))
                break;
        }
    }

    for (auto& runner : runners)
        runner->stop();
    announcer.removeAll();
    truth.close();
    runners.clear();
    close(signalFd);
    close(doneFd);
    return exitCode;
}
