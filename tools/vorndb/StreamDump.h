// Decoding settings streams without the schema, for `vorndb dump` and
// `vorndb diff`.
//
// A settings stream is the mark 0x5001 (u16, little-endian) and one record:
// u32 record size (the whole record, this field included), u16 name length
// (< 128), the name's bytes, then the payload. A group's payload is u16
// version 1, u32 child count and the child records; a parameter's payload
// starts with its u16 type code (2 boolean, 4 integer, 6 real, 7 real array,
// 8 string, 9 integer array, 11 buffer) and u16 status (0 valid, 1 invalid),
// followed by the value fields that its type writes. Codes 4 and 6 are shared
// by the plain types and their with-stored-limits variants, which append
// their minimum and maximum: the decoder tells them apart by the record size,
// the only place the stream says which one it is. A payload starting with 1
// is a group (1 is no type code).
//
// The decoder checks every size against the bytes that enclose it and stops
// at the first inconsistency, reporting the offset of the first byte found
// wrong (a size field that runs past its group, an unknown type code, a status
// other than 0 and 1, bytes a group does not account for). What was decoded
// up to that point is kept, so a damaged stream can still be inspected.
// Bytes after the top record are not an error: a settings file written from
// a memory block may be longer than its stream; they are counted in
// `trailing`.
//
// The decoded stream keeps its bytes and no record: records are read again,
// one at a time, whenever they are walked, their arrays left in the bytes, and
// the printers write as they walk. ParameterIndex (diff) adds 12 bytes a
// parameter and 8 a group.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Common.h"
#include "vorn/stream_format.h"

namespace vorndb {

using vorn::kStreamMark;

// A little-endian number of type T at `at`.
template <class T>
T LoadLittleEndian(const std::uint8_t* at) {
    using Bits = std::conditional_t<sizeof(T) == 8, std::uint64_t,
                                    std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint16_t>>;
    Bits v = 0;
    for (std::size_t i = sizeof(T); i-- > 0;) v = static_cast<Bits>((v << 8) | at[i]);
    return std::bit_cast<T>(v);
}

// Numbers of type T stored one after the other in a stream's bytes.
template <class T>
class Numbers {
public:
    Numbers() = default;
    Numbers(const std::uint8_t* data, std::size_t count) : data_(data), count_(count) {}
    std::size_t size() const { return count_; }
    T operator[](std::size_t i) const { return LoadLittleEndian<T>(data_ + i * sizeof(T)); }

private:
    const std::uint8_t* data_ = nullptr;
    std::size_t count_ = 0;
};

// One record of a settings stream as read from its bytes (its arrays stay in
// them). An incomplete record has the fields read before the inconsistency.
struct StreamRecord {
    std::size_t offset = 0;  // of the record's size field
    std::uint32_t size = 0;  // as stored
    std::string name;        // as stored (8-bit characters)
    bool complete = false;   // false when decoding stopped inside this record
    bool group = false;

    // Group.
    std::uint16_t version = 0;
    std::uint32_t childCount = 0;  // as stored; fewer are decoded when incomplete

    // Parameter.
    std::uint16_t typeCode = 0;
    bool withLimits = false;  // codes 4 and 6 only
    std::uint16_t status = 0;
    bool valid() const { return status == 0; }
    std::uint16_t unit = 0;           // real (valid only)
    std::uint32_t integer = 0;        // boolean (0/1 as stored), integer
    double real = 0;                  // real
    std::string text;                 // string, UTF-8
    Numbers<std::uint32_t> integers;  // integer array
    Numbers<double> reals;            // real array
    std::uint32_t integerMinimum = 0, integerMaximum = 0;
    double realMinimum = 0, realMaximum = 0;
    std::uint16_t dimensions = 0;  // buffer: 4 when it holds one, else 0
    Numbers<std::uint32_t> shape;  // buffer: the eight shape words
    Numbers<float> samples;        // buffer
};

// The outcome of decoding a whole stream, with its bytes.
struct DecodedStream {
    std::vector<std::uint8_t> bytes;
    std::uint16_t mark = 0;
    bool hasRecord = false;    // at least the top record's header was read
    std::size_t trailing = 0;  // bytes after the top record
    // The first inconsistency, when there is one.
    bool ok = true;
    std::size_t badOffset = 0;
    std::string error;
    // The offsets of the records decoding stopped in, the top record first.
    std::vector<std::size_t> stopped;
    // Whole records decoded, and groups among them.
    std::size_t records = 0, groups = 0;
};

// Decodes the bytes of a settings stream; never throws for bad input.
DecodedStream DecodeStream(std::vector<std::uint8_t> bytes);

// The top record, as far as it was read.
StreamRecord TopRecord(const DecodedStream& stream);

// Calls visit(record, depth) for every record decoded, in stream order (a
// group before its children), depth 0 being the top record.
using RecordVisitor = std::function<void(const StreamRecord& record, std::size_t depth)>;
void ForEachRecord(const DecodedStream& stream, const RecordVisitor& visit);

// Calls visit(fullName, record) for every parameter record of a whole
// stream in stream order. Its full name is the names of the records below the
// top one down to it, joined by "." to `top` (no "." after an empty name so
// far); `top` stands for the top record, whose own name is not used.
using ParameterVisitor = std::function<void(const std::string& fullName, const StreamRecord& record)>;
void ForEachParameter(const DecodedStream& stream, const std::string& top, const ParameterVisitor& visit);

// The parameters of a whole stream by full name (as ForEachParameter gives
// it): an open-addressed table of their offsets (12 bytes a parameter), and
// the groups' offsets to compose the names of the records found there
// (streams under 4 GiB).
class ParameterIndex {
public:
    ParameterIndex(const DecodedStream& stream, const std::string& top);
    // The first parameter with that full name, in stream order.
    std::optional<StreamRecord> Find(const std::string& fullName) const;

private:
    // Where `fullName` is or goes, and the tag its entry there carries.
    std::pair<std::size_t, std::uint64_t> Slot(const std::string& fullName) const;
    std::size_t ParentOf(std::size_t offset) const;
    std::string FullName(std::size_t offset) const;

    const DecodedStream& stream_;
    std::string top_;
    std::vector<std::uint32_t> groups_;   // offsets, in stream order
    std::vector<std::uint32_t> parents_;  // of each group, by index in groups_
    std::vector<std::uint64_t> slots_;    // tag (the high half of the name's hash) and offset; 0: empty
};

// The decoded stream as indented text, one line per record: offset, name,
// record size, type code and kind, status, value, limits. Arrays show at most
// `maxItems` values (0: all).
// Both write as they walk, a piece at a time.
void DumpText(const DecodedStream& stream, const TextSink& write, std::size_t maxItems = 8);
// The decoded stream as one JSON document (all values).
void DumpJson(const DecodedStream& stream, const TextSink& write);

// "integer", "integer+limits", "real", "real+limits", "boolean", "string",
// "int-array", "real-array", "buffer", "group", "unknown".
std::string RecordKind(const StreamRecord& record);
// The record's value as the tool prints values ("1.5 MHz", "true", "\"x\"",
// "[1, 2]"), "<invalid>" for an invalid parameter; limits appended as
// " [min .. max]". Arrays show at most maxItems values (0: all).
std::string RecordValue(const StreamRecord& record, std::size_t maxItems);

}  // namespace vorndb
