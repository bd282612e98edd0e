// Decoding settings streams without the schema: every parameter layout
// (including the with-stored-limits variants that only the record size
// reveals), the text and JSON output, parameters by full name for diff, and
// the first bad byte of damaged streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>

#include "StreamDump.h"
#include "stream/StreamBytes.h"

namespace vorndb {
namespace {

using namespace persist_test;

// Offsets of interesting places in the sample stream.
struct Sample {
    std::vector<std::uint8_t> bytes;
    std::size_t integer = 0;     // the plain integer's record
    std::size_t realLimits = 0;  // the real with limits
    std::size_t text = 0;        // the string's record
};

// The offset of the record named `name` (its size field) in `bytes`.
std::size_t OffsetOf(const std::vector<std::uint8_t>& bytes, const std::string& name) {
    const std::vector<std::uint8_t> key = CBytes().U16(static_cast<std::uint16_t>(name.size())).Text(name).Data();
    return static_cast<std::size_t>(std::search(bytes.begin(), bytes.end(), key.begin(), key.end()) - bytes.begin()) -
           4;
}

// `bytes` with the little-endian field of `width` bytes at `at` set to `v`.
std::vector<std::uint8_t> Patched(std::vector<std::uint8_t> bytes, std::size_t at, std::uint32_t v, int width) {
    for (int i = 0; i < width; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
    return bytes;
}

// The root (unnamed) with one parameter of every layout and a nested group.
Sample MakeSample() {
    CBytes buffer = Head(11, true).U16(4);
    for (std::uint32_t w : {16u, 2u, 2u, 4u, 0u, 0u, 1u, 1u}) buffer.U32(w);
    buffer.F32(0.5f).F32(1.5f);
    Sample s;
    s.bytes = Stream(Record("", GroupPayload({
                                    Record("On", BooleanPayload(true, true)),
                                    Record("OffInvalid", BooleanPayload(false)),
                                    Record("Count", IntegerPayload(true, 42)),
                                    Record("Steps", IntegerSettingPayload(true, 7, 1, 10)),
                                    Record("StepsInvalid", IntegerPayload(false).U32(1).U32(10)),
                                    Record("Freq", RealPayload(true, 4, 1.5e6)),
                                    Record("Level", RealSettingPayload(true, 5, -30, -100, 30)),
                                    Record("LevelInvalid", RealPayload(false).F64(-100).F64(30)),
                                    Record("Title", StringPayload(true, u"A\u00e9\"")),
                                    Record("Trace", RealArrayPayload(true, {1.25, -2})),
                                    Record("Empty", RealArrayPayload(false, {})),
                                    Record("Table", IntegerArrayPayload(true, {1, 2, 3})),
                                    Record("NoBuffer", Head(11, false).U16(0).U32(0)),
                                    Record("Inner[2]", GroupPayload({Record("Samples", buffer)})),
                                })))
                  .Data();
    s.integer = OffsetOf(s.bytes, "Count");
    s.realLimits = OffsetOf(s.bytes, "Level");
    s.text = OffsetOf(s.bytes, "Title");
    return s;
}

std::map<std::string, StreamRecord> ByName(const DecodedStream& s) {
    std::map<std::string, StreamRecord> records;
    ForEachRecord(s, [&](const StreamRecord& rec, std::size_t) { records.emplace(rec.name, rec); });
    return records;
}

std::string Text(const DecodedStream& s) {
    std::string text;
    DumpText(s, [&](std::string_view piece) { text += piece; });
    return text;
}

std::string Json(const DecodedStream& s) {
    std::string json;
    DumpJson(s, [&](std::string_view piece) { json += piece; });
    return json;
}

TEST(DecodeStream, EveryParameterLayoutAsText) {
    const DecodedStream s = DecodeStream(MakeSample().bytes);
    ASSERT_TRUE(s.ok) << s.error << " at " << s.badOffset;
    // Codes 4 and 6 with stored limits are recognised by the record size
    // only; a group's children are one level deeper.
    EXPECT_EQ(Text(s),
              "stream of 440 bytes, mark 0x5001\n"
              "00000002  <root>  size 438  group v1, 14 children\n"
              "0000000E    On  size 14  code 2 boolean  true\n"
              "0000001C    OffInvalid  size 20  code 2 boolean  <invalid>\n"
              "00000030    Count  size 19  code 4 integer  42\n"
              "00000043    Steps  size 27  code 4 integer+limits  7 [1 .. 10]\n"
              "0000005E    StepsInvalid  size 30  code 4 integer+limits  <invalid> [1 .. 10]\n"
              "0000007C    Freq  size 24  code 6 real  1.5 MHz\n"
              "00000094    Level  size 41  code 6 real+limits  -30 dBm [-100 dBm .. 30 dBm]\n"
              "000000BD    LevelInvalid  size 38  code 6 real+limits  <invalid> [-100 .. 30]\n"
              "000000E3    Title  size 25  code 8 string  \"A\xC3\xA9\\\"\"\n"
              "000000FC    Trace  size 35  code 7 real-array  [1.25, -2]\n"
              "0000011F    Empty  size 19  code 7 real-array  <invalid> []\n"
              "00000132    Table  size 31  code 9 int-array  [1, 2, 3]\n"
              "00000151    NoBuffer  size 24  code 11 buffer  <invalid> no buffer\n"
              "00000169    Inner[2]  size 79  group v1, 1 children\n"
              "0000017D      Samples  size 59  code 11 buffer  shape [16, 2, 2, 4, 0, 0, 1, 1] samples [0.5, 1.5]\n");
    EXPECT_EQ(RecordValue(ByName(s).at("Table"), 2), "[1, 2, ...] (3 items)");
}

TEST(DecodeStream, JsonAndFlatOutput) {
    Sample sample = MakeSample();
    const DecodedStream s = DecodeStream(sample.bytes);
    const std::string json = Json(s);
    EXPECT_NE(json.find("\"name\":\"Level\",\"complete\":true,\"code\":6,\"kind\":\"real+limits\",\"status\":0,"
                        "\"unit\":5,\"unitSymbol\":\"dBm\",\"value\":-30,\"minimum\":-100,\"maximum\":30"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"value\":\"A\xC3\xA9\\\"\""), std::string::npos) << json;

    // For diff: full names below the top record.
    std::vector<std::pair<std::string, std::string>> flat;
    ForEachParameter(
        s, "", [&](const std::string& name, const StreamRecord& rec) { flat.emplace_back(name, RecordValue(rec, 0)); });
    ASSERT_EQ(flat.size(), 14u);
    EXPECT_EQ(flat.front(), (std::pair<std::string, std::string>{"On", "true"}));
    EXPECT_EQ(flat.back().first, "Inner[2].Samples");

    // Bytes after the record are counted, not an error.
    sample.bytes.insert(sample.bytes.end(), 5, 0);
    const DecodedStream trailing = DecodeStream(sample.bytes);
    EXPECT_TRUE(trailing.ok);
    EXPECT_EQ(trailing.trailing, 5u);
    EXPECT_NE(Text(trailing).find("5 bytes after the record"), std::string::npos);
}

TEST(DecodeStream, ParametersByFullName) {
    // Names with dots, the same full name twice, and a record after a sibling
    // group's subtree.
    const auto integer = [](const std::string& name, std::uint32_t value) {
        return Record(name, IntegerPayload(true, value));
    };
    const std::vector<std::uint8_t> bytes =
        Stream(Record("", GroupPayload({Record("a", GroupPayload({integer("b.c", 1), integer("x", 2)})),
                                        Record("a.b", GroupPayload({integer("c", 3)})), integer("x", 4),
                                        Record("a", GroupPayload({integer("x", 5)}))})))
            .Data();
    const DecodedStream s = DecodeStream(bytes);
    ASSERT_TRUE(s.ok) << s.error;
    const ParameterIndex index(s, "");
    const std::pair<const char*, const char*> cases[] = {{"a.b.c", "1"}, {"a.x", "2"},  {"x", "4"},
                                                         {"a", "none"},  {"c", "none"}, {"", "none"}};
    for (const auto& [name, value] : cases) {
        const std::optional<StreamRecord> found = index.Find(name);
        EXPECT_EQ(found ? RecordValue(*found, 0) : "none", value) << name;
    }
}

TEST(DamagedStream, TheFirstBadFieldIsReported) {
    const Sample sample = MakeSample();
    const std::size_t nameLength = sample.integer + 4;
    const std::size_t typeCode = sample.integer + 6 + 5;
    const std::size_t textCount = sample.text + 6 + 5 + 4;
    const auto patched = [&](std::size_t at, std::uint32_t v, int width) {
        return Patched(sample.bytes, at, v, width);
    };
    // An integer record two bytes longer than any integer layout (the group
    // sizes grow with it, so only the integer is wrong).
    const std::vector<std::uint8_t> longInteger =
        Stream(Record("", GroupPayload({Record("Count", IntegerPayload(true, 42).U16(0))}))).Data();
    const std::size_t integer = OffsetOf(longInteger, "Count");
    // More children announced than present, and bytes left over after them.
    const std::vector<std::uint8_t> missing =
        Stream(Record("G", CBytes().U16(1).U32(3).Append(Record("A", BooleanPayload(false))))).Data();
    const std::vector<std::uint8_t> extra =
        Stream(Record("G", GroupPayload({Record("A", BooleanPayload(false))}).U16(0))).Data();
    const std::size_t extraAt = extra.size() - 2;

    const struct {
        const char* what;
        std::vector<std::uint8_t> bytes;
        std::size_t offset;
        const char* message;
    } cases[] = {
        {"empty", {}, 0, ""},
        {"half a mark", {0x01}, 0, ""},
        {"another mark", {0x02, 0x50, 0, 0, 0, 0, 0, 0}, 0, ""},
        {"the mark alone", {0x01, 0x50}, 2, ""},
        {"cut short", {sample.bytes.begin(), sample.bytes.end() - 3}, 2, "runs past the end of the stream"},
        {"name length", patched(nameLength, 128, 2), nameLength, "128 or more"},
        {"type code", patched(typeCode, 5, 2), typeCode, "unknown type code 5"},
        {"status", patched(typeCode + 2, 7, 2), typeCode + 2, ""},
        {"child past its group", patched(sample.integer, 5000, 4), sample.integer, "past the end of its group"},
        {"string count", patched(textCount, 4, 4), textCount, ""},
        {"payload size", longInteger, integer, "valid integer"},
        {"children missing", missing, missing.size(), ""},
        {"bytes left over", extra, extraAt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const DecodedStream s = DecodeStream(c.bytes);
        EXPECT_FALSE(s.ok);
        EXPECT_EQ(s.badOffset, c.offset);
        EXPECT_NE(s.error.find(c.message), std::string::npos) << s.error;
    }
}

TEST(DamagedStream, WhatWasDecodedBeforeTheErrorIsKept) {
    const Sample sample = MakeSample();
    const DecodedStream s = DecodeStream(Patched(sample.bytes, sample.realLimits + 6 + 5, 99, 2));  // Level's type code
    ASSERT_FALSE(s.ok);
    std::vector<StreamRecord> children;
    ForEachRecord(s, [&](const StreamRecord& rec, std::size_t depth) {
        if (depth == 1) children.push_back(rec);
    });
    EXPECT_FALSE(TopRecord(s).complete);
    ASSERT_EQ(children.size(), 7u);  // On .. Freq, then Level
    EXPECT_TRUE(children[5].complete);
    EXPECT_FALSE(children[6].complete);
    EXPECT_EQ(children[6].name, "Level");
    // The text and JSON of a damaged stream are checked end to end (test_e2e.py, DumpTests).
    const std::string text = Text(s);
    EXPECT_NE(text.find("Freq  size 24  code 6 real  1.5 MHz"), std::string::npos) << text;
}

}  // namespace
}  // namespace vorndb
