// The check of one limit line against one trace: see LimitCheck.h and
// docs/limitlines.md.
#include "schema/LimitCheck.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace vorn {

namespace {

// A value that was measured: finite and not the blanking value.
bool IsMeasured(double y) noexcept { return std::isfinite(y) && std::fabs(y) < 9.9e37; }

// The line's value at `x` on the segment from (a, ya) to (b, yb), a < b:
// log10 x on frequency axes when both ends are above 0, linear otherwise.
double Interpolate(double x, double a, double ya, double b, double yb, bool logarithmic) noexcept {
    const double t =
        logarithmic && a > 0 ? (std::log10(x) - std::log10(a)) / (std::log10(b) - std::log10(a)) : (x - a) / (b - a);
    return ya + t * (yb - ya);
}

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
        yOrigin = -INFINITY;
        for (std::size_t i = 0; i < m; ++i)
            if (IsMeasured(trace.y[i])) yOrigin = std::max(yOrigin, trace.y[i]);
        if (!std::isfinite(yOrigin)) return eLLRESULT_NA;
    }
    const double margin = std::isnan(line.margin) ? 0 : line.margin;
    const double inward = line.upper ? -margin : margin;

    std::vector<double> lx(n), ly(n);
    for (std::size_t i = 0; i < n; ++i) {
        double x = line.x[i] + line.xShift;
        if (line.xRelative) x = line.frequencyDomain ? xOrigin * x : xOrigin + x;
        if (!std::isfinite(x) || (i > 0 && x < lx[i - 1])) return eLLRESULT_NA;
        lx[i] = x;
        ly[i] = line.y[i] + line.yShift + yOrigin + inward;
    }

    const bool floor = line.upper && !std::isnan(line.threshold);
    bool judged = false;
    for (std::size_t i = 0; i < m; ++i) {
        const double x = trace.x[i], y = trace.y[i];
        if (!IsMeasured(y) || !(x >= lx.front() && x <= lx.back())) continue;
        if (floor && y <= line.threshold) continue;
        judged = true;
        const auto lo = std::lower_bound(lx.begin(), lx.end(), x);
        const auto hi = std::upper_bound(lo, lx.end(), x);
        const std::size_t j = static_cast<std::size_t>(lo - lx.begin());
        double limit;
        if (lo != hi) {
            // On a point of the line (a vertical step: the stricter value).
            const auto first = ly.begin() + static_cast<std::ptrdiff_t>(j);
            const auto last = first + (hi - lo);
            limit = line.upper ? *std::min_element(first, last) : *std::max_element(first, last);
        } else {
            limit = Interpolate(x, lx[j - 1], ly[j - 1], lx[j], ly[j], line.frequencyDomain);
        }
        const double tolerance = std::fabs(limit * 1e-12);
        if (line.upper ? y > limit + tolerance : y < limit - tolerance) return eLLRESULT_FAIL;
    }
    return judged ? eLLRESULT_PASS : eLLRESULT_NA;
}

}  // namespace vorn
