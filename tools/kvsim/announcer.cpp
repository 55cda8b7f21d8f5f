#include "announcer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvsim {

namespace {

// Makes the folder if needed and checks that it is a real folder of ours; a folder in a
// shared /tmp could otherwise be planted by somebody else.
bool ensureDirectory(const std::string& dir, std::string& error)
{
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        error = dir + ": " + std::strerror(errno);
        return false;
    }
    struct stat st
    {
    };
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
        error = dir + ": not a folder owned by this user";
        return false;
    }
    return true;
}

std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    FILE* f = std::fopen(path.c_str(), "re");
    if (!f)
        return lines;
    char* line = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&line, &cap, f)) >= 0) {
        std::string s(line, static_cast<size_t>(n));
        while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
            s.pop_back();
        if (!s.empty())
            lines.push_back(s);
    }
    std::free(line);
    std::fclose(f);
    return lines;
}

} // namespace

std::string Announcer::defaultDirectory()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime)
        return std::string(runtime) + "/kvsim";
    return "/tmp/kvsim-" + std::to_string(getuid());
}

Announcer::Announcer() : m_dir(defaultDirectory()), m_file(m_dir + "/ports") {}

Announcer::~Announcer()
{
    removeAll();
}

bool Announcer::add(const std::string& port, std::string& error)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!rewrite({port}, {}, error))
        return false;
    m_mine.push_back(port);
    return true;
}

bool Announcer::remove(const std::string& port)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = std::find(m_mine.begin(), m_mine.end(), port);
    if (it == m_mine.end())
        return false;
    m_mine.erase(it);
    std::string error;
    return rewrite({}, {port}, error);
}

void Announcer::removeAll()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_mine.empty())
        return;
    std::string error;
    rewrite({}, m_mine, error);
    m_mine.clear();
}

bool Announcer::rewrite(const std::vector<std::string>& add, const std::vector<std::string>& drop,
                        std::string& error)
{
    if (!ensureDirectory(m_dir, error))
        return false;
    const std::string lockPath = m_file + ".lock";
    const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lockFd < 0) {
        error = lockPath + ": " + std::strerror(errno);
        return false;
    }
    while (flock(lockFd, LOCK_EX) != 0 && errno == EINTR) {
    }

    std::vector<std::string> lines;
    for (std::string& line : readLines(m_file)) {
        if (std::find(drop.begin(), drop.end(), line) != drop.end())
            continue;
        // Lines of emulators that died without cleaning up name ports that are gone.
        if (std::find(m_mine.begin(), m_mine.end(), line) == m_mine.end() &&
            access(line.c_str(), F_OK) != 0)
            continue;
        lines.push_back(std::move(line));
    }
    for (const std::string& port : add)
        lines.push_back(port);

    bool ok = false;
    const std::string tmp = m_file + ".tmp." + std::to_string(getpid());
    if (FILE* f = std::fopen(tmp.c_str(), "we")) {
        for (const std::string& line : lines)
            std::fprintf(f, "%s\n", line.c_str());
        ok = std::fflush(f) == 0;
        ok = std::fclose(f) == 0 && ok;
        ok = ok && std::rename(tmp.c_str(), m_file.c_str()) == 0;
        if (!ok) {
            error = m_file + ": " + std::strerror(errno);
            std::remove(tmp.c_str());
        }
    } else {
        error = tmp + ": " + std::strerror(errno);
    }
    flock(lockFd, LOCK_UN);
    ::close(lockFd);
    return ok;
}

} // namespace kvsim
