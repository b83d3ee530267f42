#include "MtDevConfig.h"

#include "support/ConfigBlockBuilder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

using cfgtest::CodeKey;
using cfgtest::ConfigBlockBuilder;
using cfgtest::FilledConfig;
using cfgtest::PanelHead;
using cfgtest::PanelRecordBuilder;
using cfgtest::TextKey;
using cfgtest::Units;

namespace {

using Bytes = std::vector<uint8_t>;
using Check = std::function<void(const _HARDWARE_DEV_CONFIG&)>;
using Fill = std::function<void(_HARDWARE_DEV_CONFIG&)>;

// Fields of the byte-packed records are compared through a copy (`+field`): a gtest assertion
// would otherwise bind a reference to a misaligned member.

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

// Texts of keys and of the record: 32 wide characters, zero-terminated. Read and written through
// the owning (byte-packed) record, never through a reference to the misaligned array.
template <class Owner>
std::wstring TextOf(const Owner& owner) {
    std::wstring s;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS && owner.text[i] != 0; ++i) s += owner.text[i];
    return s;
}

template <class Owner>
void SetText(Owner& owner, const std::wstring& text) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        owner.text[i] = i < static_cast<int>(text.size()) ? text[static_cast<size_t>(i)] : 0;
    }
}

Bytes TextContent(uint32_t v1, uint32_t v2, const Bytes& units) {
    Bytes b;
    cfgtest::Append32(b, v1);
    cfgtest::Append32(b, v2);
    b.insert(b.end(), units.begin(), units.end());
    return b;
}

// The records agree on everything a block carries.
void ExpectSame(const _HARDWARE_DEV_CONFIG* a, const _HARDWARE_DEV_CONFIG* b) {
    const char* diff = DevConfigFirstDifference(a, b);
    EXPECT_EQ(diff, nullptr) << diff;
}

// A record with every kind of content: areas, extras, the small records, a text, panels of
// keys of every type with shared texts, and a backup.
void FillRich(_HARDWARE_DEV_CONFIG& c, int areas, int panels, int keysPerPanel) {
    DefaultDevConfig('x', 0, &c);
    c.flags = 0x12345678, c.option0 = 3, c.option1 = 4, c.option2 = 5, c.option3 = 6;
    c.value0 = 0xBEEF, c.value1 = 0x1234, c.rec1Byte = 7, c.rec1Value0 = 0x0102;
    c.rec1Value1 = 0x0304, c.rec4Byte = 9, c.rec2Value = 0x0A0B;
    c.textValue1 = 0xDEADBEEF, c.textValue2 = 42;
    SetText(c, L"Front wall \x263A");
    c.areaCount = static_cast<uint8_t>(areas);
    for (int i = 0; i < areas; ++i) c.areas[i] = cfgtest::SampleArea(static_cast<uint8_t>(i));
    c.extraCount = 3;
    for (int i = 0; i < 27; ++i) c.extras[i / 9][i % 9] = static_cast<uint8_t>(i);
    c.backupLength = 5;
    for (uint8_t i = 0; i < 5; ++i) c.backup[i] = static_cast<uint8_t>(i + 1);
    c.panelCount = static_cast<uint8_t>(panels);
    const wchar_t* names[] = {L"Play", L"Stop", L"Volume up", L"Next", L"Play", L"A"};
    for (int p = 0; p < panels; ++p) {
        _HBRECT_CONFIG_FILE& panel = c.panels[p];
        const auto rows = static_cast<uint8_t>(keysPerPanel >= 4 ? 4 : 1);
        const auto columns = static_cast<uint8_t>(keysPerPanel / rows);
        std::memcpy(&panel, PanelHead(static_cast<uint8_t>(p + 1), rows, columns).data(),
                    HBRECT_HEAD_BYTES);
        for (int k = 0; k < keysPerPanel; ++k) {
            _HARDWARE_KEY_CONFIG& key = panel.keys[k];
            key.rect = {static_cast<uint16_t>(k), static_cast<uint16_t>(p), 50, 40};
            const int kind = (k + p) % 4;  // code, two numbers, three numbers, no known type
            const uint8_t types[] = {KEY_TYPE_CODE, KEY_TYPE_TEXT2, KEY_TYPE_TEXT3, 0x10};
            key.type = types[kind];
            if (kind == 0) key.code0 = static_cast<uint8_t>(k), key.code1 = 0xC1, key.code2 = 0xC2;
            if (kind == 1 || kind == 2) {
                SetText(key, names[(kind == 1 ? k + p : k * 7 + p) % 6]);
                key.keyValue1 = 100u + static_cast<uint32_t>(k), key.keyValue2 = 200u + static_cast<uint32_t>(p);
            }
            if (kind == 2) key.keyValue3 = 3u + static_cast<uint32_t>(k);
        }
    }
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
        auto config = FilledConfig(0);
        EXPECT_EQ(Decode(c.block, c.withConfig ? config.get() : nullptr), c.expected) << c.what;
    }
    EXPECT_EQ(DecodeDevConfig(nullptr, 100, nullptr), -1);
}

// Verify the block's fixed layout both ways: the encoder writes the "s" default with its area
// (every other header field, an extra, each small record and a backup set) as the block built
// here by hand, and decoding that block gives the record back. Then what a block leaves out:
// the small records are cleared, the rest is kept, and only the panels read are counted.
TEST(DevConfigHeader, LayoutBothWaysAndWhatDecodingKeeps) {
    auto config = FilledConfig(0);
    DefaultDevConfig('s', 0, config.get());
    DefaultDevCalConfig('s', 0, config.get());
    config->option2 = 0x32, config->option3 = 0x33, config->value1 = 7;
    config->extraCount = 1;
    for (uint8_t j = 0; j < 9; ++j) config->extras[0][j] = static_cast<uint8_t>(j + 1);
    config->rec1Byte = 1, config->rec1Value1 = 0x0203, config->rec4Byte = 4, config->textValue2 = 9;
    SetText(*config, L"Hi");
    config->backupLength = 2, config->backup[0] = 0xB0, config->backup[1] = 0xB1;

    const Bytes expected =
        ConfigBlockBuilder()
            .Set8(3, 1).Flags(DEV_FLAGS_DEFAULT_S).Set8(10, 0x32).Set8(11, 0x33)  // option0, 2, 3
            .Set16(12, 2500).Set16(14, 7).Set32(16, 0x7F000001)  // value0, value1, net address
            .Set16(20, 3333).Set16(22, 3000).Set8(24, 255)       // ports, option1
            .Area(config->areas[0]).Extra({1, 2, 3, 4, 5, 6, 7, 8, 9})
            .Record(0x01, {1, 0, 0, 3, 2}).Record(0x04, {4}).Record(0x02, {16, 0})
            .Record(0x03, TextContent(0, 9, Units(u"Hi"))).Record(0x81, {0xB0, 0xB1})
            .Build();
    EXPECT_EQ(Encode(config.get()), expected);
    auto decoded = FilledConfig(0xAA);
    ASSERT_EQ(Decode(expected, decoded.get()), DEV_CONFIG_DECODE_OK);
    ExpectSame(config.get(), decoded.get());

    auto kept = FilledConfig(0xAA);
    const Bytes bare = ConfigBlockBuilder().Set16(8, 0xFFFF).PanelCount(2).Build();
    ASSERT_EQ(Decode(bare, kept.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+kept->panelCount, 0) << "counts the panels read, not the header's";
    EXPECT_EQ(kept->rec1Value0 | kept->rec1Value1 | kept->rec1Byte | kept->rec4Byte | kept->rec2Value,
              0);
    EXPECT_EQ(+kept->textValue1, 0xAAAAAAAAu);
    EXPECT_EQ(+kept->backupLength, 0xAAAA);
    EXPECT_EQ(+kept->areas[0].netAddress, 0xAAAAAAAAu) << "areas beyond the count are kept";
}

// ---------------------------------------------------------------------------------------------
// Small records

struct RecordCase {
    const char* what;
    uint8_t tag;
    Bytes content;
    Fill change;  // what the record changes; none: nothing
};

using C = const _HARDWARE_DEV_CONFIG&;

// What a text record sets: its numbers, and its text when one is given.
Fill TextRecord(uint32_t v1, uint32_t v2, const std::wstring& text = L"") {
    return [=](auto& c) {
        c.textValue1 = v1;
        c.textValue2 = v2;
        if (!text.empty()) SetText(c, text);
    };
}

Fill Backup(const Bytes& bytes) {
    return [=](auto& c) {
        c.backupLength = static_cast<uint16_t>(bytes.size());
        std::memcpy(c.backup, bytes.data(), bytes.size());
    };
}

const RecordCase kRecordCases[] = {
    {"0x01 length 5", 0x01, {9, 0x34, 0x12, 0x78, 0x56},
     [](auto& c) {
         c.rec1Byte = 9;
         c.rec1Value0 = 0x1234;
         c.rec1Value1 = 0x5678;
     }},
    {"0x01 length 4", 0x01, {9, 0x34, 0x12, 0x78}, nullptr},
    {"0x01 length 6", 0x01, {9, 0x34, 0x12, 0x78, 0x56, 0}, nullptr},
    {"0x02 length 2", 0x02, {0x10, 0x02}, [](auto& c) { c.rec2Value = 0x0210; }},
    {"0x02 length 3", 0x02, {0x10, 0x02, 0}, nullptr},
    {"0x02 length 1", 0x02, {0x10}, nullptr},
    {"0x04 length 1: the later one wins", 0x04, {0x66}, nullptr},
    {"0x03 text", 0x03, TextContent(11, 22, Units(u"Hall \u00e9")),
     TextRecord(11, 22, L"Hall \u00e9")},
    {"0x03 length 8", 0x03, TextContent(11, 22, {}), nullptr},
    {"0x03 length 9", 0x03, TextContent(11, 22, {'A'}), TextRecord(11, 22)},
    {"0x03 empty text keeps the old one", 0x03, TextContent(1, 2, Units(u"")), TextRecord(1, 2)},
    {"0x03 31 units", 0x03, TextContent(1, 2, Units(std::u16string(31, u'x'))),
     TextRecord(1, 2, std::wstring(31, L'x'))},
    {"0x03 32 units is too long", 0x03, TextContent(1, 2, Units(std::u16string(32, u'x'))),
     TextRecord(1, 2)},
    {"0x03 no zero, odd byte: text runs to the record's last unit", 0x03,
     TextContent(1, 2, {'N', 0, 'o', 0, 'x'}), TextRecord(1, 2, L"No")},
    {"0x81 one byte", 0x81, {0xAB}, Backup({0xAB})},
    {"0x81 2047 bytes", 0x81, Bytes(2047, 0xCD), Backup(Bytes(2047, 0xCD))},
    {"0x81 2048 bytes", 0x81, Bytes(2048, 0xCD), nullptr},
    {"0x81 empty", 0x81, {}, nullptr},
    {"unknown short tag", 0x10, {1, 2, 3}, nullptr},
    {"unknown long tag", 0x90, Bytes(300, 1), nullptr},
};

// Verify that each record kind is applied with its own length and skipped with any other: the
// record changes exactly its own fields, and a second record after it is still read.
TEST(DevConfigRecord, AppliesOrSkips) {
    const Bytes after = ConfigBlockBuilder().Record(0x04, {0x77}).Build();
    for (const auto& c : kRecordCases) {
        SCOPED_TRACE(c.what);
        auto config = FilledConfig(0x5A);
        SetText(*config, L"old");
        auto expected = FilledConfig(0);
        std::memcpy(static_cast<void*>(expected.get()), config.get(), sizeof(*config));
        ASSERT_EQ(Decode(after, expected.get()), DEV_CONFIG_DECODE_OK);
        if (c.change) c.change(*expected);
        const Bytes block =
            ConfigBlockBuilder().Record(c.tag, c.content).Record(0x04, {0x77}).Build();
        ASSERT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
        EXPECT_EQ(+config->rec4Byte, 0x77) << "the record after it is read";
        EXPECT_EQ(std::memcmp(config.get(), expected.get(), sizeof(*config)), 0)
            << DevConfigFirstDifference(config.get(), expected.get());
    }
}

// Verify that the running count, which undercounts, never lets the reader past the block:
// records are read up to the block's end, a record cut short ends the reading with success, and
// a header-only count (28) still reads a 31-byte block's record.
TEST(DevConfigRecords, ReadingEndsAtTheBlockEnd) {
    // Count starts at 60 (one area) while the records start at 88.
    Bytes block = ConfigBlockBuilder()
                      .Area(cfgtest::SampleArea(3))
                      .Record(0x02, {5, 0})
                      .Record(0x04, {6})
                      .Build();
    for (size_t cut = 88; cut <= block.size(); ++cut) {
        auto config = FilledConfig(0);
        ASSERT_EQ(Decode(block, config.get(), static_cast<int>(cut)), DEV_CONFIG_DECODE_OK) << cut;
        EXPECT_EQ(+config->rec2Value, cut >= 92 ? 5 : 0) << cut;
        EXPECT_EQ(+config->rec4Byte, cut >= 95 ? 6 : 0) << cut;
    }
    auto config = FilledConfig(0);
    block = ConfigBlockBuilder().RecordWithLength(0x81, 2000, {1, 2, 3}).Build();
    EXPECT_EQ(Decode(block, config.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->backupLength, 0) << "a length past the block is not applied";
    EXPECT_EQ(Decode(ConfigBlockBuilder().Record(0x04, {3}).Build(), config.get()),
              DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(+config->rec4Byte, 3);
}

// ---------------------------------------------------------------------------------------------
// Panels

// Verify the panel record both ways against a block built by hand: shared text area first (a
// text stored once, another found inside it at the first even offset), the index, panel heads,
// key entries of every type with the code bytes swapped, the numbers in their stored order
// (keyValue3 first), a panel without keys, and bytes 1..3 of an unknown key left unwritten. The
// type bits are tested in order: 0x03 is a code key, 0x06 a key with two numbers.
TEST(DevConfigPanels, RecordBothWays) {
    PanelRecordBuilder r;
    const uint16_t abc = r.Text(u"ABC");
    r.Text(u"BC");  // stored, though its key points inside "ABC"
    r.Panel(PanelHead(7, 1, 3))
        .Key(TextKey(KEY_TYPE_TEXT2, abc, 8))
        .Key({0x03, 0xA0, 0xA2, 0xA1, {1, 2, 3, 4}})
        .Key({0x08, 0xEE, 0xEE, 0xEE, {9, 10, 11, 12}})
        .Numbers({0x11, 0x22});
    r.Panel(PanelHead(2, 1, 2))
        .Key(TextKey(KEY_TYPE_TEXT3, 2, 6))
        .Key(TextKey(0x06, abc, 8))
        .Numbers({3, 1, 2})
        .Numbers({4, 5});
    r.Panel(PanelHead(3, 0, 5));
    const Bytes block = ConfigBlockBuilder().PanelCount(3).Record(0x80, r.Content()).Build();

    auto config = FilledConfig(0);
    config->panelCount = 3;
    const uint8_t ids[][3] = {{7, 1, 3}, {2, 1, 2}, {3, 0, 5}};
    for (int p = 0; p < 3; ++p) {
        std::memcpy(&config->panels[p], PanelHead(ids[p][0], ids[p][1], ids[p][2]).data(),
                    HBRECT_HEAD_BYTES);
    }
    _HARDWARE_KEY_CONFIG* k = config->panels[0].keys;
    k[0].type = KEY_TYPE_TEXT2, k[0].rect = {5, 6, 7, 8}, k[0].keyValue1 = 0x11, k[0].keyValue2 = 0x22;
    SetText(k[0], L"ABC");
    k[1].type = 0x03, k[1].rect = {1, 2, 3, 4}, k[1].code0 = 0xA0, k[1].code1 = 0xA1, k[1].code2 = 0xA2;
    k[2].type = 0x08, k[2].rect = {9, 10, 11, 12};
    k = config->panels[1].keys;
    k[0].type = KEY_TYPE_TEXT3, k[0].rect = {5, 6, 7, 8};
    k[0].keyValue1 = 1, k[0].keyValue2 = 2, k[0].keyValue3 = 3;
    SetText(k[0], L"BC");
    k[1].type = 0x06, k[1].rect = {5, 6, 7, 8}, k[1].keyValue1 = 4, k[1].keyValue2 = 5;
    SetText(k[1], L"ABC");

    EXPECT_EQ(Encode(config.get(), 0xEE), block);
    auto decoded = FilledConfig(0);
    ASSERT_EQ(Decode(block, decoded.get()), DEV_CONFIG_DECODE_OK);
    ExpectSame(config.get(), decoded.get());
}

struct PanelFault {
    const char* what;
    Bytes block;
    int panelCount;
    Check check;
};

Bytes WithPanels(uint8_t headerPanels, Bytes content, size_t padTo = 0) {
    if (content.size() < padTo) content.resize(padTo, 0);
    return ConfigBlockBuilder().PanelCount(headerPanels).Record(0x80, content).Record(0x04, {0x44}).Build();
}

// Two good panels; the cases below break one thing each.
PanelRecordBuilder TwoPanels() {
    PanelRecordBuilder r;
    const uint16_t t = r.Text(u"Key");
    r.Panel(PanelHead(1, 1, 2)).Key(CodeKey(1, 2, 3)).Key(TextKey(KEY_TYPE_TEXT2, t, 8)).Numbers({1, 2});
    r.Panel(PanelHead(2, 1, 1)).Key(TextKey(KEY_TYPE_TEXT3, t, 8)).Numbers({3, 4, 5});
    return r;
}

// One panel of one text key whose entry gives `offset` and `bytes` into a text area `area`.
Bytes OneTextKey(const Bytes& area, uint16_t offset, uint8_t bytes, uint8_t type = KEY_TYPE_TEXT2) {
    PanelRecordBuilder r;
    r.TextAreaBytes(area).Panel(PanelHead(1, 1, 1)).Key(TextKey(type, offset, bytes)).Numbers({1, 2, 3});
    return WithPanels(1, r.Content());
}

void NoKeys(C c) { EXPECT_EQ(+c.panels[0].rows, 0); }
void NoPanel0(C c) { EXPECT_EQ(+c.panels[0].id, 0); }
Check KeyText(const std::wstring& text) {
    return [text](C c) { EXPECT_EQ(TextOf(c.panels[0].keys[0]), text); };
}

const PanelFault kPanelFaults[] = {
    {"good", WithPanels(2, TwoPanels().Content()), 2,
     [](C c) { EXPECT_EQ(+c.panels[1].keys[0].keyValue3, 3u); }},
    {"header has no panels", WithPanels(0, TwoPanels().Content()), 0, NoPanel0},
    {"header has fewer panels", WithPanels(1, TwoPanels().Content()), 1, nullptr},
    {"header has more panels than the index", WithPanels(4, TwoPanels().Content()), 2, nullptr},
    {"record shorter than A and S", WithPanels(2, {4, 0, 0}), 0, nullptr},
    {"text area past the record",
     WithPanels(2, TwoPanels().TextAreaSize(400).Content()), 0, NoPanel0},
    {"largest A and S", WithPanels(4, {0xFF, 0xFF, 0xFF, 0xFF}, 64), 0, NoPanel0},
    {"index cut by the record's end", WithPanels(1, {4, 0, 0, 0, 0x10, 0}), 0, nullptr},
    {"panel shorter than its head",
     WithPanels(2, TwoPanels().IndexEntry(0, 16, 23).Content()), 0, NoPanel0},
    {"largest O and E", WithPanels(4, {4, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 64), 0, nullptr},
    {"largest E", WithPanels(4, {8, 0, 0, 0, 8, 0, 0xFF, 0xFF}, 64), 0, nullptr},
    {"largest O", WithPanels(4, {8, 0, 0, 0, 0xFF, 0xFF, 24, 0}, 64), 0, nullptr},
    {"second panel past the record",
     WithPanels(2, TwoPanels().IndexEntry(1, 60000, 30).Content()), 1,
     [](C c) { EXPECT_EQ(+c.panels[1].id, 0); }},
    {"more than 32 keys: head kept, uncounted",
     [] {
         PanelRecordBuilder r = TwoPanels();
         r.Panel(PanelHead(3, 6, 6)).PanelBytes(Bytes(36 * 12));
         return WithPanels(3, r.Content());
     }(),
     2, [](C c) { EXPECT_EQ(+c.panels[2].id, 3); EXPECT_EQ(+c.panels[2].rows, 6); }},
    {"entries do not fit: head kept, uncounted",
     [] {
         PanelRecordBuilder r;
         r.Panel(PanelHead(9, 2, 1)).Key(CodeKey(1, 2, 3)).PanelBytes(Bytes(11));
         r.Panel(PanelHead(8, 1, 1)).Key(CodeKey(1, 2, 3));
         return WithPanels(2, r.Content());
     }(),
     0, [](C c) { EXPECT_EQ(+c.panels[0].id, 9); }},
    {"numbers missing: panel counted without keys",
     [] {
         PanelRecordBuilder r;
         const uint16_t t = r.Text(u"Key");
         r.Panel(PanelHead(1, 1, 2)).Key(CodeKey(4, 5, 6)).Key(TextKey(KEY_TYPE_TEXT3, t, 8)).Numbers({1, 2});
         r.Panel(PanelHead(2, 1, 1)).Key(CodeKey(7, 8, 9));
         return WithPanels(2, r.Content());
     }(),
     2,
     [](C c) {
         EXPECT_EQ(c.panels[0].rows | c.panels[0].columns, 0);
         EXPECT_EQ(+c.panels[0].keys[0].code0, 4) << "keys before the failing one are read";
         EXPECT_EQ(+c.panels[1].keys[0].code2, 9) << "the next panel is read";
     }},
    {"text 66 bytes", OneTextKey(Units(std::u16string(40, u'k')), 0, 66), 1, NoKeys},
    {"text 64 bytes", OneTextKey(Units(std::u16string(31, u'k')), 0, 64), 1,
     KeyText(std::wstring(31, L'k'))},
    {"text past the text area", OneTextKey(Units(u"Key"), 2, 8), 1, NoKeys},
    {"largest text offset and length", OneTextKey({'x', 0}, 0xFFFF, 0xFF), 1, NoKeys},
    {"entry length without the zero: text runs to the zero",
     OneTextKey(Units(u"Longer"), 0, 2), 1, KeyText(L"Longer")},
    {"text without a zero: cut at the text area's end",
     OneTextKey({'a', 0, 'b', 0, 'c'}, 0, 4), 1, KeyText(L"ab")},
    {"text of 40 units: cut at 31",
     OneTextKey(Units(std::u16string(40, u'z')), 0, 20, KEY_TYPE_TEXT3), 1,
     KeyText(std::wstring(31, L'z'))},
};

// Verify what a faulty panel record keeps: nothing when the record fails, the panels before a
// panel that fails its size checks, and a panel without keys when one of its keys fails. No
// offset, size or text length, up to their largest values, is read past the record.
TEST(DevConfigPanelFaults, KeepsWhatPassed) {
    for (const auto& f : kPanelFaults) {
        SCOPED_TRACE(f.what);
        auto config = FilledConfig(0);
        ASSERT_EQ(Decode(f.block, config.get()), DEV_CONFIG_DECODE_OK);
        EXPECT_EQ(+config->panelCount, f.panelCount);
        if (f.check) f.check(*config);
        EXPECT_EQ(+config->rec4Byte, 0x44) << "the record after it is read";
    }
}

// Verify that a second 0x80 record starts from the first slot again, is checked against the
// panels read so far (the running count restarts at 4 * panels + 4), and never takes the count
// above 4 or leaves a counted slot with more keys than it holds.
TEST(DevConfigPanels, RepeatedPanelRecords) {
    PanelRecordBuilder first, second, bad;
    first.Panel(PanelHead(1, 1, 1)).Key(CodeKey(1, 1, 1)).Panel(PanelHead(2, 1, 1)).Key(CodeKey(2, 2, 2));
    second.Panel(PanelHead(3, 1, 1)).Key(CodeKey(3, 3, 3)).Panel(PanelHead(4, 1, 1)).Key(CodeKey(4, 4, 4));
    bad.Panel(PanelHead(5, 9, 9));
    const struct {
        const char* what;
        std::vector<Bytes> later;
        int count, id0, id1, keys0;
    } cases[] = {
        {"refilled, count capped at 4", {second.Content(), second.Content()}, 4, 3, 4, 1},
        {"shorter than 4 * 2 + 4", {{8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}, 2, 1, 2, 1},
        {"failing head over a counted slot", {bad.Content()}, 2, 5, 2, 0},
    };
    for (const auto& c : cases) {
        ConfigBlockBuilder b;
        b.PanelCount(2).Record(0x80, first.Content());
        for (const Bytes& later : c.later) b.Record(0x80, later);
        auto config = FilledConfig(0);
        ASSERT_EQ(Decode(b.Build(), config.get()), DEV_CONFIG_DECODE_OK) << c.what;
        EXPECT_EQ(+config->panelCount, c.count) << c.what;
        EXPECT_EQ(+config->panels[0].id, c.id0) << c.what;
        EXPECT_EQ(+config->panels[1].id, c.id1) << c.what;
        EXPECT_EQ(config->panels[0].rows * config->panels[0].columns, c.keys0) << c.what;
    }
}

// Verify that no prefix of a rich block, and no random damage to it, makes the decoder read
// outside the block (ASan watches the exact-size copies) or leave a record that breaks its own
// limits.
TEST(DevConfigHostile, TruncatedAndDamagedBlocksStayInBounds) {
    auto rich = FilledConfig(0);
    FillRich(*rich, 3, 4, 12);
    const Bytes block = Encode(rich.get());
    auto checkLimits = [](C c) {
        EXPECT_LE(+c.areaCount, DEV_CONFIG_MAX_AREAS);
        EXPECT_LE(+c.extraCount, DEV_CONFIG_MAX_EXTRAS);
        EXPECT_LE(+c.panelCount, DEV_CONFIG_MAX_PANELS);
        EXPECT_LT(+c.backupLength, DEV_CONFIG_BACKUP_BYTES);
        for (int p = 0; p < c.panelCount; ++p) {
            EXPECT_LE(c.panels[p].rows * c.panels[p].columns, DEV_CONFIG_MAX_KEYS);
        }
    };
    for (size_t n = 0; n <= block.size(); ++n) {
        auto config = FilledConfig(0);
        const int r = Decode(block, config.get(), static_cast<int>(n));
        EXPECT_TRUE(r == -1 || r == DEV_CONFIG_DECODE_OK) << n;
        checkLimits(*config);
    }
    std::mt19937 random(20240611);
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = block;
        const int hits = 1 + static_cast<int>(random() % 8);
        for (int i = 0; i < hits; ++i) damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
        auto config = FilledConfig(0);
        Decode(damaged, config.get());
        checkLimits(*config);
    }
}

// ---------------------------------------------------------------------------------------------
// Encoding

// Verify which parts the length counts: a small record as soon as one of its fields is set, an
// empty record text as its zero unit, key numbers even without a text, a shared text once, and a
// backup above 2047 bytes that is counted but not written.
TEST(DevConfigEncode, LengthCountsEachPart) {
    auto config = FilledConfig(0);
    DefaultDevConfig('a', 0, config.get());
    const struct {
        const char* what;
        Fill change;
        int added;
    } steps[] = {
        {"header", [](auto&) {}, 28},
        {"0x01 for rec1Value0", [](auto& c) { c.rec1Value0 = 1; }, 7},
        {"0x03 for textValue1", [](auto& c) { c.textValue1 = 1; }, 10 + 2},
        {"0x03 text", [](auto& c) { SetText(c, L"abc"); }, 6},
        {"panel", [](auto& c) {
             c.panelCount = 1, c.panels[0].rows = 2, c.panels[0].columns = 2;
             _HARDWARE_KEY_CONFIG* k = c.panels[0].keys;
             k[0].type = KEY_TYPE_CODE;
             k[1].type = KEY_TYPE_TEXT2;
             SetText(k[1], L"xy");
             k[2].type = KEY_TYPE_TEXT3;  // empty text: numbers only
             k[3].type = KEY_TYPE_TEXT3;
             SetText(k[3], L"xy");   // shared: stored once
         }, 4 + 7 + 24 + 4 * 12 + 8 + 6 + 12 + 12},
        {"backup of 2047", [](auto& c) { c.backupLength = 2047; }, 2050},
    };
    int length = 0;
    for (const auto& s : steps) {
        s.change(*config);
        length += s.added;
        EXPECT_EQ(EncodeDevConfig(config.get(), nullptr), length) << s.what;
    }
    length -= 2050;
    config->backupLength = 3000;
    const Bytes out = Encode(config.get(), 0xEE);
    EXPECT_EQ(out.size(), static_cast<size_t>(length + 3003));
    EXPECT_EQ(out[0] | out[1] << 8, static_cast<int>(out.size()));
    for (size_t i = static_cast<size_t>(length); i < out.size(); ++i) {
        ASSERT_EQ(out[i], 0xEE) << "nothing written for a backup above 2047 bytes, at " << i;
    }
}

// Verify that CmpKeyString is true for code keys and for texts an earlier text key has, and
// that it never looks at later keys.
TEST(DevConfigEncode, CmpKeyStringLooksOnlyBackwards) {
    auto config = FilledConfig(0);
    config->panelCount = 2;
    config->panels[0].rows = 1, config->panels[0].columns = 3;
    config->panels[1].rows = 1, config->panels[1].columns = 2;
    _HARDWARE_KEY_CONFIG* k = config->panels[0].keys;
    _HARDWARE_KEY_CONFIG* m = config->panels[1].keys;
    auto set = [](_HARDWARE_KEY_CONFIG& key, uint8_t type, const wchar_t* text) {
        key.type = type;
        SetText(key, text);
    };
    set(k[0], 0x10, L"Same");  // not a text key: its text does not count
    set(k[1], KEY_TYPE_TEXT3, L"Same");
    set(k[2], KEY_TYPE_CODE, L"");
    set(m[0], KEY_TYPE_TEXT2, L"Same");
    set(m[1], KEY_TYPE_TEXT2, L"Sam");

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
    const struct {
        Bytes pattern;
        int areaLength;
        int expected;
    } cases[] = {
        {{'c', 'b'}, 8, 2},
        {{'b', 'c'}, 8, -1},  // only at odd offsets
        {{'x', 'y'}, 8, 6},
        {{'x', 'y'}, 7, -1},  // offset + pattern length > area length
        {{'x'}, 8, 6},
        {{'x'}, 7, -1},       // offset + 2 > area length
        {{'y'}, 8, -1},
        {area, 8, 0},
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
    auto config = FilledConfig(0);
    config->areaCount = 200, config->extraCount = 200, config->panelCount = 9;
    for (auto& panel : config->panels) panel.rows = 16, panel.columns = 16;
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
    Fill fill;
};

const RoundTripCase kRoundTrips[] = {
    {"full", [](auto& c) { FillRich(c, 32, 4, 32); }},
    {"numbers without text", [](auto& c) { FillRich(c, 1, 1, 4), SetText(c, L""); }},
    {"31 character texts",
     [](auto& c) {
         FillRich(c, 0, 1, 2);
         SetText(c, std::wstring(31, L'r'));
         c.panels[0].keys[1].type = KEY_TYPE_TEXT2;
         SetText(c.panels[0].keys[1], std::wstring(31, L'k'));
     }},
    {"empty texts of text keys",
     [](auto& c) {
         FillRich(c, 0, 1, 4);
         SetText(c.panels[0].keys[1], L"");
         c.panels[0].keys[3].type = KEY_TYPE_TEXT3;
         SetText(c.panels[0].keys[3], L"");
     }},
    {"no backup", [](auto& c) { FillRich(c, 2, 1, 4), c.backupLength = 0; }},
};

// Verify that decoding an encoded record gives back every field the block carries, and that
// encoding the result again gives the same block (up to unwritten bytes of unknown keys).
TEST(DevConfigRoundTrip, DecodeGivesTheRecordBack) {
    for (const auto& c : kRoundTrips) {
        SCOPED_TRACE(c.what);
        auto original = FilledConfig(0);
        c.fill(*original);
        const Bytes block = Encode(original.get(), 0x00);
        auto decoded = FilledConfig(0);
        ASSERT_EQ(Decode(block, decoded.get()), DEV_CONFIG_DECODE_OK);
        ExpectSame(original.get(), decoded.get());
        EXPECT_EQ(Encode(decoded.get(), 0x00), block);
    }
}

// Verify that the comparison used by the round trips notices a change in each carried field and
// ignores what the block does not carry.
TEST(DevConfigRoundTrip, ComparisonSeesEveryCarriedField) {
    auto base = FilledConfig(0);
    FillRich(*base, 2, 2, 4);
    const struct {
        const char* what;
        Fill change;
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
        auto changed = FilledConfig(0);
        std::memcpy(static_cast<void*>(changed.get()), base.get(), sizeof(_HARDWARE_DEV_CONFIG));
        ch.change(*changed);
        EXPECT_EQ(DevConfigFirstDifference(base.get(), changed.get()) != nullptr, ch.carried) << ch.what;
    }
}

// ---------------------------------------------------------------------------------------------
// Defaults, backup, override

// Verify the defaults: "s" and "S" alike (their values are pinned by the layout test above),
// every other type differing from them only in flags and record 0x02, the second argument
// unused, and nothing left of what the record held.
TEST(DevConfigDefaults, ProductTypes) {
    auto s = FilledConfig(0);
    DefaultDevConfig('s', 0, s.get());
    for (const uint8_t type : {uint8_t{'S'}, uint8_t{'a'}, uint8_t{0}, uint8_t{'s' + 0x80}}) {
        auto config = FilledConfig(0x77);
        DefaultDevConfig(type, 0xFFFFFFFF, config.get());
        const bool likeS = type == 'S';
        EXPECT_EQ(+config->flags, likeS ? DEV_FLAGS_DEFAULT_S : DEV_FLAGS_DEFAULT) << int(type);
        EXPECT_EQ(+config->rec2Value, likeS ? 16 : 0) << int(type);
        config->flags = DEV_FLAGS_DEFAULT_S;
        config->rec2Value = 16;
        EXPECT_EQ(std::memcmp(config.get(), s.get(), sizeof(_HARDWARE_DEV_CONFIG)), 0) << int(type);
    }
    EXPECT_EQ(s->areaCount | s->panelCount | s->backupLength | s->text[0], 0);
    EXPECT_EQ(+s->panels[3].keys[31].keyValue3, 0u);
}

// Verify the default area: copied network target and mode (the low byte of flags), full-HD
// rectangles, edges of 15, the centre and half-axes of the whole frame.
TEST(DevConfigDefaults, CalibrationArea) {
    auto config = FilledConfig(0);
    DefaultDevConfig('s', 0, config.get());
    config->netAddress = 0x0A0B0C0D, config->port = 1, config->port2 = 2, config->flags = 0x1234;
    std::memset(&config->areas[0], 0x66, sizeof(_HCRECT_CONFIG_FILE));
    DefaultDevCalConfig('x', 99, config.get());
    _HCRECT_CONFIG_FILE expected{};
    expected.netAddress = 0x0A0B0C0D, expected.port = 1, expected.port2 = 2, expected.mode = 0x34;
    expected.outputRect = expected.targetRect = {0, 0, 1920, 1080};
    for (int8_t& e : expected.edgeAdjust) e = 15;
    expected.center = {16384, 16384};
    expected.axisH = {-16384, 0};
    expected.axisV = {0, 16384};
    EXPECT_EQ(+config->areaCount, 1);
    EXPECT_EQ(std::memcmp(&config->areas[0], &expected, sizeof(expected)), 0);
}

// Verify that a backup holds the encoded record without an earlier backup, and that recovering
// it brings the record back; then the limits of both.
TEST(DevConfigBackup, BackupAndRecover) {
    auto config = FilledConfig(0);
    FillRich(*config, 2, 1, 4);
    std::memset(config->backup, 0, sizeof(config->backup));  // bytes of unknown keys stay as they are
    config->backupLength = 100;  // an earlier backup is dropped, not nested
    const int length = BackupDevConfig(config.get());
    ASSERT_GT(length, 0);
    EXPECT_EQ(+config->backupLength, length);
    auto saved = FilledConfig(0);
    std::memcpy(static_cast<void*>(saved.get()), config.get(), sizeof(_HARDWARE_DEV_CONFIG));
    saved->backupLength = 0;
    EXPECT_EQ(Bytes(config->backup, config->backup + length), Encode(saved.get(), 0x00));

    saved->backupLength = static_cast<uint16_t>(length);
    config->flags = 0;
    config->areas[1].rotation = 3;
    SetText(config->panels[0].keys[1], L"changed");
    config->areaCount = 0;
    EXPECT_EQ(RecoverDevConfig(config.get()), DEV_CONFIG_DECODE_OK);
    ExpectSame(saved.get(), config.get());
    EXPECT_EQ(+config->backupLength, length) << "the backup itself stays";

    FillRich(*config, 32, 1, 4);  // more than 2047 bytes
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
    auto config = FilledConfig(0);
    DefaultDevConfig('s', 0, config.get());
    config->option1 = 0x81, config->option2 = 0x82, config->option3 = 0x83;
    config->value0 = 0x1234, config->value1 = 0x5678;
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
