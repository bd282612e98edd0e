"""Backends on the fixture: the text they generate, and that it compiles."""

import os
import shutil
import subprocess
import tempfile
import textwrap
import unittest

from generate import OUTPUTS
from schemagen import backend_classes, backend_records, syntax
from tests import fixture

SOURCE = "fixtures/tiny.schema"
TREE = fixture.build()


def outputs(tree, units=2):
    """Every text the generator writes for `tree`, by file name."""
    files = {name: generate(tree, SOURCE) for _, name, generate in OUTPUTS}
    files.update(backend_classes.outputs(tree, SOURCE, units))
    return files


TEXTS = outputs(TREE)
ROOT_IID = TREE.interface("IRoot").iid

# (file, a fragment of it): declarations, rows and definitions of the
# fixture's enumerations, interfaces, classes and records. What the compiler
# would refuse (a declaration missing or of another type, an unused parameter)
# is left to Compiles below.
GOLDEN = [
    ("enums.h", "enum eUNIT : LONG {\n    eUNIT_NONE = 0,\n    eUNIT_HZ = 4,\n};\n\n"
     "// Member names are this component's own; the values are fixed.\n"
     "enum eMODE : LONG {\n    eMODE_OFF = 0,\n    eMODE_ON = 1,\n    eMODE_AUTO = 2,\n};"),
    # Unit symbols are indexed by value.
    ("enums.h", 'inline constexpr SUnitSymbol kUnitSymbols[] = {\n    {"", false},  // eUNIT_NONE\n'
     + "    {nullptr, false},\n" * 3 + '    {"Hz", true},  // eUNIT_HZ\n};'),
    ("groups.h", "VORN_DEFINE_GUID(LIBID_TinyLib, 0x11111111, 0x2222, 0x3333, 0x44, 0x44, 0x55, 0x55,"),
    ("groups.h", "VORN_DEFINE_GUID(IID_ISettings, 0x0a0b0c0d, 0x0e0f, 0x1011, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, "
     "0x18, 0x19);\nstruct ISettings : IGroup {\n"
     "    STDMETHOD(get_Enabled)(IParameterBoolean** ppVal) PURE;\n"
     "    STDMETHOD(get_Mode)(IParameterInteger** ppVal) PURE;\n"
     "    STDMETHOD(get_Points)(ULONG udwIndex, IPoint** ppVal) PURE;  // udwIndex < 3\n"
     "    STDMETHOD(get_Title)(IParameterString** ppVal) PURE;\n"
     "    STDMETHOD(get_Gain)(IParameterReal** ppVal) PURE;\n"
     "    STDMETHOD(get_Kinds)(IParameterInteger** ppVal) PURE;\n};\nVORN_INTERFACE_IID(ISettings, IID_ISettings);"),
    ("groups.h", "VORN_DEFINE_GUID(IID_IRoot, 0x%s, 0x%s," % (ROOT_IID.hex[:8], ROOT_IID.hex[8:12])),
    ("groups.h", "struct IRoot : IGroup {\n    STDMETHOD(get_Settings)(ISettings** ppVal) PURE;\n"
     "    STDMETHOD(get_Tables)(ULONG udwIndex, IPoint** ppVal) PURE;  // udwIndex < 1\n"
     "    STDMETHOD(get_Trace)(IParameterRealArray** ppVal) PURE;\n"
     "    STDMETHOD(get_IQ)(IParameterBuffer** ppVal) PURE;\n};"),
    # Metadata rows: name, dispid, family, count, child, enumeration, class, defaults.
    ("Metadata.cpp", '{"Points", 3, F::Group, 3, 0, kNone, kNone, kNone},'),
    ("Metadata.cpp", '{"Mode", 2, F::Integer, 0, kNone, 1, 1, 1},'),
    ("Metadata.cpp", '{"Kinds", 6, F::Integer, 0, kNone, kNone, 1, 2},'),
    ("Metadata.cpp", '{"ISettings", {0x0a0b0c0d, 0x0e0f, 0x1011, {0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19}},'
     ' "IGroup", 2, 6},'),
    ("Metadata.cpp", '{"CParameterMarkerX", F::Real, 3, "markers"},'),
    ("Metadata.cpp", '{"CParameterReal", F::Real, kNone, nullptr},'),
    ("Metadata.cpp", '{"eMODE", 2, 3, true},'),
    ("Metadata.cpp", '{"Freq", K::RealValueMinMax, kNone, 4, 0, 0, 0, 0, 1000000.0, 0.0, 1000000000.0, 0.0, 0.0, '
     'nullptr, {0, 0, 0, 0, 0}},'),
    ("Metadata.cpp", '{"ModeAuto", K::EnumValue, 1, 0, 3, 2, 0, 0,'),
    ("Metadata.cpp", 'u"say \\"hi\\" \\\\ \\u00e9t\\u00e9"'),
    ("Metadata.cpp", '{"Samples", K::Buffer, kNone, 0, 0, 0, 0, 0, 0.0, 0.0, 0.0, 0.0, 0.0, nullptr, '
     '{1, 4, 1, 0, 0}},'),
    # Name indexes are sorted: IPoint, IRoot, ISettings; eMODE, eUNIT.
    ("Metadata.cpp", "kEnumerationsByName[] = {1, 0};"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsBooleanValue Off{.value = 0u};\n"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsEnumValue ModeAuto{.count = 3u, .value = 2u};\n"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsEnum Modes{.count = 7u};\n"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsRealValueMinMax Freq{.unit = ::eUNIT_HZ, .value = 1000000.0, "
     ".minimum = 0.0, .maximum = 1000000000.0};\n"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsRealSettingIncDec Step{.unit = ::eUNIT_NONE, .value = 0.5, "
     ".minimum = -1.0, .maximum = 1.0, .smallStep = 0.1, .largeStep = 0.25};\n"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsReal Unset{.unit = ::eUNIT_HZ};\n"),
    ("DefaultsRecords.cpp",
     'constinit const SDefaultsStringValue Title{.value = u"say \\"hi\\" \\\\ \\u00e9t\\u00e9"};\n'),
    ("DefaultsRecords.cpp", "constinit const SDefaultsRealArray Trace{.maxSize = 102400u, .unit = ::eUNIT_HZ};\n"),
    ("DefaultsRecords.cpp", "constinit const SDefaultsBuffer Samples{.leading = {1u, 4u, 1u}, .firstExtent = 0u, "
     ".secondExtent = 0u};\n"),
    # Pending classes include the header of their implemented base.
    ("PendingClasses.h", '#include "x.h"\n'),
    ("PendingClasses.h", "// pending: markers\nclass CParameterMarkerX : public CParameterRealSetting {};\n"),
    # The stubs of the compile check define every class wherever it is
    # included from, so the includes are checked here.
    ("GroupClasses.h", '#include "stream/NodeStream.h"\n#include "parameters/ParameterArray.h"\n'),
    ("GroupClasses.h", '#include "schema/PendingClasses.h"\n#include "x.h"\n#include "vorn/groups.h"\n'),
    # The destructor is the key function; members by value in declaration
    # order; 8 children and the terminator.
    ("GroupClasses.h", "class CGroupSettings final : public CStreamGroupTemplate<ISettings, &IID_ISettings> {\n"
     "public:\n    CGroupSettings();\n    ~CGroupSettings() override;\n"),
    ("GroupClasses.h", "    CParameterBoolean Enabled;\n    CParameterEnum Mode;\n    CGroupPoint Points[3];\n"
     "    CParameterString Title;\n    CParameterRealSetting Gain;\n    CParameterEnum Kinds;\n\nprivate:\n"
     "    CDatabaseObjectImpl* children_[9];"),
    ("GroupClasses.h", "    CParameterMarkerX X;\n"),
    ("Groups0.cpp", "constexpr schema::SMemberLayout kSettingsMembers[] = {\n    {\"Enabled\", -1, records::Off},\n"
     "    {\"Mode\", -1, records::ModeAuto},\n    {\"Points\", 3, {}},\n"),
    ("Groups1.cpp", '    {"Tables", 1, {}},\n'),
    ("Groups0.cpp", "CGroupSettings::CGroupSettings()\n    : children_{\n"
     "          &Enabled, &Mode, &Points[0], &Points[1], &Points[2], &Title, &Gain, &Kinds, nullptr} {\n"
     "    schema::BuildGroup(*this, kSettingsMembers, children_);\n}\nCGroupSettings::~CGroupSettings() = default;\n"),
    ("Groups0.cpp", "STDMETHODIMP CGroupSettings::get_Points(ULONG udwIndex, IPoint** ppVal) "
     "{ return schema::HandOutAt(Points, udwIndex, ppVal); }"),
    ("Groups1.cpp",
     "STDMETHODIMP CGroupRoot::get_IQ(IParameterBuffer** ppVal) { return schema::HandOut(&IQ, ppVal); }"),
    ("TypedGetters.cpp", "HRESULT Get_ISettings(IUnknown* group, std::uint32_t member, ULONG index, void** out) {\n"
     "    ISettings* typed = nullptr;\n"
     "    HRESULT hr = group->QueryInterface(IID_ISettings, reinterpret_cast<void**>(&typed));\n"),
    ("TypedGetters.cpp", "        case 0: hr = typed->get_Enabled(reinterpret_cast<IParameterBoolean**>(out)); break;\n"
     "        case 1: hr = typed->get_Mode(reinterpret_cast<IParameterInteger**>(out)); break;\n"
     "        case 2: hr = typed->get_Points(index, reinterpret_cast<IPoint**>(out)); break;\n"),
    # In the metadata's order.
    ("TypedGetters.cpp",
     "constexpr TypedGetter kGetters[] = {\n    Get_IPoint,\n    Get_ISettings,\n    Get_IRoot,\n};"),
]


def in_order(test, text, fragments):
    positions = [text.index(fragment) for fragment in fragments]
    test.assertEqual(positions, sorted(positions), fragments)


def moved_last(source, block_start, block_end):
    """The schema text with the block from block_start up to block_end moved to the end."""
    block = source[source.index(block_start):source.index(block_end)]
    return source.replace(block, "") + "\n" + block


class Outputs(unittest.TestCase):
    def test_golden_fragments(self):
        for name, fragment in GOLDEN:
            with self.subTest(name=name, fragment=fragment[:60]):
                self.assertIn(fragment, TEXTS[name])
        in_order(self, TEXTS["groups.h"], ["struct IPoint : IGroup {", "struct ISettings :", "struct IRoot :"])
        in_order(self, TEXTS["DefaultsRecords.cpp"], [" Off{", " Samples{"])
        self.assertNotIn("CParameterReal :", TEXTS["PendingClasses.h"])
        self.assertEqual(set(backend_records.FIELDS), set(syntax.KINDS), "every kind of record has a writer")

    def test_what_a_declaration_needs_comes_first(self):
        # A child interface declared later is declared ahead; group classes
        # hold their children by value, so theirs come first.
        self.assertNotIn("struct IPoint;", TEXTS["groups.h"])
        moved = outputs(fixture.build(moved_last(fixture.text(), "interface IPoint", "interface ISettings")))
        in_order(self, moved["groups.h"], ["struct IPoint;", "struct ISettings : IGroup"])
        in_order(self, moved["GroupClasses.h"], ["class CGroupPoint final", "class CGroupSettings final",
                                                 "class CGroupRoot final"])
        # Pending bases come before the pending classes derived from them.
        source = fixture.text().replace(
            "class CParameterMarkerX     real      base=CParameterRealSetting pending=markers",
            "class CParameterFineX real base=CParameterCoarseX pending=markers\n"
            "class CParameterMarkerX real base=CParameterRealSetting pending=markers\n"
            "class CParameterCoarseX real base=CParameterMarkerX pending=axes")
        pending = backend_classes.pending_header(fixture.build(source), SOURCE)
        in_order(self, pending, ["class CParameterMarkerX :", "class CParameterCoarseX :", "class CParameterFineX :"])
        self.assertIn("// pending: axes\nclass CParameterCoarseX : public CParameterMarkerX {};", pending)

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
        self.assertEqual(outputs(TREE, 5)["Groups4.cpp"], "// generated from fixtures/tiny.schema, do not edit\n"
                                                          "//\n// No group classes fall into this part.\n")


def compiler():
    return os.environ.get("CXX") or shutil.which("c++")


@unittest.skipUnless(compiler(), "no C++ compiler")
class Compiles(unittest.TestCase):
    """The generated texts are valid C++ (syntax only), with stand-ins for
    the hand-written interface headers they include and for the component's
    node, group and value classes (the real GroupBuilder.h and Defaults.h are
    used)."""

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

    def test_every_output_compiles(self):
        with tempfile.TemporaryDirectory() as directory:
            def write(name, text):
                path = os.path.join(directory, name)
                os.makedirs(os.path.dirname(path), exist_ok=True)
                with open(path, "w", encoding="utf-8") as f:
                    f.write(text)
                return path

            files = {name: textwrap.dedent(text) for name, text in self.STUBS.items()}
            files.update({name: '#pragma once\n#include "parameters/values.h"\n' for name in self.VALUE_HEADERS})
            files.update({("vorn/" if name in ("enums.h", "groups.h") else "schema/") + name: text
                          for name, text in TEXTS.items()})
            for name, text in files.items():
                write(name, text)
            units = {name: text for name, text in TEXTS.items() if name.endswith(".cpp")}
            units["public headers"] = ('#include "vorn/groups.h"\n'
                                       "static_assert(VORN_UUIDOF(IRoot).Data1 == IID_IRoot.Data1);\n"
                                       "static_assert(eMODE_AUTO == 2);\n")
            flags = ["-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror", "-I" +
                     directory] + ["-I" + os.path.join(fixture.REPOSITORY, d) for d in ("include", "src", "tests")]
            for name, text in units.items():
                with self.subTest(name):
                    result = subprocess.run([compiler(), *flags, write("check.cpp", text)], capture_output=True,
                                            text=True)
                    self.assertEqual(result.returncode, 0, result.stderr)


if __name__ == "__main__":
    unittest.main()
