// DlopenProbe <library file>: loads and unloads it twice (it must not be
// linked in) and says which threads run after each.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "support/ThreadNames.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZMTEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZMTEST_ASAN 1
#endif
#endif
#ifdef ZMTEST_ASAN
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// The library's load-time objects are never destroyed (they must outlive the
// exit handlers), so each unload leaves them behind: not counted as leaks here.
void* Load(const char* file) {
#ifdef ZMTEST_ASAN
    __lsan::ScopedDisabler notCounted;
#endif
    return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    for (int round = 0; round < 2; ++round) {
        void* lib = Load(argv[1]);
        if (lib == nullptr) {
            std::printf("dlopen failed: %s\n", dlerror());
            return 3;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        std::printf("loaded threads=%s\n", zmtest::ThreadNames().c_str());
        dlclose(lib);
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        std::printf("unloaded threads=%s\n", zmtest::ThreadNames().c_str());
        std::fflush(stdout);
    }
    return 0;
}
