// Numbers read from text as the C runtime reads them in the C locale
// (strtod), whatever locale the process has chosen: "1.5" is one and a half
// also where the decimal separator is a comma.
#pragma once

#include <locale.h>

#include <cstdlib>

namespace vorn {

// strtod in the C locale: the longest leading number (white space first,
// exponent form and "inf"/"nan" accepted), 0 with *end at `text` when there
// is none. `end` may be null.
inline double StrtodC(const char* text, char** end) noexcept {
    static const locale_t c = newlocale(LC_ALL_MASK, "C", locale_t{});
    return c ? strtod_l(text, end, c) : std::strtod(text, end);
}

}  // namespace vorn
