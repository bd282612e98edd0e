// The other half of the whole-tree round trip (test_whole_tree.cpp): a fresh
// process, so a freshly created database object (one per process), loads a
// settings stream of the whole tree and saves the tree again.
//
//     stream_tree_loader STREAM_FILE SAVED_FILE
//
// Exit status: 0 after IDatabase's IPersistStream::Load returned S_OK and
// its Save was written; 1 otherwise (the reason on stderr).
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "schema/Database.h"
#include "stream/StreamBytes.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s STREAM_FILE SAVED_FILE\n", argv[0]);
        return 1;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::vector<BYTE> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    vorn::ComPtr<IDatabase> db;
    vorn::ComPtr<IPersistStream> persist;
    vorn::ComPtr<IStream> saved;
    HRESULT hr = S_OK;
    if (FAILED(hr = vorn::CreateDatabase(IID_IDatabase, db.put_void())) ||
        FAILED(hr = db->QueryInterface(IID_IPersistStream, persist.put_void())) ||
        (hr = persist->Load(persist_test::NewStream(persist_test::CBytes(bytes)).get())) != S_OK ||
        FAILED(hr = CreateStreamOnHGlobal(nullptr, TRUE, saved.put())) ||
        FAILED(hr = persist->Save(saved.get(), TRUE))) {
        std::fprintf(stderr, "loading and saving the stream: 0x%08x\n", static_cast<unsigned>(hr));
        return 1;
    }
    const std::vector<BYTE> out = persist_test::ContentsOf(saved.get());
    std::ofstream(argv[2], std::ios::binary)
        .write(reinterpret_cast<const char*>(out.data()), static_cast<std::streamsize>(out.size()));
    return 0;
}
