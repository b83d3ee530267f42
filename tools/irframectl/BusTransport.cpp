#include "BusTransport.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "DevConfigJson.h"
#include "QuotedText.h"
#include "SessionBus.h"
#include "StopSignalWaits.h"

namespace {

// Transfers may run for minutes; the driver reports progress meanwhile.
constexpr uint64_t kTransferTimeoutMicros = 24ull * 3600 * 1'000'000;
// Any other question: sd-bus's own default (0 stands for it).
constexpr uint64_t kAnswerTimeoutMicros = 0;
// After a stop signal has cancelled a transfer, how long the driver's word on it is awaited.
constexpr uint64_t kCancelAnswerMicros = 5'000'000;
constexpr uint64_t kWaitSliceMicros = 100'000;
// Largest JSON reply read back (a configuration is far smaller).
constexpr size_t kMaxReplyBytes = 4u << 20;
constexpr size_t kMaxContactsPerSignal = 256;

struct TBusDeleter {
    void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
    void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
};
using TBus = std::unique_ptr<sd_bus, TBusDeleter>;
using TMessage = std::unique_ptr<sd_bus_message, TBusDeleter>;
using TSlot = std::unique_ptr<sd_bus_slot, TBusDeleter>;

[[noreturn]] void Throw(const sd_bus_error& e, const std::string& what) {
    const std::string name = e.name != nullptr ? e.name : "";
    std::string message = e.message != nullptr ? e.message : name;
    if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER ||
        name == SD_BUS_ERROR_NO_REPLY) {
        message = "the driver did not answer (" + message + ")";
    }
    throw CToolError(ExitCodeForBusError(name), what + ": " + message);
}

[[noreturn]] void ThrowErrno(int r, const std::string& what) {
    throw CToolError(kCtlFailure, what + ": " + std::strerror(-r));
}

int OnReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* slot = static_cast<TMessage*>(userdata);
    slot->reset(sd_bus_message_ref(m));
    return 0;
}

uint64_t NowMicros() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// How a wait for an answer ends besides the answer.
struct TAwait {
    uint64_t timeoutMicros = kAnswerTimeoutMicros;
    const TStopSignal* stopSignal = nullptr;
    // A transfer: what a stop (or the caller's own cancel) sends, once, instead of ending the
    // wait at once; after a stop signal the driver's answer to it is awaited a little while.
    std::function<void()> cancel;
    const std::function<bool()>* cancelRequested = nullptr;
};

// Sends `call` and runs the bus until its reply (an error reply included). Never longer than
// its time-out, and never long past a stop signal: a plain question ends at once with the
// tool's "cancelled" status, a transfer once its cancel is answered or not answered in time.
TMessage Await(sd_bus* bus, sd_bus_message* call, const TAwait& how, const std::string& what) {
    TMessage reply;
    sd_bus_slot* s = nullptr;
    if (const int r = sd_bus_call_async(bus, &s, call, OnReply, &reply, how.timeoutMicros);
        r < 0) {
        ThrowErrno(r, what);
    }
    TSlot pending(s);
    std::optional<uint64_t> cancelSentAt;
    while (!reply) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) ThrowErrno(r, what);
        if (r > 0) continue;
        const int stop = how.stopSignal != nullptr && *how.stopSignal ? (*how.stopSignal)() : 0;
        const bool cancelAsked = stop != 0 || (how.cancelRequested != nullptr &&
                                               *how.cancelRequested && (*how.cancelRequested)());
        if (cancelAsked && how.cancel && !cancelSentAt) {
            how.cancel();
            cancelSentAt = NowMicros();
        }
        if (stop != 0 && (!how.cancel || NowMicros() - *cancelSentAt > kCancelAnswerMicros)) {
            throw CToolError(kCtlCancelled,
                             SignalName(stop) + " while waiting for an answer (" + what + ")" +
                                 (how.cancel ? ", which did not answer the cancel" : "") +
                                 ": stopping");
        }
        if (const int w = sd_bus_wait(bus, kWaitSliceMicros); w < 0 && w != -EINTR) {
            ThrowErrno(w, what);
        }
    }
    return reply;
}

// A plain question (no argument, or one string): its reply, or CToolError.
TMessage Ask(sd_bus* bus, const char* destination, const char* path, const char* interface,
             const char* method, const TStopSignal& stopSignal, const std::string& what,
             const char* argument = nullptr) {
    sd_bus_message* raw = nullptr;
    if (const int r =
            sd_bus_message_new_method_call(bus, &raw, destination, path, interface, method);
        r < 0) {
        ThrowErrno(r, what);
    }
    TMessage call(raw);
    if (argument != nullptr) {
        if (const int r = sd_bus_message_append(call.get(), "s", argument); r < 0) {
            ThrowErrno(r, what);
        }
    }
    TAwait how;
    how.stopSignal = &stopSignal;
    TMessage reply = Await(bus, call.get(), how, what);
    if (const sd_bus_error* e = sd_bus_message_get_error(reply.get())) Throw(*e, what);
    return reply;
}

std::vector<uint8_t> HexToBytes(const std::string& hex, const std::string& what) {
    const auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                              : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    };
    if (hex.size() % 2 != 0) throw CToolError(kCtlFailure, what + ": odd hexadecimal text");
    std::vector<uint8_t> out(hex.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        const int hi = digit(hex[2 * i]), lo = digit(hex[2 * i + 1]);
        if (hi < 0 || lo < 0) throw CToolError(kCtlFailure, what + ": not hexadecimal");
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return out;
}

}  // namespace

std::vector<uint8_t> BytesFromDriverJson(const std::string& text, const std::string& what) {
    if (text.size() > kMaxReplyBytes) throw CToolError(kCtlFailure, what + ": reply too long");
    const nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object() || j.size() != 1 || !j.contains("bytes") ||
        !j["bytes"].is_string()) {
        throw CToolError(kCtlFailure, what + ": the driver's answer is not {\"bytes\": \"...\"}");
    }
    return HexToBytes(j["bytes"].get<std::string>(), what);
}

namespace {

class CBusFrame final : public IFrame {
public:
    CBusFrame(sd_bus* bus, std::string path, TFrameEntry description,
              const TStopSignal& stopSignal)
        : m_bus(bus),
          m_path(std::move(path)),
          m_description(std::move(description)),
          m_stopSignal(stopSignal) {}

    TFrameEntry Describe() override { return Properties(m_stopSignal); }

    std::vector<uint8_t> ReadInfo() override {
        return BytesFromDriverJson(CallForString("ReadInfo", "reading the information block"),
                             "reading the information block");
    }

    std::vector<uint8_t> ReadStatus() override {
        return BytesFromDriverJson(CallForString("ReadStatus", "reading the status"),
                             "reading the status");
    }

    std::unique_ptr<_HARDWARE_DEV_CONFIG> ReadConfig() override {
        return ConfigFromDriver(CallForString("ReadConfig", "reading the configuration"),
                                "reading the configuration");
    }

    std::unique_ptr<_HARDWARE_DEV_CONFIG> WriteConfig(const _HARDWARE_DEV_CONFIG& config) override {
        const std::string json = DevConfigToJson(config);
        TMessage m = NewCall("WriteConfig");
        if (const int r = sd_bus_message_append(m.get(), "s", json.c_str()); r < 0) {
            ThrowErrno(r, "WriteConfig");
        }
        TMessage reply = Run(std::move(m), {}, "writing the configuration");
        return ConfigFromDriver(ReadString(reply.get(), "writing the configuration"),
                                "reading the written configuration back");
    }

    void HoldGestures(bool held) override {
        Run(NewCall(held ? "HoldGestures" : "ReleaseGestures"), {},
            held ? "holding the gestures" : "releasing the gestures");
    }

    std::vector<uint8_t> ReadScanPattern(const TTransferHooks& hooks) override {
        TMessage reply = Run(NewCall("ReadScanPattern"), hooks, "reading the scan pattern");
        const void* data = nullptr;
        size_t size = 0;
        if (const int r = sd_bus_message_read_array(reply.get(), 'y', &data, &size); r < 0) {
            ThrowErrno(r, "reading the scan pattern");
        }
        const auto* bytes = static_cast<const uint8_t*>(data);
        return {bytes, bytes + size};
    }

    void WriteScanPattern(const std::vector<uint8_t>& pattern, const TTransferHooks& hooks) override {
        WriteBytes("WriteScanPattern", pattern, hooks, "writing the scan pattern");
    }

    void WriteTouchSystemFile(const std::vector<uint8_t>& file, const TTransferHooks& hooks) override {
        WriteBytes("WriteTouchSystemFile", file, hooks, "writing the touch-system file");
    }

    TStreamEnd StreamContacts(const std::function<bool(const TMonitoredFrame&)>& onFrame,
                              const std::function<bool()>& stop,
                              const std::function<void()>& started) override;

private:
    struct TStream {
        CBusFrame* self;
        const std::function<bool(const TMonitoredFrame&)>* onFrame;
        std::optional<TStreamEnd> end;
    };

    TFrameEntry Properties(const TStopSignal& stopSignal);

    TMessage NewCall(const char* method) {
        sd_bus_message* m = nullptr;
        if (const int r = sd_bus_message_new_method_call(m_bus, &m, kDriverBusName, m_path.c_str(),
                                                         kFrameInterface, method);
            r < 0) {
            ThrowErrno(r, method);
        }
        return TMessage(m);
    }

    std::string CallForString(const char* method, const std::string& what) {
        TMessage reply = Run(NewCall(method), {}, what);
        return ReadString(reply.get(), what);
    }

    static std::string ReadString(sd_bus_message* reply, const std::string& what) {
        const char* text = nullptr;
        if (const int r = sd_bus_message_read(reply, "s", &text); r < 0) ThrowErrno(r, what);
        const std::string s = text != nullptr ? text : "";
        if (s.size() > kMaxReplyBytes) throw CToolError(kCtlFailure, what + ": reply too long");
        return s;
    }

    std::unique_ptr<_HARDWARE_DEV_CONFIG> ConfigFromDriver(const std::string& json,
                                                           const std::string& what) {
        auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
        std::string error;
        if (!DevConfigFromJson(json, config.get(), &error)) {
            throw CToolError(kCtlFailure, what + ": the driver's configuration is unreadable: " +
                                               error);
        }
        return config;
    }

    void WriteBytes(const char* method, const std::vector<uint8_t>& bytes,
                    const TTransferHooks& hooks, const std::string& what) {
        TMessage m = NewCall(method);
        if (const int r = sd_bus_message_append_array(m.get(), 'y', bytes.data(), bytes.size());
            r < 0) {
            ThrowErrno(r, what);
        }
        Run(std::move(m), hooks, what);
    }

    // Sends the call and runs the bus until its reply: progress signals go to the hooks, and a
    // cancel request sends Cancel once. The reply, or CToolError for an error reply.
    TMessage Run(TMessage call, const TTransferHooks& hooks, const std::string& what);

    static int OnProgress(sd_bus_message* m, void* userdata, sd_bus_error*) {
        const auto* hooks = static_cast<const TTransferHooks*>(userdata);
        uint32_t done = 0, total = 0;
        if (sd_bus_message_read(m, "uu", &done, &total) >= 0 && hooks->progress) {
            hooks->progress(done, total);
        }
        return 0;
    }

    static int OnContacts(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int OnFrameRemoved(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int OnOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*);

    sd_bus* m_bus;  // the transport's
    std::string m_path;
    TFrameEntry m_description;
    const TStopSignal& m_stopSignal;  // the transport's
};

TMessage CBusFrame::Run(TMessage call, const TTransferHooks& hooks, const std::string& what) {
    TSlot progress;
    if (hooks.progress) {
        sd_bus_slot* s = nullptr;
        if (const int r = sd_bus_match_signal(m_bus, &s, nullptr, m_path.c_str(), kFrameInterface,
                                              "Progress", OnProgress,
                                              const_cast<TTransferHooks*>(&hooks));
            r < 0) {
            ThrowErrno(r, what);
        }
        progress.reset(s);
    }
    bool cancelSent = false;
    TAwait how;
    how.timeoutMicros = kTransferTimeoutMicros;
    how.stopSignal = &m_stopSignal;
    if (hooks.cancelRequested) {
        how.cancelRequested = &hooks.cancelRequested;
        how.cancel = [&] {
            cancelSent = true;
            sd_bus_call_method_async(m_bus, nullptr, kDriverBusName, m_path.c_str(),
                                     kFrameInterface, "Cancel", nullptr, nullptr, "");
        };
    }
    TMessage reply = Await(m_bus, call.get(), how, what);
    if (const sd_bus_error* e = sd_bus_message_get_error(reply.get())) {
        std::string extra;
        if (cancelSent) {
            // Say what the frame is doing now: the driver has just answered, and the signal
            // that cancelled is no reason to leave it unasked (a second one ends the tool).
            try {
                const TStopSignal none;
                extra = "; frame " + std::to_string(m_description.number) + " is now " +
                        Properties(none).state;
            } catch (const CToolError&) {
                extra = "; the frame's state cannot be read";
            }
        }
        try {
            Throw(*e, what);
        } catch (const CToolError& error) {
            throw CToolError(error.ExitCode(), error.what() + extra);
        }
    }
    return reply;
}

TFrameEntry CBusFrame::Properties(const TStopSignal& stopSignal) {
    TMessage reply = Ask(m_bus, kDriverBusName, m_path.c_str(), "org.freedesktop.DBus.Properties",
                         "GetAll", stopSignal, "reading the frame's properties", kFrameInterface);
    TFrameEntry d = m_description;
    sd_bus_message* m = reply.get();
    if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) {
        throw CToolError(kCtlFailure, "the frame's properties are not a{sv}");
    }
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        const char* name = nullptr;
        const char* contents = nullptr;
        char type = 0;
        if (sd_bus_message_read(m, "s", &name) < 0 ||
            sd_bus_message_peek_type(m, &type, &contents) < 0 || contents == nullptr) {
            throw CToolError(kCtlFailure, "unreadable frame property");
        }
        const std::string n = name, c = contents;
        const auto readString = [&](std::string& out) {
            const char* s = nullptr;
            sd_bus_message_read(m, "v", "s", &s);
            out = s != nullptr ? s : "";
        };
        if (n == "Number" && c == "i") {
            sd_bus_message_read(m, "v", "i", &d.number);
        } else if (n == "Node" && c == "s") {
            readString(d.node);
        } else if (n == "VendorId" && c == "q") {
            sd_bus_message_read(m, "v", "q", &d.vendorId);
        } else if (n == "ProductId" && c == "q") {
            sd_bus_message_read(m, "v", "q", &d.productId);
        } else if (n == "Product" && c == "s") {
            readString(d.product);
        } else if (n == "Serial" && c == "s") {
            readString(d.serial);
        } else if (n == "State" && c == "s") {
            readString(d.state);
        } else if (n == "ConfigSummary" && c == "s") {
            readString(d.configSummary);
        } else if (n == "Touchscreens" && c == "as") {
            d.touchscreens.clear();
            if (sd_bus_message_enter_container(m, 'v', "as") >= 0 &&
                sd_bus_message_enter_container(m, 'a', "s") >= 0) {
                const char* s = nullptr;
                // One per calibration area at most (32); the rest is not the driver's.
                while (sd_bus_message_read(m, "s", &s) > 0 && s != nullptr) {
                    if (d.touchscreens.size() < 32) d.touchscreens.emplace_back(s, strnlen(s, 80));
                }
                sd_bus_message_exit_container(m);
                sd_bus_message_exit_container(m);
            }
        } else if (n == "Geometry" && c == "(iiii)") {
            sd_bus_message_read(m, "v", "(iiii)", &d.logicalWidth, &d.logicalHeight, &d.rawWidth,
                                &d.rawHeight);
        } else {
            sd_bus_message_skip(m, "v");  // a property of a later version
        }
        sd_bus_message_exit_container(m);
    }
    m_description = d;
    return d;
}

int CBusFrame::OnContacts(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* stream = static_cast<TStream*>(userdata);
    if (stream->end) return 0;
    TMonitoredFrame frame;
    if (sd_bus_message_read(m, "x", &frame.timeStamp) < 0 ||
        sd_bus_message_enter_container(m, 'a', "(yybiiiiqqyy)") < 0) {
        return 0;  // not the documented signal: ignored
    }
    // A frame report holds at most 9 contacts (and a few retired ones); more is not a frame.
    while (frame.contacts.size() < kMaxContactsPerSignal) {
        TMonitoredContact c;
        int retired = 0;
        const int r = sd_bus_message_read(m, "(yybiiiiqqyy)", &c.id, &c.status, &retired, &c.x,
                                          &c.y, &c.width, &c.height, &c.rawX, &c.rawY,
                                          &c.cellGroup, &c.cellIndex);
        if (r <= 0) break;
        c.retired = retired != 0;
        frame.contacts.push_back(c);
    }
    if (!(*stream->onFrame)(frame)) stream->end = TStreamEnd::Stopped;
    return 0;
}

int CBusFrame::OnFrameRemoved(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* stream = static_cast<TStream*>(userdata);
    const char* path = nullptr;
    if (sd_bus_message_read(m, "o", &path) >= 0 && path != nullptr &&
        stream->self->m_path == path && !stream->end) {
        stream->end = TStreamEnd::FrameGone;
    }
    return 0;
}

int CBusFrame::OnOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* stream = static_cast<TStream*>(userdata);
    const char *name = nullptr, *before = nullptr, *after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) >= 0 && name != nullptr &&
        std::strcmp(name, kDriverBusName) == 0 && after != nullptr && after[0] == '\0' &&
        !stream->end) {
        stream->end = TStreamEnd::DriverGone;
    }
    return 0;
}

TStreamEnd CBusFrame::StreamContacts(const std::function<bool(const TMonitoredFrame&)>& onFrame,
                                     const std::function<bool()>& stop,
                                     const std::function<void()>& started) {
    TStream stream{this, &onFrame, std::nullopt};
    sd_bus_slot* s = nullptr;
    if (const int r = sd_bus_match_signal(m_bus, &s, nullptr, m_path.c_str(), kFrameInterface,
                                          "Contacts", OnContacts, &stream);
        r < 0) {
        ThrowErrno(r, "listening to contacts");
    }
    TSlot contacts(s);
    if (const int r = sd_bus_match_signal(m_bus, &s, nullptr, kDriverPath, kDriverInterface,
                                          "FrameRemoved", OnFrameRemoved, &stream);
        r < 0) {
        ThrowErrno(r, "listening to contacts");
    }
    TSlot removed(s);
    if (const int r = sd_bus_match_signal(m_bus, &s, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus", "NameOwnerChanged",
                                          OnOwnerChanged, &stream);
        r < 0) {
        ThrowErrno(r, "listening to contacts");
    }
    TSlot owner(s);

    Ask(m_bus, kDriverBusName, m_path.c_str(), kFrameInterface, "SubscribeContacts", m_stopSignal,
        "subscribing to contacts");
    if (started) started();
    while (!stream.end) {
        const int r = sd_bus_process(m_bus, nullptr);
        if (r < 0) {
            stream.end = TStreamEnd::DriverGone;
            break;
        }
        if (r > 0) continue;
        if (stop && stop()) {
            stream.end = TStreamEnd::Stopped;
            break;
        }
        if (const int w = sd_bus_wait(m_bus, kWaitSliceMicros); w < 0 && w != -EINTR) {
            stream.end = TStreamEnd::DriverGone;
        }
    }
    if (*stream.end == TStreamEnd::Stopped) {
        // The driver drops a subscriber that leaves the bus anyway; this is the polite way,
        // and not worth a wait.
        sd_bus_call_method_async(m_bus, nullptr, kDriverBusName, m_path.c_str(), kFrameInterface,
                                 "UnsubscribeContacts", nullptr, nullptr, "");
    }
    return *stream.end;
}

class CBusTransport final : public ITransport {
public:
    CBusTransport(sd_bus* bus, TStopSignal stopSignal)
        : m_bus(bus), m_stopSignal(std::move(stopSignal)) {}

    std::string Name() const override { return "the driver"; }

    std::vector<TFrameEntry> List() override {
        TMessage reply = Ask(m_bus.get(), kDriverBusName, kDriverPath, kDriverInterface,
                             "ListFrames", m_stopSignal, "listing the frames");
        std::vector<std::string> paths;
        if (sd_bus_message_enter_container(reply.get(), 'a', "o") < 0) {
            throw CToolError(kCtlFailure, "ListFrames did not answer with ao");
        }
        const char* path = nullptr;
        while (sd_bus_message_read(reply.get(), "o", &path) > 0) paths.emplace_back(path);
        std::vector<TFrameEntry> frames;
        for (const std::string& p : paths) {
            try {
                frames.push_back(CBusFrame(m_bus.get(), p, {}, m_stopSignal).Describe());
                m_paths[frames.back().number] = p;
            } catch (const CToolError&) {
                // Gone between the list and the question: not listed.
            }
        }
        return frames;
    }

    std::unique_ptr<IFrame> Open(const TFrameEntry& frame) override {
        auto it = m_paths.find(frame.number);
        const std::string path = it != m_paths.end()
                                     ? it->second
                                     : std::string(kDriverPath) + "/frame" +
                                           std::to_string(frame.number);
        return std::make_unique<CBusFrame>(m_bus.get(), path, frame, m_stopSignal);
    }

private:
    TBus m_bus;
    TStopSignal m_stopSignal;
    std::map<int, std::string> m_paths;  // frame number -> object path, from List
};

}  // namespace

sd_bus* OpenSessionBus(std::string* error) {
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_user(&bus); r < 0) {
        *error = "no session bus: " + SessionBusUnreachable(r);
        return nullptr;
    }
    return bus;
}

bool DriverOnBus(sd_bus* bus, const TStopSignal& stopSignal) {
    int owned = 0;
    try {
        TMessage reply = Ask(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "NameHasOwner", stopSignal,
                             "looking for the driver on the bus", kDriverBusName);
        return sd_bus_message_read(reply.get(), "b", &owned) >= 0 && owned != 0;
    } catch (const CToolError& e) {
        if (e.ExitCode() == kCtlCancelled) throw;
        return false;
    }
}

std::unique_ptr<ITransport> MakeBusTransport(sd_bus* bus, TStopSignal stopSignal) {
    return std::make_unique<CBusTransport>(bus, std::move(stopSignal));
}

int ExitCodeForBusError(const std::string& name) {
    const std::string prefix = kDriverErrorPrefix;
    if (name.rfind(prefix, 0) != 0) return kCtlFailure;
    const std::string kind = name.substr(prefix.size());
    if (kind == "InvalidArgument") return kCtlBadInput;
    if (kind == "Busy") return kCtlBusy;
    if (kind == "Cancelled") return kCtlCancelled;
    return kCtlFailure;  // Gone, Failed and anything newer
}

std::string ReloadDriver() {
    std::string why;
    sd_bus* bus = OpenSessionBus(&why);
    if (bus == nullptr || !DriverOnBus(bus)) {
        if (bus != nullptr) sd_bus_flush_close_unref(bus);
        return "irframed does not run: it reads it when it starts";
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    std::string line;
    int reloaded = 0;
    const char* message = nullptr;
    const char* restart = nullptr;
    if (sd_bus_call_method(bus, kDriverBusName, kDriverPath, kDriverInterface, "Reload", &error,
                           &reply, "") < 0 ||
        sd_bus_message_read(reply, "bss", &reloaded, &message, &restart) < 0) {
        line = "irframed did not reload (" +
               EscapedText(error.message != nullptr ? error.message : "no answer") +
               "): systemctl --user reload irframed";
    } else if (reloaded == 0) {
        line = "irframed kept its configuration: " + EscapedText(message, 300);
    } else {
        line = "irframed reloaded its configuration";
        if (restart != nullptr && *restart != '\0') line += "; " + EscapedText(restart, 300);
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return line;
}
