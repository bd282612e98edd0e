// Settings stream decoder of the vorndb tool (see StreamDump.h).
#include "StreamDump.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "Common.h"
#include "Values.h"

namespace vorndb {

namespace {

using vorn::kGroupVersion;
using vorn::kMaxNameLength;
constexpr std::size_t kRecordHeader = vorn::kRecordHeaderSize;

// The first inconsistency found; carries the offset of the bad byte.
struct DecodeError {
    std::size_t offset;
    std::string message;
};

std::string Hex(std::size_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%zX", value);
    return text;
}

// Little-endian reads within [pos, end) of the stream's bytes.
class Reader {
public:
    Reader(const std::vector<std::uint8_t>& bytes, std::size_t pos, std::size_t end)
        : bytes_(bytes), pos_(pos), end_(end) {}

    std::size_t pos() const { return pos_; }
    // Continues at `pos` with `end` as the new limit.
    void Restart(std::size_t pos, std::size_t end) {
        pos_ = pos;
        end_ = end;
    }
    std::size_t left() const { return end_ - pos_; }

    // Fails at the current position when fewer than n bytes are left.
    void Need(std::size_t n, const char* what) const {
        if (left() < n)
            throw DecodeError{pos_, std::string(what) + " needs " + std::to_string(n) + " bytes, only " +
                                        std::to_string(left()) + " left in the record"};
    }
    std::uint16_t U16(const char* what) {
        Need(2, what);
        const std::uint16_t v = static_cast<std::uint16_t>(bytes_[pos_] | (bytes_[pos_ + 1] << 8));
        pos_ += 2;
        return v;
    }
    std::uint32_t U32(const char* what) {
        Need(4, what);
        std::uint32_t v = 0;
        for (int i = 3; i >= 0; --i) v = (v << 8) | bytes_[pos_ + static_cast<std::size_t>(i)];
        pos_ += 4;
        return v;
    }
    double F64(const char* what) {
        Need(8, what);
        std::uint64_t bits = 0;
        for (int i = 7; i >= 0; --i) bits = (bits << 8) | bytes_[pos_ + static_cast<std::size_t>(i)];
        pos_ += 8;
        double v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    float F32(const char* what) {
        const std::uint32_t bits = U32(what);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    std::string Bytes(std::size_t n, const char* what) {
        Need(n, what);
        std::string s(reinterpret_cast<const char*>(bytes_.data() + pos_), n);
        pos_ += n;
        return s;
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
    rec.status = in.U16("the status");
    if (rec.status != vorn::kStatusValid && rec.status != vorn::kStatusInvalid)
        throw DecodeError{at, "status " + std::to_string(rec.status) + " is neither 0 (valid) nor 1 (invalid)"};
}

void DecodeRecord(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t limit, StreamRecord& rec,
                  const char* enclosing, int depth);

void DecodeGroup(const std::vector<std::uint8_t>& bytes, Reader& in, StreamRecord& rec, std::size_t end, int depth) {
    rec.group = true;
    rec.version = in.U16("the group version");
    rec.childCount = in.U32("the child count");
    for (std::uint32_t i = 0; i < rec.childCount; ++i) {
        if (in.left() == 0)
            throw DecodeError{in.pos(), "group '" + rec.name + "' ends after " + std::to_string(i) + " of its " +
                                            std::to_string(rec.childCount) + " children"};
        if (depth == vorn::kMaxRecordDepth)
            throw DecodeError{in.pos(),
                              "records nest deeper than " + std::to_string(vorn::kMaxRecordDepth) + " levels"};
        rec.children.emplace_back();
        DecodeRecord(bytes, in.pos(), end, rec.children.back(), "its group", depth + 1);
        in.Restart(in.pos() + rec.children.back().size, end);
    }
    if (in.left() != 0)
        throw DecodeError{in.pos(), std::to_string(in.left()) + " bytes in group '" + rec.name + "' after its " +
                                        std::to_string(rec.childCount) + " children"};
}

void DecodeParameter(Reader& in, StreamRecord& rec, std::size_t payload) {
    const std::size_t codeAt = in.pos();
    rec.typeCode = in.U16("the type code");
    switch (rec.typeCode) {
        case vorn::kTypeBoolean:
            ReadStatus(in, rec);
            CheckPayloadSize(rec, payload, rec.valid() ? 6 : 4, rec.valid() ? "valid boolean" : "invalid boolean");
            if (rec.valid()) rec.integer = in.U16("the boolean value");
            return;
        case vorn::kTypeInteger: {
            ReadStatus(in, rec);
            const std::size_t plain = rec.valid() ? 8 : 4;
            if (payload == plain + 8)
                rec.withLimits = true;
            else
                CheckPayloadSize(rec, payload, plain,
                                 rec.valid() ? "valid integer (16 with limits)" : "invalid integer (12 with limits)");
            if (rec.valid()) rec.integer = in.U32("the integer value");
            if (rec.withLimits) {
                rec.integerMinimum = in.U32("the minimum");
                rec.integerMaximum = in.U32("the maximum");
            }
            return;
        }
        case vorn::kTypeReal: {
            ReadStatus(in, rec);
            const std::size_t plain = rec.valid() ? 14 : 4;
            if (payload == plain + 16)
                rec.withLimits = true;
            else
                CheckPayloadSize(rec, payload, plain,
                                 rec.valid() ? "valid real (30 with limits)" : "invalid real (20 with limits)");
            if (rec.valid()) {
                rec.unit = in.U16("the unit");
                rec.real = in.F64("the real value");
            }
            if (rec.withLimits) {
                rec.realMinimum = in.F64("the minimum");
                rec.realMaximum = in.F64("the maximum");
            }
            return;
        }
        case vorn::kTypeString:
            ReadStatus(in, rec);
            if (rec.valid()) {
                const std::size_t countAt = in.pos();
                const std::uint32_t count = in.U32("the character count");
                if (in.left() != 2ull * count)
                    throw DecodeError{countAt, "string of " + std::to_string(count) + " characters needs " +
                                                   std::to_string(2ull * count) + " bytes, the record leaves " +
                                                   std::to_string(in.left())};
                std::u16string wide(count, u'\0');
                for (std::uint32_t i = 0; i < count; ++i) wide[i] = static_cast<char16_t>(in.U16("a character"));
                rec.text = vorn::Narrow(wide);
            } else {
                CheckPayloadSize(rec, payload, 4, "invalid string");
            }
            return;
        case vorn::kTypeIntegerArray:
        case vorn::kTypeRealArray: {
            ReadStatus(in, rec);
            const std::size_t countAt = in.pos();
            const std::uint32_t count = in.U32("the element count");
            const std::size_t width = rec.typeCode == vorn::kTypeRealArray ? 8 : 4;
            if (in.left() != width * count)
                throw DecodeError{countAt, "array of " + std::to_string(count) + " elements needs " +
                                               std::to_string(width * count) + " bytes, the record leaves " +
                                               std::to_string(in.left())};
            for (std::uint32_t i = 0; i < count; ++i) {
                if (width == 8)
                    rec.reals.push_back(in.F64("an element"));
                else
                    rec.integers.push_back(in.U32("an element"));
            }
            return;
        }
        case vorn::kTypeBuffer: {
            ReadStatus(in, rec);
            const std::size_t dimsAt = in.pos();
            rec.dimensions = in.U16("the dimension count");
            if (rec.dimensions == 0) {
                const std::size_t zeroAt = in.pos();
                if (in.U32("the empty buffer's word") != 0)
                    throw DecodeError{zeroAt, "an empty buffer's word is not 0"};
                if (in.left() != 0)
                    throw DecodeError{in.pos(), std::to_string(in.left()) + " bytes after an empty buffer"};
                return;
            }
            if (rec.dimensions != vorn::kBufferDimensions)
                throw DecodeError{dimsAt,
                                  "buffer dimension count " + std::to_string(rec.dimensions) + " is neither 4 nor 0"};
            for (int i = 0; i < 8; ++i) rec.shape.push_back(in.U32("a buffer shape word"));
            if (in.left() % 4 != 0)
                throw DecodeError{in.pos(), std::to_string(in.left()) + " sample bytes are not whole 32-bit floats"};
            while (in.left() != 0) rec.samples.push_back(in.F32("a sample"));
            return;
        }
        default:
            throw DecodeError{codeAt, "unknown type code " + std::to_string(rec.typeCode) +
                                          " (neither a group version 1 nor 2, 4, 6, 7, 8, 9, 11)"};
    }
}

// Decodes the record at `offset`, which must end at or before `limit`, at
// nesting level `depth` (the top record is 1).
void DecodeRecord(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t limit, StreamRecord& rec,
                  const char* enclosing, int depth) {
    rec.offset = offset;
    Reader in(bytes, offset, limit);
    rec.size = in.U32("the record size");
    if (rec.size < kRecordHeader)
        throw DecodeError{offset, "record size " + std::to_string(rec.size) + " is smaller than the record header (6)"};
    if (rec.size > limit - offset)
        throw DecodeError{offset, "record size " + std::to_string(rec.size) + " runs past the end of " + enclosing +
                                      " (" + std::to_string(limit - offset) + " bytes left)"};
    const std::size_t end = offset + rec.size;
    in.Restart(offset + 4, end);
    const std::size_t lengthAt = in.pos();
    const std::uint16_t length = in.U16("the name length");
    if (length >= kMaxNameLength)
        throw DecodeError{lengthAt, "name length " + std::to_string(length) + " is 128 or more"};
    if (length > in.left())
        throw DecodeError{lengthAt, "name length " + std::to_string(length) + " runs past the record (" +
                                        std::to_string(in.left()) + " bytes left)"};
    rec.name = in.Bytes(length, "the name");
    const std::size_t payload = in.left();
    if (payload < 2) throw DecodeError{in.pos(), "the record has no room for a payload"};
    const std::uint16_t first = static_cast<std::uint16_t>(bytes[in.pos()] | (bytes[in.pos() + 1] << 8));
    if (first == kGroupVersion)
        DecodeGroup(bytes, in, rec, end, depth);
    else
        DecodeParameter(in, rec, payload);
    rec.complete = true;
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

std::string Json(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\u%04X", u);
            out += hex;
        } else {
            out += c;
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

// Record names are 8-bit text of unknown encoding: bytes above 0x7F are
// written as \u00XX so that the document stays valid UTF-8.
std::string JsonName(const std::string& name) {
    std::string latin;
    for (const char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x80) {
            latin += c;
        } else {
            latin += static_cast<char>(0xC0 | (u >> 6));
            latin += static_cast<char>(0x80 | (u & 0x3F));
        }
    }
    return Json(latin);
}

void DumpRecord(const StreamRecord& rec, int depth, std::size_t maxItems, std::string& out) {
    char head[32];
    std::snprintf(head, sizeof head, "%08zX  ", rec.offset);
    out += head;
    out += std::string(static_cast<std::size_t>(depth) * 2, ' ') + PrintableName(rec.name);
    out += "  size " + std::to_string(rec.size);
    if (rec.group) {
        out += "  group v" + std::to_string(rec.version) + ", " + std::to_string(rec.childCount) + " children";
    } else if (rec.typeCode != 0) {
        out += "  code " + std::to_string(rec.typeCode) + " " + RecordKind(rec);
        if (rec.complete) out += "  " + RecordValue(rec, maxItems);
    }
    if (!rec.complete) out += "  (incomplete)";
    out += "\n";
    for (const StreamRecord& child : rec.children) DumpRecord(child, depth + 1, maxItems, out);
}

template <class T, class F>
std::string JsonArray(const std::vector<T>& values, F format) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) out += (i ? "," : "") + format(values[i]);
    return out + "]";
}

void JsonRecord(const StreamRecord& rec, std::string& out) {
    out += "{\"offset\":" + std::to_string(rec.offset) + ",\"size\":" + std::to_string(rec.size) +
           ",\"name\":" + JsonName(rec.name) + ",\"complete\":" + (rec.complete ? "true" : "false");
    if (rec.group) {
        out += ",\"kind\":\"group\",\"version\":" + std::to_string(rec.version) +
               ",\"childCount\":" + std::to_string(rec.childCount) + ",\"children\":[";
        for (std::size_t i = 0; i < rec.children.size(); ++i) {
            if (i) out += ",";
            JsonRecord(rec.children[i], out);
        }
        out += "]}";
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
                       ",\"samples\":" + JsonArray(rec.samples, [](float v) { return JsonNumber(v); });
                break;
            default:
                break;
        }
    }
    out += "}";
}

void Flatten(const StreamRecord& rec, const std::string& prefix,
             std::vector<std::pair<std::string, std::string>>& out) {
    if (!rec.group) {
        out.emplace_back(prefix.empty() ? rec.name : prefix, RecordValue(rec, 0));
        return;
    }
    for (const StreamRecord& child : rec.children)
        Flatten(child, prefix.empty() ? child.name : prefix + "." + child.name, out);
}

}  // namespace

DecodedStream DecodeStream(const std::vector<std::uint8_t>& bytes) {
    DecodedStream result;
    result.length = bytes.size();
    try {
        Reader in(bytes, 0, bytes.size());
        if (bytes.size() < 2) throw DecodeError{0, "too short for the stream mark (2 bytes)"};
        result.mark = in.U16("the stream mark");
        if (result.mark != kStreamMark) {
            char text[80];
            std::snprintf(text, sizeof text, "stream mark 0x%04X is not 0x5001", result.mark);
            throw DecodeError{0, text};
        }
        if (bytes.size() < 2 + kRecordHeader) throw DecodeError{2, "no record after the stream mark"};
        result.hasRecord = true;
        DecodeRecord(bytes, 2, bytes.size(), result.record, "the stream", 1);
        result.trailing = bytes.size() - 2 - result.record.size;
    } catch (const DecodeError& e) {
        result.ok = false;
        result.badOffset = e.offset;
        result.error = e.message;
    }
    return result;
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
        case vorn::kTypeRealArray: {
            std::vector<std::string> items;
            for (const std::uint32_t v : rec.integers) items.push_back(std::to_string(v));
            for (const double v : rec.reals) items.push_back(FormatReal(v, 0));
            value = FormatList(items, maxItems);
            break;
        }
        case vorn::kTypeBuffer:
            if (rec.dimensions == 0) {
                value = "no buffer";
            } else {
                std::vector<std::string> shape, samples;
                for (const std::uint32_t v : rec.shape) shape.push_back(std::to_string(v));
                for (const float v : rec.samples) samples.push_back(FormatReal(v, 0));
                value = "shape " + FormatList(shape, 0) + " samples " + FormatList(samples, maxItems);
            }
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

std::string DumpText(const DecodedStream& stream, std::size_t maxItems) {
    std::string out = "stream of " + std::to_string(stream.length) + " bytes";
    char mark[32];
    std::snprintf(mark, sizeof mark, ", mark 0x%04X\n", stream.mark);
    if (stream.length >= 2)
        out += mark;
    else
        out += "\n";
    if (stream.hasRecord) DumpRecord(stream.record, 0, maxItems, out);
    if (stream.ok && stream.trailing)
        out += std::to_string(stream.trailing) + " bytes after the record at " + Hex(stream.length - stream.trailing) +
               " (not part of the stream)\n";
    return out;
}

std::string DumpJson(const DecodedStream& stream) {
    std::string out =
        "{\"length\":" + std::to_string(stream.length) + ",\"mark\":" + std::to_string(stream.mark) + ",\"record\":";
    if (stream.hasRecord)
        JsonRecord(stream.record, out);
    else
        out += "null";
    out += ",\"trailing\":" + std::to_string(stream.trailing) + ",\"error\":";
    if (stream.ok)
        out += "null";
    else
        out += "{\"offset\":" + std::to_string(stream.badOffset) + ",\"message\":" + Json(stream.error) + "}";
    return out + "}\n";
}

std::vector<std::pair<std::string, std::string>> FlattenStream(const StreamRecord& top) {
    std::vector<std::pair<std::string, std::string>> out;
    Flatten(top, top.group ? std::string() : top.name, out);
    return out;
}

}  // namespace vorndb
