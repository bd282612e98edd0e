// The notification thread, its queue and the notification critical section:
// see DBNotificationThread.h.
#include "core/DBNotificationThread.h"

#include <chrono>
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

// An idle thread looks at the queue's count every kLookInterval, and goes to
// sleep after kSpinBeforeSleep without finding anything: a steady stream of
// writes then finds it awake, so writers need not wake it. Looking only now
// and then, rather than all the time, lets a busy writer append several
// records while the guard and the queue stay in its own cache; every look and
// every take moves them to the thread's cache and back, which costs the
// writer far more than the append itself.
constexpr auto kLookInterval = std::chrono::microseconds(2);
constexpr auto kSpinBeforeSleep = std::chrono::microseconds(100);

// How many records ahead the thread prefetches as it works through a batch.
constexpr std::size_t kPrefetchAhead = 4;

// Writers and the thread hold the guard only for a few stores: spinning on it
// is far cheaper than sleeping in the kernel.
constexpr DWORD kGuardSpinCount = 4000;

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
    InitializeCriticalSectionAndSpinCount(&guard_, kGuardSpinCount);
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
    for (std::size_t i = next_.load(); i < inflight_.size(); ++i) Discard(inflight_[i]);
    for (Record& record : pending_) Discard(record);
    DeleteCriticalSection(&guard_);
    CloseHandle(wake_);
}

void CDBNotificationThread::StopAndJoin() noexcept {
    try {
        Append(Record{1, kStop, nullptr, nullptr, {}, kQueued});
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
        pending_.push_back(record);
        wake = std::exchange(sleeping_, false);
    }
    // Counted after the guard is left, so that a thread spinning on the
    // count does not come for the guard while this writer still holds it.
    pendingCount_.fetch_add(1, std::memory_order_relaxed);
    if (wake) SetEvent(wake_);
}

void CDBNotificationThread::Discard(Record& record) noexcept {
    if (record.sink && !(record.state & kPurged)) {
        if (record.kind == kWaitMarker)
            static_cast<CWaitEvent*>(record.sink)->Release();
        else
            static_cast<IDBNotification*>(record.sink)->Release();
    }
    record.sink = nullptr;
    ClearData(record.data);
}

void CDBNotificationThread::Enqueue(IDBNotification* sink, IUnknown* object, const VARIANT& data) {
    Record record{1, sequence_.load(std::memory_order_relaxed), sink, object, {}, kQueued};
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
    try {
        Append(Record{0, kWaitMarker, event, nullptr, {}, kQueued});
    } catch (...) {
        event->Release();
        throw;
    }
}

namespace {

std::atomic_ref<LONG> State(LONG& state) noexcept { return std::atomic_ref<LONG>(state); }

}  // namespace

template <class F>
void CDBNotificationThread::ForEachQueued(F f) {
    // Purged records stay in the queue, skipped; taken and cleared ones have
    // left it. The thread may take the next in-flight record meanwhile.
    auto queued = [](LONG& state) { return !(State(state).load(std::memory_order_acquire) & (kCleared | kTaken)); };
    for (std::size_t i = next_.load(std::memory_order_acquire); i < inflight_.size(); ++i)
        if (queued(inflight_[i].state)) f(inflight_[i]);
    for (Record& record : pending_)
        if (queued(record.state)) f(record);
}

ULONG CDBNotificationThread::Purge(IDBNotification* sink, IUnknown* object) noexcept {
    ULONG count = 0;
    SectionGuard guard(guard_);
    ForEachQueued([&](Record& record) {
        if (!record.live || record.sink != sink || (object && record.object != object)) return;
        // Lost to the thread or purged before: not this purge's record.
        LONG queued = kQueued;
        if (!State(record.state).compare_exchange_strong(queued, kPurged)) return;
        AskFileName(sink);
        ++count;
    });
    return count;
}

ULONG CDBNotificationThread::PendingFor(IUnknown* object) noexcept {
    ULONG count = 0;
    SectionGuard guard(guard_);
    ForEachQueued([&](const Record& record) { count += record.object == object; });
    return count;
}

ULONG CDBNotificationThread::QueueSize() noexcept {
    ULONG count = 0;
    SectionGuard guard(guard_);
    ForEachQueued([&](const Record&) { ++count; });
    return count;
}

std::vector<DWORD> CDBNotificationThread::QueuedKinds() {
    std::vector<DWORD> kinds;
    SectionGuard guard(guard_);
    ForEachQueued([&](const Record& record) { kinds.push_back(record.kind); });
    return kinds;
}

void CDBNotificationThread::Clear() noexcept {
    std::vector<Record> taken;
    {
        SectionGuard guard(guard_);
        // In-flight records stay where they are, marked: the thread releases
        // their references when it reaches them. Pending ones are taken out.
        ForEachQueued([&](Record& record) {
            if (record.kind != kStop && State(record.state).fetch_or(kCleared) == kQueued && record.kind != kWaitMarker)
                AskFileName(static_cast<IDBNotification*>(record.sink));
        });
        // The stop record must stay, and nothing is ever queued behind it:
        // with one at the back the marked records are left in place, for
        // the thread to release on its way to the stop.
        if (pending_.empty() || pending_.back().kind != kStop) {
            taken.swap(pending_);
            pendingCount_.fetch_sub(static_cast<ULONG>(taken.size()), std::memory_order_relaxed);
        }
    }
    // Pending records' references are let go outside the guard: a sink's
    // last release may call back into the database.
    for (Record& record : taken) Discard(record);
}

CDBNotificationThread::Take CDBNotificationThread::TakeBatch(bool lookLater) noexcept {
    // The queue is looked at through its count first: the guard is taken
    // only when there is something to take, so an idle thread does not
    // contend with writers for it.
    using Clock = std::chrono::steady_clock;
    Clock::time_point now = Clock::now();
    const Clock::time_point sleepAt = now + kSpinBeforeSleep;
    auto waitToLook = [&] {
        const Clock::time_point look = now + kLookInterval;
        while ((now = Clock::now()) < look) YieldProcessor();
    };
    if (lookLater) waitToLook();
    while (now < sleepAt && pendingCount_.load(std::memory_order_relaxed) == 0 &&
           !abandon_.load(std::memory_order_relaxed))
        waitToLook();

    SectionGuard guard(guard_);
    inflight_.clear();  // every record in it was taken and emptied
    next_.store(0, std::memory_order_relaxed);
    if (!pending_.empty()) {
        inflight_.swap(pending_);
        pendingCount_.fetch_sub(static_cast<ULONG>(inflight_.size()), std::memory_order_relaxed);
        return Take::kBatch;
    }
    if (abandon_.load()) return Take::kStop;
    sleeping_ = true;
    return Take::kSleep;
}

bool CDBNotificationThread::DeliverBatch() noexcept {
    for (std::size_t i = 0; i < inflight_.size(); ++i) {
        // The records were written on the writers' processors: asking for
        // a few ahead overlaps the transfers of their cache lines.
        if (i + kPrefetchAhead < inflight_.size()) __builtin_prefetch(&inflight_[i + kPrefetchAhead], 1);
        Record& record = inflight_[i];
        const LONG state = State(record.state).exchange(kTaken, std::memory_order_acq_rel);
        next_.store(i + 1, std::memory_order_release);
        if (record.kind == kStop) return false;
        if (record.kind == kWaitMarker) {
            auto* event = static_cast<CWaitEvent*>(record.sink);
            if (state == kQueued) SetEvent(event->Handle());
            event->Release();
        } else if (!(state & kPurged)) {
            auto* sink = static_cast<IDBNotification*>(record.sink);
            if (state == kQueued && !Suppressed()) {
                try {
                    sink->CallbackWithData(record.object, record.data);
                } catch (...) {
                    // A sink must not throw; the notification is lost, the
                    // thread goes on.
                }
            }
            sink->Release();  // a cleared record is only released
        }
        ClearData(record.data);
    }
    return true;
}

void CDBNotificationThread::Run() {
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    SetEvent(startup_);
    // Right after a batch the thread waits one look interval before it
    // looks again, so that writers busy meanwhile have the guard to
    // themselves for a while and the next batch is worth a take.
    bool lookLater = false;
    for (;;) {
        const Take take = TakeBatch(lookLater);
        if (take == Take::kStop) break;
        if (take == Take::kSleep) {
            WaitForSingleObject(wake_, INFINITE);
            lookLater = false;
            continue;
        }
        if (!DeliverBatch()) break;
        lookLater = true;
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
