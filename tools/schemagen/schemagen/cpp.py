"""Small helpers shared by the C++ backends: literals and GUID initialisers."""


def guid_fields(u):
    """uuid.UUID -> the twelve initialiser numbers of a GUID, as text."""
    b = u.bytes
    return "0x%08x, 0x%04x, 0x%04x, %s" % (
        u.time_low, u.time_mid, u.time_hi_version, ", ".join("0x%02x" % x for x in b[8:]))


def guid_initializer(u):
    """uuid.UUID -> "{l, w1, w2, {b0, ..., b7}}" for a GUID aggregate."""
    b = u.bytes
    return "{0x%08x, 0x%04x, 0x%04x, {%s}}" % (
        u.time_low, u.time_mid, u.time_hi_version, ", ".join("0x%02x" % x for x in b[8:]))


def string_literal(text, prefix=""):
    """A C++ string literal for text; prefix "u" gives a char16_t literal.

    Printable ASCII stands as it is (with \\ and " escaped); everything else
    is written as \\uXXXX (or \\UXXXXXXXX), which is valid in both narrow and
    UTF-16 literals of names that are ASCII anyway.
    """
    out = []
    for ch in text:
        code = ord(ch)
        if ch in '\\"':
            out.append("\\" + ch)
        elif 0x20 <= code < 0x7F:
            out.append(ch)
        elif ch == "\n":
            out.append("\\n")
        elif ch == "\r":
            out.append("\\r")
        elif ch == "\t":
            out.append("\\t")
        elif code <= 0xFFFF:
            out.append("\\u%04x" % code)
        else:
            out.append("\\U%08x" % code)
    return '%s"%s"' % (prefix, "".join(out))


def double_literal(value):
    """A C++ double literal that reads back as exactly value."""
    text = repr(float(value))
    return text if any(c in text for c in ".e") else text + ".0"
