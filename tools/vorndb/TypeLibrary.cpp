// Type library tables of the vorndb tool (see TypeLibrary.h).
#include "TypeLibrary.h"

#include <cstdio>

namespace vorndb {

namespace {

using vorn::ComPtr;

void Check(HRESULT hr, const char* call) {
    if (FAILED(hr))
        throw ToolError(kExitFailure,
                        std::string("reading the type library: ") + call + " failed: " + DescribeHresult(hr));
}

// Name and documentation string of a member (MEMBERID_NIL: of the type).
void Documentation(ITypeInfo* info, MEMBERID id, std::string* name, std::string* doc) {
    BSTR n = nullptr;
    BSTR d = nullptr;
    Check(info->GetDocumentation(id, &n, &d, nullptr, nullptr), "ITypeInfo::GetDocumentation");
    *name = TakeBstr(n);
    *doc = TakeBstr(d);
}

// The name of the type a TYPEDESC refers to through pointers; "" for a
// built-in type.
std::string ReferencedName(ITypeInfo* info, const TYPEDESC* type) {
    while (type && type->vt == VT_PTR) type = type->lptdesc;
    if (!type || type->vt != VT_USERDEFINED) return {};
    ComPtr<ITypeInfo> target;
    Check(info->GetRefTypeInfo(type->hreftype, target.put()), "ITypeInfo::GetRefTypeInfo");
    std::string name, doc;
    Documentation(target.get(), MEMBERID_NIL, &name, &doc);
    return name;
}

TypeDescription Read(ITypeInfo* info) {
    TypeDescription type;
    Documentation(info, MEMBERID_NIL, &type.name, &type.doc);
    TYPEATTR* attr = nullptr;
    Check(info->GetTypeAttr(&attr), "ITypeInfo::GetTypeAttr");
    type.kind = attr->typekind;
    type.guid = attr->guid;
    const WORD functions = attr->cFuncs;
    const WORD variables = attr->cVars;
    const WORD implemented = attr->cImplTypes;
    info->ReleaseTypeAttr(attr);

    if (implemented > 0) {
        HREFTYPE href = 0;
        Check(info->GetRefTypeOfImplType(0, &href), "ITypeInfo::GetRefTypeOfImplType");
        ComPtr<ITypeInfo> base;
        Check(info->GetRefTypeInfo(href, base.put()), "ITypeInfo::GetRefTypeInfo");
        std::string doc;
        Documentation(base.get(), MEMBERID_NIL, &type.base, &doc);
    }
    for (UINT i = 0; i < functions; ++i) {
        FUNCDESC* func = nullptr;
        Check(info->GetFuncDesc(i, &func), "ITypeInfo::GetFuncDesc");
        TypeMember member;
        member.id = func->memid;
        for (SHORT p = 0; p < func->cParams; ++p) {
            const ELEMDESC& param = func->lprgelemdescParam[p];
            if (param.paramdesc.wParamFlags & PARAMFLAG_FRETVAL)
                member.target = ReferencedName(info, &param.tdesc);
            else if (param.paramdesc.wParamFlags & PARAMFLAG_FIN)
                member.indexed = true;
        }
        info->ReleaseFuncDesc(func);
        Documentation(info, member.id, &member.name, &member.doc);
        type.members.push_back(std::move(member));
    }
    for (UINT i = 0; i < variables; ++i) {
        VARDESC* var = nullptr;
        Check(info->GetVarDesc(i, &var), "ITypeInfo::GetVarDesc");
        TypeMember member;
        member.id = var->memid;
        if (var->varkind == VAR_CONST && var->lpvarValue) {
            const VARIANT& v = *var->lpvarValue;
            member.value = v.vt == VT_I4 ? v.lVal : static_cast<std::int32_t>(v.ulVal);
        }
        info->ReleaseVarDesc(var);
        Documentation(info, member.id, &member.name, &member.doc);
        type.members.push_back(std::move(member));
    }
    return type;
}

// "Bands[3]" -> "Bands".
std::string BaseName(const std::string& component) { return component.substr(0, component.find('[')); }

std::vector<std::string> SplitPath(const std::string& fullName) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t dot = fullName.find('.', start);
        parts.push_back(fullName.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
        if (dot == std::string::npos) return parts;
        start = dot + 1;
    }
}

}  // namespace

TypeLibrary::TypeLibrary(ITypeLib* library) {
    BSTR name = nullptr;
    Check(library->GetDocumentation(-1, &name, nullptr, nullptr, nullptr), "ITypeLib::GetDocumentation");
    libraryName_ = TakeBstr(name);
    const UINT count = library->GetTypeInfoCount();
    for (UINT i = 0; i < count; ++i) {
        ComPtr<ITypeInfo> info;
        Check(library->GetTypeInfo(i, info.put()), "ITypeLib::GetTypeInfo");
        types_.push_back(Read(info.get()));
        names_.push_back(types_.back().name);
        byName_.emplace(types_.back().name, types_.size() - 1);
    }
}

const TypeDescription* TypeLibrary::Find(const std::string& name) const {
    const auto it = byName_.find(name);
    return it == byName_.end() ? nullptr : &types_[it->second];
}

const TypeMember* TypeLibrary::MemberOf(const std::string& fullName, const TypeDescription** owner) const {
    if (fullName.empty()) return nullptr;
    const TypeDescription* current = Find("IRoot");
    const TypeMember* member = nullptr;
    for (const std::string& component : SplitPath(fullName)) {
        if (!current) return nullptr;
        const std::string base = BaseName(component);
        member = nullptr;
        for (const TypeMember& m : current->members)
            if (m.name == base) member = &m;
        if (!member || member->indexed != (base.size() != component.size())) return nullptr;
        if (owner) *owner = current;
        current = Find(member->target);
    }
    return member;
}

const TypeDescription* TypeLibrary::InterfaceOf(const std::string& fullName) const {
    if (fullName.empty()) return Find("IRoot");
    const TypeMember* member = MemberOf(fullName);
    return member ? Find(member->target) : nullptr;
}

std::string TypeLibrary::EnumerationOf(const TypeMember& member) {
    const std::string key = "values: ";
    const std::size_t at = member.doc.find(key);
    if (at == std::string::npos) return {};
    const std::size_t start = at + key.size();
    const std::size_t end = member.doc.find_first_of(" ,;", start);
    return member.doc.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::vector<EnumMember> TypeLibrary::EnumMembers(const std::string& enumName) const {
    std::vector<EnumMember> result;
    const TypeDescription* type = Find(enumName);
    if (!type || type->kind != TKIND_ENUM) return result;
    for (const TypeMember& m : type->members) result.push_back({m.name, m.value});
    return result;
}

const char* TypeKindName(TYPEKIND kind) {
    switch (kind) {
        case TKIND_ENUM:
            return "enum";
        case TKIND_RECORD:
            return "record";
        case TKIND_MODULE:
            return "module";
        case TKIND_INTERFACE:
            return "interface";
        case TKIND_DISPATCH:
            return "dispinterface";
        case TKIND_COCLASS:
            return "coclass";
        case TKIND_ALIAS:
            return "alias";
        case TKIND_UNION:
            return "union";
        default:
            return "type";
    }
}

std::string GuidText(const GUID& g) {
    char text[48];
    std::snprintf(text, sizeof text, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}",
                  static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
                  g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

}  // namespace vorndb
