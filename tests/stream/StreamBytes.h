// Test support for the settings stream: golden byte streams written down
// from the format's field tables, independently of CDataStream, and memory
// streams to carry them.
//
// CBytes appends little-endian fields; Record() and GroupPayload() compose
// records the way the format describes them (RecordSize = 6 + name length +
// payload size). The payload builders follow the type-code table:
//   Boolean 2: status, [u16 value]          Integer 4: status, [u32 value]
//   Real 6: status, [u16 unit, f64 value]   String 8: status, [u32 n, n x u16]
//   arrays 7 / 9: status, u32 n, n x f64 / u32
// with the limits (u32 or f64 minimum and maximum) after the value fields of
// the with-stored-limits variants.
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vorn/platform.h"

namespace persist_test {

class CBytes {
public:
    CBytes() = default;
    explicit CBytes(std::vector<BYTE> bytes) : bytes_(std::move(bytes)) {}
    CBytes& U16(std::uint16_t v) { return Number(v, 2); }
    CBytes& U32(std::uint32_t v) { return Number(v, 4); }
    CBytes& F32(float v) { return Number(std::bit_cast<std::uint32_t>(v), 4); }
    CBytes& F64(double v) { return Number(std::bit_cast<std::uint64_t>(v), 8); }
    CBytes& Text(const std::string& narrow) {
        bytes_.insert(bytes_.end(), narrow.begin(), narrow.end());
        return *this;
    }
    CBytes& Wide(const std::u16string& text) {
        U32(static_cast<std::uint32_t>(text.size()));
        for (char16_t c : text) Number(c, 2);
        return *this;
    }
    CBytes& Append(const CBytes& other) {
        bytes_.insert(bytes_.end(), other.bytes_.begin(), other.bytes_.end());
        return *this;
    }

    std::size_t Size() const { return bytes_.size(); }
    const std::vector<BYTE>& Data() const { return bytes_; }
    std::vector<BYTE>& Data() { return bytes_; }

private:
    // Little-endian by spelling out each byte, not by the host's layout.
    CBytes& Number(std::uint64_t value, std::size_t bytes) {
        for (std::size_t i = 0; i < bytes; ++i) bytes_.push_back(static_cast<BYTE>(value >> (8 * i)));
        return *this;
    }

    std::vector<BYTE> bytes_;
};

constexpr std::uint16_t kMark = 0x5001;

// A record whose size field is `size` whatever its contents; Record() with
// the right size.
inline CBytes RecordSized(const std::string& name, const CBytes& payload, std::uint32_t size) {
    return CBytes().U32(size).U16(static_cast<std::uint16_t>(name.size())).Text(name).Append(payload);
}
inline CBytes Record(const std::string& name, const CBytes& payload) {
    return RecordSized(name, payload, static_cast<std::uint32_t>(6 + name.size() + payload.Size()));
}

inline CBytes GroupPayload(const std::vector<CBytes>& records, std::uint16_t version = 1) {
    CBytes p;
    p.U16(version).U32(static_cast<std::uint32_t>(records.size()));
    for (const CBytes& record : records) p.Append(record);
    return p;
}

// A whole stream: the mark, then one record.
inline CBytes Stream(const CBytes& record) { return CBytes().U16(kMark).Append(record); }

// The type code and status word that open every payload.
inline CBytes Head(std::uint16_t code, bool valid) { return CBytes().U16(code).U16(valid ? 0 : 1); }

inline CBytes BooleanPayload(bool valid, bool value = false) {
    CBytes p = Head(2, valid);
    return valid ? p.U16(value ? 1 : 0) : p;
}

inline CBytes IntegerPayload(bool valid, std::uint32_t value = 0) {
    CBytes p = Head(4, valid);
    return valid ? p.U32(value) : p;
}

inline CBytes IntegerSettingPayload(bool valid, std::uint32_t value, std::uint32_t minimum, std::uint32_t maximum) {
    return IntegerPayload(valid, value).U32(minimum).U32(maximum);
}

inline CBytes RealPayload(bool valid, std::uint16_t unit = 0, double value = 0) {
    CBytes p = Head(6, valid);
    return valid ? p.U16(unit).F64(value) : p;
}

inline CBytes RealSettingPayload(bool valid, std::uint16_t unit, double value, double minimum, double maximum) {
    return RealPayload(valid, unit, value).F64(minimum).F64(maximum);
}

inline CBytes StringPayload(bool valid, const std::u16string& text = u"") {
    CBytes p = Head(8, valid);
    return valid ? p.Wide(text) : p;
}

inline CBytes RealArrayPayload(bool valid, const std::vector<double>& values) {
    CBytes p = Head(7, valid).U32(static_cast<std::uint32_t>(values.size()));
    for (double v : values) p.F64(v);
    return p;
}

inline CBytes IntegerArrayPayload(bool valid, const std::vector<std::uint32_t>& values) {
    CBytes p = Head(9, valid).U32(static_cast<std::uint32_t>(values.size()));
    for (std::uint32_t v : values) p.U32(v);
    return p;
}

// A memory stream holding `bytes`, positioned at its start.
inline vorn::ComPtr<IStream> NewStream(const CBytes& bytes) {
    vorn::ComPtr<IStream> stream;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()))) return nullptr;
    ULONG written = 0;
    stream->Write(bytes.Data().data(), static_cast<ULONG>(bytes.Size()), &written);
    LARGE_INTEGER zero{};
    stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    return stream;
}

// The whole contents of a memory stream.
inline std::vector<BYTE> ContentsOf(IStream* stream) {
    HGLOBAL block = nullptr;
    if (FAILED(GetHGlobalFromStream(stream, &block))) return {};
    const auto* p = static_cast<const BYTE*>(GlobalLock(block));
    std::vector<BYTE> bytes(p, p + GlobalSize(block));
    GlobalUnlock(block);
    return bytes;
}

// The stream's current position.
inline ULONGLONG PositionOf(IStream* stream) {
    ULARGE_INTEGER at{};
    LARGE_INTEGER zero{};
    stream->Seek(zero, STREAM_SEEK_CUR, &at);
    return at.QuadPart;
}

}  // namespace persist_test
