"""Backends on the fixture: the text they generate, and that it compiles."""

import os
import shutil
import subprocess
import tempfile
import textwrap
import unittest

from schemagen import (backend_classes, backend_enums, backend_getters, backend_groups, backend_metadata,
                       backend_records, syntax)
from tests import fixture

SOURCE = "fixtures/tiny.schema"
TREE = fixture.build()


def moved_last(source, block_start, block_end):
    """The schema text with the block from block_start up to block_end moved to the end."""
    block = source[source.index(block_start):source.index(block_end)]
    return source.replace(block, "") + "\n" + block


class EnumsHeader(unittest.TestCase):
    def setUp(self):
        self.text = backend_enums.generate(TREE, SOURCE)

    def test_enumerations(self):
        self.assertIn("enum eUNIT : LONG {\n    eUNIT_NONE = 0,\n    eUNIT_HZ = 4,\n};", self.text)
        self.assertIn("// Member names are this component's own; the values are fixed.\n"
                      "enum eMODE : LONG {\n    eMODE_OFF = 0,\n    eMODE_ON = 1,\n    eMODE_AUTO = 2,\n};", self.text)
        self.assertLess(self.text.index("enum eUNIT"), self.text.index("enum eMODE"))
        self.assertIn("static_assert(sizeof(eMODE) == 4);", self.text)

    def test_unit_symbols_are_indexed_by_value(self):
        self.assertIn('inline constexpr SUnitSymbol kUnitSymbols[] = {\n    {"", false},  // eUNIT_NONE\n'
                      + "    {nullptr, false},\n" * 3 + '    {"Hz", true},  // eUNIT_HZ\n};', self.text)


class GroupsHeader(unittest.TestCase):
    def setUp(self):
        self.text = backend_groups.generate(TREE, SOURCE)

    def body(self, name):
        start = self.text.index("struct %s : IGroup {" % name)
        return self.text[start:self.text.index("};", start)]

    def test_interfaces_in_declaration_order(self):
        positions = [self.text.index("struct %s : IGroup {" % n) for n in ("IPoint", "ISettings", "IRoot")]
        self.assertEqual(positions, sorted(positions))
        self.assertIn('#include "vorn/database.h"', self.text)
        self.assertIn('#include "vorn/parameter.h"', self.text)

    def test_getters(self):
        self.assertEqual(self.body("ISettings").splitlines()[1:], [
            "    STDMETHOD(get_Enabled)(IParameterBoolean** ppVal) PURE;",
            "    STDMETHOD(get_Mode)(IParameterInteger** ppVal) PURE;",
            "    STDMETHOD(get_Points)(ULONG udwIndex, IPoint** ppVal) PURE;  // udwIndex < 3",
            "    STDMETHOD(get_Title)(IParameterString** ppVal) PURE;",
            "    STDMETHOD(get_Gain)(IParameterReal** ppVal) PURE;",
            "    STDMETHOD(get_Kinds)(IParameterInteger** ppVal) PURE;",
        ])
        root = self.body("IRoot")
        self.assertIn("STDMETHOD(get_Settings)(ISettings** ppVal) PURE;", root)
        self.assertIn("STDMETHOD(get_Tables)(ULONG udwIndex, IPoint** ppVal) PURE;  // udwIndex < 1", root)
        self.assertIn("STDMETHOD(get_Trace)(IParameterRealArray** ppVal) PURE;", root)
        self.assertIn("STDMETHOD(get_IQ)(IParameterBuffer** ppVal) PURE;", root)

    def test_iids(self):
        self.assertIn("VORN_DEFINE_GUID(IID_ISettings, 0x0a0b0c0d, 0x0e0f, 0x1011, 0x12, 0x13, 0x14, 0x15, 0x16, "
                      "0x17, 0x18, 0x19);\nstruct ISettings : IGroup {", self.text)
        self.assertIn("};\nVORN_INTERFACE_IID(ISettings, IID_ISettings);", self.text)
        iid = TREE.interface("IRoot").iid
        self.assertIn("VORN_DEFINE_GUID(IID_IRoot, 0x%s, 0x%s," % (iid.hex[:8], iid.hex[8:12]), self.text)
        self.assertIn("VORN_DEFINE_GUID(LIBID_TinyLib, 0x11111111, 0x2222, 0x3333, 0x44, 0x44, 0x55, 0x55,",
                      self.text)

    def test_children_declared_later_are_declared_ahead(self):
        self.assertNotIn("struct IPoint;", self.text)
        moved = fixture.build(moved_last(fixture.text(), "interface IPoint", "interface ISettings"))
        text = backend_groups.generate(moved, SOURCE)
        self.assertLess(text.index("struct IPoint;"), text.index("struct ISettings : IGroup"))
        header = backend_classes.classes_header(moved, SOURCE)
        order = [header.index("class %s final" % n) for n in ("CGroupPoint", "CGroupSettings", "CGroupRoot")]
        self.assertEqual(order, sorted(order), "group classes hold their children by value")


class MetadataSource(unittest.TestCase):
    def setUp(self):
        self.text = backend_metadata.generate(TREE, SOURCE)

    def test_rows(self):
        # name, dispid, family, count, child, enumeration, class, defaults
        self.assertIn('{"Points", 3, F::Group, 3, 0, kNone, kNone, kNone},', self.text)
        self.assertIn('{"Mode", 2, F::Integer, 0, kNone, 1, 1, 1},', self.text)
        self.assertIn('{"Kinds", 6, F::Integer, 0, kNone, kNone, 1, 2},', self.text)
        self.assertIn('{"ISettings", {0x0a0b0c0d, 0x0e0f, 0x1011, {0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19}},'
                      ' "IGroup", 2, 6},', self.text)
        self.assertIn('{"CParameterMarkerX", F::Real, 3, "markers"},', self.text)
        self.assertIn('{"CParameterReal", F::Real, kNone, nullptr},', self.text)
        self.assertIn('{"eMODE", 2, 3, true},', self.text)

    def test_defaults_rows(self):
        self.assertIn('{"Freq", K::RealValueMinMax, kNone, 4, 0, 0, 0, 0, 1000000.0, 0.0, 1000000000.0, 0.0, 0.0, '
                      'nullptr, {0, 0, 0, 0, 0}},', self.text)
        self.assertIn('{"ModeAuto", K::EnumValue, 1, 0, 3, 2, 0, 0,', self.text)
        self.assertIn('u"say \\"hi\\" \\\\ \\u00e9t\\u00e9"', self.text)
        self.assertIn('{"Samples", K::Buffer, kNone, 0, 0, 0, 0, 0, 0.0, 0.0, 0.0, 0.0, 0.0, nullptr, {1, 4, 1, 0, 0}},',
                      self.text)

    def test_name_indexes_are_sorted(self):
        self.assertIn("kInterfacesByName[] = {0, 2, 1};", self.text)  # IPoint, IRoot, ISettings
        self.assertIn("kEnumerationsByName[] = {1, 0};", self.text)  # eMODE, eUNIT


class DefaultsRecords(unittest.TestCase):
    def setUp(self):
        self.header = backend_records.header(TREE, SOURCE)
        self.source = backend_records.source(TREE, SOURCE)

    def test_every_kind_has_a_writer(self):
        self.assertEqual(set(backend_records.FIELDS), set(syntax.KINDS))

    def test_declarations(self):
        self.assertIn('#include "parameters/Defaults.h"', self.header)
        self.assertIn("namespace vorn::records {\n\nextern const SDefaultsBooleanValue Off;\n"
                      "extern const SDefaultsEnumValue ModeAuto;\n", self.header)
        self.assertIn("extern const SDefaultsBuffer Samples;\n", self.header)

    def test_definitions_in_record_order(self):
        for line in [
            "constinit const SDefaultsBooleanValue Off{.value = 0u};",
            "constinit const SDefaultsEnumValue ModeAuto{.count = 3u, .value = 2u};",
            "constinit const SDefaultsEnum Modes{.count = 7u};",
            "constinit const SDefaultsRealValueMinMax Freq{.unit = ::eUNIT_HZ, .value = 1000000.0, "
            ".minimum = 0.0, .maximum = 1000000000.0};",
            "constinit const SDefaultsRealSettingIncDec Step{.unit = ::eUNIT_NONE, .value = 0.5, .minimum = -1.0, "
            ".maximum = 1.0, .smallStep = 0.1, .largeStep = 0.25};",
            "constinit const SDefaultsReal Unset{.unit = ::eUNIT_HZ};",
            'constinit const SDefaultsStringValue Title{.value = u"say \\"hi\\" \\\\ \\u00e9t\\u00e9"};',
            "constinit const SDefaultsRealArray Trace{.maxSize = 102400u, .unit = ::eUNIT_HZ};",
            "constinit const SDefaultsBuffer Samples{.leading = {1u, 4u, 1u}, .firstExtent = 0u, "
            ".secondExtent = 0u};",
        ]:
            self.assertIn(line + "\n", self.source)
        self.assertLess(self.source.index(" Off{"), self.source.index(" Samples{"))


class GroupClasses(unittest.TestCase):
    def setUp(self):
        self.files = dict(backend_classes.outputs(TREE, SOURCE, 2))
        self.header = self.files["GroupClasses.h"]
        self.units = self.files["Groups0.cpp"] + self.files["Groups1.cpp"]

    def body(self, name):
        start = self.header.index("class %s final" % name)
        return self.header[start:self.header.index("};", start)]

    def test_pending_classes(self):
        pending = self.files["PendingClasses.h"]
        self.assertIn('#include "x.h"\n', pending, "the header of an implemented base")
        self.assertIn("// pending: markers\nclass CParameterMarkerX : public CParameterRealSetting {};\n", pending)
        self.assertNotIn("CParameterReal :", pending)

    def test_pending_bases_come_first(self):
        source = fixture.text().replace(
            "class CParameterMarkerX     real      base=CParameterRealSetting pending=markers",
            "class CParameterFineX real base=CParameterCoarseX pending=markers\n"
            "class CParameterMarkerX real base=CParameterRealSetting pending=markers\n"
            "class CParameterCoarseX real base=CParameterMarkerX pending=axes")
        pending = backend_classes.pending_header(fixture.build(source), SOURCE)
        order = [pending.index("class %s :" % n) for n in ("CParameterMarkerX", "CParameterCoarseX",
                                                           "CParameterFineX")]
        self.assertEqual(order, sorted(order))
        self.assertIn("// pending: axes\nclass CParameterCoarseX : public CParameterMarkerX {};", pending)

    def test_class_declarations(self):
        self.assertIn('#include "stream/NodeStream.h"\n#include "parameters/ParameterArray.h"\n', self.header)
        self.assertIn('#include "schema/PendingClasses.h"\n#include "x.h"\n#include "vorn/groups.h"\n', self.header)
        settings = self.body("CGroupSettings")
        self.assertTrue(settings.startswith(
            "class CGroupSettings final : public CStreamGroupTemplate<ISettings, &IID_ISettings> {\npublic:\n"
            "    CGroupSettings();\n    ~CGroupSettings() override;\n"), "the destructor is the key function")
        self.assertIn("    STDMETHODIMP get_Points(ULONG udwIndex, IPoint** ppVal) override;\n", settings)
        self.assertIn("    STDMETHODIMP get_Title(IParameterString** ppVal) override;\n", settings)
        self.assertIn("    CParameterBoolean Enabled;\n    CParameterEnum Mode;\n    CGroupPoint Points[3];\n"
                      "    CParameterString Title;\n    CParameterRealSetting Gain;\n    CParameterEnum Kinds;\n",
                      settings, "members by value in declaration order")
        self.assertIn("    CDatabaseObjectImpl* children_[9];", settings, "8 children and the terminator")
        self.assertIn("    CParameterMarkerX X;\n", self.body("CGroupPoint"))

    def test_layout_tables_and_constructors(self):
        self.assertIn("constexpr schema::SMemberLayout kSettingsMembers[] = {\n"
                      '    {"Enabled", -1, records::Off},\n'
                      '    {"Mode", -1, records::ModeAuto},\n'
                      '    {"Points", 3, {}},\n', self.units)
        self.assertIn('    {"Tables", 1, {}},\n', self.units)
        self.assertIn("CGroupSettings::CGroupSettings()\n"
                      "    : children_{\n"
                      "          &Enabled, &Mode, &Points[0], &Points[1], &Points[2], &Title, &Gain, &Kinds, nullptr} {\n"
                      "    schema::BuildGroup(*this, kSettingsMembers, children_);\n}\n"
                      "CGroupSettings::~CGroupSettings() = default;\n", self.units)

    def test_getters(self):
        self.assertIn("STDMETHODIMP CGroupSettings::get_Points(ULONG udwIndex, IPoint** ppVal) "
                      "{ return schema::HandOutAt(Points, udwIndex, ppVal); }", self.units)
        self.assertIn("STDMETHODIMP CGroupRoot::get_IQ(IParameterBuffer** ppVal) "
                      "{ return schema::HandOut(&IQ, ppVal); }", self.units)

    def test_units_hold_every_class_once_in_order(self):
        with open(fixture.REAL_SCHEMA, encoding="utf-8") as f:
            real = fixture.build(f.read(), fixture.REAL_SCHEMA)
        for tree, units in ((TREE, 2), (TREE, 5), (real, 4)):
            runs = backend_classes.split(tree, units)
            self.assertEqual([i for run in runs for i in run], tree.interfaces_children_first())
            self.assertLessEqual(len(runs), units)
            self.assertTrue(all(runs), "no run is empty")
        weights = [sum(backend_classes._weight(i) for i in run) for run in backend_classes.split(real, 4)]
        self.assertLess(max(weights), 1.3 * sum(weights) / 4, weights)
        files = dict(backend_classes.outputs(TREE, SOURCE, 5))
        self.assertEqual(files["Groups4.cpp"], "// generated from fixtures/tiny.schema, do not edit\n"
                                               "//\n// No group classes fall into this part.\n")


class TypedGetters(unittest.TestCase):
    def setUp(self):
        self.text = backend_getters.generate(TREE, SOURCE)

    def test_calls(self):
        self.assertIn("HRESULT Get_ISettings(IUnknown* group, std::uint32_t member, ULONG index, void** out) {\n"
                      "    ISettings* typed = nullptr;\n"
                      "    HRESULT hr = group->QueryInterface(IID_ISettings, reinterpret_cast<void**>(&typed));\n",
                      self.text)
        self.assertIn("        case 0: hr = typed->get_Enabled(reinterpret_cast<IParameterBoolean**>(out)); break;\n"
                      "        case 1: hr = typed->get_Mode(reinterpret_cast<IParameterInteger**>(out)); break;\n"
                      "        case 2: hr = typed->get_Points(index, reinterpret_cast<IPoint**>(out)); break;\n",
                      self.text)
        self.assertIn("HRESULT Get_IPoint(IUnknown* group, std::uint32_t member, ULONG /*index*/, void** out) {",
                      self.text)
        self.assertIn("constexpr TypedGetter kGetters[] = {\n    Get_IPoint,\n    Get_ISettings,\n    Get_IRoot,\n};",
                      self.text, "in the metadata's order")


def compiler():
    return os.environ.get("CXX") or shutil.which("c++")


@unittest.skipUnless(compiler(), "no C++ compiler")
class Compiles(unittest.TestCase):
    """The generated texts are valid C++ (syntax only), with stand-ins for
    the hand-written interface headers they include."""

    STUBS = {
        "vorn/database.h": """
            #pragma once
            #include "vorn/platform.h"
            struct IGroup : IUnknown {};
            """,
        "vorn/parameter.h": """
            #pragma once
            #include "vorn/enums.h"
            #include "vorn/platform.h"
            struct IParameterBoolean : IUnknown {};
            struct IParameterInteger : IUnknown {};
            struct IParameterReal : IUnknown {};
            struct IParameterString : IUnknown {};
            struct IParameterIntegerArray : IUnknown {};
            struct IParameterRealArray : IUnknown {};
            struct IParameterBuffer : IUnknown {};
            """,
    }

    # Stand-ins for the component's node, group and value classes, enough
    # for the group classes to compile against (the real GroupBuilder.h and
    # Defaults.h are used).
    CLASS_STUBS = {
        "core/GroupImpl.h": """
            #pragma once
            #include "vorn/database.h"
            namespace vorn {
            class CDatabaseObjectImpl {
            public:
                virtual ~CDatabaseObjectImpl() = default;
            };
            class CGroupImpl : public CDatabaseObjectImpl {
            public:
                virtual CDatabaseObjectImpl* const* Children() = 0;
            };
            template <class Face>
            class CFace : public Face {
            public:
                STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
                STDMETHODIMP_(ULONG) AddRef() override { return 1; }
                STDMETHODIMP_(ULONG) Release() override { return 1; }
            };
            template <class I, const IID* piid>
            class CStreamGroupTemplate : public CGroupImpl, public CFace<I> {};
            }  // namespace vorn
            """,
        "stream/NodeStream.h": """
            #pragma once
            #include "core/GroupImpl.h"
            """,
        "parameters/values.h": """
            #pragma once
            #include "core/GroupImpl.h"
            #include "vorn/parameter.h"
            namespace vorn {
            class CParameterBoolean : public CDatabaseObjectImpl, public CFace<IParameterBoolean> {};
            class CParameterEnum : public CDatabaseObjectImpl, public CFace<IParameterInteger> {};
            class CParameterReal : public CDatabaseObjectImpl, public CFace<IParameterReal> {};
            class CParameterRealSetting : public CParameterReal {};
            class CParameterString : public CDatabaseObjectImpl, public CFace<IParameterString> {};
            class CParameterRealArray : public CDatabaseObjectImpl, public CFace<IParameterRealArray> {};
            class CParameterBuffer : public CDatabaseObjectImpl, public CFace<IParameterBuffer> {};
            }  // namespace vorn
            """,
    }
    VALUE_HEADERS = ["parameters/ParameterBoolean.h", "parameters/ParameterInteger.h", "parameters/ParameterReal.h",
                     "parameters/ParameterString.h", "parameters/ParameterArray.h", "parameters/ParameterBuffer.h",
                     "x.h"]

    def write(self, directory, name, text):
        path = os.path.join(directory, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)

    def compile(self, directory, source):
        path = os.path.join(directory, "check.cpp")
        with open(path, "w", encoding="utf-8") as f:
            f.write(source)
        flags = ["-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror"]
        includes = ["-I" + directory] + ["-I" + os.path.join(fixture.REPOSITORY, d) for d in ("include", "src", "tests")]
        result = subprocess.run([compiler(), *flags, *includes, path], capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stderr)

    def public_headers(self, directory, tree):
        for name, text in self.STUBS.items():
            self.write(directory, name, textwrap.dedent(text))
        for name, backend in (("vorn/enums.h", backend_enums), ("vorn/groups.h", backend_groups)):
            self.write(directory, name, backend.generate(tree, SOURCE))

    def test_every_output_compiles(self):
        with tempfile.TemporaryDirectory() as directory:
            self.public_headers(directory, TREE)
            for name, text in self.CLASS_STUBS.items():
                self.write(directory, name, textwrap.dedent(text))
            for name in self.VALUE_HEADERS:
                self.write(directory, name, '#pragma once\n#include "parameters/values.h"\n')
            sources = list(backend_classes.outputs(TREE, SOURCE, 2))
            sources += [("DefaultsRecords.h", backend_records.header(TREE, SOURCE)),
                        ("DefaultsRecords.cpp", backend_records.source(TREE, SOURCE))]
            for name, text in sources:
                self.write(directory, os.path.join("schema", name), text)
            sources += [("public headers", '#include "vorn/groups.h"\n'
                                           "static_assert(VORN_UUIDOF(IRoot).Data1 == IID_IRoot.Data1);\n"
                                           "static_assert(eMODE_AUTO == 2);\n"),
                        ("Metadata.cpp", backend_metadata.generate(TREE, SOURCE)),
                        ("TypedGetters.cpp", backend_getters.generate(TREE, SOURCE))]
            for name, text in sources:
                if not name.endswith(".h"):
                    with self.subTest(name):
                        self.compile(directory, text)


if __name__ == "__main__":
    unittest.main()
