// Helpers over the core for the tests of the layers above it: a group whose
// children the test adds in order, and waiting for the notification queue.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "core/DBNotificationThread.h"
#include "core/DatabaseObjectImpl.h"

namespace vorn::test {

// A group of `Base` (a group template of the core or the stream layer) whose
// children are added by the test, in order.
template <class Base>
class CAddedChildren : public Base {
public:
    CAddedChildren() { children_.push_back(nullptr); }
    // Names `child` as a child of this group and appends it.
    void Add(CDatabaseObjectImpl& child, const char* name, LONG index = -1, LONG count = -1) {
        child.SetName(name, index, count, this);
        children_.insert(children_.end() - 1, &child);
    }
    CDatabaseObjectImpl* const* Children() override { return children_.data(); }

private:
    std::vector<CDatabaseObjectImpl*> children_;
};

// Returns once the notification thread has taken everything queued so far.
inline void FlushNotifications() {
    CWaitEvent* event = CWaitEvent::Create();
    ASSERT_NE(event, nullptr);
    CDBNotificationThread::Instance()->PostWaitMarker(event);
    EXPECT_EQ(WaitForSingleObject(event->Handle(), 10000), WAIT_OBJECT_0);
    event->Release();
}

}  // namespace vorn::test
