// For programs and preloaded libraries that define functions of the C library (or of the platform)
// themselves, which then take precedence, and call the original.
#pragma once

#include <dlfcn.h>

#define INTERPOSED extern "C" __attribute__((visibility("default")))

template <class Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
