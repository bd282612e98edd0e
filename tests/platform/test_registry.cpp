// The registry (values read with RegGetValueA; the file the registrar writes,
// its damaged forms and mode; processes changing it at once) and the
// registrar (registering and unregistering scripts, errors, transactions,
// scripts held by modules). The scripts are resources of this executable.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

constexpr char kHeader[] = "Windows Registry Editor Version 5.00\n";
constexpr char kClasses[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes";

// Runs the script resource `name` of this executable.
HRESULT RunScript(const char* name, const std::vector<VORN_REGMAP_ENTRY>& map = {}, BOOL registering = TRUE) {
    std::vector<VORN_REGMAP_ENTRY> entries = map;
    entries.push_back({nullptr, nullptr});
    return VornRegistrarRunResourceA(nullptr, name, entries.data(), registering);
}

// A change of the registry through the registrar (which rewrites the file).
HRESULT Change(const char* value) { return RunScript("CHANGE", {{"VALUE", value}}); }

// A string value of one of `types`, or "<error N>".
std::string QueryString(HKEY key, const char* subKey, const char* name, DWORD types = RRF_RT_REG_SZ) {
    char buf[256] = {};
    DWORD size = sizeof buf;
    LSTATUS s = RegGetValueA(key, subKey, name, types, nullptr, buf, &size);
    return s == ERROR_SUCCESS ? std::string(buf) : "<error " + std::to_string(s) + ">";
}

// RegGetValueA's answer for a value, read without a buffer.
LSTATUS Status(HKEY key, const char* subKey, const char* name, DWORD types = RRF_RT_ANY) {
    return RegGetValueA(key, subKey, name, types, nullptr, nullptr, nullptr);
}

// A value as "type:bytes in hex" ("4:10000000" is REG_DWORD 16), or "<error N>".
std::string QueryRaw(HKEY key, const char* subKey, const char* name) {
    unsigned char buf[512];
    DWORD type = 0, size = sizeof buf;
    const LSTATUS s = RegGetValueA(key, subKey, name, RRF_RT_ANY, &type, buf, &size);
    if (s != ERROR_SUCCESS) return "<error " + std::to_string(s) + ">";
    std::string text = std::to_string(type) + ":";
    char hex[3];
    for (DWORD i = 0; i < size; ++i) text.append(hex, std::snprintf(hex, sizeof hex, "%02x", buf[i]));
    return text;
}

class Registry : public ::testing::Test {
protected:
    ScopedRegistry registry_;
};

TEST_F(Registry, ValuesRoundTripThroughTheFile) {
    const std::string label = std::string("Gr\xC3\xBC\xC3\x9F") + "e \"quoted\" \\path";
    ASSERT_EQ(RunScript("VALUES", {{"LABEL", label.c_str()}}), S_OK) << LastErrorText();

    // Sizes count UTF-8 bytes with the terminator; a small buffer gets
    // ERROR_MORE_DATA and the size needed. Names fold ASCII letter case.
    const char* key = "software\\ZELMWERK\\tuning";
    DWORD type = 0, size = 0;
    ASSERT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, key, "label", RRF_RT_ANY, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 23u);
    char small[4];
    size = sizeof small;
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, key, "Label", RRF_RT_ANY, nullptr, small, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 23u);
    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, key, "Label"), label);
    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, key, nullptr), "default text");
    EXPECT_EQ(QueryRaw(HKEY_LOCAL_MACHINE, key, "Count"), "4:d0c0b0a0");
    EXPECT_EQ(QueryRaw(HKEY_LOCAL_MACHINE, key, "Blob"), "3:0102ff");
    EXPECT_EQ(Status(HKEY_LOCAL_MACHINE, key, "Count", RRF_RT_REG_SZ), ERROR_UNSUPPORTED_TYPE);
    EXPECT_EQ(Status(HKEY_LOCAL_MACHINE, key, "Missing"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, key, "Count", RRF_RT_ANY, nullptr, small, nullptr),
              ERROR_INVALID_PARAMETER);

    // The file holds every value in the export format, the key names with the
    // case they were created with.
    const std::string text = registry_.Text();
    EXPECT_EQ(text.rfind(kHeader, 0), 0u);
    EXPECT_THAT(text, HasSubstr("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\Tuning]\n"
                                "@=\"default text\"\n"
                                "\"Label\"=\"Gr\xC3\xBC\xC3\x9F"
                                "e \\\"quoted\\\" \\\\path\"\n"
                                "\"Count\"=dword:a0b0c0d0\n"
                                "\"Blob\"=hex:01,02,ff\n"));
}

TEST_F(Registry, ClassesRootIsTheMachineClassesKeyAndSubkeysAreOrderedByName) {
    registry_.Write(std::string(kHeader) +
                    "[HKEY_CLASSES_ROOT\\Zelmwerk.Test\\CLSID]\n@=\"{00000000-0000-0000-0000-000000000001}\"\n"
                    "[HKEY_CURRENT_USER\\Software\\Order\\beta]\n[HKEY_CURRENT_USER\\Software\\Order\\Alpha]\n"
                    "[HKEY_CURRENT_USER\\Software\\Order\\gamma]\n");
    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, "SOFTWARE\\Classes\\Zelmwerk.Test\\CLSID", nullptr),
              "{00000000-0000-0000-0000-000000000001}");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "ZELMWERK.TEST\\clsid", nullptr),
              "{00000000-0000-0000-0000-000000000001}");
    ASSERT_EQ(Change("1"), S_OK);
    EXPECT_THAT(registry_.Text(), HasSubstr("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\Zelmwerk.Test\\CLSID]\n@=\"{"));
    EXPECT_THAT(registry_.Text(), HasSubstr("Order\\Alpha]\n\n[HKEY_CURRENT_USER\\Software\\Order\\beta]\n\n"
                                            "[HKEY_CURRENT_USER\\Software\\Order\\gamma]\n"));
}

TEST_F(Registry, MissingFileIsAnEmptyRegistryAndWritingCreatesItWithTheUmask) {
    EXPECT_EQ(Status(HKEY_CLASSES_ROOT, "CLSID", nullptr), ERROR_FILE_NOT_FOUND);
    // Bad paths and keys, one family.
    for (const char* path : {"\\Lead", "A\\\\B"})
        EXPECT_EQ(Status(HKEY_LOCAL_MACHINE, path, nullptr), ERROR_BAD_PATHNAME);
    EXPECT_EQ(Status(reinterpret_cast<HKEY>(0x1234), "A", nullptr), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(registry_.Exists()) << "reading must not create the file";
    // Written, the file follows the umask, then keeps its mode; what writers
    // killed before their rename left beside it goes.
    namespace fs = std::filesystem;
    const mode_t mask = umask(077);
    ASSERT_EQ(Change("1"), S_OK);
    umask(mask);
    EXPECT_EQ(QueryString(HKEY_CURRENT_USER, "Software\\Changed", nullptr), "1");
    EXPECT_EQ(fs::status(registry_.path()).permissions(), fs::perms(0600));
    fs::permissions(registry_.path(), fs::perms(0640));
    const fs::path dir = fs::path(registry_.path()).parent_path();
    for (const char* name : {".registry.reg.~AbC123", ".other.~AbC123"}) std::ofstream(dir / name) << "half";
    ASSERT_EQ(Change("2"), S_OK);
    EXPECT_EQ(fs::status(registry_.path()).permissions(), fs::perms(0640));
    EXPECT_FALSE(fs::exists(dir / ".registry.reg.~AbC123"));
    EXPECT_TRUE(fs::exists(dir / ".other.~AbC123"));
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
        EXPECT_EQ(Status(HKEY_LOCAL_MACHINE, "A", "n"), ERROR_BADDB);
        EXPECT_THAT(LastErrorText(), HasSubstr(c.where));
        EXPECT_THAT(LastErrorText(), HasSubstr(registry_.path()));
        EXPECT_EQ(Change("1"), REGDB_E_READREGDB);
        EXPECT_EQ(RunScript("KEYWORDS", {{"MODULE", "m"}}, FALSE), REGDB_E_READREGDB);
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
    EXPECT_EQ(QueryRaw(HKEY_CLASSES_ROOT, "Ext", "Wrapped"), "2:414200");

    // Rewritten after a change, the file is UTF-8 and reads back the same
    // ("Gone" deleted between the default and "Wrapped").
    ASSERT_EQ(Change("1"), S_OK);
    const std::string rewritten = registry_.Text();
    EXPECT_THAT(rewritten, HasSubstr("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\Ext]\n@=\"d\xC3\xA9"
                                     "faut\"\n"
                                     "\"Wrapped\"=hex(2):41,00,42,00,00,00\n\"Q\"=hex(b):01,00"));
    EXPECT_FALSE(registry_.HasKey("HKEY_LOCAL_MACHINE\\Old"));
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Ext", nullptr),
              "d\xC3\xA9"
              "faut");
}

TEST_F(Registry, OddStringsAndLongDataSurviveTheFile) {
    std::string big = "\"Big\"=hex:";
    for (int i = 0; i < 300; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", i & 0xFF);
        big += (i ? "," : "") + std::string(byte);
    }
    registry_.Write(std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Odd]\n" +
                    "\"NoTerm\"=hex(1):61,00,62,00\n"
                    "\"Lines\"=hex(1):6f,00,6e,00,65,00,0a,00,74,00,77,00,6f,00,00,00\n" +
                    big + "\n\"Empty\"=hex(0):\n");
    ASSERT_EQ(Change("1"), S_OK);
    const std::string text = registry_.Text();
    EXPECT_THAT(text, HasSubstr("\"NoTerm\"=hex(1):61,00,62,00\n"));
    EXPECT_THAT(text, HasSubstr(",\\\n  "));              // long data is wrapped
    EXPECT_EQ(text.find("one\ntwo"), std::string::npos);  // a line break forces hex(1)

    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, "SOFTWARE\\Odd", "NoTerm"), "ab");  // terminated when read
    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, "SOFTWARE\\Odd", "Lines"), "one\ntwo");
    const std::string bigValue = QueryRaw(HKEY_LOCAL_MACHINE, "SOFTWARE\\Odd", "Big");
    EXPECT_EQ(bigValue.size(), 2 + 600u);
    EXPECT_EQ(bigValue.substr(0, 6) + bigValue.substr(598), "3:00012a2b");
    EXPECT_EQ(QueryRaw(HKEY_LOCAL_MACHINE, "SOFTWARE\\Odd", "Empty"), "0:");
}

TEST_F(Registry, NamesTheFileCannotCarryAreRefusedAndOthersAreCarried) {
    ASSERT_EQ(Change("1"), S_OK);
    const std::string before = registry_.Text();
    for (const char* name : {"tab\there", "bell\a", "delete\x7f"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(RunScript("NAMES", {{"KEY", name}, {"VALUE", "v"}}), DISP_E_EXCEPTION);
        EXPECT_EQ(RunScript("NAMES", {{"KEY", "k"}, {"VALUE", name}}), DISP_E_EXCEPTION);
    }
    EXPECT_EQ(registry_.Text(), before);

    // Names with quotes and backslashes (values only) survive the file.
    ASSERT_EQ(RunScript("NAMES", {{"KEY", "]\"[key"}, {"VALUE", "a \"quoted\" \\name"}}), S_OK) << LastErrorText();
    EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, "SOFTWARE\\]\"[key", "a \"quoted\" \\name"), "x");
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
                const std::string name = "P" + std::to_string(p) + "K" + std::to_string(k);
                if (RunScript("RACE", {{"KEY", name.c_str()}}) != S_OK) ++failures;
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
    for (int p = 0; p < kProcesses; ++p) {
        for (int k = 0; k < kKeys; ++k) {
            const std::string name = "P" + std::to_string(p) + "K" + std::to_string(k);
            EXPECT_EQ(QueryString(HKEY_LOCAL_MACHINE, ("SOFTWARE\\Race\\" + name).c_str(), "n"), name);
        }
    }
}

const std::vector<VORN_REGMAP_ENTRY> kMap = {{"MODULE", "/opt/vorn/lib/libthing.so"}};

TEST_F(Registry, RegisteringImportsTheScriptAndUnregisteringRemovesTheKeysItGivesValues) {
    registry_.Write(std::string(kHeader) + "[HKEY_CLASSES_ROOT\\Shared\\Stale\\Deep]\n");

    ASSERT_EQ(RunScript("KEYWORDS", kMap), S_OK) << LastErrorText();
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned", nullptr), "It's mine");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned", "Share"), "100%");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", nullptr), "/opt/vorn/lib/libthing.so");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Model"), "Free");
    EXPECT_EQ(QueryRaw(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Count"), "4:10000000");
    EXPECT_EQ(QueryRaw(HKEY_CLASSES_ROOT, "Shared\\Owned\\Server", "Flags"), "3:0a0b");
    EXPECT_EQ(QueryString(HKEY_CLASSES_ROOT, "Shared\\Plain", nullptr, RRF_RT_REG_EXPAND_SZ), "%PATH%");
    EXPECT_FALSE(registry_.HasKey(std::string(kClasses) + "\\Shared\\Stale"));
    EXPECT_EQ(QueryRaw(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), "4:0c000000");

    // Registering again replaces a key the script deletes first as a whole.
    const std::string foreign = std::string("[") + kClasses + "\\Shared\\Owned\\Foreign]\n";
    registry_.Write(registry_.Text() + foreign);
    ASSERT_EQ(RunScript("KEYWORDS", kMap), S_OK);
    EXPECT_FALSE(registry_.HasKey(std::string(kClasses) + "\\Shared\\Owned\\Foreign"));

    // Unregistering removes the keys the script gives values, with what
    // others put below them, and keeps the keys it only leads through.
    registry_.Write(registry_.Text() + foreign + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\n");
    ASSERT_EQ(RunScript("KEYWORDS", kMap, FALSE), S_OK) << LastErrorText();
    EXPECT_TRUE(registry_.HasKey(std::string(kClasses) + "\\Shared"));
    EXPECT_FALSE(registry_.HasKey(std::string(kClasses) + "\\Shared\\Owned"));
    EXPECT_FALSE(registry_.HasKey(std::string(kClasses) + "\\Shared\\Plain"));
    EXPECT_FALSE(registry_.HasKey("HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk"));
    EXPECT_TRUE(registry_.HasKey("HKEY_LOCAL_MACHINE\\SOFTWARE"));
    // Unregistering what is not there succeeds and changes nothing.
    const std::string before = registry_.Text();
    EXPECT_EQ(RunScript("KEYWORDS", kMap, FALSE), S_OK);
    EXPECT_EQ(registry_.Text(), before);
}

TEST_F(Registry, ATransactionWritesEverythingOrNothing) {
    // The thread sees its changes; the file gets them at the end, or never.
    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    ASSERT_EQ(RunScript("KEYWORDS", kMap), S_OK);
    EXPECT_EQ(QueryRaw(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), "4:0c000000");
    EXPECT_FALSE(registry_.Exists());
    ASSERT_EQ(VornRegistrarEndTransaction(FALSE), S_OK);
    EXPECT_EQ(Status(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(registry_.Exists());

    // An inner transaction that gives up makes the outer one write nothing.
    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    ASSERT_EQ(RunScript("KEYWORDS", kMap), S_OK);
    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    EXPECT_EQ(VornRegistrarEndTransaction(FALSE), S_OK);
    EXPECT_EQ(VornRegistrarEndTransaction(TRUE), E_ABORT);
    EXPECT_FALSE(registry_.Exists());

    ASSERT_EQ(VornRegistrarBeginTransaction(), S_OK);
    ASSERT_EQ(RunScript("KEYWORDS", kMap), S_OK);
    ASSERT_EQ(Change("extra"), S_OK);
    ASSERT_EQ(VornRegistrarEndTransaction(TRUE), S_OK);
    EXPECT_EQ(QueryRaw(HKEY_LOCAL_MACHINE, "SOFTWARE\\Zelmwerk", nullptr), "4:0c000000");
    EXPECT_EQ(QueryString(HKEY_CURRENT_USER, "Software\\Changed", nullptr), "extra");
    EXPECT_EQ(VornRegistrarEndTransaction(TRUE), E_UNEXPECTED);
}

TEST_F(Registry, ScriptErrorsNameTheLineAndChangeNothing) {
    ASSERT_EQ(Change("1"), S_OK);
    const std::string before = registry_.Text();
    EXPECT_EQ(RunScript("BROKEN"), DISP_E_EXCEPTION);
    EXPECT_THAT(LastErrorText(), HasSubstr("registration script:5: unknown value data"));
    EXPECT_EQ(RunScript("BROKEN", {}, FALSE), DISP_E_EXCEPTION);
    EXPECT_EQ(RunScript("CHANGE"), DISP_E_EXCEPTION);
    EXPECT_THAT(LastErrorText(), HasSubstr("registration script:4: no replacement is given for %VALUE%"));
    EXPECT_EQ(Change("a\nb"), DISP_E_EXCEPTION);
    EXPECT_THAT(LastErrorText(), HasSubstr("registration script:4: the replacement for %VALUE% holds a line break"));
    EXPECT_EQ(RunScript("NAMES", {{"KEY", "up\\Other"}, {"VALUE", "v"}}), DISP_E_EXCEPTION);
    EXPECT_THAT(LastErrorText(), HasSubstr("registration script:3: the replacement for %KEY% in a key holds a"));
    EXPECT_EQ(registry_.Text(), before);
}

TEST_F(Registry, RunsTheScriptResourceOfAModule) {
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
