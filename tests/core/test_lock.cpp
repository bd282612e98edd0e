// The database lock: priority boost while held, recursion, exclusion.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "core/DatabaseLock.h"

using vorn::CDatabaseLock;
using vorn::CReadLock;
using vorn::CWriteLock;

namespace {
// The current thread's priority and whether it holds the lock.
std::pair<int, bool> Held() { return {GetThreadPriority(GetCurrentThread()), CDatabaseLock::HeldByCurrentThread()}; }
}  // namespace

TEST(DatabaseLock, RaisesThePriorityWhileHeldAndRestoresIt) {
    ASSERT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL));
    {
        CWriteLock outer;
        EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_HIGHEST, true));
        {
            CReadLock inner;  // the same lock, taken again
            EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_HIGHEST, true));
        }
        EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_HIGHEST, true));
        outer.Release();
        EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_BELOW_NORMAL, false));
    }
    EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_BELOW_NORMAL, false));
    // A thread already above the boost keeps its priority.
    ASSERT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL));
    {
        CReadLock lock;
        EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_TIME_CRITICAL, true));
    }
    EXPECT_EQ(Held(), std::pair(THREAD_PRIORITY_TIME_CRITICAL, false));
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
}

TEST(DatabaseLock, AReaderExcludesWriters) {
    std::atomic<bool> entered{false};
    CReadLock reader;
    std::thread writer([&] {
        CWriteLock lock;
        entered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    reader.Release();
    writer.join();
    EXPECT_TRUE(entered);
}
