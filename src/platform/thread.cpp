// Threads: CreateThread, thread handles, thread ids and thread priorities.
//
// A thread handle refers to a ThreadObject shared by the handle table and the
// running thread. The handle is signalled when the start routine returns and
// stays valid until CloseHandle, whether the thread is
// still running or not. The pthread behind it is reclaimed by whoever drops
// the last reference: the thread itself detaches when its handle was closed
// first; otherwise the last CloseHandle (or a wait still holding the object)
// joins it, which cannot block for long because the thread has already given
// up its own reference on its way out.
//
// Priorities: Windows has per-thread priorities a process may raise freely;
// Linux has per-thread nice values, and an unprivileged process may only make
// them larger (lower priority). So the Windows value is kept per thread and
// reported back exactly as set, while the scheduler is asked only for what an
// unprivileged process may do: a priority below normal raises the thread's nice
// value above the process's (BELOW_NORMAL +5, LOWEST +10, IDLE 19); normal and
// above ask for the process's own nice value again, which Linux refuses without
// RLIMIT_NICE or CAP_SYS_NICE once the thread was lowered. Those refusals are
// not errors. The database lock does not depend on raised priorities: its
// critical section uses priority inheritance instead.
//
// There is no TerminateThread: Linux has no safe way to kill one thread of a
// process (pthread_cancel unwinds only at cancellation points and leaves locks
// and heap state of the cancelled thread behind). Threads end by returning;
// the notification thread is stopped by its stop record and then waited for.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "internal.h"

using vorn::rt::Fail;

namespace {

constexpr int kNiceUnknown = INT_MIN;
constexpr int kNiceMax = 19;

// A thread's Windows priority and the nice value this runtime last saw or gave
// it (kNiceUnknown before the first change).
struct PriorityState {
    int priority = THREAD_PRIORITY_NORMAL;
    int appliedNice = kNiceUnknown;
};

bool IsValidPriority(int priority) {
    return priority == THREAD_PRIORITY_IDLE || priority == THREAD_PRIORITY_TIME_CRITICAL ||
           (priority >= THREAD_PRIORITY_LOWEST && priority <= THREAD_PRIORITY_HIGHEST);
}

// The nice value of the process (of its main thread) when the runtime first
// needed it: what "normal priority" means for every thread.
int ProcessNice() {
    static const int nice = [] {
        errno = 0;
        int value = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
        return errno == 0 ? value : 0;
    }();
    return nice;
}

int NiceFor(int priority) {
    int offset = 0;
    if (priority == THREAD_PRIORITY_IDLE)
        offset = kNiceMax;
    else if (priority < THREAD_PRIORITY_NORMAL)
        offset = -5 * priority;
    return std::min(kNiceMax, ProcessNice() + offset);
}

// Records `priority` for the thread `tid` and moves its nice value towards the
// one for that priority as far as Linux allows; see the file comment.
void ApplyPriority(PriorityState& state, pid_t tid, int priority) {
    state.priority = priority;
    if (state.appliedNice == kNiceUnknown) {
        errno = 0;
        int current = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
        if (errno != 0) return;
        state.appliedNice = current;
    }
    int target = NiceFor(priority);
    if (target != state.appliedNice && setpriority(PRIO_PROCESS, static_cast<id_t>(tid), target) == 0)
        state.appliedNice = target;
    // Otherwise EPERM/EACCES: raising is refused to an unprivileged process and
    // the thread keeps the nice value it has.
}

pid_t CurrentTid() {
    static VORN_RT_THREAD_LOCAL const pid_t tid = gettid();
    return tid;
}

class ThreadObject;

// The ThreadObject of the calling thread when this runtime started it.
VORN_RT_THREAD_LOCAL ThreadObject* tCurrentThread = nullptr;
// Set by a thread's entry just before it drops its own reference, so that the
// destructor knows it runs on the thread it stands for.
VORN_RT_THREAD_LOCAL ThreadObject* tExitingThread = nullptr;
// Priority of a thread this runtime did not start (the main thread and others).
VORN_RT_THREAD_LOCAL PriorityState tForeignPriority;

class ThreadObject final : public vorn::rt::WaitableObject {
public:
    static constexpr vorn::rt::ObjectKind kKind = vorn::rt::ObjectKind::Thread;

    ThreadObject(LPTHREAD_START_ROUTINE routine, LPVOID parameter)
        : WaitableObject(kKind), routine_(routine), parameter_(parameter) {}

    ~ThreadObject() override {
        if (tExitingThread == this)
            pthread_detach(pthread_self());
        else if (created_)
            pthread_join(thread_, nullptr);
    }

    // Starts the thread and waits until it has recorded its id. 0 or the
    // pthread_create error.
    static int Start(const std::shared_ptr<ThreadObject>& self, SIZE_T stackSize) {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        size_t defaultSize = 0;
        // Windows commits a small stack and grows it; here the stack is fixed,
        // so a request only ever enlarges the default.
        if (stackSize != 0 && pthread_attr_getstacksize(&attr, &defaultSize) == 0 && stackSize > defaultSize) {
            size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
            pthread_attr_setstacksize(&attr, (stackSize + page - 1) / page * page);
        }
        auto* arg = new std::shared_ptr<ThreadObject>(self);
        int err = pthread_create(&self->thread_, &attr, &ThreadObject::Main, arg);
        pthread_attr_destroy(&attr);
        if (err != 0) {
            delete arg;
            return err;
        }
        self->created_ = true;
        std::unique_lock lock(self->mutex_);
        self->cv_.wait(lock, [&] { return self->tid_ != 0; });
        return 0;
    }

    DWORD id() {
        std::lock_guard lock(mutex_);
        return static_cast<DWORD>(tid_);
    }

    int Priority() {
        std::lock_guard lock(mutex_);
        return priority_.priority;
    }

    void SetPriority(int priority) {
        std::lock_guard lock(mutex_);
        if (finished_)
            priority_.priority = priority;  // the tid may already belong to another thread
        else
            ApplyPriority(priority_, tid_, priority);
    }

private:
    static void* Main(void* arg) {
        std::shared_ptr<ThreadObject> self = std::move(*static_cast<std::shared_ptr<ThreadObject>*>(arg));
        delete static_cast<std::shared_ptr<ThreadObject>*>(arg);
        {
            std::lock_guard lock(self->mutex_);
            self->tid_ = CurrentTid();
            // A Linux thread inherits its creator's nice value; a Windows
            // thread starts at normal priority.
            ApplyPriority(self->priority_, self->tid_, THREAD_PRIORITY_NORMAL);
            self->cv_.notify_all();
        }
        tCurrentThread = self.get();
        self->routine_(self->parameter_);
        tCurrentThread = nullptr;
        {
            std::lock_guard lock(self->mutex_);
            self->finished_ = true;
            self->cv_.notify_all();
        }
        tExitingThread = self.get();
        self.reset();
        tExitingThread = nullptr;
        return nullptr;
    }

    bool ConsumeSignalLocked() override { return finished_; }

    const LPTHREAD_START_ROUTINE routine_;
    const LPVOID parameter_;
    pthread_t thread_{};
    bool created_ = false;  // set by CreateThread before it hands out the handle
    // Guarded by mutex_:
    pid_t tid_ = 0;
    bool finished_ = false;
    PriorityState priority_;
};

}  // namespace

VORNAPI HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress,
                                   LPVOID lpParameter, DWORD dwCreationFlags, LPDWORD lpThreadId) {
    if (!lpStartAddress) return Fail(ERROR_INVALID_PARAMETER, HANDLE{nullptr});
    if (dwCreationFlags & CREATE_SUSPENDED) return Fail(ERROR_NOT_SUPPORTED, HANDLE{nullptr});
    try {
        auto thread = std::make_shared<ThreadObject>(lpStartAddress, lpParameter);
        // Registered before the thread starts, so that a failure to register
        // cannot leave a thread running that the caller was told never started.
        HANDLE handle = vorn::rt::InsertHandle(thread);
        if (int err = ThreadObject::Start(thread, dwStackSize)) {
            vorn::rt::CloseObjectHandle(handle, false);
            return Fail(err == EAGAIN ? ERROR_NOT_ENOUGH_MEMORY : vorn::rt::Win32ErrorFromErrno(err), HANDLE{nullptr});
        }
        if (lpThreadId) *lpThreadId = thread->id();
        return handle;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, HANDLE{nullptr});
    }
}

VORNAPI HANDLE WINAPI GetCurrentThread() { return vorn::rt::CurrentThreadPseudoHandle(); }

VORNAPI DWORD WINAPI GetCurrentThreadId() { return static_cast<DWORD>(CurrentTid()); }

VORNAPI int WINAPI GetThreadPriority(HANDLE hThread) {
    if (hThread == vorn::rt::CurrentThreadPseudoHandle())
        return tCurrentThread ? tCurrentThread->Priority() : tForeignPriority.priority;
    auto thread = vorn::rt::ReferenceHandleAs<ThreadObject>(hThread);
    return thread ? thread->Priority() : THREAD_PRIORITY_ERROR_RETURN;
}

// Accepts the Windows priority levels IDLE, LOWEST..HIGHEST and TIME_CRITICAL;
// others fail with ERROR_INVALID_PARAMETER. Succeeds even where the scheduler
// refuses the matching change (see the file comment).
VORNAPI BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority) {
    if (!IsValidPriority(nPriority)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (hThread == vorn::rt::CurrentThreadPseudoHandle()) {
        if (tCurrentThread)
            tCurrentThread->SetPriority(nPriority);
        else
            ApplyPriority(tForeignPriority, CurrentTid(), nPriority);
        return TRUE;
    }
    auto thread = vorn::rt::ReferenceHandleAs<ThreadObject>(hThread);
    if (!thread) return FALSE;
    thread->SetPriority(nPriority);
    return TRUE;
}
