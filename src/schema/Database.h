// The component's database object: CDatabaseImpl, the database core
// (core/DatabaseImpl.h) over the root of the generated tree, CDatabaseRoot
// (the group class of IRoot, schema/GroupClasses.h).
//
// CreateDatabase is how the module's class factory makes one: the object is
// allocated with the whole tree inside it, attached to the notification
// thread, given its type library, broadcast PostConstruct and PostConstruct2,
// and reset once, which fills and freezes the name map; then the limit lines
// and transducer factors are read from their files (files/LineFiles.h; a
// damaged file is skipped and named on standard error); only then is it
// queried for riid. One database object per process (see DatabaseImpl.h).
//
// This header stays light: the tree's classes are only declared here, so
// including it does not pull in the group class declarations.
#pragma once

#include "core/DatabaseImpl.h"

namespace vorn {

class CGroupRoot;

// The root group of the database tree.
using CDatabaseRoot = CGroupRoot;
// The database object.
using CDatabaseImpl = CDatabaseImplT<CDatabaseRoot>;

// Creates the database object and queries it for riid; `loadTypeLib` loads
// its type library (null: none). S_OK; E_POINTER (null ppv); E_OUTOFMEMORY;
// E_FAIL (the notification thread cannot start); E_UNEXPECTED (a database
// object has already lived in this process); the type library loader's
// failure; E_NOINTERFACE. *ppv is null on failure and nothing is left alive.
HRESULT CreateDatabase(REFIID riid, void** ppv, CDatabaseImplBase::TypeLibLoader loadTypeLib = nullptr) noexcept;

// The tree of a database object made by CreateDatabase.
CDatabaseRoot& TreeOf(IDatabase* database) noexcept;

}  // namespace vorn
