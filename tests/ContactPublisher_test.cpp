// The contact stream as a second listener sees it next to the gestures: every reported contact
// with its calibrated position, lifts as they come, and contacts that stopped being reported
// without a lift (which contact matching retires) once, as retired.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "ContactPublisher.h"

namespace {

struct TIn {
    uint8_t id, status;
    int32_t x, y;
};

// A calibrated frame over the given contacts (the list runs in the given order); raw values are
// half the calibrated ones.
class CFrame {
public:
    explicit CFrame(const std::vector<TIn>& contacts) : m_points(contacts.size()) {
        for (size_t i = 0; i < contacts.size(); ++i) {
            const TIn& c = contacts[i];
            const auto raw = [](int32_t v) { return static_cast<uint16_t>(v / 2); };
            _HARDWARE_SDK_POINT* next = i + 1 < contacts.size() ? &m_points[i + 1] : nullptr;
            m_points[i] = {c.x, c.y, 0, 0, 0, raw(c.x), raw(c.y), 0, 0, 0, c.id, c.status, {}, {},
                           next};
        }
        m_frame.points = m_points.empty() ? nullptr : m_points.data();
    }
    const _HARDWARE_FRAME_SDK& Get() const { return m_frame; }

private:
    std::vector<_HARDWARE_SDK_POINT> m_points;
    _HARDWARE_FRAME_SDK m_frame{};
};

class CRecorder final : public IContactListener {
public:
    void OnFrameReady(const TContactSource& source) override { readyDevice = source.device; }
    void OnContacts(const TContactFrame& frame) override { frames.push_back(frame); }
    void OnFrameEnd(int device) override { endedDevice = device; }

    std::vector<TContactFrame> frames;
    int readyDevice = 0;
    int endedDevice = 0;
};

using TSeen = std::tuple<int, int, bool>;  // id, status, retired

std::vector<TSeen> Seen(const TContactFrame& frame) {
    std::vector<TSeen> seen;
    for (const TContact& c : frame.contacts) seen.emplace_back(c.id, c.status, c.retired);
    return seen;
}

struct TStep {
    std::vector<TIn> frame;
    std::vector<TSeen> seen;
};

TEST(ContactPublisher, SecondListenerSeesWhatTheGesturesSee) {
    const std::vector<TStep> steps = {
        {{{1, 0, 1000, 1000}}, {{1, 0, false}}},
        {{{1, 1, 1100, 1000}, {2, 0, 5000, 5000}}, {{1, 1, false}, {2, 0, false}}},
        {{{2, 1, 5100, 5000}, {1, 1, 1200, 1000}}, {{2, 1, false}, {1, 1, false}}},
        // 1 is no longer reported and never lifted: retired once.
        {{{2, 1, 5200, 5000}}, {{2, 1, false}, {1, 1, true}}},
        {{{2, 2, 5300, 5000}}, {{2, 2, false}}},
        {{{3, 0, 9000, 9000}, {4, 0, 9500, 9500}}, {{3, 0, false}, {4, 0, false}}},
        // An empty frame ends both.
        {{}, {{3, 0, true}, {4, 0, true}}},
        {{}, {}},
    };
    CTouchPointContainer container;
    CRecordingEventSink sink;
    container.SetEventSink(&sink);
    CGestureListener gestures(container);
    CRecorder recorder;
    {
        CContactPublisher publisher(7, {&gestures, &recorder});
        publisher.Ready(TContactSource{7, "frame", 0, 0, nullptr, nullptr, "", ""});
        int64_t stamp = 4'000'000;
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE(i);
            const CFrame frame(steps[i].frame);
            publisher.Publish(frame.Get(), stamp += 40'000);
            const TContactFrame& seen = recorder.frames.back();
            EXPECT_EQ(Seen(seen), steps[i].seen);
            EXPECT_EQ(seen.device, 7);
            EXPECT_EQ(seen.timeStamp, stamp);
            // Every contact the gestures track is in the stream, down, where the gestures have it.
            for (const CTouchPointInfo* tracked : gestures.Tracker().Tracked()) {
                if (tracked->PathEmpty()) continue;
                const CTouchPoint last = tracked->getPointsPath().back();
                const bool found = std::any_of(
                    seen.contacts.begin(), seen.contacts.end(), [&](const TContact& c) {
                        return c.id == tracked->GetID() && !c.Ended() &&
                               static_cast<float>(c.x) == last.GetX() &&
                               static_cast<float>(c.y) == last.GetY();
                    });
                EXPECT_TRUE(found) << "tracked contact " << tracked->GetID();
            }
        }
        EXPECT_EQ(recorder.endedDevice, 0);
    }
    EXPECT_EQ(recorder.readyDevice, 7);
    EXPECT_EQ(recorder.endedDevice, 7);  // the publisher's end reaches every listener
}

TEST(ContactPublisher, CarriesPositionsSizesAndCells) {
    CRecorder recorder;
    CContactPublisher publisher(1, {&recorder});
    CFrame frame({{5, 1, 32766, 1}});
    _HARDWARE_SDK_POINT& p = const_cast<_HARDWARE_SDK_POINT&>(*frame.Get().points);
    p.rawW = 10, p.rawH = 20, p.width = 300, p.height = 600, p.cell[0] = 2, p.cell[1] = 3;
    publisher.Publish(frame.Get(), 1);
    const TContact& c = recorder.frames.at(0).contacts.at(0);
    EXPECT_EQ(std::tie(c.x, c.y, c.rawX, c.rawY), std::make_tuple(32766, 1, 16383, 0));
    EXPECT_TRUE(c.hasSize);
    EXPECT_EQ(std::tie(c.width, c.height, c.cell[0], c.cell[1]),
              std::make_tuple(300, 600, uint8_t{2}, uint8_t{3}));
    // Compact reports carry no size.
    p.rawW = 0, p.rawH = 0;
    publisher.Publish(frame.Get(), 2);
    EXPECT_FALSE(recorder.frames.at(1).contacts.at(0).hasSize);
    EXPECT_EQ(recorder.frames.at(1).contacts.at(0).width, 0);
}

}  // namespace
