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
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vorn/stream_format.h"

namespace vorndb {

using vorn::kStreamMark;

// One record of a settings stream.
struct StreamRecord {
    std::size_t offset = 0;  // of the record's size field
    std::uint32_t size = 0;  // as stored
    std::string name;        // as stored (8-bit characters)
    bool complete = false;   // false when decoding stopped inside this record
    bool group = false;

    // Group.
    std::uint16_t version = 0;
    std::uint32_t childCount = 0;  // as stored; children may hold fewer when incomplete
    std::vector<StreamRecord> children;

    // Parameter.
    std::uint16_t typeCode = 0;
    bool withLimits = false;  // codes 4 and 6 only
    std::uint16_t status = 0;
    bool valid() const { return status == 0; }
    std::uint16_t unit = 0;               // real (valid only)
    std::uint32_t integer = 0;            // boolean (0/1 as stored), integer
    double real = 0;                      // real
    std::string text;                     // string, UTF-8
    std::vector<std::uint32_t> integers;  // integer array
    std::vector<double> reals;            // real array
    std::uint32_t integerMinimum = 0, integerMaximum = 0;
    double realMinimum = 0, realMaximum = 0;
    std::uint16_t dimensions = 0;      // buffer: 4 when it holds one, else 0
    std::vector<std::uint32_t> shape;  // buffer: the eight shape words
    std::vector<float> samples;        // buffer
};

// The result of decoding a whole stream.
struct DecodedStream {
    std::size_t length = 0;  // bytes given
    std::uint16_t mark = 0;
    bool hasRecord = false;  // at least the top record's header was read
    StreamRecord record;
    std::size_t trailing = 0;  // bytes after the top record
    // The first inconsistency, when there is one.
    bool ok = true;
    std::size_t badOffset = 0;
    std::string error;
};

// Decodes the bytes of a settings stream; never throws for bad input.
DecodedStream DecodeStream(const std::vector<std::uint8_t>& bytes);

// The decoded stream as indented text, one line per record: offset, name,
// record size, type code and kind, status, value, limits. Arrays show at most
// `maxItems` values (0: all).
std::string DumpText(const DecodedStream& stream, std::size_t maxItems = 8);
// The decoded stream as one JSON document (all values).
std::string DumpJson(const DecodedStream& stream);

// "integer", "integer+limits", "real", "real+limits", "boolean", "string",
// "int-array", "real-array", "buffer", "group", "unknown".
std::string RecordKind(const StreamRecord& record);
// The record's value as the tool prints values ("1.5 MHz", "true", "\"x\"",
// "[1, 2]"), "<invalid>" for an invalid parameter; limits appended as
// " [min .. max]". Arrays show at most maxItems values (0: all).
std::string RecordValue(const StreamRecord& record, std::size_t maxItems);

// Every parameter record below the top record with its full name (names
// joined by "." from below the top record; the top record's own name when it
// is a parameter) and its value as RecordValue prints it with all items.
std::vector<std::pair<std::string, std::string>> FlattenStream(const StreamRecord& top);

}  // namespace vorndb
