// Checks a type library against the schema metadata the component was built
// from: every group interface (IID, name, base, members in order with their
// dispatch identifiers, parameters and result interfaces), every enumeration
// with its values, and the Database class with IDatabase as its default
// interface. Reports through gtest expectations. (test_typelib.cpp)
#pragma once

#include "vorn/platform.h"

void ExpectMatchesSchema(ITypeLib* lib);
