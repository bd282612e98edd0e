// COM initialisation counting per thread.
#include <gtest/gtest.h>

#include <thread>

#include "vorn/platform.h"

namespace {

TEST(CoInitialize, CountsPerThreadAndKeepsTheFirstModel) {
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED | COINIT_DISABLE_OLE1DDE), S_FALSE);
    EXPECT_EQ(CoInitialize(nullptr), RPC_E_CHANGED_MODE);  // not counted

    HRESULT otherThread = E_FAIL;
    std::thread([&] {
        otherThread = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        CoUninitialize();
    }).join();
    EXPECT_EQ(otherThread, S_OK) << "another thread's state leaked in";

    CoUninitialize();
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE) << "one call still counted";
    CoUninitialize();
    // Fully uninitialised: the thread may choose again.
    EXPECT_EQ(CoInitialize(nullptr), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    CoUninitialize();
}

TEST(CoInitialize, BadArgumentsAndUnpairedUninitialiseChangeNothing) {
    CoUninitialize();  // nothing to undo
    int reserved = 0;
    EXPECT_EQ(CoInitializeEx(&reserved, COINIT_MULTITHREADED), E_INVALIDARG);
    EXPECT_EQ(CoInitializeEx(nullptr, 0x100), E_INVALIDARG);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    CoUninitialize();
}

}  // namespace
