// Loads and unloads the library with dlopen/dlclose (it is not linked in), and
// reports the threads before and after: nothing of the library may keep
// running once it is unloaded.
//   DlopenProbe <library file>
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "support/ThreadNames.h"

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    for (int round = 0; round < 2; ++round) {
        void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
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
