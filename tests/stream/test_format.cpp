// The settings stream format against bytes written down from its field
// tables (StreamBytes.h), never against the writer itself: saving the sample
// tree produces exactly the golden bytes, and golden bytes load into exactly
// the values they describe, for every payload kind.
#include <gtest/gtest.h>

#include <tuple>

#include "stream/DataStream.h"
#include "stream/SampleTree.h"
#include "stream/StreamBytes.h"

using namespace vorn;
using namespace persist_test;

namespace {

CBytes BufferPayload(bool valid, const std::vector<std::uint32_t>& words, const std::vector<float>& samples) {
    CBytes p = Head(11, valid).U16(4);
    for (std::uint32_t w : words) p.U32(w);
    for (float s : samples) p.F32(s);
    return p;
}

CBytes NoBufferPayload(bool valid) { return Head(11, valid).U16(0).U32(0); }

// The Settings record of the sample tree right after its reset.
std::vector<CBytes> DefaultSettingsRecords() {
    return {
        Record("Flag", BooleanPayload(true, true)),
        Record("Count", IntegerPayload(true, 7)),
        Record("Mode", IntegerPayload(true, 1)),
        Record("Index", IntegerSettingPayload(true, 2, 0, 10)),
        Record("Level", RealPayload(true, eUNIT_DBM, -10.0)),
        Record("Freq", RealSettingPayload(true, eUNIT_HZ, 1e6, 0.0, 1e9)),
        Record("Title", StringPayload(true, u"abc")),
        Record("Ints", IntegerArrayPayload(false, {})),
        Record("Trace", RealArrayPayload(false, {})),
        Record("Samples", NoBufferPayload(false)),
    };
}

}  // namespace

TEST(SettingsStreamFormat, SaveOfDefaultsIsTheGoldenStream) {
    SampleTree tree;
    EXPECT_EQ(Saved(tree.settings), SettingsStream(DefaultSettingsRecords()).Data());

    // The root: no name, and the elements of an indexed group as "Table[i]".
    const CBytes table0 = Record("Table[0]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 0.0))}));
    const CBytes table1 = Record("Table[1]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 0.0))}));
    const CBytes root =
        Stream(Record("", GroupPayload({Record("Settings", GroupPayload(DefaultSettingsRecords())), table0, table1})));
    EXPECT_EQ(Saved(tree.root), root.Data());
    // One parameter on its own is a stream of its own record.
    EXPECT_EQ(Saved(tree.freq), Stream(Record("Freq", RealSettingPayload(true, eUNIT_HZ, 1e6, 0.0, 1e9))).Data());
}

TEST(SettingsStreamFormat, SaveOfChangedValuesIsTheGoldenStream) {
    SampleTree tree;
    ASSERT_EQ(tree.flag.put_Value(VARIANT_FALSE), S_OK);
    ASSERT_EQ(tree.count.put_Status(eSTATUS_INVALID), S_OK);  // 4-byte payload, no value
    ASSERT_EQ(tree.index.put_Maximum(20), S_OK);
    ASSERT_EQ(tree.index.put_Value(15), S_OK);
    ASSERT_EQ(tree.level.put_Status(eSTATUS_INVALID), S_OK);  // no unit, no value
    ASSERT_EQ(tree.freq.put_Status(eSTATUS_INVALID), S_OK);   // limits all the same
    BSTR empty = SysAllocStringLen(u"", 0);
    ASSERT_EQ(tree.title.put_Value(empty), S_OK);
    SysFreeString(empty);
    const ULONG ints[] = {1, 0xFFFFFFFF};
    ASSERT_EQ(tree.ints.PutArray(2, ints), S_OK);
    const double trace[] = {1.5, -2.25, 1e300};
    ASSERT_EQ(tree.trace.PutArray(3, trace), S_OK);
    ASSERT_EQ(tree.trace.put_Status(eSTATUS_INVALID), S_OK);  // elements written whatever the status

    const CBytes golden = SettingsStream({
        Record("Flag", BooleanPayload(true, false)),
        Record("Count", IntegerPayload(false)),
        Record("Mode", IntegerPayload(true, 1)),
        Record("Index", IntegerSettingPayload(true, 15, 0, 20)),
        Record("Level", RealPayload(false)),
        Record("Freq", RealPayload(false).F64(0).F64(1e9)),
        Record("Title", StringPayload(true, u"")),
        Record("Ints", IntegerArrayPayload(true, {1, 0xFFFFFFFF})),
        Record("Trace", RealArrayPayload(false, {1.5, -2.25, 1e300})),
        Record("Samples", NoBufferPayload(false)),
    });
    EXPECT_EQ(Saved(tree.settings), golden.Data());
}

TEST(SettingsStreamFormat, GoldenStreamLoadsItsValues) {
    SampleTree tree;
    const CBytes golden = SettingsStream({
        Record("Flag", BooleanPayload(true, false)),
        Record("Count", IntegerPayload(true, 0xDEADBEEF)),
        Record("Mode", IntegerPayload(true, 2)),
        Record("Index", IntegerSettingPayload(true, 15, 5, 20)),
        Record("Level", RealPayload(true, eUNIT_DBC_HZ, -123.5)),
        Record("Freq", RealSettingPayload(true, eUNIT_HZ, 2e9, -1.0, 3e9)),
        Record("Title", StringPayload(true, u"x\u00e9\u20ac")),
        Record("Ints", IntegerArrayPayload(true, {4, 3, 2, 1})),
        Record("Trace", RealArrayPayload(false, {0.5, 0.25})),
        Record("Samples", NoBufferPayload(true)),
    });
    // Every field comes back as the save shows, which the golden tests above
    // pin down; Index's limits come back before its value, which lies outside
    // the default limits but inside the saved ones.
    ASSERT_EQ(Load(tree.settings, golden), S_OK);
    EXPECT_EQ(Saved(tree.settings), golden.Data());
}

TEST(SettingsStreamFormat, InvalidOrRefusedValuesLoadInvalidAndLimitsStillLoad) {
    SampleTree tree;
    ASSERT_EQ(tree.LoadSettings({Record("Flag", BooleanPayload(false)), Record("Title", StringPayload(false)),
                                 Record("Freq", RealPayload(false).F64(10).F64(20)),
                                 Record("Index", IntegerPayload(false).U32(3).U32(4))}),
              S_OK);
    // Count has no record: untouched.
    EXPECT_EQ(std::make_tuple(tree.flag.IsValid(), tree.title.IsValid(), tree.freq.IsValid(), tree.freq.Minimum(),
                              tree.freq.Maximum(), tree.index.IsValid(), tree.index.Maximum(), tree.count.IsValid()),
              std::make_tuple(false, false, false, 10.0, 20.0, false, 4u, true));

    // Values the checked store refuses: Mode has 3 values; Freq's value lies
    // beyond the limits stored with it; Level's unit is no eUNIT member; a
    // string of 0 characters reads as the null string.
    SampleTree refused;
    ASSERT_EQ(
        refused.LoadSettings({Record("Mode", IntegerPayload(true, 3)),
                              Record("Freq", RealSettingPayload(true, 3, 50.0, 0.0, 10.0)),
                              Record("Level", RealPayload(true, 99, 1.0)), Record("Title", StringPayload(true, u""))}),
        S_OK);
    EXPECT_EQ(std::make_tuple(refused.mode.IsValid(), refused.title.IsValid(), refused.freq.IsValid(),
                              refused.freq.Maximum(), refused.level.IsValid()),
              std::make_tuple(false, false, false, 10.0, false));
}

TEST(SettingsStreamFormat, BufferShapeWordsAndSamples) {
    // Client buffers outlive the trees they are attached to.
    CBuffer<float, 4> client(CDim(4), CDim(3));
    CBuffer<float, 4> other(CDim(1), CDim(1));
    SampleTree saved;
    for (int i = 0; i < 6; ++i) client.Data()[i] = 0.5f * static_cast<float>(i);
    client.SetUsedCount(2);
    ASSERT_EQ(saved.samples.Attach(client.Cookie()), S_OK);

    // allocated bytes, second extent, used count, first extent, growable,
    // reserved, mode, reference count (the client's and the parameter's).
    const CBytes golden =
        Stream(Record("Samples", BufferPayload(true, {48, 3, 2, 4, 0, 0, 1, 2}, {0, 0.5f, 1, 1.5f, 2, 2.5f})));
    EXPECT_EQ(Saved(saved.samples), golden.Data());

    SampleTree loaded;
    ASSERT_EQ(Load(loaded.samples, golden), S_OK);
    const CBuffer<float, 4>* buffer = loaded.samples.Attached();
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(loaded.samples.IsValid());
    // The parameter's own buffer, referenced by it alone.
    EXPECT_EQ(std::make_tuple(buffer->FirstExtent(), buffer->SecondExtent(), buffer->UsedCount(),
                              buffer->AllocatedBytes(), buffer->RefCount(), buffer->Data()[5]),
              std::make_tuple(4u, 3u, 2u, 48u, 1u, 2.5f));

    // Into an attached buffer: it takes the shape and the samples, and keeps
    // its reference count.
    SampleTree attached;
    ASSERT_EQ(attached.samples.Attach(other.Cookie()), S_OK);
    ASSERT_EQ(Load(attached.samples, golden), S_OK);
    EXPECT_EQ(attached.samples.Attached(), &other);
    EXPECT_EQ(std::make_tuple(other.UsedCount(), other.SecondExtent(), other.RefCount(), other.Data()[4]),
              std::make_tuple(2u, 3u, 2u, 2.0f));
}

TEST(SettingsStreamFormat, BufferWordsThatDescribeNoBufferAreRefused) {
    CBuffer<float, 4> client(CDim(2), CDim(2));
    SampleTree tree;
    client.SetUsedCount(1);
    ASSERT_EQ(tree.samples.Attach(client.Cookie()), S_OK);
    const struct {
        const char* what;
        CBytes payload;
    } cases[] = {
        {"three dimensions", Head(11, true).U16(3).U32(0)},
        {"mode 2", BufferPayload(true, {16, 2, 1, 2, 0, 0, 2, 1}, {1, 2})},
        {"reserved set", BufferPayload(true, {16, 2, 1, 2, 0, 7, 1, 1}, {1, 2})},
        {"rows beyond the first extent", BufferPayload(true, {64, 2, 3, 2, 0, 0, 1, 1}, {1, 2, 3, 4, 5, 6})},
        {"samples beyond the storage", BufferPayload(true, {4, 2, 1, 1, 1, 0, 1, 1}, {1, 2})},
        {"storage over the limit", BufferPayload(true, {0x20000000, 2, 0, 2, 1, 0, 1, 1}, {})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Load(tree.samples, Stream(Record("Samples", c.payload))), S_OK);
        EXPECT_EQ(
            std::make_tuple(tree.samples.Attached(), client.FirstExtent(), client.UsedCount(), tree.samples.IsValid()),
            std::make_tuple(&client, 2u, 1u, true));
    }
    // A zero allocation word keeps the buffer and applies the status.
    EXPECT_EQ(Load(tree.samples, Stream(Record("Samples", BufferPayload(false, {0, 2, 0, 2, 0, 0, 1, 1}, {})))), S_OK);
    EXPECT_EQ(client.UsedCount(), 1u);
    EXPECT_FALSE(tree.samples.IsValid());
}

TEST(SettingsStreamFormat, LoadingAndTheHoldsDefaultsFlag) {
    SampleTree tree;
    ComPtr<IPersistStream> persist;
    ASSERT_EQ(tree.settings.QueryInterface(IID_IPersistStream, persist.put_void()), S_OK);
    // IPersistStream::Load clears the flag, also when nothing is loaded.
    EXPECT_TRUE(tree.settings.HoldsDefaults());
    ASSERT_EQ(persist->Load(NewStream(CBytes().U16(0x1234)).get()), E_FAIL);
    EXPECT_FALSE(tree.settings.HoldsDefaults());
    ASSERT_EQ(tree.settings.Reset(), S_OK);
    EXPECT_TRUE(tree.settings.HoldsDefaults());
    // IDatabaseObject::Load clears it only when a record was loaded.
    ASSERT_EQ(Load(tree.settings, Stream(Record("Other", GroupPayload({})))), S_OK);
    EXPECT_TRUE(tree.settings.HoldsDefaults());
    ASSERT_EQ(tree.LoadSettings({}), S_OK);
    EXPECT_FALSE(tree.settings.HoldsDefaults());
}
