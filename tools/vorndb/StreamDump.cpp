// Settings stream decoder of the vorndb tool (see StreamDump.h).
#include "StreamDump.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "Common.h"
#include "Values.h"

namespace vorndb {

namespace {

using vorn::kGroupVersion;
using vorn::kMaxNameLength;
constexpr std::size_t kRecordHeader = vorn::kRecordHeaderSize;
// The top record follows the stream mark.
constexpr std::size_t kTopOffset = 2;
// A group's version and child count, before its children.
constexpr std::size_t kGroupHeader = 6;
// The low half of a ParameterIndex slot: the parameter's offset.
constexpr std::uint64_t kOffsetBits = 0xFFFFFFFF;

// The first inconsistency found; carries the offset of the bad byte.
struct DecodeError {
    std::size_t offset;
    std::string message;
};

// The name of the (whole) record at `offset`.
std::string_view NameAt(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    return {reinterpret_cast<const char*>(bytes.data() + offset + kRecordHeader),
            LoadLittleEndian<std::uint16_t>(bytes.data() + offset + 4)};
}

// Little-endian reads within [pos, end) of the stream's bytes.
class Reader {
public:
    Reader(const std::vector<std::uint8_t>& bytes, std::size_t pos, std::size_t end)
        : bytes_(bytes), pos_(pos), end_(end) {}

    std::size_t pos() const { return pos_; }
    std::size_t left() const { return end_ - pos_; }

    // Fails at the current position when fewer than n bytes are left.
    void Need(std::size_t n, const char* what) const {
        if (left() < n)
            throw DecodeError{pos_, std::string(what) + " needs " + std::to_string(n) + " bytes, only " +
                                        std::to_string(left()) + " left in the record"};
    }
    template <class T>
    T Read(const char* what) {
        Need(sizeof(T), what);
        const T v = LoadLittleEndian<T>(bytes_.data() + pos_);
        pos_ += sizeof(T);
        return v;
    }
    // The next `count` numbers, left where they are; fails at the first one
    // that is missing, as reading them one by one would.
    template <class T>
    Numbers<T> Array(std::size_t count, const char* what) {
        const std::size_t whole = std::min(count, left() / sizeof(T));
        const Numbers<T> numbers(bytes_.data() + pos_, whole);
        pos_ += whole * sizeof(T);
        if (whole < count) Need(sizeof(T), what);
        return numbers;
    }

private:
    const std::vector<std::uint8_t>& bytes_;
    std::size_t pos_;
    std::size_t end_;
};

// Fails unless the payload size is one of the layouts of the record's type.
void CheckPayloadSize(const StreamRecord& rec, std::size_t payload, std::size_t expected, const char* layout) {
    if (payload != expected)
        throw DecodeError{rec.offset, "record size " + std::to_string(rec.size) + " leaves " + std::to_string(payload) +
                                          " payload bytes; a " + layout + " has " + std::to_string(expected)};
}

void ReadStatus(Reader& in, StreamRecord& rec) {
    const std::size_t at = in.pos();
    rec.status = in.Read<std::uint16_t>("the status");
    if (rec.status != vorn::kStatusValid && rec.status != vorn::kStatusInvalid)
        throw DecodeError{at, "status " + std::to_string(rec.status) + " is neither 0 (valid) nor 1 (invalid)"};
}

void ReadParameter(Reader& in, StreamRecord& rec, std::size_t payload) {
    const std::size_t codeAt = in.pos();
    rec.typeCode = in.Read<std::uint16_t>("the type code");
    if (RecordKind(rec) == "unknown")
        throw DecodeError{codeAt, "unknown type code " + std::to_string(rec.typeCode) +
                                      " (neither a group version 1 nor 2, 4, 6, 7, 8, 9, 11)"};
    ReadStatus(in, rec);
    switch (rec.typeCode) {
        case vorn::kTypeBoolean:
            CheckPayloadSize(rec, payload, rec.valid() ? 6 : 4, rec.valid() ? "valid boolean" : "invalid boolean");
            if (rec.valid()) rec.integer = in.Read<std::uint16_t>("the boolean value");
            return;
        case vorn::kTypeInteger: {
            const std::size_t plain = rec.valid() ? 8 : 4;
            if (payload == plain + 8)
                rec.withLimits = true;
            else
                CheckPayloadSize(rec, payload, plain,
                                 rec.valid() ? "valid integer (16 with limits)" : "invalid integer (12 with limits)");
            if (rec.valid()) rec.integer = in.Read<std::uint32_t>("the integer value");
            if (rec.withLimits) {
                rec.integerMinimum = in.Read<std::uint32_t>("the minimum");
                rec.integerMaximum = in.Read<std::uint32_t>("the maximum");
            }
            return;
        }
        case vorn::kTypeReal: {
            const std::size_t plain = rec.valid() ? 14 : 4;
            if (payload == plain + 16)
                rec.withLimits = true;
            else
                CheckPayloadSize(rec, payload, plain,
                                 rec.valid() ? "valid real (30 with limits)" : "invalid real (20 with limits)");
            if (rec.valid()) {
                rec.unit = in.Read<std::uint16_t>("the unit");
                rec.real = in.Read<double>("the real value");
            }
            if (rec.withLimits) {
                rec.realMinimum = in.Read<double>("the minimum");
                rec.realMaximum = in.Read<double>("the maximum");
            }
            return;
        }
        case vorn::kTypeString:
            if (rec.valid()) {
                const std::size_t countAt = in.pos();
                const std::uint32_t count = in.Read<std::uint32_t>("the character count");
                if (in.left() != 2ull * count)
                    throw DecodeError{countAt, "string of " + std::to_string(count) + " characters needs " +
                                                   std::to_string(2ull * count) + " bytes, the record leaves " +
                                                   std::to_string(in.left())};
                const Numbers<char16_t> characters = in.Array<char16_t>(count, "a character");
                std::u16string wide(count, u'\0');
                for (std::uint32_t i = 0; i < count; ++i) wide[i] = characters[i];
                rec.text = vorn::Narrow(wide);
            } else {
                CheckPayloadSize(rec, payload, 4, "invalid string");
            }
            return;
        case vorn::kTypeIntegerArray:
        case vorn::kTypeRealArray: {
            const std::size_t countAt = in.pos();
            const std::uint32_t count = in.Read<std::uint32_t>("the element count");
            const std::size_t width = rec.typeCode == vorn::kTypeRealArray ? 8 : 4;
            if (in.left() != width * count)
                throw DecodeError{countAt, "array of " + std::to_string(count) + " elements needs " +
                                               std::to_string(width * count) + " bytes, the record leaves " +
                                               std::to_string(in.left())};
            if (width == 8)
                rec.reals = in.Array<double>(count, "an element");
            else
                rec.integers = in.Array<std::uint32_t>(count, "an element");
            return;
        }
        case vorn::kTypeBuffer: {
            const std::size_t dimsAt = in.pos();
            rec.dimensions = in.Read<std::uint16_t>("the dimension count");
            if (rec.dimensions == 0) {
                const std::size_t zeroAt = in.pos();
                if (in.Read<std::uint32_t>("the empty buffer's word") != 0)
                    throw DecodeError{zeroAt, "an empty buffer's word is not 0"};
                if (in.left() != 0)
                    throw DecodeError{in.pos(), std::to_string(in.left()) + " bytes after an empty buffer"};
                return;
            }
            if (rec.dimensions != vorn::kBufferDimensions)
                throw DecodeError{dimsAt,
                                  "buffer dimension count " + std::to_string(rec.dimensions) + " is neither 4 nor 0"};
            rec.shape = in.Array<std::uint32_t>(8, "a buffer shape word");
            if (in.left() % 4 != 0)
                throw DecodeError{in.pos(), std::to_string(in.left()) + " sample bytes are not whole 32-bit floats"};
            rec.samples = in.Array<float>(in.left() / 4, "a sample");
            return;
        }
    }
}

// Reads the record at `offset`, which must end at or before `limit`, without
// its children; at an inconsistency throws with the fields before it filled in.
void ReadRecord(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t limit, StreamRecord& rec) {
    rec.offset = offset;
    rec.size = Reader(bytes, offset, limit).Read<std::uint32_t>("the record size");
    if (rec.size < kRecordHeader)
        throw DecodeError{offset, "record size " + std::to_string(rec.size) + " is smaller than the record header (6)"};
    if (rec.size > limit - offset)
        throw DecodeError{offset, "record size " + std::to_string(rec.size) + " runs past the end of " +
                                      (offset == kTopOffset ? "the stream" : "its group") + " (" +
                                      std::to_string(limit - offset) + " bytes left)"};
    // Within the record's header, which the size covers.
    const std::uint16_t length = LoadLittleEndian<std::uint16_t>(bytes.data() + offset + 4);
    const std::size_t left = rec.size - kRecordHeader;
    if (length >= kMaxNameLength)
        throw DecodeError{offset + 4, "name length " + std::to_string(length) + " is 128 or more"};
    if (length > left)
        throw DecodeError{offset + 4, "name length " + std::to_string(length) + " runs past the record (" +
                                          std::to_string(left) + " bytes left)"};
    rec.name = NameAt(bytes, offset);
    Reader in(bytes, offset + kRecordHeader + length, offset + rec.size);
    const std::size_t payload = in.left();
    if (payload < 2) throw DecodeError{in.pos(), "the record has no room for a payload"};
    if (LoadLittleEndian<std::uint16_t>(bytes.data() + in.pos()) != kGroupVersion)
        return ReadParameter(in, rec, payload);
    rec.group = true;
    rec.version = in.Read<std::uint16_t>("the group version");
    rec.childCount = in.Read<std::uint32_t>("the child count");
}

// The end of the (whole) record at `offset`.
std::size_t RecordEnd(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    return offset + LoadLittleEndian<std::uint32_t>(bytes.data() + offset);
}

// Decodes records with their children, showing each to `visit` (when given)
// as far as it was read before throwing at an inconsistency.
struct Decoder {
    const std::vector<std::uint8_t>& bytes;
    // Where an earlier decoding of the same bytes stopped: the records shown
    // as incomplete.
    const std::vector<std::size_t>& stopped;
    const RecordVisitor* visit;
    // The records being decoded, the top one first: after a throw, those it
    // stopped in.
    std::vector<std::size_t> open;
    std::size_t records = 0, groups = 0;

    // The record at `offset`, which must end at or before `limit`.
    void Record(std::size_t offset, std::size_t limit) {
        const std::size_t depth = open.size();
        open.push_back(offset);
        StreamRecord rec;
        rec.complete = depth >= stopped.size() || stopped[depth] != offset;
        try {
            ReadRecord(bytes, offset, limit, rec);
        } catch (const DecodeError&) {
            if (visit) (*visit)(rec, depth);
            throw;
        }
        if (visit) (*visit)(rec, depth);
        ++records;
        if (rec.group) {
            ++groups;
            const std::size_t end = offset + rec.size;
            std::size_t pos = offset + kRecordHeader + rec.name.size() + kGroupHeader;
            for (std::uint32_t i = 0; i < rec.childCount; ++i) {
                if (pos == end)
                    throw DecodeError{pos, "group '" + rec.name + "' ends after " + std::to_string(i) + " of its " +
                                               std::to_string(rec.childCount) + " children"};
                if (open.size() == vorn::kMaxRecordDepth)
                    throw DecodeError{pos,
                                      "records nest deeper than " + std::to_string(vorn::kMaxRecordDepth) + " levels"};
                Record(pos, end);
                pos = RecordEnd(bytes, pos);
            }
            if (pos != end)
                throw DecodeError{pos, std::to_string(end - pos) + " bytes in group '" + rec.name + "' after its " +
                                           std::to_string(rec.childCount) + " children"};
        }
        open.pop_back();
    }
};

// `name` below the record named `prefix`; no "." after an empty prefix.
std::string Join(const std::string& prefix, const std::string& name) {
    return prefix.empty() ? name : prefix + "." + name;
}

// A record name with bytes outside printable ASCII escaped.
std::string PrintableName(const std::string& name) {
    if (name.empty()) return "<root>";
    std::string out;
    for (const char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", u);
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

// The length of the well-formed UTF-8 sequence at text[at] (a lead byte at
// or above 0xC2), or 0 when there is none.
std::size_t Utf8Sequence(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    if (length == 0 || lead > 0xF4 || at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
    const unsigned char second = byte(at + 1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) || (lead == 0xF0 && second < 0x90) ||
        (lead == 0xF4 && second >= 0x90))
        return 0;  // overlong, a surrogate, or past U+10FFFF
    return length;
}

// `text` as a JSON string. Record names (`latin1`) are 8-bit text of unknown
// encoding: bytes above 0x7F are written as U+0080..U+00FF so that the
// document stays valid UTF-8. Other text passes well-formed UTF-8 through and
// writes any other byte above 0x7F the same way (a message quoting a name).
std::string Json(const std::string& text, bool latin1 = false) {
    std::string out = "\"";
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\u%04X", u);
            out += hex;
        } else if (u < 0x80) {
            out += c;
        } else if (const std::size_t length = latin1 ? 0 : Utf8Sequence(text, at)) {
            out.append(text, at, length);
            at += length - 1;
        } else {
            out += static_cast<char>(0xC0 | (u >> 6));
            out += static_cast<char>(0x80 | (u & 0x3F));
        }
    }
    return out + "\"";
}

std::string JsonNumber(double value) {
    if (!std::isfinite(value)) return "null";
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

template <class T, class F>
std::string JsonArray(const Numbers<T>& values, F format) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) out += (i ? "," : "") + format(values[i]);
    return out + "]";
}

// A group's object is left open after "children":[.
void JsonRecord(const StreamRecord& rec, std::string& out) {
    out += "{\"offset\":" + std::to_string(rec.offset) + ",\"size\":" + std::to_string(rec.size) +
           ",\"name\":" + Json(rec.name, true) + ",\"complete\":" + (rec.complete ? "true" : "false");
    if (rec.group) {
        out += ",\"kind\":\"group\",\"version\":" + std::to_string(rec.version) +
               ",\"childCount\":" + std::to_string(rec.childCount) + ",\"children\":[";
        return;
    }
    out += ",\"code\":" + std::to_string(rec.typeCode) + ",\"kind\":" + Json(RecordKind(rec)) +
           ",\"status\":" + std::to_string(rec.status);
    auto u32 = [](std::uint32_t v) { return std::to_string(v); };
    auto f64 = [](double v) { return JsonNumber(v); };
    if (rec.complete) {
        switch (rec.typeCode) {
            case vorn::kTypeBoolean:
                if (rec.valid()) out += std::string(",\"value\":") + (rec.integer ? "true" : "false");
                break;
            case vorn::kTypeInteger:
                if (rec.valid()) out += ",\"value\":" + std::to_string(rec.integer);
                if (rec.withLimits)
                    out += ",\"minimum\":" + u32(rec.integerMinimum) + ",\"maximum\":" + u32(rec.integerMaximum);
                break;
            case vorn::kTypeReal:
                if (rec.valid())
                    out += ",\"unit\":" + std::to_string(rec.unit) + ",\"unitSymbol\":" + Json(UnitSymbol(rec.unit)) +
                           ",\"value\":" + JsonNumber(rec.real);
                if (rec.withLimits)
                    out +=
                        ",\"minimum\":" + JsonNumber(rec.realMinimum) + ",\"maximum\":" + JsonNumber(rec.realMaximum);
                break;
            case vorn::kTypeString:
                if (rec.valid()) out += ",\"value\":" + Json(rec.text);
                break;
            case vorn::kTypeIntegerArray:
                out += ",\"value\":" + JsonArray(rec.integers, u32);
                break;
            case vorn::kTypeRealArray:
                out += ",\"value\":" + JsonArray(rec.reals, f64);
                break;
            case vorn::kTypeBuffer:
                out += ",\"dimensions\":" + std::to_string(rec.dimensions) + ",\"shape\":" + JsonArray(rec.shape, u32) +
                       ",\"samples\":" + JsonArray(rec.samples, f64);
                break;
            default:
                break;
        }
    }
    out += "}";
}

}  // namespace

DecodedStream DecodeStream(std::vector<std::uint8_t> bytes) {
    DecodedStream result;
    result.bytes = std::move(bytes);
    const std::vector<std::uint8_t>& in = result.bytes;
    Decoder decoder{in, result.stopped, nullptr, {}};
    try {
        if (in.size() < 2) throw DecodeError{0, "too short for the stream mark (2 bytes)"};
        result.mark = LoadLittleEndian<std::uint16_t>(in.data());
        if (result.mark != kStreamMark) {
            char text[80];
            std::snprintf(text, sizeof text, "stream mark 0x%04X is not 0x5001", result.mark);
            throw DecodeError{0, text};
        }
        if (in.size() < kTopOffset + kRecordHeader) throw DecodeError{2, "no record after the stream mark"};
        result.hasRecord = true;
        decoder.Record(kTopOffset, in.size());
        result.trailing = in.size() - RecordEnd(in, kTopOffset);
    } catch (const DecodeError& e) {
        result.ok = false;
        result.badOffset = e.offset;
        result.error = e.message;
        result.stopped = std::move(decoder.open);
    }
    result.records = decoder.records;
    result.groups = decoder.groups;
    return result;
}

void ForEachRecord(const DecodedStream& stream, const RecordVisitor& visit) {
    if (!stream.hasRecord) return;
    Decoder decoder{stream.bytes, stream.stopped, &visit, {}};
    try {
        decoder.Record(kTopOffset, stream.bytes.size());
    } catch (const DecodeError&) {
        // Where DecodeStream stopped, for the reason it gave.
    }
}

StreamRecord TopRecord(const DecodedStream& stream) {
    StreamRecord top;
    if (stream.hasRecord) {
        try {
            ReadRecord(stream.bytes, kTopOffset, stream.bytes.size(), top);
        } catch (const DecodeError&) {
            // As far as it was read.
        }
    }
    top.complete = stream.ok;
    return top;
}

void ForEachParameter(const DecodedStream& stream, const std::string& top, const ParameterVisitor& visit) {
    std::vector<std::string> names;  // of the records walked into, by depth
    ForEachRecord(stream, [&](const StreamRecord& rec, std::size_t depth) {
        names.resize(depth);
        names.push_back(depth == 0 ? top : Join(names.back(), rec.name));
        if (!rec.group) visit(names.back(), rec);
    });
}

ParameterIndex::ParameterIndex(const DecodedStream& stream, const std::string& top) : stream_(stream), top_(top) {
    groups_.reserve(stream.groups);
    parents_.reserve(stream.groups);
    ForEachRecord(stream, [&](const StreamRecord& rec, std::size_t depth) {
        if (!rec.group) return;
        parents_.push_back(depth == 0 ? 0 : static_cast<std::uint32_t>(ParentOf(rec.offset)));
        groups_.push_back(static_cast<std::uint32_t>(rec.offset));
    });
    // At most two thirds full: a few probes a look-up, in one or two cache lines.
    slots_.assign((stream.records - stream.groups) * 3 / 2 + 1, 0);
    ForEachParameter(stream, top, [&](const std::string& fullName, const StreamRecord& rec) {
        const auto [at, tag] = Slot(fullName);
        if (slots_[at] == 0) slots_[at] = tag | rec.offset;
    });
}

std::optional<StreamRecord> ParameterIndex::Find(const std::string& fullName) const {
    const std::size_t offset = slots_[Slot(fullName).first] & kOffsetBits;
    if (offset == 0) return std::nullopt;
    StreamRecord rec;
    ReadRecord(stream_.bytes, offset, stream_.bytes.size(), rec);  // a whole record
    rec.complete = true;
    return rec;
}

std::pair<std::size_t, std::uint64_t> ParameterIndex::Slot(const std::string& fullName) const {
    const std::uint64_t hash = std::hash<std::string>{}(fullName);
    const std::uint64_t tag = hash & ~kOffsetBits;
    std::size_t at = hash % slots_.size();
    while (slots_[at] != 0 && ((slots_[at] & ~kOffsetBits) != tag || FullName(slots_[at] & kOffsetBits) != fullName))
        at = (at + 1) % slots_.size();
    return {at, tag};
}

std::size_t ParameterIndex::ParentOf(std::size_t offset) const {
    // The last group that starts before the record, or the innermost of its
    // groups that holds it.
    std::size_t g =
        static_cast<std::size_t>(std::lower_bound(groups_.begin(), groups_.end(), offset) - groups_.begin()) - 1;
    while (offset >= RecordEnd(stream_.bytes, groups_[g])) g = parents_[g];
    return g;
}

std::string ParameterIndex::FullName(std::size_t offset) const {
    if (offset == kTopOffset) return top_;
    return Join(FullName(groups_[ParentOf(offset)]), std::string(NameAt(stream_.bytes, offset)));
}

std::string RecordKind(const StreamRecord& rec) {
    if (rec.group) return "group";
    switch (rec.typeCode) {
        case vorn::kTypeBoolean:
            return "boolean";
        case vorn::kTypeInteger:
            return rec.withLimits ? "integer+limits" : "integer";
        case vorn::kTypeReal:
            return rec.withLimits ? "real+limits" : "real";
        case vorn::kTypeRealArray:
            return "real-array";
        case vorn::kTypeString:
            return "string";
        case vorn::kTypeIntegerArray:
            return "int-array";
        case vorn::kTypeBuffer:
            return "buffer";
        default:
            return "unknown";
    }
}

std::string RecordValue(const StreamRecord& rec, std::size_t maxItems) {
    std::string value;
    std::string limits;
    switch (rec.typeCode) {
        case vorn::kTypeBoolean:
            value = rec.integer ? "true" : "false";
            break;
        case vorn::kTypeInteger:
            value = std::to_string(rec.integer);
            if (rec.withLimits)
                limits = " [" + std::to_string(rec.integerMinimum) + " .. " + std::to_string(rec.integerMaximum) + "]";
            break;
        case vorn::kTypeReal:
            value = FormatReal(rec.real, rec.unit);
            // Limits carry no unit of their own: the value's, when it was stored.
            if (rec.withLimits)
                limits = " [" + FormatReal(rec.realMinimum, rec.valid() ? rec.unit : 0) + " .. " +
                         FormatReal(rec.realMaximum, rec.valid() ? rec.unit : 0) + "]";
            break;
        case vorn::kTypeString:
            value = QuoteString(rec.text);
            break;
        case vorn::kTypeIntegerArray:
            value = FormatList(
                rec.integers.size(), [&](std::size_t i) { return std::to_string(rec.integers[i]); }, maxItems);
            break;
        case vorn::kTypeRealArray:
            value = FormatList(
                rec.reals.size(), [&](std::size_t i) { return FormatReal(rec.reals[i], 0); }, maxItems);
            break;
        case vorn::kTypeBuffer:
            if (rec.dimensions == 0)
                value = "no buffer";
            else
                value = "shape " +
                        FormatList(
                            8, [&](std::size_t i) { return std::to_string(rec.shape[i]); }, 0) +
                        " samples " +
                        FormatList(
                            rec.samples.size(), [&](std::size_t i) { return FormatReal(rec.samples[i], 0); }, maxItems);
            break;
        default:
            break;
    }
    // Arrays and buffers keep their elements whatever the status.
    const bool keepsValue = rec.typeCode == vorn::kTypeIntegerArray || rec.typeCode == vorn::kTypeRealArray ||
                            rec.typeCode == vorn::kTypeBuffer;
    if (!rec.valid()) value = keepsValue ? "<invalid> " + value : "<invalid>";
    return value + limits;
}

void DumpText(const DecodedStream& stream, const TextSink& write, std::size_t maxItems) {
    char text[64];
    std::snprintf(text, sizeof text, ", mark 0x%04X", stream.mark);
    write("stream of " + std::to_string(stream.bytes.size()) + " bytes" + (stream.bytes.size() >= 2 ? text : "") +
          "\n");
    ForEachRecord(stream, [&](const StreamRecord& rec, std::size_t depth) {
        std::snprintf(text, sizeof text, "%08zX  ", rec.offset);
        std::string line = text + std::string(depth * 2, ' ') + PrintableName(rec.name);
        line += "  size " + std::to_string(rec.size);
        if (rec.group) {
            line += "  group v" + std::to_string(rec.version) + ", " + std::to_string(rec.childCount) + " children";
        } else if (rec.typeCode != 0) {
            line += "  code " + std::to_string(rec.typeCode) + " " + RecordKind(rec);
            if (rec.complete) line += "  " + RecordValue(rec, maxItems);
        }
        write(line + (rec.complete ? "\n" : "  (incomplete)\n"));
    });
    std::snprintf(text, sizeof text, "0x%zX", stream.bytes.size() - stream.trailing);
    if (stream.ok && stream.trailing)
        write(std::to_string(stream.trailing) + " bytes after the record at " + text + " (not part of the stream)\n");
}

void DumpJson(const DecodedStream& stream, const TextSink& write) {
    write("{\"length\":" + std::to_string(stream.bytes.size()) + ",\"mark\":" + std::to_string(stream.mark) +
          ",\"record\":" + (stream.hasRecord ? "" : "null"));
    std::size_t groups = 0;  // written up to their children
    bool first = true;       // of a group's children
    std::string object;
    ForEachRecord(stream, [&](const StreamRecord& rec, std::size_t depth) {
        for (; groups > depth; --groups, first = false) write("]}");
        object.assign(first ? "" : ",");
        JsonRecord(rec, object);
        write(object);
        first = rec.group;
        groups += rec.group;
    });
    for (; groups > 0; --groups) write("]}");
    write(",\"trailing\":" + std::to_string(stream.trailing) + ",\"error\":" +
          (stream.ok ? "null"
                     : "{\"offset\":" + std::to_string(stream.badOffset) + ",\"message\":" + Json(stream.error) + "}") +
          "}\n");
}

}  // namespace vorndb
