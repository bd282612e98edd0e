// The error information a failed call left on the calling thread, for the
// tests of failure reasons: TakeError() takes the thread's error object
// (GetErrorInfo, which empties the slot) and returns what it says. A test
// that takes it after every failure thus also sees a failure that set none.
#pragma once

#include <string>

#include "support/Text.h"
#include "vorn/platform.h"

namespace vorn::test {

struct SReportedError {
    bool present = false;
    GUID guid = GUID_NULL;
    std::string source;
    std::string description;
};

inline SReportedError TakeError() {
    SReportedError error;
    ComPtr<IErrorInfo> info;
    if (GetErrorInfo(0, info.put()) != S_OK) return error;
    error.present = true;
    info->GetGUID(&error.guid);
    BSTR text = nullptr;
    info->GetSource(&text);
    error.source = TakeText(text);
    text = nullptr;
    info->GetDescription(&text);
    error.description = TakeText(text);
    return error;
}

}  // namespace vorn::test
