// A frame worker in process on a virtual clock: the emulated frame answers through a scripted
// HID port, every pause the worker takes is noted, and a test acts from inside a poll, as the
// main thread would between two of them.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "FrameRequests.h"
#include "LoadEvent.h"
#include "MtDevEmulator.h"
#include "MtScriptedHidDevice.h"
#include "support/MtDevLinkRig.h"

// The virtual clock, noting every pause the worker takes.
class CPauseClock final : public TClock {
public:
    uint64_t MonotonicNanos() override { return m_inner.MonotonicNanos(); }
    void TimeOfDay(timeval* tv) override { m_inner.TimeOfDay(tv); }
    void SleepMicros(uint64_t micros) override {
        pauses.push_back(micros);
        m_inner.AdvanceMicros(micros);
    }
    // Time passing between two frames, not a pause of the worker.
    void Pass(uint64_t micros) { m_inner.AdvanceMicros(micros); }
    std::vector<uint64_t> pauses;

private:
    TVirtualClock m_inner{1'000'000'000};
};

// A screen of a fixed size, or none.
class CFixedScreen final : public IScreen {
public:
    explicit CFixedScreen(std::optional<TScreenRect> r = TScreenRect{0, 0, 1920, 1080}) : rect(r) {}
    std::optional<TScreenRect> MainScreenFrame() const override { return rect; }
    std::optional<TScreenRect> rect;
};

struct TWorkerRig {
    CPauseClock clock;
    TScopedClock scopedClock{clock};
    CMtDevEmulator emulator;
    CMtScriptedHidDevice port;
    TMACDEVICEPATH path{&port, nullptr, MTDEV_TYPE_HID};
    MtDevNode node;
    std::atomic<bool> stopping{false};
    CRecordingEventSink sink;
    CFixedScreen screen;
    TShellPorts ports;
    int ended = 0;
    // Runs before each frame poll is answered, with the number of polls answered so far.
    std::function<void(uint64_t served)> beforePoll;
    std::vector<TFrameResult> results;
    CLogCapture log;

    TWorkerRig() {
        port.SetResponder([this](const uint8_t* report, long length,
                                 std::vector<TScriptedInput>* inputs) {
            const bool poll = length > 5 && report[0] == MTDEV_PACKET_READ &&
                              report[report[5]] == MTDEV_CMD_FRAME_SDK;
            if (poll) {
                clock.Pass(10'000);  // a frame every 10 ms
                if (beforePoll) beforePoll(emulator.FramesServed());
            }
            std::vector<TEmuReply> replies;
            emulator.OnHidOutput(report, static_cast<size_t>(length), &replies);
            for (TEmuReply& reply : replies) inputs->push_back({std::move(reply.bytes)});
        });
        node.devPath = &path;
        node.hidDevice = &port;
        node.deviceNumber = 1;
        node.frame.present = true;
        node.container.SetEventSink(&sink);
        node.worker.stopping = &stopping;
        ports.screen = &screen;
        node.worker.ports = &ports;
        node.worker.ended = [this] { ++ended; };
    }
    ~TWorkerRig() { node.devPath = nullptr; }
    TWorkerRig(const TWorkerRig&) = delete;
    TWorkerRig& operator=(const TWorkerRig&) = delete;

    // Runs the worker to its end; the events it posted.
    std::vector<TInputEvent> Run() {
        EXPECT_EQ(test(&node), 0u);
        return sink.Take();
    }
    void Submit(TFrameRequest request) {
        std::string why;
        ASSERT_TRUE(node.frame.Accept(std::move(request),
                                      [this](TFrameResult r) { results.push_back(std::move(r)); },
                                      &why))
            << why;
    }
    // At poll `at`, `request` handed to the frame as the main thread would.
    void SubmitAt(uint64_t at, TFrameRequest request) {
        Then([this, at, request = std::move(request)](uint64_t n) {
            if (n == at) Submit(request);
        });
    }
    void FailNext(uint8_t command, int count, int skip = 0) {
        // Each fault counts the skipped messages itself, so the failures come in a row.
        for (int i = 0; i < count; ++i) {
            emulator.InjectFault({TEmuFaultKind::WrongCode, command, TEmuStage::Any, skip});
        }
    }
    bool Logged(const std::string& line) const { return log.Count(TLogChannel::System, line) > 0; }
    int CloseCommands() const {
        int n = 0;
        for (const TEmuRequest& r : emulator.Requests()) n += r.command == MTDEV_CMD_CLOSE;
        return n;
    }
    // From poll `at` on, the frame is gone, as the main thread marks an unplugged one.
    void Unplug() {
        node.removed.store(true);
        node.isRunning.store(false);
    }
    void UnplugAt(uint64_t at) {
        Then([this, at](uint64_t n) {
            if (n >= at) Unplug();
        });
    }
    // From poll `at` on, the driver is stopping.
    void StopAt(uint64_t at) {
        Then([this, at](uint64_t n) {
            if (n < at) return;
            stopping.store(true);
            node.isRunning.store(false);
        });
    }
    // At poll `at`: a tap at raw (x, y); the frame is unplugged 12 polls later.
    void TapAt(uint64_t at, uint16_t x, uint16_t y) {
        Then([this, at, x, y](uint64_t n) {
            if (n == at) {
                emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 0, x, y}}));
                for (int i = 0; i < 3; ++i) {
                    emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 1, x, y}}));
                }
                emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 2, x, y}}));
            }
        });
        UnplugAt(at + 12);
    }
    // Adds a step to what runs before each poll.
    void Then(std::function<void(uint64_t)> step) {
        beforePoll = [previous = std::move(beforePoll), step = std::move(step)](uint64_t n) {
            if (previous) previous(n);
            step(n);
        };
    }
};
