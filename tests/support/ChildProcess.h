// Starting a program under test with its standard input from /dev/null and its standard
// output and error in files, for the end-to-end tests that read both afterwards; and the
// scratch directory those files live in.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// The child's process id, or -1 when it could not be started.
pid_t SpawnWithOutputFiles(std::vector<std::string> argv, const std::string& out,
                           const std::string& err);

std::string ReadFile(const std::string& path);
std::vector<std::string> SplitLines(const std::string& text);

// A bound against a hang, not a measurement: a run takes milliseconds.
constexpr int kHangBoundMillis = 60'000;

// Polls `done` every 10 ms; false when it still does not hold after `boundMillis`.
bool WaitUntil(const std::function<bool()>& done, int boundMillis = kHangBoundMillis);

// The exit status of a child started otherwise, or -1 when it ended by a signal or did not end
// within `seconds` (then it is killed).
int WaitExit(pid_t pid, int seconds);

// A started program; killed if it is still running when this goes.
class CChild {
public:
    CChild(std::vector<std::string> argv, std::string out, std::string err);
    CChild(CChild&& other) noexcept;
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;
    ~CChild();

    bool Started() const { return m_started; }
    // Until standard error holds `text`; false when the child ended without it.
    bool WaitForErr(const std::string& text);
    void Signal(int signal);
    // The exit status, or -1 when it ended by a signal or hung (then it is killed: a failure).
    int Wait();
    bool Ended();
    std::string Out() const { return ReadFile(m_out); }
    std::string Err() const { return ReadFile(m_err); }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    bool m_started = false;
    std::string m_out, m_err;
};

// A temporary directory, removed with what it holds.
class CScratchDir {
public:
    explicit CScratchDir(const std::string& prefix);
    ~CScratchDir();
    CScratchDir(const CScratchDir&) = delete;
    CScratchDir& operator=(const CScratchDir&) = delete;

    const std::string& Dir() const { return m_dir; }
    std::string Path(const std::string& name) const { return m_dir + "/" + name; }
    // Writes `text` into `name`; its path.
    std::string File(const std::string& name, const std::string& text) const;

private:
    std::string m_dir;
};
