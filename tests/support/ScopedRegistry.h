// A private registry file for one test: points VORN_REGISTRY at a file in a
// fresh temporary directory and removes the directory afterwards, so tests
// that run at the same time never see each other's keys.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class ScopedRegistry {
public:
    ScopedRegistry() {
        std::string pattern = (std::filesystem::temp_directory_path() / "vorn-registry-XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
        path_ = dir_ + "/config/registry.reg";
        setenv("VORN_REGISTRY", path_.c_str(), 1);
    }
    ~ScopedRegistry() {
        unsetenv("VORN_REGISTRY");
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    ScopedRegistry(const ScopedRegistry&) = delete;
    ScopedRegistry& operator=(const ScopedRegistry&) = delete;

    const std::string& path() const { return path_; }
    const std::string& dir() const { return dir_; }

    // The file's text; empty when it does not exist.
    std::string Text() const {
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        return out.str();
    }
    // Replaces the file with `text` (creating its directory).
    void Write(const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
        std::ofstream(path_, std::ios::binary) << text;
    }
    bool Exists() const { return std::filesystem::exists(path_); }
    // Adds `lines` (in the file's format) to the file, as another writer would.
    void Append(const std::string& lines) const {
        Write((Exists() ? Text() : std::string("Windows Registry Editor Version 5.00\n")) + "\n" + lines);
    }
    // Whether the file, as the runtime last wrote it, holds the key `path`
    // (with its root key's long name).
    bool HasKey(const std::string& path) const { return Text().find("[" + path + "]\n") != std::string::npos; }

private:
    std::string dir_;
    std::string path_;
};
