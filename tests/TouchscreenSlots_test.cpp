#include "TouchscreenSlots.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <string>
#include <vector>

// Events as (type code value) in failure messages.
void PrintTo(const TEvdevEvent& e, std::ostream* out) {
    *out << "(" << e.type << " " << e.code << " " << e.value << ")";
}

namespace {

TContact Touch(uint8_t id, uint8_t status, int32_t x, int32_t y) {
    return TContact{.id = id, .status = status, .x = x, .y = y};
}
TContact Down(uint8_t id, int32_t x, int32_t y) { return Touch(id, kContactDown, x, y); }
TContact Move(uint8_t id, int32_t x, int32_t y) { return Touch(id, kContactMoving, x, y); }
TContact Lift(uint8_t id, int32_t x, int32_t y) { return Touch(id, kContactLifted, x, y); }
TContact Gone(uint8_t id) { return Touch(id, 3, 0, 0); }
TContact Retired(uint8_t id) {
    return TContact{.id = id, .status = kContactMoving, .retired = true, .x = 9, .y = 9};
}
TContact Sized(TContact c, int32_t width, int32_t height) {
    c.hasSize = true;
    c.width = width;
    c.height = height;
    return c;
}

TEvdevEvent Slot(int32_t v) { return {EV_ABS, ABS_MT_SLOT, v}; }
TEvdevEvent Id(int32_t v) { return {EV_ABS, ABS_MT_TRACKING_ID, v}; }
TEvdevEvent X(int32_t v) { return {EV_ABS, ABS_MT_POSITION_X, v}; }
TEvdevEvent Y(int32_t v) { return {EV_ABS, ABS_MT_POSITION_Y, v}; }
TEvdevEvent Major(int32_t v) { return {EV_ABS, ABS_MT_TOUCH_MAJOR, v}; }
TEvdevEvent Minor(int32_t v) { return {EV_ABS, ABS_MT_TOUCH_MINOR, v}; }
TEvdevEvent Button(int32_t v) { return {EV_KEY, BTN_TOUCH, v}; }
TEvdevEvent PointerX(int32_t v) { return {EV_ABS, ABS_X, v}; }
TEvdevEvent PointerY(int32_t v) { return {EV_ABS, ABS_Y, v}; }
const TEvdevEvent kSyn{EV_SYN, SYN_REPORT, 0};

// One step: a polled frame's contacts (or, with `end`, the frame going away) and the events
// and newly taken warnings it must give.
struct TStep {
    std::vector<TContact> contacts;
    std::vector<TEvdevEvent> events;
    unsigned warnings = 0;
    bool end = false;
};

struct TSlotCase {
    std::string name;
    int slots;
    std::vector<TStep> steps;
};

class TouchscreenSlots : public testing::TestWithParam<TSlotCase> {};

TEST_P(TouchscreenSlots, FramesToEvents) {
    CTouchscreenSlots slots(GetParam().slots);
    int n = 0;
    for (const TStep& step : GetParam().steps) {
        SCOPED_TRACE("step " + std::to_string(++n));
        std::vector<TEvdevEvent> out;
        if (step.end) {
            slots.LiftAll(&out);
        } else {
            TContactFrame frame;
            frame.contacts = step.contacts;
            slots.Update(frame, &out);
        }
        EXPECT_EQ(out, step.events);
        EXPECT_EQ(slots.TakeWarnings(), step.warnings);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TouchscreenSlots,
    testing::Values(
        TSlotCase{"TwoFingersDownMoveUp", 10,
                  {{{Down(1, 100, 200), Down(2, 300, 400)},
                    {Id(0), X(100), Y(200), Slot(1), Id(1), X(300), Y(400), Button(1),
                     PointerX(100), PointerY(200), kSyn}},
                   {{Move(1, 110, 200), Move(2, 300, 420)},
                    {Slot(0), X(110), Slot(1), Y(420), PointerX(110), kSyn}},
                   // Nothing changed: no report at all.
                   {{Move(1, 110, 200), Move(2, 300, 420)}, {}},
                   // The older touch lifts: single-touch clients follow the other one.
                   {{Lift(1, 110, 200), Move(2, 300, 420)},
                    {Slot(0), Id(-1), PointerX(300), PointerY(420), kSyn}},
                   // A lift's final position comes before the end.
                   {{Lift(2, 305, 420)}, {Slot(1), X(305), Id(-1), Button(0), kSyn}}}},
        TSlotCase{"SlotReuse", 2,
                  {{{Down(1, 100, 100), Down(2, 200, 200)},
                    {Id(0), X(100), Y(100), Slot(1), Id(1), X(200), Y(200), Button(1),
                     PointerX(100), PointerY(100), kSyn}},
                   // A slot that ends is not reused in the same report: the new contact finds
                   // no slot this frame ...
                   {{Lift(1, 100, 100), Move(2, 200, 200), Down(3, 500, 600)},
                    {Slot(0), Id(-1), PointerX(200), PointerY(200), kSyn},
                    kTouchscreenDropped},
                   // ... and takes the freed one on the next, with a new tracking id.
                   {{Move(2, 200, 200), Move(3, 500, 600)},
                    {Id(2), X(500), Y(600), kSyn}}}},
        TSlotCase{"RetiredAndVanished", 10,
                  {{{Down(1, 100, 100), Down(2, 200, 200), Down(3, 300, 300)},
                    {Id(0), X(100), Y(100), Slot(1), Id(1), X(200), Y(200), Slot(2), Id(2),
                     X(300), Y(300), Button(1), PointerX(100), PointerY(100), kSyn}},
                   // 1 is retired but its id is back as a fresh touch, 2 is gone without a
                   // position, 3 is simply missing.
                   {{Down(1, 700, 700), Gone(2), Retired(1)},
                    {Slot(0), Id(-1), Slot(3), Id(3), X(700), Y(700), Slot(1), Id(-1), Slot(2),
                     Id(-1), PointerX(700), PointerY(700), kSyn}},
                   // A lift or retirement of an id without a slot changes nothing.
                   {{Move(1, 700, 700), Lift(9, 1, 1), Retired(8)}, {}},
                   {{}, {Slot(3), Id(-1), Button(0), kSyn}}}},
        TSlotCase{"MoreContactsThanSlots", 2,
                  {{{Down(1, 100, 100), Down(2, 200, 200), Down(3, 300, 300)},
                    {Id(0), X(100), Y(100), Slot(1), Id(1), X(200), Y(200), Button(1),
                     PointerX(100), PointerY(100), kSyn},
                    kTouchscreenDropped},
                   // Warned once only.
                   {{Move(1, 100, 100), Move(2, 200, 200), Move(3, 300, 300), Down(4, 1, 1)},
                    {}}}},
        TSlotCase{"OutOfRangeClamped", 10,
                  {{{Sized(Down(1, 0, 40000), -5, 99999)},
                    {Id(0), X(1), Y(32766), Major(32766), Button(1), PointerX(1),
                     PointerY(32766), kSyn},
                    kTouchscreenClamped},
                   {{Move(1, -7, 32767)}, {}}}},
        TSlotCase{"Sizes", 10,
                  {{{Sized(Down(1, 100, 100), 300, 100)},
                    {Id(0), X(100), Y(100), Major(300), Minor(100), Button(1), PointerX(100),
                     PointerY(100), kSyn}},
                   // The major axis is the longer side, whichever it is.
                   {{Sized(Move(1, 100, 100), 100, 300)}, {}},
                   {{Sized(Move(1, 100, 100), 200, 150)}, {Major(200), Minor(150), kSyn}},
                   // A contact without a size leaves the size as it was.
                   {{Move(1, 120, 100)}, {X(120), PointerX(120), kSyn}}}},
        TSlotCase{"FrameEndLiftsAll", 10,
                  {{{Down(1, 100, 100), Down(2, 200, 200)},
                    {Id(0), X(100), Y(100), Slot(1), Id(1), X(200), Y(200), Button(1),
                     PointerX(100), PointerY(100), kSyn}},
                   {{}, {Slot(0), Id(-1), Slot(1), Id(-1), Button(0), kSyn}, 0, true},
                   {{}, {}, 0, true}}},
        TSlotCase{"RepeatedIdCountsOnce", 10,
                  {{{Down(4, 100, 100), Move(4, 900, 900)},
                    {Id(0), X(100), Y(100), Button(1), PointerX(100), PointerY(100), kSyn}}}}),
    [](const testing::TestParamInfo<TSlotCase>& info) { return info.param.name; });

// Tracking ids wrap from 65535 to 0, never beyond the axis.
TEST(TouchscreenSlotsIds, TrackingIdWraps) {
    CTouchscreenSlots slots(1);
    std::vector<TEvdevEvent> out;
    TContactFrame down, up;
    down.contacts = {Down(1, 10, 10)};
    for (int i = 0; i <= kTrackingIdMax; ++i) {
        slots.Update(down, &out);
        slots.Update(up, &out);
    }
    out.clear();
    slots.Update(down, &out);
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.front(), Id(0));
    EXPECT_EQ(slots.ActiveTouches(), 1);
}

TEST(TouchscreenResolution, UnitsPerMillimetre) {
    const std::pair<int, int32_t> cases[] = {
        {1218, 27}, {685, 48}, {32765, 2}, {0, 32765}, {-10, 32765}, {100000, 2}};
    for (const auto& [mm, units] : cases) EXPECT_EQ(TouchscreenResolution(mm), units) << mm;
}

}  // namespace
