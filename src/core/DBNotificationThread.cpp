// The notification thread, its queue and the notification critical section:
// see DBNotificationThread.h.
#include "core/DBNotificationThread.h"

#include <mutex>
#include <new>
#include <utility>

#include "core/ComError.h"

namespace vorn {

namespace {

// Enters a critical section for the lifetime of the object.
class SectionGuard {
public:
    explicit SectionGuard(CRITICAL_SECTION& cs) noexcept : cs_(cs) { EnterCriticalSection(&cs_); }
    SectionGuard(const SectionGuard&) = delete;
    SectionGuard& operator=(const SectionGuard&) = delete;
    ~SectionGuard() { LeaveCriticalSection(&cs_); }

private:
    CRITICAL_SECTION& cs_;
};

void CopyData(VARIANT& dest, const VARIANT& source) {
    VariantInit(&dest);
    ThrowIfFailed(VariantCopy(&dest, &source), "cannot copy the notification data");
}

void ClearData(VARIANT& data) noexcept { VariantClear(&data); }

// Tells a sink that one of its queued notifications is dropped. The answer
// is not used; the sink may record the drop.
void AskFileName(IDBNotification* sink) noexcept {
    BSTR name = nullptr;
    sink->GetCallbackFileName(&name);
    SysFreeString(name);
}

inline void CpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// How often the thread looks at an empty queue before it goes to sleep: a
// steady stream of writes then finds it awake, and writers need not wake it.
constexpr int kSpinsBeforeSleep = 2000;

std::mutex g_attachMutex;
ULONG g_attachCount = 0;  // guarded by g_attachMutex

}  // namespace

// ---------------------------------------------------------------------------
// CWaitEvent
// ---------------------------------------------------------------------------
CWaitEvent* CWaitEvent::Create() noexcept {
    HANDLE event = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    if (!event) return nullptr;
    auto* wait = new (std::nothrow) CWaitEvent(event);
    if (!wait) CloseHandle(event);
    return wait;
}

void CWaitEvent::Release() noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

CWaitEvent::~CWaitEvent() { CloseHandle(event_); }

// ---------------------------------------------------------------------------
// CDBThread
// ---------------------------------------------------------------------------
CDBThread::~CDBThread() {
    if (thread_ != INVALID_HANDLE_VALUE) CloseHandle(thread_);
}

bool CDBThread::Start() noexcept {
    running_.store(true);
    HANDLE thread = CreateThread(nullptr, 0, &CDBThread::Entry, this, 0, nullptr);
    if (!thread) {
        running_.store(false);
        return false;
    }
    thread_ = thread;
    return true;
}

void CDBThread::Join() noexcept {
    if (thread_ != INVALID_HANDLE_VALUE) WaitForSingleObject(thread_, INFINITE);
}

DWORD WINAPI CDBThread::Entry(LPVOID self) {
    auto* thread = static_cast<CDBThread*>(self);
    thread->Run();
    thread->running_.store(false);
    return 0;
}

// ---------------------------------------------------------------------------
// CDBNotificationThread
// ---------------------------------------------------------------------------
std::atomic<CDBNotificationThread*> CDBNotificationThread::s_instance{nullptr};

ULONG CDBNotificationThread::Attach() {
    std::lock_guard<std::mutex> lock(g_attachMutex);
    if (g_attachCount == 0) s_instance.store(new CDBNotificationThread(), std::memory_order_release);
    return ++g_attachCount;
}

ULONG CDBNotificationThread::Detach() noexcept {
    CDBNotificationThread* doomed = nullptr;
    ULONG left = 0;
    {
        std::lock_guard<std::mutex> lock(g_attachMutex);
        if (g_attachCount == 0) return 0;
        left = --g_attachCount;
        if (left == 0) doomed = s_instance.exchange(nullptr, std::memory_order_acq_rel);
    }
    // Joining outside the mutex: a sink served meanwhile may attach anew.
    delete doomed;
    return left;
}

CDBNotificationThread::CDBNotificationThread() {
    InitializeCriticalSection(&guard_);
    wake_ = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    startup_ = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    bool started = wake_ && startup_ && Start();
    if (started && WaitForSingleObject(startup_, kStartTimeoutMs) != WAIT_OBJECT_0) {
        StopAndJoin();
        started = false;
    }
    if (startup_) CloseHandle(startup_);
    startup_ = INVALID_HANDLE_VALUE;
    if (!started) {
        if (wake_) CloseHandle(wake_);
        DeleteCriticalSection(&guard_);
        ThrowHr(E_FAIL, "the notification thread did not start");
    }
    SetThreadPriority(thread_, THREAD_PRIORITY_HIGHEST);
}

CDBNotificationThread::~CDBNotificationThread() {
    StopAndJoin();
    // Nothing is queued after the stop record in normal use; whatever is
    // left is dropped without delivery.
    for (Record& record : queue_) Discard(record);
    queue_.clear();
    DeleteCriticalSection(&guard_);
    CloseHandle(wake_);
}

void CDBNotificationThread::StopAndJoin() noexcept {
    Record stop{1, kStop, nullptr, nullptr, {}};
    try {
        Append(stop);
    } catch (...) {
        // No room for the stop record: the thread stops at the first empty
        // queue instead, which is after everything queued so far too.
        abandon_.store(true);
        SetEvent(wake_);
    }
    Join();
}

void CDBNotificationThread::Append(const Record& record) {
    bool wake = false;
    {
        SectionGuard guard(guard_);
        queue_.push_back(record);
        size_.store(static_cast<ULONG>(queue_.size()), std::memory_order_relaxed);
        wake = std::exchange(sleeping_, false);
    }
    if (wake) SetEvent(wake_);
}

void CDBNotificationThread::Discard(Record& record) noexcept {
    if (record.sink) {
        if (record.kind == kWaitMarker)
            static_cast<CWaitEvent*>(record.sink)->Release();
        else
            static_cast<IDBNotification*>(record.sink)->Release();
        record.sink = nullptr;
    }
    ClearData(record.data);
}

void CDBNotificationThread::Enqueue(IDBNotification* sink, IUnknown* object, const VARIANT& data) {
    Record record{1, sequence_.load(std::memory_order_relaxed), sink, object, {}};
    CopyData(record.data, data);
    sink->AddRef();
    try {
        Append(record);
    } catch (...) {
        Discard(record);
        throw;
    }
    // Not atomic as a whole on purpose: two writers at once may take the
    // same stamp, which nothing depends on.
    DWORD next = sequence_.load(std::memory_order_relaxed) + 1;
    if (next >= kStampLimit) next = kFirstStamp;
    sequence_.store(next, std::memory_order_relaxed);
}

void CDBNotificationThread::PostWaitMarker(CWaitEvent* event) {
    event->AddRef();
    Record marker{0, kWaitMarker, event, nullptr, {}};
    try {
        Append(marker);
    } catch (...) {
        event->Release();
        throw;
    }
}

ULONG CDBNotificationThread::Purge(IDBNotification* sink, IUnknown* object) noexcept {
    ULONG count = 0;
    SectionGuard guard(guard_);
    for (Record& record : queue_) {
        if (record.live && record.sink == sink && (!object || record.object == object)) {
            AskFileName(sink);
            ++count;
            record.sink = nullptr;
        }
    }
    return count;
}

ULONG CDBNotificationThread::PendingFor(IUnknown* object) noexcept {
    ULONG count = 0;
    SectionGuard guard(guard_);
    for (const Record& record : queue_)
        if (record.object == object) ++count;
    return count;
}

void CDBNotificationThread::Clear() noexcept {
    std::deque<Record> taken;
    {
        SectionGuard guard(guard_);
        for (Record& record : queue_)
            if (record.live && record.kind != kWaitMarker && record.sink)
                AskFileName(static_cast<IDBNotification*>(record.sink));
        taken.swap(queue_);
        size_.store(0, std::memory_order_relaxed);
    }
    // References are let go outside the guard: a sink's last release may
    // call back into the database.
    for (Record& record : taken) Discard(record);
}

std::vector<DWORD> CDBNotificationThread::QueuedKinds() {
    std::vector<DWORD> kinds;
    SectionGuard guard(guard_);
    kinds.reserve(queue_.size());
    for (const Record& record : queue_) kinds.push_back(record.kind);
    return kinds;
}

bool CDBNotificationThread::TakeFront(Record& record) noexcept {
    {
        SectionGuard guard(guard_);
        if (!queue_.empty()) return PopFront(record);
    }
    for (int i = 0; i < kSpinsBeforeSleep; ++i) {
        if (size_.load(std::memory_order_relaxed) != 0 || abandon_.load(std::memory_order_relaxed)) break;
        CpuRelax();
    }
    {
        SectionGuard guard(guard_);
        if (!queue_.empty()) return PopFront(record);
        if (abandon_.load()) {
            record = Record{1, kStop, nullptr, nullptr, {}};
            return true;
        }
        sleeping_ = true;
    }
    WaitForSingleObject(wake_, INFINITE);
    return false;
}

bool CDBNotificationThread::PopFront(Record& record) noexcept {
    record = queue_.front();
    queue_.pop_front();
    size_.store(static_cast<ULONG>(queue_.size()), std::memory_order_relaxed);
    return true;
}

void CDBNotificationThread::Run() {
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    SetEvent(startup_);
    for (;;) {
        Record record{};
        if (!TakeFront(record)) continue;
        if (record.kind == kStop) {
            ClearData(record.data);
            break;
        }
        if (record.sink) {
            if (record.kind == kWaitMarker) {
                SetEvent(static_cast<CWaitEvent*>(record.sink)->Handle());
            } else if (!Suppressed()) {
                try {
                    static_cast<IDBNotification*>(record.sink)->CallbackWithData(record.object, record.data);
                } catch (...) {
                    // A sink must not throw; the notification is lost, the
                    // thread goes on.
                }
            }
        }
        Discard(record);
    }
    if (SUCCEEDED(init)) CoUninitialize();
}

// ---------------------------------------------------------------------------
// The notification critical section
// ---------------------------------------------------------------------------
namespace {

// Initialised on first use and never deleted, so that it is valid whenever
// any tree object exists. Static storage of a plain struct: nothing to free
// when the module is unloaded.
CRITICAL_SECTION& NotificationSection() {
    static CRITICAL_SECTION section;
    [[maybe_unused]] static const bool initialised = (InitializeCriticalSection(&section), true);
    return section;
}

}  // namespace

CNotificationSectionLock::~CNotificationSectionLock() {
    if (entered_) LeaveCriticalSection(&NotificationSection());
}

void CNotificationSectionLock::Enter() noexcept {
    if (entered_) return;
    EnterCriticalSection(&NotificationSection());
    entered_ = true;
}

}  // namespace vorn
