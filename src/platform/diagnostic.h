// The per-thread failure text behind VornGetLastErrorTextA (vorn/rt/diagnostic.h),
// and the GUID text the registry, registrar, activation and type library
// share. Internal to the runtime.
#pragma once

#include <string>
#include <string_view>

#include "vorn/platform.h"

namespace vorn::rt {

// Clears the calling thread's failure text; called first by every public
// function that may set it.
void ClearErrorText() noexcept;
// Replaces the calling thread's failure text. Never throws (an allocation
// failure leaves the text empty).
void SetErrorText(std::string_view text) noexcept;

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" (upper case, as the registry holds
// class and library identifiers). Throws std::bad_alloc.
std::string GuidText(REFGUID guid);
// Parses the braced form (either letter case, exactly 38 characters); false
// for anything else, *guid then untouched.
bool ParseGuidText(std::string_view text, GUID* guid);

}  // namespace vorn::rt
