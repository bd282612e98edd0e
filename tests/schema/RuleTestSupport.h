// Parameters of a database object of the real tree by full name, as a client
// reaches them (IDatabase::GetParameter), and scripts of writes and reads by
// full name: for the tests of the schema's rule classes and of the files over
// the tree. RuleTest creates the database before each test case; a fixture
// that must prepare the environment the tree reads at creation (drives,
// registry) calls CreateTree itself. One database per test case (each case
// runs in a process of its own). Including this header brings gtest, the
// database, the stream bytes, the reported errors and the scratch drives.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "schema/Database.h"
#include "stream/StreamBytes.h"
#include "support/ErrorInfo.h"
#include "support/ScratchDrives.h"
#include "vorn/vorndb.h"

namespace vorn::test {

// Any success (S_OK or S_FALSE) as the expected result of a write.
inline constexpr HRESULT kSucceeds = 0x7FFFFFFF;

// One step of a script: a write of `value` to a real, integer or Boolean
// parameter (by the interface it answers) expecting `hr`, or a read
// expecting `value` (NaN: no valid value); or the same of a string
// parameter's (ASCII) text. A refused write reports the parameter and a
// reason that holds `reason`.
struct SStep {
    std::string name;
    double value;
    HRESULT hr;
    bool write;
    std::optional<std::string> text = {};
    std::string reason = {};
};
inline SStep Set(std::string name, double value, HRESULT hr = kSucceeds) { return {std::move(name), value, hr, true}; }
inline SStep Refused(std::string name, double value, std::string reason, HRESULT hr = E_INVALIDARG) {
    return {std::move(name), value, hr, true, {}, std::move(reason)};
}
inline SStep Is(std::string name, double value) { return {std::move(name), value, S_OK, false}; }
inline SStep SetText(std::string name, std::string text, HRESULT hr = kSucceeds) {
    return {std::move(name), 0, hr, true, std::move(text)};
}
inline SStep IsText(std::string name, std::string text) { return {std::move(name), 0, S_OK, false, std::move(text)}; }

class TreeAccess {
protected:
    void CreateTree() { ASSERT_EQ(CreateDatabase(IID_IDatabase, db_.put_void()), S_OK); }

    template <class I>
    ComPtr<I> Get(const std::string& name) {
        ComPtr<I> p = As<I>(name);
        EXPECT_TRUE(p) << name;
        return p;
    }
    // The parameter `name` through interface I; null when it answers no I.
    template <class I>
    ComPtr<I> As(const std::string& name) {
        std::u16string wide(name.begin(), name.end());
        ComPtr<I> p;
        db_->GetParameter(wide.data(), VORN_UUIDOF(I), p.put_void());
        return p;
    }
    HRESULT Write(const std::string& name, double v) {
        if (auto real = As<IParameterReal>(name)) return real->put_Value(v);
        if (auto integer = As<IParameterInteger>(name)) return integer->put_Value(static_cast<ULONG>(v));
        return Get<IParameterBoolean>(name)->put_Value(v != 0 ? VARIANT_TRUE : VARIANT_FALSE);
    }
    // The value of a real, integer or Boolean parameter (Booleans as 1 or 0);
    // NaN when it holds none.
    double Read(const std::string& name) {
        double d = 0;
        ULONG u = 0;
        VARIANT_BOOL b = 0;
        if (auto real = As<IParameterReal>(name)) return real->get_Value(&d) == S_OK ? d : NAN;
        if (auto integer = As<IParameterInteger>(name)) return integer->get_Value(&u) == S_OK ? u : NAN;
        return Get<IParameterBoolean>(name)->get_Value(&b) == S_OK ? (b != 0) : NAN;
    }
    void Run(const std::vector<SStep>& steps) {
        for (std::size_t i = 0; i < steps.size(); ++i) {
            const SStep& s = steps[i];
            SCOPED_TRACE("step " + std::to_string(i + 1) + ": " + s.name);
            if (s.write) {
                const HRESULT hr =
                    s.text ? PutText(s.name, std::u16string(s.text->begin(), s.text->end())) : Write(s.name, s.value);
                if (s.hr == kSucceeds)
                    EXPECT_TRUE(SUCCEEDED(hr)) << hr;
                else
                    EXPECT_EQ(hr, s.hr);
                if (!s.reason.empty()) {
                    const SReportedError error = TakeError();
                    EXPECT_EQ(error.source, s.name);
                    EXPECT_NE(error.description.find(s.reason), std::string::npos) << error.description;
                }
            } else if (s.text)
                EXPECT_EQ(Text(s.name), *s.text);
            else if (std::isnan(s.value))
                EXPECT_TRUE(std::isnan(Read(s.name)));
            else
                EXPECT_EQ(Read(s.name), s.value);
        }
    }
    // The limits of an integer or real parameter; NaN when it has none.
    std::pair<double, double> Limits(const std::string& name) {
        if (auto integer = As<IParameterInteger>(name)) {
            ULONG low = 0, high = 0;
            if (integer->get_Minimum(&low) == S_OK && integer->get_Maximum(&high) == S_OK) return {low, high};
        } else if (auto real = As<IParameterReal>(name)) {
            double low = 0, high = 0;
            if (real->get_Minimum(&low) == S_OK && real->get_Maximum(&high) == S_OK) return {low, high};
        }
        return {NAN, NAN};
    }
    HRESULT Invalidate(const std::string& name) { return Get<IParameter>(name)->put_Status(eSTATUS_INVALID); }
    // A string parameter's text (ASCII), empty when it holds none.
    std::string Text(const std::string& name) {
        BSTR v = nullptr;
        EXPECT_EQ(Get<IParameterString>(name)->get_Value(&v), S_OK) << name;
        std::string text(v, v + SysStringLen(v));
        SysFreeString(v);
        return text;
    }
    HRESULT PutText(const std::string& name, const std::u16string& text) {
        BSTR value = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        const HRESULT hr = Get<IParameterString>(name)->put_Value(value);
        SysFreeString(value);
        return hr;
    }
    // The settings stream of the node `name` as its IPersistStream::Save
    // writes it.
    std::vector<BYTE> StreamOf(const std::string& name) {
        ComPtr<IStream> stream;
        EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), S_OK);
        EXPECT_EQ(Get<IPersistStream>(name)->Save(stream.get(), TRUE), S_OK);
        return persist_test::ContentsOf(stream.get());
    }
    void PutArray(const std::string& name, const std::vector<double>& values) {
        ASSERT_EQ(Get<IParameterRealArray>(name)->PutArray(static_cast<ULONG>(values.size()), values.data()), S_OK);
    }

    ComPtr<IDatabase> db_;
};

class RuleTest : public ::testing::Test, protected TreeAccess {
protected:
    using TreeAccess::Run;  // not ::testing::Test::Run
    void SetUp() override { CreateTree(); }
};

// The tree over the test's own drive directories: SetUp prepares what the
// tree reads at creation, then calls CreateTree. The database goes first.
class DrivesTreeTest : public ScratchDrives, protected TreeAccess {
protected:
    using TreeAccess::Run;
    void TearDown() override {
        db_.reset();
        ScratchDrives::TearDown();
    }
};

}  // namespace vorn::test
