"""Malformed schemas: every problem is reported with its line.

Each case edits the fixture in one place and expects exactly one problem, on
the line holding a given fragment of the edited text, with a message naming
what is wrong.
"""

import unittest

from tests import fixture

TITLE = 'text="say \\"hi\\" \\\\ \u00e9t\u00e9"'


def edited(old, new):
    source = fixture.text()
    assert source.count(old) == 1, old
    return source.replace(old, new)


def added(text):
    return fixture.text() + text


# (edited schema, fragment of the line of the problem, part of its message)
SYNTAX = [
    (edited("interface IPoint", "interfase IPoint"), "interfase", "unknown keyword 'interfase'"),
    ("    Stray real CParameterReal Unset\n" + fixture.text(), "Stray",
     "indented line outside an enum or interface block"),
    (edited("defaults Off ", "defaults 0ff "), "0ff", "bad defaults record name '0ff'"),
    (edited("    Y real", "    Y-2 real"), "Y-2", "bad member 'Y-2'"),
    (edited("eMODE_ON   1", "eMODE_ON   one"), "eMODE_ON", "bad number 'one'"),
    (edited("count=7", "count=-7"), "count=-7", "is not an unsigned 32-bit number"),
    (edited("count=7", "count=4294967296"), "count=", "is not an unsigned 32-bit number"),
    (edited("Points[3]", "Points[x]"), "Points[x]", "bad number 'x' for array count"),
    (edited("value=1e6", "value=1e6x"), "1e6x", "bad number '1e6x' for field 'value'"),
    (edited("value=1e6", "value=inf"), "value=inf", "must be finite"),
    (edited(" max=1e9", ""), "defaults Freq", "RealValueMinMax record lacks field 'max'"),
    (edited("value=0\n", "value=0 colour=1\n"), "colour", "unknown option 'colour'"),
    (edited("value=0\n", "value=0 value=1\n"), "defaults Off", "option 'value' given twice"),
    (edited("Enum              count=7", "Enum count=7 enum=eMODE"), "defaults Modes",
     "needs exactly one of count= or enum="),
    (edited(TITLE, "text=say"), "text=say", "must be a quoted string"),
    (edited("shape=1,4,1,0,0", "shape=1,4,1"), "shape=", "five numbers"),
    (edited("Real              unit=HZ", "Rael unit=HZ"), "Rael", "unknown defaults kind 'Rael'"),
    (edited("    Y real CParameterReal    Unset", "    Y real CParameterReal"), "    Y real",
     "expected: Y real CLASS DEFAULTS"),
    (edited("    Y real", "    Y float"), "Y float", "unknown member family 'float'"),
    (edited("Settings  group     ISettings", "Settings group ISettings Off"), "Settings group",
     "expected: Settings group INTERFACE"),
    (edited(TITLE + "  # quotes, backslash, non-ASCII", 'text="say'), 'text="say', "unterminated string"),
    (edited('text="say \\"hi\\"', 'text="say \\q'), "say \\q", "unknown escape"),
    (edited("    Y real CParameterReal    Unset", "    X real CParameterReal Unset"), "    X real CParameterReal Unset",
     "duplicate member of IPoint 'X'"),
    (edited("eMODE_AUTO 2", "eUNIT_HZ 2"), "eUNIT_HZ 2", "duplicate enumerator 'eUNIT_HZ'"),
    (edited("eMODE_AUTO 2", 'eMODE_AUTO 2 symbol="x"'), "eMODE_AUTO 2 symbol", "only members of eUNIT carry a symbol"),
    (edited('symbol="Hz" prefixed', "prefixed"), "eUNIT_HZ   4 prefixed", "'prefixed' needs a symbol="),
    (edited("defaults Modes ", "defaults Off "), "defaults Off    Enum", "duplicate defaults record"),
]

MODEL = [
    (edited("Points[3] group   IPoint", "Points[3] group IPiont"), "IPiont", "unknown interface 'IPiont'"),
    (edited("CParameterMarkerX Freq", "CParameterMarkerY Freq"), "CParameterMarkerY",
     "unknown class 'CParameterMarkerY'"),
    (edited("    Title ", "    Broken real CParameterReal Unsett\n    Title "), "Unsett",
     "unknown defaults record 'Unsett'"),
    (edited("enum=eMODE value=eMODE_AUTO", "enum=eMOOD value=0"), "eMOOD", "unknown enumeration 'eMOOD'"),
    (edited('eUNIT_NONE 0 symbol=""', "eUNIT_NONE 0"), "eUNIT_NONE 0", "unit eUNIT_NONE has no symbol="),
    (edited("unit=HZ value=1e6", "unit=GHZ value=1e6"), "unit=GHZ", "unknown unit 'GHZ' (no eUNIT_GHZ)"),
    (edited("value=eMODE_AUTO", "value=eMODE_MANUAL"), "eMODE_MANUAL", "eMODE_MANUAL is not a member of eMODE"),
    (edited("base=CParameterReal kinds", "base=CParameterRael kinds"), "CParameterRael",
     "unknown base class 'CParameterRael'"),
    # Classes and the kinds of records they take.
    (edited("Enabled   boolean CParameterBoolean", "Enabled real CParameterBoolean"), "Enabled real",
     "Enabled is a real member but class CParameterBoolean is boolean"),
    (edited("    Title ", "    Broken boolean CParameterBoolean Freq\n    Title "), "Broken",
     "class CParameterBoolean does not take RealValueMinMax records (Freq is one)"),
    (added('class CParameterOdd string base=CParameterReal header="o.h"\n'), "CParameterOdd",
     "class CParameterOdd is string but its base CParameterReal is real"),
    (added('class CParameterLoose buffer header="l.h"\n'), "CParameterLoose",
     "class CParameterLoose has no base and so needs kinds="),
    (added("class CParameterHalf real base=CParameterReal\n"), "CParameterHalf",
     "class CParameterHalf needs exactly one of header= (implemented) and pending= (rule to come)"),
    (added("class CParameterAlone real kinds=Real pending=axes\n"), "CParameterAlone",
     "class CParameterAlone is pending and so needs base="),
    (added('class CParameterEarly real base=CParameterMarkerX header="e.h"\n'), "CParameterEarly",
     "class CParameterEarly is implemented but its base CParameterMarkerX is pending"),
    # Values of records and enumerations.
    (edited("value=1e6 min=0", "value=2e9 min=0"), "value=2e9", "value 2000000000.0 lies outside"),
    (edited("min=0 max=1e9", "min=2e9 max=1e9"), "min=2e9", "minimum 2000000000.0 is above"),
    (edited("value=eMODE_AUTO", "value=3"), "defaults ModeAuto", "value 3 is not below the count 3"),
    (edited("BooleanValue      value=0", "BooleanValue value=2"), "value=2", "a boolean value is 0 or 1"),
    (edited("size=102400", "size=0"), "size=0", "the count must be at least 1"),
    (edited("small=0.1", "small=-0.1"), "small=-0.1", "step sizes must not be negative"),
    (edited("eMODE_AUTO 2", "eMODE_AUTO 1"), "eMODE_AUTO 1", "eMODE_AUTO repeats the value 1 of eMODE_ON"),
    (edited("    eMODE_ON   1", "    eON 1"), "eON 1", "eON does not begin with eMODE_"),
    # The shape of the tree.
    (edited("Points[3]", "Points[0]"), "Points[0]", "array count of Points must be at least 1"),
    (edited("    Y real CParameterReal    Unset", "    Y[2] real CParameterReal Unset"), "Y[2]",
     "parameter Y cannot be indexed"),
    (edited("    Y real CParameterReal    Unset", "    Y real CParameterReal Unset\n    Back group ISettings"),
     "Back group", "member Back of IPoint makes a cycle through ISettings"),
    (added("\ninterface ILonely\n    Z real CParameterReal Unset\n"), "interface ILonely",
     "interface ILonely is not reachable from IRoot"),
    (added("\ndefaults Spare BooleanValue value=1\n"), "defaults Spare", "defaults record Spare is not used"),
    (edited("interface ISettings iid={0a0b0c0d-0e0f-1011-1213-141516171819}",
            "interface ISettings iid={11111111-2222-3333-4444-555555555555}"), "interface ISettings",
     "IID of ISettings equals that of the library"),
]


class Problems(unittest.TestCase):
    def test_each_is_reported_on_its_line(self):
        for source, fragment_of_line, message in SYNTAX + MODEL:
            with self.subTest(message):
                found = fixture.problems(source)
                self.assertEqual(len(found), 1, found)
                line, text = found[0]
                self.assertEqual(line, fixture.line_of(source, fragment_of_line), text)
                self.assertIn(message, text)

    def test_problems_of_several_lines_or_the_whole_schema(self):
        # A duplicate names its first declaration.
        first = fixture.line_of(fixture.text(), "interface IPoint")
        source = added("\ninterface IPoint\n    Z real CParameterReal Unset\n")
        self.assertEqual(fixture.problems(source), [(len(source.splitlines()) - 1,
                                                     "duplicate interface 'IPoint' (first declared on line %d)" % first)])
        self.assertEqual(fixture.problems(edited("library TinyLib", "# library TinyLib")),
                         [(1, "the schema lacks its 'library' line")])
        self.assertIn((1, "the schema lacks the root interface IRoot"),
                      fixture.problems(edited("interface IRoot", "interface IBase")))
        source = edited('class CParameterReal        real      kinds=Real,RealValue header="parameters/ParameterReal.h"',
                        'class CParameterReal real base=CParameterMarkerX header="r.h"')
        found = fixture.problems(source)
        self.assertTrue(any("derives from itself" in message for _, message in found), found)
        # Every problem is reported, in the order of the lines.
        source = edited("interface IPoint", "interfase IPoint").replace("eMODE_ON   1", "eMODE_ON   one")
        self.assertEqual([line for line, _ in fixture.problems(source)],
                         [fixture.line_of(source, "eMODE_ON"), fixture.line_of(source, "interfase")])


if __name__ == "__main__":
    unittest.main()
