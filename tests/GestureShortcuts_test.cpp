#include "GestureShortcuts.h"

#include "CTouchPointDeal.h"
#include "EventSink.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>

namespace {

// Verify that each named shortcut's key code is the one its key name gives (the name is what
// the gesture handlers post and what their tests check), and that the key and flag of every
// shortcut are different, so that a posted key event tells which gesture it is.
TEST(GestureShortcuts, KeyAndFlagNameOneShortcutEach) {
    std::set<std::pair<uint16_t, uint64_t>> keys;
    std::set<std::string> names;
    for (size_t i = 0; i < GestureShortcutTable().size(); ++i) {
        const TGestureShortcutInfo& info = GestureShortcutTable()[i];
        EXPECT_EQ(static_cast<size_t>(info.id), i) << info.name;
        EXPECT_EQ(CTouchPointDeal::keyCodeForKeyString(info.macKeyName), info.macKeyCode)
            << info.name;
        EXPECT_TRUE(keys.insert({info.macKeyCode, info.flags}).second) << info.name;
        EXPECT_TRUE(names.insert(info.name).second) << info.name;
        EXPECT_EQ(FindGestureShortcut(info.name), info.id);
        EXPECT_EQ(GestureShortcutOfKey(info.macKeyCode, info.flags), info.id);
    }
    EXPECT_EQ(names.size(), kGestureShortcutCount);
    EXPECT_FALSE(FindGestureShortcut("rotate").has_value());
    // The same key with another flag is another shortcut or none.
    EXPECT_FALSE(GestureShortcutOfKey(CTouchPointDeal::keyCodeForKeyString("r"),
                                      EVENT_FLAG_CONTROL)
                     .has_value());
}

}  // namespace
