// Values as the vorndb tool reads and writes them: numbers with units and
// engineering prefixes, enumerations by member name or number, booleans,
// quoted strings and lists.
//
// Formatting: a real value in a linear unit (s, V, Hz, K, A, W, rad, Hz/V,
// Hz/s, V/rad, s/pt) is scaled to an engineering prefix (f p n u m k M G T)
// so that its mantissa lies in [1, 1000): 1.5e6 Hz prints as "1.5 MHz".
// Logarithmic and dimensionless units (dB, dBm, dBc, dBc/Hz, dBV, dBV/Hz,
// deg, pts, V/V, none, ratio) are printed unscaled: "-30 dBm". Twelve
// significant digits are kept, so whole hertz up to 100 GHz survive a round
// trip. The micro prefix is written "u" (plain ASCII); "u" and "µ" are read.
//
// Parsing never guesses: the unit after the number must be the parameter's
// own (letter case aside) or absent, a prefix is accepted only on a linear
// unit (or alone, "10k", on one), "m" is milli and "M" mega, and "K" is read
// as kilo before a unit symbol ("10 KHz"). Every parse failure throws
// ToolError(kExitRejected) with a message that says what was expected.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Common.h"
#include "vorn/units.h"

namespace vorndb {

// The value family of a node, from IParameter::get_type (or a group).
enum class Family { Group, Boolean, Integer, Real, String, IntegerArray, RealArray, Buffer, Unknown };

// "group", "boolean", "integer", "real", "string", "int-array", "real-array",
// "buffer", "unknown".
const char* FamilyName(Family family);
// The family of a value interface's type code (VT_BOOL, VT_UI4, ...);
// Family::Unknown for any other code.
Family FamilyOfTypeCode(USHORT typeCode);

// The unit symbol of an eUNIT value ("Hz", "dBc/Hz", "" for none and ratio;
// "unit#N" outside the enumeration) and a real value with its unit, as
// described above ("1.5 MHz", "-30 dBm", "0 s"): vorn/units.h, which the
// component words its failure reasons with.
using vorn::FormatReal;
using vorn::UnitSymbol;
// Reads a real value for a parameter in `unit`: "10 kHz", "5e6", "-30 dBm",
// "2.5m", "100 ns". Throws ToolError(kExitRejected) for text that is not such
// a value (including inf and nan).
double ParseReal(const std::string& text, std::uint32_t unit);

// Reads an unsigned 32-bit integer: decimal or 0x-hexadecimal. Throws
// ToolError(kExitRejected) otherwise (negative, too large, trailing text).
std::uint32_t ParseInteger(const std::string& text);

// Reads true/false/on/off/yes/no/1/0 (letter case aside). Throws
// ToolError(kExitRejected) otherwise.
bool ParseBoolean(const std::string& text);

// One member of an enumeration as the type library lists it.
struct EnumMember {
    std::string name;  // "eMEASSTATE_IDLE"
    std::int32_t value;
};

// "eMEASSTATE_IDLE (0)"; the bare number when no member has the value.
std::string FormatEnum(std::uint32_t value, const std::vector<EnumMember>& members);
// Reads an enumeration value: a member name ("eMEASSTATE_IDLE"), the name
// without the enumeration's prefix ("IDLE"), both without regard to letter
// case, or a number (which need not be a member: the parameter judges it).
// Throws ToolError(kExitRejected) naming the members otherwise.
std::uint32_t ParseEnum(const std::string& text, const std::string& enumName, const std::vector<EnumMember>& members);

// A string in double quotes with \" \\ \n \r \t and \xHH escapes.
std::string QuoteString(const std::string& text);
// The inverse of QuoteString for text in double quotes; any other text is
// taken as it is. Throws ToolError(kExitRejected) for a bad escape or a
// missing closing quote.
std::string UnquoteString(const std::string& text);

// Splits "a, b ,c" at commas and trims each item; "" gives no items.
std::vector<std::string> SplitList(const std::string& text);

// "[1 kHz, 2 kHz, ...]" with at most maxShown of the `count` items (0: all),
// followed by " (N items)" when some were left out; item(i) is the i-th.
std::string FormatList(std::size_t count, const std::function<std::string(std::size_t)>& item, std::size_t maxShown);

// Removes leading and trailing blanks.
std::string Trim(const std::string& text);

}  // namespace vorndb
