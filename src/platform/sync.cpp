// Critical sections, events, WaitForSingleObject, Sleep and the tick count.
//
// A CRITICAL_SECTION holds a recursive pthread mutex, so the owner may enter
// again and must leave as often as it entered. Events are kernel objects (see
// internal.h): a flag under a mutex with a condition variable. A manual-reset
// event stays signalled until ResetEvent and releases every waiter; an
// auto-reset event releases exactly one waiter and resets itself as it does.
// Waits and Sleep run on the monotonic clock.
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "internal.h"

using vorn::rt::Fail;

namespace {

// Bits of InitializeCriticalSectionEx's Flags that Windows defines and this
// runtime ignores (debug-info and dynamic-spin options).
constexpr DWORD kWindowsCriticalSectionFlags = 0xFF000000u;

// A failing pthread mutex call on a critical section means it was never
// initialised or was already deleted; Windows raises an exception there.
[[noreturn]] void CriticalSectionFault(const char* operation, int err) {
    std::fprintf(stderr, "vornrt: %s on a critical section failed (errno %d)\n", operation, err);
    std::abort();
}

void InitializeMutex(LPCRITICAL_SECTION cs, bool priorityInheritance) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (priorityInheritance) pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    int err = pthread_mutex_init(&cs->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (err != 0) CriticalSectionFault("initialisation", err);
}

class EventObject final : public vorn::rt::WaitableObject {
public:
    static constexpr vorn::rt::ObjectKind kKind = vorn::rt::ObjectKind::Event;

    EventObject(bool manualReset, bool initialState)
        : WaitableObject(kKind), manualReset_(manualReset), signalled_(initialState) {}

    void Set() {
        std::lock_guard lock(mutex_);
        signalled_ = true;
        if (manualReset_)
            cv_.notify_all();
        else
            cv_.notify_one();
    }

    void Reset() {
        std::lock_guard lock(mutex_);
        signalled_ = false;
    }

private:
    bool ConsumeSignalLocked() override {
        if (!signalled_) return false;
        if (!manualReset_) signalled_ = false;
        return true;
    }

    const bool manualReset_;
    bool signalled_;
};

HANDLE CreateUnnamedEvent(BOOL bManualReset, BOOL bInitialState) {
    try {
        HANDLE h = vorn::rt::InsertHandle(std::make_shared<EventObject>(bManualReset != FALSE, bInitialState != FALSE));
        ::SetLastError(ERROR_SUCCESS);
        return h;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, HANDLE{nullptr});
    }
}

ULONGLONG MonotonicMilliseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000u + static_cast<ULONGLONG>(now.tv_nsec) / 1000000u;
}

}  // namespace

// ---------------------------------------------------------------------------
// Critical sections
// ---------------------------------------------------------------------------

VORNAPI void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    InitializeMutex(lpCriticalSection, false);
    lpCriticalSection->flags = 0;
}

// dwSpinCount is ignored (the mutex spins as glibc sees fit). Flags:
// VORN_CRITICAL_SECTION_PRIORITY_INHERIT gives a priority-inheritance mutex;
// Windows' own flag bits are accepted and ignored; anything else fails with
// ERROR_INVALID_PARAMETER.
VORNAPI BOOL WINAPI InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD, DWORD Flags) {
    if (!lpCriticalSection || (Flags & ~(VORN_CRITICAL_SECTION_PRIORITY_INHERIT | kWindowsCriticalSectionFlags)))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    InitializeMutex(lpCriticalSection, (Flags & VORN_CRITICAL_SECTION_PRIORITY_INHERIT) != 0);
    lpCriticalSection->flags = Flags & VORN_CRITICAL_SECTION_PRIORITY_INHERIT;
    return TRUE;
}

VORNAPI void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    pthread_mutex_destroy(&lpCriticalSection->mutex);
}

VORNAPI void WINAPI EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    if (int err = pthread_mutex_lock(&lpCriticalSection->mutex)) CriticalSectionFault("EnterCriticalSection", err);
}

VORNAPI BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    int err = pthread_mutex_trylock(&lpCriticalSection->mutex);
    if (err == EBUSY) return FALSE;
    if (err != 0) CriticalSectionFault("TryEnterCriticalSection", err);
    return TRUE;
}

// Leaving a critical section the thread does not own is a programming error;
// like Windows, this runtime does not report it (the mutex refuses the unlock).
VORNAPI void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    pthread_mutex_unlock(&lpCriticalSection->mutex);
}

// ---------------------------------------------------------------------------
// Events and waits
// ---------------------------------------------------------------------------

VORNAPI HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCSTR lpName) {
    if (lpName && *lpName) return Fail(ERROR_NOT_SUPPORTED, HANDLE{nullptr});
    return CreateUnnamedEvent(bManualReset, bInitialState);
}

VORNAPI HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCWSTR lpName) {
    if (lpName && *lpName) return Fail(ERROR_NOT_SUPPORTED, HANDLE{nullptr});
    return CreateUnnamedEvent(bManualReset, bInitialState);
}

VORNAPI BOOL WINAPI SetEvent(HANDLE hEvent) {
    auto event = vorn::rt::ReferenceHandleAs<EventObject>(hEvent);
    if (!event) return FALSE;
    event->Set();
    return TRUE;
}

VORNAPI BOOL WINAPI ResetEvent(HANDLE hEvent) {
    auto event = vorn::rt::ReferenceHandleAs<EventObject>(hEvent);
    if (!event) return FALSE;
    event->Reset();
    return TRUE;
}

VORNAPI DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    auto object = vorn::rt::ReferenceHandle(hHandle);
    if (!object) return WAIT_FAILED;
    return object->Wait(dwMilliseconds);
}

// Sleep(0) gives up the rest of the time slice; INFINITE sleeps for ever.
VORNAPI void WINAPI Sleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == 0) {
        sched_yield();
        return;
    }
    if (dwMilliseconds == INFINITE) {
        for (;;) pause();
    }
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += dwMilliseconds / 1000;
    until.tv_nsec += static_cast<long>(dwMilliseconds % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_sec += 1;
        until.tv_nsec -= 1000000000L;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

VORNAPI DWORD WINAPI GetTickCount() { return static_cast<DWORD>(MonotonicMilliseconds()); }

VORNAPI ULONGLONG WINAPI GetTickCount64() { return MonotonicMilliseconds(); }
