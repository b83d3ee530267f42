#include "MtDevConfig.h"

#include "LittleEndian.h"
#include "TWideString.h"

#include <algorithm>
#include <cstring>

// Block bytes come from the device and are untrusted: every read below is checked against the
// block's length (or against the enclosing record's length, itself inside the block) first.
//
// Texts of keys and of the record itself live in byte-packed structures, so they are copied
// element by element through their members and never handed around as wchar_t pointers.

namespace {

static_assert(sizeof(unsigned short) == 2);
static_assert(DEV_CONFIG_TEXT_CHARS == TWIDE_TEXT_CHARS);

constexpr int AREA_BYTES = static_cast<int>(sizeof(_HCRECT_CONFIG_FILE));
constexpr int KEY_ENTRY_BYTES = static_cast<int>(sizeof(_HB_KEY_ENTRY));
constexpr int PANEL_HEAD_BYTES = static_cast<int>(HBRECT_HEAD_BYTES);
constexpr int MAX_KEY_TEXT_BYTES = 2 * DEV_CONFIG_TEXT_CHARS;  // 31 units and the zero unit
constexpr int MAX_BACKUP_WRITTEN = DEV_CONFIG_BACKUP_BYTES - 1;  // 0x81 holds 1..2047 bytes

constexpr uint8_t TAG_REC1 = 0x01;
constexpr uint8_t TAG_REC2 = 0x02;
constexpr uint8_t TAG_TEXT = 0x03;
constexpr uint8_t TAG_REC4 = 0x04;
constexpr uint8_t TAG_PANELS = 0x80;
constexpr uint8_t TAG_BACKUP = 0x81;

enum class KeyKind { Code, Text2, Text3, None };

// The type bits are tested in this order: a key with bits 0x01 and 0x02 is a code key.
KeyKind KindOf(uint8_t type) {
    if (type & KEY_TYPE_CODE) return KeyKind::Code;
    if (type & KEY_TYPE_TEXT2) return KeyKind::Text2;
    if (type & KEY_TYPE_TEXT3) return KeyKind::Text3;
    return KeyKind::None;
}

bool IsTextKind(KeyKind kind) { return kind == KeyKind::Text2 || kind == KeyKind::Text3; }

int NumberBytes(KeyKind kind) {
    return kind == KeyKind::Text2 ? 8 : kind == KeyKind::Text3 ? 12 : 0;
}

// A text as plain, aligned wide characters (zero-filled after its end).
struct WideText {
    wchar_t chars[DEV_CONFIG_TEXT_CHARS] = {};
};

WideText LoadKeyText(const _HARDWARE_KEY_CONFIG& key) {
    WideText t;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) t.chars[i] = key.text[i];
    return t;
}

WideText LoadRecordText(const _HARDWARE_DEV_CONFIG& config) {
    WideText t;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) t.chars[i] = config.text[i];
    return t;
}

void StoreKeyText(_HARDWARE_KEY_CONFIG& key, const WideText& t) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) key.text[i] = t.chars[i];
}

void StoreRecordText(_HARDWARE_DEV_CONFIG& config, const WideText& t) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) config.text[i] = t.chars[i];
}

// Converts the code units stored at `bytes` (at most `maxUnits` of them) up to the first zero.
WideText TextFromUnits(const uint8_t* bytes, int maxUnits) {
    unsigned short units[DEV_CONFIG_TEXT_CHARS] = {};
    const int n = std::clamp(maxUnits, 0, DEV_CONFIG_TEXT_CHARS);
    if (n > 0) std::memcpy(units, bytes, static_cast<size_t>(n) * 2);  // little-endian host
    WideText t;
    TUnsigendShortToWcs(t.chars, units, n);
    return t;
}

// A text as it is stored in a block: its code units followed by one zero unit.
struct UnitText {
    unsigned short units[DEV_CONFIG_TEXT_CHARS] = {};
    int length = 0;  // units before the zero
    int Bytes() const { return 2 * (length + 1); }
    const uint8_t* Data() const { return reinterpret_cast<const uint8_t*>(units); }
};

UnitText ToUnits(const WideText& t) {
    UnitText u;
    u.length = TWcsToUnsignedShort(u.units, t.chars, DEV_CONFIG_TEXT_CHARS);
    return u;
}

int PanelsInUse(const _HARDWARE_DEV_CONFIG& config) {
    return std::min<int>(config.panelCount, DEV_CONFIG_MAX_PANELS);
}

int KeysInUse(const _HBRECT_CONFIG_FILE& panel) {
    return std::min(panel.rows * panel.columns, DEV_CONFIG_MAX_KEYS);
}

// ---------------------------------------------------------------------------------------------
// Decoding

// Record 0x03: two numbers and a text of 1 to 31 units. Any other text leaves `text` as it was.
void DecodeTextRecord(const uint8_t* content, int length, _HARDWARE_DEV_CONFIG& config) {
    if (length < 9) return;
    config.textValue1 = ReadLeU32(content);
    config.textValue2 = ReadLeU32(content + 4);
    // Only whether the text has 1 to 31 units matters, so at most 32 units are looked at.
    const int units = std::min((length - 8) / 2, DEV_CONFIG_TEXT_CHARS);
    unsigned short copy[DEV_CONFIG_TEXT_CHARS] = {};  // the block's units are not aligned
    std::memcpy(copy, content + 8, static_cast<size_t>(units) * 2);
    const int n = TUnsignedShortLength(copy, units);
    if (n < 1 || n > TWIDE_TEXT_MAX_CHARS) return;
    StoreRecordText(config, TextFromUnits(content + 8, n));
}

// Reads the keys of one panel that passed its size checks. `panel` is the panel's bytes inside
// the record (E of them), `textArea` the record's text area (S bytes).
void DecodeKeys(const uint8_t* panelBytes, int panelLength, int keys, const uint8_t* textArea,
                int textAreaLength, _HBRECT_CONFIG_FILE& panel) {
    int numbers = PANEL_HEAD_BYTES + KEY_ENTRY_BYTES * keys;  // the key numbers follow the entries
    for (int j = 0; j < keys; ++j) {
        const uint8_t* entry = panelBytes + PANEL_HEAD_BYTES + KEY_ENTRY_BYTES * j;
        _HARDWARE_KEY_CONFIG& key = panel.keys[j];
        key.rect.x = ReadLeU16(entry + 4);
        key.rect.y = ReadLeU16(entry + 6);
        key.rect.width = ReadLeU16(entry + 8);
        key.rect.height = ReadLeU16(entry + 10);
        key.type = entry[0];
        const KeyKind kind = KindOf(key.type);
        if (kind == KeyKind::Code) {
            key.code0 = entry[1];
            key.code2 = entry[2];  // stored swapped on purpose
            key.code1 = entry[3];
            continue;
        }
        if (!IsTextKind(kind)) continue;

        const int need = NumberBytes(kind);
        const int textBytes = entry[1];
        const int textOffset = ReadLeU16(entry + 2);
        if (panelLength - numbers < need || textBytes > MAX_KEY_TEXT_BYTES ||
            textOffset + textBytes > textAreaLength) {
            panel.rows = 0;
            panel.columns = 0;
            return;
        }
        if (kind == KeyKind::Text2) {
            key.keyValue1 = ReadLeU32(panelBytes + numbers);
            key.keyValue2 = ReadLeU32(panelBytes + numbers + 4);
        } else {
            key.keyValue3 = ReadLeU32(panelBytes + numbers);
            key.keyValue1 = ReadLeU32(panelBytes + numbers + 4);
            key.keyValue2 = ReadLeU32(panelBytes + numbers + 8);
        }
        numbers += need;
        // The entry's length would only bound the search for the zero unit; the text is taken up
        // to its zero unit, 31 characters, or the end of the text area, whichever comes first.
        StoreKeyText(key, TextFromUnits(textArea + textOffset, (textAreaLength - textOffset) / 2));
    }
}

// Record 0x80. `content` is the record after its length field (`length` bytes, all inside the
// block); `headerPanels` is nP from the block's header.
void ReadPanels(const uint8_t* content, int length, int headerPanels,
                _HARDWARE_DEV_CONFIG& config, int64_t& count) {
    count = 4 * config.panelCount + 4;
    if (count > length) return;
    const int textAreaOffset = ReadLeU16(content);      // A, counted from `content`
    const int textAreaLength = ReadLeU16(content + 2);  // S
    if (textAreaOffset + textAreaLength > length || headerPanels == 0) return;
    const uint8_t* textArea = content + textAreaOffset;

    for (int i = 0; i < headerPanels; ++i) {
        const int index = 4 + 4 * i;
        if (index + 4 > length) return;  // the index itself runs past the record
        const int offset = ReadLeU16(content + index);    // O
        const int size = ReadLeU16(content + index + 2);  // E
        if (size < PANEL_HEAD_BYTES || offset + size > length) return;

        const uint8_t* panelBytes = content + offset;
        _HBRECT_CONFIG_FILE& panel = config.panels[i];
        std::memcpy(&panel, panelBytes, HBRECT_HEAD_BYTES);  // copied before it is checked
        const int keys = panel.rows * panel.columns;
        if (keys > DEV_CONFIG_MAX_KEYS) return;
        count = KEY_ENTRY_BYTES * keys;
        if (size - PANEL_HEAD_BYTES < KEY_ENTRY_BYTES * keys) return;
        if (config.panelCount < DEV_CONFIG_MAX_PANELS) ++config.panelCount;
        DecodeKeys(panelBytes, size, keys, textArea, textAreaLength, panel);
    }
}

void DecodePanelRecord(const uint8_t* content, int length, int headerPanels,
                       _HARDWARE_DEV_CONFIG& config, int64_t& count) {
    ReadPanels(content, length, headerPanels, config, count);
    // A repeated 0x80 record fills the slots from the first again while the count goes on
    // rising, so a counted slot may hold a head that failed its checks, or whatever the record
    // held before. No counted panel may claim more keys than it has slots.
    for (int p = 0; p < config.panelCount; ++p) {
        _HBRECT_CONFIG_FILE& panel = config.panels[p];
        if (panel.rows * panel.columns > DEV_CONFIG_MAX_KEYS) panel.rows = panel.columns = 0;
    }
}

// ---------------------------------------------------------------------------------------------
// Encoding

// What the encoder decided about every key in use: whether its text is stored in the text area.
struct EncodePlan {
    int areas = 0;
    int extras = 0;
    int panels = 0;
    bool rec1 = false;
    bool rec4 = false;
    bool rec2 = false;
    bool rec3 = false;
    UnitText text;
    bool ownText[DEV_CONFIG_MAX_PANELS][DEV_CONFIG_MAX_KEYS] = {};
    UnitText keyText[DEV_CONFIG_MAX_PANELS][DEV_CONFIG_MAX_KEYS];
    int textAreaBytes = 0;
    int length = 0;
};

void Plan(const _HARDWARE_DEV_CONFIG& config, EncodePlan& plan) {
    plan.areas = std::min<int>(config.areaCount, DEV_CONFIG_MAX_AREAS);
    plan.extras = std::min<int>(config.extraCount, DEV_CONFIG_MAX_EXTRAS);
    plan.panels = PanelsInUse(config);
    int length = DEV_CONFIG_HEADER_BYTES + AREA_BYTES * plan.areas +
                 DEV_CONFIG_EXTRA_BYTES * plan.extras;

    plan.rec1 = config.rec1Byte != 0 || config.rec1Value0 != 0 || config.rec1Value1 != 0;
    plan.rec4 = config.rec4Byte != 0;
    plan.rec2 = config.rec2Value != 0;
    plan.text = ToUnits(LoadRecordText(config));
    plan.rec3 = plan.text.length != 0 || config.textValue1 != 0 || config.textValue2 != 0;
    if (plan.rec1) length += 7;
    if (plan.rec4) length += 3;
    if (plan.rec2) length += 4;
    if (plan.rec3) length += 10 + plan.text.Bytes();

    plan.textAreaBytes = 0;
    if (config.panelCount != 0) {
        length += 4 * plan.panels + 7;
        for (int p = 0; p < plan.panels; ++p) {
            const _HBRECT_CONFIG_FILE& panel = config.panels[p];
            const int keys = KeysInUse(panel);
            length += PANEL_HEAD_BYTES + KEY_ENTRY_BYTES * keys;
            for (int k = 0; k < keys; ++k) {
                const _HARDWARE_KEY_CONFIG& key = panel.keys[k];
                const KeyKind kind = KindOf(key.type);
                if (!IsTextKind(kind)) continue;
                length += NumberBytes(kind);
                plan.keyText[p][k] = ToUnits(LoadKeyText(key));
                plan.ownText[p][k] =
                    plan.keyText[p][k].length != 0 && !CmpKeyString(&config, &key);
                if (plan.ownText[p][k]) plan.textAreaBytes += plan.keyText[p][k].Bytes();
            }
        }
        length += plan.textAreaBytes;
    }
    // Counted even above 2047 bytes, when the record itself is not written.
    if (config.backupLength != 0) length += config.backupLength + 3;
    plan.length = length;
}

// Writes record 0x80 at `out`; returns its size.
int WritePanelRecord(const _HARDWARE_DEV_CONFIG& config, const EncodePlan& plan, uint8_t* out) {
    out[0] = TAG_PANELS;
    uint8_t* content = out + 3;
    const int textAreaOffset = 4 * plan.panels + 4;
    WriteLeU16(content, static_cast<uint32_t>(textAreaOffset));
    WriteLeU16(content + 2, static_cast<uint32_t>(plan.textAreaBytes));

    uint8_t* textArea = content + textAreaOffset;
    int textEnd = 0;
    for (int p = 0; p < plan.panels; ++p) {
        for (int k = 0; k < KeysInUse(config.panels[p]); ++k) {
            if (!plan.ownText[p][k]) continue;
            const UnitText& t = plan.keyText[p][k];
            std::memcpy(textArea + textEnd, t.Data(), static_cast<size_t>(t.Bytes()));
            textEnd += t.Bytes();
        }
    }

    int offset = textAreaOffset + plan.textAreaBytes;  // O of the next panel
    for (int p = 0; p < plan.panels; ++p) {
        const _HBRECT_CONFIG_FILE& panel = config.panels[p];
        const int keys = KeysInUse(panel);
        uint8_t* panelBytes = content + offset;
        std::memcpy(panelBytes, &panel, HBRECT_HEAD_BYTES);
        int numbers = PANEL_HEAD_BYTES + KEY_ENTRY_BYTES * keys;
        for (int k = 0; k < keys; ++k) {
            const _HARDWARE_KEY_CONFIG& key = panel.keys[k];
            uint8_t* entry = panelBytes + PANEL_HEAD_BYTES + KEY_ENTRY_BYTES * k;
            entry[0] = key.type;
            WriteLeU16(entry + 4, key.rect.x);
            WriteLeU16(entry + 6, key.rect.y);
            WriteLeU16(entry + 8, key.rect.width);
            WriteLeU16(entry + 10, key.rect.height);
            const KeyKind kind = KindOf(key.type);
            if (kind == KeyKind::Code) {
                entry[1] = key.code0;
                entry[2] = key.code2;  // swapped on purpose
                entry[3] = key.code1;
                continue;
            }
            if (!IsTextKind(kind)) continue;  // bytes 1 to 3 are left as they were

            const UnitText& t = plan.keyText[p][k];
            const int found = GetStringFile(textArea, plan.textAreaBytes, t.Data(), t.Bytes());
            entry[1] = found >= 0 && t.length != 0 ? static_cast<uint8_t>(t.Bytes()) : 0;
            WriteLeU16(entry + 2, found >= 0 ? static_cast<uint32_t>(found) : 0);
            if (kind == KeyKind::Text2) {
                WriteLeU32(panelBytes + numbers, key.keyValue1);
                WriteLeU32(panelBytes + numbers + 4, key.keyValue2);
            } else {
                WriteLeU32(panelBytes + numbers, key.keyValue3);
                WriteLeU32(panelBytes + numbers + 4, key.keyValue1);
                WriteLeU32(panelBytes + numbers + 8, key.keyValue2);
            }
            numbers += NumberBytes(kind);
        }
        WriteLeU16(content + 4 + 4 * p, static_cast<uint32_t>(offset));
        WriteLeU16(content + 4 + 4 * p + 2, static_cast<uint32_t>(numbers));
        offset += numbers;
    }
    WriteLeU16(out + 1, static_cast<uint32_t>(offset));
    return offset + 3;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

int DecodeDevConfig(const uint8_t* block, int length, _HARDWARE_DEV_CONFIG* config) {
    if (block == nullptr || length < 3) return -1;
    if (block[2] != DEV_CONFIG_BLOCK_TAG) return 0;
    const int total = ReadLeU16(block);
    if (total < 4) return -1;
    if (config == nullptr) return total;

    if (length < DEV_CONFIG_HEADER_BYTES) return -1;
    const int areas = block[25];
    const int extras = block[26];
    const int panels = block[27];
    if (areas > DEV_CONFIG_MAX_AREAS || extras > DEV_CONFIG_MAX_EXTRAS ||
        panels > DEV_CONFIG_MAX_PANELS) {
        return -1;
    }
    const int fixed = DEV_CONFIG_HEADER_BYTES + AREA_BYTES * areas + DEV_CONFIG_EXTRA_BYTES * extras;
    if (fixed > length) return -1;

    _HARDWARE_DEV_CONFIG& c = *config;
    c.option0 = block[3];
    c.flags = ReadLeU32(block + 4);
    c.option2 = block[10];
    c.option3 = block[11];
    c.value0 = ReadLeU16(block + 12);
    c.value1 = ReadLeU16(block + 14);
    c.netAddress = ReadLeU32(block + 16);
    c.port = ReadLeU16(block + 20);
    c.port2 = ReadLeU16(block + 22);
    c.option1 = block[24];
    c.areaCount = static_cast<uint8_t>(areas);
    c.extraCount = static_cast<uint8_t>(extras);
    c.panelCount = 0;  // counts the panels actually read
    c.rec1Value0 = 0;
    c.rec1Value1 = 0;
    c.rec1Byte = 0;
    c.rec4Byte = 0;
    c.rec2Value = 0;
    std::memcpy(c.areas, block + DEV_CONFIG_HEADER_BYTES, static_cast<size_t>(AREA_BYTES * areas));
    std::memcpy(c.extras, block + DEV_CONFIG_HEADER_BYTES + AREA_BYTES * areas,
                static_cast<size_t>(DEV_CONFIG_EXTRA_BYTES * extras));

    // The running count is not the byte position: it leaves out the fixed part and every
    // record's tag and length, and record 0x80 resets it. Devices rely on where it stops the
    // reading, so it is kept; the position is checked separately so that an undercount can
    // never take the reader past the block.
    int64_t count = extras != 0 ? DEV_CONFIG_EXTRA_BYTES * extras
                    : areas != 0 ? AREA_BYTES * areas
                                 : DEV_CONFIG_HEADER_BYTES;
    if (count + 2 >= length) return DEV_CONFIG_DECODE_OK;

    int pos = fixed;
    for (;;) {
        if (length - pos < 2) return DEV_CONFIG_DECODE_OK;  // no room for a tag and a length
        const uint8_t tag = block[pos];
        const int headBytes = tag < 0x80 ? 2 : 3;
        if (length - pos < headBytes) return DEV_CONFIG_DECODE_OK;
        const int recordLength = tag < 0x80 ? block[pos + 1] : ReadLeU16(block + pos + 1);
        count += recordLength;
        if (count >= length) return DEV_CONFIG_DECODE_OK;
        if (length - pos - headBytes < recordLength) return DEV_CONFIG_DECODE_OK;  // cut short
        const uint8_t* content = block + pos + headBytes;

        switch (tag) {
            case TAG_REC1:
                if (recordLength == 5) {
                    c.rec1Byte = content[0];
                    c.rec1Value0 = ReadLeU16(content + 1);
                    c.rec1Value1 = ReadLeU16(content + 3);
                }
                break;
            case TAG_REC2:
                if (recordLength == 2) c.rec2Value = ReadLeU16(content);
                break;
            case TAG_REC4:
                if (recordLength == 1) c.rec4Byte = content[0];
                break;
            case TAG_TEXT:
                DecodeTextRecord(content, recordLength, c);
                break;
            case TAG_PANELS:
                DecodePanelRecord(content, recordLength, panels, c, count);
                break;
            case TAG_BACKUP:
                if (recordLength >= 1 && recordLength <= MAX_BACKUP_WRITTEN) {
                    c.backupLength = static_cast<uint16_t>(recordLength);
                    std::memmove(c.backup, content, static_cast<size_t>(recordLength));
                }
                break;
            default:
                break;
        }

        pos += headBytes + recordLength;
        if (count + 2 >= length) return DEV_CONFIG_DECODE_OK;
    }
}

int EncodeDevConfig(const _HARDWARE_DEV_CONFIG* config, uint8_t* out) {
    if (config == nullptr) return 0;
    EncodePlan plan;
    Plan(*config, plan);
    if (out == nullptr) return plan.length;

    const _HARDWARE_DEV_CONFIG& c = *config;
    WriteLeU16(out, static_cast<uint32_t>(plan.length));
    out[2] = DEV_CONFIG_BLOCK_TAG;
    out[3] = c.option0;
    WriteLeU32(out + 4, c.flags);
    WriteLeU16(out + 8, 0);
    out[10] = c.option2;
    out[11] = c.option3;
    WriteLeU16(out + 12, c.value0);
    WriteLeU16(out + 14, c.value1);
    WriteLeU32(out + 16, c.netAddress);
    WriteLeU16(out + 20, c.port);
    WriteLeU16(out + 22, c.port2);
    out[24] = c.option1;
    out[25] = static_cast<uint8_t>(plan.areas);
    out[26] = static_cast<uint8_t>(plan.extras);
    out[27] = static_cast<uint8_t>(plan.panels);
    int pos = DEV_CONFIG_HEADER_BYTES;
    std::memcpy(out + pos, c.areas, static_cast<size_t>(AREA_BYTES * plan.areas));
    pos += AREA_BYTES * plan.areas;
    std::memcpy(out + pos, c.extras, static_cast<size_t>(DEV_CONFIG_EXTRA_BYTES * plan.extras));
    pos += DEV_CONFIG_EXTRA_BYTES * plan.extras;

    if (plan.rec1) {
        out[pos] = TAG_REC1;
        out[pos + 1] = 5;
        out[pos + 2] = c.rec1Byte;
        WriteLeU16(out + pos + 3, c.rec1Value0);
        WriteLeU16(out + pos + 5, c.rec1Value1);
        pos += 7;
    }
    if (plan.rec4) {
        out[pos] = TAG_REC4;
        out[pos + 1] = 1;
        out[pos + 2] = c.rec4Byte;
        pos += 3;
    }
    if (plan.rec2) {
        out[pos] = TAG_REC2;
        out[pos + 1] = 2;
        WriteLeU16(out + pos + 2, c.rec2Value);
        pos += 4;
    }
    if (plan.rec3) {
        out[pos] = TAG_TEXT;
        out[pos + 1] = static_cast<uint8_t>(8 + plan.text.Bytes());
        WriteLeU32(out + pos + 2, c.textValue1);
        WriteLeU32(out + pos + 6, c.textValue2);
        std::memcpy(out + pos + 10, plan.text.Data(), static_cast<size_t>(plan.text.Bytes()));
        pos += 10 + plan.text.Bytes();
    }
    if (c.panelCount != 0) pos += WritePanelRecord(c, plan, out + pos);
    if (c.backupLength != 0 && c.backupLength <= MAX_BACKUP_WRITTEN) {
        out[pos] = TAG_BACKUP;
        WriteLeU16(out + pos + 1, c.backupLength);
        std::memcpy(out + pos + 3, c.backup, c.backupLength);
    }
    return plan.length;
}

bool CmpKeyString(const _HARDWARE_DEV_CONFIG* config, const _HARDWARE_KEY_CONFIG* key) {
    if (KindOf(key->type) == KeyKind::Code) return true;
    const WideText text = LoadKeyText(*key);
    const int length = TWcsTextLength(text.chars, DEV_CONFIG_TEXT_CHARS);
    for (int p = 0; p < PanelsInUse(*config); ++p) {
        const _HBRECT_CONFIG_FILE& panel = config->panels[p];
        for (int k = 0; k < KeysInUse(panel); ++k) {
            const _HARDWARE_KEY_CONFIG& other = panel.keys[k];
            if (&other == key) return false;  // later keys are not looked at
            if (!IsTextKind(KindOf(other.type))) continue;
            int i = 0;
            while (i < length && other.text[i] == text.chars[i]) ++i;
            if (i == length && (length == TWIDE_TEXT_MAX_CHARS || other.text[length] == 0)) {
                return true;
            }
        }
    }
    return false;
}

int GetStringFile(const uint8_t* area, int areaLength, const uint8_t* pattern, int patternLength) {
    if (area == nullptr || pattern == nullptr || patternLength < 0) return -1;
    const size_t bytes = static_cast<size_t>(patternLength);
    for (int offset = 0; offset + 2 <= areaLength && offset + patternLength <= areaLength;
         offset += 2) {
        if (bytes == 0 || (area[offset] == pattern[0] &&
                           std::memcmp(area + offset, pattern, bytes) == 0)) {
            return offset;
        }
    }
    return -1;
}

void DefaultDevConfig(uint8_t productType, uint32_t /*unused*/, _HARDWARE_DEV_CONFIG* config) {
    std::memset(static_cast<void*>(config), 0, sizeof(*config));
    config->flags = DEV_FLAGS_DEFAULT;
    if (productType == 's' || productType == 'S') {
        config->flags = DEV_FLAGS_DEFAULT_S;
        config->rec2Value = 16;
    }
    config->option0 = 1;
    config->option1 = 255;
    config->option2 = 0;
    config->option3 = 0;
    config->value0 = 2500;
    config->netAddress = 0x7F000001;  // 127.0.0.1
    config->port = 3333;
    config->port2 = 3000;
}

void DefaultDevCalConfig(uint8_t /*productType*/, uint32_t /*unused*/,
                         _HARDWARE_DEV_CONFIG* config) {
    config->areaCount = 1;
    _HCRECT_CONFIG_FILE& area = config->areas[0];
    area.netAddress = config->netAddress;
    area.port = config->port;
    area.port2 = config->port2;
    area.mode = static_cast<uint8_t>(config->flags & 0xFF);
    area.id = 0;
    area.group = 0;
    area.rotation = 0;
    area.outputRect = {0, 0, 1920, 1080};
    area.targetRect = {0, 0, 1920, 1080};
    for (int8_t& edge : area.edgeAdjust) edge = 15;
    area.center = {16384, 16384};
    area.axisH = {-16384, 0};
    area.axisV = {0, 16384};
}

int BackupDevConfig(_HARDWARE_DEV_CONFIG* config) {
    config->backupLength = 0;
    const int length = EncodeDevConfig(config, nullptr);
    if (length == 0 || length > MAX_BACKUP_WRITTEN) return -1;
    EncodeDevConfig(config, config->backup);
    config->backupLength = static_cast<uint16_t>(length);
    return length;
}

int RecoverDevConfig(_HARDWARE_DEV_CONFIG* config) {
    if (config->backupLength == 0 || config->backupLength > MAX_BACKUP_WRITTEN) return -1;
    // Decoded from a copy: the block may itself hold a backup record that lands in `backup`.
    uint8_t block[DEV_CONFIG_BACKUP_BYTES];
    const int length = config->backupLength;
    std::memcpy(block, config->backup, static_cast<size_t>(length));
    return DecodeDevConfig(block, length, config);
}

void GetDevConfigOverride(const _HARDWARE_DEV_CONFIG* config,
                          _HARDWARE_CONFIG_OVERRIDE* override) {
    override->flags = config->flags;
    override->option1 = config->option1;
    override->option2 = config->option2;
    override->option3 = config->option3;
    override->value0 = config->value0;
    override->value1 = config->value1;
    for (int i = 0; i < 4; ++i) {
        override->edgeAdjust[i] = config->areaCount != 0 ? config->areas[0].edgeAdjust[i] : 0;
    }
}

int EncodeDevConfigOverride(const _HARDWARE_CONFIG_OVERRIDE* override, uint8_t* out) {
    if (out != nullptr) {
        WriteLeU16(out, DEV_CONFIG_OVERRIDE_BYTES);
        out[2] = DEV_CONFIG_BLOCK_TAG;
        out[3] = override->option1;
        out[4] = override->option2;
        out[5] = override->option3;
        WriteLeU16(out + 6, override->value0);
        WriteLeU16(out + 8, override->value1);
        WriteLeU32(out + 10, override->flags);
        for (int i = 0; i < 4; ++i) out[14 + i] = static_cast<uint8_t>(override->edgeAdjust[i]);
    }
    return DEV_CONFIG_OVERRIDE_BYTES;
}

namespace {

bool SameUnits(const WideText& a, const WideText& b) {
    const UnitText ua = ToUnits(a);
    const UnitText ub = ToUnits(b);
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        if (ua.units[i] != ub.units[i]) return false;
        if (ua.units[i] == 0) return true;
    }
    return true;
}

int CarriedBackup(const _HARDWARE_DEV_CONFIG& c) {
    return c.backupLength <= MAX_BACKUP_WRITTEN ? c.backupLength : 0;
}

const char* KeyDifference(const _HARDWARE_KEY_CONFIG& a, const _HARDWARE_KEY_CONFIG& b) {
    if (a.type != b.type) return "key type";
    if (a.rect.x != b.rect.x || a.rect.y != b.rect.y || a.rect.width != b.rect.width ||
        a.rect.height != b.rect.height) {
        return "key rect";
    }
    switch (KindOf(a.type)) {
        case KeyKind::Code:
            if (a.code0 != b.code0 || a.code1 != b.code1 || a.code2 != b.code2) return "key code";
            return nullptr;
        case KeyKind::Text3:
            if (a.keyValue3 != b.keyValue3) return "keyValue3";
            [[fallthrough]];
        case KeyKind::Text2:
            if (a.keyValue1 != b.keyValue1) return "keyValue1";
            if (a.keyValue2 != b.keyValue2) return "keyValue2";
            if (!SameUnits(LoadKeyText(a), LoadKeyText(b))) return "key text";
            return nullptr;
        case KeyKind::None:
            return nullptr;
    }
    return nullptr;
}

}  // namespace

const char* DevConfigFirstDifference(const _HARDWARE_DEV_CONFIG* a,
                                     const _HARDWARE_DEV_CONFIG* b) {
#define IRFRAME_SAME(field) \
    if (a->field != b->field) return #field
    if (!SameUnits(LoadRecordText(*a), LoadRecordText(*b))) return "text";
    IRFRAME_SAME(textValue1);
    IRFRAME_SAME(textValue2);
    IRFRAME_SAME(flags);
    IRFRAME_SAME(option0);
    IRFRAME_SAME(option1);
    IRFRAME_SAME(option2);
    IRFRAME_SAME(option3);
    IRFRAME_SAME(value0);
    IRFRAME_SAME(value1);
    IRFRAME_SAME(rec1Value0);
    IRFRAME_SAME(rec1Value1);
    IRFRAME_SAME(rec1Byte);
    IRFRAME_SAME(rec4Byte);
    IRFRAME_SAME(rec2Value);
    IRFRAME_SAME(netAddress);
    IRFRAME_SAME(port);
    IRFRAME_SAME(port2);
    IRFRAME_SAME(areaCount);
    IRFRAME_SAME(extraCount);
    IRFRAME_SAME(panelCount);
#undef IRFRAME_SAME
    const int areas = std::min<int>(a->areaCount, DEV_CONFIG_MAX_AREAS);
    if (std::memcmp(a->areas, b->areas, static_cast<size_t>(AREA_BYTES * areas)) != 0) {
        return "areas";
    }
    const int extras = std::min<int>(a->extraCount, DEV_CONFIG_MAX_EXTRAS);
    if (std::memcmp(a->extras, b->extras, static_cast<size_t>(DEV_CONFIG_EXTRA_BYTES * extras)) !=
        0) {
        return "extras";
    }
    for (int p = 0; p < PanelsInUse(*a); ++p) {
        const _HBRECT_CONFIG_FILE& pa = a->panels[p];
        const _HBRECT_CONFIG_FILE& pb = b->panels[p];
        if (std::memcmp(&pa, &pb, HBRECT_HEAD_BYTES) != 0) return "panel head";
        for (int k = 0; k < KeysInUse(pa); ++k) {
            if (const char* what = KeyDifference(pa.keys[k], pb.keys[k])) return what;
        }
    }
    if (CarriedBackup(*a) != CarriedBackup(*b)) return "backupLength";
    if (std::memcmp(a->backup, b->backup, static_cast<size_t>(CarriedBackup(*a))) != 0) {
        return "backup";
    }
    return nullptr;
}
