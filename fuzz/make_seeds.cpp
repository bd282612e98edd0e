// Writes the seed corpus of persistence_fuzz (fuzz/corpus/persistence/):
// small valid streams of the real tree and edge cases around them.
//
//     persistence_fuzz_seeds DIRECTORY
//
// Valid seeds: the DCSettings and AmplitudeNoisePremeas groups as their own
// streams, and root streams that reach one node through its chain of groups
// (the DCSettings group, a buffer with samples, a real array, a string), so
// that the fuzzer starts from records the tree claims. Edge cases: a wrong
// mark, a bare mark, a name of 128 bytes, a record size of 0, an unknown type
// code, a group version of 2, an array count beyond its capacity, a count
// beyond the stream, and a truncated stream. Run it again after the schema
// changes the tree's names.
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "schema/Database.h"
#include "schema/Metadata.h"
#include "stream/StreamBytes.h"
#include "vorn/vorndb.h"

using namespace persist_test;
using vorn::ComPtr;
using namespace vorn::schema;

namespace {

IDatabase* g_db = nullptr;

ComPtr<IUnknown> Node(const std::string& full) {
    std::u16string name(full.begin(), full.end());
    ComPtr<IUnknown> node;
    if (g_db->GetObject(name.data(), node.put()) != S_OK) std::fprintf(stderr, "no node %s\n", full.c_str());
    return node;
}

// The record of a node: its own stream without the mark.
CBytes RecordOf(const std::string& full) {
    ComPtr<IDatabaseObject> node;
    Node(full)->QueryInterface(IID_IDatabaseObject, node.put_void());
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, stream.put());
    node->Save(stream.get());
    const std::vector<BYTE> bytes = ContentsOf(stream.get());
    CBytes record;
    record.Data().assign(bytes.begin() + 2, bytes.end());
    return record;
}

// A root stream holding only the chain of groups down to the node named
// `full`, and `record` for it.
CBytes RootPath(const std::string& full, CBytes record) {
    std::string path = full;
    for (std::size_t dot = path.rfind('.'); dot != std::string::npos; dot = path.rfind('.')) {
        path.resize(dot);
        const std::size_t start = path.rfind('.');
        record = Record(start == std::string::npos ? path : path.substr(start + 1), GroupPayload({record}));
    }
    return Stream(Record("", GroupPayload({record})));
}

CBytes RootPath(const std::string& full) { return RootPath(full, RecordOf(full)); }

// The full name of the first parameter of a family.
std::string FirstOf(Family family, std::uint32_t iface = GetSchemaMetadata().root, const std::string& prefix = "") {
    for (const MemberInfo& member : MembersOf(iface)) {
        std::string name = member.name;
        if (member.count) name += "[0]";
        const std::string full = prefix.empty() ? name : prefix + "." + name;
        if (member.family == family) return full;
        if (member.family == Family::Group) {
            std::string found = FirstOf(family, member.childInterface, full);
            if (!found.empty()) return found;
        }
    }
    return {};
}

void Write(const std::string& dir, const char* name, const CBytes& bytes) {
    std::ofstream(dir + "/" + name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.Data().data()), static_cast<std::streamsize>(bytes.Size()));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 1;
    }
    const std::string dir = argv[1];
    ComPtr<IDatabase> db;
    if (vorn::CreateDatabase(IID_IDatabase, db.put_void()) != S_OK) return 1;
    g_db = db.get();

    const std::string buffer = FirstOf(Family::Buffer);
    CBuffer<float, 4> samples(CDim(3), CDim(2));
    for (int i = 0; i < 6; ++i) samples.Data()[i] = 0.5f * static_cast<float>(i);
    samples.SetUsedCount(3);
    ComPtr<IParameterBuffer> bufferParameter;
    Node(buffer)->QueryInterface(IID_IParameterBuffer, bufferParameter.put_void());
    bufferParameter->Attach(samples.Cookie());

    const std::string array = FirstOf(Family::RealArray);
    ComPtr<IParameterRealArray> arrayParameter;
    Node(array)->QueryInterface(IID_IParameterRealArray, arrayParameter.put_void());
    const double values[] = {1.0, -2.5, 1e9, 0.0, 3.25};
    arrayParameter->PutArray(5, values);

    const CBytes dc = Stream(RecordOf("UserSettings.DCSettings"));
    Write(dir, "dc_settings", dc);
    Write(dir, "am_premeas", Stream(RecordOf("UserSettings.VCOLOOPSettings.AmplitudeNoisePremeas")));
    const CBytes rootDC = RootPath("UserSettings.DCSettings");
    Write(dir, "root_dc_settings", rootDC);
    Write(dir, "root_buffer", RootPath(buffer));
    Write(dir, "root_real_array", RootPath(array));
    Write(dir, "root_string", RootPath(FirstOf(Family::String)));
    Write(dir, "root_integer_array", RootPath(FirstOf(Family::IntegerArray)));
    bufferParameter->ReleaseDescriptor();

    Write(dir, "edge_bad_mark", CBytes().U16(0x5002).Append(Record("", GroupPayload({}))));
    Write(dir, "edge_mark_only", CBytes().U16(kMark));
    Write(dir, "edge_name_128",
          Stream(Record("DCSettings", GroupPayload({Record(std::string(128, 'N'), IntegerPayload(true, 1))}))));
    Write(dir, "edge_size_zero",
          Stream(Record("DCSettings",
                        GroupPayload({CBytes().U32(0).U16(4).Text("Name").Append(IntegerPayload(true, 1))}))));
    Write(dir, "edge_unknown_type",
          Stream(Record("DCSettings", GroupPayload({Record("UseDCPort", CBytes().U16(13).U16(0).U32(2))}))));
    Write(dir, "edge_group_version", Stream(Record("DCSettings", GroupPayload({}, 2))));
    Write(
        dir, "edge_string_count",
        Stream(Record("DCSettings", GroupPayload({Record("SavedFilesList", CBytes().U16(8).U16(0).U32(0x7FFFFFFF))}))));
    const std::string arrayName = array.substr(array.rfind('.') + 1);
    CBytes tooMany = CBytes().U16(7).U16(0).U32(0xFFFFFFF0);
    Write(dir, "edge_capacity", RootPath(array, Record(arrayName, tooMany)));
    CBytes truncated;
    truncated.Data().assign(rootDC.Data().begin(),
                            rootDC.Data().begin() + static_cast<std::ptrdiff_t>(rootDC.Size() / 2));
    Write(dir, "edge_truncated", truncated);
    return 0;
}
