// CDatabaseLock: see DatabaseLock.h.
#include "core/DatabaseLock.h"

#include "core/ComError.h"

namespace vorn {

namespace {

// The process-wide critical section, initialised on first use and never
// deleted (locks may still be taken while static objects are destroyed).
// Static storage of a plain struct: nothing to free when the module is
// unloaded.
CRITICAL_SECTION& DatabaseSection() {
    static CRITICAL_SECTION section;
    [[maybe_unused]] static const bool initialised =
        InitializeCriticalSectionEx(&section, 0, VORN_CRITICAL_SECTION_PRIORITY_INHERIT) ||
        (InitializeCriticalSection(&section), true);
    return section;
}

[[noreturn]] void ThrowLastError(const char* reason) {
    const DWORD error = GetLastError();
    ThrowHr(error ? HRESULT_FROM_WIN32(error) : E_FAIL, reason);
}

}  // namespace

CDatabaseLock::CDatabaseLock() : savedPriority_(GetThreadPriority(GetCurrentThread())), held_(false) {
    if (savedPriority_ == THREAD_PRIORITY_ERROR_RETURN) ThrowLastError("cannot read the thread priority");
    if (savedPriority_ < THREAD_PRIORITY_HIGHEST && !SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST))
        ThrowLastError("cannot raise the thread priority");
    EnterCriticalSection(&DatabaseSection());
    held_ = true;
}

CDatabaseLock::~CDatabaseLock() {
    try {
        Release();
    } catch (const ComError&) {
        // The lock itself is left; only the priority could not be restored.
    }
}

void CDatabaseLock::Release() {
    if (!held_) return;
    held_ = false;
    LeaveCriticalSection(&DatabaseSection());
    // Only a raised priority needs restoring; an inner lock of a nested pair
    // saved the raised value and leaves it for the outer one.
    if (savedPriority_ < THREAD_PRIORITY_HIGHEST && !SetThreadPriority(GetCurrentThread(), savedPriority_))
        ThrowLastError("cannot restore the thread priority");
}

}  // namespace vorn
