// ComPtr<T>: a reference-holding interface pointer.
//
// Holds one reference to the pointee; copies AddRef, moves transfer, the
// destructor releases. `&p` is not overloaded: pass `p.put()` to a function
// that returns an interface through a T** (the old pointer is released first).
#pragma once

#include <utility>

#include "vorn/rt/unknown.h"

namespace vorn {

template <class T>
class ComPtr {
public:
    ComPtr() noexcept = default;
    ComPtr(std::nullptr_t) noexcept {}
    // Adds a reference to p.
    ComPtr(T* p) noexcept : p_(p) {
        if (p_) p_->AddRef();
    }
    ComPtr(const ComPtr& other) noexcept : ComPtr(other.p_) {}
    ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    ~ComPtr() { reset(); }

    ComPtr& operator=(ComPtr other) noexcept {
        std::swap(p_, other.p_);
        return *this;
    }

    // Takes over a reference the caller already owns.
    static ComPtr adopt(T* p) noexcept {
        ComPtr r;
        r.p_ = p;
        return r;
    }

    T* get() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }

    // Releases the current pointer and returns the slot for an out argument.
    T** put() noexcept {
        reset();
        return &p_;
    }
    void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

    // Hands the reference to the caller.
    T* detach() noexcept { return std::exchange(p_, nullptr); }

    void reset() noexcept {
        if (T* p = std::exchange(p_, nullptr)) p->Release();
    }

    // QueryInterface for U; the result is null when the query fails.
    template <class U>
    HRESULT As(ComPtr<U>* out) const noexcept {
        if (!p_) {
            out->reset();
            return E_POINTER;
        }
        return p_->QueryInterface(VORN_UUIDOF(U), out->put_void());
    }

    // Writes a new reference into *pp (for get_X style out arguments).
    HRESULT CopyTo(T** pp) const noexcept {
        if (!pp) return E_POINTER;
        *pp = p_;
        if (p_) p_->AddRef();
        return S_OK;
    }

    friend bool operator==(const ComPtr& a, const ComPtr& b) noexcept { return a.p_ == b.p_; }
    friend bool operator==(const ComPtr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

private:
    T* p_ = nullptr;
};

}  // namespace vorn
