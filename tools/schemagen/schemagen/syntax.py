"""Fixed vocabulary of the schema language: value families and defaults kinds.

The families are the value interfaces of the parameter model plus `group` for
a child group. The defaults kinds are the SDefaults* record kinds; each lists
its fields in record order with the type of each field:

  u32    unsigned 32-bit number (decimal or 0x hex)
  f64    real number
  unit   a member of eUNIT, written without the eUNIT_ prefix (VOLT, DBC_HZ)
  text   a quoted string
  shape  five u32 separated by commas
  count  an Enum record's number of values: count=N, or enum=eNAME to take the
         number of members of that enumeration (the member then carries it)
  index  an EnumValue record's initial value: a number, or with enum= a member
         name of that enumeration

This module holds data only; parse and model read it.
"""

# Member family keyword -> value interface it is exposed through.
FAMILIES = {
    "boolean": "IParameterBoolean",
    "integer": "IParameterInteger",
    "real": "IParameterReal",
    "string": "IParameterString",
    "intarray": "IParameterIntegerArray",
    "realarray": "IParameterRealArray",
    "buffer": "IParameterBuffer",
}
GROUP = "group"

# Kind name (SDefaults + name in C++) -> ordered fields (key, type).
KINDS = {
    "None": [],
    "BooleanValue": [("value", "u32")],
    "IntegerValue": [("value", "u32")],
    "IntegerValueMinMax": [("value", "u32"), ("min", "u32"), ("max", "u32")],
    "Enum": [("count", "count")],
    "EnumValue": [("count", "count"), ("value", "index")],
    "Real": [("unit", "unit")],
    "RealValue": [("unit", "unit"), ("value", "f64")],
    "RealValueMinMax": [("unit", "unit"), ("value", "f64"), ("min", "f64"), ("max", "f64")],
    "RealValueMinMaxNoReset": [("unit", "unit"), ("min", "f64"), ("max", "f64")],
    "RealSettingIncDec": [
        ("unit", "unit"), ("value", "f64"), ("min", "f64"), ("max", "f64"), ("small", "f64"), ("large", "f64")],
    "RealSettingIncDecNoReset": [("unit", "unit"), ("min", "f64"), ("max", "f64"), ("small", "f64"), ("large", "f64")],
    "StringValue": [("text", "text")],
    "IntegerArray": [("size", "u32"), ("unit", "unit")],
    "RealArray": [("size", "u32"), ("unit", "unit")],
    "Buffer": [("shape", "shape")],
}

# The kind every class accepts in addition to its own: a parameter without
# any default (always derived or set by its owner).
UNIVERSAL_KIND = "None"

# Enumeration that unit fields name their members from.
UNIT_ENUM = "eUNIT"

# Name of the root group's interface.
ROOT_INTERFACE = "IRoot"

# Base interface of every group interface.
GROUP_BASE = "IGroup"
