// Settings files of the real tree: DCSettings (save, list, recall, reset to
// defaults) and the calibration files of AmplitudeNoisePremeas, under the
// test's own drive directory (VORN_DRIVES, set by CTest). Each test case runs
// in its own process with its own database object.

#include <filesystem>

#include "files/SettingsFiles.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace persist_test;
namespace fs = std::filesystem;
using namespace vorn::test;

namespace {

const std::string kDC = "UserSettings.DCSettings.";
const std::string kAM = "UserSettings.VCOLOOPSettings.AmplitudeNoisePremeas.";
const std::string kPort1Min = "PortSettings.DCPort1.SupplyVoltageMin";
const std::string kPort2Max = "PortSettings.DCPort2.SupplyVoltageMax";
const std::string kList = "** Default **\r\n** Please select **\r\n";  // the DC list's fixed entries

const std::string kSelected = kDC + "SelectedSavedFile";
const std::string kSaved = kDC + "SavedFilesList";

class SettingsFilesTest : public DrivesTreeTest {
protected:
    void SetUp() override {
        DrivesTreeTest::SetUp();
        user_ = drives_ / "d" / "User";  // where "D:\\User" lands
        fs::create_directories(user_);
        CreateTree();
    }

    HRESULT SaveDC(const std::u16string& name) {
        const HRESULT hr = PutText(kDC + "SaveFileName", name);
        return FAILED(hr) ? hr : Write(kDC + "SaveFile", 1);
    }
    // IDatabaseObject::ResetPutValue of a selection: lists the directory.
    void Relist(const std::string& name) { ASSERT_EQ(Get<IDatabaseObject>(name)->ResetPutValue(), S_OK); }
    // The group's settings stream; `group` ends in a dot.
    std::vector<BYTE> GroupStream(const std::string& group) { return StreamOf(group.substr(0, group.size() - 1)); }

    fs::path user_;
};

}  // namespace

TEST(SettingsFileNames, Composition) {
    const struct {
        std::string name;
        const char* extension;
        const char* expected;  // null: refused
    } cases[] = {
        {"mydc", ".dcs", "D:\\User\\mydc.dcs"},
        {"mydc.txt", ".dcs", "D:\\User\\mydc.dcs"},  // the group's extension wins
        {"mydc.txt", "", "D:\\User\\mydc.txt"},      // unless it has none
        {"mydc.txt", ".", "D:\\User\\mydc.txt"},     // "." is none
        {"mydc.", ".", "D:\\User\\mydc"},
        {"C:\\data\\mydc", ".dcs", "C:\\data\\mydc.dcs"},  // drive and directory kept
        {"\\data\\mydc", ".dcs", "D:\\data\\mydc.dcs"},
        {"C:mydc", ".dcs", "C:\\User\\mydc.dcs"},
        {"sub\\mydc", ".dcs", "D:\\User\\sub\\mydc.dcs"},      // a relative directory goes below \User\.
        {"D:\\User\\mydc.dcs", ".dcs", "D:\\User\\mydc.dcs"},  // a full path stays as it is
        {"", ".dcs", ""},
        {"D:\\User\\", ".dcs", nullptr},  // no file name
        {std::string(250, 'x'), ".dcs", nullptr},
    };
    for (const auto& c : cases) {
        std::string path;
        EXPECT_EQ(ComposeFileName(c.name, c.extension, path), c.expected != nullptr) << c.name;
        if (c.expected) {
            EXPECT_EQ(path, c.expected) << c.name;
        }
    }
}

TEST_F(SettingsFilesTest, SaveAndRecallDCSettings) {
    Run({Set(kDC + kPort1Min, 1.25), Set(kDC + kPort2Max, 7.5), SetText(kDC + "SaveFileName", "mydc", S_OK),
         Set(kDC + "SaveFile", 1, S_OK), IsText(kDC + "SaveFileName", "D:\\User\\mydc.dcs"),
         IsText(kSaved, kList + "mydc.dcs")});
    // The file is exactly the group's settings stream (saved again, now that
    // the list the stream holds shows the file).
    ASSERT_EQ(SaveDC(u"mydc"), S_OK);
    EXPECT_EQ(FileBytes(user_ / "mydc.dcs"), GroupStream(kDC));
    EXPECT_EQ(std::distance(fs::directory_iterator(user_), fs::directory_iterator()), 1);  // no temporary file

    Run({Set(kDC + kPort1Min, 3.0), Set(kDC + kPort2Max, 9.0), Set(kSelected, 2, S_OK), Is(kDC + kPort1Min, 1.25),
         Is(kDC + kPort2Max, 7.5), Is(kSelected, 2), Is(kDC + "DCSettingsLoaded", 1),
         IsText(kSaved, kList + "mydc.dcs"),
         // "** Default **" resets the group.
         Set(kSelected, 0, S_OK), Is(kDC + kPort1Min, 4.75), Is(kDC + "DCSettingsLoaded", 0), Is(kSelected, 0),
         IsText(kSaved, kList + "mydc.dcs"),
         // "** Please select **" does nothing but select.
         Set(kDC + kPort1Min, 2.0), Set(kSelected, 1, S_OK), Is(kDC + kPort1Min, 2.0), Is(kSelected, 1),
         // Beyond the list: refused, nothing changes.
         Set(kSelected, 3, E_INVALIDARG), Is(kSelected, 1), Is(kDC + kPort1Min, 2.0)});
}

TEST_F(SettingsFilesTest, SavingReplacesTheFileAndAFailedSaveKeepsIt) {
    for (double v : {1.0, 2.0}) {
        Run({Set(kDC + kPort1Min, v)});
        ASSERT_EQ(SaveDC(u"keep"), S_OK);
    }
    const std::vector<BYTE> second = FileBytes(user_ / "keep.dcs");
    EXPECT_EQ(second, GroupStream(kDC));
    // A read-only file is refused (whoever saves, root too) and stays; a
    // replaced file keeps its permission bits.
    Run({Set(kDC + kPort1Min, 3.0)});
    fs::permissions(user_ / "keep.dcs", fs::perms(0444));
    // The reason names the file, where it lands, and the system's error.
    Run({SetText(kDC + "SaveFileName", "keep"),
         Refused(kDC + "SaveFile", 1,
                 "the settings file D:\\User\\keep.dcs (" + (user_ / "keep.dcs").string() +
                     ") cannot be written: access denied (Win32 error 5)",
                 HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED))});
    EXPECT_EQ(FileBytes(user_ / "keep.dcs"), second);
    fs::permissions(user_ / "keep.dcs", fs::perms(0600));
    ASSERT_EQ(SaveDC(u"keep"), S_OK);
    EXPECT_EQ(fs::status(user_ / "keep.dcs").permissions(), fs::perms(0600));
    // A link planted where a save once put its temporary file leads nowhere.
    WriteBytes(drives_ / "victim", {'v'});
    fs::create_symlink(drives_ / "victim", user_ / "keep.dcs.~tmp");
    ASSERT_EQ(SaveDC(u"keep"), S_OK);
    EXPECT_EQ(FileBytes(drives_ / "victim"), std::vector<BYTE>{'v'});
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(user_ / "keep.dcs")));
    fs::remove(user_ / "keep.dcs.~tmp");
    // A name of the full 255 bytes.
    const std::string longest(255, 'n');
    ASSERT_EQ(WriteFileReplacing("D:\\User\\" + longest, second.data(), second.size()), S_OK);
    EXPECT_EQ(FileBytes(user_ / longest), second);
    fs::remove(user_ / longest);

    // A directory that cannot be created: the Win32 error.
    Run({SetText(kDC + "SaveFileName", "D:\\no\\such\\dir\\x"),
         Refused(kDC + "SaveFile", 1,
                 "the settings file D:\\no\\such\\dir\\x.dcs (" + (drives_ / "d/no/such/dir/x.dcs").string() +
                     ") cannot be written: the directory does not exist (Win32 error 3)",
                 HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND))});
    // No name: nothing is written, and that is no error. Only VARIANT_TRUE saves.
    Run({SetText(kDC + "SaveFileName", ""), Set(kDC + "SaveFile", 1, S_OK), SetText(kDC + "SaveFileName", "other")});
    EXPECT_EQ(Get<IParameterBoolean>(kDC + "SaveFile")->put_Value(1), S_OK);
    EXPECT_EQ(std::distance(fs::directory_iterator(user_), fs::directory_iterator()), 1);
}

TEST_F(SettingsFilesTest, TheListShowsTheDirectory) {
    for (const char* name : {"b.dcs", "A.dcs", "c.dcs", "x.amc", ".half.dcs.~AbC123", "sub/z.dcs"})
        WriteBytes(user_ / name, GroupStream(kDC));
    fs::create_directory(user_ / "dir.dcs");
    Relist(kSelected);
    Run({IsText(kSaved, kList + "A.dcs\r\nb.dcs\r\nc.dcs"), Is(kSelected, 0),
         // A new name lists its own directory.
         SetText(kDC + "SaveFileName", "sub\\new"), IsText(kSaved, kList + "z.dcs"),
         // The selected entry is followed by name when the list changes.
         Set(kSelected, 2, S_OK), SetText(kDC + "SaveFileName", "sub\\a"), Set(kDC + "SaveFile", 1, S_OK),
         IsText(kSaved, kList + "a.dcs\r\nz.dcs"), Is(kSelected, 3)});
    // Gone from the directory: "** Please select **".
    fs::remove(user_ / "sub" / "z.dcs");
    ASSERT_EQ(SaveDC(u"sub\\a"), S_OK);
    EXPECT_EQ(Read(kSelected), 1u);
}

TEST_F(SettingsFilesTest, WhatIsNotThisGroupsSettingsFileIsRefused) {
    ASSERT_EQ(SaveDC(u"good"), S_OK);
    WriteBytes(user_ / "junk.dcs", {0x01, 0x50, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00});
    WriteBytes(user_ / "text.dcs", {'h', 'e', 'l', 'l', 'o', '\n', 'x', 'y', 'z'});
    WriteBytes(user_ / "empty.dcs", {});
    WriteBytes(user_ / "other.dcs", GroupStream(kAM));
    const std::vector<BYTE> good = FileBytes(user_ / "good.dcs");
    WriteBytes(user_ / "truncated.dcs", std::vector<BYTE>(good.begin(), good.begin() + good.size() / 2));
    ASSERT_EQ(SaveDC(u"good"), S_OK);  // lists them all
    Run({IsText(kSaved, kList + "empty.dcs\r\ngood.dcs\r\njunk.dcs\r\nother.dcs\r\ntext.dcs\r\ntruncated.dcs"),
         Set(kDC + kPort1Min, 2.5), Set(kSelected, 1, S_OK)});
    const std::vector<BYTE> before = GroupStream(kDC);
    for (ULONG index : {2u, 4u, 5u, 6u, 7u}) {
        EXPECT_EQ(Write(kSelected, index), E_FAIL) << index;
        EXPECT_EQ(GroupStream(kDC), before) << index;
    }
    // A recall that fails while loading names the file before the stream's reason.
    const std::string reason = TakeError().description;
    EXPECT_EQ(reason.rfind("the settings file D:\\User\\truncated.dcs (", 0), 0u) << reason;
    EXPECT_NE(reason.find("reaches past the end of the stream"), std::string::npos) << reason;
    fs::remove(user_ / "good.dcs");
    Run({Set(kSelected, 3, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)), Is(kDC + kPort1Min, 2.5), Is(kSelected, 1)});
}

TEST_F(SettingsFilesTest, CalibrationFilesOfAmplitudeNoisePremeas) {
    Run({SetText(kAM + "CalibrationFile", "cal1", S_OK), IsText(kAM + "CalibrationFile", "D:\\User\\cal1.amc"),
         Set(kAM + "ExternalLNA", 12.0)});
    // The premeasurement writes the group's stream into the file it names.
    const std::vector<BYTE> stream = GroupStream(kAM);
    ASSERT_EQ(WriteFileReplacing("D:\\User\\cal1.amc", stream.data(), stream.size()), S_OK);
    WriteBytes(user_ / "dc.dcs", GroupStream(kDC));
    Relist(kAM + "SelectedCalibrationFile");
    // No "** Please select **" here, and only its own extension.
    Run({IsText(kAM + "CalibrationFileList", "** Default **\r\ncal1.amc"), Set(kAM + "ExternalLNA", 30.0),
         Set(kAM + "SelectedCalibrationFile", 1, S_OK), Is(kAM + "ExternalLNA", 12.0),
         Is(kAM + "UsableCalibrationFile", 1), Is(kAM + "SelectedCalibrationFile", 1),
         Set(kAM + "SelectedCalibrationFile", 0, S_OK), Is(kAM + "UsableCalibrationFile", 0),
         Is(kAM + "ExternalLNA", NAN)});
}
