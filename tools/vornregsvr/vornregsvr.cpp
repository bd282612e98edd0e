// vornregsvr: registers or unregisters a component module by calling its
// DllRegisterServer or DllUnregisterServer.
//
//   vornregsvr [-u] [-s] MODULE
//
//   -u  unregister (DllUnregisterServer) instead of registering
//   -s  silent: print nothing on success
//
// The registry used is the one of vorn/rt/registry.h ($VORN_REGISTRY or the
// per-user default). A module that every user may replace (the module file,
// or the directory it lies in, is writable by all; a sticky bit is no excuse,
// as the owner of a file in a sticky directory may still swap it) is
// registered with a warning on standard error: whoever replaces it runs code
// in every process that creates its classes. Exit status: 0 success; 1 bad arguments; 3 the module
// cannot be loaded (missing, not a module, unresolved dependencies); 4 the
// module lacks the entry point; 5 the entry point failed (its HRESULT is
// printed with a description).
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vorn/platform.h"

namespace {

enum ExitCode { kSuccess = 0, kBadArguments = 1, kLoadFailed = 3, kNoEntryPoint = 4, kCallFailed = 5 };

void Usage() {
    std::fprintf(stderr,
                 "usage: vornregsvr [-u] [-s] MODULE\n"
                 "  registers the component MODULE (calls its DllRegisterServer);\n"
                 "  -u unregisters it (DllUnregisterServer), -s prints nothing on success\n");
}

// A description of the HRESULTs registration commonly fails with.
const char* Describe(HRESULT hr) {
    switch (hr) {
        case E_OUTOFMEMORY:
            return "out of memory";
        case E_ACCESSDENIED:
            return "access denied";
        case E_FAIL:
            return "unspecified failure";
        case E_NOTIMPL:
            return "not implemented";
        case REGDB_E_READREGDB:
            return "the registry file cannot be read (it is damaged)";
        case REGDB_E_WRITEREGDB:
            return "the registry file cannot be written";
        case TYPE_E_CANTLOADLIBRARY:
            return "the type library cannot be loaded";
        case TYPE_E_REGISTRYACCESS:
            return "the type library is not registered";
        case SELFREG_E_TYPELIB:
            return "the type library cannot be registered";
        case SELFREG_E_CLASS:
            return "the classes cannot be registered";
        case HRESULT_FROM_WIN32(ERROR_RESOURCE_DATA_NOT_FOUND):
        case HRESULT_FROM_WIN32(ERROR_RESOURCE_TYPE_NOT_FOUND):
        case HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND):
            return "the module lacks its registration script";
        case HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND):
            return "the module cannot be found";
        case DISP_E_EXCEPTION:
            return "the registration script is faulty";
        default:
            return "see the module's documentation";
    }
}

// Warns when the module at `path` (absolute) or its directory may be written
// by every user.
void WarnIfWorldWritable(const std::string& path) {
    const std::string dir = path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
    for (const std::string& where : {path, dir}) {
        struct stat st;
        if (stat(where.c_str(), &st) == 0 && (st.st_mode & S_IWOTH))
            std::fprintf(stderr,
                         "vornregsvr: warning: \"%s\" is writable by every user, so anyone can replace the module "
                         "that every client of its classes loads\n",
                         where.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool unregister = false, silent = false;
    const char* module = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-u" || arg == "/u") {
            unregister = true;
        } else if (arg == "-s" || arg == "/s") {
            silent = true;
        } else if (arg == "-h" || arg == "--help") {
            Usage();
            return kSuccess;
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::fprintf(stderr, "vornregsvr: unknown option %s\n", arg.c_str());
            Usage();
            return kBadArguments;
        } else if (module) {
            std::fprintf(stderr, "vornregsvr: only one module at a time\n");
            Usage();
            return kBadArguments;
        } else {
            module = argv[i];
        }
    }
    if (!module) {
        Usage();
        return kBadArguments;
    }

    // The module's registration records its path; make it absolute.
    char absolute[PATH_MAX];
    if (!realpath(module, absolute)) {
        std::fprintf(stderr, "vornregsvr: the module \"%s\" cannot be loaded: %s\n", module, std::strerror(errno));
        return kLoadFailed;
    }
    if (!unregister) WarnIfWorldWritable(absolute);
    const char* entryName = unregister ? "DllUnregisterServer" : "DllRegisterServer";
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    HMODULE handle = LoadLibraryA(absolute);
    if (!handle) {
        std::fprintf(stderr, "vornregsvr: the module \"%s\" cannot be loaded: %s\n", absolute,
                     vorn::LastErrorText().c_str());
        if (SUCCEEDED(init)) CoUninitialize();
        return kLoadFailed;
    }
    using EntryPoint = HRESULT(STDAPICALLTYPE*)();
    auto entry = reinterpret_cast<EntryPoint>(GetProcAddress(handle, entryName));
    int status = kSuccess;
    if (!entry) {
        std::fprintf(stderr,
                     "vornregsvr: the module \"%s\" was loaded, but it has no entry point %s; "
                     "it is not a component module\n",
                     absolute, entryName);
        status = kNoEntryPoint;
    } else if (const HRESULT hr = entry(); FAILED(hr)) {
        const std::string detail = vorn::LastErrorText();
        std::fprintf(stderr, "vornregsvr: %s in \"%s\" failed with 0x%08X: %s%s%s\n", entryName, absolute,
                     static_cast<unsigned>(hr), Describe(hr), detail.empty() ? "" : "\n  ", detail.c_str());
        status = kCallFailed;
    } else if (!silent) {
        std::printf("%s in \"%s\" succeeded.\n", entryName, absolute);
    }
    FreeLibrary(handle);
    if (SUCCEEDED(init)) CoUninitialize();
    return status;
}
