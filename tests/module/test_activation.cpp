// Class activation through the tests' own module: registration with
// vornregsvr, creation by program identifier, the class factory's rules, the
// module lock and unloading, and the activation errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "ModuleTestSupport.h"
#include "TestIds.h"
#include "support/ScopedRegistry.h"

using ::testing::HasSubstr;
using vorn::test::CanUnloadNow;

namespace {

const char* const kModule = VORN_TEST_MODULE;

class Activation : public vorn::test::RegisteredModuleTest {
protected:
    void SetUp() override { Register(kModule); }

    static bool ModuleLoaded() { return GetModuleHandleA(kModule) != nullptr; }
};

TEST_F(Activation, CreatesByProgIdAndUnloadsWhenUnused) {
    CLSID clsid;
    ASSERT_EQ(CLSIDFromProgID(u"Vorn.TestWidget", &clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_VornTestWidget);
    EXPECT_FALSE(ModuleLoaded());

    IVornTestWidget* widget = nullptr;
    ASSERT_EQ(
        CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IVornTestWidget, reinterpret_cast<void**>(&widget)),
        S_OK);
    LONG answer = 0;
    EXPECT_EQ(widget->get_Answer(&answer), S_OK);
    EXPECT_EQ(answer, 42);
    EXPECT_TRUE(ModuleLoaded());
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    CoFreeUnusedLibraries();
    EXPECT_TRUE(ModuleLoaded()) << "a live object keeps its module";

    widget->Release();
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    CoFreeUnusedLibraries();
    EXPECT_FALSE(ModuleLoaded());

    // Activation loads it again.
    IUnknown* again = nullptr;
    ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IUnknown, reinterpret_cast<void**>(&again)), S_OK);
    again->Release();
    CoFreeUnusedLibraries();
    EXPECT_FALSE(ModuleLoaded());
}

TEST_F(Activation, LockServerKeepsTheModuleAndTheClassObjectIsCached) {
    IClassFactory* factory = nullptr;
    ASSERT_EQ(CoGetClassObject(CLSID_VornTestWidget, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               reinterpret_cast<void**>(&factory)),
              S_OK);
    IClassFactory* second = nullptr;
    ASSERT_EQ(CoGetClassObject(CLSID_VornTestWidget, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               reinterpret_cast<void**>(&second)),
              S_OK);
    EXPECT_EQ(factory, second);
    second->Release();

    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    factory->Release();
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    CoFreeUnusedLibraries();
    ASSERT_TRUE(ModuleLoaded());

    ASSERT_EQ(CoGetClassObject(CLSID_VornTestWidget, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               reinterpret_cast<void**>(&factory)),
              S_OK);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    factory->Release();
    CoFreeUnusedLibraries();
    EXPECT_FALSE(ModuleLoaded());
}

TEST_F(Activation, ClassFactoryRefusesBadRequests) {
    IClassFactory* factory = nullptr;
    ASSERT_EQ(CoGetClassObject(CLSID_VornTestWidget, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               reinterpret_cast<void**>(&factory)),
              S_OK);
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
    factory->Release();

    ASSERT_EQ(vorn::test::RegisterClassAt(CLSID_VornTestNoMemory, kModule), ERROR_SUCCESS);
    object = reinterpret_cast<void*>(1);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestNoMemory, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
              E_OUTOFMEMORY);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, nullptr), E_POINTER);
}

TEST_F(Activation, ErrorsOfActivation) {
    void* object = nullptr;
    const GUID unknown = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    EXPECT_EQ(CoCreateInstance(unknown, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestWidget, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &object),
              REGDB_E_CLASSNOTREG);
    CLSID clsid;
    EXPECT_EQ(CLSIDFromProgID(u"Vorn.NoSuchThing", &clsid), CO_E_CLASSSTRING);
    EXPECT_EQ(CLSIDFromProgID(u"Vorn.TestWidget\\CLSID", &clsid), CO_E_CLASSSTRING);

    // A class registered for a module that does not serve it, a module path
    // that does not exist, a library without the entry points.
    auto pointAt = [](const std::string& path) {
        ASSERT_EQ(vorn::test::RegisterClassAt(CLSID_VornTestUnserved, path), ERROR_SUCCESS);
    };
    pointAt(kModule);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestUnserved, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
              CLASS_E_CLASSNOTAVAILABLE);
    pointAt("/nonexistent/libgone.so");
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestUnserved, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
              HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND));
    EXPECT_THAT(vorn::test::LastErrorText(), HasSubstr("/nonexistent/libgone.so"));
    pointAt(VORN_RUNTIME);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestUnserved, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
              CO_E_ERRORINDLL);

    // A damaged registry file.
    registry_.Write("Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\\X]\n@=oops\n");
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
              REGDB_E_READREGDB);
    EXPECT_THAT(vorn::test::LastErrorText(), HasSubstr(":3:"));
    EXPECT_EQ(CLSIDFromProgID(u"Vorn.TestWidget", &clsid), REGDB_E_READREGDB);
    EXPECT_EQ(object, nullptr);
}

TEST(ActivationWithoutInitialisation, IsRefused) {
    ScopedRegistry registry;
    void* object = reinterpret_cast<void*>(1);
    EXPECT_EQ(CoCreateInstance(CLSID_VornTestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
              CO_E_NOTINITIALIZED);
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
                IVornTestWidget* widget = nullptr;
                if (FAILED(CoCreateInstance(CLSID_VornTestWidget, nullptr, CLSCTX_INPROC_SERVER, IID_IVornTestWidget,
                                            reinterpret_cast<void**>(&widget)))) {
                    ++failures[t];
                    continue;
                }
                LONG answer = 0;
                if (widget->get_Answer(&answer) != S_OK || answer != 42) ++failures[t];
                widget->Release();
                CoFreeUnusedLibraries();
            }
            CoUninitialize();
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
    CoFreeUnusedLibraries();
    EXPECT_FALSE(ModuleLoaded());
}

}  // namespace
