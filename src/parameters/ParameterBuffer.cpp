// Buffer parameters: attaching, copying and releasing shared sample buffers.
#include "parameters/ParameterBuffer.h"

#include <cstring>
#include <string>

#include "stream/DataStream.h"

namespace vorn {

namespace {

// The buffer type code: the top flag bit with VT_ARRAY | VT_R4.
constexpr USHORT kBufferType = 0x8000 | VT_ARRAY | VT_R4;

// Runs body() under the database write lock for an interface method of
// `parameter`; a bad_buffer_error becomes E_OUTOFMEMORY (failed allocation)
// or E_UNEXPECTED (anything else), with its text as the reason.
template <class Body>
HRESULT BufferOperation(const CParameterBuffer& parameter, Body&& body) noexcept {
    return Guarded(parameter, [&]() -> HRESULT {
        CWriteLock lock;
        try {
            return body();
        } catch (const bad_buffer_error& e) {
            const bool nullCookie =
                e.what() == bad_buffer_error::kAttachNullCookie || e.what() == bad_buffer_error::kAssignNullCookie;
            ThrowHr(std::strcmp(e.what(), bad_buffer_error::kNotEnoughMemory) == 0 ? E_OUTOFMEMORY : E_UNEXPECTED,
                    std::string(e.what()) + (nullCookie ? " (udwCookie is 0)" : ""));
        }
    });
}

}  // namespace

CParameterBuffer::~CParameterBuffer() {
    if (attached_) attached_->Release();
}

STDMETHODIMP CParameterBuffer::get_type(USHORT* pParamType) {
    if (!pParamType) return Fail(E_POINTER, "pParamType is null");
    return UnderReadLock([&] {
        *pParamType = kBufferType;
        return S_OK;
    });
}

STDMETHODIMP CParameterBuffer::Attach(ULONG_PTR udwCookie) {
    return BufferOperation(*this, [&]() -> HRESULT {
        if (udwCookie == 0) throw bad_buffer_error(bad_buffer_error::kAttachNullCookie);
        // Attaching the attached buffer again: the release and the new
        // reference meet on the same object (and a last reference frees its
        // samples first).
        if (attached_) attached_->Release();
        attached_ = Buffer::FromCookie(udwCookie);
        attached_->AddRef();
        return put_Status(eSTATUS_VALID);
    });
}

STDMETHODIMP CParameterBuffer::Assign(ULONG_PTR udwCookie) {
    return BufferOperation(*this, [&]() -> HRESULT {
        if (udwCookie == 0) throw bad_buffer_error(bad_buffer_error::kAssignNullCookie);
        if (!attached_) return S_OK;
        Buffer* source = Buffer::FromCookie(udwCookie);
        if (source != attached_) attached_->CopyFrom(*source);
        return put_Status(eSTATUS_VALID);
    });
}

STDMETHODIMP CParameterBuffer::GetDescriptor(ULONG_PTR* pudwCookie) {
    if (!pudwCookie) return Fail(E_POINTER, "pudwCookie is null");
    return UnderReadLock([&]() -> HRESULT {
        if (!attached_) return Fail(E_UNEXPECTED, "no buffer is attached");
        *pudwCookie = attached_->Cookie();
        return S_OK;
    });
}

STDMETHODIMP CParameterBuffer::IsEmpty(VARIANT_BOOL* pbEmpty) {
    if (!pbEmpty) return Fail(E_POINTER, "pbEmpty is null");
    *pbEmpty = (!attached_ || attached_->UsedCount() == 0) ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

STDMETHODIMP CParameterBuffer::AddRefDescriptor() {
    if (attached_) attached_->AddRef();
    return S_OK;
}

STDMETHODIMP CParameterBuffer::ReleaseDescriptor() {
    if (attached_) attached_->Release();
    attached_ = nullptr;
    return S_OK;
}

STDMETHODIMP CParameterBuffer::ClearBuffer() {
    if (attached_) attached_->Clear();
    return S_OK;
}

// --- Settings stream payload ---------------------------------------------------

namespace {

static_assert(kBufferDimensions == CParameterBuffer::Buffer::kDimensions);
constexpr std::size_t kStateWords = 8;

// The used samples of a buffer; E_UNEXPECTED when they exceed its storage.
ULONGLONG UsedSampleBytes(const CParameterBuffer::Buffer& buffer) {
    const ULONGLONG bytes = ULONGLONG{buffer.UsedCount()} * buffer.SecondExtent() * sizeof(float);
    if (bytes > buffer.AllocatedBytes() || (bytes > 0 && !buffer.Data()))
        ThrowHr(E_UNEXPECTED, "a buffer's used samples exceed its storage");
    return bytes;
}

}  // namespace

DWORD CParameterBuffer::PayloadSize() {
    if (!attached_) return 2 + 2 + 2 + 4;
    return static_cast<DWORD>(2 + 2 + 2 + kStateWords * 4 + UsedSampleBytes(*attached_));
}

void CParameterBuffer::SavePayload(CDataStream& stream) {
    stream.WriteShort(kTypeBuffer);
    stream.WriteShort(StatusWord());
    if (!attached_) {
        stream.WriteShort(0);
        stream.WriteLong(0);
        return;
    }
    const Buffer& buffer = *attached_;
    const ULONGLONG bytes = UsedSampleBytes(buffer);
    const DWORD words[kStateWords] = {
        buffer.AllocatedBytes(),       buffer.SecondExtent(), buffer.UsedCount(), buffer.FirstExtent(),
        buffer.IsGrowable() ? 1u : 0u, 0u /* reserved */,     buffer.Mode(),      buffer.RefCount()};
    stream.WriteShort(kBufferDimensions);
    for (DWORD word : words) stream.WriteLong(word);
    stream.WriteBytes(buffer.Data(), static_cast<std::size_t>(bytes));
}

bool CParameterBuffer::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeBuffer) return false;
    const WORD status = stream.ReadShort();
    const WORD dimensions = stream.ReadShort();
    if (dimensions == 0) {
        stream.ReadLong();
        ApplyStatusWord(status);
        return true;
    }
    if (dimensions != kBufferDimensions) return false;
    DWORD words[kStateWords];
    for (DWORD& word : words) word = stream.ReadLong();
    const auto [allocated, second, used, first, growable, reserved, mode, references] = words;
    (void)references;  // the attached buffer keeps its own count
    const ULONGLONG bytes = ULONGLONG{used} * second * sizeof(float);
    if (allocated == 0) {
        stream.Skip(bytes);
        ApplyStatusWord(status);
        return true;
    }
    const ULONGLONG capacityBytes = ULONGLONG{first} * second * sizeof(float);
    if (mode != 1 || reserved != 0 || bytes > allocated || allocated > kMaxLoadedBytes ||
        capacityBytes > kMaxLoadedBytes || (growable == 0 && (used > first || capacityBytes > allocated)))
        return false;
    stream.Require(bytes);
    std::unique_ptr<Buffer> loaded;
    try {
        loaded = std::make_unique<Buffer>(CDim(first), CDim(second));
        if (loaded->AllocatedBytes() != allocated) loaded->Reallocate(allocated);
    } catch (const bad_buffer_error&) {
        ThrowHr(E_OUTOFMEMORY, "no memory for a loaded buffer");
    }
    loaded->SetGrowable(growable != 0);
    loaded->SetUsedCount(used);
    stream.ReadBytes(loaded->Data(), static_cast<std::size_t>(bytes));
    try {
        if (attached_) {
            attached_->CopyFrom(*loaded);
        } else {
            built_.reserve(built_.size() + 1);
            built_.push_back(std::move(loaded));
            attached_ = built_.back().get();
        }
    } catch (const bad_buffer_error&) {
        ThrowHr(E_OUTOFMEMORY, "no memory for a loaded buffer");
    }
    ApplyStatusWord(status);
    return true;
}

STDMETHODIMP CParameterBuffer::Reset() {
    return BufferOperation(*this, [&]() -> HRESULT {
        const auto* record = defaults_.As<SDefaultsBuffer>();
        if (!record) return S_OK;
        if (attached_) {
            attached_->SetUsedCount(0);
        } else if (record->firstExtent != 0) {
            built_.reserve(built_.size() + 1);
            built_.push_back(std::make_unique<Buffer>(CDim(record->firstExtent), CDim(record->secondExtent)));
            attached_ = built_.back().get();
            attached_->SetUsedCount(0);
        }
        return S_OK;
    });
}

}  // namespace vorn
