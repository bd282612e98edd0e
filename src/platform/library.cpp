// The module loader: LoadLibraryA, FreeLibrary, GetProcAddress and
// GetModuleHandleExA over dlopen, dlsym and dl_iterate_phdr.
//
// Every reference taken through LoadLibraryA or GetModuleHandleExA is one
// dlopen handle kept in a process-wide table under the module's base address;
// FreeLibrary closes one of them. The dynamic loader counts as Windows does, so
// the module goes when its last reference (ours or the loader's own, for
// objects loaded with the program) goes.
//
// Every dlopen and dlclose runs under one recursive lock (the counterpart of
// the Windows loader lock; recursive because a module's static constructors
// and destructors may call back in). Besides guarding the table it orders the
// loading of a module after an earlier unloading of the same module, which
// the dynamic loader does too, but invisibly to the thread sanitizer.
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "diagnostic.h"
#include "internal.h"
#include "resource_format.h"

using vorn::rt::Fail;

namespace {

std::recursive_mutex gLoaderMutex;
// dlopen handles held for LoadLibraryA/GetModuleHandleExA references, by base.
std::map<HMODULE, std::vector<void*>>& References() {
    static auto* references = new std::map<HMODULE, std::vector<void*>>();
    return *references;
}

struct Search {
    HMODULE wanted;
    vorn::rt::LoadedObject* out;
    bool found;
    bool first;
};

// The address of the object's first segment.
ElfW(Addr) BaseOf(const dl_phdr_info* info) {
    ElfW(Addr) start = info->dlpi_addr;
    bool haveLoad = false;
    for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD) continue;
        const ElfW(Addr) align = header.p_align ? header.p_align : 1;
        const ElfW(Addr) segment = info->dlpi_addr + (header.p_vaddr & ~(align - 1));
        if (!haveLoad || segment < start) start = segment;
        haveLoad = true;
    }
    return start;
}

int MatchObject(dl_phdr_info* info, size_t, void* data) {
    auto* search = static_cast<Search*>(data);
    const bool first = search->first;
    search->first = false;
    const ElfW(Addr) base = BaseOf(info);
    const auto wanted = reinterpret_cast<ElfW(Addr)>(search->wanted);
    // The executable is listed first, with an empty name.
    if (search->wanted ? (wanted != base && wanted != info->dlpi_addr) : !first) return 0;
    search->out->base = reinterpret_cast<HMODULE>(base);
    search->out->bias = info->dlpi_addr;
    search->out->phdr = info->dlpi_phdr;
    search->out->phnum = info->dlpi_phnum;
    search->out->mainProgram = !info->dlpi_name || !*info->dlpi_name;
    search->out->path = search->out->mainProgram ? std::string() : std::string(info->dlpi_name);
    search->found = true;
    return 1;
}

// The base of the object that contains `address`; null when none does.
HMODULE BaseContaining(const void* address) {
    Dl_info info;
    if (!dladdr(address, &info) || !info.dli_fbase) return nullptr;
    return static_cast<HMODULE>(info.dli_fbase);
}

// Takes one dlopen reference on the loaded object at `base` and records it.
bool AddReference(HMODULE base, bool pin) {
    std::lock_guard<std::recursive_mutex> guard(gLoaderMutex);
    vorn::rt::LoadedObject object;
    if (!vorn::rt::FindLoadedObject(base, &object)) return false;
    const int flags = RTLD_LAZY | RTLD_NOLOAD | (pin ? RTLD_NODELETE : 0);
    void* handle = dlopen(object.mainProgram ? nullptr : object.path.c_str(), flags);
    if (!handle) return false;
    if (pin) {
        dlclose(handle);  // RTLD_NODELETE has done its work
        return true;
    }
    References()[object.base].push_back(handle);
    return true;
}

std::string BaseName(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

struct NameSearch {
    const char* name;
    bool byPath;
    HMODULE base;
};

int MatchName(dl_phdr_info* info, size_t, void* data) {
    auto* search = static_cast<NameSearch*>(data);
    if (!info->dlpi_name || !*info->dlpi_name) return 0;
    const std::string path(info->dlpi_name);
    if (search->byPath ? path != search->name : BaseName(path) != search->name) return 0;
    search->base = reinterpret_cast<HMODULE>(BaseOf(info));
    return 1;
}

}  // namespace

namespace vorn::rt {

bool FindLoadedObject(HMODULE base, LoadedObject* out) {
    Search search{base, out, false, true};
    dl_iterate_phdr(&MatchObject, &search);
    return search.found;
}

}  // namespace vorn::rt

VORNAPI HMODULE WINAPI LoadLibraryA(LPCSTR lpLibFileName) {
    vorn::rt::ClearErrorText();
    if (!lpLibFileName || !*lpLibFileName) return Fail(ERROR_INVALID_PARAMETER, HMODULE{nullptr});
    try {
        std::string path = lpLibFileName;
        if (path.find_first_of("/\\") != std::string::npos || (path.size() > 1 && path[1] == ':')) {
            vorn::rt::HostPath host;
            if (!vorn::rt::MapWindowsPath(lpLibFileName, &host)) return nullptr;
            path = host.path;
            struct stat st;
            if (stat(path.c_str(), &st) != 0) {
                vorn::rt::SetErrorText("the module " + path + " does not exist");
                return Fail(ERROR_MOD_NOT_FOUND, HMODULE{nullptr});
            }
        }
        std::lock_guard<std::recursive_mutex> guard(gLoaderMutex);
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* reason = dlerror();
            vorn::rt::SetErrorText(reason ? reason : "the module cannot be loaded");
            const bool missing = path.find('/') == std::string::npos && reason && std::strstr(reason, "No such file");
            return Fail(missing ? ERROR_MOD_NOT_FOUND : ERROR_BAD_EXE_FORMAT, HMODULE{nullptr});
        }
        link_map* map = nullptr;
        HMODULE base = nullptr;
        if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map) base = BaseContaining(map->l_ld);
        if (!base) {
            dlclose(handle);
            vorn::rt::SetErrorText("the module " + path + " was loaded but cannot be located");
            return Fail(ERROR_BAD_EXE_FORMAT, HMODULE{nullptr});
        }
        References()[base].push_back(handle);
        return base;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, HMODULE{nullptr});
    }
}

VORNAPI BOOL WINAPI FreeLibrary(HMODULE hLibModule) {
    std::lock_guard<std::recursive_mutex> guard(gLoaderMutex);
    auto it = References().find(hLibModule);
    if (it != References().end()) {
        void* handle = it->second.back();
        it->second.pop_back();
        if (it->second.empty()) References().erase(it);
        return dlclose(handle) == 0 ? TRUE : Fail(ERROR_INVALID_HANDLE, FALSE);
    }
    vorn::rt::LoadedObject object;
    if (!hLibModule || !vorn::rt::FindLoadedObject(hLibModule, &object)) return Fail(ERROR_MOD_NOT_FOUND, FALSE);
    return TRUE;
}

VORNAPI FARPROC WINAPI GetProcAddress(HMODULE hModule, LPCSTR lpProcName) {
    if (!lpProcName || IS_INTRESOURCE(lpProcName)) return Fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
    try {
        std::lock_guard<std::recursive_mutex> guard(gLoaderMutex);
        vorn::rt::LoadedObject object;
        if (!vorn::rt::FindLoadedObject(hModule, &object)) return Fail(ERROR_MOD_NOT_FOUND, FARPROC{nullptr});
        void* handle = dlopen(object.mainProgram ? nullptr : object.path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (!handle) return Fail(ERROR_MOD_NOT_FOUND, FARPROC{nullptr});
        void* symbol = dlsym(handle, lpProcName);
        dlclose(handle);
        // dlsym also searches the module's dependencies; only the module's own
        // exports count.
        if (!symbol || BaseContaining(symbol) != object.base) return Fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
        return reinterpret_cast<FARPROC>(symbol);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, FARPROC{nullptr});
    }
}

VORNAPI BOOL WINAPI GetModuleHandleExA(DWORD dwFlags, LPCSTR lpModuleName, HMODULE* phModule) {
    constexpr DWORD kKnown = GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT |
                             GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
    if (!phModule) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    *phModule = nullptr;
    const bool pin = dwFlags & GET_MODULE_HANDLE_EX_FLAG_PIN;
    const bool unchanged = dwFlags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if ((dwFlags & ~kKnown) || (pin && unchanged)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    try {
        HMODULE base = nullptr;
        if (dwFlags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) {
            base = BaseContaining(lpModuleName);
        } else if (!lpModuleName) {
            vorn::rt::LoadedObject object;
            if (vorn::rt::FindLoadedObject(nullptr, &object)) base = object.base;
        } else {
            NameSearch search{lpModuleName, std::strchr(lpModuleName, '/') != nullptr, nullptr};
            dl_iterate_phdr(&MatchName, &search);
            base = search.base;
        }
        if (!base) return Fail(ERROR_MOD_NOT_FOUND, FALSE);
        if (!unchanged && !AddReference(base, pin)) return Fail(ERROR_MOD_NOT_FOUND, FALSE);
        *phModule = base;
        return TRUE;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

VORNAPI HMODULE WINAPI GetModuleHandleA(LPCSTR lpModuleName) {
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, lpModuleName, &module);
    return module;
}
