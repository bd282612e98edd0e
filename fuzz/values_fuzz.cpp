// libFuzzer target: the vorndb tool's value parsers (tools/vorndb/Values.h)
// on arbitrary text. The first byte picks the parser, the second the unit (of
// a real) or the enumeration of the schema (of an enumeration value); the
// rest is the text.
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - a parser either returns or throws ToolError with kExitRejected (any
//     other exception reaches libFuzzer as a crash);
//   - reals: an accepted value is finite, and formatting it in its unit and
//     parsing that text gives the same value within the printed rounding
//     (twelve significant digits); lists of reals, item by item;
//   - integers, booleans, enumeration values: what the tool prints for an
//     accepted value (decimal, hexadecimal, true/false, the member name)
//     parses back to it;
//   - strings: quoting the unquoted text gives a line without control
//     characters that unquotes to the same text.
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "Values.h"
#include "fuzz_support.h"
#include "schema/Metadata.h"

namespace {

using vorn::fuzz::Expect;
using vorn::fuzz::Fail;
using vorndb::ToolError;

// Units past the enumeration print as "unit#N" and must work too.
constexpr std::uint32_t kUnitsTried = 24;

// Runs `parse`; false when it rejects the text as the tool documents.
template <class Parse>
bool Accepts(Parse&& parse) {
    try {
        parse();
        return true;
    } catch (const ToolError& error) {
        if (error.code() != vorndb::kExitRejected) Fail("a parser failed with another exit code", error.what());
        return false;
    }
}

bool Close(double a, double b) {
    const double difference = std::fabs(a - b);
    return difference <= 1e-11 * std::fabs(a) || difference <= 4 * std::numeric_limits<double>::denorm_min();
}

void CheckReal(const std::string& text, std::uint32_t unit) {
    double value = 0;
    if (!Accepts([&] { value = vorndb::ParseReal(text, unit); })) return;
    // Known fault of the tool (fuzz_support.h): a prefix can carry a finite
    // number past the largest double ("1e308 THz" gives +inf).
    if (vorn::fuzz::KnownPrefixOverflowFault(std::strtod(vorndb::Trim(text).c_str(), nullptr), value)) return;
    Expect(std::isfinite(value), "an accepted real that is not finite");
    // Known fault of the tool (fuzz_support.h): printing a real below about
    // 2e-323 throws.
    if (vorn::fuzz::KnownTinyRealFault(value)) return;
    const std::string printed = vorndb::FormatReal(value, unit);
    double again = 0;
    if (!Accepts([&] { again = vorndb::ParseReal(printed, unit); }))
        Fail("a printed real does not parse back", text + " -> " + printed);
    if (!Close(value, again)) Fail("a printed real parses back to another value", text + " -> " + printed);
}

void CheckInteger(const std::string& text) {
    std::uint32_t value = 0;
    if (!Accepts([&] { value = vorndb::ParseInteger(text); })) return;
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%" PRIX32, value);
    Expect(vorndb::ParseInteger(std::to_string(value)) == value && vorndb::ParseInteger(hex) == value,
           "a printed integer parses back to another value");
}

void CheckBoolean(const std::string& text) {
    bool value = false;
    if (!Accepts([&] { value = vorndb::ParseBoolean(text); })) return;
    Expect(vorndb::ParseBoolean(value ? "true" : "false") == value, "a printed boolean parses back to another value");
}

void CheckEnum(const std::string& text, std::uint32_t pick) {
    const auto& schema = vorn::schema::GetSchemaMetadata();
    const std::uint32_t index = pick % static_cast<std::uint32_t>(schema.enumerations.size());
    const std::string enumName = schema.enumerations[index].name;
    std::vector<vorndb::EnumMember> members;
    for (const auto& m : vorn::schema::MembersOfEnumeration(index)) members.push_back({m.name, m.value});
    std::uint32_t value = 0;
    if (!Accepts([&] { value = vorndb::ParseEnum(text, enumName, members); })) return;
    Expect(vorndb::ParseEnum(std::to_string(value), enumName, members) == value,
           "an enumeration value's number parses back to another value");
    const std::string printed = vorndb::FormatEnum(value, members);
    const std::size_t space = printed.find(" (");
    if (space != std::string::npos)
        Expect(vorndb::ParseEnum(printed.substr(0, space), enumName, members) == value,
               "an enumeration value's member name parses back to another value");
}

void CheckString(const std::string& text) {
    std::string value;
    if (!Accepts([&] { value = vorndb::UnquoteString(text); })) return;
    const std::string quoted = vorndb::QuoteString(value);
    for (char c : quoted)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) Fail("a quoted string with a control character");
    std::string again;
    if (!Accepts([&] { again = vorndb::UnquoteString(quoted); }) || again != value)
        Fail("a quoted string does not unquote to its text", quoted);
}

void CheckRealList(const std::string& text, std::uint32_t unit) {
    const std::vector<std::string> items = vorndb::SplitList(text);
    std::size_t commas = 0;
    for (char c : text)
        if (c == ',') ++commas;
    Expect(items.size() == (vorndb::Trim(text).empty() ? 0 : commas + 1), "a list split into the wrong count");
    for (const std::string& item : items) {
        Expect(item == vorndb::Trim(item), "a list item with blanks around it");
        CheckReal(item, unit);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::uint8_t parser = data[0];
    const std::uint32_t pick = data[1];
    const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
    switch (parser % 7) {
        case 0:
        case 1:
            CheckReal(text, pick % kUnitsTried);
            break;
        case 2:
            CheckInteger(text);
            break;
        case 3:
            CheckBoolean(text);
            break;
        case 4:
            CheckEnum(text, pick);
            break;
        case 5:
            CheckString(text);
            break;
        default:
            CheckRealList(text, pick % kUnitsTried);
            break;
    }
    return 0;
}
