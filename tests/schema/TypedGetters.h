// Typed calls of the group getters, generated from the schema
// (TypedGetters.cpp in the build tree): one function per group interface, in
// the order of the metadata's interfaces, so that a test can walk the
// metadata over the live tree and call every getter through its interface.
#pragma once

#include <cstdint>
#include <span>

#include "vorn/platform.h"

// Queries `group` for the interface and calls the getter of its member number
// `member` (the position in the interface, 0 for the first), passing `index`
// to an indexed getter; the getter writes its out pointer to *out. Returns
// the getter's HRESULT, the query's failure, or E_INVALIDARG for a member
// number beyond the interface's members.
using TypedGetter = HRESULT (*)(IUnknown* group, std::uint32_t member, ULONG index, void** out);

// The calls of every interface, indexed like SchemaMetadata::interfaces.
std::span<const TypedGetter> TypedGetters() noexcept;
