// Critical sections, events and WaitForSingleObject.
//
// A CRITICAL_SECTION holds a recursive pthread mutex, so the owner may enter
// again and must leave as often as it entered. A spin count makes Enter try
// the mutex that many times before it blocks in the kernel. Events are kernel
// objects (see internal.h): a flag under a mutex with a condition variable. A
// manual-reset event stays signalled and releases every waiter; an auto-reset
// event releases exactly one waiter and resets itself as it does. Waits run
// on the monotonic clock.

#include <cstdio>
#include <cstdlib>

#include "internal.h"

using vorn::rt::Fail;

namespace {

// Bits of InitializeCriticalSectionEx's Flags that Windows defines and this
// runtime ignores (debug-info and dynamic-spin options).
constexpr DWORD kWindowsCriticalSectionFlags = 0xFF000000u;

// Windows keeps only the low 24 bits of a spin count, and spins on no
// machine with a single processor.
constexpr DWORD kSpinCountMask = 0x00FFFFFFu;

// A failing pthread mutex call on a critical section means it was never
// initialised or was already deleted; Windows raises an exception there.
[[noreturn]] void CriticalSectionFault(const char* operation, int err) {
    std::fprintf(stderr, "vornrt: %s on a critical section failed (errno %d)\n", operation, err);
    std::abort();
}

bool TryLock(pthread_mutex_t& mutex, const char* operation) {
    const int err = pthread_mutex_trylock(&mutex);
    if (err != 0 && err != EBUSY) CriticalSectionFault(operation, err);
    return err == 0;
}

// Whether another thread seems to hold the mutex, read without writing to it:
// a spinning thread only tries to take the mutex when it looks free, so it
// does not pull the lock word away from the owner on every turn.
bool MutexLooksOwned(pthread_mutex_t& mutex) {
#ifdef __GLIBC__
    return __atomic_load_n(&mutex.__data.__lock, __ATOMIC_RELAXED) != 0;
#else
    (void)mutex;
    return false;
#endif
}

DWORD EffectiveSpinCount(DWORD spinCount) {
    static const bool multiprocessor = sysconf(_SC_NPROCESSORS_ONLN) > 1;
    return multiprocessor ? spinCount & kSpinCountMask : 0;
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

private:
    bool ConsumeSignalLocked() override {
        if (!signalled_) return false;
        if (!manualReset_) signalled_ = false;
        return true;
    }

    const bool manualReset_;
    bool signalled_;
};

}  // namespace

// ---------------------------------------------------------------------------
// Critical sections
// ---------------------------------------------------------------------------

VORNAPI void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    InitializeCriticalSectionEx(lpCriticalSection, 0, 0);
}

// Flags: VORN_CRITICAL_SECTION_PRIORITY_INHERIT gives a priority-inheritance
// mutex; Windows' own flag bits are accepted and ignored; anything else fails
// with ERROR_INVALID_PARAMETER.
VORNAPI BOOL WINAPI InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount, DWORD Flags) {
    if (!lpCriticalSection || (Flags & ~(VORN_CRITICAL_SECTION_PRIORITY_INHERIT | kWindowsCriticalSectionFlags)))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    InitializeMutex(lpCriticalSection, (Flags & VORN_CRITICAL_SECTION_PRIORITY_INHERIT) != 0);
    lpCriticalSection->spinCount = EffectiveSpinCount(dwSpinCount);
    return TRUE;
}

VORNAPI BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount) {
    return InitializeCriticalSectionEx(lpCriticalSection, dwSpinCount, 0);
}

VORNAPI void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    pthread_mutex_destroy(&lpCriticalSection->mutex);
}

VORNAPI void WINAPI EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    if (DWORD spins = __atomic_load_n(&lpCriticalSection->spinCount, __ATOMIC_RELAXED)) {
        // The first try also takes a section this thread already owns.
        if (TryLock(lpCriticalSection->mutex, "EnterCriticalSection")) return;
        for (; spins != 0; --spins) {
            YieldProcessor();
            if (!MutexLooksOwned(lpCriticalSection->mutex) && TryLock(lpCriticalSection->mutex, "EnterCriticalSection"))
                return;
        }
    }
    if (int err = pthread_mutex_lock(&lpCriticalSection->mutex)) CriticalSectionFault("EnterCriticalSection", err);
}

// Leaving a critical section the thread does not own is a programming error;
// like Windows, this runtime does not report it (the mutex refuses the unlock).
VORNAPI void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    pthread_mutex_unlock(&lpCriticalSection->mutex);
}

// ---------------------------------------------------------------------------
// Events and waits
// ---------------------------------------------------------------------------

VORNAPI HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCWSTR lpName) {
    if (lpName && *lpName) return Fail(ERROR_NOT_SUPPORTED, HANDLE{nullptr});
    try {
        HANDLE h = vorn::rt::InsertHandle(std::make_shared<EventObject>(bManualReset != FALSE, bInitialState != FALSE));
        vorn::rt::SetLastErrorCode(ERROR_SUCCESS);
        return h;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, HANDLE{nullptr});
    }
}

VORNAPI BOOL WINAPI SetEvent(HANDLE hEvent) {
    auto event = vorn::rt::ReferenceHandleAs<EventObject>(hEvent);
    if (!event) return FALSE;
    event->Set();
    return TRUE;
}

VORNAPI DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    auto object = vorn::rt::ReferenceHandle(hHandle);
    if (!object) return WAIT_FAILED;
    return object->Wait(dwMilliseconds);
}
