// The number work of the marker rules on a trace: finding a marker's X among
// the trace's points, the four searches for a point near a target, snapping
// a target to the nearest point, and the decade steps of a large marker step.
//
// A trace's X points are ascending (frequencies, voltages, times as
// measured); on a trace that is not, the results are some point of the trace
// or none, never an index outside it. Every search is a binary search:
// logarithmic in the trace length (traces hold up to 102400 points).
//
// The comparisons are the tolerant ones of the real parameters
// (parameters/RealRules.h): with tol(r) = |r × 1e-12|, equal(a, b) is
// |a − b| ≤ tol(a) (the tolerance of the first argument, deliberately
// asymmetric), less(a, b) is a < b − tol(b), greater(a, b) is a > b + tol(b).
//
// All functions are pure and never fail: "no point" is -1.
#pragma once

#include <cstddef>

namespace vorn::marker {

// The trace point searches of the marker rules, by their mode numbers.
enum class ESearch : int {
    AtOrAbove = 0,  // the first point at or above the target
    AtOrBelow = 1,  // the last point at or below the target
    Next = 2,       // the point after the target's (the nearest above a target that is no point)
    Previous = 3,   // the point before the target's (the nearest below a target that is no point)
};

// The index of a point equal to x (equal(point, x)), or -1. A null array or
// n = 0 gives -1. Where two neighbouring points both count as equal, the
// nearer one (the lower on a tie).
long Find(const double* points, std::size_t n, double x) noexcept;

// The point the search `mode` finds from `target` among the points p with
// lower ≤ p ≤ upper (tolerantly: not less than lower, not greater than
// upper), or -1 when none qualifies:
//  - AtOrAbove: the first p not less than the target; AtOrBelow: the last p
//    not greater than it;
//  - Next: when the target equals point i, point i + 1 if there is one, else
//    point i itself; otherwise the first p greater than the target.
//    Previous is the mirror image (point i − 1, the last p less than it).
// A result outside [lower, upper] is no result.
long Search(const double* points, std::size_t n, double target, ESearch mode, double lower, double upper) noexcept;

// The point nearest to `target` within [lower, upper]: a = AtOrAbove,
// b = AtOrBelow; b when target − b ≤ a − target (a tie goes to the lower
// point), else a; the one that exists when only one does; -1 when neither.
long Snap(const double* points, std::size_t n, double target, double lower, double upper) noexcept;

// The decade step of a large marker step from v.
// Up: for |v| < 10, w = ceil(v / 10) × 10, and when w equals v,
// ceil((w + 1) / 10) × 10; otherwise 10^k with k = ceil(log10 |v|), or
// 10^(k+1) when that equals v exactly. Down: floor in place of ceil, w − 1 in
// place of w + 1, k − 1 in place of k + 1. For |v| ≥ 10 and v negative the
// direction is inverted on |v| and the sign restored.
double DecadeUp(double v) noexcept;
double DecadeDown(double v) noexcept;

}  // namespace vorn::marker
