// The per-thread failure text behind VornGetLastErrorTextA (vorn/rt/diagnostic.h),
// and the text conversions (UTF-8/UTF-16, GUID text) the registry, registrar,
// loader, activation and type library share. Internal to the runtime.
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

// UTF-16 -> UTF-8 and back; invalid sequences become U+FFFD. Throw
// std::bad_alloc.
std::string Utf8(std::u16string_view text);
std::u16string Utf16(std::string_view text);

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" (upper case, as the registry holds
// class and library identifiers). Throws std::bad_alloc.
std::string GuidText(REFGUID guid);
// Parses the braced form (either letter case, exactly 38 characters); false
// for anything else, *guid then untouched.
bool ParseGuidText(std::string_view text, GUID* guid);

}  // namespace vorn::rt
