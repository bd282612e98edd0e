// A client written as a COM client: registers the installed component module
// with the installed vornregsvr, creates the database through its program
// identifier, resolves names, releases everything and unregisters. (Type
// library and unloading: DatabaseModule in tests/module, on the same module.)
// Exit status 0 when every step did what it should; the first failing step is
// printed.
#include <vorn/vorndb.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int Fail(const char* step, HRESULT hr = S_OK) {
    char detail[1024];
    VornGetLastErrorTextA(detail, sizeof detail);
    std::fprintf(stderr, "package client: %s failed (0x%08X) %s\n", step, static_cast<unsigned>(hr), detail);
    return 1;
}

int RunTool(const std::string& arguments) {
    const std::string command = std::string(VORNDB_REGSVR) + " " + arguments;
    return std::system(command.c_str());
}

}  // namespace

int main() {
    if (RunTool(std::string("'") + VORNDB_MODULE + "'") != 0) return Fail("vornregsvr MODULE");
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return Fail("CoInitializeEx");

    CLSID clsid;
    HRESULT hr = CLSIDFromProgID(u"Zelmwerk.VORN.Database", &clsid);
    if (FAILED(hr) || !IsEqualCLSID(clsid, CLSID_Database)) return Fail("CLSIDFromProgID", hr);
    IDatabase* database = nullptr;
    hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDatabase, reinterpret_cast<void**>(&database));
    if (FAILED(hr)) return Fail("CoCreateInstance", hr);

    // Names resolve as soon as the object exists.
    for (const char16_t* name : {u"MeasurementSettings", u"NoiseFreqTablePreset[2]", u"OptionStateInfo.Measuring"}) {
        IUnknown* object = nullptr;
        hr = database->GetObject(const_cast<LPWSTR>(name), &object);
        if (FAILED(hr) || !object) return Fail("IDatabase::GetObject of a known name", hr);
        object->Release();
    }
    database->Release();
    CoUninitialize();

    if (RunTool(std::string("-u '") + VORNDB_MODULE + "'") != 0) return Fail("vornregsvr -u MODULE");
    std::printf("package client: all steps passed\n");
    return 0;
}
