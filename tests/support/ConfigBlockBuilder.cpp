#include "support/ConfigBlockBuilder.h"

#include <algorithm>
#include <cstring>

namespace cfgtest {
namespace {

void Append16(std::vector<uint8_t>& out, uint32_t value) {
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

}  // namespace

void Append32(std::vector<uint8_t>& out, uint32_t value) {
    Append16(out, value);
    Append16(out, value >> 16);
}

std::vector<uint8_t> Units(std::u16string_view text) {
    std::vector<uint8_t> out;
    for (char16_t c : text) Append16(out, c);
    Append16(out, 0);
    return out;
}

PanelHeadBytes PanelHead(uint8_t id, uint8_t rows, uint8_t columns, uint16_t width,
                         uint16_t height) {
    // Bytes 1 and 4..7 are carried as they are; the geometry is center, axisH, axisV.
    const int16_t geometry[6] = {16000, 17000, -8000, 10, -20, 9000};
    std::vector<uint8_t> h = {id, 0xA1, rows, columns, 0xA4, 0xA5, 0xA6, 0xA7};
    for (const uint16_t v : {width, height}) Append16(h, v);
    for (const int16_t v : geometry) Append16(h, static_cast<uint16_t>(v));
    PanelHeadBytes head;
    std::copy(h.begin(), h.end(), head.begin());
    return head;
}

KeyEntry CodeKey(uint8_t code0, uint8_t code1, uint8_t code2, _HK_RECT16 rect) {
    return {KEY_TYPE_CODE, code0, code2, code1, rect};  // code2 before code1, as stored
}

KeyEntry TextKey(uint8_t type, uint16_t textOffset, uint8_t textBytes, _HK_RECT16 rect) {
    return {type, textBytes, static_cast<uint8_t>(textOffset),
            static_cast<uint8_t>(textOffset >> 8), rect};
}

uint16_t PanelRecordBuilder::Text(std::u16string_view text) {
    const auto offset = static_cast<uint16_t>(m_textArea.size());
    const auto units = Units(text);
    m_textArea.insert(m_textArea.end(), units.begin(), units.end());
    return offset;
}

PanelRecordBuilder& PanelRecordBuilder::TextAreaBytes(const std::vector<uint8_t>& bytes) {
    m_textArea.insert(m_textArea.end(), bytes.begin(), bytes.end());
    return *this;
}

PanelRecordBuilder& PanelRecordBuilder::Panel(const PanelHeadBytes& head) {
    m_panels.emplace_back(head.begin(), head.end());
    return *this;
}

PanelRecordBuilder& PanelRecordBuilder::Key(const KeyEntry& key) {
    auto& p = m_panels.back();
    p.insert(p.end(), {key.type, key.byte1, key.byte2, key.byte3});
    for (const uint16_t v : {key.rect.x, key.rect.y, key.rect.width, key.rect.height}) {
        Append16(p, v);
    }
    return *this;
}

PanelRecordBuilder& PanelRecordBuilder::Numbers(std::initializer_list<uint32_t> values) {
    for (uint32_t v : values) Append32(m_panels.back(), v);
    return *this;
}

PanelRecordBuilder& PanelRecordBuilder::PanelBytes(const std::vector<uint8_t>& bytes) {
    m_panels.back().insert(m_panels.back().end(), bytes.begin(), bytes.end());
    return *this;
}

PanelRecordBuilder& PanelRecordBuilder::TextAreaSize(uint16_t s) {
    m_s = s;
    return *this;
}

PanelRecordBuilder& PanelRecordBuilder::IndexEntry(int panel, uint16_t offset, uint16_t size) {
    m_indexOverrides.push_back({panel, {offset, size}});
    return *this;
}

std::vector<uint8_t> PanelRecordBuilder::Content() const {
    const size_t a = 4 + 4 * m_panels.size();  // where the text area is
    std::vector<std::pair<uint16_t, uint16_t>> index;
    size_t offset = a + m_textArea.size();
    for (const auto& p : m_panels) {
        index.push_back({static_cast<uint16_t>(offset), static_cast<uint16_t>(p.size())});
        offset += p.size();
    }
    for (const auto& [panel, entry] : m_indexOverrides) index.at(static_cast<size_t>(panel)) = entry;

    std::vector<uint8_t> out;
    Append16(out, static_cast<uint16_t>(a));
    Append16(out, m_s.value_or(static_cast<uint16_t>(m_textArea.size())));
    for (const auto& [o, e] : index) {
        Append16(out, o);
        Append16(out, e);
    }
    out.insert(out.end(), m_textArea.begin(), m_textArea.end());
    for (const auto& p : m_panels) out.insert(out.end(), p.begin(), p.end());
    return out;
}

ConfigBlockBuilder::ConfigBlockBuilder() : m_bytes(DEV_CONFIG_HEADER_BYTES, 0) {
    m_bytes[2] = DEV_CONFIG_BLOCK_TAG;
}

ConfigBlockBuilder& ConfigBlockBuilder::Set8(size_t offset, uint8_t value) {
    m_bytes.at(offset) = value;
    return *this;
}

ConfigBlockBuilder& ConfigBlockBuilder::Set16(size_t offset, uint16_t value) {
    Set8(offset, static_cast<uint8_t>(value));
    return Set8(offset + 1, static_cast<uint8_t>(value >> 8));
}

ConfigBlockBuilder& ConfigBlockBuilder::Set32(size_t offset, uint32_t value) {
    Set16(offset, static_cast<uint16_t>(value));
    return Set16(offset + 2, static_cast<uint16_t>(value >> 16));
}

ConfigBlockBuilder& ConfigBlockBuilder::Area(const _HCRECT_CONFIG_FILE& area) {
    ++m_bytes[25];
    const auto* bytes = reinterpret_cast<const uint8_t*>(&area);
    return Raw({bytes, bytes + sizeof(area)});
}

ConfigBlockBuilder& ConfigBlockBuilder::Extra(
    const std::array<uint8_t, DEV_CONFIG_EXTRA_BYTES>& extra) {
    ++m_bytes[26];
    return Raw({extra.begin(), extra.end()});
}

ConfigBlockBuilder& ConfigBlockBuilder::Record(uint8_t tag, const std::vector<uint8_t>& content) {
    return RecordWithLength(tag, static_cast<uint16_t>(content.size()), content);
}

ConfigBlockBuilder& ConfigBlockBuilder::RecordWithLength(uint8_t tag, uint16_t length,
                                                         const std::vector<uint8_t>& content) {
    m_bytes.push_back(tag);
    if (tag < 0x80) {
        m_bytes.push_back(static_cast<uint8_t>(length));
    } else {
        Append16(m_bytes, length);
    }
    return Raw(content);
}

ConfigBlockBuilder& ConfigBlockBuilder::Raw(const std::vector<uint8_t>& bytes) {
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

std::vector<uint8_t> ConfigBlockBuilder::Build() const {
    std::vector<uint8_t> out = m_bytes;
    const auto total = static_cast<uint16_t>(out.size());
    out[0] = static_cast<uint8_t>(total);
    out[1] = static_cast<uint8_t>(total >> 8);
    return out;
}

_HCRECT_CONFIG_FILE SampleArea(uint8_t seed) {
    _HCRECT_CONFIG_FILE a{};
    a.netAddress = 0x0A000000u + seed;
    a.port = static_cast<uint16_t>(4000 + seed);
    a.port2 = static_cast<uint16_t>(5000 + seed);
    a.mode = static_cast<uint8_t>(0x05 + seed);
    a.id = seed;
    a.group = static_cast<uint8_t>(seed + 1);
    a.rotation = static_cast<uint8_t>(seed % 4);
    a.outputRect = {seed, 2 * seed, 1920 - seed, 1080 - seed};
    a.targetRect = {-seed, 3 * seed, 1000 + seed, 800 + seed};
    a.edgeAdjust[0] = static_cast<int8_t>(-seed);
    a.edgeAdjust[1] = static_cast<int8_t>(seed);
    a.edgeAdjust[2] = 15;
    a.edgeAdjust[3] = -15;
    a.center = {static_cast<int16_t>(16384 + seed), static_cast<int16_t>(16384 - seed)};
    a.axisH = {static_cast<int16_t>(-16384 + seed), static_cast<int16_t>(seed)};
    a.axisV = {static_cast<int16_t>(-seed), static_cast<int16_t>(16384 - seed)};
    return a;
}

std::unique_ptr<_HARDWARE_DEV_CONFIG> FilledConfig(int fill) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), fill, sizeof(*config));
    return config;
}

}  // namespace cfgtest
