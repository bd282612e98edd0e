// Type libraries: the reader on a small library written by the tests'
// writer (every answer a client uses to list interfaces, members and
// enumerations), damaged files, registration, and the component's own library
// checked against the schema metadata it was generated from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "ModuleTestSupport.h"
#include "SchemaCheck.h"
#include "TestIds.h"
#include "TestTypeLib.h"
#include "schema/Metadata.h"
#include "support/ScopedRegistry.h"
#include "vorn/database.h"

using ::testing::HasSubstr;

namespace {

// A temporary directory for library files.
class TypeLibFiles : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "vorn-tlb-XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::u16string Write(const std::string& name, const std::vector<std::uint8_t>& bytes) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return std::u16string(path.begin(), path.end());
    }

    std::string dir_;
};

std::string Text(BSTR text) {
    std::string out;
    for (UINT i = 0; text && i < SysStringLen(text); ++i) out.push_back(static_cast<char>(text[i]));
    SysFreeString(text);
    return out;
}

std::string TypeName(ITypeInfo* info) {
    BSTR name = nullptr;
    info->GetDocumentation(MEMBERID_NIL, &name, nullptr, nullptr, nullptr);
    return Text(name);
}

// "IFoo**" style text of a TYPEDESC, naming user-defined types.
std::string Describe(ITypeInfo* info, const TYPEDESC& desc) {
    if (desc.vt == VT_PTR) return Describe(info, *desc.lptdesc) + "*";
    if (desc.vt != VT_USERDEFINED) return "vt" + std::to_string(desc.vt);
    ITypeInfo* target = nullptr;
    if (FAILED(info->GetRefTypeInfo(desc.hreftype, &target))) return "<bad href>";
    const std::string name = TypeName(target);
    target->Release();
    return name;
}

TEST_F(TypeLibFiles, ReaderAnswersWhatAClientListsTypesWith) {
    ITypeLib* lib = nullptr;
    ASSERT_EQ(LoadTypeLib(Write("test.tlb", vorn::typelib::WriteTypeLib(TestTypeLibrary())).c_str(), &lib), S_OK)
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
    EXPECT_EQ(Text(name), "VornTestLib");
    EXPECT_EQ(std::u16string(doc), u"Test library \u00b5");
    SysFreeString(doc);
    TYPEKIND kind;
    EXPECT_EQ(lib->GetTypeInfoType(0, &kind), S_OK);
    EXPECT_EQ(kind, TKIND_ENUM);
    EXPECT_EQ(lib->GetTypeInfoType(3, &kind), S_OK);
    EXPECT_EQ(kind, TKIND_COCLASS);
    EXPECT_EQ(lib->GetTypeInfoType(4, &kind), TYPE_E_ELEMENTNOTFOUND);

    // The enumeration: constants with their values.
    ITypeInfo* color = nullptr;
    ASSERT_EQ(lib->GetTypeInfo(0, &color), S_OK);
    TYPEATTR* typeAttr = nullptr;
    ASSERT_EQ(color->GetTypeAttr(&typeAttr), S_OK);
    EXPECT_EQ(typeAttr->cVars, 3);
    EXPECT_EQ(typeAttr->cFuncs, 0);
    color->ReleaseTypeAttr(typeAttr);
    std::map<std::string, LONG> values;
    for (UINT i = 0; i < 3; ++i) {
        VARDESC* var = nullptr;
        ASSERT_EQ(color->GetVarDesc(i, &var), S_OK);
        EXPECT_EQ(var->varkind, VAR_CONST);
        ASSERT_EQ(var->lpvarValue->vt, VT_I4);
        BSTR varName = nullptr;
        UINT count = 0;
        ASSERT_EQ(color->GetNames(var->memid, &varName, 1, &count), S_OK);
        values[Text(varName)] = var->lpvarValue->lVal;
        color->ReleaseVarDesc(var);
    }
    EXPECT_EQ(values, (std::map<std::string, LONG>{{"eCOLOR_DARK", -3}, {"eCOLOR_GREEN", 5}, {"eCOLOR_RED", 0}}));
    VARDESC* var = nullptr;
    EXPECT_EQ(color->GetVarDesc(3, &var), TYPE_E_ELEMENTNOTFOUND);
    EXPECT_EQ(color->GetDocumentation(0x40000001, nullptr, &doc, nullptr, nullptr), S_OK);
    EXPECT_EQ(Text(doc), "green light");
    color->Release();

    // The interface: methods with dispatch identifiers, parameters and types.
    ITypeInfo* widget = nullptr;
    ASSERT_EQ(lib->GetTypeInfoOfGuid(IID_IVornTestWidget, &widget), S_OK);
    ASSERT_EQ(widget->GetTypeAttr(&typeAttr), S_OK);
    EXPECT_EQ(typeAttr->typekind, TKIND_INTERFACE);
    EXPECT_EQ(typeAttr->cFuncs, 2);
    EXPECT_EQ(typeAttr->wTypeFlags, TYPEFLAG_FOLEAUTOMATION);
    widget->ReleaseTypeAttr(typeAttr);
    FUNCDESC* func = nullptr;
    ASSERT_EQ(widget->GetFuncDesc(1, &func), S_OK);
    EXPECT_EQ(func->memid, 2);
    EXPECT_EQ(func->invkind, INVOKE_FUNC);
    ASSERT_EQ(func->cParams, 2);
    EXPECT_EQ(func->elemdescFunc.tdesc.vt, VT_HRESULT);
    EXPECT_EQ(Describe(widget, func->lprgelemdescParam[0].tdesc), "eCOLOR");
    EXPECT_EQ(func->lprgelemdescParam[0].paramdesc.wParamFlags, PARAMFLAG_FIN);
    EXPECT_EQ(Describe(widget, func->lprgelemdescParam[1].tdesc), "IVornTestDerived**");
    BSTR names[4] = {};
    UINT count = 0;
    ASSERT_EQ(widget->GetNames(func->memid, names, 4, &count), S_OK);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(Text(names[0]), "Paint");
    EXPECT_EQ(Text(names[1]), "eColor");
    EXPECT_EQ(Text(names[2]), "ppOther");
    widget->ReleaseFuncDesc(func);
    LPOLESTR lookup[] = {const_cast<LPOLESTR>(u"ANSWER")};
    MEMBERID id = 0;
    EXPECT_EQ(widget->GetIDsOfNames(lookup, 1, &id), S_OK);
    EXPECT_EQ(id, 1);
    ITypeLib* container = nullptr;
    UINT index = 9;
    ASSERT_EQ(widget->GetContainingTypeLib(&container, &index), S_OK);
    EXPECT_EQ(index, 1u);
    container->Release();
    widget->Release();

    // Bases and the class's default interface.
    ITypeInfo* coclass = nullptr;
    ASSERT_EQ(lib->GetTypeInfoOfGuid(CLSID_VornTestWidget, &coclass), S_OK);
    HREFTYPE href = 0;
    ASSERT_EQ(coclass->GetRefTypeOfImplType(0, &href), S_OK);
    INT flags = 0;
    EXPECT_EQ(coclass->GetImplTypeFlags(0, &flags), S_OK);
    EXPECT_EQ(flags, IMPLTYPEFLAG_FDEFAULT);
    ITypeInfo* base = nullptr;
    ASSERT_EQ(coclass->GetRefTypeInfo(href, &base), S_OK);
    EXPECT_EQ(TypeName(base), "IVornTestWidget");
    EXPECT_EQ(base->GetRefTypeOfImplType(0, &href), TYPE_E_ELEMENTNOTFOUND);
    base->Release();
    coclass->Release();

    // Names across the library.
    OLECHAR buffer[] = u"ivorntestderived";
    BOOL isName = FALSE;
    EXPECT_EQ(lib->IsName(buffer, 0, &isName), S_OK);
    EXPECT_TRUE(isName);
    EXPECT_EQ(std::u16string(buffer), u"IVornTestDerived");
    ITypeInfo* found[2] = {};
    MEMBERID ids[2] = {};
    USHORT foundCount = 2;
    OLECHAR answer[] = u"Answer";
    ASSERT_EQ(lib->FindName(answer, 0, found, ids, &foundCount), S_OK);
    ASSERT_EQ(foundCount, 1);
    EXPECT_EQ(ids[0], 1);
    EXPECT_EQ(TypeName(found[0]), "IVornTestWidget");
    found[0]->Release();
    lib->Release();
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
    ScopedRegistry registry;
    const std::u16string path = Write("reg.tlb", vorn::typelib::WriteTypeLib(TestTypeLibrary()));
    ITypeLib* lib = nullptr;
    ASSERT_EQ(LoadTypeLibEx(path.c_str(), REGKIND_REGISTER, &lib), S_OK);
    lib->Release();
    const std::string libKey = "TypeLib\\" + vorn::test::GuidString(LIBID_VornTest);
    EXPECT_EQ(vorn::test::ClassesString((libKey + "\\2.a").c_str()), "Test library \xC2\xB5");
    EXPECT_EQ(vorn::test::ClassesString((libKey + "\\2.a\\0\\win64").c_str()), dir_ + "/reg.tlb");
    EXPECT_EQ(vorn::test::ClassesString((libKey + "\\2.a\\FLAGS").c_str()), "0");
    EXPECT_EQ(vorn::test::ClassesString((libKey + "\\2.a\\HELPDIR").c_str()), dir_);
    const std::string iface = "Interface\\" + vorn::test::GuidString(IID_IVornTestWidget);
    EXPECT_EQ(vorn::test::ClassesString(iface.c_str()), "IVornTestWidget");
    EXPECT_EQ(vorn::test::ClassesString((iface + "\\TypeLib").c_str()), vorn::test::GuidString(LIBID_VornTest));
    EXPECT_EQ(vorn::test::ClassesString((iface + "\\TypeLib").c_str(), "Version"), "2.a");
    EXPECT_EQ(vorn::test::ClassesString((iface + "\\ProxyStubClsid32").c_str()),
              "{00020424-0000-0000-C000-000000000046}");
    // Only oleautomation interfaces get Interface keys.
    EXPECT_FALSE(vorn::test::ClassesKeyExists("Interface\\{6D1C2A51-51F3-4C0E-9A2B-117E3C8804A1}"));

    ASSERT_EQ(LoadRegTypeLib(LIBID_VornTest, 2, 3, 0x409, &lib), S_OK);  // a lower minor version is served too
    lib->Release();
    EXPECT_EQ(LoadRegTypeLib(LIBID_VornTest, 2, 11, 0, &lib), TYPE_E_LIBNOTREGISTERED);
    EXPECT_EQ(LoadRegTypeLib(LIBID_VornTest, 3, 0, 0, &lib), TYPE_E_LIBNOTREGISTERED);

    EXPECT_EQ(UnRegisterTypeLib(LIBID_VornTest, 2, 10, 0, SYS_WIN64), S_OK);
    EXPECT_FALSE(vorn::test::ClassesKeyExists(libKey.c_str()));
    EXPECT_FALSE(vorn::test::ClassesKeyExists(iface.c_str()));
    EXPECT_EQ(UnRegisterTypeLib(LIBID_VornTest, 2, 10, 0, SYS_WIN64), TYPE_E_REGISTRYACCESS);
}

}  // namespace

void ExpectMatchesSchema(ITypeLib* lib) {
    const vorn::schema::SchemaMetadata& schema = vorn::schema::GetSchemaMetadata();
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
    EXPECT_EQ(attr->guid, schema.libid);
    EXPECT_EQ(attr->wMajorVerNum, schema.majorVersion);
    EXPECT_EQ(attr->wMinorVerNum, schema.minorVersion);
    lib->ReleaseTLibAttr(attr);

    std::map<std::string, UINT> byName;
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
        BSTR name = nullptr;
        ASSERT_EQ(lib->GetDocumentation(static_cast<INT>(i), &name, nullptr, nullptr, nullptr), S_OK);
        byName[Text(name)] = i;
    }
    for (const vorn::schema::InterfaceInfo& iface : schema.interfaces) {
        SCOPED_TRACE(iface.name);
        ITypeInfo* info = nullptr;
        ASSERT_EQ(lib->GetTypeInfoOfGuid(iface.iid, &info), S_OK);
        EXPECT_EQ(TypeName(info), iface.name);
        TYPEATTR* typeAttr = nullptr;
        ASSERT_EQ(info->GetTypeAttr(&typeAttr), S_OK);
        ASSERT_EQ(typeAttr->cFuncs, iface.memberCount);
        info->ReleaseTypeAttr(typeAttr);
        HREFTYPE base = 0;
        ASSERT_EQ(info->GetRefTypeOfImplType(0, &base), S_OK);
        ITypeInfo* baseInfo = nullptr;
        ASSERT_EQ(info->GetRefTypeInfo(base, &baseInfo), S_OK);
        EXPECT_EQ(TypeName(baseInfo), iface.base);
        baseInfo->Release();
        for (UINT m = 0; m < iface.memberCount; ++m) {
            const vorn::schema::MemberInfo& member = schema.members[iface.firstMember + m];
            FUNCDESC* func = nullptr;
            ASSERT_EQ(info->GetFuncDesc(m, &func), S_OK);
            EXPECT_EQ(func->memid, static_cast<MEMBERID>(member.dispid));
            EXPECT_EQ(func->invkind, INVOKE_PROPERTYGET);
            BSTR name = nullptr;
            UINT count = 0;
            ASSERT_EQ(info->GetNames(func->memid, &name, 1, &count), S_OK);
            EXPECT_EQ(Text(name), member.name);
            ASSERT_EQ(func->cParams, member.count ? 2 : 1);
            if (member.count) {
                EXPECT_EQ(func->lprgelemdescParam[0].tdesc.vt, VT_UI4);
            }
            const std::string expected = member.family == vorn::schema::Family::Group
                                             ? std::string(schema.interfaces[member.childInterface].name)
                                             : std::string(vorn::schema::FamilyInterfaceName(member.family));
            EXPECT_EQ(Describe(info, func->lprgelemdescParam[func->cParams - 1].tdesc), expected + "**");
            info->ReleaseFuncDesc(func);
        }
        info->Release();
    }
    for (const vorn::schema::EnumerationInfo& e : schema.enumerations) {
        SCOPED_TRACE(e.name);
        ASSERT_TRUE(byName.count(e.name));
        ITypeInfo* info = nullptr;
        ASSERT_EQ(lib->GetTypeInfo(byName[e.name], &info), S_OK);
        TYPEATTR* typeAttr = nullptr;
        ASSERT_EQ(info->GetTypeAttr(&typeAttr), S_OK);
        EXPECT_EQ(typeAttr->typekind, TKIND_ENUM);
        ASSERT_EQ(typeAttr->cVars, e.memberCount);
        info->ReleaseTypeAttr(typeAttr);
        for (UINT v = 0; v < e.memberCount; ++v) {
            VARDESC* var = nullptr;
            ASSERT_EQ(info->GetVarDesc(v, &var), S_OK);
            BSTR name = nullptr;
            UINT count = 0;
            ASSERT_EQ(info->GetNames(var->memid, &name, 1, &count), S_OK);
            EXPECT_EQ(Text(name), schema.enumMembers[e.firstMember + v].name);
            EXPECT_EQ(var->lpvarValue->lVal, schema.enumMembers[e.firstMember + v].value);
            info->ReleaseVarDesc(var);
        }
        info->Release();
    }
    ITypeInfo* database = nullptr;
    ASSERT_EQ(lib->GetTypeInfoOfGuid(CLSID_Database, &database), S_OK);
    HREFTYPE href = 0;
    ASSERT_EQ(database->GetRefTypeOfImplType(0, &href), S_OK);
    ITypeInfo* primary = nullptr;
    ASSERT_EQ(database->GetRefTypeInfo(href, &primary), S_OK);
    EXPECT_EQ(TypeName(primary), "IDatabase");
    TYPEATTR* typeAttr = nullptr;
    ASSERT_EQ(primary->GetTypeAttr(&typeAttr), S_OK);
    EXPECT_EQ(typeAttr->guid, IID_IDatabase);
    primary->ReleaseTypeAttr(typeAttr);
    primary->Release();
    database->Release();
}

namespace {

// The component's library, read from the module file, holds every interface
// and enumeration of the schema with the schema's identifiers, names, member
// order, dispatch identifiers and member types.
TEST(ComponentTypeLib, MatchesTheSchema) {
    const std::string module = VORNDB_MODULE;
    ITypeLib* lib = nullptr;
    ASSERT_EQ(LoadTypeLib(std::u16string(module.begin(), module.end()).c_str(), &lib), S_OK)
        << vorn::test::LastErrorText();
    ExpectMatchesSchema(lib);
    lib->Release();
}

}  // namespace
