// kernel_guest_test: the driver end to end on a real kernel, run inside a throwaway guest
// (tests/kernel/run.sh boots one).
//
// Starts irframed, plugs emulated touch frames in and out through /dev/uhid, reads the events of
// the driver's virtual input device through libevdev and compares them with what each case must
// produce. Prints one line per case, "CASE <name>: PASS (<what was seen>)" or
// "CASE <name>: FAIL (<why>)", then the closing marker line, and exits 0 when every case passed.
//
// Expected events follow the gesture rules as implemented (tests/CTouchPointContainer_test.cpp,
// tests/TwoFingerGestures_test.cpp, tests/MultiFingerGestures_test.cpp). Each frame's gesture
// container keeps its state from touch to touch, so the cases on one frame run in a fixed order
// and the expectations say what that state makes of each touch.
#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/input-event-codes.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CCalibrateSystem.h"
#include "EvdevExpectation.h"
#include "EvdevKeyMap.h"
#include "GestureScript.h"
#include "MtDevConfig.h"
#include "MtDevCtrlInterface.h"
#include "MtDevFrame.h"
#include "MtEmuUhidFrame.h"
#include "MtSlotTrace.h"
#include "MultiPlatformAPI.h"
#include "SimFrameEncoder.h"
#include "TouchscreenSlots.h"
#include "UhidDigitizer.h"

namespace {

constexpr const char* kVirtualDeviceName = "irframe touch frame";
constexpr const char* kEndMarker = "IRFRAME-KERNEL-TEST-END";

// Real-time bounds of waits. The guest runs under full emulation, several times slower than
// the host, so they are generous; none of them is a verdict on speed.
constexpr int kAppearMs = 30'000;   // a frame plugged in until the driver polls it
constexpr int kPlayMs = 60'000;     // a script played to its end
constexpr int kEventsMs = 15'000;   // the events of a played script
constexpr int kQuietMs = 500;       // no further report for this long: the case is over
constexpr int kPollsSeen = 10;      // frame polls that show a worker is running

// Script positions come out of the driver's calibration at the nearest value its default
// mapping reaches: at most one unit off.
constexpr int32_t kAbs = 1;

std::mutex g_printMutex;

void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* format, ...) {
    std::lock_guard<std::mutex> lock(g_printMutex);
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

uint64_t NowNanos() {
    return TGetClock().MonotonicNanos();
}

// ---------------------------------------------------------------------------------------------
// The driver process: its stderr lines are kept (and echoed), its stdout lines only counted.

class CDriverProcess {
public:
    ~CDriverProcess() {
        if (m_pid > 0 && Running()) Stop(5'000);
        if (m_pump.joinable()) {
            const uint64_t one = 1;
            (void)!::write(m_wake, &one, sizeof one);
            m_pump.join();
        }
        for (int fd : {m_out, m_err, m_wake}) {
            if (fd >= 0) ::close(fd);
        }
    }

    bool Start(const std::vector<std::string>& argv, std::string* error) {
        int out[2], err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
            *error = std::string("pipe: ") + std::strerror(errno);
            return false;
        }
        m_pid = ::fork();
        if (m_pid < 0) {
            *error = std::string("fork: ") + std::strerror(errno);
            return false;
        }
        if (m_pid == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::dup2(err[1], STDERR_FILENO);
            std::vector<char*> args;
            for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            ::execv(args[0], args.data());
            std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        m_out = out[0];
        m_err = err[0];
        m_wake = ::eventfd(0, EFD_CLOEXEC);
        m_pump = std::thread([this] { Pump(); });
        return true;
    }

    size_t LineCount() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines.size();
    }

    // Lines from index `from` on that contain `text`.
    size_t CountLines(const std::string& text, size_t from = 0) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (size_t i = from; i < m_lines.size(); ++i) {
            n += m_lines[i].find(text) != std::string::npos;
        }
        return n;
    }

    // Waits until `count` lines from index `from` on contain `text`.
    bool WaitForLines(const std::string& text, size_t count, size_t from, int timeoutMs) const {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            size_t n = 0;
            for (size_t i = from; i < m_lines.size(); ++i) {
                n += m_lines[i].find(text) != std::string::npos;
            }
            return n >= count;
        });
    }

    bool Running() {
        if (m_pid <= 0 || m_exited) return false;
        int status = 0;
        const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_exited = true;
            m_status = status;
            return false;
        }
        return true;
    }

    // SIGTERM, then waits; the wait status, or nothing when it did not end in time.
    std::optional<int> Stop(int timeoutMs) {
        if (!Running()) return m_exited ? std::optional<int>(m_status) : std::nullopt;
        ::kill(m_pid, SIGTERM);
        for (int waited = 0; waited < timeoutMs; waited += 20) {
            if (!Running()) return m_status;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, &m_status, 0);
        m_exited = true;
        return std::nullopt;
    }

    uint64_t StdoutLines() const { return m_stdoutLines.load(); }

    // The driver's open descriptors that still point at a hidraw node the kernel removed.
    std::vector<std::string> DeletedHidrawHandles() const {
        std::vector<std::string> found;
        const std::string dir = "/proc/" + std::to_string(m_pid) + "/fd";
        DIR* d = ::opendir(dir.c_str());
        if (d == nullptr) return found;
        while (const dirent* entry = ::readdir(d)) {
            char target[256];
            const std::string link = dir + "/" + entry->d_name;
            const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
            if (n <= 0) continue;
            const std::string text(target, static_cast<size_t>(n));
            if (text.find("/dev/hidraw") != std::string::npos &&
                text.find("(deleted)") != std::string::npos) {
                found.push_back(text);
            }
        }
        ::closedir(d);
        return found;
    }

private:
    void Pump() {
        std::string partial[2];
        pollfd fds[3] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}, {m_wake, POLLIN, 0}};
        char buffer[4096];
        while (fds[0].fd >= 0 || fds[1].fd >= 0) {
            if (::poll(fds, 3, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[2].revents != 0) return;
            for (int i = 0; i < 2; ++i) {
                if (fds[i].revents == 0) continue;
                const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
                if (n <= 0) {
                    fds[i].fd = -1;
                    continue;
                }
                partial[i].append(buffer, static_cast<size_t>(n));
                size_t end;
                while ((end = partial[i].find('\n')) != std::string::npos) {
                    std::string line = partial[i].substr(0, end);
                    partial[i].erase(0, end + 1);
                    if (i == 0) {
                        m_stdoutLines.fetch_add(1);  // the handlers' per-frame lines
                        continue;
                    }
                    Say("  | %s", line.c_str());
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_lines.push_back(std::move(line));
                    m_changed.notify_all();
                }
            }
        }
    }

    pid_t m_pid = -1;
    bool m_exited = false;
    int m_status = 0;
    int m_out = -1;
    int m_err = -1;
    int m_wake = -1;
    std::thread m_pump;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_lines;
    std::atomic<uint64_t> m_stdoutLines{0};
};

// The event nodes under /dev/input.
std::vector<std::string> EventNodes() {
    std::vector<std::string> nodes;
    DIR* dir = ::opendir("/dev/input");
    if (dir == nullptr) return nodes;
    while (dirent* entry = ::readdir(dir)) {
        if (std::strncmp(entry->d_name, "event", 5) == 0) {
            nodes.push_back(std::string("/dev/input/") + entry->d_name);
        }
    }
    ::closedir(dir);
    return nodes;
}

// The nodes whose device name starts with `prefix`.
std::vector<std::string> EventNodesNamed(const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& node : EventNodes()) {
        const int fd = ::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) continue;
        libevdev* device = nullptr;
        if (libevdev_new_from_fd(fd, &device) == 0 && libevdev_get_name(device) != nullptr &&
            std::string(libevdev_get_name(device)).rfind(prefix, 0) == 0) {
            found.push_back(node);
        }
        if (device != nullptr) libevdev_free(device);
        ::close(fd);
    }
    return found;
}

// ---------------------------------------------------------------------------------------------
// The driver's virtual input device, read by a thread of its own so that each report is stamped
// when it becomes readable.

class CEvdevReader {
public:
    ~CEvdevReader() {
        if (m_thread.joinable()) {
            const uint64_t one = 1;
            (void)!::write(m_wake, &one, sizeof one);
            m_thread.join();
        }
        if (m_device != nullptr) libevdev_free(m_device);
        if (m_fd >= 0) ::close(m_fd);
        if (m_wake >= 0) ::close(m_wake);
    }

    // Finds the event node whose device has this name, or a name starting with it when
    // `prefix` (node numbers are not fixed).
    bool Open(const std::string& name, int timeoutMs, std::string* error, bool prefix = false) {
        for (int waited = 0; waited <= timeoutMs; waited += 100) {
            if (TryOpen(name, prefix)) {
                Begin();
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        *error = "no event node named '" + name + (prefix ? "...'" : "'") + " under /dev/input";
        return false;
    }

    // Reads this node, whatever its device is called.
    bool OpenNode(const std::string& node, std::string* error) {
        if (!TryOpenNode(node, [](const std::string&) { return true; })) {
            *error = "cannot read " + node;
            return false;
        }
        Begin();
        return true;
    }

    const std::string& Node() const { return m_node; }
    std::string Name() const { return m_name; }
    // The axis as the device declared it (read when it was opened).
    input_absinfo AbsInfo(uint16_t code) const { return m_absInfo.count(code) ? m_absInfo.at(code) : input_absinfo{}; }

    // The reports read since the last call.
    std::vector<TEvPacket> Take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<TEvPacket> taken;
        taken.swap(m_packets);
        return taken;
    }

    bool WaitCount(size_t count, int timeoutMs) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return m_packets.size() >= count; });
    }

    // Waits until no report came for `quietMs` (at most `limitMs` in all).
    void WaitQuiet(int quietMs, int limitMs = 10'000) {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (int waited = 0; waited < limitMs; waited += quietMs) {
            const uint64_t before = m_total;
            m_changed.wait_for(lock, std::chrono::milliseconds(quietMs));
            if (m_total == before) return;
        }
    }

    // An expectation that starts from the axis and button state read so far.
    CEvdevExpectation Expectation() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        CEvdevExpectation expect;
        for (const auto& [code, value] : m_abs) expect.SetAbs(code, value);
        for (const auto& [code, down] : m_keys) expect.SetKey(code, down);
        return expect;
    }

    bool Dropped() const { return m_dropped.load(); }

    // Waits until the device went away (its node refuses reads); false on time-out.
    bool WaitGone(int timeoutMs) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return m_gone; });
    }

private:
    bool TryOpen(const std::string& name, bool prefix) {
        for (const std::string& node : EventNodes()) {
            if (TryOpenNode(node, [&](const std::string& named) {
                    return prefix ? named.rfind(name, 0) == 0 : named == name;
                })) {
                return true;
            }
        }
        return false;
    }

    bool TryOpenNode(const std::string& node,
                     const std::function<bool(const std::string&)>& wanted) {
        const int fd = ::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) return false;
        libevdev* device = nullptr;
        const char* named = nullptr;
        if (libevdev_new_from_fd(fd, &device) == 0) named = libevdev_get_name(device);
        if (named == nullptr || !wanted(named)) {
            if (device != nullptr) libevdev_free(device);
            ::close(fd);
            return false;
        }
        m_fd = fd;
        m_device = device;
        m_node = node;
        m_name = named;
        for (uint16_t code = 0; code <= ABS_MAX; ++code) {
            if (const input_absinfo* info = libevdev_get_abs_info(device, code)) {
                m_absInfo[code] = *info;
            }
        }
        return true;
    }

    void Begin() {
        m_wake = ::eventfd(0, EFD_CLOEXEC);
        m_thread = std::thread([this] { Run(); });
    }

    void Run() {
        pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wake, POLLIN, 0}};
        std::vector<TEvEvent> current;
        // When the report being read was found readable: taken at its first event, not at the
        // wake-up, since a reader held up in this loop also reads reports that came meanwhile.
        uint64_t readable = 0;
        for (;;) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[1].revents != 0) return;
            input_event ev{};
            for (;;) {
                int r = libevdev_next_event(m_device, LIBEVDEV_READ_FLAG_NORMAL, &ev);
                if (r == LIBEVDEV_READ_STATUS_SYNC) {
                    // Reports were lost in the kernel's buffer: the run cannot be judged.
                    m_dropped.store(true);
                    while (r == LIBEVDEV_READ_STATUS_SYNC) {
                        r = libevdev_next_event(m_device, LIBEVDEV_READ_FLAG_SYNC, &ev);
                    }
                    current.clear();
                    readable = 0;
                    continue;
                }
                if (r == -ENODEV) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_gone = true;
                    m_changed.notify_all();
                    return;
                }
                if (r != LIBEVDEV_READ_STATUS_SUCCESS) break;
                if (readable == 0) readable = NowNanos();
                if (ev.type == EV_SYN && ev.code == SYN_REPORT) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    for (const TEvEvent& e : current) {
                        if (e.type == EV_ABS) m_abs[e.code] = e.value;
                        if (e.type == EV_KEY) m_keys[e.code] = e.value != 0;
                    }
                    m_packets.push_back(TEvPacket{std::move(current), readable});
                    current.clear();
                    readable = 0;
                    ++m_total;
                    m_changed.notify_all();
                } else if (ev.type != EV_SYN && ev.type != EV_MSC) {
                    current.push_back({ev.type, ev.code, ev.value});
                }
            }
        }
    }

    int m_fd = -1;
    int m_wake = -1;
    libevdev* m_device = nullptr;
    std::string m_node;
    std::thread m_thread;
    std::string m_name;
    std::map<uint16_t, input_absinfo> m_absInfo;
    std::atomic<bool> m_dropped{false};
    bool m_gone = false;  // guarded by m_mutex
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<TEvPacket> m_packets;
    uint64_t m_total = 0;
    std::map<uint16_t, int32_t> m_abs;
    std::map<uint16_t, bool> m_keys;
};

// ---------------------------------------------------------------------------------------------
// libinput's own view of a device: libinput-debug-events run on its node, its lines parsed.

struct TLibinputEvent {
    std::string type;  // "DEVICE_ADDED", "TOUCH_DOWN", "TOUCH_FRAME", ...
    int slot = -1;     // touch events but TOUCH_FRAME
    double xMm = 0;    // TOUCH_DOWN and TOUCH_MOTION
    double yMm = 0;
    std::string rest;  // what follows the type
};

// One line of libinput-debug-events: "-event1   DEVICE_ADDED   name ...",
// " event1   TOUCH_DOWN   +0.174s	0 (0) 15.26/15.26 (185.15/104.15mm)", " event1   TOUCH_UP ...
// 0 (0)". Log lines and colour codes come through too; nothing for them.
std::optional<TLibinputEvent> ParseLibinputLine(const std::string& raw) {
    std::string line;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\033') {
            while (i < raw.size() && raw[i] != 'm') ++i;  // a colour code
            continue;
        }
        line += raw[i];
    }
    char node[32], type[32];
    int used = 0;
    if (std::sscanf(line.c_str(), " %31s %31s %n", node, type, &used) != 2) return std::nullopt;
    const std::string device = node[0] == '-' ? node + 1 : node;
    if (device.rfind("event", 0) != 0) return std::nullopt;
    TLibinputEvent event;
    event.type = type;
    event.rest = line.substr(static_cast<size_t>(used));
    if (event.type.rfind("TOUCH_", 0) == 0 && event.type != "TOUCH_FRAME") {
        double seconds = 0;
        int seat = 0;
        if (std::sscanf(event.rest.c_str(), "+%lfs %d (%d)", &seconds, &event.slot, &seat) != 3) {
            return std::nullopt;
        }
        if (event.type == "TOUCH_DOWN" || event.type == "TOUCH_MOTION") {
            const size_t open = event.rest.rfind('(');
            if (open == std::string::npos ||
                std::sscanf(event.rest.c_str() + open, "(%lf/%lfmm)", &event.xMm, &event.yMm) !=
                    2) {
                return std::nullopt;
            }
        }
    }
    return event;
}

class CLibinputEvents {
public:
    ~CLibinputEvents() { Stop(); }

    bool Start(const std::string& program, const std::string& node, std::string* error) {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            *error = std::string("pipe: ") + std::strerror(errno);
            return false;
        }
        m_pid = ::fork();
        if (m_pid < 0) {
            *error = std::string("fork: ") + std::strerror(errno);
            return false;
        }
        if (m_pid == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::dup2(out[1], STDERR_FILENO);
            ::execl(program.c_str(), program.c_str(), "--device", node.c_str(),
                    static_cast<char*>(nullptr));
            std::fprintf(stderr, "cannot run %s: %s\n", program.c_str(), std::strerror(errno));
            ::_exit(127);
        }
        ::close(out[1]);
        m_out = out[0];
        m_thread = std::thread([this] { Pump(); });
        return true;
    }

    // Waits until `count` events of `type` came; false on time-out or when libinput ended.
    bool WaitFor(const std::string& type, size_t count, int timeoutMs) {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto enough = [&] {
            return static_cast<size_t>(std::count_if(
                       m_events.begin(), m_events.end(),
                       [&](const TLibinputEvent& e) { return e.type == type; })) >= count;
        };
        m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return enough() || m_ended; });
        return enough();
    }

    // SIGINT: libinput-debug-events leaves its loop; every line it printed is read.
    void Stop() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGINT);
            int status = 0;
            for (int waited = 0; waited < 5'000; waited += 20) {
                if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                    m_pid = -1;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            if (m_pid > 0) {
                ::kill(m_pid, SIGKILL);
                ::waitpid(m_pid, &status, 0);
                m_pid = -1;
            }
        }
        if (m_thread.joinable()) m_thread.join();
        if (m_out >= 0) ::close(m_out);
        m_out = -1;
    }

    std::vector<TLibinputEvent> Events() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    // The touch events (frames included), in order.
    std::vector<TLibinputEvent> Touches() const {
        std::vector<TLibinputEvent> touches;
        for (const TLibinputEvent& e : Events()) {
            if (e.type.rfind("TOUCH_", 0) == 0) touches.push_back(e);
        }
        return touches;
    }

private:
    void Pump() {
        std::string partial;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(m_out, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            partial.append(buffer, static_cast<size_t>(n));
            size_t end;
            while ((end = partial.find('\n')) != std::string::npos) {
                const std::string line = partial.substr(0, end);
                partial.erase(0, end + 1);
                if (line.empty()) continue;
                Say("  libinput| %s", line.c_str());
                if (std::optional<TLibinputEvent> event = ParseLibinputLine(line)) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_events.push_back(std::move(*event));
                    m_changed.notify_all();
                }
            }
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    pid_t m_pid = -1;
    int m_out = -1;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<TLibinputEvent> m_events;
    bool m_ended = false;
};

// ---------------------------------------------------------------------------------------------
// Cases

struct TResult {
    bool pass;
    std::string detail;
};

TResult Pass(std::string detail) { return {true, std::move(detail)}; }
TResult Fail(std::string detail) { return {false, std::move(detail)}; }

using TFrame = std::unique_ptr<CMtEmuUhidFrame>;

struct TContext {
    std::string uhidPath = "/dev/uhid";
    int latencyFrames = 300;
    CSimFrameEncoder* encoder = nullptr;
    CDriverProcess* driver = nullptr;
    CEvdevReader* reader = nullptr;
    TFrame a, b, c, d, e, f;  // the emulated frames, in the order the cases plug them in
};

std::string Str(int64_t v) { return std::to_string(v); }

TFrame MakeFrame(const CSimFrameEncoder& encoder, uint16_t vendor, uint16_t product,
                 const std::string& name) {
    TUhidIdentity identity;
    identity.vendor = vendor;
    identity.product = product;
    identity.name = name;
    return std::make_unique<CMtEmuUhidFrame>(encoder, identity);
}

// Plugs a frame in; empty on success, else why not.
std::string Plug(const std::string& uhidPath, CMtEmuUhidFrame& frame) {
    std::string error;
    if (!frame.Plug(uhidPath, &error)) return frame.Identity().name + ": " + error;
    return "";
}

std::string Plug(TContext& ctx, CMtEmuUhidFrame& frame) {
    return Plug(ctx.uhidPath, frame);
}

// Waits until the driver holds the frame open and has polled it several times.
std::string WaitServed(CMtEmuUhidFrame& frame) {
    if (!frame.Link().WaitUntil([](const TUhidLinkState& s) { return s.open; }, kAppearMs)) {
        return frame.Identity().name + " was never opened (no UHID_OPEN)";
    }
    if (!frame.WaitPollsAbove(kPollsSeen, kAppearMs)) {
        CMtEmuUhidLink& link = frame.Link();
        return frame.Identity().name + " was opened but polled only " + Str(frame.Polls()) +
               " times (" + Str(link.OutputReports()) + " output reports, " +
               Str(link.Rejected()) + " rejected)";
    }
    return "";
}

// Plays a script on a frame and waits for its events: the reports read until the driver has
// been quiet for a while after the script's end.
bool PlayAndCollect(TContext& ctx, CMtEmuUhidFrame& frame, const std::string& text,
                    size_t expectedReports, std::vector<TEvPacket>* seen, std::string* why) {
    CGestureScript script;
    if (!CGestureScript::Parse(text, &script, why)) return false;
    if (!frame.Play(script)) {
        *why = frame.Identity().name + " would not play the script";
        return false;
    }
    if (!frame.WaitPlayed(kPlayMs)) {
        *why = frame.Identity().name + " did not finish the script (" + Str(frame.FramesSent()) +
               " of " + Str(script.Frames().size()) + " frames sent)";
        return false;
    }
    ctx.reader->WaitCount(expectedReports, kEventsMs);
    ctx.reader->WaitQuiet(kQuietMs);
    *seen = ctx.reader->Take();
    return true;
}

// Before a case: let the previous one settle and forget its reports.
void Settle(TContext& ctx) {
    ctx.reader->WaitQuiet(kQuietMs);
    ctx.reader->Take();
}

TResult Judge(const CEvdevExpectation& expect, const std::vector<TEvPacket>& seen,
              const std::string& what) {
    const std::string diff = CompareEvdev(expect.Packets(), seen);
    if (!diff.empty()) return Fail(diff);
    return Pass(what);
}

// A frame present before the driver started is found by enumeration; without udevd the driver
// listens to the kernel's own uevents.
TResult CaseFrameAtStart(TContext& ctx) {
    if (!ctx.driver->WaitForLines("discovery through udev (kernel events)", 1, 0, kAppearMs)) {
        return Fail("the driver did not fall back to the kernel's uevents without udevd");
    }
    if (std::string why = WaitServed(*ctx.a); !why.empty()) return Fail(why);
    if (!ctx.driver->WaitForLines("STEP 5", 1, 0, kAppearMs)) {
        return Fail("the worker never reached STEP 5");
    }
    if (ctx.driver->CountLines("hid add") != 1) {
        return Fail("expected one 'hid add', saw " + Str(ctx.driver->CountLines("hid add")));
    }
    return Pass("found by enumeration, kernel uevents watched, opened, " +
                Str(ctx.a->Polls()) + " frames polled");
}

// A fresh container arms on the first frame of a touch, presses on the next and releases on the
// lift, at the touch's place.
TResult CaseTap(TContext& ctx) {
    Settle(ctx);
    CEvdevExpectation expect = ctx.reader->Expectation();
    expect.Pointer(8000, 9000, kAbs, {{BTN_LEFT, true}})
        .Pointer(8000, 9000, kAbs, {{BTN_LEFT, false}});
    std::vector<TEvPacket> seen;
    std::string why;
    if (!PlayAndCollect(ctx, *ctx.a, "rate 50\ndown 1 8000 9000\nhold 2\nup 1\n",
                        expect.Packets().size(), &seen, &why)) {
        return Fail(why);
    }
    return Judge(expect, seen, "BTN_LEFT pressed and released at ABS (8000, 9000)");
}

// The next one-finger touch presses on its first frame, drags through every position and
// releases at the last.
TResult CaseDrag(TContext& ctx) {
    Settle(ctx);
    CEvdevExpectation expect = ctx.reader->Expectation();
    expect.Pointer(4000, 4000, kAbs, {{BTN_LEFT, true}});
    for (int x = 5000; x <= 12000; x += 1000) expect.Pointer(x, 4000, kAbs);
    expect.Pointer(12000, 4000, kAbs, {{BTN_LEFT, false}});
    std::vector<TEvPacket> seen;
    std::string why;
    if (!PlayAndCollect(ctx, *ctx.a, "rate 50\ndown 1 4000 4000\nmove 1 12000 4000 in 8\nup 1\n",
                        expect.Packets().size(), &seen, &why)) {
        return Fail(why);
    }
    return Judge(expect, seen,
                 "pressed at ABS (4000, 4000), 8 moves to 12000 with the button held, released");
}

// A frame plugged in while the driver runs arrives through the kernel's uevent.
TResult CasePluggedLater(TContext& ctx, TFrame& frame, const char* what) {
    const size_t adds = ctx.driver->CountLines("hid add");
    if (std::string why = Plug(ctx, *frame); !why.empty()) return Fail(why);
    if (std::string why = WaitServed(*frame); !why.empty()) return Fail(why);
    if (ctx.driver->CountLines("hid add") != adds + 1) {
        return Fail("expected one more 'hid add' line");
    }
    return Pass(std::string(what) + " added from the uevent, opened, " + Str(frame->Polls()) +
                " frames polled");
}

// Two fingers down 500 units scroll by a tenth of it: 50 pixels, one detent of 120 hi-res
// units, positive (wheel up) as the fingers move down the screen; back up 500 from where the
// paths restarted, one detent the other way. The scroll fires on the last frame before the
// lift, so the lift itself is no gesture.
constexpr const char* kScrollScript =
    "rate 50\n"
    "down 1 10000 8000, 2 14000 8000\n"
    "move 1 10000 8500, 2 14000 8500 in 5\n"
    "move 1 10000 7900, 2 14000 7900 in 6\n"
    "up 1, 2\n";

TResult CaseScroll(TContext& ctx) {
    Settle(ctx);
    CEvdevExpectation expect = ctx.reader->Expectation();
    expect.Wheel(120, 1).Wheel(-120, -1);
    std::vector<TEvPacket> seen;
    std::string why;
    if (!PlayAndCollect(ctx, *ctx.b, kScrollScript, expect.Packets().size(), &seen, &why)) {
        return Fail(why);
    }
    return Judge(expect, seen, "REL_WHEEL +1 (hi-res +120) moving down, -1 (-120) moving up");
}

// Four fingers sweeping 1000 units together post their crossed Control-arrow once per touch;
// the default key profile presses its chord for that sweep, then releases it in reverse.
std::string FourFingerSweep(int dx, int dy) {
    const int start[4][2] = {{10000, 10000}, {14000, 10000}, {10000, 14000}, {14000, 14000}};
    std::string down = "down", move = "move", up = "up";
    for (int i = 0; i < 4; ++i) {
        const std::string id = Str(i + 1);
        down += (i ? ", " : " ") + id + " " + Str(start[i][0]) + " " + Str(start[i][1]);
        move += (i ? ", " : " ") + id + " " + Str(start[i][0] + dx) + " " + Str(start[i][1] + dy);
        up += (i ? ", " : " ") + id;
    }
    return "rate 50\n" + down + "\n" + move + " in 10\n" + up + "\n";
}

TResult CaseSwipe(TContext& ctx) {
    Settle(ctx);
    CEvdevExpectation expect = ctx.reader->Expectation();
    const TEvdevChord chord = ProfileChord(kDefaultKeyProfile, TGestureShortcut::FourFingerLeft);
    expect.Chord(chord.modifiers, chord.key);
    std::vector<TEvPacket> seen;
    std::string why;
    if (!PlayAndCollect(ctx, *ctx.c, FourFingerSweep(-1000, 0), expect.Packets().size(), &seen,
                        &why)) {
        return Fail(why);
    }
    return Judge(expect, seen, "four fingers left: " + FormatChord(chord) + " pressed, released");
}

// The frame goes while a finger holds the button down: the driver releases it where it is, forgets
// the frame and goes on serving the others.
TResult CaseUnplugHeld(TContext& ctx) {
    Settle(ctx);
    CEvdevExpectation expect = ctx.reader->Expectation();
    // The previous touch left the container in one-finger mode: this one presses at once.
    expect.Pointer(20000, 20000, kAbs, {{BTN_LEFT, true}});
    for (int x = 20500; x <= 22000; x += 500) expect.Pointer(x, 20000, kAbs);
    const size_t held = expect.Packets().size();

    CGestureScript script;
    std::string why;
    if (!CGestureScript::Parse("rate 50\ndown 1 20000 20000\nmove 1 22000 20000 in 4\nhold 3000\n",
                               &script, &why)) {
        return Fail(why);
    }
    if (!ctx.a->Play(script)) return Fail("frame A would not play the script");
    ctx.reader->WaitCount(held, kEventsMs);
    ctx.reader->WaitQuiet(kQuietMs);
    std::vector<TEvPacket> seen = ctx.reader->Take();
    if (std::string diff = CompareEvdev(expect.Packets(), seen); !diff.empty()) {
        return Fail("before the unplug: " + diff);
    }
    if (!ctx.a->Playing()) return Fail("the hold ended before the unplug");

    // The release lifts the button where the finger was: the pointer does not move. A hold
    // frame the worker still had in hand may press again after the removal released; the
    // worker releases once more as it ends. So the state is judged once the worker ended.
    const size_t lines = ctx.driver->LineCount();
    ctx.a->Unplug();
    for (const char* line : {"remove", "TOUCH DEV RELEASE", "THREAD QUIT"}) {
        if (!ctx.driver->WaitForLines(line, 1, lines, kAppearMs)) {
            return Fail(std::string("no '") + line + "' after the unplug");
        }
    }
    ctx.reader->WaitCount(1, kEventsMs);
    ctx.reader->WaitQuiet(kQuietMs);
    seen = ctx.reader->Take();
    const std::vector<TEvEvent> buttonUp = {{EV_KEY, BTN_LEFT, 0}};
    if (seen.empty() || seen.front().events != buttonUp) {
        return Fail("after the unplug: expected the report [BTN_LEFT 0] first, saw " +
                    (seen.empty() ? std::string("none") : DescribePacket(seen.front().events)));
    }
    bool buttonDown = true;
    for (const TEvPacket& packet : seen) {
        for (const TEvEvent& e : packet.events) {
            if (e.type == EV_ABS) return Fail("the pointer moved after the unplug: " +
                                              DescribePacket(packet.events));
            if (e.type == EV_KEY && e.code == BTN_LEFT) buttonDown = e.value != 0;
        }
    }
    if (buttonDown) return Fail("BTN_LEFT is still down once the frame's worker ended");
    if (!ctx.driver->Running()) return Fail("the driver ended with the frame");
    // The gone frame's node is given back: an open one keeps its hidraw number taken.
    if (const auto held = ctx.driver->DeletedHidrawHandles(); !held.empty()) {
        return Fail("the driver still holds " + held.front() + " open");
    }
    // The driver goes on: another frame still gets polled.
    const uint64_t polls = ctx.b->Polls();
    if (!ctx.b->WaitPollsAbove(polls + kPollsSeen, kAppearMs)) {
        return Fail("frame B is no longer polled after frame A went");
    }
    return Pass("held through 4 moves; the unplug released BTN_LEFT where the finger was; "
                "remove, TOUCH DEV RELEASE, THREAD QUIT; its node closed; frame B still polled");
}

// Two identical frames at once, each with a worker and a container of its own: one scrolls
// while the other sweeps, and the reports of each come out whole and in order.
TResult CaseTwoFrames(TContext& ctx) {
    Settle(ctx);
    const size_t adds = ctx.driver->CountLines("hid add");
    for (TFrame* frame : {&ctx.d, &ctx.e}) {
        if (std::string why = Plug(ctx, **frame); !why.empty()) return Fail(why);
    }
    for (TFrame* frame : {&ctx.d, &ctx.e}) {
        if (std::string why = WaitServed(**frame); !why.empty()) return Fail(why);
    }
    if (ctx.driver->CountLines("hid add") != adds + 2) return Fail("expected two more 'hid add'");

    CEvdevExpectation wheel = ctx.reader->Expectation();
    wheel.Wheel(120, 1).Wheel(-120, -1);
    CEvdevExpectation keys = ctx.reader->Expectation();
    const TEvdevChord up = ProfileChord(kDefaultKeyProfile, TGestureShortcut::FourFingerUp);
    keys.Chord(up.modifiers, up.key);

    CGestureScript scroll, sweep;
    std::string why;
    if (!CGestureScript::Parse(kScrollScript, &scroll, &why) ||
        !CGestureScript::Parse(FourFingerSweep(0, -1000), &sweep, &why)) {
        return Fail(why);
    }
    if (!ctx.d->Play(scroll) || !ctx.e->Play(sweep)) return Fail("a frame would not play");
    if (!ctx.d->WaitPlayed(kPlayMs) || !ctx.e->WaitPlayed(kPlayMs)) {
        return Fail("a script did not finish");
    }
    const size_t total = wheel.Packets().size() + keys.Packets().size();
    ctx.reader->WaitCount(total, kEventsMs);
    ctx.reader->WaitQuiet(kQuietMs);
    const std::vector<TEvPacket> seen = ctx.reader->Take();
    if (std::string diff = CompareEvdev(wheel.Packets(), PacketsOfType(seen, EV_REL));
        !diff.empty()) {
        return Fail("frame D (scroll): " + diff);
    }
    if (std::string diff = CompareEvdev(keys.Packets(), PacketsOfType(seen, EV_KEY));
        !diff.empty()) {
        return Fail("frame E (sweep up): " + diff);
    }
    if (seen.size() != total) {
        return Fail("expected " + Str(static_cast<int64_t>(total)) + " reports in all, saw " +
                    Str(static_cast<int64_t>(seen.size())));
    }
    return Pass("frame D: REL_WHEEL +1 then -1; frame E: " + FormatChord(up) +
                "; interleaved, each whole");
}

// A frame that stops answering: six polls in a row time out, its worker closes it and ends;
// meanwhile the other frame's touch comes through.
TResult CaseStopsAnswering(TContext& ctx) {
    Settle(ctx);
    if (std::string why = Plug(ctx, *ctx.f); !why.empty()) return Fail(why);
    if (std::string why = WaitServed(*ctx.f); !why.empty()) return Fail(why);
    const size_t lines = ctx.driver->LineCount();

    // Frame D's last touch was a scroll, whose lift left one-finger mode armed: this touch
    // presses on its first frame.
    CEvdevExpectation expect = ctx.reader->Expectation();
    expect.Pointer(6000, 7000, kAbs, {{BTN_LEFT, true}})
        .Pointer(6000, 7000, kAbs, {{BTN_LEFT, false}});
    ctx.f->Link().SetAnswering(false);
    std::vector<TEvPacket> seen;
    std::string why;
    if (!PlayAndCollect(ctx, *ctx.d, "rate 50\ndown 1 6000 7000\nhold 2\nup 1\n",
                        expect.Packets().size(), &seen, &why)) {
        return Fail(why);
    }
    if (std::string diff = CompareEvdev(expect.Packets(), seen); !diff.empty()) {
        return Fail("frame D while F is silent: " + diff);
    }
    CMtEmuUhidLink& link = ctx.f->Link();
    if (!link.WaitUntil([](const TUhidLinkState& s) { return s.closes > 0; }, kAppearMs)) {
        return Fail("frame F was never closed (" + Str(link.Unanswered()) + " polls unanswered)");
    }
    if (!ctx.driver->WaitForLines("pDev->faildCount==0", 1, lines, kAppearMs)) {
        return Fail("no 'pDev->faildCount==0' line");
    }
    // Six frame polls went unanswered; then the worker closed the device, whose close
    // command goes unanswered too.
    // A command packet names the position of its command byte in byte 5.
    auto command = [](const std::vector<uint8_t>& r) -> int {
        return r.size() > 5 && r[5] < r.size() ? r[r[5]] : -1;
    };
    size_t polls = 0, others = 0;
    const std::vector<std::vector<uint8_t>> dropped = link.UnansweredReports();
    for (const std::vector<uint8_t>& r : dropped) {
        (command(r) == MTDEV_CMD_FRAME_SDK ? polls : others) += 1;
    }
    const bool closed = !dropped.empty() && command(dropped.back()) == MTDEV_CMD_CLOSE;
    if (polls != 6 || others != 1 || !closed) {
        return Fail("expected 6 unanswered frame polls and then the close command, saw " +
                    Str(polls) + " polls and " + Str(others) + " other reports");
    }
    const size_t errors = ctx.driver->CountLines("getsdk->err", lines);
    if (errors != 6) return Fail("expected 6 'getsdk->err' lines, saw " + Str(errors));
    const uint64_t dPolls = ctx.d->Polls();
    if (!ctx.d->WaitPollsAbove(dPolls + kPollsSeen, kAppearMs)) {
        return Fail("frame D is no longer polled");
    }
    if (!ctx.driver->Running()) return Fail("the driver ended");
    return Pass("6 frame polls unanswered, the close command, UHID_CLOSE, its worker ended; "
                "frame D's touch pressed and released BTN_LEFT at ABS (6000, 7000) meanwhile, "
                "and D is still polled");
}

// Where frame D's sent reports go while the latency case runs (frame D's hook is set once,
// before it is plugged in, and reads this on the link's thread).
using TSentRecorder = std::function<void(size_t frameIndex, uint64_t nanos)>;
std::atomic<TSentRecorder*> g_latencyRecorder{nullptr};

// One finger dragged across a few hundred frames: every frame's position comes out, and the time
// from the frame report's write to its event being readable is measured for each.
TResult CaseLatency(TContext& ctx) {
    Settle(ctx);
    const int n = ctx.latencyFrames;
    const int x0 = 5000, y = 16000, step = 50;
    // Frame D's last touch released the button in one-finger mode: this one presses at once.
    CEvdevExpectation expect = ctx.reader->Expectation();
    expect.Pointer(x0, y, kAbs, {{BTN_LEFT, true}});
    for (int k = 1; k <= n; ++k) expect.Pointer(x0 + step * k, y, kAbs);
    expect.Pointer(x0 + step * n, y, kAbs, {{BTN_LEFT, false}});

    std::mutex sentMutex;
    std::vector<uint64_t> sent(static_cast<size_t>(n) + 2, 0);
    TSentRecorder record = [&](size_t index, uint64_t nanos) {
        std::lock_guard<std::mutex> lock(sentMutex);
        if (index < sent.size()) sent[index] = nanos;
    };
    g_latencyRecorder.store(&record);

    std::vector<TEvPacket> seen;
    std::string why;
    const std::string script = "rate 50\ndown 1 " + Str(x0) + " " + Str(y) + "\nmove 1 " +
                               Str(x0 + step * n) + " " + Str(y) + " in " + Str(n) + "\nup 1\n";
    const bool played =
        PlayAndCollect(ctx, *ctx.d, script, expect.Packets().size(), &seen, &why);
    g_latencyRecorder.store(nullptr);
    if (!played) return Fail(why);
    if (std::string diff = CompareEvdev(expect.Packets(), seen); !diff.empty()) return Fail(diff);

    // Report k comes from scripted frame k: the press from the first, each move from its
    // frame, the release from the lift.
    std::vector<double> micros;
    {
        std::lock_guard<std::mutex> lock(sentMutex);
        for (size_t k = 0; k < seen.size() && k < sent.size(); ++k) {
            if (sent[k] == 0 || seen[k].readNanos < sent[k]) continue;
            micros.push_back(static_cast<double>(seen[k].readNanos - sent[k]) / 1000.0);
        }
    }
    if (micros.size() != seen.size()) {
        return Fail("only " + Str(static_cast<int64_t>(micros.size())) + " of " +
                    Str(static_cast<int64_t>(seen.size())) + " reports could be timed");
    }
    std::sort(micros.begin(), micros.end());
    const double median = micros[micros.size() / 2];
    const double p99 = micros[std::min(micros.size() - 1, (micros.size() * 99) / 100)];
    Say("LATENCY frames=%zu median_us=%.0f p99_us=%.0f max_us=%.0f", micros.size(), median, p99,
        micros.back());
    char text[200];
    std::snprintf(text, sizeof text,
                  "%zu frames, every position out in order; frame report written to event "
                  "readable: median %.2f ms, p99 %.2f ms",
                  micros.size(), median / 1000.0, p99 / 1000.0);
    return Pass(text);
}

// SIGTERM ends the driver in order.
TResult CaseOrderlyEnd(TContext& ctx) {
    const size_t lines = ctx.driver->LineCount();
    const std::optional<int> status = ctx.driver->Stop(30'000);
    if (!status) return Fail("the driver did not end within 30 s of SIGTERM");
    if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
        return Fail("the driver ended with wait status " + Str(*status));
    }
    if (ctx.driver->CountLines("SIGTERM", lines) == 0) return Fail("no SIGTERM line");
    return Pass("exit status 0 after SIGTERM");
}

// ---------------------------------------------------------------------------------------------
// The touchscreen output: a second driver with only the touchscreen on and udevd running, so
// that libinput takes its devices as a desktop would; the kernel's own hid-multitouch is the
// yardstick of its latency.

constexpr const char* kTouchscreenPrefix = "irframe touchscreen";
constexpr const char* kLibinputDebugEvents = "/usr/libexec/libinput/libinput-debug-events";
constexpr const char* kNativeName = "native digitizer";

struct TLatency {
    size_t frames = 0;
    double median = 0;  // microseconds
    double p99 = 0;
    double max = 0;
};

TLatency Summarize(std::vector<double> micros) {
    TLatency l;
    if (micros.empty()) return l;
    std::sort(micros.begin(), micros.end());
    l.frames = micros.size();
    l.median = micros[micros.size() / 2];
    l.p99 = micros[std::min(micros.size() - 1, (micros.size() * 99) / 100)];
    l.max = micros.back();
    return l;
}

// Report k read `seen[k].readNanos`, its cause was written at `sent[k]`.
std::vector<double> Delays(const std::vector<TEvPacket>& seen, const std::vector<uint64_t>& sent) {
    std::vector<double> micros;
    for (size_t k = 0; k < seen.size() && k < sent.size(); ++k) {
        if (sent[k] == 0 || seen[k].readNanos < sent[k]) continue;
        micros.push_back(static_cast<double>(seen[k].readNanos - sent[k]) / 1000.0);
    }
    return micros;
}

struct TTouchContext {
    std::string uhidPath;
    std::string libinput;  // the libinput-debug-events program
    int latencyFrames = 200;
    CDriverProcess* driver = nullptr;
    CMtEmuUhidFrame* t = nullptr;  // served through the whole phase
    CMtEmuUhidFrame* u = nullptr;  // plugged in and out by the unplug case
    CMtEmuUhidFrame* p = nullptr;  // a frame of two areas, for the per-area case
    const CSimFrameEncoder* encoder = nullptr;
    CEvdevReader* reader = nullptr;  // frame T's touchscreen
    CMtSlotTrace trace;              // every report read from it so far
    TMtState last;                   // the state after the last of them
};

// The states after the reports read since the last call (and they are forgotten).
std::vector<TMtState> TakeStates(CEvdevReader& reader, CMtSlotTrace& trace, TMtState* last,
                                 std::vector<TEvPacket>* reports = nullptr) {
    std::vector<TEvPacket> seen = reader.Take();
    std::vector<TMtState> states;
    for (const TEvPacket& p : seen) states.push_back(trace.Feed(p.events));
    if (!states.empty() && last != nullptr) *last = states.back();
    if (reports != nullptr) *reports = std::move(seen);
    return states;
}

// Each report's touches, slot by slot.
using TTouches = std::vector<TMtTouch>;

// What a reader must hold after each report: the touches, BTN_TOUCH while any is down and the
// single-touch axes at the oldest touch (the smallest tracking id here: ids only grow).
std::vector<TMtState> ExpectedStates(const std::vector<TTouches>& reports, TMtState last) {
    std::vector<TMtState> states;
    for (const TTouches& touches : reports) {
        last.touches = touches;
        last.touching = !touches.empty();
        if (!touches.empty()) {
            const TMtTouch& oldest = *std::min_element(
                touches.begin(), touches.end(),
                [](const TMtTouch& a, const TMtTouch& b) { return a.trackingId < b.trackingId; });
            last.x = oldest.x;
            last.y = oldest.y;
        }
        states.push_back(last);
    }
    return states;
}

// What libinput makes of the same reports: slot by slot a down, a motion or an up, and a frame
// after each report that changed anything.
std::vector<TLibinputEvent> ExpectedLibinput(const std::vector<TTouches>& reports,
                                             const std::function<double(int32_t)>& xMm,
                                             const std::function<double(int32_t)>& yMm) {
    std::vector<TLibinputEvent> events;
    TTouches before;
    auto find = [](const TTouches& touches, int slot) -> const TMtTouch* {
        for (const TMtTouch& t : touches) {
            if (t.slot == slot) return &t;
        }
        return nullptr;
    };
    for (const TTouches& now : reports) {
        const size_t start = events.size();
        for (int slot = 0; slot < kTouchscreenMaxSlots; ++slot) {
            const TMtTouch* was = find(before, slot);
            const TMtTouch* is = find(now, slot);
            if (was != nullptr && (is == nullptr || is->trackingId != was->trackingId)) {
                events.push_back({"TOUCH_UP", slot, 0, 0, ""});
            }
            if (is != nullptr && (was == nullptr || is->trackingId != was->trackingId)) {
                events.push_back({"TOUCH_DOWN", slot, xMm(is->x), yMm(is->y), ""});
            } else if (is != nullptr && (is->x != was->x || is->y != was->y)) {
                events.push_back({"TOUCH_MOTION", slot, xMm(is->x), yMm(is->y), ""});
            }
        }
        if (events.size() > start) events.push_back({"TOUCH_FRAME", -1, 0, 0, ""});
        before = now;
    }
    return events;
}

std::string DescribeLibinput(const TLibinputEvent& e) {
    char text[96];
    if (e.type == "TOUCH_DOWN" || e.type == "TOUCH_MOTION") {
        std::snprintf(text, sizeof text, "%s %d (%.2f/%.2fmm)", e.type.c_str(), e.slot, e.xMm,
                      e.yMm);
    } else if (e.slot >= 0) {
        std::snprintf(text, sizeof text, "%s %d", e.type.c_str(), e.slot);
    } else {
        std::snprintf(text, sizeof text, "%s", e.type.c_str());
    }
    return text;
}

std::string CompareLibinput(const std::vector<TLibinputEvent>& expected,
                            const std::vector<TLibinputEvent>& seen, double toleranceMm) {
    for (size_t i = 0; i < std::min(expected.size(), seen.size()); ++i) {
        const TLibinputEvent& w = expected[i];
        const TLibinputEvent& g = seen[i];
        const bool same = w.type == g.type && w.slot == g.slot &&
                          std::abs(w.xMm - g.xMm) <= toleranceMm &&
                          std::abs(w.yMm - g.yMm) <= toleranceMm;
        if (!same) {
            return "libinput event " + Str(static_cast<int64_t>(i + 1)) + " of " +
                   Str(static_cast<int64_t>(expected.size())) + ": expected " +
                   DescribeLibinput(w) + ", saw " + DescribeLibinput(g);
        }
    }
    if (expected.size() != seen.size()) {
        const size_t common = std::min(expected.size(), seen.size());
        return "expected " + Str(static_cast<int64_t>(expected.size())) +
               " libinput touch events, saw " + Str(static_cast<int64_t>(seen.size())) +
               (seen.size() > common ? "; the first extra is " + DescribeLibinput(seen[common])
                                     : "; the first missing is " +
                                           DescribeLibinput(expected[common]));
    }
    return "";
}

// libinput takes only devices that udev tagged; its input_id builtin must have called this
// one a touchscreen, and not a mouse (GNOME would take it for a pointer).
std::string WaitTouchscreenTag(const std::string& node) {
    struct stat st {};
    if (::stat(node.c_str(), &st) != 0) return "cannot stat " + node;
    const std::string path = "/run/udev/data/c" + Str(major(st.st_rdev)) + ":" +
                             Str(minor(st.st_rdev));
    std::string text;
    for (int waited = 0; waited <= kAppearMs; waited += 100) {
        text.clear();
        if (FILE* f = std::fopen(path.c_str(), "r")) {
            char line[256];
            while (std::fgets(line, sizeof line, f) != nullptr) text += line;
            std::fclose(f);
        }
        if (text.find("E:ID_INPUT_TOUCHSCREEN=1") != std::string::npos) {
            if (text.find("E:ID_INPUT_MOUSE=1") == std::string::npos) return "";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (char& c : text) c = c == '\n' ? ' ' : c;
    return "udev did not tag " + node + " ID_INPUT_TOUCHSCREEN=1 alone (" + path + ": " +
           (text.empty() ? std::string("none") : text) + ")";
}

// Starts libinput on a node and waits until it has taken the device as a touchscreen of the
// configured size.
std::string StartLibinput(TTouchContext& t, CLibinputEvents& li, const CEvdevReader& reader) {
    std::string error;
    if (!li.Start(t.libinput, reader.Node(), &error)) return "libinput: " + error;
    if (!li.WaitFor("DEVICE_ADDED", 1, kAppearMs)) {
        return "libinput did not add " + reader.Node();
    }
    std::string added;
    for (const TLibinputEvent& e : li.Events()) {
        if (e.type == "DEVICE_ADDED") added = e.rest;
    }
    if (added.find("cap:t") == std::string::npos) {
        return "libinput added it without the touch capability: " + added;
    }
    // The size libinput reads from the axes' resolution, against the default size.
    int w = 0, h = 0;
    const size_t at = added.find(" size ");
    const TTouchscreenSize size;
    if (at == std::string::npos || std::sscanf(added.c_str() + at, " size %dx%dmm", &w, &h) != 2 ||
        std::abs(w - size.widthMm) * 100 > size.widthMm ||
        std::abs(h - size.heightMm) * 100 > size.heightMm) {
        return "libinput's size is not " + Str(size.widthMm) + "x" + Str(size.heightMm) +
               " mm within 1%: " + added;
    }
    return "";
}

struct TMillimetres {
    std::function<double(int32_t)> x, y;
    double tolerance;  // the positions' tolerance, in millimetres
};

TMillimetres Millimetres(const CEvdevReader& reader) {
    const input_absinfo ax = reader.AbsInfo(ABS_MT_POSITION_X);
    const input_absinfo ay = reader.AbsInfo(ABS_MT_POSITION_Y);
    const double rx = std::max(1, ax.resolution), ry = std::max(1, ay.resolution);
    return {[=](int32_t v) { return (v - ax.minimum) / rx; },
            [=](int32_t v) { return (v - ay.minimum) / ry; },
            (kAbs + 0.5) / std::min(rx, ry) + 0.01};
}

// Two fingers down, moving, lifted one after the other, then a third touch in the freed slot:
// the slots, tracking ids and positions on the node, and libinput's downs, motions and ups.
TResult CaseTouchscreenTwoFingers(TTouchContext& t) {
    if (std::string why = WaitTouchscreenTag(t.reader->Node()); !why.empty()) return Fail(why);
    CLibinputEvents li;
    if (std::string why = StartLibinput(t, li, *t.reader); !why.empty()) return Fail(why);
    t.reader->WaitQuiet(kQuietMs);
    TakeStates(*t.reader, t.trace, &t.last);

    std::vector<TTouches> reports = {{{0, 0, 8000, 8000}, {1, 1, 16000, 8000}}};
    for (int y = 9000; y <= 12000; y += 1000) reports.push_back({{0, 0, 8000, y}, {1, 1, 16000, y}});
    reports.push_back({{1, 1, 16000, 12000}});
    reports.push_back({});
    for (int x = 4000; x <= 6000; x += 1000) reports.push_back({{0, 2, x, 20000}});
    reports.push_back({});
    const std::vector<TMtState> expected = ExpectedStates(reports, t.last);

    CGestureScript script;
    std::string why;
    if (!CGestureScript::Parse("rate 50\n"
                               "down 1 8000 8000, 2 16000 8000\n"
                               "move 1 8000 12000, 2 16000 12000 in 4\n"
                               "up 1\n"
                               "up 2\n"
                               "down 3 4000 20000\n"
                               "move 3 6000 20000 in 2\n"
                               "up 3\n",
                               &script, &why)) {
        return Fail(why);
    }
    if (!t.t->Play(script) || !t.t->WaitPlayed(kPlayMs)) return Fail("frame T did not play");
    t.reader->WaitCount(expected.size(), kEventsMs);
    t.reader->WaitQuiet(kQuietMs);
    const std::vector<TMtState> seen = TakeStates(*t.reader, t.trace, &t.last);
    if (std::string diff = CompareMtStates(expected, seen, kAbs); !diff.empty()) {
        return Fail("evdev: " + diff);
    }
    li.WaitFor("TOUCH_UP", 3, kEventsMs);
    li.Stop();
    const TMillimetres mm = Millimetres(*t.reader);
    if (std::string diff = CompareLibinput(ExpectedLibinput(reports, mm.x, mm.y), li.Touches(),
                                           mm.tolerance);
        !diff.empty()) {
        return Fail(diff);
    }
    return Pass("udev tagged it a touchscreen; slots 0 and 1 with tracking ids 0 and 1 down, "
                "4 moves, lifted one by one, then id 2 in slot 0; libinput: the same downs, "
                "motions and ups in mm, " + Str(static_cast<int64_t>(seen.size())) + " reports");
}

// A one-finger drag on the kernel's own driver and on the touchscreen output, each report
// timed from its write (the digitizer's report, the frame's reply) until its event is readable.
// Where the touchscreen's time goes. Its road is the frame's reply through the kernel's HID core
// to hidraw, the driver, then uinput through the input core to evdev; the two kernel stretches
// are timed alone here, so that what is left is the driver's own share.

// Stamps every report that reaches a frame's hidraw node (a reader beside the driver: hidraw
// gives each reader every report).
class CHidrawStamps {
public:
    ~CHidrawStamps() {
        if (m_thread.joinable()) {
            const uint64_t one = 1;
            (void)!::write(m_wake, &one, sizeof one);
            m_thread.join();
        }
        if (m_fd >= 0) ::close(m_fd);
        if (m_wake >= 0) ::close(m_wake);
    }

    // The node whose HID device carries this name.
    bool Open(const std::string& hidName, std::string* error) {
        DIR* dir = ::opendir("/sys/class/hidraw");
        std::string node;
        while (dir != nullptr && node.empty()) {
            dirent* entry = ::readdir(dir);
            if (entry == nullptr) break;
            if (entry->d_name[0] == '.') continue;
            std::FILE* f = std::fopen(
                (std::string("/sys/class/hidraw/") + entry->d_name + "/device/uevent").c_str(), "r");
            if (f == nullptr) continue;
            char line[256];
            while (std::fgets(line, sizeof line, f) != nullptr) {
                if (std::string(line) == "HID_NAME=" + hidName + "\n") {
                    node = std::string("/dev/") + entry->d_name;
                }
            }
            std::fclose(f);
        }
        if (dir != nullptr) ::closedir(dir);
        if (node.empty() || (m_fd = ::open(node.c_str(), O_RDONLY | O_CLOEXEC)) < 0) {
            *error = "no hidraw node for '" + hidName + "'";
            return false;
        }
        m_wake = ::eventfd(0, EFD_CLOEXEC);
        m_thread = std::thread([this] {
            pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wake, POLLIN, 0}};
            uint8_t report[64];
            while (::poll(fds, 2, -1) >= 0 && fds[1].revents == 0) {
                const uint64_t at = NowNanos();
                if (::read(m_fd, report, sizeof report) <= 0) return;
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_stamps.size() < 100'000) m_stamps.push_back(at);
            }
        });
        return true;
    }

    // For each write time, how long until the first report read after it (µs).
    std::vector<double> DelaysAfter(const std::vector<uint64_t>& sent) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<double> micros;
        for (uint64_t at : sent) {
            const auto read = std::lower_bound(m_stamps.begin(), m_stamps.end(), at);
            if (at != 0 && read != m_stamps.end()) {
                micros.push_back(static_cast<double>(*read - at) / 1000.0);
            }
        }
        return micros;
    }

private:
    int m_fd = -1;
    int m_wake = -1;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<uint64_t> m_stamps;
};

// A touchscreen of the test's own on uinput, a frame written in one write() as the driver
// writes it: how long from the write until the report is readable on its node.
std::optional<TLatency> UinputStretch(int frames, std::string* error) {
    libevdev* description = libevdev_new();
    libevdev_set_name(description, "latency probe");
    libevdev_enable_property(description, INPUT_PROP_DIRECT);
    libevdev_enable_event_code(description, EV_KEY, BTN_TOUCH, nullptr);
    input_absinfo axis{0, 0, 32767, 0, 0, 10};
    input_absinfo slots{0, 0, 9, 0, 0, 0};
    input_absinfo ids{0, 0, 65535, 0, 0, 0};
    for (uint16_t code : {ABS_X, ABS_Y, ABS_MT_POSITION_X, ABS_MT_POSITION_Y}) {
        libevdev_enable_event_code(description, EV_ABS, code, &axis);
    }
    libevdev_enable_event_code(description, EV_ABS, ABS_MT_SLOT, &slots);
    libevdev_enable_event_code(description, EV_ABS, ABS_MT_TRACKING_ID, &ids);
    libevdev_uinput* uinput = nullptr;
    const int r = libevdev_uinput_create_from_device(description, LIBEVDEV_UINPUT_OPEN_MANAGED,
                                                     &uinput);
    libevdev_free(description);
    if (r < 0) {
        *error = std::string("uinput: ") + std::strerror(-r);
        return std::nullopt;
    }
    std::optional<TLatency> result;
    {
        CEvdevReader reader;
        if (reader.Open("latency probe", kAppearMs, error)) {
            std::vector<uint64_t> sent;
            for (int k = 0; k < frames; ++k) {
                const int x = 5000 + 50 * k;
                const input_event events[] = {
                    {{}, EV_ABS, ABS_MT_SLOT, 0},      {{}, EV_ABS, ABS_MT_TRACKING_ID, 1},
                    {{}, EV_ABS, ABS_MT_POSITION_X, x}, {{}, EV_ABS, ABS_MT_POSITION_Y, 16000},
                    {{}, EV_KEY, BTN_TOUCH, 1},         {{}, EV_ABS, ABS_X, x},
                    {{}, EV_ABS, ABS_Y, 16000},         {{}, EV_SYN, SYN_REPORT, 0}};
                sent.push_back(NowNanos());
                if (::write(libevdev_uinput_get_fd(uinput), events, sizeof events) !=
                    static_cast<ssize_t>(sizeof events)) {
                    sent.back() = 0;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            reader.WaitCount(sent.size(), kEventsMs);
            result = Summarize(Delays(reader.Take(), sent));
        }
    }
    libevdev_uinput_destroy(uinput);
    return result;
}

// The driver's computing for one frame of one contact, timed here in the guest: the reply
// decoded, calibrated through the frame's area, its touchscreen report built. What is left of
// its share is waking up and system calls.
double ComputeMicrosPerFrame(const CSimFrameEncoder& encoder, int frames) {
    _HARDWARE_SDK_POINT storage[kTouchscreenMaxSlots];
    _HARDWARE_FRAME_SDK frame{};
    frame.pointBufferBytes = sizeof storage;
    frame.pointBuffer = reinterpret_cast<uint8_t*>(storage);
    CCalibrateSystem calibration;
    InitSimCalibration(encoder.IdleFrame(), &calibration);
    CTouchscreenSlots slots;
    std::vector<TEvdevEvent> events;
    std::vector<TEmuFramePayload> payloads;
    for (int k = 0; k < 64; ++k) payloads.push_back(encoder.Encode({{1, 1, 5000 + 50 * k, 16000}}));
    const uint64_t start = NowNanos();
    for (int k = 0; k < frames; ++k) {
        const TEmuFramePayload& payload = payloads[static_cast<size_t>(k) % payloads.size()];
        DecodeFrameBuffer(payload.data(), static_cast<int>(payload.size()), &frame);
        calibration.CalFramePoint(&frame);
        TContactFrame contacts;
        TContact c;
        c.id = 1;
        c.status = kContactMoving;
        c.x = storage[0].x;
        c.y = storage[0].y;
        contacts.contacts.push_back(c);
        events.clear();
        slots.Update(contacts, &events);
    }
    return frames > 0 ? static_cast<double>(NowNanos() - start) / 1000.0 / frames : 0;
}

TResult CaseTouchscreenLatency(TTouchContext& t) {
    const int n = t.latencyFrames;
    const int x0 = 5000, y = 16000, step = 50;

    // The kernel's hid-multitouch.
    CUhidDigitizer digitizer;
    std::string error;
    if (!digitizer.Create(t.uhidPath, kNativeName, &error)) return Fail(error);
    CEvdevReader native;
    if (!native.Open(kNativeName, kAppearMs, &error, true)) return Fail(error);
    bool bound = false;
    if (DIR* dir = ::opendir("/sys/bus/hid/drivers/hid-multitouch")) {
        while (dirent* entry = ::readdir(dir)) {
            bound = bound || std::strstr(entry->d_name, ":1D6B:0F10.") != nullptr;
        }
        ::closedir(dir);
    }
    if (!bound) return Fail("the digitizer is not bound to hid-multitouch");
    if (!digitizer.WaitOpen(kAppearMs)) return Fail("the digitizer was never opened");
    std::vector<uint64_t> sent(static_cast<size_t>(n) + 2, 0);
    for (int k = 0; k <= n + 1; ++k) {
        TDigitizerContact c{k <= n, 1, static_cast<uint16_t>(x0 + step * std::min(k, n)),
                            static_cast<uint16_t>(y)};
        if (!digitizer.Send({c}, &sent[static_cast<size_t>(k)])) return Fail("uhid write failed");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    native.WaitCount(sent.size(), kEventsMs);
    native.WaitQuiet(kQuietMs);
    const std::vector<TEvPacket> nativeSeen = native.Take();
    CMtSlotTrace nativeTrace;
    for (size_t k = 0; k < nativeSeen.size(); ++k) {
        const TMtState s = nativeTrace.Feed(nativeSeen[k].events);
        const bool down = k + 1 < sent.size();
        const int32_t x = x0 + step * static_cast<int32_t>(std::min<size_t>(k, n));
        if (s.touches.size() != (down ? 1u : 0u) || (down && s.touches[0].x != x)) {
            return Fail("hid-multitouch report " + Str(static_cast<int64_t>(k + 1)) +
                        ": expected " + (down ? "one touch at x " + Str(x) : "no touch") +
                        ", saw " + DescribeMtState(s));
        }
    }
    const TLatency nat = Summarize(Delays(nativeSeen, sent));
    if (nativeSeen.size() != sent.size() || nat.frames != sent.size()) {
        return Fail("hid-multitouch: " + Str(static_cast<int64_t>(nativeSeen.size())) + " of " +
                    Str(static_cast<int64_t>(sent.size())) + " reports read, " +
                    Str(static_cast<int64_t>(nat.frames)) + " timed");
    }
    digitizer.Destroy();

    // The touchscreen output, on frame T, with its replies also timed on hidraw.
    CHidrawStamps hidraw;
    if (!hidraw.Open(t.t->Identity().name, &error)) return Fail(error);
    TakeStates(*t.reader, t.trace, &t.last);
    std::vector<TTouches> reports;
    for (int k = 0; k <= n; ++k) reports.push_back({{0, 3, x0 + step * k, y}});
    reports.push_back({});
    const std::vector<TMtState> expected = ExpectedStates(reports, t.last);
    std::mutex sentMutex;
    std::vector<uint64_t> frameSent(reports.size(), 0);
    TSentRecorder record = [&](size_t index, uint64_t nanos) {
        std::lock_guard<std::mutex> lock(sentMutex);
        if (index < frameSent.size()) frameSent[index] = nanos;
    };
    g_latencyRecorder.store(&record);
    CGestureScript script;
    std::string why;
    const bool parsed = CGestureScript::Parse(
        "rate 50\ndown 1 " + Str(x0) + " " + Str(y) + "\nmove 1 " + Str(x0 + step * n) + " " +
            Str(y) + " in " + Str(n) + "\nup 1\n",
        &script, &why);
    const bool played = parsed && t.t->Play(script) && t.t->WaitPlayed(kPlayMs);
    // The last frame is written after the script counts as played: its report is awaited
    // before the recorder goes.
    if (played) {
        t.reader->WaitCount(expected.size(), kEventsMs);
        t.reader->WaitQuiet(kQuietMs);
    }
    g_latencyRecorder.store(nullptr);
    if (!played) return Fail(parsed ? "frame T did not play the drag" : why);
    std::vector<TEvPacket> seen;
    const std::vector<TMtState> states = TakeStates(*t.reader, t.trace, &t.last, &seen);
    if (std::string diff = CompareMtStates(expected, states, kAbs); !diff.empty()) {
        return Fail("touchscreen: " + diff);
    }
    TLatency ts;
    {
        std::lock_guard<std::mutex> lock(sentMutex);
        ts = Summarize(Delays(seen, frameSent));
    }
    if (ts.frames != seen.size()) {
        std::string which;
        std::lock_guard<std::mutex> lock(sentMutex);
        for (size_t k = 0; k < seen.size() && which.empty(); ++k) {
            const uint64_t at = k < frameSent.size() ? frameSent[k] : 0;
            if (at == 0 || seen[k].readNanos < at) {
                which = "; report " + Str(static_cast<int64_t>(k + 1)) + " " +
                        (at == 0 ? "has no sent frame"
                                 : "was read " + Str(static_cast<int64_t>(at - seen[k].readNanos)) +
                                       " ns before its frame was sent");
            }
        }
        return Fail("only " + Str(static_cast<int64_t>(ts.frames)) + " of " +
                    Str(static_cast<int64_t>(seen.size())) + " touchscreen reports timed" +
                    which);
    }
    TLatency toHidraw;
    {
        std::lock_guard<std::mutex> lock(sentMutex);
        toHidraw = Summarize(hidraw.DelaysAfter(frameSent));
    }
    const std::optional<TLatency> uinputStretch = UinputStretch(n, &error);
    if (!uinputStretch) return Fail(error);
    const double compute = ComputeMicrosPerFrame(*t.encoder, n);
    Say("LATENCY-PROFILE reply_to_hidraw_median_us=%.0f uinput_to_evdev_median_us=%.0f "
        "driver_share_median_us=%.0f of_it_computing_us=%.0f",
        toHidraw.median, uinputStretch->median,
        ts.median - toHidraw.median - uinputStretch->median, compute);
    const double ratio = nat.median > 0 ? ts.median / nat.median : 0;
    Say("LATENCY-NATIVE frames=%zu median_us=%.0f p99_us=%.0f max_us=%.0f", nat.frames,
        nat.median, nat.p99, nat.max);
    Say("LATENCY-TOUCHSCREEN frames=%zu median_us=%.0f p99_us=%.0f max_us=%.0f "
        "ratio_of_medians=%.2f",
        ts.frames, ts.median, ts.p99, ts.max, ratio);
    char text[240];
    std::snprintf(text, sizeof text,
                  "%zu reports each, every position in order; written to readable: "
                  "hid-multitouch median %.2f ms, p99 %.2f ms; touchscreen median %.2f ms, "
                  "p99 %.2f ms; %.2f times the kernel's",
                  ts.frames, nat.median / 1000.0, nat.p99 / 1000.0, ts.median / 1000.0,
                  ts.p99 / 1000.0, ratio);
    return Pass(text);
}

// A second frame with a touchscreen of its own goes while two fingers hold: both touches end
// (lifted, not cancelled) before its device goes, and frame T goes on.
TResult CaseTouchscreenUnplug(TTouchContext& t) {
    const std::vector<std::string> before = EventNodesNamed(kTouchscreenPrefix);
    if (std::string why = Plug(t.uhidPath, *t.u); !why.empty()) return Fail(why);
    if (std::string why = WaitServed(*t.u); !why.empty()) return Fail(why);
    std::string node;
    for (int waited = 0; waited <= kAppearMs && node.empty(); waited += 100) {
        for (const std::string& n : EventNodesNamed(kTouchscreenPrefix)) {
            if (std::find(before.begin(), before.end(), n) == before.end()) node = n;
        }
        if (node.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (node.empty()) return Fail("frame U got no touchscreen of its own");
    if (std::string why = WaitTouchscreenTag(node); !why.empty()) return Fail(why);
    CEvdevReader reader;
    std::string error;
    if (!reader.OpenNode(node, &error)) return Fail(error);
    CLibinputEvents li;
    if (std::string why = StartLibinput(t, li, reader); !why.empty()) return Fail(why);

    const std::vector<TTouches> held = {{{0, 0, 10000, 10000}, {1, 1, 20000, 10000}},
                                        {{0, 0, 10500, 10000}, {1, 1, 20500, 10000}},
                                        {{0, 0, 11000, 10000}, {1, 1, 21000, 10000}}};
    CMtSlotTrace trace;
    CGestureScript script;
    std::string why;
    if (!CGestureScript::Parse("rate 50\ndown 1 10000 10000, 2 20000 10000\n"
                               "move 1 11000 10000, 2 21000 10000 in 2\nhold 3000\n",
                               &script, &why)) {
        return Fail(why);
    }
    if (!t.u->Play(script)) return Fail("frame U would not play");
    reader.WaitCount(held.size(), kEventsMs);
    reader.WaitQuiet(kQuietMs);
    TMtState last;
    std::vector<TMtState> seen = TakeStates(reader, trace, &last);
    if (std::string diff = CompareMtStates(ExpectedStates(held, TMtState{}), seen, kAbs);
        !diff.empty()) {
        return Fail("before the unplug: " + diff);
    }
    if (!t.u->Playing()) return Fail("the hold ended before the unplug");

    const size_t lines = t.driver->LineCount();
    t.u->Unplug();
    if (!reader.WaitGone(kEventsMs)) return Fail("frame U's touchscreen did not go away");
    seen = TakeStates(reader, trace, &last);
    if (std::string diff = CompareMtStates(ExpectedStates({{}}, last), seen, 0); !diff.empty()) {
        return Fail("after the unplug: " + diff);
    }
    if (!li.WaitFor("DEVICE_REMOVED", 1, kEventsMs)) return Fail("libinput never removed it");
    li.Stop();
    std::vector<TTouches> all = held;
    all.push_back({});
    const TMillimetres mm = Millimetres(reader);
    if (std::string diff =
            CompareLibinput(ExpectedLibinput(all, mm.x, mm.y), li.Touches(), mm.tolerance);
        !diff.empty()) {
        return Fail(diff);
    }
    if (!t.driver->WaitForLines("THREAD QUIT", 1, lines, kAppearMs)) {
        return Fail("no 'THREAD QUIT' after the unplug");
    }
    if (!t.driver->Running()) return Fail("the driver ended with the frame");
    const uint64_t polls = t.t->Polls();
    if (!t.t->WaitPollsAbove(polls + kPollsSeen, kAppearMs)) {
        return Fail("frame T is no longer polled after frame U went");
    }
    return Pass("frame U had a touchscreen of its own; unplugged with two fingers down: one "
                "report ended both slots and BTN_TOUCH, then the device went; libinput: "
                "TOUCH_UP for both, no cancel, then DEVICE_REMOVED; frame T still polled");
}

// The frame's stored configuration split into a left and a right area (the frame's one area
// halved), as on a frame across two displays.
std::vector<uint8_t> TwoAreaBlock(const std::vector<uint8_t>& block) {
    _HARDWARE_DEV_CONFIG config{};
    if (DecodeDevConfig(block.data(), static_cast<int>(block.size()), &config) !=
        DEV_CONFIG_DECODE_OK) {
        return {};
    }
    config.flags |= DEV_FLAG_AREAS_ENABLED;
    _HCRECT_CONFIG_FILE left = config.areas[0];
    left.center.x = 8192;
    left.axisH.x = -8192;
    _HCRECT_CONFIG_FILE right = left;
    right.center.x = 24576;
    right.id = 1;
    config.areas[0] = left;
    config.areas[1] = right;
    config.areaCount = 2;
    std::vector<uint8_t> out(static_cast<size_t>(EncodeDevConfig(&config, nullptr)));
    EncodeDevConfig(&config, out.data());
    return out;
}

// With touchscreen = "per-area" a frame of two areas has two touchscreens, each tagged a
// touchscreen by udev, and a touch reaches only the device of the area it lies in.
TResult CaseTouchscreenPerArea(TTouchContext& t, const std::string& driverPath) {
    // The frame is there before the driver starts, holding its two areas when it is read.
    CMtEmuUhidFrame& frame = *t.p;
    if (std::string why = Plug(t.uhidPath, frame); !why.empty()) return Fail(why);
    const std::vector<uint8_t> split = TwoAreaBlock(frame.Emulator().ConfigBlock());
    if (split.empty()) return Fail("the emulated frame's configuration does not decode");
    frame.Emulator().SetConfigBlock(split);

    CDriverProcess driver;
    std::string error;
    if (!driver.Start({driverPath, "--screen", "1920x1080", "--no-single-instance",
                       "--touchscreen-per-area", "--no-gestures"},
                      &error)) {
        return Fail("cannot start the driver: " + error);
    }
    if (std::string why = WaitServed(frame); !why.empty()) return Fail(why);
    std::vector<std::string> nodes;
    for (int waited = 0; waited <= kAppearMs && nodes.size() < 2; waited += 100) {
        nodes = EventNodesNamed(kTouchscreenPrefix);
        if (nodes.size() < 2) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (nodes.size() != 2) {
        return Fail("expected 2 touchscreens for 2 areas, found " +
                    Str(static_cast<int64_t>(nodes.size())));
    }
    CEvdevReader readers[2];
    for (int i = 0; i < 2; ++i) {
        if (std::string why = WaitTouchscreenTag(nodes[i]); !why.empty()) return Fail(why);
        if (!readers[i].OpenNode(nodes[i], &error)) return Fail(error);
        if (readers[i].Name().find(" area ") == std::string::npos) {
            return Fail("touchscreen '" + readers[i].Name() + "' does not name its area");
        }
    }
    // One touch on each half, one after the other.
    CGestureScript script;
    std::string why;
    if (!CGestureScript::Parse("rate 50\ndown 1 6000 16000\nup 1\n"
                               "down 2 26000 16000\nmove 2 26500 16000 in 2\nup 2\n",
                               &script, &why)) {
        return Fail(why);
    }
    if (!frame.Play(script) || !frame.WaitPlayed(kPlayMs)) return Fail("frame P did not play");
    int downs[2] = {0, 0}, ups[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        readers[i].WaitQuiet(kQuietMs);
        CMtSlotTrace trace;
        TMtState before;
        for (const TMtState& state : TakeStates(readers[i], trace, nullptr)) {
            if (state.touching && !before.touching) ++downs[i];
            if (!state.touching && before.touching) ++ups[i];
            before = state;
        }
    }
    frame.Unplug();
    driver.Stop(30'000);
    if (downs[0] != 1 || downs[1] != 1 || ups[0] != 1 || ups[1] != 1) {
        return Fail("each area's touchscreen should see one touch down and up; " +
                    readers[0].Name() + ": " + Str(downs[0]) + " down, " + Str(ups[0]) + " up; " +
                    readers[1].Name() + ": " + Str(downs[1]) + " down, " + Str(ups[1]) + " up");
    }
    return Pass("2 areas gave 2 touchscreens tagged ID_INPUT_TOUCHSCREEN (" + readers[0].Name() +
                ", " + readers[1].Name() + "); a touch on each half reached only its own");
}

// Runs udevd as a desktop has it (the first driver ran without, on the kernel's own uevents).
std::string StartUdevd(const std::string& udevd) {
    const pid_t pid = ::fork();
    if (pid < 0) return std::string("fork: ") + std::strerror(errno);
    if (pid == 0) {
        ::execl(udevd.c_str(), udevd.c_str(), "--daemon", "--resolve-names=never",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return udevd + " --daemon failed (wait status " + Str(status) + ")";
    }
    for (int waited = 0; waited <= kAppearMs; waited += 100) {
        if (::access("/run/udev/control", F_OK) == 0) return "";
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return "udevd made no /run/udev/control";
}

// The touchscreen phase; every case is reported, also when the set-up failed.
void RunTouchscreenCases(TTouchContext& t, const std::string& driverPath,
                         const std::string& udevd,
                         const std::function<void(const char*, const TResult&)>& report) {
    const char* names[] = {"touchscreen-two-fingers", "touchscreen-latency",
                           "touchscreen-unplug"};
    auto failAll = [&](const std::string& why) {
        for (const char* name : names) report(name, Fail("not run: " + why));
    };
    if (!udevd.empty()) {
        if (std::string why = StartUdevd(udevd); !why.empty()) return failAll(why);
    }
    CDriverProcess driver;
    t.driver = &driver;
    std::string error;
    if (!driver.Start({driverPath, "--screen", "1920x1080", "--no-single-instance",
                       "--log-level", "debug", "--touchscreen", "--no-gestures"},
                      &error)) {
        return failAll("cannot start the driver: " + error);
    }
    if (std::string why = Plug(t.uhidPath, *t.t); !why.empty()) return failAll(why);
    if (std::string why = WaitServed(*t.t); !why.empty()) return failAll(why);
    CEvdevReader reader;
    t.reader = &reader;
    if (!reader.Open(kTouchscreenPrefix, kAppearMs, &error, true)) return failAll(error);
    Say("kernel_guest_test: frame T's touchscreen is %s ('%s')", reader.Node().c_str(),
        reader.Name().c_str());
    report(names[0], CaseTouchscreenTwoFingers(t));
    report(names[1], CaseTouchscreenLatency(t));
    report(names[2], CaseTouchscreenUnplug(t));
    const std::optional<int> status = driver.Stop(30'000);
    if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
        report("touchscreen-orderly-end", Fail("the touchscreen driver did not end with status 0"));
    }
    t.t->Unplug();
    report("touchscreen-per-area", CaseTouchscreenPerArea(t, driverPath));
}

int Usage(const char* self) {
    std::fprintf(stderr,
                 "usage: %s --driver PATH [--uhid PATH] [--latency-frames N]\n"
                 "          [--udevd PATH] [--libinput PATH] [--touch-latency-frames N]\n"
                 "          [-- DRIVER-ARGS]\n"
                 "Runs the end-to-end cases against irframed on this machine's kernel: needs\n"
                 "root, /dev/uhid, /dev/uinput, the hid-multitouch module and no other irframed\n"
                 "running. --udevd starts udevd before the touchscreen cases (where none runs);\n"
                 "--libinput is the libinput-debug-events program (default %s).\n",
                 self, kLibinputDebugEvents);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    TContext ctx;
    TTouchContext touch;
    touch.libinput = kLibinputDebugEvents;
    std::string udevd;
    std::string driverPath;
    // Every line at debug level: the cases read the driver's fixed trace lines.
    std::vector<std::string> driverArgs = {"--screen", "1920x1080", "--no-single-instance",
                                           "--log-level", "debug"};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--driver" && i + 1 < argc) {
            driverPath = argv[++i];
        } else if (arg == "--uhid" && i + 1 < argc) {
            ctx.uhidPath = argv[++i];
        } else if (arg == "--latency-frames" && i + 1 < argc) {
            ctx.latencyFrames = std::clamp(std::atoi(argv[++i]), 10, 5000);
        } else if (arg == "--touch-latency-frames" && i + 1 < argc) {
            touch.latencyFrames = std::clamp(std::atoi(argv[++i]), 10, 5000);
        } else if (arg == "--udevd" && i + 1 < argc) {
            udevd = argv[++i];
        } else if (arg == "--libinput" && i + 1 < argc) {
            touch.libinput = argv[++i];
        } else if (arg == "--") {
            driverArgs.assign(argv + i + 1, argv + argc);
            break;
        } else {
            return Usage(argv[0]);
        }
    }
    if (driverPath.empty()) return Usage(argv[0]);
    ::signal(SIGPIPE, SIG_IGN);

    Say("kernel_guest_test: building the frame encoder");
    CSimFrameEncoder encoder;
    ctx.encoder = &encoder;
    ctx.a = MakeFrame(encoder, 0xAAEC, 0xC020, "frame A");
    ctx.b = MakeFrame(encoder, 0xAAEC, 0xC021, "frame B");
    ctx.c = MakeFrame(encoder, 0x202E, 0x0006, "frame C");
    ctx.d = MakeFrame(encoder, 0xAAEC, 0xC020, "frame D");
    ctx.e = MakeFrame(encoder, 0xAAEC, 0xC020, "frame E");
    ctx.f = MakeFrame(encoder, 0xAAEC, 0xC021, "frame F");
    TFrame t = MakeFrame(encoder, 0xAAEC, 0xC020, "frame T");
    TFrame u = MakeFrame(encoder, 0xAAEC, 0xC021, "frame U");
    TFrame perArea = MakeFrame(encoder, 0xAAEC, 0xC020, "frame P");
    for (TFrame* frame : {&ctx.d, &t}) {
        (*frame)->SetFrameSentHook([](size_t index, uint64_t nanos) {
            if (TSentRecorder* record = g_latencyRecorder.load()) (*record)(index, nanos);
        });
    }
    touch.uhidPath = ctx.uhidPath;
    touch.t = t.get();
    touch.u = u.get();
    touch.p = perArea.get();
    touch.encoder = &encoder;

    int passed = 0, failed = 0;
    auto report = [&](const char* name, const TResult& result) {
        (result.pass ? passed : failed) += 1;
        Say("CASE %s: %s (%s)", name, result.pass ? "PASS" : "FAIL", result.detail.c_str());
    };
    auto finish = [&]() {
        Say("%s passed=%d failed=%d", kEndMarker, passed, failed);
        return failed == 0 && passed > 0 ? 0 : 1;
    };

    // Frame A is there before the driver starts.
    if (std::string why = Plug(ctx, *ctx.a); !why.empty()) {
        report("frame-at-start", Fail(why));
        return finish();
    }
    CDriverProcess driver;
    ctx.driver = &driver;
    std::vector<std::string> argvDriver = {driverPath};
    argvDriver.insert(argvDriver.end(), driverArgs.begin(), driverArgs.end());
    std::string error;
    if (!driver.Start(argvDriver, &error)) {
        report("frame-at-start", Fail("cannot start the driver: " + error));
        return finish();
    }
    CEvdevReader reader;
    ctx.reader = &reader;
    if (!reader.Open(kVirtualDeviceName, kAppearMs, &error)) {
        report("frame-at-start", Fail(error));
        return finish();
    }
    Say("kernel_guest_test: the driver's device is %s", reader.Node().c_str());

    const TResult start = CaseFrameAtStart(ctx);
    report("frame-at-start", start);
    if (!start.pass) {
        // Nothing else can be judged without a served frame.
        driver.Stop(10'000);
        return finish();
    }
    report("tap", CaseTap(ctx));
    report("drag", CaseDrag(ctx));
    report("frame-plugged-later", CasePluggedLater(ctx, ctx.b, "frame B (AAEC:C021)"));
    report("two-finger-scroll", CaseScroll(ctx));
    const TResult plugC = CasePluggedLater(ctx, ctx.c, "frame C (202E:0006)");
    report("four-finger-swipe", plugC.pass ? CaseSwipe(ctx) : plugC);
    report("unplug-while-held", CaseUnplugHeld(ctx));
    report("two-frames-at-once", CaseTwoFrames(ctx));
    report("frame-stops-answering", CaseStopsAnswering(ctx));
    report("latency", CaseLatency(ctx));
    report("orderly-end", CaseOrderlyEnd(ctx));
    if (reader.Dropped()) report("no-lost-reports", Fail("the kernel dropped reports"));

    for (TFrame* frame : {&ctx.a, &ctx.b, &ctx.c, &ctx.d, &ctx.e, &ctx.f}) (*frame)->Unplug();

    RunTouchscreenCases(touch, driverPath, udevd, report);
    return finish();
}
