#include <gtest/gtest.h>

#include <stdexcept>

#include "core/ComError.h"

using vorn::Guarded;

TEST(Guarded, TurnsExceptionsIntoResults) {
    EXPECT_EQ(Guarded([] { return S_FALSE; }), S_FALSE);
    EXPECT_EQ(Guarded([]() -> HRESULT { vorn::ThrowHr(E_ABORT); }), E_ABORT);
    EXPECT_EQ(Guarded([]() -> HRESULT { throw std::bad_alloc(); }), E_OUTOFMEMORY);
    EXPECT_EQ(Guarded([]() -> HRESULT { throw std::runtime_error("x"); }), E_UNEXPECTED);
}
