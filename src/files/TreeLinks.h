// How the rule classes find the nodes they work with, once, in
// PostConstruct: by base name (letter case aside) and index among a group's
// children, or by a path of such names, without formatting names (a tree of
// thousands of rule parameters binds in microseconds).
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "core/GroupImpl.h"

namespace vorn {

// The root of the tree `node` belongs to; null when that is no group.
inline CGroupImpl* RootOf(const CDatabaseObjectImpl& node) noexcept {
    const CDatabaseObjectImpl* top = &node;
    while (top->Parent()) top = top->Parent();
    return const_cast<CDatabaseObjectImpl*>(top)->AsGroup();
}

// `node` as a T, or null: a group through AsGroup, any other class through
// dynamic_cast, which walks the node's class graph comparing type names.
template <class T>
T* NodeCast(CDatabaseObjectImpl* node) noexcept {
    if constexpr (std::is_same_v<T, CGroupImpl>)
        return node ? node->AsGroup() : nullptr;
    else
        return dynamic_cast<T*>(node);
}

// The child of `group` with this base name (ignoring case) and index (-1:
// not an array element) if it is a T; null otherwise, also for a null or
// non-group `group`.
template <class T>
T* ChildOf(CDatabaseObjectImpl* group, std::string_view name, LONG index = -1) {
    CGroupImpl* parent = group ? group->AsGroup() : nullptr;
    return parent ? NodeCast<T>(parent->FindChild(name, index)) : nullptr;
}

// The node at `path` below `from`: names joined by ".", an array element
// written "Name[3]" ("MeasurementResults.PhaseNoiseResults.DisplayTrace[2].X").
// Null when a component is missing or a non-group stands in the middle.
CDatabaseObjectImpl* FindPath(CDatabaseObjectImpl* from, std::string_view path) noexcept;

template <class T>
T* FindPath(CDatabaseObjectImpl* from, std::string_view path) noexcept {
    return NodeCast<T>(FindPath(from, path));
}

// The node at `path` below the root of `node`'s tree, if it is a T.
template <class T>
T* FromRoot(const CDatabaseObjectImpl& node, std::string_view path) noexcept {
    return FindPath<T>(RootOf(node), path);
}

// The sibling of `node` at `path` below their group (a base name, or a
// path into a sibling group), if it is a T.
template <class T>
T* SiblingOf(const CDatabaseObjectImpl& node, std::string_view path) noexcept {
    return FindPath<T>(node.Parent(), path);
}

// The sibling named after `node`: its base name followed by `suffix`
// ("RefSignalSrc" + "State"), if it is a T.
template <class T>
T* SiblingNamedAfter(const CDatabaseObjectImpl& node, std::string_view suffix) {
    std::string name = node.BaseName() ? node.BaseName() : "";
    name += suffix;
    return SiblingOf<T>(node, name);
}

}  // namespace vorn
