#include "support/PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>

extern char** environ;

CPrivateBus::CPrivateBus() {
    int fds[2];
    if (pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>("--session"),
                    const_cast<char*>("--print-address"), const_cast<char*>("--nofork"),
                    nullptr};
    if (posix_spawnp(&m_pid, "dbus-daemon", &actions, nullptr, argv, environ) != 0) m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    // The daemon prints its address once it listens; EOF means it did not start.
    char c;
    while (m_pid > 0 && read(fds[0], &c, 1) == 1 && c != '\n') m_address.push_back(c);
    close(fds[0]);
    if (!m_address.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
}

CPrivateBus::~CPrivateBus() {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
}

sd_bus* CPrivateBus::Connect() const {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    if (sd_bus_set_address(bus, m_address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

void CServedConnection::Serve() {
    if (m_bus == nullptr || m_thread.joinable()) return;
    m_thread = std::thread([this] {
        while (!m_stop.load()) {
            if (sd_bus_process(m_bus, nullptr) > 0) continue;
            sd_bus_wait(m_bus, 10'000);
        }
    });
}

void CServedConnection::Stop() {
    m_stop.store(true);
    if (m_thread.joinable()) m_thread.join();
}

CServedConnection::~CServedConnection() {
    Stop();
    sd_bus_flush_close_unref(m_bus);
}
