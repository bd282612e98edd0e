// Loading streams that are not what the writer makes: other orders, unknown
// and refused records, wrong lengths, broken headers, truncation and failing
// streams. Each gives the result the format promises, and what was loaded
// before a fault keeps its value; a failed load says where and why.
#include <gtest/gtest.h>

#include <tuple>

#include "parameters/ParameterNoLoadSave.h"
#include "stream/DataStream.h"
#include "stream/SampleTree.h"
#include "stream/StreamBytes.h"
#include "stream/TestStream.h"
#include "support/ErrorInfo.h"

using namespace vorn;
using namespace persist_test;

TEST(SettingsStreamRecovery, RecordsMatchByNameInAnyOrder) {
    SampleTree tree;
    // Reversed, with a record of no child in between (skipped).
    ASSERT_EQ(tree.LoadSettings({Record("Level", RealPayload(true, eUNIT_DBM, -3.0)),
                                 Record("Count", IntegerPayload(true, 11)), Record("Unknown", IntegerPayload(true, 5)),
                                 Record("Flag", BooleanPayload(true, false))}),
              S_OK);
    // Mode has no record: untouched.
    EXPECT_EQ(std::make_tuple(tree.flag.GetValue(), tree.count.Value(), tree.level.Value(), tree.mode.Value()),
              std::make_tuple(false, 11u, -3.0, 1u));

    // The same name twice: the search wraps round to the same child, so the
    // later value wins.
    ASSERT_EQ(tree.LoadSettings({Record("Count", IntegerPayload(true, 1)), Record("Count", IntegerPayload(true, 2))}),
              S_OK);
    EXPECT_EQ(tree.count.Value(), 2u);

    // Elements of an indexed group by their "Name[i]".
    const CBytes root = Stream(Record(
        "", GroupPayload({Record("Table[1]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 4.5))})),
                          Record("Table[0]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 1.5))}))})));
    ASSERT_EQ(Load(tree.root, root), S_OK);
    EXPECT_EQ(std::make_tuple(tree.gain[0].Value(), tree.gain[1].Value()), std::make_tuple(1.5, 4.5));
}

TEST(SettingsStreamRecovery, StreamMarkAndStreamsOfAnotherNode) {
    SampleTree tree;
    // Another node's record changes nothing and leaves the stream at the
    // record's start.
    const CBytes level = Stream(Record("Level", RealPayload(true, eUNIT_DBM, 99.0)));
    ComPtr<IStream> stream = NewStream(level);
    ASSERT_EQ(tree.freq.Load(stream.get()), S_OK);
    EXPECT_EQ(tree.freq.Value(), 1e6);
    EXPECT_EQ(PositionOf(stream.get()), 2u);
    // A good load leaves it right after the record, also with more behind it.
    stream = NewStream(CBytes(level).U32(0xABCDEF01));
    ASSERT_EQ(tree.level.Load(stream.get()), S_OK);
    EXPECT_EQ(tree.level.Value(), 99.0);
    EXPECT_EQ(PositionOf(stream.get()), level.Size());

    // A bad mark: nothing read beyond it.
    stream = NewStream(CBytes().U16(0x5002).Append(Record("Flag", BooleanPayload(true, false))));
    EXPECT_EQ(tree.flag.Load(stream.get()), E_FAIL);
    EXPECT_TRUE(tree.flag.GetValue());
    EXPECT_EQ(PositionOf(stream.get()), 2u);
}

TEST(SettingsStreamRecovery, RecordNameLengths) {
    SampleTree tree;
    // 127 bytes: a name like any other, here nobody's, so the record is
    // skipped and loading goes on.
    ASSERT_EQ(tree.LoadSettings(
                  {Record(std::string(127, 'n'), IntegerPayload(true, 1)), Record("Count", IntegerPayload(true, 3))}),
              S_OK);
    EXPECT_EQ(tree.count.Value(), 3u);

    // 128 bytes: E_FAIL; the record before it keeps what it loaded, the one
    // after it is not reached.
    EXPECT_EQ(tree.LoadSettings({Record("Count", IntegerPayload(true, 4)),
                                 Record(std::string(128, 'n'), IntegerPayload(true, 1)),
                                 Record("Mode", IntegerPayload(true, 0))}),
              E_FAIL);
    EXPECT_EQ(std::make_tuple(tree.count.Value(), tree.mode.Value()), std::make_tuple(4u, 1u));
    EXPECT_EQ(Load(tree.flag, Stream(RecordSized(std::string(0xFFFF, 'n'), CBytes(), 0xFFFF + 6))), E_FAIL);
}

TEST(SettingsStreamRecovery, RefusedOrMisSizedPayloadsAreSkipped) {
    SampleTree tree;
    ASSERT_EQ(tree.count.put_Value(42), S_OK);
    ASSERT_EQ(tree.mode.put_Value(2), S_OK);
    const CBytes stream = Stream(Record(
        "", GroupPayload({Record("Settings", GroupPayload({
                                                 Record("Count", CBytes().U16(99).U16(0).U32(5)),  // unknown code
                                                 Record("Flag", RealPayload(true, 0, 0.0)),        // another type
                                                 Record("Index", IntegerPayload(true, 3)),  // plain Integer: short
                                                 Record("Mode", IntegerPayload(true, 0).U32(0)),  // 4 bytes too long
                                                 Record("Level", RealPayload(true, eUNIT_DBM, -1.0)),
                                             })),
                          Record("Table[0]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 7.0))}, 2)),
                          Record("Table[1]", GroupPayload({Record("Gain", RealPayload(true, eUNIT_DB, 8.0))}))})));
    ASSERT_EQ(Load(tree.root, stream), S_OK);
    // Refused payloads leave the node as it was (Table[0]: group version 2
    // refused).
    EXPECT_EQ(std::make_tuple(tree.count.Value(), tree.flag.GetValue(), tree.gain[0].Value()),
              std::make_tuple(42u, true, 0.0));
    // A payload read to another length than recorded resets the node to its
    // defaults: the setting found no limits where it expected them, Mode
    // had 4 bytes left over (its default, not 0 and not 2).
    EXPECT_EQ(std::make_tuple(tree.index.Value(), tree.index.Maximum(), tree.mode.Value()),
              std::make_tuple(2u, 10u, 1u));
    // Loading goes on after each of them.
    EXPECT_EQ(std::make_tuple(tree.level.Value(), tree.gain[1].Value()), std::make_tuple(-1.0, 8.0));
}

TEST(SettingsStreamRecovery, RecordSizesThatPointBeforeOrPastTheRecord) {
    SampleTree tree;
    const CBytes flag = Record("Flag", BooleanPayload(true, false));
    // Smaller than its own header (it would never move the reader on), or
    // past the end of its group's record and of the stream: E_FAIL, the
    // record before it loaded, the one after it not reached.
    for (std::uint32_t size : {0u, 10u, 0x7FFFFFFFu}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(tree.flag.put_Value(VARIANT_TRUE), S_OK);
        EXPECT_EQ(tree.LoadSettings({flag, RecordSized("Count", IntegerPayload(true, 1), size),
                                     Record("Mode", IntegerPayload(true, 0))}),
                  E_FAIL);
        EXPECT_EQ(std::make_tuple(tree.flag.GetValue(), tree.count.Value(), tree.mode.Value()),
                  std::make_tuple(false, 7u, 1u));
    }
    EXPECT_EQ(Load(tree.count, Stream(RecordSized("Count", IntegerPayload(true, 1), 0xFFFFFFFF))), E_FAIL);

    // A child record that reaches past its group's record, though not past
    // the stream: the group's size is too small by 4.
    const CBytes children = GroupPayload({flag, Record("Count", IntegerPayload(true, 1))});
    const CBytes broken =
        Stream(RecordSized("Settings", children, static_cast<std::uint32_t>(6 + 8 + children.Size() - 4))).U32(0);
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
    for (std::size_t length = 0; length < full.size(); ++length)
        ASSERT_EQ(Load(tree.root, CBytes({full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length)})), E_FAIL)
            << "cut at " << length;
    EXPECT_EQ(Saved(tree.root), before);
    ASSERT_EQ(Load(tree.root, CBytes(full)), S_OK);
    EXPECT_EQ(Saved(tree.root), full);
}

TEST(SettingsStreamRecovery, FailedLoadsNameTheRecordAndTheOffset) {
    SampleTree tree;
    const std::vector<BYTE> full = Saved(tree.settings);
    // The Settings record starts at 2, its first child at 22 (0x16).
    const struct {
        CBytes stream;
        const char* reason;
    } cases[] = {
        {CBytes().U16(0x5002).Append(Record("Settings", GroupPayload({}))),
         "the word at offset 0x0 (0) is 0x5002, not the settings stream mark 0x5001"},
        {CBytes({full.begin(), full.begin() + 9}), "reaches past the end of the stream at offset 0x9 (9)"},
        {SettingsStream({RecordSized("Count", IntegerPayload(true, 1), 10)}),
         "the record at offset 0x16 (22) has the size 10, less than its own header of 11 bytes"},
        {SettingsStream({Record(std::string(128, 'n'), IntegerPayload(true, 1))}),
         "the record at offset 0x16 (22) has a name length of 128 (at most 127)"},
        {SettingsStream({Record("Title", Head(8, true).U32(0x7FFFFFFF))}),
         "record 'Title' at offset 0x16 (22): the 4294967294 bytes at offset 0x29 (41) reach past the end of the "
         "stream at offset 0x29 (41)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        EXPECT_EQ(Load(tree.settings, c.stream), E_FAIL);
        const vorn::test::SReportedError error = vorn::test::TakeError();
        EXPECT_EQ(error.source, "Settings");
        EXPECT_EQ(error.guid, IID_IPersistTestGroup);
        EXPECT_NE(error.description.find(c.reason), std::string::npos) << error.description;
    }
}

TEST(SettingsStreamRecovery, CountsBeyondCapacityOrStream) {
    SampleTree tree;
    // Five elements for a capacity of four: skipped, the array invalid, and
    // loading goes on.
    ASSERT_EQ(tree.LoadSettings({Record("Ints", IntegerArrayPayload(true, {1, 2, 3, 4, 5})),
                                 Record("Count", IntegerPayload(true, 8))}),
              S_OK);
    EXPECT_EQ(std::make_tuple(tree.ints.IsValid(), tree.ints.Size(), tree.count.Value()),
              std::make_tuple(false, 0u, 8u));

    // A count no record could hold: skipped beyond the record, so the array
    // is reset and loading goes on after the record.
    ASSERT_EQ(
        tree.LoadSettings({Record("Trace", Head(7, true).U32(0xFFFFFFFF)), Record("Count", IntegerPayload(true, 9))}),
        S_OK);
    EXPECT_EQ(std::make_tuple(tree.trace.Size(), tree.count.Value()), std::make_tuple(0u, 9u));

    // A string count beyond the stream fails before anything is allocated.
    EXPECT_EQ(
        tree.LoadSettings({Record("Count", IntegerPayload(true, 10)), Record("Title", Head(8, true).U32(0x7FFFFFFF))}),
        E_FAIL);
    EXPECT_EQ(tree.count.Value(), 10u);
    EXPECT_EQ(std::u16string(tree.title.Value()), u"abc");
}

namespace {

// A parameter whose size operation disagrees with what it writes.
class CMisSizedParameter : public CParameterInteger {
public:
    DWORD PayloadSize() override { return CParameterInteger::PayloadSize() + 1; }
};

}  // namespace

TEST(SettingsStreamRecovery, FailingStreamsAndSizesReturnTheirError) {
    SampleTree tree;
    const std::vector<BYTE> full = Saved(tree.settings);

    CTestStream reading(full);
    reading.readLimit = 40;
    EXPECT_EQ(tree.settings.Load(&reading), STG_E_ACCESSDENIED);
    EXPECT_EQ(reading.References(), 1u);

    CTestStream writing;
    writing.writeLimit = 10;
    EXPECT_EQ(tree.settings.Save(&writing), STG_E_ACCESSDENIED);
    CTestStream fullDisk;
    fullDisk.writeLimit = 10;
    fullDisk.shortWrites = true;
    EXPECT_EQ(tree.settings.Save(&fullDisk), STG_E_MEDIUMFULL);

    // Positions beyond 32 bits cannot be recorded: this stream starts at 4 GiB.
    CTestStream far(full);
    far.base = 0x100000000ull;
    EXPECT_EQ(tree.settings.Load(&far), E_FAIL);
    EXPECT_EQ(tree.settings.Save(&far), E_FAIL);

    EXPECT_EQ(tree.settings.Load(nullptr), E_POINTER);
    EXPECT_EQ(tree.settings.Save(nullptr), E_POINTER);

    // A record whose size and payload disagree fails the save.
    CMisSizedParameter odd;
    tree.settings.Add(odd, "Odd");
    odd.SetDefaults(&kCountDefault);
    ASSERT_EQ(odd.Reset(), S_OK);
    CTestStream any;
    EXPECT_EQ(tree.settings.Save(&any), E_UNEXPECTED);
}

namespace {

// An attached object of the expected kind for a CParameterNoLoadSave.
class CStateSource : public CParameterInteger {};

constexpr SDefaultsEnumValue kStateDefault{.count = 5, .value = 0};

}  // namespace

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
    ASSERT_EQ(
        tree.LoadSettings({Record("Sequence", IntegerPayload(true, 2)), Record("Count", IntegerPayload(true, 77))}),
        S_OK);
    EXPECT_EQ(std::make_tuple(sequence.Value(), sequence.IsValid(), tree.count.Value()),
              std::make_tuple(0u, true, 77u));
}
