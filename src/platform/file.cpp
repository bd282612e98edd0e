// Files and directories: CreateFileA and the calls on file handles, the
// directory and rename calls, GetFileAttributesA and the Find* search.
//
// Every path goes through the drive mapping (internal.h, path.cpp). A drive's
// own directory is created on demand by any call that names a path on it, so
// "D:\..." works on a fresh machine; directories below it are never created
// implicitly (ERROR_PATH_NOT_FOUND, as on Windows).
//
// Sharing: Windows share modes are modelled with flock on the open file: an
// open with dwShareMode 0 takes an exclusive lock, any other open a shared one,
// both without waiting, so an exclusive open conflicts with every other open of
// the file through this runtime, in this or another process
// (ERROR_SHARING_VIOLATION), while shared opens coexist. The locks are advisory:
// programs that do not use this runtime are not kept out, and deleting or
// renaming an open file succeeds as Linux allows it.
//
// File handles are kernel objects closed by CloseHandle; find handles are
// closed by FindClose. A search lists its directory once, at FindFirstFileA.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

#include "internal.h"

using vorn::rt::Fail;
using vorn::rt::FailErrno;

namespace {

class FileObject final : public vorn::rt::KernelObject {
public:
    static constexpr vorn::rt::ObjectKind kKind = vorn::rt::ObjectKind::File;

    FileObject(int descriptor, bool readable, bool writable)
        : KernelObject(kKind), fd(descriptor), canRead(readable), canWrite(writable) {}
    ~FileObject() override { close(fd); }  // also releases the sharing lock

    const int fd;
    const bool canRead;   // opened with GENERIC_READ
    const bool canWrite;  // opened with GENERIC_WRITE
};

class FindObject final : public vorn::rt::KernelObject {
public:
    static constexpr vorn::rt::ObjectKind kKind = vorn::rt::ObjectKind::Find;

    explicit FindObject(std::vector<WIN32_FIND_DATAA> found) : KernelObject(kKind), entries(std::move(found)) {}

    const std::vector<WIN32_FIND_DATAA> entries;  // sorted by name, never empty
    std::atomic<size_t> next{1};                  // FindFirstFileA hands out entries[0]
};

// Creates `dir` and any missing parents (mkdir -p).
bool MakeDirectoryTree(const std::string& dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? true : Fail(ERROR_PATH_NOT_FOUND, false);
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        std::string prefix = dir.substr(0, slash);
        if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) return FailErrno(false);
        if (slash == std::string::npos) return true;
    }
}

bool MapForFileOperation(const char* windowsPath, std::string* path) {
    vorn::rt::HostPath mapped;
    if (!vorn::rt::MapForFileOperation(windowsPath, &mapped)) return false;
    *path = std::move(mapped.path);
    return true;
}

// Runs body(path) with the mapped path of `windowsPath` and returns its result;
// `failed` when the mapping fails or memory runs out (with the last error set).
template <class T, class Body>
T OnMappedPath(const char* windowsPath, T failed, Body body) {
    try {
        std::string path;
        if (!MapForFileOperation(windowsPath, &path)) return failed;
        return body(path);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, failed);
    }
}

std::string ParentDirectory(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return "/";
    size_t slash = path.rfind('/', end);
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

template <class T>
T FailPath(T result, const std::string& path, int err = errno) {
    return Fail(vorn::rt::Win32ErrorForPath(err, path), result);
}

DWORD AttributesOf(mode_t mode) {
    if (S_ISDIR(mode)) return FILE_ATTRIBUTE_DIRECTORY;
    return (mode & S_IWUSR) ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY;
}

FILETIME FileTimeOf(const statx_timestamp& t) { return vorn::rt::FileTimeFromUnix(t.tv_sec, t.tv_nsec); }

// Windows wildcard match of one name: "*" any run of characters, "?" exactly
// one; letter case counts.
bool MatchesPattern(const char* name, const char* pattern) {
    const char* star = nullptr;    // the last "*" seen in the pattern
    const char* resume = nullptr;  // where the name goes on after that "*"
    while (*name) {
        if (*pattern == '*') {
            star = pattern++;
            resume = name;
        } else if (*pattern == '?' || *pattern == *name) {
            ++pattern;
            ++name;
        } else if (star) {
            pattern = star + 1;
            name = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*') ++pattern;
    return *pattern == '\0';
}

// Fills a find entry for `name` in the directory open as `dirFd`; false when
// the entry vanished meanwhile or its name does not fit.
bool DescribeEntry(int dirFd, const char* name, WIN32_FIND_DATAA* out) {
    size_t length = std::strlen(name);
    if (length >= MAX_PATH) return false;
    struct statx st;
    if (statx(dirFd, name, AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME, &st) != 0 &&
        statx(dirFd, name, AT_STATX_SYNC_AS_STAT | AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &st) != 0)
        return false;
    *out = WIN32_FIND_DATAA{};
    out->dwFileAttributes = AttributesOf(st.stx_mode);
    // Creation time where the file system keeps one, else the last write.
    out->ftCreationTime = FileTimeOf((st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_mtime);
    out->ftLastAccessTime = FileTimeOf(st.stx_atime);
    out->ftLastWriteTime = FileTimeOf(st.stx_mtime);
    if (!S_ISDIR(st.stx_mode)) {
        out->nFileSizeHigh = static_cast<DWORD>(st.stx_size >> 32);
        out->nFileSizeLow = static_cast<DWORD>(st.stx_size);
    }
    std::memcpy(out->cFileName, name, length + 1);
    return true;
}

// Runs `step(offset, remaining)` (a read or write returning ssize_t) until
// `total` bytes are done or it returns 0; counts into *done. False with the
// last error on failure; EIO becomes `ioError`.
template <class Step>
BOOL TransferAll(DWORD total, LPDWORD done, DWORD ioError, Step step) {
    while (*done < total) {
        ssize_t n = step(*done, total - *done);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno == EIO ? Fail(ioError, FALSE) : FailErrno(FALSE);
        }
        *done += static_cast<DWORD>(n);
    }
    return TRUE;
}

// Moves the file pointer; the new position must lie in [0, limit]. False with
// ERROR_NEGATIVE_SEEK, ERROR_INVALID_PARAMETER (bad origin, beyond limit).
bool Seek(const FileObject& file, LONGLONG distance, DWORD origin, LONGLONG limit, LONGLONG* position) {
    LONGLONG base = 0;
    if (origin == FILE_CURRENT) {
        base = lseek(file.fd, 0, SEEK_CUR);
    } else if (origin == FILE_END) {
        struct stat st;
        base = fstat(file.fd, &st) == 0 ? st.st_size : -1;
    } else if (origin != FILE_BEGIN) {
        return Fail(ERROR_INVALID_PARAMETER, false);
    }
    if (base < 0) return FailErrno(false);
    LONGLONG target;
    if (__builtin_add_overflow(base, distance, &target)) return Fail(ERROR_INVALID_PARAMETER, false);
    if (target < 0) return Fail(ERROR_NEGATIVE_SEEK, false);
    if (target > limit) return Fail(ERROR_INVALID_PARAMETER, false);
    if (lseek(file.fd, target, SEEK_SET) < 0) return FailErrno(false);
    *position = target;
    return true;
}

// Opens `path` as CreateFileA's disposition says; sets *existed. -1 with the
// last error on failure.
int OpenForDisposition(const std::string& path, int flags, mode_t mode, DWORD disposition, bool* existed) {
    const char* p = path.c_str();
    if (disposition == CREATE_NEW) {
        *existed = false;
        int fd = open(p, flags | O_CREAT | O_EXCL, mode);
        if (fd < 0) return errno == EEXIST ? Fail(ERROR_FILE_EXISTS, -1) : FailPath(-1, path);
        return fd;
    }
    if (disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING) {
        *existed = true;
        int fd = open(p, flags);
        return fd < 0 ? FailPath(-1, path) : fd;
    }
    // CREATE_ALWAYS, OPEN_ALWAYS: open what is there, else create it; a few
    // rounds in case another process creates or deletes it in between.
    for (int round = 0; round < 4; ++round) {
        int fd = open(p, flags);
        if (fd >= 0 || errno != ENOENT) {
            *existed = true;
            return fd < 0 ? FailPath(-1, path) : fd;
        }
        fd = open(p, flags | O_CREAT | O_EXCL, mode);
        if (fd >= 0 || errno != EEXIST) {
            *existed = false;
            return fd < 0 ? FailPath(-1, path) : fd;
        }
    }
    return Fail(ERROR_ACCESS_DENIED, -1);  // e.g. a dangling symbolic link
}

}  // namespace

namespace vorn::rt {

bool MapForFileOperation(const char* windowsPath, HostPath* mapped) {
    if (!MapWindowsPath(windowsPath, mapped)) return false;
    return mapped->driveRoot.empty() || MakeDirectoryTree(mapped->driveRoot);
}

DWORD Win32ErrorForPath(int err, const std::string& path) {
    if (err == ENOENT && !IsDirectory(ParentDirectory(path))) return ERROR_PATH_NOT_FOUND;
    return Win32ErrorFromErrno(err);
}

FILETIME FileTimeFromUnix(std::int64_t seconds, std::uint32_t nanoseconds) noexcept {
    constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600LL;
    const std::int64_t since1601 = seconds + kSecondsFrom1601To1970;
    const ULONGLONG ticks = since1601 < 0 ? 0 : static_cast<ULONGLONG>(since1601) * 10000000u + nanoseconds / 100u;
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

}  // namespace vorn::rt

// ---------------------------------------------------------------------------
// Opening and file handles
// ---------------------------------------------------------------------------

// dwDesiredAccess: GENERIC_READ and/or GENERIC_WRITE (0 opens for queries
// only). FILE_ATTRIBUTE_READONLY in dwFlagsAndAttributes makes a new file
// read-only; other flags, the security attributes and the template are
// ignored. CREATE_ALWAYS and OPEN_ALWAYS set ERROR_ALREADY_EXISTS when the file
// was there. A directory cannot be opened (ERROR_ACCESS_DENIED).
VORNAPI HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode, SECURITY_ATTRIBUTES*,
                                  DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes, HANDLE) {
    const bool canRead = dwDesiredAccess & GENERIC_READ;
    const bool canWrite = dwDesiredAccess & GENERIC_WRITE;
    if (!lpFileName || dwCreationDisposition < CREATE_NEW || dwCreationDisposition > TRUNCATE_EXISTING ||
        (dwCreationDisposition == TRUNCATE_EXISTING && !canWrite))
        return Fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    if (!*lpFileName) return Fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    try {
        std::string path;
        if (!MapForFileOperation(lpFileName, &path)) return INVALID_HANDLE_VALUE;

        // Truncation needs a writable descriptor whatever access was asked for.
        const bool truncates = dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == TRUNCATE_EXISTING;
        int flags = O_CLOEXEC | ((canWrite || truncates) ? (canRead || !canWrite ? O_RDWR : O_WRONLY) : O_RDONLY);
        mode_t mode = (dwFlagsAndAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
        bool existed = false;
        int fd = OpenForDisposition(path, flags, mode, dwCreationDisposition, &existed);
        if (fd < 0) return INVALID_HANDLE_VALUE;
        std::shared_ptr<FileObject> file;  // owns fd once made
        try {
            file = std::make_shared<FileObject>(fd, canRead, canWrite);
        } catch (...) {
            close(fd);
            throw;
        }

        struct stat st;
        if (fstat(fd, &st) != 0) return FailErrno(INVALID_HANDLE_VALUE);
        if (S_ISDIR(st.st_mode)) return Fail(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
        int lock = (dwShareMode == 0 ? LOCK_EX : LOCK_SH) | LOCK_NB;
        int locked;
        while ((locked = flock(fd, lock)) != 0 && errno == EINTR) {
        }
        if (locked != 0 && errno == EWOULDBLOCK) return Fail(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
        // Other flock failures (a file system without locks) leave the file unlocked.
        if (existed && truncates && ftruncate(fd, 0) != 0) return FailErrno(INVALID_HANDLE_VALUE);

        HANDLE handle = vorn::rt::InsertHandle(std::move(file));
        const bool reportExisting =
            existed && (dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == OPEN_ALWAYS);
        ::SetLastError(reportExisting ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
        return handle;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, INVALID_HANDLE_VALUE);
    }
}

// Reads until nNumberOfBytesToRead bytes are read or the end of the file is
// reached. ERROR_ACCESS_DENIED without GENERIC_READ.
VORNAPI BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
                             LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped || !lpNumberOfBytesRead || (!lpBuffer && nNumberOfBytesToRead))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    *lpNumberOfBytesRead = 0;
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    if (!file->canRead) return Fail(ERROR_ACCESS_DENIED, FALSE);
    auto* bytes = static_cast<char*>(lpBuffer);
    return TransferAll(nNumberOfBytesToRead, lpNumberOfBytesRead, ERROR_READ_FAULT,
                       [&](DWORD offset, DWORD count) { return read(file->fd, bytes + offset, count); });
}

// Writes all bytes (on failure *lpNumberOfBytesWritten says how many went out).
// ERROR_ACCESS_DENIED without GENERIC_WRITE, ERROR_DISK_FULL.
VORNAPI BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                              LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped || !lpNumberOfBytesWritten || (!lpBuffer && nNumberOfBytesToWrite))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    *lpNumberOfBytesWritten = 0;
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    if (!file->canWrite) return Fail(ERROR_ACCESS_DENIED, FALSE);
    const auto* bytes = static_cast<const char*>(lpBuffer);
    return TransferAll(nNumberOfBytesToWrite, lpNumberOfBytesWritten, ERROR_WRITE_FAULT,
                       [&](DWORD offset, DWORD count) { return write(file->fd, bytes + offset, count); });
}

// Writes the file's data through to the disk (fsync). Needs GENERIC_WRITE.
VORNAPI BOOL WINAPI FlushFileBuffers(HANDLE hFile) {
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    if (!file->canWrite) return Fail(ERROR_ACCESS_DENIED, FALSE);
    return fsync(file->fd) == 0 ? TRUE : FailErrno(FALSE);
}

VORNAPI BOOL WINAPI GetFileSizeEx(HANDLE hFile, LARGE_INTEGER* lpFileSize) {
    if (!lpFileSize) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    struct stat st;
    if (fstat(file->fd, &st) != 0) return FailErrno(FALSE);
    lpFileSize->QuadPart = st.st_size;
    return TRUE;
}

// The low 32 bits of the size, the high ones in *lpFileSizeHigh if given.
// INVALID_FILE_SIZE with an error; a size whose low part is INVALID_FILE_SIZE
// sets the last error to ERROR_SUCCESS so that callers can tell.
VORNAPI DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(hFile, &size)) return INVALID_FILE_SIZE;
    if (lpFileSizeHigh) *lpFileSizeHigh = static_cast<DWORD>(size.QuadPart >> 32);
    if (static_cast<DWORD>(size.QuadPart) == INVALID_FILE_SIZE) ::SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(size.QuadPart);
}

// Without lpDistanceToMoveHigh the distance is a signed 32-bit value and the
// new position must fit in 32 bits (ERROR_INVALID_PARAMETER otherwise); with
// it, the two form a signed 64-bit distance and the high part of the new
// position is written back. A position before the start fails with
// ERROR_NEGATIVE_SEEK. Returns the low part of the new position, or
// INVALID_SET_FILE_POINTER with an error (ERROR_SUCCESS when that value is the
// real low part).
VORNAPI DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, LONG* lpDistanceToMoveHigh,
                                    DWORD dwMoveMethod) {
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return INVALID_SET_FILE_POINTER;
    LONGLONG distance = lDistanceToMove;
    LONGLONG limit = 0xFFFFFFFFLL;
    if (lpDistanceToMoveHigh) {
        distance = static_cast<LONGLONG>((static_cast<ULONGLONG>(static_cast<DWORD>(*lpDistanceToMoveHigh)) << 32) |
                                         static_cast<DWORD>(lDistanceToMove));
        limit = INT64_MAX;
    }
    LONGLONG position;
    if (!Seek(*file, distance, dwMoveMethod, limit, &position)) return INVALID_SET_FILE_POINTER;
    if (lpDistanceToMoveHigh) *lpDistanceToMoveHigh = static_cast<LONG>(position >> 32);
    if (static_cast<DWORD>(position) == INVALID_SET_FILE_POINTER) ::SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(position);
}

VORNAPI BOOL WINAPI SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistanceToMove, LARGE_INTEGER* lpNewFilePointer,
                                     DWORD dwMoveMethod) {
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    LONGLONG position;
    if (!Seek(*file, liDistanceToMove.QuadPart, dwMoveMethod, INT64_MAX, &position)) return FALSE;
    if (lpNewFilePointer) lpNewFilePointer->QuadPart = position;
    return TRUE;
}

// Cuts or extends the file to the current position. Needs GENERIC_WRITE.
VORNAPI BOOL WINAPI SetEndOfFile(HANDLE hFile) {
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    if (!file->canWrite) return Fail(ERROR_ACCESS_DENIED, FALSE);
    off_t position = lseek(file->fd, 0, SEEK_CUR);
    if (position < 0 || ftruncate(file->fd, position) != 0) return FailErrno(FALSE);
    return TRUE;
}

// ---------------------------------------------------------------------------
// Names in directories
// ---------------------------------------------------------------------------

// A directory gives ERROR_ACCESS_DENIED, as on Windows.
VORNAPI BOOL WINAPI DeleteFileA(LPCSTR lpFileName) {
    return OnMappedPath(lpFileName, FALSE, [](const std::string& path) {
        return unlink(path.c_str()) == 0 ? TRUE : FailPath(FALSE, path);
    });
}

VORNAPI BOOL WINAPI CreateDirectoryA(LPCSTR lpPathName, SECURITY_ATTRIBUTES*) {
    return OnMappedPath(lpPathName, FALSE, [](const std::string& path) {
        if (mkdir(path.c_str(), 0777) == 0) return TRUE;
        return errno == ENOENT ? Fail(ERROR_PATH_NOT_FOUND, FALSE) : FailErrno(FALSE);
    });
}

// ERROR_DIR_NOT_EMPTY, ERROR_DIRECTORY for a file, ERROR_FILE_NOT_FOUND /
// ERROR_PATH_NOT_FOUND for a missing one.
VORNAPI BOOL WINAPI RemoveDirectoryA(LPCSTR lpPathName) {
    return OnMappedPath(lpPathName, FALSE, [](const std::string& path) {
        if (rmdir(path.c_str()) == 0) return TRUE;
        int err = errno;
        struct stat st;
        if (err == ENOTDIR && stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) return Fail(ERROR_DIRECTORY, FALSE);
        if (err == EEXIST) err = ENOTEMPTY;
        return FailPath(FALSE, path, err);
    });
}

// Flags: MOVEFILE_REPLACE_EXISTING, MOVEFILE_WRITE_THROUGH (the target's
// directory is synced after the rename); others fail with
// ERROR_INVALID_PARAMETER. Both names must lie on one file system
// (ERROR_NOT_SAME_DEVICE): there is no copying fallback.
VORNAPI BOOL WINAPI MoveFileExA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, DWORD dwFlags) {
    if (!lpExistingFileName || !lpNewFileName || (dwFlags & ~(MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    try {
        std::string from, to;
        if (!MapForFileOperation(lpExistingFileName, &from) || !MapForFileOperation(lpNewFileName, &to)) return FALSE;
        int result;
        if (dwFlags & MOVEFILE_REPLACE_EXISTING) {
            result = rename(from.c_str(), to.c_str());
        } else {
            result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
            if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
                // A file system without RENAME_NOREPLACE: check, then rename.
                struct stat st;
                if (lstat(to.c_str(), &st) == 0) return Fail(ERROR_ALREADY_EXISTS, FALSE);
                result = rename(from.c_str(), to.c_str());
            }
        }
        if (result != 0) {
            int err = errno;
            struct stat st;
            if (err == ENOENT && lstat(from.c_str(), &st) == 0) return Fail(ERROR_PATH_NOT_FOUND, FALSE);
            return FailPath(FALSE, from, err);
        }
        if (dwFlags & MOVEFILE_WRITE_THROUGH) {
            int dirFd = open(ParentDirectory(to).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (dirFd >= 0) {
                fsync(dirFd);
                close(dirFd);
            }
        }
        return TRUE;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

// FILE_ATTRIBUTE_DIRECTORY for a directory; FILE_ATTRIBUTE_READONLY for a file
// its owner may not write, else FILE_ATTRIBUTE_NORMAL. INVALID_FILE_ATTRIBUTES
// with ERROR_FILE_NOT_FOUND / ERROR_PATH_NOT_FOUND.
VORNAPI DWORD WINAPI GetFileAttributesA(LPCSTR lpFileName) {
    return OnMappedPath(lpFileName, INVALID_FILE_ATTRIBUTES, [](const std::string& path) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0) return FailPath(INVALID_FILE_ATTRIBUTES, path);
        return AttributesOf(st.st_mode);
    });
}

// ---------------------------------------------------------------------------
// Searching a directory
// ---------------------------------------------------------------------------

// "*.*" matches every name, as on Windows. "." and ".." are found like other
// names, except in a drive's root directory, which has none on Windows.
// Entries come in byte order of their names.
VORNAPI HANDLE WINAPI FindFirstFileA(LPCSTR lpFileName, LPWIN32_FIND_DATAA lpFindFileData) {
    if (!lpFileName || !lpFindFileData) return Fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    try {
        vorn::rt::HostPath mapped;
        if (!MapForFileOperation(lpFileName, &mapped)) return INVALID_HANDLE_VALUE;
        size_t slash = mapped.path.rfind('/');
        std::string dir = slash == std::string::npos ? "." : mapped.path.substr(0, slash == 0 ? 1 : slash);
        std::string pattern = slash == std::string::npos ? mapped.path : mapped.path.substr(slash + 1);
        if (pattern == "*.*") pattern = "*";
        while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
        const bool driveRoot = dir == mapped.driveRoot;

        DIR* listing = opendir(dir.c_str());
        if (!listing)
            return errno == ENOENT || errno == ENOTDIR ? Fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE)
                                                       : FailErrno(INVALID_HANDLE_VALUE);
        std::vector<WIN32_FIND_DATAA> found;
        try {
            while (const dirent* entry = readdir(listing)) {
                const char* name = entry->d_name;
                if (driveRoot && (!std::strcmp(name, ".") || !std::strcmp(name, ".."))) continue;
                if (!MatchesPattern(name, pattern.c_str())) continue;
                WIN32_FIND_DATAA data;
                if (DescribeEntry(dirfd(listing), name, &data)) found.push_back(data);
            }
        } catch (...) {
            closedir(listing);
            throw;
        }
        closedir(listing);
        if (found.empty()) return Fail(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
        std::sort(found.begin(), found.end(), [](const WIN32_FIND_DATAA& a, const WIN32_FIND_DATAA& b) {
            return std::strcmp(a.cFileName, b.cFileName) < 0;
        });
        *lpFindFileData = found.front();
        return vorn::rt::InsertHandle(std::make_shared<FindObject>(std::move(found)));
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, INVALID_HANDLE_VALUE);
    }
}

VORNAPI BOOL WINAPI FindNextFileA(HANDLE hFindFile, LPWIN32_FIND_DATAA lpFindFileData) {
    if (!lpFindFileData) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    auto search = vorn::rt::ReferenceHandleAs<FindObject>(hFindFile);
    if (!search) return FALSE;
    size_t index = search->next.fetch_add(1);
    if (index >= search->entries.size()) return Fail(ERROR_NO_MORE_FILES, FALSE);
    *lpFindFileData = search->entries[index];
    return TRUE;
}

VORNAPI BOOL WINAPI FindClose(HANDLE hFindFile) { return vorn::rt::CloseObjectHandle(hFindFile, true); }
