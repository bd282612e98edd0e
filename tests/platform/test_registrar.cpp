// The registrar: what registering and unregistering a script does to the
// registry (the keywords, values and replacements), scripts with errors, and
// scripts held as module resources.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ScopedRegistry.h"
#include "vorn/platform.h"
#include "vorn/rt/registrar.h"

using ::testing::HasSubstr;

namespace {

std::string LastErrorText() {
    char text[1024];
    VornGetLastErrorTextA(text, sizeof text);
    return text;
}

bool KeyExists(const char* path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CLASSES_ROOT, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::string String(const char* path, const char* name) {
    char buf[512] = {};
    DWORD size = sizeof buf;
    LSTATUS s = RegGetValueA(HKEY_CLASSES_ROOT, path, name, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ, nullptr, buf, &size);
    return s == ERROR_SUCCESS ? std::string(buf) : "<missing>";
}

const char kScript[] = R"(HKCR
{
    NoRemove Shared
    {
        ForceRemove Owned = s 'It''s mine'
        {
            Server = s '%MODULE%'
            {
                val Model = s 'Free'
                val Count = d '0x10'
                val Flags = b '0A0b'
            }
        }
        Plain = e '%%PATH%%'
        Delete Stale
    }
}
HKLM
{
    SOFTWARE
    {
        Zelmwerk = d 12
    }
}
)";

const VORN_REGMAP_ENTRY kMap[] = {{"MODULE", "/opt/vorn/lib/libthing.so"}, {nullptr, nullptr}};

TEST(Registrar, RegisteringAndUnregisteringFollowTheKeywords) {
    ScopedRegistry registry;
    HKEY stale = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "Shared\\Stale\\Deep", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &stale,
                              nullptr),
              ERROR_SUCCESS);
    RegCloseKey(stale);

    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK) << LastErrorText();
    EXPECT_EQ(String("Shared\\Owned", nullptr), "It's mine");
    EXPECT_EQ(String("Shared\\Owned\\Server", nullptr), "/opt/vorn/lib/libthing.so");
    EXPECT_EQ(String("Shared\\Owned\\Server", "Model"), "Free");
    DWORD count = 0, size = sizeof count;
    EXPECT_EQ(
        RegGetValueA(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Count", RRF_RT_REG_DWORD, nullptr, &count, &size),
        ERROR_SUCCESS);
    EXPECT_EQ(count, 16u);
    BYTE flags[4] = {};
    size = sizeof flags;
    DWORD type = 0;
    EXPECT_EQ(RegGetValueA(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Flags", RRF_RT_ANY, &type, flags, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, REG_BINARY);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(flags[1], 0x0B);
    EXPECT_EQ(String("Shared\\Plain", nullptr), "%PATH%");
    EXPECT_FALSE(KeyExists("Shared\\Stale"));
    size = sizeof count;
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr, RRF_RT_REG_DWORD, nullptr, &count, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(count, 12u);

    // Registering again replaces a ForceRemove key as a whole.
    HKEY foreign = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "Shared\\Owned\\Foreign", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &foreign, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(foreign);
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK);
    EXPECT_FALSE(KeyExists("Shared\\Owned\\Foreign"));

    // Unregistering keeps NoRemove keys, removes ForceRemove keys with what
    // others put below them, and keeps a plain key that still has subkeys.
    ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "Shared\\Owned\\Foreign", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &foreign, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(foreign);
    HKEY other = nullptr;
    ASSERT_EQ(
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Other", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &other, nullptr),
        ERROR_SUCCESS);
    RegCloseKey(other);
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, FALSE), S_OK) << LastErrorText();
    EXPECT_TRUE(KeyExists("Shared"));
    EXPECT_FALSE(KeyExists("Shared\\Owned"));
    EXPECT_FALSE(KeyExists("Shared\\Plain"));
    HKEY software = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", 0, KEY_READ, &software), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_READ, &software), ERROR_SUCCESS);
    RegCloseKey(software);
    // Unregistering what is not there succeeds and changes nothing.
    const std::string before = registry.Text();
    EXPECT_EQ(VornRegistrarRunScriptA(kScript, kMap, FALSE), S_OK);
    EXPECT_EQ(registry.Text(), before);
}

TEST(Registrar, ScriptErrorsNameTheLineAndChangeNothing) {
    ScopedRegistry registry;
    ASSERT_EQ(VornRegistrarRunScriptA("HKCR\n{\n  Base = s 'x'\n}\n", nullptr, TRUE), S_OK);
    const std::string before = registry.Text();
    struct Case {
        const char* script;
        const char* message;
    };
    const Case cases[] = {
        {"HKCR\n{\n  Key = s 'fine'\n  Other = q 'x'\n}\n", "line 4: unknown value type 'q'"},
        {"HKCR\n{\n  Key = s 'open\n}\n", "line 3: a quoted text is not closed"},
        {"HKCR\n{\n  Key = s 'x'\n", "line 3: the script ends where '}' was expected"},
        {"HKXX\n{\n}\n", "line 1: unknown root key 'HKXX'"},
        {"HKCR\n{\n  Key = s '%UNKNOWN%'\n}\n", "line 3: no replacement is given for %UNKNOWN%"},
        {"HKCR\n{\n  Key = d 'twelve'\n}\n", "line 3: bad number 'twelve'"},
        {"HKCR\n{\n  Key\n  {\n    val = s 'x'\n  }\n}\n", "line 5: expected a value name but found '='"},
        {"HKCR\n{\n  Key = s unquoted\n}\n", "line 3: string data must be quoted"},
        {"HKCR\n{\n  A\\B = s 'x'\n}\n", "line 3: a key name holds no '\\'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.script);
        EXPECT_EQ(VornRegistrarRunScriptA(c.script, nullptr, TRUE), DISP_E_EXCEPTION);
        EXPECT_THAT(LastErrorText(), HasSubstr(c.message));
        EXPECT_EQ(VornRegistrarRunScriptA(c.script, nullptr, FALSE), DISP_E_EXCEPTION);
        EXPECT_EQ(registry.Text(), before);
    }
    const VORN_REGMAP_ENTRY twoLines[] = {{"V", "a\nb"}, {nullptr, nullptr}};
    EXPECT_EQ(VornRegistrarRunScriptA("HKCR\n{\n  K = s '%V%'\n}\n", twoLines, TRUE), DISP_E_EXCEPTION);
    EXPECT_THAT(LastErrorText(), HasSubstr("line 3: the replacement for %V% holds a line break"));
    EXPECT_EQ(VornRegistrarRunScriptA(nullptr, nullptr, TRUE), E_INVALIDARG);
}

TEST(Registrar, DamagedRegistryFailsWithoutWriting) {
    ScopedRegistry registry;
    registry.Write("Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\X]\nbroken line\n");
    const std::string before = registry.Text();
    EXPECT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), REGDB_E_READREGDB);
    EXPECT_THAT(LastErrorText(), HasSubstr(":3:"));
    EXPECT_EQ(VornRegistrarRunScriptA(kScript, kMap, FALSE), REGDB_E_READREGDB);
    EXPECT_EQ(registry.Text(), before);
}

TEST(Registrar, RunsTheScriptResourceOfAModule) {
    ScopedRegistry registry;
    HMODULE module = LoadLibraryA(VORN_TEST_PLUGIN);
    ASSERT_NE(module, nullptr);
    const VORN_REGMAP_ENTRY map[] = {{"WHERE", "a resource"}, {nullptr, nullptr}};
    ASSERT_EQ(VornRegistrarRunResourceA(module, MAKEINTRESOURCE(101), map, TRUE), S_OK) << LastErrorText();
    EXPECT_EQ(String("Vorn.Plugin.Test", nullptr), "Loaded from a resource");
    ASSERT_EQ(VornRegistrarRunResourceA(module, MAKEINTRESOURCE(101), map, FALSE), S_OK);
    EXPECT_FALSE(KeyExists("Vorn.Plugin.Test"));
    EXPECT_EQ(VornRegistrarRunResourceA(module, MAKEINTRESOURCE(102), map, TRUE),
              HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND));
    FreeLibrary(module);
}

}  // namespace
