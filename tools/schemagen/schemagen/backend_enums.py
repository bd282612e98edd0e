"""Backend: the public header of the enumerations, vorn/enums.h.

Every enumeration of the schema as a plain enumeration with a fixed 32-bit type (so any
32-bit value a client passes is a valid value of the type), in schema
order, each member with its explicit value, as the type library declares them.
"""

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
    out.append("")
    out.append("// The values travel as 32-bit numbers in records, streams and calls.")
    out.extend("static_assert(sizeof(%s) == 4);" % enum.name for enum in model.enums)
    return "\n".join(out) + "\n"
