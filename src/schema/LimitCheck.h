// The check of one limit line against one trace, free of the tree: the
// line's points, kind, shifts, margin and threshold in, an eLLRESULT out.
// docs/limitlines.md gives the rules and their reasons; the overall result
// (src/schema/LimitLines.h) reads the tree and calls this for each line.
#pragma once

#include <cstddef>
#include <span>

#include "vorn/enums.h"

namespace vorn {

// One limit line as the check sees it. `x` and `y` hold the points as stored
// (PointX, PointY); `count` is PointCount (the shorter array bounds it).
// `margin` and `threshold` are NaN when unset.
struct SLimitLine {
    std::span<const double> x;
    std::span<const double> y;
    std::size_t count = 0;
    bool upper = true;            // Limit eLIMIT_UPPER; false: eLIMIT_LOWER
    bool frequencyDomain = true;  // Domain eDOMAIN_FREQ: log10 x interpolation
    bool xRelative = false;       // XScaling eXSCALING_RELATIVE
    bool yRelative = false;       // YScaling eYSCALING_RELATIVE
    double xShift = 0;
    double yShift = 0;
    double margin = 0;
    double threshold = 0;
};

// One trace: its x and y values (the shorter array bounds the points) and
// its TraceMode.
struct STraceData {
    std::span<const double> x;
    std::span<const double> y;
    unsigned mode = eMODE_CLRWRT;
};

// The value transient traces hold at points they have not measured.
inline constexpr double kBlankedValue = 9.91e37;

// The verdict of `line` on `trace`: eLLRESULT_NA when the line has fewer than
// two points or x values that decrease, when the trace is blank, or when no
// trace point lies in the line's x range with a judged value; else
// eLLRESULT_FAIL when a judged point lies beyond the line (moved inward by
// the margin), else eLLRESULT_PASS. A point exactly on the line passes.
// Never throws.
eLLRESULT CheckLimitLine(const SLimitLine& line, const STraceData& trace) noexcept;

}  // namespace vorn
