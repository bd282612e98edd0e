// Type libraries: the reader on a small library made with the build's type
// library writer (tools/typelibgen; the answers the vorndb tool and the
// module use to list interfaces, members and enumerations), damaged files,
// and registration. The component's own library
// is checked against the schema in test_database_module.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "ModuleTestSupport.h"
#include "TestIds.h"
#include "TypeLibWriter.h"
#include "support/ScopedRegistry.h"

using ::testing::HasSubstr;
using vorn::ComPtr;
using vorn::test::AttrOf;
using vorn::test::Describe;
using vorn::test::MemberName;
using vorn::test::TypeName;

namespace {

// A small library: an enumeration, an oleautomation interface with a method
// and a property, an interface deriving from it, and a class.
vorn::typelib::Library TestTypeLibrary() {
    using namespace vorn::typelib;
    Library lib;
    lib.libid = LIBID_VornTest;
    lib.majorVersion = 2;
    lib.minorVersion = 10;
    lib.name = "VornTestLib";
    lib.doc = "Test library \xC2\xB5";

    Type color;  // 0
    color.kind = TKIND_ENUM;
    color.name = "eCOLOR";
    color.members = {Member{0x40000000, "eCOLOR_RED", "", 0, 0, {VT_I4, 0, kNoType}, {}},
                     Member{0x40000001, "eCOLOR_GREEN", "green light", 0, 5, {VT_I4, 0, kNoType}, {}},
                     Member{0x40000002, "eCOLOR_DARK", "", 0, -3, {VT_I4, 0, kNoType}, {}}};
    lib.types.push_back(color);

    Type widget;  // 1
    widget.guid = IID_IVornTestWidget;
    widget.name = "IVornTestWidget";
    widget.doc = "The widget";
    widget.typeFlags = TYPEFLAG_FOLEAUTOMATION;
    const Param value{"pValue", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_I4, 1, kNoType}};
    const Param paint{"eColor", PARAMFLAG_FIN, {VT_USERDEFINED, 0, 0}};
    const Param other{"ppOther", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_USERDEFINED, 2, 2}};
    widget.members = {Member{1, "Answer", "always 42", INVOKE_PROPERTYGET, 0, {VT_HRESULT, 0, kNoType}, {value}},
                      Member{2, "Paint", "", INVOKE_FUNC, 0, {VT_HRESULT, 0, kNoType}, {paint, other}}};
    lib.types.push_back(widget);

    Type derived;  // 2
    derived.guid = GUID{0x6d1c2a51, 0x51f3, 0x4c0e, {0x9a, 0x2b, 0x11, 0x7e, 0x3c, 0x88, 0x04, 0xa1}};
    derived.name = "IVornTestDerived";
    derived.base = 1;
    lib.types.push_back(derived);

    Type coclass;  // 3
    coclass.guid = CLSID_VornTestWidget;
    coclass.kind = TKIND_COCLASS;
    coclass.name = "TestWidget";
    coclass.base = 1;
    lib.types.push_back(coclass);
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
    ASSERT_EQ(lib->GetTypeInfoCount(), 4u);
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
    EXPECT_EQ(attr->guid, LIBID_VornTest);
    EXPECT_EQ(attr->wMajorVerNum, 2);
    EXPECT_EQ(attr->wMinorVerNum, 10);
    EXPECT_EQ(attr->syskind, SYS_WIN64);
    lib->ReleaseTLibAttr(attr);
    BSTR name = nullptr, doc = nullptr;
    ASSERT_EQ(lib->GetDocumentation(-1, &name, &doc, nullptr, nullptr), S_OK);
    EXPECT_EQ(vorn::test::TakeText(name), "VornTestLib");
    EXPECT_EQ(std::u16string(doc), u"Test library \u00b5");
    SysFreeString(doc);

    // The enumeration: constants with their values.
    ComPtr<ITypeInfo> color;
    ASSERT_EQ(lib->GetTypeInfo(0, color.put()), S_OK);
    EXPECT_EQ(AttrOf(color.get()).cVars, 3);
    EXPECT_EQ(AttrOf(color.get()).cFuncs, 0);
    std::map<std::string, LONG> values;
    for (UINT i = 0; i < 3; ++i) {
        VARDESC* var = nullptr;
        ASSERT_EQ(color->GetVarDesc(i, &var), S_OK);
        EXPECT_EQ(var->varkind, VAR_CONST);
        ASSERT_EQ(var->lpvarValue->vt, VT_I4);
        values[MemberName(color.get(), var->memid)] = var->lpvarValue->lVal;
        color->ReleaseVarDesc(var);
    }
    EXPECT_EQ(values, (std::map<std::string, LONG>{{"eCOLOR_DARK", -3}, {"eCOLOR_GREEN", 5}, {"eCOLOR_RED", 0}}));
    VARDESC* var = nullptr;
    EXPECT_EQ(color->GetVarDesc(3, &var), TYPE_E_ELEMENTNOTFOUND);
    EXPECT_EQ(color->GetDocumentation(0x40000001, nullptr, &doc, nullptr, nullptr), S_OK);
    EXPECT_EQ(vorn::test::TakeText(doc), "green light");

    // The interface: methods with dispatch identifiers, parameters and types.
    ComPtr<ITypeInfo> widget;
    ASSERT_EQ(lib->GetTypeInfoOfGuid(IID_IVornTestWidget, widget.put()), S_OK);
    const TYPEATTR widgetAttr = AttrOf(widget.get());
    EXPECT_EQ(widgetAttr.typekind, TKIND_INTERFACE);
    EXPECT_EQ(widgetAttr.cFuncs, 2);
    EXPECT_EQ(widgetAttr.wTypeFlags, TYPEFLAG_FOLEAUTOMATION);
    FUNCDESC* func = nullptr;
    ASSERT_EQ(widget->GetFuncDesc(1, &func), S_OK);
    EXPECT_EQ(func->memid, 2);
    EXPECT_EQ(func->invkind, INVOKE_FUNC);
    ASSERT_EQ(func->cParams, 2);
    EXPECT_EQ(func->elemdescFunc.tdesc.vt, VT_HRESULT);
    EXPECT_EQ(Describe(widget.get(), func->lprgelemdescParam[0].tdesc), "eCOLOR");
    EXPECT_EQ(func->lprgelemdescParam[0].paramdesc.wParamFlags, PARAMFLAG_FIN);
    EXPECT_EQ(Describe(widget.get(), func->lprgelemdescParam[1].tdesc), "IVornTestDerived**");
    widget->ReleaseFuncDesc(func);

    // Bases and the class's default interface.
    ComPtr<ITypeInfo> coclass;
    ASSERT_EQ(lib->GetTypeInfoOfGuid(CLSID_VornTestWidget, coclass.put()), S_OK);
    ComPtr<ITypeInfo> base = vorn::test::FirstImplemented(coclass.get());
    ASSERT_TRUE(base);
    EXPECT_EQ(TypeName(base.get()), "IVornTestWidget");
    HREFTYPE href = 0;
    EXPECT_EQ(base->GetRefTypeOfImplType(0, &href), TYPE_E_ELEMENTNOTFOUND);
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
