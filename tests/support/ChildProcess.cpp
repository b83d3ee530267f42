#include "support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

extern char** environ;

pid_t SpawnWithOutputFiles(std::vector<std::string> argv, const std::string& out,
                           const std::string& err) {
    std::vector<char*> cargv;
    for (std::string& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    if (posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool WaitUntil(const std::function<bool()>& done, int boundMillis) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(boundMillis);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

int WaitExit(pid_t pid, int seconds) {
    int status = 0;
    if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds * 1000)) {
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

CChild::CChild(std::vector<std::string> argv, std::string out, std::string err)
    : m_out(std::move(out)), m_err(std::move(err)) {
    const std::string program = argv.at(0);
    m_pid = SpawnWithOutputFiles(std::move(argv), m_out, m_err);
    m_started = m_pid > 0;
    if (m_pid < 0) ADD_FAILURE() << "cannot start " << program;
}

CChild::CChild(CChild&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_status(other.m_status),
      m_started(other.m_started),
      m_out(std::move(other.m_out)), m_err(std::move(other.m_err)) {}

CChild::~CChild() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

bool CChild::WaitForErr(const std::string& text) {
    const auto has = [&] { return Err().find(text) != std::string::npos; };
    WaitUntil([&] { return has() || Ended(); });
    return has();
}

void CChild::Signal(int signal) {
    if (m_pid > 0) kill(m_pid, signal);
}

int CChild::Wait() {
    if (!WaitUntil([&] { return Ended(); })) {
        ADD_FAILURE() << "child did not end";
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
        m_status = -1;
    }
    return m_status;
}

bool CChild::Ended() {
    if (m_pid <= 0) return true;
    int wstatus = 0;
    if (waitpid(m_pid, &wstatus, WNOHANG) != m_pid) return false;
    m_status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    m_pid = -1;
    return true;
}

CScratchDir::CScratchDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + ".XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "cannot make " << pattern;
    m_dir = pattern;
}

CScratchDir::~CScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

std::string CScratchDir::File(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
    return Path(name);
}
