// Files, directories, sharing and directory searches on mapped drives, and
// that no path on a drive reaches outside it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/test_util.h"

namespace {

class Files : public vorn::test::ScratchDrives {
protected:
    static HANDLE Open(const char* path, DWORD access, DWORD share, DWORD disposition) {
        return CreateFileA(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    // Opens and closes the file: the last error of the open, ~0u for a
    // failure without one.
    static DWORD OpenResult(const char* path, DWORD access, DWORD share, DWORD disposition) {
        HANDLE h = Open(path, access, share, disposition);
        const DWORD error = GetLastError();
        if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
        return h == INVALID_HANDLE_VALUE && error == ERROR_SUCCESS ? ~0u : error;
    }

    // Replaces the file's contents (creating it).
    static void Put(const char* path, const std::string& text) {
        ASSERT_TRUE(VornReplaceFileA(path, text.data(), static_cast<DWORD>(text.size()), 0))
            << path << " error " << GetLastError();
    }

    // The file's contents, or "<error N>".
    static std::string Get(const char* path) {
        HANDLE h = Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
        if (h == INVALID_HANDLE_VALUE) return "<error " + std::to_string(GetLastError()) + ">";
        std::string text(4096, '\0');
        DWORD read = 0;
        EXPECT_TRUE(ReadFile(h, text.data(), static_cast<DWORD>(text.size()), &read, nullptr));
        CloseHandle(h);
        text.resize(read);
        return text;
    }

    // The attributes a search reports for `path`; INVALID_FILE_ATTRIBUTES when
    // it finds nothing.
    static DWORD AttributesOf(const char* path) {
        WIN32_FIND_DATAA data;
        HANDLE h = FindFirstFileA(path, &data);
        if (h == INVALID_HANDLE_VALUE) return 0xFFFFFFFFu;
        FindClose(h);
        return data.dwFileAttributes;
    }

    // Names found for a pattern, in order; empty with the error kept when none.
    static std::vector<std::string> Find(const char* pattern) {
        std::vector<std::string> names;
        WIN32_FIND_DATAA data;
        HANDLE h = FindFirstFileA(pattern, &data);
        if (h == INVALID_HANDLE_VALUE) return names;
        do names.push_back(data.cFileName);
        while (FindNextFileA(h, &data));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_FILES));
        EXPECT_TRUE(FindClose(h));
        return names;
    }
};

TEST_F(Files, ReadAndSizeOnAFreshDrive) {
    // The drive's directory does not exist yet; it is made on demand.
    EXPECT_EQ(OpenResult("D:\\data.bin", GENERIC_READ, 0, OPEN_EXISTING), DWORD{ERROR_FILE_NOT_FOUND});
    Put("D:\\data.bin", "0123456789");
    HANDLE h = Open("D:\\data.bin", GENERIC_READ, 0, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    LARGE_INTEGER size;
    EXPECT_TRUE(GetFileSizeEx(h, &size));
    EXPECT_EQ(size.QuadPart, 10);
    std::string pieces;  // 6 bytes, then up to 16 across the end, then at the end: success, nothing read
    for (DWORD want : {6u, 16u, 16u}) {
        char buffer[16];
        DWORD n = 99;
        EXPECT_TRUE(ReadFile(h, buffer, want, &n, nullptr));
        pieces += std::string(buffer, n) + "|";
    }
    EXPECT_EQ(pieces, "012345|6789||");
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(Get("d:/data.bin"), "0123456789");
    EXPECT_EQ(Get("D:\\DATA.BIN"), "<error 2>");  // names are case-sensitive
}

TEST_F(Files, ExclusiveOpensConflictWithEveryOtherOpen) {
    Put("D:\\s.dcs", "keep me");
    HANDLE exclusive = Open("D:\\s.dcs", GENERIC_READ, 0, OPEN_EXISTING);
    ASSERT_NE(exclusive, INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenResult("D:\\s.dcs", GENERIC_READ, 0, OPEN_EXISTING), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(OpenResult("D:\\s.dcs", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_TRUE(CloseHandle(exclusive));
    EXPECT_EQ(Get("D:\\s.dcs"), "keep me");

    HANDLE shared[] = {Open("D:\\s.dcs", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING),
                       Open("D:\\s.dcs", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING)};
    EXPECT_NE(shared[1], INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenResult("D:\\s.dcs", 0, 0, OPEN_EXISTING), DWORD{ERROR_SHARING_VIOLATION});
    for (HANDLE h : shared) EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(OpenResult("D:\\s.dcs", 0, 0, OPEN_EXISTING), DWORD{ERROR_SUCCESS}) << "closing did not release the lock";
}

TEST_F(Files, DirectoriesAttributesAndRefusedOpens) {
    ASSERT_TRUE(CreateDirectoryA("D:\\User", nullptr));
    EXPECT_LAST_ERROR(CreateDirectoryA("D:\\User", nullptr), FALSE, ERROR_ALREADY_EXISTS);
    EXPECT_LAST_ERROR(CreateDirectoryA("D:\\a\\b", nullptr), FALSE, ERROR_PATH_NOT_FOUND);
    Put("D:\\User\\f.dcs", "x");
    Put("D:\\User\\ro.dcs", "x");
    std::filesystem::permissions(drives_ / "d" / "User" / "ro.dcs", std::filesystem::perms(0444));
    EXPECT_EQ(
        (std::vector{AttributesOf("D:\\User"), AttributesOf("D:\\User\\f.dcs"), AttributesOf("D:\\User\\ro.dcs")}),
        (std::vector<DWORD>{FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_READONLY}));

    const struct {
        const char* path;
        DWORD access, disposition, error;
    } refused[] = {
        {"D:\\missing.txt", GENERIC_READ, OPEN_EXISTING, ERROR_FILE_NOT_FOUND},
        {"D:\\New\\new.dcs", GENERIC_READ, OPEN_EXISTING, ERROR_PATH_NOT_FOUND},
        {"", GENERIC_READ, OPEN_EXISTING, ERROR_PATH_NOT_FOUND},
        {"D:\\User", GENERIC_READ, OPEN_EXISTING, ERROR_ACCESS_DENIED},  // a directory is no file
        // Files are written whole by VornReplaceFileA, never through a handle.
        {"D:\\User\\f.dcs", GENERIC_READ | 0x40000000u, OPEN_EXISTING, ERROR_INVALID_PARAMETER},
        {"D:\\User\\f.dcs", GENERIC_READ, OPEN_EXISTING + 1, ERROR_INVALID_PARAMETER},
    };
    for (const auto& c : refused) EXPECT_EQ(OpenResult(c.path, c.access, 0, c.disposition), c.error) << c.path;
}

TEST_F(Files, DeleteFileRemovesNamesOnly) {
    ASSERT_TRUE(CreateDirectoryA("D:\\del", nullptr));
    Put("D:\\del\\a.lin", "a");
    Put("D:\\keep.lin", "keep");
    Put("D:\\del\\ro.lin", "r");
    std::filesystem::permissions(drives_ / "d" / "del" / "ro.lin", std::filesystem::perms(0444));
    // A link at the name goes, what it leads to stays.
    std::filesystem::create_symlink(drives_ / "d" / "keep.lin", drives_ / "d" / "del" / "link.lin");

    const struct {
        const char* path;
        DWORD error;  // ERROR_SUCCESS: deleted
    } cases[] = {
        {"D:\\del\\a.lin", ERROR_SUCCESS},
        {"D:\\del\\a.lin", ERROR_FILE_NOT_FOUND},
        {"D:\\nodir\\a.lin", ERROR_PATH_NOT_FOUND},
        {"D:\\del", ERROR_ACCESS_DENIED},
        {"D:\\del\\ro.lin", ERROR_ACCESS_DENIED},
        {"D:\\del\\", ERROR_INVALID_NAME},
        {"", ERROR_PATH_NOT_FOUND},
        {"D:\\del\\link.lin", ERROR_SUCCESS},
    };
    for (const auto& c : cases) {
        const BOOL deleted = DeleteFileA(c.path);
        EXPECT_EQ(deleted ? DWORD{ERROR_SUCCESS} : GetLastError(), c.error) << c.path;
    }
    EXPECT_EQ(Get("D:\\keep.lin"), "keep");
    EXPECT_EQ(Get("D:\\del\\ro.lin"), "r");
}

TEST_F(Files, FindListsMatchesInNameOrder) {
    ASSERT_TRUE(CreateDirectoryA("D:\\lim", nullptr));
    for (const char* name : {"D:\\lim\\b.lin", "D:\\lim\\a.lin", "D:\\lim\\ab.lin", "D:\\lim\\c.tdf", "D:\\lim\\A.LIN"})
        Put(name, name);
    ASSERT_TRUE(CreateDirectoryA("D:\\lim\\sub", nullptr));

    using Names = std::vector<std::string>;
    EXPECT_EQ(Find("D:\\lim\\*.lin"), (Names{"a.lin", "ab.lin", "b.lin"}));
    EXPECT_EQ(Find("D:\\lim\\?.lin"), (Names{"a.lin", "b.lin"}));
    EXPECT_EQ(Find("D:/lim/*b*"), (Names{"ab.lin", "b.lin", "sub"}));
    EXPECT_EQ(Find("D:\\lim\\*"), (Names{".", "..", "A.LIN", "a.lin", "ab.lin", "b.lin", "c.tdf", "sub"}));
    EXPECT_EQ(Find("D:\\lim\\*.*"), Find("D:\\lim\\*"));
    EXPECT_EQ(Find("D:\\lim\\c.tdf"), (Names{"c.tdf"}));
    // A drive's root has no "." and "..", as on Windows.
    EXPECT_EQ(Find("D:\\*"), (Names{"lim"}));

    WIN32_FIND_DATAA data;
    EXPECT_LAST_ERROR(FindFirstFileA("D:\\lim\\*.dcs", &data), INVALID_HANDLE_VALUE, ERROR_FILE_NOT_FOUND);
    EXPECT_LAST_ERROR(FindFirstFileA("D:\\nodir\\*", &data), INVALID_HANDLE_VALUE, ERROR_PATH_NOT_FOUND);
}

TEST_F(Files, FindHandlesAreClosedOnlyByFindClose) {
    ASSERT_TRUE(CreateDirectoryA("D:\\t", nullptr));
    Put("D:\\t\\file", "x");
    WIN32_FIND_DATAA data;
    HANDLE search = FindFirstFileA("D:\\t\\file", &data);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_LAST_ERROR(FindNextFileA(search, &data), FALSE, ERROR_NO_MORE_FILES);
    EXPECT_LAST_ERROR(CloseHandle(search), FALSE, ERROR_INVALID_HANDLE);
    EXPECT_TRUE(FindClose(search));
    EXPECT_FALSE(FindClose(search));
    HANDLE file = Open("D:\\t\\file", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
    EXPECT_LAST_ERROR(FindClose(file), FALSE, ERROR_INVALID_HANDLE);
    CloseHandle(file);
}

// Every file call, given paths that climb out of the drive with ".." or lead
// out through a symbolic link, acts inside the drive or not at all. The
// directory "outside" next to the drive's own directory is what such a path
// would reach; the drive holds a directory of the same name.
TEST_F(Files, NoPathOnADriveLeadsOutOfIt) {
    namespace fs = std::filesystem;
    const fs::path outside = drives_ / "outside";
    const fs::path inside = drives_ / "d" / "outside";
    auto fill = [](const fs::path& dir, const char* text) {
        fs::create_directories(dir / "sub");
        std::ofstream(dir / "f") << text;
    };
    fill(outside, "outside");
    auto snapshot = [&] {
        std::map<std::string, std::string> contents;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(outside)) {
            std::ostringstream text;
            if (entry.is_regular_file()) text << std::ifstream(entry.path()).rdbuf();
            contents[entry.path().string()] = text.str();
        }
        return contents;
    };
    const auto untouched = snapshot();
    fs::create_directories(drives_ / "d");
    fs::create_directory_symlink("../outside", drives_ / "d" / "up");  // ".." stops at the drive: its own "outside"
    fs::create_directory_symlink(outside, drives_ / "d" / "abs");      // "/..." beneath the drive: nothing there

    struct Operation {
        const char* name;
        std::function<bool(const std::string&)> run;  // on the directory `prefix` names; true when it succeeded
    };
    const Operation operations[] = {
        {"CreateFileA read", [](const std::string& p) { return Get((p + "f").c_str()) == "inside"; }},
        {"FindFirstFileA", [](const std::string& p) { return Find((p + "*").c_str()).size() == 4; }},
        {"VornReplaceFileA", [](const std::string& p) { return VornReplaceFileA((p + "f").c_str(), "r", 1, 0) != 0; }},
        {"CreateDirectoryA", [](const std::string& p) { return CreateDirectoryA((p + "dir").c_str(), nullptr) != 0; }},
    };
    const struct {
        const char* prefix;
        bool reachesInside;
    } prefixes[] = {
        {"D:\\..\\outside\\", true}, {"D:\\x\\..\\..\\..\\outside\\", true},
        {"D:..\\outside\\", true},   {"d:/../outside/", true},
        {"D:\\up\\", true},          {"D:\\abs\\", false},
    };
    // Links are resolved beneath the drive with openat2; a kernel (or a
    // sandbox) without it gives only the clamping of "..".
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    const long probe = syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how);
    const bool beneath = probe >= 0;
    if (beneath) close(static_cast<int>(probe));
    for (const auto& prefix : prefixes) {
        if (!beneath && std::string(prefix.prefix).find("..") == std::string::npos) continue;
        fs::remove_all(inside);
        fill(inside, "inside");
        for (const Operation& operation : operations) {
            SCOPED_TRACE(std::string(operation.name) + " on " + prefix.prefix);
            EXPECT_EQ(operation.run(prefix.prefix), prefix.reachesInside);
            EXPECT_EQ(snapshot(), untouched);
        }
    }
}

}  // namespace
