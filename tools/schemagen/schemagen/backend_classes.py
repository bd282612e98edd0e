"""Backend: the group classes of the tree and the pending parameter classes.

Outputs (files of the build tree's src/schema/):

  PendingClasses.h  every class marked pending= as a plain subclass of its
                    base, under its own name, base classes first;
  GroupClasses.h    one class per group interface (CGroupRoot for IRoot),
                    children's classes before their parents': members by
                    value in declaration order, the getters, the child table;
  Groups<N>.cpp     the classes split into a few translation units of about
                    equal weight: per class a layout table (name, element
                    count, defaults record per member), the constructor that
                    fills the child table and hands both to BuildGroup
                    (schema/GroupBuilder.h), the destructor and one-line
                    getters.

A class's destructor is declared first and defined in its unit, so its
vtable and the template code it pulls in are emitted there only.
"""

from . import syntax
from .cpp import string_literal
from .output import banner

PENDING_TEXT = """\
//
// Parameter classes whose rules are still to be written. Each is a plain
// subclass of its base under its own name, so the tree already holds members
// of the class that will carry the rule. The work that writes a rule gives
// the class a hand-written header and switches it from pending= to header=
// in the schema; the class then leaves this file.
#pragma once
"""

CLASSES_TEXT = """\
//
// The group classes of the database tree, one per group interface, each
// bound to its interface by CStreamGroupTemplate. Members are held by value in
// declaration order and are public, for the component's own code; clients
// reach them through the interface's getters. Constructors and getters are
// in the Groups<N>.cpp units. Include this header only where the classes
// themselves are needed: it is large.
#pragma once
"""

UNIT_TEXT = """\
//
// Group classes of the database tree, part %d of %d: layout tables,
// constructors, destructors and getters of %s ... %s.
"""

PENDING_HEADER = "schema/PendingClasses.h"
WIDTH = 112  # line width the long initialiser lists are wrapped at


def _wrap(items, indent):
    """Comma-separated items over lines of at most WIDTH characters."""
    lines, line = [], indent
    for item in items:
        piece = item + ","
        if len(line) + len(piece) + 1 > WIDTH and line.strip():
            lines.append(line.rstrip())
            line = indent
        line += piece + " "
    lines.append(line.rstrip().rstrip(","))
    return "\n".join(lines)


def _member_type(member):
    return member.child.class_name if member.child is not None else member.cls.name


def _face(member):
    """Interface a member's getter hands out."""
    return member.child.name if member.child is not None else syntax.FAMILIES[member.family]


def _getter_signature(member, scope=""):
    if member.indexed:
        return "STDMETHODIMP %sget_%s(ULONG udwIndex, %s** ppVal)" % (scope, member.name, _face(member))
    return "STDMETHODIMP %sget_%s(%s** ppVal)" % (scope, member.name, _face(member))


def _child_count(iface):
    return sum(m.count if m.indexed else 1 for m in iface.members)


def _children(iface):
    """The child table's entries in order, the terminator included."""
    entries = []
    for m in iface.members:
        if m.indexed:
            entries.extend("&%s[%d]" % (m.name, i) for i in range(m.count))
        else:
            entries.append("&" + m.name)
    return entries + ["nullptr"]


def pending_header(model, source):
    """Returns the text of PendingClasses.h for the model."""
    classes = model.pending_classes()
    headers = sorted({c.base.header for c in classes if c.base is not None and c.base.pending is None})
    out = [banner(source) + PENDING_TEXT]
    out.extend('#include "%s"' % h for h in headers)
    out += ["", "namespace vorn {", ""]
    for c in classes:
        out.append("// pending: %s" % c.pending)
        out.append("class %s : public %s {};" % (c.name, c.base.name))
        out.append("")
    out.append("}  // namespace vorn")
    return "\n".join(out) + "\n"


def _class_declaration(iface):
    out = ["class %s final : public CStreamGroupTemplate<%s, &IID_%s> {" % (iface.class_name, iface.name, iface.name),
           "public:",
           "    %s();" % iface.class_name,
           "    ~%s() override;" % iface.class_name,
           "    CDatabaseObjectImpl* const* Children() override { return children_; }",
           ""]
    out.extend("    %s override;" % _getter_signature(m) for m in iface.members)
    out.append("")
    for m in iface.members:
        count = "[%d]" % m.count if m.indexed else ""
        out.append("    %s %s%s;" % (_member_type(m), m.name, count))
    out += ["", "private:", "    CDatabaseObjectImpl* children_[%d];" % (_child_count(iface) + 1), "};"]
    return out


def classes_header(model, source):
    """Returns the text of GroupClasses.h for the model."""
    headers = set()
    for iface in model.interfaces:
        for m in iface.members:
            if m.cls is not None:
                headers.add(PENDING_HEADER if m.cls.pending else m.cls.header)
    out = [banner(source) + CLASSES_TEXT, '#include "stream/NodeStream.h"']
    out.extend('#include "%s"' % h for h in sorted(headers))
    out += ['#include "vorn/groups.h"', "", "namespace vorn {"]
    for iface in model.interfaces_children_first():
        out.append("")
        out.extend(_class_declaration(iface))
    out += ["", "}  // namespace vorn"]
    return "\n".join(out) + "\n"


def _layout_name(iface):
    return "k%sMembers" % iface.name[1:]


def _layout(iface):
    out = ["constexpr schema::SMemberLayout %s[] = {" % _layout_name(iface)]
    for m in iface.members:
        count = m.count if m.indexed else -1
        defaults = "records::%s" % m.defaults.name if m.defaults is not None else "{}"
        out.append("    {%s, %d, %s}," % (string_literal(m.name), count, defaults))
    out.append("};")
    return out


def _definitions(iface):
    name = iface.class_name
    out = ["%s::%s()" % (name, name),
           "    : children_{\n%s} {" % _wrap(_children(iface), "          "),
           "    schema::BuildGroup(*this, %s, children_);" % _layout_name(iface),
           "}",
           "%s::~%s() = default;" % (name, name)]
    for m in iface.members:
        if m.indexed:
            body = "return schema::HandOutAt(%s, udwIndex, ppVal);" % m.name
        else:
            body = "return schema::HandOut(&%s, ppVal);" % m.name
        out.append("%s { %s }" % (_getter_signature(m, name + "::"), body))
    return out


def _weight(iface):
    """Rough compile cost of one class: its members and child table."""
    return 8 + 3 * len(iface.members) + _child_count(iface)


def split(model, units):
    """The interfaces in declaration order of the classes, cut into at most
    `units` consecutive runs of about equal weight (none empty)."""
    order = model.interfaces_children_first()
    total = sum(_weight(i) for i in order)
    runs, run, done = [], [], 0
    for iface in order:
        run.append(iface)
        done += _weight(iface)
        if done * units >= total * (len(runs) + 1) and len(runs) < units - 1:
            runs.append(run)
            run = []
    if run:
        runs.append(run)
    return runs


def unit_name(index):
    return "Groups%d.cpp" % index


def unit(model, source, runs, index):
    """Returns the text of unit `index` of the runs split() gave."""
    run = runs[index]
    out = [banner(source) + UNIT_TEXT % (index + 1, len(runs), run[0].class_name, run[-1].class_name),
           '#include "schema/DefaultsRecords.h"', '#include "schema/GroupBuilder.h"', '#include "schema/GroupClasses.h"',
           "", "namespace vorn {", "", "namespace {", ""]
    for iface in run:
        out.extend(_layout(iface))
        out.append("")
    out += ["}  // namespace", ""]
    for iface in run:
        out.extend(_definitions(iface))
        out.append("")
    out.append("}  // namespace vorn")
    return "\n".join(out) + "\n"


def outputs(model, source, units):
    """[(file name, text)] of every output of this backend; `units` is the
    number of Groups<N>.cpp files, all written (the last ones empty when the
    tree has fewer classes) so that the build's file list stays fixed."""
    runs = split(model, units)
    files = [("PendingClasses.h", pending_header(model, source)), ("GroupClasses.h", classes_header(model, source))]
    for index in range(units):
        if index < len(runs):
            files.append((unit_name(index), unit(model, source, runs, index)))
        else:
            files.append((unit_name(index), banner(source) + "//\n// No group classes fall into this part.\n"))
    return files
