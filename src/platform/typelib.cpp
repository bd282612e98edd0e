// Type-library loading: LoadTypeLib/LoadTypeLibEx read the binary format of
// typelib_format.h (from a .tlb file, or from a module's TYPELIB 1 resource),
// check it completely, and serve it through ITypeLib and ITypeInfo.
//
// The parsed library is immutable and shared (shared_ptr) by the ITypeLib
// object and every ITypeInfo handed out, so a type info stays usable after the
// library's last release. Descriptor structures (TYPEATTR, FUNCDESC, VARDESC,
// TLIBATTR) are allocated per call; the type info keeps each allocation until
// the matching Release*Desc call (or its own destruction).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "diagnostic.h"
#include "internal.h"
#include "internal_com.h"
#include "resource_format.h"
#include "vorn/rt/library.h"
#include "vorn/typelib_format.h"

namespace vorn::rt::tlb {

namespace {

using typelib::FileHeader;
using typelib::kNoString;
using typelib::kNoType;
using typelib::MemberRecord;
using typelib::ParamRecord;
using typelib::TypeRecord;

// Thrown while checking a file; the text says what is wrong.
struct Damaged {
    std::string what;
};

// The parsed library keeps the file's bytes: names and documentation stay
// UTF-8 in its string area (offsets checked at load) and are widened only when
// a caller asks for them, and a member's parameters are read from their
// records when a descriptor is built. Each type's members are a range of
// `members`, its methods (functions) first, then its constants or fields
// (variables).
struct Descriptor {
    VARTYPE vt;
    std::uint16_t pointers;
    std::uint32_t href;
};

struct MemberData {
    MEMBERID id = 0;
    std::uint32_t name = kNoString;
    std::uint32_t doc = kNoString;
    std::uint32_t invokeKind = 0;
    std::int64_t value = 0;
    Descriptor type{};
    std::uint32_t paramCount = 0;
    std::uint32_t paramsOffset = 0;
};

struct ParamData {
    std::uint32_t name;
    USHORT flags;
    Descriptor type;
};

struct TypeData {
    GUID guid = GUID_NULL;
    TYPEKIND kind = TKIND_INTERFACE;
    WORD typeFlags = 0;
    std::uint32_t name = kNoString;
    std::uint32_t doc = kNoString;
    std::uint32_t base = typelib::kNoType;
    std::uint32_t first = 0;  // index of its first member in Library::members
    std::uint32_t functionCount = 0;
    std::uint32_t variableCount = 0;
};

using Members = std::span<const MemberData>;

struct Library {
    std::vector<std::uint8_t> bytes;
    std::uint32_t stringsOffset = 0;
    GUID libid = GUID_NULL;
    WORD majorVersion = 0;
    WORD minorVersion = 0;
    LCID lcid = 0;
    SYSKIND syskind = SYS_WIN64;
    WORD libFlags = 0;
    std::uint32_t name = kNoString;
    std::uint32_t doc = kNoString;
    std::vector<TypeData> types;
    std::vector<MemberData> members;

    // The UTF-8 text of a checked string offset ("" for kNoString).
    const char* Text(std::uint32_t offset) const {
        return offset == kNoString ? "" : reinterpret_cast<const char*>(bytes.data() + stringsOffset + offset);
    }
    Members Functions(const TypeData& type) const { return {members.data() + type.first, type.functionCount}; }
    Members AllMembers(const TypeData& type) const {
        return {members.data() + type.first, std::size_t{type.functionCount} + type.variableCount};
    }
    Members Variables(const TypeData& type) const {
        return {members.data() + type.first + type.functionCount, type.variableCount};
    }
    // A member's parameters, read from their checked records.
    std::vector<ParamData> Params(const MemberData& m) const {
        std::vector<ParamData> params(m.paramCount);
        for (std::uint32_t p = 0; p < m.paramCount; ++p) {
            typelib::ParamRecord pr;
            std::memcpy(&pr, bytes.data() + m.paramsOffset + std::size_t{p} * sizeof pr, sizeof pr);
            params[p] = ParamData{pr.name, static_cast<USHORT>(pr.flags),
                                  Descriptor{pr.type.vt, pr.type.pointers, pr.type.href}};
        }
        return params;
    }
};

class Reader {
public:
    explicit Reader(const std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}

    template <class Record>
    Record At(std::uint64_t offset, const char* what) const {
        if (offset > bytes_.size() || sizeof(Record) > bytes_.size() - offset)
            throw Damaged{std::string(what) + " lies outside the file"};
        Record record;
        std::memcpy(&record, bytes_.data() + offset, sizeof record);
        return record;
    }

    void SetStrings(std::uint32_t offset, std::uint32_t size) {
        if (offset > bytes_.size() || size > bytes_.size() - offset) throw Damaged{"string area outside the file"};
        if (size > 0 && bytes_[offset + size - 1] != 0) throw Damaged{"string area not terminated"};
        stringsOffset_ = offset;
        stringsSize_ = size;
    }

    // A string offset, checked against the string area.
    std::uint32_t String(std::uint32_t offset, bool required) const {
        if (offset == kNoString) {
            if (required) throw Damaged{"a name is missing"};
            return offset;
        }
        if (offset >= stringsSize_) throw Damaged{"string offset out of range"};
        return offset;
    }

private:
    const std::vector<std::uint8_t>& bytes_;
    std::uint32_t stringsOffset_ = 0;
    std::uint32_t stringsSize_ = 0;
};

Descriptor CheckedDescriptor(const typelib::TypeDescriptor& d, std::size_t typeCount) {
    if (d.vt == VT_USERDEFINED ? d.href >= typeCount : d.href != kNoType) throw Damaged{"type reference out of range"};
    if (d.pointers > 8) throw Damaged{"too many pointer levels"};
    // Pointers are counted in `pointers`; a type that would need a further
    // descriptor of its own (a pointer, a safe array, a C array) has none.
    if (d.vt == VT_PTR || d.vt == VT_SAFEARRAY || d.vt == VT_CARRAY)
        throw Damaged{"type " + std::to_string(d.vt) + " needs a descriptor the format does not have"};
    return Descriptor{d.vt, d.pointers, d.href};
}

// Checks the whole file held in lib->bytes and fills the tables.
void Parse(Library* lib) {
    const std::vector<std::uint8_t>& bytes = lib->bytes;
    Reader reader(bytes);
    const auto header = reader.At<FileHeader>(0, "the header");
    if (std::memcmp(header.magic, typelib::kMagic, sizeof header.magic) != 0)
        throw Damaged{"not a type library (no VTLB signature)"};
    if (header.version != typelib::kFormatVersion)
        throw Damaged{"format version " + std::to_string(header.version) + " is not supported"};
    if (header.fileSize != bytes.size()) throw Damaged{"the file is cut short or has trailing bytes"};
    reader.SetStrings(header.stringsOffset, header.stringsSize);
    lib->stringsOffset = header.stringsOffset;
    std::memcpy(&lib->libid, header.libid, sizeof lib->libid);
    lib->majorVersion = header.majorVersion;
    lib->minorVersion = header.minorVersion;
    lib->lcid = header.lcid;
    lib->syskind = static_cast<SYSKIND>(header.syskind);
    lib->libFlags = static_cast<WORD>(header.libFlags);
    lib->name = reader.String(header.name, true);
    lib->doc = reader.String(header.doc, false);
    if (header.typeCount > bytes.size() / sizeof(TypeRecord)) throw Damaged{"type count too large"};
    lib->types.resize(header.typeCount);
    for (std::uint32_t t = 0; t < header.typeCount; ++t) {
        const auto record = reader.At<TypeRecord>(header.typesOffset + std::uint64_t(t) * sizeof(TypeRecord), "a type");
        TypeData& type = lib->types[t];
        std::memcpy(&type.guid, record.guid, sizeof type.guid);
        if (record.kind != TKIND_ENUM && record.kind != TKIND_INTERFACE && record.kind != TKIND_COCLASS &&
            record.kind != TKIND_RECORD)
            throw Damaged{"unknown type kind " + std::to_string(record.kind)};
        type.kind = static_cast<TYPEKIND>(record.kind);
        type.typeFlags = static_cast<WORD>(record.typeFlags);
        type.name = reader.String(record.name, true);
        type.doc = reader.String(record.doc, false);
        if (record.base != kNoType && record.base >= header.typeCount) throw Damaged{"base type out of range"};
        type.base = record.base;
        if (record.memberCount > bytes.size() / sizeof(MemberRecord)) throw Damaged{"member count too large"};
        type.first = static_cast<std::uint32_t>(lib->members.size());
        for (std::uint32_t m = 0; m < record.memberCount; ++m) {
            const auto mr =
                reader.At<MemberRecord>(record.membersOffset + std::uint64_t(m) * sizeof(MemberRecord), "a member");
            MemberData member;
            member.id = mr.memberId;
            member.name = reader.String(mr.name, true);
            member.doc = reader.String(mr.doc, false);
            member.invokeKind = mr.invokeKind;
            member.value = mr.value;
            member.type = CheckedDescriptor(mr.type, header.typeCount);
            if (mr.paramCount > 64) throw Damaged{"too many parameters"};
            for (std::uint32_t p = 0; p < mr.paramCount; ++p) {
                const auto pr =
                    reader.At<ParamRecord>(mr.paramsOffset + std::uint64_t(p) * sizeof(ParamRecord), "a parameter");
                reader.String(pr.name, false);
                CheckedDescriptor(pr.type, header.typeCount);
            }
            member.paramCount = mr.paramCount;
            member.paramsOffset = mr.paramsOffset;
            lib->members.push_back(member);
        }
        // Methods first, then the constants and fields, each in file order.
        const auto first = lib->members.begin() + type.first;
        const auto variables =
            std::stable_partition(first, lib->members.end(), [](const MemberData& m) { return m.invokeKind != 0; });
        type.functionCount = static_cast<std::uint32_t>(variables - first);
        type.variableCount = static_cast<std::uint32_t>(lib->members.end() - variables);
    }
}

BSTR Bstr(const char* text) {
    const std::u16string wide = Widen(text);
    return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

// Sets each non-null out argument; E_OUTOFMEMORY when a string cannot be
// made (the others are then freed and nulled).
HRESULT Documentation(const char* name, const char* doc, BSTR* pName, BSTR* pDoc, DWORD* pContext, BSTR* pHelpFile) {
    if (pName) *pName = nullptr;
    if (pDoc) *pDoc = nullptr;
    if (pHelpFile) *pHelpFile = nullptr;
    if (pContext) *pContext = 0;
    if (pName && !(*pName = Bstr(name))) return E_OUTOFMEMORY;
    if (pDoc && *doc && !(*pDoc = Bstr(doc))) {
        if (pName) {
            SysFreeString(*pName);
            *pName = nullptr;
        }
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

// Whether a stored UTF-8 name and `b` are equal as lstrcmpiW compares them.
// ASCII names, all of a generated library's, are compared in place.
bool SameName(const char* a, LPCOLESTR b) {
    if (!b) return false;
    for (std::size_t i = 0;; ++i) {
        const auto c = static_cast<unsigned char>(a[i]);
        if (c >= 0x80) return lstrcmpiW(Widen(a).c_str(), b) == 0;
        // Folding keeps every other code unit at or above 0x80, so no ASCII
        // letter equals one.
        if (b[i] >= 0x80) return false;
        const auto lower = [](unsigned x) { return x >= 'A' && x <= 'Z' ? x + ('a' - 'A') : x; };
        if (lower(c) != lower(b[i])) return false;
        if (c == 0) return true;
    }
}

class TypeInfo;

class TypeLib final : public ComObject<ITypeLib> {
public:
    explicit TypeLib(std::shared_ptr<const Library> lib) : lib_(std::move(lib)) {}

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        return QueryChain(riid, ppv, {&IID_IUnknown, &IID_ITypeLib});
    }
    STDMETHODIMP_(UINT) GetTypeInfoCount() override { return static_cast<UINT>(lib_->types.size()); }
    STDMETHODIMP GetTypeInfo(UINT index, ITypeInfo** ppTInfo) override;
    STDMETHODIMP GetTypeInfoType(UINT index, TYPEKIND* pTKind) override {
        if (!pTKind) return E_INVALIDARG;
        if (index >= lib_->types.size()) return TYPE_E_ELEMENTNOTFOUND;
        *pTKind = lib_->types[index].kind;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfoOfGuid(REFGUID guid, ITypeInfo** ppTinfo) override {
        if (!ppTinfo) return E_INVALIDARG;
        *ppTinfo = nullptr;
        for (std::size_t i = 0; i < lib_->types.size(); ++i)
            if (IsEqualGUID(lib_->types[i].guid, guid)) return GetTypeInfo(static_cast<UINT>(i), ppTinfo);
        return TYPE_E_ELEMENTNOTFOUND;
    }
    STDMETHODIMP GetLibAttr(TLIBATTR** ppTLibAttr) override {
        if (!ppTLibAttr) return E_INVALIDARG;
        auto* attr = static_cast<TLIBATTR*>(std::malloc(sizeof(TLIBATTR)));
        if (!attr) return E_OUTOFMEMORY;
        *attr =
            TLIBATTR{lib_->libid, lib_->lcid, lib_->syskind, lib_->majorVersion, lib_->minorVersion, lib_->libFlags};
        *ppTLibAttr = attr;
        return S_OK;
    }
    STDMETHODIMP GetTypeComp(ITypeComp** ppTComp) override {
        if (ppTComp) *ppTComp = nullptr;
        return E_NOTIMPL;
    }
    STDMETHODIMP GetDocumentation(INT index, BSTR* pName, BSTR* pDoc, DWORD* pContext, BSTR* pHelpFile) override {
        if (index == -1)
            return Documentation(lib_->Text(lib_->name), lib_->Text(lib_->doc), pName, pDoc, pContext, pHelpFile);
        if (index < 0 || static_cast<std::size_t>(index) >= lib_->types.size()) return TYPE_E_ELEMENTNOTFOUND;
        const TypeData& type = lib_->types[static_cast<std::size_t>(index)];
        return Documentation(lib_->Text(type.name), lib_->Text(type.doc), pName, pDoc, pContext, pHelpFile);
    }
    // Also writes the name's stored spelling into szNameBuf, as Windows does.
    STDMETHODIMP IsName(LPOLESTR szNameBuf, ULONG, BOOL* pfName) override {
        if (!szNameBuf || !pfName) return E_INVALIDARG;
        *pfName = FALSE;
        ForEachName(szNameBuf, [&](const char* stored, std::size_t, MEMBERID) {
            const std::u16string wide = Widen(stored);
            std::memcpy(szNameBuf, wide.c_str(), (wide.size() + 1) * sizeof(OLECHAR));
            *pfName = TRUE;
            return false;
        });
        return S_OK;
    }
    STDMETHODIMP FindName(LPOLESTR szNameBuf, ULONG, ITypeInfo** ppTInfo, MEMBERID* rgMemId, USHORT* pcFound) override {
        if (!szNameBuf || !ppTInfo || !rgMemId || !pcFound) return E_INVALIDARG;
        const USHORT wanted = *pcFound;
        USHORT found = 0;
        HRESULT hr = S_OK;
        ForEachName(szNameBuf, [&](const char*, std::size_t type, MEMBERID id) {
            if (found >= wanted) return false;
            hr = GetTypeInfo(static_cast<UINT>(type), &ppTInfo[found]);
            if (FAILED(hr)) return false;
            rgMemId[found++] = id;
            return true;
        });
        *pcFound = found;
        return hr;
    }
    STDMETHODIMP_(void) ReleaseTLibAttr(TLIBATTR* pTLibAttr) override { CoTaskMemFree(pTLibAttr); }

    const std::shared_ptr<const Library>& lib() const { return lib_; }

private:
    // Calls visit(storedName, typeIndex, memberId) for each type (MEMBERID_NIL)
    // and member whose name matches `name` without regard to case, until
    // visit returns false.
    template <class Visit>
    void ForEachName(LPCOLESTR name, Visit&& visit) {
        for (std::size_t t = 0; t < lib_->types.size(); ++t) {
            const TypeData& type = lib_->types[t];
            if (SameName(lib_->Text(type.name), name) && !visit(lib_->Text(type.name), t, MEMBERID_NIL)) return;
            for (const MemberData& m : lib_->AllMembers(type))
                if (SameName(lib_->Text(m.name), name) && !visit(lib_->Text(m.name), t, m.id)) return;
        }
    }

    std::shared_ptr<const Library> lib_;
};

class TypeInfo final : public ComObject<ITypeInfo> {
public:
    TypeInfo(std::shared_ptr<const Library> lib, std::size_t index)
        : lib_(std::move(lib)), index_(index), type_(lib_->types[index]) {}

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        return QueryChain(riid, ppv, {&IID_IUnknown, &IID_ITypeInfo});
    }

    STDMETHODIMP GetTypeAttr(TYPEATTR** ppTypeAttr) override {
        if (!ppTypeAttr) return E_INVALIDARG;
        auto* attr = static_cast<TYPEATTR*>(std::malloc(sizeof(TYPEATTR)));
        if (!attr) return E_OUTOFMEMORY;
        std::memset(attr, 0, sizeof *attr);
        attr->guid = type_.guid;
        attr->lcid = lib_->lcid;
        attr->memidConstructor = MEMBERID_NIL;
        attr->memidDestructor = MEMBERID_NIL;
        attr->cbSizeInstance = type_.kind == TKIND_ENUM ? 4 : sizeof(void*);
        attr->typekind = type_.kind;
        attr->cFuncs = static_cast<WORD>(type_.functionCount);
        attr->cVars = static_cast<WORD>(type_.variableCount);
        attr->cImplTypes = type_.base == kNoType ? 0 : 1;
        attr->cbAlignment = type_.kind == TKIND_ENUM ? 4 : alignof(void*);
        attr->wTypeFlags = type_.typeFlags;
        attr->wMajorVerNum = lib_->majorVersion;
        attr->wMinorVerNum = lib_->minorVersion;
        attr->tdescAlias.vt = VT_EMPTY;
        *ppTypeAttr = attr;
        return S_OK;
    }
    STDMETHODIMP GetTypeComp(ITypeComp** ppTComp) override {
        if (ppTComp) *ppTComp = nullptr;
        return E_NOTIMPL;
    }
    STDMETHODIMP GetFuncDesc(UINT index, FUNCDESC** ppFuncDesc) override {
        if (!ppFuncDesc) return E_INVALIDARG;
        *ppFuncDesc = nullptr;
        if (index >= type_.functionCount) return TYPE_E_ELEMENTNOTFOUND;
        try {
            const MemberData& m = lib_->Functions(type_)[index];
            const std::vector<ParamData> params = lib_->Params(m);
            auto block = std::make_unique<Block>();
            block->params.resize(params.size());
            for (std::size_t p = 0; p < params.size(); ++p) {
                ELEMDESC& e = block->params[p];
                std::memset(&e, 0, sizeof e);
                block->Fill(&e.tdesc, params[p].type);
                e.paramdesc.wParamFlags = params[p].flags;
            }
            FUNCDESC& f = block->func;
            std::memset(&f, 0, sizeof f);
            f.memid = m.id;
            f.lprgelemdescParam = block->params.empty() ? nullptr : block->params.data();
            f.funckind = FUNC_PUREVIRTUAL;
            f.invkind = static_cast<INVOKEKIND>(m.invokeKind);
            f.callconv = CC_STDCALL;
            f.cParams = static_cast<SHORT>(params.size());
            block->Fill(&f.elemdescFunc.tdesc, m.type);
            *ppFuncDesc = &f;
            Keep(std::move(block), &f);
            return S_OK;
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
    }
    STDMETHODIMP GetVarDesc(UINT index, VARDESC** ppVarDesc) override {
        if (!ppVarDesc) return E_INVALIDARG;
        *ppVarDesc = nullptr;
        if (index >= type_.variableCount) return TYPE_E_ELEMENTNOTFOUND;
        try {
            const MemberData& m = lib_->Variables(type_)[index];
            auto block = std::make_unique<Block>();
            VARDESC& v = block->var;
            std::memset(&v, 0, sizeof v);
            v.memid = m.id;
            block->Fill(&v.elemdescVar.tdesc, m.type);
            if (type_.kind == TKIND_ENUM) {
                v.varkind = VAR_CONST;
                VariantInit(&block->value);
                block->value.vt = VT_I4;
                block->value.lVal = static_cast<LONG>(m.value);
                v.lpvarValue = &block->value;
            } else {
                v.varkind = VAR_PERINSTANCE;
                v.oInst = static_cast<ULONG>(m.value);
            }
            *ppVarDesc = &v;
            Keep(std::move(block), &v);
            return S_OK;
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
    }
    // The member's name, then (for a method) its parameters' names.
    STDMETHODIMP GetNames(MEMBERID memid, BSTR* rgBstrNames, UINT cMaxNames, UINT* pcNames) override {
        if (!rgBstrNames || !pcNames) return E_INVALIDARG;
        *pcNames = 0;
        const MemberData* m = Find(memid);
        if (!m) return TYPE_E_ELEMENTNOTFOUND;
        std::vector<const char*> names{lib_->Text(m->name)};
        for (const ParamData& p : lib_->Params(*m)) names.push_back(lib_->Text(p.name));
        UINT n = 0;
        for (; n < names.size() && n < cMaxNames; ++n) {
            rgBstrNames[n] = Bstr(names[n]);
            if (!rgBstrNames[n]) {
                while (n > 0) SysFreeString(rgBstrNames[--n]);
                return E_OUTOFMEMORY;
            }
        }
        *pcNames = n;
        return S_OK;
    }
    STDMETHODIMP GetRefTypeOfImplType(UINT index, HREFTYPE* pRefType) override {
        if (!pRefType) return E_INVALIDARG;
        if (index != 0 || type_.base == kNoType) return TYPE_E_ELEMENTNOTFOUND;
        *pRefType = type_.base;
        return S_OK;
    }
    STDMETHODIMP GetImplTypeFlags(UINT index, INT* pImplTypeFlags) override {
        if (!pImplTypeFlags) return E_INVALIDARG;
        if (index != 0 || type_.base == kNoType) return TYPE_E_ELEMENTNOTFOUND;
        *pImplTypeFlags = type_.kind == TKIND_COCLASS ? IMPLTYPEFLAG_FDEFAULT : 0;
        return S_OK;
    }
    // Finds names[0] among the members and names[1..] among its parameters.
    STDMETHODIMP GetIDsOfNames(LPOLESTR* rgszNames, UINT cNames, MEMBERID* pMemId) override {
        if (!rgszNames || !pMemId || cNames == 0) return E_INVALIDARG;
        const MemberData* found = nullptr;
        for (const MemberData& m : lib_->AllMembers(type_))
            if (!found && SameName(lib_->Text(m.name), rgszNames[0])) found = &m;
        HRESULT hr = S_OK;
        for (UINT i = 0; i < cNames; ++i) pMemId[i] = MEMBERID_NIL;
        if (!found) return DISP_E_UNKNOWNNAME;
        pMemId[0] = found->id;
        const std::vector<ParamData> params = lib_->Params(*found);
        for (UINT i = 1; i < cNames; ++i) {
            for (std::size_t p = 0; p < params.size(); ++p)
                if (SameName(lib_->Text(params[p].name), rgszNames[i])) pMemId[i] = static_cast<MEMBERID>(p);
            if (pMemId[i] == MEMBERID_NIL) hr = DISP_E_UNKNOWNNAME;
        }
        return hr;
    }
    STDMETHODIMP Invoke(PVOID, MEMBERID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return E_NOTIMPL; }
    STDMETHODIMP GetDocumentation(MEMBERID memid, BSTR* pName, BSTR* pDoc, DWORD* pContext, BSTR* pHelpFile) override {
        if (memid == MEMBERID_NIL)
            return Documentation(lib_->Text(type_.name), lib_->Text(type_.doc), pName, pDoc, pContext, pHelpFile);
        const MemberData* m = Find(memid);
        if (!m) return TYPE_E_ELEMENTNOTFOUND;
        return Documentation(lib_->Text(m->name), lib_->Text(m->doc), pName, pDoc, pContext, pHelpFile);
    }
    STDMETHODIMP GetDllEntry(MEMBERID, INVOKEKIND, BSTR*, BSTR*, WORD*) override { return E_NOTIMPL; }
    STDMETHODIMP GetRefTypeInfo(HREFTYPE hRefType, ITypeInfo** ppTInfo) override {
        if (!ppTInfo) return E_INVALIDARG;
        *ppTInfo = nullptr;
        if (hRefType >= lib_->types.size()) return TYPE_E_ELEMENTNOTFOUND;
        return Create(lib_, hRefType, ppTInfo);
    }
    STDMETHODIMP AddressOfMember(MEMBERID, INVOKEKIND, PVOID* ppv) override {
        if (ppv) *ppv = nullptr;
        return E_NOTIMPL;
    }
    // A class is created through class activation, as its CLSID says.
    STDMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, PVOID* ppvObj) override {
        if (!ppvObj) return E_INVALIDARG;
        *ppvObj = nullptr;
        if (type_.kind != TKIND_COCLASS) return TYPE_E_WRONGTYPEKIND;
        return CoCreateInstance(type_.guid, pUnkOuter, CLSCTX_INPROC_SERVER, riid, ppvObj);
    }
    STDMETHODIMP GetMops(MEMBERID, BSTR* pBstrMops) override {
        if (pBstrMops) *pBstrMops = nullptr;
        return E_NOTIMPL;
    }
    STDMETHODIMP GetContainingTypeLib(ITypeLib** ppTLib, UINT* pIndex) override {
        if (pIndex) *pIndex = static_cast<UINT>(index_);
        if (!ppTLib) return S_OK;
        *ppTLib = new (std::nothrow) TypeLib(lib_);
        return *ppTLib ? S_OK : E_OUTOFMEMORY;
    }
    STDMETHODIMP_(void) ReleaseTypeAttr(TYPEATTR* pTypeAttr) override { CoTaskMemFree(pTypeAttr); }
    STDMETHODIMP_(void) ReleaseFuncDesc(FUNCDESC* pFuncDesc) override { Forget(pFuncDesc); }
    STDMETHODIMP_(void) ReleaseVarDesc(VARDESC* pVarDesc) override { Forget(pVarDesc); }

    static HRESULT Create(const std::shared_ptr<const Library>& lib, std::size_t index, ITypeInfo** out) {
        *out = new (std::nothrow) TypeInfo(lib, index);
        return *out ? S_OK : E_OUTOFMEMORY;
    }

private:
    // One descriptor handed out, with the storage it points into.
    struct Block {
        FUNCDESC func;
        VARDESC var;
        VARIANT value;
        std::vector<ELEMDESC> params;
        std::deque<TYPEDESC> nodes;  // VT_PTR chains; a deque keeps addresses stable

        void Fill(TYPEDESC* out, const Descriptor& d) {
            TYPEDESC* at = out;
            for (std::uint16_t level = 0; level < d.pointers; ++level) {
                at->vt = VT_PTR;
                at->lptdesc = &nodes.emplace_back();
                at = at->lptdesc;
            }
            at->vt = d.vt;
            if (d.vt == VT_USERDEFINED) at->hreftype = d.href;
        }
    };

    const MemberData* Find(MEMBERID memid) const {
        for (const MemberData& m : lib_->AllMembers(type_))
            if (m.id == memid) return &m;
        return nullptr;
    }
    void Keep(std::unique_ptr<Block> block, const void* key) {
        std::lock_guard<std::mutex> guard(mutex_);
        handedOut_[key] = std::move(block);
    }
    void Forget(const void* key) {
        std::lock_guard<std::mutex> guard(mutex_);
        handedOut_.erase(key);
    }

    std::shared_ptr<const Library> lib_;
    std::size_t index_;
    const TypeData& type_;
    std::mutex mutex_;
    std::map<const void*, std::unique_ptr<Block>> handedOut_;
};

STDMETHODIMP TypeLib::GetTypeInfo(UINT index, ITypeInfo** ppTInfo) {
    if (!ppTInfo) return E_INVALIDARG;
    *ppTInfo = nullptr;
    if (index >= lib_->types.size()) return TYPE_E_ELEMENTNOTFOUND;
    return TypeInfo::Create(lib_, index, ppTInfo);
}

// Reads the whole file into `bytes`: false with the failure text set.
// Reads a type-library file of at most 256 MiB; false with the failure text
// set.
bool ReadLibraryFile(const std::string& path, std::vector<std::uint8_t>* bytes) {
    std::string text;
    if (const int err = ReadWholeFile(path, &text, 256 << 20)) {
        SetErrorText("cannot read the type library " + path + ": " +
                     (err == EINVAL || err == EFBIG ? "not a regular file of at most 256 MiB" : ErrnoText(err)));
        return false;
    }
    bytes->assign(text.begin(), text.end());
    return true;
}

// True when the file starts as an ELF object: a module, which carries its
// library as a resource.
bool IsModuleFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char magic[4] = {};
    const bool elf = read(fd, magic, sizeof magic) == sizeof magic && std::memcmp(magic,
                                                                                  "\x7F"
                                                                                  "ELF",
                                                                                  4) == 0;
    close(fd);
    return elf;
}

HRESULT Load(const std::string& path, ITypeLib** out) {
    auto lib = std::make_shared<Library>();
    std::vector<std::uint8_t>& bytes = lib->bytes;
    if (IsModuleFile(path)) {
        // Only the resource is read, not the module's whole file.
        if (FAILED(ReadResourceFromFile(path.c_str(), MAKEINTRESOURCE(1), "TYPELIB", &bytes))) {
            SetErrorText("the module " + path + " has no usable TYPELIB resource 1");
            return TYPE_E_CANTLOADLIBRARY;
        }
    } else if (!ReadLibraryFile(path, &bytes)) {
        return TYPE_E_CANTLOADLIBRARY;
    }
    try {
        Parse(lib.get());
    } catch (const Damaged& damaged) {
        SetErrorText("damaged type library " + path + ": " + damaged.what);
        return TYPE_E_CANTLOADLIBRARY;
    }
    *out = new TypeLib(std::move(lib));
    return S_OK;
}

}  // namespace
}  // namespace vorn::rt::tlb

VORNAPI HRESULT WINAPI LoadTypeLib(LPCOLESTR szFile, ITypeLib** pptlib) {
    vorn::rt::ClearErrorText();
    if (!szFile || !pptlib) return E_INVALIDARG;
    *pptlib = nullptr;
    try {
        vorn::rt::HostPath host;
        const std::string file = vorn::Narrow(szFile);
        if (file.empty() || !vorn::rt::MapWindowsPath(file.c_str(), &host)) return TYPE_E_CANTLOADLIBRARY;
        return vorn::rt::tlb::Load(host.path, pptlib);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
