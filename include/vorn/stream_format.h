// The settings stream format: the constants every writer and reader of it
// shares, the component's own codec and the tool's decoder alike.
//
// All integers are little-endian.
//   stream  := u16 kStreamMark, one record
//   record  := u32 RecordSize (the whole record, this field included),
//              u16 NameLength (< kMaxNameLength), NameLength bytes of the
//              node's own name ("Name" or "Name[i]", no terminator), payload
//   group payload := u16 kGroupVersion, u32 child count, the children's records
//   parameter payload := u16 type code (ETypeCode), u16 status word
//              (kStatusValid or kStatusInvalid), then the value fields of the
//              type (docs/persistence.md has the field tables)
// Integer and Real codes are shared by the plain classes and their
// with-stored-limits variants, which append the limits: a stream is read by
// the class that wrote it, and a decoder without the schema tells them apart
// by the record's size. A buffer's value fields start with its dimension
// count (kBufferDimensions, or 0 for no buffer).
#pragma once

#include "vorn/platform.h"

namespace vorn {

// The first word of every settings stream.
inline constexpr WORD kStreamMark = 0x5001;
// The version word of a group payload.
inline constexpr WORD kGroupVersion = 1;
// A record name must be shorter than this.
inline constexpr WORD kMaxNameLength = 128;
// Size of the RecordSize and NameLength fields.
inline constexpr DWORD kRecordHeaderSize = 6;
// Status words of a parameter payload.
inline constexpr WORD kStatusValid = 0;
inline constexpr WORD kStatusInvalid = 1;
// Records nest at most this deep, the top record being level 1 (the tree is
// about ten levels deep): readers refuse deeper streams instead of following
// them down.
inline constexpr int kMaxRecordDepth = 32;
// The dimension count a buffer payload carries when it holds a buffer.
inline constexpr WORD kBufferDimensions = 4;

enum ETypeCode : WORD {
    kTypeBoolean = 2,
    kTypeInteger = 4,
    kTypeReal = 6,
    kTypeRealArray = 7,
    kTypeString = 8,
    kTypeIntegerArray = 9,
    kTypeBuffer = 11,
};

}  // namespace vorn
