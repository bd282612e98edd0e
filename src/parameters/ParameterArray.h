// Integer and real array parameters (IParameterIntegerArray,
// IParameterRealArray): bounded vectors of ULONG or DOUBLE with a unit.
//
// The capacity (MaxSize) is the maximum size of the parameter's
// SDefaultsIntegerArray / SDefaultsRealArray record, read from the record
// each time. Storage for the capacity is allocated at the first Reset and
// never reallocated; 0 <= size <= capacity always holds. Reset sets the size
// to 0 and leaves the status alone; shrinking with put_Size keeps the old
// elements, so growing again exposes them.
//
// Element writes leave the status as it is. Every successful change tells
// the sinks and then runs the dependency propagation; PutArray tells the sinks
// twice (once through the status rule that makes the array valid, once more),
// which clients count on. AssignValue's bit 0 means "tell the sinks" here:
// there is no check to make. The notification value of an array stays empty.
#pragma once

#include <memory>
#include <span>

#include "parameters/ArrayStorage.h"
#include "parameters/Parameter.h"

namespace vorn {

template <class T, class I, const IID* piid, class Record, VARTYPE kType>
class CParameterArray : public CParamTemplate<I, piid> {
public:
    // IParameter: VT_VECTOR | the element type; E_POINTER for null.
    STDMETHODIMP get_type(USHORT* pParamType) override;
    // The element (whatever the status); E_INVALIDARG for an index at or
    // beyond the size, then E_POINTER for a null out pointer.
    STDMETHODIMP get_Value(ULONG udwIndex, T* pValue) override;
    STDMETHODIMP put_Value(ULONG udwIndex, T value) override;
    STDMETHODIMP get_Units(eUNIT* peUnit) override;
    // E_INVALIDARG for a value that is not a member of eUNIT.
    STDMETHODIMP put_Units(eUNIT eUnit) override;
    STDMETHODIMP get_Size(ULONG* pudwSize) override;
    // E_INVALIDARG beyond the capacity; elements are neither cleared nor
    // initialised.
    STDMETHODIMP put_Size(ULONG udwSize) override;
    STDMETHODIMP get_MaxSize(ULONG* pudwMaxSize) override;
    // Copies the first udwCount elements: E_INVALIDARG beyond the size,
    // E_POINTER for a null buffer or before the first Reset.
    STDMETHODIMP GetArray(ULONG udwCount, T* pBuffer) override;
    // Replaces the contents: E_INVALIDARG beyond the capacity, E_POINTER for
    // a null buffer or before the first Reset.
    STDMETHODIMP PutArray(ULONG udwCount, const T* pBuffer) override;
    // E_OUTOFMEMORY when the capacity would be exceeded, nothing stored.
    STDMETHODIMP AppendValue(T value) override;
    STDMETHODIMP AppendArray(ULONG udwCount, const T* pBuffer) override;
    STDMETHODIMP AssignValue(ULONG udwIndex, T value, ULONG udwCtrlFlags) override;
    // IDatabaseObject: unit from the record (eUNIT_NONE with any other kind),
    // storage for the capacity on the first reset, size 0.
    STDMETHODIMP Reset() override;

    // Settings stream payload: type code (9 integers, 7 reals), the status
    // word, the size (u32) and that many elements, whatever the status:
    // 8 + element size x size bytes. Loading a count beyond the capacity
    // skips the elements and leaves the array invalid; otherwise the
    // elements are read into the storage, the size set, and the status word
    // applied. A count beyond the end of the stream fails (E_FAIL) before
    // the storage is touched.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // The capacity from the record; 0 without one.
    ULONG Capacity() const noexcept {
        const Record* record = this->defaults_.template As<Record>();
        return record ? record->maxSize : 0;
    }
    ULONG Size() const noexcept { return size_; }
    const T* Elements() const noexcept { return storage_.get(); }

protected:
    // Tells the sinks, then the dependants.
    void Changed();
    // Allocates the storage for the capacity unless it is there (the first
    // Reset, or a load before it).
    void AllocateStorage();

    ArrayStoragePtr<T> storage_;
    ULONG allocated_ = 0;  // elements in storage_
    eUNIT unit_ = eUNIT_NONE;
    ULONG size_ = 0;
};

class CParameterIntegerArray : public CParameterArray<ULONG, IParameterIntegerArray, &IID_IParameterIntegerArray,
                                                      SDefaultsIntegerArray, VT_VECTOR | VT_UI4> {};

class CParameterRealArray : public CParameterArray<DOUBLE, IParameterRealArray, &IID_IParameterRealArray,
                                                   SDefaultsRealArray, VT_VECTOR | VT_R8> {};

extern template class CParameterArray<ULONG, IParameterIntegerArray, &IID_IParameterIntegerArray, SDefaultsIntegerArray,
                                      VT_VECTOR | VT_UI4>;
extern template class CParameterArray<DOUBLE, IParameterRealArray, &IID_IParameterRealArray, SDefaultsRealArray,
                                      VT_VECTOR | VT_R8>;

// The elements of a valid real array (empty when it is missing, invalid or
// not yet given storage).
inline std::span<const double> ValuesOf(const CParameterRealArray* array) noexcept {
    if (!array || !array->IsValid() || !array->Elements()) return {};
    return {array->Elements(), array->Size()};
}

}  // namespace vorn
