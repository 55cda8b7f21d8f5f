#pragma once

// Calls that must not block on a FIFO: a regression should fail, not hang the test run.

#include <chrono>
#include <fcntl.h>
#include <future>
#include <string>
#include <unistd.h>

namespace kvtest {

// Runs `call` on a thread of its own and answers whether it returned within `limit`.
// If it did not, it is blocked opening `fifo` for reading: a writer opening and closing
// the FIFO releases it (it then reads an empty file), and the answer is false.
template <class Call>
bool returnsPromptly(Call call, const std::string& fifo,
                     std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    std::future<void> done = std::async(std::launch::async, call);
    if (done.wait_for(limit) == std::future_status::ready) {
        done.get();
        return true;
    }
    do {
        const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0)
            ::close(fd);
    } while (done.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready);
    done.get();
    return false;
}

} // namespace kvtest
