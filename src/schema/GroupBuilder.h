// What the generated group classes of the tree (schema/GroupClasses.h) share:
// the member layout tables their constructors are driven by, the loop that
// names their children and binds the defaults records, and the property
// getters' hand-out helpers.
//
// A group class holds its members by value in declaration order, fills its
// null-terminated child table with every child (each element of an indexed
// child in index order) and calls BuildGroup with its layout: one row per
// declared member, in the same order. BuildGroup walks the two together, so
// the generated constructors hold no per-member statements.
//
// Property getters hand out the member's face with one reference added:
// HandOut for a member, HandOutAt for an element of an indexed child, which
// stores null and returns E_INVALIDARG at or beyond the element count. Their
// failures are reported as the owning group's (core/ComError.h).
#pragma once

#include <cstddef>
#include <span>

#include "core/GroupImpl.h"
#include "parameters/Defaults.h"

namespace vorn::schema {

// One declared member of a group class.
struct SMemberLayout {
    const char* name;       // static text: the member's name in the tree
    LONG count;             // -1: a single member; else the element count of an indexed child group
    CDefaultsRef defaults;  // a parameter's record (never empty); empty for a child group
};

// Names the children of `group` and binds their defaults records. `children`
// is the group's child table: for each layout row in order, `count` elements
// (1 for a single member), then the null terminator. Element i of an indexed
// row gets (name, i, count, group), a single member (name, -1, -1, group); a
// parameter row binds its record to each of its children (which are then
// CParameter objects). A child table that does not match the layout (a fault
// of the generated code) throws ComError(E_UNEXPECTED) before anything is
// named.
void BuildGroup(CGroupImpl& group, std::span<const SMemberLayout> layout, CDatabaseObjectImpl* const* children);

// The failures of the getters, reported as the failures of the group that
// holds `member` (core/ComError.h): a null out pointer (E_POINTER), and an
// index at or beyond the `count` elements of an indexed member
// (E_INVALIDARG). Each returns its HRESULT.
HRESULT NullOutPointer(const CDatabaseObjectImpl& member) noexcept;
HRESULT IndexBeyond(const CDatabaseObjectImpl& element, ULONG index, std::size_t count) noexcept;

// A getter's result: the member's interface I with one reference added in
// *pp; S_OK. E_POINTER for a null pp.
template <class I, class M>
HRESULT HandOut(M* member, I** pp) noexcept {
    if (!pp) return NullOutPointer(*member);
    I* face = member;
    face->AddRef();
    *pp = face;
    return S_OK;
}

// An indexed getter's result: element `index` of `elements` as HandOut gives
// it; at or beyond N, *pp = null and E_INVALIDARG. E_POINTER for a null pp.
template <class G, std::size_t N, class I>
HRESULT HandOutAt(G (&elements)[N], ULONG index, I** pp) noexcept {
    if (!pp) return NullOutPointer(elements[0]);
    if (index >= N) {
        *pp = nullptr;
        return IndexBeyond(elements[0], index, N);
    }
    return HandOut<I>(&elements[index], pp);
}

}  // namespace vorn::schema
