"""Malformed schemas: every problem is reported with its line.

Each case edits the fixture in one place and expects the problem on the line
of that edit, with a message naming what is wrong.
"""

import unittest

from tests import fixture


def edited(old, new):
    source = fixture.text()
    assert source.count(old) == 1, old
    return source.replace(old, new)


class ErrorCase(unittest.TestCase):
    def assertProblem(self, source, fragment_of_line, message):
        """The schema reports exactly one problem, on the line holding
        fragment_of_line, whose message contains message."""
        found = fixture.problems(source)
        self.assertEqual(len(found), 1, found)
        line, text = found[0]
        self.assertEqual(line, fixture.line_of(source, fragment_of_line), text)
        self.assertIn(message, text)


class SyntaxErrors(ErrorCase):
    def test_unknown_keyword(self):
        self.assertProblem(edited("interface IPoint", "interfase IPoint"), "interfase", "unknown keyword 'interfase'")

    def test_indented_line_outside_a_block(self):
        source = "    Stray real CParameterReal Unset\n" + fixture.text()
        self.assertProblem(source, "Stray", "indented line outside an enum or interface block")

    def test_bad_names(self):
        self.assertProblem(edited("defaults Off ", "defaults 0ff "), "0ff", "bad defaults record name '0ff'")
        self.assertProblem(edited("    Y real", "    Y-2 real"), "Y-2", "bad member 'Y-2'")

    def test_bad_numbers(self):
        self.assertProblem(edited("eMODE_ON   1", "eMODE_ON   one"), "eMODE_ON", "bad number 'one'")
        self.assertProblem(edited("count=7", "count=-7"), "count=-7", "is not an unsigned 32-bit number")
        self.assertProblem(edited("count=7", "count=4294967296"), "count=", "is not an unsigned 32-bit number")
        self.assertProblem(edited("Points[3]", "Points[x]"), "Points[x]", "bad number 'x' for array count")
        self.assertProblem(edited("value=1e6", "value=1e6x"), "1e6x", "bad number '1e6x' for field 'value'")
        self.assertProblem(edited("value=1e6", "value=inf"), "value=inf", "must be finite")

    def test_fields_of_a_kind(self):
        self.assertProblem(edited(" max=1e9", ""), "defaults Freq", "RealValueMinMax record lacks field 'max'")
        self.assertProblem(edited("value=0\n", "value=0 colour=1\n"), "colour", "unknown option 'colour'")
        self.assertProblem(edited("value=0\n", "value=0 value=1\n"), "defaults Off", "option 'value' given twice")
        self.assertProblem(edited("Enum              count=7", "Enum count=7 enum=eMODE"), "defaults Modes",
                           "needs exactly one of count= or enum=")
        title = 'text="say \\"hi\\" \\\\ \u00e9t\u00e9"'
        self.assertProblem(edited(title, "text=say"), "text=say", "must be a quoted string")
        self.assertProblem(edited("shape=1,4,1,0,0", "shape=1,4,1"), "shape=", "five numbers")
        self.assertProblem(edited("Real              unit=HZ", "Rael unit=HZ"), "Rael", "unknown defaults kind 'Rael'")

    def test_member_lines(self):
        self.assertProblem(edited("    Y real CParameterReal    Unset", "    Y real CParameterReal"), "    Y real",
                           "expected: Y real CLASS DEFAULTS")
        self.assertProblem(edited("    Y real", "    Y float"), "Y float", "unknown member family 'float'")
        self.assertProblem(edited("Settings  group     ISettings", "Settings group ISettings Off"),
                           "Settings group", "expected: Settings group INTERFACE")

    def test_strings(self):
        title = 'text="say \\"hi\\" \\\\ \u00e9t\u00e9"  # quotes, backslash, non-ASCII'
        self.assertProblem(edited(title, 'text="say'), 'text="say', "unterminated string")
        self.assertProblem(edited('text="say \\"hi\\"', 'text="say \\q'), "say \\q", "unknown escape")

    def test_duplicates_name_the_first_declaration(self):
        first = fixture.line_of(fixture.text(), "interface IPoint")
        source = fixture.text() + "\ninterface IPoint\n    Z real CParameterReal Unset\n"
        found = fixture.problems(source)
        self.assertEqual(found[0][0], len(source.splitlines()) - 1)
        self.assertIn("duplicate interface 'IPoint' (first declared on line %d)" % first, found[0][1])
        self.assertProblem(edited("    Y real CParameterReal    Unset", "    X real CParameterReal Unset"),
                           "    X real CParameterReal Unset", "duplicate member of IPoint 'X'")
        self.assertProblem(edited("eMODE_AUTO 2", "eUNIT_HZ 2"), "eUNIT_HZ 2", "duplicate enumerator 'eUNIT_HZ'")
        self.assertProblem(edited("defaults Modes ", "defaults Off "), "defaults Off    Enum", "duplicate defaults record")

    def test_missing_header_lines(self):
        found = fixture.problems(edited("library TinyLib", "# library TinyLib"))
        self.assertEqual(found, [(1, "the schema lacks its 'library' line")])

    def test_all_problems_are_reported_in_order(self):
        source = edited("interface IPoint", "interfase IPoint").replace("eMODE_ON   1", "eMODE_ON   one")
        found = fixture.problems(source)
        self.assertEqual([line for line, _ in found],
                         [fixture.line_of(source, "eMODE_ON"), fixture.line_of(source, "interfase")])


class ModelErrors(ErrorCase):
    def test_unknown_references(self):
        self.assertProblem(edited("Points[3] group   IPoint", "Points[3] group IPiont"), "IPiont",
                           "unknown interface 'IPiont'")
        self.assertProblem(edited("CParameterMarkerX Freq", "CParameterMarkerY Freq"), "CParameterMarkerY",
                           "unknown class 'CParameterMarkerY'")
        self.assertProblem(edited("    Title ", "    Broken real CParameterReal Unsett\n    Title "), "Unsett",
                           "unknown defaults record 'Unsett'")
        self.assertProblem(edited("enum=eMODE value=eMODE_AUTO", "enum=eMOOD value=0"), "eMOOD",
                           "unknown enumeration 'eMOOD'")
        self.assertProblem(edited("unit=HZ value=1e6", "unit=GHZ value=1e6"), "unit=GHZ",
                           "unknown unit 'GHZ' (no eUNIT_GHZ)")
        self.assertProblem(edited("value=eMODE_AUTO", "value=eMODE_MANUAL"), "eMODE_MANUAL",
                           "eMODE_MANUAL is not a member of eMODE")
        self.assertProblem(edited("base=CParameterReal kinds", "base=CParameterRael kinds"), "CParameterRael",
                           "unknown base class 'CParameterRael'")

    def test_classes_and_kinds(self):
        self.assertProblem(edited("Enabled   boolean CParameterBoolean", "Enabled real CParameterBoolean"),
                           "Enabled real", "Enabled is a real member but class CParameterBoolean is boolean")
        self.assertProblem(edited("    Title ", "    Broken boolean CParameterBoolean Freq\n    Title "), "Broken",
                           "class CParameterBoolean does not take RealValueMinMax records (Freq is one)")
        self.assertProblem(fixture.text() + "class CParameterOdd string base=CParameterReal header=\"o.h\"\n", "CParameterOdd",
                           "class CParameterOdd is string but its base CParameterReal is real")
        self.assertProblem(fixture.text() + "class CParameterLoose buffer header=\"l.h\"\n", "CParameterLoose",
                           "class CParameterLoose has no base and so needs kinds=")
        self.assertProblem(fixture.text() + "class CParameterHalf real base=CParameterReal\n", "CParameterHalf",
                           "class CParameterHalf needs exactly one of header= (implemented) and pending= (rule to come)")
        self.assertProblem(fixture.text() + "class CParameterAlone real kinds=Real pending=axes\n", "CParameterAlone",
                           "class CParameterAlone is pending and so needs base=")
        self.assertProblem(fixture.text() + 'class CParameterEarly real base=CParameterMarkerX header="e.h"\n',
                           "CParameterEarly", "class CParameterEarly is implemented but its base CParameterMarkerX "
                                              "is pending")
        source = edited('class CParameterReal        real      kinds=Real,RealValue header="parameters/ParameterReal.h"',
                        "class CParameterReal real base=CParameterMarkerX header=\"r.h\"")
        found = fixture.problems(source)
        self.assertTrue(any("derives from itself" in message for _, message in found), found)

    def test_record_values(self):
        self.assertProblem(edited("value=1e6 min=0", "value=2e9 min=0"), "value=2e9", "value 2000000000.0 lies outside")
        self.assertProblem(edited("min=0 max=1e9", "min=2e9 max=1e9"), "min=2e9", "minimum 2000000000.0 is above")
        self.assertProblem(edited("value=eMODE_AUTO", "value=3"), "defaults ModeAuto", "value 3 is not below the count 3")
        self.assertProblem(edited("BooleanValue      value=0", "BooleanValue value=2"), "value=2",
                           "a boolean value is 0 or 1")
        self.assertProblem(edited("size=102400", "size=0"), "size=0", "the count must be at least 1")
        self.assertProblem(edited("small=0.1", "small=-0.1"), "small=-0.1", "step sizes must not be negative")
        self.assertProblem(edited("eMODE_AUTO 2", "eMODE_AUTO 1"), "eMODE_AUTO 1",
                           "eMODE_AUTO repeats the value 1 of eMODE_ON")
        self.assertProblem(edited("    eMODE_ON   1", "    eON 1"), "eON 1", "eON does not begin with eMODE_")

    def test_tree_shape(self):
        self.assertProblem(edited("Points[3]", "Points[0]"), "Points[0]", "array count of Points must be at least 1")
        self.assertProblem(edited("    Y real CParameterReal    Unset", "    Y[2] real CParameterReal Unset"),
                           "Y[2]", "parameter Y cannot be indexed")
        cycle = edited("    Y real CParameterReal    Unset", "    Y real CParameterReal Unset\n    Back group ISettings")
        self.assertProblem(cycle, "Back group", "member Back of IPoint makes a cycle through ISettings")
        self.assertProblem(fixture.text() + "\ninterface ILonely\n    Z real CParameterReal Unset\n",
                           "interface ILonely", "interface ILonely is not reachable from IRoot")
        self.assertProblem(fixture.text() + "\ndefaults Spare BooleanValue value=1\n", "defaults Spare",
                           "defaults record Spare is not used")
        self.assertProblem(edited("interface ISettings iid={0a0b0c0d-0e0f-1011-1213-141516171819}",
                                  "interface ISettings iid={11111111-2222-3333-4444-555555555555}"),
                           "interface ISettings", "IID of ISettings equals that of the library")
        found = fixture.problems(edited("interface IRoot", "interface IBase"))
        self.assertIn((1, "the schema lacks the root interface IRoot"), found)


if __name__ == "__main__":
    unittest.main()
