// Type-library registration: RegisterTypeLib and UnRegisterTypeLib over the
// registry (registry_store.h). Each registration or
// removal is one registry transaction.
//
// Keys, below HKEY_CLASSES_ROOT (version numbers in hexadecimal, as Windows
// writes them):
//   TypeLib\{LIBID}\<major>.<minor>            @ = documentation or name
//       FLAGS                                  @ = library flags (decimal)
//       HELPDIR                                @ = help directory
//       <lcid>\win32 | win64                   @ = path of the library file
//   Interface\{IID}                            @ = interface name
//       ProxyStubClsid32, ProxyStubClsid       @ = the type-library marshaler
//       TypeLib                                @ = {LIBID}, Version = <major>.<minor>
#include <cstdio>

#include "diagnostic.h"
#include "registry_store.h"
#include "vorn/platform.h"

using vorn::rt::reg::Key;
using vorn::rt::reg::Tree;

namespace {

// The type-library marshaler's class identifier, which Windows registers as
// the proxy/stub of automation interfaces.
constexpr char kTypeLibMarshaler[] = "{00020424-0000-0000-C000-000000000046}";

std::string Hex(unsigned value) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%x", value);
    return buf;
}

std::string VersionText(WORD major, WORD minor) { return Hex(major) + "." + Hex(minor); }

const char* SysKindName(SYSKIND syskind) { return syskind == SYS_WIN32 ? "win32" : "win64"; }

void SetString(Key& key, const char* name, const std::string& text) {
    key.SetValue(name, REG_SZ, vorn::rt::reg::StringData(text));
}

std::string StringValue(const Key& key, const char* name) {
    const vorn::rt::reg::Value* value = key.FindValue(name);
    return value && value->type == REG_SZ ? vorn::rt::reg::StringFromData(value->data) : std::string();
}

Key& ClassesRoot(Tree& tree) { return tree.localMachine.CreatePath(vorn::rt::reg::ClassesRootPath()); }

struct InterfaceEntry {
    std::string iid;
    std::string name;
};

}  // namespace

VORNAPI HRESULT WINAPI RegisterTypeLib(ITypeLib* ptlib, LPCOLESTR szFullPath, LPCOLESTR szHelpDir) {
    vorn::rt::ClearErrorText();
    if (!ptlib || !szFullPath || !*szFullPath) return E_INVALIDARG;
    try {
        TLIBATTR* attr = nullptr;
        if (HRESULT hr = ptlib->GetLibAttr(&attr); FAILED(hr)) return hr;
        const TLIBATTR lib = *attr;
        ptlib->ReleaseTLibAttr(attr);
        BSTR name = nullptr, doc = nullptr;
        if (HRESULT hr = ptlib->GetDocumentation(-1, &name, &doc, nullptr, nullptr); FAILED(hr)) return hr;
        const std::string title = vorn::Narrow(doc && SysStringLen(doc) ? doc : name ? name : u"");
        SysFreeString(name);
        SysFreeString(doc);

        std::vector<InterfaceEntry> interfaces;
        const UINT count = ptlib->GetTypeInfoCount();
        for (UINT i = 0; i < count; ++i) {
            ITypeInfo* info = nullptr;
            if (FAILED(ptlib->GetTypeInfo(i, &info))) continue;
            TYPEATTR* typeAttr = nullptr;
            if (SUCCEEDED(info->GetTypeAttr(&typeAttr))) {
                const bool automation = typeAttr->typekind == TKIND_DISPATCH ||
                                        (typeAttr->typekind == TKIND_INTERFACE &&
                                         (typeAttr->wTypeFlags & (TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDUAL)));
                BSTR typeName = nullptr;
                if (automation && SUCCEEDED(info->GetDocumentation(MEMBERID_NIL, &typeName, nullptr, nullptr, nullptr)))
                    interfaces.push_back({vorn::rt::GuidText(typeAttr->guid), vorn::Narrow(typeName ? typeName : u"")});
                SysFreeString(typeName);
                info->ReleaseTypeAttr(typeAttr);
            }
            info->Release();
        }

        const std::string path = vorn::Narrow(szFullPath);
        std::string helpDir = szHelpDir ? vorn::Narrow(szHelpDir) : std::string();
        if (!szHelpDir) {
            const std::size_t slash = path.find_last_of("/\\");
            helpDir = slash == std::string::npos ? std::string() : path.substr(0, slash);
        }
        const std::string libid = vorn::rt::GuidText(lib.guid);
        const std::string version = VersionText(lib.wMajorVerNum, lib.wMinorVerNum);
        const LSTATUS status = vorn::rt::reg::Update([&](Tree& tree) {
            Key& classes = ClassesRoot(tree);
            Key& versionKey = classes.CreatePath({"TypeLib", libid, version});
            SetString(versionKey, "", title);
            SetString(versionKey.CreateSubkey("FLAGS"), "", std::to_string(lib.wLibFlags));
            SetString(versionKey.CreateSubkey("HELPDIR"), "", helpDir);
            SetString(versionKey.CreatePath({Hex(lib.lcid), SysKindName(lib.syskind)}), "", path);
            for (const InterfaceEntry& entry : interfaces) {
                Key& key = classes.CreatePath({"Interface", entry.iid});
                SetString(key, "", entry.name);
                SetString(key.CreateSubkey("ProxyStubClsid32"), "", kTypeLibMarshaler);
                SetString(key.CreateSubkey("ProxyStubClsid"), "", kTypeLibMarshaler);
                Key& typeLib = key.CreateSubkey("TypeLib");
                SetString(typeLib, "", libid);
                SetString(typeLib, "Version", version);
            }
            return LSTATUS(ERROR_SUCCESS);
        });
        return vorn::rt::reg::HresultFromRegistry(status);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

VORNAPI HRESULT WINAPI UnRegisterTypeLib(REFGUID libID, WORD wVerMajor, WORD wVerMinor, LCID lcid, SYSKIND syskind) {
    vorn::rt::ClearErrorText();
    try {
        const std::string libid = vorn::rt::GuidText(libID);
        const std::string version = VersionText(wVerMajor, wVerMinor);
        bool registered = false;
        const LSTATUS status = vorn::rt::reg::Update([&](Tree& tree) {
            Key* classes = tree.localMachine.Walk(vorn::rt::reg::ClassesRootPath());
            Key* libKey = classes ? classes->Walk({"TypeLib", libid}) : nullptr;
            Key* versionKey = libKey ? libKey->FindSubkey(version) : nullptr;
            Key* lcidKey = versionKey ? versionKey->FindSubkey(Hex(lcid)) : nullptr;
            if (!lcidKey || !lcidKey->RemoveSubkey(SysKindName(syskind))) return LSTATUS(ERROR_SUCCESS);
            registered = true;
            if (!lcidKey->subkeys().empty()) return LSTATUS(ERROR_SUCCESS);
            versionKey->RemoveSubkey(Hex(lcid));
            for (const auto& [name, sub] : versionKey->subkeys())
                if (!vorn::rt::reg::FoldedEqual(name, "FLAGS") && !vorn::rt::reg::FoldedEqual(name, "HELPDIR"))
                    return LSTATUS(ERROR_SUCCESS);  // another locale is still registered
            libKey->RemoveSubkey(version);
            if (libKey->subkeys().empty()) classes->FindSubkey("TypeLib")->RemoveSubkey(libid);
            if (Key* interfaces = classes->FindSubkey("Interface")) {
                std::vector<std::string> owned;
                for (const auto& [name, sub] : interfaces->subkeys()) {
                    const Key* typeLib = sub->FindSubkey("TypeLib");
                    if (typeLib && vorn::rt::reg::FoldedEqual(StringValue(*typeLib, ""), libid) &&
                        StringValue(*typeLib, "Version") == version)
                        owned.push_back(name);
                }
                for (const std::string& name : owned) interfaces->RemoveSubkey(name);
            }
            return LSTATUS(ERROR_SUCCESS);
        });
        if (status != ERROR_SUCCESS) return vorn::rt::reg::HresultFromRegistry(status);
        return registered ? S_OK : TYPE_E_REGISTRYACCESS;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
