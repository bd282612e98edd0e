// libFuzzer target: arbitrary bytes as a type library file, loaded with
// LoadTypeLib (src/platform/typelib.cpp). A file starting with the ELF
// signature is read as a module whose resource TYPELIB 1 holds the library,
// so the module-file resource reader is reached too.
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - loading returns S_OK or TYPE_E_CANTLOADLIBRARY (with a failure text),
//     or E_OUTOFMEMORY;
//   - everything a loaded library hands out is usable: every type's info,
//     attributes, documentation, function and variable descriptions and
//     names, every type reference (base, VT_USERDEFINED at any pointer
//     depth) resolves to a type of the library, every GUID finds a type,
//     every name is found by IsName and FindName; indexes past the end give
//     TYPE_E_ELEMENTNOTFOUND.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "vorn/platform.h"

namespace {

using vorn::ComPtr;
using vorn::fuzz::Expect;
using vorn::fuzz::ExpectResult;

const vorn::fuzz::ScratchFile& File() {
    static const vorn::fuzz::ScratchFile file("input.tlb");
    return file;
}

// Frees the strings GetDocumentation hands out.
void CheckDocumentation(HRESULT hr, BSTR name, BSTR doc, BSTR helpFile, const char* what) {
    ExpectResult(hr, {S_OK}, what);
    Expect(name != nullptr, "documentation without a name");
    Expect(helpFile == nullptr, "documentation with a help file");
    SysFreeString(name);
    SysFreeString(doc);
}

void CheckTypeDesc(const TYPEDESC& desc, UINT typeCount, ITypeInfo* info) {
    const TYPEDESC* at = &desc;
    for (int depth = 0; at->vt == VT_PTR; ++depth) {
        Expect(depth < 8 && at->lptdesc != nullptr, "a pointer chain too long or broken");
        at = at->lptdesc;
    }
    if (at->vt != VT_USERDEFINED) return;
    Expect(at->hreftype < typeCount, "a type reference outside the library");
    ComPtr<ITypeInfo> target;
    ExpectResult(info->GetRefTypeInfo(at->hreftype, target.put()), {S_OK}, "resolving a type reference");
}

// The library's name lookups find `name` (as stored).
void CheckName(ITypeLib* lib, BSTR name) {
    std::u16string buffer(name, SysStringLen(name));
    if (buffer.empty() || buffer.find(u'\0') != std::u16string::npos) return;
    BOOL found = FALSE;
    ExpectResult(lib->IsName(buffer.data(), 0, &found), {S_OK}, "IsName");
    Expect(found == TRUE, "IsName misses a name of the library");
    ITypeInfo* infos[1] = {};
    MEMBERID ids[1] = {};
    USHORT count = 1;
    ExpectResult(lib->FindName(buffer.data(), 0, infos, ids, &count), {S_OK}, "FindName");
    Expect(count == 1 && infos[0] != nullptr, "FindName misses a name of the library");
    infos[0]->Release();
}

void CheckFunction(ITypeInfo* info, UINT index, UINT typeCount) {
    FUNCDESC* func = nullptr;
    ExpectResult(info->GetFuncDesc(index, &func), {S_OK}, "GetFuncDesc");
    Expect(func->cParams >= 0 && (func->cParams == 0) == (func->lprgelemdescParam == nullptr),
           "a function's parameter count and array disagree");
    CheckTypeDesc(func->elemdescFunc.tdesc, typeCount, info);
    for (SHORT p = 0; p < func->cParams; ++p) CheckTypeDesc(func->lprgelemdescParam[p].tdesc, typeCount, info);
    std::vector<BSTR> names(static_cast<std::size_t>(func->cParams) + 1);
    UINT count = 0;
    ExpectResult(info->GetNames(func->memid, names.data(), static_cast<UINT>(names.size()), &count), {S_OK},
                 "GetNames of a function");
    Expect(count >= 1 && count <= names.size(), "GetNames count");
    for (UINT n = 0; n < count; ++n) SysFreeString(names[n]);
    BSTR name = nullptr, doc = nullptr, helpFile = nullptr;
    CheckDocumentation(info->GetDocumentation(func->memid, &name, &doc, nullptr, &helpFile), name, doc, helpFile,
                       "a function's documentation");
    info->ReleaseFuncDesc(func);
}

void CheckVariable(ITypeInfo* info, UINT index, UINT typeCount, TYPEKIND kind) {
    VARDESC* var = nullptr;
    ExpectResult(info->GetVarDesc(index, &var), {S_OK}, "GetVarDesc");
    CheckTypeDesc(var->elemdescVar.tdesc, typeCount, info);
    Expect((var->varkind == VAR_CONST) == (kind == TKIND_ENUM), "an enumeration's member that is no constant");
    if (var->varkind == VAR_CONST) Expect(var->lpvarValue != nullptr, "a constant without its value");
    BSTR name = nullptr;
    UINT count = 0;
    ExpectResult(info->GetNames(var->memid, &name, 1, &count), {S_OK}, "GetNames of a variable");
    Expect(count == 1, "GetNames count of a variable");
    SysFreeString(name);
    info->ReleaseVarDesc(var);
}

void CheckType(ITypeLib* lib, UINT index, UINT typeCount) {
    TYPEKIND kind{};
    ExpectResult(lib->GetTypeInfoType(index, &kind), {S_OK}, "GetTypeInfoType");
    ComPtr<ITypeInfo> info;
    ExpectResult(lib->GetTypeInfo(index, info.put()), {S_OK}, "GetTypeInfo");
    TYPEATTR* attr = nullptr;
    ExpectResult(info->GetTypeAttr(&attr), {S_OK}, "GetTypeAttr");
    Expect(attr->typekind == kind, "GetTypeAttr and GetTypeInfoType disagree on the kind");

    BSTR name = nullptr, doc = nullptr, helpFile = nullptr;
    ExpectResult(lib->GetDocumentation(static_cast<INT>(index), &name, &doc, nullptr, &helpFile), {S_OK},
                 "a type's documentation");
    CheckName(lib, name);
    CheckDocumentation(S_OK, name, doc, helpFile, "a type's documentation");

    ComPtr<ITypeInfo> byGuid;
    ExpectResult(lib->GetTypeInfoOfGuid(attr->guid, byGuid.put()), {S_OK}, "GetTypeInfoOfGuid");

    for (UINT f = 0; f < attr->cFuncs; ++f) CheckFunction(info.get(), f, typeCount);
    for (UINT v = 0; v < attr->cVars; ++v) CheckVariable(info.get(), v, typeCount, kind);
    FUNCDESC* func = nullptr;
    ExpectResult(info->GetFuncDesc(attr->cFuncs, &func), {TYPE_E_ELEMENTNOTFOUND}, "GetFuncDesc past the end");
    VARDESC* var = nullptr;
    ExpectResult(info->GetVarDesc(attr->cVars, &var), {TYPE_E_ELEMENTNOTFOUND}, "GetVarDesc past the end");

    HREFTYPE base = 0;
    const HRESULT hr = info->GetRefTypeOfImplType(0, &base);
    ExpectResult(hr, {attr->cImplTypes ? S_OK : TYPE_E_ELEMENTNOTFOUND}, "GetRefTypeOfImplType");
    if (hr == S_OK) {
        Expect(base < typeCount, "a base type outside the library");
        ComPtr<ITypeInfo> baseInfo;
        ExpectResult(info->GetRefTypeInfo(base, baseInfo.put()), {S_OK}, "resolving a base type");
    }
    ComPtr<ITypeLib> container;
    UINT containerIndex = 0;
    ExpectResult(info->GetContainingTypeLib(container.put(), &containerIndex), {S_OK}, "GetContainingTypeLib");
    Expect(containerIndex == index, "GetContainingTypeLib gives another index");
    info->ReleaseTypeAttr(attr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const vorn::fuzz::ScratchFile& file = File();
    file.Write(data, size);
    const std::u16string path(file.path().begin(), file.path().end());
    ComPtr<ITypeLib> lib;
    const HRESULT hr = LoadTypeLib(path.c_str(), lib.put());
    ExpectResult(hr, {S_OK, TYPE_E_CANTLOADLIBRARY, E_OUTOFMEMORY}, "LoadTypeLib");
    if (hr == TYPE_E_CANTLOADLIBRARY) {
        char text[8];
        Expect(VornGetLastErrorTextA(text, sizeof text) > 0, "a refused type library without a failure text");
    }
    if (hr != S_OK) return 0;

    TLIBATTR* libAttr = nullptr;
    ExpectResult(lib->GetLibAttr(&libAttr), {S_OK}, "GetLibAttr");
    lib->ReleaseTLibAttr(libAttr);
    BSTR name = nullptr, doc = nullptr, helpFile = nullptr;
    CheckDocumentation(lib->GetDocumentation(-1, &name, &doc, nullptr, &helpFile), name, doc, helpFile,
                       "the library's documentation");
    const UINT count = lib->GetTypeInfoCount();
    for (UINT t = 0; t < count; ++t) CheckType(lib.get(), t, count);
    ComPtr<ITypeInfo> none;
    ExpectResult(lib->GetTypeInfo(count, none.put()), {TYPE_E_ELEMENTNOTFOUND}, "GetTypeInfo past the end");
    return 0;
}
