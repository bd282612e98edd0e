// Shared sample buffers: what a client needs to build, fill and hand over the
// bulk sample data of a buffer parameter (IParameterBuffer).
//
// A CBuffer<float, 4> holds rows of samples: `SecondExtent()` values per row,
// room for `FirstExtent()` rows, `UsedCount()` rows in use, row-major. Its
// storage comes from task memory (CoTaskMemRealloc/CoTaskMemFree), so the
// buffer may be filled in one module and released in another. The buffer
// object travels between client and database as a pointer-sized cookie
// (`Cookie()`, `FromCookie()`); the cookie is the object's address.
//
// Reference counting is explicit and unsynchronised: a buffer starts with one
// reference (its creator's); `AddRef` and `Release` count, and the release that
// reaches zero frees the storage (the object itself stays with its owner, who
// destroys it). A client that shares a buffer between threads serialises its
// own calls.
//
// Typical use:
//     CBuffer<float, 4> buffer(CDim(rows), CDim(valuesPerRow));
//     std::copy(samples, samples + rows * valuesPerRow, buffer.Data());
//     buffer.SetUsedCount(rows);
//     parameter->Attach(buffer.Cookie());   // the parameter holds a reference
//
// Failures raise bad_buffer_error with one of the four fixed texts below.
#pragma once

#include <cstring>
#include <exception>
#include <type_traits>

#include "vorn/platform.h"

// One dimension of a buffer: an element count and a lower bound (always 0).
struct CDim : SAFEARRAYBOUND {
    explicit CDim(ULONG count = 0) noexcept : SAFEARRAYBOUND{count, 0} {}
    ~CDim() = default;
};

// Raised by buffer operations; what() is one of the fixed texts below.
class bad_buffer_error : public std::exception {
public:
    // A null cookie handed to IParameterBuffer::Attach.
    static constexpr const char* kAttachNullCookie = "ParameterBuffer: 860: Invalid Argument";
    // A null cookie handed to IParameterBuffer::Assign.
    static constexpr const char* kAssignNullCookie = "ParameterBuffer: 910: Invalid Argument";
    // A shape whose storage size does not fit 32 bits.
    static constexpr const char* kInvalidArgument = "Buffer: 819: Invalid Argument";
    // Task memory could not be (re)allocated.
    static constexpr const char* kNotEnoughMemory = "Buffer: 1389: Not enough memory";

    // `text` must have static storage duration (one of the texts above).
    explicit bad_buffer_error(const char* text) noexcept : text_(text) {}
    const char* what() const noexcept override { return text_; }

private:
    const char* text_;
};

// A reference-counted block of samples of type T. N is the fixed number of
// shape dimensions the settings stream records for it (4).
template <class T, int N>
class CBuffer {
    static_assert(std::is_trivially_copyable_v<T>, "samples are copied as bytes");

public:
    static constexpr int kDimensions = N;

    // Room for first.cElements rows of second.cElements samples; no row used,
    // not growable, mode 1, one reference. Raises bad_buffer_error when the
    // storage size does not fit 32 bits or cannot be allocated.
    CBuffer(const CDim& first, const CDim& second) : secondExtent_(second.cElements), firstExtent_(first.cElements) {
        Reallocate(RowBytes(first.cElements));
    }
    CBuffer(const CBuffer&) = delete;
    CBuffer& operator=(const CBuffer&) = delete;
    ~CBuffer() { FreeStorage(); }

    // The cookie that stands for this buffer in IParameterBuffer calls, and
    // back. A cookie of 0 is never a buffer.
    ULONG_PTR Cookie() const noexcept { return reinterpret_cast<ULONG_PTR>(this); }
    static CBuffer* FromCookie(ULONG_PTR cookie) noexcept { return reinterpret_cast<CBuffer*>(cookie); }

    T* Data() noexcept { return data_; }
    const T* Data() const noexcept { return data_; }
    ULONG AllocatedBytes() const noexcept { return allocatedBytes_; }
    ULONG FirstExtent() const noexcept { return firstExtent_; }
    ULONG SecondExtent() const noexcept { return secondExtent_; }
    ULONG UsedCount() const noexcept { return usedCount_; }
    bool IsGrowable() const noexcept { return growable_ != 0; }
    ULONG Mode() const noexcept { return mode_; }
    ULONG RefCount() const noexcept { return refCount_; }
    // Number of samples in use: used rows times values per row.
    SIZE_T SampleCount() const noexcept { return SIZE_T{usedCount_} * secondExtent_; }

    // A growable buffer's used count is not limited by the first extent; the
    // writer then sizes the storage itself (Reallocate, ReserveRows).
    void SetGrowable(bool growable) noexcept { growable_ = growable ? 1u : 0u; }

    // Sets the rows in use (mode 1 only; other modes ignore it): limited to
    // the first extent unless the buffer is growable.
    void SetUsedCount(ULONG n) noexcept {
        if (mode_ != 1) return;
        usedCount_ = (growable_ == 0 && n > firstExtent_) ? firstExtent_ : n;
    }

    // Resizes the storage to `bytes` bytes, keeping its start. 0 does
    // nothing. Raises bad_buffer_error (not enough memory) and leaves the
    // buffer as it was when the storage cannot be reallocated.
    void Reallocate(ULONG bytes) {
        if (bytes == 0) return;
        void* p = CoTaskMemRealloc(data_, bytes);
        if (!p) throw bad_buffer_error(bad_buffer_error::kNotEnoughMemory);
        data_ = static_cast<T*>(p);
        allocatedBytes_ = bytes;
    }

    // Makes room for at least `rows` rows (the storage never shrinks here).
    // Raises bad_buffer_error: invalid argument when the size does not fit
    // 32 bits, not enough memory when it cannot be allocated.
    void ReserveRows(ULONG rows) {
        const ULONG bytes = RowBytes(rows);
        if (bytes > allocatedBytes_) Reallocate(bytes);
    }

    ULONG AddRef() noexcept { return ++refCount_; }

    // Drops one reference (none left: nothing happens); the release that
    // reaches zero frees the storage. Returns the remaining count.
    ULONG Release() noexcept {
        if (refCount_ != 0) --refCount_;
        if (refCount_ == 0) FreeStorage();
        return refCount_;
    }

    // Frees the storage: no rows in use, no data.
    void Clear() noexcept {
        FreeStorage();
        usedCount_ = 0;
    }

    // Makes this buffer a copy of `other`: shape, flags, used count and the
    // samples, into storage of its own (the reference count stays). Raises
    // bad_buffer_error when the storage cannot be allocated; this buffer is
    // then unchanged.
    void CopyFrom(const CBuffer& other) {
        if (&other == this) return;
        if (other.data_ && other.allocatedBytes_ > 0) {
            if (other.allocatedBytes_ != allocatedBytes_ || !data_) Reallocate(other.allocatedBytes_);
            std::memcpy(data_, other.data_, other.allocatedBytes_);
        } else {
            FreeStorage();
        }
        secondExtent_ = other.secondExtent_;
        usedCount_ = other.usedCount_;
        firstExtent_ = other.firstExtent_;
        growable_ = other.growable_;
        reserved_ = other.reserved_;
        mode_ = other.mode_;
    }

private:
    ULONG RowBytes(ULONG rows) const {
        const ULONGLONG bytes = ULONGLONG{rows} * secondExtent_ * sizeof(T);
        if (bytes > 0xFFFFFFFFull) throw bad_buffer_error(bad_buffer_error::kInvalidArgument);
        return static_cast<ULONG>(bytes);
    }
    void FreeStorage() noexcept {
        if (data_) CoTaskMemFree(data_);
        data_ = nullptr;
        allocatedBytes_ = 0;
    }

    // Field order is the one the settings stream records (after the data).
    T* data_ = nullptr;
    ULONG allocatedBytes_ = 0;
    ULONG secondExtent_ = 0;
    ULONG usedCount_ = 0;
    ULONG firstExtent_ = 0;
    ULONG growable_ = 0;
    ULONG reserved_ = 0;
    ULONG mode_ = 1;
    ULONG refCount_ = 1;
};
