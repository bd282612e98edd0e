// The first creation of the database in a fresh process, as an application
// pays it: run as its own program (exec'd, never forked from a warmed
// parent) by startup_bench, it loads the module through the runtime's
// activation (the registered class: the module's relocations, its pages and
// the tree's page faults are all in the figure) and creates the database.
//
//     startup_probe [--none]
//
// Prints one line: the microseconds from entering main to the creation's
// return, then to the final release's return. --none creates nothing (the
// process's own cost, for the baseline). Exit 0, or 1 with the HRESULT.
#include <chrono>
#include <cstdio>
#include <cstring>

#include "vorn/vorndb.h"

int main(int argc, char** argv) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    auto micros = [&] { return std::chrono::duration<double, std::micro>(Clock::now() - start).count(); };
    if (argc > 1 && std::strcmp(argv[1], "--none") == 0) {
        std::printf("0 0\n");
        return 0;
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    IDatabase* db = nullptr;
    const HRESULT hr =
        CoCreateInstance(CLSID_Database, nullptr, CLSCTX_INPROC_SERVER, IID_IDatabase, reinterpret_cast<void**>(&db));
    if (FAILED(hr)) {
        std::fprintf(stderr, "startup_probe: CoCreateInstance failed: 0x%08X\n", static_cast<unsigned>(hr));
        return 1;
    }
    const double created = micros();
    db->Release();
    const double released = micros();
    CoUninitialize();
    std::printf("%.1f %.1f\n", created, released);
    return 0;
}
