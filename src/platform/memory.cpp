// Task memory (CoTaskMem*) and global memory blocks (Global*).
//
// Task memory is malloc underneath, so a block may be freed in any module.
//
// An HGLOBAL is the address of a GlobalBlock record: the data pointer, the
// exact size the caller asked for, the capacity behind the data and a lock
// count. Every live record is entered in a process-wide registry, so a stale
// or foreign handle is refused with ERROR_INVALID_HANDLE instead of being
// dereferenced; the registry lock also serialises the calls on one block. The
// data pointer is never null, not even for a zero-byte block, so GlobalLock of
// a valid handle always succeeds. Growing a block reserves headroom (half the
// old capacity again), so a memory stream written in small pieces is not
// copied on every write; GlobalSize still reports the exact size. A resize may
// move the data, also while the block is locked: a locked address stays valid
// only until the next resize (a write that grows a memory stream).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>

#include "internal.h"
#include "internal_com.h"
#include "vorn/platform.h"

namespace {

struct GlobalBlock {
    unsigned char* data;
    SIZE_T size;
    SIZE_T capacity;
    ULONG locks;
};

class BlockRegistry {
public:
    std::mutex mutex;

    // The record behind `handle` if it is live, else null. Caller holds mutex.
    GlobalBlock* Find(HGLOBAL handle) {
        auto* block = static_cast<GlobalBlock*>(handle);
        return live_.count(block) ? block : nullptr;
    }
    // Enters a record; false when out of memory. Caller holds mutex.
    bool Add(GlobalBlock* block) {
        try {
            live_.insert(block);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    void Remove(GlobalBlock* block) { live_.erase(block); }

private:
    std::unordered_set<GlobalBlock*> live_;
};

// Never destroyed: blocks may be freed by static destructors of other modules.
BlockRegistry& Registry() {
    static auto* registry = new BlockRegistry;
    return *registry;
}

// Looks up a handle for a Global* call; sets ERROR_INVALID_HANDLE when it is
// not a live block.
GlobalBlock* FindOrFail(BlockRegistry& registry, HGLOBAL handle) {
    GlobalBlock* block = registry.Find(handle);
    if (!block) vorn::rt::SetLastErrorCode(ERROR_INVALID_HANDLE);
    return block;
}

}  // namespace

// A null pv allocates (0 bytes give a valid unique pointer, as malloc(1)
// does); cb 0 with a non-null pv frees the block and returns null. On failure
// the old block is untouched and null is returned.
LPVOID WINAPI CoTaskMemRealloc(LPVOID pv, SIZE_T cb) {
    if (!pv) return std::malloc(cb ? cb : 1);
    if (cb == 0) {
        std::free(pv);
        return nullptr;
    }
    return std::realloc(pv, cb);
}

void WINAPI CoTaskMemFree(LPVOID pv) { std::free(pv); }

// Flags other than GMEM_ZEROINIT do not matter: every block is movable.
// ERROR_NOT_ENOUGH_MEMORY when the block or its record cannot be allocated.
HGLOBAL WINAPI GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    auto* block = new (std::nothrow) GlobalBlock{nullptr, dwBytes, dwBytes, 0};
    if (block) {
        block->data =
            static_cast<unsigned char*>((uFlags & GMEM_ZEROINIT) ? std::calloc(std::max<SIZE_T>(dwBytes, 1), 1)
                                                                 : std::malloc(std::max<SIZE_T>(dwBytes, 1)));
    }
    if (block && block->data) {
        BlockRegistry& registry = Registry();
        std::lock_guard lock(registry.mutex);
        if (registry.Add(block)) return block;
    }
    if (block) std::free(block->data);
    delete block;
    vorn::rt::SetLastErrorCode(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

// The handle never changes; the data may move.
HGLOBAL vorn::rt::ResizeGlobal(HGLOBAL hMem, SIZE_T dwBytes) {
    BlockRegistry& registry = Registry();
    std::lock_guard lock(registry.mutex);
    GlobalBlock* block = FindOrFail(registry, hMem);
    if (!block) return nullptr;

    SIZE_T capacity = block->capacity;
    if (dwBytes > capacity) {
        const bool headroomFits = capacity <= SIZE_MAX / 3;
        capacity = headroomFits ? std::max(dwBytes, capacity + capacity / 2) : dwBytes;
    } else if (dwBytes < capacity / 2) {
        capacity = dwBytes;  // give memory back after a large shrink
    }
    if (capacity != block->capacity) {
        void* data = std::realloc(block->data, std::max<SIZE_T>(capacity, 1));
        if (!data) {
            vorn::rt::SetLastErrorCode(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        block->data = static_cast<unsigned char*>(data);
        block->capacity = capacity;
    }
    if (dwBytes > block->size) std::memset(block->data + block->size, 0, dwBytes - block->size);
    block->size = dwBytes;
    return hMem;
}

// Frees the block even while it is locked, as Windows does. Null on success
// (also for a null handle); the handle itself with ERROR_INVALID_HANDLE when
// it is not a live block.
HGLOBAL WINAPI GlobalFree(HGLOBAL hMem) {
    if (!hMem) return nullptr;
    BlockRegistry& registry = Registry();
    GlobalBlock* block;
    {
        std::lock_guard lock(registry.mutex);
        block = FindOrFail(registry, hMem);
        if (!block) return hMem;
        registry.Remove(block);
    }
    std::free(block->data);
    delete block;
    return nullptr;
}

// The block's current address; counts one lock. Null with
// ERROR_INVALID_HANDLE for a bad handle.
LPVOID WINAPI GlobalLock(HGLOBAL hMem) {
    BlockRegistry& registry = Registry();
    std::lock_guard lock(registry.mutex);
    GlobalBlock* block = FindOrFail(registry, hMem);
    if (!block) return nullptr;
    ++block->locks;
    return block->data;
}

// Removes one lock. TRUE while locks remain; FALSE with ERROR_SUCCESS when
// the last lock went, ERROR_NOT_LOCKED when there was none,
// ERROR_INVALID_HANDLE for a bad handle.
BOOL WINAPI GlobalUnlock(HGLOBAL hMem) {
    BlockRegistry& registry = Registry();
    std::lock_guard lock(registry.mutex);
    GlobalBlock* block = FindOrFail(registry, hMem);
    if (!block) return FALSE;
    if (block->locks == 0) {
        vorn::rt::SetLastErrorCode(ERROR_NOT_LOCKED);
        return FALSE;
    }
    if (--block->locks > 0) return TRUE;
    vorn::rt::SetLastErrorCode(ERROR_SUCCESS);
    return FALSE;
}

// The exact size in bytes; 0 with ERROR_INVALID_HANDLE for a bad handle.
SIZE_T WINAPI GlobalSize(HGLOBAL hMem) {
    BlockRegistry& registry = Registry();
    std::lock_guard lock(registry.mutex);
    GlobalBlock* block = FindOrFail(registry, hMem);
    return block ? block->size : 0;
}
