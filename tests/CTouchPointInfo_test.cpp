#include "CTouchPointInfo.h"

#include <gtest/gtest.h>

#include <climits>
#include <deque>

namespace {

// Verify that a new contact holds its first sample as base and as the only path sample.
TEST(CTouchPointInfo, NewContactHoldsOneSample) {
    const CTouchPointInfo c(7, 100.0f, 200.0f, 0, 3, 12345);
    EXPECT_EQ(c.GetID(), 7);
    EXPECT_EQ(c.GetX(), 100.0f);
    EXPECT_EQ(c.GetY(), 200.0f);
    EXPECT_EQ(c.GetBirthTime(), 12345);
    ASSERT_EQ(c.getPointsPath().size(), 1u);
    EXPECT_EQ(c.getPointsPath()[0], CTouchPoint(100.0f, 200.0f, 12345));
    EXPECT_EQ(c.GetDistance(), 0.0f);
    EXPECT_EQ(c.GetAngle(), 0);
    EXPECT_EQ(CTouchPointInfo().GetID(), 0);
    EXPECT_TRUE(CTouchPointInfo().PathEmpty());
}

// Verify the cap: the 501st update leaves 500 samples, the first being the former second.
TEST(CTouchPointInfo, FiveHundredAndFirstUpdateDropsTheOldest) {
    CTouchPointInfo c(1, 0.0f, 0.0f, 0, 0, 0);
    for (int i = 1; i < 500; ++i) c.Update(static_cast<float>(i), 0.0f, i);
    ASSERT_EQ(c.PathSize(), 500u);
    EXPECT_EQ(c.GetFirstX(), 0.0f);
    c.Update(500.0f, 0.0f, 500);
    const CTouchPointPath path = c.getPointsPath();
    ASSERT_EQ(path.size(), 500u);
    EXPECT_EQ(path.front().GetX(), 1.0f);
    EXPECT_EQ(path.back().GetX(), 500.0f);
    EXPECT_EQ(c.GetFirstX(), 1.0f);
    EXPECT_EQ(c.GetBehindX(), 500.0f);
    EXPECT_EQ(c.GetX(), 0.0f);  // the base keeps the first sample ever
}

// Verify the path against a plain shifting model over many wraps of the ring, emptied and
// refilled on the way, at every step.
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
        ASSERT_EQ(c.GetFisrtY(), model.front().y);
        ASSERT_EQ(c.GetBehindY(), model.back().y);
    }
    EXPECT_EQ(c.CopyPointsPath(), std::vector<CTouchPoint>(model.begin(), model.end()));
}

// Verify that Remove empties the path, keeps id and base, and leaves the contact usable.
TEST(CTouchPointInfo, RemoveEmptiesButKeepsIdentity) {
    CTouchPointInfo c(9, 10.0f, 20.0f, 1, 0, 5);
    c.Update(30.0f, 40.0f, 6);
    c.Remove();
    EXPECT_TRUE(c.PathEmpty());
    EXPECT_EQ(c.GetFirstX(), 0.0f);
    EXPECT_EQ(c.GetFisrtY(), 0.0f);
    EXPECT_EQ(c.GetBehindX(), 0.0f);
    EXPECT_EQ(c.GetBehindY(), 0.0f);
    EXPECT_EQ(c.GetDistance(), 0.0f);
    EXPECT_EQ(c.GetAngle(), 0);
    EXPECT_EQ(c.GetID(), 9);
    EXPECT_EQ(c.GetX(), 10.0f);
    c.Update(50.0f, 60.0f, 7);
    EXPECT_EQ(c.PathSize(), 1u);
    EXPECT_EQ(c.GetFirstX(), 50.0f);
}

struct Movement {
    float dx, dy;
    float distance;
    int angle;
    int direction;
};

class ContactMovement : public testing::TestWithParam<Movement> {};

// Verify displacement, bearing and direction code of a contact moved from (10000, 10000),
// with the skew of the 1.57/3.14 constants where it shows.
TEST_P(ContactMovement, DistanceAngleDirection) {
    const Movement& m = GetParam();
    CTouchPointInfo c(1, 10000.0f, 10000.0f, 0, 0, 0);
    c.Update(12345.0f, 54321.0f, 1);  // an intermediate sample does not count
    c.Update(10000.0f + m.dx, 10000.0f + m.dy, 2);
    EXPECT_FLOAT_EQ(c.GetDistance(), m.distance);
    EXPECT_EQ(c.GetAngle(), m.angle);
    EXPECT_EQ(CTouchPointInfo::GetMovingDirection(c.GetAngle()), m.direction);
}

INSTANTIATE_TEST_SUITE_P(
    All, ContactMovement,
    testing::Values(Movement{10, 0, 10, 90, 9},            // right
                    Movement{-10, 0, 10, 270, 13},         // left
                    Movement{0, 10, 10, 180, 11},          // down
                    Movement{0, -10, 10, 0, 7},            // straight up: dx = 0 gives 0
                    Movement{-1, -10000, 10000.00005f, 360, 6},  // up, a hair left: 360
                    Movement{-1, -1000, 1000.0005f, 359, 6},
                    Movement{100, -100, 141.42136f, 44, 7},      // 45 degrees reads 44
                    Movement{-100, 100, 141.42136f, 224, 11},    // 225 degrees reads 224
                    Movement{100, 100, 141.42136f, 135, 10},
                    Movement{3, 4, 5, 143, 10},
                    Movement{1000, -1, 1000.0005f, 89, 8},
                    Movement{0, 0, 0, INT_MIN, 6}));  // back where it started: 0/0

struct Sector {
    int angle;
    int direction;
};

class MovingDirection : public testing::TestWithParam<Sector> {};

// Verify the half-open sector ranges and the catch-all 6.
TEST_P(MovingDirection, Code) {
    EXPECT_EQ(CTouchPointInfo::GetMovingDirection(GetParam().angle), GetParam().direction);
}

INSTANTIATE_TEST_SUITE_P(All, MovingDirection,
                         testing::Values(Sector{0, 7}, Sector{44, 7}, Sector{45, 8},
                                         Sector{89, 8}, Sector{90, 9}, Sector{134, 9},
                                         Sector{135, 10}, Sector{179, 10}, Sector{180, 11},
                                         Sector{224, 11}, Sector{225, 12}, Sector{269, 12},
                                         Sector{270, 13}, Sector{314, 13}, Sector{315, 6},
                                         Sector{360, 6}, Sector{1000, 6}, Sector{-1, 6},
                                         Sector{INT_MIN, 6}));

}  // namespace
