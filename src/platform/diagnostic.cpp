// The per-thread failure text (VornGetLastErrorTextA) and the GUID text shared
// by the registry, registrar, activation and type library.
#include "diagnostic.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "internal.h"

namespace {
// A plain character array, not a std::string: a thread_local with a destructor
// would tie the runtime to thread exit handlers.
constexpr std::size_t kMaxText = 1024;
VORN_RT_THREAD_LOCAL char tText[kMaxText];
}  // namespace

namespace vorn::rt {

void ClearErrorText() noexcept { tText[0] = '\0'; }

void SetErrorText(std::string_view text) noexcept {
    const std::size_t n = text.size() < kMaxText - 1 ? text.size() : kMaxText - 1;
    std::memcpy(tText, text.data(), n);
    tText[n] = '\0';
}

std::string GuidText(REFGUID guid) {
    OLECHAR text[40];
    StringFromGUID2(guid, text, 40);
    return Narrow(text);
}

}  // namespace vorn::rt

VORNAPI void WINAPI OutputDebugStringA(LPCSTR lpOutputString) {
    if (!lpOutputString) return;
    const int saved = errno;
    for (std::size_t left = std::strlen(lpOutputString); left > 0;) {
        const ssize_t n = write(STDERR_FILENO, lpOutputString, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        lpOutputString += n;
        left -= static_cast<std::size_t>(n);
    }
    errno = saved;
}

VORNAPI DWORD WINAPI VornGetLastErrorTextA(LPSTR lpBuffer, DWORD nSize) {
    const std::size_t length = std::strlen(tText);
    if (length == 0) {
        if (lpBuffer && nSize > 0) lpBuffer[0] = '\0';
        return 0;
    }
    if (lpBuffer && nSize > length) {
        std::memcpy(lpBuffer, tText, length + 1);
        return static_cast<DWORD>(length);
    }
    if (lpBuffer && nSize > 0) {
        std::memcpy(lpBuffer, tText, nSize - 1);
        lpBuffer[nSize - 1] = '\0';
    }
    return static_cast<DWORD>(length + 1);
}
