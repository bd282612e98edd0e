// The per-line limit check on small hand-computed cases.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "schema/LimitCheck.h"

using namespace vorn;

namespace {

struct SCase {
    std::string name;
    std::vector<double> lx, ly;  // the line's points (PointCount = their number)
    std::vector<double> tx, ty;  // the trace
    eLLRESULT expected;
    // What differs from an upper frequency-domain line without shifts,
    // margin or threshold over a trace in clear/write mode: "lower", "time",
    // "x relative", "y relative", "x shift N", "y shift N", "margin N",
    // "threshold N", "blank" (the trace's mode), separated by ", ".
    std::string options;

    // The number after `option` in the options; `absent` when not given.
    double Option(const std::string& option, double absent) const {
        const std::size_t at = options.find(option + " ");
        return at == std::string::npos ? absent : std::stod(options.substr(at + option.size() + 1));
    }
    bool Has(const std::string& option) const { return options.find(option) != std::string::npos; }
};

// (1 kHz, -100) to (100 kHz, -140): -120 at 10 kHz on the log axis.
const std::vector<double> kX = {1e3, 1e5}, kY = {-100, -140};
// A V on a linear axis: (0, 10), (10, 0), (20, 10); points of a trace on it.
const std::vector<double> kV = {0, 10, 20}, kVy = {10, 0, 10}, kWalk = {1, 5, 9, 10, 11, 15, 19};

TEST(LimitCheck, HandComputedCases) {
    const SCase cases[] = {
        {"exactly on the line", kX, kY, {1e4}, {-120}, eLLRESULT_PASS},
        {"just above", kX, kY, {1e4}, {-119.9}, eLLRESULT_FAIL},
        {"below", kX, kY, {1e4}, {-120.1}, eLLRESULT_PASS},
        {"lower: on the line", kX, kY, {1e4}, {-120}, eLLRESULT_PASS, "lower"},
        {"lower: below", kX, kY, {1e4}, {-120.1}, eLLRESULT_FAIL, "lower"},
        {"on a corner", kX, kY, {1e3, 1e5}, {-100, -140}, eLLRESULT_PASS},
        {"log axis, not linear", {1, 100}, {0, 20}, {10}, {9}, eLLRESULT_PASS},
        {"time: linear", {0, 100}, {0, 100}, {50}, {50.1}, eLLRESULT_FAIL, "time"},
        {"time: on the line", {0, 100}, {0, 100}, {50}, {50}, eLLRESULT_PASS, "time"},
        {"outside the x range", kX, kY, {10, 1e6}, {0, 0}, eLLRESULT_NA},
        {"one point is no line", {1e3}, {-100}, {1e3}, {-200}, eLLRESULT_NA},
        {"decreasing x", {1e5, 1e3}, kY, {1e4}, {-200}, eLLRESULT_NA},
        {"no trace points", kX, kY, {}, {}, eLLRESULT_NA},
        {"blank trace", kX, kY, {1e4}, {-200}, eLLRESULT_NA, "blank"},
        {"blanked points", kX, kY, {1e4}, {9.91e37}, eLLRESULT_NA},
        {"margin moves the line in", kX, kY, {1e4}, {-122}, eLLRESULT_FAIL, "margin 3"},
        {"margin: on the moved line", kX, kY, {1e4}, {-123}, eLLRESULT_PASS, "margin 3"},
        {"lower margin", kX, kY, {1e4}, {-118}, eLLRESULT_FAIL, "lower, margin 3"},
        {"threshold: floor not judged", kX, {-170, -170}, {1e4}, {-160}, eLLRESULT_NA, "threshold -155"},
        {"threshold: above the floor", kX, {-170, -170}, {1e4}, {-150}, eLLRESULT_FAIL, "threshold -155"},
        {"threshold: lower line ignores it", kX, {-170, -170}, {1e4}, {-180}, eLLRESULT_FAIL, "lower, threshold -155"},
        {"y shift", kX, kY, {1e4}, {-112}, eLLRESULT_PASS, "y shift 10"},
        {"y shift: above", kX, kY, {1e4}, {-108}, eLLRESULT_FAIL, "y shift 10"},
        {"x shift", {0, 100}, {0, 100}, {60}, {50.5}, eLLRESULT_FAIL, "time, x shift 10"},
        {"vertical step: stricter value", {0, 5, 5, 10}, {10, 10, 0, 0}, {5}, {5}, eLLRESULT_FAIL, "time"},
        {"vertical step: before it", {0, 5, 5, 10}, {10, 10, 0, 0}, {4}, {5}, eLLRESULT_PASS, "time"},
        // A trace walking over the segments of a V, each point on the line.
        {"walk: on every segment", kV, kVy, kWalk, {9, 5, 1, 0, 1, 5, 9}, eLLRESULT_PASS, "time"},
        {"walk: one point above", kV, kVy, kWalk, {9, 5, 1, 0, 1, 5.1, 9}, eLLRESULT_FAIL, "time"},
        {"walk: out of order", kV, {0, 10, 0}, {15, 5, 15}, {5, 5.1, 5}, eLLRESULT_FAIL, "time"},
        {"x relative to the start", {0, 2}, {1, 1}, {10, 11, 13}, {0.5, 0.5, 5}, eLLRESULT_PASS, "time, x relative"},
        {"x relative, log axis", {1, 10}, {-100, -100}, {1e3, 1e4, 2e4}, {-101, -99, 0}, eLLRESULT_FAIL, "x relative"},
        {"y relative to the peak", {0, 10}, {-3, -3}, {0, 5, 20}, {-4, -3, -1}, eLLRESULT_FAIL, "time, y relative"},
    };
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.name);
        const SLimitLine line{c.lx,
                              c.ly,
                              c.lx.size(),
                              !c.Has("lower"),
                              !c.Has("time"),
                              c.Has("x relative"),
                              c.Has("y relative"),
                              c.Option("x shift", 0),
                              c.Option("y shift", 0),
                              c.Option("margin", NAN),
                              c.Option("threshold", NAN)};
        EXPECT_EQ(CheckLimitLine(line, {c.tx, c.ty, c.Has("blank") ? unsigned{eMODE_BLANK} : unsigned{eMODE_CLRWRT}}),
                  c.expected);
    }
}

}  // namespace
