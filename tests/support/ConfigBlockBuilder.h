// Test helper: assembles configuration blocks byte by byte, including blocks that the encoder
// would never write (lengths that lie, offsets out of range, counts too big). Nothing here calls
// the codec, so a block built here is an independent statement of the format:
//
//   cfgtest::PanelRecordBuilder panels;
//   const uint16_t ok = panels.Text(u"OK");  // into the shared text area
//   panels.Panel(cfgtest::PanelHead(1, 1, 1)).Key(cfgtest::TextKey(KEY_TYPE_TEXT2, ok, 6))
//         .Numbers({7, 8});                 // keyValue1, keyValue2 of the text key
//   const auto block = cfgtest::ConfigBlockBuilder().Area(someArea).PanelCount(1)
//                          .Record(0x80, panels.Content()).Build();
#pragma once

#include "MtDevConfig.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace cfgtest {

void Append32(std::vector<uint8_t>& out, uint32_t value);  // little-endian
std::vector<uint8_t> Units(std::u16string_view text);      // code units and a zero unit

using PanelHeadBytes = std::array<uint8_t, HBRECT_HEAD_BYTES>;

// A panel head; the bytes not named are set to recognisable values.
PanelHeadBytes PanelHead(uint8_t id, uint8_t rows, uint8_t columns, uint16_t width = 200,
                         uint16_t height = 100);

// One 12-byte key entry as it is stored.
struct KeyEntry {
    uint8_t type = 0;
    uint8_t byte1 = 0;
    uint8_t byte2 = 0;
    uint8_t byte3 = 0;
    _HK_RECT16 rect{};
};
KeyEntry CodeKey(uint8_t code0, uint8_t code1, uint8_t code2, _HK_RECT16 rect = {1, 2, 3, 4});
KeyEntry TextKey(uint8_t type, uint16_t textOffset, uint8_t textBytes,
                 _HK_RECT16 rect = {5, 6, 7, 8});

// The content of a 0x80 record (what follows its length field): text area offset A, text area
// size S, the panel index, the text area, then the panels in the order they were started.
class PanelRecordBuilder {
public:
    // Appends a text and its zero unit to the text area; returns its offset there.
    uint16_t Text(std::u16string_view text);
    // Appends raw bytes to the text area (e.g. a text without its zero unit).
    PanelRecordBuilder& TextAreaBytes(const std::vector<uint8_t>& bytes);

    // Starts a panel; keys, numbers and raw bytes go to the last panel started.
    PanelRecordBuilder& Panel(const PanelHeadBytes& head);
    PanelRecordBuilder& Key(const KeyEntry& key);
    PanelRecordBuilder& Numbers(std::initializer_list<uint32_t> values);
    PanelRecordBuilder& PanelBytes(const std::vector<uint8_t>& bytes);

    // Overrides for hostile records; the index has one entry per panel started.
    PanelRecordBuilder& TextAreaSize(uint16_t s);
    PanelRecordBuilder& IndexEntry(int panel, uint16_t offset, uint16_t size);

    std::vector<uint8_t> Content() const;

private:
    std::vector<uint8_t> m_textArea;
    std::vector<std::vector<uint8_t>> m_panels;
    std::optional<uint16_t> m_s;
    std::vector<std::pair<int, std::pair<uint16_t, uint16_t>>> m_indexOverrides;
};

// A block: the header, then areas, extras, records and raw bytes in the order they are added.
// Bytes 0..1 are the block's size; Area and Extra add one to their header count.
class ConfigBlockBuilder {
public:
    ConfigBlockBuilder();  // tag 0xB2, every other header byte 0

    // Header fields by offset (see the block's header table in docs/configuration.md).
    ConfigBlockBuilder& Set8(size_t offset, uint8_t value);
    ConfigBlockBuilder& Set16(size_t offset, uint16_t value);
    ConfigBlockBuilder& Set32(size_t offset, uint32_t value);
    ConfigBlockBuilder& Flags(uint32_t flags) { return Set32(4, flags); }
    ConfigBlockBuilder& AreaCount(uint8_t n) { return Set8(25, n); }
    ConfigBlockBuilder& ExtraCount(uint8_t n) { return Set8(26, n); }
    ConfigBlockBuilder& PanelCount(uint8_t n) { return Set8(27, n); }

    ConfigBlockBuilder& Area(const _HCRECT_CONFIG_FILE& area);
    ConfigBlockBuilder& Extra(const std::array<uint8_t, DEV_CONFIG_EXTRA_BYTES>& extra);
    // A record with its true length (one byte below tag 0x80, two bytes from 0x80 on).
    ConfigBlockBuilder& Record(uint8_t tag, const std::vector<uint8_t>& content);
    // A record whose length field says `length` whatever the content's size.
    ConfigBlockBuilder& RecordWithLength(uint8_t tag, uint16_t length,
                                         const std::vector<uint8_t>& content);
    ConfigBlockBuilder& Raw(const std::vector<uint8_t>& bytes);

    std::vector<uint8_t> Build() const;

private:
    std::vector<uint8_t> m_bytes;
};

// A calibration area with every field set to a value derived from `seed`.
_HCRECT_CONFIG_FILE SampleArea(uint8_t seed);

// A record on the heap (it is large) with every byte `fill`.
std::unique_ptr<_HARDWARE_DEV_CONFIG> FilledConfig(int fill);

}  // namespace cfgtest
