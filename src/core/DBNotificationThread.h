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
// thread signals when it reaches it; the stop record (18) ends the thread.
//
// The queue has two parts. Writers append to the pending part; the thread
// takes the whole pending part at once into its in-flight part and works
// through it without the guard, so that it and the writers meet at the guard
// once per batch rather than once per record. Both parts are the queue: the
// records of the in-flight part not yet reached are counted, purged and
// cleared like pending ones. Each record's state says who has it: the thread
// takes a record by setting it to taken, and Purge and Clear neutralise one by
// moving it from queued to purged or cleared, whichever comes first wins.
//
// Shut-down joins the thread: the stop record goes to the back of the queue,
// so everything queued before it is delivered (or dropped while suppressed)
// first, and nothing is delivered after it.
//
// Locks: the queue guard protects both parts' containers; it is taken after
// the database lock and the notification critical section, never before.
// The thread itself takes only the queue guard.
#pragma once

#include <atomic>
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

    HANDLE thread_ = INVALID_HANDLE_VALUE;
    std::atomic<bool> running_{false};

private:
    static DWORD WINAPI Entry(LPVOID self);
};

class CDBNotificationThread final : public CDBThread {
public:
    static constexpr DWORD kFirstStamp = 1024;
    static constexpr DWORD kStampLimit = 2047;  // the stamp after 2046 is 1024
    static constexpr DWORD kWaitMarker = 2048;
    static constexpr DWORD kStop = 18;
    static constexpr DWORD kStartTimeoutMs = 1000;
    static constexpr std::size_t kCacheLine = 64;

    // Makes and starts the process's thread if the count is 0, then counts
    // one more attachment and returns the new count. Throws ComError(E_FAIL)
    // when the thread does not start and signal within 1000 ms.
    static ULONG Attach();
    // Counts one attachment less and returns the new count; the last one
    // stops the thread (joining it) and deletes it. 0 when nothing is attached.
    static ULONG Detach() noexcept;
    // The process's thread, or null when none is attached.
    static CDBNotificationThread* Instance() noexcept { return s_instance.load(std::memory_order_acquire); }

    // Appends a callback record for `sink` about `object` with a copy of
    // `data`, adding one reference to the sink. Throws ComError / bad_alloc
    // when the data cannot be copied or the record stored (nothing queued,
    // no reference kept).
    void Enqueue(IDBNotification* sink, IUnknown* object, const VARIANT& data);
    // Appends a wait marker holding one reference to `event`.
    void PostWaitMarker(CWaitEvent* event);
    // Neutralises every queued callback record of `sink` about `object`
    // (any object when null), asking the sink for GetCallbackFileName on
    // each, and returns how many: the records' sink references are not
    // released here, the caller owes that many releases.
    ULONG Purge(IDBNotification* sink, IUnknown* object) noexcept;
    // Queued records of any kind whose object is `object`.
    ULONG PendingFor(IUnknown* object) noexcept;
    // Empties the queue: callback records' sinks are asked for
    // GetCallbackFileName and released; wait markers are dropped without
    // being signalled.
    void Clear() noexcept;
    // Records in the queue, purged ones included (they stay until reached).
    ULONG QueueSize() noexcept;

    bool Suppressed() const noexcept { return suppressed_.load(std::memory_order_relaxed) != 0; }
    void SetSuppressed(bool suppressed) noexcept { suppressed_.store(suppressed ? 1 : 0, std::memory_order_relaxed); }

    // The stamp the next callback record gets.
    DWORD NextStamp() const noexcept { return sequence_.load(std::memory_order_relaxed); }
    // The kind/stamp of every queued record, front first (diagnostics).
    std::vector<DWORD> QueuedKinds();

private:
    // Who has a record: bits, changed only with atomic operations once the
    // record is in the in-flight part. A record is queued while neither
    // kCleared nor kTaken is set.
    enum RecordState : LONG {
        kQueued = 0,
        kCleared = 1,  // left the queue unserved; its reference is released unless purged
        kPurged = 2,   // skipped; the purger's caller owes the sink release
        kTaken = 4,    // the thread has it: delivered or being delivered
    };

    struct Record {
        BYTE live;         // 1: callback or stop record; 0: wait marker
        DWORD kind;        // stamp, kWaitMarker or kStop
        void* sink;        // IDBNotification*, CWaitEvent* or null
        IUnknown* object;  // no reference held
        VARIANT data;      // own copy
        LONG state;        // RecordState
    };

    enum class Take { kBatch, kSleep, kStop };

    CDBNotificationThread();
    ~CDBNotificationThread() override;
    void Run() override;
    // Appends under the guard and wakes the thread if it sleeps.
    void Append(const Record& record);
    // Spins a while on an empty queue (with `lookLater`, waits one look
    // interval before the first look), then moves the pending part into the
    // in-flight part. kSleep: nothing came, the thread is marked sleeping
    // and waits on wake_; kStop: abandoned with nothing left.
    Take TakeBatch(bool lookLater) noexcept;
    // Delivers the in-flight part from the front; false once it reached the
    // stop record.
    bool DeliverBatch() noexcept;
    // Ends the thread after everything queued so far and waits for it.
    void StopAndJoin() noexcept;
    // Releases what a record still holds (sink or event reference, data).
    static void Discard(Record& record) noexcept;
    // Calls f on every queued record, front first (under the guard).
    template <class F>
    void ForEachQueued(F f);

    // Members are grouped by who writes them, each group on cache lines of
    // its own, so that neither side misses in its cache on lines the other
    // wrote a moment ago more often than it must.

    // Read-mostly: set up once or changed rarely, read on every change.
    HANDLE startup_ = INVALID_HANDLE_VALUE;
    HANDLE wake_ = nullptr;
    std::atomic<ULONG> suppressed_{1};
    std::atomic<bool> abandon_{false};  // stop without a stop record (no memory for one)

    // Written by writers only.
    alignas(kCacheLine) std::atomic<DWORD> sequence_{kFirstStamp};

    // The guard and what it guards for writers.
    alignas(kCacheLine) CRITICAL_SECTION guard_;
    // Records appended less records taken: pending_.size() once writers are
    // out of the guard, for the thread's spin only.
    std::atomic<ULONG> pendingCount_{0};
    bool sleeping_ = false;  // the thread waits on wake_
    std::vector<Record> pending_;

    // The thread's part: the container changes under the guard only, the
    // records' states and next_ without it.
    alignas(kCacheLine) std::vector<Record> inflight_;
    std::atomic<std::size_t> next_{0};  // first in-flight record not taken

    static std::atomic<CDBNotificationThread*> s_instance;
};

// The process-wide notification critical section: held while immediate sinks
// are called and while a change climbs the tree. Recursive. Enter() may be
// called more than once; the destructor leaves it once if entered.
class CNotificationSectionLock {
public:
    CNotificationSectionLock() = default;
    CNotificationSectionLock(const CNotificationSectionLock&) = delete;
    CNotificationSectionLock& operator=(const CNotificationSectionLock&) = delete;
    ~CNotificationSectionLock();
    void Enter() noexcept;

private:
    bool entered_ = false;
};

}  // namespace vorn
