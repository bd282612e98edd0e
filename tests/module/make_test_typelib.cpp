// Writes the tests' small type library (TestTypeLib.h) to the file named by
// its argument; the build embeds it into the test module.
#include <cstdio>
#include <exception>

#include "TestTypeLib.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_test_typelib OUTPUT.tlb\n");
        return 1;
    }
    try {
        vorn::typelib::WriteFileIfChanged(argv[1], vorn::typelib::WriteTypeLib(TestTypeLibrary()));
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make_test_typelib: %s\n", e.what());
        return 1;
    }
}
