// Errors inside the component, and what a client learns of them.
//
// Failures deep in a tree walk, a stream or a file operation are thrown as a
// ComError carrying the HRESULT and a reason in words; every interface method
// catches them at its boundary with Guarded() and returns the carried code. No
// exception ever crosses an interface method.
//
// The reason reaches the client as COM error information. Every object of the
// component answers ISupportErrorInfo (CErrorInfoSource), and every failing
// call sets the calling thread's error object (SetErrorInfo): the object's
// name as source ("UserSettings.PhaseNoiseSettings.SignalFreq", "Database"),
// the reason as description, the IID of the object's interface as GUID. A
// failure is reported in one of two ways:
//  - Guarded(source, body): when the body throws, the exception's reason;
//    when it returns a failing HRESULT, a generic text for the code. Either
//    way only if nothing more specific was reported for that same HRESULT on
//    this thread while the body ran (by a nested call, or by Fail below):
//    the innermost reason stands;
//  - source.Fail(hr, reason): reports at once and returns hr, for failures
//    that are returned rather than thrown (argument checks before any work,
//    checked stores whose callers may ignore a refusal).
// Reasons are composed only when something fails. A successful call never
// touches the error slot (clients read it only after a failure, as COM has
// it); Guarded costs it one thread-local read.
#pragma once

#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "vorn/platform.h"

namespace vorn {

class ComError : public std::runtime_error {
public:
    explicit ComError(HRESULT hr, const char* reason = "COM operation failed") : std::runtime_error(reason), hr_(hr) {}
    ComError(HRESULT hr, const std::string& reason) : std::runtime_error(reason), hr_(hr) {}
    HRESULT hr() const noexcept { return hr_; }

private:
    HRESULT hr_;
};

[[noreturn]] void ThrowHr(HRESULT hr, const char* reason = "COM operation failed");
[[noreturn]] void ThrowHr(HRESULT hr, const std::string& reason);

// Throws when hr is a failure; returns success codes (S_OK, S_FALSE) as they
// are. Meant for the results of calls that report their own failures: the
// nested report stands, `reason` only when there was none.
inline HRESULT ThrowIfFailed(HRESULT hr, const char* reason = "COM operation failed") {
    if (FAILED(hr)) ThrowHr(hr, reason);
    return hr;
}

// A point in the calling thread's sequence of error reports.
class CErrorMark {
public:
    CErrorMark() noexcept;
    // True when a failure `hr` has been reported on this thread since the
    // mark was taken.
    bool Reported(HRESULT hr) const noexcept;

private:
    unsigned long count_;
};

// Sets the calling thread's error object (GUID `iid`, `source`,
// `description`; narrow texts are UTF-8) and records the report for `hr`.
// Returns hr. When no error object can be made the slot is emptied instead.
HRESULT ReportError(HRESULT hr, const IID& iid, std::string_view source, std::string_view description) noexcept;

// An object that reports its failures as error information: its
// ISupportErrorInfo face, and what it puts into the error objects.
class CErrorInfoSource : public ISupportErrorInfo {
public:
    // S_OK for every interface the object answers QueryInterface for,
    // S_FALSE for any other.
    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID riid) override;

    // Reports a failure of a call on this object (ReportError with its name
    // and interface) and returns hr.
    HRESULT Fail(HRESULT hr, std::string_view reason) const noexcept;
    // Fail, unless `mark` shows that `hr` has been reported since (that
    // report stands). A null reason gives a generic text for the code.
    HRESULT FailUnlessReported(const CErrorMark& mark, HRESULT hr, const char* reason) const noexcept;

protected:
    CErrorInfoSource() = default;
    ~CErrorInfoSource() = default;

    // The name the object's clients know it by.
    virtual std::string ErrorSourceName() const = 0;
    // The IID of the interface clients reach the object through.
    virtual const IID& ErrorInterface() const noexcept = 0;
};

// The description of the calling thread's error object (GetErrorInfo: the
// object is taken out of the slot); "" when there is none. For a caller that
// words a nested failure in its own terms.
std::string TakeErrorDescription();

// Runs body() and turns what it throws into an HRESULT: a ComError gives its
// code, std::bad_alloc E_OUTOFMEMORY, anything else E_UNEXPECTED. body returns
// an HRESULT. Reports nothing: for work that no client call stands behind.
template <class Body>
HRESULT Guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (const ComError& e) {
        return e.hr();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

// Guarded for an interface method of `source`: a failure, thrown or
// returned, is reported as described at the top of this file.
template <class Body>
HRESULT Guarded(const CErrorInfoSource& source, Body&& body) noexcept {
    const CErrorMark mark;
    try {
        const HRESULT hr = body();
        return SUCCEEDED(hr) ? hr : source.FailUnlessReported(mark, hr, nullptr);
    } catch (const ComError& e) {
        return source.FailUnlessReported(mark, e.hr(), e.what());
    } catch (const std::bad_alloc&) {
        return source.FailUnlessReported(mark, E_OUTOFMEMORY, "out of memory");
    } catch (...) {
        return source.FailUnlessReported(mark, E_UNEXPECTED, "an unexpected exception");
    }
}

}  // namespace vorn
