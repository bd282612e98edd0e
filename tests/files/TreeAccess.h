// Parameters of the real tree by full name, as a client reaches them
// (IDatabase::GetParameter), for the tests of the rule classes over it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "vorn/vorndb.h"

namespace tree_access {

template <class I>
vorn::ComPtr<I> Param(IDatabase* db, const std::string& name) {
    const std::u16string wide(name.begin(), name.end());
    vorn::ComPtr<I> p;
    EXPECT_EQ(db->GetParameter(const_cast<char16_t*>(wide.c_str()), VORN_UUIDOF(I), p.put_void()), S_OK) << name;
    return p;
}

// The value, or `invalid` when the parameter holds none.
template <class T, class I>
T Read(IDatabase* db, const std::string& name, T invalid = T{}) {
    T value{};
    return Param<I>(db, name)->get_Value(&value) == S_OK ? value : invalid;
}

inline double Real(IDatabase* db, const std::string& name) { return Read<double, IParameterReal>(db, name, -1.0); }
inline ULONG Integer(IDatabase* db, const std::string& name) {
    return Read<ULONG, IParameterInteger>(db, name, 0xFFFFFFFFu);
}
// 1 true, 0 false, -1 invalid.
inline int Boolean(IDatabase* db, const std::string& name) {
    VARIANT_BOOL value = VARIANT_FALSE;
    if (Param<IParameterBoolean>(db, name)->get_Value(&value) != S_OK) return -1;
    return value != VARIANT_FALSE ? 1 : 0;
}
inline bool Valid(IDatabase* db, const std::string& name) {
    eSTATUS status = eSTATUS_INVALID;
    EXPECT_EQ(Param<IParameter>(db, name)->get_Status(&status), S_OK) << name;
    return status == eSTATUS_VALID;
}

}  // namespace tree_access
