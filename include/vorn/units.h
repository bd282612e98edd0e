// The units of eUNIT as people read them: each unit's symbol, and real values
// written with it ("1.5 MHz", "-30 dBm"). The component words its failure
// reasons with these ("5 THz is above the upper limit 1 THz"), and clients
// such as the vorndb tool print values the same way.
//
// A value in a linear unit (s, V, Hz, K, A, W, rad, Hz/V, Hz/s, V/rad, s/pt)
// is scaled to an engineering prefix (f p n u m k M G T) so that its mantissa
// lies in [1, 1000): 1.5e6 Hz is "1.5 MHz". Logarithmic and dimensionless
// units (dB, dBm, dBc, dBc/Hz, dBV, dBV/Hz, deg, pts, V/V, none, ratio) are
// written unscaled: "-30 dBm". Twelve significant digits are kept, so whole
// hertz up to 100 GHz survive a round trip. The micro prefix is "u" (plain
// ASCII). A number outside eUNIT has the symbol "unit#N".
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace vorn {

struct SUnitText {
    const char* symbol;
    bool linear;  // takes engineering prefixes
};

// Indexed by eUNIT value.
inline constexpr SUnitText kUnitTexts[] = {
    {"", false},        // eUNIT_NONE
    {"", false},        // eUNIT_RATIO
    {"s", true},        // eUNIT_SEC
    {"V", true},        // eUNIT_VOLT
    {"Hz", true},       // eUNIT_HZ
    {"dBm", false},     // eUNIT_DBM
    {"deg", false},     // eUNIT_DEGREE
    {"dB", false},      // eUNIT_DB
    {"K", true},        // eUNIT_KELVIN
    {"dBc", false},     // eUNIT_DBC
    {"dBc/Hz", false},  // eUNIT_DBC_HZ
    {"Hz/V", true},     // eUNIT_HZ_VOLT
    {"Hz/s", true},     // eUNIT_HZ_SEC
    {"A", true},        // eUNIT_AMPS
    {"V/rad", true},    // eUNIT_VOLT_RADIAN
    {"pts", false},     // eUNIT_POINTS
    {"s/pt", true},     // eUNIT_SEC_POINT
    {"W", true},        // eUNIT_WATT
    {"rad", true},      // eUNIT_RAD
    {"dBV", false},     // eUNIT_DBV
    {"dBV/Hz", false},  // eUNIT_DBV_HZ
    {"V/V", false},     // eUNIT_VOLT_VOLT
};
inline constexpr std::uint32_t kUnitTextCount = sizeof kUnitTexts / sizeof kUnitTexts[0];

// "Hz", "dBc/Hz"; "" for none and ratio; "unit#N" outside eUNIT.
inline std::string UnitSymbol(std::uint32_t unit) {
    if (unit < kUnitTextCount) return kUnitTexts[unit].symbol;
    return "unit#" + std::to_string(unit);
}

// True for the linear units, which take engineering prefixes.
inline bool UnitTakesPrefixes(std::uint32_t unit) noexcept { return unit < kUnitTextCount && kUnitTexts[unit].linear; }

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
