// CDataStream and the record format: see DataStream.h.
#include "stream/DataStream.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/DatabaseObjectImpl.h"

namespace vorn {

// The format's integers and doubles are little-endian, as they lie in memory
// here: values and arrays are copied as they are.
static_assert(std::endian::native == std::endian::little, "the settings stream needs a little-endian host");

namespace {

// "offset 0x22 (34)": a stream position in a reason.
std::string OffsetText(ULONGLONG position) {
    char text[48];
    std::snprintf(text, sizeof text, "offset 0x%llX (%llu)", static_cast<unsigned long long>(position),
                  static_cast<unsigned long long>(position));
    return text;
}

// A stream that ends inside a record: `bytes` are to be read from `at` on,
// and the stream ends at `end`.
[[noreturn]] void ThrowTruncated(ULONGLONG at, ULONGLONG bytes, ULONGLONG end) {
    ThrowHr(E_FAIL, "the " + std::to_string(bytes) + " bytes at " + OffsetText(at) +
                        " reach past the end of the stream at " + OffsetText(end));
}

// A failure inside the payload of a record, with the record named in its
// reason. The innermost record names itself; the records around it pass it
// on unchanged.
class CRecordError : public ComError {
public:
    CRecordError(const ComError& inner, const SRecordHeader& header)
        : ComError(inner.hr(), "record '" + std::string(header.name, header.nameLength) + "' at " +
                                   OffsetText(header.start) + ": " + inner.what()) {}
};

LARGE_INTEGER At(ULONGLONG position) {
    LARGE_INTEGER offset{};
    offset.QuadPart = static_cast<LONGLONG>(position);
    return offset;
}

}  // namespace

// ---------------------------------------------------------------------------
// CDataStream
// ---------------------------------------------------------------------------
CDataStream::CDataStream(IStream* stream) noexcept : stream_(stream) { stream_->AddRef(); }

CDataStream::~CDataStream() {
    if (mode_ == Mode::kReading && streamAt_ != position_) stream_->Seek(At(position_), STREAM_SEEK_SET, nullptr);
    stream_->Release();
}

void CDataStream::Start() {
    if (started_) return;
    ULARGE_INTEGER at{};
    ThrowIfFailed(stream_->Seek(At(0), STREAM_SEEK_CUR, &at), "settings stream: position unknown");
    position_ = streamAt_ = bufferStart_ = at.QuadPart;
    started_ = true;
}

void CDataStream::SeekStream(ULONGLONG position) {
    if (streamAt_ == position) return;
    ThrowIfFailed(stream_->Seek(At(position), STREAM_SEEK_SET, nullptr), "settings stream: seek failed");
    streamAt_ = position;
}

void CDataStream::BeginReading() {
    Start();
    if (mode_ == Mode::kReading) return;
    Flush();
    if (buffer_.size() < kBufferSize) buffer_.resize(kBufferSize);
    buffered_ = 0;
    bufferStart_ = position_;
    mode_ = Mode::kReading;
}

void CDataStream::BeginWriting() {
    Start();
    if (mode_ == Mode::kWriting) return;
    if (buffer_.size() < kBufferSize) buffer_.resize(kBufferSize);
    buffered_ = 0;
    bufferStart_ = position_;
    mode_ = Mode::kWriting;
}

void CDataStream::WriteRaw(const void* data, std::size_t count) {
    SeekStream(bufferStart_);
    const auto* bytes = static_cast<const BYTE*>(data);
    while (count > 0) {
        const ULONG chunk = static_cast<ULONG>(std::min<std::size_t>(count, 0x40000000u));
        ULONG written = 0;
        const HRESULT hr = stream_->Write(bytes, chunk, &written);
        streamAt_ += written;
        ThrowIfFailed(hr, "settings stream: write failed");
        if (written != chunk) ThrowHr(STG_E_MEDIUMFULL, "settings stream: write incomplete");
        bytes += chunk;
        count -= chunk;
    }
}

void CDataStream::Flush() {
    if (mode_ != Mode::kWriting || buffered_ == 0) return;
    WriteRaw(buffer_.data(), buffered_);
    buffered_ = 0;
    bufferStart_ = position_;
}

void CDataStream::WriteBytes(const void* data, std::size_t count) {
    BeginWriting();
    if (count == 0) return;
    if (buffered_ + count > kBufferSize) {
        Flush();
        if (count >= kBufferSize) {
            WriteRaw(data, count);
            position_ += count;
            bufferStart_ = position_;
            return;
        }
    }
    std::memcpy(buffer_.data() + buffered_, data, count);
    buffered_ += count;
    position_ += count;
}

void CDataStream::WriteShort(WORD value) { WriteBytes(&value, sizeof value); }
void CDataStream::WriteLong(DWORD value) { WriteBytes(&value, sizeof value); }
void CDataStream::WriteDouble(double value) { WriteBytes(&value, sizeof value); }

void CDataStream::WriteString(const OLECHAR* text, DWORD count) {
    WriteLong(count);
    WriteBytes(text, std::size_t{count} * sizeof(OLECHAR));
}

void CDataStream::ReadBytes(void* data, std::size_t count) {
    BeginReading();
    const ULONGLONG start = position_;
    const std::size_t total = count;
    auto* out = static_cast<BYTE*>(data);
    while (count > 0) {
        // From the read-ahead window when the position lies in it.
        if (position_ >= bufferStart_ && position_ < bufferStart_ + buffered_) {
            const std::size_t offset = static_cast<std::size_t>(position_ - bufferStart_);
            const std::size_t take = std::min(count, buffered_ - offset);
            std::memcpy(out, buffer_.data() + offset, take);
            out += take;
            count -= take;
            position_ += take;
            continue;
        }
        SeekStream(position_);
        if (count >= kBufferSize) {
            // Large blocks (array contents) go straight to their destination.
            while (count > 0) {
                const ULONG chunk = static_cast<ULONG>(std::min<std::size_t>(count, 0x40000000u));
                ULONG got = 0;
                const HRESULT hr = stream_->Read(out, chunk, &got);
                streamAt_ += got;
                position_ += got;
                ThrowIfFailed(hr, "settings stream: read failed");
                if (got != chunk) ThrowTruncated(start, total, position_);
                out += chunk;
                count -= chunk;
            }
            return;
        }
        ULONG got = 0;
        const HRESULT hr = stream_->Read(buffer_.data(), static_cast<ULONG>(kBufferSize), &got);
        bufferStart_ = position_;
        buffered_ = got;
        streamAt_ += got;
        ThrowIfFailed(hr, "settings stream: read failed");
        if (got == 0) ThrowTruncated(start, total, position_);
    }
}

WORD CDataStream::ReadShort() {
    WORD value = 0;
    ReadBytes(&value, sizeof value);
    return value;
}

DWORD CDataStream::ReadLong() {
    DWORD value = 0;
    ReadBytes(&value, sizeof value);
    return value;
}

double CDataStream::ReadDouble() {
    double value = 0;
    ReadBytes(&value, sizeof value);
    return value;
}

BstrPtr CDataStream::ReadString() {
    const DWORD count = ReadLong();
    if (count == 0) return nullptr;
    const ULONGLONG bytes = ULONGLONG{count} * sizeof(OLECHAR);
    Require(bytes);
    BstrPtr text(SysAllocStringLen(nullptr, count));
    if (!text) ThrowHr(E_OUTOFMEMORY, "settings stream: no memory for a string");
    ReadBytes(text.get(), static_cast<std::size_t>(bytes));
    return text;
}

void CDataStream::Skip(ULONGLONG count) { SeekTo(Position() + count); }

ULONGLONG CDataStream::Position() {
    Start();
    return position_;
}

DWORD CDataStream::Tell() {
    const ULONGLONG position = Position();
    if (position > 0xFFFFFFFFull) ThrowHr(E_FAIL, "settings stream: position beyond 4 GiB");
    return static_cast<DWORD>(position);
}

void CDataStream::SeekTo(ULONGLONG position) {
    Start();
    if (mode_ == Mode::kWriting) {
        Flush();
        bufferStart_ = position;
    }
    position_ = position;
}

void CDataStream::Require(ULONGLONG bytes) {
    if (bytes > Remaining()) ThrowTruncated(Position(), bytes, Position() + Remaining());
}

ULONGLONG CDataStream::Remaining() {
    Start();
    if (!sizeKnown_) {
        STATSTG stat{};
        if (SUCCEEDED(stream_->Stat(&stat, STATFLAG_NONAME))) {
            size_ = stat.cbSize.QuadPart;
        } else {
            ULARGE_INTEGER end{};
            ThrowIfFailed(stream_->Seek(At(0), STREAM_SEEK_END, &end), "settings stream: size unknown");
            streamAt_ = end.QuadPart;
            size_ = end.QuadPart;
        }
        sizeKnown_ = true;
    }
    return size_ > position_ ? size_ - position_ : 0;
}

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------
CRecordName::CRecordName(const CDatabaseObjectImpl& node) {
    const char* base = node.BaseName();
    const std::size_t baseLength = base ? std::strlen(base) : 0;
    if (baseLength >= kMaxNameLength) ThrowHr(E_FAIL, "a node's name is too long for a settings record");
    std::memcpy(text_, base ? base : "", baseLength);
    std::size_t length = baseLength;
    if (static_cast<DWORD>(node.Index()) != 0xFFFFFFFFu) {
        char* end = text_ + sizeof text_;
        char* at = text_ + length;
        *at++ = '[';
        at = std::to_chars(at, end - 1, static_cast<long>(node.Index())).ptr;
        *at++ = ']';
        length = static_cast<std::size_t>(at - text_);
        if (length >= kMaxNameLength) ThrowHr(E_FAIL, "a node's name is too long for a settings record");
    }
    length_ = static_cast<WORD>(length);
}

bool CRecordName::Equals(const char* text, std::size_t length) const noexcept {
    return length == length_ && std::memcmp(text, text_, length) == 0;
}

void ReadStreamMark(CDataStream& stream) {
    const ULONGLONG at = stream.Position();
    const WORD mark = stream.ReadShort();
    if (mark == kStreamMark) return;
    char text[8];
    std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(mark));
    ThrowHr(E_FAIL, "the word at " + OffsetText(at) + " is 0x" + text + ", not the settings stream mark 0x5001");
}

DWORD RecordSizeOf(CDatabaseObjectImpl& node) {
    return kRecordHeaderSize + CRecordName(node).Length() + node.PayloadSize();
}

void SaveRecord(CDataStream& stream, CDatabaseObjectImpl& node) {
    const CRecordName name(node);
    const ULONGLONG start = stream.Tell();
    const DWORD size = kRecordHeaderSize + name.Length() + node.PayloadSize();
    stream.WriteLong(size);
    stream.WriteShort(name.Length());
    stream.WriteBytes(name.Data(), name.Length());
    node.SavePayload(stream);
    if (stream.Position() != start + size) ThrowHr(E_UNEXPECTED, "a record's size differs from its payload");
}

SRecordHeader ReadRecordHeader(CDataStream& stream) {
    SRecordHeader header;
    header.start = stream.Tell();
    header.size = stream.ReadLong();
    header.nameLength = stream.ReadShort();
    const std::string record = "the record at " + OffsetText(header.start);
    if (header.nameLength >= kMaxNameLength)
        ThrowHr(E_FAIL, record + " has a name length of " + std::to_string(header.nameLength) + " (at most " +
                            std::to_string(kMaxNameLength - 1) + ")");
    if (header.size < kRecordHeaderSize + header.nameLength)
        ThrowHr(E_FAIL, record + " has the size " + std::to_string(header.size) + ", less than its own header of " +
                            std::to_string(kRecordHeaderSize + header.nameLength) + " bytes");
    // The outermost record must fit the stream, every other one the record
    // of its group.
    const bool outermost = stream.RecordEnd() == kNoRecordEnd;
    const ULONGLONG limit = outermost ? stream.Position() + stream.Remaining() : stream.RecordEnd();
    if (header.End() > limit)
        ThrowHr(E_FAIL, record + " has the size " + std::to_string(header.size) + ", which reaches past the end of " +
                            (outermost ? "the stream" : "its group's record") + " at " + OffsetText(limit));
    stream.ReadBytes(header.name, header.nameLength);
    header.name[header.nameLength] = '\0';
    return header;
}

bool RecordNames(const SRecordHeader& header, const CDatabaseObjectImpl& node) {
    return CRecordName(node).Equals(header.name, header.nameLength);
}

bool LoadNamedRecord(CDataStream& stream, CDatabaseObjectImpl& node, const SRecordHeader& header) {
    node.SetRecordPlace(static_cast<DWORD>(header.start), header.size);
    bool accepted = false;
    try {
        CDataStream::RecordScope scope(stream, header.End());
        accepted = node.LoadPayload(stream);
    } catch (const CRecordError&) {
        throw;
    } catch (const ComError& e) {
        throw CRecordError(e, header);
    }
    if (accepted && stream.Position() == header.End()) return true;
    // A payload of another length than recorded: the node's defaults come
    // back. A refused payload leaves the node as it was.
    if (accepted) ThrowIfFailed(node.Reset(), "reset after a payload of the wrong length failed");
    stream.SeekTo(header.End());
    return true;
}

}  // namespace vorn
