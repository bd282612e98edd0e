// Buffer parameters (IParameterBuffer): a reference to a shared
// CBuffer<float, 4> (vorn/buffer.h) instead of a copied value.
//
// The parameter holds at most one attached buffer and one reference to it.
// A client builds and fills a buffer, attaches it by its cookie (a
// pointer-sized handle: the buffer's address) and keeps the buffer object
// alive while it is attached; the parameter never destroys a client's buffer
// object. A buffer that Reset builds (a record with a non-zero first extent)
// belongs to the parameter and lives as long as it does, even after it was
// released and replaced, since clients may still hold its cookie.
//
// Attach, Assign and GetDescriptor take the database lock; IsEmpty and the
// reference-count operations take none, so clients sharing a buffer between
// threads serialise their own calls. A null cookie raises bad_buffer_error
// internally and is reported as E_UNEXPECTED; a failed allocation while
// copying in Assign is reported as E_OUTOFMEMORY with nothing changed.
// The notification value stays empty.
#pragma once

#include <memory>
#include <vector>

#include "parameters/Parameter.h"

namespace vorn {

class CParameterBuffer : public CParamTemplate<IParameterBuffer, &IID_IParameterBuffer> {
public:
    using Buffer = CBuffer<float, 4>;

    ~CParameterBuffer() override;

    // IParameter: 0xA004 (the top flag bit with VT_ARRAY | VT_R4), under the
    // read lock; E_POINTER for null.
    STDMETHODIMP get_type(USHORT* pParamType) override;
    // IParameterBuffer
    STDMETHODIMP Attach(ULONG_PTR udwCookie) override;
    STDMETHODIMP Assign(ULONG_PTR udwCookie) override;
    STDMETHODIMP GetDescriptor(ULONG_PTR* pudwCookie) override;
    STDMETHODIMP IsEmpty(VARIANT_BOOL* pbEmpty) override;
    STDMETHODIMP AddRefDescriptor() override;
    STDMETHODIMP ReleaseDescriptor() override;
    STDMETHODIMP ClearBuffer() override;
    // IDatabaseObject: with an SDefaultsBuffer record, no rows in use in the
    // attached buffer, or a new buffer of the record's extents when none is
    // attached and the first extent is not 0. The status stays as it is.
    STDMETHODIMP Reset() override;

    // Settings stream payload: type code 11, the status word, then with a
    // buffer attached the dimension word 4, the buffer's eight state words in
    // its field order (allocated bytes, second extent, used count, first
    // extent, growable, reserved, mode, reference count) and its used
    // samples (used count x second extent f32); without one the words 0 (u16)
    // and 0 (u32). Loading rebuilds the buffer from the words (the reference
    // count word is not applied: the attached buffer keeps its own), into
    // the attached buffer or into a new one the parameter owns; a stream
    // without buffer or with a zero allocation word leaves the buffer as it
    // is. A dimension word other than 0 and 4, or words that describe no
    // buffer this component makes (mode not 1, reserved not 0, samples
    // beyond the storage, rows beyond a fixed first extent, storage over
    // kMaxLoadedBytes), refuse the payload: the record is skipped and the
    // parameter left as it was. Saving a buffer whose used samples exceed
    // its storage fails with E_UNEXPECTED.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // The largest storage a loaded buffer may have.
    static constexpr ULONG kMaxLoadedBytes = 256u << 20;

    // The attached buffer, or null.
    Buffer* Attached() const noexcept { return attached_; }

protected:
    Buffer* attached_ = nullptr;
    std::vector<std::unique_ptr<Buffer>> built_;  // the buffers Reset built
};

}  // namespace vorn
