// Integer and real array parameters: bounds, storage, notification order.
#include "parameters/ParameterArray.h"

#include <cstring>
#include <string>

#include "stream/DataStream.h"

namespace vorn {

namespace {

// "index 3 is not below the size 3", "count 500 is beyond the capacity 400".
std::string NotBelow(const char* what, ULONGLONG value, const char* bound, ULONGLONG limit) {
    return std::string(what) + " " + std::to_string(value) + " is not below the " + bound + " " + std::to_string(limit);
}
std::string Beyond(const char* what, ULONGLONG value, const char* bound, ULONGLONG limit) {
    return std::string(what) + " " + std::to_string(value) + " is beyond the " + bound + " " + std::to_string(limit);
}

constexpr char kNoStorage[] = "the array has no storage before its first Reset";

}  // namespace

#define VORN_ARRAY_TEMPLATE template <class T, class I, const IID* piid, class Record, VARTYPE kType>
#define VORN_ARRAY CParameterArray<T, I, piid, Record, kType>

VORN_ARRAY_TEMPLATE
void VORN_ARRAY::Changed() {
    this->NotifyChange();
    this->Propagate();
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_type(USHORT* pParamType) {
    if (!pParamType) return this->Fail(E_POINTER, "pParamType is null");
    *pParamType = kType;
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_Value(ULONG udwIndex, T* pValue) {
    return this->UnderReadLock([&]() -> HRESULT {
        if (udwIndex >= size_) return this->Fail(E_INVALIDARG, NotBelow("index", udwIndex, "size", size_));
        if (!pValue) return this->Fail(E_POINTER, "pValue is null");
        *pValue = storage_[udwIndex];
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::put_Value(ULONG udwIndex, T value) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwIndex >= size_) return this->Fail(E_INVALIDARG, NotBelow("index", udwIndex, "size", size_));
        storage_[udwIndex] = value;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_Units(eUNIT* peUnit) {
    if (!peUnit) return this->Fail(E_POINTER, "peUnit is null");
    *peUnit = unit_;
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::put_Units(eUNIT eUnit) {
    if (!IsKnownUnit(eUnit)) return this->UnknownUnit(eUnit);
    unit_ = eUnit;
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_Size(ULONG* pudwSize) {
    if (!pudwSize) return this->Fail(E_POINTER, "pudwSize is null");
    return this->UnderReadLock([&] {
        *pudwSize = size_;
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::put_Size(ULONG udwSize) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwSize > Capacity()) return this->Fail(E_INVALIDARG, Beyond("size", udwSize, "capacity", Capacity()));
        if (udwSize > allocated_) return this->Fail(E_POINTER, kNoStorage);  // before the first Reset
        size_ = udwSize;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::get_MaxSize(ULONG* pudwMaxSize) {
    if (!pudwMaxSize) return this->Fail(E_POINTER, "pudwMaxSize is null");
    *pudwMaxSize = Capacity();
    return S_OK;
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::GetArray(ULONG udwCount, T* pBuffer) {
    return this->UnderReadLock([&]() -> HRESULT {
        if (udwCount > size_) return this->Fail(E_INVALIDARG, Beyond("count", udwCount, "size", size_));
        if (!pBuffer) return this->Fail(E_POINTER, "pBuffer is null");
        if (!storage_) return this->Fail(E_POINTER, kNoStorage);
        std::memcpy(pBuffer, storage_.get(), SIZE_T{udwCount} * sizeof(T));
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::PutArray(ULONG udwCount, const T* pBuffer) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwCount > Capacity()) return this->Fail(E_INVALIDARG, Beyond("count", udwCount, "capacity", Capacity()));
        if (!pBuffer) return this->Fail(E_POINTER, "pBuffer is null");
        if (!storage_ || udwCount > allocated_) return this->Fail(E_POINTER, kNoStorage);
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
        if (ULONGLONG{size_} + 1 > Capacity())
            return this->Fail(E_OUTOFMEMORY, Beyond("size", ULONGLONG{size_} + 1, "capacity", Capacity()));
        if (size_ >= allocated_) return this->Fail(E_POINTER, kNoStorage);  // before the first Reset
        storage_[size_] = value;
        ++size_;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::AppendArray(ULONG udwCount, const T* pBuffer) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (ULONGLONG{size_} + udwCount > Capacity())
            return this->Fail(E_OUTOFMEMORY, Beyond("size", ULONGLONG{size_} + udwCount, "capacity", Capacity()));
        if (!pBuffer) return this->Fail(E_POINTER, "pBuffer is null");
        if (ULONGLONG{size_} + udwCount > allocated_) return this->Fail(E_POINTER, kNoStorage);
        std::memcpy(storage_.get() + size_, pBuffer, SIZE_T{udwCount} * sizeof(T));
        size_ += udwCount;
        Changed();
        return S_OK;
    });
}

VORN_ARRAY_TEMPLATE
STDMETHODIMP VORN_ARRAY::AssignValue(ULONG udwIndex, T value, ULONG udwCtrlFlags) {
    return this->UnderWriteLock([&]() -> HRESULT {
        if (udwIndex >= size_) return this->Fail(E_INVALIDARG, NotBelow("index", udwIndex, "size", size_));
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
    stream.Require(bytes);
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
