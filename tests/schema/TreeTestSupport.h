// Small helpers of the tests of the live tree.
#pragma once

#include <string>

#include "vorn/platform.h"

namespace tree_test {

// The (ASCII) text of a BSTR, which is freed.
inline std::string TakeText(BSTR text) {
    std::string out;
    for (UINT i = 0; text && i < SysStringLen(text); ++i) out.push_back(static_cast<char>(text[i]));
    SysFreeString(text);
    return out;
}

}  // namespace tree_test
