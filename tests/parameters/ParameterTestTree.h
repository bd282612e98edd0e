// Test support for the parameter model: a small tree of test groups, sinks
// that record what they are told, a rule parameter that derives its value
// from another and records its calls, a fixture that runs the notification
// thread with notifications enabled, and texts and pairs that let one
// comparison check a call's result together with what it left (State,
// After, Read, Told).
//
// Every recorder writes into one shared CEventLog, so the order of sink calls
// and rule calls across the tree can be compared as one list of texts:
//   "<sink>:<changed object>=<data>"  a sink's CallbackWithData
//   "dep <rule>(<source>)"            a rule's OnDependencyChanged
//   "recalc <rule>(<source>)"         a rule's Recalculate
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/DBNotificationThread.h"
#include "core/GroupImpl.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "parameters/ParameterString.h"
#include "support/Sink.h"
#include "support/TreeSupport.h"

namespace vorn::test {

VORN_DEFINE_GUID(IID_ITestGroup, 0x5d0f5a52, 0x36c1, 0x4a3e, 0x9a, 0x57, 0x1c, 0x2b, 0x77, 0x3e, 0x41, 0x0d);
struct ITestGroup : IGroup {};

// A group whose children are added by the test, in order.
using CTestGroup = CAddedChildren<CGroupTemplate<ITestGroup, &IID_ITestGroup>>;

// The shared, thread-safe list of recorded events.
class CEventLog {
public:
    void Add(std::string text) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(text));
    }
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> events_;
};

// The node behind an identity handed to a sink.
inline CDatabaseObjectImpl* NodeOf(IUnknown* identity) {
    return static_cast<CDatabaseObjectImpl*>(static_cast<IDatabaseObject*>(identity));
}

// Text of a notification value: "empty", "true"/"false", a number or the
// string (ASCII only).
inline std::string VariantText(const VARIANT& v) {
    char text[64];
    switch (v.vt) {
        case VT_EMPTY:
            return "empty";
        case VT_BOOL:
            return v.boolVal == VARIANT_TRUE ? "true" : (v.boolVal == VARIANT_FALSE ? "false" : "bad-bool");
        case VT_I4:
            std::snprintf(text, sizeof text, "%d", static_cast<int>(v.lVal));
            return text;
        case VT_R8:
            std::snprintf(text, sizeof text, "%.17g", v.dblVal);
            return text;
        case VT_BSTR: {
            std::string s;
            for (UINT i = 0; v.bstrVal && i < SysStringLen(v.bstrVal); ++i)
                s.push_back(static_cast<char>(v.bstrVal[i]));
            return "'" + s + "'";
        }
        default:
            std::snprintf(text, sizeof text, "vt%u", static_cast<unsigned>(v.vt));
            return text;
    }
}

// What a parameter holds as one text, "<value> valid|invalid <notification
// value>", for real, integer, boolean and string parameters (value "?" for
// the others): "5 invalid empty".
inline std::string State(CParameter& parameter) {
    VARIANT value;
    VariantInit(&value);
    char text[64] = "?";
    if (auto* real = dynamic_cast<CParameterReal*>(&parameter)) {
        std::snprintf(text, sizeof text, "%.17g", real->Value());
    } else if (auto* integer = dynamic_cast<CParameterInteger*>(&parameter)) {
        std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(integer->Value()));
    } else if (auto* flag = dynamic_cast<CParameterBoolean*>(&parameter)) {
        std::snprintf(text, sizeof text, "%s", flag->GetValue() ? "true" : "false");
    } else if (auto* string = dynamic_cast<CParameterString*>(&parameter)) {
        value.vt = VT_BSTR;
        value.bstrVal = string->Value();
    }
    return (value.vt == VT_BSTR ? VariantText(value) : text) + (parameter.IsValid() ? " valid " : " invalid ") +
           VariantText(parameter.CallbackData());
}

// The read error of an invalid parameter, HRESULT_FROM_WIN32(ERROR_INVALID_DATA).
constexpr HRESULT kInvalid = static_cast<HRESULT>(0x8007000D);

// A call's result and then the state it left.
inline std::tuple<HRESULT, std::string> After(HRESULT hr, CParameter& parameter) { return {hr, State(parameter)}; }

// What getter `get` of `parameter` returned, and what it left in an output
// that held `start`.
template <class P, class C, class T>
std::pair<HRESULT, T> Read(P& parameter, HRESULT (C::*get)(T*), T start = T{}) {
    const HRESULT hr = (parameter.*get)(&start);
    return {hr, start};
}

// A sink that records each CallbackWithData as "<label>:<object>=<data>".
class CRecordingSink final : public IDBNotification {
public:
    CRecordingSink(CEventLog& log, std::string label) : log_(log), label_(std::move(label)) {}

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return QuerySink(this, riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override { return --refs_; }
    STDMETHODIMP Callback(IUnknown*) override { return S_OK; }
    STDMETHODIMP CallbackWithData(IUnknown* pParameterUnknown, VARIANT vData) override {
        log_.Add(label_ + ":" + NodeOf(pParameterUnknown)->Name() + "=" + VariantText(vData));
        return S_OK;
    }
    STDMETHODIMP GetCallbackFileName(BSTR* bstrFileName) override {
        if (bstrFileName) *bstrFileName = nullptr;
        return S_OK;
    }

    ULONG References() const { return refs_; }

private:
    CEventLog& log_;
    std::string label_;
    std::atomic<ULONG> refs_{1};  // the test's own
};

// A rule parameter: value = source value + offset, written through the
// checked store (so its own sinks hear of it) when its source changes.
// OnDependencyChanged passes the change on only when the value changed.
class CRecordingRule : public CParameterReal {
public:
    CRecordingRule(CEventLog& log, double offset) : log_(log), offset_(offset) {}

    void Recalculate(CDatabaseObjectImpl* source) override {
        log_.Add("recalc " + Name() + "(" + source->Name() + ")");
        Derive(source);
    }
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override {
        log_.Add("dep " + Name() + "(" + source->Name() + ")");
        const double before = value_;
        const bool wasValid = IsValid();
        Derive(source);
        return !wasValid || value_ != before;
    }

private:
    // Derives from a valid real source; any other source changes nothing.
    void Derive(CDatabaseObjectImpl* source) {
        const auto* real = dynamic_cast<const CParameterReal*>(source);
        if (real && real->IsValid()) SetValue(real->Value() + offset_);
    }

    CEventLog& log_;
    double offset_;
};

// Runs the notification thread, delivering, for the test's lifetime.
class NotifyingTest : public ::testing::Test {
protected:
    void SetUp() override {
        CDBNotificationThread::Attach();
        CDBNotificationThread::Instance()->SetSuppressed(false);
    }
    void TearDown() override { CDBNotificationThread::Detach(); }

    // A call's result and what the recorders heard since the last Take.
    std::pair<HRESULT, std::vector<std::string>> Told(HRESULT hr) { return {hr, log_.Take()}; }

    CEventLog log_;
};

// A root group to which a test adds its parameters, each with the immediate
// sink "s" registered (its events read "s:<name>=<the parameter's value>").
// A parameter releases its sinks when it is destroyed, so parameters may be
// locals of the test body.
class ParameterTest : public NotifyingTest {
protected:
    ParameterTest() { root_.SetName(nullptr, -1, -1, nullptr); }

    // Adds `parameter` under `name` with `defaults`, watched by the sink;
    // resets it unless told not to, and forgets what the sink heard so far.
    template <class P>
    P& Add(P& parameter, const char* name, CDefaultsRef defaults, bool reset = true) {
        root_.Add(parameter, name);
        parameter.SetDefaults(defaults);
        EXPECT_EQ(parameter.RegisterImmediateNotification(&sink_), S_OK);
        if (reset) {
            EXPECT_EQ(parameter.Reset(), S_OK);
        }
        log_.Take();
        return parameter;
    }
    // A parameter of class P made from `args`, owned by the test and added
    // as Add does.
    template <class P, class... Args>
    P& Make(const char* name, CDefaultsRef defaults, Args&&... args) {
        owned_.push_back(std::make_unique<P>(std::forward<Args>(args)...));
        return Add(static_cast<P&>(*owned_.back()), name, defaults);
    }

    CTestGroup root_;
    CRecordingSink sink_{log_, "s"};
    std::vector<std::unique_ptr<CParameter>> owned_;  // released before the sink
};

using Events = std::vector<std::string>;
// Results of several calls, compared as one list in call order.
using Results = std::vector<HRESULT>;

}  // namespace vorn::test
