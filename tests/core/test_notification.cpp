// Change notification: the change path, the notification thread's queue
// (stamps, wait markers, purge, clear, suppression) and its shut-down.
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "core/CoreTestSupport.h"
#include "core/DBNotificationThread.h"
#include "support/TreeSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

VARIANT I4(LONG value) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_I4;
    v.lVal = value;
    return v;
}

class Notification : public ::testing::Test {
protected:
    void SetUp() override {
        CDBNotificationThread::Attach();
        thread = CDBNotificationThread::Instance();
        thread->SetSuppressed(false);
        blocker.gate = &gate;
        holder.gate = &holderGate;
        ASSERT_EQ(root.gain.RegisterNotification(&blocker), S_OK);
    }
    void TearDown() override {
        gate.Open();
        holderGate.Open();
        CDBNotificationThread::Detach();
    }

    // Holds the thread inside a callback until the gate opens, so that
    // everything queued afterwards stays in the queue.
    void BlockThread() {
        Change(root.gain);
        blocker.WaitEntered(1);
    }

    // Sinks outlive the tree, which releases the lists' references. The
    // holder, once registered, holds the thread a second time, until
    // holderGate opens.
    CountingSink blocker, first, second, third, immediate, holder;
    Gate gate, holderGate;
    CTestRoot root;
    CTestLeaf& leaf = root.settings.alpha;  // the node most tests change
    CDBNotificationThread* thread = nullptr;
};

// A finish-status source with a settable count.
struct Counter : CFinishStatusSource {
    DWORD count = 0;
    DWORD GetFinishCount() override { return count; }
};

}  // namespace

TEST_F(Notification, OneChangeReachesTheSinksOfTheNodeAndOfEveryAncestor) {
    leaf.CallbackData() = I4(7);
    root.settings.CallbackData() = I4(8);
    leaf.RegisterNotification(&first);
    leaf.RegisterNotification(&second);
    root.settings.RegisterNotification(&third);
    root.RegisterImmediateNotification(&immediate);

    Change(leaf);
    // The immediate sink was called on this thread, before Change returned.
    const std::vector<IUnknown*> leafOnly{leaf.Identity()};
    EXPECT_EQ(std::pair(immediate.calls.load(), immediate.Objects()), std::pair(1, leafOnly));
    FlushNotifications();
    // Own reference + registration: the record's reference is gone.
    for (CountingSink* sink : {&first, &second, &third})
        EXPECT_EQ(std::pair(Counts(*sink), sink->Objects()),
                  std::pair(std::string("calls=1 refs=2 names=0 over=0"), leafOnly));
    EXPECT_EQ((std::vector{first.Data(), third.Data(), immediate.Data()}),
              (std::vector<std::vector<LONG>>{{7}, {8}, {-1}}));
    EXPECT_EQ(first.plainCallbacks, 0);

    // Two changes, two callbacks: nothing is merged.
    Change(leaf);
    Change(leaf);
    FlushNotifications();
    EXPECT_EQ(first.calls, 3);
}

TEST_F(Notification, SuppressionQueuesNothingAndDropsWhatIsTakenMeanwhile) {
    leaf.RegisterNotification(&first);
    leaf.RegisterImmediateNotification(&immediate);
    thread->SetSuppressed(true);
    Change(leaf);
    EXPECT_EQ(std::pair(thread->QueueSize(), immediate.calls.load()), std::pair(0u, 0));

    thread->SetSuppressed(false);
    BlockThread();
    Change(leaf);
    Change(leaf);
    EXPECT_EQ(std::pair(thread->QueueSize(), immediate.calls.load()), std::pair(2u, 2));
    // Suppressed when the thread takes them: dropped for good, references
    // released.
    thread->SetSuppressed(true);
    gate.Open();
    FlushNotifications();
    thread->SetSuppressed(false);
    FlushNotifications();
    EXPECT_EQ(Counts(first), "calls=0 refs=2 names=0 over=0");
}

TEST_F(Notification, StampsCycleFrom1024To2046) {
    leaf.RegisterNotification(&first);
    BlockThread();  // the first callback, stamped 1024, is being delivered
    for (int i = 0; i < 1023; ++i) Change(leaf);
    const std::vector<DWORD> kinds = thread->QueuedKinds();
    ASSERT_EQ(kinds.size(), 1023u);
    EXPECT_EQ(kinds.front(), 1025u);
    EXPECT_EQ(kinds[1021], 2046u);  // the 1023rd callback
    EXPECT_EQ(kinds[1022], 1024u);  // the 1024th

    CWaitEvent* marker = CWaitEvent::Create();
    thread->PostWaitMarker(marker);
    EXPECT_EQ(thread->QueuedKinds().back(), CDBNotificationThread::kWaitMarker);
    marker->Release();
}

TEST_F(Notification, WaitMarkerIsSignalledOnlyAfterEverythingQueuedBeforeIt) {
    leaf.RegisterNotification(&first);
    BlockThread();
    for (int i = 0; i < 50; ++i) Change(leaf);
    CWaitEvent* marker = CWaitEvent::Create();
    thread->PostWaitMarker(marker);
    Change(leaf);  // after the marker
    EXPECT_EQ(WaitForSingleObject(marker->Handle(), 50), WAIT_TIMEOUT);
    gate.Open();
    EXPECT_EQ(WaitForSingleObject(marker->Handle(), 10000), WAIT_OBJECT_0);
    EXPECT_GE(first.calls, 50);
    marker->Release();
    FlushNotifications();
    EXPECT_EQ(first.calls, 51);
}

TEST_F(Notification, UnregisterDropsTheSinksQueuedRecordsAboutTheNode) {
    leaf.RegisterNotification(&first);
    BlockThread();
    root.gain.RegisterNotification(&second);
    for (int i = 0; i < 3; ++i) Change(leaf);
    Change(root.gain);
    EXPECT_EQ(first.refs, 5);

    // The list's and the three records' references go.
    EXPECT_EQ(leaf.UnregisterNotification(&first), S_OK);
    EXPECT_EQ(Counts(first), "calls=0 refs=1 names=3 over=0");
    gate.Open();
    FlushNotifications();
    EXPECT_EQ(Counts(first), "calls=0 refs=1 names=3 over=0");
    EXPECT_EQ(second.calls, 1);
}

TEST_F(Notification, CleanNotificationQueueCountsAndTheCallerReleases) {
    leaf.RegisterNotification(&first);
    BlockThread();
    root.gain.RegisterNotification(&first);
    Change(leaf);
    Change(root.gain);
    Change(leaf);
    ULONG gain = 99, rest = 99;
    EXPECT_EQ(leaf.CleanNotificationQueue(&first, root.gain.Identity(), &gain), S_OK);
    EXPECT_EQ(leaf.CleanNotificationQueue(&first, nullptr, &rest), S_OK);
    EXPECT_EQ(std::pair(gain, rest), std::pair(1u, 2u));
    EXPECT_EQ(leaf.CleanNotificationQueue(nullptr, nullptr, &rest), S_FALSE);
    EXPECT_EQ(first.refs, 6);  // nothing released by the purge itself
    for (int i = 0; i < 3; ++i) first.Release();
    gate.Open();
    FlushNotifications();
    EXPECT_EQ(Counts(first), "calls=0 refs=3 names=3 over=0");
}

TEST_F(Notification, ClearDropsEverythingQueuedAndLeavesWaitMarkersUnsignalled) {
    leaf.RegisterNotification(&first);
    BlockThread();
    Change(leaf);
    Change(leaf);
    CWaitEvent* marker = CWaitEvent::Create();
    thread->PostWaitMarker(marker);
    EXPECT_EQ(thread->QueueSize(), 3u);

    thread->Clear();
    EXPECT_EQ(std::pair(thread->QueueSize(), thread->PendingFor(leaf.Identity())), std::pair(0u, 0u));
    Change(leaf);  // after the clear: delivered
    EXPECT_EQ(thread->PendingFor(leaf.Identity()), 1u);
    gate.Open();
    FlushNotifications();
    // The dropped records' sinks were asked and released as the thread
    // passed them.
    EXPECT_EQ(Counts(first), "calls=1 refs=2 names=2 over=0");
    EXPECT_EQ(WaitForSingleObject(marker->Handle(), 0), WAIT_TIMEOUT);
    marker->Release();
}

// The thread takes everything pending at once; the records of such a batch
// behind the one being delivered are still queued for every purpose.
TEST_F(Notification, RecordsTakenInABatchStayQueuedUntilReached) {
    root.settings.beta.RegisterNotification(&holder);
    leaf.RegisterNotification(&first);
    leaf.RegisterNotification(&second);
    BlockThread();
    Change(root.settings.beta);
    Change(leaf);
    Change(leaf);
    CWaitEvent* marker = CWaitEvent::Create();
    thread->PostWaitMarker(marker);
    gate.Open();  // the thread takes all of the above and stops in holder
    holder.WaitEntered(1);

    EXPECT_EQ(std::pair(thread->QueueSize(), thread->PendingFor(leaf.Identity())), std::pair(5u, 4u));
    EXPECT_EQ(thread->Purge(&first, nullptr), 2u);
    EXPECT_EQ(first.fileNameQueries, 2);
    EXPECT_EQ(thread->QueueSize(), 5u);  // purged records stay, skipped
    for (int i = 0; i < 2; ++i) first.Release();
    thread->Clear();
    EXPECT_EQ(thread->QueueSize(), 0u);

    holderGate.Open();
    FlushNotifications();
    // The purged records were not asked again.
    EXPECT_EQ(std::pair(Counts(first), Counts(second)),
              std::pair(std::string("calls=0 refs=2 names=2 over=0"), std::string("calls=0 refs=2 names=2 over=0")));
    EXPECT_EQ(WaitForSingleObject(marker->Handle(), 0), WAIT_TIMEOUT);
    marker->Release();
}

// A sink whose only references are held by records of the batch in hand,
// while the queue is cleared: nobody may call the sink once the thread has
// released those records, not even a call already under way.
TEST_F(Notification, ClearNeverCallsASinkAfterItsLastRelease) {
    struct HeldSink : CountingSink {
        STDMETHODIMP GetCallbackFileName(BSTR* name) override {
            caller = std::this_thread::get_id();
            inCall = true;
            entered.Open();
            leave.Wait();
            return CountingSink::GetCallbackFileName(name);
        }
        std::thread::id caller;
        std::atomic<bool> inCall{false};
        Gate entered, leave;
    };
    HeldSink held;
    root.settings.beta.RegisterNotification(&holder);
    // Registered on the group, the records are about its leaf: unregistering
    // from the group leaves them as the sink's only owners.
    root.settings.RegisterNotification(&held);
    BlockThread();
    Change(root.settings.beta);  // the holder's and the held sink's records
    Change(leaf);
    root.settings.UnregisterNotification(&held);
    held.Release();
    gate.Open();
    holder.WaitEntered(1);  // the batch with the held sink's records is in hand

    std::atomic<bool> cleared{false};
    std::thread clearer([&] {
        thread->Clear();
        cleared = true;
    });
    // The clear first: it returns at once, or calls the sink and stays there.
    while (!cleared && !held.inCall) std::this_thread::yield();
    holderGate.Open();
    held.entered.Wait();
    if (held.caller == clearer.get_id()) {
        // The clear is inside the call: give the thread its chance to pass
        // the records and release them meanwhile.
        for (int i = 0; i < 200 && held.refs > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    held.leave.Open();
    clearer.join();
    FlushNotifications();
    EXPECT_EQ(held.callsWhileDead, 0);
    EXPECT_EQ(Counts(held), "calls=0 refs=0 names=2 over=1");  // over: the last release, to 0
}

// Past its backlog limit a sink's records about an object with the same
// data are merged into the one still pending; nothing else is.
TEST_F(Notification, ASinkBeyondItsBacklogLimitIsCoalescedPerObject) {
    thread->SetBacklogLimit(4);
    CTestLeaf& beta = root.settings.beta;
    leaf.RegisterNotification(&first);
    beta.RegisterNotification(&first);
    beta.RegisterNotification(&second);
    BlockThread();
    for (int i = 0; i < 10; ++i) Change(leaf);
    for (int i = 0; i < 10; ++i) Change(beta);
    // Each sink: 4 within the limit, then one record per object past it.
    QueueFigures figures = thread->Figures();
    EXPECT_EQ(std::tuple(figures.depth, figures.coalesced, figures.backlogLimit),
              std::tuple(6u + 5u, 5u + 9u + 5u, 4u));
    EXPECT_EQ(thread->PendingFor(leaf.Identity()), 5u);
    EXPECT_EQ(first.refs, 3 + 6);
    EXPECT_EQ(thread->Purge(&first, beta.Identity()), 1u);
    first.Release();

    gate.Open();
    FlushNotifications();
    EXPECT_EQ(std::tuple(first.calls.load(), first.Objects().back(), second.calls.load(), second.Objects().back()),
              std::tuple(5, leaf.Identity(), 5, beta.Identity()));
    figures = thread->Figures();
    EXPECT_EQ(figures.depth, 0u);
    EXPECT_GE(figures.highWater, 11u);
    EXPECT_EQ(first.refs, 3);
}

TEST_F(Notification, FinishStatusIsFalseWhileRecordsAreQueued) {
    CTestLeaf& watcher = root.table[0].alpha;  // leaf depends on it
    CTestLeaf& host = root.table[1].alpha;     // leaf is attached to it
    watcher.AddDependant(&leaf);
    host.SetThirdPartyUnknown(leaf.Identity());
    leaf.RegisterNotification(&first);
    auto status = [](CDatabaseObjectImpl& node) {
        VARIANT_BOOL complete = 7;
        EXPECT_EQ(node.GetCallbackFinishStatus(&complete), S_OK);
        return complete;
    };
    EXPECT_EQ(status(leaf), VARIANT_TRUE);

    BlockThread();
    Change(leaf);
    using Statuses = std::vector<VARIANT_BOOL>;
    EXPECT_EQ((Statuses{status(leaf), status(watcher), status(host), status(root.table[2].alpha)}),
              (Statuses{VARIANT_FALSE, VARIANT_FALSE, VARIANT_FALSE, VARIANT_TRUE}));
    gate.Open();
    FlushNotifications();
    EXPECT_EQ((Statuses{status(leaf), status(watcher)}), (Statuses{VARIANT_TRUE, VARIANT_TRUE}));

    Counter counter;
    leaf.SetFinishStatus(&counter, 5);
    counter.count = 4;
    EXPECT_EQ(status(leaf), VARIANT_FALSE);
    counter.count = 5;
    EXPECT_EQ(status(leaf), VARIANT_TRUE);
}

TEST_F(Notification, ImmediateSinkMayUnregisterDuringItsCall) {
    struct SelfRemover : CountingSink {
        CDatabaseObjectImpl* node = nullptr;
        STDMETHODIMP CallbackWithData(IUnknown* object, VARIANT data) override {
            node->UnregisterImmediateNotification(this);
            return CountingSink::CallbackWithData(object, data);
        }
    };
    SelfRemover remover;
    remover.node = &root.settings;
    root.settings.RegisterImmediateNotification(&remover);
    root.settings.RegisterImmediateNotification(&immediate);
    Change(root.settings.beta);
    Change(root.settings.beta);
    EXPECT_EQ(std::tuple(remover.calls.load(), remover.refs.load(), immediate.calls.load()), std::tuple(1, 1, 2));
}

// The last detach waits for the callback in progress only: the rest of the
// queue is dropped, every reference it held released.
TEST(NotificationThread, ShutDownDropsTheQueueAfterTheCallbackInProgress) {
    CountingSink sink, purged;
    Gate gate;
    sink.gate = &gate;
    {
        CTestRoot root;
        EXPECT_EQ(CDBNotificationThread::Attach(), 1u);
        EXPECT_EQ(CDBNotificationThread::Attach(), 2u);
        CDBNotificationThread* thread = CDBNotificationThread::Instance();
        thread->SetSuppressed(false);
        root.gain.RegisterNotification(&sink);
        root.gain.RegisterNotification(&purged);
        for (int i = 0; i < 200; ++i) Change(root.gain);
        sink.WaitEntered(1);
        EXPECT_EQ(thread->Purge(&purged, nullptr), 200u);
        EXPECT_EQ(CDBNotificationThread::Detach(), 1u);
        EXPECT_NE(CDBNotificationThread::Instance(), nullptr);
        std::thread opener([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            gate.Open();
        });
        EXPECT_EQ(CDBNotificationThread::Detach(), 0u);
        EXPECT_EQ(sink.calls, 1);
        EXPECT_EQ(CDBNotificationThread::Instance(), nullptr);
        EXPECT_EQ(CDBNotificationThread::Detach(), 0u);
        opener.join();
        // The purged records' references are owed by the purger, not released.
        EXPECT_EQ(std::pair(sink.refs.load(), purged.refs.load()), std::pair(2, 2 + 200));
        for (int i = 0; i < 200; ++i) purged.Release();
    }
    EXPECT_EQ(std::pair(Counts(sink), Counts(purged)),
              std::pair(std::string("calls=1 refs=1 names=0 over=0"), std::string("calls=0 refs=1 names=200 over=0")));
}
