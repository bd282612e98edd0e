// The component module libvorndb.so: its exports; registration with
// vornregsvr (the registry contents after registering and after
// unregistering, with the deliberate asymmetry of the program identifiers,
// and the tool's refusals, which must leave the registry as it was); and the
// database class created through class activation as a client creates it: the
// module stays loaded while the object lives, creation with a null out pointer
// creates nothing, names resolve at once, and GetTypeLib hands out the
// module's library, which is checked against the schema metadata it was
// generated from (every group interface with its members, every enumeration,
// the Database class).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "ModuleTestSupport.h"
#include "schema/Metadata.h"
#include "support/ScopedRegistry.h"
#include "vorn/database.h"

using ::testing::HasSubstr;
using vorn::ComPtr;
using vorn::test::CanUnloadNow;
using vorn::test::ClassesString;
using vorn::test::GuidString;
using vorn::test::RegisterServer;
using vorn::test::TypeName;

namespace {

const char* const kModule = VORNDB_MODULE;
const vorn::schema::SchemaMetadata& kSchema = vorn::schema::GetSchemaMetadata();

std::string ClassKey(const std::string& sub = "") {
    return "CLSID\\" + GuidString(CLSID_Database) + (sub.empty() ? "" : "\\" + sub);
}

TEST(Module, ExportsExactlyTheFourEntryPoints) {
    const vorn::test::ToolResult symbols =
        vorn::test::Run(std::string("nm -D --defined-only '") + kModule + "' | awk '{print $NF}' | sort");
    ASSERT_EQ(symbols.exitCode, 0) << symbols.output;
    EXPECT_EQ(symbols.output, "DllCanUnloadNow\nDllGetClassObject\nDllRegisterServer\nDllUnregisterServer\n");
}

TEST(Registration, WritesTheClassProgramIdentifiersAndTypeLibrary) {
    ScopedRegistry registry;
    const vorn::test::ToolResult result = RegisterServer(kModule);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("DllRegisterServer"));
    EXPECT_THAT(result.output, HasSubstr("succeeded"));

    // The replacements in the script (resources/Database.reg): %MODULE% and
    // %LIBID% here, %CLSID% through the program identifiers below.
    EXPECT_EQ(ClassesString(ClassKey("InprocServer32").c_str()), kModule);
    EXPECT_EQ(ClassesString(ClassKey("TypeLib").c_str()), GuidString(kSchema.libid));

    // The program identifiers resolve as Windows resolves them: each through
    // its own CLSID key. CurVer and the class's ProgID name a version-dependent
    // identifier that has no key of its own.
    CLSID resolved;
    for (const char16_t* progId : {u"Zelmwerk.VORN.Database", u"Zelmwerk.OVK.Database.1"}) {
        ASSERT_EQ(CLSIDFromProgID(progId, &resolved), S_OK);
        EXPECT_EQ(resolved, CLSID_Database);
    }
    EXPECT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database.1", &resolved), CO_E_CLASSSTRING);
    EXPECT_FALSE(vorn::test::HasClassesKey(registry, "Zelmwerk.VORN.Database.1"));

    // The registered type library is the module's own.
    EXPECT_EQ(ClassesString(("TypeLib\\" + GuidString(kSchema.libid) + "\\1.0\\0\\win64").c_str()), kModule);

    // Registering twice changes nothing.
    const std::string once = registry.Text();
    ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
    EXPECT_EQ(registry.Text(), once);
}

TEST(Registration, UnregisteringRemovesWhatItWroteAndKeepsTheRest) {
    ScopedRegistry registry;
    GUID other{};
    other.Data1 = 0xAA;
    vorn::test::RegisterClassAt(registry, other, "/elsewhere/libother.so");
    ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
    const vorn::test::ToolResult result = RegisterServer(kModule, true);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("DllUnregisterServer"));

    for (const std::string& key : {std::string("Zelmwerk.OVK.Database.1"), std::string("Zelmwerk.VORN.Database"),
                                   ClassKey(), "TypeLib\\" + GuidString(kSchema.libid)})
        EXPECT_FALSE(vorn::test::HasClassesKey(registry, key)) << key;
    EXPECT_TRUE(vorn::test::HasClassesKey(registry, "CLSID\\" + GuidString(other)));
    CLSID resolved;
    EXPECT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database", &resolved), CO_E_CLASSSTRING);

    // Unregistering again finds nothing to remove, and that is no failure.
    const std::string after = registry.Text();
    const vorn::test::ToolResult again = RegisterServer(kModule, true);
    EXPECT_EQ(again.exitCode, 0) << again.output;
    EXPECT_EQ(registry.Text(), after);
}

TEST(Registration, AModuleRegisteredInPartUnregisters) {
    // What a registration cut short by an older writer left: the class
    // without its type library, or the type library without the class.
    const std::string parts[] = {"TypeLib\\" + GuidString(kSchema.libid), ClassKey()};
    for (const std::string& missing : parts) {
        SCOPED_TRACE(missing);
        ScopedRegistry registry;
        ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
        registry.Append("[-HKEY_CLASSES_ROOT\\" + missing + "]\n");
        const vorn::test::ToolResult result = RegisterServer(kModule, true);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        for (const std::string& key : parts) EXPECT_FALSE(vorn::test::HasClassesKey(registry, key)) << key;
    }
}

TEST(Registration, RefusalsLeaveTheRegistryAsItWas) {
    ScopedRegistry registry;
    // A module path that does not exist, a shared object without the entry
    // points: nothing is created.
    vorn::test::ToolResult result = RegisterServer("/nonexistent/libvorndb.so");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(result.output, HasSubstr("/nonexistent/libvorndb.so"));
    EXPECT_FALSE(registry.Exists());
    result = RegisterServer(VORN_RUNTIME);
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_THAT(result.output, HasSubstr("DllRegisterServer"));
    EXPECT_FALSE(registry.Exists());

    // Bad arguments.
    EXPECT_EQ(vorn::test::Run(VORNREGSVR).exitCode, 1);
    EXPECT_EQ(vorn::test::Run(std::string(VORNREGSVR) + " -x " + kModule).exitCode, 1);

    // Empty and malformed registry files: a clear error naming the file, and
    // the file is not touched.
    for (const char* text : {"", "Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\\A]\n\"v\"=what\n"}) {
        registry.Write(text);
        result = RegisterServer(kModule);
        EXPECT_EQ(result.exitCode, 5);
        EXPECT_THAT(result.output, HasSubstr("0x80040150"));
        EXPECT_THAT(result.output, HasSubstr(registry.path()));
        EXPECT_EQ(registry.Text(), text);
        result = RegisterServer(kModule, true);
        EXPECT_EQ(result.exitCode, 5);
        EXPECT_EQ(registry.Text(), text);
    }
}

// Checks every group interface (IID, name, base, members in order with their
// dispatch identifiers, parameters and result interfaces), every enumeration
// with its values, and the Database class with IDatabase as its default
// interface.
void ExpectMatchesSchema(ITypeLib* lib) {
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
    EXPECT_EQ(attr->guid, kSchema.libid);
    EXPECT_EQ(attr->wMajorVerNum, kSchema.majorVersion);
    EXPECT_EQ(attr->wMinorVerNum, kSchema.minorVersion);
    lib->ReleaseTLibAttr(attr);

    for (const vorn::schema::InterfaceInfo& iface : kSchema.interfaces) {
        SCOPED_TRACE(iface.name);
        ComPtr<ITypeInfo> info;
        ASSERT_EQ(lib->GetTypeInfoOfGuid(iface.iid, info.put()), S_OK);
        EXPECT_EQ(TypeName(info.get()), iface.name);
        ASSERT_EQ(vorn::test::AttrOf(info.get()).cFuncs, iface.memberCount);
        ComPtr<ITypeInfo> base = vorn::test::FirstImplemented(info.get());
        ASSERT_TRUE(base);
        EXPECT_EQ(TypeName(base.get()), iface.base);
        for (UINT m = 0; m < iface.memberCount; ++m) {
            const vorn::schema::MemberInfo& member = kSchema.members[iface.firstMember + m];
            FUNCDESC* func = nullptr;
            ASSERT_EQ(info->GetFuncDesc(m, &func), S_OK);
            EXPECT_EQ(func->memid, static_cast<MEMBERID>(member.dispid));
            EXPECT_EQ(func->invkind, INVOKE_PROPERTYGET);
            EXPECT_EQ(vorn::test::MemberName(info.get(), func->memid), member.name);
            ASSERT_EQ(func->cParams, member.count ? 2 : 1);
            if (member.count) {
                EXPECT_EQ(func->lprgelemdescParam[0].tdesc.vt, VT_UI4);
            }
            const std::string expected = member.family == vorn::schema::Family::Group
                                             ? std::string(kSchema.interfaces[member.childInterface].name)
                                             : std::string(vorn::schema::FamilyInterfaceName(member.family));
            EXPECT_EQ(vorn::test::Describe(info.get(), func->lprgelemdescParam[func->cParams - 1].tdesc),
                      expected + "**");
            info->ReleaseFuncDesc(func);
        }
    }

    std::map<std::string, UINT> byName;
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
        BSTR name = nullptr;
        ASSERT_EQ(lib->GetDocumentation(static_cast<INT>(i), &name, nullptr, nullptr, nullptr), S_OK);
        byName[vorn::test::TakeText(name)] = i;
    }
    for (const vorn::schema::EnumerationInfo& e : kSchema.enumerations) {
        SCOPED_TRACE(e.name);
        ASSERT_TRUE(byName.count(e.name));
        ComPtr<ITypeInfo> info;
        ASSERT_EQ(lib->GetTypeInfo(byName[e.name], info.put()), S_OK);
        const TYPEATTR attrs = vorn::test::AttrOf(info.get());
        EXPECT_EQ(attrs.typekind, TKIND_ENUM);
        ASSERT_EQ(attrs.cVars, e.memberCount);
        for (UINT v = 0; v < e.memberCount; ++v) {
            VARDESC* var = nullptr;
            ASSERT_EQ(info->GetVarDesc(v, &var), S_OK);
            EXPECT_EQ(vorn::test::MemberName(info.get(), var->memid), kSchema.enumMembers[e.firstMember + v].name);
            EXPECT_EQ(var->lpvarValue->lVal, kSchema.enumMembers[e.firstMember + v].value);
            info->ReleaseVarDesc(var);
        }
    }

    ComPtr<ITypeInfo> database;
    ASSERT_EQ(lib->GetTypeInfoOfGuid(CLSID_Database, database.put()), S_OK);
    ComPtr<ITypeInfo> primary = vorn::test::FirstImplemented(database.get());
    ASSERT_TRUE(primary);
    EXPECT_EQ(TypeName(primary.get()), "IDatabase");
    EXPECT_EQ(vorn::test::AttrOf(primary.get()).guid, IID_IDatabase);
}

class DatabaseModule : public vorn::test::RegisteredModuleTest {
protected:
    void SetUp() override { Register(kModule); }
};

TEST_F(DatabaseModule, LiveDatabaseHoldsTheModuleAndHandsOutItsTypeLibrary) {
    // A null out pointer creates nothing: the module may still be unloaded.
    HMODULE module = LoadLibraryA(kModule);
    ASSERT_NE(module, nullptr);
    using GetClassObjectFn = HRESULT (*)(REFCLSID, REFIID, LPVOID*);
    auto getClassObject = reinterpret_cast<GetClassObjectFn>(GetProcAddress(module, "DllGetClassObject"));
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(getClassObject(CLSID_Database, IID_IClassFactory, factory.put_void()), S_OK);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IDatabase, nullptr), E_POINTER);
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    factory.reset();
    FreeLibrary(module);

    CLSID clsid;
    ASSERT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database", &clsid), S_OK);
    ComPtr<IDatabase> database;
    ASSERT_EQ(vorn::test::CreateInproc(clsid, IID_IDatabase, database.put_void()), S_OK) << vorn::test::LastErrorText();
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    CoFreeUnusedLibraries();
    ASSERT_NE(GetModuleHandleA(kModule), nullptr) << "a live database keeps its module";

    // Names resolve without a reset (every name is walked by the tree tests
    // over the same code).
    std::u16string name = u"UserSettings.PhaseNoiseSettings.UserPLLSettings.AMMode[0]";
    ComPtr<IUnknown> object;
    EXPECT_EQ(database->GetObject(name.data(), object.put()), S_OK);
    EXPECT_TRUE(object);
    object.reset();

    ComPtr<ITypeLib> typeLib;
    EXPECT_EQ(database->GetTypeLib(nullptr), E_POINTER);
    ASSERT_EQ(database->GetTypeLib(typeLib.put()), S_OK);
    ASSERT_TRUE(typeLib);
    ExpectMatchesSchema(typeLib.get());
    typeLib.reset();

    database.reset();
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    CoFreeUnusedLibraries();
    EXPECT_EQ(GetModuleHandleA(kModule), nullptr);
}

}  // namespace
