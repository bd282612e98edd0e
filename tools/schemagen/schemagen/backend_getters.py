"""Backend: typed calls of every group getter, TypedGetters.cpp (tests only).

One function per group interface, in the order of the metadata's interfaces,
that queries a group for that interface and calls the getter of member
number `member` (its position in the interface, as in the metadata) through
the typed vtable: the whole-tree test walks the metadata over the live tree
with them, so every getter of every group is called as a client calls it.
The declarations are the tests' schema/TypedGetters.h.
"""

from . import syntax
from .output import banner

HEADER = """\
//
// Typed calls of the group getters, one function per interface (declared in
// the tests' schema/TypedGetters.h).
"""


def _function(iface):
    indexed = any(m.indexed for m in iface.members)
    index = "ULONG index" if indexed else "ULONG /*index*/"
    out = ["HRESULT Get_%s(IUnknown* group, std::uint32_t member, %s, void** out) {" % (iface.name, index),
           "    %s* typed = nullptr;" % iface.name,
           "    HRESULT hr = group->QueryInterface(IID_%s, reinterpret_cast<void**>(&typed));" % iface.name,
           "    if (FAILED(hr)) return hr;",
           "    switch (member) {"]
    for number, m in enumerate(iface.members):
        face = m.child.name if m.child is not None else syntax.FAMILIES[m.family]
        args = "index, " if m.indexed else ""
        out.append("        case %d: hr = typed->get_%s(%sreinterpret_cast<%s**>(out)); break;" % (
            number, m.name, args, face))
    out += ["        default: hr = E_INVALIDARG; break;", "    }", "    typed->Release();", "    return hr;", "}"]
    return out


def generate(model, source):
    """Returns the text of TypedGetters.cpp for the model."""
    out = [banner(source) + HEADER, '#include "schema/TypedGetters.h"', "", '#include "vorn/groups.h"', "",
           "namespace {", ""]
    for iface in model.interfaces:
        out.extend(_function(iface))
        out.append("")
    out += ["constexpr TypedGetter kGetters[] = {"]
    out.extend("    Get_%s," % iface.name for iface in model.interfaces)
    out += ["};", "", "}  // namespace", "",
            "std::span<const TypedGetter> TypedGetters() noexcept { return kGetters; }"]
    return "\n".join(out) + "\n"
