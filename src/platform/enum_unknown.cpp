// IEnumUnknown over a snapshot of interface pointers.
//
// VornCreateEnumUnknown copies the pointers into a Snapshot and adds one
// reference to each non-null entry. The snapshot is shared (std::shared_ptr)
// by the enumerator and all its clones and releases those references when the
// last of them goes away. Each enumerator has its own position; one
// enumerator object is meant to be used by one thread at a time, as COM
// enumerators usually are, while clones may be used on different threads.
#include <memory>
#include <new>
#include <vector>

#include "internal_com.h"
#include "vorn/platform.h"

namespace {

class Snapshot {
public:
    explicit Snapshot(std::vector<IUnknown*> items) : items_(std::move(items)) {
        for (IUnknown* item : items_)
            if (item) item->AddRef();
    }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    ~Snapshot() {
        for (IUnknown* item : items_)
            if (item) item->Release();
    }

    ULONG size() const { return static_cast<ULONG>(items_.size()); }
    IUnknown* at(ULONG index) const { return items_[index]; }

private:
    std::vector<IUnknown*> items_;
};

class EnumUnknown final : public vorn::rt::ComObject<IEnumUnknown> {
public:
    EnumUnknown(std::shared_ptr<const Snapshot> snapshot, ULONG position)
        : snapshot_(std::move(snapshot)), position_(position) {}

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        return QueryChain(riid, ppv, {&IID_IUnknown, &IID_IEnumUnknown});
    }

    // Hands out up to celt entries (each AddRefed; null entries stay null).
    // S_OK when celt were fetched, S_FALSE when fewer remained. E_POINTER for
    // a null rgelt (celt > 0); E_INVALIDARG for a null pceltFetched with
    // celt > 1, as COM requires.
    STDMETHODIMP Next(ULONG celt, IUnknown** rgelt, ULONG* pceltFetched) override {
        if (celt > 0 && !rgelt) return E_POINTER;
        if (celt > 1 && !pceltFetched) return E_INVALIDARG;
        ULONG fetched = 0;
        while (fetched < celt && position_ < snapshot_->size()) {
            IUnknown* item = snapshot_->at(position_++);
            if (item) item->AddRef();
            rgelt[fetched++] = item;
        }
        if (pceltFetched) *pceltFetched = fetched;
        return fetched == celt ? S_OK : S_FALSE;
    }

    // Moves celt entries on; S_FALSE (and the position at the end) when fewer
    // remained.
    STDMETHODIMP Skip(ULONG celt) override {
        const ULONG remaining = snapshot_->size() - position_;
        if (celt > remaining) {
            position_ = snapshot_->size();
            return S_FALSE;
        }
        position_ += celt;
        return S_OK;
    }

    STDMETHODIMP Reset() override {
        position_ = 0;
        return S_OK;
    }

    // A new enumerator over the same snapshot at the same position.
    // E_POINTER for a null ppenum, E_OUTOFMEMORY.
    STDMETHODIMP Clone(IEnumUnknown** ppenum) override {
        if (!ppenum) return E_POINTER;
        *ppenum = new (std::nothrow) EnumUnknown(snapshot_, position_);
        return *ppenum ? S_OK : E_OUTOFMEMORY;
    }

private:
    std::shared_ptr<const Snapshot> snapshot_;
    ULONG position_;
};

}  // namespace

// E_INVALIDARG for null objects with a non-zero count.
HRESULT WINAPI VornCreateEnumUnknown(IUnknown* const* objects, ULONG count, IEnumUnknown** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    if (!objects && count > 0) return E_INVALIDARG;
    try {
        auto snapshot = std::make_shared<const Snapshot>(std::vector<IUnknown*>(objects, objects + count));
        *ppEnum = new EnumUnknown(std::move(snapshot), 0);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
