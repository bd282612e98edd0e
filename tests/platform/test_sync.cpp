// Critical sections, events, waits and the tick count.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "vorn/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

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

// Every kind of critical section: plain or priority-inheriting, blocking at
// once or spinning first.
struct CriticalSectionKind {
    DWORD flags;
    DWORD spinCount;
};
constexpr CriticalSectionKind kCriticalSectionKinds[] = {
    {0, 0}, {VORN_CRITICAL_SECTION_PRIORITY_INHERIT, 0}, {0, 4000}, {VORN_CRITICAL_SECTION_PRIORITY_INHERIT, 4000}};

TEST(CriticalSection, IsRecursiveAndHeldUntilTheLastLeave) {
    for (auto [flags, spinCount] : kCriticalSectionKinds) {
        CRITICAL_SECTION cs;
        ASSERT_TRUE(InitializeCriticalSectionEx(&cs, spinCount, flags));
        EnterCriticalSection(&cs);
        EnterCriticalSection(&cs);  // the owner enters again
        LeaveCriticalSection(&cs);
        EXPECT_TRUE(TryEnterCriticalSection(&cs));  // and again
        auto otherThreadGetsIn = [&] {
            bool entered = false;
            std::thread([&] {
                entered = TryEnterCriticalSection(&cs);
                if (entered) LeaveCriticalSection(&cs);
            }).join();
            return entered;
        };
        EXPECT_FALSE(otherThreadGetsIn());
        LeaveCriticalSection(&cs);
        EXPECT_FALSE(otherThreadGetsIn()) << "one leave of two released the lock";
        LeaveCriticalSection(&cs);
        EXPECT_TRUE(otherThreadGetsIn());
        DeleteCriticalSection(&cs);
    }
}

TEST(CriticalSection, ExcludesOtherThreads) {
    for (auto [flags, spinCount] : kCriticalSectionKinds) {
        CRITICAL_SECTION cs;
        ASSERT_TRUE(InitializeCriticalSectionEx(&cs, spinCount, flags));
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
        EXPECT_EQ(counter, 80000) << "flags " << flags << ", spin count " << spinCount;
        DeleteCriticalSection(&cs);
    }
}

TEST(CriticalSection, SpinCountKeepsItsLow24BitsOnAMultiprocessor) {
    const bool multiprocessor = sysconf(_SC_NPROCESSORS_ONLN) > 1;
    CRITICAL_SECTION cs;
    ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&cs, 0x81000FA0u));
    EXPECT_EQ(SetCriticalSectionSpinCount(&cs, 10), multiprocessor ? 4000u : 0u);
    EXPECT_EQ(SetCriticalSectionSpinCount(&cs, 0), multiprocessor ? 10u : 0u);
    DeleteCriticalSection(&cs);
}

TEST(CriticalSection, RejectsUnknownFlags) {
    CRITICAL_SECTION cs;
    SetLastError(0);
    EXPECT_FALSE(InitializeCriticalSectionEx(&cs, 0, 0x00000100u));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(Event, WaitTimesOutAfterItsTimeout) {
    Event event(TRUE, FALSE);
    ASSERT_NE(event.h, nullptr);
    auto start = Clock::now();
    EXPECT_EQ(WaitForSingleObject(event.h, 50), WAIT_TIMEOUT);
    EXPECT_GE(MillisecondsSince(start), 50);

    start = Clock::now();
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);  // a poll
    EXPECT_LT(MillisecondsSince(start), 1000);
}

TEST(Event, ManualResetStaysSignalledUntilReset) {
    Event event(TRUE, TRUE);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(event.h));
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(event.h));
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, INFINITE), WAIT_OBJECT_0);
}

TEST(Event, ManualResetReleasesEveryWaiter) {
    Event event(TRUE, FALSE);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters = StartWaiters(event.h, 3, 5000, released);
    Sleep(20);
    SetEvent(event.h);
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(released.load(), 3);
}

TEST(Event, AutoResetReleasesExactlyOneWaiterPerSet) {
    Event event(FALSE, FALSE);
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

TEST(Event, AutoResetKeepsASignalUntilOneWaitTakesIt) {
    Event event(FALSE, TRUE);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);
    SetEvent(event.h);
    SetEvent(event.h);  // signals do not add up
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event.h, 0), WAIT_TIMEOUT);
}

TEST(Event, NamedEventsAreNotSupported) {
    SetLastError(0);
    EXPECT_EQ(CreateEventA(nullptr, TRUE, FALSE, "name"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    SetLastError(0);
    EXPECT_EQ(CreateEventW(nullptr, TRUE, FALSE, u"name"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
}

TEST(Handle, BadHandlesFailWithInvalidHandle) {
    HANDLE closed = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    ASSERT_TRUE(CloseHandle(closed));
    int notAHandle = 0;
    for (HANDLE h : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, closed, static_cast<HANDLE>(&notAHandle)}) {
        SetLastError(0);
        EXPECT_FALSE(SetEvent(h));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
        SetLastError(0);
        EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
        SetLastError(0);
        EXPECT_FALSE(CloseHandle(h));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    }
}

TEST(Handle, ClosingDuringAWaitLetsTheWaitEnd) {
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD result = 0;
    std::thread waiter([&] { result = WaitForSingleObject(event, 200); });
    Sleep(20);
    EXPECT_TRUE(CloseHandle(event));
    waiter.join();
    EXPECT_EQ(result, WAIT_TIMEOUT);
}

TEST(LastError, IsPerThread) {
    SetLastError(ERROR_ACCESS_DENIED);
    DWORD seenByOther = 1;
    std::thread([&] {
        seenByOther = GetLastError();
        SetLastError(ERROR_BUSY);
    }).join();
    EXPECT_EQ(seenByOther, static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST(Time, SleepAndTickCountAgree) {
    ULONGLONG before = GetTickCount64();
    auto start = Clock::now();
    Sleep(30);
    EXPECT_GE(MillisecondsSince(start), 30);
    ULONGLONG elapsed = GetTickCount64() - before;
    EXPECT_GE(elapsed, 29u);  // both ends are truncated to milliseconds
    EXPECT_LT(elapsed, 10000u);
    EXPECT_LE(static_cast<DWORD>(GetTickCount() - static_cast<DWORD>(before)), 10000u);
}

}  // namespace
