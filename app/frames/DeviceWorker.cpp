// The worker of one device: open, configure, learn the frame geometry, set up calibration and
// gestures, then poll frames back to back until the device goes or stops answering.
#include <memory>

#include "CCalibrateSystem.h"
#include "ContactPublisher.h"
#include "LoadEvent.h"
#include "MtDevConfig.h"
#include "MtDevLog.h"
#include "Parameter.h"

namespace {

// Counts the worker out however it returns.
struct TWorkerScope {
    const TWorkerContext& context;
    ~TWorkerScope() {
        if (context.ended) context.ended();
    }
};

// Answers what tools still wait for when the worker ends, however it ends.
struct TRequestScope {
    MtDevNode* node;
    ~TRequestScope() {
        const bool removed = node->removed.load();
        const bool stopping = node->worker.stopping != nullptr && node->worker.stopping->load();
        const bool gone = removed || stopping;
        node->frame.Close(node->deviceNumber, gone,
                          removed ? "went away" : stopping ? "was closed as the driver ends"
                                                           : "stopped answering");
        if (!gone) node->frame.SetState(node->deviceNumber, TFrameState::Failed);
    }
};

// A worker that ends before it polls leaves a frame that failed, unless it was unplugged.
unsigned int EndFailed(MtDevNode* node) {
    node->frame.SetState(node->deviceNumber, TFrameState::Failed);
    return 0;
}

// The orderly end of the process reached a worker that still owns an open device.
unsigned int EndForShutdown(MtDevNode* node) {
    node->controller.CloseDevice(0);
    node->container.releaseClick();
    TLogSystem("THREAD QUIT");
    return 0;
}

}  // namespace

unsigned int test(void* arg) {
    auto* pDev = static_cast<MtDevNode*>(arg);
    const TWorkerContext& context = pDev->worker;
    TWorkerScope scope{context};
    const auto Stopping = [&context] {
        return context.stopping != nullptr && context.stopping->load();
    };
    TLogSystem("Thread Running");
    const std::string name =
        pDev->hidDevice != nullptr ? DescribeHidIdentity(pDev->hidDevice->Identity()) : "";

    if (pDev->controller.OpenDevice(pDev->devPath) != 0) {
        TLogSystem("opendevice err");
        pDev->controller.CloseDevice(0);
        return EndFailed(pDev);
    }
    // A tool may ask as soon as the frame is open: its request waits for the first poll, and
    // a worker that ends before then answers it.
    pDev->frame.OpenForRequests();
    TRequestScope requests{pDev};
    pDev->frame.SetState(pDev->deviceNumber, TFrameState::Configuring);

    TLogSystem("STEP 1");
    // Tens of kilobytes: on the heap rather than the thread's stack.
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    for (int failed = 0;;) {
        if (Stopping()) return EndForShutdown(pDev);
        if (pDev->controller.GetDeviceConfig(config.get()) == DE_OK) break;
        TSleepMicros(kRetryPauseMicros);
        if (++failed >= kConfigReadTries) {
            TLogSystem("GETCFG_ERR");
            TLog(TLogLevel::Warning,
                 "frame %d (%s): configuration not read after %d tries; the frame is closed. "
                 "Unplug it and plug it in again",
                 pDev->deviceNumber, name.c_str(), kConfigReadTries);
            pDev->controller.CloseDevice(0);
            return EndFailed(pDev);
        }
    }

    TLogSystem("STEP 2");
    TFrameRecord record(kFrameBufferBytes);
    _HARDWARE_FRAME_SDK* frame = &record.frame;
    pDev->isRunning.store(true);

    for (int failed = 0;;) {
        if (Stopping()) return EndForShutdown(pDev);
        if (pDev->controller.GetFrameSdk(frame) == DE_OK) break;
        TSleepMicros(kRetryPauseMicros);
        if (++failed >= kFirstFrameTries) {
            // The run flag stays set on this path.
            TLogSystem("GETFRAME_ERR");
            TLog(TLogLevel::Warning,
                 "frame %d (%s): no touch report after %d tries; the frame is closed. "
                 "Unplug it and plug it in again",
                 pDev->deviceNumber, name.c_str(), kFirstFrameTries);
            pDev->controller.CloseDevice(0);
            return EndFailed(pDev);
        }
    }

    // The first frame gives the geometry; its contacts are not used.
    const _CS_CONFIG geometry{frame->logicalWidth, frame->logicalHeight,
                              static_cast<int16_t>(frame->rawWidth),
                              static_cast<int16_t>(frame->rawHeight)};

    TLogSystem("STEP 3");
    CCalibrateSystem calibration;
    calibration.InitCalibrateSys(config.get(), &geometry);

    TLogSystem("STEP 4");
    const TShellPorts* ports = context.ports;
    const std::optional<TScreenRect> screen =
        ports != nullptr && ports->screen != nullptr ? ports->screen->MainScreenFrame()
                                                     : std::nullopt;
    const TScreenRect board = screen.value_or(TScreenRect{});

    // The outputs a desktop reads directly listen first, then the gestures, then the frame's
    // other outputs. The publisher ends the stream (every listener lifts its contacts) on each
    // way out of the worker.
    CGestureListener gestures(pDev->container, &pDev->frame.GesturesHeld());
    std::vector<IContactListener*> listeners = context.firstListeners;
    if (ports == nullptr || ports->gestures) listeners.push_back(&gestures);
    listeners.insert(listeners.end(), context.listeners.begin(), context.listeners.end());
    CContactPublisher stream(pDev->deviceNumber, std::move(listeners));
    pDev->container.SetScreenBoard(static_cast<float>(board.width),
                                   static_cast<float>(board.height));
    const TMtHidIdentity identity =
        pDev->hidDevice != nullptr ? pDev->hidDevice->Identity() : TMtHidIdentity{};
    const TContactSource source{pDev->deviceNumber, name, identity.vendorId, identity.productId,
                                config.get(), &geometry, identity.serial, identity.node};
    stream.Ready(source);
    TLog(TLogLevel::Debug, "frame %d ready: logical %dx%d, raw %dx%d", pDev->deviceNumber,
         geometry.logicalWidth, geometry.logicalHeight, geometry.rawWidth, geometry.rawHeight);

    TLogSystem("STEP 5");
    timeval unused;
    TGetTimeOfDay(&unused);

    // Tools: the frame is running; its requests are carried out between two polls.
    const int number = pDev->deviceNumber;
    pDev->frame.SetConfigured(number,
                              {geometry.logicalWidth, geometry.logicalHeight, geometry.rawWidth,
                               geometry.rawHeight},
                              *config);
    pDev->frame.SetState(number, TFrameState::Running);
    // A configuration the frame took from a tool is what it calibrates with from now on.
    const auto reconfigure = [&](const _HARDWARE_DEV_CONFIG& written) {
        *config = written;
        calibration.InitCalibrateSys(config.get(), &geometry);
        pDev->frame.SetConfigured(number,
                                  {geometry.logicalWidth, geometry.logicalHeight,
                                   geometry.rawWidth, geometry.rawHeight},
                                  *config);
        stream.ConfigChanged(source);  // `source` points at the rewritten record
    };

    for (;;) {
        if (pDev->frame.HasRequest()) pDev->frame.Serve(pDev->controller, reconfigure);
        for (int k = 0;; ++k) {
            if (!pDev->isRunning.load()) {
                if (Stopping() && !pDev->removed.load()) return EndForShutdown(pDev);
                // The device is gone: no close command goes to it, but its handle is given
                // back. A hidraw node held open keeps its minor number taken, and there are
                // only 64 of them.
                pDev->controller.CloseDevice(MTDEV_CLOSE_SILENT);
                // The removal released the button, but a frame this worker still had in hand
                // may have pressed it again: nothing stays held once the worker is gone.
                pDev->container.releaseClick();
                TLogSystem("THREAD QUIT");
                return 0;
            }
            (void)TGetTickCount();
            if (k >= kFramePollTries) {
                TLogSystem("pDev->faildCount==0");
                TLog(TLogLevel::Warning,
                     "frame %d (%s) stopped answering (%d polls in a row failed) and was closed. "
                     "Unplug it and plug it in again",
                     pDev->deviceNumber, name.c_str(), kFramePollTries);
                pDev->controller.CloseDevice(0);
                pDev->container.releaseClick();
                TLogSystem("THREAD QUIT");
                return 0;
            }
            const DEV_ERR result = pDev->controller.GetFrameSdk(frame);
            if (result == DE_OK) {
                if (k > 0 && TLogEnabled(TLogLevel::Info)) {
                    TLog(TLogLevel::Info, "frame %d answers again after %d failed poll(s)",
                         pDev->deviceNumber, k);
                }
                break;
            }
            TLogSystem("getsdk->err:%d", static_cast<int>(result));
        }
        pDev->frame.PollSucceeded();
        const int64_t stamp = CurrentFrameTimeStamp();
        calibration.CalFramePoint(frame);
        calibration.GetAbsHIDCoords(frame);
        stream.Publish(*frame, stamp);
    }
}
