// A headless sway as an unprivileged user (it refuses to run as root) in a runtime directory of
// its own, for the tests that check what sway reads; root still reaches its sockets.
#pragma once

#include <sys/types.h>

#include <string>

class HeadlessSway {
public:
    // Starts sway with `config` as its configuration.
    explicit HeadlessSway(const std::string& config = "# empty\n");
    ~HeadlessSway();
    HeadlessSway(const HeadlessSway&) = delete;
    HeadlessSway& operator=(const HeadlessSway&) = delete;

    // Waits for the compositor's two sockets: a time-out far beyond what it needs.
    bool WaitReady();
    // swaymsg with `arguments` (a shell's words), its output and errors.
    std::string Msg(const std::string& arguments);
    const std::string& WaylandSocket() const { return m_wayland; }
    const std::string& IpcSocket() const { return m_ipc; }
    std::string Log() const;

private:
    std::string m_dir, m_ipc, m_wayland;
    pid_t m_pid = -1;
};
