// CPointerList: see PointerList.h.
#include "core/PointerList.h"

#include <algorithm>
#include <new>

namespace vorn {

CPointerList::~CPointerList() { delete[] items_; }

int CPointerList::Add(void* p) noexcept {
    if (Contains(p)) return kDuplicate;
    // The new array holds the old items, p and the terminator.
    void** grown = new (std::nothrow) void*[count_ + 2];
    if (!grown) return kNoMemory;
    try {
        if (!set_ && count_ + 1 > kSearchLimit)
            set_ = std::make_unique<std::unordered_set<const void*>>(items_, items_ + count_);
        if (set_) set_->insert(p);
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

bool CPointerList::Contains(const void* p) const noexcept {
    if (set_) return set_->count(p) != 0;
    return std::find(items_, items_ + count_, p) != items_ + count_;
}

int CPointerList::Remove(void* p) noexcept {
    if (!Contains(p)) return kAbsent;
    if (count_ == 1) {
        RemoveAll();
        return kOk;
    }
    void** shrunk = new (std::nothrow) void*[count_];
    if (!shrunk) return kNoMemory;
    if (set_) set_->erase(p);
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
    set_.reset();
}

}  // namespace vorn
