// The marker rules' work on a trace's points: find, the four searches, the
// snap and the decade steps.
#include <gtest/gtest.h>

#include <vector>

#include "schema/MarkerSearch.h"

using namespace vorn::marker;

namespace {

const std::vector<double> kPoints = {10, 20, 30, 40};
constexpr double kAll = 1e12;

// Modes 0 to 3, the snap (-1 here) within [lower, upper], and find (-2)
// within the point's tolerance: tol(30) = 3e-11.
TEST(MarkerSearch, FindModesAndSnap) {
    const struct {
        int mode;
        double target, lower, upper;
        long expected;
    } rows[] = {
        // clang-format off
        {0, 25, 0, kAll, 2}, {0, 20, 0, kAll, 1}, {0, 45, 0, kAll, -1}, {0, 5, 25, kAll, 2}, {0, 25, 0, 29, -1},
        {1, 25, 0, kAll, 1}, {1, 5, 0, kAll, -1}, {1, 45, 0, 35, 2},
        {2, 20, 0, kAll, 2}, {2, 40, 0, kAll, 3}, {2, 25, 0, kAll, 2}, {2, 5, 0, kAll, 0}, {2, 30, 0, 35, -1},
        {3, 20, 0, kAll, 0}, {3, 10, 0, kAll, 0}, {3, 25, 0, kAll, 1}, {3, 5, 0, kAll, -1}, {3, 30, 25, kAll, -1},
        {-1, 15, 0, kAll, 0}, {-1, 15.0001, 0, kAll, 1}, {-1, 50, 0, kAll, 3}, {-1, 1, 0, kAll, 0},
        {-1, 36, 0, 35, 2}, {-1, 25, 26, kAll, 2}, {-1, 25, 31, 39, -1},
        {-2, 40, 0, 0, 3}, {-2, 30 * (1 + 0.9e-12), 0, 0, 2}, {-2, 30 * (1 + 1.1e-12), 0, 0, -1},
        // clang-format on
    };
    EXPECT_EQ(Find(nullptr, 0, 10), -1);
    const double pair[] = {1e9, 1e9 * (1 + 0.5e-12)};  // both equal to x: the nearer
    EXPECT_EQ(Find(pair, 2, 1e9 * (1 + 0.4e-12)), 1);
    for (const auto& row : rows) {
        const long found = row.mode == -2 ? Find(kPoints.data(), kPoints.size(), row.target)
                           : row.mode < 0 ? Snap(kPoints.data(), kPoints.size(), row.target, row.lower, row.upper)
                                          : Search(kPoints.data(), kPoints.size(), row.target,
                                                   static_cast<ESearch>(row.mode), row.lower, row.upper);
        EXPECT_EQ(found, row.expected) << "mode " << row.mode << " from " << row.target;
    }
}

TEST(MarkerDecadeStep, UpAndDown) {
    const struct {
        double v, up, down;
    } rows[] = {
        {0, 10, -10},     {5, 10, 0},         {10, 100, 1}, {9.5, 10, 0},        {1000, 10000, 100},
        {1500, 1e4, 1e3}, {999999, 1e6, 1e5}, {-5, 0, -10}, {-500, -100, -1000}, {-1000, -100, -10000},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(DecadeUp(row.v), row.up) << row.v;
        EXPECT_EQ(DecadeDown(row.v), row.down) << row.v;
    }
}

}  // namespace
