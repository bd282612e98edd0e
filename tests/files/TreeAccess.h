// A fixture over a database object of the real tree, with its parameters
// reached by full name as a client reaches them (IDatabase::GetParameter),
// for the tests of the rule classes over the tree.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "schema/Database.h"
#include "vorn/vorndb.h"

class TreeTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(vorn::CreateDatabase(IID_IDatabase, db_.put_void()), S_OK); }

    template <class I>
    vorn::ComPtr<I> Param(const std::string& name) {
        const std::u16string wide(name.begin(), name.end());
        vorn::ComPtr<I> p;
        EXPECT_EQ(db_->GetParameter(const_cast<char16_t*>(wide.c_str()), VORN_UUIDOF(I), p.put_void()), S_OK) << name;
        return p;
    }
    // Values; for a parameter that holds none -1.0, ~0u and -1 (booleans are 1 or 0).
    template <class T, class I>
    T Read(const std::string& name, T invalid) {
        T value{};
        return Param<I>(name)->get_Value(&value) == S_OK ? value : invalid;
    }
    double Real(const std::string& name) { return Read<double, IParameterReal>(name, -1.0); }
    ULONG Integer(const std::string& name) { return Read<ULONG, IParameterInteger>(name, ~0u); }
    int Boolean(const std::string& name) {
        const VARIANT_BOOL v = Read<VARIANT_BOOL, IParameterBoolean>(name, 1);
        return v == 1 ? -1 : v != 0;
    }
    bool Valid(const std::string& name) {
        eSTATUS status = eSTATUS_INVALID;
        return Param<IParameter>(name)->get_Status(&status) == S_OK && status == eSTATUS_VALID;
    }
    HRESULT Put(const std::string& name, double v) { return Param<IParameterReal>(name)->put_Value(v); }
    HRESULT PutInt(const std::string& name, ULONG v) { return Param<IParameterInteger>(name)->put_Value(v); }
    HRESULT PutBool(const std::string& name, bool v) { return Param<IParameterBoolean>(name)->put_Value(v ? -1 : 0); }
    HRESULT Invalidate(const std::string& name) { return Param<IParameter>(name)->put_Status(eSTATUS_INVALID); }

    vorn::ComPtr<IDatabase> db_;
};
