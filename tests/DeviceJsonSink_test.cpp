#include "DeviceJsonSink.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// Verify that the device number leads and the key namer's member ends a dry-run key line.
TEST(DeviceJsonSink, DeviceFirstLinuxKeysLast) {
    std::ostringstream out;
    CJsonLinesWriter writer(out);
    CDeviceJsonSink sink(writer, 2, [](const TInputEvent&) {
        return std::vector<std::string>{"KEY_LEFTALT", "KEY_LEFT"};
    });
    sink.Post(TInputEvent::Key(true, 123, EVENT_FLAG_COMMAND));
    sink.Post(TInputEvent::Scroll(50));
    EXPECT_EQ(out.str(),
              "{\"device\":2,\"type\":\"keyDown\",\"tap\":\"session\",\"keyCode\":123,"
              "\"flags\":1048576,\"linuxKeys\":[\"KEY_LEFTALT\",\"KEY_LEFT\"]}\n"
              "{\"device\":2,\"type\":\"scrollWheel\",\"tap\":\"hid\",\"unit\":\"pixel\","
              "\"wheelCount\":2,\"wheel1\":50,\"wheel2\":0,\"flags\":0}\n");
}

}  // namespace
