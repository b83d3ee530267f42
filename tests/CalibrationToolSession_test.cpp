// irframe-calibrate without its window: taking touches (refusals on a virtual clock) and the
// session from the first target to the check.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "CalibrationSession.h"
#include "TargetLayout.h"
#include "TouchTaker.h"

namespace {

constexpr int32_t kRaw = 32766;

struct TStep {
    int ms;                                         // the frame's time
    std::vector<std::array<int, 4>> contacts;       // id, status, raw x, raw y
};

TMonitoredFrame Frame(const TStep& s) {
    TMonitoredFrame f;
    f.timeStamp = (100 + s.ms / 1000) * 4'000'000LL + (s.ms % 1000) * 1000LL;
    for (const auto& [id, status, x, y] : s.contacts) {
        f.contacts.push_back({.id = uint8_t(id),
                              .status = uint8_t(status),
                              .rawX = uint16_t(x),
                              .rawY = uint16_t(y)});
    }
    return f;
}

// A still finger at (x, y) from `from` to `to` ms, lifting at `to`.
std::vector<TStep> Rest(int x, int y, int from, int to) {
    std::vector<TStep> steps{{from, {{1, 0, x, y}}}};
    for (int t = from + 10; t < to; t += 10) steps.push_back({t, {{1, 1, x, y}}});
    steps.push_back({to, {{1, 2, x, y}}});
    steps.push_back({to + 10, {}});
    return steps;
}

}  // namespace

// Verify what one touch comes to: taken after a still rest of 300 ms, refused when the finger
// moves beyond 1% of the extent, when a second finger comes, or when it lifts too early; and
// that after a refusal nothing starts until every finger is up.
TEST(CalibrationToolSession, TakesOrRefusesATouch) {
    struct TCase {
        const char* name;
        std::vector<TStep> steps;
        std::vector<TTouchOutcome> outcomes;  // every outcome other than None, in order
    };
    std::vector<TStep> wobble = Rest(10000, 10000, 0, 400);
    wobble[5].contacts[0][2] += 300;  // within 1% (327)
    std::vector<TStep> moved = Rest(10000, 10000, 0, 400);
    moved[5].contacts[0][3] += 400;
    std::vector<TStep> second = Rest(10000, 10000, 0, 400);
    second[3].contacts.push_back({2, 0, 20000, 20000});
    second.insert(second.begin() + 4, {45, {{1, 1, 10000, 10000}, {2, 1, 20000, 20000}}});
    const TCase cases[] = {
        {"still", Rest(10000, 10000, 0, 400), {TTouchOutcome::FingerDown, TTouchOutcome::Taken}},
        {"wobble within 1%", wobble, {TTouchOutcome::FingerDown, TTouchOutcome::Taken}},
        {"moved", moved, {TTouchOutcome::FingerDown, TTouchOutcome::Moved}},
        {"second finger", second, {TTouchOutcome::FingerDown, TTouchOutcome::SecondFinger}},
        {"too short", Rest(10000, 10000, 0, 200), {TTouchOutcome::FingerDown, TTouchOutcome::TooShort}},
        {"two at once", {{0, {{1, 0, 1000, 1000}, {2, 0, 9000, 9000}}}, {10, {{1, 1, 1000, 1000}}},
                         {20, {{1, 1, 1000, 1000}}}, {600, {{1, 2, 1000, 1000}}}, {610, {}}},
         {TTouchOutcome::SecondFinger}},
    };
    for (const TCase& c : cases) {
        CTouchTaker taker(kRaw, kRaw);
        std::vector<TTouchOutcome> seen;
        TTouchResult last;
        for (const TStep& s : c.steps) {
            const TTouchResult r = taker.OnFrame(Frame(s));
            if (r.outcome != TTouchOutcome::None) seen.push_back(r.outcome);
            if (r.outcome == TTouchOutcome::Taken) last = r;
        }
        EXPECT_EQ(seen, c.outcomes) << c.name;
        if (!seen.empty() && seen.back() == TTouchOutcome::Taken) {
            EXPECT_NEAR(last.raw.x, 10000, 15) << c.name;
            EXPECT_EQ(last.raw.y, 10000) << c.name;
        }
        // A fresh finger after the end is a new touch.
        EXPECT_EQ(taker.OnFrame(Frame({5000, {{7, 0, 500, 500}}})).outcome, TTouchOutcome::FingerDown)
            << c.name;
    }
}

namespace {

const TSessionSetup kFullScreen = {.points = 5,
                                   .output = {0, 0, 1920, 1080},
                                   .screenWidth = 1920,
                                   .screenHeight = 1080,
                                   .geometry = {8191, 8191, kRaw, kRaw},
                                   .timeoutMicros = 30'000'000};

// A frame mounted mirrored in X and a little off: screen pixel -> raw.
std::array<int, 2> Planted(TPointD p) {
    return {static_cast<int>(kRaw - (p.x / 1920 * 0.95 + 0.03) * kRaw),
            static_cast<int>((p.y / 1080 * 1.04 - 0.01) * kRaw)};
}

void Touch(CCalibrationSession& session, std::array<int, 2> raw, int* ms) {
    for (const TStep& s : Rest(raw[0], raw[1], *ms, *ms + 400)) {
        session.OnFrame(Frame(s), s.ms * 1000LL);
    }
    *ms += 1000;
}

}  // namespace

// Verify a whole session: five touches where a mis-calibrated frame reports them lead to the
// check, with every touch fitted onto its target; a touch far from the prediction is refused
// and the same target stays.
TEST(CalibrationToolSession, FromTargetsToCheck) {
    CCalibrationSession session(kFullScreen, 0);
    int ms = 0;
    for (int i = 0; i < 3; ++i) Touch(session, Planted(session.Target(i)), &ms);
    EXPECT_EQ(session.Current(), 3);
    Touch(session, Planted(session.Target(1)), &ms);  // the wrong corner
    EXPECT_EQ(session.Current(), 3);
    EXPECT_NE(session.Message().find("far from the cross"), std::string::npos);
    Touch(session, Planted(session.Target(3)), &ms);
    Touch(session, Planted(session.Target(4)), &ms);
    ASSERT_EQ(session.Phase(), TSessionPhase::Check) << session.Message();
    for (const double r : session.Fit()->residuals) EXPECT_LE(r, 0.5);
    session.Redo(ms * 1000LL);
    EXPECT_EQ(session.Phase(), TSessionPhase::Taking);
    EXPECT_EQ(session.TakenCount(), 0);
}

// Verify the time-out: no touch for the whole time-out ends the session; a finger going down
// starts the time again.
TEST(CalibrationToolSession, TimesOutWithoutTouches) {
    CCalibrationSession session(kFullScreen, 0);
    session.Tick(29'000'000);
    EXPECT_EQ(session.Phase(), TSessionPhase::Taking);
    session.OnFrame(Frame({29'000, {{1, 0, 100, 100}}}), 29'000'000);
    session.Tick(58'000'000);
    EXPECT_EQ(session.Phase(), TSessionPhase::Taking);
    session.Tick(59'000'000);
    EXPECT_EQ(session.Phase(), TSessionPhase::TimedOut);
}

// Verify which stored areas a save puts back in use: only usable ones of a frame whose areas were
// switched off, and never the one being calibrated.
TEST(CalibrationToolSession, NamesTheAreasASaveSwitchesBackOn) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig(0, 0, config.get());
    DefaultDevCalConfig(0, 0, config.get());
    config->areaCount = 3;
    config->areas[1] = config->areas[0];
    config->areas[2] = config->areas[0];
    config->areas[2].targetRect.width = 10;  // too small to be used
    const struct {
        bool areasOn;
        int number;
        std::vector<int> back;
    } cases[] = {{true, 1, {}}, {false, 1, {2}}, {false, 2, {1}}, {false, 4, {1, 2}}};
    for (const auto& c : cases) {
        config->flags = c.areasOn ? config->flags | DEV_FLAG_AREAS_ENABLED
                                  : config->flags & ~DEV_FLAG_AREAS_ENABLED;
        EXPECT_EQ(AreasBackInUse(*config, c.number), c.back) << c.areasOn << " " << c.number;
        EXPECT_NE(ConfigWithArea(*config, 1, config->areas[0]).flags & DEV_FLAG_AREAS_ENABLED, 0u);
    }
}
