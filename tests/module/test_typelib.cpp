// Type libraries: the reader on a small library made with the build's type
// library writer (tools/typelibgen; the answers the vorndb tool and the
// module use to list interfaces, members and enumerations), damaged files,
// and registration. The component's own library
// is checked against the schema in test_database_module.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <tuple>

#include "ModuleTestSupport.h"
#include "TestIds.h"
#include "TypeLibWriter.h"
#include "support/ScopedRegistry.h"

using ::testing::HasSubstr;
using vorn::ComPtr;
using vorn::test::Render;
using vorn::test::TakeText;
using vorn::test::TypeName;

namespace {

// A small library: an enumeration, an oleautomation interface with a method
// and a property, an interface deriving from it, and a class.
vorn::typelib::Library TestTypeLibrary() {
    using namespace vorn::typelib;
    const TypeRef i4{VT_I4, 0, kNoType}, hresult{VT_HRESULT, 0, kNoType};
    const Param value{"pValue", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_I4, 1, kNoType}};
    const Param color{"eColor", PARAMFLAG_FIN, {VT_USERDEFINED, 0, 0}};
    const Param other{"ppOther", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_USERDEFINED, 2, 2}};
    Library lib{.libid = LIBID_VornTest, .majorVersion = 2, .minorVersion = 10, .name = "VornTestLib"};
    lib.doc = "Test library \xC2\xB5";
    lib.types = {
        Type{.kind = TKIND_ENUM,
             .name = "eCOLOR",
             .members = {Member{0x40000000, "eCOLOR_RED", "", 0, 0, i4, {}},
                         Member{0x40000001, "eCOLOR_GREEN", "green light", 0, 5, i4, {}},
                         Member{0x40000002, "eCOLOR_DARK", "", 0, -3, i4, {}}}},
        Type{.guid = IID_IVornTestWidget,
             .typeFlags = TYPEFLAG_FOLEAUTOMATION,
             .name = "IVornTestWidget",
             .doc = "The widget",
             .members = {Member{1, "Answer", "always 42", INVOKE_PROPERTYGET, 0, hresult, {value}},
                         Member{2, "Paint", "", INVOKE_FUNC, 0, hresult, {color, other}}}},
        Type{.guid = {0x6d1c2a51, 0x51f3, 0x4c0e, {0x9a, 0x2b, 0x11, 0x7e, 0x3c, 0x88, 0x04, 0xa1}},
             .name = "IVornTestDerived",
             .base = 1},
        Type{.guid = CLSID_VornTestWidget, .kind = TKIND_COCLASS, .name = "TestWidget", .base = 1},
    };
    return lib;
}

// Library files go to the directory of a registry of the test's own.
class TypeLibFiles : public ::testing::Test {
protected:
    std::u16string Write(const std::string& name, const std::vector<std::uint8_t>& bytes) {
        const std::string path = registry_.dir() + "/" + name;
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return std::u16string(path.begin(), path.end());
    }

    ScopedRegistry registry_;
};

TEST_F(TypeLibFiles, ReaderAnswersWhatAClientListsTypesWith) {
    ComPtr<ITypeLib> lib;
    ASSERT_EQ(LoadTypeLib(Write("test.tlb", vorn::typelib::WriteTypeLib(TestTypeLibrary())).c_str(), lib.put()), S_OK)
        << vorn::test::LastErrorText();
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
    EXPECT_EQ(std::tuple(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, attr->syskind),
              std::tuple(LIBID_VornTest, WORD{2}, WORD{10}, SYS_WIN64));
    lib->ReleaseTLibAttr(attr);
    BSTR name = nullptr, doc = nullptr;
    ASSERT_EQ(lib->GetDocumentation(-1, &name, &doc, nullptr, nullptr), S_OK);
    EXPECT_EQ(TakeText(name) + ", " + TakeText(doc), "VornTestLib, Test library \xC2\xB5");

    // Every type with its members: constants with their values, methods with
    // dispatch identifiers, parameters and types, bases and the class's
    // default interface.
    std::string types;
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
        ComPtr<ITypeInfo> info;
        ASSERT_EQ(lib->GetTypeInfo(i, info.put()), S_OK);
        types += Render(info.get()) + "\n";
    }
    EXPECT_EQ(types,
              "enum eCOLOR\n  eCOLOR_RED = 0\n  eCOLOR_GREEN = 5\n  eCOLOR_DARK = -3\n"
              "interface IVornTestWidget flags 256\n"
              "  1 Answer get(vt3*/10) vt25\n"
              "  2 Paint call(eCOLOR/1, IVornTestDerived**/10) vt25\n"
              "interface IVornTestDerived : IVornTestWidget\n"
              "coclass TestWidget : IVornTestWidget\n");

    ComPtr<ITypeInfo> color, widget;
    ASSERT_EQ(lib->GetTypeInfo(0, color.put()), S_OK);
    VARDESC* var = nullptr;
    EXPECT_EQ(color->GetVarDesc(3, &var), TYPE_E_ELEMENTNOTFOUND);
    EXPECT_EQ(color->GetDocumentation(0x40000001, nullptr, &doc, nullptr, nullptr), S_OK);
    EXPECT_EQ(TakeText(doc), "green light");
    ASSERT_EQ(lib->GetTypeInfoOfGuid(IID_IVornTestWidget, widget.put()), S_OK);
    EXPECT_EQ(TypeName(widget.get()), "IVornTestWidget");
}

TEST_F(TypeLibFiles, DamagedLibrariesAreRefusedWithAReason) {
    const std::vector<std::uint8_t> good = vorn::typelib::WriteTypeLib(TestTypeLibrary());
    auto patched = [&](std::size_t offset, std::uint32_t value) {
        std::vector<std::uint8_t> bytes = good;
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        return bytes;
    };
    const std::size_t firstType = sizeof(vorn::typelib::FileHeader);
    struct Case {
        std::vector<std::uint8_t> bytes;
        const char* reason;
    };
    const Case cases[] = {
        {std::vector<std::uint8_t>(good.begin(), good.begin() + 100), "cut short"},
        {patched(0, 0x4C4C4C4C), "no VTLB signature"},
        {patched(4, 7), "format version 7"},
        {patched(firstType + offsetof(vorn::typelib::TypeRecord, name), 0x7FFFFFF0), "string offset out of range"},
        {patched(firstType + 48 + offsetof(vorn::typelib::TypeRecord, base), 99), "base type out of range"},
        {patched(firstType + offsetof(vorn::typelib::TypeRecord, membersOffset), 0xFFFFFF00), "outside the file"},
        {patched(firstType + offsetof(vorn::typelib::TypeRecord, kind), 42), "unknown type kind 42"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reason);
        ITypeLib* lib = reinterpret_cast<ITypeLib*>(1);
        EXPECT_EQ(LoadTypeLib(Write("bad.tlb", c.bytes).c_str(), &lib), TYPE_E_CANTLOADLIBRARY);
        EXPECT_EQ(lib, nullptr);
        EXPECT_THAT(vorn::test::LastErrorText(), HasSubstr(c.reason));
    }
    ITypeLib* lib = nullptr;
    EXPECT_EQ(LoadTypeLib(u"/nonexistent/lib.tlb", &lib), TYPE_E_CANTLOADLIBRARY);
    const std::string runtime = VORN_RUNTIME;
    EXPECT_EQ(LoadTypeLib(std::u16string(runtime.begin(), runtime.end()).c_str(), &lib), TYPE_E_CANTLOADLIBRARY);
    EXPECT_THAT(vorn::test::LastErrorText(), HasSubstr("TYPELIB"));
    EXPECT_EQ(LoadTypeLib(nullptr, &lib), E_INVALIDARG);
}

TEST_F(TypeLibFiles, RegistrationWritesAndRemovesTheUsualKeys) {
    const std::u16string path = Write("reg.tlb", vorn::typelib::WriteTypeLib(TestTypeLibrary()));
    ComPtr<ITypeLib> lib;
    ASSERT_EQ(LoadTypeLib(path.c_str(), lib.put()), S_OK);
    ASSERT_EQ(RegisterTypeLib(lib.get(), path.c_str(), nullptr), S_OK);
    const std::string libKey = "TypeLib\\" + vorn::test::GuidString(LIBID_VornTest);
    const std::string iface = "Interface\\" + vorn::test::GuidString(IID_IVornTestWidget);
    const struct {
        std::string key;
        const char* name;
        std::string value;
    } written[] = {
        {libKey + "\\2.a", nullptr, "Test library \xC2\xB5"},
        {libKey + "\\2.a\\0\\win64", nullptr, registry_.dir() + "/reg.tlb"},
        {libKey + "\\2.a\\FLAGS", nullptr, "0"},
        {libKey + "\\2.a\\HELPDIR", nullptr, registry_.dir()},
        {iface, nullptr, "IVornTestWidget"},
        {iface + "\\TypeLib", nullptr, vorn::test::GuidString(LIBID_VornTest)},
        {iface + "\\TypeLib", "Version", "2.a"},
        {iface + "\\ProxyStubClsid32", nullptr, "{00020424-0000-0000-C000-000000000046}"},
    };
    for (const auto& w : written) EXPECT_EQ(vorn::test::ClassesString(w.key.c_str(), w.name), w.value) << w.key;
    // Only oleautomation interfaces get Interface keys.
    EXPECT_FALSE(vorn::test::HasClassesKey(registry_, "Interface\\{6D1C2A51-51F3-4C0E-9A2B-117E3C8804A1}"));

    EXPECT_EQ(UnRegisterTypeLib(LIBID_VornTest, 2, 10, 0, SYS_WIN64), S_OK);
    EXPECT_FALSE(vorn::test::HasClassesKey(registry_, libKey));
    EXPECT_FALSE(vorn::test::HasClassesKey(registry_, iface));
    EXPECT_EQ(UnRegisterTypeLib(LIBID_VornTest, 2, 10, 0, SYS_WIN64), TYPE_E_REGISTRYACCESS);
}

}  // namespace
