// Narrow/wide text conversion and wide-string helpers.
//
// The "current code page" of this platform is UTF-8: CP_ACP, CP_OEMCP,
// CP_THREAD_ACP and CP_UTF8 all convert between UTF-8 and UTF-16. Other code
// pages fail with ERROR_INVALID_PARAMETER. Invalid input is replaced by
// U+FFFD, or refused with ERROR_NO_UNICODE_TRANSLATION when
// MB_ERR_INVALID_CHARS / WC_ERR_INVALID_CHARS is given.
#pragma once

#include <string>
#include <string_view>

#include "vorn/rt/types.h"

#define CP_ACP 0u
#define CP_OEMCP 1u
#define CP_THREAD_ACP 3u
#define CP_UTF8 65001u
#define MB_ERR_INVALID_CHARS 0x00000008u
#define WC_ERR_INVALID_CHARS 0x00000080u

// cbMultiByte / cchWideChar -1 (any negative value): the input is
// null-terminated and the terminator is converted too. A zero output size
// returns the size needed. Returns the units written, 0 on failure
// (ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_PARAMETER, ERROR_INVALID_FLAGS for
// any flag but the *_ERR_INVALID_CHARS one, ERROR_NO_UNICODE_TRANSLATION).
VORNAPI int WINAPI MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                                       LPWSTR lpWideCharStr, int cchWideChar);
// lpDefaultChar must be null and lpUsedDefaultChar null (UTF-8 needs none).
VORNAPI int WINAPI WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                                       LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar,
                                       LPBOOL lpUsedDefaultChar);

// Case-insensitive comparison of wide strings: folds
// ASCII and Latin-1 letters only (Windows uses full Unicode tables); the
// names this system compares are ASCII.
VORNAPI int WINAPI lstrcmpiW(LPCWSTR lpString1, LPCWSTR lpString2);

namespace vorn {

// UTF-16 text of UTF-8 text and back, by the rules above (invalid input
// becomes U+FFFD). Throw std::bad_alloc.
inline std::u16string Widen(std::string_view text) {
    std::u16string out(text.size(), u'\0');
    const int n = text.empty() ? 0
                               : MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                                     static_cast<int>(out.size()));
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

inline std::string Narrow(std::u16string_view text) {
    std::string out(text.size() * 3, '\0');
    const int n = text.empty() ? 0
                               : WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                                     static_cast<int>(out.size()), nullptr, nullptr);
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

}  // namespace vorn
