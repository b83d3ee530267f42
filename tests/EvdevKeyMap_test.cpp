#include "EvdevKeyMap.h"

#include "CTouchPointDeal.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <algorithm>

namespace {

struct TNamedKey {
    const char* name;
    uint16_t evdev;
};

// Every real key of the key-name table, by name, with the PC key at the same place.
const TNamedKey kKeyNames[] = {
    {"a", KEY_A}, {"s", KEY_S}, {"d", KEY_D}, {"f", KEY_F}, {"h", KEY_H}, {"g", KEY_G},
    {"z", KEY_Z}, {"x", KEY_X}, {"c", KEY_C}, {"v", KEY_V}, {"b", KEY_B}, {"q", KEY_Q},
    {"w", KEY_W}, {"e", KEY_E}, {"r", KEY_R}, {"y", KEY_Y}, {"t", KEY_T}, {"1", KEY_1},
    {"2", KEY_2}, {"3", KEY_3}, {"4", KEY_4}, {"6", KEY_6}, {"5", KEY_5}, {"=", KEY_EQUAL},
    {"9", KEY_9}, {"7", KEY_7}, {"-", KEY_MINUS}, {"8", KEY_8}, {"0", KEY_0},
    {"]", KEY_RIGHTBRACE}, {"o", KEY_O}, {"u", KEY_U}, {"[", KEY_LEFTBRACE}, {"i", KEY_I},
    {"p", KEY_P}, {"RETURN", KEY_ENTER}, {"l", KEY_L}, {"j", KEY_J}, {"'", KEY_APOSTROPHE},
    {"k", KEY_K}, {";", KEY_SEMICOLON}, {"\\", KEY_BACKSLASH}, {",", KEY_COMMA},
    {"/", KEY_SLASH}, {"n", KEY_N}, {"m", KEY_M}, {".", KEY_DOT}, {"TAB", KEY_TAB},
    {"SPACE", KEY_SPACE}, {"`", KEY_GRAVE}, {"DELETE", KEY_BACKSPACE}, {"ENTER", KEY_ENTER},
    {"ESCAPE", KEY_ESC}, {"SHIFT", KEY_LEFTSHIFT}, {"CTRL", KEY_LEFTCTRL}, {"CMD", KEY_LEFTMETA},
    {"ALT", KEY_LEFTALT}, {"*", KEY_KPASTERISK}, {"+", KEY_KPPLUS}, {"CLEAR", KEY_NUMLOCK},
    {"F5", KEY_F5}, {"F6", KEY_F6}, {"F7", KEY_F7}, {"F3", KEY_F3}, {"F8", KEY_F8},
    {"F9", KEY_F9}, {"F11", KEY_F11}, {"F13", KEY_F13}, {"F14", KEY_F14}, {"F10", KEY_F10},
    {"F12", KEY_F12}, {"F15", KEY_F15}, {"HELP", KEY_INSERT}, {"HOME", KEY_HOME},
    {"PGUP", KEY_PAGEUP}, {"F4", KEY_F4}, {"END", KEY_END}, {"F2", KEY_F2},
    {"PGDN", KEY_PAGEDOWN}, {"F1", KEY_F1}, {"LEFT", KEY_LEFT}, {"RIGHT", KEY_RIGHT},
    {"DOWN", KEY_DOWN}, {"UP", KEY_UP},
};

class KeyNameToEvdev : public testing::TestWithParam<TNamedKey> {};

// Verify that each key name reaches the PC key at the same place through both tables.
TEST_P(KeyNameToEvdev, MapsToThePcKey) {
    const TNamedKey& key = GetParam();
    const uint16_t mac = CTouchPointDeal::keyCodeForKeyString(key.name);
    ASSERT_NE(mac, 0xFFFF) << key.name;
    EXPECT_EQ(EvdevKeyForMacKey(mac), std::optional<uint16_t>(key.evdev)) << key.name;
}

INSTANTIATE_TEST_SUITE_P(EveryKeyName, KeyNameToEvdev, testing::ValuesIn(kKeyNames));

// Verify that codes outside the table (the unknown name's 0xFFFF, gaps such as 10 or 54) have
// no key.
TEST(EvdevKeyMap, CodesOutsideTheTableHaveNoKey) {
    for (uint16_t code : {uint16_t{0xFFFF}, uint16_t{10}, uint16_t{54}, uint16_t{57},
                          uint16_t{76}, uint16_t{127}}) {
        EXPECT_FALSE(EvdevKeyForMacKey(code).has_value()) << code;
        EXPECT_FALSE(TranslateShortcut(TKeyProfile::Desktop, code, kMacFlagCommand).has_value());
    }
}

struct TShortcutCase {
    const char* keyName;
    uint64_t flags;
    TEvdevChord literal;
    TEvdevChord desktop;
};

// Every shortcut a gesture posts, in both profiles.
const TShortcutCase kGestureShortcuts[] = {
    {"0", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_0}, {{KEY_LEFTCTRL}, KEY_0}},
    {"9", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_9}, {{KEY_LEFTCTRL}, KEY_9}},
    {"F7", kMacFlagSecondaryFn, {{}, KEY_F7}, {{KEY_LEFTMETA}, KEY_V}},
    {"RIGHT", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_RIGHT}, {{KEY_LEFTALT}, KEY_RIGHT}},
    {"LEFT", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_LEFT}, {{KEY_LEFTALT}, KEY_LEFT}},
    {"-", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_MINUS}, {{KEY_LEFTCTRL}, KEY_MINUS}},
    {"+", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_KPPLUS}, {{KEY_LEFTCTRL}, KEY_KPPLUS}},
    {"r", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_R}, {{KEY_LEFTCTRL}, KEY_R}},
    {"l", kMacFlagCommand, {{KEY_LEFTMETA}, KEY_L}, {{KEY_LEFTCTRL, KEY_LEFTSHIFT}, KEY_R}},
    {"RIGHT", kMacFlagControl, {{KEY_LEFTCTRL}, KEY_RIGHT},
     {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_RIGHT}},
    {"UP", kMacFlagControl, {{KEY_LEFTCTRL}, KEY_UP}, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_UP}},
    {"LEFT", kMacFlagControl, {{KEY_LEFTCTRL}, KEY_LEFT}, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_LEFT}},
    {"DOWN", kMacFlagControl, {{KEY_LEFTCTRL}, KEY_DOWN}, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_DOWN}},
    {"F8", kMacFlagSecondaryFn, {{}, KEY_F8}, {{KEY_LEFTMETA}, KEY_A}},
    {"F11", kMacFlagSecondaryFn, {{}, KEY_F11}, {{KEY_LEFTMETA}, KEY_D}},
};

class GestureShortcut : public testing::TestWithParam<TShortcutCase> {};

// Verify the chord of each gesture shortcut under both profiles, and that the virtual device
// declares every key of both chords.
TEST_P(GestureShortcut, TranslatesInBothProfiles) {
    const TShortcutCase& c = GetParam();
    const uint16_t mac = CTouchPointDeal::keyCodeForKeyString(c.keyName);
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Literal, mac, c.flags), c.literal);
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Desktop, mac, c.flags), c.desktop);
    const std::vector<uint16_t> declared = AllEvdevKeys();
    for (const TEvdevChord* chord : {&c.literal, &c.desktop}) {
        EXPECT_TRUE(std::binary_search(declared.begin(), declared.end(), chord->key));
        for (uint16_t m : chord->modifiers) {
            EXPECT_TRUE(std::binary_search(declared.begin(), declared.end(), m));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryGesture, GestureShortcut, testing::ValuesIn(kGestureShortcuts));

// Verify that every desktop entry is one of the gesture shortcuts: the table has no dead rows.
TEST(EvdevKeyMap, DesktopTableCoversOnlyGestureShortcuts) {
    for (const TDesktopShortcut& entry : DesktopShortcutTable()) {
        const bool used = std::any_of(std::begin(kGestureShortcuts), std::end(kGestureShortcuts),
                                      [&](const TShortcutCase& c) {
                                          return CTouchPointDeal::keyCodeForKeyString(c.keyName) ==
                                                     entry.macKeyCode &&
                                                 c.flags == entry.macFlags;
                                      });
        EXPECT_TRUE(used) << entry.action;
    }
}

// Verify the modifier rules outside the desktop table: order, Fn adds nothing, Command and
// Control collapse to one Ctrl on the desktop, a modifier key is not pressed twice.
TEST(EvdevKeyMap, ModifierFlags) {
    const uint16_t a = CTouchPointDeal::keyCodeForKeyString("a");
    const uint64_t all = kMacFlagCommand | kMacFlagControl | kMacFlagShift | kMacFlagAlternate |
                         kMacFlagSecondaryFn;
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Literal, a, all),
              (TEvdevChord{{KEY_LEFTCTRL, KEY_LEFTALT, KEY_LEFTSHIFT, KEY_LEFTMETA}, KEY_A}));
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Desktop, a, kMacFlagCommand | kMacFlagControl),
              (TEvdevChord{{KEY_LEFTCTRL}, KEY_A}));
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Literal, a, 0), (TEvdevChord{{}, KEY_A}));
    const uint16_t cmd = CTouchPointDeal::keyCodeForKeyString("CMD");
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Literal, cmd, kMacFlagCommand),
              (TEvdevChord{{}, KEY_LEFTMETA}));
    // A desktop entry matches only its exact flag: Command+Shift+Left is not "back".
    const uint16_t left = CTouchPointDeal::keyCodeForKeyString("LEFT");
    EXPECT_EQ(TranslateShortcut(TKeyProfile::Desktop, left, kMacFlagCommand | kMacFlagShift),
              (TEvdevChord{{KEY_LEFTSHIFT, KEY_LEFTCTRL}, KEY_LEFT}));
}

TEST(EvdevKeyMap, ProfileNames) {
    EXPECT_EQ(ParseKeyProfile("literal"), TKeyProfile::Literal);
    EXPECT_EQ(ParseKeyProfile("desktop"), TKeyProfile::Desktop);
    EXPECT_FALSE(ParseKeyProfile("Desktop").has_value());
    EXPECT_FALSE(ParseKeyProfile("").has_value());
    EXPECT_STREQ(KeyProfileName(TKeyProfile::Desktop), "desktop");
}

}  // namespace
