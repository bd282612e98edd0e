// CGroupImpl: see GroupImpl.h.
#include "core/GroupImpl.h"

#include <charconv>
#include <cstring>
#include <string>
#include <vector>

#include "core/ComError.h"
#include "core/DatabaseLock.h"
#include "core/HashTable.h"

namespace vorn {

namespace {

char AsciiLower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// Whether `name` begins with the NUL-terminated `text`, ASCII letters in
// either case; the length of `text` when it does, else npos.
std::size_t PrefixIgnoringCase(const char* text, std::string_view name) noexcept {
    std::size_t i = 0;
    for (; text[i]; ++i)
        if (i == name.size() || AsciiLower(text[i]) != AsciiLower(name[i])) return std::string_view::npos;
    return i;
}

// Whether `name` is the node's name (its base name, and "[index]" for an
// array element, as Name() composes it), letters in either case; composes
// nothing.
bool IsNameOf(const CDatabaseObjectImpl& node, std::string_view name) noexcept {
    if (!node.BaseName()) return name.empty();
    const std::size_t base = PrefixIgnoringCase(node.BaseName(), name);
    if (base == std::string_view::npos) return false;
    const std::string_view rest = name.substr(base);
    if (static_cast<DWORD>(node.Index()) == 0xFFFFFFFFu) return rest.empty();
    char index[16];
    index[0] = '[';
    char* end = std::to_chars(index + 1, index + sizeof index - 1, static_cast<int>(node.Index())).ptr;
    *end++ = ']';
    return rest == std::string_view(index, static_cast<std::size_t>(end - index));
}

}  // namespace

STDMETHODIMP CGroupImpl::Reset() {
    return Guarded(*this, [&] {
        CWriteLock lock;
        CMapNameToObject* map = NameMap();
        const bool enterNames = map && !map->IsFrozen();
        // A child's full name is this group's full name, ".", and its own name;
        // the prefix is made once per group rather than once per child. Names
        // of the tree are ASCII identifiers, so widening is a plain copy.
        // So is the prefix's hash, which each child's continues.
        std::u16string name;
        std::size_t prefixLength = 0;
        DWORD prefixHash = 0;
        if (enterNames) {
            AppendFullName(name);
            if (!name.empty()) name += u'.';
            prefixLength = name.size();
            prefixHash = CHashTable::HashOn(0, name);
        }
        for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) {
            if (enterNames) {
                name.resize(prefixLength);
                (*child)->AppendName(name);
                const std::u16string_view own = std::u16string_view(name).substr(prefixLength);
                map->Insert(name, CHashTable::HashOn(prefixHash, own), *child);
            }
            ThrowIfFailed((*child)->Reset(), "reset of a child failed");
        }
        holdsDefaults_ = true;
        return S_OK;
    });
}

void CGroupImpl::PostConstruct() {
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) (*child)->PostConstruct();
}

void CGroupImpl::PostConstruct2() {
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) (*child)->PostConstruct2();
}

HRESULT CGroupImpl::EnumChildren(IEnumUnknown** ppEnum) noexcept {
    if (!ppEnum) return Fail(E_POINTER, "ppEnum is null");
    return Guarded(*this, [&] {
        std::vector<IUnknown*> children;
        for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child)
            children.push_back((*child)->Identity());
        return VornCreateEnumUnknown(children.data(), static_cast<ULONG>(children.size()), ppEnum);
    });
}

CDatabaseObjectImpl* CGroupImpl::FindObject(const char* path) {
    if (!path || !*path) return this;
    const char* dot = std::strchr(path, '.');
    const std::size_t length = dot ? static_cast<std::size_t>(dot - path) : std::strlen(path);
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) {
        if (!IsNameOf(**child, std::string_view(path, length))) continue;
        if (!dot) return *child;
        CGroupImpl* group = (*child)->AsGroup();
        return group ? group->FindObject(dot + 1) : nullptr;
    }
    return nullptr;
}

CDatabaseObjectImpl* CGroupImpl::FindChild(std::string_view baseName, LONG index) {
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child)
        if ((*child)->Index() == index && (*child)->BaseName() &&
            PrefixIgnoringCase((*child)->BaseName(), baseName) == baseName.size())
            return *child;
    return nullptr;
}

HRESULT CGroupImpl::QueryGroupInterface(REFIID riid, void** ppv) noexcept {
    IPersistStream* persist = PersistStream();
    if (ppv && persist && (IsEqualIID(riid, IID_IPersist) || IsEqualIID(riid, IID_IPersistStream))) {
        *ppv = persist;
        TreeAddRef();
        return S_OK;
    }
    return QueryNodeInterface(riid, ppv);
}

HRESULT CGroupImpl::PreLoad(IStream*) { return E_NOTIMPL; }

}  // namespace vorn
