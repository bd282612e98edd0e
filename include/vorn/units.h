// The units of eUNIT as people read them, and real values written with them
// ("1.5 MHz", "-30 dBm"). The component words its failure reasons with these
// ("5 THz is above the upper limit 1 THz"), and clients such as the vorndb
// tool print values the same way.
//
// Each unit's symbol, and whether it takes engineering prefixes, come from
// the schema (kUnitSymbols in vorn/enums.h). A value in a prefixed unit (Hz,
// s, V, ...) is scaled to a prefix (f p n u m k M G T) so that its mantissa
// lies in [1, 1000): 1.5e6 Hz is "1.5 MHz". Logarithmic and dimensionless
// units (dBm, dBc/Hz, deg, ...) are written unscaled: "-30 dBm". Twelve
// significant digits are kept, so whole hertz up to 100 GHz survive a round
// trip. The micro prefix is "u" (plain ASCII). A number outside eUNIT has the
// symbol "unit#N".
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vorn/enums.h"

namespace vorn {

inline constexpr std::uint32_t kUnitCount = sizeof kUnitSymbols / sizeof kUnitSymbols[0];

// "Hz", "dBc/Hz"; "" for none and ratio; "unit#N" outside eUNIT.
inline std::string UnitSymbol(std::uint32_t unit) {
    if (unit < kUnitCount && kUnitSymbols[unit].symbol) return kUnitSymbols[unit].symbol;
    return "unit#" + std::to_string(unit);
}

// True for the linear units, which take engineering prefixes.
inline bool UnitTakesPrefixes(std::uint32_t unit) noexcept { return unit < kUnitCount && kUnitSymbols[unit].prefixed; }

// A value with its unit, as described above: "1.5 MHz", "-30 dBm", "0 s",
// "12345.5" (no unit).
inline std::string FormatReal(double value, std::uint32_t unit) {
    const auto number = [](double v) {
        char text[40];
        std::snprintf(text, sizeof text, "%.12g", v);
        return std::string(text);
    };
    const std::string symbol = UnitSymbol(unit);
    if (!UnitTakesPrefixes(unit) || value == 0.0 || !std::isfinite(value))
        return symbol.empty() ? number(value) : number(value) + " " + symbol;
    int exponent = static_cast<int>(std::floor(std::log10(std::fabs(value)) / 3.0)) * 3;
    if (exponent < -15) exponent = -15;
    if (exponent > 12) exponent = 12;
    double mantissa = value / std::pow(10.0, exponent);
    // Rounding to twelve digits can carry into the next prefix (999.9999999999999).
    // strtod, not stod: a subnormal mantissa is a value, not an error.
    if (std::fabs(std::strtod(number(mantissa).c_str(), nullptr)) >= 1000.0 && exponent < 12) {
        exponent += 3;
        mantissa = value / std::pow(10.0, exponent);
    }
    constexpr const char* kPrefixes[] = {"f", "p", "n", "u", "m", "", "k", "M", "G", "T"};  // 10^-15 .. 10^12
    return number(mantissa) + " " + kPrefixes[(exponent + 15) / 3] + symbol;
}

}  // namespace vorn
