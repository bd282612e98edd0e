"""Parse and model stages on the fixture: what a valid schema resolves to."""

import unittest
import uuid

from tests import fixture


class FixtureModel(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.model = fixture.build()

    def iface(self, name):
        return self.model.interface(name)

    def member(self, iface, name):
        return next(m for m in self.iface(iface).members if m.name == name)

    def test_library_and_order(self):
        lib = self.model.library
        self.assertEqual((lib.name, lib.major, lib.minor), ("TinyLib", 2, 3))
        self.assertEqual(lib.guid, uuid.UUID("11111111-2222-3333-4444-555555555555"))
        self.assertEqual([i.name for i in self.model.interfaces], ["IPoint", "ISettings", "IRoot"])
        self.assertIs(self.model.root, self.iface("IRoot"))
        self.assertEqual(self.iface("IRoot").class_name, "CGroupRoot")

    def test_members_keep_declaration_order_and_dispids(self):
        settings = self.iface("ISettings")
        self.assertEqual([m.name for m in settings.members], ["Enabled", "Mode", "Points", "Title", "Gain", "Kinds"])
        self.assertEqual([m.dispid for m in settings.members], [1, 2, 3, 4, 5, 6])

    def test_indexed_children(self):
        points = self.member("ISettings", "Points")
        self.assertTrue(points.indexed)
        self.assertEqual(points.count, 3)
        self.assertIs(points.child, self.iface("IPoint"))
        tables = self.member("IRoot", "Tables")
        self.assertTrue(tables.indexed, "a count of 1 still makes an indexed child")
        self.assertEqual(tables.count, 1)
        self.assertFalse(self.member("IRoot", "Settings").indexed)

    def test_iids_derive_from_namespace_unless_given(self):
        namespace = uuid.UUID("6ba7b810-9dad-11d1-80b4-00c04fd430c8")
        self.assertEqual(self.iface("IPoint").iid, uuid.uuid5(namespace, "IPoint"))
        self.assertEqual(self.iface("IRoot").iid, uuid.uuid5(namespace, "IRoot"))
        self.assertEqual(self.iface("ISettings").iid, uuid.UUID("0a0b0c0d-0e0f-1011-1213-141516171819"))

    def test_classes_inherit_kinds_and_keep_pending(self):
        x = self.member("IPoint", "X").cls
        self.assertEqual(x.name, "CParameterMarkerX")
        self.assertEqual(x.pending, "markers")
        self.assertEqual(x.base.name, "CParameterRealSetting")
        self.assertEqual(x.base.base.name, "CParameterReal")
        self.assertEqual(x.kinds, {"RealValueMinMax", "RealSettingIncDec", "None"})
        self.assertIsNone(x.base.pending)
        self.assertEqual((x.header, x.base.header), (None, "x.h"))

    def test_defaults_fields(self):
        mode = self.member("ISettings", "Mode")
        self.assertEqual(mode.defaults.kind, "EnumValue")
        self.assertEqual((mode.defaults.count, mode.defaults.value), (3, 2))
        self.assertEqual(mode.enum.name, "eMODE", "the record's enumeration types the member")
        self.assertTrue(mode.enum.outline)
        kinds = self.member("ISettings", "Kinds")
        self.assertEqual((kinds.defaults.count, kinds.enum), (7, None))
        freq = self.member("IPoint", "X").defaults
        self.assertEqual((freq.unit, freq.unit_name), (4, "eUNIT_HZ"))
        self.assertEqual((freq.value, freq.min, freq.max), (1e6, 0.0, 1e9))
        gain = self.member("ISettings", "Gain").defaults
        self.assertEqual((gain.small, gain.large), (0.1, 0.25))
        self.assertEqual(self.member("ISettings", "Title").defaults.text, 'say "hi" \\ \u00e9t\u00e9')
        self.assertEqual(self.member("IRoot", "Trace").defaults.count, 102400)
        self.assertEqual(self.member("IRoot", "IQ").defaults.shape, [1, 4, 1, 0, 0])

    def test_instance_counts(self):
        # Root, Settings, three Points and one Tables element; parameters:
        # Settings has five of its own plus 3 x 2, Tables 2, the root 2.
        self.assertEqual(self.model.instance_counts(), (6, 15))
        self.assertEqual(self.model.instance_counts(self.iface("ISettings")), (4, 11))


if __name__ == "__main__":
    unittest.main()
