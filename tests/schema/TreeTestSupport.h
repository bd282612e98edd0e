// Small helpers of the tests of the live tree.
#pragma once

#include <cstdint>
#include <string>

#include "vorn/platform.h"

namespace tree_test {

// A value no getter writes: an out pointer preset to it shows whether a
// failing getter stored its null.
inline void* const kUntouched = reinterpret_cast<void*>(static_cast<std::uintptr_t>(0x1));

// The (ASCII) text of a BSTR, which is freed.
inline std::string TakeText(BSTR text) {
    std::string out;
    for (UINT i = 0; text && i < SysStringLen(text); ++i) out.push_back(static_cast<char>(text[i]));
    SysFreeString(text);
    return out;
}

}  // namespace tree_test
