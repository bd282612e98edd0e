// A database of the real tree and short reads and writes by full name, for
// the tests of the schema's rule classes. One database per test case (each
// case runs in a process of its own).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "schema/Database.h"
#include "support/ErrorInfo.h"
#include "vorn/vorndb.h"

namespace vorn::test {

class RuleTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CreateDatabase(IID_IDatabase, db_.put_void()), S_OK); }

    template <class I>
    ComPtr<I> Get(const std::string& name) {
        std::u16string wide(name.begin(), name.end());
        ComPtr<I> p;
        EXPECT_EQ(db_->GetParameter(wide.data(), VORN_UUIDOF(I), p.put_void()), S_OK) << name;
        return p;
    }

    double Real(const std::string& name) {
        double v = -1;
        EXPECT_EQ(Get<IParameterReal>(name)->get_Value(&v), S_OK) << name;
        return v;
    }
    ULONG Integer(const std::string& name) {
        ULONG v = ~0u;
        EXPECT_EQ(Get<IParameterInteger>(name)->get_Value(&v), S_OK) << name;
        return v;
    }
    bool Boolean(const std::string& name) {
        VARIANT_BOOL v = 0;
        EXPECT_EQ(Get<IParameterBoolean>(name)->get_Value(&v), S_OK) << name;
        return v != 0;
    }
    std::string Text(const std::string& name) {
        BSTR v = nullptr;
        EXPECT_EQ(Get<IParameterString>(name)->get_Value(&v), S_OK) << name;
        std::string text(v, v + SysStringLen(v));
        SysFreeString(v);
        return text;
    }
    HRESULT SetReal(const std::string& name, double v) { return Get<IParameterReal>(name)->put_Value(v); }
    HRESULT SetInteger(const std::string& name, ULONG v) { return Get<IParameterInteger>(name)->put_Value(v); }
    HRESULT SetBoolean(const std::string& name, bool v) {
        return Get<IParameterBoolean>(name)->put_Value(v ? VARIANT_TRUE : VARIANT_FALSE);
    }
    void PutArray(const std::string& name, const std::vector<double>& values) {
        ASSERT_EQ(Get<IParameterRealArray>(name)->PutArray(static_cast<ULONG>(values.size()), values.data()), S_OK);
    }

    ComPtr<IDatabase> db_;
};

}  // namespace vorn::test
