#include "DevConfigJson.h"

#include "support/ConfigBlockBuilder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

using cfgtest::FilledConfig;

template <class Owner>
void SetText(Owner& owner, const std::u16string& text) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        owner.text[i] = i < static_cast<int>(text.size()) ? text[static_cast<size_t>(i)] : 0;
    }
}

_HARDWARE_KEY_CONFIG Key(uint8_t type, const std::u16string& text, uint32_t seed) {
    _HARDWARE_KEY_CONFIG k{};
    k.rect = {static_cast<uint16_t>(seed), 2, 30, static_cast<uint16_t>(40 + seed)};
    k.type = type;
    k.code0 = static_cast<uint8_t>(seed);
    k.code1 = 0xC1;
    k.code2 = 0xC2;
    SetText(k, text);
    k.keyValue1 = 0xFFFFFFFFu - seed;
    k.keyValue2 = seed;
    k.keyValue3 = 7 * seed;
    return k;
}

// Every field in use with values at the edges of their types; every key kind; a text outside
// the basic plane and one that is not well-formed UTF-16.
std::unique_ptr<_HARDWARE_DEV_CONFIG> RichRecord() {
    auto c = FilledConfig(0);
    DefaultDevConfig('s', 0, c.get());
    SetText(*c, u"Lobby \u00e9cran \U0001F600");
    c->textValue1 = 0xFFFFFFFFu;
    c->textValue2 = 1;
    c->flags = 0x80400801u;
    c->option3 = 0xFF;
    c->value1 = 0xFFFF;
    c->rec1Byte = 9;
    c->rec1Value0 = 0x1234;
    c->rec1Value1 = 0xFFFF;
    c->rec4Byte = 4;
    c->netAddress = 0xC0A80A01u;
    c->port2 = 65535;
    c->areaCount = 3;
    for (int a = 0; a < 3; ++a) c->areas[a] = cfgtest::SampleArea(static_cast<uint8_t>(a + 5));
    c->areas[1].rotation = 200;  // carried even though calibration ignores such an area
    c->areas[2].outputRect = {INT32_MIN, INT32_MAX, -1, 0};
    c->areas[2].edgeAdjust[0] = -128;
    c->areas[2].center = {-32768, 32767};
    c->extraCount = 2;
    for (int i = 0; i < DEV_CONFIG_EXTRA_BYTES; ++i) {
        c->extras[0][i] = static_cast<uint8_t>(i);
        c->extras[1][i] = static_cast<uint8_t>(0xF0 + i);
    }
    c->panelCount = 2;
    _HBRECT_CONFIG_FILE& p = c->panels[0];
    std::memcpy(&p, cfgtest::PanelHead(1, 2, 3, 400, 60).data(), HBRECT_HEAD_BYTES);
    p.keys[0] = Key(KEY_TYPE_CODE, u"", 1);
    p.keys[1] = Key(KEY_TYPE_TEXT2, u"Volume +", 2);
    p.keys[2] = Key(KEY_TYPE_TEXT3, u"0123456789012345678901234567890", 3);  // 31 units
    p.keys[3] = Key(0x00, u"", 4);
    p.keys[4] = Key(0x06, std::u16string(u"bad \xD800 half"), 5);  // lone surrogate
    p.keys[5] = Key(0xF1, u"", 6);
    c->panels[1].id = 2;
    c->panels[1].rows = 0;
    c->panels[1].columns = 9;
    c->backupLength = 5;
    std::memcpy(c->backup, "\x01\x02\xB2\xFE\x00", 5);
    return c;
}

std::string Mutated(const std::string& text, const std::string& pointer,
                    const std::optional<Json>& value) {
    Json j = Json::parse(text);
    const Json::json_pointer ptr(pointer);
    if (value) {
        j[ptr] = *value;
    } else {
        j[ptr.parent_pointer()].erase(ptr.back());
    }
    return j.dump();
}

TEST(DevConfigJson, RichRecordSurvivesDumpRestoreDumpAndTheBlock) {
    const auto original = RichRecord();
    const std::string first = DevConfigToJson(*original);
    auto restored = FilledConfig(0x5A);
    std::string error;
    ASSERT_TRUE(DevConfigFromJson(first, restored.get(), &error)) << error;
    EXPECT_EQ(DevConfigToJson(*restored), first);
    EXPECT_EQ(DevConfigFirstDifference(original.get(), restored.get()), nullptr);

    // What the block carries of the restored record equals the original's block.
    std::vector<uint8_t> a(static_cast<size_t>(EncodeDevConfig(original.get(), nullptr)));
    std::vector<uint8_t> b(static_cast<size_t>(EncodeDevConfig(restored.get(), nullptr)));
    EncodeDevConfig(original.get(), a.data());
    EncodeDevConfig(restored.get(), b.data());
    EXPECT_EQ(a, b);

    // Readable forms of the values that are not plain numbers.
    const Json j = Json::parse(first);
    EXPECT_EQ(j["flags"], "0x80400801");
    EXPECT_EQ(j["netAddress"], "192.168.10.1");
    EXPECT_EQ(j["text"], "Lobby \u00e9cran \U0001F600");
    EXPECT_EQ(j["panels"][0]["keys"][4]["textUnits"][4], 0xD800);
    EXPECT_FALSE(j["panels"][0]["keys"][0].contains("text"));  // code key: no text
    EXPECT_FALSE(j["panels"][0]["keys"][1].contains("keyValue3"));
    EXPECT_EQ(j["backup"], "0102b2fe00");
}

TEST(DevConfigJson, SlotsNotInUseLeaveNoTrace) {
    auto clean = FilledConfig(0);
    DefaultDevConfig(0, 0, clean.get());
    DefaultDevCalConfig(0, 0, clean.get());
    auto stale = FilledConfig(0x77);  // every slot beyond the counts holds leftovers
    DefaultDevConfig(0, 0, stale.get());
    std::memset(static_cast<void*>(&stale->areas[1]), 0x77, sizeof(stale->areas) -
                                                                 sizeof(stale->areas[0]));
    DefaultDevCalConfig(0, 0, stale.get());
    stale->backupLength = DEV_CONFIG_BACKUP_BYTES;  // too long for a block: not carried
    EXPECT_EQ(DevConfigToJson(*stale), DevConfigToJson(*clean));
}

struct TFaultCase {
    const char* pointer;
    std::optional<Json> value;  // none: the member is removed
    const char* message;
};

TEST(DevConfigJson, RefusesEachFaultWithItsPathAndChangesNothing) {
    const std::string good = DevConfigToJson(*RichRecord());
    const Json key = Json::parse(good)["panels"][0]["keys"][1];
    const TFaultCase cases[] = {
        {"/areas/2/port", 70000, "/areas/2/port: 70000 is out of range 0..65535"},
        {"/areas/0/edgeAdjust/plusY", -129, "/areas/0/edgeAdjust/plusY: -129 is out of range -128..127"},
        {"/areas/0/outputRect/x", 2147483648LL, "/areas/0/outputRect/x: 2147483648 is out of range -2147483648..2147483647"},
        {"/option0", -1, "/option0: -1 is out of range 0..255"},
        {"/textValue1", 18446744073709551615ULL, "/textValue1: 18446744073709551615 is out of range 0..4294967295"},
        {"/port", "3333", "/port: expected an integer, found a string"},
        {"/port", 3333.0, "/port: expected an integer, found a number with a fraction or an exponent"},
        {"/areas/1/center", Json::array({1, 2}), "/areas/1/center: expected an object, found an array"},
        {"/areas", Json::object(), "/areas: expected an array, found an object"},
        {"/areas/0/colour", "red", "/areas/0/colour: unknown member"},
        {"/a~0b~1c", 1, "/a~0b~1c: unknown member"},
        {"/areas/0/mode", std::nullopt, "/areas/0: missing member \"mode\""},
        {"/text", std::nullopt, "/: missing member \"text\""},
        {"/textUnits", Json::array({65}), "/: both \"text\" and \"textUnits\"; give one"},
        {"/text", "0123456789012345678901234567890X", "/text: the text takes 32 UTF-16 code units, at most 31"},
        {"/text", "012345678901234567890123456789\U0001F600", "/text: the text takes 32 UTF-16 code units, at most 31"},
        {"/text", std::string("a\0b", 3), "/text: a text cannot hold the character U+0000"},
        {"/panels/0/keys/4/textUnits/1", 0, "/panels/0/keys/4/textUnits/1: a text cannot hold the code unit 0"},
        {"/panels/0/keys/0/keyValue1", 1, "/panels/0/keys/0/keyValue1: not used by a key of type 0x01"},
        {"/panels/0/keys/1/keyValue3", 1, "/panels/0/keys/1/keyValue3: not used by a key of type 0x02"},
        {"/panels/0/keys/3/code0", 1, "/panels/0/keys/3/code0: not used by a key of type 0x00"},
        {"/panels/0/keys/1/type", std::nullopt, "/panels/0/keys/1: missing member \"type\""},
        {"/panels/0/keys/6", key, "/panels/0/keys: 7 keys, but 2 rows of 3 columns hold 6"},
        {"/panels/1/rows", 5, "/panels/1/rows: 5 rows of 9 columns make 45 keys, at most 32"},
        {"/panels/0/reserved4", "00zz0000", "/panels/0/reserved4: \"00zz0000\" is not hexadecimal"},
        {"/extras/1", "0011", "/extras/1: expected 18 hexadecimal digits (9 bytes), found 4 characters"},
        {"/backup", "abc", "/backup: expected an even number of hexadecimal digits, at most 4094 (2047 bytes), found 3 characters"},
        {"/backup", std::string(4096, '0'), "/backup: expected an even number of hexadecimal digits, at most 4094 (2047 bytes), found 4096 characters"},
        {"/flags", "101F05", "/flags: \"101F05\" is not a 32-bit hexadecimal value like \"0x00101F05\""},
        {"/flags", "0x100000000", "/flags: \"0x100000000\" is not a 32-bit hexadecimal value like \"0x00101F05\""},
        {"/netAddress", "10.0.0.256", "/netAddress: \"10.0.0.256\" is not an IPv4 address like \"127.0.0.1\""},
        {"/areas/0/netAddress", "10.0.0", "/areas/0/netAddress: \"10.0.0\" is not an IPv4 address like \"127.0.0.1\""},
        {"/format", "irframe-config-override", "/format: \"irframe-config-override\" is not \"irframe-config\""},
        {"/version", 2, "/version: version 2 is not supported (1 is)"},
    };
    for (const TFaultCase& c : cases) {
        SCOPED_TRACE(c.pointer);
        auto target = FilledConfig(0x5A);
        const auto before = FilledConfig(0x5A);
        std::string error;
        EXPECT_FALSE(DevConfigFromJson(Mutated(good, c.pointer, c.value), target.get(), &error));
        EXPECT_EQ(error, c.message);
        EXPECT_EQ(std::memcmp(target.get(), before.get(), sizeof(*target)), 0);
    }
}

// More slots than the record holds (the most it holds is taken), and what is not plain JSON.
TEST(DevConfigJson, RefusesDocumentsBeyondTheRecordAndPlainJson) {
    const Json good = Json::parse(DevConfigToJson(*RichRecord()));
    auto grown = [&](const char* member, size_t count) {
        Json j = good;
        while (j[member].size() < count) j[member].push_back(good[member][0]);
        return j.dump();
    };
    std::string deep;
    for (int i = 0; i < 40; ++i) deep += "{\"a\":";
    const std::string huge = "\"" + std::string(kDevConfigJsonMaxBytes, 'x') + "\"";
    const struct {
        std::string text;
        std::string message;
    } cases[] = {
        {grown("areas", 33), "/areas: 33 areas, at most 32"},
        {grown("extras", 33), "/extras: 33 extras, at most 32"},
        {grown("panels", 5), "/panels: 5 panels, at most 4"},
        {R"({"format":"irframe-config","format":"x"})", "/format: duplicate member"},
        {R"({"areas":[{"id":1,"id":2}]})", "/areas/0/id: duplicate member"},
        {R"({"panels":[{},{"keys":[{"rect":{"x":1,"x":1}}]}]})", "/panels/1/keys/0/rect/x: duplicate member"},
        {deep, "/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a: nested deeper than 16 levels"},
        {huge, "the document has 1048578 bytes, at most 1048576"},
        {"[]", "/: expected an object, found an array"},
        {"{\"format\": }", "parse error at line 1, column 12: syntax error while parsing value - "
                           "unexpected '}'; expected '[', '{', or a literal"},
    };
    for (const auto& c : cases) {
        auto target = FilledConfig(0);
        std::string error;
        EXPECT_FALSE(DevConfigFromJson(c.text, target.get(), &error));
        EXPECT_EQ(error, c.message);
    }
    for (const auto& [member, most] : {std::pair{"areas", 32}, {"extras", 32}, {"panels", 4}}) {
        auto target = FilledConfig(0);
        std::string error;
        EXPECT_TRUE(DevConfigFromJson(grown(member, most), target.get(), &error)) << error;
    }
}

TEST(DevConfigJson, OverrideRoundTripsAndIsStrict) {
    _HARDWARE_CONFIG_OVERRIDE o{};
    o.flags = 0x00305F05;
    o.option1 = 255;
    o.option3 = 7;
    o.value0 = 2500;
    o.value1 = 65535;
    o.edgeAdjust[0] = -128;
    o.edgeAdjust[3] = 127;
    const std::string text = DevConfigOverrideToJson(o);
    _HARDWARE_CONFIG_OVERRIDE back{};
    std::string error;
    ASSERT_TRUE(DevConfigOverrideFromJson(text, &back, &error)) << error;
    EXPECT_EQ(std::memcmp(&o, &back, sizeof o), 0);
    EXPECT_EQ(DevConfigOverrideToJson(back), text);

    EXPECT_FALSE(DevConfigOverrideFromJson(Mutated(text, "/edgeAdjust/minusY", 200), &back, &error));
    EXPECT_EQ(error, "/edgeAdjust/minusY: 200 is out of range -128..127");
    // A configuration is not an override.
    EXPECT_FALSE(DevConfigOverrideFromJson(DevConfigToJson(*RichRecord()), &back, &error));
    EXPECT_EQ(error, "/option0: unknown member");
}

TEST(DevConfigJson, DifferencesNameEachChangedValue) {
    const auto from = RichRecord();
    auto to = RichRecord();
    to->areas[0].targetRect.width = 1280;
    to->flags = 0x101F05;
    to->areaCount = 2;
    to->panelCount = 3;
    SetText(to->panels[0].keys[1], u"Volume -");
    const std::vector<std::string> expected = {
        "/flags: \"0x80400801\" -> \"0x00101F05\"",
        "/areas/0/targetRect/width: 1005 -> 1280",
        "/areas/2: removed",
        "/panels/0/keys/1/text: \"Volume +\" -> \"Volume -\"",
        "/panels/2: added",
    };
    EXPECT_EQ(DevConfigDifferences(*from, *to), expected);
    EXPECT_TRUE(DevConfigDifferences(*from, *from).empty());
}

TEST(DevConfigJson, SummaryCountsWhatIsInUse) {
    auto c = FilledConfig(0);
    EXPECT_EQ(DevConfigSummary(*c), "0 areas, 0 panels");
    c->areaCount = 1;
    c->panelCount = 1;
    c->panels[0].rows = 1;
    c->panels[0].columns = 1;
    EXPECT_EQ(DevConfigSummary(*c), "1 area, 1 panel (1 key)");
    EXPECT_EQ(DevConfigSummary(*RichRecord()), "3 areas, 2 panels (6 keys)");
    // Counts a device may claim are taken within the record.
    c->areaCount = 200;
    c->panelCount = 200;
    EXPECT_EQ(DevConfigSummary(*c).substr(0, 19), "32 areas, 4 panels ");
}

}  // namespace
