// A fixture that gives each test its own, empty drive directories. CTest runs
// the test cases as parallel processes and points VORN_DRIVES at one
// directory of the build tree for all of them; the fixture moves VORN_DRIVES
// to a subdirectory named after the test and the process id, which does not
// exist yet (so drive directories are made on demand, as on a fresh machine),
// and removes it afterwards. Set before any thread starts. Also reading and
// writing whole files there.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vorn::test {

// The bytes of a file; empty when it cannot be read.
inline std::vector<unsigned char> FileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Replaces a file's bytes, creating its directories.
inline void WriteBytes(const std::filesystem::path& path, const std::vector<unsigned char>& bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

class ScratchDrives : public ::testing::Test {
protected:
    void SetUp() override {
        const char* outer = std::getenv("VORN_DRIVES");
        std::filesystem::path base = outer && *outer ? outer : std::filesystem::temp_directory_path().string();
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        drives_ = base / (std::string(info->test_suite_name()) + "-" + info->name() + "-" + std::to_string(getpid()));
        std::filesystem::remove_all(drives_);
        ASSERT_EQ(setenv("VORN_DRIVES", drives_.c_str(), 1), 0);
    }

    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(drives_, ignored);
    }

    std::filesystem::path drives_;
};

}  // namespace vorn::test
