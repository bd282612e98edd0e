// Windows paths on Linux: the drive mapping (MapWindowsPath, which every file
// function uses), the C runtime's _splitpath and _makepath, and
// GetModuleFileNameA.
//
// Drive mapping: "X:" at the start of a path names the directory
// $VORN_DRIVES/x (letter in lower case). VORN_DRIVES defaults to
// $XDG_DATA_HOME/vorndb/drives, XDG_DATA_HOME to ~/.local/share (a relative
// XDG_DATA_HOME is ignored, as the XDG rules say). The variables are read on
// every call, so a process (or a test) may point the drives elsewhere at any
// time. Both separators turn into "/". On a drive "." and ".." are resolved
// by name and clamped at the drive's root; other paths pass through unchanged
// otherwise, so a relative path stays relative to the working directory.
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "internal.h"
#include "resource_format.h"

using vorn::rt::Fail;

namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

bool IsAsciiLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool HasDrive(const char* path) { return IsAsciiLetter(path[0]) && path[1] == ':'; }

// The value of an environment variable that is set and not empty, else null.
const char* NonEmptyEnv(const char* name) {
    const char* value = std::getenv(name);
    return value && *value ? value : nullptr;
}

// The directory the drives live in; false when not even a home directory can be found.
bool DrivesDirectory(std::string* out) {
    if (const char* drives = NonEmptyEnv("VORN_DRIVES")) {
        *out = drives;
    } else if (const char* data = NonEmptyEnv("XDG_DATA_HOME"); data && data[0] == '/') {
        *out = std::string(data) + "/vorndb/drives";
    } else {
        if (const char* home = NonEmptyEnv("HOME")) {
            *out = home;
        } else {
            passwd entry;
            passwd* found = nullptr;
            std::vector<char> buffer(16384);
            if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !*found->pw_dir)
                return false;
            *out = found->pw_dir;
        }
        *out += "/.local/share/vorndb/drives";
    }
    while (out->size() > 1 && out->back() == '/') out->pop_back();
    return true;
}

void SplitPart(char* out, const char* begin, const char* end) {
    if (!out) return;
    std::memcpy(out, begin, static_cast<size_t>(end - begin));
    out[end - begin] = '\0';
}

void ClearSplitOutputs(char* drive, char* dir, char* fname, char* ext) {
    for (char* out : {drive, dir, fname, ext})
        if (out) *out = '\0';
}

bool ExecutablePath(std::string* out) {
    std::vector<char> buffer(256);
    for (;;) {
        ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (n < 0) return false;
        if (static_cast<size_t>(n) < buffer.size()) {
            out->assign(buffer.data(), static_cast<size_t>(n));
            return true;
        }
        buffer.resize(buffer.size() * 2);
    }
}

}  // namespace

namespace vorn::rt {

bool MapWindowsPath(const char* windowsPath, HostPath* out) {
    if (!windowsPath || !*windowsPath) return Fail(ERROR_INVALID_PARAMETER, false);
    out->path.clear();
    out->driveRoot.clear();
    out->inDrive.clear();
    if (!HasDrive(windowsPath)) {
        for (const char* c = windowsPath; *c; ++c) out->path += *c == '\\' ? '/' : *c;
        return true;
    }
    if (!DrivesDirectory(&out->driveRoot)) return Fail(ERROR_PATH_NOT_FOUND, false);
    out->driveRoot += '/';
    out->driveRoot += static_cast<char>(windowsPath[0] | 0x20);  // ASCII lower case
    // "X:name" is relative to the drive's current directory, which is always
    // its root here. "." and ".." are resolved by name, and ".." stops at the
    // root, as Windows resolves them: no path on a drive names anything
    // outside the drive's directory.
    const std::string_view rest(windowsPath + 2);
    std::vector<std::string_view> parts;
    for (std::size_t at = 0; at < rest.size();) {
        std::size_t end = at;
        while (end < rest.size() && !IsSeparator(rest[end])) ++end;
        const std::string_view part = rest.substr(at, end - at);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        at = end + 1;
    }
    for (std::string_view part : parts) {
        if (!out->inDrive.empty()) out->inDrive += '/';
        out->inDrive += part;
    }
    const bool trailingSeparator = !rest.empty() && IsSeparator(rest.back());
    if (trailingSeparator && !out->inDrive.empty()) out->inDrive += '/';
    out->path = out->driveRoot;
    if (!out->inDrive.empty() || trailingSeparator) out->path += '/';
    out->path += out->inDrive;
    return true;
}

}  // namespace vorn::rt

VORNAPI DWORD WINAPI VornMapPathA(LPCSTR lpWindowsPath, LPSTR lpLinuxPath, DWORD nSize) {
    try {
        vorn::rt::HostPath mapped;
        if (!vorn::rt::MapWindowsPath(lpWindowsPath, &mapped)) return 0;
        if (lpLinuxPath && nSize > mapped.path.size()) {
            std::memcpy(lpLinuxPath, mapped.path.c_str(), mapped.path.size() + 1);
            return static_cast<DWORD>(mapped.path.size());
        }
        return static_cast<DWORD>(mapped.path.size() + 1);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
}

// ---------------------------------------------------------------------------
// _splitpath and _makepath
// ---------------------------------------------------------------------------

// The drive is the first two characters when the second is ":"; the directory
// runs to the last separator (inclusive); the extension starts at the last "."
// after it; the name is what lies between. A part longer than its _MAX_* size
// allows empties every output and sets errno to ERANGE, as the CRT's checked
// variant does; a null path empties every output and sets EINVAL.
VORNAPI void _splitpath(const char* path, char* drive, char* dir, char* fname, char* ext) {
    if (!path) {
        ClearSplitOutputs(drive, dir, fname, ext);
        errno = EINVAL;
        return;
    }
    const char* p = path;
    const char* driveEnd = p[0] && p[1] == ':' ? p + 2 : p;
    const char* dirEnd = driveEnd;
    for (const char* q = driveEnd; *q; ++q)
        if (IsSeparator(*q)) dirEnd = q + 1;
    const char* end = dirEnd + std::strlen(dirEnd);
    const char* dot = std::strrchr(dirEnd, '.');
    const char* nameEnd = dot ? dot : end;
    if ((drive && driveEnd - p >= _MAX_DRIVE) || (dir && dirEnd - driveEnd >= _MAX_DIR) ||
        (fname && nameEnd - dirEnd >= _MAX_FNAME) || (ext && end - nameEnd >= _MAX_EXT)) {
        ClearSplitOutputs(drive, dir, fname, ext);
        errno = ERANGE;
        return;
    }
    SplitPart(drive, p, driveEnd);
    SplitPart(dir, driveEnd, dirEnd);
    SplitPart(fname, dirEnd, nameEnd);
    SplitPart(ext, nameEnd, end);
}

// The drive contributes its first character and ":"; a directory not ending in
// a separator gets "\"; a non-empty extension not starting with "." gets one.
// `path` must hold _MAX_PATH chars; a longer result leaves it empty with errno
// ERANGE, as the CRT's checked variant does.
VORNAPI void _makepath(char* path, const char* drive, const char* dir, const char* fname, const char* ext) {
    if (!path) {
        errno = EINVAL;
        return;
    }
    std::string result;
    if (drive && *drive) {
        result += drive[0];
        result += ':';
    }
    if (dir && *dir) {
        result += dir;
        if (!IsSeparator(result.back())) result += '\\';
    }
    if (fname) result += fname;
    if (ext && *ext) {
        if (*ext != '.') result += '.';
        result += ext;
    }
    if (result.size() >= _MAX_PATH) {
        *path = '\0';
        errno = ERANGE;
        return;
    }
    std::memcpy(path, result.c_str(), result.size() + 1);
}

// ---------------------------------------------------------------------------
// Module file name
// ---------------------------------------------------------------------------

// hModule is null (the executable) or the base address of a loaded shared
// object (as dladdr's dli_fbase gives it); ERROR_MOD_NOT_FOUND otherwise. When
// the name does not fit it is cut to nSize - 1 characters and terminated, and
// the result is nSize with ERROR_INSUFFICIENT_BUFFER, as on Windows.
VORNAPI DWORD WINAPI GetModuleFileNameA(HMODULE hModule, LPSTR lpFilename, DWORD nSize) {
    try {
        vorn::rt::LoadedObject object;
        if (hModule && !vorn::rt::FindLoadedObject(hModule, &object)) return Fail(ERROR_MOD_NOT_FOUND, DWORD{0});
        const bool mainProgram = !hModule || object.mainProgram;
        std::string path = std::move(object.path);
        if (mainProgram && !ExecutablePath(&path)) return vorn::rt::FailErrno(DWORD{0});
        if (nSize == 0 || !lpFilename) return Fail(ERROR_INSUFFICIENT_BUFFER, DWORD{0});
        if (path.size() >= nSize) {
            std::memcpy(lpFilename, path.data(), nSize - 1);
            lpFilename[nSize - 1] = '\0';
            return Fail(ERROR_INSUFFICIENT_BUFFER, nSize);
        }
        std::memcpy(lpFilename, path.c_str(), path.size() + 1);
        return static_cast<DWORD>(path.size());
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
}
