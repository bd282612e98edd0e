// Replacing a file in one step: ReplaceFileContents (internal.h), used by the
// registry file, and VornReplaceFileA, which the settings files and the vorndb
// tool use.
//
// The new contents go to a temporary file beside the target, which is renamed
// over it. The temporary name is fresh for every write (six random letters or
// digits) and the file is created with O_EXCL | O_NOFOLLOW relative to the
// directory descriptor the target was resolved in, so a name planted in the
// directory beforehand (a symbolic link to a file elsewhere, say) is never
// opened: creation just fails over to the next name. The name is short enough
// for a target whose own name already has the full 255 bytes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>

#include "diagnostic.h"
#include "internal.h"

namespace vorn::rt {

namespace {

// The most of the target's name a temporary name repeats.
constexpr std::size_t kMaxNamePrefix = 200;
constexpr std::size_t kRandomLength = 6;
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

bool IsAlphanumeric(char c) noexcept {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// "." + the start of `leaf` (whole UTF-8 characters) + ".~".
std::string TemporaryPrefix(std::string_view leaf) {
    std::size_t n = leaf.size() < kMaxNamePrefix ? leaf.size() : kMaxNamePrefix;
    while (n > 0 && n < leaf.size() && (static_cast<unsigned char>(leaf[n]) & 0xC0) == 0x80) --n;
    std::string prefix = ".";
    prefix.append(leaf.substr(0, n));
    prefix += ".~";
    return prefix;
}

// Six random letters or digits; from the kernel's generator, or from the
// clock and a counter should that fail (O_EXCL keeps either kind safe).
std::string RandomSuffix() {
    unsigned char bytes[kRandomLength];
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
        static std::atomic<unsigned> counter{0};
        unsigned long long seed =
            static_cast<unsigned long long>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
            (static_cast<unsigned long long>(getpid()) << 32) ^ counter.fetch_add(7919);
        for (unsigned char& b : bytes) {
            seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
            b = static_cast<unsigned char>(seed >> 56);
        }
    }
    std::string suffix;
    for (unsigned char b : bytes) suffix += kAlphabet[b % (sizeof kAlphabet - 1)];
    return suffix;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) {
            errno = EIO;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Deletes the temporary files of `leaf` in the directory `dirFd`.
void RemoveTemporaries(int dirFd, const std::string& leaf) {
    const int listed = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = listed >= 0 ? fdopendir(listed) : nullptr;
    if (!listing) {
        if (listed >= 0) close(listed);
        return;
    }
    while (const dirent* entry = readdir(listing))
        if (IsTemporaryFileNameOf(entry->d_name, leaf)) unlinkat(dirFd, entry->d_name, 0);
    closedir(listing);
}

// Fails the replacement: the failure text and the errno value.
int Refuse(int err, const HostPath& target, const char* reason = nullptr) {
    SetErrorText(target.path + ": " + (reason ? std::string(reason) : ErrnoText(err)));
    return err;
}

}  // namespace

bool IsTemporaryFileName(std::string_view name) noexcept {
    if (name.size() < 3 + kRandomLength || name.front() != '.') return false;
    const std::string_view tail = name.substr(name.size() - kRandomLength - 2);
    if (tail.substr(0, 2) != ".~") return false;
    for (char c : tail.substr(2))
        if (!IsAlphanumeric(c)) return false;
    return true;
}

bool IsTemporaryFileNameOf(std::string_view name, std::string_view leaf) {
    const std::string prefix = TemporaryPrefix(leaf);
    return name.size() == prefix.size() + kRandomLength && name.substr(0, prefix.size()) == prefix &&
           IsTemporaryFileName(name);
}

std::string ErrnoText(int err) {
    char buf[256];
    // GNU strerror_r returns the text, which may or may not be in buf.
    return strerror_r(err, buf, sizeof buf);
}

int ReplaceFileContents(const HostPath& target, const void* data, std::size_t size, bool removeStale, mode_t newMode) {
    std::string leaf;
    const int dirFd = OpenHostParent(target, &leaf);
    if (dirFd < 0) return Refuse(errno, target);
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closeDir{dirFd};
    if (leaf == "." || leaf == "..") return Refuse(EISDIR, target);

    struct stat old;
    const bool existed = fstatat(dirFd, leaf.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (!existed && errno != ENOENT) return Refuse(errno, target);
    if (existed && S_ISDIR(old.st_mode)) return Refuse(EISDIR, target);
    // A symbolic link at the target's name is replaced, never written through.
    const bool keepMode = existed && S_ISREG(old.st_mode);
    if (keepMode && IsReadOnlyMode(old.st_mode)) return Refuse(EACCES, target, "the file is read-only");
    if (removeStale) RemoveTemporaries(dirFd, leaf);

    const std::string prefix = TemporaryPrefix(leaf);
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 64 && fd < 0; ++attempt) {
        temporary = prefix + RandomSuffix();
        fd = openat(dirFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, newMode);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) return Refuse(errno, target);

    int err = 0;
    if (keepMode) {
        // Owner and group where the process may set them (a privileged
        // process replacing another user's file), else the group alone; the
        // permission bits always.
        struct stat made;
        if (fstat(fd, &made) == 0 && (made.st_uid != old.st_uid || made.st_gid != old.st_gid) &&
            fchown(fd, old.st_uid, old.st_gid) != 0 && fchown(fd, static_cast<uid_t>(-1), old.st_gid) != 0) {
            // Neither is allowed: the new file stays the writer's.
        }
        if (fchmod(fd, old.st_mode & 0777) != 0) err = errno;
    }
    if (err == 0 && !WriteAll(fd, static_cast<const char*>(data), size)) err = errno;
    if (err == 0 && fsync(fd) != 0) err = errno;
    if (close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && renameat(dirFd, temporary.c_str(), dirFd, leaf.c_str()) != 0) err = errno;
    if (err != 0) {
        unlinkat(dirFd, temporary.c_str(), 0);
        return Refuse(err, target);
    }
    // The rename itself reaches the disk with the directory.
    const int synced = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (synced >= 0) {
        fsync(synced);
        close(synced);
    }
    return 0;
}

}  // namespace vorn::rt

VORNAPI BOOL WINAPI VornReplaceFileA(LPCSTR lpFileName, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, DWORD dwFlags) {
    vorn::rt::ClearErrorText();
    if (!lpFileName || !*lpFileName || (!lpBuffer && nNumberOfBytesToWrite) ||
        (dwFlags & ~(VORN_REPLACE_HOST_PATH | VORN_REPLACE_PRIVATE)))
        return vorn::rt::Fail(ERROR_INVALID_PARAMETER, FALSE);
    try {
        vorn::rt::HostPath target;
        if (dwFlags & VORN_REPLACE_HOST_PATH) {
            target = vorn::rt::HostPathOf(lpFileName);
        } else if (!vorn::rt::MapForFileOperation(lpFileName, &target)) {
            return FALSE;
        }
        const int err = vorn::rt::ReplaceFileContents(target, lpBuffer, nNumberOfBytesToWrite, false,
                                                      (dwFlags & VORN_REPLACE_PRIVATE) ? 0600 : 0666);
        if (err == 0) return TRUE;
        const DWORD error = err == ENOENT || err == ENOTDIR ? ERROR_PATH_NOT_FOUND : vorn::rt::Win32ErrorFromErrno(err);
        return vorn::rt::Fail(error, FALSE);
    } catch (const std::bad_alloc&) {
        return vorn::rt::Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

VORNAPI BOOL WINAPI VornIsTemporaryFileNameA(LPCSTR lpName) {
    return lpName && vorn::rt::IsTemporaryFileName(lpName) ? TRUE : FALSE;
}
