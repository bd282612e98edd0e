// GUID text: "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}".
//
// Formatting writes upper-case hex digits, as Windows does. Parsing accepts
// either case but only the full braced form of exactly 38 characters. A
// failed parse leaves the output GUID untouched.
#include "diagnostic.h"

namespace {

constexpr int kGuidChars = 38;  // without the terminator
constexpr char16_t kHexDigits[] = u"0123456789ABCDEF";

// Writes `digits` hex digits of value, most significant first.
OLECHAR* PutHex(OLECHAR* out, ULONGLONG value, int digits) {
    for (int i = digits - 1; i >= 0; --i) *out++ = kHexDigits[(value >> (4 * i)) & 0xF];
    return out;
}

void FormatGuid(REFGUID guid, OLECHAR* out) {
    *out++ = u'{';
    out = PutHex(out, guid.Data1, 8);
    *out++ = u'-';
    out = PutHex(out, guid.Data2, 4);
    *out++ = u'-';
    out = PutHex(out, guid.Data3, 4);
    *out++ = u'-';
    for (int i = 0; i < 8; ++i) {
        if (i == 2) *out++ = u'-';
        out = PutHex(out, guid.Data4[i], 2);
    }
    *out++ = u'}';
    *out = 0;
}

int HexValue(OLECHAR c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

// Reads `digits` hex digits at text[pos]; false on a non-digit.
bool GetHex(LPCOLESTR text, int pos, int digits, ULONGLONG* value) {
    ULONGLONG v = 0;
    for (int i = 0; i < digits; ++i) {
        const int d = HexValue(text[pos + i]);
        if (d < 0) return false;
        v = (v << 4) | static_cast<ULONGLONG>(d);
    }
    *value = v;
    return true;
}

// Parses the braced form; false for anything else (the text is read no
// further than its terminator).
bool ParseGuid(LPCOLESTR text, GUID* guid) {
    int length = 0;
    while (length <= kGuidChars && text[length]) ++length;
    if (length != kGuidChars || text[0] != u'{' || text[37] != u'}') return false;
    if (text[9] != u'-' || text[14] != u'-' || text[19] != u'-' || text[24] != u'-') return false;

    GUID parsed{};
    ULONGLONG v;
    if (!GetHex(text, 1, 8, &v)) return false;
    parsed.Data1 = static_cast<DWORD>(v);
    if (!GetHex(text, 10, 4, &v)) return false;
    parsed.Data2 = static_cast<WORD>(v);
    if (!GetHex(text, 15, 4, &v)) return false;
    parsed.Data3 = static_cast<WORD>(v);
    for (int i = 0; i < 8; ++i) {
        const int pos = i < 2 ? 20 + 2 * i : 25 + 2 * (i - 2);
        if (!GetHex(text, pos, 2, &v)) return false;
        parsed.Data4[i] = static_cast<BYTE>(v);
    }
    *guid = parsed;
    return true;
}

}  // namespace

int WINAPI StringFromGUID2(REFGUID rguid, LPOLESTR lpsz, int cchMax) {
    if (!lpsz || cchMax < kGuidChars + 1) return 0;
    FormatGuid(rguid, lpsz);
    return kGuidChars + 1;
}

bool vorn::rt::ParseGuidText(std::string_view text, GUID* guid) {
    if (text.size() != kGuidChars) return false;
    OLECHAR wide[kGuidChars + 1];
    for (int i = 0; i < kGuidChars; ++i) wide[i] = static_cast<unsigned char>(text[i]);
    wide[kGuidChars] = 0;
    return ParseGuid(wide, guid);
}
