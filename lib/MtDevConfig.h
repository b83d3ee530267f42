// Device configuration: the record held in memory, the block a touch frame keeps in its flash,
// and the conversions between them.
//
// The block (little-endian) is a 28-byte header, the calibration areas (60 bytes each, stored
// as they are in memory), the 9-byte auxiliary records, then tagged records: a tag below 0x80
// has a one-byte length, a tag of 0x80 or more a two-byte length. Record 0x80 holds the button
// panels with their keys and a shared text area; record 0x81 a backup copy of an earlier block.
#pragma once

#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "configuration records are stored in the device's little-endian byte order");

constexpr int DEV_CONFIG_MAX_AREAS = 32;
constexpr int DEV_CONFIG_MAX_EXTRAS = 32;
constexpr int DEV_CONFIG_MAX_PANELS = 4;
constexpr int DEV_CONFIG_MAX_KEYS = 32;
constexpr int DEV_CONFIG_TEXT_CHARS = 32;       // 31 characters and a terminating zero
constexpr int DEV_CONFIG_BACKUP_BYTES = 2048;
constexpr int DEV_CONFIG_EXTRA_BYTES = 9;
constexpr uint8_t DEV_CONFIG_BLOCK_TAG = 0xB2;
constexpr int DEV_CONFIG_HEADER_BYTES = 28;
constexpr int DEV_CONFIG_DECODE_OK = 23980;      // DecodeDevConfig's success value
constexpr int DEV_CONFIG_OVERRIDE_BYTES = 18;

// Option bits of _HARDWARE_DEV_CONFIG::flags that this system reads.
constexpr uint32_t DEV_FLAG_AREAS_ENABLED = 0x800;      // calibrate through the areas
constexpr uint32_t DEV_FLAG_KEEP_OUTSIDE = 0x1000;      // keep contacts outside every area
constexpr uint32_t DEV_FLAG_PANELS_ENABLED = 0x400000;  // button panels in use
constexpr uint32_t DEV_FLAGS_DEFAULT = 0x101F05;
constexpr uint32_t DEV_FLAGS_DEFAULT_S = 0x305F05;      // product type "s"

// Key types (bits of _HARDWARE_KEY_CONFIG::type, tested in this order).
constexpr uint8_t KEY_TYPE_CODE = 0x01;     // three code bytes
constexpr uint8_t KEY_TYPE_TEXT2 = 0x02;    // a text with two numbers
constexpr uint8_t KEY_TYPE_TEXT3 = 0x04;    // a text with three numbers

// Index of edgeAdjust entries.
enum { EDGE_MINUS_X = 0, EDGE_PLUS_X = 1, EDGE_MINUS_Y = 2, EDGE_PLUS_Y = 3 };

#pragma pack(push, 1)

struct _HC_RECT32 {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
};

struct _HC_POINT16 {
    int16_t x;
    int16_t y;
};

struct _HK_RECT16 {
    uint16_t x;
    uint16_t y;
    uint16_t width;
    uint16_t height;
};

// One calibration area; stored unchanged in the block, so its layout is the wire format.
struct _HCRECT_CONFIG_FILE {
    uint32_t netAddress;     // network target (the default area copies the record's)
    uint16_t port;
    uint16_t port2;
    uint8_t mode;            // low byte of flags in the default area
    uint8_t id;              // area number, second byte of a contact's cell
    uint8_t group;           // first byte of a contact's cell
    uint8_t rotation;        // 0..3: none, 90, 180, 270 degrees; 4 or more is invalid
    _HC_RECT32 outputRect;   // rectangle HID values are normalised to
    _HC_RECT32 targetRect;   // rectangle the area maps onto
    int8_t edgeAdjust[4];    // minus X, plus X, minus Y, plus Y, logical units
    _HC_POINT16 center;      // normalised units (32767 = full raw extent)
    _HC_POINT16 axisH;       // horizontal half-axis vector
    _HC_POINT16 axisV;       // vertical half-axis vector
};

// One key of a button panel.
struct _HARDWARE_KEY_CONFIG {
    _HK_RECT16 rect;         // inside the panel
    uint8_t type;            // KEY_TYPE_*; none of the bits: an empty key
    uint8_t code0;           // type 0x01
    uint8_t code1;
    uint8_t code2;
    wchar_t text[DEV_CONFIG_TEXT_CHARS];  // types 0x02 and 0x04
    uint32_t keyValue1;      // types 0x02 and 0x04
    uint32_t keyValue2;      // types 0x02 and 0x04
    uint32_t keyValue3;      // type 0x04
};

// One button panel: a 24-byte head (stored unchanged in the block) and 32 key slots.
struct _HBRECT_CONFIG_FILE {
    uint8_t id;              // panel number, second byte of a contact's cell
    uint8_t reserved1;       // carried
    uint8_t rows;
    uint8_t columns;         // rows * columns keys in use, at most 32
    uint8_t reserved4[4];    // carried
    uint16_t width;          // the panel is used only when width and height are at least 50
    uint16_t height;
    _HC_POINT16 center;
    _HC_POINT16 axisH;
    _HC_POINT16 axisV;
    _HARDWARE_KEY_CONFIG keys[DEV_CONFIG_MAX_KEYS];
};

constexpr size_t HBRECT_HEAD_BYTES = 24;

// Key entry of a panel in the block (12 bytes).
struct _HB_KEY_ENTRY {
    uint8_t type;
    uint8_t code0OrTextBytes;   // code0, or the text's length in bytes with its zero unit
    uint8_t code2OrOffsetLo;    // code2 (swapped on purpose), or the text offset
    uint8_t code1OrOffsetHi;    // code1, or the text offset's high byte
    _HK_RECT16 rect;
};

// Header of a configuration block (28 bytes).
struct _HB_CONFIG_HEAD {
    uint16_t totalLength;
    uint8_t tag;              // DEV_CONFIG_BLOCK_TAG
    uint8_t option0;
    uint32_t flags;
    uint16_t reserved;        // written 0, not read
    uint8_t option2;
    uint8_t option3;
    uint16_t value0;
    uint16_t value1;
    uint32_t netAddress;
    uint16_t port;
    uint16_t port2;
    uint8_t option1;
    uint8_t areaCount;
    uint8_t extraCount;
    uint8_t panelCount;
};

// The short override block (18 bytes) written by EncodeDevConfigOverride.
struct _HB_CONFIG_OVERRIDE_BLOCK {
    uint16_t length;          // 18
    uint8_t tag;              // DEV_CONFIG_BLOCK_TAG
    uint8_t option1;
    uint8_t option2;
    uint8_t option3;
    uint16_t value0;
    uint16_t value1;
    uint32_t flags;
    int8_t edgeAdjust[4];     // of the first area
};

// The whole configuration of a device.
struct alignas(4) _HARDWARE_DEV_CONFIG {
    wchar_t text[DEV_CONFIG_TEXT_CHARS];  // record 3
    uint32_t textValue1;                  // record 3
    uint32_t textValue2;                  // record 3
    uint32_t flags;                       // DEV_FLAG_* and carried bits
    uint8_t option0;
    uint8_t option1;
    uint8_t option2;
    uint8_t option3;
    uint16_t value0;
    uint16_t value1;
    uint16_t rec1Value0;                  // record 1
    uint16_t rec1Value1;                  // record 1
    uint8_t rec1Byte;                     // record 1
    uint8_t rec4Byte;                     // record 4
    uint16_t rec2Value;                   // record 2
    uint32_t netAddress;
    uint16_t port;
    uint16_t port2;
    uint8_t areaCount;                    // valid areas, at most 32
    uint8_t extraCount;                   // valid extras, at most 32
    uint8_t panelCount;                   // valid panels, at most 4
    _HCRECT_CONFIG_FILE areas[DEV_CONFIG_MAX_AREAS];
    uint8_t extras[DEV_CONFIG_MAX_EXTRAS][DEV_CONFIG_EXTRA_BYTES];  // carried unchanged
    _HBRECT_CONFIG_FILE panels[DEV_CONFIG_MAX_PANELS];
    uint8_t backup[DEV_CONFIG_BACKUP_BYTES];  // an earlier block (record 0x81)
    uint16_t backupLength;                // 0 when there is none
};

struct _HARDWARE_CONFIG_OVERRIDE {
    uint32_t flags;
    uint8_t option1;
    uint8_t option2;
    uint8_t option3;
    uint16_t value0;
    uint16_t value1;
    int8_t edgeAdjust[4];
};

#pragma pack(pop)

static_assert(sizeof(_HC_RECT32) == 16);
static_assert(sizeof(_HCRECT_CONFIG_FILE) == 60);
static_assert(offsetof(_HCRECT_CONFIG_FILE, rotation) == 11);
static_assert(offsetof(_HCRECT_CONFIG_FILE, outputRect) == 12);
static_assert(offsetof(_HCRECT_CONFIG_FILE, targetRect) == 28);
static_assert(offsetof(_HCRECT_CONFIG_FILE, edgeAdjust) == 44);
static_assert(offsetof(_HCRECT_CONFIG_FILE, center) == 48);
static_assert(offsetof(_HCRECT_CONFIG_FILE, axisH) == 52);
static_assert(offsetof(_HCRECT_CONFIG_FILE, axisV) == 56);
static_assert(offsetof(_HBRECT_CONFIG_FILE, width) == 8);
static_assert(offsetof(_HBRECT_CONFIG_FILE, center) == 12);
static_assert(offsetof(_HBRECT_CONFIG_FILE, keys) == HBRECT_HEAD_BYTES);
static_assert(sizeof(_HB_KEY_ENTRY) == 12);
static_assert(sizeof(_HB_CONFIG_HEAD) == DEV_CONFIG_HEADER_BYTES);
static_assert(offsetof(_HB_CONFIG_HEAD, option1) == 24);
static_assert(sizeof(_HB_CONFIG_OVERRIDE_BLOCK) == DEV_CONFIG_OVERRIDE_BYTES);
static_assert(offsetof(_HB_CONFIG_OVERRIDE_BLOCK, flags) == 10);
static_assert(sizeof(wchar_t) == 4, "key and record texts are 32-bit wide characters");
static_assert(sizeof(_HARDWARE_KEY_CONFIG) == 152);
static_assert(sizeof(_HARDWARE_DEV_CONFIG) == DEV_CONFIG_DECODE_OK,
              "the decoder's success value is the size of the record");

// Block to record. With a null config: the block's declared total length (after the tag
// check), so a caller can read 4 bytes first. With a config: DEV_CONFIG_DECODE_OK on success.
// 0: not a configuration block (tag byte wrong); -1: too short or out of bounds.
int DecodeDevConfig(const uint8_t* block, int length, _HARDWARE_DEV_CONFIG* config);

// Record to block. Returns the block's length; with a null out it only computes the length.
int EncodeDevConfig(const _HARDWARE_DEV_CONFIG* config, uint8_t* out);

// True when the key has no text of its own to store: a code key, or a key whose text equals
// that of an earlier text key (panel-and-key order). Later keys are not looked at.
bool CmpKeyString(const _HARDWARE_DEV_CONFIG* config, const _HARDWARE_KEY_CONFIG* key);

// First even offset at which pattern occurs in area, or -1.
int GetStringFile(const uint8_t* area, int areaLength, const uint8_t* pattern, int patternLength);

void DefaultDevConfig(uint8_t productType, uint32_t unused, _HARDWARE_DEV_CONFIG* config);
void DefaultDevCalConfig(uint8_t productType, uint32_t unused, _HARDWARE_DEV_CONFIG* config);

int BackupDevConfig(_HARDWARE_DEV_CONFIG* config);   // backup length, or -1
int RecoverDevConfig(_HARDWARE_DEV_CONFIG* config);  // as DecodeDevConfig, or -1

void GetDevConfigOverride(const _HARDWARE_DEV_CONFIG* config, _HARDWARE_CONFIG_OVERRIDE* override);
int EncodeDevConfigOverride(const _HARDWARE_CONFIG_OVERRIDE* override, uint8_t* out);  // 18

// Compares two records on everything a block carries, so that a record and the record decoded
// from its encoding agree: the general fields, the areas, extras and panels in use, for each key
// in use the fields of its type, texts as their 16-bit code units, and a backup of 1 to 2047
// bytes. Null when they agree, else the name of the first field that differs.
const char* DevConfigFirstDifference(const _HARDWARE_DEV_CONFIG* a, const _HARDWARE_DEV_CONFIG* b);
