#include "DbusDriverService.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "MtDevLog.h"

namespace {

constexpr std::string_view kFramePrefix = "/org/irframe/Driver1/frame";
constexpr const char* kBusDriver = "org.freedesktop.DBus";

const char* ErrorName(TFrameOutcome outcome) {
    switch (outcome) {
        case TFrameOutcome::Busy: return CDbusDriverService::kErrorBusy;
        case TFrameOutcome::Gone: return CDbusDriverService::kErrorGone;
        case TFrameOutcome::Cancelled: return CDbusDriverService::kErrorCancelled;
        case TFrameOutcome::Done:
        case TFrameOutcome::Failed: break;
    }
    return CDbusDriverService::kErrorFailed;
}

int ReplyBytes(sd_bus_message* call, const std::vector<uint8_t>& bytes) {
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(call, &reply);
    if (r >= 0) r = sd_bus_message_append_array(reply, 'y', bytes.data(), bytes.size());
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r;
}

}  // namespace

// One frame as the bus sees it. Main thread only.
struct CDbusDriverService::TFrameObject {
    CDbusDriverService* service;
    int number;
    std::string path;
    std::set<std::string> subscribers;  // unique names of the clients that want contacts
    std::set<std::string> holders;      // clients that hold the frame's gestures
    int inFlight = 0;                   // requests submitted and not yet answered
    bool progressSent = false;
    TTransferProgress lastProgress;
};

// A client with subscriptions, watched so that they go when it leaves the bus.
struct CDbusDriverService::TClientWatch {
    CDbusDriverService* service = nullptr;
    std::string client;
    sd_bus_slot* match = nullptr;
    sd_bus_slot* check = nullptr;

    ~TClientWatch() {
        sd_bus_slot_unref(check);
        sd_bus_slot_unref(match);
    }
};

// The frame's contact listener: hands subscribed frames over to the main loop.
class CDbusDriverService::CContactTap final : public IContactListener {
public:
    CContactTap(std::shared_ptr<CDbusDriverService*> service, IMainLoop& loop, int number,
                int maxInFlight)
        : m_service(std::move(service)), m_loop(loop), m_number(number), m_maxInFlight(maxInFlight) {}

    void OnContacts(const TContactFrame& frame) override {
        if (!wanted.load(std::memory_order_relaxed)) return;
        // A client that reads slowly must not make the queue grow without bound.
        if (m_inFlight->fetch_add(1) >= m_maxInFlight) {
            m_inFlight->fetch_sub(1);
            return;
        }
        TContactFrame copy;
        copy.device = frame.device;
        copy.timeStamp = frame.timeStamp;
        copy.contacts = frame.contacts;
        m_loop.Post([service = m_service, inFlight = m_inFlight, number = m_number,
                     copy = std::move(copy)] {
            inFlight->fetch_sub(1);
            if (*service != nullptr) (*service)->EmitContacts(number, copy);
        });
    }

    std::atomic<bool> wanted{false};

private:
    std::shared_ptr<CDbusDriverService*> m_service;
    IMainLoop& m_loop;
    const int m_number;
    const int m_maxInFlight;
    std::shared_ptr<std::atomic<int>> m_inFlight = std::make_shared<std::atomic<int>>(0);
};


CDbusDriverService::CDbusDriverService(sd_bus* bus, IMainLoop& loop, IDriverControl& control,
                                       TConfigJsonCodec codec, TDbusServiceConfig config)
    : m_bus(sd_bus_ref(bus)),
      m_loop(loop),
      m_control(control),
      m_codec(std::move(codec)),
      m_config(config),
      m_self(std::make_shared<CDbusDriverService*>(this)) {}

CDbusDriverService::~CDbusDriverService() {
    *m_self = nullptr;
    if (m_started) m_control.SetEvents(nullptr);
    m_clientWatches.clear();
    m_progressTimer = sd_event_source_disable_unref(m_progressTimer);
    m_enumeratorSlot = sd_bus_slot_unref(m_enumeratorSlot);
    m_frameSlot = sd_bus_slot_unref(m_frameSlot);
    m_rootSlot = sd_bus_slot_unref(m_rootSlot);
    m_bus = sd_bus_unref(m_bus);
}

std::string CDbusDriverService::FramePath(int number) {
    return std::string(kFramePrefix) + std::to_string(number);
}

std::optional<int> CDbusDriverService::FrameNumberOfPath(std::string_view path) {
    if (path.substr(0, kFramePrefix.size()) != kFramePrefix) return std::nullopt;
    const std::string_view digits = path.substr(kFramePrefix.size());
    // Canonical numbers only: no sign, no leading zero, no trailing text.
    if (digits.empty() || digits.size() > 9 || digits[0] == '0') return std::nullopt;
    int number = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return number;
}

bool CDbusDriverService::Start(std::string* error) {
    static const sd_bus_vtable kFrameVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Number", "i", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Node", "s", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("VendorId", "q", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("ProductId", "q", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Product", "s", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Serial", "s", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("State", "s", &GetProperty, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_PROPERTY("Geometry", "(iiii)", &GetProperty, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_PROPERTY("ConfigSummary", "s", &GetProperty, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_PROPERTY("Touchscreens", "as", &GetProperty, 0, 0),
        SD_BUS_PROPERTY("GesturesHeld", "b", &GetProperty, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_METHOD_WITH_NAMES("ReadInfo", "", , "s", SD_BUS_PARAM(json), &MethodRead,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("ReadStatus", "", , "s", SD_BUS_PARAM(json), &MethodRead,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("ReadConfig", "", , "s", SD_BUS_PARAM(json), &MethodRead,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("WriteConfig", "s", SD_BUS_PARAM(json), "s",
                                 SD_BUS_PARAM(readBack), &MethodWriteConfig,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("WriteOverride", "s", SD_BUS_PARAM(json), "s",
                                 SD_BUS_PARAM(readBack), &MethodWriteOverride,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("ReadScanPattern", "", , "ay", SD_BUS_PARAM(pattern),
                                 &MethodRead, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("WriteScanPattern", "ay", SD_BUS_PARAM(pattern), "", ,
                                 &MethodWriteBytes, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("WriteTouchSystemFile", "ay", SD_BUS_PARAM(file), "", ,
                                 &MethodWriteBytes, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Cancel", "", "", &MethodCancel, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("HoldGestures", "", "", &MethodHoldGestures, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("ReleaseGestures", "", "", &MethodReleaseGestures,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("SubscribeContacts", "", "", &MethodSubscribe, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("UnsubscribeContacts", "", "", &MethodUnsubscribe,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL_WITH_NAMES("Progress", "uu", SD_BUS_PARAM(done) SD_BUS_PARAM(total), 0),
        SD_BUS_SIGNAL_WITH_NAMES("Contacts", "xa(yybiiiiqqyy)",
                                 SD_BUS_PARAM(timeStamp) SD_BUS_PARAM(contacts), 0),
        SD_BUS_VTABLE_END,
    };

    auto fail = [&](const char* what, int r) {
        if (error != nullptr) *error = std::string(what) + ": " + std::strerror(-r);
        return false;
    };
    static const sd_bus_vtable kRoot[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("ListFrames", "", , "ao", SD_BUS_PARAM(frames),
                                 &MethodListFrames, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("Reload", "", , "bss",
                                 SD_BUS_PARAM(reloaded) SD_BUS_PARAM(message)
                                     SD_BUS_PARAM(restartNeeded),
                                 &MethodReload, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL_WITH_NAMES("FrameAdded", "o", SD_BUS_PARAM(frame), 0),
        SD_BUS_SIGNAL_WITH_NAMES("FrameRemoved", "o", SD_BUS_PARAM(frame), 0),
        SD_BUS_VTABLE_END,
    };
    // Both tables hang on the root path: sd-bus wants every table of a path to be a fallback
    // when one is, so the root's own finds only the root.
    int r = sd_bus_add_fallback_vtable(m_bus, &m_rootSlot, kRootPath, kRootInterface, kRoot,
                                       &FindRoot, this);
    if (r < 0) return fail("cannot register the driver object", r);
    r = sd_bus_add_fallback_vtable(m_bus, &m_frameSlot, kRootPath, kFrameInterface, kFrameVtable,
                                   &FindFrame, this);
    if (r < 0) return fail("cannot register the frame objects", r);
    r = sd_bus_add_node_enumerator(m_bus, &m_enumeratorSlot, kRootPath, &EnumerateFrames, this);
    if (r < 0) return fail("cannot register the frame enumerator", r);
    sd_event* event = sd_bus_get_event(m_bus);
    if (event == nullptr) return fail("the bus is not on the main loop", -EINVAL);
    r = sd_event_add_time_relative(event, &m_progressTimer, CLOCK_MONOTONIC,
                                   m_config.progressIntervalMicros, 0, &OnProgressTimer, this);
    if (r < 0) return fail("cannot make the progress timer", r);
    sd_event_source_set_enabled(m_progressTimer, SD_EVENT_OFF);

    for (const int number : m_control.FrameNumbers()) {
        auto frame = std::make_unique<TFrameObject>();
        frame->service = this;
        frame->number = number;
        frame->path = FramePath(number);
        m_frames[number] = std::move(frame);
    }
    m_control.SetEvents(this);
    m_started = true;
    return true;
}

IContactListener* CDbusDriverService::ContactListener(int number) {
    auto& tap = m_taps[number];
    if (!tap) {
        tap = std::make_unique<CContactTap>(m_self, m_loop, number,
                                            m_config.maxContactFramesInFlight);
    }
    if (TFrameObject* frame = Frame(number)) UpdateWanted(*frame);
    return tap.get();
}

CDbusDriverService::TFrameObject* CDbusDriverService::Frame(int number) {
    const auto it = m_frames.find(number);
    return it != m_frames.end() ? it->second.get() : nullptr;
}

// ---------------------------------------------------------------------------------------------
// Frame list

void CDbusDriverService::EmitFrameSignal(const char* member, int number) {
    const std::string path = FramePath(number);
    sd_bus_emit_signal(m_bus, kRootPath, kRootInterface, member, "o", path.c_str());
}

void CDbusDriverService::OnFrameAdded(int number) {
    // A frame plugged in again starts with its gestures free.
    m_control.HoldGestures(number, false);
    if (Frame(number) == nullptr) {
        auto frame = std::make_unique<TFrameObject>();
        frame->service = this;
        frame->number = number;
        frame->path = FramePath(number);
        m_frames[number] = std::move(frame);
    }
    EmitFrameSignal("FrameAdded", number);
}

void CDbusDriverService::OnFrameChanged(int number) {
    TFrameObject* frame = Frame(number);
    if (frame == nullptr) return;
    sd_bus_emit_properties_changed(m_bus, frame->path.c_str(), kFrameInterface, "State",
                                   "Geometry", "ConfigSummary", nullptr);
}

void CDbusDriverService::OnFrameRemoved(int number) {
    const auto it = m_frames.find(number);
    if (it == m_frames.end()) return;
    // Its subscriptions go with it; a request in flight is still answered (by number).
    std::set<std::string> clients = it->second->subscribers;
    clients.insert(it->second->holders.begin(), it->second->holders.end());
    m_frames.erase(it);
    if (const auto tap = m_taps.find(number); tap != m_taps.end()) tap->second->wanted = false;
    for (const std::string& client : clients) DropClient(client);
    EmitFrameSignal("FrameRemoved", number);
}

int CDbusDriverService::FindRoot(sd_bus*, const char* path, const char*, void* userdata,
                                 void** found, sd_bus_error*) {
    if (std::string_view(path) != kRootPath) return 0;
    *found = userdata;
    return 1;
}

int CDbusDriverService::FindFrame(sd_bus*, const char* path, const char*, void* userdata,
                                  void** found, sd_bus_error*) {
    auto* service = static_cast<CDbusDriverService*>(userdata);
    const std::optional<int> number = FrameNumberOfPath(path);
    if (!number) return 0;
    TFrameObject* frame = service->Frame(*number);
    if (frame == nullptr) return 0;
    *found = frame;
    return 1;
}

int CDbusDriverService::EnumerateFrames(sd_bus*, const char*, void* userdata, char*** nodes,
                                        sd_bus_error*) {
    auto* service = static_cast<CDbusDriverService*>(userdata);
    auto** list = static_cast<char**>(calloc(service->m_frames.size() + 1, sizeof(char*)));
    if (list == nullptr) return -ENOMEM;
    size_t i = 0;
    for (const auto& [number, frame] : service->m_frames) {
        list[i] = strdup(frame->path.c_str());
        if (list[i] == nullptr) {
            for (size_t k = 0; k < i; ++k) free(list[k]);
            free(list);
            return -ENOMEM;
        }
        ++i;
    }
    *nodes = list;
    return 1;
}

int CDbusDriverService::MethodReload(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* service = static_cast<CDbusDriverService*>(userdata);
    const std::optional<TReloadAnswer> answer = service->m_control.Reload();
    if (!answer) {
        return sd_bus_error_set(error, SD_BUS_ERROR_NOT_SUPPORTED,
                                "this driver does not reload its configuration");
    }
    // A file with a mistake is an answer, not an error: the driver runs on as it was.
    return sd_bus_reply_method_return(m, "bss", answer->reloaded, answer->message.c_str(),
                                      answer->restartNeeded.c_str());
}

int CDbusDriverService::MethodListFrames(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* service = static_cast<CDbusDriverService*>(userdata);
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(m, &reply);
    if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "o");
    for (const auto& [number, frame] : service->m_frames) {
        if (r >= 0) r = sd_bus_message_append(reply, "o", frame->path.c_str());
    }
    if (r >= 0) r = sd_bus_message_close_container(reply);
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r < 0 ? r : 1;
}

int CDbusDriverService::GetProperty(sd_bus*, const char*, const char*, const char* property,
                                    sd_bus_message* reply, void* userdata, sd_bus_error* error) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    const std::optional<TFrameDescription> d = frame->service->m_control.DescribeFrame(frame->number);
    if (!d) {
        return sd_bus_error_setf(error, kErrorGone, "frame %d is gone", frame->number);
    }
    const std::string_view name = property;
    if (name == "Number") return sd_bus_message_append(reply, "i", d->number);
    if (name == "Node") return sd_bus_message_append(reply, "s", d->node.c_str());
    if (name == "VendorId") return sd_bus_message_append(reply, "q", d->vendorId);
    if (name == "ProductId") return sd_bus_message_append(reply, "q", d->productId);
    if (name == "Product") return sd_bus_message_append(reply, "s", d->product.c_str());
    if (name == "Serial") return sd_bus_message_append(reply, "s", d->serial.c_str());
    if (name == "State") return sd_bus_message_append(reply, "s", FrameStateName(d->state));
    if (name == "Geometry") {
        return sd_bus_message_append(reply, "(iiii)", d->geometry.logicalWidth,
                                     d->geometry.logicalHeight, d->geometry.rawWidth,
                                     d->geometry.rawHeight);
    }
    if (name == "ConfigSummary") return sd_bus_message_append(reply, "s", d->configSummary.c_str());
    if (name == "Touchscreens") {
        const CDbusDriverService& service = *frame->service;
        std::vector<std::string> names;
        if (service.m_touchscreenNames) names = service.m_touchscreenNames(frame->number);
        int r = sd_bus_message_open_container(reply, 'a', "s");
        for (size_t i = 0; r >= 0 && i < names.size(); ++i) {
            r = sd_bus_message_append(reply, "s", names[i].c_str());
        }
        return r < 0 ? r : sd_bus_message_close_container(reply);
    }
    if (name == "GesturesHeld") {
        return sd_bus_message_append(reply, "b", static_cast<int>(!frame->holders.empty()));
    }
    return -ENOENT;
}

// ---------------------------------------------------------------------------------------------
// Requests

int CDbusDriverService::MethodRead(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    const std::string_view member = sd_bus_message_get_member(m);
    TFrameRequest request;
    if (member == "ReadInfo") {
        request.operation = TFrameOperation::ReadInfo;
    } else if (member == "ReadStatus") {
        request.operation = TFrameOperation::ReadStatus;
    } else if (member == "ReadConfig") {
        request.operation = TFrameOperation::ReadConfig;
    } else {
        request.operation = TFrameOperation::ReadScanPattern;
    }
    return frame->service->Submit(m, *frame, std::move(request));
}

int CDbusDriverService::MethodWriteConfig(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    CDbusDriverService& service = *frame->service;
    std::string json;
    TArgumentCheck check;
    const int r = ReadStringArgument(m, service.m_config.limits.maxJsonBytes, &json, &check);
    if (r < 0) return r;
    TFrameRequest request;
    if (check.ok) check = MakeWriteConfigRequest(json, service.m_codec, service.m_config.limits, &request);
    if (!check.ok) return sd_bus_error_set(error, kErrorInvalidArgument, check.error.c_str());
    return service.Submit(m, *frame, std::move(request));
}

int CDbusDriverService::MethodWriteOverride(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    CDbusDriverService& service = *frame->service;
    std::string json;
    TArgumentCheck check;
    const int r = ReadStringArgument(m, service.m_config.limits.maxJsonBytes, &json, &check);
    if (r < 0) return r;
    TFrameRequest request;
    if (check.ok) check = MakeWriteOverrideRequest(json, service.m_codec, service.m_config.limits,
                                             &request);
    if (!check.ok) return sd_bus_error_set(error, kErrorInvalidArgument, check.error.c_str());
    return service.Submit(m, *frame, std::move(request));
}

int CDbusDriverService::MethodWriteBytes(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    CDbusDriverService& service = *frame->service;
    const TDbusArgumentLimits& limits = service.m_config.limits;
    const bool pattern = std::string_view(sd_bus_message_get_member(m)) == "WriteScanPattern";
    std::vector<uint8_t> data;
    TArgumentCheck check;
    const int r = ReadByteArrayArgument(
        m, pattern ? limits.maxScanPatternBytes : limits.maxTouchSystemBytes, &data, &check);
    if (r < 0) return r;
    TFrameRequest request;
    if (check.ok) {
        check = pattern ? MakeScanPatternRequest(std::move(data), limits, &request)
                        : MakeTouchSystemRequest(std::move(data), limits, &request);
    }
    if (!check.ok) return sd_bus_error_set(error, kErrorInvalidArgument, check.error.c_str());
    return service.Submit(m, *frame, std::move(request));
}

int CDbusDriverService::Submit(sd_bus_message* m, TFrameObject& frame, TFrameRequest request) {
    const TFrameOperation operation = request.operation;
    const int number = frame.number;
    ++frame.inFlight;
    // The call is kept and answered once the worker is done; the main loop goes on meanwhile.
    sd_bus_message* call = sd_bus_message_ref(m);
    m_control.Submit(number, std::move(request),
                     [self = m_self, number, call, operation](TFrameResult result) {
                         if (*self != nullptr) (*self)->Complete(number, call, operation, result);
                         sd_bus_message_unref(call);
                     });
    ArmProgressTimer();
    return 1;
}

void CDbusDriverService::Complete(int number, sd_bus_message* call, TFrameOperation operation,
                                  const TFrameResult& result) {
    if (TFrameObject* frame = Frame(number)) {
        --frame->inFlight;
        if (frame->inFlight == 0) {
            frame->progressSent = false;
            frame->lastProgress = {};
        }
    }
    if (result.outcome != TFrameOutcome::Done) {
        sd_bus_reply_method_errorf(call, ErrorName(result.outcome), "%s", result.message.c_str());
        return;
    }
    switch (operation) {
        case TFrameOperation::ReadInfo:
        case TFrameOperation::ReadStatus:
            sd_bus_reply_method_return(call, "s", BytesToJson(result.bytes).c_str());
            return;
        case TFrameOperation::ReadScanPattern:
            ReplyBytes(call, result.bytes);
            return;
        case TFrameOperation::WriteScanPattern:
        case TFrameOperation::WriteTouchSystemFile:
            sd_bus_reply_method_return(call, nullptr);
            return;
        case TFrameOperation::ReadConfig:
        case TFrameOperation::WriteConfig:
        case TFrameOperation::WriteOverride:
            break;
    }
    if (!m_codec.toJson || !result.config) {
        sd_bus_reply_method_errorf(call, kErrorFailed,
                                   "this driver has no configuration JSON writer");
        return;
    }
    sd_bus_reply_method_return(call, "s", m_codec.toJson(*result.config).c_str());
}

int CDbusDriverService::MethodCancel(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    // Nothing in flight: nothing to do; a cancel that comes late is not an error.
    frame->service->m_control.Cancel(frame->number);
    return sd_bus_reply_method_return(m, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Progress

void CDbusDriverService::ArmProgressTimer() {
    if (m_progressTimer == nullptr) return;
    int enabled = SD_EVENT_OFF;
    sd_event_source_get_enabled(m_progressTimer, &enabled);
    if (enabled != SD_EVENT_OFF) return;
    sd_event_source_set_time_relative(m_progressTimer, m_config.progressIntervalMicros);
    sd_event_source_set_enabled(m_progressTimer, SD_EVENT_ONESHOT);
}

int CDbusDriverService::OnProgressTimer(sd_event_source*, uint64_t, void* userdata) {
    auto* service = static_cast<CDbusDriverService*>(userdata);
    service->EmitProgress();
    return 0;
}

void CDbusDriverService::EmitProgress() {
    bool anyInFlight = false;
    for (auto& [number, frame] : m_frames) {
        if (frame->inFlight == 0) continue;
        anyInFlight = true;
        const TTransferProgress p = m_control.Progress(number);
        if (!p.active) continue;
        if (frame->progressSent && p.done == frame->lastProgress.done &&
            p.total == frame->lastProgress.total) {
            continue;
        }
        frame->progressSent = true;
        frame->lastProgress = p;
        sd_bus_emit_signal(m_bus, frame->path.c_str(), kFrameInterface, "Progress", "uu", p.done,
                           p.total);
    }
    if (anyInFlight) ArmProgressTimer();
}

// ---------------------------------------------------------------------------------------------
// Contacts

void CDbusDriverService::UpdateWanted(TFrameObject& frame) {
    if (const auto tap = m_taps.find(frame.number); tap != m_taps.end()) {
        tap->second->wanted = !frame.subscribers.empty();
    }
}

int CDbusDriverService::MethodSubscribe(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    if (sender == nullptr || *sender == 0) {
        return sd_bus_error_set(error, kErrorInvalidArgument, "the call names no sender");
    }
    frame->subscribers.insert(sender);
    frame->service->UpdateWanted(*frame);
    frame->service->WatchClient(sender);
    return sd_bus_reply_method_return(m, nullptr);
}

int CDbusDriverService::MethodUnsubscribe(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    if (sender != nullptr) {
        frame->subscribers.erase(sender);
        frame->service->UpdateWanted(*frame);
        frame->service->DropClient(sender);
    }
    return sd_bus_reply_method_return(m, nullptr);
}

// The gestures are held while any client holds them; a client that leaves the bus lets go.
void CDbusDriverService::SetHold(TFrameObject& frame, const std::string& client, bool hold) {
    const bool before = !frame.holders.empty();
    if (hold) {
        frame.holders.insert(client);
    } else {
        frame.holders.erase(client);
    }
    const bool after = !frame.holders.empty();
    if (before == after) return;
    m_control.HoldGestures(frame.number, after);
    sd_bus_emit_properties_changed(m_bus, frame.path.c_str(), kFrameInterface, "GesturesHeld",
                                   nullptr);
}

int CDbusDriverService::MethodHoldGestures(sd_bus_message* m, void* userdata,
                                           sd_bus_error* error) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    if (sender == nullptr || *sender == 0) {
        return sd_bus_error_set(error, kErrorInvalidArgument, "the call names no sender");
    }
    frame->service->SetHold(*frame, sender, true);
    frame->service->WatchClient(sender);
    return sd_bus_reply_method_return(m, nullptr);
}

int CDbusDriverService::MethodReleaseGestures(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* frame = static_cast<TFrameObject*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    if (sender != nullptr) {
        frame->service->SetHold(*frame, sender, false);
        frame->service->DropClient(sender);
    }
    return sd_bus_reply_method_return(m, nullptr);
}

void CDbusDriverService::WatchClient(const std::string& client) {
    if (m_clientWatches.count(client) != 0) return;
    auto watch = std::make_unique<TClientWatch>();
    watch->service = this;
    watch->client = client;
    // The client's name going away (its process ended or it closed the connection) drops its
    // subscriptions. Installed without waiting, so no call blocks the main loop.
    const std::string match = std::string("type='signal',sender='") + kBusDriver +
                              "',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
                              "member='NameOwnerChanged',arg0='" + client + "'";
    if (sd_bus_add_match_async(m_bus, &watch->match, match.c_str(), &OnClientGone, nullptr,
                               watch.get()) < 0) {
        return;
    }
    // A client that left before the match was in place: ask whether it is still there.
    sd_bus_call_method_async(m_bus, &watch->check, kBusDriver, "/org/freedesktop/DBus", kBusDriver,
                             "NameHasOwner", &OnClientChecked, watch.get(), "s", client.c_str());
    m_clientWatches[client] = std::move(watch);
}

void CDbusDriverService::DropClient(const std::string& client) {
    for (auto& [number, frame] : m_frames) {
        // still subscribed or holding somewhere
        if (frame->subscribers.count(client) != 0 || frame->holders.count(client) != 0) return;
    }
    m_clientWatches.erase(client);
}

void CDbusDriverService::ForgetClient(const std::string& client) {
    for (auto& [number, frame] : m_frames) {
        if (frame->subscribers.erase(client) != 0) UpdateWanted(*frame);
        if (frame->holders.count(client) != 0) SetHold(*frame, client, false);
    }
    m_clientWatches.erase(client);
}

int CDbusDriverService::OnClientGone(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* watch = static_cast<TClientWatch*>(userdata);
    const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    if (name == nullptr || newOwner == nullptr || *newOwner != 0) return 0;
    if (watch->client != name) return 0;
    const std::string client = watch->client;  // the watch goes with the client
    watch->service->ForgetClient(client);
    return 0;
}

int CDbusDriverService::OnClientChecked(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* watch = static_cast<TClientWatch*>(userdata);
    int present = 1;
    if (sd_bus_message_is_method_error(reply, nullptr) ||
        sd_bus_message_read(reply, "b", &present) < 0 || present) {
        return 0;
    }
    const std::string client = watch->client;
    watch->service->ForgetClient(client);
    return 0;
}

void CDbusDriverService::EmitContacts(int number, const TContactFrame& contacts) {
    TFrameObject* frame = Frame(number);
    if (frame == nullptr || frame->subscribers.empty()) return;
    sd_bus_message* signal = nullptr;
    int r = sd_bus_message_new_signal(m_bus, &signal, frame->path.c_str(), kFrameInterface,
                                      "Contacts");
    if (r >= 0) r = AppendContacts(signal, contacts);
    if (r >= 0) sd_bus_send(m_bus, signal, nullptr);
    sd_bus_message_unref(signal);
}
