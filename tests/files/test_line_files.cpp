// Limit-line and transducer-factor files of the real tree, under the test's
// own drive directory with ZLM_SYSTEM_ROOT_RW at "D:\": writing, deleting,
// the automatic write, names refused, damaged files refused, reading back,
// and the factor list. One database object per process, as always.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "files/LineFiles.h"
#include "files/TreeLinks.h"
#include "schema/Database.h"
#include "schema/GroupClasses.h"
#include "stream/StreamBytes.h"
#include "support/ErrorInfo.h"
#include "support/ScratchDrives.h"

using namespace vorn;
using namespace persist_test;
namespace fs = std::filesystem;

namespace {

std::vector<BYTE> FileBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const fs::path& path, const std::vector<BYTE>& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A line file written down from the format: mark, index, a record named
// `record` holding Exists (true) and Name only.
std::vector<BYTE> HandMadeFile(WORD index, const std::string& record, const std::u16string& name) {
    const CBytes group =
        GroupPayload({Record("Exists", BooleanPayload(true, true)), Record("Name", StringPayload(true, name))});
    return CBytes().U16(kMark).U16(index).Append(Record(record, group)).Data();
}

class LineFilesTest : public vorn::test::ScratchDrives {
protected:
    void Start(bool withRoot = true) {
        if (withRoot)
            setenv(kLineFilesRootVariable, "D:\\", 1);
        else
            unsetenv(kLineFilesRootVariable);
        ASSERT_EQ(CreateDatabase(IID_IDatabase, db_.put_void()), S_OK);
    }
    void TearDown() override {
        db_.reset();
        ScratchDrives::TearDown();
    }

    template <class I>
    ComPtr<I> Get(const std::string& name) {
        std::u16string full(name.begin(), name.end());
        ComPtr<I> p;
        EXPECT_EQ(db_->GetParameter(full.data(), VORN_UUIDOF(I), p.put_void()), S_OK) << name;
        return p;
    }
    HRESULT SetText(const std::string& name, const std::u16string& text) {
        BSTR value = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        const HRESULT hr = Get<IParameterString>(name)->put_Value(value);
        SysFreeString(value);
        return hr;
    }
    std::u16string Text(const std::string& name) {
        BSTR text = nullptr;
        EXPECT_EQ(Get<IParameterString>(name)->get_Value(&text), S_OK);
        std::u16string out(text ? text : u"", text ? SysStringLen(text) : 0);
        SysFreeString(text);
        return out;
    }
    HRESULT SetBool(const std::string& name, bool value) {
        return Get<IParameterBoolean>(name)->put_Value(value ? VARIANT_TRUE : VARIANT_FALSE);
    }
    ULONG Integer(const std::string& name) {
        ULONG value = ~0u;
        EXPECT_EQ(Get<IParameterInteger>(name)->get_Value(&value), S_OK);
        return value;
    }
    // The group's record as its IPersistStream writes it (after the mark).
    std::vector<BYTE> Record(const std::string& group) {
        auto* node = FindPath<CStreamGroup>(&TreeOf(db_.get()), group);
        EXPECT_NE(node, nullptr) << group;
        ComPtr<IStream> stream;
        EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), S_OK);
        EXPECT_EQ(node->PersistStream()->Save(stream.get(), TRUE), S_OK);
        const std::vector<BYTE> bytes = ContentsOf(stream.get());
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

    ComPtr<IDatabase> db_;
};

constexpr char kLine3[] = "LimitLineData.Line[3].";

// The rule of SaveFile, step by step: what each step does to the line or
// factor, and which files the directory holds at the end.
TEST_F(LineFilesTest, SaveFileKeepsTheDirectoryInStep) {
    Start();
    enum EStep { kSave, kExists, kGone, kNameA, kNameB, kNameQ, kNoName, kKeep, kRestore };
    const struct {
        const char* what;
        const char* member;  // ends in "."
        std::vector<EStep> steps;
        const char* directory;
        std::set<std::string> files;
    } cases[] = {
        {"written", kLine3, {kNameA, kExists, kSave}, "ssalimits", {"A.lin"}},
        {"renamed A to B", kLine3, {kNameA, kExists, kSave, kNameB, kSave}, "ssalimits", {"B.lin"}},
        {"Exists false deletes", kLine3, {kNameA, kExists, kSave, kGone, kSave}, "ssalimits", {}},
        {"no name writes nothing", kLine3, {kNoName, kExists, kSave}, "ssalimits", {}},
        // A settings load makes the loaded Name the remembered one: A.lin
        // is no longer this line's file and stays.
        {"settings load",
         kLine3,
         {kNameQ, kKeep, kNameA, kExists, kSave, kRestore, kExists, kSave},
         "ssalimits",
         {"A.lin", "Q.lin"}},
        {"factor", "TransducerFactorsData.Factor[3].", {kNameA, kExists, kSave}, "ssatrd", {"A.tdf"}},
    };
    for (const auto& c : cases) {
        const std::string m = c.member;
        fs::remove_all(drives_ / "d" / c.directory / "");
        fs::create_directories(drives_ / "d" / c.directory);
        ComPtr<IStream> kept;
        for (EStep step : c.steps) {
            switch (step) {
                case kSave:
                    EXPECT_EQ(SetBool(m + "SaveFile", true), S_OK) << c.what;
                    break;
                case kExists:
                    EXPECT_EQ(SetBool(m + "Exists", true), S_OK);
                    break;
                case kGone:
                    EXPECT_EQ(SetBool(m + "Exists", false), S_OK);
                    break;
                case kNameA:
                    EXPECT_EQ(SetText(m + "Name", u"A"), S_OK);
                    break;
                case kNameB:
                    EXPECT_EQ(SetText(m + "Name", u"B"), S_OK);
                    break;
                case kNameQ:
                    EXPECT_EQ(SetText(m + "Name", u"Q"), S_OK);
                    break;
                case kNoName:
                    EXPECT_EQ(SetText(m + "Name", u""), S_OK);
                    break;
                case kKeep: {
                    const std::vector<BYTE> record = Record(m.substr(0, m.size() - 1));
                    kept = NewStream(CBytes().U16(kMark).Append(CBytes(record)));
                    break;
                }
                case kRestore: {
                    ComPtr<IDatabaseObject> line;
                    const std::u16string name(m.begin(), m.end() - 1);
                    ComPtr<IUnknown> node;
                    ASSERT_EQ(db_->GetObject(const_cast<char16_t*>(name.c_str()), node.put()), S_OK);
                    ASSERT_EQ(node->QueryInterface(IID_IDatabaseObject, line.put_void()), S_OK);
                    EXPECT_EQ(line->Load(kept.get()), S_OK);
                    break;
                }
            }
        }
        EXPECT_EQ(Files(c.directory), c.files) << c.what;
        EXPECT_TRUE(SUCCEEDED(SetBool(m + "Exists", false)));
        EXPECT_EQ(SetBool(m + "SaveFile", true), S_OK);
    }
}

TEST_F(LineFilesTest, FileIsMarkIndexAndTheLinesRecord) {
    Start();
    ASSERT_EQ(SetText(std::string(kLine3) + "Name", u"A"), S_OK);
    ASSERT_EQ(SetBool(std::string(kLine3) + "Exists", true), S_OK);
    ASSERT_EQ(SetBool(std::string(kLine3) + "SaveFile", true), S_OK);
    const std::vector<BYTE> bytes = FileBytes(drives_ / "d" / "ssalimits" / "A.lin");
    ASSERT_GT(bytes.size(), 4u);
    EXPECT_EQ(std::vector<BYTE>(bytes.begin(), bytes.begin() + 4), (std::vector<BYTE>{0x01, 0x50, 0x03, 0x00}));
    EXPECT_EQ(std::vector<BYTE>(bytes.begin() + 4, bytes.end()), Record("LimitLineData.Line[3]"));
}

TEST_F(LineFilesTest, WithoutTheVariableNothingIsWritten) {
    Start(false);
    ASSERT_EQ(SetText(std::string(kLine3) + "Name", u"A"), S_OK);
    ASSERT_EQ(SetBool(std::string(kLine3) + "Exists", true), S_OK);
    EXPECT_EQ(SetBool(std::string(kLine3) + "SaveFile", true), S_OK);
    EXPECT_FALSE(fs::exists(drives_ / "d" / "ssalimits"));
    EXPECT_FALSE(fs::exists(drives_ / "d" / "ssatrd"));
}

TEST_F(LineFilesTest, NamesThatAreNoPlainFileNameAreRefused) {
    Start();
    ASSERT_EQ(SetBool(std::string(kLine3) + "Exists", true), S_OK);
    for (const std::u16string& name : std::vector<std::u16string>{u"a/b", u"a\\b", u"..", u"x..y", u".hidden", u"c:d",
                                                                  u"a*", u"tab\t", std::u16string(252, u'n')}) {
        ASSERT_EQ(SetText(std::string(kLine3) + "Name", name), S_OK);
        EXPECT_EQ(SetBool(std::string(kLine3) + "SaveFile", true), E_INVALIDARG) << Narrow(name);
        EXPECT_NE(vorn::test::TakeError().description.find("cannot name a limit-line file"), std::string::npos);
    }
    EXPECT_EQ(Files("ssalimits"), std::set<std::string>{});
    EXPECT_EQ(Files(""), (std::set<std::string>{"ssalimits", "ssatrd"}));
    // 251 bytes and ".lin" fill a name exactly.
    ASSERT_EQ(SetText(std::string(kLine3) + "Name", std::u16string(251, u'n')), S_OK);
    EXPECT_EQ(SetBool(std::string(kLine3) + "SaveFile", true), S_OK);
}

// While notifications run, an edit of the line writes its file; the values
// the database derives (LLCheckPassed) do not, nor does anything while
// notifications are suppressed.
TEST_F(LineFilesTest, EditsWriteTheFileWhileNotificationsRun) {
    Start();
    const fs::path file = drives_ / "d" / "ssalimits" / "A.lin";
    const std::string m = kLine3;
    ASSERT_EQ(db_->RestartNotifications(), S_OK);
    ASSERT_EQ(SetText(m + "Name", u"A"), S_OK);
    EXPECT_FALSE(fs::exists(file));  // Exists is still false
    ASSERT_EQ(SetBool(m + "Exists", true), S_OK);
    EXPECT_EQ(FileBytes(file).size(), Record("LimitLineData.Line[3]").size() + 4);
    ASSERT_EQ(Get<IParameterInteger>(m + "PointCount")->put_Value(2), S_OK);
    const std::vector<BYTE> bytes = FileBytes(file);
    EXPECT_EQ(std::vector<BYTE>(bytes.begin() + 4, bytes.end()), Record("LimitLineData.Line[3]"));
    fs::remove(file);
    ASSERT_EQ(Get<IParameterInteger>(m + "LLCheckPassed")->put_Value(1), S_OK);
    EXPECT_FALSE(fs::exists(file));
    ASSERT_EQ(db_->SuppressNotifications(), S_OK);
    ASSERT_EQ(Get<IParameterInteger>(m + "PointCount")->put_Value(3), S_OK);
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(LineFilesTest, WrittenFileReadsBackIntoADefaultLine) {
    Start();
    const std::string m = kLine3;
    ASSERT_EQ(SetText(m + "Name", u"A"), S_OK);
    ASSERT_EQ(SetText(m + "Comment", u"mask"), S_OK);
    ASSERT_EQ(SetBool(m + "Exists", true), S_OK);
    ASSERT_EQ(Get<IParameterInteger>(m + "PointCount")->put_Value(2), S_OK);
    // A lower line: Compatible, which a read recomputes, holds its computed
    // value already.
    ASSERT_EQ(Get<IParameterInteger>(m + "Limit")->put_Value(1), S_OK);
    ASSERT_EQ(SetBool(m + "SaveFile", true), S_OK);
    const std::vector<BYTE> saved = Record("LimitLineData.Line[3]");
    ASSERT_EQ(FindPath<CGroupImpl>(&Lines(), "Line[3]")->ResetPutValue(), S_OK);
    ASSERT_NE(Record("LimitLineData.Line[3]"), saved);
    std::string reason;
    EXPECT_EQ(LoadLineFile(Lines(), kLimitLineFiles, "D:\\ssalimits\\A.lin", reason), S_OK) << reason;
    EXPECT_EQ(Record("LimitLineData.Line[3]"), saved);
    EXPECT_EQ(Integer("LimitLineData.CountValidLL"), 1u);
}

// A fresh database reads the directories: the good files load, the damaged
// one is left out, and the counts and the list of factors follow.
TEST_F(LineFilesTest, CreationReadsTheDirectories) {
    WriteFile(drives_ / "d" / "ssalimits" / "X.lin", HandMadeFile(5, "Line[5]", u"X"));
    WriteFile(drives_ / "d" / "ssalimits" / "bad.lin", HandMadeFile(6, "Line[7]", u"bad"));
    WriteFile(drives_ / "d" / "ssatrd" / "F.tdf", HandMadeFile(2, "Factor[2]", u"F"));
    Start();
    EXPECT_EQ(Text("LimitLineData.Line[5].Name"), u"X");
    EXPECT_EQ(Integer("LimitLineData.CountValidLL"), 1u);
    EXPECT_EQ(Text("UserSettings.PhaseNoiseSettings.TransducerFactorNames"), u"** None **:F");
    EXPECT_EQ(Integer("TransducerFactorsData.CountValidTDF"), 1u);
}

// Damaged files are refused with the file and the offset, and the line is
// left as it was.
TEST_F(LineFilesTest, DamagedFilesAreRefused) {
    Start();
    const std::vector<BYTE> good = HandMadeFile(3, "Line[3]", u"A");
    const auto with = [&](std::size_t at, BYTE value) {
        std::vector<BYTE> bytes = good;
        bytes[at] = value;
        return bytes;
    };
    const std::size_t payload = 4 + 6 + 7;  // head, record header, "Line[3]"
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
        {"trailing",
         [&] {
             auto b = good;
             b.push_back(0);
             return b;
         }(),
         "1 bytes after the record"},
        {"version", with(payload, 2), "offset 0x11 (17): version 2"},
        {"child size", with(payload + 6, 0xFF), "reaches past the end of its group"},
        {"type code", with(payload + 6 + 6 + 6, 3), "type code 3, which no member of a line has"},
        {"status", with(payload + 6 + 6 + 6 + 2, 5), "status 5"},
        // Well formed, but PointCount's class reads stored limits past the
        // end: Exists, read before, must not stay.
        {"read past the end",
         CBytes()
             .U16(kMark)
             .U16(3)
             .Append(persist_test::Record("Line[3]",
                                          GroupPayload({persist_test::Record("Exists", BooleanPayload(true, true)),
                                                        persist_test::Record("PointCount", IntegerPayload(true, 2))})))
             .Data(),
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
    const struct {
        int factor;
        const char* member;
        std::u16string text;  // for Name; "1"/"0" for Exists
        std::u16string list;
        ULONG count;
    } steps[] = {
        {4, "Name", u"Probe", u"** None **", 0},         {4, "Exists", u"1", u"** None **:Probe", 1},
        {1, "Name", u"Cable", u"** None **:Probe", 1},   {1, "Exists", u"1", u"** None **:Cable:Probe", 2},
        {4, "Name", u"Amp", u"** None **:Cable:Amp", 2}, {4, "Name", u"a:b", u"** None **:Cable", 2},
        {1, "Exists", u"0", u"** None **", 1},
    };
    for (const auto& s : steps) {
        const std::string m = "TransducerFactorsData.Factor[" + std::to_string(s.factor) + "]." + s.member;
        ASSERT_EQ(std::string(s.member) == "Name" ? SetText(m, s.text) : SetBool(m, s.text == u"1"), S_OK);
        EXPECT_EQ(Text("UserSettings.PhaseNoiseSettings.TransducerFactorNames"), s.list) << m;
        EXPECT_EQ(Integer("TransducerFactorsData.CountValidTDF"), s.count) << m;
    }
    VARIANT_BOOL changed = VARIANT_FALSE;
    EXPECT_EQ(Get<IParameterBoolean>("TransducerFactorsData.Changed")->get_Value(&changed), S_OK);
    EXPECT_EQ(changed, VARIANT_TRUE);
}

}  // namespace
