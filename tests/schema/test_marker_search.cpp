// The marker rules' work on a trace's points: find, the four searches, the
// snap and the decade steps, on small tables of points.
#include <gtest/gtest.h>

#include <vector>

#include "schema/MarkerSearch.h"

using namespace vorn::marker;

namespace {

const std::vector<double> kPoints = {10, 20, 30, 40};

long SearchIn(ESearch mode, double target, double lower, double upper) {
    return Search(kPoints.data(), kPoints.size(), target, mode, lower, upper);
}

TEST(MarkerFind, EqualWithinTheElementsTolerance) {
    const struct {
        std::vector<double> points;
        double x;
        long expected;
    } rows[] = {
        {{}, 10, -1},
        {{10}, 10, 0},
        {{10}, 11, -1},
        {kPoints, 30 * (1 + 0.9e-12), 2},  // within |30 × 1e-12|
        {kPoints, 30 * (1 + 1.1e-12), -1},
        {kPoints, 40, 3},
        {{1e9, 1e9 * (1 + 0.5e-12)}, 1e9 * (1 + 0.4e-12), 1},  // both equal: the nearer one
    };
    for (const auto& row : rows) EXPECT_EQ(Find(row.points.data(), row.points.size(), row.x), row.expected) << row.x;
    EXPECT_EQ(Find(nullptr, 4, 10), -1);
}

TEST(MarkerSearch, FourModesWithinTheLimits) {
    const struct {
        ESearch mode;
        double target, lower, upper;
        long expected;
    } rows[] = {
        {ESearch::AtOrAbove, 25, 0, 1e12, 2},  {ESearch::AtOrAbove, 20, 0, 1e12, 1},
        {ESearch::AtOrAbove, 45, 0, 1e12, -1}, {ESearch::AtOrAbove, 5, 25, 1e12, 2},
        {ESearch::AtOrAbove, 25, 0, 29, -1},   {ESearch::AtOrBelow, 25, 0, 1e12, 1},
        {ESearch::AtOrBelow, 5, 0, 1e12, -1},  {ESearch::AtOrBelow, 45, 0, 35, 2},
        {ESearch::Next, 20, 0, 1e12, 2},       {ESearch::Next, 40, 0, 1e12, 3},  // the last point stays
        {ESearch::Next, 25, 0, 1e12, 2},       {ESearch::Next, 5, 0, 1e12, 0},
        {ESearch::Next, 30, 0, 35, -1},        {ESearch::Previous, 20, 0, 1e12, 0},
        {ESearch::Previous, 10, 0, 1e12, 0},   {ESearch::Previous, 25, 0, 1e12, 1},
        {ESearch::Previous, 5, 0, 1e12, -1},   {ESearch::Previous, 30, 25, 1e12, -1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(SearchIn(row.mode, row.target, row.lower, row.upper), row.expected)
            << static_cast<int>(row.mode) << " from " << row.target;
}

TEST(MarkerSnap, NearestPointTieToTheLower) {
    const struct {
        double target, lower, upper;
        long expected;
    } rows[] = {
        {15, 0, 1e12, 0}, {15.0001, 0, 1e12, 1}, {50, 0, 1e12, 3}, {1, 0, 1e12, 0}, {36, 0, 35, 2}, {25, 26, 1e12, 2},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Snap(kPoints.data(), kPoints.size(), row.target, row.lower, row.upper), row.expected) << row.target;
    EXPECT_EQ(Snap(kPoints.data(), kPoints.size(), 25, 31, 39), -1);
}

TEST(MarkerDecadeStep, UpAndDown) {
    const struct {
        double v, up, down;
    } rows[] = {
        {0, 10, -10},        {5, 10, 0},   {10, 100, 1},        {9.5, 10, 0},          {1000, 10000, 100},
        {1500, 10000, 1000}, {-5, 0, -10}, {-500, -100, -1000}, {-1000, -100, -10000}, {999999, 1e6, 1e5},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(DecadeUp(row.v), row.up) << row.v;
        EXPECT_EQ(DecadeDown(row.v), row.down) << row.v;
    }
}

}  // namespace
