// The marker rules' work on a trace's points: see MarkerSearch.h.
#include "schema/MarkerSearch.h"

#include <algorithm>
#include <cmath>

#include "parameters/RealRules.h"

namespace vorn::marker {

namespace {

using real::IsAbove;
using real::IsBelow;
using real::IsEqual;

// The first index whose point is not less than v (n when none is).
long FirstNotLess(const double* points, std::size_t n, double v) noexcept {
    return std::partition_point(points, points + n, [v](double p) { return IsBelow(p, v); }) - points;
}

// The first index whose point is greater than v (n when none is).
long FirstGreater(const double* points, std::size_t n, double v) noexcept {
    return std::partition_point(points, points + n, [v](double p) { return !IsAbove(p, v); }) - points;
}

// i when it indexes a point within [lower, upper], else -1.
long WithinLimits(const double* points, std::size_t n, long i, double lower, double upper) noexcept {
    if (i < 0 || static_cast<std::size_t>(i) >= n) return -1;
    return IsBelow(points[i], lower) || IsAbove(points[i], upper) ? -1 : i;
}

// 10^k for |v| ≥ 10: the power at or above |v| (one decade further when |v|
// is that power), or at or below it (one decade lower when it is).
double PowerAbove(double magnitude) noexcept {
    const double k = std::ceil(std::log10(magnitude));
    const double w = std::pow(10.0, k);
    return w == magnitude ? std::pow(10.0, k + 1) : w;
}
double PowerBelow(double magnitude) noexcept {
    const double k = std::floor(std::log10(magnitude));
    const double w = std::pow(10.0, k);
    return w == magnitude ? std::pow(10.0, k - 1) : w;
}

}  // namespace

long Find(const double* points, std::size_t n, double x) noexcept {
    if (!points || n == 0) return -1;
    if (n == 1) return IsEqual(points[0], x) ? 0 : -1;
    const long i = std::lower_bound(points, points + n, x) - points;
    long found = static_cast<std::size_t>(i) < n && IsEqual(points[i], x) ? i : -1;
    if (i > 0 && IsEqual(points[i - 1], x) && (found < 0 || x - points[i - 1] <= points[i] - x)) found = i - 1;
    return found;
}

long Search(const double* points, std::size_t n, double target, ESearch mode, double lower, double upper) noexcept {
    if (!points || n == 0) return -1;
    long i = -1;
    switch (mode) {
        case ESearch::AtOrAbove:
            i = std::max(FirstNotLess(points, n, target), FirstNotLess(points, n, lower));
            break;
        case ESearch::AtOrBelow:
            i = std::min(FirstGreater(points, n, target), FirstGreater(points, n, upper)) - 1;
            break;
        case ESearch::Next:
            if (const long k = Find(points, n, target); k >= 0)
                i = static_cast<std::size_t>(k) + 1 < n ? k + 1 : k;
            else
                i = FirstGreater(points, n, target);
            break;
        case ESearch::Previous:
            if (const long k = Find(points, n, target); k >= 0)
                i = k > 0 ? k - 1 : k;
            else
                i = FirstNotLess(points, n, target) - 1;
            break;
    }
    return WithinLimits(points, n, i, lower, upper);
}

long Snap(const double* points, std::size_t n, double target, double lower, double upper) noexcept {
    const long above = Search(points, n, target, ESearch::AtOrAbove, lower, upper);
    const long below = Search(points, n, target, ESearch::AtOrBelow, lower, upper);
    if (above < 0 || below < 0) return above < 0 ? below : above;
    return target - points[below] <= points[above] - target ? below : above;
}

double DecadeUp(double v) noexcept {
    if (std::fabs(v) < 10.0) {
        const double w = std::ceil(v / 10.0) * 10.0;
        return w == v ? std::ceil((w + 1.0) / 10.0) * 10.0 : w;
    }
    return v < 0.0 ? -PowerBelow(-v) : PowerAbove(v);
}

double DecadeDown(double v) noexcept {
    if (std::fabs(v) < 10.0) {
        const double w = std::floor(v / 10.0) * 10.0;
        return w == v ? std::floor((w - 1.0) / 10.0) * 10.0 : w;
    }
    return v < 0.0 ? -PowerAbove(-v) : PowerBelow(v);
}

}  // namespace vorn::marker
