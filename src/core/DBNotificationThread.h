// Queued change notification: the process-wide notification thread, its
// queue, and the notification critical section of immediate delivery.
//
// One CDBNotificationThread serves the whole process, shared by attach count:
// the first Attach makes and starts it, the last Detach stops it. Writers
// hand it records with Enqueue (one sink reference and a copy of the data per
// record); the thread calls each record's sink with CallbackWithData with no
// lock held, strictly in queue order, then releases the record's sink
// reference. While notifications are suppressed (the initial state) records
// are still taken and their sinks released, but nothing is called: they are
// dropped, not kept.
//
// Record kinds: a callback carries a sequence stamp 1024..2046 (cycling, not
// necessarily unique); a wait marker (2048) carries a CWaitEvent that the
// thread signals when it reaches it.
//
// The queue has two parts. Writers append to the pending part; the thread
// takes the whole pending part at once into its in-flight part and works
// through it without the guard, so that it and the writers meet at the guard
// once per batch rather than once per record. Both parts are the queue: every
// record has a position (its sequence number in the queue's life), and the
// queue is the positions from the first one the thread has not passed to the
// last appended. Each record's state says who has it: the thread takes a
// record by setting it to taken, Purge neutralises one by moving it from
// queued to purged, and whichever comes first wins.
//
// Every record passes through the thread, so every sink reference a record
// holds is released by the thread (or by the purger's caller) and by nobody
// else: Clear only moves the queue's clear mark to the back, and the thread
// drops the records below the mark as it passes them, asking their sinks for
// GetCallbackFileName and releasing them. Nobody calls a sink whose reference
// it does not hold.
//
// Counting: per sink and per object the queue keeps how many records were
// appended and how many the thread has passed, so that the queue's length,
// the records pending about an object and a sink's backlog are read in
// constant time; Purge looks only at the positions of the one sink's records.
//
// Overload: a sink's backlog (its records in the queue) is bounded. Beyond
// the limit (kDefaultBacklogLimit, or the registry value kBacklogLimitValue)
// a new record of the sink is coalesced with a pending record of the same
// sink, object and data: it is not appended, and the sink learns of the
// change when the pending record is delivered, reading the object's latest
// value. Coalesced records are counted. A sink's records are thus at most
// twice the limit plus its distinct (object, data) pairs.
//
// Shut-down is abrupt: the last Detach stops the thread after at most the
// callback in progress, and drops whatever is still queued, releasing every
// reference the dropped records hold, without delivery.
//
// Locks: the queue guard protects both parts' containers and the counts
// written by writers; it is taken after the database lock and the
// notification critical section, never before. The thread itself takes only
// the queue guard.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "vorn/database.h"

namespace vorn {

// The event of one IDatabase::WaitForNotifications call, shared by the
// waiting client and the wait marker in the queue. Whoever lets go last
// closes the event, so a marker that outlives its timed-out waiter signals
// an event that still exists, and nobody else's.
class CWaitEvent {
public:
    // A new auto-reset, non-signalled event with one reference, or null when
    // the event cannot be made.
    static CWaitEvent* Create() noexcept;
    void AddRef() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
    void Release() noexcept;
    HANDLE Handle() const noexcept { return event_; }

private:
    explicit CWaitEvent(HANDLE event) noexcept : event_(event) {}
    ~CWaitEvent();

    HANDLE event_;
    std::atomic<LONG> refs_{1};
};

// A worker thread run by a virtual Run.
class CDBThread {
public:
    CDBThread(const CDBThread&) = delete;
    CDBThread& operator=(const CDBThread&) = delete;
    // Closes the thread handle. The derived class must have ended and joined
    // the thread before (there is no forced termination on this platform).
    virtual ~CDBThread();
    virtual void Run() = 0;

protected:
    CDBThread() = default;
    // Starts a thread running Run(); false when it cannot be created.
    bool Start() noexcept;
    // Waits for the thread to return from Run (no-op when never started).
    void Join() noexcept;
    // True on the thread itself.
    bool OnThread() const noexcept;

    HANDLE thread_ = INVALID_HANDLE_VALUE;
    std::atomic<DWORD> threadId_{0};

private:
    static DWORD WINAPI Entry(LPVOID self);
};

// Figures of the notification queue, as IDatabaseStatistics reports them.
struct QueueFigures {
    ULONG depth;          // records in the queue now
    ULONG highWater;      // the most records the queue has held
    ULONGLONG coalesced;  // records coalesced since the thread started
    ULONG backlogLimit;   // records of one sink before coalescing starts
};

class CDBNotificationThread final : public CDBThread {
public:
    static constexpr DWORD kFirstStamp = 1024;
    static constexpr DWORD kStampLimit = 2047;  // the stamp after 2046 is 1024
    static constexpr DWORD kWaitMarker = 2048;
    static constexpr DWORD kStartTimeoutMs = 1000;
    static constexpr std::size_t kCacheLine = 64;
    // Records of one sink in the queue before its further records are
    // coalesced. A sink keeping pace with its writers has a handful; a
    // backlog this long means the sink is minutes behind.
    static constexpr ULONG kDefaultBacklogLimit = 65536;
    // Where an installation sets another limit (REG_DWORD, at least 1),
    // read when the thread starts.
    static constexpr char kSettingsKey[] = "SOFTWARE\\Zelmwerk\\VORN\\Database";
    static constexpr char kBacklogLimitValue[] = "NotificationBacklogLimit";

    // Makes and starts the process's thread if the count is 0, then counts
    // one more attachment and returns the new count. Throws ComError(E_FAIL)
    // when the thread does not start and signal within 1000 ms.
    static ULONG Attach();
    // Counts one attachment less and returns the new count; the last one
    // stops the thread after the callback in progress, drops what is still
    // queued and deletes it. From a callback on the thread itself, the thread
    // does that on its own once the callback has returned. 0 when nothing is
    // attached.
    static ULONG Detach() noexcept;
    // The process's thread, or null when none is attached.
    static CDBNotificationThread* Instance() noexcept { return s_instance.load(std::memory_order_acquire); }

    // Appends a callback record for `sink` about `object` with a copy of
    // `data`, adding one reference to the sink; beyond the sink's backlog
    // limit, coalesces it instead (nothing appended, no reference kept).
    // Throws ComError / bad_alloc when the data cannot be copied or the
    // record stored (nothing queued, no reference kept).
    void Enqueue(IDBNotification* sink, IUnknown* object, const VARIANT& data);
    // Appends a wait marker holding one reference to `event`.
    void PostWaitMarker(CWaitEvent* event);
    // Neutralises every queued callback record of `sink` about `object`
    // (any object when null), asking the sink for GetCallbackFileName on
    // each, and returns how many: the records' sink references are not
    // released here, the caller owes that many releases.
    ULONG Purge(IDBNotification* sink, IUnknown* object) noexcept;
    // Queued records of any kind whose object is `object` (purged ones
    // included: they stay in the queue until the thread passes them).
    ULONG PendingFor(IUnknown* object) noexcept;
    // Empties the queue: everything queued now is dropped undelivered as the
    // thread passes it (callback records' sinks asked for
    // GetCallbackFileName and released, wait markers left unsignalled).
    // Returns at once; at most the callback in progress completes.
    void Clear() noexcept;
    // Records in the queue, purged ones included.
    ULONG QueueSize() noexcept;
    QueueFigures Figures() noexcept;

    bool Suppressed() const noexcept { return suppressed_.load(std::memory_order_relaxed) != 0; }
    void SetSuppressed(bool suppressed) noexcept { suppressed_.store(suppressed ? 1 : 0, std::memory_order_relaxed); }

    // The kind/stamp of every queued record, front first (diagnostics).
    std::vector<DWORD> QueuedKinds();

    // Sets the backlog limit (at least 1) for records appended from now on.
    void SetBacklogLimit(ULONG limit) noexcept;

private:
    // Who has a record, changed only with atomic operations once the record
    // is in the in-flight part.
    enum RecordState : LONG {
        kQueued = 0,
        kPurged = 1,  // skipped; the purger's caller owes the sink release
        kTaken = 2,   // the thread has passed it or is passing it
    };

    // Counts of one sink's or one object's records. `appended` and the
    // clear base change under the guard; `passed` only on the thread.
    struct Tally {
        ULONG appended = 0;
        ULONG clearedBase = 0;  // records appended before the last clear
        ULONGLONG clearEpoch = 0;
        // Queued: appended less those passed or cleared, purged included.
        ULONG Queued() const noexcept {
            return appended - std::max(passed.load(std::memory_order_acquire), clearedBase);
        }
        alignas(kCacheLine) std::atomic<ULONG> passed{0};
    };
    // A sink's tally also knows where its records are (positions in
    // ascending order, those the thread has passed dropped now and then),
    // what it passed when the writers last looked, and which pending record
    // stands for each (object, data) once it is over its limit.
    struct SinkTally : Tally {
        std::vector<ULONGLONG> positions;
        std::size_t sizeAfterTrim = 0;
        ULONG passedSeen = 0;
        std::unordered_map<std::size_t, ULONGLONG> latest;  // key hash -> position
    };

    struct Record {
        DWORD kind;        // stamp or kWaitMarker
        void* sink;        // IDBNotification* or CWaitEvent*
        IUnknown* object;  // no reference held
        VARIANT data;      // own copy
        LONG state;        // RecordState
        SinkTally* sinkTally;
        Tally* objectTally;
    };

    enum class Take { kBatch, kSleep, kStop };

    CDBNotificationThread();
    ~CDBNotificationThread() override;
    void Run() override;
    // Appends under the guard and wakes the thread if it sleeps.
    void Append(Record& record);
    // Under the guard: true when `record` is coalesced into a pending record
    // of the same sink, object and data instead of being appended.
    bool Coalesce(Record& record, std::size_t key);
    // The record at `position`, which must be in the queue (under the guard).
    Record& At(ULONGLONG position) noexcept;
    // The first position the thread has not passed, nor cleared.
    ULONGLONG Front() const noexcept;
    // The tally of `key` brought up to the last clear (under the guard).
    template <class T>
    T& TallyOf(std::unordered_map<const void*, std::unique_ptr<T>>& tallies, const void* key);
    void TrimPositions(SinkTally& tally) noexcept;
    // Deletes the tallies without records once there are many (under the
    // guard, between batches).
    void SweepTallies() noexcept;
    // Spins a while on an empty queue (with `lookLater`, waits one look
    // interval before the first look), then moves the pending part into the
    // in-flight part. kSleep: nothing came, the thread is marked sleeping
    // and waits on wake_; kStop: the thread is to stop.
    Take TakeBatch(bool lookLater) noexcept;
    // Delivers the in-flight part from the front; false when told to stop.
    bool DeliverBatch() noexcept;
    // Passes one record: delivers, drops or skips it.
    void Pass(Record& record, ULONGLONG position) noexcept;
    // Stops the thread after the callback in progress and waits for it.
    void StopAndJoin() noexcept;
    // Drops the records the thread has not passed, releasing what they hold.
    void DropRest() noexcept;
    // Releases what a record still holds (sink or event reference, data).
    static void Discard(Record& record) noexcept;

    // Members are grouped by who writes them, each group on cache lines of
    // its own, so that neither side misses in its cache on lines the other
    // wrote a moment ago more often than it must.

    // Read-mostly: set up once or changed rarely, read on every change.
    HANDLE startup_ = INVALID_HANDLE_VALUE;
    HANDLE wake_ = nullptr;
    std::atomic<ULONG> suppressed_{1};
    std::atomic<bool> stopping_{false};
    // The last detach came from a callback on the thread: it deletes itself
    // once that callback has returned (set with stopping_ by that callback's
    // own thread, so read there without ordering).
    bool deleteOnExit_ = false;
    std::atomic<ULONGLONG> clearMark_{0};  // positions below it are cleared
    ULONG backlogLimit_ = kDefaultBacklogLimit;

    // Written by writers only.
    alignas(kCacheLine) std::atomic<DWORD> sequence_{kFirstStamp};

    // The guard and what it guards.
    alignas(kCacheLine) CRITICAL_SECTION guard_;
    // Records appended less records taken: pending_.size() once writers are
    // out of the guard, for the thread's spin only.
    std::atomic<ULONG> pendingCount_{0};
    bool sleeping_ = false;  // the thread waits on wake_
    std::vector<Record> pending_;
    ULONGLONG pendingBase_ = 0;  // position of pending_[0]
    ULONGLONG clearEpoch_ = 0;   // clears so far
    ULONG highWater_ = 0;
    std::atomic<ULONGLONG> coalesced_{0};
    std::unordered_map<const void*, std::unique_ptr<SinkTally>> sinkTallies_;
    std::unordered_map<const void*, std::unique_ptr<Tally>> objectTallies_;
    std::size_t talliesAfterSweep_ = 0;

    // The thread's part: the container changes under the guard only, the
    // records' states and next_ without it.
    alignas(kCacheLine) std::vector<Record> inflight_;
    ULONGLONG inflightBase_ = 0;        // position of inflight_[0]
    std::atomic<std::size_t> next_{0};  // first in-flight record not passed

    static std::atomic<CDBNotificationThread*> s_instance;
};

// The process-wide notification critical section: held while immediate sinks
// are called and while a change climbs the tree. Recursive. Enter() may be
// called more than once; the destructor leaves it once if entered.
class CNotificationSectionLock {
public:
    void Enter() noexcept;

private:
    std::optional<CriticalSectionLock> lock_;
};

}  // namespace vorn
