// The database lock: priority boost while held, recursion, exclusion.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/DatabaseLock.h"

using vorn::CDatabaseLock;
using vorn::CReadLock;
using vorn::CWriteLock;

namespace {
int Priority() { return GetThreadPriority(GetCurrentThread()); }
}  // namespace

TEST(DatabaseLock, RaisesThePriorityWhileHeldAndRestoresIt) {
    ASSERT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL));
    {
        CWriteLock outer;
        EXPECT_EQ(Priority(), THREAD_PRIORITY_HIGHEST);
        {
            CReadLock inner;  // the same lock, taken again
            EXPECT_EQ(Priority(), THREAD_PRIORITY_HIGHEST);
        }
        EXPECT_EQ(Priority(), THREAD_PRIORITY_HIGHEST);
        outer.Release();
        EXPECT_EQ(Priority(), THREAD_PRIORITY_BELOW_NORMAL);
    }
    EXPECT_EQ(Priority(), THREAD_PRIORITY_BELOW_NORMAL);
    // A thread already above the boost keeps its priority.
    ASSERT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL));
    {
        CReadLock lock;
        EXPECT_EQ(Priority(), THREAD_PRIORITY_TIME_CRITICAL);
    }
    EXPECT_EQ(Priority(), THREAD_PRIORITY_TIME_CRITICAL);
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
