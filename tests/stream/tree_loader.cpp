// The other half of the whole-tree round trip (test_whole_tree.cpp): a fresh
// process, so a freshly created database object (one per process), loads a
// settings stream of the whole tree and writes the tree's dump.
//
//     stream_tree_loader STREAM_FILE DUMP_FILE
//
// Exit status: 0 after IDatabase's IPersistStream::Load returned S_OK and
// the dump was written; 1 otherwise (the reason on stderr).
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "schema/Database.h"
#include "stream/TreeDump.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s STREAM_FILE DUMP_FILE\n", argv[0]);
        return 1;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.eof() && in.fail()) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }

    vorn::ComPtr<IDatabase> db;
    HRESULT hr = vorn::CreateDatabase(IID_IDatabase, db.put_void());
    if (FAILED(hr)) {
        std::fprintf(stderr, "CreateDatabase: 0x%08x\n", static_cast<unsigned>(hr));
        return 1;
    }
    vorn::ComPtr<IStream> stream;
    vorn::ComPtr<IPersistStream> persist;
    ULONG written = 0;
    if (FAILED(hr = CreateStreamOnHGlobal(nullptr, TRUE, stream.put())) ||
        FAILED(hr = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written)) ||
        FAILED(hr = stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr)) ||
        FAILED(hr = db->QueryInterface(IID_IPersistStream, persist.put_void())) ||
        (hr = persist->Load(stream.get())) != S_OK) {
        std::fprintf(stderr, "loading the stream: 0x%08x\n", static_cast<unsigned>(hr));
        return 1;
    }
    std::ofstream out(argv[2]);
    for (const std::string& line : persist_test::DumpTree(db.get())) out << line << '\n';
    out.close();
    return out ? 0 : 1;
}
