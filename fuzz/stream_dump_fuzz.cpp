// libFuzzer target: arbitrary bytes decoded as a settings stream by the
// vorndb tool without the schema (tools/vorndb/StreamDump.h), as `vorndb
// dump` and `vorndb diff` do, then printed as text, as JSON and indexed by
// full name.
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - the decoder accounts for every byte: a stream it accepts, encoded
//     again from the decoded fields alone, gives back the bytes of its top
//     record exactly (record sizes recomputed, not copied), and `trailing`
//     counts the rest;
//   - an accepted stream has every record complete and every group all its
//     children; a refused one names an offset within the input and a reason;
//     children lie inside their group, one after the other;
//   - printing never throws, and the JSON dump is well-formed JSON in valid
//     UTF-8;
//   - diff's index finds every parameter of an accepted stream by its full
//     name, at it or at an earlier one of the same name.
// Inputs go up to the size of a whole-tree stream (-max_len=340000); the
// corpus of persistence_fuzz is a good second seed directory.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common.h"
#include "StreamDump.h"
#include "fuzz_support.h"
#include "stream/StreamBytes.h"

namespace {

using persist_test::CBytes;
using vorn::fuzz::Expect;
using vorn::fuzz::Fail;
using vorndb::StreamRecord;

bool IsLoneSurrogateAt(const std::vector<std::uint8_t>& bytes, std::size_t at, std::size_t end) {
    auto unit = [&](std::size_t i) { return static_cast<char16_t>(bytes[i] | (bytes[i + 1] << 8)); };
    const char16_t c = unit(at);
    if (c >= 0xD800 && c <= 0xDBFF) {
        if (at + 4 > end) return true;
        const char16_t next = unit(at + 2);
        return !(next >= 0xDC00 && next <= 0xDFFF);
    }
    if (c >= 0xDC00 && c <= 0xDFFF) {
        if (at < 2) return true;
        const char16_t before = unit(at - 2);
        return !(before >= 0xD800 && before <= 0xDBFF);
    }
    return false;
}

// The characters of a string record: the decoded text in UTF-16, or the
// original units when they hold a lone surrogate, which the decoded UTF-8
// text cannot carry (it shows U+FFFD instead; the count must still agree).
void EncodeText(const StreamRecord& rec, const std::vector<std::uint8_t>& original, CBytes& out) {
    const std::u16string wide = vorn::Widen(rec.text);
    const std::size_t start = rec.offset + 4 + 2 + rec.name.size() + 2 + 2 + 4;
    const std::size_t end = rec.offset + rec.size;
    Expect(wide.size() * 2 == end - start, "a string's decoded text changed its length");
    bool lone = false;
    for (std::size_t at = start; at < end && !lone; at += 2) lone = IsLoneSurrogateAt(original, at, end);
    out.U32(static_cast<std::uint32_t>(wide.size()));
    if (lone) {
        out.Data().insert(out.Data().end(), original.begin() + static_cast<std::ptrdiff_t>(start),
                          original.begin() + static_cast<std::ptrdiff_t>(end));
    } else {
        for (char16_t c : wide) out.U16(c);
    }
}

template <class T, class F>
void EncodeNumbers(const vorndb::Numbers<T>& numbers, F put) {
    for (std::size_t i = 0; i < numbers.size(); ++i) put(numbers[i]);
}

// The payload of a parameter record, from its decoded fields.
CBytes EncodeParameter(const StreamRecord& rec, const std::vector<std::uint8_t>& original) {
    CBytes body;
    body.U16(rec.typeCode).U16(rec.status);
    switch (rec.typeCode) {
        case vorn::kTypeBoolean:
            if (rec.valid()) body.U16(static_cast<std::uint16_t>(rec.integer));
            break;
        case vorn::kTypeInteger:
            if (rec.valid()) body.U32(rec.integer);
            if (rec.withLimits) body.U32(rec.integerMinimum).U32(rec.integerMaximum);
            break;
        case vorn::kTypeReal:
            if (rec.valid()) body.U16(rec.unit).F64(rec.real);
            if (rec.withLimits) body.F64(rec.realMinimum).F64(rec.realMaximum);
            break;
        case vorn::kTypeString:
            if (rec.valid()) EncodeText(rec, original, body);
            break;
        case vorn::kTypeIntegerArray:
            body.U32(static_cast<std::uint32_t>(rec.integers.size()));
            EncodeNumbers(rec.integers, [&](std::uint32_t v) { body.U32(v); });
            break;
        case vorn::kTypeRealArray:
            body.U32(static_cast<std::uint32_t>(rec.reals.size()));
            EncodeNumbers(rec.reals, [&](double v) { body.F64(v); });
            break;
        case vorn::kTypeBuffer:
            body.U16(rec.dimensions);
            if (rec.dimensions == 0) body.U32(0);
            EncodeNumbers(rec.shape, [&](std::uint32_t v) { body.U32(v); });
            EncodeNumbers(rec.samples, [&](float v) { body.F32(v); });
            break;
        default:
            Fail("an accepted record of an unknown type", std::to_string(rec.typeCode));
    }
    return body;
}

// A group being walked: its record, its children so far, where the next one
// starts and its payload encoded again.
struct OpenGroup {
    StreamRecord rec;
    std::uint32_t children = 0;
    std::size_t next = 0;
    CBytes payload;
};

// Walks the records: checks their structure (children lie inside their
// group, one after the other; an accepted stream has every record complete
// and every group all its children) and, for an accepted stream, encodes
// them again from their decoded fields alone.
CBytes CheckAndEncode(const vorndb::DecodedStream& stream) {
    std::vector<OpenGroup> open;
    CBytes top;
    auto add = [&](const std::string& name, const CBytes& payload) {
        (open.empty() ? top : open.back().payload).Append(persist_test::Record(name, payload));
    };
    auto close = [&] {
        const OpenGroup group = std::move(open.back());
        open.pop_back();
        if (stream.ok) Expect(group.children == group.rec.childCount, "a group short of its children");
        Expect(group.children <= group.rec.childCount, "a group with more children than it counts");
        add(group.rec.name, group.payload);
    };
    vorndb::ForEachRecord(stream, [&](const StreamRecord& rec, std::size_t depth) {
        while (open.size() > depth) close();
        if (stream.ok) Expect(rec.complete, "an incomplete record in an accepted stream");
        if (!open.empty()) {
            OpenGroup& group = open.back();
            ++group.children;
            Expect(rec.offset == group.next, "children do not follow one another");
            if (rec.complete)
                Expect(rec.offset + rec.size <= group.rec.offset + group.rec.size, "a child outside its group");
            group.next = rec.offset + rec.size;
        }
        if (rec.group) {
            open.push_back(
                {rec, 0, rec.offset + 4 + 2 + rec.name.size() + 2 + 4, CBytes().U16(rec.version).U32(rec.childCount)});
            return;
        }
        if (stream.ok) add(rec.name, EncodeParameter(rec, stream.bytes));
    });
    while (!open.empty()) close();
    return top;
}

// The length of the UTF-8 sequence starting at text[at] (not ASCII); 0 when
// it is malformed, overlong, a surrogate or past U+10FFFF.
std::size_t Utf8SequenceLength(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    std::uint32_t code = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        code = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        code = lead & 0x07u;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[at + i]);
        if ((c & 0xC0) != 0x80) return 0;
        code = (code << 6) | (c & 0x3Fu);
    }
    if ((length == 3 && code < 0x800) || (length == 4 && (code < 0x10000 || code > 0x10FFFF)) ||
        (code >= 0xD800 && code <= 0xDFFF))
        return 0;
    return length;
}

// A recursive-descent check of JSON text, its strings valid UTF-8.
class JsonChecker {
public:
    explicit JsonChecker(std::string_view text) : text_(text) {}

    bool Document() {
        if (!Value(0)) return false;
        Blank();
        return pos_ == text_.size();
    }

private:
    void Blank() {
        while (pos_ < text_.size() &&
               (text_[pos_] == ' ' || text_[pos_] == '\n' || text_[pos_] == '\t' || text_[pos_] == '\r'))
            ++pos_;
    }
    bool Take(char c) {
        Blank();
        if (pos_ < text_.size() && text_[pos_] == c) {
            ++pos_;
            return true;
        }
        return false;
    }
    bool Word(std::string_view word) {
        if (text_.substr(pos_, word.size()) != word) return false;
        pos_ += word.size();
        return true;
    }
    bool Digits() {
        const std::size_t start = pos_;
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
        return pos_ > start;
    }
    bool Number() {
        if (pos_ < text_.size() && text_[pos_] == '-') ++pos_;
        if (pos_ < text_.size() && text_[pos_] == '0') {
            ++pos_;
        } else if (!Digits()) {
            return false;
        }
        if (pos_ < text_.size() && text_[pos_] == '.' && (++pos_, !Digits())) return false;
        if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
            ++pos_;
            if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
            if (!Digits()) return false;
        }
        return true;
    }
    bool String() {
        if (!Take('"')) return false;
        while (pos_ < text_.size()) {
            const auto c = static_cast<unsigned char>(text_[pos_]);
            if (c == '"') {
                ++pos_;
                return true;
            }
            if (c < 0x20) return false;
            if (c >= 0x80) {
                const std::size_t length = Utf8SequenceLength(text_, pos_);
                if (length == 0) return false;
                pos_ += length;
                continue;
            }
            ++pos_;
            if (c != '\\') continue;
            if (pos_ >= text_.size()) return false;
            const char e = text_[pos_++];
            if (e == 'u') {
                for (int i = 0; i < 4; ++i, ++pos_)
                    if (pos_ >= text_.size() || !std::isxdigit(static_cast<unsigned char>(text_[pos_]))) return false;
            } else if (std::string_view("\"\\/bfnrt").find(e) == std::string_view::npos) {
                return false;
            }
        }
        return false;
    }
    bool Value(int depth) {
        Blank();
        if (pos_ >= text_.size() || depth > 100000) return false;
        switch (text_[pos_]) {
            case '{':
                ++pos_;
                if (Take('}')) return true;
                do {
                    if (!String() || !Take(':') || !Value(depth + 1)) return false;
                } while (Take(','));
                return Take('}');
            case '[':
                ++pos_;
                if (Take(']')) return true;
                do {
                    if (!Value(depth + 1)) return false;
                } while (Take(','));
                return Take(']');
            case '"':
                return String();
            case 't':
                return Word("true");
            case 'f':
                return Word("false");
            case 'n':
                return Word("null");
            default:
                return Number();
        }
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const vorndb::DecodedStream stream = vorndb::DecodeStream(std::vector<std::uint8_t>(data, data + size));
    if (stream.ok) {
        Expect(stream.hasRecord, "an accepted stream without a record");
        Expect(stream.error.empty(), "an accepted stream with an error");
        Expect(stream.trailing == size - 2 - vorndb::TopRecord(stream).size, "trailing bytes miscounted");
    } else {
        Expect(!stream.error.empty(), "a refused stream without a reason");
        Expect(stream.badOffset <= size, "a bad offset past the input");
    }
    const CBytes again = CBytes().U16(stream.mark).Append(CheckAndEncode(stream));
    if (stream.ok)
        Expect(again.Size() == size - stream.trailing && std::equal(again.Data().begin(), again.Data().end(), data),
               "the stream encoded again from its decoded fields differs");

    std::string json;
    const vorndb::TextSink toJson = [&](std::string_view piece) { json += piece; };
    vorndb::DumpJson(stream, toJson);
    if (!JsonChecker(json).Document()) Fail("the JSON dump is not well-formed JSON", json.substr(0, 2000));
    const vorndb::TextSink ignore = [](std::string_view) {};
    vorndb::DumpText(stream, ignore, 8);
    vorndb::DumpText(stream, ignore, 0);
    if (!stream.ok) return 0;
    // diff finds each parameter by its full name: the first of that name.
    const vorndb::ParameterIndex index(stream, "");
    vorndb::ForEachParameter(stream, "", [&](const std::string& name, const StreamRecord& rec) {
        const std::optional<StreamRecord> found = index.Find(name);
        Expect(found && found->offset <= rec.offset, "a parameter its index does not find");
    });
    return 0;
}
