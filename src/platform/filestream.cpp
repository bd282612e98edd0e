// The file stream: IStream over a file (SHCreateStreamOnFileEx).
//
// The Windows path is converted to UTF-8 and mapped onto the Linux file system
// (see vorn/rt/file.h); the stream then works on a POSIX file descriptor with
// read/write/lseek, so the stream position is the descriptor's offset and
// seeking past the end followed by a write leaves zeros, as on Windows.
// Differences from Windows: the STGM_SHARE_* bits are accepted but not
// enforced (no lock is taken); Clone is not offered (E_NOTIMPL, as Windows'
// file streams do) nor is byte-range locking; Commit flushes the data to the
// device (fdatasync); Stat's ctime is the Linux status-change time, not a
// creation time. A call's seek-and-transfer is serialised by a mutex, so
// concurrent calls on one stream do not interleave within a call.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>

#include "internal.h"
#include "internal_com.h"
#include "vorn/platform.h"

namespace {

constexpr DWORD kAccessMask = STGM_WRITE | STGM_READWRITE;
constexpr DWORD kShareMask = STGM_SHARE_DENY_NONE | STGM_SHARE_DENY_READ | STGM_SHARE_DENY_WRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kSupportedModes = kAccessMask | kShareMask | STGM_CREATE;

HRESULT HresultFromErrno(int err) { return HRESULT_FROM_WIN32(vorn::rt::Win32ErrorFromErrno(err)); }

FILETIME FileTimeFrom(const timespec& t) {
    return vorn::rt::FileTimeFromUnix(t.tv_sec, static_cast<std::uint32_t>(t.tv_nsec));
}

class FileStream final : public vorn::rt::StreamBase {
public:
    FileStream(int fd, DWORD mode, std::u16string name) : fd_(fd), mode_(mode), name_(std::move(name)) {}

    // Up to cb bytes from the file position; fewer at the end of the file.
    // STG_E_ACCESSDENIED on a write-only stream, STG_E_INVALIDPOINTER for a
    // null pv, the I/O error as HRESULT_FROM_WIN32.
    STDMETHODIMP Read(void* pv, ULONG cb, ULONG* pcbRead) override {
        if (pcbRead) *pcbRead = 0;
        if ((mode_ & kAccessMask) == STGM_WRITE) return STG_E_ACCESSDENIED;
        if (!pv && cb > 0) return STG_E_INVALIDPOINTER;
        std::lock_guard lock(mutex_);
        return Transfer(cb, pcbRead, [&](ULONG done) { return ::read(fd_, static_cast<char*>(pv) + done, cb - done); });
    }

    // Writes cb bytes at the file position. STG_E_ACCESSDENIED on a
    // read-only stream, STG_E_INVALIDPOINTER for a null pv, the I/O error
    // (e.g. 0x80070070 disk full) as HRESULT_FROM_WIN32.
    STDMETHODIMP Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
        if (pcbWritten) *pcbWritten = 0;
        if ((mode_ & kAccessMask) == STGM_READ) return STG_E_ACCESSDENIED;
        if (!pv && cb > 0) return STG_E_INVALIDPOINTER;
        std::lock_guard lock(mutex_);
        return Transfer(cb, pcbWritten,
                        [&](ULONG done) { return ::write(fd_, static_cast<const char*>(pv) + done, cb - done); });
    }

    // STG_E_INVALIDFUNCTION for a bad origin or a negative result; the
    // position is then unchanged and reported in plibNewPosition.
    STDMETHODIMP Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override {
        std::lock_guard lock(mutex_);
        struct stat st;
        const off_t current = ::lseek(fd_, 0, SEEK_CUR);
        if (current < 0 || ::fstat(fd_, &st) != 0) return HresultFromErrno(errno);
        ULONGLONG target;
        HRESULT hr = SeekTarget(dlibMove, dwOrigin, static_cast<ULONGLONG>(current), static_cast<ULONGLONG>(st.st_size),
                                &target);
        ULONGLONG position = static_cast<ULONGLONG>(current);
        if (SUCCEEDED(hr)) {
            if (::lseek(fd_, static_cast<off_t>(target), SEEK_SET) < 0) {
                hr = HresultFromErrno(errno);
            } else {
                position = target;
            }
        }
        if (plibNewPosition) plibNewPosition->QuadPart = position;
        return hr;
    }

    // Truncates or extends (with zeros) the file; the position stays.
    // STG_E_ACCESSDENIED on a read-only stream.
    STDMETHODIMP SetSize(ULARGE_INTEGER libNewSize) override {
        if ((mode_ & kAccessMask) == STGM_READ) return STG_E_ACCESSDENIED;
        if (libNewSize.QuadPart > static_cast<ULONGLONG>(INT64_MAX)) return STG_E_INVALIDFUNCTION;
        if (::ftruncate(fd_, static_cast<off_t>(libNewSize.QuadPart)) != 0) return HresultFromErrno(errno);
        return S_OK;
    }

    STDMETHODIMP Commit(DWORD) override {
        if ((mode_ & kAccessMask) == STGM_READ) return S_OK;
        return ::fdatasync(fd_) == 0 ? S_OK : HresultFromErrno(errno);
    }

    // Size, times, the open mode and (unless STATFLAG_NONAME) the path as it
    // was given, allocated as task memory. STG_E_INSUFFICIENTMEMORY when
    // the name cannot be allocated.
    STDMETHODIMP Stat(STATSTG* pstatstg, DWORD grfStatFlag) override {
        HRESULT hr = BeginStat(pstatstg, grfStatFlag);
        if (FAILED(hr)) return hr;
        struct stat st;
        if (::fstat(fd_, &st) != 0) return HresultFromErrno(errno);
        pstatstg->cbSize.QuadPart = static_cast<ULONGLONG>(st.st_size);
        pstatstg->mtime = FileTimeFrom(st.st_mtim);
        pstatstg->atime = FileTimeFrom(st.st_atim);
        pstatstg->ctime = FileTimeFrom(st.st_ctim);
        pstatstg->grfMode = mode_;
        if (!(grfStatFlag & STATFLAG_NONAME)) {
            pstatstg->pwcsName = vorn::rt::CoTaskMemDupString(name_.c_str());
            if (!pstatstg->pwcsName) return STG_E_INSUFFICIENTMEMORY;
        }
        return S_OK;
    }

    STDMETHODIMP Clone(IStream** ppstm) override {
        if (!ppstm) return STG_E_INVALIDPOINTER;
        *ppstm = nullptr;
        return E_NOTIMPL;
    }

private:
    ~FileStream() override { ::close(fd_); }

    // Repeats step(done) (a read or write of the remaining bytes) until cb
    // bytes moved or step returns 0; *moved gets the count. EINTR is retried.
    template <class Step>
    static HRESULT Transfer(ULONG cb, ULONG* moved, Step step) {
        ULONG done = 0;
        while (done < cb) {
            const ssize_t n = step(done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                if (moved) *moved = done;
                return HresultFromErrno(errno);
            }
            if (n == 0) break;
            done += static_cast<ULONG>(n);
        }
        if (moved) *moved = done;
        return S_OK;
    }

    const int fd_;
    const DWORD mode_;
    const std::u16string name_;
    std::mutex mutex_;
};

// pszFile as UTF-8 into *narrow; false for text that is not valid UTF-16.
bool ToUtf8(LPCWSTR text, std::string* narrow) {
    const int size = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 0) return false;
    narrow->assign(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text, -1, narrow->data(), size, nullptr, nullptr);
    narrow->pop_back();  // the converted terminator
    return true;
}

}  // namespace

// dwAttributes: FILE_ATTRIBUTE_READONLY makes a newly created file read-only;
// other attributes are ignored. A drive's own directory is made on demand, as
// by the other file calls; directories below it never are. E_INVALIDARG for
// a null ppstm or pszFile, a non-null template, an invalid access mode or an
// unsupported STGM flag; HRESULT_FROM_WIN32 of ERROR_FILE_NOT_FOUND,
// ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED (also for a directory, and for
// write access to a read-only file), ERROR_FILE_EXISTS, ERROR_INVALID_NAME (text that is not valid UTF-16) and
// so on.
HRESULT WINAPI SHCreateStreamOnFileEx(LPCWSTR pszFile, DWORD grfMode, DWORD dwAttributes, BOOL fCreate,
                                      IStream* pstmTemplate, IStream** ppstm) {
    if (!ppstm) return E_INVALIDARG;
    *ppstm = nullptr;
    const DWORD access = grfMode & kAccessMask;
    if (!pszFile || pstmTemplate || access == kAccessMask || (grfMode & ~kSupportedModes)) return E_INVALIDARG;

    // STGM_CREATE replaces the file's contents, which needs a writable
    // descriptor whatever access was asked for (the stream still refuses
    // writes by its mode).
    const bool truncates = grfMode & STGM_CREATE;
    const int flags = O_CLOEXEC | (access == STGM_WRITE                ? O_WRONLY
                                   : access == STGM_READ && !truncates ? O_RDONLY
                                                                       : O_RDWR);
    const DWORD disposition = truncates ? CREATE_ALWAYS : fCreate ? CREATE_NEW : OPEN_EXISTING;
    const mode_t permissions = (dwAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;

    try {
        std::string narrow;
        if (!ToUtf8(pszFile, &narrow)) return HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
        vorn::rt::HostPath host;
        if (!vorn::rt::MapForFileOperation(narrow.c_str(), &host)) return HRESULT_FROM_WIN32(GetLastError());

        std::u16string name(pszFile);
        bool existed = false;
        const int fd = vorn::rt::OpenWithDisposition(host, flags, permissions, disposition, &existed);
        if (fd < 0) return HRESULT_FROM_WIN32(GetLastError());
        if (existed && truncates && ::ftruncate(fd, 0) != 0) {
            const int err = errno;
            ::close(fd);
            return HresultFromErrno(err);
        }
        auto* stream = new (std::nothrow) FileStream(fd, grfMode, std::move(name));
        if (!stream) {
            ::close(fd);
            return E_OUTOFMEMORY;
        }
        *ppstm = stream;
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}
