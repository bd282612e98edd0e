// CParameter: the leaf of the database tree, and CParamTemplate, which binds
// a parameter class to its value interface.
//
// A parameter is a named node (CDatabaseObjectImpl) that holds one typed
// value (in the value classes), a validity status and a pointer to its static
// defaults record. What every parameter shares lives here:
//  - the status rule (SetStatus): the notification value follows the value
//    (UpdateVariant) or is emptied, the status is stored, and the sinks on the
//    parameter and on every ancestor are told (NotifyChange);
//  - the change path of put_Value (ChangeValue): under the write lock, the
//    class's checked store, then, only when it returned S_OK, the dependency
//    propagation (Propagate): depth first over the dependants of the
//    parameter and its ancestors, each object handled at most once, then the
//    recalculation lists (the node's secondary dependants), whose members
//    are recalculated without passing the change on;
//  - AssignValue's control flags (AssignWithFlags).
// Invariants: status is eSTATUS_VALID or eSTATUS_INVALID; a new parameter is
// invalid with an empty notification value; the defaults record is set once
// by the owning group and never copied or freed. The value classes keep their
// value fields in protected members so that rule classes and the settings
// stream code can reach them.
//
// Every interface method catches what its body throws (vorn::Guarded) and
// returns an HRESULT; nothing throws across an interface. Failures are
// reported as error information naming the parameter (core/ComError.h); the
// checked stores report their refusals themselves (Fail), saying what was
// refused and why ("5 THz is above the upper limit 1 THz").
#pragma once

#include <string>
#include <type_traits>

#include "core/ComError.h"
#include "core/DatabaseLock.h"
#include "core/DatabaseObjectImpl.h"
#include "parameters/Defaults.h"
#include "vorn/stream_format.h"

namespace vorn {

// Reading the value of an invalid parameter.
inline constexpr HRESULT kInvalidData = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

// True for the units of eUNIT (put_Units refuses any other value).
inline bool IsKnownUnit(eUNIT unit) noexcept {
    const LONG bits = EnumBits(unit);
    return bits >= eUNIT_NONE && bits <= eUNIT_VOLT_VOLT;
}

class CParameter : public CDatabaseObjectImpl {
public:
    // Binds the defaults record; called once by the owning group's
    // constructor right after naming the parameter.
    void SetDefaults(CDefaultsRef defaults) noexcept { defaults_ = defaults; }
    CDefaultsRef Defaults() const noexcept { return defaults_; }

    eSTATUS Status() const noexcept { return status_; }
    bool IsValid() const noexcept { return status_ == eSTATUS_VALID; }

    // The status rule: eSTATUS_INVALID empties the notification value, any
    // other status refreshes it from the value (UpdateVariant); then the
    // status is stored and the sinks are told. The caller holds the write
    // lock. Throws what NotifyChange throws (a record that cannot be queued).
    void SetStatus(eSTATUS status);

    // Copies the value into the notification value (CallbackData(), the
    // variant handed to the sinks as their data). Arrays and buffers keep it
    // empty.
    virtual void UpdateVariant() {}

    // Settings stream: the stream mark and this parameter's record
    // (stream/NodeStream.h).
    STDMETHODIMP Save(IStream* pStm) override;
    STDMETHODIMP Load(IStream* pStm) override;

    // The base parameter binds to nothing; rule classes override these.
    void PostConstruct() override {}
    void PostConstruct2() override {}

    // The dependency propagation of a change of this parameter
    // (PropagateChange), skipped outright when neither this parameter nor an
    // ancestor has a dependant or a recalculation-list member. The caller
    // holds the write lock.
    void Propagate();

protected:
    // The change path of put_Value: `store` is the class's checked store,
    // run under the write lock; propagation follows only an S_OK.
    template <class Store>
    HRESULT ChangeValue(Store&& store) noexcept {
        return Guarded(*this, [&]() -> HRESULT {
            CWriteLock lock;
            const HRESULT hr = store();
            if (hr == S_OK) Propagate();
            return hr;
        });
    }

    // AssignValue: bit 0 runs `checked` (the checked store that notifies),
    // clear runs `raw` (a plain store; it may return a failing HRESULT, which
    // is returned with nothing else done) and marks the value valid without
    // the status rule, so no sink is told; bit 1 propagates after S_OK.
    template <class Checked, class Raw>
    HRESULT AssignWithFlags(ULONG flags, Checked&& checked, Raw&& raw) noexcept {
        return Guarded(*this, [&]() -> HRESULT {
            CWriteLock lock;
            HRESULT hr = S_OK;
            if (flags & kAssignNotify) {
                hr = checked();
            } else {
                if constexpr (std::is_same_v<decltype(raw()), HRESULT>) {
                    hr = raw();
                    if (FAILED(hr)) return hr;
                } else {
                    raw();
                }
                UpdateVariant();
                status_ = eSTATUS_VALID;
            }
            if (hr == S_OK && (flags & kAssignPropagate)) Propagate();
            return hr;
        });
    }

    // get_Value of the scalar classes: under the read lock, the value from
    // `get` when valid, else kInvalidData with *out untouched.
    template <class T, class Get>
    HRESULT ReadValue(T* out, Get&& get) const noexcept {
        if (!out) return Fail(E_POINTER, "get_Value's out pointer is null");
        return Guarded(*this, [&]() -> HRESULT {
            CReadLock lock;
            if (status_ != eSTATUS_VALID) return InvalidValue();
            *out = get();
            return S_OK;
        });
    }

    // A lock-taking wrapper for the other interface methods.
    template <class Body>
    HRESULT UnderWriteLock(Body&& body) const noexcept {
        return Guarded(*this, [&]() -> HRESULT {
            CWriteLock lock;
            return body();
        });
    }
    template <class Body>
    HRESULT UnderReadLock(Body&& body) const noexcept {
        return Guarded(*this, [&]() -> HRESULT {
            CReadLock lock;
            return body();
        });
    }

    // Reports the read of an invalid value: kInvalidData.
    HRESULT InvalidValue() const noexcept { return Fail(kInvalidData, "the parameter holds no valid value"); }
    // Reports a unit that is not a member of eUNIT: E_INVALIDARG.
    HRESULT UnknownUnit(eUNIT unit) const noexcept;
    // Reports a value outside [minimum, maximum] (already formatted, with
    // their units): E_INVALIDARG, "5 THz is above the upper limit 1 THz".
    HRESULT OutOfLimits(const std::string& value, bool above, const std::string& limit) const;
    // Reports a stepping operation that cannot move off the limit the value
    // sits on: E_INVALIDARG.
    HRESULT OnLimit(bool upper, const std::string& limit) const;

    // Settings stream payloads (stream/DataStream.h): the status word a
    // payload carries; a status word read back (0 valid, which re-publishes
    // the value, anything else invalid) applied through the status rule; and
    // the outcome of the checked store of a loaded value (a failure leaves
    // the parameter invalid). The caller holds the write lock.
    WORD StatusWord() const noexcept { return status_ == eSTATUS_VALID ? kStatusValid : kStatusInvalid; }
    void ApplyStatusWord(WORD stored);
    void ApplyLoadedStore(HRESULT storeResult);

    CDefaultsRef defaults_;
    eSTATUS status_ = eSTATUS_INVALID;
};

// A parameter class whose valid value survives a reset (a preset of the
// tree): Reset leaves a valid parameter as it is, value and limits, and
// resets an invalid one as Base does. For state that belongs to the running
// instrument or application rather than to the measurement settings.
template <class Base>
class CKeptByReset : public Base {
public:
    STDMETHODIMP Reset() override {
        return this->UnderWriteLock([&]() -> HRESULT { return this->IsValid() ? S_OK : Base::Reset(); });
    }
};

// Binds a parameter class to its value interface I: IUnknown for the node
// (IUnknown, IDatabaseObject, IParameter and I) and the status operations.
// get_type is the value class's; IDatabaseObject is CDatabaseObjectImpl's.
template <class I, const IID* piid>
class CParamTemplate : public CParameter, public I {
public:
    using Interface = I;

    // IUnknown of both faces: the value interface and IParameter answer with
    // the I face, IUnknown and IDatabaseObject with the node's identity.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (ppv && (IsEqualIID(riid, *piid) || IsEqualIID(riid, IID_IParameter))) {
            *ppv = static_cast<I*>(this);
            TreeAddRef();
            return S_OK;
        }
        return QueryNodeInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return TreeAddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return TreeRelease(); }

    // IParameter
    STDMETHODIMP get_Status(eSTATUS* peStatus) override {
        if (!peStatus) return Fail(E_POINTER, "peStatus is null");
        return UnderReadLock([&] {
            *peStatus = status_;
            return S_OK;
        });
    }
    // Only eSTATUS_VALID and eSTATUS_INVALID are statuses; any other value
    // is E_INVALIDARG and changes nothing.
    STDMETHODIMP put_Status(eSTATUS eStatus) override {
        const LONG bits = EnumBits(eStatus);
        return UnderWriteLock([&] {
            if (bits != eSTATUS_VALID && bits != eSTATUS_INVALID)
                return Fail(E_INVALIDARG,
                            std::to_string(bits) + " is not a status (eSTATUS_VALID 0, eSTATUS_INVALID 1)");
            SetStatus(bits == eSTATUS_VALID ? eSTATUS_VALID : eSTATUS_INVALID);
            return S_OK;
        });
    }

protected:
    const IID& ErrorInterface() const noexcept override { return *piid; }
};

}  // namespace vorn
