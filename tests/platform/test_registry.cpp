// The registry: keys and values through the Reg* functions, the registry file
// they keep (its text, its damaged forms, its directory), two processes
// changing it at once; and the registrar: what registering and unregistering
// a script does to the registry (the keywords, values and replacements),
// scripts with errors, and scripts held as module resources.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/test_util.h"
#include "support/ScopedRegistry.h"
#include "vorn/rt/registrar.h"

using ::testing::HasSubstr;
using vorn::test::LastErrorText;

namespace {

HKEY Create(HKEY parent, const char* path, DWORD* disposition = nullptr) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(parent, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, disposition), ERROR_SUCCESS);
    return key;
}

bool KeyExists(HKEY root, const char* path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

// The key's numbers of subkeys and values and its longest subkey name (~0u
// each when the query fails).
std::array<DWORD, 3> Info(HKEY key) {
    DWORD subKeys = ~0u, values = ~0u, maxSubKey = ~0u;
    EXPECT_EQ(RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, &maxSubKey, nullptr, &values, nullptr, nullptr,
                               nullptr, nullptr),
              ERROR_SUCCESS);
    return {subKeys, values, maxSubKey};
}

LSTATUS SetString(HKEY key, const char* name, const char* text) {
    return RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text),
                          static_cast<DWORD>(std::strlen(text) + 1));
}

// A string value of one of `types`, or "<error N>".
std::string QueryString(HKEY key, const char* subKey, const char* name, DWORD types = RRF_RT_REG_SZ) {
    char buf[256] = {};
    DWORD size = sizeof buf;
    LSTATUS s = RegGetValueA(key, subKey, name, types, nullptr, buf, &size);
    return s == ERROR_SUCCESS ? std::string(buf) : "<error " + std::to_string(s) + ">";
}

// A value's type and bytes as RegGetValueA gives them; type ~0u on failure.
std::pair<DWORD, std::string> QueryRaw(HKEY key, const char* subKey, const char* name) {
    char buf[512];
    DWORD type = ~0u, size = sizeof buf;
    if (RegGetValueA(key, subKey, name, RRF_RT_ANY, &type, buf, &size) != ERROR_SUCCESS) return {~0u, {}};
    return {type, std::string(buf, size)};
}

// A REG_DWORD value, or ~0u.
DWORD QueryDword(HKEY key, const char* subKey, const char* name) {
    DWORD value = ~0u, size = sizeof value;
    EXPECT_EQ(RegGetValueA(key, subKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size), ERROR_SUCCESS) << name;
    return value;
}

class Registry : public ::testing::Test {
protected:
    ScopedRegistry registry_;
};

TEST_F(Registry, ValuesRoundTripInBothCharacterForms) {
    DWORD disposition = 0;
    HKEY key = Create(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk\\Tuning", &disposition);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    ASSERT_EQ(SetString(key, nullptr, "default text"), ERROR_SUCCESS);
    const std::string label = std::string("Gr\xC3\xBC\xC3\x9F") + "e \"quoted\" \\path";
    ASSERT_EQ(SetString(key, "Label", label.c_str()), ERROR_SUCCESS);
    const DWORD dword = 0xA0B0C0D0;
    ASSERT_EQ(RegSetValueExA(key, "Count", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dword), 4), ERROR_SUCCESS);
    const BYTE blob[3] = {1, 2, 0xFF};
    ASSERT_EQ(RegSetValueExA(key, "Blob", 0, REG_BINARY, blob, 3), ERROR_SUCCESS);
    const char16_t multi[] = u"one\0two\0";
    ASSERT_EQ(RegSetValueExW(key, u"List", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(multi), sizeof multi),
              ERROR_SUCCESS);
    RegCloseKey(key);

    // Sizes: the A form counts UTF-8 bytes, the W form UTF-16 bytes, both with
    // the terminator; a small buffer gets ERROR_MORE_DATA and the size needed.
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "software\\ZELMWERK\\tuning", 0, KEY_READ, &key), ERROR_SUCCESS);
    DWORD type = 0, size = 0;
    ASSERT_EQ(RegQueryValueExA(key, "label", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 23u);
    ASSERT_EQ(RegQueryValueExW(key, u"LABEL", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 21u * 2);
    char small[4];
    size = sizeof small;
    EXPECT_EQ(RegQueryValueExA(key, "Label", nullptr, nullptr, reinterpret_cast<BYTE*>(small), &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 23u);
    EXPECT_EQ(QueryString(key, nullptr, "Label"), label);
    EXPECT_EQ(QueryString(key, nullptr, ""), "default text");
    DWORD readBack = 0;
    size = sizeof readBack;
    EXPECT_EQ(RegQueryValueExA(key, "Count", nullptr, &type, reinterpret_cast<BYTE*>(&readBack), &size), ERROR_SUCCESS);
    EXPECT_EQ(readBack, dword);
    char16_t wide[16] = {};
    size = sizeof wide;
    EXPECT_EQ(RegQueryValueExW(key, u"List", nullptr, &type, reinterpret_cast<BYTE*>(wide), &size), ERROR_SUCCESS);
    EXPECT_EQ(size, sizeof multi);
    EXPECT_EQ(std::u16string(wide, 9), std::u16string(multi, 9));
    EXPECT_EQ(RegQueryValueExA(key, "Missing", nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExA(key, "Count", nullptr, nullptr, reinterpret_cast<BYTE*>(&readBack), nullptr),
              ERROR_INVALID_PARAMETER);
    // A key opened for reading refuses changes.
    EXPECT_EQ(SetString(key, "X", "y"), ERROR_ACCESS_DENIED);
    RegCloseKey(key);

    // The file holds every value in the export format, the key names with the
    // case they were created with.
    const std::string text = registry_.Text();
    EXPECT_EQ(text.rfind("Windows Registry Editor Version 5.00\n", 0), 0u);
    EXPECT_THAT(text, HasSubstr("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\Tuning]\n"
                                "@=\"default text\"\n"
                                "\"Label\"=\"Gr\xC3\xBC\xC3\x9F"
                                "e \\\"quoted\\\" \\\\path\"\n"
                                "\"Count\"=dword:a0b0c0d0\n"
                                "\"Blob\"=hex:01,02,ff\n"
                                "\"List\"=hex(7):6f,00,6e,00,65,00,00,00,74,00,77,00,6f,00,00,00,00,00\n"));
}

TEST_F(Registry, ClassesRootIsTheMachineClassesKey) {
    HKEY key = Create(HKEY_CLASSES_ROOT, "Zelmwerk.Test\\CLSID");
    ASSERT_EQ(SetString(key, nullptr, "{00000000-0000-0000-0000-000000000001}"), ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, "SOFTWARE\\Classes\\Zelmwerk.Test\\CLSID", nullptr),
              "{00000000-0000-0000-0000-000000000001}");
    EXPECT_THAT(registry_.Text(), HasSubstr("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\Zelmwerk.Test\\CLSID]\n@=\"{"));
    // The same name in another case is the same key, and keeps its first spelling.
    DWORD disposition = 0;
    RegCloseKey(Create(HKEY_CLASSES_ROOT, "ZELMWERK.TEST", &disposition));
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    char name[64];
    DWORD length = sizeof name;
    ASSERT_EQ(RegEnumKeyExA(HKEY_CLASSES_ROOT, 0, name, &length, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_STREQ(name, "Zelmwerk.Test");
    EXPECT_EQ(length, 13u);
}

TEST_F(Registry, EnumerationOrderAndBufferSizes) {
    HKEY root = Create(HKEY_CURRENT_USER, "Software\\Order");
    for (const char* name : {"beta", "Alpha", "gamma"}) RegCloseKey(Create(root, name));
    for (const char* name : {"z", "a", "m"}) SetString(root, name, name);
    std::vector<std::string> keys, values;
    char name[32];
    DWORD length = sizeof name;
    LSTATUS s;
    for (DWORD i = 0; (s = RegEnumKeyExA(root, i, name, &length, nullptr, nullptr, nullptr, nullptr)) == 0;
         ++i, length = sizeof name)
        keys.emplace_back(name);
    EXPECT_EQ(s, ERROR_NO_MORE_ITEMS);
    length = sizeof name;
    for (DWORD i = 0; (s = RegEnumValueA(root, i, name, &length, nullptr, nullptr, nullptr, nullptr)) == 0;
         ++i, length = sizeof name)
        values.emplace_back(name);
    EXPECT_EQ(s, ERROR_NO_MORE_ITEMS);
    EXPECT_EQ(keys, (std::vector<std::string>{"Alpha", "beta", "gamma"}));  // by name, case folded
    EXPECT_EQ(values, (std::vector<std::string>{"z", "a", "m"}));           // in the order written
    length = 4;
    EXPECT_EQ(RegEnumKeyExA(root, 0, name, &length, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    char16_t wideName[8];
    length = 8;
    ASSERT_EQ(RegEnumKeyExW(root, 2, wideName, &length, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(wideName), u"gamma");
    EXPECT_EQ(Info(root), (std::array<DWORD, 3>{3, 3, 5}));
    RegCloseKey(root);
}

TEST_F(Registry, DeletingKeysAndValuesAndStaleHandles) {
    HKEY parent = Create(HKEY_LOCAL_MACHINE, "SOFTWARE\\Del");
    HKEY child = Create(parent, "Child\\Grandchild");
    SetString(child, "v", "1");
    EXPECT_EQ(RegDeleteKeyA(parent, "Child"), ERROR_ACCESS_DENIED);  // it has a subkey
    EXPECT_EQ(RegDeleteKeyA(parent, "Nothing"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyA(parent, ""), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegDeleteValueA(child, "v"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueA(child, "v"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteTreeA(parent, "Child"), ERROR_SUCCESS);
    // The handle outlives its key: every use now fails with ERROR_KEY_DELETED.
    EXPECT_EQ(SetString(child, "v", "2"), ERROR_KEY_DELETED);
    EXPECT_EQ(RegQueryValueExA(child, "v", nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
    EXPECT_EQ(RegCloseKey(child), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(child), ERROR_INVALID_HANDLE);
    EXPECT_EQ(SetString(child, "v", "3"), ERROR_INVALID_HANDLE);
    // A tree delete without a subkey empties the key itself.
    RegCloseKey(Create(parent, "A\\B"));
    SetString(parent, "kept?", "no");
    EXPECT_EQ(RegDeleteTreeA(parent, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(Info(parent), (std::array<DWORD, 3>{0, 0, 0}));
    RegCloseKey(parent);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Del\\A", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(key, nullptr);
}

TEST_F(Registry, BadPathsAndArguments) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "\\Lead", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_BAD_PATHNAME);
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "A\\\\B", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_BAD_PATHNAME);
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "A", 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key,
                              nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegOpenKeyExA(reinterpret_cast<HKEY>(0x1234), "A", 0, KEY_READ, &key), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(registry_.Exists()) << "failed calls must not create the file";
}

TEST_F(Registry, MissingFileIsAnEmptyRegistryAndWritingCreatesIt) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "CLSID", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Info(HKEY_CLASSES_ROOT)[0], 0u);
    EXPECT_FALSE(registry_.Exists()) << "reading must not create the file";
    RegCloseKey(Create(HKEY_CLASSES_ROOT, "CLSID"));
    EXPECT_TRUE(registry_.Exists());
    char path[512];
    ASSERT_GT(VornGetRegistryPathA(path, sizeof path), 0u);
    EXPECT_EQ(path, registry_.path());
}

TEST_F(Registry, DamagedFileFailsAndIsNeverOverwritten) {
    struct Case {
        const char* text;
        const char* where;
    };
    const Case cases[] = {
        {"", "the file is empty"},
        {"\n  \n", "the file is empty"},
        {"REGEDIT9\n", ":1: expected the header line"},
        {"Windows Registry Editor Version 5.00\n\n\"orphan\"=\"x\"\n", ":3: a value line must follow"},
        {"Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\A]\n\"n\"=dword:xyz\n", ":3: bad hex digit"},
        {"Windows Registry Editor Version 5.00\n[HKEY_NOWHERE\\A]\n", ":2: unknown root key"},
        {"Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\A]\n\"n\"=\"open\n", ":3: missing closing"},
        {"Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\A]\n\"n\"=hex:01,\\\n", ":3: hex data continues"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        registry_.Write(c.text);
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "A", 0, KEY_READ, &key), ERROR_BADDB);
        EXPECT_THAT(LastErrorText(), HasSubstr(c.where));
        EXPECT_THAT(LastErrorText(), HasSubstr(registry_.path()));
        EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "B", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
                  ERROR_BADDB);
        EXPECT_EQ(SetString(HKEY_LOCAL_MACHINE, "v", "x"), ERROR_BADDB);
        EXPECT_EQ(registry_.Text(), c.text) << "a damaged file must be left as it was";
    }
}

TEST_F(Registry, ReadsWhatOtherToolsWrite) {
    // UTF-16 with a byte-order mark and CRLF, as the Windows export tool writes,
    // with comments, a repeated section, hex continuation lines and the
    // deletion forms.
    const std::u16string text =
        u"\uFEFFWindows Registry Editor Version 5.00\r\n\r\n; a comment\r\n"
        u"[HKEY_CLASSES_ROOT\\Ext]\r\n@=\"d\u00e9faut\"\r\n\"Gone\"=\"x\"\r\n"
        u"\"Wrapped\"=hex(2):41,00,\\\r\n  42,00,00,00\r\n"
        u"[HKEY_LOCAL_MACHINE\\Old\\Sub]\r\n[-HKEY_LOCAL_MACHINE\\Old]\r\n"
        u"[HKEY_CLASSES_ROOT\\Ext]\r\n\"Gone\"=-\r\n\"Q\"=hex(b):01,00,00,00,00,00,00,00\r\n";
    std::string bytes;
    for (char16_t c : text) {
        bytes.push_back(static_cast<char>(c & 0xFF));
        bytes.push_back(static_cast<char>(c >> 8));
    }
    registry_.Write(bytes);
    const std::string defaultText = std::string("d\xC3\xA9") + "faut";
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Ext", nullptr), defaultText);
    EXPECT_EQ(QueryRaw(HKEY_CLASSES_ROOT, "Ext", "Wrapped"),
              std::make_pair(DWORD{REG_EXPAND_SZ}, std::string("AB", 3)));
    EXPECT_EQ(RegGetValueA(HKEY_CLASSES_ROOT, "Ext", "Gone", RRF_RT_ANY, nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegGetValueA(HKEY_CLASSES_ROOT, "Ext", "Q", RRF_RT_REG_SZ, nullptr, nullptr, nullptr),
              ERROR_UNSUPPORTED_TYPE);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, "Old"));

    // Rewritten after a change, the file is UTF-8 and reads back the same.
    ASSERT_EQ(SetString(HKEY_CLASSES_ROOT, "Added", "1"), ERROR_SUCCESS);
    const std::string rewritten = registry_.Text();
    EXPECT_THAT(rewritten, HasSubstr("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\Ext]\n@=\"d\xC3\xA9"
                                     "faut\"\n"
                                     "\"Wrapped\"=hex(2):41,00,42,00,00,00\n\"Q\"=hex(b):01,00"));
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Ext", nullptr), defaultText);
}

TEST_F(Registry, OddStringsAndLongDataSurviveTheFile) {
    HKEY key = Create(HKEY_LOCAL_MACHINE, "SOFTWARE\\Odd");
    const BYTE unterminated[] = {'a', 0, 'b', 0};
    ASSERT_EQ(RegSetValueExW(key, u"NoTerm", 0, REG_SZ, unterminated, sizeof unterminated), ERROR_SUCCESS);
    ASSERT_EQ(SetString(key, "Lines", "one\ntwo"), ERROR_SUCCESS);
    std::vector<BYTE> big(300);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<BYTE>(i);
    ASSERT_EQ(RegSetValueExA(key, "Big", 0, REG_BINARY, big.data(), static_cast<DWORD>(big.size())), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExA(key, "Empty", 0, REG_NONE, nullptr, 0), ERROR_SUCCESS);
    RegCloseKey(key);
    const std::string text = registry_.Text();
    EXPECT_THAT(text, HasSubstr("\"NoTerm\"=hex(1):61,00,62,00\n"));
    EXPECT_THAT(text, HasSubstr(",\\\n  "));              // long data is wrapped
    EXPECT_EQ(text.find("one\ntwo"), std::string::npos);  // a line break forces hex(1)

    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Odd", 0, KEY_READ, &key), ERROR_SUCCESS);
    BYTE data[400];
    DWORD size = sizeof data, type = 0;
    ASSERT_EQ(RegQueryValueExW(key, u"NoTerm", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, sizeof unterminated);
    size = sizeof data;
    ASSERT_EQ(RegQueryValueExA(key, "Big", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(std::vector<BYTE>(data, data + size), big);
    EXPECT_EQ(QueryString(key, nullptr, "Lines"), "one\ntwo");
    size = sizeof data;
    ASSERT_EQ(RegQueryValueExA(key, "Empty", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_NONE);
    EXPECT_EQ(size, 0u);
    RegCloseKey(key);
}

TEST_F(Registry, NamesTheFileCannotCarryAreRefusedAndDataOfAnyKindIsCarried) {
    HKEY key = Create(HKEY_LOCAL_MACHINE, "SOFTWARE\\Names");
    const std::string before = registry_.Text();
    HKEY created = nullptr;
    for (const char* name : {"line\nfeed", "carriage\rreturn", "tab\there", "bell\a", "delete\x7f"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(RegCreateKeyExA(key, name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &created, nullptr),
                  ERROR_INVALID_PARAMETER);
        EXPECT_EQ(RegCreateKeyExA(key, (std::string("sub\\") + name).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                  &created, nullptr),
                  ERROR_INVALID_PARAMETER);
        EXPECT_EQ(SetString(key, name, "x"), ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(RegCreateKeyExW(key, u"a\nb", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &created, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegSetValueExW(key, u"a\nb", 0, REG_SZ, reinterpret_cast<const BYTE*>(u"x"), 4), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(VornRegistrarRunScriptA("HKCR\n{\n  'a\x01b' = s 'x'\n}\n", nullptr, TRUE), DISP_E_EXCEPTION);
    EXPECT_EQ(VornRegistrarRunScriptA("HKCR\n{\n  K\n  {\n    val 'a\x01b' = s 'x'\n  }\n}\n", nullptr, TRUE),
              DISP_E_EXCEPTION);
    EXPECT_EQ(registry_.Text(), before);

    // Names with quotes and backslashes, and string data with line breaks,
    // quotes and backslashes, survive the file.
    const std::string text = "quote\" back\\slash\nline\r\nend\\";
    ASSERT_EQ(SetString(key, "a \"quoted\" \\name", text.c_str()), ERROR_SUCCESS);
    RegCloseKey(Create(key, "]\"[key"));
    EXPECT_EQ(QueryString(key, nullptr, "a \"quoted\" \\name"), text);
    EXPECT_TRUE(KeyExists(key, "]\"[key"));
    RegCloseKey(key);
}

TEST_F(Registry, TheFileFollowsTheUmaskKeepsItsModeAndLosesStaleTemporaryFiles) {
    namespace fs = std::filesystem;
    const mode_t mask = umask(077);
    RegCloseKey(Create(HKEY_CURRENT_USER, "Software\\Mode"));
    umask(mask);
    EXPECT_EQ(fs::status(registry_.path()).permissions(), fs::perms(0600));
    fs::permissions(registry_.path(), fs::perms(0640));
    // What writers killed before their rename left beside the file.
    const fs::path dir = fs::path(registry_.path()).parent_path();
    for (const char* name : {".registry.reg.~AbC123", ".other.~AbC123"}) std::ofstream(dir / name) << "half";
    RegCloseKey(Create(HKEY_CURRENT_USER, "Software\\Mode\\Again"));
    EXPECT_EQ(fs::status(registry_.path()).permissions(), fs::perms(0640));
    EXPECT_FALSE(fs::exists(dir / ".registry.reg.~AbC123"));
    EXPECT_TRUE(fs::exists(dir / ".other.~AbC123"));
}

TEST_F(Registry, ProcessesChangingTheFileAtOnceLoseNothing) {
    constexpr int kProcesses = 4;
    constexpr int kKeys = 20;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int failures = 0;
            for (int k = 0; k < kKeys; ++k) {
                const std::string name = "SOFTWARE\\Race\\P" + std::to_string(p) + "K" + std::to_string(k);
                HKEY key = nullptr;
                if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                                    nullptr) != ERROR_SUCCESS ||
                    SetString(key, "n", name.c_str()) != ERROR_SUCCESS)
                    ++failures;
                RegCloseKey(key);
            }
            _exit(failures);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    HKEY race = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Race", 0, KEY_READ, &race), ERROR_SUCCESS);
    EXPECT_EQ(Info(race)[0], DWORD(kProcesses * kKeys));
    EXPECT_EQ(QueryString(race, "P3K19", "n"), "SOFTWARE\\Race\\P3K19");
    RegCloseKey(race);
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
    RegCloseKey(Create(HKEY_CLASSES_ROOT, "Shared\\Stale\\Deep"));

    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK) << LastErrorText();
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned", nullptr), "It's mine");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", nullptr), "/opt/vorn/lib/libthing.so");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Model"), "Free");
    EXPECT_EQ(QueryDword(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Count"), 16u);
    EXPECT_EQ(QueryRaw(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Flags"),
              std::make_pair(DWORD{REG_BINARY}, std::string("\x0A\x0B", 2)));
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Plain", nullptr, RRF_RT_REG_EXPAND_SZ), "%PATH%");
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, "Shared\\Stale"));
    EXPECT_EQ(QueryDword(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), 12u);

    // Registering again replaces a ForceRemove key as a whole.
    RegCloseKey(Create(HKEY_CLASSES_ROOT, "Shared\\Owned\\Foreign"));
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK);
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, "Shared\\Owned\\Foreign"));

    // Unregistering keeps NoRemove keys, removes ForceRemove keys with what
    // others put below them, and keeps a plain key that still has subkeys.
    RegCloseKey(Create(HKEY_CLASSES_ROOT, "Shared\\Owned\\Foreign"));
    RegCloseKey(Create(HKEY_LOCAL_MACHINE, "SOFTWARE\\Other"));
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, FALSE), S_OK) << LastErrorText();
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, "Shared"));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, "Shared\\Owned"));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, "Shared\\Plain"));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk"));
    EXPECT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, "SOFTWARE"));
    // Unregistering what is not there succeeds and changes nothing.
    const std::string before = registry.Text();
    EXPECT_EQ(VornRegistrarRunScriptA(kScript, kMap, FALSE), S_OK);
    EXPECT_EQ(registry.Text(), before);
}

TEST(Registrar, ATransactionWritesEverythingOrNothing) {
    ScopedRegistry registry;
    // The thread sees its changes; the file gets them at the end, or never.
    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK);
    EXPECT_EQ(QueryDword(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), 12u);
    EXPECT_FALSE(registry.Exists());
    ASSERT_EQ(VornRegistrarEndTransaction(FALSE), S_OK);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk"));
    EXPECT_FALSE(registry.Exists());

    // An inner transaction that gives up makes the outer one write nothing.
    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK);
    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    EXPECT_EQ(VornRegistrarEndTransaction(FALSE), S_OK);
    EXPECT_EQ(VornRegistrarEndTransaction(TRUE), E_ABORT);
    EXPECT_FALSE(registry.Exists());

    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    ASSERT_EQ(VornRegistrarRunScriptA(kScript, kMap, TRUE), S_OK);
    ASSERT_EQ(SetString(HKEY_CURRENT_USER, "Extra", "1"), ERROR_SUCCESS);
    ASSERT_EQ(VornRegistrarEndTransaction(TRUE), S_OK);
    EXPECT_EQ(QueryDword(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), 12u);
    EXPECT_EQ(QueryString(HKEY_CURRENT_USER, nullptr, "Extra"), "1");
    EXPECT_EQ(VornRegistrarEndTransaction(TRUE), E_UNEXPECTED);
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
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Vorn.Plugin.Test", nullptr), "Loaded from a resource");
    EXPECT_EQ(VornRegistrarRunResourceA(module, MAKEINTRESOURCE(102), map, TRUE),
              HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND));
    FreeLibrary(module);
}

}  // namespace
