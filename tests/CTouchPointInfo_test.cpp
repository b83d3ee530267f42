#include "CTouchPointInfo.h"

#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <tuple>

namespace {

// First and latest sample, displacement and bearing.
std::tuple<float, float, float, float, float, int> Summary(const CTouchPointInfo& c) {
    return {c.GetFirstX(), c.GetFisrtY(), c.GetBehindX(), c.GetBehindY(), c.GetDistance(),
            c.GetAngle()};
}

// Verify that a new contact holds its first sample as base and as the only path sample, and
// that Remove empties the path but keeps id and base, leaving the contact usable.
TEST(CTouchPointInfo, NewAndRemovedContacts) {
    CTouchPointInfo c(7, 100.0f, 200.0f, 0, 3, 12345);
    EXPECT_EQ(std::make_tuple(c.GetID(), c.GetX(), c.GetY(), c.GetBirthTime()),
              std::make_tuple(7, 100.0f, 200.0f, int64_t{12345}));
    EXPECT_EQ(c.CopyPointsPath(), std::vector<CTouchPoint>{CTouchPoint(100.0f, 200.0f, 12345)});
    EXPECT_EQ(Summary(c), std::make_tuple(100.0f, 200.0f, 100.0f, 200.0f, 0.0f, 0));
    EXPECT_EQ(CTouchPointInfo().GetID(), 0);
    EXPECT_TRUE(CTouchPointInfo().PathEmpty());

    c.Update(30.0f, 40.0f, 6);
    c.Remove();
    EXPECT_TRUE(c.PathEmpty());
    EXPECT_EQ(Summary(c), std::make_tuple(0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0));
    EXPECT_EQ(std::make_tuple(c.GetID(), c.GetX()), std::make_tuple(7, 100.0f));
    c.Update(50.0f, 60.0f, 7);
    EXPECT_EQ(c.PathSize(), 1u);
    EXPECT_EQ(c.GetFirstX(), 50.0f);
}

// Verify the path against a plain shifting model that keeps the latest 500 samples, over many
// wraps of the ring, emptied and refilled on the way, at every step.
TEST(CTouchPointInfo, PathMatchesShiftingModel) {
    CTouchPointInfo c(1, 1.0f, 2.0f, 0, 0, 0);
    std::deque<CTouchPoint> model{CTouchPoint(1.0f, 2.0f, 0)};
    for (int i = 1; i < 2600; ++i) {
        if (i == 1300) {
            c.Remove();
            model.clear();
        }
        const CTouchPoint p(static_cast<float>(i), static_cast<float>(-i), i * 10);
        c.Update(p.x, p.y, p.birthTime);
        if (model.size() >= 500) model.pop_front();
        model.push_back(p);
        const CTouchPointPath path = c.getPointsPath();
        ASSERT_EQ(path.size(), model.size()) << "after update " << i;
        ASSERT_TRUE(std::equal(path.begin(), path.end(), model.begin())) << "after update " << i;
        ASSERT_EQ(std::make_tuple(c.GetFirstX(), c.GetFisrtY(), c.GetBehindX(), c.GetBehindY()),
                  std::make_tuple(model.front().x, model.front().y, model.back().x,
                                  model.back().y));
    }
    EXPECT_EQ(c.CopyPointsPath(), std::vector<CTouchPoint>(model.begin(), model.end()));
    EXPECT_EQ(c.GetX(), 1.0f);  // the base keeps the first sample ever
}

// Verify displacement, bearing and direction code of a contact moved from (10000, 10000), with
// the skew of the 1.57/3.14 constants where it shows.
TEST(CTouchPointInfo, DistanceAngleDirection) {
    const struct {
        float dx, dy;
        float distance;
        int angle;
        int direction;
    } cases[] = {
        {10, 0, 10, 90, 9},                     // right
        {-10, 0, 10, 270, 13},                  // left
        {0, 10, 10, 180, 11},                   // down
        {0, -10, 10, 0, 7},                     // straight up: dx = 0 gives 0
        {-1, -10000, 10000.00005f, 360, 6},     // up, a hair left: 360
        {-1, -1000, 1000.0005f, 359, 6},
        {100, -100, 141.42136f, 44, 7},         // 45 degrees reads 44
        {-100, 100, 141.42136f, 224, 11},       // 225 degrees reads 224
        {100, 100, 141.42136f, 135, 10},
        {3, 4, 5, 143, 10},
        {1000, -1, 1000.0005f, 89, 8},
        {0, 0, 0, INT_MIN, 6},                  // back where it started: 0/0
    };
    for (const auto& m : cases) {
        SCOPED_TRACE(testing::Message() << m.dx << ", " << m.dy);
        CTouchPointInfo c(1, 10000.0f, 10000.0f, 0, 0, 0);
        c.Update(12345.0f, 54321.0f, 1);  // an intermediate sample does not count
        c.Update(10000.0f + m.dx, 10000.0f + m.dy, 2);
        EXPECT_FLOAT_EQ(c.GetDistance(), m.distance);
        EXPECT_EQ(c.GetAngle(), m.angle);
        EXPECT_EQ(CTouchPointInfo::GetMovingDirection(c.GetAngle()), m.direction);
    }
}

}  // namespace
