// CPointerList: the small list type of the tree's per-object lists
// (dependants, sinks).
//
// The items are an owned, null-terminated array of pointers that grows and
// shrinks by exactly one slot per change (no spare capacity); a list that
// never held anything, or whose last item was removed, has no array at all.
// A companion hashed set of the same pointers refuses duplicates. The list
// never owns or reference-counts what the pointers point to, and has no lock
// of its own: its users hold the database lock while changing or walking it.
//
// CTypedPointerList<T> is the same list with typed access; iterate it with a
// range-for (the walk sees the array as it was when the walk began, so the
// list must not change during the walk).
#pragma once

#include <memory>
#include <unordered_set>

#include "vorn/platform.h"

namespace vorn {

class CPointerList {
public:
    // Results of Add and Remove.
    enum : int { kOk = 0, kNoMemory = 1, kAbsent = 2, kDuplicate = 3 };

    CPointerList() = default;
    CPointerList(const CPointerList&) = delete;
    CPointerList& operator=(const CPointerList&) = delete;
    virtual ~CPointerList();

    // Number of items before the terminator; 0 for a list without array.
    ULONG Count() const noexcept { return count_; }
    bool Empty() const noexcept { return count_ == 0; }
    // The item at index i; i must be below Count() (not checked).
    void* GetAt(ULONG i) const noexcept { return items_[i]; }
    // The null-terminated array, or null when the list holds nothing.
    void* const* Items() const noexcept { return items_; }

    // Appends p: kOk, kDuplicate (p already listed; the list is unchanged)
    // or kNoMemory (the list is unchanged).
    int Add(void* p) noexcept;
    bool Contains(const void* p) const noexcept;
    // Removes p, keeping the order of the others: kOk, kAbsent, kNoMemory
    // (the list is unchanged). Removing the only item frees the array.
    int Remove(void* p) noexcept;
    // Frees the array and forgets every item.
    void RemoveAll() noexcept;

private:
    // Lists of up to kSearchLimit items are searched; longer ones keep a set
    // beside the array (most lists of the tree are empty or hold a few).
    static constexpr ULONG kSearchLimit = 16;

    void** items_ = nullptr;
    ULONG count_ = 0;
    std::unique_ptr<std::unordered_set<const void*>> set_;
};

template <class T>
class CTypedPointerList : public CPointerList {
public:
    class Iterator {
    public:
        explicit Iterator(void* const* p) noexcept : p_(p) {}
        T* operator*() const noexcept { return static_cast<T*>(*p_); }
        Iterator& operator++() noexcept {
            ++p_;
            return *this;
        }
        bool operator!=(const Iterator& other) const noexcept { return p_ != other.p_; }

    private:
        void* const* p_;
    };

    T* GetAt(ULONG i) const noexcept { return static_cast<T*>(CPointerList::GetAt(i)); }
    int Add(T* p) noexcept { return CPointerList::Add(p); }
    int Remove(T* p) noexcept { return CPointerList::Remove(p); }

    Iterator begin() const noexcept { return Iterator(Items()); }
    Iterator end() const noexcept { return Iterator(Items() ? Items() + Count() : nullptr); }
};

}  // namespace vorn
