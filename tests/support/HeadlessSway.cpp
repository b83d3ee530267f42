#include "support/HeadlessSway.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

std::string Run(const std::string& command) {
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}

}  // namespace

HeadlessSway::HeadlessSway(const std::string& config) {
    char pattern[] = "/tmp/irframe-sway-XXXXXX";
    m_dir = mkdtemp(pattern);
    const uid_t nobody = 65534;
    chown(m_dir.c_str(), nobody, nobody);
    chmod(m_dir.c_str(), 0700);
    std::ofstream(m_dir + "/config") << config;
    m_pid = fork();
    if (m_pid == 0) {
        // Nothing it starts (swaynag on a configuration error) holds the test's output open.
        freopen("/dev/null", "w", stdout);
        freopen((m_dir + "/sway.log").c_str(), "w", stderr);
        if (setgid(nobody) != 0 || setuid(nobody) != 0) _exit(126);
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
        setenv("HOME", m_dir.c_str(), 1);
        setenv("WLR_BACKENDS", "headless", 1);
        setenv("WLR_RENDERER", "pixman", 1);
        setenv("WLR_LIBINPUT_NO_DEVICES", "1", 1);
        unsetenv("WAYLAND_DISPLAY");
        unsetenv("DISPLAY");
        unsetenv("SWAYSOCK");
        execlp("sway", "sway", "-c", (m_dir + "/config").c_str(), nullptr);
        _exit(127);
    }
}

HeadlessSway::~HeadlessSway() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

bool HeadlessSway::WaitReady() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
            const std::string name = entry.path().filename();
            if (name.rfind("sway-ipc.", 0) == 0) m_ipc = entry.path();
            if (name.rfind("wayland-", 0) == 0 && name.find(".lock") == std::string::npos) {
                m_wayland = entry.path();
            }
        }
        if (!m_ipc.empty() && !m_wayland.empty()) return true;
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
            m_pid = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::string HeadlessSway::Msg(const std::string& arguments) {
    return Run("swaymsg -s '" + m_ipc + "' " + arguments + " 2>&1");
}

std::string HeadlessSway::Log() const { return Run("cat '" + m_dir + "/sway.log'"); }
