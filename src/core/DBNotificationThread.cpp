// The notification thread, its queue and the notification critical section:
// see DBNotificationThread.h.
#include "core/DBNotificationThread.h"

#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "core/ComError.h"

namespace vorn {

namespace {

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

bool CDBThread::OnThread() const noexcept { return GetCurrentThreadId() == threadId_.load(std::memory_order_acquire); }

bool CDBThread::Start() noexcept {
    DWORD id = 0;
    HANDLE thread = CreateThread(nullptr, 0, &CDBThread::Entry, this, 0, &id);
    if (!thread) return false;
    thread_ = thread;
    threadId_.store(id, std::memory_order_release);
    return true;
}

void CDBThread::Join() noexcept {
    if (thread_ != INVALID_HANDLE_VALUE) WaitForSingleObject(thread_, INFINITE);
}

DWORD WINAPI CDBThread::Entry(LPVOID self) {
    // Run may delete the object as its last act: nothing touches it after.
    static_cast<CDBThread*>(self)->Run();
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
    // Stopped outside the mutex: a sink released meanwhile may attach anew.
    // The last detach may come from a sink on the thread itself (a callback
    // holding the last reference to the database): the thread cannot wait
    // for itself, so it is told to stop and deletes itself when its callback
    // has returned.
    if (doomed && doomed->OnThread()) {
        doomed->deleteOnExit_ = true;
        doomed->stopping_.store(true, std::memory_order_release);
    } else {
        delete doomed;
    }
    return left;
}

CDBNotificationThread::CDBNotificationThread() {
    DWORD limit = 0;
    DWORD size = sizeof limit;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, kSettingsKey, kBacklogLimitValue, RRF_RT_REG_DWORD, nullptr, &limit, &size) ==
        ERROR_SUCCESS)
        SetBacklogLimit(limit);
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
    if (!OnThread()) StopAndJoin();
    DropRest();
    DeleteCriticalSection(&guard_);
    CloseHandle(wake_);
}

void CDBNotificationThread::SetBacklogLimit(ULONG limit) noexcept {
    CriticalSectionLock guard(guard_);
    backlogLimit_ = std::max<ULONG>(limit, 1);
}

void CDBNotificationThread::StopAndJoin() noexcept {
    stopping_.store(true, std::memory_order_release);
    SetEvent(wake_);
    Join();
}

void CDBNotificationThread::DropRest() noexcept {
    // Whatever the thread did not pass is dropped without delivery; a
    // purged record's reference is owed by the purger's caller.
    for (std::size_t i = next_.load(); i < inflight_.size(); ++i) Discard(inflight_[i]);
    inflight_.clear();
    for (Record& record : pending_) Discard(record);
    pending_.clear();
}

void CDBNotificationThread::Discard(Record& record) noexcept {
    if (record.sink && record.state != kPurged) {
        if (record.kind == kWaitMarker)
            static_cast<CWaitEvent*>(record.sink)->Release();
        else
            static_cast<IDBNotification*>(record.sink)->Release();
    }
    record.sink = nullptr;
    ClearData(record.data);
}

template <class T>
T& CDBNotificationThread::TallyOf(std::unordered_map<const void*, std::unique_ptr<T>>& tallies, const void* key) {
    std::unique_ptr<T>& slot = tallies[key];
    if (!slot) {
        slot = std::make_unique<T>();
        slot->clearEpoch = clearEpoch_;
    }
    T& tally = *slot;
    // Everything appended before a clear is cleared: the records the thread
    // has not passed yet no longer count as queued.
    if (tally.clearEpoch != clearEpoch_) {
        tally.clearEpoch = clearEpoch_;
        tally.clearedBase = tally.appended;
    }
    return tally;
}

CDBNotificationThread::Record& CDBNotificationThread::At(ULONGLONG position) noexcept {
    if (position >= pendingBase_) return pending_[position - pendingBase_];
    return inflight_[position - inflightBase_];
}

ULONGLONG CDBNotificationThread::Front() const noexcept {
    const ULONGLONG passed = inflightBase_ + next_.load(std::memory_order_acquire);
    return std::max(passed, clearMark_.load(std::memory_order_relaxed));
}

void CDBNotificationThread::TrimPositions(SinkTally& tally) noexcept {
    // Positions the thread has passed are dropped whenever the list has
    // doubled since the last trim: amortised constant work per record, and
    // a list within twice the sink's records in the queue.
    std::vector<ULONGLONG>& positions = tally.positions;
    if (positions.size() < 2 * std::max<std::size_t>(tally.sizeAfterTrim, 32)) return;
    positions.erase(positions.begin(), std::lower_bound(positions.begin(), positions.end(), Front()));
    tally.sizeAfterTrim = positions.size();
}

namespace {

// Variant types whose value is all in the VARIANT's eight value bytes.
bool ValueInline(VARTYPE vt) noexcept {
    static constexpr VARTYPE kInline[] = {VT_EMPTY, VT_NULL, VT_I2,  VT_I4,  VT_R4,  VT_R8, VT_CY,  VT_DATE, VT_ERROR,
                                          VT_BOOL,  VT_I1,   VT_UI1, VT_UI2, VT_UI4, VT_I8, VT_UI8, VT_INT,  VT_UINT};
    return std::find(std::begin(kInline), std::end(kInline), vt) != std::end(kInline);
}

// Notification data are alike when they have the same type and, for
// strings and values held inline, the same content. Other kinds (arrays,
// interfaces) are alike by type alone: each copy is a new allocation, and
// telling them apart would let them escape coalescing.
std::size_t DataHash(const VARIANT& data) noexcept {
    std::size_t hash = data.vt;
    if (data.vt == VT_BSTR && data.bstrVal)
        hash ^= std::hash<std::string_view>{}(
            std::string_view(reinterpret_cast<const char*>(data.bstrVal), SysStringByteLen(data.bstrVal)));
    else if (ValueInline(data.vt))
        hash ^= std::hash<ULONGLONG>{}(data.ullVal);
    return hash;
}

bool DataAlike(const VARIANT& a, const VARIANT& b) noexcept {
    if (a.vt != b.vt) return false;
    if (a.vt == VT_BSTR) {
        const UINT n = SysStringByteLen(a.bstrVal);
        return n == SysStringByteLen(b.bstrVal) && (n == 0 || std::memcmp(a.bstrVal, b.bstrVal, n) == 0);
    }
    return !ValueInline(a.vt) || a.ullVal == b.ullVal;
}

}  // namespace

bool CDBNotificationThread::Coalesce(Record& record, std::size_t key) {
    SinkTally& tally = *record.sinkTally;
    // The writers' view of the thread's progress is refreshed only when it
    // says the sink is over its limit, so that a sink within it costs the
    // writer no look at a line the thread writes.
    auto backlog = [&] { return tally.appended - std::max(tally.passedSeen, tally.clearedBase); };
    if (backlog() < backlogLimit_) return false;
    tally.passedSeen = tally.passed.load(std::memory_order_acquire);
    if (backlog() < backlogLimit_) return false;

    // Only a record of the pending part can stand for the new one: the
    // thread may be delivering an in-flight record this moment, from a value
    // read before this change.
    auto found = tally.latest.find(key);
    const ULONGLONG back = pendingBase_ + pending_.size();
    if (found != tally.latest.end() && found->second >= std::max(pendingBase_, clearMark_.load()) &&
        found->second < back) {
        const Record& stand = At(found->second);
        if (stand.state == kQueued && stand.object == record.object && DataAlike(stand.data, record.data)) {
            coalesced_.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
    }
    tally.latest[key] = back;
    return false;
}

void CDBNotificationThread::Append(Record& record) {
    bool wake = false;
    {
        CriticalSectionLock guard(guard_);
        if (record.kind != kWaitMarker) {
            IDBNotification* sink = static_cast<IDBNotification*>(record.sink);
            SinkTally& sinkTally = TallyOf(sinkTallies_, sink);
            Tally& objectTally = TallyOf(objectTallies_, record.object);
            record.sinkTally = &sinkTally;
            record.objectTally = &objectTally;
            if (Coalesce(record, DataHash(record.data) ^ std::hash<const void*>{}(record.object))) {
                record.sink = nullptr;  // tells the caller to let go of it
                return;
            }
            TrimPositions(sinkTally);
            pending_.push_back(record);
            try {
                sinkTally.positions.push_back(pendingBase_ + pending_.size() - 1);
            } catch (...) {
                pending_.pop_back();
                throw;
            }
            ++sinkTally.appended;
            ++objectTally.appended;
        } else {
            pending_.push_back(record);
        }
        // The queue's length, or more: the in-flight records already passed
        // are counted until the exact figure is needed.
        const ULONGLONG back = pendingBase_ + pending_.size();
        if (back - std::max(inflightBase_, clearMark_.load()) > highWater_)
            highWater_ = std::max<ULONG>(highWater_, static_cast<ULONG>(back - Front()));
        wake = std::exchange(sleeping_, false);
    }
    // Counted after the guard is left, so that a thread spinning on the
    // count does not come for the guard while this writer still holds it.
    pendingCount_.fetch_add(1, std::memory_order_relaxed);
    if (wake) SetEvent(wake_);
}

void CDBNotificationThread::Enqueue(IDBNotification* sink, IUnknown* object, const VARIANT& data) {
    Record record{sequence_.load(std::memory_order_relaxed), sink, object, {}, kQueued, nullptr, nullptr};
    CopyData(record.data, data);
    sink->AddRef();
    try {
        Append(record);
    } catch (...) {
        Discard(record);
        throw;
    }
    if (!record.sink) {
        // Coalesced: the record was not queued.
        sink->Release();
        ClearData(record.data);
        return;
    }
    // Not atomic as a whole on purpose: two writers at once may take the
    // same stamp, which nothing depends on.
    DWORD next = sequence_.load(std::memory_order_relaxed) + 1;
    if (next >= kStampLimit) next = kFirstStamp;
    sequence_.store(next, std::memory_order_relaxed);
}

void CDBNotificationThread::PostWaitMarker(CWaitEvent* event) {
    event->AddRef();
    Record record{kWaitMarker, event, nullptr, {}, kQueued, nullptr, nullptr};
    try {
        Append(record);
    } catch (...) {
        event->Release();
        throw;
    }
}

namespace {

std::atomic_ref<LONG> State(LONG& state) noexcept { return std::atomic_ref<LONG>(state); }

}  // namespace

ULONG CDBNotificationThread::Purge(IDBNotification* sink, IUnknown* object) noexcept {
    ULONG count = 0;
    CriticalSectionLock guard(guard_);
    auto found = sinkTallies_.find(sink);
    if (found == sinkTallies_.end()) return 0;
    SinkTally& tally = *found->second;
    const ULONGLONG front = Front();
    const auto& positions = tally.positions;
    for (auto at = std::lower_bound(positions.begin(), positions.end(), front); at != positions.end(); ++at) {
        Record& record = At(*at);
        if (record.sink != sink || (object && record.object != object)) continue;
        // Lost to the thread or purged before: not this purge's record.
        LONG queued = kQueued;
        if (!State(record.state).compare_exchange_strong(queued, kPurged)) continue;
        AskFileName(sink);
        ++count;
    }
    return count;
}

ULONG CDBNotificationThread::PendingFor(IUnknown* object) noexcept {
    CriticalSectionLock guard(guard_);
    auto found = objectTallies_.find(object);
    return found == objectTallies_.end() ? 0 : TallyOf(objectTallies_, object).Queued();
}

ULONG CDBNotificationThread::QueueSize() noexcept {
    CriticalSectionLock guard(guard_);
    return static_cast<ULONG>(pendingBase_ + pending_.size() - Front());
}

QueueFigures CDBNotificationThread::Figures() noexcept {
    CriticalSectionLock guard(guard_);
    const auto depth = static_cast<ULONG>(pendingBase_ + pending_.size() - Front());
    return {depth, std::max(highWater_, depth), coalesced_.load(), backlogLimit_};
}

std::vector<DWORD> CDBNotificationThread::QueuedKinds() {
    std::vector<DWORD> kinds;
    CriticalSectionLock guard(guard_);
    for (ULONGLONG at = Front(), back = pendingBase_ + pending_.size(); at < back; ++at) kinds.push_back(At(at).kind);
    return kinds;
}

void CDBNotificationThread::Clear() noexcept {
    CriticalSectionLock guard(guard_);
    clearMark_.store(pendingBase_ + pending_.size(), std::memory_order_release);
    ++clearEpoch_;
}

void CDBNotificationThread::SweepTallies() noexcept {
    // Between batches every in-flight record has been passed, so a tally
    // whose records have all been passed is referred to by none.
    if (sinkTallies_.size() + objectTallies_.size() <= 2 * talliesAfterSweep_ + 256) return;
    auto sweep = [](auto& tallies) {
        std::erase_if(tallies, [](const auto& entry) {
            return entry.second->passed.load(std::memory_order_relaxed) == entry.second->appended;
        });
    };
    sweep(sinkTallies_);
    sweep(objectTallies_);
    talliesAfterSweep_ = sinkTallies_.size() + objectTallies_.size();
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
    auto stopping = [&] { return stopping_.load(std::memory_order_acquire); };
    if (lookLater) waitToLook();
    while (now < sleepAt && pendingCount_.load(std::memory_order_relaxed) == 0 && !stopping()) waitToLook();

    CriticalSectionLock guard(guard_);
    if (stopping()) return Take::kStop;
    inflightBase_ += inflight_.size();
    inflight_.clear();  // every record in it was passed and emptied
    next_.store(0, std::memory_order_relaxed);
    SweepTallies();
    if (!pending_.empty()) {
        inflight_.swap(pending_);
        pendingBase_ += inflight_.size();
        pendingCount_.fetch_sub(static_cast<ULONG>(inflight_.size()), std::memory_order_relaxed);
        return Take::kBatch;
    }
    sleeping_ = true;
    return Take::kSleep;
}

void CDBNotificationThread::Pass(Record& record, ULONGLONG position) noexcept {
    const LONG state = State(record.state).exchange(kTaken, std::memory_order_acq_rel);
    const bool cleared = position < clearMark_.load(std::memory_order_acquire);
    if (record.kind == kWaitMarker) {
        auto* event = static_cast<CWaitEvent*>(record.sink);
        if (!cleared) SetEvent(event->Handle());
        event->Release();
    } else {
        if (state == kQueued) {
            auto* sink = static_cast<IDBNotification*>(record.sink);
            if (cleared) {
                AskFileName(sink);
            } else if (!Suppressed()) {
                try {
                    sink->CallbackWithData(record.object, record.data);
                } catch (...) {
                    // A sink must not throw; the notification is lost, the
                    // thread goes on.
                }
            }
            sink->Release();
        }
        record.sinkTally->passed.fetch_add(1, std::memory_order_release);
        record.objectTally->passed.fetch_add(1, std::memory_order_release);
    }
    ClearData(record.data);
}

bool CDBNotificationThread::DeliverBatch() noexcept {
    for (std::size_t i = 0; i < inflight_.size(); ++i) {
        if (stopping_.load(std::memory_order_acquire)) return false;
        // The records were written on the writers' processors: asking for
        // a few ahead overlaps the transfers of their cache lines.
        if (i + kPrefetchAhead < inflight_.size()) __builtin_prefetch(&inflight_[i + kPrefetchAhead], 1);
        // Out of the queue before its callback, as a record popped off it.
        next_.store(i + 1, std::memory_order_release);
        Pass(inflight_[i], inflightBase_ + i);
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
    if (deleteOnExit_) delete this;
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

void CNotificationSectionLock::Enter() noexcept {
    if (!lock_) lock_.emplace(NotificationSection());
}

}  // namespace vorn
