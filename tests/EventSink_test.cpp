#include "EventSink.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

namespace {

// Verify the JSON lines that the demo's golden output does not show: a click state, and a key
// without a key namer (no "linuxKeys").
TEST(JsonLinesEventSink, ClickStateAndKeyWithoutNamer) {
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Mouse(
                  TInputEventType::MouseMoved, 1.0, 2.0, EVENT_FLAG_SECONDARY_FN, 2)),
              R"({"type":"mouseMoved","tap":"hid","button":"left","x":1.0,"y":2.0,"clickState":2,"flags":8388608})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Key(false, 124, EVENT_FLAG_CONTROL)),
              R"({"type":"keyUp","tap":"session","keyCode":124,"flags":262144})");
}

// Verify that the sink writes one line per event, in order, with full precision, and that its
// key namer adds "linuxKeys" to key lines only, after every other member.
TEST(JsonLinesEventSink, OneLinePerEventKeysNamed) {
    std::ostringstream out;
    const TKeyNamer namer = [](const TInputEvent&) { return std::vector<std::string>{"KEY_0"}; };
    CJsonLinesEventSink sink(out, namer);
    sink.Post(TInputEvent::Mouse(TInputEventType::LeftMouseDragged, 1.0 / 3.0, 0.1,
                                 EVENT_FLAG_SECONDARY_FN));
    sink.Post(TInputEvent::Key(true, 29, EVENT_FLAG_COMMAND));
    sink.Post(TInputEvent::Scroll(-37));
    EXPECT_EQ(
        out.str(),
        R"({"type":"leftMouseDragged","tap":"hid","button":"left","x":0.3333333333333333,"y":0.1,"flags":8388608})"
        "\n"
        R"({"type":"keyDown","tap":"session","keyCode":29,"flags":1048576,"linuxKeys":["KEY_0"]})"
        "\n"
        R"({"type":"scrollWheel","tap":"hid","unit":"pixel","wheelCount":2,"wheel1":-37,"wheel2":0,"flags":0})"
        "\n");
}

// Verify that the recording sink keeps events in order across threads and hands them over.
TEST(RecordingEventSink, RecordsTakesAndClears) {
    CRecordingEventSink sink;
    std::thread other([&sink] {
        for (int i = 0; i < 100; ++i) sink.Post(TInputEvent::Scroll(i));
    });
    for (int i = 0; i < 100; ++i) sink.Post(TInputEvent::Key(true, 1, 0));
    other.join();
    EXPECT_EQ(sink.Count(), 200u);
    const std::vector<TInputEvent> taken = sink.Take();
    int next = 0;
    for (const TInputEvent& e : taken) {
        if (e.type == TInputEventType::ScrollWheel) {
            EXPECT_EQ(e.wheel1, next++);
        }
    }
    EXPECT_EQ(next, 100);
    EXPECT_EQ(sink.Count(), 0u);
    sink.Post(TInputEvent::Scroll(1));
    sink.Clear();
    EXPECT_TRUE(sink.Events().empty());
}

// Verify the readable form used in test failure messages.
TEST(InputEvent, Describe) {
    EXPECT_EQ(DescribeInputEvent(TInputEvent::Mouse(TInputEventType::LeftMouseUp, 12.5, 40, 0)),
              "leftMouseUp hid left (12.5, 40)");
    EXPECT_EQ(DescribeInputEvent(TInputEvent::Mouse(TInputEventType::MouseMoved, 1, 2,
                                                    EVENT_FLAG_SECONDARY_FN, 2)),
              "mouseMoved hid left (1, 2) flags=0x800000 click=2");
    EXPECT_EQ(DescribeInputEvent(TInputEvent::Key(false, 29, EVENT_FLAG_COMMAND)),
              "keyUp session key 29 flags=0x100000");
    EXPECT_EQ(DescribeInputEvent(TInputEvent::Scroll(5)), "scrollWheel hid wheels 5 0");
}

}  // namespace
