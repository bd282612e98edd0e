// Files and directories: CreateFileA, ReadFile and GetFileSizeEx on file
// handles, CreateDirectoryA, DeleteFileA and the Find* search.
//
// Every path goes through the drive mapping (internal.h, path.cpp). A drive's
// own directory is created on demand by any call that names a path on it, so
// "D:\..." works on a fresh machine; directories below it are never created
// implicitly (ERROR_PATH_NOT_FOUND, as on Windows). Paths on a drive are
// resolved beneath the drive's directory (OpenHostPath, OpenHostParent):
// CreateDirectoryA opens the directory holding the name that way and makes the
// name inside it, so neither ".." nor a symbolic link takes it out of the
// drive.
//
// Sharing: Windows share modes are modelled with flock on the open file: an
// open with dwShareMode 0 takes an exclusive lock, any other open a shared one,
// both without waiting, so an exclusive open conflicts with every other open of
// the file through this runtime, in this or another process
// (ERROR_SHARING_VIOLATION), while shared opens coexist. The locks are advisory:
// programs that do not use this runtime are not kept out, and deleting or
// renaming an open file succeeds as Linux allows it. Files are written only by
// VornReplaceFileA (replace_file.cpp).
//
// File handles are kernel objects closed by CloseHandle; find handles are
// closed by FindClose. A search lists its directory once, at FindFirstFileA.
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

    FileObject(int descriptor, bool readable) : KernelObject(kKind), fd(descriptor), canRead(readable) {}
    ~FileObject() override { close(fd); }  // also releases the sharing lock

    const int fd;
    const bool canRead;  // opened with GENERIC_READ
};

class FindObject final : public vorn::rt::KernelObject {
public:
    static constexpr vorn::rt::ObjectKind kKind = vorn::rt::ObjectKind::Find;

    explicit FindObject(std::vector<WIN32_FIND_DATAA> found) : KernelObject(kKind), entries(std::move(found)) {}

    const std::vector<WIN32_FIND_DATAA> entries;  // sorted by name, never empty
    std::atomic<size_t> next{1};                  // FindFirstFileA hands out entries[0]
};

// Closes a descriptor when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

// The error for a directory that holds a path and cannot be opened.
DWORD ParentError(int err) {
    return err == ENOENT || err == ENOTDIR ? ERROR_PATH_NOT_FOUND : vorn::rt::Win32ErrorFromErrno(err);
}

// Runs body(dirFd, leaf, mapped) with the directory holding the mapped path of
// `windowsPath` open (OpenHostParent) and returns its result; `failed` when
// the mapping fails, the directory cannot be opened or memory runs out (with
// the last error set).
template <class T, class Body>
T InParentOf(const char* windowsPath, T failed, Body body) {
    try {
        vorn::rt::HostPath mapped;
        if (!vorn::rt::MapForFileOperation(windowsPath, &mapped)) return failed;
        std::string leaf;
        const Descriptor dir(vorn::rt::OpenHostParent(mapped, &leaf));
        if (dir.get() < 0) return Fail(ParentError(errno), failed);
        return body(dir.get(), leaf, mapped);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, failed);
    }
}

template <class T>
T FailPath(T result, const vorn::rt::HostPath& path, int err = errno) {
    return Fail(vorn::rt::Win32ErrorForPath(err, path), result);
}

DWORD AttributesOf(mode_t mode) {
    if (S_ISDIR(mode)) return FILE_ATTRIBUTE_DIRECTORY;
    return vorn::rt::IsReadOnlyMode(mode) ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
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
// the entry vanished meanwhile or its name does not fit. A symbolic link is
// described by what it leads to; `linkTarget(name)` opens that (O_PATH), -1
// when it cannot be reached (the link itself is described then).
template <class LinkTarget>
bool DescribeEntry(int dirFd, const char* name, LinkTarget linkTarget, WIN32_FIND_DATAA* out) {
    size_t length = std::strlen(name);
    if (length >= MAX_PATH) return false;
    constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;
    struct statx st;
    if (statx(dirFd, name, AT_STATX_SYNC_AS_STAT | AT_SYMLINK_NOFOLLOW, kWanted, &st) != 0) return false;
    if (S_ISLNK(st.stx_mode)) {
        const Descriptor target(linkTarget(name));
        struct statx followed;
        if (target.get() >= 0 &&
            statx(target.get(), "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, kWanted, &followed) == 0)
            st = followed;
    }
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

// The openat2 system call where the kernel offers it (and lets this process
// use it); probed once.
bool HaveOpenat2() {
    static const bool available = [] {
        open_how how{};
        how.flags = O_PATH | O_CLOEXEC;
        how.resolve = RESOLVE_IN_ROOT;
        const long fd = syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how);
        if (fd < 0) return false;
        close(static_cast<int>(fd));
        return true;
    }();
    return available;
}

// Opens `relative` beneath the directory `rootFd` as if that were the root.
int OpenBeneath(int rootFd, const std::string& relative, int flags, mode_t mode) {
    const char* name = relative.empty() ? "." : relative.c_str();
    if (!HaveOpenat2()) return openat(rootFd, name, flags, mode);
    open_how how{};
    how.flags = static_cast<unsigned>(flags);
    how.mode = (flags & O_CREAT) ? mode : 0;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    for (int round = 0;; ++round) {
        const long fd = syscall(SYS_openat2, rootFd, name, &how, sizeof how);
        // EAGAIN: a rename elsewhere raced the resolution of "..".
        if (fd >= 0 || (errno != EAGAIN && errno != EINTR) || round == 8) return static_cast<int>(fd);
    }
}

}  // namespace

namespace vorn::rt {

bool MakeDirectories(const std::string& dir, mode_t mode) {
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return true;
        errno = ENOTDIR;
        return false;
    }
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        if (mkdir(dir.substr(0, slash).c_str(), mode) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) return true;
    }
}

int ReadWholeFile(const std::string& path, std::string* out, std::size_t limit) {
    out->clear();
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) return errno;
    struct stat st;
    if (fstat(file.get(), &st) != 0) return errno;
    if (!S_ISREG(st.st_mode)) return EINVAL;
    if (static_cast<std::uint64_t>(st.st_size) > limit) return EFBIG;
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(file.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) return 0;
        if (out->size() + static_cast<std::size_t>(n) > limit) return EFBIG;
        out->append(buffer, static_cast<std::size_t>(n));
    }
}

bool MapForFileOperation(const char* windowsPath, HostPath* mapped) {
    if (!MapWindowsPath(windowsPath, mapped)) return false;
    return mapped->driveRoot.empty() || MakeDirectories(mapped->driveRoot, 0777) || FailErrno(false);
}

int OpenHostPath(const HostPath& path, int flags, mode_t mode) {
    if (path.driveRoot.empty()) return open(path.path.c_str(), flags, mode);
    const Descriptor root(open(path.driveRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (root.get() < 0) return -1;
    return OpenBeneath(root.get(), path.inDrive, flags, mode);
}

int OpenHostParent(const HostPath& path, std::string* leaf) {
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    const std::string& full = path.driveRoot.empty() ? path.path : path.inDrive;
    const size_t end = full.find_last_not_of('/');
    if (end == std::string::npos) {
        // A drive's root, "/" (or an empty path): the directory itself.
        *leaf = ".";
        if (path.driveRoot.empty()) return open(full.empty() ? "." : "/", kFlags);
        return OpenHostPath(path, kFlags);
    }
    const size_t slash = full.rfind('/', end);
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    *leaf = full.substr(start, end + 1 - start);
    const std::string dir = slash == std::string::npos ? std::string() : full.substr(0, slash == 0 ? 1 : slash);
    if (path.driveRoot.empty()) return open(dir.empty() ? "." : dir.c_str(), kFlags);
    const Descriptor root(open(path.driveRoot.c_str(), kFlags));
    if (root.get() < 0) return -1;
    return OpenBeneath(root.get(), dir, kFlags, 0);
}

DWORD Win32ErrorForPath(int err, const HostPath& path) {
    if (err == ENOENT) {
        std::string leaf;
        const Descriptor dir(OpenHostParent(path, &leaf));
        if (dir.get() < 0) return ERROR_PATH_NOT_FOUND;
    }
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

// Files are opened to be read (GENERIC_READ) or queried (0) only: they are
// written whole by VornReplaceFileA. Any other access, and a disposition other
// than OPEN_EXISTING, is ERROR_INVALID_PARAMETER; the flags, the security
// attributes and the template are ignored. A directory cannot be opened
// (ERROR_ACCESS_DENIED).
VORNAPI HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode, SECURITY_ATTRIBUTES*,
                                  DWORD dwCreationDisposition, DWORD, HANDLE) {
    if (!lpFileName || (dwDesiredAccess & ~GENERIC_READ) != 0 || dwCreationDisposition != OPEN_EXISTING)
        return Fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    if (!*lpFileName) return Fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    try {
        vorn::rt::HostPath path;
        if (!vorn::rt::MapForFileOperation(lpFileName, &path)) return INVALID_HANDLE_VALUE;
        const int fd = vorn::rt::OpenHostPath(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) return FailPath(INVALID_HANDLE_VALUE, path);
        std::shared_ptr<FileObject> file;  // owns fd once made
        try {
            file = std::make_shared<FileObject>(fd, dwDesiredAccess != 0);
        } catch (...) {
            close(fd);
            throw;
        }
        struct stat st;
        if (fstat(fd, &st) != 0) return FailErrno(INVALID_HANDLE_VALUE);
        if (S_ISDIR(st.st_mode)) return Fail(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);

        int locked;
        while ((locked = flock(fd, (dwShareMode == 0 ? LOCK_EX : LOCK_SH) | LOCK_NB)) != 0 && errno == EINTR) {
        }
        if (locked != 0 && errno == EWOULDBLOCK) return Fail(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
        // Other flock failures (a file system without locks) leave the file unlocked.
        HANDLE handle = vorn::rt::InsertHandle(std::move(file));
        vorn::rt::SetLastErrorCode(ERROR_SUCCESS);
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

VORNAPI BOOL WINAPI GetFileSizeEx(HANDLE hFile, LARGE_INTEGER* lpFileSize) {
    if (!lpFileSize) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    auto file = vorn::rt::ReferenceHandleAs<FileObject>(hFile);
    if (!file) return FALSE;
    struct stat st;
    if (fstat(file->fd, &st) != 0) return FailErrno(FALSE);
    lpFileSize->QuadPart = st.st_size;
    return TRUE;
}

// ---------------------------------------------------------------------------
// Directories
// ---------------------------------------------------------------------------

VORNAPI BOOL WINAPI CreateDirectoryA(LPCSTR lpPathName, SECURITY_ATTRIBUTES*) {
    return InParentOf(lpPathName, FALSE, [](int dir, const std::string& leaf, const vorn::rt::HostPath&) {
        if (mkdirat(dir, leaf.c_str(), 0777) == 0) return TRUE;
        return errno == ENOENT ? Fail(ERROR_PATH_NOT_FOUND, FALSE) : FailErrno(FALSE);
    });
}

// Deletes the name itself (a symbolic link, never what it leads to), so that a
// link planted at a file's name cannot make the caller delete a file
// elsewhere. A directory and a read-only file are refused as on Windows
// (ERROR_ACCESS_DENIED); Linux itself would unlink a read-only file.
VORNAPI BOOL WINAPI DeleteFileA(LPCSTR lpFileName) {
    if (!lpFileName) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!*lpFileName) return Fail(ERROR_PATH_NOT_FOUND, FALSE);
    const char last = lpFileName[std::strlen(lpFileName) - 1];
    if (last == '\\' || last == '/') return Fail(ERROR_INVALID_NAME, FALSE);
    return InParentOf(lpFileName, FALSE, [](int dir, const std::string& leaf, const vorn::rt::HostPath& mapped) {
        if (leaf == "." || leaf == "..") return Fail(ERROR_ACCESS_DENIED, FALSE);
        struct stat st;
        if (fstatat(dir, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return FailPath(FALSE, mapped);
        if (S_ISDIR(st.st_mode) || (S_ISREG(st.st_mode) && vorn::rt::IsReadOnlyMode(st.st_mode)))
            return Fail(ERROR_ACCESS_DENIED, FALSE);
        if (unlinkat(dir, leaf.c_str(), 0) != 0) return FailPath(FALSE, mapped);
        vorn::rt::SetLastErrorCode(ERROR_SUCCESS);
        return TRUE;
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
        if (!vorn::rt::MapForFileOperation(lpFileName, &mapped)) return INVALID_HANDLE_VALUE;
        std::string pattern;
        const Descriptor parent(vorn::rt::OpenHostParent(mapped, &pattern));
        if (parent.get() < 0) return Fail(ParentError(errno), INVALID_HANDLE_VALUE);
        // A pattern ending in a separator names no entry.
        if (mapped.path.back() == '/') return Fail(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
        if (pattern == "*.*") pattern = "*";
        const bool onDrive = !mapped.driveRoot.empty();
        const size_t slash = mapped.inDrive.rfind('/');
        const bool driveRoot = onDrive && slash == std::string::npos;
        // On a drive a symbolic link in the listing is described by what it
        // leads to inside the drive.
        vorn::rt::HostPath entry = mapped;
        const size_t dirLength = slash == std::string::npos ? 0 : slash + 1;
        auto linkTarget = [&](const char* name) {
            if (!onDrive) return openat(parent.get(), name, O_PATH | O_CLOEXEC);
            entry.inDrive.replace(dirLength, std::string::npos, name);
            return vorn::rt::OpenHostPath(entry, O_PATH | O_CLOEXEC);
        };

        const int listed = openat(parent.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* listing = listed >= 0 ? fdopendir(listed) : nullptr;
        if (!listing) {
            if (listed >= 0) close(listed);
            return FailErrno(INVALID_HANDLE_VALUE);
        }
        std::vector<WIN32_FIND_DATAA> found;
        try {
            while (const dirent* item = readdir(listing)) {
                const char* name = item->d_name;
                if (driveRoot && (!std::strcmp(name, ".") || !std::strcmp(name, ".."))) continue;
                if (!MatchesPattern(name, pattern.c_str())) continue;
                WIN32_FIND_DATAA data;
                if (DescribeEntry(dirfd(listing), name, linkTarget, &data)) found.push_back(data);
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
