// The whole tree of the real schema through a settings stream: every value,
// status and limit moved off its defaults, saved, and loaded into a freshly
// created database object (in a second process, as a process holds one
// database object in its lifetime), then both trees compared node by node
// over the schema metadata. Also the header and size of the database
// object's own stream.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "schema/Database.h"
#include "schema/Metadata.h"
#include "stream/DataStream.h"
#include "stream/StreamBytes.h"
#include "stream/TreeDump.h"

extern char** environ;

using namespace vorn;
using namespace persist_test;

namespace {

std::vector<BYTE> SaveTree(IDatabase* db) {
    ComPtr<IPersistStream> persist;
    EXPECT_EQ(db->QueryInterface(IID_IPersistStream, persist.put_void()), S_OK);
    ComPtr<IStream> stream;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), S_OK);
    EXPECT_EQ(persist->Save(stream.get(), TRUE), S_OK);
    return ContentsOf(stream.get());
}

// Runs the loader on `stream`; its dump, or empty when it failed.
std::vector<std::string> LoadInFreshProcess(const std::vector<BYTE>& stream) {
    const std::string base = "whole_tree_" + std::to_string(getpid());
    const std::string streamFile = base + ".stream";
    const std::string dumpFile = base + ".dump";
    std::ofstream(streamFile, std::ios::binary)
        .write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
    std::string loader = VORN_TREE_LOADER;
    char* argv[] = {loader.data(), const_cast<char*>(streamFile.c_str()), const_cast<char*>(dumpFile.c_str()), nullptr};
    pid_t pid = 0;
    int status = -1;
    if (posix_spawn(&pid, loader.c_str(), nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &status, 0) != pid)
        return {};
    std::vector<std::string> lines;
    std::ifstream in(dumpFile);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::remove(streamFile.c_str());
    std::remove(dumpFile.c_str());
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return {};
    return lines;
}

}  // namespace

TEST(SettingsStreamWholeTree, EveryValueStatusAndLimitComesBackInAFreshDatabase) {
    std::vector<std::unique_ptr<CBuffer<float, 4>>> buffers;  // outlive the database
    ComPtr<IDatabase> db;
    ASSERT_EQ(CreateDatabase(IID_IDatabase, db.put_void()), S_OK);
    const std::vector<std::string> defaults = DumpTree(db.get());
    const std::size_t changed = ChangeEveryValue(db.get(), buffers);
    const std::vector<std::string> expected = DumpTree(db.get());
    ASSERT_EQ(expected.size(), defaults.size());
    std::size_t moved = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) moved += expected[i] != defaults[i];
    // Nearly every parameter really left its defaults (an enumeration of one
    // value cannot, nor can a handshake companion written before its system
    // setting, whose assignment puts it back to eSTATE_EDIT).
    EXPECT_GT(moved, changed * 94 / 100) << moved << " of " << changed;
    EXPECT_GT(buffers.size(), 0u);

    const std::vector<BYTE> stream = SaveTree(db.get());
    const std::vector<std::string> loaded = LoadInFreshProcess(stream);
    ASSERT_EQ(loaded.size(), expected.size()) << "the loader failed";
    std::size_t differences = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (loaded[i] == expected[i]) continue;
        if (++differences <= 20) ADD_FAILURE() << "saved:  " << expected[i] << "\nloaded: " << loaded[i];
    }
    EXPECT_EQ(differences, 0u);
    RecordProperty("parameters", static_cast<int>(expected.size()));
    RecordProperty("stream_bytes", static_cast<int>(stream.size()));
}

TEST(SettingsStreamWholeTree, DatabaseStreamHeaderAndSize) {
    ComPtr<IDatabase> db;
    ASSERT_EQ(CreateDatabase(IID_IDatabase, db.put_void()), S_OK);
    ComPtr<IPersistStream> persist;
    ASSERT_EQ(db->QueryInterface(IID_IPersistStream, persist.put_void()), S_OK);
    const std::vector<BYTE> stream = SaveTree(db.get());
    ULARGE_INTEGER size{};
    ASSERT_EQ(persist->GetSizeMax(&size), S_OK);
    EXPECT_EQ(size.QuadPart, stream.size());
    // The mark, then the root's record: no name, a group of version 1 with
    // the root's children (every element of its indexed children).
    std::uint32_t children = 0;
    for (const schema::MemberInfo& member : schema::MembersOf(schema::GetSchemaMetadata().root))
        children += member.count ? member.count : 1;
    const CBytes expected =
        CBytes().U16(kMark).U32(static_cast<std::uint32_t>(stream.size() - 2)).U16(0).U16(1).U32(children);
    ASSERT_GE(stream.size(), expected.Size());
    EXPECT_EQ(std::vector<BYTE>(stream.begin(), stream.begin() + 14), expected.Data());

    // PreLoad finds the mark where the stream stands and leaves it there.
    ComPtr<IStream> probe = NewStream(CBytes().U16(kMark).U16(kMark));
    for (LONGLONG start : {0, 1, 3}) {
        LARGE_INTEGER to{};
        to.QuadPart = start;
        ULARGE_INTEGER now{};
        ASSERT_EQ(probe->Seek(to, STREAM_SEEK_SET, nullptr), S_OK);
        EXPECT_EQ(db->PreLoad(probe.get()), start == 0 ? S_OK : E_FAIL) << start;
        ASSERT_EQ(probe->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &now), S_OK);
        EXPECT_EQ(now.QuadPart, static_cast<ULONGLONG>(start));
    }
    EXPECT_EQ(db->PreLoad(nullptr), E_POINTER);

    // Loading its own stream back ends after it. It changes nothing but the
    // strings saved valid and empty, which load as no value; from then on the
    // tree is its own stream.
    ComPtr<IStream> in = NewStream(CBytes(stream));
    ASSERT_EQ(persist->Load(in.get()), S_OK);
    EXPECT_EQ(PositionOf(in.get()), stream.size());
    const std::vector<BYTE> reloaded = SaveTree(db.get());
    EXPECT_LT(reloaded.size(), stream.size());
    ASSERT_EQ(persist->Load(NewStream(CBytes(reloaded)).get()), S_OK);
    EXPECT_EQ(SaveTree(db.get()), reloaded);
}
