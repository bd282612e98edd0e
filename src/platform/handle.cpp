// The handle table of the runtime's kernel objects and CloseHandle.
//
// The table maps each open handle (the object's address) to the owning
// shared_ptr. It lives for the whole process and is never destroyed, so a
// handle still open at exit (a thread still running, a file never closed) is
// not torn down under a running thread by static destructors.
#include <chrono>
#include <unordered_map>

#include "internal.h"

namespace vorn::rt {
namespace {

struct HandleTable {
    std::mutex mutex;
    std::unordered_map<HANDLE, std::shared_ptr<KernelObject>> objects;
};

HandleTable& Table() {
    static HandleTable* const table = new HandleTable;
    return *table;
}

}  // namespace

DWORD KernelObject::Wait(DWORD) { return Fail(ERROR_INVALID_HANDLE, WAIT_FAILED); }

DWORD WaitableObject::Wait(DWORD milliseconds) {
    std::unique_lock lock(mutex_);
    auto signalled = [this] { return ConsumeSignalLocked(); };
    if (milliseconds == INFINITE) {
        cv_.wait(lock, signalled);
        return WAIT_OBJECT_0;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    return cv_.wait_until(lock, deadline, signalled) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

HANDLE InsertHandle(std::shared_ptr<KernelObject> object) {
    HANDLE handle = object.get();
    HandleTable& table = Table();
    std::lock_guard lock(table.mutex);
    table.objects.emplace(handle, std::move(object));
    return handle;
}

std::shared_ptr<KernelObject> ReferenceHandle(HANDLE handle) noexcept {
    HandleTable& table = Table();
    {
        std::lock_guard lock(table.mutex);
        auto it = table.objects.find(handle);
        if (it != table.objects.end()) return it->second;
    }
    vorn::rt::SetLastErrorCode(ERROR_INVALID_HANDLE);
    return nullptr;
}

BOOL CloseObjectHandle(HANDLE handle, bool findHandle) noexcept {
    std::shared_ptr<KernelObject> closing;  // released after the table's lock
    HandleTable& table = Table();
    {
        std::lock_guard lock(table.mutex);
        auto it = table.objects.find(handle);
        if (it == table.objects.end() || (it->second->kind() == ObjectKind::Find) != findHandle)
            return Fail(ERROR_INVALID_HANDLE, FALSE);
        closing = std::move(it->second);
        table.objects.erase(it);
    }
    return TRUE;
}

}  // namespace vorn::rt

// The pseudo-handle of the current thread needs no closing; closing it is
// allowed and does nothing, as on Windows.
VORNAPI BOOL WINAPI CloseHandle(HANDLE hObject) {
    if (hObject == vorn::rt::CurrentThreadPseudoHandle()) return TRUE;
    return vorn::rt::CloseObjectHandle(hObject, false);
}
