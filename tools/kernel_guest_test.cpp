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
#include <libevdev/libevdev.h>
#include <linux/input-event-codes.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
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

#include "EvdevExpectation.h"
#include "GestureScript.h"
#include "MtDevCtrlInterface.h"
#include "MtEmuUhidFrame.h"
#include "MultiPlatformAPI.h"
#include "SimFrameEncoder.h"

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

    // Finds the event node whose device has this name (node numbers are not fixed).
    bool Open(const std::string& name, int timeoutMs, std::string* error) {
        for (int waited = 0; waited <= timeoutMs; waited += 100) {
            if (TryOpen(name)) {
                m_wake = ::eventfd(0, EFD_CLOEXEC);
                m_thread = std::thread([this] { Run(); });
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        *error = "no event node named '" + name + "' under /dev/input";
        return false;
    }

    const std::string& Node() const { return m_node; }

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

private:
    bool TryOpen(const std::string& name) {
        DIR* dir = ::opendir("/dev/input");
        if (dir == nullptr) return false;
        bool found = false;
        while (dirent* entry = ::readdir(dir)) {
            if (std::strncmp(entry->d_name, "event", 5) != 0) continue;
            const std::string node = std::string("/dev/input/") + entry->d_name;
            const int fd = ::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd < 0) continue;
            libevdev* device = nullptr;
            if (libevdev_new_from_fd(fd, &device) == 0 && libevdev_get_name(device) != nullptr &&
                name == libevdev_get_name(device)) {
                m_fd = fd;
                m_device = device;
                m_node = node;
                found = true;
                break;
            }
            if (device != nullptr) libevdev_free(device);
            ::close(fd);
        }
        ::closedir(dir);
        return found;
    }

    void Run() {
        pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wake, POLLIN, 0}};
        std::vector<TEvEvent> current;
        for (;;) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[1].revents != 0) return;
            const uint64_t readable = NowNanos();
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
                    continue;
                }
                if (r != LIBEVDEV_READ_STATUS_SUCCESS) break;
                if (ev.type == EV_SYN && ev.code == SYN_REPORT) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    for (const TEvEvent& e : current) {
                        if (e.type == EV_ABS) m_abs[e.code] = e.value;
                        if (e.type == EV_KEY) m_keys[e.code] = e.value != 0;
                    }
                    m_packets.push_back(TEvPacket{std::move(current), readable});
                    current.clear();
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
    std::atomic<bool> m_dropped{false};
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<TEvPacket> m_packets;
    uint64_t m_total = 0;
    std::map<uint16_t, int32_t> m_abs;
    std::map<uint16_t, bool> m_keys;
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

TFrame MakeFrame(TContext& ctx, uint16_t vendor, uint16_t product, const std::string& name) {
    TUhidIdentity identity;
    identity.vendor = vendor;
    identity.product = product;
    identity.name = name;
    return std::make_unique<CMtEmuUhidFrame>(*ctx.encoder, identity);
}

// Plugs a frame in; empty on success, else why not.
std::string Plug(TContext& ctx, CMtEmuUhidFrame& frame) {
    std::string error;
    if (!frame.Plug(ctx.uhidPath, &error)) return frame.Identity().name + ": " + error;
    return "";
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
// the literal key profile presses Left Ctrl, then the arrow, and releases in reverse.
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
    expect.Chord({KEY_LEFTCTRL}, KEY_RIGHT);
    std::vector<TEvPacket> seen;
    std::string why;
    if (!PlayAndCollect(ctx, *ctx.c, FourFingerSweep(-1000, 0), expect.Packets().size(), &seen,
                        &why)) {
        return Fail(why);
    }
    return Judge(expect, seen, "four fingers left: KEY_LEFTCTRL + KEY_RIGHT pressed, released");
}

// The frame goes while a finger holds the button down: the driver releases it (at 0, 0), forgets
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

    // The release goes to the corner: exactly (0, 0).
    CEvdevExpectation release = ctx.reader->Expectation();
    release.Pointer(0, 0, 0, {{BTN_LEFT, false}});
    const size_t lines = ctx.driver->LineCount();
    ctx.a->Unplug();
    ctx.reader->WaitCount(release.Packets().size(), kEventsMs);
    ctx.reader->WaitQuiet(kQuietMs);
    seen = ctx.reader->Take();
    if (std::string diff = CompareEvdev(release.Packets(), seen); !diff.empty()) {
        return Fail("after the unplug: " + diff);
    }
    for (const char* line : {"remove", "TOUCH DEV RELEASE", "THREAD QUIT"}) {
        if (!ctx.driver->WaitForLines(line, 1, lines, kAppearMs)) {
            return Fail(std::string("no '") + line + "' after the unplug");
        }
    }
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
    return Pass("held through 4 moves; the unplug released BTN_LEFT at ABS (0, 0); "
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
    keys.Chord({KEY_LEFTCTRL}, KEY_UP);

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
    return Pass("frame D: REL_WHEEL +1 then -1; frame E: KEY_LEFTCTRL + KEY_UP; interleaved, "
                "each whole");
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

int Usage(const char* self) {
    std::fprintf(stderr,
                 "usage: %s --driver PATH [--uhid PATH] [--latency-frames N] [-- DRIVER-ARGS]\n"
                 "Runs the end-to-end cases against irframed on this machine's kernel: needs\n"
                 "root, /dev/uhid, /dev/uinput and no other irframed running.\n",
                 self);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    TContext ctx;
    std::string driverPath;
    std::vector<std::string> driverArgs = {"--screen", "1920x1080", "--no-single-instance"};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--driver" && i + 1 < argc) {
            driverPath = argv[++i];
        } else if (arg == "--uhid" && i + 1 < argc) {
            ctx.uhidPath = argv[++i];
        } else if (arg == "--latency-frames" && i + 1 < argc) {
            ctx.latencyFrames = std::clamp(std::atoi(argv[++i]), 10, 5000);
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
    ctx.a = MakeFrame(ctx, 0xAAEC, 0xC020, "frame A");
    ctx.b = MakeFrame(ctx, 0xAAEC, 0xC021, "frame B");
    ctx.c = MakeFrame(ctx, 0x202E, 0x0006, "frame C");
    ctx.d = MakeFrame(ctx, 0xAAEC, 0xC020, "frame D");
    ctx.e = MakeFrame(ctx, 0xAAEC, 0xC020, "frame E");
    ctx.f = MakeFrame(ctx, 0xAAEC, 0xC021, "frame F");
    ctx.d->SetFrameSentHook([](size_t index, uint64_t nanos) {
        if (TSentRecorder* record = g_latencyRecorder.load()) (*record)(index, nanos);
    });

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
    return finish();
}
