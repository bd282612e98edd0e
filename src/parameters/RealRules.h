// The number rules of the real parameters: tolerant comparison, grid and
// decade steps, whole-hertz rounding and the step rules of the unit classes.
//
// All functions are pure and total: any double in, a double or a flag out;
// NaN compares as nothing (every test false). The tolerance of a reference
// value r is |r × 1e-12|; a reference of 0.0 has no tolerance at all, and
// IsEqual measures the tolerance on its first argument only. Both are relied
// upon by the range checks and the step rules and must stay as they are.
#pragma once

#include <cmath>

#include "parameters/Defaults.h"

namespace vorn::real {

inline double Tolerance(double r) noexcept { return std::fabs(r * 1e-12); }

// |a − b| ≤ tol(a).
inline bool IsEqual(double a, double b) noexcept { return std::fabs(a - b) <= Tolerance(a); }
// v lies below the limit by more than the limit's tolerance.
inline bool IsBelow(double v, double limit) noexcept { return v < limit - Tolerance(limit); }
// v lies above the limit by more than the limit's tolerance.
inline bool IsAbove(double v, double limit) noexcept { return v > limit + Tolerance(limit); }

// eSTEP_LARGE selects the large step; every other value the small one.
inline bool IsLarge(eSTEP step) noexcept { return EnumBits(step) == eSTEP_LARGE; }

// Grid steps of width s: a value off the grid snaps to the next multiple of
// s in the step's direction, a value on it (tolerantly) moves one step. A
// width of 0 has the grid point 0.
inline double StepUp(double x, double s) noexcept {
    const double q = s == 0.0 ? 0.0 : std::ceil(x / s) * s;
    return IsEqual(q, x) ? x + s : q;
}
inline double StepDown(double x, double s) noexcept {
    const double q = s == 0.0 ? 0.0 : std::floor(x / s) * s;
    return IsEqual(q, x) ? x - s : q;
}

// The power of ten at or below |x| (x not 0).
inline double DecadeOf(double x) noexcept { return std::pow(10.0, std::floor(std::log10(std::fabs(x)))); }

// Step widths of one decade (large) or a hundredth of it (small), never
// below the floor m. Going down from a power of ten uses the decade below, so
// 1000 steps down to 900 (large) or 999 (small).
inline double DecadeStepUp(eSTEP step, double x, double m) noexcept {
    if (std::fabs(x) < m || IsEqual(x, -m)) return m;
    const double d = DecadeOf(x);
    return IsLarge(step) ? d : d * 0.01;
}
inline double DecadeStepDown(eSTEP step, double x, double m) noexcept {
    if (std::fabs(x) < m || IsEqual(x, m)) return m;
    double d = DecadeOf(x);
    if (IsEqual(d, x)) d = d * 0.1;
    return IsLarge(step) ? d : d * 0.01;
}

// Whole-hertz rounding of a written frequency: the integer part, plus one
// when the fraction is at least 0.5. Negative values are truncated toward
// zero (-10.5 gives -10, -10.7 gives -10).
inline double RoundHertz(double v) noexcept {
    double i = 0.0;
    const double f = std::modf(v, &i);
    return f >= 0.5 ? i + 1.0 : i;
}

// Step rules of the unit classes: the next value up and down from x.
// Decibels: a grid of 10 dB (large) or 1 dB (small).
inline double DeciBelNext(double x, eSTEP step) noexcept { return StepUp(x, IsLarge(step) ? 10.0 : 1.0); }
inline double DeciBelPrevious(double x, eSTEP step) noexcept { return StepDown(x, IsLarge(step) ? 10.0 : 1.0); }

// Decade steps down to a floor of 1e-9 (times: 1 ns).
inline constexpr double kDecadeFloor = 1e-9;
inline double DecadeNext(double x, eSTEP step) noexcept { return StepUp(x, DecadeStepUp(step, x, kDecadeFloor)); }
inline double DecadePrevious(double x, eSTEP step) noexcept {
    return StepDown(x, DecadeStepDown(step, x, kDecadeFloor));
}

// Hertz: whole hertz below 100 Hz (both step sizes), decade steps above with
// a floor of 1 Hz.
inline double HertzNext(double x, eSTEP step) noexcept {
    return std::fabs(x) < 100.0 ? StepUp(x, 1.0) : StepUp(x, DecadeStepUp(step, x, 1.0));
}
inline double HertzPrevious(double x, eSTEP step) noexcept {
    return std::fabs(x) < 100.0 ? StepDown(x, 1.0) : StepDown(x, DecadeStepDown(step, x, 1.0));
}

// Ratios: the 1-2-5 sequence (small: 1, 2, 5, 10, 20, ...) or whole decades
// (large: ×10, ÷10). Only positive values lie on the sequence: from 0 or
// below, the next value up is 1 and there is none down (x itself).
inline double RatioNext(double x, eSTEP step) noexcept {
    if (!(x > 0.0)) return 1.0;
    if (IsLarge(step)) return x * 10.0;
    const double d = DecadeOf(x);
    for (const double m : {1.0, 2.0, 5.0, 10.0, 20.0}) {
        const double c = d * m;
        if (c > x && !IsEqual(c, x)) return c;
    }
    return d * 50.0;  // not reached: d ≤ x < 10 d, with d possibly one decade low
}
inline double RatioPrevious(double x, eSTEP step) noexcept {
    if (!(x > 0.0)) return x;
    if (IsLarge(step)) return x / 10.0;
    const double d = DecadeOf(x);
    for (const double m : {10.0, 5.0, 2.0, 1.0, 0.5}) {
        const double c = d * m;
        if (c < x && !IsEqual(c, x)) return c;
    }
    return d * 0.2;  // not reached
}

}  // namespace vorn::real
