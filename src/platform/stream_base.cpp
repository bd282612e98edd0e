// The IStream methods that do not depend on where a stream's bytes live:
// chunked CopyTo, seek arithmetic and the common part of Stat (see
// internal_com.h).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "internal_com.h"

namespace vorn::rt {

STDMETHODIMP StreamBase::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) {
    if (!pstm) return STG_E_INVALIDPOINTER;
    constexpr ULONG kChunk = 64 * 1024;
    ULONGLONG totalRead = 0;
    ULONGLONG totalWritten = 0;
    HRESULT hr = S_OK;
    try {
        std::vector<unsigned char> buffer(static_cast<std::size_t>(std::min<ULONGLONG>(cb.QuadPart, kChunk)));
        while (totalRead < cb.QuadPart) {
            const auto want = static_cast<ULONG>(std::min<ULONGLONG>(cb.QuadPart - totalRead, kChunk));
            ULONG got = 0;
            hr = Read(buffer.data(), want, &got);
            if (FAILED(hr) || got == 0) break;
            totalRead += got;
            ULONG put = 0;
            hr = pstm->Write(buffer.data(), got, &put);
            totalWritten += put;
            if (SUCCEEDED(hr) && put < got) hr = STG_E_MEDIUMFULL;
            if (FAILED(hr) || got < want) break;
        }
    } catch (const std::bad_alloc&) {
        hr = E_OUTOFMEMORY;
    }
    if (pcbRead) pcbRead->QuadPart = totalRead;
    if (pcbWritten) pcbWritten->QuadPart = totalWritten;
    return FAILED(hr) ? hr : S_OK;
}

HRESULT StreamBase::SeekTarget(LARGE_INTEGER move, DWORD origin, ULONGLONG current, ULONGLONG end, ULONGLONG* target) {
    ULONGLONG base;
    switch (origin) {
        case STREAM_SEEK_SET:
            base = 0;
            break;
        case STREAM_SEEK_CUR:
            base = current;
            break;
        case STREAM_SEEK_END:
            base = end;
            break;
        default:
            return STG_E_INVALIDFUNCTION;
    }
    if (base > static_cast<ULONGLONG>(INT64_MAX)) return STG_E_INVALIDFUNCTION;
    LONGLONG result;
    if (__builtin_add_overflow(static_cast<LONGLONG>(base), move.QuadPart, &result) || result < 0)
        return STG_E_INVALIDFUNCTION;
    *target = static_cast<ULONGLONG>(result);
    return S_OK;
}

HRESULT StreamBase::BeginStat(STATSTG* statstg, DWORD statFlag) {
    if (!statstg) return STG_E_INVALIDPOINTER;
    if (statFlag & ~DWORD{STATFLAG_NONAME | STATFLAG_NOOPEN}) return STG_E_INVALIDFLAG;
    std::memset(statstg, 0, sizeof *statstg);
    statstg->type = STGTY_STREAM;
    return S_OK;
}

}  // namespace vorn::rt
