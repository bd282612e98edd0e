// A small type library for the tests: an enumeration, an oleautomation
// interface with a method and a property, an interface deriving from it, and
// a class. Written by make_test_typelib for the test module's TYPELIB
// resource, and by the type-library tests directly.
#pragma once

#include "TypeLibWriter.h"

vorn::typelib::Library TestTypeLibrary();
