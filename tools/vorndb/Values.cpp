// Value parsing and formatting of the vorndb tool (see Values.h).
#include "Values.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vorndb {

namespace {

bool EqualsIgnoringCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const unsigned char x = static_cast<unsigned char>(a[i]);
        const unsigned char y = static_cast<unsigned char>(b[i]);
        if (std::tolower(x) != std::tolower(y)) return false;
    }
    return true;
}

// The exponent of a prefix at the start of `text`, and its length in bytes;
// false when `text` does not start with one. `beforeSymbol` admits "K".
bool ReadPrefix(const std::string& text, bool beforeSymbol, int* exponent, std::size_t* length) {
    if (text.compare(0, 2, "\xC2\xB5") == 0) {  // U+00B5 MICRO SIGN
        *exponent = -6;
        *length = 2;
        return true;
    }
    if (text.empty()) return false;
    *length = 1;
    switch (text[0]) {
        case 'f':
            *exponent = -15;
            return true;
        case 'p':
            *exponent = -12;
            return true;
        case 'n':
            *exponent = -9;
            return true;
        case 'u':
            *exponent = -6;
            return true;
        case 'm':
            *exponent = -3;
            return true;
        case 'k':
            *exponent = 3;
            return true;
        case 'K':
            *exponent = 3;
            return beforeSymbol;
        case 'M':
            *exponent = 6;
            return true;
        case 'G':
            *exponent = 9;
            return true;
        case 'T':
            *exponent = 12;
            return true;
        default:
            return false;
    }
}

ToolError Rejected(const std::string& text, const std::string& expected) {
    return ToolError(kExitRejected, "cannot read '" + text + "' as " + expected);
}

std::string ExpectedReal(std::uint32_t unit) {
    const std::string symbol = UnitSymbol(unit);
    if (symbol.empty()) return "a number";
    if (vorn::UnitTakesPrefixes(unit)) return "a number in " + symbol + " (prefixes f p n u m k M G T allowed)";
    return "a number in " + symbol;
}

}  // namespace

const char* FamilyName(Family family) {
    switch (family) {
        case Family::Group:
            return "group";
        case Family::Boolean:
            return "boolean";
        case Family::Integer:
            return "integer";
        case Family::Real:
            return "real";
        case Family::String:
            return "string";
        case Family::IntegerArray:
            return "int-array";
        case Family::RealArray:
            return "real-array";
        case Family::Buffer:
            return "buffer";
        case Family::Unknown:
            break;
    }
    return "unknown";
}

Family FamilyOfTypeCode(USHORT typeCode) {
    switch (typeCode) {
        case VT_BOOL:
            return Family::Boolean;
        case VT_UI4:
            return Family::Integer;
        case VT_R8:
            return Family::Real;
        case VT_BSTR:
            return Family::String;
        case VT_VECTOR | VT_UI4:
            return Family::IntegerArray;
        case VT_VECTOR | VT_R8:
            return Family::RealArray;
        case 0xA004:
            return Family::Buffer;
        default:
            return Family::Unknown;
    }
}

double ParseReal(const std::string& input, std::uint32_t unit) {
    const std::string text = Trim(input);
    const std::string expected = ExpectedReal(unit);
    if (text.empty()) throw Rejected(input, expected);
    // strtod would also take hexadecimal floats, "inf" and "nan": only plain
    // decimal numbers are values here.
    const char first = text[0];
    if (!(std::isdigit(static_cast<unsigned char>(first)) || first == '-' || first == '+' || first == '.'))
        throw Rejected(input, expected);
    const std::size_t digits = first == '-' || first == '+' ? 1 : 0;
    if (text.size() > digits + 1 && text[digits] == '0' && (text[digits + 1] == 'x' || text[digits + 1] == 'X'))
        throw Rejected(input, expected);
    errno = 0;
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || errno == ERANGE || !std::isfinite(number)) throw Rejected(input, expected);
    const std::string rest = Trim(std::string(end));
    if (rest.empty()) return number;

    const std::string symbol = UnitSymbol(unit);
    const bool linear = vorn::UnitTakesPrefixes(unit);
    if (!symbol.empty() && EqualsIgnoringCase(rest, symbol)) return number;
    int exponent = 0;
    std::size_t length = 0;
    // A prefix alone ("10k"), or a prefix and the unit ("10 kHz", "10 KHz");
    // the scaled value must still be a finite number ("1e308 THz" is not).
    if (linear && ((ReadPrefix(rest, false, &exponent, &length) && length == rest.size()) ||
                   (ReadPrefix(rest, true, &exponent, &length) && EqualsIgnoringCase(rest.substr(length), symbol)))) {
        const double scaled = number * std::pow(10.0, exponent);
        if (std::isfinite(scaled)) return scaled;
    }
    throw Rejected(input, expected);
}

std::uint32_t ParseInteger(const std::string& input) {
    const std::string text = Trim(input);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])))
        throw Rejected(input, "an unsigned integer (decimal or 0x hexadecimal)");
    errno = 0;
    char* end = nullptr;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const unsigned long long value = std::strtoull(text.c_str(), &end, hex ? 16 : 10);
    if (*end != '\0' || errno == ERANGE || value > 0xFFFFFFFFull)
        throw Rejected(input, "an unsigned integer of 32 bits (decimal or 0x hexadecimal)");
    return static_cast<std::uint32_t>(value);
}

bool ParseBoolean(const std::string& input) {
    const std::string text = Trim(input);
    for (const char* yes : {"true", "on", "yes", "1"})
        if (EqualsIgnoringCase(text, yes)) return true;
    for (const char* no : {"false", "off", "no", "0"})
        if (EqualsIgnoringCase(text, no)) return false;
    throw Rejected(input, "a boolean (true/false, on/off, yes/no, 1/0)");
}

std::string FormatEnum(std::uint32_t value, const std::vector<EnumMember>& members) {
    for (const EnumMember& m : members)
        if (static_cast<std::uint32_t>(m.value) == value) return m.name + " (" + std::to_string(value) + ")";
    return std::to_string(value);
}

std::uint32_t ParseEnum(const std::string& input, const std::string& enumName, const std::vector<EnumMember>& members) {
    const std::string text = Trim(input);
    // A number, unless it is a member name that starts with a digit ("1TO10").
    const bool number = !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) &&
                        (text.find_first_not_of("0123456789") == std::string::npos ||
                         (text.size() > 2 && (text[1] == 'x' || text[1] == 'X')));
    if (number) return ParseInteger(text);
    const std::string prefix = enumName + "_";
    for (const EnumMember& m : members) {
        if (EqualsIgnoringCase(text, m.name)) return static_cast<std::uint32_t>(m.value);
        if (m.name.size() > prefix.size() && EqualsIgnoringCase(m.name.substr(0, prefix.size()), prefix) &&
            EqualsIgnoringCase(text, m.name.substr(prefix.size())))
            return static_cast<std::uint32_t>(m.value);
    }
    std::string list;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (i == 12) {
            list += ", ... (" + std::to_string(members.size()) + " members; 'vorndb describe " + enumName + "')";
            break;
        }
        list += (i ? ", " : "") + members[i].name;
    }
    throw Rejected(input, "a member of " + enumName + " or a number: " + list);
}

std::string QuoteString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                    char hex[8];
                    std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
                    out += hex;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string UnquoteString(const std::string& text) {
    if (text.empty() || text[0] != '"') return text;
    std::string out;
    for (std::size_t i = 1; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            if (i + 1 != text.size()) throw Rejected(text, "a string (text after the closing quote)");
            return out;
        }
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i == text.size()) break;
        switch (text[i]) {
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'x': {
                if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
                    !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
                    throw Rejected(text, "a string (\\x needs two hexadecimal digits)");
                out += static_cast<char>(std::strtoul(text.substr(i + 1, 2).c_str(), nullptr, 16));
                i += 2;
                break;
            }
            default:
                throw Rejected(text, std::string("a string (unknown escape \\") + text[i] + ")");
        }
    }
    throw Rejected(text, "a string (missing closing quote)");
}

std::vector<std::string> SplitList(const std::string& text) {
    std::vector<std::string> items;
    if (Trim(text).empty()) return items;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        items.push_back(Trim(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return items;
}

std::string FormatList(std::size_t count, const std::function<std::string(std::size_t)>& item, std::size_t maxShown) {
    std::string out = "[";
    const std::size_t shown = maxShown == 0 || count <= maxShown ? count : maxShown;
    for (std::size_t i = 0; i < shown; ++i) out += (i ? ", " : "") + item(i);
    if (shown < count) out += (shown ? ", ..." : "...");
    out += "]";
    if (shown < count) out += " (" + std::to_string(count) + " items)";
    return out;
}

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace vorndb
