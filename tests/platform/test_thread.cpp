// Threads: handles, exit codes, ids and priorities.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "vorn/platform.h"

namespace {

struct Gate {
    HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD exitCode = 0;
    DWORD threadId = 0;
    int priorityInside = THREAD_PRIORITY_ERROR_RETURN;
    ~Gate() {
        CloseHandle(go);
        CloseHandle(done);
    }
};

// Waits for the gate to open, notes what the thread sees, returns the exit code.
DWORD WINAPI GatedRoutine(LPVOID parameter) {
    auto* gate = static_cast<Gate*>(parameter);
    WaitForSingleObject(gate->go, INFINITE);
    gate->threadId = GetCurrentThreadId();
    gate->priorityInside = GetThreadPriority(GetCurrentThread());
    DWORD exitCode = gate->exitCode;
    SetEvent(gate->done);  // the gate may be gone after this
    return exitCode;
}

int NiceOf(DWORD tid) {
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, tid);
    EXPECT_EQ(errno, 0);
    return nice;
}

TEST(Thread, HandleIsSignalledWhenTheRoutineReturns) {
    Gate gate;
    gate.exitCode = 42;
    DWORD id = 0;
    HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, &id);
    ASSERT_NE(thread, nullptr);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(thread, 30), WAIT_TIMEOUT);

    SetEvent(gate.go);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(gate.threadId, id);
    EXPECT_NE(id, GetCurrentThreadId());
    // The handle outlives the thread, and stays signalled.
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 42u);
    EXPECT_TRUE(CloseHandle(thread));
    EXPECT_FALSE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST(Thread, SeveralWaitersAreReleasedTogether) {
    Gate gate;
    HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, nullptr);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            if (WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0) ++released;
        });
    Sleep(20);
    SetEvent(gate.go);
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(released.load(), 3);
    CloseHandle(thread);
}

// Closing the handle first leaves the thread to clean up after itself; under
// ThreadSanitizer an unreclaimed thread is reported at exit.
TEST(Thread, HandleMayBeClosedWhileTheThreadRuns) {
    std::vector<Gate> gates(8);
    for (Gate& gate : gates) {
        HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, nullptr);
        ASSERT_NE(thread, nullptr);
        EXPECT_TRUE(CloseHandle(thread));
    }
    for (Gate& gate : gates) SetEvent(gate.go);
    for (Gate& gate : gates) EXPECT_EQ(WaitForSingleObject(gate.done, 10000), WAIT_OBJECT_0);
    Sleep(50);  // let the threads finish leaving
}

TEST(Thread, RefusesWhatItCannotDo) {
    Gate gate;
    SetLastError(0);
    EXPECT_EQ(CreateThread(nullptr, 0, GatedRoutine, &gate, CREATE_SUSPENDED, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    SetLastError(0);
    EXPECT_EQ(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(Thread, PseudoHandleAndWrongKinds) {
    EXPECT_EQ(GetCurrentThread(), reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2)));
    EXPECT_EQ(GetCurrentThreadId(), static_cast<DWORD>(gettid()));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(GetCurrentThread(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 0), WAIT_FAILED);  // would never be signalled
    EXPECT_TRUE(CloseHandle(GetCurrentThread()));

    HANDLE event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    SetLastError(0);
    EXPECT_FALSE(GetExitCodeThread(event, &code));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(GetThreadPriority(event), THREAD_PRIORITY_ERROR_RETURN);
    EXPECT_FALSE(SetThreadPriority(event, THREAD_PRIORITY_NORMAL));
    CloseHandle(event);

    Gate gate;
    HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, nullptr);
    SetLastError(0);
    EXPECT_FALSE(SetEvent(thread));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    SetEvent(gate.go);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
}

TEST(ThreadPriority, ValuesRoundTripOnTheCurrentThread) {
    std::thread([] {
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
        for (int priority :
             {THREAD_PRIORITY_IDLE, THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_BELOW_NORMAL, THREAD_PRIORITY_NORMAL,
              THREAD_PRIORITY_ABOVE_NORMAL, THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_TIME_CRITICAL}) {
            EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), priority));
            EXPECT_EQ(GetThreadPriority(GetCurrentThread()), priority);
        }
        for (int invalid : {3, -3, 14, 100}) {
            SetLastError(0);
            EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), invalid));
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        }
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_TIME_CRITICAL);
    }).join();
}

TEST(ThreadPriority, LoweringReachesTheScheduler) {
    const int processNice = NiceOf(static_cast<DWORD>(getpid()));
    std::thread([&] {
        DWORD tid = GetCurrentThreadId();
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST));
        EXPECT_EQ(NiceOf(tid), std::min(19, processNice + 10));
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_IDLE));
        EXPECT_EQ(NiceOf(tid), 19);
        // Raising back may be refused by Linux; the call succeeds regardless.
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST));
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_HIGHEST);
    }).join();
    EXPECT_EQ(NiceOf(static_cast<DWORD>(getpid())), processNice) << "another thread's change leaked";
}

TEST(ThreadPriority, HandleAndPseudoHandleShareTheValue) {
    std::thread([] {
        // A thread starts at normal priority whatever its creator runs at.
        ASSERT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST));
        Gate gate;
        HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, nullptr);
        EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_NORMAL);
        EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_BELOW_NORMAL));
        EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_BELOW_NORMAL);
        SetEvent(gate.go);
        EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
        EXPECT_EQ(gate.priorityInside, THREAD_PRIORITY_BELOW_NORMAL);
        // Kept after the thread has ended.
        EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_HIGHEST));
        EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_HIGHEST);
        CloseHandle(thread);
    }).join();
}

}  // namespace
