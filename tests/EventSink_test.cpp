#include "EventSink.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <thread>

namespace {

// Verify the JSON line of each kind of event: names, tap, fields present for the kind only.
TEST(JsonLinesEventSink, FieldsPerKind) {
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Mouse(
                  TInputEventType::LeftMouseDown, 12.5, 40.0, EVENT_FLAG_SECONDARY_FN)),
              R"({"type":"leftMouseDown","tap":"hid","button":"left","x":12.5,"y":40.0,"flags":8388608})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Mouse(
                  TInputEventType::MouseMoved, 1.0, 2.0, EVENT_FLAG_SECONDARY_FN, 2)),
              R"({"type":"mouseMoved","tap":"hid","button":"left","x":1.0,"y":2.0,"clickState":2,"flags":8388608})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Mouse(
                  TInputEventType::RightMouseUp, 3.0, 4.0, EVENT_FLAG_NONE, 0, TMouseButton::Right)),
              R"({"type":"rightMouseUp","tap":"hid","button":"right","x":3.0,"y":4.0,"flags":0})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Key(true, 29, EVENT_FLAG_COMMAND)),
              R"({"type":"keyDown","tap":"session","keyCode":29,"flags":1048576})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Key(false, 124, EVENT_FLAG_CONTROL)),
              R"({"type":"keyUp","tap":"session","keyCode":124,"flags":262144})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Scroll(-37)),
              R"({"type":"scrollWheel","tap":"hid","unit":"pixel","wheelCount":2,"wheel1":-37,"wheel2":0,"flags":0})");
}

// Verify that a key namer adds "linuxKeys" after every other member of key lines only, and that
// the other members stay as they are.
TEST(JsonLinesEventSink, LinuxKeysEndKeyLines) {
    const TKeyNamer namer = [](const TInputEvent& e) {
        return e.keyCode == 29 ? std::vector<std::string>{"KEY_LEFTCTRL", "KEY_0"}
                               : std::vector<std::string>{};
    };
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Key(true, 29, EVENT_FLAG_COMMAND), namer),
              R"({"type":"keyDown","tap":"session","keyCode":29,"flags":1048576,"linuxKeys":["KEY_LEFTCTRL","KEY_0"]})");
    EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(TInputEvent::Key(false, 15, EVENT_FLAG_COMMAND), namer),
              R"({"type":"keyUp","tap":"session","keyCode":15,"flags":1048576,"linuxKeys":[]})");
    const TInputEvent others[] = {
        TInputEvent::Mouse(TInputEventType::LeftMouseDown, 12.5, 40.0, EVENT_FLAG_SECONDARY_FN, 1),
        TInputEvent::Scroll(-37)};
    for (const TInputEvent& e : others) {
        EXPECT_EQ(CJsonLinesEventSink::ToJsonLine(e, namer), CJsonLinesEventSink::ToJsonLine(e));
    }
    std::ostringstream out;
    CJsonLinesEventSink sink(out, namer);
    sink.Post(TInputEvent::Key(true, 29, EVENT_FLAG_COMMAND));
    EXPECT_NE(out.str().find(R"("linuxKeys":["KEY_LEFTCTRL","KEY_0"]})"), std::string::npos);
}

// Verify that the sink writes one parseable object per line, in order, with full precision.
TEST(JsonLinesEventSink, OneObjectPerLine) {
    std::ostringstream out;
    CJsonLinesEventSink sink(out);
    sink.Post(TInputEvent::Mouse(TInputEventType::LeftMouseDragged, 1920.0 / 3.0, 0.1,
                                 EVENT_FLAG_SECONDARY_FN));
    sink.Post(TInputEvent::Key(true, 15, EVENT_FLAG_COMMAND));
    std::istringstream lines(out.str());
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    const auto first = nlohmann::json::parse(line);
    EXPECT_EQ(first["type"], "leftMouseDragged");
    EXPECT_EQ(first["x"].get<double>(), 1920.0 / 3.0);
    EXPECT_EQ(first["y"].get<double>(), 0.1);
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(nlohmann::json::parse(line)["keyCode"], 15);
    EXPECT_FALSE(std::getline(lines, line));
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
