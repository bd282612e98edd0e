// CreateDatabase: see Database.h. This unit instantiates the database object
// over the generated root group.
#include "schema/Database.h"

#include <string>

#include "files/LineFiles.h"
#include "files/TreeLinks.h"
#include "schema/GroupClasses.h"

namespace vorn {

namespace {

// The limit lines and transducer factors of the files in their directories
// (nothing when ZLM_SYSTEM_ROOT_RW is unset). A file that cannot be read is
// left out and named on standard error: one damaged file must not keep the
// analyzer from starting, nor cost the other lines.
void ReadLineFiles(CDatabaseRoot& root) {
    for (const SLineFileKind* kind : {&kLimitLineFiles, &kTransducerFactorFiles}) {
        auto* collection = FindPath<CGroupImpl>(&root, kind->collection);
        if (!collection) continue;
        for (const std::string& reason : LoadLineFiles(*collection, *kind).refused)
            OutputDebugStringA(("vorndb: not loaded: " + reason + "\n").c_str());
    }
}

}  // namespace

HRESULT CreateDatabase(REFIID riid, void** ppv, CDatabaseImplBase::TypeLibLoader loadTypeLib) noexcept {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    ComPtr<IDatabase> database;
    const HRESULT hr = CDatabaseImpl::CreateInstance(IID_IDatabase, database.put_void(), loadTypeLib);
    if (FAILED(hr)) return hr;
    const HRESULT read = Guarded([&] {
        ReadLineFiles(TreeOf(database.get()));
        return S_OK;
    });
    if (FAILED(read)) return read;
    return database->QueryInterface(riid, ppv);
}

CDatabaseRoot& TreeOf(IDatabase* database) noexcept {
    return static_cast<CDatabaseImpl*>(static_cast<CDatabaseImplBase*>(database))->TypedRoot();
}

}  // namespace vorn
