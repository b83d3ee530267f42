#include "EvdevKeyMap.h"

#include "CTouchPointDeal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <algorithm>

namespace {

bool Declared(uint16_t key) {
    static const std::vector<uint16_t> declared = AllEvdevKeys();
    return std::binary_search(declared.begin(), declared.end(), key);
}

// Verify that each key name reaches the PC key of the same name, or the one at the same place
// where the names differ.
TEST(EvdevKeyMap, KeyNamesReachThePcKey) {
    std::vector<std::pair<std::string, std::string>> keys = {
        {"=", "EQUAL"},          {"-", "MINUS"},      {"]", "RIGHTBRACE"},    {"[", "LEFTBRACE"},
        {"RETURN", "ENTER"},     {"'", "APOSTROPHE"}, {";", "SEMICOLON"},     {"\\", "BACKSLASH"},
        {",", "COMMA"},          {"/", "SLASH"},      {".", "DOT"},           {"`", "GRAVE"},
        {"DELETE", "BACKSPACE"}, {"ESCAPE", "ESC"},   {"SHIFT", "LEFTSHIFT"}, {"CTRL", "LEFTCTRL"},
        {"CMD", "LEFTMETA"},     {"ALT", "LEFTALT"},  {"*", "KPASTERISK"},    {"+", "KPPLUS"},
        {"CLEAR", "NUMLOCK"},    {"HELP", "INSERT"},  {"PGUP", "PAGEUP"},     {"PGDN", "PAGEDOWN"},
    };
    std::vector<std::string> sameName = {"ENTER", "TAB",   "SPACE", "HOME", "END",
                                         "LEFT",  "RIGHT", "DOWN",  "UP"};
    for (int f = 1; f <= 15; ++f) sameName.push_back("F" + std::to_string(f));
    for (char c = '0'; c <= '9'; ++c) sameName.emplace_back(1, c);
    for (const std::string& name : sameName) keys.emplace_back(name, name);
    for (char c = 'a'; c <= 'z'; ++c) keys.emplace_back(std::string(1, c), std::string(1, c - 32));
    for (const auto& [name, pcKey] : keys) {
        const uint16_t mac = CTouchPointDeal::keyCodeForKeyString(name.c_str());
        const std::optional<uint16_t> evdev = EvdevKeyForMacKey(mac);
        ASSERT_TRUE(evdev.has_value()) << name;
        EXPECT_EQ(EvdevKeyName(*evdev), "KEY_" + pcKey) << name;
    }
}

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

// Verify the chord of each gesture shortcut under both profiles, and that the virtual device
// declares every key of both chords.
TEST(EvdevKeyMap, GestureShortcutsInBothProfiles) {
    for (const TShortcutCase& c : kGestureShortcuts) {
        SCOPED_TRACE(testing::Message() << c.keyName << " " << c.flags);
        const uint16_t mac = CTouchPointDeal::keyCodeForKeyString(c.keyName);
        EXPECT_EQ(TranslateShortcut(TKeyProfile::Literal, mac, c.flags), c.literal);
        EXPECT_EQ(TranslateShortcut(TKeyProfile::Desktop, mac, c.flags), c.desktop);
        for (const TEvdevChord* chord : {&c.literal, &c.desktop}) {
            EXPECT_TRUE(Declared(chord->key));
            EXPECT_TRUE(std::all_of(chord->modifiers.begin(), chord->modifiers.end(), Declared));
        }
    }
}

// Verify that every desktop entry is one of the gesture shortcuts: the table has no dead rows.
TEST(EvdevKeyMap, DesktopTableCoversOnlyGestureShortcuts) {
    const auto gestures = GestureShortcutTable();
    for (const TDesktopShortcut& entry : DesktopShortcutTable()) {
        EXPECT_TRUE(std::any_of(gestures.begin(), gestures.end(), [&](const auto& gesture) {
            return gesture.macKeyCode == entry.macKeyCode && gesture.flags == entry.macFlags;
        })) << entry.action;
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
    std::vector<std::string> names;
    for (const char* name : KeyProfileNames()) {
        const auto profile = ParseKeyProfile(name);
        ASSERT_TRUE(profile.has_value()) << name;
        names.push_back(KeyProfileName(*profile));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"safe", "literal", "desktop"}));
    EXPECT_FALSE(ParseKeyProfile("Desktop").has_value());
    EXPECT_FALSE(ParseKeyProfile("").has_value());
}

// ---------------------------------------------------------------------------------------------
// The safe default

// The forbidden chords that a key map presses for each gesture, by gesture.
std::vector<std::string> ForbiddenChords(const CKeyMap& map) {
    std::vector<std::string> found;
    for (const TGestureShortcutInfo& info : GestureShortcutTable()) {
        const auto pressed = map.KeyChanges(TInputEvent::Key(true, info.macKeyCode, info.flags));
        if (!pressed) {
            found.push_back(std::string(info.name) + ": no evdev equivalent");
            continue;
        }
        if (const std::string bad = DangerousChordsIn(*pressed); !bad.empty()) {
            found.push_back(std::string(info.name) + ": " + bad);
        }
    }
    return found;
}

// Verify that no gesture of the default map presses a chord that locks, logs out, tiles or
// closes windows, launches applications or reloads pages, and that the rotations press nothing.
TEST(SafeProfile, DefaultPressesNoDangerousChord) {
    const CKeyMap defaults;
    EXPECT_EQ(defaults.Profile(), TKeyProfile::Safe);
    EXPECT_THAT(ForbiddenChords(defaults), testing::IsEmpty());
    for (TGestureShortcut rotation :
         {TGestureShortcut::RotateClockwise, TGestureShortcut::RotateAnticlockwise}) {
        const TGestureShortcutInfo& info = GestureShortcutInfo(rotation);
        EXPECT_EQ(defaults.KeyChanges(TInputEvent::Key(true, info.macKeyCode, info.flags)),
                  std::vector<uint16_t>{})
            << info.name;
    }
}

// Verify that the check finds what the older profiles press (so that it can fail at all).
TEST(SafeProfile, CheckFindsTheOlderProfilesChords) {
    EXPECT_THAT(ForbiddenChords(TKeyProfile::Literal),
                testing::IsSupersetOf({"rotate-anticlockwise: Super+L (lock)",
                                       "swipe-left: Super+arrow (tile)",
                                       "zoom-toggle-first: Super+digit (launch)"}));
    EXPECT_THAT(ForbiddenChords(TKeyProfile::Desktop),
                testing::IsSupersetOf({"rotate-clockwise: Ctrl+R (reload)",
                                       "rotate-anticlockwise: Ctrl+R (reload), "
                                       "Ctrl+Shift+R (reload)",
                                       "four-finger-spread: Super+D (show desktop)"}));
    EXPECT_EQ(DangerousChordsIn({KEY_RIGHTALT, KEY_F4}), "Alt+F4 (close)");
    EXPECT_EQ(DangerousChordsIn({KEY_LEFTCTRL, KEY_RIGHTALT, KEY_BACKSPACE}),
              "Ctrl+Alt+Backspace (kill X)");
}

// ---------------------------------------------------------------------------------------------
// Chord texts

struct TChordCase {
    const char* text;
    TEvdevChord chord;
    const char* canonical;
};

const TChordCase kChords[] = {
    {"none", {}, "none"},
    {" None ", {}, "none"},
    {"ctrl+alt+left", {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_LEFT}, "ctrl+alt+left"},
    {"Alt + Ctrl + Left", {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_LEFT}, "ctrl+alt+left"},
    {"meta+f1", {{KEY_LEFTMETA}, KEY_F1}, "super+f1"},
    {"super+shift+f24", {{KEY_LEFTSHIFT, KEY_LEFTMETA}, KEY_F24}, "shift+super+f24"},
    {"ctrl+kpplus", {{KEY_LEFTCTRL}, KEY_KPPLUS}, "ctrl+kpplus"},
    {"ctrl+equal", {{KEY_LEFTCTRL}, KEY_EQUAL}, "ctrl+equal"},
    {"rightctrl+z", {{KEY_RIGHTCTRL}, KEY_Z}, "rightctrl+z"},
    {"0", {{}, KEY_0}, "0"},
    {"super", {{}, KEY_LEFTMETA}, "super"},
    {"shift+ctrl", {{KEY_LEFTSHIFT}, KEY_LEFTCTRL}, "shift+ctrl"},
    {"back", {{}, KEY_BACK}, "back"},
};

// Verify that a chord text gives its keys and is written back in one spelling that reads back.
TEST(ChordText, ParsesAndFormats) {
    for (const TChordCase& c : kChords) {
        TEvdevChord chord;
        std::string error;
        ASSERT_TRUE(ParseChord(c.text, &chord, &error)) << c.text << ": " << error;
        EXPECT_EQ(chord, c.chord) << c.text;
        EXPECT_EQ(FormatChord(chord), c.canonical);
    }
}

// Verify that each mistake is named, and that an unknown name lists the valid ones.
TEST(ChordText, SaysWhatIsWrong) {
    const std::pair<std::string, const char*> mistakes[] = {
        {"", "empty key name"},
        {"ctrl++a", "empty key name"},
        {"ctrl+", "empty key name"},
        {"ctrl+hyper", "unknown key name 'hyper' in 'ctrl+hyper'; valid names: ctrl,"},
        {"ctrl+hyper", "a-z, 0-9, f1-f24, left"},
        {"ctrl+f25", "unknown key name 'f25'"},
        {"ctrl+\xff", "unknown key name '\\xff'"},
        {"ctrl+none", "'none' stands alone"},
        {"ctrl+ctrl+a", "key 'ctrl' twice"},
        {"a+ctrl", "'a' is not last"},
        {"a+b", "'a' is not last"},
        {std::string(201, 'a'), "at most 200 characters"},
    };
    for (const auto& [text, message] : mistakes) {
        TEvdevChord chord{{KEY_A}, KEY_B};
        std::string error;
        EXPECT_FALSE(ParseChord(text, &chord, &error)) << text;
        EXPECT_THAT(error, testing::HasSubstr(message));
        EXPECT_EQ(chord, (TEvdevChord{{KEY_A}, KEY_B})) << "left as it was";
    }
}

// Verify that every key the virtual device declares can be written as a chord and read back,
// so that any chord a profile presses can be printed into a configuration.
TEST(ChordText, EveryDeclaredKeyHasAName) {
    for (uint16_t code : AllEvdevKeys()) {
        const TEvdevChord chord{{KEY_LEFTCTRL}, code};
        TEvdevChord back;
        std::string error;
        if (code == KEY_LEFTCTRL) continue;
        ASSERT_TRUE(ParseChord(FormatChord(chord), &back, &error))
            << EvdevKeyName(code) << ": " << error;
        EXPECT_EQ(back, chord) << EvdevKeyName(code);
    }
    EXPECT_EQ(EvdevKeyName(KEY_LEFTCTRL), "KEY_LEFTCTRL");
}

// ---------------------------------------------------------------------------------------------
// The user's chords

// Verify that a chord given for a named shortcut replaces the profile's for that shortcut only,
// and decides what a key-down presses and a key-up releases.
TEST(KeyMap, UserChordsReplaceTheProfiles) {
    TShortcutOverrides overrides;
    overrides[static_cast<size_t>(TGestureShortcut::FourFingerLeft)] = "super+pagedown";
    overrides[static_cast<size_t>(TGestureShortcut::SwipeLeft)] = "none";
    std::string error;
    const auto map = CKeyMap::Make(TKeyProfile::Desktop, overrides, &error);
    ASSERT_TRUE(map.has_value()) << error;

    const uint16_t right = CTouchPointDeal::keyCodeForKeyString("RIGHT");
    EXPECT_EQ(map->KeyChanges(TInputEvent::Key(true, right, kMacFlagControl)),
              (std::vector<uint16_t>{KEY_LEFTMETA, KEY_PAGEDOWN}));
    EXPECT_EQ(map->KeyChanges(TInputEvent::Key(false, right, kMacFlagControl)),
              (std::vector<uint16_t>{KEY_PAGEDOWN, KEY_LEFTMETA}));
    EXPECT_EQ(map->KeyNames(TInputEvent::Key(true, right, kMacFlagControl)),
              (std::vector<std::string>{"KEY_LEFTMETA", "KEY_PAGEDOWN"}));
    EXPECT_EQ(map->KeyChanges(TInputEvent::Key(true, right, kMacFlagCommand)),
              std::vector<uint16_t>{});
    // Untouched: the desktop profile's chord; not a key event or no key: nothing.
    EXPECT_EQ(map->ChordOf(TGestureShortcut::Pinch),
              ProfileChord(TKeyProfile::Desktop, TGestureShortcut::Pinch));
    EXPECT_FALSE(map->KeyChanges(TInputEvent::Scroll(50)).has_value());
    EXPECT_FALSE(map->KeyChanges(TInputEvent::Key(true, 0xFFFF, kMacFlagCommand)).has_value());
    EXPECT_TRUE(map->KeyNames(TInputEvent::Scroll(50)).empty());

    overrides[static_cast<size_t>(TGestureShortcut::Spread)] = "ctrl+plus";
    EXPECT_FALSE(CKeyMap::Make(TKeyProfile::Safe, overrides, &error).has_value());
    EXPECT_THAT(error, testing::StartsWith("spread: unknown key name 'plus'"));
}

// Verify that the safe table names every shortcut once and the virtual device declares its keys.
TEST(SafeProfile, TableCoversEveryShortcut) {
    std::vector<TGestureShortcut> seen;
    for (const TSafeShortcut& entry : SafeShortcutTable()) {
        seen.push_back(entry.shortcut);
        EXPECT_EQ(ProfileChord(TKeyProfile::Safe, entry.shortcut), entry.chord);
        EXPECT_TRUE(std::all_of(entry.chord.modifiers.begin(), entry.chord.modifiers.end(),
                                Declared));
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(std::unique(seen.begin(), seen.end()), seen.end());
    EXPECT_EQ(seen.size(), kGestureShortcutCount);
}

}  // namespace
