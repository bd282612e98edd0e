// vorndb: the command-line client of the database component.
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* kUsage =
    "usage: vorndb [--help] [--version]\n"
    "\n"
    "Browse, edit, watch and inspect the vorn parameter database.\n";

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("vorndb " VORNDB_VERSION);
        return 0;
    }
    if (argc == 1 || (argc == 2 && std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    std::fprintf(stderr, "vorndb: unknown argument '%s'\n%s", argv[1], kUsage);
    return 2;
}
