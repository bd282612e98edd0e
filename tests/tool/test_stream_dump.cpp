// Decoding settings streams without the schema: every parameter layout
// (including the with-stored-limits variants that only the record size
// reveals), the text and JSON output, parameters by full name for diff, and
// the first bad byte of damaged streams.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <map>

#include "StreamDump.h"

namespace vorndb {
namespace {

// Writes settings streams byte by byte, as the format lays them out.
class Builder {
public:
    Builder& Put(std::uint64_t v, int width) {
        for (int i = 0; i < width; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    Builder& U16(std::uint32_t v) { return Put(v, 2); }
    Builder& U32(std::uint32_t v) { return Put(v, 4); }
    Builder& F64(double d) { return Put(std::bit_cast<std::uint64_t>(d), 8); }
    Builder& F32(float f) { return Put(std::bit_cast<std::uint32_t>(f), 4); }
    // A record: size (patched when the payload is written), name, payload.
    // Returns the offset of its size field.
    std::size_t Record(const std::string& name, const std::function<void()>& payload) {
        const std::size_t start = bytes.size();
        U32(0).U16(static_cast<std::uint32_t>(name.size()));
        bytes.insert(bytes.end(), name.begin(), name.end());
        payload();
        Patch(start, static_cast<std::uint32_t>(bytes.size() - start), 4);
        return start;
    }
    std::size_t Group(const std::string& name, std::uint32_t children, const std::function<void()>& body) {
        return Record(name, [&] {
            U16(1).U32(children);
            body();
        });
    }
    // Sets the little-endian field of `width` bytes at `at`.
    Builder& Patch(std::size_t at, std::uint32_t v, int width) {
        for (int i = 0; i < width; ++i)
            bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
        return *this;
    }
    std::vector<std::uint8_t> bytes;
};

// Offsets of interesting places in the sample stream.
struct Sample {
    std::vector<std::uint8_t> bytes;
    std::size_t inner = 0;       // the nested group's record
    std::size_t integer = 0;     // the plain integer's record
    std::size_t realLimits = 0;  // the real with limits
    std::size_t text = 0;        // the string's record
};

// The root (unnamed) with one parameter of every layout and a nested group.
Sample MakeSample() {
    Builder b;
    Sample s;
    b.U16(0x5001);
    b.Group("", 14, [&] {
        b.Record("On", [&] { b.U16(2).U16(0).U16(1); });
        b.Record("OffInvalid", [&] { b.U16(2).U16(1); });
        s.integer = b.Record("Count", [&] { b.U16(4).U16(0).U32(42); });
        b.Record("Steps", [&] { b.U16(4).U16(0).U32(7).U32(1).U32(10); });
        b.Record("StepsInvalid", [&] { b.U16(4).U16(1).U32(1).U32(10); });
        b.Record("Freq", [&] { b.U16(6).U16(0).U16(4).F64(1.5e6); });
        s.realLimits = b.Record("Level", [&] { b.U16(6).U16(0).U16(5).F64(-30).F64(-100).F64(30); });
        b.Record("LevelInvalid", [&] { b.U16(6).U16(1).F64(-100).F64(30); });
        s.text = b.Record("Title", [&] {
            b.U16(8).U16(0).U32(3);
            for (const char16_t c : std::u16string(u"A\u00e9\"")) b.U16(c);
        });
        b.Record("Trace", [&] { b.U16(7).U16(0).U32(2).F64(1.25).F64(-2); });
        b.Record("Empty", [&] { b.U16(7).U16(1).U32(0); });
        b.Record("Table", [&] { b.U16(9).U16(0).U32(3).U32(1).U32(2).U32(3); });
        b.Record("NoBuffer", [&] { b.U16(11).U16(1).U16(0).U32(0); });
        s.inner = b.Group("Inner[2]", 1, [&] {
            b.Record("Samples", [&] {
                b.U16(11).U16(0).U16(4);
                for (std::uint32_t w : {16u, 2u, 2u, 4u, 0u, 0u, 1u, 1u}) b.U32(w);
                b.F32(0.5f).F32(1.5f);
            });
        });
    });
    s.bytes = b.bytes;
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
    Builder b;
    auto integer = [&](const std::string& name, std::uint32_t value) {
        b.Record(name, [&] { b.U16(4).U16(0).U32(value); });
    };
    b.U16(0x5001).Group("", 4, [&] {
        b.Group("a", 2, [&] {
            integer("b.c", 1);
            integer("x", 2);
        });
        b.Group("a.b", 1, [&] { integer("c", 3); });
        integer("x", 4);
        b.Group("a", 1, [&] { integer("x", 5); });
    });
    const DecodedStream s = DecodeStream(b.bytes);
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
    auto patched = [&](std::size_t at, std::uint32_t v, int width) {
        Builder b;
        b.bytes = sample.bytes;
        return b.Patch(at, v, width).bytes;
    };
    // An integer record two bytes longer than any integer layout (the group
    // sizes grow with it, so only the integer is wrong).
    Builder longInteger;
    longInteger.U16(0x5001);
    std::size_t integer = 0;
    longInteger.Group(
        "", 1, [&] { integer = longInteger.Record("Count", [&] { longInteger.U16(4).U16(0).U32(42).U16(0); }); });
    // More children announced than present, and bytes left over after them.
    Builder missing;
    missing.U16(0x5001).Group("G", 3, [&] { missing.Record("A", [&] { missing.U16(2).U16(1); }); });
    Builder extra;
    std::size_t extraAt = 0;
    extra.U16(0x5001).Group("G", 1, [&] {
        extra.Record("A", [&] { extra.U16(2).U16(1); });
        extraAt = extra.bytes.size();
        extra.U16(0);
    });

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
        {"payload size", longInteger.bytes, integer, "valid integer"},
        {"children missing", missing.bytes, missing.bytes.size(), ""},
        {"bytes left over", extra.bytes, extraAt, ""},
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
    Builder patch;
    patch.bytes = sample.bytes;
    patch.Patch(sample.realLimits + 6 + 5, 99, 2);  // Level's type code
    const DecodedStream s = DecodeStream(patch.bytes);
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
