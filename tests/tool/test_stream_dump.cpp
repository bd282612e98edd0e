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
    std::size_t inner = 0;       // the nested group's record
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
    s.inner = OffsetOf(s.bytes, "Inner[2]");
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

TEST(DecodeStream, EveryParameterLayout) {
    const Sample sample = MakeSample();
    const DecodedStream s = DecodeStream(sample.bytes);
    ASSERT_TRUE(s.ok) << s.error << " at " << s.badOffset;
    EXPECT_EQ(s.mark, 0x5001);
    EXPECT_EQ(s.trailing, 0u);
    const auto records = ByName(s);
    const StreamRecord& root = records.at("");
    EXPECT_TRUE(root.group);
    EXPECT_EQ(root.offset, 2u);
    EXPECT_EQ(root.size, sample.bytes.size() - 2);
    EXPECT_EQ(root.childCount, 14u);

    EXPECT_EQ(RecordValue(records.at("On"), 0), "true");
    EXPECT_EQ(RecordValue(records.at("OffInvalid"), 0), "<invalid>");
    const StreamRecord& count = records.at("Count");
    EXPECT_EQ(count.offset, sample.integer);
    EXPECT_EQ(count.size, 6u + 5u + 8u);
    EXPECT_FALSE(count.withLimits);
    EXPECT_EQ(RecordValue(count, 0), "42");
    // Codes 4 and 6 with stored limits are recognised by the record size only.
    EXPECT_EQ(RecordKind(records.at("Steps")), "integer+limits");
    EXPECT_EQ(RecordValue(records.at("Steps"), 0), "7 [1 .. 10]");
    EXPECT_EQ(RecordKind(records.at("StepsInvalid")), "integer+limits");
    EXPECT_EQ(RecordValue(records.at("StepsInvalid"), 0), "<invalid> [1 .. 10]");
    EXPECT_EQ(RecordKind(records.at("Freq")), "real");
    EXPECT_EQ(RecordValue(records.at("Freq"), 0), "1.5 MHz");
    EXPECT_EQ(RecordKind(records.at("Level")), "real+limits");
    EXPECT_EQ(RecordValue(records.at("Level"), 0), "-30 dBm [-100 dBm .. 30 dBm]");
    EXPECT_EQ(RecordKind(records.at("LevelInvalid")), "real+limits");
    EXPECT_EQ(RecordValue(records.at("Title"), 0), "\"A\xC3\xA9\\\"\"");
    EXPECT_EQ(RecordValue(records.at("Trace"), 0), "[1.25, -2]");
    EXPECT_EQ(RecordValue(records.at("Empty"), 0), "<invalid> []");
    EXPECT_EQ(RecordValue(records.at("Table"), 2), "[1, 2, ...] (3 items)");
    EXPECT_EQ(RecordValue(records.at("NoBuffer"), 0), "<invalid> no buffer");
    const StreamRecord& samples = records.at("Samples");
    EXPECT_EQ(RecordKind(samples), "buffer");
    EXPECT_EQ(samples.shape.size(), 8u);
    ASSERT_EQ(samples.samples.size(), 2u);
    EXPECT_EQ(samples.samples[1], 1.5f);
}

TEST(DecodeStream, TextJsonAndFlatOutput) {
    Sample sample = MakeSample();
    const DecodedStream s = DecodeStream(sample.bytes);
    const std::string text = Text(s);
    EXPECT_NE(text.find("mark 0x5001"), std::string::npos) << text;
    EXPECT_NE(text.find("00000002  <root>  size"), std::string::npos) << text;
    EXPECT_NE(text.find("  Level  size 41  code 6 real+limits  -30 dBm [-100 dBm .. 30 dBm]"), std::string::npos)
        << text;
    EXPECT_NE(text.find("    Samples  size"), std::string::npos) << text;  // nested one level deeper
    const std::string json = Json(s);
    EXPECT_NE(json.find("\"name\":\"Level\",\"complete\":true,\"code\":6,\"kind\":\"real+limits\",\"status\":0,"
                        "\"unit\":5,\"unitSymbol\":\"dBm\",\"value\":-30,\"minimum\":-100,\"maximum\":30"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"value\":\"A\xC3\xA9\\\"\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"error\":null"), std::string::npos);

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
    const std::string text = Text(s);
    EXPECT_NE(text.find("Freq  size 24  code 6 real  1.5 MHz"), std::string::npos) << text;
    EXPECT_NE(text.find("(incomplete)"), std::string::npos) << text;
    EXPECT_NE(Json(s).find("\"error\":{\"offset\":" + std::to_string(sample.realLimits + 11)), std::string::npos);
}

}  // namespace
}  // namespace vorndb
