// The driver's D-Bus interface on the session bus (the contract is docs/dbus-api.md):
//
//   /org/irframe/Driver1            org.irframe.Driver1: ListFrames, FrameAdded, FrameRemoved
//   /org/irframe/Driver1/frame<N>   org.irframe.Driver1.Frame: the frame's properties, its
//                                   requests (information block, status, configuration, scan
//                                   pattern, touch-system file), Cancel, Progress and the
//                                   contact stream.
//
// Every request is answered asynchronously: the call is kept and answered when the frame's worker
// has carried it out, so the main loop never waits for a device. Arguments are checked first
// (DbusArguments.h); a refused one is an InvalidArgument error and nothing reaches the frame.
//
// Threads: the main loop only, except the contact listeners, which are called on the workers and
// hand each frame over to the main loop (a bounded number in flight; the rest are dropped).
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ContactStream.h"
#include "DbusArguments.h"
#include "DriverControl.h"
#include "MainLoop.h"

struct TDbusServiceConfig {
    TDbusArgumentLimits limits;
    uint64_t progressIntervalMicros = 100'000;  // Progress signals at most this often
    int maxContactFramesInFlight = 64;          // per frame; more are dropped
};

class CDbusDriverService final : public IDriverEvents {
public:
    static constexpr const char* kBusName = "org.irframe.Driver1";
    static constexpr const char* kRootPath = "/org/irframe/Driver1";
    static constexpr const char* kRootInterface = "org.irframe.Driver1";
    static constexpr const char* kFrameInterface = "org.irframe.Driver1.Frame";
    static constexpr const char* kErrorInvalidArgument = "org.irframe.Driver1.Error.InvalidArgument";
    static constexpr const char* kErrorBusy = "org.irframe.Driver1.Error.Busy";
    static constexpr const char* kErrorFailed = "org.irframe.Driver1.Error.Failed";
    static constexpr const char* kErrorGone = "org.irframe.Driver1.Error.Gone";
    static constexpr const char* kErrorCancelled = "org.irframe.Driver1.Error.Cancelled";

    // The bus, the loop and the control must outlive the service.
    CDbusDriverService(sd_bus* bus, IMainLoop& loop, IDriverControl& control,
                       TConfigJsonCodec codec, TDbusServiceConfig config = {});
    ~CDbusDriverService() override;

    CDbusDriverService(const CDbusDriverService&) = delete;
    CDbusDriverService& operator=(const CDbusDriverService&) = delete;

    // The names of the touchscreen devices frame `number` has now (none: no touchscreen), for
    // the desktops' settings. Main thread.
    void SetTouchscreenNames(std::function<std::vector<std::string>(int number)> names) {
        m_touchscreenNames = std::move(names);
    }

    // Registers the objects and starts listening to the control. False with `error` set.
    bool Start(std::string* error);

    // The contact listener of frame `number`, made on first use and kept for the service's life
    // (a worker may call it until it ends). Main thread.
    IContactListener* ContactListener(int number);

    // "/org/irframe/Driver1/frame3" and back; nothing for any other path.
    static std::string FramePath(int number);
    static std::optional<int> FrameNumberOfPath(std::string_view path);

    // IDriverEvents
    void OnFrameAdded(int number) override;
    void OnFrameChanged(int number) override;
    void OnFrameRemoved(int number) override;

private:
    struct TFrameObject;
    class CContactTap;
    struct TClientWatch;

    // sd-bus callbacks
    static int FindRoot(sd_bus* bus, const char* path, const char* interface, void* userdata,
                        void** found, sd_bus_error* error);
    static int FindFrame(sd_bus* bus, const char* path, const char* interface, void* userdata,
                         void** found, sd_bus_error* error);
    static int EnumerateFrames(sd_bus* bus, const char* prefix, void* userdata, char*** nodes,
                               sd_bus_error* error);
    static int MethodListFrames(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodReload(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int GetProperty(sd_bus* bus, const char* path, const char* interface,
                           const char* property, sd_bus_message* reply, void* userdata,
                           sd_bus_error* error);
    static int MethodRead(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodWriteConfig(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodWriteOverride(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodWriteBytes(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodCancel(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodHoldGestures(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodReleaseGestures(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodSubscribe(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int MethodUnsubscribe(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnClientGone(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnClientChecked(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnProgressTimer(sd_event_source* source, uint64_t usec, void* userdata);

    int Submit(sd_bus_message* m, TFrameObject& frame, TFrameRequest request);
    void Complete(int number, sd_bus_message* call, TFrameOperation operation,
                  const TFrameResult& result);
    void ArmProgressTimer();
    void EmitProgress();
    void EmitContacts(int number, const TContactFrame& frame);
    void EmitFrameSignal(const char* member, int number);
    void WatchClient(const std::string& client);
    // Stops watching a client that has no subscription left.
    void DropClient(const std::string& client);
    // The client left the bus: all its subscriptions go.
    void ForgetClient(const std::string& client);
    void UpdateWanted(TFrameObject& frame);
    void SetHold(TFrameObject& frame, const std::string& client, bool hold);
    TFrameObject* Frame(int number);

    sd_bus* m_bus;
    IMainLoop& m_loop;
    IDriverControl& m_control;
    TConfigJsonCodec m_codec;
    TDbusServiceConfig m_config;
    std::function<std::vector<std::string>(int number)> m_touchscreenNames;
    bool m_started = false;

    sd_bus_slot* m_rootSlot = nullptr;
    sd_bus_slot* m_frameSlot = nullptr;
    sd_bus_slot* m_enumeratorSlot = nullptr;
    sd_event_source* m_progressTimer = nullptr;

    std::map<int, std::unique_ptr<TFrameObject>> m_frames;      // present frames
    std::map<int, std::unique_ptr<CContactTap>> m_taps;         // every frame ever listened to
    std::map<std::string, std::unique_ptr<TClientWatch>> m_clientWatches;  // subscribed clients
    // Lets posted contact frames find out that the service is gone.
    std::shared_ptr<CDbusDriverService*> m_self;
};
