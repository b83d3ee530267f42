#include "MtDevConfig.h"

#include "support/ConfigBlockBuilder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

using cfgtest::Append16;
using cfgtest::Append32;
using cfgtest::CodeKey;
using cfgtest::ConfigBlockBuilder;
using cfgtest::EmptyKey;
using cfgtest::PanelHead;
using cfgtest::PanelRecordBuilder;
using cfgtest::TextBytes;
using cfgtest::TextKey;

namespace {

using Bytes = std::vector<uint8_t>;

// Fields of the byte-packed records are compared through a copy (`+field`): a gtest assertion
// would otherwise bind a reference to a misaligned member.

struct Config {
    Config() : c(std::make_unique<_HARDWARE_DEV_CONFIG>()) {
        std::memset(static_cast<void*>(c.get()), 0, sizeof(*c));
    }
    _HARDWARE_DEV_CONFIG* operator->() { return c.get(); }
    _HARDWARE_DEV_CONFIG* get() { return c.get(); }
    std::unique_ptr<_HARDWARE_DEV_CONFIG> c;
};

// Decodes from a heap copy of exactly the block's size, so ASan sees any read past it.
int Decode(const Bytes& block, _HARDWARE_DEV_CONFIG* config, int length = -1) {
    const size_t n = length < 0 ? block.size() : static_cast<size_t>(length);
    std::unique_ptr<uint8_t[]> exact(new uint8_t[n == 0 ? 1 : n]);
    if (n != 0) std::memcpy(exact.get(), block.data(), std::min(n, block.size()));
    return DecodeDevConfig(exact.get(), static_cast<int>(n), config);
}

Bytes Encode(const _HARDWARE_DEV_CONFIG* config, uint8_t fill = 0xEE) {
    const int length = EncodeDevConfig(config, nullptr);
    Bytes out(static_cast<size_t>(length), fill);
    EXPECT_EQ(EncodeDevConfig(config, out.data()), length);
    return out;
}

std::wstring KeyText(const _HARDWARE_KEY_CONFIG& key) {
    std::wstring s;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS && key.text[i] != 0; ++i) s += key.text[i];
    return s;
}

std::wstring RecordText(const _HARDWARE_DEV_CONFIG& c) {
    std::wstring s;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS && c.text[i] != 0; ++i) s += c.text[i];
    return s;
}

void SetKeyText(_HARDWARE_KEY_CONFIG& key, const std::wstring& text) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        key.text[i] = i < static_cast<int>(text.size()) ? text[static_cast<size_t>(i)] : 0;
    }
}

void SetRecordText(_HARDWARE_DEV_CONFIG& c, const std::wstring& text) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        c.text[i] = i < static_cast<int>(text.size()) ? text[static_cast<size_t>(i)] : 0;
    }
}

uint16_t At16(const Bytes& b, size_t offset) {
    return static_cast<uint16_t>(b.at(offset) | (b.at(offset + 1) << 8));
}

uint32_t At32(const Bytes& b, size_t offset) {
    return At16(b, offset) | (static_cast<uint32_t>(At16(b, offset + 2)) << 16);
}

// A record with every kind of content: areas, extras, the small records, a text, 4 panels of
// keys of every type with shared texts, and a backup.
void FillRich(_HARDWARE_DEV_CONFIG& c, int areas, int panels, int keysPerPanel) {
    DefaultDevConfig('x', 0, &c);
    c.flags = 0x12345678;
    c.option0 = 3;
    c.option1 = 4;
    c.option2 = 5;
    c.option3 = 6;
    c.value0 = 0xBEEF;
    c.value1 = 0x1234;
    c.rec1Byte = 7;
    c.rec1Value0 = 0x0102;
    c.rec1Value1 = 0x0304;
    c.rec4Byte = 9;
    c.rec2Value = 0x0A0B;
    c.textValue1 = 0xDEADBEEF;
    c.textValue2 = 42;
    SetRecordText(c, L"Front wall \x263A");
    c.areaCount = static_cast<uint8_t>(areas);
    for (int i = 0; i < areas; ++i) c.areas[i] = cfgtest::SampleArea(static_cast<uint8_t>(i));
    c.extraCount = 3;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < DEV_CONFIG_EXTRA_BYTES; ++j) c.extras[i][j] = static_cast<uint8_t>(i * 16 + j);
    }
    c.panelCount = static_cast<uint8_t>(panels);
    const wchar_t* names[] = {L"Play", L"Stop", L"Volume up", L"Next", L"Play", L"A"};
    for (int p = 0; p < panels; ++p) {
        _HBRECT_CONFIG_FILE& panel = c.panels[p];
        panel.id = static_cast<uint8_t>(p + 1);
        panel.reserved1 = 0x11;
        panel.rows = static_cast<uint8_t>(keysPerPanel >= 4 ? 4 : 1);
        panel.columns = static_cast<uint8_t>(keysPerPanel / panel.rows);
        std::memset(panel.reserved4, 0x44, sizeof(panel.reserved4));
        panel.width = 400;
        panel.height = 300;
        panel.center = {static_cast<int16_t>(1000 * p), 2000};
        panel.axisH = {-3000, 1};
        panel.axisV = {2, 4000};
        for (int k = 0; k < keysPerPanel; ++k) {
            _HARDWARE_KEY_CONFIG& key = panel.keys[k];
            key.rect = {static_cast<uint16_t>(k), static_cast<uint16_t>(p), 50, 40};
            switch ((k + p) % 4) {
                case 0:
                    key.type = KEY_TYPE_CODE;
                    key.code0 = static_cast<uint8_t>(k);
                    key.code1 = 0xC1;
                    key.code2 = 0xC2;
                    break;
                case 1:
                    key.type = KEY_TYPE_TEXT2;
                    SetKeyText(key, names[(k + p) % 6]);
                    key.keyValue1 = 100u + static_cast<uint32_t>(k);
                    key.keyValue2 = 200u + static_cast<uint32_t>(p);
                    break;
                case 2:
                    key.type = KEY_TYPE_TEXT3;
                    SetKeyText(key, names[(k * 7 + p) % 6]);
                    key.keyValue1 = 1;
                    key.keyValue2 = 2;
                    key.keyValue3 = 3u + static_cast<uint32_t>(k);
                    break;
                default:
                    key.type = 0x10;  // no known type
                    break;
            }
        }
    }
    c.backupLength = 5;
    const uint8_t backup[] = {1, 2, 3, 4, 5};
    std::memcpy(c.backup, backup, sizeof(backup));
}

// ---------------------------------------------------------------------------------------------
// Header

// Verify that the header is checked in order: length, tag, declared length, null record, then
// the counts and the fixed part.
TEST(DevConfigHeader, ChecksAndResults) {
    struct Case {
        const char* what;
        Bytes block;
        bool withConfig;
        int expected;
    };
    auto head = [](uint16_t total, uint8_t tag) {
        return Bytes{static_cast<uint8_t>(total), static_cast<uint8_t>(total >> 8), tag, 0};
    };
    const Case cases[] = {
        {"empty", {}, true, -1},
        {"two bytes", {200, 0}, false, -1},
        {"head, null record", head(200, 0xB2), false, 200},
        {"head with wrong tag, null record", head(200, 0xB1), false, 0},
        {"wrong tag, three bytes", {200, 0, 0xB1}, true, 0},
        {"declared length 3", head(3, 0xB2), false, -1},
        {"declared length 4", head(4, 0xB2), false, 4},
        {"declared length 65535", head(65535, 0xB2), false, 65535},
        {"head only, with a record", head(200, 0xB2), true, -1},
        {"27 bytes", [] { Bytes b = ConfigBlockBuilder().Build(); b.pop_back(); return b; }(),
         true, -1},
        {"exactly the header", ConfigBlockBuilder().Build(), true, DEV_CONFIG_DECODE_OK},
        {"33 areas", ConfigBlockBuilder().AreaCount(33).Raw(Bytes(33 * 60)).Build(), true, -1},
        {"33 extras", ConfigBlockBuilder().ExtraCount(33).Raw(Bytes(33 * 9)).Build(), true, -1},
        {"5 panels", ConfigBlockBuilder().PanelCount(5).Build(), true, -1},
        {"4 panels", ConfigBlockBuilder().PanelCount(4).Build(), true, DEV_CONFIG_DECODE_OK},
        {"areas past the end", ConfigBlockBuilder().AreaCount(1).Raw(Bytes(59)).Build(), true, -1},
        {"extras past the end", ConfigBlockBuilder().AreaCount(1).ExtraCount(1).Raw(Bytes(68)).Build(),
         true, -1},
        {"32 areas, 32 extras",
         ConfigBlockBuilder().AreaCount(32).ExtraCount(32).Raw(Bytes(32 * 69)).Build(), true,
         DEV_CONFIG_DECODE_OK},
    };
    for (const auto& c : cases) {
        Config config;
        EXPECT_EQ(Decode(c.block, c.withConfig ? config.get() : nullptr), c.expected) << c.what;
    }
    EXPECT_EQ(DecodeDevConfig(nullptr, 100, nullptr), -1);
}

// Verify that the header fields land in the record, the record fields are cleared, and what
// the block does not hold is left as it was.
TEST(DevConfigHeader, CopiesHeaderAndClearsRecordFields) {
    Config config;
    std::memset(static_cast<void*>(config.get()), 0xAA, sizeof(_HARDWARE_DEV_CONFIG));
    const auto area0 = cfgtest::SampleArea(1);
    const auto area1 = cfgtest::SampleArea(2);
    const Bytes block = ConfigBlockBuilder()
                            .Set8(3, 0x31)
                            .Flags(0x00C01805)
                            .Set16(8, 0xFFFF)  // reserved: not read
                            .Set8(10, 0x32)
                            .Set8(11, 0x33)
                            .Set16(12, 2500)
                            .Set16(14, 7)
                            .Set32(16, 0xC0A80001)
                            .Set16(20, 3333)
                            .Set16(22, 3000)
                            .Set8(24, 0x34)
                            .PanelCount(2)
                            .Area(area0)
                            .Area(area1)
                            .Extra({1, 2, 3, 4, 5, 6, 7, 8, 9})
                            .Build();
    ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->option0, 0x31);
    EXPECT_EQ(+config->flags, 0x00C01805u);
    EXPECT_EQ(+config->option2, 0x32);
    EXPECT_EQ(+config->option3, 0x33);
    EXPECT_EQ(+config->value0, 2500);
    EXPECT_EQ(+config->value1, 7);
    EXPECT_EQ(+config->netAddress, 0xC0A80001u);
    EXPECT_EQ(+config->port, 3333);
    EXPECT_EQ(+config->port2, 3000);
    EXPECT_EQ(+config->option1, 0x34);
    EXPECT_EQ(+config->areaCount, 2);
    EXPECT_EQ(+config->extraCount, 1);
    EXPECT_EQ(+config->panelCount, 0) << "counts the panels read, not the header's";
    EXPECT_EQ(std::memcmp(&config->areas[0], &area0, sizeof(area0)), 0);
    EXPECT_EQ(std::memcmp(&config->areas[1], &area1, sizeof(area1)), 0);
    EXPECT_EQ(+config->extras[0][8], 9);
    EXPECT_EQ(+config->rec1Value0, 0);
    EXPECT_EQ(+config->rec1Value1, 0);
    EXPECT_EQ(+config->rec1Byte, 0);
    EXPECT_EQ(+config->rec4Byte, 0);
    EXPECT_EQ(+config->rec2Value, 0);
    // Not in the block: kept.
    EXPECT_EQ(+config->textValue1, 0xAAAAAAAAu);
    EXPECT_EQ(+config->backupLength, 0xAAAA);
    EXPECT_EQ(+config->areas[2].netAddress, 0xAAAAAAAAu);
}

// ---------------------------------------------------------------------------------------------
// Small records

struct RecordCase {
    const char* what;
    uint8_t tag;
    Bytes content;
    std::function<void(const _HARDWARE_DEV_CONFIG&)> check;
};

class DevConfigRecord : public ::testing::TestWithParam<RecordCase> {};

// Verify that each record kind is applied with its own length and skipped with any other.
TEST_P(DevConfigRecord, AppliesOrSkips) {
    const RecordCase& c = GetParam();
    Config config;
    std::memset(static_cast<void*>(config.get()), 0x5A, sizeof(_HARDWARE_DEV_CONFIG));
    SetRecordText(*config.get(), L"old");
    // A second record after the tested one shows that reading goes on past it.
    const Bytes block = ConfigBlockBuilder().Record(c.tag, c.content).Record(0x04, {0x77}).Build();
    ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    c.check(*config.get());
    EXPECT_EQ(+config->rec4Byte, 0x77) << "the record after it is read";
}

Bytes TextContent(uint32_t v1, uint32_t v2, const Bytes& units) {
    Bytes b;
    Append32(b, v1);
    Append32(b, v2);
    b.insert(b.end(), units.begin(), units.end());
    return b;
}

std::u16string Repeat(char16_t c, size_t n) { return std::u16string(n, c); }

const RecordCase kRecordCases[] = {
    {"0x01 length 5", 0x01, {9, 0x34, 0x12, 0x78, 0x56},
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.rec1Byte, 9);
         EXPECT_EQ(+c.rec1Value0, 0x1234);
         EXPECT_EQ(+c.rec1Value1, 0x5678);
     }},
    {"0x01 length 4", 0x01, {9, 0x34, 0x12, 0x78},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec1Byte, 0); }},
    {"0x01 length 6", 0x01, {9, 0x34, 0x12, 0x78, 0x56, 0},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec1Value1, 0); }},
    {"0x02 length 2", 0x02, {0x10, 0x02},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec2Value, 0x0210); }},
    {"0x02 length 3", 0x02, {0x10, 0x02, 0},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec2Value, 0); }},
    {"0x02 length 1", 0x02, {0x10},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec2Value, 0); }},
    {"0x04 length 1", 0x04, {0x66},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec4Byte, 0x77) << "the later one wins"; }},
    {"0x03 text", 0x03, TextContent(11, 22, cfgtest::Units(u"Hall \u00e9")),
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.textValue1, 11u);
         EXPECT_EQ(+c.textValue2, 22u);
         EXPECT_EQ(RecordText(c), L"Hall \u00e9");
     }},
    {"0x03 length 8", 0x03, TextContent(11, 22, {}),
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.textValue1, 0x5A5A5A5Au); }},
    {"0x03 length 9", 0x03, TextContent(11, 22, {'A'}),
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.textValue2, 22u);
         EXPECT_EQ(RecordText(c), L"old");
     }},
    {"0x03 empty text keeps the old one", 0x03, TextContent(1, 2, cfgtest::Units(u"")),
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.textValue1, 1u);
         EXPECT_EQ(RecordText(c), L"old");
     }},
    {"0x03 31 units", 0x03, TextContent(1, 2, cfgtest::Units(Repeat(u'x', 31))),
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(RecordText(c), std::wstring(31, L'x')); }},
    {"0x03 32 units is too long", 0x03, TextContent(1, 2, cfgtest::Units(Repeat(u'x', 32))),
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(RecordText(c), L"old"); }},
    {"0x03 no zero within the record", 0x03, TextContent(1, 2, {'N', 0, 'o', 0}),
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(RecordText(c), L"No"); }},
    {"0x03 odd byte after the text", 0x03, TextContent(1, 2, {'N', 0, 'o', 0, 'x'}),
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(RecordText(c), L"No"); }},
    {"0x81 one byte", 0x81, {0xAB},
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.backupLength, 1);
         EXPECT_EQ(+c.backup[0], 0xAB);
         EXPECT_EQ(+c.backup[1], 0x5A);
     }},
    {"0x81 2047 bytes", 0x81, Bytes(2047, 0xCD),
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.backupLength, 2047);
         EXPECT_EQ(+c.backup[2046], 0xCD);
     }},
    {"0x81 2048 bytes", 0x81, Bytes(2048, 0xCD),
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.backupLength, 0x5A5A);
         EXPECT_EQ(+c.backup[0], 0x5A);
     }},
    {"0x81 empty", 0x81, {},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.backupLength, 0x5A5A); }},
    {"unknown short tag", 0x10, {1, 2, 3},
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.rec1Byte, 0); }},
    {"unknown long tag", 0x90, Bytes(300, 1),
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panelCount, 0); }},
};

INSTANTIATE_TEST_SUITE_P(Kinds, DevConfigRecord, ::testing::ValuesIn(kRecordCases),
                         [](const ::testing::TestParamInfo<RecordCase>& info) {
                             std::string name;
                             for (const char* p = info.param.what; *p; ++p) {
                                 name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                             }
                             return name;
                         });

// Verify that the running count, which undercounts, never lets the reader past the block:
// records are read up to the block's end and a record cut short ends the reading with success.
TEST(DevConfigRecords, ReadingEndsAtTheBlockEnd) {
    const auto area = cfgtest::SampleArea(3);
    // Count starts at 60 (one area) while the records start at 88.
    Bytes block = ConfigBlockBuilder().Area(area).Record(0x02, {5, 0}).Record(0x04, {6}).Build();
    for (size_t cut = 88; cut <= block.size(); ++cut) {
        Config config;
        ASSERT_EQ(Decode(block, config.get(), static_cast<int>(cut)), DEV_CONFIG_DECODE_OK) << cut;
        EXPECT_EQ(+config->rec2Value, cut >= 92 ? 5 : 0) << cut;
        EXPECT_EQ(+config->rec4Byte, cut >= 95 ? 6 : 0) << cut;
    }
    // A length that runs past the block: not applied.
    Config config;
    block = ConfigBlockBuilder().RecordWithLength(0x81, 2000, {1, 2, 3}).Build();
    EXPECT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->backupLength, 0);
}

// Verify that a block of only the header (count 28 + 2 >= 28) ends at once, and that a
// two-byte tail is not read either (28 + 2 >= 30).
TEST(DevConfigRecords, HeaderOnlyBlocksEndAtOnce) {
    Config config;
    config->rec4Byte = 1;
    EXPECT_EQ(Decode(ConfigBlockBuilder().Build(), config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->rec4Byte, 0);
    EXPECT_EQ(Decode(ConfigBlockBuilder().Raw({0x04, 0}).Build(), config.get()),
              DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(Decode(ConfigBlockBuilder().Record(0x04, {3}).Build(), config.get()),
              DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->rec4Byte, 3);
}

// ---------------------------------------------------------------------------------------------
// Panels

// One panel with a key of every type, two of them sharing a text.
PanelRecordBuilder SamplePanels() {
    PanelRecordBuilder r;
    const uint16_t go = r.Text(u"Go");
    const uint16_t stop = r.Text(u"Stop");
    r.Panel(PanelHead(7, 2, 2))
        .Key(CodeKey(0x11, 0x22, 0x33))
        .Key(TextKey(KEY_TYPE_TEXT2, go, TextBytes(u"Go")))
        .Key(TextKey(KEY_TYPE_TEXT3, stop, TextBytes(u"Stop")))
        .Key(TextKey(KEY_TYPE_TEXT2, go, TextBytes(u"Go")))
        .Numbers({101, 102})        // key 1: keyValue1, keyValue2
        .Numbers({303, 301, 302})   // key 2: keyValue3, keyValue1, keyValue2
        .Numbers({401, 402});       // key 3
    return r;
}

// Verify that a panel's head, key entries, swapped code bytes, numbers and texts are decoded.
TEST(DevConfigPanels, DecodesKeysOfEveryType) {
    Config config;
    const Bytes block =
        ConfigBlockBuilder().PanelCount(1).Record(0x80, SamplePanels().Content()).Build();
    ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    ASSERT_EQ(+config->panelCount, 1);
    const _HBRECT_CONFIG_FILE& p = config->panels[0];
    const auto head = PanelHead(7, 2, 2);
    EXPECT_EQ(std::memcmp(&p, head.data(), head.size()), 0);
    EXPECT_EQ(+p.width, 200);
    EXPECT_EQ(+p.axisV.y, 9000);

    EXPECT_EQ(+p.keys[0].type, KEY_TYPE_CODE);
    EXPECT_EQ(+p.keys[0].code0, 0x11);
    EXPECT_EQ(+p.keys[0].code1, 0x22);
    EXPECT_EQ(+p.keys[0].code2, 0x33);
    EXPECT_EQ(+p.keys[0].rect.height, 4);

    EXPECT_EQ(KeyText(p.keys[1]), L"Go");
    EXPECT_EQ(+p.keys[1].keyValue1, 101u);
    EXPECT_EQ(+p.keys[1].keyValue2, 102u);
    EXPECT_EQ(+p.keys[1].rect.x, 5);

    EXPECT_EQ(KeyText(p.keys[2]), L"Stop");
    EXPECT_EQ(+p.keys[2].keyValue1, 301u);
    EXPECT_EQ(+p.keys[2].keyValue2, 302u);
    EXPECT_EQ(+p.keys[2].keyValue3, 303u);

    EXPECT_EQ(KeyText(p.keys[3]), L"Go");
    EXPECT_EQ(+p.keys[3].keyValue1, 401u);
}

// Verify that panels are taken in index order, each from its own offset.
TEST(DevConfigPanels, ReadsEveryPanelOfTheHeader) {
    PanelRecordBuilder r;
    const uint16_t t = r.Text(u"T");
    r.Panel(PanelHead(1, 1, 1)).Key(CodeKey(1, 2, 3));
    r.Panel(PanelHead(2, 1, 2)).Key(EmptyKey(0)).Key(TextKey(KEY_TYPE_TEXT2, t, 4)).Numbers({5, 6});
    r.Panel(PanelHead(3, 0, 5));
    Config config;
    const Bytes block = ConfigBlockBuilder().PanelCount(3).Record(0x80, r.Content()).Build();
    ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    ASSERT_EQ(+config->panelCount, 3);
    EXPECT_EQ(+config->panels[0].id, 1);
    EXPECT_EQ(+config->panels[1].id, 2);
    EXPECT_EQ(+config->panels[2].id, 3);
    EXPECT_EQ(+config->panels[2].columns, 5);
    EXPECT_EQ(KeyText(config->panels[1].keys[1]), L"T");
    EXPECT_EQ(+config->panels[1].keys[1].keyValue2, 6u);
    EXPECT_EQ(+config->panels[1].keys[0].rect.width, 11);
}

struct PanelFault {
    const char* what;
    std::function<Bytes()> block;
    int panelCount;
    std::function<void(const _HARDWARE_DEV_CONFIG&)> check;
};

class DevConfigPanelFaults : public ::testing::TestWithParam<PanelFault> {};

// Verify what a faulty panel record keeps: nothing when the record fails, the panels before a
// panel that fails its size checks, and a panel without keys when one of its keys fails.
TEST_P(DevConfigPanelFaults, KeepsWhatPassed) {
    const PanelFault& f = GetParam();
    Config config;
    const Bytes block = f.block();
    ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->panelCount, f.panelCount);
    if (f.check) f.check(*config.get());
    EXPECT_EQ(+config->rec4Byte, 0x44) << "the record after it is read";
}

Bytes WithPanels(uint8_t headerPanels, const Bytes& content) {
    return ConfigBlockBuilder()
        .PanelCount(headerPanels)
        .Record(0x80, content)
        .Record(0x04, {0x44})
        .Build();
}

// Two good panels; the mutations below break one thing each.
PanelRecordBuilder TwoPanels() {
    PanelRecordBuilder r;
    const uint16_t t = r.Text(u"Key");
    r.Panel(PanelHead(1, 1, 2)).Key(CodeKey(1, 2, 3)).Key(TextKey(KEY_TYPE_TEXT2, t, 8)).Numbers({1, 2});
    r.Panel(PanelHead(2, 1, 1)).Key(TextKey(KEY_TYPE_TEXT3, t, 8)).Numbers({3, 4, 5});
    return r;
}

const PanelFault kPanelFaults[] = {
    {"good", [] { return WithPanels(2, TwoPanels().Content()); }, 2,
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[1].keys[0].keyValue3, 3u); }},
    {"header has no panels", [] { return WithPanels(0, TwoPanels().Content()); }, 0,
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[0].id, 0); }},
    {"header has fewer panels", [] { return WithPanels(1, TwoPanels().Content()); }, 1, nullptr},
    {"record shorter than A and S", [] { return WithPanels(2, {4, 0, 0}); }, 0, nullptr},
    {"text area past the record",
     [] { return WithPanels(2, TwoPanels().TextAreaSize(400).Content()); }, 0,
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[0].id, 0); }},
    {"panel shorter than its head",
     [] { return WithPanels(2, TwoPanels().IndexEntry(0, 16, 23).Content()); }, 0,
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[0].id, 0); }},
    {"second panel past the record",
     [] { return WithPanels(2, TwoPanels().IndexEntry(1, 60000, 30).Content()); }, 1,
     [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[1].id, 0); }},
    {"second panel's size past the record",
     [] { return WithPanels(2, TwoPanels().IndexEntry(1, 20, 60000).Content()); }, 1, nullptr},
    {"header has more panels than the index",
     [] { return WithPanels(4, TwoPanels().Content()); }, 2, nullptr},
    {"index cut by the record's end", [] { return WithPanels(1, {4, 0, 0, 0, 0x10, 0}); }, 0,
     nullptr},
    {"more than 32 keys: head kept, uncounted",
     [] {
         PanelRecordBuilder r = TwoPanels();
         r.Panel(PanelHead(3, 6, 6)).PanelBytes(Bytes(36 * 12));
         return WithPanels(3, r.Content());
     },
     2,
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.panels[2].id, 3);
         EXPECT_EQ(+c.panels[2].rows, 6);
     }},
    {"entries do not fit: head kept, uncounted",
     [] {
         PanelRecordBuilder r;
         r.Panel(PanelHead(9, 2, 1)).Key(CodeKey(1, 2, 3)).PanelBytes(Bytes(11));
         r.Panel(PanelHead(8, 1, 1)).Key(CodeKey(1, 2, 3));
         return WithPanels(2, r.Content());
     },
     0, [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[0].id, 9); }},
    {"numbers missing: panel counted without keys",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(u"Key");
         r.Panel(PanelHead(1, 1, 2)).Key(CodeKey(4, 5, 6)).Key(TextKey(KEY_TYPE_TEXT3, t, 8)).Numbers({1, 2});
         r.Panel(PanelHead(2, 1, 1)).Key(CodeKey(7, 8, 9));
         return WithPanels(2, r.Content());
     },
     2,
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.panels[0].rows, 0);
         EXPECT_EQ(+c.panels[0].columns, 0);
         EXPECT_EQ(+c.panels[0].keys[0].code0, 4) << "keys before the failing one are read";
         EXPECT_EQ(+c.panels[1].keys[0].code2, 9) << "the next panel is read";
     }},
    {"text longer than 64 bytes",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(u"Key");
         r.TextAreaBytes(Bytes(70, 'a'));
         r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT2, t, 66)).Numbers({1, 2});
         return WithPanels(1, r.Content());
     },
     1, [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[0].rows, 0); }},
    {"text 64 bytes",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(std::u16string(31, u'k'));
         r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT2, t, 64)).Numbers({1, 2});
         return WithPanels(1, r.Content());
     },
     1,
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.panels[0].rows, 1);
         EXPECT_EQ(KeyText(c.panels[0].keys[0]), std::wstring(31, L'k'));
     }},
    {"text past the text area",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(u"Key");
         r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT2, t + 2, 8)).Numbers({1, 2});
         return WithPanels(1, r.Content());
     },
     1, [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(+c.panels[0].rows, 0); }},
    {"entry length without the zero: text runs to the zero",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(u"Longer");
         r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT2, t, 2)).Numbers({1, 2});
         return WithPanels(1, r.Content());
     },
     1, [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(KeyText(c.panels[0].keys[0]), L"Longer"); }},
    {"text without a zero: cut at the text area's end",
     [] {
         PanelRecordBuilder r;
         r.TextAreaBytes({'a', 0, 'b', 0, 'c'});
         r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT2, 0, 4)).Numbers({1, 2});
         return WithPanels(1, r.Content());
     },
     1, [](const _HARDWARE_DEV_CONFIG& c) { EXPECT_EQ(KeyText(c.panels[0].keys[0]), L"ab"); }},
    {"text of 40 units: cut at 31",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(std::u16string(40, u'z'));
         r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT3, t, 20)).Numbers({1, 2, 3});
         return WithPanels(1, r.Content());
     },
     1,
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(KeyText(c.panels[0].keys[0]), std::wstring(31, L'z'));
     }},
    {"key types tested in order",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(u"K");
         r.Panel(PanelHead(1, 1, 3))
             .Key({KEY_TYPE_CODE | KEY_TYPE_TEXT2, 1, 2, 3, {}})
             .Key(TextKey(KEY_TYPE_TEXT2 | KEY_TYPE_TEXT3, t, 4))
             .Key(EmptyKey(0x80))
             .Numbers({10, 20});
         return WithPanels(1, r.Content());
     },
     1,
     [](const _HARDWARE_DEV_CONFIG& c) {
         EXPECT_EQ(+c.panels[0].keys[0].code1, 3);
         EXPECT_EQ(KeyText(c.panels[0].keys[0]), L"");
         EXPECT_EQ(+c.panels[0].keys[1].keyValue1, 10u);
         EXPECT_EQ(+c.panels[0].keys[1].keyValue2, 20u);
         EXPECT_EQ(+c.panels[0].keys[2].type, 0x80);
         EXPECT_EQ(+c.panels[0].rows, 1);
     }},
};

INSTANTIATE_TEST_SUITE_P(Records, DevConfigPanelFaults, ::testing::ValuesIn(kPanelFaults),
                         [](const ::testing::TestParamInfo<PanelFault>& info) {
                             std::string name;
                             for (const char* p = info.param.what; *p; ++p) {
                                 name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                             }
                             return name;
                         });

// Verify that a second 0x80 record starts from the first slot again, is checked against the
// panels read so far, and never takes the count above 4 or leaves a counted slot with more keys
// than it holds.
TEST(DevConfigPanels, RepeatedPanelRecords) {
    PanelRecordBuilder first;
    first.Panel(PanelHead(1, 1, 1)).Key(CodeKey(1, 1, 1));
    first.Panel(PanelHead(2, 1, 1)).Key(CodeKey(2, 2, 2));
    PanelRecordBuilder second;
    second.Panel(PanelHead(3, 1, 1)).Key(CodeKey(3, 3, 3));
    second.Panel(PanelHead(4, 1, 1)).Key(CodeKey(4, 4, 4));
    {
        Config config;
        const Bytes block = ConfigBlockBuilder()
                                .PanelCount(2)
                                .Record(0x80, first.Content())
                                .Record(0x80, second.Content())
                                .Record(0x80, second.Content())
                                .Build();
        ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
        EXPECT_EQ(+config->panelCount, 4);
        EXPECT_EQ(+config->panels[0].id, 3);
        EXPECT_EQ(+config->panels[1].id, 4);
    }
    {
        // With two panels read, the next record must be at least 4 * 2 + 4 bytes long.
        Config config;
        const Bytes block = ConfigBlockBuilder()
                                .PanelCount(2)
                                .Record(0x80, first.Content())
                                .Record(0x80, {8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})
                                .Build();
        ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
        EXPECT_EQ(+config->panelCount, 2);
        EXPECT_EQ(+config->panels[0].id, 1);
    }
    {
        // A failing head over a counted slot: the slot keeps counting, without keys.
        PanelRecordBuilder bad;
        bad.Panel(PanelHead(5, 9, 9));
        Config config;
        const Bytes block = ConfigBlockBuilder()
                                .PanelCount(2)
                                .Record(0x80, first.Content())
                                .Record(0x80, bad.Content())
                                .Build();
        ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
        EXPECT_EQ(+config->panelCount, 2);
        EXPECT_EQ(+config->panels[0].id, 5);
        EXPECT_EQ(config->panels[0].rows * config->panels[0].columns, 0);
    }
}

// ---------------------------------------------------------------------------------------------
// Hostile blocks

// Verify that no prefix of a rich block, and no random damage to it, makes the decoder read
// outside the block (ASan watches the exact-size copies) or leave a record that breaks its own
// limits.
TEST(DevConfigHostile, TruncatedAndDamagedBlocksStayInBounds) {
    Config rich;
    FillRich(*rich.get(), 3, 4, 12);
    const Bytes block = Encode(rich.get());
    auto checkLimits = [](const _HARDWARE_DEV_CONFIG& c) {
        EXPECT_LE(+c.areaCount, DEV_CONFIG_MAX_AREAS);
        EXPECT_LE(+c.extraCount, DEV_CONFIG_MAX_EXTRAS);
        EXPECT_LE(+c.panelCount, DEV_CONFIG_MAX_PANELS);
        EXPECT_LT(+c.backupLength, DEV_CONFIG_BACKUP_BYTES);
        for (int p = 0; p < c.panelCount; ++p) {
            EXPECT_LE(c.panels[p].rows * c.panels[p].columns, DEV_CONFIG_MAX_KEYS);
        }
    };
    for (size_t n = 0; n <= block.size(); ++n) {
        Config config;
        const int r = Decode(block, config.get(), static_cast<int>(n));
        EXPECT_TRUE(r == -1 || r == DEV_CONFIG_DECODE_OK) << n;
        checkLimits(*config.get());
    }
    std::mt19937 random(20240611);
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = block;
        const int hits = 1 + static_cast<int>(random() % 8);
        for (int i = 0; i < hits; ++i) {
            damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
        }
        Config config;
        Decode(damaged, config.get());
        checkLimits(*config.get());
    }
}

// Verify that offsets and sizes at their largest values are refused without reading.
TEST(DevConfigHostile, LargestOffsetsAndSizes) {
    const Bytes contents[] = {
        {0xFF, 0xFF, 0xFF, 0xFF},                          // A and S
        {4, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF},               // O and E
        {8, 0, 0, 0, 8, 0, 0xFF, 0xFF},                     // E
        {8, 0, 0, 0, 0xFF, 0xFF, 24, 0},                    // O
    };
    for (const auto& content : contents) {
        Bytes padded = content;
        padded.resize(64, 0);
        Config config;
        EXPECT_EQ(Decode(WithPanels(4, padded), config.get()), DEV_CONFIG_DECODE_OK);
        EXPECT_EQ(+config->panelCount, 0);
    }
    // A text key at the very end of the text area with the largest length.
    PanelRecordBuilder r;
    r.TextAreaBytes({'x', 0});
    r.Panel(PanelHead(1, 1, 1)).Key(TextKey(KEY_TYPE_TEXT2, 0xFFFF, 0xFF)).Numbers({1, 2});
    Config config;
    EXPECT_EQ(Decode(WithPanels(1, r.Content()), config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->panels[0].rows, 0);
}

// ---------------------------------------------------------------------------------------------
// Encoding

// Verify the block an encoder writes for a plain record, byte by byte against a block built by
// hand.
TEST(DevConfigEncode, WritesTheBlockFormat) {
    Config config;
    DefaultDevConfig('s', 0, config.get());
    DefaultDevCalConfig('s', 0, config.get());
    config->rec1Byte = 1;
    config->rec1Value1 = 0x0203;
    config->rec4Byte = 4;
    config->textValue2 = 9;
    SetRecordText(*config.get(), L"Hi");
    config->backupLength = 2;
    config->backup[0] = 0xB0;
    config->backup[1] = 0xB1;

    const Bytes expected = ConfigBlockBuilder()
                               .Set8(3, 1)
                               .Flags(DEV_FLAGS_DEFAULT_S)
                               .Set16(12, 2500)
                               .Set32(16, 0x7F000001)
                               .Set16(20, 3333)
                               .Set16(22, 3000)
                               .Set8(24, 255)
                               .Area(config->areas[0])
                               .Record(0x01, {1, 0, 0, 3, 2})
                               .Record(0x04, {4})
                               .Record(0x02, {16, 0})
                               .Record(0x03, TextContent(0, 9, cfgtest::Units(u"Hi")))
                               .Record(0x81, {0xB0, 0xB1})
                               .Build();
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), static_cast<int>(expected.size()));
    EXPECT_EQ(Encode(config.get()), expected);
}

// Verify the length rule for each part, including a backup above 2047 bytes that is counted but
// not written.
TEST(DevConfigEncode, LengthCountsEachPart) {
    Config config;
    DefaultDevConfig('a', 0, config.get());
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 28);
    config->areaCount = 2;
    config->extraCount = 3;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 28 + 120 + 27);
    config->rec1Value0 = 1;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 175 + 7);
    config->rec4Byte = 1;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 182 + 3);
    config->rec2Value = 1;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 185 + 4);
    config->textValue1 = 1;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 189 + 10 + 2);
    SetRecordText(*config.get(), L"abc");
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), 189 + 10 + 8);
    const int base = 207;

    config->panelCount = 1;
    config->panels[0].rows = 2;
    config->panels[0].columns = 2;
    config->panels[0].keys[0].type = KEY_TYPE_CODE;
    config->panels[0].keys[1].type = KEY_TYPE_TEXT2;
    SetKeyText(config->panels[0].keys[1], L"xy");
    config->panels[0].keys[2].type = KEY_TYPE_TEXT3;  // empty text: numbers only
    config->panels[0].keys[3].type = KEY_TYPE_TEXT3;
    SetKeyText(config->panels[0].keys[3], L"xy");     // shared: stored once
    const int panels = 4 + 7 + 24 + 4 * 12 + 8 + 6 + 12 + 12;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), base + panels);
    EXPECT_EQ(Encode(config.get()).size(), static_cast<size_t>(base + panels));

    config->backupLength = 2047;
    EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), base + panels + 2050);
    config->backupLength = 3000;
    const int length = EncodeDevConfig(config.get(), nullptr);
    EXPECT_EQ(length, base + panels + 3003);
    const Bytes out = Encode(config.get(), 0xEE);
    EXPECT_EQ(At16(out, 0), length);
    for (size_t i = static_cast<size_t>(base + panels); i < out.size(); ++i) {
        ASSERT_EQ(out[i], 0xEE) << "nothing written for a backup above 2047 bytes, at " << i;
    }
}

// Verify the panel record: text area first with shared texts once, entries pointing into it,
// swapped code bytes, numbers in their stored order, and untouched bytes of unknown keys.
TEST(DevConfigEncode, PanelRecordLayout) {
    Config config;
    DefaultDevConfig('a', 0, config.get());
    config->panelCount = 2;
    _HBRECT_CONFIG_FILE& p0 = config->panels[0];
    p0.id = 1;
    p0.rows = 1;
    p0.columns = 3;
    p0.keys[0].type = KEY_TYPE_TEXT2;
    SetKeyText(p0.keys[0], L"ABC");
    p0.keys[0].keyValue1 = 0x11;
    p0.keys[0].keyValue2 = 0x22;
    p0.keys[1].type = KEY_TYPE_CODE;
    p0.keys[1].code0 = 0xA0;
    p0.keys[1].code1 = 0xA1;
    p0.keys[1].code2 = 0xA2;
    p0.keys[2].type = 0x08;  // no known type
    p0.keys[2].rect = {1, 2, 3, 4};
    _HBRECT_CONFIG_FILE& p1 = config->panels[1];
    p1.id = 2;
    p1.rows = 1;
    p1.columns = 2;
    p1.keys[0].type = KEY_TYPE_TEXT3;
    SetKeyText(p1.keys[0], L"BC");  // a different text, found inside "ABC"
    p1.keys[0].keyValue1 = 1;
    p1.keys[0].keyValue2 = 2;
    p1.keys[0].keyValue3 = 3;
    p1.keys[1].type = KEY_TYPE_TEXT2;
    SetKeyText(p1.keys[1], L"ABC");  // the same text: not stored again

    const Bytes out = Encode(config.get(), 0xEE);
    const size_t rec = 28;
    ASSERT_EQ(out.at(rec), 0x80);
    EXPECT_EQ(At16(out, rec + 1), out.size() - rec - 3);
    const size_t c = rec + 3;
    EXPECT_EQ(At16(out, c), 4 * 2 + 4);                 // A
    EXPECT_EQ(At16(out, c + 2), 8 + 6);                 // S: "ABC" and "BC" once each
    const size_t area = c + 12;
    EXPECT_EQ(Bytes(out.begin() + static_cast<long>(area), out.begin() + static_cast<long>(area + 14)),
              (Bytes{'A', 0, 'B', 0, 'C', 0, 0, 0, 'B', 0, 'C', 0, 0, 0}));
    const size_t o0 = At16(out, c + 4), e0 = At16(out, c + 6);
    const size_t o1 = At16(out, c + 8), e1 = At16(out, c + 10);
    EXPECT_EQ(o0, 12u + 14u);
    EXPECT_EQ(e0, 24u + 36u + 8u);
    EXPECT_EQ(o1, o0 + e0);
    EXPECT_EQ(e1, 24u + 24u + 12u + 8u);

    const size_t k0 = c + o0 + 24;
    EXPECT_EQ(out[k0], KEY_TYPE_TEXT2);
    EXPECT_EQ(out[k0 + 1], 8);               // "ABC" and its zero unit
    EXPECT_EQ(At16(out, k0 + 2), 0);
    EXPECT_EQ(out[k0 + 12], KEY_TYPE_CODE);
    EXPECT_EQ(out[k0 + 13], 0xA0);
    EXPECT_EQ(out[k0 + 14], 0xA2);            // code2 before code1
    EXPECT_EQ(out[k0 + 15], 0xA1);
    EXPECT_EQ(out[k0 + 24], 0x08);
    EXPECT_EQ(out[k0 + 25], 0xEE);            // bytes 1..3 of an unknown key: not written
    EXPECT_EQ(out[k0 + 26], 0xEE);
    EXPECT_EQ(out[k0 + 27], 0xEE);
    EXPECT_EQ(At16(out, k0 + 34), 4);         // rect.height
    EXPECT_EQ(At32(out, k0 + 36), 0x11u);
    EXPECT_EQ(At32(out, k0 + 40), 0x22u);

    const size_t k1 = c + o1 + 24;
    EXPECT_EQ(out[k1 + 1], 6);
    EXPECT_EQ(At16(out, k1 + 2), 2) << "first even offset where \"BC\" and its zero occur";
    EXPECT_EQ(out[k1 + 13], 8);
    EXPECT_EQ(At16(out, k1 + 14), 0) << "the shared text's offset";
    EXPECT_EQ(At32(out, k1 + 24), 3u);        // keyValue3, keyValue1, keyValue2
    EXPECT_EQ(At32(out, k1 + 28), 1u);
    EXPECT_EQ(At32(out, k1 + 32), 2u);
}

// Verify that CmpKeyString is true for code keys and for texts an earlier text key has, and
// that it never looks at later keys.
TEST(DevConfigEncode, CmpKeyStringLooksOnlyBackwards) {
    Config config;
    config->panelCount = 2;
    config->panels[0].rows = 1;
    config->panels[0].columns = 3;
    config->panels[1].rows = 1;
    config->panels[1].columns = 2;
    _HARDWARE_KEY_CONFIG* k = config->panels[0].keys;
    _HARDWARE_KEY_CONFIG* m = config->panels[1].keys;
    k[0].type = 0x10;  // not a text key: its text does not count
    SetKeyText(k[0], L"Same");
    k[1].type = KEY_TYPE_TEXT3;
    SetKeyText(k[1], L"Same");
    k[2].type = KEY_TYPE_CODE;
    m[0].type = KEY_TYPE_TEXT2;
    SetKeyText(m[0], L"Same");
    m[1].type = KEY_TYPE_TEXT2;
    SetKeyText(m[1], L"Sam");

    EXPECT_FALSE(CmpKeyString(config.get(), &k[1])) << "the same text only comes later";
    EXPECT_TRUE(CmpKeyString(config.get(), &k[2]));
    EXPECT_TRUE(CmpKeyString(config.get(), &m[0]));
    EXPECT_FALSE(CmpKeyString(config.get(), &m[1])) << "a prefix is not the same text";
    config->panels[0].rows = 0;  // earlier keys out of use are not looked at
    EXPECT_FALSE(CmpKeyString(config.get(), &m[0]));
}

// Verify GetStringFile's rules: even offsets only, first match, the two stop conditions.
TEST(DevConfigEncode, GetStringFile) {
    const Bytes area = {'a', 'b', 'c', 'b', 'c', 0, 'x', 'y'};
    struct Case {
        Bytes pattern;
        int areaLength;
        int expected;
    } cases[] = {
        {{'a', 'b'}, 8, 0},
        {{'c', 'b'}, 8, 2},
        {{'b', 'c'}, 8, -1},  // only at odd offsets
        {{'c', 0}, 8, 4},
        {{'x', 'y'}, 8, 6},
        {{'x', 'y'}, 7, -1},  // offset + pattern length > area length
        {{'x'}, 8, 6},
        {{'x'}, 7, -1},       // offset + 2 > area length
        {{'y'}, 8, -1},
        {{'a', 'b', 'c', 'b', 'c', 0, 'x', 'y'}, 8, 0},
        {{'a', 'b', 'c', 'b', 'c', 0, 'x', 'y', 0}, 8, -1},
        {{'a', 'b'}, 0, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GetStringFile(area.data(), c.areaLength, c.pattern.data(),
                                static_cast<int>(c.pattern.size())),
                  c.expected)
            << std::string(c.pattern.begin(), c.pattern.end()) << " in " << c.areaLength;
    }
}

// Verify that counts beyond the record's storage are taken at their limits, so encoding never
// reads past the record.
TEST(DevConfigEncode, CountsBeyondStorageAreLimited) {
    Config config;
    config->areaCount = 200;
    config->extraCount = 200;
    config->panelCount = 9;
    for (auto& panel : config->panels) {
        panel.rows = 16;
        panel.columns = 16;
    }
    const Bytes out = Encode(config.get());
    EXPECT_EQ(out[25], 32);
    EXPECT_EQ(out[26], 32);
    EXPECT_EQ(out[27], 4);
    EXPECT_EQ(out.size(), 28u + 32 * 60 + 32 * 9 + 4 * 4 + 7 + 4 * (24 + 32 * 12));
}

// ---------------------------------------------------------------------------------------------
// Round trips

struct RoundTripCase {
    const char* what;
    std::function<void(_HARDWARE_DEV_CONFIG&)> fill;
};

class DevConfigRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

// Verify that decoding an encoded record gives back every field the block carries, and that
// encoding the result again gives the same block (up to unwritten bytes of unknown keys).
TEST_P(DevConfigRoundTrip, DecodeGivesTheRecordBack) {
    Config original;
    GetParam().fill(*original.get());
    const Bytes block = Encode(original.get(), 0x00);
    Config decoded;
    ASSERT_EQ(Decode(block, decoded.get()), DEV_CONFIG_DECODE_OK);
    const char* diff = DevConfigFirstDifference(original.get(), decoded.get());
    EXPECT_EQ(diff, nullptr) << diff;
    EXPECT_EQ(Encode(decoded.get(), 0x00), block);
}

const RoundTripCase kRoundTrips[] = {
    {"default", [](_HARDWARE_DEV_CONFIG& c) { DefaultDevConfig(0, 0, &c); }},
    {"default s with area",
     [](_HARDWARE_DEV_CONFIG& c) {
         DefaultDevConfig('s', 0, &c);
         DefaultDevCalConfig('s', 0, &c);
     }},
    {"rich", [](_HARDWARE_DEV_CONFIG& c) { FillRich(c, 5, 2, 6); }},
    {"full", [](_HARDWARE_DEV_CONFIG& c) { FillRich(c, 32, 4, 32); }},
    {"numbers without text",
     [](_HARDWARE_DEV_CONFIG& c) {
         FillRich(c, 1, 1, 4);
         SetRecordText(c, L"");
     }},
    {"31 character texts",
     [](_HARDWARE_DEV_CONFIG& c) {
         FillRich(c, 0, 1, 2);
         SetRecordText(c, std::wstring(31, L'r'));
         c.panels[0].keys[1].type = KEY_TYPE_TEXT2;
         SetKeyText(c.panels[0].keys[1], std::wstring(31, L'k'));
     }},
    {"empty texts of text keys",
     [](_HARDWARE_DEV_CONFIG& c) {
         FillRich(c, 0, 1, 4);
         SetKeyText(c.panels[0].keys[1], L"");
         c.panels[0].keys[3].type = KEY_TYPE_TEXT3;
         SetKeyText(c.panels[0].keys[3], L"");
     }},
    {"panel without keys",
     [](_HARDWARE_DEV_CONFIG& c) {
         FillRich(c, 0, 2, 4);
         c.panels[1].rows = 0;
     }},
    {"no backup",
     [](_HARDWARE_DEV_CONFIG& c) {
         FillRich(c, 2, 1, 4);
         c.backupLength = 0;
     }},
};

INSTANTIATE_TEST_SUITE_P(Records, DevConfigRoundTrip, ::testing::ValuesIn(kRoundTrips),
                         [](const ::testing::TestParamInfo<RoundTripCase>& info) {
                             std::string name;
                             for (const char* p = info.param.what; *p; ++p) {
                                 name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                             }
                             return name;
                         });

// Verify that the comparison used by the round trips notices a change in each carried field and
// ignores what the block does not carry.
TEST(DevConfigRoundTrip, ComparisonSeesEveryCarriedField) {
    Config base;
    FillRich(*base.get(), 2, 2, 4);
    struct Change {
        const char* what;
        std::function<void(_HARDWARE_DEV_CONFIG&)> change;
        bool carried;
    } changes[] = {
        {"text", [](auto& c) { c.text[1] = L'X'; }, true},
        {"text past its zero", [](auto& c) { c.text[30] = L'X'; }, false},
        {"text above 16 bits", [](auto& c) { c.text[0] += 0x10000; }, false},
        {"textValue2", [](auto& c) { ++c.textValue2; }, true},
        {"flags", [](auto& c) { c.flags ^= 1; }, true},
        {"option3", [](auto& c) { ++c.option3; }, true},
        {"value1", [](auto& c) { ++c.value1; }, true},
        {"rec1Value1", [](auto& c) { ++c.rec1Value1; }, true},
        {"rec4Byte", [](auto& c) { ++c.rec4Byte; }, true},
        {"port2", [](auto& c) { ++c.port2; }, true},
        {"area in use", [](auto& c) { ++c.areas[1].axisV.y; }, true},
        {"area out of use", [](auto& c) { ++c.areas[2].axisV.y; }, false},
        {"extra in use", [](auto& c) { ++c.extras[2][8]; }, true},
        {"extra out of use", [](auto& c) { ++c.extras[3][0]; }, false},
        {"panel head", [](auto& c) { ++c.panels[1].reserved4[3]; }, true},
        {"panel out of use", [](auto& c) { ++c.panels[2].id; }, false},
        {"code key byte", [](auto& c) { ++c.panels[0].keys[0].code2; }, true},
        {"code key text", [](auto& c) { c.panels[0].keys[0].text[0] = L'q'; }, false},
        {"text2 key value3", [](auto& c) { ++c.panels[0].keys[1].keyValue3; }, false},
        {"text3 key value3", [](auto& c) { ++c.panels[0].keys[2].keyValue3; }, true},
        {"key text", [](auto& c) { c.panels[0].keys[2].text[0] = L'q'; }, true},
        {"empty key code", [](auto& c) { ++c.panels[0].keys[3].code0; }, false},
        {"empty key rect", [](auto& c) { ++c.panels[0].keys[3].rect.y; }, true},
        {"key out of use", [](auto& c) { ++c.panels[0].keys[4].type; }, false},
        {"backup byte", [](auto& c) { ++c.backup[4]; }, true},
        {"backup byte out of use", [](auto& c) { ++c.backup[5]; }, false},
    };
    for (const auto& ch : changes) {
        Config changed;
        std::memcpy(static_cast<void*>(changed.get()), base.get(), sizeof(_HARDWARE_DEV_CONFIG));
        ch.change(*changed.get());
        EXPECT_EQ(DevConfigFirstDifference(base.get(), changed.get()) != nullptr, ch.carried)
            << ch.what;
    }
}

// ---------------------------------------------------------------------------------------------
// Defaults, backup, override

// Verify the defaults, with "s" and "S" alike and the second argument unused.
TEST(DevConfigDefaults, ProductTypes) {
    struct Case {
        uint8_t type;
        uint32_t flags;
        uint16_t rec2;
    } cases[] = {{'s', DEV_FLAGS_DEFAULT_S, 16}, {'S', DEV_FLAGS_DEFAULT_S, 16},
                 {'a', DEV_FLAGS_DEFAULT, 0},    {0, DEV_FLAGS_DEFAULT, 0},
                 {'s' + 0x80, DEV_FLAGS_DEFAULT, 0}};
    for (const auto& c : cases) {
        Config config;
        std::memset(static_cast<void*>(config.get()), 0x77, sizeof(_HARDWARE_DEV_CONFIG));
        DefaultDevConfig(c.type, 0xFFFFFFFF, config.get());
        EXPECT_EQ(+config->flags, c.flags) << int(c.type);
        EXPECT_EQ(+config->rec2Value, c.rec2) << int(c.type);
        EXPECT_EQ(+config->option0, 1);
        EXPECT_EQ(+config->option1, 255);
        EXPECT_EQ(+config->option2, 0);
        EXPECT_EQ(+config->option3, 0);
        EXPECT_EQ(+config->value0, 2500);
        EXPECT_EQ(+config->value1, 0);
        EXPECT_EQ(+config->netAddress, 0x7F000001u);
        EXPECT_EQ(+config->port, 3333);
        EXPECT_EQ(+config->port2, 3000);
        EXPECT_EQ(+config->areaCount, 0);
        EXPECT_EQ(+config->panelCount, 0);
        EXPECT_EQ(+config->backupLength, 0);
        EXPECT_EQ(+config->text[0], 0);
        EXPECT_EQ(+config->panels[3].keys[31].keyValue3, 0u);

        Config other;
        DefaultDevConfig(c.type, 0, other.get());
        EXPECT_EQ(std::memcmp(config.get(), other.get(), sizeof(_HARDWARE_DEV_CONFIG)), 0);
    }
    Config lower, upper;
    DefaultDevConfig('s', 0, lower.get());
    DefaultDevConfig('S', 1, upper.get());
    EXPECT_EQ(std::memcmp(lower.get(), upper.get(), sizeof(_HARDWARE_DEV_CONFIG)), 0);
}

// Verify the default area: copied network target and mode, full-HD rectangles, the centre and
// half-axes of the whole frame.
TEST(DevConfigDefaults, CalibrationArea) {
    Config config;
    DefaultDevConfig('s', 0, config.get());
    config->netAddress = 0x0A0B0C0D;
    config->port = 1;
    config->port2 = 2;
    std::memset(&config->areas[0], 0x66, sizeof(_HCRECT_CONFIG_FILE));
    DefaultDevCalConfig('x', 99, config.get());
    const _HCRECT_CONFIG_FILE& a = config->areas[0];
    EXPECT_EQ(+config->areaCount, 1);
    EXPECT_EQ(+a.netAddress, 0x0A0B0C0Du);
    EXPECT_EQ(+a.port, 1);
    EXPECT_EQ(+a.port2, 2);
    EXPECT_EQ(+a.mode, 0x05);
    EXPECT_EQ(+a.id, 0);
    EXPECT_EQ(+a.group, 0);
    EXPECT_EQ(+a.rotation, 0);
    EXPECT_EQ(+a.outputRect.x, 0);
    EXPECT_EQ(+a.outputRect.y, 0);
    EXPECT_EQ(+a.outputRect.width, 1920);
    EXPECT_EQ(+a.outputRect.height, 1080);
    EXPECT_EQ(+a.targetRect.x, 0);
    EXPECT_EQ(+a.targetRect.width, 1920);
    EXPECT_EQ(+a.targetRect.height, 1080);
    for (int8_t e : a.edgeAdjust) EXPECT_EQ(e, 15);
    EXPECT_EQ(+a.center.x, 16384);
    EXPECT_EQ(+a.center.y, 16384);
    EXPECT_EQ(+a.axisH.x, -16384);
    EXPECT_EQ(+a.axisH.y, 0);
    EXPECT_EQ(+a.axisV.x, 0);
    EXPECT_EQ(+a.axisV.y, 16384);
}

// Verify that a backup holds the encoded record without an earlier backup, and that recovering
// it brings the record back.
TEST(DevConfigBackup, BackupAndRecover) {
    Config config;
    FillRich(*config.get(), 2, 1, 4);
    std::memset(config->backup, 0, sizeof(config->backup));  // bytes of unknown keys stay as they are
    config->backupLength = 100;  // an earlier backup is dropped, not nested
    const int length = BackupDevConfig(config.get());
    ASSERT_GT(length, 0);
    EXPECT_EQ(+config->backupLength, length);
    Config copy;
    std::memcpy(static_cast<void*>(copy.get()), config.get(), sizeof(_HARDWARE_DEV_CONFIG));
    copy->backupLength = 0;
    EXPECT_EQ(Bytes(config->backup, config->backup + length), Encode(copy.get(), 0x00));

    Config saved;
    std::memcpy(static_cast<void*>(saved.get()), config.get(), sizeof(_HARDWARE_DEV_CONFIG));
    config->flags = 0;
    config->areas[1].rotation = 3;
    SetKeyText(config->panels[0].keys[1], L"changed");
    config->areaCount = 0;
    EXPECT_EQ(RecoverDevConfig(config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(DevConfigFirstDifference(saved.get(), config.get()), nullptr);
    EXPECT_EQ(+config->backupLength, length) << "the backup itself stays";
}

TEST(DevConfigBackup, Limits) {
    Config config;
    FillRich(*config.get(), 32, 1, 4);  // more than 2047 bytes
    config->backupLength = 10;
    EXPECT_EQ(BackupDevConfig(config.get()), -1);
    EXPECT_EQ(+config->backupLength, 0) << "cleared before the attempt";

    EXPECT_EQ(RecoverDevConfig(config.get()), -1);
    config->backupLength = 2048;
    EXPECT_EQ(RecoverDevConfig(config.get()), -1);
    config->backupLength = 3;
    config->backup[2] = 0xB1;
    EXPECT_EQ(RecoverDevConfig(config.get()), 0) << "not a configuration block";
    config->backup[2] = 0xB2;
    EXPECT_EQ(RecoverDevConfig(config.get()), -1) << "too short";
}

// Verify the override record and its 18-byte block.
TEST(DevConfigOverride, FromRecordAndEncoded) {
    Config config;
    DefaultDevConfig('s', 0, config.get());
    config->option1 = 0x81;
    config->option2 = 0x82;
    config->option3 = 0x83;
    config->value0 = 0x1234;
    config->value1 = 0x5678;
    config->areas[0].edgeAdjust[0] = -3;
    config->areas[0].edgeAdjust[3] = 7;
    _HARDWARE_CONFIG_OVERRIDE o;
    std::memset(&o, 0x55, sizeof(o));
    GetDevConfigOverride(config.get(), &o);
    EXPECT_EQ(+o.flags, DEV_FLAGS_DEFAULT_S);
    EXPECT_EQ(+o.option1, 0x81);
    EXPECT_EQ(+o.value1, 0x5678);
    for (int8_t e : o.edgeAdjust) EXPECT_EQ(e, 0) << "no area";
    config->areaCount = 1;
    GetDevConfigOverride(config.get(), &o);
    EXPECT_EQ(+o.edgeAdjust[0], -3);
    EXPECT_EQ(+o.edgeAdjust[3], 7);

    EXPECT_EQ(EncodeDevConfigOverride(&o, nullptr), 18);
    Bytes out(18, 0xEE);
    EXPECT_EQ(EncodeDevConfigOverride(&o, out.data()), 18);
    EXPECT_EQ(out, (Bytes{18, 0, 0xB2, 0x81, 0x82, 0x83, 0x34, 0x12, 0x78, 0x56, 0x05, 0x5F, 0x30,
                          0x00, 0xFD, 0x00, 0x00, 0x07}));
}

}  // namespace
