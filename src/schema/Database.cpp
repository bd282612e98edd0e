// CreateDatabase: see Database.h. This unit instantiates the database object
// over the generated root group.
#include "schema/Database.h"

#include "schema/GroupClasses.h"

namespace vorn {

HRESULT CreateDatabase(REFIID riid, void** ppv, CDatabaseImplBase::TypeLibLoader loadTypeLib) noexcept {
    return CDatabaseImpl::CreateInstance(riid, ppv, loadTypeLib);
}

CDatabaseRoot& TreeOf(IDatabase* database) noexcept {
    return static_cast<CDatabaseImpl*>(static_cast<CDatabaseImplBase*>(database))->TypedRoot();
}

}  // namespace vorn
