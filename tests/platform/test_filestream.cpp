// The file stream: creation modes (open, create/truncate, fail-if-there),
// reading back, Win32 error codes for missing files and directories, access
// mode checks, SetSize and seeking past the end, Stat with and without the
// name. Every test has its own drive directories (ScratchDrives), since tests
// run in parallel processes, and works in T:\files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/test_util.h"

namespace {

using vorn::ComPtr;
using vorn::test::ReadAll;
using vorn::test::SeekTo;

class FileStreamTest : public vorn::test::ScratchDrives {
protected:
    void SetUp() override {
        ScratchDrives::SetUp();
        if (HasFatalFailure()) return;
        hostDir_ = HostPath("T:\\files");
        ASSERT_FALSE(hostDir_.empty());
        std::filesystem::create_directories(hostDir_);
    }

    // The Windows path of `name` (UTF-8) in the test's directory.
    static std::u16string WinPath(const std::string& name) {
        const std::string narrow = "T:\\files\\" + name;
        std::u16string wide(narrow.size() + 1, u'\0');
        const int n = MultiByteToWideChar(CP_UTF8, 0, narrow.c_str(), -1, wide.data(), static_cast<int>(wide.size()));
        wide.resize(n > 0 ? static_cast<std::size_t>(n - 1) : 0);
        return wide;
    }
    std::string HostFile(const std::string& name) const { return hostDir_ + "/" + name; }

    static HRESULT Open(const std::string& name, DWORD mode, BOOL create, IStream** stream, DWORD attributes = 0) {
        return SHCreateStreamOnFileEx(WinPath(name).c_str(), mode, attributes, create, nullptr, stream);
    }

    std::string HostContents(const std::string& name) const {
        std::ifstream in(HostFile(name), std::ios::binary);
        std::ostringstream contents;
        contents << in.rdbuf();
        return contents.str();
    }

    std::string hostDir_;
};

HRESULT WriteText(IStream* stream, const std::string& text) {
    ULONG written = 0;
    const HRESULT hr = stream->Write(text.data(), static_cast<ULONG>(text.size()), &written);
    EXPECT_EQ(written, SUCCEEDED(hr) ? text.size() : 0u);
    return hr;
}

TEST_F(FileStreamTest, CreateWriteAndReadBack) {
    ComPtr<IStream> stream;
    ASSERT_EQ(Open("data.bin", STGM_CREATE | STGM_READWRITE, FALSE, stream.put()), S_OK);
    ASSERT_EQ(WriteText(stream.get(), "hello world"), S_OK);
    EXPECT_EQ(ReadAll(stream.get()), "hello world");

    STATSTG stat;
    ASSERT_EQ(stream->Stat(&stat, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(stat.type, DWORD{STGTY_STREAM});
    EXPECT_EQ(stat.cbSize.QuadPart, 11u);
    EXPECT_EQ(stat.grfMode, DWORD{STGM_CREATE | STGM_READWRITE});
    EXPECT_NE(stat.mtime.dwHighDateTime, 0u);
    ASSERT_NE(stat.pwcsName, nullptr);
    EXPECT_EQ(std::u16string(stat.pwcsName), WinPath("data.bin"));
    CoTaskMemFree(stat.pwcsName);
    ASSERT_EQ(stream->Stat(&stat, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(stat.pwcsName, nullptr);
    stream.reset();
    EXPECT_EQ(HostContents("data.bin"), "hello world");

    // STGM_CREATE truncates; without it and fCreate the file is opened as it is.
    ASSERT_EQ(Open("data.bin", STGM_CREATE | STGM_WRITE, FALSE, stream.put()), S_OK);
    ASSERT_EQ(WriteText(stream.get(), "new"), S_OK);
    stream.reset();
    ASSERT_EQ(Open("data.bin", STGM_READWRITE, FALSE, stream.put()), S_OK);
    EXPECT_EQ(ReadAll(stream.get()), "new");

    // fCreate with STGM_FAILIFTHERE creates only new files.
    ASSERT_EQ(Open("once.bin", STGM_FAILIFTHERE | STGM_READWRITE, TRUE, stream.put()), S_OK);
    ASSERT_EQ(WriteText(stream.get(), "first"), S_OK);
    stream.reset();
    IStream* second = reinterpret_cast<IStream*>(this);
    EXPECT_EQ(Open("once.bin", STGM_FAILIFTHERE | STGM_READWRITE, TRUE, &second),
              HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(HostContents("once.bin"), "first");
}

TEST_F(FileStreamTest, MissingFilesAndDirectoriesGiveWin32Errors) {
    constexpr HRESULT kFileNotFound = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    constexpr HRESULT kPathNotFound = HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    ComPtr<IStream> stream;
    EXPECT_EQ(Open("missing.bin", STGM_READ, FALSE, stream.put()), kFileNotFound);
    EXPECT_EQ(Open("missing.bin", STGM_READWRITE, FALSE, stream.put()), kFileNotFound);
    EXPECT_EQ(Open("nodir\\file.bin", STGM_READ, FALSE, stream.put()), kPathNotFound);
    EXPECT_EQ(Open("nodir\\file.bin", STGM_CREATE | STGM_WRITE, FALSE, stream.put()), kPathNotFound);
    EXPECT_EQ(Open("nodir\\file.bin", STGM_READWRITE, TRUE, stream.put()), kPathNotFound);
    EXPECT_EQ(stream.get(), nullptr);
    std::filesystem::create_directory(HostFile("folder"));
    EXPECT_EQ(Open("folder", STGM_READ, FALSE, stream.put()), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));

    // A drive's own directory is made on demand.
    EXPECT_EQ(SHCreateStreamOnFileEx(u"V:\\missing.bin", STGM_READ, 0, FALSE, nullptr, stream.put()), kFileNotFound);
    ASSERT_EQ(SHCreateStreamOnFileEx(u"U:\\new.bin", STGM_CREATE | STGM_WRITE, 0, FALSE, nullptr, stream.put()), S_OK);
    ASSERT_EQ(WriteText(stream.get(), "on U"), S_OK);
    stream.reset();
    std::ifstream in(HostPath("U:\\new.bin"));
    std::string text;
    std::getline(in, text);
    EXPECT_EQ(text, "on U");
}

TEST_F(FileStreamTest, AccessModeIsEnforced) {
    std::ofstream(HostFile("ro.bin")) << "abc";
    ComPtr<IStream> reader;
    ASSERT_EQ(Open("ro.bin", STGM_READ | STGM_SHARE_DENY_WRITE, FALSE, reader.put()), S_OK);
    EXPECT_EQ(reader->Write("x", 1, nullptr), STG_E_ACCESSDENIED);
    ULARGE_INTEGER size;
    size.QuadPart = 0;
    EXPECT_EQ(reader->SetSize(size), STG_E_ACCESSDENIED);
    EXPECT_EQ(ReadAll(reader.get()), "abc");

    ComPtr<IStream> writer;
    ASSERT_EQ(Open("ro.bin", STGM_WRITE, FALSE, writer.put()), S_OK);
    char c;
    ULONG got = 5;
    EXPECT_EQ(writer->Read(&c, 1, &got), STG_E_ACCESSDENIED);
    EXPECT_EQ(got, 0u);
}

TEST_F(FileStreamTest, SetSizeAndSeekingPastTheEnd) {
    ComPtr<IStream> stream;
    ASSERT_EQ(Open("sized.bin", STGM_CREATE | STGM_READWRITE, FALSE, stream.put()), S_OK);
    ASSERT_EQ(WriteText(stream.get(), "abcdef"), S_OK);
    ULARGE_INTEGER size;
    size.QuadPart = 2;
    ASSERT_EQ(stream->SetSize(size), S_OK);
    EXPECT_EQ(SeekTo(stream.get(), 0, STREAM_SEEK_CUR), 6u);  // position unchanged
    EXPECT_EQ(SeekTo(stream.get(), 0, STREAM_SEEK_END), 2u);
    EXPECT_EQ(SeekTo(stream.get(), 2, STREAM_SEEK_CUR), 4u);
    ASSERT_EQ(WriteText(stream.get(), "z"), S_OK);
    EXPECT_EQ(HostContents("sized.bin"), std::string("ab\0\0z", 5));

    LARGE_INTEGER move;
    move.QuadPart = -6;
    ULARGE_INTEGER position;
    EXPECT_EQ(stream->Seek(move, STREAM_SEEK_END, &position), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(position.QuadPart, 5u);
}

TEST_F(FileStreamTest, NamesAttributesAndBadArguments) {
    ComPtr<IStream> stream;
    const std::string name = "\xC3\xA4\xE2\x82\xAC.bin";  // a-umlaut, euro sign
    ASSERT_EQ(Open(name, STGM_CREATE | STGM_WRITE, FALSE, stream.put(), FILE_ATTRIBUTE_READONLY), S_OK);
    EXPECT_EQ(stream->Clone(nullptr), STG_E_INVALIDPOINTER);
    IStream* clone = nullptr;
    EXPECT_EQ(stream->Clone(&clone), E_NOTIMPL);
    stream.reset();
    struct stat st;
    ASSERT_EQ(::stat(HostFile(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0222, 0u);

    const std::u16string path = WinPath("x.bin");
    EXPECT_EQ(SHCreateStreamOnFileEx(path.c_str(), STGM_WRITE | STGM_READWRITE, 0, TRUE, nullptr, stream.put()),
              E_INVALIDARG);
    EXPECT_EQ(SHCreateStreamOnFileEx(path.c_str(), 0x00010000 /* STGM_TRANSACTED */, 0, TRUE, nullptr, stream.put()),
              E_INVALIDARG);
    ComPtr<IStream> memory;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, memory.put()), S_OK);
    EXPECT_EQ(SHCreateStreamOnFileEx(path.c_str(), STGM_READ, 0, TRUE, memory.get(), stream.put()), E_INVALIDARG);
    EXPECT_EQ(SHCreateStreamOnFileEx(nullptr, STGM_READ, 0, FALSE, nullptr, stream.put()), E_INVALIDARG);
    EXPECT_EQ(SHCreateStreamOnFileEx(path.c_str(), STGM_READ, 0, FALSE, nullptr, nullptr), E_INVALIDARG);
    const char16_t lone[] = {u'a', 0xD800, 0};
    EXPECT_EQ(SHCreateStreamOnFileEx(lone, STGM_READ, 0, FALSE, nullptr, stream.put()),
              HRESULT_FROM_WIN32(ERROR_INVALID_NAME));
    EXPECT_FALSE(std::filesystem::exists(HostFile("x.bin")));
}

}  // namespace
