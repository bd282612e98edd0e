// The UTF-8 text of a BSTR, which is freed (a null BSTR reads as empty).
#pragma once

#include <string>

#include "vorn/platform.h"

namespace vorn::test {

inline std::string TakeText(BSTR text) {
    std::string narrow = vorn::Narrow(std::u16string_view(text, SysStringLen(text)));
    SysFreeString(text);
    return narrow;
}

}  // namespace vorn::test
