// A button held when its contact goes away (the frame is unplugged or stops answering, or the
// driver stops) is released where the finger was: the posted pointer does not jump to a corner.
#include "UinputEventSink.h"

#include "support/GestureHarness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <unistd.h>

#include <vector>

namespace {

TDisplayGeometry Screen1920() {
    TDisplayGeometry g;
    g.main = {0, 0, 1920, 1080};
    g.desktopWidth = 1920;
    g.desktopHeight = 1080;
    return g;
}

// The evdev events written to a pipe, as the uinput node would take them.
struct TPipeSink {
    int readEnd = -1;
    std::unique_ptr<CUinputEventSink> sink;

    TPipeSink() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return;
        readEnd = fds[0];
        sink = CUinputEventSink::Adopt(fds[1], Screen1920(), TKeyProfile::Literal);
    }
    ~TPipeSink() {
        sink.reset();
        if (readEnd >= 0) ::close(readEnd);
    }
    // Everything written so far, one vector per SYN_REPORT.
    std::vector<std::vector<TEvdevEvent>> Reports() {
        std::vector<std::vector<TEvdevEvent>> reports(1);
        input_event raw{};
        while (::read(readEnd, &raw, sizeof raw) == static_cast<ssize_t>(sizeof raw)) {
            if (raw.type == EV_SYN && raw.code == SYN_REPORT) {
                reports.emplace_back();
                continue;
            }
            reports.back().push_back({raw.type, raw.code, raw.value});
        }
        reports.pop_back();  // what follows the last report (nothing)
        return reports;
    }
};

// Hands every event to two sinks.
class CTeeSink final : public CEventSink {
public:
    CTeeSink(CEventSink& first, CEventSink& second) : m_first(first), m_second(second) {}
    void Post(const TInputEvent& event) override {
        m_first.Post(event);
        m_second.Post(event);
    }

private:
    CEventSink& m_first;
    CEventSink& m_second;
};

// Verify that a release of a button whose contact is gone, during a drag, only lifts the
// button: the pointer stays at the drag's last point, while the dry run still shows the
// release at the origin.
TEST(ReleaseWithoutContact, LeavesThePointerWhereTheFingerWas) {
    TPipeSink out;
    ASSERT_NE(out.sink, nullptr);
    CGestureHarness h;
    CRecordingEventSink dryRun;
    CTeeSink tee{*out.sink, dryRun};
    h.container.SetEventSink(&tee);
    h.Play("down 1 8000 8000\nmove 1 16000 12000 in 4\n");
    h.container.releaseClick();  // as the driver does when the frame goes away or it stops

    const std::vector<TInputEvent> posted = dryRun.Events();
    ASSERT_GE(posted.size(), 3u);
    EXPECT_EQ(posted.back(), TInputEvent::Mouse(TInputEventType::LeftMouseUp, 0, 0,
                                                EVENT_FLAG_SECONDARY_FN));
    const TInputEvent& lastDrag = posted[posted.size() - 2];
    ASSERT_EQ(lastDrag.type, TInputEventType::LeftMouseDragged);

    const std::vector<std::vector<TEvdevEvent>> reports = out.Reports();
    ASSERT_EQ(reports.size(), posted.size());
    CEvdevTranslator axes(Screen1920(), TKeyProfile::Literal);
    const std::vector<TEvdevEvent> dragTo = {{EV_ABS, ABS_X, axes.AbsoluteX(lastDrag.x)},
                                             {EV_ABS, ABS_Y, axes.AbsoluteY(lastDrag.y)}};
    EXPECT_EQ(reports[reports.size() - 2], dragTo);
    EXPECT_EQ(reports.back(), (std::vector<TEvdevEvent>{{EV_KEY, BTN_LEFT, 0}}));
    h.container.SetEventSink(nullptr);
}

}  // namespace
