// Drive mapping and _splitpath/_makepath.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/test_util.h"

namespace {

namespace fs = std::filesystem;

class PathMapping : public vorn::test::ScratchDrives {
protected:
    // Whether a file written through the runtime at `windowsPath` lands at
    // `host` (whose directory is made first); the file is removed again.
    static bool LandsAt(const std::string& windowsPath, const fs::path& host) {
        fs::create_directories(host.parent_path());
        if (!VornReplaceFileA(windowsPath.c_str(), "x", 1, 0)) return false;
        std::error_code error;
        return fs::remove(host, error);
    }
};

TEST_F(PathMapping, DrivesLandUnderVornDrives) {
    const fs::path d = drives_ / "d";
    EXPECT_TRUE(LandsAt("D:\\User\\mysettings.dcs", d / "User/mysettings.dcs"));
    EXPECT_TRUE(LandsAt("d:/User/x", d / "User/x"));
    EXPECT_TRUE(LandsAt("D:name", d / "name"));
    EXPECT_TRUE(LandsAt("Z:\\a\\B", drives_ / "z/a/B"));
    // "." and ".." are resolved by name and stop at the drive's root.
    EXPECT_TRUE(LandsAt("D:\\..\\..\\..\\tmp\\escape.dcs", d / "tmp/escape.dcs"));
    EXPECT_TRUE(LandsAt("D:..\\x", d / "x"));
    EXPECT_TRUE(LandsAt("D:\\a\\.\\b\\..\\..\\..\\c\\f", d / "c/f"));
    EXPECT_TRUE(LandsAt("d:/a//b/./f", d / "a/b/f"));
    // Not a drive: passed through with "/" separators.
    std::string plain = drives_.string() + "\\plain\\f";
    EXPECT_TRUE(LandsAt(plain, drives_ / "plain/f"));
}

TEST_F(PathMapping, DefaultsFollowXdgDataHomeThenHome) {
    unsetenv("VORN_DRIVES");
    setenv("XDG_DATA_HOME", (drives_ / "xdg").c_str(), 1);
    EXPECT_TRUE(LandsAt("C:\\f", drives_ / "xdg/vorndb/drives/c/f"));
    setenv("HOME", (drives_ / "home").c_str(), 1);
    setenv("XDG_DATA_HOME", "relative/ignored", 1);
    EXPECT_TRUE(LandsAt("C:\\f", drives_ / "home/.local/share/vorndb/drives/c/f"));
    unsetenv("XDG_DATA_HOME");
    EXPECT_TRUE(LandsAt("C:\\g", drives_ / "home/.local/share/vorndb/drives/c/g"));
}

struct SplitCase {
    const char* path;
    const char* drive;
    const char* dir;
    const char* fname;
    const char* ext;
};

TEST(SplitPath, SplitsLikeTheCRuntime) {
    const SplitCase cases[] = {
        {"D:\\User\\mysettings.dcs", "D:", "\\User\\", "mysettings", ".dcs"},
        {"E:\\x\\y.abc", "E:", "\\x\\", "y", ".abc"},
        {"mysettings", "", "", "mysettings", ""},
        {"a.b.c", "", "", "a.b", ".c"},
        {"dir.d/file", "", "dir.d/", "file", ""},
        {"C:file.txt", "C:", "", "file", ".txt"},
        {"/a/b\\c.d", "", "/a/b\\", "c", ".d"},
        {"\\\\srv\\share\\f.", "", "\\\\srv\\share\\", "f", "."},
        {".profile", "", "", "", ".profile"},
        {"D:\\User\\", "D:", "\\User\\", "", ""},
        {"", "", "", "", ""},
    };
    for (const SplitCase& c : cases) {
        char drive[_MAX_DRIVE] = "?", dir[_MAX_DIR] = "?", fname[_MAX_FNAME] = "?", ext[_MAX_EXT] = "?";
        _splitpath(c.path, drive, dir, fname, ext);
        EXPECT_EQ(std::string(drive) + "|" + dir + "|" + fname + "|" + ext,
                  std::string(c.drive) + "|" + c.dir + "|" + c.fname + "|" + c.ext)
            << c.path;
    }
    char fname[_MAX_FNAME];
    _splitpath("C:\\only\\name.txt", nullptr, nullptr, fname, nullptr);
    EXPECT_STREQ(fname, "name");

    // A part too long for its buffer empties every part.
    char drive[_MAX_DRIVE], ext[_MAX_EXT];
    errno = 0;
    _splitpath(("C:\\" + std::string(_MAX_FNAME, 'n') + ".txt").c_str(), drive, nullptr, fname, ext);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(std::string(drive) + fname + ext, "");
}

TEST(MakePath, ComposesLikeTheCRuntime) {
    const SplitCase cases[] = {
        {"D:\\User\\mysettings.dcs", "D", "\\User\\", "mysettings", ".dcs"},
        {"D:\\User\\mysettings.dcs", "D:", "\\User", "mysettings", "dcs"},
        {"E:\\x\\y.abc", "E:", "\\x\\", "y", ".abc"},
        {"dir/f", "", "dir/", "f", ""},
        {"name", nullptr, nullptr, "name", nullptr},
        {"f.", nullptr, nullptr, "f", "."},
        {"C:rel.txt", "C", nullptr, "rel", "txt"},
    };
    for (const SplitCase& c : cases) {
        char path[_MAX_PATH];
        _makepath(path, c.drive, c.dir, c.fname, c.ext);
        EXPECT_STREQ(path, c.path);
    }
    char path[_MAX_PATH] = "x";
    errno = 0;
    _makepath(path, "C", std::string(_MAX_PATH, 'd').c_str(), "f", nullptr);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_STREQ(path, "");
}

}  // namespace
