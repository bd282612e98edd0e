// Registration of the component module libvorndb.so with vornregsvr: the
// registry contents after registering and after unregistering (with the
// deliberate asymmetry of the program identifiers), the module's exports, and
// the tool's refusals, which must leave the registry as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ModuleTestSupport.h"
#include "schema/Metadata.h"
#include "support/ScopedRegistry.h"
#include "vorn/database.h"

using ::testing::HasSubstr;
using vorn::test::ClassesKeyExists;
using vorn::test::ClassesString;
using vorn::test::GuidString;
using vorn::test::RegisterServer;

namespace {

const char* const kModule = VORNDB_MODULE;

std::string ClassKey(const char* sub = nullptr) {
    std::string key = "CLSID\\" + GuidString(CLSID_Database);
    if (sub) key += std::string("\\") + sub;
    return key;
}

std::string TypeLibKey() { return "TypeLib\\" + GuidString(vorn::schema::GetSchemaMetadata().libid); }

TEST(Registration, WritesTheClassProgramIdentifiersAndTypeLibrary) {
    ScopedRegistry registry;
    const vorn::test::ToolResult result = RegisterServer(kModule);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("DllRegisterServer"));
    EXPECT_THAT(result.output, HasSubstr("succeeded"));

    const std::string clsid = GuidString(CLSID_Database);
    EXPECT_EQ(ClassesString("Zelmwerk.OVK.Database.1"), "VORN Database Component");
    EXPECT_EQ(ClassesString("Zelmwerk.OVK.Database.1\\CLSID"), clsid);
    EXPECT_EQ(ClassesString("Zelmwerk.VORN.Database"), "VORN Database Component");
    EXPECT_EQ(ClassesString("Zelmwerk.VORN.Database\\CLSID"), clsid);
    EXPECT_EQ(ClassesString("Zelmwerk.VORN.Database\\CurVer"), "Zelmwerk.VORN.Database.1");
    EXPECT_EQ(ClassesString(ClassKey().c_str()), "VORN Database Component");
    EXPECT_EQ(ClassesString(ClassKey("ProgID").c_str()), "Zelmwerk.VORN.Database.1");
    EXPECT_EQ(ClassesString(ClassKey("VersionIndependentProgID").c_str()), "Zelmwerk.VORN.Database");
    EXPECT_EQ(ClassesString(ClassKey("InprocServer32").c_str()), kModule);
    EXPECT_EQ(ClassesString(ClassKey("InprocServer32").c_str(), "ThreadingModel"), "Free");
    EXPECT_EQ(ClassesString(ClassKey("TypeLib").c_str()), GuidString(vorn::schema::GetSchemaMetadata().libid));
    const std::string libPath = TypeLibKey() + "\\1.0\\0\\win64";
    EXPECT_EQ(ClassesString(libPath.c_str()), kModule);

    // The program identifiers resolve as Windows resolves them: each through
    // its own CLSID key. CurVer and the class's ProgID name a version-dependent
    // identifier that has no key of its own.
    CLSID resolved;
    ASSERT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database", &resolved), S_OK);
    EXPECT_EQ(resolved, CLSID_Database);
    ASSERT_EQ(CLSIDFromProgID(u"Zelmwerk.OVK.Database.1", &resolved), S_OK);
    EXPECT_EQ(resolved, CLSID_Database);
    EXPECT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database.1", &resolved), CO_E_CLASSSTRING);
    EXPECT_FALSE(ClassesKeyExists("Zelmwerk.VORN.Database.1"));
    LPOLESTR progId = nullptr;
    ASSERT_EQ(ProgIDFromCLSID(CLSID_Database, &progId), S_OK);
    EXPECT_EQ(std::u16string(progId), u"Zelmwerk.VORN.Database.1");
    CoTaskMemFree(progId);

    // The registered type library is the module's own.
    ITypeLib* lib = nullptr;
    const auto& schema = vorn::schema::GetSchemaMetadata();
    ASSERT_EQ(LoadRegTypeLib(schema.libid, schema.majorVersion, schema.minorVersion, 0, &lib), S_OK);
    ITypeInfo* info = nullptr;
    EXPECT_EQ(lib->GetTypeInfoOfGuid(CLSID_Database, &info), S_OK);
    if (info) info->Release();
    lib->Release();

    // Registering twice changes nothing.
    const std::string once = registry.Text();
    ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
    EXPECT_EQ(registry.Text(), once);
}

TEST(Registration, UnregisteringRemovesWhatItWroteAndKeepsTheRest) {
    ScopedRegistry registry;
    HKEY other = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "CLSID\\{00000000-0000-0000-0000-0000000000AA}", 0, nullptr, 0,
                              KEY_ALL_ACCESS, nullptr, &other, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(other);
    ASSERT_EQ(RegisterServer(kModule).exitCode, 0);
    const vorn::test::ToolResult result = RegisterServer(kModule, true);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("DllUnregisterServer"));

    EXPECT_FALSE(ClassesKeyExists("Zelmwerk.OVK.Database.1"));
    EXPECT_FALSE(ClassesKeyExists("Zelmwerk.VORN.Database"));
    EXPECT_FALSE(ClassesKeyExists(ClassKey().c_str()));
    EXPECT_FALSE(ClassesKeyExists(TypeLibKey().c_str()));
    EXPECT_TRUE(ClassesKeyExists("CLSID\\{00000000-0000-0000-0000-0000000000AA}"));
    CLSID resolved;
    EXPECT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database", &resolved), CO_E_CLASSSTRING);

    // Unregistering again finds no type library registration to remove.
    const vorn::test::ToolResult again = RegisterServer(kModule, true);
    EXPECT_EQ(again.exitCode, 5);
    EXPECT_THAT(again.output, HasSubstr("0x8002801C"));
}

TEST(Registration, RefusalsLeaveTheRegistryAsItWas) {
    ScopedRegistry registry;
    // A module path that does not exist: nothing is created.
    vorn::test::ToolResult result = RegisterServer("/nonexistent/libvorndb.so");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(result.output, HasSubstr("/nonexistent/libvorndb.so"));
    EXPECT_FALSE(registry.Exists());

    // A shared object without the entry points.
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

TEST(Module, ExportsExactlyTheFourEntryPoints) {
    const vorn::test::ToolResult symbols =
        vorn::test::Run(std::string("nm -D --defined-only '") + kModule + "' | awk '{print $NF}' | sort");
    ASSERT_EQ(symbols.exitCode, 0) << symbols.output;
    EXPECT_EQ(symbols.output, "DllCanUnloadNow\nDllGetClassObject\nDllRegisterServer\nDllUnregisterServer\n");
}

}  // namespace
