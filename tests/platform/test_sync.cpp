// Critical sections, events, threads (handles, ids, priorities), waits,
// handle checks (for every call that takes a handle) and the last error.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/test_util.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void Sleep(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

// Starts `count` threads that wait on `h` for up to `timeout` ms and count
// their successful waits in `released`.
std::vector<std::thread> StartWaiters(HANDLE h, int count, DWORD timeout, std::atomic<int>& released) {
    std::vector<std::thread> waiters;
    for (int i = 0; i < count; ++i)
        waiters.emplace_back([h, timeout, &released] {
            if (WaitForSingleObject(h, timeout) == WAIT_OBJECT_0) ++released;
        });
    return waiters;
}

// An event handle closed at the end of the scope.
struct Event {
    Event(BOOL manualReset, BOOL initialState) : h(CreateEventW(nullptr, manualReset, initialState, nullptr)) {}
    ~Event() { CloseHandle(h); }
    HANDLE h;
};

TEST(CriticalSection, IsRecursiveExcludesOtherThreadsAndKeepsItsSpinCount) {
    // Every kind: plain or priority-inheriting, blocking at once or spinning first.
    for (DWORD flags : {0u, DWORD{VORN_CRITICAL_SECTION_PRIORITY_INHERIT}}) {
        for (DWORD spinCount : {0u, 4000u}) {
            SCOPED_TRACE(testing::Message() << "flags " << flags << ", spin count " << spinCount);
            CRITICAL_SECTION cs;
            ASSERT_TRUE(InitializeCriticalSectionEx(&cs, spinCount, flags));
            EnterCriticalSection(&cs);
            EnterCriticalSection(&cs);  // the owner enters again
            std::atomic<bool> entered{false};
            std::thread other([&] {
                EnterCriticalSection(&cs);
                entered = true;
                LeaveCriticalSection(&cs);
            });
            LeaveCriticalSection(&cs);
            Sleep(30);
            EXPECT_FALSE(entered.load()) << "one leave of two released the lock";
            LeaveCriticalSection(&cs);
            other.join();
            EXPECT_TRUE(entered.load());

            long counter = 0;  // deliberately not atomic
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; ++t)
                threads.emplace_back([&] {
                    for (int i = 0; i < 20000; ++i) {
                        EnterCriticalSection(&cs);
                        counter = counter + 1;
                        LeaveCriticalSection(&cs);
                    }
                });
            for (auto& thread : threads) thread.join();
            EXPECT_EQ(counter, 80000);
            DeleteCriticalSection(&cs);
        }
    }
    // The spin count keeps its low 24 bits (on one processor it is 0);
    // unknown flags are refused.
    CRITICAL_SECTION cs;
    ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&cs, 0x81000FA0u));
    EXPECT_EQ(cs.spinCount, sysconf(_SC_NPROCESSORS_ONLN) > 1 ? 4000u : 0u);
    DeleteCriticalSection(&cs);
    EXPECT_LAST_ERROR(InitializeCriticalSectionEx(&cs, 0, 0x00000100u), FALSE, ERROR_INVALID_PARAMETER);
}

TEST(Event, ManualResetStaysSignalledAndReleasesEveryWaiter) {
    Event event(TRUE, FALSE);
    ASSERT_NE(event.h, nullptr);
    auto start = Clock::now();
    EXPECT_EQ(WaitForSingleObject(event.h, 50), WAIT_TIMEOUT);
    EXPECT_GE(MillisecondsSince(start), 50);
    start = Clock::now();
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);  // a poll
    EXPECT_LT(MillisecondsSince(start), 1000);

    std::atomic<int> released{0};
    std::vector<std::thread> waiters = StartWaiters(event.h, 3, 5000, released);
    Sleep(20);
    EXPECT_TRUE(SetEvent(event.h));
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(released.load(), 3);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, INFINITE), WAIT_OBJECT_0);
}

TEST(Event, AutoResetReleasesExactlyOneWaiterPerSet) {
    Event event(FALSE, TRUE);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);
    SetEvent(event.h);
    SetEvent(event.h);  // signals do not add up
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);

    std::atomic<int> released{0};
    std::vector<std::thread> waiters = StartWaiters(event.h, 3, 10000, released);
    Sleep(30);
    for (int set = 1; set <= 3; ++set) {
        SetEvent(event.h);
        auto start = Clock::now();
        while (released.load() < set && MillisecondsSince(start) < 5000) Sleep(1);
        Sleep(50);  // time for a second waiter to slip through wrongly
        EXPECT_EQ(released.load(), set);
    }
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT) << "the event did not reset itself";
}

// One family: every call that takes a handle refuses a null, invalid,
// closed, made-up or wrong-kind one with ERROR_INVALID_HANDLE, never a crash.
TEST(Handle, BadAndWrongKindHandlesAreRefused) {
    Event event(TRUE, TRUE);  // before the closed handle, whose slot it could take
    HANDLE closed = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    ASSERT_TRUE(CloseHandle(closed));
    int notAHandle = 0;
    char buffer[1];
    DWORD n = 0;
    for (HANDLE h : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, closed, static_cast<HANDLE>(&notAHandle)}) {
        EXPECT_LAST_ERROR(SetEvent(h), FALSE, ERROR_INVALID_HANDLE);
        EXPECT_LAST_ERROR(WaitForSingleObject(h, 0), WAIT_FAILED, ERROR_INVALID_HANDLE);
        EXPECT_LAST_ERROR(CloseHandle(h), FALSE, ERROR_INVALID_HANDLE);
        EXPECT_LAST_ERROR(ReadFile(h, buffer, 1, &n, nullptr), FALSE, ERROR_INVALID_HANDLE);
    }
    // An event is no file and no thread.
    EXPECT_LAST_ERROR(ReadFile(event.h, buffer, 1, &n, nullptr), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetThreadPriority(event.h), THREAD_PRIORITY_ERROR_RETURN);
    EXPECT_FALSE(SetThreadPriority(event.h, THREAD_PRIORITY_NORMAL));
    // The current thread's pseudo-handle would never be signalled; closing it does nothing.
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 0), WAIT_FAILED);
    EXPECT_TRUE(CloseHandle(GetCurrentThread()));
    EXPECT_LAST_ERROR(CreateEventW(nullptr, TRUE, FALSE, u"name"), nullptr, ERROR_NOT_SUPPORTED);
}

TEST(Handle, ClosingDuringAWaitLetsTheWaitEnd) {
    // A close that comes before the waiter has begun fails its wait
    // (WAIT_FAILED, a closed handle): on a busy machine try again, longer.
    DWORD result = WAIT_FAILED;
    for (DWORD delay = 20; delay <= 320 && result == WAIT_FAILED; delay *= 2) {
        HANDLE event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
        std::thread waiter([&] { result = WaitForSingleObject(event, 2 * delay + 200); });
        Sleep(delay);
        EXPECT_TRUE(CloseHandle(event));
        waiter.join();
    }
    EXPECT_EQ(result, WAIT_TIMEOUT);
}

TEST(LastError, IsPerThread) {
    EXPECT_FALSE(SetEvent(nullptr));
    DWORD seenByOther = 1;
    std::thread([&] {
        seenByOther = GetLastError();
        CreateEventW(nullptr, TRUE, FALSE, u"name");
    }).join();
    EXPECT_EQ(seenByOther, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

struct Gate {
    HANDLE go = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    DWORD threadId = 0;
    int priorityInside = THREAD_PRIORITY_ERROR_RETURN;
    ~Gate() {
        CloseHandle(go);
        CloseHandle(done);
    }
};

// Waits for the gate to open and notes what the thread sees.
DWORD WINAPI GatedRoutine(LPVOID parameter) {
    auto* gate = static_cast<Gate*>(parameter);
    WaitForSingleObject(gate->go, INFINITE);
    gate->threadId = GetCurrentThreadId();
    gate->priorityInside = GetThreadPriority(GetCurrentThread());
    SetEvent(gate->done);  // the gate may be gone after this
    return 0;
}

TEST(Thread, HandleIsSignalledForEveryWaiterWhenTheRoutineReturnsAndIdsAreLinuxIds) {
    Gate gate;
    DWORD id = 0;
    HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, &id);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, 30), WAIT_TIMEOUT);
    EXPECT_LAST_ERROR(SetEvent(thread), FALSE, ERROR_INVALID_HANDLE);

    std::atomic<int> released{0};
    std::vector<std::thread> waiters = StartWaiters(thread, 3, 10000, released);
    Sleep(20);
    SetEvent(gate.go);
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(released.load(), 3);
    EXPECT_EQ(gate.threadId, id);
    EXPECT_EQ(GetCurrentThreadId(), static_cast<DWORD>(gettid())) << "ids are Linux thread ids";
    // The handle outlives the thread, and stays signalled.
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(thread));
    EXPECT_LAST_ERROR(WaitForSingleObject(thread, 0), WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_LAST_ERROR(CreateThread(nullptr, 0, GatedRoutine, &gate, CREATE_SUSPENDED, nullptr), nullptr,
                      ERROR_NOT_SUPPORTED);
    EXPECT_LAST_ERROR(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), nullptr, ERROR_INVALID_PARAMETER);
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

int NiceOf(DWORD tid) {
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, tid);
    EXPECT_EQ(errno, 0);
    return nice;
}

TEST(ThreadPriority, LoweringReachesTheSchedulerValuesRoundTripAndHandlesShareThem) {
    const int processNice = NiceOf(static_cast<DWORD>(getpid()));
    std::thread([&] {
        const DWORD tid = GetCurrentThreadId();
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST));
        EXPECT_EQ(NiceOf(tid), std::min(19, processNice + 10));
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_IDLE));
        EXPECT_EQ(NiceOf(tid), 19);
        // Raising back may be refused by Linux; the call succeeds and the
        // value is kept regardless.
        for (int priority :
             {THREAD_PRIORITY_IDLE, THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_BELOW_NORMAL, THREAD_PRIORITY_NORMAL,
              THREAD_PRIORITY_ABOVE_NORMAL, THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_TIME_CRITICAL}) {
            EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), priority));
            EXPECT_EQ(GetThreadPriority(GetCurrentThread()), priority);
        }
        for (int invalid : {3, -3, 14, 100})
            EXPECT_LAST_ERROR(SetThreadPriority(GetCurrentThread(), invalid), FALSE, ERROR_INVALID_PARAMETER);
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_TIME_CRITICAL);

        // A new thread starts at normal priority whatever its creator runs at;
        // its handle and its pseudo-handle share the value, kept after its end.
        Gate gate;
        HANDLE thread = CreateThread(nullptr, 0, GatedRoutine, &gate, 0, nullptr);
        EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_NORMAL);
        EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_BELOW_NORMAL));
        SetEvent(gate.go);
        EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
        EXPECT_EQ(gate.priorityInside, THREAD_PRIORITY_BELOW_NORMAL);
        EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_HIGHEST));
        EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_HIGHEST);
        CloseHandle(thread);
    }).join();
    EXPECT_EQ(NiceOf(static_cast<DWORD>(getpid())), processNice) << "another thread's change leaked";
}

}  // namespace
