"""Backend: the metadata tables, src/schema/Metadata.cpp.

Fills the structures declared by the hand-written src/schema/Metadata.h as
plain constant arrays: interfaces, members (contiguous per interface, in
declaration order), parameter classes, defaults records, enumerations with
their members, and name-sorted indexes for the lookups. Rows refer to each
other by array index; kNone marks "none".
"""

from . import syntax
from .cpp import double_literal, guid_initializer, string_literal
from .output import banner

FAMILY = {
    syntax.GROUP: "F::Group",
    "boolean": "F::Boolean",
    "integer": "F::Integer",
    "real": "F::Real",
    "string": "F::String",
    "intarray": "F::IntegerArray",
    "realarray": "F::RealArray",
    "buffer": "F::Buffer",
}

HEADER = """\
//
// Metadata tables of the database tree (declared in schema/Metadata.h).
"""


def _index(obj):
    return "kNone" if obj is None else str(obj.index)


def _by_name(rows):
    """Indexes of rows in ascending byte order of their names (the model
    keeps every table within the uint16_t range of these indexes)."""
    order = sorted(range(len(rows)), key=lambda i: rows[i].name.encode("ascii"))
    return ", ".join(str(i) for i in order)


def _defaults_row(d):
    shape = "{%s}" % ", ".join(str(x) for x in d.shape)
    text = string_literal(d.text, "u") if d.text is not None else "nullptr"
    is_real = d.kind.startswith("Real") and d.kind != "RealArray"
    ints = (d.value, d.min, d.max) if not is_real else (0, 0, 0)
    reals = (d.value, d.min, d.max) if is_real else (0, 0, 0)
    return "    {%s, K::%s, %s, %d, %d, %d, %d, %d, %s, %s, %s, %s, %s, %s, %s}," % (
        string_literal(d.name), d.kind, _index(d.enum), d.unit, d.count, *ints,
        *(double_literal(x) for x in reals), double_literal(d.small), double_literal(d.large), text, shape)


def generate(model, source):
    """Returns the text of Metadata.cpp for the model."""
    lib = model.library
    out = [banner(source) + HEADER, '#include "schema/Metadata.h"', "", "namespace vorn::schema {", "namespace {", "",
           "using F = Family;", "using K = DefaultsKind;", ""]

    out.append("// name, iid, base, first member, member count")
    out.append("constexpr InterfaceInfo kInterfaces[] = {")
    first = 0
    for iface in model.interfaces:
        out.append("    {%s, %s, %s, %d, %d}," % (string_literal(iface.name), guid_initializer(iface.iid),
                                                 string_literal(syntax.GROUP_BASE), first, len(iface.members)))
        first += len(iface.members)
    out.append("};")
    out.append("")

    out.append("// name, dispid, family, count, child interface, enumeration, class, defaults")
    out.append("constexpr MemberInfo kMembers[] = {")
    for iface in model.interfaces:
        out.append("    // %s" % iface.name)
        for m in iface.members:
            out.append("    {%s, %d, %s, %d, %s, %s, %s, %s}," % (
                string_literal(m.name), m.dispid, FAMILY[m.family], m.count or 0, _index(m.child), _index(m.enum),
                _index(m.cls), _index(m.defaults)))
    out.append("};")
    out.append("")

    out.append("// name, family, base, pending area")
    out.append("constexpr ParameterClassInfo kClasses[] = {")
    for c in model.classes:
        pending = string_literal(c.pending) if c.pending else "nullptr"
        out.append("    {%s, %s, %s, %s}," % (string_literal(c.name), FAMILY[c.family], _index(c.base), pending))
    out.append("};")
    out.append("")

    out.append("// name, kind, enumeration, unit, count, value, minimum, maximum,")
    out.append("// real value, real minimum, real maximum, small step, large step, text, shape")
    out.append("constexpr DefaultsInfo kDefaults[] = {")
    out.extend(_defaults_row(d) for d in model.defaults)
    out.append("};")
    out.append("")

    out.append("// name, first member, member count, outline")
    out.append("constexpr EnumerationInfo kEnumerations[] = {")
    first = 0
    for e in model.enums:
        out.append("    {%s, %d, %d, %s}," % (string_literal(e.name), first, len(e.members),
                                               "true" if e.outline else "false"))
        first += len(e.members)
    out.append("};")
    out.append("")
    out.append("constexpr EnumMemberInfo kEnumMembers[] = {")
    for e in model.enums:
        out.append("    " + " ".join("{%s, %d}," % (string_literal(n), v) for n, v in e.members))
    out.append("};")
    out.append("")

    out.append("constexpr std::uint16_t kEnumerationsByName[] = {%s};" % _by_name(model.enums))
    out.append("")

    out.append("constexpr SchemaMetadata kMetadata = {")
    out.append("    %s," % string_literal(lib.name))
    out.append("    %s," % guid_initializer(lib.guid))
    out.append("    %d," % lib.major)
    out.append("    %d," % lib.minor)
    out.append("    %d," % model.root.index)
    for table in ("kInterfaces", "kMembers", "kClasses", "kDefaults", "kEnumerations", "kEnumMembers",
                  "kEnumerationsByName"):
        out.append("    %s," % table)
    out.append("};")
    out.append("")
    out.append("}  // namespace")
    out.append("")
    out.append("const SchemaMetadata& GetSchemaMetadata() noexcept { return kMetadata; }")
    out.append("")
    out.append("}  // namespace vorn::schema")
    return "\n".join(out) + "\n"
