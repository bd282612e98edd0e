// CParameterNoLoadSave: see ParameterNoLoadSave.h.
#include "parameters/ParameterNoLoadSave.h"

#include "stream/DataStream.h"

namespace vorn {

void CParameterNoLoadSave::RefreshFromAttached() {
    CWriteLock lock;
    IUnknown* attached = nullptr;
    GetThirdPartyUnknown(&attached);
    if (!attached) return;
    ComPtr<IParameterInteger> source;
    ULONG value = 0;
    if (FAILED(attached->QueryInterface(IID_IParameterInteger, source.put_void())) ||
        source->get_Value(&value) != S_OK) {
        SetStatus(eSTATUS_INVALID);
        return;
    }
    ApplyLoadedStore(SetValue(value));
}

DWORD CParameterNoLoadSave::PayloadSize() {
    RefreshFromAttached();
    return CParameterEnum::PayloadSize();
}

bool CParameterNoLoadSave::LoadPayload(CDataStream& stream) {
    if (!CParameterEnum::LoadPayload(stream)) return false;
    ThrowIfFailed(Reset(), "reset after loading failed");
    return true;
}

}  // namespace vorn
