// The per-thread last error (GetLastError, set by SetLastErrorCode) and the mapping of
// errno values to Win32 error codes used by every part of the runtime that
// calls into Linux.
#include <cerrno>

#include "internal.h"

namespace {
VORN_RT_THREAD_LOCAL DWORD tLastError = ERROR_SUCCESS;
}  // namespace

VORNAPI DWORD WINAPI GetLastError() { return tLastError; }

void vorn::rt::SetLastErrorCode(DWORD error) noexcept { tLastError = error; }

namespace vorn::rt {

DWORD Win32ErrorFromErrno(int err) noexcept {
    switch (err) {
        case 0:
            return ERROR_SUCCESS;
        case EPERM:
        case EACCES:
        case EISDIR:
        case EROFS:
            return ERROR_ACCESS_DENIED;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
        case ELOOP:
            return ERROR_PATH_NOT_FOUND;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case ENOTEMPTY:
            return ERROR_DIR_NOT_EMPTY;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return ERROR_DISK_FULL;
        case EINVAL:
        case ESPIPE:
        case EOVERFLOW:
            return ERROR_INVALID_PARAMETER;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EBUSY:
            return ERROR_BUSY;
        case ETXTBSY:
        case EWOULDBLOCK:  // a lock held through another open file
            return ERROR_SHARING_VIOLATION;
        case EXDEV:
            return ERROR_NOT_SAME_DEVICE;
        case ETIMEDOUT:
            return ERROR_TIMEOUT;
        case ENOSYS:
        case EOPNOTSUPP:
            return ERROR_NOT_SUPPORTED;
        default:
            return ERROR_GEN_FAILURE;
    }
}

}  // namespace vorn::rt
