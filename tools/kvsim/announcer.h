#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace kvsim {

// The ports file through which scanners find emulated devices: one slave path per line in
// $XDG_RUNTIME_DIR/kvsim/ports, or /tmp/kvsim-<uid>/ports without XDG_RUNTIME_DIR. Several
// emulators share the file, so each adds and removes only its own lines, under an exclusive
// lock on a companion lock file, and replaces the file by rename so that readers never see
// it half written.
class Announcer
{
public:
    Announcer();
    ~Announcer();

    // The folder and file used; empty folder when none could be made.
    const std::string& filePath() const { return m_file; }

    bool add(const std::string& port, std::string& error);
    bool remove(const std::string& port);
    // Removes every line this announcer added.
    void removeAll();

    static std::string defaultDirectory();

private:
    bool rewrite(const std::vector<std::string>& add, const std::vector<std::string>& drop,
                 std::string& error);

    std::mutex m_mutex; // guards m_mine
    std::string m_dir;
    std::string m_file;
    std::vector<std::string> m_mine;
};

} // namespace kvsim
