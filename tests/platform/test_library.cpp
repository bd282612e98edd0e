// The module loader and module resources: loading, exports, reference counts
// and unloading of a test module, its embedded resources (from memory and from
// the file without loading it), and the errors for missing or unusable modules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/test_util.h"

using ::testing::HasSubstr;
using vorn::test::LastErrorText;

namespace {

const char* const kPlugin = VORN_TEST_PLUGIN;

std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool PluginLoaded() { return GetModuleHandleA(kPlugin) != nullptr; }

TEST(Library, LoadsResolvesOwnExportsAndUnloadsWithTheLastReference) {
    ASSERT_FALSE(PluginLoaded());
    HMODULE module = LoadLibraryA(kPlugin);
    ASSERT_NE(module, nullptr) << LastErrorText();
    EXPECT_EQ(LoadLibraryA(kPlugin), module);
    char path[1024];
    ASSERT_GT(GetModuleFileNameA(module, path, sizeof path), 0u);
    EXPECT_STREQ(path, kPlugin);
    EXPECT_EQ(GetModuleHandleA(kPlugin), module);
    EXPECT_EQ(GetModuleHandleA("libvorn_test_plugin.so"), module);

    auto answer = reinterpret_cast<int (*)()>(GetProcAddress(module, "VornTestPluginAnswer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    auto* counter = reinterpret_cast<int*>(GetProcAddress(module, "gVornTestPluginCounter"));
    ASSERT_NE(counter, nullptr);
    EXPECT_EQ(*counter, 7);
    // Imported, not exported, by the module: not found through it.
    EXPECT_LAST_ERROR(GetProcAddress(module, "CoTaskMemRealloc"), nullptr, ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(GetProcAddress(module, MAKEINTRESOURCE(1)), nullptr);

    HMODULE fromAddress = nullptr;
    ASSERT_TRUE(
        GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCSTR>(answer), &fromAddress));
    EXPECT_EQ(fromAddress, module);
    // A counted handle keeps the module loaded beyond the LoadLibraryA references.
    ASSERT_TRUE(
        GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(counter), &fromAddress));
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(PluginLoaded());
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_FALSE(PluginLoaded());
    EXPECT_LAST_ERROR(FreeLibrary(module), FALSE, ERROR_MOD_NOT_FOUND);
}

TEST(Library, UnusableModulesFailWithAReason) {
    EXPECT_LAST_ERROR(LoadLibraryA("/nonexistent/dir/libnothing.so"), nullptr, ERROR_MOD_NOT_FOUND);
    EXPECT_THAT(LastErrorText(), HasSubstr("/nonexistent/dir/libnothing.so"));
    EXPECT_LAST_ERROR(LoadLibraryA("libvorn-no-such-module.so"), nullptr, ERROR_MOD_NOT_FOUND);
    const std::string text = std::string(VORN_TEST_RESOURCES) + "/greeting.txt";
    EXPECT_LAST_ERROR(LoadLibraryA(text.c_str()), nullptr, ERROR_BAD_EXE_FORMAT);
    EXPECT_THAT(LastErrorText(), HasSubstr("greeting.txt"));
    EXPECT_LAST_ERROR(LoadLibraryA(nullptr), nullptr, ERROR_INVALID_PARAMETER);
    int local = 0;
    HMODULE none = nullptr;
    EXPECT_LAST_ERROR(
        GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(&local), &none), FALSE,
        ERROR_MOD_NOT_FOUND);
    EXPECT_LAST_ERROR(GetProcAddress(reinterpret_cast<HMODULE>(&local), "x"), nullptr, ERROR_MOD_NOT_FOUND);
}

TEST(Resources, FoundPerModuleByTypeAndName) {
    HMODULE module = LoadLibraryA(kPlugin);
    ASSERT_NE(module, nullptr);
    HRSRC greeting = FindResourceA(module, "greeting", "Text");
    ASSERT_NE(greeting, nullptr);
    const char* text = static_cast<const char*>(LockResource(LoadResource(module, greeting)));
    const std::string expected = FileBytes(std::string(VORN_TEST_RESOURCES) + "/greeting.txt");
    ASSERT_EQ(SizeofResource(module, greeting), expected.size());
    EXPECT_EQ(std::string(text, expected.size()), expected);
    EXPECT_EQ(text[expected.size()], '\0');

    const std::string bytes = FileBytes(std::string(VORN_TEST_RESOURCES) + "/bytes.bin");
    for (LPCSTR name :
         {static_cast<LPCSTR>(MAKEINTRESOURCE(7)), static_cast<LPCSTR>("#7"), static_cast<LPCSTR>("#007")}) {
        HRSRC data = FindResourceA(module, name, RT_RCDATA);
        ASSERT_NE(data, nullptr);
        ASSERT_EQ(SizeofResource(module, data), bytes.size());
        EXPECT_EQ(std::memcmp(LockResource(LoadResource(module, data)), bytes.data(), bytes.size()), 0);
    }
    EXPECT_LAST_ERROR(FindResourceA(module, "Farewell", "TEXT"), nullptr, ERROR_RESOURCE_NAME_NOT_FOUND);
    EXPECT_LAST_ERROR(FindResourceA(module, "Greeting", "ICON"), nullptr, ERROR_RESOURCE_TYPE_NOT_FOUND);
    EXPECT_LAST_ERROR(FindResourceA(module, "", "TEXT"), nullptr, ERROR_INVALID_PARAMETER);

    // Lookups stay within the module asked for: the executable's own resource
    // is not the plugin's, and the runtime has none.
    EXPECT_EQ(FindResourceA(module, "Exe", "TEXT"), nullptr);
    HRSRC exe = FindResourceA(nullptr, "exe", "TEXT");
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(
        std::string(static_cast<const char*>(LockResource(LoadResource(nullptr, exe))), SizeofResource(nullptr, exe)),
        "Executable resource text");
    HMODULE runtime = nullptr;
    ASSERT_TRUE(
        GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCSTR>(&CoTaskMemRealloc), &runtime));
    EXPECT_LAST_ERROR(FindResourceA(runtime, "Greeting", "TEXT"), nullptr, ERROR_RESOURCE_DATA_NOT_FOUND);
    FreeLibrary(module);
}

TEST(Resources, ReadFromAModuleFileWithoutLoadingIt) {
    void* data = nullptr;
    DWORD size = 0;
    ASSERT_EQ(VornReadResourceFromFileA(kPlugin, MAKEINTRESOURCE(7), RT_RCDATA, &data, &size), S_OK);
    EXPECT_FALSE(PluginLoaded());
    const std::string bytes = FileBytes(std::string(VORN_TEST_RESOURCES) + "/bytes.bin");
    ASSERT_EQ(size, bytes.size());
    EXPECT_EQ(std::memcmp(data, bytes.data(), size), 0);
    CoTaskMemFree(data);
    ASSERT_EQ(VornReadResourceFromFileA(kPlugin, "GREETING", "text", &data, &size), S_OK);
    EXPECT_STREQ(static_cast<const char*>(data), "Hello from the plugin.\n");
    CoTaskMemFree(data);

    EXPECT_EQ(VornReadResourceFromFileA(kPlugin, "Nothing", "TEXT", &data, &size),
              HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(VornReadResourceFromFileA("/nonexistent/module.so", "A", "B", &data, &size),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    const std::string text = std::string(VORN_TEST_RESOURCES) + "/greeting.txt";
    EXPECT_EQ(VornReadResourceFromFileA(text.c_str(), "A", "B", &data, &size),
              HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT));
    EXPECT_THAT(LastErrorText(), HasSubstr("greeting.txt"));
}

}  // namespace
