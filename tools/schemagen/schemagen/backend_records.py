"""Backend: the defaults records as C++ constants, DefaultsRecords.{h,cpp}.

Every defaults record of the schema becomes one constant of its SDefaults*
type (parameters/Defaults.h) in namespace vorn::records, named as in the
schema: the header declares them all, the source defines them with
designated initialisers, so they are constant-initialised data that the
group classes' layout tables point at. Records are shared by pointer and
never copied.
"""

from .cpp import double_literal, string_literal
from .output import banner

HEADER_TEXT = """\
//
// The defaults records of the database tree, one constant per record of the
// schema, shared by every parameter that names it (DefaultsRecords.cpp).
#pragma once

#include "parameters/Defaults.h"
"""

SOURCE_TEXT = """\
//
// The defaults records of the database tree (declared in DefaultsRecords.h).
"""


def _u32(value):
    return "%du" % value


_real = double_literal


def _limits(d, conv):
    return [("minimum", conv(d.min)), ("maximum", conv(d.max))]


def _steps(d):
    return [("smallStep", _real(d.small)), ("largeStep", _real(d.large))]


def _unit(d):
    return [("unit", "::" + d.unit_name)]


# Kind -> (C++ field, initialiser text) of a record, in the record's order.
FIELDS = {
    "None": lambda d: [],
    "BooleanValue": lambda d: [("value", _u32(d.value))],
    "IntegerValue": lambda d: [("value", _u32(d.value))],
    "IntegerValueMinMax": lambda d: [("value", _u32(d.value))] + _limits(d, _u32),
    "Enum": lambda d: [("count", _u32(d.count))],
    "EnumValue": lambda d: [("count", _u32(d.count)), ("value", _u32(d.value))],
    "Real": lambda d: _unit(d),
    "RealValue": lambda d: _unit(d) + [("value", _real(d.value))],
    "RealValueMinMax": lambda d: _unit(d) + [("value", _real(d.value))] + _limits(d, _real),
    "RealValueMinMaxNoReset": lambda d: _unit(d) + _limits(d, _real),
    "RealSettingIncDec": lambda d: _unit(d) + [("value", _real(d.value))] + _limits(d, _real) + _steps(d),
    "RealSettingIncDecNoReset": lambda d: _unit(d) + _limits(d, _real) + _steps(d),
    "StringValue": lambda d: [("value", string_literal(d.text, "u"))],
    "IntegerArray": lambda d: [("maxSize", _u32(d.count))] + _unit(d),
    "RealArray": lambda d: [("maxSize", _u32(d.count))] + _unit(d),
    "Buffer": lambda d: [("leading", "{%s}" % ", ".join(_u32(x) for x in d.shape[:3])),
                         ("firstExtent", _u32(d.shape[3])), ("secondExtent", _u32(d.shape[4]))],
}


def _type(d):
    return "SDefaults" + d.kind


def header(model, source):
    """Returns the text of DefaultsRecords.h for the model."""
    out = [banner(source) + HEADER_TEXT, "namespace vorn::records {", ""]
    out.extend("extern const %s %s;" % (_type(d), d.name) for d in model.defaults)
    out += ["", "}  // namespace vorn::records"]
    return "\n".join(out) + "\n"


def source(model, source_name):
    """Returns the text of DefaultsRecords.cpp for the model."""
    out = [banner(source_name) + SOURCE_TEXT, '#include "schema/DefaultsRecords.h"', "", "namespace vorn::records {",
           ""]
    for d in model.defaults:
        init = ", ".join(".%s = %s" % field for field in FIELDS[d.kind](d))
        out.append("constinit const %s %s{%s};" % (_type(d), d.name, init))
    out += ["", "}  // namespace vorn::records"]
    return "\n".join(out) + "\n"
