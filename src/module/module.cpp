// Entry points of the component module libvorndb.so: the four functions the
// module exports (exports.map hides everything else), served by the generic
// in-process server code of ServerModule.h over this module's class table.
//
// Registration runs the module's registration script (resource REGISTRY 101,
// resources/Database.reg) with %CLSID% and %LIBID% taken from the component's
// own identifiers, so the script holds no identifier of its own. There is no
// proxy/stub layer on this platform, so the entry points go straight to the
// server (see docs/platform.md).
#include "core/DatabaseImpl.h"
#include "module/ServerModule.h"
#include "schema/Database.h"
#include "schema/Metadata.h"
#include "vorn/database.h"

#define VORN_MODULE_ENTRY EXTERN_C __attribute__((visibility("default")))

namespace {

// The database object over the schema's root group (schema/Database.h:
// also reads the limit-line and transducer-factor files). Final
// construction loads the type library from this module's own file.
HRESULT CreateDatabase(REFIID riid, void** ppv) {
    return vorn::CreateDatabase(riid, ppv, &vorn::module::LoadModuleTypeLib);
}

// The classes this module serves.
constexpr vorn::module::ClassEntry kClasses[] = {
    {&CLSID_Database, &CreateDatabase},
};

constexpr char kRegistrationScript[] = "#101";

// The identifiers the registration script refers to.
const vorn::module::IdReplacement kIds[] = {
    {"CLSID", &CLSID_Database},
    {"LIBID", &vorn::schema::GetSchemaMetadata().libid},
};

}  // namespace

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    return vorn::module::GetClassObject(kClasses, rclsid, riid, ppv);
}

// Live database objects hold the module as server locks do.
VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllCanUnloadNow() {
    return vorn::module::CanUnloadNow(vorn::CDatabaseImplBase::LiveObjects());
}

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllRegisterServer() {
    return vorn::module::RegisterServer(kRegistrationScript, kIds);
}

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllUnregisterServer() {
    return vorn::module::UnregisterServer(kRegistrationScript, kIds);
}
