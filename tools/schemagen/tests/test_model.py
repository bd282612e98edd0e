"""Parse and model stages on the fixture: what a valid schema resolves to."""

import unittest
import uuid

from tests import fixture

MODEL = fixture.build()


def member(iface, name):
    return next(m for m in MODEL.interface(iface).members if m.name == name)


class FixtureModel(unittest.TestCase):
    def test_library_interfaces_and_members(self):
        lib = MODEL.library
        self.assertEqual((lib.name, lib.major, lib.minor, lib.guid),
                         ("TinyLib", 2, 3, uuid.UUID("11111111-2222-3333-4444-555555555555")))
        self.assertEqual([i.name for i in MODEL.interfaces], ["IPoint", "ISettings", "IRoot"])
        self.assertIs(MODEL.root, MODEL.interface("IRoot"))
        self.assertEqual(MODEL.root.class_name, "CGroupRoot")
        # Members keep their declaration order and number from 1.
        self.assertEqual([(m.name, m.dispid) for m in MODEL.interface("ISettings").members],
                         [("Enabled", 1), ("Mode", 2), ("Points", 3), ("Title", 4), ("Gain", 5), ("Kinds", 6)])
        # A count of 1 still makes an indexed child.
        point, settings = MODEL.interface("IPoint"), MODEL.interface("ISettings")
        self.assertEqual([(m.indexed, m.count if m.indexed else None, m.child) for m in
                          (member("ISettings", "Points"), member("IRoot", "Tables"), member("IRoot", "Settings"))],
                         [(True, 3, point), (True, 1, point), (False, None, settings)])

    def test_iids_derive_from_namespace_unless_given(self):
        namespace = uuid.UUID("6ba7b810-9dad-11d1-80b4-00c04fd430c8")
        self.assertEqual([MODEL.interface(name).iid for name in ("IPoint", "IRoot", "ISettings")],
                         [uuid.uuid5(namespace, "IPoint"), uuid.uuid5(namespace, "IRoot"),
                          uuid.UUID("0a0b0c0d-0e0f-1011-1213-141516171819")])

    def test_classes_inherit_kinds_and_keep_pending(self):
        x = member("IPoint", "X").cls
        self.assertEqual((x.name, x.pending, x.base.name, x.base.base.name, x.base.pending, x.header, x.base.header),
                         ("CParameterMarkerX", "markers", "CParameterRealSetting", "CParameterReal", None, None, "x.h"))
        self.assertEqual(x.kinds, {"RealValueMinMax", "RealSettingIncDec", "None"})

    def test_defaults_fields(self):
        mode = member("ISettings", "Mode")
        self.assertEqual((mode.defaults.kind, mode.defaults.count, mode.defaults.value), ("EnumValue", 3, 2))
        self.assertEqual((mode.enum.name, mode.enum.outline), ("eMODE", True), "the record's enumeration types it")
        kinds = member("ISettings", "Kinds")
        self.assertEqual((kinds.defaults.count, kinds.enum), (7, None))
        freq = member("IPoint", "X").defaults
        self.assertEqual((freq.unit, freq.unit_name, freq.value, freq.min, freq.max), (4, "eUNIT_HZ", 1e6, 0.0, 1e9))
        gain = member("ISettings", "Gain").defaults
        self.assertEqual((gain.small, gain.large), (0.1, 0.25))
        self.assertEqual(member("ISettings", "Title").defaults.text, 'say "hi" \\ \u00e9t\u00e9')
        self.assertEqual(member("IRoot", "Trace").defaults.count, 102400)
        self.assertEqual(member("IRoot", "IQ").defaults.shape, [1, 4, 1, 0, 0])

    def test_instance_counts(self):
        # Root, Settings, three Points and one Tables element; parameters:
        # Settings has five of its own plus 3 x 2, Tables 2, the root 2.
        self.assertEqual(MODEL.instance_counts(), (6, 15))
        self.assertEqual(MODEL.instance_counts(MODEL.interface("ISettings")), (4, 11))


if __name__ == "__main__":
    unittest.main()
