// Integer and real array parameters: bounds, storage, notification order.
#include "parameters/ParameterArray.h"

#include <cstring>

#include "stream/DataStream.h"

namespace vorn {

#define VORN_ARRAY_TEMPLATE template <class T, class I, const IID* piid, class Record, VARTYPE kType>
#define VORN_ARRAY CParameterArray<T, I, piid, Record, kType>

VORN_ARRAY_TEMPLATE
void VORN_ARRAY::Changed() {
    this->NotifyChange();
    this->Propagate();
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_type(USHORT* pParamType) {
    if (!pParamType) return E_POINTER;
    *pParamType = kType;
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_Value(ULONG udwIndex, T* pValue) {
    return this->UnderReadLock([&]() -> HRESULT {
        if (udwIndex >= size_) return E_INVALIDARG;
        if (!pValue) return E_POINTER;
        *pValue = storage_[udwIndex];
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::put_Value(ULONG udwIndex, T value) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwIndex >= size_) return E_INVALIDARG;
        storage_[udwIndex] = value;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_Units(eUNIT* peUnit) {
    if (!peUnit) return E_POINTER;
    *peUnit = unit_;
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::put_Units(eUNIT eUnit) {
    if (!IsKnownUnit(eUnit)) return E_INVALIDARG;
    unit_ = eUnit;
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_Size(ULONG* pudwSize) {
    if (!pudwSize) return E_POINTER;
    return this->UnderReadLock([&] {
        *pudwSize = size_;
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::put_Size(ULONG udwSize) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwSize > Capacity()) return E_INVALIDARG;
        if (udwSize > allocated_) return E_POINTER;  // before the first Reset
        size_ = udwSize;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_MaxSize(ULONG* pudwMaxSize) {
    if (!pudwMaxSize) return E_POINTER;
    *pudwMaxSize = Capacity();
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::GetArray(ULONG udwCount, T* pBuffer) {
    return this->UnderReadLock([&]() -> HRESULT {
        if (udwCount > size_) return E_INVALIDARG;
        if (!pBuffer || !storage_) return E_POINTER;
        std::memcpy(pBuffer, storage_.get(), SIZE_T{udwCount} * sizeof(T));
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::PutArray(ULONG udwCount, const T* pBuffer) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwCount > Capacity()) return E_INVALIDARG;
        if (!pBuffer || !storage_ || udwCount > allocated_) return E_POINTER;
        std::memcpy(storage_.get(), pBuffer, SIZE_T{udwCount} * sizeof(T));
        size_ = udwCount;
        this->SetStatus(eSTATUS_VALID);
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::AppendValue(T value) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (ULONGLONG{size_} + 1 > Capacity()) return E_OUTOFMEMORY;
        if (size_ >= allocated_) return E_POINTER;  // before the first Reset
        storage_[size_] = value;
        ++size_;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::AppendArray(ULONG udwCount, const T* pBuffer) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (ULONGLONG{size_} + udwCount > Capacity()) return E_OUTOFMEMORY;
        if (!pBuffer || ULONGLONG{size_} + udwCount > allocated_) return E_POINTER;
        std::memcpy(storage_.get() + size_, pBuffer, SIZE_T{udwCount} * sizeof(T));
        size_ += udwCount;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::AssignValue(ULONG udwIndex, T value, ULONG udwCtrlFlags) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwIndex >= size_) return E_INVALIDARG;
        storage_[udwIndex] = value;
        if (udwCtrlFlags & kAssignNotify) this->NotifyChange();
        if (udwCtrlFlags & kAssignPropagate) this->Propagate();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
void VORN_ARRAY::AllocateStorage() {
    const ULONG capacity = Capacity();
    if (storage_ || capacity == 0) return;
    // Not value-initialised: a trace's pages stay untouched (and not
    // resident) until written.
    storage_ = MakeArrayStorage<T>(capacity);
    allocated_ = capacity;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::Reset() {
    return this->UnderWriteLock([&] {
        const Record* record = this->defaults_.template As<Record>();
        unit_ = record ? record->unit : eUNIT_NONE;
        AllocateStorage();
        size_ = 0;
        return S_OK;
    });
}

// The type code of the element type's payload.
template <class T>
constexpr WORD kArrayTypeCode = std::is_same_v<T, DOUBLE> ? kTypeRealArray : kTypeIntegerArray;

VORN_ARRAY_TEMPLATE
DWORD VORN_ARRAY::PayloadSize() { return static_cast<DWORD>(8 + sizeof(T) * size_); }

VORN_ARRAY_TEMPLATE
void VORN_ARRAY::SavePayload(CDataStream& stream) {
    stream.WriteShort(kArrayTypeCode<T>);
    stream.WriteShort(this->StatusWord());
    stream.WriteLong(size_);
    stream.WriteBytes(storage_.get(), sizeof(T) * size_);
}

VORN_ARRAY_TEMPLATE
bool VORN_ARRAY::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kArrayTypeCode<T>) return false;
    const WORD status = stream.ReadShort();
    const ULONG count = stream.ReadLong();
    const ULONGLONG bytes = ULONGLONG{count} * sizeof(T);
    if (count <= Capacity()) AllocateStorage();
    if (count > Capacity() || count > allocated_) {
        stream.Skip(bytes);
        this->SetStatus(eSTATUS_INVALID);
        return true;
    }
    if (bytes > stream.Remaining()) ThrowHr(E_FAIL, "the settings stream ends inside an array");
    stream.ReadBytes(storage_.get(), static_cast<std::size_t>(bytes));
    size_ = count;
    this->ApplyStatusWord(status);
    return true;
}

#undef VORN_ARRAY
#undef VORN_ARRAY_TEMPLATE

template class CParameterArray<ULONG, IParameterIntegerArray, &IID_IParameterIntegerArray, SDefaultsIntegerArray,
                               VT_VECTOR | VT_UI4>;
template class CParameterArray<DOUBLE, IParameterRealArray, &IID_IParameterRealArray, SDefaultsRealArray,
                               VT_VECTOR | VT_R8>;

}  // namespace vorn
