// The check of one limit line against one trace: see LimitCheck.h and
// docs/limitlines.md.
#include "schema/LimitCheck.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace vorn {

namespace {

// A value that was measured: finite and not the blanking value.
bool IsMeasured(double y) noexcept { return std::isfinite(y) && std::fabs(y) < 9.9e37; }

}  // namespace

eLLRESULT CheckLimitLine(const SLimitLine& line, const STraceData& trace) noexcept {
    const std::size_t n = std::min({line.count, line.x.size(), line.y.size()});
    const std::size_t m = std::min(trace.x.size(), trace.y.size());
    if (n < 2 || trace.mode == eMODE_BLANK || m == 0) return eLLRESULT_NA;

    // Where relative values are measured from: the trace's first x, its
    // largest measured y.
    const double xOrigin = trace.x[0];
    double yOrigin = 0;
    if (line.yRelative) {
        yOrigin = -std::numeric_limits<double>::infinity();
        for (std::size_t i = 0; i < m; ++i)
            if (IsMeasured(trace.y[i])) yOrigin = std::max(yOrigin, trace.y[i]);
        if (!std::isfinite(yOrigin)) return eLLRESULT_NA;
    }
    const double margin = std::isnan(line.margin) ? 0 : line.margin;
    const double inward = line.upper ? -margin : margin;

    // The line's points as judged, and log10 of their x on frequency axes.
    std::vector<double> lx(n), ly(n), lg(n);
    for (std::size_t i = 0; i < n; ++i) {
        double x = line.x[i] + line.xShift;
        if (line.xRelative) x = line.frequencyDomain ? xOrigin * x : xOrigin + x;
        if (!std::isfinite(x) || (i > 0 && x < lx[i - 1])) return eLLRESULT_NA;
        lx[i] = x;
        ly[i] = line.y[i] + line.yShift + yOrigin + inward;
        lg[i] = x > 0 ? std::log10(x) : 0;
    }

    // Whether `y` fails against the line's value `limit`: tolerant, so that a
    // point exactly on the line passes whatever the rounding.
    const auto beyond = [upper = line.upper](double y, double limit) {
        const double tolerance = std::fabs(limit * 1e-12);
        return upper ? y > limit + tolerance : y < limit - tolerance;
    };
    const bool floor = line.upper && !std::isnan(line.threshold);
    bool judged = false;
    // The segment (lx[j-1], lx[j]) of the last point judged between two line
    // points; 0 for none. Traces run left to right, so the next point mostly
    // lies on the same segment and needs no search.
    std::size_t j = 0;
    for (std::size_t i = 0; i < m; ++i) {
        const double x = trace.x[i], y = trace.y[i];
        if (!IsMeasured(y) || !(x >= lx.front() && x <= lx.back())) continue;
        if (floor && y <= line.threshold) continue;
        judged = true;
        if (!(j > 0 && lx[j - 1] < x && x < lx[j])) {
            const auto lo = std::lower_bound(lx.begin(), lx.end(), x);
            const auto hi = std::upper_bound(lo, lx.end(), x);
            if (lo != hi) {
                // On a point of the line (a vertical step: the stricter value).
                const auto first = ly.begin() + (lo - lx.begin());
                const auto last = first + (hi - lo);
                const double limit = line.upper ? *std::min_element(first, last) : *std::max_element(first, last);
                j = 0;
                if (beyond(y, limit)) return eLLRESULT_FAIL;
                continue;
            }
            j = static_cast<std::size_t>(lo - lx.begin());
        }
        // Between two points the line lies between their values: a point on
        // the right side of both passes without interpolating.
        const double ya = ly[j - 1], yb = ly[j];
        if (line.upper ? y <= std::min(ya, yb) : y >= std::max(ya, yb)) continue;
        // On a logarithmic frequency axis the segment is straight in log10 x,
        // unless it starts at or below 0 Hz.
        const double t = line.frequencyDomain && lx[j - 1] > 0 ? (std::log10(x) - lg[j - 1]) / (lg[j] - lg[j - 1])
                                                               : (x - lx[j - 1]) / (lx[j] - lx[j - 1]);
        const double limit = ya + t * (yb - ya);
        if (beyond(y, limit)) return eLLRESULT_FAIL;
    }
    return judged ? eLLRESULT_PASS : eLLRESULT_NA;
}

}  // namespace vorn
