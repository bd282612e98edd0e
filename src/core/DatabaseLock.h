// The database lock: one process-wide recursive lock that guards every read
// and write of the tree's values and lists.
//
// CReadLock and CWriteLock are the same lock (a read lock excludes writers
// and other readers alike); either may be taken recursively by the thread
// that holds it, so a reader may also take the write lock. While holding it a
// thread runs at THREAD_PRIORITY_HIGHEST at least: the constructor saves the
// caller's priority and raises it, the release puts it back. On this platform
// the lock is also priority-inheriting (docs/core.md says why).
//
// Lock order across the component: database lock, then the notification
// critical section, then the notification queue guard.
//
// Usage: `CWriteLock lock;` at the top of a method; the destructor releases.
#pragma once

#include "vorn/platform.h"

namespace vorn {

class CDatabaseLock {
public:
    CDatabaseLock(const CDatabaseLock&) = delete;
    CDatabaseLock& operator=(const CDatabaseLock&) = delete;
    // Releases the lock if still held; errors of the release are swallowed.
    virtual ~CDatabaseLock();

    // Leaves the lock and restores the saved priority. Throws ComError with
    // the system error if the priority cannot be restored (the lock is left
    // all the same). Does nothing when not held.
    void Release();

protected:
    // Saves and raises the caller's priority, then enters the lock. Throws
    // ComError with the system error if the priority cannot be read or
    // raised; the lock is not taken then.
    CDatabaseLock();

private:
    int savedPriority_;
    bool held_;
};

class CReadLock : public CDatabaseLock {};
class CWriteLock : public CDatabaseLock {};

}  // namespace vorn
