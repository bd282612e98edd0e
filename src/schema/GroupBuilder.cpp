// BuildGroup and the getters' failures: see GroupBuilder.h.
#include "schema/GroupBuilder.h"

#include <string>

#include "core/ComError.h"
#include "parameters/Parameter.h"

namespace vorn::schema {

namespace {

// Children a layout row stands for.
LONG ChildrenOf(const SMemberLayout& row) noexcept { return row.count < 0 ? 1 : row.count; }

}  // namespace

void BuildGroup(CGroupImpl& group, std::span<const SMemberLayout> layout, CDatabaseObjectImpl* const* children) {
    // The table is checked whole first, so a mismatch names nothing.
    std::size_t expected = 0;
    for (const SMemberLayout& row : layout) expected += static_cast<std::size_t>(ChildrenOf(row));
    for (std::size_t i = 0; i < expected; ++i)
        if (!children[i]) ThrowHr(E_UNEXPECTED, "a group's child table is shorter than its layout");
    if (children[expected]) ThrowHr(E_UNEXPECTED, "a group's child table is longer than its layout");

    for (const SMemberLayout& row : layout) {
        const LONG n = ChildrenOf(row);
        for (LONG i = 0; i < n; ++i, ++children) {
            CDatabaseObjectImpl* child = *children;
            child->SetName(row.name, row.count < 0 ? -1 : i, row.count, &group);
            if (row.defaults) static_cast<CParameter*>(child)->SetDefaults(row.defaults);
        }
    }
}

HRESULT NullOutPointer(const CDatabaseObjectImpl& member) noexcept {
    return member.Parent()->Fail(E_POINTER, "ppVal is null");
}

HRESULT IndexBeyond(const CDatabaseObjectImpl& element, ULONG index, std::size_t count) noexcept {
    return Guarded(*element.Parent(), [&]() -> HRESULT {
        ThrowHr(E_INVALIDARG, "index " + std::to_string(index) + " is not below the " + std::to_string(count) +
                                  " elements of " + element.BaseName());
    });
}

}  // namespace vorn::schema
