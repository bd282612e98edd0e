// Helpers of the module tests: running vornregsvr, reading registry values,
// activating classes, asking a loaded module whether it may be unloaded, and
// reading names and types out of type libraries.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "support/ScopedRegistry.h"
#include "support/Text.h"
#include "vorn/platform.h"
#include "vorn/rt/comptr.h"

namespace vorn::test {

struct ToolResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};

// Runs `command` through the shell (the environment, VORN_REGISTRY included,
// is inherited) and collects its output.
inline ToolResult Run(const std::string& command) {
    ToolResult result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return result;
    char buf[512];
    while (size_t n = fread(buf, 1, sizeof buf, pipe)) result.output.append(buf, n);
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

inline ToolResult RegisterServer(const std::string& module, bool unregister = false) {
    return Run(std::string(VORNREGSVR) + (unregister ? " -u " : " ") + "'" + module + "'");
}

// The default (or named) string value of HKEY_CLASSES_ROOT\path, or
// "<missing>".
inline std::string ClassesString(const char* path, const char* name = nullptr) {
    char buf[1024] = {};
    DWORD size = sizeof buf;
    if (RegGetValueA(HKEY_CLASSES_ROOT, path, name, RRF_RT_REG_SZ, nullptr, buf, &size) != ERROR_SUCCESS)
        return "<missing>";
    return buf;
}

// Whether HKEY_CLASSES_ROOT\path is in the file as the runtime last wrote it.
inline bool HasClassesKey(const ScopedRegistry& registry, const std::string& path) {
    return registry.HasKey("HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\" + path);
}

inline std::string GuidString(REFGUID guid) {
    OLECHAR wide[40];
    char narrow[40];
    StringFromGUID2(guid, wide, 40);
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow, sizeof narrow, nullptr, nullptr);
    return narrow;
}

// Registers `clsid` as served by the module at `path` (InprocServer32 only;
// the path holds no quote or backslash).
inline void RegisterClassAt(const ScopedRegistry& registry, REFCLSID clsid, const std::string& path) {
    registry.Append("[HKEY_CLASSES_ROOT\\CLSID\\" + GuidString(clsid) + "\\InprocServer32]\n@=\"" + path + "\"\n");
}

// The result of DllCanUnloadNow of the loaded module at `path`; E_FAIL when it
// is not loaded.
inline HRESULT CanUnloadNow(const char* path) {
    HMODULE module = GetModuleHandleA(path);
    if (!module) return E_FAIL;
    auto canUnload = reinterpret_cast<HRESULT (*)()>(GetProcAddress(module, "DllCanUnloadNow"));
    return canUnload ? canUnload() : E_FAIL;
}

// CoCreateInstance of an in-process class.
inline HRESULT CreateInproc(REFCLSID clsid, REFIID riid, void** out) {
    return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, riid, out);
}

// The class object of `clsid` from the module at `path`, loaded through
// activation (an instance is created and released first); null on failure,
// which is reported.
inline ComPtr<IClassFactory> ClassObject(const char* path, REFCLSID clsid) {
    ComPtr<IClassFactory> factory;
    ComPtr<IUnknown> instance;
    EXPECT_EQ(CreateInproc(clsid, IID_IUnknown, instance.put_void()), S_OK);
    instance.reset();
    HMODULE module = GetModuleHandleA(path);
    using GetClassObjectFn = HRESULT (*)(REFCLSID, REFIID, LPVOID*);
    auto get = module ? reinterpret_cast<GetClassObjectFn>(GetProcAddress(module, "DllGetClassObject")) : nullptr;
    EXPECT_TRUE(get && get(clsid, IID_IClassFactory, factory.put_void()) == S_OK);
    return factory;
}

using vorn::LastErrorText;

// A test with COM initialised on its thread and `module` registered (with
// vornregsvr) in a registry of its own. Derived fixtures call Register from
// their SetUp.
class RegisteredModuleTest : public ::testing::Test {
protected:
    void Register(const char* module) {
        ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        initialised_ = true;
        const ToolResult registered = RegisterServer(module);
        ASSERT_EQ(registered.exitCode, 0) << registered.output;
    }
    void TearDown() override {
        if (initialised_) CoUninitialize();
    }

    ScopedRegistry registry_;

private:
    bool initialised_ = false;
};

inline std::string TypeName(ITypeInfo* info) {
    BSTR name = nullptr;
    info->GetDocumentation(MEMBERID_NIL, &name, nullptr, nullptr, nullptr);
    return TakeText(name);
}

// "IFoo**" style text of a TYPEDESC, naming user-defined types.
inline std::string Describe(ITypeInfo* info, const TYPEDESC& desc) {
    if (desc.vt == VT_PTR) return Describe(info, *desc.lptdesc) + "*";
    if (desc.vt != VT_USERDEFINED) return "vt" + std::to_string(desc.vt);
    ComPtr<ITypeInfo> target;
    if (FAILED(info->GetRefTypeInfo(desc.hreftype, target.put()))) return "<bad href>";
    return TypeName(target.get());
}

// A type as text, to compare whole: "interface IFoo : IBase flags 256" (base
// or default interface, type flags when set), then a line per function,
// "  7 Name get(vt19/1, IBar**/10) vt25" (member id, name, invoke kind,
// parameter types with their flags, result type), and per constant,
// "  NAME = -3" ("?" for anything but an I4 constant).
inline std::string Render(ITypeInfo* info) {
    TYPEATTR* a = nullptr;
    if (FAILED(info->GetTypeAttr(&a))) return "<no attributes>";
    const TYPEATTR attr = *a;
    info->ReleaseTypeAttr(a);
    auto memberName = [info](MEMBERID id) {
        BSTR name = nullptr;
        UINT count = 0;
        info->GetNames(id, &name, 1, &count);
        return TakeText(name);
    };
    const char* const kinds[] = {"enum", "record", "module", "interface", "dispatch", "coclass", "alias", "union"};
    std::string text = std::string(attr.typekind < 8 ? kinds[attr.typekind] : "?") + " " + TypeName(info);
    HREFTYPE href = 0;
    ComPtr<ITypeInfo> base;
    if (SUCCEEDED(info->GetRefTypeOfImplType(0, &href)) && SUCCEEDED(info->GetRefTypeInfo(href, base.put())))
        text += " : " + TypeName(base.get());
    if (attr.wTypeFlags) text += " flags " + std::to_string(attr.wTypeFlags);
    for (UINT i = 0; i < attr.cFuncs; ++i) {
        FUNCDESC* f = nullptr;
        if (FAILED(info->GetFuncDesc(i, &f))) return text + "\n<no function " + std::to_string(i) + ">";
        const char* kind = f->invkind == INVOKE_PROPERTYGET ? " get(" : f->invkind == INVOKE_FUNC ? " call(" : " ?(";
        text += "\n  " + std::to_string(f->memid) + " " + memberName(f->memid) + kind;
        for (SHORT p = 0; p < f->cParams; ++p)
            text += (p ? ", " : "") + Describe(info, f->lprgelemdescParam[p].tdesc) + "/" +
                    std::to_string(f->lprgelemdescParam[p].paramdesc.wParamFlags);
        text += ") " + Describe(info, f->elemdescFunc.tdesc);
        info->ReleaseFuncDesc(f);
    }
    for (UINT i = 0; i < attr.cVars; ++i) {
        VARDESC* v = nullptr;
        if (FAILED(info->GetVarDesc(i, &v))) return text + "\n<no constant " + std::to_string(i) + ">";
        const bool i4 = v->varkind == VAR_CONST && v->lpvarValue && v->lpvarValue->vt == VT_I4;
        text += "\n  " + memberName(v->memid) + " = " + (i4 ? std::to_string(v->lpvarValue->lVal) : "?");
        info->ReleaseVarDesc(v);
    }
    return text;
}

}  // namespace vorn::test
