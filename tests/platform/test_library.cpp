// The module loader: loading, exports, reference counts and unloading of a
// test module, and the errors for missing or unusable modules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/test_util.h"

using ::testing::HasSubstr;
using vorn::test::LastErrorText;

namespace {

const char* const kPlugin = VORN_TEST_PLUGIN;

bool PluginLoaded() { return GetModuleHandleA(kPlugin) != nullptr; }

TEST(Library, LoadsResolvesOwnExportsAndUnloadsWithTheLastReference) {
    ASSERT_FALSE(PluginLoaded());
    HMODULE module = LoadLibraryA(kPlugin);
    ASSERT_NE(module, nullptr) << LastErrorText();
    EXPECT_EQ(LoadLibraryA(kPlugin), module);
    char path[1024];
    ASSERT_EQ(GetModuleFileNameA(module, path, sizeof path), std::strlen(kPlugin));
    EXPECT_STREQ(path, kPlugin);
    EXPECT_LAST_ERROR(GetModuleFileNameA(module, path, 8), 8u, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(path), std::string(kPlugin, 7)) << "truncated and terminated";
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
    const std::string text = std::string(VORN_TEST_RESOURCES) + "/plugin.reg";
    EXPECT_LAST_ERROR(LoadLibraryA(text.c_str()), nullptr, ERROR_BAD_EXE_FORMAT);
    EXPECT_THAT(LastErrorText(), HasSubstr("plugin.reg"));
    EXPECT_LAST_ERROR(LoadLibraryA(nullptr), nullptr, ERROR_INVALID_PARAMETER);
    int local = 0;
    HMODULE none = nullptr;
    EXPECT_LAST_ERROR(
        GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(&local), &none), FALSE,
        ERROR_MOD_NOT_FOUND);
    EXPECT_LAST_ERROR(GetProcAddress(reinterpret_cast<HMODULE>(&local), "x"), nullptr, ERROR_MOD_NOT_FOUND);
    char path[8];
    EXPECT_LAST_ERROR(GetModuleFileNameA(reinterpret_cast<HMODULE>(&local), path, 8), 0u, ERROR_MOD_NOT_FOUND);
}

}  // namespace
