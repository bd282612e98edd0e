"""Backend: the public header of the group interfaces, vorn/groups.h.

Every group interface of the schema, IRoot included, in declaration order:
an abstract struct deriving from IGroup with one property getter per member,
its IID constant and its VORN_INTERFACE_IID binding. A parameter member's
getter hands out the value interface of its family; a child group's getter
its interface; an indexed child's getter takes ULONG udwIndex first.
"""

from . import syntax
from .cpp import guid_fields
from .output import banner

HEADER = """\
//
// The typed group interfaces of the database tree, in the order of the type
// library. Each property returns its member with one reference added (S_OK).
// An indexed member takes udwIndex first; at or beyond its count it stores a
// null pointer and returns E_INVALIDARG.
#pragma once

#include "vorn/database.h"
#include "vorn/enums.h"
#include "vorn/parameter.h"
"""


def _getter(member):
    if member.child is not None:
        target = member.child.name
    else:
        target = syntax.FAMILIES[member.family]
    if member.indexed:
        return "    STDMETHOD(get_%s)(ULONG udwIndex, %s** ppVal) PURE;  // udwIndex < %d" % (
            member.name, target, member.count)
    return "    STDMETHOD(get_%s)(%s** ppVal) PURE;" % (member.name, target)


def generate(model, source):
    """Returns the text of vorn/groups.h for the model."""
    out = [banner(source) + HEADER.rstrip("\n")]
    # Interfaces are declared children first; any used before its own
    # declaration is declared ahead.
    declared, ahead = set(), []
    for iface in model.interfaces:
        for m in iface.members:
            if m.child is not None and m.child.name not in declared and m.child.name not in ahead:
                ahead.append(m.child.name)
        declared.add(iface.name)
    library = model.library
    out.append("")
    out.append("// The type library that declares these interfaces, version %d.%d." % (library.major, library.minor))
    out.append("VORN_DEFINE_GUID(LIBID_%s, %s);" % (library.name, guid_fields(library.guid)))
    if ahead:
        out.append("")
        out.extend("struct %s;" % name for name in ahead)
    for iface in model.interfaces:
        out.append("")
        out.append("VORN_DEFINE_GUID(IID_%s, %s);" % (iface.name, guid_fields(iface.iid)))
        out.append("struct %s : %s {" % (iface.name, syntax.GROUP_BASE))
        out.extend(_getter(m) for m in iface.members)
        out.append("};")
        out.append("VORN_INTERFACE_IID(%s, IID_%s);" % (iface.name, iface.name))
    return "\n".join(out) + "\n"
