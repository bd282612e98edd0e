// Loading streams that are not what the writer makes: other orders, unknown
// and refused records, wrong lengths, broken headers, truncation and failing
// streams. Each gives the result the format promises, and what was loaded
// before a fault keeps its value.
#include <gtest/gtest.h>

#include "persistence/DataStream.h"
#include "persistence/ParameterNoLoadSave.h"
#include "persistence/SampleTree.h"
#include "persistence/StreamBytes.h"
#include "persistence/TestStream.h"

using namespace vorn;
using namespace persist_test;

namespace {

CBytes Settings(const std::vector<CBytes>& records) { return Stream(Record("Settings", GroupPayload(records))); }

// A record whose size field is `size` whatever its contents.
CBytes RecordSized(const std::string& name, const CBytes& payload, std::uint32_t size) {
    CBytes r;
    return r.U32(size).U16(static_cast<std::uint16_t>(name.size())).Text(name).Append(payload);
}

}  // namespace

TEST(SettingsStreamRecovery, RecordsMatchByNameInAnyOrder) {
    SampleTree tree;
    std::vector<CBytes> records = {
        Record("Flag", BooleanPayload(true, false)),
        Record("Unknown", IntegerPayload(true, 5)),  // no such child: skipped
        Record("Count", IntegerPayload(true, 11)),
        Record("Title", StringPayload(true, u"loaded")),
        Record("Level", RealPayload(true, eUNIT_DBM, -3.0)),
    };
    std::reverse(records.begin(), records.end());
    ASSERT_EQ(Load(tree.settings, Settings(records)), S_OK);
    EXPECT_FALSE(tree.flag.GetValue());
    EXPECT_EQ(tree.count.Value(), 11u);
    EXPECT_EQ(tree.level.Value(), -3.0);
    EXPECT_EQ(std::u16string(tree.title.Value()), u"loaded");
    // Children without a record are untouched.
    EXPECT_EQ(tree.mode.Value(), 1u);
    EXPECT_EQ(tree.freq.Value(), 1e6);

    // The same records twice: the second record of a name goes to the same
    // child (the search wraps round), so the later value wins.
    ASSERT_EQ(Load(tree.settings,
                   Settings({Record("Count", IntegerPayload(true, 1)), Record("Count", IntegerPayload(true, 2))})),
              S_OK);
    EXPECT_EQ(tree.count.Value(), 2u);

    // Elements of an indexed group by their "Name[i]".
    const CBytes root = Stream(Record(
        "", GroupPayload({Record("Table[1]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 4.5))})),
                          Record("Table[0]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 1.5))}))})));
    ASSERT_EQ(Load(tree.root, root), S_OK);
    EXPECT_EQ(tree.gain[0].Value(), 1.5);
    EXPECT_EQ(tree.gain[1].Value(), 4.5);
}

TEST(SettingsStreamRecovery, AStreamOfAnotherNodeChangesNothing) {
    SampleTree tree;
    const CBytes other = Stream(Record("Level", RealPayload(true, eUNIT_DBM, 99.0)));
    ComPtr<IStream> stream = NewStream(other);
    ASSERT_EQ(tree.freq.Load(stream.get()), S_OK);
    EXPECT_EQ(tree.freq.Value(), 1e6);
    EXPECT_EQ(PositionOf(stream.get()), 2u);  // at the record's start

    // A good load leaves the stream right after the record, also with more
    // bytes behind it.
    CBytes followed = other;
    followed.U32(0xABCDEF01);
    stream = NewStream(followed);
    ASSERT_EQ(tree.level.Load(stream.get()), S_OK);
    EXPECT_EQ(tree.level.Value(), 99.0);
    EXPECT_EQ(PositionOf(stream.get()), other.Size());
}

TEST(SettingsStreamRecovery, BadStreamMark) {
    SampleTree tree;
    ComPtr<IStream> stream = NewStream(CBytes().U16(0x5002).Append(Record("Flag", BooleanPayload(true, false))));
    EXPECT_EQ(tree.flag.Load(stream.get()), E_FAIL);
    EXPECT_TRUE(tree.flag.GetValue());
    EXPECT_EQ(PositionOf(stream.get()), 2u);  // nothing read beyond the mark
    EXPECT_EQ(Load(tree.flag, CBytes()), E_FAIL);
    EXPECT_EQ(Load(tree.flag, CBytes().Text("\x01")), E_FAIL);
}

TEST(SettingsStreamRecovery, RecordNameLengths) {
    SampleTree tree;
    // 127 bytes: a name like any other, here nobody's, so the record is
    // skipped and loading goes on.
    ASSERT_EQ(Load(tree.settings, Settings({Record(std::string(127, 'n'), IntegerPayload(true, 1)),
                                            Record("Count", IntegerPayload(true, 3))})),
              S_OK);
    EXPECT_EQ(tree.count.Value(), 3u);

    // 128 bytes: E_FAIL; the record before it keeps what it loaded, the one
    // after it is not reached.
    EXPECT_EQ(Load(tree.settings, Settings({Record("Count", IntegerPayload(true, 4)),
                                            Record(std::string(128, 'n'), IntegerPayload(true, 1)),
                                            Record("Mode", IntegerPayload(true, 0))})),
              E_FAIL);
    EXPECT_EQ(tree.count.Value(), 4u);
    EXPECT_EQ(tree.mode.Value(), 1u);
    EXPECT_EQ(Load(tree.flag, Stream(RecordSized(std::string(0xFFFF, 'n'), CBytes(), 0xFFFF + 6))), E_FAIL);
}

TEST(SettingsStreamRecovery, RefusedPayloadsAreSkippedAndLeaveTheNode) {
    SampleTree tree;
    ASSERT_EQ(tree.count.put_Value(42), S_OK);
    const CBytes stream = Stream(Record(
        "", GroupPayload({Record("Settings", GroupPayload({
                                                 Record("Count", CBytes().U16(99).U16(0).U32(5)),  // unknown code
                                                 Record("Flag", RealPayload(true, 0, 0.0)),        // another type
                                                 Record("Index", IntegerPayload(true, 3)),  // plain Integer: short
                                                 Record("Level", RealPayload(true, eUNIT_DBM, -1.0)),
                                             })),
                          Record("Table[0]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 7.0))}, 2)),
                          Record("Table[1]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 8.0))}))})));
    ASSERT_EQ(Load(tree.root, stream), S_OK);
    EXPECT_EQ(tree.count.Value(), 42u);
    EXPECT_TRUE(tree.flag.GetValue());
    EXPECT_EQ(tree.level.Value(), -1.0);
    EXPECT_EQ(tree.gain[0].Value(), 0.0);  // group version 2 refused
    EXPECT_EQ(tree.gain[1].Value(), 8.0);
    // The with-stored-limits payload read by the setting class found no
    // limits where it expected them: a payload of the wrong length, so the
    // setting is back at its defaults.
    EXPECT_EQ(tree.index.Value(), 2u);
    EXPECT_EQ(tree.index.Maximum(), 10u);
}

TEST(SettingsStreamRecovery, PayloadOfTheWrongLengthResetsTheNode) {
    SampleTree tree;
    ASSERT_EQ(tree.count.put_Value(42), S_OK);
    ASSERT_EQ(tree.mode.put_Value(2), S_OK);
    // Count's record is 4 bytes longer than its payload; Mode follows it.
    CBytes padded = IntegerPayload(true, 99);
    padded.U32(0);
    const CBytes stream = Settings({Record("Count", padded), Record("Mode", IntegerPayload(true, 0))});
    ASSERT_EQ(Load(tree.settings, stream), S_OK);
    EXPECT_EQ(tree.count.Value(), 7u);  // its default, not 99 and not 42
    EXPECT_EQ(tree.mode.Value(), 0u);
}

TEST(SettingsStreamRecovery, RecordSizesThatPointBeforeOrPastTheRecord) {
    SampleTree tree;
    const CBytes flag = Record("Flag", BooleanPayload(true, false));
    // Smaller than its own header: it would never move the reader on.
    EXPECT_EQ(Load(tree.settings, Settings({flag, RecordSized("Count", IntegerPayload(true, 1), 0),
                                            Record("Mode", IntegerPayload(true, 0))})),
              E_FAIL);
    EXPECT_FALSE(tree.flag.GetValue());  // loaded before the fault
    EXPECT_EQ(tree.mode.Value(), 1u);    // not reached
    ASSERT_EQ(tree.flag.put_Value(VARIANT_TRUE), S_OK);
    EXPECT_EQ(Load(tree.settings, Settings({flag, RecordSized("Count", IntegerPayload(true, 1), 10)})), E_FAIL);
    EXPECT_FALSE(tree.flag.GetValue());

    // Past the end of its group's record (and of the stream).
    ASSERT_EQ(tree.flag.put_Value(VARIANT_TRUE), S_OK);
    EXPECT_EQ(Load(tree.settings, Settings({flag, RecordSized("Count", IntegerPayload(true, 1), 0x7FFFFFFF)})), E_FAIL);
    EXPECT_FALSE(tree.flag.GetValue());
    EXPECT_EQ(tree.count.Value(), 7u);
    EXPECT_EQ(Load(tree.count, Stream(RecordSized("Count", IntegerPayload(true, 1), 0xFFFFFFFF))), E_FAIL);

    // A child record that reaches past its group's record, though not past
    // the stream: the group's size is too small by 4.
    const CBytes children = GroupPayload({flag, Record("Count", IntegerPayload(true, 1))});
    CBytes broken;
    broken.U16(kMark).Append(
        RecordSized("Settings", children, static_cast<std::uint32_t>(6 + 8 + children.Size() - 4)));
    broken.U32(0);
    EXPECT_EQ(Load(tree.settings, broken), E_FAIL);
    EXPECT_EQ(tree.count.Value(), 7u);
}

TEST(SettingsStreamRecovery, TruncatedStreamsFailAndChangeNothing) {
    SampleTree source;
    ASSERT_EQ(source.count.put_Value(1234), S_OK);
    const double trace[] = {1, 2, 3};
    ASSERT_EQ(source.trace.PutArray(3, trace), S_OK);
    const std::vector<BYTE> full = Saved(source.root);

    SampleTree tree;
    const std::vector<BYTE> before = Saved(tree.root);
    for (std::size_t length = 0; length < full.size(); ++length) {
        CBytes cut;
        cut.Data().assign(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length));
        ASSERT_EQ(Load(tree.root, cut), E_FAIL) << "cut at " << length;
    }
    EXPECT_EQ(Saved(tree.root), before);
    CBytes whole;
    whole.Data() = full;
    ASSERT_EQ(Load(tree.root, whole), S_OK);
    EXPECT_EQ(tree.count.Value(), 1234u);
    EXPECT_EQ(Saved(tree.root), full);
}

TEST(SettingsStreamRecovery, CountsBeyondCapacityOrStream) {
    SampleTree tree;
    // Five elements for a capacity of four: skipped, the array invalid, and
    // loading goes on.
    ASSERT_EQ(Load(tree.settings, Settings({Record("Ints", IntegerArrayPayload(true, {1, 2, 3, 4, 5})),
                                            Record("Count", IntegerPayload(true, 8))})),
              S_OK);
    EXPECT_FALSE(tree.ints.IsValid());
    EXPECT_EQ(tree.ints.Size(), 0u);
    EXPECT_EQ(tree.count.Value(), 8u);

    // A count no record could hold: skipped beyond the record, so the array
    // is reset and loading goes on after the record.
    ASSERT_EQ(Load(tree.settings, Settings({Record("Trace", CBytes().U16(7).U16(0).U32(0xFFFFFFFF)),
                                            Record("Count", IntegerPayload(true, 9))})),
              S_OK);
    EXPECT_EQ(tree.trace.Size(), 0u);
    EXPECT_EQ(tree.count.Value(), 9u);

    // A string count beyond the stream fails before anything is allocated.
    EXPECT_EQ(Load(tree.settings, Settings({Record("Count", IntegerPayload(true, 10)),
                                            Record("Title", CBytes().U16(8).U16(0).U32(0x7FFFFFFF))})),
              E_FAIL);
    EXPECT_EQ(tree.count.Value(), 10u);
    EXPECT_EQ(std::u16string(tree.title.Value()), u"abc");
}

TEST(SettingsStreamRecovery, FailingStreamsReturnTheirError) {
    SampleTree tree;
    const std::vector<BYTE> full = Saved(tree.settings);

    CTestStream reading(full);
    reading.readLimit = 40;
    EXPECT_EQ(tree.settings.Load(&reading), STG_E_ACCESSDENIED);
    EXPECT_EQ(reading.References(), 1u);

    CTestStream writing;
    writing.writeLimit = 10;
    EXPECT_EQ(tree.settings.Save(&writing), STG_E_ACCESSDENIED);
    CTestStream full_disk;
    full_disk.writeLimit = 10;
    full_disk.shortWrites = true;
    EXPECT_EQ(tree.settings.Save(&full_disk), STG_E_MEDIUMFULL);

    // Positions beyond 32 bits cannot be recorded.
    CTestStream far(full);
    far.base = 0x100000000ull;
    far.Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    LARGE_INTEGER there{};
    there.QuadPart = 0x100000000ll;
    far.Seek(there, STREAM_SEEK_SET, nullptr);
    EXPECT_EQ(tree.settings.Load(&far), E_FAIL);
    EXPECT_EQ(tree.settings.Save(&far), E_FAIL);

    EXPECT_EQ(tree.settings.Load(nullptr), E_POINTER);
    EXPECT_EQ(tree.settings.Save(nullptr), E_POINTER);
}

namespace {

// A parameter whose size operation disagrees with what it writes.
class CMisSizedParameter : public CParameterInteger {
public:
    DWORD PayloadSize() override { return CParameterInteger::PayloadSize() + 1; }
};

// An attached object of the expected kind for a CParameterNoLoadSave.
class CStateSource : public CParameterInteger {};

constexpr SDefaultsEnumValue kStateDefault{.count = 5, .value = 0};

}  // namespace

TEST(SettingsStreamRecovery, SizeAndPayloadThatDisagreeFailTheSave) {
    SampleTree tree;
    CMisSizedParameter odd;
    tree.settings.Add(odd, "Odd");
    odd.SetDefaults(&kCountDefault);
    ASSERT_EQ(odd.Reset(), S_OK);
    ComPtr<IStream> stream;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), S_OK);
    EXPECT_EQ(tree.settings.Save(stream.get()), E_UNEXPECTED);
}

TEST(SettingsStreamRecovery, NoLoadSaveValuesNeverSurviveALoad) {
    SampleTree tree;
    CParameterNoLoadSave sequence;
    CStateSource source;
    tree.settings.Add(sequence, "Sequence");
    tree.settings.Add(source, "Source");
    sequence.SetDefaults(&kStateDefault);
    source.SetDefaults(&kCountDefault);
    ASSERT_EQ(tree.settings.Reset(), S_OK);

    // Without an attached object the value is saved as it is.
    ASSERT_EQ(sequence.put_Value(3), S_OK);
    EXPECT_EQ(Saved(sequence), Stream(Record("Sequence", IntegerPayload(true, 3))).Data());
    // With one, its value is taken first.
    ASSERT_EQ(source.put_Value(4), S_OK);
    sequence.SetThirdPartyUnknown(source.Identity());
    EXPECT_EQ(Saved(sequence), Stream(Record("Sequence", IntegerPayload(true, 4))).Data());
    EXPECT_EQ(sequence.Value(), 4u);
    // An attached object of another kind makes it invalid.
    sequence.SetThirdPartyUnknown(tree.title.Identity());
    EXPECT_EQ(Saved(sequence), Stream(Record("Sequence", IntegerPayload(false))).Data());
    sequence.SetThirdPartyUnknown(nullptr);

    // Loaded, then reset: the stored 2 never shows.
    ASSERT_EQ(sequence.put_Value(3), S_OK);
    ASSERT_EQ(Load(tree.settings,
                   Settings({Record("Sequence", IntegerPayload(true, 2)), Record("Count", IntegerPayload(true, 77))})),
              S_OK);
    EXPECT_EQ(sequence.Value(), 0u);
    EXPECT_TRUE(sequence.IsValid());
    EXPECT_EQ(tree.count.Value(), 77u);
}
