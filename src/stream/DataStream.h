// The settings stream: CDataStream, the reader/writer every save and load of
// the tree goes through, and the record format built on it.
//
// The format is vorn/stream_format.h's. A group loads its children by name,
// so streams of an older or newer tree still load: records nobody claims are
// skipped, children without a record keep their values. The payload of each
// parameter class is written and read by the class itself (LoadPayload,
// SavePayload, PayloadSize); docs/persistence.md has the field tables.
//
// CDataStream holds a reference to one IStream for its lifetime; it is a
// short-lived local of one save or load. It buffers: a writer collects up to
// kBufferSize bytes before one IStream::Write (Flush() writes the rest and
// must end every successful save); a reader reads ahead in blocks of that
// size and, when destroyed, puts the stream's own position back where the
// reading logically stopped. Positions are 64-bit inside; Tell() reports the
// 32-bit position of the format. Every failure is thrown as ComError, with a
// reason that gives the stream offsets involved:
//   - a failing IStream call: its HRESULT;
//   - a read past the end of the stream (a truncated stream): E_FAIL;
//   - Tell() beyond 4 GiB: E_FAIL;
//   - a write that the stream takes only in part: STG_E_MEDIUMFULL;
//   - no memory for a string: E_OUTOFMEMORY.
// A CDataStream is not shared between threads; the database lock held by
// every entry point serialises the tree.
#pragma once

#include <memory>
#include <vector>

#include "core/ComError.h"
#include "vorn/platform.h"
#include "vorn/stream_format.h"

namespace vorn {

class CDatabaseObjectImpl;

// CDataStream::RecordEnd() outside any record.
inline constexpr ULONGLONG kNoRecordEnd = ~0ull;

// Owner of a BSTR read from a stream.
struct BstrFree {
    void operator()(BSTR text) const noexcept { SysFreeString(text); }
};
using BstrPtr = std::unique_ptr<OLECHAR, BstrFree>;

class CDataStream {
public:
    static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

    // Takes a reference to `stream` (not null).
    explicit CDataStream(IStream* stream) noexcept;
    // A reader puts the stream's position at the logical one (errors
    // ignored); a writer drops what was not flushed. Releases the stream.
    ~CDataStream();
    CDataStream(const CDataStream&) = delete;
    CDataStream& operator=(const CDataStream&) = delete;

    void WriteShort(WORD value);
    void WriteLong(DWORD value);
    void WriteDouble(double value);
    // `count` raw bytes, no count field.
    void WriteBytes(const void* data, std::size_t count);
    // u32 character count, then the UTF-16 characters (no terminator).
    void WriteString(const OLECHAR* text, DWORD count);
    // Writes what is buffered; a save has succeeded only after this.
    void Flush();

    WORD ReadShort();
    DWORD ReadLong();
    double ReadDouble();
    void ReadBytes(void* data, std::size_t count);
    // The inverse of WriteString: null for a count of 0, else a new BSTR of
    // that many characters. A count beyond the end of the stream is E_FAIL
    // before anything is allocated.
    BstrPtr ReadString();

    // Moves forward `count` bytes (past the end is allowed; reading there
    // fails).
    void Skip(ULONGLONG count);
    // The position as the format records it: E_FAIL beyond 32 bits.
    DWORD Tell();
    // The position without the 32-bit check.
    ULONGLONG Position();
    void SeekTo(ULONGLONG position);
    // Bytes between the position and the end of the stream (0 at or past
    // the end). The size is asked once and kept: the stream must not grow
    // while it is read.
    ULONGLONG Remaining();
    // E_FAIL (thrown, naming the position and the end) unless `bytes` more
    // can be read: a count is checked with it before anything is allocated.
    void Require(ULONGLONG bytes);

    // The end of the record whose payload is being loaded (kNoRecordEnd
    // outside any record): the records inside it must end there at the
    // latest. RecordScope sets it for the duration of one payload.
    ULONGLONG RecordEnd() const noexcept { return recordEnd_; }
    class RecordScope {
    public:
        RecordScope(CDataStream& stream, ULONGLONG end) noexcept : stream_(stream), saved_(stream.recordEnd_) {
            stream.recordEnd_ = end;
        }
        ~RecordScope() { stream_.recordEnd_ = saved_; }
        RecordScope(const RecordScope&) = delete;
        RecordScope& operator=(const RecordScope&) = delete;

    private:
        CDataStream& stream_;
        ULONGLONG saved_;
    };

private:
    enum class Mode { kIdle, kReading, kWriting };

    // Learns the stream's position on first use.
    void Start();
    void BeginReading();
    void BeginWriting();
    // Moves the underlying stream to `position` unless it is there.
    void SeekStream(ULONGLONG position);
    void WriteRaw(const void* data, std::size_t count);

    IStream* stream_;
    Mode mode_ = Mode::kIdle;
    bool started_ = false;
    ULONGLONG position_ = 0;     // the logical position
    ULONGLONG streamAt_ = 0;     // where the underlying stream stands
    ULONGLONG bufferStart_ = 0;  // stream position of buffer_[0]
    std::size_t buffered_ = 0;   // valid (reading) or pending (writing) bytes
    ULONGLONG size_ = 0;         // the stream's size, once asked
    bool sizeKnown_ = false;
    ULONGLONG recordEnd_ = kNoRecordEnd;
    std::vector<BYTE> buffer_;
};

// A node's name as its record carries it: the base name, or "%s[%d]" for an
// element of an array of like nodes. E_FAIL (thrown) for a name of 128
// bytes or more, which no reader would accept.
class CRecordName {
public:
    explicit CRecordName(const CDatabaseObjectImpl& node);
    const char* Data() const noexcept { return text_; }
    WORD Length() const noexcept { return length_; }
    bool Equals(const char* text, std::size_t length) const noexcept;

private:
    char text_[kMaxNameLength + 16];
    WORD length_ = 0;
};

// The header of a record as read from a stream.
struct SRecordHeader {
    ULONGLONG start = 0;  // position of the RecordSize field
    DWORD size = 0;
    WORD nameLength = 0;
    char name[kMaxNameLength] = {};  // terminated

    ULONGLONG End() const noexcept { return start + size; }
};

// Reads the stream mark; E_FAIL (thrown, with the word found and its
// offset) for any other word.
void ReadStreamMark(CDataStream& stream);

// Size of `node`'s record: 6 + name length + payload size.
DWORD RecordSizeOf(CDatabaseObjectImpl& node);

// Writes `node`'s record. E_UNEXPECTED when the bytes written differ from
// the size announced (the node's PayloadSize and SavePayload disagree).
void SaveRecord(CDataStream& stream, CDatabaseObjectImpl& node);

// Reads a record header at the position. E_FAIL for a name length of 128 or
// more, for a record size smaller than the header it has (such a record
// would never move the reader on), and for a record that reaches past the end
// of the record holding it, or past the end of the stream for the outermost
// record (a truncated stream fails here, before anything is loaded). Each
// byte of a stream thus belongs to one record of each level: loading is
// linear in the stream's size whatever the sizes say. The reasons give the
// record's offset.
SRecordHeader ReadRecordHeader(CDataStream& stream);

// True when the header names `node`: its record name, byte for byte.
bool RecordNames(const SRecordHeader& header, const CDatabaseObjectImpl& node);

// Loads the payload of a record whose header was read and names `node`;
// always true (the record is consumed). A payload the node refuses (another
// type or version) leaves the node as it was; one that ends elsewhere than
// the record says resets the node to its defaults. Either way the stream
// continues after the record. This is the body of LoadRecord (NodeStream.h).
// A failure inside the payload is thrown on with the record's name and
// offset before its reason ("record 'Freq' at offset 0x22 (34): ..."), by
// the innermost record only.
bool LoadNamedRecord(CDataStream& stream, CDatabaseObjectImpl& node, const SRecordHeader& header);

}  // namespace vorn
