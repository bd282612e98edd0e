// Settings files of the real tree: DCSettings (save, list, recall, reset to
// defaults) and the calibration files of AmplitudeNoisePremeas, under the
// test's own drive directory (VORN_DRIVES, set by CTest). Each test case runs
// in its own process with its own database object.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>

#include "files/SettingsFiles.h"
#include "schema/Database.h"
#include "schema/RuleTestSupport.h"
#include "stream/DataStream.h"
#include "stream/StreamBytes.h"
#include "support/ErrorInfo.h"
#include "support/ScratchDrives.h"

using namespace vorn;
using namespace persist_test;
namespace fs = std::filesystem;
using vorn::test::FileBytes;
using vorn::test::WriteBytes;

namespace {

const std::string kDC = "UserSettings.DCSettings.";
const std::string kAM = "UserSettings.VCOLOOPSettings.AmplitudeNoisePremeas.";
const std::string kPort1Min = "PortSettings.DCPort1.SupplyVoltageMin";
const std::string kPort2Max = "PortSettings.DCPort2.SupplyVoltageMax";
const std::string kList = "** Default **\r\n** Please select **\r\n";  // the DC list's fixed entries

class SettingsFilesTest : public vorn::test::ScratchDrives, protected vorn::test::TreeAccess {
protected:
    void SetUp() override {
        ScratchDrives::SetUp();
        user_ = drives_ / "d" / "User";  // where "D:\\User" lands
        fs::create_directories(user_);
        CreateTree();
    }
    void TearDown() override {
        db_.reset();
        ScratchDrives::TearDown();
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
    std::string path;
    const struct {
        const char* name;
        const char* extension;
        const char* expected;
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
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(ComposeFileName(c.name, c.extension, path)) << c.name;
        EXPECT_EQ(path, c.expected) << c.name;
    }
    EXPECT_FALSE(ComposeFileName("D:\\User\\", ".dcs", path));  // no file name
    EXPECT_FALSE(ComposeFileName(std::string(250, 'x'), ".dcs", path));
}

TEST_F(SettingsFilesTest, SaveAndRecallDCSettings) {
    ASSERT_EQ(Write(kDC + kPort1Min, 1.25), S_OK);
    ASSERT_EQ(Write(kDC + kPort2Max, 7.5), S_OK);
    ASSERT_EQ(SaveDC(u"mydc"), S_OK);
    EXPECT_EQ(Text(kDC + "SaveFileName"), "D:\\User\\mydc.dcs");
    EXPECT_EQ(Text(kDC + "SavedFilesList"), kList + "mydc.dcs");

    // The file is exactly the group's settings stream (saved again, now that
    // the list the stream holds shows the file).
    ASSERT_EQ(SaveDC(u"mydc"), S_OK);
    EXPECT_EQ(FileBytes(user_ / "mydc.dcs"), GroupStream(kDC));
    EXPECT_EQ(std::distance(fs::directory_iterator(user_), fs::directory_iterator()), 1);  // no temporary file

    ASSERT_EQ(Write(kDC + kPort1Min, 3.0), S_OK);
    ASSERT_EQ(Write(kDC + kPort2Max, 9.0), S_OK);
    ASSERT_EQ(Write(kDC + "SelectedSavedFile", 2), S_OK);
    EXPECT_EQ(Read(kDC + kPort1Min), 1.25);
    EXPECT_EQ(Read(kDC + kPort2Max), 7.5);
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 2u);
    EXPECT_EQ(Read(kDC + "DCSettingsLoaded"), 1);
    EXPECT_EQ(Text(kDC + "SavedFilesList"), kList + "mydc.dcs");

    // "** Default **" resets the group.
    ASSERT_EQ(Write(kDC + "SelectedSavedFile", 0), S_OK);
    EXPECT_EQ(Read(kDC + kPort1Min), 4.75);
    EXPECT_EQ(Read(kDC + "DCSettingsLoaded"), 0);
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 0u);
    EXPECT_EQ(Text(kDC + "SavedFilesList"), kList + "mydc.dcs");

    // "** Please select **" does nothing but select.
    ASSERT_EQ(Write(kDC + kPort1Min, 2.0), S_OK);
    ASSERT_EQ(Write(kDC + "SelectedSavedFile", 1), S_OK);
    EXPECT_EQ(Read(kDC + kPort1Min), 2.0);
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 1u);

    // Beyond the list: refused, nothing changes.
    EXPECT_EQ(Write(kDC + "SelectedSavedFile", 3), E_INVALIDARG);
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 1u);
    EXPECT_EQ(Read(kDC + kPort1Min), 2.0);
}

TEST_F(SettingsFilesTest, SavingReplacesTheFileAndAFailedSaveKeepsIt) {
    ASSERT_EQ(Write(kDC + kPort1Min, 1.0), S_OK);
    ASSERT_EQ(SaveDC(u"keep"), S_OK);
    ASSERT_EQ(Write(kDC + kPort1Min, 2.0), S_OK);
    ASSERT_EQ(SaveDC(u"keep"), S_OK);
    const std::vector<BYTE> second = FileBytes(user_ / "keep.dcs");
    EXPECT_EQ(second, GroupStream(kDC));

    // The reason names the file, where it lands, and the system's error.
    const auto expectReason = [](std::initializer_list<std::string> fragments) {
        const vorn::test::SReportedError error = vorn::test::TakeError();
        EXPECT_EQ(error.source, "UserSettings.DCSettings.SaveFile");
        for (const std::string& fragment : fragments)
            EXPECT_NE(error.description.find(fragment), std::string::npos) << error.description;
    };

    // A read-only file is refused (whoever saves, root too) and stays; a
    // replaced file keeps its permission bits.
    ASSERT_EQ(Write(kDC + kPort1Min, 3.0), S_OK);
    fs::permissions(user_ / "keep.dcs", fs::perms(0444));
    EXPECT_EQ(SaveDC(u"keep"), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    expectReason({"the settings file D:\\User\\keep.dcs (" + (user_ / "keep.dcs").string() + ") cannot be written",
                  "(Win32 error 5)"});
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
    EXPECT_EQ(SaveDC(u"D:\\no\\such\\dir\\x"), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    expectReason({"the settings file D:\\no\\such\\dir\\x.dcs",
                  "cannot be written: the directory does not exist (Win32 error 3)"});
    // No name: nothing is written, and that is no error.
    ASSERT_EQ(PutText(kDC + "SaveFileName", u""), S_OK);
    EXPECT_EQ(Write(kDC + "SaveFile", 1), S_OK);
    // Only VARIANT_TRUE saves.
    ASSERT_EQ(PutText(kDC + "SaveFileName", u"other"), S_OK);
    EXPECT_EQ(Get<IParameterBoolean>(kDC + "SaveFile")->put_Value(1), S_OK);
    EXPECT_EQ(std::distance(fs::directory_iterator(user_), fs::directory_iterator()), 1);
}

TEST_F(SettingsFilesTest, TheListShowsTheDirectory) {
    for (const char* name : {"b.dcs", "A.dcs", "c.dcs", "x.amc", ".half.dcs.~AbC123"})
        WriteBytes(user_ / name, GroupStream(kDC));
    fs::create_directory(user_ / "dir.dcs");
    Relist(kDC + "SelectedSavedFile");
    EXPECT_EQ(Text(kDC + "SavedFilesList"), kList + "A.dcs\r\nb.dcs\r\nc.dcs");
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 0u);

    // A new name lists its own directory.
    fs::create_directory(user_ / "sub");
    WriteBytes(user_ / "sub" / "z.dcs", GroupStream(kDC));
    ASSERT_EQ(PutText(kDC + "SaveFileName", u"sub\\new"), S_OK);
    EXPECT_EQ(Text(kDC + "SavedFilesList"), kList + "z.dcs");

    // The selected entry is followed by name when the list changes.
    ASSERT_EQ(Write(kDC + "SelectedSavedFile", 2), S_OK);
    ASSERT_EQ(SaveDC(u"sub\\a"), S_OK);
    EXPECT_EQ(Text(kDC + "SavedFilesList"), kList + "a.dcs\r\nz.dcs");
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 3u);
    // Gone from the directory: "** Please select **".
    fs::remove(user_ / "sub" / "z.dcs");
    ASSERT_EQ(SaveDC(u"sub\\a"), S_OK);
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 1u);
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
    EXPECT_EQ(Text(kDC + "SavedFilesList"),
              kList + "empty.dcs\r\ngood.dcs\r\njunk.dcs\r\nother.dcs\r\ntext.dcs\r\ntruncated.dcs");

    ASSERT_EQ(Write(kDC + kPort1Min, 2.5), S_OK);
    ASSERT_EQ(Write(kDC + "SelectedSavedFile", 1), S_OK);
    const std::vector<BYTE> before = GroupStream(kDC);
    for (ULONG index : {2u, 4u, 5u, 6u, 7u}) {
        EXPECT_EQ(Write(kDC + "SelectedSavedFile", index), E_FAIL) << index;
        EXPECT_EQ(GroupStream(kDC), before) << index;
    }
    // A recall that fails while loading names the file before the stream's reason.
    EXPECT_EQ(Write(kDC + "SelectedSavedFile", 7), E_FAIL);
    const std::string reason = vorn::test::TakeError().description;
    EXPECT_EQ(reason.rfind("the settings file D:\\User\\truncated.dcs (", 0), 0u) << reason;
    EXPECT_NE(reason.find("reaches past the end of the stream"), std::string::npos) << reason;
    fs::remove(user_ / "good.dcs");
    EXPECT_EQ(Write(kDC + "SelectedSavedFile", 3), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Read(kDC + kPort1Min), 2.5);
    EXPECT_EQ(Read(kDC + "SelectedSavedFile"), 1u);
}

TEST_F(SettingsFilesTest, CalibrationFilesOfAmplitudeNoisePremeas) {
    ASSERT_EQ(PutText(kAM + "CalibrationFile", u"cal1"), S_OK);
    EXPECT_EQ(Text(kAM + "CalibrationFile"), "D:\\User\\cal1.amc");
    // The premeasurement writes the group's stream into the file it names.
    ASSERT_EQ(Write(kAM + "ExternalLNA", 12.0), S_OK);
    const std::vector<BYTE> stream = GroupStream(kAM);
    ASSERT_EQ(WriteFileReplacing("D:\\User\\cal1.amc", stream.data(), stream.size()), S_OK);
    WriteBytes(user_ / "dc.dcs", GroupStream(kDC));

    Relist(kAM + "SelectedCalibrationFile");
    // No "** Please select **" here, and only its own extension.
    EXPECT_EQ(Text(kAM + "CalibrationFileList"), "** Default **\r\ncal1.amc");

    ASSERT_EQ(Write(kAM + "ExternalLNA", 30.0), S_OK);
    ASSERT_EQ(Write(kAM + "SelectedCalibrationFile", 1), S_OK);
    EXPECT_EQ(Read(kAM + "ExternalLNA"), 12.0);
    EXPECT_EQ(Read(kAM + "UsableCalibrationFile"), 1);
    EXPECT_EQ(Read(kAM + "SelectedCalibrationFile"), 1u);

    ASSERT_EQ(Write(kAM + "SelectedCalibrationFile", 0), S_OK);
    EXPECT_EQ(Read(kAM + "UsableCalibrationFile"), 0);
    double lna = 0;
    EXPECT_EQ(Get<IParameterReal>(kAM + "ExternalLNA")->get_Value(&lna), HRESULT_FROM_WIN32(ERROR_INVALID_DATA));
}
