// A small module for the loader and resource tests: it exports one function
// and one variable, imports a runtime function (which GetProcAddress must not
// find through it), and carries resources (see CMakeLists.txt).
#include "vorn/platform.h"

extern "C" __attribute__((visibility("default"))) int VornTestPluginAnswer() { return 42; }

extern "C" {
__attribute__((visibility("default"))) int gVornTestPluginCounter = 7;
}

// Uses the runtime, so that the module depends on libvornrt.so.
extern "C" __attribute__((visibility("default"))) void* VornTestPluginAllocate() {
    return CoTaskMemRealloc(nullptr, 16);
}
