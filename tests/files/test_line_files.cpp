// Limit-line and transducer-factor files of the real tree, under the test's
// own drive directory with ZLM_SYSTEM_ROOT_RW at "D:\": writing, deleting,
// the automatic write, names refused, damaged files refused, reading back,
// and the factor list. One database object per process, as always.

#include <cstdlib>
#include <filesystem>
#include <set>

#include "files/LineFiles.h"
#include "files/TreeLinks.h"
#include "schema/GroupClasses.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace persist_test;
namespace fs = std::filesystem;
using namespace vorn::test;

namespace {

// A line file written down from the format: mark, index, a record named
// `record` holding Exists (true) and Name only.
std::vector<BYTE> HandMadeFile(WORD index, const std::string& record, const std::u16string& name) {
    const CBytes group =
        GroupPayload({Record("Exists", BooleanPayload(true, true)), Record("Name", StringPayload(true, name))});
    return CBytes().U16(kMark).U16(index).Append(Record(record, group)).Data();
}

class LineFilesTest : public DrivesTreeTest {
protected:
    void Start(bool withRoot = true) {
        if (withRoot)
            setenv(kLineFilesRootVariable, "D:\\", 1);
        else
            unsetenv(kLineFilesRootVariable);
        CreateTree();
    }
    // The group's record as its settings stream holds it (after the mark).
    std::vector<BYTE> Record(const std::string& group) {
        const std::vector<BYTE> bytes = StreamOf(group);
        return {bytes.begin() + 2, bytes.end()};
    }
    CGroupImpl& Lines() { return *FindPath<CGroupImpl>(&TreeOf(db_.get()), "LimitLineData"); }
    std::set<std::string> Files(const char* directory) {
        std::set<std::string> names;
        std::error_code missing;
        for (const auto& entry : fs::directory_iterator(drives_ / "d" / directory, missing))
            names.insert(entry.path().filename().string());
        return names;
    }
};

const std::string kLine3 = "LimitLineData.Line[3].";

SStep Name(const std::string& member, const char* name) { return SetText(member + "Name", name, S_OK); }
SStep Exists(const std::string& member, bool exists) { return Set(member + "Exists", exists, S_OK); }
SStep Save(const std::string& member) { return Set(member + "SaveFile", 1, S_OK); }

// The rule of SaveFile: which files the directory holds after the steps.
TEST_F(LineFilesTest, SaveFileKeepsTheDirectoryInStep) {
    Start();
    const std::string l = kLine3, f = "TransducerFactorsData.Factor[3].";
    const struct {
        const char* what;
        std::vector<SStep> steps;
        const char* directory;
        std::set<std::string> files;
    } cases[] = {
        {"written", {Name(l, "A"), Exists(l, 1), Save(l)}, "ssalimits", {"A.lin"}},
        {"renamed A to B", {Name(l, "A"), Exists(l, 1), Save(l), Name(l, "B"), Save(l)}, "ssalimits", {"B.lin"}},
        {"Exists false deletes", {Name(l, "A"), Exists(l, 1), Save(l), Exists(l, 0), Save(l)}, "ssalimits", {}},
        {"no name writes nothing", {Name(l, ""), Exists(l, 1), Save(l)}, "ssalimits", {}},
        {"factor", {Name(f, "A"), Exists(f, 1), Save(f)}, "ssatrd", {"A.tdf"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(drives_ / "d" / c.directory / "");
        fs::create_directories(drives_ / "d" / c.directory);
        Run(c.steps);
        EXPECT_EQ(Files(c.directory), c.files);
        Run({Set(l + "Exists", 0), Save(l), Set(f + "Exists", 0), Save(f)});
    }
    // A settings load makes the loaded Name the remembered one: A.lin is no
    // longer this line's file and stays.
    Run({Name(l, "Q")});
    const ComPtr<IStream> kept = NewStream(CBytes().U16(kMark).Append(CBytes(Record("LimitLineData.Line[3]"))));
    Run({Name(l, "A"), Exists(l, 1), Save(l)});
    ASSERT_EQ(Get<IDatabaseObject>("LimitLineData.Line[3]")->Load(kept.get()), S_OK);
    Run({Exists(l, 1), Save(l)});
    EXPECT_EQ(Files("ssalimits"), (std::set<std::string>{"A.lin", "Q.lin"}));
}

TEST_F(LineFilesTest, WithoutTheVariableNothingIsWritten) {
    Start(false);
    Run({Name(kLine3, "A"), Exists(kLine3, 1), Save(kLine3)});
    EXPECT_FALSE(fs::exists(drives_ / "d" / "ssalimits"));
    EXPECT_FALSE(fs::exists(drives_ / "d" / "ssatrd"));
}

TEST_F(LineFilesTest, NamesThatAreNoPlainFileNameAreRefused) {
    Start();
    Run({Exists(kLine3, 1)});
    for (const std::string& name :
         std::vector<std::string>{"a/b", "a\\b", "..", "x..y", ".hidden", "c:d", "a*", "tab\t", std::string(252, 'n')})
        Run({SetText(kLine3 + "Name", name, S_OK), IsText(kLine3 + "Name", name),
             Refused(kLine3 + "SaveFile", 1, "cannot name a limit-line file")});
    EXPECT_EQ(Files("ssalimits"), std::set<std::string>{});
    EXPECT_EQ(Files(""), (std::set<std::string>{"ssalimits", "ssatrd"}));
    Run({SetText(kLine3 + "Name", std::string(251, 'n')), Save(kLine3)});  // 251 bytes and ".lin" fill a name
}

// While notifications run, an edit of the line writes its file; the values
// the database derives (LLCheckPassed) do not, nor does anything while
// notifications are suppressed.
TEST_F(LineFilesTest, EditsWriteTheFileWhileNotificationsRun) {
    Start();
    const fs::path file = drives_ / "d" / "ssalimits" / "A.lin";
    const std::string m = kLine3;
    // The file's record, after the mark and the index.
    const auto written = [&] {
        const std::vector<BYTE> bytes = FileBytes(file);
        return std::vector<BYTE>(bytes.begin() + std::min<std::size_t>(bytes.size(), 4), bytes.end());
    };
    ASSERT_EQ(db_->RestartNotifications(), S_OK);
    Run({Name(m, "A")});
    EXPECT_FALSE(fs::exists(file));  // Exists is still false
    Run({Exists(m, 1)});
    EXPECT_EQ(written(), Record("LimitLineData.Line[3]"));
    Run({Set(m + "PointCount", 2, S_OK)});
    EXPECT_EQ(written(), Record("LimitLineData.Line[3]"));
    fs::remove(file);
    Run({Set(m + "LLCheckPassed", 1, S_OK)});
    EXPECT_FALSE(fs::exists(file));
    ASSERT_EQ(db_->SuppressNotifications(), S_OK);
    Run({Set(m + "PointCount", 3, S_OK)});
    EXPECT_FALSE(fs::exists(file));
}

// A saved file is the mark, the index and the line's record, and reads back
// into a default line.
TEST_F(LineFilesTest, WrittenFileReadsBackIntoADefaultLine) {
    Start();
    const std::string m = kLine3;
    // A lower line: Compatible, which a read recomputes, holds its computed
    // value already.
    Run({Name(m, "A"), SetText(m + "Comment", "mask", S_OK), Exists(m, 1), Set(m + "PointCount", 2, S_OK),
         Set(m + "Limit", 1, S_OK), Save(m)});
    const std::vector<BYTE> saved = Record("LimitLineData.Line[3]");
    const std::vector<BYTE> bytes = FileBytes(drives_ / "d" / "ssalimits" / "A.lin");
    ASSERT_GT(bytes.size(), 4u);
    EXPECT_EQ(std::vector<BYTE>(bytes.begin(), bytes.begin() + 4), (std::vector<BYTE>{0x01, 0x50, 0x03, 0x00}));
    EXPECT_EQ(std::vector<BYTE>(bytes.begin() + 4, bytes.end()), saved);
    ASSERT_EQ(FindPath<CGroupImpl>(&Lines(), "Line[3]")->ResetPutValue(), S_OK);
    ASSERT_NE(Record("LimitLineData.Line[3]"), saved);
    std::string reason;
    EXPECT_EQ(LoadLineFile(Lines(), kLimitLineFiles, "D:\\ssalimits\\A.lin", reason), S_OK) << reason;
    EXPECT_EQ(Record("LimitLineData.Line[3]"), saved);
    EXPECT_EQ(Read("LimitLineData.CountValidLL"), 1u);
}

// A fresh database reads the directories: the good files load, the damaged
// one is left out, and the counts and the list of factors follow.
TEST_F(LineFilesTest, CreationReadsTheDirectories) {
    WriteBytes(drives_ / "d" / "ssalimits" / "X.lin", HandMadeFile(5, "Line[5]", u"X"));
    WriteBytes(drives_ / "d" / "ssalimits" / "bad.lin", HandMadeFile(6, "Line[7]", u"bad"));
    WriteBytes(drives_ / "d" / "ssatrd" / "F.tdf", HandMadeFile(2, "Factor[2]", u"F"));
    Start();
    Run({IsText("LimitLineData.Line[5].Name", "X"), Is("LimitLineData.CountValidLL", 1),
         IsText("UserSettings.PhaseNoiseSettings.TransducerFactorNames", "** None **:F"),
         Is("TransducerFactorsData.CountValidTDF", 1)});
}

// Damaged files are refused with the file and the offset, and the line is
// left as it was.
TEST_F(LineFilesTest, DamagedFilesAreRefused) {
    Start();
    const std::vector<BYTE> good = HandMadeFile(3, "Line[3]", u"A");
    const auto with = [&](std::size_t at, BYTE value) {
        std::vector<BYTE> bytes = good;
        if (at < bytes.size())
            bytes[at] = value;
        else
            bytes.push_back(value);
        return bytes;
    };
    const std::size_t payload = 4 + 6 + 7;  // head, record header, "Line[3]"
    // Well formed, but PointCount's class reads stored limits past the end:
    // Exists, read before, must not stay.
    const CBytes pastTheEnd = GroupPayload({persist_test::Record("Exists", BooleanPayload(true, true)),
                                            persist_test::Record("PointCount", IntegerPayload(true, 2))});
    const struct {
        const char* what;
        std::vector<BYTE> bytes;
        const char* reason;
    } cases[] = {
        {"short", {0x01, 0x50}, "offset 0x0 (0): 2 bytes"},
        {"mark", with(0, 0x02), "offset 0x0 (0): the mark 0x5002"},
        {"index", with(2, 100), "offset 0x2 (2): the index 100"},
        {"other member", with(2, 4), "offset 0xA (10): a record named 'Line[3]' where index 4 needs 'Line[4]'"},
        {"truncated", std::vector<BYTE>(good.begin(), good.end() - 1), "offset 0x4 (4): a record size of"},
        {"trailing", with(good.size(), 0), "1 bytes after the record"},
        {"version", with(payload, 2), "offset 0x11 (17): version 2"},
        {"child size", with(payload + 6, 0xFF), "reaches past the end of its group"},
        {"type code", with(payload + 6 + 6 + 6, 3), "type code 3, which no member of a line has"},
        {"status", with(payload + 6 + 6 + 6 + 2, 5), "status 5"},
        {"read past the end", CBytes().U16(kMark).U16(3).Append(persist_test::Record("Line[3]", pastTheEnd)).Data(),
         "offset 0x4 (4): the record cannot be loaded"},
    };
    const std::vector<BYTE> before = Record("LimitLineData.Line[3]");
    for (const auto& c : cases) {
        std::string reason;
        EXPECT_EQ(LoadLineFileBytes(Lines(), kLimitLineFiles, c.bytes.data(), c.bytes.size(), "A.lin", reason), E_FAIL)
            << c.what;
        EXPECT_NE(reason.find("the limit-line file A.lin"), std::string::npos) << reason;
        EXPECT_NE(reason.find(c.reason), std::string::npos) << c.what << ": " << reason;
        EXPECT_EQ(Record("LimitLineData.Line[3]"), before) << c.what;
    }
    std::string reason;
    EXPECT_EQ(LoadLineFileBytes(Lines(), kLimitLineFiles, good.data(), good.size(), "../A.lin", reason), E_INVALIDARG);
    EXPECT_EQ(LoadLineFileBytes(Lines(), kLimitLineFiles, good.data(), good.size(), "A.lin", reason), S_OK) << reason;
}

// The list of factors and the count of existing ones follow Exists and Name.
TEST_F(LineFilesTest, FactorListFollowsExistsAndName) {
    Start();
    const std::string f1 = "TransducerFactorsData.Factor[1].", f4 = "TransducerFactorsData.Factor[4].";
    const std::string list = "UserSettings.PhaseNoiseSettings.TransducerFactorNames";
    const std::string count = "TransducerFactorsData.CountValidTDF";
    Run({// A factor is listed while it exists and has a name that fits the list.
         SetText(f4 + "Name", "Probe", S_OK), IsText(list, "** None **"), Is(count, 0), Set(f4 + "Exists", 1, S_OK),
         IsText(list, "** None **:Probe"), Is(count, 1), SetText(f1 + "Name", "Cable", S_OK),
         IsText(list, "** None **:Probe"), Is(count, 1), Set(f1 + "Exists", 1, S_OK),
         IsText(list, "** None **:Cable:Probe"), Is(count, 2), SetText(f4 + "Name", "Amp", S_OK),
         IsText(list, "** None **:Cable:Amp"), Is(count, 2),
         // A name that cannot stand in the list leaves the factor out.
         SetText(f4 + "Name", "a:b", S_OK), IsText(list, "** None **:Cable"), Is(count, 2), Set(f1 + "Exists", 0, S_OK),
         IsText(list, "** None **"), Is(count, 1), Is("TransducerFactorsData.Changed", 1)});
}

}  // namespace
