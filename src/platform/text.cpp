// UTF-8 <-> UTF-16 conversion under the Win32 names, and case-insensitive
// comparison of wide strings.
//
// The narrow "current code page" of this platform is UTF-8: CP_ACP, CP_OEMCP,
// CP_THREAD_ACP and CP_UTF8 behave exactly like CP_UTF8 on Windows, with its
// flag rules (MB_ERR_INVALID_CHARS / WC_ERR_INVALID_CHARS only). Decoding is
// strict: overlong forms, encoded surrogates and values above U+10FFFF are
// invalid, and each maximal invalid subsequence becomes one U+FFFD; a lone
// surrogate in UTF-16 becomes U+FFFD too. Conversions never split a surrogate
// pair at the end of an output buffer. lstrcmpiW compares code units
// (Windows compares linguistically) after folding ASCII and Latin-1 letters
// to lower case.
#include <climits>
#include <cstring>
#include <string>

#include "internal.h"

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kInvalid = 0xFFFFFFFF;

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }
bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Checks the arguments both directions share; sets the last error and returns
// false when they are bad.
bool CheckArguments(UINT codePage, DWORD flags, DWORD allowedFlags, const void* input, int inputLength,
                    const void* output, int outputSize) {
    const bool utf8 = codePage == CP_ACP || codePage == CP_OEMCP || codePage == CP_THREAD_ACP || codePage == CP_UTF8;
    if (!utf8 || !input || inputLength == 0 || outputSize < 0 || (outputSize > 0 && !output)) {
        vorn::rt::SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (flags & ~allowedFlags) {
        vorn::rt::SetLastErrorCode(ERROR_INVALID_FLAGS);
        return false;
    }
    return true;
}

// Collects converted units: counts them, and stores them when a buffer of
// non-zero capacity was given.
template <class Unit>
class Output {
public:
    Output(Unit* buffer, int capacity) : buffer_(buffer), capacity_(capacity) {}

    // Appends n units; false (ERROR_INSUFFICIENT_BUFFER set) when they do not
    // fit in the buffer or the count would leave the int range.
    bool Put(const Unit* units, int n) {
        const int limit = capacity_ > 0 ? capacity_ : INT_MAX;
        if (n > limit - count_) {
            vorn::rt::SetLastErrorCode(ERROR_INSUFFICIENT_BUFFER);
            return false;
        }
        if (capacity_ > 0) std::memcpy(buffer_ + count_, units, n * sizeof(Unit));
        count_ += n;
        return true;
    }
    int count() const { return count_; }

private:
    Unit* buffer_;
    int capacity_;
    int count_ = 0;
};

// Decodes the UTF-8 sequence at s[0..n), n >= 1. Returns the bytes consumed:
// the whole sequence, or the maximal invalid subpart with *cp = kInvalid.
std::size_t DecodeUtf8(const unsigned char* s, std::size_t n, char32_t* cp) {
    const unsigned char lead = s[0];
    if (lead < 0x80) {
        *cp = lead;
        return 1;
    }
    std::size_t trail;
    char32_t value;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        trail = 1;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        trail = 2;
        value = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;   // overlong
        if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        trail = 3;
        value = lead & 0x07;
        if (lead == 0xF0) low = 0x90;   // overlong
        if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
        *cp = kInvalid;
        return 1;
    }
    for (std::size_t i = 1; i <= trail; ++i) {
        if (i >= n || s[i] < low || s[i] > high) {
            *cp = kInvalid;
            return i;
        }
        value = (value << 6) | (s[i] & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    *cp = value;
    return trail + 1;
}

int EncodeUtf16(char32_t cp, char16_t* out) {
    if (cp < 0x10000) {
        out[0] = static_cast<char16_t>(cp);
        return 1;
    }
    cp -= 0x10000;
    out[0] = static_cast<char16_t>(0xD800 + (cp >> 10));
    out[1] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    return 2;
}

int EncodeUtf8(char32_t cp, char* out) {
    auto byte = [](char32_t v) { return static_cast<char>(static_cast<unsigned char>(v)); };
    if (cp < 0x80) {
        out[0] = byte(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = byte(0xC0 | (cp >> 6));
        out[1] = byte(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = byte(0xE0 | (cp >> 12));
        out[1] = byte(0x80 | ((cp >> 6) & 0x3F));
        out[2] = byte(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = byte(0xF0 | (cp >> 18));
    out[1] = byte(0x80 | ((cp >> 12) & 0x3F));
    out[2] = byte(0x80 | ((cp >> 6) & 0x3F));
    out[3] = byte(0x80 | (cp & 0x3F));
    return 4;
}

OLECHAR FoldCase(OLECHAR c) {
    const bool asciiUpper = c >= u'A' && c <= u'Z';
    const bool latin1Upper = c >= 0xC0 && c <= 0xDE && c != 0xD7;
    return asciiUpper || latin1Upper ? static_cast<OLECHAR>(c + 0x20) : c;
}

// Compares two wide strings unit by unit after folding letter case; null
// sorts before any string. Returns -1, 0 or 1.
int CompareFolded(LPCWSTR a, LPCWSTR b) {
    if (!a || !b) return a ? 1 : (b ? -1 : 0);
    for (;; ++a, ++b) {
        const OLECHAR x = FoldCase(*a);
        const OLECHAR y = FoldCase(*b);
        if (x != y) return x < y ? -1 : 1;
        if (x == 0) return 0;
    }
}

}  // namespace

int WINAPI MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                               LPWSTR lpWideCharStr, int cchWideChar) {
    if (!CheckArguments(CodePage, dwFlags, MB_ERR_INVALID_CHARS, lpMultiByteStr, cbMultiByte, lpWideCharStr,
                        cchWideChar))
        return 0;
    const auto* input = reinterpret_cast<const unsigned char*>(lpMultiByteStr);
    const std::size_t length = cbMultiByte < 0 ? std::strlen(lpMultiByteStr) + 1 : std::size_t(cbMultiByte);
    Output<char16_t> output(lpWideCharStr, cchWideChar);
    for (std::size_t i = 0; i < length;) {
        if (input[i] < 0x80) {  // ASCII, most of every text here: one unit as it is
            const char16_t unit = input[i++];
            if (!output.Put(&unit, 1)) return 0;
            continue;
        }
        char32_t cp;
        i += DecodeUtf8(input + i, length - i, &cp);
        if (cp == kInvalid) {
            if (dwFlags & MB_ERR_INVALID_CHARS) {
                vorn::rt::SetLastErrorCode(ERROR_NO_UNICODE_TRANSLATION);
                return 0;
            }
            cp = kReplacement;
        }
        char16_t units[2];
        if (!output.Put(units, EncodeUtf16(cp, units))) return 0;
    }
    return output.count();
}

int WINAPI WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                               LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar, LPBOOL lpUsedDefaultChar) {
    if (!CheckArguments(CodePage, dwFlags, WC_ERR_INVALID_CHARS, lpWideCharStr, cchWideChar, lpMultiByteStr,
                        cbMultiByte))
        return 0;
    if (lpDefaultChar || lpUsedDefaultChar) {
        vorn::rt::SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const std::size_t length =
        cchWideChar < 0 ? std::char_traits<char16_t>::length(lpWideCharStr) + 1 : std::size_t(cchWideChar);
    Output<char> output(lpMultiByteStr, cbMultiByte);
    for (std::size_t i = 0; i < length;) {
        char32_t cp = lpWideCharStr[i++];
        if (IsHighSurrogate(cp) && i < length && IsLowSurrogate(lpWideCharStr[i])) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lpWideCharStr[i++] - 0xDC00);
        } else if (IsSurrogate(cp)) {
            if (dwFlags & WC_ERR_INVALID_CHARS) {
                vorn::rt::SetLastErrorCode(ERROR_NO_UNICODE_TRANSLATION);
                return 0;
            }
            cp = kReplacement;
        }
        char bytes[4];
        if (!output.Put(bytes, EncodeUtf8(cp, bytes))) return 0;
    }
    return output.count();
}

int WINAPI lstrcmpiW(LPCWSTR lpString1, LPCWSTR lpString2) { return CompareFolded(lpString1, lpString2); }
