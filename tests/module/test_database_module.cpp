// The component module libvorndb.so: its exports; registration with
// vornregsvr (what registering and unregistering write and remove, the
// asymmetry of the program identifiers, the tool's refusals); and the
// database created through class activation, with its type library checked
// against the schema metadata it was generated from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>

#include "ModuleTestSupport.h"
#include "schema/Metadata.h"
#include "support/ScopedRegistry.h"
#include "vorn/database.h"

using ::testing::HasSubstr;
using vorn::ComPtr;
using vorn::test::CanUnloadNow;
using vorn::test::ClassesString;
using vorn::test::GuidString;
using vorn::test::HasClassesKey;
using vorn::test::RegisterServer;
using vorn::test::ToolResult;
using vorn::test::TypeName;

namespace {

const char* const kModule = VORNDB_MODULE;
const vorn::schema::SchemaMetadata& kSchema = vorn::schema::GetSchemaMetadata();
const std::string kClassKey = "CLSID\\" + GuidString(CLSID_Database);
const std::string kLibKey = "TypeLib\\" + GuidString(kSchema.libid);

TEST(Module, ExportsExactlyTheFourEntryPoints) {
    const ToolResult symbols =
        vorn::test::Run(std::string("nm -D --defined-only '") + kModule + "' | awk '{print $NF}' | sort");
    ASSERT_EQ(symbols.exitCode, 0) << symbols.output;
    EXPECT_EQ(symbols.output, "DllCanUnloadNow\nDllGetClassObject\nDllRegisterServer\nDllUnregisterServer\n");
}

TEST(Registration, WritesTheClassAndTypeLibraryAndUnregisteringRemovesOnlyThem) {
    ScopedRegistry registry;
    GUID other{};
    other.Data1 = 0xAA;
    vorn::test::RegisterClassAt(registry, other, "/elsewhere/libother.so");
    ToolResult result = RegisterServer(kModule);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("DllRegisterServer in \"" + std::string(kModule) + "\" succeeded"));
    // The replacements of the script (resources/Database.reg).
    EXPECT_EQ(ClassesString((kClassKey + "\\InprocServer32").c_str()), kModule);
    EXPECT_EQ(ClassesString((kClassKey + "\\TypeLib").c_str()), GuidString(kSchema.libid));
    EXPECT_EQ(ClassesString((kLibKey + "\\1.0\\0\\win64").c_str()), kModule);
    // Each program identifier resolves through its own CLSID key; CurVer and
    // the class's ProgID name a version-dependent one that has no key.
    CLSID resolved;
    for (const char16_t* progId : {u"Zelmwerk.VORN.Database", u"Zelmwerk.OVK.Database.1"}) {
        ASSERT_EQ(CLSIDFromProgID(progId, &resolved), S_OK);
        EXPECT_EQ(resolved, CLSID_Database);
    }
    EXPECT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database.1", &resolved), CO_E_CLASSSTRING);
    EXPECT_FALSE(HasClassesKey(registry, "Zelmwerk.VORN.Database.1"));
    const std::string once = registry.Text();
    ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
    EXPECT_EQ(registry.Text(), once) << "registering twice changed something";

    result = RegisterServer(kModule, true);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("DllUnregisterServer"));
    for (const std::string& key :
         {std::string("Zelmwerk.OVK.Database.1"), std::string("Zelmwerk.VORN.Database"), kClassKey, kLibKey})
        EXPECT_FALSE(HasClassesKey(registry, key)) << key;
    EXPECT_TRUE(HasClassesKey(registry, "CLSID\\" + GuidString(other)));
    EXPECT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database", &resolved), CO_E_CLASSSTRING);
    // Unregistering again finds nothing to remove, and that is no failure.
    const std::string after = registry.Text();
    result = RegisterServer(kModule, true);
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_EQ(registry.Text(), after);
}

TEST(Registration, AModuleRegisteredInPartUnregisters) {
    // What a registration cut short by an older writer left: the class
    // without its type library, or the type library without the class.
    for (const std::string& missing : {kLibKey, kClassKey}) {
        SCOPED_TRACE(missing);
        ScopedRegistry registry;
        ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
        registry.Append("[-HKEY_CLASSES_ROOT\\" + missing + "]\n");
        const ToolResult result = RegisterServer(kModule, true);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        for (const std::string& key : {kLibKey, kClassKey}) EXPECT_FALSE(HasClassesKey(registry, key)) << key;
    }
}

TEST(Registration, RefusalsLeaveTheRegistryAsItWas) {
    ScopedRegistry registry;
    // A module path that does not exist, a shared object without the entry
    // points, bad arguments: nothing is created.
    const struct {
        std::string arguments;
        int exitCode;
        const char* output;
    } refusals[] = {
        {"/nonexistent/libvorndb.so", 3, "/nonexistent/libvorndb.so"},
        {VORN_RUNTIME, 4, "DllRegisterServer"},
        {"", 1, "usage: vornregsvr [-u] [-s] MODULE"},
        {std::string("-x ") + kModule, 1, "unknown option -x"},
    };
    for (const auto& refusal : refusals) {
        const ToolResult result = vorn::test::Run(std::string(VORNREGSVR) + " " + refusal.arguments);
        EXPECT_EQ(result.exitCode, refusal.exitCode) << refusal.arguments;
        EXPECT_THAT(result.output, HasSubstr(refusal.output));
        EXPECT_FALSE(registry.Exists());
    }
    // Empty and malformed registry files: a clear error naming the file, and
    // the file is not touched.
    for (const char* text : {"", "Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\\A]\n\"v\"=what\n"}) {
        registry.Write(text);
        for (bool unregister : {false, true}) {
            const ToolResult result = RegisterServer(kModule, unregister);
            EXPECT_EQ(result.exitCode, 5);
            EXPECT_THAT(result.output, HasSubstr("0x80040150"));
            EXPECT_THAT(result.output, HasSubstr(registry.path()));
            EXPECT_EQ(registry.Text(), text);
        }
    }
}

// Checks every group interface (IID, name, base, members in order with their
// dispatch identifiers, parameters and result interfaces), every enumeration
// with its values, and the Database class with IDatabase as its default
// interface.
void ExpectMatchesSchema(ITypeLib* lib) {
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
    EXPECT_EQ(std::tuple(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum),
              std::tuple(kSchema.libid, kSchema.majorVersion, kSchema.minorVersion));
    lib->ReleaseTLibAttr(attr);
    std::map<std::string, std::string> rendered;  // by type name
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
        ComPtr<ITypeInfo> info;
        ASSERT_EQ(lib->GetTypeInfo(i, info.put()), S_OK);
        rendered[TypeName(info.get())] = vorn::test::Render(info.get());
    }
    auto nameOfGuid = [lib](REFGUID guid) {
        ComPtr<ITypeInfo> info;
        return SUCCEEDED(lib->GetTypeInfoOfGuid(guid, info.put())) ? TypeName(info.get()) : "<missing>";
    };

    for (const vorn::schema::InterfaceInfo& iface : kSchema.interfaces) {
        std::string expected = std::string("interface ") + iface.name + " : " + iface.base;
        for (UINT m = 0; m < iface.memberCount; ++m) {
            const vorn::schema::MemberInfo& member = kSchema.members[iface.firstMember + m];
            const std::string target = member.family == vorn::schema::Family::Group
                                           ? kSchema.interfaces[member.childInterface].name
                                           : vorn::schema::FamilyInterfaceName(member.family);
            expected += "\n  " + std::to_string(member.dispid) + " " + member.name + " get(" +
                        (member.count ? "vt19/1, " : "") + target + "**/10) vt25";
        }
        EXPECT_EQ(rendered[iface.name], expected);
        EXPECT_EQ(nameOfGuid(iface.iid), iface.name);
    }
    for (const vorn::schema::EnumerationInfo& e : kSchema.enumerations) {
        std::string expected = std::string("enum ") + e.name;
        for (UINT v = 0; v < e.memberCount; ++v) {
            const auto& member = kSchema.enumMembers[e.firstMember + v];
            expected += "\n  " + std::string(member.name) + " = " + std::to_string(member.value);
        }
        EXPECT_EQ(rendered[e.name], expected);
    }
    EXPECT_EQ(rendered["Database"], "coclass Database : IDatabase");
    EXPECT_EQ(nameOfGuid(CLSID_Database) + " " + nameOfGuid(IID_IDatabase), "Database IDatabase");
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

    ComPtr<IDatabase> database;
    ASSERT_EQ(vorn::test::CreateInproc(CLSID_Database, IID_IDatabase, database.put_void()), S_OK)
        << vorn::test::LastErrorText();
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    CoFreeUnusedLibraries();
    ASSERT_NE(GetModuleHandleA(kModule), nullptr) << "a live database keeps its module";
    // Names resolve without a reset (the tree tests walk every name).
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
