// Class activation through the tests' own module: registration with
// vornregsvr (in one step, with a warning for a module anyone may replace),
// creation by program identifier, the class factory's rules, the module lock
// and unloading, and the activation errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "ModuleTestSupport.h"
#include "TestIds.h"
#include "support/ScopedRegistry.h"

using ::testing::HasSubstr;
using ::testing::Not;
using vorn::ComPtr;
using vorn::test::CanUnloadNow;
using vorn::test::CreateInproc;

namespace {

const char* const kModule = VORN_TEST_MODULE;

class Activation : public vorn::test::RegisteredModuleTest {
protected:
    void SetUp() override { Register(kModule); }

    static bool ModuleLoaded() { return GetModuleHandleA(kModule) != nullptr; }
    // Frees unused libraries and tells whether the module stayed loaded.
    static bool KeptAfterFreeing() {
        CoFreeUnusedLibraries();
        return ModuleLoaded();
    }
};

TEST_F(Activation, CreatesByProgIdAndUnloadsWhenUnused) {
    CLSID clsid;
    ASSERT_EQ(CLSIDFromProgID(u"Vorn.TestWidget", &clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_VornTestWidget);
    EXPECT_FALSE(ModuleLoaded());

    ComPtr<IVornTestWidget> widget;
    ASSERT_EQ(CreateInproc(clsid, IID_IVornTestWidget, widget.put_void()), S_OK);
    LONG answer = 0;
    EXPECT_EQ(widget->get_Answer(&answer), S_OK);
    EXPECT_EQ(answer, 42);
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    EXPECT_TRUE(KeptAfterFreeing()) << "a live object keeps its module";

    widget.reset();
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    EXPECT_FALSE(KeptAfterFreeing());

    // Activation loads it again.
    ComPtr<IUnknown> again;
    ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IUnknown, again.put_void()), S_OK);
    again.reset();
    EXPECT_FALSE(KeptAfterFreeing());
}

TEST_F(Activation, LockServerKeepsTheModuleAndTheClassObjectIsCached) {
    ComPtr<IClassFactory> factory = vorn::test::ClassObject(kModule, CLSID_VornTestWidget);
    ASSERT_TRUE(factory);
    EXPECT_EQ(vorn::test::ClassObject(kModule, CLSID_VornTestWidget), factory);
    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    factory.reset();
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    ASSERT_TRUE(KeptAfterFreeing());

    factory = vorn::test::ClassObject(kModule, CLSID_VornTestWidget);
    ASSERT_TRUE(factory);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    factory.reset();
    EXPECT_FALSE(KeptAfterFreeing());
}

TEST_F(Activation, ClassFactoryRefusesBadRequests) {
    ComPtr<IClassFactory> factory = vorn::test::ClassObject(kModule, CLSID_VornTestWidget);
    ASSERT_TRUE(factory);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(CanUnloadNow(kModule), S_OK) << "nothing may have been created";

    int outerStorage = 0;  // never called: the factory only looks at the pointer
    IUnknown* outer = reinterpret_cast<IUnknown*>(&outerStorage);
    void* object = reinterpret_cast<void*>(1);
    EXPECT_EQ(factory->CreateInstance(outer, IID_IVornTestWidget, &object), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(object, nullptr);
    ASSERT_EQ(factory->CreateInstance(outer, IID_IUnknown, &object), S_OK);
    ASSERT_NE(object, nullptr);
    static_cast<IUnknown*>(object)->Release();
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IStream, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(CanUnloadNow(kModule), S_OK) << "a failed query destroys the new object";

    vorn::test::RegisterClassAt(registry_, CLSID_VornTestNoMemory, kModule);
    object = reinterpret_cast<void*>(1);
    EXPECT_EQ(CreateInproc(CLSID_VornTestNoMemory, IID_IUnknown, &object), E_OUTOFMEMORY);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(CreateInproc(CLSID_VornTestWidget, IID_IUnknown, nullptr), E_POINTER);
}

TEST_F(Activation, ErrorsOfActivation) {
    void* object = nullptr;
    const GUID unknown = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    EXPECT_EQ(CreateInproc(unknown, IID_IUnknown, &object), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestWidget, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &object),
              REGDB_E_CLASSNOTREG);
    CLSID clsid;
    EXPECT_EQ(CLSIDFromProgID(u"Vorn.NoSuchThing", &clsid), CO_E_CLASSSTRING);
    EXPECT_EQ(CLSIDFromProgID(u"Vorn.TestWidget\\CLSID", &clsid), CO_E_CLASSSTRING);

    // A class registered for a module that does not serve it, a module path
    // that does not exist, a library without the entry points.
    const struct {
        std::string path;
        HRESULT expected;
    } servers[] = {{std::filesystem::relative(kModule).string(), CO_E_BADPATH},  // never from the working directory
                   {"libvorn_test_module.so", CO_E_BADPATH},
                   {kModule, CLASS_E_CLASSNOTAVAILABLE},
                   {"/nonexistent/libgone.so", HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)},
                   {VORN_RUNTIME, CO_E_ERRORINDLL}};
    for (const auto& server : servers) {
        SCOPED_TRACE(server.path);
        vorn::test::RegisterClassAt(registry_, CLSID_VornTestUnserved, server.path);
        EXPECT_EQ(CreateInproc(CLSID_VornTestUnserved, IID_IUnknown, &object), server.expected);
        if (server.expected == CO_E_BADPATH) {
            EXPECT_FALSE(ModuleLoaded());
        }
        if (server.expected == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)) {
            EXPECT_THAT(vorn::test::LastErrorText(), HasSubstr(server.path));
        }
    }

    // A damaged registry file.
    registry_.Write("Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\\X]\n@=oops\n");
    EXPECT_EQ(CreateInproc(CLSID_VornTestWidget, IID_IUnknown, &object), REGDB_E_READREGDB);
    EXPECT_THAT(vorn::test::LastErrorText(), HasSubstr(":3:"));
    EXPECT_EQ(CLSIDFromProgID(u"Vorn.TestWidget", &clsid), REGDB_E_READREGDB);
    EXPECT_EQ(object, nullptr);
}

TEST(Registration, WarnsOfAModuleEveryUserMayReplace) {
    ScopedRegistry registry;
    const std::filesystem::path open = std::filesystem::path(registry.dir()) / "open";
    std::filesystem::create_directory(open);
    std::filesystem::permissions(open, std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
    const std::string module = (open / "libvorn_test_module.so").string();
    std::filesystem::copy_file(kModule, module);
    vorn::test::ToolResult result = vorn::test::RegisterServer(module);
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("warning: \"" + open.string() + "\" is writable by every user"));
    EXPECT_EQ(vorn::test::ClassesString(
                  ("CLSID\\" + vorn::test::GuidString(CLSID_VornTestWidget) + "\\InprocServer32").c_str()),
              module);
    result = vorn::test::RegisterServer(kModule);
    EXPECT_THAT(result.output, Not(HasSubstr("warning")));
}

TEST(Registration, AFailingStepWritesNothing) {
    // The module lacks its type library: its script runs, the type library
    // step fails, and the registry keeps neither.
    ScopedRegistry registry;
    ASSERT_EQ(vorn::test::RegisterServer(kModule).exitCode, 0);
    const std::string before = registry.Text();
    for (bool unregister : {false, true}) {
        const vorn::test::ToolResult result = vorn::test::RegisterServer(VORN_TEST_MODULE_NO_TYPELIB, unregister);
        EXPECT_EQ(result.exitCode, 5) << result.output;
        EXPECT_EQ(registry.Text(), before) << "unregister " << unregister;
    }
    // Registered, but COM not initialised on this thread.
    void* object = reinterpret_cast<void*>(1);
    EXPECT_EQ(CreateInproc(CLSID_VornTestWidget, IID_IUnknown, &object), CO_E_NOTINITIALIZED);
    EXPECT_EQ(object, nullptr);
}

TEST_F(Activation, ThreadsCreatingAndFreeingAtOnce) {
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            for (int i = 0; i < 50; ++i) {
                ComPtr<IVornTestWidget> widget;
                LONG answer = 0;
                if (FAILED(CreateInproc(CLSID_VornTestWidget, IID_IVornTestWidget, widget.put_void())) ||
                    widget->get_Answer(&answer) != S_OK || answer != 42)
                    ++failures[t];
                widget.reset();
                CoFreeUnusedLibraries();
            }
            CoUninitialize();
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
    EXPECT_FALSE(KeptAfterFreeing());
}

}  // namespace
