// Threads and synchronisation: critical sections, events, waits, threads,
// thread priorities, interlocked operations and the per-thread last error.
//
// Handles returned here (events, threads) are closed with CloseHandle; waiting
// on a thread handle waits for the thread to end. Critical sections are
// recursive, as on Windows. Where Linux differs (thread priorities, no
// TerminateThread) the behaviour is written down in docs/platform.md.
#pragma once

#include <pthread.h>

#include "vorn/rt/types.h"

// ---------------------------------------------------------------------------
// Last error (per thread)
// ---------------------------------------------------------------------------
VORNAPI DWORD WINAPI GetLastError();

// ---------------------------------------------------------------------------
// Critical sections: recursive mutexes. The flag of
// InitializeCriticalSectionEx selects priority inheritance, which this
// runtime offers in place of raising a lock holder's thread priority. With a
// spin count, a thread that finds the section owned retries that many times
// before it sleeps (on a machine with more than one processor).
// ---------------------------------------------------------------------------
struct CRITICAL_SECTION {
    pthread_mutex_t mutex;
    DWORD spinCount;
};
using LPCRITICAL_SECTION = CRITICAL_SECTION*;
#define VORN_CRITICAL_SECTION_PRIORITY_INHERIT 0x00010000u

VORNAPI void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VORNAPI BOOL WINAPI InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount, DWORD Flags);
VORNAPI BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount);
VORNAPI void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VORNAPI void WINAPI EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VORNAPI void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);

namespace vorn {

// Enters a critical section for the lifetime of the object.
class CriticalSectionLock {
public:
    explicit CriticalSectionLock(CRITICAL_SECTION& section) noexcept : section_(section) {
        EnterCriticalSection(&section_);
    }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;
    ~CriticalSectionLock() { LeaveCriticalSection(&section_); }

private:
    CRITICAL_SECTION& section_;
};

}  // namespace vorn

// ---------------------------------------------------------------------------
// Events and waits
// ---------------------------------------------------------------------------
#define INFINITE 0xFFFFFFFFu
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu

struct SECURITY_ATTRIBUTES;
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

// Named events are not supported: a non-null name fails with
// ERROR_NOT_SUPPORTED.
VORNAPI HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                                   LPCWSTR lpName);
#define CreateEvent CreateEventW
VORNAPI BOOL WINAPI SetEvent(HANDLE hEvent);
// Waits on an event or a thread handle. Timeout in milliseconds, INFINITE for
// ever. WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED with GetLastError
// (ERROR_INVALID_HANDLE for anything not waitable).
VORNAPI DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
// Closes any handle of the runtime (event, thread, file, find handles use
// FindClose). FALSE with ERROR_INVALID_HANDLE for a bad handle.
VORNAPI BOOL WINAPI CloseHandle(HANDLE hObject);

// ---------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------
using LPTHREAD_START_ROUTINE = DWORD(WINAPI*)(LPVOID lpThreadParameter);
#define CREATE_SUSPENDED 0x00000004u

#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

// CREATE_SUSPENDED is refused (ERROR_NOT_SUPPORTED); dwStackSize 0 takes the
// default. The handle is signalled when the thread returns.
VORNAPI HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES lpThreadAttributes, SIZE_T dwStackSize,
                                   LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter, DWORD dwCreationFlags,
                                   LPDWORD lpThreadId);
// Pseudo-handle of the calling thread, (HANDLE)-2; needs no CloseHandle.
VORNAPI HANDLE WINAPI GetCurrentThread();
VORNAPI DWORD WINAPI GetCurrentThreadId();
// Priorities are kept per thread and reported back faithfully; the Linux
// scheduler is only asked for what an unprivileged process may do (see
// docs/platform.md).
VORNAPI int WINAPI GetThreadPriority(HANDLE hThread);
VORNAPI BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority);

// A hint to the processor that the thread is spinning on a lock or flag.
inline void YieldProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

// ---------------------------------------------------------------------------
// Interlocked operations: sequentially consistent, as the Windows ones are
// full barriers. Each returns what its Windows namesake returns.
// ---------------------------------------------------------------------------
inline LONG InterlockedIncrement(LONG volatile* p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedDecrement(LONG volatile* p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchange(LONG volatile* p, LONG v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
