// The whole tree of the real schema through a settings stream: every value,
// status and limit moved off its defaults, saved, and loaded into a freshly
// created database object (in a second process, as a process holds one
// database object in its lifetime), which saves it again: the two streams
// are the same, parameter by parameter (named by the vorndb tool's decoder,
// which reads the format without CDataStream). Also the header and size of
// the database object's own stream.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>

#include "StreamDump.h"
#include "schema/Database.h"
#include "schema/Metadata.h"
#include "stream/DataStream.h"
#include "stream/StreamBytes.h"

extern char** environ;

using namespace vorn;
using namespace vorn::schema;
using namespace persist_test;

namespace {

// Calls `visit` for every parameter below the group of interface `iface`.
void Walk(IDatabase* db, std::uint32_t iface, const std::string& prefix,
          const std::function<void(const MemberInfo& member, IUnknown* node)>& visit) {
    for (const MemberInfo& member : MembersOf(iface)) {
        for (std::uint32_t i = 0; i < (member.count ? member.count : 1); ++i) {
            std::string name = prefix + (prefix.empty() ? "" : ".") + member.name;
            if (member.count) name += "[" + std::to_string(i) + "]";
            if (member.family == Family::Group) {
                Walk(db, member.childInterface, name, visit);
                continue;
            }
            std::u16string wide(name.begin(), name.end());
            ComPtr<IUnknown> node;
            ASSERT_EQ(db->GetObject(wide.data(), node.put()), S_OK) << name;
            visit(member, node.get());
        }
    }
}

template <class I>
ComPtr<I> As(IUnknown* node) {
    ComPtr<I> typed;
    node->QueryInterface(VORN_UUIDOF(I), typed.put_void());
    return typed;
}

// Moves every parameter but those of CParameterNoLoadSave off its defaults
// through the client interfaces, without file actions or dependency
// propagation: new limits on the settings with a value beyond the old ones,
// other values, other units for the plain reals that stay valid, arrays of a
// few elements (one trace of 102400), every ninth parameter invalid, buffers
// attached (kept in `buffers`, which must outlive the database). Returns the
// number of parameters changed.
std::size_t ChangeEveryValue(IDatabase* db, std::vector<std::unique_ptr<CBuffer<float, 4>>>& buffers) {
    const SchemaMetadata& meta = GetSchemaMetadata();
    std::size_t changed = 0;
    bool longTrace = false;
    Walk(db, meta.root, "", [&](const MemberInfo& member, IUnknown* node) {
        if (std::string_view(meta.classes[member.parameterClass].name) == "CParameterNoLoadSave") return;
        const std::size_t n = changed++;
        switch (member.family) {
            case Family::Boolean: {
                auto p = As<IParameterBoolean>(node);
                VARIANT_BOOL v = 0;
                p->get_Value(&v);
                p->AssignValue(v ? VARIANT_FALSE : VARIANT_TRUE, 1);
                break;
            }
            case Family::Integer: {
                auto p = As<IParameterInteger>(node);
                ULONG v = 0;
                ULONG maximum = 0;
                p->get_Value(&v);
                if (p->get_Maximum(&maximum) != S_OK) {
                    p->AssignValue(v + 12345, 1);
                } else if (maximum < 0xFFFFFFF0u && p->put_Maximum(maximum + 3) == S_OK) {
                    p->AssignValue(maximum + 3, 1);  // a setting: beyond its old limit
                } else if (maximum != 0xFFFFFFFFu) {
                    p->AssignValue((v + 1) % (maximum + 1), 1);  // an enumeration
                }
                break;
            }
            case Family::Real: {
                auto p = As<IParameterReal>(node);
                double minimum = 0;
                double maximum = 0;
                if (p->get_Minimum(&minimum) == S_OK && p->get_Maximum(&maximum) == S_OK) {
                    double span = maximum - minimum;
                    if (!(span > 0) || !std::isfinite(span)) span = 1;
                    p->put_Minimum(minimum - span);
                    p->put_Maximum(maximum + span);
                    p->AssignValue(maximum + span / 2, 1);
                } else {
                    // The unit goes with a valid value only: the stream has
                    // no unit for an invalid real.
                    if (n % 9 != 0) p->put_Units(static_cast<eUNIT>((n % 21) + 1));
                    p->AssignValue(0.125 * static_cast<double>(n) - 3, 1);
                }
                break;
            }
            case Family::String: {
                const std::string text = "v" + std::to_string(n);
                BSTR value =
                    SysAllocStringLen(std::u16string(text.begin(), text.end()).c_str(), static_cast<UINT>(text.size()));
                As<IParameterString>(node)->AssignValue(value, 1);
                SysFreeString(value);
                break;
            }
            case Family::IntegerArray: {
                auto p = As<IParameterIntegerArray>(node);
                ULONG capacity = 0;
                p->get_MaxSize(&capacity);
                std::vector<ULONG> values(std::min<ULONG>(capacity, 1 + n % 5));
                for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<ULONG>(n * 7 + i);
                p->PutArray(static_cast<ULONG>(values.size()), values.data());
                break;
            }
            case Family::RealArray: {
                auto p = As<IParameterRealArray>(node);
                ULONG capacity = 0;
                p->get_MaxSize(&capacity);
                ULONG count = std::min<ULONG>(capacity, 1 + n % 5);
                if (!longTrace && capacity >= 102400) {
                    count = 102400;
                    longTrace = true;
                }
                std::vector<double> values(count);
                for (std::size_t i = 0; i < values.size(); ++i) values[i] = std::sin(static_cast<double>(n + i));
                p->PutArray(count, values.data());
                break;
            }
            case Family::Buffer: {
                auto& buffer = buffers.emplace_back(std::make_unique<CBuffer<float, 4>>(CDim(3), CDim(2)));
                for (int i = 0; i < 6; ++i) buffer->Data()[i] = static_cast<float>(n) + 0.25f * static_cast<float>(i);
                buffer->SetUsedCount(2);
                As<IParameterBuffer>(node)->Attach(buffer->Cookie());
                break;
            }
            case Family::Group:
                break;
        }
        if (n % 9 == 0) As<IParameter>(node)->put_Status(eSTATUS_INVALID);
    });
    return changed;
}

std::vector<BYTE> SaveTree(IDatabase* db) {
    ComPtr<IPersistStream> persist;
    EXPECT_EQ(db->QueryInterface(IID_IPersistStream, persist.put_void()), S_OK);
    ComPtr<IStream> stream;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), S_OK);
    EXPECT_EQ(persist->Save(stream.get(), TRUE), S_OK);
    return ContentsOf(stream.get());
}

// Runs the loader on `stream`; the stream it saved, or empty when it failed.
std::vector<BYTE> LoadInFreshProcess(const std::vector<BYTE>& stream) {
    const std::string in = "whole_tree_" + std::to_string(getpid()) + ".in";
    const std::string out = "whole_tree_" + std::to_string(getpid()) + ".out";
    std::ofstream(in, std::ios::binary)
        .write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
    std::string loader = VORN_TREE_LOADER;
    char* argv[] = {loader.data(), const_cast<char*>(in.c_str()), const_cast<char*>(out.c_str()), nullptr};
    pid_t pid = 0;
    int status = -1;
    if (posix_spawn(&pid, loader.c_str(), nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &status, 0) != pid)
        return {};
    std::ifstream saved(out, std::ios::binary);
    std::vector<BYTE> bytes((std::istreambuf_iterator<char>(saved)), std::istreambuf_iterator<char>());
    std::remove(in.c_str());
    std::remove(out.c_str());
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? bytes : std::vector<BYTE>();
}

// The full names of the parameters whose records differ between two streams
// of the whole tree, or are in one only. The last shape word of a buffer
// counts its holders (the client and the parameter here, the parameter alone
// in the loader): it is left out.
std::vector<std::string> Differences(const std::vector<BYTE>& a, const std::vector<BYTE>& b) {
    std::map<std::string, std::pair<std::vector<BYTE>, std::vector<BYTE>>> records;
    for (const auto* stream : {&a, &b}) {
        const vorndb::DecodedStream decoded = vorndb::DecodeStream(*stream);
        EXPECT_TRUE(decoded.ok) << decoded.error;
        vorndb::ForEachParameter(decoded, "", [&](const std::string& name, const vorndb::StreamRecord& record) {
            auto& slot = stream == &a ? records[name].first : records[name].second;
            slot.assign(stream->begin() + static_cast<std::ptrdiff_t>(record.offset),
                        stream->begin() + static_cast<std::ptrdiff_t>(record.offset + record.size));
            if (record.dimensions == 4) std::fill_n(slot.begin() + 6 + record.name.size() + 6 + 7 * 4, 4, 0);
        });
    }
    std::vector<std::string> names;
    for (const auto& [name, pair] : records)
        if (pair.first != pair.second) names.push_back(name);
    return names;
}

}  // namespace

TEST(SettingsStreamWholeTree, EveryValueStatusAndLimitComesBackInAFreshDatabase) {
    std::vector<std::unique_ptr<CBuffer<float, 4>>> buffers;  // outlive the database
    ComPtr<IDatabase> db;
    ASSERT_EQ(CreateDatabase(IID_IDatabase, db.put_void()), S_OK);
    ComPtr<IPersistStream> persist;
    ASSERT_EQ(db->QueryInterface(IID_IPersistStream, persist.put_void()), S_OK);
    const std::vector<BYTE> defaults = SaveTree(db.get());
    const std::size_t changed = ChangeEveryValue(db.get(), buffers);
    // Loading its own stream back ends after it. It changes nothing but the
    // strings saved valid and empty (a marker rule empties the name of a
    // marker that is off), which load as no value; from then on the tree is
    // its own stream.
    const std::vector<BYTE> first = SaveTree(db.get());
    ComPtr<IStream> in = NewStream(CBytes(first));
    ASSERT_EQ(persist->Load(in.get()), S_OK);
    EXPECT_EQ(PositionOf(in.get()), first.size());
    const std::vector<BYTE> expected = SaveTree(db.get());
    EXPECT_LT(expected.size(), first.size());
    // Nearly every parameter really left its defaults (an enumeration of one
    // value cannot, nor can a handshake companion written before its system
    // setting, whose assignment puts it back to eSTATE_EDIT).
    const std::size_t moved = Differences(defaults, expected).size();
    EXPECT_GT(moved, changed * 94 / 100) << moved << " of " << changed;
    EXPECT_GT(buffers.size(), 0u);

    const std::vector<BYTE> loaded = LoadInFreshProcess(expected);
    ASSERT_FALSE(loaded.empty()) << "the loader failed";
    EXPECT_EQ(Differences(expected, loaded), std::vector<std::string>());
    RecordProperty("parameters", static_cast<int>(changed));
    RecordProperty("stream_bytes", static_cast<int>(expected.size()));
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
}
