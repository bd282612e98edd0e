// CPointerList: see PointerList.h.
#include "core/PointerList.h"

#include <algorithm>
#include <new>

namespace vorn {

CPointerList::~CPointerList() { delete[] items_; }

int CPointerList::Add(void* p) noexcept {
    if (set_.count(p) != 0) return kDuplicate;
    // The new array holds the old items, p and the terminator.
    void** grown = new (std::nothrow) void*[count_ + 2];
    if (!grown) return kNoMemory;
    try {
        set_.insert(p);
    } catch (const std::bad_alloc&) {
        delete[] grown;
        return kNoMemory;
    }
    std::copy(items_, items_ + count_, grown);
    grown[count_] = p;
    grown[count_ + 1] = nullptr;
    delete[] items_;
    items_ = grown;
    ++count_;
    return kOk;
}

bool CPointerList::Contains(const void* p) const noexcept { return set_.count(p) != 0; }

int CPointerList::Remove(void* p) noexcept {
    if (set_.count(p) == 0) return kAbsent;
    if (count_ == 1) {
        RemoveAll();
        return kOk;
    }
    void** shrunk = new (std::nothrow) void*[count_];
    if (!shrunk) return kNoMemory;
    set_.erase(p);
    void** end = std::remove_copy(items_, items_ + count_, shrunk, p);
    *end = nullptr;
    delete[] items_;
    items_ = shrunk;
    --count_;
    return kOk;
}

void CPointerList::RemoveAll() noexcept {
    delete[] items_;
    items_ = nullptr;
    count_ = 0;
    set_.clear();
}

}  // namespace vorn
