// Drive mapping, _splitpath/_makepath, environment variables and module names.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "platform/test_util.h"

namespace {

using PathMapping = vorn::test::ScratchDrives;

TEST_F(PathMapping, DrivesLandUnderVornDrives) {
    const std::string d = drives_.string() + "/d";
    EXPECT_EQ(HostPath("D:\\User\\mysettings.dcs"), d + "/User/mysettings.dcs");
    EXPECT_EQ(HostPath("d:/User/x"), d + "/User/x");
    EXPECT_EQ(HostPath("D:"), d);
    EXPECT_EQ(HostPath("D:\\"), d + "/");
    EXPECT_EQ(HostPath("D:name"), d + "/name");
    EXPECT_EQ(HostPath("Z:\\a\\B"), drives_.string() + "/z/a/B");
    // "." and ".." are resolved by name and stop at the drive's root.
    EXPECT_EQ(HostPath("D:\\..\\..\\..\\tmp\\escape.dcs"), d + "/tmp/escape.dcs");
    EXPECT_EQ(HostPath("D:..\\x"), d + "/x");
    EXPECT_EQ(HostPath("D:\\a\\.\\b\\..\\..\\..\\c\\"), d + "/c/");
    EXPECT_EQ(HostPath("d:/a//b/."), d + "/a/b");
    EXPECT_EQ(HostPath("D:\\a\\.."), d);
    // Not drives: passed through with "/" separators.
    EXPECT_EQ(HostPath("relative\\dir\\f.txt"), "relative/dir/f.txt");
    EXPECT_EQ(HostPath("/tmp/x"), "/tmp/x");
    EXPECT_EQ(HostPath("\\\\server\\share"), "//server/share");
    EXPECT_EQ(HostPath("1:\\x"), "1:/x");

    // Buffer sizes as Win32 counts them.
    const std::string expected = drives_.string() + "/e/x";
    char buffer[PATH_MAX];
    EXPECT_EQ(VornMapPathA("E:\\x", nullptr, 0), expected.size() + 1);
    EXPECT_EQ(VornMapPathA("E:\\x", buffer, static_cast<DWORD>(expected.size())), expected.size() + 1);
    EXPECT_EQ(VornMapPathA("E:\\x", buffer, static_cast<DWORD>(expected.size() + 1)), expected.size());
    EXPECT_STREQ(buffer, expected.c_str());
    EXPECT_LAST_ERROR(VornMapPathA("", buffer, sizeof buffer), 0u, ERROR_INVALID_PARAMETER);
}

TEST_F(PathMapping, DefaultsFollowXdgDataHomeThenHome) {
    unsetenv("VORN_DRIVES");
    setenv("XDG_DATA_HOME", "/xdg/data", 1);
    EXPECT_EQ(HostPath("C:\\f"), "/xdg/data/vorndb/drives/c/f");
    setenv("HOME", "/home/someone", 1);
    setenv("XDG_DATA_HOME", "relative/ignored", 1);
    EXPECT_EQ(HostPath("C:\\f"), "/home/someone/.local/share/vorndb/drives/c/f");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(HostPath("C:\\f"), "/home/someone/.local/share/vorndb/drives/c/f");
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
        EXPECT_STREQ(drive, c.drive) << c.path;
        EXPECT_STREQ(dir, c.dir) << c.path;
        EXPECT_STREQ(fname, c.fname) << c.path;
        EXPECT_STREQ(ext, c.ext) << c.path;
    }
    char fname[_MAX_FNAME];
    _splitpath("C:\\only\\name.txt", nullptr, nullptr, fname, nullptr);
    EXPECT_STREQ(fname, "name");

    // A part too long for its buffer empties every part.
    char drive[_MAX_DRIVE], ext[_MAX_EXT];
    errno = 0;
    _splitpath(("C:\\" + std::string(_MAX_FNAME, 'n') + ".txt").c_str(), drive, nullptr, fname, ext);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_STREQ(drive, "");
    EXPECT_STREQ(fname, "");
    EXPECT_STREQ(ext, "");
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

TEST(Environment, FollowsWin32Conventions) {
    const char* name = "VORN_TEST_ENV_VARIABLE";
    char buffer[16];
    ASSERT_TRUE(SetEnvironmentVariableA(name, "value"));
    EXPECT_EQ(GetEnvironmentVariableA(name, buffer, sizeof buffer), 5u);
    EXPECT_STREQ(buffer, "value");
    EXPECT_EQ(GetEnvironmentVariableA(name, buffer, 5), 6u);  // no room for the terminator
    EXPECT_EQ(GetEnvironmentVariableA(name, nullptr, 0), 6u);

    ASSERT_TRUE(SetEnvironmentVariableA(name, ""));
    EXPECT_LAST_ERROR(GetEnvironmentVariableA(name, buffer, sizeof buffer), 0u, ERROR_SUCCESS);
    ASSERT_TRUE(SetEnvironmentVariableA(name, nullptr));
    EXPECT_LAST_ERROR(GetEnvironmentVariableA(name, buffer, sizeof buffer), 0u, ERROR_ENVVAR_NOT_FOUND);
    EXPECT_LAST_ERROR(SetEnvironmentVariableA("A=B", "x"), FALSE, ERROR_INVALID_PARAMETER);
}

std::string ExecutablePath() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

// Shared libraries are named in the loader tests (test_library.cpp).
TEST(ModuleFileName, NamesTheExecutableTruncatesAndRejectsUnknownModules) {
    const std::string exe = ExecutablePath();
    char buffer[PATH_MAX];
    EXPECT_EQ(GetModuleFileNameA(nullptr, buffer, sizeof buffer), exe.size());
    EXPECT_EQ(buffer, exe);
    Dl_info info;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&ExecutablePath), &info), 0);
    EXPECT_EQ(GetModuleFileNameA(static_cast<HMODULE>(info.dli_fbase), buffer, sizeof buffer), exe.size());
    EXPECT_EQ(buffer, exe);

    EXPECT_LAST_ERROR(GetModuleFileNameA(nullptr, buffer, 8), 8u, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(buffer), exe.substr(0, 7));
    int local = 0;
    EXPECT_LAST_ERROR(GetModuleFileNameA(reinterpret_cast<HMODULE>(&local), buffer, 8), 0u, ERROR_MOD_NOT_FOUND);
}

}  // namespace
