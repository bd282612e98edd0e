"""Backend: the public header of the enumerations, vorn/enums.h.

Every enumeration of the schema as a plain enumeration with a fixed 32-bit type (so any
32-bit value a client passes is a valid value of the type), in schema
order, each member with its explicit value, as the type library declares them.
"""

from .cpp import string_literal
from .output import banner

HEADER = """\
//
// Enumerations of the database component: units, status, step sizes and the
// value lists of the enumerated integer parameters. Plain enumerations of 32
// bits, as the type library declares them; their members share one scope.
#pragma once

#include "vorn/rt/types.h"
"""


def generate(model, source):
    """Returns the text of vorn/enums.h for the model."""
    out = [banner(source) + HEADER.rstrip("\n")]
    for enum in model.enums:
        out.append("")
        if enum.outline:
            out.append("// Member names are this component's own; the values are fixed.")
        out.append("enum %s : LONG {" % enum.name)
        out.extend("    %s = %d," % member for member in enum.members)
        out.append("};")
    units = next(enum for enum in model.enums if enum.symbols is not None)
    by_value = {value: (name, symbol, prefixed)
                for (name, value), (symbol, prefixed) in zip(units.members, units.symbols)}
    out.append("")
    out.append("// The symbol of each %s member, indexed by value (null for a value that is" % units.name)
    out.append("// no member), and whether values in it take engineering prefixes (\"Hz\" does,")
    out.append("// \"dBm\" does not).")
    out.append("struct SUnitSymbol {")
    out.append("    const char* symbol;")
    out.append("    bool prefixed;")
    out.append("};")
    out.append("inline constexpr SUnitSymbol kUnitSymbols[] = {")
    for value in range(max(by_value) + 1):
        if value in by_value:
            name, symbol, prefixed = by_value[value]
            out.append("    {%s, %s},  // %s" % (string_literal(symbol), "true" if prefixed else "false", name))
        else:
            out.append("    {nullptr, false},")
    out.append("};")
    out.append("")
    out.append("// The values travel as 32-bit numbers in records, streams and calls.")
    out.extend("static_assert(sizeof(%s) == 4);" % enum.name for enum in model.enums)
    return "\n".join(out) + "\n"
