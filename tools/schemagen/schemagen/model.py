"""Model stage: declarations -> a resolved, validated tree description.

build() resolves every reference of a parsed SchemaFile (classes to their
bases, members to their classes, records and child interfaces, records to
their enumerations and units) and checks the rules the backends rely on:

  - enumerations have members named eNAME_..., with distinct values; eUNIT exists
    and gives every member a symbol and a value in 0..MAX_UNIT;
  - classes derive from a class of the same family, without cycles; a class
    without base lists the defaults kinds its Reset understands, a derived
    class inherits them unless it lists its own; an implemented class names
    its header, a class whose rule is to come is marked pending instead and
    derives from a base, and an implemented class never derives from a
    pending one (pending classes are generated, so a hand-written header
    cannot build on them);
  - records hold consistent values (value within its limits, an enumeration
    value below the count, booleans 0 or 1, capacities of at least 1);
  - members use a class of their own family and a record kind that class
    accepts; only child groups are indexed, with a count of at least 1;
  - IRoot exists, the interfaces form a tree without cycles that reaches every
    interface, every record is used, IIDs are unique, and no table outgrows
    the 16-bit indexes of the metadata.

Interface IIDs not given explicitly are uuid5(iid-namespace, interface name),
so they are fixed by the schema text alone. build() collects all problems and
raises them together as a SchemaError.
"""

import uuid
from dataclasses import dataclass, field

from . import syntax
from .errors import ProblemList

# Tables are indexed by 16-bit numbers in the generated metadata.
MAX_ROWS = 0xFFFF
# The table of unit symbols is indexed by unit value.
MAX_UNIT = 255


@dataclass
class Enumeration:
    name: str
    outline: bool  # member names are this component's own, not published ones
    members: list  # (name, value)
    index: int
    line: int
    symbols: list = None  # eUNIT: (symbol, prefixed) per member


@dataclass
class ParameterClass:
    name: str
    family: str
    base: "ParameterClass"
    kinds: frozenset  # defaults kinds its Reset understands (None always included)
    pending: str  # area of the later work that gives it its rule; None when done
    header: str
    index: int
    line: int


@dataclass
class Defaults:
    """One defaults record; fields a kind does not have stay at their zero."""

    name: str
    kind: str
    index: int
    line: int
    enum: Enumeration = None
    count: int = 0  # Enum/EnumValue: number of values; arrays: capacity
    unit: int = 0  # eUNIT value
    unit_name: str = None
    value: object = 0  # int for Boolean/Integer/Enum kinds, float for Real kinds
    min: object = 0
    max: object = 0
    small: float = 0.0
    large: float = 0.0
    text: str = None
    shape: list = field(default_factory=lambda: [0] * 5)
    uses: int = 0


@dataclass
class Member:
    name: str
    dispid: int
    family: str  # syntax.GROUP or a value family
    count: int  # element count when indexed, else None
    child: "Interface" = None
    cls: ParameterClass = None
    defaults: Defaults = None
    line: int = 0

    @property
    def indexed(self):
        return self.count is not None

    @property
    def enum(self):
        return self.defaults.enum if self.defaults is not None else None


@dataclass
class Interface:
    name: str
    iid: uuid.UUID
    index: int
    line: int
    members: list = field(default_factory=list)

    @property
    def class_name(self):
        """Name of the group class bound to this interface (CGroupRoot for IRoot)."""
        return "CGroup" + self.name[1:]


@dataclass
class Model:
    filename: str
    library: object
    enums: list
    classes: list
    defaults: list
    interfaces: list
    root: Interface = None

    def enum(self, name):
        return next((e for e in self.enums if e.name == name), None)

    def interface(self, name):
        return next((i for i in self.interfaces if i.name == name), None)

    def interfaces_children_first(self):
        """The interfaces in schema order, except that every interface comes
        after the interfaces of its child groups (the order in which classes
        holding their children by value must be declared)."""
        return _dependencies_first(self.interfaces, lambda i: [m.child for m in i.members if m.child is not None])

    def pending_classes(self):
        """The pending classes in schema order, except that a pending base
        comes before the classes derived from it."""
        pending = [c for c in self.classes if c.pending is not None]
        return _dependencies_first(pending, lambda c: [c.base] if c.base is not None and c.base.pending else [])

    def instance_counts(self, interface=None):
        """(groups, parameters) in the subtree of one instance of interface.

        The instance itself is counted among the groups; with no interface,
        the whole tree from the root.
        """
        memo = {}

        def count(iface):
            if iface.name not in memo:
                groups, params = 1, 0
                for m in iface.members:
                    n = m.count if m.indexed else 1
                    if m.child is not None:
                        g, p = count(m.child)
                        groups, params = groups + n * g, params + n * p
                    else:
                        params += n
                memo[iface.name] = (groups, params)
            return memo[iface.name]

        return count(interface or self.root)


def _dependencies_first(items, dependencies):
    """items in their order, except that each comes after what
    dependencies(item) lists (items themselves; the graph has no cycles)."""
    order, placed = [], set()

    def place(item):
        if item.name in placed:
            return
        placed.add(item.name)
        for dependency in dependencies(item):
            place(dependency)
        order.append(item)

    for item in items:
        place(item)
    return order


class _Builder:
    def __init__(self, schema):
        self.schema = schema
        self.problems = ProblemList(schema.filename)

    def build(self):
        s = self.schema
        self.enums = {e.name: self.enumeration(i, e) for i, e in enumerate(s.enums)}
        self.unit_enum = self.enums.get(syntax.UNIT_ENUM)
        if self.unit_enum is None:
            self.problems.add(1, "the schema lacks the enumeration %s that units name" % syntax.UNIT_ENUM)
        self.class_decls = {c.name: c for c in s.classes}
        self.class_index = {c.name: i for i, c in enumerate(s.classes)}
        self.classes = {}
        for c in s.classes:
            self.parameter_class(c, [])
        self.records = {d.name: self.defaults(i, d) for i, d in enumerate(s.defaults)}
        self.interfaces = {}
        for i, decl in enumerate(s.interfaces):
            iid = decl.iid or uuid.uuid5(s.namespace, decl.name)
            self.interfaces[decl.name] = Interface(decl.name, iid, i, decl.line)
        for decl in s.interfaces:
            self.members(decl)
        model = Model(s.filename, s.library, list(self.enums.values()),
                      sorted((c for c in self.classes.values() if c), key=lambda c: c.index),
                      list(self.records.values()), list(self.interfaces.values()))
        self.tree(model)
        self.problems.raise_if_any()
        return model

    def enumeration(self, index, decl):
        if not decl.members:
            self.problems.add(decl.line, "enumeration %s has no members" % decl.name)
        seen = {}
        for m in decl.members:
            if not m.name.startswith(decl.name + "_"):
                self.problems.add(m.line, "enumerator %s does not begin with %s_" % (m.name, decl.name))
            if m.value in seen:
                self.problems.add(m.line, "enumerator %s repeats the value %d of %s" % (m.name, m.value, seen[m.value]))
            seen.setdefault(m.value, m.name)
        symbols = None
        if decl.name == syntax.UNIT_ENUM:
            symbols = [(m.symbol, m.prefixed) for m in decl.members]
            for m in decl.members:
                if m.symbol is None:
                    self.problems.add(m.line, "unit %s has no symbol=" % m.name)
                if not 0 <= m.value <= MAX_UNIT:
                    self.problems.add(m.line, "unit %s has the value %d, outside 0..%d" % (m.name, m.value, MAX_UNIT))
        return Enumeration(decl.name, decl.outline, [(m.name, m.value) for m in decl.members], index, decl.line,
                           symbols)

    def parameter_class(self, decl, chain):
        """Resolves one class and its bases; None marks a broken class."""
        if decl.name in self.classes:
            return self.classes[decl.name]
        if decl.name in chain:
            self.problems.add(decl.line, "class %s derives from itself" % decl.name)
            self.classes[decl.name] = None
            return None
        base = None
        if decl.base is not None:
            base_decl = self.class_decls.get(decl.base)
            if base_decl is None:
                self.problems.add(decl.line, "unknown base class '%s'" % decl.base)
            else:
                base = self.parameter_class(base_decl, chain + [decl.name])
                if base is not None and base.family != decl.family:
                    self.problems.add(decl.line, "class %s is %s but its base %s is %s" % (
                        decl.name, decl.family, base.name, base.family))
        if decl.kinds is not None:
            kinds = frozenset(decl.kinds)
        elif base is not None:
            kinds = base.kinds
        else:
            if decl.base is None:
                self.problems.add(decl.line, "class %s has no base and so needs kinds=" % decl.name)
            kinds = frozenset()
        if (decl.pending is None) == (decl.header is None):
            self.problems.add(decl.line, "class %s needs exactly one of header= (implemented) and pending= "
                                         "(rule to come)" % decl.name)
        if decl.pending is not None and decl.base is None:
            self.problems.add(decl.line, "class %s is pending and so needs base= (the class it stands in for until "
                                         "its rule is written)" % decl.name)
        if decl.header is not None and base is not None and base.pending is not None:
            self.problems.add(decl.line, "class %s is implemented but its base %s is pending: implement the base "
                                         "first or mark %s pending too" % (decl.name, base.name, decl.name))
        cls = ParameterClass(decl.name, decl.family, base, kinds | {syntax.UNIVERSAL_KIND}, decl.pending,
                             decl.header, self.class_index[decl.name], decl.line)
        self.classes[decl.name] = cls
        return cls

    def defaults(self, index, decl):
        d = Defaults(decl.name, decl.kind, index, decl.line)
        f = decl.fields

        def add(message):
            self.problems.add(decl.line, "%s: %s" % (decl.name, message))

        if "enum" in f:
            d.enum = self.enums.get(f["enum"])
            if d.enum is None:
                add("unknown enumeration '%s'" % f["enum"])
            else:
                d.count = len(d.enum.members)
        elif "count" in f:
            d.count = f["count"]
        if "size" in f:
            d.count = f["size"]
        if decl.kind in ("Enum", "EnumValue", "IntegerArray", "RealArray") and d.count < 1 and "enum" not in f:
            add("the count must be at least 1")
        if "unit" in f and self.unit_enum is not None:
            name = syntax.UNIT_ENUM + "_" + f["unit"]
            values = dict(self.unit_enum.members)
            if name not in values:
                add("unknown unit '%s' (no %s)" % (f["unit"], name))
            else:
                d.unit, d.unit_name = values[name], name
        for key in ("value", "min", "max", "small", "large", "text", "shape"):
            if key in f:
                setattr(d, key, f[key])
        if decl.kind == "EnumValue" and isinstance(d.value, str):
            if d.enum is None:
                add("an enumerator value needs enum=")
                d.value = 0
            else:
                members = dict(d.enum.members)
                if d.value not in members:
                    add("%s is not a member of %s" % (d.value, d.enum.name))
                    d.value = 0
                else:
                    d.value = members[d.value]
        if decl.kind == "BooleanValue" and d.value not in (0, 1):
            add("a boolean value is 0 or 1")
        if decl.kind == "EnumValue" and d.count and d.value >= d.count:
            add("value %d is not below the count %d" % (d.value, d.count))
        if "min" in f and d.min > d.max:
            add("minimum %s is above maximum %s" % (d.min, d.max))
        elif "min" in f and "value" in f and not d.min <= d.value <= d.max:
            add("value %s lies outside %s..%s" % (d.value, d.min, d.max))
        if d.small < 0 or d.large < 0:
            add("step sizes must not be negative")
        return d

    def members(self, decl):
        iface = self.interfaces[decl.name]
        for dispid, m in enumerate(decl.members, start=1):
            member = Member(m.name, dispid, m.family, m.count, line=m.line)
            if m.count is not None and m.count < 1:
                self.problems.add(m.line, "array count of %s must be at least 1" % m.name)
            if m.family == syntax.GROUP:
                member.child = self.interfaces.get(m.target)
                if member.child is None:
                    self.problems.add(m.line, "unknown interface '%s'" % m.target)
            else:
                self.parameter_member(member, m)
            iface.members.append(member)

    def parameter_member(self, member, m):
        if m.count is not None:
            self.problems.add(m.line, "parameter %s cannot be indexed; only child groups are" % m.name)
        if m.target not in self.class_decls:
            self.problems.add(m.line, "unknown class '%s'" % m.target)
        else:
            member.cls = self.classes.get(m.target)
            if member.cls is not None and member.cls.family != m.family:
                self.problems.add(m.line, "%s is a %s member but class %s is %s" % (
                    m.name, m.family, member.cls.name, member.cls.family))
        member.defaults = self.records.get(m.defaults)
        if member.defaults is None:
            self.problems.add(m.line, "unknown defaults record '%s'" % m.defaults)
            return
        member.defaults.uses += 1
        if member.cls is not None and member.defaults.kind not in member.cls.kinds:
            self.problems.add(m.line, "class %s does not take %s records (%s is one)" % (
                member.cls.name, member.defaults.kind, member.defaults.name))

    def tree(self, model):
        for what, rows in (("interfaces", model.interfaces), ("classes", model.classes),
                           ("defaults records", model.defaults), ("enumerations", model.enums)):
            if len(rows) > MAX_ROWS:
                self.problems.add(1, "more than %d %s cannot be indexed" % (MAX_ROWS, what))
        for d in model.defaults:
            if d.uses == 0:
                self.problems.add(d.line, "defaults record %s is not used" % d.name)
        seen_iids = {model.library.guid: "the library"} if model.library else {}
        for iface in model.interfaces:
            if iface.iid in seen_iids:
                self.problems.add(iface.line, "IID of %s equals that of %s" % (iface.name, seen_iids[iface.iid]))
            seen_iids.setdefault(iface.iid, iface.name)
        model.root = self.interfaces.get(syntax.ROOT_INTERFACE)
        if model.root is None:
            self.problems.add(1, "the schema lacks the root interface %s" % syntax.ROOT_INTERFACE)
            return
        # Depth-first walk from the root: an interface met again while it is
        # on the path is a cycle; one never met is unreachable.
        state = {}
        stack = [(model.root, iter(model.root.members))]
        state[model.root.name] = "open"
        while stack:
            iface, it = stack[-1]
            member = next(it, None)
            if member is None:
                state[iface.name] = "done"
                stack.pop()
                continue
            child = member.child
            if child is None:
                continue
            if state.get(child.name) == "open":
                self.problems.add(member.line, "member %s of %s makes a cycle through %s" % (
                    member.name, iface.name, child.name))
            elif child.name not in state:
                state[child.name] = "open"
                stack.append((child, iter(child.members)))
        for iface in model.interfaces:
            if iface.name not in state:
                self.problems.add(iface.line, "interface %s is not reachable from %s" % (iface.name, model.root.name))


def build(schema):
    """Resolves and validates a parsed SchemaFile; returns a Model.

    Raises SchemaError listing every problem with its line.
    """
    return _Builder(schema).build()
