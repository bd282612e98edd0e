// The notification sink behind the shell's `watch NAME`.
//
// One sink per watched node, registered as a queued sink
// (IDatabaseObject::RegisterNotification), so the database's notification
// thread calls it. Each CallbackWithData prints one line
//     watch: <full name of the changed object> = <value>
// through the serialised output of Common.h. The value is the notification's
// data when the changed object is the watched node itself (the value at the
// time of the change), else the changed object's current value: a sink on a
// group receives the group's data, not the changed parameter's.
//
// Reference counted like any COM object; the database holds one reference per
// registration and per queued record, the shell one while it watches.
#pragma once

#include <atomic>

#include "Session.h"

namespace vorndb {

class WatchSink final : public IDBNotification {
public:
    // `session` must outlive every call the database makes to the sink (the
    // shell unregisters and waits before the session ends).
    WatchSink(Session& session, Node watched);

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    STDMETHODIMP Callback(IUnknown* pParameterUnknown) override;
    STDMETHODIMP CallbackWithData(IUnknown* pParameterUnknown, VARIANT vData) override;
    // Called when a queued notification is dropped; there is no file.
    STDMETHODIMP GetCallbackFileName(BSTR* bstrFileName) override;

    const Node& Watched() const { return watched_; }
    // Callbacks received so far.
    unsigned long Calls() const { return calls_.load(); }

private:
    ~WatchSink() = default;

    Session& session_;
    Node watched_;
    IUnknown* identity_ = nullptr;  // the watched node's IUnknown, no reference (the node lives with the tree)
    std::atomic<ULONG> references_{1};
    std::atomic<unsigned long> calls_{0};
};

}  // namespace vorndb
