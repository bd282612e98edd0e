// The texts of the messages (eMESSAGE) that the measurement application
// shows in OptionStateInfo.Message, AltMessage1/2 and DelayedMessage, for
// clients that print them. Indexed by the member's value; "" for
// eMESSAGE_BLANK, null beyond the last member.
#pragma once

#include <cstdint>
#include <iterator>

namespace vorn {

inline constexpr const char* kMessageTexts[] = {
    "",
    "Invalid DC switching sequence",
    "Phase noise: no signal found",
    "Phase noise: signal frequency not within tolerance",
    "Phase noise: signal level not within tolerance",
    "No beat note found",
    "Beat note level too low",
    "No signal found",
    "Preamplifier off",
    "Level too low",
    "Level too high",
    "Zero-beat voltage out of range",
    "Invalid DC settings",
    "Cross-correlation: no beat note found",
    "Tuning port disconnected",
    "Frequency too low",
    "Cross-correlation: beat note levels do not match",
    "Delay line: tune to its maximum",
    "Delay line: tune to its minimum",
    "Delay line: tune to 0 V",
    "Delay line: a non-zero voltage is required",
    "Delay line: phase detector level too low",
    "Check the voltage connections",
    "Unable to compensate the voltage drop",
    "Cross-correlation: frequency too high",
    "Cross-correlation: frequency OK",
    "Tuning port disabled",
    "Power off",
    "No carrier",
    "External reference frequency reset",
    "AFC switched off: no tuning voltage enabled",
    "AFC: maximum number of iterations reached",
    "AFC: tuning granularity too coarse",
    "AFC: invalid data",
    "AFC: last frequency not reached",
    "AFC: target out of the tuning range",
    "AFC: flat tuning curve",
    "AFC values",
    "Check the tuning voltage range",
    "Apply the full signal",
    "Apply the pulsed signal",
    "Locating the carrier",
    "Premeasuring the carrier",
    "Premeasurement iteration",
    "Beat note iteration",
    "Beat note iteration (delay line)",
    "Tracking switched off: the DUT type does not drift",
    "No traces",
    "Signal level low: enable the preamplifier",
    "Beat note slope too low",
    "Beat note slope below the DC offset",
    "Beat note frequency below the low-pass filter",
    "Beat note: possibly a spur",
    "Normalizing",
    "Unusable calibration data",
    "Invalid calibration file",
    "Residual phase noise: no frequency",
    "Residual phase noise: no level",
    "Residual phase noise: no slope",
    "Invalid search settings",
    "Stepped tracking",
    "ADC overload",
    "Phase detector overload",
    "Sum of the supply currents too large",
};

// The text of message `value`; null when it is not a member (eMESSAGE_MAX and
// beyond).
inline const char* MessageText(std::uint32_t value) noexcept {
    return value < std::size(kMessageTexts) ? kMessageTexts[value] : nullptr;
}

}  // namespace vorn
