"""Parse stage: schema text -> declarations with line numbers.

The schema is line oriented. A line that starts in column 0 opens a
declaration; an indented line belongs to the enum or interface block opened
last. `#` starts a comment anywhere outside a quoted string. Statements:

  library NAME {GUID} version=MAJOR.MINOR
  iid-namespace {GUID}
  enum eNAME [outline]
      eNAME_MEMBER VALUE
  class CNAME FAMILY [base=CNAME] [kinds=KIND,...] (header="path" | pending=AREA)
  defaults NAME KIND [key=value ...]
  interface INAME [iid={GUID}]
      MEMBER[COUNT] FAMILY CLASS DEFAULTS     (a parameter)
      MEMBER[COUNT] group INTERFACE           (a child group; [COUNT] makes it indexed)

This stage checks what one line can tell: keywords, identifiers, numbers,
GUIDs, the fields of each defaults kind, duplicate names. References between
declarations are resolved by the model stage. parse() collects every problem
and raises them together as a SchemaError.
"""

import math
import re
import uuid
from dataclasses import dataclass, field

from . import syntax
from .errors import ProblemList

IDENT = re.compile(r"[A-Za-z_][A-Za-z0-9_]*\Z")
MEMBER = re.compile(r"([A-Za-z_][A-Za-z0-9_]*)(?:\[([^\]]*)\])?\Z")
GUID = re.compile(r"\{([0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12})\}\Z")
VERSION = re.compile(r"(\d{1,5})\.(\d{1,5})\Z")
ESCAPES = {"\\": "\\", '"': '"', "n": "\n", "r": "\r", "t": "\t"}
U32_MAX = 0xFFFFFFFF


@dataclass
class Library:
    name: str
    guid: uuid.UUID
    major: int
    minor: int
    line: int


@dataclass
class EnumMember:
    name: str
    value: int
    line: int
    symbol: str = None  # eUNIT: the unit's symbol
    prefixed: bool = False  # eUNIT: values take engineering prefixes


@dataclass
class EnumDecl:
    name: str
    outline: bool
    line: int
    members: list = field(default_factory=list)


@dataclass
class ClassDecl:
    name: str
    family: str
    base: str
    kinds: list  # None when inherited from the base
    pending: str
    header: str
    line: int


@dataclass
class DefaultsDecl:
    name: str
    kind: str
    fields: dict  # key -> parsed value (int, float, str, list of int)
    line: int


@dataclass
class MemberDecl:
    name: str
    count: int  # None when the member is not indexed
    family: str
    target: str  # parameter class, or child interface for a group
    defaults: str  # None for a group
    line: int


@dataclass
class InterfaceDecl:
    name: str
    iid: uuid.UUID  # None: derived from the namespace
    line: int
    members: list = field(default_factory=list)


@dataclass
class SchemaFile:
    filename: str
    library: Library = None
    namespace: uuid.UUID = None
    namespace_line: int = 0
    enums: list = field(default_factory=list)
    classes: list = field(default_factory=list)
    defaults: list = field(default_factory=list)
    interfaces: list = field(default_factory=list)


class _LineError(Exception):
    pass


# Block marker after a broken enum or interface line: its indented lines are
# skipped rather than reported once more each.
_SKIP = object()


@dataclass
class _Token:
    text: str
    quoted: bool  # some part of it was a quoted string


def tokenize(text):
    """Splits one line into tokens, dropping a trailing comment.

    A quoted part ("...", with escapes \\\\ \\" \\n \\r \\t) may stand anywhere in a
    token, typically after key=. Raises _LineError for an unterminated string
    or an unknown escape.
    """
    tokens = []
    current = None
    i = 0
    while i < len(text):
        c = text[i]
        if c == "#":
            break
        if c.isspace():
            if current is not None:
                tokens.append(current)
                current = None
            i += 1
            continue
        if current is None:
            current = _Token("", False)
        if c != '"':
            current.text += c
            i += 1
            continue
        current.quoted = True
        i += 1
        while True:
            if i >= len(text):
                raise _LineError("unterminated string")
            c = text[i]
            if c == '"':
                i += 1
                break
            if c == "\\":
                if i + 1 >= len(text) or text[i + 1] not in ESCAPES:
                    raise _LineError("unknown escape in string")
                current.text += ESCAPES[text[i + 1]]
                i += 2
                continue
            current.text += c
            i += 1
    if current is not None:
        tokens.append(current)
    return tokens


def _ident(token, what):
    if token.quoted or not IDENT.match(token.text):
        raise _LineError("bad %s name '%s'" % (what, token.text))
    return token.text


def _guid(text, what):
    m = GUID.match(text)
    if not m:
        raise _LineError("bad %s '%s', expected {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" % (what, text))
    return uuid.UUID(m.group(1))


def parse_u32(text, what):
    """Decimal or 0x-hex number in 0..0xFFFFFFFF; raises _LineError."""
    try:
        value = int(text, 16) if text[:2] in ("0x", "0X") else int(text, 10)
    except ValueError:
        raise _LineError("bad number '%s' for %s" % (text, what)) from None
    if text.lstrip("+-") != text or value < 0 or value > U32_MAX:
        raise _LineError("%s '%s' is not an unsigned 32-bit number" % (what, text))
    return value


def _int32(text, what):
    try:
        value = int(text, 0)
    except ValueError:
        raise _LineError("bad number '%s' for %s" % (text, what)) from None
    if value < -(2**31) or value >= 2**31:
        raise _LineError("%s %s does not fit a 32-bit enumeration" % (what, text))
    return value


def _f64(text, what):
    try:
        value = float(text)
    except ValueError:
        raise _LineError("bad number '%s' for %s" % (text, what)) from None
    if not math.isfinite(value):
        raise _LineError("%s must be finite, not '%s'" % (what, text))
    return value


def _options(tokens, allowed):
    """key=value tokens -> dict; unknown or repeated keys raise _LineError."""
    result = {}
    for token in tokens:
        key, sep, value = token.text.partition("=")
        if not sep or not key:
            raise _LineError("expected key=value, found '%s'" % token.text)
        if key not in allowed:
            raise _LineError("unknown option '%s' (allowed: %s)" % (key, ", ".join(allowed)))
        if key in result:
            raise _LineError("option '%s' given twice" % key)
        result[key] = _Token(value, token.quoted)
    return result


def _defaults_fields(kind, tokens):
    """Converts the key=value fields of a defaults record of the given kind."""
    layout = syntax.KINDS[kind]
    allowed = [key for key, _ in layout]
    if any(t == "count" for _, t in layout):
        allowed.append("enum")
    given = _options(tokens, allowed)
    fields = {}
    for key, ftype in layout:
        if ftype == "count":
            if ("count" in given) == ("enum" in given):
                raise _LineError("%s record needs exactly one of count= or enum=" % kind)
            if "enum" in given:
                fields["enum"] = _ident(given.pop("enum"), "enumeration")
            else:
                fields["count"] = parse_u32(given.pop("count").text, "count")
            continue
        if key not in given:
            raise _LineError("%s record lacks field '%s'" % (kind, key))
        token = given.pop(key)
        if ftype == "text":
            if not token.quoted:
                raise _LineError("field '%s' must be a quoted string" % key)
            fields[key] = token.text
        elif token.quoted:
            raise _LineError("field '%s' must not be quoted" % key)
        elif ftype == "u32":
            fields[key] = parse_u32(token.text, "field '%s'" % key)
        elif ftype == "f64":
            fields[key] = _f64(token.text, "field '%s'" % key)
        elif ftype == "unit":
            fields[key] = _ident(token, "unit")
        elif ftype == "index":
            fields[key] = token.text if IDENT.match(token.text) else parse_u32(token.text, "field '%s'" % key)
        elif ftype == "shape":
            parts = token.text.split(",")
            if len(parts) != 5:
                raise _LineError("field 'shape' needs five numbers separated by commas")
            fields[key] = [parse_u32(p, "shape") for p in parts]
    return fields


class _Parser:
    def __init__(self, filename):
        self.file = SchemaFile(filename)
        self.problems = ProblemList(filename)
        self.block = None  # EnumDecl or InterfaceDecl that indented lines join
        self.names = {}  # (namespace, name) -> line of the first declaration

    def declare(self, space, name, line, what):
        key = (space, name)
        if key in self.names:
            raise _LineError("duplicate %s '%s' (first declared on line %d)" % (what, name, self.names[key]))
        self.names[key] = line

    def parse_line(self, number, text):
        tokens = tokenize(text)
        if not tokens:
            return
        if text[0].isspace():
            if self.block is None:
                raise _LineError("indented line outside an enum or interface block")
            if self.block is _SKIP:
                return
            if isinstance(self.block, EnumDecl):
                self.enum_member(number, tokens)
            else:
                self.interface_member(number, tokens)
            return
        self.block = _SKIP
        keyword = tokens[0].text
        handler = {
            "library": self.library,
            "iid-namespace": self.namespace,
            "enum": self.enum,
            "class": self.class_,
            "defaults": self.defaults,
            "interface": self.interface,
        }.get(keyword)
        if handler is None or tokens[0].quoted:
            raise _LineError("unknown keyword '%s'" % keyword)
        handler(number, tokens[1:])
        if self.block is _SKIP:
            self.block = None

    def library(self, number, args):
        if self.file.library is not None:
            raise _LineError("library given twice (first on line %d)" % self.file.library.line)
        if len(args) != 3:
            raise _LineError("expected: library NAME {GUID} version=MAJOR.MINOR")
        name = _ident(args[0], "library")
        guid = _guid(args[1].text, "library GUID")
        version = _options(args[2:], ["version"]).get("version")
        m = VERSION.match(version.text) if version else None
        if not m or int(m.group(1)) > 0xFFFF or int(m.group(2)) > 0xFFFF:
            raise _LineError("bad library version, expected version=MAJOR.MINOR of 16-bit numbers")
        self.file.library = Library(name, guid, int(m.group(1)), int(m.group(2)), number)

    def namespace(self, number, args):
        if self.file.namespace is not None:
            raise _LineError("iid-namespace given twice (first on line %d)" % self.file.namespace_line)
        if len(args) != 1:
            raise _LineError("expected: iid-namespace {GUID}")
        self.file.namespace = _guid(args[0].text, "namespace GUID")
        self.file.namespace_line = number

    def enum(self, number, args):
        if not args or len(args) > 2 or (len(args) == 2 and args[1].text != "outline"):
            raise _LineError("expected: enum eNAME [outline]")
        name = _ident(args[0], "enumeration")
        self.declare("enum", name, number, "enumeration")
        decl = EnumDecl(name, len(args) == 2, number)
        self.file.enums.append(decl)
        self.block = decl

    def enum_member(self, number, tokens):
        if len(tokens) < 2:
            raise _LineError("expected: ENUMERATOR VALUE [symbol=\"TEXT\" [prefixed]]")
        name = _ident(tokens[0], "enumerator")
        rest = list(tokens[2:])
        prefixed = bool(rest) and not rest[-1].quoted and rest[-1].text == "prefixed"
        if prefixed:
            rest.pop()
        symbol = _options(rest, ["symbol"]).get("symbol")
        if (symbol is not None or prefixed) and self.block.name != syntax.UNIT_ENUM:
            raise _LineError("only members of %s carry a symbol" % syntax.UNIT_ENUM)
        if prefixed and symbol is None:
            raise _LineError("'prefixed' needs a symbol=")
        if symbol is not None and not symbol.quoted:
            raise _LineError("field 'symbol' must be a quoted string")
        # Plain enumerations share one C++ scope, so their members must be
        # unique across all of them.
        self.declare("enumerator", name, number, "enumerator")
        self.block.members.append(EnumMember(name, _int32(tokens[1].text, "value of " + name), number,
                                             symbol.text if symbol is not None else None, prefixed))

    def class_(self, number, args):
        if len(args) < 2:
            raise _LineError("expected: class CNAME FAMILY [base=] [kinds=] (header= | pending=)")
        name = _ident(args[0], "class")
        family = args[1].text
        if family not in syntax.FAMILIES:
            raise _LineError("unknown value family '%s' (one of: %s)" % (family, ", ".join(syntax.FAMILIES)))
        options = _options(args[2:], ["base", "kinds", "pending", "header"])
        base = _ident(options["base"], "base class") if "base" in options else None
        kinds = None
        if "kinds" in options:
            kinds = options["kinds"].text.split(",")
            for kind in kinds:
                if kind not in syntax.KINDS:
                    raise _LineError("unknown defaults kind '%s'" % kind)
        pending = _ident(options["pending"], "pending area") if "pending" in options else None
        header = options["header"].text if "header" in options else None
        self.declare("class", name, number, "class")
        self.file.classes.append(ClassDecl(name, family, base, kinds, pending, header, number))

    def defaults(self, number, args):
        if len(args) < 2:
            raise _LineError("expected: defaults NAME KIND [key=value ...]")
        name = _ident(args[0], "defaults record")
        kind = args[1].text
        if kind not in syntax.KINDS:
            raise _LineError("unknown defaults kind '%s'" % kind)
        fields = _defaults_fields(kind, args[2:])
        self.declare("defaults", name, number, "defaults record")
        self.file.defaults.append(DefaultsDecl(name, kind, fields, number))

    def interface(self, number, args):
        if not args or len(args) > 2:
            raise _LineError("expected: interface INAME [iid={GUID}]")
        name = _ident(args[0], "interface")
        options = _options(args[1:], ["iid"])
        iid = _guid(options["iid"].text, "interface IID") if "iid" in options else None
        self.declare("interface", name, number, "interface")
        decl = InterfaceDecl(name, iid, number)
        self.file.interfaces.append(decl)
        self.block = decl

    def interface_member(self, number, tokens):
        m = MEMBER.match(tokens[0].text)
        if tokens[0].quoted or not m:
            raise _LineError("bad member '%s', expected NAME or NAME[COUNT]" % tokens[0].text)
        name, count_text = m.groups()
        count = parse_u32(count_text, "array count of " + name) if count_text is not None else None
        if len(tokens) < 2:
            raise _LineError("member '%s' lacks its family" % name)
        family = tokens[1].text
        if family == syntax.GROUP:
            if len(tokens) != 3:
                raise _LineError("expected: %s group INTERFACE" % tokens[0].text)
            target, defaults = _ident(tokens[2], "interface"), None
        elif family in syntax.FAMILIES:
            if len(tokens) != 4:
                raise _LineError("expected: %s %s CLASS DEFAULTS" % (tokens[0].text, family))
            target, defaults = _ident(tokens[2], "class"), _ident(tokens[3], "defaults record")
        else:
            raise _LineError("unknown member family '%s' (group or one of: %s)" % (family, ", ".join(syntax.FAMILIES)))
        self.declare(("member", self.block.name), name, number, "member of %s" % self.block.name)
        self.block.members.append(MemberDecl(name, count, family, target, defaults, number))


def parse(text, filename):
    """Parses schema text; returns a SchemaFile or raises SchemaError.

    filename is used in messages only. Every line is examined even after a
    problem, so that one run reports all of them.
    """
    parser = _Parser(filename)
    for number, line in enumerate(text.splitlines(), start=1):
        try:
            parser.parse_line(number, line)
        except _LineError as e:
            parser.problems.add(number, str(e))
            if line[:1].strip():
                parser.block = _SKIP
    if parser.file.library is None:
        parser.problems.add(1, "the schema lacks its 'library' line")
    if parser.file.namespace is None:
        parser.problems.add(1, "the schema lacks its 'iid-namespace' line")
    parser.problems.raise_if_any()
    return parser.file
