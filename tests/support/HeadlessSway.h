// Headless desktops for the tests. HeadlessSway: sway as an unprivileged user (it refuses to run
// as root) in a runtime directory of its own, for the tests that check what sway reads; root
// still reaches its sockets. CDesktopRun: the driver on an emulated frame over a private bus,
// with Xvfb or weston for the windows of the end-to-end tests.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

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

struct TXrandrDesktop;

// A desktop's layout as one line, to compare whole layouts: who told it, each output's name,
// place and size (primary marked, millimetres when known), and the box that holds them.
std::string LayoutText(const TXrandrDesktop& layout);

// An RGB picture of the screen; empty when it could not be taken.
struct TPicture {
    int width = 0, height = 0;
    std::string rgb;
    uint32_t At(int x, int y) const;  // 0xRRGGBB
};

// Colours within 2 per channel: a window rounds its colours its own way.
bool NearColour(uint32_t a, uint32_t b);

// Everything a run starts is stopped (SIGTERM, the newest first), the environment it set is put
// back and its scratch directory removed when it goes. Failures to start are test failures
// naming the Debian package needed.
class CDesktopRun {
public:
    // A scratch directory, a private bus and a connection of the test's own; `driver` is
    // irframed's path.
    explicit CDesktopRun(std::string driver);
    ~CDesktopRun();
    CDesktopRun(const CDesktopRun&) = delete;
    CDesktopRun& operator=(const CDesktopRun&) = delete;

    bool Ready() const { return m_bus != nullptr; }
    std::string Path(const std::string& name) const { return m_scratch.Path(name); }
    std::string Log(const std::string& name) const { return ReadFile(Path(name)); }
    // For this process and its children, until the run ends.
    void SetEnv(const char* name, const std::string& value);
    // `argv` with its errors in the file `log` of the scratch directory, its output in `out`
    // (empty: nowhere).
    pid_t Start(const std::vector<std::string>& argv, const std::string& log,
                const std::string& out = "");
    // The exit status of `pid` (see WaitExit); it is not stopped again at the end.
    int Wait(pid_t pid, int seconds);
    // A 1920x1080 Xvfb with a black root window, or a headless weston of that size, for the
    // windows started after it.
    bool StartXvfb();
    bool StartWeston();
    // irframed playing `script` in real time, its events in posted.json; returns once frame 1
    // runs.
    pid_t StartDriver(const std::string& script, const std::vector<std::string>& faults);
    // A window program: ASan's leak check off, as the desktop libraries keep caches until the
    // process ends (the windows' own code is leak-checked by their unit tests).
    pid_t StartWindow(const std::vector<std::string>& argv, const std::string& log,
                      const std::string& out = "");
    // Frame 1's state and whether its gestures are held; empty when the driver does not answer.
    std::string State();
    std::optional<bool> GesturesHeld();
    std::string ReadConfig();  // frame 1's configuration, as JSON
    void WriteConfig(const std::string& json);
    // The screen saved at `png` (empty: not saved) and read back: under X11 the `crop`
    // (ImageMagick's geometry, empty for all of it), under weston all of it.
    TPicture Screenshot(const std::string& png, const std::string& crop = "");

private:
    std::string m_driver;
    CScratchDir m_scratch;
    std::vector<std::pair<std::string, std::optional<std::string>>> m_savedEnv;
    CPrivateBus m_privateBus;
    sd_bus* m_bus = nullptr;
    std::vector<pid_t> m_pids;
    bool m_weston = false;
};
