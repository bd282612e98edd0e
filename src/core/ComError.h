// Errors inside the component.
//
// Failures deep in a tree walk, a stream or a file operation are thrown as a
// ComError carrying the HRESULT; every interface method catches them at its
// boundary with Guarded() and returns the carried code. No exception ever
// crosses an interface method.
#pragma once

#include <exception>
#include <new>

#include "vorn/platform.h"

namespace vorn {

class ComError : public std::exception {
public:
    // `reason` must be a string with static storage duration.
    explicit ComError(HRESULT hr, const char* reason = "COM operation failed") noexcept : hr_(hr), reason_(reason) {}
    HRESULT hr() const noexcept { return hr_; }
    const char* what() const noexcept override { return reason_; }

private:
    HRESULT hr_;
    const char* reason_;
};

[[noreturn]] void ThrowHr(HRESULT hr, const char* reason = "COM operation failed");

// Throws when hr is a failure; returns success codes (S_OK, S_FALSE) as they are.
inline HRESULT ThrowIfFailed(HRESULT hr, const char* reason = "COM operation failed") {
    if (FAILED(hr)) ThrowHr(hr, reason);
    return hr;
}

// Runs body() and turns what it throws into an HRESULT: a ComError gives its
// code, std::bad_alloc E_OUTOFMEMORY, anything else E_UNEXPECTED. body returns
// an HRESULT.
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

}  // namespace vorn
