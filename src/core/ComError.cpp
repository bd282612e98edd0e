// ComError and the error information of the component's objects: see
// ComError.h.
#include "core/ComError.h"

namespace vorn {

namespace {

// The calling thread's reports: how many, and the HRESULT of the last one.
struct SReports {
    unsigned long count;
    HRESULT hr;
};
thread_local SReports tReports{0, S_OK};

// The description of a failure nothing said more about.
const char* GenericReason(HRESULT hr) noexcept {
    struct SGeneric {
        HRESULT hr;
        const char* reason;
    };
    static constexpr SGeneric kGeneric[] = {
        {E_POINTER, "a pointer argument is null"}, {E_INVALIDARG, "an argument is not accepted"},
        {E_OUTOFMEMORY, "out of memory"},          {E_NOTIMPL, "the object does not offer this operation"},
        {E_UNEXPECTED, "an unexpected failure"},   {HRESULT_FROM_WIN32(ERROR_INVALID_DATA), "the value is invalid"},
    };
    for (const SGeneric& generic : kGeneric)
        if (generic.hr == hr) return generic.reason;
    return "the operation failed";
}

}  // namespace

void ThrowHr(HRESULT hr, const char* reason) { throw ComError(hr, reason); }
void ThrowHr(HRESULT hr, const std::string& reason) { throw ComError(hr, reason); }

CErrorMark::CErrorMark() noexcept : count_(tReports.count) {}

bool CErrorMark::Reported(HRESULT hr) const noexcept { return tReports.count != count_ && tReports.hr == hr; }

HRESULT ReportError(HRESULT hr, const IID& iid, std::string_view source, std::string_view description) noexcept {
    tReports = {tReports.count + 1, hr};
    ComPtr<ICreateErrorInfo> create;
    ComPtr<IErrorInfo> info;
    try {
        std::u16string wideSource = Widen(source);
        std::u16string wideDescription = Widen(description);
        if (SUCCEEDED(CreateErrorInfo(create.put()))) {
            create->SetGUID(iid);
            create->SetSource(wideSource.data());
            create->SetDescription(wideDescription.data());
            create.As(&info);
        }
    } catch (...) {
        info.reset();  // out of memory: an empty slot rather than a stale object
    }
    SetErrorInfo(0, info.get());
    return hr;
}

std::string TakeErrorDescription() {
    ComPtr<IErrorInfo> info;
    struct SOwned {
        BSTR text = nullptr;
        ~SOwned() { SysFreeString(text); }
    } description;
    if (GetErrorInfo(0, info.put()) != S_OK || FAILED(info->GetDescription(&description.text))) return {};
    return Narrow(std::u16string_view(description.text, SysStringLen(description.text)));
}

STDMETHODIMP CErrorInfoSource::InterfaceSupportsErrorInfo(REFIID riid) {
    IUnknown* face = nullptr;
    if (FAILED(QueryInterface(riid, reinterpret_cast<void**>(&face))) || !face) return S_FALSE;
    face->Release();
    return S_OK;
}

HRESULT CErrorInfoSource::Fail(HRESULT hr, std::string_view reason) const noexcept {
    std::string source;
    try {
        source = ErrorSourceName();
    } catch (...) {
        // Out of memory: the error object goes without a source.
    }
    return ReportError(hr, ErrorInterface(), source, reason);
}

HRESULT CErrorInfoSource::FailUnlessReported(const CErrorMark& mark, HRESULT hr, const char* reason) const noexcept {
    if (mark.Reported(hr)) return hr;
    return Fail(hr, reason ? reason : GenericReason(hr));
}

}  // namespace vorn
