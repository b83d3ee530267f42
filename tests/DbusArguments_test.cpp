// The D-Bus methods' arguments: what is refused before anything reaches a frame, and what a
// refusal says. Messages are built on a bus object that is never connected.
#include "DbusArguments.h"

#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using testing::HasSubstr;

TEST(DbusArguments, ScanPatternBoundsAndAnnouncedLength) {
    const struct {
        size_t size;
        uint32_t announced;
        const char* refusal;  // empty: accepted
    } cases[] = {
        {6, 6, ""}, {0x200000, 0x200000, ""}, {0x200001, 0x200001, "at most 2097152 bytes"},
        {70, 71, "announces 71 bytes"}, {70, 69, "announces 69 bytes"},
        {5, 5, "at least 6 bytes, got 5"},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> p(c.size, 0x11);  // bytes 2..5 announce its length
        for (int i = 0; c.size >= 6 && i < 4; ++i) {
            p[2 + i] = static_cast<uint8_t>(c.announced >> (8 * i));
        }
        const TArgumentCheck check = CheckScanPattern(p.data(), p.size(), TDbusArgumentLimits{});
        EXPECT_EQ(check.ok, *c.refusal == '\0') << c.size << ": " << check.error;
        EXPECT_THAT(check.error, HasSubstr(c.refusal));
    }
}

TEST(DbusArguments, TouchSystemFileBounds) {
    const TDbusArgumentLimits limits;
    EXPECT_FALSE(CheckTouchSystemFile(1023, limits).ok);
    EXPECT_TRUE(CheckTouchSystemFile(1024, limits).ok);
    EXPECT_TRUE(CheckTouchSystemFile(limits.maxTouchSystemBytes, limits).ok);
    EXPECT_FALSE(CheckTouchSystemFile(limits.maxTouchSystemBytes + 1, limits).ok);
}

constexpr const char* kOverride =
    R"({"flags":1050373,"option1":255,"option2":0,"option3":7,"value0":2500,"value1":0,)"
    R"("edgeAdjust":[15,-15,0,127]})";

TEST(DbusArguments, OverrideRoundTrip) {
    _HARDWARE_CONFIG_OVERRIDE o{};
    const TArgumentCheck check = ParseOverrideJson(kOverride, TDbusArgumentLimits{}, &o);
    ASSERT_TRUE(check.ok) << check.error;
    // The same members and values, whatever their order.
    EXPECT_EQ(nlohmann::json::parse(OverrideToJson(o)), nlohmann::json::parse(kOverride));
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    text.replace(text.find(from), from.size(), to);
    return text;
}

// Each refusal names the fault and leaves the output alone.
TEST(DbusArguments, OverrideRefusals) {
    const struct {
        std::string json;
        const char* path;  // the refusal names it
    } cases[] = {
        {"{flags", "$: not valid JSON"},
        {"[1,2]", "$: an object is expected"},
        {"", "empty"},
        {Replace(kOverride, "{", R"({"extra":1,)"), "$.extra: unknown"},
        {Replace(kOverride, R"("option3":7,)", ""), "$.option3: missing"},
        {Replace(kOverride, "255", "256"), "$.option1: 256 is outside"},
        {Replace(kOverride, "2500", "-1"), "$.value0: -1 is outside"},
        {Replace(kOverride, "1050373", "4294967296"), "$.flags"},
        {Replace(kOverride, "1050373", "18446744073709551615"), "$.flags"},
        {Replace(kOverride, "2500", "2.5"), "$.value0: an integer"},
        {Replace(kOverride, "2500", R"("2500")"), "$.value0: an integer"},
        {Replace(kOverride, ",127]", "]"), "$.edgeAdjust: an array of 4"},
        {Replace(kOverride, "-15", "-129"), "$.edgeAdjust[1]"},
        {std::string(100, '[') + std::string(100, ']'), "nested too deeply"},
    };
    for (const auto& c : cases) {
        _HARDWARE_CONFIG_OVERRIDE o{};
        o.option1 = 42;
        const TArgumentCheck check = ParseOverrideJson(c.json, TDbusArgumentLimits{}, &o);
        EXPECT_FALSE(check.ok) << c.json;
        EXPECT_THAT(check.error, HasSubstr(c.path));
        EXPECT_EQ(o.option1, 42) << c.json;
    }
}

TEST(DbusArguments, OverrideTextIsBounded) {
    TDbusArgumentLimits limits;
    limits.maxJsonBytes = 16;
    _HARDWARE_CONFIG_OVERRIDE o{};
    EXPECT_THAT(ParseOverrideJson(kOverride, limits, &o).error, HasSubstr("more than 16 bytes"));
}

TEST(DbusArguments, ConfigGoesThroughTheCodec) {
    TConfigJsonCodec codec;
    TFrameRequest request;
    EXPECT_THAT(MakeWriteConfigRequest("{}", codec, {}, &request).error, HasSubstr("no configuration"));
    codec.fromJson = [](std::string_view json, _HARDWARE_DEV_CONFIG* config, std::string* error) {
        if (json != "good") {
            *error = "/areas/0/port: 70000 is out of range";
            return false;
        }
        config->areaCount = 3;
        return true;
    };
    EXPECT_THAT(MakeWriteConfigRequest("bad", codec, {}, &request).error, HasSubstr("/areas/0/port"));
    ASSERT_TRUE(MakeWriteConfigRequest("good", codec, {}, &request).ok);
    EXPECT_EQ(request.operation, TFrameOperation::WriteConfig);
    ASSERT_TRUE(request.config);
    EXPECT_EQ(request.config->areaCount, 3);
}

TEST(DbusArguments, BytesAsHexJson) {
    EXPECT_EQ(BytesToJson({0x00, 0x1f, 0xa0, 0xff}), R"({"bytes":"001fa0ff"})");
    EXPECT_EQ(BytesToJson({}), R"({"bytes":""})");
}

// A method call on a bus over one end of a socketpair that nobody answers: enough to append
// and read arguments.
class MessageTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_fds), 0);
        ASSERT_GE(sd_bus_new(&m_bus), 0);
        ASSERT_GE(sd_bus_set_fd(m_bus, m_fds[0], m_fds[0]), 0);
        ASSERT_GE(sd_bus_start(m_bus), 0);
        ASSERT_GE(sd_bus_message_new_method_call(m_bus, &m_message, "org.irframe.Driver1",
                                                 "/org/irframe/Driver1/frame1",
                                                 "org.irframe.Driver1.Frame", "WriteScanPattern"),
                  0);
    }
    void TearDown() override {
        sd_bus_message_unref(m_message);
        sd_bus_close_unref(m_bus);  // closes m_fds[0]
        close(m_fds[1]);
    }
    void Seal() { ASSERT_GE(sd_bus_message_seal(m_message, 1, 0), 0); }

    int m_fds[2] = {-1, -1};
    sd_bus* m_bus = nullptr;
    sd_bus_message* m_message = nullptr;
};

TEST_F(MessageTest, ByteArrayWithinAndBeyondTheLimit) {
    const std::vector<uint8_t> data(100, 7);
    ASSERT_GE(sd_bus_message_append_array(m_message, 'y', data.data(), data.size()), 0);
    Seal();
    std::vector<uint8_t> out;
    TArgumentCheck check;
    ASSERT_EQ(ReadByteArrayArgument(m_message, 99, &out, &check), 0);
    EXPECT_FALSE(check.ok);
    EXPECT_TRUE(out.empty());
    sd_bus_message_rewind(m_message, 1);
    ASSERT_EQ(ReadByteArrayArgument(m_message, 100, &out, &check), 0);
    EXPECT_TRUE(check.ok);
    EXPECT_EQ(out, data);
}

TEST_F(MessageTest, WrongTypeIsAnError) {
    ASSERT_GE(sd_bus_message_append(m_message, "s", "text"), 0);
    Seal();
    std::vector<uint8_t> out;
    TArgumentCheck check;
    EXPECT_LT(ReadByteArrayArgument(m_message, 100, &out, &check), 0);
    sd_bus_message_rewind(m_message, 1);
    std::string text;
    ASSERT_EQ(ReadStringArgument(m_message, 3, &text, &check), 0);
    EXPECT_FALSE(check.ok);
    sd_bus_message_rewind(m_message, 1);
    ASSERT_EQ(ReadStringArgument(m_message, 4, &text, &check), 0);
    EXPECT_EQ(text, "text");
}

}  // namespace
