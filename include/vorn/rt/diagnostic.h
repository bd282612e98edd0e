// The text of the last failure, for messages to people.
//
// The registry, the registrar, the library loader, resource and type-library
// functions return Win32 codes or HRESULTs as on Windows. Where a code alone
// does not tell what went wrong (the line of a damaged registry file or of a
// registration script, the loader's reason for refusing a module) they also
// leave a sentence here, per thread. Every such function clears the text when
// it starts, so after a failure the text belongs to that failure (or is empty
// when the function had nothing to add).
#pragma once

#include <string>

#include "vorn/rt/types.h"

// Copies the text into lpBuffer (which may be null when nSize is 0). Returns
// the length without terminator when it fits, else the size needed including
// the terminator (the text is then cut and terminated); 0 when there is none.
VORNAPI DWORD WINAPI VornGetLastErrorTextA(LPSTR lpBuffer, DWORD nSize);

// A diagnostic for whoever runs the program. There is no debugger channel on
// this platform: the text goes to standard error as it is, in one write
// (callers end their lines with "\n"). A null text writes nothing.
VORNAPI void WINAPI OutputDebugStringA(LPCSTR lpOutputString);

namespace vorn {

// The calling thread's failure text as a string ("" when there is none).
inline std::string LastErrorText() {
    std::string text(VornGetLastErrorTextA(nullptr, 0), '\0');
    if (!text.empty()) text.resize(VornGetLastErrorTextA(text.data(), static_cast<DWORD>(text.size())));
    return text;
}

}  // namespace vorn
