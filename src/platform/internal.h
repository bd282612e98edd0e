// What the runtime's source files share: the kernel-object handle table, the
// mapping of errno values to Win32 error codes, last-error helpers and the
// mapping of Windows paths onto the Linux file system.
//
// Kernel objects (events, threads, files, find searches) are C++ objects
// derived from KernelObject and owned by shared_ptr. A HANDLE is the object's
// address, registered in one process-wide table; every function that takes a
// handle looks it up there first, so a stale, closed or made-up handle fails
// with ERROR_INVALID_HANDLE instead of being dereferenced. The lookup hands out
// a counted reference: an object stays alive for the duration of a call even
// if another thread closes its handle meanwhile (a WaitForSingleObject that is
// in progress when the handle is closed still ends normally). Each object
// carries its kind as a type tag, so a file handle passed to SetEvent fails
// the same way.
//
// Not part of the installed headers; nothing here is exported.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "vorn/platform.h"

// Thread-locals of the runtime use the initial-exec model: every access is one
// thread-pointer-relative load instead of a __tls_get_addr call. That is sound
// because libvornrt.so is linked by its clients, so it is loaded at start-up;
// the locks of the component read these on every value access.
#define VORN_RT_THREAD_LOCAL thread_local __attribute__((tls_model("initial-exec")))

namespace vorn::rt {

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

// Sets the calling thread's last error (what GetLastError returns).
void SetLastErrorCode(DWORD error) noexcept;

// The Win32 error code closest to an errno value, e.g. ENOENT ->
// ERROR_FILE_NOT_FOUND, EACCES -> ERROR_ACCESS_DENIED, EEXIST ->
// ERROR_ALREADY_EXISTS, ENOSPC -> ERROR_DISK_FULL. 0 gives ERROR_SUCCESS; an
// errno without a counterpart gives ERROR_GEN_FAILURE. Callers that know more
// (ENOENT because a directory is missing) refine the result themselves.
DWORD Win32ErrorFromErrno(int err) noexcept;

// Sets the calling thread's last error to `error` and returns `result`, so a
// failure path reads `return Fail(ERROR_INVALID_PARAMETER, FALSE);`.
template <class T>
inline T Fail(DWORD error, T result) noexcept {
    SetLastErrorCode(error);
    return result;
}

// As Fail, with the error taken from an errno value (by default the current one).
template <class T>
inline T FailErrno(T result, int err = errno) noexcept {
    SetLastErrorCode(Win32ErrorFromErrno(err));
    return result;
}

// ---------------------------------------------------------------------------
// Kernel objects and the handle table
// ---------------------------------------------------------------------------

// Type tags of the kernel objects; the values read as text in a debugger.
enum class ObjectKind : std::uint32_t {
    Event = 0x45564E54,   // "EVNT"
    Thread = 0x54485244,  // "THRD"
    File = 0x46494C45,    // "FILE"
    Find = 0x46494E44,    // "FIND"
};

class KernelObject {
public:
    KernelObject(const KernelObject&) = delete;
    KernelObject& operator=(const KernelObject&) = delete;
    virtual ~KernelObject() = default;

    ObjectKind kind() const noexcept { return kind_; }

    // Waits until the object is signalled, at most `milliseconds` (INFINITE:
    // without limit, 0: a poll). WAIT_OBJECT_0 or WAIT_TIMEOUT; objects that
    // cannot be waited on give WAIT_FAILED with ERROR_INVALID_HANDLE.
    virtual DWORD Wait(DWORD milliseconds);

protected:
    explicit KernelObject(ObjectKind kind) noexcept : kind_(kind) {}

private:
    const ObjectKind kind_;
};

// A kernel object with a signalled state (events, threads). The state is
// guarded by mutex_; whoever changes it notifies cv_. Waits use the monotonic
// clock, so changing the wall clock does not stretch or cut a timeout.
class WaitableObject : public KernelObject {
public:
    DWORD Wait(DWORD milliseconds) override;

protected:
    using KernelObject::KernelObject;

    // Called with mutex_ held: true when the object is signalled, in which
    // case the wait is satisfied (an auto-reset event resets itself here).
    virtual bool ConsumeSignalLocked() = 0;

    std::mutex mutex_;
    std::condition_variable cv_;
};

// Registers `object` and returns its handle. Throws std::bad_alloc.
HANDLE InsertHandle(std::shared_ptr<KernelObject> object);

// The object behind `handle`, or null with ERROR_INVALID_HANDLE when the handle
// is not open (null, INVALID_HANDLE_VALUE, pseudo-handles, closed or made-up).
std::shared_ptr<KernelObject> ReferenceHandle(HANDLE handle) noexcept;

// As ReferenceHandle, and also null with ERROR_INVALID_HANDLE when the object
// is of another kind than T::kKind.
template <class T>
std::shared_ptr<T> ReferenceHandleAs(HANDLE handle) noexcept {
    std::shared_ptr<KernelObject> object = ReferenceHandle(handle);
    if (object && object->kind() != T::kKind) {
        vorn::rt::SetLastErrorCode(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return std::static_pointer_cast<T>(std::move(object));
}

// Removes `handle` from the table and drops the table's reference; the object
// goes when its last reference does. `findHandle` says which family the caller
// closes: find searches (FindClose) or every other kind (CloseHandle). FALSE
// with ERROR_INVALID_HANDLE when the handle is not open or of the other family.
BOOL CloseObjectHandle(HANDLE handle, bool findHandle) noexcept;

// The pseudo-handle of the calling thread (GetCurrentThread).
inline HANDLE CurrentThreadPseudoHandle() noexcept { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2)); }

// ---------------------------------------------------------------------------
// COM library state
// ---------------------------------------------------------------------------

// Whether the calling thread has called CoInitializeEx successfully and not yet
// undone it: what class activation checks before CO_E_NOTINITIALIZED.
bool ComInitializedOnThisThread() noexcept;

// ---------------------------------------------------------------------------
// Paths
// ---------------------------------------------------------------------------

// A Windows path mapped onto the Linux file system (see vorn/rt/file.h).
struct HostPath {
    std::string path;       // the Linux path
    std::string driveRoot;  // the drive's directory when the path began with "X:", else empty
    std::string inDrive;    // a drive path below driveRoot: no "." or ".." left, "" for the root itself
};

// Maps `windowsPath`. On a drive, "." and ".." are resolved lexically and
// clamped at the drive's root ("D:\..\x" is "D:\x"), as Windows resolves them.
// FALSE with ERROR_INVALID_PARAMETER for a null or empty path,
// ERROR_PATH_NOT_FOUND when the drives directory cannot be determined (no
// VORN_DRIVES, XDG_DATA_HOME nor home directory). Throws std::bad_alloc.
bool MapWindowsPath(const char* windowsPath, HostPath* out);

// MapWindowsPath for a file operation: also creates the drive's own directory
// (with its parents) when the path is on a drive. False with the last error
// set. Throws std::bad_alloc.
bool MapForFileOperation(const char* windowsPath, HostPath* mapped);

// A Linux path taken as it is, without the drive mapping.
inline HostPath HostPathOf(std::string linuxPath) { return HostPath{std::move(linuxPath), {}, {}}; }

// Creates `dir` (a Linux path) and any missing parents with `mode` (less the
// umask), as mkdir -p does. False with errno set (ENOTDIR when a part is not
// a directory).
bool MakeDirectories(const std::string& dir, mode_t mode);

// Reads the whole regular file at `path` (a Linux path) into *out. 0, or the
// errno value: ENOENT or ENOTDIR when it is missing, EINVAL when it is not a
// regular file, EFBIG when it has more than `limit` bytes. Throws
// std::bad_alloc.
int ReadWholeFile(const std::string& path, std::string* out, std::size_t limit);

// Opens the mapped path with open(2) flags and mode. A drive path is resolved
// beneath its drive's directory as if that were the root of the file system:
// neither ".." nor a symbolic link (absolute or relative) leads out of the
// drive (openat2 with RESOLVE_IN_ROOT). Where the kernel lacks openat2 only
// the lexical clamping of MapWindowsPath holds. Other paths are opened as
// open(2) opens them. -1 with errno. Throws std::bad_alloc.
int OpenHostPath(const HostPath& path, int flags, mode_t mode = 0);

// Opens (O_PATH) the directory that holds the path's last component, resolved
// as OpenHostPath resolves, and puts that component, without trailing
// separators, in *leaf ("." for a drive's root or "/"). -1 with errno
// (ENOENT or ENOTDIR: the directory is missing). Throws std::bad_alloc.
int OpenHostParent(const HostPath& path, std::string* leaf);

// The Win32 error for a failed call on `path`: a missing entry is
// ERROR_FILE_NOT_FOUND when its directory exists, else ERROR_PATH_NOT_FOUND.
DWORD Win32ErrorForPath(int err, const HostPath& path);

// Whether a file of this mode is read-only in the Win32 sense
// (FILE_ATTRIBUTE_READONLY): its owner may not write it. Write access to such
// a file is refused with ERROR_ACCESS_DENIED whoever asks, root included.
inline bool IsReadOnlyMode(mode_t mode) noexcept { return (mode & S_IWUSR) == 0; }

// Replaces the file at `target` with `size` bytes in one atomic step: they go
// to a new temporary file in the target's directory (see
// IsTemporaryFileNameOf; created with O_EXCL | O_NOFOLLOW, never through a
// symbolic link), which is flushed (fsync) and renamed over the target, and
// the directory is synced. A target that exists keeps its permission bits
// (and its owner and group where the process may set them); a new file gets
// `newMode` less the umask. A read-only target (IsReadOnlyMode) is refused with
// EACCES, a directory with EISDIR. `removeStale` also deletes temporary files
// of this target that earlier writers left behind (killed before their
// rename); only a caller that holds a lock every writer of the target takes
// may ask for it. On failure the temporary file is removed, the target is left
// as it was, the failure text names the reason, and the errno value is
// returned (ENOENT or ENOTDIR: the directory is missing); 0 on success.
// Throws std::bad_alloc.
int ReplaceFileContents(const HostPath& target, const void* data, std::size_t size, bool removeStale,
                        mode_t newMode = 0666);

// Whether `name` is the name of a temporary file ReplaceFileContents makes
// for a target of any name / of the name `leaf`: "." + the target's name (its
// first 200 bytes at most, whole UTF-8 characters) + ".~" + six letters or
// digits, which stays within the 255-byte limit of a name.
bool IsTemporaryFileName(std::string_view name) noexcept;
bool IsTemporaryFileNameOf(std::string_view name, std::string_view leaf);

// strerror text of an errno value.
std::string ErrnoText(int err);

// 100-ns intervals since 1601-01-01 UTC for a Unix time; times before 1601
// give 0.
FILETIME FileTimeFromUnix(std::int64_t seconds, std::uint32_t nanoseconds) noexcept;

}  // namespace vorn::rt
