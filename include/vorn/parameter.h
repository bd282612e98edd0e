// The value interfaces of the database's parameters.
//
// Every parameter of the tree answers IDatabaseObject (name, notification
// registration, Reset, Save, Load) and exactly one of the value interfaces
// below, which all begin with the three IParameter operations. Slot orders
// are those of the type library and must not change.
//
// Results common to all of them: S_OK; S_FALSE when a write left the value
// as it was (setting classes); E_INVALIDARG for values outside the limits and
// for indexes beyond the size; 0x8007000D (HRESULT_FROM_WIN32(ERROR_INVALID_DATA))
// when the value of an invalid parameter is read; E_NOTIMPL for operations a
// parameter's class does not support (limits and stepping of plain values).
//
// AssignValue's control flags: bit 0 (vorn::kAssignNotify) runs the class's
// checked store and tells the sinks; bit 1 (vorn::kAssignPropagate) runs the
// dependency propagation after a successful store. 3 behaves as put_Value; 0
// is a silent raw write that marks the value valid. Arrays read bit 0 as
// "tell the sinks" only: their element writes have nothing to check.
#pragma once

#include "vorn/buffer.h"
#include "vorn/database.h"
#include "vorn/enums.h"
#include "vorn/platform.h"

namespace vorn {
inline constexpr ULONG kAssignNotify = 1;     // checked store and sink notification
inline constexpr ULONG kAssignPropagate = 2;  // dependency propagation after success
}  // namespace vorn

// Common to every value interface.
struct IParameter : IUnknown {
    // The variant type of the value family: VT_BOOL, VT_UI4 (integers and
    // enumerations), VT_R8, VT_BSTR, VT_VECTOR|VT_UI4, VT_VECTOR|VT_R8, or
    // 0xA004 for buffers.
    STDMETHOD(get_type)(USHORT* pParamType) PURE;
    STDMETHOD(get_Status)(eSTATUS* peStatus) PURE;
    // eSTATUS_INVALID empties the value; eSTATUS_VALID republishes it. Either
    // way the sinks are told.
    STDMETHOD(put_Status)(eSTATUS eStatus) PURE;
};
VORN_INTERFACE_IID(IParameter, IID_IParameter);

struct IParameterBoolean : IParameter {
    // VARIANT_TRUE or VARIANT_FALSE.
    STDMETHOD(get_Value)(VARIANT_BOOL* pbValue) PURE;
    // Any non-zero value is stored as true.
    STDMETHOD(put_Value)(VARIANT_BOOL bValue) PURE;
    // Stores the value and nothing else: no check, status or notification.
    STDMETHOD(SetValueNoCallback)(VARIANT_BOOL bValue) PURE;
    STDMETHOD(AssignValue)(VARIANT_BOOL bValue, ULONG udwCtrlFlags) PURE;
};
VORN_INTERFACE_IID(IParameterBoolean, IID_IParameterBoolean);

struct IParameterInteger : IParameter {
    STDMETHOD(get_Value)(ULONG* pudwValue) PURE;
    STDMETHOD(put_Value)(ULONG udwValue) PURE;
    STDMETHOD(get_Minimum)(ULONG* pudwMinimum) PURE;
    STDMETHOD(put_Minimum)(ULONG udwMinimum) PURE;
    STDMETHOD(get_Maximum)(ULONG* pudwMaximum) PURE;
    STDMETHOD(put_Maximum)(ULONG udwMaximum) PURE;
    // Meaningful only on the schema classes that define it; E_NOTIMPL else.
    STDMETHOD(get_ValueEx)(ULONG* pudwValue) PURE;
    STDMETHOD(put_ValueEx)(ULONG udwValue) PURE;
    STDMETHOD(Increment)(eSTEP eStep) PURE;
    STDMETHOD(Decrement)(eSTEP eStep) PURE;
    STDMETHOD(IncWithDepNoti)(eSTEP eStep) PURE;
    STDMETHOD(DecWithDepNoti)(eSTEP eStep) PURE;
    STDMETHOD(GetNearestValue)(ULONG udwValue, ULONG* pudwNearest) PURE;
    STDMETHOD(SetValueNoCallback)(ULONG udwValue) PURE;
    STDMETHOD(AssignValue)(ULONG udwValue, ULONG udwCtrlFlags) PURE;
};
VORN_INTERFACE_IID(IParameterInteger, IID_IParameterInteger);

struct IParameterReal : IParameter {
    STDMETHOD(get_Value)(DOUBLE* pdValue) PURE;
    STDMETHOD(put_Value)(DOUBLE dValue) PURE;
    STDMETHOD(get_Minimum)(DOUBLE* pdMinimum) PURE;
    STDMETHOD(put_Minimum)(DOUBLE dMinimum) PURE;
    STDMETHOD(get_Maximum)(DOUBLE* pdMaximum) PURE;
    STDMETHOD(put_Maximum)(DOUBLE dMaximum) PURE;
    STDMETHOD(get_Units)(eUNIT* peUnit) PURE;
    STDMETHOD(put_Units)(eUNIT eUnit) PURE;
    STDMETHOD(Increment)(eSTEP eStep) PURE;
    STDMETHOD(Decrement)(eSTEP eStep) PURE;
    STDMETHOD(IncWithDepNoti)(eSTEP eStep) PURE;
    STDMETHOD(DecWithDepNoti)(eSTEP eStep) PURE;
    STDMETHOD(GetNearestValue)(DOUBLE dValue, DOUBLE* pdNearest) PURE;
    STDMETHOD(SetValueNoCallback)(DOUBLE dValue) PURE;
    STDMETHOD(AssignValue)(DOUBLE dValue, ULONG udwCtrlFlags) PURE;
};
VORN_INTERFACE_IID(IParameterReal, IID_IParameterReal);

struct IParameterString : IParameter {
    // A new BSTR the caller frees.
    STDMETHOD(get_Value)(BSTR* pbstrValue) PURE;
    // A null string empties and invalidates the parameter and fails with
    // E_INVALIDARG.
    STDMETHOD(put_Value)(BSTR bstrValue) PURE;
    STDMETHOD(AssignValue)(BSTR bstrValue, ULONG udwCtrlFlags) PURE;
};
VORN_INTERFACE_IID(IParameterString, IID_IParameterString);

// Bounded vectors: a fixed capacity (MaxSize), a current size and a unit.
// Element writes leave the status as it is.
struct IParameterIntegerArray : IParameter {
    STDMETHOD(get_Value)(ULONG udwIndex, ULONG* pudwValue) PURE;
    STDMETHOD(put_Value)(ULONG udwIndex, ULONG udwValue) PURE;
    STDMETHOD(get_Units)(eUNIT* peUnit) PURE;
    STDMETHOD(put_Units)(eUNIT eUnit) PURE;
    STDMETHOD(get_Size)(ULONG* pudwSize) PURE;
    STDMETHOD(put_Size)(ULONG udwSize) PURE;
    STDMETHOD(get_MaxSize)(ULONG* pudwMaxSize) PURE;
    STDMETHOD(GetArray)(ULONG udwCount, ULONG* pudwBuffer) PURE;
    STDMETHOD(PutArray)(ULONG udwCount, const ULONG* pudwBuffer) PURE;
    // E_OUTOFMEMORY when the capacity would be exceeded.
    STDMETHOD(AppendValue)(ULONG udwValue) PURE;
    STDMETHOD(AppendArray)(ULONG udwCount, const ULONG* pudwBuffer) PURE;
    STDMETHOD(AssignValue)(ULONG udwIndex, ULONG udwValue, ULONG udwCtrlFlags) PURE;
};
VORN_INTERFACE_IID(IParameterIntegerArray, IID_IParameterIntegerArray);

struct IParameterRealArray : IParameter {
    STDMETHOD(get_Value)(ULONG udwIndex, DOUBLE* pdValue) PURE;
    STDMETHOD(put_Value)(ULONG udwIndex, DOUBLE dValue) PURE;
    STDMETHOD(get_Units)(eUNIT* peUnit) PURE;
    STDMETHOD(put_Units)(eUNIT eUnit) PURE;
    STDMETHOD(get_Size)(ULONG* pudwSize) PURE;
    STDMETHOD(put_Size)(ULONG udwSize) PURE;
    STDMETHOD(get_MaxSize)(ULONG* pudwMaxSize) PURE;
    STDMETHOD(GetArray)(ULONG udwCount, DOUBLE* pdBuffer) PURE;
    STDMETHOD(PutArray)(ULONG udwCount, const DOUBLE* pdBuffer) PURE;
    STDMETHOD(AppendValue)(DOUBLE dValue) PURE;
    STDMETHOD(AppendArray)(ULONG udwCount, const DOUBLE* pdBuffer) PURE;
    STDMETHOD(AssignValue)(ULONG udwIndex, DOUBLE dValue, ULONG udwCtrlFlags) PURE;
};
VORN_INTERFACE_IID(IParameterRealArray, IID_IParameterRealArray);

// Bulk samples shared by reference: the cookie is CBuffer<float, 4>::Cookie()
// of a client-built buffer (include "vorn/buffer.h").
struct IParameterBuffer : IParameter {
    // Attaches the buffer (one reference taken, the previous one released)
    // and marks the parameter valid. A null cookie: E_UNEXPECTED.
    STDMETHOD(Attach)(ULONG_PTR udwCookie) PURE;
    // Copies the given buffer onto the attached one; nothing attached: S_OK
    // and nothing done. A null cookie: E_UNEXPECTED.
    STDMETHOD(Assign)(ULONG_PTR udwCookie) PURE;
    // The attached buffer's cookie, no reference added; none: E_UNEXPECTED.
    STDMETHOD(GetDescriptor)(ULONG_PTR* pudwCookie) PURE;
    STDMETHOD(IsEmpty)(VARIANT_BOOL* pbEmpty) PURE;
    STDMETHOD(AddRefDescriptor)() PURE;
    // Releases the attached buffer and detaches it.
    STDMETHOD(ReleaseDescriptor)() PURE;
    // Frees the attached buffer's samples.
    STDMETHOD(ClearBuffer)() PURE;
};
VORN_INTERFACE_IID(IParameterBuffer, IID_IParameterBuffer);
