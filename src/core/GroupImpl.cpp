// CGroupImpl: see GroupImpl.h.
#include "core/GroupImpl.h"

#include <cstring>
#include <string>
#include <vector>

#include "core/ComError.h"
#include "core/DatabaseLock.h"
#include "core/HashTable.h"

namespace vorn {

namespace {

char AsciiLower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameIgnoringCase(std::string_view name, const char* text, std::size_t length) noexcept {
    if (name.size() != length) return false;
    for (std::size_t i = 0; i < length; ++i)
        if (AsciiLower(name[i]) != AsciiLower(text[i])) return false;
    return true;
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
        if (!SameIgnoringCase((*child)->Name(), path, length)) continue;
        if (!dot) return *child;
        auto* group = dynamic_cast<CGroupImpl*>(*child);
        return group ? group->FindObject(dot + 1) : nullptr;
    }
    return nullptr;
}

CDatabaseObjectImpl* CGroupImpl::FindChild(std::string_view baseName, LONG index) {
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child)
        if ((*child)->Index() == index && (*child)->BaseName() &&
            SameIgnoringCase((*child)->BaseName(), baseName.data(), baseName.size()))
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
